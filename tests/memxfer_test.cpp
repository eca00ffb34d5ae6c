// The memory transfer that the event filter runs: the buffer it chooses, the application's own buffer, the repairs it
// makes in place, the pending count, cancels and failures, watched through the notifications the application window
// receives and the source manager's call log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "AcquireCheck.h"
#include "GlobalMemoryTracker.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr int kWidth = kSmallPageWidth;
constexpr int kLength = kSmallPageLength;
// Bytes of a row of the small page as the scanner sends it in a memory transfer, and as a bitmap stores it.
constexpr DWORD kRgbRow = kWidth * 3;
constexpr DWORD kRgbBitmapRow = (24 * kWidth + 31) / 32 * 4;
// TWCP_PACKBITS: a compression the scanner can claim while it still sends the bytes uncompressed.
constexpr int kPackBits = 2;

const char kSm8[] = "F:\\smkernal\\Sm_8.cpp";
const std::string kCloseTrace = "Send SM_CLOSEDSREQ in TScanModule::DoMemXfer";
const std::string kRgbSwapTrace = "Swap R,G data in TScanModuke::DoMemXfer";
const std::string kGraySwapTrace = "Swap hi-byte & lo-byte data in TScanModuke::DoMemXfer";
const std::string kRowRepairTrace = "not 4-byte align in TScanModule::DoMemXfer";

Format Rgb48() {
    return MakeFormat(TWPT_RGB, 48);
}
Format Gray(int depth) {
    return MakeFormat(TWPT_GRAY, depth);
}
Format PlanarRgb() {
    return MakeFormat(TWPT_RGB, 24, true);
}

// Whether a block holds `rows` rows of `columns` pixels in `bytesPerRow` bytes each, all of them written.
::testing::AssertionResult BlockHolds(const ScanBlockInfo &b, DWORD rows, DWORD columns, DWORD bytesPerRow) {
    std::string wrong;
    const auto field = [&](const char *name, DWORD got, DWORD expected) {
        if (got != expected)
            wrong += std::string(wrong.empty() ? "" : ", ") + name + " " + std::to_string(got) + " (expected " +
                     std::to_string(expected) + ")";
    };
    field("rows", b.rows, rows);
    field("columns", b.columns, columns);
    field("bytesPerRow", b.bytesPerRow, bytesPerRow);
    field("bytesWritten", b.bytesWritten, rows * bytesPerRow);
    if (wrong.empty())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << wrong;
}

std::string BufferTrace(DWORD size) {
    return "Memory buffer size =" + std::to_string(size) + " in TScanModule::DoMemXfer";
}

// One image of `blocks` blocks delivered whole, as the timeline shows it.
Strings Image(int blocks) {
    Strings steps{"ImageInfo", "XferStart"};
    for (int b = 1; b <= blocks; ++b) {
        steps.push_back(b == blocks ? "LastBlock" : "Block");
        steps.push_back("XferData");
    }
    steps.push_back("EndXfer");
    steps.push_back("XferEnd(0)");
    return steps;
}

Strings Join(std::initializer_list<Strings> parts) {
    Strings all;
    for (const Strings &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

class MemXferTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        if (HasFatalFailure())
            return;
        callCount_ = dsm.Get<TdsmCallCountProc>("TdsmCallCount");
        // Every notice is stamped with the number of source-manager calls made before it, then handed to the test.
        app.onXferStart = [this](const Notice &notice, ScanImageInfo *image) {
            Stamp(notice);
            if (onStart)
                onStart(notice, image);
        };
        app.onXferData = [this](const Notice &notice, ScanBlockInfo *block) {
            Stamp(notice);
            if (onData)
                onData(notice, block);
        };
        app.onXferEnd = [this](const Notice &notice, ScanImageInfo *image) {
            Stamp(notice);
            if (onEnd)
                onEnd(notice, image);
        };
        app.onCloseDSReq = [this](const Notice &notice) { Stamp(notice); };
    }

    // Opens the scanner for memory transfers of the small page.
    void OpenMemory(const Format &format = Format{}, int pages = 1) { Open(SM_XFER_MEMORY, format, pages); }
    // Blocks of at most `bytes`: the source's preferred and largest sizes.
    void BlockSize(DWORD bytes) {
        ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, static_cast<int>(bytes)));
        ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_MAXBUFSIZE, static_cast<int>(bytes)));
    }
    void Fault(int fault, int value) { ASSERT_EQ(1, scanner.setFault(fault, value)) << "fault " << fault; }
    // The scan frame from the page's top left corner, `right` x `bottom` inches.
    void Frame(double right, double bottom) {
        const auto setImageLayout =
            library.Get<LONG(WINAPI *)(double, double, double, double, WORD)>("smSetImageLayout");
        ASSERT_EQ(SM_OK, setImageLayout(0, 0, right, bottom, SM_UNIT_INCHES));
    }
    // Enables the source without its interface and runs the message loop until the close request.
    bool Run() {
        start_ = callCount_();
        return Acquire(FALSE);
    }

    // The notifications and the transfer calls merged in the order they happened, from the enable on:
    // "ImageInfo", "Block" (TWRC_SUCCESS), "LastBlock" (TWRC_XFERDONE), "Block:<rc>" (any other answer), "EndXfer",
    // "Reset", and the notices as Notice::Brief() names them.
    Strings Timeline() const {
        const std::vector<TdsmCall> calls = dsm.Calls();
        Strings out;
        size_t j = 0;
        for (size_t i = start_; i <= calls.size(); ++i) {
            while (j < journal_.size() && journal_[j].first <= i)
                out.push_back(journal_[j++].second);
            if (i == calls.size())
                break;
            const std::string step = Step(calls[i]);
            if (!step.empty())
                out.push_back(step);
        }
        for (; j < journal_.size(); ++j)
            out.push_back(journal_[j].second);
        return out;
    }
    static std::string Step(const TdsmCall &call) {
        if (call.dat == DAT_IMAGEINFO)
            return call.rc == TWRC_SUCCESS ? "ImageInfo" : std::string("ImageInfo:") + TwrcName(call.rc);
        if (call.dat == DAT_IMAGEMEMXFER) {
            if (call.rc == TWRC_SUCCESS)
                return "Block";
            return call.rc == TWRC_XFERDONE ? "LastBlock" : std::string("Block:") + TwrcName(call.rc);
        }
        if (call.dat == DAT_PENDINGXFERS && call.msg == MSG_ENDXFER)
            return "EndXfer";
        if (call.dat == DAT_PENDINGXFERS && call.msg == MSG_RESET)
            return "Reset";
        return "";
    }
    // The TW_IMAGEMEMXFER records of the module's DAT_IMAGEMEMXFER calls since the enable, as the module passed them.
    std::vector<TW_IMAGEMEMXFER> BlocksAsked() const {
        std::vector<TW_IMAGEMEMXFER> blocks;
        const std::vector<TdsmCall> calls = dsm.Calls();
        for (size_t i = start_; i < calls.size(); ++i)
            if (calls[i].dat == DAT_IMAGEMEMXFER) {
                TW_IMAGEMEMXFER block = {};
                std::memcpy(&block, calls[i].dataIn, sizeof block);
                blocks.push_back(block);
            }
        return blocks;
    }
    std::vector<Notice> Notices(NoticeKind kind) const { return NoticesOf(app.Notices(), kind); }
    // The XferData notices of each image, image after image.
    std::vector<std::vector<Notice>> BlocksByImage() const { return smtest::BlocksByImage(app.Notices()); }
    int TraceCount(const std::string &level, const std::string &text) const {
        int count = 0;
        for (const TraceLine &record : viewer.Records())
            count += record.level == level && record.source == kSm8 && record.text == text;
        return count;
    }
    // The texts of the module's "Memory buffer size" records.
    Strings BufferTraces() const {
        Strings texts;
        for (const TraceLine &record : viewer.Records())
            if (record.text.rfind("Memory buffer size =", 0) == 0)
                texts.push_back(record.level + " " + record.source + " " + record.text);
        return texts;
    }
    static std::string OfSm8(const std::string &text) { return std::string("Trace ") + kSm8 + " " + text; }

    std::function<void(const Notice &, ScanImageInfo *)> onStart;
    std::function<void(const Notice &, ScanBlockInfo *)> onData;
    std::function<void(const Notice &, ScanImageInfo *)> onEnd;

private:
    void Stamp(const Notice &notice) { journal_.emplace_back(static_cast<size_t>(callCount_()), notice.Brief()); }

    TdsmCallCountProc callCount_ = nullptr;
    size_t start_ = 0;
    std::vector<std::pair<size_t, std::string>> journal_;
};

// --- Pixels as the application receives them.

TEST_F(MemXferTest, RgbBlocksArriveBlueGreenRed) {
    OpenMemory();
    BlockSize(20 * kRgbRow);
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    EXPECT_EQ(9u, images[0].size()) << "175 rows in blocks of 20";
    EXPECT_TRUE(BlocksCarryPage(images[0], Format{}, kWidth, kLength, 1, Swaps::Module));
    EXPECT_GE(TraceCount("Trace", kRgbSwapTrace), 1);
    EXPECT_EQ(0, TraceCount("Trace", kGraySwapTrace));
}

TEST_F(MemXferTest, Rgb48PixelsArriveWithTheirSixBytesReversed) {
    OpenMemory(Rgb48());
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    ASSERT_FALSE(images[0].empty());
    EXPECT_EQ(48, images[0][0].block.bitsPerPixel);
    EXPECT_TRUE(BlocksCarryPage(images[0], Rgb48(), kWidth, kLength, 1, Swaps::Module));
    EXPECT_GE(TraceCount("Trace", kRgbSwapTrace), 1);
}

TEST_F(MemXferTest, Gray16SamplesArriveWithTheirBytesExchanged) {
    OpenMemory(Gray(16));
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    ASSERT_FALSE(images[0].empty());
    EXPECT_EQ(SM_PIXEL_GRAY, images[0][0].block.pixelTypeFlag);
    EXPECT_TRUE(BlocksCarryPage(images[0], Gray(16), kWidth, kLength, 1, Swaps::Module));
    EXPECT_GE(TraceCount("Trace", kGraySwapTrace), 1);
    EXPECT_EQ(0, TraceCount("Trace", kRgbSwapTrace));
}

TEST_F(MemXferTest, Gray8ArrivesAsSent) {
    OpenMemory(Gray(8));
    BlockSize(30 * kWidth);
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    EXPECT_EQ(6u, images[0].size());
    EXPECT_TRUE(BlocksCarryPage(images[0], Gray(8), kWidth, kLength, 1, Swaps::None));
    EXPECT_EQ(0, TraceCount("Trace", kRgbSwapTrace));
    EXPECT_EQ(0, TraceCount("Trace", kGraySwapTrace));
}

TEST_F(MemXferTest, PlanarRgbArrivesAsSent) {
    OpenMemory(PlanarRgb());
    BlockSize(50 * kWidth);
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    ASSERT_EQ(12u, images[0].size()) << "three planes of 175 rows in blocks of 50";
    EXPECT_EQ(1, images[0][0].block.planar);
    EXPECT_EQ(kWidth, static_cast<int>(images[0][0].block.bytesPerRow));
    EXPECT_TRUE(BlocksCarryPage(images[0], PlanarRgb(), kWidth, kLength, 1, Swaps::None));
    for (const Notice &block : images[0])
        EXPECT_EQ(0, block.block.rowsAligned) << "a plane's row is not a bitmap's row";
    EXPECT_EQ(0, TraceCount("Trace", kRgbSwapTrace));
}

TEST_F(MemXferTest, CompressedRgbArrivesAsSentAndNotAligned) {
    OpenMemory();
    Fault(VSCAN_FAULT_COMPRESSION, kPackBits);
    // Rows of a bitmap's length, which uncompressed would be aligned.
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    BlockSize(20 * kRgbBitmapRow);
    ASSERT_TRUE(Run());
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(1u, images.size());
    ASSERT_EQ(9u, images[0].size());
    EXPECT_EQ(kPackBits, Notices(NoticeKind::XferStart)[0].image.compression);
    for (const Notice &block : images[0]) {
        EXPECT_EQ(kPackBits, block.block.compression);
        EXPECT_EQ(0, block.block.rowsAligned);
    }
    EXPECT_TRUE(BlocksCarryPage(images[0], Format{}, kWidth, kLength, 1, Swaps::None));
    EXPECT_EQ(0, TraceCount("Trace", kRgbSwapTrace));
    EXPECT_EQ(0, TraceCount("Trace", kRowRepairTrace)) << "compressed blocks are not looked into";
}

// --- The repairs on rows of bitmap length and on rows that disagree with the bytes written.

// The page cut to 2 x 2 pixels (all of them border, black) in rows padded to 8 bytes.
TEST_F(MemXferTest, TwoPixelRowsKeepTheirPadding) {
    OpenMemory();
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    Frame(0.16, 0.16); // 2 x 2 pixels at 12.5 dots per inch
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(1u, blocks.size());
    const ScanBlockInfo &block = blocks[0].block;
    EXPECT_TRUE(BlockHolds(block, 2, 2, 8));
    EXPECT_EQ(1, block.rowsAligned) << "8 bytes are the row of a 2-pixel bitmap";
    const std::vector<unsigned char> row = {0, 0, 0, 0, 0, 0, VSCAN_ROW_PADDING, VSCAN_ROW_PADDING};
    std::vector<unsigned char> both(row);
    both.insert(both.end(), row.begin(), row.end());
    EXPECT_EQ(both, blocks[0].bytes);
    EXPECT_EQ(0, TraceCount("Trace", kRowRepairTrace));
}

// A 2 x 1 image whose strip claims 2 rows of 8 bytes: the second row is what the application's buffer held, so that
// the exchange shows in bytes that are not all zero.
TEST_F(MemXferTest, SwapExchangesBytesZeroAndTwoThreeAndFiveOfEachRowAndKeepsThePadding) {
    OpenMemory();
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    Fault(VSCAN_FAULT_STRIPROWS, 2);
    Fault(VSCAN_FAULT_BYTESWRITTENDELTA, 8);
    Frame(0.16, 0.08); // 2 x 1 pixels
    std::vector<unsigned char> own(16);
    for (size_t i = 0; i < own.size(); ++i)
        own[i] = static_cast<unsigned char>(0x10 + i);
    onStart = [&](const Notice &, ScanImageInfo *image) {
        *static_cast<SmBufferDescriptor *>(image->xferTarget) = {static_cast<DWORD>(own.size()), own.data()};
    };
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(1u, blocks.size());
    ASSERT_TRUE(BlockHolds(blocks[0].block, 2, 2, 8));
    const std::vector<unsigned char> expected = {0,    0,    0,    0,    0,    0,    0xA5, 0xA5,
                                                 0x1A, 0x19, 0x18, 0x1D, 0x1C, 0x1B, 0x1E, 0x1F};
    EXPECT_EQ(expected, blocks[0].bytes);
    EXPECT_EQ(expected, own) << "the exchange is made in the application's buffer itself";
}

TEST_F(MemXferTest, RowsThatDisagreeWithTheBytesWrittenAreRepaired) {
    OpenMemory();
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    Fault(VSCAN_FAULT_STRIPROWS, 3);
    BlockSize(20 * kRgbBitmapRow);
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(9u, blocks.size());
    for (size_t b = 0; b < blocks.size(); ++b) {
        EXPECT_EQ(b + 1 < blocks.size() ? 20u : 15u, blocks[b].block.rows) << "block " << b;
        EXPECT_EQ(blocks[b].block.rows * kRgbBitmapRow, blocks[b].block.bytesWritten);
    }
    EXPECT_EQ(9, TraceCount("Trace", kRowRepairTrace));
    // Every row of the repaired count is turned around, not only the 3 the source claimed.
    EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module));
}

TEST_F(MemXferTest, RowsOfBitmapLengthAreAlignedAndNotRepaired) {
    OpenMemory();
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    BlockSize(20 * kRgbBitmapRow);
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(9u, blocks.size());
    for (const Notice &block : blocks) {
        EXPECT_EQ(kRgbBitmapRow, block.block.bytesPerRow);
        EXPECT_EQ(1, block.block.rowsAligned);
    }
    EXPECT_EQ(0, TraceCount("Trace", kRowRepairTrace));
    EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module));
}

// Unpadded 318-byte rows are not the 320 bytes of a bitmap's row: the check notes it on every block, and the row
// count, which agrees with the bytes written, stays.
TEST_F(MemXferTest, UnpaddedRowsAreNotAligned) {
    OpenMemory();
    BlockSize(20 * kRgbRow);
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(9u, blocks.size());
    for (size_t b = 0; b < blocks.size(); ++b) {
        EXPECT_EQ(0, blocks[b].block.rowsAligned);
        EXPECT_EQ(b + 1 < blocks.size() ? 20u : 15u, blocks[b].block.rows);
    }
    EXPECT_EQ(9, TraceCount("Trace", kRowRepairTrace));
}

TEST_F(MemXferTest, GrayRowsOfAnOddWidthPaddedToABitmapRowAreAligned) {
    OpenMemory(Gray(8));
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    Frame(8.4, 14); // 105 pixels wide
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_FALSE(blocks.empty());
    EXPECT_EQ(105, blocks[0].block.imageWidth);
    EXPECT_EQ(108u, blocks[0].block.bytesPerRow);
    EXPECT_EQ(1, blocks[0].block.rowsAligned);
    EXPECT_TRUE(BlocksCarryPage(blocks, Gray(8), 105, kLength, 1, Swaps::None));
}

// A pixel type the module does not know (CMY, flag 16) over the scanner's RGB bytes: neither checked nor turned.
TEST_F(MemXferTest, OtherPixelTypesAreNeitherCheckedNorSwapped) {
    OpenMemory();
    Fault(VSCAN_FAULT_IMAGEPIXELTYPE, TWPT_CMY);
    Fault(VSCAN_FAULT_ROWALIGN, 4);
    Fault(VSCAN_FAULT_STRIPROWS, 3);
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(1u, blocks.size());
    EXPECT_EQ(SM_PIXEL_CMY, blocks[0].block.pixelTypeFlag);
    EXPECT_EQ(3u, blocks[0].block.rows) << "as the source said";
    EXPECT_EQ(0, blocks[0].block.rowsAligned);
    EXPECT_EQ(0, TraceCount("Trace", kRowRepairTrace));
    EXPECT_EQ(0, TraceCount("Trace", kRgbSwapTrace));
    // The rows the bytes hold, placed as the scanner sent them.
    Notice whole = blocks[0];
    whole.block.rows = whole.block.bytesWritten / whole.block.bytesPerRow;
    EXPECT_TRUE(BlocksCarryPage({whole}, Format{}, kWidth, kLength, 1, Swaps::None));
}

// --- The block record.

TEST_F(MemXferTest, BlockRecordDescribesEachBlock) {
    OpenMemory();
    BlockSize(20 * kRgbRow);
    ASSERT_TRUE(Run());
    const std::vector<Notice> starts = Notices(NoticeKind::XferStart);
    const std::vector<Notice> ends = Notices(NoticeKind::XferEnd);
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(1u, starts.size());
    ASSERT_EQ(1u, ends.size());
    ASSERT_EQ(9u, blocks.size());
    const ScanImageInfo &image = starts[0].image;
    EXPECT_EQ(SM_XFER_MEMORY, image.mechanism);
    EXPECT_EQ(kWidth, image.imageWidth);
    EXPECT_EQ(kLength, image.imageLength);
    EXPECT_EQ(SM_PIXEL_RGB, image.pixelTypeFlag);
    EXPECT_EQ(0, image.planar);
    EXPECT_NE(nullptr, image.xferTarget);
    EXPECT_EQ(starts[0].lParam, ends[0].lParam) << "XferEnd carries the same record";
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(blocks.size(), asked.size());
    for (size_t b = 0; b < blocks.size(); ++b) {
        const ScanBlockInfo &block = blocks[b].block;
        SCOPED_TRACE("block " + std::to_string(b));
        EXPECT_EQ(0, std::memcmp(&block, &image, 42)) << "the image's fields up to the mechanism";
        EXPECT_EQ(image.xferTarget, block.bufferDescriptor) << "the descriptor of the image record";
        EXPECT_EQ(asked[b].Memory.TheMem, blocks[b].descriptor.address);
        EXPECT_EQ(asked[b].Memory.Length, blocks[b].descriptor.size);
        EXPECT_EQ(kRgbRow, block.bytesPerRow);
        EXPECT_EQ(static_cast<DWORD>(kWidth), block.columns);
        EXPECT_EQ(b + 1 < blocks.size() ? 20u : 15u, block.rows);
        EXPECT_EQ(0u, block.xOffset);
        EXPECT_EQ(20u * b, block.yOffset);
        EXPECT_EQ(block.rows * kRgbRow, block.bytesWritten);
    }
}

// The buffer is chosen once the image is announced, and kept for the images after it; the application sees it
// through xferTarget when it is told of the next image.
TEST_F(MemXferTest, DescriptorAtXferStartHoldsTheBufferOfTheImageBefore) {
    OpenMemory(Format{}, 2);
    std::vector<SmBufferDescriptor> seen;
    onStart = [&](const Notice &, ScanImageInfo *image) {
        seen.push_back(*static_cast<SmBufferDescriptor *>(image->xferTarget));
    };
    ASSERT_TRUE(Run());
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(2u, asked.size());
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ(0u, seen[0].size) << "no buffer before the first image";
    EXPECT_EQ(nullptr, seen[0].address);
    EXPECT_EQ(asked[0].Memory.Length, seen[1].size);
    EXPECT_EQ(asked[0].Memory.TheMem, seen[1].address);
    EXPECT_EQ(asked[0].Memory.TheMem, asked[1].Memory.TheMem) << "the second image goes to the same buffer";
}

TEST_F(MemXferTest, NotificationsOfAMultiBlockImageInOrder) {
    OpenMemory(Format{}, 2);
    BlockSize(50 * kRgbRow);
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({Image(4), Image(4), {"CloseDSReq"}}), Timeline());
}

// --- The buffer: the source's preferred size, else its minimum, else its maximum.

class MemXferBufferTest : public MemXferTest {
protected:
    static constexpr DWORD kMinimum = 5 * kRgbRow;
    static constexpr DWORD kPreferred = 10 * kRgbRow;
    static constexpr DWORD kMaximum = 40 * kRgbRow;

    // One image with the first `failures` allocations after its XferStart refused.
    void RunWithAllocationsFailing(int failures) {
        ASSERT_GT(tracker.Attach(library.Module()), 0) << "the library imports GlobalAlloc";
        OpenMemory();
        Fault(VSCAN_FAULT_MINBUFSIZE, kMinimum);
        Fault(VSCAN_FAULT_PREFERREDBUFSIZE, kPreferred);
        Fault(VSCAN_FAULT_MAXBUFSIZE, kMaximum);
        tracker.Begin();
        onStart = [this, failures](const Notice &, ScanImageInfo *) { tracker.FailNextAllocations(failures); };
        ASSERT_TRUE(Run());
        EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
        EXPECT_EQ(0, tracker.DoubleFrees());
    }
    // Every block went to one buffer of `size` bytes.
    void ExpectBlocksIn(DWORD size) {
        const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
        ASSERT_FALSE(asked.empty());
        for (const TW_IMAGEMEMXFER &block : asked) {
            EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), block.Memory.Flags);
            EXPECT_EQ(size, block.Memory.Length);
            EXPECT_EQ(asked[0].Memory.TheMem, block.Memory.TheMem);
        }
        const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
        ASSERT_EQ(asked.size(), blocks.size());
        for (const Notice &block : blocks) {
            EXPECT_EQ(size, block.descriptor.size);
            EXPECT_EQ(asked[0].Memory.TheMem, block.descriptor.address);
        }
        const Strings traces = BufferTraces();
        ASSERT_FALSE(traces.empty());
        for (const std::string &trace : traces)
            EXPECT_EQ(OfSm8(BufferTrace(size)), trace);
        EXPECT_EQ(Join({Image(static_cast<int>(asked.size())), {"CloseDSReq"}}), Timeline());
        EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module));
    }

    GlobalMemoryTracker tracker;
};

TEST_F(MemXferBufferTest, PreferredSizeFirst) {
    RunWithAllocationsFailing(0);
    ExpectBlocksIn(kPreferred);
}

TEST_F(MemXferBufferTest, MinimumWhenThePreferredCannotBeHad) {
    RunWithAllocationsFailing(1);
    ExpectBlocksIn(kMinimum);
}

TEST_F(MemXferBufferTest, MaximumWhenTheMinimumCannotBeHadEither) {
    RunWithAllocationsFailing(2);
    ExpectBlocksIn(kMaximum);
}

TEST_F(MemXferBufferTest, LowMemoryWhenNoSizeCanBeHad) {
    RunWithAllocationsFailing(3);
    EXPECT_EQ((Strings{"ImageInfo", "XferStart", "EndXfer", "XferEnd(2)", "CloseDSReq"}), Timeline())
        << "2 is " << TwccName(TWCC_LOWMEMORY);
    EXPECT_EQ(1, TraceCount("Warning", "Low Memory in TScanModule::DoMemXfer"));
    EXPECT_TRUE(BufferTraces().empty());
}

// The sizes as GetMemXferSize repairs them are the ones the transfer chooses from.
TEST_F(MemXferTest, ZeroSizesFromTheSourceGiveA64KBuffer) {
    OpenMemory();
    Fault(VSCAN_FAULT_ZEROBUFFERSIZES, 1);
    ASSERT_TRUE(Run());
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(1u, asked.size());
    EXPECT_EQ(65536u, asked[0].Memory.Length);
    EXPECT_EQ(Strings{OfSm8(BufferTrace(65536))}, BufferTraces());
    EXPECT_EQ((Strings{"min == 0, Adjust it in TScanModule::GetMemXferSize",
                       "max == 0, Adjust it in TScanModule::GetMemXferSize",
                       "illegal preferred size, Adjust it in TScanModule::GetMemXferSize"}),
              Warnings());
    EXPECT_TRUE(BlocksCarryPage(Notices(NoticeKind::XferData), Format{}, kWidth, kLength, 1, Swaps::Module));
}

TEST_F(MemXferTest, PreferredSizeAboveTheMaximumGivesBlocksOfTheMinimum) {
    OpenMemory();
    Fault(VSCAN_FAULT_MINBUFSIZE, 1000);
    Fault(VSCAN_FAULT_MAXBUFSIZE, 500000);
    Fault(VSCAN_FAULT_PREFERREDBUFSIZE, 2000000);
    ASSERT_TRUE(Run());
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(59u, asked.size()) << "3 rows of 318 bytes a block";
    for (const TW_IMAGEMEMXFER &block : asked)
        EXPECT_EQ(1000u, block.Memory.Length);
    EXPECT_EQ(Strings{OfSm8(BufferTrace(1000))}, BufferTraces());
    EXPECT_EQ(Strings{"illegal preferred size, Adjust it in TScanModule::GetMemXferSize"}, Warnings());
    EXPECT_TRUE(BlocksCarryPage(Notices(NoticeKind::XferData), Format{}, kWidth, kLength, 1, Swaps::Module));
}

// --- The application's own buffer.

TEST_F(MemXferTest, ApplicationsOwnBufferTakesEveryBlock) {
    OpenMemory();
    std::vector<unsigned char> own(7 * kRgbRow);
    const void *target = nullptr;
    onStart = [&](const Notice &, ScanImageInfo *image) {
        target = image->xferTarget;
        *static_cast<SmBufferDescriptor *>(image->xferTarget) = {static_cast<DWORD>(own.size()), own.data()};
    };
    ASSERT_TRUE(Run());
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(25u, asked.size()) << "175 rows, 7 a block";
    for (const TW_IMAGEMEMXFER &block : asked) {
        EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), block.Memory.Flags);
        EXPECT_EQ(own.size(), block.Memory.Length);
        EXPECT_EQ(static_cast<void *>(own.data()), block.Memory.TheMem);
    }
    const std::vector<Notice> blocks = Notices(NoticeKind::XferData);
    ASSERT_EQ(25u, blocks.size());
    for (const Notice &block : blocks) {
        EXPECT_EQ(target, block.block.bufferDescriptor);
        EXPECT_EQ(static_cast<void *>(own.data()), block.descriptor.address);
    }
    EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module));
    EXPECT_TRUE(BufferTraces().empty()) << "the module chose no buffer of its own";
}

TEST_F(MemXferTest, ClearedDescriptorSendsTheNextBlockToTheModulesBuffer) {
    GlobalMemoryTracker tracker;
    ASSERT_GT(tracker.Attach(library.Module()), 0);
    OpenMemory();
    BlockSize(20 * kRgbRow);
    std::vector<unsigned char> own(7 * kRgbRow);
    int blockCount = 0;
    onStart = [&](const Notice &, ScanImageInfo *image) {
        *static_cast<SmBufferDescriptor *>(image->xferTarget) = {static_cast<DWORD>(own.size()), own.data()};
    };
    onData = [&](const Notice &, ScanBlockInfo *block) {
        if (++blockCount == 2)
            *block->bufferDescriptor = {0, nullptr};
    };
    tracker.Begin();
    ASSERT_TRUE(Run());
    const std::vector<TW_IMAGEMEMXFER> asked = BlocksAsked();
    ASSERT_EQ(2u + 9u, asked.size()) << "2 blocks of 7 rows, then 161 rows in blocks of 20";
    for (size_t b = 0; b < asked.size(); ++b) {
        SCOPED_TRACE("block " + std::to_string(b));
        EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), asked[b].Memory.Flags);
        if (b < 2) {
            EXPECT_EQ(own.size(), asked[b].Memory.Length);
            EXPECT_EQ(static_cast<void *>(own.data()), asked[b].Memory.TheMem);
        } else {
            EXPECT_EQ(20u * kRgbRow, asked[b].Memory.Length);
            EXPECT_NE(static_cast<void *>(own.data()), asked[b].Memory.TheMem);
            EXPECT_NE(nullptr, asked[b].Memory.TheMem);
        }
    }
    EXPECT_TRUE(BlocksCarryPage(Notices(NoticeKind::XferData), Format{}, kWidth, kLength, 1, Swaps::Module));
    EXPECT_GE(tracker.Allocations(), 1);
    EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
    EXPECT_EQ(0, tracker.DoubleFrees());
}

// --- The pending count.

TEST_F(MemXferTest, PendingCountInsideXferEndIsWhatEndXferLeft) {
    OpenMemory(Format{}, 3);
    app.getPendingCount = getPendingCount;
    std::vector<WORD> outside;
    const auto ask = [&] {
        WORD count = 0;
        EXPECT_EQ(SM_OK, getPendingCount(&count));
        outside.push_back(count);
    };
    onStart = [&](const Notice &, ScanImageInfo *) { ask(); };
    onData = [&](const Notice &, ScanBlockInfo *) { ask(); };
    ASSERT_TRUE(Run());
    std::vector<WORD> inside;
    for (const Notice &end : Notices(NoticeKind::XferEnd))
        inside.push_back(end.pendingCount);
    EXPECT_EQ((std::vector<WORD>{2, 1, 0}), inside);
    EXPECT_EQ(std::vector<WORD>(outside.size(), 9999), outside);
    EXPECT_EQ(6u, outside.size());
    WORD after = 0;
    EXPECT_EQ(SM_OK, getPendingCount(&after));
    EXPECT_EQ(9999, after);
}

// --- Cancels.

TEST_F(MemXferTest, CancelThisFromXferStartSkipsThatImageOnly) {
    OpenMemory(Format{}, 3);
    onStart = [this](const Notice &, ScanImageInfo *) {
        if (Notices(NoticeKind::XferStart).size() == 1)
            cancelThisXfer();
    };
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({{"ImageInfo", "XferStart", "EndXfer", "XferEnd(-5)"}, Image(1), Image(1), {"CloseDSReq"}}),
              Timeline());
    EXPECT_EQ(1, TraceCount("Warning", "AP cancel image xfer in TScanModule::DoMemXfer"));
    const std::vector<std::vector<Notice>> images = BlocksByImage();
    ASSERT_EQ(3u, images.size());
    EXPECT_TRUE(BlocksCarryPage(images[1], Format{}, kWidth, kLength, 2, Swaps::Module));
    EXPECT_TRUE(BlocksCarryPage(images[2], Format{}, kWidth, kLength, 3, Swaps::Module));
}

TEST_F(MemXferTest, CancelAllFromXferStartDropsTheRest) {
    OpenMemory(Format{}, 3);
    onStart = [this](const Notice &, ScanImageInfo *) { cancelAllXfer(); };
    ASSERT_TRUE(Run());
    EXPECT_EQ((Strings{"ImageInfo", "XferStart", "EndXfer", "XferEnd(-5)", "Reset", "CloseDSReq"}), Timeline());
    EXPECT_EQ(1, TraceCount("Warning", "AP cancel image xfer in TScanModule::DoMemXfer"));
}

TEST_F(MemXferTest, CancelThisFromXferDataEndsThatImageAfterTheBlock) {
    OpenMemory(Format{}, 2);
    BlockSize(20 * kRgbRow);
    onData = [this](const Notice &, ScanBlockInfo *) {
        if (Notices(NoticeKind::XferStart).size() == 1 && Notices(NoticeKind::XferData).size() == 3)
            cancelThisXfer();
    };
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({{"ImageInfo", "XferStart", "Block", "XferData", "Block", "XferData", "Block", "XferData", "EndXfer",
                     "XferEnd(-5)"},
                    Image(9),
                    {"CloseDSReq"}}),
              Timeline());
    EXPECT_TRUE(BlocksCarryPage(BlocksByImage()[1], Format{}, kWidth, kLength, 2, Swaps::Module));
}

TEST_F(MemXferTest, CancelAllFromXferDataDropsTheRestAfterTheBlock) {
    OpenMemory(Format{}, 2);
    BlockSize(20 * kRgbRow);
    onData = [this](const Notice &, ScanBlockInfo *) {
        if (Notices(NoticeKind::XferData).size() == 2)
            cancelAllXfer();
    };
    ASSERT_TRUE(Run());
    EXPECT_EQ((Strings{"ImageInfo", "XferStart", "Block", "XferData", "Block", "XferData", "EndXfer", "XferEnd(-5)",
                       "Reset", "CloseDSReq"}),
              Timeline());
}

TEST_F(MemXferTest, SourceCancelAtABlockEndsThatImage) {
    OpenMemory(Format{}, 2);
    BlockSize(20 * kRgbRow);
    Fault(VSCAN_FAULT_CANCELIMAGE, 1);
    Fault(VSCAN_FAULT_CANCELBLOCK, 3);
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({{"ImageInfo", "XferStart", "Block", "XferData", "Block", "XferData", "Block:TWRC_CANCEL", "EndXfer",
                     "XferEnd(-4)"},
                    Image(9),
                    {"CloseDSReq"}}),
              Timeline());
    EXPECT_EQ(1, TraceCount("Warning", "image xfer canceled in TScanModule::DoMemXfer"));
    EXPECT_TRUE(BlocksCarryPage(BlocksByImage()[1], Format{}, kWidth, kLength, 2, Swaps::Module));
}

// --- Failures.

TEST_F(MemXferTest, OperationErrorEndsEverythingAndAsksTwiceForTheClose) {
    OpenMemory(Format{}, 3);
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_OPERATIONERROR, 2, 1));
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({Image(1),
                    {"ImageInfo", "XferStart", "Block:TWRC_FAILURE", "EndXfer", "XferEnd(5)", "Reset", "CloseDSReq",
                     "CloseDSReq"}}),
              Timeline())
        << "5 is " << TwccName(TWCC_OPERATIONERROR);
    EXPECT_EQ(1, TraceCount("Warning", "Image xfer error in TScanModule::DoMemXfer"));
    EXPECT_EQ(1, TraceCount("Trace", kCloseTrace));
}

TEST_F(MemXferTest, OtherConditionCodesEndThatImageOnly) {
    OpenMemory(Format{}, 3);
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER, 2, 1));
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({Image(1),
                    {"ImageInfo", "XferStart", "Block:TWRC_FAILURE", "EndXfer", "XferEnd(1)"},
                    Image(1),
                    {"CloseDSReq"}}),
              Timeline())
        << "1 is " << TwccName(TWCC_BUMMER);
    EXPECT_EQ(1, TraceCount("Warning", "Image xfer error in TScanModule::DoMemXfer"));
    EXPECT_EQ(1, TraceCount("Trace", kCloseTrace));
}

TEST_F(MemXferTest, FailedImageInfoSendsNoNoticesButEndsTheImage) {
    OpenMemory(Format{}, 3);
    onEnd = [this](const Notice &, ScanImageInfo *) {
        if (Notices(NoticeKind::XferEnd).size() == 1) {
            ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER, 1, 1));
        }
    };
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({Image(1), {"ImageInfo:TWRC_FAILURE", "EndXfer"}, Image(1), {"CloseDSReq"}}), Timeline());
    EXPECT_EQ(1, TraceCount("Warning", "Error in get DAT_IMAGEINFO in TScanModule::DoMemXfer"));
}

// --- The close request at the end.

TEST_F(MemXferTest, WithoutTheInterfaceOneCloseRequestFollowsTheLastImage) {
    OpenMemory(Format{}, 2);
    ASSERT_TRUE(Run());
    EXPECT_EQ(Join({Image(1), Image(1), {"CloseDSReq"}}), Timeline());
    EXPECT_EQ(1, TraceCount("Trace", kCloseTrace));
}

TEST_F(MemXferTest, WithTheInterfaceNoCloseRequestFollows) {
    OpenMemory();
    scanner.setAutoScan(VSCAN_AUTO_SCAN);
    ASSERT_EQ(SM_OK, enableDS(TRUE, FALSE));
    ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::XferEnd) > 0; }));
    EXPECT_EQ((Strings{"XferStart", "XferData", "XferEnd(0)"}), app.Briefs());
    EXPECT_EQ(0, TraceCount("Trace", kCloseTrace));
}

} // namespace
