// fakeds.ds: a recording data source for the stand-in source manager's tests, with a few capabilities and switches.
#include <cstring>
#include <string>
#include <vector>

#include "fakeds.h"
#include "records.h"

namespace {

struct Fault {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 rc;
    TW_UINT16 cc;
};

const char kManufacturer[] = "smkernal tests";
const char kFamily[] = "Fake source";
const char kVersionInfo[] = "fake 1.0";
const char kManagerName[] = "TWAIN_32.DLL";
const char kManagerEntry[] = "DSM_Entry";
const UINT_PTR kBadHandle = 0x0badf00d;
constexpr TW_UINT16 kFakeMajor = 1;
constexpr TW_UINT16 kFakeMinor = 0;

HMODULE self = nullptr;
std::string productName;
std::vector<FakeDsCall> calls;
std::vector<Fault> faults;
TW_UINT16 condition = TWCC_SUCCESS;
int containers = FAKEDS_CONTAINERS_GOOD;
bool open = false;
TW_IDENTITY ownIdentity;
TW_IDENTITY application;
TW_FIX32 brightness = {0, 0};

// The file name without directory and extension.
std::string FileProductName() {
    char path[MAX_PATH] = "";
    GetModuleFileNameA(self, path, sizeof path);
    std::string name(path);
    const size_t slash = name.find_last_of("\\/");
    if (slash != std::string::npos)
        name = name.substr(slash + 1);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos ? name : name.substr(0, dot);
}

void FillIdentity(TW_IDENTITY *identity) {
    const TW_UINT32 id = identity->Id;
    std::memset(identity, 0, sizeof *identity);
    identity->Id = id;
    identity->Version.MajorNum = kFakeMajor;
    identity->Version.MinorNum = kFakeMinor;
    identity->Version.Language = TWLG_USA;
    identity->Version.Country = TWCY_USA;
    std::strncpy(identity->Version.Info, kVersionInfo, sizeof identity->Version.Info - 1);
    identity->ProtocolMajor = TWON_PROTOCOLMAJOR;
    identity->ProtocolMinor = TWON_PROTOCOLMINOR;
    identity->SupportedGroups = DG_CONTROL | DG_IMAGE;
    std::strncpy(identity->Manufacturer, kManufacturer, sizeof identity->Manufacturer - 1);
    std::strncpy(identity->ProductFamily, kFamily, sizeof identity->ProductFamily - 1);
    const std::string name = productName.empty() ? FileProductName() : productName;
    std::strncpy(identity->ProductName, name.c_str(), sizeof identity->ProductName - 1);
}

TW_UINT16 Fail(TW_UINT16 cc) {
    condition = cc;
    return TWRC_FAILURE;
}

template <typename T> T *As(TW_MEMREF data) {
    return static_cast<T *>(data);
}

TW_FIX32 Fix(TW_INT16 whole) {
    return TW_FIX32{whole, 0};
}

TW_UINT32 FixBits(TW_FIX32 value) {
    TW_UINT32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

HGLOBAL Allocate(size_t size) {
    return GlobalAlloc(GHND, size);
}

HGLOBAL OneValue(TW_UINT16 itemType, TW_UINT32 item) {
    HGLOBAL handle = Allocate(sizeof(TW_ONEVALUE));
    TW_ONEVALUE *value = static_cast<TW_ONEVALUE *>(GlobalLock(handle));
    value->ItemType = itemType;
    value->Item = item;
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL PixelTypes() {
    const TW_UINT16 items[] = {TWPT_BW, TWPT_GRAY, TWPT_RGB};
    const TW_UINT32 count = sizeof items / sizeof *items;
    const TW_UINT32 claimed = containers == FAKEDS_CONTAINERS_SHORT ? FAKEDS_SHORT_CLAIM : count;
    HGLOBAL handle = Allocate(offsetof(TW_ENUMERATION, ItemList) + sizeof items);
    TW_ENUMERATION *list = static_cast<TW_ENUMERATION *>(GlobalLock(handle));
    list->ItemType = TWTY_UINT16;
    list->NumItems = claimed;
    list->CurrentIndex = FAKEDS_PIXELTYPE_CURRENT;
    list->DefaultIndex = FAKEDS_PIXELTYPE_DEFAULT;
    std::memcpy(list->ItemList, items, sizeof items);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL Resolutions() {
    HGLOBAL handle = Allocate(sizeof(TW_RANGE));
    TW_RANGE *range = static_cast<TW_RANGE *>(GlobalLock(handle));
    range->ItemType = TWTY_FIX32;
    range->MinValue = FixBits(Fix(FAKEDS_XRES_MIN));
    range->MaxValue = FixBits(Fix(FAKEDS_XRES_MAX));
    range->StepSize = FixBits(Fix(FAKEDS_XRES_STEP));
    range->DefaultValue = FixBits(Fix(FAKEDS_XRES_DEFAULT));
    range->CurrentValue = FixBits(Fix(FAKEDS_XRES_CURRENT));
    GlobalUnlock(handle);
    return handle;
}

const TW_UINT16 kSupported[] = {CAP_XFERCOUNT, ICAP_PIXELTYPE, ICAP_XRESOLUTION, ICAP_BRIGHTNESS, CAP_SUPPORTEDCAPS};

HGLOBAL SupportedCaps() {
    HGLOBAL handle = Allocate(offsetof(TW_ARRAY, ItemList) + sizeof kSupported);
    TW_ARRAY *list = static_cast<TW_ARRAY *>(GlobalLock(handle));
    list->ItemType = TWTY_UINT16;
    list->NumItems = sizeof kSupported / sizeof *kSupported;
    std::memcpy(list->ItemList, kSupported, sizeof kSupported);
    GlobalUnlock(handle);
    return handle;
}

// The container of a capability the fake knows, and its type; NULL for others.
HGLOBAL Container(TW_UINT16 cap, TW_UINT16 *conType) {
    switch (cap) {
    case CAP_XFERCOUNT:
        *conType = TWON_ONEVALUE;
        return OneValue(TWTY_INT16, static_cast<TW_UINT16>(FAKEDS_XFERCOUNT));
    case ICAP_PIXELTYPE:
        *conType = TWON_ENUMERATION;
        return PixelTypes();
    case ICAP_XRESOLUTION:
        *conType = TWON_RANGE;
        return Resolutions();
    case ICAP_BRIGHTNESS:
        *conType = TWON_ONEVALUE;
        return OneValue(TWTY_FIX32, FixBits(brightness));
    case CAP_SUPPORTEDCAPS:
        *conType = TWON_ARRAY;
        return SupportedCaps();
    default:
        return nullptr;
    }
}

// DG_CONTROL / DAT_CAPABILITY / MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT, MSG_RESET
TW_UINT16 GetCapability(TW_CAPABILITY *capability) {
    TW_UINT16 conType = TWON_DONTCARE16;
    HGLOBAL handle = Container(capability->Cap, &conType);
    if (!handle)
        return Fail(TWCC_CAPUNSUPPORTED);
    capability->ConType = conType;
    capability->hContainer = handle;
    if (containers == FAKEDS_CONTAINERS_BADHANDLE) {
        GlobalFree(handle);
        capability->hContainer = reinterpret_cast<TW_HANDLE>(kBadHandle);
    }
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_CAPABILITY / MSG_SET: brightness keeps a one-value; the other known caps accept anything.
TW_UINT16 SetCapability(TW_CAPABILITY *capability) {
    TW_UINT16 conType;
    HGLOBAL known = Container(capability->Cap, &conType);
    if (!known)
        return Fail(TWCC_CAPUNSUPPORTED);
    GlobalFree(known);
    if (capability->Cap != ICAP_BRIGHTNESS || capability->ConType != TWON_ONEVALUE || !capability->hContainer)
        return TWRC_SUCCESS;
    const TW_ONEVALUE *value = static_cast<const TW_ONEVALUE *>(GlobalLock(capability->hContainer));
    if (!value)
        return Fail(TWCC_BADVALUE);
    std::memcpy(&brightness, &value->Item, sizeof brightness);
    GlobalUnlock(capability->hContainer);
    return TWRC_SUCCESS;
}

TW_UINT16 Capability(TW_UINT16 msg, TW_MEMREF data) {
    if (!data)
        return Fail(TWCC_BADVALUE);
    switch (msg) {
    case MSG_GET:
    case MSG_GETCURRENT:
    case MSG_GETDEFAULT:
    case MSG_RESET:
        return GetCapability(As<TW_CAPABILITY>(data));
    case MSG_SET:
        return SetCapability(As<TW_CAPABILITY>(data));
    default:
        return Fail(TWCC_BADPROTOCOL);
    }
}

TW_UINT16 Identity(pTW_IDENTITY origin, TW_UINT16 msg, TW_MEMREF data) {
    if (!data)
        return Fail(TWCC_BADVALUE);
    switch (msg) {
    case MSG_GET:
        FillIdentity(As<TW_IDENTITY>(data));
        return TWRC_SUCCESS;
    case MSG_OPENDS:
        if (open)
            return Fail(TWCC_SEQERROR);
        ownIdentity = *As<TW_IDENTITY>(data);
        application = origin ? *origin : TW_IDENTITY{};
        open = true;
        return TWRC_SUCCESS;
    case MSG_CLOSEDS:
        if (!open)
            return Fail(TWCC_SEQERROR);
        open = false;
        return TWRC_SUCCESS;
    default:
        return Fail(TWCC_BADPROTOCOL);
    }
}

// DG_CONTROL / DAT_STATUS / MSG_GET: the condition of the previous call, then success again.
TW_UINT16 Status(TW_MEMREF data) {
    if (!data)
        return Fail(TWCC_BADVALUE);
    As<TW_STATUS>(data)->ConditionCode = condition;
    As<TW_STATUS>(data)->Reserved = 0;
    condition = TWCC_SUCCESS;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT: no event is ever the fake's.
TW_UINT16 Event(TW_MEMREF data) {
    if (!data)
        return Fail(TWCC_BADVALUE);
    As<TW_EVENT>(data)->TWMessage = MSG_NULL;
    return TWRC_NOTDSEVENT;
}

const Fault *FindFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    for (const Fault &fault : faults)
        if (fault.dg == dg && fault.dat == dat && fault.msg == msg)
            return &fault;
    return nullptr;
}

TW_UINT16 Answer(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    if (const Fault *fault = FindFault(dg, dat, msg)) {
        condition = fault->cc;
        return fault->rc;
    }
    if (dg == DG_CONTROL && dat == DAT_STATUS && msg == MSG_GET)
        return Status(data);
    condition = TWCC_SUCCESS;
    if (dg == DG_CONTROL && dat == DAT_IDENTITY)
        return Identity(origin, msg, data);
    if (dg == DG_CONTROL && dat == DAT_CAPABILITY)
        return Capability(msg, data);
    if (dg == DG_CONTROL && dat == DAT_EVENT && msg == MSG_PROCESSEVENT)
        return Event(data);
    return TWRC_SUCCESS;
}

} // namespace

extern "C" {

TW_UINT16 WINAPI DS_Entry(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    FakeDsCall call;
    std::memset(&call, 0, sizeof call);
    call.hasOrigin = origin != nullptr;
    call.originId = origin ? origin->Id : 0;
    tdsm::CopyProductName(call.originName, origin);
    call.dg = dg;
    call.dat = dat;
    call.msg = msg;
    call.hasData = data != nullptr;
    call.dataSize = data ? tdsm::DataSize(dat) : 0;
    if (call.dataSize)
        std::memcpy(call.data, data, call.dataSize);
    call.rc = Answer(origin, dg, dat, msg, data);
    calls.push_back(call);
    return call.rc;
}

void __cdecl FakeDsReset(void) {
    productName.clear();
    calls.clear();
    faults.clear();
    condition = TWCC_SUCCESS;
    containers = FAKEDS_CONTAINERS_GOOD;
    brightness = TW_FIX32{0, 0};
}

void __cdecl FakeDsSetProductName(const char *name) {
    productName = name ? name : "";
}

int __cdecl FakeDsCallCount(void) {
    return static_cast<int>(calls.size());
}

int __cdecl FakeDsGetCall(int index, FakeDsCall *out) {
    if (!out || index < 0 || index >= static_cast<int>(calls.size()))
        return 0;
    *out = calls[index];
    return 1;
}

void __cdecl FakeDsFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
    faults.push_back(Fault{dg, dat, msg, rc, cc});
}

void __cdecl FakeDsSetContainers(int mode) {
    containers = mode;
}

int __cdecl FakeDsIsOpen(void) {
    return open ? 1 : 0;
}

TW_UINT16 __cdecl FakeDsPostMessage(TW_UINT16 msg) {
    HMODULE manager = GetModuleHandleA(kManagerName);
    FARPROC proc = manager ? GetProcAddress(manager, kManagerEntry) : nullptr;
    if (!proc)
        return TWRC_FAILURE;
    DSMENTRYPROC entry = reinterpret_cast<DSMENTRYPROC>(reinterpret_cast<void *>(proc));
    return entry(&ownIdentity, &application, DG_CONTROL, DAT_NULL, msg, nullptr);
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH)
        self = instance;
    return TRUE;
}

} // extern "C"
