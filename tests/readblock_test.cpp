// Pulling an image block by block with smReadBlock: the bytes delivered, the end of the image, cancels and failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "GlobalMemoryTracker.h"
#include "TransferTest.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr DWORD kImageBytes = kSmallPageWidth * kSmallPageLength * 3;
constexpr DWORD kEnded = 0xFFFFFFFF;
// The guards around a destination.
constexpr size_t kGuard = 256;
constexpr unsigned char kCanary = 0xC3;

using ReadBlockProc = BOOL(WINAPI *)(BYTE *, DWORD, DWORD *);

// One smReadBlock call into `size` bytes between two guards; failure when a guard was written.
::testing::AssertionResult ReadOnce(ReadBlockProc readBlock, DWORD size, BOOL &ended, DWORD &count,
                                    std::vector<unsigned char> &bytes) {
    std::vector<unsigned char> region(kGuard + size + kGuard, kCanary);
    count = 0x12345678;
    ended = readBlock(region.data() + kGuard, size, &count);
    bytes.assign(region.begin() + kGuard, region.begin() + kGuard + size);
    for (size_t i = 0; i < region.size(); ++i)
        if ((i < kGuard || i >= kGuard + size) && region[i] != kCanary)
            return ::testing::AssertionFailure()
                   << "a byte " << (i < kGuard ? "before" : "after") << " the destination was written";
    return ::testing::AssertionSuccess();
}

// Pulls one image with calls of `size` bytes until smReadBlock answers 1. The call that ends the image brings its
// last block too: `imageBytes` less the bytes counted before. `blocks`, when given, counts the calls that answered 0.
std::vector<unsigned char> ReadImage(ReadBlockProc readBlock, DWORD size, DWORD imageBytes, int *blocks = nullptr) {
    std::vector<unsigned char> image;
    if (blocks)
        *blocks = 0;
    for (int call = 0; call < 10000; ++call) {
        BOOL ended = FALSE;
        DWORD count = 0;
        std::vector<unsigned char> bytes;
        const ::testing::AssertionResult guarded = ReadOnce(readBlock, size, ended, count, bytes);
        if (!guarded) {
            ADD_FAILURE() << "call " << call << " wrote outside its destination: " << guarded.message();
            return image;
        }
        if (ended) {
            EXPECT_EQ(kEnded, count);
            if (image.size() > imageBytes) {
                ADD_FAILURE() << image.size() << " bytes counted for an image of " << imageBytes;
                return image;
            }
            const DWORD rest = imageBytes - static_cast<DWORD>(image.size());
            EXPECT_LE(rest, size);
            image.insert(image.end(), bytes.begin(), bytes.begin() + std::min(rest, size));
            return image;
        }
        EXPECT_GT(count, 0u);
        if (count > size) {
            ADD_FAILURE() << "call " << call << " counted " << count << " bytes into " << size;
            return image;
        }
        image.insert(image.end(), bytes.begin(), bytes.begin() + count);
        if (blocks)
            ++*blocks;
    }
    ADD_FAILURE() << "the image never ended";
    return image;
}

// The TW_IMAGEMEMXFER records of the DAT_IMAGEMEMXFER calls among `calls`: as the module passed them
// (&TdsmCall::dataIn) or as the source left them (&TdsmCall::dataOut).
std::vector<TW_IMAGEMEMXFER> MemXferRecords(const std::vector<TdsmCall> &calls,
                                            unsigned char (TdsmCall::*data)[TDSM_MAX_DATA]) {
    std::vector<TW_IMAGEMEMXFER> records;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_IMAGEMEMXFER) {
            TW_IMAGEMEMXFER record = {};
            std::memcpy(&record, call.*data, sizeof record);
            records.push_back(record);
        }
    return records;
}

// The DAT_PENDINGXFERS calls among `calls`, described.
Strings TransferEnds(const std::vector<TdsmCall> &calls) {
    Strings out;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_PENDINGXFERS)
            out.push_back(Describe(call));
    return out;
}

class ReadBlockTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        readBlock = library.Get<decltype(readBlock)>("smReadBlock");
        ASSERT_NE(nullptr, readBlock);
    }
    void StartScan() { TransferTest::StartScan(SM_XFER_MEMORY); }
    // The buffer length the module offers the source for the next block, when the caller has `size` bytes.
    TW_UINT32 OfferedLength(DWORD size) {
        std::vector<BYTE> buffer(size);
        Mark();
        DWORD count = 0;
        readBlock(buffer.data(), size, &count);
        const std::vector<TW_IMAGEMEMXFER> asked = MemXferRecords(CallsSinceMark(), &TdsmCall::dataIn);
        const TW_IMAGEMEMXFER block = asked.empty() ? TW_IMAGEMEMXFER{} : asked.back();
        EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), block.Memory.Flags);
        return block.Memory.Length;
    }
    DWORD PreferredSize() {
        DWORD minimum = 0, maximum = 0, preferred = 0;
        EXPECT_EQ(SM_OK, library.Get<LONG(WINAPI *)(DWORD *, DWORD *, DWORD *)>("smGetMemXferSize")(&minimum, &maximum,
                                                                                                    &preferred));
        return preferred;
    }
    BOOL(WINAPI *readBlock)(BYTE *, DWORD, DWORD *) = nullptr;
};

TEST_F(ReadBlockTest, WholeImageArrivesBlockByBlockInRgbOrder) {
    StartScan();
    int blocks = 0;
    const std::vector<unsigned char> image = ReadImage(readBlock, 4096, kImageBytes, &blocks);
    ASSERT_EQ(kImageBytes, image.size());
    EXPECT_GT(blocks, 1) << "a 4096-byte buffer cannot take the page at once";
    for (int y = 0; y < kSmallPageLength; ++y)
        for (int x = 0; x < kSmallPageWidth; ++x) {
            const std::vector<unsigned> expected =
                ExpectedSamples(Format{}, kSmallPageWidth, kSmallPageLength, 1, x, y);
            const unsigned char *pixel = &image[(y * kSmallPageWidth + x) * 3];
            ASSERT_EQ(expected, (std::vector<unsigned>{pixel[0], pixel[1], pixel[2]})) << "pixel " << x << ", " << y;
        }
    EXPECT_EQ((Strings{"DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS"}), TransferEnds(CallsSinceMark()));
}

TEST_F(ReadBlockTest, FailedBlockLeavesTheCountAsItWas) {
    StartScan();
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER, 1, 2));
    std::vector<BYTE> buffer(4096);
    DWORD count = 0x12345678;
    EXPECT_EQ(0, readBlock(buffer.data(), 4096, &count)) << "the transfer failed, but the count says nothing ended";
    EXPECT_EQ(0x12345678u, count);
    count = kEnded;
    EXPECT_EQ(1, readBlock(buffer.data(), 4096, &count)) << "the count alone decides";
    EXPECT_TRUE(TransferEnds(CallsSinceMark()).empty());
}

TEST_F(ReadBlockTest, SourceCancelEndsTheImageAndDropsThePending) {
    StartScan();
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_CANCELBLOCK, 2));
    std::vector<BYTE> buffer(4096);
    DWORD count = 0;
    EXPECT_EQ(0, readBlock(buffer.data(), 4096, &count));
    EXPECT_EQ(4096u / (kSmallPageWidth * 3) * (kSmallPageWidth * 3), count) << "the scanner delivers whole rows";
    EXPECT_EQ(1, readBlock(buffer.data(), 4096, &count));
    EXPECT_EQ(kEnded, count);
    // The source, back in state 5 after the end of the image, may refuse the reset; it is sent anyway.
    const Strings ends = TransferEnds(CallsSinceMark());
    ASSERT_EQ(2u, ends.size());
    EXPECT_EQ("DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS", ends[0]);
    EXPECT_EQ("DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET", ends[1].substr(0, ends[1].find(" -> ")));
}

TEST_F(ReadBlockTest, OperationErrorEndsEverything) {
    StartScan();
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_OPERATIONERROR, 1, 1));
    std::vector<BYTE> buffer(4096);
    DWORD count = 0;
    EXPECT_EQ(1, readBlock(buffer.data(), 4096, &count));
    EXPECT_EQ(kEnded, count);
    // The pending images are dropped twice: once for the error, once more because it is an operation
    // error (the source, back in state 5 by then, may refuse the second).
    const Strings ends = TransferEnds(CallsSinceMark());
    ASSERT_EQ(2u, ends.size());
    EXPECT_EQ("DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET -> TWRC_SUCCESS", ends[0]);
    EXPECT_EQ("DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET", ends[1].substr(0, ends[1].find(" -> ")));
}

TEST_F(ReadBlockTest, BlocksAreCutToTheCallersSize) {
    StartScan();
    ASSERT_GT(PreferredSize(), 1000u);
    EXPECT_EQ(1000u, OfferedLength(1000)) << "the preferred size is cut to the caller's";
}

TEST_F(ReadBlockTest, OneMakersSourcesGetBlocksOfTheCallersSize) {
    scanner.setIdentity("EPSON", nullptr, nullptr);
    StartScan();
    const DWORD size = PreferredSize() + 5000;
    EXPECT_EQ(size, OfferedLength(size)) << "this maker's source gets the caller's size, not its own preferred one";
}

TEST_F(ReadBlockTest, OtherSourcesGetTheirPreferredSize) {
    StartScan();
    const DWORD preferred = PreferredSize();
    EXPECT_EQ(preferred, OfferedLength(preferred + 5000));
}

// --- Whole pages pulled after the event filter left the transfer pending.

constexpr DWORD kRgbRow = kSmallPageWidth * 3;

Format Gray8() {
    return MakeFormat(TWPT_GRAY, 8);
}

// The page's pixels packed row after row as the scanner sends them: R, G, B or gray, one byte each.
std::vector<unsigned char> PackedPage(const Format &f, int width, int height, int page) {
    std::vector<unsigned char> bytes;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (unsigned sample : ExpectedSamples(f, width, height, page, x, y))
                bytes.push_back(static_cast<unsigned char>(sample));
    return bytes;
}

::testing::AssertionResult SameBytes(const std::vector<unsigned char> &expected,
                                     const std::vector<unsigned char> &got) {
    const size_t common = std::min(expected.size(), got.size());
    for (size_t i = 0; i < common; ++i)
        if (expected[i] != got[i])
            return ::testing::AssertionFailure() << "byte " << i << " is " << static_cast<unsigned>(got[i])
                                                 << ", expected " << static_cast<unsigned>(expected[i]);
    if (expected.size() != got.size())
        return ::testing::AssertionFailure() << got.size() << " bytes, expected " << expected.size();
    return ::testing::AssertionSuccess();
}

// CV_Scan.INI beside the test program says [Settings] SuppressTWAIN=2 for each test: the module's event filter sees
// the transfer-ready event and leaves the images pending for smReadBlock.
class PageReadTest : public XferTest {
protected:
    void SetUp() override {
        settings_ = BinDir() + "\\CV_Scan.INI";
        XferTest::SetUp();
        ASSERT_TRUE(WritePrivateProfileStringA("Settings", "SuppressTWAIN", "2", settings_.c_str()));
        WritePrivateProfileStringA(nullptr, nullptr, nullptr, settings_.c_str());
    }
    void TearDown() override {
        XferTest::TearDown();
        DeleteFileA(settings_.c_str());
    }

    void Fault(int fault, int value) { ASSERT_EQ(1, scanner.setFault(fault, value)) << "fault " << fault; }
    // Blocks of at most `bytes`: the source's preferred and largest sizes.
    void BlockSize(DWORD bytes) {
        Fault(VSCAN_FAULT_PREFERREDBUFSIZE, static_cast<int>(bytes));
        Fault(VSCAN_FAULT_MAXBUFSIZE, static_cast<int>(bytes));
    }
    // Enables the source without its interface and runs the message loop through smIsDSEvent until the module has
    // seen the transfer-ready event.
    void WaitForPendingImages() {
        ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
        ASSERT_TRUE(
            Pump([this] { return viewer.CountText("Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY") > 0; }));
        ASSERT_EQ(VSCAN_STATE_XFERREADY, scanner.Info().state);
        EXPECT_TRUE(app.Notices().empty()) << "the module transferred nothing itself";
        Reset();
    }
    // Three pages of `format`, `width` pixels wide in rows of `bytesPerRow` bytes, pulled in blocks of 20 rows
    // with destinations smaller than a block, as large and larger: each image as the scanner sent it, without
    // its padding, the first call of each asking the source's sizes and the image anew.
    void PullThreePages(const Format &format, int width, DWORD bytesPerRow, DWORD smaller) {
        const DWORD block = 20 * bytesPerRow;
        ASSERT_LT(smaller, block);
        BlockSize(block);
        WaitForPendingImages();
        const DWORD sizes[] = {smaller, block, block + 5000};
        for (int page = 1; page <= 3; ++page) {
            SCOPED_TRACE("page " + std::to_string(page) + " in calls of " + std::to_string(sizes[page - 1]));
            Mark();
            const std::vector<unsigned char> expected = PackedPage(format, width, kSmallPageLength, page);
            EXPECT_TRUE(
                SameBytes(expected, ReadImage(readBlock, sizes[page - 1], static_cast<DWORD>(expected.size()))));
            const Strings asked = AskedBeforeTheFirstBlock();
            EXPECT_EQ((Strings{"DG_CONTROL/DAT_SETUPMEMXFER/MSG_GET -> TWRC_SUCCESS",
                               "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS"}),
                      asked);
            const Strings ends = TransferEnds(CallsSinceMark());
            ASSERT_EQ(1u, ends.size());
            EXPECT_EQ("DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS", ends[0]);
            EXPECT_EQ(page == 3 ? VSCAN_STATE_ENABLED : VSCAN_STATE_XFERREADY, scanner.Info().state);
        }
    }
    Strings AskedBeforeTheFirstBlock() const {
        Strings out;
        for (const TdsmCall &call : CallsSinceMark()) {
            if (call.dat == DAT_IMAGEMEMXFER)
                break;
            if (call.dat == DAT_SETUPMEMXFER || call.dat == DAT_IMAGEINFO)
                out.push_back(Describe(call));
        }
        return out;
    }

private:
    std::string settings_;
};

TEST_F(PageReadTest, Gray8PagesArriveWhole) {
    Open(SM_XFER_MEMORY, Gray8(), 3);
    PullThreePages(Gray8(), kSmallPageWidth, kSmallPageWidth, 1000);
}

TEST_F(PageReadTest, Rgb24PagesArriveWholeInRgbOrder) {
    Open(SM_XFER_MEMORY, Format{}, 3);
    PullThreePages(Format{}, kSmallPageWidth, kRgbRow, 1000);
}

TEST_F(PageReadTest, PaddedRgb24RowsArrivePacked) {
    Open(SM_XFER_MEMORY, Format{}, 3);
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    PullThreePages(Format{}, kSmallPageWidth, (kRgbRow + 3) / 4 * 4, 1000);
}

TEST_F(PageReadTest, PaddedGray8RowsOfAnOddWidthArrivePacked) {
    Open(SM_XFER_MEMORY, Gray8(), 3);
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    const auto setImageLayout = library.Get<LONG(WINAPI *)(double, double, double, double, WORD)>("smSetImageLayout");
    ASSERT_EQ(SM_OK, setImageLayout(0, 0, 8.4, 14, SM_UNIT_INCHES)); // 105 pixels wide
    PullThreePages(Gray8(), 105, 108, 1000);
}

// Planar rows are 1 byte a pixel while the reader counts 3 for RGB: it reads each row as Columns x 3 bytes, from
// rows BytesPerRow apart, as far as the block's bytes go. Each row it delivers is thus three rows of one plane.
TEST_F(PageReadTest, PlanarRowsAreReadThreeRowsAtATime) {
    Format planar;
    planar.planar = true;
    Open(SM_XFER_MEMORY, planar, 2);
    const DWORD block = 30 * kSmallPageWidth;
    BlockSize(block);
    WaitForPendingImages();
    // Large enough for the three-fold rows of a block, which are copied whole.
    const DWORD size = 3 * block;
    for (int page = 1; page <= 2; ++page) {
        SCOPED_TRACE("page " + std::to_string(page));
        int plane = 0, calls = 0;
        BOOL ended = FALSE;
        while (!ended && calls < 100) {
            Mark();
            DWORD count = 0;
            std::vector<unsigned char> bytes;
            ASSERT_TRUE(ReadOnce(readBlock, size, ended, count, bytes));
            const std::vector<TW_IMAGEMEMXFER> answered = MemXferRecords(CallsSinceMark(), &TdsmCall::dataOut);
            ASSERT_EQ(1u, answered.size());
            const TW_IMAGEMEMXFER &strip = answered[0];
            if (calls++ > 0 && strip.YOffset == 0)
                ++plane;
            ASSERT_EQ(static_cast<TW_UINT32>(kSmallPageWidth), strip.BytesPerRow);
            std::vector<unsigned char> expected;
            for (DWORD r = 0; r < strip.Rows && (r + 3) * kSmallPageWidth <= strip.BytesWritten; ++r)
                for (DWORD k = 0; k < 3; ++k)
                    for (int x = 0; x < kSmallPageWidth; ++x)
                        expected.push_back(static_cast<unsigned char>(ExpectedSamples(
                            planar, kSmallPageWidth, kSmallPageLength, page, x, strip.YOffset + r + k)[plane]));
            EXPECT_EQ(ended ? kEnded : expected.size(), count);
            bytes.resize(expected.size());
            EXPECT_TRUE(SameBytes(expected, bytes)) << "the block of plane " << plane << " from row " << strip.YOffset;
        }
        EXPECT_TRUE(ended);
        EXPECT_EQ(2, plane) << "the three planes, one after the other";
        EXPECT_EQ(page == 2 ? VSCAN_STATE_ENABLED : VSCAN_STATE_XFERREADY, scanner.Info().state);
    }
}

TEST_F(PageReadTest, OneMakersSourceWithALargeMinimumGetsTheCallersSize) {
    scanner.setIdentity("EPSON", nullptr, nullptr);
    Open(SM_XFER_MEMORY, Format{}, 1);
    Fault(VSCAN_FAULT_MINBUFSIZE, 65536);
    WaitForPendingImages();
    BOOL ended = TRUE;
    DWORD count = 0;
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(ReadOnce(readBlock, 1000, ended, count, bytes));
    EXPECT_FALSE(ended);
    const std::vector<TW_IMAGEMEMXFER> asked = MemXferRecords(CallsSinceMark(), &TdsmCall::dataIn);
    ASSERT_EQ(1u, asked.size());
    EXPECT_EQ(1000u, asked[0].Memory.Length) << "the minimum of 65536, cut to the caller's size";
    ASSERT_EQ(3 * kRgbRow, count) << "the whole rows that 1000 bytes hold";
    const std::vector<unsigned char> page = PackedPage(Format{}, kSmallPageWidth, kSmallPageLength, 1);
    bytes.resize(count);
    EXPECT_TRUE(SameBytes(std::vector<unsigned char>(page.begin(), page.begin() + count), bytes));
}

// When the preferred size cut to the caller's cannot be had, the source's minimum of 20 rows is used: of unpadded
// rows the caller gets what its size holds, and the rest of the block is dropped.
TEST_F(PageReadTest, DestinationSmallerThanTheBlockDropsTheRestOfUnpaddedRows) {
    GlobalMemoryTracker tracker;
    ASSERT_GT(tracker.Attach(library.Module()), 0);
    Open(SM_XFER_MEMORY, Format{}, 1);
    Fault(VSCAN_FAULT_MINBUFSIZE, 20 * kRgbRow);
    WaitForPendingImages();
    const std::vector<unsigned char> page = PackedPage(Format{}, kSmallPageWidth, kSmallPageLength, 1);
    tracker.Begin();
    tracker.FailNextAllocations(1);
    BOOL ended = TRUE;
    DWORD count = 0;
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(ReadOnce(readBlock, 1000, ended, count, bytes));
    EXPECT_FALSE(ended);
    EXPECT_EQ(1000u, count);
    EXPECT_TRUE(SameBytes(std::vector<unsigned char>(page.begin(), page.begin() + 1000), bytes));
    ASSERT_TRUE(ReadOnce(readBlock, 1000, ended, count, bytes));
    EXPECT_FALSE(ended);
    ASSERT_EQ(3 * kRgbRow, count) << "the next block, in the preferred size cut to 1000";
    bytes.resize(count);
    EXPECT_TRUE(SameBytes(std::vector<unsigned char>(page.begin() + 20 * kRgbRow, page.begin() + 23 * kRgbRow), bytes))
        << "rows 20 to 22: the rest of the first block is gone";
    EXPECT_EQ(1,
              viewer.CountText("Memory buffer size =" + std::to_string(20 * kRgbRow) + " in TScanModule::DoMemXfer"));
    EXPECT_EQ(1, viewer.CountText("Memory buffer size =1000 in TScanModule::DoMemXfer"));
    EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
}

} // namespace
