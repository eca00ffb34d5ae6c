// smbench: throughput, per-call overhead and peak memory of smkernal.dll against the same work done directly through
// the source manager, with the virtual scanner as the source. Run it with scripts/bench (see the README).
#include <windows.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Bench.h"
#include "Calls.h"
#include "Memory.h"
#include "Runs.h"

using namespace bench;

namespace {

constexpr int kFullDpi = 600;
constexpr int kQuickDpi = 150;
// The rows the scanner renders once per image and repeats (a few of them, so that they stay in the cache).
constexpr int kRepeatRows = 8;
// Repetitions: at least 5; 9 by default, as the machines the benchmark runs on are rarely quiet, 5 for --quick.
constexpr int kMinRepetitions = 5;
constexpr int kRepetitions = 9;
constexpr int kQuickRepetitions = 5;
// The per-call measurement runs the library's calls and the direct ones in turns, this many turns of each per
// repetition: a call costs a few microseconds, and many short turns see the machine's other work alike.
constexpr int kCallTurnsPerRepetition = 5;
// Calls of each kind per turn, at most; fewer when the library's calls of a turn would take longer than the budget
// (seconds), as where every record crosses to the viewer.
constexpr int kCalls = 10000;
constexpr int kQuickCalls = 2000;
constexpr double kCallBudget = 0.1;
constexpr double kQuickCallBudget = 0.03;
constexpr double kMegabyte = 1e6;
constexpr double kMebibyte = 1024.0 * 1024.0;

struct Options {
    bool quick = false;
    int dpi = kFullDpi;
    int repetitions = kRepetitions;
    int calls = kCalls;
    double callBudget = kCallBudget;
    bool memory = true;
    bool scans = true;   // the throughput and memory of the scans
    bool perCall = true; // the per-call overhead
    std::string outDir;
};

void Usage() {
    std::printf("usage: smbench [--quick] [--dpi=N] [--repetitions=N] [--calls=N] [--no-memory] [--calls-only]\n"
                "               [--scans-only] [--out=DIR]\n"
                "  --quick          150 dpi pages and fewer calls (within a minute)\n"
                "  --dpi=N          the pages' resolution (default 600; the scanner takes 50 to 600)\n"
                "  --repetitions=N  interleaved repetitions of every run, at least 5 (default 9, --quick 5)\n"
                "  --calls=N        calls per turn of the per-call measurement (5 turns a repetition), at most\n"
                "                   (default 10000, --quick 2000; fewer where they would take more than 0.1 s,\n"
                "                   --quick 0.03 s)\n"
                "  --no-memory      leaves out the peak memory of each run (a process per run)\n"
                "  --calls-only     measures only the per-call overhead; --scans-only leaves it out\n"
                "  --out=DIR        where the bitmap files go (default the temporary directory's smbench)\n");
}

bool Value(const char *argument, const char *name, int &value) {
    const size_t length = std::strlen(name);
    if (std::strncmp(argument, name, length) != 0 || argument[length] != '=')
        return false;
    value = std::atoi(argument + length + 1);
    return true;
}

Options Parse(int argc, char **argv) {
    Options o;
    bool dpiGiven = false, callsGiven = false, repetitionsGiven = false;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (std::strcmp(a, "--quick") == 0) {
            o.quick = true;
        } else if (Value(a, "--dpi", o.dpi)) {
            dpiGiven = true;
        } else if (Value(a, "--repetitions", o.repetitions)) {
            repetitionsGiven = true;
        } else if (Value(a, "--calls", o.calls)) {
            callsGiven = true;
        } else if (std::strcmp(a, "--no-memory") == 0) {
            o.memory = false;
        } else if (std::strcmp(a, "--calls-only") == 0) {
            o.scans = false;
        } else if (std::strcmp(a, "--scans-only") == 0) {
            o.perCall = false;
        } else if (std::strncmp(a, "--out=", 6) == 0) {
            o.outDir = a + 6;
        } else {
            Usage();
            std::exit(std::strcmp(a, "--help") == 0 ? 0 : 2);
        }
    }
    if (o.quick && !dpiGiven)
        o.dpi = kQuickDpi;
    if (o.quick && !callsGiven)
        o.calls = kQuickCalls;
    if (o.quick)
        o.callBudget = kQuickCallBudget;
    if (o.quick && !repetitionsGiven)
        o.repetitions = kQuickRepetitions;
    if (o.repetitions < kMinRepetitions || o.dpi < 50 || o.dpi > 600 || o.calls < 1)
        Fail("at least %d repetitions, 50 to 600 dpi and a call at least, please", kMinRepetitions);
    if (o.outDir.empty()) {
        char temp[MAX_PATH];
        GetTempPathA(sizeof temp, temp);
        o.outDir = std::string(temp) + "smbench";
    }
    CreateDirectoryA(o.outDir.c_str(), nullptr);
    return o;
}

// The library's scan to file refuses an image when the free space of the file's drive, multiplied out in 32 bits, is
// smaller than the image less 128 KiB: a drive with tens of gigabytes free may read as nearly full. The benchmark stops
// before it starts when the output drive reads so for its largest page.
void CheckFreeSpaceAsTheLibraryReadsIt(const Options &options) {
    const std::string root = options.outDir.substr(0, 3);
    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, totalClusters = 0;
    if (GetDiskFreeSpaceA(root.c_str(), &sectorsPerCluster, &bytesPerSector, &freeClusters, &totalClusters) != 1)
        return;
    const DWORD asRead = freeClusters * bytesPerSector * sectorsPerCluster;
    const Scan largest = {&kFormats[0], options.dpi};
    const double needed = ImageBytes(largest) - 128 * 1024;
    if (needed > asRead)
        Fail("the library reads the free space of %s as %lu bytes (its 32-bit product wraps), too little for a %d dpi "
             "page: give --out a directory on a drive with less than 4 GiB free, e.g. the tmpfs drive scripts/bench "
             "mounts",
             root.c_str(), static_cast<unsigned long>(asRead), options.dpi);
}

// How 32-bit code runs, as the Wine wrapper of the build tells it.
std::string I386Mode() {
    const char *mode = std::getenv("SMK_I386_MODE");
    if (!mode || !*mode)
        return "not known (run through build/wine-run-winedsm, which tells it)";
    if (std::strcmp(mode, "native") == 0)
        return "natively";
    return std::string(mode);
}

// The pixel bytes from a bitmap file's bfOffBits on.
std::string PixelsOf(const std::string &path) {
    const std::string bytes = ReadWholeFile(path);
    if (bytes.size() < 54)
        return "";
    DWORD offset;
    std::memcpy(&offset, bytes.data() + 10, sizeof offset);
    return offset <= bytes.size() ? bytes.substr(offset) : "";
}

// The source's own bitmaps carry its resolution in the header; the library's strip writer leaves it 0.
LONG PelsPerMeter(const std::string &path) {
    const std::string bytes = ReadWholeFile(path);
    LONG value = 0;
    if (bytes.size() >= 54)
        std::memcpy(&value, bytes.data() + 38, sizeof value);
    return value;
}

// After the first repetition: every file and page must be what the direct baseline made of the same image, so that
// all of them did the same work.
void Verify(Runner &runner, const Scan &scan, const std::map<Variant, std::vector<BYTE>> &pages) {
    const std::string direct = runner.FileOf(Variant::DirectMaximum, scan);
    std::string difference;
    if (!SameFileContents(runner.FileOf(Variant::ScanToFileMemory, scan), direct, difference))
        Fail("%s: the scan to file by memory differs from the direct bitmap: %s", scan.format->name,
             difference.c_str());
    if (!SameFileContents(runner.FileOf(Variant::AppMemory, scan), runner.FileOf(Variant::DirectPreferred, scan),
                          difference))
        Fail("%s: the application's bitmap differs from the direct one: %s", scan.format->name, difference.c_str());
    if (!SameFileContents(runner.FileOf(Variant::DirectPreferred, scan), direct, difference))
        Fail("%s: the direct bitmaps of the two buffer sizes differ: %s", scan.format->name, difference.c_str());
    if (!SameFileContents(runner.FileOf(Variant::DirectRowByRow, scan), direct, difference))
        Fail("%s: the direct bitmap written row by row differs: %s", scan.format->name, difference.c_str());
    for (Variant variant : {Variant::ScanToFileNative, Variant::ScanToFileFile}) {
        const std::string file = runner.FileOf(variant, scan);
        if (PixelsOf(file) != PixelsOf(direct))
            Fail("%s: the pixels of \"%s\" differ from the direct bitmap's", scan.format->name, InfoOf(variant).label);
        if (PelsPerMeter(file) == 0)
            Fail("%s: \"%s\" did not get the source's own bitmap", scan.format->name, InfoOf(variant).label);
    }
    const auto readBlock = pages.find(Variant::ReadBlock);
    const auto buffer = pages.find(Variant::DirectBuffer);
    if (readBlock != pages.end() && buffer != pages.end() && readBlock->second != buffer->second)
        Fail("%s: the page smReadBlock delivered differs from the direct one", scan.format->name);
}

struct Row {
    double seconds = 0; // median
    double ratio = 0;   // median of the repetitions' ratios to the baseline
    MemoryResult memory;
    DWORD buffer = 0; // the source's size of the run's transfer buffer
};
using Rows = std::vector<std::vector<Row>>; // by format, then variant

std::string Cell(double value, const char *format) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string FileLabel(Variant variant) {
    return InfoOf(variant).label;
}

// The bitmap files of a scan's runs.
void RemoveFiles(Runner &runner, const Scan &scan) {
    for (int v = 0; v < static_cast<int>(Variant::Count); ++v) {
        const std::string file = runner.FileOf(static_cast<Variant>(v), scan);
        if (!file.empty())
            DeleteFileA(file.c_str());
    }
}

// Every run of every format once per repetition, in the same order each time; the seconds by format and variant.
std::vector<std::vector<std::vector<double>>> TimeScans(Runner &runner, const Options &options, double started) {
    const int variants = static_cast<int>(Variant::Count);
    std::vector<std::vector<std::vector<double>>> times(kFormatCount, std::vector<std::vector<double>>(variants));
    for (int r = 0; r < options.repetitions; ++r) {
        for (int f = 0; f < kFormatCount; ++f) {
            const Scan scan = {&kFormats[f], options.dpi};
            std::map<Variant, std::vector<BYTE>> pages;
            for (int v = 0; v < variants; ++v) {
                const auto variant = static_cast<Variant>(v);
                if (!Applies(variant, kFormats[f]))
                    continue;
                times[f][v].push_back(runner.Run(variant, scan));
                // A run's file goes at once (after the first repetition's checks): hundreds of megabytes left for the
                // system to write back would slow the runs after them.
                const std::string file = runner.FileOf(variant, scan);
                if (r > 0 && !file.empty())
                    DeleteFileA(file.c_str());
                if (r == 0 && (variant == Variant::ReadBlock || variant == Variant::DirectBuffer)) {
                    const std::vector<BYTE> &page = runner.PageBuffer();
                    pages[variant].assign(page.begin(), page.begin() + static_cast<size_t>(ImageBytes(scan)));
                }
            }
            if (r == 0) {
                Verify(runner, scan, pages);
                RemoveFiles(runner, scan);
            }
        }
        std::fprintf(stderr, "smbench: repetition %d of %d done (%.0f s)\n", r + 1, options.repetitions,
                     Now() - started);
    }
    return times;
}

// Medians, ratios to the baselines and, each in a process of its own, peak memory.
Rows Summarise(Runner &runner, const Options &options, const std::vector<std::vector<std::vector<double>>> &times) {
    const int variants = static_cast<int>(Variant::Count);
    Rows rows(kFormatCount, std::vector<Row>(variants));
    for (int f = 0; f < kFormatCount; ++f) {
        const Scan scan = {&kFormats[f], options.dpi};
        const TW_SETUPMEMXFER sizes = runner.BufferSizes(scan);
        for (int v = 0; v < variants; ++v) {
            const auto variant = static_cast<Variant>(v);
            if (times[f][v].empty())
                continue;
            Row &row = rows[f][v];
            row.seconds = Median(times[f][v]);
            row.buffer = InfoOf(variant).buffer == BufferSize::Maximum ? sizes.MaxBufSize : sizes.Preferred;
            const Variant baseline = InfoOf(variant).baseline;
            if (baseline != Variant::Count) {
                std::vector<double> ratios;
                for (size_t r = 0; r < times[f][v].size(); ++r)
                    ratios.push_back(times[f][v][r] / times[f][static_cast<int>(baseline)][r]);
                row.ratio = Median(ratios);
            }
            if (options.memory)
                row.memory = MeasureMemory(variant, f, options.dpi, kRepeatRows, options.outDir);
        }
    }
    return rows;
}

// The one table: a row per run and format, then a row per call and tracing condition.
void PrintTable(const Options &options, const Rows &rows, const std::vector<CallFigures> &calls) {
    std::printf("| Run | Format | MB/s | Time (ms) | Ratio to direct | µs per call | Above direct (µs) | "
                "Peak above idle (MiB) | Buffer (MiB) |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|\n");
    for (int f = 0; f < static_cast<int>(rows.size()); ++f) {
        const Scan scan = {&kFormats[f], options.dpi};
        for (int v = 0; v < static_cast<int>(rows[f].size()); ++v) {
            const Row &row = rows[f][v];
            if (row.seconds == 0)
                continue;
            const std::string ratio = row.ratio ? Cell(row.ratio, "%.2fx") : "-";
            const std::string peak = row.memory.measured ? Cell(row.memory.AboveIdle() / kMebibyte, "%.2f") : "-";
            std::printf("| %s | %s | %.0f | %.1f | %s | - | - | %s | %.2f |\n",
                        FileLabel(static_cast<Variant>(v)).c_str(), kFormats[f].name,
                        ImageBytes(scan) / kMegabyte / row.seconds, row.seconds * 1000, ratio.c_str(), peak.c_str(),
                        row.buffer / kMebibyte);
        }
    }
    for (int t = 0; t < static_cast<int>(calls.size()); ++t) {
        const CallFigures &c = calls[t];
        const char *label = TracingLabel(static_cast<Tracing>(t));
        std::printf("| smGetXResolution, %s | - | - | - | %.2fx | %.2f | %.2f | - | - |\n", label,
                    c.libraryGet / c.directGet, c.libraryGet * 1e6, c.overheadGet * 1e6);
        std::printf("| smSetXResolution, %s | - | - | - | %.2fx | %.2f | %.2f | - | - |\n", label,
                    c.librarySet / c.directSet, c.librarySet * 1e6, c.overheadSet * 1e6);
    }
    if (!calls.empty()) {
        std::printf(
            "| direct: MSG_GET ICAP_XRESOLUTION, MSG_GETCURRENT ICAP_UNITS | - | - | - | - | %.2f | - | - | - |\n",
            calls[0].directGet * 1e6);
        std::printf("| direct: MSG_SET ICAP_XRESOLUTION | - | - | - | - | %.2f | - | - | - |\n",
                    calls[0].directSet * 1e6);
    }
}

// The source alone against the library's own work in the scan to file by memory (its time less the source's).
void PrintSourceSpeed(const Rows &rows) {
    std::printf("\nThe source alone (maximum buffer) against the library's own work in the scan to file by memory "
                "(its time less the source's):\n");
    for (int f = 0; f < static_cast<int>(rows.size()); ++f) {
        const double source = rows[f][static_cast<int>(Variant::SourceMaximum)].seconds;
        const double library = rows[f][static_cast<int>(Variant::ScanToFileMemory)].seconds;
        std::printf("  %s: source %.1f ms, the library's own work %.1f ms: the source is %.1f times faster\n",
                    kFormats[f].name, source * 1000, (library - source) * 1000, (library - source) / source);
    }
}

// Peak memory of the library's memory transfers at the other resolution too: it must not depend on the page.
void PrintMemoryAtBothResolutions(const Options &options, const Rows &rows) {
    const int otherDpi = options.dpi == kQuickDpi ? kFullDpi : kQuickDpi;
    std::printf("\nPeak private memory above idle (MiB) of the library's memory transfers at %d and %d dpi:\n",
                kQuickDpi, kFullDpi);
    for (int f = 0; f < kFormatCount; ++f)
        for (Variant variant : {Variant::ScanToFileMemory, Variant::AppMemory, Variant::ReadBlock}) {
            const int v = static_cast<int>(variant);
            if (!rows[f][v].memory.measured)
                continue;
            const MemoryResult other = MeasureMemory(variant, f, otherDpi, kRepeatRows, options.outDir);
            const MemoryResult &at150 = options.dpi == kQuickDpi ? rows[f][v].memory : other;
            const MemoryResult &at600 = options.dpi == kQuickDpi ? other : rows[f][v].memory;
            std::printf("  %s, %s: %.2f and %.2f\n", FileLabel(variant).c_str(), kFormats[f].name,
                        at150.AboveIdle() / kMebibyte, at600.AboveIdle() / kMebibyte);
        }
}

} // namespace

int main(int argc, char **argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--viewer") == 0)
        return RunViewer();
    if (argc >= 2 && std::strcmp(argv[1], "--memory") == 0)
        return RunMemoryChild(argc - 2, argv + 2);
    const Options options = Parse(argc, argv);

    if (options.scans)
        CheckFreeSpaceAsTheLibraryReadsIt(options);
    Runner runner(options.outDir);
    TraceSwitches switches;
    // The scans run with the switches the library writes into a missing DEBUGSM.INI, and no viewer.
    switches.Set(1, 1);
    runner.RepeatRows(kRepeatRows);
    const Scan first = {&kFormats[0], options.dpi};
    std::printf("smbench: %d dpi US Letter pages (%ld x %ld pixels), %d interleaved repetitions, medians\n",
                options.dpi, ImageWidth(first), ImageLength(first), options.repetitions);
    std::printf("source manager: %s; the virtual scanner with RepeatRows = %d\n",
                runner.StandInManager() ? "the stand-in of the test suites (testdsm)" : "Wine's own (twain_32.dll)",
                kRepeatRows);
    std::printf("32-bit x86 code runs %s\n", I386Mode().c_str());
    std::printf("the scans trace with DEBUGSM.INI's Trace=1 and Warning=1 and no viewer\n\n");
    std::fflush(stdout);

    const double started = Now();
    Rows rows;
    if (options.scans)
        rows = Summarise(runner, options, TimeScans(runner, options, started));
    std::vector<CallFigures> calls;
    if (options.perCall) {
        // Library and direct interleaved under each tracing condition.
        for (int t = 0; t < static_cast<int>(Tracing::Count); ++t)
            calls.push_back(MeasureCalls(runner, switches, static_cast<Tracing>(t), options.calls, options.callBudget,
                                         options.repetitions * kCallTurnsPerRepetition));
    }
    std::fprintf(stderr, "smbench: measured (%.0f s)\n\n", Now() - started);

    PrintTable(options, rows, calls);
    if (options.scans) {
        PrintSourceSpeed(rows);
        if (options.memory && !options.quick)
            PrintMemoryAtBothResolutions(options, rows);
    }
    RemoveDirectoryA(options.outDir.c_str());
    std::fprintf(stderr, "smbench: done in %.0f s\n", Now() - started);
    return 0;
}
