// Virtual scanner: native, file and memory transfers of every format, pixel by pixel, the feeder and pending counts.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "VscanTest.h"

namespace smtest {
namespace {

// 1 x 0.5 inch at 100 dpi.
constexpr int kWidth = 100;
constexpr int kHeight = 50;

struct NamedFormat {
    const char *name;
    Format format;
};

// Every format with every mechanism: planar RGB negotiated gives planes in memory transfers and still a
// chunky bitmap in native and file transfers.
const NamedFormat kFormats[] = {
    {"BW1", MakeFormat(TWPT_BW, 1)},
    {"Gray8", MakeFormat(TWPT_GRAY, 8)},
    {"Gray16", MakeFormat(TWPT_GRAY, 16)},
    {"Palette4", MakeFormat(TWPT_PALETTE, 4)},
    {"Palette8", MakeFormat(TWPT_PALETTE, 8)},
    {"RGB24", MakeFormat(TWPT_RGB, 24)},
    {"RGB48", MakeFormat(TWPT_RGB, 48)},
    {"PlanarRGB24", MakeFormat(TWPT_RGB, 24, true)},
    {"PlanarRGB48", MakeFormat(TWPT_RGB, 48, true)},
};

void PrintTo(const NamedFormat &f, std::ostream *os) {
    *os << f.name;
}

std::string FormatName(const ::testing::TestParamInfo<NamedFormat> &info) {
    return info.param.name;
}

class VscanXferTest : public VscanTest {
protected:
    // A native transfer in state 6, parsed; the source is left in state 7.
    void Native(Dib &dib) {
        TW_UINT32 handle = 0;
        ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
        ASSERT_TRUE(TakePackedDib(handle, dib)) << "the TW_UINT32 must hold a global memory handle of a packed DIB";
    }
    // The whole image in state 6 by memory transfers into a buffer of 7 rows and a bit: strips of 7 rows (the last of
    // each plane shorter), each checked field by field and pixel by pixel against the format's rows.
    void TransferStrips(const Format &f) {
        const unsigned rowBytes = MemoryRowBytes(f, kWidth);
        const unsigned rowsPerStrip = 7;
        std::vector<unsigned char> buffer(rowsPerStrip * rowBytes + rowBytes / 2);
        const int planes = f.planar ? 3 : 1;
        int strips = 0;
        for (int plane = 0; plane < planes; ++plane) {
            for (int y = 0; y < kHeight;) {
                TW_IMAGEMEMXFER mx;
                const TW_UINT16 rc = ds.Strip(buffer, mx);
                const unsigned rows = std::min<unsigned>(rowsPerStrip, kHeight - y);
                const bool last = plane == planes - 1 && y + static_cast<int>(rows) == kHeight;
                ASSERT_TWRC(last ? TWRC_XFERDONE : TWRC_SUCCESS, rc) << "plane " << plane << " row " << y;
                EXPECT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
                ASSERT_EQ(rows, mx.Rows);
                EXPECT_EQ(static_cast<TW_UINT32>(y), mx.YOffset) << "plane " << plane;
                EXPECT_EQ(0u, mx.XOffset);
                EXPECT_EQ(rowBytes, mx.BytesPerRow);
                EXPECT_EQ(static_cast<TW_UINT32>(kWidth), mx.Columns);
                EXPECT_EQ(rows * rowBytes, mx.BytesWritten);
                EXPECT_EQ(TWCP_NONE, mx.Compression);
                ASSERT_TRUE(
                    StripRowsMatch(f, buffer.data(), rowBytes, kWidth, kHeight, 1, y, rows, f.planar ? plane : -1));
                y += rows;
                ++strips;
            }
        }
        EXPECT_EQ(planes * ((kHeight + rowsPerStrip - 1) / rowsPerStrip), strips);
        TW_IMAGEMEMXFER more{};
        more.Memory.Length = static_cast<TW_UINT32>(buffer.size());
        more.Memory.TheMem = buffer.data();
        EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &more)) << "the image is complete";
    }
};
class VscanNativeTest : public VscanXferTest, public ::testing::WithParamInterface<NamedFormat> {};
class VscanFileTest : public VscanTest, public ::testing::WithParamInterface<NamedFormat> {};
class VscanMemoryTest : public VscanXferTest, public ::testing::WithParamInterface<NamedFormat> {};
// RepeatRows: every mechanism delivers the rows through the middle of the page over and over.
class VscanRepeatRowsTest : public VscanXferTest, public ::testing::WithParamInterface<NamedFormat> {};

TEST_P(VscanNativeTest, PackedDibBottomUpBgrWithColourTable) {
    const Format f = GetParam().format;
    OpenSmall();
    Negotiate(f, TWSX_NATIVE);
    EnableToReady();
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(kWidth, info.ImageWidth);
    EXPECT_EQ(kHeight, info.ImageLength);
    EXPECT_EQ(f.bitDepth, info.BitsPerPixel);
    EXPECT_EQ(f.pixelType, info.PixelType);
    EXPECT_EQ(f.pixelType == TWPT_RGB ? 3 : 1, info.SamplesPerPixel);
    EXPECT_EQ(f.pixelType == TWPT_RGB ? f.bitDepth / 3 : f.bitDepth, info.BitsPerSample[0]);
    EXPECT_EQ(0, info.Planar) << "a bitmap is chunky";
    EXPECT_EQ(100, Fix32ToDouble(info.XResolution));

    Dib dib;
    Native(dib);
    EXPECT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
    ASSERT_FALSE(HasFatalFailure());
    ExpectDib(f, dib, kWidth, kHeight, 1);
    EXPECT_EQ(3937, dib.header.biXPelsPerMeter);

    TW_UINT16 count = 99;
    EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
}
INSTANTIATE_TEST_SUITE_P(Formats, VscanNativeTest, ::testing::ValuesIn(kFormats), FormatName);

TEST_P(VscanFileTest, BmpFileWhereSetupFileXferSaid) {
    const Format f = GetParam().format;
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    const std::string path = std::string(temp) + "vscan_file_test.bmp";
    DeleteFileA(path.c_str());
    OpenSmall();
    Negotiate(f, TWSX_FILE);
    TW_SETUPFILEXFER setup{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, &setup));
    EXPECT_EQ(TWFF_BMP, setup.Format);
    std::snprintf(setup.FileName, sizeof setup.FileName, "%s", path.c_str());
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup));
    EnableToReady();
    EXPECT_EQ(0, ImageInfo().Planar) << "a bitmap is chunky";
    ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr));

    Dib dib;
    ReadBmpFile(path, dib);
    DeleteFileA(path.c_str());
    ASSERT_FALSE(HasFatalFailure());
    ExpectDib(f, dib, kWidth, kHeight, 1);
}
INSTANTIATE_TEST_SUITE_P(Formats, VscanFileTest, ::testing::ValuesIn(kFormats), FormatName);

TEST_P(VscanMemoryTest, StripsOfWholeRowsInRgbOrder) {
    const Format f = GetParam().format;
    OpenSmall();
    Negotiate(f, TWSX_MEMORY);
    TW_SETUPMEMXFER setup{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &setup));
    const int samples = f.pixelType == TWPT_RGB ? 3 : 1;
    const unsigned rowBytes = MemoryRowBytes(f, kWidth);
    EXPECT_EQ(rowBytes, setup.MinBufSize);
    EXPECT_LE(setup.MinBufSize, setup.Preferred);
    EXPECT_LE(setup.Preferred, setup.MaxBufSize);
    EnableToReady();
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(f.planar ? 1 : 0, info.Planar);
    EXPECT_EQ(samples, info.SamplesPerPixel);

    TransferStrips(f);
    TW_UINT16 count = 99;
    EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
}
INSTANTIATE_TEST_SUITE_P(Formats, VscanMemoryTest, ::testing::ValuesIn(kFormats), FormatName);

// Eight rows through the middle of the 50-row page over and over: row y is page row 21 + y mod 8, the page number's
// rows among them; none of them is the black border the page's own top rows are.
TEST_P(VscanRepeatRowsTest, MemoryStripsRepeatTheRowsThroughTheMiddle) {
    Format f = GetParam().format;
    f.repeatRows = 8;
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_REPEATROWS, f.repeatRows));
    OpenSmall();
    Negotiate(f, TWSX_MEMORY);
    EnableToReady();
    EXPECT_EQ(kHeight, ImageInfo().ImageLength) << "the image keeps its size";
    TransferStrips(f);

    Format page = f;
    page.repeatRows = 0;
    EXPECT_NE(ExpectedSamples(page, kWidth, kHeight, 1, 90, 0), ExpectedSamples(f, kWidth, kHeight, 1, 90, 0))
        << "the test itself: the repeated rows differ from the top of the page";
    EXPECT_EQ(ExpectedSamples(page, kWidth, kHeight, 1, 90, 21), ExpectedSamples(f, kWidth, kHeight, 1, 90, 8));
}

TEST_P(VscanRepeatRowsTest, NativeBitmapRepeatsTheSameRows) {
    Format f = GetParam().format;
    f.repeatRows = 8;
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_REPEATROWS, f.repeatRows));
    OpenSmall();
    Negotiate(f, TWSX_NATIVE);
    EnableToReady();
    Dib dib;
    Native(dib);
    ASSERT_FALSE(HasFatalFailure());
    ExpectDib(f, dib, kWidth, kHeight, 1);
}

// As many rows as the image has, or more, deliver the page itself.
TEST_P(VscanRepeatRowsTest, AsManyRowsAsTheImageDeliverThePage) {
    const Format f = GetParam().format;
    for (int rows : {kHeight, kHeight + 1}) {
        SCOPED_TRACE(rows);
        ds.reset();
        ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_REPEATROWS, rows));
        OpenSmall();
        Negotiate(f, TWSX_MEMORY);
        EnableToReady();
        TransferStrips(f);
    }
}
INSTANTIATE_TEST_SUITE_P(Formats, VscanRepeatRowsTest, ::testing::ValuesIn(kFormats), FormatName);

TEST_F(VscanXferTest, RepeatRowsKeyOfTheSettingsFile) {
    std::ofstream(IniPath()) << "RepeatRows = 4\n";
    ds.reset();
    EXPECT_EQ(1, ds.Info().settingsKeys);
    Format f = MakeFormat(TWPT_GRAY, 8);
    f.repeatRows = 4;
    OpenSmall();
    Negotiate(f, TWSX_MEMORY);
    EnableToReady();
    TransferStrips(f);
}

// DAT_SETUPMEMXFER for an image: a row at least, whole rows within 64 KB preferred (a row at least), a plane at
// most (the preferred size at least).
struct SetupCase {
    const char *name;
    Format format;
    double right, bottom, xResolution, xScaling;
    TW_UINT32 min, preferred, max;
};
const SetupCase kSetupCases[] = {
    {"small gray", MakeFormat(TWPT_GRAY, 8), 1, 0.5, 100, 1, 100, 655 * 100, 655 * 100},
    {"bed of gray", MakeFormat(TWPT_GRAY, 8), 8.5, 14, 100, 1, 850, 77 * 850, 850 * 1400},
    {"bed of RGB", MakeFormat(TWPT_RGB, 24), 8.5, 14, 100, 1, 2550, 25 * 2550, 2550 * 1400},
    {"bed of planar RGB", MakeFormat(TWPT_RGB, 24, true), 8.5, 14, 100, 1, 850, 77 * 850, 850 * 1400},
    {"bed of BW", MakeFormat(TWPT_BW, 1), 8.5, 14, 100, 1, 107, 612 * 107, 107 * 1400},
    {"rows above 64 KB", MakeFormat(TWPT_RGB, 48), 8.5, 1, 400, 4, 81600, 81600, 81600 * 100},
};

TEST_F(VscanXferTest, SetupMemXferSizesOfEachImage) {
    for (const SetupCase &k : kSetupCases) {
        SCOPED_TRACE(k.name);
        ds.reset();
        ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, k.right, k.bottom));
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, k.xResolution));
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XSCALING, TWTY_FIX32, k.xScaling));
        Negotiate(k.format, TWSX_MEMORY);
        TW_SETUPMEMXFER setup{};
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &setup));
        EXPECT_EQ(k.min, setup.MinBufSize);
        EXPECT_EQ(k.preferred, setup.Preferred);
        EXPECT_EQ(k.max, setup.MaxBufSize);
    }
}

TEST_F(VscanXferTest, MemoryBufferByHandleAndTooSmallBuffers) {
    OpenSmall();
    Negotiate(MakeFormat(TWPT_GRAY, 8), TWSX_MEMORY);
    EnableToReady();
    TW_IMAGEMEMXFER mx{};
    std::vector<unsigned char> small(kWidth - 1);
    mx.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
    mx.Memory.Length = static_cast<TW_UINT32>(small.size());
    mx.Memory.TheMem = small.data();
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx)) << "less than a row";
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    HGLOBAL handle = GlobalAlloc(GMEM_MOVEABLE, kWidth * kHeight);
    mx.Memory.Flags = TWMF_APPOWNS | TWMF_HANDLE;
    mx.Memory.Length = kWidth * kHeight;
    mx.Memory.TheMem = handle;
    ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx));
    EXPECT_EQ(static_cast<TW_UINT32>(kHeight), mx.Rows);
    const auto *bytes = static_cast<const unsigned char *>(GlobalLock(handle));
    EXPECT_EQ(ExpectedSamples(MakeFormat(TWPT_GRAY, 8), kWidth, kHeight, 1, 30, 20)[0], bytes[20 * kWidth + 30]);
    GlobalUnlock(handle);
    GlobalFree(handle);
}

TEST_F(VscanXferTest, ResolutionScalingAndPaperSizeSetTheImageSize) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, 1, 0.5));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 200));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_YRESOLUTION, TWTY_FIX32, 300));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XSCALING, TWTY_FIX32, 0.5));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EnableToReady();
    TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(100, info.ImageWidth) << "1 inch x 200 dpi x 0.5";
    EXPECT_EQ(150, info.ImageLength) << "0.5 inch x 300 dpi";
    EXPECT_EQ(200, Fix32ToDouble(info.XResolution));
    EXPECT_EQ(300, Fix32ToDouble(info.YResolution));
    Dib dib;
    Native(dib);
    EXPECT_EQ(100, dib.header.biWidth);
    EXPECT_EQ(150, dib.header.biHeight);
    EXPECT_EQ(7874, dib.header.biXPelsPerMeter);
    EXPECT_TRUE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, 100, 150, 1));
    TW_UINT16 count;
    EndXfer(count);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XSCALING, TWTY_FIX32, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 50));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_YRESOLUTION, TWTY_FIX32, 50));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_SUPPORTEDSIZES, TWTY_UINT16, TWSS_USLETTER));
    EnableToReady();
    info = ImageInfo();
    EXPECT_EQ(425, info.ImageWidth) << "8.5 inches at 50 dpi";
    EXPECT_EQ(550, info.ImageLength) << "11 inches at 50 dpi";
}

TEST_F(VscanXferTest, YScalingSetsTheHeight) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_YSCALING, TWTY_FIX32, 1.5));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EnableToReady();
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(kWidth, info.ImageWidth);
    EXPECT_EQ(75, info.ImageLength) << "0.5 inch x 100 dpi x 1.5";
    EXPECT_EQ(100, Fix32ToDouble(info.YResolution)) << "scaling is no resolution";
    Dib dib;
    Native(dib);
    EXPECT_EQ(75, dib.header.biHeight);
    EXPECT_TRUE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, kWidth, 75, 1));
}

TEST_F(VscanXferTest, ImageInfoResolutionIsPerCurrentUnitAndTheSizeStays) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_YRESOLUTION, TWTY_FIX32, 200));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_CENTIMETERS));
    EnableToReady();
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_NEAR(100 / 2.54, Fix32ToDouble(info.XResolution), kFixTolerance) << "pixels per centimetre";
    EXPECT_NEAR(200 / 2.54, Fix32ToDouble(info.YResolution), kFixTolerance);
    EXPECT_EQ(kWidth, info.ImageWidth) << "1 inch at 100 dpi, whatever the unit";
    EXPECT_EQ(2 * kHeight, info.ImageLength) << "0.5 inch at 200 dpi";
    Dib dib;
    Native(dib);
    EXPECT_EQ(3937, dib.header.biXPelsPerMeter);
    EXPECT_EQ(7874, dib.header.biYPelsPerMeter);
}

TEST_F(VscanXferTest, ThresholdAndPixelFlavourDecideBlackAndWhite) {
    OpenSmall();
    Negotiate(MakeFormat(TWPT_BW, 1), TWSX_NATIVE);
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_THRESHOLD, TWTY_FIX32, 60));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELFLAVOR, TWTY_UINT16, TWPF_VANILLA));
    EnableToReady();
    Dib dib;
    Native(dib);
    Format f = MakeFormat(TWPT_BW, 1);
    f.threshold = 60;
    f.vanilla = true;
    ExpectColourTable(f, dib);
    EXPECT_TRUE(DibMatches(f, dib, kWidth, kHeight, 1));
    f.vanilla = false;
    EXPECT_FALSE(DibMatches(f, dib, kWidth, kHeight, 1)) << "the flavour must show in the bits";
}

TEST_F(VscanXferTest, VanillaInvertsGraySamplesButNotPaletteIndexes) {
    for (Format f : {MakeFormat(TWPT_GRAY, 8), MakeFormat(TWPT_GRAY, 16), MakeFormat(TWPT_PALETTE, 8)}) {
        SCOPED_TRACE(std::to_string(f.pixelType) + "/" + std::to_string(f.bitDepth));
        f.vanilla = true;
        ds.reset();
        OpenSmall();
        Negotiate(f, TWSX_NATIVE);
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELFLAVOR, TWTY_UINT16, TWPF_VANILLA));
        TW_PALETTE8 palette{};
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
        EnableToReady();
        Dib dib;
        Native(dib);
        ExpectColourTable(f, dib);
        EXPECT_TRUE(DibMatches(f, dib, kWidth, kHeight, 1));
        Format chocolate = f;
        chocolate.vanilla = false;
        EXPECT_EQ(f.pixelType == TWPT_PALETTE, DibMatches(chocolate, dib, kWidth, kHeight, 1))
            << "only gray shows the flavour";
        if (f.pixelType == TWPT_GRAY) {
            EXPECT_EQ(255, palette.Colors[0].Channel1) << "the gray ramp starts at white";
            EXPECT_EQ(0, palette.Colors[255].Channel3);
        } else {
            EXPECT_EQ(0, palette.Colors[0].Channel1) << "a palette keeps its colours";
            EXPECT_EQ(255, palette.Colors[0].Channel2);
        }
        TW_UINT16 count;
        ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
        EnableToReady();
        const unsigned rowBytes = kWidth * f.bitDepth / 8;
        std::vector<unsigned char> image(rowBytes * kHeight);
        TW_IMAGEMEMXFER mx{};
        mx.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
        mx.Memory.Length = static_cast<TW_UINT32>(image.size());
        mx.Memory.TheMem = image.data();
        ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx));
        ASSERT_TRUE(StripRowsMatch(f, image.data(), rowBytes, kWidth, kHeight, 1, 0, kHeight)) << "memory pixels";
    }
}

TEST_F(VscanXferTest, TransfersOfAnotherMechanismAreSequenceErrors) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
    EnableToReady();
    TW_UINT32 handle = 0;
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr));
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
}

TEST_F(VscanXferTest, PaletteOfEachPixelType) {
    OpenSmall();
    TW_PALETTE8 palette{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_PALETTE));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
    EXPECT_EQ(256, palette.NumColors);
    EXPECT_EQ(TWPA_RGB, palette.PaletteType);
    for (int i = 0; i < 256; ++i) {
        unsigned r, g, b;
        ExpectedPaletteEntry(8, i, r, g, b);
        ASSERT_EQ(i, palette.Colors[i].Index);
        ASSERT_EQ(r, palette.Colors[i].Channel1) << i;
        ASSERT_EQ(g, palette.Colors[i].Channel2) << i;
        ASSERT_EQ(b, palette.Colors[i].Channel3) << i;
    }
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, 4));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
    EXPECT_EQ(16, palette.NumColors);
    EXPECT_EQ(255, palette.Colors[15].Channel1);
    EXPECT_EQ(0, palette.Colors[15].Channel2);
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
    EXPECT_EQ(256, palette.NumColors);
    EXPECT_EQ(TWPA_GRAY, palette.PaletteType);
    EXPECT_EQ(77, palette.Colors[77].Channel3);
}

TEST_F(VscanXferTest, SetupFileXferTakesOnlyBmp) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    TW_SETUPFILEXFER setup{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GETDEFAULT, &setup));
    EXPECT_STREQ("TWAIN.TMP", setup.FileName);
    setup.Format = TWFF_TIFF;
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup));
    setup.Format = TWFF_BMP;
    std::strcpy(setup.FileName, "C:\\elsewhere.bmp");
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup));
    TW_SETUPFILEXFER back{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, &back));
    EXPECT_STREQ("C:\\elsewhere.bmp", back.FileName);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_RESET, &back));
    EXPECT_STREQ("TWAIN.TMP", back.FileName);
    TW_UINT32 group = 0;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group));
    EXPECT_EQ(static_cast<TW_UINT32>(DG_IMAGE), group);
}

TEST_F(VscanXferTest, SetupFileXferTakesNamesThatFitTheirField) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    TW_SETUPFILEXFER setup{};
    setup.Format = TWFF_BMP;
    std::memset(setup.FileName, 'a', sizeof setup.FileName);
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup)) << "no NUL in 256 bytes";
    TW_SETUPFILEXFER back{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, &back));
    EXPECT_STREQ("TWAIN.TMP", back.FileName) << "the name before stays";
    setup.FileName[sizeof setup.FileName - 1] = '\0';
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup)) << "255 characters and a NUL";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, &back));
    EXPECT_EQ(std::string(sizeof setup.FileName - 1, 'a'), back.FileName);
    setup.FileName[0] = '\0';
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup)) << "an empty name";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, &back));
    EXPECT_EQ(std::string(sizeof setup.FileName - 1, 'a'), back.FileName);
}

TEST_F(VscanXferTest, FeederDeliversNumberedPagesUntilEmpty) {
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    Container loaded;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERLOADED, MSG_GETCURRENT, loaded));
    EXPECT_EQ(1, loaded.Value());
    EnableToReady();
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(3, pending.Count);
    for (int page = 1; page <= 3; ++page) {
        SCOPED_TRACE(page);
        TW_IMAGELAYOUT layout{};
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
        EXPECT_EQ(static_cast<TW_UINT32>(page), layout.PageNumber);
        Dib dib;
        Native(dib);
        EXPECT_TRUE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, kWidth, kHeight, page));
        if (page == 2) { // the page number is in the pixels: page 1's would differ
            EXPECT_FALSE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, kWidth, kHeight, 1));
        }
        TW_UINT16 count = 99;
        ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
        EXPECT_EQ(3 - page, count);
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERLOADED, MSG_GETCURRENT, loaded));
        EXPECT_EQ(page < 3 ? 1 : 0, loaded.Value());
    }
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(0, ds.Info().sheetsLeft);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    EXPECT_TWFAIL(TWCC_OPERATIONERROR, ds.Enable(false)) << "an empty feeder";
    ds.setPages(2);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERLOADED, MSG_GETCURRENT, loaded));
    EXPECT_EQ(1, loaded.Value()) << "loading sheets";
}

TEST_F(VscanXferTest, XferCountAndImageDataSetChooseTheBatch) {
    ds.setPages(5);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_XFERCOUNT, TWTY_INT16, 2));
    EnableToReady();
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(2, pending.Count);
    TW_UINT16 count;
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count)) << "skipping an image in state 6";
    EXPECT_EQ(1, count);
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(3, ds.Info().sheetsLeft);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_IMAGEDATASET, TWON_ARRAY, MakeArray(TWTY_UINT32, {5, 2})));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_XFERCOUNT, TWTY_INT16, -1));
    EnableToReady();
    for (int page : {5, 2}) {
        Dib dib;
        Native(dib);
        EXPECT_TRUE(DibMatches(MakeFormat(TWPT_RGB, 24), dib, kWidth, kHeight, page)) << "page " << page;
        ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    }
    EXPECT_EQ(0, count);
}

TEST_F(VscanXferTest, PendingXfersResetDropsTheBatch) {
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(0, pending.Count) << "nothing announced in state 4";
    EnableToReady();
    pending.Count = 99;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
    EXPECT_EQ(0, pending.Count);
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(3, ds.Info().sheetsLeft) << "dropped sheets stay in the feeder";
}

TEST_F(VscanXferTest, EndingAnImageHalfwayThroughAMemoryTransfer) {
    ds.setPages(2);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    Negotiate(MakeFormat(TWPT_GRAY, 8), TWSX_MEMORY);
    EnableToReady();
    std::vector<unsigned char> buffer(kWidth * 10);
    TW_IMAGEMEMXFER mx;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    TW_UINT16 count;
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(1, count);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_EQ(0u, mx.YOffset) << "the next image starts at its top";
    EXPECT_EQ(ExpectedSamples(MakeFormat(TWPT_GRAY, 8), kWidth, kHeight, 2, 50, 5)[0], buffer[5 * kWidth + 50]);
}

} // namespace
} // namespace smtest
