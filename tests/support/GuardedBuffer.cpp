// Guarded application buffers: committed pages with the buffer at their end, and one page without access behind them.
#include "GuardedBuffer.h"

#include <cstring>

namespace smtest {

namespace {

// Canaries before every buffer, whatever its size.
constexpr size_t kFront = 64;

size_t PageSize() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

} // namespace

GuardedBuffer::GuardedBuffer(size_t size) : size_(size) {
    const size_t page = PageSize();
    committed_ = (kFront + size + page - 1) / page * page;
    base_ = static_cast<BYTE *>(VirtualAlloc(nullptr, committed_ + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (!base_)
        return;
    DWORD old;
    VirtualProtect(base_ + committed_, page, PAGE_NOACCESS, &old);
    data_ = base_ + committed_ - size;
    std::memset(base_, kCanary, committed_ - size);
    std::memset(data_, kFill, size);
}

GuardedBuffer::~GuardedBuffer() {
    if (base_)
        VirtualFree(base_, 0, MEM_RELEASE);
}

bool GuardedBuffer::FrontIntact() const {
    if (!base_)
        return true;
    for (const BYTE *at = base_; at < data_; ++at)
        if (*at != kCanary)
            return false;
    return true;
}

} // namespace smtest
