// The fixture of the black-box suites: stand-in source manager present, tracing on, a viewer running.
#pragma once

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace smtest {

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
    }

    TraceViewer viewer;
    ScanLibrary library;
    DsmControl dsm;
};

} // namespace smtest
