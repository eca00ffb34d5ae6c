// Loading smkernal.dll and resolving the exports the benchmark calls.
#include "Library.h"

#include <string>

#include "Bench.h"

namespace bench {

namespace {

template <typename T> void Resolve(HMODULE module, const char *name, T &proc) {
    proc = reinterpret_cast<T>(reinterpret_cast<void *>(GetProcAddress(module, name)));
    if (!proc)
        Fail("smkernal.dll does not export %s", name);
}

} // namespace

void ScanLibrary::Load() {
    Free();
    module = LoadLibraryA((ProgramDir() + "\\smkernal.dll").c_str());
    if (!module)
        Fail("smkernal.dll could not be loaded from %s", ProgramDir().c_str());
    Resolve(module, "smOpenDS", openDS);
    Resolve(module, "smCloseDS", closeDS);
    Resolve(module, "smEnableDS", enableDS);
    Resolve(module, "smDisableDS", disableDS);
    Resolve(module, "smIsDSEvent", isDSEvent);
    Resolve(module, "smCapNegotiate", capNegotiate);
    Resolve(module, "smSetPaperSize", setPaperSize);
    Resolve(module, "smSetPixelType", setPixelType);
    Resolve(module, "smSetBitDepth", setBitDepth);
    Resolve(module, "smSetXferMech", setXferMech);
    Resolve(module, "smGetXResolution", getXResolution);
    Resolve(module, "smSetXResolution", setXResolution);
    Resolve(module, "smSetYResolution", setYResolution);
    Resolve(module, "smReadBlock", readBlock);
    Resolve(module, "smZephraScan", zephraScan);
}

void ScanLibrary::Free() {
    if (module)
        FreeLibrary(module);
    module = nullptr;
}

} // namespace bench
