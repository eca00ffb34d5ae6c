// The benchmark's own bitmap writer: headers and colour table, then every strip once at its final place.
#include "StripFile.h"

#include <cstring>

namespace bench {

namespace {

constexpr DWORD kFileHeaderBytes = 14;
constexpr DWORD kInfoHeaderBytes = 40;
constexpr WORD kBitmapType = 0x4D42; // "BM"

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
    return WriteAt(0, header.data(), headerBytes_);
}

bool StripFile::Put(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst) {
    if (file_ == INVALID_HANDLE_VALUE || rows == 0 || yOffset + rows > static_cast<DWORD>(info_.ImageLength))
        return false;
    if (info_.Planar)
        return PutPlane(data, bytesPerRow, rows, yOffset);
    return PutChunky(data, bytesPerRow, rows, yOffset, redFirst);
}

bool StripFile::PutChunky(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst) {
    rows_.resize(static_cast<size_t>(rows) * fileRowBytes_);
    const DWORD copied = bytesPerRow < pixelRowBytes_ ? bytesPerRow : pixelRowBytes_;
    const bool swap = redFirst && info_.BitsPerPixel == 24;
    for (DWORD k = 0; k < rows; ++k) {
        const BYTE *from = data + static_cast<size_t>(k) * bytesPerRow;
        BYTE *to = &rows_[static_cast<size_t>(rows - 1 - k) * fileRowBytes_];
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
    const DWORD lowest = static_cast<DWORD>(info_.ImageLength) - yOffset - rows;
    return WriteAt(headerBytes_ + lowest * fileRowBytes_, rows_.data(), rows * fileRowBytes_);
}

bool StripFile::PutPlane(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset) {
    if (yOffset == 0)
        ++plane_;
    if (plane_ < 0 || plane_ > 2)
        return false;
    const DWORD bytes = rows * fileRowBytes_;
    rows_.resize(bytes);
    const DWORD lowest = static_cast<DWORD>(info_.ImageLength) - yOffset - rows;
    const DWORD position = headerBytes_ + lowest * fileRowBytes_;
    if (plane_ > 0) {
        LARGE_INTEGER at;
        at.QuadPart = position;
        DWORD read = 0;
        if (!SetFilePointerEx(file_, at, nullptr, FILE_BEGIN) ||
            !ReadFile(file_, rows_.data(), bytes, &read, nullptr) || read != bytes)
            return false;
    }
    const DWORD target = 2 - plane_; // red is the third byte of a pixel in the file
    const DWORD columns = static_cast<DWORD>(info_.ImageWidth);
    for (DWORD k = 0; k < rows; ++k) {
        const BYTE *samples = data + static_cast<size_t>(k) * bytesPerRow;
        BYTE *row = &rows_[static_cast<size_t>(rows - 1 - k) * fileRowBytes_];
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
    return WriteAt(position, rows_.data(), bytes);
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
