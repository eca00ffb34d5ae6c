/* The public header compiled in MSVC mode, as C and as C++, linked by lld-link to smkernal.lib without C runtime. */
/* Each call shape goes through the import library: no arguments, pointers, doubles, the snapshot record and
   DisableWnds. A wrong argument size in a decorated name would leave the stack unbalanced. Exit code 0 on success. */
#ifndef _MSC_VER
#error "this test checks the header as an MSVC compiler sees it"
#endif

/* Alone first: the header must bring everything it needs, in C and in C++. */
#include "smkernal.h"

#include "StandInDsm.h"

/* The names the linker looks for are C names in either language. */
#ifdef __cplusplus
#define C_NAME extern "C"
#define LANGUAGE "C++"
#else
#define C_NAME
#define LANGUAGE "C"
#endif

/* MSVC compilers mark a program that uses floating point with this symbol, which the C runtime defines. */
C_NAME int _fltused = 0;

static int failed;

static void Say(const char *text) {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, (DWORD)lstrlenA(text), &written, NULL);
}

static void Check(int ok, const char *what) {
    if (ok)
        return;
    ++failed;
    Say("FAILED: ");
    Say(what);
    Say("\n");
}

static BOOL CALLBACK Forward(HWND window, LPARAM list) {
    return DisableWnds(window, (DisabledWindowList *)list);
}

static void NoArguments(void) {
    Check(PrepareStandIn(), "the stand-in TWAIN_32.DLL in the Windows directory");
    Check(smIsTWAINAvailable() == 1, "smIsTWAINAvailable answers 1 with the stand-in in place");
    Check(StandInLoaded(), "the module loaded the stand-in TWAIN_32.DLL");
    smCancelThisXfer();
    smCancelAllXfer();
    /* The source manager is loaded and no source is open: a sequence error. */
    Check(smDisableDS() == SM_ERR_SEQUENCE, "smDisableDS without a source");
}

static void Pointers(void) {
    WORD unit = 0xBEEF;
    Check(smGetUnit(&unit) == SM_ERR_SEQUENCE, "smGetUnit without a source");
    Check(unit == 0xBEEF, "a refused get leaves its output alone");
    short value = 77;
    Check(smGetBrightness(&value, 0, 100) == SM_ERR_SEQUENCE, "smGetBrightness without a source");
    Check(value == 77, "a refused range-scaled get leaves its output alone");
}

static void Doubles(void) {
    double current = 9.0, minimum = 9.0, maximum = 9.0;
    Check(smSetXScale(1.5) == SM_ERR_SEQUENCE, "smSetXScale without a source");
    Check(smGetXScale(&current, &minimum, &maximum) == SM_ERR_SEQUENCE, "smGetXScale without a source");
    Check(current == 9.0 && minimum == 9.0 && maximum == 9.0, "a refused scaling get leaves its outputs alone");
    Check(smSetGamma(2.2) == SM_ERR_SEQUENCE, "smSetGamma without a source");
}

static void Snapshot(void) {
    ScanCapRecord record;
    BYTE *bytes = (BYTE *)&record;
    for (int i = 0; i < (int)sizeof record; ++i)
        bytes[i] = 0x11;
    Check(smGetScanCap(&record) == SM_OK, "smGetScanCap answers SM_OK");
    Check(record.size == 104 && record.reserved == 0 && record.bitDepth == 8, "snapshot constants");
    Check(record.passThrough[0] == 0x11111111 && record.passThroughTail[1] == 0x11111111, "untouched words");
}

static void DisableWindows(void) {
    HWND window = CreateWindowA("STATIC", "msvc", WS_OVERLAPPED, 0, 0, 10, 10, NULL, NULL, NULL, NULL);
    Check(window != NULL, "a window to count");
    DisabledWindowList list = {NULL, 0, NULL};
    EnumThreadWindows(GetCurrentThreadId(), Forward, (LPARAM)&list);
    Check(list.windowCount == 1, "DisableWnds counts the one enabled top-level window");
    HWND slot = NULL;
    list.nextSlot = &slot;
    EnumThreadWindows(GetCurrentThreadId(), Forward, (LPARAM)&list);
    Check(slot == window && list.nextSlot == &slot + 1, "DisableWnds records the window");
    Check(!IsWindowEnabled(window), "DisableWnds disables the window");
    DestroyWindow(window);
}

C_NAME int __stdcall start(void) {
    NoArguments();
    Pointers();
    Doubles();
    Snapshot();
    DisableWindows();
    Check(sizeof(DisabledWindowList) == 10 && sizeof(ScanCapRecord) == 104, "record sizes");
    Check(sizeof(ScanImageInfo) == 46 && sizeof(ScanBlockInfo) == 74 && sizeof(SmBufferDescriptor) == 8,
          "transfer record sizes");
    Check(SM_IMAGE_ENDED == 0xFFFFFFFFu, "the end-of-image count");
    Say(failed ? "msvc_link (" LANGUAGE "): failed\n" : "msvc_link (" LANGUAGE "): passed\n");
    ExitProcess(failed != 0);
    return failed != 0;
}
