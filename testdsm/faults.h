// Fault switches of the stand-in source manager: triplets answered with a chosen return and condition code.
#pragma once

#include "twain1x.h"

namespace tdsm {

// What a fault answers instead of the triplet.
struct FaultAnswer {
    TW_UINT16 rc;
    TW_UINT16 cc;
};

// Fails `times` matching calls (0: every one) from the nth matching call on, counted from now (1: the next call).
// A new fault for the same triplet replaces the old one.
void AddFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, FaultAnswer answer, int nth, int times);
void ClearFaults();
// Counts the call for every fault matching it; true, with the answer, when one of them fires.
bool CheckFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, FaultAnswer *answer);

} // namespace tdsm
