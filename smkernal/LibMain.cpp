// The library entry, the exported functions that forward to the scan module, and DisableWnds.
#include <new>

#include "ScanModule.h"

TScanModule *theScanModule = nullptr;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        theScanModule = new (std::nothrow) TScanModule(instance);
        break;
    case DLL_PROCESS_DETACH:
        // The pointer is not cleared: nothing may call in after detach.
        if (theScanModule)
            delete theScanModule;
        break;
    default:
        break;
    }
    return TRUE;
}

extern "C" {

BOOL WINAPI smIsTWAINAvailable() {
    return theScanModule->IsTWAINAvailable();
}

void WINAPI smCancelThisXfer() {
    theScanModule->CancelThisXfer();
}

void WINAPI smCancelAllXfer() {
    theScanModule->CancelAllXfer();
}

// Two passes over the application's windows: one with nextSlot NULL counts the enabled
// top-level windows, one with an array of that many handles records and disables them.
BOOL WINAPI DisableWnds(HWND window, DisabledWindowList *list) {
    if ((GetWindowLongA(window, GWL_STYLE) & WS_CHILD) || !IsWindowEnabled(window))
        return TRUE;
    if (!list->nextSlot) {
        ++list->windowCount;
        return TRUE;
    }
    *list->nextSlot = window;
    ++list->nextSlot;
    EnableWindow(window, FALSE);
    return TRUE;
}

} // extern "C"
