/* Placing the stand-in source manager as TWAIN_32.DLL in the Windows directory, with kernel32 calls only. */
#ifndef SMT_STANDINDSM_H
#define SMT_STANDINDSM_H

#include <windows.h>

/* Full path of TWAIN_32.DLL in the Windows directory, the one place the module loads it from. */
static inline void TwainDllPath(char path[MAX_PATH]) {
    GetWindowsDirectoryA(path, MAX_PATH - 16);
    lstrcatA(path, "\\TWAIN_32.DLL");
}

/* How long placing or removing a file of the prefix (TWAIN_32.DLL, a source) waits for another process that still
   holds the file: a test program that crashed or was stopped a moment ago may still be going away. */
#define SMT_TWAIN_WAIT_MS 60000

/* One try of replacing `target` by `fileName` from the running program's directory, or of only removing it when
   `fileName` is NULL; on failure GetLastError says why (a sharing violation while another process holds the file). */
static inline BOOL PlaceFileOnce(const char *fileName, const char *target) {
    char source[MAX_PATH];
    if (!DeleteFileA(target) && GetLastError() != ERROR_FILE_NOT_FOUND)
        return FALSE;
    if (!fileName)
        return GetFileAttributesA(target) == INVALID_FILE_ATTRIBUTES;
    DWORD length = GetModuleFileNameA(NULL, source, MAX_PATH);
    while (length > 0 && source[length - 1] != '\\')
        --length;
    if (length + lstrlenA(fileName) >= MAX_PATH)
        return FALSE;
    source[length] = '\0';
    lstrcatA(source, fileName);
    return CopyFileA(source, target, FALSE);
}

/* One try of PlaceTwainDll. */
static inline BOOL PlaceTwainDllOnce(const char *fileName) {
    char target[MAX_PATH];
    TwainDllPath(target);
    return PlaceFileOnce(fileName, target);
}

/* PlaceFileOnce, tried again for up to `waitMs` milliseconds while another process holds the file. Nonzero on
   success; on failure GetLastError tells the last try's reason. */
static inline BOOL PlaceFileWithin(const char *fileName, const char *target, DWORD waitMs) {
    const DWORD step = 100;
    for (DWORD waited = 0;; waited += step) {
        if (PlaceFileOnce(fileName, target))
            return TRUE;
        DWORD error = GetLastError();
        if (waited >= waitMs ||
            (error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED && error != ERROR_LOCK_VIOLATION))
            return FALSE;
        Sleep(step);
        SetLastError(error);
    }
}

/* Replaces <windows>\TWAIN_32.DLL by `fileName` from the running program's directory, or only removes it when
   `fileName` is NULL, waiting for up to `waitMs` milliseconds while another process holds the file, as
   PlaceFileWithin does. */
static inline BOOL PlaceTwainDllWithin(const char *fileName, DWORD waitMs) {
    char target[MAX_PATH];
    TwainDllPath(target);
    return PlaceFileWithin(fileName, target, waitMs);
}

/* PlaceTwainDllWithin with the usual wait. */
static inline BOOL PlaceTwainDll(const char *fileName) {
    return PlaceTwainDllWithin(fileName, SMT_TWAIN_WAIT_MS);
}

/* The TWAIN_32.DLL loaded in this process, NULL when none is. */
static inline HMODULE LoadedTwainDll(void) {
    char path[MAX_PATH];
    TwainDllPath(path);
    return GetModuleHandleA(path);
}

/* Makes the stand-in the TWAIN_32.DLL that the module finds: a program linked with the module has it loaded at
   start-up when it was in place; otherwise it is placed now, and the module's next availability test loads it. */
static inline BOOL PrepareStandIn(void) {
    return LoadedTwainDll() != NULL || PlaceTwainDll("testdsm.dll");
}

/* True when the loaded TWAIN_32.DLL is the stand-in, which has the call log's controls. */
static inline BOOL StandInLoaded(void) {
    HMODULE loaded = LoadedTwainDll();
    return loaded != NULL && GetProcAddress(loaded, "TdsmReset") != NULL;
}

#endif /* SMT_STANDINDSM_H */
