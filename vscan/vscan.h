/* Control interface of the virtual scanner data source (vscan.ds): switches, faults and read-back for tests. */
/* A test loads the same .ds file the source manager loads and resolves these cdecl names. Every switch also has a
   key in vscan.ini beside the .ds (see the README); the file is read at the first DS_Entry or control call after the
   module is loaded (not by loading it), and again by VscanReset. */
#ifndef VSCAN_H
#define VSCAN_H

#include "twain1x.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Data-source states the virtual scanner keeps (3: loaded but not open). */
#define VSCAN_STATE_CLOSED 3
#define VSCAN_STATE_OPEN 4
#define VSCAN_STATE_ENABLED 5
#define VSCAN_STATE_XFERREADY 6
#define VSCAN_STATE_XFERRING 7

/* Automatic presses of the user interface's buttons (VscanSetAutoScan, key AutoScan). */
#define VSCAN_AUTO_OFF 0        /* nothing is pressed */
#define VSCAN_AUTO_SCAN 1       /* Scan is pressed as soon as the interface opens */
#define VSCAN_AUTO_SCAN_CLOSE 2 /* Scan, then Close once every image of the batch is transferred */

/* Single-value faults (VscanSetFault); 0 switches each off but CLOSEREQUESTAFTER, IMAGEPIXELTYPE and STRIPROWS, off
   at their VSCAN_..._OFF, and ROWALIGN, off at 0 and 1. The settings key is the name after VSCAN_FAULT_. */
#define VSCAN_FAULT_UNKNOWNLENGTH 1     /* DAT_IMAGEINFO answers ImageLength -1 */
#define VSCAN_FAULT_CANCELIMAGE 2       /* image N (1 = first since MSG_OPENDS) is cancelled with TWRC_CANCEL */
#define VSCAN_FAULT_CANCELBLOCK 3       /* memory transfers cancel at block N (of image CANCELIMAGE, or of each) */
#define VSCAN_FAULT_BYTESWRITTENDELTA 4 /* BytesWritten = Rows x BytesPerRow + N in memory strips */
#define VSCAN_FAULT_ZEROBUFFERSIZES 5   /* DAT_SETUPMEMXFER answers 0 for all three sizes */
#define VSCAN_FAULT_PALETTECOLORS 6     /* DAT_PALETTE8 answers NumColors = N (e.g. 300) */
#define VSCAN_FAULT_CLOSEREQUESTAFTER 7 /* MSG_CLOSEDSREQ after MSG_ENDXFER of image N, or at MSG_ENABLEDS for 0 */
#define VSCAN_FAULT_MINBUFSIZE 8        /* DAT_SETUPMEMXFER answers MinBufSize N */
#define VSCAN_FAULT_MAXBUFSIZE 9        /* DAT_SETUPMEMXFER answers MaxBufSize N */
#define VSCAN_FAULT_PREFERREDBUFSIZE 10 /* DAT_SETUPMEMXFER answers Preferred N */
#define VSCAN_FAULT_ZERORANGESTEP 11    /* every range answered has StepSize 0 */
#define VSCAN_FAULT_DPIINEVERYUNIT 12   /* resolutions are answered and set in dots per inch whatever ICAP_UNITS says */
#define VSCAN_FAULT_UNKNOWNPENDING 13   /* TW_PENDINGXFERS.Count is -1 while images remain, as feeders may answer */
#define VSCAN_FAULT_IMAGEPIXELTYPE 14   /* DAT_IMAGEINFO answers PixelType N; the pixels stay the negotiated type's */
#define VSCAN_FAULT_COMPRESSION 15      /* DAT_IMAGEINFO and memory strips answer Compression N; bytes uncompressed */
#define VSCAN_FAULT_STRIPROWS 16        /* memory strips answer Rows = N (0 too); the rows delivered stay as they are */
#define VSCAN_FAULT_STRIPXOFFSETDELTA 17 /* memory strips answer XOffset + N */
#define VSCAN_FAULT_STRIPYOFFSETDELTA 18 /* memory strips answer YOffset + N */
#define VSCAN_FAULT_COLUMNSDELTA 19      /* memory strips answer Columns = image width + N */
#define VSCAN_FAULT_ROWALIGN 20          /* memory-transfer rows padded with 0xA5 bytes to a multiple of N bytes */
#define VSCAN_FAULT_KEEPFEEDER 21        /* the sheets left are kept in VSCAN_FEEDER_FILE beside the .ds across loads */
#define VSCAN_FAULT_XFERREADYEACH 22     /* MSG_XFERREADY announced again after each MSG_ENDXFER that leaves images */
#define VSCAN_FAULT_REPEATROWS 23 /* transfers deliver N rows of the page over and over, rendered once an image */
#define VSCAN_FAULT_COUNT 24
/* VSCAN_FAULT_CLOSEREQUESTAFTER switched off, its default. */
#define VSCAN_CLOSEREQUEST_OFF (-1)
/* VSCAN_FAULT_IMAGEPIXELTYPE switched off, its default. */
#define VSCAN_IMAGEPIXELTYPE_OFF (-1)
/* VSCAN_FAULT_STRIPROWS switched off, its default. */
#define VSCAN_STRIPROWS_OFF (-1)
/* What VSCAN_FAULT_ROWALIGN pads each row with. */
#define VSCAN_ROW_PADDING 0xA5
/* The file beside the loaded .ds that keeps the feeder's sheets while VSCAN_FAULT_KEEPFEEDER is on: one decimal
   number. The opening of the source takes the number from it (without the file: Pages, then written); every change of
   the sheets left, and VscanSetPages, write it; deleting it puts the paper back. */
#define VSCAN_FEEDER_FILE "vscan.feeder"

/* Spoiled capability answers (VscanSetMalformed, key Malformed): a source that answers a get with TWRC_SUCCESS and a
   container a careful application must not trust. */
#define VSCAN_MALFORMED_NONE 0         /* the answer as it should be */
#define VSCAN_MALFORMED_NULLHANDLE 1   /* hContainer is NULL */
#define VSCAN_MALFORMED_ITEMTYPE 2     /* ItemType is VSCAN_BAD_ITEMTYPE, the rest as it should be */
#define VSCAN_MALFORMED_NUMITEMS 3     /* enumerations and arrays claim 0x10000 items more than their block holds */
#define VSCAN_MALFORMED_CURRENTINDEX 4 /* enumerations: CurrentIndex and DefaultIndex 0x10000 past the last item */
#define VSCAN_MALFORMED_SHORTBLOCK 5   /* the block is cut to its ItemType (2 bytes), whatever the container */
#define VSCAN_MALFORMED_COUNT 6
/* The item type of VSCAN_MALFORMED_ITEMTYPE answers: no TWAIN type has this code. */
#define VSCAN_BAD_ITEMTYPE 0x00F0

/* Values of VscanSetValues at most. */
#define VSCAN_MAX_VALUES 16
/* Failure switches of VscanFailTriplet (and Fail keys) at most, until VscanReset. */
#define VSCAN_MAX_FAILS 16

/* What VscanGetInfo reports. */
typedef struct VscanInfo {
    int state;          /* VSCAN_STATE_... */
    int pending;        /* images left in this batch (what TW_PENDINGXFERS.Count says, unless it says -1) */
    int sheetsLeft;     /* sheets still in the feeder */
    int imagesStarted;  /* images whose transfer began since MSG_OPENDS */
    int imagesDone;     /* images ended with MSG_ENDXFER since MSG_OPENDS */
    TW_UINT16 lastCc;   /* condition code of the last failure, what DAT_STATUS answers */
    HWND window;        /* the user interface's window, or 0 */
    UINT notifyMessage; /* the registered message posted to announce events */
    TW_UINT32 appId;    /* Id of the application that opened the source */
    int settingsKeys;   /* keys applied from vscan.ini beside the .ds when it was last read (first call or
                           VscanReset); -1 when there is no file, and also after a bad key (the keys before it stay
                           applied) */
} VscanInfo;

typedef void(__cdecl *VscanResetProc)(void);
typedef int(__cdecl *VscanLoadSettingsProc)(const char *path);
typedef void(__cdecl *VscanSetPagesProc)(int pages);
typedef void(__cdecl *VscanSetAutoScanProc)(int mode);
typedef void(__cdecl *VscanSetIdentityProc)(const char *manufacturer, const char *family, const char *product);
typedef int(__cdecl *VscanFailTripletProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 cap, TW_UINT16 rc,
                                           TW_UINT16 cc, int first, int count);
typedef int(__cdecl *VscanSetContainerProc)(TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 conType);
typedef int(__cdecl *VscanSetItemTypeProc)(TW_UINT16 cap, TW_UINT16 itemType);
typedef int(__cdecl *VscanSetFaultProc)(int fault, int value);
typedef void(__cdecl *VscanGetInfoProc)(VscanInfo *out);
typedef int(__cdecl *VscanSetMalformedProc)(TW_UINT16 cap, TW_UINT16 msg, int kind);
typedef int(__cdecl *VscanSetSetTypeProc)(TW_UINT16 cap, TW_UINT16 itemType);
typedef int(__cdecl *VscanSetValuesProc)(TW_UINT16 cap, int count, const double *values);

/* Back to the just-loaded source: closed, defaults, no switches; then vscan.ini is applied again. */
void __cdecl VscanReset(void);
/* Applies a settings file; returns the number of keys applied, or -1 when the file cannot be read or a key is bad
   (keys before the bad one stay applied). */
int __cdecl VscanLoadSettings(const char *path);
/* Loads the feeder with `pages` sheets (page numbers 1..pages); 3 by default. With VSCAN_FAULT_KEEPFEEDER on it also
   writes VSCAN_FEEDER_FILE (the settings file's Pages key does not). */
void __cdecl VscanSetPages(int pages);
/* VSCAN_AUTO_...: presses the user interface's buttons by themselves. */
void __cdecl VscanSetAutoScan(int mode);
/* The identity's names; a NULL argument keeps that name. */
void __cdecl VscanSetIdentity(const char *manufacturer, const char *family, const char *product);
/* Makes a triplet answer `rc`, and DAT_STATUS then `cc` when rc is TWRC_FAILURE, without doing anything else.
   `cap` narrows DAT_CAPABILITY triplets to one capability (0: any). Counting this triplet's calls from 1 after the
   switch, calls `first` .. first+count-1 fail (count 0: every call from `first` on). Returns 1 when the switch is
   taken, 0 when it is refused: `first` below 1, `count` below 0, or VSCAN_MAX_FAILS switches already in place. */
int __cdecl VscanFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 cap, TW_UINT16 rc, TW_UINT16 cc,
                             int first, int count);
/* The container a capability answers MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT or MSG_RESET with (TWON_ONEVALUE,
   TWON_ENUMERATION, TWON_RANGE or TWON_ARRAY). Returns 0 for an unknown capability, message or container. */
int __cdecl VscanSetContainer(TW_UINT16 cap, TW_UINT16 msg, TW_UINT16 conType);
/* The item type a capability's answers carry, values converted to it (TWON_DONTCARE16: its own). 0 when unknown. */
int __cdecl VscanSetItemType(TW_UINT16 cap, TW_UINT16 itemType);
/* Sets one of the VSCAN_FAULT_... values; returns 0 for an unknown fault. */
int __cdecl VscanSetFault(int fault, int value);
/* The source's state and counters. */
void __cdecl VscanGetInfo(VscanInfo *out);
/* Spoils the answers of a capability to MSG_GET, MSG_GETCURRENT, MSG_GETDEFAULT or MSG_RESET (VSCAN_MALFORMED_...);
   the triplet still answers TWRC_SUCCESS. Returns 0 for an unknown capability, message or kind. */
int __cdecl VscanSetMalformed(TW_UINT16 cap, TW_UINT16 msg, int kind);
/* The item type that MSG_SET of a capability takes instead of its own (TWON_DONTCARE16: its own again); a set with
   its own type is then refused with TWCC_BADVALUE. Returns 0 for an unknown capability or a non-number type. */
int __cdecl VscanSetSetType(TW_UINT16 cap, TW_UINT16 itemType);
/* The values a capability lists and accepts from now on in place of its own, without any check (a source reporting
   codes a careful application must not trust); they outlast MSG_OPENDS, a MSG_SET enumeration constrains them. At most
   VSCAN_MAX_VALUES; count 0 gives its own back. Returns 0 for an unknown capability or a bad count. */
int __cdecl VscanSetValues(TW_UINT16 cap, int count, const double *values);

#ifdef __cplusplus
}
#endif

#endif /* VSCAN_H */
