// The one virtual scanner of this module: defaults, resets, the batch of images and the announcing of events.
#include "Source.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>

#include "Caps.h"
#include "Settings.h"
#include "Ui.h"

namespace vscan {

namespace {

HINSTANCE moduleInstance = nullptr;
Source theSource;
bool sourceReady = false; // TheSource() filled it in
constexpr int kDefaultPages = 3;
const char kDefaultFileName[] = "TWAIN.TMP";
const char kNotifyName[] = "smkernal virtual scanner event";
TW_UINT16 lastAgainToken = 0; // of the latest MSG_XFERREADY announced again, in this module's life

void DefaultIdentity(TW_IDENTITY &id) {
    std::memset(&id, 0, sizeof id);
    id.Version.MajorNum = 1;
    id.Version.MinorNum = 0;
    id.Version.Language = TWLG_USA;
    id.Version.Country = TWCY_USA;
    CopyText(id.Version.Info, sizeof id.Version.Info, "1.0 virtual scanner");
    id.ProtocolMajor = TWON_PROTOCOLMAJOR;
    id.ProtocolMinor = TWON_PROTOCOLMINOR;
    id.SupportedGroups = DG_CONTROL | DG_IMAGE;
    CopyText(id.Manufacturer, sizeof id.Manufacturer, "smkernal project");
    CopyText(id.ProductFamily, sizeof id.ProductFamily, "Virtual Devices");
    CopyText(id.ProductName, sizeof id.ProductName, "Virtual Scanner");
}

int Pixels(double inches, double resolution, double scaling) {
    return std::max(1, static_cast<int>(RoundHalfAway(inches * resolution * scaling)));
}

// The sheets the feeder file keeps; false when there is no file or no number in it.
bool ReadFeederFile(int &sheets) {
    std::ifstream file(PathBesideModule(VSCAN_FEEDER_FILE));
    int value = -1;
    if (!(file >> value) || value < 0)
        return false;
    sheets = value;
    return true;
}

void WriteFeederFile(int sheets) {
    std::ofstream(PathBesideModule(VSCAN_FEEDER_FILE), std::ios::trunc) << sheets << '\n';
}

void PostNotice(const Source &s, TW_UINT16 event, TW_UINT16 token) {
    const LPARAM lParam = MAKELPARAM(event, token);
    if (s.parent)
        PostMessageA(s.parent, NotifyMessage(), kNotifyTag, lParam);
    else
        PostThreadMessageA(s.thread, NotifyMessage(), kNotifyTag, lParam);
}

} // namespace

void CopyText(char *to, size_t size, const char *from) {
    std::memset(to, 0, size);
    std::strncpy(to, from, size - 1);
}

TW_UINT16 Fail(TW_UINT16 &cc, TW_UINT16 code) {
    cc = code;
    return TWRC_FAILURE;
}

TW_SETUPFILEXFER DefaultFileXfer() {
    TW_SETUPFILEXFER setup{};
    CopyText(setup.FileName, sizeof setup.FileName, kDefaultFileName);
    setup.Format = TWFF_BMP;
    return setup;
}

Source &TheSource() {
    if (!sourceReady) {
        sourceReady = true;
        ResetAll(theSource);
    }
    return theSource;
}

HINSTANCE ModuleInstance() {
    return moduleInstance;
}

void ResetNegotiation(Source &s) {
    ResetCaps(s);
    s.frame = Frame{0, 0, kBedWidth, kBedHeight};
    s.fileXfer = DefaultFileXfer();
    FillFeeder(s);
    s.batch.clear();
    s.imagesStarted = 0;
    s.imagesDone = 0;
    s.xfer = Transfer{};
    s.events.clear();
    s.againToken = 0;
    s.closeRequested = false;
}

void ResetAll(Source &s) {
    DestroyUi(s);
    s = Source{};
    DefaultIdentity(s.identity);
    s.pages = kDefaultPages;
    s.faults[VSCAN_FAULT_CLOSEREQUESTAFTER] = VSCAN_CLOSEREQUEST_OFF;
    s.faults[VSCAN_FAULT_IMAGEPIXELTYPE] = VSCAN_IMAGEPIXELTYPE_OFF;
    s.faults[VSCAN_FAULT_STRIPROWS] = VSCAN_STRIPROWS_OFF;
    ResetAnswers(s);
    ResetNegotiation(s);
    s.settingsKeys = LoadSettings(s, DefaultSettingsPath());
}

UINT NotifyMessage() {
    static const UINT message = RegisterWindowMessageA(kNotifyName);
    return message;
}

void Announce(Source &s, TW_UINT16 event) {
    s.events.push_back(event);
    PostNotice(s, event, 0);
}

void AnnounceXferReadyAgain(Source &s) {
    if (++lastAgainToken == 0)
        ++lastAgainToken; // 0 marks the queued notices
    s.againToken = lastAgainToken;
    PostNotice(s, MSG_XFERREADY, s.againToken);
}

void RequestClose(Source &s) {
    if (s.closeRequested)
        return;
    s.closeRequested = true;
    Announce(s, MSG_CLOSEDSREQ);
}

void StartBatch(Source &s) {
    s.batch.clear();
    s.xfer = Transfer{};
    const std::vector<double> &dataset = s.caps[ICAP_IMAGEDATASET].current;
    s.batchFromFeeder = dataset.empty() && CapValue(s, CAP_FEEDERENABLED) != 0;
    if (!dataset.empty()) {
        for (double page : dataset)
            s.batch.push_back(static_cast<int>(page));
    } else if (s.batchFromFeeder) {
        for (int page = s.pages - s.sheetsLeft + 1; page <= s.pages; ++page)
            s.batch.push_back(page);
    } else {
        s.batch.push_back(1); // the flatbed: one page
    }
    const int limit = static_cast<int>(CapValue(s, CAP_XFERCOUNT));
    if (limit > 0 && static_cast<int>(s.batch.size()) > limit)
        s.batch.resize(limit);
}

bool EndImage(Source &s) {
    if (s.batch.empty())
        return false;
    s.batch.pop_front();
    if (s.batchFromFeeder && s.sheetsLeft > 0) {
        --s.sheetsLeft;
        KeepFeeder(s);
    }
    ++s.imagesDone;
    s.xfer = Transfer{};
    return true;
}

void FillFeeder(Source &s) {
    s.sheetsLeft = s.pages;
    if (!s.faults[VSCAN_FAULT_KEEPFEEDER])
        return;
    int kept = 0;
    if (ReadFeederFile(kept)) {
        s.sheetsLeft = kept;
        s.pages = std::max(s.pages, kept); // the sheets left stay the last pages of 1..pages
    } else {
        WriteFeederFile(s.sheetsLeft);
    }
}

void KeepFeeder(const Source &s) {
    if (s.faults[VSCAN_FAULT_KEEPFEEDER])
        WriteFeederFile(s.sheetsLeft);
}

int PendingCount(const Source &s) {
    return s.state >= VSCAN_STATE_XFERREADY ? static_cast<int>(s.batch.size()) : 0;
}

double XResolution(const Source &s) {
    return CapValue(s, ICAP_XRESOLUTION);
}

double YResolution(const Source &s) {
    return CapValue(s, ICAP_YRESOLUTION);
}

PageFormat NegotiatedFormat(const Source &s) {
    PageFormat f;
    f.width = Pixels(s.frame.right - s.frame.left, XResolution(s), CapValue(s, ICAP_XSCALING));
    f.height = Pixels(s.frame.bottom - s.frame.top, YResolution(s), CapValue(s, ICAP_YSCALING));
    f.page = s.batch.empty() ? 1 : s.batch.front();
    f.pixelType = static_cast<int>(CapValue(s, ICAP_PIXELTYPE));
    f.bitDepth = static_cast<int>(CapValue(s, ICAP_BITDEPTH));
    f.planar = f.pixelType == TWPT_RGB && CapValue(s, ICAP_PLANARCHUNKY) == TWPC_PLANAR;
    f.threshold = static_cast<int>(RoundHalfAway(CapValue(s, ICAP_THRESHOLD)));
    f.vanilla = CapValue(s, ICAP_PIXELFLAVOR) == TWPF_VANILLA;
    f.repeatRows = std::max(0, s.faults[VSCAN_FAULT_REPEATROWS]);
    return f;
}

uint32_t StripBytesPerRow(const Source &s, const PageFormat &f) {
    const uint32_t row = MemoryBytesPerRow(f);
    const int align = s.faults[VSCAN_FAULT_ROWALIGN];
    if (align <= 1)
        return row;
    const uint32_t step = static_cast<uint32_t>(align);
    return (row + step - 1) / step * step;
}

} // namespace vscan

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) {
        vscan::moduleInstance = instance;
        DisableThreadLibraryCalls(instance);
    } else if (reason == DLL_PROCESS_DETACH && !reserved) {
        // Unloaded by FreeLibrary: the process, its windows and classes go on without our code.
        vscan::UnloadUi(vscan::sourceReady ? &vscan::theSource : nullptr, instance);
    }
    return TRUE;
}
