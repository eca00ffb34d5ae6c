// Test support for the virtual scanner: install and load it, build and read containers, and the page formula.
#include "VscanSupport.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "TestSupport.h"
#include "VscanTest.h"

namespace smtest {

namespace {

// The digits of the README's table: 5 x 7, one byte per row, bit 4 the leftmost column.
const unsigned char kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

bool IsInk(int w, int h, int page, int x, int y) {
    const std::string text = std::to_string(page);
    const int n = static_cast<int>(text.size());
    const int cell = std::max(1, std::min(w / (6 * n + 1), h / 9) / 2);
    const int bw = (6 * n - 1) * cell, bh = 7 * cell;
    if (bw > w || bh > h)
        return false;
    const int left = (w - bw) / 2, top = (h - bh) / 2;
    if (x < left || x >= left + bw || y < top || y >= top + bh)
        return false;
    const int cx = (x - left) / cell, cy = (y - top) / cell;
    if (cx % 6 == 5)
        return false;
    return (kDigits[text[cx / 6] - '0'][cy] >> (4 - cx % 6)) & 1;
}

// Items the tests read and write as numbers: 1, 2 or 4 bytes (frames and strings count as words).
unsigned ItemBytes(TW_UINT16 type) {
    const TW_UINT32 size = TW_ItemTypeSize(type);
    return size == 1 || size == 2 ? size : 4;
}

double ReadItem(const unsigned char *at, TW_UINT16 type) {
    switch (type) {
    case TWTY_INT8:
        return *reinterpret_cast<const signed char *>(at);
    case TWTY_UINT8:
        return *at;
    case TWTY_INT16:
        return *reinterpret_cast<const short *>(at);
    case TWTY_UINT16:
    case TWTY_BOOL:
        return *reinterpret_cast<const unsigned short *>(at);
    case TWTY_INT32:
        return *reinterpret_cast<const int *>(at);
    case TWTY_FIX32:
        return Fix32ToDouble(*reinterpret_cast<const TW_FIX32 *>(at));
    default:
        return *reinterpret_cast<const unsigned *>(at);
    }
}

void WriteItem(unsigned char *at, TW_UINT16 type, double value) {
    switch (ItemBytes(type)) {
    case 1:
        *at = static_cast<unsigned char>(static_cast<int>(value));
        break;
    case 2:
        *reinterpret_cast<unsigned short *>(at) = static_cast<unsigned short>(static_cast<int>(value));
        break;
    default:
        if (type == TWTY_FIX32)
            *reinterpret_cast<TW_FIX32 *>(at) = DoubleToFix32(value);
        else
            *reinterpret_cast<unsigned *>(at) = static_cast<unsigned>(static_cast<long long>(value));
    }
}

template <typename T> T Resolve(HMODULE module, const char *name) {
    return reinterpret_cast<T>(reinterpret_cast<void *>(GetProcAddress(module, name)));
}

unsigned Get16(const unsigned char *p) {
    return p[0] | (p[1] << 8);
}

} // namespace

std::string VscanBuildPath() {
    return BinDir() + "\\vscan.ds";
}

std::string TwainSourceDir() {
    return WindowsDir() + "\\twain_32";
}

std::string MakeWindowsPath(const std::string &relativePath) {
    const std::string path = WindowsDir() + "\\" + relativePath;
    for (size_t at = path.find('\\', WindowsDir().size() + 1); at != std::string::npos; at = path.find('\\', at + 1))
        CreateDirectoryA(path.substr(0, at).c_str(), nullptr);
    return path;
}

std::string InstallSource(const std::string &relativePath, const char *binary) {
    const std::string target = MakeWindowsPath(relativePath);
    return CopyFileA((BinDir() + "\\" + binary).c_str(), target.c_str(), FALSE) ? target : std::string();
}

std::string InstallVscan(const std::string &name) {
    return InstallSource("twain_32\\" + name);
}

void UninstallVscan(const std::string &name) {
    DeleteFileA((TwainSourceDir() + "\\" + name).c_str());
}

void ReleaseSourceKeptByWine(const std::string &name) {
    // One reference per MSG_OPENDS, and no test opens the source more than a few times.
    constexpr int kMostOpensPerTest = 8;
    const std::string path = TwainSourceDir() + "\\" + name;
    for (int opened = 0; opened < kMostOpensPerTest && IsLoaded(path); ++opened)
        FreeLibrary(GetModuleHandleA(path.c_str()));
}

Rgb16 ExpectedPixel(int w, int h, int page, int x, int y) {
    const int border = std::max(1, std::min(w, h) / 50);
    if (x < border || y < border || x >= w - border || y >= h - border || IsInk(w, h, page, x, y))
        return Rgb16{0, 0, 0};
    const auto scale = [](long long v, long long span) {
        return static_cast<unsigned>(v * 65535 / std::max(span, 1LL));
    };
    return Rgb16{scale(x, w - 1), scale(y, h - 1), scale(x + y, w + h - 2)};
}

std::vector<unsigned> ExpectedSamples(const Format &f, int w, int h, int page, int x, int y) {
    const int pageRow = f.repeatRows > 0 && f.repeatRows < h ? (h - f.repeatRows) / 2 + y % f.repeatRows : y;
    const Rgb16 c = ExpectedPixel(w, h, page, x, pageRow);
    const unsigned gray16 = (c.r + c.g + c.b) / 3;
    const unsigned gray8 = gray16 >> 8;
    switch (f.pixelType) {
    case TWPT_BW:
        return {static_cast<unsigned>((static_cast<int>(gray8) >= f.threshold) != f.vanilla)};
    case TWPT_PALETTE:
        return {f.bitDepth == 4 ? gray8 >> 4 : gray8};
    case TWPT_GRAY: {
        const unsigned gray = f.vanilla ? 65535 - gray16 : gray16;
        return {f.bitDepth == 16 ? gray : gray >> 8};
    }
    default:
        if (f.bitDepth == 48)
            return {c.r, c.g, c.b};
        return {c.r >> 8, c.g >> 8, c.b >> 8};
    }
}

void ExpectedPaletteEntry(int depth, int index, unsigned &r, unsigned &g, unsigned &b) {
    const int n = 1 << depth;
    const unsigned level = index * 255 / (n - 1);
    r = level;
    g = 255 - level;
    b = level / 2;
}

std::vector<unsigned> ReadSamples(const Format &f, const unsigned char *row, int x, int plane) {
    switch (f.bitDepth) {
    case 1:
        return {static_cast<unsigned>((row[x / 8] >> (7 - x % 8)) & 1)};
    case 4:
        return {static_cast<unsigned>((row[x / 2] >> (x % 2 ? 0 : 4)) & 0xf)};
    case 8:
        return {row[x]};
    case 16:
        return {Get16(row + 2 * x)};
    default:
        break;
    }
    const bool wide = f.bitDepth == 48;
    if (plane >= 0)
        return {wide ? Get16(row + 2 * x) : row[x]};
    std::vector<unsigned> rgb;
    for (int i = 0; i < 3; ++i)
        rgb.push_back(wide ? Get16(row + 6 * x + 2 * i) : row[3 * x + i]);
    return rgb;
}

Format MakeFormat(int pixelType, int bitDepth, bool planar) {
    Format f;
    f.pixelType = pixelType;
    f.bitDepth = bitDepth;
    f.planar = planar;
    return f;
}

unsigned MemoryRowBytes(const Format &f, int width) {
    const int bits = f.planar ? f.bitDepth / 3 : f.bitDepth;
    return (static_cast<unsigned>(width) * bits + 7) / 8;
}

::testing::AssertionResult PixelsMatch(const Format &f, int width, int height, int page, int top, int rows, int plane,
                                       const std::function<std::vector<unsigned>(int x, int y)> &read) {
    for (int y = top; y < top + rows; ++y)
        for (int x = 0; x < width; ++x) {
            std::vector<unsigned> want = ExpectedSamples(f, width, height, page, x, y);
            if (plane >= 0)
                want = {want[plane]};
            const std::vector<unsigned> got = read(x, y);
            if (got != want) {
                ::testing::AssertionResult failure = ::testing::AssertionFailure();
                failure << "pixel (" << x << ", " << y << ") of page " << page;
                if (plane >= 0)
                    failure << " in plane " << plane;
                return failure << ": got " << ::testing::PrintToString(got) << ", expected "
                               << ::testing::PrintToString(want);
            }
        }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult StripRowsMatch(const Format &f, const unsigned char *strip, unsigned stride, int width,
                                          int height, int page, int y, unsigned rows, int plane) {
    return PixelsMatch(f, width, height, page, y, static_cast<int>(rows), plane, [&](int x, int row) {
        return ReadSamples(f, strip + static_cast<size_t>(row - y) * stride, x, plane);
    });
}

Container TakeContainer(TW_CAPABILITY &cap) {
    Container out;
    out.conType = cap.ConType;
    const auto *base = static_cast<const unsigned char *>(GlobalLock(cap.hContainer));
    if (!base)
        return out;
    out.itemType = *reinterpret_cast<const TW_UINT16 *>(base);
    switch (cap.ConType) {
    case TWON_ONEVALUE:
        out.items.push_back(ReadItem(base + offsetof(TW_ONEVALUE, Item), out.itemType));
        out.numItems = 1;
        break;
    case TWON_RANGE: {
        const auto *range = reinterpret_cast<const TW_RANGE *>(base);
        for (const TW_UINT32 *slot :
             {&range->MinValue, &range->MaxValue, &range->StepSize, &range->DefaultValue, &range->CurrentValue})
            out.items.push_back(ReadItem(reinterpret_cast<const unsigned char *>(slot), out.itemType));
        break;
    }
    case TWON_ENUMERATION: {
        const auto *en = reinterpret_cast<const TW_ENUMERATION *>(base);
        out.numItems = en->NumItems;
        out.currentIndex = en->CurrentIndex;
        out.defaultIndex = en->DefaultIndex;
        for (TW_UINT32 i = 0; i < en->NumItems; ++i)
            out.items.push_back(ReadItem(en->ItemList + i * ItemBytes(out.itemType), out.itemType));
        break;
    }
    case TWON_ARRAY: {
        const auto *array = reinterpret_cast<const TW_ARRAY *>(base);
        out.numItems = array->NumItems;
        for (TW_UINT32 i = 0; i < array->NumItems; ++i)
            out.items.push_back(ReadItem(array->ItemList + i * ItemBytes(out.itemType), out.itemType));
        break;
    }
    default:
        break;
    }
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
    cap.hContainer = nullptr;
    return out;
}

HGLOBAL MakeOneValue(TW_UINT16 itemType, double value) {
    HGLOBAL handle = GlobalAlloc(GHND, sizeof(TW_ONEVALUE));
    auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(handle));
    one->ItemType = itemType;
    WriteItem(reinterpret_cast<unsigned char *>(&one->Item), itemType, value);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL MakeEnumeration(TW_UINT16 itemType, const std::vector<double> &items, TW_UINT32 current, TW_UINT32 def) {
    HGLOBAL handle = GlobalAlloc(GHND, sizeof(TW_ENUMERATION) + items.size() * 4);
    auto *en = static_cast<TW_ENUMERATION *>(GlobalLock(handle));
    en->ItemType = itemType;
    en->NumItems = static_cast<TW_UINT32>(items.size());
    en->CurrentIndex = current;
    en->DefaultIndex = def;
    for (size_t i = 0; i < items.size(); ++i)
        WriteItem(en->ItemList + i * ItemBytes(itemType), itemType, items[i]);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL MakeArray(TW_UINT16 itemType, const std::vector<double> &items) {
    HGLOBAL handle = GlobalAlloc(GHND, sizeof(TW_ARRAY) + items.size() * 4);
    auto *array = static_cast<TW_ARRAY *>(GlobalLock(handle));
    array->ItemType = itemType;
    array->NumItems = static_cast<TW_UINT32>(items.size());
    for (size_t i = 0; i < items.size(); ++i)
        WriteItem(array->ItemList + i * ItemBytes(itemType), itemType, items[i]);
    GlobalUnlock(handle);
    return handle;
}

HGLOBAL MakeRange(TW_UINT16 itemType, double min, double max, double step, double def, double cur) {
    HGLOBAL handle = GlobalAlloc(GHND, sizeof(TW_RANGE));
    auto *range = static_cast<TW_RANGE *>(GlobalLock(handle));
    range->ItemType = itemType;
    WriteItem(reinterpret_cast<unsigned char *>(&range->MinValue), itemType, min);
    WriteItem(reinterpret_cast<unsigned char *>(&range->MaxValue), itemType, max);
    WriteItem(reinterpret_cast<unsigned char *>(&range->StepSize), itemType, step);
    WriteItem(reinterpret_cast<unsigned char *>(&range->DefaultValue), itemType, def);
    WriteItem(reinterpret_cast<unsigned char *>(&range->CurrentValue), itemType, cur);
    GlobalUnlock(handle);
    return handle;
}

double Fix32ToDouble(TW_FIX32 value) {
    return value.Whole + value.Frac / 65536.0;
}

TW_FIX32 DoubleToFix32(double value) {
    const long scaled = std::lround(value * 65536.0);
    TW_FIX32 fix;
    fix.Whole = static_cast<TW_INT16>(scaled >> 16);
    fix.Frac = static_cast<TW_UINT16>(scaled & 0xffff);
    return fix;
}

const char *ConName(unsigned conType) {
    switch (conType) {
    case TWON_ARRAY:
        return "TWON_ARRAY";
    case TWON_ENUMERATION:
        return "TWON_ENUMERATION";
    case TWON_ONEVALUE:
        return "TWON_ONEVALUE";
    case TWON_RANGE:
        return "TWON_RANGE";
    default:
        return "TWON_(unknown)";
    }
}

bool VscanLibrary::Load(const std::string &path) {
    Free();
    module_ = LoadLibraryA((path.empty() ? VscanBuildPath() : path).c_str());
    if (!module_)
        return false;
    entry = Resolve<DSENTRYPROC>(module_, "DS_Entry");
    reset = Resolve<VscanResetProc>(module_, "VscanReset");
    loadSettings = Resolve<VscanLoadSettingsProc>(module_, "VscanLoadSettings");
    setPages = Resolve<VscanSetPagesProc>(module_, "VscanSetPages");
    setAutoScan = Resolve<VscanSetAutoScanProc>(module_, "VscanSetAutoScan");
    setIdentity = Resolve<VscanSetIdentityProc>(module_, "VscanSetIdentity");
    failTriplet = Resolve<VscanFailTripletProc>(module_, "VscanFailTriplet");
    setContainer = Resolve<VscanSetContainerProc>(module_, "VscanSetContainer");
    setItemType = Resolve<VscanSetItemTypeProc>(module_, "VscanSetItemType");
    setFault = Resolve<VscanSetFaultProc>(module_, "VscanSetFault");
    getInfo = Resolve<VscanGetInfoProc>(module_, "VscanGetInfo");
    setMalformed = Resolve<VscanSetMalformedProc>(module_, "VscanSetMalformed");
    setSetType = Resolve<VscanSetSetTypeProc>(module_, "VscanSetSetType");
    setValues = Resolve<VscanSetValuesProc>(module_, "VscanSetValues");
    app = TW_IDENTITY{};
    app.Id = 77;
    app.ProtocolMajor = TWON_PROTOCOLMAJOR;
    app.ProtocolMinor = TWON_PROTOCOLMINOR;
    app.SupportedGroups = DG_CONTROL | DG_IMAGE;
    std::strcpy(app.ProductName, "vscan test");
    return entry && reset && loadSettings && setPages && setAutoScan && setIdentity && failTriplet && setContainer &&
           setItemType && setFault && getInfo && setMalformed && setSetType && setValues;
}

void VscanLibrary::Free() {
    if (module_)
        FreeLibrary(module_);
    module_ = nullptr;
    entry = nullptr;
}

TW_UINT16 VscanLibrary::Call(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, void *data) {
    return entry(&app, dg, dat, msg, data);
}

TW_UINT16 VscanLibrary::Status() {
    TW_STATUS status{};
    status.ConditionCode = 0xffff;
    Call(DG_CONTROL, DAT_STATUS, MSG_GET, &status);
    return status.ConditionCode;
}

TW_UINT16 VscanLibrary::Open() {
    ds = TW_IDENTITY{};
    ds.Id = 5;
    return Call(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &ds);
}

TW_UINT16 VscanLibrary::Enable(bool showUi, HWND parent, TW_UINT16 msg) {
    TW_USERINTERFACE ui{};
    ui.ShowUI = showUi;
    ui.ModalUI = 0;
    ui.hParent = parent;
    return Call(DG_CONTROL, DAT_USERINTERFACE, msg, &ui);
}

TW_UINT16 VscanLibrary::GetCap(TW_UINT16 cap, TW_UINT16 msg, Container &out) {
    TW_CAPABILITY c{cap, TWON_DONTCARE16, nullptr};
    const TW_UINT16 rc = Call(DG_CONTROL, DAT_CAPABILITY, msg, &c);
    out = Container{};
    if (c.hContainer)
        out = TakeContainer(c);
    return rc;
}

TW_UINT16 VscanLibrary::SetCap(TW_UINT16 cap, TW_UINT16 itemType, double value) {
    return SetCapContainer(cap, TWON_ONEVALUE, MakeOneValue(itemType, value));
}

TW_UINT16 VscanLibrary::SetCapContainer(TW_UINT16 cap, TW_UINT16 conType, HGLOBAL container) {
    TW_CAPABILITY c{cap, conType, container};
    const TW_UINT16 rc = Call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &c);
    GlobalFree(container);
    return rc;
}

TW_UINT16 VscanLibrary::SetFrame(double left, double top, double right, double bottom) {
    TW_IMAGELAYOUT layout{};
    layout.Frame.Left = DoubleToFix32(left);
    layout.Frame.Top = DoubleToFix32(top);
    layout.Frame.Right = DoubleToFix32(right);
    layout.Frame.Bottom = DoubleToFix32(bottom);
    return Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout);
}

TW_SETUPMEMXFER VscanLibrary::SetupMem() {
    TW_SETUPMEMXFER setup{1, 1, 1};
    EXPECT_TRUE(TwrcIs(*this, TWRC_SUCCESS, Call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &setup),
                       "DG_CONTROL/DAT_SETUPMEMXFER/MSG_GET"));
    return setup;
}

TW_UINT16 VscanLibrary::Strip(std::vector<unsigned char> &buffer, TW_IMAGEMEMXFER &mx) {
    mx = TW_IMAGEMEMXFER{};
    mx.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
    mx.Memory.Length = static_cast<TW_UINT32>(buffer.size());
    mx.Memory.TheMem = buffer.data();
    return Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx);
}

TW_UINT16 WaitForSourceMessage(const std::function<TW_UINT16(TW_EVENT &)> &processEvent, DWORD ms) {
    const DWORD start = GetTickCount();
    while (GetTickCount() - start < ms) {
        MSG msg;
        if (!PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
            continue;
        }
        TW_EVENT event{&msg, MSG_NULL};
        const TW_UINT16 rc = processEvent(event);
        if (rc == TWRC_DSEVENT && event.TWMessage != MSG_NULL)
            return event.TWMessage;
        if (rc == TWRC_NOTDSEVENT) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
    }
    return MSG_NULL;
}

TW_UINT16 VscanLibrary::WaitEvent(DWORD ms) {
    return WaitForSourceMessage(
        [this](TW_EVENT &event) { return Call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event); }, ms);
}

VscanInfo VscanLibrary::Info() const {
    VscanInfo info{};
    getInfo(&info);
    return info;
}

const unsigned char *Dib::Row(int y) const {
    const int rows = std::abs(header.biHeight);
    const int stored = header.biHeight > 0 ? rows - 1 - y : y;
    return bits.data() + static_cast<size_t>(stored) * stride;
}

bool ParseDib(const unsigned char *data, size_t size, Dib &out) {
    if (size < sizeof(BITMAPINFOHEADER))
        return false;
    std::memcpy(&out.header, data, sizeof out.header);
    const BITMAPINFOHEADER &h = out.header;
    out.stride = (static_cast<unsigned>(h.biWidth) * h.biBitCount + 31) / 32 * 4;
    const size_t colours = h.biClrUsed ? h.biClrUsed : (h.biBitCount <= 8 ? (1u << h.biBitCount) : 0);
    const size_t offset = h.biSize + colours * sizeof(RGBQUAD);
    const size_t bits = static_cast<size_t>(out.stride) * std::abs(h.biHeight);
    if (h.biSize != sizeof(BITMAPINFOHEADER) || offset + bits > size)
        return false;
    out.colours.resize(colours);
    std::memcpy(out.colours.data(), data + h.biSize, colours * sizeof(RGBQUAD));
    out.bits.assign(data + offset, data + offset + bits);
    return true;
}

::testing::AssertionResult ReadPackedDib(HGLOBAL handle, Dib &out) {
    if (!handle)
        return ::testing::AssertionFailure() << "no handle";
    const auto *bytes = static_cast<const unsigned char *>(GlobalLock(handle));
    if (!bytes)
        return ::testing::AssertionFailure()
               << "GlobalLock found no memory behind the handle (error " << GetLastError() << ")";
    const SIZE_T size = GlobalSize(handle);
    const bool parsed = ParseDib(bytes, size, out);
    GlobalUnlock(handle);
    if (!parsed)
        return ::testing::AssertionFailure()
               << "the handle's " << size << " bytes are not a packed DIB with a BITMAPINFOHEADER";
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult TakePackedDib(TW_UINT32 handle, Dib &out) {
    HGLOBAL memory = reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(handle));
    const ::testing::AssertionResult read = ReadPackedDib(memory, out);
    if (memory)
        GlobalFree(memory);
    return read;
}

void ReadBmpFile(const std::string &path, Dib &out) {
    std::ifstream file(path, std::ios::binary);
    ASSERT_TRUE(file.good()) << "no file " << path;
    const std::vector<unsigned char> bmp((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_GT(bmp.size(), sizeof(BITMAPFILEHEADER)) << path;
    BITMAPFILEHEADER header;
    std::memcpy(&header, bmp.data(), sizeof header);
    EXPECT_EQ(0x4d42, header.bfType) << "\"BM\"";
    EXPECT_EQ(bmp.size(), header.bfSize) << "the size of the file";
    ASSERT_TRUE(ParseDib(bmp.data() + sizeof header, bmp.size() - sizeof header, out)) << "not a BMP file: " << path;
    EXPECT_EQ(sizeof header + sizeof(BITMAPINFOHEADER) + out.colours.size() * sizeof(RGBQUAD), header.bfOffBits)
        << "the bits right behind the colour table";
}

::testing::AssertionResult DibMatches(const Format &f, const Dib &dib, int width, int height, int page) {
    return PixelsMatch(f, width, height, page, 0, height, -1, [&](int x, int y) {
        std::vector<unsigned> samples = ReadSamples(f, dib.Row(y), x);
        if (f.pixelType == TWPT_RGB)
            std::swap(samples[0], samples[2]); // bitmaps keep blue first
        return samples;
    });
}

void ExpectColourTable(const Format &f, const Dib &dib) {
    if (f.pixelType == TWPT_RGB || f.bitDepth == 16) {
        EXPECT_EQ(0u, dib.colours.size()) << "no colour table for 16-bit gray and RGB";
        return;
    }
    ASSERT_EQ(static_cast<size_t>(1) << f.bitDepth, dib.colours.size());
    for (size_t i = 0; i < dib.colours.size(); ++i) {
        unsigned r = static_cast<unsigned>(i), g = r, b = r;
        if (f.pixelType == TWPT_BW)
            r = g = b = (i == 1) != f.vanilla ? 255 : 0;
        else if (f.pixelType == TWPT_PALETTE)
            ExpectedPaletteEntry(f.bitDepth, static_cast<int>(i), r, g, b);
        else if (f.vanilla)
            r = g = b = 255 - r; // the ramp starts at white
        EXPECT_EQ(r, dib.colours[i].rgbRed) << "entry " << i;
        EXPECT_EQ(g, dib.colours[i].rgbGreen) << "entry " << i;
        EXPECT_EQ(b, dib.colours[i].rgbBlue) << "entry " << i;
    }
}

void ExpectDib(const Format &f, const Dib &dib, int width, int height, int page) {
    EXPECT_EQ(width, dib.header.biWidth);
    EXPECT_EQ(height, dib.header.biHeight) << "positive: bottom-up";
    EXPECT_EQ(1, dib.header.biPlanes);
    EXPECT_EQ(f.bitDepth, dib.header.biBitCount);
    EXPECT_EQ(static_cast<DWORD>(BI_RGB), dib.header.biCompression);
    ExpectColourTable(f, dib);
    EXPECT_TRUE(DibMatches(f, dib, width, height, page));
}

TW_UINT16 SetOneValueThroughModule(const ScanLibrary &library, TW_UINT16 cap, TW_UINT16 itemType, double value) {
    TW_CAPABILITY capability = {cap, TWON_ONEVALUE, MakeOneValue(itemType, value)};
    const auto negotiate = library.Get<TW_UINT16(WINAPI *)(UINT, TW_CAPABILITY *)>("smCapNegotiate");
    const TW_UINT16 rc = negotiate(MSG_SET, &capability);
    GlobalFree(capability.hContainer);
    return rc;
}

void SetUpSmallPage(const ScanLibrary &library, VscanLibrary &scanner, LONG mechanism, const Format &format,
                    int pages) {
    auto set = [&library](const char *name, LONG value) { return library.Get<LONG(WINAPI *)(LONG)>(name)(value); };
    ASSERT_EQ(0, set("smSetXferMech", mechanism));
    ASSERT_EQ(0, set("smSetPixelType", 1L << format.pixelType));
    ASSERT_EQ(0, set("smSetBitDepth", format.bitDepth));
    if (format.planar) {
        EXPECT_EQ(TWRC_SUCCESS, SetOneValueThroughModule(library, ICAP_PLANARCHUNKY, TWTY_UINT16, TWPC_PLANAR));
    }
    ASSERT_EQ(0, set("smSetXResolution", 50));
    ASSERT_EQ(0, set("smSetYResolution", 50));
    ASSERT_EQ(0, library.Get<LONG(WINAPI *)(double)>("smSetXScale")(0.25));
    ASSERT_EQ(0, library.Get<LONG(WINAPI *)(double)>("smSetYScale")(0.25));
    if (pages > 1) {
        scanner.setPages(pages);
        ASSERT_EQ(0, set("smSetADFEnable", 1));
    }
}

void StartUnderWineManager(TraceViewer &viewer, ScanLibrary &library, std::string &source) {
    // The scanner starts from its defaults: settings and a kept feeder of a suite that was stopped go first.
    DeleteFileA((TwainSourceDir() + "\\vscan.ini").c_str());
    DeleteFileA((TwainSourceDir() + "\\" VSCAN_FEEDER_FILE).c_str());
    source = InstallVscan("sane.ds");
    ASSERT_FALSE(source.empty()) << "copying vscan.ds to " << TwainSourceDir();
    WriteDebugIni(1, 1);
    viewer.Start();
    library.Load();
    ASSERT_EQ(nullptr, GetProcAddress(GetModuleHandleA(TwainPath().c_str()), "TdsmReset"))
        << "Wine's source manager, not the stand-in, must be loaded";
}

} // namespace smtest
