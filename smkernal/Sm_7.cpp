// Scaling, the end of transfers, the memory-transfer buffer sizes, the pending count, the scan frame, the palette, the
// image size and the scan-capability snapshot.
#include "ScanModule.h"
#include "Utility.h"

#include <cstring>

namespace {

const char kSource[] = SM_SOURCE("Sm_7");
constexpr DWORD kDefaultBufferSize = 0x10000;
constexpr short kReportedResolution = 300;
constexpr double kSnapshotDotsPerInch = 1200.0;
constexpr LONG kSnapshotBitDepth = 8;
constexpr int kPaletteEntries = 256;
constexpr BYTE kPaletteWhite[4] = {0xFF, 0xFF, 0xFF, 0x00};

// A source in inches, or in a unit the module does not know, takes a frame as it is given.
bool TakesFramesAsGiven(WORD unit) {
    return unit != kUnitCentimetres && unit != kUnitPicas && unit != kUnitPoints && unit != kUnitTwips &&
           unit != kUnitPixels;
}

// A range's current value and bounds; an enumeration's current item alone, its own minimum and maximum.
constexpr GetSpec kScale(TW_UINT16 cap) {
    return {cap, kGetThenCurrent, kAcceptAny, kReadCurrent | kReadRangeBounds, AsIs, 0, ItemOrder::Fix32};
}
constexpr SetSpec kXScaleSet = Fix32Set(ICAP_XSCALING);
constexpr SetSpec kYScaleSet = Fix32Set(ICAP_YSCALING);

} // namespace

LONG TScanModule::GetScale(const TraceCall &call, TW_UINT16 cap, double *current, double *minimum, double *maximum) {
    CapReading reading;
    LONG result = 0;
    if (ReadCapability(call, kScale(cap), reading, result) == Outcome::NotAsked)
        return result;
    *current = Fix32Value(reading.value);
    *minimum = Fix32Value(reading.minimum);
    *maximum = Fix32Value(reading.maximum);
    return result;
}

LONG TScanModule::GetXScale(double *current, double *minimum, double *maximum) {
    TraceCall call(kSource, "GetXScale", __LINE__, __LINE__);
    return GetScale(call, ICAP_XSCALING, current, minimum, maximum);
}

LONG TScanModule::SetXScale(double scale) {
    TraceCall call(kSource, "SetXScale", __LINE__, __LINE__);
    return SetOne(call, kXScaleSet, 0, scale);
}

LONG TScanModule::GetYScale(double *current, double *minimum, double *maximum) {
    TraceCall call(kSource, "GetYScale", __LINE__, __LINE__);
    return GetScale(call, ICAP_YSCALING, current, minimum, maximum);
}

LONG TScanModule::SetYScale(double scale) {
    TraceCall call(kSource, "SetYScale", __LINE__, __LINE__);
    return SetOne(call, kYScaleSet, 0, scale);
}

// DG_CONTROL / DAT_SETUPMEMXFER / MSG_GET, with sizes the source left at 0 or out of order repaired.
LONG TScanModule::GetMemXferSize(DWORD *minimum, DWORD *maximum, DWORD *preferred) {
    TraceCall call(kSource, "GetMemXferSize", __LINE__, __LINE__);
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    TW_SETUPMEMXFER sizes = {};
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "DSM_Entry returns failure");
        *minimum = *maximum = *preferred = kDefaultBufferSize;
        return GetTWAINStatusCode();
    }
    *minimum = sizes.MinBufSize;
    *maximum = sizes.MaxBufSize;
    *preferred = sizes.Preferred;
    if (*minimum == 0) {
        call.Warn(__LINE__, "min == 0, Adjust it");
        *minimum = kDefaultBufferSize;
    }
    if (*maximum == 0) {
        call.Warn(__LINE__, "max == 0, Adjust it");
        *maximum = kDefaultBufferSize;
    }
    if (*preferred == 0 || *preferred < *minimum || *preferred > *maximum) {
        call.Warn(__LINE__, "illegal preferred size, Adjust it");
        *preferred = *minimum;
    }
    return 0;
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_ENDXFER: ends the image; `count` receives the images still pending (0
// when the call fails, which stops a transfer loop).
LONG TScanModule::EndThisXfer(WORD *count) {
    TraceCall call(kSource, "EndThisXfer", __LINE__, __LINE__);
    *count = 0;
    if (!Available(call, __LINE__))
        return kNotAvailable;
    TW_PENDINGXFERS pending = {};
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    *count = pending.Count;
    return 0;
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_RESET: drops every pending image.
LONG TScanModule::EndAllXfer() {
    TraceCall call(kSource, "EndAllXfer", __LINE__, __LINE__);
    if (!Available(call, __LINE__))
        return kNotAvailable;
    TW_PENDINGXFERS pending = {};
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    return 0;
}

LONG TScanModule::GetPendingCount(WORD *count) {
    TraceCall call(kSource, "GetPendingCount", __LINE__, __LINE__);
    if (!Available(call, __LINE__))
        return kNotAvailable;
    if (sessionState < kStateSourceEnabled) {
        call.Warn(__LINE__, "Sequence error");
        return TWCC_SEQERROR;
    }
    *count = pendingCount;
    return 0;
}

// The X and Y resolutions of the source, when `unit` counts pixels; the getters' other outputs are not needed.
void TScanModule::ResolutionsFor(WORD unit, short *x, short *y) {
    if (unit != kUnitPixels)
        return;
    short minimum = 0, maximum = 0;
    GetXResolution(x, &minimum, &maximum);
    GetYResolution(y, &minimum, &maximum);
}

// DG_IMAGE / DAT_IMAGELAYOUT / MSG_SET: the frame, given in `unit`, converted to the source's current unit. A
// source in inches (or in a unit the module does not know) takes the values as they are given.
LONG TScanModule::SetImageLayout(double left, double top, double right, double bottom, WORD unit) {
    TraceCall call(kSource, "SetImageLayout", __LINE__, __LINE__);
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    short xGiven = 0, yGiven = 0;
    ResolutionsFor(unit, &xGiven, &yGiven);
    const double xScale = UnitsPerInch(unit, xGiven);
    const double yScale = UnitsPerInch(unit, yGiven);
    WORD sourceUnit = 0;
    GetUnit(&sourceUnit);
    double xFactor = 1.0, yFactor = 1.0;
    if (!TakesFramesAsGiven(sourceUnit)) {
        short xSource = 0, ySource = 0;
        ResolutionsFor(sourceUnit, &xSource, &ySource);
        xFactor = UnitsPerInch(sourceUnit, xSource) / xScale;
        yFactor = UnitsPerInch(sourceUnit, ySource) / yScale;
    }
    TW_IMAGELAYOUT layout = {};
    layout.Frame.Left = FloatToFIX32(static_cast<float>(left * xFactor));
    layout.Frame.Top = FloatToFIX32(static_cast<float>(top * yFactor));
    layout.Frame.Right = FloatToFIX32(static_cast<float>(right * xFactor));
    layout.Frame.Bottom = FloatToFIX32(static_cast<float>(bottom * yFactor));
    if (CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    return 0;
}

// DG_IMAGE / DAT_PALETTE8 / MSG_GET into the caller's 256 entries of {channel 1, channel 2, channel 3, 0}; the
// entries the source leaves out, and all of them when it fails, are white.
LONG TScanModule::GetDSPalette(BYTE *table) {
    TraceCall call(kSource, "GetDSPalette", __LINE__, __LINE__);
    LONG result = 0;
    if (!AccessorReady(call, result))
        return result;
    TW_PALETTE8 palette = {};
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette);
    for (int i = 0; i < kPaletteEntries; ++i)
        std::memcpy(table + i * sizeof kPaletteWhite, kPaletteWhite, sizeof kPaletteWhite);
    if (rc != TWRC_SUCCESS) {
        call.Warn(__LINE__, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    if (palette.NumColors > kPaletteEntries) {
        call.Warn(__LINE__, "Bad Value, palette.NumColors > 256,");
        return TWCC_BADVALUE;
    }
    for (int i = 0; i < palette.NumColors; ++i) {
        BYTE *entry = table + i * sizeof kPaletteWhite;
        entry[0] = palette.Colors[i].Channel1;
        entry[1] = palette.Colors[i].Channel2;
        entry[2] = palette.Colors[i].Channel3;
        entry[3] = 0;
    }
    return 0;
}

// DG_IMAGE / DAT_IMAGEINFO / MSG_GET: the image's width and length, both 0 when the source cannot tell. No records;
// without a source manager there is nobody to ask.
void TScanModule::GetImageDim(LONG *width, LONG *length) {
    TW_IMAGEINFO info = {};
    if (dsmEntry && CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) == TWRC_SUCCESS) {
        *width = info.ImageWidth;
        *length = info.ImageLength;
        return;
    }
    *width = 0;
    *length = 0;
}

// Fills the snapshot from the getters; their results are not checked, so a failed getter leaves
// its field at what its failure gives (0 when it asked nothing).
LONG TScanModule::GetScanCap(ScanCapRecord *record) {
    TraceCall call(kSource, "GetScanCap", __LINE__, __LINE__);
    record->size = sizeof(ScanCapRecord);
    record->reserved = 0;
    short current = 0, minimum = 0, maximum = 0;
    GetXResolution(&current, &minimum, &maximum);
    if (current < kReportedResolution && maximum >= kReportedResolution)
        current = kReportedResolution;
    record->maxXResolution = maximum;
    record->minXResolution = minimum;
    record->xResolution = current;
    double width = 0.0, height = 0.0;
    GetMaxArea(&width, &height);
    record->maxWidth = static_cast<LONG>(width * kSnapshotDotsPerInch);
    record->maxHeight = static_cast<LONG>(height * kSnapshotDotsPerInch);
    WORD unit = 0, pixelType = 0;
    GetUnit(&unit);
    GetPixelType(&pixelType);
    record->unit = static_cast<short>(unit);
    record->pixelType = static_cast<short>(pixelType);
    DWORD smallest = 0, largest = 0, preferred = 0;
    GetMemXferSize(&smallest, &largest, &preferred);
    record->memXferSize = static_cast<LONG>(largest);
    // The snapshot always reports 8 bits, whatever the source says.
    LONG depth = 0;
    Getbitdepth(&depth);
    record->bitDepth = kSnapshotBitDepth;
    return 0;
}
