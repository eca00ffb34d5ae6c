// The test bench itself: crashing test programs end at once, TWAIN_32.DLL held by another process is waited for
// and its holder named, and page faults reach a program the way the machine's way of running 32-bit code says.
#include <gtest/gtest.h>

#include <windows.h>

#include "StandInDsm.h"
#include "TestSupport.h"

namespace {

using smtest::ChildProgram;

// Long enough for any child of these tests to end; a child still running after it has hung.
constexpr DWORD kHangMs = 60000;
constexpr DWORD kIllegalInstruction = EXCEPTION_ILLEGAL_INSTRUCTION;

std::string Hex(DWORD code) {
    char text[16];
    wsprintfA(text, "0x%08lX", code);
    return text;
}

TEST(TestBench, CrashEndsTheTestProgramAtOnceWithTheExceptionCode) {
    ChildProgram child("crash");
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Ended(kHangMs)) << "a crashed test program is still running: a debugger is waiting";
    EXPECT_EQ(Hex(kIllegalInstruction), Hex(child.ExitCode()));
    EXPECT_NE(std::string::npos, child.Output().find(std::string(smtest::kCrashBanner) + " 0xC000001D at "))
        << child.Output();
}

TEST(TestBench, ACrashNamesTheCaseItHappenedInBeforeTheExceptionCode) {
    ChildProgram child("crash-noted:case-42,replay:SEED=42");
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Ended(kHangMs)) << "a crashed test program is still running: a debugger is waiting";
    EXPECT_EQ(Hex(kIllegalInstruction), Hex(child.ExitCode()));
    const std::string output = child.Output();
    const size_t note = output.find(std::string(smtest::kCrashNoteBanner) + " case-42,replay:SEED=42");
    const size_t banner = output.find(std::string(smtest::kCrashBanner) + " 0xC000001D at ");
    ASSERT_NE(std::string::npos, note) << output;
    ASSERT_NE(std::string::npos, banner) << output;
    EXPECT_LT(note, banner) << "the note comes first, on a line of its own: " << output;
}

TEST(TestBench, AWritePastAGuardedBufferFaultsAtOnce) {
    ChildProgram child("write-past-guarded-buffer");
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Ended(kHangMs));
    EXPECT_EQ(Hex(smtest::PageFaultExceptionCode()), Hex(child.ExitCode())) << child.Output();
    EXPECT_NE(std::string::npos, child.Output().find("the last byte was written")) << child.Output();
}

TEST(TestBench, ThePrefixStartsNoDebuggerForAProgramWithoutTheCrashFilter) {
    ChildProgram child("crash-unfiltered");
    ASSERT_TRUE(child.Started());
    ASSERT_TRUE(child.Ended(kHangMs)) << "a crashed program is still running: the prefix started a debugger";
    EXPECT_EQ(Hex(kIllegalInstruction), Hex(child.ExitCode()));
    EXPECT_EQ(std::string::npos, child.Output().find(smtest::kCrashBanner)) << child.Output();
}

// A named event for a child that holds TWAIN_32.DLL to signal once it has loaded it.
class HeldTwainDll : public ::testing::Test {
protected:
    void SetUp() override {
        smtest::InstallDsm(smtest::Dsm::Present);
        name_ = "smtest-twain-held-" + std::to_string(GetCurrentProcessId());
        loaded_ = CreateEventA(nullptr, TRUE, FALSE, name_.c_str());
        ASSERT_NE(nullptr, loaded_);
    }
    void TearDown() override {
        if (loaded_)
            CloseHandle(loaded_);
        smtest::InstallDsm(smtest::Dsm::Absent);
    }
    // The child's role: hold the library for `ms`.
    std::string Role(DWORD ms) const { return "hold-twain:" + std::to_string(ms) + ":" + name_; }
    bool ChildHasLoadedIt() const { return WaitForSingleObject(loaded_, kHangMs) == WAIT_OBJECT_0; }

    std::string name_;
    HANDLE loaded_ = nullptr;
};

TEST_F(HeldTwainDll, RemovingWaitsForTheHolderToGo) {
    ChildProgram holder(Role(1500));
    ASSERT_TRUE(holder.Started());
    ASSERT_TRUE(ChildHasLoadedIt()) << "exit code " << holder.ExitCode();
    ASSERT_FALSE(PlaceTwainDllOnce(nullptr)) << "the file could be removed while another process had it loaded";

    EXPECT_EQ("", smtest::PlaceTwainDllOrExplain(nullptr, kHangMs));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(loaded_, 0)) << "removed before the holder had let it go";
    EXPECT_TRUE(holder.Ended(kHangMs));
    EXPECT_EQ(0u, holder.ExitCode());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(smtest::TwainPath().c_str()));
}

TEST_F(HeldTwainDll, PlacingGivesUpNamingTheHolder) {
    ChildProgram holder(Role(kHangMs));
    ASSERT_TRUE(holder.Started());
    ASSERT_TRUE(ChildHasLoadedIt()) << "exit code " << holder.ExitCode();

    const std::string problem = smtest::PlaceTwainDllOrExplain("testdsm_noentry.dll", 300);
    const std::string exe = "testbench_test.exe (pid " + std::to_string(holder.Id()) + ")";
    // Wine answers a sharing violation or access denied, as Windows does, depending on how the file is held.
    EXPECT_EQ(0u, problem.find("placing TWAIN_32.DLL failed (error ")) << problem;
    EXPECT_NE(std::string::npos, problem.find(") after waiting 0 s: held by " + exe)) << problem;
    EXPECT_FALSE(holder.Ended(0));
}

TEST(TestBench, TheHoldersOfAFileNobodyHoldsAreNoneAndTheOthersAreListed) {
    smtest::InstallDsm(smtest::Dsm::Absent);
    const std::string holders = smtest::TwainDllHolders();
    EXPECT_EQ(0u, holders.find("no process has it loaded; running besides this test program: ")) << holders;
    // Wine's services run in every prefix.
    EXPECT_NE(std::string::npos, holders.find("services.exe (pid ")) << holders;
}

// qemu-user delivers a page fault to Wine without its trap number, and Wine raises it as an illegal instruction: a
// guarded read inside Wine (GlobalLock of a handle that is no global memory) then cannot be caught there.
TEST(TestBench, PageFaultsArriveAsTheMachinesWayOfRunning32BitCodeMakesThem) {
    const std::string mode = smtest::RunMode();
    ASSERT_FALSE(mode.empty()) << "SMK_I386_MODE is not set: run the tests through build/wine-run";
    const DWORD code = smtest::PageFaultExceptionCode();
    if (mode == "native") {
        EXPECT_EQ(Hex(EXCEPTION_ACCESS_VIOLATION), Hex(code));
    } else {
        ASSERT_EQ(0u, mode.find("emulated ")) << mode;
        EXPECT_EQ(Hex(kIllegalInstruction), Hex(code))
            << "the emulator now reports page faults as such: the codec's lock-failure test can run under it too";
    }
}

} // namespace
