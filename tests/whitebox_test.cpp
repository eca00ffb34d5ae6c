// White-box tests of the frame: the scan module's fields and defaults, the global buffer and the trace depth.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "ModuleTest.h"
#include "ScanModule.h"

using namespace smtest;

namespace {

class WhiteBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(1, 1);
        viewer.Start();
        traceDepth = 0;
    }
    void TearDown() override {
        module.reset();
        viewer.Stop();
        // The trace keeps a dangling composer after shut-down; nothing traces afterwards in the
        // library, but this program builds several objects.
        traceStream = nullptr;
        traceDepth = 0;
        theScanModule = nullptr;
        ExpectTwainDllReleased();
    }
    void Construct() { module = std::make_unique<TScanModule>(GetModuleHandleA(nullptr)); }

    TraceViewer viewer;
    std::unique_ptr<TScanModule> module;
};

TEST_F(WhiteBoxTest, FreshObjectHoldsTheDefaults) {
    Construct();
    TScanModule &m = *module;
    EXPECT_EQ(kStateDsmLoaded, m.sessionState);
    EXPECT_NE(nullptr, m.dsmLibrary);
    EXPECT_NE(nullptr, m.dsmEntry);
    EXPECT_EQ(GetModuleHandleA(nullptr), m.Instance());
    EXPECT_EQ(TRUE, m.showUI);
    EXPECT_EQ(FALSE, m.parentDisabled);
    EXPECT_EQ(FALSE, m.cancelThisXfer);
    EXPECT_EQ(FALSE, m.cancelAllXfer);
    EXPECT_EQ(nullptr, m.disabledWindows.window);
    EXPECT_EQ(0, m.disabledWindows.windowCount);
    EXPECT_EQ(nullptr, m.disabledWindows.nextSlot);
    EXPECT_EQ(GetDesktopWindow(), m.parentWindow);
    EXPECT_EQ(kMechMemory, m.transferMechanism);
    EXPECT_EQ(FALSE, m.scanToFileActive);
    EXPECT_EQ(9999, m.pendingCount);
    const BYTE zeros[kScanToFileStateSize] = {};
    EXPECT_EQ(0, std::memcmp(zeros, &m.scanToFileState, sizeof zeros));
    TW_IDENTITY blank = {};
    EXPECT_EQ(0, std::memcmp(&blank, &m.sourceIdentity, sizeof blank));
}

TEST_F(WhiteBoxTest, RangeCachesStartAsTabled) {
    Construct();
    const TScanModule &m = *module;
    const double expected[15] = {-1000, 1000, 1, -1000, 1000, 1, 0, 255, 1, 0, 255, 1, 0, 255, 1};
    const double actual[15] = {m.brightnessMin, m.brightnessMax, m.brightnessStep, m.contrastMin,   m.contrastMax,
                               m.contrastStep,  m.highlightMin,  m.highlightMax,   m.highlightStep, m.shadowMin,
                               m.shadowMax,     m.shadowStep,    m.thresholdMin,   m.thresholdMax,  m.thresholdStep};
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(expected[i], actual[i]) << "range value " << i;
}

TEST_F(WhiteBoxTest, ApplicationIdentityIsFilled) {
    Construct();
    const TW_IDENTITY &id = module->appIdentity;
    EXPECT_EQ(0u, id.Id);
    EXPECT_EQ(2, id.Version.MajorNum);
    EXPECT_EQ(0, id.Version.MinorNum);
    EXPECT_EQ(TWLG_USA, id.Version.Language);
    EXPECT_EQ(TWCY_USA, id.Version.Country);
    EXPECT_STREQ("Version 2.00", id.Version.Info);
    EXPECT_EQ(1, id.ProtocolMajor);
    EXPECT_EQ(8, id.ProtocolMinor);
    EXPECT_EQ(static_cast<TW_UINT32>(DG_CONTROL | DG_IMAGE), id.SupportedGroups);
    EXPECT_STREQ("Calvex Technology Corporation", id.Manufacturer);
    EXPECT_STREQ("Calvex Scan Module", id.ProductFamily);
    EXPECT_STREQ("Calvex Scan Module", id.ProductName);
}

TEST_F(WhiteBoxTest, SevenMessagesAreRegistered) {
    Construct();
    const TScanModule &m = *module;
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_CloseDSReq"), m.msgCloseDSReq);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_XferStart"), m.msgXferStart);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_XferData"), m.msgXferData);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_XferEnd"), m.msgXferEnd);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_ScanToFileGetName"), m.msgScanToFileGetName);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_ScanToFileXferEnd"), m.msgScanToFileXferEnd);
    EXPECT_EQ(RegisterWindowMessageA("ScanModule_ScanToFileDSClosed"), m.msgScanToFileDSClosed);
    EXPECT_NE(0u, m.msgCloseDSReq);
    EXPECT_TRUE(viewer.Texts("Fatal").empty());
}

TEST_F(WhiteBoxTest, WithoutTheSourceManagerTheStateStaysPreSession) {
    InstallDsm(Dsm::Absent);
    Construct();
    EXPECT_EQ(kStatePreSession, module->sessionState);
    EXPECT_EQ(nullptr, module->dsmLibrary);
    EXPECT_EQ(nullptr, module->dsmEntry);
}

TEST_F(WhiteBoxTest, LibraryWithoutEntryLeavesTheStateAsItWas) {
    InstallDsm(Dsm::WithoutEntry);
    Construct();
    EXPECT_EQ(kStatePreSession, module->sessionState);
    EXPECT_EQ(nullptr, module->dsmLibrary);
    EXPECT_EQ(nullptr, module->dsmEntry);
}

TEST_F(WhiteBoxTest, CancelThisClearsCancelAll) {
    Construct();
    module->CancelAllXfer();
    EXPECT_EQ(TRUE, module->cancelThisXfer);
    EXPECT_EQ(TRUE, module->cancelAllXfer);
    module->CancelThisXfer();
    EXPECT_EQ(TRUE, module->cancelThisXfer);
    EXPECT_EQ(FALSE, module->cancelAllXfer);
}

// The exported functions themselves, forwarding to the object in theScanModule.
TEST_F(WhiteBoxTest, CancelExportsSetTheFlags) {
    Construct();
    theScanModule = module.get();
    smCancelThisXfer();
    EXPECT_EQ(TRUE, module->cancelThisXfer);
    EXPECT_EQ(FALSE, module->cancelAllXfer);
    smCancelAllXfer();
    EXPECT_EQ(TRUE, module->cancelThisXfer);
    EXPECT_EQ(TRUE, module->cancelAllXfer);
    smCancelThisXfer();
    EXPECT_EQ(TRUE, module->cancelThisXfer);
    EXPECT_EQ(FALSE, module->cancelAllXfer);
}

TEST_F(WhiteBoxTest, UnloadingWithTheSourceManagerOpenKeepsTheLibrary) {
    Construct();
    // The object leaves the source manager loaded on purpose; release that reference once the test has looked, so
    // that the next test can replace TWAIN_32.DLL.
    const HMODULE kept = module->dsmLibrary;
    ScopeExit release([kept] {
        if (IsLoaded(TwainPath()))
            FreeLibrary(kept);
    });
    module->sessionState = kStateDsmOpen;
    module.reset();
    EXPECT_TRUE(IsLoaded(TwainPath())) << "the source manager must stay loaded while a session is open";
}

TEST_F(WhiteBoxTest, UnloadingInStateTwoFreesTheLibrary) {
    Construct();
    ASSERT_TRUE(IsLoaded(TwainPath()));
    module->UnloadTWAIN();
    EXPECT_EQ(kStatePreSession, module->sessionState);
    EXPECT_EQ(nullptr, module->dsmLibrary);
    EXPECT_EQ(nullptr, module->dsmEntry);
    EXPECT_FALSE(IsLoaded(TwainPath()));
}

TEST_F(WhiteBoxTest, AvailabilityGateWarnsWithTheCallersName) {
    InstallDsm(Dsm::Absent);
    Construct();
    viewer.Clear();
    {
        TraceCall call(SM_SOURCE("Sm_2"), "OpenDSM", 111, 159);
        EXPECT_FALSE(module->Available(call, 117));
    }
    // The gate retries the load before it gives up.
    const std::vector<std::string> warnings = {"LoadLibrary fails in TScanModule::LoadTWAIN",
                                               "TWAIN is not available in TScanModule::OpenDSM"};
    EXPECT_EQ(warnings, viewer.Texts("Warning"));
    EXPECT_EQ(117, viewer.Records()[viewer.Records().size() - 2].line);
    EXPECT_EQ("F:\\smkernal\\Sm_2.cpp", viewer.Records().back().source);
}

TEST_F(WhiteBoxTest, TraceDepthNeverMovesWhenTraceIsOff) {
    WriteDebugIni(0, 1);
    InstallDsm(Dsm::Absent);
    Construct();
    EXPECT_EQ(0, traceDepth);
    module->IsTWAINAvailable();
    EXPECT_EQ(0, traceDepth);
    module.reset();
    EXPECT_EQ(0, traceDepth);
    // One failed load at construction, one retried by the availability test.
    EXPECT_EQ(2u, viewer.Records().size());
}

TEST_F(WhiteBoxTest, TraceDepthReturnsToZeroAfterBalancedCalls) {
    Construct();
    EXPECT_EQ(0, traceDepth);
    module->IsTWAINAvailable();
    EXPECT_EQ(0, traceDepth);
}

TEST_F(WhiteBoxTest, UnbalancedRecordsLeaveTheDepthWhenTraceIsOff) {
    WriteDebugIni(0, 1);
    Construct();
    viewer.Clear();
    { TraceCall exitOnly(SM_SOURCE("Sm_2"), "DisableDS", 0, 620); }
    EXPECT_EQ(0, traceDepth);
    TraceRecord(TraceLevel::Trace, SM_SOURCE("Sm_8"), 30, "Coming TScanModule::DoMemXfer");
    EXPECT_EQ(0, traceDepth);
    EXPECT_TRUE(viewer.Records().empty());
}

// Texts that open or close a traced call wherever the word stands in them.
struct MarkedText {
    const char *text;
    int depthChange;
};
const MarkedText kMarkedTexts[] = {
    {"Coming TScanModule::IsDSEvent capturing MSG_XFERREADY", +1},
    {"x Coming y", +1},
    {"TScanModule::IsDSEvent Coming", +1},
    {"Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY", -1},
    {"x Leaving y", -1},
    {"TScanModule::IsDSEvent Leaving", -1},
};

TEST_F(WhiteBoxTest, ComingOrLeavingAnywhereInTheTextMovesTheDepth) {
    Construct();
    for (const MarkedText &marked : kMarkedTexts) {
        SCOPED_TRACE(marked.text);
        traceDepth = 0;
        viewer.Clear();
        TraceRecord(TraceLevel::Trace, SM_SOURCE("Sm_1"), 10, marked.text);
        EXPECT_EQ(marked.depthChange, traceDepth);
        const std::vector<TraceLine> &records = viewer.Records();
        // At depth 0 an entry gets the three separators first; an exit gets none.
        const size_t separators = marked.depthChange > 0 ? 3 : 0;
        ASSERT_EQ(separators + 1, records.size());
        for (size_t i = 0; i < separators; ++i)
            EXPECT_TRUE(records[i].IsSeparator()) << "record " << i;
        EXPECT_EQ(std::string("Trace F:\\smkernal\\Sm_1.cpp 10: [SM] ") + marked.text, records.back().raw);
    }
}

TEST_F(WhiteBoxTest, ExitWithoutEntryLowersTheDepth) {
    Construct();
    viewer.Clear();
    { TraceCall call(SM_SOURCE("Sm_2"), "DisableDS", 0, 620); }
    EXPECT_EQ(-1, traceDepth);
    viewer.Clear();
    // From -1 the outermost call only brings the depth to 0, so its nested call gets the separators.
    module->IsTWAINAvailable();
    const std::vector<TraceLine> &records = viewer.Records();
    ASSERT_GE(records.size(), 5u);
    EXPECT_EQ("Coming TScanModule::IsTWAINAvailable", records[0].text);
    EXPECT_TRUE(records[1].IsSeparator() && records[2].IsSeparator() && records[3].IsSeparator());
    EXPECT_EQ("Coming TScanModule::IsTWAINLoaded", records[4].text);
    EXPECT_EQ(-1, traceDepth);
}

// "Warning " and "Fatal " records: sent as they are, never separators, never a depth change.
struct LevelRecord {
    TraceLevel level;
    const char *text;
    const char *raw;
};
const LevelRecord kLevelRecords[] = {
    {TraceLevel::Fatal, "RegisterWindowMessage fails, Scan Module may not work properly",
     "Fatal F:\\smkernal\\Sm_1.cpp 120: [SM] RegisterWindowMessage fails, Scan Module may not work properly"},
    {TraceLevel::Fatal, "Coming TScanModule::X fatal",
     "Fatal F:\\smkernal\\Sm_1.cpp 120: [SM] Coming TScanModule::X fatal"},
    {TraceLevel::Fatal, "Leaving TScanModule::X fatal",
     "Fatal F:\\smkernal\\Sm_1.cpp 120: [SM] Leaving TScanModule::X fatal"},
    {TraceLevel::Warning, "Coming TScanModule::X warning",
     "Warning F:\\smkernal\\Sm_1.cpp 120: [SM] Coming TScanModule::X warning"},
    {TraceLevel::Warning, "Leaving TScanModule::X warning",
     "Warning F:\\smkernal\\Sm_1.cpp 120: [SM] Leaving TScanModule::X warning"},
};

TEST_F(WhiteBoxTest, WarningAndFatalRecordsAreSentRawAndNeverTouchTheDepth) {
    Construct();
    for (const LevelRecord &record : kLevelRecords) {
        SCOPED_TRACE(record.text);
        viewer.Clear();
        TraceRecord(record.level, SM_SOURCE("Sm_1"), 120, record.text);
        ASSERT_EQ(1u, viewer.Records().size());
        EXPECT_EQ(record.raw, viewer.Records()[0].raw);
        EXPECT_EQ(0, traceDepth);
    }
}

TEST_F(WhiteBoxTest, FatalRecordIsSentWithWarningOnEvenWhenTraceIsOff) {
    WriteDebugIni(0, 1);
    Construct();
    viewer.Clear();
    TraceRecord(TraceLevel::Fatal, SM_SOURCE("Sm_1"), 120, kLevelRecords[0].text);
    ASSERT_EQ(1u, viewer.Records().size());
    EXPECT_EQ(kLevelRecords[0].raw, viewer.Records()[0].raw);
    EXPECT_EQ(0, traceDepth);
}

TEST_F(WhiteBoxTest, FatalRecordIsDroppedWithWarningOff) {
    WriteDebugIni(1, 0);
    Construct();
    viewer.Clear();
    TraceRecord(TraceLevel::Fatal, SM_SOURCE("Sm_1"), 120, kLevelRecords[0].text);
    EXPECT_TRUE(viewer.Records().empty());
    EXPECT_EQ(0, traceDepth);
}

TEST_F(WhiteBoxTest, OverlongRecordIsCutAtTheComposersCapacity) {
    Construct();
    viewer.Clear();
    const std::string text(2000, 'x');
    TraceRecord(TraceLevel::Warning, SM_SOURCE("Sm_1"), 1, text.c_str());
    ASSERT_EQ(1u, viewer.Records().size());
    EXPECT_EQ(static_cast<size_t>(kTraceRecordCapacity - 1), viewer.Records()[0].raw.size());
}

TEST_F(WhiteBoxTest, NoViewerMeansNoComposer) {
    viewer.Stop();
    Construct();
    EXPECT_EQ(nullptr, traceStream);
    EXPECT_EQ(nullptr, traceView);
    EXPECT_EQ(nullptr, traceViewerWindow);
}

TEST(GlobalBufferTest, SizeZeroHoldsNoMemory) {
    TGlobalBuffer buffer(0);
    EXPECT_EQ(0u, buffer.size);
    EXPECT_EQ(nullptr, buffer.handle);
    EXPECT_EQ(nullptr, buffer.data);
}

TEST(GlobalBufferTest, BlockIsMovableZeroedAndLocked) {
    TGlobalBuffer buffer(4096);
    ASSERT_NE(nullptr, buffer.data);
    EXPECT_EQ(4096u, buffer.size);
    EXPECT_GE(GlobalSize(buffer.handle), 4096u);
    EXPECT_NE(buffer.handle, buffer.data) << "a movable block's handle is not its address";
    EXPECT_EQ(1u, GlobalFlags(buffer.handle) & GMEM_LOCKCOUNT);
    const BYTE *bytes = static_cast<const BYTE *>(buffer.data);
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(0, bytes[i]) << "byte " << i;
}

TEST(GlobalBufferTest, AllocFreesTheOldBlockFirst) {
    TGlobalBuffer buffer(1024);
    const HGLOBAL old = buffer.handle;
    ASSERT_NE(nullptr, old);
    buffer.Alloc(2048);
    EXPECT_EQ(2048u, buffer.size);
    EXPECT_NE(nullptr, buffer.data);
    // A released handle is either invalid now or reused for the new block; a leaked one would
    // still be valid beside a new, different handle.
    EXPECT_TRUE(buffer.handle == old || GlobalSize(old) == 0) << "the first block must be released";
    buffer.Alloc(0);
    EXPECT_EQ(nullptr, buffer.handle);
    EXPECT_EQ(0u, buffer.size);
}

TEST(GlobalBufferTest, FailedAllocationLeavesTheFieldsZero) {
    TGlobalBuffer buffer(0xFFFFFFF0u);
    EXPECT_EQ(nullptr, buffer.handle);
    EXPECT_EQ(nullptr, buffer.data);
    EXPECT_EQ(0u, buffer.size);
}

TEST(GlobalBufferTest, FreeReleasesAndZeroes) {
    TGlobalBuffer buffer(64);
    const HGLOBAL old = buffer.handle;
    buffer.Free();
    EXPECT_EQ(nullptr, buffer.handle);
    EXPECT_EQ(nullptr, buffer.data);
    EXPECT_EQ(0u, buffer.size);
    EXPECT_EQ(0u, GlobalSize(old));
    // A second release does nothing.
    buffer.Free();
    EXPECT_EQ(nullptr, buffer.handle);
}

} // namespace
