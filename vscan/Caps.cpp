// Capabilities: the description table, containers built and read, and negotiation written once for all of them.
#include "Caps.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vscan {

namespace {

enum CapFlags : unsigned {
    kReadOnly = 1, // MSG_SET refused
    kSnap = 2,     // a value between supported ones is moved to the nearest, with TWRC_CHECKSTATUS
    kSetEnum = 4,  // MSG_SET also takes an enumeration (a constraint)
    kSetArray = 8, // MSG_SET takes an array (the value is a list)
    kNoZero = 16,  // 0 is not a value (CAP_XFERCOUNT)
    kList = 32,    // the value is a list (answered whole in arrays)
};

// One capability: its item type, natural MSG_GET container, values (a list, or a range when `list` is empty).
struct CapDesc {
    TW_UINT16 cap;
    TW_UINT16 itemType;
    TW_UINT16 container;
    std::vector<double> list;
    double min, max, step;
    double def;
    unsigned flags;
};

// The values a capability offers now: a list or a range.
struct Domain {
    std::vector<double> list;
    double min = 0, max = 0, step = 1;
    bool IsRange() const { return list.empty(); }
};

constexpr double kNoRange = 0;
constexpr int kMaxListed = 256; // a range enumerates at most this many items
constexpr double kCentimetresPerInch = 2.54;
constexpr double kPicasPerInch = 6;
constexpr double kPointsPerInch = 72;
constexpr double kTwipsPerInch = 1440;
constexpr double kMillimetresPerInch = 25.4;

const std::vector<CapDesc> &Table() {
    static const std::vector<CapDesc> table = {
        {CAP_XFERCOUNT, TWTY_INT16, TWON_ONEVALUE, {}, -1, 32767, 1, -1, kNoZero},
        {CAP_SUPPORTEDCAPS, TWTY_UINT16, TWON_ARRAY, {}, 0, 0, 1, 0, kReadOnly | kList},
        {CAP_UICONTROLLABLE, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 1, kReadOnly},
        {CAP_FEEDERENABLED, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 0, 0},
        {CAP_FEEDERLOADED, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 0, kReadOnly},
        {CAP_AUTOFEED, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 1, 0},
        {CAP_INDICATORS, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 1, 0},
        {CAP_THUMBNAILSENABLED, TWTY_BOOL, TWON_ONEVALUE, {0, 1}, kNoRange, kNoRange, 1, 0, 0},
        {ICAP_COMPRESSION, TWTY_UINT16, TWON_ENUMERATION, {TWCP_NONE}, kNoRange, kNoRange, 1, TWCP_NONE, kSetEnum},
        {ICAP_UNITS,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWUN_INCHES, TWUN_CENTIMETERS, TWUN_PICAS, TWUN_POINTS, TWUN_TWIPS, TWUN_PIXELS},
         kNoRange,
         kNoRange,
         1,
         TWUN_INCHES,
         kSetEnum},
        {ICAP_PIXELTYPE,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWPT_BW, TWPT_GRAY, TWPT_RGB, TWPT_PALETTE},
         kNoRange,
         kNoRange,
         1,
         TWPT_RGB,
         kSetEnum},
        {ICAP_BITDEPTH, TWTY_UINT16, TWON_ENUMERATION, {24, 48}, kNoRange, kNoRange, 1, 24, kSetEnum},
        {ICAP_XFERMECH,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWSX_NATIVE, TWSX_FILE, TWSX_MEMORY},
         kNoRange,
         kNoRange,
         1,
         TWSX_NATIVE,
         kSetEnum},
        {ICAP_PLANARCHUNKY,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWPC_CHUNKY, TWPC_PLANAR},
         kNoRange,
         kNoRange,
         1,
         TWPC_CHUNKY,
         kSetEnum},
        {ICAP_XRESOLUTION,
         TWTY_FIX32,
         TWON_ENUMERATION,
         {50, 75, 100, 150, 200, 300, 400, 600},
         kNoRange,
         kNoRange,
         1,
         100,
         kSnap | kSetEnum},
        {ICAP_YRESOLUTION,
         TWTY_FIX32,
         TWON_ENUMERATION,
         {50, 75, 100, 150, 200, 300, 400, 600},
         kNoRange,
         kNoRange,
         1,
         100,
         kSnap | kSetEnum},
        {ICAP_XSCALING, TWTY_FIX32, TWON_RANGE, {}, 0.25, 4, 0.25, 1, kSnap},
        {ICAP_YSCALING, TWTY_FIX32, TWON_RANGE, {}, 0.25, 4, 0.25, 1, kSnap},
        {ICAP_BRIGHTNESS, TWTY_FIX32, TWON_RANGE, {}, -1000, 1000, 1, 0, kSnap},
        {ICAP_CONTRAST, TWTY_FIX32, TWON_RANGE, {}, -1000, 1000, 1, 0, kSnap},
        {ICAP_HIGHLIGHT, TWTY_FIX32, TWON_RANGE, {}, 0, 255, 1, 255, kSnap},
        {ICAP_SHADOW, TWTY_FIX32, TWON_RANGE, {}, 0, 255, 1, 0, kSnap},
        {ICAP_THRESHOLD, TWTY_FIX32, TWON_RANGE, {}, 0, 255, 1, 128, kSnap},
        {ICAP_GAMMA, TWTY_FIX32, TWON_RANGE, {}, 0.5, 4, 0.25, 1, kSnap},
        {ICAP_PHYSICALWIDTH, TWTY_FIX32, TWON_ONEVALUE, {kBedWidth}, kNoRange, kNoRange, 1, kBedWidth, kReadOnly},
        {ICAP_PHYSICALHEIGHT, TWTY_FIX32, TWON_ONEVALUE, {kBedHeight}, kNoRange, kNoRange, 1, kBedHeight, kReadOnly},
        {ICAP_SUPPORTEDSIZES,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWSS_NONE, TWSS_A4LETTER, TWSS_B5LETTER, TWSS_USLETTER, TWSS_USLEGAL, TWSS_A5, TWSS_B6},
         kNoRange,
         kNoRange,
         1,
         TWSS_NONE,
         kSetEnum},
        {ICAP_LIGHTPATH,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWLP_REFLECTIVE, TWLP_TRANSMISSIVE},
         kNoRange,
         kNoRange,
         1,
         TWLP_REFLECTIVE,
         kSetEnum},
        {ICAP_PIXELFLAVOR,
         TWTY_UINT16,
         TWON_ENUMERATION,
         {TWPF_CHOCOLATE, TWPF_VANILLA},
         kNoRange,
         kNoRange,
         1,
         TWPF_CHOCOLATE,
         kSetEnum},
        {ICAP_IMAGEDATASET, TWTY_UINT32, TWON_ARRAY, {}, 1, 1, 1, 1, kSetArray | kList},
    };
    return table;
}

const CapDesc *Find(TW_UINT16 cap) {
    for (const CapDesc &desc : Table())
        if (desc.cap == cap)
            return &desc;
    return nullptr;
}

// --- Values of one capability, with the few that depend on others. They are kept in the scanner's own units
// (resolutions in dots per inch) and converted where an application gives or reads them.

// Its own values, or those VscanSetValues gave, without a constraint.
Domain OwnDomain(const Source &s, const CapDesc &desc) {
    Domain domain;
    domain.list = desc.list;
    domain.min = desc.min;
    domain.max = desc.max;
    domain.step = desc.step;
    switch (desc.cap) {
    case ICAP_BITDEPTH:
        domain.list = BitDepthsFor(static_cast<int>(CapValue(s, ICAP_PIXELTYPE)));
        break;
    case ICAP_IMAGEDATASET:
        domain.max = std::max(1, s.pages);
        break;
    case CAP_SUPPORTEDCAPS:
        domain.list.clear();
        for (TW_UINT16 cap : SupportedCaps())
            domain.list.push_back(cap);
        break;
    case ICAP_PHYSICALWIDTH:
        domain.list = {InchesToUnits(s, kBedWidth, false)};
        break;
    case ICAP_PHYSICALHEIGHT:
        domain.list = {InchesToUnits(s, kBedHeight, true)};
        break;
    default:
        break;
    }
    auto answer = s.answers.find(desc.cap);
    if (answer != s.answers.end() && !answer->second.values.empty())
        domain.list = answer->second.values;
    return domain;
}

// The values offered now: its own, narrowed by a constraint set with an enumeration.
Domain DomainOf(const Source &s, const CapDesc &desc) {
    Domain domain = OwnDomain(s, desc);
    auto state = s.caps.find(desc.cap);
    if (state != s.caps.end() && !state->second.allowed.empty())
        domain.list = state->second.allowed;
    return domain;
}

std::vector<double> DefaultOf(const Source &s, const CapDesc &desc) {
    switch (desc.cap) {
    case ICAP_BITDEPTH:
        return {BitDepthsFor(static_cast<int>(CapValue(s, ICAP_PIXELTYPE))).front()};
    case ICAP_IMAGEDATASET: {
        std::vector<double> all;
        for (int page = 1; page <= s.pages; ++page)
            all.push_back(page);
        return all;
    }
    case CAP_FEEDERLOADED: // a status: its default is what it is
        return {s.sheetsLeft > 0 ? 1.0 : 0.0};
    case CAP_SUPPORTEDCAPS:
    case ICAP_PHYSICALWIDTH:
    case ICAP_PHYSICALHEIGHT:
        return DomainOf(s, desc).list;
    default:
        return {desc.def};
    }
}

std::vector<double> CurrentOf(const Source &s, const CapDesc &desc) {
    switch (desc.cap) {
    case CAP_FEEDERLOADED:
    case ICAP_PHYSICALWIDTH:
    case ICAP_PHYSICALHEIGHT:
        return DefaultOf(s, desc);
    default:
        break;
    }
    auto state = s.caps.find(desc.cap);
    if (state == s.caps.end() || state->second.current.empty())
        return DefaultOf(s, desc);
    return state->second.current;
}

// The values as an application sees them: resolutions per current unit.
double AnswerFactor(const Source &s, const CapDesc &desc) {
    return desc.cap == ICAP_XRESOLUTION || desc.cap == ICAP_YRESOLUTION ? ResolutionFactor(s) : 1;
}

std::vector<double> Scaled(std::vector<double> values, double factor) {
    for (double &value : values)
        value *= factor;
    return values;
}

Domain Scaled(Domain domain, double factor) {
    domain.list = Scaled(domain.list, factor);
    domain.min *= factor;
    domain.max *= factor;
    domain.step *= factor;
    return domain;
}

// What other values follow a set or reset of this capability, whose value was `before`: a new pixel type resets
// the bit depth (the same one again keeps it), a paper size sets the frame.
void OnChange(Source &s, TW_UINT16 cap, double before) {
    if (cap == ICAP_PIXELTYPE && CapValue(s, ICAP_PIXELTYPE) != before) {
        s.caps[ICAP_BITDEPTH] = CapState{};
    } else if (cap == ICAP_SUPPORTEDSIZES) {
        double width, height;
        if (PaperSize(static_cast<int>(CapValue(s, ICAP_SUPPORTEDSIZES)), width, height))
            s.frame = Frame{0, 0, width, height};
    }
}

// Fits a value into the domain: exact, or moved to the nearest supported one for kSnap capabilities.
bool Fit(const Domain &domain, unsigned flags, double value, double &fitted) {
    constexpr double kSame = kFix32Step;
    if ((flags & kNoZero) && value == 0)
        return false;
    if (!domain.IsRange()) {
        auto nearest = std::min_element(domain.list.begin(), domain.list.end(), [value](double a, double b) {
            return std::fabs(a - value) < std::fabs(b - value);
        });
        fitted = *nearest;
        return std::fabs(fitted - value) < kSame || (flags & kSnap);
    }
    if ((value < domain.min - kSame || value > domain.max + kSame) && !(flags & kSnap))
        return false;
    const double clamped = std::min(std::max(value, domain.min), domain.max);
    fitted = domain.min + std::round((clamped - domain.min) / domain.step) * domain.step;
    return std::fabs(fitted - value) < kSame || (flags & kSnap);
}

// --- Items in containers.

// The standard's size; a type the standard does not know is carried as a 32-bit word.
TW_UINT32 ItemSize(TW_UINT16 type) {
    const TW_UINT32 size = TW_ItemTypeSize(type);
    return size ? size : sizeof(TW_UINT32);
}

void WriteItem(void *at, TW_UINT16 type, double value) {
    const long whole = RoundHalfAway(value);
    switch (type) {
    case TWTY_INT8:
    case TWTY_UINT8:
        *static_cast<TW_UINT8 *>(at) = static_cast<TW_UINT8>(whole);
        break;
    case TWTY_INT16:
    case TWTY_UINT16:
    case TWTY_BOOL:
        *static_cast<TW_UINT16 *>(at) = static_cast<TW_UINT16>(whole);
        break;
    case TWTY_FIX32: {
        const TW_FIX32 fix = ToFix32(value);
        std::memcpy(at, &fix, sizeof fix);
        break;
    }
    case TWTY_INT32:
    case TWTY_UINT32:
        *static_cast<TW_UINT32 *>(at) = static_cast<TW_UINT32>(whole);
        break;
    default:
        std::memset(at, 0, ItemSize(type)); // frames and strings carry no number here
        break;
    }
}

double ReadItem(const void *at, TW_UINT16 type) {
    switch (type) {
    case TWTY_INT8:
        return *static_cast<const TW_INT8 *>(at);
    case TWTY_UINT8:
        return *static_cast<const TW_UINT8 *>(at);
    case TWTY_INT16:
        return *static_cast<const TW_INT16 *>(at);
    case TWTY_UINT16:
    case TWTY_BOOL:
        return *static_cast<const TW_UINT16 *>(at);
    case TWTY_INT32:
        return *static_cast<const TW_INT32 *>(at);
    case TWTY_UINT32:
        return *static_cast<const TW_UINT32 *>(at);
    case TWTY_FIX32: {
        TW_FIX32 fix;
        std::memcpy(&fix, at, sizeof fix);
        return FromFix32(fix);
    }
    default:
        return 0;
    }
}

TW_UINT32 Slot(TW_UINT16 type, double value) {
    TW_UINT32 slot = 0;
    WriteItem(&slot, type, value);
    return slot;
}

// The items an enumeration or array lists for a domain; a long range lists its ends, default and current.
std::vector<double> Listing(const Domain &domain, double current, double def, unsigned flags) {
    if (!domain.IsRange())
        return domain.list;
    std::vector<double> items;
    const double count = std::floor((domain.max - domain.min) / domain.step) + 1;
    if (count <= kMaxListed) {
        for (int i = 0; i < count; ++i)
            items.push_back(domain.min + i * domain.step);
    } else {
        items = {domain.min, def, current, domain.max};
        std::sort(items.begin(), items.end());
        items.erase(std::unique(items.begin(), items.end()), items.end());
    }
    if (flags & kNoZero)
        items.erase(std::remove(items.begin(), items.end(), 0.0), items.end());
    return items;
}

TW_UINT32 IndexOf(const std::vector<double> &items, double value) {
    TW_UINT32 best = 0;
    for (TW_UINT32 i = 0; i < items.size(); ++i)
        if (std::fabs(items[i] - value) < std::fabs(items[best] - value))
            best = i;
    return best;
}

// A list domain as a range: its ends, and the smallest gap as the step.
void RangeOfList(const std::vector<double> &list, double &min, double &max, double &step) {
    min = *std::min_element(list.begin(), list.end());
    max = *std::max_element(list.begin(), list.end());
    step = max > min ? max - min : 1;
    for (size_t i = 1; i < list.size(); ++i)
        if (list[i] != list[i - 1])
            step = std::min(step, std::fabs(list[i] - list[i - 1]));
}

HGLOBAL Allocate(TW_UINT32 size) {
    return GlobalAlloc(GHND, size);
}

HGLOBAL BuildOneValue(TW_UINT16 type, double value) {
    HGLOBAL handle = Allocate(sizeof(TW_ONEVALUE));
    auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(handle));
    one->ItemType = type;
    one->Item = Slot(type, value);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL BuildEnumeration(TW_UINT16 type, const std::vector<double> &items, double current, double def) {
    const TW_UINT32 size = ItemSize(type);
    HGLOBAL handle = Allocate(offsetof(TW_ENUMERATION, ItemList) + size * std::max<size_t>(items.size(), 1));
    auto *en = static_cast<TW_ENUMERATION *>(GlobalLock(handle));
    en->ItemType = type;
    en->NumItems = static_cast<TW_UINT32>(items.size());
    en->CurrentIndex = items.empty() ? 0 : IndexOf(items, current);
    en->DefaultIndex = items.empty() ? 0 : IndexOf(items, def);
    for (size_t i = 0; i < items.size(); ++i)
        WriteItem(en->ItemList + i * size, type, items[i]);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL BuildArray(TW_UINT16 type, const std::vector<double> &items) {
    const TW_UINT32 size = ItemSize(type);
    HGLOBAL handle = Allocate(offsetof(TW_ARRAY, ItemList) + size * std::max<size_t>(items.size(), 1));
    auto *array = static_cast<TW_ARRAY *>(GlobalLock(handle));
    array->ItemType = type;
    array->NumItems = static_cast<TW_UINT32>(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        WriteItem(array->ItemList + i * size, type, items[i]);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL BuildRange(TW_UINT16 type, const Domain &domain, double current, double def, bool zeroStep) {
    double min = domain.min, max = domain.max, step = domain.step;
    if (!domain.IsRange())
        RangeOfList(domain.list, min, max, step);
    if (zeroStep)
        step = 0;
    HGLOBAL handle = Allocate(sizeof(TW_RANGE));
    auto *range = static_cast<TW_RANGE *>(GlobalLock(handle));
    range->ItemType = type;
    range->MinValue = Slot(type, min);
    range->MaxValue = Slot(type, max);
    range->StepSize = Slot(type, step);
    range->DefaultValue = Slot(type, def);
    range->CurrentValue = Slot(type, current);
    GlobalUnlock(handle);
    return handle;
}

double First(const std::vector<double> &values) {
    return values.empty() ? 0 : values.front();
}

// The answer of a get-like message in the container chosen for it.
HGLOBAL BuildAnswer(const Source &s, const CapDesc &desc, TW_UINT16 msg, TW_UINT16 container, TW_UINT16 type) {
    const double factor = AnswerFactor(s, desc);
    const Domain domain = Scaled(DomainOf(s, desc), factor);
    const std::vector<double> current = Scaled(CurrentOf(s, desc), factor);
    const std::vector<double> def = Scaled(DefaultOf(s, desc), factor);
    const std::vector<double> &shown = msg == MSG_GETDEFAULT ? def : current;
    switch (container) {
    case TWON_ENUMERATION:
        if (desc.flags & kList)
            return BuildEnumeration(type, shown, First(shown), First(shown));
        return BuildEnumeration(type, Listing(domain, First(current), First(def), desc.flags), First(current),
                                First(def));
    case TWON_ARRAY:
        return BuildArray(type, (desc.flags & kList) ? shown : Listing(domain, First(current), First(def), desc.flags));
    case TWON_RANGE:
        return BuildRange(type, domain, First(shown), First(def), s.faults[VSCAN_FAULT_ZERORANGESTEP] != 0);
    default:
        return BuildOneValue(type, First(shown));
    }
}

// Reads the values of a set: one value, an enumeration's items (constraint) or an array's items. False for a
// container of another kind or item type, and for one whose items would run past its block of `size` bytes.
bool ReadSet(const CapDesc &desc, TW_UINT16 setType, TW_UINT16 conType, const void *container, size_t size,
             std::vector<double> &items, TW_UINT32 &currentIndex) {
    if (size < sizeof(TW_UINT16))
        return false;
    const TW_UINT16 type = *static_cast<const TW_UINT16 *>(container);
    if (type != (setType == TWON_DONTCARE16 ? desc.itemType : setType))
        return false;
    currentIndex = 0;
    if (conType == TWON_ONEVALUE) {
        if (size < offsetof(TW_ONEVALUE, Item) + ItemSize(type))
            return false;
        items = {ReadItem(&static_cast<const TW_ONEVALUE *>(container)->Item, type)};
        return !(desc.flags & kList) || (desc.flags & kSetArray);
    }
    size_t listOffset;
    TW_UINT32 count;
    if (conType == TWON_ENUMERATION && (desc.flags & kSetEnum) && size >= offsetof(TW_ENUMERATION, ItemList)) {
        auto *en = static_cast<const TW_ENUMERATION *>(container);
        listOffset = offsetof(TW_ENUMERATION, ItemList);
        count = en->NumItems;
        currentIndex = en->CurrentIndex;
    } else if (conType == TWON_ARRAY && (desc.flags & kSetArray) && size >= offsetof(TW_ARRAY, ItemList)) {
        listOffset = offsetof(TW_ARRAY, ItemList);
        count = static_cast<const TW_ARRAY *>(container)->NumItems;
    } else {
        return false;
    }
    if (count == 0 || count > kMaxListed || currentIndex >= count || listOffset + count * ItemSize(type) > size)
        return false;
    const TW_UINT8 *list = static_cast<const TW_UINT8 *>(container) + listOffset;
    items.clear();
    for (TW_UINT32 i = 0; i < count; ++i)
        items.push_back(ReadItem(list + i * ItemSize(type), type));
    return true;
}

// Applies set values as the application gives them; false, with nothing changed, when one is not supported.
// `changed` tells that a value was moved.
bool Apply(Source &s, const CapDesc &desc, TW_UINT16 conType, std::vector<double> items, TW_UINT32 currentIndex,
           bool &changed) {
    const double factor = AnswerFactor(s, desc);
    // A constraint is taken against all values, not against an earlier one (which stays until this one fits).
    const Domain domain = Scaled(conType == TWON_ENUMERATION ? OwnDomain(s, desc) : DomainOf(s, desc), factor);
    const unsigned strict = conType == TWON_ONEVALUE ? desc.flags : desc.flags & ~kSnap;
    changed = false;
    for (double &item : items) {
        double fitted;
        if (!Fit(domain, strict, item, fitted))
            return false;
        changed = changed || std::fabs(fitted - item) >= kFix32Step;
        item = fitted / factor;
    }
    const double before = CapValue(s, desc.cap);
    CapState &state = s.caps[desc.cap];
    if (conType == TWON_ENUMERATION) {
        state.allowed = items;
        state.current = {items[currentIndex]};
    } else {
        state.current = items;
    }
    OnChange(s, desc.cap, before);
    return true;
}

// Spoils a built answer as VscanSetMalformed asks; the handle may change or become NULL.
void Malform(TW_CAPABILITY &cap, int kind) {
    constexpr TW_UINT32 kPast = 0x10000;
    if (kind == VSCAN_MALFORMED_NONE || !cap.hContainer)
        return;
    if (kind == VSCAN_MALFORMED_NULLHANDLE) {
        GlobalFree(cap.hContainer);
        cap.hContainer = nullptr;
        return;
    }
    if (kind == VSCAN_MALFORMED_SHORTBLOCK) {
        if (HGLOBAL cut = GlobalReAlloc(cap.hContainer, sizeof(TW_UINT16), GMEM_MOVEABLE))
            cap.hContainer = cut;
        return;
    }
    auto *block = static_cast<TW_UINT8 *>(GlobalLock(cap.hContainer));
    if (kind == VSCAN_MALFORMED_ITEMTYPE) {
        reinterpret_cast<TW_ONEVALUE *>(block)->ItemType = VSCAN_BAD_ITEMTYPE;
    } else if (kind == VSCAN_MALFORMED_NUMITEMS && cap.ConType == TWON_ENUMERATION) {
        reinterpret_cast<TW_ENUMERATION *>(block)->NumItems += kPast;
    } else if (kind == VSCAN_MALFORMED_NUMITEMS && cap.ConType == TWON_ARRAY) {
        reinterpret_cast<TW_ARRAY *>(block)->NumItems += kPast;
    } else if (kind == VSCAN_MALFORMED_CURRENTINDEX && cap.ConType == TWON_ENUMERATION) {
        auto *en = reinterpret_cast<TW_ENUMERATION *>(block);
        en->CurrentIndex = en->NumItems + kPast;
        en->DefaultIndex = en->NumItems + kPast;
    }
    GlobalUnlock(cap.hContainer);
}

} // namespace

int AnswerSlot(TW_UINT16 msg) {
    switch (msg) {
    case MSG_GET:
        return 0;
    case MSG_GETCURRENT:
        return 1;
    case MSG_GETDEFAULT:
        return 2;
    case MSG_RESET:
        return 3;
    default:
        return -1;
    }
}

bool IsKnownCap(TW_UINT16 cap) {
    return Find(cap) != nullptr;
}

std::vector<TW_UINT16> SupportedCaps() {
    std::vector<TW_UINT16> caps;
    for (const CapDesc &desc : Table())
        caps.push_back(desc.cap);
    return caps;
}

void ResetAnswers(Source &s) {
    s.answers.clear();
    for (const CapDesc &desc : Table())
        s.answers[desc.cap] =
            CapAnswer{{desc.container, TWON_ONEVALUE, TWON_ONEVALUE, desc.container},
                      TWON_DONTCARE16,
                      {VSCAN_MALFORMED_NONE, VSCAN_MALFORMED_NONE, VSCAN_MALFORMED_NONE, VSCAN_MALFORMED_NONE},
                      TWON_DONTCARE16,
                      {}};
}

void ResetCaps(Source &s) {
    s.caps.clear();
    for (const CapDesc &desc : Table())
        s.caps[desc.cap] = CapState{};
}

double CapValue(const Source &s, TW_UINT16 cap) {
    const CapDesc *desc = Find(cap);
    return desc ? First(CurrentOf(s, *desc)) : 0;
}

bool SetCapValue(Source &s, TW_UINT16 cap, double value) {
    const CapDesc *desc = Find(cap);
    bool changed;
    return desc && !(desc->flags & kReadOnly) &&
           Apply(s, *desc, TWON_ONEVALUE, {value * AnswerFactor(s, *desc)}, 0, changed);
}

void ForceCapValue(Source &s, TW_UINT16 cap, double value) {
    s.caps[cap].current = {value};
}

std::vector<double> CapChoices(const Source &s, TW_UINT16 cap) {
    const CapDesc *desc = Find(cap);
    if (!desc)
        return {};
    return Listing(DomainOf(s, *desc), First(CurrentOf(s, *desc)), First(DefaultOf(s, *desc)), desc->flags);
}

std::vector<double> BitDepthsFor(int pixelType) {
    switch (pixelType) {
    case TWPT_BW:
        return {1};
    case TWPT_GRAY:
        return {8, 16};
    case TWPT_PALETTE:
        return {8, 4};
    default:
        return {24, 48};
    }
}

// DG_CONTROL / DAT_CAPABILITY / MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT
TW_UINT16 CapGet(Source &s, TW_UINT16 msg, TW_CAPABILITY &cap, TW_UINT16 &cc) {
    const CapDesc *desc = Find(cap.Cap);
    if (!desc)
        return Fail(cc, TWCC_CAPUNSUPPORTED);
    const CapAnswer &answer = s.answers[cap.Cap];
    const TW_UINT16 type = answer.itemType == TWON_DONTCARE16 ? desc->itemType : answer.itemType;
    cap.ConType = answer.container[AnswerSlot(msg)];
    cap.hContainer = BuildAnswer(s, *desc, msg, cap.ConType, type);
    if (!cap.hContainer)
        return Fail(cc, TWCC_LOWMEMORY);
    Malform(cap, answer.malformed[AnswerSlot(msg)]);
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_CAPABILITY / MSG_SET
TW_UINT16 CapSet(Source &s, TW_CAPABILITY &cap, TW_UINT16 &cc) {
    const CapDesc *desc = Find(cap.Cap);
    if (!desc)
        return Fail(cc, TWCC_CAPUNSUPPORTED);
    if (desc->flags & kReadOnly)
        return Fail(cc, TWCC_CAPBADOPERATION);
    const void *container = cap.hContainer ? GlobalLock(cap.hContainer) : nullptr;
    if (!container)
        return Fail(cc, TWCC_BADVALUE);
    std::vector<double> items;
    TW_UINT32 currentIndex;
    const bool read = ReadSet(*desc, s.answers[cap.Cap].setType, cap.ConType, container, GlobalSize(cap.hContainer),
                              items, currentIndex);
    GlobalUnlock(cap.hContainer);
    bool changed = false;
    if (!read || !Apply(s, *desc, cap.ConType, items, currentIndex, changed))
        return Fail(cc, TWCC_BADVALUE);
    return changed ? TWRC_CHECKSTATUS : TWRC_SUCCESS;
}

// DG_CONTROL / DAT_CAPABILITY / MSG_RESET: refused, as MSG_SET is, for read-only capabilities.
TW_UINT16 CapReset(Source &s, TW_CAPABILITY &cap, TW_UINT16 &cc) {
    const CapDesc *desc = Find(cap.Cap);
    if (!desc)
        return Fail(cc, TWCC_CAPUNSUPPORTED);
    if (desc->flags & kReadOnly)
        return Fail(cc, TWCC_CAPBADOPERATION);
    const double before = CapValue(s, desc->cap);
    s.caps[desc->cap] = CapState{};
    OnChange(s, desc->cap, before);
    return CapGet(s, MSG_RESET, cap, cc);
}

// DG_CONTROL / DAT_CAPABILITY / MSG_QUERYSUPPORT
TW_UINT16 CapQuerySupport(Source &, TW_CAPABILITY &cap, TW_UINT16 &cc) {
    const CapDesc *desc = Find(cap.Cap);
    if (!desc)
        return Fail(cc, TWCC_CAPUNSUPPORTED);
    TW_INT32 support = TWQC_GET | TWQC_GETCURRENT | TWQC_GETDEFAULT;
    if (!(desc->flags & kReadOnly))
        support |= TWQC_SET | TWQC_RESET;
    cap.ConType = TWON_ONEVALUE;
    cap.hContainer = BuildOneValue(TWTY_INT32, support);
    return TWRC_SUCCESS;
}

double InchesToUnits(const Source &s, double inches, bool vertical) {
    switch (static_cast<int>(CapValue(s, ICAP_UNITS))) {
    case TWUN_CENTIMETERS:
        return inches * kCentimetresPerInch;
    case TWUN_PICAS:
        return inches * kPicasPerInch;
    case TWUN_POINTS:
        return inches * kPointsPerInch;
    case TWUN_TWIPS:
        return inches * kTwipsPerInch;
    case TWUN_PIXELS:
        return inches * CapValue(s, vertical ? ICAP_YRESOLUTION : ICAP_XRESOLUTION);
    default:
        return inches;
    }
}

double UnitsToInches(const Source &s, double units, bool vertical) {
    return units / InchesToUnits(s, 1.0, vertical);
}

double ResolutionFactor(const Source &s) {
    if (s.faults[VSCAN_FAULT_DPIINEVERYUNIT] || CapValue(s, ICAP_UNITS) == TWUN_PIXELS)
        return 1;
    return 1 / InchesToUnits(s, 1.0, false);
}

bool PaperSize(int size, double &width, double &height) {
    struct Paper {
        int size;
        double widthMm, heightMm;
    };
    static const Paper papers[] = {
        {TWSS_A4LETTER, 210, 297},    {TWSS_B5LETTER, 176, 250}, {TWSS_USLETTER, 215.9, 279.4},
        {TWSS_USLEGAL, 215.9, 355.6}, {TWSS_A5, 148, 210},       {TWSS_B6, 125, 176},
    };
    for (const Paper &paper : papers) {
        if (paper.size == size) {
            width = paper.widthMm / kMillimetresPerInch;
            height = paper.heightMm / kMillimetresPerInch;
            return true;
        }
    }
    return false;
}

double FromFix32(TW_FIX32 value) {
    return value.Whole + value.Frac * kFix32Step;
}

long RoundHalfAway(double value) {
    // The difference from the part toward zero is exact, so halves are told apart exactly.
    const long long whole = static_cast<long long>(value);
    const double rest = value - static_cast<double>(whole);
    if (rest >= 0.5)
        return static_cast<long>(whole + 1);
    if (rest <= -0.5)
        return static_cast<long>(whole - 1);
    return static_cast<long>(whole);
}

TW_FIX32 ToFix32(double value) {
    const TW_INT32 scaled = static_cast<TW_INT32>(RoundHalfAway(value / kFix32Step));
    TW_FIX32 fix;
    fix.Whole = static_cast<TW_INT16>(scaled >> 16);
    fix.Frac = static_cast<TW_UINT16>(scaled & 0xffff);
    return fix;
}

} // namespace vscan
