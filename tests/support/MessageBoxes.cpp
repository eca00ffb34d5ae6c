// Message boxes of the calling thread, recorded and answered: a CBT hook follows each dialog of the message box class
// and ends it as soon as it has laid itself out.
#include "MessageBoxes.h"

#include <cstdio>
#include <cstring>

namespace smtest {

namespace {

// The system's dialog class, and the id of a message box's text control.
const char kDialogClass[] = "#32770";
constexpr int kMessageBoxTextId = 0xFFFF;

// The box of this thread's recorder.
thread_local MessageBoxes *current = nullptr;

const struct {
    int id;
    const char *name;
} kAnswerNames[] = {{IDOK, "IDOK"},
                    {IDCANCEL, "IDCANCEL"},
                    {IDABORT, "IDABORT"},
                    {IDRETRY, "IDRETRY"},
                    {IDIGNORE, "IDIGNORE"},
                    {IDYES, "IDYES"},
                    {IDNO, "IDNO"},
                    {IDCLOSE, "IDCLOSE"},
                    {IDHELP, "IDHELP"},
                    {IDTRYAGAIN, "IDTRYAGAIN"},
                    {IDCONTINUE, "IDCONTINUE"}};

// Bytes outside printable ASCII as \xNN, so that a failure message shows the code page's bytes as they are.
std::string Escaped(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

std::string WindowText(HWND window) {
    char text[1024] = "";
    GetWindowTextA(window, text, sizeof text);
    return text;
}

// The parameters the message box was made from, which its dialog receives with WM_INITDIALOG; null when the
// parameter does not look like them.
const MSGBOXPARAMSW *BoxParameters(LPARAM initParam) {
    const auto *params = reinterpret_cast<const MSGBOXPARAMSW *>(initParam);
    if (!params || IsBadReadPtr(params, sizeof *params) || params->cbSize != sizeof *params)
        return nullptr;
    return params;
}

} // namespace

std::string AnswerName(int id) {
    for (const auto &entry : kAnswerNames)
        if (entry.id == id)
            return entry.name;
    return std::to_string(id);
}

std::string MessageBoxRecord::Brief() const {
    char styleText[16];
    std::snprintf(styleText, sizeof styleText, "0x%X", style);
    return "\"" + Escaped(caption) + "\": \"" + Escaped(text) + "\" " + styleText + " -> " + AnswerName(answer) +
           (scripted ? "" : " (not scripted)");
}

MessageBoxes::MessageBoxes() {
    if (current)
        return; // one recorder per thread: this one stays uninstalled
    hook_ = SetWindowsHookExW(WH_CBT, &MessageBoxes::CbtProc, nullptr, GetCurrentThreadId());
    if (hook_)
        current = this;
}

MessageBoxes::~MessageBoxes() {
    if (!hook_)
        return;
    UnhookWindowsHookEx(hook_);
    for (const Followed &f : followed_)
        if (IsWindow(f.box))
            SetWindowLongPtrW(f.box, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(f.original));
    current = nullptr;
}

void MessageBoxes::Answer(std::initializer_list<int> answers) {
    answers_.insert(answers_.end(), answers.begin(), answers.end());
}

int MessageBoxes::Unscripted() const {
    int count = 0;
    for (const MessageBoxRecord &box : boxes_)
        count += !box.scripted;
    return count;
}

std::vector<std::string> MessageBoxes::Briefs() const {
    std::vector<std::string> briefs;
    for (const MessageBoxRecord &box : boxes_)
        briefs.push_back(box.Brief());
    return briefs;
}

void MessageBoxes::Clear() {
    boxes_.clear();
    answers_.clear();
}

MessageBoxes::Followed *MessageBoxes::Find(HWND box) {
    for (Followed &f : followed_)
        if (f.box == box)
            return &f;
    return nullptr;
}

LRESULT CALLBACK MessageBoxes::CbtProc(int code, WPARAM wParam, LPARAM lParam) {
    MessageBoxes *self = current;
    if (self && code == HCBT_CREATEWND) {
        HWND window = reinterpret_cast<HWND>(wParam);
        char className[64] = "";
        GetClassNameA(window, className, sizeof className);
        if (std::strcmp(className, kDialogClass) == 0) {
            const auto original = reinterpret_cast<WNDPROC>(
                SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&MessageBoxes::BoxProc)));
            self->followed_.push_back({window, original});
        }
    }
    return CallNextHookEx(self ? self->hook_ : nullptr, code, wParam, lParam);
}

LRESULT CALLBACK MessageBoxes::BoxProc(HWND box, UINT message, WPARAM wParam, LPARAM lParam) {
    MessageBoxes *self = current;
    Followed *found = self ? self->Find(box) : nullptr;
    if (!found)
        return DefWindowProcW(box, message, wParam, lParam);
    const Followed followed = *found;
    if (message == WM_NCDESTROY) {
        SetWindowLongPtrW(box, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(followed.original));
        self->followed_.erase(self->followed_.begin() + (found - self->followed_.data()));
        return CallWindowProcW(followed.original, box, message, wParam, lParam);
    }
    const LRESULT result = CallWindowProcW(followed.original, box, message, wParam, lParam);
    if (message == WM_INITDIALOG)
        self->Finish(box, lParam);
    return result;
}

// The box has its text, caption and buttons now: it is recorded and ended before its modal loop starts.
void MessageBoxes::Finish(HWND box, LPARAM initParam) {
    if (!GetDlgItem(box, kMessageBoxTextId))
        return; // another dialog: left alone
    MessageBoxRecord record;
    char text[1024] = "";
    GetDlgItemTextA(box, kMessageBoxTextId, text, sizeof text);
    record.text = text;
    record.caption = WindowText(box);
    if (const MSGBOXPARAMSW *params = BoxParameters(initParam)) {
        record.style = params->dwStyle;
        record.owner = params->hwndOwner;
    } else {
        record.style = kUnknownStyle;
        record.owner = GetWindow(box, GW_OWNER);
    }
    for (const auto &entry : kAnswerNames)
        if (entry.id != IDHELP && GetDlgItem(box, entry.id))
            record.buttons.push_back(entry.id);
    const auto has = [&record](int id) {
        for (int button : record.buttons)
            if (button == id)
                return true;
        return false;
    };
    if (!answers_.empty()) {
        record.answer = answers_.front();
        answers_.pop_front();
        record.scripted = true;
    } else {
        record.answer = has(IDNO) ? IDNO : has(IDCANCEL) ? IDCANCEL : IDOK;
    }
    boxes_.push_back(record);
    EndDialog(box, record.answer);
}

} // namespace smtest
