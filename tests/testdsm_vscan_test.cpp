// The stand-in source manager with the virtual scanner: listing, opening, forwarding, statuses and events.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "DsmHarness.h"
#include "vscan.h"

using namespace smtest;

namespace {

const char kVscanName[] = "Virtual Scanner";
constexpr int kEventRounds = 200;

class TdsmVscanTest : public DsmTest {
protected:
    void SetUp() override {
        DsmTest::SetUp();
        path = InstallVscan("vscan\\vscan.ds");
        ASSERT_FALSE(path.empty()) << "installing the virtual scanner in a subdirectory of " << TwainSourceDir();
    }
    void TearDown() override {
        dsm.Reset();
        scanner.Free();
        DsmTest::TearDown();
    }
    // The copy the manager loads, for its controls.
    void Attach() { ASSERT_TRUE(scanner.Load(path)) << path; }
    VscanInfo Info() { return scanner.Info(); }

    // One message passed to the source through MSG_PROCESSEVENT, and its answer.
    struct Passed {
        MSG message;
        TW_UINT16 rc;
        TW_UINT16 twMessage;
    };
    // Passes the thread's messages through MSG_PROCESSEVENT until the source announces one; each goes to `passed`.
    TW_UINT16 WaitForEvent(TW_IDENTITY &source) {
        for (int round = 0; round < kEventRounds; ++round) {
            MSG message;
            while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                TW_EVENT event = {&message, MSG_NULL};
                const TW_UINT16 rc = Entry(&source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
                passed.push_back(Passed{message, rc, event.TWMessage});
                if (event.TWMessage != MSG_NULL)
                    return event.TWMessage;
                if (rc == TWRC_NOTDSEVENT)
                    DispatchMessageA(&message);
            }
            Sleep(10);
        }
        return MSG_NULL;
    }

    std::string path;
    VscanLibrary scanner;
    std::vector<Passed> passed;
};

TEST_F(TdsmVscanTest, TheVirtualScannerIsListedWithItsOwnIdentity) {
    PutSource("Fake.ds");
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    const std::vector<std::string> expected = {"Fake", kVscanName};
    EXPECT_EQ(expected, ListNames());
    SetDefaultSourceEntry(path);
    TW_IDENTITY identity = {};
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_GETDEFAULT, &identity));
    EXPECT_EQ(kVscanName, NameOf(identity));
    EXPECT_STREQ("smkernal project", identity.Manufacturer);
    EXPECT_EQ(0u, identity.Id);
}

TEST_F(TdsmVscanTest, OpenAndCloseReachTheSourceWithTheApplicationsIdentity) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource("");
    EXPECT_EQ(kVscanName, NameOf(source));
    EXPECT_NE(0u, source.Id);
    Attach();
    VscanInfo info = Info();
    EXPECT_EQ(VSCAN_STATE_OPEN, info.state);
    EXPECT_EQ(app.Id, info.appId);
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
    EXPECT_EQ(VSCAN_STATE_CLOSED, Info().state);
    EXPECT_EQ(0, dsm.OpenSourceCount());
}

TEST_F(TdsmVscanTest, CapabilityTripletsAreForwardedAndTheirContainersLogged) {
    Attach();
    ASSERT_EQ(1, scanner.setContainer(ICAP_PIXELTYPE, MSG_GET, TWON_ENUMERATION));
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource(kVscanName);
    TW_CAPABILITY cap = {ICAP_PIXELTYPE, TWON_DONTCARE16, nullptr};
    ASSERT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    ASSERT_NE(nullptr, cap.hContainer);
    const TW_ENUMERATION *list = static_cast<const TW_ENUMERATION *>(GlobalLock(cap.hContainer));
    const TW_UINT32 items = list->NumItems;
    const TW_UINT32 current = list->CurrentIndex;
    TW_UINT16 first;
    std::memcpy(&first, list->ItemList, sizeof first);
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);

    const std::vector<TdsmCall> logged = CallsOf(DG_CONTROL, DAT_CAPABILITY, MSG_GET);
    ASSERT_EQ(1u, logged.size());
    const TdsmContainer &out = logged[0].capOut;
    ASSERT_EQ(1, out.hasContainer);
    EXPECT_EQ(ICAP_PIXELTYPE, out.cap);
    EXPECT_EQ(TWON_ENUMERATION, out.conType);
    EXPECT_EQ(items, out.numItems);
    EXPECT_EQ(current, out.currentIndex);
    ASSERT_GE(out.storedItems, 1u);
    EXPECT_EQ(first, out.items[0]);
    EXPECT_EQ(1, logged[0].forwarded);
}

TEST_F(TdsmVscanTest, TheSourcesStatusComesFromTheSource) {
    Attach();
    ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_XRESOLUTION, TWRC_FAILURE, TWCC_BADVALUE,
                                     1, 1));
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource(kVscanName);
    TW_CAPABILITY cap = {ICAP_XRESOLUTION, TWON_DONTCARE16, nullptr};
    EXPECT_RC(TWRC_FAILURE, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    EXPECT_CC(TWCC_BADVALUE, Status(&source));
    EXPECT_CC(TWCC_SUCCESS, Status());
}

TEST_F(TdsmVscanTest, ScriptedNamesBackedByTheVirtualScanner) {
    dsm.AddSource("Scanner One", path.c_str());
    dsm.AddSource("Scanner Two", path.c_str());
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    const std::vector<std::string> expected = {"Scanner One", "Scanner Two"};
    EXPECT_EQ(expected, ListNames());
    TW_IDENTITY source = OpenSource("Scanner Two");
    EXPECT_EQ("Scanner Two", NameOf(source));
    Attach();
    EXPECT_EQ(VSCAN_STATE_OPEN, Info().state);
    TW_IDENTITY other = IdentityNamed("Scanner One");
    EXPECT_RC(TWRC_FAILURE, Identity(MSG_OPENDS, &other)) << "one scanner: one of its identities open at a time";
    EXPECT_CC(TWCC_SEQERROR, Status());
    EXPECT_EQ(1, dsm.OpenSourceCount());
    ASSERT_RC(TWRC_SUCCESS, Identity(MSG_CLOSEDS, &source));
    other = OpenSource("Scanner One");
    EXPECT_EQ("Scanner One", NameOf(other));
}

TEST_F(TdsmVscanTest, EventsReachTheApplicationThroughProcessEvent) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_IDENTITY source = OpenSource(kVscanName);
    Attach();
    TW_USERINTERFACE ui = {FALSE, FALSE, window};
    ASSERT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui));
    ASSERT_EQ(static_cast<TW_UINT16>(MSG_XFERREADY), WaitForEvent(source));
    EXPECT_EQ(VSCAN_STATE_XFERREADY, Info().state);

    // The last message passed is the scanner's notice to the window; any before it were not the source's.
    ASSERT_FALSE(passed.empty());
    const MSG &notice = passed.back().message;
    EXPECT_EQ(window, notice.hwnd);
    EXPECT_EQ(Info().notifyMessage, notice.message);
    const std::vector<TdsmCall> logged = CallsOf(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT);
    ASSERT_EQ(passed.size(), logged.size()) << "one logged triplet per message passed";
    for (size_t i = 0; i < logged.size(); ++i) {
        SCOPED_TRACE("message " + std::to_string(i + 1) + " of " + std::to_string(logged.size()));
        const bool last = i + 1 == logged.size();
        const TdsmCall &call = logged[i];
        EXPECT_EQ(app.Id, call.originId);
        EXPECT_EQ(source.Id, call.destId);
        EXPECT_EQ(1, call.forwarded);
        EXPECT_EQ(0, call.faulted);
        EXPECT_RC(last ? TWRC_DSEVENT : TWRC_NOTDSEVENT, call.rc);
        EXPECT_RC(passed[i].rc, call.rc);
        ASSERT_EQ(sizeof(TW_EVENT), call.dataSize);
        TW_EVENT in, out;
        std::memcpy(&in, call.dataIn, sizeof in);
        std::memcpy(&out, call.dataOut, sizeof out);
        EXPECT_EQ(MSG_NULL, in.TWMessage) << "as the application passed it";
        EXPECT_EQ(last ? MSG_XFERREADY : MSG_NULL, out.TWMessage) << "as the source answered";
        EXPECT_EQ(passed[i].twMessage, out.TWMessage);
    }
}

} // namespace
