// Scan module construction and destruction, the global buffer, source-manager loading, the event filter, cancel flags.
#include <cstring>

#include "ScanModule.h"
#include "resource.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_1");
const char kDefaultTitle[] = "Calvex Scan Module";
const char kTwainLibrary[] = "TWAIN_32.DLL";
// The string resources are loaded into buffers of this many characters.
constexpr int kResourceTextSize = 256;
// The settings file beside the application's executable, and the SuppressTWAIN value that keeps transfers pending.
const char kSuppressSettingsFile[] = "CV_Scan.INI";
constexpr UINT kSuppressTransfers = 2;

} // namespace

TGlobalBuffer::TGlobalBuffer(DWORD bytes) : size(0), handle(nullptr), data(nullptr) {
    Alloc(bytes);
}

TGlobalBuffer::~TGlobalBuffer() {
    Free();
}

void TGlobalBuffer::Alloc(DWORD bytes) {
    if (handle && data)
        Free();
    if (bytes == 0)
        return;
    handle = GlobalAlloc(GHND, bytes);
    if (!handle)
        return;
    data = GlobalLock(handle);
    if (!data) {
        Free();
        return;
    }
    size = bytes;
}

void TGlobalBuffer::Free() {
    if (!handle)
        return;
    GlobalUnlock(handle);
    GlobalFree(handle);
    handle = nullptr;
    data = nullptr;
    size = 0;
}

TScanModule::TScanModule(HINSTANCE instance) {
    TraceStartup();
    TraceRecord(TraceLevel::Trace, kSource, 79, "         <<<<< Start Scan Module Diagnostic >>>>>      ");
    TraceRecord(TraceLevel::Trace, kSource, 80, "               ~~~~~~~~~~~~~~~~~~~~~~~~~~~~            ");
    TraceRecord(TraceLevel::Trace, kSource, 81, "                                                       ");
    TraceCall call(kSource, "TScanModule", 82, __LINE__);

    InitAppIdentity(instance);
    std::memset(&sourceIdentity, 0, sizeof sourceIdentity);
    moduleInstance = instance;
    // Outside the end message of a memory transfer the pending count reads 9999.
    pendingCount = 9999;
    sessionState = kStatePreSession;
    dsmLibrary = nullptr;
    dsmEntry = nullptr;
    showUI = TRUE;
    parentDisabled = FALSE;
    cancelThisXfer = FALSE;
    cancelAllXfer = FALSE;
    std::memset(&disabledWindows, 0, sizeof disabledWindows);
    parentWindow = GetDesktopWindow();
    lstrcpyA(appTitle, kDefaultTitle);
    brightnessMin = kDefaultBrightnessMin, brightnessMax = kDefaultBrightnessMax,
    brightnessStep = kDefaultBrightnessStep;
    contrastMin = kDefaultContrastMin, contrastMax = kDefaultContrastMax, contrastStep = kDefaultContrastStep;
    highlightMin = kDefaultHighlightMin, highlightMax = kDefaultHighlightMax, highlightStep = kDefaultHighlightStep;
    shadowMin = kDefaultShadowMin, shadowMax = kDefaultShadowMax, shadowStep = kDefaultShadowStep;
    thresholdMin = kDefaultThresholdMin, thresholdMax = kDefaultThresholdMax, thresholdStep = kDefaultThresholdStep;
    transferMechanism = kMechMemory;
    scanToFileActive = FALSE;
    std::memset(&scanToFileState, 0, sizeof scanToFileState);

    RegisterMessages(call);
    LoadTWAIN();
    call.Leave(__LINE__);
}

TScanModule::~TScanModule() {
    {
        TraceCall call(kSource, "~TScanModule", __LINE__, __LINE__);
        if (IsTWAINLoaded())
            UnloadTWAIN();
        call.Leave(__LINE__);
    }
    TraceRecord(TraceLevel::Trace, kSource, 281, "                                                     ");
    TraceRecord(TraceLevel::Trace, kSource, 282, "         <<<<< End Scan Module Diagnostic >>>>>      ");
    TraceRecord(TraceLevel::Trace, kSource, 283, "               ~~~~~~~~~~~~~~~~~~~~~~~~~~            ");
    TraceShutdown();
}

void TScanModule::InitAppIdentity(HINSTANCE instance) {
    char text[kResourceTextSize];
    char format[kResourceTextSize];
    std::memset(&appIdentity, 0, sizeof appIdentity);
    appIdentity.Id = 0;
    appIdentity.Version.MajorNum = 2;
    appIdentity.Version.MinorNum = 0;
    appIdentity.Version.Language = TWLG_USA;
    appIdentity.Version.Country = TWCY_USA;
    LoadStringA(instance, IDS_VERSION_FORMAT, format, sizeof format);
    wsprintfA(text, format, 2, 0);
    lstrcpyA(appIdentity.Version.Info, text);
    appIdentity.ProtocolMajor = 1;
    appIdentity.ProtocolMinor = 8;
    appIdentity.SupportedGroups = DG_CONTROL | DG_IMAGE;
    LoadStringA(instance, IDS_COMPANY, text, sizeof text);
    lstrcpyA(appIdentity.Manufacturer, text);
    lstrcpyA(appIdentity.ProductFamily, kDefaultTitle);
    lstrcpyA(appIdentity.ProductName, kDefaultTitle);
}

void TScanModule::RegisterMessages(const TraceCall &call) {
    static const char kFailure[] = "RegisterWindowMessage fails, Scan Module may not work properly";
    msgCloseDSReq = RegisterWindowMessageA(SM_MSG_CLOSEDSREQ);
    msgXferStart = RegisterWindowMessageA(SM_MSG_XFERSTART);
    msgXferData = RegisterWindowMessageA(SM_MSG_XFERDATA);
    msgXferEnd = RegisterWindowMessageA(SM_MSG_XFEREND);
    if (!msgCloseDSReq || !msgXferStart || !msgXferData || !msgXferEnd)
        call.Fatal(__LINE__, kFailure);
    msgScanToFileGetName = RegisterWindowMessageA(SM_MSG_SCANTOFILE_GETNAME);
    msgScanToFileXferEnd = RegisterWindowMessageA(SM_MSG_SCANTOFILE_XFEREND);
    msgScanToFileDSClosed = RegisterWindowMessageA(SM_MSG_SCANTOFILE_DSCLOSED);
    if (!msgScanToFileGetName || !msgScanToFileXferEnd || !msgScanToFileDSClosed)
        call.Fatal(__LINE__, kFailure);
}

void TScanModule::LoadTWAIN() {
    TraceCall call(kSource, "LoadTWAIN", 319, 363);
    if (IsTWAINLoaded())
        return;
    // Only the Windows directory is tried: not the system directory, not the search path.
    char directory[kWindowsDirectorySize];
    char path[kWindowsDirectorySize + sizeof kTwainLibrary + 1];
    GetWindowsDirectoryA(directory, sizeof directory);
    wsprintfA(path, "%s\\%s", directory, kTwainLibrary);
    dsmLibrary = LoadLibraryA(path);
    if (!dsmLibrary) {
        call.Warn(356, "LoadLibrary fails");
        dsmLibrary = nullptr;
        dsmEntry = nullptr;
        return;
    }
    dsmEntry = reinterpret_cast<DSMENTRYPROC>(reinterpret_cast<void *>(GetProcAddress(dsmLibrary, "DSM_Entry")));
    if (!dsmEntry) {
        call.Warn(342, "GetProcAddress fails");
        FreeLibrary(dsmLibrary);
        dsmLibrary = nullptr;
        dsmEntry = nullptr;
        return;
    }
    sessionState = kStateDsmLoaded;
}

BOOL TScanModule::IsTWAINLoaded() {
    TraceCall call(kSource, "IsTWAINLoaded", 373, 389);
    const BOOL loaded = dsmLibrary && dsmEntry;
    call.Note(388, loaded ? "TScanModule::IsTWAINLoaded returns TRUE" : "TScanModule::IsTWAINLoaded returns FALSE");
    return loaded;
}

void TScanModule::UnloadTWAIN() {
    TraceCall call(kSource, "UnloadTWAIN", 398, 418);
    // With the source manager still open (state 3 or more) the library stays loaded.
    if (sessionState != kStateDsmLoaded)
        return;
    FreeLibrary(dsmLibrary);
    sessionState = kStatePreSession;
    dsmLibrary = nullptr;
    dsmEntry = nullptr;
}

BOOL TScanModule::IsTWAINAvailable() {
    TraceCall call(kSource, "IsTWAINAvailable", 428, 444);
    BOOL available = TRUE;
    if (!IsTWAINLoaded()) {
        LoadTWAIN();
        available = IsTWAINLoaded();
    }
    call.Note(442,
              available ? "TScanModule::IsTWAINAvailable returns TRUE" : "TScanModule::IsTWAINAvailable returns FALSE");
    return available;
}

bool TScanModule::Available(const TraceCall &call, int warningLine) {
    if (IsTWAINAvailable())
        return true;
    call.Warn(warningLine, "TWAIN is not available");
    return false;
}

void TScanModule::CancelThisXfer() {
    cancelThisXfer = TRUE;
    cancelAllXfer = FALSE;
}

void TScanModule::CancelAllXfer() {
    cancelThisXfer = TRUE;
    cancelAllXfer = TRUE;
}

// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT: the source sees the message; its transfer-ready event runs the transfers
// (or, during a scan to file, the scan to file's processing), its close request goes to the application.
BOOL TScanModule::IsDSEvent(MSG *message) {
    if (sessionState < kStateSourceEnabled)
        return FALSE;
    TW_EVENT event = {message, MSG_NULL};
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
    switch (event.TWMessage) {
    case MSG_XFERREADY:
        TraceRecord(TraceLevel::Trace, kSource, __LINE__, "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY");
        if (scanToFileActive)
            ProcessZephraScanImage();
        else if (!TransfersSuppressed())
            ProcessScanImage();
        TraceRecord(TraceLevel::Trace, kSource, __LINE__, "Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY");
        break;
    case MSG_CLOSEDSREQ:
        TraceRecord(TraceLevel::Trace, kSource, __LINE__, "Coming TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ");
        if (scanToFileActive) {
            DisableDS();
            CloseScanToFileSource();
        } else {
            SendMessageA(parentWindow, msgCloseDSReq, 0, 0);
        }
        TraceRecord(TraceLevel::Trace, kSource, __LINE__, "Leaving TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ");
        break;
    default:
        break;
    }
    return rc == TWRC_DSEVENT;
}

// [Settings] SuppressTWAIN=2 in CV_Scan.INI beside the application's executable leaves the images pending for the
// application (smReadBlock); any other value, or no file, lets the module transfer them.
bool TScanModule::TransfersSuppressed() {
    char path[MAX_PATH + sizeof kSuppressSettingsFile] = "";
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    char *slash = std::strrchr(path, '\\');
    char *name = slash ? slash + 1 : path;
    lstrcpyA(name, kSuppressSettingsFile);
    return GetPrivateProfileIntA("Settings", "SuppressTWAIN", 0, path) == kSuppressTransfers;
}

// The transfer of every pending image by the mechanism the source has now (not the one the module last set).
void TScanModule::ProcessScanImage() {
    TraceCall call(kSource, "ProcessScanImage", __LINE__, __LINE__);
    // A failed query leaves no mechanism the loops know, and the memory transfer runs.
    WORD mechanism = 0;
    GetXferMech(&mechanism);
    if (mechanism == kMechNative)
        DoNativeXfer();
    else if (mechanism == kMechFile)
        DoFileXfer();
    else
        DoMemXfer();
}
