// Application-driven transfers: the transfer buffer and its descriptor, and the block reader behind smReadBlock.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_8");
// The memory transfer's name, which the buffer records carry for both of its forms.
const char kMemoryTransfer[] = "DoMemXfer";
// One maker's sources want blocks of at least their minimum size.
const char kBlockSizeMaker[] = "EPSON";
constexpr TW_UINT32 kAppOwnedPointer = TWMF_APPOWNS | TWMF_POINTER;
constexpr int kGrayBytes = 1;
constexpr int kRgbBytes = 3;

// The size and address of the transfer buffer; the application may put its own buffer here.
struct BufferDescriptor {
    DWORD size;
    void *address;
};
BufferDescriptor bufferDescriptor;

// The block reader's state, kept from call to call until an image ends: bytes per pixel (0 before
// the first block of an image) and the source's buffer sizes read at that first block.
int readBlockBytesPerPixel = 0;
DWORD readBlockMin = 0;
DWORD readBlockMax = 0;
DWORD readBlockPreferred = 0;

} // namespace

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
void TScanModule::CopyBlock(const TW_IMAGEMEMXFER &block, const TGlobalBuffer &buffer, BYTE *destination,
                            DWORD destinationSize, DWORD *count) {
    // A source that claims more bytes than the buffer holds is read only as far as the buffer goes.
    const DWORD written = std::min<DWORD>(block.BytesWritten, buffer.size);
    if (written == 0)
        return;
    const BYTE *source = static_cast<const BYTE *>(buffer.data);
    const DWORD rowBytes = block.Columns * readBlockBytesPerPixel;
    if (rowBytes != block.BytesPerRow) {
        // Before each row the caller's size is checked; a row once started is copied whole.
        for (DWORD row = 0; row < block.Rows && *count < destinationSize; ++row) {
            const DWORD from = row * block.BytesPerRow;
            if (from + rowBytes > written)
                break;
            std::memcpy(destination + *count, source + from, rowBytes);
            *count += rowBytes;
        }
        return;
    }
    const DWORD bytes = destinationSize >= readBlockMax || destinationSize >= written ? written : destinationSize;
    std::memcpy(destination, source, bytes);
    *count = bytes;
}

// DG_IMAGE / DAT_IMAGEMEMXFER / MSG_GET, one block per call.
LONG TScanModule::ReadBlock(BYTE *destination, DWORD destinationSize, DWORD *count) {
    TraceCall call(kSource, "ReadBlock", __LINE__, __LINE__);
    if (readBlockBytesPerPixel != kGrayBytes && readBlockBytesPerPixel != kRgbBytes) {
        GetMemXferSize(&readBlockMin, &readBlockMax, &readBlockPreferred);
        TW_IMAGEINFO info = {};
        CallDsm(&sourceIdentity, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info);
        readBlockBytesPerPixel = info.PixelType == TWPT_RGB ? kRgbBytes : kGrayBytes;
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
            CopyBlock(block, buffer, destination, destinationSize, count);
        }
    }
    buffer.Free();
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
