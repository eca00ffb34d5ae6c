// Loading TWAIN_32.DLL: from the Windows directory only, retried while missing, the availability answer and its
// records.
#include <gtest/gtest.h>

#include "ModuleTest.h"

using namespace smtest;

namespace {

typedef BOOL(WINAPI *IsTWAINAvailableProc)();

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

class LoadingTest : public ModuleTest {
protected:
    IsTWAINAvailableProc Available() { return library.Get<IsTWAINAvailableProc>("smIsTWAINAvailable"); }
};

TEST_F(LoadingTest, LoadedAtConstructionAnswersOneWithoutAnotherLoad) {
    library.Load();
    viewer.Clear();
    EXPECT_EQ(1, Available()());
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
    EXPECT_EQ(0, Available()());
    EXPECT_EQ(kMissingCall, viewer.Brief());
    viewer.Clear();
    EXPECT_EQ(0, Available()());
    EXPECT_EQ(kMissingCall, viewer.Brief()) << "the second call must try to load again";
}

TEST_F(LoadingTest, LibraryThatAppearsLaterIsLoadedByTheNextCall) {
    InstallDsm(Dsm::Absent);
    library.Load();
    EXPECT_EQ(0, Available()());
    InstallDsm(Dsm::Present);
    viewer.Clear();
    EXPECT_EQ(1, Available()());
    EXPECT_EQ(1, viewer.CountText("Coming TScanModule::LoadTWAIN"));
    EXPECT_TRUE(viewer.Texts("Warning").empty());
    EXPECT_TRUE(IsLoaded(TwainPath()));
    viewer.Clear();
    EXPECT_EQ(1, Available()());
    EXPECT_EQ(kLoadedCall, viewer.Brief());
}

TEST_F(LoadingTest, LibraryWithoutEntryIsFreedAgain) {
    InstallDsm(Dsm::WithoutEntry);
    library.Load();
    EXPECT_EQ(1, viewer.CountText("GetProcAddress fails in TScanModule::LoadTWAIN"));
    EXPECT_FALSE(IsLoaded(TwainPath())) << "the library without DSM_Entry must be freed";
    viewer.Clear();
    EXPECT_EQ(0, Available()());
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
    const std::string beside = BinDir() + "\\TWAIN_32.DLL";
    ASSERT_TRUE(CopyFileA((BinDir() + "\\testdsm.dll").c_str(), inSystem.c_str(), FALSE));
    ASSERT_TRUE(CopyFileA((BinDir() + "\\testdsm.dll").c_str(), beside.c_str(), FALSE));
    library.Load();
    const BOOL available = Available()();
    library.Free();
    DeleteFileA(inSystem.c_str());
    DeleteFileA(beside.c_str());
    EXPECT_EQ(0, available) << "TWAIN_32.DLL beside the program or in the system directory must not be used";
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
    EXPECT_EQ(1, Available()());
    EXPECT_TRUE(dsm.Calls().empty()) << "loading and the availability test send no triplet";
}

} // namespace
