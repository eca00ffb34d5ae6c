// Fixture of the acquisition suites: the module's event filter, the recording application window, the scanner set up.
#include "XferTest.h"

#include <gtest/gtest.h>

namespace smtest {

void XferTest::SetUp() {
    TransferTest::SetUp();
    isDSEvent = library.Get<decltype(isDSEvent)>("smIsDSEvent");
    cancelThisXfer = library.Get<decltype(cancelThisXfer)>("smCancelThisXfer");
    cancelAllXfer = library.Get<decltype(cancelAllXfer)>("smCancelAllXfer");
    getPendingCount = library.Get<decltype(getPendingCount)>("smGetPendingCount");
    readBlock = library.Get<decltype(readBlock)>("smReadBlock");
    ASSERT_TRUE(isDSEvent && cancelThisXfer && cancelAllXfer && getPendingCount && readBlock);
    ASSERT_NE(nullptr, app.Handle());
}

void XferTest::TearDown() {
    FreeReceivedBitmaps();
    TransferTest::TearDown();
}

void XferTest::Open(LONG mechanism, const Format &format, int pages) {
    ASSERT_EQ(SM_OK, openDS(app.Handle(), "Transfer test"));
    auto call = [this](const char *name, LONG value) { return library.Get<LONG(WINAPI *)(LONG)>(name)(value); };
    ASSERT_EQ(SM_OK, call("smSetXferMech", mechanism));
    ASSERT_EQ(SM_OK, call("smSetPixelType", 1L << format.pixelType));
    ASSERT_EQ(SM_OK, call("smSetBitDepth", format.bitDepth));
    if (format.planar) {
        HGLOBAL container = GlobalAlloc(GHND, sizeof(TW_ONEVALUE));
        auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(container));
        one->ItemType = TWTY_UINT16;
        one->Item = TWPC_PLANAR;
        GlobalUnlock(container);
        TW_CAPABILITY capability = {ICAP_PLANARCHUNKY, TWON_ONEVALUE, container};
        const auto negotiate = library.Get<TW_UINT16(WINAPI *)(UINT, TW_CAPABILITY *)>("smCapNegotiate");
        EXPECT_EQ(TWRC_SUCCESS, negotiate(MSG_SET, &capability));
        GlobalFree(container);
    }
    ASSERT_EQ(SM_OK, call("smSetXResolution", 50));
    ASSERT_EQ(SM_OK, call("smSetYResolution", 50));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetXScale")(0.25));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetYScale")(0.25));
    if (pages > 1) {
        scanner.setPages(pages);
        ASSERT_EQ(SM_OK, call("smSetADFEnable", 1));
    }
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
