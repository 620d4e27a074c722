// Tables whose rows have columns of every type: each can be looked for and ordered by, and rows are
// equal when their columns are, wherever the values stand in their bytes.

#include <cstring>
#include <limits>

#include "table_test_support.h"

namespace {

using Korvo::Batch;
using Korvo::Column;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::Table;
using tabletest::oids;

using InnerLayout =
    Korvo::RowLayout<10, Column<"note", std::string>, Column<"number", std::uint32_t>>;

struct EveryLayout
    : Korvo::RowLayout<
          9, Column<"u8", std::uint8_t>, Column<"u16", std::uint16_t>, Column<"u32", std::uint32_t>,
          Column<"u64", std::uint64_t>, Column<"i8", std::int8_t>, Column<"i16", std::int16_t>,
          Column<"i32", std::int32_t>, Column<"i64", std::int64_t>, Column<"f", float>,
          Column<"d", double>, Column<"b", bool>, Column<"v4", Korvo::IpAddr>,
          Column<"v6", Korvo::Ip6Addr>, Column<"text", std::string>, Column<"addr", IpGenAddr>,
          Column<"net", IpGenPrefix>, Column<"tags", std::vector<std::string>>,
          Column<"inner", Korvo::Nested<InnerLayout>>> {};
using Every = Korvo::TableRow<EveryLayout>;
using Inner = Korvo::TableRow<InnerLayout>;

Every row(Korvo::oid_t oid) {
  Every every;
  every.create(oid);
  return every;
}

/// Puts a row with `low` and one with `high` into the column, and finds and orders them by it. What
/// the column cannot tell apart from no value, `low` may be.
template <Korvo::ColumnName Name, typename Value>
void expectOrdered(const Value& low, const Value& high) {
  Table<Every> table("every");
  Every first = row(2);
  first.set<Name>(low);
  Every second = row(1);
  second.set<Name>(high);
  Batch batch(table);
  batch.put(second);
  batch.put(first);
  batch.commit();
  const auto& equal = table.template equal<Name>();
  EXPECT_EQ(oids(equal.find(low)), (std::vector<Korvo::oid_t>{2}));
  EXPECT_EQ(oids(equal.find(high)), (std::vector<Korvo::oid_t>{1}));
  const auto& ordered = table.template ordered<Name>();
  EXPECT_EQ(oids(ordered), (std::vector<Korvo::oid_t>{2, 1}));
  EXPECT_EQ(oids(ordered.from(high)), (std::vector<Korvo::oid_t>{1}));
  EXPECT_EQ(oids(ordered.before(high)), (std::vector<Korvo::oid_t>{2}));
}

template <Korvo::ColumnName Name, typename Value>
void expectOrderedToTheLimits() {
  expectOrdered<Name, Value>(std::numeric_limits<Value>::lowest(),
                             std::numeric_limits<Value>::max());
}

TEST(TableOfEveryType, IsOrderedByNumbers) {
  expectOrderedToTheLimits<"u8", std::uint8_t>();
  expectOrderedToTheLimits<"u16", std::uint16_t>();
  expectOrderedToTheLimits<"u32", std::uint32_t>();
  expectOrderedToTheLimits<"u64", std::uint64_t>();
  expectOrderedToTheLimits<"i8", std::int8_t>();
  expectOrderedToTheLimits<"i16", std::int16_t>();
  expectOrderedToTheLimits<"i32", std::int32_t>();
  expectOrderedToTheLimits<"i64", std::int64_t>();
  expectOrderedToTheLimits<"f", float>();
  expectOrderedToTheLimits<"d", double>();
  expectOrdered<"f", float>(-0.5F, 0.25F);
  expectOrdered<"d", double>(-1e300, -1e-300);
  expectOrdered<"b", bool>(false, true);
}

TEST(TableOfEveryType, IsOrderedByTextAndAddresses) {
  expectOrdered<"text", std::string>("eth1", "eth10");
  expectOrdered<"text", std::string>("a\x7f", "a\x80");
  expectOrdered<"v4", Korvo::IpAddr>(Korvo::IpAddr("9.255.255.255"), Korvo::IpAddr("10.0.0.0"));
  expectOrdered<"v6", Korvo::Ip6Addr>(Korvo::Ip6Addr("2001:db8::1"),
                                      Korvo::Ip6Addr("2001:db8::ff"));
  expectOrdered<"addr", IpGenAddr>(IpGenAddr("9.0.0.1"), IpGenAddr("10.0.0.1"));
  expectOrdered<"addr", IpGenAddr>(IpGenAddr("255.0.0.1"), IpGenAddr("::1"));
  expectOrdered<"net", IpGenPrefix>(IpGenPrefix("10.0.0.0/8"), IpGenPrefix("10.0.0.0/9"));
}

/// Puts the second row over the first, and tells whether that was a change.
bool changes(const Every& present, const Every& another) {
  Table<Every> table("every");
  Batch batch(table);
  batch.put(present);
  batch.commit();
  const std::uint64_t before = table.sequence();
  batch.put(another);
  batch.commit();
  return table.sequence() != before;
}

bool haveEqualBytes(const Every& a, const Every& b) {
  return a.rowLength() == b.rowLength() && std::memcmp(a.rowBuf(), b.rowBuf(), a.rowLength()) == 0;
}

TEST(TableOfEveryType, TakesNestedRowsWithGapsForEqual) {
  Inner plain;
  plain.create(5);
  plain.set<"note">("short");
  Inner withGap;
  withGap.create(5);
  withGap.set<"note">("much longer than that");
  withGap.set<"note">("short");
  Every one = row(1);
  one.set<"inner">(plain);
  Every two = row(1);
  two.set<"inner">(withGap);
  ASSERT_FALSE(haveEqualBytes(one, two));
  EXPECT_FALSE(changes(one, two));
  EXPECT_FALSE(changes(two, one));

  withGap.set<"note">("other");
  two.set<"inner">(withGap);
  EXPECT_TRUE(changes(one, two));
  EXPECT_TRUE(changes(one, row(1))) << "a nested row and none";
}

/// The row with its last tag made so much shorter in its place, which leaves bytes of no element.
Every withShorterLastTag(const Every& every, Korvo::len_t by) {
  std::vector<Korvo::byte_t> bytes(every.rowBuf(), every.rowBuf() + every.rowLength());
  const std::size_t array = Korvo::VColType::at(bytes.data(), EveryLayout::offset<"tags">).offset();
  const std::size_t last =
      array + Korvo::arrayHeaderLength + (every.get<"tags">().size() - 1) * sizeof(Korvo::VColType);
  Korvo::VColType slot = Korvo::VColType::at(bytes.data(), last);
  slot.valueIs(slot.offset(), static_cast<Korvo::len_t>(slot.length() - by), false);
  std::memcpy(bytes.data() + last, &slot, sizeof slot);
  Every placed;
  placed.adopt(bytes.data(), static_cast<Korvo::len_t>(bytes.size()));
  return placed;
}

TEST(TableOfEveryType, TakesArraysForEqualWhoseElementsAre) {
  Every one = row(1);
  one.set<"tags">({"core", "edge"});
  Every longer = row(1);
  longer.set<"tags">({"core", "edge no more"});
  const Every two = withShorterLastTag(longer, 8);
  ASSERT_FALSE(haveEqualBytes(one, two));
  ASSERT_EQ(one.get<"tags">(), two.get<"tags">());
  EXPECT_FALSE(changes(one, two));
  EXPECT_FALSE(changes(two, one));

  Every other = row(1);
  other.set<"tags">({"core", "hedge"});
  EXPECT_TRUE(changes(two, other));
  Every fewer = row(1);
  fewer.set<"tags">({"core"});
  EXPECT_TRUE(changes(two, fewer));
  EXPECT_TRUE(changes(two, row(1)));
}

}  // namespace
