// vscan.ini: the settings file beside the source, one key per control switch, and the names its values may use.
#pragma once

#include <string>

#include "Source.h"

namespace vscan {

// A file in the directory of this module.
std::string PathBesideModule(const char *fileName);
// vscan.ini in the directory of this module.
std::string DefaultSettingsPath();
// Applies a settings file; the number of keys applied, or -1 when the file is missing or a key is bad.
int LoadSettings(Source &s, const std::string &path);

} // namespace vscan
