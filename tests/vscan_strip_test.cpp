// Virtual scanner: the faults of image information and memory strips (pixel type, compression, rows, offsets,
// columns, row padding), and ending images in states 6 and 7.
#include <algorithm>
#include <string>
#include <vector>

#include "VscanTest.h"

namespace smtest {
namespace {

// 1 x 0.5 inch at 100 dpi.
constexpr int kWidth = 100;
constexpr int kHeight = 50;
constexpr unsigned char kPadding = 0xA5;

const Format kGray8 = MakeFormat(TWPT_GRAY, 8);

class VscanStripTest : public VscanTest {
protected:
    // State 6 with a small 8-bit gray image for memory transfers.
    void ReadyGray() {
        OpenSmall();
        Negotiate(kGray8, TWSX_MEMORY);
        EnableToReady();
    }
    // Ends the image and, back in state 5, disables: state 4 again, for the next image.
    void EndAndDisable() {
        TW_UINT16 count = 99;
        ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
        EXPECT_EQ(0, count);
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    }
    // A whole gray image in strips of 10 rows: each strip's pixels are checked, its fields kept in `strips`.
    void TransferGray(std::vector<TW_IMAGEMEMXFER> &strips) {
        std::vector<unsigned char> buffer(kWidth * 10);
        strips.clear();
        for (int y = 0; y < kHeight; y += 10) {
            TW_IMAGEMEMXFER mx;
            ASSERT_TWRC(y + 10 < kHeight ? TWRC_SUCCESS : TWRC_XFERDONE, ds.Strip(buffer, mx)) << "row " << y;
            EXPECT_TRUE(StripRowsMatch(kGray8, buffer.data(), kWidth, kWidth, kHeight, 1, y, 10)) << "row " << y;
            strips.push_back(mx);
        }
    }
    // A whole gray image as TransferGray checks it, every strip as the source gives it without a fault.
    void TransferPlainGray() {
        std::vector<TW_IMAGEMEMXFER> strips;
        TransferGray(strips);
        for (size_t i = 0; i < strips.size(); ++i)
            ExpectPlainStrip(strips[i], static_cast<int>(i));
    }
    // The fields of the strips of an image as the source gives them without a fault.
    static void ExpectPlainStrip(const TW_IMAGEMEMXFER &mx, int index) {
        EXPECT_EQ(TWCP_NONE, mx.Compression) << "strip " << index;
        EXPECT_EQ(static_cast<TW_UINT32>(kWidth), mx.BytesPerRow) << "strip " << index;
        EXPECT_EQ(static_cast<TW_UINT32>(kWidth), mx.Columns) << "strip " << index;
        EXPECT_EQ(10u, mx.Rows) << "strip " << index;
        EXPECT_EQ(0u, mx.XOffset) << "strip " << index;
        EXPECT_EQ(static_cast<TW_UINT32>(10 * index), mx.YOffset) << "strip " << index;
        EXPECT_EQ(static_cast<TW_UINT32>(10 * kWidth), mx.BytesWritten) << "strip " << index;
    }
};

TEST_F(VscanStripTest, ImagePixelTypeAnswersAnotherTypeOverTheSamePixels) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 9));
    ReadyGray();
    TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(9, info.PixelType);
    EXPECT_EQ(1, info.SamplesPerPixel) << "the rest is the negotiated type's";
    EXPECT_EQ(8, info.BitsPerSample[0]);
    EXPECT_EQ(8, info.BitsPerPixel);
    EXPECT_EQ(TWCP_NONE, info.Compression);
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 0x7FFF));
    EXPECT_EQ(0x7FFF, ImageInfo().PixelType);
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 0));
    EXPECT_EQ(TWPT_BW, ImageInfo().PixelType) << "0 is a pixel type, not off";
    TransferPlainGray();
    EXPECT_EQ(TWPT_BW, ImageInfo().PixelType) << "in state 7 too";

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, VSCAN_IMAGEPIXELTYPE_OFF));
    EXPECT_EQ(TWPT_GRAY, ImageInfo().PixelType);
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 9));
    ds.reset();
    ReadyGray();
    EXPECT_EQ(TWPT_GRAY, ImageInfo().PixelType) << "VscanReset switches it off";
}

TEST_F(VscanStripTest, CompressionClaimedOverUncompressedBytes) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_COMPRESSION, 5));
    ReadyGray();
    TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(5, info.Compression);
    EXPECT_EQ(TWPT_GRAY, info.PixelType);
    std::vector<TW_IMAGEMEMXFER> strips;
    TransferGray(strips);
    ASSERT_EQ(5u, strips.size());
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(5, plain.Compression) << "strip " << i;
        plain.Compression = TWCP_NONE;
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_COMPRESSION, 0));
    EnableToReady();
    EXPECT_EQ(TWCP_NONE, ImageInfo().Compression);
    TransferPlainGray();
}

TEST_F(VscanStripTest, StripRowsAnswersAnotherRowCount) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPROWS, 0));
    ReadyGray();
    std::vector<TW_IMAGEMEMXFER> strips;
    TransferGray(strips);
    ASSERT_EQ(5u, strips.size()) << "the rows delivered stay 10 per strip";
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(0u, plain.Rows) << "strip " << i;
        plain.Rows = 10;
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPROWS, 3));
    EnableToReady();
    TransferGray(strips);
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(3u, plain.Rows) << "strip " << i;
        plain.Rows = 10;
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPROWS, VSCAN_STRIPROWS_OFF));
    EnableToReady();
    TransferPlainGray();
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPROWS, 0));
    ds.reset();
    ReadyGray();
    TransferGray(strips);
    EXPECT_EQ(10u, strips[0].Rows) << "VscanReset switches it off";
}

TEST_F(VscanStripTest, StripXOffsetDeltaMovesEveryStrip) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPXOFFSETDELTA, 1000));
    ReadyGray();
    std::vector<TW_IMAGEMEMXFER> strips;
    TransferGray(strips);
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(1000u, plain.XOffset) << "strip " << i << ": beyond the image's width";
        plain.XOffset = 0;
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPXOFFSETDELTA, -1));
    EnableToReady();
    TransferGray(strips);
    EXPECT_EQ(0xFFFFFFFFu, strips[0].XOffset) << "left of the image";
    EXPECT_EQ(0xFFFFFFFFu, strips[4].XOffset);
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPXOFFSETDELTA, 0));
    EnableToReady();
    TransferPlainGray();
}

TEST_F(VscanStripTest, StripYOffsetDeltaMovesEveryStrip) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPYOFFSETDELTA, 45));
    ReadyGray();
    std::vector<TW_IMAGEMEMXFER> strips;
    TransferGray(strips);
    ASSERT_EQ(5u, strips.size());
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(static_cast<TW_UINT32>(10 * i + 45), plain.YOffset) << "strip " << i;
        plain.YOffset = static_cast<TW_UINT32>(10 * i);
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EXPECT_EQ(85u, strips[4].YOffset) << "below the image's 50 rows";
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPYOFFSETDELTA, -20));
    EnableToReady();
    TransferGray(strips);
    EXPECT_EQ(static_cast<TW_UINT32>(-20), strips[0].YOffset) << "above the image";
    EXPECT_EQ(static_cast<TW_UINT32>(-10), strips[1].YOffset);
    EXPECT_EQ(20u, strips[4].YOffset);
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_STRIPYOFFSETDELTA, 0));
    EnableToReady();
    TransferPlainGray();
}

TEST_F(VscanStripTest, ColumnsDeltaChangesEveryStripsColumns) {
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_COLUMNSDELTA, 5));
    ReadyGray();
    EXPECT_EQ(kWidth, ImageInfo().ImageWidth) << "the image keeps its width";
    std::vector<TW_IMAGEMEMXFER> strips;
    TransferGray(strips);
    for (size_t i = 0; i < strips.size(); ++i) {
        TW_IMAGEMEMXFER plain = strips[i];
        EXPECT_EQ(static_cast<TW_UINT32>(kWidth + 5), plain.Columns) << "strip " << i;
        plain.Columns = kWidth;
        ExpectPlainStrip(plain, static_cast<int>(i));
    }
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_COLUMNSDELTA, -kWidth));
    EnableToReady();
    TransferGray(strips);
    EXPECT_EQ(0u, strips[0].Columns);
    EXPECT_EQ(static_cast<TW_UINT32>(kWidth), strips[0].BytesPerRow);
    EndAndDisable();

    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_COLUMNSDELTA, 0));
    EnableToReady();
    TransferPlainGray();
}

// --- RowAlign: padded rows in every format.

struct AlignCase {
    const char *name;
    Format format;
    int align;
    unsigned paddedRow; // of the 100-pixel rows
};

const AlignCase kAlignCases[] = {
    {"BW1", MakeFormat(TWPT_BW, 1), 4, 16},                    // 13 bytes
    {"Gray8", MakeFormat(TWPT_GRAY, 8), 16, 112},              // 100
    {"Gray16", MakeFormat(TWPT_GRAY, 16), 3, 201},             // 200
    {"Palette4", MakeFormat(TWPT_PALETTE, 4), 7, 56},          // 50
    {"RGB24", MakeFormat(TWPT_RGB, 24), 64, 320},              // 300
    {"RGB48", MakeFormat(TWPT_RGB, 48), 1000, 1000},           // 600
    {"PlanarRGB24", MakeFormat(TWPT_RGB, 24, true), 8, 104},   // 100 per plane
    {"PlanarRGB48", MakeFormat(TWPT_RGB, 48, true), 128, 256}, // 200 per plane
    {"Gray8Aligned", MakeFormat(TWPT_GRAY, 8), 4, 100},        // already a multiple: no padding
};

void PrintTo(const AlignCase &k, std::ostream *os) {
    *os << k.name;
}

std::string AlignName(const ::testing::TestParamInfo<AlignCase> &info) {
    return info.param.name;
}

class VscanRowAlignTest : public VscanStripTest, public ::testing::WithParamInterface<AlignCase> {};

TEST_P(VscanRowAlignTest, RowsPaddedWithA5AndSetupSizesFromThePaddedRow) {
    const AlignCase &k = GetParam();
    const Format &f = k.format;
    const unsigned pixelBytes = MemoryRowBytes(f, kWidth);
    const unsigned row = k.paddedRow;
    ASSERT_EQ(0u, row % k.align);
    ASSERT_LE(pixelBytes, row);
    ASSERT_LT(row - pixelBytes, static_cast<unsigned>(k.align));
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_ROWALIGN, k.align));
    OpenSmall();
    Negotiate(f, TWSX_MEMORY);
    const TW_SETUPMEMXFER setup = ds.SetupMem();
    EXPECT_EQ(row, setup.MinBufSize) << "a padded row";
    EXPECT_EQ(65536 / row * row, setup.Preferred) << "the padded rows within 64 KB";
    EXPECT_EQ(65536 / row * row, setup.MaxBufSize) << "the plane of 50 rows is smaller than the preferred size";
    EnableToReady();

    // A buffer of 7 padded rows and a bit: strips of 7 rows, the last shorter.
    const unsigned rowsPerStrip = 7;
    std::vector<unsigned char> buffer(rowsPerStrip * row + row - 1, 0);
    const int planes = f.planar ? 3 : 1;
    int strips = 0;
    for (int plane = 0; plane < planes; ++plane) {
        for (int y = 0; y < kHeight;) {
            std::fill(buffer.begin(), buffer.end(), 0);
            TW_IMAGEMEMXFER mx;
            const TW_UINT16 rc = ds.Strip(buffer, mx);
            const unsigned rows = std::min<unsigned>(rowsPerStrip, kHeight - y);
            const bool last = plane == planes - 1 && y + static_cast<int>(rows) == kHeight;
            ASSERT_TWRC(last ? TWRC_XFERDONE : TWRC_SUCCESS, rc) << "plane " << plane << " row " << y;
            ASSERT_EQ(rows, mx.Rows) << "plane " << plane << " row " << y;
            EXPECT_EQ(row, mx.BytesPerRow);
            EXPECT_EQ(rows * row, mx.BytesWritten);
            EXPECT_EQ(static_cast<TW_UINT32>(kWidth), mx.Columns);
            EXPECT_EQ(static_cast<TW_UINT32>(y), mx.YOffset);
            EXPECT_EQ(0u, mx.XOffset);
            EXPECT_EQ(TWCP_NONE, mx.Compression);
            ASSERT_TRUE(StripRowsMatch(f, buffer.data(), row, kWidth, kHeight, 1, y, rows, f.planar ? plane : -1));
            for (unsigned r = 0; r < rows; ++r)
                for (unsigned i = pixelBytes; i < row; ++i)
                    ASSERT_EQ(kPadding, buffer[r * row + i]) << "row " << y + r << " byte " << i;
            for (size_t i = rows * row; i < buffer.size(); ++i)
                ASSERT_EQ(0, buffer[i]) << "byte " << i << " after the strip";
            y += rows;
            ++strips;
        }
    }
    EXPECT_EQ(planes * ((kHeight + rowsPerStrip - 1) / rowsPerStrip), strips);
    TW_UINT16 count = 99;
    EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
}
INSTANTIATE_TEST_SUITE_P(Formats, VscanRowAlignTest, ::testing::ValuesIn(kAlignCases), AlignName);

// DAT_SETUPMEMXFER of larger images with padded rows: a plane at most, whole padded rows within 64 KB preferred.
TEST_F(VscanStripTest, RowAlignSetupSizesOfLargeImages) {
    struct SizeCase {
        const char *name;
        Format format;
        double right, bottom, xResolution, xScaling;
        int align;
        TW_UINT32 min, preferred, max;
    };
    const SizeCase cases[] = {
        {"bed of gray", kGray8, 8.5, 14, 100, 1, 16, 864, 75 * 864, 864 * 1400},
        {"bed of planar RGB", MakeFormat(TWPT_RGB, 24, true), 8.5, 14, 100, 1, 64, 896, 73 * 896, 896 * 1400},
        {"rows above 64 KB", MakeFormat(TWPT_RGB, 48), 8.5, 1, 400, 4, 1000, 82000, 82000, 82000 * 100},
    };
    for (const SizeCase &k : cases) {
        SCOPED_TRACE(k.name);
        ds.reset();
        ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_ROWALIGN, k.align));
        ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, k.right, k.bottom));
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, k.xResolution));
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XSCALING, TWTY_FIX32, k.xScaling));
        Negotiate(k.format, TWSX_MEMORY);
        TW_SETUPMEMXFER setup = ds.SetupMem();
        EXPECT_EQ(k.min, setup.MinBufSize);
        EXPECT_EQ(k.preferred, setup.Preferred);
        EXPECT_EQ(k.max, setup.MaxBufSize);
    }
}

TEST_F(VscanStripTest, RowAlignOffAndNativeTransfersUnaffected) {
    for (int off : {0, 1}) {
        SCOPED_TRACE("RowAlign " + std::to_string(off));
        ds.reset();
        ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_ROWALIGN, 16));
        ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_ROWALIGN, off));
        ReadyGray();
        TransferPlainGray();
        EndAndDisable();
        EXPECT_EQ(static_cast<TW_UINT32>(kWidth), ds.SetupMem().MinBufSize);
    }

    ds.reset();
    ASSERT_EQ(1, ds.setFault(VSCAN_FAULT_ROWALIGN, 16));
    OpenSmall();
    Negotiate(kGray8, TWSX_NATIVE);
    EnableToReady();
    TW_UINT32 handle = 0;
    ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    Dib dib;
    ASSERT_TRUE(TakePackedDib(handle, dib));
    EXPECT_EQ(100u, dib.stride) << "bitmap rows padded to 4 bytes only";
    EXPECT_EQ(100u * kHeight, dib.header.biSizeImage);
    EXPECT_TRUE(DibMatches(kGray8, dib, kWidth, kHeight, 1));
}

// --- Ending images: MSG_ENDXFER and MSG_RESET in states 6 and 7.

TEST_F(VscanStripTest, EndXferAfterAFailedImageInfoInState6) {
    ds.setPages(2);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    Negotiate(kGray8, TWSX_MEMORY);
    ASSERT_EQ(1, ds.failTriplet(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER, 1, 1));
    EnableToReady();
    TW_IMAGEINFO info{};
    EXPECT_TWFAIL(TWCC_BUMMER, ds.Call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info));
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    TW_UINT16 count = 99;
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count)) << "the application gives the image up";
    EXPECT_EQ(1, count);
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    EXPECT_EQ(1, ds.Info().imagesDone);
    EXPECT_EQ(kHeight, ImageInfo().ImageLength) << "the next image answers";
    TW_IMAGELAYOUT layout{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
    EXPECT_EQ(2u, layout.PageNumber);

    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
}

TEST_F(VscanStripTest, EndXferInState7ButResetOnlyInState6) {
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    Negotiate(kGray8, TWSX_MEMORY);
    EnableToReady();
    std::vector<unsigned char> buffer(kWidth * 10);
    TW_IMAGEMEMXFER mx;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    ASSERT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
    TW_PENDINGXFERS pending{};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending))
        << "the batch is dropped only between images";
    TW_UINT16 count = 99;
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count)) << "ending an image halfway";
    EXPECT_EQ(2, count);
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);

    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_EQ(0u, mx.YOffset) << "the next image from its top";
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(1, count);
    pending.Count = 99;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
    EXPECT_EQ(0, pending.Count);
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(0, ds.Info().pending);
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Strip(buffer, mx)) << "nothing left to transfer";
}

} // namespace
} // namespace smtest
