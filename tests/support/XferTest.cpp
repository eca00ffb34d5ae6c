// Fixture of the acquisition suites: the module's event filter, the recording application window, the scanner set up.
#include "XferTest.h"

#include <gtest/gtest.h>

namespace smtest {

void XferTest::SetUp() {
    TransferTest::SetUp();
    ResolveTransferExports();
    ASSERT_TRUE(isDSEvent && cancelThisXfer && cancelAllXfer && getPendingCount && readBlock);
    ASSERT_NE(nullptr, app.Handle());
}

void XferTest::Reload() {
    TransferTest::Reload();
    ResolveTransferExports();
}

void XferTest::ResolveTransferExports() {
    isDSEvent = library.Get<decltype(isDSEvent)>("smIsDSEvent");
    cancelThisXfer = library.Get<decltype(cancelThisXfer)>("smCancelThisXfer");
    cancelAllXfer = library.Get<decltype(cancelAllXfer)>("smCancelAllXfer");
    getPendingCount = library.Get<decltype(getPendingCount)>("smGetPendingCount");
    readBlock = library.Get<decltype(readBlock)>("smReadBlock");
}

void XferTest::TearDown() {
    FreeReceivedBitmaps();
    TransferTest::TearDown();
}

void XferTest::Open(LONG mechanism, const Format &format, int pages) {
    ASSERT_EQ(SM_OK, openDS(app.Handle(), "Transfer test"));
    SetUpSmallPage(library, scanner, mechanism, format, pages);
    ASSERT_FALSE(HasFatalFailure());
    Reset();
}

bool XferTest::Acquire(BOOL showUI, DWORD timeoutMs) {
    if (enableDS(showUI, FALSE) != SM_OK)
        return false;
    return Pump([this] { return app.Count(NoticeKind::CloseDSReq) > 0; }, timeoutMs);
}

bool XferTest::Pump(const std::function<bool()> &done, DWORD timeoutMs) {
    return PumpThroughIsDSEvent(isDSEvent, done, timeoutMs);
}

int XferTest::FreeReceivedBitmaps() {
    int freed = 0;
    for (const Notice &notice : app.Notices())
        if (notice.kind == NoticeKind::XferEnd && notice.wParam == SM_OK && notice.handleAtTarget) {
            GlobalFree(notice.handleAtTarget);
            ++freed;
        }
    app.Clear();
    return freed;
}

} // namespace smtest
