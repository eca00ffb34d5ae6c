// Making a named source the default through win.ini: the search over twain_32 and twain, and the restore.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "SessionTest.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr LONG kNotFound = 12;

std::string DefaultSource() {
    char value[MAX_PATH];
    GetProfileStringA("Twain", "Default Source", "<missing>", value, sizeof value);
    return value;
}

// The product names the source manager reported, one per MSG_GETDEFAULT, in order.
Strings DefaultsAsked(const std::vector<TdsmCall> &calls) {
    Strings names;
    for (const TdsmCall &call : calls) {
        if (call.dat != DAT_IDENTITY || call.msg != MSG_GETDEFAULT)
            continue;
        TW_IDENTITY identity;
        std::memcpy(&identity, call.dataOut, sizeof identity);
        names.emplace_back(identity.ProductName);
    }
    return names;
}

// Several copies of the virtual scanner, each with its own product name, in the source directories.
class DefaultSourceTest : public SessionTest {
protected:
    // Installs a copy at `relativePath` (under the Windows directory) listed as `productName`.
    std::string Add(const std::string &relativePath, const char *productName) {
        if (!scripted) {
            // Only the candidates of the test are in the source directories.
            script.clearSources();
            RemoveSourceDirectories();
            scripted = true;
        }
        const std::string file = InstallVirtualScanner(relativePath);
        script.addSource(productName, file.c_str());
        return file;
    }
    bool scripted = false;
};

TEST_F(DefaultSourceTest, SourceThatIsAlreadyTheDefaultNeedsNoSearch) {
    const std::string file = Add("twain_32\\a.ds", "Alpha");
    Add("twain_32\\b.ds", "Bravo");
    WriteProfileStringA("Twain", "Default Source", file.c_str());
    Mark();
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "ALPHA"));
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith());
    EXPECT_EQ(file, DefaultSource()) << "win.ini is not written";
}

TEST_F(DefaultSourceTest, ManagerLeftOpenIsClosedAfterwards) {
    LeaveManagerOpen();
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "Virtual Scanner"));
    EXPECT_EQ((Strings{kGetDefault, kCloseDsm}), Triplets());
    EXPECT_EQ(std::vector<HWND>{window}, ManagerClosedWith());
    EXPECT_EQ((Strings{"Data Source Manager is already open in TScanModule::OpenDSM"}), Warnings());
    EXPECT_EQ(2, StateFoundByOpenDS());
}

TEST_F(DefaultSourceTest, SourceInADeepSubdirectoryIsFound) {
    Add("twain_32\\a.ds", "Alpha");
    const std::string deep = Add("twain_32\\maker\\family\\model\\d.ds", "Delta");
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "Delta"));
    EXPECT_EQ(deep, DefaultSource());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State()) << "the source manager is closed again";
}

TEST_F(DefaultSourceTest, SourceUnderTheOldDirectoryIsFound) {
    Add("twain_32\\a.ds", "Alpha");
    const std::string old = Add("twain\\sub\\e.ds", "Echo");
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "Echo"));
    EXPECT_EQ(old, DefaultSource());
}

TEST_F(DefaultSourceTest, UpperCaseSuffixMatches) {
    Add("twain_32\\a.ds", "Alpha");
    const std::string upper = Add("twain_32\\UPPER.DS", "Upper");
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "Upper"));
    EXPECT_EQ(upper, DefaultSource());
}

// A directory whose attribute word is FILE_ATTRIBUTE_DIRECTORY plus any other bit counts as a file.
class MarkedDirectoryTest : public DefaultSourceTest, public ::testing::WithParamInterface<DWORD> {};

TEST_P(MarkedDirectoryTest, IsNotDescended) {
    Add("twain_32\\a.ds", "Alpha");
    Add("twain_32\\marked\\h.ds", "Hotel");
    const std::string marked = WindowsDir() + "\\twain_32\\marked";
    const DWORD word = FILE_ATTRIBUTE_DIRECTORY | GetParam();
    ASSERT_TRUE(SetFileAttributesA(marked.c_str(), word));
    WIN32_FIND_DATAA entry;
    HANDLE found = FindFirstFileA(marked.c_str(), &entry);
    ASSERT_NE(INVALID_HANDLE_VALUE, found);
    FindClose(found);
    // Wine takes the read-only and archive bits for a directory without an error but keeps neither: the directory
    // still reads 0x10, so there is nothing to test there.
    if (entry.dwFileAttributes == FILE_ATTRIBUTE_DIRECTORY)
        GTEST_SKIP() << "Wine keeps no attribute " << GetParam() << " on a directory";
    ASSERT_EQ(word, entry.dwFileAttributes);
    EXPECT_EQ(kNotFound, setDefaultDriver(window, "Hotel")) << "the marked directory was searched";
}

INSTANTIATE_TEST_SUITE_P(Attributes, MarkedDirectoryTest,
                         ::testing::Values(FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM,
                                           FILE_ATTRIBUTE_ARCHIVE),
                         [](const ::testing::TestParamInfo<DWORD> &info) {
                             switch (info.param) {
                             case FILE_ATTRIBUTE_READONLY:
                                 return "ReadOnly";
                             case FILE_ATTRIBUTE_HIDDEN:
                                 return "Hidden";
                             case FILE_ATTRIBUTE_SYSTEM:
                                 return "System";
                             default:
                                 return "Archive";
                             }
                         });

TEST_F(DefaultSourceTest, NoMatchTriesEveryCandidateThenRestoresTheEntry) {
    Add("twain_32\\a.ds", "Alpha");
    Add("twain_32\\b.ds", "Bravo");
    WriteProfileStringA("Twain", "Default Source", "C:\\elsewhere\\old.ds");
    Mark();
    EXPECT_EQ(kNotFound, setDefaultDriver(window, "Zulu"));
    // The first answer is the current default (the listed entry names no usable source, so the
    // manager falls back to its first source); then one answer per candidate written to win.ini.
    Strings asked = DefaultsAsked(CallsSinceMark());
    ASSERT_EQ(3u, asked.size());
    std::sort(asked.begin() + 1, asked.end());
    EXPECT_EQ((Strings{"Alpha", "Alpha", "Bravo"}), asked);
    EXPECT_EQ("C:\\elsewhere\\old.ds", DefaultSource());
    EXPECT_EQ(TDSM_STATE_LOADED, dsm.State());
}

TEST_F(DefaultSourceTest, NoDirectoriesGiveTwelveAndAnEmptyEntry) {
    script.clearSources();
    RemoveSourceDirectories();
    EXPECT_EQ(kNotFound, setDefaultDriver(window, "Anything"));
    EXPECT_EQ("", DefaultSource()) << "there was no entry before";
}

TEST_F(DefaultSourceTest, NoDirectoriesGiveTwelveAndTheEarlierEntryBack) {
    script.clearSources();
    RemoveSourceDirectories();
    WriteProfileStringA("Twain", "Default Source", "C:\\elsewhere\\old.ds");
    Mark();
    EXPECT_EQ(kNotFound, setDefaultDriver(window, "Anything")) << TwccName(kNotFound);
    // The manager has no default to give; its failure is not looked into.
    EXPECT_EQ((Strings{kOpenDsm, Failed(kGetDefault), kCloseDsm}), Triplets());
    EXPECT_EQ("C:\\elsewhere\\old.ds", DefaultSource());
}

TEST_F(DefaultSourceTest, NullProductNameMatchesNoSource) {
    Add("twain_32\\a.ds", "Alpha");
    WriteProfileStringA("Twain", "Default Source", "C:\\elsewhere\\old.ds");
    Mark();
    EXPECT_EQ(kNotFound, setDefaultDriver(window, nullptr)) << TwccName(kNotFound);
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, kGetDefault, kCloseDsm}), Triplets()) << "the one candidate was tried";
    EXPECT_EQ("C:\\elsewhere\\old.ds", DefaultSource());
}

TEST_F(DefaultSourceTest, NullWindowMeansTheDesktop) {
    Add("twain_32\\a.ds", "Alpha");
    EXPECT_EQ(SM_OK, setDefaultDriver(nullptr, "Alpha"));
    EXPECT_EQ(GetDesktopWindow(), script.parentWindow());
    EXPECT_EQ(std::vector<HWND>{GetDesktopWindow()}, ManagerClosedWith());
    EXPECT_EQ((Strings{"Invalid parent window handle in TScanModule::SetDefaultDriver"}), Warnings());
}

TEST_F(DefaultSourceTest, FailedCandidateQueryIsReportedAndTheSearchGoesOn) {
    Add("twain_32\\a.ds", "Alpha");
    const std::string bravo = Add("twain\\b.ds", "Bravo");
    WriteProfileStringA("Twain", "Default Source", "C:\\elsewhere\\old.ds");
    // The first MSG_GETDEFAULT asks for the current default; the second is the only candidate of
    // twain_32, whose failure ends that directory with its condition code; twain holds Bravo.
    script.failEx(DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, TWRC_FAILURE, TWCC_BUMMER, 2, 1);
    EXPECT_EQ(SM_OK, setDefaultDriver(window, "Bravo"));
    EXPECT_EQ(bravo, DefaultSource());
    const Strings warnings = Warnings();
    EXPECT_NE(warnings.end(), std::find(warnings.begin(), warnings.end(),
                                        "DSM_Entry returns failure in TScanModule::SetDefaultDriver"));
}

TEST_F(DefaultSourceTest, FailedQueryOfTheLastCandidateGivesItsConditionCode) {
    Add("twain_32\\a.ds", "Alpha");
    Add("twain\\b.ds", "Bravo");
    WriteProfileStringA("Twain", "Default Source", "C:\\elsewhere\\old.ds");
    Mark();
    // The first MSG_GETDEFAULT asks for the current default, the second tries Alpha in twain_32, the
    // third Bravo in twain, the last candidate.
    script.failEx(DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, TWRC_FAILURE, TWCC_OPERATIONERROR, 3, 1);
    const LONG result = setDefaultDriver(window, "Zulu");
    EXPECT_EQ(TWCC_OPERATIONERROR, result) << TwccName(result);
    EXPECT_EQ((Strings{kOpenDsm, kGetDefault, kGetDefault, Failed(kGetDefault), kStatus, kCloseDsm}), Triplets());
    EXPECT_EQ((Strings{"DSM_Entry returns failure in TScanModule::SetDefaultDriver"}), Warnings());
    EXPECT_EQ("C:\\elsewhere\\old.ds", DefaultSource());
}

TEST_F(DefaultSourceTest, RefusedManagerOpenReturnsItsCodeWithoutClosing) {
    Add("twain_32\\a.ds", "Alpha");
    ASSERT_EQ(SM_OK, openDS(window, "Default source test"));
    Mark();
    viewer.Clear();
    EXPECT_EQ(SM_ERR_SEQUENCE, setDefaultDriver(window, "Alpha"));
    EXPECT_TRUE(Triplets().empty());
    EXPECT_EQ(
        (Strings{"Sequence error in TScanModule::OpenDSM", "OpenDSM returns failure in TScanModule::SetDefaultDriver"}),
        Warnings());
}

TEST_F(DefaultSourceTest, WithoutSourceManagerTheResultIsMinusOne) {
    ReloadWithoutSourceManager();
    EXPECT_EQ(SM_ERR_UNAVAILABLE, setDefaultDriver(window, "Alpha"));
    const Strings warnings = Warnings();
    ASSERT_FALSE(warnings.empty());
    EXPECT_EQ("TWAIN is not available in TScanModule::SetDefaultDriver", warnings.back());
}

} // namespace
