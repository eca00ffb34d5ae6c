// What an acquisition of the virtual scanner's small page must bring the application, mechanism by mechanism and
// format by format: the notifications and their records, the pixels, and who owns which global memory afterwards.
// Shared by the suites that acquire through the stand-in source manager and through Wine's own; the memory-block
// checks serve the memory-transfer suites too.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "GlobalMemoryTracker.h"
#include "Notifications.h"
#include "TestSupport.h"
#include "VscanSupport.h"

namespace smtest {

// How the application takes the bitmaps of a native transfer.
enum class TakeBitmap {
    AtEnd,   // reads *(HGLOBAL *)xferTarget while it handles XferEnd
    OwnSlot, // points xferTarget at an HGLOBAL of its own (one per page) while it handles XferStart
};

// One acquisition of the matrix.
struct AcquireCase {
    LONG mechanism = SM_XFER_NATIVE;
    std::string formatName; // "RGB24", "PlanarRGB24", ...
    Format format;
    int pages = 1; // above 1 from the feeder
    TakeBitmap take = TakeBitmap::AtEnd;
    // "Native_RGB24_3Pages_OwnSlot"
    std::string Name() const;
};
void PrintTo(const AcquireCase &c, std::ostream *os);
std::string AcquireCaseName(const ::testing::TestParamInfo<AcquireCase> &info);

// The formats the virtual scanner offers for a mechanism, named: planar RGB only where it stays planar (memory).
std::vector<std::pair<std::string, Format>> ScannerFormats(LONG mechanism);
// Every mechanism x every format x `pageCounts`; native transfers once for each way of taking the bitmaps.
std::vector<AcquireCase> AcquireMatrix(const std::vector<int> &pageCounts = {1, 3});

// The application's side of an acquisition, as reactions of its notification window: it names a file per image
// (file transfers) or lends a handle slot per image (native transfers taken in their own slot). The files are
// deleted before and after.
class AcquiringApplication {
public:
    // `stem` tells the suites apart: they may run at the same time in different prefixes.
    AcquiringApplication(NotificationWindow &window, const AcquireCase &c, const std::string &stem);
    ~AcquiringApplication();
    AcquiringApplication(const AcquiringApplication &) = delete;
    AcquiringApplication &operator=(const AcquiringApplication &) = delete;

    const std::vector<std::string> &Files() const { return files_; }
    const std::vector<HGLOBAL> &Slots() const { return slots_; }
    void DeleteFiles() const;

private:
    NotificationWindow &window_;
    std::vector<std::string> files_;
    std::vector<HGLOBAL> slots_;
    int started_ = 0;
};

// --- Memory blocks as the application receives them.

// How the bytes of a memory block are laid out.
enum class Swaps {
    None,   // as the scanner sent them: samples in R, G, B order, 16-bit samples little-endian
    Module, // turned around in place by the module where ModuleSwaps says so: each pixel's bytes reversed
};
// Whether the module turns the pixels of a format around in place: chunky RGB of 24 bits (then B, G, R) or 48 bits
// (blue first, each sample high byte first) and 16-bit gray (high byte first).
bool ModuleSwaps(const Format &f);
// Whether row `y` of page `page` (`width` x `height` pixels), `bytesPerRow` bytes at `row`, holds the page's pixels
// (of `plane`, -1 for chunky rows) laid out as `swaps` says, followed by the scanner's padding up to `bytesPerRow`.
::testing::AssertionResult RowCarriesPage(const unsigned char *row, DWORD bytesPerRow, const Format &f, int width,
                                          int height, int page, int y, int plane, Swaps swaps);
// Whether the blocks of one image (its XferData notices in order), each placed at its yOffset less `yOffsetDelta`,
// carry page `page` of `width` x `height` pixels exactly once, every row as RowCarriesPage says. A block holds the
// rows its bytesWritten holds; planar blocks go plane after plane, the yOffset starting again at 0.
::testing::AssertionResult BlocksCarryPage(const std::vector<Notice> &blocks, const Format &f, int width, int height,
                                           int page, Swaps swaps, long yOffsetDelta = 0);
// The notices of one kind, in order.
std::vector<Notice> NoticesOf(const std::vector<Notice> &notices, NoticeKind kind);
// The XferData notices of each image, image after image (an image begins with its XferStart).
std::vector<std::vector<Notice>> BlocksByImage(const std::vector<Notice> &notices);

// --- A whole acquisition.

// The notices in order: per image XferStart, (memory) one XferData per block, XferEnd(0); then one CloseDSReq. Their
// wParams, records, and (memory) the remaining count during XferEnd.
void ExpectNotices(const AcquireCase &c, const std::vector<Notice> &notices, const AcquiringApplication &application);
// The pixels of every page as the page formula says, in the layout of the mechanism.
void ExpectPages(const AcquireCase &c, const std::vector<Notice> &notices, const AcquiringApplication &application);
// The module's warnings during the acquisition (none, but for the one the native transfer writes on its success path
// for every image) and its one record of the close request at the end, all from the transfers' source file.
void ExpectTransferRecords(const AcquireCase &c, const std::vector<TraceLine> &records);
// For the failure message of an acquisition that never ended: a note when CV_Scan.INI beside the test program keeps
// smIsDSEvent from transferring ([Settings] SuppressTWAIN=2, which suites of the block reader write), else "".
std::string SuppressionNote();
// The bitmaps the application received (XferEnd(0) of a native transfer, the handle at the target), in page order.
std::vector<HGLOBAL> ReceivedBitmaps(const std::vector<Notice> &notices);
// With the tracker following the module, the source and the test program since before the acquisition: what is live
// is exactly the bitmaps the application received (nothing of the module's), and nothing was freed twice.
void ExpectOnlyBitmapsLive(const GlobalMemoryTracker &tracker, const std::vector<HGLOBAL> &bitmaps);
// Has the tracker follow the global memory of the module and of the source (the bitmaps among it) and the frees of
// the test program (the application's).
void TrackAcquisitionMemory(GlobalMemoryTracker &tracker, HMODULE module, HMODULE source);
// Success when the acquisition ended (the application's loop saw the close request), else the notices that came.
::testing::AssertionResult AcquisitionEnded(bool ended, const NotificationWindow &app);
// Acquires `c` by `acquire` (true when the application's loop saw the close request) with an AcquiringApplication
// (its files named after `stem`) and the tracker begun just before, then expects everything the acquisition must have
// brought: the notices and their records, the pages, the module's records, the source back in state 5 with every
// page done, and the memory: nothing of the module's is left, and the bitmaps are the application's until it frees
// them, once, as this does; the window then forgets the notices, so that nothing frees the bitmaps again.
void AcquireAndExpect(const AcquireCase &c, const std::string &stem, NotificationWindow &app,
                      GlobalMemoryTracker &tracker, const std::function<bool()> &acquire, const TraceViewer &viewer,
                      const VscanLibrary &scanner);

} // namespace smtest
