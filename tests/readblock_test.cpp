// Pulling an image block by block with smReadBlock: the bytes delivered, the end of the image, cancels and failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "TransferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr DWORD kImageBytes = kSmallPageWidth * kSmallPageLength * 3;
constexpr DWORD kEnded = 0xFFFFFFFF;

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
        TW_IMAGEMEMXFER block = {};
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dat == DAT_IMAGEMEMXFER)
                std::memcpy(&block, call.dataIn, sizeof block);
        EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), block.Memory.Flags);
        return block.Memory.Length;
    }
    DWORD PreferredSize() {
        DWORD minimum = 0, maximum = 0, preferred = 0;
        EXPECT_EQ(SM_OK, library.Get<LONG(WINAPI *)(DWORD *, DWORD *, DWORD *)>("smGetMemXferSize")(&minimum, &maximum,
                                                                                                    &preferred));
        return preferred;
    }
    // Pulls blocks until smReadBlock answers 1; the bytes delivered, and the calls that answered 0.
    std::vector<unsigned char> ReadAll(DWORD size, int *blocks) {
        std::vector<unsigned char> image, buffer(size);
        *blocks = 0;
        for (int call = 0; call < 10000; ++call) {
            DWORD count = 0;
            if (readBlock(buffer.data(), size, &count)) {
                // The last block comes with the call that reports the end: its bytes are in the
                // buffer, and only the image size tells how many.
                EXPECT_EQ(kEnded, count);
                const DWORD rest = kImageBytes - static_cast<DWORD>(image.size());
                EXPECT_LE(rest, size);
                image.insert(image.end(), buffer.begin(), buffer.begin() + std::min(rest, size));
                return image;
            }
            EXPECT_GT(count, 0u);
            EXPECT_LE(count, size);
            image.insert(image.end(), buffer.begin(), buffer.begin() + count);
            ++*blocks;
        }
        ADD_FAILURE() << "the image never ended";
        return image;
    }
    Strings TransferEnds() const {
        Strings out;
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dat == DAT_PENDINGXFERS)
                out.push_back(Describe(call));
        return out;
    }

    BOOL(WINAPI *readBlock)(BYTE *, DWORD, DWORD *) = nullptr;
};

TEST_F(ReadBlockTest, WholeImageArrivesBlockByBlockInRgbOrder) {
    StartScan();
    int blocks = 0;
    const std::vector<unsigned char> image = ReadAll(4096, &blocks);
    ASSERT_EQ(kImageBytes, image.size());
    EXPECT_GT(blocks, 1) << "a 4096-byte buffer cannot take the page at once";
    for (int y = 0; y < kSmallPageLength; ++y)
        for (int x = 0; x < kSmallPageWidth; ++x) {
            const std::vector<unsigned> expected =
                ExpectedSamples(Format{}, kSmallPageWidth, kSmallPageLength, 1, x, y);
            const unsigned char *pixel = &image[(y * kSmallPageWidth + x) * 3];
            ASSERT_EQ(expected, (std::vector<unsigned>{pixel[0], pixel[1], pixel[2]})) << "pixel " << x << ", " << y;
        }
    EXPECT_EQ((Strings{"DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS"}), TransferEnds());
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
    EXPECT_TRUE(TransferEnds().empty());
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
    const Strings ends = TransferEnds();
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
    const Strings ends = TransferEnds();
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

} // namespace
