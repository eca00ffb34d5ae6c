// The session's own records, scenario by scenario: every level, line and text that its source file writes, in order.
#include <gtest/gtest.h>

#include <functional>

#include "SessionTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kSm2[] = "F:\\smkernal\\Sm_2.cpp";

// A starting state, an action, and the records of the session's source file it must write.
struct RecordScenario {
    const char *name;
    std::function<void(class SessionRecordsTest &)> arrange;
    std::function<void(class SessionRecordsTest &)> act;
    Strings records; // "Level line text"
    // Run after the check, when the scenario leaves more behind than the open session the fixture closes.
    std::function<void(class SessionRecordsTest &)> undo = nullptr;
};

void PrintTo(const RecordScenario &scenario, std::ostream *out) {
    *out << scenario.name;
}

class SessionRecordsTest : public SessionTest, public ::testing::WithParamInterface<RecordScenario> {
public:
    // The scenarios drive the fixture from outside.
    using SessionTest::closeDS;
    using SessionTest::disableDS;
    using SessionTest::enableDS;
    using SessionTest::getAllDS;
    using SessionTest::openDS;
    using SessionTest::script;
    using SessionTest::selectDS;
    using SessionTest::setDefaultDriver;
    using SessionTest::window;

    using SessionTest::DisableInTheSourcesPlace;
    using SessionTest::Enable;
    using SessionTest::LeaveManagerOpen;
    using SessionTest::Open;
    using SessionTest::ReloadWithoutSourceManager;

    // Two copies of the scanner listed as Alpha (twain_32) and Bravo (a subdirectory of twain_32).
    void TwoSources() {
        script.clearSources();
        script.addSource("Alpha", InstallVirtualScanner("twain_32\\a.ds").c_str());
        script.addSource("Bravo", InstallVirtualScanner("twain_32\\sub\\b.ds").c_str());
    }
    void FailOnce(TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc = TWRC_FAILURE) {
        script.failOnce(DG_CONTROL, dat, msg, rc, TWCC_BUMMER);
    }
    std::string List() const { return BinDir() + "\\records.ini"; }

    // "Level line text"; records of the default source, which stand at lines of the module's own choosing,
    // show "+" for any line above 0.
    Strings Sm2Records() const {
        Strings out;
        for (const TraceLine &record : viewer.Records())
            if (record.source == kSm2)
                out.push_back(record.level + " " + LineOf(record) + " " + record.text);
        return out;
    }

private:
    static std::string LineOf(const TraceLine &record) {
        static const std::string unlined[] = {"TScanModule::SetDefaultDriver", "TScanModule::SearchSourceDirectory"};
        const std::string &text = record.text;
        for (const std::string &name : unlined)
            if (text.size() >= name.size() && text.compare(text.size() - name.size(), name.size(), name) == 0)
                return record.line > 0 ? "+" : std::to_string(record.line);
        return std::to_string(record.line);
    }
};

TEST_P(SessionRecordsTest, WritesItsRecordsWithTheirLines) {
    const RecordScenario &scenario = GetParam();
    if (scenario.arrange)
        scenario.arrange(*this);
    viewer.Clear();
    ScopeExit undo([&] {
        if (scenario.undo)
            scenario.undo(*this);
    });
    scenario.act(*this);
    EXPECT_EQ(scenario.records, Sm2Records());
}

// Records of the inner calls that most scenarios share.
const Strings kOpenDsmPair = {"Trace 111 Coming TScanModule::OpenDSM", "Trace 159 Leaving TScanModule::OpenDSM"};
const Strings kCloseDsmPair = {"Trace 703 Coming TScanModule::CloseDSM", "Trace 750 Leaving TScanModule::CloseDSM"};
const Strings kStatusPair = {"Trace 764 Coming TScanModule::GetTWAINStatusCode",
                             "Trace 788 Leaving TScanModule::GetTWAINStatusCode"};

Strings Join(std::initializer_list<Strings> parts) {
    Strings out;
    for (const Strings &part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

const RecordScenario kScenarios[] = {
    {"OpenDSInStateTwo", nullptr, [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     Join({{"Trace 345 Coming TScanModule::OpenDS"}, kOpenDsmPair, {"Trace 448 Leaving TScanModule::OpenDS"}})},
    {"OpenDSWithoutWindow", nullptr, [](SessionRecordsTest &t) { t.openDS(nullptr, "Records"); },
     Join({{"Trace 345 Coming TScanModule::OpenDS", "Warning 363 Invalid parent window handle in TScanModule::OpenDS"},
           kOpenDsmPair,
           {"Trace 448 Leaving TScanModule::OpenDS"}})},
    {"OpenDSInStateFour",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     {"Trace 345 Coming TScanModule::OpenDS", "Warning 372 DS is already open in TScanModule::OpenDS",
      "Trace 448 Leaving TScanModule::OpenDS"}},
    {"OpenDSInStateFive",
     [](SessionRecordsTest &t) { t.Enable(); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     {"Trace 345 Coming TScanModule::OpenDS", "Trace 111 Coming TScanModule::OpenDSM",
      "Warning 137 Sequence error in TScanModule::OpenDSM", "Trace 159 Leaving TScanModule::OpenDSM",
      "Warning 402 OpenDSM returns failure in TScanModule::OpenDS", "Trace 448 Leaving TScanModule::OpenDS"}},
    {"OpenDSWhenTheManagerFailsToOpen", [](SessionRecordsTest &t) { t.FailOnce(DAT_PARENT, MSG_OPENDSM); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     Join({{"Trace 345 Coming TScanModule::OpenDS", "Trace 111 Coming TScanModule::OpenDSM",
            "Warning 153 DSM_Entry returns failure in TScanModule::OpenDSM"},
           kStatusPair,
           {"Trace 159 Leaving TScanModule::OpenDSM", "Warning 402 OpenDSM returns failure in TScanModule::OpenDS",
            "Trace 448 Leaving TScanModule::OpenDS"}})},
    {"OpenDSWhenTheSourceFailsToOpen", [](SessionRecordsTest &t) { t.FailOnce(DAT_IDENTITY, MSG_OPENDS); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     Join({{"Trace 345 Coming TScanModule::OpenDS"},
           kOpenDsmPair,
           {"Warning 419 DSM_Entry returns failure in TScanModule::OpenDS"},
           kStatusPair,
           kCloseDsmPair,
           {"Trace 448 Leaving TScanModule::OpenDS"}})},
    {"OpenDSMInStateThree",
     [](SessionRecordsTest &t) { t.LeaveManagerOpen(); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     {"Trace 345 Coming TScanModule::OpenDS", "Trace 111 Coming TScanModule::OpenDSM",
      "Warning 125 Data Source Manager is already open in TScanModule::OpenDSM",
      "Trace 159 Leaving TScanModule::OpenDSM", "Trace 448 Leaving TScanModule::OpenDS"}},
    {"CloseDSMFailing",
     [](SessionRecordsTest &t) {
         t.Open();
         t.FailOnce(DAT_PARENT, MSG_CLOSEDSM);
     },
     // The status query still addresses the source just closed, which the manager no longer knows.
     [](SessionRecordsTest &t) { t.closeDS(); },
     {"Trace 633 Coming TScanModule::CloseDS", "Trace 703 Coming TScanModule::CloseDSM",
      "Warning 744 DSM_Entry returns failure in TScanModule::CloseDSM",
      "Trace 764 Coming TScanModule::GetTWAINStatusCode",
      "Warning 782 DSM_Entry returns failure in TScanModule::GetTWAINStatusCode",
      "Trace 788 Leaving TScanModule::GetTWAINStatusCode", "Trace 750 Leaving TScanModule::CloseDSM",
      "Trace 690 Leaving TScanModule::CloseDS"}},
    {"EnableDSModal",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.enableDS(FALSE, TRUE); },
     {"Trace 463 Coming TScanModule::EnableDS", "Trace 501 To disable parent window in TScanModule::EnableDS",
      "Trace 505 Disable parent window OK in TScanModule::EnableDS", "Trace 547 Leaving TScanModule::EnableDS"}},
    {"EnableDSInStateFive",
     [](SessionRecordsTest &t) { t.Enable(); },
     [](SessionRecordsTest &t) { t.enableDS(FALSE, FALSE); },
     {"Trace 463 Coming TScanModule::EnableDS", "Warning 477 DS is already enabled in TScanModule::EnableDS",
      "Trace 547 Leaving TScanModule::EnableDS"}},
    {"EnableDSInStateTwo",
     nullptr,
     [](SessionRecordsTest &t) { t.enableDS(FALSE, FALSE); },
     {"Trace 463 Coming TScanModule::EnableDS", "Warning 485 Sequence error in TScanModule::EnableDS",
      "Trace 547 Leaving TScanModule::EnableDS"}},
    {"EnableDSCheckStatus",
     [](SessionRecordsTest &t) {
         t.Open();
         t.script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, TWRC_CHECKSTATUS, TWCC_SUCCESS);
     },
     [](SessionRecordsTest &t) { t.enableDS(FALSE, FALSE); },
     {"Trace 463 Coming TScanModule::EnableDS",
      "Warning 527 DSM_Entry returns check condition in TScanModule::EnableDS",
      "Trace 547 Leaving TScanModule::EnableDS"},
     [](SessionRecordsTest &t) { t.DisableInTheSourcesPlace(); }},
    {"EnableDSFailing",
     [](SessionRecordsTest &t) {
         t.Open();
         t.FailOnce(DAT_USERINTERFACE, MSG_ENABLEDS);
     },
     [](SessionRecordsTest &t) { t.enableDS(FALSE, FALSE); },
     Join({{"Trace 463 Coming TScanModule::EnableDS", "Warning 536 DSM_Entry returns failure in TScanModule::EnableDS"},
           kStatusPair,
           {"Trace 547 Leaving TScanModule::EnableDS"}})},
    {"DisableDSInStateFive",
     [](SessionRecordsTest &t) { t.Enable(); },
     [](SessionRecordsTest &t) { t.disableDS(); },
     {"Trace 620 Leaving TScanModule::DisableDS"}},
    {"DisableDSInStateFour",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.disableDS(); },
     {"Warning 573 DS is already disabled in TScanModule::DisableDS", "Trace 620 Leaving TScanModule::DisableDS"}},
    {"DisableDSInStateThree",
     [](SessionRecordsTest &t) { t.LeaveManagerOpen(); },
     [](SessionRecordsTest &t) { t.disableDS(); },
     {"Warning 581 Sequence error in TScanModule::DisableDS", "Trace 620 Leaving TScanModule::DisableDS"}},
    {"DisableDSInStateTwo",
     nullptr,
     [](SessionRecordsTest &t) { t.disableDS(); },
     {"Warning 581 Sequence error in TScanModule::DisableDS", "Trace 620 Leaving TScanModule::DisableDS"}},
    {"DisableDSFailing",
     [](SessionRecordsTest &t) {
         t.Enable();
         t.FailOnce(DAT_USERINTERFACE, MSG_DISABLEDS);
     },
     [](SessionRecordsTest &t) { t.disableDS(); },
     Join({{"Warning 603 DSM_Entry returns failure in TScanModule::DisableDS"},
           kStatusPair,
           {"Trace 620 Leaving TScanModule::DisableDS"}})},
    {"CloseDSInStateFour", [](SessionRecordsTest &t) { t.Open(); }, [](SessionRecordsTest &t) { t.closeDS(); },
     Join({{"Trace 633 Coming TScanModule::CloseDS"}, kCloseDsmPair, {"Trace 690 Leaving TScanModule::CloseDS"}})},
    {"CloseDSInStateThree", [](SessionRecordsTest &t) { t.LeaveManagerOpen(); },
     [](SessionRecordsTest &t) { t.closeDS(); },
     Join({{"Trace 633 Coming TScanModule::CloseDS", "Warning 647 DS is already closed in TScanModule::CloseDS"},
           kCloseDsmPair,
           {"Trace 690 Leaving TScanModule::CloseDS"}})},
    {"CloseDSInStateTwo",
     nullptr,
     [](SessionRecordsTest &t) { t.closeDS(); },
     {"Trace 633 Coming TScanModule::CloseDS", "Warning 662 Sequence error in TScanModule::CloseDS",
      "Trace 690 Leaving TScanModule::CloseDS"}},
    {"CloseDSFailing",
     [](SessionRecordsTest &t) {
         t.Open();
         t.FailOnce(DAT_IDENTITY, MSG_CLOSEDS);
     },
     [](SessionRecordsTest &t) { t.closeDS(); },
     Join({{"Trace 633 Coming TScanModule::CloseDS", "Warning 684 DSM_Entry returns failure in TScanModule::CloseDS"},
           kStatusPair,
           {"Trace 690 Leaving TScanModule::CloseDS"}})},
    {"StatusQueryFailing",
     [](SessionRecordsTest &t) {
         t.Open();
         t.FailOnce(DAT_IDENTITY, MSG_CLOSEDS);
         t.FailOnce(DAT_STATUS, MSG_GET);
     },
     [](SessionRecordsTest &t) { t.closeDS(); },
     {"Trace 633 Coming TScanModule::CloseDS", "Warning 684 DSM_Entry returns failure in TScanModule::CloseDS",
      "Trace 764 Coming TScanModule::GetTWAINStatusCode",
      "Warning 782 DSM_Entry returns failure in TScanModule::GetTWAINStatusCode",
      "Trace 788 Leaving TScanModule::GetTWAINStatusCode", "Trace 690 Leaving TScanModule::CloseDS"}},
    {"SelectDSWithoutWindow", nullptr, [](SessionRecordsTest &t) { t.selectDS(nullptr); },
     Join({{"Trace 173 Coming TScanModule::SelectDS",
            "Warning 188 Invalid parent window handle in TScanModule::SelectDS"},
           kOpenDsmPair,
           kCloseDsmPair,
           {"Trace 232 Leaving TScanModule::SelectDS"}})},
    {"SelectDSInStateThree", [](SessionRecordsTest &t) { t.LeaveManagerOpen(); },
     [](SessionRecordsTest &t) { t.selectDS(t.window); },
     Join({{"Trace 173 Coming TScanModule::SelectDS", "Trace 111 Coming TScanModule::OpenDSM",
            "Warning 125 Data Source Manager is already open in TScanModule::OpenDSM",
            "Trace 159 Leaving TScanModule::OpenDSM"},
           kCloseDsmPair,
           {"Trace 232 Leaving TScanModule::SelectDS"}})},
    {"SelectDSInStateFour",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.selectDS(t.window); },
     {"Trace 173 Coming TScanModule::SelectDS", "Trace 111 Coming TScanModule::OpenDSM",
      "Warning 137 Sequence error in TScanModule::OpenDSM", "Trace 159 Leaving TScanModule::OpenDSM",
      "Warning 198 OpenDSM returns failure in TScanModule::SelectDS", "Trace 232 Leaving TScanModule::SelectDS"}},
    {"SelectDSFailing", [](SessionRecordsTest &t) { t.FailOnce(DAT_IDENTITY, MSG_USERSELECT); },
     [](SessionRecordsTest &t) { t.selectDS(t.window); },
     Join({{"Trace 173 Coming TScanModule::SelectDS"},
           kOpenDsmPair,
           {"Warning 224 DSM_Entry returns failure in TScanModule::SelectDS"},
           kStatusPair,
           kCloseDsmPair,
           {"Trace 232 Leaving TScanModule::SelectDS"}})},
    {"GetAllDSListing", nullptr, [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     Join({{"Trace 251 Coming TScanModule::GetAllDS"},
           kOpenDsmPair,
           kCloseDsmPair,
           {"Trace 323 Leaving TScanModule::GetAllDS"}})},
    {"GetAllDSInStateThree", [](SessionRecordsTest &t) { t.LeaveManagerOpen(); },
     [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     Join({{"Trace 251 Coming TScanModule::GetAllDS", "Trace 111 Coming TScanModule::OpenDSM",
            "Warning 125 Data Source Manager is already open in TScanModule::OpenDSM",
            "Trace 159 Leaving TScanModule::OpenDSM"},
           kCloseDsmPair,
           {"Trace 323 Leaving TScanModule::GetAllDS"}})},
    {"GetAllDSWithTheManagerRefusingToOpen",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     {"Trace 251 Coming TScanModule::GetAllDS", "Trace 111 Coming TScanModule::OpenDSM",
      "Warning 137 Sequence error in TScanModule::OpenDSM", "Trace 159 Leaving TScanModule::OpenDSM",
      "Warning 269 OpenDSM returns failure in TScanModule::SelectDS", "Trace 703 Coming TScanModule::CloseDSM",
      "Warning 725 Sequence error in TScanModule::CloseDSM", "Trace 750 Leaving TScanModule::CloseDSM",
      "Trace 323 Leaving TScanModule::GetAllDS"}},
    {"GetAllDSWithoutFirstSource", [](SessionRecordsTest &t) { t.FailOnce(DAT_IDENTITY, MSG_GETFIRST); },
     [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     Join({{"Trace 251 Coming TScanModule::GetAllDS"},
           kOpenDsmPair,
           {"Warning 281 OpenDSM returns failure in TScanModule::SelectDS"},
           kCloseDsmPair,
           {"Trace 323 Leaving TScanModule::GetAllDS"}})},
    {"GetAllDSWithTheManagerFailingToOpen", [](SessionRecordsTest &t) { t.FailOnce(DAT_PARENT, MSG_OPENDSM); },
     [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     Join({{"Trace 251 Coming TScanModule::GetAllDS", "Trace 111 Coming TScanModule::OpenDSM",
            "Warning 153 DSM_Entry returns failure in TScanModule::OpenDSM"},
           kStatusPair,
           {"Trace 159 Leaving TScanModule::OpenDSM", "Warning 269 OpenDSM returns failure in TScanModule::SelectDS",
            "Trace 703 Coming TScanModule::CloseDSM",
            "Warning 717 Data Source Manager is already closed in TScanModule::CloseDSM",
            "Trace 750 Leaving TScanModule::CloseDSM", "Trace 323 Leaving TScanModule::GetAllDS"}})},
    {"OpenDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.openDS(t.window, "Records"); },
     {"Trace 345 Coming TScanModule::OpenDS", "Warning 351 TWAIN is not available in TScanModule::OpenDS",
      "Trace 448 Leaving TScanModule::OpenDS"}},
    {"EnableDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.enableDS(FALSE, FALSE); },
     {"Trace 463 Coming TScanModule::EnableDS", "Warning 469 TWAIN is not available in TScanModule::EnableDS",
      "Trace 547 Leaving TScanModule::EnableDS"}},
    {"CloseDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.closeDS(); },
     {"Trace 633 Coming TScanModule::CloseDS", "Warning 639 TWAIN is not available in TScanModule::CloseDS",
      "Trace 690 Leaving TScanModule::CloseDS"}},
    {"SelectDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.selectDS(t.window); },
     {"Trace 173 Coming TScanModule::SelectDS", "Warning 177 TWAIN is not available in TScanModule::SelectDS",
      "Trace 232 Leaving TScanModule::SelectDS"}},
    {"DisableDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.disableDS(); },
     {"Warning 565 TWAIN is not available in TScanModule::DisableDS", "Trace 620 Leaving TScanModule::DisableDS"}},
    {"GetAllDSWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.getAllDS(t.List().c_str()); },
     {"Trace 251 Coming TScanModule::GetAllDS", "Warning 255 TWAIN is not available in TScanModule::GetAllDS",
      "Trace 703 Coming TScanModule::CloseDSM", "Warning 709 TWAIN is not available in TScanModule::CloseDSM",
      "Trace 750 Leaving TScanModule::CloseDSM", "Trace 323 Leaving TScanModule::GetAllDS"}},
    {"SetDefaultDriverWithoutSourceManager",
     [](SessionRecordsTest &t) { t.ReloadWithoutSourceManager(); },
     [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "Virtual Scanner"); },
     {"Trace + Coming TScanModule::SetDefaultDriver",
      "Warning + TWAIN is not available in TScanModule::SetDefaultDriver",
      "Trace + Leaving TScanModule::SetDefaultDriver"}},
    {"SetDefaultDriverWithTheManagerRefusingToOpen",
     [](SessionRecordsTest &t) { t.Open(); },
     [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "Virtual Scanner"); },
     {"Trace + Coming TScanModule::SetDefaultDriver", "Trace 111 Coming TScanModule::OpenDSM",
      "Warning 137 Sequence error in TScanModule::OpenDSM", "Trace 159 Leaving TScanModule::OpenDSM",
      "Warning + OpenDSM returns failure in TScanModule::SetDefaultDriver",
      "Trace + Leaving TScanModule::SetDefaultDriver"}},
    {"SetDefaultDriverAlreadyTheDefault", nullptr,
     [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "VIRTUAL SCANNER"); },
     Join({{"Trace + Coming TScanModule::SetDefaultDriver"},
           kOpenDsmPair,
           kCloseDsmPair,
           {"Trace + Leaving TScanModule::SetDefaultDriver"}})},
    // Bravo lies in a subdirectory: the search goes one level down. Alpha, the default at first, asks for no record.
    {"SetDefaultDriverFoundAfterSearch", [](SessionRecordsTest &t) { t.TwoSources(); },
     [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "Bravo"); },
     Join({{"Trace + Coming TScanModule::SetDefaultDriver"},
           kOpenDsmPair,
           {"Trace + Coming TScanModule::SearchSourceDirectory", "Trace + Coming TScanModule::SearchSourceDirectory",
            "Trace + Leaving TScanModule::SearchSourceDirectory", "Trace + Leaving TScanModule::SearchSourceDirectory"},
           kCloseDsmPair,
           {"Trace + Leaving TScanModule::SetDefaultDriver"}})},
    // twain_32 holds the scanner, which does not match; twain does not exist.
    {"SetDefaultDriverWithoutMatch", nullptr, [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "Zulu"); },
     Join({{"Trace + Coming TScanModule::SetDefaultDriver"},
           kOpenDsmPair,
           {"Trace + Coming TScanModule::SearchSourceDirectory", "Trace + Leaving TScanModule::SearchSourceDirectory",
            "Trace + Coming TScanModule::SearchSourceDirectory", "Trace + Leaving TScanModule::SearchSourceDirectory"},
           kCloseDsmPair,
           {"Trace + Leaving TScanModule::SetDefaultDriver"}})},
    // The candidate's query fails: the record names SetDefaultDriver and the condition code is asked for.
    {"SetDefaultDriverWithAFailingCandidate",
     [](SessionRecordsTest &t) {
         t.script.failEx(DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, TWRC_FAILURE, TWCC_BUMMER, 2, 1);
     },
     [](SessionRecordsTest &t) { t.setDefaultDriver(t.window, "Zulu"); },
     Join({{"Trace + Coming TScanModule::SetDefaultDriver"},
           kOpenDsmPair,
           {"Trace + Coming TScanModule::SearchSourceDirectory",
            "Warning + DSM_Entry returns failure in TScanModule::SetDefaultDriver"},
           kStatusPair,
           {"Trace + Leaving TScanModule::SearchSourceDirectory", "Trace + Coming TScanModule::SearchSourceDirectory",
            "Trace + Leaving TScanModule::SearchSourceDirectory"},
           kCloseDsmPair,
           {"Trace + Leaving TScanModule::SetDefaultDriver"}})},
};

INSTANTIATE_TEST_SUITE_P(Scenarios, SessionRecordsTest, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<RecordScenario> &info) { return info.param.name; });

} // namespace
