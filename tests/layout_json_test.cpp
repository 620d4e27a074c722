// AnyRow: rows of layouts known at run time, by column name, as text and as JSON.

#include <Korvo/AnyRow.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace {

using namespace Korvo;  // NOLINT

using LinkLayout = RowLayout<2, Column<"up", bool>, Column<"peers", std::vector<IpGenAddr>>>;
using PortLayout =
    RowLayout<7, Column<"u8", std::uint8_t>, Column<"u16", std::uint16_t>,
              Column<"u32", std::uint32_t>, Column<"u64", std::uint64_t>, Column<"i8", std::int8_t>,
              Column<"i16", std::int16_t>, Column<"i32", std::int32_t>, Column<"i64", std::int64_t>,
              Column<"f", float>, Column<"d", double>, Column<"b", bool>, Column<"v4", IpAddr>,
              Column<"v6", Ip6Addr>, Column<"text", std::string>, Column<"addr", IpGenAddr>,
              Column<"net", IpGenPrefix>, Column<"texts", std::vector<std::string>>,
              Column<"addrs", std::vector<IpGenAddr>>, Column<"nets", std::vector<IpGenPrefix>>,
              Column<"flags", std::vector<bool>>, Column<"link", Nested<LinkLayout>>>;
using Port = TableRow<PortLayout>;

constexpr char emptyJson[] =
    R"({"u8":0,"u16":0,"u32":0,"u64":0,"i8":0,"i16":0,"i32":0,"i64":0,"f":0,"d":0,"b":false,)"
    R"("v4":"0.0.0.0","v6":"0000:0000:0000:0000:0000:0000:0000:0000","text":"","addr":null,)"
    R"("net":null,"texts":[],"addrs":[],"nets":[],"flags":[],"link":null})";
constexpr char fullJson[] =
    R"({"u8":255,"u16":65535,"u32":4294967295,"u64":18446744073709551615,"i8":-128,"i16":-32768,)"
    R"("i32":-2147483648,"i64":-9223372036854775808,"f":0.1,"d":0.30000000000000004,"b":true,)"
    R"("v4":"10.1.2.3","v6":"2001:0db8:0000:0000:0000:0000:0000:0001","text":"a\"\\\n\u0000é",)"
    R"("addr":"10.1.2.3","net":"10.1.2.3/16","texts":["","x"],)"
    R"("addrs":["10.1.2.3",null,"0000:0000:0000:0000:0000:0000:0000:0001"],)"
    R"("nets":[null,"10.0.0.0/8"],"flags":[true,false],"link":{"up":true,"peers":["1.2.3.4"]}})";

AnyRow portRow() {
  AnyRow row{DynamicLayout(PortLayout::info)};
  row.create(1001);
  return row;
}

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

template <typename Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const KoBaseException& e) {
    return e.what();
  }
  return "";
}

TEST(AnyRowTest, BeginsAsANullRow) {
  AnyRow row{DynamicLayout(PortLayout::info)};
  EXPECT_TRUE(row.isNull());
  EXPECT_EQ(row.toJson(), "null");
  EXPECT_EQ(row.json("u8"), "null");
  EXPECT_EQ(row.text("u8"), "");
  EXPECT_THROW(row.jsonIs("u8", "1"), KoNullRow);
  EXPECT_THROW(row.textIs("u8", "1"), KoNullRow);
  EXPECT_TRUE(row.isNull());
}

TEST(AnyRowTest, IsCreatedAndAdoptedAsATableRow) {
  AnyRow row = portRow();
  Port port;
  port.create(1001);
  EXPECT_EQ(bytesOf(row), bytesOf(port));
  EXPECT_EQ(row.toJson(), emptyJson);
  EXPECT_EQ(row.baseRowLength(), PortLayout::baseLength);
  EXPECT_EQ(row.columnOffset("net"), PortLayout::offset<"net">);
  EXPECT_EQ(row.vcd(), port.vcd());
  EXPECT_TRUE(row.isFullyDefined());

  port.set<"text">("eth0");
  row.adopt(port.rowBuf(), port.rowLength());
  EXPECT_EQ(row.toJson(), port.toJson());
  const auto before = bytesOf(row);
  EXPECT_THROW(row.adopt(port.rowBuf(), port.rowLength() - 1U), KoInvalidArgument);
  TableRow<LinkLayout> link;
  link.create();
  EXPECT_THROW(row.adopt(link.rowBuf(), link.rowLength()), KoInvalidArgument);
  EXPECT_EQ(bytesOf(row), before);

  row.create(5, 100);
  EXPECT_EQ(row.rowLength(), PortLayout::baseLength + 100);
  EXPECT_EQ(row.rowOid(), 5U);
  EXPECT_THROW(row.create(6, 65536U - PortLayout::baseLength), KoOutOfRange);
  EXPECT_EQ(row.rowOid(), 5U);
  row.create(6, 65535U - PortLayout::baseLength);
  EXPECT_EQ(row.rowLength(), 65535);
}

TEST(AnyRowTest, JsonBecomesTheRowThatItCameFrom) {
  for (const char* const json : {emptyJson, fullJson}) {
    AnyRow row = portRow();
    row.fromJson(json);
    EXPECT_EQ(row.toJson(), json);
    EXPECT_EQ(row.rowOid(), 1001U);
    EXPECT_FALSE(checkRow<PortLayout>(row.rowBuf(), row.rowLength()));
    Port port;
    port.adopt(row.rowBuf(), row.rowLength());
    EXPECT_EQ(port.toJson(), json);
    for (const ColumnInfo& column : row.layout().info().columns) {
      AnyRow other = portRow();
      other.jsonIs(column.name, row.json(column.name));
      EXPECT_EQ(other.json(column.name), row.json(column.name));
      AnyRow third = portRow();
      third.textIs(column.name, row.text(column.name));
      EXPECT_EQ(third.json(column.name), row.json(column.name));
    }
  }
}

TEST(AnyRowTest, WritesWhatTheDeclaredRowWrites) {
  Port port;
  port.create(1001);
  port.set<"text">("eth0");
  port.set<"texts">({"a", "", "xyz"});
  port.set<"flags">({true, false, true});
  port.set<"net">(IpGenPrefix("10.1.0.0/16"));
  AnyRow row = portRow();
  row.jsonIs("text", R"("eth0")");
  row.jsonIs("texts", R"(["a","","xyz"])");
  row.jsonIs("flags", "[true,false,true]");
  row.jsonIs("net", R"("10.1.0.0/16")");
  EXPECT_EQ(bytesOf(row), bytesOf(port));
}

TEST(AnyRowTest, NullMakesTheRowNull) {
  AnyRow row = portRow();
  row.fromJson(" null ");
  EXPECT_TRUE(row.isNull());
  row.fromJson("{}");
  EXPECT_EQ(row.rowOid(), 0U);
}

TEST(AnyRowTest, TakesColumnsInAnyOrderAndAnySpace) {
  AnyRow row = portRow();
  row.fromJson(
      "\n{ \"text\" : \"\\u0041\\uD834\\uDD1E\\/\" ,\t\"u8\":7,\"link\":{ \"up\":true} }\r\n");
  EXPECT_EQ(row.json("u8"), "7");
  EXPECT_EQ(row.text("text"), "A\xF0\x9D\x84\x9E/");
  EXPECT_EQ(row.json("link"), R"({"up":true,"peers":[]})");
  EXPECT_EQ(row.json("u16"), "0");  // not named
}

TEST(AnyRowTest, ArraysOfRowsAreWrittenToo) {
  const DynamicLayout layout(
      "row 8 base 12 { links row 2 base 13 { up bool @8 peer IpGenAddr @9 }[] @8 }");
  AnyRow row(layout);
  constexpr char json[] = R"({"links":[{"up":true,"peer":null},{"up":false,"peer":"10.1.2.3"}]})";
  row.fromJson(json);
  EXPECT_EQ(row.toJson(), json);
  EXPECT_FALSE(checkRow(row.rowBuf(), row.rowLength(), layout.info()));
  row.jsonIs("links", "[]");
  EXPECT_EQ(row.toJson(), R"({"links":[]})");
  EXPECT_EQ(errorOf([&] { row.jsonIs("links", "[{},null]"); }),
            "line 1, column 9: column \"links[1]\": null is no element");
}

TEST(AnyRowTest, TextIsWhatPeopleWrite) {
  AnyRow row = portRow();
  row.textIs("text", "a \"b\"\xFF");
  EXPECT_EQ(row.text("text"), "a \"b\"\xFF");
  row.textIs("addr", "2001:db8::1");
  EXPECT_EQ(row.text("addr"), "2001:0db8:0000:0000:0000:0000:0000:0001");
  row.textIs("net", "10.0.0.0/8");
  EXPECT_EQ(row.text("net"), "10.0.0.0/8");
  row.textIs("v4", "1.2.3.4");
  EXPECT_EQ(row.text("v4"), "1.2.3.4");
  row.textIs("v6", "::1");
  EXPECT_EQ(row.text("v6"), "0000:0000:0000:0000:0000:0000:0000:0001");
  row.textIs("i64", "-5");
  EXPECT_EQ(row.text("i64"), "-5");
  row.textIs("b", "true");
  EXPECT_EQ(row.text("b"), "true");
  row.textIs("texts", R"(["x"])");
  EXPECT_EQ(row.text("texts"), R"(["x"])");
  for (const char* const column : {"text", "addr", "net", "texts", "link"}) {
    row.textIs(column, "");
    EXPECT_EQ(row.json(column), AnyRow(portRow()).json(column));
  }
  EXPECT_EQ(errorOf([&] { row.textIs("u8", ""); }),
            "line 1, column 1: column \"u8\": expected a number");
  EXPECT_EQ(errorOf([&] { row.textIs("addr", "10.1.2"); }),
            "line 1, column 1: column \"addr\": \"10.1.2\" is no IpGenAddr");
  EXPECT_EQ(errorOf([&] { row.textIs("text", std::string(32768, 'x')); }),
            "line 1, column 1: column \"text\": the value exceeds 32767 bytes");
}

TEST(AnyRowTest, NumbersAreExact) {
  AnyRow row = portRow();
  row.jsonIs("f", "16777217");  // between two floats
  EXPECT_EQ(row.json("f"), "16777216");
  for (const char* const text : {"-0", "5e-324", "1.7976931348623157e+308", "0.1", "123456.789"}) {
    row.jsonIs("d", text);
    EXPECT_EQ(row.json("d"), text);
  }
  row.jsonIs("d", "1E2");
  EXPECT_EQ(row.json("d"), "100");
  row.jsonIs("d", "null");
  EXPECT_TRUE(std::isnan(row.fixedColumn<double>(row.columnOffset("d"))));
  row.jsonIs("f", "null");
  EXPECT_EQ(row.json("f"), "null");
  row.jsonIs("u8", "-0");
  EXPECT_EQ(row.json("u8"), "0");
  row.jsonIs("i8", "-0");
  EXPECT_EQ(row.json("i8"), "0");
}

TEST(AnyRowTest, RefusesWhatDoesNotFitAndChangesNothing) {
  AnyRow row = portRow();
  row.fromJson(fullJson);
  const AnyRow shared = row;
  const byte_t* const buffer = row.rowBuf();
  const auto before = bytesOf(row);
  const auto refused = [&](const char* column, const std::string& json) {
    const std::string error = errorOf([&] { row.jsonIs(column, json); });
    EXPECT_EQ(bytesOf(row), before);
    EXPECT_EQ(row.rowBuf(), buffer);
    const std::string whole = "{\"" + std::string(column) + "\":" + json + "}";
    EXPECT_NE(errorOf([&] { row.fromJson(whole); }), "") << whole;
    EXPECT_EQ(row.rowBuf(), buffer);
    return error;
  };
  EXPECT_EQ(refused("u8", "256"), "line 1, column 1: column \"u8\": 256 does not fit uint8_t");
  EXPECT_EQ(refused("u8", "-1"), "line 1, column 1: column \"u8\": -1 does not fit uint8_t");
  EXPECT_EQ(refused("i8", "-129"), "line 1, column 1: column \"i8\": -129 does not fit int8_t");
  EXPECT_EQ(refused("u64", "18446744073709551616"),
            "line 1, column 1: column \"u64\": 18446744073709551616 does not fit uint64_t");
  EXPECT_EQ(refused("i64", "9223372036854775808"),
            "line 1, column 1: column \"i64\": 9223372036854775808 does not fit int64_t");
  EXPECT_EQ(refused("u32", "1.0"), "line 1, column 1: column \"u32\": 1.0 is no uint32_t");
  EXPECT_EQ(refused("u32", "1e3"), "line 1, column 1: column \"u32\": 1e3 is no uint32_t");
  EXPECT_EQ(refused("u32", "\"1\""), "line 1, column 1: column \"u32\": expected a number");
  EXPECT_EQ(refused("u32", "null"), "line 1, column 1: column \"u32\": expected a number");
  EXPECT_EQ(refused("u32", "01"), "line 1, column 1: a number begins with no further zero");
  EXPECT_EQ(refused("u32", "-"), "line 1, column 1: a number has digits behind its sign");
  EXPECT_EQ(refused("u32", "+1"), "line 1, column 1: column \"u32\": expected a number");
  EXPECT_EQ(refused("d", "1."), "line 1, column 1: a number has digits behind its point");
  EXPECT_EQ(refused("d", "1e+"), "line 1, column 1: a number has digits in its exponent");
  EXPECT_EQ(refused("d", "1e309"), "line 1, column 1: column \"d\": 1e309 does not fit double");
  EXPECT_EQ(refused("f", "1e39"), "line 1, column 1: column \"f\": 1e39 does not fit float");
  EXPECT_EQ(refused("d", "NaN"), "line 1, column 1: column \"d\": expected a number");
  EXPECT_EQ(refused("b", "1"), "line 1, column 1: column \"b\": expected true or false");
  EXPECT_EQ(refused("b", "null"), "line 1, column 1: column \"b\": expected true or false");
  EXPECT_EQ(refused("b", "truer"), "line 1, column 1: column \"b\": expected true or false");
  EXPECT_EQ(refused("v4", "\"::1\""), "line 1, column 1: column \"v4\": \"::1\" is no IpAddr");
  EXPECT_EQ(refused("v4", "null"), "line 1, column 1: column \"v4\": expected a string for IpAddr");
  EXPECT_EQ(refused("v6", "\"1.2.3.4\""),
            "line 1, column 1: column \"v6\": \"1.2.3.4\" is no Ip6Addr");
  EXPECT_EQ(refused("addr", "\"\""), "line 1, column 1: column \"addr\": \"\" is no IpGenAddr");
  EXPECT_EQ(refused("addr", "\"zz::1\""),
            "line 1, column 1: column \"addr\": \"zz::1\" is no IpGenAddr");
  for (const std::string net :
       {"10.0.0.0", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/ 8", "10.0.0.0/8x", "/8",
        "10.0.0.0/8/8", "::/129", "::/256", "10.0.0.0/+8"}) {
    EXPECT_EQ(refused("net", '"' + net + '"'),
              "line 1, column 1: column \"net\": \"" + net + "\" is no IpGenPrefix");
  }
  EXPECT_EQ(refused("text", "5"),
            "line 1, column 1: column \"text\": expected a string for string_t");
  EXPECT_EQ(refused("text", "\"a"), "line 1, column 1: the string does not end")
      << "a string's own faults are those of the text";
  EXPECT_EQ(refused("text", "\"\\x\""), "line 1, column 2: unknown escape");
  EXPECT_EQ(refused("text", "\"\\u12g4\""), "line 1, column 2: \\u takes four hexadecimal digits");
  EXPECT_EQ(refused("text", "\"\\u+123\""), "line 1, column 2: \\u takes four hexadecimal digits");
  EXPECT_EQ(refused("text", "\"\\ud834\""), "line 1, column 2: half of a surrogate pair");
  EXPECT_EQ(refused("text", "\"\\ud834\\u0041\""), "line 1, column 2: half of a surrogate pair");
  EXPECT_EQ(refused("text", "\"\\udd1e\""), "line 1, column 2: half of a surrogate pair");
  EXPECT_EQ(refused("text", "\"\n\""),
            "line 1, column 2: a control character stands in a string as an escape only");
  EXPECT_EQ(refused("text", "\"\xC3\""), "line 1, column 2: the text is not UTF-8");
  EXPECT_EQ(refused("text", '"' + std::string(32768, 'x') + '"'),
            "line 1, column 1: column \"text\": the value exceeds 32767 bytes");
  EXPECT_EQ(refused("text", "\"a\" b"), "line 1, column 5: more text than expected");
  EXPECT_EQ(refused("text", "[\"a\"]"),
            "line 1, column 1: column \"text\": expected a string for string_t");
  EXPECT_EQ(refused("texts", "\"a\""), "line 1, column 1: column \"texts\": expected an array");
  EXPECT_EQ(refused("texts", "[\"a\",\n 5]"),
            "line 2, column 2: column \"texts[1]\": expected a string for string_t");
  EXPECT_EQ(refused("texts", "[\"a\" \"b\"]"), "line 1, column 6: expected ',' or ']'");
  EXPECT_EQ(refused("texts", "[\"a\",]"),
            "line 1, column 6: column \"texts[1]\": expected a string for string_t");
  EXPECT_EQ(refused("link", "5"), "line 1, column 1: column \"link\": expected a row as an object");
  EXPECT_EQ(refused("link", "{\"down\":1}"),
            "line 1, column 2: column \"link\": unknown column - (down)");
  EXPECT_EQ(refused("link", "{\"up\":true,\"up\":true}"),
            "line 1, column 12: column \"link\": column named twice - (up)");
  EXPECT_EQ(refused("link", "{\"peers\":[\"x\"]}"),
            "line 1, column 11: column \"link.peers[0]\": \"x\" is no IpGenAddr");
  EXPECT_EQ(refused("link", "{\"up\" true}"), "line 1, column 7: expected ':'");
  EXPECT_EQ(refused("link", "{\"up\":true"), "line 1, column 11: expected ',' or '}'");
  EXPECT_EQ(refused("link", "{up:true}"), "line 1, column 2: expected a string");
  EXPECT_EQ(refused("link", "{\"up\":true,}"), "line 1, column 12: expected a string");

  std::string many = "[true";
  for (int i = 1; i < 4095; ++i) many += ",true";
  EXPECT_EQ(errorOf([&] { AnyRow(shared).jsonIs("flags", many + "]"); }), "");
  EXPECT_NE(refused("flags", many + ",true]").find("an array has at most 4095 elements"),
            std::string::npos);
  EXPECT_NE(refused("texts", "[\"" + std::string(32767, 'x') + "\"]").find("exceeds 32767 bytes"),
            std::string::npos);

  EXPECT_EQ(errorOf([&] { row.fromJson("{\"u8\":1} x"); }),
            "line 1, column 10: more text than expected");
  EXPECT_EQ(errorOf([&] { row.fromJson("{\"none\":1}"); }),
            "line 1, column 2: unknown column - (none)");
  EXPECT_EQ(errorOf([&] { row.fromJson("[]"); }), "line 1, column 1: expected a row as an object");
  EXPECT_EQ(errorOf([&] { row.fromJson(""); }), "line 1, column 1: expected a row as an object");
  EXPECT_EQ(errorOf([&] { row.json("none"); }), "Unknown column - (none)");
  EXPECT_EQ(errorOf([&] { row.text("none"); }), "Unknown column - (none)");
  EXPECT_EQ(errorOf([&] { row.jsonIs("none", "1"); }), "Unknown column - (none)");
  EXPECT_EQ(errorOf([&] { row.textIs("none", "1"); }), "Unknown column - (none)");
  EXPECT_EQ(row.rowBuf(), buffer);
  EXPECT_EQ(bytesOf(row), before);
}

TEST(AnyRowTest, ARowBeyondItsLengthIsRefused) {
  const DynamicLayout layout("row 1 base 20 { a string_t @8 b string_t @12 c string_t @16 }");
  AnyRow row(layout);
  const std::string longText(32767, 'x');
  row.create();
  row.textIs("a", longText);
  row.textIs("b", std::string(32747, 'y'));
  EXPECT_EQ(row.rowLength(), 65534);
  const auto before = bytesOf(row);
  EXPECT_THROW(row.textIs("c", "zz"), KoOutOfRange);
  EXPECT_THROW(row.jsonIs("c", "\"zz\""), KoOutOfRange);
  EXPECT_EQ(bytesOf(row), before);
  EXPECT_EQ(
      errorOf([&] { row.fromJson("{\"a\":\"" + longText + "\",\"b\":\"" + longText + "\"}"); }),
      "line 1, column 1: the row exceeds 65535 bytes");
  EXPECT_EQ(bytesOf(row), before);
  row.textIs("c", "z");
  EXPECT_EQ(row.rowLength(), 65535);
}

TEST(AnyRowTest, ASharedBufferIsCopiedBeforeItIsWritten) {
  AnyRow row = portRow();
  const AnyRow other = row;
  row.jsonIs("u64", "5");
  row.jsonIs("v6", "\"::5\"");
  row.textIs("text", "x");
  EXPECT_EQ(other.toJson(), emptyJson);
  EXPECT_EQ(row.json("u64"), "5");
}

}  // namespace
