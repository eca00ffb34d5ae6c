// The memory transfer against a source whose block records lie: more bytes than the buffer holds, rows or columns
// beyond it, no rows, offsets outside the image, too many palette colours. Each ends with a clear result, and the
// application's buffer, lent in the middle of a guarded region, is never written outside.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "AcquireCheck.h"
#include "GlobalMemoryTracker.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr int kWidth = kSmallPageWidth;
constexpr int kLength = kSmallPageLength;
// RGB rows of the small page padded to 4 bytes, the length of a bitmap's row: the row check alone lets them pass.
constexpr DWORD kRgbRow = (kWidth * 3 + 3) / 4 * 4;
constexpr DWORD kGray16Row = kWidth * 2;
// The application's buffer: ten rows, between two guards.
constexpr DWORD kRows = 10;
constexpr size_t kGuard = 1024;
constexpr unsigned char kCanary = 0xC3;

const char kSm8[] = "F:\\smkernal\\Sm_8.cpp";
const std::string kBadBytesWritten = "Bad Value, BytesWritten > buffer size, in TScanModule::DoMemXfer";
const std::string kRowsOverlap = "Bad Value, rows overlap, in TScanModule::DoMemXfer";

class MemXferHostileTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_GT(tracker.Attach(library.Module()), 0) << "the library imports GlobalAlloc";
    }
    void TearDown() override {
        tracker.Detach();
        XferTest::TearDown();
    }

    // Opens the scanner for memory transfers of the small page in rows padded to 4 bytes.
    void OpenPadded(const Format &format = Format{}, int pages = 1) {
        Open(SM_XFER_MEMORY, format, pages);
        Fault(VSCAN_FAULT_ROWALIGN, 4);
    }
    void Fault(int fault, int value) { ASSERT_EQ(1, scanner.setFault(fault, value)) << "fault " << fault; }
    // The application lends `size` bytes in the middle of a region of canaries for every image.
    void LendGuardedBuffer(DWORD size) {
        size_ = size;
        region_.assign(kGuard + size + kGuard, kCanary);
        app.onXferStart = [this](const Notice &notice, ScanImageInfo *image) {
            *static_cast<SmBufferDescriptor *>(image->xferTarget) = {size_, Lent()};
            if (onStart)
                onStart(notice, image);
        };
    }
    unsigned char *Lent() { return region_.data() + kGuard; }
    // Runs the transfers without the source's interface until the close request; nothing of the module's memory
    // stays allocated.
    bool Run() {
        tracker.Begin();
        const bool over = Acquire(FALSE);
        EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
        EXPECT_EQ(0, tracker.DoubleFrees());
        return over;
    }
    ::testing::AssertionResult GuardsIntact() const {
        for (size_t i = 0; i < region_.size(); ++i) {
            if (i == kGuard)
                i += size_;
            if (i < region_.size() && region_[i] != kCanary)
                return ::testing::AssertionFailure()
                       << "byte "
                       << (i < kGuard ? static_cast<long>(i) - static_cast<long>(kGuard)
                                      : static_cast<long>(i - kGuard - size_))
                       << (i < kGuard ? " before" : " after") << " the buffer was written";
        }
        return ::testing::AssertionSuccess();
    }
    std::vector<Notice> Blocks() const { return NoticesOf(app.Notices(), NoticeKind::XferData); }
    // The XferEnd notices, as Notice::Brief() names them.
    Strings Ends() const {
        Strings out;
        for (const Notice &notice : app.Notices())
            if (notice.kind == NoticeKind::XferEnd)
                out.push_back(notice.Brief());
        return out;
    }
    int Warned(const std::string &text) const {
        int count = 0;
        for (const TraceLine &record : viewer.Records())
            count += record.level == "Warning" && record.source == kSm8 && record.text == text;
        return count;
    }
    int BlocksAsked() const {
        int count = 0;
        for (const TdsmCall &call : CallsSinceMark())
            count += call.dat == DAT_IMAGEMEMXFER;
        return count;
    }

    // Strips of `format` whose columns run `delta` beyond the image's width, `rowBytes` apart in the lent buffer: the
    // image ends at its first block with TWCC_BADVALUE, and no block reaches the application.
    void ExpectOverlapRefused(const Format &format, int delta, DWORD rowBytes) {
        OpenPadded(format);
        Fault(VSCAN_FAULT_COLUMNSDELTA, delta);
        LendGuardedBuffer(kRows * rowBytes);
        ASSERT_TRUE(Run());
        EXPECT_TRUE(Blocks().empty());
        EXPECT_EQ(Strings{"XferEnd(10)"}, Ends());
        EXPECT_EQ(1, Warned(kRowsOverlap));
        EXPECT_TRUE(GuardsIntact());
    }

    // Strips that claim `claimed` rows of the lent buffer's ten: the blocks the application sees hold the rows their
    // bytes hold, and carry the page.
    void ExpectRowsRepaired(int claimed) {
        OpenPadded();
        Fault(VSCAN_FAULT_STRIPROWS, claimed);
        LendGuardedBuffer(kRows * kRgbRow);
        ASSERT_TRUE(Run());
        EXPECT_EQ(Strings{"XferEnd(0)"}, Ends());
        const std::vector<Notice> blocks = Blocks();
        ASSERT_EQ(18u, blocks.size()) << "175 rows, 10 a block";
        for (size_t b = 0; b < blocks.size(); ++b)
            EXPECT_EQ(b + 1 < blocks.size() ? kRows : 5u, blocks[b].block.rows) << "block " << b;
        EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module));
        EXPECT_TRUE(GuardsIntact());
    }

    GlobalMemoryTracker tracker;
    std::function<void(const Notice &, ScanImageInfo *)> onStart;

private:
    std::vector<unsigned char> region_;
    DWORD size_ = 0;
};

// --- More bytes written than the buffer holds.

TEST_F(MemXferHostileTest, BytesWrittenBeyondTheModulesBufferIsABadValueForEachImage) {
    OpenPadded(Format{}, 2);
    Fault(VSCAN_FAULT_PREFERREDBUFSIZE, kRows * kRgbRow);
    Fault(VSCAN_FAULT_MAXBUFSIZE, kRows * kRgbRow);
    Fault(VSCAN_FAULT_BYTESWRITTENDELTA, 1);
    ASSERT_TRUE(Run());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(10)", "XferStart", "XferEnd(10)", "CloseDSReq"}), app.Briefs())
        << "10 is " << TwccName(TWCC_BADVALUE);
    EXPECT_EQ(2, Warned(kBadBytesWritten));
    EXPECT_EQ(2, BlocksAsked()) << "each image stops at its first block";
}

TEST_F(MemXferHostileTest, BytesWrittenBeyondTheApplicationsBufferIsRefusedUntouched) {
    OpenPadded();
    Fault(VSCAN_FAULT_BYTESWRITTENDELTA, 1);
    LendGuardedBuffer(kRows * kRgbRow);
    ASSERT_TRUE(Run());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(10)", "CloseDSReq"}), app.Briefs());
    EXPECT_EQ(1, Warned(kBadBytesWritten));
    EXPECT_TRUE(GuardsIntact());
    for (DWORD y = 0; y < kRows; ++y)
        ASSERT_TRUE(RowCarriesPage(Lent() + y * kRgbRow, kRgbRow, Format{}, kWidth, kLength, 1, y, -1, Swaps::None))
            << "the block is refused before anything is turned around";
}

TEST_F(MemXferHostileTest, RowsAndBytesWrittenBeyondTheBufferAreABadValue) {
    OpenPadded();
    Fault(VSCAN_FAULT_STRIPROWS, 2 * kRows);
    Fault(VSCAN_FAULT_BYTESWRITTENDELTA, kRows * kRgbRow); // the rows and the bytes agree, both twice the buffer
    LendGuardedBuffer(kRows * kRgbRow);
    ASSERT_TRUE(Run());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(10)", "CloseDSReq"}), app.Briefs());
    EXPECT_EQ(1, Warned(kBadBytesWritten));
    EXPECT_TRUE(GuardsIntact());
}

// --- Row counts that disagree with the bytes written are repaired to the rows the bytes hold.

TEST_F(MemXferHostileTest, RowsBeyondTheBufferAreRepairedToTheRowsWritten) {
    ExpectRowsRepaired(100000);
}

TEST_F(MemXferHostileTest, ZeroRowsAreRepairedToTheRowsWritten) {
    ExpectRowsRepaired(0);
}

// --- Columns beyond the row: rows longer than the distance between them overlap, and each would be exchanged again
// over the next ones (with enough columns, 2^32 times over). The block is refused before anything is touched.

TEST_F(MemXferHostileTest, ColumnsBeyondTheRowRefuseTheBlock) {
    ExpectOverlapRefused(Format{}, 50, kRgbRow);
}

// 0x55555556 columns of 3 bytes are 2 bytes in 32-bit arithmetic: a check made so would let the exchange run.
TEST_F(MemXferHostileTest, ColumnsWhoseRowLengthWrapsAroundRefuseTheBlock) {
    ExpectOverlapRefused(Format{}, 0x55555556 - kWidth, kRgbRow);
}

TEST_F(MemXferHostileTest, GraySamplesBeyondTheRowRefuseTheBlock) {
    ExpectOverlapRefused(MakeFormat(TWPT_GRAY, 16), 100, kGray16Row);
}

// --- Offsets outside the image are the application's to judge.

TEST_F(MemXferHostileTest, OffsetsOutsideTheImagePassUnchanged) {
    OpenPadded();
    Fault(VSCAN_FAULT_STRIPXOFFSETDELTA, 100000);
    Fault(VSCAN_FAULT_STRIPYOFFSETDELTA, 200000);
    LendGuardedBuffer(kRows * kRgbRow);
    ASSERT_TRUE(Run());
    const std::vector<Notice> blocks = Blocks();
    ASSERT_EQ(18u, blocks.size());
    for (size_t b = 0; b < blocks.size(); ++b) {
        EXPECT_EQ(100000u, blocks[b].block.xOffset) << "block " << b;
        EXPECT_EQ(200000u + kRows * b, blocks[b].block.yOffset) << "block " << b;
    }
    EXPECT_TRUE(BlocksCarryPage(blocks, Format{}, kWidth, kLength, 1, Swaps::Module, 200000));
    EXPECT_EQ(Strings{"XferEnd(0)"}, Ends());
    EXPECT_TRUE(GuardsIntact());
}

// --- A palette the module's table cannot hold, asked for while the image waits.

TEST_F(MemXferHostileTest, PaletteOfThreeHundredColoursIsABadValueAndTheTransferGoesOn) {
    Format palette;
    palette.pixelType = TWPT_PALETTE;
    palette.bitDepth = 8;
    OpenPadded(palette);
    Fault(VSCAN_FAULT_PALETTECOLORS, 300);
    const auto getDSPalette = library.Get<LONG(WINAPI *)(BYTE *)>("smGetDSPalette");
    ASSERT_NE(nullptr, getDSPalette);
    std::vector<BYTE> table(256 * 4, 0x5A);
    LONG answered = -100;
    LendGuardedBuffer(kRows * ((kWidth + 3) / 4 * 4));
    onStart = [&](const Notice &, ScanImageInfo *) { answered = getDSPalette(table.data()); };
    ASSERT_TRUE(Run());
    EXPECT_EQ(TWCC_BADVALUE, answered) << TwccName(static_cast<unsigned>(answered));
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ((std::vector<BYTE>{0xFF, 0xFF, 0xFF, 0x00}), std::vector<BYTE>(&table[i * 4], &table[i * 4 + 4]))
            << "entry " << i;
    const Strings warnings = viewer.Texts("Warning");
    EXPECT_EQ(1, std::count(warnings.begin(), warnings.end(),
                            "Bad Value, palette.NumColors > 256, in TScanModule::GetDSPalette"));
    EXPECT_EQ(Strings{"XferEnd(0)"}, Ends());
    EXPECT_TRUE(BlocksCarryPage(Blocks(), palette, kWidth, kLength, 1, Swaps::Module)) << "indexes are not turned";
    EXPECT_TRUE(GuardsIntact());
}

} // namespace
