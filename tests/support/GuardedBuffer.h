// Application memory that shows a module writing outside it: the buffer ends where a page without access begins, and
// canaries lie before it.
#pragma once

#include <windows.h>

#include <cstddef>

namespace smtest {

class GuardedBuffer {
public:
    // `size` bytes (0 too) filled with kFill; a write, or a read, past the last one faults at once.
    explicit GuardedBuffer(size_t size);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;

    BYTE *Data() const { return data_; }
    size_t Size() const { return size_; }
    // False when a byte before the buffer was written (the canaries of the page it starts in).
    bool FrontIntact() const;

    static constexpr BYTE kFill = 0x5A;
    static constexpr BYTE kCanary = 0xC5;

private:
    BYTE *base_ = nullptr;
    size_t committed_ = 0;
    BYTE *data_ = nullptr;
    size_t size_ = 0;
};

} // namespace smtest
