// The stand-in source manager: open and close, states, the identity list, the win.ini default and user-select.
#include <gtest/gtest.h>

#include <cstring>

#include "DsmHarness.h"

using namespace smtest;

namespace {

constexpr TW_UINT16 kUnknownMessage = 0x7777;

// --- Opening and closing the manager -----------------------------------------------------------------------------

using TdsmManagerTest = DsmTest;

TEST_F(TdsmManagerTest, OpenDsmTakesTheWindowByAddressAndGivesTheApplicationAnId) {
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    EXPECT_NE(0u, app.Id) << "MSG_OPENDSM assigns the application's Id";
    EXPECT_EQ(window, dsm.Get<TdsmParentWindowProc>("TdsmParentWindow")());
    const std::vector<TdsmCall> calls = dsm.Calls();
    ASSERT_EQ(1u, calls.size());
    HWND logged;
    std::memcpy(&logged, calls[0].dataIn, sizeof logged);
    EXPECT_EQ(window, logged);
    EXPECT_EQ("Tdsm test app", std::string(calls[0].originName));
    EXPECT_FALSE(calls[0].hasDest);
}

TEST_F(TdsmManagerTest, OpenDsmRefusesAHandleByValueNullOrNoWindow) {
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, window));
    EXPECT_CC(TWCC_BADVALUE, Status());
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, nullptr));
    EXPECT_CC(TWCC_BADVALUE, Status());
    HWND notAWindow = reinterpret_cast<HWND>(static_cast<UINT_PTR>(0x7ff0));
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &notAWindow));
    EXPECT_CC(TWCC_BADVALUE, Status());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
}

TEST_F(TdsmManagerTest, NullOriginIsABadValue) {
    EXPECT_RC(TWRC_FAILURE, entry(nullptr, nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &window));
    EXPECT_CC(TWCC_BADVALUE, Status());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    TW_IDENTITY dest = IdentityNamed("x");
    EXPECT_RC(TWRC_FAILURE, entry(nullptr, &dest, DG_CONTROL, DAT_CAPABILITY, MSG_GET, nullptr));
}

TEST_F(TdsmManagerTest, TripletsBeforeOpenDsmAreSequenceErrors) {
    TW_IDENTITY identity = {};
    for (TW_UINT16 msg : {MSG_GETFIRST, MSG_GETNEXT, MSG_GETDEFAULT, MSG_USERSELECT, MSG_OPENDS, MSG_CLOSEDS}) {
        EXPECT_RC(TWRC_FAILURE, Identity(msg, &identity)) << "message " << msg;
        EXPECT_CC(TWCC_SEQERROR, Status()) << "message " << msg;
    }
    EXPECT_RC(TWRC_FAILURE, CloseDsm());
    EXPECT_CC(TWCC_SEQERROR, Status());
    TW_IDENTITY source = IdentityNamed("Any");
    source.Id = 1;
    TW_CAPABILITY cap = {CAP_XFERCOUNT, TWON_DONTCARE16, nullptr};
    EXPECT_RC(TWRC_FAILURE, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    EXPECT_CC(TWCC_SEQERROR, Status());
}

TEST_F(TdsmManagerTest, SecondOpenDsmIsASequenceError) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_RC(TWRC_FAILURE, OpenDsm());
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
}

TEST_F(TdsmManagerTest, CloseDsmGoesBackToLoadedButNotWhileASourceIsOpen) {
    PutSource("fake.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("fake");
    EXPECT_RC(TWRC_FAILURE, CloseDsm());
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
    EXPECT_RC(TWRC_SUCCESS, CloseDsm());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
    EXPECT_RC(TWRC_SUCCESS, OpenDsm()) << "the manager opens again after closing";
}

TEST_F(TdsmManagerTest, CloseDsmWithoutTheWindowIsABadValue) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, nullptr));
    EXPECT_CC(TWCC_BADVALUE, Status());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
}

TEST_F(TdsmManagerTest, UnknownManagerTripletIsABadProtocol) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_FAILURE, Identity(kUnknownMessage, &identity));
    EXPECT_CC(TWCC_BADPROTOCOL, Status());
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &identity));
    EXPECT_CC(TWCC_BADPROTOCOL, Status());
}

TEST_F(TdsmManagerTest, StatusReportsThePreviousCallAndKeepsIt) {
    EXPECT_RC(TWRC_FAILURE, CloseDsm());
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_CC(TWCC_SEQERROR, Status()) << "a status query leaves the code for the next one";
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_CC(TWCC_SUCCESS, Status());
    EXPECT_RC(TWRC_FAILURE, Entry(nullptr, DG_CONTROL, DAT_STATUS, MSG_GET, nullptr));
}

// --- The identity list --------------------------------------------------------------------------------------------

using TdsmIdentityTest = DsmTest;

TEST_F(TdsmIdentityTest, FirstNextAndEndOfListOverSourcesInSubdirectories) {
    PutSource("Zulu.ds");
    PutSource("vendor\\Bravo.ds");
    PutSource("vendor\\a\\Charlie.ds");
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETFIRST, &identity));
    EXPECT_EQ("Alpha", NameOf(identity));
    std::vector<std::string> names = {NameOf(identity)};
    TW_UINT16 rc;
    while ((rc = Identity(MSG_GETNEXT, &identity)) == TWRC_SUCCESS)
        names.push_back(NameOf(identity));
    EXPECT_RC(TWRC_ENDOFLIST, rc);
    // Sorted by full path: Alpha.ds, vendor\a\Charlie.ds, vendor\Bravo.ds, Zulu.ds.
    const std::vector<std::string> expected = {"Alpha", "Charlie", "Bravo", "Zulu"};
    EXPECT_EQ(expected, names);
    EXPECT_RC(TWRC_ENDOFLIST, Identity(MSG_GETNEXT, &identity)) << "the end stays the end";
    EXPECT_EQ(expected, ListNames()) << "MSG_GETFIRST starts over";
}

TEST_F(TdsmIdentityTest, ListedIdentitiesAreTheSourcesOwnWithoutAnId) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity;
    std::memset(&identity, 0xcc, sizeof identity);
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETFIRST, &identity));
    EXPECT_EQ(0u, identity.Id);
    EXPECT_STREQ("smkernal tests", identity.Manufacturer);
    EXPECT_STREQ("Fake source", identity.ProductFamily);
    EXPECT_STREQ("Alpha", identity.ProductName);
    EXPECT_EQ(TWON_PROTOCOLMAJOR, identity.ProtocolMajor);
    EXPECT_EQ(static_cast<TW_UINT32>(DG_CONTROL | DG_IMAGE), identity.SupportedGroups);
}

TEST_F(TdsmIdentityTest, FilesThatAreNoUsableSourceAreSkipped) {
    PutSource("Good.ds");
    PutNonSource("Text.ds");
    PutSource("NoEntry.ds", "fakeds_noentry.ds");
    PutSource("Other.dll");
    PutSource("sub\\Second.DS");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    const std::vector<std::string> expected = {"Good", "Second"};
    EXPECT_EQ(expected, ListNames());
    EXPECT_EQ(2, dsm.Get<TdsmSourceCountProc>("TdsmSourceCount")());
}

TEST_F(TdsmIdentityTest, SourceThatFailsOrGarblesItsIdentityIsSkipped) {
    const std::string failing = PutSource("Failing.ds");
    const std::string garbled = PutSource("Garbled.ds");
    PutSource("Fine.ds");
    FakeSource fail, garble;
    ASSERT_TRUE(fail.Attach(failing));
    ASSERT_TRUE(garble.Attach(garbled));
    fail.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_GET, TWRC_FAILURE, TWCC_BUMMER);
    garble.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_GET, kUnknownMessage, TWCC_SUCCESS);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_EQ(std::vector<std::string>{"Fine"}, ListNames());
    const std::vector<FakeDsCall> asked = fail.Calls();
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(0, asked[0].hasOrigin) << "the identity query before opening has no origin";
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_GET), asked[0].msg);
}

TEST_F(TdsmIdentityTest, NoSourcesAtAll) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    EXPECT_RC(TWRC_ENDOFLIST, Identity(MSG_GETNEXT, &identity));
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_USERSELECT, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &identity));
    EXPECT_CC(TWCC_NODS, Status());
}

TEST_F(TdsmIdentityTest, GetNextWithoutGetFirstIsTheEndOfTheList) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_ENDOFLIST, Identity(MSG_GETNEXT, &identity));
}

TEST_F(TdsmIdentityTest, NullIdentityIsABadValueForEveryIdentityMessage) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    for (TW_UINT16 msg : {MSG_GETFIRST, MSG_GETNEXT, MSG_GETDEFAULT, MSG_USERSELECT, MSG_OPENDS, MSG_CLOSEDS}) {
        EXPECT_RC(TWRC_FAILURE, Identity(msg, nullptr)) << "message " << msg;
        EXPECT_CC(TWCC_BADVALUE, Status()) << "message " << msg;
    }
    EXPECT_EQ(0, dsm.OpenSourceCount());
}

// --- The default source -------------------------------------------------------------------------------------------

using TdsmDefaultTest = DsmTest;

TEST_F(TdsmDefaultTest, WithoutAnEntryTheFirstSourceIsTheDefault) {
    PutSource("Bravo.ds");
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Alpha", NameOf(identity));
    EXPECT_EQ(0u, identity.Id);
}

TEST_F(TdsmDefaultTest, TheWinIniEntryNamesTheDefaultAndIsReadEveryTime) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("vendor\\Bravo.ds");
    const std::string charlie = PutSource("Charlie.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    SetDefaultSourceEntry(bravo);
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Bravo", NameOf(identity));
    SetDefaultSourceEntry(charlie);
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Charlie", NameOf(identity));
}

TEST_F(TdsmDefaultTest, TheEntryMatchesWhateverTheCaseAndSlashes) {
    PutSource("Alpha.ds");
    PutSource("vendor\\Bravo.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    SetDefaultSourceEntry(WindowsDir() + "/TWAIN_32/VENDOR/bravo.DS");
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Bravo", NameOf(identity));
    SetDefaultSourceEntry("twain_32\\vendor\\Bravo.ds");
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Bravo", NameOf(identity)) << "a relative entry is relative to the Windows directory";
}

TEST_F(TdsmDefaultTest, AnEntryNamingNoUsableSourceFallsBackToTheFirst) {
    PutSource("Alpha.ds");
    PutSource("Bravo.ds");
    const std::string text = PutNonSource("Text.ds");
    const std::string noEntry = PutSource("NoEntry.ds", "fakeds_noentry.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    for (const std::string &entry :
         {text, noEntry, TwainSourceDir() + "\\Missing.ds", std::string("garbage"), BinDir() + "\\fakeds.ds"}) {
        SetDefaultSourceEntry(entry);
        TW_IDENTITY identity = {};
        ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity)) << entry;
        EXPECT_EQ("Alpha", NameOf(identity)) << entry;
    }
}

TEST_F(TdsmDefaultTest, PointingTheEntryAtEachFileInTurnFindsEachSource) {
    const std::vector<std::pair<std::string, std::string>> sources = {
        {"One", PutSource("One.ds")}, {"Two", PutSource("a\\Two.ds")}, {"Three", PutSource("b\\c\\Three.ds")}};
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    for (const auto &source : sources) {
        SetDefaultSourceEntry(source.second);
        TW_IDENTITY identity = {};
        ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity)) << source.second;
        EXPECT_EQ(source.first, NameOf(identity)) << source.second;
    }
}

TEST_F(TdsmDefaultTest, OpenDsWithAnEmptyNameOpensTheDefault) {
    const std::string alpha = PutSource("Alpha.ds");
    const std::string bravo = PutSource("Bravo.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    SetDefaultSourceEntry(bravo);
    TW_IDENTITY opened = OpenSource("");
    EXPECT_EQ("Bravo", NameOf(opened));
    EXPECT_TRUE(IsLoaded(bravo));
    EXPECT_FALSE(IsLoaded(alpha));
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &opened));
    ClearDefaultSourceEntry();
    opened = OpenSource("");
    EXPECT_EQ("Alpha", NameOf(opened));
}

// --- User select --------------------------------------------------------------------------------------------------

using TdsmUserSelectTest = DsmTest;

TEST_F(TdsmUserSelectTest, WithoutAScriptTheUserAcceptsTheDefault) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("Bravo.ds");
    SetDefaultSourceEntry(bravo);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("Bravo", NameOf(identity));
    EXPECT_EQ(1, dsm.Get<TdsmUserSelectCountProc>("TdsmUserSelectCount")());
}

TEST_F(TdsmUserSelectTest, ChoiceByNameBecomesTheDefault) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("sub\\Bravo.ds");
    PutSource("Charlie.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.SelectByName("Bravo");
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("Bravo", NameOf(identity));
    EXPECT_EQ(0u, identity.Id);
    EXPECT_EQ(bravo, DefaultSourceEntry()) << "the choice is written to win.ini";
    TW_IDENTITY byDefault = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &byDefault));
    EXPECT_EQ("Bravo", NameOf(byDefault));
}

TEST_F(TdsmUserSelectTest, ChoiceByIndex) {
    PutSource("Alpha.ds");
    PutSource("Bravo.ds");
    const std::string charlie = PutSource("Charlie.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.SelectByIndex(2);
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("Charlie", NameOf(identity));
    EXPECT_EQ(charlie, DefaultSourceEntry());
}

TEST_F(TdsmUserSelectTest, CancelLeavesIdentityAndDefaultAlone) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("Bravo.ds");
    SetDefaultSourceEntry(bravo);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.SelectCancel();
    TW_IDENTITY identity = IdentityNamed("untouched");
    EXPECT_RC(TWRC_CANCEL, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("untouched", NameOf(identity));
    EXPECT_EQ(bravo, DefaultSourceEntry());
    EXPECT_EQ(1, dsm.Get<TdsmUserSelectCountProc>("TdsmUserSelectCount")());
}

TEST_F(TdsmUserSelectTest, CancelCanLeaveANameBehindAndNothingElse) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("Bravo.ds");
    SetDefaultSourceEntry(bravo);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.SelectCancelLeaving("Half typed");
    TW_IDENTITY identity = IdentityNamed("untouched");
    lstrcpyA(identity.Manufacturer, "kept");
    identity.Id = 77;
    EXPECT_RC(TWRC_CANCEL, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("Half typed", NameOf(identity));
    EXPECT_STREQ("kept", identity.Manufacturer);
    EXPECT_EQ(77u, identity.Id);
    EXPECT_EQ(bravo, DefaultSourceEntry());
}

TEST_F(TdsmUserSelectTest, AChoiceThatIsNotListedIsNoSource) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    dsm.SelectByName("Nonexistent");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_USERSELECT, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    dsm.SelectByIndex(1);
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_USERSELECT, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    EXPECT_EQ("<missing>", DefaultSourceEntry());
}

TEST_F(TdsmUserSelectTest, ResetForgetsTheScript) {
    PutSource("Alpha.ds");
    PutSource("Bravo.ds");
    dsm.SelectCancel();
    dsm.Reset();
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ("Alpha", NameOf(identity));
}

} // namespace
