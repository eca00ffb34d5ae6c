// Test pages: gradients, border and page number computed per pixel, then packed row by row in each format.
#include "Page.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace vscan {

namespace {

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
constexpr int kGlyphPitch = kGlyphWidth + 1; // a blank column between digits
constexpr int kBorderDivisor = 50;           // border width: min(width, height) / 50, at least 1
constexpr int kMaxSample16 = 65535;
constexpr int kMaxSample8 = 255;
constexpr double kInchesPerMetre = 39.3700787;
constexpr uint32_t kDibAlign = 4;

// 5 x 7 digits, one byte per row, bit 4 the leftmost column.
const uint8_t kFont[10][kGlyphHeight] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

bool InBorder(int width, int height, int x, int y) {
    const int border = std::max(1, std::min(width, height) / kBorderDivisor);
    return x < border || y < border || x >= width - border || y >= height - border;
}

// The page number, centred, in cells of `cell` pixels; drawn only when it fits.
bool InDigits(int width, int height, int page, int x, int y) {
    const std::string digits = std::to_string(page);
    const int n = static_cast<int>(digits.size());
    const int cell = std::max(1, std::min(width / (kGlyphPitch * n + 1), height / (kGlyphHeight + 2)) / 2);
    const int blockWidth = (kGlyphPitch * n - 1) * cell;
    const int blockHeight = kGlyphHeight * cell;
    if (blockWidth > width || blockHeight > height)
        return false;
    const int left = (width - blockWidth) / 2;
    const int top = (height - blockHeight) / 2;
    if (x < left || y < top || x >= left + blockWidth || y >= top + blockHeight)
        return false;
    const int cx = (x - left) / cell;
    const int cy = (y - top) / cell;
    const int column = cx % kGlyphPitch;
    if (column >= kGlyphWidth)
        return false;
    return (kFont[digits[cx / kGlyphPitch] - '0'][cy] >> (kGlyphWidth - 1 - column)) & 1;
}

uint16_t Scale16(int64_t value, int64_t span) {
    return static_cast<uint16_t>(value * kMaxSample16 / std::max<int64_t>(span, 1));
}

void Put16(uint8_t *at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value & 0xff);
    at[1] = static_cast<uint8_t>(value >> 8);
}

uint8_t Gray8(Rgb16 c) {
    return static_cast<uint8_t>(Gray16(c) >> 8);
}

// Sets or clears bit `x` of a row of 1-bit or the nibble of a row of 4-bit pixels (most significant first).
void PutBits(uint8_t *row, int x, int bits, unsigned value) {
    const int perByte = 8 / bits;
    const int shift = (perByte - 1 - x % perByte) * bits;
    const unsigned mask = ((1u << bits) - 1) << shift;
    row[x / perByte] = static_cast<uint8_t>((row[x / perByte] & ~mask) | ((value << shift) & mask));
}

// One pixel in memory-transfer layout; `plane` picks one channel of a planar image.
void PutPixel(const PageFormat &f, uint8_t *row, int x, Rgb16 c, int plane) {
    const uint16_t channels[3] = {c.r, c.g, c.b};
    switch (f.pixelType) {
    case TWPT_BW:
        PutBits(row, x, 1, (Gray8(c) >= f.threshold) != f.vanilla);
        return;
    case TWPT_PALETTE:
        if (f.bitDepth == 4)
            PutBits(row, x, 4, Gray8(c) >> 4);
        else
            row[x] = Gray8(c);
        return;
    case TWPT_GRAY: {
        const uint16_t gray = f.vanilla ? kMaxSample16 - Gray16(c) : Gray16(c);
        if (f.bitDepth == 16)
            Put16(row + 2 * x, gray);
        else
            row[x] = static_cast<uint8_t>(gray >> 8);
        return;
    }
    default:
        break;
    }
    const bool wide = f.bitDepth == 48;
    const int samples = plane < 0 ? 3 : 1;
    for (int i = 0; i < samples; ++i) {
        const uint16_t value = channels[plane < 0 ? i : plane];
        const int index = x * samples + i;
        if (wide)
            Put16(row + 2 * index, value);
        else
            row[index] = static_cast<uint8_t>(value >> 8);
    }
}

// Colour table of a DIB: the palette's entries, in the order of the samples (none for RGB and 16-bit gray).
std::vector<RGBQUAD> DibColours(const PageFormat &f) {
    std::vector<RGBQUAD> table;
    if (f.pixelType == TWPT_RGB || f.bitDepth == 16)
        return table;
    for (const TW_ELEMENT8 &e : PaletteOf(f))
        table.push_back(RGBQUAD{e.Channel3, e.Channel2, e.Channel1, 0});
    return table;
}

// Swaps red and blue of a chunky RGB row in place: Windows bitmaps keep blue first.
void ToBgr(const PageFormat &f, uint8_t *row) {
    if (f.pixelType != TWPT_RGB)
        return;
    const int sample = f.bitDepth == 48 ? 2 : 1;
    for (int x = 0; x < f.width; ++x) {
        uint8_t *pixel = row + x * 3 * sample;
        for (int i = 0; i < sample; ++i)
            std::swap(pixel[i], pixel[2 * sample + i]);
    }
}

} // namespace

Rgb16 PagePixel(int width, int height, int page, int x, int y) {
    if (InBorder(width, height, x, y) || InDigits(width, height, page, x, y))
        return Rgb16{0, 0, 0};
    return Rgb16{Scale16(x, width - 1), Scale16(y, height - 1), Scale16(x + y, width + height - 2)};
}

uint16_t Gray16(Rgb16 c) {
    return static_cast<uint16_t>((c.r + c.g + c.b) / 3);
}

int SamplesPerPixel(int pixelType) {
    return pixelType == TWPT_RGB ? 3 : 1;
}

int BitsPerSample(const PageFormat &f) {
    return f.bitDepth / SamplesPerPixel(f.pixelType);
}

uint32_t MemoryBytesPerRow(const PageFormat &f) {
    const int bits = f.planar ? BitsPerSample(f) : f.bitDepth;
    return (static_cast<uint32_t>(f.width) * bits + 7) / 8;
}

void RenderRow(const PageFormat &f, int y, int plane, uint8_t *out) {
    std::memset(out, 0, MemoryBytesPerRow(f));
    for (int x = 0; x < f.width; ++x)
        PutPixel(f, out, x, PagePixel(f.width, f.height, f.page, x, y), plane);
}

int PageRow(const PageFormat &f, int y) {
    if (f.repeatRows <= 0 || f.repeatRows >= f.height)
        return y;
    return (f.height - f.repeatRows) / 2 + y % f.repeatRows;
}

int SameRowAs(const PageFormat &f, int y) {
    if (f.repeatRows <= 0 || f.repeatRows >= f.height || y < f.repeatRows)
        return -1;
    return y % f.repeatRows;
}

void ImageRows::Row(int y, int plane, uint8_t *out) {
    const PageFormat &f = format_;
    const size_t rowBytes = MemoryBytesPerRow(f);
    if (f.repeatRows <= 0 || f.repeatRows >= f.height) {
        RenderRow(f, y, plane, out);
        return;
    }
    const int planes = f.planar ? 3 : 1;
    if (rendered_.empty()) {
        rendered_.resize(rowBytes * f.repeatRows * planes);
        for (int p = 0; p < planes; ++p)
            for (int i = 0; i < f.repeatRows; ++i)
                RenderRow(f, PageRow(f, i), f.planar ? p : -1, &rendered_[rowBytes * (p * f.repeatRows + i)]);
    }
    const int index = (plane < 0 ? 0 : plane) * f.repeatRows + y % f.repeatRows;
    std::memcpy(out, &rendered_[rowBytes * index], rowBytes);
}

std::vector<TW_ELEMENT8> PaletteOf(const PageFormat &f) {
    std::vector<TW_ELEMENT8> colours;
    if (f.pixelType == TWPT_PALETTE) {
        const int n = 1 << f.bitDepth;
        for (int i = 0; i < n; ++i) {
            const int level = i * kMaxSample8 / (n - 1);
            colours.push_back(TW_ELEMENT8{static_cast<TW_UINT8>(i), static_cast<TW_UINT8>(level),
                                          static_cast<TW_UINT8>(kMaxSample8 - level),
                                          static_cast<TW_UINT8>(level / 2)});
        }
        return colours;
    }
    const int n = f.pixelType == TWPT_BW ? 2 : kMaxSample8 + 1;
    for (int i = 0; i < n; ++i) {
        const int ramp = i * kMaxSample8 / (n - 1);
        const TW_UINT8 level = static_cast<TW_UINT8>(f.vanilla ? kMaxSample8 - ramp : ramp);
        colours.push_back(TW_ELEMENT8{static_cast<TW_UINT8>(i), level, level, level});
    }
    return colours;
}

std::vector<uint8_t> BuildDib(const PageFormat &chunky, double xres, double yres) {
    PageFormat f = chunky;
    f.planar = false; // bitmaps are always chunky
    const std::vector<RGBQUAD> colours = DibColours(f);
    const uint32_t stride = (static_cast<uint32_t>(f.width) * f.bitDepth + 31) / 32 * kDibAlign;
    const uint32_t header = sizeof(BITMAPINFOHEADER) + colours.size() * sizeof(RGBQUAD);
    std::vector<uint8_t> dib(header + static_cast<size_t>(stride) * f.height, 0);

    BITMAPINFOHEADER info{};
    info.biSize = sizeof info;
    info.biWidth = f.width;
    info.biHeight = f.height; // positive: bottom-up
    info.biPlanes = 1;
    info.biBitCount = static_cast<WORD>(f.bitDepth);
    info.biCompression = BI_RGB;
    info.biSizeImage = stride * f.height;
    info.biXPelsPerMeter = static_cast<LONG>(std::lround(xres * kInchesPerMetre));
    info.biYPelsPerMeter = static_cast<LONG>(std::lround(yres * kInchesPerMetre));
    info.biClrUsed = static_cast<DWORD>(colours.size());
    std::memcpy(dib.data(), &info, sizeof info);
    if (!colours.empty())
        std::memcpy(dib.data() + sizeof info, colours.data(), colours.size() * sizeof(RGBQUAD));
    const auto rowAt = [&](int y) { return dib.data() + header + static_cast<size_t>(f.height - 1 - y) * stride; };
    for (int y = 0; y < f.height; ++y) {
        uint8_t *row = rowAt(y);
        const int same = SameRowAs(f, y);
        if (same >= 0) {
            std::memcpy(row, rowAt(same), stride);
            continue;
        }
        RenderRow(f, PageRow(f, y), -1, row);
        ToBgr(f, row);
    }
    return dib;
}

std::vector<uint8_t> BuildBmpFile(const PageFormat &f, double xres, double yres) {
    const std::vector<uint8_t> dib = BuildDib(f, xres, yres);
    BITMAPINFOHEADER info;
    std::memcpy(&info, dib.data(), sizeof info);
    BITMAPFILEHEADER file{};
    file.bfType = 0x4d42; // "BM"
    file.bfSize = static_cast<DWORD>(sizeof file + dib.size());
    file.bfOffBits = static_cast<DWORD>(sizeof file + sizeof info + info.biClrUsed * sizeof(RGBQUAD));
    std::vector<uint8_t> bmp(sizeof file + dib.size());
    std::memcpy(bmp.data(), &file, sizeof file);
    std::memcpy(bmp.data() + sizeof file, dib.data(), dib.size());
    return bmp;
}

} // namespace vscan
