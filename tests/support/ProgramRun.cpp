// Test support: child programs with their output captured through pipes, waited for while messages are pumped.
#include "ProgramRun.h"

#include "CommandLine.h"

namespace smtest {

namespace {

// How often a reader looks into a pipe that has nothing yet.
constexpr DWORD kReaderPollMs = 10;

} // namespace

std::vector<std::string> ProgramRun::Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::string line;
    for (char c : text) {
        if (c == '\r')
            continue;
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

std::ostream &operator<<(std::ostream &os, const ProgramRun &run) {
    return os << "exit code " << run.exitCode << "\n--- stdout:\n" << run.out << "--- stderr:\n" << run.err;
}

ChildProcess::~ChildProcess() {
    if (process_)
        TerminateProcess(process_, kTerminatedExitCode);
    Finish();
}

::testing::AssertionResult ChildProcess::Start(const std::string &program, const std::vector<std::string> &arguments,
                                               const std::string &directory) {
    commandLine_ = smk::QuoteArgument(program);
    for (const std::string &argument : arguments)
        commandLine_ += " " + smk::QuoteArgument(argument);
    SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
    HANDLE writeEnds[2] = {nullptr, nullptr};
    for (int i = 0; i < 2; ++i) {
        if (!CreatePipe(&pipes_[i].handle, &writeEnds[i], &inherit, 0))
            return ::testing::AssertionFailure() << "no pipes (error " << GetLastError() << ")";
        SetHandleInformation(pipes_[i].handle, HANDLE_FLAG_INHERIT, 0);
    }
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = writeEnds[0];
    startup.hStdError = writeEnds[1];
    PROCESS_INFORMATION process = {};
    std::vector<char> line(commandLine_.begin(), commandLine_.end());
    line.push_back('\0');
    const BOOL started =
        CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, directory.c_str(), &startup, &process);
    const DWORD startError = GetLastError();
    CloseHandle(writeEnds[0]);
    CloseHandle(writeEnds[1]);
    if (!started) {
        Finish();
        return ::testing::AssertionFailure() << "cannot start " << commandLine_ << " (error " << startError << ")";
    }
    CloseHandle(process.hThread);
    process_ = process.hProcess;
    for (int i = 0; i < 2; ++i) {
        DuplicateHandle(GetCurrentProcess(), process_, GetCurrentProcess(), &pipes_[i].child, SYNCHRONIZE, FALSE, 0);
        readers_[i] = CreateThread(nullptr, 0, Pipe::Read, &pipes_[i], 0, nullptr);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult ChildProcess::Wait(DWORD limitMs) {
    if (!process_)
        return ::testing::AssertionFailure() << "no program was started";
    const bool ended = PumpUntil([this] { return WaitForSingleObject(process_, 0) == WAIT_OBJECT_0; }, limitMs);
    if (!ended)
        TerminateProcess(process_, kTerminatedExitCode);
    WaitForSingleObject(process_, INFINITE);
    GetExitCodeProcess(process_, &run_.exitCode);
    CloseHandle(process_);
    process_ = nullptr;
    Finish();
    if (!ended)
        return ::testing::AssertionFailure() << commandLine_ << " did not end within " << limitMs / 1000 << " s\n"
                                             << run_;
    return ::testing::AssertionSuccess();
}

// The end of the pipe is not waited for: a program the child starts can keep its write end for good (Wine's desktop
// process, started by the first program of a prefix that needs a window, is handed its starter's standard error). So
// the reader only reads what is there, and stops once the child has ended and all it wrote is read.
DWORD WINAPI ChildProcess::Pipe::Read(void *self) {
    Pipe &pipe = *static_cast<Pipe *>(self);
    char buffer[4096];
    for (;;) {
        // Asked before the pipe: once the child has ended, everything it wrote is in the pipe.
        const bool ended = WaitForSingleObject(pipe.child, 0) == WAIT_OBJECT_0;
        DWORD available = 0;
        if (!PeekNamedPipe(pipe.handle, nullptr, 0, nullptr, &available, nullptr))
            return 0; // every writer is gone
        if (available == 0) {
            if (ended)
                return 0;
            WaitForSingleObject(pipe.child, kReaderPollMs);
            continue;
        }
        DWORD got = 0;
        if (!ReadFile(pipe.handle, buffer, available < sizeof buffer ? available : sizeof buffer, &got, nullptr) ||
            got == 0)
            return 0;
        pipe.text.append(buffer, got);
    }
}

void ChildProcess::Finish() {
    for (HANDLE &reader : readers_) {
        if (reader) {
            WaitForSingleObject(reader, INFINITE);
            CloseHandle(reader);
        }
        reader = nullptr;
    }
    for (Pipe &pipe : pipes_) {
        for (HANDLE *handle : {&pipe.handle, &pipe.child}) {
            if (*handle)
                CloseHandle(*handle);
            *handle = nullptr;
        }
    }
    run_.out = pipes_[0].text;
    run_.err = pipes_[1].text;
}

::testing::AssertionResult RunProgram(const std::string &program, const std::vector<std::string> &arguments,
                                      const std::string &directory, DWORD limitMs, ProgramRun &run) {
    ChildProcess child;
    ::testing::AssertionResult started = child.Start(program, arguments, directory);
    if (!started)
        return started;
    ::testing::AssertionResult result = child.Wait(limitMs);
    run = child.Run();
    return result;
}

} // namespace smtest
