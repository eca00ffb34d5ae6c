// The scan module object that holds all state of the library, and its scratch-memory buffer.
#pragma once

#include <windows.h>

#include "Trace.h"
#include "smkernal.h"
#include "twain1x.h"

static_assert(sizeof(DisabledWindowList) == 10, "DisabledWindowList is 10 bytes");
static_assert(offsetof(DisabledWindowList, windowCount) == 4, "DisabledWindowList.windowCount");
static_assert(offsetof(DisabledWindowList, nextSlot) == 6, "DisabledWindowList.nextSlot");

// TWAIN states that the module keeps in sessionState (6 and 7 pass inside transfers only).
enum SessionState : LONG {
    kStatePreSession = 1,
    kStateDsmLoaded = 2,
    kStateDsmOpen = 3,
    kStateSourceOpen = 4,
    kStateSourceEnabled = 5,
};

// Transfer mechanisms as the module's bit values.
constexpr WORD kMechNative = 1;
constexpr WORD kMechFile = 2;
constexpr WORD kMechMemory = 4;

constexpr int kScanToFileStateSize = 78;
constexpr int kAppTitleSize = 256;

// Owner of one movable, zero-initialised global-memory block, locked while owned.
class TGlobalBuffer {
public:
    explicit TGlobalBuffer(DWORD size);
    virtual ~TGlobalBuffer();
    TGlobalBuffer(const TGlobalBuffer &) = delete;
    TGlobalBuffer &operator=(const TGlobalBuffer &) = delete;

    // Replaces the block by a new one of `size` bytes (none for 0); callers test `data`.
    void Alloc(DWORD size);
    void Free();

    DWORD size;
    HGLOBAL handle;
    void *data;
};

class TScanModule {
public:
    explicit TScanModule(HINSTANCE instance);
    virtual ~TScanModule();
    TScanModule(const TScanModule &) = delete;
    TScanModule &operator=(const TScanModule &) = delete;

    HINSTANCE Instance() const { return moduleInstance; }

    // Source-manager library loading.
    void LoadTWAIN();
    BOOL IsTWAINLoaded();
    void UnloadTWAIN();
    BOOL IsTWAINAvailable();

    // Cancel requests from the application's notification handlers.
    void CancelThisXfer();
    void CancelAllXfer();

    // The session: source manager, source selection and listing, source open, enable, disable
    // and close. Results: 0, -1 (no source manager), 11 (wrong state), -6 (selection
    // cancelled) or the condition code of a failed call.
    LONG OpenDSM(HWND window);
    LONG CloseDSM(HWND window);
    LONG SelectDS(HWND window);
    LONG GetAllDS(const char *path);
    LONG OpenDS(HWND window, const char *title);
    LONG EnableDS(BOOL show, BOOL modal);
    LONG DisableDS();
    LONG CloseDS();
    LONG GetTWAINStatusCode();

    // Default source: makes the source with this product name the source manager's default.
    LONG SetDefaultDriver(HWND parent, const char *productName);
    LONG SearchSourceDirectory(const char *directory, const char *productName);

    // Reads the source's brightness range into the brightness cache when a source opens.
    LONG GetDSBrightnessRange();

    // The availability gate that opens every session, capability and transfer method: false
    // (after the warning "TWAIN is not available in TScanModule::<method>") when the source
    // manager cannot be loaded.
    bool Available(const TraceCall &call, int warningLine);

    // Fields, in the order of the object's layout.
    TW_IDENTITY appIdentity;
    TW_IDENTITY sourceIdentity;
    WORD pendingCount;
    HINSTANCE moduleInstance;
    LONG sessionState;
    HMODULE dsmLibrary;
    DSMENTRYPROC dsmEntry;
    BOOL showUI;
    BOOL parentDisabled;
    BOOL cancelThisXfer;
    BOOL cancelAllXfer;
    DisabledWindowList disabledWindows;
    HWND parentWindow;
    char appTitle[kAppTitleSize];
    double brightnessMin, brightnessMax, brightnessStep;
    double contrastMin, contrastMax, contrastStep;
    double highlightMin, highlightMax, highlightStep;
    double shadowMin, shadowMax, shadowStep;
    double thresholdMin, thresholdMax, thresholdStep;
    WORD transferMechanism;
    BOOL scanToFileActive;
    BYTE scanToFileState[kScanToFileStateSize];
    UINT msgCloseDSReq;
    UINT msgXferStart;
    UINT msgXferData;
    UINT msgXferEnd;
    UINT msgScanToFileGetName;
    UINT msgScanToFileXferEnd;
    UINT msgScanToFileDSClosed;

private:
    // One call into the source manager with the application as origin.
    TW_UINT16 CallDsm(pTW_IDENTITY dest, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data);
    LONG ListSources(const TraceCall &call, const char *path, int &counter);
    void InitAppIdentity(HINSTANCE instance);
    void RegisterMessages(const TraceCall &call);
};

// The one scan module of the process, created and deleted by the library entry.
extern TScanModule *theScanModule;
