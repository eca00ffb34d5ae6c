// The fault matrix: every triplet the module sends in an acquisition (native, file and memory transfers through
// smIsDSEvent, smReadBlock, and the scan to file by each variant) failed once by the source or the source manager, at
// its first, middle and last call, with TWRC_FAILURE and condition code 5, 11 or 20, and with TWRC_CANCEL where a
// transfer allows it. Each case runs a fresh module against the virtual scanner and asserts what the application sees
// (results, notifications, files), the session state it is left in, that no global memory of the module is left, and
// that the next acquisition in the same process is the acquisition without the fault. The cases come from one table
// of rules; the matrix of outcomes goes to the test log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "GlobalMemoryTracker.h"
#include "MessageBoxes.h"
#include "Notifications.h"
#include "TestSupport.h"
#include "VscanSupport.h"
#include "smkernal.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

// How a failing triplet answers. Condition code 5 ends a memory transfer's batch, 11 is what the module itself
// answers in a wrong state, and 20 (a paper jam) stands for every code the module passes on as it is: no result the
// module makes itself has that number.
struct Answer {
    const char *name;
    TW_UINT16 rc;
    TW_UINT16 cc;
    bool IsCancel() const { return rc == TWRC_CANCEL; }
};
constexpr Answer kAnswers[] = {
    {"5", TWRC_FAILURE, TWCC_OPERATIONERROR},
    {"11", TWRC_FAILURE, TWCC_SEQERROR},
    {"20", TWRC_FAILURE, TWCC_PAPERJAM},
    {"cancel", TWRC_CANCEL, TWCC_SUCCESS},
};

// The acquisitions.
enum class Flow { Application, ReadBlock, ScanToFile };
struct Scenario {
    const char *name;
    Flow flow;
    LONG mechanism; // SM_XFER_...
};

// Sheets in the feeder: three images give every per-image triplet a first, a middle and a last call.
constexpr int kPages = 3;
// The small page (50 dpi scaled by a quarter): 106 x 175 RGB pixels, rows of 318 bytes. Memory blocks of ten rows
// give each image 18 blocks.
constexpr int kRowBytes = 318;
constexpr int kBlockRows = 10;
constexpr DWORD kBlockBytes = kRowBytes * kBlockRows;
// How long an application's loop waits for a notice that does not come before it gives up (a lost transfer-ready
// notice, a batch that does not close).
constexpr DWORD kIdleMs = 150;

// One DSM_Entry call as the matrix tells triplets apart: capabilities one by one.
struct Key {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 cap;
    bool operator<(const Key &o) const { return std::tie(dg, dat, msg, cap) < std::tie(o.dg, o.dat, o.msg, o.cap); }
    bool operator==(const Key &o) const { return !(*this < o) && !(o < *this); }
    bool Is(TW_UINT16 d, TW_UINT16 m) const { return dat == d && msg == m; }
    std::string Name() const {
        std::string name = TripletName(dg, dat, msg);
        if (dat == DAT_CAPABILITY)
            name += std::string(" ") + CapabilityName(cap);
        return name;
    }
    // The source manager answers these itself; every other triplet goes to the source.
    bool ForTheManager() const { return dat == DAT_PARENT || dat == DAT_IDENTITY || dat == DAT_STATUS; }
};

Key KeyOf(const TdsmCall &call) {
    return {call.dg, call.dat, call.msg, call.dat == DAT_CAPABILITY ? call.capIn.cap : TW_UINT16(0)};
}

// What one acquisition showed the application, in order: "smOpenDS=0" for each call and its result, the
// notifications (a memory image's blocks as "XferData*18"), and at the end the session state it was left in, the
// source's state and the files written.
struct Observed {
    Strings transcript;
    std::vector<TdsmCall> calls;
    int state = 0;
};

} // namespace

namespace {

const char *SourceStateName(int state) {
    switch (state) {
    case VSCAN_STATE_CLOSED:
        return "closed";
    case VSCAN_STATE_OPEN:
        return "open";
    case VSCAN_STATE_ENABLED:
        return "enabled";
    case VSCAN_STATE_XFERREADY:
        return "ready";
    case VSCAN_STATE_XFERRING:
        return "transferring";
    default:
        return "?";
    }
}

// The module, the stand-in source manager and the virtual scanner, and an application that acquires the three sheets
// of the feeder and records what it sees.
class FaultMatrixTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        // No viewer: a record that reaches no viewer costs nothing, and the cases are many.
        WriteDebugIni(1, 1);
        DeleteFileA((TwainSourceDir() + "\\vscan.ini").c_str());
        DeleteFileA((TwainSourceDir() + "\\" VSCAN_FEEDER_FILE).c_str());
        const std::string installed = InstallVscan();
        ASSERT_FALSE(installed.empty());
        ASSERT_TRUE(scanner.Load(installed));
        ASSERT_TRUE(dsm.Open());
        ASSERT_TRUE(boxes.Installed());
        char temp[MAX_PATH] = "";
        GetTempPathA(sizeof temp, temp);
        directory_ = std::string(temp) + "smk-matrix";
        CreateDirectoryA(directory_.c_str(), nullptr);
        RemoveFiles();
    }
    void TearDown() override {
        suppress_.reset();
        tracker.Detach();
        library.Free();
        dsm.Close();
        scanner.Free();
        UninstallVscan();
        RemoveFiles();
        RemoveDirectoryA(directory_.c_str());
    }

    // A fresh module and a fresh scanner with the scenario's settings; the source manager forgets its log and faults.
    void Fresh(const Scenario &s) {
        tracker.Detach();
        library.Free();
        dsm.Reset();
        ConfigureScanner(s);
        // The old setting goes before the new one is written: its removal takes the file away.
        suppress_.reset();
        if (s.flow == Flow::ReadBlock)
            suppress_ = std::make_unique<SuppressSetting>(2);
        RemoveFiles();
        app.Clear();
        library.Load();
        ASSERT_NE(nullptr, library.Module());
        ASSERT_GT(tracker.Attach(library.Module()), 0);
        tracker.Begin();
    }
    // The scanner as just loaded, with the scenario's settings and no fault.
    void ConfigureScanner(const Scenario &s) {
        scanner.reset();
        scanner.setPages(kPages);
        if (s.flow == Flow::ScanToFile) {
            // A forced interface scans and closes by itself; the buffer of the memory variant is its maximum size.
            scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
            ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_MAXBUFSIZE, kBlockBytes));
            if (s.mechanism != SM_XFER_MEMORY) {
                const double only = s.mechanism == SM_XFER_FILE ? TWSX_FILE : TWSX_NATIVE;
                ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 1, &only));
            }
        } else {
            ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, kBlockBytes));
        }
    }

    template <typename T> T Export(const char *name) const { return library.Get<T>(name); }
    LONG Call0(const char *name) const { return Export<LONG(WINAPI *)()>(name)(); }
    LONG Call1(const char *name, LONG value) const { return Export<LONG(WINAPI *)(LONG)>(name)(value); }
    LONG CallScale(const char *name, double value) const { return Export<LONG(WINAPI *)(double)>(name)(value); }

    std::vector<std::string> Files() const { return FilesIn(directory_); }
    void RemoveFiles() const {
        for (const std::string &name : Files())
            DeleteFileA((directory_ + "\\" + name).c_str());
    }

    // The module's session state, asked without a word to the source manager: smGetPendingCount answers in state 5,
    // smGetDSProductName from state 4; below, the stand-in tells whether the source manager is open.
    int State() const {
        WORD count = 0;
        if (Export<LONG(WINAPI *)(WORD *)>("smGetPendingCount")(&count) == SM_OK)
            return 5;
        char name[64] = "";
        if (Export<LONG(WINAPI *)(char *)>("smGetDSProductName")(name) == SM_OK)
            return 4;
        return dsm.State() == TDSM_STATE_OPEN ? 3 : 2;
    }
    std::string SourceState() const { return SourceStateName(scanner.Info().state); }

    // What the application's window heard since the last look, as the transcript writes it; a memory image's blocks
    // are counted into one entry before its end.
    void TakeNotices(Observed &run) {
        int blocks = 0;
        for (const Notice &notice : app.Notices()) {
            if (notice.kind == NoticeKind::XferData) {
                ++blocks;
                continue;
            }
            if (blocks)
                run.transcript.push_back("XferData*" + std::to_string(blocks));
            blocks = 0;
            std::string entry = notice.Brief();
            if (notice.kind == NoticeKind::ScanToFileXferEnd)
                entry += "(" + std::to_string(static_cast<LONG>(notice.wParam)) + ")";
            if (notice.kind == NoticeKind::XferEnd && notice.handleAtTarget) {
                entry += " bitmap";
                GlobalFree(notice.handleAtTarget);
            }
            run.transcript.push_back(entry);
        }
        app.Clear();
    }

    // The application's loop through smIsDSEvent until `done` or, once nothing comes for a while, it gives up.
    void Pump(const std::function<bool()> &done) {
        auto isDSEvent = Export<BOOL(WINAPI *)(MSG *)>("smIsDSEvent");
        DWORD quietSince = GetTickCount();
        while (!done()) {
            MSG msg;
            if (!PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
                if (GetTickCount() - quietSince >= kIdleMs)
                    return;
                MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_ALLINPUT);
                continue;
            }
            quietSince = GetTickCount();
            if (isDSEvent(&msg)) {
                ++sourceEvents_;
                continue;
            }
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
    }

    // What a careful application does at the end: disable and close the source, and try once more when the session
    // is not closed then.
    void Close(Observed &run) {
        for (int attempt = 0; attempt < 2 && (attempt == 0 || State() != 2); ++attempt) {
            run.transcript.push_back("smDisableDS=" + std::to_string(Call0("smDisableDS")));
            run.transcript.push_back("smCloseDS=" + std::to_string(Call0("smCloseDS")));
        }
    }

    void Finish(Observed &run) {
        run.state = State();
        run.transcript.push_back("state=" + std::to_string(run.state));
        run.transcript.push_back("source=" + SourceState());
        run.transcript.push_back("files=" + std::to_string(Files().size()));
        run.calls = dsm.Calls();
    }

    void Note(Observed &run, const char *name, LONG result) {
        run.transcript.push_back(std::string(name) + "=" + std::to_string(result));
    }

    // The settings of the small page and of the feeder, through the module's exports, each result noted.
    void SetUp(Observed &run, LONG mechanism) {
        Note(run, "smSetXferMech", Call1("smSetXferMech", mechanism));
        Note(run, "smSetPixelType", Call1("smSetPixelType", SM_PIXEL_RGB));
        Note(run, "smSetBitDepth", Call1("smSetBitDepth", 24));
        Note(run, "smSetXResolution", Call1("smSetXResolution", 50));
        Note(run, "smSetYResolution", Call1("smSetYResolution", 50));
        Note(run, "smSetXScale", CallScale("smSetXScale", 0.25));
        Note(run, "smSetYScale", CallScale("smSetYScale", 0.25));
        Note(run, "smSetADFEnable", Call1("smSetADFEnable", 1));
    }

    // The application of the event filter: the module transfers every image inside smIsDSEvent and asks to be closed
    // after the last.
    Observed Acquire(const Scenario &s) {
        Observed run;
        int page = 0;
        app.onXferStart = [this, &page](const Notice &, ScanImageInfo *image) {
            if (image->mechanism == SM_XFER_FILE)
                lstrcpynA(static_cast<char *>(image->xferTarget),
                          (directory_ + "\\page-" + std::to_string(++page) + ".bmp").c_str(), 256);
        };
        const LONG open = Export<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Fault matrix");
        Note(run, "smOpenDS", open);
        if (open == SM_OK) {
            SetUp(run, s.mechanism);
            const LONG enable = Export<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE);
            Note(run, "smEnableDS", enable);
            if (enable == SM_OK) {
                Pump([this] { return app.Count(NoticeKind::CloseDSReq) > 0; });
                TakeNotices(run);
                run.transcript.push_back("source=" + SourceState());
            }
            Close(run);
        }
        app.onXferStart = nullptr;
        Finish(run);
        return run;
    }

    // The application of smReadBlock: the module's event filter leaves the images pending, and the application pulls
    // each image block by block, noting every call: "read N" for the bytes of a block, "read failed" where *count was
    // left as it was, "end N" for the call that ends an image. Three failed calls in a row end its patience.
    Observed AcquireByBlocks(const Scenario &s) {
        Observed run;
        const LONG open = Export<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Fault matrix");
        Note(run, "smOpenDS", open);
        if (open == SM_OK) {
            SetUp(run, s.mechanism);
            const LONG enable = Export<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE);
            Note(run, "smEnableDS", enable);
            if (enable == SM_OK) {
                sourceEvents_ = 0;
                Pump([this] { return sourceEvents_ > 0; });
                run.transcript.push_back("events=" + std::to_string(sourceEvents_));
                TakeNotices(run);
                auto readBlock = Export<BOOL(WINAPI *)(BYTE *, DWORD, DWORD *)>("smReadBlock");
                std::vector<BYTE> buffer(kBlockBytes + kRowBytes);
                for (int image = 0; image < kPages; ++image) {
                    int failed = 0;
                    for (int calls = 0; calls < 40 && failed < 3; ++calls) {
                        constexpr DWORD kUntouched = 0xFFFFFFFE;
                        DWORD count = kUntouched;
                        const BOOL over = readBlock(buffer.data(), kBlockBytes, &count);
                        if (over) {
                            run.transcript.push_back("end");
                            break;
                        }
                        failed = count == kUntouched ? failed + 1 : 0;
                        run.transcript.push_back(count == kUntouched ? "read failed" : "read " + std::to_string(count));
                    }
                }
                run.transcript.push_back("source=" + SourceState());
            }
            Close(run);
        }
        Finish(run);
        return run;
    }

    // The application of the scan to file: for each sheet it opens the source, sets the scale the settings record does
    // not carry, and lets smZephraScan write the image to the file it names.
    Observed AcquireToFiles(const Scenario &) {
        Observed run;
        int page = 0;
        app.onScanToFileGetName = [this, &page](const Notice &, char *name) {
            lstrcpynA(name, (directory_ + "\\page-" + std::to_string(++page) + ".bmp").c_str(), 256);
        };
        ScanToFileSettings settings = {};
        settings.pixelTypeCode = SM_PIXEL_RGB;
        settings.resolution = 50;
        settings.brightnessMin = settings.contrastMin = -1000;
        settings.brightnessMax = settings.contrastMax = 1000;
        settings.highlight = settings.highlightMax = settings.shadowMax = 255;
        settings.useFeeder = 1;
        for (int sheet = 0; sheet < kPages; ++sheet) {
            const LONG open = Export<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Fault matrix");
            Note(run, "smOpenDS", open);
            if (open != SM_OK)
                continue;
            Note(run, "smSetXScale", CallScale("smSetXScale", 0.25));
            Note(run, "smSetYScale", CallScale("smSetYScale", 0.25));
            const DWORD enabled = Export<DWORD(WINAPI *)(HWND, const char *, const ScanToFileSettings *)>(
                "smZephraScan")(app.Handle(), "Fault matrix", &settings);
            Note(run, "smZephraScan", static_cast<LONG>(enabled));
            if (enabled) {
                run.transcript.push_back(std::string("interface=") + (InterfaceShown() ? "shown" : "hidden"));
                Pump([this] { return app.Count(NoticeKind::ScanToFileDSClosed) > 0; });
            }
            TakeNotices(run);
            if (State() != 2) {
                run.transcript.push_back("source=" + SourceState());
                Close(run);
            }
        }
        app.onScanToFileGetName = nullptr;
        run.transcript.push_back("boxes=" + std::to_string(boxes.Boxes().size()));
        boxes.Clear();
        Finish(run);
        return run;
    }

    // Whether the last MSG_ENABLEDS showed the source's interface.
    bool InterfaceShown() const {
        bool shown = false;
        for (const TdsmCall &call : dsm.Calls())
            if (call.dat == DAT_USERINTERFACE && call.msg == MSG_ENABLEDS)
                shown = reinterpret_cast<const TW_USERINTERFACE *>(call.dataIn)->ShowUI != 0;
        return shown;
    }

    Observed Observe(const Scenario &s) {
        switch (s.flow) {
        case Flow::Application:
            return Acquire(s);
        case Flow::ReadBlock:
            return AcquireByBlocks(s);
        default:
            return AcquireToFiles(s);
        }
    }

    ScanLibrary library;
    DsmControl dsm;
    VscanLibrary scanner;
    NotificationWindow app;
    GlobalMemoryTracker tracker;
    MessageBoxes boxes;
    std::unique_ptr<SuppressSetting> suppress_;
    std::string directory_;
    int sourceEvents_ = 0;
};

constexpr Scenario kScenarios[] = {
    {"native", Flow::Application, SM_XFER_NATIVE},
    {"file", Flow::Application, SM_XFER_FILE},
    {"memory", Flow::Application, SM_XFER_MEMORY},
    {"smReadBlock", Flow::ReadBlock, SM_XFER_MEMORY},
    {"scan to file by memory", Flow::ScanToFile, SM_XFER_MEMORY},
    {"scan to file by file", Flow::ScanToFile, SM_XFER_FILE},
    {"scan to file native", Flow::ScanToFile, SM_XFER_NATIVE},
};

} // namespace

namespace {

// --- What each failed call must show: one rule per triplet, acting on the transcript without the fault.

// A case: the scenario, the triplet failed, at its k-th of n calls, and how.
struct Case {
    const Scenario *scenario;
    Key key;
    int k;
    int n;
    const Answer *answer;
    // Of the call failed, in the acquisition without the fault: its answer, the image (or sheet) it belongs to and,
    // for a memory block, its place in the image.
    TW_UINT16 baselineRc;
    int image;
    int block;
};

// What the case must show. `beginning`: the fault makes the source go on otherwise (another mechanism, format or size)
// so that only the transcript up to the failure's answer is predicted; its end then follows from the state the
// transfers left the source in. `anyBlocks`: the images' sizes change, and so may the number of their blocks.
struct Expected {
    Strings transcript;
    bool beginning = false;
    bool anyBlocks = false;
};

using RuleFn = void (*)(const Case &c, Expected &e);
constexpr TW_UINT16 kAnyCap = 0xFFFF;

// The transcript's entries, found and changed.
size_t Find(const Strings &t, const std::string &entry, int nth = 1) {
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i] == entry && --nth == 0)
            return i;
    return t.size();
}
size_t FindPrefix(const Strings &t, const std::string &prefix, int nth = 1) {
    for (size_t i = 0; i < t.size(); ++i)
        if (t[i].compare(0, prefix.size(), prefix) == 0 && --nth == 0)
            return i;
    return t.size();
}
void SetEntry(Strings &t, size_t at, const std::string &entry) {
    if (at < t.size())
        t[at] = entry;
}
// "name=result" of the nth call of `name`.
void SetResult(Strings &t, const std::string &name, LONG result, int nth = 1) {
    SetEntry(t, FindPrefix(t, name + "=", nth), name + "=" + std::to_string(result));
}
void Cut(Strings &t, size_t at) {
    t.erase(t.begin() + std::min(at, t.size()), t.end());
}
void Append(Strings &t, const Strings &more) {
    t.insert(t.end(), more.begin(), more.end());
}
std::string Files(int count) {
    return "files=" + std::to_string(count);
}
void SetFiles(Strings &t, int count) {
    SetEntry(t, FindPrefix(t, "files="), Files(count));
}

// The entries of image i (from its XferStart to its XferEnd) of an application's transcript.
std::pair<size_t, size_t> ImageEntries(const Strings &t, int image) {
    const size_t start = Find(t, "XferStart", image);
    const size_t end = FindPrefix(t, "XferEnd(", image);
    return {start, end + 1};
}
// The smReadBlock calls of image i, its "end" included.
std::pair<size_t, size_t> ImageReads(const Strings &t, int image) {
    const size_t start = image == 1 ? FindPrefix(t, "events=") + 1 : Find(t, "end", image - 1) + 1;
    return {start, Find(t, "end", image) + 1};
}
// The entries of sheet i of a scan to file, from its smOpenDS to the next sheet's.
std::pair<size_t, size_t> SheetEntries(const Strings &t, int sheet) {
    const size_t start = FindPrefix(t, "smOpenDS=", sheet);
    const size_t next = FindPrefix(t, "smOpenDS=", sheet + 1);
    return {start, next < t.size() ? next : FindPrefix(t, "boxes=")};
}
void ReplaceRange(Strings &t, std::pair<size_t, size_t> range, const Strings &with) {
    t.erase(t.begin() + range.first, t.begin() + range.second);
    t.insert(t.begin() + range.first, with.begin(), with.end());
}
// The image's end with another result.
void EndImageWith(Strings &t, int image, LONG result) {
    SetEntry(t, FindPrefix(t, "XferEnd(", image), "XferEnd(" + std::to_string(result) + ")");
}
// The result the module gives for the failed call: the source's condition code, or -4 for a cancel.
LONG Result(const Case &c) {
    return c.answer->IsCancel() ? SM_ERR_SOURCE_CANCEL : c.answer->cc;
}
// The end of an application's transcript from the source's state after the transfers: an enabled source is disabled
// and closed; one still in a transfer refuses to be disabled, and the session stays enabled.
Strings Closing(const std::string &source) {
    if (source == "source=enabled")
        return {source, "smDisableDS=0", "smCloseDS=0", "state=2", "source=closed"};
    return {source, "smDisableDS=11", "smCloseDS=11", "smDisableDS=11", "smCloseDS=11", "state=5", source};
}
// The transcript cut before the transfers' "source=" entry and ended as Closing() says, with `files` files.
void EndWith(Strings &t, const std::string &source, int files) {
    Cut(t, FindPrefix(t, "source="));
    Append(t, Closing(source));
    t.push_back(Files(files));
}
int BaselineFiles(const Strings &t) {
    return std::stoi(t[FindPrefix(t, "files=")].substr(6));
}

// --- The rules of the application's transfers (native, file, memory) and of smReadBlock.

// The open fails with the code: nothing more is done, and the source manager is closed again.
void OpenFails(const Case &c, Expected &e) {
    e.transcript = {"smOpenDS=" + std::to_string(Result(c)), "state=2", "source=closed", "files=0"};
}
// The answer does not matter: the acquisition is the one without the fault.
void Unchanged(const Case &, Expected &) {}
// A set of one item type whose source refuses the others: the module tries them all, and answers the code of the last
// refusal (TWCC_BADVALUE); the source keeps its own setting, so the transfers that follow are its.
void SetRefused(const Case &c, Expected &e) {
    const std::string name = c.key.cap == ICAP_XFERMECH    ? "smSetXferMech"
                             : c.key.cap == ICAP_PIXELTYPE ? "smSetPixelType"
                             : c.key.cap == ICAP_BITDEPTH  ? "smSetBitDepth"
                                                           : "smSetADFEnable";
    const size_t at = FindPrefix(e.transcript, name + "=");
    SetEntry(e.transcript, at, name + "=" + std::to_string(SM_ERR_BAD_VALUE));
    Cut(e.transcript, at + 1);
    e.beginning = true;
}
// A FIX32 set is made once: its code is the result, and the page keeps the source's size.
void SizeRefused(const Case &c, Expected &e) {
    const std::string name = c.key.cap == ICAP_XRESOLUTION   ? "smSetXResolution"
                             : c.key.cap == ICAP_YRESOLUTION ? "smSetYResolution"
                             : c.key.cap == ICAP_XSCALING    ? "smSetXScale"
                                                             : "smSetYScale";
    SetResult(e.transcript, name, Result(c));
    if (c.scenario->flow == Flow::ReadBlock) {
        Cut(e.transcript, FindPrefix(e.transcript, name + "=") + 1);
        e.beginning = true;
    }
    e.anyBlocks = true;
}
// The enable fails with the code; the application closes the source it opened.
void EnableFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    SetResult(t, "smEnableDS", Result(c));
    Cut(t, FindPrefix(t, "smEnableDS=") + 1);
    Append(t, {"smDisableDS=0", "smCloseDS=0", "state=2", "source=closed", Files(0)});
}
// The event that carried the transfer-ready notice is lost: no transfer starts, the source stays enabled.
void NoticeLost(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    Cut(t, FindPrefix(t, "smEnableDS=") + 1);
    if (c.scenario->flow == Flow::ReadBlock) {
        // Without the event nothing is ready: every block the application asks for is refused.
        t.push_back("events=0");
        for (int i = 0; i < kPages * 3; ++i)
            t.push_back("read failed");
    }
    Append(t, Closing("source=enabled"));
    t.push_back(Files(0));
}
// No DAT_IMAGEINFO for image i: it is neither announced nor ended, and the next one follows.
void ImageSkipped(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    if (c.scenario->flow == Flow::ReadBlock) {
        // The reader takes the image as one byte a pixel: each row arrives as 106 of its bytes.
        const auto reads = ImageReads(t, c.image);
        for (size_t i = reads.first; i < reads.second; ++i)
            if (t[i] == "read " + std::to_string(kBlockBytes))
                t[i] = "read " + std::to_string(kBlockRows * 106);
        return;
    }
    ReplaceRange(t, ImageEntries(t, c.image), {});
    SetFiles(t, std::max(0, BaselineFiles(t) - 1));
}
// The image ends with the code (-4 for a cancel), the others arrive.
void ImageFails(const Case &c, Expected &e) {
    EndImageWith(e.transcript, c.image, Result(c));
    SetFiles(e.transcript, std::max(0, BaselineFiles(e.transcript) - 1));
}
// DAT_SETUPMEMXFER fails: the module takes 64 KiB for all three sizes. The first image's buffer serves them all.
void BufferSizesFail(const Case &c, Expected &e) {
    if (c.scenario->flow != Flow::Application || c.image != 1)
        return;
    for (std::string &entry : e.transcript)
        if (entry.compare(0, 9, "XferData*") == 0)
            entry = "XferData*1";
}
// A block fails. Condition code 5 ends the batch: the image ends with it, the rest are dropped, and the application is
// asked twice to close the source. Any other code, or a cancel, ends that image only.
void BlockFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    if (c.scenario->flow == Flow::ReadBlock) {
        const size_t call = ImageReads(t, c.image).first + c.block - 1;
        if (c.answer->cc != TWCC_OPERATIONERROR && !c.answer->IsCancel()) {
            // *count is left as it was, and the next call takes up the image where it stopped.
            t.insert(t.begin() + call, "read failed");
            return;
        }
        // The call ends the image; what follows depends on where that leaves the source.
        Cut(t, call);
        t.push_back("end");
        e.beginning = true;
        return;
    }
    const auto image = ImageEntries(t, c.image);
    Strings replaced = {"XferStart"};
    if (c.block > 1)
        replaced.push_back("XferData*" + std::to_string(c.block - 1));
    replaced.push_back("XferEnd(" + std::to_string(Result(c)) + ")");
    if (c.answer->cc == TWCC_OPERATIONERROR) {
        ReplaceRange(t, {image.first, Find(t, "CloseDSReq") + 1}, replaced);
        t.insert(t.begin() + image.first + replaced.size(), {"CloseDSReq", "CloseDSReq"});
        return;
    }
    ReplaceRange(t, image, replaced);
}
// MSG_ENDXFER fails after image i: the count reads 0, so the loop stops there with the source still in the image,
// which then refuses to be disabled. The session stays enabled.
void EndFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    const bool writesFiles = BaselineFiles(t) > 0;
    if (c.scenario->flow == Flow::ReadBlock) {
        // The next images find the source still in image i: their blocks are refused.
        Cut(t, ImageReads(t, c.image).second);
        for (int i = c.image; i < kPages; ++i)
            for (int j = 0; j < 3; ++j)
                t.push_back("read failed");
    } else {
        const size_t after = ImageEntries(t, c.image).second;
        Cut(t, after);
        t.push_back("CloseDSReq");
    }
    EndWith(t, "source=transferring", writesFiles ? c.image : 0);
}
// The disable fails with the code: the session stays enabled and the close is refused; the application's second
// attempt closes it.
void DisableFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    const size_t at = FindPrefix(t, "smDisableDS=");
    const std::string files = t[FindPrefix(t, "files=")];
    Cut(t, at);
    Append(t, {"smDisableDS=" + std::to_string(Result(c)), "smCloseDS=11", "smDisableDS=0", "smCloseDS=0", "state=2",
               "source=closed", files});
}
// MSG_CLOSEDS fails with the code: the source stays open (state 4); the second attempt closes it.
void CloseFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    const size_t at = FindPrefix(t, "smCloseDS=");
    const std::string files = t[FindPrefix(t, "files=")];
    Cut(t, at);
    Append(t, {"smCloseDS=" + std::to_string(Result(c)), "smDisableDS=0", "smCloseDS=0", "state=2", "source=closed",
               files});
}
// MSG_CLOSEDSM fails: smCloseDS still answers 0 with the source manager open (state 3); the second attempt is refused
// its disable and closes the source manager.
void ManagerCloseFails(const Case &, Expected &e) {
    Strings &t = e.transcript;
    const size_t at = FindPrefix(t, "smCloseDS=");
    const std::string files = t[FindPrefix(t, "files=")];
    Cut(t, at);
    Append(t, {"smCloseDS=0", "smDisableDS=11", "smCloseDS=0", "state=2", "source=closed", files});
}

} // namespace

namespace {

// --- The rules of the scan to file, sheet by sheet: each sheet is one smOpenDS and one smZephraScan.

// The sheet's entries replaced by `with`; one file fewer when the sheet's image is not written.
void Sheet(const Case &c, Expected &e, const Strings &with, bool written) {
    const Strings &t = e.transcript;
    const auto sheet = SheetEntries(t, c.image);
    ReplaceRange(e.transcript, sheet, with);
    if (!written)
        SetFiles(e.transcript, BaselineFiles(e.transcript) - 1);
}
const Strings kScanned = {"ScanToFileGetName", "ScanToFileXferEnd(0)", "ScanToFileDSClosed"};
Strings Opened(const std::string &zephraScan) {
    return {"smOpenDS=0", "smSetXScale=0", "smSetYScale=0", "smZephraScan=" + zephraScan};
}

// The sheet's open fails: the application goes on with the next sheet.
void SheetOpenFails(const Case &c, Expected &e) {
    Sheet(c, e, {"smOpenDS=" + std::to_string(Result(c))}, false);
}
// The application's own scale is refused: the sheet is scanned at the source's size.
void SheetScaleRefused(const Case &c, Expected &e) {
    Strings with = Opened("1");
    with[c.key.cap == ICAP_XSCALING ? 1 : 2] =
        std::string(c.key.cap == ICAP_XSCALING ? "smSetXScale=" : "smSetYScale=") + std::to_string(Result(c));
    with.push_back("interface=hidden");
    Append(with, kScanned);
    Sheet(c, e, with, true);
}
// A pixel type or resolution the source refuses shows the source's interface, which scans by itself here.
void SheetInterfaceShown(const Case &c, Expected &e) {
    Strings with = Opened("1");
    with.push_back("interface=shown");
    Append(with, kScanned);
    Sheet(c, e, with, true);
}
// The mechanism the source took is refused this time. After memory the module tries the file transfer, which the
// source takes; after the file transfer (or native) no mechanism is left: smZephraScan answers 0 with the source left
// open, and the application closes it.
void SheetMechanismRefused(const Case &c, Expected &e) {
    if (c.baselineRc != TWRC_SUCCESS || c.scenario->mechanism == SM_XFER_MEMORY)
        return;
    Strings with = Opened("0");
    Append(with, {"source=open", "smDisableDS=0", "smCloseDS=0"});
    Sheet(c, e, with, false);
}
// The enable fails: smZephraScan disables and closes the source itself and answers 0.
void SheetEnableFails(const Case &c, Expected &e) {
    Sheet(c, e, Opened("0"), false);
}
// The transfer-ready event is lost: nothing is scanned, and the application closes the enabled source.
void SheetNoticeLost(const Case &c, Expected &e) {
    Strings with = Opened("1");
    Append(with, {"interface=hidden", "source=enabled", "smDisableDS=0", "smCloseDS=0"});
    Sheet(c, e, with, false);
}
// The image fails with `result`: its file is removed and the batch ends.
void SheetImageFailsWith(const Case &c, Expected &e, LONG result) {
    Strings with = Opened("1");
    Append(with, {"interface=hidden", "ScanToFileGetName", "ScanToFileXferEnd(" + std::to_string(result) + ")",
                  "ScanToFileDSClosed"});
    Sheet(c, e, with, false);
}
// Without its image information the image is refused (1).
void SheetImageRefused(const Case &c, Expected &e) {
    SheetImageFailsWith(c, e, SM_ERR_IMAGE_REFUSED);
}
// A transfer or its set-up fails: the image ends with the code, or -4 for a cancel.
void SheetImageFails(const Case &c, Expected &e) {
    SheetImageFailsWith(c, e, Result(c));
}
// MSG_ENDXFER fails: the batch still ends, but the source, still in the image, refuses to be disabled, and the session
// stays enabled: the later sheets' opens are refused.
void SheetEndFails(const Case &c, Expected &e) {
    Strings &t = e.transcript;
    Cut(t, SheetEntries(t, c.image).second);
    Append(t, {"source=transferring", "smDisableDS=11", "smCloseDS=11", "smDisableDS=11", "smCloseDS=11"});
    for (int sheet = c.image + 1; sheet <= kPages; ++sheet)
        t.push_back("smOpenDS=11");
    Append(t, {"boxes=0", "state=5", "source=transferring", Files(c.image)});
}
// The sheet scanned and written, then `closing`: what the application does with a session the batch could not end.
void SheetScannedThen(const Case &c, Expected &e, const Strings &closing) {
    Strings with = Opened("1");
    with.push_back("interface=hidden");
    Append(with, kScanned);
    Append(with, closing);
    Sheet(c, e, with, true);
}
// The batch's disable fails: smZephraScan cannot close the enabled source, and the application closes it.
void SheetDisableFails(const Case &c, Expected &e) {
    SheetScannedThen(c, e, {"source=enabled", "smDisableDS=0", "smCloseDS=0"});
}
// The batch's MSG_CLOSEDS fails: the source stays open, and the application closes it.
void SheetCloseFails(const Case &c, Expected &e) {
    SheetScannedThen(c, e, {"source=open", "smDisableDS=0", "smCloseDS=0"});
}
// The batch's MSG_CLOSEDSM fails: the source manager stays open; the application's close is refused its disable and
// closes the source manager.
void SheetManagerCloseFails(const Case &c, Expected &e) {
    SheetScannedThen(c, e, {"source=closed", "smDisableDS=11", "smCloseDS=0"});
}

// One row of the table: the flow (or every flow but the scan to file, kAcquire), the triplet (cap kAnyCap: any), what
// the failure does in a few words for the matrix, and the rule.
enum class Flows { Acquire, ScanToFile };
struct Rule {
    Flows flows;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 cap;
    const char *effect;
    RuleFn expect;
};

const Rule kRules[] = {
    {Flows::Acquire, DAT_PARENT, MSG_OPENDSM, 0, "open fails", OpenFails},
    {Flows::Acquire, DAT_IDENTITY, MSG_GETDEFAULT, 0, "default opens", Unchanged},
    {Flows::Acquire, DAT_IDENTITY, MSG_OPENDS, 0, "open fails", OpenFails},
    {Flows::Acquire, DAT_CAPABILITY, MSG_GET, ICAP_BRIGHTNESS, "asked again", Unchanged},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, "set refused", SetRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_PIXELTYPE, "set refused", SetRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_BITDEPTH, "set refused", SetRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, CAP_FEEDERENABLED, "set refused", SetRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_XRESOLUTION, "page resized", SizeRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_YRESOLUTION, "page resized", SizeRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_XSCALING, "page resized", SizeRefused},
    {Flows::Acquire, DAT_CAPABILITY, MSG_SET, ICAP_YSCALING, "page resized", SizeRefused},
    {Flows::Acquire, DAT_USERINTERFACE, MSG_ENABLEDS, 0, "enable fails", EnableFails},
    {Flows::Acquire, DAT_EVENT, MSG_PROCESSEVENT, 0, "notice lost", NoticeLost},
    {Flows::Acquire, DAT_CAPABILITY, MSG_GETCURRENT, kAnyCap, "asked again", Unchanged},
    {Flows::Acquire, DAT_IMAGEINFO, MSG_GET, 0, "image skipped", ImageSkipped},
    {Flows::Acquire, DAT_IMAGENATIVEXFER, MSG_GET, 0, "image fails", ImageFails},
    {Flows::Acquire, DAT_SETUPFILEXFER, MSG_SET, 0, "image fails", ImageFails},
    {Flows::Acquire, DAT_IMAGEFILEXFER, MSG_GET, 0, "image fails", ImageFails},
    {Flows::Acquire, DAT_SETUPMEMXFER, MSG_GET, 0, "64 KiB", BufferSizesFail},
    {Flows::Acquire, DAT_IMAGEMEMXFER, MSG_GET, 0, "block fails", BlockFails},
    {Flows::Acquire, DAT_PENDINGXFERS, MSG_ENDXFER, 0, "left enabled", EndFails},
    {Flows::Acquire, DAT_USERINTERFACE, MSG_DISABLEDS, 0, "closed at 2nd", DisableFails},
    {Flows::Acquire, DAT_IDENTITY, MSG_CLOSEDS, 0, "closed at 2nd", CloseFails},
    {Flows::Acquire, DAT_PARENT, MSG_CLOSEDSM, 0, "closed at 2nd", ManagerCloseFails},

    {Flows::ScanToFile, DAT_PARENT, MSG_OPENDSM, 0, "sheet skipped", SheetOpenFails},
    {Flows::ScanToFile, DAT_IDENTITY, MSG_GETDEFAULT, 0, "default opens", Unchanged},
    {Flows::ScanToFile, DAT_IDENTITY, MSG_OPENDS, 0, "sheet skipped", SheetOpenFails},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_GET, ICAP_BRIGHTNESS, "asked again", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_XSCALING, "page resized", SheetScaleRefused},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_YSCALING, "page resized", SheetScaleRefused},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_PIXELTYPE, "interface shown", SheetInterfaceShown},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_XRESOLUTION, "interface shown", SheetInterfaceShown},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_YRESOLUTION, "interface shown", SheetInterfaceShown},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_BRIGHTNESS, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_CONTRAST, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_HIGHLIGHT, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_SHADOW, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, CAP_XFERCOUNT, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, CAP_FEEDERENABLED, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, "next mechanism", SheetMechanismRefused},
    {Flows::ScanToFile, DAT_USERINTERFACE, MSG_ENABLEDS, 0, "enable fails", SheetEnableFails},
    {Flows::ScanToFile, DAT_EVENT, MSG_PROCESSEVENT, 0, "notice lost", SheetNoticeLost},
    {Flows::ScanToFile, DAT_IMAGEINFO, MSG_GET, 0, "image refused", SheetImageRefused},
    {Flows::ScanToFile, DAT_SETUPMEMXFER, MSG_GET, 0, "64 KiB", Unchanged},
    {Flows::ScanToFile, DAT_CAPABILITY, MSG_GETCURRENT, ICAP_UNITS, "asked again", Unchanged},
    {Flows::ScanToFile, DAT_IMAGEMEMXFER, MSG_GET, 0, "image fails", SheetImageFails},
    {Flows::ScanToFile, DAT_SETUPFILEXFER, MSG_SET, 0, "image fails", SheetImageFails},
    {Flows::ScanToFile, DAT_IMAGEFILEXFER, MSG_GET, 0, "image fails", SheetImageFails},
    {Flows::ScanToFile, DAT_IMAGENATIVEXFER, MSG_GET, 0, "image fails", SheetImageFails},
    {Flows::ScanToFile, DAT_PENDINGXFERS, MSG_ENDXFER, 0, "left enabled", SheetEndFails},
    {Flows::ScanToFile, DAT_PENDINGXFERS, MSG_RESET, 0, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_STATUS, MSG_GET, 0, "ignored", Unchanged},
    {Flows::ScanToFile, DAT_USERINTERFACE, MSG_DISABLEDS, 0, "app closes", SheetDisableFails},
    {Flows::ScanToFile, DAT_IDENTITY, MSG_CLOSEDS, 0, "app closes", SheetCloseFails},
    {Flows::ScanToFile, DAT_PARENT, MSG_CLOSEDSM, 0, "app closes", SheetManagerCloseFails},
};

const Rule *RuleFor(const Scenario &s, const Key &key) {
    const Flows flows = s.flow == Flow::ScanToFile ? Flows::ScanToFile : Flows::Acquire;
    for (const Rule &rule : kRules)
        if (rule.flows == flows && rule.dat == key.dat && rule.msg == key.msg &&
            (rule.cap == kAnyCap || rule.cap == key.cap))
            return &rule;
    return nullptr;
}

// TWRC_CANCEL only where a transfer may answer it.
bool Cancels(const Key &key) {
    return key.dat == DAT_IMAGENATIVEXFER || key.dat == DAT_IMAGEFILEXFER || key.dat == DAT_IMAGEMEMXFER;
}

} // namespace

namespace {

// --- The matrix: the cases of every triplet of a scenario, run and printed.

const char *const kPositionNames[] = {"first", "middle", "last"};

// One row of the printed matrix: the triplet, its calls, what a failure does, and for each position the verdict of
// each answer ("+" as expected, "x" not), or "-" where the position is the same call as one before.
struct MatrixRow {
    std::string triplet;
    int calls = 0;
    std::string effect;
    std::string cells[3];
};

class FaultMatrix : public FaultMatrixTest, public ::testing::WithParamInterface<size_t> {
protected:
    // The operator's hand after a case: a source still in a transfer is told it is over (with the identities the
    // module enabled it with), and the module's own calls close the session. False when they cannot.
    bool Recover() {
        TW_IDENTITY origin = {}, destination = {};
        for (const TdsmCall &call : dsm.Calls())
            if (call.dat == DAT_USERINTERFACE && call.msg == MSG_ENABLEDS) {
                origin.Id = call.originId;
                destination.Id = call.destId;
            }
        TW_PENDINGXFERS pending = {};
        if (scanner.Info().state == VSCAN_STATE_XFERRING)
            dsm.Entry()(&origin, &destination, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
        if (scanner.Info().state == VSCAN_STATE_XFERREADY)
            dsm.Entry()(&origin, &destination, DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending);
        for (int attempt = 0; attempt < 3 && State() != 2; ++attempt) {
            Call0("smDisableDS");
            Call0("smCloseDS");
        }
        return State() == 2 && scanner.Info().state == VSCAN_STATE_CLOSED;
    }

    void Inject(const Case &c) {
        if (c.key.ForTheManager())
            dsm.Get<TdsmFailTripletExProc>("TdsmFailTripletEx")(c.key.dg, c.key.dat, c.key.msg, c.answer->rc,
                                                                c.answer->cc, c.k, 1);
        else
            ASSERT_EQ(
                1, scanner.failTriplet(c.key.dg, c.key.dat, c.key.msg, c.key.cap, c.answer->rc, c.answer->cc, c.k, 1));
    }

    // Every file a transfer wrote belongs to an image the application was told was written.
    std::string FilesOfWrittenImages(const Observed &run) const {
        const bool toFile = scenario().flow == Flow::ScanToFile;
        const std::string written = toFile ? "ScanToFileXferEnd(0)" : "XferEnd(0)";
        const long images = std::count(run.transcript.begin(), run.transcript.end(), written);
        const bool writesFiles = toFile || scenario().mechanism == SM_XFER_FILE;
        const long files = static_cast<long>(Files().size());
        if (files == (writesFiles ? images : 0))
            return "";
        return " " + std::to_string(files) + " files for " + std::to_string(writesFiles ? images : 0) +
               " written images;";
    }

    // What the case showed against what it must show; "" when all holds.
    std::string Verdict(const Observed &got, const Expected &e) const {
        Strings want = e.transcript, seen = got.transcript;
        if (e.anyBlocks)
            for (Strings *t : {&want, &seen})
                for (std::string &entry : *t)
                    if (entry.compare(0, 9, "XferData*") == 0)
                        entry = "XferData*";
        std::string wrong;
        if (!e.beginning && seen != want)
            wrong += " transcript:\n      want " + Join(want) + "\n      seen " + Join(seen) + "\n";
        if (e.beginning) {
            if (seen.size() < want.size() || !std::equal(want.begin(), want.end(), seen.begin()))
                wrong += " beginning:\n      want " + Join(want) + "\n      seen " + Join(seen) + "\n";
            // The end follows from where the transfers left the source.
            const size_t source = FindPrefix(seen, "source=");
            Strings end(seen.begin() + std::min(source, seen.size()), seen.end());
            if (!end.empty())
                end.pop_back(); // the files, checked below
            if (source >= seen.size() || end != Closing(seen[source]))
                wrong += " end: " + Join(end) + "\n";
        }
        wrong += FilesOfWrittenImages(got);
        if (!tracker.Live().empty() || tracker.DoubleFrees())
            wrong += " module memory: " + tracker.Describe() + ";";
        return wrong;
    }
    static std::string Join(const Strings &t) {
        std::string text;
        for (const std::string &entry : t)
            text += (text.empty() ? "" : " | ") + entry;
        return text;
    }

    // One case: a fresh module with the fault, what it shows, the operator's hand, and the next acquisition in the
    // same process, which must be the one without the fault.
    std::string RunCase(const Case &c, const Expected &e, const Observed &baseline) {
        Fresh(scenario());
        if (HasFatalFailure())
            return " set-up failed;";
        Inject(c);
        const Observed got = Observe(scenario());
        std::string wrong = Verdict(got, e);
        if (!Recover())
            wrong += " the session could not be closed (state " + std::to_string(State()) + ", source " +
                     SourceState() + ");";
        dsm.Get<TdsmClearFaultsProc>("TdsmClearFaults")();
        ConfigureScanner(scenario());
        RemoveFiles();
        app.Clear();
        tracker.Begin();
        const Observed next = Observe(scenario());
        if (next.transcript != baseline.transcript)
            wrong += " next acquisition:\n      want " + Join(baseline.transcript) + "\n      seen " +
                     Join(next.transcript) + "\n";
        if (!tracker.Live().empty() || tracker.DoubleFrees())
            wrong += " module memory after the next acquisition: " + tracker.Describe() + ";";
        return wrong;
    }

    const Scenario &scenario() const { return kScenarios[GetParam()]; }
};

TEST_P(FaultMatrix, EveryTripletFailedAtItsFirstMiddleAndLastCall) {
    const Scenario &s = scenario();
    Fresh(s);
    ASSERT_FALSE(HasFatalFailure());
    const Observed baseline = Observe(s);
    ASSERT_EQ(2, baseline.state) << Join(baseline.transcript);
    ASSERT_TRUE(tracker.Live().empty()) << tracker.Describe();
    ASSERT_EQ(kPages, std::count(baseline.transcript.begin(), baseline.transcript.end(),
                                 s.flow == Flow::ScanToFile      ? "ScanToFileXferEnd(0)"
                                 : s.flow == Flow::ReadBlock     ? "end"
                                 : s.mechanism == SM_XFER_NATIVE ? "XferEnd(0) bitmap"
                                                                 : "XferEnd(0)"))
        << Join(baseline.transcript);

    // The calls of the acquisition without a fault, triplet by triplet in the order they first came.
    std::vector<Key> order;
    std::map<Key, std::vector<size_t>> calls;
    for (size_t i = 0; i < baseline.calls.size(); ++i) {
        const Key key = KeyOf(baseline.calls[i]);
        if (!calls.count(key))
            order.push_back(key);
        calls[key].push_back(i);
    }
    auto countBefore = [&baseline](size_t index, TW_UINT16 dat, TW_UINT16 msg) {
        int count = 0;
        for (size_t i = 0; i < index; ++i)
            count += baseline.calls[i].dat == dat && baseline.calls[i].msg == msg;
        return count;
    };

    std::vector<MatrixRow> matrix;
    int cases = 0, failing = 0;
    for (const Key &key : order) {
        const Rule *rule = RuleFor(s, key);
        MatrixRow row;
        row.triplet = key.Name();
        row.calls = static_cast<int>(calls[key].size());
        if (!rule) {
            ADD_FAILURE() << "no rule for " << key.Name() << " in " << s.name;
            continue;
        }
        row.effect = rule->effect;
        const int n = row.calls;
        const int positions[] = {1, (n + 1) / 2, n};
        for (int p = 0; p < 3; ++p) {
            if (std::find(positions, positions + p, positions[p]) != positions + p) {
                row.cells[p] = "-";
                continue;
            }
            const int k = positions[p];
            const size_t index = calls[key][k - 1];
            Case c = {&s, key, k, n, nullptr, baseline.calls[index].rc, k, 0};
            if (s.flow == Flow::ScanToFile) {
                c.image = countBefore(index + 1, DAT_PARENT, MSG_OPENDSM);
            } else if (key.dat == DAT_IMAGEMEMXFER) {
                c.image = countBefore(index, DAT_IMAGEINFO, MSG_GET);
                size_t start = index;
                while (start > 0 && baseline.calls[start - 1].dat != DAT_IMAGEINFO)
                    --start;
                c.block =
                    countBefore(index + 1, DAT_IMAGEMEMXFER, MSG_GET) - countBefore(start, DAT_IMAGEMEMXFER, MSG_GET);
            }
            for (const Answer &answer : kAnswers) {
                if (answer.IsCancel() && !Cancels(key))
                    continue;
                c.answer = &answer;
                Expected e;
                e.transcript = baseline.transcript;
                rule->expect(c, e);
                const std::string wrong = RunCase(c, e, baseline);
                ++cases;
                row.cells[p] += wrong.empty() ? "+" : "x";
                if (!wrong.empty()) {
                    ++failing;
                    ADD_FAILURE() << s.name << ": " << key.Name() << " failed at call " << k << " of " << n << " with "
                                  << answer.name << " (" << rule->effect << "):" << wrong;
                }
            }
        }
        matrix.push_back(row);
    }

    std::printf("[ matrix   ] %s: %d cases, %d failing; columns: the first, middle and last call of the triplet, each "
                "failed with condition code 5, 11, 20 and (transfers) a cancel: + as expected, x not\n",
                s.name, cases, failing);
    for (const MatrixRow &row : matrix)
        std::printf("[ matrix   ]   %-58s %3d  %-6s %-6s %-6s %s\n", row.triplet.c_str(), row.calls,
                    row.cells[0].c_str(), row.cells[1].c_str(), row.cells[2].c_str(), row.effect.c_str());
}

std::string ScenarioName(const ::testing::TestParamInfo<size_t> &info) {
    std::string name = kScenarios[info.param].name;
    std::string out;
    bool upper = true;
    for (char ch : name) {
        if (ch == ' ') {
            upper = true;
            continue;
        }
        out += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(ch))) : ch;
        upper = false;
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Acquisitions, FaultMatrix, ::testing::Range<size_t>(0, sizeof kScenarios / sizeof *kScenarios),
                         ScenarioName);

} // namespace
