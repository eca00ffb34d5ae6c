// The virtual scanner behind Wine's own source manager (second prefix, installed as C:\windows\twain_32\sane.ds).
#include <cstring>

#include "VscanTest.h"

namespace smtest {
namespace {

constexpr int kWidth = 100;
constexpr int kHeight = 50;

// Wine's TWAIN_32.DLL, its DSM_Entry, an application identity and the virtual scanner opened through it.
class VscanWineDsmTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(InstallVscan("sane.ds").empty()) << "copying vscan.ds to " << TwainSourceDir();
        dsm_ = LoadLibraryA((WindowsDir() + "\\twain_32.dll").c_str());
        ASSERT_NE(nullptr, dsm_) << "Wine's twain_32.dll";
        entry_ = reinterpret_cast<DSMENTRYPROC>(reinterpret_cast<void *>(GetProcAddress(dsm_, "DSM_Entry")));
        ASSERT_NE(nullptr, entry_);
        ASSERT_EQ(nullptr, GetProcAddress(dsm_, "TdsmReset")) << "the stand-in, not Wine's source manager, is loaded";
        window_ = CreateWindowExA(0, "STATIC", "vscan winedsm test", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr,
                                  nullptr, GetModuleHandleA(nullptr), nullptr);
        app_.Version.MajorNum = 1;
        app_.ProtocolMajor = TWON_PROTOCOLMAJOR;
        app_.ProtocolMinor = TWON_PROTOCOLMINOR;
        app_.SupportedGroups = DG_CONTROL | DG_IMAGE;
        std::strcpy(app_.Manufacturer, "smkernal project");
        std::strcpy(app_.ProductFamily, "tests");
        std::strcpy(app_.ProductName, "vscan winedsm test");
    }
    void TearDown() override {
        if (sourceOpen_)
            Ds(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source_);
        if (dsmOpen_)
            Dsm(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, OpenDsmData());
        if (window_)
            DestroyWindow(window_);
        if (dsm_)
            FreeLibrary(dsm_);
        ReleaseSourceKeptByWine();
    }

    TW_UINT16 Dsm(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
        return entry_(&app_, nullptr, dg, dat, msg, data);
    }
    TW_UINT16 Ds(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
        return entry_(&app_, &source_, dg, dat, msg, data);
    }
    // Wine takes MSG_OPENDSM's data as the window handle itself, where other managers take its address.
    TW_MEMREF OpenDsmData() { return static_cast<TW_MEMREF>(window_); }

    // Opens the manager (MSG_OPENDSM's data as Wine takes it, or another) and the virtual scanner found in its list.
    void OpenScanner(TW_MEMREF openDsmData = nullptr) {
        ASSERT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, openDsmData ? openDsmData : OpenDsmData()));
        dsmOpen_ = true;
        bool found = false;
        TW_IDENTITY id{};
        for (TW_UINT16 rc = Dsm(DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, &id); rc == TWRC_SUCCESS;
             rc = Dsm(DG_CONTROL, DAT_IDENTITY, MSG_GETNEXT, &id)) {
            if (std::strcmp(id.ProductName, "Virtual Scanner") == 0) {
                found = true;
                source_ = id;
            }
        }
        ASSERT_TRUE(found) << "the virtual scanner is not in Wine's list of sources";
        EXPECT_STREQ("smkernal project", source_.Manufacturer);
        ASSERT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &source_));
        sourceOpen_ = true;
        EXPECT_STREQ("Virtual Scanner", source_.ProductName);
    }

    TW_UINT16 SetOne(TW_UINT16 cap, TW_UINT16 type, double value) {
        TW_CAPABILITY c{cap, TWON_ONEVALUE, MakeOneValue(type, value)};
        const TW_UINT16 rc = Ds(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &c);
        GlobalFree(c.hContainer);
        return rc;
    }
    Container Get(TW_UINT16 cap, TW_UINT16 msg) {
        TW_CAPABILITY c{cap, TWON_DONTCARE16, nullptr};
        EXPECT_EQ(TWRC_SUCCESS, Ds(DG_CONTROL, DAT_CAPABILITY, msg, &c));
        return c.hContainer ? TakeContainer(c) : Container{};
    }

    // Enables without the interface and runs the loop through Wine's MSG_PROCESSEVENT until an event comes.
    TW_UINT16 EnableAndWait(HWND parent) {
        TW_USERINTERFACE ui{0, 0, parent};
        EXPECT_EQ(TWRC_SUCCESS, Ds(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, &ui));
        return WaitForSourceMessage(
            [this](TW_EVENT &event) { return Ds(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event); }, 3000);
    }
    void EndAndDisable() {
        TW_PENDINGXFERS pending{};
        EXPECT_EQ(TWRC_SUCCESS, Ds(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending));
        EXPECT_EQ(0, pending.Count);
        TW_USERINTERFACE ui{0, 0, window_};
        EXPECT_EQ(TWRC_SUCCESS, Ds(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui));
    }
    void SmallGrayFrame() {
        TW_IMAGELAYOUT layout{};
        layout.Frame.Right = DoubleToFix32(1);
        layout.Frame.Bottom = DoubleToFix32(0.5);
        ASSERT_EQ(TWRC_SUCCESS, Ds(DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, &layout));
        ASSERT_EQ(TWRC_SUCCESS, SetOne(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    }

    HMODULE dsm_ = nullptr;
    DSMENTRYPROC entry_ = nullptr;
    HWND window_ = nullptr;
    TW_IDENTITY app_{};
    TW_IDENTITY source_{};
    bool dsmOpen_ = false;
    bool sourceOpen_ = false;
};

TEST_F(VscanWineDsmTest, ListedOpenedAndNegotiated) {
    OpenScanner();
    ASSERT_EQ(TWRC_SUCCESS, SetOne(ICAP_XRESOLUTION, TWTY_FIX32, 200));
    Container c = Get(ICAP_XRESOLUTION, MSG_GETCURRENT);
    EXPECT_EQ(200, c.Value());
    c = Get(ICAP_PIXELTYPE, MSG_GET);
    EXPECT_STREQ("TWON_ENUMERATION", ConName(c.conType));
    EXPECT_EQ((std::vector<double>{TWPT_BW, TWPT_GRAY, TWPT_RGB, TWPT_PALETTE}), c.items);
    c = Get(ICAP_PHYSICALHEIGHT, MSG_GET);
    EXPECT_EQ(14, c.Value());
}

// Applications pass the handle's address, as the standard says, where Wine's manager takes the handle itself; it
// opens either way, and the whole session works: listing, opening, negotiating, closing with the address again.
TEST_F(VscanWineDsmTest, OpenDsmWithTheHandlesAddress) {
    HWND parent = window_;
    OpenScanner(&parent);
    EXPECT_EQ(window_, parent) << "the handle is left as it was";
    ASSERT_EQ(TWRC_SUCCESS, SetOne(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_EQ(TWPT_GRAY, Get(ICAP_PIXELTYPE, MSG_GETCURRENT).Value());
    ASSERT_EQ(TWRC_SUCCESS, Ds(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source_));
    sourceOpen_ = false;
    EXPECT_EQ(TWRC_SUCCESS, Dsm(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &parent));
    dsmOpen_ = false;
}

TEST_F(VscanWineDsmTest, NativeTransferThroughWine) {
    OpenScanner();
    SmallGrayFrame();
    ASSERT_EQ(MSG_XFERREADY, EnableAndWait(window_)) << "the notice posted to the application's window";
    TW_UINT32 handle = 0;
    ASSERT_EQ(TWRC_XFERDONE, Ds(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    HGLOBAL memory = reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(handle));
    const auto *bytes = static_cast<const unsigned char *>(GlobalLock(memory));
    ASSERT_NE(nullptr, bytes);
    Dib dib;
    ASSERT_TRUE(ParseDib(bytes, GlobalSize(memory), dib));
    GlobalUnlock(memory);
    GlobalFree(memory);
    ASSERT_EQ(kWidth, dib.header.biWidth);
    ASSERT_EQ(kHeight, dib.header.biHeight);
    const Format gray{TWPT_GRAY, 8};
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(ExpectedSamples(gray, kWidth, kHeight, 1, x, y), ReadSamples(gray, dib.Row(y), x))
                << "pixel (" << x << ", " << y << ")";
    EndAndDisable();
}

TEST_F(VscanWineDsmTest, MemoryTransferThroughWine) {
    OpenScanner();
    SmallGrayFrame();
    ASSERT_EQ(TWRC_SUCCESS, SetOne(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
    ASSERT_EQ(MSG_XFERREADY, EnableAndWait(nullptr)) << "the notice posted as a thread message";
    TW_IMAGEINFO info{};
    ASSERT_EQ(TWRC_SUCCESS, Ds(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info));
    EXPECT_EQ(kWidth, info.ImageWidth);
    EXPECT_EQ(kHeight, info.ImageLength);
    std::vector<unsigned char> image(kWidth * kHeight), buffer(kWidth * 16);
    TW_UINT16 rc;
    do {
        TW_IMAGEMEMXFER mx{};
        mx.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
        mx.Memory.Length = static_cast<TW_UINT32>(buffer.size());
        mx.Memory.TheMem = buffer.data();
        rc = Ds(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx);
        ASSERT_TRUE(rc == TWRC_SUCCESS || rc == TWRC_XFERDONE) << TwrcName(rc);
        ASSERT_LE(mx.YOffset + mx.Rows, static_cast<TW_UINT32>(kHeight));
        std::memcpy(image.data() + mx.YOffset * kWidth, buffer.data(), mx.Rows * kWidth);
    } while (rc == TWRC_SUCCESS);
    const Format gray{TWPT_GRAY, 8};
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(ExpectedSamples(gray, kWidth, kHeight, 1, x, y)[0], image[y * kWidth + x])
                << "pixel (" << x << ", " << y << ")";
    EndAndDisable();
}

} // namespace
} // namespace smtest
