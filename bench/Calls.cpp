// The per-call overhead under each tracing condition, DEBUGSM.INI's switches, and the viewer process.
#include "Calls.h"

#include <algorithm>
#include <cstring>

namespace bench {

namespace {

const char kViewerClass[] = "KDVDiagXprt32";
const char kViewerMapping[] = "KDVDiagXprt32File";
constexpr UINT kTraceMessage = 0x1634;
constexpr DWORD kMappingBytes = 64 * 1024;
const char kViewerReady[] = "smbench viewer ready";
const char kViewerQuit[] = "smbench viewer quit";
constexpr DWORD kViewerStartMs = 30000;
// Calls that tell how long a call takes, before the measurement chooses how many to make, and the fewest calls a
// turn makes (where every record crosses to the viewer a call takes milliseconds).
constexpr int kTrialCalls = 5;
constexpr int kFewestCalls = 2;

char *viewerRecords = nullptr;
unsigned long viewerBytes = 0;

LRESULT CALLBACK ViewerProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == kTraceMessage) {
        // A viewer reads each record from its own view of the mapping.
        viewerBytes += static_cast<unsigned long>(std::strlen(viewerRecords));
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

// The viewer process, running while it lives.
class ViewerProcess {
public:
    ViewerProcess() {
        ready_ = CreateEventA(nullptr, TRUE, FALSE, kViewerReady);
        quit_ = CreateEventA(nullptr, TRUE, FALSE, kViewerQuit);
        char program[MAX_PATH];
        GetModuleFileNameA(nullptr, program, sizeof program);
        std::string commandLine = std::string("\"") + program + "\" --viewer";
        STARTUPINFOA startup = {};
        startup.cb = sizeof startup;
        if (!CreateProcessA(program, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                            &process_))
            Fail("the viewer process did not start");
        if (WaitForSingleObject(ready_, kViewerStartMs) != WAIT_OBJECT_0)
            Fail("the viewer process did not get ready");
    }
    ~ViewerProcess() {
        SetEvent(quit_);
        WaitForSingleObject(process_.hProcess, kViewerStartMs);
        CloseHandle(process_.hProcess);
        CloseHandle(process_.hThread);
        CloseHandle(ready_);
        CloseHandle(quit_);
    }

private:
    HANDLE ready_ = nullptr;
    HANDLE quit_ = nullptr;
    PROCESS_INFORMATION process_ = {};
};

} // namespace

const char *TracingLabel(Tracing tracing) {
    switch (tracing) {
    case Tracing::Off:
        return "tracing off, no viewer";
    case Tracing::OnWithoutViewer:
        return "tracing on, no viewer";
    case Tracing::OffWithViewer:
        return "tracing off, viewer running";
    default:
        return "tracing on, viewer running";
    }
}

TraceSwitches::TraceSwitches() : path_(WindowsDir() + "\\DEBUGSM.INI") {
    existed_ = GetFileAttributesA(path_.c_str()) != INVALID_FILE_ATTRIBUTES;
    if (existed_)
        saved_ = ReadWholeFile(path_);
}

TraceSwitches::~TraceSwitches() {
    // The profile cache is flushed before the file is put back as it was.
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path_.c_str());
    if (existed_)
        WriteWholeFile(path_, saved_);
    else
        DeleteFileA(path_.c_str());
}

void TraceSwitches::Set(int trace, int warning) {
    WritePrivateProfileStringA("Debug", "Trace", std::to_string(trace).c_str(), path_.c_str());
    WritePrivateProfileStringA("Debug", "Warning", std::to_string(warning).c_str(), path_.c_str());
}

CallFigures MeasureCalls(Runner &runner, TraceSwitches &switches, Tracing tracing, int calls, double budget,
                         int turns) {
    const bool on = tracing == Tracing::OnWithoutViewer || tracing == Tracing::OnWithViewer;
    const bool viewer = tracing == Tracing::OffWithViewer || tracing == Tracing::OnWithViewer;
    switches.Set(on, on);
    ViewerProcess *process = viewer ? new ViewerProcess : nullptr;
    // A first few calls tell how many fit in the budget of a turn.
    double get = 0, set = 0;
    runner.LibraryCalls(kTrialCalls, get, set);
    const double fit = budget / (get + set);
    calls = std::max(kFewestCalls, std::min(calls, static_cast<int>(fit)));
    std::vector<double> libraryGet, librarySet, directGet, directSet, overheadGet, overheadSet;
    for (int r = 0; r < turns; ++r) {
        double lg = 0, ls = 0, dg = 0, ds = 0;
        runner.LibraryCalls(calls, lg, ls);
        runner.DirectCalls(calls, dg, ds);
        libraryGet.push_back(lg);
        librarySet.push_back(ls);
        directGet.push_back(dg);
        directSet.push_back(ds);
        overheadGet.push_back(lg - dg);
        overheadSet.push_back(ls - ds);
    }
    delete process;
    switches.Set(1, 1);
    CallFigures figures;
    figures.calls = calls;
    figures.libraryGet = Median(libraryGet);
    figures.librarySet = Median(librarySet);
    figures.directGet = Median(directGet);
    figures.directSet = Median(directSet);
    figures.overheadGet = Median(overheadGet);
    figures.overheadSet = Median(overheadSet);
    return figures;
}

int RunViewer() {
    HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, kViewerReady);
    HANDLE quit = OpenEventA(SYNCHRONIZE, FALSE, kViewerQuit);
    if (!ready || !quit)
        return 1;
    HANDLE mapping =
        CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kMappingBytes, kViewerMapping);
    viewerRecords = mapping ? static_cast<char *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0)) : nullptr;
    if (!viewerRecords)
        return 1;
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = ViewerProc;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = kViewerClass;
    RegisterClassA(&windowClass);
    HWND window = CreateWindowA(kViewerClass, "Diagnostic viewer", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr,
                                nullptr, windowClass.hInstance, nullptr);
    if (!window)
        return 1;
    SetEvent(ready);
    while (MsgWaitForMultipleObjects(1, &quit, FALSE, INFINITE, QS_ALLINPUT) != WAIT_OBJECT_0) {
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&msg);
    }
    DestroyWindow(window);
    UnmapViewOfFile(viewerRecords);
    CloseHandle(mapping);
    return 0;
}

} // namespace bench
