// Transfers: the native, file and memory loops of the event filter, their buffer, and the reader behind smReadBlock.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ScanModule.h"
#include "Utility.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_8");
// The memory transfer's name, which the buffer records carry for both of its forms.
const char kMemoryTransfer[] = "DoMemXfer";
// The close request after a native or a file transfer names the native loop in both.
const char kNativeTransfer[] = "DoNativeXfer";
// One maker's sources want blocks of at least their minimum size.
const char kBlockSizeMaker[] = "EPSON";
constexpr TW_UINT32 kAppOwnedPointer = TWMF_APPOWNS | TWMF_POINTER;
constexpr int kGrayBytes = 1;
constexpr int kRgbBytes = 3;
// Results of an image that a notification reports besides the condition codes.
constexpr LONG kSourceCancelled = -4;
constexpr LONG kAppCancelled = -5;
// What pendingCount reads outside the end message of a memory transfer.
constexpr WORD kNoPendingCount = 9999;
// The file-name buffer the application writes into, and the longest name a TW_SETUPFILEXFER takes.
constexpr int kFileNameSize = 256;
// wsprintf writes at most this many characters.
constexpr int kFormattedSize = 1024;
// Arguments for the directives a file name may hold when it is expanded as a format: zeros (NULL strings) for
// every directive that fits in a name, so that nothing unpassed is ever read.
constexpr int kHarmlessArguments = kFileNameSize;

// The size and address of the transfer buffer; the application may put its own buffer here.
SmBufferDescriptor bufferDescriptor;

// Each mechanism's record of the image being transferred, and the block record of the memory transfer.
ScanImageInfo nativeImage;
ScanImageInfo fileImage;
ScanImageInfo memoryImage;
ScanBlockInfo memoryBlock;
// The source's bitmap handle, and the slot the application reads it from unless it points elsewhere.
TW_UINT32 nativeBitmap;
HGLOBAL nativeHandleSlot;
// The application's name of the file the source is to write.
char fileNameBuffer[kFileNameSize];

// The block reader's state, kept from call to call until an image ends: bytes per pixel (0 before
// the first block of an image) and the source's buffer sizes read at that first block.
int readBlockBytesPerPixel = 0;
DWORD readBlockMin = 0;
DWORD readBlockMax = 0;
DWORD readBlockPreferred = 0;
// Bytes of one row of the image being read, as the application counts it from the image's width (0 when the source
// gave no width): the caller's buffer holds one such row beyond its size.
ULONGLONG readBlockRowBytes = 0;

// A resolution as the record keeps it: truncated toward zero to 16 bits, a negative one as 0xFFFF.
short RecordedResolution(double value) {
    if (value < 0)
        return static_cast<short>(0xFFFF);
    return static_cast<short>(static_cast<LONG>(value));
}

bool IsPlainPixelFlag(WORD flag) {
    return flag == SM_PIXEL_BW || flag == SM_PIXEL_GRAY || flag == SM_PIXEL_RGB || flag == SM_PIXEL_PALETTE;
}

// Reverses each `width`-byte group of the first `count` groups at `bytes`. The widths of RGB and 16-bit gray samples
// get loops of their own: every byte of a page passes here, and a general reversal per pixel costs a third more.
void ReverseGroups(BYTE *bytes, DWORD count, int width) {
    BYTE *end = bytes + static_cast<size_t>(count) * width;
    switch (width) {
    case 2:
        for (BYTE *p = bytes; p < end; p += 2)
            std::swap(p[0], p[1]);
        break;
    case 3:
        for (BYTE *p = bytes; p < end; p += 3)
            std::swap(p[0], p[2]);
        break;
    default:
        for (BYTE *p = bytes; p < end; p += width)
            std::reverse(p, p + width);
        break;
    }
}

} // namespace

void ExpandFileName(const char *name, char *out) {
    static const DWORD zeros[kHarmlessArguments] = {};
    char expanded[kFormattedSize + 1] = "";
    wvsprintfA(expanded, name, reinterpret_cast<va_list>(const_cast<DWORD *>(zeros)));
    lstrcpynA(out, expanded, kFileNameSize);
}

bool TScanModule::ChooseBuffer(const TraceCall &call, TGlobalBuffer &buffer, DWORD preferred, DWORD minimum,
                               DWORD maximum) {
    // The minimum is tried before the maximum on purpose: a small buffer that exists beats a large one that does not.
    for (const DWORD size : {preferred, minimum, maximum}) {
        buffer.Alloc(size);
        if (!buffer.handle || !buffer.data)
            continue;
        bufferDescriptor = {size, buffer.data};
        char text[64];
        std::snprintf(text, sizeof text, "Memory buffer size =%lu", static_cast<unsigned long>(size));
        call.NoteAs(__LINE__, text, kMemoryTransfer);
        return true;
    }
    call.WarnAs(__LINE__, "Low Memory", kMemoryTransfer);
    return false;
}

// Copies the block's pixel bytes to the caller: row by row, packed, when the rows carry padding;
// otherwise as one piece, cut to the caller's size.
void TScanModule::CopyBlock(const TraceCall &call, const TW_IMAGEMEMXFER &block, const TGlobalBuffer &buffer,
                            BYTE *destination, DWORD destinationSize, DWORD *count) {
    // A source that claims more bytes than the buffer holds is read only as far as the buffer goes.
    const DWORD written = std::min<DWORD>(block.BytesWritten, buffer.size);
    if (written == 0)
        return;
    const BYTE *source = static_cast<const BYTE *>(buffer.data);
    const ULONGLONG rowBytes = static_cast<ULONGLONG>(block.Columns) * readBlockBytesPerPixel;
    if (rowBytes != block.BytesPerRow) {
        // Before each row the caller's size is checked; a row once started is copied whole. The caller's buffer
        // holds one row of the image beyond its size, so a row wider than the image's is not started where it would
        // not fit.
        const ULONGLONG limit = static_cast<ULONGLONG>(destinationSize) + readBlockRowBytes;
        for (DWORD row = 0; row < block.Rows && *count < destinationSize; ++row) {
            const ULONGLONG from = static_cast<ULONGLONG>(row) * block.BytesPerRow;
            if (from + rowBytes > written)
                break;
            if (*count + rowBytes > limit) {
                call.Warn(__LINE__, "Bad Value, row beyond the buffer, copy stopped,");
                break;
            }
            std::memcpy(destination + *count, source + from, static_cast<size_t>(rowBytes));
            *count += static_cast<DWORD>(rowBytes);
        }
        return;
    }
    DWORD bytes = destinationSize >= readBlockMax || destinationSize >= written ? written : destinationSize;
    if (bytes > destinationSize) {
        // Only a source whose minimum size exceeds its maximum gets a block larger than the caller's buffer here.
        call.Warn(__LINE__, "Bad Value, block larger than the buffer, cut,");
        bytes = destinationSize;
    }
    std::memcpy(destination, source, bytes);
    *count = bytes;
}

void TScanModule::ForgetBlockReaderImage() {
    readBlockBytesPerPixel = 0;
}

// DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET, one block per call.
LONG TScanModule::ReadBlock(BYTE *destination, DWORD destinationSize, DWORD *count) {
    TraceCall call(kSource, "ReadBlock", __LINE__, __LINE__);
    if (readBlockBytesPerPixel != kGrayBytes && readBlockBytesPerPixel != kRgbBytes) {
        GetMemXferSize(&readBlockMin, &readBlockMax, &readBlockPreferred);
        TW_IMAGEINFO info = {};
        CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info);
        readBlockBytesPerPixel = info.PixelType == TWPT_RGB ? kRgbBytes : kGrayBytes;
        readBlockRowBytes = info.ImageWidth > 0 ? static_cast<ULONGLONG>(info.ImageWidth) * readBlockBytesPerPixel : 0;
    }
    DWORD preferred = readBlockPreferred;
    if (std::strcmp(sourceIdentity.Manufacturer, kBlockSizeMaker) == 0)
        preferred = destinationSize < readBlockMin ? readBlockMin : destinationSize;
    preferred = std::min(preferred, destinationSize);

    cancelThisXfer = FALSE;
    cancelAllXfer = FALSE;
    bufferDescriptor = {};
    TGlobalBuffer buffer(0);
    LONG result = 0;
    TW_UINT16 rc = TWRC_FAILURE;
    WORD pending = 0;
    if (!ChooseBuffer(call, buffer, preferred, readBlockMin, readBlockMax)) {
        result = TWCC_LOWMEMORY;
    } else {
        TW_IMAGEMEMXFER block = {};
        block.Memory = {kAppOwnedPointer, buffer.size, buffer.data};
        rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &block);
        if (rc == TWRC_CANCEL) {
            readBlockBytesPerPixel = 0;
            *count = SM_IMAGE_ENDED;
            EndThisXfer(&pending);
            SetForegroundWindow(parentWindow);
            result = -4;
        } else if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE) {
            result = GetTWAINStatusCode();
        } else {
            *count = 0;
            CopyBlock(call, block, buffer, destination, destinationSize, count);
        }
    }
    buffer.Free();
    // The reader's buffer is gone; a descriptor naming it would mislead the next transfer.
    bufferDescriptor = {};
    if (rc == TWRC_SUCCESS || rc == TWRC_XFERDONE) {
        if (cancelThisXfer || cancelAllXfer) {
            result = -5;
        } else if (rc == TWRC_XFERDONE) {
            readBlockBytesPerPixel = 0;
            *count = SM_IMAGE_ENDED;
            EndThisXfer(&pending);
            SetForegroundWindow(parentWindow);
        }
    }
    if (result == TWCC_OPERATIONERROR || result == -4) {
        EndAllXfer();
        *count = SM_IMAGE_ENDED;
    }
    if (cancelAllXfer || result == TWCC_OPERATIONERROR) {
        *count = SM_IMAGE_ENDED;
        EndAllXfer();
    }
    return result;
}

// The record of an image from the source's DAT_IMAGEINFO; resolutions times the factor of the source's unit. A pixel
// type the record has no flag for leaves the previous image's flag.
void TScanModule::FillImageRecord(ScanImageInfo &record, const TW_IMAGEINFO &info, WORD mechanism, void *target) {
    WORD unit = kUnitInches;
    GetUnit(&unit);
    const double factor = ResolutionFactor(unit);
    record.xResolution = RecordedResolution(FIX32ToFloat(info.XResolution) * factor);
    record.yResolution = RecordedResolution(FIX32ToFloat(info.YResolution) * factor);
    record.imageWidth = info.ImageWidth;
    record.imageLength = info.ImageLength;
    record.samplesPerPixel = info.SamplesPerPixel;
    for (int i = 0; i < 8; ++i)
        record.bitsPerSample[i] = info.BitsPerSample[i];
    record.bitsPerPixel = info.BitsPerPixel;
    record.planar = info.Planar;
    if (info.PixelType >= TWPT_BW && info.PixelType <= TWPT_CIEXYZ)
        record.pixelTypeFlag = static_cast<WORD>(1u << info.PixelType);
    record.compression = info.Compression;
    record.mechanism = mechanism;
    record.xferTarget = target;
}

// The loop the native and the file transfer share: each pending image announced, fetched (unless the application
// cancels it) and ended; a source without its interface is asked to be closed afterwards.
void TScanModule::TransferImages(const TraceCall &call, ScanImageInfo &record, WORD mechanism, void *target,
                                 FetchImage fetch) {
    WORD count = 0;
    do {
        cancelThisXfer = FALSE;
        cancelAllXfer = FALSE;
        TW_IMAGEINFO info = {};
        if (CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS) {
            call.Warn(__LINE__, "Error in get DAT_IMAGEINFO");
        } else {
            FillImageRecord(record, info, mechanism, target);
            // The module's handle slot holds nothing until this image is delivered.
            nativeHandleSlot = nullptr;
            call.NoteIn(__LINE__, "Send WM_XFERSTART");
            SendMessageA(parentWindow, msgXferStart, 0, reinterpret_cast<LPARAM>(&record));
            LONG result = kAppCancelled;
            if (cancelThisXfer || cancelAllXfer)
                call.Warn(__LINE__, "AP cancel image xfer");
            else
                result = (this->*fetch)(call, record);
            SendMessageA(parentWindow, msgXferEnd, static_cast<WPARAM>(result), reinterpret_cast<LPARAM>(&record));
        }
        EndThisXfer(&count);
        if (cancelAllXfer) {
            EndAllXfer();
            break;
        }
    } while (count != 0);
    if (!showUI) {
        call.NoteAs(__LINE__, "Send WM_CLOSEDSREQ", kNativeTransfer);
        SendMessageA(parentWindow, msgCloseDSReq, 0, 0);
    }
}

// A fetch the source cancelled or refused.
LONG TScanModule::FetchFailed(const TraceCall &call, TW_UINT16 rc) {
    if (rc == TWRC_CANCEL) {
        call.Warn(__LINE__, "Image xfer canceled");
        return kSourceCancelled;
    }
    call.Warn(__LINE__, "Image xfer error");
    return GetTWAINStatusCode();
}

// DG_IMAGE / DAT_IMAGENATIVEXFER / MSG_GET: the bitmap goes where the record's target points, or is freed when the
// application cleared the target.
LONG TScanModule::FetchNative(const TraceCall &call, ScanImageInfo &record) {
    call.NoteIn(__LINE__, "MSG_GET DAT_IMAGENATIVEXFER");
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &nativeBitmap);
    if (rc != TWRC_XFERDONE)
        return FetchFailed(call, rc);
    // Written on every delivered image, as it always has been; viewers of old traces know it so.
    call.Warn(__LINE__, "MSG_GET DAT_IMAGENATIVEXFER error");
    const HGLOBAL bitmap = reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(nativeBitmap));
    if (!record.xferTarget)
        GlobalFree(bitmap);
    else
        *static_cast<HGLOBAL *>(record.xferTarget) = bitmap;
    return 0;
}

// DG_CONTROL / DAT_SETUPFILEXFER / MSG_SET with the application's file name as a BMP, then
// DG_IMAGE / DAT_IMAGEFILEXFER / MSG_GET.
LONG TScanModule::FetchFile(const TraceCall &call, ScanImageInfo &) {
    TW_SETUPFILEXFER setup = {};
    fileNameBuffer[kFileNameSize - 1] = '\0';
    ExpandFileName(fileNameBuffer, setup.FileName);
    setup.Format = TWFF_BMP;
    call.NoteIn(__LINE__, "MSG_SET DAT_SETUPFILEXFER");
    if (CallDsm(&sourceIdentity, DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, &setup) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "MSG_SET DAT_SETUPFILEXFER error");
        return GetTWAINStatusCode();
    }
    call.Note(__LINE__, "Get image by DAT_IMAGEFILEXFER");
    const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr);
    return rc == TWRC_XFERDONE ? 0 : FetchFailed(call, rc);
}

void TScanModule::DoNativeXfer() {
    TraceCall call(kSource, "DoNativeXfer", __LINE__, __LINE__);
    // Each image starts with the module's own slot as the target; the application may point it elsewhere.
    TransferImages(call, nativeImage, kMechNative, &nativeHandleSlot, &TScanModule::FetchNative);
}

void TScanModule::DoFileXfer() {
    TraceCall call(kSource, "DoFileXfer", __LINE__, __LINE__);
    TransferImages(call, fileImage, kMechFile, fileNameBuffer, &TScanModule::FetchFile);
}

bool TScanModule::TakeBuffer(const TraceCall &call, TGlobalBuffer &own, const BufferSizes &sizes) {
    if (bufferDescriptor.size && bufferDescriptor.address)
        return true;
    if (own.data) {
        bufferDescriptor = {own.size, own.data};
        return true;
    }
    return ChooseBuffer(call, own, sizes.preferred, sizes.minimum, sizes.maximum);
}

// The rows of an uncompressed block of a plain pixel type are repaired to what its bytes hold; chunky RGB arrives
// blue first (48-bit pixels reversed whole) and 16-bit gray with its bytes exchanged, in place. A source whose block
// claims more than its buffer holds, or whose rows to exchange overlap, is refused before anything is touched.
bool TScanModule::ProcessBlock(const TraceCall &call, TW_IMAGEMEMXFER &block, DWORD bitmapRowBytes) {
    if (block.BytesWritten > bufferDescriptor.size) {
        call.Warn(__LINE__, "Bad Value, BytesWritten > buffer size,");
        return false;
    }
    if (memoryImage.compression != TWCP_NONE)
        return true;
    call.NoteIn(__LINE__, "Process memory buffer");
    // The products are taken whole: rows whose 32-bit product only wraps round to the bytes written are no match.
    const ULONGLONG rows = block.Rows;
    if (IsPlainPixelFlag(memoryImage.pixelTypeFlag) &&
        (rows * block.BytesPerRow != block.BytesWritten || rows * bitmapRowBytes != block.BytesWritten)) {
        call.NoteIn(__LINE__, "not 4-byte align");
        // A source that gives no row length has no whole rows to offer.
        block.Rows = block.BytesPerRow ? block.BytesWritten / block.BytesPerRow : 0;
    }
    if (memoryImage.planar)
        return true;
    int width = 0;
    if (memoryImage.pixelTypeFlag == SM_PIXEL_RGB && memoryImage.bitsPerPixel == 24) {
        width = 3;
        call.Note(__LINE__, "Swap R,G data in TScanModuke::DoMemXfer");
    } else if (memoryImage.pixelTypeFlag == SM_PIXEL_RGB && memoryImage.bitsPerPixel == 48) {
        width = 6;
        call.Note(__LINE__, "Swap R,G data in TScanModuke::DoMemXfer");
    } else if (memoryImage.pixelTypeFlag == SM_PIXEL_GRAY && memoryImage.bitsPerPixel == 16) {
        width = 2;
        call.Note(__LINE__, "Swap hi-byte & lo-byte data in TScanModuke::DoMemXfer");
    }
    if (width == 0)
        return true;
    const ULONGLONG rowBytes = static_cast<ULONGLONG>(block.Columns) * width;
    if (block.Rows != 0 && (block.BytesPerRow == 0 || rowBytes > block.BytesPerRow)) {
        // Rows longer than the distance between them overlap: each would be swapped again over the next ones, and a
        // block could take up to 2^32 passes over the buffer. A real source's rows are never shorter than its pixels.
        call.Warn(__LINE__, "Bad Value, rows overlap,");
        return false;
    }
    BYTE *bytes = static_cast<BYTE *>(bufferDescriptor.address);
    // The rows do not overlap and their bytes lie within what the block wrote, so every row lies in the buffer.
    for (DWORD row = 0; row < block.Rows; ++row)
        ReverseGroups(bytes + static_cast<size_t>(row) * block.BytesPerRow, block.Columns, width);
    return true;
}

// One image of the memory transfer: announced, then its blocks fetched into the descriptor's buffer, processed and
// handed to the application one by one.
LONG TScanModule::TransferMemImage(const TraceCall &call, TGlobalBuffer &own, const BufferSizes &sizes,
                                   bool &announced) {
    announced = false;
    TW_IMAGEINFO info = {};
    if (CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info) != TWRC_SUCCESS) {
        call.Warn(__LINE__, "Error in get DAT_IMAGEINFO");
        return 0;
    }
    FillImageRecord(memoryImage, info, kMechMemory, &bufferDescriptor);
    call.NoteIn(__LINE__, "Send WM_XFERSTART");
    SendMessageA(parentWindow, msgXferStart, 0, reinterpret_cast<LPARAM>(&memoryImage));
    announced = true;
    if (cancelThisXfer || cancelAllXfer) {
        call.Warn(__LINE__, "AP cancel image xfer");
        return kAppCancelled;
    }
    if (!TakeBuffer(call, own, sizes))
        return TWCC_LOWMEMORY;
    call.NoteIn(__LINE__, "Do while-loop to get image data");
    for (;;) {
        TW_IMAGEMEMXFER block = {};
        block.Memory = {kAppOwnedPointer, bufferDescriptor.size, bufferDescriptor.address};
        call.NoteIn(__LINE__, "MSG_GET DAT_IMAGEMEMXFER");
        const TW_UINT16 rc = CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &block);
        if (rc == TWRC_CANCEL) {
            call.Warn(__LINE__, "image xfer canceled");
            SetForegroundWindow(parentWindow);
            return kSourceCancelled;
        }
        if (rc != TWRC_SUCCESS && rc != TWRC_XFERDONE) {
            call.Warn(__LINE__, "Image xfer error");
            return GetTWAINStatusCode();
        }
        const DWORD bitmapRowBytes = ImageBytesPerRow(&info);
        if (!ProcessBlock(call, block, bitmapRowBytes))
            return TWCC_BADVALUE;
        std::memcpy(&memoryBlock, &memoryImage, kBlockImageBytes);
        memoryBlock.bytesPerRow = block.BytesPerRow;
        memoryBlock.columns = block.Columns;
        memoryBlock.rows = block.Rows;
        memoryBlock.xOffset = block.XOffset;
        memoryBlock.yOffset = block.YOffset;
        memoryBlock.bytesWritten = block.BytesWritten;
        memoryBlock.rowsAligned = memoryImage.compression == TWCP_NONE && IsPlainPixelFlag(memoryImage.pixelTypeFlag) &&
                                  bitmapRowBytes == block.BytesPerRow;
        memoryBlock.bufferDescriptor = &bufferDescriptor;
        call.NoteIn(__LINE__, "Send WM_XFERDATA");
        SendMessageA(parentWindow, msgXferData, 0, reinterpret_cast<LPARAM>(&memoryBlock));
        if (cancelThisXfer || cancelAllXfer)
            return kAppCancelled;
        if (rc == TWRC_XFERDONE) {
            SetForegroundWindow(parentWindow);
            return 0;
        }
        if (!TakeBuffer(call, own, sizes))
            return TWCC_LOWMEMORY;
    }
}

// Every pending image by memory transfer. It writes no exit record: viewers show the calls after it one level deeper.
void TScanModule::DoMemXfer() {
    TraceCall call(kSource, "DoMemXfer", __LINE__, 0);
    call.NoExit();
    TGlobalBuffer own(0);
    pendingCount = kNoPendingCount;
    WORD count = 0;
    LONG result = 0;
    do {
        BufferSizes sizes = {};
        GetMemXferSize(&sizes.minimum, &sizes.maximum, &sizes.preferred);
        cancelThisXfer = FALSE;
        cancelAllXfer = FALSE;
        bool announced = false;
        result = TransferMemImage(call, own, sizes, announced);
        EndThisXfer(&count);
        pendingCount = count;
        if (announced)
            SendMessageA(parentWindow, msgXferEnd, static_cast<WPARAM>(result), reinterpret_cast<LPARAM>(&memoryImage));
        pendingCount = kNoPendingCount;
        if (result == TWCC_OPERATIONERROR) {
            EndAllXfer();
            SendMessageA(parentWindow, msgCloseDSReq, 0, 0);
            break;
        }
        if (cancelAllXfer) {
            EndAllXfer();
            break;
        }
    } while (count != 0);
    if (!showUI || result == TWCC_OPERATIONERROR) {
        call.NoteIn(__LINE__, "Send SM_CLOSEDSREQ");
        SendMessageA(parentWindow, msgCloseDSReq, 0, 0);
    }
    // The module's own buffer is freed now; a descriptor naming it would point at nothing.
    if (own.data && bufferDescriptor.address == own.data)
        bufferDescriptor = {};
}
