// Peak memory of one run, measured in a process of its own so that nothing before it counts.
#pragma once

#include <string>

#include "Runs.h"

namespace bench {

// The process's private memory (GetProcessMemoryInfo's PagefileUsage) around the run: at rest just before it, after
// a first, small run of the same kind has loaded and touched everything the run needs, and its highest value while
// the run went on, read over and over by a thread of its own. (Wine's PeakPagefileUsage is no peak but the
// current figure, and its PeakWorkingSetSize keeps the peak of the process's start, which no run gets back to.)
struct MemoryResult {
    bool measured = false;
    SIZE_T idle = 0;
    SIZE_T peak = 0;
    double AboveIdle() const { return static_cast<double>(peak) - static_cast<double>(idle); }
};

// Starts `smbench --memory ...` for one run of `variant` and reads what it measured.
MemoryResult MeasureMemory(Variant variant, int format, int dpi, int repeatRows, const std::string &outDir);

// The child's side: `arguments` are what follows --memory.
int RunMemoryChild(int argc, char **argv);

} // namespace bench
