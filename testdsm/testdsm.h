/* Control interface of the stand-in TWAIN_32.DLL used by the tests: its call log and its switches.
   Tests load the same file the library loads (C:\windows\TWAIN_32.DLL) and resolve these names. */
#ifndef TESTDSM_H
#define TESTDSM_H

#include "twain1x.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Largest data record a triplet carries (TW_PALETTE8). */
#define TDSM_MAX_DATA 1028

/* One DSM_Entry call as the stand-in saw it. */
typedef struct TdsmCall {
    TW_UINT32 originId;
    char originName[34]; /* the origin's ProductName */
    int hasDest;         /* 0 when the destination pointer was NULL */
    char destName[34];   /* the destination's ProductName */
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 rc;                         /* what the call returned */
    TW_UINT16 cc;                         /* the condition code it left behind */
    int hasData;                          /* 0 when the data pointer was NULL */
    TW_UINT32 dataSize;                   /* bytes copied into dataIn and dataOut */
    unsigned char dataIn[TDSM_MAX_DATA];  /* the data as the caller passed it */
    unsigned char dataOut[TDSM_MAX_DATA]; /* the data as the call left it */
} TdsmCall;

/* Source-manager states of the TWAIN standard that the stand-in keeps. */
#define TDSM_STATE_LOADED 2
#define TDSM_STATE_OPEN 3

typedef void(__cdecl *TdsmResetProc)(void);
typedef int(__cdecl *TdsmCallCountProc)(void);
typedef int(__cdecl *TdsmGetCallProc)(int index, TdsmCall *out);
typedef void(__cdecl *TdsmFailTripletProc)(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
typedef int(__cdecl *TdsmStateProc)(void);

/* Forgets the log and every switch, and goes back to the loaded state. */
void __cdecl TdsmReset(void);
/* Number of DSM_Entry calls logged since the last reset. */
int __cdecl TdsmCallCount(void);
/* Copies call `index` (0 is the first); returns 0 when there is no such call. */
int __cdecl TdsmGetCall(int index, TdsmCall *out);
/* Makes a triplet answer `rc`, and the following DAT_STATUS answer `cc`, from now on. */
void __cdecl TdsmFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc);
/* The stand-in's own state, TDSM_STATE_LOADED or TDSM_STATE_OPEN. */
int __cdecl TdsmState(void);

#ifdef __cplusplus
}
#endif

#endif /* TESTDSM_H */
