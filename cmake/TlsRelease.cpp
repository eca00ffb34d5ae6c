// Linked into every DLL we build: the TLS indexes its static threads runtime takes are given back when it is unloaded.
#include <windows.h>

// winpthreads, linked statically, takes a TLS index for its thread data when the DLL starts and never frees it: without
// this each LoadLibrary/FreeLibrary of the DLL costs the process one of its 1088 indexes. The linker sends the
// DLL's imported TlsAlloc here (--wrap=_imp__TlsAlloc@0), the indexes are noted, and a TLS callback placed after
// winpthreads' own frees them when the DLL is freed. Should a later winpthreads free its index itself, this file must
// go, or the index would be freed twice.

namespace {

// winpthreads takes one; the rest is room to spare.
constexpr int kHeldMax = 4;
DWORD held[kHeldMax];
int heldCount = 0;

} // namespace

extern "C" {

// The kernel's TlsAlloc: what the import slot becomes under --wrap.
extern DWORD(WINAPI *const kernelTlsAlloc)() __asm__("___real__imp__TlsAlloc@0");

static DWORD WINAPI HeldTlsAlloc() {
    const DWORD index = kernelTlsAlloc();
    if (index != TLS_OUT_OF_INDEXES && heldCount < kHeldMax)
        held[heldCount++] = index;
    return index;
}

// The import slot the DLL's code calls TlsAlloc through.
extern DWORD(WINAPI *const wrappedTlsAlloc)() __asm__("___wrap__imp__TlsAlloc@0");
DWORD(WINAPI *const wrappedTlsAlloc)() = HeldTlsAlloc;

} // extern "C"

namespace {

// On FreeLibrary only: at process exit the indexes go with the process.
void NTAPI ReleaseHeldIndexes(PVOID, DWORD reason, PVOID reserved) {
    if (reason != DLL_PROCESS_DETACH || reserved)
        return;
    while (heldCount > 0)
        TlsFree(held[--heldCount]);
}

} // namespace

// TLS callbacks run in the order of their .CRT$XL? sections; winpthreads' is in .CRT$XLF.
extern "C" __attribute__((section(".CRT$XLY"), used)) const PIMAGE_TLS_CALLBACK smkReleaseHeldTls = ReleaseHeldIndexes;
