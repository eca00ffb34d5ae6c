// Data sources of the stand-in source manager: listing (directory or scripted), the default, loading and open sources.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "twain1x.h"

namespace tdsm {

// A usable source as the manager lists it.
struct SourceEntry {
    std::string path;     // the .ds file, full path
    TW_IDENTITY identity; // as the application sees it (Id 0; ProductName may be scripted)
    TW_IDENTITY own;      // as the source answered DAT_IDENTITY / MSG_GET (Id 0)
};

// A source between MSG_OPENDS and MSG_CLOSEDS; its address stays the same while it is open.
struct OpenSource {
    SourceEntry entry;
    HMODULE module = nullptr;
    DSENTRYPROC dsEntry = nullptr;
    TW_IDENTITY dsIdentity;              // the source's own identity with its Id, given to it on MSG_OPENDS
    TW_IDENTITY appIdentity;             // the listed identity with the same Id, given to the application
    TW_UINT16 pendingMessage = MSG_NULL; // a DAT_NULL message the source posted, for the next MSG_PROCESSEVENT
    bool faultStatus = false;            // a fault answered the last triplet: DAT_STATUS answers faultCondition
    TW_UINT16 faultCondition = TWCC_SUCCESS;
};

// Where the list comes from.
void UseDirectory(const char *directory);
int AddScriptedSource(const char *productName, const char *dsPath);
void ClearScriptedSources();
// <windows>\twain_32
std::string TwainDirectory();

// The usable sources now, in list order: scripted order, or the directory's .ds files sorted by path.
std::vector<SourceEntry> ListSources();
// Index of the entry of that ProductName, -1 when none.
int FindByName(const std::vector<SourceEntry> &list, const char *productName);
// Index of the default: the entry of win.ini's [Twain] "Default Source" path, else the first; -1 for an empty list.
int FindDefault(const std::vector<SourceEntry> &list);
// Makes `entry` the default by writing its path to win.ini.
void RememberDefault(const SourceEntry &entry);
// Back to listing <windows>\twain_32, with no scripted source and no remembered selection.
void ResetSources();

// Loads a .ds and finds its DS_Entry; false (and nothing loaded) when either fails.
bool LoadSource(const std::string &path, HMODULE *module, DSENTRYPROC *entry);

// Open sources.
std::vector<std::unique_ptr<OpenSource>> &OpenSources();
OpenSource *FindOpenById(TW_UINT32 id);
OpenSource *FindOpenByEntry(const SourceEntry &entry);
void RemoveOpen(OpenSource *source);

} // namespace tdsm
