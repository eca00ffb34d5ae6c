// The diagnostic viewer's side of the library's trace channel: window class, shared mapping, message, record layout.
#pragma once

#include <windows.h>

#include <cstdlib>
#include <string>

namespace smk {

// The library looks for a top-level window of this class when it is loaded, and opens the mapping of this name.
constexpr char kViewerClass[] = "KDVDiagXprt32";
constexpr char kViewerMapping[] = "KDVDiagXprt32File";
// Sent synchronously for each record; the viewer reads the record from its own view of the mapping, at offset 0.
constexpr UINT kTraceMessage = 0x1634;
// The library composes every record, NUL included, in the first bytes of the mapping.
constexpr size_t kTraceRecordCapacity = 1024;
// What the library sends three times before a call it makes at depth 0.
constexpr char kSeparatorRecord[] = "    ";
// Between the record's line number and its text.
constexpr char kTextMarker[] = ": [SM] ";

// One record as the viewer received it, and its parts: "<Level> <source> <line>: [SM] <text>".
struct TraceLine {
    std::string raw;
    std::string level; // "Trace", "Warning", "Fatal", or "" for a separator (and for anything not laid out so)
    std::string source;
    int line = 0;
    std::string text;
    bool IsSeparator() const { return raw == kSeparatorRecord; }
};

inline TraceLine ParseTraceLine(const std::string &raw) {
    TraceLine line;
    line.raw = raw;
    if (line.IsSeparator())
        return line;
    const size_t levelEnd = raw.find(' ');
    const size_t marker = raw.find(kTextMarker);
    if (levelEnd == std::string::npos || marker == std::string::npos || marker <= levelEnd)
        return line;
    line.level = raw.substr(0, levelEnd);
    // At least the space after the level: a record without a source has none.
    const size_t lineStart = raw.rfind(' ', marker - 1);
    if (lineStart > levelEnd)
        line.source = raw.substr(levelEnd + 1, lineStart - levelEnd - 1);
    line.line = std::atoi(raw.substr(lineStart + 1, marker - lineStart - 1).c_str());
    line.text = raw.substr(marker + sizeof kTextMarker - 1);
    return line;
}

} // namespace smk
