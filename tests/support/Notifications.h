// An application window for the transfer suites: it records every notification the module sends it, with copies of
// the records, and reacts as a test scripts it (cancel, take or refuse bitmaps, name files, lend buffers).
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "smkernal.h"

namespace smtest {

enum class NoticeKind {
    XferStart,
    XferData,
    XferEnd,
    CloseDSReq,
    ScanToFileGetName,
    ScanToFileXferEnd,
    ScanToFileDSClosed
};
const char *NoticeName(NoticeKind kind);

// One notification as the window received it.
struct Notice {
    NoticeKind kind;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    ScanImageInfo image = {};           // XferStart, XferEnd: the record as it stood when the message arrived
    ScanBlockInfo block = {};           // XferData: the record as it stood
    SmBufferDescriptor descriptor = {}; // XferData: the descriptor the record points at, as it stood
    std::vector<unsigned char> bytes;   // XferData: the block's bytesWritten bytes (at most descriptor.size)
    HGLOBAL handleAtTarget = nullptr;   // XferEnd of a native transfer: *(HGLOBAL *)xferTarget, when not NULL
    std::string fileNameAtTarget;       // XferEnd of a file transfer: the file-name buffer
    WORD pendingCount = 0xFFFF;         // XferEnd: what smGetPendingCount answered inside the handler (if asked)
    std::string Brief() const;          // "XferStart", "XferData", "XferEnd(-5)", "CloseDSReq"
};

// A top-level window of its own class on the calling thread that the module's notifications go to. The reactions run
// inside the module's SendMessageA, after the notice is recorded; they may change the records they are given.
class NotificationWindow {
public:
    NotificationWindow();
    ~NotificationWindow();
    NotificationWindow(const NotificationWindow &) = delete;
    NotificationWindow &operator=(const NotificationWindow &) = delete;

    HWND Handle() const { return window_; }
    const std::vector<Notice> &Notices() const { return notices_; }
    void Clear() { notices_.clear(); }
    // Brief() of every notice, in order.
    std::vector<std::string> Briefs() const;
    // The same without the memory transfer's blocks: "XferStart", "XferEnd(-5)", "CloseDSReq".
    std::vector<std::string> Outline() const;
    int Count(NoticeKind kind) const;

    // smGetPendingCount of the library under test, asked in every XferEnd handler when set.
    LONG(WINAPI *getPendingCount)(WORD *) = nullptr;

    std::function<void(const Notice &, ScanImageInfo *)> onXferStart;
    std::function<void(const Notice &, ScanBlockInfo *)> onXferData;
    std::function<void(const Notice &, ScanImageInfo *)> onXferEnd;
    std::function<void(const Notice &)> onCloseDSReq;
    // ScanToFileGetName: `name` is the module's 256-byte buffer for the next image's file name.
    std::function<void(const Notice &, char *name)> onScanToFileGetName;

private:
    static LRESULT CALLBACK Proc(HWND, UINT, WPARAM, LPARAM);
    LRESULT Handle(UINT message, WPARAM wParam, LPARAM lParam);
    HWND window_ = nullptr;
    UINT messages_[7] = {};
    std::vector<Notice> notices_;
};

// An application's message loop: every message of this thread (window and thread messages) goes to smIsDSEvent and,
// when it was not the source's, is dispatched. Runs until `done()` answers true or `timeoutMs` passes; returns true
// when `done()` ended it.
bool PumpThroughIsDSEvent(BOOL(WINAPI *isDSEvent)(MSG *), const std::function<bool()> &done, DWORD timeoutMs);

} // namespace smtest
