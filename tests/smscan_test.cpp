// smscan, the command-line scanner, run as a program of its own against the virtual scanner: the source list, the
// choice of a source, batches into files equal to the expected test pages, every exit code, and a batch run from
// the source's interface with the library's question answered. Built twice: against the stand-in source manager
// (smscan_test) and against Wine's own (smscan_winedsm_test, SMSCAN_UNDER_WINE_MANAGER).
#include <gtest/gtest.h>

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ProgramRun.h"
#include "ScannerProgramTest.h"
#include "SessionTest.h"
#include "TestSupport.h"
#include "VscanSupport.h"

#ifdef SMSCAN_UNDER_WINE_MANAGER
#define SMSCAN_SUITE SmscanWineDsmTest
#else
#define SMSCAN_SUITE SmscanTest
#endif

namespace smtest {
namespace {

#ifdef SMSCAN_UNDER_WINE_MANAGER
constexpr bool kWineManager = true;
// Wine's manager loads no other file name.
const char kSourceFile[] = "sane.ds";
#else
constexpr bool kWineManager = false;
const char kSourceFile[] = "vscan.ds";
#endif

// The pages of these tests: the whole bed (8.5 x 14 inches) at 50 dots per inch.
constexpr int kDpi = 50;
constexpr int kWidth = 425;
constexpr int kHeight = 700;
// A run that takes longer than this has hung.
constexpr DWORD kRunLimitMs = 90000;

// bin\smscan.exe with `arguments`, started in `directory`; its exit code and what it wrote.
::testing::AssertionResult RunSmscan(const std::vector<std::string> &arguments, const std::string &directory,
                                     ProgramRun &run) {
    return RunProgram(BinDir() + "\\smscan.exe", arguments, directory, kRunLimitMs, run);
}

std::vector<unsigned char> FileBytes(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return std::vector<unsigned char>((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void Put16(std::vector<unsigned char> &bytes, size_t at, unsigned value) {
    bytes[at] = static_cast<unsigned char>(value);
    bytes[at + 1] = static_cast<unsigned char>(value >> 8);
}
void Put32(std::vector<unsigned char> &bytes, size_t at, unsigned value) {
    Put16(bytes, at, value & 0xFFFF);
    Put16(bytes, at + 2, value >> 16);
}

// The bitmap file of page `page` as the library writes it: file and info header (no resolution), the colour table of
// black and white (black first) or of 8-bit gray (the ramp), none for RGB, and the rows bottom-up in whole 4-byte
// words, RGB blue first, black and white most significant bit first (1 white), padding zero.
std::vector<unsigned char> ExpectedBitmapFile(const Format &f, int width, int height, int page) {
    const unsigned colours = f.pixelType == TWPT_RGB ? 0 : 1u << f.bitDepth;
    const unsigned stride = ((static_cast<unsigned>(width) * f.bitDepth + 7) / 8 + 3) & ~3u;
    const unsigned offset = 54 + 4 * colours;
    std::vector<unsigned char> bmp(offset + stride * static_cast<unsigned>(height), 0);
    bmp[0] = 'B';
    bmp[1] = 'M';
    Put32(bmp, 2, static_cast<unsigned>(bmp.size()));
    Put32(bmp, 10, offset);
    Put32(bmp, 14, 40);
    Put32(bmp, 18, static_cast<unsigned>(width));
    Put32(bmp, 22, static_cast<unsigned>(height));
    Put16(bmp, 26, 1);
    Put16(bmp, 28, static_cast<unsigned>(f.bitDepth));
    Put32(bmp, 46, colours);
    for (unsigned i = 0; i < colours; ++i) {
        const unsigned level = f.pixelType == TWPT_BW ? (i ? 255 : 0) : i;
        bmp[54 + 4 * i] = bmp[55 + 4 * i] = bmp[56 + 4 * i] = static_cast<unsigned char>(level);
    }
    for (int y = 0; y < height; ++y) {
        unsigned char *row = &bmp[offset + stride * static_cast<unsigned>(height - 1 - y)];
        for (int x = 0; x < width; ++x) {
            const std::vector<unsigned> s = ExpectedSamples(f, width, height, page, x, y);
            if (f.pixelType == TWPT_BW) {
                if (s[0])
                    row[x / 8] |= static_cast<unsigned char>(0x80 >> (x % 8));
            } else if (f.pixelType == TWPT_RGB) {
                row[3 * x] = static_cast<unsigned char>(s[2]);
                row[3 * x + 1] = static_cast<unsigned char>(s[1]);
                row[3 * x + 2] = static_cast<unsigned char>(s[0]);
            } else {
                row[x] = static_cast<unsigned char>(s[0]);
            }
        }
    }
    return bmp;
}

// The file at `path` is page `page` of the test page in format `f`, byte for byte.
void ExpectPageFile(const std::string &path, const Format &f, int page) {
    SCOPED_TRACE(path + ", page " + std::to_string(page));
    Dib dib;
    ReadBmpFile(path, dib);
    if (::testing::Test::HasFatalFailure())
        return;
    // The pixels first, for a failure that says which one differs.
    ExpectDib(f, dib, kWidth, kHeight, page);
    const std::vector<unsigned char> expected = ExpectedBitmapFile(f, kWidth, kHeight, page);
    const std::vector<unsigned char> got = FileBytes(path);
    ASSERT_EQ(expected.size(), got.size());
    const auto differs = std::mismatch(expected.begin(), expected.end(), got.begin());
    EXPECT_TRUE(differs.first == expected.end())
        << "first difference at byte " << (differs.first - expected.begin()) << ": expected "
        << static_cast<int>(*differs.first) << ", got " << static_cast<int>(*differs.second);
}

std::string ResolutionArgument() {
    return "--resolution=" + std::to_string(kDpi);
}

std::string PageLine(int page, const std::string &name) {
    return "page " + std::to_string(page) + ": " + name + ", " + std::to_string(kWidth) + " x " +
           std::to_string(kHeight) + " pixels: written";
}

const char kScanningLine[] = "smscan: scanning from Virtual Scanner";
const char kDefaultMark[] = " (default)";

bool IsDefaultLine(const std::string &line) {
    const size_t mark = std::strlen(kDefaultMark);
    return line.size() > mark && line.compare(line.size() - mark, mark, kDefaultMark) == 0;
}

class SMSCAN_SUITE : public ScannerProgramTest {
protected:
    SMSCAN_SUITE() : ScannerProgramTest(kWineManager, "smscan") {}

    void SetUp() override {
        ScannerProgramTest::SetUp();
        ASSERT_FALSE(HasFatalFailure());
        ASSERT_TRUE(CreateDirectoryA(Work("out").c_str(), nullptr));
    }

    // vscan.ini beside the scanner: a feeder of `pages` sheets that keeps what is left across loads, and `more`.
    void WriteScannerSettings(int pages, const std::string &more = "") {
        std::ofstream file(SettingsPath());
        file << "Pages = " << pages << "\nKeepFeeder = 1\n" << more;
        ASSERT_TRUE(file.good()) << SettingsPath();
    }

    ProgramRun Smscan(const std::vector<std::string> &arguments) {
        ProgramRun run;
        EXPECT_TRUE(RunSmscan(arguments, work_, run));
        return run;
    }
};

// --- The source list and the choice of a source.

TEST_F(SMSCAN_SUITE, ListsTheInstalledSourcesWithTheDefaultMarked) {
    if (!kWineManager) {
        // A second scanner in a directory of its own, with its own name.
        const std::string second = InstallSource("twain_32\\second\\vscan.ds");
        ASSERT_FALSE(second.empty());
        std::ofstream(TwainSourceDir() + "\\second\\vscan.ini") << "ProductName = Second Scanner\n";
    }
    const ProgramRun run = Smscan({"-L"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ("", run.err);
    std::vector<std::string> lines = run.OutLines();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(), IsDefaultLine)) << run;
    if (kWineManager) {
        // Wine's manager lists its own camera source beside sane.ds, and takes the scanner as its default.
        EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(), "device 'Virtual Scanner' (default)")) << run;
    } else {
        // Without a default in win.ini the stand-in takes the first source it finds.
        for (std::string &line : lines)
            if (IsDefaultLine(line))
                line.resize(line.size() - std::strlen(kDefaultMark));
        EXPECT_EQ((std::vector<std::string>{"device 'Second Scanner'", "device 'Virtual Scanner'"}), lines) << run;
    }
}

TEST_F(SMSCAN_SUITE, ChoosesTheSourceByItsProductName) {
    if (!kWineManager) {
        ASSERT_FALSE(InstallSource("twain_32\\second\\vscan.ds").empty());
        std::ofstream(TwainSourceDir() + "\\second\\vscan.ini") << "ProductName = Second Scanner\nPages = 1\n";
        // Either way round, whichever the stand-in took as its default before.
        for (const char *name : {"Virtual Scanner", "Second Scanner"}) {
            const ProgramRun list = Smscan({"-d", name, "-L"});
            ASSERT_EQ(0u, list.exitCode) << list;
            EXPECT_EQ("", list.err);
            std::vector<std::string> lines = list.OutLines();
            std::sort(lines.begin(), lines.end());
            const bool second = std::strcmp(name, "Second Scanner") == 0;
            EXPECT_EQ(
                (std::vector<std::string>{std::string("device 'Second Scanner'") + (second ? kDefaultMark : ""),
                                          std::string("device 'Virtual Scanner'") + (second ? "" : kDefaultMark)}),
                lines)
                << list;
        }
        // And the scan comes from it.
        const ProgramRun scan = Smscan({"--device-name=second scanner", ResolutionArgument(), "-o", "one.bmp"});
        ASSERT_EQ(0u, scan.exitCode) << scan;
        EXPECT_EQ((std::vector<std::string>{"smscan: scanning from Second Scanner", PageLine(1, "one.bmp")}),
                  scan.ErrLines());
        ExpectPageFile(Work("one.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
        return;
    }
    // Wine's manager offers the one scanner file there is; the name is compared ignoring case.
    WriteScannerSettings(1);
    const ProgramRun scan = Smscan({"--device-name", "virtual scanner", ResolutionArgument(), "-o", "one.bmp"});
    ASSERT_EQ(0u, scan.exitCode) << scan;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "one.bmp")}), scan.ErrLines());
    ExpectPageFile(Work("one.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
}

// --- Batches.

TEST_F(SMSCAN_SUITE, BatchScansEverySheetOfTheFeederIntoNumberedFiles) {
    WriteScannerSettings(3);
    const ProgramRun run = Smscan({"--batch=out\\page-%03d.bmp", ResolutionArgument(), "--mode", "gray"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ("", run.out);
    EXPECT_EQ(
        (std::vector<std::string>{kScanningLine, PageLine(1, "out\\page-001.bmp"), PageLine(2, "out\\page-002.bmp"),
                                  PageLine(3, "out\\page-003.bmp"), "smscan: 3 pages written; the feeder is empty"}),
        run.ErrLines())
        << run;
    for (int page = 1; page <= 3; ++page)
        ExpectPageFile(Work("out\\page-00" + std::to_string(page) + ".bmp"), MakeFormat(TWPT_GRAY, 8), page);
    EXPECT_FALSE(FileExists(Work("out\\page-004.bmp")));
}

TEST_F(SMSCAN_SUITE, BatchCountEndsTheBatchBeforeTheFeederIsEmpty) {
    WriteScannerSettings(3);
    const ProgramRun run = Smscan({"--batch=sheet%d.bmp", "--batch-count", "2", ResolutionArgument(), "--mode=color",
                                   "--brightness", "-20", "--contrast=35"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "sheet1.bmp"), PageLine(2, "sheet2.bmp"),
                                        "smscan: 2 pages written"}),
              run.ErrLines())
        << run;
    ExpectPageFile(Work("sheet1.bmp"), MakeFormat(TWPT_RGB, 24), 1);
    ExpectPageFile(Work("sheet2.bmp"), MakeFormat(TWPT_RGB, 24), 2);
    EXPECT_FALSE(FileExists(Work("sheet3.bmp")));
}

TEST_F(SMSCAN_SUITE, OnePageInBlackAndWhiteGoesToTheOutputFile) {
    WriteScannerSettings(3);
    const ProgramRun run = Smscan({ResolutionArgument(), "--mode", "bw", "--output-file=out\\single.bmp"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "out\\single.bmp")}), run.ErrLines()) << run;
    ExpectPageFile(Work("out\\single.bmp"), MakeFormat(TWPT_BW, 1), 1);
}

// The source answers no question about its feeder.
const char kNoFeederSettings[] =
    "Fail = DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, CAP_FEEDERLOADED, TWRC_FAILURE, TWCC_BUMMER\n"
    "Fail = DG_CONTROL, DAT_CAPABILITY, MSG_GET, CAP_FEEDERLOADED, TWRC_FAILURE, TWCC_BUMMER\n";

TEST_F(SMSCAN_SUITE, WithoutAFeederABatchIsOnePageUnlessCounted) {
    WriteScannerSettings(3, kNoFeederSettings);
    const ProgramRun one = Smscan({"--batch=out\\one%d.bmp", ResolutionArgument()});
    ASSERT_EQ(0u, one.exitCode) << one;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "out\\one1.bmp"),
                                        "smscan: 1 page written; the source tells of no feeder"}),
              one.ErrLines());
    ExpectPageFile(Work("out\\one1.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
    EXPECT_FALSE(FileExists(Work("out\\one2.bmp")));

    ASSERT_TRUE(DeleteFileA(FeederPath().c_str())) << "the paper goes back into the feeder";
    const ProgramRun two = Smscan({"--batch=out\\two%d.bmp", "--batch-count=2", ResolutionArgument()});
    ASSERT_EQ(0u, two.exitCode) << two;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "out\\two1.bmp"), PageLine(2, "out\\two2.bmp"),
                                        "smscan: 2 pages written; the source tells of no feeder"}),
              two.ErrLines());
    ExpectPageFile(Work("out\\two1.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
    ExpectPageFile(Work("out\\two2.bmp"), MakeFormat(TWPT_GRAY, 8), 2);
}

// --- Exit codes.

struct UsageCase {
    std::vector<std::string> arguments;
    std::string message;
};

TEST_F(SMSCAN_SUITE, BadUsageEndsWithExitCode1BeforeAnythingIsScanned) {
    WriteScannerSettings(3);
    const std::vector<UsageCase> cases = {
        {{"--bogus"}, "smscan: unknown option --bogus"},
        {{"--mode", "sepia"}, "smscan: mode \"sepia\": bw, gray or color"},
        {{"--resolution=0"}, "smscan: resolution \"0\": dots per inch from 1 to 32767"},
        {{"--brightness", "101"}, "smscan: brightness \"101\": from -100 to 100"},
        {{"--batch=page-%s.bmp"},
         "smscan: the batch pattern may hold only %d, with a width such as %03d, and %%: \"page-%s.bmp\""},
        {{"--batch=100%%-%d.bmp"},
         "smscan: cannot use the file name \"100%-1.bmp\": the library reads a file name "
         "as a format, so it may hold no '%'"},
        {{"-o"}, "smscan: option -o needs a file name"},
        {{"--more-pages=yes"}, "smscan: --more-pages answers a question asked only with --show-ui and --batch"},
    };
    for (const UsageCase &c : cases) {
        const ProgramRun run = Smscan(c.arguments);
        SCOPED_TRACE(c.arguments.front());
        EXPECT_EQ(1u, run.exitCode) << run;
        EXPECT_EQ((std::vector<std::string>{c.message, "Try 'smscan --help' for more information."}), run.ErrLines());
        EXPECT_EQ("", run.out);
    }
    EXPECT_FALSE(FileExists(Work("scan.bmp")));
    EXPECT_FALSE(FileExists(Work("100%-1.bmp")));
}

TEST_F(SMSCAN_SUITE, AnUnknownSourceNameEndsWithExitCode2) {
    WriteScannerSettings(3);
    const ProgramRun run = Smscan({"-d", "No Such Scanner", ResolutionArgument()});
    EXPECT_EQ(2u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{"smscan: no source named \"No Such Scanner\" can be chosen: TWCC_BADDEST "
                                        "(12)"}),
              run.ErrLines());
    EXPECT_FALSE(FileExists(Work("scan.bmp")));
}

TEST_F(SMSCAN_SUITE, NoScannerInstalledEndsWithExitCode2) {
    UninstallVscan(kSourceFile);
    ASSERT_FALSE(FileExists(source_));
    const ProgramRun run = Smscan({ResolutionArgument()});
    EXPECT_EQ(2u, run.exitCode) << run;
    const std::vector<std::string> lines = run.ErrLines();
    ASSERT_EQ(1u, lines.size()) << run;
    EXPECT_EQ(0u, lines[0].find("smscan: the default source cannot be opened: ")) << run;
    EXPECT_FALSE(FileExists(Work("scan.bmp")));
    if (!kWineManager) {
        // Wine's manager always lists its camera source; the stand-in lists nothing.
        const ProgramRun list = Smscan({"-L"});
        EXPECT_EQ(2u, list.exitCode) << list;
        EXPECT_EQ((std::vector<std::string>{"smscan: no sources are installed"}), list.ErrLines());
    }
}

TEST_F(SMSCAN_SUITE, AnEmptyFeederEndsWithExitCode2) {
    // A first batch takes every sheet; the feeder stays empty for the next scan.
    WriteScannerSettings(3);
    const ProgramRun first = Smscan({"--batch=out\\%d.bmp", ResolutionArgument()});
    ASSERT_EQ(0u, first.exitCode) << first;
    const ProgramRun run = Smscan({"--batch=out\\again%d.bmp", ResolutionArgument()});
    EXPECT_EQ(2u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, "smscan: the feeder is empty: no page scanned"}),
              run.ErrLines());
    EXPECT_FALSE(FileExists(Work("out\\again1.bmp")));
}

TEST_F(SMSCAN_SUITE, APageCancelledByTheSourceEndsWithExitCode3) {
    WriteScannerSettings(3, "CancelImage = 1\n");
    const ProgramRun run = Smscan({"--batch=out\\page-%d.bmp", ResolutionArgument()});
    EXPECT_EQ(3u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, "page 1: out\\page-1.bmp: cancelled by the source"}),
              run.ErrLines());
    EXPECT_FALSE(FileExists(Work("out\\page-1.bmp"))) << "the file of the cancelled page is deleted";
    EXPECT_FALSE(FileExists(Work("out\\page-2.bmp"))) << "the batch ends at the failed page";
}

TEST_F(SMSCAN_SUITE, AFileThatCannotBeMadeEndsWithExitCode3) {
    WriteScannerSettings(3);
    // Page 1 goes to directory 1, which exists; there is no directory 2.
    ASSERT_TRUE(CreateDirectoryA(Work("dir1").c_str(), nullptr));
    const ProgramRun run = Smscan({"--batch=dir%d\\page.bmp", ResolutionArgument()});
    EXPECT_EQ(3u, run.exitCode) << run;
    EXPECT_EQ(
        (std::vector<std::string>{kScanningLine, PageLine(1, "dir1\\page.bmp"), "page 2: dir2\\page.bmp: file error"}),
        run.ErrLines());
    ExpectPageFile(Work("dir1\\page.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
    EXPECT_FALSE(FileExists(Work("dir2")));
}

TEST_F(SMSCAN_SUITE, AnImageTheLibraryCannotWriteEndsWithExitCode3) {
    // The image claims a pixel type no bitmap has: the library shows its notice, which smscan closes, and refuses it.
    WriteScannerSettings(3, "ImagePixelType = 9\n");
    const ProgramRun run = Smscan({"--batch=out\\page-%d.bmp", ResolutionArgument()});
    EXPECT_EQ(3u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, "smscan: the library reports that it cannot write the image",
                                        "page 1: out\\page-1.bmp: image refused (format not supported)"}),
              run.ErrLines());
    EXPECT_FALSE(FileExists(Work("out\\page-1.bmp")));
}

TEST_F(SMSCAN_SUITE, ATransferTheSourceFailsEndsWithExitCode3AndItsConditionCode) {
    WriteScannerSettings(3, "Fail = DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, 0, TWRC_FAILURE, TWCC_BADVALUE\n");
    const ProgramRun run = Smscan({"--batch=out\\page-%d.bmp", ResolutionArgument()});
    EXPECT_EQ(3u, run.exitCode) << run;
    EXPECT_EQ(
        (std::vector<std::string>{kScanningLine, "page 1: out\\page-1.bmp: the source failed: TWCC_BADVALUE (10)"}),
        run.ErrLines());
    EXPECT_FALSE(FileExists(Work("out\\page-1.bmp")));
}

TEST_F(SMSCAN_SUITE, ASourceThatNeverAnnouncesTheImageEndsWithExitCode3) {
    // The source takes MSG_ENABLEDS without doing anything: no image is ever announced.
    WriteScannerSettings(3, "Fail = DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, 0, TWRC_SUCCESS, TWCC_SUCCESS\n");
    const ProgramRun run = Smscan({"-o", "never.bmp", ResolutionArgument(), "--timeout=1"});
    EXPECT_EQ(3u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, "smscan: the source said nothing for 1 s: scan given up"}),
              run.ErrLines());
    EXPECT_FALSE(FileExists(Work("never.bmp")));
}

// --- The source's interface.

// The scanner presses Scan by itself and Close after the batch, and announces each further image of the batch. It
// answers no question about its feeder, so the library asks the user whether to scan more pages after each page that
// leaves images pending.
const char kInterfaceSettings[] =
    "AutoScan = 2\n"
    "XferReadyEach = 1\n"
    "Fail = DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, CAP_FEEDERLOADED, TWRC_FAILURE, TWCC_BUMMER\n"
    "Fail = DG_CONTROL, DAT_CAPABILITY, MSG_GET, CAP_FEEDERLOADED, TWRC_FAILURE, TWCC_BUMMER\n";
const char kQuestionYes[] = "smscan: the library asks whether to scan more pages: yes";
const char kQuestionNo[] = "smscan: the library asks whether to scan more pages: no";

TEST_F(SMSCAN_SUITE, FromTheInterfaceMorePagesYesScansTheWholeFeeder) {
    WriteScannerSettings(3, kInterfaceSettings);
    const ProgramRun run =
        Smscan({"--show-ui", "--batch=out\\ui-%d.bmp", "--more-pages=yes", ResolutionArgument(), "--timeout=30"});
    ASSERT_EQ(0u, run.exitCode) << run;
    // No question after the last page: nothing is pending then.
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "out\\ui-1.bmp"), kQuestionYes,
                                        PageLine(2, "out\\ui-2.bmp"), kQuestionYes, PageLine(3, "out\\ui-3.bmp")}),
              run.ErrLines())
        << run;
    for (int page = 1; page <= 3; ++page)
        ExpectPageFile(Work("out\\ui-" + std::to_string(page) + ".bmp"), MakeFormat(TWPT_GRAY, 8), page);
}

TEST_F(SMSCAN_SUITE, FromTheInterfaceMorePagesNoEndsAfterTheFirstPage) {
    WriteScannerSettings(3, kInterfaceSettings);
    const ProgramRun run =
        Smscan({"--show-ui", "--batch=out\\ui-%d.bmp", "--more-pages", "no", ResolutionArgument(), "--timeout=30"});
    ASSERT_EQ(0u, run.exitCode) << run;
    EXPECT_EQ((std::vector<std::string>{kScanningLine, PageLine(1, "out\\ui-1.bmp"), kQuestionNo}), run.ErrLines())
        << run;
    ExpectPageFile(Work("out\\ui-1.bmp"), MakeFormat(TWPT_GRAY, 8), 1);
    EXPECT_FALSE(FileExists(Work("out\\ui-2.bmp")));
}

// --- Help and version.

TEST_F(SMSCAN_SUITE, HelpAndVersion) {
    const ProgramRun help = Smscan({"--help"});
    EXPECT_EQ(0u, help.exitCode) << help;
    ASSERT_FALSE(help.OutLines().empty()) << help;
    EXPECT_EQ("Usage: smscan [OPTION]...", help.OutLines().front());
    EXPECT_NE(std::string::npos, help.out.find("--batch-count=N")) << help;
    const ProgramRun version = Smscan({"-V"});
    EXPECT_EQ(0u, version.exitCode) << version;
    EXPECT_EQ((std::vector<std::string>{"smscan: smkernal.dll version 2.00"}), version.OutLines()) << version;
}

} // namespace
} // namespace smtest
