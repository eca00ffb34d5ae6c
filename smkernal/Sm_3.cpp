// The source's brightness range, read when a source is opened.
#include "ScanModule.h"

// The brightness range is negotiated with the source once capability negotiation exists; until
// then the cache keeps the constructor's range and opening a source never fails here.
LONG TScanModule::GetDSBrightnessRange() {
    return 0;
}
