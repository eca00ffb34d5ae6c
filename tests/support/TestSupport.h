// Test support: the prefix's files, a trace viewer stand-in, the library under test and the stand-in source manager.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TraceChannel.h"
#include "testdsm.h"
#include "twain1x.h"

namespace smtest {

// Directory of the running test program, where the build puts every DLL.
std::string BinDir();
// The Windows directory of the test prefix (C:\windows).
std::string WindowsDir();
// Full path of TWAIN_32.DLL in the Windows directory, the one place the library loads it from.
std::string TwainPath();

enum class Dsm { Absent, Present, WithoutEntry };
// Puts the stand-in source manager (or its broken variant) in the Windows directory, or removes it. While another
// process holds the file, it waits for that process to go; when it gives up, it names the holder and stops the test
// program.
void InstallDsm(Dsm which);
// Places `fileName` from the bin directory as TWAIN_32.DLL (NULL: removes it), waiting up to `waitMs` for a process
// that holds the file. "" on success, else what went wrong and who holds the file.
std::string PlaceTwainDllOrExplain(const char *fileName, DWORD waitMs);
// The same for any file of the prefix: `fileName` from the bin directory as `target` (a full path; NULL: removes it).
std::string PlaceFileOrExplain(const char *fileName, const std::string &target, DWORD waitMs);
// PlaceFileOrExplain with the usual wait of a minute; when it gives up, `who` and the explanation go to stderr and the
// test program stops.
void PlaceFileOrStop(const char *fileName, const std::string &target, const char *who);
// The processes that have TWAIN_32.DLL of the Windows directory loaded, as "name.exe (pid N)", comma-separated;
// when none has, the other programs running in the prefix.
std::string TwainDllHolders();
// The same for the module at `path`.
std::string ModuleHolders(const std::string &path);
// A process of the program file `exeName` (no directory) started by the process `parentId`, opened to be waited for;
// null when there is none.
HANDLE OpenChildOf(DWORD parentId, const std::string &exeName);

// The exception code that a read of an unmapped address raises in this process: EXCEPTION_ACCESS_VIOLATION where
// 32-bit code runs natively. qemu-user hands Wine such a fault without its trap number, and Wine then raises
// EXCEPTION_ILLEGAL_INSTRUCTION, which no handler for page faults catches.
DWORD PageFaultExceptionCode();
// How the test command runs 32-bit code, as scripts/wine-prefix found it ("native", "emulated ..."), from the
// environment wine-run gives; "" outside it.
std::string RunMode();

// The test bench's child roles: a test program started with kChildRolePrefix + role as its first argument plays that
// role instead of running tests. Roles: "crash" (ends in an illegal instruction with the test programs' crash
// filter), "crash-unfiltered" (the same without it), "crash-noted:<note>" (the same as "crash" with <note> set as the
// crash note), "write-past-guarded-buffer" (writes the byte after a GuardedBuffer of 100 bytes, after its last one),
// "hold-twain:<ms>:<event>" (loads TWAIN_32.DLL, sets the named event, holds the library for <ms> milliseconds, resets
// the event and frees the library), "wait-event:<event>" (sets the named event, made when there is none, and waits
// until it is reset again, up to a minute; exit code 0, or 1 when the minute passed).
constexpr char kChildRolePrefix[] = "--smk-child=";
// What the crash filter of the test programs writes to stderr before the exception's code.
constexpr char kCrashBanner[] = "test program: unhandled exception";
int RunChildRole(const char *argument, LPTOP_LEVEL_EXCEPTION_FILTER crashFilter);
// What the crash filter prints on a line of its own before the exception's code: what the program was doing, e.g. the
// case a long run was in and how to replay it alone ("" prints nothing). Kept in a fixed buffer (cut to 511
// characters), so that the filter needs no memory.
void SetCrashNote(const std::string &note);
const char *CrashNote();
// The line the crash filter prints for a note.
constexpr char kCrashNoteBanner[] = "test program: crashed in";

// This test program started again in a child role, its stderr in a file.
class ChildProgram {
public:
    explicit ChildProgram(const std::string &role);
    ~ChildProgram();
    ChildProgram(const ChildProgram &) = delete;
    ChildProgram &operator=(const ChildProgram &) = delete;
    bool Started() const { return process_ != nullptr; }
    DWORD Id() const { return id_; }
    // True once it has ended, waiting up to `waitMs`.
    bool Ended(DWORD waitMs);
    DWORD ExitCode() const;
    // What it wrote to stderr so far.
    std::string Output() const;

private:
    HANDLE process_ = nullptr;
    DWORD id_ = 0;
    std::string outputPath_;
};

// DEBUGSM.INI in the Windows directory.
std::string DebugIniPath();
void WriteDebugIni(int trace, int warning);
void DeleteDebugIni();
// The value of [Debug] `key` in DEBUGSM.INI, or "<missing>".
std::string ReadDebugIni(const char *key);

// Names for failure messages.
const char *TwrcName(unsigned rc);
const char *TwccName(unsigned cc);

// One trace record as the viewer received it, and its parts (shared with smtrace).
using smk::TraceLine;

// A stand-in for the diagnostic viewer: the window class, the shared mapping and the message.
// Start it before loading the library; it records every record sent to it.
class TraceViewer {
public:
    TraceViewer();
    ~TraceViewer();
    void Start();
    void Stop();
    bool Running() const { return window_ != nullptr; }
    const std::vector<TraceLine> &Records() const { return records_; }
    void Clear() { records_.clear(); }
    // Records without separators, as "Level line text" for compact assertions.
    std::vector<std::string> Brief() const;
    // The texts of the records of one level ("Trace", "Warning", "Fatal").
    std::vector<std::string> Texts(const std::string &level) const;
    int CountText(const std::string &text) const;

private:
    static LRESULT CALLBACK Proc(HWND, UINT, WPARAM, LPARAM);
    HWND window_ = nullptr;
    HANDLE mapping_ = nullptr;
    char *view_ = nullptr;
    std::vector<TraceLine> records_;
};

using smk::ParseTraceLine;

typedef BOOL(WINAPI *IsTWAINAvailableProc)();

// smkernal.dll, loaded as an application loads it; each load constructs a fresh scan module.
class ScanLibrary {
public:
    ~ScanLibrary() { Free(); }
    void Load();
    void Free();
    HMODULE Module() const { return module_; }
    FARPROC Proc(const char *name) const;
    template <typename T> T Get(const char *name) const {
        return reinterpret_cast<T>(reinterpret_cast<void *>(Proc(name)));
    }
    // smIsTWAINAvailable of the loaded library.
    BOOL Available() const { return Get<IsTWAINAvailableProc>("smIsTWAINAvailable")(); }

private:
    HMODULE module_ = nullptr;
};

// The stand-in source manager's control exports, through the same file the library loads.
class DsmControl {
public:
    ~DsmControl() { Close(); }
    // Loads C:\windows\TWAIN_32.DLL; returns false when it is not there.
    bool Open();
    void Close();
    void Reset() { reset_(); }
    std::vector<TdsmCall> Calls() const;
    void FailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
        fail_(dg, dat, msg, rc, cc);
    }
    int State() const { return state_(); }
    // Any export of the stand-in (testdsm.h), resolved on use; a missing one stops the test program.
    FARPROC Proc(const char *name) const;
    template <typename T> T Get(const char *name) const {
        return reinterpret_cast<T>(reinterpret_cast<void *>(Proc(name)));
    }
    DSMENTRYPROC Entry() const { return Get<DSMENTRYPROC>("DSM_Entry"); }
    void FailTripletOnce(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
        Get<TdsmFailTripletOnceProc>("TdsmFailTripletOnce")(dg, dat, msg, rc, cc);
    }
    void FailTripletFrom(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc, int nth) {
        Get<TdsmFailTripletFromProc>("TdsmFailTripletFrom")(dg, dat, msg, rc, cc, nth);
    }
    int AddSource(const char *productName, const char *dsPath) {
        return Get<TdsmAddSourceProc>("TdsmAddSource")(productName, dsPath);
    }
    void ClearSources() { Get<TdsmClearSourcesProc>("TdsmClearSources")(); }
    void UseDirectory(const char *directory) { Get<TdsmUseDirectoryProc>("TdsmUseDirectory")(directory); }
    void SelectByName(const char *productName) { Get<TdsmSelectByNameProc>("TdsmSelectByName")(productName); }
    void SelectByIndex(int index) { Get<TdsmSelectByIndexProc>("TdsmSelectByIndex")(index); }
    void SelectCancel() { Get<TdsmSelectCancelProc>("TdsmSelectCancel")(); }
    void SelectCancelLeaving(const char *productName) {
        Get<TdsmSelectCancelLeavingProc>("TdsmSelectCancelLeaving")(productName);
    }
    int OpenSourceCount() const { return Get<TdsmOpenSourceCountProc>("TdsmOpenSourceCount")(); }

private:
    HMODULE module_ = nullptr;
    TdsmResetProc reset_ = nullptr;
    TdsmCallCountProc count_ = nullptr;
    TdsmGetCallProc get_ = nullptr;
    TdsmFailTripletProc fail_ = nullptr;
    TdsmStateProc state_ = nullptr;
};

// "DG_CONTROL/DAT_PARENT/MSG_OPENDSM -> TWRC_SUCCESS" for assertions on logged calls.
std::string Describe(const TdsmCall &call);
// "DG_CONTROL/DAT_PARENT/MSG_OPENDSM".
std::string TripletName(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg);
// "ICAP_XFERMECH" for the capabilities the module negotiates, "ICAP_(other)" for the rest.
const char *CapabilityName(TW_UINT16 cap);

// The names of the files (and directories) in `directory`, sorted; none when it does not exist.
std::vector<std::string> FilesIn(const std::string &directory);
// True when a file or directory stands at `path`.
bool FileExists(const std::string &path);
// The whole of the file at `path`, byte for byte; "" when it cannot be read.
std::string FileText(const std::string &path);

// True when the module at `path` is loaded in this process.
bool IsLoaded(const std::string &path);

// The TLS indexes still taken after `cycles` runs of `loadAndFree` (a LoadLibrary and FreeLibrary of DLLs that are
// loaded already once, so that no system DLL comes in for good meanwhile). A process has 1088 of them.
int TlsIndexesKeptBy(const std::function<void()> &loadAndFree, int cycles = 20);

// CV_Scan.INI beside the test program with [Settings] SuppressTWAIN; removed again, key first, so that no cached copy
// of the file can keep the key alive for later tests.
class SuppressSetting {
public:
    explicit SuppressSetting(int value);
    ~SuppressSetting();
    SuppressSetting(const SuppressSetting &) = delete;
    SuppressSetting &operator=(const SuppressSetting &) = delete;
    // What the settings file beside the program says now.
    UINT Value() const;

private:
    std::string path_;
};

// Runs `undo` when the scope ends, also when a failed assertion returns early.
template <typename Undo> class ScopeExit {
public:
    explicit ScopeExit(Undo undo) : undo_(std::move(undo)) {}
    ~ScopeExit() { undo_(); }
    ScopeExit(const ScopeExit &) = delete;
    ScopeExit &operator=(const ScopeExit &) = delete;

private:
    Undo undo_;
};

} // namespace smtest
