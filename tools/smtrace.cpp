// smtrace: the diagnostic viewer of smkernal.dll on the command line; prints every trace record as it arrives, one a
// line, indented by call depth, and can run the program to trace with tracing switched on for that run.
//
// The library looks for the viewer once, when it is loaded: a top-level window of class KDVDiagXprt32 and the shared
// mapping KDVDiagXprt32File. It sends each record with SendMessage, so this thread pumps messages all the time the
// traced program runs; the record is read from our view of the mapping while the send is in progress.
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "TraceChannel.h"

namespace {

const char kProgram[] = "smtrace";
const char kSettingsFile[] = "DEBUGSM.INI";
// Beside DEBUGSM.INI while a traced program runs: the user's own file, or (when there was none) an empty marker. A
// run that could not put the file back leaves one of them; the next smtrace puts the file back before anything else.
const char kSavedSuffix[] = ".smtrace-saved";
const char kNoneSuffix[] = ".smtrace-none";
// Our mapping: the library writes at most kTraceRecordCapacity bytes at its start.
constexpr DWORD kMappingSize = 4096;
// Indentation of one call level, and the deepest nesting remembered (a program that never writes its exit records
// must not eat memory).
const char kIndent[] = "  ";
constexpr size_t kMaxDepth = 256;

enum ExitCode { kExitOk = 0, kExitFailed = 125, kExitNotStarted = 127, kExitInterrupted = 130 };

struct Options {
    bool warningsOnly = false;
    std::string method; // "" for every method
    std::string output; // "" for none
    bool help = false;
    std::vector<std::string> program; // after "--"
};

Options options;
FILE *logFile = nullptr;
HANDLE stopEvent = nullptr;
char *view = nullptr;

// --- Messages.

void Error(const char *format, ...) {
    std::fprintf(stderr, "%s: ", kProgram);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void PrintHelp() {
    std::printf(
        "Usage: %s [OPTION]... [-- PROGRAM [ARGUMENT]...]\n"
        "Shows the diagnostic trace of smkernal.dll: every record, one a line as it arrives, indented by the\n"
        "depth of the calls.\n"
        "\n"
        "      --warnings       only warning and fatal records\n"
        "      --method=NAME    only the calls of the method NAME (OpenDS, or TScanModule::OpenDS; case\n"
        "                       ignored), with everything they call, and the records that name it\n"
        "  -o, --output=FILE    write the lines to FILE too\n"
        "  -h, --help           show this help and exit\n"
        "\n"
        "Without PROGRAM it watches until Ctrl+C, or until its window is closed; the library reports only to a\n"
        "viewer that was running when the library was loaded, so start the program to trace afterwards, and\n"
        "switch tracing on in DEBUGSM.INI of the Windows directory ([Debug] Trace=1, Warning=1).\n"
        "With -- PROGRAM it sets Trace=1 and Warning=1 in DEBUGSM.INI for the run, starts PROGRAM, shows\n"
        "its records until it ends, and puts the user's DEBUGSM.INI back as it was (removes it when there\n"
        "was none), also when interrupted by Ctrl+C.\n"
        "\n"
        "Exit status: with PROGRAM, PROGRAM's exit code; without, 0. %d when smtrace itself fails (bad usage,\n"
        "another viewer is running), %d when PROGRAM cannot be started, %d when interrupted.\n",
        kProgram, kExitFailed, kExitNotStarted, kExitInterrupted);
}

int Usage(const char *format, ...) {
    std::fprintf(stderr, "%s: ", kProgram);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "\nTry '%s --help' for more information.\n", kProgram);
    std::fflush(stderr);
    return kExitFailed;
}

int ParseCommandLine(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&](const char *longName, const char *shortName, std::string &out) -> int {
            const std::string prefix = std::string(longName) + "=";
            if (arg.compare(0, prefix.size(), prefix) == 0) {
                out = arg.substr(prefix.size());
            } else if (arg == longName || (shortName && arg == shortName)) {
                if (i + 1 >= argc)
                    return Usage("option %s needs a value", arg.c_str());
                out = argv[++i];
            } else {
                return -1; // not this option
            }
            return out.empty() ? Usage("option %s needs a value", longName) : kExitOk;
        };
        int taken = -1;
        if (arg == "--") {
            options.program.assign(argv + i + 1, argv + argc);
            if (options.program.empty())
                return Usage("-- needs a program to run");
            break;
        } else if (arg == "--warnings") {
            options.warningsOnly = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if ((taken = value("--method", nullptr, options.method)) >= 0 ||
                   (taken = value("--output", "-o", options.output)) >= 0) {
            if (taken != kExitOk)
                return taken;
        } else if (arg.size() > 2 && arg.compare(0, 2, "-o") == 0) {
            options.output = arg.substr(2);
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage("unknown option %s", arg.c_str());
        } else {
            return Usage("unexpected argument \"%s\" (a program to run goes after --)", arg.c_str());
        }
    }
    const size_t scope = options.method.rfind("::");
    if (scope != std::string::npos)
        options.method.erase(0, scope + 2);
    return kExitOk;
}

// --- The transcript.

bool IsNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

bool SameText(const std::string &a, const std::string &b) {
    return lstrcmpiA(a.c_str(), b.c_str()) == 0;
}

// The function a record's text names after `word` ("Coming", "Leaving"), without its scope: "Coming
// TScanModule::IsDSEvent capturing MSG_XFERREADY" names IsDSEvent, "Leaving ExtractOneValue" ExtractOneValue.
std::string NameAfter(const std::string &text, const char *word) {
    size_t at = text.find(word);
    if (at == std::string::npos)
        return "";
    at += std::strlen(word);
    while (at < text.size() && text[at] == ' ')
        ++at;
    size_t end = at;
    while (end < text.size() && text[end] != ' ')
        ++end;
    std::string name = text.substr(at, end - at);
    const size_t scope = name.rfind("::");
    return scope == std::string::npos ? name : name.substr(scope + 2);
}

// Whether the text names the method: as Scope::Name ("Sequence error in TScanModule::OpenDSM"), or right after
// "Coming " or "Leaving " (the container codec's functions have no scope). The whole name must match.
bool NamesMethod(const std::string &text, const std::string &name) {
    if (SameText(NameAfter(text, "Coming"), name) || SameText(NameAfter(text, "Leaving"), name))
        return true;
    for (size_t at = text.find("::"); at != std::string::npos; at = text.find("::", at + 2)) {
        const size_t begin = at + 2;
        size_t end = begin;
        while (end < text.size() && IsNameChar(text[end]))
            ++end;
        if (SameText(text.substr(begin, end - begin), name))
            return true;
    }
    return false;
}

// The calls the library has entered and not yet left, innermost last, and the filters.
class Transcript {
public:
    // The line to print for one record; false when the filters leave it out.
    bool Take(const std::string &raw, std::string &line) {
        const smk::TraceLine record = smk::ParseTraceLine(raw);
        // The library's own rule: "Coming" or "Leaving" anywhere in a Trace record.
        const bool trace = record.level == "Trace";
        const bool entry = trace && raw.find("Coming") != std::string::npos;
        const bool exit = trace && raw.find("Leaving") != std::string::npos;
        size_t depth = calls_.size();
        bool closesMethod = false;
        if (entry && !exit) {
            // Printed at the depth of its caller.
            const std::string name = NameAfter(record.text, "Coming");
            if (!options.method.empty() && !inside_ && SameText(name, options.method)) {
                inside_ = true;
                insideDepth_ = depth;
            }
            if (calls_.size() == kMaxDepth) {
                calls_.erase(calls_.begin());
                if (insideDepth_ > 0)
                    --insideDepth_;
            }
            calls_.push_back(name);
        } else if (exit && !entry) {
            // It leaves the innermost open call of its name and whatever that call entered without leaving (the
            // memory transfer writes no exit record). An exit record of no open call (DisableDS writes only its exit
            // record) leaves nothing: the depth never goes below 0.
            const std::string name = NameAfter(record.text, "Leaving");
            for (size_t i = calls_.size(); i-- > 0;) {
                if (SameText(calls_[i], name)) {
                    calls_.resize(i);
                    break;
                }
            }
            depth = calls_.size();
            closesMethod = inside_ && depth <= insideDepth_;
        }
        bool show = true;
        if (options.warningsOnly)
            show = record.level == "Warning" || record.level == "Fatal";
        if (show && !options.method.empty())
            show = inside_ || NamesMethod(record.text, options.method);
        if (closesMethod)
            inside_ = false;
        if (!show)
            return false;
        line.clear();
        // Separators say that the library is about to enter a call at its depth 0; they stand as they came.
        if (!record.IsSeparator())
            for (size_t i = 0; i < depth; ++i)
                line += kIndent;
        for (char c : raw)
            line += static_cast<unsigned char>(c) < ' ' ? ' ' : c; // one record, one line
        return true;
    }

private:
    std::vector<std::string> calls_;
    bool inside_ = false;    // within a call of options.method
    size_t insideDepth_ = 0; // the depth that call was entered at
};

Transcript transcript;

void Record() {
    // The library's record is NUL-terminated within its capacity; anything longer is cut there.
    const std::string raw(view, strnlen(view, smk::kTraceRecordCapacity));
    std::string line;
    if (!transcript.Take(raw, line))
        return;
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    if (logFile) {
        std::fwrite(line.data(), 1, line.size(), logFile);
        std::fflush(logFile);
    }
}

LRESULT CALLBACK ViewerProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == smk::kTraceMessage) {
        Record();
        return 0;
    }
    if (message == WM_DESTROY) {
        // Closing the window ends the viewer, as Ctrl+C does.
        SetEvent(stopEvent);
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

// --- DEBUGSM.INI.

std::string WindowsFile(const char *name) {
    char directory[MAX_PATH] = "";
    GetWindowsDirectoryA(directory, sizeof directory);
    return std::string(directory) + "\\" + name;
}

bool Exists(const std::string &path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string SettingsPath() {
    return WindowsFile(kSettingsFile);
}
std::string SavedPath() {
    return SettingsPath() + kSavedSuffix;
}
std::string NonePath() {
    return SettingsPath() + kNoneSuffix;
}

// Puts the user's DEBUGSM.INI back as it was before the run (or removes it when there was none). False when a saved
// state was there and could not be put back.
bool RestoreSettings() {
    const std::string path = SettingsPath();
    // Whatever this process's profile cache still holds goes to the file first, not over the restored one later.
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path.c_str());
    if (Exists(SavedPath()))
        return CopyFileA(SavedPath().c_str(), path.c_str(), FALSE) && DeleteFileA(SavedPath().c_str());
    if (Exists(NonePath()))
        return (DeleteFileA(path.c_str()) || !Exists(path)) && DeleteFileA(NonePath().c_str());
    return true;
}

LONG restored = 0;
// Once, from whichever thread ends the run first.
void RestoreSettingsOnce() {
    if (InterlockedExchange(&restored, 1) == 0 && !RestoreSettings())
        Error("cannot put %s back as it was (error %lu); the user's file is %s", SettingsPath().c_str(), GetLastError(),
              SavedPath().c_str());
}

// Keeps the user's file (or the note that there was none) and switches both kinds of records on.
bool SwitchTracingOn() {
    const std::string path = SettingsPath();
    const bool kept = Exists(path) ? CopyFileA(path.c_str(), SavedPath().c_str(), FALSE) != 0
                                   : CloseHandle(CreateFileA(NonePath().c_str(), GENERIC_WRITE, 0, nullptr,
                                                             CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)) != 0;
    if (!kept) {
        Error("cannot keep a copy of %s (error %lu)", path.c_str(), GetLastError());
        return false;
    }
    if (!WritePrivateProfileStringA("Debug", "Trace", "1", path.c_str()) ||
        !WritePrivateProfileStringA("Debug", "Warning", "1", path.c_str())) {
        Error("cannot switch tracing on in %s (error %lu)", path.c_str(), GetLastError());
        RestoreSettingsOnce();
        return false;
    }
    return true;
}

BOOL WINAPI OnConsoleEvent(DWORD) {
    // Ctrl+C, Ctrl+Break, the console closed: the file goes back here, as the process may not outlive this call.
    if (!options.program.empty())
        RestoreSettingsOnce();
    SetEvent(stopEvent);
    return TRUE;
}

// --- The traced program.

HANDLE StartProgram() {
    std::string commandLine;
    for (const std::string &argument : options.program)
        commandLine += (commandLine.empty() ? "" : " ") + smk::QuoteArgument(argument);
    std::vector<char> line(commandLine.begin(), commandLine.end());
    line.push_back('\0');
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE);
    startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
        SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        Error("cannot start %s (error %lu)", commandLine.c_str(), GetLastError());
        return nullptr;
    }
    CloseHandle(process.hThread);
    return process.hProcess;
}

// Pumps the viewer's messages until the program ends (or, without one, until stopped). True when it ended.
bool Pump(HANDLE program) {
    const HANDLE handles[2] = {stopEvent, program};
    const DWORD count = program ? 2 : 1;
    for (;;) {
        const DWORD woke = MsgWaitForMultipleObjects(count, handles, FALSE, INFINITE, QS_ALLINPUT);
        if (woke == WAIT_OBJECT_0)
            return false;
        if (program && woke == WAIT_OBJECT_0 + 1)
            return true;
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
    }
}

// The window and the mapping the library looks for; false (and why) when another viewer has them.
bool OpenChannel(HWND &window, HANDLE &mapping) {
    if (FindWindowA(smk::kViewerClass, nullptr)) {
        Error("another diagnostic viewer is running (a window of class %s): the library reports to that one",
              smk::kViewerClass);
        return false;
    }
    mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kMappingSize, smk::kViewerMapping);
    if (mapping && GetLastError() == ERROR_ALREADY_EXISTS) {
        Error("another diagnostic viewer holds the shared memory %s", smk::kViewerMapping);
        return false;
    }
    view = mapping ? static_cast<char *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0)) : nullptr;
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = ViewerProc;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = smk::kViewerClass;
    // A top-level window, never shown: the library finds it with FindWindow, which sees no message-only windows.
    window = view && RegisterClassA(&windowClass)
                 ? CreateWindowA(smk::kViewerClass, kProgram, WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr,
                                 windowClass.hInstance, nullptr)
                 : nullptr;
    if (!window) {
        Error("cannot set up the viewer's window and shared memory (error %lu)", GetLastError());
        return false;
    }
    return true;
}

int Run() {
    HWND window = nullptr;
    HANDLE mapping = nullptr;
    if (!OpenChannel(window, mapping))
        return kExitFailed;
    // A run that ended before it could put DEBUGSM.INI back left the user's file beside it.
    if ((Exists(SavedPath()) || Exists(NonePath()))) {
        if (!RestoreSettings()) {
            Error("cannot put back %s from an earlier run (error %lu)", SettingsPath().c_str(), GetLastError());
            return kExitFailed;
        }
        Error("put %s back as it was before an earlier run that was interrupted", SettingsPath().c_str());
    }
    if (!options.output.empty()) {
        logFile = std::fopen(options.output.c_str(), "w");
        if (!logFile) {
            Error("cannot write %s", options.output.c_str());
            return kExitFailed;
        }
    }
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    int result = kExitOk;
    if (options.program.empty()) {
        Error("watching for the records of smkernal.dll; Ctrl+C ends");
        Pump(nullptr);
    } else if (!SwitchTracingOn()) {
        result = kExitFailed;
    } else {
        HANDLE program = StartProgram();
        if (!program) {
            result = kExitNotStarted;
        } else {
            DWORD code = kExitInterrupted;
            if (Pump(program))
                GetExitCodeProcess(program, &code);
            result = static_cast<int>(code);
            CloseHandle(program);
        }
        RestoreSettingsOnce();
    }
    DestroyWindow(window);
    UnmapViewOfFile(view);
    CloseHandle(mapping);
    if (logFile)
        std::fclose(logFile);
    return result;
}

} // namespace

int main(int argc, char **argv) {
    const int usage = ParseCommandLine(argc, argv);
    if (usage != kExitOk)
        return usage;
    if (options.help) {
        PrintHelp();
        return kExitOk;
    }
    stopEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    return Run();
}
