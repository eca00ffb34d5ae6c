// Unit, scan area, pixel type and flavour, bit depth and image data set.
#include <vector>

#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_5");
constexpr TW_UINT32 kLastPixelType = TWPT_CIEXYZ;
constexpr TW_UINT32 kLastUnit = TWUN_PIXELS;
constexpr WORD kPixelTypeGray = 1u << TWPT_GRAY;
// Pixel types 0 to 8 are reported in the supported list.
constexpr TW_UINT32 kReportedPixelTypes = (1u << (kLastPixelType + 1)) - 1;

TW_UINT32 UnitFlag(const CapReading &reading) {
    return reading.value <= kLastUnit ? CodeToFlag(reading.value) : kUnitInches;
}

TW_UINT32 PixelTypeFlag(const CapReading &reading) {
    return reading.value <= kLastPixelType ? CodeToFlag(reading.value) : kPixelTypeGray;
}

TW_UINT32 ReportedPixelTypes(const CapReading &reading) {
    return reading.codes & kReportedPixelTypes;
}

// A number: the one-value's item or the largest item of the enumeration walked.
constexpr GetSpec kLargestGet(TW_UINT16 cap, MessageList messages) {
    return {cap, messages, kAcceptEnumeration | kAcceptOneValue, kReadItems, LargestItem, 0, ItemOrder::Unsigned};
}

constexpr GetSpec kUnit = CodeGet(ICAP_UNITS, UnitFlag, kUnitInches);
constexpr GetSpec kPhysicalWidth = OneValueGet(ICAP_PHYSICALWIDTH);
constexpr GetSpec kPhysicalHeight = OneValueGet(ICAP_PHYSICALHEIGHT);
constexpr GetSpec kPixelFlavor = CodeGet(ICAP_PIXELFLAVOR, AsIs, 0);
constexpr GetSpec kPixelType = CodeGet(ICAP_PIXELTYPE, PixelTypeFlag, kPixelTypeGray);
constexpr GetSpec kSupportedPixelTypes = ListGet(ICAP_PIXELTYPE, ReportedPixelTypes);
constexpr GetSpec kBitDepth = kLargestGet(ICAP_BITDEPTH, kCurrentThenGet);
constexpr GetSpec kImageDataSet = kLargestGet(ICAP_IMAGEDATASET, kGetThenCurrent);

constexpr SetSpec kPixelTypeSet = CodeSet(ICAP_PIXELTYPE, BuildOneValue, kOneValueBuildFailureNoS);
constexpr SetSpec kSupportedPixelTypesSet =
    CodeSet(ICAP_PIXELTYPE, BuildEnumerationList, "BuildupEnumeration returns failure");
constexpr SetSpec kBitDepthSet = CodeSet(ICAP_BITDEPTH, BuildOneValue, kOneValueBuildFailureNoS, "SetBitDepath");
constexpr SetSpec kImageDataSetList = {
    ICAP_IMAGEDATASET, {TWTY_UINT32}, 1, BuildArrayList, "BuildupArray returns failure", nullptr};
constexpr SetSpec kImageDataSetOne = {ICAP_IMAGEDATASET, {TWTY_UINT32},         1,
                                      BuildOneValue,     kOneValueBuildFailure, nullptr};

// The 16-bit codes of the single-bit flags set, for an enumeration of supported values.
std::vector<TW_UINT16> CodesOf(TW_UINT32 flags, TW_UINT32 reported) {
    std::vector<TW_UINT16> codes;
    for (TW_UINT16 code = 0; code < 32; ++code)
        if ((flags & reported) & (1u << code))
            codes.push_back(code);
    return codes;
}

} // namespace

LONG TScanModule::GetUnit(WORD *flag) {
    TraceCall call(kSource, "GetUnit", __LINE__, __LINE__);
    return GetValue(call, kUnit, flag, sizeof *flag);
}

// The largest area the source scans, in inches: its physical width and height divided by its
// unit's measure of an inch (the X resolution for pixels). The unit and the X resolution are read
// whatever the unit.
LONG TScanModule::GetMaxArea(double *width, double *height) {
    TraceCall call(kSource, "GetMaxArea", __LINE__, __LINE__);
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    CapReading physicalWidth, physicalHeight;
    LONG widthResult = 0, heightResult = 0;
    AskCapability(call, kPhysicalWidth, physicalWidth, widthResult);
    AskCapability(call, kPhysicalHeight, physicalHeight, heightResult);
    WORD unit = kUnitInches;
    short current = 0, minimum = 0, maximum = 0;
    GetUnit(&unit);
    GetXResolution(&current, &minimum, &maximum);
    const double perInch = UnitsPerInch(unit, current);
    *width = Fix32Value(physicalWidth.value) / perInch;
    *height = Fix32Value(physicalHeight.value) / perInch;
    return widthResult != 0 ? widthResult : heightResult;
}

LONG TScanModule::GetPixelFlavor(LONG *answer) {
    TraceCall call(kSource, "GetPixelFlavor", __LINE__, __LINE__);
    return GetValue(call, kPixelFlavor, answer, sizeof *answer);
}

LONG TScanModule::GetPixelType(WORD *flag) {
    TraceCall call(kSource, "GetPixelType", __LINE__, __LINE__);
    return GetValue(call, kPixelType, flag, sizeof *flag);
}

LONG TScanModule::SetPixelType(LONG flag) {
    TraceCall call(kSource, "SetPixelType", __LINE__, __LINE__);
    const int code = FlagToCode(static_cast<TW_UINT32>(flag));
    const bool known = code >= 0 && static_cast<TW_UINT32>(code) <= kLastPixelType;
    return SetOne(call, kPixelTypeSet, known ? code : TWPT_GRAY);
}

LONG TScanModule::GetSupportedPixelType(WORD *flags) {
    TraceCall call(kSource, "GetSupportedPixelType", __LINE__, __LINE__);
    return GetValue(call, kSupportedPixelTypes, flags, sizeof *flags);
}

LONG TScanModule::SetSupportedPixelType(LONG flags) {
    TraceCall call(kSource, "SetSupportedPixelType", __LINE__, __LINE__);
    const std::vector<TW_UINT16> codes = CodesOf(static_cast<TW_UINT32>(flags), kReportedPixelTypes);
    const ListArgument list = {codes.data(), static_cast<TW_UINT32>(codes.size())};
    return SetCapability(call, kSupportedPixelTypesSet, &list);
}

LONG TScanModule::Getbitdepth(LONG *depth) {
    TraceCall call(kSource, "Getbitdepth", __LINE__, __LINE__);
    return GetValue(call, kBitDepth, depth, sizeof *depth);
}

LONG TScanModule::SetBitDepth(LONG depth) {
    TraceCall call(kSource, "SetBitDepth", __LINE__, __LINE__);
    return SetOne(call, kBitDepthSet, static_cast<TW_UINT32>(depth));
}

LONG TScanModule::GetIndex(LONG *answer) {
    TraceCall call(kSource, "GetIndex", __LINE__, __LINE__);
    return GetValue(call, kImageDataSet, answer, sizeof *answer);
}

// With a list, its leading nonzero entries (at most `count`) go as an array; without one, `count`
// goes as a one-value.
LONG TScanModule::SetIndex(LONG count, const DWORD *list) {
    TraceCall call(kSource, "SetIndex", __LINE__, __LINE__);
    if (!list)
        return SetOne(call, kImageDataSetOne, static_cast<TW_UINT32>(count));
    TW_UINT32 items = 0;
    while (static_cast<LONG>(items) < count && list[items] != 0)
        ++items;
    const ListArgument argument = {list, items};
    return SetCapability(call, kImageDataSetList, &argument);
}
