/* smprobe: loads smkernal.dll as an application would and prints its version, whether the
   TWAIN source manager is available, the exports it offers (ordinal and name), the installed
   sources, and what the default source can do. */
#include <stdio.h>
#include <string.h>
#include <windows.h>

#include "smkernal.h"

typedef BOOL(SMCALL *IsTWAINAvailableProc)(void);
typedef LONG(SMCALL *GetAllDSProc)(const char *path);
typedef LONG(SMCALL *OpenDSProc)(HWND parent, const char *title);
typedef LONG(SMCALL *CloseDSProc)(void);
typedef LONG(SMCALL *GetDSProductNameProc)(char *buffer);
typedef LONG(SMCALL *GetScanCapProc)(ScanCapRecord *record);

/* The installed sources as smGetAllDS lists them; returns their number. */
static int PrintSources(HMODULE module) {
    GetAllDSProc getAllDS = (GetAllDSProc)GetProcAddress(module, "smGetAllDS");
    char path[MAX_PATH];
    GetTempPathA(sizeof path, path);
    lstrcatA(path, "smprobe-sources.ini");
    DeleteFileA(path);
    if (!getAllDS || getAllDS(path) != SM_OK) {
        printf("sources: (cannot be listed)\n");
        return 0;
    }
    const int count = (int)GetPrivateProfileIntA("DS", "count", 0, path);
    printf("sources: %d\n", count);
    for (int i = 1; i <= count; ++i) {
        char key[16], name[64];
        wsprintfA(key, "name%d", i);
        GetPrivateProfileStringA("DS", key, "", name, sizeof name, path);
        printf("  %s\n", name);
    }
    char name[64];
    GetPrivateProfileStringA("DS", "name0", "(none)", name, sizeof name, path);
    printf("default source: %s\n", name);
    WritePrivateProfileStringA(NULL, NULL, NULL, path);
    DeleteFileA(path);
    return count;
}

/* Opens the default source and prints its capability snapshot. */
static void PrintDefaultSource(HMODULE module) {
    OpenDSProc openDS = (OpenDSProc)GetProcAddress(module, "smOpenDS");
    CloseDSProc closeDS = (CloseDSProc)GetProcAddress(module, "smCloseDS");
    GetDSProductNameProc productName = (GetDSProductNameProc)GetProcAddress(module, "smGetDSProductName");
    GetScanCapProc scanCap = (GetScanCapProc)GetProcAddress(module, "smGetScanCap");
    if (!openDS || !closeDS || !productName || !scanCap)
        return;
    HWND window = CreateWindowA("STATIC", "smprobe", WS_OVERLAPPEDWINDOW, 0, 0, 10, 10, NULL, NULL, NULL, NULL);
    const LONG opened = openDS(window, "smprobe");
    if (opened != SM_OK) {
        printf("default source: cannot be opened (status %ld)\n", opened);
    } else {
        char name[64] = "";
        ScanCapRecord record;
        memset(&record, 0, sizeof record);
        productName(name);
        scanCap(&record);
        printf("opened: %s\n", name);
        printf("  x resolution: %ld (from %ld to %ld)\n", record.xResolution, record.minXResolution,
               record.maxXResolution);
        printf("  largest area: %.2f x %.2f inches\n", record.maxWidth / 1200.0, record.maxHeight / 1200.0);
        printf("  unit flag: %ld, pixel type flag: %ld, memory buffer: %ld bytes\n", record.unit, record.pixelType,
               record.memXferSize);
        closeDS();
    }
    DestroyWindow(window);
}

static int PrintVersion(const char *path) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeA(path, &ignored);
    if (size == 0)
        return 0;
    void *block = HeapAlloc(GetProcessHeap(), 0, size);
    if (!block)
        return 0;
    VS_FIXEDFILEINFO *fixed = NULL;
    char *product = NULL;
    UINT length = 0;
    int ok =
        GetFileVersionInfoA(path, 0, size, block) && VerQueryValueA(block, "\\", (void **)&fixed, &length) && fixed;
    if (ok) {
        printf("version: %u.%u.%u.%u", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS),
               HIWORD(fixed->dwFileVersionLS), LOWORD(fixed->dwFileVersionLS));
        if (VerQueryValueA(block, "\\StringFileInfo\\040904e4\\ProductName", (void **)&product, &length) && product)
            printf(" (%s)", product);
        printf("\n");
    }
    HeapFree(GetProcessHeap(), 0, block);
    return ok;
}

/* The export directory of a loaded module, read from its PE headers. */
static const IMAGE_EXPORT_DIRECTORY *Exports(HMODULE module) {
    const BYTE *base = (const BYTE *)module;
    const IMAGE_DOS_HEADER *dos = (const IMAGE_DOS_HEADER *)base;
    const IMAGE_NT_HEADERS32 *nt = (const IMAGE_NT_HEADERS32 *)(base + dos->e_lfanew);
    DWORD rva = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress;
    return rva ? (const IMAGE_EXPORT_DIRECTORY *)(base + rva) : NULL;
}

static const char *NameOfOrdinal(HMODULE module, const IMAGE_EXPORT_DIRECTORY *dir, DWORD ordinal) {
    const BYTE *base = (const BYTE *)module;
    const DWORD *names = (const DWORD *)(base + dir->AddressOfNames);
    const WORD *ordinals = (const WORD *)(base + dir->AddressOfNameOrdinals);
    for (DWORD i = 0; i < dir->NumberOfNames; ++i)
        if (ordinals[i] + dir->Base == ordinal)
            return (const char *)(base + names[i]);
    return NULL;
}

int main(int argc, char **argv) {
    char path[MAX_PATH];
    if (argc > 1) {
        lstrcpynA(path, argv[1], sizeof path);
    } else {
        GetModuleFileNameA(NULL, path, sizeof path);
        char *slash = strrchr(path, '\\');
        lstrcpyA(slash ? slash + 1 : path, "smkernal.dll");
    }
    HMODULE module = LoadLibraryA(path);
    if (!module) {
        fprintf(stderr, "smprobe: cannot load %s (error %lu)\n", path, GetLastError());
        return 1;
    }
    printf("library: %s\n", path);
    if (!PrintVersion(path))
        printf("version: (no version resource)\n");

    IsTWAINAvailableProc available = (IsTWAINAvailableProc)GetProcAddress(module, "smIsTWAINAvailable");
    printf("source manager: %s\n", available && available() ? "available" : "not available");

    const IMAGE_EXPORT_DIRECTORY *dir = Exports(module);
    int count = 0;
    printf("exports:\n");
    for (DWORD ordinal = dir ? dir->Base : 1; dir && ordinal < dir->Base + dir->NumberOfFunctions; ++ordinal) {
        if (!GetProcAddress(module, (LPCSTR)(ULONG_PTR)ordinal))
            continue;
        /* Several names may share an entry (ordinals 10 and 11); each ordinal shows its own. */
        const char *name = NameOfOrdinal(module, dir, ordinal);
        printf("  %3lu %s\n", ordinal, name ? name : "(no name)");
        ++count;
    }
    printf("%d exports\n", count);
    if (available && available() && PrintSources(module) > 0)
        PrintDefaultSource(module);
    FreeLibrary(module);
    return 0;
}
