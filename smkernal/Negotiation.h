// Descriptions of the capability accessors that the one get and the one set pattern follow, and the flags they share.
#pragma once

#include "twain1x.h"

// The brightness range the module starts with, and returns to when the source's cannot be used.
constexpr double kDefaultBrightnessMin = -1000.0;
constexpr double kDefaultBrightnessMax = 1000.0;
constexpr double kDefaultBrightnessStep = 1.0;

// Unit flags at the library's interface: 2 to the power of the TWAIN unit code.
constexpr TW_UINT16 kUnitInches = 1u << TWUN_INCHES;
constexpr TW_UINT16 kUnitCentimetres = 1u << TWUN_CENTIMETERS;
constexpr TW_UINT16 kUnitPicas = 1u << TWUN_PICAS;
constexpr TW_UINT16 kUnitPoints = 1u << TWUN_POINTS;
constexpr TW_UINT16 kUnitTwips = 1u << TWUN_TWIPS;
constexpr TW_UINT16 kUnitPixels = 1u << TWUN_PIXELS;

// Units of the unit flag `unitFlag` in one inch; pixels count by `resolution` (1 when it is not positive), and a flag
// of no known unit (inches among them) by 1.
inline double UnitsPerInch(WORD unitFlag, short resolution) {
    switch (unitFlag) {
    case kUnitCentimetres:
        return 2.54;
    case kUnitPicas:
        return 6.0;
    case kUnitPoints:
        return 72.0;
    case kUnitTwips:
        return 1440.0;
    case kUnitPixels:
        return resolution > 0 ? resolution : 1.0;
    default:
        return 1.0;
    }
}

// What a resolution in the unit of `unitFlag` is multiplied by to be reported: 1/2.54, 1/6, 1/72 and 1/1440 for
// centimetres, picas, points and twips; 1 for inches, pixels and any unknown flag.
inline double ResolutionFactor(WORD unitFlag) {
    switch (unitFlag) {
    case kUnitCentimetres:
        return 0.39370078740157477;
    case kUnitPicas:
        return 1.0 / 6.0;
    case kUnitPoints:
        return 1.0 / 72.0;
    case kUnitTwips:
        return 1.0 / 1440.0;
    default:
        return 1.0;
    }
}

// Containers a get accepts.
enum AcceptedContainer : unsigned {
    kAcceptOneValue = 1u << 0,
    kAcceptEnumeration = 1u << 1,
    kAcceptRange = 1u << 2,
    kAcceptAny = kAcceptOneValue | kAcceptEnumeration | kAcceptRange,
};

// Message lists of the gets: "GC, G" tries MSG_GETCURRENT then MSG_GET.
struct MessageList {
    TW_UINT16 messages[2];
    int count;
};
constexpr MessageList kCurrentThenGet = {{MSG_GETCURRENT, MSG_GET}, 2};
constexpr MessageList kGetThenCurrent = {{MSG_GET, MSG_GETCURRENT}, 2};
constexpr MessageList kGetOnly = {{MSG_GET, 0}, 1};

// What a get reads from each container it accepts, and nothing more: each flag is one codec call or a walk.
enum ReadField : unsigned {
    kReadOneValue = 1u << 0,           // ExtractOneValue
    kReadRangeCurrent = 1u << 1,       // ExtractRangeCurrent
    kReadRangeBounds = 1u << 2,        // ExtractRangeMin, ExtractRangeMax
    kReadRangeStep = 1u << 3,          // ExtractRangeStep
    kReadEnumerationCurrent = 1u << 4, // ExtractEnumerationCurrent
    kReadEnumerationWalk = 1u << 5,    // ExtractEnumerationNumItems, then ExtractEnumerationValue for each item
};
// The current value of whatever comes.
constexpr unsigned kReadCurrent = kReadOneValue | kReadRangeCurrent | kReadEnumerationCurrent;
// The current value and the bounds: a range's fields, or an enumeration's current item and a walk.
constexpr unsigned kReadCurrentAndBounds = kReadCurrent | kReadRangeBounds | kReadEnumerationWalk;
// An enumeration walked for its items, or a one-value's item.
constexpr unsigned kReadItems = kReadOneValue | kReadEnumerationWalk;

// How the items of a walk compare: FIX32 numbers as fixed-point values, integers as unsigned 32-bit words.
enum class ItemOrder { Fix32, Unsigned };

// What a get read from the container the source answered with. Fields it was not asked to read stay 0; a
// container read without its bounds (a one-value, an enumeration's current item alone) is its own minimum
// and maximum.
struct CapReading {
    TW_UINT32 value;   // the item, the current item or the current value, as the codec delivers it
    TW_UINT32 minimum; // smallest item walked or range minimum
    TW_UINT32 maximum; // largest item walked or range maximum
    TW_UINT32 step;    // range step
    TW_UINT32 count;   // enumeration items walked
    TW_UINT32 codes;   // bit n set when code n (below 32) is listed
    TW_UINT16 conType;
};

// One get accessor: capability, messages, accepted containers, what is read from them, and how the reading
// becomes the application's value. `fallback` is the value reported when no attempt succeeded; `preset` the
// container type asked for.
struct GetSpec {
    TW_UINT16 cap;
    MessageList messages;
    unsigned accepted;
    unsigned reads;
    TW_UINT32 (*convert)(const CapReading &reading);
    TW_UINT32 fallback;
    ItemOrder order = ItemOrder::Unsigned;
    TW_UINT16 preset = TWON_DONTCARE16;
};

// How a set builds its container for one candidate item type; returns the codec's result.
typedef int (*ContainerBuilder)(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument);

// Build failure texts of the one-value sets; a few sets have always written "return" without the s.
inline constexpr char kOneValueBuildFailure[] = "BuildupOneValue returns failure";
inline constexpr char kOneValueBuildFailureNoS[] = "BuildupOneValue return failure";

// One set accessor: capability, candidate item types in order, the container builder, and the
// failure texts ("BuildupOneValue returns failure"; some sets spell their name otherwise).
struct SetSpec {
    TW_UINT16 cap;
    TW_UINT16 itemTypes[3];
    int itemTypeCount;
    ContainerBuilder build;
    const char *buildFailure;
    const char *failureName; // null: the method's own name
};

// The argument of a one-value set: FIX32 candidates take FloatToFIX32 of `number` (narrowed to single
// precision), every other candidate the 32-bit `word` unchanged.
struct OneValueArgument {
    TW_UINT32 word;
    double number;
};
int BuildOneValue(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument);

// The argument of a list set: packed items of the candidate's size.
struct ListArgument {
    const void *items;
    TW_UINT32 count;
};
// An enumeration of the list, current and default index 0.
int BuildEnumerationList(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument);
// An array of the list.
int BuildArrayList(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument);

// A FIX32 number sent once as a one-value.
constexpr SetSpec Fix32Set(TW_UINT16 cap, const char *buildFailure = kOneValueBuildFailure) {
    return {cap, {TWTY_FIX32}, 1, BuildOneValue, buildFailure, nullptr};
}

// A code, or a list of codes, sent as UINT16, then INT16, then BOOL until the source takes one.
constexpr SetSpec CodeSet(TW_UINT16 cap, ContainerBuilder build = BuildOneValue,
                          const char *buildFailure = kOneValueBuildFailure, const char *failureName = nullptr) {
    return {cap, {TWTY_UINT16, TWTY_INT16, TWTY_BOOL}, 3, build, buildFailure, failureName};
}

// A TW_FIX32 delivered by the codec in a 32-bit cell, as a number.
double Fix32Value(TW_UINT32 bits);

// The reading's value as it stands.
TW_UINT32 AsIs(const CapReading &reading);
// The largest item walked (the item itself for a container read without a walk).
TW_UINT32 LargestItem(const CapReading &reading);

// A one-value answer, current value first.
constexpr GetSpec OneValueGet(TW_UINT16 cap) {
    return {cap, kCurrentThenGet, kAcceptOneValue, kReadOneValue, AsIs, 0};
}

// A code, current value first: a one-value's item or an enumeration's current item, converted.
constexpr GetSpec CodeGet(TW_UINT16 cap, TW_UINT32 (*convert)(const CapReading &), TW_UINT32 fallback) {
    return {cap, kCurrentThenGet, kAcceptEnumeration | kAcceptOneValue, kReadCurrent, convert, fallback};
}

// The codes an enumeration lists, walked with MSG_GET alone; nothing else is accepted.
constexpr GetSpec ListGet(TW_UINT16 cap, TW_UINT32 (*convert)(const CapReading &)) {
    return {cap, kGetOnly, kAcceptEnumeration, kReadEnumerationWalk, convert, 0};
}

// Flag 2 to the power n for TWAIN code n, and back: the exact bit position of a single-bit flag,
// or -1 for zero or several bits.
TW_UINT32 CodeToFlag(TW_UINT32 code);
int FlagToCode(TW_UINT32 flag);
