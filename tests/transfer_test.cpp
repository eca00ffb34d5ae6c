// Around a transfer: the scan frame in the source's unit, the source's palette and the size of the image to come.
#include <gtest/gtest.h>

#include <cstring>

#include "TransferTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const std::string kLayoutSet = "DG_IMAGE/DAT_IMAGELAYOUT/MSG_SET -> TWRC_SUCCESS";
constexpr int kPaletteEntries = 256;
constexpr BYTE kDirty = 0x5A;

double Value(TW_FIX32 fix) {
    return fix.Whole + fix.Frac / 65536.0;
}

class TransferExtrasTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        setImageLayout = library.Get<decltype(setImageLayout)>("smSetImageLayout");
        getDSPalette = library.Get<decltype(getDSPalette)>("smGetDSPalette");
        getImageDim = library.Get<decltype(getImageDim)>("smGetImageDim");
        ASSERT_NE(nullptr, setImageLayout);
        ASSERT_NE(nullptr, getDSPalette);
        ASSERT_NE(nullptr, getImageDim);
    }
    // ICAP_UNITS of the open source, set through the module's own negotiation export.
    void SetSourceUnit(TW_UINT16 unit) {
        EXPECT_EQ(TWRC_SUCCESS, SetOneValueThroughModule(library, ICAP_UNITS, TWTY_UINT16, unit));
        Reset();
    }
    // The frame of the last MSG_SET of DAT_IMAGELAYOUT since the mark, as {left, top, right, bottom}.
    std::vector<double> FrameSent() const {
        TW_IMAGELAYOUT layout = {};
        bool found = false;
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dg == DG_IMAGE && call.dat == DAT_IMAGELAYOUT && call.msg == MSG_SET) {
                std::memcpy(&layout, call.dataIn, sizeof layout);
                found = true;
            }
        EXPECT_TRUE(found) << "no frame was sent";
        EXPECT_EQ(0u, layout.DocumentNumber);
        EXPECT_EQ(0u, layout.PageNumber);
        EXPECT_EQ(0u, layout.FrameNumber);
        return {Value(layout.Frame.Left), Value(layout.Frame.Top), Value(layout.Frame.Right),
                Value(layout.Frame.Bottom)};
    }
    // The capabilities negotiated since the mark, in order.
    std::vector<TW_UINT16> CapsAsked() const {
        std::vector<TW_UINT16> caps;
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dat == DAT_CAPABILITY)
                caps.push_back(call.capIn.cap);
        return caps;
    }
    // The palette the source answered to the module's last DAT_PALETTE8 since the mark.
    TW_PALETTE8 PaletteAnswered() const {
        TW_PALETTE8 palette = {};
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dat == DAT_PALETTE8)
                std::memcpy(&palette, call.dataOut, sizeof palette);
        return palette;
    }
    // The palette table of the caller, dirty before the call.
    std::vector<BYTE> table = std::vector<BYTE>(kPaletteEntries * 4, kDirty);
    static bool IsWhite(const std::vector<BYTE> &table, int i) {
        return table[i * 4] == 0xFF && table[i * 4 + 1] == 0xFF && table[i * 4 + 2] == 0xFF && table[i * 4 + 3] == 0;
    }

    LONG(WINAPI *setImageLayout)(double, double, double, double, WORD) = nullptr;
    LONG(WINAPI *getDSPalette)(BYTE *) = nullptr;
    void(WINAPI *getImageDim)(LONG *, LONG *) = nullptr;
};

TEST_F(TransferExtrasTest, FrameInCentimetresReachesASourceInInchesUnconverted) {
    Open();
    EXPECT_EQ(SM_OK, setImageLayout(1, 1, 2, 2, SM_UNIT_CENTIMETERS));
    EXPECT_EQ((std::vector<double>{1, 1, 2, 2}), FrameSent());
    EXPECT_EQ(std::vector<TW_UINT16>{ICAP_UNITS}, CapsAsked()) << "only the source's unit is asked";
    EXPECT_EQ(kLayoutSet, Triplets().back());
    EXPECT_EQ(Strings{}, Warnings());
}

TEST_F(TransferExtrasTest, FrameInCentimetresReachesASourceInCentimetresAsGiven) {
    Open();
    SetSourceUnit(TWUN_CENTIMETERS);
    EXPECT_EQ(SM_OK, setImageLayout(1, 1, 2, 2, SM_UNIT_CENTIMETERS));
    const std::vector<double> frame = FrameSent();
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR((std::vector<double>{1, 1, 2, 2})[i], frame[i], 1.0 / 65536) << "edge " << i;
}

TEST_F(TransferExtrasTest, FrameInInchesIsConvertedToTheSourcesUnit) {
    Open();
    SetSourceUnit(TWUN_CENTIMETERS);
    EXPECT_EQ(SM_OK, setImageLayout(1, 0.5, 2, 3, SM_UNIT_INCHES));
    const std::vector<double> frame = FrameSent();
    const double expected[] = {2.54, 1.27, 5.08, 7.62};
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(expected[i], frame[i], 1.0 / 65536) << "edge " << i;
}

TEST_F(TransferExtrasTest, FrameInPicasReachesASourceInPointsTwelveTimesLarger) {
    Open();
    SetSourceUnit(TWUN_POINTS);
    EXPECT_EQ(SM_OK, setImageLayout(1, 2, 3, 4, SM_UNIT_PICAS));
    EXPECT_EQ((std::vector<double>{12, 24, 36, 48}), FrameSent());
}

TEST_F(TransferExtrasTest, AnUnknownUnitFlagCountsAsInches) {
    Open();
    SetSourceUnit(TWUN_CENTIMETERS);
    EXPECT_EQ(SM_OK, setImageLayout(1, 1, 2, 2, 0x40));
    const std::vector<double> frame = FrameSent();
    EXPECT_NEAR(2.54, frame[0], 1.0 / 65536);
    EXPECT_NEAR(5.08, frame[3], 1.0 / 65536);
}

TEST_F(TransferExtrasTest, FrameInPixelsIsScaledByTheResolutionOfEachAxis) {
    Open();
    SetSourceUnit(TWUN_CENTIMETERS);
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(LONG)>("smSetXResolution")(100));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(LONG)>("smSetYResolution")(50));
    short x = 0, y = 0, minimum = 0, maximum = 0;
    const auto getResolution = [&](const char *name, short *value) {
        return library.Get<LONG(WINAPI *)(short *, short *, short *)>(name)(value, &minimum, &maximum);
    };
    ASSERT_EQ(SM_OK, getResolution("smGetXResolution", &x));
    ASSERT_EQ(SM_OK, getResolution("smGetYResolution", &y));
    Reset();
    EXPECT_EQ(SM_OK, setImageLayout(x, y, 2 * x, 4 * y, SM_UNIT_PIXELS));
    const std::vector<double> frame = FrameSent();
    const double expected[] = {2.54, 2.54, 5.08, 10.16};
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(expected[i], frame[i], 1.0 / 65536) << "edge " << i;
    // Each resolution getter asks the unit too; then the source's unit is read.
    EXPECT_EQ((std::vector<TW_UINT16>{ICAP_XRESOLUTION, ICAP_UNITS, ICAP_YRESOLUTION, ICAP_UNITS, ICAP_UNITS}),
              CapsAsked());
}

// A source in inches takes the values as they are, whatever unit they were given in: pixels too, though their
// resolutions were asked for.
TEST_F(TransferExtrasTest, FrameInPixelsReachesASourceInInchesUnconverted) {
    Open();
    EXPECT_EQ(SM_OK, setImageLayout(1, 2, 3, 4, SM_UNIT_PIXELS));
    EXPECT_EQ((std::vector<double>{1, 2, 3, 4}), FrameSent());
    EXPECT_EQ((std::vector<TW_UINT16>{ICAP_XRESOLUTION, ICAP_UNITS, ICAP_YRESOLUTION, ICAP_UNITS, ICAP_UNITS}),
              CapsAsked());
}

TEST_F(TransferExtrasTest, LayoutWithoutAnOpenSourceIsASequenceError) {
    viewer.Clear();
    Mark();
    EXPECT_EQ(TWCC_SEQERROR, setImageLayout(1, 1, 2, 2, SM_UNIT_INCHES));
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_EQ(Strings{"Sequence error in TScanModule::SetImageLayout"}, Warnings());
}

TEST_F(TransferExtrasTest, RefusedLayoutAnswersTheConditionCode) {
    Open();
    script.failOnce(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, TWRC_FAILURE, TWCC_BADVALUE);
    const LONG result = setImageLayout(1, 1, 2, 2, SM_UNIT_INCHES);
    EXPECT_EQ(TWCC_BADVALUE, result) << TwccName(static_cast<unsigned>(result));
    EXPECT_EQ(1, viewer.CountText("DSM_Entry returns failure in TScanModule::SetImageLayout"));
}

TEST_F(TransferExtrasTest, PaletteOfAPaletteSourceFillsItsEntriesAndLeavesTheRestWhite) {
    Open();
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(LONG)>("smSetPixelType")(SM_PIXEL_PALETTE));
    Reset();
    EXPECT_EQ(SM_OK, getDSPalette(table.data()));
    EXPECT_EQ(Strings{"DG_IMAGE/DAT_PALETTE8/MSG_GET -> TWRC_SUCCESS"}, Triplets());
    const TW_PALETTE8 palette = PaletteAnswered();
    ASSERT_GT(palette.NumColors, 0);
    ASSERT_LE(palette.NumColors, kPaletteEntries);
    for (int i = 0; i < kPaletteEntries; ++i) {
        if (i < palette.NumColors) {
            EXPECT_EQ(palette.Colors[i].Channel1, table[i * 4]) << "entry " << i;
            EXPECT_EQ(palette.Colors[i].Channel2, table[i * 4 + 1]) << "entry " << i;
            EXPECT_EQ(palette.Colors[i].Channel3, table[i * 4 + 2]) << "entry " << i;
            EXPECT_EQ(0, table[i * 4 + 3]) << "entry " << i;
        } else {
            EXPECT_TRUE(IsWhite(table, i)) << "entry " << i;
        }
    }
}

TEST_F(TransferExtrasTest, PaletteOfThreeColoursLeavesTwoHundredFiftyThreeWhiteEntries) {
    Open();
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PALETTECOLORS, 3));
    EXPECT_EQ(SM_OK, getDSPalette(table.data()));
    const TW_PALETTE8 palette = PaletteAnswered();
    ASSERT_EQ(3, palette.NumColors);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(palette.Colors[i].Channel2, table[i * 4 + 1]) << "entry " << i;
    for (int i = 3; i < kPaletteEntries; ++i)
        EXPECT_TRUE(IsWhite(table, i)) << "entry " << i;
}

TEST_F(TransferExtrasTest, PaletteOfThreeHundredColoursIsABadValueWithAllEntriesWhite) {
    Open();
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PALETTECOLORS, 300));
    const LONG result = getDSPalette(table.data());
    EXPECT_EQ(TWCC_BADVALUE, result) << TwccName(static_cast<unsigned>(result));
    for (int i = 0; i < kPaletteEntries; ++i)
        EXPECT_TRUE(IsWhite(table, i)) << "entry " << i;
    EXPECT_EQ(Strings{"Bad Value, palette.NumColors > 256, in TScanModule::GetDSPalette"}, Warnings());
}

TEST_F(TransferExtrasTest, FailedPaletteAnswersTheConditionCodeWithAllEntriesWhite) {
    Open();
    script.failOnce(DG_IMAGE, DAT_PALETTE8, MSG_GET, TWRC_FAILURE, TWCC_BUMMER);
    const LONG result = getDSPalette(table.data());
    EXPECT_EQ(TWCC_BUMMER, result) << TwccName(static_cast<unsigned>(result));
    for (int i = 0; i < kPaletteEntries; ++i)
        EXPECT_TRUE(IsWhite(table, i)) << "entry " << i;
    EXPECT_EQ(Strings{"DSM_Entry returns failure in TScanModule::GetDSPalette"}, Warnings());
}

TEST_F(TransferExtrasTest, PaletteWithoutAnOpenSourceIsASequenceErrorAndTouchesNothing) {
    viewer.Clear();
    Mark();
    EXPECT_EQ(TWCC_SEQERROR, getDSPalette(table.data()));
    EXPECT_EQ(Strings{}, Triplets());
    EXPECT_EQ(std::vector<BYTE>(kPaletteEntries * 4, kDirty), table);
    EXPECT_EQ(Strings{"Sequence error in TScanModule::GetDSPalette"}, Warnings());
}

TEST_F(TransferExtrasTest, ImageSizeOfTheImageAboutToBeTransferred) {
    StartScan(SM_XFER_NATIVE);
    viewer.Clear();
    LONG width = -1, length = -1;
    getImageDim(&width, &length);
    EXPECT_EQ(kSmallPageWidth, width);
    EXPECT_EQ(kSmallPageLength, length);
    EXPECT_EQ(Strings{"DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS"}, Triplets());
    EXPECT_TRUE(viewer.Records().empty()) << "the image size writes no records";
}

TEST_F(TransferExtrasTest, ImageSizeIsZeroWhenTheSourceCannotTell) {
    Open();
    viewer.Clear();
    LONG width = -1, length = -1;
    getImageDim(&width, &length); // no image is ready: the source refuses
    EXPECT_EQ(0, width);
    EXPECT_EQ(0, length);
    EXPECT_EQ(Strings{"DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_FAILURE"}, Triplets());
    EXPECT_TRUE(viewer.Records().empty());
}

TEST_F(TransferExtrasTest, ImageSizeWithoutSourceManagerIsZeroAndAsksNobody) {
    ReloadWithoutSourceManager();
    getImageDim = library.Get<decltype(getImageDim)>("smGetImageDim");
    viewer.Clear();
    LONG width = -1, length = -1;
    getImageDim(&width, &length);
    EXPECT_EQ(0, width);
    EXPECT_EQ(0, length);
    EXPECT_TRUE(viewer.Records().empty());
}

} // namespace
