// Virtual scanner: announced events without and with the interface, every fault switch, and the settings file.
#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "VscanTest.h"

namespace smtest {
namespace {

constexpr int kWidth = 100;
constexpr int kHeight = 50;
const char kWindowClass[] = "VscanWindow";

// A window of the test application, for hParent.
class AppWindow {
public:
    AppWindow() {
        window_ = CreateWindowExA(0, "STATIC", "vscan test application", WS_OVERLAPPEDWINDOW, 0, 0, 200, 100, nullptr,
                                  nullptr, GetModuleHandleA(nullptr), nullptr);
    }
    ~AppWindow() { DestroyWindow(window_); }
    HWND Handle() const { return window_; }

private:
    HWND window_;
};

class VscanEventTest : public VscanTest {
protected:
    // The first message waiting for this thread (or for `window`), removed from the queue.
    bool NextMessage(MSG &msg, HWND window = nullptr) {
        const DWORD start = GetTickCount();
        while (GetTickCount() - start < 1000) {
            if (PeekMessageA(&msg, window, 0, 0, PM_REMOVE))
                return true;
            Sleep(10);
        }
        return false;
    }
    TW_UINT16 Process(MSG &msg, TW_UINT16 &twMessage) {
        TW_EVENT event{&msg, 0xffff};
        const TW_UINT16 rc = ds.Call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event);
        twMessage = event.TWMessage;
        return rc;
    }
    TW_UINT16 EnableModal(HWND parent, TW_UINT16 msg = MSG_ENABLEDS) {
        TW_USERINTERFACE ui{1, 1, parent};
        return ds.Call(DG_CONTROL, DAT_USERINTERFACE, msg, &ui);
    }
    HWND Button(const char *text) { return FindWindowExA(ds.Info().window, nullptr, "Button", text); }
    // Clicks a button of the interface, through the message loop as a user's click comes.
    void Press(const char *text) {
        const HWND button = Button(text);
        ASSERT_NE(nullptr, button) << text;
        PostMessageA(ds.Info().window, WM_COMMAND, MAKEWPARAM(GetDlgCtrlID(button), BN_CLICKED),
                     reinterpret_cast<LPARAM>(button));
    }
    // The interface's list of resolutions, as shown.
    std::vector<std::string> ResolutionTexts() {
        const HWND list = FindWindowExA(ds.Info().window, nullptr, "ComboBox", nullptr);
        std::vector<std::string> texts;
        const LRESULT count = SendMessageA(list, CB_GETCOUNT, 0, 0);
        for (LRESULT i = 0; i < count; ++i) {
            char text[32] = {};
            SendMessageA(list, CB_GETLBTEXT, i, reinterpret_cast<LPARAM>(text));
            texts.push_back(text);
        }
        return texts;
    }
    // Transfers the announced image natively and ends it; the count left.
    int TransferOne() {
        TW_UINT32 handle = 0;
        EXPECT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
        GlobalFree(reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(handle)));
        TW_UINT16 count = 99;
        EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
        return count;
    }
};

TEST_F(VscanEventTest, WithoutParentTheNoticeIsAThreadMessage) {
    OpenSmall();
    DrainMessages();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false, nullptr));
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state) << "state 5 until the notice is processed";
    MSG msg;
    ASSERT_TRUE(NextMessage(msg));
    EXPECT_EQ(nullptr, msg.hwnd);
    EXPECT_EQ(ds.Info().notifyMessage, msg.message);
    TW_UINT16 twMessage;
    EXPECT_TWRC(TWRC_DSEVENT, Process(msg, twMessage));
    EXPECT_EQ(MSG_XFERREADY, twMessage);
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);

    MSG foreign{nullptr, WM_USER + 5, 1, 2, 0, {0, 0}};
    EXPECT_TWRC(TWRC_NOTDSEVENT, Process(foreign, twMessage));
    EXPECT_EQ(MSG_NULL, twMessage);
    EXPECT_TWRC(TWRC_DSEVENT, Process(msg, twMessage)) << "a repeated notice is still ours";
    EXPECT_EQ(MSG_NULL, twMessage) << "but announces nothing more";
}

TEST_F(VscanEventTest, WithAParentTheNoticeGoesToItsWindow) {
    AppWindow app;
    ASSERT_NE(nullptr, app.Handle());
    OpenSmall();
    DrainMessages();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false, app.Handle()));
    MSG msg;
    ASSERT_TRUE(NextMessage(msg, app.Handle()));
    EXPECT_EQ(app.Handle(), msg.hwnd);
    EXPECT_EQ(ds.Info().notifyMessage, msg.message);
    TW_UINT16 twMessage;
    EXPECT_TWRC(TWRC_DSEVENT, Process(msg, twMessage));
    EXPECT_EQ(MSG_XFERREADY, twMessage);
    EXPECT_EQ(0, TransferOne());
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(200)) << "nothing more is announced";
}

TEST_F(VscanEventTest, InterfaceWithAutomaticScanAndClose) {
    ds.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    const HWND window = ds.Info().window;
    ASSERT_NE(nullptr, window);
    EXPECT_EQ(window, FindWindowA(kWindowClass, "Virtual Scanner"));
    EXPECT_NE(nullptr, Button("Scan"));
    EXPECT_NE(nullptr, Button("Close"));
    EXPECT_NE(nullptr, FindWindowExA(window, nullptr, "ComboBox", nullptr));
    EXPECT_EQ(MSG_XFERREADY, ds.WaitEvent());
    EXPECT_EQ(0, TransferOne());
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent()) << "Close pressed once the batch is done";
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    EXPECT_FALSE(IsWindow(window));
    EXPECT_EQ(nullptr, ds.Info().window);
}

TEST_F(VscanEventTest, InterfaceChoicesAndButtonsPressedByTheTest) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    const HWND window = ds.Info().window;
    ASSERT_NE(nullptr, window);
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "nothing happens before Scan";
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    const HWND resolution = FindWindowExA(window, nullptr, "ComboBox", nullptr);
    const HWND pixelType = FindWindowExA(window, resolution, "ComboBox", nullptr);
    ASSERT_NE(nullptr, pixelType);
    EXPECT_EQ(2, SendMessageA(resolution, CB_GETCURSEL, 0, 0)) << "100 dpi shown";
    EXPECT_EQ(2, SendMessageA(pixelType, CB_GETCURSEL, 0, 0)) << "colour shown";
    EXPECT_EQ((std::vector<std::string>{"50", "75", "100", "150", "200", "300", "400", "600"}), ResolutionTexts());
    SendMessageA(resolution, CB_SETCURSEL, 4, 0); // 200 dpi
    SendMessageA(pixelType, CB_SETCURSEL, 1, 0);  // gray
    Press("Scan");
    EXPECT_EQ(MSG_XFERREADY, ds.WaitEvent());
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(TWPT_GRAY, info.PixelType);
    EXPECT_EQ(8, info.BitsPerPixel);
    EXPECT_EQ(2 * kWidth, info.ImageWidth);
    EXPECT_EQ(0, TransferOne());
    PostMessageA(window, WM_CLOSE, 0, 0);
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent());
    EXPECT_TRUE(IsWindow(window)) << "the window stays until MSG_DISABLEDS";
}

TEST_F(VscanEventTest, ScanWithThePixelTypeShownKeepsTheBitDepth) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, 48));
    ds.setAutoScan(VSCAN_AUTO_SCAN);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    ASSERT_EQ(MSG_XFERREADY, ds.WaitEvent());
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(TWPT_RGB, info.PixelType);
    EXPECT_EQ(48, info.BitsPerPixel) << "the colour shown is taken again, not as a change";
}

TEST_F(VscanEventTest, InterfaceResolutionsAreTheCapabilitysValues) {
    const double values[] = {72, 144, 288};
    ASSERT_EQ(1, ds.setValues(ICAP_XRESOLUTION, 3, values));
    ASSERT_EQ(1, ds.setValues(ICAP_YRESOLUTION, 3, values));
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS,
                ds.SetCapContainer(ICAP_XRESOLUTION, TWON_ENUMERATION, MakeEnumeration(TWTY_FIX32, {144, 288}, 1)));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    EXPECT_EQ((std::vector<std::string>{"144", "288"}), ResolutionTexts()) << "the constraint of the test's values";
    const HWND resolution = FindWindowExA(ds.Info().window, nullptr, "ComboBox", nullptr);
    EXPECT_EQ(1, SendMessageA(resolution, CB_GETCURSEL, 0, 0)) << "288 dpi shown";
    SendMessageA(resolution, CB_SETCURSEL, 0, 0);
    Press("Scan");
    ASSERT_EQ(MSG_XFERREADY, ds.WaitEvent());
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(144, Fix32ToDouble(info.XResolution));
    EXPECT_EQ(144, Fix32ToDouble(info.YResolution));
    EXPECT_EQ(144, info.ImageWidth);
}

TEST_F(VscanEventTest, UnloadingWithTheInterfaceOpenTakesTheWindowAndItsClassAlong) {
    AppWindow app;
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, EnableModal(app.Handle()));
    const HWND window = ds.Info().window;
    ASSERT_TRUE(IsWindow(window));
    const HINSTANCE instance = ds.Module();
    WNDCLASSA cls;
    ASSERT_TRUE(GetClassInfoA(instance, kWindowClass, &cls));
    ds.Free();
    EXPECT_FALSE(IsWindow(window)) << "no window may outlive the module's window procedure";
    EXPECT_EQ(nullptr, FindWindowA(kWindowClass, nullptr));
    EXPECT_FALSE(GetClassInfoA(instance, kWindowClass, &cls)) << "the class is unregistered";
    EXPECT_TRUE(IsWindowEnabled(app.Handle())) << "the modal interface gave its parent back";
    DrainMessages();

    ASSERT_TRUE(ds.Load());
    ds.reset();
    ds.setAutoScan(VSCAN_AUTO_SCAN);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    EXPECT_TRUE(IsWindow(ds.Info().window));
    EXPECT_TRUE(GetClassInfoA(ds.Module(), kWindowClass, &cls)) << "registered again by the new module";
    EXPECT_EQ(MSG_XFERREADY, ds.WaitEvent()) << "the new window works";
}

TEST_F(VscanEventTest, ModalInterfaceDisablesTheParentUntilDisabled) {
    AppWindow app;
    OpenSmall();
    ASSERT_TRUE(IsWindowEnabled(app.Handle()));
    ASSERT_TWRC(TWRC_SUCCESS, EnableModal(app.Handle()));
    EXPECT_FALSE(IsWindowEnabled(app.Handle()));
    EXPECT_EQ(app.Handle(), GetWindow(ds.Info().window, GW_OWNER));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    EXPECT_TRUE(IsWindowEnabled(app.Handle()));
}

TEST_F(VscanEventTest, SettingsOnlyInterfaceAnswersCloseDsOk) {
    ds.setAutoScan(VSCAN_AUTO_SCAN);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true, nullptr, MSG_ENABLEDSUIONLY));
    EXPECT_NE(nullptr, Button("OK"));
    EXPECT_EQ(MSG_CLOSEDSOK, ds.WaitEvent());
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
}

// --- Faults, each switched by the control export and by vscan.ini.

enum class Via { Control, File };

class VscanFaultTest : public VscanEventTest, public ::testing::WithParamInterface<Via> {
protected:
    // Switches a fault by the control, or writes `line` to vscan.ini and resets the source to read it.
    void Switch(const std::string &line, const std::function<void()> &control) {
        if (GetParam() == Via::Control) {
            control();
            return;
        }
        std::ofstream(IniPath()) << "; written by the fault suite\n[vscan]\n" << line << "\n";
        ds.reset();
        const int keys = 1 + static_cast<int>(std::count(line.begin(), line.end(), '\n'));
        ASSERT_EQ(keys, ds.Info().settingsKeys) << line;
    }
    void MemoryGray() {
        OpenSmall();
        Negotiate(Format{TWPT_GRAY, 8}, TWSX_MEMORY);
    }
};

std::string ViaName(const ::testing::TestParamInfo<Via> &info) {
    return info.param == Via::Control ? "Control" : "File";
}

TEST_P(VscanFaultTest, TripletFailsOnce) {
    Switch("Fail = DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, 0, TWRC_FAILURE, TWCC_OPERATIONERROR, 1, 1", [&] {
        ds.failTriplet(DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, 0, TWRC_FAILURE, TWCC_OPERATIONERROR, 1, 1);
    });
    OpenSmall();
    EXPECT_TWFAIL(TWCC_OPERATIONERROR, ds.Enable(false));
    EXPECT_EQ(VSCAN_STATE_OPEN, ds.Info().state) << "a faulted triplet does nothing";
    EXPECT_TWRC(TWRC_SUCCESS, ds.Enable(false));
}

TEST_P(VscanFaultTest, CapabilityFailsFromTheSecondCallOn) {
    Switch("Fail = DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_PIXELTYPE, TWRC_FAILURE, TWCC_BADCAP, 2, 0", [&] {
        ds.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_PIXELTYPE, TWRC_FAILURE, TWCC_BADCAP, 2, 0);
    });
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_UNITS, MSG_GET, c)) << "another capability is not counted";
    EXPECT_TWFAIL(TWCC_BADCAP, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_TWFAIL(TWCC_BADCAP, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GETCURRENT, c)) << "another message";
}

TEST_P(VscanFaultTest, TripletAnswersAnotherReturnCodeAlways) {
    Switch("Fail = 2, 0x104, 1, 0, TWRC_CANCEL, TWCC_SUCCESS",
           [&] { ds.failTriplet(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, 0, TWRC_CANCEL, TWCC_SUCCESS, 1, 0); });
    OpenSmall();
    EnableToReady();
    TW_UINT32 handle = 0;
    EXPECT_TWRC(TWRC_CANCEL, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_TWRC(TWRC_CANCEL, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_EQ(0u, handle);
}

TEST_P(VscanFaultTest, ContainerAndItemTypeSubstituted) {
    Switch("Container = ICAP_XRESOLUTION, MSG_GET, TWON_RANGE",
           [&] { ds.setContainer(ICAP_XRESOLUTION, MSG_GET, TWON_RANGE); });
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_STREQ("TWON_RANGE", ConName(c.conType));
    EXPECT_EQ((std::vector<double>{50, 600, 25, 100, 100}), c.items);
    ds.reset();
    DeleteFileA(IniPath().c_str());
    Switch("ItemType = CAP_INDICATORS, TWTY_UINT16", [&] { ds.setItemType(CAP_INDICATORS, TWTY_UINT16); });
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_INDICATORS, MSG_GET, c));
    EXPECT_EQ(TWTY_UINT16, c.itemType);
    EXPECT_EQ(1, c.Value());
    ds.reset();
    DeleteFileA(IniPath().c_str());
    Switch("Container = ICAP_PIXELTYPE, MSG_RESET, TWON_ONEVALUE",
           [&] { ds.setContainer(ICAP_PIXELTYPE, MSG_RESET, TWON_ONEVALUE); });
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_RESET, c));
    EXPECT_STREQ("TWON_ONEVALUE", ConName(c.conType)) << "in place of its enumeration";
    EXPECT_EQ(TWPT_RGB, c.Value());
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_STREQ("TWON_ENUMERATION", ConName(c.conType)) << "MSG_GET keeps its own";
}

TEST_P(VscanFaultTest, UnknownImageLength) {
    Switch("UnknownLength = 1", [&] { ds.setFault(VSCAN_FAULT_UNKNOWNLENGTH, 1); });
    MemoryGray();
    EnableToReady();
    EXPECT_EQ(-1, ImageInfo().ImageLength);
    EXPECT_EQ(kWidth, ImageInfo().ImageWidth);
    std::vector<unsigned char> buffer(kWidth * 30);
    TW_IMAGEMEMXFER mx;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    ASSERT_TWRC(TWRC_XFERDONE, ds.Strip(buffer, mx)) << "the rows still end";
    EXPECT_EQ(30u, mx.YOffset);
    EXPECT_EQ(static_cast<TW_UINT32>(kHeight - 30), mx.Rows);
}

TEST_P(VscanFaultTest, MemoryTransferCancelledAtBlock) {
    Switch("CancelBlock = 2", [&] { ds.setFault(VSCAN_FAULT_CANCELBLOCK, 2); });
    MemoryGray();
    EnableToReady();
    std::vector<unsigned char> buffer(kWidth * 10);
    TW_IMAGEMEMXFER mx;
    EXPECT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_TWRC(TWRC_CANCEL, ds.Strip(buffer, mx));
    EXPECT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Strip(buffer, mx)) << "nothing more of a cancelled image";
    TW_UINT16 count;
    EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(0, count);
}

TEST_P(VscanFaultTest, MemoryTransferCancelledAtABlockOfOneImage) {
    Switch("CancelImage = 2\nCancelBlock = 3", [&] {
        ds.setFault(VSCAN_FAULT_CANCELIMAGE, 2);
        ds.setFault(VSCAN_FAULT_CANCELBLOCK, 3);
    });
    ds.setPages(3);
    MemoryGray();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    EnableToReady();
    std::vector<unsigned char> buffer(kWidth * 10);
    TW_IMAGEMEMXFER mx;
    for (int image = 1; image <= 3; ++image) {
        SCOPED_TRACE("image " + std::to_string(image));
        const int blocks = image == 2 ? 3 : kHeight / 10;
        for (int block = 1; block <= blocks; ++block) {
            const TW_UINT16 expected =
                image == 2 && block == 3 ? TWRC_CANCEL : (block == kHeight / 10 ? TWRC_XFERDONE : TWRC_SUCCESS);
            EXPECT_TWRC(expected, ds.Strip(buffer, mx)) << "block " << block;
        }
        if (image == 2) {
            EXPECT_TWFAIL(TWCC_SEQERROR, ds.Strip(buffer, mx)) << "nothing more of the cancelled image";
        }
        TW_UINT16 count;
        ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
        EXPECT_EQ(3 - image, count);
    }
}

TEST_P(VscanFaultTest, NativeTransferOfOneImageCancelled) {
    Switch("CancelImage = 2", [&] { ds.setFault(VSCAN_FAULT_CANCELIMAGE, 2); });
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    EnableToReady();
    EXPECT_EQ(2, TransferOne());
    TW_UINT32 handle = 0;
    EXPECT_TWRC(TWRC_CANCEL, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_EQ(0u, handle);
    TW_UINT16 count;
    EXPECT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(1, count);
    EXPECT_EQ(0, TransferOne()) << "image 3 comes through";
}

TEST_P(VscanFaultTest, FileTransferCancelled) {
    Switch("CancelImage = 1", [&] { ds.setFault(VSCAN_FAULT_CANCELIMAGE, 1); });
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_FILE));
    TW_SETUPFILEXFER setup{};
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    const std::string path = std::string(temp) + "vscan_cancelled.bmp";
    DeleteFileA(path.c_str());
    lstrcpynA(setup.FileName, path.c_str(), sizeof setup.FileName);
    setup.Format = TWFF_BMP;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup));
    EnableToReady();
    EXPECT_TWRC(TWRC_CANCEL, ds.Call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesA(path.c_str())) << "no file for a cancelled image";
}

TEST_P(VscanFaultTest, BytesWrittenDisagreesWithRows) {
    Switch("BytesWrittenDelta = -3", [&] { ds.setFault(VSCAN_FAULT_BYTESWRITTENDELTA, -3); });
    MemoryGray();
    EnableToReady();
    std::vector<unsigned char> buffer(kWidth * 10);
    TW_IMAGEMEMXFER mx;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_EQ(10u, mx.Rows);
    EXPECT_EQ(static_cast<TW_UINT32>(kWidth), mx.BytesPerRow);
    EXPECT_EQ(static_cast<TW_UINT32>(10 * kWidth - 3), mx.BytesWritten);
}

TEST_P(VscanFaultTest, ZeroBufferSizes) {
    Switch("ZeroBufferSizes = 1", [&] { ds.setFault(VSCAN_FAULT_ZEROBUFFERSIZES, 1); });
    MemoryGray();
    const TW_SETUPMEMXFER setup = ds.SetupMem();
    EXPECT_EQ(0u, setup.MinBufSize);
    EXPECT_EQ(0u, setup.MaxBufSize);
    EXPECT_EQ(0u, setup.Preferred);
}

TEST_P(VscanFaultTest, BufferSizesChosenByTheTest) {
    Switch("MinBufSize = 1000\nMaxBufSize = 500000\nPreferredBufSize = 2000000", [&] {
        ds.setFault(VSCAN_FAULT_MINBUFSIZE, 1000);
        ds.setFault(VSCAN_FAULT_MAXBUFSIZE, 500000);
        ds.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, 2000000);
    });
    MemoryGray();
    const TW_SETUPMEMXFER setup = ds.SetupMem();
    EXPECT_EQ(1000u, setup.MinBufSize);
    EXPECT_EQ(500000u, setup.MaxBufSize);
    EXPECT_EQ(2000000u, setup.Preferred) << "unchecked: above the maximum";
}

TEST_P(VscanFaultTest, RangesWithAZeroStep) {
    Switch("ZeroRangeStep = 1", [&] { ds.setFault(VSCAN_FAULT_ZERORANGESTEP, 1); });
    OpenSmall();
    TW_CAPABILITY cap = {ICAP_BRIGHTNESS, TWON_DONTCARE16, nullptr};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, &cap));
    const Container range = TakeContainer(cap);
    ASSERT_EQ(TWON_RANGE, range.conType);
    ASSERT_EQ(5u, range.items.size());
    EXPECT_EQ(-1000.0, range.items[0]);
    EXPECT_EQ(1000.0, range.items[1]);
    EXPECT_EQ(0.0, range.items[2]) << "the step";
}

TEST_P(VscanFaultTest, PaletteOfMoreThan256Colours) {
    Switch("PaletteColors = 300", [&] { ds.setFault(VSCAN_FAULT_PALETTECOLORS, 300); });
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_PALETTE));
    TW_PALETTE8 palette{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
    EXPECT_EQ(300, palette.NumColors);
}

TEST_P(VscanFaultTest, CloseRequestOnlyWhereImageNEnds) {
    Switch("CloseRequestAfter = 1", [&] { ds.setFault(VSCAN_FAULT_CLOSEREQUESTAFTER, 1); });
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    EnableToReady();
    EXPECT_EQ(2, TransferOne());
    ASSERT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent());
    EXPECT_EQ(VSCAN_STATE_XFERREADY, ds.Info().state);
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "one request: MSG_RESET after image 1 announces none";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    EnableToReady();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "MSG_RESET in a later session: image 1 ended before";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    EnableToReady();
    EXPECT_EQ(1, TransferOne());
    EXPECT_EQ(2, ds.Info().imagesDone);
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "image 2 is not image 1";
}

TEST_P(VscanFaultTest, CloseRequestAfterTheLastImageOfTheAutomaticMode) {
    Switch("CloseRequestAfter = 2\nAutoScan = VSCAN_AUTO_SCAN_CLOSE", [&] {
        ds.setFault(VSCAN_FAULT_CLOSEREQUESTAFTER, 2);
        ds.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    });
    ds.setPages(2);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    ASSERT_EQ(MSG_XFERREADY, ds.WaitEvent());
    EXPECT_EQ(1, TransferOne());
    EXPECT_EQ(0, TransferOne());
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent());
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(500)) << "the fault and the automatic Close make one request";
}

TEST_P(VscanFaultTest, CloseRequestInPlaceOfTheTransfer) {
    Switch("CloseRequestAfter = 0", [&] { ds.setFault(VSCAN_FAULT_CLOSEREQUESTAFTER, 0); });
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false));
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent()) << "the user cancelled before any scan";
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "no transfer is announced";
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(0, pending.Count);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    ds.setAutoScan(VSCAN_AUTO_SCAN);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    EXPECT_NE(nullptr, ds.Info().window);
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent()) << "again, with the interface";
    EXPECT_EQ(MSG_NULL, ds.WaitEvent(300)) << "the automatic mode does not scan";
    EXPECT_EQ(0, ds.Info().imagesStarted);
}

TEST_P(VscanFaultTest, DotsPerInchInEveryUnit) {
    Switch("DpiInEveryUnit = 1", [&] { ds.setFault(VSCAN_FAULT_DPIINEVERYUNIT, 1); });
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_CENTIMETERS));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{50, 75, 100, 150, 200, 300, 400, 600}), c.items);
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 200)) << "taken as dots per inch";
    EnableToReady();
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(200, Fix32ToDouble(info.XResolution));
    EXPECT_EQ(100, Fix32ToDouble(info.YResolution));
    EXPECT_EQ(2 * kWidth, info.ImageWidth);
}

TEST_P(VscanFaultTest, UnknownPendingCountWhileImagesRemain) {
    Switch("UnknownPending = 1", [&] { ds.setFault(VSCAN_FAULT_UNKNOWNPENDING, 1); });
    ds.setPages(3);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(0, pending.Count) << "nothing announced yet";
    EnableToReady();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(0xFFFF, pending.Count);
    EXPECT_EQ(0xFFFF, TransferOne()) << "two sheets left";
    EXPECT_EQ(0xFFFF, TransferOne()) << "one sheet left";
    EXPECT_EQ(1, ds.Info().pending) << "the source knows its count";
    EXPECT_EQ(0, TransferOne()) << "the batch is over";
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
}

TEST_P(VscanFaultTest, ManufacturerNamedByTheTest) {
    Switch("Manufacturer = EPSON", [&] { ds.setIdentity("EPSON", nullptr, nullptr); });
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_STREQ("EPSON", ds.ds.Manufacturer);
    EXPECT_STREQ("Virtual Scanner", ds.ds.ProductName);
}

TEST_P(VscanFaultTest, PagesAndAutomaticScan) {
    Switch("Pages = 4\nAutoScan = VSCAN_AUTO_SCAN", [&] {
        ds.setPages(4);
        ds.setAutoScan(VSCAN_AUTO_SCAN);
    });
    EXPECT_EQ(4, ds.Info().sheetsLeft);
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    EXPECT_EQ(MSG_XFERREADY, ds.WaitEvent());
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(4, pending.Count);
}

TEST_P(VscanFaultTest, AtMostSixteenFailureSwitchesEachFromACallOnForACount) {
    std::string taken; // the Fail lines vscan.ini holds so far
    const auto add = [&](TW_UINT16 cc, int first, int count) {
        if (GetParam() == Via::Control)
            return ds.failTriplet(DG_CONTROL, DAT_XFERGROUP, MSG_GET, 0, TWRC_FAILURE, cc, first, count);
        const std::string line = "Fail = DG_CONTROL, DAT_XFERGROUP, MSG_GET, 0, TWRC_FAILURE, " + std::to_string(cc) +
                                 ", " + std::to_string(first) + ", " + std::to_string(count) + "\n";
        std::ofstream(IniPath()) << taken << line;
        ds.reset();
        if (ds.Info().settingsKeys == -1)
            return 0;
        taken += line;
        return 1;
    };
    EXPECT_EQ(0, add(TWCC_BUMMER, 0, 1)) << "there is no call 0";
    EXPECT_EQ(0, add(TWCC_BUMMER, -2, 1));
    EXPECT_EQ(0, add(TWCC_BUMMER, 1, -1)) << "a count below 0";
    for (int i = 1; i <= VSCAN_MAX_FAILS; ++i)
        ASSERT_EQ(1, add(static_cast<TW_UINT16>(i), i, 1)) << "switch " << i;
    EXPECT_EQ(0, add(TWCC_BUMMER, VSCAN_MAX_FAILS + 1, 1)) << "one switch too many";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    TW_UINT32 group = 0;
    for (int i = 1; i <= VSCAN_MAX_FAILS; ++i) {
        EXPECT_TWFAIL(static_cast<TW_UINT16>(i), ds.Call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group))
            << "call " << i << ": switch " << i;
    }
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group)) << "the refused switch is not there";
    EXPECT_EQ(static_cast<TW_UINT32>(DG_IMAGE), group);
}

INSTANTIATE_TEST_SUITE_P(Via, VscanFaultTest, ::testing::Values(Via::Control, Via::File), ViaName);

class VscanSettingsTest : public VscanEventTest {};

TEST_F(VscanSettingsTest, EveryKeyNamesAndNumbersCommentsAndSections) {
    std::ofstream(IniPath()) << "; every key of vscan.ini, each with an effect\n"
                                "# another comment\n"
                                "[Identity]\n"
                                "Manufacturer = EPSON\n"
                                "ProductFamily = Test Family\n"
                                "ProductName = Test Scanner\n"
                                "[Feeder]\n"
                                "Pages = 7\n"
                                "AutoScan = 2\n"
                                "[Answers]\n"
                                "Fail = DG_CONTROL, DAT_XFERGROUP, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER\n"
                                "Container = CAP_INDICATORS, MSG_GETCURRENT, TWON_ENUMERATION\n"
                                "; ICAP_XRESOLUTION answers TWTY_UINT16\n"
                                "ItemType = 0x1118, 4\n"
                                "Malformed = ICAP_PIXELFLAVOR, 1, VSCAN_MALFORMED_NULLHANDLE\n"
                                "Values = ICAP_LIGHTPATH, 0, 1, 7\n"
                                "SetType = 0x0102, TWTY_UINT32\n"
                                "[Faults]\n"
                                "UnknownLength = 1\n"
                                "CancelImage = 2\n"
                                "CancelBlock = 2\n"
                                "BytesWrittenDelta = -3\n"
                                "ZeroBufferSizes = 1\n"
                                "PaletteColors = 300\n"
                                "CloseRequestAfter = 1\n"
                                "MinBufSize = 1000\n"
                                "MaxBufSize = 500000\n"
                                "PreferredBufSize = 2000000\n"
                                "ZeroRangeStep = 1\n"
                                "DpiInEveryUnit = 1\n"
                                "UnknownPending = 1\n"
                                "ImagePixelType = 9\n"
                                "Compression = 5\n"
                                "StripRows = 0\n"
                                "StripXOffsetDelta = 1000\n"
                                "StripYOffsetDelta = 45\n"
                                "ColumnsDelta = 5\n"
                                "RowAlign = 16\n";
    ds.reset();
    EXPECT_EQ(31, ds.Info().settingsKeys);
    EXPECT_EQ(7, ds.Info().sheetsLeft) << "Pages";
    OpenSmall();
    EXPECT_STREQ("EPSON", ds.ds.Manufacturer);
    EXPECT_STREQ("Test Family", ds.ds.ProductFamily);
    EXPECT_STREQ("Test Scanner", ds.ds.ProductName);

    // The answers of state 4.
    TW_UINT32 group = 0;
    EXPECT_TWFAIL(TWCC_BUMMER, ds.Call(DG_CONTROL, DAT_XFERGROUP, MSG_GET, &group)) << "Fail";
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_INDICATORS, MSG_GETCURRENT, c));
    EXPECT_STREQ("TWON_ENUMERATION", ConName(c.conType)) << "Container";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(TWTY_UINT16, c.itemType) << "ItemType";
    TW_CAPABILITY flavor{ICAP_PIXELFLAVOR, TWON_DONTCARE16, nullptr};
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, &flavor));
    EXPECT_EQ(nullptr, flavor.hContainer) << "Malformed";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_LIGHTPATH, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{0, 1, 7}), c.items) << "Values";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_CENTIMETERS)) << "SetType";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT32, TWUN_CENTIMETERS)) << "SetType";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(100, c.Value()) << "DpiInEveryUnit: dots per inch in centimetres";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BRIGHTNESS, MSG_GET, c));
    ASSERT_EQ(5u, c.items.size());
    EXPECT_EQ(0.0, c.items[2]) << "ZeroRangeStep";
    TW_PALETTE8 palette{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_GET, &palette));
    EXPECT_EQ(300, palette.NumColors) << "PaletteColors";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
    TW_SETUPMEMXFER setup = ds.SetupMem();
    EXPECT_EQ(1000u, setup.MinBufSize) << "MinBufSize";
    EXPECT_EQ(500000u, setup.MaxBufSize) << "MaxBufSize";
    EXPECT_EQ(2000000u, setup.Preferred) << "PreferredBufSize";

    // Two of the seven sheets, through memory transfers of 10 rows of 100 RGB pixels, padded to 304 bytes.
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(true));
    EXPECT_EQ(MSG_XFERREADY, ds.WaitEvent()) << "AutoScan: Scan pressed by itself";
    TW_PENDINGXFERS pending{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_GET, &pending));
    EXPECT_EQ(0xFFFF, pending.Count) << "UnknownPending";
    EXPECT_EQ(7, ds.Info().pending);
    const TW_IMAGEINFO info = ImageInfo();
    EXPECT_EQ(-1, info.ImageLength) << "UnknownLength";
    EXPECT_EQ(9, info.PixelType) << "ImagePixelType";
    EXPECT_EQ(5, info.Compression) << "Compression";
    std::vector<unsigned char> buffer(304 * 10);
    TW_IMAGEMEMXFER mx;
    ASSERT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_EQ(static_cast<TW_UINT32>(buffer.size() - 3), mx.BytesWritten) << "BytesWrittenDelta";
    EXPECT_EQ(304u, mx.BytesPerRow) << "RowAlign";
    EXPECT_EQ(0xA5, buffer[300]) << "RowAlign";
    EXPECT_EQ(5, mx.Compression) << "Compression";
    EXPECT_EQ(0u, mx.Rows) << "StripRows";
    EXPECT_EQ(1000u, mx.XOffset) << "StripXOffsetDelta";
    EXPECT_EQ(45u, mx.YOffset) << "StripYOffsetDelta";
    EXPECT_EQ(static_cast<TW_UINT32>(kWidth + 5), mx.Columns) << "ColumnsDelta";
    for (int strip = 2; strip < kHeight / 10; ++strip) {
        EXPECT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx)) << "strip " << strip;
    }
    EXPECT_TWRC(TWRC_XFERDONE, ds.Strip(buffer, mx));
    TW_UINT16 count;
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    EXPECT_EQ(MSG_CLOSEDSREQ, ds.WaitEvent()) << "CloseRequestAfter";
    EXPECT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
    EXPECT_TWRC(TWRC_CANCEL, ds.Strip(buffer, mx)) << "CancelImage and CancelBlock";
    ASSERT_TWRC(TWRC_SUCCESS, EndXfer(count));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));

    // The three sizes switched off by another file show the zeros of ZeroBufferSizes.
    std::ofstream(IniPath()) << "MinBufSize = 0\nMaxBufSize = 0\nPreferredBufSize = 0\n";
    ASSERT_EQ(3, ds.loadSettings(IniPath().c_str()));
    setup = ds.SetupMem();
    EXPECT_EQ(0u, setup.MinBufSize) << "ZeroBufferSizes";
    EXPECT_EQ(0u, setup.MaxBufSize) << "ZeroBufferSizes";
    EXPECT_EQ(0u, setup.Preferred) << "ZeroBufferSizes";
}

TEST_F(VscanSettingsTest, TheReadmeExample) {
    std::ofstream(IniPath()) << "; a feeder of 5 sheets from a maker the library treats specially, and some trouble\n"
                                "[identity]\n"
                                "Manufacturer = EPSON\n"
                                "Pages = 5\n"
                                "[faults]\n"
                                "Fail = DG_CONTROL, DAT_CAPABILITY, MSG_SET, ICAP_PIXELTYPE, TWRC_FAILURE, "
                                "TWCC_BADVALUE, 1, 1\n"
                                "Container = ICAP_XRESOLUTION, MSG_GET, TWON_RANGE\n"
                                "ItemType = CAP_FEEDERENABLED, TWTY_UINT16\n"
                                "CancelImage = 3\n"
                                "CancelBlock = 2\n"
                                "CloseRequestAfter = 4\n";
    ds.reset();
    EXPECT_EQ(8, ds.Info().settingsKeys);
    EXPECT_EQ(5, ds.Info().sheetsLeft) << "Pages";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, 1, 0.5));
    EXPECT_STREQ("EPSON", ds.ds.Manufacturer) << "Manufacturer";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY)) << "Fail";
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY)) << "Fail: only once";
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_STREQ("TWON_RANGE", ConName(c.conType)) << "Container";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERENABLED, MSG_GET, c));
    EXPECT_EQ(TWTY_UINT16, c.itemType) << "ItemType";

    // Five sheets through memory transfers: image 3 is cancelled at block 2, the close is asked after image 4.
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false));
    ASSERT_EQ(MSG_XFERREADY, ds.WaitEvent());
    std::vector<unsigned char> buffer(kWidth * 25);
    for (int image = 1; image <= 5; ++image) {
        SCOPED_TRACE("image " + std::to_string(image));
        TW_IMAGEMEMXFER mx;
        EXPECT_TWRC(TWRC_SUCCESS, ds.Strip(buffer, mx));
        EXPECT_TWRC(image == 3 ? TWRC_CANCEL : TWRC_XFERDONE, ds.Strip(buffer, mx)) << "CancelImage and CancelBlock";
        TW_PENDINGXFERS pending{};
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending));
        EXPECT_EQ(5 - image, pending.Count);
        EXPECT_EQ(image == 4 ? MSG_CLOSEDSREQ : MSG_NULL, ds.WaitEvent(200)) << "CloseRequestAfter";
    }
}

TEST_F(VscanSettingsTest, ABadKeyStopsTheFile) {
    std::ofstream(IniPath()) << "Pages = 2\nNoSuchKey = 1\nPages = 9\n";
    ds.reset();
    EXPECT_EQ(-1, ds.Info().settingsKeys);
    EXPECT_EQ(2, ds.Info().sheetsLeft) << "keys before the bad one stay applied";
    std::ofstream(IniPath()) << "Fail = DG_CONTROL, DAT_NOSUCH, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER\n";
    EXPECT_EQ(-1, ds.loadSettings(IniPath().c_str())) << "an unknown name";
    std::ofstream(IniPath()) << "CancelBlock\n";
    EXPECT_EQ(-1, ds.loadSettings(IniPath().c_str())) << "no value";
}

TEST_F(VscanSettingsTest, NoFileAndAFileElsewhere) {
    EXPECT_EQ(-1, ds.Info().settingsKeys);
    char temp[MAX_PATH];
    GetTempPathA(sizeof temp, temp);
    const std::string path = std::string(temp) + "vscan_elsewhere.ini";
    std::ofstream(path) << "ProductName = Elsewhere\n";
    EXPECT_EQ(1, ds.loadSettings(path.c_str()));
    DeleteFileA(path.c_str());
    TW_IDENTITY id{};
    ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &id);
    EXPECT_STREQ("Elsewhere", id.ProductName);
    EXPECT_EQ(-1, ds.loadSettings(path.c_str()));
}

} // namespace
} // namespace smtest
