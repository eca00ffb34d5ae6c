// Acquisitions end to end through the stand-in source manager: the module's event filter moves every page of the
// virtual scanner to the application by each mechanism, in each format, one page from the flatbed and three from the
// feeder; the pages are checked against the test-page formula and the global memory against its owners.
#include <cstring>

#include "AcquireCheck.h"
#include "GlobalMemoryTracker.h"
#include "XferTest.h"

namespace smtest {
namespace {

using Strings = std::vector<std::string>;

// The application's loop hands the module every message of its thread; the source manager answers TWRC_DSEVENT only
// for the source's own notice. How many other messages the system posts meanwhile is its business: those calls are
// left out of the comparisons below, and each of them must be exactly this.
const std::string kNotSourceEvent = "DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> TWRC_NOTDSEVENT";

class XferE2eTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        if (HasFatalFailure())
            return;
        app.getPendingCount = getPendingCount;
        TrackAcquisitionMemory(tracker, library.Module(), scanner.Module());
    }
    void TearDown() override {
        tracker.Detach();
        XferTest::TearDown();
    }

    // The triplets since the mark without the messages that were not the source's.
    Strings SourceTriplets() const {
        Strings triplets;
        for (const std::string &triplet : Triplets())
            if (triplet != kNotSourceEvent)
                triplets.push_back(triplet);
        return triplets;
    }
    // The capability of every DAT_CAPABILITY triplet since the mark.
    std::vector<TW_UINT16> Capabilities() const {
        std::vector<TW_UINT16> caps;
        for (const TdsmCall &call : CallsSinceMark())
            if (call.dat == DAT_CAPABILITY) {
                TW_UINT16 cap = 0;
                std::memcpy(&cap, call.dataIn, sizeof cap);
                caps.push_back(cap);
            }
        return caps;
    }
    // The data of the last call of a triplet since the mark, as the caller passed it.
    template <typename T> bool DataOfLast(TW_UINT16 dat, T &out) const {
        const std::vector<TdsmCall> calls = CallsSinceMark();
        for (auto call = calls.rbegin(); call != calls.rend(); ++call)
            if (call->dat == dat && call->hasData && call->dataSize >= sizeof out) {
                std::memcpy(&out, call->dataIn, sizeof out);
                return true;
            }
        return false;
    }

    GlobalMemoryTracker tracker;
};

class XferMatrixTest : public XferE2eTest, public ::testing::WithParamInterface<AcquireCase> {};

TEST_P(XferMatrixTest, EveryPageArrivesAsTheFormulaSays) {
    const AcquireCase &c = GetParam();
    Open(c.mechanism, c.format, c.pages);
    ASSERT_FALSE(HasFatalFailure());
    AcquireAndExpect(
        c, "xfer_e2e", app, tracker, [this] { return Acquire(); }, viewer, scanner);
}
INSTANTIATE_TEST_SUITE_P(Matrix, XferMatrixTest, ::testing::ValuesIn(AcquireMatrix()), AcquireCaseName);

TEST_F(XferE2eTest, OnePageByMemoryTripletsInOrder) {
    Open(SM_XFER_MEMORY);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(AcquisitionEnded(Acquire(), app));
    EXPECT_EQ((Strings{"DG_CONTROL/DAT_USERINTERFACE/MSG_ENABLEDS -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> TWRC_DSEVENT",
                       "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_SETUPMEMXFER/MSG_GET -> TWRC_SUCCESS",
                       "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT -> TWRC_SUCCESS",
                       "DG_IMAGE/DAT_IMAGEMEMXFER/MSG_GET -> TWRC_XFERDONE",
                       "DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS"}),
              SourceTriplets());
    EXPECT_EQ((std::vector<TW_UINT16>{ICAP_XFERMECH, ICAP_UNITS}), Capabilities())
        << "the mechanism asked of the source, then the unit of the resolutions";
    // 24-bit RGB rows of 318 bytes: the source prefers the 206 that fit in 64 KB, and the page's 175 come at once.
    TW_IMAGEMEMXFER block = {};
    ASSERT_TRUE(DataOfLast(DAT_IMAGEMEMXFER, block));
    EXPECT_EQ(static_cast<TW_UINT32>(TWMF_APPOWNS | TWMF_POINTER), block.Memory.Flags);
    EXPECT_EQ(206u * 318u, block.Memory.Length) << "the preferred size";
    EXPECT_NE(nullptr, block.Memory.TheMem);
}

TEST_F(XferE2eTest, OnePageByNativeTripletsInOrder) {
    Open(SM_XFER_NATIVE);
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_TRUE(AcquisitionEnded(Acquire(), app));
    EXPECT_EQ((Strings{"DG_CONTROL/DAT_USERINTERFACE/MSG_ENABLEDS -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> TWRC_DSEVENT",
                       "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT -> TWRC_SUCCESS",
                       "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_CAPABILITY/MSG_GETCURRENT -> TWRC_SUCCESS",
                       "DG_IMAGE/DAT_IMAGENATIVEXFER/MSG_GET -> TWRC_XFERDONE",
                       "DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS"}),
              SourceTriplets());
    EXPECT_EQ((std::vector<TW_UINT16>{ICAP_XFERMECH, ICAP_UNITS}), Capabilities());
    EXPECT_EQ(1u, ReceivedBitmaps(app.Notices()).size());
}

} // namespace
} // namespace smtest
