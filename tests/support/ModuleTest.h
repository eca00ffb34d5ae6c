// The fixture of the black-box suites: stand-in source manager present, tracing on, a viewer running.
#pragma once

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace smtest {

// At the end of a test nothing may hold TWAIN_32.DLL any more: the next test of the same program replaces the file.
inline void ExpectTwainDllReleased() {
    EXPECT_FALSE(IsLoaded(TwainPath())) << "the test ends with TWAIN_32.DLL still loaded, so the next one cannot "
                                           "replace it";
}

class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        WriteDebugIni(1, 1);
        viewer.Start();
    }
    void TearDown() override {
        // The library goes first, so that its destructor's records still reach the viewer.
        library.Free();
        dsm.Close();
        viewer.Stop();
        ExpectTwainDllReleased();
    }

    TraceViewer viewer;
    ScanLibrary library;
    DsmControl dsm;
};

} // namespace smtest
