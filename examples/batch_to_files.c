/* batch_to_files.c: scans pages of the document feeder into numbered bitmap files, one smZephraScan for each. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include "result_words.h"
#include "smkernal.h"

static UINT getName, xferEnd, dsClosed;
static char fileName[MAX_PATH]; /* the full path of the page being scanned */
static LONG pageResult;
static int pageEnded, sourceClosed;

static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == getName) {
        /* lParam: the module's 256-byte buffer for the file's full path, which must stay under 128 characters. */
        lstrcpynA((char *)lParam, fileName, 128);
    } else if (message == xferEnd) {
        pageResult = (LONG)wParam; /* the file is complete, or deleted again */
        pageEnded = 1;
    } else if (message == dsClosed) {
        sourceClosed = 1; /* the module disabled and closed the source: this scan is over */
    } else {
        return DefWindowProcA(window, message, wParam, lParam);
    }
    return 0;
}

int main(int argc, char **argv) {
    const int pages = argc > 1 ? atoi(argv[1]) : 3;
    const char *prefix = argc > 2 ? argv[2] : "page";
    ScanToFileSettings settings;
    WNDCLASSA windowClass = {0};
    HWND window;
    MSG msg;
    int page;

    if (pages < 1 || strlen(prefix) > 40) {
        fprintf(stderr,
                "usage: batch_to_files [PAGES [PREFIX]]: at least one page, a prefix of 40 characters at most\n");
        return 1;
    }
    getName = RegisterWindowMessageA(SM_MSG_SCANTOFILE_GETNAME);
    xferEnd = RegisterWindowMessageA(SM_MSG_SCANTOFILE_XFEREND);
    dsClosed = RegisterWindowMessageA(SM_MSG_SCANTOFILE_DSCLOSED);
    windowClass.lpfnWndProc = WindowProc;
    windowClass.hInstance = GetModuleHandleA(NULL);
    windowClass.lpszClassName = "BatchToFiles";
    RegisterClassA(&windowClass);
    window = CreateWindowA("BatchToFiles", "Batch to files", WS_OVERLAPPEDWINDOW, 0, 0, 320, 240, NULL, NULL,
                           windowClass.hInstance, NULL);

    /* 8-bit gray at 100 dots per inch from the feeder, without the source's interface: one image a call. The frame
       and unit are only stored; the tone scales are the defaults. */
    memset(&settings, 0, sizeof settings);
    settings.unitCode = SM_UNIT_INCHES;
    settings.pixelTypeCode = SM_PIXEL_GRAY;
    settings.resolution = 100;
    settings.brightnessMin = settings.contrastMin = -1000;
    settings.brightnessMax = settings.contrastMax = 1000;
    settings.highlight = settings.highlightMax = settings.shadowMax = 255;
    settings.useFeeder = 1;

    for (page = 1; page <= pages; ++page) {
        char name[64];
        wsprintfA(name, "%s-%d.bmp", prefix, page);
        if (!GetFullPathNameA(name, sizeof fileName, fileName, NULL) || strlen(fileName) >= 128) {
            fprintf(stderr, "%s: its full path must be shorter than 128 characters\n", name);
            return 1;
        }
        pageEnded = sourceClosed = 0;
        /* Opens and enables the default source; the page is written while smIsDSEvent passes the source's message. */
        if (!smZephraScan(window, "Batch to files", &settings)) {
            /* A source that took no transfer mechanism stays open; else nothing is (smCloseDS: TWCC_SEQERROR). */
            const LONG closed = smCloseDS();
            fprintf(stderr, "page %d: the source could not be opened or started (an empty feeder?)\n", page);
            if (closed != SM_ERR_SEQUENCE)
                Succeeded("smCloseDS", closed);
            return 1;
        }
        while (!sourceClosed && GetMessageA(&msg, NULL, 0, 0) > 0) {
            if (smIsDSEvent(&msg))
                continue;
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        if (!pageEnded) {
            fprintf(stderr, "page %d: the source closed without scanning\n", page);
            return 1;
        }
        printf("page %d: %s: %s\n", page, name, FileResultWords(pageResult));
        if (pageResult != SM_OK)
            return 1;
    }
    DestroyWindow(window);
    return 0;
}
