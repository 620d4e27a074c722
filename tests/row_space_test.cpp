// Finding room in the variable area: reuse in place, append at the used end, grow by the shortfall,
// compact; and the order in which these are tried.

#include "row_test_support.h"

#include <algorithm>

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kPrefix = PlainRow::kPrefix;
constexpr len_t kList = PlainRow::kList;
constexpr len_t kChild = PlainRow::kChild;

constexpr std::string_view kMakeFreeSpaceSignature =
    "Korvo::len_t Korvo::BaseRow::makeFreeSpace(Korvo::len_t, Korvo::len_t, Korvo::len_t)";

/// Three columns of 6 bytes, packed: name at 33, addr at 39, prefix at 45; row length 51.
template <typename Row>
Row threeColumns() {
  Row row(1, 1);
  setString(row, kName, "aaaaaa");
  setString(row, kAddr, "bbbbbb");
  setString(row, kPrefix, "cccccc");
  return row;
}

// ---------------------------------------------------------------------------------------------
// Reuse in place

template <typename Row>
class Reuse : public testing::Test {};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(Reuse, RowClasses);

TYPED_TEST(Reuse, EqualOrSmallerValueKeepsItsPlace) {
  TypeParam row = threeColumns<TypeParam>();
  const Slot neighbour = slotOf(row, kPrefix);
  for (const std::string text : {"BBBBBB", "BBBBB", "B"}) {
    setString(row, kAddr, text);
    EXPECT_EQ(slotOf(row, kAddr), (Slot{39, static_cast<unsigned>(text.size()), false}));
    EXPECT_EQ(stringOf(row, kAddr), text);
    EXPECT_EQ(rowLength(row), 51);
    EXPECT_EQ(slotOf(row, kPrefix), neighbour);
  }
  EXPECT_EQ(stringOf(row, kName), "aaaaaa");
  EXPECT_EQ(stringOf(row, kPrefix), "cccccc");
}

TYPED_TEST(Reuse, SecondValueOfTheSameLengthReusesThePlaceOfTheFirst) {
  TypeParam row(1, 1);
  setString(row, kName, "0123456789");
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 10, false}));
  EXPECT_EQ(rowLength(row), 43);
  setString(row, kName, "9876543210");
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 10, false}));
  EXPECT_EQ(rowLength(row), 43);
}

TYPED_TEST(Reuse, MakeFreeSpaceLeavesTheSlotOfAReusedPlace) {
  TypeParam row = threeColumns<TypeParam>();
  setSlot(row, kAddr, {39, 6, true});
  const Bytes before = imageOf(row);
  for (const len_t needed : {len_t{6}, len_t{1}, len_t{0}}) {
    EXPECT_EQ(row.makeFreeSpace(kAddr, needed, kBase), 39);
    EXPECT_EQ(hex(row), hex(before));
  }
}

TYPED_TEST(Reuse, MakeFreeSpaceElsewhereClearsTheSlotAndKeepsItsMark) {
  for (const bool array : {false, true}) {
    TypeParam row = threeColumns<TypeParam>();
    setSlot(row, kPrefix, {45, 6, array});
    const len_t off = row.makeFreeSpace(kPrefix, 7, kBase);
    EXPECT_EQ(slotOf(row, kPrefix), (Slot{0, 0, array}));
    EXPECT_LE(off + 7, rowLength(row));
    EXPECT_EQ(stringOf(row, kName), "aaaaaa");
    EXPECT_EQ(stringOf(row, kAddr), "bbbbbb");
  }
}

TYPED_TEST(Reuse, PlaceOfAClearedColumnIsNotReusedInPlace) {
  // Length 0 with an offset left over is a null column, not a place.
  TypeParam row = threeColumns<TypeParam>();
  setSlot(row, kAddr, {39, 0, false});
  const len_t off = row.makeFreeSpace(kAddr, 0, kBase);
  EXPECT_EQ(off, 51);
  EXPECT_EQ(slotOf(row, kAddr), (Slot{0, 0, false}));
  EXPECT_EQ(rowLength(row), 51);
}

TYPED_TEST(Reuse, WritingAnEmptyValueMovesNothing) {
  TypeParam row = threeColumns<TypeParam>();
  Bytes expected = imageOf(row);
  writeSlot(expected.data() + kAddr, {0, 0, false});
  setString(row, kAddr, "");
  EXPECT_EQ(hex(row), hex(expected));
}

TYPED_TEST(Reuse, GrowthIsZeroUntilWritten) {
  for (const len_t needed : {len_t{1}, len_t{100}, len_t{5000}, len_t{32767}}) {
    TypeParam row(1, 1);
    const len_t off = row.makeFreeSpace(kName, needed, kBase);
    EXPECT_EQ(off, kBase);
    ASSERT_EQ(rowLength(row), kBase + needed);
    const Bytes image = imageOf(row);
    EXPECT_TRUE(std::all_of(image.begin() + off, image.end(), [](byte_t b) { return b == 0; }));
  }
}

// ---------------------------------------------------------------------------------------------
// A row that is not fully defined

TEST(AppendOnly, GapsAreNeverReused) {
  PlainRow row = threeColumns<PlainRow>();
  setString(row, kAddr, "");
  setString(row, kList, "dddd");
  EXPECT_EQ(slotOf(row, kList), (Slot{51, 4, false}));
  EXPECT_EQ(rowLength(row), 55);
  // Not even the column's own former place, once it was too small.
  setString(row, kName, "aaaaaaa");
  EXPECT_EQ(slotOf(row, kName), (Slot{55, 7, false}));
  EXPECT_EQ(rowLength(row), 62);
  EXPECT_EQ(hex(row.rowBuf() + 33, 6), "61 61 61 61 61 61") << "the gap keeps its bytes";
}

TEST(AppendOnly, TailOfAShortenedValueIsLost) {
  PlainRow row(1, 1);
  setString(row, kName, "0123456789");
  setString(row, kName, "0123");
  setString(row, kName, "01234");
  EXPECT_EQ(slotOf(row, kName), (Slot{43, 5, false}));
  EXPECT_EQ(rowLength(row), 48);
}

TEST(AppendOnly, AppendsBehindAnUnusedTail) {
  PlainRow row = threeColumns<PlainRow>();
  setString(row, kPrefix, "");
  setString(row, kPrefix, "c");
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{51, 1, false}));
}

TEST(AppendOnly, MakeFreeSpaceOfNothingNeedsNoRoom) {
  PlainRow row(1, 1);
  EXPECT_EQ(row.makeFreeSpace(kName, 0, kBase), kBase);
  EXPECT_EQ(rowLength(row), kBase);
}

TEST(AppendOnly, ARowWithoutAClassOfItsOwnOnlyAppends) {
  // A BaseRow needs no list of columns as long as it only appends.
  const PlainRow owner(imageWith(kName, bytesOfString("abcd")));
  BaseRow row = owner;
  row.setColumn<std::string>(kName, "", kBase);
  row.setColumn<std::string>(kAddr, "xyz", kBase);
  EXPECT_EQ(slotOf(row, kAddr), (Slot{37, 3, false}));
  EXPECT_EQ(rowLength(row), 40);
  EXPECT_EQ(stringOf(owner, kName), "abcd");
}

/// Says so only when asked a second time: the answer, not the class, decides.
class UndecidedRow : public PlainRow {
 public:
  using PlainRow::PlainRow;
  bool isFullyDefined() const override { return complete; }
  bool complete = false;
};

TEST(AppendOnly, TheRowsAnswerDecides) {
  UndecidedRow row(1, 1);
  setString(row, kName, "aaaaaa");
  setString(row, kName, "");
  setString(row, kAddr, "bbb");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 3, false}));
  row.complete = true;
  setString(row, kPrefix, "cccc");
  // free 3 - 0 at the end, 6 in front: one compaction, no growth.
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 3, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{36, 4, false}));
  EXPECT_EQ(rowLength(row), 42);
}

// ---------------------------------------------------------------------------------------------
// A fully defined row

TEST(FullyDefined, FirstValueGoesRightBehindTheFixedArea) {
  FullRow row(1, 1);
  setString(row, kChild, "abcde");
  EXPECT_EQ(slotOf(row, kChild), (Slot{33, 5, false}));
  EXPECT_EQ(rowLength(row), 38);
}

TEST(FullyDefined, ValueGoesToTheUsedEndWithoutAMove) {
  // The last column is cleared: 6 bytes free behind the used end, none elsewhere.
  for (const unsigned length : {1u, 4u, 6u}) {
    FullRow row = threeColumns<FullRow>();
    setString(row, kPrefix, "");
    setString(row, kList, std::string(length, 'd'));
    EXPECT_EQ(slotOf(row, kList), (Slot{45, length, false}));
    EXPECT_EQ(rowLength(row), 51);
  }
}

TEST(FullyDefined, UsedEndIsPreferredToAGap) {
  // A gap of 6 in the middle and 6 free at the end: nothing moves for a value that fits the end.
  FullRow row = threeColumns<FullRow>();
  setString(row, kList, "dddddd");
  setString(row, kList, "");
  setString(row, kName, "");
  setString(row, kChild, "eeeeee");
  EXPECT_EQ(slotOf(row, kChild), (Slot{51, 6, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 6, false}));
  EXPECT_EQ(rowLength(row), 57);
}

TEST(FullyDefined, SmallerValueThanTheGapCompactsWithoutGrowth) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kName, "");
  setString(row, kList, "dddd");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{39, 6, false}));
  EXPECT_EQ(slotOf(row, kList), (Slot{45, 4, false}));
  EXPECT_EQ(rowLength(row), 51);
  EXPECT_EQ(stringOf(row, kAddr), "bbbbbb");
  EXPECT_EQ(stringOf(row, kPrefix), "cccccc");
  EXPECT_EQ(stringOf(row, kList), "dddd");
}

TEST(FullyDefined, ValueOfExactlyTheFreeSizeCompactsWithoutGrowth) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kAddr, "");
  setString(row, kList, "dddddd");
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{39, 6, false}));
  EXPECT_EQ(slotOf(row, kList), (Slot{45, 6, false}));
  EXPECT_EQ(rowLength(row), 51);
}

TEST(FullyDefined, GrowsByTheShortfallAloneAndCompacts) {
  // 6 free in the middle, 8 needed: 2 more, then everything packed.
  FullRow row = threeColumns<FullRow>();
  setString(row, kAddr, "");
  setString(row, kList, "dddddddd");
  EXPECT_EQ(rowLength(row), 53);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{39, 6, false}));
  EXPECT_EQ(slotOf(row, kList), (Slot{45, 8, false}));
  EXPECT_EQ(stringOf(row, kPrefix), "cccccc");
  EXPECT_EQ(stringOf(row, kList), "dddddddd");
}

TEST(FullyDefined, FullRowGrowsByExactlyTheValue) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kList, "ddddd");
  EXPECT_EQ(rowLength(row), 56);
  EXPECT_EQ(slotOf(row, kList), (Slot{51, 5, false}));
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 6, false}));
}

TEST(FullyDefined, UnusedTailCountsAgainstTheGrowth) {
  // 6 free at the end, 9 needed: 3 more, and nothing moves.
  FullRow row = threeColumns<FullRow>();
  setString(row, kPrefix, "");
  setString(row, kList, "ddddddddd");
  EXPECT_EQ(rowLength(row), 54);
  EXPECT_EQ(slotOf(row, kList), (Slot{45, 9, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 6, false}));
}

TEST(FullyDefined, TailsOfShortenedValuesAreFree) {
  // Each of the three keeps 2 bytes; 4 + 4 + 4 bytes are free, the last 4 of them at the end.
  FullRow row = threeColumns<FullRow>();
  for (const len_t slot : {kName, kAddr, kPrefix}) setString(row, slot, "xy");
  setString(row, kList, "0123");
  EXPECT_EQ(slotOf(row, kList), (Slot{47, 4, false})) << "fits the end";
  setString(row, kChild, "01234567");
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 2, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{35, 2, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{37, 2, false}));
  EXPECT_EQ(slotOf(row, kList), (Slot{39, 4, false}));
  EXPECT_EQ(slotOf(row, kChild), (Slot{43, 8, false}));
  EXPECT_EQ(rowLength(row), 51);
}

TEST(FullyDefined, OldPlaceOfTheColumnCountsAsFree) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kName, "AAAAAAAA");
  EXPECT_EQ(rowLength(row), 53);
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{39, 6, false}));
  EXPECT_EQ(slotOf(row, kName), (Slot{45, 8, false}));
}

TEST(FullyDefined, LastColumnGrowsWhereItStands) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kPrefix, "CCCCCCCC");
  EXPECT_EQ(rowLength(row), 53);
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{45, 8, false}));
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 6, false}));
}

TEST(FullyDefined, CompactionKeepsTheOrderOfTheBufferAndTheMarks) {
  // Buffer order prefix, child, name; the list of slots has another order.
  FullRow row(1, 1);
  setString(row, kAddr, "gap!");
  setString(row, kPrefix, "pppp");
  row.setColumn<std::string>(kChild, std::vector<std::string>{"x"}, kBase);
  setString(row, kList, "gap again");
  setString(row, kName, "nn");
  setString(row, kAddr, "");
  setString(row, kList, "");
  const len_t length = rowLength(row);
  row.setColumn<std::string>(kAddr, "0123456789", kBase);
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{33, 4, false}));
  EXPECT_EQ(slotOf(row, kChild), (Slot{37, 7, true}));
  EXPECT_EQ(slotOf(row, kName), (Slot{44, 2, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{46, 10, false}));
  EXPECT_EQ(rowLength(row), length);
  EXPECT_EQ(row.arrayReference<std::string>(kChild)[0], "x");
}

TEST(FullyDefined, BytesGainedByGrowthAreZero) {
  // Room for 9: 6 bytes of the old value, left as they are, and 3 new ones.
  FullRow row = threeColumns<FullRow>();
  const len_t off = row.makeFreeSpace(kPrefix, 9, kBase);
  EXPECT_EQ(off, 45);
  ASSERT_EQ(rowLength(row), 54);
  EXPECT_EQ(hex(row.rowBuf() + 51, 3), "00 00 00");
}

TEST(FullyDefined, EmptyValueWaitsForALaterWriteToBeCompacted) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kName, "");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 6, false}));
  EXPECT_EQ(rowLength(row), 51);
  setString(row, kAddr, "bb");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 2, false})) << "a reused place needs no compaction";
  setString(row, kList, "d");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 2, false}));
}

TEST(FullyDefined, ManyRewritesNeverGrowTheRowBeyondItsFullest) {
  FullRow row(1, 1);
  for (unsigned round = 0; round < 500; ++round) {
    for (const len_t slot : kVariableSlots) {
      setString(row, slot, std::string((round * 7 + slot) % 20, static_cast<char>('a' + slot)));
    }
  }
  EXPECT_LE(rowLength(row), kBase + 5 * 19);
}

// ---------------------------------------------------------------------------------------------
// Compaction by hand

TEST(CompactVariableData, PacksAndReturnsTheFirstFreeByte) {
  PlainRow row = threeColumns<PlainRow>();
  setString(row, kName, "");
  setString(row, kAddr, "bb");
  EXPECT_EQ(row.compactVariableData(kBase), 41);
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 2, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{35, 6, false}));
  EXPECT_EQ(rowLength(row), 51) << "the buffer is not shrunk";
  EXPECT_EQ(hex(row.rowBuf() + 33, 8), "62 62 63 63 63 63 63 63");
}

TEST(CompactVariableData, PackedRowStaysAsItIs) {
  FullRow row = threeColumns<FullRow>();
  const FullRow twin = row;
  EXPECT_EQ(row.compactVariableData(kBase), 51);
  EXPECT_EQ(row.rowBuf(), twin.rowBuf()) << "no move, no copy";
  FullRow empty(1, 1);
  EXPECT_EQ(empty.compactVariableData(kBase), kBase);
}

TEST(CompactVariableData, SharedBufferIsCopiedBeforeTheFirstMove) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kName, "");
  const FullRow twin = row;
  const Bytes before = imageOf(twin);
  EXPECT_EQ(row.compactVariableData(kBase), 45);
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_EQ(stringOf(row, kAddr), "bbbbbb");
  EXPECT_EQ(stringOf(row, kPrefix), "cccccc");
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{39, 6, false}));
}

TEST(CompactVariableData, OfColumnsWithTheSameDataTheLastInTheListIsMoved) {
  FullRow row = threeColumns<FullRow>();
  setString(row, kPrefix, "");
  setString(row, kName, "");
  setSlot(row, kPrefix, slotOf(row, kAddr));
  EXPECT_EQ(row.compactVariableData(kBase), 39);
  EXPECT_EQ(slotOf(row, kPrefix), (Slot{33, 6, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 6, false}));
  EXPECT_EQ(stringOf(row, kPrefix), "bbbbbb");
}

TEST(CompactVariableData, RowOfManyColumns) {
  // Written in an order that is not that of the slots; every third is cleared, then packed.
  WideRow row;
  const auto column = [](unsigned i) { return i * 67 % WideRow::kColumns; };
  const auto text = [](unsigned i) { return "value " + std::to_string(i); };
  for (unsigned i = 0; i < WideRow::kColumns; ++i) {
    row.setColumn<std::string>(WideRow::slot(column(i)), text(i), WideRow::kWideBase);
  }
  const len_t full = rowLength(row);
  std::size_t freed = 0;
  for (unsigned i = 0; i + 1 < WideRow::kColumns; i += 3) {
    row.setColumn<std::string>(WideRow::slot(column(i)), "", WideRow::kWideBase);
    freed += text(i).size();
  }
  row.setColumn<std::string>(WideRow::slot(column(0)), std::string(freed, 'x'), WideRow::kWideBase);
  EXPECT_EQ(rowLength(row), full);
  unsigned expected = WideRow::kWideBase;
  for (unsigned i = 0; i < WideRow::kColumns; ++i) {
    if (i % 3 == 0 && i + 1 < WideRow::kColumns) continue;
    EXPECT_EQ(slotOf(row, WideRow::slot(column(i))).offset, expected) << i;
    EXPECT_EQ(stringOf(row, WideRow::slot(column(i))), text(i));
    expected += static_cast<unsigned>(text(i).size());
  }
  EXPECT_EQ(slotOf(row, WideRow::slot(column(0))).offset, expected);
}

TEST(CompactVariableData, NullColumnWithAnOffsetTakesNoRoom) {
  FullRow row = threeColumns<FullRow>();
  setSlot(row, kName, {33, 0, false});
  EXPECT_EQ(row.compactVariableData(kBase), 45);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 0, false}));
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 6, false}));
}

// ---------------------------------------------------------------------------------------------
// Moving one column

VColType* slotPointer(BaseRow& row, len_t slotOffset) {
  return reinterpret_cast<VColType*>(row.rowBuf() + slotOffset);
}

TEST(MoveVariableColumn, MovesOverlappingDataInBothDirections) {
  PlainRow row(imageWith(kName, bytesOfString("0123456789....")));
  setSlot(row, kName, {35, 10, true});
  EXPECT_EQ(row.moveVariableColumn(slotPointer(row, kName), kName, 33), 43);
  EXPECT_EQ(slotOf(row, kName), (Slot{33, 10, true}));
  EXPECT_EQ(stringOf(row, kName), "23456789..");
  EXPECT_EQ(row.moveVariableColumn(slotPointer(row, kName), kName, 37), 47);
  EXPECT_EQ(slotOf(row, kName), (Slot{37, 10, true}));
  EXPECT_EQ(stringOf(row, kName), "23456789..");
}

TEST(MoveVariableColumn, NullColumnMovesNothing) {
  PlainRow row = threeColumns<PlainRow>();
  setSlot(row, kAddr, {39, 0, true});
  const PlainRow twin = row;
  EXPECT_EQ(row.moveVariableColumn(slotPointer(row, kAddr), kAddr, 33), 33);
  EXPECT_EQ(row.rowBuf(), twin.rowBuf()) << "not even a copy of the shared buffer";
  EXPECT_EQ(slotOf(row, kAddr), (Slot{39, 0, true}));
}

TEST(MoveVariableColumn, LeavesTheTwinOfASharedBufferAlone) {
  PlainRow row = threeColumns<PlainRow>();
  setString(row, kName, "");
  const PlainRow twin = row;
  const Bytes before = imageOf(twin);
  EXPECT_EQ(row.moveVariableColumn(slotPointer(row, kAddr), kAddr, 33), 39);
  EXPECT_EQ(hex(twin), hex(before));
  EXPECT_NE(row.rowBuf(), twin.rowBuf());
  EXPECT_EQ(slotOf(row, kAddr), (Slot{33, 6, false}));
  EXPECT_EQ(stringOf(row, kAddr), "bbbbbb");
}

// ---------------------------------------------------------------------------------------------
// The map of columns

using Entries = std::vector<std::pair<const len_t, len_t>>;

Entries entriesOf(const BaseRow& row) {
  const varFieldMap map(row);
  return Entries(map.begin(), map.end());
}

TEST(VarFieldMap, IsOrderedByDataOffset) {
  FullRow row(1, 1);
  setString(row, kPrefix, "p");
  setString(row, kName, "nn");
  setString(row, kList, "l");
  EXPECT_EQ(entriesOf(row), (Entries{{33, kPrefix}, {34, kName}, {36, kList}}));
}

TEST(VarFieldMap, SkipsOffsetZeroAndLooksAtNothingElse) {
  FullRow row(1, 1);
  EXPECT_TRUE(entriesOf(row).empty());
  setSlot(row, kName, {33, 0, false});
  setSlot(row, kAddr, {0, 5, true});
  EXPECT_EQ(entriesOf(row), (Entries{{33, kName}}));
}

TEST(VarFieldMap, LaterColumnReplacesAnEarlierOneWithTheSameOffset) {
  // The list of slots has list, name, addr, child, prefix in this order.
  FullRow row(1, 1);
  setSlot(row, kPrefix, {33, 1, false});
  setSlot(row, kName, {33, 1, false});
  EXPECT_EQ(entriesOf(row), (Entries{{33, kPrefix}}));
  setSlot(row, kPrefix, {40, 1, false});
  setSlot(row, kList, {33, 1, false});
  EXPECT_EQ(entriesOf(row), (Entries{{33, kName}, {40, kPrefix}}));
}

// ---------------------------------------------------------------------------------------------

TEST(MakeFreeSpaceDeathTest, NeedsABaseLength) {
  FullRow row = threeColumns<FullRow>();
  EXPECT_ASSERTION(row.makeFreeSpace(kName, 4, 0), kSourceFile, kMakeFreeSpaceSignature,
                   "baseRowLength != 0");
  PlainRow plain(1, 1);
  EXPECT_ASSERTION(plain.makeFreeSpace(kName, 0, 0), kSourceFile, kMakeFreeSpaceSignature,
                   "baseRowLength != 0");
  FullRow null;
  EXPECT_ASSERTION(null.makeFreeSpace(kName, 4, 0), kSourceFile, kMakeFreeSpaceSignature,
                   "baseRowLength != 0");
}

}  // namespace
}  // namespace rowtest
