// Capabilities of the virtual scanner: one table of descriptions, and get, set, reset and unit conversions over it.
#pragma once

#include <vector>

#include "Source.h"

namespace vscan {

// Index of a get-like message in CapAnswer::container; -1 for others.
int AnswerSlot(TW_UINT16 msg);

bool IsKnownCap(TW_UINT16 cap);
std::vector<TW_UINT16> SupportedCaps();
// Answers of every capability back to their natural containers and item types.
void ResetAnswers(Source &s);
// Every capability back to its default value, without constraints.
void ResetCaps(Source &s);

// DG_CONTROL / DAT_CAPABILITY: MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT, MSG_SET, MSG_RESET, MSG_QUERYSUPPORT.
TW_UINT16 CapGet(Source &s, TW_UINT16 msg, TW_CAPABILITY &cap, TW_UINT16 &cc);
TW_UINT16 CapSet(Source &s, TW_CAPABILITY &cap, TW_UINT16 &cc);
TW_UINT16 CapReset(Source &s, TW_CAPABILITY &cap, TW_UINT16 &cc);
TW_UINT16 CapQuerySupport(Source &s, TW_CAPABILITY &cap, TW_UINT16 &cc);

// The current value of a scalar capability, and a set through the same checks as MSG_SET (false: refused), in the
// scanner's own units: resolutions in dots per inch whatever ICAP_UNITS says.
double CapValue(const Source &s, TW_UINT16 cap);
bool SetCapValue(Source &s, TW_UINT16 cap, double value);
// Puts a value in place without any check and without what follows a change (a constraint stays as it is).
void ForceCapValue(Source &s, TW_UINT16 cap, double value);
// The values a capability offers now (its own, VscanSetValues' or a constraint's), in the scanner's own units.
std::vector<double> CapChoices(const Source &s, TW_UINT16 cap);
// The bit depths ICAP_BITDEPTH offers for a pixel type; the first is the default.
std::vector<double> BitDepthsFor(int pixelType);

// Lengths between inches and the current ICAP_UNITS (pixels use the resolution of that axis).
double InchesToUnits(const Source &s, double inches, bool vertical);
double UnitsToInches(const Source &s, double units, bool vertical);
// Resolutions are answered and set in pixels per current unit: dots per inch times this factor. Pixels keep dots
// per inch (a pixel per pixel says nothing), and so does every unit with VSCAN_FAULT_DPIINEVERYUNIT.
double ResolutionFactor(const Source &s);

// The bed: 8.5 x 14 inches.
constexpr double kBedWidth = 8.5;
constexpr double kBedHeight = 14.0;
// Width and height in inches of a TWSS_ size; false for TWSS_NONE and unknown codes.
bool PaperSize(int size, double &width, double &height);

// The smallest step of a TW_FIX32: 1/65536. Values closer than this are the same value.
constexpr double kFix32Step = 1.0 / 65536;
// TW_FIX32 to and from double, rounding to the nearest step.
double FromFix32(TW_FIX32 value);
TW_FIX32 ToFix32(double value);
// Rounds to the nearest whole number, halves away from zero, as std::lround does; the runtime's lround costs more than
// the rest of a capability answer.
long RoundHalfAway(double value);

} // namespace vscan
