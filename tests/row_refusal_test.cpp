// What declared row classes refuse to write, and what their exceptions say.

#include <Korvo/TableRow.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace Korvo;

struct InnerLayout : RowLayout<2, Column<"big", std::string>> {};
struct Layout
    : RowLayout<1, Column<"name", std::string>, Column<"other", std::string>,
                Column<"net", IpGenPrefix>, Column<"nets", std::vector<IpGenPrefix>>,
                Column<"tags", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
                Column<"flags", std::vector<bool>>, Column<"inner", Nested<InnerLayout>>> {};
using Row = TableRow<Layout>;

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

/// The message of a write that changes nothing: not the row, nor who shares its buffer.
template <typename Write>
std::string refusalOf(Row& row, Write write) {
  const Row twin = row;
  const std::vector<byte_t> before = bytesOf(row);
  const std::string message = messageOf([&] { write(row); });
  EXPECT_EQ(bytesOf(row), before);
  EXPECT_EQ(row.rowBuf(), twin.rowBuf());
  return message;
}

Row newRow() {
  Row row;
  row.create(3);
  row.set<"name">("eth0");
  row.set<"tags">({"a", "b"});
  row.set<"flags">({true});
  return row;
}

TEST(LongArrays, AreRefusedByDeclaredClasses) {
  Row row = newRow();
  EXPECT_EQ(refusalOf(row, [](Row& r) { r.set<"flags">(std::vector<bool>(4096)); }),
            "Korvo::OutOfRange: Column flags: Array exceeds 4095 elements: 4096");
  EXPECT_EQ(refusalOf(row, [](Row& r) { r.set<"tags">(std::vector<std::string>(5000)); }),
            "Korvo::OutOfRange: Column tags: Array exceeds 4095 elements: 5000");
  EXPECT_EQ(refusalOf(row, [](Row& r) { r.set<"addrs">(std::vector<IpGenAddr>(4096)); }),
            "Korvo::OutOfRange: Column addrs: Array exceeds 4095 elements: 4096");
  EXPECT_EQ(refusalOf(row, [](Row& r) { r.set<"nets">(std::vector<IpGenPrefix>(70000)); }),
            "Korvo::OutOfRange: Column nets: Array exceeds 4095 elements: 70000");
  row.set<"flags">(std::vector<bool>(4095, true));
  EXPECT_EQ(row.view<"flags">().size(), 4095U);
  row.set<"tags">(std::vector<std::string>(4095));
  EXPECT_EQ(row.view<"tags">().size(), 4095U);
}

TEST(LongArrays, AreRefusedByTheirWriters) {
  Row row = newRow();
  const std::string message = refusalOf(row, [](Row& r) {
    auto writer = r.writer();
    writer.set<"tags">(std::vector<std::string>(4096));
  });
  EXPECT_EQ(message, "Korvo::OutOfRange: Column tags: Array exceeds 4095 elements: 4096");
  row.writer().set<"flags">(std::vector<bool>(4095, true));
  EXPECT_EQ(row.view<"flags">().size(), 4095U);
}

TEST(LongArrays, OfANullRowAreRefusedAsSuch) {
  Row row;
  EXPECT_EQ(messageOf([&] { row.set<"flags">(std::vector<bool>(4096)); }),
            "Korvo::KoNullRow: null row");
  EXPECT_EQ(messageOf([&] { row.writer().set<"flags">(std::vector<bool>(4096)); }),
            "Korvo::KoNullRow: null row");
}

// The operations of BaseRow write them as ever, with the low bits of their count.
TEST(LongArrays, AreWrittenByTheOperationsOfRows) {
  Row row = newRow();
  row.updateFixElemArray(Layout::offset<"flags">, Layout::baseLength, std::vector<bool>(4098));
  EXPECT_EQ(row.view<"flags">().size(), 2U);
  row.setColumn(Layout::offset<"tags">, std::vector<std::string>(4097), Layout::baseLength);
  EXPECT_EQ(row.view<"tags">().size(), 1U);
}

TEST(Refusal, NamesColumnSizeAndLimit) {
  Row row = newRow();
  const std::string tooLong(40000, 'x');
  EXPECT_EQ(refusalOf(row, [&](Row& r) { r.set<"name">(tooLong); }),
            "Korvo::OutOfRange: Column name: Encoded value exceeds 32767 bytes: 40000");
  EXPECT_EQ(refusalOf(row, [&](Row& r) { r.writer().set<"name">(tooLong); }),
            "Korvo::OutOfRange: Column name: Encoded value exceeds 32767 bytes: 40000");
  EXPECT_EQ(
      refusalOf(
          row, [](Row& r) { r.set<"tags">(std::vector<std::string>(2, std::string(20000, 'x'))); }),
      "Korvo::OutOfRange: Column tags: Encoded value exceeds 32767 bytes: 40010");
  row.set<"name">(std::string(32767, 'x'));
  const std::size_t length = row.rowLength();
  const std::string more(32767, 'y');
  const std::string expected = "Korvo::OutOfRange: Column other: Row length exceeds 65535 bytes: " +
                               std::to_string(length + more.size());
  EXPECT_EQ(refusalOf(row, [&](Row& r) { r.set<"other">(more); }), expected);
  EXPECT_EQ(refusalOf(row, [&](Row& r) { r.writer().set<"other">(more); }), expected);
  TableRow<InnerLayout> inner;
  inner.create();
  inner.set<"big">(std::string(32766, 'x'));
  EXPECT_EQ(refusalOf(row, [&](Row& r) { r.set<"inner">(inner); }),
            "Korvo::OutOfRange: Column inner: Encoded value exceeds 32767 bytes: 32778");
}

TEST(Refusal, NamesColumnsThatDoNotReadAsValues) {
  Row row = newRow();
  row.set<"net">(IpGenPrefix(IpAddr("10.0.0.1"), 8));
  row.set<"nets">({IpGenPrefix(IpAddr("10.0.0.1"), 8)});
  EXPECT_EQ(messageOf([&] { row.get<"net">(); }),
            "Korvo::OutOfRange: Column net: Invalid Prefix - non-zero after prefixlen");
  EXPECT_EQ(messageOf([&] { row.get<"nets">(); }),
            "Korvo::OutOfRange: Column nets: Invalid Prefix - non-zero after prefixlen");
}

TEST(Refusal, OfANewRowNamesSizeAndLimit) {
  Row row;
  EXPECT_EQ(messageOf([&] { row.create(1, 70000); }),
            "Korvo::OutOfRange: Row length exceeds 65535 bytes: " +
                std::to_string(70000 + Layout::baseLength));
  EXPECT_TRUE(row.isNull());
}

// These texts are relied on as they are.
TEST(Refusal, KeepsTheTextsThatOthersKnow) {
  const Row row = newRow();
  EXPECT_EQ(messageOf([&] { row.view<"tags">()[2]; }), "Korvo::OutOfRange: Invalid index");
  Row null;
  EXPECT_EQ(messageOf([&] { null.set<"name">("x"); }), "Korvo::KoNullRow: null row");
}

TEST(Refusal, OfARowsOwnOperationsNamesSizeAndLimit) {
  Row row = newRow();
  EXPECT_EQ(messageOf([&] {
              row.setColumn(Layout::offset<"name">, std::string(40000, 'x'), Layout::baseLength);
            }),
            "Korvo::OutOfRange: Encoded value exceeds 32767 bytes: 40000");
}

}  // namespace
