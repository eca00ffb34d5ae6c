// The virtual scanner's window: two lists and two buttons whose presses become announced events, never a modal loop.
#include "Ui.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "Caps.h"

namespace vscan {

namespace {

const char kWindowClass[] = "VscanWindow";
const char kTitle[] = "Virtual Scanner";

enum ControlId { kIdResolution = 101, kIdPixelType = 102, kIdScan = 110, kIdClose = 111 };

struct PixelTypeName {
    int type;
    const char *name;
};
const PixelTypeName kPixelTypes[] = {
    {TWPT_BW, "Black and white"}, {TWPT_GRAY, "Gray"}, {TWPT_RGB, "Color"}, {TWPT_PALETTE, "Palette"}};

// Layout of the window, in pixels.
constexpr int kWindowWidth = 280;
constexpr int kWindowHeight = 170;
constexpr int kMargin = 10;
constexpr int kLabelWidth = 90;
constexpr int kFieldWidth = 150;
constexpr int kRowHeight = 24;
constexpr int kListHeight = 200;
constexpr int kButtonWidth = 80;

HWND Child(HWND window, const char *cls, const char *text, DWORD style, int id, int x, int y, int w, int h) {
    return CreateWindowExA(0, cls, text, WS_CHILD | WS_VISIBLE | style, x, y, w, h, window,
                           reinterpret_cast<HMENU>(static_cast<INT_PTR>(id)), ModuleInstance(), nullptr);
}

// The resolutions offered, in dots per inch: what ICAP_XRESOLUTION lists now (its own, a test's, a constraint).
std::vector<double> Resolutions(const Source &s) {
    return CapChoices(s, ICAP_XRESOLUTION);
}

void FillLists(const Source &s, HWND window) {
    HWND resolution = GetDlgItem(window, kIdResolution);
    HWND pixelType = GetDlgItem(window, kIdPixelType);
    const std::vector<double> resolutions = Resolutions(s);
    for (size_t i = 0; i < resolutions.size(); ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", resolutions[i]);
        SendMessageA(resolution, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(text));
        if (std::fabs(resolutions[i] - XResolution(s)) < kFix32Step)
            SendMessageA(resolution, CB_SETCURSEL, i, 0);
    }
    const int currentType = static_cast<int>(CapValue(s, ICAP_PIXELTYPE));
    for (int i = 0; i < static_cast<int>(sizeof kPixelTypes / sizeof *kPixelTypes); ++i) {
        SendMessageA(pixelType, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(kPixelTypes[i].name));
        if (kPixelTypes[i].type == currentType)
            SendMessageA(pixelType, CB_SETCURSEL, i, 0);
    }
}

void CreateControls(const Source &s, HWND window) {
    int y = kMargin;
    Child(window, "STATIC", "Resolution:", 0, 0, kMargin, y, kLabelWidth, kRowHeight);
    Child(window, "COMBOBOX", "", CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP, kIdResolution, kMargin + kLabelWidth, y,
          kFieldWidth, kListHeight);
    y += kRowHeight + kMargin;
    Child(window, "STATIC", "Pixel type:", 0, 0, kMargin, y, kLabelWidth, kRowHeight);
    Child(window, "COMBOBOX", "", CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP, kIdPixelType, kMargin + kLabelWidth, y,
          kFieldWidth, kListHeight);
    y += kRowHeight + 2 * kMargin;
    Child(window, "BUTTON", s.uiOnly ? "OK" : "Scan", BS_DEFPUSHBUTTON | WS_TABSTOP, kIdScan, kMargin, y, kButtonWidth,
          kRowHeight);
    Child(window, "BUTTON", "Close", BS_PUSHBUTTON | WS_TABSTOP, kIdClose, 2 * kMargin + kButtonWidth, y, kButtonWidth,
          kRowHeight);
    FillLists(s, window);
}

// The lists' choices become the negotiated values (the pixel type shown again keeps the bit depth).
void ApplyChoices(Source &s, HWND window) {
    const std::vector<double> resolutions = Resolutions(s);
    const LRESULT dpi = SendMessageA(GetDlgItem(window, kIdResolution), CB_GETCURSEL, 0, 0);
    if (dpi >= 0 && dpi < static_cast<LRESULT>(resolutions.size())) {
        SetCapValue(s, ICAP_XRESOLUTION, resolutions[dpi]);
        SetCapValue(s, ICAP_YRESOLUTION, resolutions[dpi]);
    }
    const LRESULT type = SendMessageA(GetDlgItem(window, kIdPixelType), CB_GETCURSEL, 0, 0);
    if (type >= 0 && type < static_cast<LRESULT>(sizeof kPixelTypes / sizeof *kPixelTypes))
        SetCapValue(s, ICAP_PIXELTYPE, kPixelTypes[type].type);
}

// Scan: a batch and its transfer-ready notice; OK of the settings-only interface: MSG_CLOSEDSOK.
void OnScan(Source &s, HWND window) {
    ApplyChoices(s, window);
    if (s.uiOnly) {
        Announce(s, MSG_CLOSEDSOK);
        return;
    }
    if (s.state != VSCAN_STATE_ENABLED)
        return; // a batch is already announced
    StartBatch(s);
    if (!s.batch.empty())
        Announce(s, MSG_XFERREADY);
}

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    Source &s = TheSource();
    if (message == WM_COMMAND && HIWORD(wParam) == BN_CLICKED) {
        if (LOWORD(wParam) == kIdScan) {
            OnScan(s, window);
            return 0;
        }
        if (LOWORD(wParam) == kIdClose) {
            RequestClose(s);
            return 0;
        }
    }
    if (message == WM_CLOSE) {
        RequestClose(s); // the application closes us, through MSG_DISABLEDS
        return 0;
    }
    return DefWindowProcA(window, message, wParam, lParam);
}

bool registered = false;

bool RegisterWindowClass() {
    if (registered)
        return true;
    WNDCLASSA cls{};
    cls.lpfnWndProc = WindowProc;
    cls.hInstance = ModuleInstance();
    cls.hCursor = LoadCursor(nullptr, IDC_ARROW);
    cls.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_BTNFACE + 1);
    cls.lpszClassName = kWindowClass;
    registered = RegisterClassA(&cls) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
    return registered;
}

void Press(Source &s, int id) {
    if (s.window)
        PostMessageA(s.window, WM_COMMAND, MAKEWPARAM(id, BN_CLICKED),
                     reinterpret_cast<LPARAM>(GetDlgItem(s.window, id)));
}

} // namespace

bool ShowUi(Source &s, bool autoPress) {
    DestroyUi(s);
    if (!RegisterWindowClass())
        return false;
    HWND owner = s.parent && IsWindow(s.parent) ? s.parent : nullptr;
    s.window = CreateWindowExA(0, kWindowClass, kTitle, WS_OVERLAPPED | WS_CAPTION | WS_SYSMENU, CW_USEDEFAULT,
                               CW_USEDEFAULT, kWindowWidth, kWindowHeight, owner, nullptr, ModuleInstance(), nullptr);
    if (!s.window)
        return false;
    CreateControls(s, s.window);
    ShowWindow(s.window, SW_SHOWNORMAL);
    s.modalParent = s.modalUi && owner && IsWindowEnabled(owner);
    if (s.modalParent)
        EnableWindow(owner, FALSE); // the application's window waits for us, without a loop of ours
    if (autoPress && s.autoScan != VSCAN_AUTO_OFF)
        PostScan(s);
    return true;
}

void DestroyUi(Source &s) {
    if (s.window)
        DestroyWindow(s.window);
    s.window = nullptr;
    if (s.modalParent && IsWindow(s.parent))
        EnableWindow(s.parent, TRUE);
    s.modalParent = false;
}

void UnloadUi(Source *s, HINSTANCE instance) {
    if (s && s->window && GetWindowThreadProcessId(s->window, nullptr) != GetCurrentThreadId()) {
        // Only its own thread may destroy it: it stays, but answers with the default procedure from now on.
        SetWindowLongPtrA(s->window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(DefWindowProcA));
    }
    if (s)
        DestroyUi(*s);
    if (registered)
        UnregisterClassA(kWindowClass, instance);
    registered = false;
}

void PostScan(Source &s) {
    Press(s, kIdScan);
}

void PostClose(Source &s) {
    Press(s, kIdClose);
}

} // namespace vscan
