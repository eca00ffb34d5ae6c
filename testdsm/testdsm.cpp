// The stand-in TWAIN_32.DLL's DSM_Entry: one dispatch table of triplets, the manager's handlers and forwarding.
#include <cstring>
#include <vector>

#include "calllog.h"
#include "faults.h"
#include "manager.h"
#include "sources.h"
#include "testdsm.h"

namespace tdsm {

namespace {

// Who a triplet is for: the manager (no destination), an open source, or the application (a source calling back).
enum class Target { Manager, Source, FromSource };

// One call in flight: what the handler needs and what it leaves behind.
struct Call {
    pTW_IDENTITY origin;
    pTW_IDENTITY dest;
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    TW_MEMREF data;
    TW_UINT16 cc;
    bool forwarded;
};

typedef TW_UINT16 (*Handler)(Call &call);

// A triplet the stand-in knows, with the source-manager states in which it is accepted.
struct Route {
    Target target;
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    unsigned states; // bit n set: accepted in state n
    Handler handler;
};

constexpr unsigned StateBit(int state) {
    return 1u << state;
}
constexpr unsigned kLoaded = StateBit(TDSM_STATE_LOADED);
constexpr unsigned kOpen = StateBit(TDSM_STATE_OPEN);
constexpr TW_UINT32 kAnyGroup = TDSM_ANY_DG;
constexpr TW_UINT16 kAny = TDSM_ANY;
constexpr TW_UINT32 kFirstId = 1;

int dsmState = TDSM_STATE_LOADED;
TW_UINT16 lastCondition = TWCC_SUCCESS;
TW_UINT32 nextId = kFirstId;
TW_IDENTITY application;
HWND parentWindow = nullptr;
std::vector<SourceEntry> listing; // the list MSG_GETFIRST took, walked by MSG_GETNEXT
size_t listCursor = 0;
Selection selection = Selection::AcceptDefault;
int selectIndex = 0;
std::string selectName;
int userSelectCount = 0;
thread_local int callDepth = 0;

TW_UINT16 Fail(Call &call, TW_UINT16 cc) {
    call.cc = cc;
    return TWRC_FAILURE;
}

TW_IDENTITY *IdentityData(Call &call) {
    return Readable(call.data, sizeof(TW_IDENTITY)) ? static_cast<TW_IDENTITY *>(call.data) : nullptr;
}

// The identity the application gets for a listed source: Id 0 until the source is opened.
TW_UINT16 GiveIdentity(TW_IDENTITY *to, const SourceEntry &entry) {
    *to = entry.identity;
    to->Id = 0;
    return TWRC_SUCCESS;
}

OpenSource *Destination(const Call &call) {
    return Readable(call.dest, sizeof(TW_IDENTITY)) ? FindOpenById(call.dest->Id) : nullptr;
}

// The condition code of a source that just failed, asked from the source itself.
TW_UINT16 SourceCondition(DSENTRYPROC entry, pTW_IDENTITY origin) {
    TW_STATUS status = {TWCC_BUMMER, 0};
    if (entry(origin, DG_CONTROL, DAT_STATUS, MSG_GET, &status) != TWRC_SUCCESS)
        return TWCC_BUMMER;
    return status.ConditionCode;
}

// DG_CONTROL / DAT_PARENT / MSG_OPENDSM: the data points at the parent window's handle; the application gets its Id.
TW_UINT16 OpenDsm(Call &call) {
    // A window handle passed by value instead of by address.
    if (call.data && IsWindow(static_cast<HWND>(call.data)))
        return Fail(call, TWCC_BADVALUE);
    if (!Readable(call.data, sizeof(HWND)))
        return Fail(call, TWCC_BADVALUE);
    const HWND window = *static_cast<HWND *>(call.data);
    if (!IsWindow(window))
        return Fail(call, TWCC_BADVALUE);
    parentWindow = window;
    call.origin->Id = nextId++;
    application = *call.origin;
    dsmState = TDSM_STATE_OPEN;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_PARENT / MSG_CLOSEDSM: refused while a source is open.
TW_UINT16 CloseDsm(Call &call) {
    if (!Readable(call.data, sizeof(HWND)))
        return Fail(call, TWCC_BADVALUE);
    if (!OpenSources().empty())
        return Fail(call, TWCC_SEQERROR);
    dsmState = TDSM_STATE_LOADED;
    listing.clear();
    listCursor = 0;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_STATUS / MSG_GET (no destination): the manager's condition code of the previous call.
TW_UINT16 GetManagerStatus(Call &call) {
    if (!Readable(call.data, sizeof(TW_STATUS)))
        return Fail(call, TWCC_BADVALUE);
    TW_STATUS *status = static_cast<TW_STATUS *>(call.data);
    status->ConditionCode = lastCondition;
    status->Reserved = 0;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_IDENTITY / MSG_GETFIRST: lists the sources anew and gives the first.
TW_UINT16 GetFirst(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    listing = ListSources();
    listCursor = 0;
    if (listing.empty())
        return Fail(call, TWCC_NODS);
    return GiveIdentity(identity, listing[listCursor++]);
}

// DG_CONTROL / DAT_IDENTITY / MSG_GETNEXT: the next source of the list MSG_GETFIRST took.
TW_UINT16 GetNext(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    if (listCursor >= listing.size())
        return TWRC_ENDOFLIST;
    return GiveIdentity(identity, listing[listCursor++]);
}

// DG_CONTROL / DAT_IDENTITY / MSG_GETDEFAULT: the source win.ini names, else the first one.
TW_UINT16 GetDefault(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    const std::vector<SourceEntry> list = ListSources();
    const int index = FindDefault(list);
    if (index < 0)
        return Fail(call, TWCC_NODS);
    return GiveIdentity(identity, list[index]);
}

// The source the scripted user picks, -1 for none.
int ScriptedChoice(const std::vector<SourceEntry> &list) {
    switch (selection) {
    case Selection::ByName:
        return FindByName(list, selectName.c_str());
    case Selection::ByIndex:
        return selectIndex >= 0 && selectIndex < static_cast<int>(list.size()) ? selectIndex : -1;
    default:
        return FindDefault(list);
    }
}

// DG_CONTROL / DAT_IDENTITY / MSG_USERSELECT: the scripted dialog; the chosen source becomes the default.
TW_UINT16 UserSelect(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    ++userSelectCount;
    const std::vector<SourceEntry> list = ListSources();
    if (list.empty())
        return Fail(call, TWCC_NODS);
    if (selection == Selection::Cancel) {
        // A cancelled dialog may leave the name it showed last in the identity.
        if (!selectName.empty())
            lstrcpynA(identity->ProductName, selectName.c_str(), sizeof identity->ProductName);
        return TWRC_CANCEL;
    }
    const int index = ScriptedChoice(list);
    if (index < 0)
        return Fail(call, TWCC_NODS);
    RememberDefault(list[index]);
    return GiveIdentity(identity, list[index]);
}

// Loads a listed source and sends it MSG_OPENDS; the application's identity gets the new Id.
TW_UINT16 OpenListed(Call &call, const SourceEntry &entry, TW_IDENTITY *identity) {
    auto source = std::make_unique<OpenSource>();
    source->entry = entry;
    if (!LoadSource(entry.path, &source->module, &source->dsEntry))
        return Fail(call, TWCC_NODS);
    source->dsIdentity = entry.own;
    source->dsIdentity.Id = nextId++;
    source->appIdentity = entry.identity;
    source->appIdentity.Id = source->dsIdentity.Id;
    const TW_UINT16 rc = source->dsEntry(call.origin, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, &source->dsIdentity);
    if (rc != TWRC_SUCCESS) {
        call.cc = SourceCondition(source->dsEntry, call.origin);
        FreeLibrary(source->module);
        return rc;
    }
    *identity = source->appIdentity;
    OpenSources().push_back(std::move(source));
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_IDENTITY / MSG_OPENDS: opens the source of that ProductName, or the default for an empty one.
TW_UINT16 OpenDs(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    const std::vector<SourceEntry> list = ListSources();
    const bool named = identity->ProductName[0] != '\0';
    const int index = named ? FindByName(list, identity->ProductName) : FindDefault(list);
    if (index < 0)
        return Fail(call, TWCC_NODS);
    if (FindOpenByEntry(list[index]))
        return Fail(call, TWCC_SEQERROR);
    return OpenListed(call, list[index], identity);
}

// DG_CONTROL / DAT_IDENTITY / MSG_CLOSEDS: the source of that Id closes and is freed, unless it refuses.
TW_UINT16 CloseDs(Call &call) {
    TW_IDENTITY *identity = IdentityData(call);
    if (!identity)
        return Fail(call, TWCC_BADVALUE);
    OpenSource *source = FindOpenById(identity->Id);
    if (!source)
        return Fail(call, TWCC_NODS);
    const TW_UINT16 rc = source->dsEntry(call.origin, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source->dsIdentity);
    if (rc != TWRC_SUCCESS) {
        call.cc = SourceCondition(source->dsEntry, call.origin);
        return rc;
    }
    FreeLibrary(source->module);
    RemoveOpen(source);
    return TWRC_SUCCESS;
}

// Any triplet for an open source: straight to its DS_Entry.
TW_UINT16 ForwardToSource(Call &call) {
    OpenSource *source = Destination(call);
    if (!source)
        return Fail(call, TWCC_BADDEST);
    call.forwarded = true;
    return source->dsEntry(call.origin, call.dg, call.dat, call.msg, call.data);
}

// DG_CONTROL / DAT_STATUS / MSG_GET (to a source): the source's own, or the code of the fault that answered for it.
TW_UINT16 GetSourceStatus(Call &call) {
    OpenSource *source = Destination(call);
    if (!source || !source->faultStatus)
        return ForwardToSource(call);
    if (!Readable(call.data, sizeof(TW_STATUS)))
        return Fail(call, TWCC_BADVALUE);
    TW_STATUS *status = static_cast<TW_STATUS *>(call.data);
    status->ConditionCode = source->faultCondition;
    status->Reserved = 0;
    source->faultStatus = false;
    return TWRC_SUCCESS;
}

// DG_CONTROL / DAT_EVENT / MSG_PROCESSEVENT: forwarded; a message the source posted comes back in TWMessage.
TW_UINT16 ProcessEvent(Call &call) {
    const TW_UINT16 rc = ForwardToSource(call);
    OpenSource *source = Destination(call);
    const bool handled = rc == TWRC_DSEVENT || rc == TWRC_NOTDSEVENT;
    if (!source || !handled || !Readable(call.data, sizeof(TW_EVENT)))
        return rc;
    TW_EVENT *event = static_cast<TW_EVENT *>(call.data);
    if (event->TWMessage == MSG_NULL && source->pendingMessage != MSG_NULL) {
        event->TWMessage = source->pendingMessage;
        source->pendingMessage = MSG_NULL;
    }
    return rc;
}

// DG_CONTROL / DAT_NULL / MSG_XFERREADY, MSG_CLOSEDSREQ, MSG_CLOSEDSOK, MSG_DEVICEEVENT (source to application):
// kept for the application's next MSG_PROCESSEVENT, whose loop a WM_NULL wakes.
TW_UINT16 PostToApplication(Call &call) {
    OpenSource *source = FindOpenById(call.origin->Id);
    if (!source || !Readable(call.dest, sizeof(TW_IDENTITY)) || call.dest->Id != application.Id)
        return Fail(call, TWCC_BADDEST);
    source->pendingMessage = call.msg;
    PostMessageA(parentWindow, WM_NULL, 0, 0);
    return TWRC_SUCCESS;
}

// Any other triplet.
TW_UINT16 Unknown(Call &call) {
    return Fail(call, TWCC_BADPROTOCOL);
}

const Route kRoutes[] = {
    {Target::Manager, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, kLoaded, OpenDsm},
    {Target::Manager, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, kOpen, CloseDsm},
    {Target::Manager, DG_CONTROL, DAT_STATUS, MSG_GET, kLoaded | kOpen, GetManagerStatus},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_GETFIRST, kOpen, GetFirst},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_GETNEXT, kOpen, GetNext},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_GETDEFAULT, kOpen, GetDefault},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_USERSELECT, kOpen, UserSelect},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, kOpen, OpenDs},
    {Target::Manager, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, kOpen, CloseDs},
    {Target::Source, DG_CONTROL, DAT_STATUS, MSG_GET, kOpen, GetSourceStatus},
    {Target::Source, DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, kOpen, ProcessEvent},
    {Target::Source, kAnyGroup, kAny, kAny, kOpen, ForwardToSource},
    {Target::FromSource, DG_CONTROL, DAT_NULL, MSG_XFERREADY, kOpen, PostToApplication},
    {Target::FromSource, DG_CONTROL, DAT_NULL, MSG_CLOSEDSREQ, kOpen, PostToApplication},
    {Target::FromSource, DG_CONTROL, DAT_NULL, MSG_CLOSEDSOK, kOpen, PostToApplication},
    {Target::FromSource, DG_CONTROL, DAT_NULL, MSG_DEVICEEVENT, kOpen, PostToApplication},
};

bool RouteMatches(const Route &route, Target target, const Call &call) {
    return route.target == target && (route.dg == kAnyGroup || route.dg == call.dg) &&
           (route.dat == kAny || route.dat == call.dat) && (route.msg == kAny || route.msg == call.msg);
}

bool IsStatusQuery(const Call &call) {
    return call.dg == DG_CONTROL && call.dat == DAT_STATUS && call.msg == MSG_GET;
}

// An identity whose Id the manager never assigned (0) names no open source: classic managers answer a status
// query for it themselves, as applications ask the status of their source identity also when none is open.
bool NamesNoSource(const pTW_IDENTITY identity) {
    return Readable(identity, sizeof(TW_IDENTITY)) && identity->Id == 0;
}

Target TargetOf(const Call &call) {
    if (!call.dest || (IsStatusQuery(call) && NamesNoSource(call.dest)))
        return Target::Manager;
    if (FindOpenById(call.origin->Id))
        return Target::FromSource;
    return Target::Source;
}

// The open source a triplet concerns: its destination, or the source that MSG_CLOSEDS names in its data.
OpenSource *SourceConcerned(const Call &call, Target target) {
    if (target == Target::Source)
        return Destination(call);
    const bool closing = call.dg == DG_CONTROL && call.dat == DAT_IDENTITY && call.msg == MSG_CLOSEDS;
    if (closing && Readable(call.data, sizeof(TW_IDENTITY)))
        return FindOpenById(static_cast<pTW_IDENTITY>(call.data)->Id);
    return nullptr;
}

// A fault answers instead of the triplet; the next DAT_STATUS of the source it concerns then reports it too.
TW_UINT16 AnswerFault(Call &call, Target target, const FaultAnswer &answer) {
    call.cc = answer.cc;
    if (OpenSource *source = SourceConcerned(call, target)) {
        source->faultStatus = true;
        source->faultCondition = answer.cc;
    }
    return answer.rc;
}

TW_UINT16 Dispatch(Call &call, bool *faulted) {
    const bool originReadable = Readable(call.origin, sizeof(TW_IDENTITY));
    const Target target = originReadable ? TargetOf(call) : (call.dest ? Target::Source : Target::Manager);
    FaultAnswer answer;
    if (CheckFault(call.dg, call.dat, call.msg, &answer)) {
        *faulted = true;
        return AnswerFault(call, target, answer);
    }
    if (!originReadable)
        return Fail(call, TWCC_BADVALUE);
    for (const Route &route : kRoutes) {
        if (!RouteMatches(route, target, call))
            continue;
        if (!(route.states & StateBit(dsmState)))
            return Fail(call, TWCC_SEQERROR);
        return route.handler(call);
    }
    return Unknown(call);
}

// Asks an open source to stop and frees it, whatever it answers.
void ForceClose(OpenSource &source) {
    TW_USERINTERFACE ui = {};
    source.dsEntry(&application, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, &ui);
    source.dsEntry(&application, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, &source.dsIdentity);
    FreeLibrary(source.module);
}

} // namespace

void ResetManager() {
    for (auto &source : OpenSources())
        ForceClose(*source);
    OpenSources().clear();
    dsmState = TDSM_STATE_LOADED;
    lastCondition = TWCC_SUCCESS;
    nextId = kFirstId;
    std::memset(&application, 0, sizeof application);
    parentWindow = nullptr;
    listing.clear();
    listCursor = 0;
    selection = Selection::AcceptDefault;
    selectIndex = 0;
    selectName.clear();
    userSelectCount = 0;
}

int ManagerState() {
    return dsmState;
}

HWND ParentWindow() {
    return parentWindow;
}

void ScriptSelection(Selection how, int index, const std::string &productName) {
    selection = how;
    selectIndex = index;
    selectName = productName;
}

int UserSelectCount() {
    return userSelectCount;
}

// Frees the sources still open when the DLL is unloaded (not at process exit, when they go anyway).
void FreeOpenSources() {
    for (auto &source : OpenSources())
        FreeLibrary(source->module);
    OpenSources().clear();
}

} // namespace tdsm

using namespace tdsm;

extern "C" {

TW_UINT16 WINAPI DSM_Entry(pTW_IDENTITY origin, pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg,
                           TW_MEMREF data) {
    TdsmCall record;
    BeginRecord(record, origin, dest, dg, dat, msg, data);
    record.nested = callDepth > 0;
    const long sequence = AppendRecord(record);

    ++callDepth;
    Call call = {origin, dest, dg, dat, msg, data, TWCC_SUCCESS, false};
    bool faulted = false;
    const TW_UINT16 rc = Dispatch(call, &faulted);
    --callDepth;
    // The manager's condition belongs to what the manager answered itself; a status query that succeeds leaves it
    // as it was.
    const bool fromSource = origin && Readable(origin, sizeof *origin) && FindOpenById(origin->Id) && dest;
    const bool answeredStatus = IsStatusQuery(call) && rc == TWRC_SUCCESS;
    if (!answeredStatus && !call.forwarded && !fromSource)
        lastCondition = call.cc;

    CompleteRecord(record, data);
    record.rc = rc;
    record.cc = call.cc;
    record.forwarded = call.forwarded;
    record.faulted = faulted;
    UpdateRecord(sequence, record);
    return rc;
}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    const bool freed = reason == DLL_PROCESS_DETACH && reserved == nullptr;
    if (freed)
        FreeOpenSources();
    return TRUE;
}

} // extern "C"
