// The benchmark's shared pieces: page formats, timing, medians, memory figures and file helpers.
#include "Bench.h"

#include <psapi.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "smkernal.h"

namespace bench {

const PageFormat kFormats[] = {
    {"RGB chunky", SM_PIXEL_RGB, TWPT_RGB, 24, false},
    {"RGB planar", SM_PIXEL_RGB, TWPT_RGB, 24, true},
    {"gray 8", SM_PIXEL_GRAY, TWPT_GRAY, 8, false},
    {"BW", SM_PIXEL_BW, TWPT_BW, 1, false},
};
const int kFormatCount = sizeof kFormats / sizeof *kFormats;

LONG ImageWidth(const Scan &scan) {
    return std::lround(kLetterWidth * scan.dpi);
}

LONG ImageLength(const Scan &scan) {
    return std::lround(kLetterHeight * scan.dpi);
}

double ImageBytes(const Scan &scan) {
    const double rowBits = static_cast<double>(ImageWidth(scan)) * scan.format->bitDepth;
    return std::ceil(rowBits / 8) * ImageLength(scan);
}

double Now() {
    static LARGE_INTEGER frequency = {};
    if (frequency.QuadPart == 0)
        QueryPerformanceFrequency(&frequency);
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double Median(std::vector<double> values) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

SIZE_T PrivateMemory() {
    PROCESS_MEMORY_COUNTERS counters = {};
    counters.cb = sizeof counters;
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) ? counters.PagefileUsage : 0;
}

std::string ProgramDir() {
    char path[MAX_PATH];
    GetModuleFileNameA(nullptr, path, sizeof path);
    std::string dir(path);
    return dir.substr(0, dir.find_last_of('\\'));
}

std::string WindowsDir() {
    char dir[MAX_PATH];
    GetWindowsDirectoryA(dir, sizeof dir);
    return dir;
}

std::string ReadWholeFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

bool WriteWholeFile(const std::string &path, const std::string &bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(file);
}

bool SameFileContents(const std::string &a, const std::string &b, std::string &difference) {
    const std::string first = ReadWholeFile(a), second = ReadWholeFile(b);
    if (first.size() != second.size()) {
        difference = std::to_string(first.size()) + " bytes against " + std::to_string(second.size());
        return false;
    }
    const auto mismatch = std::mismatch(first.begin(), first.end(), second.begin());
    if (mismatch.first == first.end())
        return true;
    difference = "the first difference at byte " + std::to_string(mismatch.first - first.begin());
    return false;
}

void Fail(const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    std::fprintf(stderr, "smbench: ");
    std::vfprintf(stderr, format, args);
    std::fprintf(stderr, "\n");
    va_end(args);
    std::exit(1);
}

} // namespace bench
