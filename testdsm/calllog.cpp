// The call log: records in entry order, bounded, with capability containers decoded from their memory handles.
#include "calllog.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>

#include "lock.h"
#include "records.h"

namespace tdsm {

namespace {

struct Entry {
    long sequence;
    TdsmCall call;
};

std::deque<Entry> entries;
long nextSequence = 0;
int logLimit = TDSM_DEFAULT_LOG_LIMIT;
int dropped = 0;

constexpr size_t kOneValueItem = offsetof(TW_ONEVALUE, Item);
constexpr size_t kEnumerationItems = offsetof(TW_ENUMERATION, ItemList);
constexpr size_t kArrayItems = offsetof(TW_ARRAY, ItemList);

// An item widened to 32 bits: signed types sign-extended, FIX32 as its bytes, larger types 0.
TW_UINT32 ItemValue(const TW_UINT8 *item, TW_UINT16 itemType) {
    switch (itemType) {
    case TWTY_INT8:
        return static_cast<TW_UINT32>(static_cast<TW_INT32>(static_cast<TW_INT8>(item[0])));
    case TWTY_UINT8:
        return item[0];
    case TWTY_INT16: {
        TW_INT16 value;
        std::memcpy(&value, item, sizeof value);
        return static_cast<TW_UINT32>(static_cast<TW_INT32>(value));
    }
    case TWTY_UINT16:
    case TWTY_BOOL: {
        TW_UINT16 value;
        std::memcpy(&value, item, sizeof value);
        return value;
    }
    case TWTY_INT32:
    case TWTY_UINT32:
    case TWTY_FIX32: {
        TW_UINT32 value;
        std::memcpy(&value, item, sizeof value);
        return value;
    }
    default:
        return 0;
    }
}

TW_UINT32 ReadUint32(const TW_UINT8 *at) {
    TW_UINT32 value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// Copies `count` items starting at `list`, as numbers and as bytes, within the decoder's limits.
void StoreItems(const TW_UINT8 *list, TW_UINT32 count, TdsmContainer *out) {
    if (!out->itemSize)
        return;
    out->storedItems = std::min<TW_UINT32>(count, TDSM_MAX_ITEMS);
    for (TW_UINT32 i = 0; i < out->storedItems; ++i)
        out->items[i] = ItemValue(list + i * out->itemSize, out->itemType);
    out->bytesSize = std::min<TW_UINT32>(count * out->itemSize, TDSM_MAX_ITEM_BYTES);
    std::memcpy(out->bytes, list, out->bytesSize);
}

// Items of a list that the memory really holds; marks the container truncated when it claims more.
TW_UINT32 ItemsAvailable(size_t size, size_t listOffset, TW_UINT32 claimed, TdsmContainer *out) {
    if (!out->itemSize)
        return 0;
    const size_t available = size > listOffset ? (size - listOffset) / out->itemSize : 0;
    if (claimed > available) {
        out->truncated = 1;
        return static_cast<TW_UINT32>(available);
    }
    return claimed;
}

void DecodeOneValue(const TW_UINT8 *memory, size_t size, TdsmContainer *out) {
    out->numItems = 1;
    if (out->itemSize && size < kOneValueItem + out->itemSize) {
        out->truncated = 1;
        return;
    }
    StoreItems(memory + kOneValueItem, 1, out);
}

void DecodeEnumeration(const TW_UINT8 *memory, size_t size, TdsmContainer *out) {
    if (size < kEnumerationItems) {
        out->truncated = 1;
        return;
    }
    out->numItems = ReadUint32(memory + offsetof(TW_ENUMERATION, NumItems));
    out->currentIndex = ReadUint32(memory + offsetof(TW_ENUMERATION, CurrentIndex));
    out->defaultIndex = ReadUint32(memory + offsetof(TW_ENUMERATION, DefaultIndex));
    StoreItems(memory + kEnumerationItems, ItemsAvailable(size, kEnumerationItems, out->numItems, out), out);
}

void DecodeArray(const TW_UINT8 *memory, size_t size, TdsmContainer *out) {
    if (size < kArrayItems) {
        out->truncated = 1;
        return;
    }
    out->numItems = ReadUint32(memory + offsetof(TW_ARRAY, NumItems));
    StoreItems(memory + kArrayItems, ItemsAvailable(size, kArrayItems, out->numItems, out), out);
}

void DecodeRange(const TW_UINT8 *memory, size_t size, TdsmContainer *out) {
    if (size < sizeof(TW_RANGE)) {
        out->truncated = 1;
        return;
    }
    out->minValue = ReadUint32(memory + offsetof(TW_RANGE, MinValue));
    out->maxValue = ReadUint32(memory + offsetof(TW_RANGE, MaxValue));
    out->stepSize = ReadUint32(memory + offsetof(TW_RANGE, StepSize));
    out->defaultValue = ReadUint32(memory + offsetof(TW_RANGE, DefaultValue));
    out->currentValue = ReadUint32(memory + offsetof(TW_RANGE, CurrentValue));
}

void DecodeContainer(const TW_UINT8 *memory, size_t size, TdsmContainer *out) {
    TW_UINT16 itemType;
    std::memcpy(&itemType, memory, sizeof itemType);
    out->itemType = itemType;
    out->itemSize = ItemSize(itemType);
    switch (out->conType) {
    case TWON_ONEVALUE:
        DecodeOneValue(memory, size, out);
        break;
    case TWON_ENUMERATION:
        DecodeEnumeration(memory, size, out);
        break;
    case TWON_ARRAY:
        DecodeArray(memory, size, out);
        break;
    case TWON_RANGE:
        DecodeRange(memory, size, out);
        break;
    default:
        return;
    }
    out->hasContainer = 1;
}

void Trim() {
    while (static_cast<int>(entries.size()) > logLimit) {
        entries.pop_front();
        ++dropped;
    }
}

} // namespace

// Asks the memory manager instead of reading under an exception guard (IsBadReadPtr): a page fault caught inside
// Wine is raised as an illegal instruction under qemu-user, and would end the process there.
bool Readable(const void *data, size_t size) {
    constexpr DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                                PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    const uintptr_t end = reinterpret_cast<uintptr_t>(data) + size;
    if (!data || end < reinterpret_cast<uintptr_t>(data))
        return false;
    for (uintptr_t at = reinterpret_cast<uintptr_t>(data); at < end;) {
        MEMORY_BASIC_INFORMATION region;
        if (!VirtualQuery(reinterpret_cast<const void *>(at), &region, sizeof region) || region.State != MEM_COMMIT ||
            (region.Protect & (PAGE_GUARD | PAGE_NOACCESS)) || !(region.Protect & kReadable))
            return false;
        at = reinterpret_cast<uintptr_t>(region.BaseAddress) + region.RegionSize;
    }
    return true;
}

TW_UINT32 ItemSize(TW_UINT16 itemType) {
    return TW_ItemTypeSize(itemType);
}

void DecodeCapability(TW_MEMREF data, TdsmContainer *out) {
    std::memset(out, 0, sizeof *out);
    if (!Readable(data, sizeof(TW_CAPABILITY)))
        return;
    const TW_CAPABILITY *capability = static_cast<const TW_CAPABILITY *>(data);
    out->valid = 1;
    out->cap = capability->Cap;
    out->conType = capability->ConType;
    HGLOBAL handle = capability->hContainer;
    if (!handle)
        return;
    const SIZE_T size = GlobalSize(handle);
    if (size < sizeof(TW_UINT16))
        return;
    const TW_UINT8 *memory = static_cast<const TW_UINT8 *>(GlobalLock(handle));
    if (!memory)
        return;
    if (Readable(memory, size)) {
        out->handleSize = static_cast<TW_UINT32>(size);
        DecodeContainer(memory, size, out);
    }
    GlobalUnlock(handle);
}

void BeginRecord(TdsmCall &record, pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                 TW_MEMREF data) {
    std::memset(&record, 0, sizeof record);
    record.originId = Readable(origin, sizeof *origin) ? origin->Id : 0;
    CopyProductName(record.originName, Readable(origin, sizeof *origin) ? origin : nullptr);
    record.hasDest = dest != nullptr;
    record.destId = Readable(dest, sizeof *dest) ? dest->Id : 0;
    CopyProductName(record.destName, Readable(dest, sizeof *dest) ? dest : nullptr);
    record.dg = dg;
    record.dat = dat;
    record.msg = msg;
    record.hasData = data != nullptr;
    const TW_UINT32 size = DataSize(dat);
    record.dataSize = Readable(data, size) ? size : 0;
    if (record.dataSize)
        std::memcpy(record.dataIn, data, record.dataSize);
    if (dat == DAT_CAPABILITY)
        DecodeCapability(data, &record.capIn);
}

void CompleteRecord(TdsmCall &record, TW_MEMREF data) {
    if (record.dataSize && Readable(data, record.dataSize))
        std::memcpy(record.dataOut, data, record.dataSize);
    if (record.dat == DAT_CAPABILITY)
        DecodeCapability(data, &record.capOut);
}

long AppendRecord(const TdsmCall &record) {
    Lock lock;
    const long sequence = nextSequence++;
    entries.push_back(Entry{sequence, record});
    Trim();
    return sequence;
}

void UpdateRecord(long sequence, const TdsmCall &record) {
    Lock lock;
    if (entries.empty() || sequence < entries.front().sequence)
        return;
    const size_t index = static_cast<size_t>(sequence - entries.front().sequence);
    if (index < entries.size())
        entries[index].call = record;
}

void ClearLog() {
    Lock lock;
    entries.clear();
    dropped = 0;
    logLimit = TDSM_DEFAULT_LOG_LIMIT;
}

int LogCount() {
    Lock lock;
    return static_cast<int>(entries.size());
}

bool LogGet(int index, TdsmCall *out) {
    Lock lock;
    if (!out || index < 0 || index >= static_cast<int>(entries.size()))
        return false;
    *out = entries[index].call;
    return true;
}

void SetLogLimit(int limit) {
    Lock lock;
    logLimit = std::max(limit, 1);
    Trim();
}

int DroppedCalls() {
    Lock lock;
    return dropped;
}

} // namespace tdsm
