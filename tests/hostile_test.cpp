// Hostile sources: every answer a source gives (containers of the get-like messages, image information, buffer sizes,
// strips, bitmaps, pending counts, palettes), the application's reactions and the cancel points drawn from a seeded
// generator, case after case, against the module's exports. Every case must end without a crash and with a result
// the module documents; every global block the module allocated is freed and none written past its end; every
// container the source handed over is freed once; the application's buffers are written only inside; a failed image
// leaves no file. A failing case prints its seed; SMK_HOSTILE_SEED=<seed> runs that case alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "AcquireCheck.h"
#include "GlobalMemoryTracker.h"
#include "GuardedBuffer.h"
#include "MessageBoxes.h"
#include "Notifications.h"
#include "ProgramSource.h"
#include "TestSupport.h"
#include "smkernal.h"

using namespace smtest;

namespace {

// The kinds of cases; a seed belongs to one kind and names one case of it.
struct Kind {
    const char *name;
    uint32_t firstSeed;
    int cases;
};
constexpr Kind kGets = {"capability and layout calls", 1, 45000};
constexpr Kind kTransfers = {"transfers inside smIsDSEvent", 1000001, 35000};
constexpr Kind kReadBlocks = {"smReadBlock", 2000001, 12000};
constexpr Kind kScansToFile = {"smZephraScan", 3000001, 8000};
// Failures printed in full; the rest are counted.
constexpr int kFailuresShown = 20;
const char kSeedVariable[] = "SMK_HOSTILE_SEED";
// A compression code of TWAIN (PackBits) that the module passes on without looking into the bytes.
constexpr TW_UINT16 kPackBits = 1;

// The seeds SMK_HOSTILE_SEED names: one ("1004224"), or a range ("1004000-1004224", to replay a case with what the
// cases before it left in the module). {0, 0} without the variable.
struct SeedRange {
    uint32_t first;
    uint32_t last;
    bool Given() const { return first != 0; }
    bool Holds(uint32_t seed) const { return !Given() || (seed >= first && seed <= last); }
};
SeedRange ReplaySeeds() {
    char text[64] = "";
    const DWORD length = GetEnvironmentVariableA(kSeedVariable, text, sizeof text);
    if (length == 0 || length >= sizeof text)
        return {0, 0};
    char *end = nullptr;
    const uint32_t first = std::strtoul(text, &end, 10);
    const uint32_t last = *end == '-' ? std::strtoul(end + 1, nullptr, 10) : first;
    return {first, last};
}

// A small deterministic generator (splitmix64), one per case.
class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint32_t Next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return static_cast<uint32_t>((z ^ (z >> 31)) >> 16);
    }
    uint32_t Below(uint32_t n) { return n ? Next() % n : 0; }
    bool Chance(int percent) { return static_cast<int>(Below(100)) < percent; }
    template <typename T> T Pick(std::initializer_list<T> values) { return values.begin()[Below(values.size())]; }

private:
    uint64_t state_;
};

// --- What hostile sources answer.

TW_UINT16 RandomCondition(Rng &rng) {
    return rng.Pick<TW_UINT16>({TWCC_BUMMER, TWCC_LOWMEMORY, TWCC_OPERATIONERROR, TWCC_BADVALUE, TWCC_SEQERROR,
                                TWCC_PAPERJAM, TWCC_SUCCESS, 0xFFFF});
}

// Mostly `good`; otherwise a failure, a cancel or a code no triplet answers.
Answer RandomAnswer(Rng &rng, TW_UINT16 good = TWRC_SUCCESS, int failPercent = 12) {
    if (!rng.Chance(failPercent))
        return {good, TWCC_SUCCESS};
    const TW_UINT16 rc = rng.Pick<TW_UINT16>(
        {TWRC_FAILURE, TWRC_FAILURE, TWRC_FAILURE, TWRC_CANCEL, TWRC_CHECKSTATUS, TWRC_XFERDONE, TWRC_SUCCESS, 0x55AA});
    return {rc, RandomCondition(rng)};
}

TW_UINT32 RandomWord(Rng &rng) {
    switch (rng.Below(6)) {
    case 0:
        return rng.Below(16);
    case 1:
        return rng.Pick<TW_UINT32>({0, 1, 0xFFFFFFFF, 0x80000000, 0x7FFFFFFF, 0xFFFF, 0x10000});
    case 2:
        return rng.Next() << 16 | rng.Next(); // any FIX32
    default:
        return rng.Below(1200);
    }
}

TW_UINT16 RandomItemType(Rng &rng) {
    return rng.Pick<TW_UINT16>({TWTY_FIX32, TWTY_FIX32, TWTY_UINT16, TWTY_UINT16, TWTY_INT16, TWTY_UINT32, TWTY_INT32,
                                TWTY_BOOL, TWTY_INT8, TWTY_UINT8, TWTY_FRAME, TWTY_STR32, 0xF0, 0xFFFF});
}

TW_UINT32 RandomCount(Rng &rng) {
    return rng.Pick<TW_UINT32>({0, 1, 2, 3, 5, 8, 255, 256, 300, 0xFFFF, 0x10000, 0x80000000, 0xFFFFFFFF});
}

TW_UINT32 RandomIndex(Rng &rng, TW_UINT32 count) {
    return rng.Pick<TW_UINT32>({0, 0, count - 1, count, count + 1, 0xFFFFFFFF, 0x80000000, 0x10000, rng.Below(8)});
}

// Any container a source could hand over: any type, item type, count, indexes, range (zero steps and minimums above
// maximums too), in a block that fits, is cut short, is missing or is no memory at all.
ContainerScript RandomContainer(Rng &rng, bool notAHandles) {
    ContainerScript container;
    const TW_UINT16 itemType = RandomItemType(rng);
    const TW_UINT32 itemSize = itemType <= TWTY_FIX32 ? TW_ItemTypeSize(itemType) : 4;
    std::vector<TW_UINT32> items;
    const TW_UINT32 count = RandomCount(rng);
    for (TW_UINT32 i = 0; i < std::min<TW_UINT32>(count, 64); ++i)
        items.push_back(RandomWord(rng));
    switch (rng.Below(10)) {
    case 0:
    case 1:
    case 2:
        container.conType = TWON_ONEVALUE;
        container.bytes = OneValueBytes(itemType, RandomWord(rng));
        break;
    case 3:
    case 4:
    case 5:
        container.conType = TWON_ENUMERATION;
        container.bytes =
            EnumerationBytes(itemType, count, RandomIndex(rng, count), RandomIndex(rng, count), items, itemSize);
        break;
    case 6:
    case 7:
        container.conType = TWON_RANGE;
        container.bytes = RangeBytes(itemType, RandomWord(rng), RandomWord(rng), rng.Chance(30) ? 0 : RandomWord(rng),
                                     RandomWord(rng), RandomWord(rng));
        break;
    case 8:
        container.conType = TWON_ARRAY;
        container.bytes = ArrayBytes(itemType, count, items, itemSize);
        break;
    default:
        container.conType = rng.Pick<TW_UINT16>({0, 2, 7, 0x1234, TWON_DONTCARE16});
        container.bytes = OneValueBytes(itemType, RandomWord(rng));
        break;
    }
    // Every value is drawn whatever is used, so that a seed names the same case on every machine.
    const int memory = rng.Below(100);
    const SIZE_T cut = rng.Below(static_cast<uint32_t>(container.bytes.size()));
    const UINT_PTR noMemory = rng.Pick<UINT_PTR>({1, 0x12345678, 0xFFFFFFF0, 0xDEAD0000});
    if (memory < 8) {
        container.memory = ContainerScript::Memory::Truncated;
        container.blockSize = cut;
    } else if (memory < 14) {
        container.memory = ContainerScript::Memory::Null;
    } else if (memory < 18 && notAHandles) {
        container.memory = ContainerScript::Memory::NotAHandle;
        container.notAHandle = noMemory;
    }
    return container;
}

TW_INT32 RandomDimension(Rng &rng) {
    if (rng.Chance(70))
        return 1 + rng.Below(40);
    return rng.Pick<TW_INT32>({0, -1, -5, INT32_MIN, INT32_MAX, 1000, 0x40000000});
}

void RandomImageInfo(Rng &rng, TW_IMAGEINFO &info) {
    info = TW_IMAGEINFO{};
    info.XResolution = {static_cast<TW_INT16>(rng.Pick<int>({0, -1, 50, 300, 32767, -32768})),
                        static_cast<TW_UINT16>(rng.Next())};
    info.YResolution = info.XResolution;
    info.ImageWidth = RandomDimension(rng);
    info.ImageLength = RandomDimension(rng);
    info.SamplesPerPixel = rng.Pick<TW_INT16>({1, 1, 3, 3, 0, 4, -1});
    for (TW_INT16 &bits : info.BitsPerSample)
        bits = rng.Pick<TW_INT16>({8, 8, 1, 16, 0, -1});
    info.BitsPerPixel = rng.Pick<TW_INT16>({1, 4, 8, 8, 24, 24, 16, 48, 0, -1, 32767});
    info.Planar = rng.Pick<TW_BOOL>({0, 0, 1, 2});
    info.PixelType = rng.Pick<TW_INT16>({TWPT_BW, TWPT_GRAY, TWPT_RGB, TWPT_RGB, TWPT_PALETTE, 4, 8, 9, 0x7FFF, -1});
    info.Compression = rng.Chance(80) ? TWCP_NONE : rng.Pick<TW_UINT16>({kPackBits, 5, 0xFFFF});
}

// A strip's record: rows, widths, offsets and byte counts that fit the buffer, or lie about it.
void RandomStrip(Rng &rng, TW_IMAGEMEMXFER &strip) {
    const TW_UINT32 length = strip.Memory.Length;
    strip.Compression = rng.Chance(85) ? TWCP_NONE : rng.Pick<TW_UINT16>({kPackBits, 0xFFFF});
    strip.BytesPerRow = rng.Chance(60)
                            ? 1 + rng.Below(300)
                            : rng.Pick<TW_UINT32>({0, 1, length, length + 1, 0x10000, 0x80000000, 0xFFFFFFFF});
    strip.Columns = rng.Chance(60) ? rng.Below(120) : rng.Pick<TW_UINT32>({0, 100000, 0x80000000, 0xFFFFFFFF});
    const TW_UINT32 fit = strip.BytesPerRow ? length / strip.BytesPerRow : 0;
    strip.Rows = rng.Chance(50) ? (fit ? 1 + rng.Below(fit) : 0)
                                : rng.Pick<TW_UINT32>({0, 1, fit, fit + 1, 0x10000, 0xFFFFFFFF});
    strip.XOffset = rng.Chance(70) ? rng.Below(8) : rng.Pick<TW_UINT32>({40, 0x80000000, 0xFFFFFFFF});
    strip.YOffset = rng.Chance(70) ? rng.Below(40) : rng.Pick<TW_UINT32>({0x80000000, 0xFFFFFFFF, 0x10000});
    const TW_UINT32 product = strip.Rows * strip.BytesPerRow;
    strip.BytesWritten =
        rng.Chance(60)
            ? std::min(product, length)
            : rng.Pick<TW_UINT32>({0, product, length, length + 1, 2 * length + 7, 0xFFFFFFFF, rng.Below(length + 1)});
}

TW_UINT32 RandomBufferSize(Rng &rng) {
    return rng.Chance(50) ? 1 + rng.Below(70000)
                          : rng.Pick<TW_UINT32>({0, 1, 2, 7, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF, 0x400000});
}

// The minimum, preferred and maximum buffer sizes, drawn in that order.
TW_SETUPMEMXFER RandomBufferSizes(Rng &rng) {
    const TW_UINT32 minimum = RandomBufferSize(rng);
    const TW_UINT32 preferred = RandomBufferSize(rng);
    return {minimum, preferred, RandomBufferSize(rng)};
}

// --- The application's side.

// A record the module writes, between canaries: the module may write the record, nothing beside it.
template <typename T> struct Fenced {
    BYTE before[16];
    T value;
    BYTE after[16];
    static constexpr BYTE kCanary = 0xA7;
    Fenced() { std::memset(this, kCanary, sizeof *this); }
    bool Intact() const {
        for (int i = 0; i < 16; ++i)
            if (before[i] != kCanary || after[i] != kCanary)
                return false;
        return true;
    }
};

std::string SeedNote(uint32_t seed) {
    std::ostringstream note;
    note << "hostile_test case " << seed << " (replay it alone: " << kSeedVariable << "=" << seed
         << " build/wine-run build/bin/hostile_test.exe)";
    return note.str();
}

// What a run found, for the summary and the README.
struct Tally {
    int cases = 0;
    int failures = 0;
    int leaks = 0;
    int blocksWrittenPast = 0;
    int buffersWrittenOutside = 0;
    int filesLeft = 0;
    std::vector<std::string> shown;
};

class HostileTest : public ::testing::Test {
protected:
    void SetUp() override {
        InstallDsm(Dsm::Present);
        // No viewer for the random cases: they are many, and a record that reaches no viewer costs nothing.
        WriteDebugIni(1, 1);
        if (withViewer)
            viewer.Start();
        ASSERT_TRUE(source.Loaded()) << ProgramSource::Path();
        ASSERT_TRUE(dsm.Open());
        dsm.ClearSources();
        ASSERT_EQ(0, dsm.AddSource(ProgramSource::kProductName, ProgramSource::Path().c_str()));
        dsm.Get<TdsmSetLogLimitProc>("TdsmSetLogLimit")(16);
        library.Load();
        ASSERT_NE(nullptr, library.Module());
        ASSERT_GT(tracker.Attach(library.Module()), 0);
        tracker.GuardBlocks(true);
        source.onAllocated = [this](HGLOBAL handle) { tracker.Foreign(handle); };
        notAHandles = PageFaultExceptionCode() == EXCEPTION_ACCESS_VIOLATION;
        ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Hostile"));
    }
    void TearDown() override {
        SetCrashNote("");
        source.Calm();
        if (library.Module()) {
            Call<LONG(WINAPI *)()>("smDisableDS")();
            Call<LONG(WINAPI *)()>("smCloseDS")();
        }
        tracker.Detach();
        library.Free();
        dsm.Close();
        viewer.Stop();
        InstallDsm(Dsm::Present);
    }

    template <typename T> T Call(const char *name) const { return library.Get<T>(name); }

    // Runs the kind's cases (or the one SMK_HOSTILE_SEED names), each through `run`, which answers "" or what was
    // wrong; prints the summary.
    void RunCases(const Kind &kind, const std::function<std::string(Rng &)> &run) {
        const SeedRange replay = ReplaySeeds();
        Tally tally;
        for (int i = 0; i < kind.cases; ++i) {
            const uint32_t seed = kind.firstSeed + i;
            if (!replay.Holds(seed))
                continue;
            SetCrashNote(SeedNote(seed));
            Rng rng(seed);
            source.Calm();
            source.ClearRecord();
            tracker.Begin();
            app.Clear();
            std::string wrong = run(rng);
            wrong += Accounting(tally);
            ++tally.cases;
            if (!wrong.empty()) {
                ++tally.failures;
                if (static_cast<int>(tally.shown.size()) < kFailuresShown)
                    tally.shown.push_back("case " + std::to_string(seed) + ": " + wrong + "\n  " + SeedNote(seed));
            }
            ReleaseCase();
        }
        SetCrashNote("");
        std::printf("[ hostile  ] %s: %d cases, %d failing; crashes 0, leaks %d, blocks written past their end %d, "
                    "application buffers written outside %d, files left %d\n",
                    kind.name, tally.cases, tally.failures, tally.leaks, tally.blocksWrittenPast,
                    tally.buffersWrittenOutside, tally.filesLeft);
        std::string shown;
        for (const std::string &line : tally.shown)
            shown += line + "\n";
        EXPECT_EQ(0, tally.failures) << shown;
        if (!replay.Given()) {
            EXPECT_EQ(kind.cases, tally.cases);
        }
    }

    // The module's own blocks all freed and none written past its end; each container and each bitmap the source
    // handed over freed once by the module (bitmaps: or handed to the application); the lent buffers untouched
    // before their start.
    std::string Accounting(Tally &tally) {
        std::string wrong;
        if (!tracker.Live().empty() || tracker.DoubleFrees()) {
            ++tally.leaks;
            wrong += " module blocks: " + tracker.Describe() + ";";
        }
        if (tracker.GuardViolations()) {
            ++tally.blocksWrittenPast;
            wrong += " " + std::to_string(tracker.GuardViolations()) + " module block(s) written past their end;";
        }
        // Handed over, less freed by the module, less taken by the application: 0 for every block.
        std::map<HGLOBAL, int> balance;
        for (HGLOBAL handle : source.containers)
            ++balance[handle];
        for (HGLOBAL handle : source.bitmaps)
            ++balance[handle];
        const std::set<HGLOBAL> noMemory(source.notHandles.begin(), source.notHandles.end());
        for (HGLOBAL handle : tracker.ForeignFrees())
            if (!noMemory.count(handle))
                --balance[handle];
        for (HGLOBAL handle : received)
            --balance[handle];
        for (const auto &entry : balance) {
            if (entry.second == 0)
                continue;
            ++tally.leaks;
            char text[96];
            std::snprintf(text, sizeof text, " source block %p: %s %d time(s);", static_cast<void *>(entry.first),
                          entry.second > 0 ? "not freed" : "freed without being handed over, or twice,",
                          entry.second > 0 ? entry.second : -entry.second);
            wrong += text;
        }
        for (const auto &buffer : lent)
            if (!buffer->FrontIntact()) {
                ++tally.buffersWrittenOutside;
                wrong += " a lent buffer was written before its start;";
            }
        return wrong;
    }

    // What a case leaves for the next one: the bitmaps the application received are its to free; a lent buffer stays
    // in use until the descriptor is cleared, so the descriptor is cleared before the buffers go.
    void ReleaseCase() {
        for (HGLOBAL handle : received)
            GlobalFree(handle);
        received.clear();
        if (descriptor)
            *descriptor = {0, nullptr};
        lent.clear();
    }

    GuardedBuffer &Lend(size_t size) {
        lent.push_back(std::make_unique<GuardedBuffer>(size));
        return *lent.back();
    }

    // The source's answer to a memory transfer's MSG_GET: a random strip, the image ending after six strips at the
    // latest (counted in strips, which a fixture clears for each image) or earlier by a chance of `endPercent`.
    Answer NextStrip(Rng &rng, TW_IMAGEMEMXFER &strip, int endPercent) {
        RandomStrip(rng, strip);
        const bool last = ++strips >= 6 || rng.Chance(endPercent);
        return RandomAnswer(rng, last ? TWRC_XFERDONE : TWRC_SUCCESS, 10);
    }

    // Set by fixtures whose cases look at the module's records.
    bool withViewer = false;
    TraceViewer viewer;
    ProgramSource source;
    NotificationWindow app;
    ScanLibrary library;
    DsmControl dsm;
    GlobalMemoryTracker tracker;
    bool notAHandles = false;
    // The module's buffer descriptor, once a memory transfer has shown it.
    SmBufferDescriptor *descriptor = nullptr;
    // Bitmaps the application took (XferEnd with SM_OK), and the buffers it lent in the case.
    std::vector<HGLOBAL> received;
    std::vector<std::unique_ptr<GuardedBuffer>> lent;
    int strips = 0;
};

} // namespace

namespace {

// --- Capability, layout, palette and buffer-size calls against containers of every shape.

class HostileGetTest : public HostileTest {
protected:
    // The source answers every capability message at random: gets with any container, sets with any code.
    void HostileCapabilities(Rng &rng) {
        source.onCapability = [this, &rng](TW_UINT16 msg, TW_CAPABILITY &capability) {
            const Answer answer = RandomAnswer(rng);
            if (msg != MSG_SET && answer.rc == TWRC_SUCCESS)
                source.HandOver(capability, RandomContainer(rng, notAHandles));
            return answer;
        };
        source.onPalette = [&rng](TW_PALETTE8 &palette) {
            palette.NumColors = rng.Pick<TW_UINT16>({0, 2, 16, 256, 257, 300, 0xFFFF});
            palette.PaletteType = rng.Below(4);
            for (TW_ELEMENT8 &colour : palette.Colors)
                colour = {static_cast<TW_UINT8>(rng.Next()), static_cast<TW_UINT8>(rng.Next()),
                          static_cast<TW_UINT8>(rng.Next()), static_cast<TW_UINT8>(rng.Next())};
            return RandomAnswer(rng);
        };
        source.onSetupMem = [&rng](TW_SETUPMEMXFER &sizes) {
            sizes = RandomBufferSizes(rng);
            return RandomAnswer(rng);
        };
        source.onImageInfo = [&rng](TW_IMAGEINFO &info) {
            RandomImageInfo(rng, info);
            return RandomAnswer(rng);
        };
        source.onLayout = [&rng](TW_IMAGELAYOUT &) { return RandomAnswer(rng); };
        source.onCloseDS = [&rng](TW_UINT16) { return RandomAnswer(rng, TWRC_SUCCESS, 5); };
    }

    // A status the module may answer here: success, its own codes, or a condition the source told.
    std::string Status(const char *call, LONG result) const {
        if (result == SM_OK || result == SM_ERR_LOW_MEMORY || result == SM_ERR_BAD_VALUE || result == TWCC_BUMMER)
            return "";
        // A source the case could not open again leaves every call a sequence error.
        if (result == SM_ERR_SEQUENCE && closed)
            return "";
        for (TW_UINT16 cc : source.conditions)
            if (result == cc)
                return "";
        return std::string(" ") + call + " answered " + std::to_string(result) + ", which nothing explains;";
    }
    template <typename T> static std::string Fence(const char *call, const Fenced<T> &fenced) {
        return fenced.Intact() ? "" : std::string(" ") + call + " wrote beside its output;";
    }

    // One of the calls, with random arguments and fenced outputs.
    std::string RandomCall(Rng &rng);

    // The case closed the source and could not open it again.
    bool closed = false;
};

std::string HostileGetTest::RandomCall(Rng &rng) {
    using Shorts = LONG(WINAPI *)(short *, short *, short *);
    using Doubles = LONG(WINAPI *)(double *, double *, double *);
    using Word = LONG(WINAPI *)(WORD *);
    using Long = LONG(WINAPI *)(LONG *);
    using Scaled = LONG(WINAPI *)(short *, LONG, LONG);
    using SetLong = LONG(WINAPI *)(LONG);
    using SetScaled = LONG(WINAPI *)(LONG, LONG, LONG);
    static const char *const kShorts[] = {"smGetXResolution", "smGetYResolution"};
    static const char *const kDoubles[] = {"smGetXScale", "smGetYScale"};
    static const char *const kWords[] = {"smGetUnit",      "smGetPixelType",          "smGetSupportedPixelType",
                                         "smGetPaperSize", "smGetSupportedPaperSize", "smGetXferMech"};
    static const char *const kLongs[] = {"smGetPixelFlavor", "smGetIndex",     "smIsADFAvailable", "smIsADFPaperLoaded",
                                         "smGetADFEnable",   "smGetThumbMode", "smNonUIAvailable"};
    static const char *const kScaled[] = {"smGetBrightness", "smGetContrast", "smGetHighlight", "smGetShadow"};
    static const char *const kSetLongs[] = {"smSetXferMech",           "smSetPixelType", "smSetBitDepth",
                                            "smSetSupportedPixelType", "smSetPaperSize", "smSetSupportedPaperSize",
                                            "smSetADFEnable",          "smSetXferCount", "smSetXResolution",
                                            "smSetLightpath",          "smSetThumbMode", "smSetIndicatorEnable"};
    static const char *const kSetScaled[] = {"smSetBrightness", "smSetContrast", "smSetHighlight", "smSetShadow",
                                             "smSetThreshold"};
    auto word = [&rng]() { return static_cast<LONG>(RandomWord(rng)); };
    switch (rng.Below(16)) {
    case 0: {
        const char *name = kShorts[rng.Below(2)];
        Fenced<short[3]> out;
        const LONG result = Call<Shorts>(name)(&out.value[0], &out.value[1], &out.value[2]);
        return Status(name, result) + Fence(name, out);
    }
    case 1: {
        const char *name = kDoubles[rng.Below(2)];
        Fenced<double[3]> out;
        const LONG result = Call<Doubles>(name)(&out.value[0], &out.value[1], &out.value[2]);
        return Status(name, result) + Fence(name, out);
    }
    case 2: {
        const char *name = kWords[rng.Below(6)];
        Fenced<WORD> out;
        return Status(name, Call<Word>(name)(&out.value)) + Fence(name, out);
    }
    case 3: {
        const char *name = kLongs[rng.Below(7)];
        Fenced<LONG> out;
        return Status(name, Call<Long>(name)(&out.value)) + Fence(name, out);
    }
    case 4: {
        const char *name = kScaled[rng.Below(4)];
        Fenced<short> out;
        const LONG result = Call<Scaled>(name)(&out.value, static_cast<short>(word()), static_cast<short>(word()));
        return Status(name, result) + Fence(name, out);
    }
    case 5: {
        Fenced<double[2]> out;
        const LONG result = Call<LONG(WINAPI *)(double *, double *)>("smGetMaxArea")(&out.value[0], &out.value[1]);
        return Status("smGetMaxArea", result) + Fence("smGetMaxArea", out);
    }
    case 6: {
        Fenced<double> out;
        return Status("smGetGamma", Call<LONG(WINAPI *)(double *)>("smGetGamma")(&out.value)) +
               Fence("smGetGamma", out);
    }
    case 7: {
        // The snapshot writes its own fields and leaves the others as the caller put them.
        Fenced<ScanCapRecord> out;
        const LONG result = Call<LONG(WINAPI *)(ScanCapRecord *)>("smGetScanCap")(&out.value);
        std::string wrong = Status("smGetScanCap", result) + Fence("smGetScanCap", out);
        const BYTE *record = reinterpret_cast<const BYTE *>(&out.value);
        for (size_t i = 4; i < sizeof(ScanCapRecord); ++i)
            if ((i < 56 || i >= 96) && record[i] != Fenced<ScanCapRecord>::kCanary)
                return wrong + " smGetScanCap wrote byte " + std::to_string(i) + ", which it never writes;";
        return wrong;
    }
    case 8: {
        Fenced<DWORD[3]> out;
        const LONG result = Call<LONG(WINAPI *)(DWORD *, DWORD *, DWORD *)>("smGetMemXferSize")(
            &out.value[0], &out.value[1], &out.value[2]);
        return Status("smGetMemXferSize", result) + Fence("smGetMemXferSize", out);
    }
    case 9: {
        GuardedBuffer &table = Lend(256 * 4);
        return Status("smGetDSPalette", Call<LONG(WINAPI *)(BYTE *)>("smGetDSPalette")(table.Data()));
    }
    case 10: {
        Fenced<LONG[2]> out;
        Call<void(WINAPI *)(LONG *, LONG *)>("smGetImageDim")(&out.value[0], &out.value[1]);
        return Fence("smGetImageDim", out);
    }
    case 11: {
        const char *name = kSetLongs[rng.Below(12)];
        return Status(name, Call<SetLong>(name)(word()));
    }
    case 12: {
        const char *name = kSetScaled[rng.Below(5)];
        return Status(name, Call<SetScaled>(name)(word(), static_cast<short>(word()), static_cast<short>(word())));
    }
    case 13: {
        // The list is read up to its first 0 or `count` entries, never beyond.
        const LONG count = rng.Pick<LONG>({0, 1, 3, 16, 64});
        GuardedBuffer &list = Lend(count * sizeof(DWORD));
        DWORD *entries = reinterpret_cast<DWORD *>(list.Data());
        for (LONG i = 0; i < count; ++i)
            entries[i] = rng.Chance(90) ? 1 + rng.Below(1000) : 0;
        const DWORD *argument = rng.Chance(15) ? nullptr : entries;
        return Status("smSetIndex", Call<LONG(WINAPI *)(LONG, const DWORD *)>("smSetIndex")(count, argument));
    }
    case 14: {
        const double edges[] = {0.0, 1.5, -3.0, 1e9, 8.5};
        const WORD unit = rng.Pick<WORD>({SM_UNIT_INCHES, SM_UNIT_CENTIMETERS, SM_UNIT_PIXELS, SM_UNIT_TWIPS, 0, 3});
        const LONG result = Call<LONG(WINAPI *)(double, double, double, double, WORD)>("smSetImageLayout")(
            edges[rng.Below(5)], edges[rng.Below(5)], edges[rng.Below(5)], edges[rng.Below(5)], unit);
        return Status("smSetImageLayout", result);
    }
    default: {
        if (rng.Chance(50))
            return Status("smIsThisDPIAvailable",
                          Call<LONG(WINAPI *)(LONG, LONG)>("smIsThisDPIAvailable")(word(), word()));
        // A source opened again learns its brightness range from whatever the source answers.
        Call<LONG(WINAPI *)()>("smCloseDS")();
        const LONG result = Call<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Hostile");
        closed = result != SM_OK;
        return Status("smOpenDS", result);
    }
    }
}

TEST_F(HostileGetTest, CapabilityAndLayoutCallsSurviveEveryAnswer) {
    RunCases(kGets, [this](Rng &rng) {
        closed = false;
        HostileCapabilities(rng);
        std::string wrong;
        for (int calls = 1 + rng.Below(3); calls > 0; --calls)
            wrong += RandomCall(rng);
        // The next case starts from an open source, whatever this one did to the session.
        source.Calm();
        const LONG open = Call<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Hostile");
        if (open != SM_OK)
            wrong += " the source could not be opened again: " + std::to_string(open) + ";";
        return wrong;
    });
}

} // namespace

namespace {

// --- Native, file and memory transfers run by smIsDSEvent, with the application reacting at random.

// Results an XferEnd may carry besides a condition the source told: delivered, cancelled by either side, low memory,
// a block the module refused.
bool ModuleResult(LONG result) {
    return result == SM_OK || result == SM_ERR_SOURCE_CANCEL || result == SM_ERR_APP_CANCEL ||
           result == SM_ERR_LOW_MEMORY || result == SM_ERR_BAD_VALUE || result == TWCC_BUMMER;
}

bool PlainPixelFlag(WORD flag) {
    return flag == SM_PIXEL_BW || flag == SM_PIXEL_GRAY || flag == SM_PIXEL_RGB || flag == SM_PIXEL_PALETTE;
}

class HostileTransferTest : public HostileTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    }

    // A batch of one to three images whose every answer is drawn at random; the pending count tells the truth, or
    // lies, but never outlives the batch.
    void HostileBatch(Rng &rng) {
        images_ = 1 + rng.Below(3);
        ended_ = 0;
        strips = 0;
        source.onCapability = [this, &rng](TW_UINT16 msg, TW_CAPABILITY &capability) {
            const Answer answer = RandomAnswer(rng);
            if (msg == MSG_SET || answer.rc != TWRC_SUCCESS)
                return answer;
            ContainerScript container = RandomContainer(rng, notAHandles);
            // The mechanism is mostly one the module knows, so that every transfer gets its share.
            if (capability.Cap == ICAP_XFERMECH && rng.Chance(80)) {
                container.conType = TWON_ONEVALUE;
                container.memory = ContainerScript::Memory::Exact;
                container.bytes = OneValueBytes(TWTY_UINT16, rng.Below(3));
            }
            source.HandOver(capability, container);
            return answer;
        };
        source.onImageInfo = [this, &rng](TW_IMAGEINFO &info) {
            RandomImageInfo(rng, info);
            strips = 0;
            return RandomAnswer(rng, TWRC_SUCCESS, 8);
        };
        source.onSetupMem = [&rng](TW_SETUPMEMXFER &sizes) {
            sizes = RandomBufferSizes(rng);
            return RandomAnswer(rng, TWRC_SUCCESS, 8);
        };
        source.onStrip = [this, &rng](TW_IMAGEMEMXFER &strip) { return NextStrip(rng, strip, 25); };
        source.onNative = [&rng](BitmapScript &bitmap) {
            bitmap.null = rng.Chance(5);
            bitmap.header.biSize = rng.Pick<DWORD>({40, 40, 12, 0});
            bitmap.header.biWidth = RandomDimension(rng);
            bitmap.header.biHeight = RandomDimension(rng);
            bitmap.header.biBitCount = rng.Pick<WORD>({1, 8, 24, 32, 0, 0xFFFF});
            bitmap.header.biClrUsed = RandomWord(rng);
            bitmap.blockSize = rng.Pick<SIZE_T>({0, 12, 40, 44, 1024, 5000});
            return RandomAnswer(rng, TWRC_XFERDONE, 15);
        };
        source.onSetupFile = [&rng](TW_SETUPFILEXFER &) { return RandomAnswer(rng, TWRC_SUCCESS, 10); };
        source.onFileXfer = [&rng]() { return RandomAnswer(rng, TWRC_XFERDONE, 15); };
        source.onPending = [this, &rng](TW_UINT16 msg, TW_UINT16 &count) {
            const Answer answer = RandomAnswer(rng, TWRC_SUCCESS, 6);
            if (msg == MSG_RESET && answer.rc == TWRC_SUCCESS)
                ended_ = images_;
            if (msg == MSG_ENDXFER && answer.rc == TWRC_SUCCESS)
                ++ended_;
            const int left = ended_ >= images_ ? 0 : images_ - ended_;
            count = left == 0 ? 0 : rng.Chance(80) ? static_cast<TW_UINT16>(left) : rng.Pick<TW_UINT16>({0, 0xFFFF});
            return answer;
        };
    }

    // The application: cancels now and then, names files (percent signs and no terminating zero too), takes bitmaps
    // into its own slot or leaves them to the module to free, lends buffers of any size and takes them back.
    void HostileApplication(Rng &rng) {
        app.onXferStart = [this, &rng](const Notice &, ScanImageInfo *image) {
            if (rng.Chance(5))
                Call<void(WINAPI *)()>("smCancelThisXfer")();
            if (rng.Chance(4))
                Call<void(WINAPI *)()>("smCancelAllXfer")();
            if (image->mechanism == SM_XFER_NATIVE) {
                if (rng.Chance(15)) {
                    image->xferTarget = nullptr;
                } else if (rng.Chance(15)) {
                    // The application's own slot, emptied before each image.
                    slot_ = nullptr;
                    image->xferTarget = &slot_;
                }
            } else if (image->mechanism == SM_XFER_FILE) {
                char *name = static_cast<char *>(image->xferTarget);
                const size_t length = rng.Pick<size_t>({0, 12, 200, 255, 256});
                for (size_t i = 0; i < length; ++i)
                    name[i] = rng.Chance(5) ? '%' : static_cast<char>('a' + rng.Below(26));
                if (length < 256)
                    name[length] = '\0';
            } else if (rng.Chance(30)) {
                Lend(*static_cast<SmBufferDescriptor *>(image->xferTarget), rng);
            }
        };
        app.onXferData = [this, &rng](const Notice &, ScanBlockInfo *block) {
            if (rng.Chance(3))
                Call<void(WINAPI *)()>("smCancelThisXfer")();
            if (rng.Chance(2))
                Call<void(WINAPI *)()>("smCancelAllXfer")();
            if (rng.Chance(8))
                Lend(*block->bufferDescriptor, rng);
            else if (rng.Chance(4))
                *block->bufferDescriptor = {0, nullptr};
        };
    }
    void Lend(SmBufferDescriptor &target, Rng &rng) {
        GuardedBuffer &buffer = HostileTest::Lend(rng.Pick<size_t>({0, 1, 16, 1000, 4096, 65536}));
        target = {static_cast<DWORD>(buffer.Size()), buffer.Data()};
        descriptor = &target;
    }

    // What the application saw: each image announced once and ended once with a result the module documents; blocks
    // only inside an image and never claiming more than their buffer; the close request at the end.
    std::string CheckNotices() {
        std::string wrong;
        bool inImage = false;
        int closeRequests = 0;
        for (const Notice &notice : app.Notices()) {
            if (closeRequests && notice.kind != NoticeKind::CloseDSReq)
                wrong += " " + notice.Brief() + " after the close request;";
            switch (notice.kind) {
            case NoticeKind::XferStart:
                if (inImage)
                    wrong += " XferStart inside an image;";
                inImage = true;
                break;
            case NoticeKind::XferData:
                if (!inImage)
                    wrong += " XferData outside an image;";
                if (notice.block.bytesWritten > notice.descriptor.size)
                    wrong += " a block claims " + std::to_string(notice.block.bytesWritten) + " bytes of a buffer of " +
                             std::to_string(notice.descriptor.size) + ";";
                if (notice.block.compression == TWCP_NONE && PlainPixelFlag(notice.block.pixelTypeFlag) &&
                    static_cast<ULONGLONG>(notice.block.rows) * notice.block.bytesPerRow > notice.block.bytesWritten)
                    wrong += " a block's rows run past its bytes;";
                break;
            case NoticeKind::XferEnd:
                if (!inImage)
                    wrong += " XferEnd without XferStart;";
                inImage = false;
                if (!ModuleResult(static_cast<LONG>(notice.wParam)) && !SourceTold(static_cast<LONG>(notice.wParam)))
                    wrong += " " + notice.Brief() + " which nothing explains;";
                if (notice.wParam == SM_OK && notice.image.mechanism == SM_XFER_NATIVE && notice.handleAtTarget)
                    received.push_back(notice.handleAtTarget);
                break;
            case NoticeKind::CloseDSReq:
                ++closeRequests;
                break;
            default:
                wrong += std::string(" unexpected ") + NoticeName(notice.kind) + ";";
            }
        }
        if (inImage)
            wrong += " an image without XferEnd;";
        if (closeRequests < 1 || closeRequests > 2)
            wrong += " " + std::to_string(closeRequests) + " close requests;";
        return wrong;
    }
    bool SourceTold(LONG result) const {
        return std::find(source.conditions.begin(), source.conditions.end(), result) != source.conditions.end();
    }

    int images_ = 0;
    int ended_ = 0;
    HGLOBAL slot_ = nullptr;
};

TEST_F(HostileTransferTest, TransfersSurviveEveryAnswerAndEveryCancel) {
    RunCases(kTransfers, [this](Rng &rng) {
        HostileBatch(rng);
        HostileApplication(rng);
        MSG event = source.Event();
        std::string wrong;
        if (!Call<BOOL(WINAPI *)(MSG *)>("smIsDSEvent")(&event))
            wrong += " the source's event was not the source's;";
        wrong += CheckNotices();
        WORD pending = 0;
        if (Call<LONG(WINAPI *)(WORD *)>("smGetPendingCount")(&pending) != SM_OK)
            wrong += " smGetPendingCount failed;";
        app.onXferStart = nullptr;
        app.onXferData = nullptr;
        return wrong;
    });
}

} // namespace

namespace {

// --- smReadBlock pulling whatever the source sends into buffers of any size.

class HostileReadBlockTest : public HostileTest {
protected:
    // Bytes of one row of an image as the application counts them from smGetImageDim: 3 a pixel for RGB, else 1.
    static size_t RowOf(const TW_IMAGEINFO &info) {
        const size_t bytes = info.PixelType == TWPT_RGB ? 3 : 1;
        return info.ImageWidth > 0 ? static_cast<size_t>(info.ImageWidth) * bytes : 0;
    }

    // An image of random size and strips; its width stays one an application can make a buffer row of.
    void HostileImage(Rng &rng) {
        RandomImageInfo(rng, next_);
        if (next_.ImageWidth > 100000)
            next_.ImageWidth = 100000;
        nextAnswer_ = RandomAnswer(rng, TWRC_SUCCESS, 8);
        strips = 0;
        source.onImageInfo = [this](TW_IMAGEINFO &info) {
            info = next_;
            if (nextAnswer_.rc != TWRC_SUCCESS)
                info = TW_IMAGEINFO{};
            current_ = info;
            return nextAnswer_;
        };
        source.onSetupMem = [&rng](TW_SETUPMEMXFER &sizes) {
            sizes = RandomBufferSizes(rng);
            return RandomAnswer(rng, TWRC_SUCCESS, 8);
        };
        source.onStrip = [this, &rng](TW_IMAGEMEMXFER &strip) { return NextStrip(rng, strip, 20); };
        source.onPending = [&rng](TW_UINT16, TW_UINT16 &count) {
            count = rng.Pick<TW_UINT16>({0, 1, 2, 0xFFFF});
            return RandomAnswer(rng, TWRC_SUCCESS, 6);
        };
    }

    // One call into a buffer of `size` bytes and the one row the application adds: for the image the reader may be
    // in, or the one it may start now. It writes only there, and what *count says lies there too.
    std::string ReadOnce(Rng &rng, bool &ended) {
        const DWORD size = rng.Pick<DWORD>({0, 1, 7, 100, 1000, 4096, 65536, 1 + rng.Below(20000)});
        const size_t row = std::max(RowOf(current_), RowOf(next_));
        GuardedBuffer &buffer = Lend(size + row);
        constexpr DWORD kUntouched = 0xFFFFFFFE;
        DWORD count = kUntouched;
        const BOOL over = Call<BOOL(WINAPI *)(BYTE *, DWORD, DWORD *)>("smReadBlock")(buffer.Data(), size, &count);
        ended = over;
        if (over != (count == SM_IMAGE_ENDED))
            return " smReadBlock answered " + std::to_string(over) + " with *count " + std::to_string(count) + ";";
        if (!over && count != kUntouched && count > size + row)
            return " *count says " + std::to_string(count) + " bytes of a buffer of " + std::to_string(size) +
                   " and a row of " + std::to_string(row) + ";";
        return "";
    }

    TW_IMAGEINFO next_ = {};
    TW_IMAGEINFO current_ = {};
    Answer nextAnswer_;
};

TEST_F(HostileReadBlockTest, BlocksOfEveryShapeLandInTheCallersBufferOnly) {
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    RunCases(kReadBlocks, [this](Rng &rng) {
        HostileImage(rng);
        std::string wrong;
        bool ended = false;
        for (int calls = 0; calls < 10 && !ended; ++calls)
            wrong += ReadOnce(rng, ended);
        return wrong;
    });
}

} // namespace

namespace {

// --- smZephraScan writing whatever the source sends into files.

class HostileScanToFileTest : public HostileTest {
protected:
    void SetUp() override {
        HostileTest::SetUp();
        if (HasFatalFailure())
            return;
        ASSERT_TRUE(boxes.Installed());
        char temp[MAX_PATH] = "";
        GetTempPathA(sizeof temp, temp);
        directory_ = std::string(temp) + "smk-hostile";
        CreateDirectoryA(directory_.c_str(), nullptr);
        ASSERT_TRUE(Files().empty()) << directory_ << " holds files from an earlier run";
    }
    void TearDown() override {
        for (const std::string &file : Files())
            DeleteFileA((directory_ + "\\" + file).c_str());
        RemoveDirectoryA(directory_.c_str());
        HostileTest::TearDown();
    }

    std::vector<std::string> Files() const { return FilesIn(directory_); }

    // Settings of any kind, sometimes none at all.
    static void RandomSettings(Rng &rng, ScanToFileSettings &s) {
        auto tone = [&rng]() { return static_cast<short>(rng.Pick<int>({0, -1000, 1000, 255, -1, 32767, 5})); };
        s = ScanToFileSettings{};
        s.unitCode = rng.Pick<WORD>({SM_UNIT_INCHES, SM_UNIT_CENTIMETERS, 3});
        s.pixelTypeCode = rng.Pick<WORD>({SM_PIXEL_BW, SM_PIXEL_GRAY, SM_PIXEL_RGB, SM_PIXEL_PALETTE, 0});
        s.resolution = rng.Pick<short>({50, 300, 0, -1});
        s.brightness = tone(), s.brightnessMin = tone(), s.brightnessMax = tone();
        s.contrast = tone(), s.contrastMin = tone(), s.contrastMax = tone();
        s.highlight = tone(), s.highlightMin = tone(), s.highlightMax = tone();
        s.shadow = tone(), s.shadowMin = tone(), s.shadowMax = tone();
        s.modalUI = rng.Below(2);
        s.morePages = rng.Chance(20);
        s.showSourceUI = rng.Chance(20);
        s.useFeeder = rng.Below(2);
    }

    // Images the bitmap writer may take, and ones it must refuse, with small files either way (a file costs a seek and
    // a write per row): a size that does not fit a bitmap file is huge in both directions, so that nothing in between
    // is written.
    static void RandomFileImage(Rng &rng, TW_IMAGEINFO &info) {
        RandomImageInfo(rng, info);
        if (rng.Chance(85)) {
            info.ImageWidth = rng.Pick<TW_INT32>({0, 1, 1 + static_cast<TW_INT32>(rng.Below(120))});
            info.ImageLength = rng.Pick<TW_INT32>({0, 1, -1, 1 + static_cast<TW_INT32>(rng.Below(48))});
        } else {
            info.ImageWidth = rng.Pick<TW_INT32>({-5, INT32_MIN, 0x40000000, INT32_MAX});
            info.ImageLength = rng.Pick<TW_INT32>({-5, INT32_MIN, 0x40000000, INT32_MAX});
        }
        if (rng.Chance(85)) {
            // One of the formats the writer takes.
            static const TW_INT16 kTypes[] = {TWPT_BW, TWPT_GRAY, TWPT_PALETTE, TWPT_PALETTE, TWPT_RGB};
            static const TW_INT16 kBits[] = {1, 8, 4, 8, 24};
            const int format = rng.Below(5);
            info.PixelType = kTypes[format];
            info.BitsPerPixel = kBits[format];
            info.SamplesPerPixel = format == 4 ? 3 : 1;
            for (TW_INT16 &bits : info.BitsPerSample)
                bits = format == 4 ? 8 : kBits[format];
        }
    }

    void HostileScan(Rng &rng) {
        mechanism_ = rng.Below(3);
        strips = 0;
        source.onCapability = [this, &rng](TW_UINT16 msg, TW_CAPABILITY &capability) {
            if (msg == MSG_SET && capability.Cap == ICAP_XFERMECH)
                return MechanismSet(capability);
            const Answer answer = RandomAnswer(rng, TWRC_SUCCESS, 8);
            if (msg != MSG_SET && answer.rc == TWRC_SUCCESS)
                source.HandOver(capability, RandomContainer(rng, notAHandles));
            return answer;
        };
        source.onUserInterface = [&rng](TW_UINT16) { return RandomAnswer(rng, TWRC_SUCCESS, 5); };
        source.onCloseDS = [&rng](TW_UINT16) { return RandomAnswer(rng, TWRC_SUCCESS, 5); };
        source.onImageInfo = [&rng](TW_IMAGEINFO &info) {
            RandomFileImage(rng, info);
            return RandomAnswer(rng, TWRC_SUCCESS, 8);
        };
        source.onSetupMem = [&rng](TW_SETUPMEMXFER &sizes) {
            sizes = {RandomBufferSize(rng), rng.Chance(80) ? 1 + rng.Below(70000) : RandomBufferSize(rng),
                     RandomBufferSize(rng)};
            return RandomAnswer(rng, TWRC_SUCCESS, 8);
        };
        source.onStrip = [this, &rng](TW_IMAGEMEMXFER &strip) { return NextStrip(rng, strip, 25); };
        source.onNative = [&rng](BitmapScript &bitmap) {
            bitmap.null = rng.Chance(5);
            bitmap.header.biSize = 40;
            bitmap.header.biWidth = rng.Chance(80) ? 1 + rng.Below(64) : RandomDimension(rng);
            bitmap.header.biHeight = rng.Chance(80) ? 1 + rng.Below(64) : RandomDimension(rng);
            bitmap.header.biBitCount = rng.Pick<WORD>({1, 8, 24, 32, 0, 0xFFFF});
            bitmap.header.biClrUsed = rng.Pick<DWORD>({0, 2, 256, 0xFFFF, 0x10000});
            bitmap.blockSize = rng.Pick<SIZE_T>({0, 12, 40, 1024, 13000, 40000});
            return RandomAnswer(rng, TWRC_XFERDONE, 15);
        };
        source.onSetupFile = [&rng](TW_SETUPFILEXFER &) { return RandomAnswer(rng, TWRC_SUCCESS, 10); };
        source.onFileXfer = [&rng]() { return RandomAnswer(rng, TWRC_XFERDONE, 15); };
        source.onPending = [&rng](TW_UINT16, TW_UINT16 &count) {
            count = rng.Pick<TW_UINT16>({0, 0, 1, 0xFFFF});
            return RandomAnswer(rng, TWRC_SUCCESS, 6);
        };
    }

    // The source takes the case's mechanism only (TWSX_NATIVE, TWSX_FILE or TWSX_MEMORY), so that each variant of the
    // scan to file gets its share.
    Answer MechanismSet(TW_CAPABILITY &capability) {
        TW_UINT32 value = 0xFFFF;
        if (const BYTE *block = static_cast<const BYTE *>(GlobalLock(capability.hContainer))) {
            std::memcpy(&value, block + 2, 2);
            GlobalUnlock(capability.hContainer);
        }
        return value == mechanism_ ? Answer{} : Answer{TWRC_FAILURE, TWCC_BADVALUE};
    }

    // The name the application gives: mostly a plain one, sometimes one that cannot be created.
    std::string RandomName(Rng &rng) const {
        switch (rng.Below(20)) {
        case 0:
            return directory_ + "\\missing\\image.bmp";
        case 1:
            return "";
        case 2:
            return directory_ + "\\" + std::string(140, 'n') + ".bmp";
        case 3:
            return directory_ + "\\100%%.bmp";
        default:
            return directory_ + "\\image.bmp";
        }
    }

    std::string CheckImage(const std::string &name) {
        std::string wrong;
        int ends = 0;
        LONG result = 0;
        for (const Notice &notice : app.Notices()) {
            if (notice.kind == NoticeKind::ScanToFileXferEnd) {
                ++ends;
                result = static_cast<LONG>(notice.wParam);
            }
        }
        if (ends != app.Count(NoticeKind::ScanToFileGetName))
            wrong += " " + std::to_string(ends) + " ScanToFileXferEnd for " +
                     std::to_string(app.Count(NoticeKind::ScanToFileGetName)) + " names;";
        const bool explained =
            result == SM_OK || result == SM_ERR_IMAGE_REFUSED || result == SM_ERR_LOW_MEMORY ||
            result == SM_ERR_NO_DISK_SPACE || result == SM_ERR_FILE || result == SM_ERR_SOURCE_CANCEL ||
            result == SM_ERR_BAD_VALUE ||
            std::find(source.conditions.begin(), source.conditions.end(), result) != source.conditions.end();
        if (!explained)
            wrong += " ScanToFileXferEnd(" + std::to_string(result) + ") which nothing explains;";
        if (app.Count(NoticeKind::ScanToFileDSClosed) > 1)
            wrong += " the end of the batch was told twice;";
        const std::vector<std::string> files = Files();
        // An image reported written is the one file of its directory, under the name the application gave.
        const bool kept = ends == 1 && result == SM_OK;
        const std::string base = name.substr(name.find_last_of('\\') + 1);
        if (kept && (files.size() != 1 || files[0] != base))
            wrong += " the written image is not the one file in its directory;";
        if (!kept && !files.empty())
            wrong += " " + files[0] + " is left behind;";
        return wrong;
    }

    MessageBoxes boxes;
    std::string directory_;
    TW_UINT32 mechanism_ = TWSX_MEMORY;
};

TEST_F(HostileScanToFileTest, EveryImageEndsInItsFileOrInNone) {
    using ZephraScan = DWORD(WINAPI *)(HWND, const char *, const ScanToFileSettings *);
    RunCases(kScansToFile, [this](Rng &rng) {
        HostileScan(rng);
        ScanToFileSettings settings;
        RandomSettings(rng, settings);
        const std::string name = RandomName(rng);
        app.onScanToFileGetName = [&name](const Notice &, char *buffer) { lstrcpynA(buffer, name.c_str(), 256); };
        std::string wrong;
        const DWORD enabled =
            Call<ZephraScan>("smZephraScan")(app.Handle(), "Hostile", rng.Chance(5) ? nullptr : &settings);
        if (enabled > 1)
            wrong += " smZephraScan answered " + std::to_string(enabled) + ";";
        if (enabled) {
            MSG event = source.Event();
            Call<BOOL(WINAPI *)(MSG *)>("smIsDSEvent")(&event);
        }
        wrong += CheckImage(name);
        app.onScanToFileGetName = nullptr;
        for (const std::string &file : Files())
            DeleteFileA((directory_ + "\\" + file).c_str());
        // The next case starts from an open source.
        source.Calm();
        Call<LONG(WINAPI *)()>("smDisableDS")();
        Call<LONG(WINAPI *)()>("smCloseDS")();
        const LONG open = Call<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Hostile");
        if (open != SM_OK)
            wrong += " the source could not be opened again: " + std::to_string(open) + ";";
        boxes.Clear();
        return wrong;
    });
}

} // namespace

namespace {

// --- The guards the random cases led to, each provoked by one scripted source.

class GuardTest : public HostileTest {
protected:
    GuardTest() { withViewer = true; }
    void SetUp() override {
        HostileTest::SetUp();
        if (HasFatalFailure())
            return;
        tracker.Begin();
        source.ClearRecord();
        viewer.Clear();
    }
    // The warnings of the module's method `method`, from its file.
    std::vector<std::string> Warnings(const char *file) const {
        std::vector<std::string> texts;
        for (const TraceLine &record : viewer.Records())
            if (record.level == "Warning" && record.source == std::string("F:\\smkernal\\") + file)
                texts.push_back(record.text);
        return texts;
    }
    // The module's blocks all freed, none written past its end, every container of the source freed once.
    void ExpectNothingLeft() {
        Tally tally;
        EXPECT_EQ("", Accounting(tally));
    }
    static TW_IMAGEINFO Gray(TW_INT32 width, TW_INT32 length) {
        TW_IMAGEINFO info = {};
        info.ImageWidth = width;
        info.ImageLength = length;
        info.SamplesPerPixel = 1;
        info.BitsPerSample[0] = 8;
        info.BitsPerPixel = 8;
        info.PixelType = TWPT_GRAY;
        return info;
    }
    // The source answers DAT_IMAGEINFO with `info`.
    void AnswerImage(const TW_IMAGEINFO &info) {
        source.onImageInfo = [info](TW_IMAGEINFO &answer) {
            answer = info;
            return Answer{};
        };
    }
    static TW_IMAGEMEMXFER Record(TW_UINT32 bytesPerRow, TW_UINT32 columns, TW_UINT32 rows, TW_UINT32 bytesWritten) {
        TW_IMAGEMEMXFER record = {};
        record.BytesPerRow = bytesPerRow;
        record.Columns = columns;
        record.Rows = rows;
        record.BytesWritten = bytesWritten;
        return record;
    }
    // The source answers one strip, the last of its image.
    void OneStrip(const TW_IMAGEMEMXFER &record) {
        source.onStrip = [record](TW_IMAGEMEMXFER &strip) {
            const TW_MEMORY memory = strip.Memory;
            strip = record;
            strip.Memory = memory;
            return Answer{TWRC_XFERDONE, TWCC_SUCCESS};
        };
        source.onPending = [](TW_UINT16, TW_UINT16 &count) {
            count = 0;
            return Answer{};
        };
    }
};

// Padded rows are copied one by one into the caller's buffer, which holds one row of the image beyond its size: a
// source whose rows are wider than its image (30 columns of an image 10 wide) gets no row started that would run
// past that.
TEST_F(GuardTest, ReadBlockStartsNoRowWiderThanTheImageThatWouldRunPastTheBuffer) {
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    AnswerImage(Gray(10, 100));
    // Rows of 30 bytes, 4 bytes apart, in a block of the caller's size.
    OneStrip(Record(4, 30, 3, 40));
    const DWORD size = 40;
    GuardedBuffer buffer(size + 10); // the size and one row of the image, then a page without access
    DWORD count = 0;
    Call<BOOL(WINAPI *)(BYTE *, DWORD, DWORD *)>("smReadBlock")(buffer.Data(), size, &count);
    EXPECT_EQ(std::vector<std::string>{"Bad Value, row beyond the buffer, copy stopped, in TScanModule::ReadBlock"},
              Warnings("Sm_8.cpp"));
    EXPECT_EQ(SM_IMAGE_ENDED, count) << "the block was the image's last";
    EXPECT_EQ(std::vector<BYTE>(30, ProgramSource::kStripFill), std::vector<BYTE>(buffer.Data(), buffer.Data() + 30))
        << "the first row arrived";
    EXPECT_EQ(std::vector<BYTE>(20, GuardedBuffer::kFill), std::vector<BYTE>(buffer.Data() + 30, buffer.Data() + 50))
        << "the second row, which would have ended 10 bytes past the buffer, was not started";
    EXPECT_TRUE(buffer.FrontIntact());
    ExpectNothingLeft();
}

// An unpadded block is cut to the caller's size. Where the preferred buffer cannot be had and the source's minimum is
// larger than its maximum, the block may be larger than the caller's size although that size reaches the maximum.
TEST_F(GuardTest, ReadBlockCutsABlockLargerThanTheCallersBuffer) {
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    AnswerImage(Gray(5000, 100));
    source.onSetupMem = [](TW_SETUPMEMXFER &sizes) {
        sizes = {5000, 100, 0}; // the preferred size becomes the minimum, 5000, cut to the caller's 200
        return Answer{};
    };
    OneStrip(Record(5000, 5000, 1, 5000));
    const DWORD size = 200;
    GuardedBuffer buffer(size);
    tracker.FailNextAllocations(1); // the buffer of 200 bytes; the minimum's 5000 come next
    DWORD count = 0;
    Call<BOOL(WINAPI *)(BYTE *, DWORD, DWORD *)>("smReadBlock")(buffer.Data(), size, &count);
    EXPECT_EQ((std::vector<std::string>{"illegal preferred size, Adjust it in TScanModule::GetMemXferSize",
                                        "Bad Value, block larger than the buffer, cut, in TScanModule::ReadBlock"}),
              viewer.Texts("Warning"));
    EXPECT_EQ(SM_IMAGE_ENDED, count) << "the block was the image's last";
    EXPECT_EQ(std::vector<BYTE>(size, ProgramSource::kStripFill),
              std::vector<BYTE>(buffer.Data(), buffer.Data() + size));
    EXPECT_TRUE(buffer.FrontIntact());
    ExpectNothingLeft();
}

// An application that stops reading in the middle of an image and closes the session: the next session's first call
// starts a new image, with the new image's information, not the old image's pixel size.
TEST_F(GuardTest, ReadBlockStartsTheNextSessionWithANewImage) {
    auto enable = Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS");
    auto readBlock = Call<BOOL(WINAPI *)(BYTE *, DWORD, DWORD *)>("smReadBlock");
    ASSERT_EQ(SM_OK, enable(FALSE, FALSE));
    int infos = 0;
    TW_IMAGEINFO info = Gray(10, 100);
    info.PixelType = TWPT_RGB;
    source.onImageInfo = [&info, &infos](TW_IMAGEINFO &answer) {
        answer = info;
        ++infos;
        return Answer{};
    };
    // Rows of 32 bytes: RGB pixels of the first image, gray ones of the second.
    TW_IMAGEMEMXFER record = Record(32, 10, 4, 128);
    source.onStrip = [&record](TW_IMAGEMEMXFER &strip) {
        const TW_MEMORY memory = strip.Memory;
        strip = record;
        strip.Memory = memory;
        return Answer{};
    };
    std::vector<BYTE> buffer(1024);
    DWORD count = 0;
    ASSERT_FALSE(readBlock(buffer.data(), 512, &count));
    EXPECT_EQ(4u * 10 * 3, count) << "four rows of ten RGB pixels";
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)()>("smDisableDS")());
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)()>("smCloseDS")());
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(HWND, const char *)>("smOpenDS")(app.Handle(), "Guard"));
    ASSERT_EQ(SM_OK, enable(FALSE, FALSE));
    info = Gray(30, 100);
    record.Columns = 30;
    ASSERT_FALSE(readBlock(buffer.data(), 512, &count));
    EXPECT_EQ(2, infos) << "the second session's image was asked for";
    EXPECT_EQ(4u * 30, count) << "four rows of thirty gray pixels";
    ExpectNothingLeft();
}

// Rows whose 32-bit product with the row length only wraps round to the bytes written (65536 rows of 65536 bytes,
// none written) are counted by their bytes, so that no block tells the application of rows it does not hold.
TEST_F(GuardTest, MemoryTransferCountsRowsWhoseProductOnlyWrapsRoundByTheirBytes) {
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    viewer.Clear();
    AnswerImage(Gray(0x10000, 0x10000));
    OneStrip(Record(0x10000, 0x10000, 0x10000, 0));
    MSG event = source.Event();
    EXPECT_TRUE(Call<BOOL(WINAPI *)(MSG *)>("smIsDSEvent")(&event));
    const std::vector<Notice> blocks = NoticesOf(app.Notices(), NoticeKind::XferData);
    ASSERT_EQ(1u, blocks.size());
    EXPECT_EQ(0u, blocks[0].block.rows);
    EXPECT_EQ(1, viewer.CountText("not 4-byte align in TScanModule::DoMemXfer"));
    EXPECT_EQ((std::vector<std::string>{"XferStart", "XferData", "XferEnd(0)", "CloseDSReq"}), app.Briefs());
    ExpectNothingLeft();
}

// RGB blocks whose rows overlap: 2^31 rows without a length (all on the first), and rows of 100,000 pixels one byte
// apart. Each row would be swapped again over the next ones, taking up to 2^32 passes over the buffer; the block is
// refused before anything is touched.
TEST_F(GuardTest, MemoryTransferRefusesOverlappingRows) {
    ASSERT_EQ(SM_OK, Call<LONG(WINAPI *)(BOOL, BOOL)>("smEnableDS")(FALSE, FALSE));
    TW_IMAGEINFO info = Gray(0, 0x7FFFFFFF);
    info.PixelType = TWPT_RGB;
    info.SamplesPerPixel = 3;
    info.BitsPerPixel = 24;
    AnswerImage(info);
    for (const TW_IMAGEMEMXFER &record : {Record(0, 1000, 0x7FFFFFFF, 0), Record(1, 100000, 0x10000, 0x10000)}) {
        viewer.Clear();
        app.Clear();
        OneStrip(record);
        MSG event = source.Event();
        EXPECT_TRUE(Call<BOOL(WINAPI *)(MSG *)>("smIsDSEvent")(&event));
        EXPECT_EQ((std::vector<std::string>{"XferStart", "XferEnd(10)", "CloseDSReq"}), app.Briefs());
        EXPECT_EQ(std::vector<std::string>{"Bad Value, rows overlap, in TScanModule::DoMemXfer"}, Warnings("Sm_8.cpp"));
    }
    ExpectNothingLeft();
}

// A strip that claims more bytes than the scan to file's buffer holds would be read, and swapped in place, past the
// buffer's end: the image fails with TWCC_BADVALUE and leaves no file.
TEST_F(GuardTest, ScanToFileRefusesAStripClaimingMoreThanItsBuffer) {
    char temp[MAX_PATH] = "";
    GetTempPathA(sizeof temp, temp);
    const std::string name = std::string(temp) + "smk-guard-strip.bmp";
    DeleteFileA(name.c_str());
    TW_IMAGEINFO info = {};
    info.ImageWidth = 4;
    info.ImageLength = 40;
    info.SamplesPerPixel = 3;
    info.BitsPerSample[0] = info.BitsPerSample[1] = info.BitsPerSample[2] = 8;
    info.BitsPerPixel = 24;
    info.PixelType = TWPT_RGB;
    AnswerImage(info);
    source.onSetupMem = [](TW_SETUPMEMXFER &sizes) {
        sizes = {12, 120, 120}; // ten rows of 12 bytes
        return Answer{};
    };
    OneStrip(Record(12, 4, 40, 480)); // forty rows in a buffer of ten
    app.onScanToFileGetName = [&name](const Notice &, char *buffer) { lstrcpynA(buffer, name.c_str(), 256); };
    ScanToFileSettings settings = {};
    settings.pixelTypeCode = SM_PIXEL_RGB;
    settings.resolution = 50;
    ASSERT_EQ(1u, Call<DWORD(WINAPI *)(HWND, const char *, const ScanToFileSettings *)>("smZephraScan")(
                      app.Handle(), "Guard", &settings));
    viewer.Clear();
    MSG event = source.Event();
    Call<BOOL(WINAPI *)(MSG *)>("smIsDSEvent")(&event);
    EXPECT_EQ((std::vector<std::string>{"ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"}), app.Briefs());
    const std::vector<Notice> ends = NoticesOf(app.Notices(), NoticeKind::ScanToFileXferEnd);
    ASSERT_EQ(1u, ends.size());
    EXPECT_EQ(static_cast<WPARAM>(SM_ERR_BAD_VALUE), ends[0].wParam);
    EXPECT_EQ(std::vector<std::string>{"Bad Value, BytesWritten > buffer size, in TScanModule::ZephraScanDoMemXfer"},
              Warnings("Sm_10.cpp"));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(name.c_str())) << "no file is left";
    ExpectNothingLeft();
}

} // namespace

namespace {

// --- The checks themselves: what the cases rely on sees what it looks for.

// The tracker, attached to this program itself, sees a block written one byte past its end, and lists the blocks
// freed that it did not see allocated.
TEST(HostileBench, TheTrackerSeesWritesPastABlockAndForeignFrees) {
    HGLOBAL before = GlobalAlloc(GHND, 8);
    ASSERT_NE(nullptr, before);
    GlobalMemoryTracker tracker;
    ASSERT_GT(tracker.Attach(GetModuleHandleA(nullptr)), 0);
    tracker.GuardBlocks(true);
    tracker.Begin();
    HGLOBAL inside = GlobalAlloc(GHND, 10);
    HGLOBAL past = GlobalAlloc(GHND, 10);
    ASSERT_TRUE(inside && past);
    static_cast<BYTE *>(GlobalLock(inside))[9] = 1;
    GlobalUnlock(inside);
    static_cast<BYTE *>(GlobalLock(past))[10] = 1;
    GlobalUnlock(past);
    GlobalFree(inside);
    GlobalFree(past);
    GlobalFree(before);
    EXPECT_EQ(1, tracker.GuardViolations());
    EXPECT_EQ(std::vector<HGLOBAL>{before}, tracker.ForeignFrees());
    EXPECT_TRUE(tracker.Live().empty());
    tracker.Detach();
}

// A write just before a guarded buffer shows in FrontIntact (one just past it faults: the test bench's own suite).
TEST(HostileBench, AGuardedBufferSeesAWriteBeforeItsStart) {
    GuardedBuffer buffer(100);
    ASSERT_NE(nullptr, buffer.Data());
    EXPECT_EQ(std::vector<BYTE>(100, GuardedBuffer::kFill), std::vector<BYTE>(buffer.Data(), buffer.Data() + 100));
    EXPECT_TRUE(buffer.FrontIntact());
    buffer.Data()[99] = 0;
    EXPECT_TRUE(buffer.FrontIntact());
    buffer.Data()[-1] = 0;
    EXPECT_FALSE(buffer.FrontIntact());
}

} // namespace
