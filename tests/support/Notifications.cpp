// The transfer suites' application window: records the module's notifications and runs the test's reactions.
#include "Notifications.h"

#include <cstring>

namespace smtest {

namespace {

const char kClassName[] = "SmkNotificationWindow";
// The registered names in the order of NoticeKind.
const char *const kMessageNames[] = {SM_MSG_XFERSTART,          SM_MSG_XFERDATA,           SM_MSG_XFEREND,
                                     SM_MSG_CLOSEDSREQ,         SM_MSG_SCANTOFILE_GETNAME, SM_MSG_SCANTOFILE_XFEREND,
                                     SM_MSG_SCANTOFILE_DSCLOSED};
const char *const kNoticeNames[] = {"XferStart",         "XferData",          "XferEnd",           "CloseDSReq",
                                    "ScanToFileGetName", "ScanToFileXferEnd", "ScanToFileDSClosed"};
constexpr int kKinds = sizeof kMessageNames / sizeof kMessageNames[0];
static_assert(sizeof kNoticeNames / sizeof kNoticeNames[0] == kKinds, "a name for every notice");

void RegisterClassOnce() {
    WNDCLASSA wc = {};
    if (GetClassInfoA(GetModuleHandleA(nullptr), kClassName, &wc))
        return;
    wc.lpfnWndProc = DefWindowProcA;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.lpszClassName = kClassName;
    RegisterClassA(&wc);
}

} // namespace

const char *NoticeName(NoticeKind kind) {
    return kNoticeNames[static_cast<int>(kind)];
}

std::string Notice::Brief() const {
    std::string text = NoticeName(kind);
    if (kind == NoticeKind::XferEnd)
        text += "(" + std::to_string(static_cast<LONG>(wParam)) + ")";
    return text;
}

NotificationWindow::NotificationWindow() {
    RegisterClassOnce();
    for (int i = 0; i < kKinds; ++i)
        messages_[i] = RegisterWindowMessageA(kMessageNames[i]);
    window_ = CreateWindowA(kClassName, "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr,
                            GetModuleHandleA(nullptr), nullptr);
    SetWindowLongPtrA(window_, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    SetWindowLongPtrA(window_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&NotificationWindow::Proc));
}

NotificationWindow::~NotificationWindow() {
    if (window_) {
        SetWindowLongPtrA(window_, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(DefWindowProcA));
        DestroyWindow(window_);
    }
}

std::vector<std::string> NotificationWindow::Briefs() const {
    std::vector<std::string> briefs;
    for (const Notice &notice : notices_)
        briefs.push_back(notice.Brief());
    return briefs;
}

std::vector<std::string> NotificationWindow::Outline() const {
    std::vector<std::string> briefs;
    for (const Notice &notice : notices_)
        if (notice.kind != NoticeKind::XferData)
            briefs.push_back(notice.Brief());
    return briefs;
}

int NotificationWindow::Count(NoticeKind kind) const {
    int count = 0;
    for (const Notice &notice : notices_)
        count += notice.kind == kind;
    return count;
}

LRESULT CALLBACK NotificationWindow::Proc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    auto *self = reinterpret_cast<NotificationWindow *>(GetWindowLongPtrA(window, GWLP_USERDATA));
    if (self)
        return self->Handle(message, wParam, lParam);
    return DefWindowProcA(window, message, wParam, lParam);
}

LRESULT NotificationWindow::Handle(UINT message, WPARAM wParam, LPARAM lParam) {
    int kind = 0;
    while (kind < kKinds && (messages_[kind] == 0 || messages_[kind] != message))
        ++kind;
    if (kind == kKinds)
        return DefWindowProcA(window_, message, wParam, lParam);
    Notice notice;
    notice.kind = static_cast<NoticeKind>(kind);
    notice.wParam = wParam;
    notice.lParam = lParam;
    auto *image = reinterpret_cast<ScanImageInfo *>(lParam);
    auto *block = reinterpret_cast<ScanBlockInfo *>(lParam);
    switch (notice.kind) {
    case NoticeKind::XferStart:
        notice.image = *image;
        break;
    case NoticeKind::XferEnd:
        notice.image = *image;
        if (image->mechanism == SM_XFER_NATIVE && image->xferTarget)
            notice.handleAtTarget = *static_cast<HGLOBAL *>(image->xferTarget);
        if (image->mechanism == SM_XFER_FILE && image->xferTarget)
            notice.fileNameAtTarget.assign(static_cast<const char *>(image->xferTarget),
                                           strnlen(static_cast<const char *>(image->xferTarget), 256));
        if (getPendingCount)
            getPendingCount(&notice.pendingCount);
        break;
    case NoticeKind::XferData:
        notice.block = *block;
        if (block->bufferDescriptor) {
            notice.descriptor = *block->bufferDescriptor;
            const DWORD size =
                block->bytesWritten < notice.descriptor.size ? block->bytesWritten : notice.descriptor.size;
            if (notice.descriptor.address && size) {
                const auto *bytes = static_cast<const unsigned char *>(notice.descriptor.address);
                notice.bytes.assign(bytes, bytes + size);
            }
        }
        break;
    default:
        break;
    }
    notices_.push_back(notice);
    const Notice recorded = notices_.back(); // a reaction may add notices of its own
    switch (recorded.kind) {
    case NoticeKind::XferStart:
        if (onXferStart)
            onXferStart(recorded, image);
        break;
    case NoticeKind::XferData:
        if (onXferData)
            onXferData(recorded, block);
        break;
    case NoticeKind::XferEnd:
        if (onXferEnd)
            onXferEnd(recorded, image);
        break;
    case NoticeKind::CloseDSReq:
        if (onCloseDSReq)
            onCloseDSReq(recorded);
        break;
    case NoticeKind::ScanToFileGetName:
        if (onScanToFileGetName)
            onScanToFileGetName(recorded, reinterpret_cast<char *>(lParam));
        break;
    default:
        break;
    }
    return 0;
}

bool PumpThroughIsDSEvent(BOOL(WINAPI *isDSEvent)(MSG *), const std::function<bool()> &done, DWORD timeoutMs) {
    const DWORD start = GetTickCount();
    while (!done()) {
        if (GetTickCount() - start >= timeoutMs)
            return false;
        MSG msg;
        if (!PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
            continue;
        }
        if (isDSEvent(&msg))
            continue;
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    return true;
}

} // namespace smtest
