// Native and file transfers run by the event filter: the bitmaps and files delivered, who owns a bitmap, the file
// name the source is given, and each way an image can fail, with the records written for it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "GlobalMemoryTracker.h"
#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

const char kTransfers[] = "F:\\smkernal\\Sm_8.cpp";
const std::string kEndXfer = "DG_CONTROL/DAT_PENDINGXFERS/MSG_ENDXFER -> TWRC_SUCCESS";
const std::string kCloseRequestTrace = "Send WM_CLOSEDSREQ in TScanModule::DoNativeXfer";

const char *MethodOf(LONG mechanism) {
    return mechanism == SM_XFER_NATIVE ? "DoNativeXfer" : "DoFileXfer";
}

std::string In(const char *what, LONG mechanism) {
    return std::string(what) + " in TScanModule::" + MethodOf(mechanism);
}

TW_UINT16 FetchOf(LONG mechanism) {
    return mechanism == SM_XFER_NATIVE ? DAT_IMAGENATIVEXFER : DAT_IMAGEFILEXFER;
}

std::string NameOf(const ::testing::TestParamInfo<LONG> &info) {
    return std::string(MethodOf(info.param)).substr(2);
}

std::vector<const Notice *> Ends(const NotificationWindow &app) {
    std::vector<const Notice *> out;
    for (const Notice &notice : app.Notices())
        if (notice.kind == NoticeKind::XferEnd)
            out.push_back(&notice);
    return out;
}

// The calls of an image's life: its information, the file set-up, the fetch, the status asked, its end.
Strings ImageCalls(const std::vector<TdsmCall> &calls) {
    Strings out;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_IMAGEINFO || call.dat == DAT_SETUPFILEXFER || call.dat == DAT_IMAGENATIVEXFER ||
            call.dat == DAT_IMAGEFILEXFER || call.dat == DAT_STATUS || call.dat == DAT_PENDINGXFERS)
            out.push_back(Describe(call));
    return out;
}

int Count(const std::vector<TdsmCall> &calls, TW_UINT16 dat, TW_UINT16 msg) {
    return static_cast<int>(
        std::count_if(calls.begin(), calls.end(), [&](const TdsmCall &c) { return c.dat == dat && c.msg == msg; }));
}

// The bitmap handles the source handed over, in order.
std::vector<HGLOBAL> HandlesFromTheSource(const std::vector<TdsmCall> &calls) {
    std::vector<HGLOBAL> out;
    for (const TdsmCall &call : calls)
        if (call.dat == DAT_IMAGENATIVEXFER && call.rc == TWRC_XFERDONE) {
            TW_UINT32 handle = 0;
            std::memcpy(&handle, call.dataOut, sizeof handle);
            out.push_back(reinterpret_cast<HGLOBAL>(static_cast<UINT_PTR>(handle)));
        }
    return out;
}

std::vector<TW_SETUPFILEXFER> FileSetups(const std::vector<TdsmCall> &calls) {
    std::vector<TW_SETUPFILEXFER> out;
    for (const TdsmCall &call : calls)
        if (call.dg == DG_CONTROL && call.dat == DAT_SETUPFILEXFER && call.msg == MSG_SET) {
            TW_SETUPFILEXFER setup = {};
            std::memcpy(&setup, call.dataIn, sizeof setup);
            out.push_back(setup);
        }
    return out;
}

int CountRecords(const std::vector<TraceLine> &records, const std::string &level, const std::string &text) {
    return static_cast<int>(std::count_if(records.begin(), records.end(), [&](const TraceLine &record) {
        return record.level == level && record.source == kTransfers && record.text == text;
    }));
}

::testing::AssertionResult HandleHoldsPage(HGLOBAL handle, int page) {
    if (!handle)
        return ::testing::AssertionFailure() << "no bitmap";
    Dib dib;
    const ::testing::AssertionResult read = ReadPackedDib(handle, dib);
    if (!read)
        return read;
    return DibMatches(Format{}, dib, kSmallPageWidth, kSmallPageLength, page);
}

::testing::AssertionResult FileHoldsPage(const std::string &name, int page) {
    Dib dib;
    ReadBmpFile(name, dib);
    if (::testing::Test::HasFatalFailure())
        return ::testing::AssertionFailure() << name << " holds no bitmap";
    return DibMatches(Format{}, dib, kSmallPageWidth, kSmallPageLength, page);
}

std::string TempDirectory() {
    char directory[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, directory);
    return directory;
}

class NativeFileTest : public XferTest {
protected:
    void TearDown() override {
        XferTest::TearDown();
        for (const std::string &name : files)
            DeleteFileA(name.c_str());
    }
    // A file transfer names every image's file while it handles XferStart; the names are removed at the end.
    void NameEveryFile(LONG mechanism, const std::string &tag) {
        if (mechanism != SM_XFER_FILE)
            return;
        app.onXferStart = [this, tag](const Notice &, ScanImageInfo *image) {
            files.push_back(TempDirectory() + "smk_" + tag + "_" + std::to_string(files.size() + 1) + ".bmp");
            lstrcpynA(static_cast<char *>(image->xferTarget), files.back().c_str(), 256);
        };
    }
    // Every message still queued goes through the filter.
    void Drain() {
        Pump([] {
            MSG msg;
            return !PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);
        });
    }

    std::vector<std::string> files;
};

class NativeFileMechanismTest : public NativeFileTest, public ::testing::WithParamInterface<LONG> {};

TEST_P(NativeFileMechanismTest, EveryPageArrivesWithItsRecords) {
    const LONG mechanism = GetParam();
    Open(mechanism, Format{}, 3);
    NameEveryFile(mechanism, "pages");
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}),
              app.Outline());
    const std::vector<const Notice *> ends = Ends(app);
    for (int page = 1; page <= 3; ++page) {
        SCOPED_TRACE("page " + std::to_string(page));
        const ScanImageInfo &image = ends[page - 1]->image;
        EXPECT_EQ(50, image.xResolution);
        EXPECT_EQ(50, image.yResolution);
        EXPECT_EQ(kSmallPageWidth, image.imageWidth);
        EXPECT_EQ(kSmallPageLength, image.imageLength);
        EXPECT_EQ(3, image.samplesPerPixel);
        EXPECT_EQ((std::vector<short>{8, 8, 8, 0, 0, 0, 0, 0}),
                  std::vector<short>(image.bitsPerSample, image.bitsPerSample + 8));
        EXPECT_EQ(24, image.bitsPerPixel);
        EXPECT_EQ(0, image.planar);
        EXPECT_EQ(SM_PIXEL_RGB, image.pixelTypeFlag);
        EXPECT_EQ(0, image.compression);
        EXPECT_EQ(mechanism, image.mechanism);
        EXPECT_NE(nullptr, image.xferTarget);
        EXPECT_EQ(ends[0]->lParam, ends[page - 1]->lParam) << "one record for every image";
        if (mechanism == SM_XFER_NATIVE)
            EXPECT_TRUE(HandleHoldsPage(ends[page - 1]->handleAtTarget, page));
        else
            EXPECT_TRUE(FileHoldsPage(ends[page - 1]->fileNameAtTarget, page));
    }
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ(3, Count(calls, DAT_PENDINGXFERS, MSG_ENDXFER));
    EXPECT_EQ(0, Count(calls, DAT_PENDINGXFERS, MSG_RESET));
    const std::vector<TraceLine> &records = viewer.Records();
    EXPECT_EQ(3, CountRecords(records, "Trace", In("Send WM_XFERSTART", mechanism)));
    EXPECT_EQ(1, CountRecords(records, "Trace", kCloseRequestTrace));
    if (mechanism == SM_XFER_NATIVE) {
        EXPECT_EQ(3, CountRecords(records, "Trace", "MSG_GET DAT_IMAGENATIVEXFER in TScanModule::DoNativeXfer"));
        EXPECT_EQ(Strings(3, "MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer"), Warnings())
            << "the success path writes it for every image";
        EXPECT_EQ(3,
                  CountRecords(records, "Warning", "MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer"));
    } else {
        EXPECT_EQ(3, CountRecords(records, "Trace", "MSG_SET DAT_SETUPFILEXFER in TScanModule::DoFileXfer"));
        EXPECT_EQ(3, CountRecords(records, "Trace", "Get image by DAT_IMAGEFILEXFER"));
        EXPECT_TRUE(Warnings().empty()) << Warnings().front();
    }
}

TEST_P(NativeFileMechanismTest, FailedImageInfoSkipsTheImageButEndsIt) {
    const LONG mechanism = GetParam();
    Open(mechanism, Format{}, 3);
    NameEveryFile(mechanism, "noinfo");
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, DAT_IMAGEINFO, MSG_GET, 0, TWRC_FAILURE, TWCC_BUMMER, 2, 1));
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const std::string info = "DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS";
    const Strings fetch = mechanism == SM_XFER_NATIVE ? Strings{"DG_IMAGE/DAT_IMAGENATIVEXFER/MSG_GET -> TWRC_XFERDONE"}
                                                      : Strings{"DG_CONTROL/DAT_SETUPFILEXFER/MSG_SET -> TWRC_SUCCESS",
                                                                "DG_IMAGE/DAT_IMAGEFILEXFER/MSG_GET -> TWRC_XFERDONE"};
    Strings expected = {info};
    expected.insert(expected.end(), fetch.begin(), fetch.end());
    expected.push_back(kEndXfer);
    expected.push_back("DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_FAILURE");
    expected.push_back(kEndXfer);
    expected.push_back(info);
    expected.insert(expected.end(), fetch.begin(), fetch.end());
    expected.push_back(kEndXfer);
    EXPECT_EQ(expected, ImageCalls(CallsSinceMark()));
    EXPECT_EQ(1, CountRecords(viewer.Records(), "Warning", In("Error in get DAT_IMAGEINFO", mechanism)));
    EXPECT_EQ(2, CountRecords(viewer.Records(), "Trace", In("Send WM_XFERSTART", mechanism)));
    // The image after the skipped one is the third page.
    const std::vector<const Notice *> ends = Ends(app);
    if (mechanism == SM_XFER_NATIVE) {
        EXPECT_TRUE(HandleHoldsPage(ends[0]->handleAtTarget, 1));
        EXPECT_TRUE(HandleHoldsPage(ends[1]->handleAtTarget, 3));
    } else {
        EXPECT_TRUE(FileHoldsPage(ends[0]->fileNameAtTarget, 1));
        EXPECT_TRUE(FileHoldsPage(ends[1]->fileNameAtTarget, 3));
    }
}

TEST_P(NativeFileMechanismTest, SourceCancelEndsThatImageWithMinusFour) {
    const LONG mechanism = GetParam();
    Open(mechanism, Format{}, 3);
    NameEveryFile(mechanism, "cancel");
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_CANCELIMAGE, 2));
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(-4)", "XferStart", "XferEnd(0)", "CloseDSReq"}),
              app.Outline());
    EXPECT_EQ(1, CountRecords(viewer.Records(), "Warning", In("Image xfer canceled", mechanism)));
    EXPECT_EQ(0, CountRecords(viewer.Records(), "Warning", In("Image xfer error", mechanism)));
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ(3, Count(calls, DAT_PENDINGXFERS, MSG_ENDXFER));
    EXPECT_EQ(0, Count(calls, DAT_PENDINGXFERS, MSG_RESET));
    EXPECT_EQ(0, Count(calls, DAT_STATUS, MSG_GET)) << "a cancel needs no condition code";
    if (mechanism == SM_XFER_NATIVE) {
        EXPECT_EQ(2, CountRecords(viewer.Records(), "Warning",
                                  "MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer"))
            << "once per delivered image";
    }
}

INSTANTIATE_TEST_SUITE_P(NativeFile, NativeFileMechanismTest, ::testing::Values(SM_XFER_NATIVE, SM_XFER_FILE), NameOf);

struct FetchFailure {
    LONG mechanism;
    TW_UINT16 cc;
};

void PrintTo(const FetchFailure &f, std::ostream *out) {
    *out << MethodOf(f.mechanism) << " " << TwccName(f.cc);
}

class NativeFileFetchFailureTest : public NativeFileTest, public ::testing::WithParamInterface<FetchFailure> {};

TEST_P(NativeFileFetchFailureTest, ImageEndsWithTheConditionCode) {
    const FetchFailure &f = GetParam();
    Open(f.mechanism, Format{}, 2);
    NameEveryFile(f.mechanism, "fail");
    ASSERT_EQ(1, scanner.failTriplet(DG_IMAGE, FetchOf(f.mechanism), MSG_GET, 0, TWRC_FAILURE, f.cc, 1, 1));
    ASSERT_TRUE(Acquire());
    Drain();
    EXPECT_EQ((Strings{"XferStart", "XferEnd(" + std::to_string(f.cc) + ")", "XferStart", "XferEnd(0)", "CloseDSReq"}),
              app.Outline())
        << "the condition code is " << TwccName(f.cc) << "; these transfers ask to be closed once, whatever it was";
    EXPECT_EQ(1, CountRecords(viewer.Records(), "Warning", In("Image xfer error", f.mechanism)));
    EXPECT_EQ(0, CountRecords(viewer.Records(), "Warning", In("Image xfer canceled", f.mechanism)));
    const std::vector<TdsmCall> calls = CallsSinceMark();
    EXPECT_EQ(1, Count(calls, DAT_STATUS, MSG_GET));
    EXPECT_EQ(2, Count(calls, DAT_PENDINGXFERS, MSG_ENDXFER));
    EXPECT_EQ(0, Count(calls, DAT_PENDINGXFERS, MSG_RESET));
    const Notice &failed = *Ends(app)[0];
    if (f.mechanism == SM_XFER_NATIVE) {
        EXPECT_EQ(1, CountRecords(viewer.Records(), "Warning",
                                  "MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer"))
            << "only the delivered image";
    }
    EXPECT_EQ(f.mechanism, failed.image.mechanism);
}

INSTANTIATE_TEST_SUITE_P(NativeFile, NativeFileFetchFailureTest,
                         ::testing::Values(FetchFailure{SM_XFER_NATIVE, TWCC_BUMMER},
                                           FetchFailure{SM_XFER_NATIVE, TWCC_OPERATIONERROR},
                                           FetchFailure{SM_XFER_FILE, TWCC_BUMMER},
                                           FetchFailure{SM_XFER_FILE, TWCC_OPERATIONERROR}),
                         [](const ::testing::TestParamInfo<FetchFailure> &info) {
                             return std::string(MethodOf(info.param.mechanism)).substr(2) +
                                    (info.param.cc == TWCC_BUMMER ? "Bummer" : "OperationError");
                         });

TEST_F(NativeFileTest, ClearedTargetMakesTheModuleFreeTheBitmap) {
    Open(SM_XFER_NATIVE, Format{}, 2);
    GlobalMemoryTracker tracker;
    ASSERT_GT(tracker.Attach(scanner.Module()), 0) << "the source's allocations";
    ASSERT_GT(tracker.Attach(library.Module()), 0) << "the module's frees";
    tracker.Begin();
    app.onXferStart = [this](const Notice &, ScanImageInfo *image) {
        if (app.Count(NoticeKind::XferStart) == 1)
            image->xferTarget = nullptr;
    };
    HGLOBAL first = nullptr;
    UINT flagsAtFirstEnd = 0;
    bool liveAtFirstEnd = true;
    app.onXferEnd = [&](const Notice &, ScanImageInfo *) {
        if (app.Count(NoticeKind::XferEnd) != 1)
            return;
        const std::vector<HGLOBAL> handles = HandlesFromTheSource(CallsSinceMark());
        if (handles.empty())
            return;
        first = handles.front();
        flagsAtFirstEnd = GlobalFlags(first);
        const std::vector<HGLOBAL> live = tracker.Live();
        liveAtFirstEnd = std::find(live.begin(), live.end(), first) != live.end();
    };
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline())
        << "the image freed by the module is still reported delivered";
    const std::vector<HGLOBAL> handles = HandlesFromTheSource(CallsSinceMark());
    ASSERT_EQ(2u, handles.size());
    ASSERT_EQ(first, handles[0]);
    EXPECT_FALSE(liveAtFirstEnd) << "the first bitmap was not freed before its XferEnd";
    EXPECT_EQ(static_cast<UINT>(GMEM_INVALID_HANDLE), flagsAtFirstEnd) << "the first bitmap's handle is still valid";
    const std::vector<HGLOBAL> live = tracker.Live();
    EXPECT_NE(live.end(), std::find(live.begin(), live.end(), handles[1])) << "the second bitmap is the application's";
    EXPECT_EQ(0, tracker.DoubleFrees());
    const std::vector<const Notice *> ends = Ends(app);
    EXPECT_EQ(nullptr, ends[0]->image.xferTarget);
    EXPECT_NE(nullptr, app.Notices()[2].image.xferTarget) << "every image starts with the module's slot";
    EXPECT_EQ(handles[1], ends[1]->handleAtTarget);
    EXPECT_TRUE(HandleHoldsPage(ends[1]->handleAtTarget, 2));
    tracker.Detach();
    EXPECT_EQ(1, FreeReceivedBitmaps());
}

TEST_F(NativeFileTest, OwnHandleVariableReceivesTheBitmap) {
    Open(SM_XFER_NATIVE);
    HGLOBAL mine = nullptr;
    void *moduleSlot = nullptr;
    app.onXferStart = [&](const Notice &, ScanImageInfo *image) {
        moduleSlot = image->xferTarget;
        image->xferTarget = &mine;
    };
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    ASSERT_NE(nullptr, moduleSlot);
    const std::vector<HGLOBAL> handles = HandlesFromTheSource(CallsSinceMark());
    ASSERT_EQ(1u, handles.size());
    EXPECT_EQ(handles[0], mine);
    EXPECT_EQ(static_cast<void *>(&mine), Ends(app)[0]->image.xferTarget);
    EXPECT_TRUE(HandleHoldsPage(mine, 1));
    EXPECT_EQ(1, FreeReceivedBitmaps()) << "the application frees it once, through its own variable";
}

TEST_F(NativeFileTest, SuccessWarningIsWrittenOncePerDeliveredImage) {
    Open(SM_XFER_NATIVE, Format{}, 3);
    app.onXferStart = [this](const Notice &, ScanImageInfo *) {
        if (app.Count(NoticeKind::XferStart) == 2)
            cancelThisXfer();
    };
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(-5)", "XferStart", "XferEnd(0)", "CloseDSReq"}),
              app.Outline());
    EXPECT_EQ((Strings{"MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer",
                       "AP cancel image xfer in TScanModule::DoNativeXfer",
                       "MSG_GET DAT_IMAGENATIVEXFER error in TScanModule::DoNativeXfer"}),
              Warnings());
    EXPECT_EQ(2, CountRecords(viewer.Records(), "Trace", "MSG_GET DAT_IMAGENATIVEXFER in TScanModule::DoNativeXfer"));
}

TEST_F(NativeFileTest, FileTransferGivesTheSourceTheNameAsABitmapFile) {
    Open(SM_XFER_FILE, Format{}, 2);
    NameEveryFile(SM_XFER_FILE, "setup");
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const std::vector<TW_SETUPFILEXFER> setups = FileSetups(CallsSinceMark());
    ASSERT_EQ(2u, setups.size());
    ASSERT_EQ(2u, files.size());
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(files[i], std::string(setups[i].FileName));
        EXPECT_EQ(TWFF_BMP, setups[i].Format);
        EXPECT_EQ(files[i], Ends(app)[i]->fileNameAtTarget);
        EXPECT_TRUE(FileHoldsPage(files[i], i + 1));
    }
    // Set-up, then the fetch, for each image.
    const std::vector<TraceLine> &records = viewer.Records();
    std::vector<std::string> order;
    for (const TraceLine &record : records)
        if (record.text == "MSG_SET DAT_SETUPFILEXFER in TScanModule::DoFileXfer" ||
            record.text == "Get image by DAT_IMAGEFILEXFER")
            order.push_back(record.level + " " + record.source + " " + record.text);
    const std::string setup =
        std::string("Trace ") + kTransfers + " MSG_SET DAT_SETUPFILEXFER in TScanModule::DoFileXfer";
    const std::string fetch = std::string("Trace ") + kTransfers + " Get image by DAT_IMAGEFILEXFER";
    EXPECT_EQ((Strings{setup, fetch, setup, fetch}), order);
}

TEST_F(NativeFileTest, RefusedFileNameEndsTheImageWithTheConditionCode) {
    Open(SM_XFER_FILE);
    app.onXferStart = [](const Notice &, ScanImageInfo *image) { static_cast<char *>(image->xferTarget)[0] = '\0'; };
    ASSERT_TRUE(Acquire());
    EXPECT_EQ((Strings{"XferStart", "XferEnd(" + std::to_string(TWCC_BADVALUE) + ")", "CloseDSReq"}), app.Outline())
        << "an empty name is refused with " << TwccName(TWCC_BADVALUE);
    EXPECT_EQ((Strings{"DG_IMAGE/DAT_IMAGEINFO/MSG_GET -> TWRC_SUCCESS",
                       "DG_CONTROL/DAT_SETUPFILEXFER/MSG_SET -> TWRC_FAILURE",
                       "DG_CONTROL/DAT_STATUS/MSG_GET -> TWRC_SUCCESS", kEndXfer}),
              ImageCalls(CallsSinceMark()));
    EXPECT_EQ((Strings{"MSG_SET DAT_SETUPFILEXFER error in TScanModule::DoFileXfer"}), Warnings());
    EXPECT_EQ(0, viewer.CountText("Get image by DAT_IMAGEFILEXFER"));
}

struct PercentCase {
    const char *name;
    const char *written;
    const char *given;
};

void PrintTo(const PercentCase &c, std::ostream *out) {
    *out << c.written;
}

class NativeFilePercentNameTest : public NativeFileTest, public ::testing::WithParamInterface<PercentCase> {};

TEST_P(NativeFilePercentNameTest, NameIsExpandedAsAFormatWithoutArguments) {
    const PercentCase &c = GetParam();
    const std::string written = TempDirectory() + "smk_" + c.written + ".bmp";
    const std::string given = TempDirectory() + "smk_" + c.given + ".bmp";
    files.push_back(given);
    DeleteFileA(given.c_str());
    Open(SM_XFER_FILE);
    app.onXferStart = [&written](const Notice &, ScanImageInfo *image) {
        lstrcpynA(static_cast<char *>(image->xferTarget), written.c_str(), 256);
    };
    ASSERT_TRUE(Acquire());
    ASSERT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
    const std::vector<TW_SETUPFILEXFER> setups = FileSetups(CallsSinceMark());
    ASSERT_EQ(1u, setups.size());
    EXPECT_EQ(given, std::string(setups[0].FileName)) << "written as " << written;
    EXPECT_EQ(written, Ends(app)[0]->fileNameAtTarget) << "the application's buffer keeps what it wrote";
    EXPECT_TRUE(FileHoldsPage(given, 1));
}

INSTANTIATE_TEST_SUITE_P(NativeFile, NativeFilePercentNameTest,
                         ::testing::Values(PercentCase{"DoublePercent", "a%%b", "a%b"},
                                           PercentCase{"Decimal", "a%db", "a0b"},
                                           PercentCase{"String", "a%sb", "a(null)b"}),
                         [](const ::testing::TestParamInfo<PercentCase> &info) { return info.param.name; });

struct InterfaceCase {
    LONG mechanism;
    BOOL showUI;
};

void PrintTo(const InterfaceCase &c, std::ostream *out) {
    *out << MethodOf(c.mechanism) << " showUI " << c.showUI;
}

class NativeFileCloseRequestTest : public NativeFileTest, public ::testing::WithParamInterface<InterfaceCase> {};

TEST_P(NativeFileCloseRequestTest, OnlyTransfersWithoutTheInterfaceAskToBeClosed) {
    const InterfaceCase &c = GetParam();
    Open(c.mechanism);
    NameEveryFile(c.mechanism, "close");
    if (c.showUI) {
        scanner.setAutoScan(VSCAN_AUTO_SCAN);
        ASSERT_EQ(SM_OK, enableDS(TRUE, FALSE));
        ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::XferEnd) == 1; }));
    } else {
        ASSERT_TRUE(Acquire());
    }
    Drain();
    if (c.showUI) {
        EXPECT_EQ((Strings{"XferStart", "XferEnd(0)"}), app.Outline()) << "the interface closes itself";
        EXPECT_EQ(0, CountRecords(viewer.Records(), "Trace", kCloseRequestTrace));
    } else {
        EXPECT_EQ((Strings{"XferStart", "XferEnd(0)", "CloseDSReq"}), app.Outline());
        EXPECT_EQ(1, CountRecords(viewer.Records(), "Trace", kCloseRequestTrace))
            << "both methods write the native method's text";
    }
    EXPECT_EQ(0, viewer.CountText("Send WM_CLOSEDSREQ in TScanModule::DoFileXfer"));
    EXPECT_EQ(VSCAN_STATE_ENABLED, scanner.Info().state);
}

INSTANTIATE_TEST_SUITE_P(NativeFile, NativeFileCloseRequestTest,
                         ::testing::Values(InterfaceCase{SM_XFER_NATIVE, FALSE}, InterfaceCase{SM_XFER_NATIVE, TRUE},
                                           InterfaceCase{SM_XFER_FILE, FALSE}, InterfaceCase{SM_XFER_FILE, TRUE}),
                         [](const ::testing::TestParamInfo<InterfaceCase> &info) {
                             return std::string(MethodOf(info.param.mechanism)).substr(2) +
                                    (info.param.showUI ? "WithInterface" : "WithoutInterface");
                         });

} // namespace
