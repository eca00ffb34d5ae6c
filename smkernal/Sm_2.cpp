// The TWAIN session state machine (source manager and source open, enable, disable, close) and the default source.
#include <cstdio>
#include <cstring>

#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_2");
const char kDefaultTitle[] = "Calvex Scan Module";
const char kSourceListSection[] = "DS";
const char kSourceCountKey[] = "count";
const char kDefaultNameKey[] = "name0";
const char kFirstNameKey[] = "name1";
const char kNameKeyFormat[] = "name%d";
const char kTwainSection[] = "Twain";
const char kDefaultSourceKey[] = "Default Source";
constexpr int kPathSize = 260;
// Room for a decimal counter and a key built from one ("name" plus digits).
constexpr int kNumberTextSize = 16;
constexpr LONG kUserCancelled = -6;
constexpr LONG kNoMatchingSource = TWCC_BADDEST;

// True when `name` ends in ".ds", in any case.
bool IsSourceFile(const char *name) {
    const size_t length = std::strlen(name);
    return length >= 3 && lstrcmpiA(name + length - 3, ".ds") == 0;
}

bool IsPlainDirectory(const WIN32_FIND_DATAA &entry) {
    // A directory with any further attribute (read-only, hidden, archive...) counts as a file.
    return entry.dwFileAttributes == FILE_ATTRIBUTE_DIRECTORY && std::strcmp(entry.cFileName, ".") != 0 &&
           std::strcmp(entry.cFileName, "..") != 0;
}

} // namespace

TW_UINT16 TScanModule::CallDsm(pTW_IDENTITY dest, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data) {
    return dsmEntry(&appIdentity, dest, group, type, message, data);
}

// DG_CONTROL / DAT_PARENT / MSG_OPENDSM
LONG TScanModule::OpenDSM(HWND window) {
    TraceCall call(kSource, "OpenDSM", 111, 159);
    if (!Available(call, 117))
        return kNotAvailable;
    if (sessionState == kStateDsmOpen) {
        call.Warn(125, "Data Source Manager is already open");
        return 0;
    }
    if (sessionState != kStateDsmLoaded) {
        call.Warn(137, "Sequence error");
        return TWCC_SEQERROR;
    }
    if (CallDsm(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &window) != TWRC_SUCCESS) {
        call.Warn(153, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    sessionState = kStateDsmOpen;
    return 0;
}

// DG_CONTROL / DAT_PARENT / MSG_CLOSEDSM
LONG TScanModule::CloseDSM(HWND window) {
    TraceCall call(kSource, "CloseDSM", 703, 750);
    if (!Available(call, 709))
        return kNotAvailable;
    if (sessionState == kStateDsmLoaded) {
        call.Warn(717, "Data Source Manager is already closed");
        return 0;
    }
    if (sessionState != kStateDsmOpen) {
        call.Warn(725, "Sequence error");
        return TWCC_SEQERROR;
    }
    if (CallDsm(nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &window) != TWRC_SUCCESS) {
        call.Warn(744, "DSM_Entry returns failure");
        return GetTWAINStatusCode();
    }
    sessionState = kStateDsmLoaded;
    parentWindow = GetDesktopWindow();
    return 0;
}

// DG_CONTROL / DAT_STATUS / MSG_GET, always addressed to sourceIdentity.
LONG TScanModule::GetTWAINStatusCode() {
    TraceCall call(kSource, "GetTWAINStatusCode", 764, 788);
    if (!Available(call, 768))
        return kNotAvailable;
    TW_STATUS status = {};
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_STATUS, MSG_GET, &status) != TWRC_SUCCESS) {
        call.Warn(782, "DSM_Entry returns failure");
        return TWCC_BUMMER;
    }
    return status.ConditionCode;
}

// DG_CONTROL / DAT_IDENTITY / MSG_USERSELECT, inside its own source-manager session.
LONG TScanModule::SelectDS(HWND window) {
    TraceCall call(kSource, "SelectDS", 173, 232);
    if (!Available(call, 177))
        return kNotAvailable;
    if (!window) {
        call.Warn(188, "Invalid parent window handle");
        window = GetDesktopWindow();
    }
    const LONG opened = OpenDSM(window);
    if (opened != 0) {
        call.Warn(198, "OpenDSM returns failure");
        return opened;
    }
    std::memset(&sourceIdentity, 0, sizeof sourceIdentity);
    LONG result = 0;
    switch (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_USERSELECT, &sourceIdentity)) {
    case TWRC_SUCCESS:
        break;
    case TWRC_CANCEL:
        result = kUserCancelled;
        break;
    default:
        call.Warn(224, "DSM_Entry returns failure");
        result = GetTWAINStatusCode();
        break;
    }
    CloseDSM(window);
    return result;
}

// DG_CONTROL / DAT_IDENTITY / MSG_GETFIRST, MSG_GETNEXT, MSG_GETDEFAULT into section DS of `path`.
LONG TScanModule::GetAllDS(const char *path) {
    TraceCall call(kSource, "GetAllDS", 251, 323);
    int counter = 0;
    LONG result = kNotAvailable;
    if (Available(call, 255))
        result = ListSources(call, path, counter);
    CloseDSM(GetDesktopWindow());
    call.Leave();
    // The count is written on every path, so a failed call leaves "0".
    char count[kNumberTextSize];
    std::snprintf(count, sizeof count, "%d", counter == 0 ? 0 : counter - 1);
    WritePrivateProfileStringA(kSourceListSection, kSourceCountKey, count, path);
    return result;
}

LONG TScanModule::ListSources(const TraceCall &call, const char *path, int &counter) {
    // These failures name SelectDS, as they always have.
    static const char openFailure[] = "OpenDSM returns failure in TScanModule::SelectDS";
    const LONG opened = OpenDSM(GetDesktopWindow());
    if (opened != 0) {
        call.WarnText(269, openFailure);
        return opened;
    }
    TW_IDENTITY identity = {};
    if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, &identity) != TWRC_SUCCESS) {
        call.WarnText(281, openFailure);
        return 0;
    }
    WritePrivateProfileStringA(kSourceListSection, kFirstNameKey, identity.ProductName, path);
    counter = 2;
    // Only the end of the list stops the walk; a failed step still writes what it left.
    while (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETNEXT, &identity) != TWRC_ENDOFLIST) {
        char key[kNumberTextSize];
        std::snprintf(key, sizeof key, kNameKeyFormat, counter);
        WritePrivateProfileStringA(kSourceListSection, key, identity.ProductName, path);
        ++counter;
    }
    if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &identity) == TWRC_SUCCESS)
        WritePrivateProfileStringA(kSourceListSection, kDefaultNameKey, identity.ProductName, path);
    return 0;
}

// DG_CONTROL / DAT_IDENTITY / MSG_GETDEFAULT, then MSG_OPENDS: the source manager's default source.
LONG TScanModule::OpenDS(HWND window, const char *title) {
    TraceCall call(kSource, "OpenDS", 345, 448);
    if (!Available(call, 351))
        return kNotAvailable;
    parentWindow = window;
    if (!window) {
        call.Warn(363, "Invalid parent window handle");
        parentWindow = GetDesktopWindow();
    }
    if (sessionState == kStateSourceOpen) {
        call.Warn(372, "DS is already open");
        return 0;
    }
    // The application is renamed before the state is checked further, so even a refused call
    // renames it. Titles longer than the identity's field are cut to fit.
    lstrcpynA(appTitle, title ? title : kDefaultTitle, sizeof appTitle);
    lstrcpynA(appIdentity.ProductName, appTitle, sizeof appIdentity.ProductName);
    const LONG opened = OpenDSM(parentWindow);
    if (opened != 0) {
        call.Warn(402, "OpenDSM returns failure");
        return opened;
    }
    CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &sourceIdentity);
    if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &sourceIdentity) != TWRC_SUCCESS) {
        call.Warn(419, "DSM_Entry returns failure");
        const LONG status = GetTWAINStatusCode();
        CloseDSM(parentWindow);
        return status;
    }
    sessionState = kStateSourceOpen;
    if (GetDSBrightnessRange() == TWCC_OPERATIONERROR) {
        CloseDS();
        return TWCC_OPERATIONERROR;
    }
    return 0;
}

// DG_CONTROL / DAT_USERINTERFACE / MSG_ENABLEDS
LONG TScanModule::EnableDS(BOOL show, BOOL modal) {
    TraceCall call(kSource, "EnableDS", 463, 547);
    if (!Available(call, 469))
        return kNotAvailable;
    if (sessionState == kStateSourceEnabled) {
        call.Warn(477, "DS is already enabled");
        return 0;
    }
    if (sessionState != kStateSourceOpen) {
        call.Warn(485, "Sequence error");
        return TWCC_SEQERROR;
    }
    showUI = show;
    TW_USERINTERFACE ui = {LOWORD(show), LOWORD(modal), parentWindow};
    if (modal) {
        call.NoteIn(501, "To disable parent window");
        // Disabling the parent cannot fail: EnableWindow's answer is the window's previous state.
        if (parentWindow)
            disabledWindows.window = parentWindow;
        EnableWindow(disabledWindows.window, FALSE);
        call.NoteIn(505, "Disable parent window OK");
        parentDisabled = TRUE;
    }
    switch (CallDsm(&sourceIdentity, DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui)) {
    case TWRC_SUCCESS:
        sessionState = kStateSourceEnabled;
        return 0;
    case TWRC_CHECKSTATUS:
        call.Warn(527, "DSM_Entry returns check condition");
        sessionState = kStateSourceEnabled;
        return 0;
    default: {
        call.Warn(536, "DSM_Entry returns failure");
        const LONG status = GetTWAINStatusCode();
        if (parentDisabled) {
            parentDisabled = FALSE;
            EnableWindow(disabledWindows.window, TRUE);
        }
        return status;
    }
    }
}

// DG_CONTROL / DAT_USERINTERFACE / MSG_DISABLEDS; writes only its exit record.
LONG TScanModule::DisableDS() {
    TraceCall call(kSource, "DisableDS", 0, 620);
    if (!Available(call, 565))
        return kNotAvailable;
    LONG result = 0;
    if (sessionState == kStateSourceOpen) {
        call.Warn(573, "DS is already disabled");
    } else if (sessionState != kStateSourceEnabled) {
        call.Warn(581, "Sequence error");
        return TWCC_SEQERROR;
    } else {
        TW_USERINTERFACE ui = {FALSE, TRUE, parentWindow};
        if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui) != TWRC_SUCCESS) {
            call.Warn(603, "DSM_Entry returns failure");
            result = GetTWAINStatusCode();
        } else {
            sessionState = kStateSourceOpen;
            // A disabled source has no image left: one the block reader was still in is over.
            ForgetBlockReaderImage();
        }
    }
    if (result == 0 && parentDisabled) {
        parentDisabled = FALSE;
        EnableWindow(disabledWindows.window, TRUE);
        std::memset(&disabledWindows, 0, sizeof disabledWindows);
    }
    return result;
}

// DG_CONTROL / DAT_IDENTITY / MSG_CLOSEDS, then the source manager is closed too.
LONG TScanModule::CloseDS() {
    TraceCall call(kSource, "CloseDS", 633, 690);
    if (!Available(call, 639))
        return kNotAvailable;
    if (sessionState == kStateDsmOpen) {
        call.Warn(647, "DS is already closed");
    } else if (sessionState != kStateSourceOpen) {
        call.Warn(662, "Sequence error");
        return TWCC_SEQERROR;
    } else {
        if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &sourceIdentity) != TWRC_SUCCESS) {
            call.Warn(684, "DSM_Entry returns failure");
            return GetTWAINStatusCode();
        }
        sessionState = kStateDsmOpen;
    }
    CloseDSM(parentWindow);
    std::memset(&sourceIdentity, 0, sizeof sourceIdentity);
    return 0;
}

// Makes the source named `productName` the source manager's default through win.ini.
LONG TScanModule::SetDefaultDriver(HWND parent, const char *productName) {
    TraceCall call(kSource, "SetDefaultDriver", __LINE__, __LINE__);
    if (!Available(call, __LINE__))
        return kNotAvailable;
    if (!parent) {
        call.Warn(__LINE__, "Invalid parent window handle");
        parent = GetDesktopWindow();
    }
    const LONG opened = OpenDSM(parent);
    if (opened != 0) {
        call.Warn(__LINE__, "OpenDSM returns failure");
        return opened;
    }
    // A null name is compared as it is: lstrcmpiA orders it before every string, so it matches no source.
    LONG result = 0;
    if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &sourceIdentity) != TWRC_SUCCESS ||
        lstrcmpiA(productName, sourceIdentity.ProductName) != 0) {
        std::memset(&sourceIdentity, 0, sizeof sourceIdentity);
        char saved[kPathSize];
        GetProfileStringA(kTwainSection, kDefaultSourceKey, "", saved, sizeof saved);
        char windows[kPathSize];
        char directory[kPathSize];
        GetWindowsDirectoryA(windows, sizeof windows);
        std::snprintf(directory, sizeof directory, "%s\\twain_32", windows);
        result = SearchSourceDirectory(directory, productName);
        if (result != 0) {
            std::snprintf(directory, sizeof directory, "%s\\twain", windows);
            result = SearchSourceDirectory(directory, productName);
            if (result != 0)
                WriteProfileStringA(kTwainSection, kDefaultSourceKey, saved);
        }
    }
    CloseDSM(parent);
    call.Leave(__LINE__);
    return result;
}

// Points win.ini's default source at each source file below `directory` until the source
// manager's default has the wanted product name: 0 when found, 12 when not, else a condition code.
LONG TScanModule::SearchSourceDirectory(const char *directory, const char *productName) {
    TraceCall call(kSource, "SearchSourceDirectory", __LINE__, __LINE__);
    char path[kPathSize];
    std::snprintf(path, sizeof path, "%s\\*.*", directory);
    WIN32_FIND_DATAA entry;
    HANDLE listing = FindFirstFileA(path, &entry);
    LONG result = kNoMatchingSource;
    if (listing == INVALID_HANDLE_VALUE) {
        // The failed listing is closed all the same, as it always was.
        FindClose(listing);
        call.Leave(__LINE__);
        return result;
    }
    do {
        std::snprintf(path, sizeof path, "%s\\%s", directory, entry.cFileName);
        if (IsPlainDirectory(entry)) {
            result = SearchSourceDirectory(path, productName);
            if (result == 0)
                break;
        } else if (IsSourceFile(entry.cFileName)) {
            WriteProfileStringA(kTwainSection, kDefaultSourceKey, path);
            if (CallDsm(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, &sourceIdentity) != TWRC_SUCCESS) {
                call.WarnText(__LINE__, "DSM_Entry returns failure in TScanModule::SetDefaultDriver");
                result = GetTWAINStatusCode();
            } else if (lstrcmpiA(productName, sourceIdentity.ProductName) == 0) {
                result = 0;
                break;
            }
        }
    } while (FindNextFileA(listing, &entry));
    FindClose(listing);
    call.Leave(__LINE__);
    return result;
}
