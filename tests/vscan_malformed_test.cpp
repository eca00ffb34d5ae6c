// The virtual scanner's spoiled answers and substituted set types, by control and by vscan.ini.
#include <gtest/gtest.h>

#include <fstream>

#include "VscanTest.h"

using namespace smtest;

namespace {

class VscanMalformedTest : public VscanTest {
protected:
    // A get-like triplet, the answer left as the source made it (the caller frees hContainer).
    TW_UINT16 RawGet(TW_UINT16 cap, TW_UINT16 msg, TW_CAPABILITY &out) {
        out = TW_CAPABILITY{cap, TWON_DONTCARE16, nullptr};
        return ds.Call(DG_CONTROL, DAT_CAPABILITY, msg, &out);
    }
    // vscan.ini of this one line, read through a reset.
    void ReadLine(const std::string &line) {
        std::ofstream(IniPath()) << line << "\n";
        ds.reset();
        ASSERT_EQ(1, ds.Info().settingsKeys) << line;
    }
    // Switches by the control, or by a vscan.ini line (then the source is opened again).
    void Switch(bool byFile, const std::string &line, TW_UINT16 cap, TW_UINT16 msg, int kind) {
        if (byFile) {
            ASSERT_NO_FATAL_FAILURE(ReadLine(line));
            ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
        } else {
            ASSERT_EQ(1, ds.setMalformed(cap, msg, kind));
        }
    }
};

std::string WayName(const ::testing::TestParamInfo<bool> &info) {
    return info.param ? "ByFile" : "ByControl";
}

class VscanMalformedBothWays : public VscanMalformedTest, public ::testing::WithParamInterface<bool> {};

TEST_P(VscanMalformedBothWays, NullHandleStillSucceeds) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = ICAP_UNITS, MSG_GETCURRENT, VSCAN_MALFORMED_NULLHANDLE", ICAP_UNITS, MSG_GETCURRENT,
           VSCAN_MALFORMED_NULLHANDLE);
    TW_CAPABILITY cap;
    EXPECT_TWRC(TWRC_SUCCESS, RawGet(ICAP_UNITS, MSG_GETCURRENT, cap));
    EXPECT_EQ(TWON_ONEVALUE, cap.ConType);
    EXPECT_EQ(nullptr, cap.hContainer);
    EXPECT_TWRC(TWRC_SUCCESS, RawGet(ICAP_UNITS, MSG_GET, cap)) << "other messages keep their answer";
    EXPECT_NE(nullptr, cap.hContainer);
    GlobalFree(cap.hContainer);
}

TEST_P(VscanMalformedBothWays, UnknownItemType) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = CAP_FEEDERENABLED, MSG_GET, 2", CAP_FEEDERENABLED, MSG_GET,
           VSCAN_MALFORMED_ITEMTYPE);
    TW_CAPABILITY cap;
    ASSERT_TWRC(TWRC_SUCCESS, RawGet(CAP_FEEDERENABLED, MSG_GET, cap));
    ASSERT_NE(nullptr, cap.hContainer);
    EXPECT_EQ(TWON_ONEVALUE, cap.ConType);
    auto *one = static_cast<TW_ONEVALUE *>(GlobalLock(cap.hContainer));
    EXPECT_EQ(VSCAN_BAD_ITEMTYPE, one->ItemType);
    EXPECT_EQ(0u, one->Item);
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
}

TEST_P(VscanMalformedBothWays, EnumerationClaimsMoreItemsThanItsBlock) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = ICAP_PIXELTYPE, MSG_GET, VSCAN_MALFORMED_NUMITEMS", ICAP_PIXELTYPE, MSG_GET,
           VSCAN_MALFORMED_NUMITEMS);
    TW_CAPABILITY cap;
    ASSERT_TWRC(TWRC_SUCCESS, RawGet(ICAP_PIXELTYPE, MSG_GET, cap));
    ASSERT_EQ(TWON_ENUMERATION, cap.ConType);
    auto *en = static_cast<TW_ENUMERATION *>(GlobalLock(cap.hContainer));
    EXPECT_EQ(0x10004u, en->NumItems);
    EXPECT_EQ(2u, en->CurrentIndex) << "RGB, the real current item";
    EXPECT_LT(GlobalSize(cap.hContainer), offsetof(TW_ENUMERATION, ItemList) + 2 * en->NumItems);
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
}

TEST_P(VscanMalformedBothWays, ArrayClaimsMoreItemsThanItsBlock) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = ICAP_IMAGEDATASET, MSG_GET, 3", ICAP_IMAGEDATASET, MSG_GET,
           VSCAN_MALFORMED_NUMITEMS);
    TW_CAPABILITY cap;
    ASSERT_TWRC(TWRC_SUCCESS, RawGet(ICAP_IMAGEDATASET, MSG_GET, cap));
    ASSERT_EQ(TWON_ARRAY, cap.ConType);
    auto *array = static_cast<TW_ARRAY *>(GlobalLock(cap.hContainer));
    EXPECT_EQ(0x10003u, array->NumItems) << "three sheets in the feeder";
    EXPECT_LT(GlobalSize(cap.hContainer), offsetof(TW_ARRAY, ItemList) + 4 * array->NumItems);
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
}

TEST_P(VscanMalformedBothWays, EnumerationIndexPastItsItems) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = ICAP_XFERMECH, MSG_RESET, VSCAN_MALFORMED_CURRENTINDEX", ICAP_XFERMECH, MSG_RESET,
           VSCAN_MALFORMED_CURRENTINDEX);
    TW_CAPABILITY cap{ICAP_XFERMECH, TWON_DONTCARE16, nullptr};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_CAPABILITY, MSG_RESET, &cap));
    ASSERT_EQ(TWON_ENUMERATION, cap.ConType);
    auto *en = static_cast<TW_ENUMERATION *>(GlobalLock(cap.hContainer));
    EXPECT_EQ(3u, en->NumItems);
    EXPECT_EQ(0x10003u, en->CurrentIndex);
    EXPECT_EQ(0x10003u, en->DefaultIndex);
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
}

TEST_P(VscanMalformedBothWays, BlockCutToItsItemType) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Switch(GetParam(), "Malformed = ICAP_XSCALING, MSG_GET, VSCAN_MALFORMED_SHORTBLOCK", ICAP_XSCALING, MSG_GET,
           VSCAN_MALFORMED_SHORTBLOCK);
    TW_CAPABILITY cap;
    ASSERT_TWRC(TWRC_SUCCESS, RawGet(ICAP_XSCALING, MSG_GET, cap));
    ASSERT_EQ(TWON_RANGE, cap.ConType);
    EXPECT_EQ(2u, GlobalSize(cap.hContainer));
    EXPECT_EQ(TWTY_FIX32, *static_cast<TW_UINT16 *>(GlobalLock(cap.hContainer)));
    GlobalUnlock(cap.hContainer);
    GlobalFree(cap.hContainer);
}

INSTANTIATE_TEST_SUITE_P(ByControlAndByFile, VscanMalformedBothWays, ::testing::Bool(), WayName);

TEST_F(VscanMalformedTest, NoneRepairsAndResetForgets) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_EQ(1, ds.setMalformed(ICAP_UNITS, MSG_GET, VSCAN_MALFORMED_NULLHANDLE));
    ASSERT_EQ(1, ds.setMalformed(ICAP_UNITS, MSG_GET, VSCAN_MALFORMED_NONE));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_UNITS, MSG_GET, c));
    EXPECT_EQ(6u, c.numItems);
    ASSERT_EQ(1, ds.setMalformed(ICAP_UNITS, MSG_GET, VSCAN_MALFORMED_NULLHANDLE));
    ds.reset();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_UNITS, MSG_GET, c));
    EXPECT_EQ(6u, c.numItems);
}

TEST_F(VscanMalformedTest, BadArgumentsAreRefused) {
    EXPECT_EQ(0, ds.setMalformed(0x7777, MSG_GET, VSCAN_MALFORMED_NULLHANDLE)) << "unknown capability";
    EXPECT_EQ(0, ds.setMalformed(ICAP_UNITS, MSG_SET, VSCAN_MALFORMED_NULLHANDLE)) << "not a get-like message";
    EXPECT_EQ(0, ds.setMalformed(ICAP_UNITS, MSG_GET, VSCAN_MALFORMED_COUNT)) << "unknown kind";
    EXPECT_EQ(0, ds.setMalformed(ICAP_UNITS, MSG_GET, -1));
    EXPECT_EQ(0, ds.setSetType(0x7777, TWTY_UINT16));
    EXPECT_EQ(0, ds.setSetType(CAP_FEEDERENABLED, TWTY_STR32)) << "only number types";
    std::ofstream(IniPath()) << "Malformed = ICAP_UNITS, MSG_GET, 9\n";
    EXPECT_EQ(-1, ds.loadSettings(IniPath().c_str()));
}

class VscanSetTypeBothWays : public VscanMalformedTest, public ::testing::WithParamInterface<bool> {};

TEST_P(VscanSetTypeBothWays, SetTakesTheSubstitutedTypeOnly) {
    if (GetParam()) {
        ASSERT_NO_FATAL_FAILURE(ReadLine("SetType = CAP_FEEDERENABLED, TWTY_UINT16"));
    } else {
        ASSERT_EQ(1, ds.setSetType(CAP_FEEDERENABLED, TWTY_UINT16));
    }
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 1));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(CAP_FEEDERENABLED, TWTY_INT16, 1));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERENABLED, MSG_GETCURRENT, c));
    EXPECT_EQ(0, c.Value()) << "the refused sets changed nothing";
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_UINT16, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERENABLED, MSG_GETCURRENT, c));
    EXPECT_EQ(TWTY_BOOL, c.itemType) << "answers keep their own type";
    EXPECT_EQ(1, c.Value());
    ASSERT_EQ(1, ds.setSetType(CAP_FEEDERENABLED, TWON_DONTCARE16));
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 0));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(CAP_FEEDERENABLED, TWTY_UINT16, 1));
}

INSTANTIATE_TEST_SUITE_P(ByControlAndByFile, VscanSetTypeBothWays, ::testing::Bool(), WayName);

class VscanValuesBothWays : public VscanMalformedTest, public ::testing::WithParamInterface<bool> {};

TEST_P(VscanValuesBothWays, ListedAndAcceptedWithoutChecks) {
    if (GetParam()) {
        ASSERT_NO_FATAL_FAILURE(ReadLine("Values = ICAP_SUPPORTEDSIZES, 0, 1, 7, 8"));
    } else {
        const double sizes[] = {0, 1, 7, 8};
        ASSERT_EQ(1, ds.setValues(ICAP_SUPPORTEDSIZES, 4, sizes));
    }
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{0, 1, 7, 8}), c.items);
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_SUPPORTEDSIZES, TWTY_UINT16, 8));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GETCURRENT, c));
    EXPECT_EQ(8, c.Value());
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_SUPPORTEDSIZES, TWTY_UINT16, 3)) << "no longer listed";
    ASSERT_EQ(1, ds.setValues(ICAP_SUPPORTEDSIZES, 0, nullptr));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GET, c));
    EXPECT_EQ(7u, c.numItems) << "its own list again";
    const double many[VSCAN_MAX_VALUES + 1] = {};
    EXPECT_EQ(0, ds.setValues(ICAP_SUPPORTEDSIZES, VSCAN_MAX_VALUES + 1, many));
    EXPECT_EQ(0, ds.setValues(0x7777, 1, many));
}

INSTANTIATE_TEST_SUITE_P(ByControlAndByFile, VscanValuesBothWays, ::testing::Bool(), WayName);

} // namespace
