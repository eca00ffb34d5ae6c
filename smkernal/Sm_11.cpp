// Bitmap writing: the row and size rules of device-independent bitmaps, and the bitmap files of the scan to file.
#include "ScanModule.h"
#include "Utility.h"

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

namespace {

// Pieces in which the pre-fill and the copy of a whole bitmap are written.
constexpr DWORD kFilePiece = 0xF000;
// The planar writer's work buffer: at most this many bytes, in whole file rows.
constexpr DWORD kPlanarWorkBytes = 0x40000;
// Free-space margin: an image may exceed the free space by this much.
constexpr DWORD kDiskMargin = 0x20000;
// The largest bitmap file the writers can lay out: every position in it must fit the signed 32-bit offsets of _llseek.
constexpr ULONGLONG kLargestFile = 0x7FFFFFFF;
constexpr DWORD kFileHeaderBytes = 14;
constexpr DWORD kInfoHeaderBytes = 40;
constexpr DWORD kHeaderBytes = kFileHeaderBytes + kInfoHeaderBytes;
constexpr int kDsPaletteEntries = 256;

void Put16(BYTE *at, WORD value) {
    at[0] = static_cast<BYTE>(value);
    at[1] = static_cast<BYTE>(value >> 8);
}

void Put32(BYTE *at, DWORD value) {
    Put16(at, static_cast<WORD>(value));
    Put16(at + 2, static_cast<WORD>(value >> 16));
}

DWORD Get32(const BYTE *at) {
    return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<DWORD>(at[3]) << 24);
}

// Writes all of `count` bytes; false on a short write.
bool WriteAll(HFILE file, const void *bytes, DWORD count) {
    return _lwrite(file, static_cast<LPCCH>(bytes), count) == count;
}

// A resolution in pixels per metre from the source's unit, as the header carries it.
LONG PelsPerMeter(double resolution, WORD unit) {
    if (unit == 1)
        return static_cast<LONG>(resolution * 254.0);
    if (unit == 2)
        return static_cast<LONG>(resolution * 100.0);
    return 0;
}

// Swaps the first and third byte of each of `columns` 3-byte pixels.
void ExchangeRedBlue(BYTE *pixel, DWORD columns) {
    for (BYTE *end = pixel + 3 * static_cast<size_t>(columns); pixel < end; pixel += 3) {
        const BYTE first = pixel[0];
        pixel[0] = pixel[2];
        pixel[2] = first;
    }
}

// The bytes before the pixel rows of a file for an image of this depth.
DWORD HeaderBytesFor(DWORD paletteEntries) {
    return kHeaderBytes + 4 * paletteEntries;
}

// The whole file an image would take, counted without the 32-bit wrap-round of ImageDataSize; a negative width,
// length or depth counts as more than any file can take.
ULONGLONG FileBytes(const TW_IMAGEINFO *info) {
    if (info->ImageWidth < 0 || info->ImageLength < 0 || info->BitsPerPixel < 0)
        return ~0ull;
    const ULONGLONG bits = static_cast<ULONGLONG>(info->BitsPerPixel) * static_cast<ULONGLONG>(info->ImageWidth);
    const ULONGLONG rowBytes = ((bits + 7) / 8 + 3) / 4 * 4;
    return rowBytes * static_cast<ULONGLONG>(info->ImageLength) + HeaderBytesFor(256);
}

} // namespace

DWORD TScanModule::ImageDataSize(const TW_IMAGEINFO *info) {
    TraceCall call(kSource, "ImageDataSize", __LINE__, __LINE__);
    return ImageBytesPerRow(info) * static_cast<DWORD>(info->ImageLength);
}

DWORD TScanModule::PaletteSize(int bits) {
    TraceCall call(kSource, "PaletteSize", __LINE__, __LINE__);
    if (bits <= 1)
        return 2;
    if (bits <= 4)
        return 16;
    if (bits <= 8)
        return 256;
    return 0;
}

// Creates (or empties) the file and tells whether the image's pixel data fit on its drive, with a margin of 128 KiB.
int TScanModule::CheckDiskSpace(const char *name, const TW_IMAGEINFO *info) {
    TraceCall call(kSource, "CheckDiskSpace", __LINE__, __LINE__);
    OFSTRUCT of = {};
    const HFILE file = OpenFile(name, &of, OF_CREATE);
    if (file == HFILE_ERROR) {
        call.Warn(__LINE__, "Create file error");
        return -3;
    }
    int result = 0;
    char root[4] = {};
    lstrcpynA(root, name, sizeof root);
    const DWORD required = ImageDataSize(info);
    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, totalClusters = 0;
    if (FileBytes(info) > kLargestFile) {
        // Its size only wraps round in 32 bits: the writers would lay out and fill a file of another size.
        call.Warn(__LINE__, "Image too large for a bitmap file");
        result = -2;
    } else if (GetDiskFreeSpaceA(root, &sectorsPerCluster, &bytesPerSector, &freeClusters, &totalClusters) == 1 &&
               required > freeClusters * bytesPerSector * sectorsPerCluster + kDiskMargin) {
        call.Warn(__LINE__, "Disk space is not enough");
        result = -2;
    }
    _lclose(file);
    return result;
}

// Writes a packed bitmap (info header, palette, rows) as a bitmap file. The block stays locked on success: the
// caller frees it.
int TScanModule::WriteDIBHandleToFile(HGLOBAL dib, const char *name) {
    TraceCall call(kSource, "WriteDIBHandleToFile", __LINE__, __LINE__);
    OFSTRUCT of = {};
    const HFILE file = OpenFile(name, &of, OF_CREATE);
    if (file == HFILE_ERROR) {
        call.Warn(__LINE__, "Create file error");
        return -3;
    }
    const BYTE *bits = static_cast<const BYTE *>(GlobalLock(dib));
    const SIZE_T blockSize = GlobalSize(dib);
    if (!bits || blockSize < kInfoHeaderBytes) {
        call.Warn(__LINE__, "Invalid DIB handle");
        if (bits)
            GlobalUnlock(dib);
        _lclose(file);
        return -3;
    }
    const DWORD width = Get32(bits + 4);
    const DWORD height = Get32(bits + 8);
    const DWORD bitCount = bits[14] | (bits[15] << 8);
    const DWORD colours = bits[32] | (bits[33] << 8);
    const DWORD dwords = ((((bitCount * width + 7) >> 3) + 3) >> 2) * height + colours;
    const DWORD copyBytes = dwords * 4 + kInfoHeaderBytes;
    if (copyBytes > blockSize) {
        // The header describes more rows than its block holds.
        call.Warn(__LINE__, "DIB larger than its memory block");
        GlobalUnlock(dib);
        _lclose(file);
        return -3;
    }
    BYTE header[kFileHeaderBytes] = {};
    Put16(header, 0x4D42);
    Put32(header + 2, copyBytes + kFileHeaderBytes);
    Put32(header + 10, colours * 4 + kHeaderBytes);
    bool written = WriteAll(file, header, sizeof header);
    for (DWORD done = 0; written && done < copyBytes; done += kFilePiece) {
        const DWORD piece = copyBytes - done < kFilePiece ? copyBytes - done : kFilePiece;
        written = WriteAll(file, bits + done, piece);
    }
    if (!written) {
        call.Warn(__LINE__, "Error in _lwrite");
        GlobalUnlock(dib);
        _lclose(file);
        return -3;
    }
    _lclose(file);
    return 0;
}

// Lays out the whole file: headers, palette and zero-filled pixel rows, which the strip writers fill later.
int TScanModule::WriteDIBHeader(HFILE file, const TW_IMAGEINFO *info) {
    TraceCall call(kSource, "WriteDIBHeader", __LINE__, __LINE__);
    TGlobalBuffer buffer(kFilePiece);
    if (!buffer.handle || !buffer.data) {
        call.Warn(__LINE__, "Low Memory");
        return 2;
    }
    const int bitsPerPixel = info->BitsPerPixel;
    const DWORD paletteEntries = PaletteSize(bitsPerPixel);
    const DWORD fileSize = ImageDataSize(info) + 4 * paletteEntries + kHeaderBytes;
    BYTE fileHeader[kFileHeaderBytes] = {};
    Put16(fileHeader, 0x4D42);
    Put32(fileHeader + 2, fileSize);
    Put32(fileHeader + 10, HeaderBytesFor(paletteEntries));
    for (DWORD done = 0; done < fileSize; done += kFilePiece) {
        const DWORD piece = fileSize - done < kFilePiece ? fileSize - done : kFilePiece;
        if (!WriteAll(file, buffer.data, piece)) {
            call.Warn(__LINE__, "_lwrite returns failure");
            return -3;
        }
    }
    _llseek(file, 0, 0);
    if (!WriteAll(file, fileHeader, sizeof fileHeader)) {
        call.Warn(__LINE__, "_lwrite returns failure");
        _lclose(file);
        return -3;
    }
    const double xResolution = FIX32ToFloat(info->XResolution);
    const double yResolution = FIX32ToFloat(info->YResolution);
    LONG xPels = 0, yPels = 0;
    WORD unit = 0;
    if (GetUnit(&unit) == 1) {
        xPels = PelsPerMeter(xResolution, unit);
        yPels = PelsPerMeter(yResolution, unit);
    }
    WORD bitCount = 24;
    if (bitsPerPixel <= 1)
        bitCount = 1;
    else if (bitsPerPixel <= 4)
        bitCount = 4;
    else if (bitsPerPixel <= 8)
        bitCount = 8;
    BYTE infoHeader[kInfoHeaderBytes] = {};
    Put32(infoHeader, kInfoHeaderBytes);
    Put32(infoHeader + 4, static_cast<DWORD>(info->ImageWidth));
    Put32(infoHeader + 8, static_cast<DWORD>(info->ImageLength));
    Put16(infoHeader + 12, 1);
    Put16(infoHeader + 14, bitCount);
    Put32(infoHeader + 24, static_cast<DWORD>(xPels));
    Put32(infoHeader + 28, static_cast<DWORD>(yPels));
    Put32(infoHeader + 32, paletteEntries);
    if (!WriteAll(file, infoHeader, sizeof infoHeader)) {
        call.Warn(__LINE__, "_lwrite returns failure");
        return -3;
    }
    _llseek(file, kHeaderBytes, 0);
    BYTE entry[4] = {};
    if (bitsPerPixel == 1 && info->PixelType == TWPT_BW) {
        for (int i = 0; i < 2; ++i) {
            const BYTE level = i ? 255 : 0;
            entry[0] = entry[1] = entry[2] = level;
            if (!WriteAll(file, entry, sizeof entry)) {
                call.Warn(__LINE__, "_lwrite returns failure");
                return -3;
            }
        }
    } else if (bitsPerPixel == 8 && info->PixelType == TWPT_GRAY) {
        for (int i = 0; i < 256; ++i) {
            entry[0] = entry[1] = entry[2] = static_cast<BYTE>(i);
            if (!WriteAll(file, entry, sizeof entry)) {
                call.Warn(__LINE__, "_lwrite returns failure");
                return -3;
            }
        }
    } else if (info->PixelType == TWPT_PALETTE) {
        // All 256 entries of the source's palette, whatever the depth: a 16-colour image's excess lands on the
        // first pixel rows, which the strips overwrite.
        BYTE table[kDsPaletteEntries * 4] = {};
        GetDSPalette(table);
        for (int i = 0; i < kDsPaletteEntries; ++i) {
            entry[0] = table[i * 4 + 2];
            entry[1] = table[i * 4 + 1];
            entry[2] = table[i * 4];
            if (!WriteAll(file, entry, sizeof entry)) {
                call.Warn(__LINE__, "_lwrite returns failure");
                return -3;
            }
        }
    }
    buffer.Free();
    return 0;
}

// One strip into the file laid out by WriteDIBHeader: chunky strips as they are, planar RGB plane by plane.
int TScanModule::AppendBufferToFile(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer) {
    TraceCall call(kSource, "AppendBufferToFile", __LINE__, __LINE__);
    if (info->SamplesPerPixel == 1)
        return BufferToFile(file, info, strip, buffer);
    if (info->SamplesPerPixel == 3 && info->BitsPerPixel == 24 && info->BitsPerSample[0] == 8 &&
        info->BitsPerSample[1] == 8 && info->BitsPerSample[2] == 8)
        return info->Planar ? BufferToFileForPlanar(file, info, strip, buffer)
                            : BufferToFile(file, info, strip, buffer);
    return 1;
}

// The strip's rows count by its bytes when its numbers disagree; the repaired count goes back to the caller.
// False (nothing repaired) when the strip has no row width to count by, also where rows without a width agree with
// the bytes written (none) of an image without a width: each of up to 2^32 rows would cost a seek and a write.
static bool RepairRows(TW_IMAGEMEMXFER *strip, DWORD fileRowBytes) {
    // The products are taken whole: rows whose 32-bit product only wraps round to the bytes written are no match.
    const ULONGLONG rows = strip->Rows;
    if (rows * strip->BytesPerRow == strip->BytesWritten && rows * fileRowBytes == strip->BytesWritten &&
        (strip->BytesPerRow != 0 || rows == 0))
        return true;
    if (strip->BytesPerRow == 0)
        return false;
    strip->Rows = strip->BytesWritten / strip->BytesPerRow;
    return true;
}

int TScanModule::BufferToFile(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer) {
    TraceCall call(kSource, "BufferToFile", __LINE__, __LINE__);
    const DWORD fileRowBytes = ImageBytesPerRow(info);
    if (!RepairRows(strip, fileRowBytes)) {
        call.Warn(__LINE__, "Strip without row width");
        return -3;
    }
    const DWORD bitsPerPixel = static_cast<DWORD>(static_cast<LONG>(info->BitsPerPixel));
    const DWORD length = static_cast<DWORD>(info->ImageLength);
    // Rows above the image's top or below its bottom, a start past the row's end, or pixels wider than the strip's
    // rows would be written or swapped outside the image.
    const ULONGLONG lastRow = static_cast<ULONGLONG>(strip->YOffset) + strip->Rows;
    const ULONGLONG rowStart = (static_cast<ULONGLONG>(bitsPerPixel) * strip->XOffset) / 8;
    if (info->ImageLength < 0 || lastRow > length || rowStart > fileRowBytes ||
        (bitsPerPixel == 24 && static_cast<ULONGLONG>(strip->Columns) * 3 > strip->BytesPerRow)) {
        call.Warn(__LINE__, "Strip lies outside the image");
        return -3;
    }
    // Red and blue of 24-bit rows are exchanged in the caller's buffer, each row just before it is written, while it
    // is still in the processor's cache: a page-sized strip is not walked twice. A failed write still leaves every row
    // exchanged.
    const bool exchange = info->BitsPerPixel == 24;
    if (exchange)
        call.NoteIn(__LINE__, "Reverse R,B data");
    const DWORD headerBytes = HeaderBytesFor(PaletteSize(info->BitsPerPixel));
    for (DWORD r = 0; r < strip->Rows; ++r) {
        if (exchange)
            ExchangeRedBlue(buffer + r * strip->BytesPerRow, strip->Columns);
        const DWORD position =
            headerBytes + (length - r - strip->YOffset - 1) * fileRowBytes + (bitsPerPixel * strip->XOffset) / 8;
        _llseek(file, static_cast<LONG>(position), 0);
        if (!WriteAll(file, buffer + r * strip->BytesPerRow, strip->BytesPerRow)) {
            for (DWORD rest = r + 1; exchange && rest < strip->Rows; ++rest)
                ExchangeRedBlue(buffer + rest * strip->BytesPerRow, strip->Columns);
            call.Warn(__LINE__, "_lwrite returns failure");
            return -3;
        }
    }
    return 0;
}

// Plane pass of the planar writer: 0 red, 1 green, 2 blue; advanced by every strip that starts a plane, kept across
// calls and images.
int planePass = 2;

int TScanModule::BufferToFileForPlanar(HFILE file, const TW_IMAGEINFO *info, TW_IMAGEMEMXFER *strip, BYTE *buffer) {
    TraceCall call(kSource, "BufferToFileForPlanar", __LINE__, __LINE__);
    if (strip->YOffset == 0) {
        planePass = (planePass + 1) % 3;
        char text[64];
        wsprintfA(text, "Pass = %d in TScanModule::BufferToFileForPlanar", planePass);
        call.Note(__LINE__, text);
    }
    const DWORD fileRowBytes = ImageBytesPerRow(info);
    if (!RepairRows(strip, fileRowBytes)) {
        call.Warn(__LINE__, "Strip without row width");
        return -3;
    }
    // Rows wider than the work buffer leave it empty, and so does a row of no bytes.
    const DWORD chunkLimit = fileRowBytes ? kPlanarWorkBytes / fileRowBytes * fileRowBytes : 0;
    const DWORD stripBytes = fileRowBytes * strip->Rows;
    TGlobalBuffer work(chunkLimit < stripBytes ? chunkLimit : stripBytes);
    if (!work.handle || !work.data) {
        call.Warn(__LINE__, "Low Memory");
        return 2;
    }
    const DWORD length = static_cast<DWORD>(info->ImageLength);
    // Rows outside the image, samples past the strip's rows or pixels past the file row would be read or placed
    // outside the strip or the work buffer.
    const ULONGLONG lastRow = static_cast<ULONGLONG>(strip->YOffset) + strip->Rows;
    if (info->ImageLength < 0 || lastRow > length || strip->Columns > strip->BytesPerRow ||
        3 * (static_cast<ULONGLONG>(strip->XOffset) + strip->Columns) > fileRowBytes) {
        call.Warn(__LINE__, "Strip lies outside the image");
        return -3;
    }
    const DWORD target = 2 - planePass;
    const DWORD headerBytes = HeaderBytesFor(PaletteSize(info->BitsPerPixel));
    const DWORD rowsPerChunk = work.size / fileRowBytes;
    BYTE *rows = static_cast<BYTE *>(work.data);
    for (DWORD done = 0; done < strip->Rows;) {
        const DWORD remaining = strip->Rows - done;
        const DWORD n = rowsPerChunk < remaining ? rowsPerChunk : remaining;
        const DWORD position =
            headerBytes + (length - (strip->YOffset + done + n - 1) - 1) * fileRowBytes + 3 * strip->XOffset;
        const DWORD bytes = n * fileRowBytes;
        _llseek(file, static_cast<LONG>(position), 0);
        if (static_cast<DWORD>(_lread(file, rows, bytes)) != bytes) {
            call.Warn(__LINE__, "_lread returns failure");
            return -3;
        }
        for (DWORD k = 0; k < n; ++k) {
            const BYTE *samples = buffer + (done + k) * strip->BytesPerRow;
            BYTE *row = rows + (n - 1 - k) * fileRowBytes;
            for (DWORD c = 0; c < strip->Columns; ++c)
                row[3 * c + target] = samples[c];
        }
        _llseek(file, static_cast<LONG>(position), 0);
        if (!WriteAll(file, rows, bytes)) {
            call.Warn(__LINE__, "_lwrite returns failure");
            return -3;
        }
        done += n;
    }
    work.Free();
    return 0;
}
