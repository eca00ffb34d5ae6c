// The source manager's own state, as the control exports see it.
#pragma once

#include <string>

#include "twain1x.h"

namespace tdsm {

// How the user-select dialog answers.
enum class Selection { AcceptDefault, ByName, ByIndex, Cancel };

// Closes and frees every open source and goes back to the loaded state with no session.
void ResetManager();
int ManagerState();
HWND ParentWindow();
void ScriptSelection(Selection how, int index, const std::string &productName);
int UserSelectCount();

} // namespace tdsm
