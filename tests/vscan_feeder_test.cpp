// The virtual scanner's feeder kept across loads of the module (KeepFeeder) and MSG_XFERREADY announced after every
// image that leaves images pending (XferReadyEach): the source loaded directly and behind the stand-in source manager,
// or, built with VSCAN_FEEDER_WINE_MANAGER, behind Wine's own source manager.
#include <windows.h>

#include <cctype>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "VscanTest.h"
#ifndef VSCAN_FEEDER_WINE_MANAGER
#include "DsmHarness.h"
#endif

namespace smtest {
namespace {

constexpr int kWidth = 100; // the small frame, 1 x 0.5 inch at 100 dpi
constexpr int kHeight = 50;
constexpr int kSheets = 3; // the feeder's sheets by default
const char kVscanName[] = "Virtual Scanner";
const char kNoticeName[] = "smkernal virtual scanner event";
// What FeederFileNumber answers for a missing file, and for one that holds anything but one decimal number.
constexpr int kNoFile = -1;
constexpr int kNotANumber = -2;
// Messages passed at most by PassQueuedMessages, against a loop that never empties the queue.
constexpr int kMostQueuedMessages = 200;

// A triplet sent to the source, directly or through a source manager.
using SourceCall = std::function<TW_UINT16(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data)>;

TW_UINT16 StatusOf(const SourceCall &call) {
    TW_STATUS status{0xffff, 0};
    call(DG_CONTROL, DAT_STATUS, MSG_GET, &status);
    return status.ConditionCode;
}

::testing::AssertionResult Answers(const SourceCall &call, TW_UINT16 expected, TW_UINT16 rc, const char *expr) {
    if (rc == expected)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << expr << " answered " << TwrcName(rc) << " (condition "
                                         << TwccName(StatusOf(call)) << "), expected " << TwrcName(expected);
}
#define EXPECT_ANSWERS(call, expected, expr) EXPECT_TRUE(Answers(call, expected, (expr), #expr))
#define ASSERT_ANSWERS(call, expected, expr) ASSERT_TRUE(Answers(call, expected, (expr), #expr))

void WriteTextFile(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::trunc);
    file << text;
    ASSERT_TRUE(file.good()) << "writing " << path;
}

std::string ReadTextFile(const std::string &path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The number the feeder file holds: its only word, decimal digits, blanks and line ends around it.
int FeederFileNumber(const std::string &path) {
    if (GetFileAttributesA(path.c_str()) == INVALID_FILE_ATTRIBUTES)
        return kNoFile;
    const std::string text = ReadTextFile(path);
    const char blanks[] = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return kNotANumber;
    const std::string word = text.substr(first, text.find_last_not_of(blanks) - first + 1);
    if (word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos)
        return kNotANumber;
    return std::stoi(word);
}

TW_UINT16 SetOne(const SourceCall &call, TW_UINT16 cap, TW_UINT16 itemType, double value) {
    TW_CAPABILITY c{cap, TWON_ONEVALUE, MakeOneValue(itemType, value)};
    const TW_UINT16 rc = call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &c);
    GlobalFree(c.hContainer);
    return rc;
}

// In state 4: the small frame, 8-bit gray, native transfers, the feeder enabled.
void SmallGrayFromTheFeeder(const SourceCall &call) {
    TW_IMAGELAYOUT layout{};
    layout.Frame.Right = DoubleToFix32(1);
    layout.Frame.Bottom = DoubleToFix32(0.5);
    ASSERT_ANSWERS(call, TWRC_SUCCESS, call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout));
    ASSERT_ANSWERS(call, TWRC_SUCCESS, SetOne(call, ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    ASSERT_ANSWERS(call, TWRC_SUCCESS, SetOne(call, CAP_FEEDERENABLED, TWTY_BOOL, 1));
}

TW_UINT16 Enable(const SourceCall &call, HWND parent) {
    TW_USERINTERFACE ui{0, 0, parent};
    return call(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui);
}

TW_UINT16 Disable(const SourceCall &call, HWND parent) {
    TW_USERINTERFACE ui{0, 0, parent};
    return call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui);
}

// The message loop through MSG_PROCESSEVENT until the source announces something (MSG_NULL after 3 s).
TW_UINT16 WaitForEvent(const SourceCall &call) {
    return WaitForSourceMessage(
        [&call](TW_EVENT &event) { return call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event); }, 3000);
}

// DAT_PENDINGXFERS with MSG_ENDXFER or MSG_RESET; the count it answers in `count`.
TW_UINT16 Pending(const SourceCall &call, TW_UINT16 msg, int &count) {
    TW_PENDINGXFERS pending{0x7777, 0};
    const TW_UINT16 rc = call(DG_CONTROL, DAT_PENDINGXFERS, msg, &pending);
    count = static_cast<TW_INT16>(pending.Count);
    return rc;
}

// In state 6: the image transferred natively and compared with page `page` of the test page, state 7 after.
void TransferPage(const SourceCall &call, int page) {
    TW_UINT32 handle = 0;
    ASSERT_ANSWERS(call, TWRC_XFERDONE, call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    Dib dib;
    ASSERT_TRUE(TakePackedDib(handle, dib));
    ExpectDib(MakeFormat(TWPT_GRAY, 8), dib, kWidth, kHeight, page);
}

// In state 6 with page `page` announced: it is transferred and ended; the count left.
int TransferAndEnd(const SourceCall &call, int page) {
    TransferPage(call, page);
    int count = -99;
    EXPECT_ANSWERS(call, TWRC_SUCCESS, Pending(call, MSG_ENDXFER, count));
    return count;
}

// What a program scanning one page per opening does between opening and closing (the source prepared with
// SmallGrayFromTheFeeder): enable, one page (`page`) of a batch of `sheets`, the rest dropped, disable.
void ScanOnePage(const SourceCall &call, HWND parent, int page, int sheets) {
    ASSERT_ANSWERS(call, TWRC_SUCCESS, Enable(call, parent));
    ASSERT_EQ(MSG_XFERREADY, WaitForEvent(call));
    const int count = TransferAndEnd(call, page);
    ASSERT_FALSE(::testing::Test::HasFatalFailure());
    EXPECT_EQ(sheets - 1, count) << "the rest of the feeder is pending";
    if (count > 0) {
        int left = -99;
        ASSERT_ANSWERS(call, TWRC_SUCCESS, Pending(call, MSG_RESET, left));
        EXPECT_EQ(0, left);
    }
    ASSERT_ANSWERS(call, TWRC_SUCCESS, Disable(call, parent));
}

// One notice of the source, as MSG_PROCESSEVENT answered it.
struct Notice {
    MSG msg;
    TW_UINT16 rc;
    TW_UINT16 twMessage;
};

// Every message waiting for this thread now goes through MSG_PROCESSEVENT (dispatched when it is not the source's);
// the answers to the source's notices. The source posts its notices before the triplet that announces returns, so
// no waiting is needed.
std::vector<Notice> PassQueuedMessages(const SourceCall &call) {
    const UINT notice = RegisterWindowMessageA(kNoticeName);
    std::vector<Notice> notices;
    MSG msg;
    for (int passed = 0; passed < kMostQueuedMessages && PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE); ++passed) {
        TW_EVENT event{&msg, 0xffff};
        const TW_UINT16 rc = call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
        if (msg.message == notice)
            notices.push_back(Notice{msg, rc, event.TWMessage});
        if (rc == TWRC_NOTDSEVENT) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
    }
    return notices;
}

// The answer to one notice again.
Notice PassAgain(const SourceCall &call, MSG msg) {
    TW_EVENT event{&msg, 0xffff};
    const TW_UINT16 rc = call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
    return Notice{msg, rc, event.TWMessage};
}

::testing::AssertionResult NoticeAnswered(const std::vector<Notice> &notices, size_t index, TW_UINT16 rc,
                                          TW_UINT16 twMessage) {
    if (index >= notices.size())
        return ::testing::AssertionFailure() << "notice " << index + 1 << " of " << notices.size() << " missing";
    const Notice &n = notices[index];
    if (n.rc != rc || n.twMessage != twMessage)
        return ::testing::AssertionFailure()
               << "notice " << index + 1 << " answered " << TwrcName(n.rc) << " with 0x" << std::hex << n.twMessage
               << ", expected " << TwrcName(rc) << " with 0x" << twMessage;
    return ::testing::AssertionSuccess();
}

// An application window, for hParent.
class AppWindow {
public:
    AppWindow() {
        window_ = CreateWindowExA(0, "STATIC", "vscan feeder test", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                  nullptr, GetModuleHandleA(nullptr), nullptr);
    }
    ~AppWindow() { DestroyWindow(window_); }
    HWND Handle() const { return window_; }

private:
    HWND window_;
};

#ifndef VSCAN_FEEDER_WINE_MANAGER

// --- The source loaded from the bin directory, as a source manager that frees it at every closing would.

class VscanFeederTest : public VscanTest {
protected:
    void SetUp() override {
        DeleteFileA(FeederPath().c_str());
        VscanTest::SetUp();
        call = [this](TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data) { return ds.Call(dg, dat, msg, data); };
    }
    void TearDown() override {
        VscanTest::TearDown();
        DeleteFileA(FeederPath().c_str());
    }

    static std::string FeederPath() { return BinDir() + "\\" VSCAN_FEEDER_FILE; }
    static int FeederFile() { return FeederFileNumber(FeederPath()); }

    // The module unloaded and loaded again: nothing of it survives but the files beside it.
    void Reload() {
        ds.Free();
        ASSERT_EQ(nullptr, GetModuleHandleA(VscanBuildPath().c_str())) << "the module is still loaded";
        ASSERT_TRUE(ds.Load());
    }
    void ReloadWithSettings(const std::string &ini) {
        ASSERT_NO_FATAL_FAILURE(WriteTextFile(IniPath(), ini));
        ASSERT_NO_FATAL_FAILURE(Reload());
    }
    // State 4, ready to take pages from the feeder.
    void OpenFeeder() {
        ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
        ASSERT_NO_FATAL_FAILURE(SmallGrayFromTheFeeder(call));
    }
    void Close() { ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &ds.ds)); }
    // In state 5 or 6 with images pending: the rest dropped, disabled, closed (state 3).
    void DropDisableClose() {
        int count = -99;
        if (ds.Info().state == VSCAN_STATE_XFERREADY) {
            ASSERT_TWRC(TWRC_SUCCESS, Pending(call, MSG_RESET, count));
        }
        ASSERT_TWRC(TWRC_SUCCESS, Disable(call, nullptr));
        ASSERT_NO_FATAL_FAILURE(Close());
    }
    bool FeederLoaded() {
        Container c;
        EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERLOADED, MSG_GETCURRENT, c));
        return c.Value() != 0;
    }

    SourceCall call;
};

TEST_F(VscanFeederTest, KeptFeederEndsTheBatchOfOnePagePerOpeningAcrossLoads) {
    ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("Pages = 3\nKeepFeeder = 1\n"));
    EXPECT_EQ(2, ds.Info().settingsKeys);
    EXPECT_EQ(kNoFile, FeederFile()) << "reading the settings writes nothing";
    for (int page = 1; page <= kSheets; ++page) {
        SCOPED_TRACE("opening " + std::to_string(page));
        if (page > 1) {
            ASSERT_NO_FATAL_FAILURE(Reload());
        }
        ASSERT_NO_FATAL_FAILURE(OpenFeeder());
        EXPECT_EQ(kSheets + 1 - page, ds.Info().sheetsLeft);
        EXPECT_EQ(kSheets + 1 - page, FeederFile()) << "the opening finds or writes the feeder file";
        ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, page, kSheets + 1 - page));
        EXPECT_EQ(kSheets - page, FeederFile()) << "the sheet taken out is written at once";
        ASSERT_NO_FATAL_FAILURE(Close());
        EXPECT_EQ(kSheets - page, FeederFile()) << "disabling and closing leave it";
    }
    ASSERT_NO_FATAL_FAILURE(Reload());
    ASSERT_NO_FATAL_FAILURE(OpenFeeder());
    EXPECT_EQ(0, ds.Info().sheetsLeft);
    EXPECT_FALSE(FeederLoaded());
    EXPECT_TWFAIL(TWCC_OPERATIONERROR, ds.Enable(false)) << "the feeder is empty: the batch is over";
    EXPECT_EQ(VSCAN_STATE_OPEN, ds.Info().state);
    EXPECT_EQ(0, FeederFile());
    ASSERT_NO_FATAL_FAILURE(Close());

    ASSERT_TRUE(DeleteFileA(FeederPath().c_str()));
    ASSERT_NO_FATAL_FAILURE(Reload());
    ASSERT_NO_FATAL_FAILURE(OpenFeeder());
    EXPECT_EQ(kSheets, ds.Info().sheetsLeft) << "deleting the file puts the paper back";
    EXPECT_TRUE(FeederLoaded());
    EXPECT_EQ(kSheets, FeederFile());
    ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 1, kSheets));
    EXPECT_EQ(kSheets - 1, FeederFile());
}

TEST_F(VscanFeederTest, TheOrderOfPagesAndKeepFeederInTheSettingsDoesNotMatter) {
    for (const char *ini : {"KeepFeeder = 1\nPages = 2\n", "Pages = 2\nKeepFeeder = 1\n"}) {
        SCOPED_TRACE(ini);
        DeleteFileA(FeederPath().c_str());
        ASSERT_NO_FATAL_FAILURE(ReloadWithSettings(ini));
        EXPECT_EQ(2, ds.Info().settingsKeys);
        ASSERT_NO_FATAL_FAILURE(OpenFeeder());
        EXPECT_EQ(2, ds.Info().sheetsLeft) << "without the file: Pages";
        EXPECT_EQ(2, FeederFile());
        ASSERT_NO_FATAL_FAILURE(Close());

        ASSERT_NO_FATAL_FAILURE(WriteTextFile(FeederPath(), "1\n"));
        ASSERT_NO_FATAL_FAILURE(Reload());
        EXPECT_EQ(2, ds.Info().settingsKeys);
        EXPECT_EQ(1, FeederFile()) << "the Pages key leaves the file as it is";
        ASSERT_NO_FATAL_FAILURE(OpenFeeder());
        EXPECT_EQ(1, ds.Info().sheetsLeft) << "the file's sheets at the first opening";
        ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 2, 1)) << "the last sheet of two";
        EXPECT_EQ(0, FeederFile());
        ASSERT_NO_FATAL_FAILURE(Close());
    }
}

TEST_F(VscanFeederTest, SetPagesRewritesTheKeptFeeder) {
    ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("KeepFeeder = 1\n"));
    ds.setPages(5);
    EXPECT_EQ(5, FeederFile()) << "a test loads the feeder";
    EXPECT_EQ(5, ds.Info().sheetsLeft);

    ASSERT_NO_FATAL_FAILURE(Reload());
    ASSERT_NO_FATAL_FAILURE(OpenFeeder());
    EXPECT_EQ(5, ds.Info().sheetsLeft) << "more sheets than the 3 of Pages";
    ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 1, 5)) << "the first of the five sheets";
    EXPECT_EQ(4, FeederFile());
    ds.setPages(2);
    EXPECT_EQ(2, FeederFile()) << "in state 4 too";
    ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 1, 2)) << "sheets 1 and 2";
    EXPECT_EQ(1, FeederFile());
    ASSERT_NO_FATAL_FAILURE(Close());

    ds.setFault(VSCAN_FAULT_KEEPFEEDER, 0);
    ds.setPages(7);
    EXPECT_EQ(1, FeederFile()) << "switched off: the file is left alone";
}

TEST_F(VscanFeederTest, SwitchedOffTheFeederIsRefilledAtEveryOpening) {
    ASSERT_NO_FATAL_FAILURE(WriteTextFile(FeederPath(), "1\n"));
    for (const char *ini : {"", "Pages = 3\nKeepFeeder = 0\n"}) {
        SCOPED_TRACE(std::string("settings: ") + ini);
        ASSERT_NO_FATAL_FAILURE(ReloadWithSettings(ini));
        for (int opening = 1; opening <= 2; ++opening) {
            ASSERT_NO_FATAL_FAILURE(OpenFeeder());
            EXPECT_EQ(kSheets, ds.Info().sheetsLeft) << "refilled when opened, the file not read";
            ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 1, kSheets));
            EXPECT_EQ(kSheets - 1, ds.Info().sheetsLeft);
            ASSERT_NO_FATAL_FAILURE(Close());
            ASSERT_NO_FATAL_FAILURE(Reload());
        }
        ds.setPages(4);
        EXPECT_EQ("1\n", ReadTextFile(FeederPath())) << "the file is left alone";
    }

    ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("KeepFeeder = 1\n"));
    ds.setFault(VSCAN_FAULT_KEEPFEEDER, 0);
    ASSERT_NO_FATAL_FAILURE(OpenFeeder());
    EXPECT_EQ(kSheets, ds.Info().sheetsLeft) << "switched off by the control before the opening";
    ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, nullptr, 1, kSheets));
    EXPECT_EQ("1\n", ReadTextFile(FeederPath()));
}

// --- XferReadyEach, the source loaded directly.

class VscanXferReadyEachTest : public VscanFeederTest {
protected:
    // State 6 with the first of the feeder's three sheets announced, the notices going to `parent` (or the thread).
    void EnableWithThreeSheets(HWND parent = nullptr) {
        ASSERT_NO_FATAL_FAILURE(OpenFeeder());
        ASSERT_TWRC(TWRC_SUCCESS, Enable(call, parent));
        ASSERT_EQ(MSG_XFERREADY, WaitForEvent(call));
        ASSERT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    }
};

TEST_F(VscanXferReadyEachTest, AnnouncedAgainAfterEveryImageThatLeavesImagesPending) {
    ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("XferReadyEach = 1\n"));
    EXPECT_EQ(1, ds.Info().settingsKeys);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    for (int page = 1; page <= kSheets; ++page) {
        SCOPED_TRACE("page " + std::to_string(page));
        const int count = TransferAndEnd(call, page);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(kSheets - page, count);
        const bool more = count > 0;
        EXPECT_EQ(more ? VSCAN_STATE_XFERREADY : VSCAN_STATE_ENABLED, ds.Info().state);
        const std::vector<Notice> notices = PassQueuedMessages(call);
        if (!more) {
            EXPECT_TRUE(notices.empty()) << "none after the last image";
            break;
        }
        ASSERT_EQ(1u, notices.size()) << "one notice for the next image";
        EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_DSEVENT, MSG_XFERREADY));
        EXPECT_EQ(nullptr, notices[0].msg.hwnd) << "without hParent: a thread message";
        EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state) << "state 6 all along";
        EXPECT_TRUE(NoticeAnswered({PassAgain(call, notices[0].msg)}, 0, TWRC_NOTDSEVENT, MSG_NULL))
            << "a notice is answered once";
    }
    ASSERT_TWRC(TWRC_SUCCESS, Disable(call, nullptr));
}

TEST_F(VscanXferReadyEachTest, TheNoticeGoesToTheParentWindow) {
    AppWindow app;
    ASSERT_NE(nullptr, app.Handle());
    ds.setFault(VSCAN_FAULT_XFERREADYEACH, 1);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets(app.Handle()));
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(1u, notices.size());
    EXPECT_EQ(app.Handle(), notices[0].msg.hwnd);
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_DSEVENT, MSG_XFERREADY));
    EXPECT_EQ(kSheets - 2, TransferAndEnd(call, 2));
    EXPECT_EQ(MSG_XFERREADY, WaitForEvent(call));
    EXPECT_EQ(0, TransferAndEnd(call, 3));
    EXPECT_TRUE(PassQueuedMessages(call).empty());
}

TEST_F(VscanXferReadyEachTest, SwitchedOffNothingIsAnnouncedAgain) {
    ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("XferReadyEach = 0\n"));
    EXPECT_EQ(1, ds.Info().settingsKeys);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    EXPECT_TRUE(PassQueuedMessages(call).empty()) << "the source stays in state 6 silently";
    EXPECT_EQ(kSheets - 2, TransferAndEnd(call, 2)) << "the application goes on by the count";
    EXPECT_TRUE(PassQueuedMessages(call).empty());
}

TEST_F(VscanXferReadyEachTest, AResetBeforeTheNoticeMakesItNoEventOfTheSource) {
    ds.setFault(VSCAN_FAULT_XFERREADYEACH, 1);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    int count = -99;
    ASSERT_TWRC(TWRC_SUCCESS, Pending(call, MSG_RESET, count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(1u, notices.size()) << "the notice was posted at MSG_ENDXFER";
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL));
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
}

TEST_F(VscanXferReadyEachTest, DisablingBeforeTheNoticeMakesItNoEventOfTheSource) {
    ds.setFault(VSCAN_FAULT_XFERREADYEACH, 1);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    int count = -99;
    ASSERT_TWRC(TWRC_SUCCESS, Pending(call, MSG_RESET, count));
    ASSERT_TWRC(TWRC_SUCCESS, Disable(call, nullptr));
    ASSERT_TWRC(TWRC_SUCCESS, Enable(call, nullptr)) << "a new batch of the two sheets left";
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(2u, notices.size());
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL)) << "the notice of the batch disabled";
    EXPECT_TRUE(NoticeAnswered(notices, 1, TWRC_DSEVENT, MSG_XFERREADY)) << "the new batch's";
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    EXPECT_EQ(kSheets - 2, TransferAndEnd(call, 2));
    const std::vector<Notice> again = PassQueuedMessages(call);
    ASSERT_EQ(1u, again.size());
    EXPECT_TRUE(NoticeAnswered(again, 0, TWRC_DSEVENT, MSG_XFERREADY));
}

TEST_F(VscanXferReadyEachTest, ClosingBeforeTheNoticeMakesItNoEventOfTheSource) {
    for (const bool reload : {false, true}) {
        SCOPED_TRACE(reload ? "the module freed at closing" : "the module kept loaded");
        ASSERT_NO_FATAL_FAILURE(ReloadWithSettings("XferReadyEach = 1\n"));
        ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
        EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
        ASSERT_NO_FATAL_FAILURE(DropDisableClose());
        if (reload) {
            ASSERT_NO_FATAL_FAILURE(Reload());
        }
        ASSERT_NO_FATAL_FAILURE(OpenFeeder());
        ASSERT_TWRC(TWRC_SUCCESS, Enable(call, nullptr));
        const std::vector<Notice> notices = PassQueuedMessages(call);
        ASSERT_EQ(2u, notices.size());
        EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL)) << "the notice of the closed session";
        EXPECT_TRUE(NoticeAnswered(notices, 1, TWRC_DSEVENT, MSG_XFERREADY));
        ASSERT_NO_FATAL_FAILURE(DropDisableClose());
    }
}

TEST_F(VscanXferReadyEachTest, OnlyTheNoticeOfTheLatestImageIsAnswered) {
    ds.setFault(VSCAN_FAULT_XFERREADYEACH, 1);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    EXPECT_EQ(kSheets - 2, TransferAndEnd(call, 2)) << "an application going on by the count, without waiting";
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(2u, notices.size());
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL)) << "a later image ended since";
    EXPECT_TRUE(NoticeAnswered(notices, 1, TWRC_DSEVENT, MSG_XFERREADY));
    EXPECT_EQ(0, TransferAndEnd(call, 3));
}

TEST_F(VscanXferReadyEachTest, TakenDuringTheNextTransferTheNoticeIsNoEventOfTheSource) {
    ds.setFault(VSCAN_FAULT_XFERREADYEACH, 1);
    ASSERT_NO_FATAL_FAILURE(EnableWithThreeSheets());
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    ASSERT_NO_FATAL_FAILURE(TransferPage(call, 2)) << "the next image begun without waiting";
    EXPECT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(1u, notices.size());
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL)) << "in state 7";
    int count = -99;
    EXPECT_TWRC(TWRC_SUCCESS, Pending(call, MSG_ENDXFER, count));
    EXPECT_EQ(kSheets - 2, count);
    const std::vector<Notice> next = PassQueuedMessages(call);
    ASSERT_EQ(1u, next.size());
    EXPECT_TRUE(NoticeAnswered(next, 0, TWRC_DSEVENT, MSG_XFERREADY)) << "the third image's";
}

// --- Behind the stand-in source manager, which frees the source at every MSG_CLOSEDS.

class VscanFeederStandInTest : public DsmTest {
protected:
    void SetUp() override {
        DsmTest::SetUp();
        path = InstallVscan("vscan\\vscan.ds");
        ASSERT_FALSE(path.empty()) << "installing the virtual scanner in " << TwainSourceDir();
        dir = path.substr(0, path.find_last_of('\\'));
        ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    }
    void TearDown() override {
        if (sourceOpen)
            Identity(MSG_CLOSEDS, &source);
        DsmTest::TearDown(); // empties twain_32: the scanner, its vscan.ini and its vscan.feeder
    }

    void OpenScanner() {
        source = OpenSource(kVscanName);
        ASSERT_NE(0u, source.Id) << "opening the virtual scanner";
        sourceOpen = true;
        call = [this](TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data) {
            return Entry(&source, dg, dat, msg, data);
        };
        ASSERT_NO_FATAL_FAILURE(SmallGrayFromTheFeeder(call));
    }
    void CloseScanner() {
        ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
        sourceOpen = false;
    }

    std::string path;
    std::string dir;
    TW_IDENTITY source{};
    bool sourceOpen = false;
    SourceCall call;
};

TEST_F(VscanFeederStandInTest, TheKeptFeederEndsTheBatchAcrossOpenings) {
    ASSERT_NO_FATAL_FAILURE(WriteTextFile(dir + "\\vscan.ini", "KeepFeeder = 1\nPages = 3\n"));
    const std::string feeder = dir + "\\" VSCAN_FEEDER_FILE;
    for (int page = 1; page <= kSheets; ++page) {
        SCOPED_TRACE("opening " + std::to_string(page));
        ASSERT_NO_FATAL_FAILURE(OpenScanner());
        EXPECT_EQ(kSheets + 1 - page, FeederFileNumber(feeder));
        ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, window, page, kSheets + 1 - page));
        ASSERT_NO_FATAL_FAILURE(CloseScanner());
        EXPECT_EQ(nullptr, GetModuleHandleA(path.c_str())) << "the stand-in frees the source at closing";
        EXPECT_EQ(kSheets - page, FeederFileNumber(feeder));
    }
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    EXPECT_RC(TWRC_FAILURE, Enable(call, window));
    EXPECT_CC(TWCC_OPERATIONERROR, Status(&source)) << "the feeder is empty";
    ASSERT_NO_FATAL_FAILURE(CloseScanner());
}

TEST_F(VscanFeederStandInTest, XferReadyAfterEveryImageThatLeavesImagesPending) {
    ASSERT_NO_FATAL_FAILURE(WriteTextFile(dir + "\\vscan.ini", "XferReadyEach = 1\n"));
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    ASSERT_RC(TWRC_SUCCESS, Enable(call, window));
    ASSERT_EQ(MSG_XFERREADY, WaitForEvent(call));
    for (int page = 1; page <= kSheets; ++page) {
        SCOPED_TRACE("page " + std::to_string(page));
        const int count = TransferAndEnd(call, page);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_EQ(kSheets - page, count);
        const std::vector<Notice> notices = PassQueuedMessages(call);
        if (count == 0) {
            EXPECT_TRUE(notices.empty()) << "none after the last image";
            break;
        }
        ASSERT_EQ(1u, notices.size());
        EXPECT_EQ(window, notices[0].msg.hwnd);
        EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_DSEVENT, MSG_XFERREADY));
    }
    ASSERT_RC(TWRC_SUCCESS, Disable(call, window));

    // Another batch of the refilled feeder, dropped before its notice is taken.
    ASSERT_NO_FATAL_FAILURE(CloseScanner());
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    ASSERT_RC(TWRC_SUCCESS, Enable(call, window));
    ASSERT_EQ(MSG_XFERREADY, WaitForEvent(call));
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    int count = -99;
    ASSERT_RC(TWRC_SUCCESS, Pending(call, MSG_RESET, count));
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(1u, notices.size());
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL)) << "after MSG_RESET";
    ASSERT_RC(TWRC_SUCCESS, Disable(call, window));
}

#else // VSCAN_FEEDER_WINE_MANAGER

// --- Behind Wine's own source manager (twain_32\sane.ds), which keeps the source loaded after MSG_CLOSEDS.

class VscanFeederWineDsmTest : public ::testing::Test {
protected:
    void SetUp() override {
        RemoveSettings();
        ASSERT_FALSE(InstallVscan("sane.ds").empty()) << "copying vscan.ds to " << TwainSourceDir();
    }
    // The scanner's vscan.ini written, then Wine's manager loaded and opened, before it loads the scanner.
    void Start(const std::string &ini) {
        ASSERT_NO_FATAL_FAILURE(WriteTextFile(IniPath(), ini));
        dsm_ = LoadLibraryA((WindowsDir() + "\\twain_32.dll").c_str());
        ASSERT_NE(nullptr, dsm_) << "Wine's twain_32.dll";
        entry_ = reinterpret_cast<DSMENTRYPROC>(reinterpret_cast<void *>(GetProcAddress(dsm_, "DSM_Entry")));
        ASSERT_NE(nullptr, entry_);
        ASSERT_EQ(nullptr, GetProcAddress(dsm_, "TdsmReset")) << "the stand-in, not Wine's source manager, is loaded";
        app_.Version.MajorNum = 1;
        app_.ProtocolMajor = TWON_PROTOCOLMAJOR;
        app_.ProtocolMinor = TWON_PROTOCOLMINOR;
        app_.SupportedGroups = DG_CONTROL | DG_IMAGE;
        std::strcpy(app_.ProductName, "vscan feeder winedsm test");
        call = [this](TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data) {
            return entry_(&app_, &source_, dg, dat, msg, data);
        };
        // Wine takes MSG_OPENDSM's data as the window handle itself.
        ASSERT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, static_cast<TW_MEMREF>(app.Handle())));
        dsmOpen_ = true;
    }
    void TearDown() override {
        if (sourceOpen_)
            Dsm(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source_);
        if (dsmOpen_)
            Dsm(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, static_cast<TW_MEMREF>(app.Handle()));
        if (dsm_)
            FreeLibrary(dsm_);
        ReleaseSourceKeptByWine();
        RemoveSettings();
    }

    static std::string IniPath() { return TwainSourceDir() + "\\vscan.ini"; }
    static std::string FeederPath() { return TwainSourceDir() + "\\" VSCAN_FEEDER_FILE; }
    static void RemoveSettings() {
        DeleteFileA(IniPath().c_str());
        DeleteFileA(FeederPath().c_str());
    }

    TW_UINT16 Dsm(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
        return entry_(&app_, nullptr, dg, dat, msg, data);
    }
    // The virtual scanner found in Wine's list and opened, prepared by SmallGrayFromTheFeeder.
    void OpenScanner() {
        bool found = false;
        TW_IDENTITY id{};
        for (TW_UINT16 rc = Dsm(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, &id); rc == TWRC_SUCCESS;
             rc = Dsm(DG_CONTROL, DAT_IDENTITY, MSG_GETNEXT, &id)) {
            if (std::strcmp(id.ProductName, kVscanName) == 0) {
                found = true;
                source_ = id;
            }
        }
        ASSERT_TRUE(found) << "the virtual scanner is not in Wine's list of sources";
        ASSERT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &source_));
        sourceOpen_ = true;
        ASSERT_NO_FATAL_FAILURE(SmallGrayFromTheFeeder(call));
    }
    void CloseScanner() {
        ASSERT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source_));
        sourceOpen_ = false;
    }
    // State 6 with the first of the feeder's sheets announced, the notices going to `parent` (or the thread).
    void EnableAndWait(HWND parent) {
        ASSERT_ANSWERS(call, TWRC_SUCCESS, Enable(call, parent));
        ASSERT_EQ(MSG_XFERREADY, WaitForEvent(call));
    }

    AppWindow app;
    SourceCall call;

private:
    HMODULE dsm_ = nullptr;
    DSMENTRYPROC entry_ = nullptr;
    TW_IDENTITY app_{};
    TW_IDENTITY source_{};
    bool dsmOpen_ = false;
    bool sourceOpen_ = false;
};

TEST_F(VscanFeederWineDsmTest, XferReadyAfterEveryImageAsThreadMessagesAndToTheWindow) {
    ASSERT_NO_FATAL_FAILURE(Start("XferReadyEach = 1\n"));
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    for (const HWND parent : {static_cast<HWND>(nullptr), app.Handle()}) {
        SCOPED_TRACE(parent ? "notices to the window" : "notices as thread messages");
        ASSERT_NO_FATAL_FAILURE(EnableAndWait(parent));
        for (int page = 1; page <= kSheets; ++page) {
            SCOPED_TRACE("page " + std::to_string(page));
            const int count = TransferAndEnd(call, page);
            ASSERT_FALSE(HasFatalFailure());
            EXPECT_EQ(kSheets - page, count);
            const std::vector<Notice> notices = PassQueuedMessages(call);
            if (count == 0) {
                EXPECT_TRUE(notices.empty()) << "none after the last image";
                break;
            }
            ASSERT_EQ(1u, notices.size());
            EXPECT_EQ(parent, notices[0].msg.hwnd);
            EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_DSEVENT, MSG_XFERREADY));
            EXPECT_TRUE(NoticeAnswered({PassAgain(call, notices[0].msg)}, 0, TWRC_NOTDSEVENT, MSG_NULL))
                << "a notice is answered once";
        }
        ASSERT_ANSWERS(call, TWRC_SUCCESS, Disable(call, parent));
        ASSERT_NO_FATAL_FAILURE(CloseScanner());
        ASSERT_NO_FATAL_FAILURE(OpenScanner()); // the feeder refilled
    }
}

TEST_F(VscanFeederWineDsmTest, NoXferReadyAfterAReset) {
    ASSERT_NO_FATAL_FAILURE(Start("XferReadyEach = 1\n"));
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    ASSERT_NO_FATAL_FAILURE(EnableAndWait(nullptr));
    EXPECT_EQ(kSheets - 1, TransferAndEnd(call, 1));
    int count = -99;
    ASSERT_ANSWERS(call, TWRC_SUCCESS, Pending(call, MSG_RESET, count));
    EXPECT_EQ(0, count);
    const std::vector<Notice> notices = PassQueuedMessages(call);
    ASSERT_EQ(1u, notices.size());
    EXPECT_TRUE(NoticeAnswered(notices, 0, TWRC_NOTDSEVENT, MSG_NULL));
    ASSERT_ANSWERS(call, TWRC_SUCCESS, Disable(call, nullptr));
}

TEST_F(VscanFeederWineDsmTest, TheKeptFeederEndsTheBatchAcrossOpenings) {
    ASSERT_NO_FATAL_FAILURE(Start("Pages = 3\nKeepFeeder = 1\n"));
    for (int page = 1; page <= kSheets; ++page) {
        SCOPED_TRACE("opening " + std::to_string(page));
        ASSERT_NO_FATAL_FAILURE(OpenScanner());
        EXPECT_EQ(kSheets + 1 - page, FeederFileNumber(FeederPath()));
        ASSERT_NO_FATAL_FAILURE(ScanOnePage(call, app.Handle(), page, kSheets + 1 - page));
        ASSERT_NO_FATAL_FAILURE(CloseScanner());
        EXPECT_EQ(kSheets - page, FeederFileNumber(FeederPath()));
    }
    ASSERT_NO_FATAL_FAILURE(OpenScanner());
    EXPECT_ANSWERS(call, TWRC_FAILURE, Enable(call, app.Handle()));
    EXPECT_EQ(TWCC_OPERATIONERROR, StatusOf(call)) << TwccName(StatusOf(call));
    ASSERT_NO_FATAL_FAILURE(CloseScanner());
}

#endif // VSCAN_FEEDER_WINE_MANAGER

} // namespace
} // namespace smtest
