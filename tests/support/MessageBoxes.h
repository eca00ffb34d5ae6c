// Message boxes of the calling thread, recorded and answered without anybody at the screen: a box would otherwise
// wait for a click that never comes in a headless run.
#pragma once

#include <windows.h>

#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

namespace smtest {

// One message box as it was asked for and shown.
struct MessageBoxRecord {
    std::string text;          // the text it showed, in the ANSI code page (the Windows-1252 bytes of the test prefix)
    std::string caption;       // its title
    UINT style = 0;            // the MB_ flags it was asked for, or kUnknownStyle
    HWND owner = nullptr;      // the owner it was given (the window argument, not the top-level window Windows uses)
    std::vector<int> buttons;  // the buttons it showed (IDOK, IDCANCEL, IDYES, IDNO, ...), in id order
    int answer = 0;            // what the box returned to its caller
    bool scripted = false;     // false when no answer was queued and the box was answered with the fall-back
    std::string Brief() const; // "\"Error\": \"Tipo de p\xEDxel no v\xE1lido\" 0x2000 -> IDOK"
};

// Installs a thread-local WH_CBT hook for its lifetime (one at a time per thread). Every dialog of the system's
// message box class created on this thread is followed: once it has laid itself out (after its WM_INITDIALOG) the
// box is recorded and ended with the next queued answer, before its modal loop runs, so that the box neither waits
// nor takes messages meant for others (a source's posted events stay queued for the application's loop). With no
// answer queued, the box is answered IDNO when it has a No button, else IDCANCEL when it has Cancel, else IDOK, and
// the record says it was not scripted.
class MessageBoxes {
public:
    // The style a record carries when the box's parameters could not be read.
    static constexpr UINT kUnknownStyle = 0xFFFFFFFF;

    MessageBoxes();
    ~MessageBoxes();
    MessageBoxes(const MessageBoxes &) = delete;
    MessageBoxes &operator=(const MessageBoxes &) = delete;

    bool Installed() const { return hook_ != nullptr; }
    // Queues answers (IDOK, IDYES, IDNO, ...) for the next boxes, in order.
    void Answer(std::initializer_list<int> answers);
    const std::vector<MessageBoxRecord> &Boxes() const { return boxes_; }
    // Answers queued and not used yet.
    size_t Pending() const { return answers_.size(); }
    int Unscripted() const;
    // Brief() of every box, in order.
    std::vector<std::string> Briefs() const;
    void Clear();

private:
    static LRESULT CALLBACK CbtProc(int code, WPARAM wParam, LPARAM lParam);
    static LRESULT CALLBACK BoxProc(HWND box, UINT message, WPARAM wParam, LPARAM lParam);
    struct Followed {
        HWND box;
        WNDPROC original;
    };
    Followed *Find(HWND box);
    void Finish(HWND box, LPARAM initParam);

    HHOOK hook_ = nullptr;
    std::deque<int> answers_;
    std::vector<MessageBoxRecord> boxes_;
    std::vector<Followed> followed_;
};

// "IDYES", "IDNO", "IDOK", ... or the number.
std::string AnswerName(int id);

} // namespace smtest
