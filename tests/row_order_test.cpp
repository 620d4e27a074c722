// Comparing, hashing and sorting rows by columns of every type, and by several.

#include <Korvo/TableRow.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

namespace {

using namespace Korvo;

struct InnerLayout : RowLayout<2, Column<"text", std::string>, Column<"number", double>> {};
struct Layout
    : RowLayout<1, Column<"u8", std::uint8_t>, Column<"u64", std::uint64_t>,
                Column<"i8", std::int8_t>, Column<"i32", std::int32_t>, Column<"i64", std::int64_t>,
                Column<"single", float>, Column<"real", double>, Column<"flag", bool>,
                Column<"v4", IpAddr>, Column<"v6", Ip6Addr>, Column<"text", std::string>,
                Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
                Column<"texts", std::vector<std::string>>, Column<"flags", std::vector<bool>>,
                Column<"inner", Nested<InnerLayout>>> {};
using Row = TableRow<Layout>;

Row newRow() {
  Row row;
  row.create();
  return row;
}

template <ColumnName Name, typename Value>
Row rowWith(const Value& value) {
  Row row = newRow();
  row.set<Name>(value);
  return row;
}

/// Each value is before all that follow it, and equal to itself alone.
template <ColumnName Name, typename T>
void expectOrder(const std::vector<T>& values) {
  std::vector<Row> rows;
  for (const T& value : values) rows.push_back(rowWith<Name>(value));
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (std::size_t j = 0; j < rows.size(); ++j) {
      EXPECT_EQ(rows[i].less<Name>(rows[j]), i < j) << i << " " << j;
      EXPECT_EQ(rows[i].equal<Name>(rows[j]), i == j) << i << " " << j;
      EXPECT_EQ(rows[i] == rows[j], i == j) << i << " " << j;
      EXPECT_TRUE(i != j || rowWith<Name>(values[i]).template hash<Name>() == rows[j].hash<Name>());
      EXPECT_TRUE(i < j || rows[i].orderKey<Name>() >= rows[j].orderKey<Name>()) << i << " " << j;
    }
  }
  std::vector<Row> shuffled = rows;
  shuffled.insert(shuffled.end(), rows.begin(), rows.end());
  std::shuffle(shuffled.begin(), shuffled.end(), std::minstd_rand(7));
  sortRows<Name>(shuffled);
  for (std::size_t i = 0; i < shuffled.size(); ++i) EXPECT_EQ(shuffled[i], rows[i / 2]) << i;
}

template <typename T>
using Limits = std::numeric_limits<T>;

TEST(ColumnOrder, OfNumbersIsThatOfNumbers) {
  expectOrder<"u8", std::uint8_t>({0, 1, 127, 128, 255});
  expectOrder<"u64", std::uint64_t>({0, 1, 1ULL << 32, 1ULL << 63, Limits<std::uint64_t>::max()});
  expectOrder<"i8", std::int8_t>({-128, -1, 0, 1, 127});
  expectOrder<"i32", std::int32_t>(
      {Limits<std::int32_t>::min(), -70000, -1, 0, 1, 256, Limits<std::int32_t>::max()});
  expectOrder<"i64", std::int64_t>(
      {Limits<std::int64_t>::min(), -1, 0, 1, Limits<std::int64_t>::max()});
}

TEST(ColumnOrder, OfFractionsHasNaNLast) {
  const double infinity = Limits<double>::infinity();
  expectOrder<"real", double>({-infinity, -1e300, -1.5, -1e-300, 0, 1e-300, 1.5, 1e300, infinity,
                               Limits<double>::quiet_NaN()});
  const float wide = Limits<float>::infinity();
  expectOrder<"single", float>(
      {-wide, -1.5F, -1e-40F, 0, 1e-40F, 1.5F, wide, Limits<float>::quiet_NaN()});
  // There is one zero, and one NaN.
  const Row negative = rowWith<"real">(-0.0);
  const Row positive = rowWith<"real">(0.0);
  EXPECT_TRUE(negative.equal<"real">(positive) && negative == positive);
  EXPECT_FALSE(negative.less<"real">(positive) || positive.less<"real">(negative));
  EXPECT_EQ(negative.hash<"real">(), positive.hash<"real">());
  const Row nan = rowWith<"real">(std::nan("1"));
  const Row other = rowWith<"real">(-std::nan("2"));
  EXPECT_TRUE(nan.equal<"real">(other) && nan == other);
  EXPECT_EQ(nan.hash<"real">(), other.hash<"real">());
}

TEST(ColumnOrder, OfBoolsHasFalseFirst) {
  expectOrder<"flag", bool>({false, true});
  Row two = rowWith<"flag">(true);
  two.rwRowBuf()[Layout::offset<"flag">] = 2;  // another process's true
  EXPECT_TRUE(two.equal<"flag">(rowWith<"flag">(true)) && two == rowWith<"flag">(true));
  EXPECT_EQ(two.hash<"flag">(), rowWith<"flag">(true).hash<"flag">());
}

TEST(ColumnOrder, OfAddressesIsNumeric) {
  expectOrder<"v4", IpAddr>(
      {IpAddr(), IpAddr("1.0.0.0"), IpAddr("9.255.0.0"), IpAddr("10.0.0.1"), IpAddr("255.0.0.0")});
  expectOrder<"v6", Ip6Addr>({Ip6Addr(), Ip6Addr("::1"), Ip6Addr("::1:0:0:0:0"),
                              Ip6Addr("2001:db8::1"), Ip6Addr("2001:db8::2"), Ip6Addr("ff00::")});
  expectOrder<"addr", IpGenAddr>({IpGenAddr(), IpGenAddr("0.0.0.0"), IpGenAddr("10.0.0.1"),
                                  IpGenAddr("255.255.255.255"), IpGenAddr("::"), IpGenAddr("::1"),
                                  IpGenAddr("::3"), IpGenAddr("::4"), IpGenAddr("::1:0:0:0"),
                                  IpGenAddr("0:0:0:3::"), IpGenAddr("0:0:0:3::1"),
                                  IpGenAddr("2001:db8::")});
}

TEST(ColumnOrder, OfPrefixesIsThatOfTheirReferences) {
  expectOrder<"net", IpGenPrefix>(
      {IpGenPrefix(), IpGenPrefix("0.0.0.0/32"), IpGenPrefix("10.0.0.0/16"),
       IpGenPrefix("10.1.0.0/16"), IpGenPrefix("10.0.0.0/8"), IpGenPrefix("11.0.0.0/8"),
       IpGenPrefix("0.0.0.0/0"), IpGenPrefix("::/128"), IpGenPrefix("::1/128"),
       IpGenPrefix("::/127"), IpGenPrefix("::2/128"), IpGenPrefix("::/63"),
       IpGenPrefix("2001:db8::/64"), IpGenPrefix("2001:db8::/33"), IpGenPrefix("::/0")});
}

TEST(ColumnOrder, PrefixesWithoutAFamilyComeFirstAndStopNothing) {
  const Row none = newRow();
  const Row net = rowWith<"net">(IpGenPrefix("0.0.0.0/32"));
  EXPECT_FALSE(none.less<"net">(newRow()));
  EXPECT_TRUE(none.equal<"net">(newRow()));
  EXPECT_TRUE(none.less<"net">(net));
  EXPECT_FALSE(net.less<"net">(none));
  std::vector<Row> rows = {net, none, rowWith<"net">(IpGenPrefix("::/0")), none, net, none};
  for (int i = 0; i < 4; ++i) {
    const std::vector<Row> more = rows;
    rows.insert(rows.end(), more.begin(), more.end());
  }
  sortRows<"net">(rows);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].view<"net">().af() == unknown_, i < rows.size() / 2) << i;
  }
}

TEST(ColumnOrder, OfTextIsLexicographicBytes) {
  using namespace std::string_literals;
  expectOrder<"text", std::string>({""s, "\0"s, "\0\0"s, "\0a"s, "a"s, "a\0"s, "a\0\0"s, "ab"s,
                                    "abcdefg"s, "abcdefg\0"s, "abcdefg\0x"s, "abcdefgh"s,
                                    "abcdefghijklmn"s, "abcdefghijklmno"s, "abcdefghijklmnz"s, "b"s,
                                    "\xFF"s, "\xFF\xFF"s});
}

// Names that begin alike for 0 to 40 bytes, against std::sort.
TEST(SortRows, SortsNamesThatBeginAlike) {
  std::mt19937 random(11);
  std::vector<Row> rows;
  for (int i = 0; i < 3000; ++i) {
    std::string name(random() % 41, 'x');
    for (std::size_t n = random() % 6; n != 0; --n) name += static_cast<char>(random() % 4);
    rows.push_back(rowWith<"text">(name));
  }
  std::vector<Row> expected = rows;
  std::sort(expected.begin(), expected.end(),
            [](const Row& a, const Row& b) { return a.less<"text">(b); });
  sortRows<"text">(rows);
  for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], expected[i]) << i;
}

TEST(SortRows, SortsPrefixesOfAllLengths) {
  std::mt19937 random(12);
  std::vector<Row> rows;
  for (int i = 0; i < 4000; ++i) {
    unsigned char bytes[16] = {};
    for (unsigned char& byte : bytes) byte = random() % 3 == 0 ? 0x80 : 0;
    const AddressFamily af = random() % 2 == 0 ? ipv4_ : ipv6_;
    const unsigned int length = static_cast<unsigned int>(random() % (af == ipv4_ ? 33 : 129));
    rows.push_back(rowWith<"net">(IpGenPrefix(af, length, bytes).network()));
  }
  std::vector<Row> expected = rows;
  std::sort(expected.begin(), expected.end(),
            [](const Row& a, const Row& b) { return a.get<"net">() < b.get<"net">(); });
  sortRows<"net">(rows);
  for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], expected[i]) << i;
}

TEST(SortRows, SortsBySeveralColumnsTheFirstOneFirst) {
  std::mt19937 random(13);
  std::vector<Row> rows;
  for (int i = 0; i < 2000; ++i) {
    Row row = newRow();
    row.set<"u8">(static_cast<std::uint8_t>(random() % 4));
    row.set<"flag">(random() % 2 == 0);
    row.set<"text">("interface-" + std::to_string(random() % 30));
    row.set<"i32">(static_cast<std::int32_t>(random()));
    rows.push_back(row);
  }
  const auto tupleOf = [](const Row& row) {
    return std::tuple(row.get<"u8">(), row.get<"flag">(), row.get<"text">(), row.get<"i32">());
  };
  sortRows<"u8", "flag", "text", "i32">(rows);
  for (std::size_t i = 1; i < rows.size(); ++i) {
    EXPECT_LE(tupleOf(rows[i - 1]), tupleOf(rows[i])) << i;
    EXPECT_EQ((rows[i - 1].less<"u8", "flag", "text", "i32">(rows[i])),
              tupleOf(rows[i - 1]) < tupleOf(rows[i]));
    EXPECT_EQ((rows[i - 1].equal<"u8", "flag", "text", "i32">(rows[i])),
              tupleOf(rows[i - 1]) == tupleOf(rows[i]));
  }
}

TEST(SortRows, LeavesTheRowsAsTheyAreWhereOneIsNull) {
  std::vector<Row> rows(20, rowWith<"u8">(std::uint8_t{2}));
  rows[3].set<"u8">(1);
  rows.emplace_back();
  EXPECT_THROW((sortRows<"u8", "text">(rows)), KoNullRow);
  EXPECT_EQ(rows[0].get<"u8">(), 2);
  EXPECT_EQ(rows[3].get<"u8">(), 1);
  EXPECT_TRUE(rows.back().isNull());
  std::vector<Row> none;
  sortRows<"u8">(none);

  const Row outer = newRow();
  std::vector<SubRow<Layout>> views(2, SubRow<Layout>(outer.rowBuf()));
  sortRows<"text", "i32">(views);  // views are sorted as rows are
  EXPECT_EQ(views[0], views[1]);
}

TEST(ColumnOrder, OfNullRowsIsRefused) {
  const Row null;
  const Row row = newRow();
  EXPECT_THROW((void)null.less<"u8">(row), KoNullRow);
  EXPECT_THROW((void)row.less<"u8">(null), KoNullRow);
  EXPECT_THROW((void)row.equal<"v6">(null), KoNullRow);
  EXPECT_THROW((void)null.hash<"flag">(), KoNullRow);
  EXPECT_THROW((void)(row.equal<"u8", "text">(null)), KoNullRow);
}

TEST(ColumnHash, OfOneColumnIsThatOfItsReference) {
  const Row row = rowWith<"text">("eth0");
  EXPECT_EQ(row.hash<"text">(), row.columnHash<StringValueReference>(Layout::offset<"text">));
}

TEST(ColumnHash, IsTheSameOnEveryHost) {
  EXPECT_EQ(rowWith<"u64">(1U).hash<"u64">(), rowWith<"u8">(std::uint8_t{1}).hash<"u8">());
  EXPECT_EQ(rowWith<"u8">(std::uint8_t{1}).hash<"u8">(), 0x809477D0U);
  EXPECT_EQ(rowWith<"i32">(-1).hash<"i32">(), 0x0289D01AU);
  EXPECT_EQ(rowWith<"real">(1.5).hash<"real">(), rowWith<"single">(1.5F).hash<"single">());
}

TEST(ColumnHash, OfSeveralColumnsDependsOnAllAndOnTheirOrder) {
  std::unordered_set<unsigned int> hashes;
  for (int a = 0; a < 30; ++a) {
    for (int b = 0; b < 30; ++b) {
      Row row = newRow();
      row.set<"i32">(a);
      row.set<"text">(std::to_string(b));
      hashes.insert(row.hash<"i32", "text">());
      hashes.insert(row.hash<"text", "i32">());
    }
  }
  EXPECT_EQ(hashes.size(), 2U * 30 * 30);
}

// ---------------------------------------------------------------------------------------------
// Equality of rows

Row fullRow() {
  Row row = newRow();
  row.set<"i32">(7);
  row.set<"text">("text");
  row.set<"addr">(IpGenAddr("10.0.0.1"));
  row.set<"net">(IpGenPrefix("10.0.0.0/8"));
  row.set<"texts">({"a", "b"});
  row.set<"flags">({true, false});
  TableRow<InnerLayout> inner;
  inner.create();
  inner.set<"text">("deep");
  row.set<"inner">(inner);
  return row;
}

TEST(RowEquality, IsThatOfTheColumns) {
  const Row row = fullRow();
  Row other = fullRow();
  EXPECT_TRUE(row == other);
  // Not of the bytes: gaps, the order of values and the oid do not count.
  other.set<"text">("a longer text");
  other.set<"text">("text");
  other.rowOidIs(99);
  EXPECT_NE(row.rowLength(), other.rowLength());
  EXPECT_TRUE(row == other);
  EXPECT_FALSE(row != other);
}

TEST(RowEquality, EveryColumnCounts) {
  const Row row = fullRow();
  const auto differs = [&](auto change) {
    Row other = fullRow();
    change(other);
    return row != other && other != row;
  };
  EXPECT_TRUE(differs([](Row& r) { r.set<"u8">(1); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"i32">(8); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"flag">(true); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"v6">(Ip6Addr("::1")); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"text">("texts"); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"addr">(IpGenAddr()); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"net">(IpGenPrefix(IpAddr("10.0.0.1"), 8)); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"texts">({"a"}); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"texts">({"a", "c"}); }));
  EXPECT_TRUE(differs([](Row& r) { r.set<"flags">({true, true}); }));
  EXPECT_TRUE(differs([](Row& r) {
    TableRow<InnerLayout> inner;
    inner.create();
    inner.set<"text">("deeper");
    r.set<"inner">(inner);
  }));
}

TEST(RowEquality, OfNestedRowsIsTheSame) {
  const Row row = fullRow();
  const Row other = fullRow();
  EXPECT_TRUE(row.view<"inner">() == other.view<"inner">());
  TableRow<InnerLayout> inner;
  inner.create();
  EXPECT_FALSE(inner == row.view<"inner">());
  inner.set<"text">("deep");
  EXPECT_TRUE(inner == row.view<"inner">());
  EXPECT_TRUE(row.view<"inner">() == inner);
}

TEST(RowEquality, NullRowsAreEqual) {
  EXPECT_TRUE(Row() == Row());
  EXPECT_FALSE(Row() == newRow());
  EXPECT_FALSE(newRow() == Row());
  EXPECT_TRUE(newRow().view<"inner">() == newRow().view<"inner">());
}

// ---------------------------------------------------------------------------------------------
// Comparing views with what people have

TEST(Views, OfTextCompareWithText) {
  const Row row = rowWith<"text">("eth0");
  EXPECT_TRUE(row.view<"text">() == "eth0");
  EXPECT_TRUE("eth0" == row.view<"text">());
  EXPECT_TRUE(row.view<"text">() != "eth");
  EXPECT_TRUE(row.view<"text">() == std::string("eth0"));
  EXPECT_TRUE(std::string_view("eth0") == row.view<"text">());
  EXPECT_FALSE(row.view<"text">() == "eth01");
  EXPECT_TRUE(newRow().view<"text">() == "");
}

TEST(Views, MakeValues) {
  Row row = rowWith<"text">("eth0");
  const std::string text(row.view<"text">());
  EXPECT_EQ(text, "eth0");
  row.set<"addr">(IpGenAddr("2001:db8::1"));
  EXPECT_EQ(IpGenAddr(row.view<"addr">()), IpGenAddr("2001:db8::1"));
  row.set<"net">(IpGenPrefix(IpAddr("10.1.2.3"), 8));
  const IpGenPrefix asItIs(row.view<"net">());
  EXPECT_EQ(asItIs, IpGenPrefix(IpAddr("10.1.2.3"), 8));
  EXPECT_EQ(row.view<"net">().network(), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(IpGenAddr(newRow().view<"addr">()), IpGenAddr());
  EXPECT_EQ(IpGenPrefix(newRow().view<"net">()), IpGenPrefix());
  EXPECT_EQ(newRow().view<"net">().network(), IpGenPrefix());
  const byte_t bytes[4] = {10, 0, 0, 0};
  EXPECT_THROW(IpGenPrefix(IpGenPrefixReference(bytes, ipv4_, 33)), KoOutOfRange);
}

TEST(Views, HaveText) {
  Row row = rowWith<"addr">(IpGenAddr("2001:db8::1"));
  EXPECT_EQ(row.view<"addr">().toString(), "2001:0db8:0000:0000:0000:0000:0000:0001");
  EXPECT_EQ(row.view<"addr">().toShortString(), "2001:db8::1");
  row.set<"net">(IpGenPrefix("2001:db8::/33"));
  EXPECT_EQ(row.view<"net">().toString(), "2001:0db8:0000:0000:0000:0000:0000:0000/33");
  EXPECT_EQ(row.view<"net">().toShortString(), "2001:db8::/33");
  EXPECT_EQ(newRow().view<"addr">().toString(), "<null>");
  EXPECT_EQ(newRow().view<"net">().toShortString(), "<null>");
}

}  // namespace
