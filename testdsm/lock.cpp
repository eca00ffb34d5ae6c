// The stand-in's recursive lock, created with the DLL.
#include "lock.h"

namespace tdsm {

namespace {

struct Section {
    CRITICAL_SECTION section;
    Section() { InitializeCriticalSection(&section); }
    ~Section() { DeleteCriticalSection(&section); }
};

Section &Shared() {
    static Section shared;
    return shared;
}

} // namespace

Lock::Lock() {
    EnterCriticalSection(&Shared().section);
}

Lock::~Lock() {
    LeaveCriticalSection(&Shared().section);
}

} // namespace tdsm
