// Conversion between layouts: what becomes of each column, and of rows.

#include <Korvo/RowConverter.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <vector>

namespace {

using namespace Korvo;  // NOLINT

using LinkLayout = RowLayout<2, Column<"up", bool>, Column<"peer", IpGenAddr>>;
using PortLayout = RowLayout<7, Column<"speed", std::uint64_t>, Column<"name", std::string>,
                             Column<"mtu", std::uint32_t>, Column<"tags", std::vector<std::string>>,
                             Column<"vlan", std::uint16_t>, Column<"link", Nested<LinkLayout>>>;
using Port = TableRow<PortLayout>;

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

AnyRow anyRow(const char* layout, const char* json, oid_t oid = 1001) {
  AnyRow row{DynamicLayout(layout)};
  row.create(oid);
  row.fromJson(json);
  return row;
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

LayoutComparison compared(const std::string& sender, const std::string& ours,
                          const ConversionRules& rules = {}) {
  return {DynamicLayout(sender).info(), DynamicLayout(ours).info(), rules};
}

/// What becomes of the one column of the sender's type in one of ours.
std::string change(const std::string& from, const std::string& to) {
  const LayoutComparison both =
      compared("row 1 base 24 { a " + from + " @8 }", "row 1 base 24 { a " + to + " @8 }");
  EXPECT_EQ(both.columns().size(), 1U);
  const ColumnComparison& column = both.columns().at(0);
  EXPECT_EQ(both.conversion(), column.change == ColumnChange::refused   ? Conversion::refused
                               : column.change == ColumnChange::widened ? Conversion::lossless
                                                                        : Conversion::same);
  return std::string(columnChangeText(column.change));
}

TEST(LayoutComparisonTest, EveryTypeWithEveryOther) {
  const std::vector<std::vector<std::string>> kinds = {
      {"uint8_t", "uint16_t", "uint32_t", "uint64_t"},
      {"int8_t", "int16_t", "int32_t", "int64_t"},
      {"float", "double"},
      {"bool"},
      {"string_t"},
      {"IpAddr"},
      {"Ip6Addr"},
      {"IpGenAddr"},
      {"IpGenPrefix"},
      {"bool[]"},
      {"string_t[]"},
      {"IpGenAddr[]"},
      {"IpGenPrefix[]"},
      {"row 1 base 8 { }"},
      {"row 1 base 8 { }[]"}};
  for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
    for (std::size_t i = 0; i < kinds[kind].size(); ++i) {
      for (std::size_t otherKind = 0; otherKind < kinds.size(); ++otherKind) {
        for (std::size_t j = 0; j < kinds[otherKind].size(); ++j) {
          const std::string expected = kind != otherKind || i > j ? "refused"
                                       : i < j                    ? "widened"
                                                                  : "same";
          EXPECT_EQ(change(kinds[kind][i], kinds[otherKind][j]), expected)
              << kinds[kind][i] << " to " << kinds[otherKind][j];
        }
      }
    }
  }
}

constexpr char senderText[] =
    "row 7 base 36 { mtu uint16_t @8 name string_t @10 speed uint64_t @14 lanes bool[] @22 "
    "link row 2 base 17 { peer IpGenAddr @8 up bool @12 load float @13 } @26 queues uint32_t @30 }";

TEST(LayoutComparisonTest, TellsEveryColumn) {
  const LayoutComparison both(DynamicLayout(senderText).info(), PortLayout::info);
  EXPECT_EQ(both.conversion(), Conversion::lossy);
  EXPECT_EQ(both.refusal(), "");
  EXPECT_EQ(both.text(),
            "same     speed uint64_t\n"
            "same     name string_t\n"
            "widened  mtu uint16_t -> uint32_t\n"
            "missing  tags string_t[]\n"
            "missing  vlan uint16_t\n"
            "nested   link row\n"
            "same     link.up bool\n"
            "same     link.peer IpGenAddr\n"
            "dropped  link.load float\n"
            "dropped  lanes bool[]\n"
            "dropped  queues uint32_t\n");
  ASSERT_EQ(both.columns().size(), 8U);
  const ColumnComparison& mtu = both.columns()[2];
  EXPECT_EQ(mtu.change, ColumnChange::widened);
  EXPECT_EQ(mtu.name(), "mtu");
  EXPECT_EQ(mtu.sender->offset, 8);
  EXPECT_EQ(mtu.ours->offset, PortLayout::offset<"mtu">);
  EXPECT_EQ(both.columns()[3].sender, nullptr);
  EXPECT_EQ(both.columns()[6].ours, nullptr);
  EXPECT_EQ(both.columns()[6].name(), "lanes");
  ASSERT_EQ(both.columns()[5].nested.size(), 3U);
  EXPECT_EQ(both.columns()[5].nested[2].change, ColumnChange::dropped);
  EXPECT_EQ(both.sender().fingerprint(), DynamicLayout(senderText).fingerprint());
  EXPECT_EQ(both.ours().fingerprint(), fingerprint<PortLayout>());
}

TEST(LayoutComparisonTest, TellsTheWorstOfAll) {
  constexpr char one[] = "row 1 base 12 { a uint16_t @8 b uint16_t @10 }";
  EXPECT_EQ(compared(one, one).conversion(), Conversion::same);
  EXPECT_EQ(compared(one, "row 1 base 12 { b uint16_t @10 a uint16_t @8 }").conversion(),
            Conversion::same);
  EXPECT_EQ(compared(one, "row 1 base 12 { a uint16_t @10 b uint16_t @8 }").conversion(),
            Conversion::lossless);
  EXPECT_EQ(compared(one, "row 1 base 14 { a uint16_t @8 b uint32_t @10 }").conversion(),
            Conversion::lossless);
  EXPECT_EQ(compared(one, "row 1 base 13 { a uint16_t @8 b uint16_t @10 }").conversion(),
            Conversion::lossless);
  EXPECT_EQ(compared(one, "row 1 base 12 { a uint16_t @8 }").conversion(), Conversion::lossy);
  EXPECT_EQ(compared(one, "row 1 base 13 { a uint16_t @8 b uint16_t @10 c bool @12 }").conversion(),
            Conversion::lossy);
  EXPECT_EQ(compared(one, "row 1 base 12 { a int16_t @8 }").conversion(), Conversion::refused);
  const LayoutComparison other = compared(one, "row 2 base 12 { a int16_t @8 b uint8_t @10 }");
  EXPECT_EQ(other.conversion(), Conversion::refused);
  EXPECT_EQ(
      other.refusal(),
      "row type 1, here 2; column \"a\": uint16_t, here int16_t; column \"b\": uint16_t, here "
      "uint8_t");
  EXPECT_EQ(other.text(),
            "refused  a: uint16_t, here int16_t\nrefused  b: uint16_t, here uint8_t\n");
}

TEST(LayoutComparisonTest, NestedLayoutsDecideToo) {
  const auto nested = [](const std::string& theirs, const std::string& ours) {
    return compared("row 1 base 12 { r row " + theirs + " @8 }",
                    "row 1 base 12 { r row " + ours + " @8 }");
  };
  EXPECT_EQ(nested("2 base 9 { a bool @8 }", "2 base 9 { a bool @8 }").conversion(),
            Conversion::same);
  EXPECT_EQ(nested("2 base 9 { a bool @8 }", "2 base 10 { a bool @9 }").conversion(),
            Conversion::lossless);
  EXPECT_EQ(nested("2 base 9 { a bool @8 }", "2 base 8 { }").conversion(), Conversion::lossy);
  EXPECT_EQ(nested("2 base 9 { a bool @8 }", "2 base 9 { a int8_t @8 }").refusal(),
            "column \"r.a\": bool, here int8_t");
  EXPECT_EQ(nested("2 base 9 { a bool @8 }", "3 base 9 { a bool @8 }").refusal(),
            "column \"r\": row type 2, here 3");
}

TEST(LayoutComparisonTest, FormerNamesAndRequiredColumns) {
  constexpr char theirs[] =
      "row 1 base 18 { size uint16_t @8 text string_t @10 r row 2 base 9 { was bool @8 } @14 }";
  constexpr char ours[] =
      "row 1 base 18 { mtu uint16_t @8 name string_t @10 r row 2 base 9 { is bool @8 } @14 }";
  EXPECT_EQ(compared(theirs, ours).conversion(), Conversion::lossy);
  const ConversionRules rules = {
      {{"mtu", "maxSize"}, {"mtu", "size"}, {"name", "text"}, {"r.is", "was"}}, {"mtu", "r.is"}};
  const LayoutComparison both = compared(theirs, ours, rules);
  EXPECT_EQ(both.conversion(), Conversion::lossless);
  EXPECT_EQ(both.text(),
            "same     mtu uint16_t, formerly size\n"
            "same     name string_t, formerly text\n"
            "nested   r row\n"
            "same     r.is bool, formerly was\n");
  EXPECT_EQ(compared(theirs, ours, {{}, {"mtu", "r.is"}}).refusal(),
            "column \"mtu\": missing, and required here; "
            "column \"r.is\": missing, and required here");
  // A name of our own comes first.
  EXPECT_EQ(compared("row 1 base 12 { mtu uint16_t @8 size uint16_t @10 }",
                     "row 1 base 10 { mtu uint16_t @8 }", {{{"mtu", "size"}}, {}})
                .text(),
            "same     mtu uint16_t\ndropped  size uint16_t\n");
}

TEST(LayoutComparisonTest, RulesThatSayNothingAreRefused) {
  constexpr char one[] = "row 1 base 16 { a uint32_t @8 r row 2 base 9 { x bool @8 } @12 }";
  EXPECT_EQ(errorOf([&] { compared(one, one, {{}, {"b"}}); }), "Unknown column - (b)");
  EXPECT_EQ(errorOf([&] { compared(one, one, {{}, {"r.y"}}); }), "Unknown column - (r.y)");
  EXPECT_EQ(errorOf([&] { compared(one, one, {{}, {"a.x"}}); }), "Unknown column - (a.x)");
  EXPECT_EQ(errorOf([&] { compared(one, one, {{{"b", "a"}}, {}}); }), "Unknown column - (b)");
  EXPECT_EQ(errorOf([&] {
              compared(one, one, {{{"a", "r"}}, {}});
            }),
            "Former name is a column's name - (r)");
  EXPECT_EQ(errorOf([&] { compared(one, one, {{{"r.x", "a"}}, {"a", "r", "r.x"}}); }), "");
}

// ---------------------------------------------------------------------------------------------

TEST(RowConverterTest, MakesARowOfOurs) {
  const AnyRow sent =
      anyRow(senderText, R"({"mtu":65535,"name":"eth0","speed":10000,"lanes":[true],)"
                         R"("link":{"peer":"10.1.2.3","up":true,"load":0.5},"queues":9})");
  const RowConverter<Port> converter(sent.layout().info());
  ASSERT_FALSE(checkRow(sent.rowBuf(), sent.rowLength(), sent.layout().info()));
  Port port;
  converter.convert(sent.rowBuf(), sent.rowLength(), port);
  EXPECT_EQ(port.toJson(), R"({"speed":10000,"name":"eth0","mtu":65535,"tags":[],"vlan":0,)"
                           R"("link":{"up":true,"peer":"10.1.2.3"}})");
  EXPECT_EQ(port.rowOid(), 1001U);
  EXPECT_EQ(port.rowType(), 7);
  EXPECT_FALSE(checkRow<PortLayout>(port.rowBuf(), port.rowLength()));
  // Values of ours and nothing else.
  EXPECT_EQ(port.rowLength(), PortLayout::baseLength + 4 + (13 + 4));
  EXPECT_EQ(port.view<"link">().rowType(), 2);
  port.set<"name">("ethernet0");
  EXPECT_EQ(port.view<"vlan">(), 0);
  EXPECT_EQ(port.view<"mtu">(), 65535U);
}

TEST(RowConverterTest, WidensEveryNumberExactly) {
  struct Case {
    const char* from;
    const char* to;
    const char* value;
  };
  const Case cases[] = {{"uint8_t", "uint16_t", "255"},
                        {"uint8_t", "uint64_t", "255"},
                        {"uint16_t", "uint32_t", "65535"},
                        {"uint16_t", "uint64_t", "65535"},
                        {"uint32_t", "uint64_t", "4294967295"},
                        {"int8_t", "int16_t", "-128"},
                        {"int8_t", "int32_t", "-1"},
                        {"int16_t", "int32_t", "-32768"},
                        {"int16_t", "int64_t", "-2"},
                        {"int32_t", "int64_t", "-2147483648"},
                        {"int8_t", "int64_t", "127"},
                        {"float", "double", "-0"},
                        {"float", "double", "0.5"},
                        {"float", "double", "null"}};
  for (const Case& c : cases) {
    const std::string json = "{\"a\":" + std::string(c.value) + "}";
    // At odd offsets on both sides.
    const AnyRow sent =
        anyRow(("row 1 base 17 { a " + std::string(c.from) + " @9 }").c_str(), json.c_str());
    const DynamicLayout ours("row 1 base 24 { a " + std::string(c.to) + " @11 }");
    AnyRow row(ours);
    RowConverter<AnyRow>(sent.layout().info(), ours).convert(sent.rowBuf(), sent.rowLength(), row);
    EXPECT_EQ(row.toJson(), json) << c.from << " to " << c.to;
  }
}

TEST(RowConverterTest, ASameLayoutIsCopiedAsItIs) {
  Port sent;
  sent.create(5, 10);  // a gap
  sent.set<"name">("eth0");
  const RowConverter<Port> converter(PortLayout::info);
  EXPECT_EQ(converter.comparison().conversion(), Conversion::same);
  Port port;
  converter.convert(sent.rowBuf(), sent.rowLength(), port);
  EXPECT_EQ(bytesOf(port), bytesOf(sent));
  EXPECT_NE(port.rowBuf(), sent.rowBuf());
}

TEST(RowConverterTest, NoByteOfTheSendersComesAlong) {
  // Gaps, a dropped value between two others, unused bytes of the fixed area: all 0xEE.
  const DynamicLayout sender("row 1 base 28 { b string_t @8 x string_t @14 a string_t @20 }");
  std::vector<byte_t> bytes(60, 0xEE);
  const auto word = [&](std::size_t at, unsigned int value) {
    storeField(bytes.data() + at, static_cast<std::uint16_t>(value));
  };
  word(0, 60);
  word(2, 1);
  storeField<oid_t>(bytes.data() + 4, 77);
  word(8, 40), word(10, 2);
  word(14, 42), word(16, 5);
  word(20, 30), word(22, 3);
  bytes[40] = 'b', bytes[41] = 'B', bytes[30] = 'a', bytes[31] = 'a', bytes[32] = 'A';
  ASSERT_FALSE(checkRow(bytes.data(), bytes.size(), sender.info()));
  using Ours = RowLayout<1, Column<"a", std::string, 10>, Column<"b", std::string, 17>>;
  TableRow<Ours> row;
  RowConverter<TableRow<Ours>>(sender.info()).convert(bytes.data(), bytes.size(), row);
  const std::vector<byte_t> expected = {26, 0, 1, 0, 77, 0, 0, 0, 0,   0,   23,  0,   3,
                                        0,  0, 0, 0, 21, 0, 2, 0, 'b', 'B', 'a', 'a', 'A'};
  EXPECT_EQ(bytesOf(row), expected);
}

TEST(RowConverterTest, ArraysOfNestedRows) {
  const AnyRow sent = anyRow(
      "row 1 base 16 { a string_t @8 r row 2 base 13 { text string_t @8 n uint8_t @12 }[] @12 }",
      R"({"a":"x","r":[{"text":"one","n":1},{"text":"","n":2},{"text":"three","n":3}]})");
  const DynamicLayout ours(
      "row 1 base 16 { r row 2 base 21 { n uint64_t @8 text string_t @16 }[] @8 a string_t @12 }");
  const RowConverter<AnyRow> converter(sent.layout().info(), ours);
  AnyRow row(sent.layout());
  converter.convert(sent.rowBuf(), sent.rowLength(), row);
  EXPECT_EQ(row.toJson(),
            R"({"r":[{"n":1,"text":"one"},{"n":2,"text":""},{"n":3,"text":"three"}],"a":"x"})");
  EXPECT_FALSE(checkRow(row.rowBuf(), row.rowLength(), ours.info()));
  // And back again.
  AnyRow back(ours);
  const DynamicLayout& theirs = sent.layout();
  EXPECT_EQ(errorOf([&] { RowConverter<AnyRow>(ours.info(), theirs); }),
            "Layout refused - (column \"r.n\": uint64_t, here uint8_t)");
}

TEST(RowConverterTest, NullsStayNullWhateverStandsBesideThem) {
  const DynamicLayout sender("row 1 base 20 { a string_t @8 b string_t[] @12 c uint8_t @16 }");
  AnyRow sent(sender);
  sent.create();
  std::vector<byte_t> bytes = bytesOf(sent);
  bytes[8] = 0xFF;   // an offset beside length 0
  bytes[15] = 0x80;  // the mark of an array that was cleared
  ASSERT_FALSE(checkRow(bytes.data(), bytes.size(), sender.info()));
  const DynamicLayout ours("row 1 base 16 { a string_t @8 b string_t[] @12 }");
  AnyRow row(ours);
  RowConverter<AnyRow>(sender.info(), ours).convert(bytes.data(), bytes.size(), row);
  EXPECT_EQ(row.toJson(), R"({"a":"","b":[]})");
  EXPECT_EQ(row.rowLength(), 16);
}

TEST(RowConverterTest, RefusesBeforeAnythingChanges) {
  EXPECT_EQ(errorOf([] { const RowConverter<Port> converter(LinkLayout::info); }),
            "Layout refused - (row type 2, here 7)");
  AnyRow sent = anyRow(senderText, "{}");
  const RowConverter<Port> converter(sent.layout().info());
  Port port;
  port.create(3);
  const auto before = bytesOf(port);
  const auto refused = [&](std::vector<byte_t> bytes) {
    const std::string error = errorOf([&] { converter.convert(bytes.data(), bytes.size(), port); });
    EXPECT_EQ(bytesOf(port), before);
    return error;
  };
  std::vector<byte_t> bytes = bytesOf(sent);
  EXPECT_EQ(refused({bytes.begin(), bytes.begin() + 7}), "Invalid Row - (no room for a header)");
  EXPECT_EQ(refused({bytes.begin(), bytes.end() - 1}),
            "Invalid Row - (not of the length that it says)");
  EXPECT_EQ(refused({8, 0, 7, 0, 0, 0, 0, 0}), "Invalid Row - (shorter than the sender's columns)");
  bytes[2] = 8;
  EXPECT_EQ(refused(bytes), "Invalid Row - (another row type)");
}

TEST(RowConverterTest, ARowThatBecomesTooLongIsRefused) {
  const std::string longText(32767, 'x');
  AnyRow sent{DynamicLayout("row 1 base 16 { a string_t @8 b string_t @12 }")};
  sent.create(0, 65535 - 16);
  sent.textIs("a", longText);
  sent.textIs("b", std::string(65535 - 16 - 32767, 'y'));
  ASSERT_EQ(sent.rowLength(), 65535);
  const DynamicLayout longer("row 1 base 17 { a string_t @8 b string_t @12 c bool @16 }");
  AnyRow row(longer);
  EXPECT_EQ(errorOf([&] {
              RowConverter<AnyRow>(sent.layout().info(), longer)
                  .convert(sent.rowBuf(), sent.rowLength(), row);
            }),
            "Row length exceeds 65535 bytes");
  EXPECT_TRUE(row.isNull());

  AnyRow outer{DynamicLayout("row 1 base 12 { r row 2 base 12 { a string_t @8 } @8 }")};
  outer.create();
  outer.jsonIs("r", "{\"a\":\"" + std::string(32767 - 12, 'x') + "\"}");
  const DynamicLayout wider("row 1 base 12 { r row 2 base 13 { a string_t @8 b bool @12 } @8 }");
  EXPECT_EQ(errorOf([&] {
              AnyRow to(wider);
              RowConverter<AnyRow>(outer.layout().info(), wider)
                  .convert(outer.rowBuf(), outer.rowLength(), to);
            }),
            "Value length exceeds 32767 bytes");
}

TEST(RowConverterTest, LongRowsAndRowsThatBecomeMuchShorter) {
  const DynamicLayout ours("row 1 base 17 { b string_t @8 a string_t @12 c bool @16 }");
  const DynamicLayout brief("row 1 base 12 { a string_t @8 }");
  for (const std::size_t length : {100U, 16300U, 16384U, 32000U, 32740U, 32767U}) {
    AnyRow sent{DynamicLayout("row 1 base 16 { a string_t @8 b string_t @12 }")};
    sent.create(5);
    sent.textIs("a", "short");
    sent.textIs("b", std::string(length, 'y'));
    AnyRow row(ours);
    RowConverter<AnyRow>(sent.layout().info(), ours).convert(sent.rowBuf(), sent.rowLength(), row);
    EXPECT_FALSE(checkRow(row.rowBuf(), row.rowLength(), ours.info()));
    EXPECT_EQ(row.rowLength(), 17 + 5 + length);
    EXPECT_EQ(row.text("a"), "short");
    EXPECT_EQ(row.text("b"), std::string(length, 'y'));
    // What is dropped takes no memory any more.
    AnyRow shorter(brief);
    RowConverter<AnyRow>(sent.layout().info(), brief)
        .convert(sent.rowBuf(), sent.rowLength(), shorter);
    EXPECT_EQ(shorter.rowLength(), 12 + 5);
    EXPECT_EQ(shorter.text("a"), "short");
    EXPECT_LE(malloc_usable_size(shorter.rowBuf()), 64U);
  }
}

TEST(RowConverterTest, TwoColumnsWithOneFormerName) {
  const AnyRow sent = anyRow("row 1 base 12 { x string_t @8 }",
                             R"({"x":"a text that is much longer than all that is fixed"})");
  const DynamicLayout ours("row 1 base 16 { a string_t @8 b string_t @12 }");
  AnyRow row(ours);
  RowConverter<AnyRow>(sent.layout().info(), ours, {{{"a", "x"}, {"b", "x"}}, {}})
      .convert(sent.rowBuf(), sent.rowLength(), row);
  EXPECT_EQ(row.text("a"), sent.text("x"));
  EXPECT_EQ(row.text("b"), sent.text("x"));
  EXPECT_FALSE(checkRow(row.rowBuf(), row.rowLength(), ours.info()));
}

TEST(RowConverterTest, OldAndNewProcessesReadEachOther) {
  using Old = RowLayout<3, Column<"name", std::string>>;
  using New = RowLayout<3, Column<"name", std::string>, Column<"mtu", std::uint32_t>>;
  TableRow<New> sent;
  sent.create(1);
  sent.set<"mtu">(1500);
  sent.set<"name">("eth0");
  // What an old process writes into a converted row stays apart from what it does not know.
  TableRow<Old> old;
  RowConverter<TableRow<Old>>(New::info).convert(sent.rowBuf(), sent.rowLength(), old);
  old.set<"name">("ethernet0");
  TableRow<New> back;
  RowConverter<TableRow<New>>(Old::info).convert(old.rowBuf(), old.rowLength(), back);
  EXPECT_EQ(back.toJson(), R"({"name":"ethernet0","mtu":0})");
}

}  // namespace
