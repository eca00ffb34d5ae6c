// The stand-in source manager with the virtual scanner: listing, opening, forwarding, statuses and events.
#include <gtest/gtest.h>

#include <cstring>

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
        if (module)
            FreeLibrary(module);
        DsmTest::TearDown();
    }
    // The copy the manager loads, for its controls.
    void Attach() {
        module = LoadLibraryA(path.c_str());
        ASSERT_NE(nullptr, module);
    }
    template <typename T> T Control(const char *name) {
        FARPROC proc = GetProcAddress(module, name);
        EXPECT_NE(nullptr, proc) << name;
        return reinterpret_cast<T>(reinterpret_cast<void *>(proc));
    }
    VscanInfo Info() {
        VscanInfo info = {};
        Control<VscanGetInfoProc>("VscanGetInfo")(&info);
        return info;
    }
    // Passes the window's messages through MSG_PROCESSEVENT until the source announces one.
    TW_UINT16 WaitForEvent(TW_IDENTITY &source) {
        for (int round = 0; round < kEventRounds; ++round) {
            MSG message;
            while (PeekMessageA(&message, nullptr, 0, 0, PM_REMOVE)) {
                TW_EVENT event = {&message, MSG_NULL};
                const TW_UINT16 rc = Entry(&source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
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
    HMODULE module = nullptr;
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
    ASSERT_EQ(1, Control<VscanSetContainerProc>("VscanSetContainer")(ICAP_PIXELTYPE, MSG_GET, TWON_ENUMERATION));
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
    Control<VscanFailTripletProc>("VscanFailTriplet")(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_XRESOLUTION,
                                                      TWRC_FAILURE, TWCC_BADVALUE, 1, 1);
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
    EXPECT_EQ(static_cast<TW_UINT16>(MSG_XFERREADY), WaitForEvent(source));
    EXPECT_EQ(VSCAN_STATE_XFERREADY, Info().state);
    EXPECT_FALSE(CallsOf(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT).empty());
}

} // namespace
