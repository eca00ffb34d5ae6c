// Fixture of the session suites: sources installed for the stand-in source manager, the session exports resolved.
#pragma once

#include <string>
#include <vector>

#include "ModuleTest.h"
#include "smkernal.h"

namespace smtest {

// Triplets as Triplets() shows them, and the same triplet answered otherwise.
inline const std::string kOpenDsm = "DG_CONTROL/DAT_PARENT/MSG_OPENDSM -> TWRC_SUCCESS";
inline const std::string kCloseDsm = "DG_CONTROL/DAT_PARENT/MSG_CLOSEDSM -> TWRC_SUCCESS";
inline const std::string kGetDefault = "DG_CONTROL/DAT_IDENTITY/MSG_GETDEFAULT -> TWRC_SUCCESS";
inline const std::string kStatus = "DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_SUCCESS";
std::string Failed(const std::string &triplet, const char *rc = "TWRC_FAILURE");

// Empties and removes a directory and everything below it, read-only files too.
void RemoveTree(const std::string &directory);
// Empties <windows>\twain_32 and <windows>\twain (removing them).
void RemoveSourceDirectories();
// Copies the virtual scanner to <windows>\<relativePath> (e.g. "twain_32\vscan.ds"), making directories.
std::string InstallVirtualScanner(const std::string &relativePath);

// The stand-in source manager's controls beyond the basic ones of DsmControl.
struct DsmScript {
    void Load();
    int (*addSource)(const char *, const char *) = nullptr;
    void (*clearSources)() = nullptr;
    void (*selectByName)(const char *) = nullptr;
    void (*selectCancel)() = nullptr;
    void (*selectCancelLeaving)(const char *) = nullptr;
    int (*userSelectCount)() = nullptr;
    int (*openSourceCount)() = nullptr;
    HWND (*parentWindow)() = nullptr;
    void (*failOnce)(TW_UINT32, TW_UINT16, TW_UINT16, TW_UINT16, TW_UINT16) = nullptr;
    // Fails `times` matching calls from the nth on (1: the next one).
    void (*failEx)(TW_UINT32, TW_UINT16, TW_UINT16, TW_UINT16, TW_UINT16, int nth, int times) = nullptr;
    void (*clearFaults)() = nullptr;
};

class SessionTest : public ModuleTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // The triplets sent since the last Mark(), as "DG_CONTROL/DAT_PARENT/MSG_OPENDSM -> TWRC_SUCCESS".
    std::vector<std::string> Triplets() const;
    std::vector<TdsmCall> CallsSinceMark() const;
    void Mark();
    // Warning texts since the last viewer.Clear().
    std::vector<std::string> Warnings() const { return viewer.Texts("Warning"); }
    // Clears the records and marks the call log.
    void Reset();

    // Reaches state 4 with the virtual scanner open, then Reset().
    void Open();
    // Reaches state 5 (no user interface), then Reset().
    void Enable();
    // After a fault answered MSG_ENABLEDS in the source's place, the module is in state 5 and the source still in 4:
    // the stand-in answers the module's disable in the source's place too, so that the session can close.
    void DisableInTheSourcesPlace();
    // Reaches state 3: the source fails to open and the source manager then fails to close. Then Reset().
    void LeaveManagerOpen();
    // Loads the library again with no TWAIN_32.DLL in the Windows directory; the exports are resolved anew.
    void ReloadWithoutSourceManager();
    // Frees the library (the exports are forgotten) and loads it again; the exports are resolved anew.
    void Unload();
    virtual void Reload();
    // The state a further smOpenDS finds: from 2 it opens the source manager first, from 3 only the
    // source; in 4 it answers that the source is open, in 5 it is refused. 0 for anything else.
    int StateFoundByOpenDS();
    // The window handles that the MSG_CLOSEDSM calls since the last Mark() carried by address.
    std::vector<HWND> ManagerClosedWith() const;

    LONG(WINAPI *selectDS)(HWND) = nullptr;
    LONG(WINAPI *openDS)(HWND, const char *) = nullptr;
    LONG(WINAPI *enableDS)(BOOL, BOOL) = nullptr;
    LONG(WINAPI *disableDS)() = nullptr;
    LONG(WINAPI *closeDS)() = nullptr;
    LONG(WINAPI *getAllDS)(const char *) = nullptr;
    LONG(WINAPI *setDefaultDriver)(HWND, const char *) = nullptr;
    DsmScript script;
    HWND window = nullptr;

private:
    void ResolveExports();
    size_t mark_ = 0;
    bool withoutManager_ = false;
};

} // namespace smtest
