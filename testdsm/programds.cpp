// programds.ds: a data source that passes every triplet on to a function of the program that loaded it.
#include "programds.h"

namespace {

DSENTRYPROC programEntry = nullptr;

} // namespace

extern "C" TW_UINT16 WINAPI DS_Entry(pTW_IDENTITY origin, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    return programEntry ? programEntry(origin, dg, dat, msg, data) : TWRC_FAILURE;
}

void __cdecl ProgramDsSetEntry(DSENTRYPROC entry) {
    programEntry = entry;
}
