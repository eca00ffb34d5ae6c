/* Control interface of fakeds.ds, a recording data source for the stand-in source manager's tests. */
/* Its ProductName is its file name without extension unless FakeDsSetProductName says otherwise. */
#ifndef FAKEDS_H
#define FAKEDS_H

#include "testdsm.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One DS_Entry call as the fake source saw it. */
typedef struct FakeDsCall {
    int hasOrigin; /* 0 when the origin pointer was NULL */
    TW_UINT32 originId;
    TW_STR32 originName; /* the origin's ProductName */
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 rc;                      /* what the source answered */
    int hasData;                       /* 0 when the data pointer was NULL */
    TW_UINT32 dataSize;                /* bytes copied into data */
    unsigned char data[TDSM_MAX_DATA]; /* the data as the source received it */
} FakeDsCall;

/* What the fake answers to capability gets. */
#define FAKEDS_CONTAINERS_GOOD 0      /* well-formed containers */
#define FAKEDS_CONTAINERS_BADHANDLE 1 /* hContainer that is no memory handle */
#define FAKEDS_CONTAINERS_SHORT 2     /* an enumeration claiming far more items than its memory holds */

/* The fake's values for its capabilities. */
#define FAKEDS_XFERCOUNT (-1)
#define FAKEDS_PIXELTYPE_CURRENT 2
#define FAKEDS_PIXELTYPE_DEFAULT 0
#define FAKEDS_XRES_MIN 75
#define FAKEDS_XRES_MAX 600
#define FAKEDS_XRES_STEP 25
#define FAKEDS_XRES_DEFAULT 300
#define FAKEDS_XRES_CURRENT 150
#define FAKEDS_SHORT_CLAIM 1000

typedef void(__cdecl *FakeDsResetProc)(void);
typedef void(__cdecl *FakeDsSetProductNameProc)(const char *name);
typedef int(__cdecl *FakeDsCallCountProc)(void);
typedef int(__cdecl *FakeDsGetCallProc)(int index, FakeDsCall *out);
typedef void(__cdecl *FakeDsFailTripletProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
typedef void(__cdecl *FakeDsSetContainersProc)(int mode);
typedef int(__cdecl *FakeDsIsOpenProc)(void);
typedef TW_UINT16(__cdecl *FakeDsPostMessageProc)(TW_UINT16 msg);

/* Forgets the calls and every switch; the product name goes back to the file name. */
void __cdecl FakeDsReset(void);
/* Answers DAT_IDENTITY with this ProductName from now on. */
void __cdecl FakeDsSetProductName(const char *name);
/* Number of DS_Entry calls since the last reset. */
int __cdecl FakeDsCallCount(void);
/* Copies call `index` (0 is the first); returns 0 when there is no such call. */
int __cdecl FakeDsGetCall(int index, FakeDsCall *out);
/* Makes a triplet answer `rc`, and the following DAT_STATUS answer `cc`, from now on. */
void __cdecl FakeDsFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
/* Chooses the containers capability gets answer with (FAKEDS_CONTAINERS_...). */
void __cdecl FakeDsSetContainers(int mode);
/* 1 between MSG_OPENDS and MSG_CLOSEDS. */
int __cdecl FakeDsIsOpen(void);
/* Sends DG_CONTROL / DAT_NULL / msg to the application through TWAIN_32.DLL's DSM_Entry; returns its answer. */
TW_UINT16 __cdecl FakeDsPostMessage(TW_UINT16 msg);

#ifdef __cplusplus
}
#endif

#endif /* FAKEDS_H */
