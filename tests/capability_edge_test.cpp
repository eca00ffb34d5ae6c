// The particular cases of capability negotiation, one by one.

// The negotiation call itself, the transfer mechanism, the range-scaled settings, conversions, what each accessor
// reads, the snapshot, buffer sizes, and sources answering malformed containers.
#include <gtest/gtest.h>

#include <cstring>

#include "CapabilityTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kMechanismTaken[] = "Especially processing MSG_SET/ICAP_XFERMECH in TScanModule::CapNegotiate";

class CapabilityEdgeTest : public CapabilityTest {
protected:
    // A tone getter asked on a scale whose bounds are equal (10 to 10).
    static LONG Equal(LONG(WINAPI *get)(short *, LONG, LONG), Outputs &values) {
        short value = kPresetOutput;
        const LONG rc = get(&value, 10, 10);
        values = {static_cast<double>(value)};
        return rc;
    }
    // Closes and opens the source again, so that the brightness range is read anew.
    void Reopen() {
        ASSERT_EQ(SM_OK, closeDS());
        ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
        Reset();
    }
    // The item words sent by the MSG_SET calls of a capability since the mark.
    std::vector<TW_UINT32> SentItems(TW_UINT16 cap) const {
        std::vector<TW_UINT32> out;
        for (const TdsmCall &call : CapCalls(cap))
            if (call.msg == MSG_SET)
                out.insert(out.end(), call.capIn.items, call.capIn.items + call.capIn.storedItems);
        return out;
    }
    int TraceCount(const std::string &text) const { return viewer.CountText(text); }
};

// --- The negotiation call.

TEST_F(CapabilityEdgeTest, CapNegotiateSendsEvenWithoutAnOpenSource) {
    CloseSource();
    TW_CAPABILITY cap{ICAP_UNITS, TWON_DONTCARE16, nullptr};
    const WORD rc = sm.capNegotiate(MSG_GET, &cap);
    EXPECT_EQ(TWRC_FAILURE, rc) << TwrcName(rc) << ": the source manager is closed";
    ASSERT_EQ(1u, CapCalls(ICAP_UNITS).size()) << "sent to the source manager anyway";
    EXPECT_EQ(MSG_GET, CapCalls(ICAP_UNITS)[0].msg);
}

TEST_F(CapabilityEdgeTest, CapNegotiateHandsTheAnswerToTheCaller) {
    TW_CAPABILITY cap{ICAP_PIXELTYPE, TWON_DONTCARE16, nullptr};
    ASSERT_EQ(TWRC_SUCCESS, sm.capNegotiate(MSG_GET, &cap));
    EXPECT_EQ(TWON_ENUMERATION, cap.ConType);
    ASSERT_NE(nullptr, cap.hContainer);
    EXPECT_EQ(1u, tracker.Live().size()) << "the caller owns the container: " << tracker.Describe();
    GlobalFree(cap.hContainer);
}

// The cached mechanism is read only by the scan to file; what shows now is the record written when a set of
// ICAP_XFERMECH is taken, and the source's own mechanism.
TEST_F(CapabilityEdgeTest, MechanismSetAnsweredCheckStatusIsNotTaken) {
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, TWRC_CHECKSTATUS, TWCC_SUCCESS, 1, 1);
    TW_CAPABILITY cap{ICAP_XFERMECH, TWON_ONEVALUE, OneValue(TWTY_UINT16, TWSX_FILE)};
    EXPECT_EQ(TWRC_CHECKSTATUS, sm.capNegotiate(MSG_SET, &cap));
    GlobalFree(cap.hContainer);
    EXPECT_EQ(0, TraceCount(kMechanismTaken));
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    EXPECT_EQ(SM_XFER_NATIVE, flag) << "still native at the source";
}

TEST_F(CapabilityEdgeTest, MechanismSetWithAnEnumerationIsTaken) {
    TW_CAPABILITY cap{ICAP_XFERMECH, TWON_ENUMERATION,
                      Enumeration(TWTY_UINT16, {TWSX_NATIVE, TWSX_FILE, TWSX_MEMORY}, 1)};
    EXPECT_EQ(TWRC_SUCCESS, sm.capNegotiate(MSG_SET, &cap));
    GlobalFree(cap.hContainer);
    EXPECT_TRUE(OneRecord("Trace", "Sm_4", kMechanismTaken));
    EXPECT_EQ((Strings{"Coming ExtractEnumerationValue", "Leaving ExtractEnumerationValue"}),
              CodecRecordsIn("CapNegotiate"))
        << "the current item of the caller's enumeration";
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    EXPECT_EQ(SM_XFER_FILE, flag);
}

// Only the low word of the message reaches the source: 0x00010006 is MSG_SET there, and the mechanism it sets is
// taken.
TEST_F(CapabilityEdgeTest, MechanismSetWithAMessageInALongWordIsTaken) {
    TW_CAPABILITY cap{ICAP_XFERMECH, TWON_ONEVALUE, OneValue(TWTY_UINT16, TWSX_FILE)};
    EXPECT_TRUE(IsReturnCode(TWRC_SUCCESS, sm.capNegotiate(0x00010000 | MSG_SET, &cap)));
    GlobalFree(cap.hContainer);
    const std::vector<TdsmCall> calls = CapCalls(ICAP_XFERMECH);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(MSG_SET, calls[0].msg);
    EXPECT_TRUE(OneRecord("Trace", "Sm_4", kMechanismTaken));
    EXPECT_EQ((Strings{"Coming ExtractOneValue", "Leaving ExtractOneValue"}), CodecRecordsIn("CapNegotiate"))
        << "the item of the caller's one-value";
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    EXPECT_EQ(SM_XFER_FILE, flag);
}

TEST_F(CapabilityEdgeTest, MechanismGetsAndFailedSetsAreNotTaken) {
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, TWRC_FAILURE, TWCC_BADVALUE, 1, 0);
    EXPECT_EQ(TWCC_BADVALUE, sm.setXferMech(SM_XFER_MEMORY));
    EXPECT_EQ(0, TraceCount(kMechanismTaken));
}

TEST_F(CapabilityEdgeTest, SetXferMechTakesTheMechanism) {
    EXPECT_EQ(SM_OK, sm.setXferMech(SM_XFER_MEMORY));
    EXPECT_TRUE(OneRecord("Trace", "Sm_4", kMechanismTaken));
    EXPECT_EQ((Strings{"Coming ExtractOneValue", "Leaving ExtractOneValue"}), CodecRecordsIn("CapNegotiate"));
    EXPECT_EQ(Strings{}, Warnings());
}

// A set the manager takes with a container that is neither an enumeration nor a one-value: the mechanism counts
// as memory and nothing is read from the container (the stand-in manager answers for the source, which would
// refuse such a set).
TEST_F(CapabilityEdgeTest, MechanismSetWithAnArrayOrARangeReadsNothing) {
    for (TW_UINT16 conType : {TWON_ARRAY, TWON_RANGE}) {
        SCOPED_TRACE(conType);
        Reset();
        script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_SUCCESS, TWCC_SUCCESS);
        TW_CAPABILITY cap{ICAP_XFERMECH, conType, OneValue(TWTY_UINT16, TWSX_NATIVE)};
        EXPECT_TRUE(IsReturnCode(TWRC_SUCCESS, sm.capNegotiate(MSG_SET, &cap)));
        GlobalFree(cap.hContainer);
        EXPECT_TRUE(OneRecord("Trace", "Sm_4", kMechanismTaken));
        EXPECT_EQ(Strings{}, CodecRecordsIn("CapNegotiate")) << "the container is not read";
        EXPECT_EQ(Strings{}, Warnings());
    }
}

TEST_F(CapabilityEdgeTest, MechanismFlagsThatAreNoMechanismAreRefusedBeforeAnythingIsSent) {
    for (LONG flag : {0L, LONG{SM_XFER_NATIVE | SM_XFER_FILE}, 8L, LONG{SM_XFER_FILE | SM_XFER_MEMORY}, -1L}) {
        SCOPED_TRACE(flag);
        Reset();
        const LONG rc = sm.setXferMech(flag);
        EXPECT_EQ(SM_ERR_BAD_VALUE, rc) << TwccName(rc);
        EXPECT_EQ(Strings{}, Triplets());
        EXPECT_EQ(0, tracker.Allocations()) << "no container built";
        EXPECT_TRUE(EntryAndExit("Sm_6", "SetXferMech"));
    }
    CloseSource();
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.setXferMech(3)) << "the sequence check comes first";
    EXPECT_TRUE(OneRecord("Warning", "Sm_6", "Sequence error in TScanModule::SetXferMech"));
}

TEST_F(CapabilityEdgeTest, UiControllableIsAskedAgainWithMessageZero) {
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, CAP_UICONTROLLABLE, TWRC_FAILURE, TWCC_DENIED, 1, 0);
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, 0, CAP_UICONTROLLABLE, TWRC_FAILURE, TWCC_CAPSEQERROR, 1, 0);
    LONG answer = 77;
    const LONG rc = sm.nonUIAvailable(&answer);
    EXPECT_EQ(TWCC_CAPSEQERROR, rc) << TwccName(rc) << ": the status of the second failure";
    EXPECT_EQ(0, answer);
    const std::vector<TdsmCall> calls = CapCalls(CAP_UICONTROLLABLE);
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(MSG_GET, calls[0].msg);
    EXPECT_EQ(0, calls[1].msg);
    EXPECT_EQ(TWON_ONEVALUE, calls[0].capIn.conType);
    EXPECT_EQ(TWON_ONEVALUE, calls[1].capIn.conType);
    EXPECT_EQ(Strings(2, "CapNegotiate returns failure in TScanModule::IsNonUIAvailable"), Warnings());
}

TEST_F(CapabilityEdgeTest, RangeWhereOnlyOneValuesAreAcceptedIsReleased) {
    ASSERT_EQ(1, scanner.setContainer(CAP_THUMBNAILSENABLED, MSG_GETCURRENT, TWON_RANGE));
    ASSERT_EQ(1, scanner.setContainer(CAP_THUMBNAILSENABLED, MSG_GET, TWON_RANGE));
    LONG answer = 77;
    EXPECT_EQ(SM_ERR_BAD_VALUE, sm.getThumbMode(&answer));
    EXPECT_EQ(0, answer);
    EXPECT_EQ(2, tracker.Allocations());
    EXPECT_EQ(2, tracker.Frees());
    EXPECT_TRUE(NoContainerLeft());
}

// --- Range-scaled settings.

TEST_F(CapabilityEdgeTest, BrightnessRangeIsReadWhenTheSourceOpens) {
    // The source's range -100..100 with a step of 1: its values, whose smallest gap is the step it answers.
    const double range[] = {-100, -99, 0, 100};
    ASSERT_EQ(1, scanner.setValues(ICAP_BRIGHTNESS, 4, range));
    ASSERT_EQ(SM_OK, closeDS());
    Reset();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    const std::vector<TdsmCall> open = CapCalls(ICAP_BRIGHTNESS);
    ASSERT_EQ(1u, open.size()) << "opening reads the brightness range";
    EXPECT_EQ(MSG_GET, open[0].msg);
    ASSERT_EQ(TWON_RANGE, open[0].capOut.conType);
    EXPECT_EQ(static_cast<TW_UINT16>(-100), open[0].capOut.minValue) << "Whole -100, Frac 0";
    EXPECT_EQ(100u, open[0].capOut.maxValue);
    EXPECT_EQ(1u, open[0].capOut.stepSize);
    EXPECT_EQ((Strings{"Coming ExtractRangeValue", "Leaving ExtractRangeValue", "Coming ExtractRangeValue",
                       "Leaving ExtractRangeValue", "Coming ExtractRangeValue", "Leaving ExtractRangeValue"}),
              CodecRecordsIn("GetDSBrightnessRange"))
        << "minimum, maximum and step";
    EXPECT_TRUE(EntryAndExit("Sm_3", "GetDSBrightnessRange"));
    Reset();
    EXPECT_EQ(SM_OK, sm.setBrightness(128, 0, 255));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(0.0)}), SentItems(ICAP_BRIGHTNESS)) << "128 of 0..255 is 0.0";
    Reset();
    sm.setBrightness(0, 0, 255);
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(-100.0)}), SentItems(ICAP_BRIGHTNESS));
    EXPECT_EQ(0x0001FF9Cu, ModuleFix32(-100.0)) << "Whole -100, Frac 1";
    Reset();
    EXPECT_EQ(SM_OK, sm.setBrightness(255, 0, 255));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(100.0)}), SentItems(ICAP_BRIGHTNESS));
    ASSERT_EQ(SM_OK, sm.setBrightness(128, 0, 255));
    ASSERT_EQ(0.0, CurrentThroughLibrary(sm, ICAP_BRIGHTNESS)) << "the source holds 0.0";
    short value = 0;
    EXPECT_EQ(SM_OK, sm.getBrightness(&value, 0, 255));
    EXPECT_EQ(128, value) << "0.0 on -100..100 reads as 128 of 0..255";
    EXPECT_TRUE(EntryAndExit("Sm_4", "GetBrightness"));
}

TEST_F(CapabilityEdgeTest, ContrastKeepsItsInitialRange) {
    EXPECT_EQ(SM_OK, sm.setContrast(50, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(0.0)}), SentItems(ICAP_CONTRAST));
    Reset();
    sm.setContrast(1, 0, 100);
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(-980.0)}), SentItems(ICAP_CONTRAST));
}

TEST_F(CapabilityEdgeTest, BrightnessEnumerationGivesItsSmallestAndLargestItems) {
    const double items[] = {-50, 0, 50};
    ASSERT_EQ(1, scanner.setValues(ICAP_BRIGHTNESS, 3, items));
    ASSERT_EQ(1, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ENUMERATION));
    Reopen();
    EXPECT_EQ(SM_OK, sm.setBrightness(100, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(50.0)}), SentItems(ICAP_BRIGHTNESS)) << "max 50, step 1 kept";
    Reset();
    EXPECT_EQ(SM_OK, sm.setBrightness(51, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(1.0)}), SentItems(ICAP_BRIGHTNESS))
        << "51 of 0..100 is 51 steps of 1 from -50";
}

TEST_F(CapabilityEdgeTest, BrightnessRangeWithoutWidthFallsBack) {
    const double single[] = {5};
    ASSERT_EQ(1, scanner.setValues(ICAP_BRIGHTNESS, 1, single));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    EXPECT_TRUE(OneRecord("Warning", "Sm_3",
                          "MinDSBrightnessRange == MaxDSBrightnessRange in TScanModule::GetDSBrightnessRange"));
    Reset();
    sm.setBrightness(50, 0, 100);
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(0.0)}), SentItems(ICAP_BRIGHTNESS)) << "-1000..1000 again";
}

// At open, a refused container and a failed negotiation are each followed by MSG_GETCURRENT, whose one-value is taken
// without being read. The warnings name the query on its own line of Sm_3.
TEST_F(CapabilityEdgeTest, BrightnessRangeAsksAgainAfterARefusalOrAFailure) {
    const std::string method = "GetDSBrightnessRange";
    const struct {
        const char *name;
        std::function<void()> spoil;
        Strings triplets;
        std::string warning;
    } cases[] = {
        {"array",
         [this] { ASSERT_EQ(1, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ARRAY)); },
         {CapLine(ICAP_BRIGHTNESS, MSG_GET, TWRC_SUCCESS), CapLine(ICAP_BRIGHTNESS, MSG_GETCURRENT, TWRC_SUCCESS)},
         "Invalid container type in TScanModule::" + method},
        {"failure",
         [this] {
             scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_BRIGHTNESS, TWRC_FAILURE, TWCC_DENIED, 1, 1);
         },
         {CapLine(ICAP_BRIGHTNESS, MSG_GET, TWRC_FAILURE), StatusLine(),
          CapLine(ICAP_BRIGHTNESS, MSG_GETCURRENT, TWRC_SUCCESS)},
         "CapNegotiate returns failure in TScanModule::" + method},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(SM_OK, closeDS());
        scanner.reset();
        c.spoil();
        Reset();
        ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
        EXPECT_EQ(c.triplets, CapTriplets(ICAP_BRIGHTNESS));
        EXPECT_EQ(Strings{c.warning}, Warnings());
        EXPECT_TRUE(OneRecord("Warning", "Sm_3", c.warning));
        EXPECT_TRUE(WarningsOnTheEntryLine(viewer, "Sm_3", method, method));
        EXPECT_EQ(Strings{}, CodecRecordsIn(method)) << "nothing read from the one-value";
        EXPECT_EQ(tracker.Allocations(), tracker.Frees()) << "every answer released: " << tracker.Describe();
    }
}

TEST_F(CapabilityEdgeTest, BrightnessRangeWithoutStepGetsAStepOfOne) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_ZERORANGESTEP, 1));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test")) << "the repair does not change the result";
    EXPECT_TRUE(OneRecord("Warning", "Sm_3", "BrightnessStepSize == 0 in TScanModule::GetDSBrightnessRange"));
    Reset();
    // With a step of 1 on -1000..1000, 51 of 0..100 is 1020 steps from the minimum: 20.
    EXPECT_NE(SM_ERR_BAD_VALUE, sm.setBrightness(51, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(20.0)}), SentItems(ICAP_BRIGHTNESS));
}

// Equal application bounds are refused by each tone method before anything is built or sent: 10, a getter's output
// 0, and the method's range warning on its own line.
TEST_F(CapabilityEdgeTest, EqualApplicationBoundsAreRefusedWithoutContactingTheSource) {
    const std::string bad = "Bad range setting, minRange == maxRange, in TScanModule::";
    const struct {
        const char *method;
        std::string warning;
        std::function<LONG(Outputs &)> call;
    } tones[] = {
        {"GetBrightness", bad + "GetBrightness", [this](Outputs &v) { return Equal(sm.getBrightness, v); }},
        {"GetContrast", bad + "GetContrast", [this](Outputs &v) { return Equal(sm.getContrast, v); }},
        {"GetHighlight", bad + "GetHighlight", [this](Outputs &v) { return Equal(sm.getHighlight, v); }},
        {"GetShadow", bad + "GetShadow", [this](Outputs &v) { return Equal(sm.getShadow, v); }},
        {"SetBrightness", bad + "SetBrightness", [this](Outputs &) { return sm.setBrightness(5, 10, 10); }},
        {"SetContrast", "Bas range setting, minRange == maxRange, in TScanModule::SetContrast",
         [this](Outputs &) { return sm.setContrast(5, 10, 10); }},
        {"SetHighlight", bad + "SetHighlight", [this](Outputs &) { return sm.setHighlight(5, -3, -3); }},
        {"SetShadow", bad + "SetShadow", [this](Outputs &) { return sm.setShadow(5, 3, 3); }},
        {"SetThreshold", bad + "SetThreshold", [this](Outputs &) { return sm.setThreshold(5, 0, 0); }},
    };
    for (const auto &tone : tones) {
        SCOPED_TRACE(tone.method);
        Reset();
        Outputs values;
        EXPECT_TRUE(IsStatus(SM_ERR_BAD_VALUE, tone.call(values)));
        if (!values.empty()) {
            EXPECT_TRUE(SameOutputs({0}, values));
        }
        EXPECT_EQ(Strings{}, Triplets());
        EXPECT_EQ(0, tracker.Allocations()) << "no container built";
        EXPECT_EQ(Strings{tone.warning}, Warnings());
        EXPECT_TRUE(OneRecord("Warning", "Sm_4", tone.warning));
        EXPECT_TRUE(WarningsOnTheEntryLine(viewer, "Sm_4", tone.method, tone.method));
    }
}

// --- Conversions.

TEST_F(CapabilityEdgeTest, UnknownPixelTypeCodeReadsAsGray) {
    const double codes[] = {TWPT_GRAY, 9};
    ASSERT_EQ(1, scanner.setValues(ICAP_PIXELTYPE, 2, codes));
    WORD flag = 0;
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_EQ(SM_OK, sm.getPixelType(&flag));
    EXPECT_EQ(SM_PIXEL_GRAY, flag) << "code 1";
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_PIXELTYPE, TWTY_UINT16, 9));
    EXPECT_EQ(SM_OK, sm.getPixelType(&flag));
    EXPECT_EQ(SM_PIXEL_GRAY, flag) << "code 9";
}

TEST_F(CapabilityEdgeTest, UnknownPaperAndUnitCodesReadAsTheirFirstFlag) {
    const double sizes[] = {TWSS_NONE, 9};
    ASSERT_EQ(1, scanner.setValues(ICAP_SUPPORTEDSIZES, 2, sizes));
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_SUPPORTEDSIZES, TWTY_UINT16, 9));
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getPaperSize(&flag));
    EXPECT_EQ(SM_PAPER_NONE, flag);
    const double units[] = {TWUN_INCHES, 6};
    ASSERT_EQ(1, scanner.setValues(ICAP_UNITS, 2, units));
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, 6));
    EXPECT_EQ(SM_OK, sm.getUnit(&flag));
    EXPECT_EQ(SM_UNIT_INCHES, flag);
}

TEST_F(CapabilityEdgeTest, FlagsThatAreNotOneBitSendTheDefaultCode) {
    sm.setPaperSize(SM_PAPER_NONE | SM_PAPER_A4LETTER);
    EXPECT_EQ((std::vector<TW_UINT32>{TWSS_NONE}), SentItems(ICAP_SUPPORTEDSIZES));
    Reset();
    sm.setPixelType(SM_PIXEL_BW | SM_PIXEL_GRAY);
    sm.setPixelType(0);
    EXPECT_EQ((std::vector<TW_UINT32>{TWPT_GRAY, TWPT_GRAY}), SentItems(ICAP_PIXELTYPE));
}

TEST_F(CapabilityEdgeTest, SetIndexSendsTheLeadingNonZeroEntries) {
    DWORD list[] = {7, 9, 0, 12};
    const LONG rc = sm.setIndex(4, list);
    EXPECT_EQ(TWCC_BADVALUE, rc) << TwccName(rc) << ": the source has three sheets";
    const std::vector<TdsmCall> calls = CapCalls(ICAP_IMAGEDATASET);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(TWON_ARRAY, calls[0].capIn.conType);
    EXPECT_EQ(TWTY_UINT32, calls[0].capIn.itemType);
    EXPECT_EQ(2u, calls[0].capIn.numItems);
    EXPECT_EQ((std::vector<TW_UINT32>{7, 9}), SentItems(ICAP_IMAGEDATASET));
    EXPECT_TRUE(NoContainerLeft());
    Reset();
    DWORD two[] = {2, 3, 1};
    EXPECT_EQ(SM_OK, sm.setIndex(2, two)) << "at most `count` entries";
    EXPECT_EQ((std::vector<TW_UINT32>{2, 3}), SentItems(ICAP_IMAGEDATASET));
}

TEST_F(CapabilityEdgeTest, SetIndexWithoutListSendsAOneValue) {
    EXPECT_TRUE(IsStatus(SM_OK, sm.setIndex(2, nullptr)));
    const std::vector<TdsmCall> calls = CapCalls(ICAP_IMAGEDATASET);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(TWON_ONEVALUE, calls[0].capIn.conType);
    EXPECT_EQ(TWTY_UINT32, calls[0].capIn.itemType);
    EXPECT_EQ((std::vector<TW_UINT32>{2}), SentItems(ICAP_IMAGEDATASET)) << "the count itself";
    EXPECT_TRUE(NoContainerLeft());
}

TEST_F(CapabilityEdgeTest, PaperSizeListWithoutCodeSeven) {
    const double sizes[] = {0, 1, 7, 8};
    ASSERT_EQ(1, scanner.setValues(ICAP_SUPPORTEDSIZES, 4, sizes));
    WORD flags = 0;
    EXPECT_EQ(SM_OK, sm.getSupportedPaperSize(&flags));
    EXPECT_EQ(SM_PAPER_NONE | SM_PAPER_A4LETTER | SM_PAPER_USLEDGER, flags) << "0x103";
}

// A source answering dots per inch in every unit: each resolution is multiplied by the unit's factor and truncated.
// The resolutions listed are chosen so that no product lies on a whole number.
TEST_F(CapabilityEdgeTest, ResolutionFollowsTheUnitFactor) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_DPIINEVERYUNIT, 1));
    const struct {
        TW_UINT16 unit;
        std::vector<double> listed;
        LONG dpi;
        Outputs read; // current, minimum, maximum
    } factors[] = {
        {TWUN_INCHES, {50, 300, 600}, 300, {300, 50, 600}},
        {TWUN_CENTIMETERS, {50, 300, 600}, 300, {118, 19, 236}}, // 1/2.54
        {TWUN_PICAS, {100, 200, 400}, 200, {33, 16, 66}},        // 1/6
        {TWUN_POINTS, {100, 300, 600}, 300, {4, 1, 8}},          // 1/72
        {TWUN_TWIPS, {2000, 3000, 15000}, 3000, {2, 1, 10}},     // 1/1440
        {TWUN_PIXELS, {50, 300, 600}, 300, {300, 50, 600}},      // 1
    };
    for (const auto &f : factors) {
        SCOPED_TRACE("unit " + std::to_string(f.unit));
        ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, TWUN_INCHES));
        ASSERT_EQ(1, scanner.setValues(ICAP_XRESOLUTION, static_cast<int>(f.listed.size()), f.listed.data()));
        ASSERT_EQ(SM_OK, sm.setXResolution(f.dpi));
        ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, f.unit));
        Outputs read;
        EXPECT_TRUE(IsStatus(SM_OK, CallThree(sm.getXResolution, read)));
        EXPECT_TRUE(SameOutputs(f.read, read));
    }
}

// A range answered for the resolution gives its bounds; the scanner lists 50 to 600 dots per inch.
TEST_F(CapabilityEdgeTest, ResolutionRangeGivesItsBounds) {
    const struct {
        TW_UINT16 cap;
        LONG(WINAPI *set)(LONG);
        LONG(WINAPI *get)(short *, short *, short *);
        LONG dpi;
    } axes[] = {{ICAP_XRESOLUTION, sm.setXResolution, sm.getXResolution, 300},
                {ICAP_YRESOLUTION, sm.setYResolution, sm.getYResolution, 150}};
    for (const auto &axis : axes) {
        SCOPED_TRACE(axis.cap);
        ASSERT_EQ(1, scanner.setContainer(axis.cap, MSG_GET, TWON_RANGE));
        ASSERT_EQ(SM_OK, axis.set(axis.dpi));
        Reset();
        Outputs read;
        EXPECT_TRUE(IsStatus(SM_OK, CallThree(axis.get, read)));
        EXPECT_TRUE(SameOutputs({static_cast<double>(axis.dpi), 50, 600}, read));
        const std::vector<TdsmCall> calls = CapCalls(axis.cap);
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ(TWON_RANGE, calls[0].capOut.conType);
        EXPECT_TRUE(NoContainerLeft());
    }
}

// An enumeration answered for the scaling gives only its current item, as minimum and maximum too.
TEST_F(CapabilityEdgeTest, ScaleEnumerationGivesItsCurrentItemThreeTimes) {
    const double listed[] = {0.5, 1, 2};
    const struct {
        TW_UINT16 cap;
        LONG(WINAPI *set)(double);
        LONG(WINAPI *get)(double *, double *, double *);
        double scale;
    } axes[] = {{ICAP_XSCALING, sm.setXScale, sm.getXScale, 2}, {ICAP_YSCALING, sm.setYScale, sm.getYScale, 0.5}};
    for (const auto &axis : axes) {
        SCOPED_TRACE(axis.cap);
        ASSERT_EQ(1, scanner.setValues(axis.cap, 3, listed));
        ASSERT_EQ(1, scanner.setContainer(axis.cap, MSG_GET, TWON_ENUMERATION));
        ASSERT_EQ(SM_OK, axis.set(axis.scale));
        Reset();
        Outputs read;
        EXPECT_TRUE(IsStatus(SM_OK, CallThree(axis.get, read)));
        EXPECT_TRUE(SameOutputs({axis.scale, axis.scale, axis.scale}, read));
        const std::vector<TdsmCall> calls = CapCalls(axis.cap);
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ(TWON_ENUMERATION, calls[0].capOut.conType);
        EXPECT_TRUE(NoContainerLeft());
    }
}

// Width, height, the unit, then the X resolution (which reads the unit again), whatever the unit.
TEST_F(CapabilityEdgeTest, MaxAreaIsInInchesForEveryUnit) {
    ASSERT_EQ(SM_OK, sm.setXResolution(300));
    ASSERT_EQ(SM_OK, sm.setYResolution(300));
    const Strings sent = {
        CapLine(ICAP_PHYSICALWIDTH, MSG_GETCURRENT, TWRC_SUCCESS),
        CapLine(ICAP_PHYSICALHEIGHT, MSG_GETCURRENT, TWRC_SUCCESS), CapLine(ICAP_UNITS, MSG_GETCURRENT, TWRC_SUCCESS),
        CapLine(ICAP_XRESOLUTION, MSG_GET, TWRC_SUCCESS), CapLine(ICAP_UNITS, MSG_GETCURRENT, TWRC_SUCCESS)};
    for (TW_UINT16 unit : {TWUN_INCHES, TWUN_CENTIMETERS, TWUN_PICAS, TWUN_POINTS, TWUN_TWIPS, TWUN_PIXELS}) {
        SCOPED_TRACE("unit " + std::to_string(unit));
        ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, unit));
        Reset();
        double width = 0, height = 0;
        EXPECT_EQ(SM_OK, sm.getMaxArea(&width, &height));
        EXPECT_NEAR(8.5, width, 1e-3);
        EXPECT_NEAR(14.0, height, 1e-3);
        Strings triplets;
        for (const TdsmCall &call : CallsSinceMark())
            triplets.push_back(call.dat == DAT_CAPABILITY ? CapLine(call.capIn.cap, call.msg, call.rc)
                                                          : Describe(call));
        EXPECT_EQ(sent, triplets);
        EXPECT_TRUE(NoContainerLeft());
    }
}

TEST_F(CapabilityEdgeTest, TrialResolutionIsAlwaysUndone) {
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    ASSERT_EQ(SM_OK, sm.setYResolution(150));
    Reset();
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_YRESOLUTION, TWRC_FAILURE, TWCC_DENIED, 1, 1);
    EXPECT_EQ(TWCC_DENIED, sm.isThisDPIAvailable(400, 400));
    EXPECT_EQ(Strings{"SetYResolution returns failure in TScanModule::IsThisDPIAvailable"}, Strings{Warnings().back()});
    EXPECT_TRUE(OneRecord("Warning", "Sm_6", "SetYResolution returns failure in TScanModule::IsThisDPIAvailable"));
    short x = 0, y = 0, low = 0, high = 0;
    EXPECT_EQ(SM_OK, sm.getXResolution(&x, &low, &high));
    EXPECT_EQ(SM_OK, sm.getYResolution(&y, &low, &high));
    EXPECT_EQ(200, x);
    EXPECT_EQ(150, y);
    Reset();
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XRESOLUTION, TWRC_FAILURE, TWCC_DENIED, 1, 1);
    EXPECT_EQ(TWCC_DENIED, sm.isThisDPIAvailable(400, 400));
    const std::vector<TdsmCall> ys = CapCalls(ICAP_YRESOLUTION);
    int ySets = 0;
    for (const TdsmCall &call : ys)
        ySets += call.msg == MSG_SET;
    EXPECT_EQ(1, ySets) << "only the restoring set of Y";
    EXPECT_TRUE(OneRecord("Warning", "Sm_6", "SetXResolution returns failure in TScanModule::IsThisDPIAvailable"));
}

TEST_F(CapabilityEdgeTest, ProductNameOfTheOpenSource) {
    char name[40];
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(SM_OK, sm.getDSProductName(name));
    EXPECT_STREQ("Virtual Scanner", name);
    EXPECT_EQ(Strings{}, Triplets());
    CloseSource();
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getDSProductName(name));
}

TEST_F(CapabilityEdgeTest, IndexesCompareAsUnsignedNumbers) {
    // 40000 is 0x9C40: as a TW_FIX32 its whole part would read -25536, below 3.
    const double sets[] = {3, 40000};
    ASSERT_EQ(1, scanner.setValues(ICAP_IMAGEDATASET, 2, sets));
    DWORD list[] = {3, 40000};
    ASSERT_TRUE(IsStatus(SM_OK, sm.setIndex(2, list)));
    ASSERT_EQ(1, scanner.setContainer(ICAP_IMAGEDATASET, MSG_GET, TWON_ENUMERATION));
    Reset();
    LONG index = 0;
    EXPECT_TRUE(IsStatus(SM_OK, sm.getIndex(&index)));
    EXPECT_EQ(40000, index);
    const std::vector<TdsmCall> calls = CapCalls(ICAP_IMAGEDATASET);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(TWON_ENUMERATION, calls[0].capOut.conType);
    EXPECT_EQ((std::vector<TW_UINT32>{3, 40000}),
              std::vector<TW_UINT32>(calls[0].capOut.items, calls[0].capOut.items + calls[0].capOut.storedItems));
}

// --- What each accessor reads: the codec's records between the accessor's own entry and exit records.

std::vector<std::string> Calls(std::initializer_list<std::string> functions) {
    std::vector<std::string> out;
    for (const std::string &function : functions) {
        out.push_back("Coming " + function);
        out.push_back("Leaving " + function);
    }
    return out;
}

const char kOne[] = "ExtractOneValue";
const char kRange[] = "ExtractRangeValue";
const char kItem[] = "ExtractEnumerationValue";
const char kCount[] = "ExtractEnumerationNumItems";

struct Reading {
    const char *name;
    const char *method;
    TW_UINT16 cap;
    TW_UINT16 container;        // answered to both get messages
    std::vector<double> values; // the capability's values, when the source's own would not do
    std::vector<std::string> records;
    std::function<void(const CapabilityExports &)> call;
};

std::ostream &operator<<(std::ostream &out, const Reading &r) {
    return out << r.name;
}

class AccessorReadingTest : public CapabilityTest, public ::testing::WithParamInterface<Reading> {};

TEST_P(AccessorReadingTest, CodecCallsAreExactlyWhatTheAccessorNeeds) {
    const Reading &r = GetParam();
    // The unit the resolution getters read is answered as a one-value.
    ASSERT_EQ(1, scanner.setContainer(ICAP_UNITS, MSG_GETCURRENT, TWON_ONEVALUE));
    for (TW_UINT16 msg : {MSG_GET, MSG_GETCURRENT}) {
        ASSERT_EQ(1, scanner.setContainer(r.cap, msg, r.container));
    }
    if (!r.values.empty()) {
        ASSERT_EQ(1, scanner.setValues(r.cap, static_cast<int>(r.values.size()), r.values.data()));
    }
    Reset();
    r.call(sm);
    EXPECT_EQ(r.records, CodecRecordsIn(r.method));
    EXPECT_EQ(Strings{}, Warnings());
    EXPECT_TRUE(NoContainerLeft());
}

const std::vector<std::string> kUnitRead = Calls({kOne});

std::vector<std::string> Then(std::vector<std::string> first, const std::vector<std::string> &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

void Scaled(LONG(WINAPI *f)(short *, LONG, LONG)) {
    short value;
    EXPECT_TRUE(IsStatus(SM_OK, f(&value, 0, 100)));
}

template <typename T> void Get(LONG(WINAPI *f)(T *)) {
    Outputs values;
    EXPECT_TRUE(IsStatus(SM_OK, CallOne(f, values)));
}

template <typename T> void Get(LONG(WINAPI *f)(T *, T *, T *)) {
    Outputs values;
    EXPECT_TRUE(IsStatus(SM_OK, CallThree(f, values)));
}

const Reading kReadings[] = {
    {"OneValue",
     "GetADFEnable",
     CAP_FEEDERENABLED,
     TWON_ONEVALUE,
     {},
     Calls({kOne}),
     [](const CapabilityExports &sm) { Get(sm.getADFEnable); }},
    {"ToneRangeCurrentOnly",
     "GetBrightness",
     ICAP_BRIGHTNESS,
     TWON_RANGE,
     {},
     Calls({kRange}),
     [](const CapabilityExports &sm) { Scaled(sm.getBrightness); }},
    {"ToneEnumerationCurrentOnly",
     "GetShadow",
     ICAP_SHADOW,
     TWON_ENUMERATION,
     {0, 128, 255},
     Calls({kItem}),
     [](const CapabilityExports &sm) { Scaled(sm.getShadow); }},
    {"ToneOneValue",
     "GetContrast",
     ICAP_CONTRAST,
     TWON_ONEVALUE,
     {},
     Calls({kOne}),
     [](const CapabilityExports &sm) { Scaled(sm.getContrast); }},
    {"ResolutionRange",
     "GetXResolution",
     ICAP_XRESOLUTION,
     TWON_RANGE,
     {},
     Then(Calls({kRange, kRange, kRange}), kUnitRead),
     [](const CapabilityExports &sm) { Get(sm.getXResolution); }},
    {"ResolutionEnumerationWalked",
     "GetYResolution",
     ICAP_YRESOLUTION,
     TWON_ENUMERATION,
     {100, 200, 300},
     Then(Calls({kItem, kCount, kItem, kItem, kItem}), kUnitRead),
     [](const CapabilityExports &sm) { Get(sm.getYResolution); }},
    {"ScaleRange",
     "GetXScale",
     ICAP_XSCALING,
     TWON_RANGE,
     {},
     Calls({kRange, kRange, kRange}),
     [](const CapabilityExports &sm) { Get(sm.getXScale); }},
    {"ScaleEnumerationCurrentOnly",
     "GetYScale",
     ICAP_YSCALING,
     TWON_ENUMERATION,
     {},
     Calls({kItem}),
     [](const CapabilityExports &sm) { Get(sm.getYScale); }},
    {"CodeEnumerationCurrentOnly",
     "GetPixelType",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     {},
     Calls({kItem}),
     [](const CapabilityExports &sm) { Get(sm.getPixelType); }},
    {"CountEnumerationCurrentOnly",
     "GetXferCount",
     CAP_XFERCOUNT,
     TWON_ENUMERATION,
     {-1, 1, 2},
     Calls({kItem}),
     [](const CapabilityExports &sm) { Get(sm.getXferCount); }},
    {"SupportedListWalkedOnly",
     "GetSupportedPixelType",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     {0, 1, 2},
     Calls({kCount, kItem, kItem, kItem}),
     [](const CapabilityExports &sm) { Get(sm.getSupportedPixelType); }},
    {"IndexWalkedOnly",
     "GetIndex",
     ICAP_IMAGEDATASET,
     TWON_ENUMERATION,
     {},
     Calls({kCount, kItem, kItem, kItem}),
     [](const CapabilityExports &sm) { Get(sm.getIndex); }},
    {"IndexOneValue",
     "GetIndex",
     ICAP_IMAGEDATASET,
     TWON_ONEVALUE,
     {},
     Calls({kOne}),
     [](const CapabilityExports &sm) { Get(sm.getIndex); }},
};

INSTANTIATE_TEST_SUITE_P(CapabilityReadings, AccessorReadingTest, ::testing::ValuesIn(kReadings),
                         [](const ::testing::TestParamInfo<Reading> &info) { return std::string(info.param.name); });

// The brightness range read at open: an enumeration is walked only, a one-value is taken but not read.
TEST_F(CapabilityEdgeTest, BrightnessRangeReadsOnlyWhatItStores) {
    const double items[] = {-50, 0, 50};
    ASSERT_EQ(1, scanner.setValues(ICAP_BRIGHTNESS, 3, items));
    ASSERT_EQ(1, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ENUMERATION));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    EXPECT_EQ(Calls({kCount, kItem, kItem, kItem}), CodecRecordsIn("GetDSBrightnessRange"));
    ASSERT_EQ(1, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ONEVALUE));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    EXPECT_EQ(Strings{}, CodecRecordsIn("GetDSBrightnessRange"));
    EXPECT_TRUE(EntryAndExit("Sm_3", "GetDSBrightnessRange"));
    Reset();
    EXPECT_EQ(SM_OK, sm.setBrightness(100, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(50.0)}), SentItems(ICAP_BRIGHTNESS))
        << "the one-value kept the range the enumeration gave";
}

// --- The capability snapshot.

TEST_F(CapabilityEdgeTest, SnapshotWithoutSource) {
    CloseSource();
    ScanCapBytes record;
    std::memset(&record, 0x77, sizeof record);
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(104, record.At(0));
    EXPECT_EQ(0, record.At(56));
    EXPECT_EQ(8, record.At(72));
    // What the getters answering 11 leave: no resolution, no area, no unit, pixel type or buffer size.
    for (int offset : {60, 64, 68, 76, 80, 84, 88, 92})
        EXPECT_EQ(0, record.At(offset)) << "offset " << offset;
    for (int offset = 4; offset < 56; offset += 4)
        EXPECT_EQ(0x77777777, record.At(offset)) << "offset " << offset << " is not written";
    EXPECT_EQ(0x77777777, record.At(96));
    EXPECT_EQ(0x77777777, record.At(100));
    EXPECT_EQ((Strings{"Sequence error in TScanModule::GetXResolution", "Sequence error in TScanModule::GetMaxArea",
                       "Sequence error in TScanModule::GetUnit", "Sequence error in TScanModule::GetPixelType",
                       "Sequence error in TScanModule::GetMemXferSize", "Sequence error in TScanModule::Getbitdepth"}),
              Warnings())
        << "every getter answers 11";
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_TRUE(EntryAndExit("Sm_7", "GetScanCap"));
}

TEST_F(CapabilityEdgeTest, SnapshotOfTheOpenSource) {
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    ScanCapBytes record;
    std::memset(&record, 0x77, sizeof record);
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(104, record.At(0));
    EXPECT_EQ(600, record.At(60));
    EXPECT_EQ(50, record.At(64));
    EXPECT_EQ(300, record.At(68)) << "200 raised to 300 under a maximum of 600";
    EXPECT_EQ(8, record.At(72));
    EXPECT_EQ(10200, record.At(76)) << "8.5 x 1200";
    EXPECT_EQ(16800, record.At(80));
    EXPECT_EQ(SM_UNIT_INCHES, record.At(84));
    EXPECT_EQ(SM_PIXEL_RGB, record.At(88));
    DWORD minimum = 0, maximum = 0, preferred = 0;
    ASSERT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(static_cast<LONG>(maximum), record.At(92));
    EXPECT_EQ(0x77777777, record.At(4));
    EXPECT_TRUE(NoContainerLeft());
}

TEST_F(CapabilityEdgeTest, SnapshotKeepsALowResolutionUnderALowMaximum) {
    const double low[] = {150, 200, 299};
    ASSERT_EQ(1, scanner.setValues(ICAP_XRESOLUTION, 3, low));
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    ScanCapBytes record;
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(299, record.At(60));
    EXPECT_EQ(150, record.At(64));
    EXPECT_EQ(200, record.At(68)) << "a maximum of 299 keeps the current 200";
    const double reaching[] = {200, 300};
    ASSERT_EQ(1, scanner.setValues(ICAP_XRESOLUTION, 2, reaching));
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(300, record.At(68)) << "a maximum of exactly 300";
}

// --- Buffer sizes.

TEST_F(CapabilityEdgeTest, ZeroBufferSizesAreAdjusted) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_ZEROBUFFERSIZES, 1));
    DWORD minimum = 1, maximum = 1, preferred = 1;
    EXPECT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(65536u, minimum);
    EXPECT_EQ(65536u, maximum);
    EXPECT_EQ(65536u, preferred);
    EXPECT_EQ((Strings{"min == 0, Adjust it in TScanModule::GetMemXferSize",
                       "max == 0, Adjust it in TScanModule::GetMemXferSize",
                       "illegal preferred size, Adjust it in TScanModule::GetMemXferSize"}),
              Warnings());
}

TEST_F(CapabilityEdgeTest, PreferredSizeAboveTheMaximumBecomesTheMinimum) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_MINBUFSIZE, 1000));
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_MAXBUFSIZE, 500000));
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, 2000000));
    DWORD minimum = 0, maximum = 0, preferred = 0;
    EXPECT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(1000u, minimum);
    EXPECT_EQ(500000u, maximum);
    EXPECT_EQ(1000u, preferred);
    EXPECT_EQ((Strings{"illegal preferred size, Adjust it in TScanModule::GetMemXferSize"}), Warnings());
}

TEST_F(CapabilityEdgeTest, PreferredSizeBelowTheMinimumBecomesTheMinimum) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_MINBUFSIZE, 4000));
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, 3000));
    DWORD minimum = 0, maximum = 0, preferred = 0;
    EXPECT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(4000u, preferred);
    EXPECT_EQ((Strings{"illegal preferred size, Adjust it in TScanModule::GetMemXferSize"}), Warnings());
}

TEST_F(CapabilityEdgeTest, BufferSizesOfTheSource) {
    DWORD minimum = 0, maximum = 0, preferred = 0;
    EXPECT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(2550u, minimum) << "one RGB row of 8.5 inches at 100 dpi";
    EXPECT_EQ(2550u * 25u, preferred) << "64 KB of whole rows";
    EXPECT_EQ(2550u * 1400u, maximum) << "the whole image";
    EXPECT_EQ(Strings{}, Warnings());
}

TEST_F(CapabilityEdgeTest, FailedBufferSizeQueryGivesDefaults) {
    scanner.failTriplet(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_DENIED, 1, 0);
    DWORD minimum = 0, maximum = 0, preferred = 0;
    EXPECT_EQ(TWCC_DENIED, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(65536u, minimum);
    EXPECT_EQ(65536u, maximum);
    EXPECT_EQ(65536u, preferred);
    EXPECT_EQ(Strings{"DSM_Entry returns failure in TScanModule::GetMemXferSize"}, Warnings());
    EXPECT_TRUE(OneRecord("Warning", "Sm_7", "DSM_Entry returns failure in TScanModule::GetMemXferSize"));
    CloseSource();
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_TRUE(WarningsOnTheEntryLine(viewer, "Sm_7", "GetMemXferSize", "GetMemXferSize"));
}

TEST_F(CapabilityEdgeTest, PendingCountNeedsAnEnabledSource) {
    WORD count = 5;
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getPendingCount(&count));
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    EXPECT_EQ(SM_OK, sm.getPendingCount(&count));
    EXPECT_EQ(9999, count) << "outside a memory transfer's end message";
}

// --- Malformed answers: a clear result, the container released, never a read outside it.

// Both get messages of the capability are answered with the same spoiled container. A container that runs past
// its block is refused like an unaccepted one: result 10, the fall-back, the next message tried. One the codec
// reads nothing from (null handle, unknown item type) is taken as it is: the output converted from 0, one message.
struct Malformed {
    const char *name;
    TW_UINT16 cap;
    TW_UINT16 container; // the container the source answers with, before it is spoiled
    int kind;
    std::function<LONG(const CapabilityExports &, Outputs &)> call;
    LONG result;
    Outputs outputs;
    size_t messages;
};

std::ostream &operator<<(std::ostream &out, const Malformed &m) {
    return out << m.name;
}

class MalformedAnswerTest : public CapabilityTest, public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedAnswerTest, RefusedPastTheBlockTakenOtherwise) {
    const Malformed &m = GetParam();
    for (TW_UINT16 msg : {MSG_GET, MSG_GETCURRENT}) {
        ASSERT_EQ(1, scanner.setContainer(m.cap, msg, m.container));
        ASSERT_EQ(1, scanner.setMalformed(m.cap, msg, m.kind));
    }
    Reset();
    Outputs outputs;
    const LONG rc = m.call(sm, outputs);
    EXPECT_EQ(m.result, rc) << TwccName(rc);
    EXPECT_TRUE(SameOutputs(m.outputs, outputs));
    EXPECT_EQ(m.messages, CapCalls(m.cap).size());
    if (m.result == SM_ERR_BAD_VALUE) {
        int invalid = 0;
        for (const char *codec :
             {"ExtractOneValue", "ExtractEnumerationNumItems", "ExtractEnumerationValue", "ExtractRangeValue"})
            invalid += viewer.CountText(std::string("Invalid memory in ") + codec);
        EXPECT_EQ(static_cast<int>(m.messages), invalid) << "the codec's warning, once for each answer refused";
        EXPECT_TRUE(WarningsFrom("Utility")) << "no warning of the accessor's own";
    }
    EXPECT_TRUE(NoContainerLeft());
}

const Malformed kMalformed[] = {
    {"SupportedPixelTypesPastTheBlock",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getSupportedPixelType, v); },
     SM_ERR_BAD_VALUE,
     {0},
     1},
    {"SupportedPaperSizesPastTheBlock",
     ICAP_SUPPORTEDSIZES,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getSupportedPaperSize, v); },
     SM_ERR_BAD_VALUE,
     {0},
     1},
    {"ResolutionListPastTheBlock",
     ICAP_XRESOLUTION,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getXResolution, v); },
     SM_ERR_BAD_VALUE,
     {0, 0, 0},
     2},
    {"IndexListPastTheBlock",
     ICAP_IMAGEDATASET,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getIndex, v); },
     SM_ERR_BAD_VALUE,
     {0},
     2},
    {"CurrentIndexPastTheItems",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_CURRENTINDEX,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPixelType, v); },
     SM_ERR_BAD_VALUE,
     {SM_PIXEL_GRAY},
     2},
    {"RangeCutShort",
     ICAP_XSCALING,
     TWON_RANGE,
     VSCAN_MALFORMED_SHORTBLOCK,
     [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getXScale, v); },
     SM_ERR_BAD_VALUE,
     {0, 0, 0},
     2},
    {"OneValueCutShort",
     CAP_FEEDERENABLED,
     TWON_ONEVALUE,
     VSCAN_MALFORMED_SHORTBLOCK,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getADFEnable, v); },
     SM_ERR_BAD_VALUE,
     {0},
     2},
    // The range-scaled getters fall back to the midpoint of the application's scale.
    {"ToneRangeCutShort",
     ICAP_CONTRAST,
     TWON_RANGE,
     VSCAN_MALFORMED_SHORTBLOCK,
     [](const CapabilityExports &sm, Outputs &v) {
         short out = kPresetOutput;
         const LONG rc = sm.getContrast(&out, 0, 100);
         v = {static_cast<double>(out)};
         return rc;
     },
     SM_ERR_BAD_VALUE,
     {50},
     2},
    // Read as 0: code 0 is inches, black and white, an empty list, 0 dpi.
    {"NullHandle",
     ICAP_UNITS,
     TWON_ONEVALUE,
     VSCAN_MALFORMED_NULLHANDLE,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getUnit, v); },
     SM_OK,
     {SM_UNIT_INCHES},
     1},
    {"NullHandleEnumeration",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NULLHANDLE,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPixelType, v); },
     SM_OK,
     {SM_PIXEL_BW},
     1},
    {"NullHandleWalk",
     ICAP_SUPPORTEDSIZES,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_NULLHANDLE,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getSupportedPaperSize, v); },
     SM_OK,
     {0},
     1},
    {"UnknownItemTypeRange",
     ICAP_XRESOLUTION,
     TWON_RANGE,
     VSCAN_MALFORMED_ITEMTYPE,
     [](const CapabilityExports &sm, Outputs &v) { return CallThree(sm.getXResolution, v); },
     SM_OK,
     {0, 0, 0},
     1},
    {"UnknownItemTypeEnumeration",
     ICAP_PIXELTYPE,
     TWON_ENUMERATION,
     VSCAN_MALFORMED_ITEMTYPE,
     [](const CapabilityExports &sm, Outputs &v) { return CallOne(sm.getPixelType, v); },
     SM_OK,
     {SM_PIXEL_BW},
     1},
};

INSTANTIATE_TEST_SUITE_P(CapabilityAnswers, MalformedAnswerTest, ::testing::ValuesIn(kMalformed),
                         [](const ::testing::TestParamInfo<Malformed> &info) { return std::string(info.param.name); });

TEST_F(CapabilityEdgeTest, UnknownItemTypeReadsNothing) {
    ASSERT_EQ(1, scanner.setMalformed(CAP_FEEDERENABLED, MSG_GETCURRENT, VSCAN_MALFORMED_ITEMTYPE));
    LONG answer = 77;
    const LONG rc = sm.getADFEnable(&answer);
    EXPECT_EQ(SM_OK, rc) << TwccName(rc) << ": the container is taken as it is";
    EXPECT_EQ(0, answer) << "the codec copies nothing for an unknown item type";
    EXPECT_EQ((Strings{CapLine(CAP_FEEDERENABLED, MSG_GETCURRENT, TWRC_SUCCESS)}), CapTriplets(CAP_FEEDERENABLED))
        << "no second message";
    EXPECT_EQ(Strings{}, Warnings()) << "an unknown item type is not traced";
    EXPECT_TRUE(NoContainerLeft());
}

} // namespace

// --- Without a source manager.

namespace {

// Every output an accessor could write, filled so that a write shows.
struct Canvas {
    static constexpr int kSize = 256;
    static constexpr BYTE kFill = 0xA5;
    Canvas() { std::memset(bytes, kFill, sizeof bytes); }
    template <typename T> T *At(int offset) { return reinterpret_cast<T *>(bytes + offset); }
    LONG Word(int offset) const {
        LONG word;
        std::memcpy(&word, bytes + offset, sizeof word);
        return word;
    }
    alignas(8) BYTE bytes[kSize];
};
constexpr LONG kFilledWord = static_cast<LONG>(0xA5A5A5A5);

// A method whose availability gate refused, and its file. The patterns' gate warns on the method's entry line; a
// gate in the method's own body (`ownGate`) on a line of that body.
struct Gate {
    const char *method;
    const char *file;
    bool ownGate = false;
};

struct UnavailableRow {
    const char *name; // the export and its arguments
    std::function<LONG(const CapabilityExports &, Canvas &)> call;
    LONG result;
    std::vector<Gate> gates;                        // in order
    std::vector<std::pair<int, LONG>> written = {}; // canvas words the call writes, by offset
};

// The snapshot's fields when every getter is refused at the gate: size, reserved and bit depth, the others 0.
const std::vector<std::pair<int, LONG>> kRefusedSnapshot = {{0, 104}, {56, 0}, {60, 0}, {64, 0}, {68, 0}, {72, 8},
                                                            {76, 0},  {80, 0}, {84, 0}, {88, 0}, {92, 0}};

const std::vector<UnavailableRow> &UnavailableRows() {
    using S = const CapabilityExports &;
    static const std::vector<UnavailableRow> rows = {
        {"smCapNegotiate",
         [](S sm, Canvas &c) { return LONG{sm.capNegotiate(MSG_GET, c.At<TW_CAPABILITY>(0))}; },
         TWRC_FAILURE,
         {{"CapNegotiate", "Sm_4", true}}},
        {"smIsADFAvailable",
         [](S sm, Canvas &c) { return sm.isADFAvailable(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"IsADFAvailable", "Sm_4"}}},
        {"smIsADFPaperLoaded",
         [](S sm, Canvas &c) { return sm.isADFPaperLoaded(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"IsADFPaperLoaded", "Sm_4"}}},
        {"smIsPaperLoaded",
         [](S sm, Canvas &c) { return sm.isPaperLoaded(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"IsADFPaperLoaded", "Sm_4"}}},
        {"smGetADFEnable",
         [](S sm, Canvas &c) { return sm.getADFEnable(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetADFEnable", "Sm_4"}}},
        {"smSetADFEnable",
         [](S sm, Canvas &) { return sm.setADFEnable(1); },
         SM_ERR_UNAVAILABLE,
         {{"SetADFEnable", "Sm_4"}}},
        {"smGetBrightness",
         [](S sm, Canvas &c) { return sm.getBrightness(c.At<short>(0), 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"GetBrightness", "Sm_4"}}},
        {"smSetBrightness",
         [](S sm, Canvas &) { return sm.setBrightness(50, 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"SetBrightness", "Sm_4"}}},
        {"smGetContrast",
         [](S sm, Canvas &c) { return sm.getContrast(c.At<short>(0), 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"GetContrast", "Sm_4"}}},
        {"smSetContrast",
         [](S sm, Canvas &) { return sm.setContrast(50, 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"SetContrast", "Sm_4"}}},
        {"smGetHighlight",
         [](S sm, Canvas &c) { return sm.getHighlight(c.At<short>(0), 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"GetHighlight", "Sm_4"}}},
        {"smSetHighlight",
         [](S sm, Canvas &) { return sm.setHighlight(50, 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"SetHighlight", "Sm_4"}}},
        {"smGetShadow",
         [](S sm, Canvas &c) { return sm.getShadow(c.At<short>(0), 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"GetShadow", "Sm_4"}}},
        {"smSetShadow",
         [](S sm, Canvas &) { return sm.setShadow(50, 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"SetShadow", "Sm_4"}}},
        {"smSetThreshold",
         [](S sm, Canvas &) { return sm.setThreshold(50, 0, 100); },
         SM_ERR_UNAVAILABLE,
         {{"SetThreshold", "Sm_4"}}},
        {"smGetGamma",
         [](S sm, Canvas &c) { return sm.getGamma(c.At<double>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetGamma", "Sm_4"}}},
        {"smSetGamma", [](S sm, Canvas &) { return sm.setGamma(1.0); }, SM_ERR_UNAVAILABLE, {{"SetGamma", "Sm_4"}}},
        {"smGetUnit",
         [](S sm, Canvas &c) { return sm.getUnit(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetUnit", "Sm_5"}}},
        {"smGetMaxArea",
         [](S sm, Canvas &c) { return sm.getMaxArea(c.At<double>(0), c.At<double>(8)); },
         SM_ERR_UNAVAILABLE,
         {{"GetMaxArea", "Sm_5"}}},
        {"smGetPixelFlavor",
         [](S sm, Canvas &c) { return sm.getPixelFlavor(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetPixelFlavor", "Sm_5"}}},
        {"smGetPixelType",
         [](S sm, Canvas &c) { return sm.getPixelType(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetPixelType", "Sm_5"}}},
        {"smSetPixelType",
         [](S sm, Canvas &) { return sm.setPixelType(SM_PIXEL_RGB); },
         SM_ERR_UNAVAILABLE,
         {{"SetPixelType", "Sm_5"}}},
        {"smGetSupportedPixelType",
         [](S sm, Canvas &c) { return sm.getSupportedPixelType(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetSupportedPixelType", "Sm_5"}}},
        {"smSetSupportedPixelType",
         [](S sm, Canvas &) { return sm.setSupportedPixelType(SM_PIXEL_BW | SM_PIXEL_RGB); },
         SM_ERR_UNAVAILABLE,
         {{"SetSupportedPixelType", "Sm_5"}}},
        {"smSetBitDepth",
         [](S sm, Canvas &) { return sm.setBitDepth(8); },
         SM_ERR_UNAVAILABLE,
         {{"SetBitDepth", "Sm_5"}}},
        {"smGetIndex",
         [](S sm, Canvas &c) { return sm.getIndex(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetIndex", "Sm_5"}}},
        {"smSetIndex(list)",
         [](S sm, Canvas &c) { return sm.setIndex(2, c.At<DWORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"SetIndex", "Sm_5"}}},
        {"smSetIndex(NULL)",
         [](S sm, Canvas &) { return sm.setIndex(2, nullptr); },
         SM_ERR_UNAVAILABLE,
         {{"SetIndex", "Sm_5"}}},
        {"smGetPaperSize",
         [](S sm, Canvas &c) { return sm.getPaperSize(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetPaperSize", "Sm_6"}}},
        {"smSetPaperSize",
         [](S sm, Canvas &) { return sm.setPaperSize(SM_PAPER_USLETTER); },
         SM_ERR_UNAVAILABLE,
         {{"SetPaperSize", "Sm_6"}}},
        {"smGetSupportedPaperSize",
         [](S sm, Canvas &c) { return sm.getSupportedPaperSize(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetSupportedPaperSize", "Sm_6"}}},
        {"smSetSupportedPaperSize",
         [](S sm, Canvas &) { return sm.setSupportedPaperSize(SM_PAPER_NONE | SM_PAPER_USLETTER); },
         SM_ERR_UNAVAILABLE,
         {{"SetSupportedPaperSize", "Sm_6"}}},
        {"smGetXferMech",
         [](S sm, Canvas &c) { return sm.getXferMech(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetXferMech", "Sm_6"}}},
        {"smSetXferMech",
         [](S sm, Canvas &) { return sm.setXferMech(SM_XFER_FILE); },
         SM_ERR_UNAVAILABLE,
         {{"SetXferMech", "Sm_6"}}},
        // The gate comes before the flag is looked at.
        {"smSetXferMech(bad flag)",
         [](S sm, Canvas &) { return sm.setXferMech(SM_XFER_NATIVE | SM_XFER_FILE); },
         SM_ERR_UNAVAILABLE,
         {{"SetXferMech", "Sm_6"}}},
        {"smGetXferCount",
         [](S sm, Canvas &c) { return sm.getXferCount(c.At<short>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetXferCount", "Sm_6"}}},
        {"smSetXferCount",
         [](S sm, Canvas &) { return sm.setXferCount(-1); },
         SM_ERR_UNAVAILABLE,
         {{"SetXferCount", "Sm_6"}}},
        {"smGetXResolution",
         [](S sm, Canvas &c) { return sm.getXResolution(c.At<short>(0), c.At<short>(8), c.At<short>(16)); },
         SM_ERR_UNAVAILABLE,
         {{"GetXResolution", "Sm_6"}}},
        {"smSetXResolution",
         [](S sm, Canvas &) { return sm.setXResolution(300); },
         SM_ERR_UNAVAILABLE,
         {{"SetXResolution", "Sm_6"}}},
        {"smGetYResolution",
         [](S sm, Canvas &c) { return sm.getYResolution(c.At<short>(0), c.At<short>(8), c.At<short>(16)); },
         SM_ERR_UNAVAILABLE,
         {{"GetYResolution", "Sm_6"}}},
        {"smSetYResolution",
         [](S sm, Canvas &) { return sm.setYResolution(300); },
         SM_ERR_UNAVAILABLE,
         {{"SetYResolution", "Sm_6"}}},
        // Refused before any resolution is read.
        {"smIsThisDPIAvailable",
         [](S sm, Canvas &) { return sm.isThisDPIAvailable(300, 300); },
         SM_ERR_UNAVAILABLE,
         {{"IsThisDPIAvailable", "Sm_6", true}}},
        {"smGetXScale",
         [](S sm, Canvas &c) { return sm.getXScale(c.At<double>(0), c.At<double>(8), c.At<double>(16)); },
         SM_ERR_UNAVAILABLE,
         {{"GetXScale", "Sm_7"}}},
        {"smSetXScale", [](S sm, Canvas &) { return sm.setXScale(2.0); }, SM_ERR_UNAVAILABLE, {{"SetXScale", "Sm_7"}}},
        {"smGetYScale",
         [](S sm, Canvas &c) { return sm.getYScale(c.At<double>(0), c.At<double>(8), c.At<double>(16)); },
         SM_ERR_UNAVAILABLE,
         {{"GetYScale", "Sm_7"}}},
        {"smSetYScale", [](S sm, Canvas &) { return sm.setYScale(2.0); }, SM_ERR_UNAVAILABLE, {{"SetYScale", "Sm_7"}}},
        {"smGetMemXferSize",
         [](S sm, Canvas &c) { return sm.getMemXferSize(c.At<DWORD>(0), c.At<DWORD>(8), c.At<DWORD>(16)); },
         SM_ERR_UNAVAILABLE,
         {{"GetMemXferSize", "Sm_7"}}},
        {"smGetDSProductName",
         [](S sm, Canvas &c) { return sm.getDSProductName(c.At<char>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetDSProductName", "Sm_4"}}},
        {"smGetPendingCount",
         [](S sm, Canvas &c) { return sm.getPendingCount(c.At<WORD>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetPendingCount", "Sm_7", true}}},
        {"smSetIndicatorEnable",
         [](S sm, Canvas &) { return sm.setIndicatorEnable(1); },
         SM_ERR_UNAVAILABLE,
         {{"SetIndicatorEnable", "Sm_4"}}},
        {"smSetAutoFeedEnable",
         [](S sm, Canvas &) { return sm.setAutoFeedEnable(1); },
         SM_ERR_UNAVAILABLE,
         {{"SetAutoFeedEnable", "Sm_4"}}},
        {"smSetLightpath",
         [](S sm, Canvas &) { return sm.setLightpath(TWLP_TRANSMISSIVE); },
         SM_ERR_UNAVAILABLE,
         {{"SetLightpath", "Sm_4"}}},
        {"smSetThumbMode",
         [](S sm, Canvas &) { return sm.setThumbMode(1); },
         SM_ERR_UNAVAILABLE,
         {{"SetThumbMode", "Sm_4"}}},
        {"smGetThumbMode",
         [](S sm, Canvas &c) { return sm.getThumbMode(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"GetThumbMode", "Sm_4"}}},
        {"smNonUIAvailable",
         [](S sm, Canvas &c) { return sm.nonUIAvailable(c.At<LONG>(0)); },
         SM_ERR_UNAVAILABLE,
         {{"IsNonUIAvailable", "Sm_4"}}},
        // Every getter of the snapshot is refused, and the snapshot still answers 0 with what they leave.
        {"smGetScanCap",
         [](S sm, Canvas &c) { return sm.getScanCap(c.At<ScanCapBytes>(0)); },
         SM_OK,
         {{"GetXResolution", "Sm_6"},
          {"GetMaxArea", "Sm_5"},
          {"GetUnit", "Sm_5"},
          {"GetPixelType", "Sm_5"},
          {"GetMemXferSize", "Sm_7"},
          {"Getbitdepth", "Sm_5"}},
         kRefusedSnapshot},
    };
    return rows;
}

// The library loaded with no TWAIN_32.DLL in the Windows directory, its exports resolved and its global memory
// followed.
class CapabilityUnavailableTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        InstallDsm(Dsm::Absent);
        library.Load();
        sm.Resolve(library);
        ASSERT_EQ(std::vector<std::string>{}, sm.Missing()) << "exports missing";
        ASSERT_GE(tracker.Attach(library.Module()), 2) << "smkernal.dll imports GlobalAlloc and GlobalFree";
    }
    void TearDown() override {
        tracker.Detach();
        ModuleTest::TearDown();
    }

    CapabilityExports sm;
    GlobalMemoryTracker tracker;
};

// Each export in turn: its result, the gate's warning of each method refused (after the load the gate retries), the
// caller's memory untouched, no container built, nothing else done.
TEST_F(CapabilityUnavailableTest, EveryAccessorAnswersAtTheGateAndTouchesNothing) {
    for (const UnavailableRow &row : UnavailableRows()) {
        SCOPED_TRACE(row.name);
        viewer.Clear();
        tracker.Begin();
        Canvas canvas;
        const LONG result = row.call(sm, canvas);
        EXPECT_TRUE(IsStatus(row.result, result));
        for (int offset = 0; offset < Canvas::kSize; offset += sizeof(LONG)) {
            LONG expected = kFilledWord;
            for (const auto &word : row.written)
                if (word.first == offset)
                    expected = word.second;
            EXPECT_EQ(expected, canvas.Word(offset)) << "canvas offset " << offset;
        }
        EXPECT_EQ(0, tracker.Allocations()) << tracker.Describe();
        std::vector<std::string> warnings;
        for (const Gate &gate : row.gates) {
            const std::string text = std::string("TWAIN is not available in TScanModule::") + gate.method;
            warnings.push_back("LoadLibrary fails in TScanModule::LoadTWAIN");
            warnings.push_back(text);
            EXPECT_TRUE(OneRecordIn(viewer, "Warning", gate.file, text));
            if (!gate.ownGate) {
                EXPECT_TRUE(WarningsOnTheEntryLine(viewer, gate.file, gate.method, gate.method));
            }
        }
        EXPECT_EQ(warnings, viewer.Texts("Warning"));
    }
}

} // namespace
