// smscan: scans pages from the default TWAIN source into bitmap files with smkernal's one-call scan to file,
// on the command line, after the manner of scanimage.
//
// Without the source's interface every page is a scan of its own: the source is opened, its feeder asked for paper,
// and smZephraScan writes one image and closes the source again. With --show-ui one smZephraScan runs the whole batch
// from the source's interface, and the library's question whether to scan more pages can be answered from the
// command line.
#include <windows.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "smkernal.h"

namespace {

const char kProgram[] = "smscan";
const char kTitle[] = "smscan";
const char kDefaultOutput[] = "scan.bmp";
const char kDefaultPattern[] = "page-%03d.bmp";
// The library takes file names of up to 255 characters and the NUL.
constexpr size_t kNameSize = 256;
// How long a source may stay silent (no page started or ended) before the scan is given up, unless --timeout says.
constexpr int kDefaultTimeoutSeconds = 60;
// Brightness and contrast are given on this scale; the library maps it onto the source's.
constexpr short kToneScale = 100;

enum ExitCode { kExitOk = 0, kExitUsage = 1, kExitNoSource = 2, kExitPageFailed = 3 };

enum class Answer { User, Yes, No };

struct Options {
    bool list = false;
    bool help = false;
    bool version = false;
    bool deviceGiven = false;
    std::string device;
    int resolution = 300;
    WORD pixelType = SM_PIXEL_GRAY;
    int brightness = 0;
    int contrast = 0;
    bool batch = false;
    std::string pattern = kDefaultPattern;
    int batchCount = 0; // 0: until the feeder is empty
    bool outputGiven = false;
    std::string output = kDefaultOutput;
    bool showUi = false;
    Answer morePages = Answer::User;
    bool timeoutGiven = false;
    int timeoutSeconds = kDefaultTimeoutSeconds; // 0: no limit
};

// What the library has told about the scan running now.
struct Progress {
    int page = 0;           // the page being scanned, from 1
    std::string name;       // its file name as the user gave it
    int pagesWritten = 0;   // pages whose file was written
    int pagesFailed = 0;    // pages that ended with any other result
    bool pageEnded = false; // the current page's result has come
    bool closed = false;    // the library closed the source: the batch (or this page's scan) is over
    DWORD lastNotice = 0;   // GetTickCount of the last notification
};

Options options;
Progress progress;
UINT msgGetName = 0;
UINT msgXferEnd = 0;
UINT msgDsClosed = 0;
HWND mainWindow = nullptr;
HHOOK boxHook = nullptr;
HHOOK filterHook = nullptr;
HWND lastBoxSeen = nullptr;
// Posted to the window to answer a message box (wParam).
constexpr UINT kAnswerBox = WM_APP + 1;
// The source's notices that came while one of the library's message boxes was up, to be posted again.
std::vector<MSG> heldNotices;

// --- Messages.

void Error(const char *format, ...) {
    std::fprintf(stderr, "%s: ", kProgram);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

int Usage(const char *format, ...) {
    std::fprintf(stderr, "%s: ", kProgram);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fprintf(stderr, "\nTry '%s --help' for more information.\n", kProgram);
    std::fflush(stderr);
    return kExitUsage;
}

void PrintHelp() {
    std::printf("Usage: %s [OPTION]...\n"
                "Scans pages from the default TWAIN source into bitmap (BMP) files through smkernal.dll.\n"
                "\n"
                "  -L, --list-devices        list the installed sources, marking the default, and exit\n"
                "  -d, --device-name=NAME    make the source with this product name the default (it stays so)\n"
                "      --resolution=DPI      dots per inch (default 300)\n"
                "      --mode=bw|gray|color  black and white, 8-bit gray (default) or 24-bit colour\n"
                "      --brightness=N        -100..100 (default 0)\n"
                "      --contrast=N          -100..100 (default 0)\n"
                "  -o, --output-file=FILE    the file of a single page (default %s)\n"
                "  -b, --batch[=PATTERN]     scan page after page into numbered files (default pattern %s);\n"
                "                            PATTERN takes %%d with an optional width (%%03d) for the page\n"
                "                            number and %%%% for a percent sign, which file names cannot hold\n"
                "      --batch-count=N       stop after N pages (default: when the feeder is empty)\n"
                "      --show-ui             scan from the source's own interface, in one session\n"
                "      --more-pages=yes|no   answer the library's question whether to scan more pages\n"
                "                            (with --show-ui --batch; default: the user answers it)\n"
                "      --timeout=SECONDS     give up when the source says nothing for this long\n"
                "                            (default %d; with --show-ui none; 0: wait for ever)\n"
                "  -h, --help                show this help and exit\n"
                "  -V, --version             show the version of smkernal.dll and exit\n"
                "\n"
                "Without a feeder (the source cannot say whether paper is loaded) one page is scanned,\n"
                "or --batch-count pages. One line per page goes to standard error.\n"
                "Exit status: 0 every page written, 1 bad usage, 2 no source or it cannot be opened or\n"
                "started (an empty feeder before the first page included), 3 a page failed or the source\n"
                "did not answer.\n",
                kProgram, kDefaultOutput, kDefaultPattern, kDefaultTimeoutSeconds);
}

// The version resource of the smkernal.dll this program runs with, e.g. "2.00".
std::string LibraryVersion() {
    HMODULE module = GetModuleHandleA("smkernal.dll");
    char path[MAX_PATH] = "";
    if (!module || !GetModuleFileNameA(module, path, sizeof path))
        return "";
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeA(path, &ignored);
    if (size == 0)
        return "";
    std::vector<char> block(size);
    if (!GetFileVersionInfoA(path, 0, size, block.data()))
        return "";
    struct Translation {
        WORD language, codePage;
    } *translations = nullptr;
    UINT length = 0;
    char key[64] = "\\StringFileInfo\\040904e4\\FileVersion";
    if (VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", reinterpret_cast<void **>(&translations), &length) &&
        translations && length >= sizeof *translations)
        wsprintfA(key, "\\StringFileInfo\\%04x%04x\\FileVersion", translations->language, translations->codePage);
    char *version = nullptr;
    if (VerQueryValueA(block.data(), key, reinterpret_cast<void **>(&version), &length) && version && length > 0)
        return version;
    VS_FIXEDFILEINFO *fixed = nullptr;
    if (!VerQueryValueA(block.data(), "\\", reinterpret_cast<void **>(&fixed), &length) || !fixed)
        return "";
    char numbers[32];
    wsprintfA(numbers, "%u.%02u", HIWORD(fixed->dwFileVersionMS), LOWORD(fixed->dwFileVersionMS));
    return numbers;
}

// The TWAIN condition codes a source may fail a page with.
const char *ConditionName(long code) {
    static const char *const names[] = {"TWCC_SUCCESS",
                                        "TWCC_BUMMER",
                                        "TWCC_LOWMEMORY",
                                        "TWCC_NODS",
                                        "TWCC_MAXCONNECTIONS",
                                        "TWCC_OPERATIONERROR",
                                        "TWCC_BADCAP",
                                        "",
                                        "",
                                        "TWCC_BADPROTOCOL",
                                        "TWCC_BADVALUE",
                                        "TWCC_SEQERROR",
                                        "TWCC_BADDEST",
                                        "TWCC_CAPUNSUPPORTED",
                                        "TWCC_CAPBADOPERATION",
                                        "TWCC_CAPSEQERROR"};
    if (code >= 0 && code < static_cast<long>(sizeof names / sizeof names[0]) && names[code][0])
        return names[code];
    return nullptr;
}

// A session call's status in words.
std::string StatusWords(long status) {
    if (status == SM_ERR_UNAVAILABLE)
        return "the TWAIN source manager (TWAIN_32.DLL) is not available";
    char text[64];
    const char *name = ConditionName(status);
    if (name)
        wsprintfA(text, "%s (%ld)", name, status);
    else
        wsprintfA(text, "status %ld", status);
    return text;
}

// A page's result in words.
std::string ResultWords(long result) {
    switch (result) {
    case SM_OK:
        return "written";
    case SM_ERR_IMAGE_REFUSED:
        return "image refused (format not supported)";
    case SM_ERR_NO_DISK_SPACE:
        return "disk full";
    case SM_ERR_FILE:
        return "file error";
    case SM_ERR_SOURCE_CANCEL:
        return "cancelled by the source";
    case SM_ERR_LOW_MEMORY:
        return "out of memory";
    default:
        break;
    }
    char text[96];
    const char *name = ConditionName(result);
    if (name)
        wsprintfA(text, "the source failed: %s (%ld)", name, result);
    else
        wsprintfA(text, "the source failed: condition code %ld", result);
    return text;
}

// --- Command line.

bool ParseInt(const std::string &text, long low, long high, int &out) {
    if (text.empty())
        return false;
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < low || value > high)
        return false;
    out = static_cast<int>(value);
    return true;
}

bool SameText(const std::string &a, const char *b) {
    return lstrcmpiA(a.c_str(), b) == 0;
}

bool ParseMode(const std::string &text, WORD &out) {
    if (SameText(text, "bw") || SameText(text, "lineart"))
        out = SM_PIXEL_BW;
    else if (SameText(text, "gray") || SameText(text, "grey"))
        out = SM_PIXEL_GRAY;
    else if (SameText(text, "color") || SameText(text, "colour"))
        out = SM_PIXEL_RGB;
    else
        return false;
    return true;
}

// Checks a batch pattern: %d with an optional flag 0 and width, and %%; "" when it is good, else what is wrong.
std::string CheckPattern(const std::string &pattern) {
    bool number = false;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%')
            continue;
        if (++i < pattern.size() && pattern[i] == '%')
            continue;
        size_t digits = 0;
        while (i < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[i])))
            ++i, ++digits;
        if (i >= pattern.size() || pattern[i] != 'd' || digits > 2)
            return "the batch pattern may hold only %d, with a width such as %03d, and %%";
        number = true;
    }
    if (!number)
        return "the batch pattern needs a %d for the page number, or every page would go to the same file";
    return "";
}

// The pattern with `page` in place of each %d and % in place of %%.
std::string ExpandPattern(const std::string &pattern, int page) {
    std::string out;
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') {
            out += pattern[i];
            continue;
        }
        ++i;
        if (pattern[i] == '%') {
            out += '%';
            continue;
        }
        const bool zeros = pattern[i] == '0';
        int width = 0;
        while (std::isdigit(static_cast<unsigned char>(pattern[i])))
            width = width * 10 + (pattern[i++] - '0');
        char number[48];
        char format[16];
        wsprintfA(format, zeros ? "%%0%dd" : "%%%dd", width);
        wsprintfA(number, format, page);
        out += number;
    }
    return out;
}

// The name of page `page` as the user gave it.
std::string PageName(int page) {
    return options.batch ? ExpandPattern(options.pattern, page) : options.output;
}

// The full path the library gets for a name, or "" and what keeps the library from taking it.
std::string LibraryPath(const std::string &name, std::string &problem) {
    if (name.find('%') != std::string::npos) {
        problem = "cannot use the file name \"" + name +
                  "\": the library reads a file name as a format, so it may hold no '%'";
        return "";
    }
    char full[MAX_PATH * 2] = "";
    const DWORD length = GetFullPathNameA(name.c_str(), sizeof full, full, nullptr);
    if (length == 0 || length >= kNameSize) {
        problem = "cannot use the file name \"" + name + "\": its full path must be shorter than " +
                  std::to_string(kNameSize) + " characters";
        return "";
    }
    return full;
}

// Takes the value of an option: "--name=value", "--name value", "-x value" or "-xvalue".
bool TakeValue(int argc, char **argv, int &i, const char *arg, size_t prefixLength, std::string &value) {
    if (arg[prefixLength] == '=' && arg[1] == '-') {
        value = arg + prefixLength + 1;
        return true;
    }
    if (arg[prefixLength] != '\0') {
        if (arg[1] == '-')
            return false;
        value = arg + prefixLength; // -dNAME
        return true;
    }
    if (i + 1 >= argc)
        return false;
    value = argv[++i];
    return true;
}

// Whether `arg` is the option `longName` (with or without "=value") or the short `shortName` (with or without an
// attached value); prefixLength is set to the length of the name matched.
bool Is(const char *arg, const char *longName, const char *shortName, size_t &prefixLength) {
    const size_t longLength = std::strlen(longName);
    if (std::strncmp(arg, longName, longLength) == 0 && (arg[longLength] == '\0' || arg[longLength] == '=')) {
        prefixLength = longLength;
        return true;
    }
    if (shortName && std::strncmp(arg, shortName, 2) == 0) {
        prefixLength = 2;
        return true;
    }
    return false;
}

int ParseCommandLine(int argc, char **argv) {
    bool batchCountGiven = false;
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        size_t n = 0;
        std::string value;
        const auto need = [&](const char *what) -> bool {
            if (TakeValue(argc, argv, i, arg, n, value))
                return true;
            Usage("option %s needs %s", arg, what);
            return false;
        };
        const auto flag = [&]() { return arg[n] == '\0'; };
        if (Is(arg, "--list-devices", "-L", n) && flag()) {
            options.list = true;
        } else if (Is(arg, "--help", "-h", n) && flag()) {
            options.help = true;
        } else if (Is(arg, "--version", "-V", n) && flag()) {
            options.version = true;
        } else if (Is(arg, "--device-name", "-d", n)) {
            if (!need("a source's product name"))
                return kExitUsage;
            options.device = value;
            options.deviceGiven = true;
        } else if (Is(arg, "--resolution", nullptr, n)) {
            if (!need("dots per inch"))
                return kExitUsage;
            if (!ParseInt(value, 1, 32767, options.resolution))
                return Usage("resolution \"%s\": dots per inch from 1 to 32767", value.c_str());
        } else if (Is(arg, "--mode", nullptr, n)) {
            if (!need("bw, gray or color"))
                return kExitUsage;
            if (!ParseMode(value, options.pixelType))
                return Usage("mode \"%s\": bw, gray or color", value.c_str());
        } else if (Is(arg, "--brightness", nullptr, n) || Is(arg, "--contrast", nullptr, n)) {
            const bool brightness = arg[2] == 'b';
            if (!need("a value from -100 to 100"))
                return kExitUsage;
            if (!ParseInt(value, -kToneScale, kToneScale, brightness ? options.brightness : options.contrast))
                return Usage("%s \"%s\": from -100 to 100", brightness ? "brightness" : "contrast", value.c_str());
        } else if (Is(arg, "--output-file", "-o", n)) {
            if (!need("a file name"))
                return kExitUsage;
            options.output = value;
            options.outputGiven = true;
        } else if (Is(arg, "--batch-count", nullptr, n)) {
            if (!need("a number of pages"))
                return kExitUsage;
            if (!ParseInt(value, 1, 99999, options.batchCount))
                return Usage("batch count \"%s\": a number of pages from 1", value.c_str());
            batchCountGiven = true;
        } else if (Is(arg, "--batch", "-b", n)) {
            options.batch = true;
            if (arg[n] == '=' && arg[1] == '-')
                options.pattern = arg + n + 1;
            else if (arg[n] != '\0')
                return Usage("unknown option %s", arg);
        } else if (Is(arg, "--show-ui", nullptr, n) && flag()) {
            options.showUi = true;
        } else if (Is(arg, "--more-pages", nullptr, n)) {
            if (!need("yes or no"))
                return kExitUsage;
            if (SameText(value, "yes"))
                options.morePages = Answer::Yes;
            else if (SameText(value, "no"))
                options.morePages = Answer::No;
            else
                return Usage("more pages \"%s\": yes or no", value.c_str());
        } else if (Is(arg, "--timeout", nullptr, n)) {
            if (!need("seconds"))
                return kExitUsage;
            if (!ParseInt(value, 0, 86400, options.timeoutSeconds))
                return Usage("timeout \"%s\": seconds from 0 (none) to 86400", value.c_str());
            options.timeoutGiven = true;
        } else if (arg[0] == '-') {
            return Usage("unknown option %s", arg);
        } else {
            return Usage("unexpected argument \"%s\"", arg);
        }
    }
    if (options.help || options.version || options.list)
        return kExitOk;
    if (batchCountGiven && !options.batch)
        options.batch = true; // --batch-count alone scans a batch with the default pattern
    if (options.batch && options.outputGiven)
        return Usage("--output-file names a single page; a batch takes its names from --batch=PATTERN");
    if (options.batch) {
        const std::string problem = CheckPattern(options.pattern);
        if (!problem.empty())
            return Usage("%s: \"%s\"", problem.c_str(), options.pattern.c_str());
    }
    if (options.showUi && batchCountGiven)
        return Usage("--batch-count cannot end a batch scanned from the source's interface");
    if (options.morePages != Answer::User && !(options.showUi && options.batch))
        return Usage("--more-pages answers a question asked only with --show-ui and --batch");
    if (options.output.empty())
        return Usage("the output file name is empty");
    if (!options.timeoutGiven && options.showUi)
        options.timeoutSeconds = 0;
    // The names are checked before anything is scanned.
    std::string problem;
    if (LibraryPath(PageName(1), problem).empty())
        return Usage("%s", problem.c_str());
    return kExitOk;
}

// --- The scan.

// Width and height from the header of a bitmap file.
bool BitmapSize(const std::string &name, long &width, long &height) {
    HANDLE file =
        CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    unsigned char header[26] = {};
    DWORD read = 0;
    const bool ok = ReadFile(file, header, sizeof header, &read, nullptr) && read == sizeof header &&
                    header[0] == 'B' && header[1] == 'M';
    CloseHandle(file);
    if (!ok)
        return false;
    std::memcpy(&width, header + 18, 4);
    std::memcpy(&height, header + 22, 4);
    return true;
}

void PageEnded(long result) {
    progress.pageEnded = true;
    if (result == SM_OK) {
        ++progress.pagesWritten;
        long width = 0, height = 0;
        if (BitmapSize(progress.name, width, height))
            std::fprintf(stderr, "page %d: %s, %ld x %ld pixels: written\n", progress.page, progress.name.c_str(),
                         width, height);
        else
            std::fprintf(stderr, "page %d: %s, not a bitmap: written\n", progress.page, progress.name.c_str());
    } else {
        ++progress.pagesFailed;
        std::fprintf(stderr, "page %d: %s: %s\n", progress.page, progress.name.c_str(), ResultWords(result).c_str());
    }
    std::fflush(stderr);
}

void AnswerBox(HWND box);

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == msgGetName && msgGetName) {
        progress.lastNotice = GetTickCount();
        // In a batch from the source's interface every image is the next page; otherwise the page was set up
        // before the scan started.
        if (options.showUi)
            ++progress.page;
        progress.name = PageName(progress.page);
        progress.pageEnded = false;
        // A name the library cannot take leaves the buffer empty: the page then fails.
        std::string problem;
        const std::string path = LibraryPath(progress.name, problem);
        if (path.empty())
            Error("%s", problem.c_str());
        lstrcpynA(reinterpret_cast<char *>(lParam), path.c_str(), kNameSize);
        return 0;
    }
    if (message == msgXferEnd && msgXferEnd) {
        progress.lastNotice = GetTickCount();
        PageEnded(static_cast<long>(wParam));
        return 0;
    }
    if (message == kAnswerBox) {
        AnswerBox(reinterpret_cast<HWND>(wParam));
        return 0;
    }
    if (message == msgDsClosed && msgDsClosed) {
        progress.lastNotice = GetTickCount();
        progress.closed = true;
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

// Whether a message box offers the button `id` (a box may hold hidden buttons it does not offer).
bool Offers(HWND box, int id) {
    HWND button = GetDlgItem(box, id);
    return button && IsWindowVisible(button);
}

// Answers a message box of the library once it is set up: the question whether to scan more pages as --more-pages
// says (or leaves it to the user), and the notice of an image it cannot write with OK, as nobody may be watching.
void AnswerBox(HWND box) {
    if (!IsWindow(box))
        return;
    int answer = 0;
    if (Offers(box, IDYES) && Offers(box, IDNO)) {
        if (options.morePages != Answer::User) {
            answer = options.morePages == Answer::Yes ? IDYES : IDNO;
            std::fprintf(stderr, "%s: the library asks whether to scan more pages: %s\n", kProgram,
                         answer == IDYES ? "yes" : "no");
        }
    } else if (Offers(box, IDOK) && !options.showUi) {
        answer = IDOK;
        std::fprintf(stderr, "%s: the library reports that it cannot write the image\n", kProgram);
    }
    std::fflush(stderr);
    if (answer)
        PostMessageA(box, WM_COMMAND, MAKEWPARAM(answer, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(box, answer)));
}

// A dialog box of this thread is being activated: once the box's own loop runs, it dispatches kAnswerBox to the
// window, and the box is answered then, when its buttons are settled.
LRESULT CALLBACK BoxHook(int code, WPARAM wParam, LPARAM lParam) {
    if (code == HCBT_ACTIVATE) {
        HWND box = reinterpret_cast<HWND>(wParam);
        char className[16] = "";
        GetClassNameA(box, className, sizeof className);
        if (box != lastBoxSeen && std::strcmp(className, "#32770") == 0) {
            lastBoxSeen = box;
            PostMessageA(mainWindow, kAnswerBox, reinterpret_cast<WPARAM>(box), 0);
        }
    }
    return CallNextHookEx(boxHook, code, wParam, lParam);
}

// The library asks its questions from inside smIsDSEvent, and the message box's own loop would dispatch a notice the
// source posts meanwhile (to the window, or to the thread, as Wine's source manager does) where nobody passes it to
// smIsDSEvent, and the next page would never be announced. Such notices are held and posted again afterwards.
LRESULT CALLBACK HoldNotices(int code, WPARAM wParam, LPARAM lParam) {
    if (code == MSGF_DIALOGBOX) {
        const MSG *msg = reinterpret_cast<const MSG *>(lParam);
        const bool registered = msg->message >= 0xC000 && msg->message <= 0xFFFF;
        if (!msg->hwnd || (msg->hwnd == mainWindow && registered)) {
            heldNotices.push_back(*msg);
            return TRUE;
        }
    }
    return CallNextHookEx(filterHook, code, wParam, lParam);
}

void PostHeldNotices() {
    for (const MSG &msg : heldNotices) {
        if (msg.hwnd)
            PostMessageA(msg.hwnd, msg.message, msg.wParam, msg.lParam);
        else
            PostThreadMessageA(GetCurrentThreadId(), msg.message, msg.wParam, msg.lParam);
    }
    heldNotices.clear();
}

// Passes every message, thread messages too, through smIsDSEvent until the library has closed the source. False when
// the source says nothing for longer than the timeout.
bool PumpUntilClosed() {
    const DWORD limit = static_cast<DWORD>(options.timeoutSeconds) * 1000;
    progress.lastNotice = GetTickCount();
    while (!progress.closed) {
        MSG msg;
        while (!progress.closed && PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (!smIsDSEvent(&msg)) {
                TranslateMessage(&msg);
                DispatchMessageA(&msg);
            }
            PostHeldNotices();
        }
        if (progress.closed)
            break;
        DWORD wait = INFINITE;
        if (limit) {
            const DWORD quiet = GetTickCount() - progress.lastNotice;
            if (quiet >= limit)
                return false;
            wait = limit - quiet;
        }
        MsgWaitForMultipleObjects(0, nullptr, FALSE, wait, QS_ALLINPUT);
    }
    return true;
}

void GiveUpOnSilentSource() {
    Error("the source said nothing for %d s: scan given up", options.timeoutSeconds);
    smDisableDS();
    smCloseDS();
}

ScanToFileSettings Settings() {
    ScanToFileSettings s;
    std::memset(&s, 0, sizeof s);
    s.unitCode = SM_UNIT_INCHES;
    s.pixelTypeCode = options.pixelType;
    s.resolution = static_cast<short>(options.resolution);
    s.brightness = static_cast<short>(options.brightness);
    s.brightnessMin = -kToneScale;
    s.brightnessMax = kToneScale;
    s.contrast = static_cast<short>(options.contrast);
    s.contrastMin = -kToneScale;
    s.contrastMax = kToneScale;
    s.highlight = 255;
    s.highlightMin = 0;
    s.highlightMax = 255;
    s.shadow = 0;
    s.shadowMin = 0;
    s.shadowMax = 255;
    s.modalUI = options.showUi ? 1 : 0;
    s.morePages = options.showUi && options.batch ? 1 : 0;
    s.showSourceUI = options.showUi ? 1 : 0;
    s.useFeeder = 1;
    return s;
}

void TellSource() {
    char name[64] = "";
    if (smGetDSProductName(name) == SM_OK && name[0])
        std::fprintf(stderr, "%s: scanning from %s\n", kProgram, name);
    std::fflush(stderr);
}

// The pages from the source's interface, in one scan to file.
int ScanWithInterface(HWND window) {
    const ScanToFileSettings settings = Settings();
    if (!smZephraScan(window, kTitle, &settings)) {
        smCloseDS();
        Error("the default source cannot be opened or started");
        return kExitNoSource;
    }
    TellSource();
    if (!PumpUntilClosed()) {
        GiveUpOnSilentSource();
        return kExitPageFailed;
    }
    if (progress.pagesWritten + progress.pagesFailed == 0)
        Error("no page was scanned");
    return progress.pagesFailed ? kExitPageFailed : kExitOk;
}

// Page after page, each a scan of its own, while the feeder has paper and the count allows.
int ScanPageByPage(HWND window) {
    const ScanToFileSettings settings = Settings();
    const int count = options.batch ? options.batchCount : 1;
    bool noFeeder = false;
    bool feederEmpty = false;
    for (int page = 1; count == 0 || page <= count; ++page) {
        // A source without a feeder scans one page unless a count asks for more.
        if (noFeeder && count == 0 && page > 1)
            break;
        const LONG opened = smOpenDS(window, kTitle);
        if (opened != SM_OK) {
            Error("the default source cannot be opened: %s", StatusWords(opened).c_str());
            return kExitNoSource;
        }
        if (page == 1)
            TellSource();
        LONG paper = 0;
        if (smIsADFPaperLoaded(&paper) != SM_OK) {
            noFeeder = true;
        } else if (!paper) {
            smCloseDS();
            feederEmpty = true;
            break;
        }
        progress.page = page;
        progress.name = PageName(page);
        progress.pageEnded = false;
        progress.closed = false;
        if (!smZephraScan(window, kTitle, &settings)) {
            smCloseDS();
            Error("the source cannot be started for page %d", page);
            return kExitNoSource;
        }
        if (!PumpUntilClosed()) {
            GiveUpOnSilentSource();
            return kExitPageFailed;
        }
        if (!progress.pageEnded) {
            Error("the source closed without scanning page %d", page);
            return kExitPageFailed;
        }
        if (progress.pagesFailed)
            return kExitPageFailed;
    }
    if (feederEmpty && progress.pagesWritten == 0) {
        Error("the feeder is empty: no page scanned");
        return kExitNoSource;
    }
    if (options.batch)
        std::fprintf(stderr, "%s: %d page%s written%s\n", kProgram, progress.pagesWritten,
                     progress.pagesWritten == 1 ? "" : "s",
                     feederEmpty ? "; the feeder is empty"
                     : noFeeder  ? "; the source tells of no feeder"
                                 : "");
    std::fflush(stderr);
    return kExitOk;
}

// The installed sources, one a line, the default marked.
int ListSources() {
    char directory[MAX_PATH] = "";
    char path[MAX_PATH] = "";
    GetTempPathA(sizeof directory, directory);
    if (!GetTempFileNameA(directory, "sms", 0, path)) {
        Error("cannot make a temporary file in %s", directory);
        return kExitNoSource;
    }
    const LONG listed = smGetAllDS(path);
    const int count = static_cast<int>(GetPrivateProfileIntA("DS", "count", 0, path));
    char defaultName[64] = "";
    GetPrivateProfileStringA("DS", "name0", "", defaultName, sizeof defaultName, path);
    std::vector<std::string> names;
    for (int i = 1; i <= count; ++i) {
        char key[16], name[64] = "";
        wsprintfA(key, "name%d", i);
        GetPrivateProfileStringA("DS", key, "", name, sizeof name, path);
        names.push_back(name);
    }
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, path);
    DeleteFileA(path);
    if (listed == SM_ERR_UNAVAILABLE) {
        Error("the TWAIN source manager (TWAIN_32.DLL) is not available");
        return kExitNoSource;
    }
    if (names.empty()) {
        Error("no sources are installed");
        return kExitNoSource;
    }
    for (const std::string &name : names)
        std::printf("device '%s'%s\n", name.c_str(), lstrcmpiA(name.c_str(), defaultName) == 0 ? " (default)" : "");
    std::fflush(stdout);
    return kExitOk;
}

HWND MakeWindow() {
    WNDCLASSA windowClass;
    std::memset(&windowClass, 0, sizeof windowClass);
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = "SmscanWindow";
    RegisterClassA(&windowClass);
    // Never shown: it only receives the library's notifications.
    return CreateWindowA("SmscanWindow", kTitle, WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr,
                         windowClass.hInstance, nullptr);
}

} // namespace

int main(int argc, char **argv) {
    const int usage = ParseCommandLine(argc, argv);
    if (usage != kExitOk)
        return usage;
    if (options.help) {
        PrintHelp();
        return kExitOk;
    }
    if (options.version) {
        const std::string version = LibraryVersion();
        std::printf("%s: smkernal.dll version %s\n", kProgram, version.empty() ? "unknown" : version.c_str());
        return kExitOk;
    }
    msgGetName = RegisterWindowMessageA(SM_MSG_SCANTOFILE_GETNAME);
    msgXferEnd = RegisterWindowMessageA(SM_MSG_SCANTOFILE_XFEREND);
    msgDsClosed = RegisterWindowMessageA(SM_MSG_SCANTOFILE_DSCLOSED);
    HWND window = mainWindow = MakeWindow();
    if (!window) {
        Error("cannot create a window (error %lu)", GetLastError());
        return kExitNoSource;
    }
    if (options.deviceGiven) {
        const LONG chosen = smSetDefaultDriver(nullptr, options.device.c_str());
        if (chosen != SM_OK) {
            Error("no source named \"%s\" can be chosen: %s", options.device.c_str(), StatusWords(chosen).c_str());
            DestroyWindow(window);
            return kExitNoSource;
        }
    }
    int result = kExitOk;
    if (options.list) {
        result = ListSources();
    } else {
        boxHook = SetWindowsHookExA(WH_CBT, BoxHook, nullptr, GetCurrentThreadId());
        filterHook = SetWindowsHookExA(WH_MSGFILTER, HoldNotices, nullptr, GetCurrentThreadId());
        result = options.showUi ? ScanWithInterface(window) : ScanPageByPage(window);
        if (filterHook)
            UnhookWindowsHookEx(filterHook);
        if (boxHook)
            UnhookWindowsHookEx(boxHook);
    }
    DestroyWindow(window);
    return result;
}
