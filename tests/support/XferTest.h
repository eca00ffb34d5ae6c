// Fixture of the acquisition suites: the module's own event filter drives transfers of the virtual scanner's small
// page to a recording application window.
#pragma once

#include "Notifications.h"
#include "TransferTest.h"

namespace smtest {

class XferTest : public TransferTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Opens the scanner with the application window as parent and sets up the small page (50 dpi, scaled by a
    // quarter) by `mechanism` (SM_XFER_*) in `format`; `pages` above 1 take that many sheets from the feeder.
    void Open(LONG mechanism, const Format &format = Format{}, int pages = 1);
    // Enables the source (without its interface unless `showUI`) and runs the application's message loop through
    // smIsDSEvent until the transfers are over (a CloseDSReq arrived) or `timeoutMs` passed; true when they are over.
    bool Acquire(BOOL showUI = FALSE, DWORD timeoutMs = 10000);
    // Runs the message loop through smIsDSEvent until `done` or `timeoutMs`.
    bool Pump(const std::function<bool()> &done, DWORD timeoutMs = 10000);
    // Frees every native bitmap the application received (XferEnd with SM_OK and a handle at the target) once.
    int FreeReceivedBitmaps();
    void Reload() override;

    NotificationWindow app;
    BOOL(WINAPI *isDSEvent)(MSG *) = nullptr;
    void(WINAPI *cancelThisXfer)() = nullptr;
    void(WINAPI *cancelAllXfer)() = nullptr;
    LONG(WINAPI *getPendingCount)(WORD *) = nullptr;
    BOOL(WINAPI *readBlock)(BYTE *, DWORD, DWORD *) = nullptr;

private:
    void ResolveTransferExports();
};

} // namespace smtest
