// Rows nested in a column of another row, read where they lie.

#include "row_test_support.h"

#include <sstream>
#include <type_traits>

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr len_t kName = PlainRow::kName;
constexpr len_t kAddr = PlainRow::kAddr;
constexpr len_t kPrefix = PlainRow::kPrefix;
constexpr len_t kList = PlainRow::kList;
constexpr len_t kChild = PlainRow::kChild;

static_assert(std::is_base_of_v<BaseRow, SubRowReference>);
static_assert(std::is_convertible_v<SubRowReference*, BaseRow*>, "derives publicly");

/// A nested row with a name, an address, a prefix and a list.
FullRow childRow() {
  FullRow row(5, 77);
  setString(row, kName, "child");
  row.setColumn<IpGenAddr>(kAddr, IpGenAddr("10.1.2.3"), kBase);
  row.setColumn<IpGenPrefix>(kPrefix, IpGenPrefix("10.1.0.0/16"), kBase);
  row.setColumn<std::string>(kList, std::vector<std::string>{"x", "yz"}, kBase);
  return row;
}

void setSubRow(BaseRow& row, len_t slotOffset, const SubRowReference& value) {
  row.setColumn<SubRowReference>(slotOffset, value, kBase);
}

SubRowReference subRowOf(const BaseRow& row, len_t slotOffset) {
  SubRowReference value;
  row.getColumn<SubRowReference>(slotOffset, value);
  return value;
}

SubRowReference viewOf(const BaseRow& row) {
  return SubRowReference(row.rowBuf());
}

// ---------------------------------------------------------------------------------------------
// References to nothing

TEST(NullSubRow, RefersToNothing) {
  SubRowReference subRow;
  EXPECT_TRUE(subRow.isNull());
  EXPECT_EQ(subRow.toString(), "len = 0, NULL");
  EXPECT_EQ(subRow.toJson(), "");
  EXPECT_FALSE(subRow.isFullyDefined());
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { static_cast<void>(subRow.rowBuf()); }), "null row");
  EXPECT_TRUE(SubRowReference(nullptr).isNull());
  subRow.clearRow();
  EXPECT_TRUE(subRow.isNull());
}

TEST(NullSubRow, EncodingThrowsAndWritesNothing) {
  const SubRowReference subRow;
  byte_t dst[4] = {1, 2, 3, 4};
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { BaseRow::encodeLength<SubRowReference>(subRow); }),
            "null row");
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { BaseRow::encode<SubRowReference>(dst, subRow); }),
            "null row");
  EXPECT_EQ(hex(dst, 4), "01 02 03 04");
}

TEST(NullSubRow, StoringItThrowsAndChangesNothing) {
  FullRow row(1, 1);
  setString(row, kChild, "old value");
  const Bytes before = imageOf(row);
  EXPECT_EQ(thrownMessage<KoNullRow>([&] { setSubRow(row, kChild, SubRowReference()); }),
            "null row");
  EXPECT_THROW(row.updateVarElement<SubRowReference>(kChild, kBase, SubRowReference()), KoNullRow);
  EXPECT_EQ(hex(row), hex(before));
}

TEST(NullSubRow, ColumnsReadAsNullValues) {
  const SubRowReference subRow;
  EXPECT_EQ(stringOf(subRow, kName), "");
  IpGenAddr addr("10.1.2.3");
  subRow.getColumn<IpGenAddr>(kAddr, addr);
  EXPECT_EQ(addr, IpGenAddr());
  EXPECT_TRUE(subRowOf(subRow, kChild).isNull());
  std::vector<std::string> strings{"kept"};
  subRow.getColumn<std::string>(kList, strings);
  EXPECT_EQ(strings, std::vector<std::string>{"kept"});
}

TEST(NullSubRow, ComesFromNullColumnsAndNullRows) {
  SubRowReference value(nestedImage().data());
  FullRow(1, 1).getColumn<SubRowReference>(kChild, value);
  EXPECT_TRUE(value.isNull());
  value = SubRowReference(nestedImage().data());
  FullRow().getColumn<SubRowReference>(kChild, value);
  EXPECT_TRUE(value.isNull());
  EXPECT_THROW(static_cast<void>(value.columnHash<StringValueReference>(kName)), KoNullRow);
}

// ---------------------------------------------------------------------------------------------
// The encoding

TEST(SubRowEncoding, IsTheWholeNestedRow) {
  const SubRowReference subRow(nestedImage().data());
  EXPECT_EQ(BaseRow::encodeLength<SubRowReference>(subRow), 40);
  Bytes dst(42, 0xEE);
  EXPECT_EQ(BaseRow::encode<SubRowReference>(dst.data(), subRow), 40);
  EXPECT_EQ(hex(dst), hex(nestedImage() + bytesOf("EE EE")));
}

TEST(SubRowEncoding, LengthIsTheFirstFieldOfTheNestedRow) {
  // The nested row says 9, whatever lies behind it.
  const ExactBlock nested(bytesOf("09 00 05 00 4D 00 00 00 AA"));
  const SubRowReference subRow(nested.data());
  FullRow row(1, 1);
  setSubRow(row, kChild, subRow);
  EXPECT_EQ(slotOf(row, kChild), (Slot{33, 9, false}));
  EXPECT_EQ(hex(valueOf(row, kChild)), "09 00 05 00 4D 00 00 00 AA");
}

TEST(SubRowEncoding, DecodingPointsAtTheBytes) {
  SubRowReference out;
  BaseRow::decode<SubRowReference>(nestedImage().data(), 40, out);
  EXPECT_FALSE(out.isNull());
  EXPECT_EQ(out.rowBuf(), nestedImage().data());
  BaseRow::decode<SubRowReference>(nestedImage().data() + 3, 0, out);
  EXPECT_EQ(out.rowBuf(), nestedImage().data() + 3) << "the length is not used";
  BaseRow::setToNull<SubRowReference>(out);
  EXPECT_TRUE(out.isNull());
}

TEST(SubRowEncoding, DecodingReleasesWhatTheHolderHeld) {
  const FullRow row(1, 1);
  SubRowReference out;
  out.shareContents(row);
  EXPECT_EQ(row.useCount(), 2);
  EXPECT_TRUE(out.isNull()) << "only the pointer counts";
  BaseRow::decode<SubRowReference>(nestedImage().data(), 40, out);
  EXPECT_EQ(row.useCount(), 1);
  out.shareContents(row);
  EXPECT_EQ(row.useCount(), 2);
  BaseRow::setToNull<SubRowReference>(out);
  EXPECT_EQ(row.useCount(), 1);
}

// ---------------------------------------------------------------------------------------------
// Storing and reading

template <typename Row>
class SubRow : public testing::Test {};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(SubRow, RowClasses);

TYPED_TEST(SubRow, FortyBytesAreCopied) {
  TypeParam row(1, 1);
  setSubRow(row, kChild, SubRowReference(nestedImage().data()));
  EXPECT_EQ(slotOf(row, kChild), (Slot{33, 40, false}));
  EXPECT_EQ(hex(valueOf(row, kChild)), hex(nestedImage()));
  EXPECT_EQ(rowLength(row), 73);
  const SubRowReference child = subRowOf(row, kChild);
  EXPECT_EQ(child.rowBuf(), row.rowBuf() + 33);
  EXPECT_EQ(row.useCount(), 1) << "the reference does not keep its parent";
}

TYPED_TEST(SubRow, EveryReaderWorksInPlace) {
  const FullRow child = childRow();
  TypeParam row(1, 1);
  setString(row, kName, "odd");
  setSubRow(row, kChild, viewOf(child));
  const SubRowReference view = subRowOf(row, kChild);

  EXPECT_EQ(stringOf(view, kName), "child");
  IpGenAddr addr;
  view.getColumn<IpGenAddr>(kAddr, addr);
  EXPECT_EQ(addr, IpGenAddr("10.1.2.3"));
  IpGenPrefix prefix;
  view.getColumn<IpGenPrefix>(kPrefix, prefix);
  EXPECT_EQ(prefix, IpGenPrefix("10.1.0.0/16"));
  StringValueReference ref;
  view.getColumn<StringValueReference>(kName, ref);
  EXPECT_EQ(ref.view(), "child");
  EXPECT_EQ(ref.data(), reinterpret_cast<const char*>(view.rowBuf() + slotOf(child, kName).offset));
  std::vector<std::string> strings;
  view.getColumn<std::string>(kList, strings);
  EXPECT_EQ(strings, (std::vector<std::string>{"x", "yz"}));
  EXPECT_EQ(view.arrayReference<std::string>(kList)[1], "yz");

  EXPECT_TRUE(view.columnEqual<StringValueReference>(kName, child, kName));
  EXPECT_TRUE(child.columnEqual<IpGenAddrReference>(kAddr, view, kAddr));
  EXPECT_TRUE(view.columnEqualConst<IpGenPrefixReference>(kPrefix, sample<IpGenPrefixReference>()));
  EXPECT_TRUE(view.columnLess<StringValueReference>(kName, row, kName));
  EXPECT_EQ(view.columnHash<StringValueReference>(kName),
            child.columnHash<StringValueReference>(kName));
  EXPECT_EQ(view.columnHash<IpGenAddrReference>(kAddr),
            child.columnHash<IpGenAddrReference>(kAddr));
  EXPECT_EQ(view.columnHash<IpGenPrefixReference>(kPrefix),
            child.columnHash<IpGenPrefixReference>(kPrefix));

  EXPECT_EQ(view.toString(), child.toString());
  std::ostringstream os;
  os << view;
  EXPECT_EQ(os.str(), child.toString());
}

TYPED_TEST(SubRow, NestsToAnyDepth) {
  // Each level is the child of the next.
  FullRow innermost(9, 0);
  setString(innermost, kName, "level 0");
  TypeParam row(9, 0);
  row.shareContents(innermost);
  for (unsigned level = 1; level <= 20; ++level) {
    TypeParam outer(9, level);
    setString(outer, kName, "level " + std::to_string(level));
    setSubRow(outer, kChild, viewOf(row));
    row = outer;
  }
  SubRowReference view = viewOf(row);
  for (unsigned level = 20;; --level) {
    ASSERT_FALSE(view.isNull());
    EXPECT_EQ(stringOf(view, kName), "level " + std::to_string(level));
    EXPECT_GE(view.rowBuf(), row.rowBuf());
    EXPECT_LT(view.rowBuf(), row.rowBuf() + rowLength(row));
    if (level == 0) break;
    view = subRowOf(view, kChild);
  }
  EXPECT_TRUE(subRowOf(view, kChild).isNull());
}

TYPED_TEST(SubRow, ReferenceStepsDownIntoItsOwnColumn) {
  const FullRow child = childRow();
  FullRow middle(6, 6);
  setSubRow(middle, kChild, viewOf(child));
  TypeParam row(1, 1);
  setSubRow(row, kChild, viewOf(middle));
  SubRowReference view = viewOf(row);
  view.getColumn<SubRowReference>(kChild, view);
  EXPECT_EQ(view.toString(), middle.toString());
  view.getColumn<SubRowReference>(kChild, view);
  EXPECT_EQ(view.toString(), child.toString());
  view.getColumn<SubRowReference>(kChild, view);
  EXPECT_TRUE(view.isNull());
}

TYPED_TEST(SubRow, ElementOfAnArrayReadsLikeAColumn) {
  const FullRow child = childRow();
  const Bytes image = imageOf(child);
  Bytes array = bytesOf("01 10 06 00");
  array.push_back(static_cast<byte_t>(image.size()));
  array.push_back(0);
  TypeParam row(imageWith(kList, array + image, true));
  setSubRow(row, kChild, viewOf(child));
  const SubRowReference column = subRowOf(row, kChild);
  const SubRowReference element = row.template arrayReference<SubRowReference>(kList)[0];
  EXPECT_EQ(hex(column), hex(element));
  EXPECT_NE(column.rowBuf(), element.rowBuf());
  EXPECT_EQ(stringOf(element, kName), "child");
  EXPECT_TRUE(element.columnEqual<IpGenPrefixReference>(kPrefix, column, kPrefix));
  EXPECT_EQ(element.arrayReference<std::string>(kList)[0], "x");
  EXPECT_EQ(element.toString(), column.toString());
}

TYPED_TEST(SubRow, ColumnsAreCopiedOutOfIt) {
  const FullRow child = childRow();
  TypeParam row(1, 1);
  setSubRow(row, kChild, viewOf(child));
  TypeParam other(1, 1);
  other.copyVarColumn(kList, subRowOf(row, kChild), kName, kBase);
  std::vector<std::string> strings;
  other.template getColumn<std::string>(kName, strings);
  EXPECT_EQ(strings, (std::vector<std::string>{"x", "yz"}));
  EXPECT_TRUE(slotOf(other, kName).array);
}

TYPED_TEST(SubRow, ColumnsAreCopiedOutOfItIntoItsOwnParent) {
  // The parent grows or is rearranged while the source lies in it.
  const FullRow child = childRow();
  for (const bool shared : {false, true}) {
    TypeParam row(1, 1);
    setString(row, kName, "a gap in front of the child, which is longer than what is copied");
    setSubRow(row, kChild, viewOf(child));
    setString(row, kName, "");
    TypeParam twin;
    if (shared) twin.shareContents(row);
    const Bytes before = imageOf(row);
    for (const len_t target : {kAddr, kPrefix, kList, kName}) {
      row.copyVarColumn(kName, subRowOf(row, kChild), target, kBase);
      EXPECT_EQ(stringOf(row, target), "child");
      EXPECT_EQ(hex(subRowOf(row, kChild)), hex(child));
    }
    if (shared) {
      EXPECT_EQ(hex(twin), hex(before));
    }
  }
}

TYPED_TEST(SubRow, ColumnOfItReplacesIt) {
  const FullRow child = childRow();
  TypeParam row(1, 1);
  setSubRow(row, kChild, viewOf(child));
  row.copyVarColumn(kName, subRowOf(row, kChild), kChild, kBase);
  EXPECT_EQ(stringOf(row, kChild), "child");
  EXPECT_EQ(slotOf(row, kChild).offset, kBase);

  setSubRow(row, kChild, viewOf(child));
  const SubRowReference view = subRowOf(row, kChild);
  StringValueReference name;
  view.getColumn<StringValueReference>(kName, name);
  row.template setColumn<StringValueReference>(kChild, name, kBase);
  EXPECT_EQ(stringOf(row, kChild), "child");
}

TYPED_TEST(SubRow, StoredInAnotherColumnOfItsParent) {
  const FullRow child = childRow();
  for (const bool shared : {false, true}) {
    TypeParam row(1, 1);
    setString(row, kName, std::string(50, 'g'));
    setSubRow(row, kChild, viewOf(child));
    setString(row, kName, "");
    TypeParam twin;
    if (shared) twin.shareContents(row);
    for (const len_t target : {kList, kChild, kName, kAddr, kPrefix}) {
      setSubRow(row, target, subRowOf(row, kChild));
      EXPECT_EQ(hex(subRowOf(row, target)), hex(child));
      EXPECT_EQ(hex(subRowOf(row, kChild)), hex(child));
    }
    if (shared) {
      EXPECT_EQ(hex(subRowOf(twin, kChild)), hex(child));
      EXPECT_EQ(twin.useCount(), 1);
    }
  }
}

TYPED_TEST(SubRow, GrandchildReplacesTheChild) {
  const FullRow grandchild = childRow();
  FullRow middle(6, 6);
  setString(middle, kName, "middle");
  setSubRow(middle, kChild, viewOf(grandchild));
  TypeParam row(1, 1);
  setSubRow(row, kChild, viewOf(middle));
  setSubRow(row, kChild, subRowOf(subRowOf(row, kChild), kChild));
  EXPECT_EQ(hex(subRowOf(row, kChild)), hex(grandchild));
}

TYPED_TEST(SubRow, RowStoredInItself) {
  TypeParam row(1, 1);
  setString(row, kName, "self");
  const Bytes before = imageOf(row);
  setSubRow(row, kChild, viewOf(row));
  EXPECT_EQ(hex(subRowOf(row, kChild)), hex(before));
  EXPECT_EQ(stringOf(row, kName), "self");
}

TEST(SubRowLifetime, DoesNotOwnItsBytes) {
  const ExactBlock nested(nestedImage());
  {
    const SubRowReference subRow(nested.data());
    SubRowReference copy(subRow);
    EXPECT_EQ(copy.rowBuf(), nested.data());
    SubRowReference assigned;
    assigned = copy;
    EXPECT_EQ(assigned.rowBuf(), nested.data());
  }
  EXPECT_EQ(hex(nested.data(), nested.size()), hex(nestedImage()));
}

// ---------------------------------------------------------------------------------------------

constexpr std::string_view kRwRowBufSignature =
    "virtual Korvo::byte_t* Korvo::SubRowReference::rwRowBuf()";

TEST(SubRowDeathTest, IsNeverWrittenInPlace) {
  SubRowReference null;
  EXPECT_ASSERTION(static_cast<void>(null.rwRowBuf()), kHeaderFile, kRwRowBufSignature, "false");
  const FullRow child = childRow();
  SubRowReference view = viewOf(child);
  EXPECT_ASSERTION(static_cast<void>(view.rwRowBuf()), kHeaderFile, kRwRowBufSignature, "false");
}

TEST(SubRowDeathTest, EveryWriterStops) {
  const FullRow child = childRow();
  for (const Writer& writer : everyWriter()) {
    SCOPED_TRACE(writer.name);
    SubRowReference view = viewOf(child);
    EXPECT_ASSERTION(writer.write(view, kBase), kHeaderFile, kRwRowBufSignature, "false");
  }
  SubRowReference view = viewOf(child);
  EXPECT_ASSERTION(view.setColumn<std::string>(kName, "", kBase), kHeaderFile, kRwRowBufSignature,
                   "false");
  EXPECT_ASSERTION(view.makeFreeSpace(kName, 4, kBase), kHeaderFile, kRwRowBufSignature, "false");
  EXPECT_ASSERTION(view.clearRow(), kHeaderFile, kRwRowBufSignature, "false");
}

TEST(SubRowDeathTest, IsNeverNullified) {
  SubRowReference null;
  EXPECT_ASSERTION(null.nullifyRow(), kHeaderFile,
                   "virtual void Korvo::SubRowReference::nullifyRow()", "false");
  SubRowReference view(nestedImage().data());
  EXPECT_ASSERTION(view.nullifyRow(), kHeaderFile,
                   "virtual void Korvo::SubRowReference::nullifyRow()", "false");
}

TEST(SubRowDeathTest, KnowsNoColumns) {
  const SubRowReference view(nestedImage().data());
  EXPECT_ASSERTION(static_cast<void>(view.vcd()), kHeaderFile,
                   "virtual Korvo::BaseRow::vcdType& Korvo::BaseRow::vcd() const", "0");
}

}  // namespace
}  // namespace rowtest
