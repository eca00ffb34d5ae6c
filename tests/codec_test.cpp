// White-box tests of the container codec: extractions, builders, the block check and the TW_FIX32 conversions.

// Every item type goes through every container; the trace records of each function, the builders' blocks byte
// by byte and malformed containers are checked too.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "Trace.h"
#include "Utility.h"

namespace {

const char kUtilitySource[] = "F:\\smkernal\\Utility.cpp";
const TW_UINT32 kDirtyCell = 0xDEADBEEF;

using Bytes = std::vector<BYTE>;

// Little-endian packing, as 32-bit Windows lays the containers out (2-byte alignment).
void Put16(Bytes &out, TW_UINT16 value) {
    out.push_back(static_cast<BYTE>(value));
    out.push_back(static_cast<BYTE>(value >> 8));
}

void Put32(Bytes &out, TW_UINT32 value) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<BYTE>(value >> (8 * i)));
}

void PutN(Bytes &out, TW_UINT32 value, TW_UINT32 width) {
    for (TW_UINT32 i = 0; i < width; ++i)
        out.push_back(static_cast<BYTE>(value >> (8 * i)));
}

// One item type as the tests see it: the bytes an extraction copies (0: refused) and the bytes an item takes
// in a built list.
struct TypeCase {
    TW_UINT16 type;
    const char *name;
    TW_UINT32 cellWidth;
    TW_UINT32 listWidth;
};

const TypeCase kTypes[] = {
    {TWTY_INT8, "INT8", 1, 1},     {TWTY_INT16, "INT16", 2, 2},   {TWTY_INT32, "INT32", 4, 4},
    {TWTY_UINT8, "UINT8", 1, 1},   {TWTY_UINT16, "UINT16", 2, 2}, {TWTY_UINT32, "UINT32", 4, 4},
    {TWTY_BOOL, "BOOL", 2, 2},     {TWTY_FIX32, "FIX32", 4, 4},   {TWTY_FRAME, "FRAME", 0, 4},
    {TWTY_STR32, "STR32", 0, 4},   {TWTY_STR255, "STR255", 0, 4}, {0x000D, "Unknown13", 0, 4},
    {0x7FFF, "Unknown7FFF", 0, 4}, {0xFFFF, "UnknownFFFF", 0, 4},
};

void PrintTo(const TypeCase &type, std::ostream *out) {
    *out << type.name;
}

std::string TypeName(const ::testing::TestParamInfo<TypeCase> &info) {
    return info.param.name;
}

// What a cell holds after `value` was copied with `width` bytes: the low bytes, zero-extended.
TW_UINT32 LowBytes(TW_UINT32 value, TW_UINT32 width) {
    return width >= 4 ? value : value & ((1u << (8 * width)) - 1);
}

Bytes OneValue(TW_UINT16 type, TW_UINT32 item) {
    Bytes out;
    Put16(out, type);
    Put32(out, item);
    return out;
}

Bytes Enumeration(TW_UINT16 type, TW_UINT32 numItems, TW_UINT32 current, TW_UINT32 defaultIndex, const Bytes &items) {
    Bytes out;
    Put16(out, type);
    Put32(out, numItems);
    Put32(out, current);
    Put32(out, defaultIndex);
    out.insert(out.end(), items.begin(), items.end());
    return out;
}

Bytes Range(TW_UINT16 type, TW_UINT32 minValue, TW_UINT32 maxValue, TW_UINT32 step, TW_UINT32 defaultValue,
            TW_UINT32 current) {
    Bytes out;
    Put16(out, type);
    for (TW_UINT32 field : {minValue, maxValue, step, defaultValue, current})
        Put32(out, field);
    return out;
}

Bytes PackItems(const std::vector<TW_UINT32> &values, TW_UINT32 width) {
    Bytes out;
    for (TW_UINT32 value : values)
        PutN(out, value, width);
    return out;
}

// A movable global block holding `content` (cut or zero-padded to `size` bytes when a size is given),
// freed when the test ends.
class GlobalBlock {
public:
    explicit GlobalBlock(const Bytes &content, SIZE_T size = 0) {
        const SIZE_T bytes = size ? size : content.size();
        handle_ = GlobalAlloc(GHND, bytes);
        if (!handle_)
            return;
        BYTE *block = static_cast<BYTE *>(GlobalLock(handle_));
        std::memcpy(block, content.data(), content.size() < bytes ? content.size() : bytes);
        GlobalUnlock(handle_);
    }
    ~GlobalBlock() {
        if (handle_)
            GlobalFree(handle_);
    }
    GlobalBlock(const GlobalBlock &) = delete;
    GlobalBlock &operator=(const GlobalBlock &) = delete;
    HGLOBAL Handle() const { return handle_; }
    TW_CAPABILITY Capability(TW_UINT16 conType) const {
        TW_CAPABILITY capability = {ICAP_BRIGHTNESS, conType, handle_};
        return capability;
    }

private:
    HGLOBAL handle_ = nullptr;
};

// The whole content of a global block.
Bytes BlockBytes(HGLOBAL handle) {
    const SIZE_T size = GlobalSize(handle);
    Bytes out(size);
    const BYTE *block = static_cast<const BYTE *>(GlobalLock(handle));
    if (block)
        std::memcpy(out.data(), block, size);
    GlobalUnlock(handle);
    return out;
}

UINT LockCount(HGLOBAL handle) {
    return GlobalFlags(handle) & GMEM_LOCKCOUNT;
}

std::vector<std::string> Traced(const std::string &function) {
    return {"Trace Coming " + function, "Trace Leaving " + function};
}

std::vector<std::string> Traced(const std::string &function, const std::string &warning) {
    return {"Trace Coming " + function, "Warning " + warning + " in " + function, "Trace Leaving " + function};
}

// Each test runs with a viewer and tracing switched on, so that it can assert the exact records.
class Codec : public ::testing::Test {
protected:
    void SetUp() override {
        smtest::WriteDebugIni(1, 1);
        viewer_.Start();
        TraceStartup();
        traceDepth = 0;
        ASSERT_NE(nullptr, traceStream) << "the trace did not find the viewer";
    }

    void TearDown() override {
        codecGlobalAlloc = GlobalAlloc;
        codecGlobalLock = GlobalLock;
        TraceShutdown();
        traceStream = nullptr;
        viewer_.Stop();
        for (HGLOBAL handle : built_)
            GlobalFree(handle);
    }

    // The records so far as "Level text", each checked to come from the codec's source file with a line.
    std::vector<std::string> Records() const {
        std::vector<std::string> out;
        for (const smtest::TraceLine &record : viewer_.Records()) {
            if (record.IsSeparator())
                continue;
            EXPECT_EQ(kUtilitySource, record.source) << record.raw;
            EXPECT_GT(record.line, 0) << record.raw;
            out.push_back(record.level + " " + record.text);
        }
        return out;
    }

    // A block a builder allocated, freed when the test ends.
    void Own(HGLOBAL handle) {
        if (handle)
            built_.push_back(handle);
    }

    smtest::TraceViewer viewer_;
    std::vector<HGLOBAL> built_;
};

// Stand-ins for the global-memory calls, to provoke the failures real memory does not show.
HGLOBAL lastAllocated = nullptr;

HGLOBAL WINAPI FailingAlloc(UINT, SIZE_T) {
    return nullptr;
}

HGLOBAL WINAPI RecordingAlloc(UINT flags, SIZE_T bytes) {
    lastAllocated = GlobalAlloc(flags, bytes);
    return lastAllocated;
}

LPVOID WINAPI FailingLock(HGLOBAL) {
    return nullptr;
}

// ---------------------------------------------------------------------------------------------------------
// Item sizes

TEST_F(Codec, ItemSizeIsOneTwoOrFourBytesAndFourForEveryTypeAboveSeven) {
    for (const TypeCase &type : kTypes)
        EXPECT_EQ(type.listWidth, ItemSize(type.type)) << type.name;
    for (TW_UINT32 type = 8; type <= 0xFFFF; ++type)
        ASSERT_EQ(4u, ItemSize(static_cast<TW_UINT16>(type))) << type;
    EXPECT_TRUE(Records().empty());
}

// ---------------------------------------------------------------------------------------------------------
// One-value

class CodecOneValueByType : public Codec, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(CodecOneValueByType, CopiesTheItemWithItsTypesWidthIntoAZeroedCell) {
    const TypeCase &type = GetParam();
    GlobalBlock block(OneValue(type.type, 0xA1B2C3D4));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;

    const int result = ExtractOneValue(&capability, &cell);

    if (type.cellWidth) {
        EXPECT_EQ(TWCC_SUCCESS, result);
        EXPECT_EQ(LowBytes(0xA1B2C3D4, type.cellWidth), cell);
    } else {
        EXPECT_EQ(TWCC_BADVALUE, result);
        EXPECT_EQ(0u, cell);
    }
    // An unknown type is not traced: the records are the same either way.
    EXPECT_EQ(Traced("ExtractOneValue"), Records());
    EXPECT_EQ(block.Handle(), capability.hContainer);
    EXPECT_EQ(0u, LockCount(block.Handle()));
    EXPECT_EQ(OneValue(type.type, 0xA1B2C3D4), BlockBytes(block.Handle()));
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CodecOneValueByType, ::testing::ValuesIn(kTypes), TypeName);

TEST_F(Codec, OneValueBoolHoldingOneYieldsExactlyOne) {
    GlobalBlock block(OneValue(TWTY_BOOL, 0xABCD0001));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(1u, cell);
}

TEST_F(Codec, OneValueInt8MinusOneArrivesZeroExtendedAs255) {
    GlobalBlock block(OneValue(TWTY_INT8, static_cast<TW_UINT32>(-1)));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(255u, cell);
}

TEST_F(Codec, OneValueInt16MinusOneArrivesZeroExtendedAs65535) {
    GlobalBlock block(OneValue(TWTY_INT16, static_cast<TW_UINT32>(-1)));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(65535u, cell);
}

TEST_F(Codec, OneValueFrameIsRefusedWithBadValueAndCellZero) {
    GlobalBlock block(OneValue(TWTY_FRAME, 0x00010002));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_TRUE(viewer_.Texts("Warning").empty());
}

TEST_F(Codec, OneValueWithNullHandleWarnsInvalidMemoryAndReturnsBadValue) {
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, TWON_ONEVALUE, nullptr};
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractOneValue", "Invalid memory"), Records());
}

TEST_F(Codec, OneValueLockFailureReturnsBadValueNotLowMemory) {
    GlobalBlock block(OneValue(TWTY_UINT32, 7));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    codecGlobalLock = FailingLock;
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractOneValue", "Lock memory error"), Records());
}

TEST_F(Codec, OneValueOfExactlySixBytesIsRead) {
    GlobalBlock block(OneValue(TWTY_UINT32, 0x01020304), 6);
    ASSERT_EQ(6u, GlobalSize(block.Handle()));
    TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(0x01020304u, cell);
}

TEST_F(Codec, OneValueShorterThanSixBytesIsRefusedInsteadOfReadPastTheBlock) {
    for (SIZE_T size : {1, 2, 3, 5}) {
        viewer_.Clear();
        GlobalBlock block(OneValue(TWTY_UINT8, 0x55), size);
        ASSERT_EQ(size, GlobalSize(block.Handle()));
        TW_CAPABILITY capability = block.Capability(TWON_ONEVALUE);
        TW_UINT32 cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell)) << size;
        EXPECT_EQ(0u, cell) << size;
        EXPECT_EQ(Traced("ExtractOneValue", "Invalid memory"), Records()) << size;
        EXPECT_EQ(0u, LockCount(block.Handle())) << size;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Handles that are not global memory

TEST_F(Codec, HandlesThatAreNotGlobalMemoryTakeTheLockFailurePath) {
    // GlobalLock reads a pointer-shaped handle under a page-fault guard; see TestBench.PageFaultsArriveAs...
    if (smtest::PageFaultExceptionCode() != EXCEPTION_ACCESS_VIOLATION)
        GTEST_SKIP() << "page faults reach Wine here as illegal instructions (qemu-user hands them over without their "
                        "trap number), so GlobalLock's guarded read of a bogus handle crashes inside Wine";
    // A handle-shaped value and a pointer-shaped one, neither of them mapped.
    for (HANDLE bogus : {reinterpret_cast<HANDLE>(0x0BAD0002), reinterpret_cast<HANDLE>(0x00000010)}) {
        TW_CAPABILITY capability = {ICAP_BRIGHTNESS, TWON_ONEVALUE, bogus};
        TW_UINT32 cell = kDirtyCell;

        viewer_.Clear();
        EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell)) << bogus;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractOneValue", "Lock memory error"), Records());

        viewer_.Clear();
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_LOWMEMORY, ExtractEnumerationNumItems(&capability, &cell)) << bogus;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractEnumerationNumItems", "Lock memory error"), Records());

        viewer_.Clear();
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_LOWMEMORY, ExtractEnumerationValue(&capability, &cell, 0)) << bogus;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractEnumerationValue", "Lock memory error"), Records());

        viewer_.Clear();
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_LOWMEMORY, ExtractRangeValue(&capability, &cell, -1)) << bogus;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractRangeValue", "Lock memory error"), Records());
    }
}

TEST_F(Codec, ReadableMemoryThatIsNoGlobalBlockIsNeverReadAsAContainer) {
    // A well-formed one-value on the stack, aligned so that it looks like a pointer rather than a movable
    // handle. The lock hands such a handle back as it is (that is how fixed blocks are addressed), but it has
    // no global block size, so nothing is read from it.
    const Bytes content = OneValue(TWTY_UINT32, 0x12345678);
    alignas(8) BYTE onStack[8] = {};
    std::memcpy(onStack, content.data(), content.size());
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, TWON_ONEVALUE, onStack};
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractOneValue", "Invalid memory"), Records());
}

// ---------------------------------------------------------------------------------------------------------
// Enumeration: the number of items

class CodecEnumerationCountByType : public Codec, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(CodecEnumerationCountByType, DeliversTheCountWithTheItemTypesWidth) {
    const TypeCase &type = GetParam();
    // A block that holds the whole list, so that only the width of the delivered count is at stake.
    const TW_UINT32 listBytes = type.cellWidth ? type.cellWidth * 0x00012345 : 4;
    GlobalBlock block(Enumeration(type.type, 0x00012345, 0, 0, Bytes(listBytes)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;

    const int result = ExtractEnumerationNumItems(&capability, &cell);

    if (type.cellWidth) {
        EXPECT_EQ(TWCC_SUCCESS, result);
        EXPECT_EQ(LowBytes(0x00012345, type.cellWidth), cell);
    } else {
        EXPECT_EQ(TWCC_BADVALUE, result);
        EXPECT_EQ(0u, cell);
    }
    EXPECT_EQ(Traced("ExtractEnumerationNumItems"), Records());
    EXPECT_EQ(0u, LockCount(block.Handle()));
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CodecEnumerationCountByType, ::testing::ValuesIn(kTypes), TypeName);

TEST_F(Codec, Uint8EnumerationOf300ItemsReports44) {
    std::vector<TW_UINT32> values(300);
    for (TW_UINT32 i = 0; i < values.size(); ++i)
        values[i] = i;
    GlobalBlock block(Enumeration(TWTY_UINT8, 300, 0, 0, PackItems(values, 1)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(44u, cell);
}

TEST_F(Codec, Int32EnumerationOf300ItemsReports300) {
    GlobalBlock block(Enumeration(TWTY_INT32, 300, 0, 0, Bytes(1200)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(300u, cell);
}

TEST_F(Codec, EnumerationCountWithNullHandleWarnsInvalidMemory) {
    TW_CAPABILITY capability = {ICAP_PIXELTYPE, TWON_ENUMERATION, nullptr};
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationNumItems", "Invalid memory"), Records());
}

TEST_F(Codec, EnumerationCountLockFailureReturnsLowMemory) {
    GlobalBlock block(Enumeration(TWTY_UINT16, 1, 0, 0, Bytes(2)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    codecGlobalLock = FailingLock;
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_LOWMEMORY, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationNumItems", "Lock memory error"), Records());
}

TEST_F(Codec, EnumerationHeaderShorterThan14BytesIsRefused) {
    for (SIZE_T size : {2, 6, 13}) {
        GlobalBlock block(Enumeration(TWTY_UINT16, 1, 0, 0, Bytes(2)), size);
        ASSERT_EQ(size, GlobalSize(block.Handle()));
        TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);

        viewer_.Clear();
        TW_UINT32 cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationNumItems(&capability, &cell)) << size;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractEnumerationNumItems", "Invalid memory"), Records());

        viewer_.Clear();
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, 0)) << size;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractEnumerationValue", "Invalid memory"), Records());
        EXPECT_EQ(0u, LockCount(block.Handle()));
    }
}

// ---------------------------------------------------------------------------------------------------------
// Enumeration: items

const std::vector<TW_UINT32> kFourItems = {0x11A1B1C1, 0x22A2B2C2, 0x33A3B3C3, 0x44A4B4C4};

class CodecEnumerationItemByType : public Codec, public ::testing::WithParamInterface<TypeCase> {
protected:
    // Four items spaced by the type's list width; current 2, default 1.
    Bytes FourItemEnumeration() const {
        return Enumeration(GetParam().type, 4, 2, 1, PackItems(kFourItems, GetParam().listWidth));
    }
    int Read(TW_INT32 index, TW_UINT32 *cell) {
        GlobalBlock block(FourItemEnumeration());
        TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
        *cell = kDirtyCell;
        const int result = ExtractEnumerationValue(&capability, cell, index);
        EXPECT_EQ(0u, LockCount(block.Handle()));
        return result;
    }
    void ExpectItem(TW_INT32 index, size_t position) {
        TW_UINT32 cell;
        const int result = Read(index, &cell);
        if (GetParam().cellWidth) {
            EXPECT_EQ(TWCC_SUCCESS, result) << "index " << index;
            EXPECT_EQ(LowBytes(kFourItems[position], GetParam().cellWidth), cell) << "index " << index;
        } else {
            EXPECT_EQ(TWCC_BADVALUE, result) << "index " << index;
            EXPECT_EQ(0u, cell) << "index " << index;
        }
    }
};

TEST_P(CodecEnumerationItemByType, MinusTwoReadsTheCurrentItem) {
    ExpectItem(-2, 2);
    EXPECT_EQ(Traced("ExtractEnumerationValue"), Records());
}

TEST_P(CodecEnumerationItemByType, MinusOneReadsTheDefaultItem) {
    ExpectItem(-1, 1);
    EXPECT_EQ(Traced("ExtractEnumerationValue"), Records());
}

TEST_P(CodecEnumerationItemByType, OtherIndexesAreListPositions) {
    for (TW_INT32 index = 0; index < 4; ++index)
        ExpectItem(index, static_cast<size_t>(index));
}

TEST_P(CodecEnumerationItemByType, CurrentForwardsWithMinusTwoAndWritesOnlyTheValueRecords) {
    GlobalBlock block(FourItemEnumeration());
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    const int result = ExtractEnumerationCurrent(&capability, &cell);
    if (GetParam().cellWidth) {
        EXPECT_EQ(TWCC_SUCCESS, result);
        EXPECT_EQ(LowBytes(kFourItems[2], GetParam().cellWidth), cell);
    } else {
        EXPECT_EQ(TWCC_BADVALUE, result);
        EXPECT_EQ(0u, cell);
    }
    EXPECT_EQ(Traced("ExtractEnumerationValue"), Records());
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CodecEnumerationItemByType, ::testing::ValuesIn(kTypes), TypeName);

TEST_F(Codec, EnumerationPositionIsNotCheckedAgainstNumItems) {
    // NumItems says 1, but the block holds four items: position 3 is read all the same.
    GlobalBlock block(Enumeration(TWTY_UINT16, 1, 0, 0, PackItems({10, 20, 30, 40}, 2)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationValue(&capability, &cell, 3));
    EXPECT_EQ(40u, cell);
}

TEST_F(Codec, EnumerationItemEndingExactlyAtTheBlocksEndIsRead) {
    GlobalBlock block(Enumeration(TWTY_UINT32, 3, 2, 0, PackItems({1, 2, 3}, 4)));
    ASSERT_EQ(14u + 12u, GlobalSize(block.Handle()));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationValue(&capability, &cell, 2));
    EXPECT_EQ(3u, cell);
    cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationCurrent(&capability, &cell));
    EXPECT_EQ(3u, cell);
}

TEST_F(Codec, EnumerationWhoseCountRunsPastTheBlockIsRefusedWhole) {
    // Three UINT16 items, but a count of 0x10003: cut to 16 bits the count would look right.
    GlobalBlock block(Enumeration(TWTY_UINT16, 0x10003, 0, 0, PackItems({1, 2, 3}, 2)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationNumItems", "Invalid memory"), Records());
    for (TW_INT32 index : {0, 2, -1, -2}) {
        viewer_.Clear();
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, index)) << index;
        EXPECT_EQ(0u, cell) << index;
    }
    EXPECT_EQ(0u, LockCount(block.Handle()));
}

TEST_F(Codec, EnumerationIndexPastTheBlockIsRefusedWithBadValue) {
    GlobalBlock block(Enumeration(TWTY_UINT32, 3, 0, 0, PackItems({1, 2, 3}, 4)));
    ASSERT_EQ(26u, GlobalSize(block.Handle()));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    // -4 and below put the item before the block's start; -3 would read inside it (see below).
    for (TW_INT32 index : {3, 4, 1000, INT_MAX, -4, -5, INT_MIN}) {
        viewer_.Clear();
        TW_UINT32 cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, index)) << index;
        EXPECT_EQ(0u, cell) << index;
        EXPECT_EQ(Traced("ExtractEnumerationValue", "Invalid memory"), Records()) << index;
    }
    EXPECT_EQ(0u, LockCount(block.Handle()));
}

TEST_F(Codec, NegativeIndexesBelowMinusTwoAreListPositionsToo) {
    // Three UINT32 items: position -3 starts 12 bytes before the list, at offset 2, the NumItems field.
    GlobalBlock block(Enumeration(TWTY_UINT32, 3, 0, 1, PackItems({1, 2, 3}, 4)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationValue(&capability, &cell, -3));
    EXPECT_EQ(3u, cell) << "NumItems, read as an item";
    EXPECT_EQ(Traced("ExtractEnumerationValue"), Records());
    // Two-byte items: -5 is offset 4 (the high word of NumItems), -6 offset 2, -7 offset 0 (ItemType).
    GlobalBlock words(Enumeration(TWTY_UINT16, 0x00050004, 0, 0, PackItems({1}, 2)), 14 + 0x50004 * 2);
    ASSERT_NE(nullptr, words.Handle());
    capability = words.Capability(TWON_ENUMERATION);
    const std::pair<TW_INT32, TW_UINT32> cases[] = {{-5, 5u}, {-6, 4u}, {-7, TWTY_UINT16}};
    for (const auto &item : cases) {
        cell = kDirtyCell;
        EXPECT_EQ(TWCC_SUCCESS, ExtractEnumerationValue(&capability, &cell, item.first)) << item.first;
        EXPECT_EQ(item.second, cell) << item.first;
    }
    cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, -8)) << "offset -2";
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(0u, LockCount(words.Handle()));
}

TEST_F(Codec, EnumerationWhoseLastItemOverlapsTheBlocksEndIsRefusedWhole) {
    // A UINT32 list whose last item has only two of its four bytes in the block: the list does not
    // fit, so not even its first item is read.
    GlobalBlock block(Enumeration(TWTY_UINT32, 2, 1, 0, PackItems({1, 2}, 4)), 14 + 6);
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    for (TW_INT32 index : {1, 0}) {
        TW_UINT32 cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, index)) << index;
        EXPECT_EQ(0u, cell) << index;
    }
}

TEST_F(Codec, CurrentOrDefaultIndexPastTheBlockIsRefusedWithBadValue) {
    for (TW_UINT32 stored : {3u, 0x40000000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        GlobalBlock block(Enumeration(TWTY_UINT16, 3, stored, stored, PackItems({1, 2, 3}, 2)));
        TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
        for (TW_INT32 index : {-2, -1}) {
            viewer_.Clear();
            TW_UINT32 cell = kDirtyCell;
            EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, index)) << stored;
            EXPECT_EQ(0u, cell);
            EXPECT_EQ(Traced("ExtractEnumerationValue", "Invalid memory"), Records());
        }
    }
}

TEST_F(Codec, EnumerationValueWithNullHandleWarnsInvalidMemory) {
    TW_CAPABILITY capability = {ICAP_PIXELTYPE, TWON_ENUMERATION, nullptr};
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationValue(&capability, &cell, -2));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationValue", "Invalid memory"), Records());

    viewer_.Clear();
    cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractEnumerationCurrent(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationValue", "Invalid memory"), Records());
}

TEST_F(Codec, EnumerationValueLockFailureReturnsLowMemory) {
    GlobalBlock block(Enumeration(TWTY_UINT16, 1, 0, 0, Bytes(2)));
    TW_CAPABILITY capability = block.Capability(TWON_ENUMERATION);
    codecGlobalLock = FailingLock;
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_LOWMEMORY, ExtractEnumerationValue(&capability, &cell, 0));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractEnumerationValue", "Lock memory error"), Records());
}

// ---------------------------------------------------------------------------------------------------------
// Range

const TW_UINT32 kMin = 0xF1E1D1C1, kMax = 0xF2E2D2C2, kStep = 0xF3E3D3C3, kDefault = 0xF4E4D4C4, kCurrent = 0xF5E5D5C5;

struct SelectorCase {
    TW_INT32 selector;
    TW_UINT32 field;
};

const SelectorCase kSelectors[] = {{-1, kMin},      {-2, kMax},     {-3, kStep},         {-4, kDefault},
                                   {-5, kCurrent},  {0, kCurrent},  {1, kCurrent},       {7, kCurrent},
                                   {100, kCurrent}, {-6, kCurrent}, {INT_MAX, kCurrent}, {INT_MIN, kCurrent}};

class CodecRangeByType : public Codec, public ::testing::WithParamInterface<TypeCase> {
protected:
    GlobalBlock block_{Range(GetParam().type, kMin, kMax, kStep, kDefault, kCurrent)};
    TW_CAPABILITY capability_ = block_.Capability(TWON_RANGE);

    void ExpectField(int result, TW_UINT32 cell, TW_UINT32 field, const char *what) {
        if (GetParam().cellWidth) {
            EXPECT_EQ(TWCC_SUCCESS, result) << what;
            EXPECT_EQ(LowBytes(field, GetParam().cellWidth), cell) << what;
        } else {
            EXPECT_EQ(TWCC_BADVALUE, result) << what;
            EXPECT_EQ(0u, cell) << what;
        }
    }
};

TEST_P(CodecRangeByType, SelectorPicksTheFieldAndEveryUndefinedSelectorTheCurrentValue) {
    for (const SelectorCase &selector : kSelectors) {
        viewer_.Clear();
        TW_UINT32 cell = kDirtyCell;
        const int result = ExtractRangeValue(&capability_, &cell, selector.selector);
        ExpectField(result, cell, selector.field, std::to_string(selector.selector).c_str());
        EXPECT_EQ(Traced("ExtractRangeValue"), Records());
    }
    EXPECT_EQ(0u, LockCount(block_.Handle()));
}

TEST_P(CodecRangeByType, ShortcutsForwardWithTheirSelectors) {
    struct Shortcut {
        int (*function)(TW_CAPABILITY *, TW_UINT32 *);
        TW_UINT32 field;
        const char *name;
    };
    const Shortcut shortcuts[] = {{ExtractRangeMin, kMin, "Min"},
                                  {ExtractRangeMax, kMax, "Max"},
                                  {ExtractRangeStep, kStep, "Step"},
                                  {ExtractRangeCurrent, kCurrent, "Current"}};
    for (const Shortcut &shortcut : shortcuts) {
        viewer_.Clear();
        TW_UINT32 cell = kDirtyCell;
        const int result = shortcut.function(&capability_, &cell);
        ExpectField(result, cell, shortcut.field, shortcut.name);
        EXPECT_EQ(Traced("ExtractRangeValue"), Records()) << shortcut.name;
    }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CodecRangeByType, ::testing::ValuesIn(kTypes), TypeName);

TEST_F(Codec, RangeSelectorSevenReturnsTheCurrentValue) {
    GlobalBlock block(Range(TWTY_INT32, 1, 2, 3, 4, 5));
    TW_CAPABILITY capability = block.Capability(TWON_RANGE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractRangeValue(&capability, &cell, 7));
    EXPECT_EQ(5u, cell);
}

TEST_F(Codec, RangeOfFramesIsRefusedWithBadValueAndCellZero) {
    GlobalBlock block(Range(TWTY_FRAME, 1, 2, 3, 4, 5));
    TW_CAPABILITY capability = block.Capability(TWON_RANGE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractRangeValue(&capability, &cell, -1));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractRangeValue"), Records());
}

TEST_F(Codec, RangeWithNullHandleWarnsInvalidMemory) {
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, TWON_RANGE, nullptr};
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractRangeMax(&capability, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractRangeValue", "Invalid memory"), Records());
}

TEST_F(Codec, RangeLockFailureReturnsLowMemory) {
    GlobalBlock block(Range(TWTY_INT32, 1, 2, 3, 4, 5));
    TW_CAPABILITY capability = block.Capability(TWON_RANGE);
    codecGlobalLock = FailingLock;
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_LOWMEMORY, ExtractRangeValue(&capability, &cell, -1));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractRangeValue", "Lock memory error"), Records());
}

TEST_F(Codec, RangeShorterThan22BytesIsRefusedForEverySelector) {
    // Even the minimum, which lies well inside 21 bytes: the container as a whole does not fit.
    GlobalBlock block(Range(TWTY_INT32, 1, 2, 3, 4, 5), 21);
    ASSERT_EQ(21u, GlobalSize(block.Handle()));
    TW_CAPABILITY capability = block.Capability(TWON_RANGE);
    for (TW_INT32 selector : {-1, -2, -3, -4, -5, 0}) {
        viewer_.Clear();
        TW_UINT32 cell = kDirtyCell;
        EXPECT_EQ(TWCC_BADVALUE, ExtractRangeValue(&capability, &cell, selector)) << selector;
        EXPECT_EQ(0u, cell);
        EXPECT_EQ(Traced("ExtractRangeValue", "Invalid memory"), Records());
    }
    EXPECT_EQ(0u, LockCount(block.Handle()));
}

TEST_F(Codec, RangeOfExactly22BytesIsRead) {
    GlobalBlock block(Range(TWTY_INT32, 1, 2, 3, 4, 5), 22);
    ASSERT_EQ(22u, GlobalSize(block.Handle()));
    TW_CAPABILITY capability = block.Capability(TWON_RANGE);
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_SUCCESS, ExtractRangeCurrent(&capability, &cell));
    EXPECT_EQ(5u, cell);
}

TEST_F(Codec, ExtractionOfANullCapabilityIsRefusedLikeANullHandle) {
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(TWCC_BADVALUE, ExtractOneValue(nullptr, &cell));
    EXPECT_EQ(0u, cell);
    EXPECT_EQ(Traced("ExtractOneValue", "Invalid memory"), Records());
}

// ---------------------------------------------------------------------------------------------------------
// The block check

// Refused by the extractions for lying past the block: false; everything else: true.
TEST_F(Codec, ContainersInsideTheirBlockPassTheBlockCheck) {
    GlobalBlock one(OneValue(TWTY_UINT16, 7)), range(Range(TWTY_FIX32, 1, 2, 3, 4, 5)),
        list(Enumeration(TWTY_UINT16, 3, 2, 0, PackItems({1, 2, 3}, 2)));
    TW_CAPABILITY capabilities[] = {one.Capability(TWON_ONEVALUE), range.Capability(TWON_RANGE),
                                    list.Capability(TWON_ENUMERATION)};
    for (const TW_CAPABILITY &capability : capabilities) {
        EXPECT_TRUE(ContainerWithinBlock(&capability)) << capability.ConType;
        EXPECT_EQ(0u, LockCount(capability.hContainer));
    }
    EXPECT_EQ(std::vector<std::string>{}, Records()) << "the check writes no record";
}

TEST_F(Codec, WhatTheExtractionsFailOnOtherwisePassesTheBlockCheck) {
    TW_CAPABILITY null = {ICAP_UNITS, TWON_ONEVALUE, nullptr};
    EXPECT_TRUE(ContainerWithinBlock(&null)) << "null handle";
    EXPECT_TRUE(ContainerWithinBlock(nullptr)) << "null capability";
    GlobalBlock unknown(Enumeration(0xF0, 0x10000, 0x10000, 0, Bytes(4)));
    TW_CAPABILITY unknownType = unknown.Capability(TWON_ENUMERATION);
    EXPECT_TRUE(ContainerWithinBlock(&unknownType)) << "unknown item type, whatever it claims";
    GlobalBlock array(Bytes{TWTY_UINT16, 0, 0xFF, 0xFF, 0, 0});
    TW_CAPABILITY notRead = array.Capability(TWON_ARRAY);
    EXPECT_TRUE(ContainerWithinBlock(&notRead)) << "a container type the codec never reads";
    GlobalBlock locked(OneValue(TWTY_UINT16, 1), 4);
    TW_CAPABILITY lockFails = locked.Capability(TWON_ONEVALUE);
    codecGlobalLock = FailingLock;
    EXPECT_TRUE(ContainerWithinBlock(&lockFails)) << "a block that cannot be locked";
    EXPECT_EQ(std::vector<std::string>{}, Records());
}

TEST_F(Codec, ContainersPastTheirBlockFailTheBlockCheck) {
    GlobalBlock shortOne(OneValue(TWTY_UINT16, 7), 5), shortRange(Range(TWTY_FIX32, 1, 2, 3, 4, 5), 21),
        shortHeader(Enumeration(TWTY_UINT16, 0, 0, 0, Bytes()), 13),
        longList(Enumeration(TWTY_UINT16, 0x10003, 0, 0, PackItems({1, 2, 3}, 2))),
        badCurrent(Enumeration(TWTY_UINT16, 3, 3, 0, PackItems({1, 2, 3}, 2))),
        badDefault(Enumeration(TWTY_UINT16, 3, 0, 0x10000, PackItems({1, 2, 3}, 2)));
    const std::pair<TW_CAPABILITY, const char *> cases[] = {
        {shortOne.Capability(TWON_ONEVALUE), "one-value of 5 bytes"},
        {shortRange.Capability(TWON_RANGE), "range of 21 bytes"},
        {shortHeader.Capability(TWON_ENUMERATION), "enumeration header of 13 bytes"},
        {longList.Capability(TWON_ENUMERATION), "item list past the block"},
        {badCurrent.Capability(TWON_ENUMERATION), "CurrentIndex past the items"},
        {badDefault.Capability(TWON_ENUMERATION), "DefaultIndex past the items"},
    };
    for (const auto &item : cases) {
        EXPECT_FALSE(ContainerWithinBlock(&item.first)) << item.second;
        EXPECT_EQ(0u, LockCount(item.first.hContainer)) << item.second;
    }
    EXPECT_EQ(std::vector<std::string>{}, Records());
}

// ---------------------------------------------------------------------------------------------------------
// Builders

class CodecBuildByType : public Codec, public ::testing::WithParamInterface<TypeCase> {};

TEST_P(CodecBuildByType, OneValueIsSixBytesWithTheWholeValueAndConTypeFive) {
    const TypeCase &type = GetParam();
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, 0, nullptr};

    EXPECT_EQ(TWCC_SUCCESS, BuildupOneValue(&capability, type.type, 0xA1B2C3D4));
    Own(capability.hContainer);

    ASSERT_NE(nullptr, capability.hContainer);
    EXPECT_EQ(TWON_ONEVALUE, capability.ConType);
    EXPECT_EQ(ICAP_BRIGHTNESS, capability.Cap);
    EXPECT_EQ(6u, GlobalSize(capability.hContainer));
    EXPECT_EQ(OneValue(type.type, 0xA1B2C3D4), BlockBytes(capability.hContainer));
    EXPECT_EQ(0u, LockCount(capability.hContainer));
    EXPECT_EQ(Traced("BuildupOneValue"), Records());

    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(type.cellWidth ? TWCC_SUCCESS : TWCC_BADVALUE, ExtractOneValue(&capability, &cell));
    EXPECT_EQ(type.cellWidth ? LowBytes(0xA1B2C3D4, type.cellWidth) : 0u, cell);
}

TEST_P(CodecBuildByType, EnumerationIsItemSizeTimesCountPlus16WithHeaderItemsAndZeroTail) {
    const TypeCase &type = GetParam();
    const Bytes items = PackItems(kFourItems, type.listWidth);
    TW_CAPABILITY capability = {ICAP_PIXELTYPE, 0, nullptr};

    EXPECT_EQ(TWCC_SUCCESS, BuildupEnumeration(&capability, type.type, 4, 3, 1, items.data()));
    Own(capability.hContainer);

    ASSERT_NE(nullptr, capability.hContainer);
    EXPECT_EQ(TWON_ENUMERATION, capability.ConType);
    EXPECT_EQ(type.listWidth * 4 + 16, GlobalSize(capability.hContainer));
    Bytes expected = Enumeration(type.type, 4, 3, 1, items);
    expected.resize(expected.size() + 2, 0);
    EXPECT_EQ(expected, BlockBytes(capability.hContainer));
    EXPECT_EQ(0u, LockCount(capability.hContainer));
    EXPECT_EQ(Traced("BuildupEnumeration"), Records());

    // What the builder wrote reads back through the extractions.
    TW_UINT32 cell = kDirtyCell;
    EXPECT_EQ(type.cellWidth ? TWCC_SUCCESS : TWCC_BADVALUE, ExtractEnumerationNumItems(&capability, &cell));
    EXPECT_EQ(type.cellWidth ? 4u : 0u, cell);
    cell = kDirtyCell;
    EXPECT_EQ(type.cellWidth ? TWCC_SUCCESS : TWCC_BADVALUE, ExtractEnumerationCurrent(&capability, &cell));
    EXPECT_EQ(type.cellWidth ? LowBytes(kFourItems[3], type.cellWidth) : 0u, cell);
}

TEST_P(CodecBuildByType, ArrayIsItemSizeTimesCountPlus8WithHeaderItemsAndZeroTail) {
    const TypeCase &type = GetParam();
    const Bytes items = PackItems(kFourItems, type.listWidth);
    TW_CAPABILITY capability = {ICAP_SUPPORTEDSIZES, 0, nullptr};

    EXPECT_EQ(TWCC_SUCCESS, BuildupArray(&capability, type.type, 4, items.data()));
    Own(capability.hContainer);

    ASSERT_NE(nullptr, capability.hContainer);
    EXPECT_EQ(TWON_ARRAY, capability.ConType);
    EXPECT_EQ(type.listWidth * 4 + 8, GlobalSize(capability.hContainer));
    Bytes expected;
    Put16(expected, type.type);
    Put32(expected, 4);
    expected.insert(expected.end(), items.begin(), items.end());
    expected.resize(expected.size() + 2, 0);
    EXPECT_EQ(expected, BlockBytes(capability.hContainer));
    EXPECT_EQ(0u, LockCount(capability.hContainer));
    EXPECT_EQ(Traced("BuildupArray"), Records());
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CodecBuildByType, ::testing::ValuesIn(kTypes), TypeName);

TEST_F(Codec, FrameArrayOfThreeItemsAllocates20BytesAndCopies12) {
    // The caller's buffer is longer than 12 bytes: nothing past the twelfth may reach the block.
    Bytes items(16, 0xEE);
    for (BYTE i = 0; i < 12; ++i)
        items[i] = static_cast<BYTE>(0x10 + i);
    TW_CAPABILITY capability = {ICAP_SUPPORTEDSIZES, 0, nullptr};

    EXPECT_EQ(TWCC_SUCCESS, BuildupArray(&capability, TWTY_FRAME, 3, items.data()));
    Own(capability.hContainer);

    EXPECT_EQ(20u, GlobalSize(capability.hContainer));
    Bytes expected;
    Put16(expected, TWTY_FRAME);
    Put32(expected, 3);
    expected.insert(expected.end(), items.begin(), items.begin() + 12);
    expected.push_back(0);
    expected.push_back(0);
    EXPECT_EQ(expected, BlockBytes(capability.hContainer));
}

TEST_F(Codec, EmptyEnumerationIsSixteenZeroedBytesAfterItsHeader) {
    TW_CAPABILITY capability = {ICAP_PIXELTYPE, 0, nullptr};
    EXPECT_EQ(TWCC_SUCCESS, BuildupEnumeration(&capability, TWTY_UINT16, 0, 0, 0, nullptr));
    Own(capability.hContainer);
    EXPECT_EQ(16u, GlobalSize(capability.hContainer));
    Bytes expected = Enumeration(TWTY_UINT16, 0, 0, 0, Bytes(2, 0));
    EXPECT_EQ(expected, BlockBytes(capability.hContainer));
}

TEST_F(Codec, BuildersWithoutAnItemBufferLeaveTheListZeroFilled) {
    TW_CAPABILITY enumeration = {ICAP_PIXELTYPE, 0, nullptr};
    EXPECT_EQ(TWCC_SUCCESS, BuildupEnumeration(&enumeration, TWTY_UINT32, 3, 1, 2, nullptr));
    Own(enumeration.hContainer);
    EXPECT_EQ(Enumeration(TWTY_UINT32, 3, 1, 2, Bytes(14, 0)), BlockBytes(enumeration.hContainer));

    TW_CAPABILITY array = {ICAP_SUPPORTEDSIZES, 0, nullptr};
    EXPECT_EQ(TWCC_SUCCESS, BuildupArray(&array, TWTY_UINT8, 5, nullptr));
    Own(array.hContainer);
    Bytes expected;
    Put16(expected, TWTY_UINT8);
    Put32(expected, 5);
    expected.resize(6 + 5 + 2, 0);
    EXPECT_EQ(expected, BlockBytes(array.hContainer));
}

TEST_F(Codec, BuilderReplacesTheHandleWithoutFreeingThePreviousOne) {
    GlobalBlock previous(OneValue(TWTY_UINT16, 1));
    TW_CAPABILITY capability = previous.Capability(TWON_ENUMERATION);
    EXPECT_EQ(TWCC_SUCCESS, BuildupOneValue(&capability, TWTY_UINT16, 2));
    Own(capability.hContainer);
    EXPECT_NE(previous.Handle(), capability.hContainer);
    EXPECT_EQ(TWON_ONEVALUE, capability.ConType);
    // The previous block belongs to whoever built it and is still there.
    EXPECT_EQ(OneValue(TWTY_UINT16, 1), BlockBytes(previous.Handle()));
}

TEST_F(Codec, EnumerationWithAbsurdItemCountFailsAllocationAndLeavesANullHandle) {
    const BYTE items[4] = {1, 2, 3, 4};
    // 0x3FFFFFF0 x 4 + 16 bytes fits the address type but no process; 0x40000000 x 4 + 16 does not even fit.
    for (TW_UINT32 count : {0x3FFFFFF0u, 0x40000000u, 0xFFFFFFFFu}) {
        viewer_.Clear();
        TW_CAPABILITY capability = {ICAP_PIXELTYPE, 0x7777, reinterpret_cast<HANDLE>(0x1234)};
        EXPECT_EQ(TWCC_LOWMEMORY, BuildupEnumeration(&capability, TWTY_UINT32, count, 0, 0, items)) << count;
        EXPECT_EQ(nullptr, capability.hContainer) << count;
        EXPECT_EQ(0x7777, capability.ConType) << count;
        EXPECT_EQ(Traced("BuildupEnumeration", "Memory alloc error"), Records()) << count;
    }
}

TEST_F(Codec, ArrayWithAbsurdItemCountFailsAllocationAndLeavesANullHandle) {
    const BYTE items[4] = {1, 2, 3, 4};
    for (TW_UINT32 count : {0x3FFFFFF0u, 0x40000000u, 0xFFFFFFFFu}) {
        viewer_.Clear();
        TW_CAPABILITY capability = {ICAP_SUPPORTEDSIZES, 0x7777, reinterpret_cast<HANDLE>(0x1234)};
        EXPECT_EQ(TWCC_LOWMEMORY, BuildupArray(&capability, TWTY_FRAME, count, items)) << count;
        EXPECT_EQ(nullptr, capability.hContainer) << count;
        EXPECT_EQ(0x7777, capability.ConType) << count;
        EXPECT_EQ(Traced("BuildupArray", "Memory alloc error"), Records()) << count;
    }
}

TEST_F(Codec, OneValueAllocationFailureStoresTheNullHandleAndReturnsLowMemory) {
    codecGlobalAlloc = FailingAlloc;
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, 0x7777, reinterpret_cast<HANDLE>(0x1234)};
    EXPECT_EQ(TWCC_LOWMEMORY, BuildupOneValue(&capability, TWTY_INT16, 5));
    EXPECT_EQ(nullptr, capability.hContainer);
    EXPECT_EQ(0x7777, capability.ConType);
    EXPECT_EQ(Traced("BuildupOneValue", "Memory alloc error"), Records());
}

struct BuilderCase {
    const char *name;
    int (*build)(TW_CAPABILITY *);
    TW_UINT16 conType;
};

int BuildOne(TW_CAPABILITY *capability) {
    return BuildupOneValue(capability, TWTY_UINT16, 3);
}
int BuildEnumeration(TW_CAPABILITY *capability) {
    const TW_UINT16 items[2] = {1, 2};
    return BuildupEnumeration(capability, TWTY_UINT16, 2, 0, 1, items);
}
int BuildArray(TW_CAPABILITY *capability) {
    const TW_UINT16 items[2] = {1, 2};
    return BuildupArray(capability, TWTY_UINT16, 2, items);
}

const BuilderCase kBuilders[] = {{"BuildupOneValue", BuildOne, TWON_ONEVALUE},
                                 {"BuildupEnumeration", BuildEnumeration, TWON_ENUMERATION},
                                 {"BuildupArray", BuildArray, TWON_ARRAY}};

void PrintTo(const BuilderCase &builder, std::ostream *out) {
    *out << builder.name;
}

class CodecBuilderLockFailure : public Codec, public ::testing::WithParamInterface<BuilderCase> {};

TEST_P(CodecBuilderLockFailure, FreesTheBlockButLeavesItsHandleAndConTypeSet) {
    codecGlobalAlloc = RecordingAlloc;
    codecGlobalLock = FailingLock;
    lastAllocated = nullptr;
    TW_CAPABILITY capability = {ICAP_BRIGHTNESS, 0x7777, nullptr};

    EXPECT_EQ(TWCC_LOWMEMORY, GetParam().build(&capability));

    ASSERT_NE(nullptr, lastAllocated);
    EXPECT_EQ(lastAllocated, capability.hContainer);
    EXPECT_EQ(GetParam().conType, capability.ConType);
    // Released: the handle no longer names a block.
    EXPECT_EQ(0u, GlobalSize(capability.hContainer));
    EXPECT_EQ(Traced(GetParam().name, "Lock memory error"), Records());
}

INSTANTIATE_TEST_SUITE_P(AllBuilders, CodecBuilderLockFailure, ::testing::ValuesIn(kBuilders),
                         [](const ::testing::TestParamInfo<BuilderCase> &info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------------------
// TW_FIX32 conversions

struct FloatCase {
    float value;
    TW_INT16 whole;
    TW_UINT16 frac;
};

TEST_F(Codec, FloatToFix32TruncatesWholeAndRoundsFracIndependently) {
    const FloatCase cases[] = {
        {1.25f, 1, 0x4000},
        {0.999995f, 0, 0},    // the fraction rounds up to 65536, whose low word is 0
        {-1.25f, -1, 0xC001}, // Whole 0xFFFF: reads back as about -0.25, as it always has
        {-100.0f, -100, 1},
        {0.0f, 0, 0},
        {0.5f, 0, 0x8000},
        {300.75f, 300, 0xC000},
        {32767.5f, 32767, 0x8000},
        {1.0f / 65536, 0, 1},
        {1.0f + 1.0f / 131072, 1, 1}, // exactly half a step rounds up
        {65536.0f, 0, 0},             // both halves keep their low 16 bits only
        {-0.5f, 0, 0x8001},
    };
    for (const FloatCase &c : cases) {
        const TW_FIX32 fix = FloatToFIX32(c.value);
        EXPECT_EQ(c.whole, fix.Whole) << c.value;
        EXPECT_EQ(c.frac, fix.Frac) << c.value;
    }
}

TEST_F(Codec, FloatToFix32OfValuesNoIntegerHoldsIsZero) {
    for (float value :
         {1e30f, -1e30f, std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
        const TW_FIX32 fix = FloatToFIX32(value);
        EXPECT_EQ(0, fix.Whole) << value;
        EXPECT_EQ(0, fix.Frac) << value;
    }
}

TEST_F(Codec, Fix32ToFloatIsSignedWholePlusUnsignedFracOver65536) {
    struct Case {
        TW_INT16 whole;
        TW_UINT16 frac;
        double expected;
    };
    const Case cases[] = {
        {-1, 0x8000, -0.5},
        {1, 0x4000, 1.25},
        {-1, 0xC001, -1.0 + 49153.0 / 65536},
        {-100, 1, -100.0 + 1.0 / 65536},
        {32767, 0xFFFF, 32767.0 + 65535.0 / 65536},
        {-32768, 0, -32768.0},
        {0, 0, 0.0},
    };
    for (const Case &c : cases) {
        TW_FIX32 fix;
        fix.Whole = c.whole;
        fix.Frac = c.frac;
        EXPECT_DOUBLE_EQ(c.expected, FIX32ToFloat(fix)) << c.whole << " " << c.frac;
    }
}

TEST_F(Codec, NonNegativeValuesOnTheFix32GridConvertExactlyBothWays) {
    for (int whole = 0; whole < 256; whole += 17) {
        for (int frac = 0; frac < 65536; frac += 257) {
            const float value = static_cast<float>(whole + frac / 65536.0);
            const TW_FIX32 fix = FloatToFIX32(value);
            ASSERT_EQ(whole, fix.Whole) << value;
            ASSERT_EQ(frac, fix.Frac) << value;
            ASSERT_EQ(static_cast<double>(value), FIX32ToFloat(fix));
        }
    }
}

TEST_F(Codec, FractionsBetweenStepsRoundToTheNearestStep) {
    // 0.3 lies 0.8 of a step above 19660/65536 and 0.1 0.6 above 6553/65536: up. 0.2 lies 0.2 above 13107: down.
    EXPECT_EQ(19661, FloatToFIX32(0.3f).Frac);
    EXPECT_EQ(13107, FloatToFIX32(0.2f).Frac);
    EXPECT_EQ(6554, FloatToFIX32(0.1f).Frac);
    EXPECT_EQ(6553 + 1, FloatToFIX32(1.1f).Frac);
    EXPECT_EQ(1, FloatToFIX32(1.1f).Whole);
}

TEST_F(Codec, ConversionsWriteNoRecords) {
    FloatToFIX32(2.5f);
    TW_FIX32 fix = {1, 2};
    FIX32ToFloat(fix);
    EXPECT_TRUE(viewer_.Records().empty());
}

} // namespace
