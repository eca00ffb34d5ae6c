/* memory_pages.c: acquires three pages of the document feeder by memory transfer, with a progress line a block. */
#include <stdio.h>
#include <windows.h>

#include "result_words.h"
#include "smkernal.h"

#define PAGES 3

static UINT xferStart, xferData, xferEnd, closeDSReq;
static int page;          /* the page being transferred, from 1 */
static int pagesComplete; /* pages that arrived whole */
static DWORD pageBytes, pageRows, pageBlocks;

static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == xferStart) {
        const ScanImageInfo *image = (const ScanImageInfo *)lParam;
        ++page;
        pageBytes = pageRows = pageBlocks = 0;
        printf("page %d: %ld x %ld pixels, %d bits a pixel\n", page, image->imageWidth, image->imageLength,
               image->bitsPerPixel);
    } else if (message == xferData) {
        /* bytesWritten bytes at block->bufferDescriptor->address: `rows` rows of `bytesPerRow`
           bytes from row `yOffset` on. RGB samples arrive blue first. */
        const ScanBlockInfo *block = (const ScanBlockInfo *)lParam;
        pageBytes += block->bytesWritten;
        pageRows += block->rows;
        ++pageBlocks;
        printf("  block %lu: rows %lu to %lu, %lu bytes\n", pageBlocks, block->yOffset,
               block->yOffset + block->rows - 1, block->bytesWritten);
    } else if (message == xferEnd) {
        const ScanImageInfo *image = (const ScanImageInfo *)lParam;
        const LONG result = (LONG)wParam;
        if (result == SM_OK && pageRows == (DWORD)image->imageLength)
            ++pagesComplete;
        printf("page %d: %lu bytes in %lu blocks: %s\n", page, pageBytes, pageBlocks, ResultWords(result));
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

int main(void) {
    WNDCLASSA windowClass = {0};
    HWND window;
    MSG msg;

    xferStart = RegisterWindowMessageA(SM_MSG_XFERSTART);
    xferData = RegisterWindowMessageA(SM_MSG_XFERDATA);
    xferEnd = RegisterWindowMessageA(SM_MSG_XFEREND);
    closeDSReq = RegisterWindowMessageA(SM_MSG_CLOSEDSREQ);
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleA(NULL);
    windowClass.lpszClassName = "MemoryPages";
    RegisterClassA(&windowClass);
    window = CreateWindowA("MemoryPages", "Memory pages", WS_OVERLAPPEDWINDOW, 0, 0, 320, 240, NULL, NULL,
                           windowClass.hInstance, NULL);

    if (!Succeeded("smOpenDS", smOpenDS(window, "Memory pages")))
        return 1;
    if (!Succeeded("smSetXferMech", smSetXferMech(SM_XFER_MEMORY)) || !Succeeded("smSetADFEnable", smSetADFEnable(1)) ||
        !Succeeded("smSetXferCount", smSetXferCount(PAGES)) || !Succeeded("smEnableDS", smEnableDS(0, 0))) {
        Succeeded("smCloseDS", smCloseDS());
        return 1;
    }
    while (GetMessageA(&msg, NULL, 0, 0) > 0) {
        if (smIsDSEvent(&msg))
            continue; /* the source's message: the transfers ran inside smIsDSEvent */
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    DestroyWindow(window);
    printf("%d of %d pages complete\n", pagesComplete, PAGES);
    return pagesComplete == PAGES ? 0 : 1;
}
