// The direct baseline: our own source-manager session, negotiation, memory transfers and capability triplets.
#include "Direct.h"

#include <cmath>
#include <cstring>

namespace bench {

namespace {

const char kSourceName[] = "Virtual Scanner";
// How long the source may take to announce its image.
constexpr DWORD kEventTimeoutMs = 60000;

// Copies a name into a TW_STR32 field.
void SetName(TW_STR32 &field, const char *name) {
    lstrcpynA(field, name, sizeof field);
}

} // namespace

double Fix32Value(TW_FIX32 value) {
    return value.Whole + value.Frac / 65536.0;
}

TW_FIX32 ToFix32(double value) {
    const long scaled = std::lround(value * 65536.0);
    TW_FIX32 fixed;
    fixed.Whole = static_cast<TW_INT16>(scaled >> 16);
    fixed.Frac = static_cast<TW_UINT16>(scaled & 0xFFFF);
    return fixed;
}

bool DirectSession::Load() {
    Unload();
    dsm_ = LoadLibraryA((WindowsDir() + "\\TWAIN_32.DLL").c_str());
    if (!dsm_)
        return false;
    entry_ = reinterpret_cast<DSMENTRYPROC>(reinterpret_cast<void *>(GetProcAddress(dsm_, "DSM_Entry")));
    return entry_ != nullptr;
}

void DirectSession::Unload() {
    if (open_)
        Close();
    if (dsm_)
        FreeLibrary(dsm_);
    dsm_ = nullptr;
    entry_ = nullptr;
}

bool DirectSession::IsStandIn() const {
    // The stand-in exports its test controls beside DSM_Entry.
    return dsm_ && GetProcAddress(dsm_, "TdsmReset") != nullptr;
}

void DirectSession::Open(HWND window) {
    window_ = window;
    app_ = {};
    app_.Version.MajorNum = 1;
    app_.Version.Language = TWLG_USA;
    app_.Version.Country = TWCY_USA;
    SetName(app_.Version.Info, "1.0");
    app_.ProtocolMajor = 1;
    app_.ProtocolMinor = 8;
    app_.SupportedGroups = DG_CONTROL | DG_IMAGE;
    SetName(app_.Manufacturer, "smkernal project");
    SetName(app_.ProductFamily, "Benchmarks");
    SetName(app_.ProductName, "smbench direct");
    if (entry_(&app_, nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &window_) != TWRC_SUCCESS)
        Fail("the source manager did not open (MSG_OPENDSM)");
    source_ = {};
    if (entry_(&app_, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &source_) != TWRC_SUCCESS)
        Fail("the source manager names no default source");
    if (std::strcmp(source_.ProductName, kSourceName) != 0)
        Fail("the default source is \"%s\", not the %s (install it with scripts/install-vscan)", source_.ProductName,
             kSourceName);
    if (entry_(&app_, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &source_) != TWRC_SUCCESS)
        Fail("the %s did not open (MSG_OPENDS)", kSourceName);
    open_ = true;
}

void DirectSession::Close() {
    if (!open_)
        return;
    entry_(&app_, nullptr, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source_);
    entry_(&app_, nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &window_);
    open_ = false;
}

TW_UINT16 DirectSession::Call(TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data) {
    return entry_(&app_, &source_, group, type, message, data);
}

TW_UINT16 DirectSession::SetOneValue(TW_UINT16 cap, TW_UINT16 itemType, TW_UINT32 item) {
    TW_CAPABILITY capability = {cap, TWON_ONEVALUE, GlobalAlloc(GHND, sizeof(TW_ONEVALUE))};
    if (!capability.hContainer)
        return TWRC_FAILURE;
    auto *value = static_cast<TW_ONEVALUE *>(GlobalLock(capability.hContainer));
    value->ItemType = itemType;
    value->Item = item;
    GlobalUnlock(capability.hContainer);
    const TW_UINT16 rc = Call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &capability);
    GlobalFree(capability.hContainer);
    return rc;
}

void DirectSession::Negotiate(const Scan &scan) {
    TW_FIX32 dpi = ToFix32(scan.dpi);
    TW_UINT32 dpiItem;
    std::memcpy(&dpiItem, &dpi, sizeof dpiItem);
    const struct {
        TW_UINT16 cap;
        TW_UINT16 itemType;
        TW_UINT32 item;
    } settings[] = {
        {ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY},
        {ICAP_PIXELTYPE, TWTY_UINT16, scan.format->pixelType},
        {ICAP_BITDEPTH, TWTY_UINT16, static_cast<TW_UINT32>(scan.format->bitDepth)},
        {ICAP_PLANARCHUNKY, TWTY_UINT16, static_cast<TW_UINT32>(scan.format->planar ? TWPC_PLANAR : TWPC_CHUNKY)},
        {ICAP_XRESOLUTION, TWTY_FIX32, dpiItem},
        {ICAP_YRESOLUTION, TWTY_FIX32, dpiItem},
        {ICAP_SUPPORTEDSIZES, TWTY_UINT16, TWSS_USLETTER},
    };
    for (const auto &setting : settings) {
        if (setting.cap == ICAP_PLANARCHUNKY && scan.format->pixelType != TWPT_RGB)
            continue;
        if (SetOneValue(setting.cap, setting.itemType, setting.item) != TWRC_SUCCESS)
            Fail("the source refused capability 0x%04X", setting.cap);
    }
}

void DirectSession::TransferImage(BufferSize size, StripSink &sink, std::vector<BYTE> *kept) {
    TW_USERINTERFACE ui = {FALSE, FALSE, window_};
    if (Call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui) != TWRC_SUCCESS)
        Fail("the source could not be enabled");
    const DWORD start = GetTickCount();
    for (bool ready = false; !ready;) {
        MSG msg;
        while (!ready && PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TW_EVENT event = {&msg, MSG_NULL};
            if (Call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event) == TWRC_DSEVENT) {
                ready = event.TWMessage == MSG_XFERREADY;
                continue;
            }
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        if (!ready && GetTickCount() - start > kEventTimeoutMs)
            Fail("the source announced no image");
        if (!ready)
            MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
    }

    TW_IMAGEINFO info = {};
    TW_SETUPMEMXFER setup = {};
    if (Call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS ||
        Call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &setup) != TWRC_SUCCESS)
        Fail("the source gave no image information or buffer sizes");
    const DWORD bytes = size == BufferSize::Maximum ? setup.MaxBufSize : setup.Preferred;
    HGLOBAL memory = nullptr;
    BYTE *buffer = nullptr;
    if (kept) {
        if (kept->size() < bytes)
            kept->resize(bytes);
        buffer = kept->data();
    } else {
        memory = GlobalAlloc(GHND, bytes);
        buffer = memory ? static_cast<BYTE *>(GlobalLock(memory)) : nullptr;
    }
    if (!buffer)
        Fail("no memory for a buffer of %lu bytes", static_cast<unsigned long>(bytes));
    sink.Begin(info);
    for (;;) {
        TW_IMAGEMEMXFER strip = {};
        strip.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
        strip.Memory.Length = bytes;
        strip.Memory.TheMem = buffer;
        const TW_UINT16 rc = Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
        if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE)
            Fail("the source failed a strip (return code %u)", rc);
        sink.Strip(strip, buffer);
        if (rc == TWRC_XFERDONE)
            break;
    }
    sink.End();
    if (memory) {
        GlobalUnlock(memory);
        GlobalFree(memory);
    }
    TW_PENDINGXFERS pending = {};
    Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
    Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui);
}

bool DirectSession::GetXResolution(double &current, double &minimum, double &maximum) {
    TW_CAPABILITY resolution = {ICAP_XRESOLUTION, TWON_DONTCARE16, nullptr};
    if (Call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, &resolution) != TWRC_SUCCESS)
        return false;
    const auto *list = static_cast<const TW_ENUMERATION *>(GlobalLock(resolution.hContainer));
    bool read = list && resolution.ConType == TWON_ENUMERATION && list->ItemType == TWTY_FIX32;
    if (read) {
        const auto *items = reinterpret_cast<const TW_FIX32 *>(list->ItemList);
        current = Fix32Value(items[list->CurrentIndex]);
        minimum = maximum = current;
        for (TW_UINT32 i = 0; i < list->NumItems; ++i) {
            const double item = Fix32Value(items[i]);
            minimum = item < minimum ? item : minimum;
            maximum = item > maximum ? item : maximum;
        }
    }
    GlobalUnlock(resolution.hContainer);
    GlobalFree(resolution.hContainer);

    TW_CAPABILITY units = {ICAP_UNITS, TWON_DONTCARE16, nullptr};
    if (Call(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, &units) != TWRC_SUCCESS)
        return false;
    const auto *unit = static_cast<const TW_ONEVALUE *>(GlobalLock(units.hContainer));
    read = read && unit && unit->Item == TWUN_INCHES;
    GlobalUnlock(units.hContainer);
    GlobalFree(units.hContainer);
    return read;
}

bool DirectSession::SetXResolution(double dpi) {
    const TW_FIX32 fixed = ToFix32(dpi);
    TW_UINT32 item;
    std::memcpy(&item, &fixed, sizeof item);
    return SetOneValue(ICAP_XRESOLUTION, TWTY_FIX32, item) == TWRC_SUCCESS;
}

} // namespace bench
