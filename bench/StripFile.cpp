// The benchmark's own bitmap writer: headers and colour table, then every strip once at its final place.
#include "StripFile.h"

#include <cstring>

namespace bench {

namespace {

constexpr DWORD kFileHeaderBytes = 14;
constexpr DWORD kInfoHeaderBytes = 40;
constexpr WORD kBitmapType = 0x4D42; // "BM"
// Planar strips are put in chunks of at most this many bytes of file rows.
constexpr DWORD kPlanarChunkBytes = 256 * 1024;
// The pieces of zeros the library lays a file out with.
constexpr DWORD kZeroPieceBytes = 61440;

void Put16(BYTE *at, WORD value) {
    at[0] = static_cast<BYTE>(value);
    at[1] = static_cast<BYTE>(value >> 8);
}

void Put32(BYTE *at, DWORD value) {
    Put16(at, static_cast<WORD>(value));
    Put16(at + 2, static_cast<WORD>(value >> 16));
}

// Colour-table entries of a bitmap of this depth, as the library declares them.
DWORD TableEntries(int bitsPerPixel) {
    if (bitsPerPixel <= 1)
        return 2;
    if (bitsPerPixel <= 4)
        return 16;
    if (bitsPerPixel <= 8)
        return 256;
    return 0;
}

WORD BitCount(int bitsPerPixel) {
    if (bitsPerPixel <= 1)
        return 1;
    if (bitsPerPixel <= 4)
        return 4;
    if (bitsPerPixel <= 8)
        return 8;
    return 24;
}

// Swaps the first and third byte of every 3-byte pixel of a row of `bytes` bytes.
void ExchangeRedBlue(BYTE *row, DWORD bytes) {
    for (BYTE *pixel = row, *end = row + bytes / 3 * 3; pixel < end; pixel += 3) {
        const BYTE first = pixel[0];
        pixel[0] = pixel[2];
        pixel[2] = first;
    }
}

} // namespace

DWORD BitmapRowBytes(const TW_IMAGEINFO &info) {
    return ((static_cast<DWORD>(info.BitsPerPixel) * static_cast<DWORD>(info.ImageWidth) + 7) / 8 + 3) & ~3u;
}

bool StripFile::Create(const std::string &path, const TW_IMAGEINFO &info) {
    Close();
    info_ = info;
    fileRowBytes_ = BitmapRowBytes(info);
    pixelRowBytes_ = (static_cast<DWORD>(info.BitsPerPixel) * static_cast<DWORD>(info.ImageWidth) + 7) / 8;
    const DWORD entries = TableEntries(info.BitsPerPixel);
    headerBytes_ = kFileHeaderBytes + kInfoHeaderBytes + 4 * entries;
    plane_ = -1;
    file_ = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                        nullptr);
    if (file_ == INVALID_HANDLE_VALUE)
        return false;

    std::vector<BYTE> header(headerBytes_, 0);
    Put16(&header[0], kBitmapType);
    Put32(&header[2], headerBytes_ + fileRowBytes_ * static_cast<DWORD>(info.ImageLength));
    Put32(&header[10], headerBytes_);
    BYTE *bitmapInfo = &header[kFileHeaderBytes];
    Put32(bitmapInfo, kInfoHeaderBytes);
    Put32(bitmapInfo + 4, static_cast<DWORD>(info.ImageWidth));
    Put32(bitmapInfo + 8, static_cast<DWORD>(info.ImageLength));
    Put16(bitmapInfo + 12, 1);
    Put16(bitmapInfo + 14, BitCount(info.BitsPerPixel));
    Put32(bitmapInfo + 32, entries);
    BYTE *table = bitmapInfo + kInfoHeaderBytes;
    if (info.BitsPerPixel == 1 && info.PixelType == TWPT_BW) {
        std::memset(table + 4, 255, 3); // black, then white
    } else if (info.BitsPerPixel == 8 && info.PixelType == TWPT_GRAY) {
        for (int i = 0; i < 256; ++i)
            std::memset(table + 4 * i, i, 3);
    }
    if (layout_ == Layout::RowByRow) {
        const std::vector<BYTE> zeros(kZeroPieceBytes, 0);
        const DWORD fileBytes = headerBytes_ + fileRowBytes_ * static_cast<DWORD>(info.ImageLength);
        for (DWORD done = 0; done < fileBytes; done += kZeroPieceBytes) {
            const DWORD piece = fileBytes - done < kZeroPieceBytes ? fileBytes - done : kZeroPieceBytes;
            if (!WriteAt(done, zeros.data(), piece))
                return false;
        }
    }
    return WriteAt(0, header.data(), headerBytes_);
}

bool StripFile::Put(BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst) {
    if (file_ == INVALID_HANDLE_VALUE || rows == 0 || yOffset + rows > static_cast<DWORD>(info_.ImageLength))
        return false;
    if (info_.Planar)
        return PutPlane(data, bytesPerRow, rows, yOffset);
    return PutChunky(data, bytesPerRow, rows, yOffset, redFirst);
}

bool StripFile::PutChunky(BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst) {
    const bool swap = redFirst && info_.BitsPerPixel == 24;
    const DWORD lowest = static_cast<DWORD>(info_.ImageLength) - yOffset - rows;
    if (layout_ == Layout::RowByRow) {
        for (DWORD k = 0; k < rows; ++k) {
            BYTE *row = data + static_cast<size_t>(k) * bytesPerRow;
            if (swap)
                ExchangeRedBlue(row, pixelRowBytes_);
            const DWORD fileRow = static_cast<DWORD>(info_.ImageLength) - yOffset - k - 1;
            if (!WriteAt(headerBytes_ + fileRow * fileRowBytes_, row, bytesPerRow))
                return false;
        }
        return true;
    }
    if (bytesPerRow == fileRowBytes_) {
        // In place, in one pass: row k and row rows - 1 - k change places, and their red and blue while the two
        // rows are in the cache.
        scratch_.resize(fileRowBytes_);
        BYTE *spare = scratch_.data();
        for (DWORD k = 0; k <= rows - 1 - k; ++k) {
            BYTE *top = data + static_cast<size_t>(k) * bytesPerRow;
            BYTE *bottom = data + static_cast<size_t>(rows - 1 - k) * bytesPerRow;
            if (top != bottom) {
                std::memcpy(spare, top, fileRowBytes_);
                std::memcpy(top, bottom, fileRowBytes_);
                std::memcpy(bottom, spare, fileRowBytes_);
            }
            if (swap) {
                ExchangeRedBlue(top, pixelRowBytes_);
                if (top != bottom)
                    ExchangeRedBlue(bottom, pixelRowBytes_);
            }
        }
        return WriteAt(headerBytes_ + lowest * fileRowBytes_, data, rows * fileRowBytes_);
    }
    scratch_.resize(static_cast<size_t>(rows) * fileRowBytes_);
    const DWORD copied = bytesPerRow < pixelRowBytes_ ? bytesPerRow : pixelRowBytes_;
    for (DWORD k = 0; k < rows; ++k) {
        const BYTE *from = data + static_cast<size_t>(k) * bytesPerRow;
        BYTE *to = &scratch_[static_cast<size_t>(rows - 1 - k) * fileRowBytes_];
        if (swap) {
            for (DWORD i = 0; i + 2 < copied; i += 3) {
                to[i] = from[i + 2];
                to[i + 1] = from[i + 1];
                to[i + 2] = from[i];
            }
        } else {
            std::memcpy(to, from, copied);
        }
        std::memset(to + copied, 0, fileRowBytes_ - copied);
    }
    return WriteAt(headerBytes_ + lowest * fileRowBytes_, scratch_.data(), rows * fileRowBytes_);
}

bool StripFile::PutPlane(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset) {
    if (yOffset == 0)
        ++plane_;
    if (plane_ < 0 || plane_ > 2)
        return false;
    // The rows go in chunks that stay in the processor's cache (a whole plane would not).
    const DWORD chunkRows = kPlanarChunkBytes / fileRowBytes_ ? kPlanarChunkBytes / fileRowBytes_ : 1;
    for (DWORD done = 0; done < rows;) {
        const DWORD n = rows - done < chunkRows ? rows - done : chunkRows;
        if (!PutPlaneRows(data + static_cast<size_t>(done) * bytesPerRow, bytesPerRow, n, yOffset + done))
            return false;
        done += n;
    }
    return true;
}

bool StripFile::PutPlaneRows(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset) {
    const DWORD bytes = rows * fileRowBytes_;
    scratch_.resize(bytes);
    const DWORD lowest = static_cast<DWORD>(info_.ImageLength) - yOffset - rows;
    const DWORD position = headerBytes_ + lowest * fileRowBytes_;
    if (plane_ > 0 || layout_ == Layout::RowByRow) {
        LARGE_INTEGER at;
        at.QuadPart = position;
        DWORD read = 0;
        if (!SetFilePointerEx(file_, at, nullptr, FILE_BEGIN) ||
            !ReadFile(file_, scratch_.data(), bytes, &read, nullptr) || read != bytes)
            return false;
    }
    const DWORD target = 2 - plane_; // red is the third byte of a pixel in the file
    const DWORD columns = static_cast<DWORD>(info_.ImageWidth);
    for (DWORD k = 0; k < rows; ++k) {
        const BYTE *samples = data + static_cast<size_t>(k) * bytesPerRow;
        BYTE *row = &scratch_[static_cast<size_t>(rows - 1 - k) * fileRowBytes_];
        if (plane_ == 0) {
            for (DWORD c = 0; c < columns; ++c) {
                row[3 * c] = 0;
                row[3 * c + 1] = 0;
                row[3 * c + 2] = samples[c];
            }
            std::memset(row + 3 * columns, 0, fileRowBytes_ - 3 * columns);
        } else {
            for (DWORD c = 0; c < columns; ++c)
                row[3 * c + target] = samples[c];
        }
    }
    return WriteAt(position, scratch_.data(), bytes);
}

bool StripFile::WriteAt(DWORD position, const BYTE *bytes, DWORD count) {
    LARGE_INTEGER at;
    at.QuadPart = position;
    DWORD written = 0;
    return SetFilePointerEx(file_, at, nullptr, FILE_BEGIN) && WriteFile(file_, bytes, count, &written, nullptr) &&
           written == count;
}

void StripFile::Close() {
    if (file_ != INVALID_HANDLE_VALUE)
        CloseHandle(file_);
    file_ = INVALID_HANDLE_VALUE;
}

} // namespace bench
