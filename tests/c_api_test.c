/* The public header compiled as C and linked through the MinGW import library: declarations, layouts and calls. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* Before any Windows header, so that it is seen to need nothing else. */
#include "smkernal.h"

#include "StandInDsm.h"

_Static_assert(sizeof(DisabledWindowList) == 10, "DisabledWindowList is 10 bytes");
_Static_assert(offsetof(DisabledWindowList, windowCount) == 4, "windowCount at 4");
_Static_assert(offsetof(DisabledWindowList, nextSlot) == 6, "nextSlot at 6");

_Static_assert(sizeof(ScanCapRecord) == 104, "ScanCapRecord is 104 bytes");
_Static_assert(offsetof(ScanCapRecord, reserved) == 56, "reserved at 56");
_Static_assert(offsetof(ScanCapRecord, maxXResolution) == 60, "maxXResolution at 60");
_Static_assert(offsetof(ScanCapRecord, bitDepth) == 72, "bitDepth at 72");
_Static_assert(offsetof(ScanCapRecord, memXferSize) == 92, "memXferSize at 92");

_Static_assert(sizeof(ScanImageInfo) == 46, "ScanImageInfo is 46 bytes");
_Static_assert(offsetof(ScanImageInfo, samplesPerPixel) == 12, "samplesPerPixel at 12");
_Static_assert(offsetof(ScanImageInfo, bitsPerPixel) == 30, "bitsPerPixel at 30");
_Static_assert(offsetof(ScanImageInfo, planar) == 32, "planar at 32");
_Static_assert(offsetof(ScanImageInfo, pixelTypeFlag) == 36, "pixelTypeFlag at 36");
_Static_assert(offsetof(ScanImageInfo, mechanism) == 40, "mechanism at 40");
_Static_assert(offsetof(ScanImageInfo, xferTarget) == 42, "xferTarget at 42");
_Static_assert(sizeof(ScanBlockInfo) == 74, "ScanBlockInfo is 74 bytes");
_Static_assert(offsetof(ScanBlockInfo, mechanism) == 40, "the block's mechanism at 40");
_Static_assert(offsetof(ScanBlockInfo, bytesPerRow) == 42, "bytesPerRow at 42");
_Static_assert(offsetof(ScanBlockInfo, rows) == 50, "rows at 50");
_Static_assert(offsetof(ScanBlockInfo, bytesWritten) == 62, "bytesWritten at 62");
_Static_assert(offsetof(ScanBlockInfo, rowsAligned) == 66, "rowsAligned at 66");
_Static_assert(offsetof(ScanBlockInfo, bufferDescriptor) == 70, "bufferDescriptor at 70");
_Static_assert(sizeof(SmBufferDescriptor) == 8, "SmBufferDescriptor is 8 bytes");
_Static_assert(sizeof(ScanToFileSettings) == 78, "ScanToFileSettings is 78 bytes");
_Static_assert(offsetof(ScanToFileSettings, unitCode) == 32, "unitCode at 32");
_Static_assert(offsetof(ScanToFileSettings, resolution) == 36, "resolution at 36");
_Static_assert(offsetof(ScanToFileSettings, modalUI) == 62, "modalUI at 62");
_Static_assert(offsetof(ScanToFileSettings, useFeeder) == 74, "useFeeder at 74");

static int passed, failed;

static void Check(int ok, const char *what) {
    if (ok) {
        ++passed;
    } else {
        ++failed;
        printf("FAILED: %s\n", what);
    }
}

static BOOL CALLBACK Count(HWND window, LPARAM list) {
    return DisableWnds(window, (DisabledWindowList *)list);
}

int main(void) {
    Check(PrepareStandIn(), "the stand-in TWAIN_32.DLL in the Windows directory");
    Check(smIsTWAINAvailable() == 1, "smIsTWAINAvailable answers 1 with the stand-in in place");
    Check(StandInLoaded(), "the module loaded the stand-in TWAIN_32.DLL");
    smCancelThisXfer();
    smCancelAllXfer();
    MSG message;
    memset(&message, 0, sizeof message);
    Check(smIsDSEvent(&message) == 0, "smIsDSEvent answers 0 before a source is enabled");

    HWND window = CreateWindowA("STATIC", "c", WS_OVERLAPPED, 0, 0, 10, 10, NULL, NULL, NULL, NULL);
    Check(window != NULL, "a window to count");
    DisabledWindowList list;
    memset(&list, 0, sizeof list);
    EnumThreadWindows(GetCurrentThreadId(), Count, (LPARAM)&list);
    Check(list.windowCount == 1, "DisableWnds counts the one enabled top-level window");
    HWND slot = NULL;
    list.nextSlot = &slot;
    EnumThreadWindows(GetCurrentThreadId(), Count, (LPARAM)&list);
    Check(slot == window && list.nextSlot == &slot + 1, "DisableWnds records the window");
    Check(!IsWindowEnabled(window), "DisableWnds disables the window");
    DestroyWindow(window);

    /* No source is open: the settings calls refuse, the snapshot is still filled with its
       constants and keeps the caller's words. */
    WORD unit = 0xBEEF;
    Check(smGetUnit(&unit) == SM_ERR_SEQUENCE, "smGetUnit without a source");
    Check(unit == 0xBEEF, "a refused get leaves its output alone");
    ScanCapRecord record;
    memset(&record, 0x11, sizeof record);
    Check(smGetScanCap(&record) == SM_OK, "smGetScanCap answers SM_OK");
    Check(record.size == 104 && record.reserved == 0 && record.bitDepth == 8, "snapshot constants");
    Check(record.passThrough[0] == 0x11111111 && record.passThroughTail[1] == 0x11111111, "untouched words");
    double scale = 0.0;
    Check(smSetXScale(1.5) == SM_ERR_SEQUENCE && smGetXScale(&scale, &scale, &scale) == SM_ERR_SEQUENCE,
          "scaling needs a source");

    Check(SM_OK == 0 && SM_ERR_UNAVAILABLE == -1 && SM_ERR_SEQUENCE == 11 && SM_ERR_BAD_VALUE == 10, "result codes");
    Check(strcmp(SM_MSG_XFERSTART, "ScanModule_XferStart") == 0, "message names");

    printf("c_api: %d passed, %d failed\n", passed, failed);
    return failed != 0;
}
