// The stand-in source manager with sources: open and close, forwarding, statuses, posted messages, faults, scripts.
#include <gtest/gtest.h>

#include <cstring>

#include "DsmHarness.h"

using namespace smtest;

namespace {

constexpr TW_UINT32 kUnknownId = 0x00abcdef;
constexpr TW_UINT16 kGarbageRc = 0x7777;

FakeDsCall LastCall(const FakeSource &fake) {
    const std::vector<FakeDsCall> calls = fake.Calls();
    return calls.empty() ? FakeDsCall{} : calls.back();
}

// --- Opening, closing and forwarding ------------------------------------------------------------------------------

using TdsmSourceTest = DsmTest;

TEST_F(TdsmSourceTest, OpenDsLoadsTheSourceGivesAFreshIdAndPassesTheApplicationAsOrigin) {
    const std::string path = PutSource("vendor\\Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_FALSE(IsLoaded(path));
    TW_IDENTITY source = OpenSource("Alpha");
    EXPECT_TRUE(IsLoaded(path));
    EXPECT_NE(0u, source.Id);
    EXPECT_NE(app.Id, source.Id);
    EXPECT_EQ("Alpha", NameOf(source));
    EXPECT_STREQ("smkernal tests", source.Manufacturer);
    EXPECT_EQ(1, dsm.OpenSourceCount());

    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    EXPECT_TRUE(fake.IsOpen());
    const FakeDsCall open = LastCall(fake);
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_OPENDS), open.msg);
    EXPECT_EQ(app.Id, open.originId) << "the application is the origin";
    EXPECT_STREQ("Tdsm test app", open.originName);
    TW_IDENTITY given;
    std::memcpy(&given, open.data, sizeof given);
    EXPECT_EQ(source.Id, given.Id) << "the source learns its Id";
}

TEST_F(TdsmSourceTest, FakeSourceLoadedAndFreedKeepsNoTlsIndex) {
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(BinDir() + "\\fakeds.ds"));
    fake.Detach();
    EXPECT_EQ(0, TlsIndexesKeptBy([&fake] {
                  ASSERT_TRUE(fake.Attach(BinDir() + "\\fakeds.ds"));
                  fake.Detach();
              }))
        << "fakeds.ds keeps TLS indexes when freed";
}

TEST_F(TdsmSourceTest, CloseDsClosesAndFreesTheSource) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    ASSERT_TRUE(IsLoaded(path));
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
    EXPECT_FALSE(IsLoaded(path)) << "MSG_CLOSEDS frees the .ds";
    EXPECT_EQ(0, dsm.OpenSourceCount());
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_CLOSEDS, &source)) << "closing twice";
    EXPECT_CC(TWCC_NODS, Status());
}

TEST_F(TdsmSourceTest, OpenDsByNameAmongSeveralAndUnknownNames) {
    PutSource("Alpha.ds");
    const std::string bravo = PutSource("Bravo.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Bravo");
    EXPECT_EQ("Bravo", NameOf(source));
    EXPECT_TRUE(IsLoaded(bravo));
    TW_IDENTITY unknown = IdentityNamed("Nobody");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &unknown));
    EXPECT_CC(TWCC_NODS, Status());
    EXPECT_EQ(0u, unknown.Id);
}

TEST_F(TdsmSourceTest, OpeningAnOpenSourceAgainIsASequenceError) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    OpenSource("Alpha");
    TW_IDENTITY again = IdentityNamed("Alpha");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &again));
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_EQ(1, dsm.OpenSourceCount());
}

TEST_F(TdsmSourceTest, TwoOpenSourcesGetDistinctIdsAndTheirOwnTriplets) {
    const std::string alphaPath = PutSource("Alpha.ds");
    const std::string bravoPath = PutSource("Bravo.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY alpha = OpenSource("Alpha");
    TW_IDENTITY bravo = OpenSource("Bravo");
    EXPECT_NE(alpha.Id, bravo.Id);
    FakeSource alphaFake, bravoFake;
    ASSERT_TRUE(alphaFake.Attach(alphaPath));
    ASSERT_TRUE(bravoFake.Attach(bravoPath));
    TW_USERINTERFACE ui = {FALSE, FALSE, window};
    ASSERT_RC(TWRC_SUCCESS, Entry(&bravo, DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui));
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_ENABLEDS), LastCall(bravoFake).msg);
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_OPENDS), LastCall(alphaFake).msg) << "Alpha got nothing more";
}

TEST_F(TdsmSourceTest, TripletsAreForwardedUnchangedAndTheirAnswerComesBack) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    TW_IMAGELAYOUT layout = {};
    layout.DocumentNumber = 7;
    ASSERT_RC(TWRC_SUCCESS, Entry(&source, DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout));
    FakeDsCall seen = LastCall(fake);
    EXPECT_EQ(static_cast<TW_UINT32>(DG_IMAGE), seen.dg);
    EXPECT_EQ(static_cast<TW_UINT16>(DAT_IMAGELAYOUT), seen.dat);
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_SET), seen.msg);
    EXPECT_EQ(app.Id, seen.originId);
    TW_IMAGELAYOUT received;
    std::memcpy(&received, seen.data, sizeof received);
    EXPECT_EQ(7u, received.DocumentNumber);

    fake.FailTriplet(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, kGarbageRc, TWCC_SUCCESS);
    TW_PENDINGXFERS pending = {};
    EXPECT_EQ(kGarbageRc, Entry(&source, DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending))
        << "whatever the source answers reaches the application";
    const std::vector<TdsmCall> logged = CallsOf(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER);
    ASSERT_EQ(1u, logged.size());
    EXPECT_EQ(1, logged[0].forwarded);
    EXPECT_EQ(source.Id, logged[0].destId);
    EXPECT_EQ(kGarbageRc, logged[0].rc);
}

TEST_F(TdsmSourceTest, AnUnknownDestinationIsABadDestination) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    OpenSource("Alpha");
    TW_IDENTITY stranger = IdentityNamed("Alpha");
    stranger.Id = kUnknownId;
    TW_CAPABILITY cap = {CAP_XFERCOUNT, TWON_DONTCARE16, nullptr};
    EXPECT_RC(TWRC_FAILURE, Entry(&stranger, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    EXPECT_CC(TWCC_BADDEST, Status());
    EXPECT_EQ(kStatusFailed, Status(&stranger)) << "a status query to nobody fails too";
}

TEST_F(TdsmSourceTest, StatusOfAnIdentityWithoutIdIsTheManagers) {
    PutSource("Alpha.ds");
    // Before the manager is open, and for an identity it never gave an Id: the manager answers.
    TW_IDENTITY unopened = IdentityNamed("Alpha");
    ASSERT_EQ(0u, unopened.Id);
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &unopened));
    EXPECT_CC(TWCC_SEQERROR, Status(&unopened));
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY missing = IdentityNamed("Nobody");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &missing));
    EXPECT_CC(TWCC_NODS, Status(&unopened));
    const std::vector<TdsmCall> statuses = CallsOf(DG_CONTROL, DAT_STATUS, MSG_GET);
    ASSERT_EQ(2u, statuses.size());
    EXPECT_EQ(0, statuses[1].forwarded);
}

TEST_F(TdsmSourceTest, StatusOfASourceIsTheSourcesAndTheManagersStaysItsOwn) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    TW_CAPABILITY cap = {ICAP_GAMMA, TWON_DONTCARE16, nullptr};
    EXPECT_RC(TWRC_FAILURE, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    EXPECT_CC(TWCC_SUCCESS, Status()) << "the manager did not fail";
    EXPECT_CC(TWCC_CAPUNSUPPORTED, Status(&source));
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    EXPECT_EQ(static_cast<TW_UINT16>(DAT_STATUS), LastCall(fake).dat) << "the query reached the source";
}

TEST_F(TdsmSourceTest, ASourceRefusingToOpenIsFreedAndItsConditionReported) {
    const std::string path = PutSource("Alpha.ds");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    fake.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, TWRC_FAILURE, TWCC_MAXCONNECTIONS);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = IdentityNamed("Alpha");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &identity));
    EXPECT_CC(TWCC_MAXCONNECTIONS, Status());
    EXPECT_EQ(0, dsm.OpenSourceCount());
    fake.Detach();
    EXPECT_FALSE(IsLoaded(path)) << "the manager freed its reference";
}

TEST_F(TdsmSourceTest, ASourceRefusingToCloseStaysOpen) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    fake.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, TWRC_FAILURE, TWCC_SEQERROR);
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_CLOSEDS, &source));
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_EQ(1, dsm.OpenSourceCount());
    TW_USERINTERFACE ui = {};
    EXPECT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui))
        << "the source still gets its triplets";
}

TEST_F(TdsmSourceTest, ASourceGoneSinceListingIsNoSource) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    ASSERT_EQ(std::vector<std::string>{"Alpha"}, ListNames());
    ASSERT_TRUE(DeleteFileA(path.c_str()));
    TW_IDENTITY identity = IdentityNamed("Alpha");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &identity));
    EXPECT_CC(TWCC_NODS, Status());
}

TEST_F(TdsmSourceTest, AMessageTheSourcePostsComesBackInTheNextProcessEvent) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    MSG drain;
    while (PeekMessageA(&drain, window, 0, 0, PM_REMOVE)) {
    }
    ASSERT_RC(TWRC_SUCCESS, fake.PostMessage(MSG_XFERREADY));
    MSG woken;
    EXPECT_TRUE(PeekMessageA(&woken, window, WM_NULL, WM_NULL, PM_REMOVE)) << "the application's loop is woken";
    MSG message = {};
    TW_EVENT event = {&message, MSG_NULL};
    EXPECT_RC(TWRC_NOTDSEVENT, Entry(&source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event));
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_XFERREADY), event.TWMessage);
    event.TWMessage = MSG_NULL;
    EXPECT_RC(TWRC_NOTDSEVENT, Entry(&source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event));
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_NULL), event.TWMessage) << "a posted message comes once";
    const std::vector<TdsmCall> posted = CallsOf(DG_CONTROL, DAT_NULL, MSG_XFERREADY);
    ASSERT_EQ(1u, posted.size());
    EXPECT_EQ(source.Id, posted[0].originId);
    EXPECT_EQ(app.Id, posted[0].destId);
}

TEST_F(TdsmSourceTest, ResetClosesAndFreesOpenSources) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    OpenSource("Alpha");
    dsm.Reset();
    EXPECT_FALSE(IsLoaded(path));
    EXPECT_EQ(0, dsm.OpenSourceCount());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
}

TEST_F(TdsmSourceTest, AGarbageAnswerToOpenDsComesBackAndTheSourceIsFreed) {
    const std::string path = PutSource("Alpha.ds");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    fake.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, kGarbageRc, TWCC_BUMMER);
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = IdentityNamed("Alpha");
    EXPECT_EQ(kGarbageRc, Identity(MSG_OPENDS, &identity));
    EXPECT_EQ(0, dsm.OpenSourceCount());
    EXPECT_RC(TWRC_SUCCESS, CloseDsm()) << "nothing stays open";
}

TEST_F(TdsmSourceTest, UnloadingTheManagerFreesSourcesLeftOpen) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    OpenSource("Alpha");
    ASSERT_TRUE(IsLoaded(path));
    dsm.Close();
    EXPECT_FALSE(IsLoaded(TwainPath()));
    EXPECT_FALSE(IsLoaded(path)) << "the manager frees what it loaded when it goes";
    ASSERT_TRUE(dsm.Open());
}

// --- Faults -------------------------------------------------------------------------------------------------------

using TdsmFaultTest = DsmTest;

TEST_F(TdsmFaultTest, AlwaysFailsEveryCallAndStatusReportsItsCode) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, TWRC_FAILURE, TWCC_LOWMEMORY);
    TW_IDENTITY identity = {};
    for (int i = 0; i < 3; ++i) {
        EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &identity)) << "call " << i;
        EXPECT_CC(TWCC_LOWMEMORY, Status()) << "call " << i;
    }
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity)) << "other triplets are not touched";
}

TEST_F(TdsmFaultTest, OnceFailsTheNextCallOnly) {
    dsm.FailTripletOnce(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, TWRC_FAILURE, TWCC_BUMMER);
    EXPECT_RC(TWRC_FAILURE, OpenDsm());
    EXPECT_CC(TWCC_BUMMER, Status());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State()) << "a faulted triplet does nothing";
    EXPECT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_EQ(TDSM_STATE_OPEN, dsm.State());
}

TEST_F(TdsmFaultTest, FromTheNthCallOn) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.FailTripletFrom(DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, TWRC_FAILURE, TWCC_OPERATIONERROR, 3);
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_CC(TWCC_OPERATIONERROR, Status());
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETDEFAULT, &identity));
}

TEST_F(TdsmFaultTest, AWindowOfCallsAndWildcards) {
    PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    auto failEx = dsm.Get<TdsmFailTripletExProc>("TdsmFailTripletEx");
    failEx(DG_CONTROL, DAT_IDENTITY, TDSM_ANY, TWRC_CHECKSTATUS, TWCC_DENIED, 2, 2);
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_RC(TWRC_CHECKSTATUS, Identity(MSG_GETFIRST, &identity));
    EXPECT_CC(TWCC_DENIED, Status());
    EXPECT_RC(TWRC_CHECKSTATUS, Identity(MSG_USERSELECT, &identity));
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
}

TEST_F(TdsmFaultTest, AFaultedSourceTripletNeverReachesTheSourceAndItsStatusReportsTheCode) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    const size_t before = fake.Calls().size();
    dsm.FailTripletOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_FAILURE, TWCC_CAPBADOPERATION);
    TW_CAPABILITY cap = {CAP_XFERCOUNT, TWON_ONEVALUE, nullptr};
    EXPECT_RC(TWRC_FAILURE, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_SET, &cap));
    EXPECT_EQ(before, fake.Calls().size());
    EXPECT_CC(TWCC_CAPBADOPERATION, Status(&source));
    EXPECT_CC(TWCC_CAPBADOPERATION, Status());
    EXPECT_EQ(before, fake.Calls().size()) << "the status of a fault comes from the manager";
    EXPECT_CC(TWCC_SUCCESS, Status(&source)) << "then the source answers again";
    EXPECT_EQ(before + 1, fake.Calls().size());
    const std::vector<TdsmCall> faulted = CallsOf(DG_CONTROL, DAT_CAPABILITY, MSG_SET);
    ASSERT_EQ(1u, faulted.size());
    EXPECT_EQ(1, faulted[0].faulted);
    EXPECT_EQ(0, faulted[0].forwarded);
}

TEST_F(TdsmFaultTest, AFaultedCloseLeavesItsCodeForTheSourceItNames) {
    const std::string path = PutSource("Alpha.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Alpha");
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    dsm.FailTripletOnce(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, TWRC_FAILURE, TWCC_OPERATIONERROR);
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_CLOSEDS, &source));
    EXPECT_TRUE(fake.IsOpen()) << "the faulted close never reached the source";
    const size_t before = fake.Calls().size();
    EXPECT_CC(TWCC_OPERATIONERROR, Status(&source));
    EXPECT_EQ(before, fake.Calls().size()) << "the manager answers for the source once";
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
}

TEST_F(TdsmFaultTest, ANewFaultReplacesTheOldAndClearingRemovesAll) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    dsm.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, TWRC_FAILURE, TWCC_BUMMER);
    dsm.FailTriplet(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, TWRC_FAILURE, TWCC_DENIED);
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &identity));
    EXPECT_CC(TWCC_DENIED, Status());
    dsm.Get<TdsmClearFaultsProc>("TdsmClearFaults")();
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &identity));
    EXPECT_CC(TWCC_NODS, Status()) << "the real answer with no source";
}

TEST_F(TdsmFaultTest, ResetRemovesFaults) {
    dsm.FailTriplet(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, TWRC_FAILURE, TWCC_BUMMER);
    dsm.Reset();
    EXPECT_RC(TWRC_SUCCESS, OpenDsm());
}

// --- The scripted source list -------------------------------------------------------------------------------------

using TdsmScriptTest = DsmTest;

TEST_F(TdsmScriptTest, ScriptedSourcesReplaceTheDirectoryInTheirOrder) {
    PutSource("InDirectory.ds");
    const std::string fake = BinDir() + "\\fakeds.ds";
    EXPECT_EQ(0, dsm.AddSource("Scanner B", fake.c_str()));
    EXPECT_EQ(1, dsm.AddSource("Scanner A", fake.c_str()));
    EXPECT_EQ(2, dsm.AddSource("", fake.c_str()));
    EXPECT_EQ(-1, dsm.AddSource("No file", nullptr));
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    const std::vector<std::string> expected = {"Scanner B", "Scanner A", "fakeds"};
    EXPECT_EQ(expected, ListNames());
    TW_IDENTITY listed = {};
    char path[MAX_PATH] = "";
    ASSERT_EQ(1, dsm.Get<TdsmGetSourceProc>("TdsmGetSource")(1, &listed, path, sizeof path));
    EXPECT_EQ("Scanner A", NameOf(listed));
    EXPECT_STREQ("smkernal tests", listed.Manufacturer);
    EXPECT_EQ(fake, std::string(path));
}

TEST_F(TdsmScriptTest, AScriptedSourceOpensWithItsNameAndTripletsGoToItsFile) {
    const std::string path = BinDir() + "\\fakeds.ds";
    dsm.AddSource("Scanner A", path.c_str());
    dsm.AddSource("Scanner B", path.c_str());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("Scanner B");
    EXPECT_EQ("Scanner B", NameOf(source));
    FakeSource fake;
    ASSERT_TRUE(fake.Attach(path));
    const FakeDsCall open = LastCall(fake);
    ASSERT_EQ(static_cast<TW_UINT16>(MSG_OPENDS), open.msg);
    TW_IDENTITY given;
    std::memcpy(&given, open.data, sizeof given);
    EXPECT_STREQ("fakeds", given.ProductName) << "the source gets its own identity";
    EXPECT_EQ(source.Id, given.Id);
    TW_USERINTERFACE ui = {};
    ASSERT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui));
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_ENABLEDS), LastCall(fake).msg);
}

TEST_F(TdsmScriptTest, UserSelectOfEntriesSharingAFileSticksToTheChosenOne) {
    const std::string path = BinDir() + "\\fakeds.ds";
    dsm.AddSource("Scanner A", path.c_str());
    dsm.AddSource("Scanner B", path.c_str());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    dsm.SelectByName("Scanner B");
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_USERSELECT, &identity));
    EXPECT_EQ(path, DefaultSourceEntry());
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ("Scanner B", NameOf(identity));
    TW_IDENTITY opened = OpenSource("");
    EXPECT_EQ("Scanner B", NameOf(opened));
}

TEST_F(TdsmScriptTest, UnusableScriptedEntriesAreSkipped) {
    dsm.AddSource("Missing", (TwainSourceDir() + "\\missing.ds").c_str());
    dsm.AddSource("No entry", (BinDir() + "\\fakeds_noentry.ds").c_str());
    dsm.AddSource("Good", (BinDir() + "\\fakeds.ds").c_str());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_EQ(std::vector<std::string>{"Good"}, ListNames());
}

TEST_F(TdsmScriptTest, ClearingListsNothingAndUseDirectoryGoesBack) {
    PutSource("InDirectory.ds");
    dsm.AddSource("Scanner A", (BinDir() + "\\fakeds.ds").c_str());
    dsm.ClearSources();
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY identity = {};
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_GETFIRST, &identity));
    EXPECT_CC(TWCC_NODS, Status());
    dsm.UseDirectory(nullptr);
    EXPECT_EQ(std::vector<std::string>{"InDirectory"}, ListNames());
}

TEST_F(TdsmScriptTest, AnotherDirectoryCanBeListed) {
    PutSource("InDirectory.ds");
    PutSource("elsewhere\\Other.ds");
    dsm.UseDirectory((TwainSourceDir() + "\\elsewhere").c_str());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    EXPECT_EQ(std::vector<std::string>{"Other"}, ListNames());
}

} // namespace
