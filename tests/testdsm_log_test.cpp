// The stand-in source manager's call log: order, origins and destinations, data, decoded capability containers, bounds.
#include <gtest/gtest.h>

#include <cstring>

#include "DsmHarness.h"

using namespace smtest;

namespace {

constexpr TW_UINT16 kFirstUnknownMessage = 0x7000;

class TdsmLogTest : public DsmTest {
protected:
    // Opens the manager and fakeds.ds as "Alpha", attached for its controls.
    void OpenAlpha() {
        path = PutSource("Alpha.ds");
        ASSERT_RC(TWRC_SUCCESS, OpenDsm());
        source = OpenSource("Alpha");
        ASSERT_TRUE(fake.Attach(path));
    }
    // MSG_GET of a capability; the logged call, and the container freed.
    TdsmCall GetCapability(TW_UINT16 cap) {
        TW_CAPABILITY capability = {cap, TWON_DONTCARE16, nullptr};
        EXPECT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &capability));
        if (capability.hContainer)
            GlobalFree(capability.hContainer);
        const std::vector<TdsmCall> calls = dsm.Calls();
        return calls.back();
    }
    // MSG_SET with a container built by `fill` in memory of `size` bytes; the logged call.
    template <typename Fill> TdsmCall SetCapability(TW_UINT16 cap, TW_UINT16 conType, size_t size, Fill fill) {
        HGLOBAL handle = GlobalAlloc(GHND, size);
        fill(GlobalLock(handle));
        GlobalUnlock(handle);
        TW_CAPABILITY capability = {cap, conType, handle};
        EXPECT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_SET, &capability));
        GlobalFree(handle);
        return dsm.Calls().back();
    }

    std::string path;
    TW_IDENTITY source = {};
    FakeSource fake;
};

TEST_F(TdsmLogTest, EveryCallIsLoggedInOrderWithOriginDestinationCodesAndData) {
    OpenAlpha();
    TW_IDENTITY stranger = IdentityNamed("Stranger");
    // An Id the manager never gave out: no such source (an Id of 0 would ask the manager itself).
    stranger.Id = 99;
    TW_STATUS status = {};
    Entry(&stranger, DG_CONTROL, DAT_STATUS, MSG_GET, &status);
    Identity(MSG_CLOSEDS, &source);
    const std::vector<TdsmCall> calls = dsm.Calls();
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ("DG_CONTROL/DAT_PARENT/MSG_OPENDSM -> TWRC_SUCCESS", Describe(calls[0]));
    EXPECT_EQ("DG_CONTROL/DAT_IDENTITY/MSG_OPENDS -> TWRC_SUCCESS", Describe(calls[1]));
    EXPECT_EQ("DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_FAILURE", Describe(calls[2]));
    EXPECT_EQ("DG_CONTROL/DAT_IDENTITY/MSG_CLOSEDS -> TWRC_SUCCESS", Describe(calls[3]));
    EXPECT_EQ(0u, calls[0].originId) << "the Id comes with the answer";
    EXPECT_EQ(app.Id, calls[1].originId);
    EXPECT_EQ(TWCC_BADDEST, calls[2].cc);
    EXPECT_EQ(1, calls[2].hasDest);
    EXPECT_STREQ("Stranger", calls[2].destName);
    TW_IDENTITY sent, returned;
    std::memcpy(&sent, calls[1].dataIn, sizeof sent);
    std::memcpy(&returned, calls[1].dataOut, sizeof returned);
    EXPECT_EQ(sizeof(TW_IDENTITY), calls[1].dataSize);
    EXPECT_EQ(0u, sent.Id);
    EXPECT_STREQ("Alpha", sent.ProductName);
    EXPECT_EQ(source.Id, returned.Id);
    EXPECT_STREQ("smkernal tests", returned.Manufacturer);
}

TEST_F(TdsmLogTest, NullDataIsLoggedAsNoData) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    Identity(MSG_GETFIRST, nullptr);
    const TdsmCall call = dsm.Calls().back();
    EXPECT_EQ(0, call.hasData);
    EXPECT_EQ(0u, call.dataSize);
    EXPECT_EQ(TWCC_BADVALUE, call.cc);
}

TEST_F(TdsmLogTest, OneValueAsReturnedSignExtended) {
    OpenAlpha();
    const TdsmCall call = GetCapability(CAP_XFERCOUNT);
    EXPECT_EQ(1, call.capIn.valid);
    EXPECT_EQ(CAP_XFERCOUNT, call.capIn.cap);
    EXPECT_EQ(0, call.capIn.hasContainer) << "MSG_GET carries no container in";
    ASSERT_EQ(1, call.capOut.hasContainer);
    EXPECT_EQ(TWON_ONEVALUE, call.capOut.conType);
    EXPECT_EQ(TWTY_INT16, call.capOut.itemType);
    EXPECT_EQ(1u, call.capOut.numItems);
    ASSERT_EQ(1u, call.capOut.storedItems);
    EXPECT_EQ(FAKEDS_XFERCOUNT, static_cast<TW_INT32>(call.capOut.items[0]));
    EXPECT_EQ(0, call.capOut.truncated);
}

TEST_F(TdsmLogTest, EnumerationAsReturned) {
    OpenAlpha();
    const TdsmCall call = GetCapability(ICAP_PIXELTYPE);
    ASSERT_EQ(1, call.capOut.hasContainer);
    EXPECT_EQ(TWON_ENUMERATION, call.capOut.conType);
    EXPECT_EQ(TWTY_UINT16, call.capOut.itemType);
    EXPECT_EQ(3u, call.capOut.numItems);
    EXPECT_EQ(static_cast<TW_UINT32>(FAKEDS_PIXELTYPE_CURRENT), call.capOut.currentIndex);
    EXPECT_EQ(static_cast<TW_UINT32>(FAKEDS_PIXELTYPE_DEFAULT), call.capOut.defaultIndex);
    ASSERT_EQ(3u, call.capOut.storedItems);
    EXPECT_EQ(static_cast<TW_UINT32>(TWPT_BW), call.capOut.items[0]);
    EXPECT_EQ(static_cast<TW_UINT32>(TWPT_GRAY), call.capOut.items[1]);
    EXPECT_EQ(static_cast<TW_UINT32>(TWPT_RGB), call.capOut.items[2]);
    EXPECT_EQ(3 * sizeof(TW_UINT16), call.capOut.bytesSize);
}

TEST_F(TdsmLogTest, RangeAsReturned) {
    OpenAlpha();
    const TdsmCall call = GetCapability(ICAP_XRESOLUTION);
    ASSERT_EQ(1, call.capOut.hasContainer);
    EXPECT_EQ(TWON_RANGE, call.capOut.conType);
    EXPECT_EQ(TWTY_FIX32, call.capOut.itemType);
    EXPECT_EQ(Fix32Bits(FAKEDS_XRES_MIN), call.capOut.minValue);
    EXPECT_EQ(Fix32Bits(FAKEDS_XRES_MAX), call.capOut.maxValue);
    EXPECT_EQ(Fix32Bits(FAKEDS_XRES_STEP), call.capOut.stepSize);
    EXPECT_EQ(Fix32Bits(FAKEDS_XRES_DEFAULT), call.capOut.defaultValue);
    EXPECT_EQ(Fix32Bits(FAKEDS_XRES_CURRENT), call.capOut.currentValue);
    EXPECT_EQ(0u, call.capOut.storedItems);
}

TEST_F(TdsmLogTest, ArrayAsReturned) {
    OpenAlpha();
    const TdsmCall call = GetCapability(CAP_SUPPORTEDCAPS);
    ASSERT_EQ(1, call.capOut.hasContainer);
    EXPECT_EQ(TWON_ARRAY, call.capOut.conType);
    EXPECT_EQ(TWTY_UINT16, call.capOut.itemType);
    ASSERT_EQ(5u, call.capOut.numItems);
    ASSERT_EQ(5u, call.capOut.storedItems);
    EXPECT_EQ(static_cast<TW_UINT32>(CAP_XFERCOUNT), call.capOut.items[0]);
    EXPECT_EQ(static_cast<TW_UINT32>(CAP_SUPPORTEDCAPS), call.capOut.items[4]);
}

TEST_F(TdsmLogTest, OneValueAsSentAndTheSourceGetsIt) {
    OpenAlpha();
    const TdsmCall call = SetCapability(ICAP_BRIGHTNESS, TWON_ONEVALUE, sizeof(TW_ONEVALUE), [](void *memory) {
        TW_ONEVALUE *value = static_cast<TW_ONEVALUE *>(memory);
        value->ItemType = TWTY_FIX32;
        value->Item = Fix32Bits(-40);
    });
    ASSERT_EQ(1, call.capIn.hasContainer);
    EXPECT_EQ(ICAP_BRIGHTNESS, call.capIn.cap);
    EXPECT_EQ(TWTY_FIX32, call.capIn.itemType);
    EXPECT_EQ(Fix32Bits(-40), call.capIn.items[0]);
    const TdsmCall got = GetCapability(ICAP_BRIGHTNESS);
    EXPECT_EQ(Fix32Bits(-40), got.capOut.items[0]) << "the set reached the source";
}

TEST_F(TdsmLogTest, EnumerationAndArrayAsSent) {
    OpenAlpha();
    const TW_UINT16 pixelTypes[] = {TWPT_GRAY, TWPT_RGB};
    const TdsmCall enumeration = SetCapability(
        ICAP_PIXELTYPE, TWON_ENUMERATION, offsetof(TW_ENUMERATION, ItemList) + sizeof pixelTypes, [&](void *memory) {
            TW_ENUMERATION *list = static_cast<TW_ENUMERATION *>(memory);
            list->ItemType = TWTY_UINT16;
            list->NumItems = 2;
            list->CurrentIndex = 1;
            list->DefaultIndex = 0;
            std::memcpy(list->ItemList, pixelTypes, sizeof pixelTypes);
        });
    ASSERT_EQ(1, enumeration.capIn.hasContainer);
    EXPECT_EQ(2u, enumeration.capIn.numItems);
    EXPECT_EQ(1u, enumeration.capIn.currentIndex);
    EXPECT_EQ(static_cast<TW_UINT32>(TWPT_RGB), enumeration.capIn.items[1]);
    const TW_INT8 signedBytes[] = {-1, 5, -128};
    const TdsmCall array =
        SetCapability(CAP_XFERCOUNT, TWON_ARRAY, offsetof(TW_ARRAY, ItemList) + sizeof signedBytes, [&](void *memory) {
            TW_ARRAY *list = static_cast<TW_ARRAY *>(memory);
            list->ItemType = TWTY_INT8;
            list->NumItems = 3;
            std::memcpy(list->ItemList, signedBytes, sizeof signedBytes);
        });
    ASSERT_EQ(3u, array.capIn.storedItems);
    EXPECT_EQ(-1, static_cast<TW_INT32>(array.capIn.items[0]));
    EXPECT_EQ(5, static_cast<TW_INT32>(array.capIn.items[1]));
    EXPECT_EQ(-128, static_cast<TW_INT32>(array.capIn.items[2]));
    EXPECT_EQ(1, array.capOut.hasContainer) << "as the call left it: the application's container, unchanged";
    EXPECT_EQ(3u, array.capOut.numItems);
}

TEST_F(TdsmLogTest, FramesAndStringsAreKeptAsBytes) {
    OpenAlpha();
    const TW_FRAME frame = {Fix32(1), Fix32(2), Fix32(8), Fix32(11)};
    const TdsmCall one =
        SetCapability(ICAP_XRESOLUTION, TWON_ONEVALUE, offsetof(TW_ONEVALUE, Item) + sizeof frame, [&](void *memory) {
            TW_ONEVALUE *value = static_cast<TW_ONEVALUE *>(memory);
            value->ItemType = TWTY_FRAME;
            std::memcpy(&value->Item, &frame, sizeof frame);
        });
    ASSERT_EQ(1, one.capIn.hasContainer);
    EXPECT_EQ(sizeof(TW_FRAME), one.capIn.itemSize);
    ASSERT_EQ(sizeof(TW_FRAME), one.capIn.bytesSize);
    TW_FRAME logged;
    std::memcpy(&logged, one.capIn.bytes, sizeof logged);
    EXPECT_EQ(11, logged.Bottom.Whole);
    EXPECT_EQ(8, logged.Right.Whole);

    const TdsmCall strings = SetCapability(
        ICAP_PIXELTYPE, TWON_ARRAY, offsetof(TW_ARRAY, ItemList) + 2 * sizeof(TW_STR32), [](void *memory) {
            TW_ARRAY *list = static_cast<TW_ARRAY *>(memory);
            list->ItemType = TWTY_STR32;
            list->NumItems = 2;
            std::strcpy(reinterpret_cast<char *>(list->ItemList), "first");
            std::strcpy(reinterpret_cast<char *>(list->ItemList) + sizeof(TW_STR32), "second");
        });
    ASSERT_EQ(2 * sizeof(TW_STR32), strings.capIn.bytesSize);
    EXPECT_STREQ("second", reinterpret_cast<const char *>(strings.capIn.bytes) + sizeof(TW_STR32));
}

TEST_F(TdsmLogTest, AContainerShorterThanItClaimsIsDecodedAsFarAsItGoes) {
    OpenAlpha();
    fake.SetContainers(FAKEDS_CONTAINERS_SHORT);
    const TdsmCall call = GetCapability(ICAP_PIXELTYPE);
    ASSERT_EQ(1, call.capOut.hasContainer);
    EXPECT_EQ(1, call.capOut.truncated);
    EXPECT_EQ(static_cast<TW_UINT32>(FAKEDS_SHORT_CLAIM), call.capOut.numItems);
    EXPECT_GE(call.capOut.storedItems, 3u);
    EXPECT_LT(call.capOut.storedItems, static_cast<TW_UINT32>(FAKEDS_SHORT_CLAIM));
    EXPECT_LE(offsetof(TW_ENUMERATION, ItemList) + call.capOut.storedItems * sizeof(TW_UINT16), call.capOut.handleSize);
}

TEST_F(TdsmLogTest, AHandleThatIsNoMemoryIsNotDecoded) {
    OpenAlpha();
    fake.SetContainers(FAKEDS_CONTAINERS_BADHANDLE);
    TW_CAPABILITY capability = {CAP_XFERCOUNT, TWON_DONTCARE16, nullptr};
    EXPECT_RC(TWRC_SUCCESS, Entry(&source, DG_CONTROL, DAT_CAPABILITY, MSG_GET, &capability));
    const TdsmCall call = dsm.Calls().back();
    EXPECT_EQ(1, call.capOut.valid);
    EXPECT_EQ(TWON_ONEVALUE, call.capOut.conType);
    EXPECT_EQ(0, call.capOut.hasContainer);
}

TEST_F(TdsmLogTest, LongRunsKeepTheNewestCallsWithinTheLimit) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    auto setLimit = dsm.Get<TdsmSetLogLimitProc>("TdsmSetLogLimit");
    auto dropped = dsm.Get<TdsmDroppedCallsProc>("TdsmDroppedCalls");
    setLimit(10);
    EXPECT_EQ(0, dropped());
    TW_IDENTITY identity = {};
    for (TW_UINT16 i = 0; i < 25; ++i)
        Identity(kFirstUnknownMessage + i, &identity);
    const std::vector<TdsmCall> calls = dsm.Calls();
    ASSERT_EQ(10u, calls.size());
    EXPECT_EQ(16, dropped()) << "MSG_OPENDSM and the first 15 went";
    EXPECT_EQ(kFirstUnknownMessage + 15, calls.front().msg);
    EXPECT_EQ(kFirstUnknownMessage + 24, calls.back().msg);
}

TEST_F(TdsmLogTest, TheDefaultLimitHoldsAndResetRestoresIt) {
    ASSERT_RC(TWRC_SUCCESS, OpenDsm());
    TW_EVENT event = {};
    const int extra = 100;
    for (int i = 0; i < TDSM_DEFAULT_LOG_LIMIT + extra; ++i)
        Entry(nullptr, DG_CONTROL, DAT_STATUS, MSG_GET, &event);
    EXPECT_EQ(TDSM_DEFAULT_LOG_LIMIT, dsm.Get<TdsmCallCountProc>("TdsmCallCount")());
    EXPECT_EQ(extra + 1, dsm.Get<TdsmDroppedCallsProc>("TdsmDroppedCalls")());
    dsm.Reset();
    EXPECT_EQ(0, dsm.Get<TdsmCallCountProc>("TdsmCallCount")());
    EXPECT_EQ(0, dsm.Get<TdsmDroppedCallsProc>("TdsmDroppedCalls")());
}

} // namespace
