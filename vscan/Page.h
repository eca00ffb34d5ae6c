// Test pages: the pixel formula, rows packed in each format, palettes, and the packed DIB of native and file transfers.
#pragma once

#include <cstdint>
#include <vector>

#include "twain1x.h"

namespace vscan {

// An image to produce: size, page number and sample format.
struct PageFormat {
    int width = 1;
    int height = 1;
    int page = 1;
    int pixelType = TWPT_RGB;
    int bitDepth = 24;
    bool planar = false;  // RGB only: memory transfers deliver the red, green and blue planes one after the other
    int threshold = 128;  // black-and-white: a pixel is white when its 8-bit gray is at least this
    bool vanilla = false; // black-and-white and gray: 0 is white (samples and their colour table inverted)
    int repeatRows = 0;   // VSCAN_FAULT_REPEATROWS: only this many rows of the page are delivered, over and over; 0 off
};

struct Rgb16 {
    uint16_t r, g, b;
};

// The page's colour at (x, y), 16 bits per channel: black border and page number over gradients (see the README).
Rgb16 PagePixel(int width, int height, int page, int x, int y);
uint16_t Gray16(Rgb16 c);

int SamplesPerPixel(int pixelType);
int BitsPerSample(const PageFormat &f);
// Bytes of one row as memory transfers deliver it: unpadded; a plane's row for planar images.
uint32_t MemoryBytesPerRow(const PageFormat &f);
// One row of the page in memory-transfer layout (RGB order, 16-bit samples little-endian); `plane` -1 for chunky.
void RenderRow(const PageFormat &f, int y, int plane, uint8_t *out);
// The row of the page that row y of the image shows: y itself, or with `repeatRows` N below the height H, row
// (H - N) / 2 + y mod N (the N rows through the middle of the page, where its number is, over and over).
int PageRow(const PageFormat &f, int y);
// An earlier row of the image with the same pixels as row y (y mod N with repeated rows), or -1.
int SameRowAs(const PageFormat &f, int y);

// The rows of an image in memory-transfer layout. Without repeated rows each is rendered from the page when asked for;
// with them the N rows (of each plane) are rendered at the first row asked for and copied from then on.
class ImageRows {
public:
    ImageRows() = default;
    explicit ImageRows(const PageFormat &f) : format_(f) {}
    // Row y of the image (of `plane`, -1 for chunky) into `out`, MemoryBytesPerRow bytes.
    void Row(int y, int plane, uint8_t *out);

private:
    PageFormat format_;
    std::vector<uint8_t> rendered_; // repeated rows: N rows of each plane, plane after plane
};

// Palette entries of palette images: index i of n = 2^depth has L = i*255/(n-1) and colour (L, 255-L, L/2), whatever
// the pixel flavour; black-and-white and gray: a ramp from black, or from white for vanilla.
std::vector<TW_ELEMENT8> PaletteOf(const PageFormat &f);

// The packed DIB (BITMAPINFOHEADER, colour table, bottom-up rows padded to 4 bytes, BGR) of a page.
std::vector<uint8_t> BuildDib(const PageFormat &f, double xres, double yres);
// A BMP file: the file header, then the DIB.
std::vector<uint8_t> BuildBmpFile(const PageFormat &f, double xres, double yres);

} // namespace vscan
