// Paper size, transfer mechanism and count, and resolution.
#include <vector>

#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_6");
constexpr TW_UINT32 kLastPaperSize = 8;
constexpr WORD kPaperNone = 1u << TWSS_NONE;
// Sizes 0 to 6 and 8 are reported in the supported list; 7 never is.
constexpr TW_UINT32 kReportedPaperSizes = 0x17F;

TW_UINT32 PaperSizeFlag(const CapReading &reading) {
    return reading.value <= kLastPaperSize ? CodeToFlag(reading.value) : kPaperNone;
}

TW_UINT32 MechanismFlag(const CapReading &reading) {
    return CodeToFlag(reading.value);
}

TW_UINT32 ReportedPaperSizes(const CapReading &reading) {
    return reading.codes & kReportedPaperSizes;
}

constexpr GetSpec kPaperSize = CodeGet(ICAP_SUPPORTEDSIZES, PaperSizeFlag, kPaperNone);
constexpr GetSpec kSupportedPaperSizes = ListGet(ICAP_SUPPORTEDSIZES, ReportedPaperSizes);
constexpr GetSpec kMechanism = CodeGet(ICAP_XFERMECH, MechanismFlag, kMechMemory);
constexpr GetSpec kTransferCount = CodeGet(CAP_XFERCOUNT, AsIs, 0);

constexpr SetSpec kPaperSizeSet = CodeSet(ICAP_SUPPORTEDSIZES);
constexpr SetSpec kMechanismSet = CodeSet(ICAP_XFERMECH);
constexpr SetSpec kSupportedPaperSizesSet =
    CodeSet(ICAP_SUPPORTEDSIZES, BuildEnumerationList, "BuildupEnumeration returns failure");
constexpr SetSpec kTransferCountSet = {
    CAP_XFERCOUNT, {TWTY_INT16, TWTY_UINT16, TWTY_BOOL}, 3, BuildOneValue, kOneValueBuildFailure, nullptr};
constexpr SetSpec kXResolutionSet = Fix32Set(ICAP_XRESOLUTION);
constexpr SetSpec kYResolutionSet = Fix32Set(ICAP_YRESOLUTION);

// Current value and bounds: a range's fields, or an enumeration's current item and its items walked.
constexpr GetSpec kResolution(TW_UINT16 cap) {
    return {cap, kGetThenCurrent, kAcceptAny, kReadCurrentAndBounds, AsIs, 0, ItemOrder::Fix32};
}

// A resolution times the factor of the source's unit. The factor divides rather than converts a per-unit density;
// applications rely on these numbers as they are.
short Scaled(TW_UINT32 bits, double factor) {
    return static_cast<short>(static_cast<int>(Fix32Value(bits) * factor));
}

} // namespace

LONG TScanModule::GetPaperSize(WORD *flag) {
    TraceCall call(kSource, "GetPaperSize", __LINE__, __LINE__);
    return GetValue(call, kPaperSize, flag, sizeof *flag);
}

// A flag that is not a single known size sends TWSS_NONE.
LONG TScanModule::SetPaperSize(LONG flag) {
    TraceCall call(kSource, "SetPaperSize", __LINE__, __LINE__);
    const int code = FlagToCode(static_cast<TW_UINT32>(flag));
    const bool known = code >= 0 && static_cast<TW_UINT32>(code) <= kLastPaperSize;
    return SetOne(call, kPaperSizeSet, known ? code : TWSS_NONE);
}

LONG TScanModule::GetSupportedPaperSize(WORD *flags) {
    TraceCall call(kSource, "GetSupportedPaperSize", __LINE__, __LINE__);
    return GetValue(call, kSupportedPaperSizes, flags, sizeof *flags);
}

LONG TScanModule::SetSupportedPaperSize(LONG flags) {
    TraceCall call(kSource, "SetSupportedPaperSize", __LINE__, __LINE__);
    std::vector<TW_UINT16> codes;
    for (TW_UINT16 code = 0; code <= kLastPaperSize; ++code)
        if (static_cast<TW_UINT32>(flags) & (1u << code))
            codes.push_back(code);
    const ListArgument list = {codes.data(), static_cast<TW_UINT32>(codes.size())};
    return SetCapability(call, kSupportedPaperSizesSet, &list);
}

LONG TScanModule::GetXferMech(WORD *flag) {
    TraceCall call(kSource, "GetXferMech", __LINE__, __LINE__);
    return GetValue(call, kMechanism, flag, sizeof *flag);
}

// A flag that is not one of the three mechanisms is refused with 10 before anything is sent.
LONG TScanModule::SetXferMech(LONG flag) {
    TraceCall call(kSource, "SetXferMech", __LINE__, __LINE__);
    const int code = FlagToCode(static_cast<TW_UINT32>(flag));
    if (code < TWSX_NATIVE || code > TWSX_MEMORY) {
        LONG result = 0;
        return AccessorReady(call, result) ? TWCC_BADVALUE : result;
    }
    return SetOne(call, kMechanismSet, static_cast<TW_UINT32>(code));
}

LONG TScanModule::GetXferCount(short *count) {
    TraceCall call(kSource, "GetXferCount", __LINE__, __LINE__);
    return GetValue(call, kTransferCount, count, sizeof *count);
}

LONG TScanModule::SetXferCount(LONG count) {
    TraceCall call(kSource, "SetXferCount", __LINE__, __LINE__);
    return SetOne(call, kTransferCountSet, static_cast<TW_UINT32>(count));
}

// Current, minimum and maximum resolution, each times the factor of the source's unit.
LONG TScanModule::GetResolution(const TraceCall &call, TW_UINT16 cap, short *current, short *minimum, short *maximum) {
    CapReading reading;
    LONG result = 0;
    if (ReadCapability(call, kResolution(cap), reading, result) == Outcome::NotAsked)
        return result;
    WORD unit = kUnitInches;
    GetUnit(&unit);
    const double factor = ResolutionFactor(unit);
    *current = Scaled(reading.value, factor);
    *minimum = Scaled(reading.minimum, factor);
    *maximum = Scaled(reading.maximum, factor);
    return result;
}

LONG TScanModule::GetXResolution(short *current, short *minimum, short *maximum) {
    TraceCall call(kSource, "GetXResolution", __LINE__, __LINE__);
    return GetResolution(call, ICAP_XRESOLUTION, current, minimum, maximum);
}

LONG TScanModule::SetXResolution(LONG dpi) {
    TraceCall call(kSource, "SetXResolution", __LINE__, __LINE__);
    return SetOne(call, kXResolutionSet, 0, static_cast<double>(dpi));
}

LONG TScanModule::GetYResolution(short *current, short *minimum, short *maximum) {
    TraceCall call(kSource, "GetYResolution", __LINE__, __LINE__);
    return GetResolution(call, ICAP_YRESOLUTION, current, minimum, maximum);
}

LONG TScanModule::SetYResolution(LONG dpi) {
    TraceCall call(kSource, "SetYResolution", __LINE__, __LINE__);
    return SetOne(call, kYResolutionSet, 0, static_cast<double>(dpi));
}

// A trial set that is always undone: 0 when the source takes both resolutions.
LONG TScanModule::IsThisDPIAvailable(LONG x, LONG y) {
    TraceCall call(kSource, "IsThisDPIAvailable", __LINE__, __LINE__);
    if (!Available(call, __LINE__))
        return kNotAvailable;
    short savedX = 0, savedY = 0, minimum = 0, maximum = 0;
    GetXResolution(&savedX, &minimum, &maximum);
    GetYResolution(&savedY, &minimum, &maximum);
    LONG result = SetXResolution(x);
    if (result != 0) {
        call.Warn(__LINE__, "SetXResolution returns failure");
    } else {
        result = SetYResolution(y);
        if (result != 0)
            call.Warn(__LINE__, "SetYResolution returns failure");
    }
    SetXResolution(savedX);
    SetYResolution(savedY);
    return result;
}
