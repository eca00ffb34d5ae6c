// The benchmark's shared pieces: page formats, timing, medians, the process's memory figures and file helpers.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "twain1x.h"

namespace bench {

// A page format the benchmark scans: the library's pixel flag and the source's pixel type and depth.
struct PageFormat {
    const char *name;
    LONG pixelFlag; // SM_PIXEL_*
    TW_UINT16 pixelType;
    int bitDepth;
    bool planar;
};

extern const PageFormat kFormats[];
extern const int kFormatCount;

// A scan: the format, the resolution in dots per inch, on a US Letter page.
struct Scan {
    const PageFormat *format;
    int dpi;
};

// Letter in inches.
constexpr double kLetterWidth = 8.5;
constexpr double kLetterHeight = 11.0;
// Image size of a scan as the virtual scanner makes it.
LONG ImageWidth(const Scan &scan);
LONG ImageLength(const Scan &scan);
// Pixel bytes of the image as the source delivers them (rows unpadded).
double ImageBytes(const Scan &scan);

// Seconds from a fixed start, at the best resolution the system has.
double Now();
double Median(std::vector<double> values);

// The process's private memory as GetProcessMemoryInfo reports it: PagefileUsage, which Wine takes from the
// process's anonymous resident memory (its PrivateUsage stays 0).
SIZE_T PrivateMemory();

// The directory of the running program, and files in it and in the Windows directory.
std::string ProgramDir();
std::string WindowsDir();
bool SameFileContents(const std::string &a, const std::string &b, std::string &difference);
// The bytes of a file, empty when there is none.
std::string ReadWholeFile(const std::string &path);
bool WriteWholeFile(const std::string &path, const std::string &bytes);

// Stops the benchmark with a message when something it relies on is not as expected.
[[noreturn]] void Fail(const char *format, ...);

} // namespace bench
