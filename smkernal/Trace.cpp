// The diagnostic trace: viewer lookup, DEBUGSM.INI, record composition and the per-method entry/exit pair.
#include "Trace.h"

#include <cstdio>
#include <cstring>
#include <new>

HWND traceViewerWindow = nullptr;
HANDLE traceMapping = nullptr;
void *traceView = nullptr;
TraceComposer *traceStream = nullptr;
int traceDepth = 0;

namespace {

const char kViewerClass[] = "KDVDiagXprt32";
const char kViewerMapping[] = "KDVDiagXprt32File";
const char kSettingsFile[] = "DEBUGSM.INI";
const char kSeparator[] = "    ";
constexpr DWORD kMapAllAccess = 0xF001F;

const char *LevelWord(TraceLevel level) {
    switch (level) {
    case TraceLevel::Trace:
        return "Trace ";
    case TraceLevel::Warning:
        return "Warning ";
    default:
        return "Fatal ";
    }
}

void Compose(TraceLevel level, const char *source, int line, const char *text) {
    traceStream->Rewind();
    traceStream->Write(LevelWord(level));
    traceStream->Write(source);
    traceStream->Write(" ");
    traceStream->WriteNumber(line);
    traceStream->Write(": [SM] ");
    traceStream->Write(text);
    traceStream->End();
}

void Send() {
    SendMessageA(traceViewerWindow, TRACE_TEXT_MESSAGE, 0, reinterpret_cast<LPARAM>(traceView));
}

// A fresh Windows directory gets DEBUGSM.INI with both switches on; an existing file with a
// Trace key is left as the user wrote it.
void EnsureSettingsFile() {
    char path[kWindowsDirectorySize + sizeof(kSettingsFile) + 1];
    GetWindowsDirectoryA(path, kWindowsDirectorySize);
    lstrcatA(path, "\\");
    lstrcatA(path, kSettingsFile);
    OFSTRUCT of;
    if (OpenFile(path, &of, OF_EXIST) == HFILE_ERROR ||
        GetPrivateProfileIntA("Debug", "Trace", -1, path) == 0xFFFFFFFFu) {
        WritePrivateProfileStringA("Debug", "Trace", "1", path);
        WritePrivateProfileStringA("Debug", "Warning", "1", path);
    }
}

} // namespace

void TraceComposer::Write(const char *text) {
    while (*text && pos_ < capacity_ - 1)
        base_[pos_++] = *text++;
}

void TraceComposer::WriteNumber(int value) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%d", value);
    Write(digits);
}

void TraceComposer::End() {
    base_[pos_] = '\0';
}

void TraceStartup() {
    traceViewerWindow = FindWindowA(kViewerClass, nullptr);
    if (traceViewerWindow && IsWindow(traceViewerWindow)) {
        traceMapping = OpenFileMappingA(kMapAllAccess, FALSE, kViewerMapping);
        traceView = MapViewOfFile(traceMapping, kMapAllAccess, 0, 0, 0);
        if (traceView)
            traceStream = new (std::nothrow) TraceComposer(static_cast<char *>(traceView), kTraceRecordCapacity);
    }
    EnsureSettingsFile();
}

void TraceShutdown() {
    if (traceMapping && traceView) {
        UnmapViewOfFile(traceView);
        CloseHandle(traceMapping);
        traceMapping = nullptr;
        traceView = nullptr;
    }
    // The pointer keeps its old value: nothing traces after this point.
    delete traceStream;
}

void TraceRecord(TraceLevel level, const char *source, int line, const char *text) {
    // Without a viewer nothing can be sent, so the switches need not be read at all.
    if (!traceStream)
        return;
    const char *key = level == TraceLevel::Trace ? "Trace" : "Warning";
    if (GetPrivateProfileIntA("Debug", key, 0, kSettingsFile) == 0)
        return;
    const bool isTrace = level == TraceLevel::Trace;
    if (isTrace) {
        Compose(level, source, line, text);
        if (std::strstr(traceStream->Text(), "Coming")) {
            if (traceDepth == 0) {
                for (int i = 0; i < 3; ++i) {
                    traceStream->Rewind();
                    traceStream->Write(kSeparator);
                    traceStream->End();
                    Send();
                }
            }
            ++traceDepth;
        }
    }
    Compose(level, source, line, text);
    Send();
    if (isTrace && std::strstr(traceStream->Text(), "Leaving"))
        --traceDepth;
}

void TraceCall::Warn(int line, const char *what) const {
    WriteIn(TraceLevel::Warning, line, what);
}

void TraceCall::WarnAs(int line, const char *what, const char *name) const {
    WriteAs(TraceLevel::Warning, line, what, name);
}

void TraceCall::NoteAs(int line, const char *what, const char *name) const {
    WriteAs(TraceLevel::Trace, line, what, name);
}

void TraceCall::WriteAs(TraceLevel level, int line, const char *what, const char *name) const {
    // The text is only composed when a record can be sent.
    if (!traceStream)
        return;
    char text[256];
    std::snprintf(text, sizeof text, "%s in %s%s", what, scope_, name);
    TraceRecord(level, source_, line, text);
}

void TraceCall::WarnText(int line, const char *text) const {
    TraceRecord(TraceLevel::Warning, source_, line, text);
}

void TraceCall::Fatal(int line, const char *text) const {
    TraceRecord(TraceLevel::Fatal, source_, line, text);
}

void TraceCall::Note(int line, const char *text) const {
    TraceRecord(TraceLevel::Trace, source_, line, text);
}

void TraceCall::NoteIn(int line, const char *what) const {
    WriteIn(TraceLevel::Trace, line, what);
}

void TraceCall::WriteIn(TraceLevel level, int line, const char *what) const {
    WriteAs(level, line, what, method_);
}

void TraceCall::WriteNamed(int line, const char *prefix) const {
    if (!traceStream)
        return;
    char text[128];
    std::snprintf(text, sizeof text, "%s%s%s", prefix, scope_, method_);
    TraceRecord(TraceLevel::Trace, source_, line, text);
}
