// The session exports end to end against Wine's own source manager, with the virtual scanner as its sane.ds.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "TestSupport.h"
#include "VscanSupport.h"
#include "smkernal.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

class SessionWineDsmTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string source;
        StartUnderWineManager(viewer, library, source);
        ASSERT_FALSE(HasFatalFailure());
        getAllDS = library.Get<decltype(getAllDS)>("smGetAllDS");
        openDS = library.Get<decltype(openDS)>("smOpenDS");
        enableDS = library.Get<decltype(enableDS)>("smEnableDS");
        disableDS = library.Get<decltype(disableDS)>("smDisableDS");
        closeDS = library.Get<decltype(closeDS)>("smCloseDS");
        window = CreateWindowA("STATIC", "application", WS_OVERLAPPEDWINDOW, 0, 0, 100, 100, nullptr, nullptr, nullptr,
                               nullptr);
        list = BinDir() + "\\winedsm-sources.ini";
        DeleteFileA(list.c_str());
    }
    void TearDown() override {
        library.Free();
        ReleaseSourceKeptByWine();
        viewer.Stop();
        if (window)
            DestroyWindow(window);
        WritePrivateProfileStringA(nullptr, nullptr, nullptr, list.c_str());
        DeleteFileA(list.c_str());
    }
    std::string Key(const char *key) {
        char value[64];
        GetPrivateProfileStringA("DS", key, "<missing>", value, sizeof value, list.c_str());
        return value;
    }

    TraceViewer viewer;
    ScanLibrary library;
    HWND window = nullptr;
    std::string list;
    LONG(WINAPI *getAllDS)(const char *) = nullptr;
    LONG(WINAPI *openDS)(HWND, const char *) = nullptr;
    LONG(WINAPI *enableDS)(BOOL, BOOL) = nullptr;
    LONG(WINAPI *disableDS)() = nullptr;
    LONG(WINAPI *closeDS)() = nullptr;
};

TEST_F(SessionWineDsmTest, ListOpenEnableDisableCloseTwiceInOneProcess) {
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        viewer.Clear();
        ASSERT_EQ(SM_OK, getAllDS(list.c_str()));
        // Wine lists its own camera source beside sane.ds when it was built with it.
        const int count = std::atoi(Key("count").c_str());
        Strings names;
        for (int i = 1; i <= count; ++i)
            names.push_back(Key(("name" + std::to_string(i)).c_str()));
        EXPECT_EQ("Virtual Scanner", Key("name1")) << "sane.ds comes first";
        for (const std::string &name : names)
            EXPECT_TRUE(name == "Virtual Scanner" || name == "GPhoto2 Camera") << name;
        EXPECT_GE(count, 1);
        EXPECT_LE(count, 2);
        EXPECT_EQ("<missing>", Key(("name" + std::to_string(count + 1)).c_str()));
        EXPECT_EQ("Virtual Scanner", Key("name0")) << "the default source";
        EXPECT_EQ(SM_OK, openDS(window, "Wine session test"));
        EXPECT_EQ(SM_OK, enableDS(FALSE, FALSE));
        EXPECT_EQ(SM_OK, disableDS());
        EXPECT_EQ(SM_OK, closeDS());
        EXPECT_EQ(Strings{}, viewer.Texts("Warning")) << "no step may fail or find the wrong state";
        EXPECT_EQ(SM_ERR_SEQUENCE, closeDS()) << "the session is back in state 2";
    }
}

TEST_F(SessionWineDsmTest, ModalEnableDisablesTheParentUntilDisable) {
    ASSERT_EQ(SM_OK, openDS(window, "Wine session test"));
    EXPECT_EQ(SM_OK, enableDS(FALSE, TRUE));
    EXPECT_FALSE(IsWindowEnabled(window));
    EXPECT_EQ(SM_OK, disableDS());
    EXPECT_TRUE(IsWindowEnabled(window));
    EXPECT_EQ(SM_OK, closeDS());
}

} // namespace
