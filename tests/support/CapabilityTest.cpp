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

namespace {

std::string SourcePath(const std::string &file) {
    return "F:\\smkernal\\" + file + ".cpp";
}

std::string Listed(const Outputs &values) {
    std::string out = "{";
    for (size_t i = 0; i < values.size(); ++i)
        out += (i ? ", " : "") + std::to_string(values[i]);
    return out + "}";
}

bool EndsWith(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

::testing::AssertionResult SameOutputs(const Outputs &expected, const Outputs &actual) {
    if (expected == actual)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "outputs " << Listed(actual) << ", expected " << Listed(expected);
}

::testing::AssertionResult WarningsOnTheEntryLine(const TraceViewer &viewer, const std::string &file,
                                                  const std::string &method, const std::string &name) {
    const std::string source = SourcePath(file);
    const TraceLine *entry = nullptr;
    for (const TraceLine &record : viewer.Records())
        if (!entry && record.text == "Coming TScanModule::" + method && record.source == source)
            entry = &record;
    if (!entry)
        return ::testing::AssertionFailure() << "no entry record of " << method << " from " << source;
    int warnings = 0;
    for (const TraceLine &record : viewer.Records()) {
        if (record.level != "Warning" || !EndsWith(record.text, " in TScanModule::" + name))
            continue;
        ++warnings;
        if (record.source != source || record.line != entry->line)
            return ::testing::AssertionFailure()
                   << "\"" << record.raw << "\" is not on the entry line " << entry->line << " of " << source;
    }
    if (warnings == 0)
        return ::testing::AssertionFailure() << "no warning in TScanModule::" << name;
    return ::testing::AssertionSuccess();
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
    return OneRecordIn(viewer, level, file, text);
}

::testing::AssertionResult OneRecordIn(const TraceViewer &viewer, const std::string &level, const std::string &file,
                                       const std::string &text) {
    const std::string source = SourcePath(file);
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
    const std::string source = SourcePath(file);
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
    const std::string codec = SourcePath("Utility");
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
