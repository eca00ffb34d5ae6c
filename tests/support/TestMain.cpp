// Entry of every GoogleTest program of the project: no error boxes, a crash ends the program at once, then the tests
// (or one of the test bench's child roles, when the first argument names one).
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "TestSupport.h"

namespace {

// "module.dll+0x1234" for a code address, or the bare address outside every module.
void PrintAddress(const char *label, const void *address) {
    HMODULE module = nullptr;
    char path[MAX_PATH] = "";
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           static_cast<const char *>(address), &module) &&
        GetModuleFileNameA(module, path, sizeof path)) {
        const char *name = std::strrchr(path, '\\');
        std::fprintf(stderr, "  %s %s+0x%lx\n", label, name ? name + 1 : path,
                     static_cast<unsigned long>(static_cast<const char *>(address) - reinterpret_cast<char *>(module)));
    } else {
        std::fprintf(stderr, "  %s %p\n", label, address);
    }
}

bool Readable(const void *address, size_t size) {
    MEMORY_BASIC_INFORMATION info;
    if (!VirtualQuery(address, &info, sizeof info) || info.State != MEM_COMMIT ||
        (info.Protect & (PAGE_NOACCESS | PAGE_GUARD)))
        return false;
    return static_cast<const char *>(address) + size <= static_cast<const char *>(info.BaseAddress) + info.RegionSize;
}

// The callers the frame pointers lead to, as far as they can be followed.
void PrintFrames(const CONTEXT *context) {
    PrintAddress("at", reinterpret_cast<const void *>(context->Eip));
    const DWORD *frame = reinterpret_cast<const DWORD *>(context->Ebp);
    for (int depth = 0; depth < 16 && Readable(frame, 2 * sizeof(DWORD)); ++depth) {
        PrintAddress("called from", reinterpret_cast<const void *>(frame[1]));
        const DWORD *next = reinterpret_cast<const DWORD *>(frame[0]);
        if (next <= frame)
            break;
        frame = next;
    }
}

// An unhandled exception ends the program with the exception's code, without a debugger that would wait for a
// console (or, under an emulator, never get the crashed process's memory), so that the next test starts clean.
LONG WINAPI EndOnCrash(EXCEPTION_POINTERS *info) {
    const EXCEPTION_RECORD *record = info->ExceptionRecord;
    if (*smtest::CrashNote())
        std::fprintf(stderr, "%s %s\n", smtest::kCrashNoteBanner, smtest::CrashNote());
    std::fprintf(stderr, "%s 0x%08lX at %p; ending the process\n", smtest::kCrashBanner, record->ExceptionCode,
                 record->ExceptionAddress);
    PrintFrames(info->ContextRecord);
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
