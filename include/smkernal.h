/* smkernal.h: the public C interface of the scan module smkernal.dll for applications.

   Contract
   - Platform: 32-bit Windows (x86). Every function is standard-call (__stdcall), exported under
     its plain name with C linkage. Link with libsmkernal.dll.a (MinGW) or smkernal.lib (MSVC), or
     load the DLL and resolve the names (or the fixed ordinals below) with GetProcAddress.
   - Widths: every argument and result is a 32-bit word unless a double is named. "Status" results
     are signed 32-bit: SM_OK, SM_ERR_* or a TWAIN condition code (TWCC_*) that the source reported.
   - Threads: call from the one thread that runs your message loop; the module has no locks,
     threads or timers of its own. Notifications (the registered messages below) are sent
     synchronously to the window given to smOpenDS, from inside the call that caused them.
   - Ownership: records passed by pointer stay yours; the module never keeps a pointer to them
     after the call returns. Records handed to you with a notification are the module's and are
     overwritten for the next image.
   - Nothing is thrown across this interface.
   - The module loads TWAIN_32.DLL from the Windows directory only, and retries on every call
     while it is missing.
   - Diagnostics: with a viewer running (window class "KDVDiagXprt32"), every call writes trace
     records; DEBUGSM.INI in the Windows directory switches them ([Debug] Trace=, Warning=). */
#ifndef SMKERNAL_H
#define SMKERNAL_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(SMKERNAL_BUILDING)
#define SMAPI
#else
#define SMAPI __declspec(dllimport)
#endif
#define SMCALL __stdcall

/* Status results. */
#define SM_OK 0                   /* success, also when already in the requested state */
#define SM_ERR_UNAVAILABLE (-1)   /* TWAIN_32.DLL could not be loaded from the Windows directory */
#define SM_ERR_SOURCE_CANCEL (-4) /* a transfer was cancelled by the source */
#define SM_ERR_APP_CANCEL (-5)    /* a transfer was cancelled by the application */
#define SM_ERR_USER_CANCEL (-6)   /* the user cancelled the source selection */
#define SM_ERR_NO_DISK_SPACE (-2) /* scan to file: not enough disk space */
#define SM_ERR_FILE (-3)          /* scan to file: file create, read or write failure */
#define SM_ERR_IMAGE_REFUSED 1    /* scan to file: image refused or format not supported */
#define SM_ERR_LOW_MEMORY 2       /* out of memory (TWCC_LOWMEMORY) */
#define SM_ERR_BAD_VALUE 10       /* a value or container the module cannot accept (TWCC_BADVALUE) */
#define SM_ERR_SEQUENCE 11        /* called in the wrong session state (TWCC_SEQERROR) */

/* Names of the registered window messages sent to the application's window
   (RegisterWindowMessageA gives their numbers). */
#define SM_MSG_CLOSEDSREQ "ScanModule_CloseDSReq"
#define SM_MSG_XFERSTART "ScanModule_XferStart"
#define SM_MSG_XFERDATA "ScanModule_XferData"
#define SM_MSG_XFEREND "ScanModule_XferEnd"
#define SM_MSG_SCANTOFILE_GETNAME "ScanModule_ScanToFileGetName"
#define SM_MSG_SCANTOFILE_XFEREND "ScanModule_ScanToFileXferEnd"
#define SM_MSG_SCANTOFILE_DSCLOSED "ScanModule_ScanToFileDSClosed"

/* The record of DisableWnds: 10 bytes, 2-byte packing. */
#pragma pack(push, 2)
typedef struct DisabledWindowList {
    HWND window;      /* offset 0 */
    WORD windowCount; /* offset 4: windows counted by a pass with nextSlot NULL */
    HWND *nextSlot;   /* offset 6: where a filling pass stores the next window */
} DisabledWindowList;
#pragma pack(pop)

/* Ordinal 1. Returns 1 when TWAIN_32.DLL is loaded (loading it now if needed), else 0. */
SMAPI BOOL SMCALL smIsTWAINAvailable(void);

/* Session calls. Each returns a status: SM_OK (also when already in the requested state),
   SM_ERR_UNAVAILABLE, SM_ERR_SEQUENCE when called in the wrong state, or the TWAIN condition
   code of a failed call. */

/* Ordinal 3. Shows the source manager's selection dialog; the chosen source becomes the default
   that smOpenDS opens. SM_ERR_USER_CANCEL when the user cancels. A NULL window means the desktop.
   The source manager is closed again afterwards. */
SMAPI LONG SMCALL smSelectDS(HWND parent);

/* Ordinal 4. Opens the source manager if needed and the default source. `parent` (NULL: the
   desktop) receives every notification; `title` (NULL: "Calvex Scan Module", cut to 33
   characters) names the application to the source. */
SMAPI LONG SMCALL smOpenDS(HWND parent, const char *title);

/* Ordinal 5. Enables the open source, with or without its user interface. With modalUI nonzero
   the parent window is disabled until smDisableDS (or a failed enable) enables it again. */
SMAPI LONG SMCALL smEnableDS(BOOL showUI, BOOL modalUI);

/* Ordinal 6. Disables the enabled source. */
SMAPI LONG SMCALL smDisableDS(void);

/* Ordinal 7. Closes the open source and the source manager. */
SMAPI LONG SMCALL smCloseDS(void);

/* Ordinal 58. Makes the installed source with this product name (compared ignoring case) the
   source manager's default, through win.ini [Twain] "Default Source", without a dialog.
   12 (TWCC_BADDEST) when no source in <windows>\twain_32 or <windows>\twain has that name; the
   entry is then restored. */
SMAPI LONG SMCALL smSetDefaultDriver(HWND parent, const char *productName);

/* Ordinal 65. Writes the installed sources into section [DS] of the profile file `path`:
   name1, name2, ... their product names, name0 the default source, count the number of numbered
   names (count=0 when the call fails). Keys of an earlier, longer list are not removed. */
SMAPI LONG SMCALL smGetAllDS(const char *path);

/* Ordinal 46. Asks the module to skip the image being transferred; call it from a
   notification handler. */
SMAPI void SMCALL smCancelThisXfer(void);

/* Ordinal 47. Asks the module to skip this and every remaining image. */
SMAPI void SMCALL smCancelAllXfer(void);

/* Ordinal 100. An EnumWindows/EnumThreadWindows callback that the module never calls itself.
   It skips child windows and disabled windows. With list->nextSlot NULL it counts the enabled
   top-level windows in list->windowCount; otherwise it stores each at *list->nextSlot, advances
   nextSlot and disables the window. Always returns 1. Re-enabling the windows is yours. */
SMAPI BOOL SMCALL DisableWnds(HWND window, DisabledWindowList *list);

#ifdef __cplusplus
}
#endif

#endif /* SMKERNAL_H */
