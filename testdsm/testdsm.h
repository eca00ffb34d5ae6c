/* Control interface of the stand-in TWAIN_32.DLL used by the tests: its call log and its switches. */
/* Tests load the same file the library loads (C:\windows\TWAIN_32.DLL) and resolve these names. */
#ifndef TESTDSM_H
#define TESTDSM_H

#include "twain1x.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Largest data record a triplet carries (TW_PALETTE8; records.h checks it against every record a log copies). */
#define TDSM_MAX_DATA 1028
/* Items of a capability container kept as numbers, and bytes of its item list kept as they lie. */
#define TDSM_MAX_ITEMS 64
#define TDSM_MAX_ITEM_BYTES 512

/* A DAT_CAPABILITY record and the container behind its hContainer, decoded. */
typedef struct TdsmContainer {
    int valid;              /* 0 when the triplet carried no readable TW_CAPABILITY */
    TW_UINT16 cap;          /* TW_CAPABILITY.Cap */
    TW_UINT16 conType;      /* TW_CAPABILITY.ConType */
    int hasContainer;       /* 1 when hContainer was a readable memory handle of a known container type */
    int truncated;          /* 1 when the handle's memory is smaller than the container claims */
    TW_UINT32 handleSize;   /* GlobalSize of hContainer */
    TW_UINT16 itemType;     /* TWTY_... */
    TW_UINT32 itemSize;     /* bytes of one item of itemType, 0 for an unknown type */
    TW_UINT32 numItems;     /* enumeration and array: NumItems; one value: 1; range: 0 */
    TW_UINT32 currentIndex; /* enumeration */
    TW_UINT32 defaultIndex; /* enumeration */
    TW_UINT32 minValue;     /* range, as the container holds them */
    TW_UINT32 maxValue;
    TW_UINT32 stepSize;
    TW_UINT32 defaultValue;
    TW_UINT32 currentValue;
    TW_UINT32 storedItems;               /* items decoded into `items` */
    TW_UINT32 items[TDSM_MAX_ITEMS];     /* signed types sign-extended, FIX32 as its 4 bytes, frames/strings 0 */
    TW_UINT32 bytesSize;                 /* bytes copied into `bytes` */
    TW_UINT8 bytes[TDSM_MAX_ITEM_BYTES]; /* the item (one value) or the item list, as in memory */
} TdsmContainer;

/* One DSM_Entry call as the stand-in saw it. */
typedef struct TdsmCall {
    TW_UINT32 originId;
    TW_STR32 originName; /* the origin's ProductName */
    int hasDest;         /* 0 when the destination pointer was NULL */
    TW_STR32 destName;   /* the destination's ProductName */
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 rc;                         /* what the call returned */
    TW_UINT16 cc;                         /* the manager's condition code it left behind (0 when forwarded) */
    int hasData;                          /* 0 when the data pointer was NULL */
    TW_UINT32 dataSize;                   /* bytes copied into dataIn and dataOut */
    unsigned char dataIn[TDSM_MAX_DATA];  /* the data as the caller passed it */
    unsigned char dataOut[TDSM_MAX_DATA]; /* the data as the call left it */
    TW_UINT32 destId;                     /* the destination's Id, 0 without one */
    int forwarded;                        /* 1 when the triplet reached a source's DS_Entry */
    int nested;                           /* 1 when made during another DSM_Entry call (a source calling back) */
    int faulted;                          /* 1 when a fault switch answered the triplet */
    TdsmContainer capIn;                  /* DAT_CAPABILITY: the container as the caller passed it */
    TdsmContainer capOut;                 /* DAT_CAPABILITY: the container as the call left it */
} TdsmCall;

/* Source-manager states of the TWAIN standard that the stand-in keeps. */
#define TDSM_STATE_LOADED 2
#define TDSM_STATE_OPEN 3

/* Wildcards for the fault switches. */
#define TDSM_ANY_DG 0xffffffffu
#define TDSM_ANY 0xffff

/* Calls kept in the log unless TdsmSetLogLimit says otherwise; older calls are dropped first. */
#define TDSM_DEFAULT_LOG_LIMIT 4096

typedef void(__cdecl *TdsmResetProc)(void);
typedef int(__cdecl *TdsmCallCountProc)(void);
typedef int(__cdecl *TdsmGetCallProc)(int index, TdsmCall *out);
typedef void(__cdecl *TdsmFailTripletProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
typedef int(__cdecl *TdsmStateProc)(void);
typedef void(__cdecl *TdsmFailTripletOnceProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
typedef void(__cdecl *TdsmFailTripletFromProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc,
                                               int nth);
typedef void(__cdecl *TdsmFailTripletExProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc,
                                             int nth, int times);
typedef void(__cdecl *TdsmClearFaultsProc)(void);
typedef int(__cdecl *TdsmAddSourceProc)(const char *productName, const char *dsPath);
typedef void(__cdecl *TdsmClearSourcesProc)(void);
typedef void(__cdecl *TdsmUseDirectoryProc)(const char *directory);
typedef int(__cdecl *TdsmSourceCountProc)(void);
typedef int(__cdecl *TdsmGetSourceProc)(int index, TW_IDENTITY *identity, char *dsPath, int pathSize);
typedef void(__cdecl *TdsmSelectByNameProc)(const char *productName);
typedef void(__cdecl *TdsmSelectByIndexProc)(int index);
typedef void(__cdecl *TdsmSelectCancelProc)(void);
typedef void(__cdecl *TdsmSelectCancelLeavingProc)(const char *productName);
typedef int(__cdecl *TdsmUserSelectCountProc)(void);
typedef int(__cdecl *TdsmOpenSourceCountProc)(void);
typedef HWND(__cdecl *TdsmParentWindowProc)(void);
typedef void(__cdecl *TdsmSetLogLimitProc)(int limit);
typedef int(__cdecl *TdsmDroppedCallsProc)(void);

/* Forgets the log and every switch, closes and frees any open source, and goes back to the loaded state. */
void __cdecl TdsmReset(void);
/* Number of DSM_Entry calls in the log (entry order, at most the log limit) since the last reset. */
int __cdecl TdsmCallCount(void);
/* Copies call `index` (0 is the oldest kept); returns 0 when there is no such call. */
int __cdecl TdsmGetCall(int index, TdsmCall *out);
/* Makes a triplet answer `rc`, and the following DAT_STATUS answer `cc`, from now on (replaces its other fault). */
void __cdecl TdsmFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
/* The stand-in's own state, TDSM_STATE_LOADED or TDSM_STATE_OPEN. */
int __cdecl TdsmState(void);
/* Like TdsmFailTriplet for the next matching call only. */
void __cdecl TdsmFailTripletOnce(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
/* Like TdsmFailTriplet from the nth matching call on (1 is the next call), counted from now. */
void __cdecl TdsmFailTripletFrom(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc, int nth);
/* Fails `times` matching calls (0: all) from the nth on; dg TDSM_ANY_DG, dat or msg TDSM_ANY match anything. */
void __cdecl TdsmFailTripletEx(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc, int nth,
                               int times);
/* Removes every fault switch. */
void __cdecl TdsmClearFaults(void);
/* Lists a scripted source from now on instead of the directory: triplets go to dsPath, ProductName is productName
   (NULL or "": the source's own); returns its index in the scripted list, -1 without a dsPath. */
int __cdecl TdsmAddSource(const char *productName, const char *dsPath);
/* Empties the scripted list; the manager then lists no source until TdsmAddSource or TdsmUseDirectory. */
void __cdecl TdsmClearSources(void);
/* Lists the *.ds files found recursively under `directory` (NULL or "": <windows>\twain_32), the default. */
void __cdecl TdsmUseDirectory(const char *directory);
/* Number of usable sources the manager lists now. */
int __cdecl TdsmSourceCount(void);
/* Copies the identity (Id 0) and .ds path of listed source `index`; returns 0 when there is no such source. */
int __cdecl TdsmGetSource(int index, TW_IDENTITY *identity, char *dsPath, int pathSize);
/* The user-select dialog picks the listed source of that ProductName from now on (TWCC_NODS if none). */
void __cdecl TdsmSelectByName(const char *productName);
/* The user-select dialog picks listed source `index` from now on (TWCC_NODS if none). */
void __cdecl TdsmSelectByIndex(int index);
/* The user-select dialog is cancelled from now on (TWRC_CANCEL). Without any choice it accepts the default. */
void __cdecl TdsmSelectCancel(void);
/* Like TdsmSelectCancel, but the dialog first writes productName into the identity's ProductName. */
void __cdecl TdsmSelectCancelLeaving(const char *productName);
/* Number of times the user-select dialog was shown. */
int __cdecl TdsmUserSelectCount(void);
/* Number of sources open now. */
int __cdecl TdsmOpenSourceCount(void);
/* The window handle MSG_OPENDSM received, NULL before. */
HWND __cdecl TdsmParentWindow(void);
/* Keeps at most `limit` calls in the log (at least 1), dropping the oldest. */
void __cdecl TdsmSetLogLimit(int limit);
/* Number of calls dropped from the log since the last reset. */
int __cdecl TdsmDroppedCalls(void);

#ifdef __cplusplus
}
#endif

#endif /* TESTDSM_H */
