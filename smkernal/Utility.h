// The container codec: TWAIN capability containers in movable global memory, and TW_FIX32 conversions.

// Every function returns a TWAIN condition code: 0 (TWCC_SUCCESS), 2 (TWCC_LOWMEMORY) or 10 (TWCC_BADVALUE).
// Extractions zero the caller's cell first and copy only the item's width (1, 2 or 4 bytes) into its low
// bytes, so small items arrive zero-extended. They read the container and never free it.
#pragma once

#include <windows.h>

#include "twain1x.h"

// Bytes one item of `itemType` takes in an item list: 1, 2 or 4 for types 0 to 7, 4 for every other type.
TW_UINT32 ItemSize(TW_UINT16 itemType);

// Item of a one-value; 10 on a null handle and on a lock failure alike (callers rely on that).
int ExtractOneValue(TW_CAPABILITY *capability, TW_UINT32 *value);
// NumItems of an enumeration, cut to the width of its item type (300 UINT8 items read as 44).
int ExtractEnumerationNumItems(TW_CAPABILITY *capability, TW_UINT32 *value);
// Item of an enumeration at `index`: -2 the current item, -1 the default item, otherwise that list position
// (negative ones too); refused only when the item would lie outside the block.
int ExtractEnumerationValue(TW_CAPABILITY *capability, TW_UINT32 *value, TW_INT32 index);
// Current item of an enumeration (ExtractEnumerationValue with index -2).
int ExtractEnumerationCurrent(TW_CAPABILITY *capability, TW_UINT32 *value);
// Field of a range: -1 MinValue, -2 MaxValue, -3 StepSize, -4 DefaultValue, any other selector CurrentValue.
int ExtractRangeValue(TW_CAPABILITY *capability, TW_UINT32 *value, TW_INT32 selector);
// MinValue of a range (selector -1).
int ExtractRangeMin(TW_CAPABILITY *capability, TW_UINT32 *value);
// MaxValue of a range (selector -2).
int ExtractRangeMax(TW_CAPABILITY *capability, TW_UINT32 *value);
// StepSize of a range (selector -3).
int ExtractRangeStep(TW_CAPABILITY *capability, TW_UINT32 *value);
// CurrentValue of a range (selector -5).
int ExtractRangeCurrent(TW_CAPABILITY *capability, TW_UINT32 *value);

// False when the container's fixed fields, its stored item list, or (for an enumeration) the item at its
// CurrentIndex or DefaultIndex would lie past its global block, which the extractions refuse with 10 and an
// "Invalid memory" warning. True for everything else the extractions fail on: a null handle, a block that
// cannot be locked, an unknown item type, and for container types they never read.
bool ContainerWithinBlock(const TW_CAPABILITY *capability);

// One reading of several items from the same container: while it lives, the extractions from that container take
// the size of its block read when it began instead of asking GlobalSize every time (that call costs as much as the
// lock and unlock around each item). For a container that nobody frees or reallocates meanwhile, such as an answer
// being read; scopes do not nest.
class ContainerReading {
public:
    explicit ContainerReading(const TW_CAPABILITY &capability);
    ~ContainerReading();
    ContainerReading(const ContainerReading &) = delete;
    ContainerReading &operator=(const ContainerReading &) = delete;
};

// New 6-byte one-value holding the 32-bit `value` as it is; ConType 5.
int BuildupOneValue(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 value);
// New enumeration of ItemSize(itemType) x numItems + 16 bytes with the packed `items`; ConType 4.
int BuildupEnumeration(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 numItems, TW_UINT32 currentIndex,
                       TW_UINT32 defaultIndex, const void *items);
// New array of ItemSize(itemType) x numItems + 8 bytes with the packed `items`; ConType 3.
int BuildupArray(TW_CAPABILITY *capability, TW_UINT16 itemType, TW_UINT32 numItems, const void *items);

// Whole (signed) + Frac / 65536.
double FIX32ToFloat(TW_FIX32 value);
// Whole and Frac truncated independently: exact for values >= 0, and -1.25 becomes 0xFFFF / 0xC001 on purpose.
TW_FIX32 FloatToFIX32(float value);

// The global-memory calls the codec allocates and locks containers with; white-box tests swap them to
// provoke failures that real memory never shows. They default to GlobalAlloc and GlobalLock.
extern HGLOBAL(WINAPI *codecGlobalAlloc)(UINT flags, SIZE_T bytes);
extern LPVOID(WINAPI *codecGlobalLock)(HGLOBAL memory);
