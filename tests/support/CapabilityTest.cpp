// Fixture of the capability suites.
#include "CapabilityTest.h"

#include <cstdio>

namespace smtest {

std::string CapLine(TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 rc) {
    char line[96];
    std::snprintf(line, sizeof line, "cap 0x%04X msg %u -> %s", cap, msg, TwrcName(rc));
    return line;
}

::testing::AssertionResult IsStatus(LONG expected, LONG actual) {
    if (expected == actual)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "status " << actual << " (" << TwccName(actual) << "), expected "
                                         << expected << " (" << TwccName(expected) << ")";
}

::testing::AssertionResult IsReturnCode(TW_UINT16 expected, TW_UINT16 actual) {
    if (expected == actual)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << TwrcName(actual) << ", expected " << TwrcName(expected);
}

std::string StatusLine() {
    return "DAT_STATUS";
}

void CapabilityTest::SetUp() {
    SessionTest::SetUp();
    if (HasFatalFailure())
        return;
    sm.Resolve(library);
    ASSERT_EQ(std::vector<std::string>{}, sm.Missing()) << "exports missing";
    ASSERT_EQ(SM_OK, openDS(window, "Capability test"));
    ASSERT_TRUE(scanner.Load(TwainSourceDir() + "\\vscan.ds")) << "the source the manager loaded";
    ASSERT_GE(tracker.Attach(library.Module()), 2) << "smkernal.dll imports GlobalAlloc and GlobalFree";
    ASSERT_GE(tracker.Attach(scanner.Module()), 2) << "vscan.ds imports GlobalAlloc and GlobalFree";
    Reset();
}

void CapabilityTest::TearDown() {
    tracker.Detach();
    SessionTest::TearDown();
    scanner.Free();
}

void CapabilityTest::Reset() {
    viewer.Clear();
    Mark();
    tracker.Begin();
}

std::vector<TdsmCall> CapabilityTest::CapCalls(TW_UINT16 cap) const {
    std::vector<TdsmCall> out;
    for (const TdsmCall &call : CallsSinceMark())
        if (call.dg == DG_CONTROL && call.dat == DAT_CAPABILITY && call.capIn.valid && call.capIn.cap == cap)
            out.push_back(call);
    return out;
}

std::vector<std::string> CapabilityTest::CapTriplets(TW_UINT16 cap) const {
    std::vector<std::string> out;
    for (const TdsmCall &call : CallsSinceMark()) {
        if (call.dg == DG_CONTROL && call.dat == DAT_CAPABILITY && call.capIn.valid && call.capIn.cap == cap)
            out.push_back(CapLine(cap, call.msg, call.rc));
        else if (call.dg == DG_CONTROL && call.dat == DAT_STATUS)
            out.push_back(StatusLine());
    }
    return out;
}

::testing::AssertionResult CapabilityTest::NoContainerLeft() const {
    if (tracker.Live().empty() && tracker.DoubleFrees() == 0)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "global memory: " << tracker.Describe();
}

::testing::AssertionResult CapabilityTest::OneRecord(const std::string &level, const std::string &file,
                                                     const std::string &text) const {
    const std::string source = "F:\\smkernal\\" + file + ".cpp";
    std::vector<const TraceLine *> found;
    for (const TraceLine &record : viewer.Records())
        if (record.text == text)
            found.push_back(&record);
    if (found.size() != 1)
        return ::testing::AssertionFailure() << found.size() << " records \"" << text << "\"";
    if (found[0]->level != level || found[0]->source != source)
        return ::testing::AssertionFailure()
               << "\"" << found[0]->raw << "\" is not a " << level << " record of " << source;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult CapabilityTest::WarningsFrom(const std::string &file) const {
    const std::string source = "F:\\smkernal\\" + file + ".cpp";
    for (const TraceLine &record : viewer.Records())
        if (record.level == "Warning" && record.source != source)
            return ::testing::AssertionFailure() << "\"" << record.raw << "\" is not from " << source;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult CapabilityTest::EntryAndExit(const std::string &file, const std::string &method) const {
    const ::testing::AssertionResult entry = OneRecord("Trace", file, "Coming TScanModule::" + method);
    return entry ? OneRecord("Trace", file, "Leaving TScanModule::" + method) : entry;
}

std::vector<std::string> CapabilityTest::CodecRecordsIn(const std::string &method) const {
    const std::string codec = "F:\\smkernal\\Utility.cpp";
    std::vector<std::string> out;
    bool inside = false;
    for (const TraceLine &record : viewer.Records()) {
        if (record.level != "Trace")
            continue;
        if (record.text == "Coming TScanModule::" + method)
            inside = true;
        else if (record.text == "Leaving TScanModule::" + method)
            break;
        else if (inside && record.source == codec)
            out.push_back(record.text);
    }
    return out;
}

void CapabilityTest::CloseSource() {
    ASSERT_EQ(SM_OK, closeDS());
    Reset();
}

} // namespace smtest
