// The scanner-setting exports of smkernal.dll, resolved by name, and the helpers their suites share.
#pragma once

#include <windows.h>

#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "smkernal.h"

namespace smtest {

// The 104-byte record of smGetScanCap, read by byte offset.
struct ScanCapBytes {
    BYTE bytes[104];
    LONG At(int offset) const {
        LONG value;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
};

struct CapabilityExports {
    // Resolves every export; a missing one stays null and is listed by Missing().
    void Resolve(const ScanLibrary &library);
    std::vector<std::string> Missing() const { return missing; }

    WORD(WINAPI *capNegotiate)(UINT, TW_CAPABILITY *) = nullptr;
    LONG(WINAPI *isADFAvailable)(LONG *) = nullptr;
    LONG(WINAPI *isADFPaperLoaded)(LONG *) = nullptr;
    LONG(WINAPI *isPaperLoaded)(LONG *) = nullptr;
    LONG(WINAPI *getADFEnable)(LONG *) = nullptr;
    LONG(WINAPI *setADFEnable)(LONG) = nullptr;
    LONG(WINAPI *setIndicatorEnable)(LONG) = nullptr;
    LONG(WINAPI *setAutoFeedEnable)(LONG) = nullptr;
    LONG(WINAPI *setThumbMode)(LONG) = nullptr;
    LONG(WINAPI *setLightpath)(LONG) = nullptr;
    LONG(WINAPI *getThumbMode)(LONG *) = nullptr;
    LONG(WINAPI *getPixelFlavor)(LONG *) = nullptr;
    LONG(WINAPI *nonUIAvailable)(LONG *) = nullptr;
    LONG(WINAPI *getBrightness)(short *, LONG, LONG) = nullptr;
    LONG(WINAPI *setBrightness)(LONG, LONG, LONG) = nullptr;
    LONG(WINAPI *getContrast)(short *, LONG, LONG) = nullptr;
    LONG(WINAPI *setContrast)(LONG, LONG, LONG) = nullptr;
    LONG(WINAPI *getHighlight)(short *, LONG, LONG) = nullptr;
    LONG(WINAPI *setHighlight)(LONG, LONG, LONG) = nullptr;
    LONG(WINAPI *getShadow)(short *, LONG, LONG) = nullptr;
    LONG(WINAPI *setShadow)(LONG, LONG, LONG) = nullptr;
    LONG(WINAPI *setThreshold)(LONG, LONG, LONG) = nullptr;
    LONG(WINAPI *getGamma)(double *) = nullptr;
    LONG(WINAPI *setGamma)(double) = nullptr;
    LONG(WINAPI *getUnit)(WORD *) = nullptr;
    LONG(WINAPI *getMaxArea)(double *, double *) = nullptr;
    LONG(WINAPI *getPixelType)(WORD *) = nullptr;
    LONG(WINAPI *setPixelType)(LONG) = nullptr;
    LONG(WINAPI *getSupportedPixelType)(WORD *) = nullptr;
    LONG(WINAPI *setSupportedPixelType)(LONG) = nullptr;
    LONG(WINAPI *getPaperSize)(WORD *) = nullptr;
    LONG(WINAPI *setPaperSize)(LONG) = nullptr;
    LONG(WINAPI *getSupportedPaperSize)(WORD *) = nullptr;
    LONG(WINAPI *setSupportedPaperSize)(LONG) = nullptr;
    LONG(WINAPI *getXferMech)(WORD *) = nullptr;
    LONG(WINAPI *setXferMech)(LONG) = nullptr;
    LONG(WINAPI *getXferCount)(short *) = nullptr;
    LONG(WINAPI *setXferCount)(LONG) = nullptr;
    LONG(WINAPI *getXResolution)(short *, short *, short *) = nullptr;
    LONG(WINAPI *setXResolution)(LONG) = nullptr;
    LONG(WINAPI *getYResolution)(short *, short *, short *) = nullptr;
    LONG(WINAPI *setYResolution)(LONG) = nullptr;
    LONG(WINAPI *isThisDPIAvailable)(LONG, LONG) = nullptr;
    LONG(WINAPI *getXScale)(double *, double *, double *) = nullptr;
    LONG(WINAPI *setXScale)(double) = nullptr;
    LONG(WINAPI *getYScale)(double *, double *, double *) = nullptr;
    LONG(WINAPI *setYScale)(double) = nullptr;
    LONG(WINAPI *getDSProductName)(char *) = nullptr;
    LONG(WINAPI *getPendingCount)(WORD *) = nullptr;
    LONG(WINAPI *setBitDepth)(LONG) = nullptr;
    LONG(WINAPI *getIndex)(LONG *) = nullptr;
    LONG(WINAPI *setIndex)(LONG, DWORD *) = nullptr;
    LONG(WINAPI *getMemXferSize)(DWORD *, DWORD *, DWORD *) = nullptr;
    LONG(WINAPI *getScanCap)(ScanCapBytes *) = nullptr;

private:
    std::vector<std::string> missing;
};

// What the call helpers answer for an export that was not resolved.
constexpr LONG kMissingExport = -12345;

// The outputs of a getter in the order of its arguments (current, minimum, maximum for three).
using Outputs = std::vector<double>;

// What the call helpers preset every output to, so that an untouched output shows.
constexpr int kPresetOutput = 0x5A5A;

// Calls a getter through outputs preset to kPresetOutput; `values` receives them all (none when the export is
// missing).
template <typename T> LONG CallOne(LONG(WINAPI *f)(T *), Outputs &values) {
    values.clear();
    if (!f)
        return kMissingExport;
    T out = static_cast<T>(kPresetOutput);
    const LONG rc = f(&out);
    values = {static_cast<double>(out)};
    return rc;
}

template <typename T> LONG CallThree(LONG(WINAPI *f)(T *, T *, T *), Outputs &values) {
    values.clear();
    if (!f)
        return kMissingExport;
    T current = static_cast<T>(kPresetOutput), minimum = current, maximum = current;
    const LONG rc = f(&current, &minimum, &maximum);
    values = {static_cast<double>(current), static_cast<double>(minimum), static_cast<double>(maximum)};
    return rc;
}

// TW_FIX32 of a value as the module converts it: Whole = the value truncated, Frac = (value x 65536 + 0.5)
// truncated, each kept to 16 bits; returned as the 32-bit word a container holds (Whole low, Frac high).
TW_UINT32 ModuleFix32(double value);
double Fix32Value(TW_UINT32 word);

// One-value and enumeration containers in global memory, for smCapNegotiate.
HGLOBAL OneValue(TW_UINT16 itemType, TW_UINT32 item);
HGLOBAL Enumeration(TW_UINT16 itemType, const std::vector<TW_UINT32> &items, TW_UINT32 current);
// The one value, current enumeration item or current range value of a capability, through smCapNegotiate
// (MSG_GETCURRENT); the container is freed. -99999 when the negotiation fails.
double CurrentThroughLibrary(const CapabilityExports &sm, TW_UINT16 cap);
// Sets a one value through smCapNegotiate; the return code.
WORD SetThroughLibrary(const CapabilityExports &sm, TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item);

// Every setter against a source that takes its values: each value set is read back, through the getter where
// there is one, through smCapNegotiate where there is not. Failures are reported with EXPECT.
void CheckRoundTrips(const CapabilityExports &sm);

} // namespace smtest
