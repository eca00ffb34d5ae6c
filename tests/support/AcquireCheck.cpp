// The expectations of the acquisition suites: notices, records, pixels and memory of every page of the small page,
// and the pages that memory blocks carry.
#include "AcquireCheck.h"

#include <algorithm>
#include <cstring>

#include "TransferTest.h"

namespace smtest {

namespace {

// The bytes of a ScanImageInfo that a ScanBlockInfo repeats (resolutions to mechanism).
constexpr size_t kImageFieldBytes = 42;
// The virtual scanner's preferred memory buffer: as many whole rows as fit in 64 KB, one row at least. The module
// tries the preferred size first, so every block but the last of a plane holds that many rows.
constexpr DWORD kPreferredBytes = 65536;
// DAT_IMAGEINFO's resolution: the 50 dots per inch set, in inches (unit factor 1), not scaled by the quarter.
constexpr short kReportedResolution = 50;

const char *MechanismName(LONG mechanism) {
    switch (mechanism) {
    case SM_XFER_NATIVE:
        return "Native";
    case SM_XFER_FILE:
        return "File";
    case SM_XFER_MEMORY:
        return "Memory";
    default:
        return "Unknown";
    }
}

bool IsRgb(const Format &f) {
    return f.pixelType == TWPT_RGB;
}

// Bytes of a memory-transfer row of the small page as the scanner sends it.
DWORD SmallPageRowBytes(const Format &f) {
    return MemoryRowBytes(f, kSmallPageWidth);
}

int Planes(const Format &f) {
    return f.planar ? 3 : 1;
}

DWORD RowsPerBlock(const Format &f) {
    return std::max<DWORD>(1, kPreferredBytes / SmallPageRowBytes(f));
}

int BlocksPerImage(const Format &f) {
    const DWORD rows = RowsPerBlock(f);
    return Planes(f) * static_cast<int>((kSmallPageLength + rows - 1) / rows);
}

// A block's rows are a bitmap's when the bitmap row of the image (bits per pixel times width, in whole bytes, then
// whole 4-byte words) is as long as the block's row.
bool RowsAligned(const Format &f) {
    const DWORD bitmapRow = ((static_cast<DWORD>(f.bitDepth * kSmallPageWidth) + 7) / 8 + 3) & ~3u;
    return bitmapRow == SmallPageRowBytes(f);
}

// The fields of an image record (all but xferTarget).
void ExpectImageFields(const AcquireCase &c, const ScanImageInfo &r, const std::string &where) {
    SCOPED_TRACE(where);
    const Format &f = c.format;
    EXPECT_EQ(kReportedResolution, r.xResolution);
    EXPECT_EQ(kReportedResolution, r.yResolution);
    EXPECT_EQ(kSmallPageWidth, r.imageWidth);
    EXPECT_EQ(kSmallPageLength, r.imageLength);
    EXPECT_EQ(IsRgb(f) ? 3 : 1, r.samplesPerPixel);
    for (int i = 0; i < 8; ++i) {
        const int bits = IsRgb(f) ? (i < 3 ? f.bitDepth / 3 : 0) : (i == 0 ? f.bitDepth : 0);
        EXPECT_EQ(bits, r.bitsPerSample[i]) << "bitsPerSample[" << i << "]";
    }
    EXPECT_EQ(f.bitDepth, r.bitsPerPixel);
    EXPECT_EQ(c.mechanism == SM_XFER_MEMORY && f.planar ? 1 : 0, r.planar) << "only memory transfers stay planar";
    EXPECT_EQ(1 << f.pixelType, r.pixelTypeFlag);
    EXPECT_EQ(0, r.compression);
    EXPECT_EQ(c.mechanism, r.mechanism);
}

void ExpectBlock(const AcquireCase &c, const Notice &start, const Notice &data, const std::string &where) {
    SCOPED_TRACE(where);
    const ScanBlockInfo &b = data.block;
    ScanImageInfo head = {};
    std::memcpy(&head, &b, kImageFieldBytes);
    ExpectImageFields(c, head, "the image fields of the block");
    EXPECT_EQ(0, std::memcmp(&start.image, &b, kImageFieldBytes)) << "the first 42 bytes are the XferStart record's";
    EXPECT_EQ(0u, data.wParam);
    EXPECT_EQ(SmallPageRowBytes(c.format), b.bytesPerRow);
    EXPECT_EQ(static_cast<DWORD>(kSmallPageWidth), b.columns);
    EXPECT_EQ(0u, b.xOffset) << "whole rows";
    EXPECT_EQ(std::min<DWORD>(RowsPerBlock(c.format), kSmallPageLength - std::min<DWORD>(b.yOffset, kSmallPageLength)),
              b.rows)
        << "rows of the preferred buffer, the rest in the last block of a plane (yOffset " << b.yOffset << ")";
    EXPECT_EQ(b.rows * b.bytesPerRow, b.bytesWritten);
    EXPECT_EQ(RowsAligned(c.format) ? 1 : 0, b.rowsAligned);
    EXPECT_EQ(start.image.xferTarget, static_cast<void *>(b.bufferDescriptor))
        << "the block points at the descriptor that XferStart's xferTarget named";
    EXPECT_NE(nullptr, data.descriptor.address);
    EXPECT_GE(data.descriptor.size, b.bytesWritten) << "the buffer holds the block";
    EXPECT_EQ(b.bytesWritten, data.bytes.size());
}

void ExpectNativePages(const AcquireCase &c, const std::vector<Notice> &notices,
                       const AcquiringApplication &application) {
    const std::vector<HGLOBAL> bitmaps = ReceivedBitmaps(notices);
    ASSERT_EQ(static_cast<size_t>(c.pages), bitmaps.size());
    for (size_t i = 0; i < bitmaps.size(); ++i) {
        SCOPED_TRACE("bitmap of page " + std::to_string(i + 1));
        if (c.take == TakeBitmap::OwnSlot) {
            EXPECT_EQ(application.Slots()[i], bitmaps[i]) << "the handle arrived in the application's own slot";
        }
        for (size_t j = 0; j < i; ++j)
            EXPECT_NE(bitmaps[j], bitmaps[i]) << "a handle of its own for every page";
        ASSERT_NE(nullptr, bitmaps[i]);
        Dib dib;
        ASSERT_TRUE(ReadPackedDib(bitmaps[i], dib)) << "the handle must still hold the bitmap: it is the application's";
        ExpectDib(c.format, dib, kSmallPageWidth, kSmallPageLength, static_cast<int>(i) + 1);
    }
}

void ExpectFilePages(const AcquireCase &c, const std::vector<Notice> &notices,
                     const AcquiringApplication &application) {
    int page = 0;
    for (const Notice &notice : notices) {
        if (notice.kind == NoticeKind::XferEnd && page < c.pages) {
            EXPECT_EQ(application.Files()[page++], notice.fileNameAtTarget) << "the name written during XferStart";
        }
    }
    for (int i = 0; i < c.pages; ++i) {
        SCOPED_TRACE("the file of page " + std::to_string(i + 1));
        Dib dib;
        ASSERT_NO_FATAL_FAILURE(ReadBmpFile(application.Files()[i], dib));
        ExpectDib(c.format, dib, kSmallPageWidth, kSmallPageLength, i + 1);
    }
}

void ExpectMemoryPages(const AcquireCase &c, const std::vector<Notice> &notices) {
    const std::vector<std::vector<Notice>> images = BlocksByImage(notices);
    ASSERT_EQ(static_cast<size_t>(c.pages), images.size());
    for (size_t i = 0; i < images.size(); ++i) {
        SCOPED_TRACE("memory blocks of page " + std::to_string(i + 1));
        EXPECT_TRUE(BlocksCarryPage(images[i], c.format, kSmallPageWidth, kSmallPageLength, static_cast<int>(i) + 1,
                                    Swaps::Module));
    }
}

std::string Hex(unsigned char byte) {
    const char digits[] = "0123456789abcdef";
    return {digits[byte >> 4], digits[byte & 15]};
}

} // namespace

bool ModuleSwaps(const Format &f) {
    if (f.planar)
        return false;
    return (f.pixelType == TWPT_RGB && (f.bitDepth == 24 || f.bitDepth == 48)) ||
           (f.pixelType == TWPT_GRAY && f.bitDepth == 16);
}

::testing::AssertionResult RowCarriesPage(const unsigned char *row, DWORD bytesPerRow, const Format &f, int width,
                                          int height, int page, int y, int plane, Swaps swaps) {
    const DWORD pixelBytes = MemoryRowBytes(f, width);
    if (bytesPerRow < pixelBytes)
        return ::testing::AssertionFailure() << "row " << y << ": " << bytesPerRow << " bytes cannot hold " << width
                                             << " pixels of " << pixelBytes << " bytes";
    // The scanner's layout again, each pixel's bytes turned back where the module turned them.
    std::vector<unsigned char> sent(row, row + pixelBytes);
    const bool swapped = swaps == Swaps::Module && ModuleSwaps(f);
    if (swapped) {
        const size_t size = static_cast<size_t>(f.bitDepth / 8);
        for (size_t at = 0; at + size <= sent.size(); at += size)
            std::reverse(sent.begin() + at, sent.begin() + at + size);
    }
    const ::testing::AssertionResult pixels =
        StripRowsMatch(f, sent.data(), pixelBytes, width, height, page, y, 1, plane);
    if (!pixels)
        return ::testing::AssertionFailure()
               << pixels.message() << (swapped ? " (read with each pixel's bytes turned back)" : "");
    for (DWORD i = pixelBytes; i < bytesPerRow; ++i)
        if (row[i] != VSCAN_ROW_PADDING)
            return ::testing::AssertionFailure()
                   << "row " << y << ": padding byte " << i << " is " << Hex(row[i]) << ", the scanner sent a5";
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult BlocksCarryPage(const std::vector<Notice> &blocks, const Format &f, int width, int height,
                                           int page, Swaps swaps, long yOffsetDelta) {
    const int planes = f.planar ? 3 : 1;
    std::vector<int> seen(static_cast<size_t>(planes) * height, 0);
    int plane = 0;
    for (size_t b = 0; b < blocks.size(); ++b) {
        const ScanBlockInfo &block = blocks[b].block;
        const long y0 = static_cast<long>(block.yOffset) - yOffsetDelta;
        // Planar images start again at row 0 for the next plane.
        if (f.planar && b > 0 && y0 == 0)
            ++plane;
        if (plane >= planes)
            return ::testing::AssertionFailure() << "block " << b << " starts a plane after the image's last";
        if (block.bytesPerRow == 0)
            return ::testing::AssertionFailure() << "block " << b << " says 0 bytes a row";
        const DWORD rows = block.bytesWritten / block.bytesPerRow;
        if (blocks[b].bytes.size() < static_cast<size_t>(rows) * block.bytesPerRow)
            return ::testing::AssertionFailure() << "block " << b << " shows " << blocks[b].bytes.size()
                                                 << " bytes for " << rows << " rows of " << block.bytesPerRow;
        for (DWORD r = 0; r < rows; ++r) {
            const long y = y0 + static_cast<long>(r);
            if (y < 0 || y >= height)
                return ::testing::AssertionFailure() << "block " << b << " row " << r << " lies outside the image (row "
                                                     << y << ", plane " << plane << ")";
            ++seen[static_cast<size_t>(plane) * height + y];
            const ::testing::AssertionResult matches =
                RowCarriesPage(&blocks[b].bytes[static_cast<size_t>(r) * block.bytesPerRow], block.bytesPerRow, f,
                               width, height, page, static_cast<int>(y), f.planar ? plane : -1, swaps);
            if (!matches)
                return ::testing::AssertionFailure() << "block " << b << ": " << matches.message();
        }
    }
    for (size_t i = 0; i < seen.size(); ++i)
        if (seen[i] != 1)
            return ::testing::AssertionFailure()
                   << "row " << i % height << " of plane " << i / height
                   << (seen[i] ? " arrived " + std::to_string(seen[i]) + " times" : std::string(" never came"));
    return ::testing::AssertionSuccess();
}

std::vector<Notice> NoticesOf(const std::vector<Notice> &notices, NoticeKind kind) {
    std::vector<Notice> out;
    for (const Notice &notice : notices)
        if (notice.kind == kind)
            out.push_back(notice);
    return out;
}

std::vector<std::vector<Notice>> BlocksByImage(const std::vector<Notice> &notices) {
    std::vector<std::vector<Notice>> images;
    for (const Notice &notice : notices) {
        if (notice.kind == NoticeKind::XferStart)
            images.emplace_back();
        else if (notice.kind == NoticeKind::XferData && !images.empty())
            images.back().push_back(notice);
    }
    return images;
}

std::string AcquireCase::Name() const {
    std::string name = std::string(MechanismName(mechanism)) + "_" + formatName + "_" + std::to_string(pages) +
                       (pages == 1 ? "Page" : "Pages");
    if (mechanism == SM_XFER_NATIVE)
        name += take == TakeBitmap::AtEnd ? "_TakenAtEnd" : "_OwnSlot";
    return name;
}

void PrintTo(const AcquireCase &c, std::ostream *os) {
    *os << c.Name();
}

std::string AcquireCaseName(const ::testing::TestParamInfo<AcquireCase> &info) {
    return info.param.Name();
}

std::vector<std::pair<std::string, Format>> ScannerFormats(LONG mechanism) {
    std::vector<std::pair<std::string, Format>> formats = {
        {"BW1", MakeFormat(TWPT_BW, 1)},           {"Gray8", MakeFormat(TWPT_GRAY, 8)},
        {"Gray16", MakeFormat(TWPT_GRAY, 16)},     {"RGB24", MakeFormat(TWPT_RGB, 24)},
        {"RGB48", MakeFormat(TWPT_RGB, 48)},       {"Palette8", MakeFormat(TWPT_PALETTE, 8)},
        {"Palette4", MakeFormat(TWPT_PALETTE, 4)},
    };
    if (mechanism == SM_XFER_MEMORY)
        formats.push_back({"PlanarRGB24", MakeFormat(TWPT_RGB, 24, true)});
    return formats;
}

std::vector<AcquireCase> AcquireMatrix(const std::vector<int> &pageCounts) {
    std::vector<AcquireCase> cases;
    for (const LONG mechanism : {SM_XFER_NATIVE, SM_XFER_FILE, SM_XFER_MEMORY})
        for (const auto &format : ScannerFormats(mechanism))
            for (const int pages : pageCounts)
                for (const TakeBitmap take : {TakeBitmap::AtEnd, TakeBitmap::OwnSlot}) {
                    if (mechanism != SM_XFER_NATIVE && take != TakeBitmap::AtEnd)
                        continue;
                    AcquireCase c;
                    c.mechanism = mechanism;
                    c.formatName = format.first;
                    c.format = format.second;
                    c.pages = pages;
                    c.take = take;
                    cases.push_back(c);
                }
    return cases;
}

AcquiringApplication::AcquiringApplication(NotificationWindow &window, const AcquireCase &c, const std::string &stem)
    : window_(window), slots_(static_cast<size_t>(c.pages), nullptr) {
    char temp[MAX_PATH] = {};
    GetTempPathA(sizeof temp, temp);
    for (int page = 1; page <= c.pages; ++page)
        files_.push_back(std::string(temp) + stem + "_" + c.Name() + "_page" + std::to_string(page) + ".bmp");
    DeleteFiles();
    const LONG mechanism = c.mechanism;
    const TakeBitmap take = c.take;
    window_.onXferStart = [this, mechanism, take](const Notice &, ScanImageInfo *image) {
        const size_t index = static_cast<size_t>(started_++);
        if (index >= slots_.size())
            return; // more images than pages: the notice checks report it
        if (mechanism == SM_XFER_FILE && image->xferTarget)
            lstrcpynA(static_cast<char *>(image->xferTarget), files_[index].c_str(), 256);
        if (mechanism == SM_XFER_NATIVE && take == TakeBitmap::OwnSlot)
            image->xferTarget = &slots_[index];
    };
}

AcquiringApplication::~AcquiringApplication() {
    window_.onXferStart = nullptr;
    DeleteFiles();
}

void AcquiringApplication::DeleteFiles() const {
    for (const std::string &file : files_)
        DeleteFileA(file.c_str());
}

void ExpectNotices(const AcquireCase &c, const std::vector<Notice> &notices, const AcquiringApplication &application) {
    std::vector<std::string> expected;
    for (int page = 1; page <= c.pages; ++page) {
        expected.push_back("XferStart");
        if (c.mechanism == SM_XFER_MEMORY)
            expected.insert(expected.end(), static_cast<size_t>(BlocksPerImage(c.format)), "XferData");
        expected.push_back("XferEnd(0)");
    }
    expected.push_back("CloseDSReq");
    std::vector<std::string> got;
    for (const Notice &notice : notices)
        got.push_back(notice.Brief());
    EXPECT_EQ(expected, got);

    const Notice *start = nullptr;
    int page = 0;
    for (const Notice &notice : notices) {
        switch (notice.kind) {
        case NoticeKind::XferStart:
            ++page;
            EXPECT_EQ(0u, notice.wParam) << "XferStart of page " << page;
            if (start) {
                EXPECT_EQ(start->lParam, notice.lParam) << "one record per mechanism, for every image";
            }
            start = &notice;
            ExpectImageFields(c, notice.image, "XferStart of page " + std::to_string(page));
            EXPECT_NE(nullptr, notice.image.xferTarget) << "XferStart of page " << page;
            break;
        case NoticeKind::XferData:
            if (start)
                ExpectBlock(c, *start, notice, "XferData of page " + std::to_string(page));
            break;
        case NoticeKind::XferEnd: {
            if (!start)
                break;
            const std::string end = "XferEnd of page " + std::to_string(page);
            EXPECT_EQ(start->lParam, notice.lParam) << end << ": the record of XferStart";
            ExpectImageFields(c, notice.image, end);
            if (c.mechanism == SM_XFER_NATIVE && c.take == TakeBitmap::OwnSlot && page <= c.pages) {
                EXPECT_EQ(static_cast<const void *>(&application.Slots()[page - 1]), notice.image.xferTarget)
                    << end << ": the application's slot stays the target";
            } else {
                EXPECT_EQ(start->image.xferTarget, notice.image.xferTarget) << end;
            }
            if (c.mechanism == SM_XFER_MEMORY) {
                EXPECT_EQ(c.pages - page, notice.pendingCount)
                    << end << ": smGetPendingCount tells the images left after this one";
            }
            break;
        }
        case NoticeKind::CloseDSReq:
            EXPECT_EQ(0u, notice.wParam) << "CloseDSReq";
            EXPECT_EQ(0, notice.lParam) << "CloseDSReq";
            break;
        default:
            ADD_FAILURE() << "unexpected " << NoticeName(notice.kind);
            break;
        }
    }
}

void ExpectPages(const AcquireCase &c, const std::vector<Notice> &notices, const AcquiringApplication &application) {
    switch (c.mechanism) {
    case SM_XFER_NATIVE:
        ExpectNativePages(c, notices, application);
        break;
    case SM_XFER_FILE:
        ExpectFilePages(c, notices, application);
        break;
    default:
        ExpectMemoryPages(c, notices);
        break;
    }
}

std::string SuppressionNote() {
    const std::string settings = BinDir() + "\\CV_Scan.INI";
    if (GetPrivateProfileIntA("Settings", "SuppressTWAIN", 0, settings.c_str()) != 2)
        return "";
    return " (" + settings +
           " says SuppressTWAIN=2, so the module left the images pending: a file of another "
           "suite running beside this one?)";
}

std::vector<HGLOBAL> ReceivedBitmaps(const std::vector<Notice> &notices) {
    std::vector<HGLOBAL> bitmaps;
    for (const Notice &notice : notices)
        if (notice.kind == NoticeKind::XferEnd && notice.wParam == SM_OK && notice.image.mechanism == SM_XFER_NATIVE)
            bitmaps.push_back(notice.handleAtTarget);
    return bitmaps;
}

void ExpectTransferRecords(const AcquireCase &c, const std::vector<TraceLine> &records) {
    const std::string source = "F:\\smkernal\\Sm_8.cpp";
    // Both the native and the file transfer name the native one here.
    const std::string closing = c.mechanism == SM_XFER_MEMORY ? "Send SM_CLOSEDSREQ in TScanModule::DoMemXfer"
                                                              : "Send WM_CLOSEDSREQ in TScanModule::DoNativeXfer";
    std::vector<std::string> warnings;
    int closingRecords = 0;
    for (const TraceLine &record : records) {
        if (record.level == "Warning" || record.level == "Fatal")
            warnings.push_back(record.level + " " + record.source + " " + record.text);
        if (record.level == "Trace" && record.text == closing) {
            ++closingRecords;
            EXPECT_EQ(source, record.source) << record.raw;
        }
    }
    // The native transfer's success path warns once per image, as it always did.
    const std::vector<std::string> expected(c.mechanism == SM_XFER_NATIVE ? static_cast<size_t>(c.pages) : 0,
                                            "Warning " + source +
                                                " MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer");
    EXPECT_EQ(expected, warnings);
    EXPECT_EQ(1, closingRecords) << closing;
}

void ExpectOnlyBitmapsLive(const GlobalMemoryTracker &tracker, const std::vector<HGLOBAL> &bitmaps) {
    std::vector<HGLOBAL> expected = bitmaps;
    std::sort(expected.begin(), expected.end());
    std::vector<HGLOBAL> live = tracker.Live();
    std::sort(live.begin(), live.end());
    EXPECT_EQ(expected, live) << "live blocks other than the application's bitmaps: " << tracker.Describe();
    EXPECT_EQ(0, tracker.DoubleFrees()) << tracker.Describe();
}

void TrackAcquisitionMemory(GlobalMemoryTracker &tracker, HMODULE module, HMODULE source) {
    ASSERT_GE(tracker.Attach(module), 2) << "the module's GlobalAlloc and GlobalFree";
    ASSERT_GE(tracker.Attach(source), 1) << "the source's GlobalAlloc";
    ASSERT_GE(tracker.Attach(GetModuleHandleA(nullptr)), 2) << "the test program's GlobalAlloc and GlobalFree";
}

::testing::AssertionResult AcquisitionEnded(bool ended, const NotificationWindow &app) {
    if (ended)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no CloseDSReq came; the notices: "
                                         << ::testing::PrintToString(app.Briefs()) << SuppressionNote();
}

void AcquireAndExpect(const AcquireCase &c, const std::string &stem, NotificationWindow &app,
                      GlobalMemoryTracker &tracker, const std::function<bool()> &acquire, const TraceViewer &viewer,
                      const VscanLibrary &scanner) {
    AcquiringApplication application(app, c, stem);
    tracker.Begin();
    ASSERT_TRUE(AcquisitionEnded(acquire(), app));

    ExpectNotices(c, app.Notices(), application);
    ExpectPages(c, app.Notices(), application);
    ExpectTransferRecords(c, viewer.Records());
    const VscanInfo source = scanner.Info();
    EXPECT_EQ(VSCAN_STATE_ENABLED, source.state) << "every image ended at the source";
    EXPECT_EQ(c.pages, source.imagesDone);

    const std::vector<HGLOBAL> bitmaps = ReceivedBitmaps(app.Notices());
    ExpectOnlyBitmapsLive(tracker, bitmaps);
    for (HGLOBAL bitmap : bitmaps)
        EXPECT_EQ(nullptr, GlobalFree(bitmap)) << "the application frees its bitmap";
    app.Clear();
    EXPECT_EQ(std::vector<HGLOBAL>{}, tracker.Live()) << tracker.Describe();
    EXPECT_EQ(0, tracker.DoubleFrees()) << tracker.Describe();
}

} // namespace smtest
