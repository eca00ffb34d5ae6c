// Virtual scanner: identity, states and sequence errors, and every capability with every message and container.
#include <cmath>
#include <cstring>
#include <vector>

#include "VscanTest.h"

namespace smtest {
namespace {

// What each capability answers by default, and another value it takes.
struct CapCase {
    TW_UINT16 cap;
    const char *name;
    TW_UINT16 itemType;
    TW_UINT16 getContainer;
    double def;
    bool readOnly;
    double other;
};

const CapCase kCaps[] = {
    {CAP_XFERCOUNT, "CAP_XFERCOUNT", TWTY_INT16, TWON_ONEVALUE, -1, false, 2},
    {CAP_UICONTROLLABLE, "CAP_UICONTROLLABLE", TWTY_BOOL, TWON_ONEVALUE, 1, true, 0},
    {CAP_FEEDERENABLED, "CAP_FEEDERENABLED", TWTY_BOOL, TWON_ONEVALUE, 0, false, 1},
    {CAP_FEEDERLOADED, "CAP_FEEDERLOADED", TWTY_BOOL, TWON_ONEVALUE, 1, true, 0},
    {CAP_AUTOFEED, "CAP_AUTOFEED", TWTY_BOOL, TWON_ONEVALUE, 1, false, 0},
    {CAP_INDICATORS, "CAP_INDICATORS", TWTY_BOOL, TWON_ONEVALUE, 1, false, 0},
    {CAP_THUMBNAILSENABLED, "CAP_THUMBNAILSENABLED", TWTY_BOOL, TWON_ONEVALUE, 0, false, 1},
    {ICAP_UNITS, "ICAP_UNITS", TWTY_UINT16, TWON_ENUMERATION, TWUN_INCHES, false, TWUN_CENTIMETERS},
    {ICAP_PIXELTYPE, "ICAP_PIXELTYPE", TWTY_UINT16, TWON_ENUMERATION, TWPT_RGB, false, TWPT_GRAY},
    {ICAP_BITDEPTH, "ICAP_BITDEPTH", TWTY_UINT16, TWON_ENUMERATION, 24, false, 48},
    {ICAP_XFERMECH, "ICAP_XFERMECH", TWTY_UINT16, TWON_ENUMERATION, TWSX_NATIVE, false, TWSX_MEMORY},
    {ICAP_PLANARCHUNKY, "ICAP_PLANARCHUNKY", TWTY_UINT16, TWON_ENUMERATION, TWPC_CHUNKY, false, TWPC_PLANAR},
    {ICAP_XRESOLUTION, "ICAP_XRESOLUTION", TWTY_FIX32, TWON_ENUMERATION, 100, false, 200},
    {ICAP_YRESOLUTION, "ICAP_YRESOLUTION", TWTY_FIX32, TWON_ENUMERATION, 100, false, 300},
    {ICAP_XSCALING, "ICAP_XSCALING", TWTY_FIX32, TWON_RANGE, 1, false, 2},
    {ICAP_YSCALING, "ICAP_YSCALING", TWTY_FIX32, TWON_RANGE, 1, false, 0.5},
    {ICAP_BRIGHTNESS, "ICAP_BRIGHTNESS", TWTY_FIX32, TWON_RANGE, 0, false, 100},
    {ICAP_CONTRAST, "ICAP_CONTRAST", TWTY_FIX32, TWON_RANGE, 0, false, -50},
    {ICAP_HIGHLIGHT, "ICAP_HIGHLIGHT", TWTY_FIX32, TWON_RANGE, 255, false, 200},
    {ICAP_SHADOW, "ICAP_SHADOW", TWTY_FIX32, TWON_RANGE, 0, false, 10},
    {ICAP_THRESHOLD, "ICAP_THRESHOLD", TWTY_FIX32, TWON_RANGE, 128, false, 100},
    {ICAP_GAMMA, "ICAP_GAMMA", TWTY_FIX32, TWON_RANGE, 1, false, 2.5},
    {ICAP_PHYSICALWIDTH, "ICAP_PHYSICALWIDTH", TWTY_FIX32, TWON_ONEVALUE, 8.5, true, 0},
    {ICAP_PHYSICALHEIGHT, "ICAP_PHYSICALHEIGHT", TWTY_FIX32, TWON_ONEVALUE, 14, true, 0},
    {ICAP_SUPPORTEDSIZES, "ICAP_SUPPORTEDSIZES", TWTY_UINT16, TWON_ENUMERATION, TWSS_NONE, false, TWSS_USLETTER},
    {ICAP_LIGHTPATH, "ICAP_LIGHTPATH", TWTY_UINT16, TWON_ENUMERATION, TWLP_REFLECTIVE, false, TWLP_TRANSMISSIVE},
    {ICAP_PIXELFLAVOR, "ICAP_PIXELFLAVOR", TWTY_UINT16, TWON_ENUMERATION, TWPF_CHOCOLATE, false, TWPF_VANILLA},
    {ICAP_IMAGEDATASET, "ICAP_IMAGEDATASET", TWTY_UINT32, TWON_ARRAY, 1, false, 2},
};

const TW_UINT16 kContainers[] = {TWON_ONEVALUE, TWON_ENUMERATION, TWON_RANGE, TWON_ARRAY};

bool Contains(const std::vector<double> &items, double value) {
    for (double item : items)
        if (std::fabs(item - value) < kFixTolerance)
            return true;
    return false;
}

// The current (or for MSG_GETDEFAULT the default) value a container shows.
double Shown(const Container &c) {
    switch (c.conType) {
    case TWON_ENUMERATION:
        return c.currentIndex < c.items.size() ? c.items[c.currentIndex] : -12345;
    case TWON_RANGE:
        return c.items.size() == 5 ? c.items[4] : -12345;
    default:
        return c.Value();
    }
}

// A get-like answer in the container `con` shows `value` as its current and default value (a range and an array of
// a range or a list hold it among their items).
void ExpectShows(const Container &c, TW_UINT16 con, double value) {
    EXPECT_STREQ(ConName(con), ConName(c.conType));
    if (con == TWON_ONEVALUE) {
        EXPECT_NEAR(value, c.Value(), kFixTolerance);
    } else if (con == TWON_ENUMERATION) {
        ASSERT_LT(c.currentIndex, c.items.size());
        ASSERT_LT(c.defaultIndex, c.items.size());
        EXPECT_NEAR(value, c.items[c.currentIndex], kFixTolerance);
        EXPECT_NEAR(value, c.items[c.defaultIndex], kFixTolerance);
    } else if (con == TWON_RANGE) {
        ASSERT_EQ(5u, c.items.size());
        EXPECT_LE(c.items[0], value);
        EXPECT_GE(c.items[1], value);
        EXPECT_GT(c.items[2], 0.0) << "step";
        EXPECT_NEAR(value, c.items[3], kFixTolerance);
        EXPECT_NEAR(value, c.items[4], kFixTolerance);
    } else {
        EXPECT_TRUE(Contains(c.items, value));
    }
}

// A triplet the source refuses in some state.
struct Triplet {
    TW_UINT32 dg;
    TW_UINT16 dat;
    TW_UINT16 msg;
    const char *name;
};

const Triplet kRefusedInState6[] = {
    {DG_CONTROL, DAT_CAPABILITY, MSG_SET, "DAT_CAPABILITY/MSG_SET"},
    {DG_CONTROL, DAT_CAPABILITY, MSG_RESET, "DAT_CAPABILITY/MSG_RESET"},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, "DAT_IMAGELAYOUT/MSG_SET"},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET, "DAT_IMAGELAYOUT/MSG_RESET"},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, "DAT_USERINTERFACE/MSG_DISABLEDS"},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDS, "DAT_USERINTERFACE/MSG_ENABLEDS"},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_ENABLEDSUIONLY, "DAT_USERINTERFACE/MSG_ENABLEDSUIONLY"},
    {DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, "DAT_IDENTITY/MSG_CLOSEDS"},
    {DG_CONTROL, DAT_IDENTITY, MSG_OPENDS, "DAT_IDENTITY/MSG_OPENDS"},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_RESET, "DAT_SETUPFILEXFER/MSG_RESET"},
};

const Triplet kRefusedInState7[] = {
    {DG_CONTROL, DAT_SETUPMEMXFER, MSG_GET, "DAT_SETUPMEMXFER/MSG_GET"},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, "DAT_IMAGELAYOUT/MSG_GET"},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_GETDEFAULT, "DAT_IMAGELAYOUT/MSG_GETDEFAULT"},
    {DG_IMAGE, DAT_IMAGELAYOUT, MSG_SET, "DAT_IMAGELAYOUT/MSG_SET"},
    {DG_IMAGE, DAT_PALETTE8, MSG_GET, "DAT_PALETTE8/MSG_GET"},
    {DG_IMAGE, DAT_PALETTE8, MSG_GETDEFAULT, "DAT_PALETTE8/MSG_GETDEFAULT"},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_GET, "DAT_SETUPFILEXFER/MSG_GET"},
    {DG_CONTROL, DAT_SETUPFILEXFER, MSG_SET, "DAT_SETUPFILEXFER/MSG_SET"},
    {DG_CONTROL, DAT_XFERGROUP, MSG_GET, "DAT_XFERGROUP/MSG_GET"},
    {DG_CONTROL, DAT_CAPABILITY, MSG_SET, "DAT_CAPABILITY/MSG_SET"},
    {DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, "DAT_PENDINGXFERS/MSG_RESET"},
    {DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, "DAT_USERINTERFACE/MSG_DISABLEDS"},
    {DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, "DAT_IDENTITY/MSG_CLOSEDS"},
    {DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, "DAT_IMAGEFILEXFER/MSG_GET"},
};

class VscanIdentityTest : public VscanTest {};
class VscanStateTest : public VscanTest {
protected:
    // Each triplet fails with TWCC_SEQERROR, which DAT_STATUS then gives back (another failure comes first, so
    // that a status left from before would show), and the state stays.
    template <size_t N> void ExpectRefused(const Triplet (&triplets)[N], int state) {
        for (const Triplet &t : triplets) {
            SCOPED_TRACE(t.name);
            Container c;
            ASSERT_TWRC(TWRC_FAILURE, ds.GetCap(0x7777, MSG_GET, c));
            ASSERT_EQ(TWCC_CAPUNSUPPORTED, ds.Status());
            alignas(TW_UINT32) unsigned char data[sizeof(TW_PALETTE8)] = {};
            EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(t.dg, t.dat, t.msg, data));
            EXPECT_EQ(state, ds.Info().state);
        }
    }
};
class VscanCapTest : public VscanTest {};

TEST_F(VscanIdentityTest, LoadingAndFreeingKeepsNoTlsIndex) {
    ds.Free();
    EXPECT_EQ(0, TlsIndexesKeptBy([this] {
                  ASSERT_TRUE(ds.Load());
                  ds.Free();
              }))
        << "vscan.ds keeps TLS indexes when freed";
}

TEST_F(VscanIdentityTest, AnswersItsIdentityBeforeAndAfterOpening) {
    TW_IDENTITY id{};
    id.Id = 0;
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &id));
    EXPECT_STREQ("Virtual Scanner", id.ProductName);
    EXPECT_STREQ("smkernal project", id.Manufacturer);
    EXPECT_STREQ("Virtual Devices", id.ProductFamily);
    EXPECT_EQ(1, id.ProtocolMajor);
    EXPECT_EQ(static_cast<TW_UINT32>(DG_CONTROL | DG_IMAGE), id.SupportedGroups);
    EXPECT_EQ(VSCAN_STATE_CLOSED, ds.Info().state);

    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_EQ(5u, ds.ds.Id) << "the Id the source manager gave must stay";
    EXPECT_STREQ("Virtual Scanner", ds.ds.ProductName);
    EXPECT_EQ(VSCAN_STATE_OPEN, ds.Info().state);
    EXPECT_EQ(77u, ds.Info().appId);
    TW_IDENTITY again{};
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &again));
    EXPECT_EQ(5u, again.Id);
}

TEST_F(VscanIdentityTest, ManufacturerChosenByTheTest) {
    ds.setIdentity("EPSON", nullptr, "Perfection Test");
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_STREQ("EPSON", ds.ds.Manufacturer);
    EXPECT_STREQ("Virtual Devices", ds.ds.ProductFamily);
    EXPECT_STREQ("Perfection Test", ds.ds.ProductName);
    ds.reset();
    TW_IDENTITY id{};
    ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_GET, &id);
    EXPECT_STREQ("smkernal project", id.Manufacturer) << "a reset forgets the chosen name";
}

TEST_F(VscanStateTest, OpenCloseAndTheirSequenceErrors) {
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, nullptr));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Enable(false));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Open());
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, nullptr));
    EXPECT_EQ(VSCAN_STATE_CLOSED, ds.Info().state);
}

TEST_F(VscanStateTest, TransfersInState4AreSequenceErrors) {
    OpenSmall();
    TW_UINT32 handle = 0;
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_EQ(0u, handle);
    TW_IMAGEMEMXFER mx{};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGEFILEXFER, MSG_GET, nullptr));
    TW_IMAGEINFO info{};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, &info));
    TW_PENDINGXFERS pending{};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_ENDXFER, &pending));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    MSG msg{};
    TW_EVENT event{&msg, MSG_NULL};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, &event));
    EXPECT_EQ(VSCAN_STATE_OPEN, ds.Info().state);
}

TEST_F(VscanStateTest, NegotiationAfterEnablingIsASequenceError) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Enable(false));
    EXPECT_EQ(VSCAN_STATE_ENABLED, ds.Info().state);
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.SetFrame(0, 0, 2, 2));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, nullptr));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Enable(false));
    Container c;
    EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GETCURRENT, c)) << "gets stay allowed";
    EXPECT_EQ(TWPT_RGB, c.Value());
    TW_UINT32 handle = 0;
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle))
        << "state 5: the transfer is not announced yet";
    EXPECT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    EXPECT_EQ(VSCAN_STATE_OPEN, ds.Info().state);
}

TEST_F(VscanStateTest, InState7ANewNativeTransferIsASequenceError) {
    OpenSmall();
    EnableToReady();
    TW_UINT32 handle = 0;
    ASSERT_TWRC(TWRC_XFERDONE, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    GlobalFree(reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(handle)));
    EXPECT_EQ(VSCAN_STATE_XFERRING, ds.Info().state);
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET, &handle));
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS, nullptr));
    TW_PENDINGXFERS pending{};
    EXPECT_TWFAIL(TWCC_SEQERROR, ds.Call(DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET, &pending));
}

TEST_F(VscanStateTest, NegotiationAndSessionTripletsInState6AreSequenceErrors) {
    OpenSmall();
    EnableToReady();
    ExpectRefused(kRefusedInState6, VSCAN_STATE_XFERREADY);
}

TEST_F(VscanStateTest, SetupLayoutAndPaletteInState7AreSequenceErrors) {
    OpenSmall();
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XFERMECH, TWTY_UINT16, TWSX_MEMORY));
    EnableToReady();
    std::vector<unsigned char> strip(10 * 300);
    TW_IMAGEMEMXFER mx{};
    mx.Memory.Flags = TWMF_APPOWNS | TWMF_POINTER;
    mx.Memory.Length = static_cast<TW_UINT32>(strip.size());
    mx.Memory.TheMem = strip.data();
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET, &mx)) << "10 rows of 50: state 7";
    ExpectRefused(kRefusedInState7, VSCAN_STATE_XFERRING);
}

TEST_F(VscanStateTest, UnknownTripletsAndMissingDataFail) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    TW_UINT32 dummy[64] = {};
    EXPECT_TWFAIL(TWCC_BADPROTOCOL, ds.Call(DG_CONTROL, DAT_PARENT, MSG_OPENDSM, dummy));
    EXPECT_TWFAIL(TWCC_BADPROTOCOL, ds.Call(DG_AUDIO, DAT_NULL, MSG_GET, dummy));
    EXPECT_TWFAIL(TWCC_BADPROTOCOL, ds.Call(DG_IMAGE, DAT_PALETTE8, MSG_SET, dummy));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_CONTROL, DAT_CAPABILITY, MSG_GET, nullptr));
}

TEST_F(VscanStateTest, StatusReportsTheLastFailureUntilTheNext) {
    EXPECT_EQ(TWCC_SUCCESS, ds.Status());
    ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, nullptr);
    EXPECT_EQ(TWCC_SEQERROR, ds.Status());
    EXPECT_EQ(TWCC_SEQERROR, ds.Status()) << "reading the status does not clear it";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_EQ(TWCC_SEQERROR, ds.Status()) << "a success leaves the last failure's code";
    Container c;
    ds.GetCap(0x7777, MSG_GET, c);
    EXPECT_EQ(TWCC_CAPUNSUPPORTED, ds.Status());
    EXPECT_EQ(TWCC_CAPUNSUPPORTED, ds.Info().lastCc);
}

TEST_F(VscanCapTest, EveryCapabilityWithEveryMessage) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    for (const CapCase &k : kCaps) {
        SCOPED_TRACE(k.name);
        Container c;
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GET, c));
        EXPECT_STREQ(ConName(k.getContainer), ConName(c.conType));
        EXPECT_EQ(k.itemType, c.itemType);
        EXPECT_NEAR(k.def, Shown(c), kFixTolerance) << "MSG_GET's current value";
        for (TW_UINT16 msg : {MSG_GETCURRENT, MSG_GETDEFAULT}) {
            ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, msg, c));
            EXPECT_STREQ("TWON_ONEVALUE", ConName(c.conType));
            EXPECT_EQ(k.itemType, c.itemType);
            EXPECT_NEAR(k.def, c.Value(), kFixTolerance);
        }
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_QUERYSUPPORT, c));
        const int expected = TWQC_GET | TWQC_GETCURRENT | TWQC_GETDEFAULT | (k.readOnly ? 0 : TWQC_SET | TWQC_RESET);
        EXPECT_EQ(expected, static_cast<int>(c.Value()));
        if (k.readOnly) {
            EXPECT_TWFAIL(TWCC_CAPBADOPERATION, ds.SetCap(k.cap, k.itemType, k.other));
            EXPECT_TWFAIL(TWCC_CAPBADOPERATION, ds.GetCap(k.cap, MSG_RESET, c));
            EXPECT_TRUE(c.items.empty()) << "a refused reset answers no container";
            continue;
        }
        EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(k.cap, k.itemType, k.other));
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GETCURRENT, c));
        EXPECT_NEAR(k.other, c.Value(), kFixTolerance) << "after MSG_SET";
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GETDEFAULT, c));
        EXPECT_NEAR(k.def, c.Value(), kFixTolerance) << "the default stays";
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_RESET, c));
        EXPECT_NEAR(k.def, Shown(c), kFixTolerance) << "MSG_RESET answers the value it reset to";
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GETCURRENT, c));
        EXPECT_NEAR(k.def, c.Value(), kFixTolerance) << "after MSG_RESET";
    }
}

TEST_F(VscanCapTest, EveryContainerTypeCanBeChosenPerCapability) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    for (const CapCase &k : kCaps) {
        for (TW_UINT16 con : kContainers) {
            SCOPED_TRACE(std::string(k.name) + " as " + ConName(con));
            ASSERT_EQ(1, ds.setContainer(k.cap, MSG_GET, con));
            Container c;
            ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GET, c));
            EXPECT_EQ(k.itemType, c.itemType);
            ExpectShows(c, con, k.def);
        }
    }
    EXPECT_EQ(1, ds.setContainer(ICAP_UNITS, MSG_GETCURRENT, TWON_ENUMERATION));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_UNITS, MSG_GETCURRENT, c));
    EXPECT_STREQ("TWON_ENUMERATION", ConName(c.conType));
    EXPECT_EQ(6u, c.numItems);
    EXPECT_EQ(1, ds.setContainer(ICAP_UNITS, MSG_GETDEFAULT, TWON_RANGE));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_UNITS, MSG_GETDEFAULT, c));
    EXPECT_STREQ("TWON_RANGE", ConName(c.conType));
    EXPECT_EQ(0, ds.setContainer(0x7777, MSG_GET, TWON_RANGE)) << "unknown capability";
    EXPECT_EQ(0, ds.setContainer(ICAP_UNITS, MSG_SET, TWON_RANGE)) << "not a get-like message";
    EXPECT_EQ(0, ds.setContainer(ICAP_UNITS, MSG_GET, 9)) << "not a container";
}

TEST_F(VscanCapTest, EveryContainerTypeCanBeChosenForTheAnswerOfAReset) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    for (const CapCase &k : kCaps) {
        if (k.readOnly)
            continue;
        for (TW_UINT16 con : kContainers) {
            SCOPED_TRACE(std::string(k.name) + " reset as " + ConName(con));
            ASSERT_EQ(1, ds.setContainer(k.cap, MSG_RESET, con));
            ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(k.cap, k.itemType, k.other));
            Container c;
            ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_RESET, c));
            EXPECT_EQ(k.itemType, c.itemType);
            ExpectShows(c, con, k.def);
            ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GETCURRENT, c));
            EXPECT_NEAR(k.def, c.Value(), kFixTolerance) << "the reset took place";
            ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(k.cap, MSG_GET, c));
            EXPECT_STREQ(ConName(k.getContainer), ConName(c.conType)) << "MSG_GET keeps its own container";
        }
    }
}

TEST_F(VscanCapTest, NaturalAnswersOfListsAndResolutions) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{TWPT_BW, TWPT_GRAY, TWPT_RGB, TWPT_PALETTE}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{50, 75, 100, 150, 200, 300, 400, 600}), c.items);
    EXPECT_EQ(2u, c.currentIndex);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BRIGHTNESS, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{-1000, 1000, 1, 0, 0}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GET, c));
    EXPECT_EQ(
        (std::vector<double>{TWSS_NONE, TWSS_A4LETTER, TWSS_B5LETTER, TWSS_USLETTER, TWSS_USLEGAL, TWSS_A5, TWSS_B6}),
        c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BITDEPTH, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{24, 48}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_PALETTE));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BITDEPTH, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{8, 4}), c.items) << "bit depths follow the pixel type";
    EXPECT_EQ(8, Shown(c));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_BW));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BITDEPTH, MSG_GETCURRENT, c));
    EXPECT_EQ(1, c.Value());
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, 8));
}

TEST_F(VscanCapTest, SupportedCapsListsEveryCapability) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_SUPPORTEDCAPS, MSG_GET, c));
    EXPECT_STREQ("TWON_ARRAY", ConName(c.conType));
    EXPECT_EQ(TWTY_UINT16, c.itemType);
    for (const CapCase &k : kCaps)
        EXPECT_TRUE(Contains(c.items, k.cap)) << k.name;
    for (TW_UINT16 cap : {CAP_SUPPORTEDCAPS, ICAP_COMPRESSION})
        EXPECT_TRUE(Contains(c.items, cap)) << cap;
    EXPECT_TWFAIL(TWCC_CAPBADOPERATION, ds.SetCapContainer(CAP_SUPPORTEDCAPS, TWON_ARRAY, MakeArray(TWTY_UINT16, {1})));
    EXPECT_TWFAIL(TWCC_CAPBADOPERATION, ds.GetCap(CAP_SUPPORTEDCAPS, MSG_RESET, c));
}

TEST_F(VscanCapTest, ValuesBetweenSupportedOnesAreSnappedWithCheckStatus) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 110));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(100, c.Value());
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetCap(ICAP_YRESOLUTION, TWTY_FIX32, 1200));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_YRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(600, c.Value());
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetCap(ICAP_BRIGHTNESS, TWTY_FIX32, 2000));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BRIGHTNESS, MSG_GETCURRENT, c));
    EXPECT_EQ(1000, c.Value());
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetCap(ICAP_GAMMA, TWTY_FIX32, 2.3));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_GAMMA, MSG_GETCURRENT, c));
    EXPECT_EQ(2.25, c.Value());
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 300)) << "an exact value: no check status";
}

TEST_F(VscanCapTest, UnsupportedValuesContainersAndItemTypesAreBadValues) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_CMYK));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT32, TWPT_GRAY));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_XRESOLUTION, TWTY_UINT16, 200));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(CAP_XFERCOUNT, TWTY_INT16, 0));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(CAP_FEEDERENABLED, TWTY_BOOL, 2));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_XRESOLUTION, TWON_RANGE, MakeRange(TWTY_FIX32, 50, 600, 50, 100, 200)));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ARRAY, MakeArray(TWTY_UINT16, {0, 1})));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(CAP_INDICATORS, TWON_ENUMERATION, MakeEnumeration(TWTY_BOOL, {0, 1}, 0)));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION, MakeEnumeration(TWTY_UINT16, {0, 5}, 0)));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION, MakeEnumeration(TWTY_UINT16, {0, 1}, 2)))
        << "current index outside the list";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCapContainer(ICAP_PIXELTYPE, 99, MakeOneValue(TWTY_UINT16, 0)));
    TW_CAPABILITY empty{ICAP_PIXELTYPE, TWON_ONEVALUE, nullptr};
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.Call(DG_CONTROL, DAT_CAPABILITY, MSG_SET, &empty));
    Container c;
    EXPECT_TWFAIL(TWCC_CAPUNSUPPORTED, ds.GetCap(0x7777, MSG_GET, c));
    EXPECT_TWFAIL(TWCC_CAPUNSUPPORTED, ds.SetCap(0x7777, TWTY_UINT16, 1));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GETCURRENT, c));
    EXPECT_EQ(TWPT_RGB, c.Value()) << "failed sets change nothing";
}

// The container cut to `size` bytes, its counts left claiming more.
HGLOBAL CutTo(HGLOBAL container, SIZE_T size) {
    HGLOBAL cut = GlobalReAlloc(container, size, GMEM_MOVEABLE);
    EXPECT_NE(nullptr, cut);
    EXPECT_EQ(size, GlobalSize(cut));
    return cut;
}

TEST_F(VscanCapTest, SetContainersClaimingMoreThanTheirBlockAreBadValues) {
    ds.setPages(4);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    const std::vector<double> types = {TWPT_BW, TWPT_GRAY, TWPT_RGB, TWPT_PALETTE};
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                    CutTo(MakeEnumeration(TWTY_UINT16, types, 1),
                                                          offsetof(TW_ENUMERATION, ItemList) + 2 * sizeof(TW_UINT16))))
        << "four items claimed, two in the block";
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_IMAGEDATASET, TWON_ARRAY,
                                     CutTo(MakeArray(TWTY_UINT32, {1, 2, 3, 4}), offsetof(TW_ARRAY, ItemList) + 4)))
        << "four pages claimed, one in the block";
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_XRESOLUTION, TWON_ONEVALUE, CutTo(MakeOneValue(TWTY_FIX32, 200), 4)))
        << "a one value without its whole item";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                    CutTo(MakeEnumeration(TWTY_UINT16, types, 1), 1)))
        << "not even an item type";
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_EQ(4u, c.numItems) << "no constraint was taken";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(100, c.Value());
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                 CutTo(MakeEnumeration(TWTY_UINT16, {TWPT_BW, TWPT_GRAY}, 1),
                                                       offsetof(TW_ENUMERATION, ItemList) + 2 * sizeof(TW_UINT16))))
        << "a block that just holds its items";
}

TEST_F(VscanCapTest, EnumerationSetsConstrainTheValuesUntilReset) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                 MakeEnumeration(TWTY_UINT16, {TWPT_BW, TWPT_GRAY}, 1)));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{TWPT_BW, TWPT_GRAY}), c.items);
    EXPECT_EQ(TWPT_GRAY, Shown(c));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_RGB)) << "outside the constraint";
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_BW));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_RESET, c));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_EQ(4u, c.numItems) << "MSG_RESET lifts the constraint";
    EXPECT_EQ(TWPT_RGB, Shown(c));

    ASSERT_TWRC(TWRC_SUCCESS,
                ds.SetCapContainer(ICAP_SUPPORTEDSIZES, TWON_ENUMERATION,
                                   MakeEnumeration(TWTY_UINT16, {TWSS_USLETTER, TWSS_A4LETTER, TWSS_USLEGAL}, 1)));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GETCURRENT, c));
    EXPECT_EQ(TWSS_A4LETTER, c.Value());
    TW_IMAGELAYOUT layout{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
    EXPECT_NEAR(210 / 25.4, Fix32ToDouble(layout.Frame.Right), kFixTolerance) << "the size sets the frame";
    EXPECT_NEAR(297 / 25.4, Fix32ToDouble(layout.Frame.Bottom), kFixTolerance);
}

TEST_F(VscanCapTest, ARefusedSetLeavesTheConstraintInPlace) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                 MakeEnumeration(TWTY_UINT16, {TWPT_BW, TWPT_GRAY}, 1)));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION, MakeEnumeration(TWTY_UINT16, {0, 5}, 0)))
        << "5 is no pixel type";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_CMYK));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{TWPT_BW, TWPT_GRAY}), c.items) << "the first constraint stays";
    EXPECT_EQ(TWPT_GRAY, Shown(c));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_RGB)) << "still outside the constraint";

    ASSERT_TWRC(TWRC_SUCCESS,
                ds.SetCapContainer(ICAP_XRESOLUTION, TWON_ENUMERATION, MakeEnumeration(TWTY_FIX32, {150, 300}, 0)));
    EXPECT_TWFAIL(TWCC_BADVALUE,
                  ds.SetCapContainer(ICAP_XRESOLUTION, TWON_ENUMERATION, MakeEnumeration(TWTY_FIX32, {600, 110}, 0)))
        << "110 dpi is not listed: an enumeration is not snapped";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{150, 300}), c.items);
    EXPECT_EQ(150, Shown(c)) << "nor was its first item taken";
}

TEST_F(VscanCapTest, TheSamePixelTypeAgainKeepsTheBitDepth) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    const auto depth = [&] {
        EXPECT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_BITDEPTH, MSG_GETCURRENT, c));
        return c.Value();
    };
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, 48));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_RGB));
    EXPECT_EQ(48, depth()) << "RGB set again";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_RESET, c));
    EXPECT_EQ(48, depth()) << "reset to the RGB it has";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_PIXELTYPE, TWON_ENUMERATION,
                                                 MakeEnumeration(TWTY_UINT16, {TWPT_GRAY, TWPT_RGB}, 1)));
    EXPECT_EQ(48, depth()) << "a constraint keeping RGB current";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_EQ(8, depth()) << "a new pixel type: its first bit depth";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_BITDEPTH, TWTY_UINT16, 16));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    EXPECT_EQ(16, depth()) << "gray set again";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_RESET, c));
    EXPECT_EQ(24, depth()) << "reset from gray to RGB";
}

TEST_F(VscanCapTest, AFrameOfItsOwnIsNoPaperSizeEvenOutsideAConstraint) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_SUPPORTEDSIZES, TWON_ENUMERATION,
                                                 MakeEnumeration(TWTY_UINT16, {TWSS_USLETTER, TWSS_A4LETTER}, 1)));
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, 1, 2));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GETCURRENT, c));
    EXPECT_EQ(TWSS_NONE, c.Value()) << "the constraint leaves NONE out, the frame is none of its sizes";
    TW_IMAGELAYOUT layout{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
    EXPECT_EQ(2, Fix32ToDouble(layout.Frame.Bottom)) << "the frame as set";

    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_SUPPORTEDSIZES, TWTY_UINT16, TWSS_USLETTER));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET, &layout));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GETCURRENT, c));
    EXPECT_EQ(TWSS_NONE, c.Value()) << "the whole bed is no paper size either";
    EXPECT_EQ(14, Fix32ToDouble(layout.Frame.Bottom));
}

TEST_F(VscanCapTest, ImageDataSetTakesAnArrayOfPages) {
    ds.setPages(5);
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_IMAGEDATASET, MSG_GET, c));
    EXPECT_STREQ("TWON_ARRAY", ConName(c.conType));
    EXPECT_EQ(TWTY_UINT32, c.itemType);
    EXPECT_EQ((std::vector<double>{1, 2, 3, 4, 5}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_IMAGEDATASET, TWON_ARRAY, MakeArray(TWTY_UINT32, {4, 2})));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_IMAGEDATASET, MSG_GET, c));
    EXPECT_EQ((std::vector<double>{4, 2}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_IMAGEDATASET, MSG_GETDEFAULT, c));
    EXPECT_EQ(1, c.Value());
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetCapContainer(ICAP_IMAGEDATASET, TWON_ARRAY, MakeArray(TWTY_UINT32, {6})));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_IMAGEDATASET, MSG_RESET, c));
    EXPECT_EQ((std::vector<double>{1, 2, 3, 4, 5}), c.items);
}

TEST_F(VscanCapTest, ItemTypeSubstitutionConvertsTheAnswers) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_EQ(1, ds.setItemType(ICAP_XRESOLUTION, TWTY_UINT16));
    ASSERT_EQ(1, ds.setItemType(CAP_FEEDERENABLED, TWTY_UINT32));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_EQ(TWTY_UINT16, c.itemType);
    EXPECT_EQ((std::vector<double>{50, 75, 100, 150, 200, 300, 400, 600}), c.items);
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_EQ(TWTY_UINT16, c.itemType);
    EXPECT_EQ(100, c.Value());
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(CAP_FEEDERENABLED, MSG_GET, c));
    EXPECT_EQ(TWTY_UINT32, c.itemType);
    EXPECT_EQ(0, c.Value());
    EXPECT_EQ(0, ds.setItemType(ICAP_UNITS, TWTY_STR32)) << "only number types";
    ASSERT_EQ(1, ds.setItemType(ICAP_XRESOLUTION, TWON_DONTCARE16));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
    EXPECT_EQ(TWTY_FIX32, c.itemType) << "back to its own type";
}

TEST_F(VscanCapTest, PhysicalSizeFollowsTheUnits) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    const struct {
        TW_UINT16 unit;
        double width, height;
    } cases[] = {{TWUN_INCHES, 8.5, 14},   {TWUN_CENTIMETERS, 21.59, 35.56}, {TWUN_PICAS, 51, 84},
                 {TWUN_POINTS, 612, 1008}, {TWUN_TWIPS, 12240, 20160},       {TWUN_PIXELS, 850, 1400}};
    for (const auto &k : cases) {
        SCOPED_TRACE(k.unit);
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, k.unit));
        Container c;
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PHYSICALWIDTH, MSG_GET, c));
        EXPECT_NEAR(k.width, c.Value(), kFixTolerance);
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PHYSICALHEIGHT, MSG_GETCURRENT, c));
        EXPECT_NEAR(k.height, c.Value(), kFixTolerance);
        TW_IMAGELAYOUT layout{};
        ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
        EXPECT_NEAR(k.width, Fix32ToDouble(layout.Frame.Right), kFixTolerance) << "the frame too";
    }
}

// Lengths of one inch in each unit that has a length.
struct UnitCase {
    TW_UINT16 unit;
    const char *name;
    double perInch;
};
const UnitCase kLengthUnits[] = {{TWUN_INCHES, "TWUN_INCHES", 1},
                                 {TWUN_CENTIMETERS, "TWUN_CENTIMETERS", 2.54},
                                 {TWUN_PICAS, "TWUN_PICAS", 6},
                                 {TWUN_POINTS, "TWUN_POINTS", 72},
                                 {TWUN_TWIPS, "TWUN_TWIPS", 1440}};
const double kResolutions[] = {50, 75, 100, 150, 200, 300, 400, 600};

TEST_F(VscanCapTest, ResolutionsArePixelsPerCurrentUnit) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 200));
    for (const UnitCase &k : kLengthUnits) {
        SCOPED_TRACE(k.name);
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, k.unit));
        Container c;
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
        EXPECT_NEAR(200 / k.perInch, c.Value(), kFixTolerance);
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_YRESOLUTION, MSG_GETDEFAULT, c));
        EXPECT_NEAR(100 / k.perInch, c.Value(), kFixTolerance);
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GET, c));
        ASSERT_EQ(8u, c.items.size());
        for (size_t i = 0; i < c.items.size(); ++i)
            EXPECT_NEAR(kResolutions[i] / k.perInch, c.items[i], kFixTolerance) << "item " << i;
        EXPECT_EQ(4u, c.currentIndex);
        EXPECT_EQ(2u, c.defaultIndex);
        EXPECT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 300 / k.perInch)) << "a listed value";
        ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
        EXPECT_NEAR(300 / k.perInch, c.Value(), kFixTolerance);
        ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 200 / k.perInch));
    }

    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_CENTIMETERS));
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetCap(ICAP_XRESOLUTION, TWTY_FIX32, 100)) << "254 dpi is no listed value";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCapContainer(ICAP_YRESOLUTION, TWON_ENUMERATION,
                                                 MakeEnumeration(TWTY_FIX32, {75 / 2.54, 150 / 2.54}, 1)));
    ASSERT_EQ(1, ds.setContainer(ICAP_YRESOLUTION, MSG_GET, TWON_RANGE));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_YRESOLUTION, MSG_GET, c));
    ASSERT_EQ(5u, c.items.size());
    EXPECT_NEAR(75 / 2.54, c.items[0], kFixTolerance) << "the constraint's minimum";
    EXPECT_NEAR(150 / 2.54, c.items[1], kFixTolerance);
    EXPECT_NEAR(75 / 2.54, c.items[2], kFixTolerance) << "the step";
    EXPECT_NEAR(150 / 2.54, c.items[4], kFixTolerance);

    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_INCHES));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_NEAR(300, c.Value(), kFixTolerance) << "snapped to the nearest listed resolution";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_YRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_NEAR(150, c.Value(), kFixTolerance) << "the constraint was taken in pixels per centimetre";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_UNITS, TWTY_UINT16, TWUN_PIXELS));
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_XRESOLUTION, MSG_GETCURRENT, c));
    EXPECT_NEAR(300, c.Value(), kFixTolerance) << "pixels keep dots per inch";
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PHYSICALWIDTH, MSG_GETCURRENT, c));
    EXPECT_NEAR(8.5 * 300, c.Value(), kFixTolerance);
}

TEST_F(VscanCapTest, ImageLayoutGetSetResetAndClipping) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    TW_IMAGELAYOUT layout{};
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GETDEFAULT, &layout));
    EXPECT_EQ(8.5, Fix32ToDouble(layout.Frame.Right));
    EXPECT_EQ(14, Fix32ToDouble(layout.Frame.Bottom));
    EXPECT_EQ(1u, layout.DocumentNumber);
    EXPECT_EQ(1u, layout.PageNumber);
    EXPECT_EQ(1u, layout.FrameNumber);
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetFrame(0.5, 1, 2.5, 3));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
    EXPECT_EQ(0.5, Fix32ToDouble(layout.Frame.Left));
    EXPECT_EQ(1, Fix32ToDouble(layout.Frame.Top));
    EXPECT_EQ(2.5, Fix32ToDouble(layout.Frame.Right));
    EXPECT_EQ(3, Fix32ToDouble(layout.Frame.Bottom));
    EXPECT_TWRC(TWRC_CHECKSTATUS, ds.SetFrame(1, 1, 10, 20)) << "beyond the bed";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_GET, &layout));
    EXPECT_EQ(8.5, Fix32ToDouble(layout.Frame.Right));
    EXPECT_EQ(14, Fix32ToDouble(layout.Frame.Bottom));
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetFrame(2, 2, 1, 3)) << "right before left";
    EXPECT_TWFAIL(TWCC_BADVALUE, ds.SetFrame(-1, 0, 1, 1)) << "outside on the left";
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_SUPPORTEDSIZES, TWTY_UINT16, TWSS_A5));
    EXPECT_TWRC(TWRC_SUCCESS, ds.SetFrame(0, 0, 1, 1));
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_SUPPORTEDSIZES, MSG_GETCURRENT, c));
    EXPECT_EQ(TWSS_NONE, c.Value()) << "a frame of its own is no paper size";
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_IMAGE, DAT_IMAGELAYOUT, MSG_RESET, &layout));
    EXPECT_EQ(0, Fix32ToDouble(layout.Frame.Left));
    EXPECT_EQ(8.5, Fix32ToDouble(layout.Frame.Right));
}

TEST_F(VscanCapTest, CapabilitiesGoBackToDefaultsWhenTheSourceIsReopened) {
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    ASSERT_TWRC(TWRC_SUCCESS, ds.SetCap(ICAP_PIXELTYPE, TWTY_UINT16, TWPT_GRAY));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Call(DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS, nullptr));
    ASSERT_TWRC(TWRC_SUCCESS, ds.Open());
    Container c;
    ASSERT_TWRC(TWRC_SUCCESS, ds.GetCap(ICAP_PIXELTYPE, MSG_GETCURRENT, c));
    EXPECT_EQ(TWPT_RGB, c.Value());
}

} // namespace
} // namespace smtest
