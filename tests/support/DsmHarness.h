// Test support for the stand-in source manager's own suites: twain_32 files, win.ini, the application side, fakeds.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "VscanSupport.h"
#include "fakeds.h"

namespace smtest {

// Empties twain_32 (keeping the directory itself).
void CleanTwainDir();
// Installs a built source (fakeds.ds by default) as twain_32\<relative>; returns the full path.
std::string PutSource(const std::string &relative, const char *binary = "fakeds.ds");
// Writes a file that is no DLL at twain_32\<relative>; returns the full path.
std::string PutNonSource(const std::string &relative);

// win.ini [Twain] "Default Source".
void SetDefaultSourceEntry(const std::string &path);
void ClearDefaultSourceEntry();
// The entry's value, or "<missing>".
std::string DefaultSourceEntry();

std::string NameOf(const TW_IDENTITY &identity);
TW_IDENTITY IdentityNamed(const char *productName);
TW_FIX32 Fix32(TW_INT16 whole);
TW_UINT32 Fix32Bits(TW_INT16 whole);

// Return and condition codes compared by name, for readable failures.
::testing::AssertionResult RcIs(const char *, const char *, unsigned expected, unsigned actual);
::testing::AssertionResult CcIs(const char *, const char *, unsigned expected, unsigned actual);
#define EXPECT_RC(expected, actual) EXPECT_PRED_FORMAT2(::smtest::RcIs, expected, actual)
#define ASSERT_RC(expected, actual) ASSERT_PRED_FORMAT2(::smtest::RcIs, expected, actual)
#define EXPECT_CC(expected, actual) EXPECT_PRED_FORMAT2(::smtest::CcIs, expected, actual)

// The controls of one fakeds.ds file, through the module the manager loads from the same path.
class FakeSource {
public:
    ~FakeSource() { Detach(); }
    // Loads the file (or takes another reference to it); false when it is no fake source.
    bool Attach(const std::string &path);
    void Detach();
    std::vector<FakeDsCall> Calls() const;
    void Reset() { Get<FakeDsResetProc>("FakeDsReset")(); }
    void SetProductName(const char *name) { Get<FakeDsSetProductNameProc>("FakeDsSetProductName")(name); }
    void FailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
        Get<FakeDsFailTripletProc>("FakeDsFailTriplet")(dg, dat, msg, rc, cc);
    }
    void SetContainers(int mode) { Get<FakeDsSetContainersProc>("FakeDsSetContainers")(mode); }
    bool IsOpen() const { return Get<FakeDsIsOpenProc>("FakeDsIsOpen")() != 0; }
    TW_UINT16 PostMessage(TW_UINT16 msg) { return Get<FakeDsPostMessageProc>("FakeDsPostMessage")(msg); }

private:
    template <typename T> T Get(const char *name) const {
        return reinterpret_cast<T>(reinterpret_cast<void *>(Proc(name)));
    }
    FARPROC Proc(const char *name) const;
    HMODULE module_ = nullptr;
};

// The fixture of the stand-in's suites: a fresh stand-in, an empty twain_32, no win.ini default, an application
// identity and a window.
class DsmTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // DSM_Entry with the application as origin.
    TW_UINT16 Entry(pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data);
    TW_UINT16 OpenDsm();
    TW_UINT16 CloseDsm();
    // The manager's condition code (no destination) or a source's; 0xffff when the query fails.
    TW_UINT16 Status(pTW_IDENTITY dest = nullptr);
    TW_UINT16 Identity(TW_UINT16 msg, TW_IDENTITY *identity);
    // MSG_GETFIRST and MSG_GETNEXT until the list ends: the product names.
    std::vector<std::string> ListNames();
    // Opens the source of that name ("" for the default); ASSERTs success.
    TW_IDENTITY OpenSource(const char *productName);
    // The log entries of one triplet.
    std::vector<TdsmCall> CallsOf(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) const;

    DsmControl dsm;
    DSMENTRYPROC entry = nullptr;
    TW_IDENTITY app;
    HWND window = nullptr;
};

constexpr TW_UINT16 kStatusFailed = 0xffff;

} // namespace smtest
