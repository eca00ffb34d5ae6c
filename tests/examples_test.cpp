// The example programs of examples/, each run as an application runs, against the virtual scanner: what they print
// and the files they write. Built twice: behind the stand-in source manager (examples_test) and behind Wine's own
// (examples_winedsm_test, EXAMPLES_UNDER_WINE_MANAGER).
#include <gtest/gtest.h>

#include <windows.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "ProgramRun.h"
#include "ScannerProgramTest.h"
#include "SessionTest.h"
#include "TestSupport.h"
#include "VscanSupport.h"

#ifdef EXAMPLES_UNDER_WINE_MANAGER
#define EXAMPLES_SUITE ExamplesWineDsmTest
#else
#define EXAMPLES_SUITE ExamplesTest
#endif

namespace smtest {
namespace {

#ifdef EXAMPLES_UNDER_WINE_MANAGER
constexpr bool kWineManager = true;
#else
constexpr bool kWineManager = false;
#endif

using Strings = std::vector<std::string>;

// The scanner's whole bed (8.5 x 14 inches) at its default 100 dots per inch, which the examples keep.
constexpr int kWidth = 850;
constexpr int kHeight = 1400;
constexpr int kPages = 3;
// A run that takes longer than this has hung.
constexpr DWORD kRunLimitMs = 90000;

class EXAMPLES_SUITE : public ScannerProgramTest {
protected:
    EXAMPLES_SUITE() : ScannerProgramTest(kWineManager, "examples") {}

    // The example, copied with smkernal.dll into the suite's own directory as an application would be installed (so
    // that the CV_Scan.INI one of them writes beside itself is no other run's), and run there.
    ProgramRun Example(const std::string &name, const Strings &arguments = {}) {
        const std::string built = BinDir() + "\\..\\examples\\";
        ProgramRun run;
        for (const std::string &file : {name + ".exe", std::string("smkernal.dll")})
            if (!CopyFileA((built + file).c_str(), Work(file).c_str(), FALSE))
                ADD_FAILURE() << "copying " << built << file << " (error " << GetLastError() << ")";
        EXPECT_TRUE(RunProgram(Work(name + ".exe"), arguments, work_, kRunLimitMs, run));
        return run;
    }
};

TEST_F(EXAMPLES_SUITE, NativePageSavesTheFlatbedPageAsA24BitBitmap) {
    const ProgramRun run = Example("native_page", {"scan.bmp"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ((Strings{"page: 850 x 1400 pixels, 24 bits a pixel: success", "saved to scan.bmp"}), run.OutLines());
    EXPECT_EQ("", run.err);
    Dib dib;
    ReadBmpFile(Work("scan.bmp"), dib);
    ASSERT_FALSE(HasFatalFailure());
    ExpectDib(MakeFormat(TWPT_RGB, 24), dib, kWidth, kHeight, 1);
}

TEST_F(EXAMPLES_SUITE, MemoryPagesTellsEveryBlockOfThreePagesFromTheFeeder) {
    const ProgramRun run = Example("memory_pages");
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ("", run.err);
    const Strings lines = run.OutLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("3 of 3 pages complete", lines.back());
    // Per page: its size, then one line a block, the blocks' rows following each other to the last row, then the
    // page's bytes and blocks. RGB rows of 850 pixels are 2550 bytes.
    const std::regex blockLine("  block ([0-9]+): rows ([0-9]+) to ([0-9]+), ([0-9]+) bytes");
    const DWORD rowBytes = kWidth * 3;
    size_t at = 0;
    for (int page = 1; page <= kPages; ++page) {
        SCOPED_TRACE("page " + std::to_string(page));
        ASSERT_LT(at, lines.size());
        EXPECT_EQ("page " + std::to_string(page) + ": 850 x 1400 pixels, 24 bits a pixel", lines[at++]);
        unsigned blocks = 0, nextRow = 0;
        std::smatch match;
        for (; at < lines.size() && std::regex_match(lines[at], match, blockLine); ++at) {
            EXPECT_EQ(++blocks, std::stoul(match[1]));
            EXPECT_EQ(nextRow, std::stoul(match[2])) << lines[at];
            nextRow = static_cast<unsigned>(std::stoul(match[3])) + 1;
            EXPECT_EQ((nextRow - std::stoul(match[2])) * rowBytes, std::stoul(match[4])) << lines[at];
        }
        EXPECT_EQ(static_cast<unsigned>(kHeight), nextRow) << "the blocks end at the last row";
        EXPECT_GT(blocks, 1u) << "a page larger than a block";
        ASSERT_LT(at, lines.size());
        EXPECT_EQ("page " + std::to_string(page) + ": " + std::to_string(rowBytes * kHeight) + " bytes in " +
                      std::to_string(blocks) + " blocks: success",
                  lines[at++]);
    }
    EXPECT_EQ(lines.size() - 1, at) << run;
}

TEST_F(EXAMPLES_SUITE, BatchToFilesWritesEverySheetOfTheFeederToANumberedBitmap) {
    // The feeder keeps what is left across the scanner's loads: each scan takes the next sheet.
    std::ofstream(SettingsPath()) << "Pages = " << kPages << "\nKeepFeeder = 1\n";
    const ProgramRun run = Example("batch_to_files", {std::to_string(kPages), "sheet"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ("", run.err);
    EXPECT_EQ((Strings{"page 1: sheet-1.bmp: success", "page 2: sheet-2.bmp: success", "page 3: sheet-3.bmp: success"}),
              run.OutLines());
    for (int page = 1; page <= kPages; ++page) {
        SCOPED_TRACE("sheet " + std::to_string(page));
        Dib dib;
        ReadBmpFile(Work("sheet-" + std::to_string(page) + ".bmp"), dib);
        ASSERT_FALSE(HasFatalFailure());
        ExpectDib(MakeFormat(TWPT_GRAY, 8), dib, kWidth, kHeight, page);
    }

    // The feeder is empty now: the next scan cannot start, and says so.
    const ProgramRun empty = Example("batch_to_files", {"1", "more"});
    EXPECT_EQ(1u, empty.exitCode) << empty;
    EXPECT_EQ((Strings{"page 1: the source could not be opened or started (an empty feeder?)"}), empty.ErrLines());
    EXPECT_FALSE(FileExists(Work("more-1.bmp")));

    const ProgramRun usage = Example("batch_to_files", {"0"});
    EXPECT_EQ(1u, usage.exitCode) << usage;
    EXPECT_EQ((Strings{"usage: batch_to_files [PAGES [PREFIX]]: at least one page, a prefix of 40 characters at most"}),
              usage.ErrLines());
}

TEST_F(EXAMPLES_SUITE, ReadBlockPullsEveryByteOfThePageIntoAGrayMap) {
    const ProgramRun run = Example("read_block", {"page.pgm"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ("", run.err);
    const Strings lines = run.OutLines();
    ASSERT_EQ(2u, lines.size()) << run;
    const std::regex summary("page: 850 x 1400 pixels, 1190000 bytes in ([0-9]+) blocks");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(lines[0], match, summary)) << lines[0];
    EXPECT_EQ((kWidth * kHeight + 65535) / 65536, std::stoi(match[1])) << "blocks of 64 KB";
    EXPECT_EQ("saved to page.pgm", lines[1]);
    // Every row of the page, top down, one byte a pixel.
    const std::string header = "P5\n850 1400\n255\n";
    const std::string pgm = FileText(Work("page.pgm"));
    ASSERT_EQ(header.size() + kWidth * kHeight, pgm.size());
    EXPECT_EQ(header, pgm.substr(0, header.size()));
    const Format gray = MakeFormat(TWPT_GRAY, 8);
    int wrong = 0;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const unsigned expected = ExpectedSamples(gray, kWidth, kHeight, 1, x, y)[0];
            const unsigned got = static_cast<unsigned char>(pgm[header.size() + y * kWidth + x]);
            if (expected != got && wrong++ < 5)
                ADD_FAILURE() << "pixel " << x << ", " << y << " is " << got << ", expected " << expected;
        }
    EXPECT_EQ(0, wrong);
    EXPECT_FALSE(FileExists(Work("CV_Scan.INI"))) << "the example takes its settings file away again";
}

} // namespace
} // namespace smtest
