/* Control interface of programds.ds: a data source whose DS_Entry is a function of the program that loaded it. */
/* A test loads the same file the source manager loads and hands it its own entry, so that it can answer every
   triplet itself (a scripted or hostile source) without a source DLL of its own. */
#ifndef PROGRAMDS_H
#define PROGRAMDS_H

#include "twain1x.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void(__cdecl *ProgramDsSetEntryProc)(DSENTRYPROC entry);

/* Every DS_Entry call goes to `entry` from now on; NULL: every triplet fails with TWRC_FAILURE. */
void __cdecl ProgramDsSetEntry(DSENTRYPROC entry);

#ifdef __cplusplus
}
#endif

#endif /* PROGRAMDS_H */
