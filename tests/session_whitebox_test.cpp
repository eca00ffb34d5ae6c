// White-box checks of the session and negotiation fields no export shows: states, identity, windows, mechanism.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "ScanModule.h"
#include "SessionTest.h"
#include "Utility.h"
#include "VscanSupport.h"
#include "vscan.h"

using namespace smtest;

namespace {

class SessionWhiteBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(0, 0);
        RemoveSourceDirectories();
        InstallVirtualScanner("twain_32\\vscan.ds");
        WriteProfileStringA("Twain", "Default Source", nullptr);
        module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr));
        ASSERT_TRUE(dsm.Open());
        script.Load();
        window = CreateWindowA("STATIC", "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr,
                               nullptr);
    }
    void TearDown() override {
        module->DisableDS();
        module->CloseDS();
        module.reset();
        traceStream = nullptr;
        traceDepth = 0;
        dsm.Close();
        DestroyWindow(window);
        RemoveSourceDirectories();
    }
    // Sets ICAP_XFERMECH through the negotiation call with a container of the caller's.
    TW_UINT16 SetMechanism(TW_UINT16 conType, TW_UINT32 mechanism) {
        TW_CAPABILITY capability = {ICAP_XFERMECH, conType, nullptr};
        if (conType == TWON_ENUMERATION) {
            const TW_UINT16 items[] = {TWSX_NATIVE, TWSX_FILE, TWSX_MEMORY};
            EXPECT_EQ(0, BuildupEnumeration(&capability, TWTY_UINT16, 3, mechanism, 0, items));
        } else {
            EXPECT_EQ(0, BuildupOneValue(&capability, TWTY_UINT16, mechanism));
        }
        const TW_UINT16 rc = module->CapNegotiate(MSG_SET, &capability);
        GlobalFree(capability.hContainer);
        return rc;
    }

    std::unique_ptr<TScanModule> module;
    DsmControl dsm;
    DsmScript script;
    HWND window = nullptr;
};

TEST_F(SessionWhiteBoxTest, CancelledSelectionLeavesTheIdentityAsTheDialogLeftIt) {
    std::memset(&module->sourceIdentity, 0x5A, sizeof module->sourceIdentity);
    script.selectCancelLeaving("Left by the dialog");
    EXPECT_EQ(SM_ERR_USER_CANCEL, module->SelectDS(window));
    TW_IDENTITY asLeft = {};
    std::strcpy(asLeft.ProductName, "Left by the dialog");
    EXPECT_EQ(0, std::memcmp(&asLeft, &module->sourceIdentity, sizeof asLeft))
        << "cleared before the dialog, then only the name the dialog wrote; ProductName \""
        << module->sourceIdentity.ProductName << "\"";
    const std::vector<TdsmCall> calls = dsm.Calls();
    const TdsmCall *select = nullptr;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_IDENTITY && call.msg == MSG_USERSELECT)
            select = &call;
    ASSERT_NE(nullptr, select);
    TW_IDENTITY zeroed = {};
    EXPECT_EQ(0, std::memcmp(&zeroed, select->dataIn, sizeof zeroed)) << "the identity is cleared before the dialog";
    EXPECT_EQ(0, std::memcmp(select->dataOut, &module->sourceIdentity, sizeof(TW_IDENTITY)));
    EXPECT_EQ(kStateDsmLoaded, module->sessionState);
}

TEST_F(SessionWhiteBoxTest, ClosingTheManagerResetsTheParentToTheDesktop) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    EXPECT_EQ(window, module->parentWindow);
    EXPECT_EQ(kStateSourceOpen, module->sessionState);
    ASSERT_EQ(0, module->CloseDS());
    EXPECT_EQ(GetDesktopWindow(), module->parentWindow);
    EXPECT_EQ(kStateDsmLoaded, module->sessionState);
    TW_IDENTITY zeroed = {};
    EXPECT_EQ(0, std::memcmp(&zeroed, &module->sourceIdentity, sizeof zeroed)) << "the identity is cleared on close";
}

TEST_F(SessionWhiteBoxTest, FailedManagerCloseInsideCloseDSLeavesStateThreeWithoutIdentity) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, TWRC_FAILURE, TWCC_SEQERROR);
    const LONG result = module->CloseDS();
    EXPECT_EQ(0, result) << TwccName(result);
    EXPECT_EQ(kStateDsmOpen, module->sessionState);
    TW_IDENTITY zeroed = {};
    EXPECT_EQ(0, std::memcmp(&zeroed, &module->sourceIdentity, sizeof zeroed))
        << "the identity is cleared all the same";
    EXPECT_EQ(window, module->parentWindow) << "only a closed source manager gives the desktop back";
}

TEST_F(SessionWhiteBoxTest, EnableKeepsTheWholeShowFlagAndSendsItsLowWord) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    ASSERT_EQ(0, module->EnableDS(0x00020000, FALSE));
    EXPECT_EQ(0x00020000, module->showUI);
    EXPECT_EQ(kStateSourceEnabled, module->sessionState);
    const TdsmCall enable = dsm.Calls().back();
    TW_USERINTERFACE ui;
    std::memcpy(&ui, enable.dataIn, sizeof ui);
    EXPECT_EQ(0, ui.ShowUI);
}

TEST_F(SessionWhiteBoxTest, ModalEnableRecordsTheDisabledParent) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    ASSERT_EQ(0, module->EnableDS(FALSE, TRUE));
    EXPECT_EQ(TRUE, module->parentDisabled);
    EXPECT_EQ(window, module->disabledWindows.window);
    ASSERT_EQ(0, module->DisableDS());
    EXPECT_EQ(FALSE, module->parentDisabled);
    EXPECT_EQ(nullptr, module->disabledWindows.window);
}

// Wine's desktop window cannot be disabled, so the black-box suite skips this case; the record shows it here.
TEST_F(SessionWhiteBoxTest, ModalEnableWithoutWindowRecordsTheDesktop) {
    ASSERT_EQ(0, module->OpenDS(nullptr, "White box"));
    ASSERT_EQ(0, module->EnableDS(FALSE, TRUE));
    EXPECT_EQ(GetDesktopWindow(), module->disabledWindows.window);
    EXPECT_EQ(1, module->parentDisabled);
    ASSERT_EQ(0, module->DisableDS());
    const DisabledWindowList zeroed = {};
    EXPECT_EQ(0, std::memcmp(&zeroed, &module->disabledWindows, sizeof zeroed)) << "the whole record is zeroed";
    EXPECT_EQ(0, module->parentDisabled);
    EnableWindow(GetDesktopWindow(), TRUE);
}

// The refusals no export reaches: state 1 (before the session), and closing the source manager under an enabled
// source. Each answers 11 and sends nothing.
struct Refusal {
    const char *name;
    LONG (*call)(TScanModule &module, HWND window);
};

const Refusal kRefusals[] = {
    {"OpenDSM", [](TScanModule &m, HWND w) { return m.OpenDSM(w); }},
    {"CloseDSM", [](TScanModule &m, HWND w) { return m.CloseDSM(w); }},
    {"CloseDS", [](TScanModule &m, HWND) { return m.CloseDS(); }},
    {"EnableDS", [](TScanModule &m, HWND) { return m.EnableDS(FALSE, FALSE); }},
    {"DisableDS", [](TScanModule &m, HWND) { return m.DisableDS(); }},
};

TEST_F(SessionWhiteBoxTest, EveryOperationInStateOneIsASequenceError) {
    for (const Refusal &refusal : kRefusals) {
        SCOPED_TRACE(refusal.name);
        module->sessionState = kStatePreSession;
        const size_t before = dsm.Calls().size();
        const LONG result = refusal.call(*module, window);
        EXPECT_EQ(TWCC_SEQERROR, result) << TwccName(result);
        EXPECT_EQ(before, dsm.Calls().size()) << "nothing sent";
        EXPECT_EQ(kStatePreSession, module->sessionState);
    }
    // Back to the state of the loaded source manager, so that the object unloads it.
    module->sessionState = kStateDsmLoaded;
}

TEST_F(SessionWhiteBoxTest, ClosingTheManagerUnderAnEnabledSourceIsASequenceError) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    ASSERT_EQ(0, module->EnableDS(FALSE, FALSE));
    const size_t before = dsm.Calls().size();
    const LONG result = module->CloseDSM(window);
    EXPECT_EQ(TWCC_SEQERROR, result) << TwccName(result);
    EXPECT_EQ(before, dsm.Calls().size()) << "nothing sent";
    EXPECT_EQ(kStateSourceEnabled, module->sessionState);
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
}

TEST_F(SessionWhiteBoxTest, MechanismSetThroughTheNegotiationIsRemembered) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    EXPECT_EQ(kMechMemory, module->transferMechanism);
    EXPECT_EQ(TWRC_SUCCESS, SetMechanism(TWON_ENUMERATION, TWSX_FILE));
    EXPECT_EQ(kMechFile, module->transferMechanism) << "the enumeration's current item is the mechanism";
    EXPECT_EQ(TWRC_SUCCESS, SetMechanism(TWON_ONEVALUE, TWSX_NATIVE));
    EXPECT_EQ(kMechNative, module->transferMechanism);
    EXPECT_EQ(TWRC_SUCCESS, SetMechanism(TWON_ONEVALUE, TWSX_MEMORY));
    EXPECT_EQ(kMechMemory, module->transferMechanism);
}

TEST_F(SessionWhiteBoxTest, MechanismAnsweredWithCheckStatusIsNotRemembered) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_CHECKSTATUS, TWCC_SUCCESS);
    EXPECT_EQ(TWRC_CHECKSTATUS, SetMechanism(TWON_ONEVALUE, TWSX_NATIVE));
    EXPECT_EQ(kMechMemory, module->transferMechanism);
}

TEST_F(SessionWhiteBoxTest, MechanismThroughTheAccessorAndGetsLeaveItAlone) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    ASSERT_EQ(0, module->SetXferMech(kMechFile));
    EXPECT_EQ(kMechFile, module->transferMechanism);
    WORD flag = 0;
    ASSERT_EQ(0, module->GetXferMech(&flag));
    EXPECT_EQ(kMechFile, flag);
    script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_FAILURE, TWCC_BADVALUE);
    EXPECT_NE(0, module->SetXferMech(kMechNative));
    EXPECT_EQ(kMechFile, module->transferMechanism) << "a failed set changes nothing";
    ASSERT_EQ(0, module->CloseDS());
    EXPECT_EQ(kMechFile, module->transferMechanism) << "closing the source does not clear it";
}

TEST_F(SessionWhiteBoxTest, BrightnessRangeIsLearntWhenTheSourceOpens) {
    // The scanner is told to list brightness as the enumeration {-50, 0, 50} before it is opened.
    VscanLibrary scanner;
    ASSERT_TRUE(scanner.Load(WindowsDir() + "\\twain_32\\vscan.ds"));
    const double values[] = {-50.0, 0.0, 50.0};
    ASSERT_NE(0, scanner.setValues(ICAP_BRIGHTNESS, 3, values));
    ASSERT_NE(0, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ENUMERATION));
    module->brightnessStep = 2.0;
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    EXPECT_EQ(-50.0, module->brightnessMin);
    EXPECT_EQ(50.0, module->brightnessMax);
    EXPECT_EQ(2.0, module->brightnessStep) << "an enumeration leaves the step as it was";
    module->CloseDS();
}

} // namespace

// --- Negotiation: the remembered mechanism, the bit depth (which has no export) and the brightness range, with the
// scanner's controls.

namespace {

class NegotiationWhiteBoxTest : public SessionWhiteBoxTest {
protected:
    void SetUp() override {
        SessionWhiteBoxTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_TRUE(scanner.Load(WindowsDir() + "\\twain_32\\vscan.ds"));
        scanner.reset();
    }
    void TearDown() override {
        SessionWhiteBoxTest::TearDown();
        scanner.Free();
    }
    // The capability calls of `cap` logged after the first `from` calls, as "msg -> rc".
    std::vector<std::string> Messages(size_t from, TW_UINT16 cap) const {
        std::vector<std::string> out;
        const std::vector<TdsmCall> calls = dsm.Calls();
        for (size_t i = from; i < calls.size(); ++i)
            if (calls[i].dat == DAT_CAPABILITY && calls[i].capIn.cap == cap)
                out.push_back(std::to_string(calls[i].msg) + " -> " + TwrcName(calls[i].rc));
        return out;
    }

    VscanLibrary scanner;
};

TEST_F(NegotiationWhiteBoxTest, MechanismSetWithAnArrayOrARangeIsMemory) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    for (TW_UINT16 conType : {TWON_ARRAY, TWON_RANGE}) {
        SCOPED_TRACE(conType);
        ASSERT_EQ(TWRC_SUCCESS, SetMechanism(TWON_ONEVALUE, TWSX_FILE));
        ASSERT_EQ(kMechFile, module->transferMechanism);
        // The source refuses such a set; the manager answers for it.
        script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_SUCCESS, TWCC_SUCCESS);
        TW_CAPABILITY capability = {ICAP_XFERMECH, TWON_ONEVALUE, nullptr};
        const TW_UINT16 native[] = {TWSX_NATIVE};
        ASSERT_EQ(0, BuildupArray(&capability, TWTY_UINT16, 1, native));
        capability.ConType = conType;
        EXPECT_EQ(TWRC_SUCCESS, module->CapNegotiate(MSG_SET, &capability));
        GlobalFree(capability.hContainer);
        EXPECT_EQ(kMechMemory, module->transferMechanism) << "the native item inside is not read";
    }
}

TEST_F(NegotiationWhiteBoxTest, BitDepthIsTheCurrentValueFirstAndTheLargestItemAsAnUnsignedNumber) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    // 40000 read as a TW_FIX32 would have the whole part -25536.
    const double depths[] = {8, 40000, 16};
    ASSERT_NE(0, scanner.setValues(ICAP_BITDEPTH, 3, depths));
    ASSERT_NE(0, scanner.setContainer(ICAP_BITDEPTH, MSG_GETCURRENT, TWON_ENUMERATION));
    size_t mark = dsm.Calls().size();
    LONG depth = 0;
    LONG rc = module->Getbitdepth(&depth);
    EXPECT_EQ(0, rc) << TwccName(rc);
    EXPECT_EQ(40000, depth);
    EXPECT_EQ((std::vector<std::string>{"2 -> TWRC_SUCCESS"}), Messages(mark, ICAP_BITDEPTH));

    ASSERT_NE(0, scanner.setContainer(ICAP_BITDEPTH, MSG_GETCURRENT, TWON_ONEVALUE));
    mark = dsm.Calls().size();
    rc = module->Getbitdepth(&depth);
    EXPECT_EQ(0, rc) << TwccName(rc);
    const TdsmCall answer = dsm.Calls().back();
    ASSERT_EQ(TWON_ONEVALUE, answer.capOut.conType);
    EXPECT_EQ(static_cast<LONG>(answer.capOut.items[0]), depth) << "a one-value's item as it is";

    script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, TWRC_FAILURE, TWCC_DENIED);
    ASSERT_NE(0, scanner.setContainer(ICAP_BITDEPTH, MSG_GET, TWON_ENUMERATION));
    mark = dsm.Calls().size();
    rc = module->Getbitdepth(&depth);
    EXPECT_EQ(0, rc) << TwccName(rc);
    EXPECT_EQ(40000, depth) << "MSG_GET after a failed MSG_GETCURRENT";
    EXPECT_EQ((std::vector<std::string>{"2 -> TWRC_FAILURE", "1 -> TWRC_SUCCESS"}), Messages(mark, ICAP_BITDEPTH));

    for (TW_UINT16 msg : {MSG_GET, MSG_GETCURRENT})
        ASSERT_NE(0, scanner.setContainer(ICAP_BITDEPTH, msg, TWON_RANGE));
    mark = dsm.Calls().size();
    rc = module->Getbitdepth(&depth);
    EXPECT_EQ(TWCC_BADVALUE, rc) << TwccName(rc) << ": a range is refused";
    EXPECT_EQ(0, depth);
    EXPECT_EQ((std::vector<std::string>{"2 -> TWRC_SUCCESS", "1 -> TWRC_SUCCESS"}), Messages(mark, ICAP_BITDEPTH));
}

// Only the low word of the message is sent: 0x00010006 sets the mechanism as MSG_SET does.
TEST_F(NegotiationWhiteBoxTest, MechanismSetWithAMessageInALongWordIsRemembered) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    ASSERT_EQ(kMechMemory, module->transferMechanism);
    TW_CAPABILITY capability = {ICAP_XFERMECH, TWON_ONEVALUE, nullptr};
    ASSERT_EQ(0, BuildupOneValue(&capability, TWTY_UINT16, TWSX_FILE));
    const size_t mark = dsm.Calls().size();
    EXPECT_EQ(TWRC_SUCCESS, module->CapNegotiate(0x00010000 | MSG_SET, &capability));
    GlobalFree(capability.hContainer);
    EXPECT_EQ((std::vector<std::string>{"6 -> TWRC_SUCCESS"}), Messages(mark, ICAP_XFERMECH));
    EXPECT_EQ(kMechFile, module->transferMechanism);
}

// Both messages refused at the source: the status of the second failure, and 0 for the depth.
TEST_F(NegotiationWhiteBoxTest, BitDepthNotReadGivesTheLastConditionCodeAndZero) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, ICAP_BITDEPTH, TWRC_FAILURE, TWCC_CAPSEQERROR, 1,
                        0);
    scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_BITDEPTH, TWRC_FAILURE, TWCC_DENIED, 1, 0);
    const size_t mark = dsm.Calls().size();
    LONG depth = 77;
    const LONG rc = module->Getbitdepth(&depth);
    EXPECT_EQ(TWCC_DENIED, rc) << TwccName(rc);
    EXPECT_EQ(0, depth);
    EXPECT_EQ((std::vector<std::string>{"2 -> TWRC_FAILURE", "1 -> TWRC_FAILURE"}), Messages(mark, ICAP_BITDEPTH));
}

// The brightness query with no source open: 11, nothing sent, the range kept as it was.
TEST_F(NegotiationWhiteBoxTest, BrightnessRangeWithoutAnOpenSourceKeepsTheRange) {
    module->brightnessMin = -5.0;
    module->brightnessMax = 5.0;
    module->brightnessStep = 0.5;
    const size_t before = dsm.Calls().size();
    const LONG rc = module->GetDSBrightnessRange();
    EXPECT_EQ(TWCC_SEQERROR, rc) << TwccName(rc);
    EXPECT_EQ(before, dsm.Calls().size()) << "nothing sent";
    EXPECT_EQ(-5.0, module->brightnessMin);
    EXPECT_EQ(5.0, module->brightnessMax);
    EXPECT_EQ(0.5, module->brightnessStep);
}

// Containers the query does not accept: 10 when both messages are answered so, 0 when MSG_GETCURRENT's one-value is
// taken; the range is kept either way.
TEST_F(NegotiationWhiteBoxTest, BrightnessRangeRefusingAnArrayKeepsTheRange) {
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    const struct {
        TW_UINT16 current; // the container of MSG_GETCURRENT
        LONG result;
    } cases[] = {{TWON_ARRAY, TWCC_BADVALUE}, {TWON_ONEVALUE, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.current);
        ASSERT_NE(0, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GET, TWON_ARRAY));
        ASSERT_NE(0, scanner.setContainer(ICAP_BRIGHTNESS, MSG_GETCURRENT, c.current));
        module->brightnessMin = -5.0;
        module->brightnessMax = 5.0;
        module->brightnessStep = 0.5;
        const size_t mark = dsm.Calls().size();
        const LONG rc = module->GetDSBrightnessRange();
        EXPECT_EQ(c.result, rc) << TwccName(rc);
        EXPECT_EQ((std::vector<std::string>{"1 -> TWRC_SUCCESS", "2 -> TWRC_SUCCESS"}),
                  Messages(mark, ICAP_BRIGHTNESS));
        EXPECT_EQ(-5.0, module->brightnessMin);
        EXPECT_EQ(5.0, module->brightnessMax);
        EXPECT_EQ(0.5, module->brightnessStep);
    }
}

TEST_F(NegotiationWhiteBoxTest, BrightnessRangeOfTheSourceIsLearntWithItsStep) {
    // A range -100..100 with a step of 1: the smallest gap of the values is the step the scanner answers.
    const double values[] = {-100.0, -99.0, 0.0, 100.0};
    ASSERT_NE(0, scanner.setValues(ICAP_BRIGHTNESS, 4, values));
    module->brightnessStep = 5.0;
    ASSERT_EQ(0, module->OpenDS(window, "White box"));
    EXPECT_EQ(-100.0, module->brightnessMin);
    EXPECT_EQ(100.0, module->brightnessMax);
    EXPECT_EQ(1.0, module->brightnessStep);
    short value = 0;
    ASSERT_EQ(0, module->SetBrightness(128, 0, 255));
    const LONG rc = module->GetBrightness(&value, 0, 255);
    EXPECT_EQ(0, rc) << TwccName(rc);
    EXPECT_EQ(128, value) << "128 of 0..255 is 0.0 at the source, and 0.0 reads back as 128";
}

} // namespace

// --- Negotiation without the source manager: the brightness query returns to the module's own range.

namespace {

class NegotiationWithoutManagerWhiteBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Absent);
        WriteDebugIni(1, 1);
        viewer.Start();
        module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr));
        viewer.Clear();
    }
    void TearDown() override {
        module.reset();
        viewer.Stop();
        // The trace keeps its composer after shut-down; nothing of this program traces afterwards.
        traceStream = nullptr;
        traceDepth = 0;
    }

    TraceViewer viewer;
    std::unique_ptr<TScanModule> module;
};

TEST_F(NegotiationWithoutManagerWhiteBoxTest, BrightnessRangeIsResetToTheModulesOwn) {
    module->brightnessMin = -5.0;
    module->brightnessMax = 5.0;
    module->brightnessStep = 0.5;
    const LONG rc = module->GetDSBrightnessRange();
    EXPECT_EQ(-1, rc);
    EXPECT_EQ(-1000.0, module->brightnessMin);
    EXPECT_EQ(1000.0, module->brightnessMax);
    EXPECT_EQ(1.0, module->brightnessStep);
    const TraceLine *entry = nullptr, *warning = nullptr;
    for (const TraceLine &record : viewer.Records()) {
        if (record.text == "Coming TScanModule::GetDSBrightnessRange")
            entry = &record;
        if (record.text == "TWAIN is not available in TScanModule::GetDSBrightnessRange")
            warning = &record;
    }
    ASSERT_NE(nullptr, entry);
    ASSERT_NE(nullptr, warning);
    EXPECT_EQ("Warning", warning->level);
    EXPECT_EQ("F:\\smkernal\\Sm_3.cpp", warning->source);
    EXPECT_EQ(entry->line, warning->line) << "the gate writes on the query's own line";
}

} // namespace
