// The scan-to-file driver: the handling of a transfer-ready event while a scan to file owns the session.
#include "ScanModule.h"

// The scan to file sets scanToFileActive while it runs; the event filter then hands every transfer-ready event here
// instead of the application-driven transfers. Nothing starts a scan to file yet, so nothing arrives here.
void TScanModule::ProcessZephraScanImage() {}
