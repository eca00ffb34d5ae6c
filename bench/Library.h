// smkernal.dll as the benchmark uses it: loaded and freed at will, its exports resolved by name.
#pragma once

#include <windows.h>

#include "smkernal.h"

namespace bench {

// The exports the benchmark calls. The library is loaded afresh for each run: a scan to file leaves the module in
// its scan-to-file mode for the rest of its life, and a viewer is only found when the module is loaded.
struct ScanLibrary {
    ~ScanLibrary() { Free(); }
    // LoadLibrary of smkernal.dll beside the benchmark; stops the benchmark when an export is missing.
    void Load();
    void Free();
    bool Loaded() const { return module != nullptr; }

    HMODULE module = nullptr;
    decltype(&smOpenDS) openDS = nullptr;
    decltype(&smCloseDS) closeDS = nullptr;
    decltype(&smEnableDS) enableDS = nullptr;
    decltype(&smDisableDS) disableDS = nullptr;
    decltype(&smIsDSEvent) isDSEvent = nullptr;
    decltype(&smCapNegotiate) capNegotiate = nullptr;
    decltype(&smSetPaperSize) setPaperSize = nullptr;
    decltype(&smSetPixelType) setPixelType = nullptr;
    decltype(&smSetBitDepth) setBitDepth = nullptr;
    decltype(&smSetXferMech) setXferMech = nullptr;
    decltype(&smGetXResolution) getXResolution = nullptr;
    decltype(&smSetXResolution) setXResolution = nullptr;
    decltype(&smSetYResolution) setYResolution = nullptr;
    decltype(&smReadBlock) readBlock = nullptr;
    decltype(&smZephraScan) zephraScan = nullptr;
};

} // namespace bench
