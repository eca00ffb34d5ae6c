// smtrace, the diagnostic viewer, run as a program of its own: the transcript of a three-page scan by smscan under
// `smtrace --`, its filters and log file, DEBUGSM.INI switched on for a run and put back afterwards (also when the run
// is stopped or killed), the indentation of records this suite sends itself, and the exit codes.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ProgramRun.h"
#include "SessionTest.h"
#include "TestSupport.h"
#include "VscanSupport.h"

namespace smtest {
namespace {

using Strings = std::vector<std::string>;

// A run that takes longer than this has hung.
constexpr DWORD kRunLimitMs = 90000;
// How long smtrace may take to set up its window.
constexpr DWORD kStartLimitMs = 20000;
constexpr int kPages = 3;
const char kIndent[] = "  ";
// smtrace's exit codes of its own.
constexpr DWORD kExitFailed = 125;
constexpr DWORD kExitNotStarted = 127;
constexpr DWORD kExitInterrupted = 130;
// The file of an earlier run beside DEBUGSM.INI: the user's own, or the mark that there was none.
const char kSavedSuffix[] = ".smtrace-saved";
const char kNoneSuffix[] = ".smtrace-none";

// The three-page scan: smscan's batch of the whole feeder, counted, at 50 dots per inch.
Strings ScanArguments() {
    return {"smscan.exe", "--batch=page-%d.bmp", "--batch-count=3", "--resolution=50"};
}

std::string Source(int n) {
    return "F:\\smkernal\\Sm_" + std::to_string(n) + ".cpp";
}

bool Contains(const std::string &text, const char *word) {
    return text.find(word) != std::string::npos;
}

// --- The viewer's rules, as the README gives them, to build the expected transcript from the records.

struct Filter {
    bool warningsOnly = false;
    std::string method;
};

// The function an entry or exit record is about: the word after "Coming " or "Leaving ", without its scope.
std::string CallName(const std::string &text) {
    static const std::regex call("(Coming|Leaving) +(\\S*::)?(\\S+)");
    std::smatch match;
    return std::regex_search(text, match, call) ? match[3].str() : "";
}

// Each record with its depth: entry records stand at the depth of their caller and add a level; an exit record leaves
// the innermost open call of its name and whatever that call entered without leaving, and stands at the depth after
// it; an exit record of no open call changes nothing; everything else stands at the depth there is.
std::vector<std::pair<TraceLine, size_t>> WithDepths(const Strings &records) {
    std::vector<std::pair<TraceLine, size_t>> out;
    Strings open;
    for (const std::string &raw : records) {
        const TraceLine record = ParseTraceLine(raw);
        const bool trace = record.level == "Trace";
        const bool entry = trace && Contains(raw, "Coming") && !Contains(raw, "Leaving");
        const bool exit = trace && Contains(raw, "Leaving") && !Contains(raw, "Coming");
        if (entry) {
            out.emplace_back(record, open.size());
            open.push_back(CallName(record.text));
            continue;
        }
        if (exit) {
            const std::string name = CallName(record.text);
            for (size_t i = open.size(); i > 0; --i) {
                if (open[i - 1] == name) {
                    open.resize(i - 1);
                    break;
                }
            }
        }
        out.emplace_back(record, open.size());
    }
    return out;
}

// What smtrace prints for these records with these filters: a line a record, indented by two spaces a level, the
// separators as they came.
Strings ExpectedTranscript(const Strings &records, const Filter &filter = Filter()) {
    const auto depths = WithDepths(records);
    // With a method: the records of its calls, from an entry record to the first record back at its depth (its exit
    // record, or that of the caller for a call that writes none), and the records that name it elsewhere.
    std::vector<bool> inCall(depths.size(), false);
    for (size_t j = 0; !filter.method.empty() && j < depths.size(); ++j) {
        const TraceLine &entry = depths[j].first;
        if (entry.level != "Trace" || !Contains(entry.raw, "Coming") ||
            lstrcmpiA(CallName(entry.text).c_str(), filter.method.c_str()) != 0)
            continue;
        inCall[j] = true;
        for (size_t k = j + 1; k < depths.size(); ++k) {
            inCall[k] = true;
            if (depths[k].second <= depths[j].second)
                break;
        }
    }
    const std::regex names("(::|Coming +|Leaving +)" + filter.method + "([^A-Za-z0-9_]|$)", std::regex::icase);
    Strings out;
    for (size_t i = 0; i < depths.size(); ++i) {
        const TraceLine &record = depths[i].first;
        if (filter.warningsOnly && record.level != "Warning" && record.level != "Fatal")
            continue;
        if (!filter.method.empty() && !inCall[i] && !std::regex_search(record.text, names))
            continue;
        std::string line;
        if (!record.IsSeparator())
            for (size_t level = 0; level < depths[i].second; ++level)
                line += kIndent;
        out.push_back(line + record.raw);
    }
    return out;
}

// The records without the library's separators, and those put back where the library must send them: three before
// every entry record written while its own count of calls is 0 (entry records count up, exit records down, the exit
// record of DisableDS, which has no entry record, too).
Strings WithLibrarySeparators(const Strings &records) {
    Strings out;
    int depth = 0;
    for (const std::string &raw : records) {
        const TraceLine record = ParseTraceLine(raw);
        if (record.IsSeparator())
            continue;
        const bool trace = record.level == "Trace";
        if (trace && Contains(raw, "Coming")) {
            if (depth == 0)
                out.insert(out.end(), 3, std::string(smk::kSeparatorRecord));
            ++depth;
        }
        out.push_back(raw);
        if (trace && Contains(raw, "Leaving"))
            --depth;
    }
    return out;
}

// Where two transcripts part, with the lines around it.
std::string FirstDifference(const Strings &expected, const Strings &got) {
    size_t at = 0;
    while (at < expected.size() && at < got.size() && expected[at] == got[at])
        ++at;
    std::ostringstream out;
    out << "expected " << expected.size() << " lines, got " << got.size() << "; first difference at " << at << "\n";
    for (size_t i = at >= 3 ? at - 3 : 0; i < at + 3; ++i)
        out << i << ":\n  expected [" << (i < expected.size() ? expected[i] : "-") << "]\n  got      ["
            << (i < got.size() ? got[i] : "-") << "]\n";
    return out.str();
}

bool IsSeparatorLine(const std::string &line) {
    return line == smk::kSeparatorRecord;
}

// The depth of a printed record line: its indentation in levels.
size_t DepthOf(const std::string &line) {
    return line.find_first_not_of(' ') / (sizeof kIndent - 1);
}

// The record of a printed record line.
TraceLine RecordOf(const std::string &line) {
    return ParseTraceLine(line.substr(line.find_first_not_of(' ')));
}

// A printed record line as "Level source text" (its line number left out).
std::string Brief(const std::string &line) {
    const TraceLine record = RecordOf(line);
    return record.level + " " + record.source + " " + record.text;
}

// The lines of the records whose text is `text`.
std::vector<size_t> LinesOf(const Strings &transcript, const std::string &text) {
    std::vector<size_t> out;
    for (size_t i = 0; i < transcript.size(); ++i)
        if (!IsSeparatorLine(transcript[i]) && RecordOf(transcript[i]).text == text)
            out.push_back(i);
    return out;
}

// The lines one level below the entry line at `at`, up to its exit line, as Brief() shows them.
Strings Callees(const Strings &transcript, size_t at) {
    Strings out;
    const size_t depth = DepthOf(transcript[at]);
    for (size_t i = at + 1; i < transcript.size(); ++i) {
        if (IsSeparatorLine(transcript[i]))
            continue;
        if (DepthOf(transcript[i]) <= depth)
            break;
        if (DepthOf(transcript[i]) == depth + 1)
            out.push_back(Brief(transcript[i]));
    }
    return out;
}

// "Trace <source> Coming TScanModule::<method>" and its "Leaving" line, as Brief() shows them.
void Call(Strings &out, int file, const std::string &method) {
    out.push_back("Trace " + Source(file) + " Coming TScanModule::" + method);
    out.push_back("Trace " + Source(file) + " Leaving TScanModule::" + method);
}

class SmtraceTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        RemoveSourceDirectories();
        WriteProfileStringA("Twain", "Default Source", nullptr);
        ASSERT_FALSE(InstallVscan().empty()) << "copying vscan.ds to " << TwainSourceDir();
        ClearDebugFiles();
        char temp[MAX_PATH] = "";
        GetTempPathA(sizeof temp, temp);
        work_ = std::string(temp) + "smtrace_test";
        RemoveTree(work_);
        ASSERT_TRUE(CreateDirectoryA(work_.c_str(), nullptr)) << work_;
    }
    void TearDown() override {
        viewer_.Stop();
        ClearDebugFiles();
        RemoveTree(work_);
        RemoveSourceDirectories();
    }

    static void ClearDebugFiles() {
        DeleteDebugIni();
        DeleteFileA((DebugIniPath() + kSavedSuffix).c_str());
        DeleteFileA((DebugIniPath() + kNoneSuffix).c_str());
    }
    static std::string Smtrace() { return BinDir() + "\\smtrace.exe"; }
    std::string Work(const std::string &relative) const { return work_ + "\\" + relative; }

    // A full feeder of three sheets that keeps what is left across the scanner's loads, as smscan's batch needs.
    static void FillFeeder() {
        std::ofstream(TwainSourceDir() + "\\vscan.ini") << "Pages = " << kPages << "\nKeepFeeder = 1\n";
        DeleteFileA((TwainSourceDir() + "\\vscan.feeder").c_str());
    }

    // The records the library writes during the three-page scan, taken by the suite's own viewer.
    Strings ScanRecords() {
        FillFeeder();
        WriteDebugIni(1, 1);
        viewer_.Start();
        ProgramRun scan;
        Strings arguments = ScanArguments();
        arguments.erase(arguments.begin());
        EXPECT_TRUE(RunProgram(BinDir() + "\\smscan.exe", arguments, work_, kRunLimitMs, scan));
        EXPECT_EQ(0u, scan.exitCode) << scan;
        viewer_.Stop();
        DeleteDebugIni();
        Strings records;
        for (const TraceLine &record : viewer_.Records())
            records.push_back(record.raw);
        return records;
    }

    // smtrace with `options`, then -- and the three-page scan, on a full feeder.
    ProgramRun TracedScan(const Strings &options) {
        FillFeeder();
        Strings arguments = options;
        arguments.push_back("--");
        for (const std::string &argument : ScanArguments())
            arguments.push_back(argument);
        ProgramRun run;
        EXPECT_TRUE(RunProgram(Smtrace(), arguments, work_, kRunLimitMs, run));
        EXPECT_EQ(0u, run.exitCode) << run.err;
        return run;
    }

    ProgramRun RunSmtrace(const Strings &arguments) {
        ProgramRun run;
        EXPECT_TRUE(RunProgram(Smtrace(), arguments, work_, kRunLimitMs, run));
        return run;
    }

    TraceViewer viewer_;
    std::string work_;
};

// --- The transcript of a three-page scan.

// The expected transcript is built, not recorded output pasted in. The library's part is the records of the same scan
// (the same arguments, a full feeder again) as the suite's own viewer takes them; their separators must stand where
// the library's count of calls puts them, and the rules of the viewer above give every line its indentation. What the
// library must write for smscan's calls is checked on top: the outermost calls, and each page's transfer call by call.
TEST_F(SmtraceTest, TracedScanPrintsEveryRecordIndentedByItsCallDepth) {
    const Strings records = ScanRecords();
    ASSERT_FALSE(HasFailure());
    // The separators stand where the library's own count of calls puts them.
    ASSERT_EQ(WithLibrarySeparators(records), records);

    const ProgramRun run = TracedScan({});
    const Strings transcript = run.OutLines();
    const Strings expected = ExpectedTranscript(records);
    EXPECT_EQ(expected, transcript) << FirstDifference(expected, transcript);
    // smscan's own lines went to the same error output.
    EXPECT_TRUE(Contains(run.err, "smscan: 3 pages written")) << run.err;

    // The outermost calls are the library's start and end and the calls smscan makes: for every page it opens the
    // source, asks the feeder for paper and starts the scan to file, and the page arrives while the source's event
    // passes smIsDSEvent; the source's name is asked once.
    Strings outline, want;
    for (const std::string &line : transcript)
        if (!line.empty() && line[0] != ' ')
            outline.push_back(Brief(line));
    const std::string start = "Trace " + Source(1) + " ";
    want.push_back(start + std::string(9, ' ') + "<<<<< Start Scan Module Diagnostic >>>>>" + std::string(6, ' '));
    want.push_back(start + std::string(15, ' ') + std::string(28, '~') + std::string(12, ' '));
    want.push_back(start + std::string(55, ' '));
    Call(want, 1, "TScanModule");
    for (int page = 1; page <= kPages; ++page) {
        Call(want, 2, "OpenDS");
        if (page == 1)
            Call(want, 4, "GetDSProductName");
        Call(want, 4, "IsADFPaperLoaded");
        Call(want, 10, "ZephraScan");
        want.push_back(start + "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY");
        want.push_back(start + "Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY");
    }
    Call(want, 1, "~TScanModule");
    want.push_back(start + std::string(53, ' '));
    want.push_back(start + std::string(9, ' ') + "<<<<< End Scan Module Diagnostic >>>>>" + std::string(6, ' '));
    want.push_back(start + std::string(15, ' ') + std::string(26, '~') + std::string(12, ' '));
    EXPECT_EQ(want, outline);

    // Each page is written by the scan to file's memory transfer, which closes the source after the page; DisableDS
    // writes only its exit record, which stands at the depth of its caller.
    const std::vector<size_t> captures = LinesOf(transcript, "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY");
    const std::vector<size_t> pages = LinesOf(transcript, "Coming TScanModule::ProcessZephraScanImage");
    const std::vector<size_t> transfers = LinesOf(transcript, "Coming TScanModule::ZephraScanDoMemXfer");
    ASSERT_EQ(static_cast<size_t>(kPages), captures.size());
    ASSERT_EQ(static_cast<size_t>(kPages), pages.size());
    ASSERT_EQ(static_cast<size_t>(kPages), transfers.size());
    const std::string sm10 = "Trace " + Source(10) + " ";
    for (int page = 0; page < kPages; ++page) {
        SCOPED_TRACE("page " + std::to_string(page + 1));
        Strings processing, transfer, steps;
        Call(processing, 10, "ProcessZephraScanImage");
        EXPECT_EQ(processing, Callees(transcript, captures[page]));
        Call(transfer, 10, "ZephraScanDoMemXfer");
        EXPECT_EQ(transfer, Callees(transcript, pages[page]));
        steps.push_back(sm10 + "Send WM_SCANTOFILEGETNAME to get file name in TScanModule::ZephraScanDoMemXfer");
        Call(steps, 11, "CheckDiskSpace");
        Call(steps, 7, "GetMemXferSize");
        Call(steps, 11, "WriteDIBHeader");
        steps.push_back(sm10 + "Do while-loop to get image data in TScanModule::ZephraScanDoMemXfer");
        Call(steps, 11, "AppendBufferToFile");
        steps.push_back(sm10 + "Send WM_SCANTOFILEXFEREND in TScanModule::ZephraScanDoMemXfer");
        Call(steps, 7, "EndThisXfer");
        steps.push_back(sm10 + "Send WM_SCANTOFILEDSCLOSED in TScanModule::ZephraScanDoMemXfer");
        Call(steps, 7, "EndAllXfer");
        Call(steps, 1, "IsTWAINAvailable");
        steps.push_back("Trace " + Source(2) + " Leaving TScanModule::DisableDS");
        Call(steps, 2, "CloseDS");
        EXPECT_EQ(steps, Callees(transcript, transfers[page]));
    }
}

// --- Filters and the log file.

TEST_F(SmtraceTest, WarningsShowsOnlyWarningAndFatalRecords) {
    const Strings records = ScanRecords();
    ASSERT_FALSE(HasFailure());
    Filter filter;
    filter.warningsOnly = true;
    const Strings expected = ExpectedTranscript(records, filter);
    const Strings transcript = TracedScan({"--warnings"}).OutLines();
    EXPECT_EQ(expected, transcript) << FirstDifference(expected, transcript);
    // smscan opens the source before each page's scan to file, whose own opening finds it open.
    EXPECT_EQ(static_cast<size_t>(kPages), LinesOf(transcript, "DS is already open in TScanModule::OpenDS").size())
        << testing::PrintToString(transcript);
    for (const std::string &line : transcript)
        EXPECT_EQ("Warning", RecordOf(line).level) << line;
}

TEST_F(SmtraceTest, MethodShowsItsCallsWithWhatTheyCallAndWritesTheLogFile) {
    const Strings records = ScanRecords();
    ASSERT_FALSE(HasFailure());
    Filter filter;
    filter.method = "CloseDS";
    const Strings expected = ExpectedTranscript(records, filter);
    // The name is taken with its scope too, and whatever its case.
    const ProgramRun run = TracedScan({"--method", "TScanModule::closeds", "-o", "closeds.log"});
    const Strings transcript = run.OutLines();
    EXPECT_EQ(expected, transcript) << FirstDifference(expected, transcript);
    EXPECT_EQ(transcript, ProgramRun::Lines(FileText(Work("closeds.log"))));
    // Each page's source is closed once, inside the scan to file's transfer, and nothing else is shown.
    const std::vector<size_t> calls = LinesOf(transcript, "Coming TScanModule::CloseDS");
    ASSERT_EQ(static_cast<size_t>(kPages), calls.size()) << testing::PrintToString(transcript);
    EXPECT_EQ(0u, calls.front());
    EXPECT_EQ("Leaving TScanModule::CloseDS", RecordOf(transcript.back()).text);
    for (size_t at : calls)
        EXPECT_EQ(DepthOf(transcript[at]), 3u) << "within the capture, the image's processing and its transfer";

    // A call that never writes its exit record ends where its caller's exit record takes the depth back.
    filter.method = "ZephraScan";
    const Strings scans = TracedScan({"--method=ZephraScan"}).OutLines();
    EXPECT_EQ(ExpectedTranscript(records, filter), scans);
    EXPECT_EQ(static_cast<size_t>(kPages), LinesOf(scans, "Coming TScanModule::ZephraScan").size());
    EXPECT_TRUE(LinesOf(scans, "Coming TScanModule::ZephraScanDoMemXfer").empty())
        << "ZephraScanDoMemXfer is another method";
}

// --- DEBUGSM.INI.

TEST_F(SmtraceTest, ADebugIniThatWasNotThereIsRemovedAgain) {
    ASSERT_FALSE(FileExists(DebugIniPath()));
    // smscan loads the library at its start: the records of its start and end show that tracing was on.
    const ProgramRun run = RunSmtrace({"--", "smscan.exe", "--version"});
    EXPECT_EQ(0u, run.exitCode) << run;
    EXPECT_FALSE(LinesOf(run.OutLines(), "Coming TScanModule::TScanModule").empty()) << run;
    EXPECT_FALSE(LinesOf(run.OutLines(), "Leaving TScanModule::~TScanModule").empty()) << run;
    EXPECT_FALSE(FileExists(DebugIniPath()));
    EXPECT_FALSE(FileExists(DebugIniPath() + kNoneSuffix));
}

// The user's file switches tracing off and holds more than smtrace touches.
const char kUsersDebugIni[] = "; my settings\r\n[Debug]\r\nTrace=0\r\nWarning=0\r\n\r\n[Other]\r\nKey=value\r\n";

TEST_F(SmtraceTest, TheUsersDebugIniIsPutBackByteForByte) {
    std::ofstream(DebugIniPath(), std::ios::binary) << kUsersDebugIni;
    const ProgramRun run = RunSmtrace({"--", "smscan.exe", "--version"});
    EXPECT_EQ(0u, run.exitCode) << run;
    EXPECT_FALSE(LinesOf(run.OutLines(), "Coming TScanModule::TScanModule").empty()) << run;
    EXPECT_EQ(kUsersDebugIni, FileText(DebugIniPath()));
    EXPECT_FALSE(FileExists(DebugIniPath() + kSavedSuffix));
}

// smtrace running this test program in a child role that waits until the suite lets it end.
class WaitingRun {
public:
    explicit WaitingRun(const std::string &work) : event_(CreateEventA(nullptr, TRUE, FALSE, kEvent)) {
        char self[MAX_PATH] = "";
        GetModuleFileNameA(nullptr, self, sizeof self);
        const char *slash = std::strrchr(self, '\\');
        exeName_ = slash ? slash + 1 : self;
        EXPECT_TRUE(child_.Start(BinDir() + "\\smtrace.exe",
                                 {"--", self, std::string(kChildRolePrefix) + "wait-event:" + kEvent}, work));
    }
    ~WaitingRun() {
        ResetEvent(event_);
        if (program_) {
            WaitForSingleObject(program_, kRunLimitMs);
            CloseHandle(program_);
        }
        CloseHandle(event_);
    }
    // smtrace has switched tracing on and the program it started runs.
    bool Running() {
        return PumpUntil(
            [this] {
                if (WaitForSingleObject(event_, 0) != WAIT_OBJECT_0)
                    return false;
                if (!program_)
                    program_ = OpenChildOf(child_.ProcessId(), exeName_);
                return program_ && Contains(FileText(DebugIniPath()), "Trace=1") &&
                       FindWindowA(smk::kViewerClass, nullptr);
            },
            kStartLimitMs);
    }
    ChildProcess &Child() { return child_; }
    // Lets the program end, and waits for smtrace and for the program: smtrace may end first, and the program's
    // current directory is the suite's work directory.
    ProgramRun End() {
        ResetEvent(event_);
        EXPECT_TRUE(child_.Wait(kRunLimitMs));
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(program_, kRunLimitMs));
        return child_.Run();
    }

private:
    // Set by the program once it runs; it ends once the event is reset.
    static constexpr char kEvent[] = "smtrace_test wait";
    HANDLE event_;
    HANDLE program_ = nullptr;
    std::string exeName_;
    ChildProcess child_;
};

TEST_F(SmtraceTest, ClosingTheViewerPutsTheFileBackAtOnce) {
    std::ofstream(DebugIniPath(), std::ios::binary) << kUsersDebugIni;
    WaitingRun run(work_);
    ASSERT_TRUE(run.Running()) << FileText(DebugIniPath());
    EXPECT_TRUE(FileExists(DebugIniPath() + kSavedSuffix));
    PostMessageA(FindWindowA(smk::kViewerClass, nullptr), WM_CLOSE, 0, 0);
    // smtrace ends before the program it started, the file back as it was.
    ASSERT_TRUE(PumpUntil([] { return !FindWindowA(smk::kViewerClass, nullptr); }, kStartLimitMs));
    EXPECT_TRUE(PumpUntil([] { return FileText(DebugIniPath()) == kUsersDebugIni; }, kStartLimitMs))
        << FileText(DebugIniPath());
    const ProgramRun ended = run.End();
    EXPECT_EQ(kExitInterrupted, ended.exitCode) << ended;
    EXPECT_EQ(kUsersDebugIni, FileText(DebugIniPath()));
    EXPECT_FALSE(FileExists(DebugIniPath() + kSavedSuffix));
}

TEST_F(SmtraceTest, TheNextRunPutsBackTheFileOfARunThatWasKilled) {
    for (const bool usersFile : {true, false}) {
        SCOPED_TRACE(usersFile ? "the user's file" : "no file");
        if (usersFile)
            std::ofstream(DebugIniPath(), std::ios::binary) << kUsersDebugIni;
        else
            DeleteDebugIni();
        {
            WaitingRun run(work_);
            ASSERT_TRUE(run.Running()) << FileText(DebugIniPath());
            run.Child().Terminate();
            run.End();
        }
        // Killed: tracing stays on, the user's state beside the file.
        EXPECT_TRUE(Contains(FileText(DebugIniPath()), "Trace=1"));
        EXPECT_TRUE(FileExists(DebugIniPath() + (usersFile ? kSavedSuffix : kNoneSuffix)));
        const ProgramRun next = RunSmtrace({"--", "smscan.exe", "--version"});
        EXPECT_EQ(0u, next.exitCode) << next;
        EXPECT_EQ(
            (Strings{"smtrace: put " + DebugIniPath() + " back as it was before an earlier run that was interrupted"}),
            next.ErrLines())
            << next;
        if (usersFile)
            EXPECT_EQ(kUsersDebugIni, FileText(DebugIniPath()));
        else
            EXPECT_FALSE(FileExists(DebugIniPath()));
        EXPECT_FALSE(FileExists(DebugIniPath() + kSavedSuffix));
        EXPECT_FALSE(FileExists(DebugIniPath() + kNoneSuffix));
    }
}

// --- Indentation, records sent by the suite itself.

// Sends each record to the viewer as the library does: the text at the start of the shared memory, then the message.
void SendRecords(const Strings &records) {
    HWND window = FindWindowA(smk::kViewerClass, nullptr);
    ASSERT_NE(nullptr, window);
    HANDLE mapping = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, smk::kViewerMapping);
    ASSERT_NE(nullptr, mapping);
    char *view = static_cast<char *>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0));
    ASSERT_NE(nullptr, view);
    for (const std::string &record : records) {
        lstrcpynA(view, record.c_str(), static_cast<int>(record.size() + 1));
        SendMessageA(window, smk::kTraceMessage, 0, reinterpret_cast<LPARAM>(view));
    }
    UnmapViewOfFile(view);
    CloseHandle(mapping);
}

std::string TraceRecord(int file, const std::string &text) {
    return "Trace " + Source(file) + " 10: [SM] " + text;
}
std::string WarningRecord(int file, const std::string &text) {
    return "Warning " + Source(file) + " 20: [SM] " + text;
}

TEST_F(SmtraceTest, IndentationFollowsTheCallsAndCopesWithExitsAndEntriesThatHaveNoPartner) {
    ChildProcess smtrace;
    ASSERT_TRUE(smtrace.Start(Smtrace(), {}, work_));
    ASSERT_TRUE(PumpUntil([] { return FindWindowA(smk::kViewerClass, nullptr) != nullptr; }, kStartLimitMs));

    const std::string separator = smk::kSeparatorRecord;
    const std::string longText(1500, 'x');
    // Each record and the indentation it must get.
    const std::vector<std::pair<std::string, int>> records = {
        // An exit record without its entry at depth 0 (DisableDS writes only that one): never below 0.
        {TraceRecord(2, "Leaving TScanModule::DisableDS"), 0},
        {separator, 0},
        {separator, 0},
        {separator, 0},
        {TraceRecord(2, "Coming TScanModule::OpenDS"), 0},
        {TraceRecord(1, "Coming TScanModule::IsTWAINAvailable"), 1},
        {TraceRecord(1, "TScanModule::IsTWAINAvailable returns TRUE"), 2},
        {TraceRecord(1, "Leaving TScanModule::IsTWAINAvailable"), 1},
        // Warnings change nothing, whatever they say.
        {WarningRecord(2, "DS is already open in TScanModule::OpenDS"), 1},
        {WarningRecord(2, "Coming back without Leaving in TScanModule::OpenDS"), 1},
        // An exit record of a call that is not open, inside another call: it stays there.
        {TraceRecord(2, "Leaving TScanModule::DisableDS"), 1},
        {TraceRecord(2, "Leaving TScanModule::OpenDS"), 0},
        // "Coming" anywhere in a Trace record enters; a call that never leaves ends with its caller.
        {TraceRecord(1, "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY"), 0},
        {TraceRecord(1, "Coming TScanModule::ProcessScanImage"), 1},
        {TraceRecord(8, "Coming TScanModule::DoMemXfer"), 2},
        {TraceRecord(8, "Send WM_XFERDATA in TScanModule::DoMemXfer"), 3},
        {TraceRecord(1, "Leaving TScanModule::ProcessScanImage"), 1},
        {TraceRecord(1, "Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY"), 0},
        // The container codec's functions have no scope.
        {"Trace F:\\smkernal\\Utility.cpp 257: [SM] Coming ExtractOneValue", 0},
        {"Fatal F:\\smkernal\\Utility.cpp 258: [SM] no memory in ExtractOneValue", 1},
        {"Trace F:\\smkernal\\Utility.cpp 260: [SM] Leaving ExtractOneValue", 0},
        // One record, one line; a record is read up to its first 1024 bytes.
        {TraceRecord(1, "two\r\nlines\tand a tab"), 0},
        {TraceRecord(1, longText), 0},
        {"not laid out as a record", 0},
    };
    Strings sent, expected;
    for (const auto &record : records) {
        sent.push_back(record.first);
        std::string line = std::string(2 * record.second, ' ') + record.first;
        for (char &c : line)
            if (c == '\r' || c == '\n' || c == '\t')
                c = ' ';
        expected.push_back(line.substr(0, 2 * record.second + 1024));
    }
    // Far deeper than any library call: the viewer stays up, and 300 exits take it back to the left margin.
    for (int i = 0; i < 300; ++i)
        sent.push_back(TraceRecord(4, "Coming TScanModule::CapNegotiate"));
    for (int i = 0; i < 300; ++i)
        sent.push_back(TraceRecord(4, "Leaving TScanModule::CapNegotiate"));
    sent.push_back(TraceRecord(2, "Coming TScanModule::CloseDS"));
    SendRecords(sent);
    PostMessageA(FindWindowA(smk::kViewerClass, nullptr), WM_CLOSE, 0, 0);
    ASSERT_TRUE(smtrace.Wait(kRunLimitMs));
    EXPECT_EQ(0u, smtrace.Run().exitCode) << smtrace.Run();
    const Strings transcript = smtrace.Run().OutLines();
    ASSERT_EQ(sent.size(), transcript.size()) << smtrace.Run();
    const Strings head(transcript.begin(), transcript.begin() + expected.size());
    EXPECT_EQ(expected, head) << FirstDifference(expected, head);
    EXPECT_EQ(TraceRecord(2, "Coming TScanModule::CloseDS"), transcript.back());
    EXPECT_EQ(TraceRecord(4, "Coming TScanModule::CapNegotiate"), transcript[expected.size()]);
    EXPECT_EQ(std::string(2, ' ') + TraceRecord(4, "Coming TScanModule::CapNegotiate"),
              transcript[expected.size() + 1]);
}

// --- Exit codes.

TEST_F(SmtraceTest, ExitsWithTheProgramsExitCode) {
    const ProgramRun usage = RunSmtrace({"--", "smscan.exe", "--bogus"});
    EXPECT_EQ(1u, usage.exitCode) << usage;
    EXPECT_TRUE(Contains(usage.err, "smscan: unknown option --bogus")) << usage;
    // smscan's records still came: the library was loaded.
    EXPECT_FALSE(LinesOf(usage.OutLines(), "Coming TScanModule::TScanModule").empty()) << usage;

    const ProgramRun missing = RunSmtrace({"--", "no-such-program.exe"});
    EXPECT_EQ(kExitNotStarted, missing.exitCode) << missing;
    EXPECT_TRUE(Contains(missing.err, "smtrace: cannot start no-such-program.exe")) << missing;
    EXPECT_FALSE(FileExists(DebugIniPath())) << "put back as it was: none";
}

TEST_F(SmtraceTest, RefusesBadUsageAndASecondViewer) {
    for (const Strings &arguments : {Strings{"--bogus"}, Strings{"--"}, Strings{"--method"}, Strings{"stray"}}) {
        const ProgramRun run = RunSmtrace(arguments);
        EXPECT_EQ(kExitFailed, run.exitCode) << run;
        ASSERT_FALSE(run.ErrLines().empty()) << run;
        EXPECT_EQ("Try 'smtrace --help' for more information.", run.ErrLines().back()) << run;
    }
    const ProgramRun help = RunSmtrace({"--help"});
    EXPECT_EQ(0u, help.exitCode) << help;
    ASSERT_FALSE(help.OutLines().empty());
    EXPECT_EQ("Usage: smtrace [OPTION]... [-- PROGRAM [ARGUMENT]...]", help.OutLines().front());

    // The library reports to the viewer it finds first; smtrace does not start beside another one.
    std::ofstream(DebugIniPath(), std::ios::binary) << kUsersDebugIni;
    viewer_.Start();
    const ProgramRun second = RunSmtrace({"--", "smscan.exe", "--version"});
    EXPECT_EQ(kExitFailed, second.exitCode) << second;
    EXPECT_EQ((Strings{"smtrace: another diagnostic viewer is running (a window of class KDVDiagXprt32): the "
                       "library reports to that one"}),
              second.ErrLines());
    EXPECT_EQ("", second.out);
    EXPECT_EQ(kUsersDebugIni, FileText(DebugIniPath())) << "not touched";
}

} // namespace
} // namespace smtest
