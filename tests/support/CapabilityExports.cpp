// The scanner-setting exports by name, containers for smCapNegotiate, and the round trips of every setter.
#include "CapabilityExports.h"

#include <gtest/gtest.h>

#include <cmath>

namespace smtest {

namespace {

template <typename T>
void Take(const ScanLibrary &library, const char *name, T &target, std::vector<std::string> &missing) {
    target = library.Get<T>(name);
    if (!target)
        missing.push_back(name);
}

// The source's value after a range-scaled set with the module's arithmetic.
double ScaledSet(int value, int appMin, int appMax, double dsMin, double dsMax, double dsStep) {
    const short steps = static_cast<short>(
        std::trunc((value - appMin) / static_cast<double>(appMax - appMin) * (dsMax - dsMin) / dsStep + 0.5));
    return steps * dsStep + dsMin;
}

// The application's value read back from a source value.
int ScaledGet(double dsValue, int appMin, int appMax, double dsMin, double dsMax) {
    return static_cast<short>(std::trunc(appMin + (dsValue - dsMin) / (dsMax - dsMin) * (appMax - appMin) + 0.5));
}

// A range-scaled set and its read-back. A negative source value leaves the module with a fraction of 1/65536
// (its FIX32 conversion is not corrected for negative values); the source moves it to its step and answers
// TWRC_CHECKSTATUS, which the set pattern counts as a failure: for those only the value read back is checked.
template <typename Set, typename Get>
void ScaledRoundTrip(const char *name, Set set, Get get, int value, int appMin, int appMax, double dsMin,
                     double dsMax) {
    SCOPED_TRACE(std::string(name) + " " + std::to_string(value) + " on " + std::to_string(appMin) + ".." +
                 std::to_string(appMax));
    const double dsValue = ScaledSet(value, appMin, appMax, dsMin, dsMax, 1.0);
    const LONG rc = set(value, appMin, appMax);
    if (dsValue >= 0) {
        EXPECT_EQ(SM_OK, rc) << TwccName(rc);
    }
    short read = -1;
    EXPECT_EQ(SM_OK, get(&read, appMin, appMax));
    EXPECT_EQ(ScaledGet(dsValue, appMin, appMax, dsMin, dsMax), read);
    EXPECT_LE(std::abs(read - value), 1) << "within one step of the application's scale";
}

} // namespace

void CapabilityExports::Resolve(const ScanLibrary &library) {
    missing.clear();
    Take(library, "smCapNegotiate", capNegotiate, missing);
    Take(library, "smIsADFAvailable", isADFAvailable, missing);
    Take(library, "smIsADFPaperLoaded", isADFPaperLoaded, missing);
    Take(library, "smIsPaperLoaded", isPaperLoaded, missing);
    Take(library, "smGetADFEnable", getADFEnable, missing);
    Take(library, "smSetADFEnable", setADFEnable, missing);
    Take(library, "smSetIndicatorEnable", setIndicatorEnable, missing);
    Take(library, "smSetAutoFeedEnable", setAutoFeedEnable, missing);
    Take(library, "smSetThumbMode", setThumbMode, missing);
    Take(library, "smSetLightpath", setLightpath, missing);
    Take(library, "smGetThumbMode", getThumbMode, missing);
    Take(library, "smGetPixelFlavor", getPixelFlavor, missing);
    Take(library, "smNonUIAvailable", nonUIAvailable, missing);
    Take(library, "smGetBrightness", getBrightness, missing);
    Take(library, "smSetBrightness", setBrightness, missing);
    Take(library, "smGetContrast", getContrast, missing);
    Take(library, "smSetContrast", setContrast, missing);
    Take(library, "smGetHighlight", getHighlight, missing);
    Take(library, "smSetHighlight", setHighlight, missing);
    Take(library, "smGetShadow", getShadow, missing);
    Take(library, "smSetShadow", setShadow, missing);
    Take(library, "smSetThreshold", setThreshold, missing);
    Take(library, "smGetGamma", getGamma, missing);
    Take(library, "smSetGamma", setGamma, missing);
    Take(library, "smGetUnit", getUnit, missing);
    Take(library, "smGetMaxArea", getMaxArea, missing);
    Take(library, "smGetPixelType", getPixelType, missing);
    Take(library, "smSetPixelType", setPixelType, missing);
    Take(library, "smGetSupportedPixelType", getSupportedPixelType, missing);
    Take(library, "smSetSupportedPixelType", setSupportedPixelType, missing);
    Take(library, "smGetPaperSize", getPaperSize, missing);
    Take(library, "smSetPaperSize", setPaperSize, missing);
    Take(library, "smGetSupportedPaperSize", getSupportedPaperSize, missing);
    Take(library, "smSetSupportedPaperSize", setSupportedPaperSize, missing);
    Take(library, "smGetXferMech", getXferMech, missing);
    Take(library, "smSetXferMech", setXferMech, missing);
    Take(library, "smGetXferCount", getXferCount, missing);
    Take(library, "smSetXferCount", setXferCount, missing);
    Take(library, "smGetXResolution", getXResolution, missing);
    Take(library, "smSetXResolution", setXResolution, missing);
    Take(library, "smGetYResolution", getYResolution, missing);
    Take(library, "smSetYResolution", setYResolution, missing);
    Take(library, "smIsThisDPIAvailable", isThisDPIAvailable, missing);
    Take(library, "smGetXScale", getXScale, missing);
    Take(library, "smSetXScale", setXScale, missing);
    Take(library, "smGetYScale", getYScale, missing);
    Take(library, "smSetYScale", setYScale, missing);
    Take(library, "smGetDSProductName", getDSProductName, missing);
    Take(library, "smGetPendingCount", getPendingCount, missing);
    Take(library, "smSetBitDepth", setBitDepth, missing);
    Take(library, "smGetIndex", getIndex, missing);
    Take(library, "smSetIndex", setIndex, missing);
    Take(library, "smGetMemXferSize", getMemXferSize, missing);
    Take(library, "smGetScanCap", getScanCap, missing);
}

TW_UINT32 ModuleFix32(double value) {
    const auto whole = static_cast<TW_UINT16>(static_cast<TW_INT32>(value));
    const auto frac = static_cast<TW_UINT16>(static_cast<TW_INT32>(value * 65536.0 + 0.5));
    return whole | (static_cast<TW_UINT32>(frac) << 16);
}

double Fix32Value(TW_UINT32 word) {
    return static_cast<TW_INT16>(word & 0xffff) + (word >> 16) / 65536.0;
}

HGLOBAL OneValue(TW_UINT16 itemType, TW_UINT32 item) {
    HGLOBAL handle = GlobalAlloc(GHND, sizeof(TW_ONEVALUE));
    auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(handle));
    one->ItemType = itemType;
    one->Item = item;
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL Enumeration(TW_UINT16 itemType, const std::vector<TW_UINT32> &items, TW_UINT32 current) {
    const size_t width = itemType == TWTY_UINT16 || itemType == TWTY_INT16 || itemType == TWTY_BOOL ? 2 : 4;
    HGLOBAL handle = GlobalAlloc(GHND, offsetof(TW_ENUMERATION, ItemList) + width * items.size());
    auto *en = static_cast<TW_ENUMERATION *>(GlobalLock(handle));
    en->ItemType = itemType;
    en->NumItems = static_cast<TW_UINT32>(items.size());
    en->CurrentIndex = current;
    en->DefaultIndex = 0;
    for (size_t i = 0; i < items.size(); ++i)
        std::memcpy(en->ItemList + i * width, &items[i], width);
    GlobalUnlock(handle);
    return handle;
}

double CurrentThroughLibrary(const CapabilityExports &sm, TW_UINT16 cap) {
    TW_CAPABILITY capability{cap, TWON_DONTCARE16, nullptr};
    if (!sm.capNegotiate || sm.capNegotiate(MSG_GETCURRENT, &capability) != TWRC_SUCCESS || !capability.hContainer)
        return -99999;
    const auto *block = static_cast<const BYTE *>(GlobalLock(capability.hContainer));
    TW_UINT16 type;
    std::memcpy(&type, block, sizeof type);
    TW_UINT32 word = 0;
    if (capability.ConType == TWON_ONEVALUE)
        std::memcpy(&word, block + 2, 4);
    else if (capability.ConType == TWON_RANGE)
        std::memcpy(&word, block + 2 + 16, 4);
    else if (capability.ConType == TWON_ENUMERATION) {
        TW_UINT32 current;
        std::memcpy(&current, block + 6, 4);
        std::memcpy(&word, block + 14 + current * (type == TWTY_FIX32 || type >= TWTY_INT32 ? 4 : 2),
                    type == TWTY_FIX32 || type == TWTY_INT32 || type == TWTY_UINT32 ? 4 : 2);
    }
    GlobalUnlock(capability.hContainer);
    GlobalFree(capability.hContainer);
    switch (type) {
    case TWTY_FIX32:
        return Fix32Value(word);
    case TWTY_INT16:
        return static_cast<TW_INT16>(word);
    case TWTY_UINT16:
    case TWTY_BOOL:
        return static_cast<TW_UINT16>(word);
    default:
        return word;
    }
}

WORD SetThroughLibrary(const CapabilityExports &sm, TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item) {
    TW_CAPABILITY capability{cap, TWON_ONEVALUE, OneValue(itemType, item)};
    const WORD rc = sm.capNegotiate ? sm.capNegotiate(MSG_SET, &capability) : 0xffff;
    GlobalFree(capability.hContainer);
    return rc;
}

void CheckRoundTrips(const CapabilityExports &sm) {
    ASSERT_EQ(std::vector<std::string>{}, sm.Missing()) << "exports missing";
    LONG answer = -7;
    for (LONG on : {1, 0}) {
        SCOPED_TRACE("feeder " + std::to_string(on));
        EXPECT_EQ(SM_OK, sm.setADFEnable(on));
        EXPECT_EQ(SM_OK, sm.getADFEnable(&answer));
        EXPECT_EQ(on, answer);
        EXPECT_EQ(SM_OK, sm.isADFAvailable(&answer));
        EXPECT_EQ(on, answer);
        EXPECT_EQ(SM_OK, sm.setThumbMode(on));
        EXPECT_EQ(SM_OK, sm.getThumbMode(&answer));
        EXPECT_EQ(on, answer);
        EXPECT_EQ(SM_OK, sm.setIndicatorEnable(on));
        EXPECT_EQ(on, CurrentThroughLibrary(sm, CAP_INDICATORS));
        EXPECT_EQ(SM_OK, sm.setAutoFeedEnable(on));
        EXPECT_EQ(on, CurrentThroughLibrary(sm, CAP_AUTOFEED));
        EXPECT_EQ(SM_OK, sm.setLightpath(on));
        EXPECT_EQ(on, CurrentThroughLibrary(sm, ICAP_LIGHTPATH));
    }
    EXPECT_EQ(SM_OK, sm.isADFPaperLoaded(&answer));
    EXPECT_EQ(1, answer) << "sheets in the feeder";
    EXPECT_EQ(SM_OK, sm.nonUIAvailable(&answer));
    EXPECT_EQ(1, answer);
    EXPECT_EQ(SM_OK, sm.getPixelFlavor(&answer));
    EXPECT_EQ(TWPF_CHOCOLATE, answer);

    double gamma = 0;
    for (double value : {2.5, 0.75, 1.0}) {
        EXPECT_EQ(SM_OK, sm.setGamma(value));
        EXPECT_EQ(SM_OK, sm.getGamma(&gamma));
        EXPECT_DOUBLE_EQ(value, gamma);
    }

    WORD flag = 0;
    for (LONG pixelType : {SM_PIXEL_BW, SM_PIXEL_GRAY, SM_PIXEL_PALETTE, SM_PIXEL_RGB}) {
        EXPECT_EQ(SM_OK, sm.setPixelType(pixelType));
        EXPECT_EQ(SM_OK, sm.getPixelType(&flag));
        EXPECT_EQ(pixelType, flag);
    }
    EXPECT_EQ(SM_OK, sm.setPixelType(SM_PIXEL_GRAY));
    EXPECT_EQ(SM_OK, sm.setBitDepth(16));
    EXPECT_EQ(16, CurrentThroughLibrary(sm, ICAP_BITDEPTH));
    EXPECT_EQ(SM_OK, sm.setPixelType(SM_PIXEL_RGB));
    EXPECT_EQ(SM_OK, sm.setBitDepth(48));
    EXPECT_EQ(48, CurrentThroughLibrary(sm, ICAP_BITDEPTH));

    // The source has no B4 (code 6).
    for (LONG paper : {SM_PAPER_A4LETTER, SM_PAPER_B5LETTER, SM_PAPER_USLETTER, SM_PAPER_USLEGAL, SM_PAPER_A5,
                       SM_PAPER_B6, SM_PAPER_NONE}) {
        EXPECT_EQ(SM_OK, sm.setPaperSize(paper));
        EXPECT_EQ(SM_OK, sm.getPaperSize(&flag));
        EXPECT_EQ(paper, flag);
    }
    for (LONG mech : {SM_XFER_FILE, SM_XFER_MEMORY, SM_XFER_NATIVE}) {
        EXPECT_EQ(SM_OK, sm.setXferMech(mech));
        EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
        EXPECT_EQ(mech, flag);
    }
    short count = 0;
    for (LONG value : {5, 1, -1}) {
        EXPECT_EQ(SM_OK, sm.setXferCount(value));
        EXPECT_EQ(SM_OK, sm.getXferCount(&count));
        EXPECT_EQ(value, count);
    }

    const WORD blackAndGray = SM_PIXEL_BW | SM_PIXEL_GRAY;
    const WORD fourTypes = SM_PIXEL_BW | SM_PIXEL_GRAY | SM_PIXEL_RGB | SM_PIXEL_PALETTE;
    const WORD threeSizes = SM_PAPER_NONE | SM_PAPER_USLETTER | SM_PAPER_USLEGAL;
    EXPECT_EQ(SM_OK, sm.setSupportedPixelType(blackAndGray));
    EXPECT_EQ(SM_OK, sm.getSupportedPixelType(&flag));
    EXPECT_EQ(blackAndGray, flag);
    EXPECT_EQ(SM_OK, sm.setSupportedPixelType(fourTypes));
    EXPECT_EQ(SM_OK, sm.getSupportedPixelType(&flag));
    EXPECT_EQ(fourTypes, flag);
    EXPECT_EQ(SM_OK, sm.setSupportedPaperSize(threeSizes));
    EXPECT_EQ(SM_OK, sm.getSupportedPaperSize(&flag));
    EXPECT_EQ(threeSizes, flag);

    short current = 0, minimum = 0, maximum = 0;
    const struct { LONG x, y; } resolutions[] = {{300, 150}, {75, 400}, {600, 200}};
    for (const auto &dpi : resolutions) {
        EXPECT_EQ(SM_OK, sm.setXResolution(dpi.x));
        EXPECT_EQ(SM_OK, sm.getXResolution(&current, &minimum, &maximum));
        EXPECT_EQ(dpi.x, current);
        EXPECT_EQ(50, minimum);
        EXPECT_EQ(600, maximum);
        EXPECT_EQ(SM_OK, sm.setYResolution(dpi.y));
        EXPECT_EQ(SM_OK, sm.getYResolution(&current, &minimum, &maximum));
        EXPECT_EQ(dpi.y, current);
        EXPECT_EQ(50, minimum);
        EXPECT_EQ(600, maximum);
    }
    EXPECT_EQ(SM_OK, sm.isThisDPIAvailable(400, 150));
    EXPECT_EQ(SM_OK, sm.getXResolution(&current, &minimum, &maximum));
    EXPECT_EQ(600, current) << "a trial set is undone";
    EXPECT_EQ(SM_OK, sm.getYResolution(&current, &minimum, &maximum));
    EXPECT_EQ(200, current);

    double scale = 0, low = 0, high = 0;
    const struct { double x, y; } scales[] = {{2.0, 1.5}, {0.25, 4.0}, {3.75, 0.5}};
    for (const auto &value : scales) {
        EXPECT_EQ(SM_OK, sm.setXScale(value.x));
        EXPECT_EQ(SM_OK, sm.getXScale(&scale, &low, &high));
        EXPECT_DOUBLE_EQ(value.x, scale);
        EXPECT_DOUBLE_EQ(0.25, low);
        EXPECT_DOUBLE_EQ(4.0, high);
        EXPECT_EQ(SM_OK, sm.setYScale(value.y));
        EXPECT_EQ(SM_OK, sm.getYScale(&scale, &low, &high));
        EXPECT_DOUBLE_EQ(value.y, scale);
    }

    struct Scaled {
        const char *name;
        LONG(WINAPI *set)(LONG, LONG, LONG);
        LONG(WINAPI *get)(short *, LONG, LONG);
        double dsMin, dsMax;
    } scaled[] = {{"brightness", sm.setBrightness, sm.getBrightness, -1000, 1000},
                  {"contrast", sm.setContrast, sm.getContrast, -1000, 1000},
                  {"highlight", sm.setHighlight, sm.getHighlight, 0, 255},
                  {"shadow", sm.setShadow, sm.getShadow, 0, 255}};
    for (const Scaled &s : scaled) {
        for (LONG value : {0, 1, 33, 50, 99, 100})
            ScaledRoundTrip(s.name, s.set, s.get, value, 0, 100, s.dsMin, s.dsMax);
        ScaledRoundTrip(s.name, s.set, s.get, -20, -127, 127, s.dsMin, s.dsMax);
        ScaledRoundTrip(s.name, s.set, s.get, 100, -127, 127, s.dsMin, s.dsMax);
    }
    EXPECT_EQ(SM_OK, sm.setThreshold(50, 0, 100));
    EXPECT_DOUBLE_EQ(128.0, CurrentThroughLibrary(sm, ICAP_THRESHOLD));

    DWORD list[] = {3, 1, 0, 2};
    EXPECT_EQ(SM_OK, sm.setIndex(4, list));
    EXPECT_EQ(SM_OK, sm.getIndex(&answer));
    EXPECT_EQ(3, answer) << "the first index of the set, answered as the one value of MSG_GETCURRENT";

    char name[64];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(SM_OK, sm.getDSProductName(name));
    EXPECT_STREQ("Virtual Scanner", name);

    // Pixels count by the X resolution on both axes: make the two resolutions equal.
    EXPECT_EQ(SM_OK, sm.setYResolution(600));
    WORD unit = 0;
    double width = 0, height = 0;
    const struct {
        TW_UINT16 code;
        WORD flag;
    } units[] = {{TWUN_CENTIMETERS, SM_UNIT_CENTIMETERS}, {TWUN_PICAS, SM_UNIT_PICAS},
                 {TWUN_POINTS, SM_UNIT_POINTS},           {TWUN_TWIPS, SM_UNIT_TWIPS},
                 {TWUN_PIXELS, SM_UNIT_PIXELS},           {TWUN_INCHES, SM_UNIT_INCHES}};
    for (const auto &u : units) {
        SCOPED_TRACE("unit " + std::to_string(u.code));
        EXPECT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, u.code));
        EXPECT_EQ(SM_OK, sm.getUnit(&unit));
        EXPECT_EQ(u.flag, unit);
        EXPECT_EQ(SM_OK, sm.getMaxArea(&width, &height));
        EXPECT_NEAR(8.5, width, 1e-3) << "the bed in inches whatever the unit";
        EXPECT_NEAR(14.0, height, 1e-3);
    }
}

} // namespace smtest
