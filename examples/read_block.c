/* read_block.c: pulls one page block by block with smReadBlock, the module's own transfer switched off; PGM file. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include "result_words.h"
#include "smkernal.h"

#define BLOCK_BYTES 65536

/* CV_Scan.INI beside this program: [Settings] SuppressTWAIN=2 has smIsDSEvent leave the images pending. */
static char settingsPath[MAX_PATH];
static int settingsExisted;

static int SuppressTransfers(void) {
    GetModuleFileNameA(NULL, settingsPath, MAX_PATH - 16);
    strcpy(strrchr(settingsPath, '\\') + 1, "CV_Scan.INI");
    settingsExisted = GetFileAttributesA(settingsPath) != INVALID_FILE_ATTRIBUTES;
    return WritePrivateProfileStringA("Settings", "SuppressTWAIN", "2", settingsPath);
}

static void AllowTransfers(void) {
    WritePrivateProfileStringA("Settings", "SuppressTWAIN", NULL, settingsPath);
    WritePrivateProfileStringA(NULL, NULL, NULL, settingsPath); /* written out now, before the file may go */
    if (!settingsExisted)
        DeleteFileA(settingsPath);
}

/* Reads the pending image into `file`: 8-bit gray, one byte a pixel, rows top down without padding. */
static int ReadPage(FILE *file, LONG width, LONG length) {
    const DWORD imageBytes = (DWORD)width * (DWORD)length;
    BYTE *buffer = malloc(BLOCK_BYTES + width); /* a block and one row more, as smReadBlock may write */
    DWORD total = 0, count = 0, blocks = 0;
    BOOL ended = FALSE;
    if (!buffer)
        return 0;
    while (!ended) {
        ended = smReadBlock(buffer, BLOCK_BYTES, &count);
        /* The call that says the image is over brings its last block: what the image leaves after the others. */
        if (ended)
            count = imageBytes - total;
        if (count > BLOCK_BYTES || fwrite(buffer, 1, count, file) != count)
            break;
        total += count;
        ++blocks;
    }
    free(buffer);
    printf("page: %ld x %ld pixels, %lu bytes in %lu blocks\n", width, length, total, blocks);
    return ended && total == imageBytes;
}

int main(int argc, char **argv) {
    const char *fileName = argc > 1 ? argv[1] : "page.pgm";
    LONG width = 0, length = 0;
    HWND window;
    FILE *file;
    MSG msg;
    int ok;

    if (!SuppressTransfers()) {
        fprintf(stderr, "cannot write %s\n", settingsPath);
        return 1;
    }
    window = CreateWindowA("STATIC", "Read block", WS_OVERLAPPED, 0, 0, 320, 240, NULL, NULL, NULL, NULL);
    if (!Succeeded("smOpenDS", smOpenDS(window, "Read block"))) {
        AllowTransfers();
        return 1;
    }
    if (!Succeeded("smSetXferMech", smSetXferMech(SM_XFER_MEMORY)) ||
        !Succeeded("smSetPixelType", smSetPixelType(SM_PIXEL_GRAY)) ||
        !Succeeded("smSetXferCount", smSetXferCount(1)) || !Succeeded("smEnableDS", smEnableDS(0, 0))) {
        Succeeded("smCloseDS", smCloseDS());
        AllowTransfers();
        return 1;
    }
    /* The source's transfer-ready message passes smIsDSEvent without a transfer; the image is pending from then on,
       and its size known. */
    while (width == 0 && GetMessageA(&msg, NULL, 0, 0) > 0) {
        if (smIsDSEvent(&msg)) {
            smGetImageDim(&width, &length);
            continue;
        }
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    file = fopen(fileName, "wb");
    ok = file && fprintf(file, "P5\n%ld %ld\n255\n", width, length) > 0 && ReadPage(file, width, length);
    if (file && fclose(file) != 0)
        ok = 0;
    printf(ok ? "saved to %s\n" : "could not read the page into %s\n", fileName);
    ok = Succeeded("smDisableDS", smDisableDS()) && ok;
    ok = Succeeded("smCloseDS", smCloseDS()) && ok;
    AllowTransfers();
    DestroyWindow(window);
    return ok ? 0 : 1;
}
