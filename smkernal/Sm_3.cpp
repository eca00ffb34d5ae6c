// The source's brightness range, and the settings exchanged on the application's own scale (brightness, contrast,
// highlight, shadow, threshold).
#include "ScanModule.h"
#include "Utility.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_3");
const char kBadRange[] = "Bad range setting, minRange == maxRange,";
// The contrast setter has always spelt its range warning so.
const char kBadRangeContrast[] = "Bas range setting, minRange == maxRange,";
constexpr double kNoMinimumYet = 99999999.0;
constexpr double kNoMaximumYet = -99999999.0;

constexpr GetSpec kScaledGet(TW_UINT16 cap) {
    return {cap, kCurrentThenGet, kAcceptAny, AsIs, 0};
}

constexpr SetSpec kScaledSet(TW_UINT16 cap, const char *buildFailure = "BuildupOneValue returns failure") {
    return {cap, {TWTY_FIX32}, 1, BuildOneValue, buildFailure, nullptr};
}

constexpr GetSpec kBrightnessRange = {ICAP_BRIGHTNESS, kGetThenCurrent, kAcceptAny, AsIs, 0};
constexpr SetSpec kBrightnessSet = kScaledSet(ICAP_BRIGHTNESS);
constexpr SetSpec kContrastSet = kScaledSet(ICAP_CONTRAST);
constexpr SetSpec kHighlightSet = kScaledSet(ICAP_HIGHLIGHT);
constexpr SetSpec kShadowSet = kScaledSet(ICAP_SHADOW, "BuildupOneValue return failure");
constexpr SetSpec kThresholdSet = kScaledSet(ICAP_THRESHOLD);

// The application passes its scale as 16-bit values in 32-bit words.
short Low16(LONG value) {
    return static_cast<short>(value);
}

} // namespace

LONG TScanModule::GetDSBrightnessRange() {
    TraceCall call(kSource, "GetDSBrightnessRange", __LINE__, __LINE__);
    CapReading reading;
    LONG result = 0;
    const Outcome outcome = ReadCapability(call, kBrightnessRange, reading, result);
    if (outcome == Outcome::NotAsked) {
        if (result == -1)
            brightnessMin = -1000.0, brightnessMax = 1000.0, brightnessStep = 1.0;
        return result;
    }
    if (outcome == Outcome::Read && reading.conType == TWON_RANGE) {
        brightnessMin = Fix32Value(reading.minimum);
        brightnessMax = Fix32Value(reading.maximum);
        brightnessStep = Fix32Value(reading.step);
    } else if (outcome == Outcome::Read && reading.conType == TWON_ENUMERATION) {
        // The items bound the range; the step stays as it was.
        brightnessMin = reading.count ? Fix32Value(reading.minimum) : kNoMinimumYet;
        brightnessMax = reading.count ? Fix32Value(reading.maximum) : kNoMaximumYet;
    }
    if (brightnessMin == brightnessMax) {
        call.Warn(__LINE__, "MinDSBrightnessRange == MaxDSBrightnessRange");
        brightnessMin = -1000.0, brightnessMax = 1000.0;
        result = TWCC_BADVALUE;
    }
    if (brightnessStep == 0.0) {
        call.Warn(__LINE__, "BrightnessStepSize == 0");
        brightnessStep = 1.0;
    }
    return result;
}

// Reads the source's value and maps it onto the application's scale, rounding half up.
LONG TScanModule::GetRangeScaled(const TraceCall &call, TW_UINT16 cap, double dsMin, double dsMax, short *value,
                                 LONG appMin, LONG appMax) {
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    const short low = Low16(appMin), high = Low16(appMax);
    if (low == high) {
        call.Warn(__LINE__, kBadRange);
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
        call.Warn(__LINE__, badRange);
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
