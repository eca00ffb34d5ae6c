// Fault switches of the stand-in source manager: always, once, from the nth call on, or a window of calls.
#include "faults.h"

#include <vector>

#include "testdsm.h"

namespace tdsm {

namespace {

constexpr int kForever = 0;

struct Fault {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    FaultAnswer answer;
    int nth;   // first matching call that fails, 1-based
    int times; // matching calls that fail from the nth on, kForever for all
    int seen;  // matching calls counted since the fault was set
};

std::vector<Fault> faults;

bool Matches(const Fault &fault, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    return (fault.dg == TDSM_ANY_DG || fault.dg == dg) && (fault.dat == TDSM_ANY || fault.dat == dat) &&
           (fault.msg == TDSM_ANY || fault.msg == msg);
}

bool Fires(const Fault &fault) {
    if (fault.seen < fault.nth)
        return false;
    return fault.times == kForever || fault.seen < fault.nth + fault.times;
}

} // namespace

void AddFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, FaultAnswer answer, int nth, int times) {
    for (auto it = faults.begin(); it != faults.end(); ++it) {
        if (it->dg == dg && it->dat == dat && it->msg == msg) {
            faults.erase(it);
            break;
        }
    }
    faults.push_back(Fault{dg, dat, msg, answer, nth < 1 ? 1 : nth, times < 0 ? kForever : times, 0});
}

void ClearFaults() {
    faults.clear();
}

bool CheckFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, FaultAnswer *answer) {
    bool fired = false;
    for (Fault &fault : faults) {
        if (!Matches(fault, dg, dat, msg))
            continue;
        ++fault.seen;
        if (!fired && Fires(fault)) {
            *answer = fault.answer;
            fired = true;
        }
    }
    return fired;
}

} // namespace tdsm
