// DS_Entry: one dispatch table of triplets with the states that allow them, the fault switches, and the control group.
#include <algorithm>
#include <cstring>

#include "Caps.h"
#include "Triplets.h"
#include "Ui.h"

namespace vscan {

namespace {

constexpr unsigned StateBit(int state) {
    return 1u << state;
}
constexpr unsigned kClosed = StateBit(VSCAN_STATE_CLOSED);
constexpr unsigned kOpen = StateBit(VSCAN_STATE_OPEN);
constexpr unsigned kEnabled = StateBit(VSCAN_STATE_ENABLED);
constexpr unsigned kReady = StateBit(VSCAN_STATE_XFERREADY);
constexpr unsigned kXferring = StateBit(VSCAN_STATE_XFERRING);
constexpr unsigned kOpened = kOpen | kEnabled | kReady | kXferring;
constexpr unsigned kAny = kClosed | kOpened;
constexpr unsigned kBeforeXfer = kOpen | kEnabled | kReady;

// A triplet the source knows, the states in which it is accepted, and whether it needs a data record.
struct Route {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    unsigned states;
    bool needsData;
    Handler handler;
};

// DG_CONTROL / DAT_IDENTITY / MSG_GET
TW_UINT16 GetIdentity(Call &call) {
    auto *id = static_cast<TW_IDENTITY *>(call.data);
    const TW_UINT32 keep = id->Id;
    *id = call.source.identity;
    id->Id = call.source.state == VSCAN_STATE_CLOSED ? keep : call.source.identity.Id;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_IDENTITY / MSG_OPENDS: the source manager has put our Id in the record.
TW_UINT16 OpenDs(Call &call) {
    Source &s = call.source;
    auto *id = static_cast<TW_IDENTITY *>(call.data);
    s.identity.Id = id->Id;
    *id = s.identity;
    if (call.origin)
        s.app = *call.origin;
    ResetNegotiation(s);
    s.state = VSCAN_STATE_OPEN;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_IDENTITY / MSG_CLOSEDS
TW_UINT16 CloseDs(Call &call) {
    call.source.state = VSCAN_STATE_CLOSED;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_STATUS / MSG_GET: the condition code of the last failure.
TW_UINT16 GetStatus(Call &call) {
    auto *status = static_cast<TW_STATUS *>(call.data);
    status->ConditionCode = call.source.lastCc;
    status->Reserved = 0;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_CAPABILITY / MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT
TW_UINT16 GetCapability(Call &call) {
    return CapGet(call.source, call.msg, *static_cast<TW_CAPABILITY *>(call.data), call.cc);
}

// DG_CONTROL / DAT_CAPABILITY / MSG_SET
TW_UINT16 SetCapability(Call &call) {
    return CapSet(call.source, *static_cast<TW_CAPABILITY *>(call.data), call.cc);
}

// DG_CONTROL / DAT_CAPABILITY / MSG_RESET
TW_UINT16 ResetCapability(Call &call) {
    return CapReset(call.source, *static_cast<TW_CAPABILITY *>(call.data), call.cc);
}

// DG_CONTROL / DAT_CAPABILITY / MSG_QUERYSUPPORT
TW_UINT16 QueryCapability(Call &call) {
    return CapQuerySupport(call.source, *static_cast<TW_CAPABILITY *>(call.data), call.cc);
}

// DG_CONTROL / DAT_USERINTERFACE / MSG_ENABLEDS: without the interface the transfer is announced at once, unless
// the close-request fault has the user cancel before any scan.
TW_UINT16 EnableDs(Call &call) {
    Source &s = call.source;
    const auto *ui = static_cast<const TW_USERINTERFACE *>(call.data);
    s.showUi = ui->ShowUI != 0;
    s.uiOnly = call.msg == MSG_ENABLEDSUIONLY;
    s.modalUi = ui->ModalUI != 0;
    s.parent = static_cast<HWND>(ui->hParent);
    s.thread = GetCurrentThreadId();
    s.events.clear();
    s.againToken = 0;
    s.batch.clear();
    s.closeRequested = false;
    const bool cancelled = s.faults[VSCAN_FAULT_CLOSEREQUESTAFTER] == 0;
    if (s.showUi || s.uiOnly) {
        if (!ShowUi(s, !cancelled))
            return Fail(call.cc, TWCC_LOWMEMORY);
    } else if (!cancelled) {
        StartBatch(s);
        if (s.batch.empty())
            return Fail(call.cc, TWCC_OPERATIONERROR); // the feeder is empty
        Announce(s, MSG_XFERREADY);
    }
    if (cancelled)
        RequestClose(s);
    s.state = VSCAN_STATE_ENABLED;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_USERINTERFACE / MSG_DISABLEDS
TW_UINT16 DisableDs(Call &call) {
    Source &s = call.source;
    DestroyUi(s);
    s.events.clear();
    s.againToken = 0;
    s.batch.clear();
    s.state = VSCAN_STATE_OPEN;
    return TWRC_SUCCESS;
}

// The event a notice stands for; a transfer-ready notice moves the source to state 6.
TW_UINT16 TakeEvent(Source &s) {
    if (s.events.empty())
        return MSG_NULL;
    const TW_UINT16 event = s.events.front();
    s.events.pop_front();
    if (event != MSG_XFERREADY)
        return event;
    if (s.state != VSCAN_STATE_ENABLED || s.batch.empty())
        return MSG_NULL;
    s.state = VSCAN_STATE_XFERREADY;
    s.xfer = Transfer{};
    return MSG_XFERREADY;
}

// A notice of MSG_XFERREADY announced again: the source's while it stands for the image now pending in state 6 (no
// MSG_RESET, disabling, closing or later image came first).
TW_UINT16 TakeXferReadyAgain(Source &s, TW_UINT16 token, TW_EVENT &event) {
    if (token != s.againToken || s.state != VSCAN_STATE_XFERREADY || s.batch.empty())
        return TWRC_NOTDSEVENT;
    s.againToken = 0;
    event.TWMessage = MSG_XFERREADY;
    return TWRC_DSEVENT;
}

// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT: our notices, and messages of our window, are the source's.
TW_UINT16 ProcessEvent(Call &call) {
    Source &s = call.source;
    auto *event = static_cast<TW_EVENT *>(call.data);
    event->TWMessage = MSG_NULL;
    const MSG *msg = static_cast<const MSG *>(event->pEvent);
    if (!msg)
        return Fail(call.cc, TWCC_BADVALUE);
    if (msg->message == NotifyMessage() && msg->wParam == kNotifyTag) {
        const auto token = static_cast<TW_UINT16>(HIWORD(msg->lParam));
        if (token)
            return TakeXferReadyAgain(s, token, *event);
        event->TWMessage = TakeEvent(s);
        return TWRC_DSEVENT;
    }
    if (s.window && msg->hwnd && (msg->hwnd == s.window || IsChild(s.window, msg->hwnd))) {
        TranslateMessage(msg);
        DispatchMessageA(msg);
        return TWRC_DSEVENT;
    }
    return TWRC_NOTDSEVENT;
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_GET: the images left, or -1 for "some" with the unknown-count fault.
TW_UINT16 GetPending(Call &call) {
    const Source &s = call.source;
    auto *pending = static_cast<TW_PENDINGXFERS *>(call.data);
    const int left = PendingCount(s);
    const bool unknown = s.faults[VSCAN_FAULT_UNKNOWNPENDING] != 0 && left > 0;
    pending->Count = static_cast<TW_UINT16>(unknown ? -1 : left);
    pending->EOJ = 0;
    return TWRC_SUCCESS;
}

// After the batch shrank: state 6 with more images, else state 5 (and Close pressed in the automatic mode).
void AfterImage(Source &s) {
    if (!s.batch.empty()) {
        s.state = VSCAN_STATE_XFERREADY;
        return;
    }
    s.state = VSCAN_STATE_ENABLED;
    if (s.window && s.autoScan == VSCAN_AUTO_SCAN_CLOSE)
        PostClose(s);
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_ENDXFER: the image is done with (or skipped); the count of the rest, and with
// XFERREADYEACH the next image announced as sources do that announce every image.
TW_UINT16 EndXfer(Call &call) {
    Source &s = call.source;
    const int closeAfter = s.faults[VSCAN_FAULT_CLOSEREQUESTAFTER];
    if (EndImage(s) && closeAfter > 0 && s.imagesDone == closeAfter)
        RequestClose(s); // only here, where image N ends: not at a later MSG_RESET nor in a later session
    AfterImage(s);
    if (s.state == VSCAN_STATE_XFERREADY && s.faults[VSCAN_FAULT_XFERREADYEACH])
        AnnounceXferReadyAgain(s);
    GetPending(call);
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_RESET: every image of the batch is dropped.
TW_UINT16 ResetPending(Call &call) {
    Source &s = call.source;
    s.batch.clear();
    s.xfer = Transfer{};
    s.againToken = 0;
    AfterImage(s);
    GetPending(call);
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_SETUPMEMXFER / MSG_GET: a row at least, 64 KB of whole rows preferred (a row at least), a plane
// at most (the preferred size at least); rows as memory transfers deliver them, padded per ROWALIGN.
TW_UINT16 GetSetupMem(Call &call) {
    constexpr TW_UINT32 kPreferredBytes = 64 * 1024;
    auto *setup = static_cast<TW_SETUPMEMXFER *>(call.data);
    const PageFormat f = NegotiatedFormat(call.source);
    const TW_UINT32 row = StripBytesPerRow(call.source, f);
    const int *faults = call.source.faults;
    const bool zero = faults[VSCAN_FAULT_ZEROBUFFERSIZES] != 0;
    setup->MinBufSize = zero ? 0 : row;
    setup->Preferred = zero ? 0 : std::max(row, kPreferredBytes / row * row);
    setup->MaxBufSize = zero ? 0 : std::max(setup->Preferred, row * f.height);
    // Sizes chosen by a test, each on its own, as careless sources report them.
    if (faults[VSCAN_FAULT_MINBUFSIZE])
        setup->MinBufSize = static_cast<TW_UINT32>(faults[VSCAN_FAULT_MINBUFSIZE]);
    if (faults[VSCAN_FAULT_MAXBUFSIZE])
        setup->MaxBufSize = static_cast<TW_UINT32>(faults[VSCAN_FAULT_MAXBUFSIZE]);
    if (faults[VSCAN_FAULT_PREFERREDBUFSIZE])
        setup->Preferred = static_cast<TW_UINT32>(faults[VSCAN_FAULT_PREFERREDBUFSIZE]);
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_GET
TW_UINT16 GetSetupFile(Call &call) {
    *static_cast<TW_SETUPFILEXFER *>(call.data) = call.source.fileXfer;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_GETDEFAULT
TW_UINT16 GetDefaultSetupFile(Call &call) {
    *static_cast<TW_SETUPFILEXFER *>(call.data) = DefaultFileXfer();
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_SET: only BMP files.
TW_UINT16 SetSetupFile(Call &call) {
    const auto *setup = static_cast<const TW_SETUPFILEXFER *>(call.data);
    if (setup->Format != TWFF_BMP || !setup->FileName[0] || !std::memchr(setup->FileName, 0, sizeof setup->FileName))
        return Fail(call.cc, TWCC_BADVALUE);
    call.source.fileXfer = *setup;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_RESET
TW_UINT16 ResetSetupFile(Call &call) {
    call.source.fileXfer = DefaultFileXfer();
    return GetSetupFile(call);
}

// DG_CONTROL / DAT_XFERGROUP / MSG_GET: images only.
TW_UINT16 GetXferGroup(Call &call) {
    *static_cast<TW_UINT32 *>(call.data) = DG_IMAGE;
    return TWRC_SUCCESS;
}

const Route kRoutes[] = {
    {DG_CONTROL, DAT_IDENTITY, MSG_GET, kAny, true, GetIdentity},
    {DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, kClosed, true, OpenDs},
    {DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, kOpen, false, CloseDs},
    {DG_CONTROL, DAT_STATUS, MSG_GET, kAny, true, GetStatus},
    {DG_CONTROL, DAT_CAPABILITY, MSG_GET, kOpened, true, GetCapability},
    {DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, kOpened, true, GetCapability},
    {DG_CONTROL, DAT_CAPABILITY, MSG_GETDEFAULT, kOpened, true, GetCapability},
    {DG_CONTROL, DAT_CAPABILITY, MSG_QUERYSUPPORT, kOpened, true, QueryCapability},
    {DG_CONTROL, DAT_CAPABILITY, MSG_SET, kOpen, true, SetCapability},
    {DG_CONTROL, DAT_CAPABILITY, MSG_RESET, kOpen, true, ResetCapability},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, kOpen, true, EnableDs},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDSUIONLY, kOpen, true, EnableDs},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, kEnabled, false, DisableDs},
    {DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, kEnabled | kReady | kXferring, true, ProcessEvent},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, kOpened, true, GetPending},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, kReady | kXferring, true, EndXfer},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, kReady, true, ResetPending},
    {DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, kBeforeXfer, true, GetSetupMem},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, kBeforeXfer, true, GetSetupFile},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_GETDEFAULT, kBeforeXfer, true, GetDefaultSetupFile},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, kBeforeXfer, true, SetSetupFile},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_RESET, kOpen, true, ResetSetupFile},
    {DG_CONTROL, DAT_XFERGROUP, MSG_GET, kBeforeXfer, true, GetXferGroup},
    {DG_IMAGE, DAT_IMAGEINFO, MSG_GET, kReady | kXferring, true, GetImageInfo},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, kBeforeXfer, true, GetImageLayout},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_GETDEFAULT, kBeforeXfer, true, GetDefaultImageLayout},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, kOpen, true, SetImageLayout},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET, kOpen, true, ResetImageLayout},
    {DG_IMAGE, DAT_PALETTE8, MSG_GET, kBeforeXfer, true, GetPalette},
    {DG_IMAGE, DAT_PALETTE8, MSG_GETDEFAULT, kBeforeXfer, true, GetPalette},
    {DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, kReady, true, NativeXfer},
    {DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, kReady, false, FileXfer},
    {DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, kReady | kXferring, true, MemoryXfer},
};

// A fault switched on for this call: every matching switch counts the call, the first that fires answers.
const TripletFault *FiringFault(Source &s, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    const TripletFault *firing = nullptr;
    for (TripletFault &fault : s.tripletFaults) {
        if (fault.dg != dg || fault.dat != dat || fault.msg != msg)
            continue;
        if (dat == DAT_CAPABILITY && fault.cap && (!data || static_cast<TW_CAPABILITY *>(data)->Cap != fault.cap))
            continue;
        ++fault.calls;
        const bool inWindow =
            fault.calls >= fault.first && (fault.count == 0 || fault.calls < fault.first + fault.count);
        if (inWindow && !firing)
            firing = &fault;
    }
    return firing;
}

TW_UINT16 Dispatch(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, Call &call) {
    if (const TripletFault *fault = FiringFault(call.source, dg, dat, msg, call.data)) {
        call.cc = fault->cc;
        return fault->rc;
    }
    for (const Route &route : kRoutes) {
        if (route.dg != dg || route.dat != dat || route.msg != msg)
            continue;
        if (!(route.states & StateBit(call.source.state)))
            return Fail(call.cc, TWCC_SEQERROR);
        if (route.needsData && !call.data)
            return Fail(call.cc, TWCC_BADVALUE);
        return route.handler(call);
    }
    return Fail(call.cc, TWCC_BADPROTOCOL); // a triplet this source does not know
}

} // namespace

} // namespace vscan

extern "C" TW_UINT16 WINAPI DS_Entry(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    vscan::Source &source = vscan::TheSource();
    vscan::Call call{source, origin, msg, data, TWCC_SUCCESS};
    const TW_UINT16 rc = vscan::Dispatch(dg, dat, msg, call);
    if (rc == TWRC_FAILURE)
        source.lastCc = call.cc;
    return rc;
}
