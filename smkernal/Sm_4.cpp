// Capability negotiation: the negotiation call, the get and set patterns, and the tone, feeder and mode settings.
#include <cstring>

#include "ScanModule.h"
#include "Utility.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_4");

// Sources that refuse BOOL items for an on/off setting are asked again with UINT16, then INT16.
constexpr SetSpec kOnOffSet(TW_UINT16 cap) {
    return {cap, {TWTY_BOOL, TWTY_UINT16, TWTY_INT16}, 3, BuildOneValue, kOneValueBuildFailure, nullptr};
}

// Tone settings: the current value of any container, a FIX32 on the source's range.
constexpr GetSpec kScaledGet(TW_UINT16 cap) {
    return {cap, kCurrentThenGet, kAcceptAny, kReadCurrent, AsIs, 0, ItemOrder::Fix32};
}

// Asked for a one-value, and a second time with message code 0 when the first ask fails.
constexpr GetSpec kUIControllable = {CAP_UICONTROLLABLE,  {{MSG_GET, 0}, 2}, kAcceptOneValue, kReadOneValue, AsIs, 0,
                                     ItemOrder::Unsigned, TWON_ONEVALUE};
constexpr GetSpec kFeederEnabled = OneValueGet(CAP_FEEDERENABLED);
constexpr GetSpec kFeederLoaded = OneValueGet(CAP_FEEDERLOADED);
constexpr GetSpec kThumbnails = OneValueGet(CAP_THUMBNAILSENABLED);
constexpr GetSpec kGamma = OneValueGet(ICAP_GAMMA);
constexpr SetSpec kFeederEnabledSet = kOnOffSet(CAP_FEEDERENABLED);
constexpr SetSpec kIndicatorsSet = kOnOffSet(CAP_INDICATORS);
constexpr SetSpec kAutoFeedSet = kOnOffSet(CAP_AUTOFEED);
constexpr SetSpec kThumbnailsSet = kOnOffSet(CAP_THUMBNAILSENABLED);
constexpr SetSpec kLightPathSet = {ICAP_LIGHTPATH, {TWTY_UINT16}, 1, BuildOneValue, kOneValueBuildFailure, nullptr};
constexpr SetSpec kGammaSet = Fix32Set(ICAP_GAMMA);
constexpr SetSpec kBrightnessSet = Fix32Set(ICAP_BRIGHTNESS);
constexpr SetSpec kContrastSet = Fix32Set(ICAP_CONTRAST);
constexpr SetSpec kHighlightSet = Fix32Set(ICAP_HIGHLIGHT);
constexpr SetSpec kShadowSet = Fix32Set(ICAP_SHADOW, kOneValueBuildFailureNoS);
constexpr SetSpec kThresholdSet = Fix32Set(ICAP_THRESHOLD);

const char kBadRange[] = "Bad range setting, minRange == maxRange,";
// The contrast setter has always spelt its range warning so.
const char kBadRangeContrast[] = "Bas range setting, minRange == maxRange,";

// The application passes its scale as 16-bit values in 32-bit words.
short Low16(LONG value) {
    return static_cast<short>(value);
}

// A FIX32 item (Whole in the low word, Frac in the high one) as a count of 1/65536: ordered as its value, without
// converting it to floating point.
long Fix32Steps(TW_UINT32 bits) {
    return static_cast<long>(static_cast<TW_INT16>(bits & 0xFFFF)) * 65536 + static_cast<long>(bits >> 16);
}

// Walk items compare as the source means them: FIX32 items as fixed-point numbers, integers unsigned.
bool Below(ItemOrder order, TW_UINT32 a, TW_UINT32 b) {
    return order == ItemOrder::Fix32 ? Fix32Steps(a) < Fix32Steps(b) : a < b;
}

// The codec calls of one reading. A failed call reads as its zeroed cell, unless the container runs past
// its block: then nothing more is read and the answer counts as refused.
class ContainerReader {
public:
    explicit ContainerReader(TW_CAPABILITY &capability) : capability_(capability) {}
    template <typename Extract> TW_UINT32 Take(Extract extract) {
        TW_UINT32 cell = 0;
        if (!pastBlock_ && extract(&capability_, &cell) != TWCC_SUCCESS)
            pastBlock_ = !ContainerWithinBlock(&capability_);
        return cell;
    }
    TW_UINT32 Item(TW_UINT32 index) {
        return Take([index](TW_CAPABILITY *capability, TW_UINT32 *cell) {
            return ExtractEnumerationValue(capability, cell, static_cast<TW_INT32>(index));
        });
    }
    bool PastBlock() const { return pastBlock_; }

private:
    TW_CAPABILITY &capability_;
    bool pastBlock_ = false;
};

// The count, then every item: the smallest, the largest and the codes listed.
void Walk(ContainerReader &reader, ItemOrder order, CapReading &reading) {
    reading.count = reader.Take(ExtractEnumerationNumItems);
    for (TW_UINT32 i = 0; i < reading.count && !reader.PastBlock(); ++i) {
        const TW_UINT32 item = reader.Item(i);
        if (i == 0 || Below(order, item, reading.minimum))
            reading.minimum = item;
        if (i == 0 || Below(order, reading.maximum, item))
            reading.maximum = item;
        reading.codes |= CodeToFlag(item);
    }
}

// Reads what the accessor asks for from an accepted container; false when the container runs past its block.
bool Read(TW_CAPABILITY &capability, const GetSpec &accessor, CapReading &reading) {
    const ContainerReading scope(capability);
    reading = CapReading{};
    reading.conType = capability.ConType;
    ContainerReader reader(capability);
    const unsigned reads = accessor.reads;
    bool bounds = false;
    switch (capability.ConType) {
    case TWON_ONEVALUE:
        if (reads & kReadOneValue)
            reading.value = reader.Take(ExtractOneValue);
        reading.codes = CodeToFlag(reading.value);
        break;
    case TWON_RANGE:
        if (reads & kReadRangeCurrent)
            reading.value = reader.Take(ExtractRangeCurrent);
        bounds = reads & kReadRangeBounds;
        if (bounds) {
            reading.minimum = reader.Take(ExtractRangeMin);
            reading.maximum = reader.Take(ExtractRangeMax);
        }
        if (reads & kReadRangeStep)
            reading.step = reader.Take(ExtractRangeStep);
        break;
    default:
        if (reads & kReadEnumerationCurrent)
            reading.value = reader.Take(ExtractEnumerationCurrent);
        bounds = reads & kReadEnumerationWalk;
        if (bounds)
            Walk(reader, accessor.order, reading);
        break;
    }
    if (!bounds)
        reading.minimum = reading.maximum = reading.value;
    return !reader.PastBlock();
}

bool Accepts(const GetSpec &accessor, TW_UINT16 conType) {
    switch (conType) {
    case TWON_ONEVALUE:
        return accessor.accepted & kAcceptOneValue;
    case TWON_ENUMERATION:
        return accessor.accepted & kAcceptEnumeration;
    case TWON_RANGE:
        return accessor.accepted & kAcceptRange;
    default:
        return false;
    }
}

} // namespace

int BuildOneValue(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument) {
    const OneValueArgument &value = *static_cast<const OneValueArgument *>(argument);
    if (itemType != TWTY_FIX32)
        return BuildupOneValue(&capability, itemType, value.word);
    const TW_FIX32 fixed = FloatToFIX32(static_cast<float>(value.number));
    TW_UINT32 word;
    std::memcpy(&word, &fixed, sizeof word);
    return BuildupOneValue(&capability, itemType, word);
}

int BuildEnumerationList(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument) {
    const ListArgument &list = *static_cast<const ListArgument *>(argument);
    return BuildupEnumeration(&capability, itemType, list.count, 0, 0, list.items);
}

int BuildArrayList(TW_CAPABILITY &capability, TW_UINT16 itemType, const void *argument) {
    const ListArgument &list = *static_cast<const ListArgument *>(argument);
    return BuildupArray(&capability, itemType, list.count, list.items);
}

TW_UINT32 AsIs(const CapReading &reading) {
    return reading.value;
}

double Fix32Value(TW_UINT32 bits) {
    TW_FIX32 fixed;
    std::memcpy(&fixed, &bits, sizeof fixed);
    return FIX32ToFloat(fixed);
}

TW_UINT32 LargestItem(const CapReading &reading) {
    return reading.maximum;
}

TW_UINT32 CodeToFlag(TW_UINT32 code) {
    return code < 32 ? 1u << code : 0;
}

int FlagToCode(TW_UINT32 flag) {
    if (flag == 0 || (flag & (flag - 1)) != 0)
        return -1;
    int code = 0;
    while (!(flag & 1u)) {
        flag >>= 1;
        ++code;
    }
    return code;
}

// DG_CONTROL / DAT_CAPABILITY / any message, on the open source.
TW_UINT16 TScanModule::CapNegotiate(UINT message, TW_CAPABILITY *capability) {
    TraceCall call(kSource, "CapNegotiate", __LINE__, __LINE__);
    if (!Available(call, __LINE__))
        return TWRC_FAILURE;
    // Only the low word of the message is sent, and only what is sent decides whether a mechanism was set.
    const TW_UINT16 sent = static_cast<TW_UINT16>(message);
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_CONTROL, DAT_CAPABILITY, sent, capability);
    if (rc != TWRC_SUCCESS || sent != MSG_SET || !capability || capability->Cap != ICAP_XFERMECH)
        return rc;
    call.NoteIn(__LINE__, "Especially processing MSG_SET/ICAP_XFERMECH");
    // The mechanism just set, from the caller's own container; any other container counts as memory.
    TW_UINT32 mechanism = TWSX_MEMORY;
    if (capability->ConType == TWON_ENUMERATION)
        ExtractEnumerationCurrent(capability, &mechanism);
    else if (capability->ConType == TWON_ONEVALUE)
        ExtractOneValue(capability, &mechanism);
    transferMechanism = mechanism == TWSX_NATIVE ? kMechNative : mechanism == TWSX_FILE ? kMechFile : kMechMemory;
    return rc;
}

// The patterns below write their records for the calling method, on its own line of its own file.
bool TScanModule::AccessorReady(const TraceCall &call, LONG &result) {
    if (!Available(call, call.Line())) {
        result = kNotAvailable;
        return false;
    }
    if (sessionState < kStateSourceOpen) {
        call.Warn(call.Line(), "Sequence error");
        result = TWCC_SEQERROR;
        return false;
    }
    return true;
}

// The get pattern: each message of the list until a container is accepted and read.
TScanModule::Outcome TScanModule::ReadCapability(const TraceCall &call, const GetSpec &accessor, CapReading &reading,
                                                 LONG &result) {
    if (!AccessorReady(call, result))
        return Outcome::NotAsked;
    return AskCapability(call, accessor, reading, result);
}

TScanModule::Outcome TScanModule::AskCapability(const TraceCall &call, const GetSpec &accessor, CapReading &reading,
                                                LONG &result) {
    for (int i = 0; i < accessor.messages.count; ++i) {
        TW_CAPABILITY capability = {accessor.cap, accessor.preset, nullptr};
        if (CapNegotiate(accessor.messages.messages[i], &capability) != TWRC_SUCCESS) {
            call.Warn(call.Line(), "CapNegotiate returns failure");
            result = GetTWAINStatusCode();
            continue;
        }
        if (!Accepts(accessor, capability.ConType)) {
            call.Warn(call.Line(), "Invalid container type");
            GlobalFree(capability.hContainer);
            result = TWCC_BADVALUE;
            continue;
        }
        // What the codec cannot read reads as 0, but a container that runs past its block is refused
        // like one of the wrong type (the codec has said "Invalid memory").
        const bool read = Read(capability, accessor, reading);
        GlobalFree(capability.hContainer);
        result = read ? 0 : TWCC_BADVALUE;
        if (read)
            return Outcome::Read;
    }
    reading = CapReading{};
    return Outcome::Failed;
}

LONG TScanModule::GetValue(const TraceCall &call, const GetSpec &accessor, void *output, size_t width) {
    CapReading reading;
    LONG result = 0;
    const Outcome outcome = ReadCapability(call, accessor, reading, result);
    if (outcome == Outcome::NotAsked)
        return result;
    const TW_UINT32 value = outcome == Outcome::Read ? accessor.convert(reading) : accessor.fallback;
    if (width == sizeof(WORD))
        *static_cast<WORD *>(output) = static_cast<WORD>(value);
    else
        *static_cast<DWORD *>(output) = value;
    return result;
}

// The set pattern: each candidate item type until the source takes one.
LONG TScanModule::SetCapability(const TraceCall &call, const SetSpec &accessor, const void *argument) {
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    return SendCapability(call, accessor, argument);
}

LONG TScanModule::SendCapability(const TraceCall &call, const SetSpec &accessor, const void *argument) {
    LONG result = 0;
    const char *name = accessor.failureName ? accessor.failureName : call.Method();
    for (int i = 0; i < accessor.itemTypeCount; ++i) {
        TW_CAPABILITY capability = {accessor.cap, TWON_ONEVALUE, nullptr};
        const int built = accessor.build(capability, accessor.itemTypes[i], argument);
        if (built != 0) {
            // The codec has already released whatever it allocated.
            call.WarnAs(call.Line(), accessor.buildFailure, name);
            return built;
        }
        if (CapNegotiate(MSG_SET, &capability) != TWRC_SUCCESS) {
            call.WarnAs(call.Line(), "CapNegotiate returns failure", name);
            result = GetTWAINStatusCode();
        } else {
            result = 0;
        }
        GlobalFree(capability.hContainer);
        if (result == 0)
            break;
    }
    return result;
}

LONG TScanModule::SetOne(const TraceCall &call, const SetSpec &accessor, TW_UINT32 word, double number) {
    const OneValueArgument argument = {word, number};
    return SetCapability(call, accessor, &argument);
}

LONG TScanModule::IsNonUIAvailable(LONG *result) {
    TraceCall call(kSource, "IsNonUIAvailable", __LINE__, __LINE__);
    return GetValue(call, kUIControllable, result, sizeof *result);
}

LONG TScanModule::IsADFAvailable(LONG *answer) {
    TraceCall call(kSource, "IsADFAvailable", __LINE__, __LINE__);
    return GetValue(call, kFeederEnabled, answer, sizeof *answer);
}

LONG TScanModule::IsADFPaperLoaded(LONG *answer) {
    TraceCall call(kSource, "IsADFPaperLoaded", __LINE__, __LINE__);
    return GetValue(call, kFeederLoaded, answer, sizeof *answer);
}

LONG TScanModule::GetADFEnable(LONG *answer) {
    TraceCall call(kSource, "GetADFEnable", __LINE__, __LINE__);
    return GetValue(call, kFeederEnabled, answer, sizeof *answer);
}

LONG TScanModule::SetADFEnable(LONG value) {
    TraceCall call(kSource, "SetADFEnable", __LINE__, __LINE__);
    return SetOne(call, kFeederEnabledSet, value);
}

LONG TScanModule::SetIndicatorEnable(LONG value) {
    TraceCall call(kSource, "SetIndicatorEnable", __LINE__, __LINE__);
    return SetOne(call, kIndicatorsSet, value);
}

LONG TScanModule::SetAutoFeedEnable(LONG value) {
    TraceCall call(kSource, "SetAutoFeedEnable", __LINE__, __LINE__);
    return SetOne(call, kAutoFeedSet, value);
}

LONG TScanModule::GetThumbMode(LONG *answer) {
    TraceCall call(kSource, "GetThumbMode", __LINE__, __LINE__);
    return GetValue(call, kThumbnails, answer, sizeof *answer);
}

LONG TScanModule::SetThumbMode(LONG value) {
    TraceCall call(kSource, "SetThumbMode", __LINE__, __LINE__);
    return SetOne(call, kThumbnailsSet, value);
}

LONG TScanModule::SetLightpath(LONG value) {
    TraceCall call(kSource, "SetLightpath", __LINE__, __LINE__);
    return SetOne(call, kLightPathSet, value);
}

LONG TScanModule::GetGamma(double *gamma) {
    TraceCall call(kSource, "GetGamma", __LINE__, __LINE__);
    CapReading reading;
    LONG result = 0;
    const Outcome outcome = ReadCapability(call, kGamma, reading, result);
    if (outcome != Outcome::NotAsked)
        *gamma = Fix32Value(reading.value);
    return result;
}

LONG TScanModule::SetGamma(double gamma) {
    TraceCall call(kSource, "SetGamma", __LINE__, __LINE__);
    return SetOne(call, kGammaSet, 0, gamma);
}

LONG TScanModule::GetDSProductName(char *buffer) {
    TraceCall call(kSource, "GetDSProductName", __LINE__, __LINE__);
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    lstrcpynA(buffer, sourceIdentity.ProductName, sizeof sourceIdentity.ProductName);
    return 0;
}

// Reads the source's value and maps it onto the application's scale, rounding half up.
LONG TScanModule::GetRangeScaled(const TraceCall &call, TW_UINT16 cap, double dsMin, double dsMax, short *value,
                                 LONG appMin, LONG appMax) {
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    const short low = Low16(appMin), high = Low16(appMax);
    if (low == high) {
        call.Warn(call.Line(), kBadRange);
        *value = 0;
        return TWCC_BADVALUE;
    }
    CapReading reading;
    if (AskCapability(call, kScaledGet(cap), reading, result) != Outcome::Read) {
        // Without a value from the source the midpoint of the application's scale stands.
        *value = static_cast<short>((low + high) / 2);
        return result;
    }
    const double dsValue = Fix32Value(reading.value);
    *value = static_cast<short>(static_cast<int>(low + (dsValue - dsMin) / (dsMax - dsMin) * (high - low) + 0.5));
    return result;
}

// Maps the application's value onto the source's range, snapped to the source's step from its minimum.
LONG TScanModule::SetRangeScaled(const TraceCall &call, const SetSpec &accessor, double dsMin, double dsMax,
                                 double dsStep, LONG value, LONG appMin, LONG appMax, const char *badRange) {
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    const short low = Low16(appMin), high = Low16(appMax);
    if (low == high) {
        call.Warn(call.Line(), badRange);
        return TWCC_BADVALUE;
    }
    // Adding and removing the minimum again before the division changes only the rounding.
    const double position = static_cast<double>(Low16(value) - low) / (high - low) * (dsMax - dsMin) + dsMin;
    const short steps = static_cast<short>(static_cast<int>((position - dsMin) / dsStep + 0.5));
    const OneValueArgument argument = {0, static_cast<float>(steps * dsStep + dsMin)};
    return SendCapability(call, accessor, &argument);
}

LONG TScanModule::GetBrightness(short *value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "GetBrightness", __LINE__, __LINE__);
    return GetRangeScaled(call, ICAP_BRIGHTNESS, brightnessMin, brightnessMax, value, appMin, appMax);
}

LONG TScanModule::SetBrightness(LONG value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "SetBrightness", __LINE__, __LINE__);
    return SetRangeScaled(call, kBrightnessSet, brightnessMin, brightnessMax, brightnessStep, value, appMin, appMax,
                          kBadRange);
}

LONG TScanModule::GetContrast(short *value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "GetContrast", __LINE__, __LINE__);
    return GetRangeScaled(call, ICAP_CONTRAST, contrastMin, contrastMax, value, appMin, appMax);
}

LONG TScanModule::SetContrast(LONG value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "SetContrast", __LINE__, __LINE__);
    return SetRangeScaled(call, kContrastSet, contrastMin, contrastMax, contrastStep, value, appMin, appMax,
                          kBadRangeContrast);
}

LONG TScanModule::GetHighlight(short *value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "GetHighlight", __LINE__, __LINE__);
    return GetRangeScaled(call, ICAP_HIGHLIGHT, highlightMin, highlightMax, value, appMin, appMax);
}

LONG TScanModule::SetHighlight(LONG value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "SetHighlight", __LINE__, __LINE__);
    return SetRangeScaled(call, kHighlightSet, highlightMin, highlightMax, highlightStep, value, appMin, appMax,
                          kBadRange);
}

LONG TScanModule::GetShadow(short *value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "GetShadow", __LINE__, __LINE__);
    return GetRangeScaled(call, ICAP_SHADOW, shadowMin, shadowMax, value, appMin, appMax);
}

LONG TScanModule::SetShadow(LONG value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "SetShadow", __LINE__, __LINE__);
    return SetRangeScaled(call, kShadowSet, shadowMin, shadowMax, shadowStep, value, appMin, appMax, kBadRange);
}

LONG TScanModule::SetThreshold(LONG value, LONG appMin, LONG appMax) {
    TraceCall call(kSource, "SetThreshold", __LINE__, __LINE__);
    return SetRangeScaled(call, kThresholdSet, thresholdMin, thresholdMax, thresholdStep, value, appMin, appMax,
                          kBadRange);
}
