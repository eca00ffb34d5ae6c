// Fixture of the transfer suites: the virtual scanner's controls and a transfer brought to the point of starting.
#include "TransferTest.h"

#include <gtest/gtest.h>

namespace smtest {

void TransferTest::SetUp() {
    SessionTest::SetUp();
    ASSERT_TRUE(scanner.Load(WindowsDir() + "\\twain_32\\vscan.ds")) << "the installed scanner's controls";
}

void TransferTest::TearDown() {
    EndTransferAtTheSource();
    SessionTest::TearDown();
    scanner.Free();
}

void TransferTest::StartScan(LONG mechanism) {
    ASSERT_EQ(SM_OK, openDS(window, "Transfer test"));
    auto call = [this](const char *name, LONG value) { return library.Get<LONG(WINAPI *)(LONG)>(name)(value); };
    ASSERT_EQ(SM_OK, call("smSetXferMech", mechanism));
    ASSERT_EQ(SM_OK, call("smSetXResolution", 50));
    ASSERT_EQ(SM_OK, call("smSetYResolution", 50));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetXScale")(0.25));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetYScale")(0.25));
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    DeliverTransferReady();
    Mark();
}

void TransferTest::DeliverTransferReady() {
    TW_IDENTITY app = {}, source = {};
    EnabledPair(app, source);
    ASSERT_NE(0u, source.Id);
    const DSMENTRYPROC entry = dsm.Entry();
    const TW_UINT16 message = WaitForSourceMessage(
        [&](TW_EVENT &event) { return entry(&app, &source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event); }, 3000);
    ASSERT_EQ(MSG_XFERREADY, message) << "the source never announced its transfer";
}

void TransferTest::EndTransferAtTheSource() {
    if (!scanner.Module() || scanner.Info().state < VSCAN_STATE_XFERREADY)
        return;
    TW_IDENTITY app = {}, source = {};
    EnabledPair(app, source);
    const DSMENTRYPROC entry = dsm.Entry();
    TW_PENDINGXFERS pending = {};
    if (scanner.Info().state == VSCAN_STATE_XFERRING)
        entry(&app, &source, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
    if (scanner.Info().state == VSCAN_STATE_XFERREADY)
        entry(&app, &source, DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending);
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state) << "the source is still in a transfer";
}

void TransferTest::EnabledPair(TW_IDENTITY &app, TW_IDENTITY &source) const {
    for (const TdsmCall &call : dsm.Calls())
        if (call.dat == DAT_USERINTERFACE && call.msg == MSG_ENABLEDS) {
            app.Id = call.originId;
            source.Id = call.destId;
        }
}

} // namespace smtest
