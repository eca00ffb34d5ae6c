/* smprobe: loads smkernal.dll as an application would and prints its version, whether the
   TWAIN source manager is available, and the exports it offers (ordinal and name). */
#include <stdio.h>
#include <string.h>
#include <windows.h>

#include "smkernal.h"

typedef BOOL(SMCALL *IsTWAINAvailableProc)(void);

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
    FreeLibrary(module);
    return 0;
}
