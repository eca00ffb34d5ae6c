// Scan to file: the bitmap files smZephraScan writes through the event filter, compared byte for byte with files built
// here from the virtual scanner's test page, for every format the bitmap writer takes and by the native, file and
// memory transfers; each sheet of the feeder to a file of its own; and strips placed by their offsets in whatever
// order a source of the test's own delivers them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "ScanModule.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

extern int planePass;

namespace {

using Bytes = std::vector<unsigned char>;
using Strings = std::vector<std::string>;

const char kTitle[] = "Scan to file";
// The small page: the whole bed at 50 dpi scaled by a quarter, kSmallPageWidth x kSmallPageLength pixels.
constexpr int kDpi = 50;
constexpr double kQuarter = 0.25;
// Long enough for a batch of three pages under an emulated processor; no timing is asserted.
constexpr DWORD kBatchMs = 60000;
constexpr size_t kFileHeaderBytes = 14;
constexpr size_t kInfoHeaderBytes = 40;
constexpr size_t kHeaderBytes = kFileHeaderBytes + kInfoHeaderBytes;
constexpr double kMetresPerInch = 0.0254;

void Put16(Bytes &b, size_t at, unsigned value) {
    b[at] = static_cast<unsigned char>(value);
    b[at + 1] = static_cast<unsigned char>(value >> 8);
}

void Put32(Bytes &b, size_t at, unsigned value) {
    Put16(b, at, value & 0xFFFF);
    Put16(b, at + 2, value >> 16);
}

unsigned Get32(const Bytes &b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<unsigned>(b[at + 3]) << 24);
}

Bytes ReadFileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Join(const Strings &items) {
    std::string out;
    for (const std::string &item : items)
        out += (out.empty() ? "" : ", ") + item;
    return out;
}

// Row y (0 the top) of page `page` packed as a bitmap row holds it, without the padding: the most significant bits
// first, RGB as blue, green, red.
Bytes BitmapRow(const Format &f, int width, int height, int page, int y) {
    Bytes row((static_cast<size_t>(width) * f.bitDepth + 7) / 8, 0);
    for (int x = 0; x < width; ++x) {
        const std::vector<unsigned> s = ExpectedSamples(f, width, height, page, x, y);
        switch (f.bitDepth) {
        case 1:
            row[x / 8] |= static_cast<unsigned char>(s[0] << (7 - x % 8));
            break;
        case 4:
            row[x / 2] |= static_cast<unsigned char>(s[0] << (x % 2 ? 0 : 4));
            break;
        case 8:
            row[x] = static_cast<unsigned char>(s[0]);
            break;
        default:
            row[3 * x] = static_cast<unsigned char>(s[2]);
            row[3 * x + 1] = static_cast<unsigned char>(s[1]);
            row[3 * x + 2] = static_cast<unsigned char>(s[0]);
            break;
        }
    }
    return row;
}

// The colour of index i in a bitmap of the format: black then white, the gray ramp from black, the scanner's palette.
void IndexColour(const Format &f, unsigned i, unsigned &r, unsigned &g, unsigned &b) {
    if (f.pixelType == TWPT_PALETTE) {
        ExpectedPaletteEntry(f.bitDepth, static_cast<int>(i), r, g, b);
        return;
    }
    r = g = b = f.pixelType == TWPT_BW ? (i ? 255 : 0) : i;
}

void PutEntry(Bytes &b, size_t at, unsigned red, unsigned green, unsigned blue) {
    if (b.size() < at + 4)
        b.resize(at + 4, 0);
    b[at] = static_cast<unsigned char>(blue);
    b[at + 1] = static_cast<unsigned char>(green);
    b[at + 2] = static_cast<unsigned char>(red);
    b[at + 3] = 0;
}

// The BMP file of the scanner's bitmap: what its file transfer writes, and what its native transfer's packed bitmap
// is behind a file header. Rows bottom-up, padded to 4 bytes with zeros; a colour table for 1, 4 and 8 bits; the
// image size, the resolution in pixels per metre and the colours used in the info header.
Bytes SourceBitmapFile(const Format &f, int width, int height, int page) {
    const unsigned colours = f.pixelType == TWPT_RGB ? 0 : 1u << f.bitDepth;
    const unsigned stride = (static_cast<unsigned>(width) * f.bitDepth + 31) / 32 * 4;
    const unsigned offBits = kHeaderBytes + 4 * colours;
    Bytes b(offBits + stride * height, 0);
    Put16(b, 0, 0x4D42);
    Put32(b, 2, static_cast<unsigned>(b.size()));
    Put32(b, 10, offBits);
    Put32(b, 14, kInfoHeaderBytes);
    Put32(b, 18, width);
    Put32(b, 22, height);
    Put16(b, 26, 1);
    Put16(b, 28, f.bitDepth);
    Put32(b, 34, stride * height);
    const unsigned pelsPerMetre = static_cast<unsigned>(std::lround(kDpi / kMetresPerInch));
    Put32(b, 38, pelsPerMetre);
    Put32(b, 42, pelsPerMetre);
    Put32(b, 46, colours);
    for (unsigned i = 0; i < colours; ++i) {
        unsigned r, g, bl;
        IndexColour(f, i, r, g, bl);
        PutEntry(b, kHeaderBytes + 4 * i, r, g, bl);
    }
    for (int y = 0; y < height; ++y) {
        const Bytes row = BitmapRow(f, width, height, page, y);
        std::copy(row.begin(), row.end(), b.begin() + offBits + static_cast<size_t>(height - 1 - y) * stride);
    }
    return b;
}

// The module's own file of an image it receives in strips: the whole file laid out with zeros; the headers (no image
// size, no resolution when the source tells its unit, the palette's size as the colours used); the palette (two
// entries black and white, the 256 grays, or all 256 entries of the source's palette, those it has not white, even
// for 16 colours, so that the rest lies over the first pixel rows); then each row's bytes as the source delivers them,
// bottom-up at their 4-byte rows, which leaves the padding as it was.
Bytes ModuleBitmapFile(const Format &f, int width, int height, int page) {
    const int bits = f.bitDepth;
    const unsigned entries = bits <= 1 ? 2 : bits <= 4 ? 16 : bits <= 8 ? 256 : 0;
    const unsigned rowBytes = ((static_cast<unsigned>(width) * bits + 7) / 8 + 3) & ~3u;
    const unsigned headerBytes = kHeaderBytes + 4 * entries;
    Bytes b(headerBytes + rowBytes * height, 0);
    Put16(b, 0, 0x4D42);
    Put32(b, 2, static_cast<unsigned>(b.size()));
    Put32(b, 10, headerBytes);
    Put32(b, 14, kInfoHeaderBytes);
    Put32(b, 18, width);
    Put32(b, 22, height);
    Put16(b, 26, 1);
    Put16(b, 28, bits);
    Put32(b, 46, entries);
    const unsigned written = f.pixelType == TWPT_PALETTE ? 256 : f.pixelType == TWPT_RGB ? 0 : entries;
    for (unsigned i = 0; i < written; ++i) {
        unsigned r = 255, g = 255, bl = 255;
        if (f.pixelType != TWPT_PALETTE || i < (1u << bits))
            IndexColour(f, i, r, g, bl);
        PutEntry(b, kHeaderBytes + 4 * i, r, g, bl);
    }
    for (int y = 0; y < height; ++y) {
        const Bytes row = BitmapRow(f, width, height, page, y);
        std::copy(row.begin(), row.end(), b.begin() + headerBytes + static_cast<size_t>(height - 1 - y) * rowBytes);
    }
    return b;
}

std::string HexByte(unsigned char value) {
    char text[8];
    wsprintfA(text, "0x%02X", value);
    return text;
}

// Equal bytes, or where the file first differs, named by its place in the bitmap laid out as `expected` says.
::testing::AssertionResult SameBitmapFile(const Bytes &expected, const Bytes &got) {
    const size_t common = std::min(expected.size(), got.size());
    size_t at = 0;
    while (at < common && expected[at] == got[at])
        ++at;
    if (at == common && expected.size() == got.size())
        return ::testing::AssertionSuccess();
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << got.size() << " bytes, expected " << expected.size();
    if (at == common) {
        failure << "; the first " << common << " bytes agree";
        return failure;
    }
    failure << "; first difference at offset " << at << " (";
    const size_t offBits = Get32(expected, 10);
    const unsigned height = Get32(expected, 22);
    const size_t rowBytes = height ? (Get32(expected, 2) - offBits) / height : 0;
    if (at < kFileHeaderBytes)
        failure << "file header";
    else if (at < kHeaderBytes)
        failure << "info header";
    else if (at < offBits)
        failure << "palette entry " << (at - kHeaderBytes) / 4;
    else if (rowBytes)
        failure << "image row " << height - 1 - (at - offBits) / rowBytes << " from the top, byte "
                << (at - offBits) % rowBytes;
    failure << "): got " << HexByte(got[at]) << ", expected " << HexByte(expected[at]);
    return failure;
}

// The scan-to-file notices in order: "ScanToFileGetName", "ScanToFileXferEnd(0)", "ScanToFileDSClosed"; any other
// notice by its name.
Strings ScanToFileOutline(const NotificationWindow &app) {
    Strings out;
    for (const Notice &notice : app.Notices()) {
        std::string text = NoticeName(notice.kind);
        if (notice.kind == NoticeKind::ScanToFileXferEnd)
            text += "(" + std::to_string(static_cast<LONG>(notice.wParam)) + ")";
        out.push_back(text);
    }
    return out;
}

// Name, result and end of `pages` images, then the end of the batch.
Strings WrittenPages(int pages) {
    Strings out;
    for (int i = 0; i < pages; ++i) {
        out.push_back("ScanToFileGetName");
        out.push_back("ScanToFileXferEnd(0)");
    }
    out.push_back("ScanToFileDSClosed");
    return out;
}

// A directory of its own for a test's files, emptied; and its removal.
std::string FreshDirectory(const char *prefix) {
    char temp[MAX_PATH] = {};
    GetTempPathA(sizeof temp, temp);
    std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->test_suite_name();
    name += "_";
    name += ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '_');
    const std::string directory = std::string(temp) + prefix + name + "\\";
    WIN32_FIND_DATAA entry;
    HANDLE listing = FindFirstFileA((directory + "*").c_str(), &entry);
    if (listing != INVALID_HANDLE_VALUE) {
        do {
            if (!(entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                DeleteFileA((directory + entry.cFileName).c_str());
        } while (FindNextFileA(listing, &entry));
        FindClose(listing);
    }
    CreateDirectoryA(directory.c_str(), nullptr);
    return directory;
}

// The names of the files and directories in `directory` (without "." and ".."), sorted.
Strings DirectoryEntries(const std::string &directory) {
    Strings names;
    WIN32_FIND_DATAA entry;
    HANDLE listing = FindFirstFileA((directory + "*").c_str(), &entry);
    if (listing == INVALID_HANDLE_VALUE)
        return names;
    do {
        const std::string name = entry.cFileName;
        if (name != "." && name != "..")
            names.push_back(name);
    } while (FindNextFileA(listing, &entry));
    FindClose(listing);
    std::sort(names.begin(), names.end());
    return names;
}

void RemoveTestDirectory(const std::string &directory) {
    for (const std::string &name : DirectoryEntries(directory))
        DeleteFileA((directory + name).c_str());
    RemoveDirectoryA(directory.c_str());
}

// "page1.bmp" .. "page<n>.bmp", as the application names them.
std::string PageFileName(size_t page) {
    return "page" + std::to_string(page) + ".bmp";
}

Strings PageFileNames(int pages) {
    Strings names;
    for (int i = 1; i <= pages; ++i)
        names.push_back(PageFileName(i));
    std::sort(names.begin(), names.end());
    return names;
}

// Settings for one image of the small page without the source's interface: `pixelTypeCode` at 50 dpi, tone settings
// on their default scales, the flatbed.
ScanToFileSettings OneImage(WORD pixelTypeCode) {
    ScanToFileSettings s = {};
    s.frameRight = 8.5;
    s.frameBottom = 14.0;
    s.unitCode = SM_UNIT_INCHES;
    s.pixelTypeCode = pixelTypeCode;
    s.resolution = kDpi;
    s.brightnessMin = -1000;
    s.brightnessMax = 1000;
    s.contrastMin = -1000;
    s.contrastMax = 1000;
    s.highlight = 255;
    s.highlightMax = 255;
    s.shadowMax = 255;
    s.modalUI = 0;
    s.morePages = 0;
    s.showSourceUI = 0;
    s.useFeeder = 0;
    return s;
}

// The pixel type smZephraScan is asked for: palette images are negotiated beforehand, and its own setting refused.
WORD PixelTypeCodeOf(const Format &f) {
    switch (f.pixelType) {
    case TWPT_BW:
        return SM_PIXEL_BW;
    case TWPT_RGB:
        return SM_PIXEL_RGB;
    default:
        return SM_PIXEL_GRAY;
    }
}

int CountImageFetches(const std::vector<TdsmCall> &calls, TW_UINT16 dat) {
    return static_cast<int>(std::count_if(calls.begin(), calls.end(), [dat](const TdsmCall &c) {
        return c.dg == DG_IMAGE && c.dat == dat && c.msg == MSG_GET;
    }));
}

// --- Black box: smZephraScan against the virtual scanner, the files named by the application window.

struct FileCase {
    const char *name;
    Format format;
    LONG mechanism;  // SM_XFER_*: the one transfer the scanner takes
    unsigned strips; // memory transfers: rows per strip when the scanner's largest buffer is cut down (0: a plane)
};

void PrintTo(const FileCase &c, std::ostream *os) {
    *os << c.name;
}

class ScanToFileFilesTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        if (HasFatalFailure())
            return;
        zephraScan = library.Get<decltype(zephraScan)>("smZephraScan");
        ASSERT_NE(nullptr, zephraScan);
        directory = FreshDirectory("smk_stf_");
        app.onScanToFileGetName = [this](const Notice &, char *name) {
            const std::string path = directory + PageFileName(named.size() + 1);
            lstrcpynA(name, path.c_str(), 256);
            named.push_back(path);
        };
    }
    void TearDown() override {
        XferTest::TearDown();
        RemoveTestDirectory(directory);
    }

    LONG Set(const char *name, LONG value) const { return library.Get<LONG(WINAPI *)(LONG)>(name)(value); }

    // Opens the scanner with the application's window for the small page, makes it take no transfer but
    // `mechanism`, and negotiates what smZephraScan does not set: planar RGB, and palette images, whose pixel type
    // the scanner then refuses to smZephraScan, so that the user scans them with its interface (pressed by itself).
    void Prepare(const Format &f, LONG mechanism, unsigned stripRows = 0) {
        ASSERT_EQ(SM_OK, openDS(app.Handle(), kTitle));
        ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetXScale")(kQuarter));
        ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(double)>("smSetYScale")(kQuarter));
        if (mechanism != SM_XFER_MEMORY) {
            const double only[] = {mechanism == SM_XFER_FILE ? static_cast<double>(TWSX_FILE) : TWSX_NATIVE};
            ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 1, only));
        }
        if (stripRows) {
            const unsigned rowBytes = MemoryRowBytes(f, kSmallPageWidth);
            ASSERT_EQ(1,
                      scanner.setFault(VSCAN_FAULT_MAXBUFSIZE, static_cast<int>(stripRows * rowBytes + rowBytes / 2)));
        }
        if (f.planar) {
            const TW_UINT16 rc = SetOneValueThroughModule(library, ICAP_PLANARCHUNKY, TWTY_UINT16, TWPC_PLANAR);
            ASSERT_EQ(TWRC_SUCCESS, rc) << "ICAP_PLANARCHUNKY TWPC_PLANAR: " << TwrcName(rc);
        }
        if (f.pixelType == TWPT_PALETTE) {
            ASSERT_EQ(SM_OK, Set("smSetPixelType", SM_PIXEL_PALETTE));
            ASSERT_EQ(SM_OK, Set("smSetBitDepth", f.bitDepth));
            ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_PIXELTYPE, TWRC_FAILURE,
                                             TWCC_BADVALUE, 1, 0));
            scanner.setAutoScan(VSCAN_AUTO_SCAN);
        }
        Reset();
    }

    // smZephraScan, then the application's loop through smIsDSEvent until the module reports the end of the batch.
    void Scan(const ScanToFileSettings &settings) {
        ASSERT_EQ(1u, zephraScan(app.Handle(), kTitle, &settings)) << "the source must be enabled";
        ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::ScanToFileDSClosed) > 0; }, kBatchMs))
            << "no end of the batch; notices: " << Join(ScanToFileOutline(app));
        // What is still queued reaches the filter too: nothing more may come of it.
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE))
            if (!isDSEvent(&msg)) {
                TranslateMessage(&msg);
                DispatchMessageA(&msg);
            }
    }

    // The pages' files, and no other entry, in the directory; each equal to `expected(page)`.
    template <typename Expected> void ExpectPageFiles(int pages, Expected expected) {
        EXPECT_EQ(PageFileNames(pages), DirectoryEntries(directory)) << "in " << directory;
        for (int page = 1; page <= pages; ++page) {
            SCOPED_TRACE("page " + std::to_string(page));
            const std::string path = directory + PageFileName(page);
            EXPECT_TRUE(SameBitmapFile(expected(page), ReadFileBytes(path))) << path;
        }
    }

    // The transfer the source was asked for, and no other.
    void ExpectOnlyTransfer(LONG mechanism, int images) {
        const std::vector<TdsmCall> calls = CallsSinceMark();
        EXPECT_EQ(mechanism == SM_XFER_NATIVE ? images : 0, CountImageFetches(calls, DAT_IMAGENATIVEXFER));
        EXPECT_EQ(mechanism == SM_XFER_FILE ? images : 0, CountImageFetches(calls, DAT_IMAGEFILEXFER));
        if (mechanism == SM_XFER_MEMORY)
            EXPECT_LE(images, CountImageFetches(calls, DAT_IMAGEMEMXFER));
        else
            EXPECT_EQ(0, CountImageFetches(calls, DAT_IMAGEMEMXFER));
    }

    DWORD(WINAPI *zephraScan)(HWND, const char *, const ScanToFileSettings *) = nullptr;
    std::string directory;
    Strings named;
};

class ScanToFileFormatTest : public ScanToFileFilesTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(ScanToFileFormatTest, FileEqualsTheDocumentedBitmap) {
    const FileCase &c = GetParam();
    Prepare(c.format, c.mechanism, c.strips);
    ASSERT_FALSE(HasFatalFailure());
    Scan(OneImage(PixelTypeCodeOf(c.format)));
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(WrittenPages(1), ScanToFileOutline(app));
    ExpectOnlyTransfer(c.mechanism, 1);
    if (c.mechanism == SM_XFER_MEMORY) {
        const int planes = c.format.planar ? 3 : 1;
        const int perPlane = c.strips ? (kSmallPageLength + c.strips - 1) / c.strips : 1;
        EXPECT_EQ(planes * perPlane, CountImageFetches(CallsSinceMark(), DAT_IMAGEMEMXFER))
            << "strips of " << c.strips << " rows";
    }
    EXPECT_EQ(VSCAN_STATE_CLOSED, scanner.Info().state) << "the batch ends with the source closed";
    // The file transfer's file is the source's own, and the native one the source's bitmap behind a file header; the
    // memory transfer's is laid out by the module.
    ExpectPageFiles(1, [&c](int page) {
        return c.mechanism == SM_XFER_MEMORY ? ModuleBitmapFile(c.format, kSmallPageWidth, kSmallPageLength, page)
                                             : SourceBitmapFile(c.format, kSmallPageWidth, kSmallPageLength, page);
    });
}

const FileCase kFileCases[] = {
    {"BW1_Native", MakeFormat(TWPT_BW, 1), SM_XFER_NATIVE, 0},
    {"BW1_File", MakeFormat(TWPT_BW, 1), SM_XFER_FILE, 0},
    {"BW1_Memory", MakeFormat(TWPT_BW, 1), SM_XFER_MEMORY, 0},
    {"BW1_MemoryStrips", MakeFormat(TWPT_BW, 1), SM_XFER_MEMORY, 7},
    {"Gray8_Native", MakeFormat(TWPT_GRAY, 8), SM_XFER_NATIVE, 0},
    {"Gray8_File", MakeFormat(TWPT_GRAY, 8), SM_XFER_FILE, 0},
    {"Gray8_Memory", MakeFormat(TWPT_GRAY, 8), SM_XFER_MEMORY, 0},
    {"Gray8_MemoryStrips", MakeFormat(TWPT_GRAY, 8), SM_XFER_MEMORY, 7},
    {"Palette4_Native", MakeFormat(TWPT_PALETTE, 4), SM_XFER_NATIVE, 0},
    {"Palette4_File", MakeFormat(TWPT_PALETTE, 4), SM_XFER_FILE, 0},
    {"Palette4_Memory", MakeFormat(TWPT_PALETTE, 4), SM_XFER_MEMORY, 0},
    {"Palette4_MemoryStrips", MakeFormat(TWPT_PALETTE, 4), SM_XFER_MEMORY, 7},
    {"Palette8_Native", MakeFormat(TWPT_PALETTE, 8), SM_XFER_NATIVE, 0},
    {"Palette8_File", MakeFormat(TWPT_PALETTE, 8), SM_XFER_FILE, 0},
    {"Palette8_Memory", MakeFormat(TWPT_PALETTE, 8), SM_XFER_MEMORY, 0},
    {"Palette8_MemoryStrips", MakeFormat(TWPT_PALETTE, 8), SM_XFER_MEMORY, 7},
    {"RGB24_Native", MakeFormat(TWPT_RGB, 24), SM_XFER_NATIVE, 0},
    {"RGB24_File", MakeFormat(TWPT_RGB, 24), SM_XFER_FILE, 0},
    {"RGB24_Memory", MakeFormat(TWPT_RGB, 24), SM_XFER_MEMORY, 0},
    {"RGB24_MemoryStrips", MakeFormat(TWPT_RGB, 24), SM_XFER_MEMORY, 7},
    // Planes exist in memory transfers only: bitmaps are chunky.
    {"PlanarRGB24_Memory", MakeFormat(TWPT_RGB, 24, true), SM_XFER_MEMORY, 0},
    {"PlanarRGB24_MemoryStrips", MakeFormat(TWPT_RGB, 24, true), SM_XFER_MEMORY, 7},
};

INSTANTIATE_TEST_SUITE_P(Formats, ScanToFileFormatTest, ::testing::ValuesIn(kFileCases),
                         [](const ::testing::TestParamInfo<FileCase> &info) { return std::string(info.param.name); });

class ScanToFilePagesTest : public ScanToFileFilesTest, public ::testing::WithParamInterface<FileCase> {};

// Three sheets in the feeder, more pages wanted, the interface shown and closed by itself after the batch; the scanner
// announces each image that is still pending.
TEST_P(ScanToFilePagesTest, EachSheetOfTheFeederToAFileOfItsOwn) {
    const FileCase &c = GetParam();
    constexpr int kSheets = 3;
    Prepare(c.format, c.mechanism, c.strips);
    ASSERT_FALSE(HasFatalFailure());
    scanner.setPages(kSheets);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_XFERREADYEACH, 1)) << "the scanner announces every pending image";
    ScanToFileSettings settings = OneImage(PixelTypeCodeOf(c.format));
    settings.morePages = 1;
    settings.showSourceUI = 1;
    settings.useFeeder = 1;
    Scan(settings);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ(WrittenPages(kSheets), ScanToFileOutline(app));
    ExpectOnlyTransfer(c.mechanism, kSheets);
    EXPECT_EQ(0, scanner.Info().sheetsLeft);
    ExpectPageFiles(kSheets, [&c](int page) {
        return c.mechanism == SM_XFER_MEMORY ? ModuleBitmapFile(c.format, kSmallPageWidth, kSmallPageLength, page)
                                             : SourceBitmapFile(c.format, kSmallPageWidth, kSmallPageLength, page);
    });
}

const FileCase kPageCases[] = {
    {"Gray8_Native", MakeFormat(TWPT_GRAY, 8), SM_XFER_NATIVE, 0},
    {"BW1_MemoryStrips", MakeFormat(TWPT_BW, 1), SM_XFER_MEMORY, 7},
    {"Palette4_Memory", MakeFormat(TWPT_PALETTE, 4), SM_XFER_MEMORY, 0},
    {"RGB24_Memory", MakeFormat(TWPT_RGB, 24), SM_XFER_MEMORY, 0},
    // The plane counter goes on from image to image: each image starts with its red plane again.
    {"PlanarRGB24_MemoryStrips", MakeFormat(TWPT_RGB, 24, true), SM_XFER_MEMORY, 7},
};

INSTANTIATE_TEST_SUITE_P(Feeder, ScanToFilePagesTest, ::testing::ValuesIn(kPageCases),
                         [](const ::testing::TestParamInfo<FileCase> &info) { return std::string(info.param.name); });

// --- White box: the memory transfer into a file against a source of the test's own that delivers its strips in an
// order of its choosing.

// One strip: a tile of `columns` x `rows` pixels at (xOffset, yOffset), of plane `plane` (planar RGB) or all samples.
struct StripPlan {
    int plane;
    unsigned xOffset, yOffset, columns, rows;
};

// The source behind the module's dsmEntry. It answers what the memory transfer into a file asks, counts the ends of
// the transfer and of the session, and names any other triplet.
struct OwnSource {
    Format format;
    int width = kSmallPageWidth;
    int height = kSmallPageLength;
    int page = 1;
    std::vector<StripPlan> strips;
    size_t next = 0;
    TW_UINT32 maxBufSize = 0;
    TW_UINT16 conditionCode = TWCC_SUCCESS;
    int endXfers = 0, resets = 0, disables = 0, closes = 0;
    Strings unexpected;
    Strings stripFaults;
};

OwnSource *ownSource = nullptr;

// Bytes of a row of `columns` pixels of the strip as the memory transfer delivers it.
unsigned StripRowBytes(const Format &f, const StripPlan &p) {
    const unsigned bits = p.plane >= 0 ? 8 : static_cast<unsigned>(f.bitDepth);
    return (p.columns * bits + 7) / 8;
}

// Packs the strip's pixels from the test page: RGB in red, green, blue order, one plane's samples for planar RGB.
void RenderStrip(const OwnSource &s, const StripPlan &p, unsigned char *out) {
    const unsigned rowBytes = StripRowBytes(s.format, p);
    std::memset(out, 0, static_cast<size_t>(rowBytes) * p.rows);
    for (unsigned r = 0; r < p.rows; ++r) {
        unsigned char *row = out + static_cast<size_t>(r) * rowBytes;
        for (unsigned c = 0; c < p.columns; ++c) {
            const std::vector<unsigned> v = ExpectedSamples(
                s.format, s.width, s.height, s.page, static_cast<int>(p.xOffset + c), static_cast<int>(p.yOffset + r));
            if (p.plane >= 0) {
                row[c] = static_cast<unsigned char>(v[p.plane]);
                continue;
            }
            switch (s.format.bitDepth) {
            case 1:
                row[c / 8] |= static_cast<unsigned char>(v[0] << (7 - c % 8));
                break;
            case 4:
                row[c / 2] |= static_cast<unsigned char>(v[0] << (c % 2 ? 0 : 4));
                break;
            case 8:
                row[c] = static_cast<unsigned char>(v[0]);
                break;
            default:
                for (int i = 0; i < 3; ++i)
                    row[3 * c + i] = static_cast<unsigned char>(v[i]);
                break;
            }
        }
    }
}

TW_UINT16 OwnSourceFails(OwnSource &s, TW_UINT16 cc) {
    s.conditionCode = cc;
    return TWRC_FAILURE;
}

TW_UINT16 NextStrip(OwnSource &s, TW_IMAGEMEMXFER &mx) {
    if (s.next >= s.strips.size()) {
        s.stripFaults.push_back("a strip asked after the last");
        return OwnSourceFails(s, TWCC_SEQERROR);
    }
    const StripPlan &p = s.strips[s.next];
    const unsigned rowBytes = StripRowBytes(s.format, p);
    if (mx.Memory.Flags != (TWMF_APPOWNS | TWMF_POINTER) || !mx.Memory.TheMem || mx.Memory.Length < rowBytes * p.rows) {
        s.stripFaults.push_back("strip " + std::to_string(s.next) + ": a buffer of " +
                                std::to_string(mx.Memory.Length) + " bytes, flags " + std::to_string(mx.Memory.Flags));
        return OwnSourceFails(s, TWCC_BADVALUE);
    }
    RenderStrip(s, p, static_cast<unsigned char *>(mx.Memory.TheMem));
    mx.Compression = TWCP_NONE;
    mx.BytesPerRow = rowBytes;
    mx.Columns = p.columns;
    mx.Rows = p.rows;
    mx.XOffset = p.xOffset;
    mx.YOffset = p.yOffset;
    mx.BytesWritten = rowBytes * p.rows;
    ++s.next;
    return s.next == s.strips.size() ? TWRC_XFERDONE : TWRC_SUCCESS;
}

TW_UINT16 AnswerCapability(OwnSource &s, TW_UINT16 msg, TW_CAPABILITY &cap) {
    const bool getLike = msg == MSG_GET || msg == MSG_GETCURRENT || msg == MSG_GETDEFAULT;
    if (cap.Cap != ICAP_UNITS || !getLike)
        return OwnSourceFails(s, TWCC_CAPUNSUPPORTED);
    cap.ConType = TWON_ONEVALUE;
    cap.hContainer = GlobalAlloc(GHND, sizeof(TW_ONEVALUE));
    auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(cap.hContainer));
    one->ItemType = TWTY_UINT16;
    one->Item = TWUN_INCHES;
    GlobalUnlock(cap.hContainer);
    return TWRC_SUCCESS;
}

TW_UINT16 WINAPI OwnSourceEntry(pTW_IDENTITY, pTW_IDENTITY, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                                TW_MEMREF data) {
    OwnSource &s = *ownSource;
    const Format &f = s.format;
    if (dg == DG_IMAGE && dat == DAT_IMAGEINFO && msg == MSG_GET) {
        auto *info = static_cast<TW_IMAGEINFO *>(data);
        *info = TW_IMAGEINFO{};
        info->XResolution.Whole = kDpi;
        info->YResolution.Whole = kDpi;
        info->ImageWidth = s.width;
        info->ImageLength = s.height;
        const int samples = f.pixelType == TWPT_RGB ? 3 : 1;
        info->SamplesPerPixel = static_cast<TW_INT16>(samples);
        for (int i = 0; i < samples; ++i)
            info->BitsPerSample[i] = static_cast<TW_INT16>(f.bitDepth / samples);
        info->BitsPerPixel = static_cast<TW_INT16>(f.bitDepth);
        info->Planar = f.planar;
        info->PixelType = static_cast<TW_INT16>(f.pixelType);
        info->Compression = TWCP_NONE;
        return TWRC_SUCCESS;
    }
    if (dg == DG_CONTROL && dat == DAT_SETUPMEMXFER && msg == MSG_GET) {
        auto *setup = static_cast<TW_SETUPMEMXFER *>(data);
        setup->MinBufSize = MemoryRowBytes(f, s.width);
        setup->MaxBufSize = s.maxBufSize;
        setup->Preferred = s.maxBufSize;
        return TWRC_SUCCESS;
    }
    if (dg == DG_IMAGE && dat == DAT_IMAGEMEMXFER && msg == MSG_GET)
        return NextStrip(s, *static_cast<TW_IMAGEMEMXFER *>(data));
    if (dg == DG_IMAGE && dat == DAT_PALETTE8 && msg == MSG_GET && f.pixelType == TWPT_PALETTE) {
        auto *palette = static_cast<TW_PALETTE8 *>(data);
        *palette = TW_PALETTE8{};
        palette->NumColors = static_cast<TW_UINT16>(1u << f.bitDepth);
        palette->PaletteType = TWPA_RGB;
        for (unsigned i = 0; i < palette->NumColors; ++i) {
            unsigned r, g, b;
            ExpectedPaletteEntry(f.bitDepth, static_cast<int>(i), r, g, b);
            palette->Colors[i] = TW_ELEMENT8{static_cast<TW_UINT8>(i), static_cast<TW_UINT8>(r),
                                             static_cast<TW_UINT8>(g), static_cast<TW_UINT8>(b)};
        }
        return TWRC_SUCCESS;
    }
    if (dg == DG_CONTROL && dat == DAT_CAPABILITY)
        return AnswerCapability(s, msg, *static_cast<TW_CAPABILITY *>(data));
    if (dg == DG_CONTROL && dat == DAT_PENDINGXFERS && (msg == MSG_ENDXFER || msg == MSG_RESET)) {
        (msg == MSG_ENDXFER ? s.endXfers : s.resets)++;
        static_cast<TW_PENDINGXFERS *>(data)->Count = 0;
        return TWRC_SUCCESS;
    }
    if (dg == DG_CONTROL && dat == DAT_USERINTERFACE && msg == MSG_DISABLEDS) {
        ++s.disables;
        return TWRC_SUCCESS;
    }
    if (dg == DG_CONTROL && dat == DAT_IDENTITY && msg == MSG_CLOSEDS) {
        ++s.closes;
        return TWRC_SUCCESS;
    }
    if (dg == DG_CONTROL && dat == DAT_PARENT && msg == MSG_CLOSEDSM)
        return TWRC_SUCCESS;
    if (dg == DG_CONTROL && dat == DAT_STATUS && msg == MSG_GET) {
        static_cast<TW_STATUS *>(data)->ConditionCode = s.conditionCode;
        return TWRC_SUCCESS;
    }
    s.unexpected.push_back(std::to_string(dg) + "/" + std::to_string(dat) + "/" + std::to_string(msg));
    return OwnSourceFails(s, TWCC_BADPROTOCOL);
}

// Bands of `bandRows` rows, each cut into two tiles at column 48 (a whole byte for every depth), visited in a scrambled
// order: band i*7 mod n, the right tile before the left one.
std::vector<StripPlan> ScrambledTiles(int width, int height, unsigned bandRows) {
    const unsigned bands = (static_cast<unsigned>(height) + bandRows - 1) / bandRows;
    constexpr unsigned kSplit = 48;
    std::vector<StripPlan> plan;
    for (unsigned i = 0; i < bands; ++i) {
        const unsigned band = (i * 7) % bands;
        const unsigned top = band * bandRows;
        const unsigned rows = std::min(bandRows, static_cast<unsigned>(height) - top);
        plan.push_back(StripPlan{-1, kSplit, top, static_cast<unsigned>(width) - kSplit, rows});
        plan.push_back(StripPlan{-1, 0, top, kSplit, rows});
    }
    return plan;
}

// The red, green and blue planes in this order, each beginning with its top band (which starts the plane), its other
// bands scrambled as above.
std::vector<StripPlan> ScrambledPlanes(int width, int height, unsigned bandRows) {
    const unsigned bands = (static_cast<unsigned>(height) + bandRows - 1) / bandRows;
    std::vector<StripPlan> plan;
    for (int plane = 0; plane < 3; ++plane)
        for (unsigned i = 0; i < bands; ++i) {
            const unsigned band = (i * 7) % bands;
            const unsigned top = band * bandRows;
            const unsigned rows = std::min(bandRows, static_cast<unsigned>(height) - top);
            plan.push_back(StripPlan{plane, 0, top, static_cast<unsigned>(width), rows});
        }
    return plan;
}

struct OrderCase {
    const char *name;
    Format format;
};

void PrintTo(const OrderCase &c, std::ostream *os) {
    *os << c.name;
}

class ScanToFileStripOrderTest : public ::testing::TestWithParam<OrderCase> {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(0, 0);
        module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr));
        ASSERT_TRUE(module->dsmEntry) << "the module loads the stand-in source manager";
        directory = FreshDirectory("smk_stf_");
        app.onScanToFileGetName = [this](const Notice &, char *name) {
            path = directory + PageFileName(1);
            lstrcpynA(name, path.c_str(), 256);
        };
        ownSource = &source;
    }
    void TearDown() override {
        ownSource = nullptr;
        // Nothing was opened in the stand-in: the module leaves with the source manager merely loaded, and frees it.
        module->sessionState = kStateDsmLoaded;
        module.reset();
        traceStream = nullptr;
        traceDepth = 0;
        RemoveTestDirectory(directory);
        ExpectTwainDllReleased();
    }
    // The module enabled on the own source in the middle of a scan to file of one image without an interface.
    void StartOnOwnSource() {
        module->dsmEntry = OwnSourceEntry;
        module->sessionState = kStateSourceEnabled;
        module->parentWindow = app.Handle();
        module->scanToFileActive = TRUE;
        module->transferMechanism = kMechMemory;
        module->scanToFileState = OneImage(PixelTypeCodeOf(source.format));
    }

    NotificationWindow app;
    std::unique_ptr<TScanModule> module;
    OwnSource source;
    std::string directory;
    std::string path;
};

TEST_P(ScanToFileStripOrderTest, StripsLandAtTheirOffsetsInAnyOrder) {
    const Format f = GetParam().format;
    constexpr unsigned kBandRows = 9;
    source.format = f;
    source.strips = f.planar ? ScrambledPlanes(source.width, source.height, kBandRows)
                             : ScrambledTiles(source.width, source.height, kBandRows);
    source.maxBufSize = kBandRows * MemoryRowBytes(f, source.width);
    planePass = 2; // as the library starts: the first plane is red
    StartOnOwnSource();

    module->ZephraScanDoMemXfer();

    EXPECT_EQ(WrittenPages(1), ScanToFileOutline(app));
    EXPECT_EQ(source.strips.size(), source.next) << "every strip taken";
    EXPECT_EQ(Strings{}, source.stripFaults);
    EXPECT_EQ(Strings{}, source.unexpected) << "triplets the memory transfer into a file does not need";
    EXPECT_EQ(1, source.endXfers);
    EXPECT_EQ(1, source.resets);
    EXPECT_EQ(1, source.disables);
    EXPECT_EQ(1, source.closes);
    EXPECT_EQ(PageFileNames(1), DirectoryEntries(directory));
    EXPECT_TRUE(SameBitmapFile(ModuleBitmapFile(f, source.width, source.height, 1), ReadFileBytes(path))) << path;
}

INSTANTIATE_TEST_SUITE_P(Formats, ScanToFileStripOrderTest,
                         ::testing::Values(OrderCase{"BW1", MakeFormat(TWPT_BW, 1)},
                                           OrderCase{"Gray8", MakeFormat(TWPT_GRAY, 8)},
                                           OrderCase{"Palette4", MakeFormat(TWPT_PALETTE, 4)},
                                           OrderCase{"Palette8", MakeFormat(TWPT_PALETTE, 8)},
                                           OrderCase{"RGB24", MakeFormat(TWPT_RGB, 24)},
                                           OrderCase{"PlanarRGB24", MakeFormat(TWPT_RGB, 24, true)}),
                         [](const ::testing::TestParamInfo<OrderCase> &info) { return std::string(info.param.name); });

} // namespace
