// The virtual scanner's window: resolution, pixel type, Scan and Close, shown headless or not, never modal.
#pragma once

#include "Source.h"

namespace vscan {

// Opens the window for MSG_ENABLEDS (Scan announces a transfer) or MSG_ENABLEDSUIONLY (Scan reads OK and
// announces MSG_CLOSEDSOK); `autoPress` lets the automatic modes press Scan. False when it cannot be created.
bool ShowUi(Source &s, bool autoPress);
void DestroyUi(Source &s);
// Presses a button later, through the application's message loop.
void PostScan(Source &s);
void PostClose(Source &s);
// Forgets the window class when the module is unloaded, so that a reload registers its own again.
void UnregisterUi(HINSTANCE instance);

} // namespace vscan
