// The diagnostic trace: records sent to an external viewer through shared memory and a window message.
#pragma once

#include <windows.h>

// Source names that stand in the records, one per source file of the library.
#define SM_SOURCE(name) "F:\\smkernal\\" name ".cpp"

enum class TraceLevel { Trace, Warning, Fatal };

// Message number of one record sent to the viewer window; lParam is the record in our view.
constexpr UINT TRACE_TEXT_MESSAGE = 0x1634;
// Capacity of the record composer, NUL included.
constexpr int kTraceRecordCapacity = 1024;
// Characters asked of GetWindowsDirectoryA, where DEBUGSM.INI and TWAIN_32.DLL are looked for.
constexpr UINT kWindowsDirectorySize = 256;

// Formats one record at a time into the first bytes of the shared view.
class TraceComposer {
public:
    TraceComposer(char *base, int capacity) : base_(base), capacity_(capacity) {}
    void Rewind() { pos_ = 0; }
    void Write(const char *text);
    void WriteNumber(int value);
    void End();
    const char *Text() const { return base_; }

private:
    char *base_;
    int capacity_;
    int pos_ = 0;
};

// Library-wide trace state (not part of the scan module object).
extern HWND traceViewerWindow;
extern HANDLE traceMapping;
extern void *traceView;
extern TraceComposer *traceStream;
extern int traceDepth;

// Finds the viewer, maps its shared memory and makes sure DEBUGSM.INI exists.
void TraceStartup();
// Unmaps the viewer's memory; nothing may trace afterwards.
void TraceShutdown();
// Writes one record, when the level is switched on in DEBUGSM.INI and a viewer was found.
void TraceRecord(TraceLevel level, const char *source, int line, const char *text);

// Scope that stands before the function name in the records of a method of the scan module.
constexpr const char kModuleScope[] = "TScanModule::";
// Scope of the free functions (the container codec), whose records name the bare function.
constexpr const char kFreeScope[] = "";

// The entry and exit records of one function, and its failure records. The entry record is
// written at construction (unless its line is 0), the exit record by Leave() or at the end of
// the scope, with the exit line given here unless Leave() names another. Texts read
// "Coming <scope><name>", "Leaving <scope><name>" and "<what> in <scope><name>"; the scope is
// "TScanModule::" unless given.
class TraceCall {
public:
    // Every method makes one, so that without a viewer they cost no more than a test of traceStream.
    TraceCall(const char *source, const char *method, int entryLine, int exitLine, const char *scope = kModuleScope)
        : source_(source), method_(method), scope_(scope), entryLine_(entryLine), exitLine_(exitLine) {
        if (entryLine != 0 && traceStream)
            WriteNamed(entryLine, "Coming ");
    }
    ~TraceCall() { Leave(); }
    TraceCall(const TraceCall &) = delete;
    TraceCall &operator=(const TraceCall &) = delete;

    // Writes the exit record now; `line` 0 takes the exit line given at construction.
    void Leave(int line = 0) {
        if (left_)
            return;
        left_ = true;
        if (traceStream)
            WriteNamed(line ? line : exitLine_, "Leaving ");
    }
    // No exit record at all, for the one method that never writes it (the viewer's depth then stays raised).
    void NoExit() { left_ = true; }
    // "Warning " record "<what> in <scope><method>".
    void Warn(int line, const char *what) const;
    // "Warning " record "<what> in <scope><name>", for texts that spell the method's name otherwise.
    void WarnAs(int line, const char *what, const char *name) const;
    // "Trace " record "<what> in <scope><name>", for texts that name another method.
    void NoteAs(int line, const char *what, const char *name) const;
    // "Warning " record with the text as given (for the texts that name another method).
    void WarnText(int line, const char *text) const;
    // "Fatal " record with the text as given.
    void Fatal(int line, const char *text) const;
    // "Trace " record with the text as given.
    void Note(int line, const char *text) const;
    // "Trace " record "<what> in <scope><method>".
    void NoteIn(int line, const char *what) const;

    const char *Source() const { return source_; }
    const char *Method() const { return method_; }
    // The method's own line: its entry line, or its exit line when it writes no entry record. The shared
    // negotiation patterns write the records they write for a method with this line of the method's file.
    int Line() const { return entryLine_ ? entryLine_ : exitLine_; }

private:
    void WriteIn(TraceLevel level, int line, const char *what) const;
    void WriteAs(TraceLevel level, int line, const char *what, const char *name) const;
    void WriteNamed(int line, const char *prefix) const;

    const char *source_;
    const char *method_;
    const char *scope_;
    int entryLine_;
    int exitLine_;
    bool left_ = false;
};
