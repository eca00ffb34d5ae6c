// The per-call overhead: smGetXResolution and smSetXResolution against the same triplets sent through DSM_Entry,
// under each tracing condition, and the stand-in diagnostic viewer they are measured with.
#pragma once

#include <string>

#include "Runs.h"

namespace bench {

enum class Tracing { Off, OnWithoutViewer, OffWithViewer, OnWithViewer, Count };
const char *TracingLabel(Tracing tracing);

// Seconds a call, medians of the turns; the overhead is the median of the library's time less the direct one's, turn
// by turn.
struct CallFigures {
    int calls = 0; // of each kind per turn
    double libraryGet = 0, librarySet = 0, directGet = 0, directSet = 0, overheadGet = 0, overheadSet = 0;
};

// DEBUGSM.INI in the Windows directory: its switches set for a measurement, and the file as it was put back.
class TraceSwitches {
public:
    TraceSwitches();
    ~TraceSwitches();
    void Set(int trace, int warning);

private:
    std::string path_;
    std::string saved_;
    bool existed_ = false;
};

// `turns` turns of the library's calls and the direct ones, at most `calls` calls of each kind per turn, fewer when
// the library's would take longer than `budget` seconds. With a viewer condition a viewer process runs meanwhile,
// started before the library is loaded, as the library only looks for it then.
CallFigures MeasureCalls(Runner &runner, TraceSwitches &switches, Tracing tracing, int calls, double budget, int turns);

// The viewer process (smbench --viewer): the window class, the shared mapping and the message of the diagnostic
// viewer; it reads every record it is sent, until told to stop.
int RunViewer();

} // namespace bench
