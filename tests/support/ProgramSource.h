// A data source played by the test program through programds.ds: one dispatch table of triplets, each answered by a
// hook the test sets (a hostile script) or by a sane default, and the record of every block it hands over.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "programds.h"
#include "twain1x.h"

namespace smtest {

// What a triplet answers, and the condition code the next DAT_STATUS tells.
struct Answer {
    TW_UINT16 rc = TWRC_SUCCESS;
    TW_UINT16 cc = TWCC_SUCCESS;
};

// A capability container as the source hands it over: its bytes as laid out (they may claim more items than they
// hold), and how its memory comes.
struct ContainerScript {
    enum class Memory {
        Exact,      // a global block of exactly the bytes
        Truncated,  // a global block of `blockSize` bytes (fewer than the bytes), holding what fits
        Null,       // hContainer NULL
        NotAHandle, // hContainer `notAHandle`, a value that is no global memory
    };
    TW_UINT16 conType = TWON_ONEVALUE;
    Memory memory = Memory::Exact;
    std::vector<BYTE> bytes;
    SIZE_T blockSize = 0;
    UINT_PTR notAHandle = 0;
};
// The bytes of containers, in their packed layouts.
std::vector<BYTE> OneValueBytes(TW_UINT16 itemType, TW_UINT32 item);
std::vector<BYTE> RangeBytes(TW_UINT16 itemType, TW_UINT32 min, TW_UINT32 max, TW_UINT32 step, TW_UINT32 def,
                             TW_UINT32 cur);
// An enumeration or an array of `items` (each `itemSize` bytes of the word, little-endian) claiming `numItems`.
std::vector<BYTE> EnumerationBytes(TW_UINT16 itemType, TW_UINT32 numItems, TW_UINT32 current, TW_UINT32 def,
                                   const std::vector<TW_UINT32> &items, TW_UINT32 itemSize);
std::vector<BYTE> ArrayBytes(TW_UINT16 itemType, TW_UINT32 numItems, const std::vector<TW_UINT32> &items,
                             TW_UINT32 itemSize);

// A packed bitmap as the source hands it over by native transfer: header fields, and the block it lies in.
struct BitmapScript {
    BITMAPINFOHEADER header = {};
    SIZE_T blockSize = 0; // bytes of the global block (the header is cut to fit a smaller one)
    bool null = false;    // the handle is NULL
};

class ProgramSource {
public:
    // Loads programds.ds from the bin directory (the file the source manager will list) and makes this object its
    // entry. One at a time.
    ProgramSource();
    ~ProgramSource();
    ProgramSource(const ProgramSource &) = delete;
    ProgramSource &operator=(const ProgramSource &) = delete;

    bool Loaded() const { return module_ != nullptr; }
    // bin\programds.ds, for the source manager's list.
    static std::string Path();
    static constexpr char kProductName[] = "Program Source";

    // The message the source "posts" to say that images are ready: the application's loop hands it to smIsDSEvent,
    // and MSG_PROCESSEVENT answers TWRC_DSEVENT with `announce` (MSG_XFERREADY by default).
    UINT EventMessage() const { return eventMessage_; }
    MSG Event() const;

    // The hooks; an empty one leaves the triplet to the sane default: a source that opens, enables, answers
    // capability gets with one-values (ICAP_XFERMECH memory, ICAP_UNITS inches, a brightness range), takes every set,
    // and fails image triplets with TWCC_SEQERROR.
    std::function<Answer(TW_UINT16 msg, TW_CAPABILITY &capability)> onCapability;
    std::function<Answer(TW_UINT16 msg)> onUserInterface;
    std::function<Answer(TW_UINT16 msg)> onCloseDS;
    std::function<Answer(TW_IMAGEINFO &info)> onImageInfo;
    std::function<Answer(TW_SETUPMEMXFER &sizes)> onSetupMem;
    // The record of a strip; the source then writes min(BytesWritten, Memory.Length) bytes of kStripFill into the
    // buffer it was given.
    std::function<Answer(TW_IMAGEMEMXFER &strip)> onStrip;
    std::function<Answer(BitmapScript &bitmap)> onNative;
    std::function<Answer(TW_SETUPFILEXFER &setup)> onSetupFile;
    std::function<Answer()> onFileXfer;
    // MSG_ENDXFER and MSG_RESET; `count` is what TW_PENDINGXFERS.Count answers.
    std::function<Answer(TW_UINT16 msg, TW_UINT16 &count)> onPending;
    std::function<Answer(TW_PALETTE8 &palette)> onPalette;
    std::function<Answer(TW_IMAGELAYOUT &layout)> onLayout;
    TW_UINT16 announce = MSG_XFERREADY;
    // Told of every global block the source allocates (kept by Calm).
    std::function<void(HGLOBAL)> onAllocated;
    // Back to the sane defaults: no hooks, MSG_XFERREADY announced.
    void Calm();
    // Forgets what was handed over and answered.
    void ClearRecord();

    // Containers from onCapability with a global block, and bitmaps from onNative, in the order they were handed over
    // since ClearRecord().
    std::vector<HGLOBAL> containers;
    std::vector<HGLOBAL> bitmaps;
    // hContainer values that were no memory at all.
    std::vector<HGLOBAL> notHandles;
    // The condition codes of the failures the source answered since ClearRecord().
    std::vector<TW_UINT16> conditions;
    // Triplets the source saw since ClearRecord(), and the last image information it answered.
    int calls = 0;
    TW_IMAGEINFO lastImageInfo = {};
    // Bytes written into each strip's buffer.
    static constexpr BYTE kStripFill = 0x3C;

    // Hands a container over: allocates it as scripted (recording a global block) and fills the capability.
    void HandOver(TW_CAPABILITY &capability, const ContainerScript &container);

private:
    struct Call {
        pTW_IDENTITY origin;
        TW_UINT32 dg;
        TW_UINT16 dat;
        TW_UINT16 msg;
        TW_MEMREF data;
    };
    using Handler = Answer (ProgramSource::*)(Call &call);
    struct Route {
        TW_UINT32 dg;
        TW_UINT16 dat;
        TW_UINT16 msg; // kAnyMessage: every message
        unsigned states;
        Handler handler;
    };
    static const Route kRoutes[];
    static TW_UINT16 WINAPI Entry(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data);
    TW_UINT16 Dispatch(Call &call);
    HGLOBAL Block(const std::vector<BYTE> &bytes, SIZE_T size);
    Answer Answered(Call &call);

    Answer Identity(Call &call);
    Answer OpenDs(Call &call);
    Answer CloseDs(Call &call);
    Answer Status(Call &call);
    Answer UserInterface(Call &call);
    Answer ProcessEvent(Call &call);
    Answer Capability(Call &call);
    Answer ImageInfo(Call &call);
    Answer SetupMem(Call &call);
    Answer Strip(Call &call);
    Answer Native(Call &call);
    Answer SetupFile(Call &call);
    Answer FileXfer(Call &call);
    Answer Pending(Call &call);
    Answer Palette(Call &call);
    Answer Layout(Call &call);
    Answer Unknown(Call &call);

    HMODULE module_ = nullptr;
    UINT eventMessage_ = 0;
    bool open_ = false;
    TW_IDENTITY identity_ = {};
    TW_UINT16 lastCc_ = TWCC_SUCCESS;
};

} // namespace smtest
