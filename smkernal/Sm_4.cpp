// Capability negotiation: the negotiation call, the get and set patterns, and the tone, feeder and mode settings.
#include <cstring>

#include "ScanModule.h"
#include "Utility.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_4");

// The answer of an on/off capability: one-values only, current value first.
constexpr GetSpec kOnOff(TW_UINT16 cap) {
    return {cap, kCurrentThenGet, kAcceptOneValue, AsIs, 0};
}

// Sources that refuse BOOL items for an on/off setting are asked again with UINT16, then INT16.
constexpr SetSpec kOnOffSet(TW_UINT16 cap) {
    return {cap, {TWTY_BOOL, TWTY_UINT16, TWTY_INT16}, 3, BuildOneValue, "BuildupOneValue returns failure", nullptr};
}

// Asked for a one-value, and a second time with message code 0 when the first ask fails.
constexpr GetSpec kUIControllable = {CAP_UICONTROLLABLE, {{MSG_GET, 0}, 2}, kAcceptOneValue, AsIs, 0, TWON_ONEVALUE};
constexpr GetSpec kFeederEnabled = kOnOff(CAP_FEEDERENABLED);
constexpr GetSpec kFeederLoaded = kOnOff(CAP_FEEDERLOADED);
constexpr GetSpec kThumbnails = kOnOff(CAP_THUMBNAILSENABLED);
constexpr GetSpec kGamma = {ICAP_GAMMA, kCurrentThenGet, kAcceptOneValue, AsIs, 0};
constexpr SetSpec kFeederEnabledSet = kOnOffSet(CAP_FEEDERENABLED);
constexpr SetSpec kIndicatorsSet = kOnOffSet(CAP_INDICATORS);
constexpr SetSpec kAutoFeedSet = kOnOffSet(CAP_AUTOFEED);
constexpr SetSpec kThumbnailsSet = kOnOffSet(CAP_THUMBNAILSENABLED);
constexpr SetSpec kLightPathSet = {ICAP_LIGHTPATH, {TWTY_UINT16}, 1, BuildOneValue, "BuildupOneValue returns failure",
                                   nullptr};
constexpr SetSpec kGammaSet = {ICAP_GAMMA, {TWTY_FIX32}, 1, BuildOneValue, "BuildupOneValue returns failure", nullptr};

int ReadItem(TW_CAPABILITY &capability, TW_UINT32 index, TW_UINT32 &item) {
    return ExtractEnumerationValue(&capability, &item, static_cast<TW_INT32>(index));
}

// Numbers compare as the source means them: FIX32 items by value, and small integers come out the
// same through the FIX32 reading (their low word is the whole part).
bool Below(TW_UINT32 a, TW_UINT32 b) {
    return Fix32Value(a) < Fix32Value(b);
}

// Reads the accepted container into `reading`; the codec's result (0 when all was read).
int Read(TW_CAPABILITY &capability, CapReading &reading) {
    reading = CapReading{};
    reading.conType = capability.ConType;
    int result = 0;
    switch (capability.ConType) {
    case TWON_ONEVALUE:
        result = ExtractOneValue(&capability, &reading.value);
        reading.minimum = reading.maximum = reading.value;
        if (result == 0 && reading.value < 32)
            reading.codes = 1u << reading.value;
        break;
    case TWON_RANGE:
        result = ExtractRangeCurrent(&capability, &reading.value);
        if (result == 0)
            result = ExtractRangeMin(&capability, &reading.minimum);
        if (result == 0)
            result = ExtractRangeMax(&capability, &reading.maximum);
        if (result == 0)
            result = ExtractRangeStep(&capability, &reading.step);
        break;
    default: {
        result = ExtractEnumerationCurrent(&capability, &reading.value);
        if (result == 0)
            result = ExtractEnumerationNumItems(&capability, &reading.count);
        for (TW_UINT32 i = 0; result == 0 && i < reading.count; ++i) {
            TW_UINT32 item = 0;
            result = ReadItem(capability, i, item);
            if (i == 0 || Below(item, reading.minimum))
                reading.minimum = item;
            if (i == 0 || Below(reading.maximum, item))
                reading.maximum = item;
            if (item < 32)
                reading.codes |= 1u << item;
        }
        break;
    }
    }
    return result;
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
    return reading.conType == TWON_ENUMERATION ? reading.maximum : reading.value;
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
    const TW_UINT16 rc =
        CallDsm(&sourceIdentity, DG_CONTROL, DAT_CAPABILITY, static_cast<TW_UINT16>(message), capability);
    if (rc != TWRC_SUCCESS || message != MSG_SET || !capability || capability->Cap != ICAP_XFERMECH)
        return rc;
    call.NoteIn(__LINE__, "Especially processing MSG_SET/ICAP_XFERMECH");
    // The mechanism just set, from the caller's own container; any other container means file.
    TW_UINT32 mechanism = TWSX_FILE;
    if (capability->ConType == TWON_ENUMERATION)
        ExtractEnumerationCurrent(capability, &mechanism);
    else if (capability->ConType == TWON_ONEVALUE)
        ExtractOneValue(capability, &mechanism);
    transferMechanism = mechanism == TWSX_NATIVE ? kMechNative : mechanism == TWSX_FILE ? kMechFile : kMechMemory;
    return rc;
}

bool TScanModule::AccessorReady(const TraceCall &call, LONG &result) {
    if (!Available(call, __LINE__)) {
        result = -1;
        return false;
    }
    if (sessionState < kStateSourceOpen) {
        call.Warn(__LINE__, "Sequence error");
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
            call.Warn(__LINE__, "CapNegotiate returns failure");
            result = GetTWAINStatusCode();
            continue;
        }
        if (!Accepts(accessor, capability.ConType)) {
            call.Warn(__LINE__, "Invalid container type");
            GlobalFree(capability.hContainer);
            result = TWCC_BADVALUE;
            continue;
        }
        // A container the codec cannot read (unknown item type, too short for what it claims) is
        // refused like a container of the wrong type.
        result = Read(capability, reading);
        GlobalFree(capability.hContainer);
        if (result == 0)
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
            call.WarnAs(__LINE__, accessor.buildFailure, name);
            return built;
        }
        if (CapNegotiate(MSG_SET, &capability) != TWRC_SUCCESS) {
            call.WarnAs(__LINE__, "CapNegotiate returns failure", name);
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
