// The scan to file that smZephraScan runs: the settings it sends to the source, the notifications and source-manager
// calls of every image by memory, file and native transfer, the images it refuses and the failures it reports, the
// question about more pages, and the source's close request, through the exports against the stand-in source manager
// and the virtual scanner. The bytes of the files written are another suite's business.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>

#include "GlobalMemoryTracker.h"
#include "MessageBoxes.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;
typedef DWORD(WINAPI *ZephraScanProc)(HWND, const char *, const ScanToFileSettings *);
typedef WORD(WINAPI *CapNegotiateProc)(UINT, void *);

const char kSm1[] = "F:\\smkernal\\Sm_1.cpp";
const char kSm10[] = "F:\\smkernal\\Sm_10.cpp";
const char kSm11[] = "F:\\smkernal\\Sm_11.cpp";
const char kTitle[] = "Scan to file test";
// The library's strings 20006 (the question), 20005 and 20004 (the invalid image's text and caption), Windows-1252.
const char kMorePages[] = "\xBF"
                          "Explorar m\xE1s p\xE1ginas?";
const char kInvalidPixelType[] = "Tipo de p\xED"
                                 "xel no v\xE1lido";
const char kErrorCaption[] = "Error";
constexpr UINT kQuestionStyle = 0x2004;     // MB_YESNO | MB_TASKMODAL
constexpr UINT kInvalidImageStyle = 0x2000; // MB_OK | MB_TASKMODAL
// The whole bed, 8.5 x 14 inches, at 50 dpi; the rows of its bitmaps.
constexpr int kBedWidth = 425;
constexpr int kBedLength = 700;
// A result no condition code of the module stands for: what the scanner is made to fail images with.
constexpr TW_UINT16 kSourceFailure = TWCC_PAPERJAM;
// The small drive of the prefix that the CTest fixture small_drive mounts (scripts/small-drive), and its size at most.
const char kSmallDrive[] = SMK_SMALL_DRIVE ":\\";
constexpr ULONGLONG kSmallDriveMost = 1024 * 1024;

const std::string kEndXfer = "DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS";
const std::string kReset = "DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET -> TWRC_SUCCESS";
const std::string kResetRefused = "DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET -> TWRC_FAILURE";
const std::string kImageInfo = "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS";
const std::string kDisable = "DG_CONTROL/DAT_USERINTERFACE/MSG_DISABLEDS -> TWRC_SUCCESS";
const std::string kCloseDs = "DG_CONTROL/DAT_IDENTITY/MSG_CLOSEDS -> TWRC_SUCCESS";
const std::string kFeederLoaded = "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT CAP_FEEDERLOADED -> TWRC_SUCCESS";

const char *MethodOf(LONG mechanism) {
    switch (mechanism) {
    case SM_XFER_NATIVE:
        return "ZephraScanDoNativeXfer";
    case SM_XFER_FILE:
        return "ZephraScanDoFileXfer";
    default:
        return "ZephraScanDoMemXfer";
    }
}

std::string In(const std::string &what, LONG mechanism) {
    return what + " in TScanModule::" + MethodOf(mechanism);
}

std::string MechanismName(const ::testing::TestParamInfo<LONG> &info) {
    return info.param == SM_XFER_NATIVE ? "Native" : info.param == SM_XFER_FILE ? "File" : "Memory";
}

const LONG kMechanisms[] = {SM_XFER_MEMORY, SM_XFER_FILE, SM_XFER_NATIVE};

// The texts of one transfer variant, each as its record reads.
struct VariantTexts {
    std::string getName, infoError, unknownSize, xferEnd, dsClosed;
};

VariantTexts TextsOf(LONG mechanism) {
    const bool native = mechanism == SM_XFER_NATIVE, file = mechanism == SM_XFER_FILE;
    const bool memory = !native && !file;
    VariantTexts t;
    t.getName = In(memory ? "Send WM_SCANTOFILEGETNAME to get file name" : "Send SM_SCANTOFILEGETNAME to get file name",
                   mechanism);
    t.infoError = In(memory ? "Error in MSG_GET DAT_IMAGEINFO" : "MSG_GET DAT_IMAGEINFO error", mechanism);
    t.unknownSize = In(native ? "MSG_GET DAT_IMAGEINFO error" : "Cannot support unknown length or height", mechanism);
    t.xferEnd = In(memory ? "Send WM_SCANTOFILEXFEREND" : "Send WM_SCANTOFILEXFEREND to AP", mechanism);
    t.dsClosed = In(file ? "Send WM_SCANTOFILEDSCLOSED to AP" : "Send WM_SCANTOFILEDSCLOSED", mechanism);
    return t;
}

// The transfer triplet of a variant, as the call log shows it.
std::string FetchOf(LONG mechanism, const char *rc) {
    switch (mechanism) {
    case SM_XFER_NATIVE:
        return std::string("DG_IMAGE/DAT_IMAGENATIVEXFER/MSG_GET -> ") + rc;
    case SM_XFER_FILE:
        return std::string("DG_IMAGE/DAT_IMAGEFILEXFER/MSG_GET -> ") + rc;
    default:
        return std::string("DG_IMAGE/DAT_IMAGEMEMXFER/MSG_GET -> ") + rc;
    }
}

// A call as the timelines show it: Describe(), with the capability named for DAT_CAPABILITY.
std::string Label(const TdsmCall &call) {
    std::string text = Describe(call);
    if (call.dat == DAT_CAPABILITY && call.capIn.valid)
        text.insert(text.find(" -> "), std::string(" ") + CapabilityName(call.capIn.cap));
    return text;
}

// One MSG_SET of a capability: its one value as a number, and what the source answered.
struct CapSet {
    TW_UINT16 cap = 0;
    TW_UINT16 itemType = 0;
    double value = 0;
    TW_UINT32 bits = 0; // the item as it lies in the container
    TW_UINT16 rc = 0;
};

// The TW_FIX32 of a whole number as the library converts it: the whole part truncated, the fraction taken from the
// value's 65536ths plus a half, truncated, each half on its own; so a negative number carries a fraction of 1/65536.
TW_UINT32 Fix32Bits(double value) {
    const auto whole = static_cast<TW_UINT16>(static_cast<TW_INT32>(value));
    const auto frac = static_cast<TW_UINT16>(static_cast<TW_INT32>(value * 65536.0 + 0.5));
    return whole | (static_cast<TW_UINT32>(frac) << 16);
}

double ItemValue(const TdsmContainer &c) {
    if (c.itemType == TWTY_FIX32) {
        TW_FIX32 fix;
        std::memcpy(&fix, &c.items[0], sizeof fix);
        return Fix32ToDouble(fix);
    }
    return static_cast<double>(static_cast<TW_INT32>(c.items[0]));
}

void WriteAll(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string TempDirectory() {
    char directory[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, directory);
    return directory;
}

// The records of one source file and level, texts only.
Strings RecordsOf(const TraceViewer &viewer, const char *source, const char *level) {
    Strings texts;
    for (const TraceLine &record : viewer.Records())
        if (record.source == source && record.level == level)
            texts.push_back(record.text);
    return texts;
}

Strings First(const Strings &all, size_t count) {
    return Strings(all.begin(), all.begin() + std::min(count, all.size()));
}

bool Contains(const Strings &all, const std::string &one) {
    return std::find(all.begin(), all.end(), one) != all.end();
}

// Whether `part` appears in `all` in this order, other entries in between.
::testing::AssertionResult InOrder(const Strings &all, const Strings &part) {
    auto at = all.begin();
    for (const std::string &want : part) {
        at = std::find(at, all.end(), want);
        if (at == all.end()) {
            std::string listed;
            for (const std::string &s : all)
                listed += "\n  " + s;
            return ::testing::AssertionFailure() << "\"" << want << "\" missing (or out of order) in:" << listed;
        }
        ++at;
    }
    return ::testing::AssertionSuccess();
}

// The settings of most cases: gray at 50 dpi from the flatbed, one page, the source's interface not shown.
ScanToFileSettings Settings() {
    ScanToFileSettings s = {};
    s.unitCode = SM_UNIT_INCHES;
    s.pixelTypeCode = SM_PIXEL_GRAY;
    s.resolution = 50;
    s.brightness = 0, s.brightnessMin = -1000, s.brightnessMax = 1000;
    s.contrast = 0, s.contrastMin = -1000, s.contrastMax = 1000;
    s.highlight = 255, s.highlightMin = 0, s.highlightMax = 255;
    s.shadow = 0, s.shadowMin = 0, s.shadowMax = 255;
    s.modalUI = 0;
    s.morePages = 0;
    s.showSourceUI = 0;
    s.useFeeder = 0;
    return s;
}

const char *const kStampNames[] = {"GetName", "XferEnd", "DSClosed"};

class ScanToFileTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        if (HasFatalFailure())
            return;
        zephraScan = library.Get<ZephraScanProc>("smZephraScan");
        capNegotiate = library.Get<CapNegotiateProc>("smCapNegotiate");
        callCount = dsm.Get<TdsmCallCountProc>("TdsmCallCount");
        ASSERT_TRUE(zephraScan && capNegotiate && callCount);
        ASSERT_TRUE(boxes.Installed()) << "the message-box hook";
        messages[0] = RegisterWindowMessageA(SM_MSG_SCANTOFILE_GETNAME);
        messages[1] = RegisterWindowMessageA(SM_MSG_SCANTOFILE_XFEREND);
        messages[2] = RegisterWindowMessageA(SM_MSG_SCANTOFILE_DSCLOSED);
        // Every scan-to-file notice is stamped with the number of source-manager calls made before it.
        SetPropA(app.Handle(), "smk.scantofile", this);
        appProc = reinterpret_cast<WNDPROC>(
            SetWindowLongPtrA(app.Handle(), GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&ScanToFileTest::StampProc)));
        app.onScanToFileGetName = [this](const Notice &, char *name) {
            const int image = static_cast<int>(files.size()) + 1;
            files.push_back(nameFor ? nameFor(image) : DefaultName(image));
            if (staleFiles)
                MakeStale(files.back());
            lstrcpynA(name, files.back().c_str(), 256);
            if (focusOnName) {
                SetFocus(focusOnName);
                focusTaken = GetFocus() == focusOnName;
            }
            if (onGetName)
                onGetName(image);
        };
        base = dsm.Calls().size();
    }
    void TearDown() override {
        EXPECT_EQ(0, boxes.Unscripted()) << "message boxes nobody expected: "
                                         << ::testing::PrintToString(boxes.Briefs());
        if (appProc) {
            SetWindowLongPtrA(app.Handle(), GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(appProc));
            RemovePropA(app.Handle(), "smk.scantofile");
        }
        XferTest::TearDown();
        for (const std::string &name : files) {
            SetFileAttributesA(name.c_str(), FILE_ATTRIBUTE_NORMAL);
            DeleteFileA(name.c_str());
            DeleteFileA((name + ".witness").c_str());
        }
        if (focusWindow)
            DestroyWindow(focusWindow);
    }

    static LRESULT CALLBACK StampProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
        auto *self = static_cast<ScanToFileTest *>(GetPropA(window, "smk.scantofile"));
        for (int i = 0; self && i < 3; ++i)
            if (message == self->messages[i]) {
                std::string what = kStampNames[i];
                if (i == 1)
                    what += "(" + std::to_string(static_cast<LONG>(wParam)) + ")";
                self->stamps.push_back({what, static_cast<size_t>(self->callCount())});
            }
        return CallWindowProcA(self ? self->appProc : DefWindowProcA, window, message, wParam, lParam);
    }

    // Short names of this process and test: OpenFile takes paths of fewer than 128 characters.
    std::string DefaultName(int image) const {
        static int tests = 0;
        if (testNumber == 0)
            testNumber = ++tests;
        return TempDirectory() + "smk_stf_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(testNumber) +
               "_" + std::to_string(image) + ".bmp";
    }
    // An old file of the name, with a second name (a hard link) that keeps its bytes whatever becomes of the first.
    static void MakeStale(const std::string &name) {
        DeleteFileA((name + ".witness").c_str());
        WriteAll(name, "stale bytes of an old file");
        CreateHardLinkA((name + ".witness").c_str(), name.c_str(), nullptr);
    }
    // A visible window of its own that takes the focus while the module asks for each file name.
    void FocusOnName() {
        focusWindow = CreateWindowA("EDIT", "focus", WS_OVERLAPPEDWINDOW | WS_VISIBLE, 0, 0, 100, 100, nullptr, nullptr,
                                    nullptr, nullptr);
        ASSERT_NE(nullptr, focusWindow);
        focusOnName = focusWindow;
    }

    // smZephraScan with the application window and the suite's title.
    DWORD Scan(const ScanToFileSettings *settings) { return zephraScan(app.Handle(), kTitle, settings); }
    // The application's message loop through smIsDSEvent until the batch is over (ScanToFileDSClosed).
    bool RunUntilClosed(DWORD timeoutMs = 30000) {
        return Pump([this] { return app.Count(NoticeKind::ScanToFileDSClosed) > 0; }, timeoutMs);
    }
    // The message loop a little longer, so that whatever the source posted before it was closed is handled too.
    void Drain() {
        Pump([] { return false; }, 200);
    }
    // The scanner takes memory transfers when the module offers them (its first choice); a scanner without memory
    // transfers (and without file transfers) makes the module fall back on the file (or the native) transfer.
    void ChooseMechanism(LONG mechanism) {
        if (mechanism == SM_XFER_FILE) {
            const double offered[] = {TWSX_NATIVE, TWSX_FILE};
            ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 2, offered));
        } else if (mechanism == SM_XFER_NATIVE) {
            const double offered[] = {TWSX_NATIVE};
            ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 1, offered));
        }
    }
    void Fault(int fault, int value) { ASSERT_EQ(1, scanner.setFault(fault, value)) << "fault " << fault; }
    void FailAtSource(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 cc, int first = 1, int count = 1) {
        ASSERT_EQ(1, scanner.failTriplet(dg, dat, msg, 0, TWRC_FAILURE, cc, first, count));
    }
    // Starts a scan to file of one image by `mechanism` and runs it to its end.
    void ScanOne(LONG mechanism, ScanToFileSettings s = Settings()) {
        ChooseMechanism(mechanism);
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_EQ(1u, Scan(&s));
        Begin();
        ASSERT_TRUE(RunUntilClosed()) << "no ScanToFileDSClosed; notices: " << ::testing::PrintToString(app.Briefs());
    }
    // smZephraScan gets as far as enabling the source, which refuses: the module is in scan-to-file mode from now on,
    // with the source closed again.
    void EnterModeWithRefusedEnable(const ScanToFileSettings &s) {
        script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_FAILURE, TWCC_OPERATIONERROR);
        ASSERT_EQ(0u, Scan(&s));
        ASSERT_EQ(TDSM_STATE_LOADED, dsm.State()) << "the source and the source manager are closed again";
        Begin();
    }
    // Forgets the notices, stamps, calls and records so far.
    void Begin() {
        app.Clear();
        stamps.clear();
        viewer.Clear();
        base = dsm.Calls().size();
    }

    // The calls since Begin() without the events of the message loop, with the scan-to-file notices in between.
    Strings Timeline() const {
        const std::vector<TdsmCall> calls = dsm.Calls();
        Strings out;
        size_t s = 0;
        while (s < stamps.size() && stamps[s].calls < base)
            ++s;
        for (size_t i = base;; ++i) {
            while (s < stamps.size() && stamps[s].calls <= i)
                out.push_back(stamps[s++].what);
            if (i >= calls.size())
                break;
            if (calls[i].dat != DAT_EVENT)
                out.push_back(Label(calls[i]));
        }
        return out;
    }
    // The capability sets since Begin(), in order.
    std::vector<CapSet> CapSets() const {
        std::vector<CapSet> sets;
        const std::vector<TdsmCall> calls = dsm.Calls();
        for (size_t i = base; i < calls.size(); ++i) {
            const TdsmCall &call = calls[i];
            if (call.dat != DAT_CAPABILITY || call.msg != MSG_SET || !call.capIn.valid)
                continue;
            CapSet set;
            set.cap = call.capIn.cap;
            set.itemType = call.capIn.itemType;
            set.value = call.capIn.hasContainer && call.capIn.storedItems ? ItemValue(call.capIn) : -12345;
            set.bits = call.capIn.items[0];
            set.rc = call.rc;
            sets.push_back(set);
        }
        return sets;
    }
    // The values set for one capability, in order; a value the source refuses is offered again in other item
    // types, which counts once here.
    std::vector<double> ValuesSet(TW_UINT16 cap) const {
        std::vector<double> values;
        for (const CapSet &set : CapSets())
            if (set.cap == cap && (values.empty() || values.back() != set.value))
                values.push_back(set.value);
        return values;
    }
    // The containers' items of the sets of one capability, as they lie.
    std::vector<TW_UINT32> BitsSet(TW_UINT16 cap) const {
        std::vector<TW_UINT32> bits;
        for (const CapSet &set : CapSets())
            if (set.cap == cap)
                bits.push_back(set.bits);
        return bits;
    }
    // The TW_USERINTERFACE of the last MSG_ENABLEDS since Begin(); false when there was none.
    bool LastEnable(TW_USERINTERFACE &ui) const {
        const std::vector<TdsmCall> calls = dsm.Calls();
        bool found = false;
        for (size_t i = base; i < calls.size(); ++i)
            if (calls[i].dat == DAT_USERINTERFACE && calls[i].msg == MSG_ENABLEDS) {
                std::memcpy(&ui, calls[i].dataIn, sizeof ui);
                found = true;
            }
        return found;
    }
    // ShowUI of the last MSG_ENABLEDS since Begin(); -1 when there was none.
    int EnabledShowUI() const {
        TW_USERINTERFACE ui = {};
        return LastEnable(ui) ? ui.ShowUI : -1;
    }
    int CountCalls(TW_UINT16 dat, TW_UINT16 msg) const {
        const std::vector<TdsmCall> calls = dsm.Calls();
        return static_cast<int>(std::count_if(calls.begin() + std::min(base, calls.size()), calls.end(),
                                              [&](const TdsmCall &c) { return c.dat == dat && c.msg == msg; }));
    }
    Strings Sm10(const char *level) const { return RecordsOf(viewer, kSm10, level); }
    // The scan-to-file notices in order, as "GetName", "XferEnd(0)", "DSClosed".
    Strings Stamped() const {
        Strings out;
        for (const Stamp &stamp : stamps)
            out.push_back(stamp.what);
        return out;
    }
    // The file of an image was removed again, and its old bytes are still under the second name.
    void ExpectRemoved(size_t image) const {
        ASSERT_LT(image, files.size());
        EXPECT_FALSE(FileExists(files[image])) << files[image] << " is left behind";
        if (staleFiles) {
            EXPECT_EQ("stale bytes of an old file", FileText(files[image] + ".witness"))
                << "the old file was deleted, not written over";
        }
    }
    // A bitmap file of `width` x `height` pixels of `bits` bits stands under the image's name.
    void ExpectBitmap(size_t image, int width, int height, int bits) const {
        ASSERT_LT(image, files.size());
        Dib dib;
        ReadBmpFile(files[image], dib);
        ASSERT_FALSE(HasFatalFailure()) << files[image];
        EXPECT_EQ(width, dib.header.biWidth);
        EXPECT_EQ(height, dib.header.biHeight);
        EXPECT_EQ(bits, dib.header.biBitCount);
    }
    // The session is over: the source and the source manager closed, the scanner back in its closed state.
    void ExpectClosed() const {
        EXPECT_EQ(TDSM_STATE_LOADED, dsm.State()) << "the source manager is still open";
        EXPECT_EQ(0, script.openSourceCount()) << "a source is still open";
        EXPECT_EQ(VSCAN_STATE_CLOSED, scanner.Info().state);
    }

    struct Stamp {
        std::string what;
        size_t calls;
    };

    ZephraScanProc zephraScan = nullptr;
    CapNegotiateProc capNegotiate = nullptr;
    TdsmCallCountProc callCount = nullptr;
    MessageBoxes boxes;
    UINT messages[3] = {};
    WNDPROC appProc = nullptr;
    std::vector<Stamp> stamps;
    size_t base = 0;
    // The file names given, in order; how they are made and what happens when each is asked for.
    std::vector<std::string> files;
    std::function<std::string(int image)> nameFor;
    std::function<void(int image)> onGetName;
    bool staleFiles = false;
    mutable int testNumber = 0;
    HWND focusWindow = nullptr;
    HWND focusOnName = nullptr;
    bool focusTaken = false;
};

// --- Settings: what smZephraScan sends before it enables the source.

TEST_F(ScanToFileTest, NullSettingsScanOneGrayPageAt300DpiWithTheInterfaceShownModallyAndTheFeederEnabled) {
    ASSERT_EQ(1u, zephraScan(app.Handle(), kTitle, nullptr));
    const std::vector<CapSet> sets = CapSets();
    Strings order;
    for (const CapSet &set : sets)
        order.push_back(CapabilityName(set.cap));
    EXPECT_EQ((Strings{"ICAP_PIXELTYPE", "ICAP_XRESOLUTION", "ICAP_YRESOLUTION", "ICAP_BRIGHTNESS", "ICAP_CONTRAST",
                       "ICAP_HIGHLIGHT", "ICAP_SHADOW", "CAP_XFERCOUNT", "CAP_FEEDERENABLED", "ICAP_XFERMECH"}),
              order);
    EXPECT_EQ(std::vector<double>{TWPT_GRAY}, ValuesSet(ICAP_PIXELTYPE));
    EXPECT_EQ(std::vector<double>{300}, ValuesSet(ICAP_XRESOLUTION));
    EXPECT_EQ(std::vector<double>{300}, ValuesSet(ICAP_YRESOLUTION));
    EXPECT_EQ(std::vector<double>{0}, ValuesSet(ICAP_BRIGHTNESS));
    EXPECT_EQ(std::vector<double>{0}, ValuesSet(ICAP_CONTRAST));
    EXPECT_EQ(std::vector<double>{255}, ValuesSet(ICAP_HIGHLIGHT));
    EXPECT_EQ(std::vector<double>{0}, ValuesSet(ICAP_SHADOW));
    EXPECT_EQ(std::vector<double>{1}, ValuesSet(CAP_XFERCOUNT)) << "one page";
    EXPECT_EQ(std::vector<double>{1}, ValuesSet(CAP_FEEDERENABLED));
    EXPECT_EQ(std::vector<double>{TWSX_MEMORY}, ValuesSet(ICAP_XFERMECH)) << "memory first, which the scanner takes";
    TW_USERINTERFACE ui = {};
    ASSERT_TRUE(LastEnable(ui));
    EXPECT_EQ(1, ui.ShowUI);
    EXPECT_EQ(1, ui.ModalUI);
    EXPECT_EQ(app.Handle(), static_cast<HWND>(ui.hParent));
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
    const Strings traces = Sm10("Trace");
    EXPECT_TRUE(
        InOrder(traces, {"Coming TScanModule::ZephraScan", "Processing some settings in TScanModule::ZephraScan",
                         "Set Xfer Mech in TScanModule::ZephraScan", "Leaving TScanModule::ZephraScan"}));
    EXPECT_EQ(Strings{}, Sm10("Warning"));
}

TEST_F(ScanToFileTest, SettingsAreSentAsGivenWithTheTransferCountOfAllPagesAndTheFeederOff) {
    ScanToFileSettings s = Settings();
    s.pixelTypeCode = SM_PIXEL_BW;
    s.resolution = 150;
    s.morePages = 1;
    s.modalUI = 0;
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(std::vector<double>{TWPT_BW}, ValuesSet(ICAP_PIXELTYPE));
    EXPECT_EQ(std::vector<double>{150}, ValuesSet(ICAP_XRESOLUTION));
    EXPECT_EQ(std::vector<double>{150}, ValuesSet(ICAP_YRESOLUTION));
    EXPECT_EQ(std::vector<double>{-1}, ValuesSet(CAP_XFERCOUNT)) << "as many pages as the source has";
    EXPECT_EQ(std::vector<double>{0}, ValuesSet(CAP_FEEDERENABLED));
    TW_USERINTERFACE ui = {};
    ASSERT_TRUE(LastEnable(ui));
    EXPECT_EQ(0, ui.ShowUI);
    EXPECT_EQ(0, ui.ModalUI);
    EXPECT_EQ(Strings{}, Sm10("Warning"));
}

TEST_F(ScanToFileTest, RgbIsSentAsRgb) {
    ScanToFileSettings s = Settings();
    s.pixelTypeCode = SM_PIXEL_RGB;
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(std::vector<double>{TWPT_RGB}, ValuesSet(ICAP_PIXELTYPE));
    EXPECT_EQ(0, EnabledShowUI()) << "a pixel type of the three does not show the interface";
}

// Pixel types other than black and white, gray and RGB become gray, and the source's interface is shown.
class PixelTypeRepairTest : public ScanToFileTest, public ::testing::WithParamInterface<WORD> {};

TEST_P(PixelTypeRepairTest, OtherPixelTypesBecomeGrayAndShowTheInterface) {
    ScanToFileSettings s = Settings();
    s.pixelTypeCode = GetParam();
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(std::vector<double>{TWPT_GRAY}, ValuesSet(ICAP_PIXELTYPE));
    EXPECT_EQ(1, EnabledShowUI());
}

INSTANTIATE_TEST_SUITE_P(Codes, PixelTypeRepairTest, ::testing::Values(0, 3, SM_PIXEL_PALETTE, 0x8000),
                         [](const ::testing::TestParamInfo<WORD> &info) { return std::to_string(info.param); });

// A resolution of 0 or less scans at 100 dpi.
class ResolutionRepairTest : public ScanToFileTest, public ::testing::WithParamInterface<short> {};

TEST_P(ResolutionRepairTest, ResolutionsOfZeroOrLessBecome100) {
    ScanToFileSettings s = Settings();
    s.resolution = GetParam();
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(std::vector<double>{100}, ValuesSet(ICAP_XRESOLUTION));
    EXPECT_EQ(std::vector<double>{100}, ValuesSet(ICAP_YRESOLUTION));
}

INSTANTIATE_TEST_SUITE_P(Values, ResolutionRepairTest, ::testing::Values(0, -1, -300),
                         [](const ::testing::TestParamInfo<short> &info) {
                             return info.param < 0 ? "Minus" + std::to_string(-info.param) : std::to_string(info.param);
                         });

TEST_F(ScanToFileTest, TheSmallestPositiveResolutionIsKept) {
    ScanToFileSettings s = Settings();
    s.resolution = 1;
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(std::vector<double>{1}, ValuesSet(ICAP_XRESOLUTION)) << "only 0 and less are repaired";
}

// The four tone settings: each triple as given (value, minimum, maximum), and the value the source is sent on its
// own range (brightness -1000..1000 as the scanner reports it, contrast -1000..1000, highlight and shadow 0..255).
struct ToneCase {
    const char *name;
    short brightness[3];
    short contrast[3];
    short highlight[3];
    short shadow[3];
    double sent[4];
};

class ToneRepairTest : public ScanToFileTest, public ::testing::WithParamInterface<ToneCase> {};

TEST_P(ToneRepairTest, TonesAreRepairedThenScaledOntoTheSourcesRanges) {
    const ToneCase &c = GetParam();
    ScanToFileSettings s = Settings();
    s.brightness = c.brightness[0], s.brightnessMin = c.brightness[1], s.brightnessMax = c.brightness[2];
    s.contrast = c.contrast[0], s.contrastMin = c.contrast[1], s.contrastMax = c.contrast[2];
    s.highlight = c.highlight[0], s.highlightMin = c.highlight[1], s.highlightMax = c.highlight[2];
    s.shadow = c.shadow[0], s.shadowMin = c.shadow[1], s.shadowMax = c.shadow[2];
    ASSERT_EQ(1u, Scan(&s));
    const TW_UINT16 caps[] = {ICAP_BRIGHTNESS, ICAP_CONTRAST, ICAP_HIGHLIGHT, ICAP_SHADOW};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(std::vector<TW_UINT32>{Fix32Bits(c.sent[i])}, BitsSet(caps[i]))
            << CapabilityName(caps[i]) << " " << c.sent[i]
            << " (as read back: " << ::testing::PrintToString(ValuesSet(caps[i])) << ")";
        for (const CapSet &set : CapSets()) {
            if (set.cap == caps[i]) {
                EXPECT_EQ(TWTY_FIX32, set.itemType) << CapabilityName(caps[i]);
            }
        }
    }
    EXPECT_EQ(0, EnabledShowUI()) << "tone settings never show the interface";
}

const ToneCase kToneCases[] = {
    // In range on scales of the application's: 25 of 0..100 is a quarter of the way.
    {"InRange", {25, 0, 100}, {75, 0, 100}, {10, 0, 20}, {5, 0, 20}, {-500, 500, 128, 64}},
    // A minimum not below the maximum replaces the triple: brightness and contrast 0 of -1000..1000, highlight 255 of
    // 0..255, shadow 0 of 0..255.
    {"MinEqualsMax", {7, 5, 5}, {7, 5, 5}, {7, 5, 5}, {7, 5, 5}, {0, 0, 255, 0}},
    {"MinAboveMax", {-3, 10, -10}, {3, 10, -10}, {3, 200, 100}, {150, 200, 100}, {0, 0, 255, 0}},
    // Above the scale: the maximum, but the shadow takes its minimum.
    {"AboveTheScale", {150, 0, 100}, {150, 0, 100}, {300, 0, 100}, {300, 0, 100}, {1000, 1000, 255, 0}},
    // Below the scale: the maximum too, and again the shadow's minimum.
    {"BelowTheScale", {-5, 0, 100}, {-5, 0, 100}, {-5, 0, 100}, {-5, 0, 100}, {1000, 1000, 255, 0}},
    // The ends of a scale are inside it.
    {"AtTheEnds", {0, 0, 100}, {100, 0, 100}, {0, 0, 100}, {100, 0, 100}, {-1000, 1000, 0, 255}},
};

INSTANTIATE_TEST_SUITE_P(Cases, ToneRepairTest, ::testing::ValuesIn(kToneCases),
                         [](const ::testing::TestParamInfo<ToneCase> &info) { return std::string(info.param.name); });

TEST_F(ScanToFileTest, RefusedToneSettingsAreIgnored) {
    for (TW_UINT16 cap : {ICAP_BRIGHTNESS, ICAP_CONTRAST, ICAP_HIGHLIGHT, ICAP_SHADOW})
        ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, cap, TWRC_FAILURE, TWCC_BADVALUE, 1, 0));
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    for (TW_UINT16 cap : {ICAP_BRIGHTNESS, ICAP_CONTRAST, ICAP_HIGHLIGHT, ICAP_SHADOW})
        EXPECT_EQ(1u, ValuesSet(cap).size()) << CapabilityName(cap);
    TW_USERINTERFACE ui = {};
    ASSERT_TRUE(LastEnable(ui));
    EXPECT_EQ(0, ui.ShowUI);
    EXPECT_EQ(Strings{}, Sm10("Warning")) << "tone settings fail silently";
}

TEST_F(ScanToFileTest, RefusedPixelTypeShowsTheInterface) {
    ASSERT_EQ(
        1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_PIXELTYPE, TWRC_FAILURE, TWCC_BADVALUE, 1, 0));
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(Strings{"SetPixelType returns failure in TScanModule::ZephraScan"}, Sm10("Warning"));
    EXPECT_EQ(std::vector<double>{50}, ValuesSet(ICAP_XRESOLUTION)) << "the other settings are still sent";
    EXPECT_EQ(std::vector<double>{TWSX_MEMORY}, ValuesSet(ICAP_XFERMECH));
    EXPECT_EQ(1, EnabledShowUI());
}

TEST_F(ScanToFileTest, RefusedXResolutionSkipsTheYResolutionAndShowsTheInterface) {
    ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XRESOLUTION, TWRC_FAILURE, TWCC_BADVALUE,
                                     1, 0));
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(Strings{"Resolution setting return failure in TScanModule::ZephraScan"}, Sm10("Warning"));
    EXPECT_EQ(std::vector<double>{50}, ValuesSet(ICAP_XRESOLUTION));
    EXPECT_EQ(std::vector<double>{}, ValuesSet(ICAP_YRESOLUTION));
    EXPECT_EQ(1, EnabledShowUI());
}

TEST_F(ScanToFileTest, RefusedYResolutionShowsTheInterface) {
    ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_YRESOLUTION, TWRC_FAILURE, TWCC_BADVALUE,
                                     1, 0));
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    EXPECT_EQ(Strings{"Resolution setting return failure in TScanModule::ZephraScan"}, Sm10("Warning"));
    EXPECT_EQ(std::vector<double>{50}, ValuesSet(ICAP_YRESOLUTION));
    EXPECT_EQ(1, EnabledShowUI());
}

// The mechanisms in the order memory, file, native: the first the source takes is the one of the transfers.
class MechanismChoiceTest : public ScanToFileTest, public ::testing::WithParamInterface<LONG> {};

TEST_P(MechanismChoiceTest, MemoryThenFileThenNative) {
    ChooseMechanism(GetParam());
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    std::vector<double> expected{TWSX_MEMORY};
    if (GetParam() != SM_XFER_MEMORY)
        expected.push_back(TWSX_FILE);
    if (GetParam() == SM_XFER_NATIVE)
        expected.push_back(TWSX_NATIVE);
    EXPECT_EQ(expected, ValuesSet(ICAP_XFERMECH));
    // The transfer the first image takes tells which mechanism the module remembered.
    ASSERT_TRUE(RunUntilClosed());
    EXPECT_EQ(1, CountCalls(GetParam() == SM_XFER_NATIVE ? DAT_IMAGENATIVEXFER
                            : GetParam() == SM_XFER_FILE ? DAT_IMAGEFILEXFER
                                                         : DAT_IMAGEMEMXFER,
                            MSG_GET));
    EXPECT_TRUE(Contains(Sm10("Trace"), "Coming TScanModule::" + std::string(MethodOf(GetParam()))));
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, MechanismChoiceTest, ::testing::ValuesIn(kMechanisms), MechanismName);

TEST_F(ScanToFileTest, NoMechanismLeavesTheSourceOpenWithoutScanToFileMode) {
    ASSERT_EQ(
        1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, TWRC_FAILURE, TWCC_BADVALUE, 1, 0));
    ScanToFileSettings s = Settings();
    EXPECT_EQ(0u, Scan(&s));
    EXPECT_EQ((std::vector<double>{TWSX_MEMORY, TWSX_FILE, TWSX_NATIVE}), ValuesSet(ICAP_XFERMECH));
    EXPECT_EQ(0, CountCalls(DAT_USERINTERFACE, MSG_ENABLEDS));
    EXPECT_EQ(1, script.openSourceCount()) << "the source stays open";
    EXPECT_EQ(VSCAN_STATE_OPEN, scanner.Info().state);
    const Strings traces = Sm10("Trace");
    EXPECT_TRUE(Contains(traces, "Set Xfer Mech in TScanModule::ZephraScan"));
    EXPECT_FALSE(Contains(traces, "Leaving TScanModule::ZephraScan")) << "no exit record";
    EXPECT_EQ(Strings{}, Sm10("Warning"));
    // Not in scan-to-file mode: an enable by the application transfers the ordinary way (the scanner's own native
    // transfer) to the application's window.
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::CloseDSReq) > 0; }));
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_EQ(0, app.Count(NoticeKind::ScanToFileGetName));
    EXPECT_TRUE(files.empty());
}

TEST_F(ScanToFileTest, FailedOpenReturnsZeroAndSendsNothingMore) {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, TWRC_FAILURE, TWCC_NODS);
    ScanToFileSettings s = Settings();
    EXPECT_EQ(0u, Scan(&s));
    EXPECT_EQ(Strings{"OpenDS returns failure in TScanModule::ZephraScan"}, Sm10("Warning"));
    EXPECT_TRUE(CapSets().empty()) << "nothing is set";
    EXPECT_EQ(0, CountCalls(DAT_USERINTERFACE, MSG_ENABLEDS));
    EXPECT_TRUE(Contains(Sm10("Trace"), "Leaving TScanModule::ZephraScan"));
    EXPECT_EQ(0, script.openSourceCount());
    // Not in scan-to-file mode either.
    Begin();
    ASSERT_EQ(SM_OK, openDS(app.Handle(), "After a failed open"));
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::CloseDSReq) > 0; }));
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_EQ(0, app.Count(NoticeKind::ScanToFileGetName));
}

TEST_F(ScanToFileTest, FailedEnableClosesTheSourceButLeavesScanToFileMode) {
    ScanToFileSettings s = Settings();
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_FAILURE, TWCC_OPERATIONERROR);
    EXPECT_EQ(0u, Scan(&s));
    EXPECT_EQ(Strings{"EnableDS returns failure in TScanModule::ZephraScan"}, Sm10("Warning"));
    Strings texts;
    for (const TraceLine &record : viewer.Records())
        texts.push_back(record.text);
    EXPECT_TRUE(InOrder(texts, {"EnableDS returns failure in TScanModule::ZephraScan", "Leaving TScanModule::DisableDS",
                                "Coming TScanModule::CloseDS", "Leaving TScanModule::CloseDS",
                                "Leaving TScanModule::ZephraScan"}))
        << "disabled, then closed";
    const Strings timeline = Timeline();
    EXPECT_TRUE(InOrder(timeline, {"DG_CONTROL/DAT_USERINTERFACE/MSG_ENABLEDS -> TWRC_FAILURE", kCloseDs,
                                   "DG_CONTROL/DAT_PARENT/MSG_CLOSEDSM -> TWRC_SUCCESS"}));
    EXPECT_EQ(0, CountCalls(DAT_USERINTERFACE, MSG_DISABLEDS)) << "the source was never enabled";
    ExpectClosed();
    EXPECT_TRUE(app.Notices().empty());
    // The mode stays: the application's own session writes its image to a file named by the application.
    Begin();
    Open(SM_XFER_MEMORY, MakeFormat(TWPT_GRAY, 8));
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    ASSERT_TRUE(RunUntilClosed());
    EXPECT_EQ((Strings{"ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"}), app.Briefs());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    ExpectBitmap(0, kSmallPageWidth, kSmallPageLength, 8);
    ExpectClosed();
}

// --- One image, variant by variant: the notices, the calls, the records and the file.

class ScanToFileVariantTest : public ScanToFileTest, public ::testing::WithParamInterface<LONG> {};

TEST_P(ScanToFileVariantTest, OneImageIsNamedTransferredReportedEndedAndTheSourceClosed) {
    const LONG mechanism = GetParam();
    staleFiles = true;
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    // The notices, all at the application's window; the batch is told to it after the source manager was closed.
    EXPECT_EQ((Strings{"ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"}), app.Briefs());
    EXPECT_EQ(0u, app.Notices()[0].wParam);
    EXPECT_EQ(0, app.Notices()[1].lParam);
    EXPECT_EQ(0u, app.Notices()[2].wParam);
    EXPECT_EQ(0, app.Notices()[2].lParam);
    // From the transfer-ready event on: the name first, the image, its result, its end, then the close.
    Strings expected{"GetName", kImageInfo};
    switch (mechanism) {
    case SM_XFER_MEMORY:
        expected.insert(expected.end(), {"DG_CONTROL/DAT_SETUPMEMXFER/MSG_GET -> TWRC_SUCCESS",
                                         "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT ICAP_UNITS -> TWRC_SUCCESS",
                                         FetchOf(mechanism, "TWRC_XFERDONE")});
        break;
    case SM_XFER_FILE:
        expected.insert(expected.end(),
                        {"DG_CONTROL/DAT_SETUPFILEXFER/MSG_SET -> TWRC_SUCCESS", FetchOf(mechanism, "TWRC_XFERDONE")});
        break;
    default:
        expected.push_back(FetchOf(mechanism, "TWRC_XFERDONE"));
        break;
    }
    expected.insert(expected.end(),
                    {"XferEnd(0)", kEndXfer, kResetRefused, "DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_SUCCESS", kDisable,
                     kCloseDs, "DG_CONTROL/DAT_PARENT/MSG_CLOSEDSM -> TWRC_SUCCESS", "DSClosed"});
    EXPECT_EQ(expected, Timeline());
    if (mechanism == SM_XFER_MEMORY) {
        // One strip into a buffer of the source's largest size, lent by pointer.
        const std::vector<TdsmCall> calls = dsm.Calls();
        TW_SETUPMEMXFER sizes = {};
        TW_IMAGEMEMXFER request = {};
        for (size_t i = base; i < calls.size(); ++i) {
            if (calls[i].dat == DAT_SETUPMEMXFER)
                std::memcpy(&sizes, calls[i].dataOut, sizeof sizes);
            if (calls[i].dat == DAT_IMAGEMEMXFER)
                std::memcpy(&request, calls[i].dataIn, sizeof request);
        }
        EXPECT_LT(sizes.Preferred, sizes.MaxBufSize) << "the scanner prefers less than its largest size";
        EXPECT_EQ(sizes.MaxBufSize, request.Memory.Length);
        EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), request.Memory.Flags);
        EXPECT_NE(nullptr, request.Memory.TheMem);
    }
    // The records of the variant, in order, and no warning.
    const VariantTexts t = TextsOf(mechanism);
    Strings progress{"Coming TScanModule::ProcessZephraScanImage",
                     "Coming TScanModule::" + std::string(MethodOf(mechanism)), t.getName};
    if (mechanism == SM_XFER_NATIVE)
        progress.push_back(In("MSG_GET DAT_IMAGENATIVEXFER", mechanism));
    if (mechanism == SM_XFER_FILE) {
        progress.push_back(In("MSG_SET DAT_SETUPFILEXFER", mechanism));
        progress.push_back(In("MSG_GET DAT_IMAGEFILEXFER", mechanism));
    }
    if (mechanism == SM_XFER_MEMORY)
        progress.push_back(In("Do while-loop to get image data", mechanism));
    progress.insert(progress.end(), {t.xferEnd, t.dsClosed, "Leaving TScanModule::" + std::string(MethodOf(mechanism)),
                                     "Leaving TScanModule::ProcessZephraScanImage"});
    EXPECT_TRUE(InOrder(Sm10("Trace"), progress));
    EXPECT_EQ(Strings{}, Sm10("Warning"));
    EXPECT_TRUE(Contains(RecordsOf(viewer, kSm1, "Trace"), "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY"));
    // The file: the old one was deleted, not written over, and the page stands under the name.
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ("stale bytes of an old file", FileText(files[0] + ".witness")) << "the old file was deleted first";
    ExpectBitmap(0, kBedWidth, kBedLength, 8);
    EXPECT_TRUE(boxes.Boxes().empty()) << ::testing::PrintToString(boxes.Briefs());
    ExpectClosed();
    EXPECT_EQ(1, scanner.Info().imagesDone);
}

TEST_P(ScanToFileVariantTest, UnknownLengthIsRefusedBeforeAnyTransfer) {
    const LONG mechanism = GetParam();
    staleFiles = true;
    Fault(VSCAN_FAULT_UNKNOWNLENGTH, 1);
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ((Strings{"GetName", kImageInfo, "XferEnd(1)", kEndXfer}), First(Timeline(), 4));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET) + CountCalls(DAT_IMAGENATIVEXFER, MSG_GET) +
                     CountCalls(DAT_IMAGEFILEXFER, MSG_GET) + CountCalls(DAT_SETUPFILEXFER, MSG_SET) +
                     CountCalls(DAT_SETUPMEMXFER, MSG_GET))
        << "no transfer was attempted";
    EXPECT_EQ(Strings{TextsOf(mechanism).unknownSize}, Sm10("Warning"));
    ExpectRemoved(0);
    EXPECT_TRUE(boxes.Boxes().empty());
    EXPECT_EQ(1, scanner.Info().imagesDone) << "the image was ended";
    ExpectClosed();
}

TEST_P(ScanToFileVariantTest, FailedImageInformationIsRefused) {
    const LONG mechanism = GetParam();
    staleFiles = true;
    FailAtSource(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, TWCC_BUMMER);
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    const Strings timeline = Timeline();
    EXPECT_TRUE(InOrder(
        timeline, {"GetName", "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_FAILURE", "XferEnd(1)", kEndXfer, "DSClosed"}));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET) + CountCalls(DAT_IMAGENATIVEXFER, MSG_GET) +
                     CountCalls(DAT_IMAGEFILEXFER, MSG_GET));
    EXPECT_EQ(Strings{TextsOf(mechanism).infoError}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

TEST_P(ScanToFileVariantTest, FileThatCannotBeCreatedIsReportedAsAFileError) {
    const LONG mechanism = GetParam();
    nameFor = [](int) { return TempDirectory() + "smk no such directory\\page.bmp"; };
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ((Strings{"GetName", "XferEnd(-3)", "DSClosed"}), Stamped());
    EXPECT_EQ(Strings{"Create file error in TScanModule::CheckDiskSpace"}, RecordsOf(viewer, kSm11, "Warning"));
    EXPECT_EQ(Strings{In("CheckDiskSpace returns failure", mechanism)}, Sm10("Warning"));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET) + CountCalls(DAT_IMAGENATIVEXFER, MSG_GET) +
                     CountCalls(DAT_IMAGEFILEXFER, MSG_GET));
    ExpectClosed();
}

TEST_P(ScanToFileVariantTest, SourceFailingTheImageReportsItsConditionCode) {
    const LONG mechanism = GetParam();
    staleFiles = true;
    if (mechanism == SM_XFER_MEMORY) {
        // Strips of 100 rows, the second of them failing: a part of the file is written already.
        Fault(VSCAN_FAULT_MAXBUFSIZE, 100 * kBedWidth);
        FailAtSource(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, kSourceFailure, 2);
    } else {
        FailAtSource(DG_IMAGE, mechanism == SM_XFER_FILE ? DAT_IMAGEFILEXFER : DAT_IMAGENATIVEXFER, MSG_GET,
                     kSourceFailure);
    }
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    const std::string result = "XferEnd(" + std::to_string(kSourceFailure) + ")";
    EXPECT_TRUE(InOrder(Timeline(), {"GetName", FetchOf(mechanism, "TWRC_FAILURE"),
                                     "DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_SUCCESS", result, kEndXfer, "DSClosed"}))
        << "the result is " << TwccName(kSourceFailure);
    EXPECT_EQ(Strings{In("Image xfer error", mechanism)}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

TEST_P(ScanToFileVariantTest, SourceCancellingTheImageReportsMinusFour) {
    const LONG mechanism = GetParam();
    staleFiles = true;
    Fault(VSCAN_FAULT_CANCELIMAGE, 1);
    if (mechanism == SM_XFER_MEMORY) {
        Fault(VSCAN_FAULT_MAXBUFSIZE, 100 * kBedWidth);
        Fault(VSCAN_FAULT_CANCELBLOCK, 2);
    }
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(
        InOrder(Timeline(), {"GetName", FetchOf(mechanism, "TWRC_CANCEL"), "XferEnd(-4)", kEndXfer, "DSClosed"}));
    if (mechanism == SM_XFER_MEMORY) {
        EXPECT_EQ(2, CountCalls(DAT_IMAGEMEMXFER, MSG_GET)) << "cancelled at the second strip";
    }
    EXPECT_EQ(Strings{In("Image xfer canceled", mechanism)}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

// The module keeps no global memory of its own or of the source's: the native bitmap is freed, once, after it was
// written, and the memory transfer's buffer is released.
TEST_P(ScanToFileVariantTest, NoGlobalMemoryIsLeftBehind) {
    const LONG mechanism = GetParam();
    GlobalMemoryTracker tracker;
    ASSERT_GE(tracker.Attach(library.Module()), 2) << "the module's GlobalAlloc and GlobalFree";
    ASSERT_GE(tracker.Attach(scanner.Module()), 1) << "the source's GlobalAlloc";
    tracker.Begin();
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_EQ("XferEnd(0)", Stamped().at(1));
    EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
    EXPECT_EQ(0, tracker.DoubleFrees());
    EXPECT_GT(tracker.Allocations(), 0);
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, ScanToFileVariantTest, ::testing::ValuesIn(kMechanisms), MechanismName);

// Images of a format the bitmap writer does not take: 16-bit gray and 48-bit RGB. The session is the application's
// own, after a smZephraScan whose enable the source refused left the module in scan-to-file mode: the settings record
// has no bit depth.
struct InvalidImageCase {
    LONG mechanism;
    Format format;
    const char *name;
};

class InvalidImageTest : public ScanToFileTest, public ::testing::WithParamInterface<InvalidImageCase> {};

TEST_P(InvalidImageTest, IsRefusedWithTheInvalidImageBox) {
    const InvalidImageCase &c = GetParam();
    staleFiles = true;
    FocusOnName();
    ScanToFileSettings s = Settings();
    EnterModeWithRefusedEnable(s);
    ASSERT_FALSE(HasFatalFailure());
    Open(c.mechanism, c.format);
    ASSERT_FALSE(HasFatalFailure());
    boxes.Answer({IDOK});
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    Begin();
    ASSERT_TRUE(RunUntilClosed());
    EXPECT_EQ((Strings{"GetName", kImageInfo, "XferEnd(1)", kEndXfer}), First(Timeline(), 4));
    ASSERT_EQ(1u, boxes.Boxes().size());
    const MessageBoxRecord &box = boxes.Boxes()[0];
    EXPECT_EQ(kInvalidPixelType, box.text) << box.Brief();
    EXPECT_EQ(kErrorCaption, box.caption) << box.Brief();
    EXPECT_EQ(kInvalidImageStyle, box.style) << box.Brief();
    EXPECT_EQ(std::vector<int>{IDOK}, box.buttons);
    ASSERT_TRUE(focusTaken) << "the test's window did not get the focus";
    EXPECT_EQ(focusWindow, box.owner) << "owned by the window with the focus";
    EXPECT_TRUE(box.scripted);
    EXPECT_EQ(Strings{In("Invalid pixel type", c.mechanism)}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

INSTANTIATE_TEST_SUITE_P(Formats, InvalidImageTest,
                         ::testing::Values(InvalidImageCase{SM_XFER_MEMORY, MakeFormat(TWPT_GRAY, 16), "Memory_Gray16"},
                                           InvalidImageCase{SM_XFER_FILE, MakeFormat(TWPT_GRAY, 16), "File_Gray16"},
                                           InvalidImageCase{SM_XFER_NATIVE, MakeFormat(TWPT_GRAY, 16), "Native_Gray16"},
                                           InvalidImageCase{SM_XFER_MEMORY, MakeFormat(TWPT_RGB, 48), "Memory_Rgb48"},
                                           InvalidImageCase{SM_XFER_FILE, MakeFormat(TWPT_RGB, 48), "File_Rgb48"},
                                           InvalidImageCase{SM_XFER_NATIVE, MakeFormat(TWPT_RGB, 48), "Native_Rgb48"}),
                         [](const ::testing::TestParamInfo<InvalidImageCase> &info) {
                             return std::string(info.param.name);
                         });

// --- Failures of one variant.

TEST_F(ScanToFileTest, MemoryBufferThatCannotBeAllocatedIsLowMemory) {
    staleFiles = true;
    Fault(VSCAN_FAULT_MAXBUFSIZE, 0x7FFFFFF0);
    ScanOne(SM_XFER_MEMORY);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(InOrder(Timeline(), {"GetName", kImageInfo, "DG_CONTROL/DAT_SETUPMEMXFER/MSG_GET -> TWRC_SUCCESS",
                                     "XferEnd(2)", kEndXfer, "DSClosed"}));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET));
    EXPECT_EQ(Strings{"Low Memory in TScanModule::ZephraScanDoMemXfer"}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

TEST_F(ScanToFileTest, RefusedFileSetUpReportsTheConditionCode) {
    staleFiles = true;
    FailAtSource(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, TWCC_BADVALUE);
    ScanOne(SM_XFER_FILE);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(
        InOrder(Timeline(), {"GetName", kImageInfo, "DG_CONTROL/DAT_SETUPFILEXFER/MSG_SET -> TWRC_FAILURE",
                             "DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_SUCCESS", "XferEnd(10)", kEndXfer, "DSClosed"}));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEFILEXFER, MSG_GET)) << "no transfer after a refused set-up";
    EXPECT_EQ(Strings{"MSG_SET DAT_SETUPFILEXFER error in TScanModule::ZephraScanDoFileXfer"}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

TEST_F(ScanToFileTest, FileTransferGivesTheSourceTheNameAsABitmapFile) {
    ScanOne(SM_XFER_FILE);
    ASSERT_FALSE(HasFatalFailure());
    const std::vector<TdsmCall> calls = dsm.Calls();
    const TdsmCall *setup = nullptr;
    for (size_t i = base; i < calls.size(); ++i)
        if (calls[i].dat == DAT_SETUPFILEXFER && calls[i].msg == MSG_SET)
            setup = &calls[i];
    ASSERT_NE(nullptr, setup);
    TW_SETUPFILEXFER sent = {};
    std::memcpy(&sent, setup->dataIn, sizeof sent);
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(files[0], sent.FileName);
    EXPECT_EQ(TWFF_BMP, sent.Format);
    ExpectBitmap(0, kBedWidth, kBedLength, 8);
}

// The file name reaches the source through wsprintf with the name as its format: "%%" stands for "%". The module
// tested the space with (and created) the name as given, which stays behind empty.
TEST_F(ScanToFileTest, FileTransferExpandsPercentSignsOfTheName) {
    const std::string asGiven = TempDirectory() + "smk_stf_100%%.bmp";
    const std::string asWritten = TempDirectory() + "smk_stf_100%.bmp";
    nameFor = [&](int) { return asGiven; };
    ScanOne(SM_XFER_FILE);
    ASSERT_FALSE(HasFatalFailure());
    files.push_back(asWritten); // removed at the end too
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    Dib dib;
    ReadBmpFile(asWritten, dib);
    EXPECT_EQ(kBedWidth, dib.header.biWidth);
    EXPECT_TRUE(FileExists(asGiven));
    EXPECT_EQ("", FileText(asGiven)) << "the file the module made for the space check";
}

// --- The small drive: an image that does not fit.

class SmallDriveTest : public ScanToFileTest, public ::testing::WithParamInterface<LONG> {
protected:
    void SetUp() override {
        ScanToFileTest::SetUp();
        if (HasFatalFailure())
            return;
        ULARGE_INTEGER available = {}, total = {}, free = {};
        if (GetDriveTypeA(kSmallDrive) == DRIVE_NO_ROOT_DIR ||
            !GetDiskFreeSpaceExA(kSmallDrive, &available, &total, &free))
            GTEST_SKIP() << "no small drive " << kSmallDrive
                         << " in the prefix: the CTest fixture small_drive makes it (scripts/small-drive, as root; "
                            "run this program through ctest)";
        if (total.QuadPart > kSmallDriveMost)
            GTEST_SKIP() << "drive " << kSmallDrive << " holds " << total.QuadPart
                         << " bytes: not the small drive of scripts/small-drive";
        // What the module asks: free clusters x bytes per sector x sectors per cluster.
        DWORD perCluster = 0, perSector = 0, freeClusters = 0, clusters = 0;
        ASSERT_TRUE(GetDiskFreeSpaceA(kSmallDrive, &perCluster, &perSector, &freeClusters, &clusters));
        freeBytes = freeClusters * perSector * perCluster;
        ASSERT_LE(freeBytes, total.QuadPart);
        ASSERT_GT(freeBytes, 0u) << "the small drive is full already";
        nameFor = [](int image) { return std::string(kSmallDrive) + "page" + std::to_string(image) + ".bmp"; };
    }
    DWORD freeBytes = 0;
};

TEST_P(SmallDriveTest, ImageLargerThanTheFreeSpaceAndMarginIsNotEnoughDiskSpace) {
    const LONG mechanism = GetParam();
    // 24-bit RGB of the bed at 50 dpi: 1276 bytes a row, 700 rows, more than the free space and 128 KiB.
    constexpr DWORD kRgbData = 1276 * kBedLength;
    ASSERT_GT(kRgbData, freeBytes + 0x20000u);
    staleFiles = true;
    ScanToFileSettings s = Settings();
    s.pixelTypeCode = SM_PIXEL_RGB;
    ScanOne(mechanism, s);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(InOrder(Timeline(), {"GetName", kImageInfo, "XferEnd(-2)", kEndXfer, "DSClosed"}));
    EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET) + CountCalls(DAT_IMAGENATIVEXFER, MSG_GET) +
                     CountCalls(DAT_IMAGEFILEXFER, MSG_GET));
    EXPECT_EQ(Strings{"Disk space is not enough in TScanModule::CheckDiskSpace"}, RecordsOf(viewer, kSm11, "Warning"));
    EXPECT_EQ(Strings{In("CheckDiskSpace returns failure", mechanism)}, Sm10("Warning"));
    ExpectRemoved(0);
    ExpectClosed();
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, SmallDriveTest, ::testing::ValuesIn(kMechanisms), MechanismName);

// Within the margin of 128 KiB the space check lets an image through that does not fit. The module's own writers
// then fail with a file error; the source writing the file itself fails with its condition code. Either way the part
// written is removed.
class SmallDriveMarginTest : public SmallDriveTest {};

TEST_P(SmallDriveMarginTest, ImageWithinTheMarginFailsWhileItIsWritten) {
    const LONG mechanism = GetParam();
    // 8-bit gray of the bed at 50 dpi: 428 bytes a row, 700 rows: more than the free space, less than it and 128 KiB.
    constexpr DWORD kGrayData = 428 * kBedLength;
    ASSERT_GT(kGrayData, freeBytes);
    ASSERT_LE(kGrayData, freeBytes + 0x20000u);
    ScanOne(mechanism);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(3u, stamps.size());
    if (mechanism == SM_XFER_MEMORY) {
        EXPECT_EQ("XferEnd(-3)", stamps[1].what);
        EXPECT_EQ(Strings{"_lwrite returns failure in TScanModule::WriteDIBHeader"},
                  RecordsOf(viewer, kSm11, "Warning"));
        EXPECT_EQ(Strings{"WriteDIBHeader returns failure in TScanModule::ZephraScanDoMemXfer"}, Sm10("Warning"));
        EXPECT_EQ(0, CountCalls(DAT_IMAGEMEMXFER, MSG_GET)) << "the file is laid out before the first strip";
    } else if (mechanism == SM_XFER_NATIVE) {
        EXPECT_EQ("XferEnd(-3)", stamps[1].what);
        EXPECT_EQ(Strings{"Error in _lwrite in TScanModule::WriteDIBHandleToFile"},
                  RecordsOf(viewer, kSm11, "Warning"));
        EXPECT_EQ(Strings{}, Sm10("Warning"));
    } else {
        // The condition code the source gave for its failed transfer.
        TW_UINT16 cc = 0;
        const std::vector<TdsmCall> calls = dsm.Calls();
        for (size_t i = base; i + 1 < calls.size(); ++i)
            if (calls[i].dat == DAT_IMAGEFILEXFER && calls[i].rc == TWRC_FAILURE && calls[i + 1].dat == DAT_STATUS) {
                TW_STATUS status = {};
                std::memcpy(&status, calls[i + 1].dataOut, sizeof status);
                cc = status.ConditionCode;
            }
        ASSERT_NE(0, cc) << "the scanner's file transfer did not fail";
        EXPECT_EQ("XferEnd(" + std::to_string(cc) + ")", stamps[1].what) << TwccName(cc);
        EXPECT_EQ(Strings{"Image xfer error in TScanModule::ZephraScanDoFileXfer"}, Sm10("Warning"));
    }
    EXPECT_EQ("DSClosed", stamps[2].what);
    ASSERT_EQ(1u, files.size());
    EXPECT_FALSE(FileExists(files[0])) << "the part written is removed";
    ExpectClosed();
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, SmallDriveMarginTest, ::testing::ValuesIn(kMechanisms), MechanismName);

// --- The end of an image: go on, ask, or close.

// More pages from the feeder, the source's interface shown, the scanner pressing Scan (and Close once the batch is
// transferred) and announcing each further image.
ScanToFileSettings FeederBatch() {
    ScanToFileSettings s = Settings();
    s.morePages = 1;
    s.showSourceUI = 1;
    s.useFeeder = 1;
    return s;
}

TEST_F(ScanToFileTest, FeederWithPaperGoesOnWithoutAsking) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(Stamped());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "DSClosed"}),
              Stamped());
    EXPECT_TRUE(boxes.Boxes().empty()) << ::testing::PrintToString(boxes.Briefs());
    // The feeder is asked after the first two images, which leave images pending; the third leaves none.
    const Strings timeline = Timeline();
    EXPECT_EQ(2, std::count(timeline.begin(), timeline.end(), kFeederLoaded));
    ASSERT_EQ(3u, files.size());
    for (int page = 1; page <= 3; ++page) {
        Dib dib;
        ReadBmpFile(files[page - 1], dib);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_TRUE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, kBedWidth, kBedLength, page)) << "file " << page;
    }
    // The source asked to be closed once the batch was over; the module closed it for the application.
    EXPECT_TRUE(Contains(RecordsOf(viewer, kSm1, "Trace"), "Coming TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ"));
    EXPECT_FALSE(Contains(Sm10("Trace"), "Send WM_SCANTOFILEDSCLOSED in TScanModule::ZephraScanDoMemXfer"))
        << "the transfers never closed the source themselves";
    EXPECT_EQ(0, app.Count(NoticeKind::CloseDSReq));
    ExpectClosed();
}

TEST_F(ScanToFileTest, AnyAnswerButNoGoesOn) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    onGetName = [this](int image) {
        if (image == 1)
            scanner.setPages(0);
    };
    boxes.Answer({IDCANCEL, IDOK});
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(Stamped());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "DSClosed"}),
              Stamped());
    EXPECT_EQ(2u, boxes.Boxes().size());
    EXPECT_EQ(0u, boxes.Pending());
    EXPECT_EQ(3, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, EmptyFeederWithImagesPendingAsksAndYesGoesOn) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    FocusOnName();
    // The sheets are taken out of the feeder while the first image is named: the two images left are pending still.
    onGetName = [this](int image) {
        if (image == 1)
            scanner.setPages(0);
    };
    boxes.Answer({IDYES, IDYES});
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(Stamped());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "DSClosed"}),
              Stamped());
    ASSERT_EQ(2u, boxes.Boxes().size()) << ::testing::PrintToString(boxes.Briefs());
    ASSERT_TRUE(focusTaken) << "the test's window did not get the focus";
    for (const MessageBoxRecord &box : boxes.Boxes()) {
        EXPECT_EQ(kMorePages, box.text) << box.Brief();
        EXPECT_EQ(kTitle, box.caption) << "the title given to smZephraScan";
        EXPECT_EQ(kQuestionStyle, box.style) << box.Brief();
        EXPECT_EQ((std::vector<int>{IDYES, IDNO}), box.buttons);
        EXPECT_EQ(focusWindow, box.owner) << "owned by the window with the focus";
    }
    const Strings timeline = Timeline();
    EXPECT_EQ(2, std::count(timeline.begin(), timeline.end(), kFeederLoaded));
    EXPECT_EQ(3, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, EmptyFeederAnsweredNoEndsTheBatch) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    onGetName = [this](int) { scanner.setPages(0); };
    boxes.Answer({IDNO});
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    ASSERT_EQ(1u, boxes.Boxes().size());
    EXPECT_EQ(kMorePages, boxes.Boxes()[0].text);
    const Strings timeline = Timeline();
    EXPECT_TRUE(InOrder(timeline, {"XferEnd(0)", kEndXfer, kFeederLoaded, kReset, kDisable, kCloseDs,
                                   "DG_CONTROL/DAT_PARENT/MSG_CLOSEDSM -> TWRC_SUCCESS", "DSClosed"}));
    EXPECT_TRUE(Contains(Sm10("Trace"), "Send WM_SCANTOFILEDSCLOSED in TScanModule::ZephraScanDoMemXfer"));
    EXPECT_EQ(1, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, NoMorePagesClosesAfterTheImageWithoutAsking) {
    scanner.setAutoScan(VSCAN_AUTO_SCAN);
    ScanToFileSettings s = FeederBatch();
    s.morePages = 0;
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    EXPECT_TRUE(boxes.Boxes().empty());
    const Strings timeline = Timeline();
    EXPECT_EQ(0, std::count(timeline.begin(), timeline.end(), kFeederLoaded)) << "nothing to ask the feeder";
    EXPECT_TRUE(InOrder(timeline, {"XferEnd(0)", kEndXfer, kResetRefused, kDisable, kCloseDs, "DSClosed"}));
    EXPECT_TRUE(Contains(Sm10("Trace"), "Send WM_SCANTOFILEDSCLOSED in TScanModule::ZephraScanDoMemXfer"));
    ExpectClosed();
}

TEST_F(ScanToFileTest, WithoutTheInterfaceTheBatchEndsAfterTheFirstImage) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    ScanToFileSettings s = FeederBatch();
    s.showSourceUI = 0;
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    EXPECT_TRUE(boxes.Boxes().empty()) << "the feeder has paper";
    EXPECT_TRUE(InOrder(Timeline(), {"XferEnd(0)", kEndXfer, kFeederLoaded, kReset, kDisable, kCloseDs, "DSClosed"}));
    EXPECT_EQ(1, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, WithoutTheInterfaceYesStillEndsTheBatch) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    onGetName = [this](int) { scanner.setPages(0); };
    boxes.Answer({IDYES});
    ScanToFileSettings s = FeederBatch();
    s.showSourceUI = 0;
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    ASSERT_EQ(1u, boxes.Boxes().size()) << "the question is asked all the same";
    EXPECT_EQ(IDYES, boxes.Boxes()[0].answer);
    EXPECT_EQ(1, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, FileTransferAsksButAlwaysCloses) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ChooseMechanism(SM_XFER_FILE);
    onGetName = [this](int) { scanner.setPages(0); };
    boxes.Answer({IDYES});
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    ASSERT_EQ(1u, boxes.Boxes().size());
    EXPECT_EQ(kMorePages, boxes.Boxes()[0].text);
    EXPECT_TRUE(InOrder(Timeline(), {"XferEnd(0)", kEndXfer, kFeederLoaded, kReset, kDisable, kCloseDs, "DSClosed"}));
    EXPECT_TRUE(Contains(Sm10("Trace"), "Send WM_SCANTOFILEDSCLOSED to AP in TScanModule::ZephraScanDoFileXfer"));
    EXPECT_EQ(1, scanner.Info().imagesDone);
    ExpectClosed();
}

TEST_F(ScanToFileTest, NativeTransferGoesOnAfterYes) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ChooseMechanism(SM_XFER_NATIVE);
    onGetName = [this](int) { scanner.setPages(0); };
    boxes.Answer({IDYES, IDNO});
    ScanToFileSettings s = FeederBatch();
    ASSERT_EQ(1u, Scan(&s));
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    EXPECT_EQ(2u, boxes.Boxes().size());
    EXPECT_TRUE(Contains(Sm10("Trace"), "Send WM_SCANTOFILEDSCLOSED in TScanModule::ZephraScanDoNativeXfer"));
    EXPECT_EQ(2, scanner.Info().imagesDone);
    ExpectClosed();
}

// A flatbed batch of several images (the pages of ICAP_IMAGEDATASET) with the feeder not in use: the module asks
// without consulting the feeder. The session is the application's own after a refused enable left the module in
// scan-to-file mode, because smZephraScan sets no image data set; the caption is then the title given to smOpenDS.
TEST_F(ScanToFileTest, FlatbedWithImagesPendingAsks) {
    Fault(VSCAN_FAULT_XFERREADYEACH, 1);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ScanToFileSettings s = FeederBatch();
    s.useFeeder = 0;
    EnterModeWithRefusedEnable(s);
    ASSERT_FALSE(HasFatalFailure());
    Open(SM_XFER_MEMORY, MakeFormat(TWPT_GRAY, 8));
    ASSERT_FALSE(HasFatalFailure());
    TW_CAPABILITY dataset = {ICAP_IMAGEDATASET, TWON_ARRAY, MakeArray(TWTY_UINT32, {1, 2})};
    ASSERT_EQ(TWRC_SUCCESS, capNegotiate(MSG_SET, &dataset));
    GlobalFree(dataset.hContainer);
    Begin();
    boxes.Answer({IDYES});
    ASSERT_EQ(SM_OK, enableDS(TRUE, FALSE));
    ASSERT_TRUE(RunUntilClosed());
    EXPECT_EQ((Strings{"GetName", "XferEnd(0)", "GetName", "XferEnd(0)", "DSClosed"}), Stamped());
    ASSERT_EQ(1u, boxes.Boxes().size()) << "asked after the first image, which left one pending";
    EXPECT_EQ(kMorePages, boxes.Boxes()[0].text);
    EXPECT_EQ("Transfer test", boxes.Boxes()[0].caption);
    const Strings timeline = Timeline();
    EXPECT_EQ(0, std::count(timeline.begin(), timeline.end(), kFeederLoaded)) << "the feeder is not asked";
    ASSERT_EQ(2u, files.size());
    for (int page = 1; page <= 2; ++page) {
        Dib dib;
        ReadBmpFile(files[page - 1], dib);
        ASSERT_FALSE(HasFatalFailure());
        EXPECT_TRUE(DibMatches(MakeFormat(TWPT_GRAY, 8), dib, kSmallPageWidth, kSmallPageLength, page));
    }
    ExpectClosed();
}

// --- The source's close request during a scan to file.

TEST_F(ScanToFileTest, CloseRequestDisablesAndClosesTheSourceForTheApplication) {
    Fault(VSCAN_FAULT_CLOSEREQUESTAFTER, 0);
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, Scan(&s));
    Begin();
    ASSERT_TRUE(RunUntilClosed());
    Drain();
    EXPECT_EQ((Strings{"ScanToFileDSClosed"}), app.Briefs()) << "no CloseDSReq, no image";
    EXPECT_EQ((Strings{kDisable, kCloseDs, "DG_CONTROL/DAT_PARENT/MSG_CLOSEDSM -> TWRC_SUCCESS", "DSClosed"}),
              Timeline());
    const Strings filter = RecordsOf(viewer, kSm1, "Trace");
    EXPECT_TRUE(InOrder(filter, {"Coming TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ",
                                 "Leaving TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ"}));
    EXPECT_TRUE(files.empty());
    ExpectClosed();
}

} // namespace
