// Test support for the virtual scanner: installing it, loading it, containers, and the expected test page.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "twain1x.h"
#include "vscan.h"

namespace smtest {

// bin\vscan.ds, where the build puts the source.
std::string VscanBuildPath();
// The source manager's directory of sources in the test prefix (C:\windows\twain_32).
std::string TwainSourceDir();
// <windows>\<relativePath>, its directories made.
std::string MakeWindowsPath(const std::string &relativePath);
// Installs a data source the build made (bin\vscan.ds unless `binary` names another) as <windows>\<relativePath>,
// making its directories; the full path of the copy, or "" when copying failed. The virtual scanner goes to
// twain_32\vscan.ds for the stand-in source manager (which finds any .ds under twain_32), and to twain_32\sane.ds
// for Wine's own, which loads no other name.
std::string InstallSource(const std::string &relativePath, const char *binary = "vscan.ds");
// The virtual scanner as twain_32\<name>: vscan.ds for the stand-in, sane.ds for Wine's source manager.
std::string InstallVscan(const std::string &name = "vscan.ds");
void UninstallVscan(const std::string &name = "vscan.ds");
// Wine's source manager loads a source on every MSG_OPENDS and never frees it on MSG_CLOSEDS. Called once the manager
// itself is freed, this releases the references it kept to twain_32\<name>, so that the next test of the same program
// can replace the file and gets a fresh source.
void ReleaseSourceKeptByWine(const std::string &name = "sane.ds");
class ScanLibrary;
class TraceViewer;
// The start of a suite behind Wine's source manager: the scanner installed as twain_32\sane.ds (its path in `source`),
// tracing on with `viewer` running, and `library` loaded, which must have found Wine's manager, not the stand-in.
void StartUnderWineManager(TraceViewer &viewer, ScanLibrary &library, std::string &source);

// --- The expected test page, computed from the formula in the README, independently of the source.

struct Rgb16 {
    unsigned r, g, b;
};
Rgb16 ExpectedPixel(int width, int height, int page, int x, int y);

// An image format as a test describes it.
struct Format {
    int pixelType = TWPT_RGB;
    int bitDepth = 24;
    bool planar = false;
    int threshold = 128;
    bool vanilla = false; // TWPF_VANILLA: black-and-white bits and gray samples inverted, palette indexes not
    int repeatRows = 0;   // RepeatRows N: row y of an image of height H shows page row (H - N) / 2 + y mod N (N < H)
};
// `bitDepth` bits a pixel of `pixelType` (TWPT_*), chunky unless `planar`.
Format MakeFormat(int pixelType, int bitDepth, bool planar = false);
// Bytes of a row of `width` pixels in a memory transfer, unpadded: one plane's samples for planar RGB.
unsigned MemoryRowBytes(const Format &f, int width);
// Channels of the pixel (x, y) of the image as a transfer must deliver it: {bit} for black and white, {index} for
// palette images, {gray} for gray, {r, g, b} for RGB (8-bit formats keep the high byte of each 16-bit value). Row y is
// the page's row y unless the format repeats rows.
std::vector<unsigned> ExpectedSamples(const Format &f, int width, int height, int page, int x, int y);
// The colour of palette entry `index` of a 2^depth palette: (L, 255 - L, L / 2) with L = index * 255 / (n - 1).
void ExpectedPaletteEntry(int depth, int index, unsigned &r, unsigned &g, unsigned &b);

// Reads pixel `x` of a row in memory-transfer layout (samples in RGB order, 16-bit little-endian); `plane` >= 0
// reads one channel of a planar row.
std::vector<unsigned> ReadSamples(const Format &f, const unsigned char *row, int x, int plane = -1);

// The first pixel (x, y) of rows [top, top + rows) of page `page` (`width` x `height` pixels) whose samples, as
// `read(x, y)` gives them, differ from the formula's (its channel `plane` alone when `plane` >= 0), or success.
::testing::AssertionResult PixelsMatch(const Format &f, int width, int height, int page, int top, int rows, int plane,
                                       const std::function<std::vector<unsigned>(int x, int y)> &read);
// The first pixel of rows [y, y + rows) of a memory strip, the rows `stride` bytes apart from `strip` on and in the
// memory-transfer layout (one plane's samples when `plane` >= 0), that differs from page `page`, or success.
::testing::AssertionResult StripRowsMatch(const Format &f, const unsigned char *strip, unsigned stride, int width,
                                          int height, int page, int y, unsigned rows, int plane = -1);

// --- Capability containers.

struct Container {
    TW_UINT16 conType = 0;
    TW_UINT16 itemType = 0;
    std::vector<double> items; // one value: 1 item; enumeration and array: the list; range: min, max, step, def, cur
    TW_UINT32 numItems = 0;
    TW_UINT32 currentIndex = 0;
    TW_UINT32 defaultIndex = 0;
    double Value() const { return items.empty() ? -12345 : items.front(); }
};
// Reads and frees the container of a capability answer.
Container TakeContainer(TW_CAPABILITY &cap);
HGLOBAL MakeOneValue(TW_UINT16 itemType, double value);

HGLOBAL MakeEnumeration(TW_UINT16 itemType, const std::vector<double> &items, TW_UINT32 current, TW_UINT32 def = 0);
HGLOBAL MakeArray(TW_UINT16 itemType, const std::vector<double> &items);
HGLOBAL MakeRange(TW_UINT16 itemType, double min, double max, double step, double def, double cur);
double Fix32ToDouble(TW_FIX32 value);
TW_FIX32 DoubleToFix32(double value);
const char *ConName(unsigned conType);

// What an application's message loop does for a source: every message goes to `processEvent` (a
// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT call), those not for the source are dispatched, until the
// source answers with a message (MSG_XFERREADY, MSG_CLOSEDSREQ...) or `ms` milliseconds pass (MSG_NULL).
TW_UINT16 WaitForSourceMessage(const std::function<TW_UINT16(TW_EVENT &)> &processEvent, DWORD ms);

// --- The source, loaded from the bin directory and driven through DS_Entry.

class VscanLibrary {
public:
    ~VscanLibrary() { Free(); }
    // LoadLibrary of `path` (bin\vscan.ds by default) and the controls; false when something is missing.
    bool Load(const std::string &path = "");
    void Free();
    HMODULE Module() const { return module_; }

    TW_UINT16 Call(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data);
    // DG_CONTROL / DAT_STATUS / MSG_GET: the condition code.
    TW_UINT16 Status();
    // MSG_OPENDS with a test application identity; the source's identity lands in `ds`.
    TW_UINT16 Open();
    // MSG_ENABLEDS; `showUi` false announces at once.
    TW_UINT16 Enable(bool showUi, HWND parent = nullptr, TW_UINT16 msg = MSG_ENABLEDS);
    // Capability helpers: a get-like message, and sets with one value.
    TW_UINT16 GetCap(TW_UINT16 cap, TW_UINT16 msg, Container &out);
    TW_UINT16 SetCap(TW_UINT16 cap, TW_UINT16 itemType, double value);
    TW_UINT16 SetCapContainer(TW_UINT16 cap, TW_UINT16 conType, HGLOBAL container);
    // The frame in inches (units must be inches).
    TW_UINT16 SetFrame(double left, double top, double right, double bottom);
    // DG_CONTROL / DAT_SETUPMEMXFER / MSG_GET: the three sizes, 1 each when the source did not answer TWRC_SUCCESS
    // (a failure of the running test).
    TW_SETUPMEMXFER SetupMem();
    // DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET of one strip into all of `buffer`, lent by pointer; the strip in `mx`.
    TW_UINT16 Strip(std::vector<unsigned char> &buffer, TW_IMAGEMEMXFER &mx);
    // Runs the message loop through MSG_PROCESSEVENT until the source reports an event, for at most `ms`;
    // MSG_NULL when none came.
    TW_UINT16 WaitEvent(DWORD ms = 2000);
    VscanInfo Info() const;

    TW_IDENTITY app{};
    TW_IDENTITY ds{};
    DSENTRYPROC entry = nullptr;
    VscanResetProc reset = nullptr;
    VscanLoadSettingsProc loadSettings = nullptr;
    VscanSetPagesProc setPages = nullptr;
    VscanSetAutoScanProc setAutoScan = nullptr;
    VscanSetIdentityProc setIdentity = nullptr;
    VscanFailTripletProc failTriplet = nullptr;
    VscanSetContainerProc setContainer = nullptr;
    VscanSetItemTypeProc setItemType = nullptr;
    VscanSetFaultProc setFault = nullptr;
    VscanGetInfoProc getInfo = nullptr;
    VscanSetMalformedProc setMalformed = nullptr;
    VscanSetSetTypeProc setSetType = nullptr;
    VscanSetValuesProc setValues = nullptr;

private:
    HMODULE module_ = nullptr;
};

class ScanLibrary;
// MSG_SET of one value through the module's own smCapNegotiate on the open source; its return code.
TW_UINT16 SetOneValueThroughModule(const ScanLibrary &library, TW_UINT16 cap, TW_UINT16 itemType, double value);
// Through the module's exports, on the open source: transfers by `mechanism` (SM_XFER_*) of the small page (50 dpi
// scaled by a quarter) in `format`; `pages` above 1 are that many sheets of the feeder, which is enabled.
void SetUpSmallPage(const ScanLibrary &library, VscanLibrary &scanner, LONG mechanism, const Format &format, int pages);

// A packed DIB's parts, for checks of native transfers and BMP files.
struct Dib {
    BITMAPINFOHEADER header{};
    std::vector<RGBQUAD> colours;
    std::vector<unsigned char> bits;
    unsigned stride = 0;
    // Row y of the image counted from the top (bottom-up DIBs keep it at height - 1 - y).
    const unsigned char *Row(int y) const;
};
// Parses a packed DIB; false when its sizes do not add up.
bool ParseDib(const unsigned char *data, size_t size, Dib &out);
// Parses the packed DIB behind a global memory handle, which stays allocated.
::testing::AssertionResult ReadPackedDib(HGLOBAL handle, Dib &out);
// A native transfer's bitmap: parses the packed DIB behind the handle DAT_IMAGENATIVEXFER left in a TW_UINT32, then
// frees it as the application must.
::testing::AssertionResult TakePackedDib(TW_UINT32 handle, Dib &out);
// Reads a BMP file: its BITMAPFILEHEADER ("BM", the size of the file, the offset of the bits behind the colour table)
// and the packed DIB behind it. Fatal failures when there is no such file or no bitmap in it.
void ReadBmpFile(const std::string &path, Dib &out);

// The first pixel of a bitmap (rows top-down as Dib::Row gives them, RGB stored blue first) that differs from page
// `page` of `width` x `height` pixels, or success.
::testing::AssertionResult DibMatches(const Format &f, const Dib &dib, int width, int height, int page);
// The colour table a bitmap of a format carries: black and white in the order of the bits (white first for
// TWPF_VANILLA), the gray ramp (from white for TWPF_VANILLA), the scanner's palette; none for 16-bit gray and RGB.
void ExpectColourTable(const Format &f, const Dib &dib);
// A bitmap of page `page`: bottom-up, `width` x `height`, one plane, the format's bits a pixel, uncompressed, with the
// format's colour table and the page's pixels.
void ExpectDib(const Format &f, const Dib &dib, int width, int height, int page);

} // namespace smtest
