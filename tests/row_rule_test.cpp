// What a check of a row tells beside the kind and the byte, and what it refuses where it is asked.

#include <Korvo/rowCheck.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

using namespace Korvo;

struct LeafLayout : RowLayout<3, Column<"file", std::string>, Column<"net", IpGenPrefix>> {};
struct OriginLayout : RowLayout<2, Column<"line", std::uint32_t>,
                                Column<"leaf", Nested<LeafLayout>>, Column<"name", std::string>> {};
struct Layout
    : RowLayout<1, Column<"id", std::uint32_t>, Column<"text", std::string>,
                Column<"net", IpGenPrefix>, Column<"texts", std::vector<std::string>>,
                Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>,
                Column<"origin", Nested<OriginLayout>>> {};
using Row = TableRow<Layout>;

constexpr len_t base = Layout::baseLength;

/// A row that an index takes.
Row soundRow() {
  TableRow<LeafLayout> leaf;
  leaf.create();
  leaf.set<"file">("main.c");
  leaf.set<"net">(IpGenPrefix("10.2.0.0/16"));
  TableRow<OriginLayout> origin;
  origin.create();
  origin.set<"leaf">(leaf);
  origin.set<"name">("origin");
  Row row;
  row.create(5);
  row.set<"text">("text");
  row.set<"net">(IpGenPrefix("10.0.0.0/8"));
  row.set<"texts">({"a", "", "xyz"});
  row.set<"nets">({IpGenPrefix("10.1.0.0/16"), IpGenPrefix("2001:db8::/33")});
  row.set<"flags">({true, false});
  row.set<"origin">(origin);
  return row;
}

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

/// By the layout that is known at run time and by the declared one.
RowFault check(const std::vector<byte_t>& bytes, RowRule rules = RowRule::anyBits) {
  const RowFault found = checkRow(bytes.data(), bytes.size(), Layout::info, rules);
  const RowFault declared = checkRow<Layout>(bytes.data(), bytes.size(), rules);
  EXPECT_EQ(found, declared);
  EXPECT_EQ(found.text(), declared.text());
  return found;
}
RowFault check(const BaseRow& row, RowRule rules = RowRule::anyBits) {
  return check(bytesOf(row), rules);
}

/// The first byte of the value in the slot at `slot`.
std::size_t valueAt(const std::vector<byte_t>& bytes, std::size_t slot) {
  return VColType::at(bytes.data(), slot).offset();
}

TEST(RowFault, HasNoColumnWhereTheRowIsAtFault) {
  const std::vector<byte_t> bytes(4);
  EXPECT_EQ(check(bytes).column(), "");
  EXPECT_EQ(check(bytes).text(), "fewer bytes than a row header (at byte 4)");
  EXPECT_EQ(RowFault().column(), "");
  EXPECT_EQ(RowFault().text(), "no fault");
}

TEST(RowFault, OfARowOfAnotherLayoutSaysSo) {
  TableRow<LeafLayout> other;
  other.create();
  const RowFault fault = check(other);
  EXPECT_EQ(fault.kind, RowFaultKind::shortFixedArea);
  EXPECT_EQ(fault.text(),
            "shorter than the columns of this layout: an older or another layout? (at byte 16)");
}

TEST(RowFault, NamesItsColumn) {
  std::vector<byte_t> bytes = bytesOf(soundRow());
  VColType::at(bytes.data(), Layout::offset<"text">).valueIs(3, 4, false);
  EXPECT_EQ(check(bytes).column(), "text");
  EXPECT_EQ(check(bytes).text(), "a value lies in the header or the fixed area (text, at byte 12)");
  bytes = bytesOf(soundRow());
  bytes[valueAt(bytes, Layout::offset<"nets">) + 2 + 8] = 33;  // the first element's length
  EXPECT_EQ(check(bytes).kind, RowFaultKind::prefixBits);
  EXPECT_EQ(check(bytes).column(), "nets");
}

TEST(RowFault, NamesAllColumnsThatLeadIntoNestedRows) {
  const std::vector<byte_t> good = bytesOf(soundRow());
  const std::size_t origin = valueAt(good, Layout::offset<"origin">);
  const std::size_t leaf =
      origin + valueAt({good.begin() + static_cast<std::ptrdiff_t>(origin), good.end()},
                       OriginLayout::offset<"leaf">);
  std::vector<byte_t> bytes = good;
  VColType::at(bytes.data(), leaf + LeafLayout::offset<"file">).valueIs(60000, 4, false);
  EXPECT_EQ(check(bytes).column(), "origin.leaf.file");
  EXPECT_EQ(check(bytes).text(), "a value lies beyond the row's end (origin.leaf.file, at byte " +
                                     std::to_string(leaf + LeafLayout::offset<"file">) + ")");
  bytes = good;
  VColType::at(bytes.data(), origin + OriginLayout::offset<"name">).valueIs(1, 1, false);
  EXPECT_EQ(check(bytes).column(), "origin.name");
  bytes = good;
  storeField<len_t>(bytes.data() + origin, 9);
  EXPECT_EQ(check(bytes).column(), "origin");
}

TEST(NestedRowType, IsAFaultOfItsOwn) {
  const std::vector<byte_t> good = bytesOf(soundRow());
  EXPECT_EQ(check(good), RowFault());
  const std::size_t origin = valueAt(good, Layout::offset<"origin">);
  for (const unsigned int type : {0U, 1U, 3U, 258U, 65535U}) {
    std::vector<byte_t> bytes = good;
    storeField(bytes.data() + origin + rowTypeOffset, static_cast<std::uint16_t>(type));
    EXPECT_EQ(check(bytes), (RowFault{RowFaultKind::nestedType, origin + 2})) << type;
    EXPECT_EQ(check(bytes).text(),
              "a nested row of another type than its column's layout (origin, at byte " +
                  std::to_string(origin + 2) + ")");
  }
  // The outer row's own type is adopt()'s matter.
  std::vector<byte_t> bytes = good;
  storeField<std::uint16_t>(bytes.data() + rowTypeOffset, 77);
  EXPECT_EQ(check(bytes), RowFault());
}

TEST(RowRule, RulesAreCombined) {
  EXPECT_EQ(RowRule::noHostBits | RowRule::withFamily | RowRule::wholeArrays, RowRule::forIndex);
  EXPECT_TRUE(hasRule(RowRule::forIndex, RowRule::withFamily));
  EXPECT_FALSE(hasRule(RowRule::noHostBits, RowRule::withFamily));
  EXPECT_FALSE(hasRule(RowRule::anyBits, RowRule::noHostBits));
}

TEST(RowRule, AnIndexTakesSoundRows) {
  EXPECT_EQ(check(soundRow(), RowRule::forIndex), RowFault());
}

TEST(RowRule, RefusesPrefixesWithoutAFamily) {
  Row row = soundRow();
  row.set<"net">(IpGenPrefix());
  EXPECT_EQ(check(row), RowFault());
  EXPECT_EQ(check(row, RowRule::noHostBits | RowRule::wholeArrays), RowFault());
  const RowFault refused = {RowFaultKind::noFamily, Layout::offset<"net">};
  EXPECT_EQ(check(row, RowRule::withFamily), refused);
  EXPECT_EQ(check(row, RowRule::forIndex), refused);
  EXPECT_EQ(check(row, RowRule::withFamily).text(),
            "a prefix has no family (net, at byte " + std::to_string(Layout::offset<"net">) + ")");
  // An empty array has no element without one.
  row = soundRow();
  row.set<"nets">({});
  EXPECT_EQ(check(row, RowRule::forIndex), RowFault());
}

TEST(RowRule, RefusesArrayElementsWithoutAFamily) {
  Row row = soundRow();
  row.set<"nets">({IpGenPrefix("10.1.0.0/16"), IpGenPrefix()});
  EXPECT_EQ(check(row), RowFault());
  const std::size_t array = valueAt(bytesOf(row), Layout::offset<"nets">);
  EXPECT_EQ(check(row, RowRule::forIndex), (RowFault{RowFaultKind::noFamily, array + 2 + 4}));
  EXPECT_EQ(check(row, RowRule::forIndex).column(), "nets");
  row.set<"texts">({"", ""});  // text may be empty
  row.set<"nets">({IpGenPrefix("10.1.0.0/16")});
  EXPECT_EQ(check(row, RowRule::forIndex), RowFault());
}

TEST(RowRule, LooksIntoNestedRowsToo) {
  TableRow<LeafLayout> leaf;
  leaf.create();
  TableRow<OriginLayout> origin;
  origin.create();
  origin.set<"leaf">(leaf);
  Row row = soundRow();
  row.set<"origin">(origin);
  EXPECT_EQ(check(row), RowFault());
  EXPECT_EQ(check(row, RowRule::forIndex).column(), "origin.leaf.net");
}

TEST(RowRule, RefusesHostBits) {
  Row row = soundRow();
  row.set<"net">(IpGenPrefix(IpAddr("10.0.0.1"), 8));
  EXPECT_EQ(check(row), RowFault());
  EXPECT_EQ(check(row, RowRule::withFamily | RowRule::wholeArrays), RowFault());
  EXPECT_EQ(check(row, RowRule::forIndex).kind, RowFaultKind::hostBits);
  EXPECT_EQ(check(row, PrefixRule::noHostBits).kind, RowFaultKind::hostBits);
}

TEST(RowRule, RefusesCountsThatDoNotFit) {
  for (const std::size_t count : {4096U, 4097U, 5000U, 8191U}) {
    Row row;
    row.create();
    row.set<"net">(IpGenPrefix("10.0.0.0/8"));
    row.updateFixElemArray(Layout::offset<"flags">, base, std::vector<bool>(count, true));
    const std::size_t flags = valueAt(bytesOf(row), Layout::offset<"flags">);
    EXPECT_EQ(check(row), RowFault());
    EXPECT_EQ(check(row, RowRule::noHostBits | RowRule::withFamily), RowFault());
    EXPECT_EQ(check(row, RowRule::forIndex), (RowFault{RowFaultKind::arrayCount, flags}));
    EXPECT_EQ(check(row, RowRule::wholeArrays).text(),
              "an array's count is not that of its elements (flags, at byte " +
                  std::to_string(flags) + ")");
  }
  for (const std::size_t count : {4096U, 4097U, 5000U, 8000U}) {
    for (const char* text : {"", "x"}) {
      if (count == 8000U && *text != '\0') continue;  // too long for a column
      Row row;
      row.create();
      row.set<"net">(IpGenPrefix("10.0.0.0/8"));
      row.setColumn(Layout::offset<"texts">, std::vector<std::string>(count, text), base);
      EXPECT_EQ(check(row), RowFault());
      EXPECT_EQ(check(row, RowRule::forIndex).kind, RowFaultKind::arrayCount) << count;
      EXPECT_EQ(check(row, RowRule::forIndex).column(), "texts");
    }
  }
}

TEST(RowRule, TakesArraysOfUpTo4095Elements) {
  Row row;
  row.create();
  row.set<"net">(IpGenPrefix("10.0.0.0/8"));
  row.set<"flags">(std::vector<bool>(4095, true));
  row.set<"texts">(std::vector<std::string>(4095, "x"));
  EXPECT_EQ(check(row, RowRule::forIndex), RowFault());
}

}  // namespace
