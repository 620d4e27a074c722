// Row classes declared once: places, typed access, new rows, rows from other processes, JSON.

#include <Korvo/TableRow.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <locale>
#include <string>
#include <vector>

namespace {

using namespace Korvo;

using OriginLayout = RowLayout<8, Column<"file", std::string>, Column<"line", std::uint32_t>>;

using WideLayout =
    RowLayout<7, Column<"u8", std::uint8_t>, Column<"u16", std::uint16_t>,
              Column<"u32", std::uint32_t>, Column<"u64", std::uint64_t>, Column<"i8", std::int8_t>,
              Column<"i16", std::int16_t>, Column<"i32", std::int32_t>, Column<"i64", std::int64_t>,
              Column<"f", float>, Column<"d", double>, Column<"b", bool>, Column<"oid", oid_t>,
              Column<"len", len_t>, Column<"ip", IpAddr>, Column<"ip6", Ip6Addr>,
              Column<"name", std::string>, Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
              Column<"names", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>,
              Column<"origin", Nested<OriginLayout>>>;
using Wide = TableRow<WideLayout>;
using Origin = TableRow<OriginLayout>;

// Offsets given by hand, out of order and with gaps.
using PlacedLayout = RowLayout<1, Column<"tail", std::string, 21>, Column<"head", std::uint16_t, 9>,
                               Column<"next", bool>>;

// The columns stand one behind the other from byte 8, without padding.
static_assert(WideLayout::offset<"u8"> == 8);
static_assert(WideLayout::offset<"u16"> == 9);
static_assert(WideLayout::offset<"u32"> == 11);
static_assert(WideLayout::offset<"u64"> == 15);
static_assert(WideLayout::offset<"i8"> == 23);
static_assert(WideLayout::offset<"d"> == 23 + 1 + 2 + 4 + 8 + 4);
static_assert(WideLayout::offset<"ip"> == 42 + 8 + 1 + 4 + 2);
static_assert(WideLayout::offset<"name"> == 57 + 4 + 16);
static_assert(WideLayout::baseLength == 77 + 8 * 4);
static_assert(PlacedLayout::offset<"tail"> == 21);
static_assert(PlacedLayout::offset<"head"> == 9);
static_assert(PlacedLayout::offset<"next"> == 11);
static_assert(PlacedLayout::baseLength == 25);

IpGenAddr v4(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
  const unsigned char bytes[] = {a, b, c, d};
  return IpGenAddr(ipv4_, bytes);
}

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

template <typename Function>
std::string messageOf(Function function) {
  try {
    function();
  } catch (const KoBaseException& e) {
    return std::string(e.name()) + ": " + e.what();
  }
  return "no exception";
}

TEST(Layout, TellsItsColumnsAtRunTime) {
  const LayoutInfo& info = WideLayout::info;
  EXPECT_EQ(info.rowType, 7);
  EXPECT_EQ(info.baseLength, 109);
  ASSERT_EQ(info.columns.size(), 23U);
  EXPECT_EQ(info.columns[15].name, "name");
  EXPECT_EQ(info.columns[15].type, stringType_);
  EXPECT_EQ(info.columns[15].width, 4);
  EXPECT_FALSE(info.columns[15].isArray);
  EXPECT_TRUE(info.columns[18].isArray);
  EXPECT_EQ(info.columns[21].type, boolType_);
  EXPECT_TRUE(info.columns[21].isArray);
  EXPECT_EQ(info.columns[22].type, structType_);
  EXPECT_EQ(info.columns[22].nested, &OriginLayout::info);
  for (const ColumnInfo& column : info.columns) {
    if (!column.isArray) {
      EXPECT_EQ(column.width, getKorvoTypeLength(static_cast<unsigned short>(column.type)))
          << column.name;
    }
  }
}

TEST(Layout, AnswersTheLibrarysQuestions) {
  Wide row;
  const BaseRow::vcdType expected = {77, 81, 85, 89, 93, 97, 101, 105};
  EXPECT_EQ(row.vcd(), expected);
  EXPECT_EQ(row.columnOffset("name"), 77);
  EXPECT_EQ(row.columnOffset("u8"), 8);
  EXPECT_EQ(messageOf([&] { row.columnOffset("nam"); }),
            "Korvo::KoInvalidArgument: Unknown column - (nam)");
  EXPECT_EQ(row.baseRowLength(), 109);
  EXPECT_TRUE(row.isFullyDefined());
}

TEST(TableRow, BeginsNullAndReadsNullValues) {
  Wide row;
  EXPECT_TRUE(row.isNull());
  EXPECT_EQ(row.get<"u64">(), 0U);
  EXPECT_EQ(row.get<"b">(), false);
  EXPECT_EQ(row.get<"ip">(), IpAddr());
  EXPECT_EQ(row.get<"name">(), "");
  EXPECT_EQ(row.get<"addr">(), IpGenAddr());
  EXPECT_TRUE(row.get<"names">().empty());
  EXPECT_EQ(row.view<"flags">().size(), 0U);
  EXPECT_TRUE(row.view<"origin">().isNull());
  EXPECT_EQ(row.toJson(), "null");
  EXPECT_THROW(row.set<"u8">(1), KoNullRow);
  EXPECT_THROW(row.set<"name">("x"), KoNullRow);
  EXPECT_TRUE(row.isNull());
}

TEST(TableRow, CreateMakesAZeroRowWithItsHeader) {
  Wide row;
  row.create(0x01020304);
  std::vector<byte_t> expected(109, 0);
  expected[0] = 109;                                                   // row length
  expected[2] = 7;                                                     // row type
  expected[4] = 4, expected[5] = 3, expected[6] = 2, expected[7] = 1;  // oid
  EXPECT_EQ(bytesOf(row), expected);
  EXPECT_EQ(row.toString(), "len = 109, type = 7, oid = 16909060");
  row.create();
  EXPECT_EQ(row.rowOid(), 0U);
}

TEST(TableRow, HeaderFieldsAreSetInACopyOfASharedBuffer) {
  Wide row;
  row.create(1);
  const Wide twin = row;
  row.rowOidIs(9);
  row.rowTypeIs(300);
  EXPECT_EQ(row.rowOid(), 9U);
  EXPECT_EQ(row.rowType(), 300);
  EXPECT_EQ(twin.rowOid(), 1U);
  EXPECT_EQ(twin.rowType(), 7);
}

TEST(TableRow, FixedColumnsKeepEveryValueOfTheirType) {
  Wide row;
  row.create();
  row.set<"u8">(255);
  row.set<"u16">(65535);
  row.set<"u32">(4294967295U);
  row.set<"u64">(std::numeric_limits<std::uint64_t>::max());
  row.set<"i8">(-128);
  row.set<"i16">(-32768);
  row.set<"i32">(std::numeric_limits<std::int32_t>::min());
  row.set<"i64">(std::numeric_limits<std::int64_t>::min());
  row.set<"f">(-0.5F);
  row.set<"d">(1e300);
  row.set<"b">(true);
  row.set<"oid">(77U);
  row.set<"len">(500);
  row.set<"ip">(IpAddr(0x04030201U));
  const unsigned char six[16] = {0x20, 1, 0xD, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
  row.set<"ip6">(Ip6Addr(six));
  EXPECT_EQ(row.get<"u8">(), 255);
  EXPECT_EQ(row.get<"u16">(), 65535);
  EXPECT_EQ(row.get<"u32">(), 4294967295U);
  EXPECT_EQ(row.get<"u64">(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(row.get<"i8">(), -128);
  EXPECT_EQ(row.get<"i16">(), -32768);
  EXPECT_EQ(row.get<"i32">(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(row.get<"i64">(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(row.get<"f">(), -0.5F);
  EXPECT_EQ(row.get<"d">(), 1e300);
  EXPECT_TRUE(row.get<"b">());
  EXPECT_EQ(row.get<"oid">(), 77U);
  EXPECT_EQ(row.get<"len">(), 500);
  EXPECT_EQ(row.get<"ip">(), IpAddr(0x04030201U));
  EXPECT_EQ(row.get<"ip6">(), Ip6Addr(six));
  EXPECT_EQ(row.rowLength(), 109);  // nothing went to the variable area
  const std::vector<byte_t> bytes = bytesOf(row);
  EXPECT_EQ((std::vector<byte_t>(bytes.begin() + 57, bytes.begin() + 61)),
            (std::vector<byte_t>{1, 2, 3, 4}));  // network order
}

TEST(TableRow, ABoolByteOfAnotherProcessIsTrueUnlessZero) {
  Wide row;
  row.create();
  row.rwRowBuf()[WideLayout::offset<"b">] = 2;
  EXPECT_EQ(row.get<"b">(), true);
  EXPECT_EQ(static_cast<int>(row.get<"b">()), 1);
}

TEST(TableRow, WritingAFixedColumnCopiesASharedBuffer) {
  Wide row;
  row.create();
  row.set<"u32">(5U);
  const Wide twin = row;
  EXPECT_EQ(twin.rowBuf(), row.rowBuf());
  row.set<"u32">(6U);
  EXPECT_NE(twin.rowBuf(), row.rowBuf());
  EXPECT_EQ(twin.get<"u32">(), 5U);
  EXPECT_EQ(row.get<"u32">(), 6U);
}

TEST(TableRow, VariableColumnsReadBackAsValuesAndInPlace) {
  Wide row;
  row.create();
  row.set<"name">("eth0");
  row.set<"addr">(v4(10, 1, 2, 3));
  row.set<"net">(IpGenPrefix(v4(10, 1, 0, 0), 16));
  row.set<"names">({"a", "", "xyz"});
  row.set<"addrs">({v4(1, 2, 3, 4), v4(5, 6, 7, 8)});
  row.set<"nets">({IpGenPrefix(v4(10, 0, 0, 0), 8)});
  row.set<"flags">({true, false, true});

  EXPECT_EQ(row.get<"name">(), "eth0");
  EXPECT_EQ(row.view<"name">().view(), "eth0");
  EXPECT_GE(reinterpret_cast<const byte_t*>(row.view<"name">().data()), row.rowBuf());
  EXPECT_EQ(row.get<"addr">(), v4(10, 1, 2, 3));
  EXPECT_EQ(row.view<"addr">().af(), ipv4_);
  EXPECT_EQ(row.get<"net">(), IpGenPrefix(v4(10, 1, 0, 0), 16));
  EXPECT_EQ(row.view<"net">().mask(), 16);
  EXPECT_EQ(row.get<"names">(), (std::vector<std::string>{"a", "", "xyz"}));
  ASSERT_EQ(row.view<"names">().size(), 3U);
  EXPECT_EQ(row.view<"names">()[2].view(), "xyz");
  EXPECT_EQ(row.get<"addrs">().size(), 2U);
  EXPECT_EQ(row.get<"nets">().at(0).mask(), 8U);
  EXPECT_EQ(row.get<"flags">(), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(row.view<"flags">()[1], false);
}

TEST(TableRow, TextIsTakenFromWhateverIsText) {
  Wide row;
  row.create();
  const std::string text = "one";
  row.set<"name">(text);
  EXPECT_EQ(row.get<"name">(), "one");
  row.set<"name">(std::string_view("two"));
  EXPECT_EQ(row.get<"name">(), "two");
  Wide other;
  other.create();
  other.set<"name">(row.view<"name">());
  EXPECT_EQ(other.get<"name">(), "two");
  row.set<"name">("");
  EXPECT_TRUE(row.view<"name">().empty());
}

TEST(TableRow, AddressesAndPrefixesAreTakenFromTheirReferences) {
  Wide row;
  row.create();
  row.set<"addr">(v4(9, 8, 7, 6));
  row.set<"net">(IpGenPrefix(v4(9, 0, 0, 0), 8));
  Wide other;
  other.create();
  other.set<"addr">(row.view<"addr">());
  other.set<"net">(row.view<"net">());
  EXPECT_TRUE(row.equal<"addr">(other));
  EXPECT_TRUE(row.equal<"net">(other));
  other.set<"addr">(IpAddr(0));
  EXPECT_EQ(other.get<"addr">(), v4(0, 0, 0, 0));
}

TEST(TableRow, ArraysAreTakenFromListsAndRanges) {
  Wide row;
  row.create();
  row.set<"names">({"a", "b"});
  EXPECT_EQ(row.get<"names">(), (std::vector<std::string>{"a", "b"}));
  row.set<"addrs">({IpAddr("1.2.3.4"), IpAddr("1.2.3.5")});
  EXPECT_EQ(row.get<"addrs">(), (std::vector<IpGenAddr>{v4(1, 2, 3, 4), v4(1, 2, 3, 5)}));
  const std::vector<std::string> texts = {"9.9.9.9", "8.8.8.8"};
  row.set<"names">({texts.begin(), texts.end()});
  EXPECT_EQ(row.get<"names">(), texts);
  row.set<"addrs">({texts.begin(), texts.end()});
  EXPECT_EQ(row.get<"addrs">(), (std::vector<IpGenAddr>{v4(9, 9, 9, 9), v4(8, 8, 8, 8)}));
  row.set<"flags">({true, false});
  EXPECT_EQ(row.get<"flags">(), (std::vector<bool>{true, false}));
  row.set<"names">({});
  EXPECT_TRUE(row.view<"names">().empty());
}

TEST(TableRow, TooLongTextIsRefusedAndNothingChanges) {
  Wide row;
  row.create();
  row.set<"name">("kept");
  const std::vector<byte_t> before = bytesOf(row);
  for (const std::size_t size : {std::size_t{32768}, std::size_t{65536}, std::size_t{65540}}) {
    EXPECT_THROW(row.set<"name">(std::string(size, 'x')), KoOutOfRange) << size;
    EXPECT_EQ(bytesOf(row), before);
  }
  row.set<"name">(std::string(32767, 'x'));
  EXPECT_EQ(row.view<"name">().length(), 32767);
}

TEST(TableRow, NestedRowsAreWrittenFromRowsAndFromOtherRowsColumns) {
  Origin origin;
  origin.create(5);
  origin.set<"file">("geoip");
  origin.set<"line">(42U);
  Wide row;
  row.create();
  row.set<"origin">(origin);
  const SubRow<OriginLayout> nested = row.view<"origin">();
  ASSERT_FALSE(nested.isNull());
  EXPECT_EQ(nested.rowOid(), 5U);
  EXPECT_EQ(nested.get<"file">(), "geoip");
  EXPECT_EQ(nested.get<"line">(), 42U);
  EXPECT_EQ(nested.columnOffset("line"), 12);
  EXPECT_TRUE(nested.equal<"file">(origin));
  Wide other;
  other.create();
  other.set<"origin">(nested);
  EXPECT_EQ(other.get<"origin">().get<"line">(), 42U);
  Origin null;
  EXPECT_THROW(other.set<"origin">(null), KoNullRow);
  EXPECT_EQ(other.get<"origin">().get<"line">(), 42U);
}

TEST(TableRow, ComparesAndHashesColumnsByName) {
  Wide a;
  a.create();
  a.set<"name">("ab");
  Wide b;
  b.create();
  b.set<"name">("abc");
  EXPECT_TRUE(a.less<"name">(b));
  EXPECT_FALSE(b.less<"name">(a));
  EXPECT_FALSE(a.equal<"name">(b));
  EXPECT_EQ(a.hash<"name">(), a.columnHash<StringValueReference>(WideLayout::offset<"name">));
  a.set<"net">(IpGenPrefix(v4(10, 0, 0, 0), 16));
  b.set<"net">(IpGenPrefix(v4(10, 0, 0, 0), 8));
  EXPECT_TRUE(a.less<"net">(b));  // the more specific first
  EXPECT_EQ(a.hash<"addr">(), 0U);
}

TEST(TableRow, AdoptsACopyOfReceivedBytes) {
  Wide sent;
  sent.create(3);
  sent.set<"name">("over the wire");
  std::vector<byte_t> wire = bytesOf(sent);
  Wide received;
  received.adopt(wire.data(), wire.size());
  EXPECT_EQ(bytesOf(received), wire);
  wire.assign(wire.size(), 0xEE);
  EXPECT_EQ(received.get<"name">(), "over the wire");
}

TEST(TableRow, RefusesBytesThatAreNoRowOfTheTable) {
  Wide row;
  row.create(3);
  row.set<"name">("kept");
  const std::vector<byte_t> good = bytesOf(row);
  ASSERT_EQ(good.size(), 113U);
  const auto refusal = [&](const std::vector<byte_t>& bytes, std::size_t length) {
    // An exact heap block, so that a read beyond it is found.
    const std::vector<byte_t> block(bytes.begin(),
                                    bytes.begin() + static_cast<std::ptrdiff_t>(length));
    const std::string message = messageOf([&] { row.adopt(block.data(), block.size()); });
    EXPECT_EQ(bytesOf(row), good);
    return message;
  };
  const std::string prefix = "Korvo::KoInvalidArgument: Invalid Row - (";
  for (std::size_t length = 0; length < 8; ++length) {
    EXPECT_EQ(refusal(good, length), prefix + "no room for a header)");
  }
  EXPECT_EQ(refusal(good, 112), prefix + "header says 113 bytes, received 112)");
  std::vector<byte_t> longer = good;
  longer.push_back(0);
  EXPECT_EQ(refusal(longer, 114), prefix + "header says 113 bytes, received 114)");
  std::vector<byte_t> shortRow = good;
  shortRow[0] = 108;
  EXPECT_EQ(refusal(shortRow, 108), prefix + "shorter than the table's columns)");
  std::vector<byte_t> otherType = good;
  otherType[2] = 8;
  EXPECT_EQ(refusal(otherType, 113), prefix + "another row type)");
}

TEST(TableRowJson, WritesEveryColumnInOrder) {
  Origin origin;
  origin.create();
  origin.set<"file">("geoip");
  origin.set<"line">(42U);
  Wide row;
  row.create();
  row.set<"u8">(200);
  row.set<"u64">(18446744073709551615U);
  row.set<"i8">(-1);
  row.set<"f">(0.1F);
  row.set<"d">(0.1);
  row.set<"b">(true);
  row.set<"ip">(IpAddr(0x04030201U));
  row.set<"name">("eth0");
  row.set<"addr">(v4(10, 1, 2, 3));
  row.set<"net">(IpGenPrefix(v4(10, 1, 0, 0), 16));
  row.set<"names">({"a", ""});
  row.set<"addrs">({v4(1, 2, 3, 4), IpGenAddr()});
  row.set<"nets">({IpGenPrefix(v4(10, 0, 0, 0), 8)});
  row.set<"flags">({true, false});
  row.set<"origin">(origin);
  EXPECT_EQ(row.toJson(),
            R"({"u8":200,"u16":0,"u32":0,"u64":18446744073709551615,"i8":-1,"i16":0,"i32":0,)"
            R"("i64":0,"f":0.1,"d":0.1,"b":true,"oid":0,"len":0,"ip":"1.2.3.4",)"
            R"("ip6":"0000:0000:0000:0000:0000:0000:0000:0000","name":"eth0",)"
            R"("addr":"10.1.2.3","net":"10.1.0.0/16","names":["a",""],)"
            R"("addrs":["1.2.3.4",null],"nets":["10.0.0.0/8"],"flags":[true,false],)"
            R"("origin":{"file":"geoip","line":42}})");
}

TEST(TableRowJson, EmptyColumnsAreEmptyTextNullOrEmptyArrays) {
  Wide row;
  row.create();
  const std::string json = row.toJson();
  EXPECT_NE(json.find(R"("name":"","addr":null,"net":null,"names":[],"addrs":[],"nets":[],)"
                      R"("flags":[],"origin":null})"),
            std::string::npos)
      << json;
}

TEST(TableRowJson, NumbersThatJsonLacksAreNull) {
  Wide row;
  row.create();
  row.set<"f">(std::numeric_limits<float>::infinity());
  row.set<"d">(std::numeric_limits<double>::quiet_NaN());
  EXPECT_NE(row.toJson().find(R"("f":null,"d":null)"), std::string::npos);
}

TEST(TableRowJson, StringsAreValidWhateverTheirBytes) {
  struct Case {
    std::string text;
    std::string json;
  };
  const std::string replaced = "\xEF\xBF\xBD";
  const Case cases[] = {
      {"a\"b\\c", R"("a\"b\\c")"},
      {"\n\t\r", R"("\n\t\r")"},
      {std::string("\0\x1F\x7F", 3), std::string("\"\\u0000\\u001f\x7F\"")},
      {"\xC3\xA9", "\"\xC3\xA9\""},                     // two bytes
      {"\xE2\x82\xAC", "\"\xE2\x82\xAC\""},             // three
      {"\xF0\x9F\x98\x80", "\"\xF0\x9F\x98\x80\""},     // four
      {"\xF4\x8F\xBF\xBF", "\"\xF4\x8F\xBF\xBF\""},     // the last code point
      {"\xFF", "\"" + replaced + "\""},                 // no lead byte
      {"\x80", "\"" + replaced + "\""},                 // continuation alone
      {"\xC3", "\"" + replaced + "\""},                 // cut off
      {"\xC3(", "\"" + replaced + "(\""},               // not continued
      {"\xC0\xAF", "\"" + replaced + replaced + "\""},  // overlong
      {"\xE0\x80\xAF", "\"" + replaced + replaced + replaced + "\""},
      {"\xED\xA0\x80", "\"" + replaced + replaced + replaced + "\""},  // surrogate
      {"\xF4\x90\x80\x80", "\"" + replaced + replaced + replaced + replaced + "\""},
      {"\xF0\x8F\xBF\xBF", "\"" + replaced + replaced + replaced + replaced + "\""},
      {"\xF5\x80", "\"" + replaced + replaced + "\""},
  };
  for (const Case& c : cases) {
    Origin row;
    row.create();
    row.set<"file">(c.text);
    EXPECT_EQ(row.toJson(), R"({"file":)" + c.json + R"(,"line":0})");
  }
}

struct GroupingPunctuation : std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(TableRowText, DoesNotDependOnTheGlobalLocale) {
  Wide row;
  row.create(1000000);
  row.set<"u32">(1234567U);
  const std::locale before =
      std::locale::global(std::locale(std::locale(), new GroupingPunctuation));
  const std::string json = row.toJson();
  const std::string header = row.toString();
  std::string refusal;
  try {
    row.adopt(std::vector<byte_t>(2000, 0).data(), 2000);
  } catch (const KoInvalidArgument& e) {
    refusal = e.what();
  }
  std::locale::global(before);
  EXPECT_NE(json.find(R"("u32":1234567,)"), std::string::npos);
  EXPECT_EQ(header, "len = 109, type = 7, oid = 1000000");
  EXPECT_EQ(refusal, "Invalid Row - (header says 0 bytes, received 2000)");
}

TEST(TableRow, RandomOrderOfWritesKeepsEveryColumn) {
  Wide row;
  row.create();
  std::string name;
  std::vector<std::string> names;
  unsigned int state = 12345;
  const auto next = [&](unsigned int below) {
    state = state * 1664525U + 1013904223U;
    return (state >> 8) % below;
  };
  for (int step = 0; step < 2000; ++step) {
    if (next(2) == 0) {
      name.assign(next(40), static_cast<char>('a' + next(26)));
      row.set<"name">(name);
    } else {
      names.assign(next(5), std::string(next(20), static_cast<char>('A' + next(26))));
      row.set<"names">(names);
    }
    ASSERT_EQ(row.get<"name">(), name) << step;
    ASSERT_EQ(row.get<"names">(), names) << step;
    ASSERT_LE(row.rowLength(), 109 + 2 + 5 * 24 + 40 + 200) << "gaps are reused";
  }
}

}  // namespace
