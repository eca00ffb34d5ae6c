// The scan module object that holds all state of the library, and its scratch-memory buffer.
#pragma once

#include <windows.h>

#include "Negotiation.h"
#include "Trace.h"
#include "smkernal.h"
#include "twain1x.h"

static_assert(sizeof(DisabledWindowList) == 10, "DisabledWindowList is 10 bytes");
static_assert(offsetof(DisabledWindowList, windowCount) == 4, "DisabledWindowList.windowCount");
static_assert(offsetof(DisabledWindowList, nextSlot) == 6, "DisabledWindowList.nextSlot");

static_assert(sizeof(ScanImageInfo) == 46, "ScanImageInfo is 46 bytes");
static_assert(offsetof(ScanImageInfo, imageWidth) == 4, "ScanImageInfo.imageWidth");
static_assert(offsetof(ScanImageInfo, imageLength) == 8, "ScanImageInfo.imageLength");
static_assert(offsetof(ScanImageInfo, samplesPerPixel) == 12, "ScanImageInfo.samplesPerPixel");
static_assert(offsetof(ScanImageInfo, bitsPerSample) == 14, "ScanImageInfo.bitsPerSample");
static_assert(offsetof(ScanImageInfo, bitsPerPixel) == 30, "ScanImageInfo.bitsPerPixel");
static_assert(offsetof(ScanImageInfo, planar) == 32, "ScanImageInfo.planar");
static_assert(offsetof(ScanImageInfo, pixelTypeFlag) == 36, "ScanImageInfo.pixelTypeFlag");
static_assert(offsetof(ScanImageInfo, compression) == 38, "ScanImageInfo.compression");
static_assert(offsetof(ScanImageInfo, mechanism) == 40, "ScanImageInfo.mechanism");
static_assert(offsetof(ScanImageInfo, xferTarget) == 42, "ScanImageInfo.xferTarget");

// The first bytes of a block's record repeat the image's record up to its mechanism.
constexpr size_t kBlockImageBytes = 42;
static_assert(sizeof(ScanBlockInfo) == 74, "ScanBlockInfo is 74 bytes");
static_assert(offsetof(ScanBlockInfo, mechanism) == offsetof(ScanImageInfo, mechanism), "ScanBlockInfo image part");
static_assert(offsetof(ScanBlockInfo, bytesPerRow) == kBlockImageBytes, "ScanBlockInfo.bytesPerRow");
static_assert(offsetof(ScanBlockInfo, columns) == 46, "ScanBlockInfo.columns");
static_assert(offsetof(ScanBlockInfo, rows) == 50, "ScanBlockInfo.rows");
static_assert(offsetof(ScanBlockInfo, xOffset) == 54, "ScanBlockInfo.xOffset");
static_assert(offsetof(ScanBlockInfo, yOffset) == 58, "ScanBlockInfo.yOffset");
static_assert(offsetof(ScanBlockInfo, bytesWritten) == 62, "ScanBlockInfo.bytesWritten");
static_assert(offsetof(ScanBlockInfo, rowsAligned) == 66, "ScanBlockInfo.rowsAligned");
static_assert(offsetof(ScanBlockInfo, bufferDescriptor) == 70, "ScanBlockInfo.bufferDescriptor");
static_assert(sizeof(SmBufferDescriptor) == 8, "SmBufferDescriptor is 8 bytes");

static_assert(offsetof(ScanToFileSettings, unitCode) == 32, "ScanToFileSettings.unitCode");
static_assert(offsetof(ScanToFileSettings, resolution) == 36, "ScanToFileSettings.resolution");
static_assert(offsetof(ScanToFileSettings, shadowMax) == 60, "ScanToFileSettings.shadowMax");
static_assert(offsetof(ScanToFileSettings, modalUI) == 62, "ScanToFileSettings.modalUI");
static_assert(offsetof(ScanToFileSettings, morePages) == 66, "ScanToFileSettings.morePages");
static_assert(offsetof(ScanToFileSettings, showSourceUI) == 70, "ScanToFileSettings.showSourceUI");
static_assert(offsetof(ScanToFileSettings, useFeeder) == 74, "ScanToFileSettings.useFeeder");

static_assert(sizeof(ScanCapRecord) == 104, "ScanCapRecord is 104 bytes");
static_assert(offsetof(ScanCapRecord, reserved) == 56, "ScanCapRecord.reserved");
static_assert(offsetof(ScanCapRecord, maxXResolution) == 60, "ScanCapRecord.maxXResolution");
static_assert(offsetof(ScanCapRecord, minXResolution) == 64, "ScanCapRecord.minXResolution");
static_assert(offsetof(ScanCapRecord, xResolution) == 68, "ScanCapRecord.xResolution");
static_assert(offsetof(ScanCapRecord, bitDepth) == 72, "ScanCapRecord.bitDepth");
static_assert(offsetof(ScanCapRecord, maxWidth) == 76, "ScanCapRecord.maxWidth");
static_assert(offsetof(ScanCapRecord, maxHeight) == 80, "ScanCapRecord.maxHeight");
static_assert(offsetof(ScanCapRecord, unit) == 84, "ScanCapRecord.unit");
static_assert(offsetof(ScanCapRecord, pixelType) == 88, "ScanCapRecord.pixelType");
static_assert(offsetof(ScanCapRecord, memXferSize) == 92, "ScanCapRecord.memXferSize");

// TWAIN states that the module keeps in sessionState (6 and 7 pass inside transfers only).
enum SessionState : LONG {
    kStatePreSession = 1,
    kStateDsmLoaded = 2,
    kStateDsmOpen = 3,
    kStateSourceOpen = 4,
    kStateSourceEnabled = 5,
};

// What every gated method answers when the source manager cannot be loaded.
constexpr LONG kNotAvailable = -1;

// The range caches the module starts with, beside the brightness range of Negotiation.h.
constexpr double kDefaultContrastMin = -1000.0;
constexpr double kDefaultContrastMax = 1000.0;
constexpr double kDefaultContrastStep = 1.0;
constexpr double kDefaultHighlightMin = 0.0;
constexpr double kDefaultHighlightMax = 255.0;
constexpr double kDefaultHighlightStep = 1.0;
constexpr double kDefaultShadowMin = 0.0;
constexpr double kDefaultShadowMax = 255.0;
constexpr double kDefaultShadowStep = 1.0;
constexpr double kDefaultThresholdMin = 0.0;
constexpr double kDefaultThresholdMax = 255.0;
// Nothing ever learns a threshold step from the source; 1 matches the other ranges.
constexpr double kDefaultThresholdStep = 1.0;

// Transfer mechanisms as the module's bit values.
constexpr WORD kMechNative = 1;
constexpr WORD kMechFile = 2;
constexpr WORD kMechMemory = 4;

constexpr int kScanToFileStateSize = 78;
static_assert(sizeof(ScanToFileSettings) == kScanToFileStateSize, "the scan to file keeps the whole record");
constexpr int kAppTitleSize = 256;

// The texts of one scan-to-file transfer variant.
struct ScanToFileTexts;

// The file name a source is to write, from the application's text used as a wsprintf format ("%%" gives "%"), its
// directives given zeros, cut to the 255 characters of a TW_STR255.
void ExpandFileName(const char *name, char *out);

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

// The source's memory-transfer buffer sizes, as GetMemXferSize repairs them.
struct BufferSizes {
    DWORD minimum;
    DWORD maximum;
    DWORD preferred;
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

    // The event filter: the source sees every message of the application's loop; its transfer-ready event runs the
    // transfer of all pending images by the mechanism the source has, its close request goes to the application.
    BOOL IsDSEvent(MSG *message);
    bool TransfersSuppressed();
    void ProcessScanImage();
    // The transfer loops, one pass per pending image, each image announced and ended with a notification.
    void DoNativeXfer();
    void DoFileXfer();
    void DoMemXfer();
    // The scan to file: configures and enables the default source from the settings record (NULL: defaults); 1 when
    // the source was enabled. Then every transfer-ready event writes the image to a file the application names, by
    // the variant of the mechanism the module set.
    DWORD ZephraScan(HWND window, const char *title, const ScanToFileSettings *settings);
    void ProcessZephraScanImage();
    void ZephraScanDoNativeXfer();
    void ZephraScanDoFileXfer();
    void ZephraScanDoMemXfer();
    // Bytes of one row of a device-independent bitmap of the image: its bits rounded up to whole 4-byte words.
    DWORD ImageBytesPerRow(const TW_IMAGEINFO *info);
    // Bitmap files. Results: 0, 1 (format not supported), 2 (out of memory), -2 (not enough disk space), -3 (file
    // create, read or write failure). Strip-wise: CheckDiskSpace, OpenFile, WriteDIBHeader, AppendBufferToFile per
    // strip, _lclose.
    DWORD ImageDataSize(const TW_IMAGEINFO *info);
    DWORD PaletteSize(int bits);
    int CheckDiskSpace(const char *name, const TW_IMAGEINFO *info);
    int WriteDIBHandleToFile(HGLOBAL dib, const char *name);
    int WriteDIBHeader(HFILE file, const TW_IMAGEINFO *info);
    int AppendBufferToFile(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer);
    int BufferToFile(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer);
    int BufferToFileForPlanar(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer);

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

    // Capability negotiation: one operation on the open source; remembers the mechanism set.
    TW_UINT16 CapNegotiate(UINT message, TW_CAPABILITY *capability);
    LONG IsNonUIAvailable(LONG *result);

    // Settings on the application's scale, mapped linearly onto the source's range.
    LONG GetDSBrightnessRange();
    LONG GetBrightness(short *value, LONG appMin, LONG appMax);
    LONG SetBrightness(LONG value, LONG appMin, LONG appMax);
    LONG GetContrast(short *value, LONG appMin, LONG appMax);
    LONG SetContrast(LONG value, LONG appMin, LONG appMax);
    LONG GetHighlight(short *value, LONG appMin, LONG appMax);
    LONG SetHighlight(LONG value, LONG appMin, LONG appMax);
    LONG GetShadow(short *value, LONG appMin, LONG appMax);
    LONG SetShadow(LONG value, LONG appMin, LONG appMax);
    LONG SetThreshold(LONG value, LONG appMin, LONG appMax);

    // Feeder, indicators, thumbnails, light path, gamma and the source's name.
    LONG IsADFAvailable(LONG *answer);
    LONG IsADFPaperLoaded(LONG *answer);
    LONG GetADFEnable(LONG *answer);
    LONG SetADFEnable(LONG value);
    LONG SetIndicatorEnable(LONG value);
    LONG SetAutoFeedEnable(LONG value);
    LONG GetThumbMode(LONG *answer);
    LONG SetThumbMode(LONG value);
    LONG SetLightpath(LONG value);
    LONG GetGamma(double *gamma);
    LONG SetGamma(double gamma);
    LONG GetDSProductName(char *buffer);

    // Units, area, pixel type and flavour, bit depth, image data set.
    LONG GetUnit(WORD *flag);
    LONG GetMaxArea(double *width, double *height);
    LONG GetPixelFlavor(LONG *answer);
    LONG GetPixelType(WORD *flag);
    LONG SetPixelType(LONG flag);
    LONG GetSupportedPixelType(WORD *flags);
    LONG SetSupportedPixelType(LONG flags);
    LONG Getbitdepth(LONG *depth);
    LONG SetBitDepth(LONG depth);
    LONG GetIndex(LONG *answer);
    LONG SetIndex(LONG count, const DWORD *list);

    // Paper size, transfer mechanism and count, resolution.
    LONG GetPaperSize(WORD *flag);
    LONG SetPaperSize(LONG flag);
    LONG GetSupportedPaperSize(WORD *flags);
    LONG SetSupportedPaperSize(LONG flags);
    LONG GetXferMech(WORD *flag);
    LONG SetXferMech(LONG flag);
    LONG GetXferCount(short *count);
    LONG SetXferCount(LONG count);
    LONG GetXResolution(short *current, short *minimum, short *maximum);
    LONG SetXResolution(LONG dpi);
    LONG GetYResolution(short *current, short *minimum, short *maximum);
    LONG SetYResolution(LONG dpi);
    LONG IsThisDPIAvailable(LONG x, LONG y);

    // Scaling, buffer sizes, pending count and the capability snapshot.
    LONG GetXScale(double *current, double *minimum, double *maximum);
    LONG SetXScale(double scale);
    LONG GetYScale(double *current, double *minimum, double *maximum);
    LONG SetYScale(double scale);
    LONG GetMemXferSize(DWORD *minimum, DWORD *maximum, DWORD *preferred);
    LONG EndThisXfer(WORD *count);
    LONG EndAllXfer();

    // The block reader: one block of the pending image per call into the caller's memory; *count
    // receives the bytes delivered, or 0xFFFFFFFF once the image ended, was cancelled or failed.
    LONG ReadBlock(BYTE *destination, DWORD destinationSize, DWORD *count);
    // The block reader starts its next call with a new image, as it does once an image ended: a session that ends
    // while the reader is in the middle of an image leaves nothing for the next one.
    void ForgetBlockReaderImage();
    LONG GetPendingCount(WORD *count);
    LONG GetScanCap(ScanCapRecord *record);

    // The scan frame (left, top, right, bottom in the unit flag `unit`), the palette (256 entries of 4 bytes) and
    // the size of the image about to be transferred.
    LONG SetImageLayout(double left, double top, double right, double bottom, WORD unit);
    LONG GetDSPalette(BYTE *table);
    void GetImageDim(LONG *width, LONG *length);

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
    ScanToFileSettings scanToFileState;
    UINT msgCloseDSReq;
    UINT msgXferStart;
    UINT msgXferData;
    UINT msgXferEnd;
    UINT msgScanToFileGetName;
    UINT msgScanToFileXferEnd;
    UINT msgScanToFileDSClosed;

    // The get and set patterns every accessor follows. Both first apply the availability and
    // sequence checks (results -1 and 11, nothing else done).
    enum class Outcome { NotAsked, Failed, Read };
    Outcome ReadCapability(const TraceCall &call, const GetSpec &accessor, CapReading &reading, LONG &result);
    LONG GetValue(const TraceCall &call, const GetSpec &accessor, void *output, size_t width);
    LONG SetCapability(const TraceCall &call, const SetSpec &accessor, const void *argument);
    // The same two patterns after the checks: the messages, or the candidate item types, in order.
    Outcome AskCapability(const TraceCall &call, const GetSpec &accessor, CapReading &reading, LONG &result);
    LONG SendCapability(const TraceCall &call, const SetSpec &accessor, const void *argument);
    LONG SetOne(const TraceCall &call, const SetSpec &accessor, TW_UINT32 word, double number = 0.0);
    bool AccessorReady(const TraceCall &call, LONG &result);

private:
    // One call into the source manager with the application as origin.
    TW_UINT16 CallDsm(pTW_IDENTITY dest, TW_UINT32 group, TW_UINT16 type, TW_UINT16 message, TW_MEMREF data);
    LONG ListSources(const TraceCall &call, const char *path, int &counter);
    LONG GetRangeScaled(const TraceCall &call, TW_UINT16 cap, double dsMin, double dsMax, short *value, LONG appMin,
                        LONG appMax);
    LONG SetRangeScaled(const TraceCall &call, const SetSpec &accessor, double dsMin, double dsMax, double dsStep,
                        LONG value, LONG appMin, LONG appMax, const char *badRange);
    LONG GetResolution(const TraceCall &call, TW_UINT16 cap, short *current, short *minimum, short *maximum);
    LONG GetScale(const TraceCall &call, TW_UINT16 cap, double *current, double *minimum, double *maximum);
    void ResolutionsFor(WORD unit, short *x, short *y);
    // Allocates the transfer buffer: the preferred size, then the minimum, then the maximum.
    bool ChooseBuffer(const TraceCall &call, TGlobalBuffer &buffer, DWORD preferred, DWORD minimum, DWORD maximum);
    // The native and file loops: `fetch` gets one announced image and answers its result.
    using FetchImage = LONG (TScanModule::*)(const TraceCall &call, ScanImageInfo &record);
    void TransferImages(const TraceCall &call, ScanImageInfo &record, WORD mechanism, void *target, FetchImage fetch);
    LONG FetchNative(const TraceCall &call, ScanImageInfo &record);
    LONG FetchFile(const TraceCall &call, ScanImageInfo &record);
    LONG FetchFailed(const TraceCall &call, TW_UINT16 rc);
    // One image of the memory transfer: its announcement and its blocks; `announced` tells whether XferStart went out.
    LONG TransferMemImage(const TraceCall &call, TGlobalBuffer &own, const BufferSizes &sizes, bool &announced);
    // The buffer of the next block: the descriptor's when it names one, else the module's own (made when missing).
    bool TakeBuffer(const TraceCall &call, TGlobalBuffer &own, const BufferSizes &sizes);
    // The row repair and the in-place sample swaps of one uncompressed block; false when the block does not fit its
    // buffer, or has rows to swap that overlap.
    bool ProcessBlock(const TraceCall &call, TW_IMAGEMEMXFER &block, DWORD bitmapRowBytes);
    void FillImageRecord(ScanImageInfo &record, const TW_IMAGEINFO &info, WORD mechanism, void *target);
    void CopyBlock(const TraceCall &call, const TW_IMAGEMEMXFER &block, const TGlobalBuffer &buffer, BYTE *destination,
                   DWORD destinationSize, DWORD *count);
    // The scan to file's settings: the defaults, and the repairs of what the application gave.
    void DefaultScanToFile();
    void ValidateScanToFile();
    // One announced image into the application's file: name, checks, `transfer`, the result reported. A transfer
    // that leaves its file open on failure hands it back in `file`.
    using ImageToFile = int (TScanModule::*)(const TraceCall &call, const char *name, const TW_IMAGEINFO &info,
                                             HFILE &file);
    void ScanImageToFile(const TraceCall &call, const ScanToFileTexts &texts, ImageToFile transfer);
    int NativeImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &info, HFILE &file);
    int FileImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &info, HFILE &file);
    int MemoryImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &info, HFILE &file);
    int ScanToFileFailed(const TraceCall &call, TW_UINT16 rc);
    // Ends the image; true when the batch goes on (asking the user when the feeder cannot tell).
    bool ScanToFileGoesOn();
    bool AskMorePages();
    void ShowInvalidImage();
    void CloseScanToFile(const TraceCall &call, const char *text);

public:
    // Closes the source and tells the application's window that the scan to file is over.
    void CloseScanToFileSource();

private:
    void InitAppIdentity(HINSTANCE instance);
    void RegisterMessages(const TraceCall &call);
};

// The one scan module of the process, created and deleted by the library entry.
extern TScanModule *theScanModule;
