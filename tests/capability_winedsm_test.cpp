// Every scanner setting end to end through Wine's own source manager, with the virtual scanner as its sane.ds.

// Each value set is read back, and no container is left in global memory.
#include <gtest/gtest.h>

#include "CapabilityExports.h"
#include "GlobalMemoryTracker.h"
#include "TestSupport.h"
#include "VscanSupport.h"
#include "smkernal.h"

using namespace smtest;

namespace {

class CapabilityWineDsmTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string source;
        StartUnderWineManager(viewer, library, source);
        ASSERT_FALSE(HasFatalFailure());
        sm.Resolve(library);
        ASSERT_EQ(std::vector<std::string>{}, sm.Missing());
        openDS = library.Get<decltype(openDS)>("smOpenDS");
        closeDS = library.Get<decltype(closeDS)>("smCloseDS");
        ASSERT_TRUE(openDS && closeDS);
        window = CreateWindowA("STATIC", "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr,
                               nullptr);
        ASSERT_EQ(SM_OK, openDS(window, "Wine capability test"));
        HMODULE scanner = GetModuleHandleA(source.c_str());
        ASSERT_NE(nullptr, scanner) << "Wine's manager loaded " << source;
        ASSERT_GE(tracker.Attach(library.Module()), 2);
        ASSERT_GE(tracker.Attach(scanner), 2);
        viewer.Clear();
        tracker.Begin();
    }
    void TearDown() override {
        tracker.Detach();
        if (closeDS)
            closeDS();
        library.Free();
        ReleaseSourceKeptByWine();
        viewer.Stop();
        if (window)
            DestroyWindow(window);
    }

    TraceViewer viewer;
    ScanLibrary library;
    CapabilityExports sm;
    GlobalMemoryTracker tracker;
    HWND window = nullptr;
    LONG(WINAPI *openDS)(HWND, const char *) = nullptr;
    LONG(WINAPI *closeDS)() = nullptr;
};

TEST_F(CapabilityWineDsmTest, EveryValueSetIsReadBack) {
    CheckRoundTrips(sm);
    EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
    EXPECT_EQ(0, tracker.DoubleFrees());
    EXPECT_GT(tracker.Allocations(), 100) << "the containers of every negotiation were counted";
}

TEST_F(CapabilityWineDsmTest, SnapshotAndBufferSizes) {
    ASSERT_EQ(SM_OK, sm.setXResolution(200));
    ScanCapBytes record;
    std::memset(&record, 0x55, sizeof record);
    EXPECT_EQ(SM_OK, sm.getScanCap(&record));
    EXPECT_EQ(104, record.At(0));
    EXPECT_EQ(600, record.At(60));
    EXPECT_EQ(50, record.At(64));
    EXPECT_EQ(300, record.At(68));
    EXPECT_EQ(8, record.At(72));
    EXPECT_EQ(10200, record.At(76));
    EXPECT_EQ(16800, record.At(80));
    EXPECT_EQ(1, record.At(84));
    EXPECT_EQ(4, record.At(88));
    DWORD minimum = 0, maximum = 0, preferred = 0;
    EXPECT_EQ(SM_OK, sm.getMemXferSize(&minimum, &maximum, &preferred));
    EXPECT_EQ(static_cast<LONG>(maximum), record.At(92));
    EXPECT_EQ(5100u, minimum) << "one RGB row of 8.5 inches at 200 dpi";
    EXPECT_TRUE(tracker.Live().empty()) << tracker.Describe();
}

TEST_F(CapabilityWineDsmTest, WithoutAnOpenSourceEveryAccessorIsASequenceError) {
    ASSERT_EQ(SM_OK, closeDS());
    LONG answer = 0;
    WORD flag = 0;
    short value = 0;
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getADFEnable(&answer));
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.setPixelType(SM_PIXEL_BW));
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getUnit(&flag));
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.getBrightness(&value, 0, 100));
    EXPECT_EQ(SM_ERR_SEQUENCE, sm.setXResolution(300));
    EXPECT_EQ(0, tracker.Allocations());
}

} // namespace
