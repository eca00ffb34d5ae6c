// A suite that runs one of our programs against the virtual scanner installed as a source.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace smtest {

// Each test starts with the virtual scanner freshly installed (behind the stand-in source manager: alone in twain_32,
// with no default source in win.ini; behind Wine's own: as sane.ds), without settings or a feeder left over from
// another test, and with an empty working directory of the suite's own under %TEMP%. All of it is put back after the
// test.
class ScannerProgramTest : public ::testing::Test {
protected:
    // `wineManager`: the suite runs behind Wine's source manager. `suite`: the working directory's name, to which
    // "_winedsm" is added behind Wine's manager.
    ScannerProgramTest(bool wineManager, const char *suite);
    void SetUp() override;
    void TearDown() override;

    // The scanner's settings file and the feeder file it keeps across loads, beside it.
    static std::string SettingsPath();
    static std::string FeederPath();
    // `relative` in the working directory.
    std::string Work(const std::string &relative) const;

    const bool wineManager_;
    std::string source_;
    std::string work_;
};

} // namespace smtest
