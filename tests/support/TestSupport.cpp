// Test support: prefix files, the trace viewer stand-in, library loading and the stand-in source manager's controls.
#include "TestSupport.h"

#include "GuardedBuffer.h"

#include "StandInDsm.h"

#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace smtest {

namespace {

using smk::kTraceMessage;
using smk::kViewerClass;
using smk::kViewerMapping;
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

bool FileExists(const std::string &path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string FileText(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string TwainPath() {
    char path[MAX_PATH];
    TwainDllPath(path);
    return path;
}

void InstallDsm(Dsm which) {
    // In the order of Dsm: nothing, the stand-in, its variant without DSM_Entry.
    static const char *const files[] = {nullptr, "testdsm.dll", "testdsm_noentry.dll"};
    PlaceFileOrStop(files[static_cast<int>(which)], TwainPath(), "test support");
}

std::string PlaceTwainDllOrExplain(const char *fileName, DWORD waitMs) {
    return PlaceFileOrExplain(fileName, TwainPath(), waitMs);
}

std::string PlaceFileOrExplain(const char *fileName, const std::string &target, DWORD waitMs) {
    if (PlaceFileWithin(fileName, target.c_str(), waitMs))
        return "";
    const DWORD error = GetLastError();
    // Named from the Windows directory on: "TWAIN_32.DLL", "twain_32\vscan.ds".
    const std::string windows = WindowsDir() + "\\";
    const bool inWindows = lstrcmpiA(target.substr(0, windows.size()).c_str(), windows.c_str()) == 0;
    const std::string name = inWindows ? target.substr(windows.size()) : target;
    return std::string(fileName ? "placing " : "removing ") + name + " failed (error " + std::to_string(error) +
           ") after waiting " + std::to_string(waitMs / 1000) + " s: " + ModuleHolders(target);
}

void PlaceFileOrStop(const char *fileName, const std::string &target, const char *who) {
    const std::string problem = PlaceFileOrExplain(fileName, target, SMT_TWAIN_WAIT_MS);
    if (!problem.empty()) {
        std::fprintf(stderr, "%s: %s\n", who, problem.c_str());
        std::abort();
    }
}

namespace {

// Calls `visit` with every process of the prefix but this one.
void ForEachOtherProcess(const std::function<void(const PROCESSENTRY32 &)> &visit) {
    HANDLE processes = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (processes == INVALID_HANDLE_VALUE)
        return;
    PROCESSENTRY32 process = {};
    process.dwSize = sizeof process;
    for (BOOL more = Process32First(processes, &process); more; more = Process32Next(processes, &process))
        if (process.th32ProcessID != GetCurrentProcessId())
            visit(process);
    CloseHandle(processes);
}

bool HasModuleLoaded(DWORD processId, const std::string &path) {
    HANDLE modules = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, processId);
    if (modules == INVALID_HANDLE_VALUE)
        return false;
    MODULEENTRY32 module = {};
    module.dwSize = sizeof module;
    bool found = false;
    for (BOOL more = Module32First(modules, &module); more && !found; more = Module32Next(modules, &module))
        found = lstrcmpiA(module.szExePath, path.c_str()) == 0;
    CloseHandle(modules);
    return found;
}

std::string ProcessName(const PROCESSENTRY32 &process) {
    return std::string(process.szExeFile) + " (pid " + std::to_string(process.th32ProcessID) + ")";
}

} // namespace

std::string TwainDllHolders() {
    return ModuleHolders(TwainPath());
}

std::string ModuleHolders(const std::string &path) {
    std::string holders;
    std::string others;
    ForEachOtherProcess([&](const PROCESSENTRY32 &process) {
        std::string &list = HasModuleLoaded(process.th32ProcessID, path) ? holders : others;
        list += (list.empty() ? "" : ", ") + ProcessName(process);
    });
    if (IsLoaded(path))
        holders = "this test program" + (holders.empty() ? "" : ", " + holders);
    if (!holders.empty())
        return "held by " + holders;
    return "no process has it loaded; running besides this test program: " + (others.empty() ? "nothing" : others);
}

HANDLE OpenChildOf(DWORD parentId, const std::string &exeName) {
    HANDLE child = nullptr;
    ForEachOtherProcess([&](const PROCESSENTRY32 &process) {
        if (!child && process.th32ParentProcessID == parentId && lstrcmpiA(process.szExeFile, exeName.c_str()) == 0)
            child = OpenProcess(SYNCHRONIZE, FALSE, process.th32ProcessID);
    });
    return child;
}

namespace {

// A function that reads the unmapped address 0x10 with one instruction of 5 bytes, then returns.
extern "C" void smtest_ReadUnmapped();
asm(".text\n"
    "_smtest_ReadUnmapped:\n"
    "\tmovl 0x10, %eax\n"
    "\tret\n");
constexpr DWORD kReadUnmappedLength = 5;

DWORD pageFaultCode = 0;

LONG CALLBACK RecordPageFault(EXCEPTION_POINTERS *info) {
    CONTEXT *context = info->ContextRecord;
    if (context->Eip != reinterpret_cast<DWORD>(&smtest_ReadUnmapped))
        return EXCEPTION_CONTINUE_SEARCH;
    pageFaultCode = info->ExceptionRecord->ExceptionCode;
    context->Eip += kReadUnmappedLength;
    return EXCEPTION_CONTINUE_EXECUTION;
}

} // namespace

DWORD PageFaultExceptionCode() {
    pageFaultCode = 0;
    PVOID handler = AddVectoredExceptionHandler(1, RecordPageFault);
    smtest_ReadUnmapped();
    RemoveVectoredExceptionHandler(handler);
    return pageFaultCode;
}

std::string RunMode() {
    char mode[256];
    const DWORD length = GetEnvironmentVariableA("SMK_I386_MODE", mode, sizeof mode);
    return length > 0 && length < sizeof mode ? std::string(mode, length) : std::string();
}

namespace {

char crashNote[512] = "";

} // namespace

void SetCrashNote(const std::string &note) {
    lstrcpynA(crashNote, note.c_str(), sizeof crashNote);
}

const char *CrashNote() {
    return crashNote;
}

int RunChildRole(const char *argument, LPTOP_LEVEL_EXCEPTION_FILTER crashFilter) {
    const std::string role = argument + std::strlen(kChildRolePrefix);
    const std::string notedRole = "crash-noted:";
    const bool noted = role.compare(0, notedRole.size(), notedRole) == 0;
    if (noted)
        SetCrashNote(role.substr(notedRole.size()));
    if (role == "crash" || noted)
        SetUnhandledExceptionFilter(crashFilter);
    if (role == "crash" || role == "crash-unfiltered" || noted)
        __builtin_trap();
    if (role == "write-past-guarded-buffer") {
        GuardedBuffer buffer(100);
        buffer.Data()[99] = 1;
        std::fprintf(stderr, "the last byte was written\n");
        std::fflush(stderr);
        buffer.Data()[100] = 1;
        return 0;
    }
    const std::string hold = "hold-twain:";
    if (role.compare(0, hold.size(), hold) == 0) {
        const size_t colon = role.find(':', hold.size());
        if (colon == std::string::npos)
            return 4;
        const DWORD ms = std::strtoul(role.substr(hold.size(), colon - hold.size()).c_str(), nullptr, 10);
        HMODULE twain = LoadLibraryA(TwainPath().c_str());
        HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, role.substr(colon + 1).c_str());
        if (!twain || !event)
            return 3;
        SetEvent(event);
        Sleep(ms);
        // Reset before the library goes: whoever removes the file after that sees the event reset.
        ResetEvent(event);
        CloseHandle(event);
        FreeLibrary(twain);
        return 0;
    }
    const std::string wait = "wait-event:";
    if (role.compare(0, wait.size(), wait) == 0) {
        HANDLE event = CreateEventA(nullptr, TRUE, FALSE, role.substr(wait.size()).c_str());
        if (!event)
            return 3;
        SetEvent(event);
        DWORD waited = 0;
        while (WaitForSingleObject(event, 0) == WAIT_OBJECT_0 && waited < 60000) {
            Sleep(10);
            waited += 10;
        }
        CloseHandle(event);
        return waited < 60000 ? 0 : 1;
    }
    std::fprintf(stderr, "test program: no child role %s\n", role.c_str());
    return 4;
}

ChildProgram::ChildProgram(const std::string &role) {
    char exe[MAX_PATH];
    char temp[MAX_PATH];
    char output[MAX_PATH];
    GetModuleFileNameA(nullptr, exe, sizeof exe);
    GetTempPathA(sizeof temp, temp);
    if (!GetTempFileNameA(temp, "smk", 0, output))
        return;
    outputPath_ = output;
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    HANDLE file = CreateFileA(output, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherited,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = file;
    startup.hStdError = file;
    std::string command = std::string("\"") + exe + "\" " + kChildRolePrefix + role;
    PROCESS_INFORMATION info = {};
    if (CreateProcessA(exe, &command[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info)) {
        process_ = info.hProcess;
        id_ = info.dwProcessId;
        CloseHandle(info.hThread);
    }
    CloseHandle(file);
}

ChildProgram::~ChildProgram() {
    if (process_) {
        if (!Ended(0)) {
            TerminateProcess(process_, 1);
            WaitForSingleObject(process_, SMT_TWAIN_WAIT_MS);
        }
        CloseHandle(process_);
    }
    if (!outputPath_.empty())
        DeleteFileA(outputPath_.c_str());
}

bool ChildProgram::Ended(DWORD waitMs) {
    return process_ && WaitForSingleObject(process_, waitMs) == WAIT_OBJECT_0;
}

DWORD ChildProgram::ExitCode() const {
    DWORD code = STILL_ACTIVE;
    if (process_)
        GetExitCodeProcess(process_, &code);
    return code;
}

std::string ChildProgram::Output() const {
    std::string text;
    HANDLE file = CreateFileA(outputPath_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return text;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0)
        text.append(buffer, read);
    CloseHandle(file);
    return text;
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

std::vector<std::string> FilesIn(const std::string &directory) {
    std::vector<std::string> names;
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((directory + "\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return names;
    do {
        if (std::strcmp(found.cFileName, ".") != 0 && std::strcmp(found.cFileName, "..") != 0)
            names.push_back(found.cFileName);
    } while (FindNextFileA(search, &found));
    FindClose(search);
    std::sort(names.begin(), names.end());
    return names;
}

SuppressSetting::SuppressSetting(int value) : path_(BinDir() + "\\CV_Scan.INI") {
    WritePrivateProfileStringA("Settings", "SuppressTWAIN", std::to_string(value).c_str(), path_.c_str());
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path_.c_str());
}

SuppressSetting::~SuppressSetting() {
    WritePrivateProfileStringA("Settings", "SuppressTWAIN", nullptr, path_.c_str());
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path_.c_str());
    DeleteFileA(path_.c_str());
}

UINT SuppressSetting::Value() const {
    return GetPrivateProfileIntA("Settings", "SuppressTWAIN", 0, path_.c_str());
}

std::string TripletName(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    return std::string(GroupName(dg)) + "/" + TypeName(dat) + "/" + MessageName(msg);
}

const char *CapabilityName(TW_UINT16 cap) {
    switch (cap) {
    case CAP_XFERCOUNT:
        return "CAP_XFERCOUNT";
    case CAP_FEEDERENABLED:
        return "CAP_FEEDERENABLED";
    case CAP_FEEDERLOADED:
        return "CAP_FEEDERLOADED";
    case CAP_UICONTROLLABLE:
        return "CAP_UICONTROLLABLE";
    case ICAP_PIXELTYPE:
        return "ICAP_PIXELTYPE";
    case ICAP_BITDEPTH:
        return "ICAP_BITDEPTH";
    case ICAP_XRESOLUTION:
        return "ICAP_XRESOLUTION";
    case ICAP_YRESOLUTION:
        return "ICAP_YRESOLUTION";
    case ICAP_XSCALING:
        return "ICAP_XSCALING";
    case ICAP_YSCALING:
        return "ICAP_YSCALING";
    case ICAP_BRIGHTNESS:
        return "ICAP_BRIGHTNESS";
    case ICAP_CONTRAST:
        return "ICAP_CONTRAST";
    case ICAP_HIGHLIGHT:
        return "ICAP_HIGHLIGHT";
    case ICAP_SHADOW:
        return "ICAP_SHADOW";
    case ICAP_XFERMECH:
        return "ICAP_XFERMECH";
    case ICAP_UNITS:
        return "ICAP_UNITS";
    case ICAP_PHYSICALWIDTH:
        return "ICAP_PHYSICALWIDTH";
    case ICAP_PHYSICALHEIGHT:
        return "ICAP_PHYSICALHEIGHT";
    default:
        return "ICAP_(other)";
    }
}

std::string Describe(const TdsmCall &call) {
    return TripletName(call.dg, call.dat, call.msg) + " -> " + TwrcName(call.rc);
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
