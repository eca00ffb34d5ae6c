// The library frame as an application sees it: export table and ordinals, DisableWnds, resources, imports.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ModuleTest.h"
#include "smkernal.h"

using namespace smtest;

namespace {

// The whole export table: ordinal and name. Entries not built yet are absent from the DLL,
// both by name and by ordinal.
const std::map<int, const char *> kExportTable = {
    {1, "smIsTWAINAvailable"},
    {2, "smIsDSEvent"},
    {3, "smSelectDS"},
    {4, "smOpenDS"},
    {5, "smEnableDS"},
    {6, "smDisableDS"},
    {7, "smCloseDS"},
    {8, "smCapNegotiate"},
    {9, "smIsADFAvailable"},
    {10, "smIsADFPaperLoaded"},
    {11, "smIsPaperLoaded"},
    {12, "smGetADFEnable"},
    {13, "smSetADFEnable"},
    {14, "smGetBrightness"},
    {15, "smSetBrightness"},
    {16, "smGetContrast"},
    {17, "smSetContrast"},
    {18, "smGetHighlight"},
    {19, "smSetHighlight"},
    {20, "smGetShadow"},
    {21, "smSetShadow"},
    {22, "smGetGamma"},
    {23, "smSetGamma"},
    {24, "smGetUnit"},
    {25, "smGetMaxArea"},
    {26, "smGetPixelFlavor"},
    {27, "smGetPixelType"},
    {28, "smSetPixelType"},
    {29, "smGetSupportedPixelType"},
    {30, "smSetSupportedPixelType"},
    {31, "smGetPaperSize"},
    {32, "smSetPaperSize"},
    {33, "smGetSupportedPaperSize"},
    {34, "smSetSupportedPaperSize"},
    {35, "smGetXferMech"},
    {36, "smSetXferMech"},
    {37, "smGetXResolution"},
    {38, "smSetXResolution"},
    {39, "smGetYResolution"},
    {40, "smSetYResolution"},
    {41, "smIsThisDPIAvailable"},
    {42, "smGetXScale"},
    {43, "smSetXScale"},
    {44, "smGetYScale"},
    {45, "smSetYScale"},
    {46, "smCancelThisXfer"},
    {47, "smCancelAllXfer"},
    {48, "smSetImageLayout"},
    {49, "smGetMemXferSize"},
    {50, "smGetDSPalette"},
    {51, "smZephraScan"},
    {52, "smGetXferCount"},
    {53, "smGetDSProductName"},
    {54, "smGetPendingCount"},
    {55, "smSetThreshold"},
    {56, "smSetIndicatorEnable"},
    {57, "smSetBitDepth"},
    {58, "smSetDefaultDriver"},
    {59, "smSetXferCount"},
    {60, "smSetAutoFeedEnable"},
    {61, "smReadBlock"},
    {62, "smGetScanCap"},
    {63, "smGetImageDim"},
    {64, "smSetLightpath"},
    {65, "smGetAllDS"},
    {66, "smGetIndex"},
    {67, "smGetThumbMode"},
    {68, "smNonUIAvailable"},
    {69, "smSetIndex"},
    {70, "smSetThumbMode"},
    {100, "DisableWnds"},
};

FARPROC ByOrdinal(HMODULE module, int ordinal) {
    return GetProcAddress(module, reinterpret_cast<LPCSTR>(static_cast<ULONG_PTR>(ordinal)));
}

// The loaded module's image, its PE headers walked once: what lies at an address and where a data directory starts.
class Image {
public:
    explicit Image(HMODULE module) : base_(reinterpret_cast<const BYTE *>(module)) {
        const auto *dos = reinterpret_cast<const IMAGE_DOS_HEADER *>(base_);
        headers_ = reinterpret_cast<const IMAGE_NT_HEADERS32 *>(base_ + dos->e_lfanew);
    }
    template <typename T> const T *At(DWORD rva) const { return reinterpret_cast<const T *>(base_ + rva); }
    template <typename T> const T *Directory(int entry) const {
        return At<T>(headers_->OptionalHeader.DataDirectory[entry].VirtualAddress);
    }

private:
    const BYTE *base_;
    const IMAGE_NT_HEADERS32 *headers_;
};

// The names in the DLL's export directory.
std::vector<std::string> ExportedNames(const Image &image) {
    const auto *dir = image.Directory<IMAGE_EXPORT_DIRECTORY>(IMAGE_DIRECTORY_ENTRY_EXPORT);
    const DWORD *names = image.At<DWORD>(dir->AddressOfNames);
    std::vector<std::string> out;
    for (DWORD i = 0; i < dir->NumberOfNames; ++i)
        out.emplace_back(image.At<char>(names[i]));
    return out;
}

// The DLLs that the file imports from, read from its import directory.
std::vector<std::string> ImportedDlls(const Image &image) {
    std::vector<std::string> out;
    for (const auto *desc = image.Directory<IMAGE_IMPORT_DESCRIPTOR>(IMAGE_DIRECTORY_ENTRY_IMPORT); desc->Name; ++desc)
        out.emplace_back(image.At<char>(desc->Name));
    return out;
}

class FrameTest : public ModuleTest {
protected:
    void SetUp() override {
        ModuleTest::SetUp();
        library.Load();
    }
};

TEST_F(FrameTest, EveryNamedOrdinalIsTheEntryOfItsName) {
    for (const auto &[ordinal, name] : kExportTable) {
        const FARPROC byName = library.Proc(name);
        EXPECT_EQ(byName, ByOrdinal(library.Module(), ordinal)) << "ordinal " << ordinal << " " << name;
    }
}

TEST_F(FrameTest, EveryEntryOfTheTableResolves) {
    for (const auto &[ordinal, name] : kExportTable)
        EXPECT_NE(nullptr, library.Proc(name)) << "ordinal " << ordinal << " " << name;
}

TEST_F(FrameTest, OrdinalsSeventyOneToNinetyNineAreEmpty) {
    for (int ordinal = 71; ordinal <= 99; ++ordinal)
        EXPECT_EQ(nullptr, ByOrdinal(library.Module(), ordinal)) << "ordinal " << ordinal;
    EXPECT_EQ(nullptr, ByOrdinal(library.Module(), 101));
}

TEST_F(FrameTest, OrdinalOneHundredIsDisableWnds) {
    ASSERT_NE(nullptr, ByOrdinal(library.Module(), 100));
    EXPECT_EQ(library.Proc("DisableWnds"), ByOrdinal(library.Module(), 100));
}

TEST_F(FrameTest, OrdinalsTenAndElevenAreOneEntry) {
    ASSERT_NE(nullptr, ByOrdinal(library.Module(), 10));
    EXPECT_EQ(ByOrdinal(library.Module(), 10), ByOrdinal(library.Module(), 11));
    EXPECT_EQ(library.Proc("smIsADFPaperLoaded"), library.Proc("smIsPaperLoaded"));
}

TEST_F(FrameTest, NothingIsExportedBeyondTheTable) {
    std::set<std::string> table;
    for (const auto &entry : kExportTable)
        table.insert(entry.second);
    for (const std::string &name : ExportedNames(Image(library.Module())))
        EXPECT_TRUE(table.count(name)) << "unexpected export " << name;
}

TEST_F(FrameTest, ImportsOnlySystemDlls) {
    char system[MAX_PATH];
    GetSystemDirectoryA(system, sizeof system);
    const std::vector<std::string> imports = ImportedDlls(Image(library.Module()));
    ASSERT_FALSE(imports.empty());
    for (const std::string &dll : imports) {
        std::string lower = dll;
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        EXPECT_EQ(std::string::npos, lower.find("gcc")) << dll;
        EXPECT_EQ(std::string::npos, lower.find("stdc++")) << dll;
        EXPECT_EQ(std::string::npos, lower.find("pthread")) << dll;
        const std::string path = std::string(system) + "\\" + dll;
        EXPECT_NE(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(path.c_str())) << dll << " is not a system DLL";
    }
}

TEST_F(FrameTest, LoadingAndFreeingKeepsNoTlsIndex) {
    // The fixture's load has brought in every system DLL the library and the stand-in it loads need.
    library.Free();
    EXPECT_EQ(0, TlsIndexesKeptBy([this] {
                  library.Load();
                  library.Free();
              }))
        << "smkernal.dll or TWAIN_32.DLL keeps TLS indexes when freed";
}

TEST_F(FrameTest, StringResourcesAreTheWindows1252Texts) {
    // LoadStringA converts to the ANSI code page, which the test bench pins through the locale.
    ASSERT_EQ(1252u, GetACP()) << "wine-run must start Wine in the C locale";
    const std::map<UINT, std::string> expected = {
        {20000, "Scan Module written by the Calvex imaging team"},
        {20001, "Version %d.%02d"},
        {20002, "Calvex Technology Corporation"},
        {20003, "Advertencia"},
        {20004, "Error"},
        {20005, "Tipo de p\xEDxel no v\xE1lido"},
        {20006, "\xBF"
                "Explorar m\xE1s p\xE1ginas?"},
    };
    for (const auto &[id, text] : expected) {
        char buffer[256] = {};
        const int length = LoadStringA(library.Module(), id, buffer, sizeof buffer);
        EXPECT_EQ(static_cast<int>(text.size()), length) << "string " << id;
        EXPECT_EQ(text, std::string(buffer)) << "string " << id;
    }
}

TEST_F(FrameTest, VersionResourceNamesTheProduct) {
    const std::string path = BinDir() + "\\smkernal.dll";
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
    ASSERT_GT(size, 0u);
    std::vector<char> block(size);
    ASSERT_TRUE(GetFileVersionInfoA(path.c_str(), 0, size, block.data()));
    VS_FIXEDFILEINFO *fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueA(block.data(), "\\", reinterpret_cast<void **>(&fixed), &length));
    EXPECT_EQ(MAKELONG(0, 2), fixed->dwFileVersionMS);
    EXPECT_EQ(0u, fixed->dwFileVersionLS);
    const std::map<std::string, std::string> strings = {
        {"ProductName", "Calvex Scan Module"},
        {"FileDescription", "Calvex TWAIN Scan Module"},
        {"CompanyName", "Calvex Technology Corporation"},
        {"FileVersion", "2.00"},
    };
    for (const auto &[key, value] : strings) {
        char *text = nullptr;
        const std::string query = "\\StringFileInfo\\040904e4\\" + key;
        ASSERT_TRUE(VerQueryValueA(block.data(), query.c_str(), reinterpret_cast<void **>(&text), &length)) << key;
        EXPECT_EQ(value, std::string(text)) << key;
    }
}

TEST_F(FrameTest, CancelCallsWriteNoRecords) {
    viewer.Clear();
    library.Get<void(WINAPI *)()>("smCancelThisXfer")();
    library.Get<void(WINAPI *)()>("smCancelAllXfer")();
    EXPECT_TRUE(viewer.Records().empty());
}

// Top-level and child windows of the test thread for DisableWnds.
class DisableWndsTest : public FrameTest {
protected:
    void SetUp() override {
        FrameTest::SetUp();
        disableWnds = library.Get<BOOL(WINAPI *)(HWND, DisabledWindowList *)>("DisableWnds");
        ASSERT_NE(nullptr, disableWnds);
    }
    void TearDown() override {
        for (HWND window : windows)
            DestroyWindow(window);
        FrameTest::TearDown();
    }
    HWND Make(DWORD style, HWND parent = nullptr) {
        HWND window = CreateWindowA("STATIC", "w", style, 0, 0, 10, 10, parent, nullptr, nullptr, nullptr);
        EXPECT_NE(nullptr, window);
        windows.push_back(window);
        return window;
    }
    static BOOL CALLBACK Forward(HWND window, LPARAM param) {
        auto *self = reinterpret_cast<DisableWndsTest *>(param);
        return self->disableWnds(window, self->list);
    }
    void EnumerateThreadWindows(DisabledWindowList *target) {
        list = target;
        EnumThreadWindows(GetCurrentThreadId(), Forward, reinterpret_cast<LPARAM>(this));
    }

    BOOL(WINAPI *disableWnds)(HWND, DisabledWindowList *) = nullptr;
    DisabledWindowList *list = nullptr;
    std::vector<HWND> windows;
};

TEST_F(DisableWndsTest, RecordLayoutIsTenPackedBytes) {
    EXPECT_EQ(10u, sizeof(DisabledWindowList));
    EXPECT_EQ(4u, offsetof(DisabledWindowList, windowCount));
    EXPECT_EQ(6u, offsetof(DisabledWindowList, nextSlot));
}

// A skipped window leaves the record as it found it, in the counting and in the filling pass.
TEST_F(DisableWndsTest, ChildAndDisabledWindowsLeaveCountAndSlotAlone) {
    HWND parent = Make(WS_OVERLAPPED);
    const std::pair<const char *, HWND> skipped[] = {{"child window", Make(WS_CHILD, parent)},
                                                     {"disabled window", Make(WS_OVERLAPPED | WS_DISABLED)}};
    const HWND untouched = reinterpret_cast<HWND>(0x5A5A5A5A);
    for (const auto &[what, window] : skipped) {
        SCOPED_TRACE(what);
        DisabledWindowList counting = {nullptr, 7, nullptr};
        EXPECT_EQ(1, disableWnds(window, &counting));
        EXPECT_EQ(7, counting.windowCount);
        EXPECT_EQ(nullptr, counting.nextSlot);
        HWND slots[3] = {untouched, untouched, untouched};
        DisabledWindowList filling = {nullptr, 7, slots + 1};
        EXPECT_EQ(1, disableWnds(window, &filling));
        EXPECT_EQ(7, filling.windowCount);
        EXPECT_EQ(slots + 1, filling.nextSlot);
        EXPECT_EQ((std::vector<HWND>{untouched, untouched, untouched}), std::vector<HWND>(slots, slots + 3));
    }
    EXPECT_TRUE(IsWindowEnabled(skipped[0].second)) << "the child window is not disabled";
}

TEST_F(DisableWndsTest, CountingPassCountsEnabledTopLevelWindows) {
    HWND window = Make(WS_OVERLAPPED);
    DisabledWindowList counting = {};
    EXPECT_EQ(1, disableWnds(window, &counting));
    EXPECT_EQ(1, counting.windowCount);
    EXPECT_EQ(nullptr, counting.nextSlot);
    EXPECT_TRUE(IsWindowEnabled(window)) << "the counting pass disables nothing";
}

TEST_F(DisableWndsTest, FillingPassRecordsAdvancesAndDisables) {
    HWND window = Make(WS_OVERLAPPED);
    HWND slots[2] = {};
    DisabledWindowList filling = {nullptr, 7, slots};
    EXPECT_EQ(1, disableWnds(window, &filling));
    EXPECT_EQ(window, slots[0]);
    EXPECT_EQ(slots + 1, filling.nextSlot);
    EXPECT_EQ(7, filling.windowCount) << "the filling pass does not count";
    EXPECT_FALSE(IsWindowEnabled(window));
}

TEST_F(DisableWndsTest, TwoPassesOverTheThreadsWindows) {
    HWND first = Make(WS_OVERLAPPED);
    HWND second = Make(WS_OVERLAPPED);
    Make(WS_OVERLAPPED | WS_DISABLED);
    Make(WS_CHILD, first);
    DisabledWindowList counting = {};
    EnumerateThreadWindows(&counting);
    // The viewer's window belongs to this thread too.
    const int enabled = counting.windowCount;
    ASSERT_EQ(3, enabled);
    std::vector<HWND> slots(enabled);
    DisabledWindowList filling = {nullptr, 0, slots.data()};
    EnumerateThreadWindows(&filling);
    EXPECT_EQ(slots.data() + enabled, filling.nextSlot);
    EXPECT_NE(slots.end(), std::find(slots.begin(), slots.end(), first));
    EXPECT_NE(slots.end(), std::find(slots.begin(), slots.end(), second));
    EXPECT_FALSE(IsWindowEnabled(first));
    EXPECT_FALSE(IsWindowEnabled(second));
}

} // namespace
