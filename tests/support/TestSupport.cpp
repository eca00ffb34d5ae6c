// Test support: prefix files, the trace viewer stand-in, library loading and the stand-in source manager's controls.
#include "TestSupport.h"

#include "StandInDsm.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace smtest {

namespace {

const char kViewerClass[] = "KDVDiagXprt32";
const char kViewerMapping[] = "KDVDiagXprt32File";
constexpr UINT kTraceMessage = 0x1634;
constexpr DWORD kMappingSize = 64 * 1024;

TraceViewer *activeViewer = nullptr;

void Check(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "test support: %s failed (error %lu)\n", what, GetLastError());
        std::abort();
    }
}

} // namespace

std::string BinDir() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string dir(path);
    return dir.substr(0, dir.find_last_of('\\'));
}

std::string WindowsDir() {
    char dir[MAX_PATH];
    GetWindowsDirectoryA(dir, sizeof dir);
    return dir;
}

std::string TwainPath() {
    char path[MAX_PATH];
    TwainDllPath(path);
    return path;
}

void InstallDsm(Dsm which) {
    // In the order of Dsm: nothing, the stand-in, its variant without DSM_Entry.
    static const char *const files[] = {nullptr, "testdsm.dll", "testdsm_noentry.dll"};
    Check(PlaceTwainDll(files[static_cast<int>(which)]), "placing or removing TWAIN_32.DLL");
}

std::string DebugIniPath() {
    return WindowsDir() + "\\DEBUGSM.INI";
}

void WriteDebugIni(int trace, int warning) {
    const std::string path = DebugIniPath();
    DeleteFileA(path.c_str());
    Check(WritePrivateProfileStringA("Debug", "Trace", std::to_string(trace).c_str(), path.c_str()), "Trace=");
    Check(WritePrivateProfileStringA("Debug", "Warning", std::to_string(warning).c_str(), path.c_str()), "Warning=");
}

void DeleteDebugIni() {
    const std::string path = DebugIniPath();
    // Flush the profile cache before the file goes away.
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path.c_str());
    DeleteFileA(path.c_str());
}

std::string ReadDebugIni(const char *key) {
    char value[64];
    GetPrivateProfileStringA("Debug", key, "<missing>", value, sizeof value, DebugIniPath().c_str());
    return value;
}

const char *TwrcName(unsigned rc) {
    static const char *const names[] = {
        "TWRC_SUCCESS",    "TWRC_FAILURE",  "TWRC_CHECKSTATUS", "TWRC_CANCEL",           "TWRC_DSEVENT",
        "TWRC_NOTDSEVENT", "TWRC_XFERDONE", "TWRC_ENDOFLIST",   "TWRC_INFONOTSUPPORTED", "TWRC_DATANOTAVAILABLE"};
    return rc < sizeof names / sizeof *names ? names[rc] : "TWRC_(unknown)";
}

const char *TwccName(unsigned cc) {
    static const char *const names[] = {"TWCC_SUCCESS",
                                        "TWCC_BUMMER",
                                        "TWCC_LOWMEMORY",
                                        "TWCC_NODS",
                                        "TWCC_MAXCONNECTIONS",
                                        "TWCC_OPERATIONERROR",
                                        "TWCC_BADCAP",
                                        "TWCC_(7)",
                                        "TWCC_(8)",
                                        "TWCC_BADPROTOCOL",
                                        "TWCC_BADVALUE",
                                        "TWCC_SEQERROR",
                                        "TWCC_BADDEST",
                                        "TWCC_CAPUNSUPPORTED",
                                        "TWCC_CAPBADOPERATION",
                                        "TWCC_CAPSEQERROR",
                                        "TWCC_DENIED",
                                        "TWCC_FILEEXISTS",
                                        "TWCC_FILENOTFOUND",
                                        "TWCC_NOTEMPTY",
                                        "TWCC_PAPERJAM",
                                        "TWCC_PAPERDOUBLEFEED",
                                        "TWCC_FILEWRITEERROR",
                                        "TWCC_CHECKDEVICEONLINE"};
    return cc < sizeof names / sizeof *names ? names[cc] : "TWCC_(unknown)";
}

TraceLine ParseTraceLine(const std::string &raw) {
    TraceLine line;
    line.raw = raw;
    if (line.IsSeparator())
        return line;
    // "<Level> <source> <line>: [SM] <text>"
    const size_t levelEnd = raw.find(' ');
    const size_t marker = raw.find(": [SM] ");
    if (levelEnd == std::string::npos || marker == std::string::npos)
        return line;
    line.level = raw.substr(0, levelEnd);
    const size_t lineStart = raw.rfind(' ', marker - 1);
    line.source = raw.substr(levelEnd + 1, lineStart - levelEnd - 1);
    line.line = std::atoi(raw.substr(lineStart + 1, marker - lineStart - 1).c_str());
    line.text = raw.substr(marker + 7);
    return line;
}

TraceViewer::TraceViewer() = default;

TraceViewer::~TraceViewer() {
    Stop();
}

void TraceViewer::Start() {
    WNDCLASSA cls = {};
    cls.lpfnWndProc = Proc;
    cls.hInstance = GetModuleHandleA(nullptr);
    cls.lpszClassName = kViewerClass;
    RegisterClassA(&cls);
    mapping_ = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kMappingSize, kViewerMapping);
    Check(mapping_ != nullptr, "CreateFileMapping for the viewer");
    view_ = static_cast<char *>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    Check(view_ != nullptr, "MapViewOfFile for the viewer");
    window_ = CreateWindowA(kViewerClass, "Diagnostic viewer", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr,
                            GetModuleHandleA(nullptr), nullptr);
    Check(window_ != nullptr, "CreateWindow for the viewer");
    activeViewer = this;
}

void TraceViewer::Stop() {
    if (window_)
        DestroyWindow(window_);
    window_ = nullptr;
    if (view_)
        UnmapViewOfFile(view_);
    view_ = nullptr;
    if (mapping_)
        CloseHandle(mapping_);
    mapping_ = nullptr;
    UnregisterClassA(kViewerClass, GetModuleHandleA(nullptr));
    if (activeViewer == this)
        activeViewer = nullptr;
}

LRESULT CALLBACK TraceViewer::Proc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == kTraceMessage && activeViewer && activeViewer->view_) {
        // The viewer reads the record from its own view of the mapping, at offset 0.
        activeViewer->records_.push_back(ParseTraceLine(std::string(activeViewer->view_)));
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

std::vector<std::string> TraceViewer::Brief() const {
    std::vector<std::string> out;
    for (const TraceLine &record : records_)
        if (!record.IsSeparator())
            out.push_back(record.level + " " + std::to_string(record.line) + " " + record.text);
    return out;
}

std::vector<std::string> TraceViewer::Texts(const std::string &level) const {
    std::vector<std::string> out;
    for (const TraceLine &record : records_)
        if (record.level == level)
            out.push_back(record.text);
    return out;
}

int TraceViewer::CountText(const std::string &text) const {
    int count = 0;
    for (const TraceLine &record : records_)
        count += record.text == text;
    return count;
}

void ScanLibrary::Load() {
    Free();
    module_ = LoadLibraryA((BinDir() + "\\smkernal.dll").c_str());
    Check(module_ != nullptr, "loading smkernal.dll");
}

void ScanLibrary::Free() {
    if (module_)
        FreeLibrary(module_);
    module_ = nullptr;
}

FARPROC ScanLibrary::Proc(const char *name) const {
    return GetProcAddress(module_, name);
}

bool DsmControl::Open() {
    Close();
    module_ = LoadLibraryA(TwainPath().c_str());
    if (!module_)
        return false;
    auto get = [this](const char *name) { return reinterpret_cast<void *>(GetProcAddress(module_, name)); };
    reset_ = reinterpret_cast<TdsmResetProc>(get("TdsmReset"));
    count_ = reinterpret_cast<TdsmCallCountProc>(get("TdsmCallCount"));
    get_ = reinterpret_cast<TdsmGetCallProc>(get("TdsmGetCall"));
    fail_ = reinterpret_cast<TdsmFailTripletProc>(get("TdsmFailTriplet"));
    state_ = reinterpret_cast<TdsmStateProc>(get("TdsmState"));
    Check(reset_ && count_ && get_ && fail_ && state_, "resolving the stand-in's controls");
    return true;
}

void DsmControl::Close() {
    if (module_)
        FreeLibrary(module_);
    module_ = nullptr;
}

FARPROC DsmControl::Proc(const char *name) const {
    FARPROC proc = module_ ? GetProcAddress(module_, name) : nullptr;
    Check(proc != nullptr, name);
    return proc;
}

std::vector<TdsmCall> DsmControl::Calls() const {
    std::vector<TdsmCall> calls(count_());
    for (size_t i = 0; i < calls.size(); ++i)
        get_(static_cast<int>(i), &calls[i]);
    return calls;
}

namespace {

const char *GroupName(TW_UINT32 dg) {
    switch (dg) {
    case DG_CONTROL:
        return "DG_CONTROL";
    case DG_IMAGE:
        return "DG_IMAGE";
    default:
        return "DG_?";
    }
}

const char *TypeName(TW_UINT16 dat) {
    switch (dat) {
    case DAT_CAPABILITY:
        return "DAT_CAPABILITY";
    case DAT_EVENT:
        return "DAT_EVENT";
    case DAT_IDENTITY:
        return "DAT_IDENTITY";
    case DAT_PARENT:
        return "DAT_PARENT";
    case DAT_PENDINGXFERS:
        return "DAT_PENDINGXFERS";
    case DAT_SETUPMEMXFER:
        return "DAT_SETUPMEMXFER";
    case DAT_SETUPFILEXFER:
        return "DAT_SETUPFILEXFER";
    case DAT_STATUS:
        return "DAT_STATUS";
    case DAT_USERINTERFACE:
        return "DAT_USERINTERFACE";
    case DAT_IMAGEINFO:
        return "DAT_IMAGEINFO";
    case DAT_IMAGELAYOUT:
        return "DAT_IMAGELAYOUT";
    case DAT_IMAGEMEMXFER:
        return "DAT_IMAGEMEMXFER";
    case DAT_IMAGENATIVEXFER:
        return "DAT_IMAGENATIVEXFER";
    case DAT_IMAGEFILEXFER:
        return "DAT_IMAGEFILEXFER";
    case DAT_PALETTE8:
        return "DAT_PALETTE8";
    default:
        return "DAT_?";
    }
}

const char *MessageName(TW_UINT16 msg) {
    switch (msg) {
    case MSG_GET:
        return "MSG_GET";
    case MSG_GETCURRENT:
        return "MSG_GETCURRENT";
    case MSG_GETDEFAULT:
        return "MSG_GETDEFAULT";
    case MSG_GETFIRST:
        return "MSG_GETFIRST";
    case MSG_GETNEXT:
        return "MSG_GETNEXT";
    case MSG_SET:
        return "MSG_SET";
    case MSG_RESET:
        return "MSG_RESET";
    case MSG_OPENDSM:
        return "MSG_OPENDSM";
    case MSG_CLOSEDSM:
        return "MSG_CLOSEDSM";
    case MSG_OPENDS:
        return "MSG_OPENDS";
    case MSG_CLOSEDS:
        return "MSG_CLOSEDS";
    case MSG_USERSELECT:
        return "MSG_USERSELECT";
    case MSG_DISABLEDS:
        return "MSG_DISABLEDS";
    case MSG_ENABLEDS:
        return "MSG_ENABLEDS";
    case MSG_PROCESSEVENT:
        return "MSG_PROCESSEVENT";
    case MSG_ENDXFER:
        return "MSG_ENDXFER";
    default:
        return "MSG_?";
    }
}

} // namespace

std::string Describe(const TdsmCall &call) {
    return std::string(GroupName(call.dg)) + "/" + TypeName(call.dat) + "/" + MessageName(call.msg) + " -> " +
           TwrcName(call.rc);
}

bool IsLoaded(const std::string &path) {
    return GetModuleHandleA(path.c_str()) != nullptr;
}

namespace {

// Takes every free TLS index and gives them back: how many there were.
int FreeTlsIndexes() {
    std::vector<DWORD> taken;
    for (DWORD index = TlsAlloc(); index != TLS_OUT_OF_INDEXES; index = TlsAlloc())
        taken.push_back(index);
    for (DWORD index : taken)
        TlsFree(index);
    return static_cast<int>(taken.size());
}

} // namespace

int TlsIndexesKeptBy(const std::function<void()> &loadAndFree, int cycles) {
    const int before = FreeTlsIndexes();
    for (int cycle = 0; cycle < cycles; ++cycle)
        loadAndFree();
    return before - FreeTlsIndexes();
}

} // namespace smtest
