// Every scanner-setting accessor against the virtual scanner under the stand-in source manager, one table of rows.

// Each row shows the capability and messages sent, the containers accepted and refused, conversions, fall-backs,
// result codes and records, and that no container is left in global memory on any path.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "CapabilityTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr LONG kMissing = kMissingExport;

// --- Get accessors.

struct GetRow {
    const char *name;   // the test's name
    const char *method; // the name in the records
    const char *file;   // the source file the records name ("Sm_4")
    TW_UINT16 cap;
    std::vector<TW_UINT16> messages; // in the order sent
    TW_UINT16 preset;                // ConType sent
    TW_UINT16 refused;               // a container type the accessor does not accept
    Outputs fallback;                // every output when no attempt on `cap` succeeded
    Outputs expected;                // every output after `prepare`
    std::function<void(VscanLibrary &, const CapabilityExports &)> prepare;
    std::function<LONG(const CapabilityExports &, Outputs &)> call;
    // When the first message fails: the result and outputs of the second answer, where it is not the usual
    // answer of `prepare` (empty: `expected`).
    LONG secondResult = SM_OK;
    Outputs second = {};
};

std::ostream &operator<<(std::ostream &out, const GetRow &row) {
    return out << row.name;
}

// The largest area: width and height.
LONG CallArea(LONG(WINAPI *f)(double *, double *), Outputs &values) {
    values.clear();
    if (!f)
        return kMissing;
    double width = kPresetOutput, height = kPresetOutput;
    const LONG rc = f(&width, &height);
    values = {width, height};
    return rc;
}

LONG CallScaled(LONG(WINAPI *f)(short *, LONG, LONG), Outputs &values) {
    values.clear();
    if (!f)
        return kMissing;
    short out = kPresetOutput;
    const LONG rc = f(&out, 0, 100);
    values = {static_cast<double>(out)};
    return rc;
}

// The source's current value, set through smCapNegotiate before the accessor is called.
std::function<void(VscanLibrary &, const CapabilityExports &)> SourceHolds(TW_UINT16 cap, TW_UINT16 type,
                                                                           TW_UINT32 item) {
    return [=](VscanLibrary &, const CapabilityExports &sm) {
        ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, cap, type, item)) << "preparing the source";
    };
}

// TW_FIX32 of a whole number, exact for negative values too (the module's conversion is not).
TW_UINT32 SourceFix32(int value) {
    return static_cast<TW_UINT16>(value);
}

const auto kNothing = [](VscanLibrary &, const CapabilityExports &) {};

// The scanner's resolutions are listed from 50 to 600 dots per inch, its scaling ranges from 0.25 to 4, its bed is
// 8.5 by 14 inches. A one-value (the answer to MSG_GETCURRENT) is its own minimum and maximum.
const std::vector<GetRow> &GetRows() {
    static const std::vector<GetRow> rows = {
        {"IsADFAvailable",
         "IsADFAvailable",
         "Sm_4",
         CAP_FEEDERENABLED,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {1},
         SourceHolds(CAP_FEEDERENABLED, TWTY_BOOL, 1),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.isADFAvailable, v); }},
        {"IsADFPaperLoaded",
         "IsADFPaperLoaded",
         "Sm_4",
         CAP_FEEDERLOADED,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {1},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.isADFPaperLoaded, v); }},
        {"IsPaperLoaded",
         "IsADFPaperLoaded",
         "Sm_4",
         CAP_FEEDERLOADED,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {0},
         {1},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.isPaperLoaded, v); }},
        {"GetADFEnable",
         "GetADFEnable",
         "Sm_4",
         CAP_FEEDERENABLED,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ENUMERATION,
         {0},
         {1},
         SourceHolds(CAP_FEEDERENABLED, TWTY_BOOL, 1),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getADFEnable, v); }},
        {"GetThumbMode",
         "GetThumbMode",
         "Sm_4",
         CAP_THUMBNAILSENABLED,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {1},
         SourceHolds(CAP_THUMBNAILSENABLED, TWTY_BOOL, 1),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getThumbMode, v); }},
        {"GetPixelFlavor",
         "GetPixelFlavor",
         "Sm_5",
         ICAP_PIXELFLAVOR,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {TWPF_VANILLA},
         SourceHolds(ICAP_PIXELFLAVOR, TWTY_UINT16, TWPF_VANILLA),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPixelFlavor, v); }},
        {"GetGamma",
         "GetGamma",
         "Sm_4",
         ICAP_GAMMA,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {2.25},
         SourceHolds(ICAP_GAMMA, TWTY_FIX32, ModuleFix32(2.25)),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getGamma, v); },
         // MSG_GET answers the gamma range, which a one-value get refuses.
         SM_ERR_BAD_VALUE,
         {0}},
        {"GetUnit",
         "GetUnit",
         "Sm_5",
         ICAP_UNITS,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {SM_UNIT_INCHES},
         {SM_UNIT_TWIPS},
         SourceHolds(ICAP_UNITS, TWTY_UINT16, TWUN_TWIPS),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getUnit, v); }},
        // In inches on a source in inches; each size fails alone, the other one is still read.
        {"GetMaxArea",
         "GetMaxArea",
         "Sm_5",
         ICAP_PHYSICALWIDTH,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ENUMERATION,
         {0, 14},
         {8.5, 14},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallArea(sm.getMaxArea, v); }},
        {"GetMaxAreaHeight",
         "GetMaxArea",
         "Sm_5",
         ICAP_PHYSICALHEIGHT,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {8.5, 0},
         {8.5, 14},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallArea(sm.getMaxArea, v); }},
        {"GetPixelType",
         "GetPixelType",
         "Sm_5",
         ICAP_PIXELTYPE,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {SM_PIXEL_GRAY},
         {SM_PIXEL_PALETTE},
         SourceHolds(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_PALETTE),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPixelType, v); }},
        {"GetPaperSize",
         "GetPaperSize",
         "Sm_6",
         ICAP_SUPPORTEDSIZES,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {SM_PAPER_NONE},
         {SM_PAPER_USLETTER},
         SourceHolds(ICAP_SUPPORTEDSIZES, TWTY_UINT16, TWSS_USLETTER),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPaperSize, v); }},
        {"GetXferMech",
         "GetXferMech",
         "Sm_6",
         ICAP_XFERMECH,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {SM_XFER_MEMORY},
         {SM_XFER_FILE},
         SourceHolds(ICAP_XFERMECH, TWTY_UINT16, TWSX_FILE),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getXferMech, v); }},
        {"GetXferCount",
         "GetXferCount",
         "Sm_6",
         CAP_XFERCOUNT,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {5},
         SourceHolds(CAP_XFERCOUNT, TWTY_INT16, 5),
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getXferCount, v); }},
        {"NonUIAvailable",
         "IsNonUIAvailable",
         "Sm_4",
         CAP_UICONTROLLABLE,
         {MSG_GET, 0},
         TWON_ONEVALUE,
         TWON_RANGE,
         {0},
         {1},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.nonUIAvailable, v); }},
        {"GetIndex",
         "GetIndex",
         "Sm_5",
         ICAP_IMAGEDATASET,
         {MSG_GET, MSG_GETCURRENT},
         TWON_DONTCARE16,
         TWON_RANGE,
         {0},
         {3},
         [](VscanLibrary &scanner, const CapabilityExports &) {
             // The data set {1, 2, 3} as an enumeration: its largest item.
             ASSERT_EQ(1, scanner.setContainer(ICAP_IMAGEDATASET, MSG_GET, TWON_ENUMERATION));
         },
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getIndex, v); },
         // MSG_GETCURRENT answers the first index of the set as a one-value.
         SM_OK,
         {1}},
        {"GetSupportedPixelType",
         "GetSupportedPixelType",
         "Sm_5",
         ICAP_PIXELTYPE,
         {MSG_GET},
         TWON_DONTCARE16,
         TWON_ONEVALUE,
         {0},
         {SM_PIXEL_BW | SM_PIXEL_GRAY | SM_PIXEL_RGB | SM_PIXEL_PALETTE},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getSupportedPixelType, v); }},
        {"GetSupportedPaperSize",
         "GetSupportedPaperSize",
         "Sm_6",
         ICAP_SUPPORTEDSIZES,
         {MSG_GET},
         TWON_DONTCARE16,
         TWON_ONEVALUE,
         {0},
         // The scanner's B6 (code 7) is not reported.
         {SM_PAPER_NONE | SM_PAPER_A4LETTER | SM_PAPER_B5LETTER | SM_PAPER_USLETTER | SM_PAPER_USLEGAL | SM_PAPER_A5},
         kNothing,
         [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getSupportedPaperSize, v); }},
        {"GetXResolution",
         "GetXResolution",
         "Sm_6",
         ICAP_XRESOLUTION,
         {MSG_GET, MSG_GETCURRENT},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {0, 0, 0},
         {300, 50, 600},
         SourceHolds(ICAP_XRESOLUTION, TWTY_FIX32, ModuleFix32(300)),
         [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getXResolution, v); },
         SM_OK,
         {300, 300, 300}},
        {"GetYResolution",
         "GetYResolution",
         "Sm_6",
         ICAP_YRESOLUTION,
         {MSG_GET, MSG_GETCURRENT},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {0, 0, 0},
         {150, 50, 600},
         SourceHolds(ICAP_YRESOLUTION, TWTY_FIX32, ModuleFix32(150)),
         [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getYResolution, v); },
         SM_OK,
         {150, 150, 150}},
        {"GetXScale",
         "GetXScale",
         "Sm_7",
         ICAP_XSCALING,
         {MSG_GET, MSG_GETCURRENT},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {0, 0, 0},
         {2.5, 0.25, 4},
         SourceHolds(ICAP_XSCALING, TWTY_FIX32, ModuleFix32(2.5)),
         [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getXScale, v); },
         SM_OK,
         {2.5, 2.5, 2.5}},
        {"GetYScale",
         "GetYScale",
         "Sm_7",
         ICAP_YSCALING,
         {MSG_GET, MSG_GETCURRENT},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {0, 0, 0},
         {0.75, 0.25, 4},
         SourceHolds(ICAP_YSCALING, TWTY_FIX32, ModuleFix32(0.75)),
         [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getYScale, v); },
         SM_OK,
         {0.75, 0.75, 0.75}},
        // Range-scaled on 0..100; the fall-back is the midpoint 50.
        {"GetBrightness",
         "GetBrightness",
         "Sm_4",
         ICAP_BRIGHTNESS,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {50},
         {75},
         SourceHolds(ICAP_BRIGHTNESS, TWTY_FIX32, ModuleFix32(500)),
         [](const CapabilityExports &sm, Outputs &v) { return CallScaled(sm.getBrightness, v); }},
        {"GetContrast",
         "GetContrast",
         "Sm_4",
         ICAP_CONTRAST,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {50},
         {25},
         SourceHolds(ICAP_CONTRAST, TWTY_FIX32, SourceFix32(-500)),
         [](const CapabilityExports &sm, Outputs &v) { return CallScaled(sm.getContrast, v); }},
        {"GetHighlight",
         "GetHighlight",
         "Sm_4",
         ICAP_HIGHLIGHT,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {50},
         {20},
         SourceHolds(ICAP_HIGHLIGHT, TWTY_FIX32, ModuleFix32(51)),
         [](const CapabilityExports &sm, Outputs &v) { return CallScaled(sm.getHighlight, v); }},
        {"GetShadow",
         "GetShadow",
         "Sm_4",
         ICAP_SHADOW,
         {MSG_GETCURRENT, MSG_GET},
         TWON_DONTCARE16,
         TWON_ARRAY,
         {50},
         {80},
         SourceHolds(ICAP_SHADOW, TWTY_FIX32, ModuleFix32(204)),
         [](const CapabilityExports &sm, Outputs &v) { return CallScaled(sm.getShadow, v); }},
    };
    return rows;
}

class GetAccessorTest : public CapabilityTest, public ::testing::WithParamInterface<GetRow> {
protected:
    void Prepare() {
        GetParam().prepare(scanner, sm);
        Reset();
    }
    LONG Call(Outputs &values) { return GetParam().call(sm, values); }
    std::string Text(const char *what) const { return std::string(what) + " in TScanModule::" + GetParam().method; }
    // Every message of the row fails at the source with its own condition code.
    TW_UINT16 FailEveryMessage() {
        const TW_UINT16 codes[] = {TWCC_CAPSEQERROR, TWCC_DENIED};
        TW_UINT16 last = 0;
        for (size_t i = 0; i < GetParam().messages.size(); ++i) {
            scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, GetParam().messages[i], GetParam().cap, TWRC_FAILURE,
                                codes[i], 1, 0);
            last = codes[i];
        }
        return last;
    }
};

TEST_P(GetAccessorTest, FirstMessageAnswersTheConvertedValue) {
    const GetRow &row = GetParam();
    Prepare();
    Outputs values;
    const LONG rc = Call(values);
    EXPECT_EQ(SM_OK, rc) << TwccName(rc);
    EXPECT_TRUE(SameOutputs(row.expected, values));
    Reset();
    ASSERT_EQ(SM_OK, Call(values));
    const std::vector<TdsmCall> calls = CapCalls(row.cap);
    ASSERT_EQ(1u, calls.size()) << "only the first message";
    EXPECT_EQ(row.messages[0], calls[0].msg);
    EXPECT_EQ(row.preset, calls[0].capIn.conType) << "the ConType asked for";
    EXPECT_FALSE(calls[0].capIn.hasContainer) << "hContainer null before the call";
    EXPECT_EQ(TWRC_SUCCESS, calls[0].rc);
    EXPECT_EQ(Strings{}, Warnings());
    EXPECT_GE(tracker.Allocations(), 1);
    EXPECT_TRUE(NoContainerLeft()) << "the source's answer is released";
}

TEST_P(GetAccessorTest, RefusedContainersAreReleasedAndGiveTheFallBack) {
    const GetRow &row = GetParam();
    Prepare();
    Strings warnings, triplets;
    LONG expected = SM_ERR_BAD_VALUE;
    for (TW_UINT16 msg : row.messages) {
        if (msg == 0) {
            // Message code 0 is not a get: the source fails it as a protocol error.
            warnings.push_back(Text("CapNegotiate returns failure"));
            triplets.push_back(CapLine(row.cap, msg, TWRC_FAILURE));
            triplets.push_back(StatusLine());
            expected = TWCC_BADPROTOCOL;
            continue;
        }
        ASSERT_EQ(1, scanner.setContainer(row.cap, msg, row.refused));
        warnings.push_back(Text("Invalid container type"));
        triplets.push_back(CapLine(row.cap, msg, TWRC_SUCCESS));
        expected = SM_ERR_BAD_VALUE;
    }
    Outputs values;
    const LONG rc = Call(values);
    EXPECT_EQ(expected, rc) << TwccName(rc);
    EXPECT_TRUE(SameOutputs(row.fallback, values));
    EXPECT_EQ(triplets, CapTriplets(row.cap));
    for (const TdsmCall &call : CapCalls(row.cap)) {
        if (call.rc == TWRC_SUCCESS) {
            EXPECT_EQ(row.refused, call.capOut.conType);
        }
    }
    EXPECT_EQ(warnings, Warnings());
    EXPECT_TRUE(WarningsFrom(row.file));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, row.file, row.method, row.method));
    EXPECT_TRUE(NoContainerLeft()) << "refused containers are released too";
    EXPECT_GE(tracker.Frees(), 1);
}

TEST_P(GetAccessorTest, FailureOfEveryMessageGivesTheLastConditionCode) {
    const GetRow &row = GetParam();
    Prepare();
    const TW_UINT16 last = FailEveryMessage();
    Outputs values;
    const LONG rc = Call(values);
    EXPECT_EQ(last, rc) << TwccName(rc) << ", expected " << TwccName(last);
    EXPECT_TRUE(SameOutputs(row.fallback, values));
    Strings triplets, warnings;
    for (TW_UINT16 msg : row.messages) {
        triplets.push_back(CapLine(row.cap, msg, TWRC_FAILURE));
        triplets.push_back(StatusLine());
        warnings.push_back(Text("CapNegotiate returns failure"));
    }
    EXPECT_EQ(triplets, CapTriplets(row.cap));
    EXPECT_EQ(warnings, Warnings());
    EXPECT_TRUE(WarningsFrom(row.file));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, row.file, row.method, row.method));
    EXPECT_TRUE(NoContainerLeft());
}

TEST_P(GetAccessorTest, FailedFirstMessageFallsToTheSecond) {
    const GetRow &row = GetParam();
    Prepare();
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, row.messages[0], row.cap, TWRC_FAILURE, TWCC_CAPSEQERROR, 1, 1);
    Outputs values;
    const LONG rc = Call(values);
    Strings triplets = {CapLine(row.cap, row.messages[0], TWRC_FAILURE), StatusLine()};
    if (row.messages.size() == 1) {
        EXPECT_EQ(TWCC_CAPSEQERROR, rc) << TwccName(rc);
        EXPECT_TRUE(SameOutputs(row.fallback, values));
    } else if (row.messages[1] == 0) {
        EXPECT_EQ(TWCC_BADPROTOCOL, rc) << TwccName(rc) << ": message code 0 fails at the source";
        EXPECT_TRUE(SameOutputs(row.fallback, values));
        triplets.push_back(CapLine(row.cap, 0, TWRC_FAILURE));
        triplets.push_back(StatusLine());
    } else {
        EXPECT_EQ(row.secondResult, rc) << TwccName(rc);
        EXPECT_TRUE(SameOutputs(row.second.empty() ? row.expected : row.second, values));
        triplets.push_back(CapLine(row.cap, row.messages[1], TWRC_SUCCESS));
    }
    EXPECT_EQ(triplets, CapTriplets(row.cap));
    const Strings warnings = Warnings();
    ASSERT_FALSE(warnings.empty());
    EXPECT_EQ(Text("CapNegotiate returns failure"), warnings.front());
    EXPECT_TRUE(NoContainerLeft());
}

TEST_P(GetAccessorTest, WithoutAnOpenSourceSendsNothing) {
    const GetRow &row = GetParam();
    CloseSource();
    Outputs values;
    const LONG rc = Call(values);
    EXPECT_EQ(SM_ERR_SEQUENCE, rc) << TwccName(rc);
    EXPECT_TRUE(SameOutputs(Outputs(row.expected.size(), kPresetOutput), values)) << "every output left alone";
    EXPECT_EQ(Strings{}, Triplets()) << "nothing reaches the source manager";
    EXPECT_EQ(Strings{Text("Sequence error")}, Warnings());
    EXPECT_TRUE(OneRecord("Warning", row.file, Text("Sequence error")));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, row.file, row.method, row.method));
    EXPECT_TRUE(EntryAndExit(row.file, row.method));
    EXPECT_EQ(0, tracker.Allocations());
}

TEST_P(GetAccessorTest, EntryAndExitRecords) {
    Prepare();
    Outputs values;
    ASSERT_EQ(SM_OK, Call(values));
    EXPECT_TRUE(EntryAndExit(GetParam().file, GetParam().method));
}

INSTANTIATE_TEST_SUITE_P(CapabilityRows, GetAccessorTest, ::testing::ValuesIn(GetRows()),
                         [](const ::testing::TestParamInfo<GetRow> &info) { return std::string(info.param.name); });

// --- Set accessors.

struct SetRow {
    const char *name;         // the method, as its entry and exit records name it
    const char *method;       // the name in "CapNegotiate returns failure in TScanModule::..."
    const char *file;         // the source file the records name ("Sm_4")
    const char *buildWarning; // the whole text when building the container fails
    const char *codecWarning; // the codec's own text then
    TW_UINT16 cap;
    std::vector<TW_UINT16> types; // candidate item types in order
    TW_UINT16 conType;
    std::vector<TW_UINT32> items; // as sent, signed types sign-extended, FIX32 as its 32-bit word
    std::function<LONG(const CapabilityExports &)> call;
    const char *variant = ""; // added to the test's name where a method has two rows
};

std::ostream &operator<<(std::ostream &out, const SetRow &row) {
    return out << row.name;
}

const char kOneValueAlloc[] = "Memory alloc error in BuildupOneValue";
const std::vector<TW_UINT16> kOnOff = {TWTY_BOOL, TWTY_UINT16, TWTY_INT16};
const std::vector<TW_UINT16> kCodes = {TWTY_UINT16, TWTY_INT16, TWTY_BOOL};
const std::vector<TW_UINT16> kFix32 = {TWTY_FIX32};

template <typename A>
std::function<LONG(const CapabilityExports &)> Setter(LONG (WINAPI *CapabilityExports::*f)(A), A argument) {
    return [=](const CapabilityExports &sm) { return sm.*f ? (sm.*f)(argument) : kMissing; };
}

std::function<LONG(const CapabilityExports &)> Scaled(LONG (WINAPI *CapabilityExports::*f)(LONG, LONG, LONG),
                                                      LONG value) {
    return [=](const CapabilityExports &sm) { return sm.*f ? (sm.*f)(value, 0, 100) : kMissing; };
}

const std::vector<SetRow> &SetRows() {
    static const std::vector<SetRow> rows = {
        {"SetADFEnable",
         "SetADFEnable",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetADFEnable",
         kOneValueAlloc,
         CAP_FEEDERENABLED,
         kOnOff,
         TWON_ONEVALUE,
         {1},
         Setter(&CapabilityExports::setADFEnable, LONG{1})},
        {"SetIndicatorEnable",
         "SetIndicatorEnable",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetIndicatorEnable",
         kOneValueAlloc,
         CAP_INDICATORS,
         kOnOff,
         TWON_ONEVALUE,
         {0},
         Setter(&CapabilityExports::setIndicatorEnable, LONG{0})},
        {"SetAutoFeedEnable",
         "SetAutoFeedEnable",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetAutoFeedEnable",
         kOneValueAlloc,
         CAP_AUTOFEED,
         kOnOff,
         TWON_ONEVALUE,
         {0},
         Setter(&CapabilityExports::setAutoFeedEnable, LONG{0})},
        {"SetThumbMode",
         "SetThumbMode",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetThumbMode",
         kOneValueAlloc,
         CAP_THUMBNAILSENABLED,
         kOnOff,
         TWON_ONEVALUE,
         {1},
         Setter(&CapabilityExports::setThumbMode, LONG{1})},
        {"SetLightpath",
         "SetLightpath",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetLightpath",
         kOneValueAlloc,
         ICAP_LIGHTPATH,
         {TWTY_UINT16},
         TWON_ONEVALUE,
         {TWLP_TRANSMISSIVE},
         Setter(&CapabilityExports::setLightpath, LONG{TWLP_TRANSMISSIVE})},
        {"SetGamma",
         "SetGamma",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetGamma",
         kOneValueAlloc,
         ICAP_GAMMA,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(2.5)},
         Setter(&CapabilityExports::setGamma, 2.5)},
        {"SetPixelType",
         "SetPixelType",
         "Sm_5",
         "BuildupOneValue return failure in TScanModule::SetPixelType",
         kOneValueAlloc,
         ICAP_PIXELTYPE,
         kCodes,
         TWON_ONEVALUE,
         {TWPT_BW},
         Setter(&CapabilityExports::setPixelType, LONG{SM_PIXEL_BW})},
        {"SetBitDepth",
         "SetBitDepath",
         "Sm_5",
         "BuildupOneValue return failure in TScanModule::SetBitDepath",
         kOneValueAlloc,
         ICAP_BITDEPTH,
         kCodes,
         TWON_ONEVALUE,
         {48},
         Setter(&CapabilityExports::setBitDepth, LONG{48})},
        {"SetSupportedPixelType",
         "SetSupportedPixelType",
         "Sm_5",
         "BuildupEnumeration returns failure in TScanModule::SetSupportedPixelType",
         "Memory alloc error in BuildupEnumeration",
         ICAP_PIXELTYPE,
         kCodes,
         TWON_ENUMERATION,
         {TWPT_BW, TWPT_RGB},
         Setter(&CapabilityExports::setSupportedPixelType, LONG{SM_PIXEL_BW | SM_PIXEL_RGB})},
        {"SetPaperSize",
         "SetPaperSize",
         "Sm_6",
         "BuildupOneValue returns failure in TScanModule::SetPaperSize",
         kOneValueAlloc,
         ICAP_SUPPORTEDSIZES,
         kCodes,
         TWON_ONEVALUE,
         {TWSS_USLETTER},
         Setter(&CapabilityExports::setPaperSize, LONG{SM_PAPER_USLETTER})},
        {"SetSupportedPaperSize",
         "SetSupportedPaperSize",
         "Sm_6",
         "BuildupEnumeration returns failure in TScanModule::SetSupportedPaperSize",
         "Memory alloc error in BuildupEnumeration",
         ICAP_SUPPORTEDSIZES,
         kCodes,
         TWON_ENUMERATION,
         {TWSS_NONE, TWSS_USLETTER, TWSS_USLEGAL},
         Setter(&CapabilityExports::setSupportedPaperSize, LONG{SM_PAPER_NONE | SM_PAPER_USLETTER | SM_PAPER_USLEGAL})},
        {"SetXferMech",
         "SetXferMech",
         "Sm_6",
         "BuildupOneValue returns failure in TScanModule::SetXferMech",
         kOneValueAlloc,
         ICAP_XFERMECH,
         kCodes,
         TWON_ONEVALUE,
         {TWSX_FILE},
         Setter(&CapabilityExports::setXferMech, LONG{SM_XFER_FILE})},
        {"SetXferCount",
         "SetXferCount",
         "Sm_6",
         "BuildupOneValue returns failure in TScanModule::SetXferCount",
         kOneValueAlloc,
         CAP_XFERCOUNT,
         {TWTY_INT16, TWTY_UINT16, TWTY_BOOL},
         TWON_ONEVALUE,
         {4},
         Setter(&CapabilityExports::setXferCount, LONG{4})},
        {"SetXResolution",
         "SetXResolution",
         "Sm_6",
         "BuildupOneValue returns failure in TScanModule::SetXResolution",
         kOneValueAlloc,
         ICAP_XRESOLUTION,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(300)},
         Setter(&CapabilityExports::setXResolution, LONG{300})},
        {"SetYResolution",
         "SetYResolution",
         "Sm_6",
         "BuildupOneValue returns failure in TScanModule::SetYResolution",
         kOneValueAlloc,
         ICAP_YRESOLUTION,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(200)},
         Setter(&CapabilityExports::setYResolution, LONG{200})},
        {"SetXScale",
         "SetXScale",
         "Sm_7",
         "BuildupOneValue returns failure in TScanModule::SetXScale",
         kOneValueAlloc,
         ICAP_XSCALING,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(2.0)},
         Setter(&CapabilityExports::setXScale, 2.0)},
        {"SetYScale",
         "SetYScale",
         "Sm_7",
         "BuildupOneValue returns failure in TScanModule::SetYScale",
         kOneValueAlloc,
         ICAP_YSCALING,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(0.5)},
         Setter(&CapabilityExports::setYScale, 0.5)},
        // Range-scaled on 0..100 over the source's ranges: brightness and contrast -1000..1000, the others 0..255.
        {"SetBrightness",
         "SetBrightness",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetBrightness",
         kOneValueAlloc,
         ICAP_BRIGHTNESS,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(500)},
         Scaled(&CapabilityExports::setBrightness, 75)},
        {"SetContrast",
         "SetContrast",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetContrast",
         kOneValueAlloc,
         ICAP_CONTRAST,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(0)},
         Scaled(&CapabilityExports::setContrast, 50)},
        {"SetHighlight",
         "SetHighlight",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetHighlight",
         kOneValueAlloc,
         ICAP_HIGHLIGHT,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(255)},
         Scaled(&CapabilityExports::setHighlight, 100)},
        {"SetShadow",
         "SetShadow",
         "Sm_4",
         "BuildupOneValue return failure in TScanModule::SetShadow",
         kOneValueAlloc,
         ICAP_SHADOW,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(51)},
         Scaled(&CapabilityExports::setShadow, 20)},
        {"SetThreshold",
         "SetThreshold",
         "Sm_4",
         "BuildupOneValue returns failure in TScanModule::SetThreshold",
         kOneValueAlloc,
         ICAP_THRESHOLD,
         kFix32,
         TWON_ONEVALUE,
         {ModuleFix32(128)},
         Scaled(&CapabilityExports::setThreshold, 50)},
        {"SetIndex",
         "SetIndex",
         "Sm_5",
         "BuildupArray returns failure in TScanModule::SetIndex",
         "Memory alloc error in BuildupArray",
         ICAP_IMAGEDATASET,
         {TWTY_UINT32},
         TWON_ARRAY,
         {2, 3},
         [](const CapabilityExports &sm) {
             DWORD list[] = {2, 3};
             return sm.setIndex ? sm.setIndex(2, list) : kMissing;
         },
         "List"},
        // Without a list the count goes as a one-value.
        {"SetIndex",
         "SetIndex",
         "Sm_5",
         "BuildupOneValue returns failure in TScanModule::SetIndex",
         kOneValueAlloc,
         ICAP_IMAGEDATASET,
         {TWTY_UINT32},
         TWON_ONEVALUE,
         {2},
         [](const CapabilityExports &sm) { return sm.setIndex ? sm.setIndex(2, nullptr) : kMissing; },
         "OneValue"},
    };
    return rows;
}

std::vector<SetRow> MultiTypeSetRows() {
    std::vector<SetRow> rows;
    for (const SetRow &row : SetRows())
        if (row.types.size() > 1)
            rows.push_back(row);
    return rows;
}

std::string SetTestName(const ::testing::TestParamInfo<SetRow> &info) {
    return std::string(info.param.name) + info.param.variant;
}

class SetAccessorTest : public CapabilityTest, public ::testing::WithParamInterface<SetRow> {
protected:
    LONG Call() { return GetParam().call(sm); }
    std::string Text(const char *what) const { return std::string(what) + " in TScanModule::" + GetParam().method; }
    void ExpectSent(const TdsmCall &call, TW_UINT16 itemType) {
        const SetRow &row = GetParam();
        EXPECT_EQ(MSG_SET, call.msg);
        EXPECT_EQ(row.conType, call.capIn.conType);
        EXPECT_TRUE(call.capIn.hasContainer);
        EXPECT_FALSE(call.capIn.truncated);
        EXPECT_EQ(itemType, call.capIn.itemType);
        EXPECT_EQ(row.items, std::vector<TW_UINT32>(call.capIn.items, call.capIn.items + call.capIn.storedItems));
    }
};

TEST_P(SetAccessorTest, FirstItemTypeIsTakenAndTheContainerReleased) {
    const SetRow &row = GetParam();
    const LONG rc = Call();
    EXPECT_EQ(SM_OK, rc) << TwccName(rc);
    const std::vector<TdsmCall> calls = CapCalls(row.cap);
    ASSERT_EQ(1u, calls.size());
    ExpectSent(calls[0], row.types[0]);
    EXPECT_EQ(TWRC_SUCCESS, calls[0].rc);
    EXPECT_EQ(Strings{}, Warnings());
    EXPECT_EQ(1, tracker.Allocations()) << "one container built";
    EXPECT_TRUE(NoContainerLeft());
    EXPECT_TRUE(EntryAndExit(row.file, row.name));
}

TEST_P(SetAccessorTest, EveryItemTypeRefusedGivesTheConditionCode) {
    const SetRow &row = GetParam();
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, row.cap, TWRC_FAILURE, TWCC_DENIED, 1, 0);
    const LONG rc = Call();
    EXPECT_EQ(TWCC_DENIED, rc) << TwccName(rc);
    const std::vector<TdsmCall> calls = CapCalls(row.cap);
    ASSERT_EQ(row.types.size(), calls.size()) << "one attempt per candidate item type";
    for (size_t i = 0; i < calls.size(); ++i)
        ExpectSent(calls[i], row.types[i]);
    Strings triplets;
    for (size_t i = 0; i < row.types.size(); ++i) {
        triplets.push_back(CapLine(row.cap, MSG_SET, TWRC_FAILURE));
        triplets.push_back(StatusLine());
    }
    EXPECT_EQ(triplets, CapTriplets(row.cap));
    EXPECT_EQ(Strings(row.types.size(), Text("CapNegotiate returns failure")), Warnings());
    EXPECT_TRUE(WarningsFrom(row.file));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, row.file, row.name, row.method));
    EXPECT_TRUE(EntryAndExit(row.file, row.name));
    EXPECT_EQ(static_cast<int>(row.types.size()), tracker.Allocations());
    EXPECT_TRUE(NoContainerLeft()) << "released after a failed set too";
}

TEST_P(SetAccessorTest, FailedBuildSendsNothing) {
    const SetRow &row = GetParam();
    tracker.FailNextAllocations(1);
    const LONG rc = Call();
    EXPECT_EQ(TWCC_LOWMEMORY, rc) << TwccName(rc);
    EXPECT_TRUE(CapCalls(row.cap).empty());
    EXPECT_EQ((Strings{row.codecWarning, row.buildWarning}), Warnings());
    EXPECT_TRUE(OneRecord("Warning", row.file, row.buildWarning));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, row.file, row.name, row.method));
    EXPECT_TRUE(EntryAndExit(row.file, row.name)) << "the exit record is written on the failure path too";
    EXPECT_TRUE(NoContainerLeft());
}

TEST_P(SetAccessorTest, WithoutAnOpenSourceSendsNothing) {
    CloseSource();
    const LONG rc = Call();
    EXPECT_EQ(SM_ERR_SEQUENCE, rc) << TwccName(rc);
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_EQ(Strings{"Sequence error in TScanModule::" + std::string(GetParam().name)}, Warnings());
    EXPECT_TRUE(WarningsFrom(GetParam().file));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, GetParam().file, GetParam().name, GetParam().name));
    EXPECT_TRUE(EntryAndExit(GetParam().file, GetParam().name));
    EXPECT_EQ(0, tracker.Allocations());
}

INSTANTIATE_TEST_SUITE_P(CapabilityRows, SetAccessorTest, ::testing::ValuesIn(SetRows()), SetTestName);

class SetRetryTest : public SetAccessorTest {};

// The source takes the second candidate only: the first is refused, the second sets the value.
TEST_P(SetRetryTest, SecondItemTypeIsTriedAfterARefusal) {
    const SetRow &row = GetParam();
    ASSERT_EQ(1, scanner.setSetType(row.cap, row.types[1]));
    const LONG rc = Call();
    EXPECT_EQ(SM_OK, rc) << TwccName(rc);
    const std::vector<TdsmCall> calls = CapCalls(row.cap);
    ASSERT_EQ(2u, calls.size());
    ExpectSent(calls[0], row.types[0]);
    ExpectSent(calls[1], row.types[1]);
    EXPECT_EQ((Strings{CapLine(row.cap, MSG_SET, TWRC_FAILURE), StatusLine(), CapLine(row.cap, MSG_SET, TWRC_SUCCESS)}),
              CapTriplets(row.cap));
    EXPECT_EQ(Strings{Text("CapNegotiate returns failure")}, Warnings());
    EXPECT_TRUE(WarningsFrom(row.file));
    EXPECT_EQ(2, tracker.Allocations());
    EXPECT_TRUE(NoContainerLeft());
}

INSTANTIATE_TEST_SUITE_P(CapabilityRows, SetRetryTest, ::testing::ValuesIn(MultiTypeSetRows()), SetTestName);

// --- The accessors outside the two tables.

TEST_F(CapabilityTest, TrialResolutionWithoutASourceGivesTheSequenceError) {
    CloseSource();
    const LONG rc = sm.isThisDPIAvailable(300, 300);
    EXPECT_EQ(SM_ERR_SEQUENCE, rc) << TwccName(rc) << ": the trial set's own result";
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_EQ(
        (Strings{"Sequence error in TScanModule::GetXResolution", "Sequence error in TScanModule::GetYResolution",
                 "Sequence error in TScanModule::SetXResolution",
                 "SetXResolution returns failure in TScanModule::IsThisDPIAvailable",
                 "Sequence error in TScanModule::SetXResolution", "Sequence error in TScanModule::SetYResolution"}),
        Warnings())
        << "the saved resolutions are set again even so";
    EXPECT_TRUE(OneRecord("Warning", "Sm_6", "SetXResolution returns failure in TScanModule::IsThisDPIAvailable"));
    EXPECT_TRUE(EntryAndExit("Sm_6", "IsThisDPIAvailable"));
    EXPECT_EQ(0, tracker.Allocations());
}

TEST_F(CapabilityTest, ProductNameInStateFourAndWithoutASource) {
    char name[40];
    std::memset(name, 'x', sizeof name);
    EXPECT_TRUE(IsStatus(SM_OK, sm.getDSProductName(name)));
    EXPECT_STREQ("Virtual Scanner", name);
    EXPECT_EQ(Strings{}, Triplets()) << "no negotiation";
    EXPECT_EQ(Strings{}, Warnings());
    EXPECT_TRUE(EntryAndExit("Sm_4", "GetDSProductName"));
    CloseSource();
    std::memset(name, 'x', sizeof name);
    EXPECT_TRUE(IsStatus(SM_ERR_SEQUENCE, sm.getDSProductName(name)));
    EXPECT_EQ('x', name[0]) << "the buffer is left alone";
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_TRUE(OneRecord("Warning", "Sm_4", "Sequence error in TScanModule::GetDSProductName"));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, "Sm_4", "GetDSProductName", "GetDSProductName"));
    EXPECT_TRUE(EntryAndExit("Sm_4", "GetDSProductName"));
}

// The bit-depth getter has no export; the snapshot calls it: current value first, then MSG_GET.
TEST_F(CapabilityTest, BitDepthIsAskedForThroughTheSnapshot) {
    ScanCapBytes record;
    ASSERT_TRUE(IsStatus(SM_OK, sm.getScanCap(&record)));
    EXPECT_EQ((Strings{CapLine(ICAP_BITDEPTH, MSG_GETCURRENT, TWRC_SUCCESS)}), CapTriplets(ICAP_BITDEPTH));
    EXPECT_TRUE(EntryAndExit("Sm_5", "Getbitdepth"));
    Reset();
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, ICAP_BITDEPTH, TWRC_FAILURE, TWCC_DENIED, 1, 1);
    ASSERT_EQ(1, scanner.setContainer(ICAP_BITDEPTH, MSG_GET, TWON_RANGE));
    ASSERT_TRUE(IsStatus(SM_OK, sm.getScanCap(&record)));
    EXPECT_EQ((Strings{CapLine(ICAP_BITDEPTH, MSG_GETCURRENT, TWRC_FAILURE), StatusLine(),
                       CapLine(ICAP_BITDEPTH, MSG_GET, TWRC_SUCCESS)}),
              CapTriplets(ICAP_BITDEPTH));
    EXPECT_EQ((Strings{"CapNegotiate returns failure in TScanModule::Getbitdepth",
                       "Invalid container type in TScanModule::Getbitdepth"}),
              Warnings())
        << "a range is refused";
    EXPECT_TRUE(OneRecord("Warning", "Sm_5", "Invalid container type in TScanModule::Getbitdepth"));
    EXPECT_EQ(8, record.At(72)) << "the snapshot reports 8 whatever the source says";
    EXPECT_TRUE(NoContainerLeft());
}

// Entry and exit records of the accessors that are in neither table, with the file that writes them.
TEST_F(CapabilityTest, EveryOtherAccessorNamesItsSourceFile) {
    struct Other {
        const char *method;
        const char *file;
        std::function<void()> call;
    };
    const Other others[] = {
        {"CapNegotiate", "Sm_4",
         [this] {
             TW_CAPABILITY cap{ICAP_UNITS, TWON_DONTCARE16, nullptr};
             ASSERT_TRUE(IsReturnCode(TWRC_SUCCESS, sm.capNegotiate(MSG_GET, &cap)));
             GlobalFree(cap.hContainer);
         }},
        {"IsThisDPIAvailable", "Sm_6", [this] { EXPECT_TRUE(IsStatus(SM_OK, sm.isThisDPIAvailable(300, 300))); }},
        {"GetMemXferSize", "Sm_7",
         [this] {
             DWORD minimum, maximum, preferred;
             EXPECT_TRUE(IsStatus(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred)));
         }},
        {"GetPendingCount", "Sm_7",
         [this] {
             WORD count;
             EXPECT_TRUE(IsStatus(SM_ERR_SEQUENCE, sm.getPendingCount(&count)));
         }},
        {"GetScanCap", "Sm_7",
         [this] {
             ScanCapBytes record;
             EXPECT_TRUE(IsStatus(SM_OK, sm.getScanCap(&record)));
         }},
        {"GetDSBrightnessRange", "Sm_3",
         [this] {
             ASSERT_EQ(SM_OK, closeDS());
             viewer.Clear();
             ASSERT_EQ(SM_OK, openDS(window, "Capability test")) << "opening reads the brightness range";
         }},
    };
    for (const Other &other : others) {
        SCOPED_TRACE(other.method);
        Reset();
        other.call();
        EXPECT_TRUE(EntryAndExit(other.file, other.method));
        EXPECT_TRUE(WarningsFrom(other.file));
    }
}

// --- The whole family against a source that takes every value.

TEST_F(CapabilityTest, EveryValueSetIsReadBack) {
    CheckRoundTrips(sm);
    EXPECT_TRUE(NoContainerLeft());
}

} // namespace
