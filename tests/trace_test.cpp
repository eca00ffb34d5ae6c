// The diagnostic trace as the viewer receives it: layout, banners, separators, switches and DEBUGSM.INI.
#include <gtest/gtest.h>

#include "ModuleTest.h"

using namespace smtest;

namespace {

const std::string kSeparator = "    ";
const std::string kSm1 = "F:\\smkernal\\Sm_1.cpp";

std::string Record(const std::string &level, int line, const std::string &text) {
    return level + " " + kSm1 + " " + std::to_string(line) + ": [SM] " + text;
}

std::vector<std::string> Raw(const TraceViewer &viewer) {
    std::vector<std::string> out;
    for (const TraceLine &record : viewer.Records())
        out.push_back(record.raw);
    return out;
}

const std::vector<std::string> kStartBanner = {
    Record("Trace", 79, "         <<<<< Start Scan Module Diagnostic >>>>>      "),
    Record("Trace", 80, "               " + std::string(28, '~') + "            "),
    Record("Trace", 81, std::string(55, ' ')),
    kSeparator,
    kSeparator,
    kSeparator,
    Record("Trace", 82, "Coming TScanModule::TScanModule"),
};

const std::vector<std::string> kEndBanner = {
    Record("Trace", 281, std::string(53, ' ')),
    Record("Trace", 282, "         <<<<< End Scan Module Diagnostic >>>>>      "),
    Record("Trace", 283, "               " + std::string(26, '~') + "            "),
};

class TraceTest : public ModuleTest {};

TEST_F(TraceTest, LoadingOpensWithTheStartBanner) {
    library.Load();
    const std::vector<std::string> raw = Raw(viewer);
    ASSERT_GE(raw.size(), kStartBanner.size());
    EXPECT_EQ(kStartBanner, std::vector<std::string>(raw.begin(), raw.begin() + kStartBanner.size()));
    EXPECT_EQ(std::string(55, ' '), ParseTraceLine(raw[2]).text);
}

TEST_F(TraceTest, ConstructionRecordsInOrder) {
    library.Load();
    const std::vector<std::string> expected = {
        "Trace 79          <<<<< Start Scan Module Diagnostic >>>>>      ",
        "Trace 80                " + std::string(28, '~') + "            ",
        "Trace 81 " + std::string(55, ' '),
        "Trace 82 Coming TScanModule::TScanModule",
        "Trace 319 Coming TScanModule::LoadTWAIN",
        "Trace 373 Coming TScanModule::IsTWAINLoaded",
        "Trace 388 TScanModule::IsTWAINLoaded returns FALSE",
        "Trace 389 Leaving TScanModule::IsTWAINLoaded",
        "Trace 363 Leaving TScanModule::LoadTWAIN",
    };
    std::vector<std::string> brief = viewer.Brief();
    ASSERT_EQ(expected.size() + 1, brief.size());
    EXPECT_EQ(expected, std::vector<std::string>(brief.begin(), brief.end() - 1));
    EXPECT_EQ("Leaving TScanModule::TScanModule", viewer.Records().back().text);
    EXPECT_EQ(kSm1, viewer.Records().back().source);
}

TEST_F(TraceTest, UnloadingClosesWithTheEndBanner) {
    library.Load();
    viewer.Clear();
    library.Free();
    const std::vector<std::string> raw = Raw(viewer);
    ASSERT_GE(raw.size(), kEndBanner.size() + 1);
    EXPECT_EQ(kEndBanner, std::vector<std::string>(raw.end() - kEndBanner.size(), raw.end()));
    EXPECT_EQ("Leaving TScanModule::~TScanModule", ParseTraceLine(raw[raw.size() - 4]).text);
    // The destructor is an outermost call: three separators, then its entry record.
    EXPECT_EQ(kSeparator, raw[0]);
    EXPECT_EQ(kSeparator, raw[1]);
    EXPECT_EQ(kSeparator, raw[2]);
    EXPECT_EQ("Coming TScanModule::~TScanModule", ParseTraceLine(raw[3]).text);
}

TEST_F(TraceTest, RecordLayoutIsLevelPathLineMarkerText) {
    library.Load();
    viewer.Clear();
    library.Available();
    const std::vector<std::string> raw = Raw(viewer);
    ASSERT_EQ(9u, raw.size());
    EXPECT_EQ(Record("Trace", 428, "Coming TScanModule::IsTWAINAvailable"), raw[3]);
    EXPECT_EQ(Record("Trace", 442, "TScanModule::IsTWAINAvailable returns TRUE"), raw[7]);
    EXPECT_EQ(Record("Trace", 444, "Leaving TScanModule::IsTWAINAvailable"), raw[8]);
}

TEST_F(TraceTest, ThreeSeparatorsOpenEveryOutermostCallOnly) {
    library.Load();
    viewer.Clear();
    library.Available();
    library.Available();
    std::vector<size_t> separators;
    for (size_t i = 0; i < viewer.Records().size(); ++i)
        if (viewer.Records()[i].IsSeparator())
            separators.push_back(i);
    // Each call: 3 separators, then 6 records; the nested IsTWAINLoaded gets none.
    const std::vector<size_t> expected = {0, 1, 2, 9, 10, 11};
    EXPECT_EQ(expected, separators);
    EXPECT_EQ(18u, viewer.Records().size());
}

TEST_F(TraceTest, WarningsOnlyWhenTraceIsOff) {
    WriteDebugIni(0, 1);
    InstallDsm(Dsm::Absent);
    library.Load();
    library.Available();
    const std::string failedLoad =
        "Warning F:\\smkernal\\Sm_1.cpp 356: [SM] LoadLibrary fails in TScanModule::LoadTWAIN";
    // One at construction, one retried by the availability test; no separators with them.
    EXPECT_EQ((std::vector<std::string>{failedLoad, failedLoad}), Raw(viewer));
}

TEST_F(TraceTest, TraceRecordsOnlyWhenWarningIsOff) {
    WriteDebugIni(1, 0);
    InstallDsm(Dsm::Absent);
    library.Load();
    EXPECT_TRUE(viewer.Texts("Warning").empty());
    EXPECT_FALSE(viewer.Texts("Trace").empty());
    EXPECT_EQ(1, viewer.CountText("Coming TScanModule::LoadTWAIN"));
}

TEST_F(TraceTest, NothingWhenBothSwitchesAreOff) {
    WriteDebugIni(0, 0);
    InstallDsm(Dsm::Absent);
    library.Load();
    library.Available();
    library.Free();
    EXPECT_TRUE(viewer.Records().empty());
}

TEST_F(TraceTest, SwitchesAreReadForEveryRecord) {
    library.Load();
    WriteDebugIni(0, 1);
    viewer.Clear();
    library.Available();
    EXPECT_TRUE(viewer.Records().empty());
    WriteDebugIni(1, 1);
    library.Available();
    EXPECT_EQ(9u, viewer.Records().size());
}

TEST_F(TraceTest, MissingSettingsFileIsCreatedWithBothSwitchesOn) {
    DeleteDebugIni();
    ASSERT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(DebugIniPath().c_str()));
    library.Load();
    EXPECT_EQ("1", ReadDebugIni("Trace"));
    EXPECT_EQ("1", ReadDebugIni("Warning"));
    EXPECT_EQ(1, viewer.CountText("Coming TScanModule::TScanModule"));
}

TEST_F(TraceTest, ExistingTraceKeyIsLeftAlone) {
    DeleteDebugIni();
    WritePrivateProfileStringA("Debug", "Trace", "0", DebugIniPath().c_str());
    library.Load();
    EXPECT_EQ("0", ReadDebugIni("Trace"));
    EXPECT_EQ("<missing>", ReadDebugIni("Warning")) << "the Warning key is not checked";
    EXPECT_TRUE(viewer.Records().empty());
}

TEST_F(TraceTest, FileWithoutTraceKeyGetsBothSwitches) {
    DeleteDebugIni();
    WritePrivateProfileStringA("Debug", "Warning", "0", DebugIniPath().c_str());
    library.Load();
    EXPECT_EQ("1", ReadDebugIni("Trace"));
    EXPECT_EQ("1", ReadDebugIni("Warning"));
}

TEST_F(TraceTest, TraceKeyHoldingMinusOneIsRewritten) {
    DeleteDebugIni();
    WritePrivateProfileStringA("Debug", "Trace", "-1", DebugIniPath().c_str());
    WritePrivateProfileStringA("Debug", "Warning", "0", DebugIniPath().c_str());
    library.Load();
    EXPECT_EQ("1", ReadDebugIni("Trace"));
    EXPECT_EQ("1", ReadDebugIni("Warning"));
}

TEST_F(TraceTest, SettingsFileIsMadeWithoutAViewerToo) {
    viewer.Stop();
    DeleteDebugIni();
    library.Load();
    EXPECT_EQ("1", ReadDebugIni("Trace"));
    EXPECT_EQ(1, library.Available()) << "the library works the same without a viewer";
}

TEST_F(TraceTest, ViewerStartedAfterLoadingIsNotSeen) {
    viewer.Stop();
    library.Load();
    viewer.Start();
    library.Available();
    EXPECT_TRUE(viewer.Records().empty());
}

} // namespace
