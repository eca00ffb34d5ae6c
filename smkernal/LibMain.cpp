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

LONG WINAPI smSelectDS(HWND window) {
    return theScanModule->SelectDS(window);
}

LONG WINAPI smOpenDS(HWND window, const char *title) {
    return theScanModule->OpenDS(window, title);
}

LONG WINAPI smEnableDS(BOOL showUI, BOOL modalUI) {
    return theScanModule->EnableDS(showUI, modalUI);
}

LONG WINAPI smDisableDS() {
    return theScanModule->DisableDS();
}

LONG WINAPI smCloseDS() {
    return theScanModule->CloseDS();
}

LONG WINAPI smSetDefaultDriver(HWND parent, const char *productName) {
    return theScanModule->SetDefaultDriver(parent, productName);
}

LONG WINAPI smGetAllDS(const char *path) {
    return theScanModule->GetAllDS(path);
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
