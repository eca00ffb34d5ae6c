// The measured runs: smZephraScan by each mechanism, smIsDSEvent's memory transfer, smReadBlock, and the direct
// baseline with its variants, each from opening the source to closing it.
#include "Runs.h"

#include <cstring>

#include "StripFile.h"

namespace bench {

namespace {

const char kTitle[] = "smbench";
const char kWindowClass[] = "SmBenchApplication";
// A run that has not ended after this long stops the benchmark.
constexpr DWORD kRunTimeoutMs = 120000;
// The file-name buffer of ScanModule_ScanToFileGetName.
constexpr int kNameSize = 256;
// The resolution the per-call measurement gets and sets: one the scanner lists, so that it is taken as it is.
constexpr int kCallDpi = 150;

const VariantInfo kVariants[] = {
    {Variant::ScanToFileMemory, "scan to file, memory (smZephraScan)", Variant::DirectMaximum, BufferSize::Maximum},
    {Variant::ScanToFileNative, "scan to file, native (smZephraScan)", Variant::DirectMaximum, BufferSize::Maximum},
    {Variant::ScanToFileFile, "scan to file, file (smZephraScan)", Variant::DirectMaximum, BufferSize::Maximum},
    {Variant::AppMemory, "memory transfer, application writes (smIsDSEvent)", Variant::DirectPreferred,
     BufferSize::Preferred},
    {Variant::ReadBlock, "page into one buffer (smReadBlock)", Variant::DirectBuffer, BufferSize::Preferred},
    {Variant::DirectMaximum, "direct: to file, maximum buffer", Variant::Count, BufferSize::Maximum},
    {Variant::DirectPreferred, "direct: to file, preferred buffer", Variant::Count, BufferSize::Preferred},
    {Variant::DirectRowByRow, "direct: to file by the library's file calls, maximum buffer", Variant::DirectMaximum,
     BufferSize::Maximum},
    {Variant::DirectBuffer, "direct: into one buffer, preferred buffer", Variant::Count, BufferSize::Preferred},
    {Variant::SourceMaximum, "source alone, maximum buffer", Variant::Count, BufferSize::Maximum},
    {Variant::SourcePreferred, "source alone, preferred buffer", Variant::Count, BufferSize::Preferred},
};

// What the window procedure does with the library's messages during a run.
struct Application {
    UINT getName = 0, fileXferEnd = 0, dsClosed = 0, xferStart = 0, xferData = 0, xferEnd = 0, closeDSReq = 0;
    const ScanLibrary *library = nullptr;
    std::string fileName;
    StripFile *file = nullptr;
    LONG result = 0;
    bool writeFailed = false;
    int images = 0;
    bool closed = false;

    void Reset(const ScanLibrary *scanLibrary, const std::string &name, StripFile *writer) {
        library = scanLibrary;
        fileName = name;
        file = writer;
        result = 0;
        writeFailed = false;
        images = 0;
        closed = false;
    }
};
Application app;

TW_UINT16 PixelTypeOf(WORD flag) {
    TW_UINT16 type = 0;
    while (flag > 1) {
        flag >>= 1;
        ++type;
    }
    return type;
}

LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == app.getName) {
        lstrcpynA(reinterpret_cast<char *>(lParam), app.fileName.c_str(), kNameSize);
    } else if (message == app.fileXferEnd || message == app.xferEnd) {
        app.result = static_cast<LONG>(wParam);
        ++app.images;
        if (message == app.xferEnd && app.file)
            app.file->Close();
    } else if (message == app.dsClosed) {
        app.closed = true;
    } else if (message == app.xferStart) {
        const auto *image = reinterpret_cast<const ScanImageInfo *>(lParam);
        TW_IMAGEINFO info = {};
        info.ImageWidth = image->imageWidth;
        info.ImageLength = image->imageLength;
        info.BitsPerPixel = image->bitsPerPixel;
        info.SamplesPerPixel = image->samplesPerPixel;
        info.Planar = static_cast<TW_BOOL>(image->planar);
        info.PixelType = PixelTypeOf(image->pixelTypeFlag);
        app.writeFailed = !app.file || !app.file->Create(app.fileName, info);
    } else if (message == app.xferData) {
        // The library has put chunky RGB blue first already; planar blocks come as the source delivered them.
        const auto *block = reinterpret_cast<const ScanBlockInfo *>(lParam);
        auto *bytes = static_cast<BYTE *>(block->bufferDescriptor->address);
        if (!app.writeFailed && !app.file->Put(bytes, block->bytesPerRow, block->rows, block->yOffset, false))
            app.writeFailed = true;
    } else if (message == app.closeDSReq) {
        app.library->disableDS();
        app.library->closeDS();
        app.closed = true;
    } else {
        return DefWindowProcA(window, message, wParam, lParam);
    }
    return 0;
}

// Strips into a bitmap file of our own, red and blue exchanged as the source delivers them red first.
class FileSink : public StripSink {
public:
    FileSink(const std::string &path, std::vector<BYTE> &scratch,
             StripFile::Layout layout = StripFile::Layout::OncePerStrip)
        : path_(path), file_(scratch, layout) {}
    void Begin(const TW_IMAGEINFO &info) override {
        if (!file_.Create(path_, info))
            Fail("%s cannot be written", path_.c_str());
    }
    void Strip(const TW_IMAGEMEMXFER &strip, BYTE *data) override {
        if (!file_.Put(data, strip.BytesPerRow, strip.Rows, strip.YOffset, true))
            Fail("a strip could not be written to %s", path_.c_str());
    }
    void End() override { file_.Close(); }

private:
    std::string path_;
    StripFile file_;
};

// Strips copied into one buffer at their place.
class BufferSink : public StripSink {
public:
    explicit BufferSink(std::vector<BYTE> &page) : page_(page) {}
    void Strip(const TW_IMAGEMEMXFER &strip, BYTE *data) override {
        const size_t at = static_cast<size_t>(strip.YOffset) * strip.BytesPerRow;
        if (at + strip.BytesWritten > page_.size())
            Fail("a strip runs past the page buffer");
        std::memcpy(page_.data() + at, data, strip.BytesWritten);
    }

private:
    std::vector<BYTE> &page_;
};

class DiscardSink : public StripSink {
public:
    void Strip(const TW_IMAGEMEMXFER &, BYTE *) override {}
};

} // namespace

const VariantInfo &InfoOf(Variant variant) {
    return kVariants[static_cast<int>(variant)];
}

bool Applies(Variant variant, const PageFormat &format) {
    if (variant != Variant::ReadBlock && variant != Variant::DirectBuffer)
        return true;
    return !format.planar && (format.pixelType == TWPT_RGB || format.pixelType == TWPT_GRAY);
}

Runner::Runner(const std::string &outDir) : outDir_(outDir) {
    app.getName = RegisterWindowMessageA(SM_MSG_SCANTOFILE_GETNAME);
    app.fileXferEnd = RegisterWindowMessageA(SM_MSG_SCANTOFILE_XFEREND);
    app.dsClosed = RegisterWindowMessageA(SM_MSG_SCANTOFILE_DSCLOSED);
    app.xferStart = RegisterWindowMessageA(SM_MSG_XFERSTART);
    app.xferData = RegisterWindowMessageA(SM_MSG_XFERDATA);
    app.xferEnd = RegisterWindowMessageA(SM_MSG_XFEREND);
    app.closeDSReq = RegisterWindowMessageA(SM_MSG_CLOSEDSREQ);
    WNDCLASSA windowClass = {};
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleA(nullptr);
    windowClass.lpszClassName = kWindowClass;
    RegisterClassA(&windowClass);
    window_ = CreateWindowA(kWindowClass, kTitle, WS_OVERLAPPEDWINDOW, 0, 0, 320, 240, nullptr, nullptr,
                            windowClass.hInstance, nullptr);
    if (!window_)
        Fail("no application window");
    if (!direct_.Load())
        Fail("there is no source manager: %s\\TWAIN_32.DLL is missing", WindowsDir().c_str());
    // The scanner as the source manager loads it: the stand-in finds vscan.ds, Wine's manager only sane.ds.
    const std::string scanner = WindowsDir() + (direct_.IsStandIn() ? "\\twain_32\\vscan.ds" : "\\twain_32\\sane.ds");
    scanner_ = LoadLibraryA(scanner.c_str());
    if (!scanner_)
        Fail("the virtual scanner is not installed as %s (scripts/install-vscan)", scanner.c_str());
    setFault_ =
        reinterpret_cast<VscanSetFaultProc>(reinterpret_cast<void *>(GetProcAddress(scanner_, "VscanSetFault")));
    setValues_ =
        reinterpret_cast<VscanSetValuesProc>(reinterpret_cast<void *>(GetProcAddress(scanner_, "VscanSetValues")));
    if (!setFault_ || !setValues_)
        Fail("%s is not the virtual scanner", scanner.c_str());
}

Runner::~Runner() {
    library_.Free();
    direct_.Unload();
    if (scanner_) {
        OfferOnly(kAllMechanisms);
        RepeatRows(0);
        FreeLibrary(scanner_);
    }
    DestroyWindow(window_);
}

void Runner::RepeatRows(int rows) {
    setFault_(VSCAN_FAULT_REPEATROWS, rows);
}

void Runner::OfferOnly(int mechanism) {
    const double value = mechanism;
    setValues_(ICAP_XFERMECH, mechanism == kAllMechanisms ? 0 : 1, mechanism == kAllMechanisms ? nullptr : &value);
}

std::string Runner::FileOf(Variant variant, const Scan &scan) const {
    const char *kind = nullptr;
    switch (variant) {
    case Variant::ScanToFileMemory:
        kind = "memory";
        break;
    case Variant::ScanToFileNative:
        kind = "native";
        break;
    case Variant::ScanToFileFile:
        kind = "file";
        break;
    case Variant::AppMemory:
        kind = "application";
        break;
    case Variant::DirectMaximum:
        kind = "direct-maximum";
        break;
    case Variant::DirectPreferred:
        kind = "direct-preferred";
        break;
    case Variant::DirectRowByRow:
        kind = "direct-rows";
        break;
    default:
        return "";
    }
    std::string name = scan.format->name;
    for (char &c : name)
        c = c == ' ' ? '-' : c;
    return outDir_ + "\\" + name + "-" + kind + ".bmp";
}

void Runner::PreparePageBuffer(const Scan &scan) {
    page_.assign(static_cast<size_t>(ImageBytes(scan)), 1);
}

TW_SETUPMEMXFER Runner::BufferSizes(const Scan &scan) {
    direct_.Open(window_);
    direct_.Negotiate(scan);
    TW_SETUPMEMXFER sizes = {};
    direct_.Call(DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, &sizes);
    direct_.Close();
    return sizes;
}

double Runner::Run(Variant variant, const Scan &scan) {
    // The last run's file goes first: neither side pays for removing it.
    const std::string file = FileOf(variant, scan);
    if (!file.empty())
        DeleteFileA(file.c_str());
    switch (variant) {
    case Variant::ScanToFileMemory:
        return ScanToFile(scan, TWSX_MEMORY, file);
    case Variant::ScanToFileNative:
        return ScanToFile(scan, TWSX_NATIVE, file);
    case Variant::ScanToFileFile:
        return ScanToFile(scan, TWSX_FILE, file);
    case Variant::AppMemory:
        return AppMemory(scan, file);
    case Variant::ReadBlock:
        return ReadBlock(scan);
    case Variant::DirectMaximum:
    case Variant::DirectPreferred: {
        FileSink sink(file, scratch_);
        return DirectRun(scan, InfoOf(variant).buffer, sink);
    }
    case Variant::DirectRowByRow: {
        FileSink sink(file, scratch_, StripFile::Layout::RowByRow);
        return DirectRun(scan, BufferSize::Maximum, sink);
    }
    case Variant::DirectBuffer: {
        PreparePageBuffer(scan);
        BufferSink sink(page_);
        return DirectRun(scan, BufferSize::Preferred, sink);
    }
    default: {
        // The source's own work: strips into a buffer that is kept, so that its pages are not new for every image.
        DiscardSink sink;
        return DirectRun(scan, InfoOf(variant).buffer, sink, &sourceBuffer_);
    }
    }
}

void Runner::PumpLibrary(const bool &done, bool untilEvent) {
    const DWORD start = GetTickCount();
    while (!done) {
        MSG msg;
        while (!done && PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            if (library_.isDSEvent(&msg)) {
                if (untilEvent)
                    return;
                continue;
            }
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        if (done)
            break;
        if (GetTickCount() - start > kRunTimeoutMs)
            Fail("the library's run did not end within %lu s", kRunTimeoutMs / 1000);
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
    }
}

void Runner::NegotiateThroughLibrary(const Scan &scan) {
    const PageFormat &f = *scan.format;
    if (library_.setPaperSize(SM_PAPER_USLETTER) != SM_OK || library_.setPixelType(f.pixelFlag) != SM_OK ||
        library_.setBitDepth(f.bitDepth) != SM_OK || library_.setXResolution(scan.dpi) != SM_OK ||
        library_.setYResolution(scan.dpi) != SM_OK)
        Fail("the library could not set up a %d dpi %s page", scan.dpi, f.name);
    if (f.pixelType == TWPT_RGB)
        SetPlanar(f.planar);
}

void Runner::SetPlanar(bool planar) {
    TW_CAPABILITY capability = {ICAP_PLANARCHUNKY, TWON_ONEVALUE, GlobalAlloc(GHND, sizeof(TW_ONEVALUE))};
    auto *value = static_cast<TW_ONEVALUE *>(GlobalLock(capability.hContainer));
    value->ItemType = TWTY_UINT16;
    value->Item = planar ? TWPC_PLANAR : TWPC_CHUNKY;
    GlobalUnlock(capability.hContainer);
    const WORD rc = library_.capNegotiate(MSG_SET, &capability);
    GlobalFree(capability.hContainer);
    if (rc != TWRC_SUCCESS)
        Fail("the source refused ICAP_PLANARCHUNKY");
}

double Runner::ScanToFile(const Scan &scan, TW_UINT16 mechanism, const std::string &file) {
    OfferOnly(mechanism == TWSX_MEMORY ? kAllMechanisms : mechanism);
    library_.Load();
    app.Reset(&library_, file, nullptr);
    ScanToFileSettings settings = {};
    settings.frameRight = kLetterWidth;
    settings.frameBottom = kLetterHeight;
    settings.unitCode = SM_UNIT_INCHES;
    settings.pixelTypeCode = static_cast<WORD>(scan.format->pixelFlag);
    settings.resolution = static_cast<short>(scan.dpi);
    settings.brightnessMin = settings.contrastMin = -1000;
    settings.brightnessMax = settings.contrastMax = 1000;
    settings.highlight = settings.highlightMax = settings.shadowMax = 255;

    const double start = Now();
    // smZephraScan finds the source open, with the paper and the planar setting it has no field for.
    if (library_.openDS(window_, kTitle) != SM_OK || library_.setPaperSize(SM_PAPER_USLETTER) != SM_OK)
        Fail("the library could not open the source");
    if (scan.format->planar)
        SetPlanar(true);
    if (!library_.zephraScan(window_, kTitle, &settings))
        Fail("smZephraScan did not start");
    PumpLibrary(app.closed);
    const double seconds = Now() - start;

    library_.Free();
    OfferOnly(kAllMechanisms);
    if (app.images != 1 || app.result != SM_OK)
        Fail("the scan to file of a %s page ended with result %ld after %d images", scan.format->name, app.result,
             app.images);
    return seconds;
}

double Runner::AppMemory(const Scan &scan, const std::string &file) {
    library_.Load();
    StripFile writer(scratch_);
    app.Reset(&library_, file, &writer);
    const double start = Now();
    if (library_.openDS(window_, kTitle) != SM_OK)
        Fail("the library could not open the source");
    NegotiateThroughLibrary(scan);
    if (library_.setXferMech(SM_XFER_MEMORY) != SM_OK || library_.enableDS(FALSE, FALSE) != SM_OK)
        Fail("the library could not start a memory transfer");
    PumpLibrary(app.closed);
    const double seconds = Now() - start;
    library_.Free();
    if (app.images != 1 || app.result != SM_OK || app.writeFailed)
        Fail("the memory transfer of a %s page ended with result %ld after %d images%s", scan.format->name, app.result,
             app.images, app.writeFailed ? ", its file not written" : "");
    return seconds;
}

double Runner::ReadBlock(const Scan &scan) {
    // [Settings] SuppressTWAIN=2 beside the program keeps smIsDSEvent from transferring the image itself.
    const std::string settings = ProgramDir() + "\\CV_Scan.INI";
    WritePrivateProfileStringA("Settings", "SuppressTWAIN", "2", settings.c_str());
    if (page_.size() < static_cast<size_t>(ImageBytes(scan)))
        PreparePageBuffer(scan);
    library_.Load();
    const DWORD total = static_cast<DWORD>(ImageBytes(scan));
    const bool never = false;

    const double start = Now();
    if (library_.openDS(window_, kTitle) != SM_OK)
        Fail("the library could not open the source");
    NegotiateThroughLibrary(scan);
    if (library_.setXferMech(SM_XFER_MEMORY) != SM_OK || library_.enableDS(FALSE, FALSE) != SM_OK)
        Fail("the library could not start a memory transfer");
    PumpLibrary(never, true);
    DWORD got = 0;
    for (;;) {
        DWORD count = 0;
        if (library_.readBlock(page_.data() + got, total - got, &count)) {
            got = total; // the call that ends the image brings the rest
            break;
        }
        got += count;
        if (count == 0 || got > total)
            Fail("smReadBlock delivered %lu bytes of %lu", static_cast<unsigned long>(got),
                 static_cast<unsigned long>(total));
    }
    library_.disableDS();
    library_.closeDS();
    const double seconds = Now() - start;

    library_.Free();
    WritePrivateProfileStringA("Settings", nullptr, nullptr, settings.c_str());
    DeleteFileA(settings.c_str());
    return seconds;
}

void Runner::LibraryCalls(int calls, double &get, double &set) {
    library_.Load();
    if (library_.openDS(window_, kTitle) != SM_OK || library_.setXResolution(kCallDpi) != SM_OK)
        Fail("the library could not open the source and set its resolution");
    short current = 0, minimum = 0, maximum = 0;
    const double start = Now();
    for (int i = 0; i < calls; ++i)
        library_.getXResolution(&current, &minimum, &maximum);
    const double middle = Now();
    for (int i = 0; i < calls; ++i)
        library_.setXResolution(kCallDpi);
    const double end = Now();
    if (current != kCallDpi || library_.setXResolution(kCallDpi) != SM_OK)
        Fail("smGetXResolution answered %d dpi where %d were set", current, kCallDpi);
    library_.closeDS();
    library_.Free();
    get = (middle - start) / calls;
    set = (end - middle) / calls;
}

void Runner::DirectCalls(int calls, double &get, double &set) {
    direct_.Open(window_);
    if (!direct_.SetXResolution(kCallDpi))
        Fail("the source refused %d dpi", kCallDpi);
    double current = 0, minimum = 0, maximum = 0;
    bool read = true;
    const double start = Now();
    for (int i = 0; i < calls; ++i)
        read = direct_.GetXResolution(current, minimum, maximum) && read;
    const double middle = Now();
    bool taken = true;
    for (int i = 0; i < calls; ++i)
        taken = direct_.SetXResolution(kCallDpi) && taken;
    const double end = Now();
    direct_.Close();
    if (!read || !taken || current != kCallDpi)
        Fail("the direct capability calls failed");
    get = (middle - start) / calls;
    set = (end - middle) / calls;
}

double Runner::DirectRun(const Scan &scan, BufferSize size, StripSink &sink, std::vector<BYTE> *kept) {
    const double start = Now();
    direct_.Open(window_);
    direct_.Negotiate(scan);
    direct_.TransferImage(size, sink, kept);
    direct_.Close();
    return Now() - start;
}

} // namespace bench
