// The fixture of the virtual scanner's suites: a fresh source per test, driven through DS_Entry, and its checks.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "VscanSupport.h"

// The return code, by name, with the source's condition code when it differs; a failure message may follow.
#define EXPECT_TWRC(expected, expr) EXPECT_TRUE(smtest::TwrcIs(ds, expected, (expr), #expr))
#define ASSERT_TWRC(expected, expr) ASSERT_TRUE(smtest::TwrcIs(ds, expected, (expr), #expr))
// TWRC_FAILURE with this condition code.
#define EXPECT_TWFAIL(cc, expr) EXPECT_TRUE(smtest::FailsWith(ds, cc, (expr), #expr))

namespace smtest {

// Two steps of a TW_FIX32: a value sent and read back through containers is this close.
constexpr double kFixTolerance = 2.0 / 65536;

inline ::testing::AssertionResult TwrcIs(VscanLibrary &ds, TW_UINT16 expected, TW_UINT16 rc, const char *expr) {
    if (rc == expected)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << expr << " answered " << TwrcName(rc) << " (condition "
                                         << TwccName(ds.Status()) << "), expected " << TwrcName(expected);
}

inline ::testing::AssertionResult FailsWith(VscanLibrary &ds, TW_UINT16 cc, TW_UINT16 rc, const char *expr) {
    if (rc != TWRC_FAILURE)
        return ::testing::AssertionFailure() << expr << " answered " << TwrcName(rc) << ", expected TWRC_FAILURE";
    const TW_UINT16 status = ds.Status();
    if (status != cc)
        return ::testing::AssertionFailure()
               << expr << " failed with " << TwccName(status) << ", expected " << TwccName(cc);
    return ::testing::AssertionSuccess();
}

class VscanTest : public ::testing::Test {
protected:
    void SetUp() override {
        DeleteFileA(IniPath().c_str());
        ASSERT_TRUE(ds.Load()) << "vscan.ds or one of its Vscan exports is missing";
        ds.reset();
    }
    void TearDown() override {
        if (ds.Module())
            ds.reset();
        ds.Free();
        DeleteFileA(IniPath().c_str());
        DrainMessages();
    }

    // vscan.ini beside the loaded source.
    static std::string IniPath() { return BinDir() + "\\vscan.ini"; }
    static void DrainMessages() {
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE))
            DispatchMessageA(&msg);
    }

    // State 4, and a small frame (1 x 0.5 inch: 100 x 50 pixels at the default 100 dpi).
    void OpenSmall() {
        ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, 1, 0.5));
    }
    // State 4 to 6 without the interface.
    void EnableToReady() {
        ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false));
        ASSERT_EQ(MSG_XFERREADY, ds.WaitEvent());
        ASSERT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    }
    // The pixel format and transfer mechanism, in state 4.
    void Negotiate(const Format &f, TW_UINT16 mech) {
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, f.pixelType));
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, f.bitDepth));
        if (f.pixelType == TWPT_RGB) {
            ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PLANARCHUNKY, TWTY_UINT16, f.planar ? TWPC_PLANAR : TWPC_CHUNKY));
        }
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, mech));
    }
    TW_IMAGEINFO ImageInfo() {
        TW_IMAGEINFO info{};
        EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info));
        return info;
    }
    TW_UINT16 EndXfer(TW_UINT16 &count) {
        TW_PENDINGXFERS pending{};
        const TW_UINT16 rc = ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending);
        count = pending.Count;
        return rc;
    }

    VscanLibrary ds;
};

} // namespace smtest
