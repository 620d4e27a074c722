// The row buffer's layout, who owns it, how rows share it, and how a row is cleared and printed.

#include "row_test_support.h"

#include <cctype>
#include <locale>
#include <map>
#include <sstream>
#include <type_traits>
#include <utility>

namespace rowtest {
namespace {

static_assert(sizeof(VColType) == 4 && alignof(VColType) == 1);
static_assert(std::is_trivially_copyable_v<VColType> && std::is_standard_layout_v<VColType>);
static_assert(std::is_same_v<BaseRow::vcdType, std::vector<len_t>>);
static_assert(!std::is_copy_constructible_v<KoRowBuf> && !std::is_copy_assignable_v<KoRowBuf>);
static_assert(sizeof(KoRowBuf) == sizeof(void*), "the buffer is the only field");
static_assert(std::is_same_v<decltype(KoRowBuf::buf_), byte_t*>);
static_assert(std::is_polymorphic_v<BaseRow> && std::has_virtual_destructor_v<BaseRow>);
static_assert(std::is_default_constructible_v<BaseRow> && std::is_copy_constructible_v<BaseRow>);
static_assert(std::is_base_of_v<std::map<len_t, len_t>, varFieldMap>);
static_assert(sizeof(byte_t) == 1 && sizeof(len_t) == 2 && sizeof(oid_t) == 4);

/// Nothing but the header.
class HeaderRow : public BaseRow {
 public:
  HeaderRow(std::uint16_t type, oid_t oid) {
    auto* block = static_cast<byte_t*>(std::malloc(8));
    storeField<len_t>(block, 8);
    storeField<std::uint16_t>(block + 2, type);
    storeField<oid_t>(block + 4, oid);
    rowBuf_ = Korvo::KoPtr<KoRowBuf>(new KoRowBuf(block));
  }
  vcdType& vcd() const override {
    static vcdType none;
    return none;
  }
  len_t baseRowLength() override { return 8; }
  bool isFullyDefined() const override { return true; }
};

// ---------------------------------------------------------------------------------------------
// Layout

TEST(RowLayout, HeaderAndFixedAreaAreGolden) {
  PlainRow row(0x0107, 0x01020304);
  row.rowBuf()[PlainRow::kFlag] = 0xEE;
  storeField<std::uint32_t>(row.rowBuf() + PlainRow::kCount, 0xA1B2C3D4);
  row.setColumn<std::string>(PlainRow::kName, "abc", PlainRow::kBase);
  row.setColumn<IpGenAddr>(PlainRow::kAddr, IpGenAddr("10.1.2.3"), PlainRow::kBase);
  row.setColumn<IpGenPrefix>(PlainRow::kPrefix, IpGenPrefix("10.1.0.0/16"), PlainRow::kBase);
  row.setColumn<std::string>(PlainRow::kList, std::vector<std::string>{"x"}, PlainRow::kBase);
  EXPECT_EQ(hex(row),
            // row length 33 + 3 + 4 + 5 + 7 = 52, type, oid
            "34 00 07 01 04 03 02 01 "
            // flag; name: at 33, 3 bytes; addr: at 36, 4 bytes; prefix: at 40, 5 bytes
            "EE 21 00 03 00 24 00 04 00 28 00 05 00 "
            // count; list: at 45, 7 bytes, array; child: nothing
            "D4 C3 B2 A1 2D 00 07 80 00 00 00 00 "
            // name, addr, prefix
            "61 62 63 0A 01 02 03 10 0A 01 00 00 "
            // list: one variable-length element, which is at 6 and has 1 byte
            "01 10 06 00 01 00 78");
}

TEST(RowLayout, HeaderOnlyRowHasEightBytesAndNoVariableArea) {
  HeaderRow row(3, 1001);
  EXPECT_EQ(rowLength(row), 8);
  EXPECT_EQ(row.toString(), "len = 8, type = 3, oid = 1001");
  EXPECT_TRUE(varFieldMap(row).empty());
  EXPECT_EQ(row.compactVariableData(8), 8);
  row.clearRow();
  EXPECT_EQ(hex(row), "08 00 03 00 00 00 00 00");

  const HeaderRow twin = row;
  row.clearRow();
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(hex(row), hex(twin));
}

TEST(RowLayout, ArrayMarkAloneIsANullColumn) {
  PlainRow row(1, 1);
  std::memcpy(row.rowBuf() + PlainRow::kName, "\0\0\0\x80", 4);
  EXPECT_EQ(stringOf(row, PlainRow::kName), "");

  StringValueReference ref("x", 1);
  row.getColumn<StringValueReference>(PlainRow::kName, ref);
  EXPECT_EQ(ref.data(), nullptr);
  EXPECT_EQ(ref.length(), 0);

  std::vector<IpGenAddr> addrs{IpGenAddr("10.0.0.1")};
  row.getColumn<IpGenAddr>(PlainRow::kName, addrs);
  EXPECT_EQ(addrs.size(), 1u);
  EXPECT_EQ(row.arrayReference<std::string>(PlainRow::kName).size(), 0u);
  EXPECT_EQ(row.columnHash<IpGenAddrReference>(PlainRow::kName), 0u);
}

TEST(RowLayout, LongestLengthOfASlotIs32767WhateverTheArrayMark) {
  const Bytes value(kMaxValueLen, 0x5A);
  for (const bool array : {false, true}) {
    const PlainRow row(imageWith(PlainRow::kName, value, array));
    EXPECT_EQ(row.rowBuf()[PlainRow::kName + 2], 0xFF);
    EXPECT_EQ(row.rowBuf()[PlainRow::kName + 3], array ? 0xFF : 0x7F);
    StringValueReference ref;
    row.getColumn<StringValueReference>(PlainRow::kName, ref);
    EXPECT_EQ(ref.length(), kMaxValueLen);
    EXPECT_EQ(ref.data(), reinterpret_cast<const char*>(row.rowBuf() + PlainRow::kBase));
  }
}

TEST(RowLayout, EveryLengthOfASlotIsReadWithoutTheArrayMark) {
  PlainRow row(Bytes(kMaxRowLen, 0x41));
  for (unsigned length = 0; length <= kMaxValueLen; ++length) {
    for (const bool array : {false, true}) {
      setSlot(row, PlainRow::kName, {PlainRow::kBase, length, array});
      StringValueReference ref;
      row.getColumn<StringValueReference>(PlainRow::kName, ref);
      ASSERT_EQ(ref.length(), length) << "array mark " << array;
    }
  }
}

TEST(RowLayout, SlotsStayValidWhenTheBufferMoves) {
  FullRow row(1, 1);
  setString(row, PlainRow::kName, "a name");
  row.setColumn<IpGenAddr>(PlainRow::kAddr, IpGenAddr("2001:db8::1"), PlainRow::kBase);
  const Bytes image = imageOf(row);

  // One byte further than before, so that every field changes its alignment too.
  ExactBlock moved(bytesOf("00") + image);
  const SubRowReference view(moved.data() + 1);
  EXPECT_EQ(stringOf(view, PlainRow::kName), "a name");
  IpGenAddr addr;
  view.getColumn<IpGenAddr>(PlainRow::kAddr, addr);
  EXPECT_EQ(addr, IpGenAddr("2001:db8::1"));
  EXPECT_TRUE(view.columnEqual<StringValueReference>(PlainRow::kName, row, PlainRow::kName));
}

TEST(RowLayout, RowClassNamesItsColumns) {
  PlainRow row(1, 1);
  const BaseRow& base = row;
  EXPECT_EQ(base.columnOffset("prefix"), PlainRow::kPrefix);
  EXPECT_EQ(row.baseRowLength(), PlainRow::kBase);
  EXPECT_EQ(base.vcd().size(), 5u);
  EXPECT_EQ(&base.vcd(), &row.vcd());
}

TEST(RowLayoutDeathTest, BaseRowKnowsNoColumns) {
  EXPECT_ASSERTION(static_cast<void>(BaseRow().vcd()), kHeaderFile,
                   "virtual Korvo::BaseRow::vcdType& Korvo::BaseRow::vcd() const", "0");
  EXPECT_ASSERTION(static_cast<void>(BaseRow().columnOffset("name")), kHeaderFile,
                   "virtual Korvo::len_t Korvo::BaseRow::columnOffset(const string&) const", "0");
  EXPECT_ASSERTION(static_cast<void>(BaseRow().baseRowLength()), kHeaderFile,
                   "virtual Korvo::len_t Korvo::BaseRow::baseRowLength()", "0");
}

// ---------------------------------------------------------------------------------------------
// Null rows

TEST(NullRow, DefaultConstructedRowIsNull) {
  const BaseRow row;
  EXPECT_TRUE(row.isNull());
  EXPECT_FALSE(row.isFullyDefined());
  EXPECT_EQ(row.toJson(), "");
  EXPECT_EQ(row.toString(), "len = 0, NULL");
}

TEST(NullRow, BufferAccessThrows) {
  FullRow row;
  byte_t block[8] = {};
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { static_cast<void>(row.rowBuf()); }), "null row");
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { static_cast<void>(row.rwRowBuf()); }), "null row");
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { row.replaceRow(block); }), "null row");
  EXPECT_TRUE(row.isNull());
  try {
    static_cast<void>(row.rowBuf());
    FAIL() << "a null row gave a buffer";
  } catch (const Korvo::KoBaseException& thrown) {
    EXPECT_STREQ(thrown.name(), "Korvo::KoNullRow");
  }
}

TEST(NullRow, EveryWriterThrows) {
  for (const Writer& writer : everyWriter()) {
    FullRow row;
    EXPECT_EQ(thrownMessage<KoNullRow>([&] { writer.write(row, PlainRow::kBase); }), "null row")
        << writer.name;
    EXPECT_TRUE(row.isNull()) << writer.name;
  }
}

TEST(NullRow, WritingAnEmptyValueThrowsToo) {
  FullRow row;
  EXPECT_THROW(setString(row, PlainRow::kName, ""), KoNullRow);
  EXPECT_THROW(
      row.setColumn<std::string>(PlainRow::kName, std::vector<std::string>(), PlainRow::kBase),
      KoNullRow);
  EXPECT_THROW(row.updateVarElement<std::string>(PlainRow::kName, PlainRow::kBase, ""), KoNullRow);
  EXPECT_THROW(row.updateFixElemArray<bool>(PlainRow::kName, PlainRow::kBase, {}), KoNullRow);
  const PlainRow nothing(1, 1);
  EXPECT_THROW(row.copyVarColumn(PlainRow::kName, nothing, PlainRow::kName, PlainRow::kBase),
               KoNullRow);
}

TEST(NullRow, SpaceManagementThrows) {
  FullRow row;
  EXPECT_THROW(row.makeFreeSpace(PlainRow::kName, 4, PlainRow::kBase), KoNullRow);
  EXPECT_THROW(row.compactVariableData(PlainRow::kBase), KoNullRow);
  EXPECT_THROW(varFieldMap{row}, KoNullRow);
  byte_t slot[4] = {33, 0, 4, 0};
  EXPECT_THROW(
      row.moveVariableColumn(reinterpret_cast<VColType*>(slot), PlainRow::kName, PlainRow::kBase),
      KoNullRow);
}

TEST(NullRow, SafeOperationsDoNothing) {
  FullRow row;
  const FullRow other;
  row.clearRow();
  row.nullifyRow();
  row.shareContents(other);
  row.shareContents(row);
  EXPECT_TRUE(row.isNull());
  std::ostringstream os;
  os << row;
  EXPECT_EQ(os.str(), "len = 0, NULL");
  EXPECT_EQ(row.toString(), os.str());
}

// ---------------------------------------------------------------------------------------------
// Ownership

TEST(RowOwnership, OwnerOfNothingFreesNothing) {
  KoRowBuf empty;
  EXPECT_EQ(empty.buf_, nullptr);
  const KoRowBuf owner(static_cast<byte_t*>(std::calloc(8, 1)));
  EXPECT_NE(owner.buf_, nullptr);
}

TEST(RowOwnership, CopyingARowSharesItsBuffer) {
  FullRow row(1, 1);
  EXPECT_EQ(row.useCount(), 1);
  FullRow copy(row);
  EXPECT_EQ(copy.rowBuf(), row.rowBuf());
  EXPECT_EQ(copy.owner(), row.owner());
  EXPECT_EQ(row.useCount(), 2);

  FullRow assigned(2, 2);
  const std::weak_ptr<KoRowBuf> former = assigned.watch();
  assigned = row;
  EXPECT_EQ(assigned.rowBuf(), row.rowBuf());
  EXPECT_EQ(row.useCount(), 3);
  EXPECT_TRUE(former.expired());

  const FullRow& itself = assigned;
  assigned = itself;
  EXPECT_EQ(row.useCount(), 3);
  { const FullRow passing(row); }
  EXPECT_EQ(row.useCount(), 3);
}

TEST(RowOwnership, ShareContents) {
  FullRow row(1, 1);
  FullRow other(2, 2);
  const std::weak_ptr<KoRowBuf> former = row.watch();
  row.shareContents(other);
  EXPECT_EQ(row.owner(), other.owner());
  EXPECT_EQ(other.useCount(), 2);
  EXPECT_TRUE(former.expired()) << "the last holder's buffer is freed";

  row.shareContents(other);
  EXPECT_EQ(other.useCount(), 2) << "sharing again changes nothing";
  row.shareContents(row);
  EXPECT_EQ(other.useCount(), 2) << "sharing with itself changes nothing";
  EXPECT_EQ(row.owner(), other.owner());

  row.shareContents(FullRow());
  EXPECT_TRUE(row.isNull());
  EXPECT_EQ(other.useCount(), 1);

  FullRow fromNull;
  fromNull.shareContents(other);
  EXPECT_EQ(fromNull.rowBuf(), other.rowBuf());
  EXPECT_EQ(other.useCount(), 2);
}

TEST(RowOwnership, RowsOfDifferentClassesShare) {
  FullRow full(1, 1);
  PlainRow plain;
  plain.shareContents(full);
  EXPECT_EQ(plain.rowBuf(), full.rowBuf());
  setString(plain, PlainRow::kName, "plain");
  EXPECT_EQ(stringOf(full, PlainRow::kName), "");
  EXPECT_EQ(full.useCount(), 1);
}

TEST(RowOwnership, NullifyFreesOnlyWithTheLastHolder) {
  FullRow row(1, 1);
  FullRow twin = row;
  const std::weak_ptr<KoRowBuf> watch = row.watch();
  twin.nullifyRow();
  EXPECT_TRUE(twin.isNull());
  EXPECT_FALSE(row.isNull());
  EXPECT_EQ(row.useCount(), 1);
  EXPECT_FALSE(watch.expired());
  row.nullifyRow();
  EXPECT_TRUE(row.isNull());
  EXPECT_TRUE(watch.expired());
  row.nullifyRow();
  EXPECT_TRUE(row.isNull());
}

TEST(RowOwnership, DestructorDropsOneUse) {
  FullRow row(1, 1);
  {
    const std::unique_ptr<BaseRow> twin = std::make_unique<FullRow>(row);
    EXPECT_EQ(row.useCount(), 2);
  }
  EXPECT_EQ(row.useCount(), 1);
}

TEST(RowOwnership, ReplaceRowIsSeenByAllSharersAndFreesNothing) {
  FullRow row(1, 11);
  const FullRow twin = row;
  byte_t* const former = row.rowBuf();
  const KoRowBuf* const owner = row.owner();

  auto* block = static_cast<byte_t*>(std::calloc(PlainRow::kBase, 1));
  storeField<len_t>(block, PlainRow::kBase);
  storeField<oid_t>(block + 4, 22);
  row.replaceRow(block);

  EXPECT_EQ(row.rowBuf(), block);
  EXPECT_EQ(row.rwRowBuf(), block);
  EXPECT_EQ(twin.rowBuf(), block);
  EXPECT_EQ(row.owner(), owner);
  EXPECT_EQ(row.useCount(), 2);
  EXPECT_EQ(loadField<oid_t>(former + 4), 11u) << "the old block is the caller's";
  std::free(former);
}

/// Counts how the library reaches its buffer.
class CountingRow : public FullRow {
 public:
  using FullRow::FullRow;
  byte_t* rowBuf() const override {
    ++reads;
    return FullRow::rowBuf();
  }
  byte_t* rwRowBuf() override {
    ++writes;
    return FullRow::rwRowBuf();
  }
  void replaceRow(byte_t* buf) override {
    ++replacements;
    FullRow::replaceRow(buf);
  }
  void reset() { reads = writes = replacements = 0; }
  mutable int reads = 0;
  int writes = 0;
  int replacements = 0;
};

TEST(RowOwnership, BufferIsReachedThroughTheRowClass) {
  CountingRow row(1, 1);
  row.setColumn<std::string>(PlainRow::kName, "grows", PlainRow::kBase);
  EXPECT_GT(row.writes, 0);
  EXPECT_EQ(row.replacements, 1) << "a grown buffer is installed once";
  row.reset();
  row.setColumn<std::string>(PlainRow::kName, "fits", PlainRow::kBase);
  EXPECT_GT(row.writes, 0);
  EXPECT_EQ(row.replacements, 0);
  row.reset();
  EXPECT_EQ(stringOf(row, PlainRow::kName), "fits");
  EXPECT_TRUE(row.columnEqualConst<StringValueReference>(PlainRow::kName, stringRef("fits")));
  EXPECT_GT(row.reads, 0);
  EXPECT_EQ(row.writes, 0);
}

TEST(RowOwnership, MovingARowTakesItsBufferAlong) {
  FullRow row(1, 1);
  const byte_t* const buffer = row.rowBuf();
  const FullRow moved(std::move(row));
  EXPECT_EQ(moved.rowBuf(), buffer);
  EXPECT_EQ(moved.useCount(), 1);
}

TEST(RowOwnership, BufferForWritingIsNotCopied) {
  FullRow row(1, 1);
  const FullRow twin = row;
  EXPECT_EQ(row.rwRowBuf(), twin.rowBuf());
  EXPECT_EQ(row.useCount(), 2);
}

// ---------------------------------------------------------------------------------------------
// Copy-on-write

/// Longer than any sample. Array headers keep three bits of the bytes that they are written over:
/// here these are zero.
const std::string kLongOldValue(62, '\x01');

class EveryWriter : public testing::TestWithParam<Writer> {};

std::string testName(const testing::TestParamInfo<Writer>& param) {
  std::string name;
  for (const char c : param.param.name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) name += c;
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(CopyOnWrite, EveryWriter, testing::ValuesIn(everyWriter()), testName);

template <typename Row>
void writesIntoAFreshCopyOfASharedBuffer(const Writer& writer) {
  Row row(7, 99);
  setString(row, PlainRow::kName, kLongOldValue);
  setString(row, PlainRow::kPrefix, "neighbour");
  const Row twin = row;
  const Bytes before = imageOf(row);
  const byte_t* const shared = row.rowBuf();

  writer.write(row, PlainRow::kBase);

  EXPECT_NE(row.rowBuf(), shared);
  EXPECT_EQ(row.useCount(), 1);
  EXPECT_EQ(twin.useCount(), 1);
  EXPECT_EQ(twin.rowBuf(), shared);
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_EQ(hex(valueOf(row, PlainRow::kName)), hex(writer.written));
  EXPECT_EQ(slotOf(row, PlainRow::kName).array, writer.array);
  EXPECT_EQ(rowLength(row), before.size()) << "the value fits into the old one's place";
  EXPECT_EQ(stringOf(row, PlainRow::kPrefix), "neighbour");
}

TEST_P(EveryWriter, CopiesASharedBuffer) {
  writesIntoAFreshCopyOfASharedBuffer<PlainRow>(GetParam());
  writesIntoAFreshCopyOfASharedBuffer<FullRow>(GetParam());
}

TEST_P(EveryWriter, CopiesASharedBufferAndGrowsTheCopy) {
  PlainRow row(7, 99);
  const PlainRow twin = row;
  const Bytes before = imageOf(row);
  GetParam().write(row, PlainRow::kBase);
  EXPECT_EQ(twin.useCount(), 1);
  EXPECT_EQ(row.useCount(), 1);
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_EQ(rowLength(row), before.size() + GetParam().written.size());
  EXPECT_EQ(hex(valueOf(row, PlainRow::kName)), hex(GetParam().written));
}

TEST_P(EveryWriter, WritesInPlaceWhenAlone) {
  FullRow row(7, 99);
  setString(row, PlainRow::kName, kLongOldValue);
  const byte_t* const buffer = row.rowBuf();
  const KoRowBuf* const owner = row.owner();
  GetParam().write(row, PlainRow::kBase);
  EXPECT_EQ(row.rowBuf(), buffer);
  EXPECT_EQ(row.owner(), owner);
  EXPECT_EQ(hex(valueOf(row, PlainRow::kName)), hex(GetParam().written));
}

TEST_P(EveryWriter, KeepsTheOwnerWhenItGrowsAlone) {
  FullRow row(7, 99);
  const KoRowBuf* const owner = row.owner();
  GetParam().write(row, PlainRow::kBase);
  EXPECT_EQ(row.owner(), owner);
  EXPECT_EQ(row.useCount(), 1);
}

TEST_P(EveryWriter, KeepsHeaderAndFixedColumns) {
  FullRow row(7, 99);
  row.rowBuf()[PlainRow::kFlag] = 0xEE;
  storeField<std::uint32_t>(row.rowBuf() + PlainRow::kCount, 0xA1B2C3D4);
  Bytes expected = imageOf(row) + GetParam().written;
  storeField<len_t>(expected.data(), static_cast<len_t>(expected.size()));
  writeSlot(expected.data() + PlainRow::kName,
            {PlainRow::kBase, static_cast<unsigned>(GetParam().written.size()), GetParam().array});
  GetParam().write(row, PlainRow::kBase);
  EXPECT_EQ(hex(row), hex(expected));
}

TEST(CopyOnWrite, WritingAnEmptyValueCopiesToo) {
  FullRow row(1, 1);
  setString(row, PlainRow::kName, "abc");
  const FullRow twin = row;
  setString(row, PlainRow::kName, "");
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(stringOf(row, PlainRow::kName), "");
  EXPECT_EQ(stringOf(twin, PlainRow::kName), "abc");
}

TEST(CopyOnWrite, OnlyTheWriterLeavesTheOthers) {
  FullRow first(1, 1);
  setString(first, PlainRow::kName, "abc");
  FullRow second = first;
  const FullRow third = first;
  setString(second, PlainRow::kName, "xyz");
  EXPECT_EQ(first.rowBuf(), third.rowBuf());
  EXPECT_EQ(first.useCount(), 2);
  EXPECT_EQ(second.useCount(), 1);
  EXPECT_EQ(stringOf(first, PlainRow::kName), "abc");
  EXPECT_EQ(stringOf(third, PlainRow::kName), "abc");
  EXPECT_EQ(stringOf(second, PlainRow::kName), "xyz");
}

TEST(CopyOnWrite, CopiesTheWholeBufferGapsIncluded) {
  FullRow row(1, 1);
  setString(row, PlainRow::kName, "gap");
  setString(row, PlainRow::kName, "");
  const FullRow twin = row;
  setString(row, PlainRow::kAddr, "");
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(hex(row), hex(twin));
  EXPECT_EQ(hex(row.rowBuf() + PlainRow::kBase, 3), "67 61 70");
}

TEST(CopyOnWrite, CopiesARowOf65535Bytes) {
  Bytes image(kMaxRowLen, 0x77);
  std::memset(image.data() + 8, 0, PlainRow::kBase - 8);
  PlainRow row(image);
  const PlainRow twin = row;
  setString(row, PlainRow::kName, "");
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(rowLength(row), kMaxRowLen);
  EXPECT_EQ(imageOf(row), imageOf(twin));
}

TEST(CopyOnWrite, ReadingNeverCopies) {
  FullRow row(1, 1);
  setString(row, PlainRow::kName, "abc");
  const FullRow twin = row;
  std::vector<std::string> strings;
  static_cast<void>(stringOf(row, PlainRow::kName));
  row.getColumn<std::string>(PlainRow::kList, strings);
  static_cast<void>(row.columnHash<StringValueReference>(PlainRow::kName));
  static_cast<void>(row.toString());
  EXPECT_EQ(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(row.useCount(), 2);
}

// ---------------------------------------------------------------------------------------------
// Clearing

TEST(ClearRow, KeepsLengthAndTypeAlone) {
  FullRow row(7, 99);
  row.rowBuf()[PlainRow::kFlag] = 1;
  setString(row, PlainRow::kName, "abc");
  row.setColumn<std::string>(PlainRow::kList, std::vector<std::string>{"x"}, PlainRow::kBase);
  const byte_t* const buffer = row.rowBuf();
  const len_t length = rowLength(row);
  row.clearRow();
  EXPECT_EQ(row.rowBuf(), buffer);
  Bytes expected(length);
  storeField<len_t>(expected.data(), length);
  expected[2] = 7;
  EXPECT_EQ(hex(row), hex(expected));
  EXPECT_EQ(row.toString(), "len = 43, type = 7, oid = 0");
}

TEST(ClearRow, LeavesTheTwinAlone) {
  FullRow row(7, 99);
  setString(row, PlainRow::kName, "abc");
  const FullRow twin = row;
  const Bytes before = imageOf(twin);
  row.clearRow();
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_EQ(twin.useCount(), 1);
  EXPECT_EQ(stringOf(row, PlainRow::kName), "");
}

TEST(ClearRow, OldVariableAreaBecomesFreeSpace) {
  FullRow row(7, 99);
  setString(row, PlainRow::kName, "abcdef");
  row.clearRow();
  setString(row, PlainRow::kAddr, "123456");
  EXPECT_EQ(slotOf(row, PlainRow::kAddr), (Slot{PlainRow::kBase, 6, false}));
  EXPECT_EQ(rowLength(row), PlainRow::kBase + 6);
}

TEST(ClearRow, ClearsARowOf65535Bytes) {
  PlainRow row(Bytes(kMaxRowLen, 0xFF));
  row.clearRow();
  Bytes expected(kMaxRowLen);
  std::memset(expected.data(), 0xFF, 4);
  EXPECT_EQ(imageOf(row), expected);
}

// ---------------------------------------------------------------------------------------------
// Printing

TEST(RowPrinting, PrintsTheHeader) {
  Bytes image(64);
  image[2] = 3;
  storeField<oid_t>(image.data() + 4, 1001);
  const PlainRow row(image);
  std::ostringstream os;
  EXPECT_EQ(&(os << row), &os);
  EXPECT_EQ(os.str(), "len = 64, type = 3, oid = 1001");
  EXPECT_EQ(row.toString(), "len = 64, type = 3, oid = 1001");
}

TEST(RowPrinting, AllNumbersAreUnsigned) {
  const PlainRow row(Bytes(kMaxRowLen, 0xFF));
  EXPECT_EQ(row.toString(), "len = 65535, type = 65535, oid = 4294967295");
}

TEST(RowPrinting, TextDoesNotDependOnTheGlobalLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '\''; }
    std::string do_grouping() const override { return "\3"; }
  };
  const PlainRow row(1234, 1234567);
  const std::locale former = std::locale::global(std::locale(std::locale(), new Grouping));
  const std::string text = row.toString();
  std::locale::global(former);
  EXPECT_EQ(text, "len = 33, type = 1234, oid = 1234567");
}

TEST(RowPrinting, JsonOfARowIsEmptyUntilItsClassGivesOne) {
  const PlainRow row(1, 1);
  EXPECT_EQ(row.toJson(), "");
}

}  // namespace
}  // namespace rowtest
