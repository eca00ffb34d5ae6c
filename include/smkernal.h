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
   - Unloading closes nothing: close the session (smDisableDS, smCloseDS) before you free the
     library. A session left open stays open in the source manager, which then stays loaded, and
     a window disabled for a modal source interface stays disabled; loading the library again gives
     a fresh module whose smOpenDS the source manager refuses until that session is ended.
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

/* Bit flags at this interface: TWAIN code n travels as 2 to the power n. */
#define SM_UNIT_INCHES 0x01
#define SM_UNIT_CENTIMETERS 0x02
#define SM_UNIT_PICAS 0x04
#define SM_UNIT_POINTS 0x08
#define SM_UNIT_TWIPS 0x10
#define SM_UNIT_PIXELS 0x20
#define SM_PIXEL_BW 0x0001
#define SM_PIXEL_GRAY 0x0002
#define SM_PIXEL_RGB 0x0004
#define SM_PIXEL_PALETTE 0x0008
#define SM_PIXEL_CMY 0x0010
#define SM_PIXEL_CMYK 0x0020
#define SM_PIXEL_YUV 0x0040
#define SM_PIXEL_YUVK 0x0080
#define SM_PIXEL_CIEXYZ 0x0100
#define SM_PAPER_NONE 0x0001
#define SM_PAPER_A4LETTER 0x0002
#define SM_PAPER_B5LETTER 0x0004
#define SM_PAPER_USLETTER 0x0008
#define SM_PAPER_USLEGAL 0x0010
#define SM_PAPER_A5 0x0020
#define SM_PAPER_B4 0x0040
#define SM_PAPER_B6 0x0080
#define SM_PAPER_USLEDGER 0x0100
#define SM_XFER_NATIVE 1
#define SM_XFER_FILE 2
#define SM_XFER_MEMORY 4

/* The scan-capability snapshot of smGetScanCap: 104 bytes, every field 32-bit, little-endian. */
typedef struct ScanCapRecord {
    LONG size;               /* offset 0: 104 */
    LONG passThrough[13];    /* offsets 4 to 55: never written; keep what you put there */
    LONG reserved;           /* offset 56: 0 */
    LONG maxXResolution;     /* offset 60 */
    LONG minXResolution;     /* offset 64 */
    LONG xResolution;        /* offset 68: raised to 300 when below it and the maximum allows it */
    LONG bitDepth;           /* offset 72: always 8 */
    LONG maxWidth;           /* offset 76: largest width in 1/1200 inch */
    LONG maxHeight;          /* offset 80: largest height in 1/1200 inch */
    LONG unit;               /* offset 84: SM_UNIT_* */
    LONG pixelType;          /* offset 88: SM_PIXEL_* */
    LONG memXferSize;        /* offset 92: the source's largest memory-transfer buffer */
    LONG passThroughTail[2]; /* offsets 96 to 103: never written */
} ScanCapRecord;

/* Image transfers. The application passes every message of its loop to smIsDSEvent. When the
   source has images ready, smIsDSEvent transfers all of them before it returns, by the mechanism
   the source has now (smSetXferMech), sending these notifications to the window given to smOpenDS:

   SM_MSG_XFERSTART  once per image, before it is fetched; lParam: the mechanism's ScanImageInfo.
                     Call smCancelThisXfer or smCancelAllXfer here to skip the image (or all).
   SM_MSG_XFERDATA   memory transfers only, once per block; lParam: the ScanBlockInfo.
   SM_MSG_XFEREND    once per image that had an XferStart; wParam: the image's result (SM_OK,
                     SM_ERR_SOURCE_CANCEL, SM_ERR_APP_CANCEL, SM_ERR_LOW_MEMORY or a TWAIN condition
                     code); lParam: the same ScanImageInfo. A source that fails without a condition
                     code makes the result SM_OK with nothing delivered: test the bitmap handle.
   SM_MSG_CLOSEDSREQ the source asks to be closed, or the images of a source enabled without its
                     interface are over (a memory transfer whose image failed with condition code 5
                     sends it twice); call smDisableDS and smCloseDS. wParam and lParam are 0.

   The records are the module's: one per mechanism, overwritten for every image and block, valid
   until the library is unloaded. What xferTarget points at, by mechanism:
   - native (SM_XFER_NATIVE): a slot that receives the bitmap's handle (a packed DIB in global
     memory) once the image is delivered. The handle is yours from then on: free it with
     GlobalFree. Take it by writing the address of your own HGLOBAL variable into xferTarget during
     XferStart, or by reading *(HGLOBAL *)xferTarget during XferEnd with wParam SM_OK. Writing NULL
     into xferTarget during XferStart makes the module free that image's bitmap itself.
   - file (SM_XFER_FILE): the module's 256-byte file-name buffer. Write the file's name (at most
     255 characters and the NUL) into it during XferStart; the source writes a BMP file there. The
     name is used as a wsprintf format, so "%%" stands for one "%"; other directives are given
     zeros ("%d" gives "0", "%s" gives "(null)"). The buffer keeps the last name for the next image.
   - memory (SM_XFER_MEMORY): the buffer descriptor, {size, address} of the buffer the source
     writes each block into. The module fills it with a buffer of its own; write your own buffer's
     size and address into it (during XferStart or XferData) and the next block goes there (the
     memory stays yours); clear it and the module's own buffer is used again. Your buffer stays in
     use for the following blocks, images and transfers until you clear the descriptor (it lives as
     long as the library), so clear it before you free that memory. The module's own buffer is
     freed when the transfer ends. */

/* The image about to be transferred (lParam of SM_MSG_XFERSTART and SM_MSG_XFEREND): 46 bytes,
   packed, little-endian. */
#pragma pack(push, 1)
typedef struct ScanImageInfo {
    short xResolution;      /* offset 0: X resolution in the source's unit, scaled per inch for cm, picas, points,
                               twips; 0xFFFF (-1) when negative */
    short yResolution;      /* offset 2: the same for Y */
    LONG imageWidth;        /* offset 4: pixels */
    LONG imageLength;       /* offset 8: rows (-1 when the source does not know yet) */
    short samplesPerPixel;  /* offset 12 */
    short bitsPerSample[8]; /* offset 14 */
    short bitsPerPixel;     /* offset 30 */
    LONG planar;            /* offset 32: 1 when the colour planes come one after the other */
    WORD pixelTypeFlag;     /* offset 36: SM_PIXEL_*; a pixel type above 8 leaves the previous image's flag */
    WORD compression;       /* offset 38: TWAIN compression code, 0 for none */
    WORD mechanism;         /* offset 40: SM_XFER_NATIVE, SM_XFER_FILE or SM_XFER_MEMORY */
    void *xferTarget;       /* offset 42: handle slot, file-name buffer or buffer descriptor, see above */
} ScanImageInfo;

/* The buffer a memory transfer's blocks are written into (what ScanImageInfo.xferTarget and
   ScanBlockInfo.bufferDescriptor point at): 8 bytes. */
typedef struct SmBufferDescriptor {
    DWORD size;    /* offset 0: bytes */
    void *address; /* offset 4 */
} SmBufferDescriptor;

/* One block of a memory transfer (lParam of SM_MSG_XFERDATA): 74 bytes, packed. Its first 42 bytes
   are those of the image's ScanImageInfo. RGB pixels arrive blue, green, red (48-bit pixels with
   their six bytes reversed), 16-bit gray samples with their two bytes exchanged; planar and
   compressed blocks arrive as the source sent them. */
typedef struct ScanBlockInfo {
    short xResolution;      /* offset 0 */
    short yResolution;      /* offset 2 */
    LONG imageWidth;        /* offset 4 */
    LONG imageLength;       /* offset 8 */
    short samplesPerPixel;  /* offset 12 */
    short bitsPerSample[8]; /* offset 14 */
    short bitsPerPixel;     /* offset 30 */
    LONG planar;            /* offset 32 */
    WORD pixelTypeFlag;     /* offset 36 */
    WORD compression;       /* offset 38 */
    WORD mechanism;         /* offset 40: SM_XFER_MEMORY */
    DWORD bytesPerRow;      /* offset 42 */
    DWORD columns;          /* offset 46: pixels in each row of the block */
    DWORD rows;             /* offset 50: rows in the block (repaired to bytesWritten / bytesPerRow when they
                               disagree) */
    DWORD xOffset;          /* offset 54: column of the block's first pixel in the image */
    DWORD yOffset;          /* offset 58: row of the block's first row in the image */
    DWORD bytesWritten;     /* offset 62 */
    LONG rowsAligned;       /* offset 66: 1 when the rows are those of a bitmap (4-byte multiples) */
    SmBufferDescriptor *bufferDescriptor; /* offset 70: the block's bytes start at bufferDescriptor->address */
} ScanBlockInfo;
#pragma pack(pop)

/* Ordinal 2. Passes one message of your loop (thread messages too) to the source. Returns 1 when it
   was the source's: do not translate or dispatch it. Before smEnableDS it returns 0 and asks
   nothing. Transfers run inside this call (see above) unless CV_Scan.INI beside your executable
   says [Settings] SuppressTWAIN=2: the images then stay pending for smReadBlock. */
SMAPI BOOL SMCALL smIsDSEvent(MSG *message);

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
   desktop) receives every notification. `title` (NULL: "Calvex Scan Module") names the
   application: its first 255 characters are kept as the application's title, the caption of the
   module's message boxes, and its first 33 are the name the source manager and the source see.
   The title is taken before the session state is checked further, so a call refused with
   SM_ERR_SEQUENCE (a source is enabled) renames the application too. Opening also reads the
   source's brightness range; when that query answers 5 (TWCC_OPERATIONERROR) the source is
   closed again and 5 is returned. */
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
   entry is then restored. When the source manager failed to answer for a source file of the last
   directory searched, the result can be that failure's condition code instead of 12 (the entry
   is restored all the same). A NULL productName matches no source. */
SMAPI LONG SMCALL smSetDefaultDriver(HWND parent, const char *productName);

/* Ordinal 65. Writes the installed sources into section [DS] of the profile file `path`:
   name1, name2, ... their product names, name0 the default source, count the number of numbered
   names (count=0 when the call fails). Keys of an earlier, longer list are not removed. */
SMAPI LONG SMCALL smGetAllDS(const char *path);

/* Scanner settings. Each but smCapNegotiate needs an open source (else SM_ERR_SEQUENCE, nothing sent) and
   returns a status: SM_OK, SM_ERR_UNAVAILABLE, SM_ERR_BAD_VALUE for an answer the module cannot accept, or the
   source's condition code. Getters that fail report a fixed fall-back value. smCapNegotiate returns the
   TWAIN return code instead; free a container it returns with GlobalFree, and a successful MSG_SET of
   ICAP_XFERMECH is remembered as the mechanism of later transfers. */

/* Ordinal 8. Any capability operation on your TW_CAPABILITY, sent in any state (no open source needed); TWRC_*. */
SMAPI WORD SMCALL smCapNegotiate(UINT message, void *capability);
/* Ordinal 9. Whether the feeder is enabled (CAP_FEEDERENABLED, a one-value). */
SMAPI LONG SMCALL smIsADFAvailable(LONG *answer);
/* Ordinal 10. Whether the feeder holds paper (CAP_FEEDERLOADED, a one-value). */
SMAPI LONG SMCALL smIsADFPaperLoaded(LONG *answer);
/* Ordinal 11. The same call as smIsADFPaperLoaded under a second name. */
SMAPI LONG SMCALL smIsPaperLoaded(LONG *answer);
/* Ordinal 12. Whether the feeder is enabled (CAP_FEEDERENABLED, a one-value). */
SMAPI LONG SMCALL smGetADFEnable(LONG *answer);
/* Ordinal 13. Enables (nonzero) or disables the feeder, sent as BOOL, then UINT16, then INT16 until one is taken. */
SMAPI LONG SMCALL smSetADFEnable(LONG enable);

/* Tone settings are exchanged on your own scale [appMin, appMax] (16-bit values), mapped linearly onto the
   source's range; appMin == appMax gives SM_ERR_BAD_VALUE and sends nothing. */

/* Ordinal 14. The brightness on your scale, rounded half up; the midpoint of the scale when it cannot be read. */
SMAPI LONG SMCALL smGetBrightness(short *value, LONG appMin, LONG appMax);
/* Ordinal 15. Sets the brightness from your scale, snapped to the source's step (range read when the source opened). */
SMAPI LONG SMCALL smSetBrightness(LONG value, LONG appMin, LONG appMax);
/* Ordinal 16. The contrast on your scale (source range -1000 to 1000); the midpoint when it cannot be read. */
SMAPI LONG SMCALL smGetContrast(short *value, LONG appMin, LONG appMax);
/* Ordinal 17. Sets the contrast from your scale (source range -1000 to 1000, step 1). */
SMAPI LONG SMCALL smSetContrast(LONG value, LONG appMin, LONG appMax);
/* Ordinal 18. The highlight on your scale (source range 0 to 255); the midpoint when it cannot be read. */
SMAPI LONG SMCALL smGetHighlight(short *value, LONG appMin, LONG appMax);
/* Ordinal 19. Sets the highlight from your scale (source range 0 to 255, step 1). */
SMAPI LONG SMCALL smSetHighlight(LONG value, LONG appMin, LONG appMax);
/* Ordinal 20. The shadow on your scale (source range 0 to 255); the midpoint when it cannot be read. */
SMAPI LONG SMCALL smGetShadow(short *value, LONG appMin, LONG appMax);
/* Ordinal 21. Sets the shadow from your scale (source range 0 to 255, step 1). */
SMAPI LONG SMCALL smSetShadow(LONG value, LONG appMin, LONG appMax);
/* Ordinal 55. Sets the threshold from your scale (source range 0 to 255, step 1); there is no getter. */
SMAPI LONG SMCALL smSetThreshold(LONG value, LONG appMin, LONG appMax);

/* Ordinal 22. The gamma (ICAP_GAMMA, a one-value); 0 when it cannot be read. */
SMAPI LONG SMCALL smGetGamma(double *gamma);
/* Ordinal 23. Sets the gamma, sent as a TW_FIX32. */
SMAPI LONG SMCALL smSetGamma(double gamma);
/* Ordinal 24. The source's unit as an SM_UNIT_* flag (inches when it cannot be read). */
SMAPI LONG SMCALL smGetUnit(WORD *unitFlag);
/* Ordinal 25. The largest area in INCHES: physical size / an inch in the unit (2.54, 6, 72, 1440, X dpi for pixels). */
SMAPI LONG SMCALL smGetMaxArea(double *width, double *height);
/* Ordinal 26. The pixel flavour as the source gives it (ICAP_PIXELFLAVOR: 0 chocolate, 1 vanilla); 0 if unread. */
SMAPI LONG SMCALL smGetPixelFlavor(LONG *flavor);
/* Ordinal 27. The pixel type as an SM_PIXEL_* flag (gray when unknown or unreadable). */
SMAPI LONG SMCALL smGetPixelType(WORD *flag);
/* Ordinal 28. Sets the pixel type from one SM_PIXEL_* flag; anything but a single known flag sends gray. */
SMAPI LONG SMCALL smSetPixelType(LONG flag);
/* Ordinal 29. The pixel types the source lists, as a word of SM_PIXEL_* flags; 0 when it cannot be read. */
SMAPI LONG SMCALL smGetSupportedPixelType(WORD *flags);
/* Ordinal 30. Restricts the source to the pixel types whose SM_PIXEL_* flags are set, sent as an enumeration. */
SMAPI LONG SMCALL smSetSupportedPixelType(LONG flags);
/* Ordinal 31. The paper size as an SM_PAPER_* flag (SM_PAPER_NONE when unknown or unreadable). */
SMAPI LONG SMCALL smGetPaperSize(WORD *flag);
/* Ordinal 32. Sets the paper size from one SM_PAPER_* flag; anything else sends "none". */
SMAPI LONG SMCALL smSetPaperSize(LONG flag);
/* Ordinal 33. The paper sizes the source lists as a word of SM_PAPER_* flags; SM_PAPER_B6 is never reported. */
SMAPI LONG SMCALL smGetSupportedPaperSize(WORD *flags);
/* Ordinal 34. Restricts the source to the paper sizes whose SM_PAPER_* flags are set, sent as an enumeration. */
SMAPI LONG SMCALL smSetSupportedPaperSize(LONG flags);
/* Ordinal 35. The transfer mechanism as SM_XFER_* (memory when unreadable). */
SMAPI LONG SMCALL smGetXferMech(WORD *flag);
/* Ordinal 36. Sets the transfer mechanism; anything but one SM_XFER_* flag is SM_ERR_BAD_VALUE, nothing sent. */
SMAPI LONG SMCALL smSetXferMech(LONG flag);
/* Ordinal 37. X resolution: current, minimum, maximum, each times the unit's factor (1, 1/2.54, 1/6, 1/72, 1/1440). */
SMAPI LONG SMCALL smGetXResolution(short *current, short *minimum, short *maximum);
/* Ordinal 38. Sets the X resolution in dots per unit, sent as a TW_FIX32. */
SMAPI LONG SMCALL smSetXResolution(LONG dpi);
/* Ordinal 39. Y resolution: current, minimum, maximum, with the unit factor of smGetXResolution. */
SMAPI LONG SMCALL smGetYResolution(short *current, short *minimum, short *maximum);
/* Ordinal 40. Sets the Y resolution in dots per unit, sent as a TW_FIX32. */
SMAPI LONG SMCALL smSetYResolution(LONG dpi);
/* Ordinal 41. SM_OK when the source takes both resolutions; the earlier ones are set again either way. */
SMAPI LONG SMCALL smIsThisDPIAvailable(LONG x, LONG y);
/* Ordinal 42. X scaling: current, minimum and maximum (an enumeration gives its current value for all three). */
SMAPI LONG SMCALL smGetXScale(double *current, double *minimum, double *maximum);
/* Ordinal 43. Sets the X scaling, sent as a TW_FIX32. */
SMAPI LONG SMCALL smSetXScale(double scale);
/* Ordinal 44. Y scaling: current, minimum and maximum, as smGetXScale. */
SMAPI LONG SMCALL smGetYScale(double *current, double *minimum, double *maximum);
/* Ordinal 45. Sets the Y scaling, sent as a TW_FIX32. */
SMAPI LONG SMCALL smSetYScale(double scale);
/* Ordinal 49. Buffer sizes: 0 becomes 65536, a preferred size out of range the minimum; 65536 each if unanswered. */
SMAPI LONG SMCALL smGetMemXferSize(DWORD *minimum, DWORD *maximum, DWORD *preferred);
/* Ordinal 52. CAP_XFERCOUNT: the number of images to transfer (-1: all). */
SMAPI LONG SMCALL smGetXferCount(short *count);
/* Ordinal 59. Sets the number of images to transfer (-1: all), sent as INT16, then UINT16, then BOOL. */
SMAPI LONG SMCALL smSetXferCount(LONG count);
/* Ordinal 53. Copies the open source's product name (34 bytes with the NUL at most); no negotiation. */
SMAPI LONG SMCALL smGetDSProductName(char *buffer);
/* Ordinal 54. Pending images as the memory transfer saw them, 9999 outside its end message; needs an enabled source. */
SMAPI LONG SMCALL smGetPendingCount(WORD *count);
/* Ordinal 56. Switches the source's progress indicators on (nonzero) or off. */
SMAPI LONG SMCALL smSetIndicatorEnable(LONG enable);
/* Ordinal 60. Switches automatic feeding on (nonzero) or off. */
SMAPI LONG SMCALL smSetAutoFeedEnable(LONG enable);
/* Ordinal 64. Sets the light path (ICAP_LIGHTPATH: 0 reflective, 1 transmissive), sent as UINT16. */
SMAPI LONG SMCALL smSetLightpath(LONG lightPath);
/* Ordinal 70. Switches thumbnails on (nonzero) or off. */
SMAPI LONG SMCALL smSetThumbMode(LONG enable);
/* Ordinal 67. Whether thumbnails are enabled (CAP_THUMBNAILSENABLED, a one-value). */
SMAPI LONG SMCALL smGetThumbMode(LONG *answer);
/* Ordinal 57. Sets the bit depth per pixel (ICAP_BITDEPTH), sent as UINT16, then INT16, then BOOL. */
SMAPI LONG SMCALL smSetBitDepth(LONG depth);
/* Ordinal 66. The largest image data set index the source lists (ICAP_IMAGEDATASET), or its one value. */
SMAPI LONG SMCALL smGetIndex(LONG *index);
/* Ordinal 69. Sends the leading nonzero entries of `list` (at most `count`) as an array, or `count` if list is NULL. */
SMAPI LONG SMCALL smSetIndex(LONG count, const DWORD *list);
/* What smReadBlock leaves in *count once the image is over. */
#define SM_IMAGE_ENDED 0xFFFFFFFFu
/* Ordinal 61. Reads one block of the pending image (TWAIN state 6 or 7, after the transfer-ready
   event) into `buffer`, rows packed without padding. The source is asked for at most `size` bytes.
   Unpadded blocks are cut to `size` (the rest of that block is lost); padded rows are copied one
   by one while fewer than `size` bytes were copied, and a row once started is copied whole, so
   `buffer` must hold `size` bytes plus one row (RGB: 3 bytes a pixel, else 1). Returns 0 while bytes
   were delivered (*count says how many) and 1 once *count is SM_IMAGE_ENDED: the image ended, was
   cancelled or failed; the next call starts the next pending image. The call that reports the end
   of an image also delivers its last block: those bytes are in `buffer`, and their number is what
   the image size leaves after the blocks counted before. A failed block leaves *count as it was.
   An image left in the middle is over for the reader once the source is disabled: the next
   session's first call starts a new image. */
SMAPI BOOL SMCALL smReadBlock(BYTE *buffer, DWORD size, DWORD *count);

/* Ordinal 48. Sets the scan frame (DAT_IMAGELAYOUT), the four edges given in the unit of the flag `unit` (SM_UNIT_*;
   any other value means inches). They are converted to the source's current unit; a source in inches, or in a unit
   the module does not know, gets them unconverted. Needs an open source. */
SMAPI LONG SMCALL smSetImageLayout(double left, double top, double right, double bottom, WORD unit);
/* Ordinal 50. Copies the source's palette (DAT_PALETTE8) into `table`, 256 caller-owned entries of 4 bytes
   {channel 1, channel 2, channel 3, 0}. Every entry is white {255, 255, 255, 0} first, and those the source does not
   fill stay so; more than 256 colours answer TWCC_BADVALUE (10) with all 256 white. Needs an open source. */
SMAPI LONG SMCALL smGetDSPalette(BYTE *table);
/* Ordinal 63. The width and length in pixels of the image about to be transferred (DAT_IMAGEINFO), both 0 when the
   source cannot tell. No result. */
SMAPI void SMCALL smGetImageDim(LONG *width, LONG *length);
/* Ordinal 62. Fills the snapshot from the getters; always SM_OK (fields of failed queries keep their fall-back). */
SMAPI LONG SMCALL smGetScanCap(ScanCapRecord *record);
/* Ordinal 68. Whether the source can scan without showing its own interface (CAP_UICONTROLLABLE). */
SMAPI LONG SMCALL smNonUIAvailable(LONG *answer);

/* Ordinal 46. Asks the module to skip the image being transferred; call it from a
   notification handler. */
SMAPI void SMCALL smCancelThisXfer(void);

/* Ordinal 47. Asks the module to skip this and every remaining image. */
SMAPI void SMCALL smCancelAllXfer(void);

/* One-call scan to bitmap files.

   smZephraScan opens the default source (as smOpenDS does, with `window` and `title`), applies the
   settings record, enables the source and returns; from then on every image the source announces
   during smIsDSEvent is written to a bitmap file whose name you supply. The messages, sent to
   `window` (the desktop when NULL), are:

   SM_MSG_SCANTOFILE_GETNAME  once per image, before anything else; lParam: a 256-byte buffer.
                              Write the zero-terminated full path of the image's file into it,
                              shorter than 128 characters (the module's file calls take no
                              longer names: SM_ERR_FILE). An existing file of that name is
                              deleted first.
   SM_MSG_SCANTOFILE_XFEREND  once per image, after its file is complete (or deleted again);
                              wParam: the image's result: SM_OK, SM_ERR_IMAGE_REFUSED (no image
                              information, unknown size, or a format other than 1-bit black and
                              white, 8-bit gray, 4- or 8-bit palette and 24-bit RGB),
                              SM_ERR_NO_DISK_SPACE, SM_ERR_FILE, SM_ERR_SOURCE_CANCEL,
                              SM_ERR_LOW_MEMORY, or the source's TWAIN condition code.
   SM_MSG_SCANTOFILE_DSCLOSED the batch is over: the module disabled and closed the source (also
                              when the source asked to be closed). wParam and lParam are 0.

   After each image the batch ends (source closed) unless morePages is set and showSourceUI is
   nonzero. With morePages set, images still pending go on by themselves while the feeder has paper;
   otherwise the module asks the user whether to scan more pages (the library's string 20006) in a
   task-modal Yes/No message box owned by the focus window and captioned with `title`; No ends the
   batch. (A source that has images pending announces the next one itself, or the batch waits for
   it.) An image of an unsupported format is also reported to the user in a message box (strings
   20005 and 20004) before SM_ERR_IMAGE_REFUSED. While one of these boxes is up, its own message
   loop dispatches your thread's messages: a notice the source posts meanwhile (Wine's source manager
   posts them to the thread) never reaches smIsDSEvent unless you keep it, e.g. with a WH_MSGFILTER
   hook that takes it and posts it again after the box. Once smZephraScan has got as far as enabling a
   source (whether or not that succeeded), every later image and close request of this library's
   lifetime is handled this way, also after smEnableDS. */

/* The settings record of smZephraScan: 78 bytes, 2-byte packing, little-endian. NULL stands for the
   defaults given here. */
#pragma pack(push, 2)
typedef struct ScanToFileSettings {
    double frameLeft;    /* offset 0: default 0; stored only, never sent to the source */
    double frameTop;     /* offset 8: default 0; stored only */
    double frameRight;   /* offset 16: default (maximum width x 300 - 1) / 300 inches; stored only */
    double frameBottom;  /* offset 24: default (maximum height x 300 - 1) / 300 inches; stored only */
    WORD unitCode;       /* offset 32: SM_UNIT_INCHES (default) or SM_UNIT_CENTIMETERS, else inches; stored only */
    WORD pixelTypeCode;  /* offset 34: SM_PIXEL_BW, SM_PIXEL_GRAY (default) or SM_PIXEL_RGB; any other value
                            means gray and shows the source's interface */
    short resolution;    /* offset 36: dots per inch, default 300; 0 or less means 100 */
    short brightness;    /* offset 38: default 0, on the scale brightnessMin..brightnessMax */
    short brightnessMin; /* offset 40: default -1000 */
    short brightnessMax; /* offset 42: default 1000 */
    short contrast;      /* offset 44: default 0 */
    short contrastMin;   /* offset 46: default -1000 */
    short contrastMax;   /* offset 48: default 1000 */
    short highlight;     /* offset 50: default 255 */
    short highlightMin;  /* offset 52: default 0 */
    short highlightMax;  /* offset 54: default 255 */
    short shadow;        /* offset 56: default 0 */
    short shadowMin;     /* offset 58: default 0 */
    short shadowMax;     /* offset 60: default 255 */
    DWORD modalUI;       /* offset 62: default 1: the window is disabled while the source's interface is up */
    DWORD morePages;     /* offset 66: default 0: one image (nonzero: as many as the source has) */
    DWORD showSourceUI;  /* offset 70: default 1: the source shows its interface (0: one image, no interface) */
    DWORD useFeeder;     /* offset 74: default 1: the feeder is enabled */
} ScanToFileSettings;
#pragma pack(pop)
/* Scales whose minimum is not below their maximum are replaced: brightness and contrast by -1000..1000
   with the value 0, highlight by 0..255 with 255, shadow by 0..255 with 0. A value outside its scale
   becomes the maximum (shadow: the minimum). */

/* Ordinal 51. Starts a scan to files as described above. Returns 1 when the source was enabled, 0
   otherwise: it could not be opened (nothing is left open), it takes no transfer mechanism (the
   source stays open: call smCloseDS), or it could not be enabled (the source is closed again).
   A pixel type or resolution the source refuses shows the source's interface instead. The
   transfer is by memory when the source takes it, else by file, else native. */
SMAPI DWORD SMCALL smZephraScan(HWND window, const char *title, const ScanToFileSettings *settings);

/* Ordinal 100. An EnumWindows/EnumThreadWindows callback that the module never calls itself.
   It skips child windows and disabled windows. With list->nextSlot NULL it counts the enabled
   top-level windows in list->windowCount; otherwise it stores each at *list->nextSlot, advances
   nextSlot and disables the window. Always returns 1. Re-enabling the windows is yours. */
SMAPI BOOL SMCALL DisableWnds(HWND window, DisabledWindowList *list);

#ifdef __cplusplus
}
#endif

#endif /* SMKERNAL_H */
