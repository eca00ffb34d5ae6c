// Test support for the stand-in source manager's suites: files under twain_32, win.ini, the application side, fakeds.
#include "DsmHarness.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace smtest {

namespace {

const char kProfileSection[] = "Twain";
const char kProfileKey[] = "Default Source";
const char kAppName[] = "Tdsm test app";

void RemoveTree(const std::string &dir) {
    WIN32_FIND_DATAA found;
    HANDLE search = FindFirstFileA((dir + "\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE)
        return;
    do {
        const std::string name = found.cFileName;
        if (name == "." || name == "..")
            continue;
        const std::string path = dir + "\\" + name;
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            RemoveTree(path);
            RemoveDirectoryA(path.c_str());
        } else {
            DeleteFileA(path.c_str());
        }
    } while (FindNextFileA(search, &found));
    FindClose(search);
}

} // namespace

void CleanTwainDir() {
    CreateDirectoryA(TwainSourceDir().c_str(), nullptr);
    RemoveTree(TwainSourceDir());
}

std::string PutSource(const std::string &relative, const char *binary) {
    const std::string path = InstallSource("twain_32\\" + relative, binary);
    if (path.empty())
        ADD_FAILURE() << "installing " << binary << " as twain_32\\" << relative << " failed";
    return path.empty() ? TwainSourceDir() + "\\" + relative : path;
}

std::string PutNonSource(const std::string &relative) {
    const std::string path = MakeWindowsPath("twain_32\\" + relative);
    std::ofstream(path) << "this is no data source\n";
    return path;
}

void SetDefaultSourceEntry(const std::string &path) {
    WriteProfileStringA(kProfileSection, kProfileKey, path.c_str());
}

void ClearDefaultSourceEntry() {
    WriteProfileStringA(kProfileSection, kProfileKey, nullptr);
}

std::string DefaultSourceEntry() {
    char value[MAX_PATH];
    GetProfileStringA(kProfileSection, kProfileKey, "<missing>", value, sizeof value);
    return value;
}

std::string NameOf(const TW_IDENTITY &identity) {
    return std::string(identity.ProductName, strnlen(identity.ProductName, sizeof identity.ProductName));
}

TW_IDENTITY IdentityNamed(const char *productName) {
    TW_IDENTITY identity = {};
    std::strncpy(identity.ProductName, productName, sizeof identity.ProductName - 1);
    return identity;
}

TW_FIX32 Fix32(TW_INT16 whole) {
    return TW_FIX32{whole, 0};
}

TW_UINT32 Fix32Bits(TW_INT16 whole) {
    const TW_FIX32 value = Fix32(whole);
    TW_UINT32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

::testing::AssertionResult RcIs(const char *, const char *actualText, unsigned expected, unsigned actual) {
    if (expected == actual)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actualText << " returned " << TwrcName(actual) << " (" << actual
                                         << "), expected " << TwrcName(expected);
}

::testing::AssertionResult CcIs(const char *, const char *actualText, unsigned expected, unsigned actual) {
    if (expected == actual)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actualText << " is " << TwccName(actual) << " (" << actual << "), expected "
                                         << TwccName(expected);
}

bool FakeSource::Attach(const std::string &path) {
    Detach();
    module_ = LoadLibraryA(path.c_str());
    return module_ && GetProcAddress(module_, "FakeDsReset");
}

void FakeSource::Detach() {
    if (module_)
        FreeLibrary(module_);
    module_ = nullptr;
}

FARPROC FakeSource::Proc(const char *name) const {
    FARPROC proc = module_ ? GetProcAddress(module_, name) : nullptr;
    if (!proc) {
        std::fprintf(stderr, "test support: fakeds control %s is missing\n", name);
        std::abort();
    }
    return proc;
}

std::vector<FakeDsCall> FakeSource::Calls() const {
    std::vector<FakeDsCall> calls(Get<FakeDsCallCountProc>("FakeDsCallCount")());
    for (size_t i = 0; i < calls.size(); ++i)
        Get<FakeDsGetCallProc>("FakeDsGetCall")(static_cast<int>(i), &calls[i]);
    return calls;
}

void DsmTest::SetUp() {
    InstallDsm(Dsm::Present);
    CleanTwainDir();
    ClearDefaultSourceEntry();
    ASSERT_TRUE(dsm.Open());
    dsm.Reset();
    entry = dsm.Entry();
    app = IdentityNamed(kAppName);
    window = CreateWindowA("STATIC", kAppName, WS_OVERLAPPED, 0, 0, 100, 100, nullptr, nullptr,
                           GetModuleHandleA(nullptr), nullptr);
    ASSERT_NE(nullptr, window);
}

void DsmTest::TearDown() {
    dsm.Reset();
    dsm.Close();
    CleanTwainDir();
    ClearDefaultSourceEntry();
    if (window)
        DestroyWindow(window);
}

TW_UINT16 DsmTest::Entry(pTW_IDENTITY dest, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, TW_MEMREF data) {
    return entry(&app, dest, dg, dat, msg, data);
}

TW_UINT16 DsmTest::OpenDsm() {
    return Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_OPENDSM, &window);
}

TW_UINT16 DsmTest::CloseDsm() {
    return Entry(nullptr, DG_CONTROL, DAT_PARENT, MSG_CLOSEDSM, &window);
}

TW_UINT16 DsmTest::Status(pTW_IDENTITY dest) {
    TW_STATUS status = {kStatusFailed, 0};
    if (Entry(dest, DG_CONTROL, DAT_STATUS, MSG_GET, &status) != TWRC_SUCCESS)
        return kStatusFailed;
    return status.ConditionCode;
}

TW_UINT16 DsmTest::Identity(TW_UINT16 msg, TW_IDENTITY *identity) {
    return Entry(nullptr, DG_CONTROL, DAT_IDENTITY, msg, identity);
}

std::vector<std::string> DsmTest::ListNames() {
    std::vector<std::string> names;
    TW_IDENTITY identity = {};
    for (TW_UINT16 rc = Identity(MSG_GETFIRST, &identity); rc == TWRC_SUCCESS; rc = Identity(MSG_GETNEXT, &identity))
        names.push_back(NameOf(identity));
    return names;
}

TW_IDENTITY DsmTest::OpenSource(const char *productName) {
    TW_IDENTITY identity = IdentityNamed(productName);
    EXPECT_RC(TWRC_SUCCESS, Identity(MSG_OPENDS, &identity))
        << "opening '" << productName << "', condition " << TwccName(Status());
    return identity;
}

std::vector<TdsmCall> DsmTest::CallsOf(TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) const {
    std::vector<TdsmCall> out;
    for (const TdsmCall &call : dsm.Calls())
        if (call.dg == dg && call.dat == dat && call.msg == msg)
            out.push_back(call);
    return out;
}

} // namespace smtest
