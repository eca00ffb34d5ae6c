// Acquisitions end to end through Wine's own source manager, with the virtual scanner as its sane.ds: the module's
// event filter moves the small page by every mechanism in every format, one page and three from the feeder, checked
// as the stand-in's suite checks them.
#include <gtest/gtest.h>

#include "AcquireCheck.h"
#include "GlobalMemoryTracker.h"
#include "TestSupport.h"
#include "VscanSupport.h"
#include "smkernal.h"

namespace smtest {
namespace {

class XferWineDsmTest : public ::testing::TestWithParam<AcquireCase> {
protected:
    void SetUp() override {
        StartUnderWineManager(viewer, library, source);
        ASSERT_FALSE(HasFatalFailure());
        openDS = library.Get<decltype(openDS)>("smOpenDS");
        enableDS = library.Get<decltype(enableDS)>("smEnableDS");
        disableDS = library.Get<decltype(disableDS)>("smDisableDS");
        closeDS = library.Get<decltype(closeDS)>("smCloseDS");
        isDSEvent = library.Get<decltype(isDSEvent)>("smIsDSEvent");
        app.getPendingCount = library.Get<decltype(app.getPendingCount)>("smGetPendingCount");
        ASSERT_TRUE(openDS && enableDS && disableDS && closeDS && isDSEvent && app.getPendingCount);
        ASSERT_NE(nullptr, app.Handle());
    }
    void TearDown() override {
        tracker.Detach();
        // The bitmaps of a test that stopped before AcquireAndExpect freed them.
        for (HGLOBAL bitmap : ReceivedBitmaps(app.Notices()))
            GlobalFree(bitmap);
        if (disableDS && closeDS) {
            disableDS();
            closeDS();
        }
        library.Free();
        scanner.Free();
        ReleaseSourceKeptByWine();
        viewer.Stop();
    }

    // Opens the scanner with the application window as parent and sets up the small page (50 dpi scaled by a
    // quarter) as the case says; then follows the global memory of the module, the source and this program.
    void Open(const AcquireCase &c) {
        ASSERT_EQ(SM_OK, openDS(app.Handle(), "Wine transfer test"));
        ASSERT_TRUE(scanner.Load(source)) << "the controls of the source Wine's manager loaded";
        SetUpSmallPage(library, scanner, c.mechanism, c.format, c.pages);
        TrackAcquisitionMemory(tracker, library.Module(), scanner.Module());
        ASSERT_FALSE(HasFatalFailure());
        viewer.Clear();
    }
    // Enables the source without its interface and runs the application's loop through smIsDSEvent until the
    // module asks for the source to be closed.
    bool Acquire() {
        if (enableDS(FALSE, FALSE) != SM_OK)
            return false;
        return PumpThroughIsDSEvent(
            isDSEvent, [this] { return app.Count(NoticeKind::CloseDSReq) > 0; }, 10000);
    }

    TraceViewer viewer;
    ScanLibrary library;
    VscanLibrary scanner;
    NotificationWindow app;
    GlobalMemoryTracker tracker;
    std::string source;
    LONG(WINAPI *openDS)(HWND, const char *) = nullptr;
    LONG(WINAPI *enableDS)(BOOL, BOOL) = nullptr;
    LONG(WINAPI *disableDS)() = nullptr;
    LONG(WINAPI *closeDS)() = nullptr;
    BOOL(WINAPI *isDSEvent)(MSG *) = nullptr;
};

TEST_P(XferWineDsmTest, EveryPageArrivesAsTheFormulaSays) {
    const AcquireCase &c = GetParam();
    Open(c);
    ASSERT_FALSE(HasFatalFailure());
    AcquireAndExpect(
        c, "xfer_winedsm", app, tracker, [this] { return Acquire(); }, viewer, scanner);
}
INSTANTIATE_TEST_SUITE_P(Matrix, XferWineDsmTest, ::testing::ValuesIn(AcquireMatrix({1, 3})), AcquireCaseName);

} // namespace
} // namespace smtest
