// The scan to file: smZephraScan's settings and session, and the native, file and memory transfers into files.
#include <cstring>

#include "ScanModule.h"
#include "resource.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_10");
// The application writes the next image's file name into a buffer of this many characters.
constexpr int kNameSize = 256;
// Message boxes load their texts into buffers of this size.
constexpr int kBoxTextSize = 256;
constexpr UINT kQuestionStyle = MB_YESNO | MB_TASKMODAL;
constexpr UINT kInvalidImageStyle = MB_OK | MB_TASKMODAL;
// The default frame is the largest area less one dot at this resolution.
constexpr double kFrameDpi = 300.0;

// Results of an image besides the bitmap writer's and the source's condition codes.
constexpr int kImageWritten = 0;
constexpr int kImageRefused = 1;
constexpr int kLowMemory = 2;
constexpr int kFileError = -3;
constexpr int kSourceCancelled = -4;

// Settings checked against their defaults.
constexpr short kLowestResolution = 100;
constexpr short kToneMin = -1000;
constexpr short kToneMax = 1000;
constexpr short kLevelMin = 0;
constexpr short kLevelMax = 255;

// The formats the bitmap writer takes: pixel type and bits per pixel.
bool IsWritableFormat(const TW_IMAGEINFO &info) {
    switch (info.PixelType) {
    case TWPT_BW:
        return info.BitsPerPixel == 1;
    case TWPT_GRAY:
        return info.BitsPerPixel == 8;
    case TWPT_PALETTE:
        return info.BitsPerPixel == 4 || info.BitsPerPixel == 8;
    case TWPT_RGB:
        return info.BitsPerPixel == 24;
    default:
        return false;
    }
}

// A scale whose minimum is not below its maximum is replaced by the default one; a value outside the scale then
// becomes the maximum, or the minimum when `clampToMin`.
void CheckScale(short &value, short &minimum, short &maximum, short defaultValue, short defaultMin, short defaultMax,
                bool clampToMin = false) {
    if (minimum >= maximum) {
        value = defaultValue;
        minimum = defaultMin;
        maximum = defaultMax;
    }
    if (value < minimum || value > maximum)
        value = clampToMin ? minimum : maximum;
}

void DeleteNamedFile(const char *name) {
    OFSTRUCT of = {};
    OpenFile(name, &of, OF_DELETE);
}

} // namespace

// The progress and failure texts of one transfer variant, each followed by " in TScanModule::<variant>".
struct ScanToFileTexts {
    const char *getName;
    const char *infoError;
    const char *unknownSize;
    const char *xferEnd;
    const char *dsClosed;
};

namespace {

const ScanToFileTexts kNativeTexts = {"Send SM_SCANTOFILEGETNAME to get file name", "MSG_GET DAT_IMAGEINFO error",
                                      "MSG_GET DAT_IMAGEINFO error", "Send WM_SCANTOFILEXFEREND to AP",
                                      "Send WM_SCANTOFILEDSCLOSED"};
const ScanToFileTexts kFileTexts = {"Send SM_SCANTOFILEGETNAME to get file name", "MSG_GET DAT_IMAGEINFO error",
                                    "Cannot support unknown length or height", "Send WM_SCANTOFILEXFEREND to AP",
                                    "Send WM_SCANTOFILEDSCLOSED to AP"};
const ScanToFileTexts kMemoryTexts = {"Send WM_SCANTOFILEGETNAME to get file name", "Error in MSG_GET DAT_IMAGEINFO",
                                      "Cannot support unknown length or height", "Send WM_SCANTOFILEXFEREND",
                                      "Send WM_SCANTOFILEDSCLOSED"};

} // namespace

void TScanModule::DefaultScanToFile() {
    double width = 0.0, height = 0.0;
    GetMaxArea(&width, &height);
    ScanToFileSettings &s = scanToFileState;
    s.frameLeft = 0.0;
    s.frameTop = 0.0;
    s.frameRight = (width * kFrameDpi - 1.0) * (1.0 / kFrameDpi);
    s.frameBottom = (height * kFrameDpi - 1.0) * (1.0 / kFrameDpi);
    s.unitCode = SM_UNIT_INCHES;
    s.pixelTypeCode = SM_PIXEL_GRAY;
    s.resolution = 300;
    s.brightness = 0, s.brightnessMin = kToneMin, s.brightnessMax = kToneMax;
    s.contrast = 0, s.contrastMin = kToneMin, s.contrastMax = kToneMax;
    s.highlight = kLevelMax, s.highlightMin = kLevelMin, s.highlightMax = kLevelMax;
    s.shadow = kLevelMin, s.shadowMin = kLevelMin, s.shadowMax = kLevelMax;
    s.modalUI = 1;
    s.morePages = 0;
    s.showSourceUI = 1;
    s.useFeeder = 1;
}

void TScanModule::ValidateScanToFile() {
    ScanToFileSettings &s = scanToFileState;
    if (s.unitCode != SM_UNIT_INCHES && s.unitCode != SM_UNIT_CENTIMETERS)
        s.unitCode = SM_UNIT_INCHES;
    if (s.resolution <= 0)
        s.resolution = kLowestResolution;
    if (s.pixelTypeCode != SM_PIXEL_BW && s.pixelTypeCode != SM_PIXEL_GRAY && s.pixelTypeCode != SM_PIXEL_RGB) {
        s.pixelTypeCode = SM_PIXEL_GRAY;
        s.showSourceUI = 1;
    }
    CheckScale(s.brightness, s.brightnessMin, s.brightnessMax, 0, kToneMin, kToneMax);
    CheckScale(s.contrast, s.contrastMin, s.contrastMax, 0, kToneMin, kToneMax);
    CheckScale(s.highlight, s.highlightMin, s.highlightMax, kLevelMax, kLevelMin, kLevelMax);
    CheckScale(s.shadow, s.shadowMin, s.shadowMax, kLevelMin, kLevelMin, kLevelMax, true);
}

DWORD TScanModule::ZephraScan(HWND window, const char *title, const ScanToFileSettings *settings) {
    TraceCall call(kSource, "ZephraScan", __LINE__, __LINE__);
    if (settings)
        std::memcpy(&scanToFileState, settings, sizeof scanToFileState);
    else
        DefaultScanToFile();
    call.NoteIn(__LINE__, "Processing some settings");
    ValidateScanToFile();
    ScanToFileSettings &s = scanToFileState;

    if (OpenDS(window, title) != 0) {
        call.Warn(__LINE__, "OpenDS returns failure");
        return 0;
    }
    // A setting the source refuses is left to the user: its interface is shown.
    if (SetPixelType(s.pixelTypeCode) != 0) {
        call.Warn(__LINE__, "SetPixelType returns failure");
        s.showSourceUI = 1;
    }
    if (SetXResolution(s.resolution) != 0 || SetYResolution(s.resolution) != 0) {
        call.Warn(__LINE__, "Resolution setting return failure");
        s.showSourceUI = 1;
    }
    SetBrightness(s.brightness, s.brightnessMin, s.brightnessMax);
    SetContrast(s.contrast, s.contrastMin, s.contrastMax);
    SetHighlight(s.highlight, s.highlightMin, s.highlightMax);
    SetShadow(s.shadow, s.shadowMin, s.shadowMax);
    SetXferCount(s.morePages ? -1 : 1);
    SetADFEnable(static_cast<LONG>(s.useFeeder));

    call.NoteIn(__LINE__, "Set Xfer Mech");
    if (SetXferMech(kMechMemory) != 0 && SetXferMech(kMechFile) != 0 && SetXferMech(kMechNative) != 0) {
        // The source stays open, and the scan to file is not started.
        call.NoExit();
        return 0;
    }
    DWORD result = 1;
    if (EnableDS(static_cast<BOOL>(s.showSourceUI), static_cast<BOOL>(s.modalUI)) != 0) {
        call.Warn(__LINE__, "EnableDS returns failure");
        DisableDS();
        CloseDS();
        result = 0;
    }
    scanToFileActive = TRUE;
    return result;
}

void TScanModule::ProcessZephraScanImage() {
    TraceCall call(kSource, "ProcessZephraScanImage", __LINE__, __LINE__);
    if (transferMechanism == kMechNative)
        ZephraScanDoNativeXfer();
    else if (transferMechanism == kMechFile)
        ZephraScanDoFileXfer();
    else
        ZephraScanDoMemXfer();
}

void TScanModule::ZephraScanDoNativeXfer() {
    TraceCall call(kSource, "ZephraScanDoNativeXfer", __LINE__, __LINE__);
    ScanImageToFile(call, kNativeTexts, &TScanModule::NativeImageToFile);
    const bool goOn = ScanToFileGoesOn();
    if (!goOn || !scanToFileState.showSourceUI)
        CloseScanToFile(call, kNativeTexts.dsClosed);
}

void TScanModule::ZephraScanDoFileXfer() {
    TraceCall call(kSource, "ZephraScanDoFileXfer", __LINE__, __LINE__);
    ScanImageToFile(call, kFileTexts, &TScanModule::FileImageToFile);
    // The question is asked as for the other transfers, but its answer does not keep this batch going.
    ScanToFileGoesOn();
    CloseScanToFile(call, kFileTexts.dsClosed);
}

void TScanModule::ZephraScanDoMemXfer() {
    TraceCall call(kSource, "ZephraScanDoMemXfer", __LINE__, __LINE__);
    ScanImageToFile(call, kMemoryTexts, &TScanModule::MemoryImageToFile);
    const bool goOn = ScanToFileGoesOn();
    if (!goOn || !scanToFileState.showSourceUI)
        CloseScanToFile(call, kMemoryTexts.dsClosed);
}

// One announced image into the file the application names; every outcome is reported with its result.
void TScanModule::ScanImageToFile(const TraceCall &call, const ScanToFileTexts &texts, ImageToFile transfer) {
    char name[kNameSize] = "";
    call.NoteIn(__LINE__, texts.getName);
    SendMessageA(parentWindow, msgScanToFileGetName, 0, reinterpret_cast<LPARAM>(name));
    name[kNameSize - 1] = '\0';
    DeleteNamedFile(name);

    int result = kImageWritten;
    HFILE file = HFILE_ERROR;
    TW_IMAGEINFO info = {};
    if (CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS) {
        call.Warn(__LINE__, texts.infoError);
        result = kImageRefused;
    } else if (info.ImageWidth == -1 || info.ImageLength == -1) {
        call.Warn(__LINE__, texts.unknownSize);
        result = kImageRefused;
    } else if (!IsWritableFormat(info)) {
        call.Warn(__LINE__, "Invalid pixel type");
        ShowInvalidImage();
        result = kImageRefused;
    } else if ((result = CheckDiskSpace(name, &info)) != 0) {
        call.Warn(__LINE__, "CheckDiskSpace returns failure");
    } else {
        result = (this->*transfer)(call, name, info, file);
    }
    if (result != kImageWritten)
        DeleteNamedFile(name);
    // The strip loop leaves its file open when it fails, and an open file is not deleted everywhere: the file is
    // closed now and deleted again, so that a failed image leaves neither a file nor a handle behind.
    if (file != HFILE_ERROR) {
        _lclose(file);
        if (result != kImageWritten)
            DeleteNamedFile(name);
    }
    call.NoteIn(__LINE__, texts.xferEnd);
    SendMessageA(parentWindow, msgScanToFileXferEnd, static_cast<WPARAM>(result), 0);
}

// DG_IMAGE / DAT_IMAGENATIVEXFER / MSG_GET: the source's bitmap, written to the file and freed.
int TScanModule::NativeImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &, HFILE &) {
    call.NoteIn(__LINE__, "MSG_GET DAT_IMAGENATIVEXFER");
    TW_UINT32 bitmap = 0;
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &bitmap);
    if (rc == TWRC_XFERDONE) {
        HGLOBAL handle = reinterpret_cast<HGLOBAL>(static_cast<ULONG_PTR>(bitmap));
        const int result = WriteDIBHandleToFile(handle, name);
        GlobalFree(handle);
        return result;
    }
    return ScanToFileFailed(call, rc);
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_SET, then DG_IMAGE / DAT_IMAGEFILEXFER / MSG_GET: the source writes the file.
int TScanModule::FileImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &, HFILE &) {
    call.NoteIn(__LINE__, "MSG_SET DAT_SETUPFILEXFER");
    TW_SETUPFILEXFER setup = {};
    // The name goes through wsprintf as its format, so "%%" in it stands for "%".
    ExpandFileName(name, setup.FileName);
    setup.Format = TWFF_BMP;
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "MSG_SET DAT_SETUPFILEXFER error");
        return GetTWAINStatusCode();
    }
    call.NoteIn(__LINE__, "MSG_GET DAT_IMAGEFILEXFER");
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr);
    return rc == TWRC_XFERDONE ? kImageWritten : ScanToFileFailed(call, rc);
}

// DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET, strip after strip into the module's buffer and on into the file.
int TScanModule::MemoryImageToFile(const TraceCall &call, const char *name, const TW_IMAGEINFO &info, HFILE &file) {
    BufferSizes sizes = {};
    GetMemXferSize(&sizes.minimum, &sizes.maximum, &sizes.preferred);
    TGlobalBuffer buffer(sizes.maximum);
    if (!buffer.handle || !buffer.data) {
        call.Warn(__LINE__, "Low Memory");
        return kLowMemory;
    }
    OFSTRUCT of = {};
    file = OpenFile(name, &of, OF_CREATE);
    if (file == HFILE_ERROR) {
        call.Warn(__LINE__, "Create file error");
        return kFileError;
    }
    int result = WriteDIBHeader(file, &info);
    if (result != 0) {
        call.Warn(__LINE__, "WriteDIBHeader returns failure");
        _lclose(file);
        file = HFILE_ERROR;
        return result;
    }
    call.NoteIn(__LINE__, "Do while-loop to get image data");
    BYTE *data = static_cast<BYTE *>(buffer.data);
    for (;;) {
        TW_IMAGEMEMXFER strip = {};
        strip.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
        strip.Memory.Length = buffer.size;
        strip.Memory.TheMem = data;
        const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &strip);
        if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE)
            return ScanToFileFailed(call, rc);
        // The strip's rows are read, and swapped in place, as far as its bytes go: never past the buffer's end.
        if (strip.BytesWritten > buffer.size) {
            call.Warn(__LINE__, "Bad Value, BytesWritten > buffer size,");
            return TWCC_BADVALUE;
        }
        if ((result = AppendBufferToFile(file, &info, &strip, data)) != 0)
            return result;
        if (rc == TWRC_XFERDONE)
            break;
    }
    _lclose(file);
    file = HFILE_ERROR;
    return kImageWritten;
}

// A transfer the source cancelled (-4) or failed (its condition code).
int TScanModule::ScanToFileFailed(const TraceCall &call, TW_UINT16 rc) {
    if (rc == TWRC_CANCEL) {
        call.Warn(__LINE__, "Image xfer canceled");
        return kSourceCancelled;
    }
    call.Warn(__LINE__, "Image xfer error");
    return GetTWAINStatusCode();
}

// Ends the image's transfer; true when the batch is to go on with the source enabled.
bool TScanModule::ScanToFileGoesOn() {
    WORD pending = 0;
    EndThisXfer(&pending);
    if (!scanToFileState.morePages)
        return false;
    if (pending == 0)
        return true;
    if (scanToFileState.useFeeder) {
        LONG paper = 0;
        IsADFPaperLoaded(&paper);
        if (paper)
            return true;
    }
    return AskMorePages();
}

bool TScanModule::AskMorePages() {
    char text[kBoxTextSize] = "";
    LoadStringA(moduleInstance, IDS_MORE_PAGES, text, sizeof text);
    return MessageBoxA(GetFocus(), text, appTitle, kQuestionStyle) != IDNO;
}

void TScanModule::ShowInvalidImage() {
    char text[kBoxTextSize] = "";
    char caption[kBoxTextSize] = "";
    LoadStringA(moduleInstance, IDS_INVALID_PIXEL_TYPE, text, sizeof text);
    LoadStringA(moduleInstance, IDS_ERROR_CAPTION, caption, sizeof caption);
    MessageBoxA(GetFocus(), text, caption, kInvalidImageStyle);
}

// The end of the batch: what is still pending is dropped, the source disabled and closed, and the application told.
void TScanModule::CloseScanToFile(const TraceCall &call, const char *text) {
    call.NoteIn(__LINE__, text);
    EndAllXfer();
    DisableDS();
    CloseScanToFileSource();
}

// Closing the source manager gives the parent window back to the desktop, so the application's window is taken
// first: the end of the batch is told to the window the batch ran for.
void TScanModule::CloseScanToFileSource() {
    HWND window = parentWindow;
    CloseDS();
    SendMessageA(window, msgScanToFileDSClosed, 0, 0);
}
