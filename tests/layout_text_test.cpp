// Layouts as text: written, read, refused; and their fingerprints.

#include <Korvo/AnyRow.h>
#include <Korvo/KoStrUtils.h>
#include <Korvo/layoutText.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Korvo;  // NOLINT

using LinkLayout = RowLayout<2, Column<"up", bool>, Column<"peer", IpGenAddr>>;
using PortLayout =
    RowLayout<7, Column<"speed", std::uint32_t>, Column<"name", std::string>,
              Column<"tags", std::vector<std::string>>, Column<"lanes", std::vector<bool>>,
              Column<"link", Nested<LinkLayout>>, Column<"rate, in %", float>>;
constexpr char portText[] =
    "row 7 base 32 {\n"
    "  speed uint32_t @8\n"
    "  name string_t @12\n"
    "  tags string_t[] @16\n"
    "  lanes bool[] @20\n"
    "  link row 2 base 13 {\n"
    "    up bool @8\n"
    "    peer IpGenAddr @9\n"
    "  } @24\n"
    "  \"rate, in %\" float @28\n"
    "}\n";

using AllTypes =
    RowLayout<65535, Column<"a", std::uint8_t>, Column<"b", std::uint16_t>,
              Column<"c", std::uint32_t>, Column<"d", std::uint64_t>, Column<"e", std::int8_t>,
              Column<"f", std::int16_t>, Column<"g", std::int32_t>, Column<"h", std::int64_t>,
              Column<"i", float>, Column<"j", double>, Column<"k", bool>, Column<"l", std::string>,
              Column<"m", IpAddr>, Column<"n", Ip6Addr>, Column<"o", IpGenAddr>,
              Column<"p", IpGenPrefix>, Column<"q", std::vector<IpGenAddr>>,
              Column<"r", std::vector<IpGenPrefix>>>;

/// What refuses the text, and nothing if it is read.
std::string refusal(const std::string& text) {
  try {
    const DynamicLayout layout(text);
    return "";
  } catch (const KoTextError& e) {
    const std::string begin =
        "line " + std::to_string(e.line()) + ", column " + std::to_string(e.column()) + ": ";
    EXPECT_TRUE(std::string(e.what()).starts_with(begin)) << e.what();
    return e.what();
  }
}

/// The same for the columns of a layout of base length 100; line 1 has ends behind the brace.
std::string columnRefusal(const std::string& columns) {
  return refusal("row 1 base 100 {\n" + columns + "}");
}

void expectEqual(const LayoutInfo& a, const LayoutInfo& b) {
  EXPECT_EQ(a.rowType, b.rowType);
  EXPECT_EQ(a.baseLength, b.baseLength);
  ASSERT_EQ(a.columns.size(), b.columns.size());
  for (std::size_t i = 0; i < a.columns.size(); ++i) {
    const ColumnInfo& x = a.columns[i];
    const ColumnInfo& y = b.columns[i];
    EXPECT_EQ(x.name, y.name);
    EXPECT_EQ(x.type, y.type);
    EXPECT_EQ(x.offset, y.offset);
    EXPECT_EQ(x.width, y.width);
    EXPECT_EQ(x.isArray, y.isArray);
    ASSERT_EQ(x.nested == nullptr, y.nested == nullptr);
    if (x.nested != nullptr) expectEqual(*x.nested, *y.nested);
  }
}

TEST(LayoutTextTest, WritesADeclaredLayout) {
  EXPECT_EQ(layoutText(PortLayout::info), portText);
  EXPECT_EQ(layoutText(RowLayout<0>::info), "row 0 base 8 {\n}\n");
}

TEST(LayoutTextTest, NamesAreThoseOfTheCatalogue) {
  for (unsigned short type = 0; type <= 18; ++type) {
    const auto value = static_cast<KorvoTypes>(type);
    if (value == structType_) continue;
    const ColumnInfo column = {"x", value, 8, 4, false, nullptr};
    if (value == oidType_ || value == lenType_) {
      EXPECT_EQ(columnTypeText(column), value == oidType_ ? "uint32_t" : "uint16_t");
    } else {
      EXPECT_EQ(columnTypeText(column), getKorvoTypeName(value));
    }
  }
  EXPECT_EQ(columnTypeText({"x", structType_, 8, 4, true, &LinkLayout::info}), "row[]");
  EXPECT_EQ(columnTypeText({"x", boolType_, 8, 4, true, nullptr}), "bool[]");
}

TEST(LayoutTextTest, ReadsWhatItWrote) {
  for (const LayoutInfo* const layout :
       {&PortLayout::info, &LinkLayout::info, &AllTypes::info, &RowLayout<3>::info}) {
    const std::string text = layoutText(*layout);
    const DynamicLayout read(text);
    expectEqual(read.info(), *layout);
    EXPECT_EQ(read.text(), text);
    expectEqual(DynamicLayout(*layout).info(), *layout);
  }
  const DynamicLayout read(portText);
  EXPECT_EQ(read.slots(), (BaseRow::vcdType{12, 16, 20, 24}));
  ASSERT_NE(read.find("lanes"), nullptr);
  EXPECT_EQ(read.find("lanes")->offset, 20);
  EXPECT_EQ(read.find("lane"), nullptr);
}

TEST(LayoutTextTest, CopiesShareTheLayout) {
  DynamicLayout copy{RowLayout<1>::info};
  const LayoutInfo* info = nullptr;
  {
    DynamicLayout original(portText);
    info = &original.info();
    copy = std::move(original);
    EXPECT_EQ(&original.info(), info);  // NOLINT: no layout is ever empty
  }
  EXPECT_EQ(&copy.info(), info);
  EXPECT_EQ(copy.text(), portText);
}

TEST(LayoutTextTest, TakesAnyWhiteSpaceAndOrder) {
  const DynamicLayout read(
      "\t row 7\r\nbase 32{\"rate, in %\" float@28 speed\nuint32_t @8 link row 2 base 13 { peer "
      "IpGenAddr @9 up bool @8}@24 lanes bool [ ] @ 20 tags string_t[]@16 name string_t@12 } \n");
  EXPECT_EQ(read.text(), portText);
}

TEST(LayoutTextTest, ObjectIdsAndLengthsAreNumbers) {
  EXPECT_EQ(DynamicLayout("row 1 base 14 { a oid_t @8 b len_t @12 }").text(),
            "row 1 base 14 {\n  a uint32_t @8\n  b uint16_t @12\n}\n");
  const ColumnInfo columns[] = {{"a", oidType_, 8, 4, false, nullptr},
                                {"b", lenType_, 12, 2, false, nullptr}};
  EXPECT_EQ(layoutText({1, 14, columns}),
            "row 1 base 14 {\n  a uint32_t @8\n  b uint16_t @12\n}\n");
}

TEST(LayoutTextTest, AnyNameHasAForm) {
  using Odd = RowLayout<1, Column<"", bool>, Column<"9", bool>, Column<"a\"\\\n\x7F", bool>,
                        Column<"gr\xC3\xB6\xC3\x9F"
                               "e",
                               bool>,
                        Column<"row", bool>>;
  const std::string text = layoutText(Odd::info);
  EXPECT_EQ(text,
            "row 1 base 13 {\n  \"\" bool @8\n  \"9\" bool @9\n  \"a\\\"\\\\\\x0a\\x7f\" bool @10\n"
            "  \"gr\xC3\xB6\xC3\x9F"
            "e\" bool @11\n  row bool @12\n}\n");
  expectEqual(DynamicLayout(text).info(), Odd::info);
  EXPECT_EQ(DynamicLayout("row 1 base 9 { \"\\x61\\x5F\" bool @8 }").info().columns[0].name, "a_");
}

TEST(LayoutTextTest, RefusesWithLineColumnAndReason) {
  EXPECT_EQ(refusal(""), "line 1, column 1: expected \"row\"");
  EXPECT_EQ(refusal("rows 1"), "line 1, column 1: expected \"row\"");
  EXPECT_EQ(refusal("row x"), "line 1, column 5: expected a row type from 0 to 65535");
  EXPECT_EQ(refusal("row 65536 base 8 {}"),
            "line 1, column 5: expected a row type from 0 to 65535");
  EXPECT_EQ(refusal("row -1 base 8 {}"), "line 1, column 5: expected a row type from 0 to 65535");
  EXPECT_EQ(refusal("row 1 bas 8"), "line 1, column 7: expected \"base\"");
  EXPECT_EQ(refusal("row 1 base 7 {}"),
            "line 1, column 12: the base length is less than the header's 8 bytes");
  EXPECT_EQ(refusal("row 1 base 8"), "line 1, column 13: expected '{'");
  EXPECT_EQ(refusal("row 1 base 8 {"), "line 1, column 15: expected a column's name or '}'");
  EXPECT_EQ(refusal("row 1 base 8 {} x"), "line 1, column 17: more text than expected");
  EXPECT_EQ(refusal(std::string("row 1 base 8 {}\0", 16)),
            "line 1, column 16: more text than expected");

  EXPECT_EQ(columnRefusal(" a uint33_t @8\n"), "line 2, column 4: unknown type - (uint33_t)");
  EXPECT_EQ(columnRefusal("a <struct> @8\n"), "line 2, column 3: expected the column's type");
  EXPECT_EQ(columnRefusal("a bool 8\n"), "line 2, column 8: expected '@' and the column's offset");
  EXPECT_EQ(columnRefusal("a bool @x\n"),
            "line 2, column 9: expected the column's offset from 0 to 65535");
  EXPECT_EQ(columnRefusal("a bool[ @8\n"), "line 2, column 9: expected ']'");
  EXPECT_EQ(columnRefusal("a uint8_t[] @8\n"), "line 2, column 10: there are no arrays of uint8_t");
  EXPECT_EQ(columnRefusal("a IpAddr[] @8\n"), "line 2, column 9: there are no arrays of IpAddr");
  EXPECT_EQ(columnRefusal("9a bool @8\n"),
            "line 2, column 1: a name that begins with a digit stands in quotes");
  EXPECT_EQ(columnRefusal("\"a bool @8\n"),
            "line 2, column 11: a control byte is written as \\x and two digits");
  EXPECT_EQ(refusal("row 1 base 9 {\"a"), "line 1, column 15: the name's quote does not end");
  EXPECT_EQ(columnRefusal("\"\\n\" bool @8"),
            "line 2, column 2: names have the escapes \\\", \\\\ and \\x only");
  EXPECT_EQ(columnRefusal("\"\\x0g\" bool @8"),
            "line 2, column 2: \\x takes two hexadecimal digits");
  EXPECT_EQ(columnRefusal("\"\xFF\" bool @8"), "line 2, column 1: the name is not UTF-8");
  EXPECT_EQ(columnRefusal(std::string(256, 'n') + " bool @8"),
            "line 2, column 1: the name exceeds 255 bytes");
  EXPECT_EQ(columnRefusal(std::string(255, 'n') + " bool @8"), "");
}

TEST(LayoutTextTest, RefusesColumnsThatCannotBe) {
  EXPECT_EQ(columnRefusal("a bool @8\nb bool @7\n"),
            "line 3, column 1: column \"b\" lies in the header");
  EXPECT_EQ(columnRefusal("a uint64_t @8\nb bool @15\n"),
            "line 3, column 1: columns \"a\" and \"b\" overlap");
  EXPECT_EQ(columnRefusal("a bool @9\nb uint64_t @8\n"),
            "line 2, column 1: columns \"b\" and \"a\" overlap");
  EXPECT_EQ(columnRefusal("a string_t @97"),
            "line 2, column 1: column \"a\" ends behind the base length 100");
  EXPECT_EQ(columnRefusal("a string_t @96"), "");
  EXPECT_EQ(columnRefusal("a Ip6Addr @65535"),
            "line 2, column 1: column \"a\" ends behind the base length 100");
  EXPECT_EQ(columnRefusal("a bool @8 \"a\" bool @9"),
            "line 2, column 11: two columns have the name \"a\"");
  EXPECT_EQ(columnRefusal("r row 1 base 9 { a bool @8 a bool @8 } @8"),
            "line 2, column 28: two columns have the name \"a\"");
}

std::string nestedText(unsigned int levels) {
  std::string text = "row 1 base 8 { }";
  for (unsigned int i = 0; i < levels; ++i) text = "row 1 base 12 { r " + text + " @8 }";
  return text;
}

TEST(LayoutTextTest, HasLimits) {
  EXPECT_EQ(refusal(nestedText(maxRowNesting)), "");
  for (const unsigned int levels : {maxRowNesting + 1, 20000U}) {
    EXPECT_NE(refusal(nestedText(levels)).find("rows are nested too deep"), std::string::npos);
  }

  std::string columns;
  for (std::size_t i = 0; i < maxLayoutColumns; ++i) {
    columns += 'c' + std::to_string(i) + " bool @" + std::to_string(8 + i) + '\n';
  }
  EXPECT_EQ(refusal("row 1 base 5000 {" + columns + "}"), "");
  EXPECT_NE(refusal("row 1 base 5000 {" + columns + "d bool @4999}").find("too many columns"),
            std::string::npos);
  EXPECT_EQ(refusal(std::string(maxLayoutText + 1, ' ')),
            "line 1, column 1: the text exceeds 1 MiB");
  EXPECT_EQ(refusal("row 1 base 8 {}" + std::string(maxLayoutText - 15, ' ')), "");
}

extern const LayoutInfo endless;
const ColumnInfo endlessColumns[] = {{"next", structType_, 8, 4, false, &endless}};
const LayoutInfo endless = {1, 12, endlessColumns};

TEST(LayoutTextTest, RefusesToWriteBeyondTheLimits) {
  EXPECT_THROW(layoutText(endless), KoOutOfRange);
  EXPECT_THROW(fingerprint(endless), KoOutOfRange);
  EXPECT_THROW(DynamicLayout{endless}, KoOutOfRange);
  const std::string name(256, 'n');
  const ColumnInfo column[] = {{name, boolType_, 8, 1, false, nullptr}};
  EXPECT_THROW(layoutText({1, 9, column}), KoOutOfRange);
  // Layouts of which each has the one before twice: little to declare, much to write.
  std::vector<std::vector<ColumnInfo>> columns(17);
  std::vector<LayoutInfo> layouts(17, {1, 8, {}});
  for (std::size_t i = 1; i < layouts.size(); ++i) {
    columns[i] = {{"a", structType_, 8, 4, false, &layouts[i - 1]},
                  {"b", structType_, 12, 4, false, &layouts[i - 1]}};
    layouts[i] = {1, 16, columns[i]};
  }
  EXPECT_NO_THROW(layoutText(layouts[8]));
  EXPECT_THROW(layoutText(layouts[16]), KoOutOfRange);
}

TEST(LayoutTextTest, RefusesAHandMadeLayoutThatCannotBe) {
  const ColumnInfo columns[] = {{"a", uint32Type_, 8, 4, false, nullptr},
                                {"b", uint32Type_, 8, 4, false, nullptr}};
  EXPECT_THROW(DynamicLayout({1, 16, columns}), KoTextError);
}

// ---------------------------------------------------------------------------------------------

TEST(LayoutFingerprintTest, IsTheDigestOfTheText) {
  EXPECT_EQ(fingerprint(PortLayout::info).digest(), KoStrUtils::sha1(portText));
  // Texts around the lengths at which SHA-1 takes another block.
  for (std::size_t length = 1; length < 200; ++length) {
    const std::string name(length, 'n');
    const ColumnInfo column[] = {{name, boolType_, 8, 1, false, nullptr}};
    const LayoutInfo layout = {1, 9, column};
    EXPECT_EQ(fingerprint(layout).digest(), KoStrUtils::sha1(layoutText(layout)));
  }
}

// A program holds on to its layout: these are constants.
static_assert(fingerprint<RowLayout<0>>() == fingerprint<RowLayout<0>>());
static_assert(fingerprint<RowLayout<0>>() != fingerprint<RowLayout<1>>());
static_assert(fingerprint<PortLayout>().leading() == 0x19f947d8);

TEST(LayoutFingerprintTest, IsAConstantForDeclaredLayouts) {
  constexpr LayoutFingerprint port = fingerprint<PortLayout>();
  EXPECT_EQ(port, fingerprint(PortLayout::info));
  EXPECT_EQ(fingerprint<AllTypes>(), fingerprint(AllTypes::info));
  EXPECT_EQ(port.text(), port.digest().substr(0, 8));
  EXPECT_EQ(port.leading(), std::stoul(port.text(), nullptr, 16));
}

TEST(LayoutFingerprintTest, EqualExactlyWhenBytesMeanTheSame) {
  using Base = RowLayout<1, Column<"a", std::uint32_t>, Column<"b", std::string>>;
  constexpr LayoutFingerprint base = fingerprint<Base>();
  // The order of declaration decides nothing.
  static_assert(
      base ==
      fingerprint<RowLayout<1, Column<"b", std::string, 12>, Column<"a", std::uint32_t, 8>>>());
  // Everything else does.
  static_assert(base !=
                fingerprint<RowLayout<2, Column<"a", std::uint32_t>, Column<"b", std::string>>>());
  static_assert(base !=
                fingerprint<RowLayout<1, Column<"a", std::int32_t>, Column<"b", std::string>>>());
  static_assert(base !=
                fingerprint<RowLayout<1, Column<"x", std::uint32_t>, Column<"b", std::string>>>());
  static_assert(base !=
                fingerprint<RowLayout<1, Column<"b", std::string>, Column<"a", std::uint32_t>>>());
  static_assert(
      base !=
      fingerprint<
          RowLayout<1, Column<"a", std::uint32_t>, Column<"b", std::vector<std::string>>>>());
  static_assert(
      base !=
      fingerprint<RowLayout<1, Column<"a", std::uint32_t>, Column<"b", std::string, 13>>>());
  static_assert(
      base !=
      fingerprint<
          RowLayout<1, Column<"a", std::uint32_t>, Column<"b", std::string>, Column<"c", bool>>>());
  const DynamicLayout longer("row 1 base 17 { a uint32_t @8 b string_t @12 }");
  EXPECT_NE(base, longer.fingerprint());
  using Inner = RowLayout<5, Column<"x", bool>>;
  using Other = RowLayout<5, Column<"y", bool>>;
  static_assert(fingerprint<RowLayout<1, Column<"a", Nested<Inner>>>>() !=
                fingerprint<RowLayout<1, Column<"a", Nested<Other>>>>());
  // Names cannot be made to look like more than they are.
  EXPECT_NE(DynamicLayout("row 1 base 10 { \"a bool @8\\x0a  b\" bool @9 }").fingerprint(),
            DynamicLayout("row 1 base 10 { a bool @8 b bool @9 }").fingerprint());
}

// ---------------------------------------------------------------------------------------------

TEST(DynamicLayoutTest, ChecksAndPrintsAsTheDeclaredOne) {
  TableRow<PortLayout> port;
  port.create(1001);
  port.set<"speed">(10000);
  port.set<"name">("eth0");
  port.set<"lanes">({true, false});
  TableRow<LinkLayout> link;
  link.create();
  link.set<"up">(true);
  port.set<"link">(link);
  const DynamicLayout layout(portText);
  EXPECT_FALSE(checkRow(port.rowBuf(), port.rowLength(), layout.info()));
  EXPECT_EQ(detail::rowAsJson(port, layout.info()), port.toJson());
  std::vector<byte_t> bytes(port.rowBuf(), port.rowBuf() + port.rowLength());
  bytes[14] = 255;  // the name's length
  EXPECT_EQ(checkRow(bytes.data(), bytes.size(), layout.info()),
            checkRow(bytes.data(), bytes.size(), PortLayout::info));
}

}  // namespace
