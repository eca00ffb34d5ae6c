// The measured runs: the library's ways of scanning a page and the direct baseline's, each timed from opening the
// source to closing it.
#pragma once

#include <windows.h>

#include <string>

#include "Bench.h"
#include "Direct.h"
#include "Library.h"
#include "vscan.h"

namespace bench {

enum class Variant {
    ScanToFileMemory, // smZephraScan, the source's memory transfers
    ScanToFileNative, // smZephraScan, native transfers (the source offers no other)
    ScanToFileFile,   // smZephraScan, file transfers (the source offers no other)
    AppMemory,        // smIsDSEvent's memory transfer, the application writing each block to a bitmap file
    ReadBlock,        // smReadBlock pulling the page into one buffer
    DirectMaximum,    // the baseline: DSM_Entry, the maximum buffer, each strip written once into a bitmap file
    DirectPreferred,  // the same with the preferred buffer
    DirectRowByRow,   // DSM_Entry, the maximum buffer, the file written with the library's file calls
    DirectBuffer,     // DSM_Entry, the preferred buffer, each strip copied into one page buffer
    SourceMaximum,    // the source alone: strips of the maximum size into a buffer kept from run to run, nothing done
    SourcePreferred,  // the same with the preferred size
    Count
};

struct VariantInfo {
    Variant variant;
    const char *label;
    Variant baseline; // Variant::Count: none
    // The run's transfer buffer: the source's maximum or preferred size.
    BufferSize buffer;
};
const VariantInfo &InfoOf(Variant variant);
// Whether the variant can scan the format: smReadBlock copies rows of 3 bytes a pixel for RGB and of 1 byte for any
// other type, so it takes only chunky RGB and 8-bit gray.
bool Applies(Variant variant, const PageFormat &format);

// Everything a run needs: the application window, the scanner's controls, the direct session and the library.
class Runner {
public:
    // Creates the window, loads the source manager and the scanner's controls; `outDir` takes the files.
    explicit Runner(const std::string &outDir);
    ~Runner();

    // One run of the variant; its time in seconds.
    double Run(Variant variant, const Scan &scan);
    // The bitmap file a run of the variant writes (empty: none).
    std::string FileOf(Variant variant, const Scan &scan) const;
    // The page a ReadBlock or DirectBuffer run filled last.
    const std::vector<BYTE> &PageBuffer() const { return page_; }
    // Makes the page buffer as large as the scan needs and touches it, so that it is part of the idle figure.
    void PreparePageBuffer(const Scan &scan);
    // The source's buffer sizes for the scan (DAT_SETUPMEMXFER).
    TW_SETUPMEMXFER BufferSizes(const Scan &scan);
    bool StandInManager() { return direct_.IsStandIn(); }
    // The scanner's RepeatRows switch (rows rendered once per image and copied).
    void RepeatRows(int rows);
    // `calls` smGetXResolution, then as many smSetXResolution, on the source opened through a freshly loaded library;
    // seconds a call of each.
    void LibraryCalls(int calls, double &get, double &set);
    // The same triplets through DSM_Entry in a session of our own.
    void DirectCalls(int calls, double &get, double &set);

private:
    double ScanToFile(const Scan &scan, TW_UINT16 mechanism, const std::string &file);
    double AppMemory(const Scan &scan, const std::string &file);
    double ReadBlock(const Scan &scan);
    double DirectRun(const Scan &scan, BufferSize size, StripSink &sink, std::vector<BYTE> *kept = nullptr);
    // The source offers only `mechanism` (VscanSetValues on ICAP_XFERMECH), or all of its own.
    static constexpr int kAllMechanisms = -1;
    void OfferOnly(int mechanism);
    // The format, resolution and Letter paper through the library's exports, on the open source.
    void NegotiateThroughLibrary(const Scan &scan);
    // ICAP_PLANARCHUNKY through smCapNegotiate.
    void SetPlanar(bool planar);
    // Passes every message through smIsDSEvent until `done` is set (the benchmark stops after two minutes); with
    // `untilEvent`, also returns once smIsDSEvent has taken a message of the source.
    void PumpLibrary(const bool &done, bool untilEvent = false);

    std::string outDir_;
    HWND window_ = nullptr;
    DirectSession direct_;
    ScanLibrary library_;
    HMODULE scanner_ = nullptr;
    VscanSetFaultProc setFault_ = nullptr;
    VscanSetValuesProc setValues_ = nullptr;
    std::vector<BYTE> page_;
    // The bitmap writers' rows in file order, and the source-alone runs' buffer, kept from image to image.
    std::vector<BYTE> scratch_;
    std::vector<BYTE> sourceBuffer_;
};

} // namespace bench
