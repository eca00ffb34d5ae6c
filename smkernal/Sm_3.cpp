// The source's brightness range, learnt when a source opens.
#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_3");
constexpr double kNoMinimumYet = 99999999.0;
constexpr double kNoMaximumYet = -99999999.0;

// A range gives its bounds and step, an enumeration is walked for its bounds, a one-value is taken but
// gives nothing.
constexpr GetSpec kBrightnessRange = {
    ICAP_BRIGHTNESS, kGetThenCurrent, kAcceptAny, kReadRangeBounds | kReadRangeStep | kReadEnumerationWalk, AsIs, 0,
    ItemOrder::Fix32};

} // namespace

LONG TScanModule::GetDSBrightnessRange() {
    TraceCall call(kSource, "GetDSBrightnessRange", __LINE__, __LINE__);
    CapReading reading;
    LONG result = 0;
    const Outcome outcome = ReadCapability(call, kBrightnessRange, reading, result);
    if (outcome == Outcome::NotAsked) {
        if (result == kNotAvailable) {
            brightnessMin = kDefaultBrightnessMin;
            brightnessMax = kDefaultBrightnessMax;
            brightnessStep = kDefaultBrightnessStep;
        }
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
        brightnessMin = kDefaultBrightnessMin;
        brightnessMax = kDefaultBrightnessMax;
        result = TWCC_BADVALUE;
    }
    if (brightnessStep == 0.0) {
        call.Warn(__LINE__, "BrightnessStepSize == 0");
        brightnessStep = kDefaultBrightnessStep;
    }
    return result;
}
