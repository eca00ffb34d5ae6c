// The stand-in's control exports: reset, the call log, fault switches, the source list and the user-select script.
#include "calllog.h"
#include "faults.h"
#include "manager.h"
#include "sources.h"
#include "testdsm.h"

using namespace tdsm;

namespace {

constexpr int kNextCall = 1;
constexpr int kOnce = 1;
constexpr int kEveryCall = 0;

} // namespace

extern "C" {

void __cdecl TdsmReset(void) {
    ResetManager();
    ClearLog();
    ClearFaults();
    ResetSources();
}

int __cdecl TdsmCallCount(void) {
    return LogCount();
}

int __cdecl TdsmGetCall(int index, TdsmCall *out) {
    return LogGet(index, out) ? 1 : 0;
}

void __cdecl TdsmFailTriplet(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
    AddFault(dg, dat, msg, FaultAnswer{rc, cc}, kNextCall, kEveryCall);
}

int __cdecl TdsmState(void) {
    return ManagerState();
}

void __cdecl TdsmFailTripletOnce(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc) {
    AddFault(dg, dat, msg, FaultAnswer{rc, cc}, kNextCall, kOnce);
}

void __cdecl TdsmFailTripletFrom(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc, int nth) {
    AddFault(dg, dat, msg, FaultAnswer{rc, cc}, nth, kEveryCall);
}

void __cdecl TdsmFailTripletEx(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_UINT16 rc, TW_UINT16 cc, int nth,
                               int times) {
    AddFault(dg, dat, msg, FaultAnswer{rc, cc}, nth, times);
}

void __cdecl TdsmClearFaults(void) {
    ClearFaults();
}

int __cdecl TdsmAddSource(const char *productName, const char *dsPath) {
    return AddScriptedSource(productName, dsPath);
}

void __cdecl TdsmClearSources(void) {
    ClearScriptedSources();
}

void __cdecl TdsmUseDirectory(const char *directory) {
    UseDirectory(directory);
}

int __cdecl TdsmSourceCount(void) {
    return static_cast<int>(ListSources().size());
}

int __cdecl TdsmGetSource(int index, TW_IDENTITY *identity, char *dsPath, int pathSize) {
    const std::vector<SourceEntry> list = ListSources();
    if (index < 0 || index >= static_cast<int>(list.size()))
        return 0;
    if (identity)
        *identity = list[index].identity;
    if (dsPath && pathSize > 0)
        lstrcpynA(dsPath, list[index].path.c_str(), pathSize);
    return 1;
}

void __cdecl TdsmSelectByName(const char *productName) {
    ScriptSelection(Selection::ByName, 0, productName ? productName : "");
}

void __cdecl TdsmSelectByIndex(int index) {
    ScriptSelection(Selection::ByIndex, index, "");
}

void __cdecl TdsmSelectCancel(void) {
    ScriptSelection(Selection::Cancel, 0, "");
}

void __cdecl TdsmSelectCancelLeaving(const char *productName) {
    ScriptSelection(Selection::Cancel, 0, productName ? productName : "");
}

int __cdecl TdsmUserSelectCount(void) {
    return UserSelectCount();
}

int __cdecl TdsmOpenSourceCount(void) {
    return static_cast<int>(OpenSources().size());
}

HWND __cdecl TdsmParentWindow(void) {
    return ParentWindow();
}

void __cdecl TdsmSetLogLimit(int limit) {
    SetLogLimit(limit);
}

int __cdecl TdsmDroppedCalls(void) {
    return DroppedCalls();
}

} // extern "C"
