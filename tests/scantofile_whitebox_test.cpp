// White-box cases of the scan to file: the working state smZephraScan keeps (the defaults, the repairs, the mode
// flag), and sources no real one imitates, played by a DSM_Entry of the suite's own in front of the stand-in: an
// image of unknown width, and a file that can be tested for space but not created again.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "MessageBoxes.h"
#include "Notifications.h"
#include "ScanModule.h"
#include "SessionTest.h"
#include "Trace.h"
#include "VscanSupport.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kSm10[] = "F:\\smkernal\\Sm_10.cpp";
const char kTitle[] = "White box";
// The small page: 8.5 x 14 inches at 50 dpi scaled by a quarter.
constexpr int kSmallWidth = 106;
constexpr int kSmallLength = 175;

// What the suite's DSM_Entry does to the calls it passes on to the stand-in.
struct Script {
    DSMENTRYPROC next = nullptr;
    bool unknownWidth = false;         // DAT_IMAGEINFO answers ImageWidth -1
    std::string directoryAtSetupMem;   // DAT_SETUPMEMXFER replaces this file by a directory of the same name
    std::vector<std::string> triplets; // "DAT_IMAGEINFO/MSG_GET", ... of the image triplets passed on
    // DAT_IMAGEMEMXFER: the source's strips are all fetched at the first call, then handed on in this order.
    std::vector<size_t> stripOrder;
    struct Strip {
        TW_IMAGEMEMXFER strip;
        std::vector<unsigned char> bytes;
    };
    std::vector<Strip> fetched;
    size_t handedOn = 0;
};
Script script;

// The source's strips of one image in the order of script.stripOrder: all of them are fetched into the module's
// buffer at its first request and copied aside; each request then gets the next one, the last with TWRC_XFERDONE.
TW_UINT16 ReorderedStrip(pTW_IDENTITY origin, pTW_IDENTITY dest, TW_IMAGEMEMXFER *request) {
    if (script.fetched.empty()) {
        for (;;) {
            TW_IMAGEMEMXFER strip = *request;
            const TW_UINT16 rc = script.next(origin, dest, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
            if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE)
                return rc;
            const auto *bytes = static_cast<const unsigned char *>(request->Memory.TheMem);
            script.fetched.push_back({strip, std::vector<unsigned char>(bytes, bytes + strip.BytesWritten)});
            if (rc == TWRC_XFERDONE)
                break;
        }
    }
    if (script.handedOn >= script.stripOrder.size() || script.stripOrder.size() != script.fetched.size())
        return TWRC_FAILURE;
    const Script::Strip &strip = script.fetched[script.stripOrder[script.handedOn++]];
    const TW_MEMORY memory = request->Memory;
    *request = strip.strip;
    request->Memory = memory;
    std::memcpy(memory.TheMem, strip.bytes.data(), strip.bytes.size());
    return script.handedOn == script.fetched.size() ? TWRC_XFERDONE : TWRC_SUCCESS;
}

TW_UINT16 WINAPI ScriptedEntry(pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                               TW_MEMREF data) {
    if (dat == DAT_SETUPMEMXFER && !script.directoryAtSetupMem.empty()) {
        DeleteFileA(script.directoryAtSetupMem.c_str());
        CreateDirectoryA(script.directoryAtSetupMem.c_str(), nullptr);
    }
    const TW_UINT16 rc = dat == DAT_IMAGEMEMXFER && msg == MSG_GET && !script.stripOrder.empty()
                             ? ReorderedStrip(origin, dest, static_cast<TW_IMAGEMEMXFER *>(data))
                             : script.next(origin, dest, dg, dat, msg, data);
    if (dat == DAT_IMAGEINFO && msg == MSG_GET && rc == TWRC_SUCCESS && script.unknownWidth)
        static_cast<TW_IMAGEINFO *>(data)->ImageWidth = -1;
    if (dat == DAT_IMAGEINFO || dat == DAT_SETUPMEMXFER || dat == DAT_SETUPFILEXFER || dat == DAT_IMAGEMEMXFER ||
        dat == DAT_IMAGENATIVEXFER || dat == DAT_IMAGEFILEXFER)
        script.triplets.push_back(std::to_string(dat) + "/" + std::to_string(msg));
    return rc;
}

TScanModule *eventModule = nullptr;
BOOL WINAPI ModuleIsDSEvent(MSG *message) {
    return eventModule->IsDSEvent(message);
}

std::string TempDirectory() {
    char directory[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, directory);
    return directory;
}

ScanToFileSettings Settings() {
    ScanToFileSettings s = {};
    s.unitCode = SM_UNIT_INCHES;
    s.pixelTypeCode = SM_PIXEL_GRAY;
    s.resolution = 50;
    s.brightness = 0, s.brightnessMin = -1000, s.brightnessMax = 1000;
    s.contrast = 0, s.contrastMin = -1000, s.contrastMax = 1000;
    s.highlight = 255, s.highlightMin = 0, s.highlightMax = 255;
    s.shadow = 0, s.shadowMin = 0, s.shadowMax = 255;
    return s;
}

::testing::AssertionResult SameRecord(const ScanToFileSettings &expected, const ScanToFileSettings &kept) {
    if (std::memcmp(&expected, &kept, sizeof expected) == 0)
        return ::testing::AssertionSuccess();
    const auto *a = reinterpret_cast<const unsigned char *>(&expected);
    const auto *b = reinterpret_cast<const unsigned char *>(&kept);
    size_t at = 0;
    while (a[at] == b[at])
        ++at;
    return ::testing::AssertionFailure() << "the kept record differs first at offset " << at << " (expected byte "
                                         << int(a[at]) << ", kept " << int(b[at]) << ")";
}

class ScanToFileWhiteBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(1, 1);
        viewer.Start();
        RemoveSourceDirectories();
        InstallVirtualScanner("twain_32\\vscan.ds");
        WriteProfileStringA("Twain", "Default Source", nullptr);
        module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr));
        eventModule = module.get();
        ASSERT_TRUE(dsm.Open());
        ASSERT_TRUE(scanner.Load(WindowsDir() + "\\twain_32\\vscan.ds")) << "the installed scanner's controls";
        script = Script{};
        app.onScanToFileGetName = [this](const Notice &, char *name) {
            // Short names (OpenFile takes fewer than 128 characters), of this process and test.
            static int names = 0;
            files.push_back(TempDirectory() + "smk_stfwb_" + std::to_string(GetCurrentProcessId()) + "_" +
                            std::to_string(++names) + ".bmp");
            lstrcpynA(name, files.back().c_str(), 256);
        };
    }
    void TearDown() override {
        EXPECT_EQ(0, boxes.Unscripted()) << "message boxes nobody expected: "
                                         << ::testing::PrintToString(boxes.Briefs());
        if (module) {
            if (script.next)
                module->dsmEntry = script.next;
            module->DisableDS();
            module->CloseDS();
            module.reset();
        }
        eventModule = nullptr;
        traceStream = nullptr;
        traceDepth = 0;
        dsm.Close();
        scanner.Free();
        viewer.Stop();
        for (const std::string &name : files) {
            DeleteFileA(name.c_str());
            RemoveDirectoryA(name.c_str());
        }
        RemoveSourceDirectories();
    }
    // Puts the suite's DSM_Entry in front of the stand-in's.
    void Interpose() {
        script.next = module->dsmEntry;
        module->dsmEntry = &ScriptedEntry;
    }
    bool RunUntilClosed(DWORD timeoutMs = 30000) {
        return PumpThroughIsDSEvent(
            &ModuleIsDSEvent, [this] { return app.Count(NoticeKind::ScanToFileDSClosed) > 0; }, timeoutMs);
    }
    Strings Warnings10() const {
        Strings texts;
        for (const TraceLine &record : viewer.Records())
            if (record.source == kSm10 && record.level == "Warning")
                texts.push_back(record.text);
        return texts;
    }
    // The module in scan-to-file mode with the suite's settings, the scanner open with the small page (50 dpi
    // scaled by a quarter) by memory transfer in the pixel type given (planar when asked), enabled without its
    // interface.
    void StartOwnSession(LONG pixelTypeFlag, bool planar) {
        module->scanToFileActive = TRUE;
        module->scanToFileState = Settings();
        ASSERT_EQ(0, module->OpenDS(app.Handle(), kTitle));
        ASSERT_EQ(0, module->SetXferMech(kMechMemory));
        ASSERT_EQ(0, module->SetPixelType(pixelTypeFlag));
        if (planar) {
            TW_CAPABILITY cap = {ICAP_PLANARCHUNKY, TWON_ONEVALUE, MakeOneValue(TWTY_UINT16, TWPC_PLANAR)};
            ASSERT_EQ(TWRC_SUCCESS, module->CapNegotiate(MSG_SET, &cap));
            GlobalFree(cap.hContainer);
        }
        ASSERT_EQ(0, module->SetXResolution(50));
        ASSERT_EQ(0, module->SetYResolution(50));
        ASSERT_EQ(0, module->SetXScale(0.25));
        ASSERT_EQ(0, module->SetYScale(0.25));
        ASSERT_EQ(0, module->EnableDS(FALSE, FALSE));
    }
    // The mechanisms the scanner offers, so that the module ends up with `mechanism` (it tries memory, then file).
    void ChooseMechanism(WORD mechanism) {
        if (mechanism == kMechFile) {
            const double offered[] = {TWSX_NATIVE, TWSX_FILE};
            ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 2, offered));
        } else if (mechanism == kMechNative) {
            const double offered[] = {TWSX_NATIVE};
            ASSERT_EQ(1, scanner.setValues(ICAP_XFERMECH, 1, offered));
        }
    }

    TraceViewer viewer;
    DsmControl dsm;
    VscanLibrary scanner;
    NotificationWindow app;
    MessageBoxes boxes;
    std::unique_ptr<TScanModule> module;
    std::vector<std::string> files;
};

TEST_F(ScanToFileWhiteBoxTest, NullSettingsKeepTheDefaultsWithTheFrameOfTheOpenSource) {
    // With the source open already, the default frame comes from its bed, 8.5 x 14 inches.
    ASSERT_EQ(0, module->OpenDS(app.Handle(), kTitle));
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, nullptr));
    ScanToFileSettings expected = {};
    expected.frameLeft = 0.0;
    expected.frameTop = 0.0;
    expected.frameRight = (8.5 * 300.0 - 1.0) * (1.0 / 300.0);
    expected.frameBottom = (14.0 * 300.0 - 1.0) * (1.0 / 300.0);
    expected.unitCode = SM_UNIT_INCHES;
    expected.pixelTypeCode = SM_PIXEL_GRAY;
    expected.resolution = 300;
    expected.brightness = 0, expected.brightnessMin = -1000, expected.brightnessMax = 1000;
    expected.contrast = 0, expected.contrastMin = -1000, expected.contrastMax = 1000;
    expected.highlight = 255, expected.highlightMin = 0, expected.highlightMax = 255;
    expected.shadow = 0, expected.shadowMin = 0, expected.shadowMax = 255;
    expected.modalUI = 1;
    expected.morePages = 0;
    expected.showSourceUI = 1;
    expected.useFeeder = 1;
    EXPECT_TRUE(SameRecord(expected, module->scanToFileState));
    EXPECT_DOUBLE_EQ(8.5 - 1.0 / 300.0, module->scanToFileState.frameRight);
    EXPECT_EQ(TRUE, module->scanToFileActive);
    EXPECT_EQ(kMechMemory, module->transferMechanism);
    EXPECT_EQ(kStateSourceEnabled, module->sessionState);
}

TEST_F(ScanToFileWhiteBoxTest, GivenRecordIsKeptWholeWithItsRepairs) {
    ScanToFileSettings given = Settings();
    given.frameLeft = 1.25;
    given.frameTop = -2.5;
    given.frameRight = 1e9;
    given.frameBottom = 3.0;
    given.unitCode = 4;
    given.pixelTypeCode = SM_PIXEL_PALETTE;
    given.resolution = -7;
    given.brightness = 9, given.brightnessMin = 3, given.brightnessMax = 3;
    given.contrast = 500, given.contrastMin = 0, given.contrastMax = 100;
    given.highlight = 7, given.highlightMin = 9, given.highlightMax = 1;
    given.shadow = 200, given.shadowMin = 10, given.shadowMax = 100;
    given.modalUI = 7;
    given.morePages = 5;
    given.showSourceUI = 0;
    given.useFeeder = 0x12345678;
    const ScanToFileSettings original = given;
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, &given));
    EXPECT_EQ(0, std::memcmp(&original, &given, sizeof given)) << "the application's record is not written";
    ScanToFileSettings expected = given;
    expected.unitCode = SM_UNIT_INCHES;
    expected.pixelTypeCode = SM_PIXEL_GRAY;
    expected.showSourceUI = 1;
    expected.resolution = 100;
    expected.brightness = 0, expected.brightnessMin = -1000, expected.brightnessMax = 1000;
    expected.contrast = 100;
    expected.highlight = 255, expected.highlightMin = 0, expected.highlightMax = 255;
    expected.shadow = 10;
    EXPECT_TRUE(SameRecord(expected, module->scanToFileState));
}

// The unit is kept only as inches or centimetres; it is never sent to the source.
class UnitRepairTest : public ScanToFileWhiteBoxTest, public ::testing::WithParamInterface<std::pair<WORD, WORD>> {};

TEST_P(UnitRepairTest, UnitOtherThanInchesOrCentimetresBecomesInches) {
    ScanToFileSettings given = Settings();
    given.unitCode = GetParam().first;
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, &given));
    EXPECT_EQ(GetParam().second, module->scanToFileState.unitCode);
    for (const TdsmCall &call : dsm.Calls())
        EXPECT_FALSE(call.dat == DAT_CAPABILITY && call.msg == MSG_SET && call.capIn.cap == ICAP_UNITS)
            << "the unit was sent";
}

INSTANTIATE_TEST_SUITE_P(Units, UnitRepairTest,
                         ::testing::Values(std::make_pair(WORD(1), WORD(1)), std::make_pair(WORD(2), WORD(2)),
                                           std::make_pair(WORD(0), WORD(1)), std::make_pair(WORD(3), WORD(1)),
                                           std::make_pair(WORD(4), WORD(1)), std::make_pair(WORD(32), WORD(1))),
                         [](const ::testing::TestParamInfo<std::pair<WORD, WORD>> &info) {
                             return "Code" + std::to_string(info.param.first);
                         });

TEST_F(ScanToFileWhiteBoxTest, NoMechanismLeavesTheModeUnset) {
    ScanToFileSettings s = Settings();
    ASSERT_EQ(
        1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_XFERMECH, TWRC_FAILURE, TWCC_BADVALUE, 1, 0));
    EXPECT_EQ(0u, module->ZephraScan(app.Handle(), kTitle, &s));
    EXPECT_EQ(FALSE, module->scanToFileActive);
    EXPECT_EQ(kStateSourceOpen, module->sessionState) << "the source stays open";
    EXPECT_EQ(app.Handle(), module->parentWindow);
}

TEST_F(ScanToFileWhiteBoxTest, RefusedEnableSetsTheModeWithTheSourceClosed) {
    ScanToFileSettings s = Settings();
    dsm.FailTripletOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_FAILURE, TWCC_OPERATIONERROR);
    EXPECT_EQ(0u, module->ZephraScan(app.Handle(), kTitle, &s));
    EXPECT_EQ(TRUE, module->scanToFileActive);
    EXPECT_EQ(kStateDsmLoaded, module->sessionState);
    EXPECT_EQ(GetDesktopWindow(), module->parentWindow);
}

TEST_F(ScanToFileWhiteBoxTest, ModeOutlivesTheBatch) {
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, &s));
    EXPECT_EQ(TRUE, module->scanToFileActive);
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    EXPECT_EQ(kStateDsmLoaded, module->sessionState);
    EXPECT_EQ(TRUE, module->scanToFileActive) << "only the construction clears it";
    EXPECT_EQ(GetDesktopWindow(), module->parentWindow) << "closing the source manager gave the desktop back";
    EXPECT_EQ(1, app.Count(NoticeKind::ScanToFileDSClosed)) << "yet the end of the batch reached the application";
}

// A source that reports an image of unknown width: refused before anything is transferred.
class UnknownWidthTest : public ScanToFileWhiteBoxTest, public ::testing::WithParamInterface<WORD> {};

TEST_P(UnknownWidthTest, IsRefusedBeforeAnyTransfer) {
    const WORD mechanism = GetParam();
    ChooseMechanism(mechanism);
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, &s));
    ASSERT_EQ(mechanism, module->transferMechanism);
    Interpose();
    script.unknownWidth = true;
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    ASSERT_EQ((Strings{"ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"}), app.Briefs());
    EXPECT_EQ(1, static_cast<LONG>(app.Notices()[1].wParam));
    EXPECT_EQ(Strings{std::to_string(DAT_IMAGEINFO) + "/" + std::to_string(MSG_GET)}, script.triplets)
        << "nothing after the image information";
    const char *texts[] = {"MSG_GET DAT_IMAGEINFO error in TScanModule::ZephraScanDoNativeXfer",
                           "Cannot support unknown length or height in TScanModule::ZephraScanDoFileXfer",
                           "Cannot support unknown length or height in TScanModule::ZephraScanDoMemXfer"};
    EXPECT_EQ(Strings{texts[mechanism == kMechNative ? 0 : mechanism == kMechFile ? 1 : 2]}, Warnings10());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(files[0].c_str()));
    EXPECT_TRUE(boxes.Boxes().empty());
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, UnknownWidthTest, ::testing::Values(kMechMemory, kMechFile, kMechNative),
                         [](const ::testing::TestParamInfo<WORD> &info) {
                             return info.param == kMechNative ? "Native" : info.param == kMechFile ? "File" : "Memory";
                         });

// The memory transfer creates the file again after the space check created it: a name that can no longer be created
// then (a directory took its place meanwhile) is a file error of the memory transfer itself.
TEST_F(ScanToFileWhiteBoxTest, MemoryTransferThatCannotCreateItsFileIsAFileError) {
    ScanToFileSettings s = Settings();
    ASSERT_EQ(1u, module->ZephraScan(app.Handle(), kTitle, &s));
    ASSERT_EQ(kMechMemory, module->transferMechanism);
    Interpose();
    app.onScanToFileGetName = [this](const Notice &, char *name) {
        files.push_back(TempDirectory() + "smk_stf_whitebox_directory.bmp");
        RemoveDirectoryA(files.back().c_str());
        script.directoryAtSetupMem = files.back();
        lstrcpynA(name, files.back().c_str(), 256);
    };
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    ASSERT_EQ((Strings{"ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"}), app.Briefs());
    EXPECT_EQ(-3, static_cast<LONG>(app.Notices()[1].wParam));
    const std::string info = std::to_string(DAT_IMAGEINFO) + "/" + std::to_string(MSG_GET);
    const std::string setup = std::to_string(DAT_SETUPMEMXFER) + "/" + std::to_string(MSG_GET);
    EXPECT_EQ((Strings{info, setup}), script.triplets) << "no strip is asked for";
    EXPECT_EQ(Strings{"Create file error in TScanModule::ZephraScanDoMemXfer"}, Warnings10());
    const DWORD attributes = GetFileAttributesA(files[0].c_str());
    EXPECT_TRUE(attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY))
        << "the directory that took the file's place is left alone";
}

// Planar RGB strips are written plane by plane in the order red, green, blue: the order the scanner sends them.
TEST_F(ScanToFileWhiteBoxTest, PlanarRgbInTheOrderRedGreenBlueLandsInTheFile) {
    StartOwnSession(SM_PIXEL_RGB, true);
    ASSERT_FALSE(HasFatalFailure());
    Interpose();
    script.stripOrder = {0, 1, 2};
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    ASSERT_EQ(3u, script.fetched.size()) << "one strip a plane";
    for (size_t plane = 0; plane < 3; ++plane)
        EXPECT_EQ(0u, script.fetched[plane].strip.YOffset) << "plane " << plane;
    ASSERT_EQ(0, static_cast<LONG>(app.Notices()[1].wParam));
    Dib dib;
    ReadBmpFile(files[0], dib);
    ASSERT_FALSE(HasFatalFailure());
    EXPECT_TRUE(DibMatches(MakeFormat(TWPT_RGB, 24), dib, kSmallWidth, kSmallLength, 1));
}

// The writer knows the planes only by their order: green sent first lands where red belongs, and red where green does.
TEST_F(ScanToFileWhiteBoxTest, PlanarRgbInAnotherOrderLandsInTheWrongChannels) {
    StartOwnSession(SM_PIXEL_RGB, true);
    ASSERT_FALSE(HasFatalFailure());
    Interpose();
    script.stripOrder = {1, 0, 2};
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    ASSERT_EQ(3u, script.fetched.size()) << "one strip a plane";
    ASSERT_EQ(0, static_cast<LONG>(app.Notices()[1].wParam)) << "written without complaint";
    Dib dib;
    ReadBmpFile(files[0], dib);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_EQ(24, dib.header.biBitCount);
    const Format rgb = MakeFormat(TWPT_RGB, 24);
    int wrong = 0, swapped = 0;
    for (int y = 0; y < kSmallLength; ++y)
        for (int x = 0; x < kSmallWidth; ++x) {
            const std::vector<unsigned> page = ExpectedSamples(rgb, kSmallWidth, kSmallLength, 1, x, y);
            const unsigned char *pixel = dib.Row(y) + 3 * x; // blue, green, red
            wrong += pixel[2] != page[1] || pixel[1] != page[0] || pixel[0] != page[2];
            swapped += page[0] != page[1];
        }
    EXPECT_EQ(0, wrong) << "pixels whose red and green are not the page's green and red";
    EXPECT_GT(swapped, 0) << "the page has pixels whose red and green differ";
}

// The transfer variant follows the mechanism the module last set, not the one the source has now.
class RememberedMechanismTest : public ScanToFileWhiteBoxTest, public ::testing::WithParamInterface<WORD> {};

TEST_P(RememberedMechanismTest, PicksTheVariant) {
    StartOwnSession(SM_PIXEL_GRAY, false);
    ASSERT_FALSE(HasFatalFailure());
    module->transferMechanism = GetParam();
    Interpose();
    ASSERT_TRUE(RunUntilClosed()) << ::testing::PrintToString(app.Briefs());
    const char *variant = GetParam() == kMechNative ? "ZephraScanDoNativeXfer"
                          : GetParam() == kMechFile ? "ZephraScanDoFileXfer"
                                                    : "ZephraScanDoMemXfer";
    bool came = false;
    for (const TraceLine &record : viewer.Records())
        came = came || (record.source == kSm10 && record.text == std::string("Coming TScanModule::") + variant);
    EXPECT_TRUE(came) << variant;
    const TW_UINT16 fetch = GetParam() == kMechNative ? DAT_IMAGENATIVEXFER
                            : GetParam() == kMechFile ? DAT_IMAGEFILEXFER
                                                      : DAT_IMAGEMEMXFER;
    const std::string fetched = std::to_string(fetch) + "/" + std::to_string(MSG_GET);
    EXPECT_NE(script.triplets.end(), std::find(script.triplets.begin(), script.triplets.end(), fetched))
        << ::testing::PrintToString(script.triplets);
}

INSTANTIATE_TEST_SUITE_P(Mechanisms, RememberedMechanismTest, ::testing::Values(1, 2, 4, 0, 3, 8),
                         [](const ::testing::TestParamInfo<WORD> &info) { return std::to_string(info.param); });

} // namespace
