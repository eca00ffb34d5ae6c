// Data sources: scanning <windows>\twain_32 for *.ds, the scripted list, win.ini's default and the open sources.
#include "sources.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace tdsm {

namespace {

const char kProfileSection[] = "Twain";
const char kProfileDefaultKey[] = "Default Source";
const char kSourceExtension[] = ".ds";
const char kEntryName[] = "DS_Entry";
const char kDecoratedEntryName[] = "DS_Entry@20";
constexpr int kMaxDepth = 8;

struct ScriptedSource {
    std::string productName; // empty: the source's own
    std::string path;
};

bool scripted = false;
std::string directory; // empty: TwainDirectory()
std::vector<ScriptedSource> scriptedSources;
// The last user selection, to tell apart listed entries that share one .ds file.
std::string selectedPath;
std::string selectedName;
std::vector<std::unique_ptr<OpenSource>> openSources;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string WindowsDirectory() {
    char path[MAX_PATH];
    const UINT length = GetWindowsDirectoryA(path, sizeof path);
    return length && length < sizeof path ? std::string(path) : std::string("C:\\windows");
}

bool IsRelative(const std::string &path) {
    const bool drive = path.size() >= 2 && path[1] == ':';
    const bool root = !path.empty() && (path[0] == '\\' || path[0] == '/');
    return !drive && !root;
}

// A path in one canonical spelling: absolute (relative to the Windows directory), long names, lower case.
std::string CanonicalPath(const std::string &path) {
    std::string full = IsRelative(path) ? WindowsDirectory() + "\\" + path : path;
    std::replace(full.begin(), full.end(), '/', '\\');
    char buffer[MAX_PATH];
    DWORD length = GetFullPathNameA(full.c_str(), sizeof buffer, buffer, nullptr);
    if (length && length < sizeof buffer)
        full = buffer;
    length = GetLongPathNameA(full.c_str(), buffer, sizeof buffer);
    if (length && length < sizeof buffer)
        full = buffer;
    return Lower(full);
}

bool HasSourceExtension(const std::string &name) {
    const size_t length = sizeof kSourceExtension - 1;
    return name.size() > length && Lower(name.substr(name.size() - length)) == kSourceExtension;
}

void FindSourceFiles(const std::string &dir, int depth, std::vector<std::string> *paths) {
    if (depth > kMaxDepth)
        return;
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((dir + "\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::string name = found.cFileName;
        if (name == "." || name == "..")
            continue;
        const std::string path = dir + "\\" + name;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            FindSourceFiles(path, depth + 1, paths);
        else if (HasSourceExtension(name))
            paths->push_back(path);
    } while (FindNextFileA(search, &found));
    FindClose(search);
}

void Terminate(char *text, size_t size) {
    text[size - 1] = '\0';
}

// Asks a loaded source for its identity; false when it does not answer TWRC_SUCCESS.
bool QueryIdentity(DSENTRYPROC entry, TW_IDENTITY *identity) {
    std::memset(identity, 0, sizeof *identity);
    if (entry(nullptr, DG_CONTROL, DAT_IDENTITY, MSG_GET, identity) != TWRC_SUCCESS)
        return false;
    identity->Id = 0;
    Terminate(identity->Version.Info, sizeof identity->Version.Info);
    Terminate(identity->Manufacturer, sizeof identity->Manufacturer);
    Terminate(identity->ProductFamily, sizeof identity->ProductFamily);
    Terminate(identity->ProductName, sizeof identity->ProductName);
    return true;
}

// The identity of an open source is known; any other source is loaded and asked.
bool SourceIdentity(const std::string &path, TW_IDENTITY *identity) {
    for (auto &source : openSources) {
        if (Lower(source->entry.path) == Lower(path)) {
            *identity = source->entry.own;
            return true;
        }
    }
    HMODULE module;
    DSENTRYPROC entry;
    if (!LoadSource(path, &module, &entry))
        return false;
    const bool usable = QueryIdentity(entry, identity);
    FreeLibrary(module);
    return usable;
}

bool Probe(const std::string &path, const std::string &productName, std::vector<SourceEntry> *list) {
    SourceEntry source;
    if (!SourceIdentity(path, &source.own))
        return false;
    source.path = path;
    source.identity = source.own;
    if (!productName.empty()) {
        std::memset(source.identity.ProductName, 0, sizeof source.identity.ProductName);
        std::strncpy(source.identity.ProductName, productName.c_str(), sizeof source.identity.ProductName - 1);
    }
    list->push_back(source);
    return true;
}

std::vector<SourceEntry> ListDirectory() {
    std::vector<std::string> paths;
    FindSourceFiles(directory.empty() ? TwainDirectory() : directory, 0, &paths);
    std::sort(paths.begin(), paths.end(),
              [](const std::string &a, const std::string &b) { return Lower(a) < Lower(b); });
    std::vector<SourceEntry> list;
    for (const std::string &path : paths)
        Probe(path, std::string(), &list);
    return list;
}

std::vector<SourceEntry> ListScripted() {
    std::vector<SourceEntry> list;
    for (const ScriptedSource &source : scriptedSources)
        Probe(source.path, source.productName, &list);
    return list;
}

} // namespace

std::string TwainDirectory() {
    return WindowsDirectory() + "\\twain_32";
}

void UseDirectory(const char *dir) {
    scripted = false;
    directory = dir ? dir : "";
}

int AddScriptedSource(const char *productName, const char *dsPath) {
    if (!dsPath || !*dsPath)
        return -1;
    scripted = true;
    scriptedSources.push_back(ScriptedSource{productName ? productName : "", dsPath});
    return static_cast<int>(scriptedSources.size()) - 1;
}

void ClearScriptedSources() {
    scripted = true;
    scriptedSources.clear();
}

std::vector<SourceEntry> ListSources() {
    return scripted ? ListScripted() : ListDirectory();
}

int FindByName(const std::vector<SourceEntry> &list, const char *productName) {
    for (size_t i = 0; i < list.size(); ++i)
        if (std::strncmp(list[i].identity.ProductName, productName, sizeof(TW_STR32)) == 0)
            return static_cast<int>(i);
    return -1;
}

int FindDefault(const std::vector<SourceEntry> &list) {
    if (list.empty())
        return -1;
    char value[MAX_PATH] = "";
    GetProfileStringA(kProfileSection, kProfileDefaultKey, "", value, sizeof value);
    if (!*value)
        return 0;
    const std::string wanted = CanonicalPath(value);
    int byPath = -1;
    for (size_t i = 0; i < list.size(); ++i) {
        if (CanonicalPath(list[i].path) != wanted)
            continue;
        if (wanted == selectedPath && selectedName == list[i].identity.ProductName)
            return static_cast<int>(i);
        if (byPath < 0)
            byPath = static_cast<int>(i);
    }
    return byPath < 0 ? 0 : byPath;
}

void RememberDefault(const SourceEntry &entry) {
    WriteProfileStringA(kProfileSection, kProfileDefaultKey, entry.path.c_str());
    selectedPath = CanonicalPath(entry.path);
    selectedName = entry.identity.ProductName;
}

void ResetSources() {
    selectedPath.clear();
    selectedName.clear();
    scripted = false;
    directory.clear();
    scriptedSources.clear();
}

bool LoadSource(const std::string &path, HMODULE *module, DSENTRYPROC *entry) {
    // No error boxes for a file that is not a loadable DLL.
    const UINT oldMode = SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    *module = LoadLibraryA(path.c_str());
    SetErrorMode(oldMode);
    if (!*module)
        return false;
    FARPROC proc = GetProcAddress(*module, kEntryName);
    if (!proc)
        proc = GetProcAddress(*module, kDecoratedEntryName);
    if (!proc) {
        FreeLibrary(*module);
        *module = nullptr;
        return false;
    }
    *entry = reinterpret_cast<DSENTRYPROC>(reinterpret_cast<void *>(proc));
    return true;
}

std::vector<std::unique_ptr<OpenSource>> &OpenSources() {
    return openSources;
}

OpenSource *FindOpenById(TW_UINT32 id) {
    for (auto &source : openSources)
        if (id && source->dsIdentity.Id == id)
            return source.get();
    return nullptr;
}

OpenSource *FindOpenByEntry(const SourceEntry &entry) {
    for (auto &source : openSources)
        if (Lower(source->entry.path) == Lower(entry.path) &&
            std::strcmp(source->entry.identity.ProductName, entry.identity.ProductName) == 0)
            return source.get();
    return nullptr;
}

void RemoveOpen(OpenSource *source) {
    openSources.erase(
        std::remove_if(openSources.begin(), openSources.end(),
                       [source](const std::unique_ptr<OpenSource> &open) { return open.get() == source; }),
        openSources.end());
}

} // namespace tdsm
