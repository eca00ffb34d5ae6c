// Import-table redirection of the global-memory functions, and the record of blocks it keeps.
#include "GlobalMemoryTracker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

namespace smtest {

namespace {

using AllocProc = HGLOBAL(WINAPI *)(UINT, SIZE_T);
using ReAllocProc = HGLOBAL(WINAPI *)(HGLOBAL, SIZE_T, UINT);
using FreeProc = HGLOBAL(WINAPI *)(HGLOBAL);

struct Record {
    std::set<HGLOBAL> live;
    std::set<HGLOBAL> freed;
    int allocations = 0;
    int frees = 0;
    int doubleFrees = 0;
    int failNext = 0;
    // Guarded blocks and the size their owner asked for.
    std::map<HGLOBAL, SIZE_T> guarded;
    int guardViolations = 0;
    std::vector<HGLOBAL> foreignFrees;
};

Record record;
bool guardBlocks = false;
// The real functions, taken from KERNEL32 itself.
AllocProc realAlloc = nullptr;
ReAllocProc realReAlloc = nullptr;
FreeProc realFree = nullptr;

void Allocated(HGLOBAL handle) {
    record.live.insert(handle);
    record.freed.erase(handle);
    ++record.allocations;
}

// Fills or checks the guard bytes behind the `size` bytes of a block; false when they were written.
bool GuardIntact(HGLOBAL handle, SIZE_T size, bool fill) {
    BYTE *block = static_cast<BYTE *>(GlobalLock(handle));
    if (!block)
        return true;
    bool intact = true;
    for (SIZE_T i = 0; i < GlobalMemoryTracker::kGuardBytes; ++i) {
        if (fill)
            block[size + i] = GlobalMemoryTracker::kGuardFill;
        else
            intact = intact && block[size + i] == GlobalMemoryTracker::kGuardFill;
    }
    GlobalUnlock(handle);
    return intact;
}

HGLOBAL WINAPI TrackedAlloc(UINT flags, SIZE_T size) {
    if (record.failNext > 0) {
        --record.failNext;
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    const bool guard = guardBlocks && size <= static_cast<SIZE_T>(-1) - GlobalMemoryTracker::kGuardBytes;
    HGLOBAL handle = realAlloc(flags, guard ? size + GlobalMemoryTracker::kGuardBytes : size);
    if (handle) {
        Allocated(handle);
        if (guard && GuardIntact(handle, size, true))
            record.guarded[handle] = size;
    }
    return handle;
}

HGLOBAL WINAPI TrackedReAlloc(HGLOBAL handle, SIZE_T size, UINT flags) {
    // A block that changes size keeps no guard: its bytes beyond the new size are its owner's again.
    record.guarded.erase(handle);
    HGLOBAL moved = realReAlloc(handle, size, flags);
    if (moved && moved != handle && record.live.erase(handle)) {
        record.live.insert(moved);
        record.freed.erase(moved);
    }
    return moved;
}

HGLOBAL WINAPI TrackedFree(HGLOBAL handle) {
    if (handle && record.freed.count(handle)) {
        // A handle that is valid again was given to a block someone else allocated since (a source's bitmap).
        if (GlobalFlags(handle) == GMEM_INVALID_HANDLE) {
            ++record.doubleFrees; // not passed on
            return handle;
        }
        record.freed.erase(handle);
    }
    if (handle && !record.live.count(handle))
        record.foreignFrees.push_back(handle);
    const auto guarded = record.guarded.find(handle);
    if (guarded != record.guarded.end()) {
        if (!GuardIntact(handle, guarded->second, false))
            ++record.guardViolations;
        record.guarded.erase(guarded);
    }
    HGLOBAL rc = realFree(handle);
    if (!rc && record.live.erase(handle)) {
        record.freed.insert(handle);
        ++record.frees;
    }
    return rc;
}

void LoadReal() {
    if (realAlloc)
        return;
    HMODULE kernel = GetModuleHandleA("kernel32.dll");
    realAlloc = reinterpret_cast<AllocProc>(reinterpret_cast<void *>(GetProcAddress(kernel, "GlobalAlloc")));
    realReAlloc = reinterpret_cast<ReAllocProc>(reinterpret_cast<void *>(GetProcAddress(kernel, "GlobalReAlloc")));
    realFree = reinterpret_cast<FreeProc>(reinterpret_cast<void *>(GetProcAddress(kernel, "GlobalFree")));
}

// The replacement for an imported function, or null for functions this tracker leaves alone.
void *ReplacementFor(const char *name) {
    if (std::strcmp(name, "GlobalAlloc") == 0)
        return reinterpret_cast<void *>(&TrackedAlloc);
    if (std::strcmp(name, "GlobalReAlloc") == 0)
        return reinterpret_cast<void *>(&TrackedReAlloc);
    if (std::strcmp(name, "GlobalFree") == 0)
        return reinterpret_cast<void *>(&TrackedFree);
    return nullptr;
}

// The same for a slot without a name (imported by ordinal or without a name table): by the address it holds.
void *ReplacementForAddress(void *address) {
    if (address == reinterpret_cast<void *>(realAlloc))
        return reinterpret_cast<void *>(&TrackedAlloc);
    if (address == reinterpret_cast<void *>(realReAlloc))
        return reinterpret_cast<void *>(&TrackedReAlloc);
    if (address == reinterpret_cast<void *>(realFree))
        return reinterpret_cast<void *>(&TrackedFree);
    return nullptr;
}

bool WriteSlot(void **slot, void *value) {
    DWORD old;
    if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &old))
        return false;
    *slot = value;
    DWORD ignored;
    VirtualProtect(slot, sizeof *slot, old, &ignored);
    return true;
}

std::string ModulePath(HMODULE module) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(module, path, sizeof path);
    return path;
}

} // namespace

int GlobalMemoryTracker::Attach(HMODULE module) {
    if (!module)
        return 0;
    LoadReal();
    auto *base = reinterpret_cast<BYTE *>(module);
    const auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base);
    if (dos->e_magic != IMAGE_DOS_SIGNATURE)
        return 0;
    const auto *nt = reinterpret_cast<const IMAGE_NT_HEADERS32 *>(base + dos->e_lfanew);
    if (nt->Signature != IMAGE_NT_SIGNATURE)
        return 0;
    const IMAGE_DATA_DIRECTORY &directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (!directory.VirtualAddress || !directory.Size)
        return 0;
    const std::string path = ModulePath(module);
    int patched = 0;
    for (auto *import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR *>(base + directory.VirtualAddress);
         import->Name; ++import) {
        auto *slot = reinterpret_cast<IMAGE_THUNK_DATA32 *>(base + import->FirstThunk);
        const auto *names = import->OriginalFirstThunk
                                ? reinterpret_cast<const IMAGE_THUNK_DATA32 *>(base + import->OriginalFirstThunk)
                                : nullptr;
        for (int i = 0; slot[i].u1.Function; ++i) {
            void **address = reinterpret_cast<void **>(&slot[i].u1.Function);
            void *replacement = nullptr;
            if (names && !IMAGE_SNAP_BY_ORDINAL32(names[i].u1.Ordinal)) {
                const auto *byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME *>(base + names[i].u1.AddressOfData);
                replacement = ReplacementFor(reinterpret_cast<const char *>(byName->Name));
            } else {
                replacement = ReplacementForAddress(*address);
            }
            if (!replacement || *address == replacement)
                continue;
            void *original = *address;
            if (WriteSlot(address, replacement)) {
                slots_.push_back(Slot{module, path, address, original});
                ++patched;
            }
        }
    }
    return patched;
}

void GlobalMemoryTracker::Detach() {
    for (auto slot = slots_.rbegin(); slot != slots_.rend(); ++slot)
        if (GetModuleHandleA(slot->path.c_str()) == slot->module)
            WriteSlot(slot->address, slot->original);
    slots_.clear();
    guardBlocks = false;
}

void GlobalMemoryTracker::Begin() {
    record = Record{};
}

void GlobalMemoryTracker::FailNextAllocations(int count) {
    record.failNext = count;
}

std::vector<HGLOBAL> GlobalMemoryTracker::Live() const {
    return std::vector<HGLOBAL>(record.live.begin(), record.live.end());
}

int GlobalMemoryTracker::Allocations() const {
    return record.allocations;
}

int GlobalMemoryTracker::Frees() const {
    return record.frees;
}

int GlobalMemoryTracker::DoubleFrees() const {
    return record.doubleFrees;
}

void GlobalMemoryTracker::GuardBlocks(bool on) {
    guardBlocks = on;
}

int GlobalMemoryTracker::GuardViolations() const {
    return record.guardViolations;
}

void GlobalMemoryTracker::Foreign(HGLOBAL handle) {
    record.freed.erase(handle);
}

std::vector<HGLOBAL> GlobalMemoryTracker::ForeignFrees() const {
    return record.foreignFrees;
}

std::string GlobalMemoryTracker::Describe() const {
    std::string text = std::to_string(record.live.size()) + " live of " + std::to_string(record.allocations) +
                       " allocated, " + std::to_string(record.doubleFrees) + " freed twice";
    for (HGLOBAL handle : record.live) {
        char item[64];
        std::snprintf(item, sizeof item, "; %p (%lu bytes)", static_cast<void *>(handle),
                      static_cast<unsigned long>(GlobalSize(handle)));
        text += item;
    }
    return text;
}

} // namespace smtest
