// Writing many columns with a RowWriter: the row is byte for byte what its own writers leave.

#include "row_test_support.h"

#include <Korvo/TableRow.h>

#include <malloc.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>

namespace {

using namespace rowtest;
using Korvo::RowWriter;

constexpr len_t base = PlainRow::kBase;

template <typename Row>
class RowWriters : public testing::Test {};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(RowWriters, RowClasses, );

template <typename Row>
Row newRow() {
  return Row(7, 1001);
}

TYPED_TEST(RowWriters, SetColumnsOfEveryType) {
  const std::vector<std::string> texts = {"one", "", "three"};
  const std::vector<bool> flags = {true, false, true};
  const PlainRow nested(3, 5);
  auto expected = newRow<TypeParam>();
  auto row = newRow<TypeParam>();
  RowWriter writer(row, base);
  const auto same = [&] { EXPECT_EQ(hex(row), hex(expected)); };

  expected.setColumn(PlainRow::kName, std::string("eth0"), base);
  writer.setColumn(PlainRow::kName, std::string("eth0"));
  same();
  expected.setColumn(PlainRow::kAddr, IpGenAddr("2001:db8::1"), base);
  writer.setColumn(PlainRow::kAddr, IpGenAddr("2001:db8::1"));
  same();
  expected.setColumn(PlainRow::kPrefix, IpGenPrefix("10.0.0.0/8"), base);
  writer.setColumn(PlainRow::kPrefix, IpGenPrefix("10.0.0.0/8"));
  same();
  expected.setColumn(PlainRow::kList, texts, base);
  writer.setColumn(PlainRow::kList, texts);
  same();
  expected.setColumn(PlainRow::kChild, SubRowReference(nested.rowBuf()), base);
  writer.setColumn(PlainRow::kChild, SubRowReference(nested.rowBuf()));
  same();
  expected.updateFixElemArray(PlainRow::kList, base, flags);
  writer.updateFixElemArray(PlainRow::kList, flags);
  same();
  expected.setFixedColumn(PlainRow::kCount, std::uint32_t{17});
  writer.setFixedColumn(PlainRow::kCount, std::uint32_t{17});
  same();
  expected.setColumn(PlainRow::kName, StringValueReference("a longer name", 13), base);
  writer.setColumn(PlainRow::kName, StringValueReference("a longer name", 13));
  same();
  expected.setColumn(PlainRow::kAddr, std::vector<IpGenAddr>{}, base);
  writer.setColumn(PlainRow::kAddr, std::vector<IpGenAddr>{});
  same();
}

TYPED_TEST(RowWriters, ChangeNothingUntilTheyWrite) {
  auto row = newRow<TypeParam>();
  const TypeParam sharer = row;
  const byte_t* const buf = row.rowBuf();
  { const RowWriter writer(row, base); }
  EXPECT_EQ(row.rowBuf(), buf);
  EXPECT_EQ(row.useCount(), 2);
}

TYPED_TEST(RowWriters, CopyASharedRow) {
  auto row = newRow<TypeParam>();
  TypeParam sharer = row;
  const Bytes before = imageOf(sharer);
  RowWriter writer(row, base);
  writer.setColumn(PlainRow::kName, std::string("first"));
  EXPECT_EQ(imageOf(sharer), before);
  EXPECT_EQ(row.useCount(), 1);

  // Shared again while it is written.
  sharer = row;
  const Bytes between = imageOf(sharer);
  const byte_t* const shared = sharer.rowBuf();
  writer.setColumn(PlainRow::kChild, std::string("second"));
  EXPECT_EQ(imageOf(sharer), between);
  EXPECT_EQ(sharer.rowBuf(), shared);
  EXPECT_NE(row.rowBuf(), shared);
  EXPECT_EQ(stringOf(row, PlainRow::kName), "first");
  EXPECT_EQ(stringOf(row, PlainRow::kChild), "second");
}

// The end of a writer must not move a buffer that others may be reading; the row itself gets a
// block of its length.
TYPED_TEST(RowWriters, LeaveASharedBufferWhereItIs) {
  auto row = newRow<TypeParam>();
  std::optional<RowWriter> writer(std::in_place, row, base);
  writer->setColumn(PlainRow::kName, std::string("a name"));
  const TypeParam sharer = row;
  const byte_t* const shared = sharer.rowBuf();
  writer.reset();
  EXPECT_EQ(sharer.rowBuf(), shared);
  EXPECT_NE(row.rowBuf(), shared);
  EXPECT_EQ(hex(row), hex(sharer));
  EXPECT_LT(malloc_usable_size(row.rowBuf()), rowLength(row) + 64U);
}

TYPED_TEST(RowWriters, WriteWhatRefersIntoTheRow) {
  auto row = newRow<TypeParam>();
  auto expected = newRow<TypeParam>();
  const std::string text(70, 't');
  expected.setColumn(PlainRow::kName, text, base);
  row.setColumn(PlainRow::kName, text, base);
  RowWriter writer(row, base);
  for (const len_t slot : {PlainRow::kAddr, PlainRow::kChild, PlainRow::kPrefix}) {
    StringValueReference own;
    row.getColumn(PlainRow::kName, own);
    writer.setColumn(slot, own);
    expected.setColumn(slot, text, base);
    EXPECT_EQ(hex(row), hex(expected));
  }
}

TYPED_TEST(RowWriters, RefuseWhatRowsRefuse) {
  TypeParam null;
  RowWriter ofNull(null, base);
  EXPECT_THROW(ofNull.setColumn(PlainRow::kName, std::string("x")), KoNullRow);
  EXPECT_THROW(ofNull.setColumn(PlainRow::kName, std::string()), KoNullRow);
  EXPECT_THROW(ofNull.setFixedColumn(PlainRow::kFlag, true), KoNullRow);
  EXPECT_THROW(ofNull.setColumn(PlainRow::kList, std::vector<std::string>()), KoNullRow);
  EXPECT_THROW(ofNull.setColumn(PlainRow::kList, std::vector<std::string>{"x"}), KoNullRow);

  auto row = newRow<TypeParam>();
  RowWriter writer(row, base);
  writer.setColumn(PlainRow::kName, std::string(kMaxValueLen, 'n'));
  const Bytes before = imageOf(row);
  const byte_t* const buf = row.rowBuf();
  const auto refused = [&](const auto& value) {
    EXPECT_THROW(writer.setColumn(PlainRow::kAddr, value), KoOutOfRange);
    EXPECT_EQ(imageOf(row), before);
    EXPECT_EQ(row.rowBuf(), buf);
  };
  refused(std::string(kMaxValueLen + 1, 'a'));
  refused(std::string(kMaxValueLen, 'a'));  // the row would be too long
  refused(std::vector<std::string>(2, std::string(kMaxValueLen / 2, 'a')));

  // Up to the last byte.
  const std::size_t left = kMaxRowLen - rowLength(row);
  refused(std::string(left + 1, 'a'));
  writer.setColumn(PlainRow::kAddr, std::string(left, 'a'));
  EXPECT_EQ(rowLength(row), kMaxRowLen);
  EXPECT_EQ(stringOf(row, PlainRow::kName), std::string(kMaxValueLen, 'n'));
  EXPECT_EQ(stringOf(row, PlainRow::kAddr), std::string(left, 'a'));
}

TEST(RowWritersDeathTest, WantABaseLength) {
  FullRow row(7, 1001);
  EXPECT_DEATH(RowWriter(row, 0), "Assertion `fdLen != 0' failed");
}

TEST(RowWritersDeathTest, DoNotWriteIntoNestedRows) {
  const PlainRow outer(7, 1001);
  SubRowReference nested(outer.rowBuf());
  EXPECT_DEATH(RowWriter(nested, base).setColumn(PlainRow::kName, std::string("x")),
               "Assertion `false' failed");
}

// ---------------------------------------------------------------------------------------------
// Many columns

TEST(RowWriters, FillWideRows) {
  WideRow expected;
  WideRow row;
  RowWriter writer(row, WideRow::kWideBase);
  for (unsigned column = 0; column < WideRow::kColumns; ++column) {
    const std::string text(column % 17, static_cast<char>('a' + column % 26));
    expected.setColumn(WideRow::slot(column), text, WideRow::kWideBase);
    writer.setColumn(WideRow::slot(column), text);
    ASSERT_EQ(hex(row), hex(expected)) << column;
  }
}

/// Counts the looks at the list of columns.
class CountingRow : public FullRow {
 public:
  using FullRow::FullRow;
  vcdType& vcd() const override {
    ++looks;
    return FullRow::vcd();
  }
  void replaceRow(byte_t* buf) override {
    ++blocks;
    FullRow::replaceRow(buf);
  }
  mutable int looks = 0;
  int blocks = 0;
};

TEST(RowWriters, LookAtTheSlotsOnce) {
  CountingRow row(7, 1001);
  {
    RowWriter writer(row, base);
    for (const len_t slot : kVariableSlots) writer.setColumn(slot, std::string("a text"));
    for (const len_t slot : kVariableSlots) writer.setColumn(slot, std::string("others"));
    EXPECT_EQ(row.looks, 1);
    // All took their room in one block, which the row's class has been given.
    EXPECT_EQ(row.blocks, 1);
  }
  EXPECT_EQ(row.blocks, 2);  // the end gives back what was too much
  EXPECT_EQ(rowLength(row), base + 5 * 6);
  EXPECT_LT(malloc_usable_size(row.rowBuf()), rowLength(row) + 64U);
}

TEST(RowWriters, LookAgainWhenARowHasPackedItself) {
  CountingRow row(7, 1001);
  RowWriter writer(row, base);
  for (const len_t slot : kVariableSlots) writer.setColumn(slot, std::string(20, 'a'));
  writer.setColumn(PlainRow::kName, std::string(40, 'b'));  // the row packs what it has
  writer.setColumn(PlainRow::kAddr, std::string());
  const int before = row.looks;
  writer.setColumn(PlainRow::kAddr, std::string(20, 'c'));
  EXPECT_GT(row.looks, before);
  EXPECT_EQ(stringOf(row, PlainRow::kName), std::string(40, 'b'));
  EXPECT_EQ(stringOf(row, PlainRow::kAddr), std::string(20, 'c'));
  EXPECT_EQ(stringOf(row, PlainRow::kList), std::string(20, 'a'));
}

// ---------------------------------------------------------------------------------------------
// Random sequences

template <typename Row>
class TwinRows {
 public:
  explicit TwinRows(unsigned seed) : random_(seed) { renew(); }

  void step() {
    const len_t slot = kVariableSlots[below(5)];
    switch (below(15)) {
      case 0:
        return renew();
      case 1:  // another writer; the row is written without one meanwhile
        writer_.reset();
        own_.rowOidIs(static_cast<oid_t>(below(100)));
        byWriter_.rowOidIs(own_.rowOid());
        writer_.emplace(byWriter_, base);
        return;
      case 2:
        sharer_ = byWriter_;
        sharedImage_ = imageOf(sharer_);
        return;
      case 3:
        sharer_ = Row();
        sharedImage_.clear();
        return;
      case 4: {
        std::vector<std::string> values(below(5));
        for (std::string& value : values) value = text();
        return both([&](auto& row, auto... fdLen) { row.setColumn(slot, values, fdLen...); });
      }
      case 5: {
        const std::vector<bool> values(below(20), below(2) == 0);
        own_.updateFixElemArray(slot, base, values);
        return writer_->updateFixElemArray(slot, values);
      }
      case 6:
        return both([&](auto& row, auto... fdLen) {
          row.setColumn(slot, IpGenAddr(slot % 4 == 1 ? "10.1.2.3" : "::1"), fdLen...);
        });
      case 7:
        return both([&](auto& row, auto... fdLen) {
          row.setColumn(slot, IpGenPrefix("10.0.0.0/8"), fdLen...);
        });
      case 8: {  // a stretch of the row itself
        const std::size_t begin = below(rowLength(own_));
        const auto length = static_cast<len_t>(below(rowLength(own_) - begin) % 100);
        const auto of = [&](const BaseRow& row) {
          return StringValueReference(reinterpret_cast<const char*>(row.rowBuf()) + begin, length);
        };
        own_.setColumn(slot, of(own_), base);
        return writer_->setColumn(slot, of(byWriter_));
      }
      case 9: {
        const auto value = static_cast<std::uint32_t>(below(1000));
        own_.setFixedColumn(PlainRow::kCount, value);
        return writer_->setFixedColumn(PlainRow::kCount, value);
      }
      default: {
        const std::string value = text();
        return both([&](auto& row, auto... fdLen) { row.setColumn(slot, value, fdLen...); });
      }
    }
  }

  void verify() const {
    ASSERT_EQ(hex(byWriter_), hex(own_));
    ASSERT_EQ(sharer_.isNull(), sharedImage_.empty());
    if (!sharer_.isNull()) {
      ASSERT_EQ(imageOf(sharer_), sharedImage_);
    }
  }

 private:
  template <typename Write>
  void both(const Write& write) {
    write(own_, base);
    write(*writer_);
  }
  void renew() {
    writer_.reset();
    own_ = Row(7, 1001);
    byWriter_ = Row(7, 1001);
    writer_.emplace(byWriter_, base);
  }
  std::size_t below(std::size_t bound) { return random_() % bound; }
  std::string text() {
    const std::size_t length = below(20) == 0 ? below(900) : below(30);
    return std::string(length, static_cast<char>('a' + below(26)));
  }

  std::mt19937 random_;
  Row own_;
  Row byWriter_;
  Row sharer_;
  Bytes sharedImage_;
  std::optional<RowWriter> writer_;
};

TYPED_TEST(RowWriters, LeaveWhatTheRowsOwnWritersLeave) {
  for (unsigned seed = 0; seed < 100; ++seed) {
    SCOPED_TRACE(seed);
    TwinRows<TypeParam> twins(seed);
    for (int i = 0; i < 60; ++i) {
      twins.step();
      ASSERT_NO_FATAL_FAILURE(twins.verify());
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Declared classes

using Inner = Korvo::RowLayout<2, Korvo::Column<"text", std::string>>;
using Layout =
    Korvo::RowLayout<1, Korvo::Column<"number", std::uint32_t>, Korvo::Column<"text", std::string>,
                     Korvo::Column<"addr", IpGenAddr>, Korvo::Column<"net", IpGenPrefix>,
                     Korvo::Column<"texts", std::vector<std::string>>,
                     Korvo::Column<"flags", std::vector<bool>>,
                     Korvo::Column<"inner", Korvo::Nested<Inner>>>;

template <typename RowOrWriter>
void fill(RowOrWriter& row, const Korvo::TableRow<Inner>& inner, const std::string& text) {
  row.template set<"number">(17);
  row.template set<"text">(text);
  row.template set<"text">("a literal");
  row.template set<"addr">(IpGenAddr("10.1.2.3"));
  row.template set<"net">(IpGenPrefix("10.0.0.0/8"));
  row.template set<"texts">({text, "b"});
  row.template set<"flags">({true, false});
  row.template set<"inner">(inner);
  row.template set<"text">(std::string_view(text));
}

TEST(RowWritersOfDeclaredClasses, LeaveWhatTheRowsOwnWritersLeave) {
  Korvo::TableRow<Inner> inner;
  inner.create(3);
  inner.set<"text">("nested");
  for (const std::string& text : {std::string("short"), std::string(200, 'l')}) {
    Korvo::TableRow<Layout> expected;
    expected.create(5);
    fill(expected, inner, text);
    Korvo::TableRow<Layout> row;
    row.create(5);
    {
      auto writer = row.writer();
      fill(writer, inner, text);
    }
    EXPECT_EQ(hex(row), hex(expected));
    EXPECT_EQ(row.toJson(), expected.toJson());
  }
}

TEST(RowWritersOfDeclaredClasses, DoNotMistakeACopyForTheBlockThatWasGivenUp) {
  Korvo::TableRow<Layout> row;
  row.create(5);
  auto writer = row.writer();
  writer.set<"text">(std::string(650, 't'));  // the block is about twice as long as the row
  const std::size_t copyLength = rowLength(row);
  const auto largeBlock = reinterpret_cast<std::uintptr_t>(row.rowBuf());
  Korvo::TableRow<Layout> sharer = row;
  writer.set<"number">(1);  // copies the row: the large block is the sharer's alone
  sharer = row;             // and now nobody's

  // The next copy is to stand where the large block stood, and ends earlier.
  std::vector<std::unique_ptr<void, decltype(&std::free)>> others;
  for (int i = 0; i < 100; ++i) {
    others.emplace_back(std::malloc(copyLength), &std::free);
    if (reinterpret_cast<std::uintptr_t>(others.back().get()) == largeBlock) break;
  }
  others.pop_back();
  writer.set<"number">(2);
  if (reinterpret_cast<std::uintptr_t>(row.rowBuf()) != largeBlock) {
    GTEST_SKIP() << "this allocator does not use the place again";
  }
  ASSERT_LT(malloc_usable_size(row.rowBuf()), copyLength + 100);
  writer.set<"texts">({std::string(500, 'u')});
  EXPECT_GE(malloc_usable_size(row.rowBuf()), rowLength(row));
  EXPECT_EQ(row.get<"text">(), std::string(650, 't'));
}

// The row must not be written beside its writer; where it is, its columns may get lost, but no byte
// outside its block is touched.
TEST(RowWritersOfDeclaredClasses, StayInsideABlockThatTheRowHasTakenMeanwhile) {
  Korvo::TableRow<Layout> row;
  row.create(5);
  auto writer = row.writer();
  writer.set<"text">(std::string(100, 't'));
  row.set<"addr">(IpGenAddr("10.1.2.3"));  // a block of exactly the row's length
  writer.set<"texts">({std::string(200, 'u')});
  EXPECT_GE(malloc_usable_size(row.rowBuf()), rowLength(row));
  row.create(6);  // a shorter one
  writer.set<"net">(IpGenPrefix("10.0.0.0/8"));
  EXPECT_GE(malloc_usable_size(row.rowBuf()), rowLength(row));
  row.nullifyRow();
  EXPECT_THROW(writer.set<"net">(IpGenPrefix("10.0.0.0/8")), KoNullRow);
}

}  // namespace
