// The direct baseline: the source manager and the virtual scanner driven through DSM_Entry by the benchmark itself.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "Bench.h"
#include "twain1x.h"

namespace bench {

// Where the strips of a memory transfer go.
class StripSink {
public:
    virtual ~StripSink() = default;
    virtual void Begin(const TW_IMAGEINFO &) {}
    // One strip in `data`, as the source delivered it; the sink may change the bytes in place.
    virtual void Strip(const TW_IMAGEMEMXFER &strip, BYTE *data) = 0;
    virtual void End() {}
};

// Which of the source's sizes a memory transfer's buffer has: the library's scan to file takes the maximum, the
// memory transfer of smIsDSEvent and smReadBlock the preferred one.
enum class BufferSize { Maximum, Preferred };

// A session of our own with the source manager in the Windows directory (TWAIN_32.DLL, the one the library loads) and
// its default source, as an application without the library runs it.
class DirectSession {
public:
    ~DirectSession() { Unload(); }
    // Loads TWAIN_32.DLL from the Windows directory; false when it is not there.
    bool Load();
    void Unload();
    // The stand-in source manager of the test suites, not Wine's own (or another).
    bool IsStandIn() const;
    // MSG_OPENDSM with `window`, then MSG_OPENDS of the default source (the virtual scanner, or the benchmark stops).
    void Open(HWND window);
    // MSG_CLOSEDS and MSG_CLOSEDSM.
    void Close();
    TW_UINT16 Call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data);
    // MSG_SET of a one-value; its return code.
    TW_UINT16 SetOneValue(TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item);
    // The scan's pixel type, bit depth, planar or chunky, resolution and Letter paper, and memory transfers.
    void Negotiate(const Scan &scan);
    // One image by memory transfer: enabled without the interface, the window's messages passed through
    // MSG_PROCESSEVENT until MSG_XFERREADY, the image information, then the strips in a buffer of the chosen size
    // handed to `sink`; the image ended and the source disabled. The buffer is global memory allocated for the image,
    // as the library takes it, unless `kept` is given: then that one, grown as needed and kept for the next image.
    void TransferImage(BufferSize size, StripSink &sink, std::vector<BYTE> *kept = nullptr);

    // The triplets the library's smGetXResolution sends: MSG_GET of ICAP_XRESOLUTION (current value, smallest and
    // largest item read from the enumeration) and MSG_GETCURRENT of ICAP_UNITS; false when one fails.
    bool GetXResolution(double &current, double &minimum, double &maximum);
    // The triplet smSetXResolution sends: MSG_SET of ICAP_XRESOLUTION with a FIX32 one-value.
    bool SetXResolution(double dpi);

private:
    HMODULE dsm_ = nullptr;
    DSMENTRYPROC entry_ = nullptr;
    HWND window_ = nullptr;
    TW_IDENTITY app_ = {};
    TW_IDENTITY source_ = {};
    bool open_ = false;
};

double Fix32Value(TW_FIX32 value);
TW_FIX32 ToFix32(double value);

} // namespace bench
