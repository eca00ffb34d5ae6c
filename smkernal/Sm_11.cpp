// Bitmap writing: the row and size rules of device-independent bitmaps.
#include "ScanModule.h"

namespace {

const char kSource[] = SM_SOURCE("Sm_11");

} // namespace

// The bits of a row rounded up to whole bytes, then to a multiple of 4 bytes. The bit count is a signed 32-bit
// product; the divisions are unsigned shifts.
DWORD TScanModule::ImageBytesPerRow(const TW_IMAGEINFO *info) {
    TraceCall call(kSource, "ImageBytesPerRow", __LINE__, __LINE__);
    // Two's complement wraps the product as a 32-bit multiplication would, without overflowing a signed type.
    const DWORD bits = static_cast<DWORD>(static_cast<LONG>(info->BitsPerPixel)) * static_cast<DWORD>(info->ImageWidth);
    return (((bits + 7) >> 3) + 3) & ~3u;
}
