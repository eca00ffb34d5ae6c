// Test support: a program of the build run as a child process, its output captured, this thread's messages pumped.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <ostream>
#include <string>
#include <vector>

namespace smtest {

// What a child program left behind.
struct ProgramRun {
    DWORD exitCode = 0;
    std::string out;
    std::string err;
    std::vector<std::string> OutLines() const { return Lines(out); }
    std::vector<std::string> ErrLines() const { return Lines(err); }
    // The lines of a text, without their CR LF or LF; a last line without one counts too.
    static std::vector<std::string> Lines(const std::string &text);
};

std::ostream &operator<<(std::ostream &os, const ProgramRun &run);

// A child program, started with pipes for its standard output and error. While it is waited for, this thread's
// messages are pumped, so that a window of the test (a trace viewer) can take what the child sends it.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    // `program` (a full path) with `arguments`, in `directory`.
    ::testing::AssertionResult Start(const std::string &program, const std::vector<std::string> &arguments,
                                     const std::string &directory);
    // Ends it at once, as a user's kill would; Wait() then collects what it left.
    void Terminate() {
        if (process_)
            TerminateProcess(process_, kTerminatedExitCode);
    }
    static constexpr UINT kTerminatedExitCode = 0xDEAD;
    DWORD ProcessId() const { return process_ ? GetProcessId(process_) : 0; }
    // Waits up to `limitMs`, pumping messages; one that has not ended by then is terminated and the result fails.
    // The exit code and the output are in Run() afterwards.
    ::testing::AssertionResult Wait(DWORD limitMs);
    const ProgramRun &Run() const { return run_; }

private:
    void Finish();
    std::string commandLine_;
    HANDLE process_ = nullptr;
    HANDLE readers_[2] = {nullptr, nullptr};
    // The read end of one of the child's output pipes, the child itself, and what came through the pipe.
    struct Pipe {
        HANDLE handle = nullptr;
        HANDLE child = nullptr;
        std::string text;
        static DWORD WINAPI Read(void *self);
    } pipes_[2];
    ProgramRun run_;
};

// Start and Wait in one.
::testing::AssertionResult RunProgram(const std::string &program, const std::vector<std::string> &arguments,
                                      const std::string &directory, DWORD limitMs, ProgramRun &run);

// Pumps this thread's messages until `done` says so or `limitMs` passed; the last answer of `done`.
template <typename Done> bool PumpUntil(Done done, DWORD limitMs) {
    const DWORD start = GetTickCount();
    while (!done()) {
        if (GetTickCount() - start >= limitMs)
            return done();
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_ALLINPUT);
    }
    return true;
}

} // namespace smtest
