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
// The module is unloaded while the process goes on: the window (of `s`, when there is a source) is destroyed and
// the class unregistered, so that no window procedure of ours outlives the code and a reload registers its own.
void UnloadUi(Source *s, HINSTANCE instance);

} // namespace vscan
