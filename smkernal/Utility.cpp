// The container codec: builds and reads TWAIN capability containers and converts TW_FIX32.

// Containers are addressed by their 32-bit Windows packing (2-byte alignment): a 16-bit ItemType directly
// followed by 32-bit fields. One-value: Item at 2 (6 bytes). Enumeration: NumItems at 2, CurrentIndex at 6,
// DefaultIndex at 10, items from 14. Range: MinValue, MaxValue, StepSize, DefaultValue, CurrentValue at
// 2, 6, 10, 14, 18 (22 bytes). Array: NumItems at 2, items from 6.
//
// Reading never goes past the container's global block: a container whose fixed fields or requested item
// would lie beyond GlobalSize is refused with 10 and an "Invalid memory" warning. Containers that fit
// behave as the capability code has always relied on, odd corners included.
#include "Utility.h"

#include <cstring>

#include "Trace.h"

HGLOBAL(WINAPI *codecGlobalAlloc)(UINT flags, SIZE_T bytes) = GlobalAlloc;
LPVOID(WINAPI *codecGlobalLock)(HGLOBAL memory) = GlobalLock;

namespace {

const char kSource[] = SM_SOURCE("Utility");

// TW_FIX32 fractions are counted in 1/65536.
constexpr double kFractionsPerUnit = 65536.0;

// Fixed parts of the containers.
constexpr SIZE_T kOneValueBytes = sizeof(TW_ONEVALUE);
constexpr SIZE_T kEnumerationHeader = offsetof(TW_ENUMERATION, ItemList);
constexpr SIZE_T kRangeBytes = sizeof(TW_RANGE);
// What the builders allocate beyond the item list (the structures' sizes with their 1-byte list).
constexpr ULONGLONG kEnumerationExtra = sizeof(TW_ENUMERATION);
constexpr ULONGLONG kArrayExtra = sizeof(TW_ARRAY);
static_assert(kOneValueBytes == 6 && kEnumerationHeader == 14 && kRangeBytes == 22, "container layouts");
static_assert(kEnumerationExtra == 16 && kArrayExtra == 8, "builder sizes");

TW_UINT32 ReadWord32(const BYTE *at) {
    TW_UINT32 value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// Bytes copied into the caller's cell for an item type; 0 for the types the codec cannot carry. Unlike
// ItemSize there is no fall-back: a FRAME or string item is refused, not read as a 32-bit word.
TW_UINT32 CellWidth(TW_UINT16 itemType) {
    return itemType <= TWTY_FIX32 ? TW_ItemTypeSize(itemType) : 0;
}

// The one bounds check of every extraction: do `length` bytes at `offset` lie inside a block of `blockSize`
// bytes? Offsets come from the container or the caller and may be negative or huge.
bool WithinBlock(SIZE_T blockSize, long long offset, ULONGLONG length) {
    return offset >= 0 && static_cast<ULONGLONG>(offset) + length <= blockSize;
}

// Byte offset of the requested item in a locked container whose fixed fields are in the block; may be
// negative or past the block, which the caller checks.
using ItemLocator = long long (*)(const BYTE *block, TW_UINT32 width, TW_INT32 argument);

// Bytes the whole container claims, item list included, by the count it stores.
using ClaimedLength = ULONGLONG (*)(const BYTE *block, TW_UINT32 width);

struct ContainerShape {
    SIZE_T fixedBytes; // bytes the container takes before (or without) its item list
    ItemLocator locate;
    ClaimedLength claimed; // null when the container has no item list
    bool storesIndexes;    // the current and default items are picked by indexes the container stores
};

long long OneValueItem(const BYTE *, TW_UINT32, TW_INT32) {
    return offsetof(TW_ONEVALUE, Item);
}

long long EnumerationCount(const BYTE *, TW_UINT32, TW_INT32) {
    return offsetof(TW_ENUMERATION, NumItems);
}

// Any index but -2 and -1 is the position itself, negative ones too: -3 with 4-byte items reads offset 2.
long long EnumerationItem(const BYTE *block, TW_UINT32 width, TW_INT32 index) {
    long long position = index;
    if (index == -2)
        position = ReadWord32(block + offsetof(TW_ENUMERATION, CurrentIndex));
    else if (index == -1)
        position = ReadWord32(block + offsetof(TW_ENUMERATION, DefaultIndex));
    return static_cast<long long>(kEnumerationHeader) + position * width;
}

// The stored NumItems counts in full here, even where the count itself is delivered cut to the item's
// width: a list that claims more items than its block holds is refused whole.
ULONGLONG EnumerationLength(const BYTE *block, TW_UINT32 width) {
    return kEnumerationHeader + static_cast<ULONGLONG>(ReadWord32(block + offsetof(TW_ENUMERATION, NumItems))) * width;
}

long long RangeField(const BYTE *, TW_UINT32, TW_INT32 selector) {
    switch (selector) {
    case -1:
        return offsetof(TW_RANGE, MinValue);
    case -2:
        return offsetof(TW_RANGE, MaxValue);
    case -3:
        return offsetof(TW_RANGE, StepSize);
    case -4:
        return offsetof(TW_RANGE, DefaultValue);
    default:
        // -5, and every selector nobody defined (0, positive numbers), reads the current value.
        return offsetof(TW_RANGE, CurrentValue);
    }
}

const ContainerShape kOneValue = {kOneValueBytes, OneValueItem, nullptr, false};
const ContainerShape kEnumerationCount = {kEnumerationHeader, EnumerationCount, EnumerationLength, true};
const ContainerShape kEnumerationItem = {kEnumerationHeader, EnumerationItem, EnumerationLength, true};
const ContainerShape kRange = {kRangeBytes, RangeField, nullptr, false};

// The shape the codec reads a container type with; null for the types it never reads.
const ContainerShape *ShapeOf(TW_UINT16 conType) {
    switch (conType) {
    case TWON_ONEVALUE:
        return &kOneValue;
    case TWON_ENUMERATION:
        return &kEnumerationItem;
    case TWON_RANGE:
        return &kRange;
    default:
        return nullptr;
    }
}

// The container of the ContainerReading in progress, and the size of its block.
HGLOBAL readingContainer = nullptr;
SIZE_T readingBlockSize = 0;

SIZE_T BlockSize(HGLOBAL container) {
    return container == readingContainer ? readingBlockSize : GlobalSize(container);
}

TW_UINT16 ItemTypeOf(const BYTE *block) {
    TW_UINT16 itemType;
    std::memcpy(&itemType, block, sizeof itemType);
    return itemType;
}

// Whether the item list a locked container claims lies in its block (a container without a list always does).
bool ListFits(const ContainerShape &shape, const BYTE *block, SIZE_T blockSize, TW_UINT32 width) {
    return !shape.claimed || WithinBlock(blockSize, 0, shape.claimed(block, width));
}

// Whether the item at `argument` of a locked container lies in its block.
bool ItemFits(const ContainerShape &shape, const BYTE *block, SIZE_T blockSize, TW_UINT32 width, TW_INT32 argument) {
    return WithinBlock(blockSize, shape.locate(block, width, argument), width);
}

// The layout check of ContainerWithinBlock on a locked block: fixed fields, stored list, stored indexes.
bool LayoutWithinBlock(const ContainerShape &shape, const BYTE *block, SIZE_T blockSize) {
    if (!WithinBlock(blockSize, 0, shape.fixedBytes))
        return false;
    const TW_UINT32 width = CellWidth(ItemTypeOf(block));
    if (width == 0)
        return true;
    if (!ListFits(shape, block, blockSize, width))
        return false;
    return !shape.storesIndexes ||
           (ItemFits(shape, block, blockSize, width, -2) && ItemFits(shape, block, blockSize, width, -1));
}

// The frame every extraction shares: zero the cell, refuse a missing container, lock it, copy the item
// with its type's width, unlock. `lockFailure` is what a failed lock returns (2, but 10 for a one-value).
// An unknown item type is not traced: it only yields 10.
int ExtractItem(const TraceCall &call, const TW_CAPABILITY *capability, TW_UINT32 *value, const ContainerShape &shape,
                TW_INT32 argument, int lockFailure) {
    *value = 0;
    if (!capability || !capability->hContainer) {
        call.Warn(__LINE__, "Invalid memory");
        return TWCC_BADVALUE;
    }
    HGLOBAL container = capability->hContainer;
    const BYTE *block = static_cast<const BYTE *>(codecGlobalLock(container));
    if (!block) {
        call.Warn(__LINE__, "Lock memory error");
        return lockFailure;
    }
    int result = TWCC_BADVALUE;
    const SIZE_T blockSize = BlockSize(container);
    if (!WithinBlock(blockSize, 0, shape.fixedBytes)) {
        call.Warn(__LINE__, "Invalid memory");
    } else {
        const TW_UINT32 width = CellWidth(ItemTypeOf(block));
        if (width != 0) {
            if (ListFits(shape, block, blockSize, width) && ItemFits(shape, block, blockSize, width, argument)) {
                std::memcpy(value, block + shape.locate(block, width, argument), width);
                result = TWCC_SUCCESS;
            } else {
                call.Warn(__LINE__, "Invalid memory");
            }
        }
    }
    GlobalUnlock(container);
    return result;
}

// The frame the builders share: allocate (the handle goes into hContainer even when it is null), set
// ConType, lock, write the fixed fields and the packed items, unlock. A failed lock frees the block but
// leaves its stale handle in hContainer and ConType set; callers treat the capability as empty after any
// failure and must not free it again.
int BuildContainer(const TraceCall &call, TW_CAPABILITY *capability, TW_UINT16 conType, ULONGLONG bytes,
                   const BYTE *fixedFields, SIZE_T fixedBytes, const void *items, ULONGLONG itemBytes) {
    // A size the address space cannot hold fails like any allocation GlobalAlloc refuses.
    HGLOBAL container = bytes <= static_cast<SIZE_T>(-1) ? codecGlobalAlloc(GHND, static_cast<SIZE_T>(bytes)) : nullptr;
    capability->hContainer = container;
    if (!container) {
        call.Warn(__LINE__, "Memory alloc error");
        return TWCC_LOWMEMORY;
    }
    capability->ConType = conType;
    BYTE *block = static_cast<BYTE *>(codecGlobalLock(container));
    if (!block) {
        call.Warn(__LINE__, "Lock memory error");
        GlobalFree(container);
        return TWCC_LOWMEMORY;
    }
    std::memcpy(block, fixedFields, fixedBytes);
    // No item buffer leaves the (zero-filled) list as it is.
    if (items && itemBytes)
        std::memcpy(block + fixedBytes, items, static_cast<SIZE_T>(itemBytes));
    GlobalUnlock(container);
    return TWCC_SUCCESS;
}

// Writes a 16-bit type and 32-bit fields in the packed layout of the containers.
class PackedFields {
public:
    explicit PackedFields(TW_UINT16 itemType) { Put(&itemType, sizeof itemType); }
    PackedFields &Add(TW_UINT32 field) {
        Put(&field, sizeof field);
        return *this;
    }
    const BYTE *Bytes() const { return bytes_; }
    SIZE_T Size() const { return size_; }

private:
    void Put(const void *from, SIZE_T count) {
        std::memcpy(bytes_ + size_, from, count);
        size_ += count;
    }
    BYTE bytes_[kEnumerationHeader];
    SIZE_T size_ = 0;
};

// Truncates toward zero and keeps the low 16 bits, as the conversion has always done; values beyond the
// 64-bit integers (and NaN) come out as 0, the low word of the x87 "integer indefinite".
TW_UINT16 TruncatedLowWord(double value) {
    if (!(value > -9223372036854775808.0 && value < 9223372036854775808.0))
        return 0;
    return static_cast<TW_UINT16>(static_cast<ULONGLONG>(static_cast<long long>(value)));
}

} // namespace

// The codec carries scalars only, so a frame, a string or an unknown item is sized as one 32-bit word.
TW_UINT32 ItemSize(TW_UINT16 itemType) {
    const TW_UINT32 width = CellWidth(itemType);
    return width ? width : sizeof(TW_UINT32);
}

int ExtractOneValue(TW_CAPABILITY *capability, TW_UINT32 *value) {
    TraceCall call(kSource, "ExtractOneValue", __LINE__, 0, kFreeScope);
    // A one-value lock failure reports 10, not 2, and callers rely on that.
    const int result = ExtractItem(call, capability, value, kOneValue, 0, TWCC_BADVALUE);
    call.Leave(__LINE__);
    return result;
}

int ExtractEnumerationNumItems(TW_CAPABILITY *capability, TW_UINT32 *value) {
    TraceCall call(kSource, "ExtractEnumerationNumItems", __LINE__, 0, kFreeScope);
    // The count is copied with the width of the item type: 8-bit items deliver its low byte only.
    const int result = ExtractItem(call, capability, value, kEnumerationCount, 0, TWCC_LOWMEMORY);
    call.Leave(__LINE__);
    return result;
}

int ExtractEnumerationValue(TW_CAPABILITY *capability, TW_UINT32 *value, TW_INT32 index) {
    TraceCall call(kSource, "ExtractEnumerationValue", __LINE__, 0, kFreeScope);
    const int result = ExtractItem(call, capability, value, kEnumerationItem, index, TWCC_LOWMEMORY);
    call.Leave(__LINE__);
    return result;
}

int ExtractEnumerationCurrent(TW_CAPABILITY *capability, TW_UINT32 *value) {
    return ExtractEnumerationValue(capability, value, -2);
}

int ExtractRangeValue(TW_CAPABILITY *capability, TW_UINT32 *value, TW_INT32 selector) {
    TraceCall call(kSource, "ExtractRangeValue", __LINE__, 0, kFreeScope);
    const int result = ExtractItem(call, capability, value, kRange, selector, TWCC_LOWMEMORY);
    call.Leave(__LINE__);
    return result;
}

int ExtractRangeMin(TW_CAPABILITY *capability, TW_UINT32 *value) {
    return ExtractRangeValue(capability, value, -1);
}

int ExtractRangeMax(TW_CAPABILITY *capability, TW_UINT32 *value) {
    return ExtractRangeValue(capability, value, -2);
}

int ExtractRangeStep(TW_CAPABILITY *capability, TW_UINT32 *value) {
    return ExtractRangeValue(capability, value, -3);
}

int ExtractRangeCurrent(TW_CAPABILITY *capability, TW_UINT32 *value) {
    return ExtractRangeValue(capability, value, -5);
}

ContainerReading::ContainerReading(const TW_CAPABILITY &capability) {
    readingContainer = capability.hContainer;
    readingBlockSize = readingContainer ? GlobalSize(readingContainer) : 0;
}

ContainerReading::~ContainerReading() {
    readingContainer = nullptr;
    readingBlockSize = 0;
}

// Writes no record: it only tells the get pattern why an extraction failed.
bool ContainerWithinBlock(const TW_CAPABILITY *capability) {
    const ContainerShape *shape = capability ? ShapeOf(capability->ConType) : nullptr;
    if (!shape || !capability->hContainer)
        return true;
    HGLOBAL container = capability->hContainer;
    const BYTE *block = static_cast<const BYTE *>(codecGlobalLock(container));
    if (!block)
        return true;
    const bool within = LayoutWithinBlock(*shape, block, BlockSize(container));
    GlobalUnlock(container);
    return within;
}

int BuildupOneValue(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 value) {
    TraceCall call(kSource, "BuildupOneValue", __LINE__, 0, kFreeScope);
    PackedFields fields(itemType);
    fields.Add(value);
    const int result =
        BuildContainer(call, capability, TWON_ONEVALUE, kOneValueBytes, fields.Bytes(), fields.Size(), nullptr, 0);
    call.Leave(__LINE__);
    return result;
}

int BuildupEnumeration(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 numItems, TW_UINT32 currentIndex,
                       TW_UINT32 defaultIndex, const void *items) {
    TraceCall call(kSource, "BuildupEnumeration", __LINE__, 0, kFreeScope);
    PackedFields fields(itemType);
    fields.Add(numItems).Add(currentIndex).Add(defaultIndex);
    const ULONGLONG itemBytes = static_cast<ULONGLONG>(ItemSize(itemType)) * numItems;
    const int result = BuildContainer(call, capability, TWON_ENUMERATION, itemBytes + kEnumerationExtra, fields.Bytes(),
                                      fields.Size(), items, itemBytes);
    call.Leave(__LINE__);
    return result;
}

int BuildupArray(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 numItems, const void *items) {
    TraceCall call(kSource, "BuildupArray", __LINE__, 0, kFreeScope);
    PackedFields fields(itemType);
    fields.Add(numItems);
    const ULONGLONG itemBytes = static_cast<ULONGLONG>(ItemSize(itemType)) * numItems;
    const int result = BuildContainer(call, capability, TWON_ARRAY, itemBytes + kArrayExtra, fields.Bytes(),
                                      fields.Size(), items, itemBytes);
    call.Leave(__LINE__);
    return result;
}

double FIX32ToFloat(TW_FIX32 value) {
    return value.Whole + value.Frac / kFractionsPerUnit;
}

TW_FIX32 FloatToFIX32(float value) {
    // The halves are taken independently and never corrected for negative values: -1.25 becomes
    // Whole 0xFFFF, Frac 0xC001 (about -0.25), and the negotiation code has always sent it that way.
    TW_FIX32 fix;
    fix.Whole = static_cast<TW_INT16>(TruncatedLowWord(value));
    fix.Frac = TruncatedLowWord(static_cast<double>(value) * kFractionsPerUnit + 0.5);
    return fix;
}
