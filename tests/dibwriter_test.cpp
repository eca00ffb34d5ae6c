// White-box checks of the bitmap file writer: the file laid out from the image information, strips placed at their
// rows, planes interleaved, palettes, resolution fields, disk space and file failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "ScanModule.h"
#include "SessionTest.h"
#include "TestSupport.h"
#include "VscanSupport.h"
#include "vscan.h"

using namespace smtest;

extern int planePass;

namespace {

using Bytes = std::vector<BYTE>;

const char kSm11[] = "F:\\smkernal\\Sm_11.cpp";

void Put16(Bytes &b, size_t at, unsigned v) {
    b[at] = static_cast<BYTE>(v);
    b[at + 1] = static_cast<BYTE>(v >> 8);
}

void Put32(Bytes &b, size_t at, unsigned v) {
    Put16(b, at, v & 0xFFFF);
    Put16(b, at + 2, v >> 16);
}

unsigned Get32(const Bytes &b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<unsigned>(b[at + 3]) << 24);
}

Bytes ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TW_IMAGEINFO Info(int width, int length, int bitsPerPixel, int pixelType, int samples = 1, bool planar = false) {
    TW_IMAGEINFO info = {};
    info.XResolution.Whole = 300;
    info.YResolution.Whole = 300;
    info.ImageWidth = width;
    info.ImageLength = length;
    info.SamplesPerPixel = static_cast<TW_INT16>(samples);
    for (int i = 0; i < samples && i < 8; ++i)
        info.BitsPerSample[i] = static_cast<TW_INT16>(bitsPerPixel / samples);
    info.BitsPerPixel = static_cast<TW_INT16>(bitsPerPixel);
    info.Planar = planar;
    info.PixelType = static_cast<TW_INT16>(pixelType);
    return info;
}

TW_IMAGEMEMXFER Strip(unsigned bytesPerRow, unsigned columns, unsigned rows, unsigned xOffset, unsigned yOffset) {
    TW_IMAGEMEMXFER strip = {};
    strip.BytesPerRow = bytesPerRow;
    strip.Columns = columns;
    strip.Rows = rows;
    strip.XOffset = xOffset;
    strip.YOffset = yOffset;
    strip.BytesWritten = bytesPerRow * rows;
    return strip;
}

// The expected file of an image laid out independently: the two headers and the palette area, the pixel area zero.
struct ExpectedFile {
    ExpectedFile(int width, int length, int bitsPerPixel, unsigned entries, unsigned bitCount) {
        rowBytes = ((bitsPerPixel * width + 31) / 32) * 4;
        this->length = length;
        headerBytes = 54 + 4 * entries;
        bytes.assign(headerBytes + rowBytes * length, 0);
        Put16(bytes, 0, 0x4D42);
        Put32(bytes, 2, static_cast<unsigned>(bytes.size()));
        Put32(bytes, 10, headerBytes);
        Put32(bytes, 14, 40);
        Put32(bytes, 18, width);
        Put32(bytes, 22, length);
        Put16(bytes, 26, 1);
        Put16(bytes, 28, bitCount);
        Put32(bytes, 46, entries);
    }
    void Entry(unsigned i, unsigned r, unsigned g, unsigned b) {
        const size_t at = 54 + 4 * i;
        if (bytes.size() < at + 4)
            bytes.resize(at + 4, 0);
        bytes[at] = static_cast<BYTE>(b);
        bytes[at + 1] = static_cast<BYTE>(g);
        bytes[at + 2] = static_cast<BYTE>(r);
        bytes[at + 3] = 0;
    }
    // The 256-entry gray ramp from black of 8-bit gray files.
    void GrayRamp() {
        for (unsigned i = 0; i < 256; ++i)
            Entry(i, i, i, i);
    }
    // Row y of the image (0 the top) holds `row`, placed bottom-up.
    void Row(int y, const Bytes &row) {
        std::copy(row.begin(), row.end(), bytes.begin() + headerBytes + (length - 1 - y) * rowBytes);
    }
    Bytes bytes;
    unsigned rowBytes = 0;
    unsigned headerBytes = 0;
    int length = 0;
};

std::string Hex(const Bytes &b) {
    std::string s;
    char piece[4];
    for (size_t i = 0; i < b.size() && i < 256; ++i) {
        wsprintfA(piece, "%02X ", b[i]);
        s += piece;
    }
    return s;
}

class DibWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(1, 1);
        RemoveSourceDirectories();
        InstallVirtualScanner("twain_32\\vscan.ds");
        WriteProfileStringA("Twain", "Default Source", nullptr);
        viewer.Start();
        module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr));
        ASSERT_TRUE(dsm.Open());
        script.Load();
        window = CreateWindowA("STATIC", "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr,
                               nullptr);
        char temp[MAX_PATH] = {};
        GetTempPathA(sizeof temp, temp);
        std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        std::replace(name.begin(), name.end(), '/', '_');
        path = std::string(temp) + "smk_dibwriter_" + name + ".bmp";
        viewer.Clear();
    }
    void TearDown() override {
        if (file != HFILE_ERROR)
            _lclose(file);
        script.clearFaults();
        module->DisableDS();
        module->CloseDS();
        module.reset();
        viewer.Stop();
        traceStream = nullptr;
        traceDepth = 0;
        dsm.Close();
        DestroyWindow(window);
        RemoveSourceDirectories();
        SetFileAttributesA(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileA(path.c_str());
    }
    HFILE Create() {
        OFSTRUCT of = {};
        file = OpenFile(path.c_str(), &of, OF_CREATE);
        return file;
    }
    void Close() {
        _lclose(file);
        file = HFILE_ERROR;
    }
    // The record with this text: its level and source checked.
    void ExpectRecord(const std::string &level, const std::string &text, const std::string &source = kSm11) {
        for (const TraceLine &record : viewer.Records())
            if (record.text == text) {
                EXPECT_EQ(level, record.level) << text;
                EXPECT_EQ(source, record.source) << text;
                return;
            }
        ADD_FAILURE() << "no record \"" << text << "\"";
    }
    void ExpectFile(const Bytes &expected) {
        const Bytes got = ReadFileBytes(path);
        EXPECT_EQ(expected.size(), got.size());
        EXPECT_TRUE(expected == got) << "expected " << Hex(expected) << "\ngot      " << Hex(got);
    }
    void OpenSource() {
        ASSERT_EQ(0, module->OpenDS(window, "Dib writer"));
        viewer.Clear();
    }

    TraceViewer viewer;
    std::unique_ptr<TScanModule> module;
    DsmControl dsm;
    DsmScript script;
    HWND window = nullptr;
    std::string path;
    HFILE file = HFILE_ERROR;
};

TEST_F(DibWriterTest, RowAndSizeRules) {
    TW_IMAGEINFO info = Info(1, 7, 1, TWPT_BW);
    EXPECT_EQ(4u, module->ImageBytesPerRow(&info));
    EXPECT_EQ(28u, module->ImageDataSize(&info));
    info = Info(33, 2, 24, TWPT_RGB, 3);
    EXPECT_EQ(100u, module->ImageBytesPerRow(&info));
    EXPECT_EQ(200u, module->ImageDataSize(&info));
    EXPECT_EQ(2u, module->PaletteSize(-3));
    EXPECT_EQ(2u, module->PaletteSize(0));
    EXPECT_EQ(2u, module->PaletteSize(1));
    EXPECT_EQ(16u, module->PaletteSize(2));
    EXPECT_EQ(16u, module->PaletteSize(4));
    EXPECT_EQ(256u, module->PaletteSize(5));
    EXPECT_EQ(256u, module->PaletteSize(8));
    EXPECT_EQ(0u, module->PaletteSize(9));
    EXPECT_EQ(0u, module->PaletteSize(24));
    ExpectRecord("Trace", "Coming TScanModule::PaletteSize");
    ExpectRecord("Trace", "Leaving TScanModule::ImageDataSize");
}

TEST_F(DibWriterTest, BlackAndWhiteOfWidthOneHasFourByteRowsAndTwoEntries) {
    const TW_IMAGEINFO info = Info(1, 3, 1, TWPT_BW);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    BYTE rows[12] = {0x80, 0, 0, 0, 0x00, 0, 0, 0, 0x80, 0x11, 0x22, 0x33};
    TW_IMAGEMEMXFER strip = Strip(4, 1, 3, 0, 0);
    ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, rows));
    Close();
    ExpectedFile expected(1, 3, 1, 2, 1);
    expected.Entry(0, 0, 0, 0);
    expected.Entry(1, 255, 255, 255);
    for (int y = 0; y < 3; ++y)
        expected.Row(y, Bytes(rows + 4 * y, rows + 4 * y + 4));
    EXPECT_EQ(62u, Get32(expected.bytes, 10));
    ExpectFile(expected.bytes);
    ExpectRecord("Trace", "Coming TScanModule::WriteDIBHeader");
    ExpectRecord("Trace", "Leaving TScanModule::BufferToFile");
}

TEST_F(DibWriterTest, GrayStripsInAnyOrderLandAtTheirRows) {
    const int width = 5, length = 5;
    const TW_IMAGEINFO info = Info(width, length, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    // Image row y, column x holds 10 * y + x; rows padded to 8 bytes with 0xEE.
    auto rowOf = [&](int y) {
        Bytes row(8, 0xEE);
        for (int x = 0; x < width; ++x)
            row[x] = static_cast<BYTE>(10 * y + x);
        return row;
    };
    const int order[][2] = {{3, 2}, {0, 2}, {2, 1}}; // first row, rows
    for (const auto &part : order) {
        Bytes buffer;
        for (int r = 0; r < part[1]; ++r) {
            const Bytes row = rowOf(part[0] + r);
            buffer.insert(buffer.end(), row.begin(), row.end());
        }
        TW_IMAGEMEMXFER strip = Strip(8, width, part[1], 0, part[0]);
        ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data())) << "strip at " << part[0];
    }
    Close();
    ExpectedFile expected(width, length, 8, 256, 8);
    expected.GrayRamp();
    for (int y = 0; y < length; ++y)
        expected.Row(y, rowOf(y));
    ExpectFile(expected.bytes);
}

TEST_F(DibWriterTest, HeaderFieldsOfAGrayImage) {
    TW_IMAGEINFO info = Info(640, 480, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    const Bytes got = ReadFileBytes(path);
    ASSERT_EQ(640u * 480 + 1024 + 54, got.size());
    EXPECT_EQ('B', got[0]);
    EXPECT_EQ('M', got[1]);
    EXPECT_EQ(640u * 480 + 1024 + 54, Get32(got, 2));
    EXPECT_EQ(0u, Get32(got, 6)) << "both reserved words";
    EXPECT_EQ(1078u, Get32(got, 10));
    EXPECT_EQ(40u, Get32(got, 14));
    EXPECT_EQ(640u, Get32(got, 18));
    EXPECT_EQ(480u, Get32(got, 22));
    EXPECT_EQ(0x00080001u, Get32(got, 26)) << "one plane, 8 bits";
    EXPECT_EQ(0u, Get32(got, 30));
    EXPECT_EQ(0u, Get32(got, 34));
    EXPECT_EQ(256u, Get32(got, 46));
    EXPECT_EQ(0u, Get32(got, 50));
    EXPECT_TRUE(std::all_of(got.begin() + 1078, got.end(), [](BYTE b) { return b == 0; })) << "pixel area pre-filled";
}

TEST_F(DibWriterTest, TwentyFourBitImageHasNoPalette) {
    const TW_IMAGEINFO info = Info(2, 2, 24, TWPT_RGB, 3);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    const Bytes got = ReadFileBytes(path);
    ExpectedFile expected(2, 2, 24, 0, 24);
    EXPECT_EQ(54u, Get32(got, 10));
    EXPECT_EQ(0u, Get32(got, 46));
    ExpectFile(expected.bytes);
}

TEST_F(DibWriterTest, FourBitGrayDeclaresSixteenColoursButKeepsItsPaletteZero) {
    const TW_IMAGEINFO info = Info(3, 2, 4, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    ExpectedFile expected(3, 2, 4, 16, 4);
    EXPECT_EQ(118u, expected.headerBytes);
    ExpectFile(expected.bytes);
}

TEST_F(DibWriterTest, RgbChunkyIsStoredBlueGreenRedAndSwappedInTheCallersBuffer) {
    const int width = 3, length = 2;
    const TW_IMAGEINFO info = Info(width, length, 24, TWPT_RGB, 3);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    // Rows of 12 bytes: 3 pixels of R, G, B then 3 bytes of padding.
    Bytes buffer(24);
    for (int y = 0; y < length; ++y)
        for (int i = 0; i < 12; ++i)
            buffer[12 * y + i] = static_cast<BYTE>(0x10 * (y + 1) + i);
    const Bytes original = buffer;
    TW_IMAGEMEMXFER strip = Strip(12, width, length, 0, 0);
    ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    Close();
    ExpectedFile expected(width, length, 24, 0, 24);
    for (int y = 0; y < length; ++y) {
        Bytes row(original.begin() + 12 * y, original.begin() + 12 * y + 12);
        for (int x = 0; x < width; ++x)
            std::swap(row[3 * x], row[3 * x + 2]);
        expected.Row(y, row);
        EXPECT_TRUE(Bytes(buffer.begin() + 12 * y, buffer.begin() + 12 * y + 12) == row)
            << "swapped in place, row " << y;
    }
    ExpectFile(expected.bytes);
    ExpectRecord("Trace", "Reverse R,B data in TScanModule::BufferToFile");
}

TEST_F(DibWriterTest, RgbPlanarPlanesAreInterleaved) {
    planePass = 2;
    const int width = 2, length = 3;
    const TW_IMAGEINFO info = Info(width, length, 24, TWPT_RGB, 3, true);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    auto sample = [](int plane, int x, int y) { return static_cast<BYTE>(0x40 * (plane + 1) + 0x10 * y + x); };
    for (int plane = 0; plane < 3; ++plane) {
        // Each plane in two strips: rows 0 and 1, then row 2.
        const int parts[][2] = {{0, 2}, {2, 1}};
        for (const auto &part : parts) {
            Bytes buffer;
            for (int r = 0; r < part[1]; ++r)
                for (int x = 0; x < width; ++x)
                    buffer.push_back(sample(plane, x, part[0] + r));
            TW_IMAGEMEMXFER strip = Strip(width, width, part[1], 0, part[0]);
            ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data()))
                << "plane " << plane << " strip at " << part[0];
            EXPECT_EQ(static_cast<TW_UINT32>(part[1]), strip.Rows);
        }
    }
    Close();
    EXPECT_EQ(2, planePass);
    ExpectedFile expected(width, length, 24, 0, 24);
    for (int y = 0; y < length; ++y) {
        Bytes row(expected.rowBytes, 0);
        for (int x = 0; x < width; ++x) {
            row[3 * x] = sample(2, x, y);
            row[3 * x + 1] = sample(1, x, y);
            row[3 * x + 2] = sample(0, x, y);
        }
        expected.Row(y, row);
    }
    ExpectFile(expected.bytes);
    ExpectRecord("Trace", "Pass = 0 in TScanModule::BufferToFileForPlanar");
    ExpectRecord("Trace", "Pass = 1 in TScanModule::BufferToFileForPlanar");
    ExpectRecord("Trace", "Pass = 2 in TScanModule::BufferToFileForPlanar");
}

TEST_F(DibWriterTest, PlanarRowWiderThanTheWorkBufferReportsLowMemory) {
    planePass = 2;
    const TW_IMAGEINFO info = Info(90000, 1, 24, TWPT_RGB, 3, true);
    ASSERT_NE(HFILE_ERROR, Create());
    Bytes buffer(90000, 7);
    TW_IMAGEMEMXFER strip = Strip(90000, 90000, 1, 0, 0);
    EXPECT_EQ(2, module->BufferToFileForPlanar(file, &info, &strip, buffer.data()));
    ExpectRecord("Warning", "Low Memory in TScanModule::BufferToFileForPlanar");
    planePass = 2;
}

TEST_F(DibWriterTest, DisagreeingBytesWrittenRepairsTheRowCount) {
    const TW_IMAGEINFO info = Info(4, 4, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Bytes buffer = {1, 2, 3, 4, 5, 6, 7, 8};
    TW_IMAGEMEMXFER strip = Strip(4, 4, 4, 0, 1);
    strip.BytesWritten = 8;
    ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    EXPECT_EQ(2u, strip.Rows) << "the caller sees the repaired count";
    Close();
    ExpectedFile expected(4, 4, 8, 256, 8);
    expected.GrayRamp();
    expected.Row(1, Bytes(buffer.begin(), buffer.begin() + 4));
    expected.Row(2, Bytes(buffer.begin() + 4, buffer.end()));
    ExpectFile(expected.bytes);
}

// Rows whose 32-bit product with the strip's row length only wraps round to the bytes written are counted by their
// bytes: two rows of 0x80000004 bytes claim 8 bytes in 32 bits, and would have 2 GiB read from a buffer of 8.
TEST_F(DibWriterTest, RowsWhoseProductOnlyWrapsRoundAreCountedByTheirBytes) {
    const TW_IMAGEINFO info = Info(1, 4, 24, TWPT_RGB, 3);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Bytes buffer(8, 7);
    TW_IMAGEMEMXFER strip = Strip(0x80000004u, 1, 2, 0, 0);
    strip.BytesWritten = 8;
    EXPECT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    EXPECT_EQ(0u, strip.Rows) << "8 bytes hold no row of 0x80000004";
    EXPECT_EQ(Bytes(8, 7), buffer) << "nothing was swapped";
    Close();
    ExpectFile(ExpectedFile(1, 4, 24, 0, 24).bytes);
}

TEST_F(DibWriterTest, UnsupportedSampleLayoutWritesNothing) {
    const TW_IMAGEINFO info = Info(2, 2, 48, TWPT_RGB, 3);
    ASSERT_NE(HFILE_ERROR, Create());
    Bytes buffer(24, 9);
    TW_IMAGEMEMXFER strip = Strip(12, 2, 2, 0, 0);
    EXPECT_EQ(1, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    Close();
    EXPECT_TRUE(ReadFileBytes(path).empty());
}

TEST_F(DibWriterTest, StripOutsideTheImageIsRefused) {
    const TW_IMAGEINFO info = Info(4, 2, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Bytes buffer(8, 3);
    TW_IMAGEMEMXFER strip = Strip(4, 4, 2, 0, 1);
    EXPECT_EQ(-3, module->BufferToFile(file, &info, &strip, buffer.data()));
    ExpectRecord("Warning", "Strip lies outside the image in TScanModule::BufferToFile");
    planePass = 2;
    const TW_IMAGEINFO rgb = Info(2, 2, 24, TWPT_RGB, 3, true);
    strip = Strip(2, 2, 2, 1, 0);
    EXPECT_EQ(-3, module->BufferToFileForPlanar(file, &rgb, &strip, buffer.data()));
    ExpectRecord("Warning", "Strip lies outside the image in TScanModule::BufferToFileForPlanar");
    planePass = 2;
}

TEST_F(DibWriterTest, StripWithoutRowWidthIsRefused) {
    const TW_IMAGEINFO info = Info(4, 2, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Bytes buffer(8, 3);
    TW_IMAGEMEMXFER strip = Strip(0, 4, 2, 0, 0);
    strip.BytesWritten = 8;
    EXPECT_EQ(-3, module->BufferToFile(file, &info, &strip, buffer.data()));
    ExpectRecord("Warning", "Strip without row width in TScanModule::BufferToFile");
    Close();
    ExpectedFile expected(4, 2, 8, 256, 8);
    expected.GrayRamp();
    ExpectFile(expected.bytes);
}

// Rows without a width of an image without a width agree with the bytes written, none; each would still cost a seek
// and a write, up to 2^31 of them. Such a strip is refused as one without a row width.
TEST_F(DibWriterTest, RowsWithoutWidthOfAnImageWithoutWidthAreRefused) {
    const TW_IMAGEINFO info = Info(0, 3, 24, TWPT_RGB, 3);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Bytes buffer(8, 3);
    TW_IMAGEMEMXFER strip = Strip(0, 0, 3, 0, 0);
    EXPECT_EQ(-3, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    ExpectRecord("Warning", "Strip without row width in TScanModule::BufferToFile");
    Close();
    ExpectFile(ExpectedFile(0, 3, 24, 0, 24).bytes);
}

TEST_F(DibWriterTest, WriteDIBHandleToFileRefusesAHeaderLargerThanItsBlock) {
    HGLOBAL handle = GlobalAlloc(GHND, 64);
    ASSERT_NE(nullptr, handle);
    BYTE *bytes = static_cast<BYTE *>(GlobalLock(handle));
    bytes[0] = 40;
    bytes[4] = 100; // width
    bytes[8] = 100; // height
    bytes[12] = 1;  // planes
    bytes[14] = 8;  // bits
    GlobalUnlock(handle);
    EXPECT_EQ(-3, module->WriteDIBHandleToFile(handle, path.c_str()));
    EXPECT_EQ(0u, GlobalFlags(handle) & GMEM_LOCKCOUNT) << "unlocked on failure";
    GlobalFree(handle);
    ExpectRecord("Warning", "DIB larger than its memory block in TScanModule::WriteDIBHandleToFile");
    EXPECT_TRUE(ReadFileBytes(path).empty()) << "nothing written, the file closed";
}

class DibWriterPaletteTest : public DibWriterTest, public ::testing::WithParamInterface<int> {};

TEST_P(DibWriterPaletteTest, PaletteComesFromTheSourceRedAndBlueTurned) {
    const int depth = GetParam();
    OpenSource();
    ASSERT_EQ(0, module->SetPixelType(1 << TWPT_PALETTE));
    ASSERT_EQ(0, module->SetBitDepth(depth));
    const int width = 8, length = 2;
    const TW_IMAGEINFO info = Info(width, length, depth, TWPT_PALETTE);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    const unsigned rowBytes = 4 * ((depth * width + 31) / 32);
    Bytes buffer(rowBytes * length);
    for (size_t i = 0; i < buffer.size(); ++i)
        buffer[i] = static_cast<BYTE>(0x31 * (i + 1));
    TW_IMAGEMEMXFER strip = Strip(rowBytes, width, length, 0, 0);
    ASSERT_EQ(0, module->AppendBufferToFile(file, &info, &strip, buffer.data()));
    Close();
    const unsigned entries = depth == 8 ? 256 : 16;
    ExpectedFile expected(width, length, depth, entries, depth);
    // Always 256 entries; the source's 2^depth colours, the rest white. A 16-colour image's excess runs past its
    // palette area and is overwritten there by the rows.
    for (unsigned i = 0; i < 256; ++i) {
        unsigned r = 255, g = 255, b = 255;
        if (i < (1u << depth))
            ExpectedPaletteEntry(depth, i, r, g, b);
        expected.Entry(i, r, g, b);
    }
    for (int y = 0; y < length; ++y)
        expected.Row(y, Bytes(buffer.begin() + rowBytes * y, buffer.begin() + rowBytes * (y + 1)));
    EXPECT_EQ(54u + 4 * entries, Get32(expected.bytes, 10));
    ExpectFile(expected.bytes);
}

INSTANTIATE_TEST_SUITE_P(Depths, DibWriterPaletteTest, ::testing::Values(4, 8));

TEST_F(DibWriterTest, ResolutionFieldsAreZeroAfterASuccessfulUnitQuery) {
    OpenSource();
    TW_IMAGEINFO info = Info(2, 2, 8, TWPT_GRAY);
    info.XResolution.Whole = 200;
    info.XResolution.Frac = 0x8000;
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    const Bytes got = ReadFileBytes(path);
    ASSERT_GE(got.size(), 54u);
    EXPECT_EQ(0u, Get32(got, 38));
    EXPECT_EQ(0u, Get32(got, 42));
    ExpectRecord("Trace", "Leaving TScanModule::GetUnit", "F:\\smkernal\\Sm_5.cpp");
}

TEST_F(DibWriterTest, ResolutionFieldsAreFilledWhenTheUnitQueryFailsWithStatusOne) {
    OpenSource();
    TW_IMAGEINFO info = Info(2, 2, 8, TWPT_GRAY);
    info.XResolution.Whole = 200;
    info.XResolution.Frac = 0x8000;
    info.YResolution.Whole = 150;
    info.YResolution.Frac = 0x4000;
    // Both questions of the unit fail with TWCC_BUMMER, whose code is 1; the unit falls back to inches.
    script.failEx(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, TWRC_FAILURE, TWCC_BUMMER, 1, 1);
    script.failEx(DG_CONTROL, DAT_CAPABILITY, MSG_GET, TWRC_FAILURE, TWCC_BUMMER, 1, 1);
    WORD unit = 0;
    const LONG probe = module->GetUnit(&unit);
    ASSERT_EQ(1, probe) << TwccName(probe);
    ASSERT_EQ(1, unit);
    script.failEx(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, TWRC_FAILURE, TWCC_BUMMER, 1, 1);
    script.failEx(DG_CONTROL, DAT_CAPABILITY, MSG_GET, TWRC_FAILURE, TWCC_BUMMER, 1, 1);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    const Bytes got = ReadFileBytes(path);
    ASSERT_GE(got.size(), 54u);
    EXPECT_EQ(50927u, Get32(got, 38)) << "200.5 x 254.0";
    EXPECT_EQ(38163u, Get32(got, 42)) << "150.25 x 254.0, truncated";
}

TEST_F(DibWriterTest, ResolutionFieldsAreZeroWithoutAnOpenSource) {
    const TW_IMAGEINFO info = Info(2, 2, 8, TWPT_GRAY);
    ASSERT_NE(HFILE_ERROR, Create());
    ASSERT_EQ(0, module->WriteDIBHeader(file, &info));
    Close();
    const Bytes got = ReadFileBytes(path);
    ASSERT_GE(got.size(), 54u);
    EXPECT_EQ(0u, Get32(got, 38));
    EXPECT_EQ(0u, Get32(got, 42));
}

TEST_F(DibWriterTest, CheckDiskSpaceCreatesAnEmptyFileWhenTheImageFits) {
    { std::ofstream(path, std::ios::binary) << "old contents"; }
    const TW_IMAGEINFO info = Info(100, 100, 8, TWPT_GRAY);
    EXPECT_EQ(0, module->CheckDiskSpace(path.c_str(), &info));
    EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(path.c_str())) << "the file stays";
    EXPECT_TRUE(ReadFileBytes(path).empty()) << "created empty";
}

TEST_F(DibWriterTest, CheckDiskSpaceRefusesAnImageBeyondFreeSpaceAndMargin) {
    const std::string root = path.substr(0, 3);
    DWORD spc = 0, bps = 0, freeClusters = 0, total = 0;
    ASSERT_TRUE(GetDiskFreeSpaceA(root.c_str(), &spc, &bps, &freeClusters, &total));
    const unsigned long long room = static_cast<DWORD>(freeClusters * bps * spc) + 0x20000ull;
    // Rows of 1 MiB, one more than the room holds.
    const unsigned long long rows = room / 0x100000 + 2;
    if (rows * 0x100000 > 0x7FFFFFFFull - 54 - 1024)
        GTEST_SKIP() << "the drive's free space as 32 bits is more than a bitmap file can take: an image above it is "
                        "refused as too large for a bitmap file (CheckDiskSpaceRefusesAnImageNoBitmapFileCanHold)";
    const TW_IMAGEINFO info = Info(0x100000, static_cast<int>(rows), 8, TWPT_GRAY);
    EXPECT_EQ(-2, module->CheckDiskSpace(path.c_str(), &info));
    ExpectRecord("Warning", "Disk space is not enough in TScanModule::CheckDiskSpace");
    EXPECT_TRUE(ReadFileBytes(path).empty()) << "the file is created and closed all the same";
}

// An image whose file would not fit in the positions _llseek reaches, or whose size only wraps round to a small one in
// 32 bits, or whose length is negative, is refused before the free space is asked: the writers would lay out a file of
// another size and place strips at wrapped positions.
TEST_F(DibWriterTest, CheckDiskSpaceRefusesAnImageNoBitmapFileCanHold) {
    const TW_IMAGEINFO images[] = {
        Info(0x40000000, 0x40000000, 8, TWPT_GRAY), // 2^60 bytes, 0 in 32 bits
        Info(30000, 30000, 24, TWPT_RGB, 3),        // 2.7 GB
        Info(4, -5, 8, TWPT_GRAY),
        Info(-5, 4, 8, TWPT_GRAY),
    };
    for (const TW_IMAGEINFO &info : images) {
        viewer.Clear();
        EXPECT_EQ(-2, module->CheckDiskSpace(path.c_str(), &info)) << info.ImageWidth << " x " << info.ImageLength;
        EXPECT_EQ(std::vector<std::string>{"Image too large for a bitmap file in TScanModule::CheckDiskSpace"},
                  viewer.Texts("Warning"));
        ExpectRecord("Warning", "Image too large for a bitmap file in TScanModule::CheckDiskSpace");
        EXPECT_TRUE(ReadFileBytes(path).empty()) << "the file is created and closed all the same";
    }
    // The largest image that still fits is left to the free space.
    viewer.Clear();
    const TW_IMAGEINFO fits = Info(4, 1000, 8, TWPT_GRAY);
    EXPECT_EQ(0, module->CheckDiskSpace(path.c_str(), &fits));
    EXPECT_TRUE(viewer.Texts("Warning").empty());
}

TEST_F(DibWriterTest, CheckDiskSpaceOnAnUncreatableFile) {
    const TW_IMAGEINFO info = Info(10, 10, 8, TWPT_GRAY);
    EXPECT_EQ(-3, module->CheckDiskSpace("C:\\smk_no_such_directory\\page.bmp", &info));
    ExpectRecord("Warning", "Create file error in TScanModule::CheckDiskSpace");
}

TEST_F(DibWriterTest, WriteDIBHandleToFileCopiesThePackedBitmap) {
    // A 1-bit bitmap 9 pixels wide (4-byte rows), 3 rows, 2 colours.
    Bytes dib(40 + 8 + 12, 0);
    Put32(dib, 0, 40);
    Put32(dib, 4, 9);
    Put32(dib, 8, 3);
    Put16(dib, 12, 1);
    Put16(dib, 14, 1);
    Put32(dib, 32, 2);
    for (size_t i = 40; i < dib.size(); ++i)
        dib[i] = static_cast<BYTE>(i * 7);
    HGLOBAL handle = GlobalAlloc(GHND, dib.size());
    ASSERT_NE(nullptr, handle);
    std::memcpy(GlobalLock(handle), dib.data(), dib.size());
    GlobalUnlock(handle);
    EXPECT_EQ(0, module->WriteDIBHandleToFile(handle, path.c_str()));
    EXPECT_EQ(1u, GlobalFlags(handle) & GMEM_LOCKCOUNT) << "left locked for the caller";
    GlobalUnlock(handle);
    GlobalFree(handle);
    Bytes expected(14, 0);
    Put16(expected, 0, 0x4D42);
    Put32(expected, 2, 14 + static_cast<unsigned>(dib.size()));
    Put32(expected, 10, 62);
    expected.insert(expected.end(), dib.begin(), dib.end());
    ExpectFile(expected);
}

TEST_F(DibWriterTest, WriteDIBHandleToFileOnAnUncreatableFile) {
    HGLOBAL handle = GlobalAlloc(GHND, 64);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(-3, module->WriteDIBHandleToFile(handle, "C:\\smk_no_such_directory\\page.bmp"));
    GlobalFree(handle);
    ExpectRecord("Warning", "Create file error in TScanModule::WriteDIBHandleToFile");
}

TEST_F(DibWriterTest, WritersOnAReadOnlyFileFail) {
    { std::ofstream(path, std::ios::binary) << std::string(200, 'x'); }
    OFSTRUCT of = {};
    file = OpenFile(path.c_str(), &of, OF_READ);
    ASSERT_NE(HFILE_ERROR, file);
    const TW_IMAGEINFO gray = Info(4, 2, 8, TWPT_GRAY);
    EXPECT_EQ(-3, module->WriteDIBHeader(file, &gray));
    ExpectRecord("Warning", "_lwrite returns failure in TScanModule::WriteDIBHeader");
    Bytes buffer(8, 1);
    TW_IMAGEMEMXFER strip = Strip(4, 4, 2, 0, 0);
    EXPECT_EQ(-3, module->BufferToFile(file, &gray, &strip, buffer.data()));
    ExpectRecord("Warning", "_lwrite returns failure in TScanModule::BufferToFile");
    planePass = 2;
    const TW_IMAGEINFO rgb = Info(2, 2, 24, TWPT_RGB, 3, true);
    Bytes samples(4, 2);
    strip = Strip(2, 2, 2, 0, 0);
    EXPECT_EQ(-3, module->BufferToFileForPlanar(file, &rgb, &strip, samples.data()));
    ExpectRecord("Warning", "_lwrite returns failure in TScanModule::BufferToFileForPlanar");
    planePass = 2;
    Close();
    EXPECT_TRUE(ReadFileBytes(path) == Bytes(200, 'x')) << "nothing changed";
}

// The rows are written one by one; when the first write fails, every row of the caller's buffer is swapped all the
// same, as when the strip was swapped whole before anything was written.
TEST_F(DibWriterTest, RgbRowsAreAllSwappedEvenWhenAWriteFails) {
    { std::ofstream(path, std::ios::binary) << std::string(200, 'x'); }
    OFSTRUCT of = {};
    file = OpenFile(path.c_str(), &of, OF_READ);
    ASSERT_NE(HFILE_ERROR, file);
    const int width = 2, length = 3;
    const TW_IMAGEINFO info = Info(width, length, 24, TWPT_RGB, 3);
    Bytes buffer(8 * length);
    for (size_t i = 0; i < buffer.size(); ++i)
        buffer[i] = static_cast<BYTE>(i + 1);
    Bytes expected = buffer;
    for (int y = 0; y < length; ++y)
        for (int x = 0; x < width; ++x)
            std::swap(expected[8 * y + 3 * x], expected[8 * y + 3 * x + 2]);
    TW_IMAGEMEMXFER strip = Strip(8, width, length, 0, 0);
    EXPECT_EQ(-3, module->BufferToFile(file, &info, &strip, buffer.data()));
    EXPECT_TRUE(buffer == expected) << "every row swapped, the padding of each left alone";
    ExpectRecord("Trace", "Reverse R,B data in TScanModule::BufferToFile");
    ExpectRecord("Warning", "_lwrite returns failure in TScanModule::BufferToFile");
    Close();
}

TEST_F(DibWriterTest, PlanarWriterOnAFileWithoutItsRowsFailsToRead) {
    planePass = 2;
    ASSERT_NE(HFILE_ERROR, Create());
    const TW_IMAGEINFO rgb = Info(2, 2, 24, TWPT_RGB, 3, true);
    Bytes samples(4, 2);
    TW_IMAGEMEMXFER strip = Strip(2, 2, 2, 0, 0);
    EXPECT_EQ(-3, module->BufferToFileForPlanar(file, &rgb, &strip, samples.data()));
    ExpectRecord("Warning", "_lread returns failure in TScanModule::BufferToFileForPlanar");
    planePass = 2;
}

} // namespace
