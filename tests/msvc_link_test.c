/* Linked by an MSVC-compatible linker against smkernal.lib, with no C runtime: the import library
   resolves the decorated standard-call names to the DLL's plain exports. Exit code 0 on success. */
__declspec(dllimport) int __stdcall smIsTWAINAvailable(void);
__declspec(dllimport) void __stdcall smCancelThisXfer(void);
__declspec(dllimport) void __stdcall smCancelAllXfer(void);

int __stdcall start(void) {
    int available = smIsTWAINAvailable();
    smCancelThisXfer();
    smCancelAllXfer();
    return available == 0 || available == 1 ? 0 : 3;
}
