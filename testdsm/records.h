// The data record each triplet carries, by data type: the bytes the call logs of the stand-in and of fakeds copy.
#pragma once

#include <algorithm>
#include <cstring>

#include "testdsm.h"

namespace tdsm {

struct DataRecord {
    TW_UINT16 dat;
    TW_UINT32 size;
};

constexpr DataRecord kDataRecords[] = {
    {DAT_CAPABILITY, sizeof(TW_CAPABILITY)},       {DAT_EVENT, sizeof(TW_EVENT)},
    {DAT_IDENTITY, sizeof(TW_IDENTITY)},           {DAT_PARENT, sizeof(HWND)},
    {DAT_PENDINGXFERS, sizeof(TW_PENDINGXFERS)},   {DAT_SETUPMEMXFER, sizeof(TW_SETUPMEMXFER)},
    {DAT_SETUPFILEXFER, sizeof(TW_SETUPFILEXFER)}, {DAT_STATUS, sizeof(TW_STATUS)},
    {DAT_USERINTERFACE, sizeof(TW_USERINTERFACE)}, {DAT_XFERGROUP, sizeof(TW_UINT32)},
    {DAT_IMAGEINFO, sizeof(TW_IMAGEINFO)},         {DAT_IMAGELAYOUT, sizeof(TW_IMAGELAYOUT)},
    {DAT_IMAGEMEMXFER, sizeof(TW_IMAGEMEMXFER)},   {DAT_IMAGENATIVEXFER, sizeof(TW_UINT32)},
    {DAT_PALETTE8, sizeof(TW_PALETTE8)},
};

constexpr TW_UINT32 LargestDataRecord() {
    TW_UINT32 largest = 0;
    for (const DataRecord &record : kDataRecords)
        largest = std::max(largest, record.size);
    return largest;
}
static_assert(LargestDataRecord() == TDSM_MAX_DATA, "TDSM_MAX_DATA must hold the largest record a log copies");
static_assert(sizeof(TW_PALETTE8) == TDSM_MAX_DATA, "the largest record is TW_PALETTE8");

// Bytes of a data type's record; 0 for the types whose data is not copied.
inline TW_UINT32 DataSize(TW_UINT16 dat) {
    for (const DataRecord &record : kDataRecords)
        if (record.dat == dat)
            return record.size;
    return 0;
}

// The identity's ProductName into a log's name field, always ended by a NUL; empty without an identity.
inline void CopyProductName(TW_STR32 &to, const TW_IDENTITY *identity) {
    std::memset(to, 0, sizeof to);
    if (identity)
        std::memcpy(to, identity->ProductName, sizeof to - 1);
}

} // namespace tdsm
