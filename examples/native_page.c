/* native_page.c: acquires one page from the default source as a native bitmap and saves it as a BMP file. */
#include <stdio.h>
#include <windows.h>

#include "result_words.h"
#include "smkernal.h"

static UINT xferEnd, closeDSReq;
static const char *fileName = "page.bmp";
static int saved; /* 1 once the page is in its file */

/* A native image is a packed DIB: the info header, the colour table, the rows. A BMP file is the same behind a file
   header that says where the rows begin. */
static int SaveBitmap(HGLOBAL dib, const char *name) {
    const BITMAPINFOHEADER *info = (const BITMAPINFOHEADER *)GlobalLock(dib);
    BITMAPFILEHEADER header = {0};
    DWORD colours, rowBytes;
    FILE *file;
    int ok;
    if (!info)
        return 0;
    colours = info->biClrUsed ? info->biClrUsed : info->biBitCount <= 8 ? 1u << info->biBitCount : 0;
    rowBytes = ((DWORD)info->biWidth * info->biBitCount + 31) / 32 * 4;
    header.bfType = 0x4D42; /* "BM" */
    header.bfOffBits = sizeof header + info->biSize + colours * sizeof(RGBQUAD);
    header.bfSize = header.bfOffBits + rowBytes * (DWORD)(info->biHeight < 0 ? -info->biHeight : info->biHeight);
    file = fopen(name, "wb");
    ok = file && fwrite(&header, sizeof header, 1, file) == 1 &&
         fwrite(info, header.bfSize - sizeof header, 1, file) == 1;
    if (file && fclose(file) != 0)
        ok = 0;
    GlobalUnlock(dib);
    return ok;
}

static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == xferEnd) {
        const ScanImageInfo *image = (const ScanImageInfo *)lParam;
        const LONG result = (LONG)wParam;
        printf("page: %ld x %ld pixels, %d bits a pixel: %s\n", image->imageWidth, image->imageLength,
               image->bitsPerPixel, ResultWords(result));
        if (result == SM_OK) {
            /* The bitmap's handle is in the slot xferTarget points at; it is ours to free. */
            HGLOBAL dib = *(HGLOBAL *)image->xferTarget;
            saved = SaveBitmap(dib, fileName);
            printf(saved ? "saved to %s\n" : "could not write %s\n", fileName);
            GlobalFree(dib);
        }
    } else if (message == closeDSReq) {
        /* After the last page of a source enabled without its interface. */
        Succeeded("smDisableDS", smDisableDS());
        Succeeded("smCloseDS", smCloseDS());
        PostQuitMessage(0);
    } else {
        return DefWindowProcA(window, message, wParam, lParam);
    }
    return 0;
}

int main(int argc, char **argv) {
    WNDCLASSA windowClass = {0};
    HWND window;
    MSG msg;

    if (argc > 1)
        fileName = argv[1];
    xferEnd = RegisterWindowMessageA(SM_MSG_XFEREND);
    closeDSReq = RegisterWindowMessageA(SM_MSG_CLOSEDSREQ);
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleA(NULL);
    windowClass.lpszClassName = "NativePage";
    RegisterClassA(&windowClass);
    window = CreateWindowA("NativePage", "Native page", WS_OVERLAPPEDWINDOW, 0, 0, 320, 240, NULL, NULL,
                           windowClass.hInstance, NULL);

    if (!Succeeded("smOpenDS", smOpenDS(window, "Native page")))
        return 1;
    /* One page, handed over as a bitmap in memory, without the source's interface. */
    if (!Succeeded("smSetXferMech", smSetXferMech(SM_XFER_NATIVE)) || !Succeeded("smSetXferCount", smSetXferCount(1)) ||
        !Succeeded("smEnableDS", smEnableDS(0, 0))) {
        Succeeded("smCloseDS", smCloseDS());
        return 1;
    }
    /* Every message, thread messages too, goes to smIsDSEvent first: the page arrives inside that call. */
    while (GetMessageA(&msg, NULL, 0, 0) > 0) {
        if (smIsDSEvent(&msg))
            continue;
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    DestroyWindow(window);
    return saved ? 0 : 1;
}
