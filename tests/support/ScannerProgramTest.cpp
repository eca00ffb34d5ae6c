// A suite that runs one of our programs against the virtual scanner: the scanner and the working directory.
#include "ScannerProgramTest.h"

#include <windows.h>

#include "SessionTest.h"
#include "TestSupport.h"
#include "VscanSupport.h"

namespace smtest {

ScannerProgramTest::ScannerProgramTest(bool wineManager, const char *suite) : wineManager_(wineManager) {
    char temp[MAX_PATH] = "";
    GetTempPathA(sizeof temp, temp);
    work_ = std::string(temp) + suite + (wineManager ? "_winedsm_test" : "_test");
}

void ScannerProgramTest::SetUp() {
    if (!wineManager_) {
        InstallDsm(Dsm::Present);
        RemoveSourceDirectories();
        WriteProfileStringA("Twain", "Default Source", nullptr);
    }
    DeleteFileA(SettingsPath().c_str());
    DeleteFileA(FeederPath().c_str());
    // Wine's manager loads no other file name than sane.ds.
    source_ = InstallVscan(wineManager_ ? "sane.ds" : "vscan.ds");
    ASSERT_FALSE(source_.empty()) << "copying vscan.ds to " << TwainSourceDir();
    RemoveTree(work_);
    ASSERT_TRUE(CreateDirectoryA(work_.c_str(), nullptr)) << work_;
}

void ScannerProgramTest::TearDown() {
    DeleteFileA(SettingsPath().c_str());
    DeleteFileA(FeederPath().c_str());
    RemoveTree(work_);
    if (!wineManager_) {
        RemoveSourceDirectories();
        WriteProfileStringA("Twain", "Default Source", nullptr);
    } else if (!FileExists(source_)) {
        InstallVscan("sane.ds"); // the prefix keeps its scanner for the other suites
    }
}

std::string ScannerProgramTest::SettingsPath() {
    return TwainSourceDir() + "\\vscan.ini";
}

std::string ScannerProgramTest::FeederPath() {
    return TwainSourceDir() + "\\vscan.feeder";
}

std::string ScannerProgramTest::Work(const std::string &relative) const {
    return work_ + "\\" + relative;
}

} // namespace smtest
