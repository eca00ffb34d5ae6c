// Fixture of the capability suites: the virtual scanner open under the stand-in manager, with a memory tracker.

// Beside the open source it holds the scanner's controls, the scanner-setting exports, and the global-memory
// tracker over the library and the source.
#pragma once

#include <string>
#include <vector>

#include "CapabilityExports.h"
#include "GlobalMemoryTracker.h"
#include "SessionTest.h"
#include "VscanSupport.h"

namespace smtest {

class CapabilityTest : public SessionTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Clears the records, the call log mark and the tracker's count.
    void Reset();
    // The DAT_CAPABILITY calls of one capability since the mark, and "cap/msg -> rc" lines for them and for every
    // DAT_STATUS call, in order.
    std::vector<TdsmCall> CapCalls(TW_UINT16 cap) const;
    std::vector<std::string> CapTriplets(TW_UINT16 cap) const;
    // No container allocated since Reset() is still allocated, and none was freed twice.
    ::testing::AssertionResult NoContainerLeft() const;
    // Closes the source and the source manager: state 2.
    void CloseSource();
    // OneRecordIn() of this fixture's viewer.
    ::testing::AssertionResult OneRecord(const std::string &level, const std::string &file,
                                         const std::string &text) const;
    // Success when every Warning record since Reset() was written by F:\smkernal\<file>.cpp.
    ::testing::AssertionResult WarningsFrom(const std::string &file) const;
    // The entry and exit records of a method of the scan module: one Trace record each, from that file.
    ::testing::AssertionResult EntryAndExit(const std::string &file, const std::string &method) const;
    // The codec's records ("Coming ExtractOneValue", ...) between the entry and exit records of a method, in order.
    std::vector<std::string> CodecRecordsIn(const std::string &method) const;

    CapabilityExports sm;
    VscanLibrary scanner;
    GlobalMemoryTracker tracker;
};

std::string CapLine(TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 rc);
// A status (SM_OK, a TWCC_ code) or a TWAIN return code as expected, with both named on failure.
::testing::AssertionResult IsStatus(LONG expected, LONG actual);
::testing::AssertionResult IsReturnCode(TW_UINT16 expected, TW_UINT16 actual);
std::string StatusLine();
// Success when exactly one record has `text` and it is a `level` record ("Trace", "Warning") written by
// F:\smkernal\<file>.cpp (file "Sm_4", "Utility").
::testing::AssertionResult OneRecordIn(const TraceViewer &viewer, const std::string &level, const std::string &file,
                                       const std::string &text);
// The same outputs, each equal, with both lists shown on failure.
::testing::AssertionResult SameOutputs(const Outputs &expected, const Outputs &actual);
// Success when at least one Warning record reads "... in TScanModule::<name>" and every such record was written by
// F:\smkernal\<file>.cpp on the line of the entry record "Coming TScanModule::<method>" of that file: the line the
// negotiation patterns write on a method's behalf.
::testing::AssertionResult WarningsOnTheEntryLine(const TraceViewer &viewer, const std::string &file,
                                                  const std::string &method, const std::string &name);

} // namespace smtest
