// The call log of the stand-in source manager: every DSM_Entry call, its data and its decoded capability containers.
#pragma once

#include "testdsm.h"

namespace tdsm {

// Fills the header of a record and copies the data (and capability container) as the caller passed it.
void BeginRecord(TdsmCall &record, pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                 TW_MEMREF data);
// Copies the data (and capability container) as the call left it.
void CompleteRecord(TdsmCall &record, TW_MEMREF data);

// Appends a record in entry order and returns its sequence number; UpdateRecord replaces it when it is still kept.
long AppendRecord(const TdsmCall &record);
void UpdateRecord(long sequence, const TdsmCall &record);

void ClearLog();
int LogCount();
bool LogGet(int index, TdsmCall *out);
void SetLogLimit(int limit);
int DroppedCalls();

// Decodes a TW_CAPABILITY and the container behind its handle, never reading past the handle's memory.
void DecodeCapability(TW_MEMREF data, TdsmContainer *out);
// Bytes of one item of a TWTY_ type, 0 for an unknown type.
TW_UINT32 ItemSize(TW_UINT16 itemType);
// True when `size` bytes at `data` can be read.
bool Readable(const void *data, size_t size);

} // namespace tdsm
