// The benchmark's own bitmap writer: every strip of an image at its final place in a bottom-up BMP file, written at
// once or by the library's own file calls.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "twain1x.h"

namespace bench {

// Builds the same file the library's scan to file writes for the image (headers, colour table, rows), but without
// laying out the whole file first: the strip's rows are put in file order in memory (reversed, padded, red and blue
// exchanged where the strip is red first) and written with one seek and one write. Rows that already have the file's
// length are reversed where they are, in the strip's own buffer; others go through `scratch`, which the caller keeps
// from image to image as an application scanning page after page would. Planar strips are one plane's samples, put
// in chunks of 256 KiB of file rows: the first plane (red) is written without reading, the later ones read the rows
// they go into, put their samples in and write them back.
//
// With Layout::RowByRow it makes instead the file calls the library's scan to file makes: the whole file written with
// zeros first in pieces of 61,440 bytes, then the headers, then every row of a strip with a seek and a write of its own
// (red and blue exchanged in the strip's buffer), and every plane read back and written in chunks of 256 KiB.
class StripFile {
public:
    enum class Layout { OncePerStrip, RowByRow };
    explicit StripFile(std::vector<BYTE> &scratch, Layout layout = Layout::OncePerStrip)
        : scratch_(scratch), layout_(layout) {}
    ~StripFile() { Close(); }
    // Creates the file with its headers and colour table; false when it cannot be written.
    bool Create(const std::string &path, const TW_IMAGEINFO &info);
    // One strip: `rows` rows `bytesPerRow` apart from image row `yOffset` on, which may be reordered in place.
    // `redFirst`: chunky RGB as sources deliver it (the bitmap wants blue first).
    bool Put(BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst);
    void Close();

private:
    bool PutChunky(BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset, bool redFirst);
    bool PutPlane(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset);
    bool PutPlaneRows(const BYTE *data, DWORD bytesPerRow, DWORD rows, DWORD yOffset);
    bool WriteAt(DWORD position, const BYTE *bytes, DWORD count);

    HANDLE file_ = INVALID_HANDLE_VALUE;
    TW_IMAGEINFO info_ = {};
    DWORD fileRowBytes_ = 0;
    DWORD pixelRowBytes_ = 0;
    DWORD headerBytes_ = 0;
    int plane_ = -1;
    std::vector<BYTE> &scratch_;
    Layout layout_;
};

// Bytes of a row of the bitmap: whole bytes, then a multiple of 4.
DWORD BitmapRowBytes(const TW_IMAGEINFO &info);

} // namespace bench
