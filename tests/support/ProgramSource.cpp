// The program-played data source: its dispatch table, the sane defaults behind the hooks, and the hand-over of blocks.
#include "ProgramSource.h"

#include <algorithm>
#include <cstring>

#include "TestSupport.h"

namespace smtest {

namespace {

constexpr unsigned kClosed = 1u << 0;
constexpr unsigned kOpen = 1u << 1;
constexpr unsigned kAnyState = kClosed | kOpen;
constexpr TW_UINT16 kAnyMessage = 0xFFFF;
const char kEventName[] = "smkernal tests program source event";
ProgramSource *current = nullptr;

void Put(std::vector<BYTE> &bytes, const void *from, size_t count) {
    const BYTE *at = static_cast<const BYTE *>(from);
    bytes.insert(bytes.end(), at, at + count);
}

void Put16(std::vector<BYTE> &bytes, TW_UINT16 value) {
    Put(bytes, &value, sizeof value);
}

void Put32(std::vector<BYTE> &bytes, TW_UINT32 value) {
    Put(bytes, &value, sizeof value);
}

void PutItems(std::vector<BYTE> &bytes, const std::vector<TW_UINT32> &items, TW_UINT32 itemSize) {
    for (TW_UINT32 item : items)
        Put(bytes, &item, std::min<TW_UINT32>(itemSize, sizeof item));
}

TW_UINT32 FixBits(TW_INT16 whole) {
    const TW_FIX32 fixed = {whole, 0};
    TW_UINT32 bits;
    std::memcpy(&bits, &fixed, sizeof bits);
    return bits;
}

} // namespace

// A global block holding the first `size` bytes of `bytes` (zeros beyond them).
HGLOBAL ProgramSource::Block(const std::vector<BYTE> &bytes, SIZE_T size) {
    HGLOBAL handle = GlobalAlloc(GHND, size);
    if (!handle)
        return nullptr;
    if (onAllocated)
        onAllocated(handle);
    if (BYTE *block = static_cast<BYTE *>(GlobalLock(handle))) {
        std::memcpy(block, bytes.data(), std::min<SIZE_T>(size, bytes.size()));
        GlobalUnlock(handle);
    }
    return handle;
}

std::vector<BYTE> OneValueBytes(TW_UINT16 itemType, TW_UINT32 item) {
    std::vector<BYTE> bytes;
    Put16(bytes, itemType);
    Put32(bytes, item);
    return bytes;
}

std::vector<BYTE> RangeBytes(TW_UINT16 itemType, TW_UINT32 min, TW_UINT32 max, TW_UINT32 step, TW_UINT32 def,
                             TW_UINT32 cur) {
    std::vector<BYTE> bytes;
    Put16(bytes, itemType);
    for (TW_UINT32 field : {min, max, step, def, cur})
        Put32(bytes, field);
    return bytes;
}

std::vector<BYTE> EnumerationBytes(TW_UINT16 itemType, TW_UINT32 numItems, TW_UINT32 current, TW_UINT32 def,
                                   const std::vector<TW_UINT32> &items, TW_UINT32 itemSize) {
    std::vector<BYTE> bytes;
    Put16(bytes, itemType);
    for (TW_UINT32 field : {numItems, current, def})
        Put32(bytes, field);
    PutItems(bytes, items, itemSize);
    return bytes;
}

std::vector<BYTE> ArrayBytes(TW_UINT16 itemType, TW_UINT32 numItems, const std::vector<TW_UINT32> &items,
                             TW_UINT32 itemSize) {
    std::vector<BYTE> bytes;
    Put16(bytes, itemType);
    Put32(bytes, numItems);
    PutItems(bytes, items, itemSize);
    return bytes;
}

// Sessions: the source opens and closes; everything else needs it open.
const ProgramSource::Route ProgramSource::kRoutes[] = {
    {DG_CONTROL, DAT_IDENTITY, MSG_GET, kAnyState, &ProgramSource::Identity},
    {DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, kClosed, &ProgramSource::OpenDs},
    {DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, kOpen, &ProgramSource::CloseDs},
    {DG_CONTROL, DAT_STATUS, MSG_GET, kAnyState, &ProgramSource::Status},
    {DG_CONTROL, DAT_USERINTERFACE, kAnyMessage, kOpen, &ProgramSource::UserInterface},
    {DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, kOpen, &ProgramSource::ProcessEvent},
    {DG_CONTROL, DAT_CAPABILITY, kAnyMessage, kOpen, &ProgramSource::Capability},
    {DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, kOpen, &ProgramSource::SetupMem},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, kOpen, &ProgramSource::SetupFile},
    {DG_CONTROL, DAT_PENDINGXFERS, kAnyMessage, kOpen, &ProgramSource::Pending},
    {DG_IMAGE, DAT_IMAGEINFO, MSG_GET, kOpen, &ProgramSource::ImageInfo},
    {DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, kOpen, &ProgramSource::Strip},
    {DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, kOpen, &ProgramSource::Native},
    {DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, kOpen, &ProgramSource::FileXfer},
    {DG_IMAGE, DAT_PALETTE8, MSG_GET, kOpen, &ProgramSource::Palette},
    {DG_IMAGE, DAT_IMAGELAYOUT, kAnyMessage, kOpen, &ProgramSource::Layout},
};

ProgramSource::ProgramSource() {
    eventMessage_ = RegisterWindowMessageA(kEventName);
    identity_.Version.MajorNum = 1;
    identity_.ProtocolMajor = TWON_PROTOCOLMAJOR;
    identity_.ProtocolMinor = TWON_PROTOCOLMINOR;
    identity_.SupportedGroups = DG_CONTROL | DG_IMAGE;
    lstrcpynA(identity_.Manufacturer, "smkernal tests", sizeof identity_.Manufacturer);
    lstrcpynA(identity_.ProductFamily, "Program sources", sizeof identity_.ProductFamily);
    lstrcpynA(identity_.ProductName, kProductName, sizeof identity_.ProductName);
    module_ = LoadLibraryA(Path().c_str());
    auto set = module_ ? reinterpret_cast<ProgramDsSetEntryProc>(
                             reinterpret_cast<void *>(GetProcAddress(module_, "ProgramDsSetEntry")))
                       : nullptr;
    if (!set) {
        if (module_)
            FreeLibrary(module_);
        module_ = nullptr;
        return;
    }
    current = this;
    set(&ProgramSource::Entry);
}

ProgramSource::~ProgramSource() {
    if (!module_)
        return;
    reinterpret_cast<ProgramDsSetEntryProc>(reinterpret_cast<void *>(GetProcAddress(module_, "ProgramDsSetEntry")))(
        nullptr);
    FreeLibrary(module_);
    current = nullptr;
}

std::string ProgramSource::Path() {
    return BinDir() + "\\programds.ds";
}

MSG ProgramSource::Event() const {
    MSG msg = {};
    msg.message = eventMessage_;
    return msg;
}

void ProgramSource::Calm() {
    onCapability = nullptr;
    onUserInterface = nullptr;
    onCloseDS = nullptr;
    onImageInfo = nullptr;
    onSetupMem = nullptr;
    onStrip = nullptr;
    onNative = nullptr;
    onSetupFile = nullptr;
    onFileXfer = nullptr;
    onPending = nullptr;
    onPalette = nullptr;
    onLayout = nullptr;
    announce = MSG_XFERREADY;
}

void ProgramSource::ClearRecord() {
    containers.clear();
    bitmaps.clear();
    notHandles.clear();
    conditions.clear();
    calls = 0;
    lastImageInfo = TW_IMAGEINFO{};
}

TW_UINT16 WINAPI ProgramSource::Entry(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    Call call = {origin, dg, dat, msg, data};
    return current ? current->Dispatch(call) : static_cast<TW_UINT16>(TWRC_FAILURE);
}

TW_UINT16 ProgramSource::Dispatch(Call &call) {
    ++calls;
    const Answer answer = Answered(call);
    // DAT_STATUS tells the condition of the last failure and keeps it.
    if (!(call.dat == DAT_STATUS && call.msg == MSG_GET)) {
        lastCc_ = answer.rc == TWRC_SUCCESS || answer.rc == TWRC_XFERDONE ? TWCC_SUCCESS : answer.cc;
        if (lastCc_ != TWCC_SUCCESS)
            conditions.push_back(lastCc_);
    }
    return answer.rc;
}

// The route of the triplet, refused outside its states and without its data record (DAT_IMAGEFILEXFER has none).
Answer ProgramSource::Answered(Call &call) {
    const unsigned state = open_ ? kOpen : kClosed;
    for (const Route &route : kRoutes) {
        if (route.dg != call.dg || route.dat != call.dat || (route.msg != kAnyMessage && route.msg != call.msg))
            continue;
        if (!(route.states & state))
            return {TWRC_FAILURE, TWCC_SEQERROR};
        if (!call.data && call.dat != DAT_IMAGEFILEXFER)
            return {TWRC_FAILURE, TWCC_BADVALUE};
        return (this->*route.handler)(call);
    }
    return Unknown(call);
}

// DG_CONTROL / DAT_IDENTITY / MSG_GET
Answer ProgramSource::Identity(Call &call) {
    auto *identity = static_cast<TW_IDENTITY *>(call.data);
    const TW_UINT32 id = identity->Id;
    *identity = identity_;
    identity->Id = id;
    return {};
}

// DG_CONTROL / DAT_IDENTITY / MSG_OPENDS: the manager has put our Id into the record.
Answer ProgramSource::OpenDs(Call &call) {
    auto *identity = static_cast<TW_IDENTITY *>(call.data);
    identity_.Id = identity->Id;
    *identity = identity_;
    open_ = true;
    return {};
}

// DG_CONTROL / DAT_IDENTITY / MSG_CLOSEDS
Answer ProgramSource::CloseDs(Call &) {
    const Answer answer = onCloseDS ? onCloseDS(MSG_CLOSEDS) : Answer{};
    if (answer.rc == TWRC_SUCCESS)
        open_ = false;
    return answer;
}

// DG_CONTROL / DAT_STATUS / MSG_GET
Answer ProgramSource::Status(Call &call) {
    auto *status = static_cast<TW_STATUS *>(call.data);
    status->ConditionCode = lastCc_;
    status->Reserved = 0;
    return {};
}

// DG_CONTROL / DAT_USERINTERFACE / MSG_ENABLEDS, MSG_ENABLEDSUIONLY, MSG_DISABLEDS
Answer ProgramSource::UserInterface(Call &call) {
    return onUserInterface ? onUserInterface(call.msg) : Answer{};
}

// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT: the source's own event announces, every other message is not its.
Answer ProgramSource::ProcessEvent(Call &call) {
    auto *event = static_cast<TW_EVENT *>(call.data);
    const MSG *msg = static_cast<const MSG *>(event->pEvent);
    if (msg && msg->message == eventMessage_) {
        event->TWMessage = announce;
        return {TWRC_DSEVENT, TWCC_SUCCESS};
    }
    event->TWMessage = MSG_NULL;
    return {TWRC_NOTDSEVENT, TWCC_SUCCESS};
}

// DG_CONTROL / DAT_CAPABILITY / every message. The default answers gets with one-values a careful source would
// give, and takes every set.
Answer ProgramSource::Capability(Call &call) {
    auto &capability = *static_cast<TW_CAPABILITY *>(call.data);
    if (onCapability)
        return onCapability(call.msg, capability);
    if (call.msg == MSG_SET)
        return {};
    ContainerScript container;
    if (capability.Cap == ICAP_BRIGHTNESS) {
        container.conType = TWON_RANGE;
        container.bytes = RangeBytes(TWTY_FIX32, FixBits(-1000), FixBits(1000), FixBits(1), 0, 0);
    } else {
        const TW_UINT32 item = capability.Cap == ICAP_XFERMECH ? TWSX_MEMORY : 0;
        container.bytes = OneValueBytes(TWTY_UINT16, item);
    }
    HandOver(capability, container);
    return {};
}

void ProgramSource::HandOver(TW_CAPABILITY &capability, const ContainerScript &container) {
    capability.ConType = container.conType;
    switch (container.memory) {
    case ContainerScript::Memory::Exact:
        capability.hContainer = Block(container.bytes, container.bytes.size());
        break;
    case ContainerScript::Memory::Truncated:
        capability.hContainer = Block(container.bytes, container.blockSize);
        break;
    case ContainerScript::Memory::Null:
        capability.hContainer = nullptr;
        break;
    case ContainerScript::Memory::NotAHandle:
        capability.hContainer = reinterpret_cast<HGLOBAL>(container.notAHandle);
        notHandles.push_back(capability.hContainer);
        return;
    }
    if (capability.hContainer)
        containers.push_back(capability.hContainer);
}

// DG_IMAGE / DAT_IMAGEINFO / MSG_GET
Answer ProgramSource::ImageInfo(Call &call) {
    auto &info = *static_cast<TW_IMAGEINFO *>(call.data);
    if (!onImageInfo)
        return {TWRC_FAILURE, TWCC_SEQERROR};
    const Answer answer = onImageInfo(info);
    if (answer.rc == TWRC_SUCCESS)
        lastImageInfo = info;
    return answer;
}

// DG_CONTROL / DAT_SETUPMEMXFER / MSG_GET
Answer ProgramSource::SetupMem(Call &call) {
    auto &sizes = *static_cast<TW_SETUPMEMXFER *>(call.data);
    if (onSetupMem)
        return onSetupMem(sizes);
    sizes = {1, 0x10000, 0x10000};
    return {};
}

// DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET: the record as scripted, and the bytes it claims written into the buffer the
// application gave, as far as that buffer goes.
Answer ProgramSource::Strip(Call &call) {
    auto &strip = *static_cast<TW_IMAGEMEMXFER *>(call.data);
    if (!onStrip)
        return {TWRC_FAILURE, TWCC_SEQERROR};
    const TW_MEMORY memory = strip.Memory;
    if (!(memory.Flags & TWMF_POINTER))
        return {TWRC_FAILURE, TWCC_BADVALUE};
    const Answer answer = onStrip(strip);
    strip.Memory = memory;
    if ((answer.rc == TWRC_SUCCESS || answer.rc == TWRC_XFERDONE) && memory.TheMem)
        std::memset(memory.TheMem, kStripFill, std::min(strip.BytesWritten, memory.Length));
    return answer;
}

// DG_IMAGE / DAT_IMAGENATIVEXFER / MSG_GET: a bitmap only with TWRC_XFERDONE.
Answer ProgramSource::Native(Call &call) {
    auto &handle = *static_cast<TW_UINT32 *>(call.data);
    if (!onNative)
        return {TWRC_FAILURE, TWCC_SEQERROR};
    BitmapScript bitmap;
    const Answer answer = onNative(bitmap);
    if (answer.rc != TWRC_XFERDONE)
        return answer;
    HGLOBAL block = nullptr;
    if (!bitmap.null) {
        std::vector<BYTE> header(sizeof bitmap.header);
        std::memcpy(header.data(), &bitmap.header, sizeof bitmap.header);
        block = Block(header, bitmap.blockSize);
    }
    if (block)
        bitmaps.push_back(block);
    handle = static_cast<TW_UINT32>(reinterpret_cast<UINT_PTR>(block));
    return answer;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_SET
Answer ProgramSource::SetupFile(Call &call) {
    auto &setup = *static_cast<TW_SETUPFILEXFER *>(call.data);
    return onSetupFile ? onSetupFile(setup) : Answer{};
}

// DG_IMAGE / DAT_IMAGEFILEXFER / MSG_GET (no data)
Answer ProgramSource::FileXfer(Call &) {
    return onFileXfer ? onFileXfer() : Answer{TWRC_FAILURE, TWCC_SEQERROR};
}

// DG_CONTROL / DAT_PENDINGXFERS / MSG_ENDXFER, MSG_RESET, MSG_GET
Answer ProgramSource::Pending(Call &call) {
    auto &pending = *static_cast<TW_PENDINGXFERS *>(call.data);
    TW_UINT16 count = 0;
    const Answer answer = onPending ? onPending(call.msg, count) : Answer{};
    pending.Count = count;
    return answer;
}

// DG_IMAGE / DAT_PALETTE8 / MSG_GET
Answer ProgramSource::Palette(Call &call) {
    auto &palette = *static_cast<TW_PALETTE8 *>(call.data);
    return onPalette ? onPalette(palette) : Answer{TWRC_FAILURE, TWCC_SEQERROR};
}

// DG_IMAGE / DAT_IMAGELAYOUT / every message
Answer ProgramSource::Layout(Call &call) {
    auto &layout = *static_cast<TW_IMAGELAYOUT *>(call.data);
    return onLayout ? onLayout(layout) : Answer{};
}

// Any other triplet.
Answer ProgramSource::Unknown(Call &) {
    return {TWRC_FAILURE, TWCC_BADPROTOCOL};
}

} // namespace smtest
