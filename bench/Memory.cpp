// Peak memory of one run in a process of its own: the parent starts it, the child scans and reports its figures.
#include "Memory.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace bench {

namespace {

// The small first run that loads and touches what the measured run needs.
constexpr int kWarmUpDpi = 50;
constexpr DWORD kChildTimeoutMs = 300000;
// Time the sampling thread is given to start before the idle figure is read.
constexpr DWORD kSettleMs = 50;

// Reads the private memory over and over while it lives (only yielding the processor in between, so that runs of a
// few milliseconds are seen too) and keeps the highest figure.
class PeakSampler {
public:
    PeakSampler() : peak_(PrivateMemory()) { thread_ = CreateThread(nullptr, 0, Sample, this, 0, nullptr); }
    // The figure now, which becomes the highest one: the sampling thread's own memory counts as idle.
    SIZE_T Restart() {
        Sleep(kSettleMs);
        const SIZE_T now = PrivateMemory();
        peak_ = now;
        return now;
    }
    // Stops sampling; the highest figure seen.
    SIZE_T Stop() {
        stop_ = 1;
        WaitForSingleObject(thread_, INFINITE);
        CloseHandle(thread_);
        const SIZE_T last = PrivateMemory();
        return last > peak_ ? last : peak_;
    }

private:
    static DWORD WINAPI Sample(void *self) {
        auto *sampler = static_cast<PeakSampler *>(self);
        while (!sampler->stop_) {
            const SIZE_T now = PrivateMemory();
            if (now > sampler->peak_)
                sampler->peak_ = now;
            SwitchToThread();
        }
        return 0;
    }
    HANDLE thread_ = nullptr;
    volatile LONG stop_ = 0;
    volatile SIZE_T peak_ = 0;
};

} // namespace

MemoryResult MeasureMemory(Variant variant, int format, int dpi, int repeatRows, const std::string &outDir) {
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string results = outDir + "\\memory.txt";
    DeleteFileA(results.c_str());
    std::string commandLine = std::string("\"") + program + "\" --memory " + std::to_string(static_cast<int>(variant)) +
                              " " + std::to_string(format) + " " + std::to_string(dpi) + " " +
                              std::to_string(repeatRows) + " \"" + outDir + "\"";
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!CreateProcessA(program, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process))
        Fail("the memory measurement's process did not start");
    const bool ended = WaitForSingleObject(process.hProcess, kChildTimeoutMs) == WAIT_OBJECT_0;
    DWORD code = 1;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    if (!ended || code != 0)
        Fail("the memory measurement of \"%s\" failed", InfoOf(variant).label);
    MemoryResult result;
    std::ifstream in(results);
    result.measured = static_cast<bool>(in >> result.idle >> result.peak);
    in.close();
    DeleteFileA(results.c_str());
    return result;
}

int RunMemoryChild(int argc, char **argv) {
    if (argc < 5)
        Fail("--memory wants a variant, a format, a resolution, the rows to repeat and a directory");
    const auto variant = static_cast<Variant>(std::atoi(argv[0]));
    const int format = std::atoi(argv[1]);
    const int dpi = std::atoi(argv[2]);
    const int repeatRows = std::atoi(argv[3]);
    const std::string outDir = argv[4];
    if (variant >= Variant::Count || format < 0 || format >= kFormatCount)
        Fail("no such variant or format");
    Runner runner(outDir);
    runner.RepeatRows(repeatRows);
    // The library stays loaded from the first run on, as in an application that has it loaded, ready to scan: the
    // idle figure includes it. (One kind of run per process: a scan to file's mode would outlive its run.)
    const HMODULE library = LoadLibraryA((ProgramDir() + "\\smkernal.dll").c_str());
    const Scan scan = {&kFormats[format], dpi};
    // The application's own page buffer is there, and touched, before the idle figure is taken.
    if (variant == Variant::ReadBlock || variant == Variant::DirectBuffer)
        runner.PreparePageBuffer(scan);
    runner.Run(variant, {&kFormats[format], kWarmUpDpi});
    PeakSampler sampler;
    const SIZE_T idle = sampler.Restart();
    runner.Run(variant, scan);
    const SIZE_T peak = sampler.Stop();
    std::ofstream out(outDir + "\\memory.txt");
    out << idle << ' ' << peak << '\n';
    FreeLibrary(library);
    const std::string file = runner.FileOf(variant, scan);
    if (!file.empty())
        DeleteFileA(file.c_str());
    return out ? 0 : 1;
}

} // namespace bench
