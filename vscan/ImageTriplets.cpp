// The image group: image information, layout (the frame), palette, and native, file and memory transfers.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "Caps.h"
#include "Page.h"
#include "Triplets.h"

namespace vscan {

namespace {

constexpr int kPaletteSlots = 256;

TW_UINT16 Mechanism(const Source &s) {
    return static_cast<TW_UINT16>(CapValue(s, ICAP_XFERMECH));
}

// The image at the head of the batch: as negotiated before its transfer, as taken once it began.
PageFormat CurrentFormat(const Source &s) {
    return s.xfer.started ? s.xfer.format : NegotiatedFormat(s);
}

// State 6 to 7: the image's format is fixed and it is counted.
void BeginImage(Source &s) {
    s.xfer = Transfer{};
    s.xfer.started = true;
    s.xfer.format = NegotiatedFormat(s);
    s.xfer.rows = ImageRows(s.xfer.format);
    ++s.imagesStarted;
    s.state = VSCAN_STATE_XFERRING;
}

// Back to state 6 when a transfer could not even start.
TW_UINT16 UndoBegin(Call &call, TW_UINT16 cc) {
    Source &s = call.source;
    s.xfer = Transfer{};
    --s.imagesStarted;
    s.state = VSCAN_STATE_XFERREADY;
    return Fail(call.cc, cc);
}

// The cancel fault for native and file transfers: the image CANCELIMAGE.
bool CancelsImage(const Source &s) {
    const int image = s.faults[VSCAN_FAULT_CANCELIMAGE];
    return image > 0 && image == s.imagesStarted;
}

// The cancel fault for memory transfers: block CANCELBLOCK (1 by default) of image CANCELIMAGE (each by default).
bool CancelsBlock(const Source &s, int block) {
    const int image = s.faults[VSCAN_FAULT_CANCELIMAGE];
    const int at = s.faults[VSCAN_FAULT_CANCELBLOCK];
    if ((image == 0 && at == 0) || (image != 0 && image != s.imagesStarted))
        return false;
    return block == (at > 0 ? at : 1);
}

TW_UINT16 Cancelled(Source &s) {
    s.xfer.done = true;
    return TWRC_CANCEL;
}

void PutFrame(const Source &s, const Frame &frame, TW_FRAME &out) {
    out.Left = ToFix32(InchesToUnits(s, frame.left, false));
    out.Top = ToFix32(InchesToUnits(s, frame.top, true));
    out.Right = ToFix32(InchesToUnits(s, frame.right, false));
    out.Bottom = ToFix32(InchesToUnits(s, frame.bottom, true));
}

void PutLayout(const Source &s, const Frame &frame, TW_IMAGELAYOUT &layout) {
    PutFrame(s, frame, layout.Frame);
    layout.DocumentNumber = 1;
    layout.PageNumber = s.batch.empty() ? 1 : s.batch.front();
    layout.FrameNumber = 1;
}

Frame BedFrame() {
    return Frame{0, 0, kBedWidth, kBedHeight};
}

// Limits a frame to the bed; false when nothing of it is left.
bool FitFrame(Frame &frame, bool &clipped) {
    constexpr double tolerance = kFix32Step;
    clipped = false;
    if (frame.left < -tolerance || frame.top < -tolerance)
        return false;
    frame.left = std::max(frame.left, 0.0);
    frame.top = std::max(frame.top, 0.0);
    if (frame.right > kBedWidth + tolerance || frame.bottom > kBedHeight + tolerance) {
        clipped = true;
        frame.right = std::min(frame.right, kBedWidth);
        frame.bottom = std::min(frame.bottom, kBedHeight);
    }
    return frame.right > frame.left && frame.bottom > frame.top;
}

bool WriteFile(const char *path, const std::vector<uint8_t> &bytes) {
    HANDLE file = CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL ok = ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
    return ok && written == bytes.size();
}

// Delivers rows of the current plane into a strip, each padded per the ROWALIGN fault; the strip's fields as the
// faults have them. True when the whole image is delivered.
bool FillStrip(Source &s, TW_IMAGEMEMXFER &mx, uint8_t *buffer, TW_UINT32 rows) {
    Transfer &x = s.xfer;
    const int *faults = s.faults;
    const TW_UINT32 pixelBytes = MemoryBytesPerRow(x.format);
    const TW_UINT32 bytesPerRow = StripBytesPerRow(s, x.format);
    for (TW_UINT32 i = 0; i < rows; ++i) {
        uint8_t *row = buffer + i * bytesPerRow;
        x.rows.Row(x.nextRow + static_cast<int>(i), x.format.planar ? x.plane : -1, row);
        std::memset(row + pixelBytes, VSCAN_ROW_PADDING, bytesPerRow - pixelBytes);
    }
    const int forcedRows = faults[VSCAN_FAULT_STRIPROWS];
    mx.Compression = static_cast<TW_UINT16>(faults[VSCAN_FAULT_COMPRESSION]); // TWCP_NONE unless switched
    mx.BytesPerRow = bytesPerRow;
    mx.Columns = static_cast<TW_UINT32>(x.format.width + faults[VSCAN_FAULT_COLUMNSDELTA]);
    mx.Rows = forcedRows == VSCAN_STRIPROWS_OFF ? rows : static_cast<TW_UINT32>(forcedRows);
    mx.XOffset = static_cast<TW_UINT32>(faults[VSCAN_FAULT_STRIPXOFFSETDELTA]);
    mx.YOffset = static_cast<TW_UINT32>(x.nextRow + faults[VSCAN_FAULT_STRIPYOFFSETDELTA]);
    mx.BytesWritten = rows * bytesPerRow + faults[VSCAN_FAULT_BYTESWRITTENDELTA];
    x.nextRow += rows;
    if (x.nextRow < x.format.height)
        return false;
    if (x.format.planar && x.plane < 2) {
        ++x.plane;
        x.nextRow = 0;
        return false;
    }
    return true;
}

} // namespace

// DG_IMAGE / DAT_IMAGEINFO / MSG_GET
TW_UINT16 GetImageInfo(Call &call) {
    const Source &s = call.source;
    auto *info = static_cast<TW_IMAGEINFO *>(call.data);
    const PageFormat f = CurrentFormat(s);
    std::memset(info, 0, sizeof *info);
    info->XResolution = ToFix32(XResolution(s) * ResolutionFactor(s));
    info->YResolution = ToFix32(YResolution(s) * ResolutionFactor(s));
    info->ImageWidth = f.width;
    info->ImageLength = s.faults[VSCAN_FAULT_UNKNOWNLENGTH] ? -1 : f.height;
    info->SamplesPerPixel = static_cast<TW_INT16>(SamplesPerPixel(f.pixelType));
    for (int i = 0; i < info->SamplesPerPixel; ++i)
        info->BitsPerSample[i] = static_cast<TW_INT16>(BitsPerSample(f));
    info->BitsPerPixel = static_cast<TW_INT16>(f.bitDepth);
    info->Planar = f.planar && Mechanism(s) == TWSX_MEMORY; // bitmaps are always chunky
    const int forcedType = s.faults[VSCAN_FAULT_IMAGEPIXELTYPE];
    info->PixelType = static_cast<TW_INT16>(forcedType == VSCAN_IMAGEPIXELTYPE_OFF ? f.pixelType : forcedType);
    info->Compression = static_cast<TW_UINT16>(s.faults[VSCAN_FAULT_COMPRESSION]); // TWCP_NONE unless switched
    return TWRC_SUCCESS;
}

// DG_IMAGE / DAT_IMAGELAYOUT / MSG_GET: the frame in the current units.
TW_UINT16 GetImageLayout(Call &call) {
    PutLayout(call.source, call.source.frame, *static_cast<TW_IMAGELAYOUT *>(call.data));
    return TWRC_SUCCESS;
}

// DG_IMAGE / DAT_IMAGELAYOUT / MSG_GETDEFAULT: the whole bed.
TW_UINT16 GetDefaultImageLayout(Call &call) {
    PutLayout(call.source, BedFrame(), *static_cast<TW_IMAGELAYOUT *>(call.data));
    return TWRC_SUCCESS;
}

// DG_IMAGE / DAT_IMAGELAYOUT / MSG_SET: a frame beyond the bed is cut to it (TWRC_CHECKSTATUS).
TW_UINT16 SetImageLayout(Call &call) {
    Source &s = call.source;
    auto *layout = static_cast<TW_IMAGELAYOUT *>(call.data);
    Frame frame{UnitsToInches(s, FromFix32(layout->Frame.Left), false),
                UnitsToInches(s, FromFix32(layout->Frame.Top), true),
                UnitsToInches(s, FromFix32(layout->Frame.Right), false),
                UnitsToInches(s, FromFix32(layout->Frame.Bottom), true)};
    bool clipped;
    if (!FitFrame(frame, clipped))
        return Fail(call.cc, TWCC_BADVALUE);
    ForceCapValue(s, ICAP_SUPPORTEDSIZES, TWSS_NONE); // even outside a constraint
    s.frame = frame;
    PutLayout(s, s.frame, *layout);
    return clipped ? TWRC_CHECKSTATUS : TWRC_SUCCESS;
}

// DG_IMAGE / DAT_IMAGELAYOUT / MSG_RESET
TW_UINT16 ResetImageLayout(Call &call) {
    Source &s = call.source;
    ForceCapValue(s, ICAP_SUPPORTEDSIZES, TWSS_NONE); // even outside a constraint
    s.frame = BedFrame();
    return GetImageLayout(call);
}

// DG_IMAGE / DAT_PALETTE8 / MSG_GET, MSG_GETDEFAULT: the palette of palette images, else a gray ramp.
TW_UINT16 GetPalette(Call &call) {
    const Source &s = call.source;
    auto *palette = static_cast<TW_PALETTE8 *>(call.data);
    const PageFormat f = CurrentFormat(s);
    const std::vector<TW_ELEMENT8> colours = PaletteOf(f);
    std::memset(palette, 0, sizeof *palette);
    const int forced = s.faults[VSCAN_FAULT_PALETTECOLORS];
    palette->NumColors = static_cast<TW_UINT16>(forced ? forced : static_cast<int>(colours.size()));
    palette->PaletteType = f.pixelType == TWPT_PALETTE ? TWPA_RGB : TWPA_GRAY;
    const size_t n = std::min<size_t>(colours.size(), kPaletteSlots);
    std::memcpy(palette->Colors, colours.data(), n * sizeof(TW_ELEMENT8));
    return TWRC_SUCCESS;
}

// DG_IMAGE / DAT_IMAGENATIVEXFER / MSG_GET: a packed DIB in global memory, its handle in the TW_UINT32.
TW_UINT16 NativeXfer(Call &call) {
    Source &s = call.source;
    if (Mechanism(s) != TWSX_NATIVE)
        return Fail(call.cc, TWCC_SEQERROR);
    BeginImage(s);
    if (CancelsImage(s))
        return Cancelled(s);
    const std::vector<uint8_t> dib = BuildDib(s.xfer.format, XResolution(s), YResolution(s));
    HGLOBAL handle = GlobalAlloc(GMEM_MOVEABLE, dib.size());
    void *bytes = handle ? GlobalLock(handle) : nullptr;
    if (!bytes) {
        if (handle)
            GlobalFree(handle);
        return UndoBegin(call, TWCC_LOWMEMORY);
    }
    std::memcpy(bytes, dib.data(), dib.size());
    GlobalUnlock(handle);
    *static_cast<TW_UINT32 *>(call.data) = static_cast<TW_UINT32>(reinterpret_cast<UINT_PTR>(handle));
    s.xfer.done = true;
    return TWRC_XFERDONE;
}

// DG_IMAGE / DAT_IMAGEFILEXFER / MSG_GET: a BMP file where DAT_SETUPFILEXFER said.
TW_UINT16 FileXfer(Call &call) {
    Source &s = call.source;
    if (Mechanism(s) != TWSX_FILE)
        return Fail(call.cc, TWCC_SEQERROR);
    BeginImage(s);
    if (CancelsImage(s))
        return Cancelled(s);
    if (!WriteFile(s.fileXfer.FileName, BuildBmpFile(s.xfer.format, XResolution(s), YResolution(s))))
        return UndoBegin(call, TWCC_FILEWRITEERROR);
    s.xfer.done = true;
    return TWRC_XFERDONE;
}

// DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET: whole (padded) rows per strip; planar images plane after plane.
TW_UINT16 MemoryXfer(Call &call) {
    Source &s = call.source;
    if (Mechanism(s) != TWSX_MEMORY || s.xfer.done)
        return Fail(call.cc, TWCC_SEQERROR);
    auto *mx = static_cast<TW_IMAGEMEMXFER *>(call.data);
    const PageFormat f = CurrentFormat(s);
    const bool handle = (mx->Memory.Flags & TWMF_HANDLE) != 0;
    auto *buffer =
        static_cast<uint8_t *>(handle ? GlobalLock(static_cast<HGLOBAL>(mx->Memory.TheMem)) : mx->Memory.TheMem);
    const TW_UINT32 rowsLeft = static_cast<TW_UINT32>(f.height - (s.xfer.started ? s.xfer.nextRow : 0));
    const TW_UINT32 rows = std::min(mx->Memory.Length / StripBytesPerRow(s, f), rowsLeft);
    TW_UINT16 rc;
    if (!buffer || rows == 0) {
        rc = Fail(call.cc, TWCC_BADVALUE);
    } else {
        if (!s.xfer.started)
            BeginImage(s);
        if (CancelsBlock(s, ++s.xfer.blocks))
            rc = Cancelled(s);
        else
            rc = FillStrip(s, *mx, buffer, rows) ? TWRC_XFERDONE : TWRC_SUCCESS;
        s.xfer.done = s.xfer.done || rc == TWRC_XFERDONE;
    }
    if (handle && buffer)
        GlobalUnlock(static_cast<HGLOBAL>(mx->Memory.TheMem));
    return rc;
}

} // namespace vscan
