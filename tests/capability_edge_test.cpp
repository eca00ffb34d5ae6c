// The particular cases of capability negotiation: the negotiation call itself, the transfer mechanism, the
// range-scaled settings, conversions, the snapshot, buffer sizes, and sources answering malformed containers.
#include <gtest/gtest.h>

#include <cstring>

#include "CapabilityTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kMechanismTaken[] = "Especially processing MSG_SET/ICAP_XFERMECH in TScanModule::CapNegotiate";

class CapabilityEdgeTest : public CapabilityTest {
protected:
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
    EXPECT_EQ(1, flag) << "still native at the source";
}

TEST_F(CapabilityEdgeTest, MechanismSetWithAnEnumerationIsTaken) {
    TW_CAPABILITY cap{ICAP_XFERMECH, TWON_ENUMERATION,
                      Enumeration(TWTY_UINT16, {TWSX_NATIVE, TWSX_FILE, TWSX_MEMORY}, 1)};
    EXPECT_EQ(TWRC_SUCCESS, sm.capNegotiate(MSG_SET, &cap));
    GlobalFree(cap.hContainer);
    EXPECT_EQ(1, TraceCount(kMechanismTaken));
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    EXPECT_EQ(2, flag) << "file";
}

TEST_F(CapabilityEdgeTest, MechanismGetsAndFailedSetsAreNotTaken) {
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getXferMech(&flag));
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, TWRC_FAILURE, TWCC_BADVALUE, 1, 0);
    EXPECT_EQ(TWCC_BADVALUE, sm.setXferMech(4));
    EXPECT_EQ(0, TraceCount(kMechanismTaken));
}

TEST_F(CapabilityEdgeTest, SetXferMechTakesTheMechanism) {
    EXPECT_EQ(SM_OK, sm.setXferMech(4));
    EXPECT_EQ(1, TraceCount(kMechanismTaken));
    EXPECT_EQ(Strings{}, Warnings());
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
    // A source range -100..100 (listed as -100, 0, 100: step 100, which gives the same sets as a step of 1 here).
    const double range[] = {-100, 0, 100};
    ASSERT_EQ(1, setValues(ICAP_BRIGHTNESS, 3, range));
    ASSERT_EQ(SM_OK, closeDS());
    Mark();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    const std::vector<TdsmCall> open = CapCalls(ICAP_BRIGHTNESS);
    ASSERT_FALSE(open.empty()) << "opening reads the brightness range";
    EXPECT_EQ(MSG_GET, open[0].msg);
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
    short value = 0;
    EXPECT_EQ(SM_OK, sm.getBrightness(&value, 0, 255));
    EXPECT_EQ(128, value) << "0.0 on -100..100 reads as 128 of 0..255";
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
    ASSERT_EQ(1, setValues(ICAP_BRIGHTNESS, 3, items));
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
    ASSERT_EQ(1, setValues(ICAP_BRIGHTNESS, 1, single));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    EXPECT_EQ(1, viewer.CountText("MinDSBrightnessRange == MaxDSBrightnessRange in TScanModule::GetDSBrightnessRange"));
    Reset();
    sm.setBrightness(50, 0, 100);
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(0.0)}), SentItems(ICAP_BRIGHTNESS)) << "-1000..1000 again";
}

TEST_F(CapabilityEdgeTest, BrightnessRangeWithoutStepGetsAStepOfOne) {
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_ZERORANGESTEP, 1));
    ASSERT_EQ(SM_OK, closeDS());
    viewer.Clear();
    ASSERT_EQ(SM_OK, openDS(window, "Capability test")) << "the repair does not change the result";
    EXPECT_EQ(1, viewer.CountText("BrightnessStepSize == 0 in TScanModule::GetDSBrightnessRange"));
    Reset();
    // With a step of 1 on -1000..1000, 51 of 0..100 is 1020 steps from the minimum: 20.
    EXPECT_NE(SM_ERR_BAD_VALUE, sm.setBrightness(51, 0, 100));
    EXPECT_EQ((std::vector<TW_UINT32>{ModuleFix32(20.0)}), SentItems(ICAP_BRIGHTNESS));
}

TEST_F(CapabilityEdgeTest, EqualApplicationBoundsAreRefusedWithoutContactingTheSource) {
    short value = 77;
    EXPECT_EQ(SM_ERR_BAD_VALUE, sm.getBrightness(&value, 10, 10));
    EXPECT_EQ(0, value);
    EXPECT_EQ(SM_ERR_BAD_VALUE, sm.setContrast(5, 10, 10));
    EXPECT_EQ(SM_ERR_BAD_VALUE, sm.setShadow(5, 3, 3));
    EXPECT_EQ(SM_ERR_BAD_VALUE, sm.setThreshold(5, 0, 0));
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_EQ((Strings{"Bad range setting, minRange == maxRange, in TScanModule::GetBrightness",
                       "Bas range setting, minRange == maxRange, in TScanModule::SetContrast",
                       "Bad range setting, minRange == maxRange, in TScanModule::SetShadow",
                       "Bad range setting, minRange == maxRange, in TScanModule::SetThreshold"}),
              Warnings());
}

// --- Conversions.

TEST_F(CapabilityEdgeTest, UnknownPixelTypeCodeReadsAsGray) {
    const double codes[] = {TWPT_GRAY, 9};
    ASSERT_EQ(1, setValues(ICAP_PIXELTYPE, 2, codes));
    WORD flag = 0;
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_EQ(SM_OK, sm.getPixelType(&flag));
    EXPECT_EQ(2, flag) << "code 1";
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_PIXELTYPE, TWTY_UINT16, 9));
    EXPECT_EQ(SM_OK, sm.getPixelType(&flag));
    EXPECT_EQ(2, flag) << "code 9";
}

TEST_F(CapabilityEdgeTest, UnknownPaperAndUnitCodesReadAsTheirFirstFlag) {
    const double sizes[] = {TWSS_NONE, 9};
    ASSERT_EQ(1, setValues(ICAP_SUPPORTEDSIZES, 2, sizes));
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_SUPPORTEDSIZES, TWTY_UINT16, 9));
    WORD flag = 0;
    EXPECT_EQ(SM_OK, sm.getPaperSize(&flag));
    EXPECT_EQ(1, flag);
    const double units[] = {TWUN_INCHES, 6};
    ASSERT_EQ(1, setValues(ICAP_UNITS, 2, units));
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, 6));
    EXPECT_EQ(SM_OK, sm.getUnit(&flag));
    EXPECT_EQ(1, flag);
}

TEST_F(CapabilityEdgeTest, FlagsThatAreNotOneBitSendTheDefaultCode) {
    sm.setPaperSize(3);
    EXPECT_EQ((std::vector<TW_UINT32>{TWSS_NONE}), SentItems(ICAP_SUPPORTEDSIZES));
    Reset();
    sm.setPixelType(3);
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
    sm.setIndex(2, nullptr);
    const std::vector<TdsmCall> calls = CapCalls(ICAP_IMAGEDATASET);
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(TWON_ONEVALUE, calls[0].capIn.conType);
    EXPECT_EQ(TWTY_UINT32, calls[0].capIn.itemType);
    EXPECT_TRUE(NoContainerLeft());
}

TEST_F(CapabilityEdgeTest, PaperSizeListWithoutCodeSeven) {
    const double sizes[] = {0, 1, 7, 8};
    ASSERT_EQ(1, setValues(ICAP_SUPPORTEDSIZES, 4, sizes));
    WORD flags = 0;
    EXPECT_EQ(SM_OK, sm.getSupportedPaperSize(&flags));
    EXPECT_EQ(0x103, flags);
}

TEST_F(CapabilityEdgeTest, ResolutionFollowsTheUnitFactor) {
    ASSERT_EQ(SM_OK, sm.setXResolution(300));
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, TWUN_CENTIMETERS));
    short current = 0, minimum = 0, maximum = 0;
    EXPECT_EQ(SM_OK, sm.getXResolution(&current, &minimum, &maximum));
    EXPECT_EQ(118, current) << "300 x 1/2.54, truncated";
    EXPECT_EQ(19, minimum);
    EXPECT_EQ(236, maximum);
    ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, TWUN_POINTS));
    EXPECT_EQ(SM_OK, sm.getXResolution(&current, &minimum, &maximum));
    EXPECT_EQ(4, current) << "300 / 72";
}

TEST_F(CapabilityEdgeTest, MaxAreaIsInInchesForEveryUnit) {
    ASSERT_EQ(SM_OK, sm.setXResolution(300));
    ASSERT_EQ(SM_OK, sm.setYResolution(300));
    for (TW_UINT16 unit : {TWUN_INCHES, TWUN_CENTIMETERS, TWUN_PICAS, TWUN_POINTS, TWUN_TWIPS, TWUN_PIXELS}) {
        SCOPED_TRACE("unit " + std::to_string(unit));
        ASSERT_EQ(TWRC_SUCCESS, SetThroughLibrary(sm, ICAP_UNITS, TWTY_UINT16, unit));
        Reset();
        double width = 0, height = 0;
        EXPECT_EQ(SM_OK, sm.getMaxArea(&width, &height));
        EXPECT_NEAR(8.5, width, 1e-3);
        EXPECT_NEAR(14.0, height, 1e-3);
        const std::vector<TdsmCall> widths = CapCalls(ICAP_PHYSICALWIDTH), heights = CapCalls(ICAP_PHYSICALHEIGHT);
        ASSERT_EQ(1u, widths.size());
        ASSERT_EQ(1u, heights.size());
        EXPECT_EQ(MSG_GETCURRENT, widths[0].msg);
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
    EXPECT_NE(0, viewer.CountText("SetXResolution returns failure in TScanModule::IsThisDPIAvailable"));
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

// --- The capability snapshot.

TEST_F(CapabilityEdgeTest, SnapshotWithoutSource) {
    CloseSource();
    ScanCapBytes record;
    std::memset(&record, 0x77, sizeof record);
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(104, record.At(0));
    EXPECT_EQ(0, record.At(56));
    EXPECT_EQ(8, record.At(72));
    for (int offset = 4; offset < 56; offset += 4)
        EXPECT_EQ(0x77777777, record.At(offset)) << "offset " << offset << " is not written";
    EXPECT_EQ(0x77777777, record.At(96));
    EXPECT_EQ(0x77777777, record.At(100));
    EXPECT_EQ(1, viewer.CountText("Sequence error in TScanModule::Getbitdepth"));
    EXPECT_EQ(1, viewer.CountText("Sequence error in TScanModule::GetXResolution"));
    EXPECT_EQ(Strings{}, Triplets());
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
    EXPECT_EQ(1, record.At(84)) << "inches";
    EXPECT_EQ(4, record.At(88)) << "RGB";
    DWORD minimum = 0, maximum = 0, preferred = 0;
    ASSERT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(static_cast<LONG>(maximum), record.At(92));
    EXPECT_EQ(0x77777777, record.At(4));
    EXPECT_TRUE(NoContainerLeft());
}

TEST_F(CapabilityEdgeTest, SnapshotKeepsALowResolutionUnderALowMaximum) {
    const double low[] = {150, 200};
    ASSERT_EQ(1, setValues(ICAP_XRESOLUTION, 2, low));
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    ScanCapBytes record;
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(200, record.At(60));
    EXPECT_EQ(200, record.At(68)) << "a maximum below 300";
    const double reaching[] = {200, 300};
    ASSERT_EQ(1, setValues(ICAP_XRESOLUTION, 2, reaching));
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
    CloseSource();
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getMemXferSize(&minimum, &maximum, &preferred));
}

TEST_F(CapabilityEdgeTest, PendingCountNeedsAnEnabledSource) {
    WORD count = 5;
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getPendingCount(&count));
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    EXPECT_EQ(SM_OK, sm.getPendingCount(&count));
    EXPECT_EQ(9999, count) << "outside a memory transfer's end message";
}

// --- Malformed answers: a clear result, the container released, never a read outside it.

// Both get messages of the capability are answered with the same spoiled container.
struct Malformed {
    const char *name;
    TW_UINT16 cap;
    TW_UINT16 container; // the container the source answers with, before it is spoiled
    int kind;
    std::function<LONG(const CapabilityExports &)> call;
};

std::ostream &operator<<(std::ostream &out, const Malformed &m) {
    return out << m.name;
}

class MalformedAnswerTest : public CapabilityTest, public ::testing::WithParamInterface<Malformed> {};

TEST_P(MalformedAnswerTest, RefusedAsABadValue) {
    const Malformed &m = GetParam();
    for (TW_UINT16 msg : {MSG_GET, MSG_GETCURRENT}) {
        ASSERT_EQ(1, scanner.setContainer(m.cap, msg, m.container));
        ASSERT_EQ(1, setMalformed(m.cap, msg, m.kind));
    }
    const LONG rc = m.call(sm);
    EXPECT_EQ(SM_ERR_BAD_VALUE, rc) << TwccName(rc);
    EXPECT_TRUE(NoContainerLeft());
}

LONG WordGet(LONG(WINAPI *f)(WORD *)) {
    WORD out = 0;
    return f(&out);
}

const Malformed kMalformed[] = {
    {"SupportedPixelTypesPastTheBlock", ICAP_PIXELTYPE, TWON_ENUMERATION, VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm) { return WordGet(sm.getSupportedPixelType); }},
    {"SupportedPaperSizesPastTheBlock", ICAP_SUPPORTEDSIZES, TWON_ENUMERATION, VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm) { return WordGet(sm.getSupportedPaperSize); }},
    {"ResolutionListPastTheBlock", ICAP_XRESOLUTION, TWON_ENUMERATION, VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm) {
         short c, lo, hi;
         return sm.getXResolution(&c, &lo, &hi);
     }},
    {"IndexListPastTheBlock", ICAP_IMAGEDATASET, TWON_ENUMERATION, VSCAN_MALFORMED_NUMITEMS,
     [](const CapabilityExports &sm) {
         LONG out;
         return sm.getIndex(&out);
     }},
    {"CurrentIndexPastTheItems", ICAP_PIXELTYPE, TWON_ENUMERATION, VSCAN_MALFORMED_CURRENTINDEX,
     [](const CapabilityExports &sm) { return WordGet(sm.getPixelType); }},
    {"RangeCutShort", ICAP_XSCALING, TWON_RANGE, VSCAN_MALFORMED_SHORTBLOCK,
     [](const CapabilityExports &sm) {
         double c, lo, hi;
         return sm.getXScale(&c, &lo, &hi);
     }},
    {"OneValueCutShort", CAP_FEEDERENABLED, TWON_ONEVALUE, VSCAN_MALFORMED_SHORTBLOCK,
     [](const CapabilityExports &sm) {
         LONG out;
         return sm.getADFEnable(&out);
     }},
    {"NullHandle", ICAP_UNITS, TWON_ONEVALUE, VSCAN_MALFORMED_NULLHANDLE,
     [](const CapabilityExports &sm) {
         WORD out;
         return sm.getUnit(&out);
     }},
};

INSTANTIATE_TEST_SUITE_P(CapabilityAnswers, MalformedAnswerTest, ::testing::ValuesIn(kMalformed),
                         [](const ::testing::TestParamInfo<Malformed> &info) { return std::string(info.param.name); });

TEST_F(CapabilityEdgeTest, UnknownItemTypeReadsNothing) {
    ASSERT_EQ(1, setMalformed(CAP_FEEDERENABLED, MSG_GETCURRENT, VSCAN_MALFORMED_ITEMTYPE));
    LONG answer = 77;
    const LONG rc = sm.getADFEnable(&answer);
    EXPECT_TRUE(rc == SM_OK || rc == SM_ERR_BAD_VALUE) << TwccName(rc);
    EXPECT_EQ(0, answer) << "the codec copies nothing for an unknown item type";
    EXPECT_TRUE(NoContainerLeft());
}

} // namespace

// --- Without a source manager.

namespace {

// An accessor resolved by name and called with an output that must stay untouched: gets receive a
// filled buffer, sets a value.
struct Unavailable {
    const char *exportName;
    const char *method;
    enum { GetLong, GetWord, GetThree16, SetLong, SetDouble } shape;
};

const Unavailable kUnavailable[] = {
    {"smIsADFAvailable", "IsADFAvailable", Unavailable::GetLong},
    {"smGetThumbMode", "GetThumbMode", Unavailable::GetLong},
    {"smNonUIAvailable", "IsNonUIAvailable", Unavailable::GetLong},
    {"smGetUnit", "GetUnit", Unavailable::GetWord},
    {"smGetPixelType", "GetPixelType", Unavailable::GetWord},
    {"smGetPaperSize", "GetPaperSize", Unavailable::GetWord},
    {"smGetXferMech", "GetXferMech", Unavailable::GetWord},
    {"smGetXResolution", "GetXResolution", Unavailable::GetThree16},
    {"smSetADFEnable", "SetADFEnable", Unavailable::SetLong},
    {"smSetPixelType", "SetPixelType", Unavailable::SetLong},
    {"smSetBitDepth", "SetBitDepth", Unavailable::SetLong},
    {"smSetXResolution", "SetXResolution", Unavailable::SetLong},
    {"smSetGamma", "SetGamma", Unavailable::SetDouble},
};

class CapabilityUnavailableTest : public ModuleTest {};

TEST_F(CapabilityUnavailableTest, EveryAccessorAnswersMinusOneAndTouchesNothing) {
    InstallDsm(Dsm::Absent);
    library.Load();
    for (const Unavailable &row : kUnavailable) {
        SCOPED_TRACE(row.exportName);
        viewer.Clear();
        LONG result = 0;
        DWORD word = 0xA5A5A5A5;
        short three[3] = {7, 7, 7};
        switch (row.shape) {
        case Unavailable::GetLong:
        case Unavailable::GetWord:
            result = library.Get<LONG(WINAPI *)(void *)>(row.exportName)(&word);
            EXPECT_EQ(0xA5A5A5A5u, word);
            break;
        case Unavailable::GetThree16:
            result =
                library.Get<LONG(WINAPI *)(short *, short *, short *)>(row.exportName)(three, three + 1, three + 2);
            EXPECT_EQ(7, three[0]);
            break;
        case Unavailable::SetLong:
            result = library.Get<LONG(WINAPI *)(LONG)>(row.exportName)(1);
            break;
        case Unavailable::SetDouble:
            result = library.Get<LONG(WINAPI *)(double)>(row.exportName)(1.0);
            break;
        }
        EXPECT_EQ(SM_ERR_UNAVAILABLE, result);
        const std::vector<std::string> warnings = viewer.Texts("Warning");
        ASSERT_FALSE(warnings.empty());
        EXPECT_EQ(std::string("TWAIN is not available in TScanModule::") + row.method, warnings.back());
    }
}

} // namespace
