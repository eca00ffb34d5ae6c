// Fixture of the session suites: source files in the prefix, the stand-in's script controls, the session exports.
#include "SessionTest.h"

#include "VscanSupport.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace smtest {

namespace {

template <typename T> void Resolve(HMODULE module, const char *name, T &target) {
    target = reinterpret_cast<T>(reinterpret_cast<void *>(GetProcAddress(module, name)));
    if (!target) {
        std::fprintf(stderr, "session fixture: the stand-in has no %s\n", name);
        std::abort();
    }
}

} // namespace

void RemoveTree(const std::string &directory) {
    WIN32_FIND_DATAA entry;
    HANDLE listing = FindFirstFileA((directory + "\\*").c_str(), &entry);
    if (listing != INVALID_HANDLE_VALUE) {
        do {
            const std::string name = entry.cFileName;
            if (name == "." || name == "..")
                continue;
            const std::string path = directory + "\\" + name;
            SetFileAttributesA(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(path);
            else
                DeleteFileA(path.c_str());
        } while (FindNextFileA(listing, &entry));
        FindClose(listing);
    }
    SetFileAttributesA(directory.c_str(), FILE_ATTRIBUTE_DIRECTORY);
    RemoveDirectoryA(directory.c_str());
}

std::string Failed(const std::string &triplet, const char *rc) {
    return triplet.substr(0, triplet.find(" -> ")) + " -> " + rc;
}

void RemoveSourceDirectories() {
    RemoveTree(WindowsDir() + "\\twain_32");
    RemoveTree(WindowsDir() + "\\twain");
}

std::string InstallVirtualScanner(const std::string &relativePath) {
    // Another test program may still have the source loaded from there: it is waited for, and named.
    const std::string target = MakeWindowsPath(relativePath);
    PlaceFileOrStop("vscan.ds", target, "session fixture");
    return target;
}

void DsmScript::Load() {
    HMODULE module = GetModuleHandleA(TwainPath().c_str());
    Resolve(module, "TdsmAddSource", addSource);
    Resolve(module, "TdsmClearSources", clearSources);
    Resolve(module, "TdsmSelectByName", selectByName);
    Resolve(module, "TdsmSelectCancel", selectCancel);
    Resolve(module, "TdsmSelectCancelLeaving", selectCancelLeaving);
    Resolve(module, "TdsmUserSelectCount", userSelectCount);
    Resolve(module, "TdsmOpenSourceCount", openSourceCount);
    Resolve(module, "TdsmParentWindow", parentWindow);
    Resolve(module, "TdsmFailTripletOnce", failOnce);
    Resolve(module, "TdsmFailTripletEx", failEx);
    Resolve(module, "TdsmClearFaults", clearFaults);
}

void SessionTest::SetUp() {
    ModuleTest::SetUp();
    RemoveSourceDirectories();
    InstallVirtualScanner("twain_32\\vscan.ds");
    WriteProfileStringA("Twain", "Default Source", nullptr);
    library.Load();
    ASSERT_TRUE(dsm.Open());
    script.Load();
    ResolveExports();
    ASSERT_TRUE(selectDS && openDS && enableDS && disableDS && closeDS && getAllDS && setDefaultDriver);
    window =
        CreateWindowA("STATIC", "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(nullptr, window);
    viewer.Clear();
    Mark();
}

void SessionTest::TearDown() {
    // Leave no source open, so that the source manager and the source files are released.
    if (disableDS && closeDS && !withoutManager_) {
        script.clearFaults();
        disableDS();
        closeDS();
    }
    EnableWindow(GetDesktopWindow(), TRUE);
    if (window)
        DestroyWindow(window);
    ModuleTest::TearDown();
    WriteProfileStringA("Twain", "Default Source", nullptr);
    RemoveSourceDirectories();
}

std::vector<TdsmCall> SessionTest::CallsSinceMark() const {
    std::vector<TdsmCall> calls = dsm.Calls();
    return std::vector<TdsmCall>(calls.begin() + std::min(mark_, calls.size()), calls.end());
}

std::vector<std::string> SessionTest::Triplets() const {
    std::vector<std::string> out;
    for (const TdsmCall &call : CallsSinceMark())
        out.push_back(Describe(call));
    return out;
}

void SessionTest::Mark() {
    mark_ = dsm.Calls().size();
}

void SessionTest::Reset() {
    viewer.Clear();
    Mark();
}

void SessionTest::Open() {
    ASSERT_EQ(SM_OK, openDS(window, "Session test"));
    ASSERT_EQ(1, script.openSourceCount());
    Reset();
}

void SessionTest::Enable() {
    Open();
    if (HasFatalFailure())
        return;
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    Reset();
}

void SessionTest::DisableInTheSourcesPlace() {
    script.failOnce(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, TWRC_SUCCESS, TWCC_SUCCESS);
    EXPECT_EQ(SM_OK, disableDS()) << "the module stays in state 5, and the session cannot close";
}

void SessionTest::LeaveManagerOpen() {
    script.failOnce(DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, TWRC_FAILURE, TWCC_NODS);
    script.failOnce(DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, TWRC_FAILURE, TWCC_SEQERROR);
    ASSERT_EQ(TWCC_NODS, openDS(window, "Session test")) << TwccName(TWCC_NODS);
    ASSERT_EQ(TDSM_STATE_OPEN, dsm.State());
    Reset();
}

void SessionTest::ReloadWithoutSourceManager() {
    library.Free();
    dsm.Close();
    InstallDsm(Dsm::Absent);
    library.Load();
    ResolveExports();
    // The stand-in is gone: nothing to close, no switch to clear.
    withoutManager_ = true;
}

void SessionTest::Unload() {
    library.Free();
    selectDS = nullptr;
    openDS = nullptr;
    enableDS = nullptr;
    disableDS = nullptr;
    closeDS = nullptr;
    getAllDS = nullptr;
    setDefaultDriver = nullptr;
}

void SessionTest::Reload() {
    library.Load();
    ResolveExports();
}

int SessionTest::StateFoundByOpenDS() {
    Reset();
    const LONG result = openDS(window, "Probe");
    const std::vector<std::string> sent = Triplets();
    if (result == SM_OK && !sent.empty())
        return sent[0] == kOpenDsm ? 2 : 3;
    if (result == SM_OK)
        return 4;
    return result == SM_ERR_SEQUENCE && sent.empty() ? 5 : 0;
}

std::vector<HWND> SessionTest::ManagerClosedWith() const {
    std::vector<HWND> windows;
    for (const TdsmCall &call : CallsSinceMark()) {
        if (call.dat != DAT_PARENT || call.msg != MSG_CLOSEDSM)
            continue;
        HWND carried = nullptr;
        std::memcpy(&carried, call.dataIn, sizeof carried);
        windows.push_back(carried);
    }
    return windows;
}

void SessionTest::ResolveExports() {
    selectDS = library.Get<decltype(selectDS)>("smSelectDS");
    openDS = library.Get<decltype(openDS)>("smOpenDS");
    enableDS = library.Get<decltype(enableDS)>("smEnableDS");
    disableDS = library.Get<decltype(disableDS)>("smDisableDS");
    closeDS = library.Get<decltype(closeDS)>("smCloseDS");
    getAllDS = library.Get<decltype(getAllDS)>("smGetAllDS");
    setDefaultDriver = library.Get<decltype(setDefaultDriver)>("smSetDefaultDriver");
}

} // namespace smtest
