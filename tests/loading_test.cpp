// Loading TWAIN_32.DLL from the Windows directory only, retried while missing, kept while a session is open.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "ModuleTest.h"
#include "SessionTest.h"
#include "XferTest.h"

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

// Where an application may free the module (inside a notification handler it may not): what it leaves behind.
enum class Left { Nothing, ManagerOpen, SourceOpen, SourceEnabled, ImagesPending, InAnImage };
struct UnloadPoint {
    const char *name;
    Left left;
    int managerState;  // the stand-in's state after the module is gone
    int openSources;   // sources the stand-in holds open
    int sourceState;   // the virtual scanner's state (VSCAN_STATE_...)
    bool keepsManager; // whether the module's reference keeps TWAIN_32.DLL loaded
};

const UnloadPoint kUnloadPoints[] = {
    {"Nothing", Left::Nothing, TDSM_STATE_LOADED, 0, VSCAN_STATE_CLOSED, false},
    {"ManagerOpen", Left::ManagerOpen, TDSM_STATE_OPEN, 0, VSCAN_STATE_CLOSED, true},
    {"SourceOpen", Left::SourceOpen, TDSM_STATE_OPEN, 1, VSCAN_STATE_OPEN, true},
    {"SourceEnabled", Left::SourceEnabled, TDSM_STATE_OPEN, 1, VSCAN_STATE_ENABLED, true},
    {"ImagesPending", Left::ImagesPending, TDSM_STATE_OPEN, 1, VSCAN_STATE_XFERREADY, true},
    {"InAnImage", Left::InAnImage, TDSM_STATE_OPEN, 1, VSCAN_STATE_XFERRING, true},
};

// The module freed with the session where the point says: the destructor closes nothing and keeps the source manager
// loaded while its session is open, and what it leaves is a session the source manager still runs consistently: the
// source's events reach the application's loop without harm, the session can be ended with the identities it was
// opened with, and a second load in the same process works, first refused by the source manager that still has the
// first session open, then, once that one is ended, for a whole acquisition.
class UnloadSafetyTest : public XferTest, public ::testing::WithParamInterface<UnloadPoint> {
protected:
    void TearDown() override {
        suppress.reset();
        XferTest::TearDown();
    }
    void LeaveSession(Left left) {
        if (left == Left::Nothing)
            return;
        if (left == Left::ManagerOpen) {
            LeaveManagerOpen();
            return;
        }
        if (left >= Left::ImagesPending)
            suppress = std::make_unique<SuppressSetting>(2);
        Open(SM_XFER_MEMORY);
        if (left == Left::SourceOpen || HasFatalFailure())
            return;
        ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
        if (left == Left::SourceEnabled)
            return;
        // The application's loop hands the source's notice to smIsDSEvent, which leaves the images pending.
        ASSERT_TRUE(Pump([this] { return scanner.Info().state == VSCAN_STATE_XFERREADY; }, 3000));
        if (left == Left::InAnImage) {
            // Ten rows of the small page's 175, one row more for the reader to spare.
            const DWORD rows = 10 * kSmallPageWidth * 3;
            std::vector<BYTE> block(rows + kSmallPageWidth * 3);
            DWORD count = 0;
            ASSERT_FALSE(readBlock(block.data(), rows, &count));
            ASSERT_EQ(rows, count);
        }
    }
    // The identities of the session as the source manager gave them: the application's and the source's Id.
    void SessionIds(TW_IDENTITY &application, TW_IDENTITY &source) const {
        for (const TdsmCall &call : dsm.Calls()) {
            if (call.originId)
                application.Id = call.originId;
            if (call.destId)
                source.Id = call.destId;
        }
    }
    // What an operator does with the session the module left: each step back answered by the source manager.
    void EndSession(const TW_IDENTITY &application, const TW_IDENTITY &source) {
        TW_IDENTITY app = application, ds = source;
        const DSMENTRYPROC entry = dsm.Entry();
        TW_PENDINGXFERS pending = {};
        if (scanner.Info().state == VSCAN_STATE_XFERRING) {
            EXPECT_EQ(TWRC_SUCCESS, entry(&app, &ds, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending));
        }
        if (scanner.Info().state == VSCAN_STATE_XFERREADY) {
            EXPECT_EQ(TWRC_SUCCESS, entry(&app, &ds, DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
        }
        if (scanner.Info().state == VSCAN_STATE_ENABLED) {
            TW_USERINTERFACE ui = {FALSE, FALSE, window};
            EXPECT_EQ(TWRC_SUCCESS, entry(&app, &ds, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui));
        }
        if (scanner.Info().state == VSCAN_STATE_OPEN) {
            EXPECT_EQ(TWRC_SUCCESS, entry(&app, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &ds));
        }
        if (dsm.State() == TDSM_STATE_OPEN) {
            HWND parent = window;
            EXPECT_EQ(TWRC_SUCCESS, entry(&app, nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &parent));
        }
    }
    std::unique_ptr<SuppressSetting> suppress;
};

TEST_P(UnloadSafetyTest, FreeingTheModuleLeavesASessionTheSourceManagerStillRunsAndASecondLoadWorks) {
    const UnloadPoint &point = GetParam();
    LeaveSession(point.left);
    ASSERT_FALSE(HasFatalFailure());
    TW_IDENTITY application = {}, source = {};
    SessionIds(application, source);

    Unload();
    // The source's events of a session whose module is gone reach the application's loop and are dispatched.
    MSG msg;
    const DWORD start = GetTickCount();
    while (GetTickCount() - start < 100)
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&msg);
    EXPECT_EQ(point.managerState, dsm.State());
    EXPECT_EQ(point.openSources, script.openSourceCount());
    EXPECT_EQ(point.sourceState, scanner.Info().state);
    // Only the module's own reference can hold TWAIN_32.DLL once the test lets go of it.
    dsm.Close();
    EXPECT_EQ(point.keepsManager, IsLoaded(TwainPath()));
    ASSERT_TRUE(dsm.Open());
    script.Load();

    // A second load, while the first session is still open in the source manager: available, but the source manager
    // refuses to open a second time, and the module is left where it began.
    Reload();
    EXPECT_TRUE(library.Available());
    if (point.managerState == TDSM_STATE_OPEN) {
        EXPECT_EQ(SM_ERR_SEQUENCE, openDS(window, "Second load"));
        EXPECT_EQ(SM_ERR_SEQUENCE, closeDS()) << "the second module never left state 2";
        EndSession(application, source);
        EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
        EXPECT_EQ(0, script.openSourceCount());
        EXPECT_EQ(VSCAN_STATE_CLOSED, scanner.Info().state);
    }
    // Then a whole acquisition.
    suppress.reset();
    app.Clear();
    Open(SM_XFER_MEMORY);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((std::vector<std::string>{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_EQ(SM_OK, closeDS());
    // The first module's reference to TWAIN_32.DLL is never given back; the next test replaces the file.
    if (point.keepsManager)
        FreeLibrary(GetModuleHandleA(TwainPath().c_str()));
}

INSTANTIATE_TEST_SUITE_P(Points, UnloadSafetyTest, ::testing::ValuesIn(kUnloadPoints),
                         [](const ::testing::TestParamInfo<UnloadPoint> &info) {
                             return std::string(info.param.name);
                         });

} // namespace
