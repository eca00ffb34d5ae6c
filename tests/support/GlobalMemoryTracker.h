// Counts the global-memory blocks that chosen modules allocate and free, to show that no container is left behind.

// It redirects the modules' imports of GlobalAlloc, GlobalReAlloc and GlobalFree.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace smtest {

// One tracker at a time: the redirected imports share the process-wide record of blocks.
class GlobalMemoryTracker {
public:
    GlobalMemoryTracker() = default;
    GlobalMemoryTracker(const GlobalMemoryTracker &) = delete;
    GlobalMemoryTracker &operator=(const GlobalMemoryTracker &) = delete;
    ~GlobalMemoryTracker() { Detach(); }

    // Redirects the module's imported GlobalAlloc, GlobalReAlloc and GlobalFree; returns the number of import
    // slots redirected (0 when the module imports none of them or is null).
    int Attach(HMODULE module);
    // Puts every redirected slot back, skipping modules that were unloaded meanwhile.
    void Detach();

    // Starts a count: blocks allocated before are no longer followed, and no failure is pending.
    void Begin();
    // The next `count` GlobalAlloc calls of the attached modules fail (return NULL) without allocating.
    void FailNextAllocations(int count);
    // Blocks allocated since Begin and not freed.
    std::vector<HGLOBAL> Live() const;
    int Allocations() const;
    // Blocks freed that were allocated since Begin.
    int Frees() const;
    // GlobalFree of a block that was already freed since Begin.
    int DoubleFrees() const;
    // "2 live: 0x1234 (6 bytes), ..." for failure messages.
    std::string Describe() const;

    // From now on every block the attached modules allocate is kGuardBytes longer than asked for, the extra bytes
    // filled with kGuardFill; GlobalFree checks them, so that a module writing past the end of a block it sized shows
    // in GuardViolations. GlobalSize then answers the longer size.
    void GuardBlocks(bool on);
    // Blocks freed since Begin whose guard bytes had been written.
    int GuardViolations() const;
    // GlobalFree calls of the attached modules since Begin for handles they had not allocated since Begin (a source's
    // containers and bitmaps), in order, whatever the call returned.
    std::vector<HGLOBAL> ForeignFrees() const;

    // Tells of a block allocated outside the attached modules (by a source the test plays): a handle the modules freed
    // before may live again, and freeing it once more is no double free.
    void Foreign(HGLOBAL handle);

    static constexpr SIZE_T kGuardBytes = 16;
    static constexpr BYTE kGuardFill = 0xFD;

private:
    struct Slot {
        HMODULE module;
        std::string path;
        void **address;
        void *original;
    };
    std::vector<Slot> slots_;
};

} // namespace smtest
