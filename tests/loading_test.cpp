// Loading TWAIN_32.DLL from the Windows directory only, retried while missing, kept while a session is open.
#include <gtest/gtest.h>

#include <algorithm>

#include "ModuleTest.h"
#include "SessionTest.h"

using namespace smtest;

namespace {

const std::vector<std::string> kLoadedCall = {
    "Trace 428 Coming TScanModule::IsTWAINAvailable",       "Trace 373 Coming TScanModule::IsTWAINLoaded",
    "Trace 388 TScanModule::IsTWAINLoaded returns TRUE",    "Trace 389 Leaving TScanModule::IsTWAINLoaded",
    "Trace 442 TScanModule::IsTWAINAvailable returns TRUE", "Trace 444 Leaving TScanModule::IsTWAINAvailable",
};

const std::vector<std::string> kMissingCall = {
    "Trace 428 Coming TScanModule::IsTWAINAvailable",
    "Trace 373 Coming TScanModule::IsTWAINLoaded",
    "Trace 388 TScanModule::IsTWAINLoaded returns FALSE",
    "Trace 389 Leaving TScanModule::IsTWAINLoaded",
    "Trace 319 Coming TScanModule::LoadTWAIN",
    "Trace 373 Coming TScanModule::IsTWAINLoaded",
    "Trace 388 TScanModule::IsTWAINLoaded returns FALSE",
    "Trace 389 Leaving TScanModule::IsTWAINLoaded",
    "Warning 356 LoadLibrary fails in TScanModule::LoadTWAIN",
    "Trace 363 Leaving TScanModule::LoadTWAIN",
    "Trace 373 Coming TScanModule::IsTWAINLoaded",
    "Trace 388 TScanModule::IsTWAINLoaded returns FALSE",
    "Trace 389 Leaving TScanModule::IsTWAINLoaded",
    "Trace 442 TScanModule::IsTWAINAvailable returns FALSE",
    "Trace 444 Leaving TScanModule::IsTWAINAvailable",
};

class LoadingTest : public ModuleTest {};

TEST_F(LoadingTest, LoadedAtConstructionAnswersOneWithoutAnotherLoad) {
    library.Load();
    viewer.Clear();
    EXPECT_EQ(1, library.Available());
    EXPECT_EQ(kLoadedCall, viewer.Brief());
    EXPECT_TRUE(viewer.Texts("Warning").empty());
    EXPECT_EQ(0, viewer.CountText("Coming TScanModule::LoadTWAIN"));
}

TEST_F(LoadingTest, ConstructionLoadsTheLibraryWithItsRecords) {
    library.Load();
    const std::vector<std::string> brief = viewer.Brief();
    const std::vector<std::string> load = {
        "Trace 319 Coming TScanModule::LoadTWAIN",
        "Trace 373 Coming TScanModule::IsTWAINLoaded",
        "Trace 388 TScanModule::IsTWAINLoaded returns FALSE",
        "Trace 389 Leaving TScanModule::IsTWAINLoaded",
        "Trace 363 Leaving TScanModule::LoadTWAIN",
    };
    auto at = std::search(brief.begin(), brief.end(), load.begin(), load.end());
    EXPECT_NE(brief.end(), at) << "the constructor's load records are missing";
    EXPECT_TRUE(IsLoaded(TwainPath()));
}

TEST_F(LoadingTest, MissingLibraryAnswersZeroAndRetriesOnEveryCall) {
    InstallDsm(Dsm::Absent);
    library.Load();
    EXPECT_EQ(1, viewer.CountText("LoadLibrary fails in TScanModule::LoadTWAIN"));
    viewer.Clear();
    EXPECT_EQ(0, library.Available());
    EXPECT_EQ(kMissingCall, viewer.Brief());
    viewer.Clear();
    EXPECT_EQ(0, library.Available());
    EXPECT_EQ(kMissingCall, viewer.Brief()) << "the second call must try to load again";
}

TEST_F(LoadingTest, LibraryThatAppearsLaterIsLoadedByTheNextCall) {
    InstallDsm(Dsm::Absent);
    library.Load();
    EXPECT_EQ(0, library.Available());
    InstallDsm(Dsm::Present);
    viewer.Clear();
    EXPECT_EQ(1, library.Available());
    EXPECT_EQ(1, viewer.CountText("Coming TScanModule::LoadTWAIN"));
    EXPECT_TRUE(viewer.Texts("Warning").empty());
    EXPECT_TRUE(IsLoaded(TwainPath()));
    viewer.Clear();
    EXPECT_EQ(1, library.Available());
    EXPECT_EQ(kLoadedCall, viewer.Brief());
}

TEST_F(LoadingTest, LibraryWithoutEntryIsFreedAgain) {
    InstallDsm(Dsm::WithoutEntry);
    library.Load();
    EXPECT_EQ(1, viewer.CountText("GetProcAddress fails in TScanModule::LoadTWAIN"));
    EXPECT_FALSE(IsLoaded(TwainPath())) << "the library without DSM_Entry must be freed";
    viewer.Clear();
    EXPECT_EQ(0, library.Available());
    const std::vector<std::string> warnings = {"GetProcAddress fails in TScanModule::LoadTWAIN"};
    EXPECT_EQ(warnings, viewer.Texts("Warning"));
    std::vector<std::string> brief = viewer.Brief();
    EXPECT_NE(brief.end(),
              std::find(brief.begin(), brief.end(), "Warning 342 GetProcAddress fails in TScanModule::LoadTWAIN"));
}

TEST_F(LoadingTest, OnlyTheWindowsDirectoryIsTried) {
    InstallDsm(Dsm::Absent);
    char system[MAX_PATH];
    GetSystemDirectoryA(system, sizeof system);
    const std::string inSystem = std::string(system) + "\\TWAIN_32.DLL";
    const std::string saved = inSystem + ".smk-saved";
    const std::string beside = BinDir() + "\\TWAIN_32.DLL";
    // The prefix's own TWAIN_32.DLL in the system directory is put back afterwards.
    const bool hadOne = GetFileAttributesA(inSystem.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (hadOne) {
        ASSERT_TRUE(CopyFileA(inSystem.c_str(), saved.c_str(), FALSE));
    }
    ScopeExit restore([&] {
        library.Free();
        DeleteFileA(beside.c_str());
        if (hadOne && CopyFileA(saved.c_str(), inSystem.c_str(), FALSE))
            DeleteFileA(saved.c_str());
        else if (!hadOne)
            DeleteFileA(inSystem.c_str());
    });
    ASSERT_TRUE(CopyFileA((BinDir() + "\\testdsm.dll").c_str(), inSystem.c_str(), FALSE));
    ASSERT_TRUE(CopyFileA((BinDir() + "\\testdsm.dll").c_str(), beside.c_str(), FALSE));
    library.Load();
    EXPECT_EQ(0, library.Available()) << "TWAIN_32.DLL beside the program or in the system directory must not be used";
}

TEST_F(LoadingTest, FreeingTheLibraryUnloadsTheSourceManager) {
    library.Load();
    ASSERT_TRUE(IsLoaded(TwainPath()));
    viewer.Clear();
    library.Free();
    EXPECT_FALSE(IsLoaded(TwainPath()));
    const std::vector<std::string> unload = {
        "Trace 398 Coming TScanModule::UnloadTWAIN",
        "Trace 418 Leaving TScanModule::UnloadTWAIN",
    };
    const std::vector<std::string> brief = viewer.Brief();
    EXPECT_NE(brief.end(), std::search(brief.begin(), brief.end(), unload.begin(), unload.end()));
}

TEST_F(LoadingTest, TheSourceManagerIsNotCalledByLoading) {
    library.Load();
    ASSERT_TRUE(dsm.Open());
    EXPECT_EQ(1, library.Available());
    EXPECT_TRUE(dsm.Calls().empty()) << "loading and the availability test send no triplet";
}

// A source left open when the application frees the scan module: the destructor closes nothing, and
// UnloadTWAIN, finding the session open, keeps the source manager loaded.
class UnloadingTest : public SessionTest {};

TEST_F(UnloadingTest, OpenSourceIsLeftOpenAndTheSourceManagerLoaded) {
    ASSERT_EQ(SM_OK, openDS(window, "Unloading test"));
    ASSERT_EQ(1, script.openSourceCount());
    Mark();
    viewer.Clear();
    // The freed exports must not be called again, and the stand-in (with the source it holds
    // open) is released here for the tests that follow.
    ScopeExit release([&] {
        disableDS = nullptr;
        closeDS = nullptr;
        dsm.Close();
        if (HMODULE kept = GetModuleHandleA(TwainPath().c_str())) {
            reinterpret_cast<TdsmResetProc>(reinterpret_cast<void *>(GetProcAddress(kept, "TdsmReset")))();
            FreeLibrary(kept);
        }
    });
    library.Free();

    EXPECT_EQ(std::vector<std::string>{}, Triplets()) << "no MSG_DISABLEDS, MSG_CLOSEDS or MSG_CLOSEDSM after the open";
    EXPECT_EQ(1, script.openSourceCount());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    // Only the scan module's own reference is left once the test's is given back.
    dsm.Close();
    EXPECT_TRUE(IsLoaded(TwainPath())) << "TWAIN_32.DLL must stay loaded while its session is open";

    const std::vector<std::string> destructor = {
        "Coming TScanModule::~TScanModule",        "Coming TScanModule::IsTWAINLoaded",
        "TScanModule::IsTWAINLoaded returns TRUE", "Leaving TScanModule::IsTWAINLoaded",
        "Coming TScanModule::UnloadTWAIN",         "Leaving TScanModule::UnloadTWAIN",
        "Leaving TScanModule::~TScanModule",
    };
    const std::vector<std::string> traced = viewer.Texts("Trace");
    ASSERT_GE(traced.size(), destructor.size());
    EXPECT_EQ(destructor, std::vector<std::string>(traced.begin(), traced.begin() + destructor.size()));
    const std::vector<std::string> unload = {
        "Trace 398 Coming TScanModule::UnloadTWAIN",
        "Trace 418 Leaving TScanModule::UnloadTWAIN",
    };
    const std::vector<std::string> brief = viewer.Brief();
    EXPECT_NE(brief.end(), std::search(brief.begin(), brief.end(), unload.begin(), unload.end()));
    EXPECT_TRUE(viewer.Texts("Warning").empty());
}

} // namespace
