// Entry of every GoogleTest program of the project: no error boxes, a crash ends the program at once, then the tests
// (or one of the test bench's child roles, when the first argument names one).
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "TestSupport.h"

namespace {

// An unhandled exception ends the program with the exception's code, without a debugger that would wait for a
// console (or, under an emulator, never get the crashed process's memory), so that the next test starts clean.
LONG WINAPI EndOnCrash(EXCEPTION_POINTERS *info) {
    const EXCEPTION_RECORD *record = info->ExceptionRecord;
    std::fprintf(stderr, "%s 0x%08lX at %p; ending the process\n", smtest::kCrashBanner, record->ExceptionCode,
                 record->ExceptionAddress);
    std::fflush(stderr);
    TerminateProcess(GetCurrentProcess(), record->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

int main(int argc, char **argv) {
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX | SEM_NOGPFAULTERRORBOX);
    if (argc > 1 && std::strncmp(argv[1], smtest::kChildRolePrefix, std::strlen(smtest::kChildRolePrefix)) == 0)
        return smtest::RunChildRole(argv[1], EndOnCrash);
    SetUnhandledExceptionFilter(EndOnCrash);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
