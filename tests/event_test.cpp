// The event filter: what smIsDSEvent passes to the source manager and answers, the source's transfer-ready event
// and close request, the switch that keeps images pending, the cancel calls and the image record of each transfer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kFilter[] = "F:\\smkernal\\Sm_1.cpp";
const std::string kXferReadyComing = "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY";
const std::string kXferReadyLeaving = "Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY";
const std::string kCloseComing = "Coming TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ";
const std::string kCloseLeaving = "Leaving TScanModule::IsDSEvent capturing MSG_CLOSEDSREQ";
const std::string kEndXfer = "DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS";
const std::string kReset = "DG_CONTROL/DAT_PENDINGXFERS/MSG_RESET -> TWRC_SUCCESS";

TW_EVENT EventOf(const unsigned char *data) {
    TW_EVENT event = {};
    std::memcpy(&event, data, sizeof event);
    return event;
}

TW_IMAGEINFO ImageInfoOf(const TdsmCall &call) {
    TW_IMAGEINFO info = {};
    std::memcpy(&info, call.dataOut, sizeof info);
    return info;
}

bool IsTriplet(const TdsmCall &call, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    return call.dg == dg && call.dat == dat && call.msg == msg;
}

int CountTriplet(const std::vector<TdsmCall> &calls, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg) {
    return static_cast<int>(
        std::count_if(calls.begin(), calls.end(), [&](const TdsmCall &call) { return IsTriplet(call, dg, dat, msg); }));
}

// Index of the first call of that triplet at or after `from`, or -1.
int FindTriplet(const std::vector<TdsmCall> &calls, TW_UINT32 dg, TW_UINT16 dat, TW_UINT16 msg, int from = 0) {
    for (int i = from; i < static_cast<int>(calls.size()); ++i)
        if (IsTriplet(calls[i], dg, dat, msg))
            return i;
    return -1;
}

// Index of the DAT_EVENT call that the source answered with `event`, or -1.
int FindSourceEvent(const std::vector<TdsmCall> &calls, TW_UINT16 event) {
    for (int i = 0; i < static_cast<int>(calls.size()); ++i)
        if (IsTriplet(calls[i], DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT) &&
            EventOf(calls[i].dataOut).TWMessage == event)
            return i;
    return -1;
}

// The pending-transfer triplets in the order they were sent.
Strings PendingTriplets(const std::vector<TdsmCall> &calls) {
    Strings out;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_PENDINGXFERS)
            out.push_back(Describe(call));
    return out;
}

// Index of the record of that level, source and text, or -1.
int FindRecord(const std::vector<TraceLine> &records, const std::string &level, const std::string &source,
               const std::string &text) {
    for (int i = 0; i < static_cast<int>(records.size()); ++i)
        if (records[i].level == level && records[i].source == source && records[i].text == text)
            return i;
    return -1;
}

// The first XferEnd notice.
const Notice &EndOf(const NotificationWindow &app) {
    static const Notice none = Notice();
    for (const Notice &notice : app.Notices())
        if (notice.kind == NoticeKind::XferEnd)
            return notice;
    ADD_FAILURE() << "no XferEnd";
    return none;
}

const char *MechanismName(LONG mechanism) {
    return mechanism == SM_XFER_NATIVE ? "DoNativeXfer" : mechanism == SM_XFER_FILE ? "DoFileXfer" : "DoMemXfer";
}

// File names for the images of a file transfer, one per image in the temporary directory, removed at the end.
class FileNames {
public:
    explicit FileNames(const std::string &tag) : tag_(tag) {}
    ~FileNames() {
        for (const std::string &name : names_)
            DeleteFileA(name.c_str());
    }
    FileNames(const FileNames &) = delete;
    FileNames &operator=(const FileNames &) = delete;
    std::string Next() {
        char directory[MAX_PATH] = {};
        GetTempPathA(MAX_PATH, directory);
        names_.push_back(std::string(directory) + "smk_" + tag_ + "_" + std::to_string(names_.size() + 1) + ".bmp");
        return names_.back();
    }

private:
    std::string tag_;
    std::vector<std::string> names_;
};

class EventTest : public XferTest {
protected:
    void SetUp() override {
        XferTest::SetUp();
        negotiate = library.Get<decltype(negotiate)>("smCapNegotiate");
        setXferMech = library.Get<decltype(setXferMech)>("smSetXferMech");
        ASSERT_TRUE(negotiate && setXferMech);
    }
    // A file transfer needs a name for every image: the application writes one while it handles XferStart.
    void NameFilesFor(LONG mechanism, FileNames &names) {
        if (mechanism != SM_XFER_FILE)
            return;
        app.onXferStart = [&names](const Notice &, ScanImageInfo *image) {
            lstrcpynA(static_cast<char *>(image->xferTarget), names.Next().c_str(), 256);
        };
    }
    // Runs the message loop until the source has announced `event` through the module's filter.
    bool PumpUntilSourceEvent(TW_UINT16 event) {
        return Pump([this, event] { return FindSourceEvent(CallsSinceMark(), event) >= 0; });
    }
    // Every message still queued goes through the filter (a second notice would come from one of them).
    void Drain() {
        Pump([] {
            MSG msg;
            return !PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);
        });
    }
    void SetUnit(TW_UINT16 unit) {
        TW_CAPABILITY capability = {ICAP_UNITS, TWON_ONEVALUE, MakeOneValue(TWTY_UINT16, unit)};
        EXPECT_EQ(TWRC_SUCCESS, negotiate(MSG_SET, &capability));
        GlobalFree(capability.hContainer);
    }
    // The first DAT_IMAGEINFO answer since the mark.
    TW_IMAGEINFO FirstImageInfo() {
        const std::vector<TdsmCall> calls = CallsSinceMark();
        const int at = FindTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET);
        EXPECT_GE(at, 0) << "the source was never asked for the image";
        return at < 0 ? TW_IMAGEINFO{} : ImageInfoOf(calls[at]);
    }

    TW_UINT16(WINAPI *negotiate)(UINT, TW_CAPABILITY *) = nullptr;
    LONG(WINAPI *setXferMech)(LONG) = nullptr;
};

TEST_F(EventTest, BeforeEnableTheFilterAsksNothingAndTracesNothing) {
    MSG msg = {app.Handle(), WM_USER + 17, 1, 2, 0, {0, 0}};
    EXPECT_FALSE(isDSEvent(&msg)) << "state 2, the source manager loaded";
    EXPECT_TRUE(Triplets().empty());
    EXPECT_TRUE(viewer.Records().empty()) << viewer.Records().front().raw;

    Open(SM_XFER_MEMORY);
    EXPECT_FALSE(isDSEvent(&msg)) << "state 4, the source open";
    EXPECT_TRUE(Triplets().empty());
    EXPECT_TRUE(viewer.Records().empty()) << viewer.Records().front().raw;
}

TEST_F(EventTest, InStateFiveTheMessageGoesToTheSourceAsItIs) {
    Open(SM_XFER_MEMORY);
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    TW_IDENTITY appIdentity = {}, sourceIdentity = {};
    EnabledPair(appIdentity, sourceIdentity);
    MSG msg = {app.Handle(), WM_USER + 17, 0x1234, 0x5678, 0, {0, 0}};
    struct Case {
        TW_UINT16 rc;
        BOOL expected;
    };
    for (const Case &c : {Case{TWRC_DSEVENT, TRUE}, Case{TWRC_NOTDSEVENT, FALSE}, Case{TWRC_FAILURE, FALSE}}) {
        SCOPED_TRACE(TwrcName(c.rc));
        script.failOnce(DG_CONTROL, DAT_EVENT, MSG_PROCESSEVENT, c.rc, TWCC_BUMMER);
        Reset();
        EXPECT_EQ(c.expected, isDSEvent(&msg));
        const std::vector<TdsmCall> calls = CallsSinceMark();
        ASSERT_EQ(1u, calls.size());
        EXPECT_EQ("DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> " + std::string(TwrcName(c.rc)), Describe(calls[0]));
        EXPECT_EQ(appIdentity.Id, calls[0].originId);
        EXPECT_EQ(sourceIdentity.Id, calls[0].destId);
        const TW_EVENT sent = EventOf(calls[0].dataIn);
        EXPECT_EQ(static_cast<TW_MEMREF>(&msg), sent.pEvent);
        EXPECT_EQ(MSG_NULL, sent.TWMessage);
        EXPECT_TRUE(viewer.Records().empty()) << viewer.Records().front().raw;
    }
    // The source itself, shown a message that is not its own.
    Reset();
    EXPECT_FALSE(isDSEvent(&msg));
    ASSERT_EQ((Strings{"DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> TWRC_NOTDSEVENT"}), Triplets());
    EXPECT_TRUE(app.Notices().empty());
}

TEST_F(EventTest, TransferReadyRunsTheTransferBetweenTheCapturingRecords) {
    Open(SM_XFER_MEMORY);
    size_t recordsAtStart = 0, recordsAtEnd = 0;
    app.onXferStart = [&](const Notice &, ScanImageInfo *) { recordsAtStart = viewer.Records().size(); };
    app.onXferEnd = [&](const Notice &, ScanImageInfo *) { recordsAtEnd = viewer.Records().size(); };
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const std::vector<TraceLine> &records = viewer.Records();
    const int coming = FindRecord(records, "Trace", kFilter, kXferReadyComing);
    const int leaving = FindRecord(records, "Trace", kFilter, kXferReadyLeaving);
    ASSERT_GE(coming, 0);
    ASSERT_GT(leaving, coming);
    EXPECT_EQ(1, viewer.CountText(kXferReadyComing));
    EXPECT_EQ(1, viewer.CountText(kXferReadyLeaving));
    EXPECT_GT(recordsAtStart, static_cast<size_t>(coming)) << "XferStart arrived before the capturing record";
    EXPECT_LE(recordsAtEnd, static_cast<size_t>(leaving)) << "XferEnd arrived after the transfer was left";
    EXPECT_EQ(0, viewer.CountText(kCloseComing)) << "the close request here is the module's own";
}

TEST_F(EventTest, SuppressTwainTwoLeavesTheImagesPending) {
    SuppressSetting suppress(2);
    ASSERT_EQ(2u, suppress.Value());
    Open(SM_XFER_MEMORY);
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    Reset();
    ASSERT_TRUE(PumpUntilSourceEvent(MSG_XFERREADY));
    Drain();
    EXPECT_TRUE(app.Notices().empty()) << app.Briefs().front();
    EXPECT_EQ(VSCAN_STATE_XFERREADY, scanner.Info().state) << "the images stay pending";
    const std::vector<TdsmCall> calls = CallsSinceMark();
    const int event = FindSourceEvent(calls, MSG_XFERREADY);
    ASSERT_GE(event, 0);
    for (size_t i = event + 1; i < calls.size(); ++i)
        EXPECT_EQ("DG_CONTROL/DAT_EVENT/MSG_PROCESSEVENT -> TWRC_NOTDSEVENT", Describe(calls[i]))
            << "nothing but the filter after the event";
    // The event is still captured, and nothing happens inside it.
    const std::vector<TraceLine> &records = viewer.Records();
    const int coming = FindRecord(records, "Trace", kFilter, kXferReadyComing);
    ASSERT_GE(coming, 0);
    ASSERT_LT(coming + 1, static_cast<int>(records.size()));
    EXPECT_EQ(kXferReadyLeaving, records[coming + 1].text);
    // An application reading the images itself would end them; here the source ends the batch.
    EndTransferAtTheSource();
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
}

class EventSuppressValueTest : public EventTest, public ::testing::WithParamInterface<int> {};

TEST_P(EventSuppressValueTest, TransferRunsAsWithoutTheSwitch) {
    SuppressSetting suppress(GetParam());
    ASSERT_EQ(static_cast<UINT>(GetParam()), suppress.Value());
    Open(SM_XFER_MEMORY);
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_GE(app.Count(NoticeKind::XferData), 1);
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
    EXPECT_EQ(1, scanner.Info().imagesDone);
}

INSTANTIATE_TEST_SUITE_P(Event, EventSuppressValueTest, ::testing::Values(1, 5, 0),
                         [](const ::testing::TestParamInfo<int> &info) {
                             return "Value" + std::to_string(info.param);
                         });

TEST_F(EventTest, CloseRequestIsPassedOnAndTheSourceStaysEnabled) {
    Open(SM_XFER_MEMORY);
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_CLOSEREQUESTAFTER, 0)) << "the user closes before any scan";
    size_t recordsAtRequest = 0;
    app.onCloseDSReq = [&](const Notice &) { recordsAtRequest = viewer.Records().size(); };
    ASSERT_TRUE(Acquire());
    Drain();
    ASSERT_EQ((Strings{"CloseDSReq"}), app.Briefs());
    EXPECT_EQ(0u, app.Notices()[0].wParam);
    EXPECT_EQ(0, app.Notices()[0].lParam);
    // Disabling and closing are the application's business.
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ(0, CountTriplet(calls, DG_CONTROL, DAT_USERINTERFACE, MSG_DISABLEDS));
    EXPECT_EQ(0, CountTriplet(calls, DG_CONTROL, DAT_IDENTITY, MSG_CLOSEDS));
    WORD pending = 0;
    EXPECT_EQ(SM_OK, getPendingCount(&pending)) << "the module is still in state 5";
    const std::vector<TraceLine> &records = viewer.Records();
    const int coming = FindRecord(records, "Trace", kFilter, kCloseComing);
    const int leaving = FindRecord(records, "Trace", kFilter, kCloseLeaving);
    ASSERT_GE(coming, 0);
    ASSERT_GT(leaving, coming);
    EXPECT_GT(recordsAtRequest, static_cast<size_t>(coming));
    EXPECT_LE(recordsAtRequest, static_cast<size_t>(leaving));
    EXPECT_EQ(1, viewer.CountText(kCloseComing));
    EXPECT_EQ(0, viewer.CountText(kXferReadyComing));
}

TEST_F(EventTest, CloseRequestAfterTheImagesOfAnInterface) {
    Open(SM_XFER_MEMORY);
    scanner.setAutoScan(VSCAN_AUTO_SCAN_CLOSE);
    ASSERT_TRUE(Acquire(TRUE));
    Drain();
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline())
        << "the interface asks once; the module adds nothing with its interface shown";
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
    EXPECT_EQ(1, viewer.CountText(kCloseComing));
    EXPECT_EQ(1, viewer.CountText(kCloseLeaving));
}

TEST_F(EventTest, MechanismIsAskedOfTheSourceAtEveryTransferReady) {
    Open(SM_XFER_NATIVE);
    // The module is told that the source now transfers by memory, but the source stays native.
    script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_SUCCESS, TWCC_SUCCESS);
    ASSERT_EQ(SM_OK, setXferMech(SM_XFER_MEMORY));
    Reset();
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_EQ(0, app.Count(NoticeKind::XferData));
    EXPECT_EQ(SM_XFER_NATIVE, app.Notices()[0].image.mechanism);
    std::vector<TdsmCall> calls = CallsSinceMark();
    int event = FindSourceEvent(calls, MSG_XFERREADY);
    ASSERT_GE(event, 0);
    int query = FindTriplet(calls, DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, event);
    const int info = FindTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, event);
    ASSERT_GE(query, 0) << "the mechanism was not asked";
    EXPECT_EQ(ICAP_XFERMECH, calls[query].capIn.cap);
    EXPECT_LT(query, info);
    EXPECT_EQ(1, CountTriplet(calls, DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET));
    EXPECT_EQ(0, CountTriplet(calls, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET));
    FreeReceivedBitmaps();

    // Second batch: the source transfers by memory, the module believes native, and the question fails.
    ASSERT_EQ(SM_OK, disableDS());
    ASSERT_EQ(SM_OK, setXferMech(SM_XFER_MEMORY));
    script.failOnce(DG_CONTROL, DAT_CAPABILITY, MSG_SET, TWRC_SUCCESS, TWCC_SUCCESS);
    ASSERT_EQ(SM_OK, setXferMech(SM_XFER_NATIVE));
    ASSERT_EQ(1, scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, ICAP_XFERMECH, TWRC_FAILURE,
                                     TWCC_BUMMER, 1, 0));
    ASSERT_EQ(1,
              scanner.failTriplet(DG_CONTROL, DAT_CAPABILITY, MSG_GET, ICAP_XFERMECH, TWRC_FAILURE, TWCC_BUMMER, 1, 0));
    Reset();
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    EXPECT_GE(app.Count(NoticeKind::XferData), 1) << "a failed question runs the memory transfer";
    EXPECT_EQ(SM_XFER_MEMORY, app.Notices()[0].image.mechanism);
    calls = CallsSinceMark();
    event = FindSourceEvent(calls, MSG_XFERREADY);
    ASSERT_GE(event, 0);
    query = FindTriplet(calls, DG_CONTROL, DAT_CAPABILITY, MSG_GETCURRENT, event);
    ASSERT_GE(query, 0) << "the mechanism was not asked again";
    EXPECT_EQ(ICAP_XFERMECH, calls[query].capIn.cap);
    EXPECT_EQ(TWRC_FAILURE, calls[query].rc);
    EXPECT_LT(query, FindTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, event));
    EXPECT_EQ(0, CountTriplet(calls, DG_IMAGE, DAT_IMAGENATIVEXFER, MSG_GET));
    EXPECT_GE(CountTriplet(calls, DG_IMAGE, DAT_IMAGEMEMXFER, MSG_GET), 1);
}

TEST_F(EventTest, PixelTypeAboveEightKeepsThePreviousImagesFlag) {
    Open(SM_XFER_NATIVE, Format{TWPT_GRAY, 8}, 2);
    app.onXferEnd = [this](const Notice &notice, ScanImageInfo *) {
        if (app.Count(NoticeKind::XferEnd) == 1 && notice.wParam == SM_OK)
            scanner.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 9);
    };
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const std::vector<TdsmCall> calls = CallsSinceMark();
    const int second =
        FindTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET, FindTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET) + 1);
    ASSERT_GE(second, 0);
    ASSERT_EQ(9, ImageInfoOf(calls[second]).PixelType) << "the source reports the odd type for the second image";
    EXPECT_EQ(SM_PIXEL_GRAY, app.Notices()[0].image.pixelTypeFlag);
    EXPECT_EQ(SM_PIXEL_GRAY, app.Notices()[2].image.pixelTypeFlag) << "the second image keeps the first one's flag";
    EXPECT_EQ(SM_PIXEL_GRAY, app.Notices()[3].image.pixelTypeFlag);
}

TEST_F(EventTest, PixelTypeAboveEightOnTheFirstImageKeepsZero) {
    Open(SM_XFER_NATIVE);
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_IMAGEPIXELTYPE, 9));
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    ASSERT_EQ(9, FirstImageInfo().PixelType);
    EXPECT_EQ(0, app.Notices()[0].image.pixelTypeFlag) << "a fresh library's record starts at 0";
}

struct UnitCase {
    const char *name;
    TW_UINT16 unit;
    double factor;
    bool dpiInEveryUnit; // the source answers dots per inch in this unit, for numbers that survive the factor
};

void PrintTo(const UnitCase &c, std::ostream *out) {
    *out << c.name;
}

class EventUnitFactorTest : public EventTest, public ::testing::WithParamInterface<UnitCase> {};

TEST_P(EventUnitFactorTest, ResolutionIsScaledByTheFactorOfTheUnit) {
    const UnitCase &c = GetParam();
    Open(SM_XFER_MEMORY);
    // A one-inch frame at 600 dpi keeps the image small and the numbers large.
    const auto setImageLayout = library.Get<LONG(WINAPI *)(double, double, double, double, WORD)>("smSetImageLayout");
    ASSERT_EQ(SM_OK, setImageLayout(0, 0, 1, 1, SM_UNIT_INCHES));
    const auto setResolution = [this](const char *name) { return library.Get<LONG(WINAPI *)(LONG)>(name)(600); };
    ASSERT_EQ(SM_OK, setResolution("smSetXResolution"));
    ASSERT_EQ(SM_OK, setResolution("smSetYResolution"));
    if (c.dpiInEveryUnit) {
        ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_DPIINEVERYUNIT, 1));
    }
    SetUnit(c.unit);
    Reset();
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const TW_IMAGEINFO info = FirstImageInfo();
    const double x = Fix32ToDouble(info.XResolution), y = Fix32ToDouble(info.YResolution);
    const short expectedX = static_cast<short>(static_cast<int>(x * c.factor));
    const short expectedY = static_cast<short>(static_cast<int>(y * c.factor));
    EXPECT_EQ(expectedX, app.Notices()[0].image.xResolution) << "source reports " << x;
    EXPECT_EQ(expectedY, app.Notices()[0].image.yResolution) << "source reports " << y;
    EXPECT_EQ(expectedX, EndOf(app).image.xResolution) << "XferStart and XferEnd share the record";
    if (c.factor != 1) {
        EXPECT_NE(static_cast<int>(x), expectedX) << "the case cannot tell the factor from 1";
    }
}

INSTANTIATE_TEST_SUITE_P(Event, EventUnitFactorTest,
                         ::testing::Values(UnitCase{"Inches", TWUN_INCHES, 1, false},
                                           UnitCase{"Centimetres", TWUN_CENTIMETERS, 0.39370078740157477, false},
                                           UnitCase{"Picas", TWUN_PICAS, 1.0 / 6, false},
                                           UnitCase{"Points", TWUN_POINTS, 1.0 / 72, true},
                                           UnitCase{"Twips", TWUN_TWIPS, 1.0 / 1440, true},
                                           UnitCase{"Pixels", TWUN_PIXELS, 1, false}),
                         [](const ::testing::TestParamInfo<UnitCase> &info) { return info.param.name; });

TEST_F(EventTest, NegativeResolutionIsStoredAsMinusOne) {
    Open(SM_XFER_MEMORY);
    const double values[] = {-50};
    ASSERT_EQ(1, scanner.setValues(ICAP_XRESOLUTION, 1, values));
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(LONG)>("smSetXResolution")(-50))
        << "the scanner takes the value it was given to list";
    Reset();
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const TW_IMAGEINFO info = FirstImageInfo();
    ASSERT_EQ(-50.0, Fix32ToDouble(info.XResolution)) << "the source reports the negative resolution";
    EXPECT_EQ(-1, app.Notices()[0].image.xResolution) << "0xFFFF, not the truncated -50";
    EXPECT_EQ(static_cast<short>(Fix32ToDouble(info.YResolution)), app.Notices()[0].image.yResolution);
}

class EventCancelTest : public EventTest, public ::testing::WithParamInterface<LONG> {
protected:
    // Three pages by `mechanism`, files named as they come; `cancel` runs in every XferStart handler after the name.
    void OpenWithCancelAtStart(LONG mechanism, FileNames &names, std::function<void()> cancel) {
        Open(mechanism, Format{}, 3);
        NameFilesFor(mechanism, names);
        const auto name = app.onXferStart;
        app.onXferStart = [name, cancel](const Notice &notice, ScanImageInfo *image) {
            if (name)
                name(notice, image);
            cancel();
        };
    }
};

TEST_P(EventCancelTest, CancelThisXferSkipsOnlyThatImage) {
    const LONG mechanism = GetParam();
    FileNames names(std::string("cancelthis") + MechanismName(mechanism));
    OpenWithCancelAtStart(mechanism, names, [this] {
        if (app.Count(NoticeKind::XferStart) == 1)
            cancelThisXfer();
    });
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(-5)", "XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}),
              app.Outline());
    const std::string warning = std::string("AP cancel image xfer in TScanModule::") + MechanismName(mechanism);
    EXPECT_EQ(1, viewer.CountText(warning));
    EXPECT_EQ(warning, Warnings().empty() ? "" : Warnings().front());
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ((Strings{kEndXfer, kEndXfer, kEndXfer}), PendingTriplets(calls));
    EXPECT_EQ(2, scanner.Info().imagesStarted) << "the cancelled image was never fetched";
    EXPECT_EQ(3, CountTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET));
}

TEST_P(EventCancelTest, CancelAllXferResetsThePendingImages) {
    const LONG mechanism = GetParam();
    FileNames names(std::string("cancelall") + MechanismName(mechanism));
    OpenWithCancelAtStart(mechanism, names, [this] { cancelAllXfer(); });
    size_t callsAtEnd = 0;
    app.onXferEnd = [&](const Notice &, ScanImageInfo *) { callsAtEnd = CallsSinceMark().size(); };
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(-5)", "CloseDSReq"}), app.Outline());
    const int reset = FindTriplet(CallsSinceMark(), DG_CONTROL, DAT_PENDINGXFERS, MSG_RESET);
    EXPECT_GE(reset, static_cast<int>(callsAtEnd)) << "the pending images are reset after the image's XferEnd";
    EXPECT_EQ(1, viewer.CountText(std::string("AP cancel image xfer in TScanModule::") + MechanismName(mechanism)));
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ((Strings{kEndXfer, kReset}), PendingTriplets(calls));
    EXPECT_EQ(1, CountTriplet(calls, DG_IMAGE, DAT_IMAGEINFO, MSG_GET)) << "no further image";
    EXPECT_EQ(0, scanner.Info().imagesStarted);
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
    EXPECT_EQ(0, scanner.Info().pending);
}

INSTANTIATE_TEST_SUITE_P(Event, EventCancelTest, ::testing::Values(SM_XFER_NATIVE, SM_XFER_FILE, SM_XFER_MEMORY),
                         [](const ::testing::TestParamInfo<LONG> &info) {
                             return std::string(MechanismName(info.param)).substr(2);
                         });

} // namespace
