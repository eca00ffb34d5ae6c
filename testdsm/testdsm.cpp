// A recording, scriptable stand-in for TWAIN_32.DLL: one dispatch table of triplets, a call log and fault switches.
#include <cstring>
#include <vector>

#include "testdsm.h"

namespace {

// One call in flight: what the handler needs and what it leaves behind.
struct Call {
    pTW_IDENTITY origin;
    pTW_IDENTITY dest;
    TW_MEMREF data;
    TW_UINT16 cc;
};

typedef TW_UINT16 (*Handler)(Call &call);

// A triplet the stand-in knows, with the source-manager states in which it is accepted.
struct Route {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    unsigned states; // bit n set: accepted in state n
    Handler handler;
};

struct Fault {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_UINT16 rc;
    TW_UINT16 cc;
};

constexpr unsigned StateBit(int state) {
    return 1u << state;
}
constexpr unsigned kLoaded = StateBit(TDSM_STATE_LOADED);
constexpr unsigned kOpen = StateBit(TDSM_STATE_OPEN);

int dsmState = TDSM_STATE_LOADED;
TW_UINT16 lastCondition = TWCC_SUCCESS;
std::vector<TdsmCall> callLog;
std::vector<Fault> faults;

// DG_CONTROL / DAT_PARENT / MSG_OPENDSM: the data points at the parent window handle.
TW_UINT16 OpenDsm(Call &call) {
    if (!call.data) {
        call.cc = TWCC_BADVALUE;
        return TWRC_FAILURE;
    }
    dsmState = TDSM_STATE_OPEN;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_PARENT / MSG_CLOSEDSM
TW_UINT16 CloseDsm(Call &) {
    dsmState = TDSM_STATE_LOADED;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_STATUS / MSG_GET: the condition code of the previous call.
TW_UINT16 GetStatus(Call &call) {
    if (!call.data) {
        call.cc = TWCC_BADVALUE;
        return TWRC_FAILURE;
    }
    TW_STATUS *status = static_cast<TW_STATUS *>(call.data);
    status->ConditionCode = lastCondition;
    status->Reserved = 0;
    return TWRC_SUCCESS;
}

const Route kRoutes[] = {
    {DG_CONTROL, DAT_PARENT, MSG_OPENDSM, kLoaded, OpenDsm},
    {DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, kOpen, CloseDsm},
    {DG_CONTROL, DAT_STATUS, MSG_GET, kLoaded | kOpen, GetStatus},
};

// Bytes that a triplet's data record holds, for the log.
TW_UINT32 DataSize(TW_UINT16 dat) {
    switch (dat) {
    case DAT_CAPABILITY:
        return sizeof(TW_CAPABILITY);
    case DAT_EVENT:
        return sizeof(TW_EVENT);
    case DAT_IDENTITY:
        return sizeof(TW_IDENTITY);
    case DAT_PARENT:
        return sizeof(HWND);
    case DAT_PENDINGXFERS:
        return sizeof(TW_PENDINGXFERS);
    case DAT_SETUPMEMXFER:
        return sizeof(TW_SETUPMEMXFER);
    case DAT_SETUPFILEXFER:
        return sizeof(TW_SETUPFILEXFER);
    case DAT_STATUS:
        return sizeof(TW_STATUS);
    case DAT_USERINTERFACE:
        return sizeof(TW_USERINTERFACE);
    case DAT_IMAGEINFO:
        return sizeof(TW_IMAGEINFO);
    case DAT_IMAGELAYOUT:
        return sizeof(TW_IMAGELAYOUT);
    case DAT_IMAGEMEMXFER:
        return sizeof(TW_IMAGEMEMXFER);
    case DAT_IMAGENATIVEXFER:
        return sizeof(TW_UINT32);
    case DAT_PALETTE8:
        return sizeof(TW_PALETTE8);
    default:
        return 0;
    }
}

const Fault *FindFault(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    for (const Fault &fault : faults)
        if (fault.dg == dg && fault.dat == dat && fault.msg == msg)
            return &fault;
    return nullptr;
}

TW_UINT16 Dispatch(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, Call &call) {
    if (const Fault *fault = FindFault(dg, dat, msg)) {
        call.cc = fault->cc;
        return fault->rc;
    }
    for (const Route &route : kRoutes) {
        if (route.dg != dg || route.dat != dat || route.msg != msg)
            continue;
        if (!(route.states & StateBit(dsmState))) {
            call.cc = TWCC_SEQERROR;
            return TWRC_FAILURE;
        }
        return route.handler(call);
    }
    // A triplet the stand-in does not know.
    call.cc = TWCC_BADPROTOCOL;
    return TWRC_FAILURE;
}

void CopyName(char *to, const TW_IDENTITY *identity) {
    std::memset(to, 0, sizeof(TW_STR32));
    if (identity)
        std::memcpy(to, identity->ProductName, sizeof(TW_STR32));
}

} // namespace

extern "C" {

TW_UINT16 WINAPI DSM_Entry(pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                           TW_MEMREF data) {
    TdsmCall record;
    std::memset(&record, 0, sizeof record);
    record.originId = origin ? origin->Id : 0;
    CopyName(record.originName, origin);
    record.hasDest = dest != nullptr;
    CopyName(record.destName, dest);
    record.dg = dg;
    record.dat = dat;
    record.msg = msg;
    record.hasData = data != nullptr;
    record.dataSize = data ? DataSize(dat) : 0;
    if (record.dataSize)
        std::memcpy(record.dataIn, data, record.dataSize);

    Call call = {origin, dest, data, TWCC_SUCCESS};
    const bool isStatus = dg == DG_CONTROL && dat == DAT_STATUS && msg == MSG_GET;
    const TW_UINT16 rc = Dispatch(dg, dat, msg, call);
    // A status query reports the previous call and leaves that code for the next query.
    if (!isStatus)
        lastCondition = call.cc;

    record.rc = rc;
    record.cc = call.cc;
    if (record.dataSize)
        std::memcpy(record.dataOut, data, record.dataSize);
    callLog.push_back(record);
    return rc;
}

void __cdecl TdsmReset(void) {
    callLog.clear();
    faults.clear();
    dsmState = TDSM_STATE_LOADED;
    lastCondition = TWCC_SUCCESS;
}

int __cdecl TdsmCallCount(void) {
    return static_cast<int>(callLog.size());
}

int __cdecl TdsmGetCall(int index, TdsmCall *out) {
    if (index < 0 || index >= static_cast<int>(callLog.size()) || !out)
        return 0;
    *out = callLog[index];
    return 1;
}

void __cdecl TdsmFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
    faults.push_back(Fault{dg, dat, msg, rc, cc});
}

int __cdecl TdsmState(void) {
    return dsmState;
}

} // extern "C"
