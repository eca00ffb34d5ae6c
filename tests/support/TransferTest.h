// Fixture of the transfer suites: the virtual scanner's controls, a small page set up, and the source's notice taken
// to the point where a transfer can start.
#pragma once

#include "SessionTest.h"
#include "VscanSupport.h"
#include "vscan.h"

namespace smtest {

// The page StartScan sets up: 8.5 x 14 inches at 50 dpi scaled by a quarter.
constexpr int kSmallPageWidth = 106;
constexpr int kSmallPageLength = 175;

class TransferTest : public SessionTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Opens the scanner for transfers of the small page by `mechanism` (SM_XFER_*), enables it without its interface
    // and delivers its transfer-ready notice, so that the source waits in state 6; then marks the call log.
    void StartScan(LONG mechanism);
    // What an application's message loop does: the source's notice goes back to it through the source manager until
    // it answers MSG_XFERREADY (the module's own event filter is not used here).
    void DeliverTransferReady();
    // A test may stop in the middle of an image, and the source, still transferring, would refuse the disable that
    // closes the session: the transfer is ended there as an application ends it, the images still pending dropped.
    void EndTransferAtTheSource();
    // The identities of the module's MSG_ENABLEDS: its application and the source it enabled.
    void EnabledPair(TW_IDENTITY &app, TW_IDENTITY &source) const;

    VscanLibrary scanner;
};

} // namespace smtest
