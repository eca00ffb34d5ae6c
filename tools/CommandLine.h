// Command lines for CreateProcess: an argument quoted so that the C runtime and CommandLineToArgvW split it again.
#pragma once

#include <string>

namespace smk {

// Quotes only when needed; backslashes are doubled only where a quote follows them.
inline std::string QuoteArgument(const std::string &argument) {
    if (!argument.empty() && argument.find_first_of(" \t\"") == std::string::npos)
        return argument;
    std::string quoted = "\"";
    size_t backslashes = 0;
    for (char c : argument) {
        if (c == '\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(2 * backslashes, '\\');
    return quoted + "\"";
}

} // namespace smk
