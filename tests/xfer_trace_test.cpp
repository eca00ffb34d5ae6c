// The records a three-page memory transfer writes, from the transfer-ready event to the end of the batch, in order,
// with the separators that show the depth of the calls.
#include <gtest/gtest.h>

#include <sstream>

#include "XferTest.h"
#include "vscan.h"

using namespace smtest;

namespace {

using Strings = std::vector<std::string>;

constexpr int kPages = 3;
// A buffer smaller than a page, so that each image comes in several blocks.
constexpr DWORD kBufferSize = 20000;
constexpr int kRowBytes = kSmallPageWidth * 3; // 318: RGB rows as the scanner sends them, not a multiple of 4
constexpr int kRowsPerBlock = kBufferSize / kRowBytes;
constexpr int kBlocksPerImage = (kSmallPageLength + kRowsPerBlock - 1) / kRowsPerBlock;
const std::string kSeparator = "    ";

std::string Source(int n) {
    return "F:\\smkernal\\Sm_" + std::to_string(n) + ".cpp";
}

// The expected records, built call by call as "Level source text"; separators are added afterwards.
class Expected {
public:
    void Trace(int file, const std::string &text) { lines_.push_back("Trace " + Source(file) + " " + text); }
    void Coming(int file, const std::string &method) { Trace(file, "Coming TScanModule::" + method); }
    void Leaving(int file, const std::string &method) { Trace(file, "Leaving TScanModule::" + method); }
    // The availability test that opens every call to the source manager.
    void Available() {
        Coming(1, "IsTWAINAvailable");
        Coming(1, "IsTWAINLoaded");
        Trace(1, "TScanModule::IsTWAINLoaded returns TRUE");
        Leaving(1, "IsTWAINLoaded");
        Trace(1, "TScanModule::IsTWAINAvailable returns TRUE");
        Leaving(1, "IsTWAINAvailable");
    }
    // A capability getter answered at its first message with a one-value, which the codec reads.
    void Getter(int file, const std::string &method) {
        Coming(file, method);
        Available();
        Coming(4, "CapNegotiate");
        Available();
        Leaving(4, "CapNegotiate");
        lines_.push_back("Trace F:\\smkernal\\Utility.cpp Coming ExtractOneValue");
        lines_.push_back("Trace F:\\smkernal\\Utility.cpp Leaving ExtractOneValue");
        Leaving(file, method);
    }
    // A call of the transfer-end group that only tests availability before it calls the source manager.
    void AvailableOnly(int file, const std::string &method) {
        Coming(file, method);
        Available();
        Leaving(file, method);
    }
    void Transfer(const std::string &text) { Trace(8, text + " in TScanModule::DoMemXfer"); }

    // The lines with the viewer's separators: three before every "Coming" record written at depth 0; "Coming" raises
    // the depth, "Leaving" lowers it.
    Strings WithSeparators(int depth) const {
        Strings out;
        for (const std::string &line : lines_) {
            const bool trace = line.compare(0, 6, "Trace ") == 0;
            if (trace && line.find("Coming") != std::string::npos) {
                if (depth == 0)
                    out.insert(out.end(), 3, kSeparator);
                ++depth;
            }
            out.push_back(line);
            if (trace && line.find("Leaving") != std::string::npos)
                --depth;
        }
        return out;
    }

private:
    Strings lines_;
};

Strings Received(const std::vector<TraceLine> &records, size_t from = 0) {
    Strings out;
    for (size_t i = from; i < records.size(); ++i)
        out.push_back(records[i].IsSeparator() ? kSeparator
                                               : records[i].level + " " + records[i].source + " " + records[i].text);
    return out;
}

// Where two record lists part, with the lines around it.
std::string FirstDifference(const Strings &expected, const Strings &got) {
    size_t at = 0;
    while (at < expected.size() && at < got.size() && expected[at] == got[at])
        ++at;
    std::ostringstream out;
    out << "expected " << expected.size() << " records, got " << got.size() << "; first difference at " << at << "\n";
    const size_t from = at >= 4 ? at - 4 : 0;
    for (size_t i = from; i < at + 4; ++i)
        out << i << ":\n  expected [" << (i < expected.size() ? expected[i] : "-") << "]\n  got      ["
            << (i < got.size() ? got[i] : "-") << "]\n";
    return out.str();
}

class XferTraceTest : public XferTest {};

TEST_F(XferTraceTest, ThreePageMemoryTransferWritesTheseRecords) {
    Open(SM_XFER_MEMORY, Format{}, kPages);
    ASSERT_EQ(1, scanner.setFault(VSCAN_FAULT_PREFERREDBUFSIZE, kBufferSize));
    ASSERT_EQ(SM_OK, enableDS(FALSE, FALSE));
    Reset();
    ASSERT_TRUE(Pump([this] { return app.Count(NoticeKind::CloseDSReq) > 0; }));
    ASSERT_EQ(kPages * (kBlocksPerImage + 2) + 1, static_cast<int>(app.Notices().size()))
        << "every page in " << kBlocksPerImage << " blocks";
    int memoryCalls = 0;
    for (const TdsmCall &call : CallsSinceMark())
        memoryCalls += call.dat == DAT_IMAGEMEMXFER;
    ASSERT_EQ(kPages * kBlocksPerImage, memoryCalls);

    Expected expected;
    expected.Trace(1, "Coming TScanModule::IsDSEvent capturing MSG_XFERREADY");
    expected.Coming(1, "ProcessScanImage");
    expected.Getter(6, "GetXferMech");
    expected.Coming(8, "DoMemXfer");
    for (int page = 1; page <= kPages; ++page) {
        expected.AvailableOnly(7, "GetMemXferSize");
        expected.Getter(5, "GetUnit");
        expected.Transfer("Send WM_XFERSTART");
        // The module's buffer, once chosen, stays in the descriptor for the images that follow.
        if (page == 1)
            expected.Transfer("Memory buffer size =" + std::to_string(kBufferSize));
        expected.Transfer("Do while-loop to get image data");
        for (int block = 1; block <= kBlocksPerImage; ++block) {
            expected.Transfer("MSG_GET DAT_IMAGEMEMXFER");
            // The bitmap row length, for the row check and the block record alike.
            expected.Coming(11, "ImageBytesPerRow");
            expected.Leaving(11, "ImageBytesPerRow");
            expected.Transfer("Process memory buffer");
            expected.Transfer("not 4-byte align");
            expected.Trace(8, "Swap R,G data in TScanModuke::DoMemXfer");
            expected.Transfer("Send WM_XFERDATA");
        }
        expected.AvailableOnly(7, "EndThisXfer");
    }
    expected.Transfer("Send SM_CLOSEDSREQ");
    // The memory transfer never writes its exit record.
    expected.Leaving(1, "ProcessScanImage");
    expected.Trace(1, "Leaving TScanModule::IsDSEvent capturing MSG_XFERREADY");

    const Strings want = expected.WithSeparators(0);
    const Strings got = Received(viewer.Records());
    EXPECT_EQ(want, got) << FirstDifference(want, got);

    // The depth the transfer left raised: the next outermost call gets no separators.
    const size_t before = viewer.Records().size();
    WORD unit = 0;
    ASSERT_EQ(SM_OK, library.Get<LONG(WINAPI *)(WORD *)>("smGetUnit")(&unit));
    const Strings next = Received(viewer.Records(), before);
    ASSERT_FALSE(next.empty());
    EXPECT_EQ("Trace " + Source(5) + " Coming TScanModule::GetUnit", next.front())
        << "a call at depth 0 would have been opened by separators";
}

} // namespace
