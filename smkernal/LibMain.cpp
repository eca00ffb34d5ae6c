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

BOOL WINAPI smIsDSEvent(MSG *message) {
    return theScanModule->IsDSEvent(message);
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

WORD WINAPI smCapNegotiate(UINT message, void *capability) {
    return theScanModule->CapNegotiate(message, static_cast<TW_CAPABILITY *>(capability));
}

LONG WINAPI smIsADFAvailable(LONG *answer) {
    return theScanModule->IsADFAvailable(answer);
}

LONG WINAPI smIsADFPaperLoaded(LONG *answer) {
    return theScanModule->IsADFPaperLoaded(answer);
}

LONG WINAPI smGetADFEnable(LONG *answer) {
    return theScanModule->GetADFEnable(answer);
}

LONG WINAPI smSetADFEnable(LONG enable) {
    return theScanModule->SetADFEnable(enable);
}

LONG WINAPI smGetBrightness(short *value, LONG appMin, LONG appMax) {
    return theScanModule->GetBrightness(value, appMin, appMax);
}

LONG WINAPI smSetBrightness(LONG value, LONG appMin, LONG appMax) {
    return theScanModule->SetBrightness(value, appMin, appMax);
}

LONG WINAPI smGetContrast(short *value, LONG appMin, LONG appMax) {
    return theScanModule->GetContrast(value, appMin, appMax);
}

LONG WINAPI smSetContrast(LONG value, LONG appMin, LONG appMax) {
    return theScanModule->SetContrast(value, appMin, appMax);
}

LONG WINAPI smGetHighlight(short *value, LONG appMin, LONG appMax) {
    return theScanModule->GetHighlight(value, appMin, appMax);
}

LONG WINAPI smSetHighlight(LONG value, LONG appMin, LONG appMax) {
    return theScanModule->SetHighlight(value, appMin, appMax);
}

LONG WINAPI smGetShadow(short *value, LONG appMin, LONG appMax) {
    return theScanModule->GetShadow(value, appMin, appMax);
}

LONG WINAPI smSetShadow(LONG value, LONG appMin, LONG appMax) {
    return theScanModule->SetShadow(value, appMin, appMax);
}

LONG WINAPI smGetGamma(double *gamma) {
    return theScanModule->GetGamma(gamma);
}

LONG WINAPI smSetGamma(double gamma) {
    return theScanModule->SetGamma(gamma);
}

LONG WINAPI smGetUnit(WORD *flag) {
    return theScanModule->GetUnit(flag);
}

LONG WINAPI smGetMaxArea(double *width, double *height) {
    return theScanModule->GetMaxArea(width, height);
}

LONG WINAPI smGetPixelFlavor(LONG *flavor) {
    return theScanModule->GetPixelFlavor(flavor);
}

LONG WINAPI smGetPixelType(WORD *flag) {
    return theScanModule->GetPixelType(flag);
}

LONG WINAPI smSetPixelType(LONG flag) {
    return theScanModule->SetPixelType(flag);
}

LONG WINAPI smGetSupportedPixelType(WORD *flags) {
    return theScanModule->GetSupportedPixelType(flags);
}

LONG WINAPI smSetSupportedPixelType(LONG flags) {
    return theScanModule->SetSupportedPixelType(flags);
}

LONG WINAPI smGetPaperSize(WORD *flag) {
    return theScanModule->GetPaperSize(flag);
}

LONG WINAPI smSetPaperSize(LONG flag) {
    return theScanModule->SetPaperSize(flag);
}

LONG WINAPI smGetSupportedPaperSize(WORD *flags) {
    return theScanModule->GetSupportedPaperSize(flags);
}

LONG WINAPI smSetSupportedPaperSize(LONG flags) {
    return theScanModule->SetSupportedPaperSize(flags);
}

LONG WINAPI smGetXferMech(WORD *flag) {
    return theScanModule->GetXferMech(flag);
}

LONG WINAPI smSetXferMech(LONG flag) {
    return theScanModule->SetXferMech(flag);
}

LONG WINAPI smGetXResolution(short *current, short *minimum, short *maximum) {
    return theScanModule->GetXResolution(current, minimum, maximum);
}

LONG WINAPI smSetXResolution(LONG dpi) {
    return theScanModule->SetXResolution(dpi);
}

LONG WINAPI smGetYResolution(short *current, short *minimum, short *maximum) {
    return theScanModule->GetYResolution(current, minimum, maximum);
}

LONG WINAPI smSetYResolution(LONG dpi) {
    return theScanModule->SetYResolution(dpi);
}

LONG WINAPI smIsThisDPIAvailable(LONG x, LONG y) {
    return theScanModule->IsThisDPIAvailable(x, y);
}

LONG WINAPI smGetXScale(double *current, double *minimum, double *maximum) {
    return theScanModule->GetXScale(current, minimum, maximum);
}

LONG WINAPI smSetXScale(double scale) {
    return theScanModule->SetXScale(scale);
}

LONG WINAPI smGetYScale(double *current, double *minimum, double *maximum) {
    return theScanModule->GetYScale(current, minimum, maximum);
}

LONG WINAPI smSetYScale(double scale) {
    return theScanModule->SetYScale(scale);
}

LONG WINAPI smGetMemXferSize(DWORD *minimum, DWORD *maximum, DWORD *preferred) {
    return theScanModule->GetMemXferSize(minimum, maximum, preferred);
}

LONG WINAPI smGetXferCount(short *count) {
    return theScanModule->GetXferCount(count);
}

LONG WINAPI smGetDSProductName(char *buffer) {
    return theScanModule->GetDSProductName(buffer);
}

LONG WINAPI smGetPendingCount(WORD *count) {
    return theScanModule->GetPendingCount(count);
}

LONG WINAPI smSetImageLayout(double left, double top, double right, double bottom, WORD unit) {
    return theScanModule->SetImageLayout(left, top, right, bottom, unit);
}

LONG WINAPI smGetDSPalette(BYTE *table) {
    return theScanModule->GetDSPalette(table);
}

DWORD WINAPI smZephraScan(HWND window, const char *title, const ScanToFileSettings *settings) {
    return theScanModule->ZephraScan(window, title, settings);
}

void WINAPI smGetImageDim(LONG *width, LONG *length) {
    theScanModule->GetImageDim(width, length);
}

LONG WINAPI smSetThreshold(LONG value, LONG appMin, LONG appMax) {
    return theScanModule->SetThreshold(value, appMin, appMax);
}

LONG WINAPI smSetIndicatorEnable(LONG enable) {
    return theScanModule->SetIndicatorEnable(enable);
}

LONG WINAPI smSetBitDepth(LONG depth) {
    return theScanModule->SetBitDepth(depth);
}

LONG WINAPI smSetXferCount(LONG count) {
    return theScanModule->SetXferCount(count);
}

LONG WINAPI smSetAutoFeedEnable(LONG enable) {
    return theScanModule->SetAutoFeedEnable(enable);
}

LONG WINAPI smGetScanCap(ScanCapRecord *record) {
    return theScanModule->GetScanCap(record);
}

LONG WINAPI smSetLightpath(LONG lightPath) {
    return theScanModule->SetLightpath(lightPath);
}

LONG WINAPI smGetIndex(LONG *index) {
    return theScanModule->GetIndex(index);
}

LONG WINAPI smGetThumbMode(LONG *answer) {
    return theScanModule->GetThumbMode(answer);
}

LONG WINAPI smNonUIAvailable(LONG *answer) {
    return theScanModule->IsNonUIAvailable(answer);
}

LONG WINAPI smSetIndex(LONG count, const DWORD *list) {
    return theScanModule->SetIndex(count, list);
}

LONG WINAPI smSetThumbMode(LONG enable) {
    return theScanModule->SetThumbMode(enable);
}

// The transfer's own result is not passed on: the count tells whether the image is over.
BOOL WINAPI smReadBlock(BYTE *buffer, DWORD size, DWORD *count) {
    theScanModule->ReadBlock(buffer, size, count);
    return *count == SM_IMAGE_ENDED;
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
