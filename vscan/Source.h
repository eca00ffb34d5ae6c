// The virtual scanner's state: session, capabilities, frame, batch, transfer in progress, interface and switches.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "Page.h"
#include "vscan.h"

namespace vscan {

// Negotiated values of one capability; scalar capabilities keep one value in `current`.
struct CapState {
    std::vector<double> current;
    std::vector<double> allowed; // a constraint set with an enumeration; empty when none
};

// How a capability answers: container per message (MSG_GET, GETCURRENT, GETDEFAULT, RESET) and item type.
struct CapAnswer {
    TW_UINT16 container[4];
    TW_UINT16 itemType;         // TWON_DONTCARE16: the capability's own
    int malformed[4];           // VSCAN_MALFORMED_... per message, as container[]
    TW_UINT16 setType;          // the item type MSG_SET takes; TWON_DONTCARE16: the capability's own
    std::vector<double> values; // VscanSetValues: listed in place of the capability's own; empty: its own
};

// A triplet switched to answer a fixed return code.
struct TripletFault {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 cap;
    TW_UINT16 rc;
    TW_UINT16 cc;
    int first;
    int count;
    int calls; // calls of this triplet seen since the switch
};

// The frame, always kept in inches whatever ICAP_UNITS says.
struct Frame {
    double left, top, right, bottom;
};

// The image at the head of the batch: its format, and how far its transfer has come.
struct Transfer {
    bool started = false; // a transfer triplet took it (state 7)
    bool done = false;    // all of it delivered (TWRC_XFERDONE)
    PageFormat format;
    int plane = 0;   // memory transfers of planar images: 0 red, 1 green, 2 blue
    int nextRow = 0; // next row of the plane to deliver
    int blocks = 0;  // memory blocks delivered so far
    ImageRows rows;  // the rows memory transfers deliver
};

struct Source {
    int state = VSCAN_STATE_CLOSED;
    TW_IDENTITY identity{};
    TW_IDENTITY app{};
    TW_UINT16 lastCc = TWCC_SUCCESS;

    std::map<TW_UINT16, CapState> caps;
    std::map<TW_UINT16, CapAnswer> answers;
    Frame frame{};
    TW_SETUPFILEXFER fileXfer{};

    int pages = 0;                // sheets loaded into the feeder by VscanSetPages
    int sheetsLeft = 0;           // sheets not yet transferred
    std::deque<int> batch;        // page numbers of the images announced and not yet ended
    bool batchFromFeeder = false; // ending an image takes a sheet out of the feeder
    int imagesStarted = 0;        // since MSG_OPENDS
    int imagesDone = 0;           // since MSG_OPENDS
    Transfer xfer;

    // User interface and event delivery.
    bool showUi = false;
    bool uiOnly = false;
    bool modalUi = false;     // TW_USERINTERFACE.ModalUI
    bool modalParent = false; // we disabled the parent window
    HWND parent = nullptr;
    DWORD thread = 0;
    HWND window = nullptr;
    std::deque<TW_UINT16> events; // MSG_XFERREADY / MSG_CLOSEDSREQ / MSG_CLOSEDSOK waiting for MSG_PROCESSEVENT
    TW_UINT16 againToken = 0;     // the MSG_XFERREADY announced again after MSG_ENDXFER and not yet taken; 0: none
    bool closeRequested = false;  // MSG_CLOSEDSREQ announced since MSG_ENABLEDS
    int autoScan = VSCAN_AUTO_OFF;

    // Switches.
    std::vector<TripletFault> tripletFaults;
    int faults[VSCAN_FAULT_COUNT] = {};
    int settingsKeys = -1;
};

// Copies a C string into a fixed-size field, cut to fit and padded with zeros.
void CopyText(char *to, size_t size, const char *from);
// Records the condition code a failure leaves and answers TWRC_FAILURE.
TW_UINT16 Fail(TW_UINT16 &cc, TW_UINT16 code);
// What DAT_SETUPFILEXFER starts with: a BMP file named TWAIN.TMP.
TW_SETUPFILEXFER DefaultFileXfer();

// The one source of this module.
Source &TheSource();
HINSTANCE ModuleInstance();

// Defaults of everything but the switches (called by reset and when opening).
void ResetNegotiation(Source &s);
// Back to the loaded state with defaults and no switches, then vscan.ini applied.
void ResetAll(Source &s);

// Announcing events to the application: queue it and post the notice message, the event in the low word of its
// lParam.
UINT NotifyMessage();
constexpr WPARAM kNotifyTag = 0x5653; // "VS" in the notice's wParam
void Announce(Source &s, TW_UINT16 event);
// MSG_XFERREADY once more, in state 6 after an image ended (XFERREADYEACH): not queued, the notice carries a token of
// its own in the high word of its lParam, and only the latest token is answered, while images are still pending.
void AnnounceXferReadyAgain(Source &s);
// MSG_CLOSEDSREQ, announced once per MSG_ENABLEDS however many reasons come (Close, the fault, the automatic mode).
void RequestClose(Source &s);

// The batch: images announced by a scan, per the feeder, ICAP_IMAGEDATASET and CAP_XFERCOUNT.
void StartBatch(Source &s);
// The image at the head of the batch ended (transferred, cancelled or skipped); false when there was none.
bool EndImage(Source &s);
// The feeder when the source is opened: refilled with its pages, or, with KEEPFEEDER on, the sheets that the feeder
// file keeps (the file written when there is none).
void FillFeeder(Source &s);
// The sheets left changed: with KEEPFEEDER on, the feeder file says so.
void KeepFeeder(const Source &s);
// The images left in the batch as the application counts them: none before the transfer is announced (state 6).
int PendingCount(const Source &s);
// The format the next image gets from the negotiated values, with the page at the head of the batch.
PageFormat NegotiatedFormat(const Source &s);
// Bytes of a row (of a plane, for planar images) in memory transfers: MemoryBytesPerRow, padded to a multiple of the
// ROWALIGN fault's bytes when it is above 1.
uint32_t StripBytesPerRow(const Source &s, const PageFormat &f);
double XResolution(const Source &s);
double YResolution(const Source &s);

} // namespace vscan
