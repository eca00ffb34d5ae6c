// The session state machine against the stand-in source manager: every state-table row, its records and triplets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "SessionTest.h"

using namespace smtest;

namespace {

const std::string kOpenDs = "DG_CONTROL/DAT_IDENTITY/MSG_OPENDS -> TWRC_SUCCESS";
const std::string kCloseDs = "DG_CONTROL/DAT_IDENTITY/MSG_CLOSEDS -> TWRC_SUCCESS";
const std::string kEnableDs = "DG_CONTROL/DAT_USERINTERFACE/MSG_ENABLEDS -> TWRC_SUCCESS";
const std::string kDisableDs = "DG_CONTROL/DAT_USERINTERFACE/MSG_DISABLEDS -> TWRC_SUCCESS";
const std::string kUserSelect = "DG_CONTROL/DAT_IDENTITY/MSG_USERSELECT -> TWRC_SUCCESS";
// Opening a source ends with the query of its brightness range.
const std::string kBrightnessRange = "DG_CONTROL/DAT_CAPABILITY/MSG_GET -> TWRC_SUCCESS";

using Strings = std::vector<std::string>;

TW_USERINTERFACE UserInterfaceOf(const TdsmCall &call) {
    TW_USERINTERFACE ui;
    std::memcpy(&ui, call.dataIn, sizeof ui);
    return ui;
}

class SessionStateTest : public SessionTest {
protected:
    // Line of the first record with this text, 0 when there is none.
    int LineOf(const std::string &text) const {
        for (const TraceLine &record : viewer.Records())
            if (record.text == text)
                return record.line;
        return 0;
    }
};

// OpenDS in state 2: source manager opened with the window handle by address, default source opened.
TEST_F(SessionStateTest, OpenDSFromStateTwoOpensTheDefaultSource) {
    EXPECT_EQ(SM_OK, openDS(window, "My Application"));
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, kOpenDs, kBrightnessRange}), Triplets());
    EXPECT_EQ(ICAP_BRIGHTNESS, CallsSinceMark()[3].capIn.cap);
    EXPECT_EQ(window, script.parentWindow()) << "MSG_OPENDSM carries the address of the window handle";
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    EXPECT_EQ(1, script.openSourceCount());
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_STREQ("My Application", calls[0].originName);
    TW_IDENTITY opened;
    std::memcpy(&opened, calls[2].dataOut, sizeof opened);
    EXPECT_STREQ("Virtual Scanner", opened.ProductName);
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(SessionStateTest, OperationErrorOfTheBrightnessQueryClosesTheSourceAgain) {
    script.failEx(DG_CONTROL, DAT_CAPABILITY, TDSM_ANY, TWRC_FAILURE, TWCC_OPERATIONERROR, 1, 2);
    EXPECT_EQ(TWCC_OPERATIONERROR, openDS(window, "Session test")) << TwccName(TWCC_OPERATIONERROR);
    const std::string getCurrent = "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT -> TWRC_FAILURE";
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, kOpenDs, Failed(kBrightnessRange), kStatus, getCurrent, kStatus, kCloseDs,
                       kCloseDsm}),
              Triplets());
    EXPECT_EQ(0, script.openSourceCount());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    EXPECT_EQ((Strings{"CapNegotiate returns failure in TScanModule::GetDSBrightnessRange",
                       "CapNegotiate returns failure in TScanModule::GetDSBrightnessRange"}),
              Warnings());
}

TEST_F(SessionStateTest, OpenDSInStateFourSendsNothing) {
    Open();
    EXPECT_EQ(SM_OK, openDS(window, "Again"));
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"DS is already open in TScanModule::OpenDS"}), Warnings());
    EXPECT_EQ(4, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, OpenDSInStateFiveIsRefusedButRenamesTheApplication) {
    Enable();
    EXPECT_EQ(SM_ERR_SEQUENCE, openDS(window, "Renamed"));
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::OpenDSM", "OpenDSM returns failure in TScanModule::OpenDS"}),
              Warnings());
    EXPECT_EQ(SM_OK, disableDS());
    const std::vector<TdsmCall> calls = CallsSinceMark();
    ASSERT_EQ(1u, calls.size());
    EXPECT_STREQ("Renamed", calls[0].originName);
}

TEST_F(SessionStateTest, OpenDSWithoutWindowUsesTheDesktop) {
    EXPECT_EQ(SM_OK, openDS(nullptr, "No window"));
    EXPECT_EQ(GetDesktopWindow(), script.parentWindow());
    EXPECT_EQ((Strings{"Invalid parent window handle in TScanModule::OpenDS"}), Warnings());
    Mark();
    EXPECT_EQ(SM_OK, enableDS(FALSE, TRUE));
    const std::vector<TdsmCall> calls = CallsSinceMark();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(GetDesktopWindow(), UserInterfaceOf(calls[0]).hParent);
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_TRUE(IsWindowEnabled(GetDesktopWindow()));
}

TEST_F(SessionStateTest, ModalEnableWithoutWindowDisablesTheDesktop) {
    EnableWindow(GetDesktopWindow(), FALSE);
    const bool desktopCanBeDisabled = !IsWindowEnabled(GetDesktopWindow());
    EnableWindow(GetDesktopWindow(), TRUE);
    if (!desktopCanBeDisabled)
        GTEST_SKIP() << "Wine keeps its desktop window, owned by its explorer process, always enabled";
    ASSERT_EQ(SM_OK, openDS(nullptr, "No window"));
    EXPECT_EQ(SM_OK, enableDS(FALSE, TRUE));
    EXPECT_FALSE(IsWindowEnabled(GetDesktopWindow())) << "a modal interface disables the desktop";
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_TRUE(IsWindowEnabled(GetDesktopWindow()));
}

TEST_F(SessionStateTest, OpenDSWithoutTitleUsesTheModuleName) {
    EXPECT_EQ(SM_OK, openDS(window, nullptr));
    EXPECT_STREQ("Calvex Scan Module", CallsSinceMark()[0].originName);
}

TEST_F(SessionStateTest, OverlongTitleIsCutToTheIdentityField) {
    const std::string title(100, 't');
    EXPECT_EQ(SM_OK, openDS(window, title.c_str()));
    EXPECT_EQ(std::string(33, 't'), std::string(CallsSinceMark()[0].originName));
}

TEST_F(SessionStateTest, FailedSourceOpenClosesTheSourceManagerAgain) {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, TWRC_FAILURE, TWCC_NODS);
    EXPECT_EQ(TWCC_NODS, openDS(window, "Session test")) << TwccName(TWCC_NODS);
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, Failed(kOpenDs), kStatus, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith()) << "closed with the parent window";
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::OpenDS"}), Warnings());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    EXPECT_EQ(0, script.openSourceCount());
}

TEST_F(SessionStateTest, FailedManagerOpenReturnsItsConditionCode) {
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, TWRC_FAILURE, TWCC_LOWMEMORY);
    EXPECT_EQ(TWCC_LOWMEMORY, openDS(window, "Session test"));
    EXPECT_EQ((Strings{Failed(kOpenDsm), kStatus}), Triplets());
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::OpenDSM",
                       "OpenDSM returns failure in TScanModule::OpenDS"}),
              Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, OpenDSMInStateThreeSendsNoSecondOpen) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_OK, openDS(window, "Session test"));
    EXPECT_EQ((Strings{kGetDefault, kOpenDs, kBrightnessRange}), Triplets());
    EXPECT_EQ((Strings{"Data Source Manager is already open in TScanModule::OpenDSM"}), Warnings());
}

TEST_F(SessionStateTest, EnableDSInStateFourSendsTheUserInterface) {
    Open();
    EXPECT_EQ(SM_OK, enableDS(0x10001, FALSE));
    EXPECT_EQ((Strings{kEnableDs}), Triplets());
    const TW_USERINTERFACE ui = UserInterfaceOf(CallsSinceMark()[0]);
    EXPECT_EQ(1, ui.ShowUI) << "the low 16 bits of the flag";
    EXPECT_EQ(0, ui.ModalUI);
    EXPECT_EQ(window, ui.hParent);
    EXPECT_TRUE(IsWindowEnabled(window)) << "a modeless interface leaves the parent enabled";
}

TEST_F(SessionStateTest, EnableDSInStateFiveSendsNothing) {
    Enable();
    EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE));
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"DS is already enabled in TScanModule::EnableDS"}), Warnings());
    EXPECT_EQ(5, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, EnableDSWithoutSourceIsASequenceError) {
    EXPECT_EQ(SM_ERR_SEQUENCE, enableDS(FALSE, FALSE)) << TwccName(SM_ERR_SEQUENCE);
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::EnableDS"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, EnableDSWithOnlyTheManagerOpenIsASequenceError) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_ERR_SEQUENCE, enableDS(FALSE, FALSE)) << TwccName(SM_ERR_SEQUENCE);
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::EnableDS"}), Warnings());
    EXPECT_EQ(3, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, ModalEnableDisablesTheParentUntilDisable) {
    Open();
    EXPECT_EQ(SM_OK, enableDS(FALSE, TRUE));
    EXPECT_FALSE(IsWindowEnabled(window));
    const Strings notes = viewer.Texts("Trace");
    EXPECT_NE(notes.end(), std::find(notes.begin(), notes.end(), "To disable parent window in TScanModule::EnableDS"));
    EXPECT_NE(notes.end(), std::find(notes.begin(), notes.end(), "Disable parent window OK in TScanModule::EnableDS"));
    EXPECT_EQ(1, UserInterfaceOf(CallsSinceMark()[0]).ModalUI);
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_TRUE(IsWindowEnabled(window));
}

TEST_F(SessionStateTest, CheckStatusOnEnableCountsAsSuccess) {
    Open();
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_CHECKSTATUS, TWCC_SUCCESS);
    ScopeExit settle([this] { DisableInTheSourcesPlace(); });
    EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE));
    EXPECT_EQ((Strings{"DSM_Entry returns check condition in TScanModule::EnableDS"}), Warnings());
    Reset();
    EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE)) << "the module is in state 5 now";
    EXPECT_EQ((Strings{"DS is already enabled in TScanModule::EnableDS"}), Warnings());
}

TEST_F(SessionStateTest, FailedEnableEnablesTheParentAgain) {
    Open();
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_FAILURE, TWCC_OPERATIONERROR);
    EXPECT_EQ(TWCC_OPERATIONERROR, enableDS(FALSE, TRUE));
    EXPECT_TRUE(IsWindowEnabled(window));
    EXPECT_EQ((Strings{Failed(kEnableDs), kStatus}), Triplets());
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::EnableDS"}), Warnings());
    Reset();
    EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE)) << "still in state 4";
    EXPECT_EQ((Strings{kEnableDs}), Triplets());
}

TEST_F(SessionStateTest, DisableDSInStateFiveSendsTheDisable) {
    Enable();
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_EQ((Strings{kDisableDs}), Triplets());
    const TW_USERINTERFACE ui = UserInterfaceOf(CallsSinceMark()[0]);
    EXPECT_EQ(0, ui.ShowUI);
    EXPECT_EQ(1, ui.ModalUI);
    EXPECT_EQ(window, ui.hParent);
}

TEST_F(SessionStateTest, DisableDSWritesOnlyItsExitRecord) {
    Enable();
    disableDS();
    const Strings traces = viewer.Texts("Trace");
    EXPECT_EQ(traces.end(), std::find(traces.begin(), traces.end(), "Coming TScanModule::DisableDS"));
    ASSERT_FALSE(viewer.Records().empty());
    EXPECT_EQ("Leaving TScanModule::DisableDS", viewer.Records().back().text);
    EXPECT_EQ(620, viewer.Records().back().line);
    EXPECT_EQ("F:\\smkernal\\Sm_2.cpp", viewer.Records().back().source);
    // The depth dropped below zero: the next outermost call opens without separators.
    viewer.Clear();
    closeDS();
    ASSERT_FALSE(viewer.Records().empty());
    EXPECT_EQ("Coming TScanModule::CloseDS", viewer.Records()[0].text);
}

TEST_F(SessionStateTest, DisableDSInStateFourSendsNothing) {
    Open();
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"DS is already disabled in TScanModule::DisableDS"}), Warnings());
    EXPECT_EQ(4, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, DisableDSWithoutSourceIsASequenceError) {
    EXPECT_EQ(SM_ERR_SEQUENCE, disableDS());
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::DisableDS"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, DisableDSWithOnlyTheManagerOpenIsASequenceError) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_ERR_SEQUENCE, disableDS()) << TwccName(SM_ERR_SEQUENCE);
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::DisableDS"}), Warnings());
    EXPECT_EQ(3, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, FailedDisableKeepsTheSourceEnabled) {
    Enable();
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, TWRC_FAILURE, TWCC_BUMMER);
    EXPECT_EQ(TWCC_BUMMER, disableDS());
    EXPECT_EQ((Strings{Failed(kDisableDs), kStatus}), Triplets());
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::DisableDS"}), Warnings());
    Reset();
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_EQ((Strings{kDisableDs}), Triplets()) << "still in state 5";
}

TEST_F(SessionStateTest, CloseDSInStateFourClosesSourceAndManager) {
    Open();
    EXPECT_EQ(SM_OK, closeDS());
    EXPECT_EQ((Strings{kCloseDs, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith()) << "closed with the parent window";
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    EXPECT_EQ(0, script.openSourceCount());
    EXPECT_TRUE(Warnings().empty());
    Reset();
    EXPECT_EQ(SM_ERR_SEQUENCE, closeDS()) << "state 2 now";
}

TEST_F(SessionStateTest, CloseDSInStateThreeClosesTheManager) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_OK, closeDS());
    EXPECT_EQ((Strings{kCloseDsm}), Triplets());
    EXPECT_EQ((Strings{"DS is already closed in TScanModule::CloseDS"}), Warnings());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
}

TEST_F(SessionStateTest, CloseDSInStateFiveIsASequenceError) {
    Enable();
    EXPECT_EQ(SM_ERR_SEQUENCE, closeDS());
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::CloseDS"}), Warnings());
    EXPECT_EQ(5, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, CloseDSInStateTwoIsASequenceError) {
    EXPECT_EQ(SM_ERR_SEQUENCE, closeDS());
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"Sequence error in TScanModule::CloseDS"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

TEST_F(SessionStateTest, FailedSourceCloseKeepsEverythingOpen) {
    Open();
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, TWRC_FAILURE, TWCC_SEQERROR);
    EXPECT_EQ(TWCC_SEQERROR, closeDS());
    EXPECT_EQ((Strings{Failed(kCloseDs), kStatus}), Triplets());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    EXPECT_EQ(1, script.openSourceCount());
    Reset();
    EXPECT_EQ(SM_OK, closeDS()) << "still in state 4";
    EXPECT_EQ((Strings{kCloseDs, kCloseDsm}), Triplets());
}

// The source is closed and forgotten even when the source manager then refuses to close: the session stays in 3.
TEST_F(SessionStateTest, FailedManagerCloseInsideCloseDSStillForgetsTheSource) {
    Open();
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, TWRC_FAILURE, TWCC_SEQERROR);
    EXPECT_EQ(SM_OK, closeDS());
    EXPECT_EQ((Strings{kCloseDs, Failed(kCloseDsm), Failed(kStatus)}), Triplets());
    EXPECT_EQ(0, script.openSourceCount());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    // In state 3 a further close asks only the source manager; its failure's status query shows the
    // source's identity zeroed.
    Reset();
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, TWRC_FAILURE, TWCC_SEQERROR);
    EXPECT_EQ(SM_OK, closeDS());
    EXPECT_EQ(
        (Strings{"DS is already closed in TScanModule::CloseDS", "DSM_Entry returns failure in TScanModule::CloseDSM"}),
        Warnings());
    const std::vector<TdsmCall> calls = CallsSinceMark();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(DAT_STATUS, calls[1].dat);
    EXPECT_EQ(1, calls[1].hasDest);
    EXPECT_STREQ("", calls[1].destName);
    EXPECT_EQ(0u, calls[1].destId);
    EXPECT_EQ(3, StateFoundByOpenDS());
}

// "DG_CONTROL/DAT_PARENT/MSG_OPENDSM -> TWRC_SUCCESS to nobody" or "... to 'Virtual Scanner'", per call.
Strings Addressees(const std::vector<TdsmCall> &calls) {
    Strings out;
    for (const TdsmCall &call : calls)
        out.push_back(Describe(call) + " to " + (call.hasDest ? "'" + std::string(call.destName) + "'" : "nobody"));
    return out;
}

// The source manager's own triplets (DAT_PARENT, DAT_IDENTITY) have no destination; the source's (the user
// interface, the status and the brightness query) go to the source's identity, zeroed before any source is chosen.
TEST_F(SessionStateTest, SourceCallsAreAddressedToTheSourceAndManagerCallsToNobody) {
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, TWRC_FAILURE, TWCC_LOWMEMORY);
    EXPECT_EQ(TWCC_LOWMEMORY, openDS(window, "Session test"));
    EXPECT_EQ(SM_OK, openDS(window, "Session test"));
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_FAILURE, TWCC_BUMMER);
    EXPECT_EQ(TWCC_BUMMER, enableDS(FALSE, FALSE));
    EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE));
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_EQ(SM_OK, closeDS());
    const std::string nobody = " to nobody";
    const std::string source = " to 'Virtual Scanner'";
    EXPECT_EQ((Strings{Failed(kOpenDsm) + nobody, kStatus + " to ''", kOpenDsm + nobody, kGetDefault + nobody,
                       kOpenDs + nobody, kBrightnessRange + source, Failed(kEnableDs) + source, kStatus + source,
                       kEnableDs + source, kDisableDs + source, kCloseDs + nobody, kCloseDsm + nobody}),
              Addressees(CallsSinceMark()));
}

TEST_F(SessionStateTest, FailedStatusQueryReportsBummer) {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, TWRC_FAILURE, TWCC_NODS);
    script.failOnce(DG_CONTROL, DAT_STATUS, MSG_GET, TWRC_FAILURE, TWCC_SUCCESS);
    EXPECT_EQ(TWCC_BUMMER, openDS(window, "Session test"));
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::OpenDS",
                       "DSM_Entry returns failure in TScanModule::GetTWAINStatusCode"}),
              Warnings());
}

TEST_F(SessionStateTest, SessionCanBeRepeated) {
    for (int round = 0; round < 2; ++round) {
        Reset();
        EXPECT_EQ(SM_OK, openDS(window, "Session test"));
        EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE));
        EXPECT_EQ(SM_OK, disableDS());
        EXPECT_EQ(SM_OK, closeDS());
        EXPECT_EQ(
            (Strings{kOpenDsm, kGetDefault, kOpenDs, kBrightnessRange, kEnableDs, kDisableDs, kCloseDs, kCloseDsm}),
            Triplets());
        EXPECT_TRUE(Warnings().empty());
    }
}

class SelectTest : public SessionStateTest {};

TEST_F(SelectTest, ChosenSourceBecomesTheDefaultAndTheManagerIsClosed) {
    script.selectByName("Virtual Scanner");
    EXPECT_EQ(SM_OK, selectDS(window));
    EXPECT_EQ((Strings{kOpenDsm, kUserSelect, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith());
    EXPECT_EQ(1, script.userSelectCount());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    TW_IDENTITY chosen;
    std::memcpy(&chosen, CallsSinceMark()[1].dataOut, sizeof chosen);
    EXPECT_STREQ("Virtual Scanner", chosen.ProductName);
}

TEST_F(SelectTest, CancelledSelectionReturnsMinusSix) {
    script.selectCancel();
    EXPECT_EQ(SM_ERR_USER_CANCEL, selectDS(window));
    EXPECT_EQ((Strings{kOpenDsm, Failed(kUserSelect, "TWRC_CANCEL"), kCloseDsm}), Triplets());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(SelectTest, NullWindowMeansTheDesktop) {
    EXPECT_EQ(SM_OK, selectDS(nullptr));
    EXPECT_EQ(GetDesktopWindow(), script.parentWindow());
    EXPECT_EQ(std::vector<HWND>{GetDesktopWindow()}, ManagerClosedWith());
    EXPECT_EQ((Strings{"Invalid parent window handle in TScanModule::SelectDS"}), Warnings());
}

TEST_F(SelectTest, FailedSelectionReturnsTheConditionCode) {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_USERSELECT, TWRC_FAILURE, TWCC_NODS);
    EXPECT_EQ(TWCC_NODS, selectDS(window));
    EXPECT_EQ((Strings{kOpenDsm, Failed(kUserSelect), kStatus, kCloseDsm}), Triplets());
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::SelectDS"}), Warnings());
}

TEST_F(SelectTest, SelectionWithTheManagerOpenClosesItAfterwards) {
    LeaveManagerOpen();
    script.selectByName("Virtual Scanner");
    EXPECT_EQ(SM_OK, selectDS(window));
    EXPECT_EQ((Strings{kUserSelect, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith());
    EXPECT_EQ((Strings{"Data Source Manager is already open in TScanModule::OpenDSM"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

// Whether the user chose or cancelled, a source manager that refuses to close changes no result; it stays open.
TEST_F(SelectTest, FailedManagerCloseAfterTheDialogIsIgnored) {
    const std::pair<bool, LONG> rounds[] = {{false, SM_OK}, {true, SM_ERR_USER_CANCEL}};
    for (const auto &[cancel, expected] : rounds) {
        SCOPED_TRACE(cancel ? "cancelled" : "chosen");
        if (cancel)
            script.selectCancel();
        else
            script.selectByName("Virtual Scanner");
        script.failOnce(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, TWRC_FAILURE, TWCC_BUMMER);
        Reset();
        EXPECT_EQ(expected, selectDS(window));
        const std::string select = cancel ? Failed(kUserSelect, "TWRC_CANCEL") : kUserSelect;
        EXPECT_EQ((Strings{kOpenDsm, select, Failed(kCloseDsm), kStatus}), Triplets());
        EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::CloseDSM"}), Warnings());
        EXPECT_EQ(3, StateFoundByOpenDS());
        // Back to state 2 for the next round.
        EXPECT_EQ(SM_OK, closeDS());
    }
}

TEST_F(SelectTest, SelectionWhileASourceIsOpenIsRefused) {
    Open();
    EXPECT_EQ(SM_ERR_SEQUENCE, selectDS(window));
    EXPECT_TRUE(Triplets().empty());
    // The refused open returns at once: nothing is closed.
    EXPECT_EQ((Strings{"Sequence error in TScanModule::OpenDSM", "OpenDSM returns failure in TScanModule::SelectDS"}),
              Warnings());
    EXPECT_EQ(1, script.openSourceCount());
}

// The [DS] section of a profile file, key=value in file order (the order the keys were written).
Strings SectionOf(const std::string &path) {
    char buffer[4096] = {};
    GetPrivateProfileSectionA("DS", buffer, sizeof buffer, path.c_str());
    Strings out;
    for (const char *entry = buffer; *entry; entry += std::strlen(entry) + 1)
        out.emplace_back(entry);
    return out;
}

class ListTest : public SessionStateTest {
protected:
    void SetUp() override {
        SessionStateTest::SetUp();
        path = BinDir() + "\\sources.ini";
        WritePrivateProfileStringA(nullptr, nullptr, nullptr, path.c_str());
        DeleteFileA(path.c_str());
    }
    void TearDown() override {
        WritePrivateProfileStringA(nullptr, nullptr, nullptr, path.c_str());
        DeleteFileA(path.c_str());
        SessionStateTest::TearDown();
    }
    // Three sources with their own files, Bravo the default through win.ini.
    void ThreeSources() {
        script.clearSources();
        const char *names[] = {"Alpha", "Bravo", "Charlie"};
        for (const char *name : names) {
            const std::string file = InstallVirtualScanner(std::string("twain_32\\") + name + ".ds");
            script.addSource(name, file.c_str());
        }
        WriteProfileStringA("Twain", "Default Source", (WindowsDir() + "\\twain_32\\Bravo.ds").c_str());
    }
    std::string path;
};

TEST_F(ListTest, ThreeSourcesAndTheDefaultAreWrittenInOrder) {
    ThreeSources();
    Mark();
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    EXPECT_EQ((Strings{"name1=Alpha", "name2=Bravo", "name3=Charlie", "name0=Bravo", "count=3"}), SectionOf(path));
    EXPECT_EQ((Strings{kOpenDsm, "DG_CONTROL/DAT_IDENTITY/MSG_GETFIRST -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_IDENTITY/MSG_GETNEXT -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_IDENTITY/MSG_GETNEXT -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_IDENTITY/MSG_GETNEXT -> TWRC_ENDOFLIST", kGetDefault, kCloseDsm}),
              Triplets());
    EXPECT_EQ(GetDesktopWindow(), script.parentWindow()) << "the listing uses the desktop window";
    EXPECT_EQ(std::vector<HWND>{GetDesktopWindow()}, ManagerClosedWith());
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(ListTest, KeysOfALongerEarlierListSurvive) {
    for (int i = 1; i <= 5; ++i)
        WritePrivateProfileStringA("DS", ("name" + std::to_string(i)).c_str(), "Old", path.c_str());
    WritePrivateProfileStringA("DS", "count", "5", path.c_str());
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    EXPECT_EQ((Strings{"name1=Virtual Scanner", "name2=Old", "name3=Old", "name4=Old", "name5=Old", "count=1",
                       "name0=Virtual Scanner"}),
              SectionOf(path));
    EXPECT_TRUE(Warnings().empty());
}

TEST_F(ListTest, FailedStepInsideTheListIsWrittenToo) {
    ThreeSources();
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_GETNEXT, TWRC_FAILURE, TWCC_BUMMER);
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    const Strings section = SectionOf(path);
    // The failed step wrote the identity as it stood (Alpha), then Bravo and Charlie followed.
    EXPECT_EQ((Strings{"name1=Alpha", "name2=Alpha", "name3=Bravo", "name4=Charlie", "name0=Bravo", "count=4"}),
              section);
    EXPECT_TRUE(Warnings().empty()) << "a failed step is not reported";
}

TEST_F(ListTest, ListingWithTheManagerOpenClosesItAfterwards) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    EXPECT_EQ((Strings{"DG_CONTROL/DAT_IDENTITY/MSG_GETFIRST -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_IDENTITY/MSG_GETNEXT -> TWRC_ENDOFLIST", kGetDefault, kCloseDsm}),
              Triplets());
    EXPECT_EQ(std::vector<HWND>{GetDesktopWindow()}, ManagerClosedWith());
    EXPECT_EQ((Strings{"name1=Virtual Scanner", "name0=Virtual Scanner", "count=1"}), SectionOf(path));
    EXPECT_EQ((Strings{"Data Source Manager is already open in TScanModule::OpenDSM"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

// The application's product names, one per source-manager call since the last mark.
Strings OriginsOf(const std::vector<TdsmCall> &calls) {
    Strings names;
    for (const TdsmCall &call : calls)
        names.emplace_back(call.originName);
    return names;
}

TEST_F(ListTest, ApplicationIsTheScanModuleUntilOpenDSNamesIt) {
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    EXPECT_EQ(SM_OK, selectDS(window));
    const Strings before = OriginsOf(CallsSinceMark());
    ASSERT_EQ(8u, before.size()) << "listing: open, first, next, default, close; selection: open, select, close";
    EXPECT_EQ(Strings(before.size(), "Calvex Scan Module"), before);
    Reset();
    EXPECT_EQ(SM_OK, openDS(window, "Title"));
    EXPECT_EQ(SM_OK, closeDS());
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    const Strings after = OriginsOf(CallsSinceMark());
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(Strings(after.size(), "Title"), after) << "the title stays the application's name after the close";
}

TEST_F(ListTest, FailedFirstStepWritesCountZero) {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, TWRC_FAILURE, TWCC_NODS);
    EXPECT_EQ(SM_OK, getAllDS(path.c_str()));
    EXPECT_EQ((Strings{"count=0"}), SectionOf(path));
    EXPECT_EQ((Strings{"OpenDSM returns failure in TScanModule::SelectDS"}), Warnings());
    EXPECT_EQ(281, LineOf("OpenDSM returns failure in TScanModule::SelectDS"));
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
}

TEST_F(ListTest, FailedManagerOpenReturnsItsCode) {
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, TWRC_FAILURE, TWCC_LOWMEMORY);
    EXPECT_EQ(TWCC_LOWMEMORY, getAllDS(path.c_str())) << TwccName(TWCC_LOWMEMORY);
    // The source manager stayed closed: no MSG_CLOSEDSM follows.
    EXPECT_EQ((Strings{Failed(kOpenDsm), kStatus}), Triplets());
    EXPECT_EQ((Strings{"count=0"}), SectionOf(path));
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::OpenDSM",
                       "OpenDSM returns failure in TScanModule::SelectDS",
                       "Data Source Manager is already closed in TScanModule::CloseDSM"}),
              Warnings());
    EXPECT_EQ(269, LineOf("OpenDSM returns failure in TScanModule::SelectDS"));
}

TEST_F(ListTest, ListingWhileASourceIsOpenWritesCountZero) {
    Open();
    EXPECT_EQ(SM_ERR_SEQUENCE, getAllDS(path.c_str()));
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ((Strings{"count=0"}), SectionOf(path));
    EXPECT_EQ(1, script.openSourceCount());
}

TEST_F(ListTest, WithoutSourceManagerOnlyCountZeroIsWritten) {
    ReloadWithoutSourceManager();
    EXPECT_EQ(SM_ERR_UNAVAILABLE, getAllDS(path.c_str()));
    EXPECT_EQ((Strings{"count=0"}), SectionOf(path));
}

} // namespace
