// Checking received rows: what passes, what is refused, and what passing promises.

#include <Korvo/rowCheck.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace Korvo {
/// How a failing test shows a fault.
static void PrintTo(const RowFault& fault, std::ostream* os) {
  *os << fault.text();
}
}  // namespace Korvo

namespace {

using namespace Korvo;

using InnerLayout = RowLayout<2, Column<"text", std::string>, Column<"net", IpGenPrefix>>;
using Layout =
    RowLayout<1, Column<"id", std::uint32_t>, Column<"text", std::string>,
              Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
              Column<"texts", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>,
              Column<"inner", Nested<InnerLayout>>>;
using Row = TableRow<Layout>;

constexpr len_t base = Layout::baseLength;
static_assert(base == 12 + 8 * 4);

IpGenAddr v4(unsigned char last) {
  const unsigned char bytes[] = {10, 0, 0, last};
  return IpGenAddr(ipv4_, bytes);
}

Row fullRow() {
  Row row;
  row.create(9);
  row.set<"text">("hello");
  row.set<"addr">(v4(1));
  row.set<"net">(IpGenPrefix(v4(0), 24));
  row.set<"texts">({"a", "", "xyz"});
  row.set<"addrs">({v4(1), IpGenAddr(), v4(2)});
  row.set<"nets">({IpGenPrefix(v4(0), 24), IpGenPrefix()});
  row.set<"flags">({true, false});
  TableRow<InnerLayout> inner;
  inner.create();
  inner.set<"text">("deep");
  inner.set<"net">(IpGenPrefix(v4(0), 30));
  row.set<"inner">(inner);
  return row;
}

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

/// Checks an exact heap block, so that a sanitizer finds every read outside the bytes, by the
/// layout that is known at run time and by the declared one.
RowFault check(const std::vector<byte_t>& bytes, PrefixRule rule = PrefixRule::anyBits) {
  const std::unique_ptr<byte_t[]> block(new byte_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), block.get());
  const RowFault found = checkRow(block.get(), bytes.size(), Layout::info, rule);
  EXPECT_EQ(checkRow<Layout>(block.get(), bytes.size(), rule), found);
  return found;
}

template <ColumnName Name>
VColType& slotOf(std::vector<byte_t>& bytes) {
  return VColType::at(bytes.data(), Layout::offset<Name>);
}
template <ColumnName Name>
std::size_t valueOf(std::vector<byte_t>& bytes) {
  return slotOf<Name>(bytes).offset();
}

RowFault fault(RowFaultKind kind, std::size_t offset) {
  return {kind, offset};
}

TEST(RowCheck, PassesWhatTheWritersWrite) {
  Row row;
  row.create();
  EXPECT_EQ(check(bytesOf(row)), RowFault());
  EXPECT_EQ(check(bytesOf(fullRow())), RowFault());
  EXPECT_FALSE(check(bytesOf(fullRow())));
}

TEST(RowCheck, PassesGapsMarksOnEmptyColumnsAndFreeHeaderBits) {
  Row row = fullRow();
  row.set<"text">("hi");  // leaves a gap
  row.set<"texts">({});   // leaves the array mark
  std::vector<byte_t> bytes = bytesOf(row);
  EXPECT_TRUE(slotOf<"texts">(bytes).isArray());
  EXPECT_EQ(check(bytes), RowFault());
  slotOf<"text">(bytes).valueIs(60000, 0, true);  // an offset beside length 0
  EXPECT_EQ(check(bytes), RowFault());
  for (int bits = 0; bits < 8; ++bits) {  // header bits 13 to 15
    byte_t& high = bytes[valueOf<"addrs">(bytes) + 1];
    high = static_cast<byte_t>((high & 0x1F) | bits << 5);
    EXPECT_EQ(check(bytes), RowFault());
  }
}

TEST(RowCheck, RefusesLengthsThatLie) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  for (std::size_t length = 0; length < good.size(); ++length) {
    const std::vector<byte_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_EQ(check(cut), length < 8 ? fault(RowFaultKind::shortHeader, length)
                                     : fault(RowFaultKind::truncated, 0))
        << length;
  }
  std::vector<byte_t> longer = good;
  longer.push_back(0);
  EXPECT_EQ(check(longer), fault(RowFaultKind::trailingBytes, good.size()));
  for (std::size_t length = 8; length < base; ++length) {  // honest about too short a row
    std::vector<byte_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
    storeField<len_t>(cut.data(), static_cast<len_t>(length));
    EXPECT_EQ(check(cut), fault(RowFaultKind::shortFixedArea, length));
  }
}

TEST(RowCheck, RefusesEveryShorterLengthInTheHeader) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  for (std::size_t length = base; length < good.size(); ++length) {
    std::vector<byte_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length));
    storeField<len_t>(cut.data(), static_cast<len_t>(length));
    EXPECT_EQ(check(cut).kind, RowFaultKind::valueBeyondRow) << length;
  }
}

TEST(RowCheck, RefusesSlotsOutsideTheVariableArea) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  const auto size = static_cast<len_t>(good.size());
  const std::size_t slot = Layout::offset<"text">;
  struct Case {
    len_t offset;
    len_t length;
    RowFaultKind kind;
  };
  const Case cases[] = {
      {0, 1, RowFaultKind::valueInHeader},
      {7, 1, RowFaultKind::valueInHeader},
      {8, 1, RowFaultKind::valueInHeader},
      {static_cast<len_t>(base - 1), 1, RowFaultKind::valueInHeader},
      {size, 1, RowFaultKind::valueBeyondRow},
      {static_cast<len_t>(size - 1), 2, RowFaultKind::valueBeyondRow},
      {base, 32767, RowFaultKind::valueBeyondRow},
      {65535, 1, RowFaultKind::valueBeyondRow},
      {65535, 32767, RowFaultKind::valueBeyondRow},  // the sum wraps in 16 bits
      {40000, 32767, RowFaultKind::valueBeyondRow},
  };
  for (const Case& c : cases) {
    std::vector<byte_t> bytes = good;
    slotOf<"text">(bytes).valueIs(c.offset, c.length, false);
    EXPECT_EQ(check(bytes), fault(c.kind, slot)) << c.offset << " " << c.length;
  }
}

TEST(RowCheck, RefusesValuesThatShareAByte) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  const std::size_t addr = Layout::offset<"addr">;
  for (const int shift : {-3, -1, 0, 1, 4}) {
    std::vector<byte_t> bytes = good;
    const std::size_t text = valueOf<"text">(bytes);
    const auto at = static_cast<len_t>(static_cast<int>(text) + shift);
    if (at < base) continue;
    slotOf<"addr">(bytes).valueIs(at, 4, false);
    EXPECT_EQ(check(bytes), fault(RowFaultKind::overlap, addr)) << shift;
  }
  // Behind one another they share nothing.
  Row row;
  row.create();
  row.set<"text">(std::string(9, 'x'));
  std::vector<byte_t> bytes = bytesOf(row);
  slotOf<"text">(bytes).valueIs(base, 5, false);
  slotOf<"addr">(bytes).valueIs(base + 5, 4, false);
  EXPECT_EQ(check(bytes), RowFault());
}

TEST(RowCheck, ANestedRowIsTakenAsAWhole) {
  // A value over bytes of the nested row that none of its own columns uses (its oid), although the
  // nested row's own account knows nothing of them.
  using Late = RowLayout<1, Column<"inner", Nested<InnerLayout>>, Column<"late", std::string>>;
  TableRow<Late> row;
  row.create();
  TableRow<InnerLayout> inner;
  inner.create();
  row.set<"inner">(inner);
  std::vector<byte_t> late = bytesOf(row);
  VColType::at(late.data(), Late::offset<"late">).valueIs(Late::baseLength + 4, 2, false);
  EXPECT_EQ(checkRow(late.data(), late.size(), Late::info),
            fault(RowFaultKind::overlap, Late::offset<"late">));
}

TEST(RowCheck, RefusesMarksThatContradictTheColumn) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  std::vector<byte_t> bytes = good;
  bytes[Layout::offset<"text"> + 3] |= 0x80;
  EXPECT_EQ(check(bytes), fault(RowFaultKind::arrayMark, Layout::offset<"text">));
  bytes = good;
  bytes[Layout::offset<"texts"> + 3] &= 0x7F;
  EXPECT_EQ(check(bytes), fault(RowFaultKind::arrayMark, Layout::offset<"texts">));
  bytes = good;
  bytes[valueOf<"texts">(bytes) + 1] &= 0xEF;
  EXPECT_EQ(check(bytes), fault(RowFaultKind::elementMark, valueOf<"texts">(bytes)));
  bytes = good;
  bytes[valueOf<"flags">(bytes) + 1] |= 0x10;
  EXPECT_EQ(check(bytes), fault(RowFaultKind::elementMark, valueOf<"flags">(bytes)));
}

TEST(RowCheck, RefusesArraysWhoseLengthDoesNotFit) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  std::vector<byte_t> bytes = good;
  bytes[valueOf<"texts">(bytes)] = 255;  // more element slots than bytes
  EXPECT_EQ(check(bytes), fault(RowFaultKind::arrayLength, valueOf<"texts">(bytes)));
  for (const byte_t count : {byte_t{0}, byte_t{1}, byte_t{3}, byte_t{200}}) {
    bytes = good;
    bytes[valueOf<"flags">(bytes)] = count;
    EXPECT_EQ(check(bytes), fault(RowFaultKind::arrayLength, valueOf<"flags">(bytes)));
  }
  bytes = good;
  slotOf<"flags">(bytes).valueIs(slotOf<"flags">(bytes).offset(), 1, true);  // half a header
  EXPECT_EQ(check(bytes), fault(RowFaultKind::arrayLength, valueOf<"flags">(bytes)));
}

TEST(RowCheck, PassesArraysOfMoreElementsThanTheirCountHolds) {
  Row row;
  row.create();
  row.updateFixElemArray(Layout::offset<"flags">, base, std::vector<bool>(4096 + 5, true));
  EXPECT_EQ(check(bytesOf(row)), RowFault());
  row.setColumn(Layout::offset<"texts">, std::vector<std::string>(4097), base);
  EXPECT_EQ(check(bytesOf(row)), RowFault());
}

TEST(RowCheck, RefusesElementsOutsideTheirArray) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  // {"a", "", "xyz"}: slots (14,1) (15,0) (15,3), 18 bytes
  struct Case {
    int element;
    len_t offset;
    len_t length;
  };
  const Case cases[] = {
      {0, 0, 1},                   // the count
      {0, 2, 1},                   // the slots
      {0, 13, 1},                  // the last slot
      {0, 18, 1},                  // the end
      {0, 65535, 1},               //
      {0, 14, 5},                  // beyond the end
      {0, 14, 32767}, {0, 14, 2},  // over the next one
      {1, 14, 0},                  // before the last one's end
      {1, 19, 0},                  // an empty one beyond the end
      {2, 14, 3},                  // over the first one
      {2, 16, 3},                  // beyond the end
  };
  for (const Case& c : cases) {
    std::vector<byte_t> bytes = good;
    const std::size_t array = valueOf<"texts">(bytes);
    const std::size_t at = array + 2 + 4 * static_cast<std::size_t>(c.element);
    VColType::at(bytes.data(), at).valueIs(c.offset, c.length, false);
    const RowFault found = check(bytes);
    EXPECT_EQ(found.kind, RowFaultKind::elementOutside) << c.element << " " << c.offset;
    EXPECT_GE(found.offset, array + 2);
    EXPECT_LT(found.offset, array + 14);
  }
  // An empty element at the very end is what writers write.
  std::vector<byte_t> bytes = good;
  VColType::at(bytes.data(), valueOf<"texts">(bytes) + 2 + 8).valueIs(18, 0, false);
  EXPECT_EQ(check(bytes), RowFault());
}

TEST(RowCheck, RefusesLengthsThatNoFamilyHas) {
  Row row;
  row.create();
  row.set<"text">(std::string(32, '\0'));
  const std::vector<byte_t> good = bytesOf(row);
  for (len_t length = 1; length <= 32; ++length) {
    std::vector<byte_t> bytes = good;
    slotOf<"text">(bytes).clear();
    slotOf<"addr">(bytes).valueIs(base, length, false);
    EXPECT_EQ(check(bytes),
              length == 4 || length == 16 ? RowFault() : fault(RowFaultKind::addressLength, base))
        << length;
    bytes = good;
    slotOf<"text">(bytes).clear();
    slotOf<"net">(bytes).valueIs(base, length, false);
    EXPECT_EQ(check(bytes),
              length == 5 || length == 17 ? RowFault() : fault(RowFaultKind::prefixLength, base))
        << length;
  }
}

TEST(RowCheck, RefusesLengthsThatNoFamilyHasInArraysToo) {
  std::vector<byte_t> bytes = bytesOf(fullRow());
  const std::size_t addrs = valueOf<"addrs">(bytes);
  VColType::at(bytes.data(), addrs + 2).valueIs(14, 3, false);
  EXPECT_EQ(check(bytes), fault(RowFaultKind::addressLength, addrs + 14));
  bytes = bytesOf(fullRow());
  const std::size_t nets = valueOf<"nets">(bytes);
  VColType::at(bytes.data(), nets + 2).valueIs(10, 4, false);
  EXPECT_EQ(check(bytes), fault(RowFaultKind::prefixLength, nets + 10));
  bytes = bytesOf(fullRow());
  bytes[nets + 10] = 33;
  EXPECT_EQ(check(bytes), fault(RowFaultKind::prefixBits, nets + 10));
}

TEST(RowCheck, RefusesPrefixLengthsBeyondTheFamilysBits) {
  for (int mask = 0; mask < 256; ++mask) {
    for (const len_t length : {len_t{5}, len_t{17}}) {
      Row row;
      row.create();
      std::string value(length, '\0');
      value[0] = static_cast<char>(mask);
      row.set<"text">(value);
      std::vector<byte_t> bytes = bytesOf(row);
      slotOf<"text">(bytes).clear();
      slotOf<"net">(bytes).valueIs(base, length, false);
      const bool good = mask <= (length == 5 ? 32 : 128);
      EXPECT_EQ(check(bytes), good ? RowFault() : fault(RowFaultKind::prefixBits, base));
    }
  }
}

TEST(RowCheck, RefusesHostBitsOnlyWhereAsked) {
  Row row;
  row.create();
  row.set<"net">(IpGenPrefix(v4(1), 24));  // the constructor keeps host bits
  const std::vector<byte_t> bytes = bytesOf(row);
  EXPECT_EQ(check(bytes), RowFault());
  EXPECT_THROW(row.get<"net">(), KoOutOfRange);
  EXPECT_EQ(check(bytes, PrefixRule::noHostBits), fault(RowFaultKind::hostBits, base));
  row.set<"net">(IpGenPrefix(v4(0), 24));
  EXPECT_EQ(check(bytesOf(row), PrefixRule::noHostBits), RowFault());
}

TEST(RowCheck, RefusesNestedRowsThatLie) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  std::vector<byte_t> bytes = good;
  const std::size_t inner = valueOf<"inner">(bytes);
  for (const len_t length : {len_t{0}, len_t{7}, len_t{8}, len_t{16}, len_t{24}, len_t{65535}}) {
    bytes = good;
    storeField<len_t>(bytes.data() + inner, length);
    EXPECT_EQ(check(bytes), fault(RowFaultKind::nestedLength, inner)) << length;
  }
  bytes = good;
  slotOf<"inner">(bytes).valueIs(static_cast<len_t>(inner), 7, false);
  EXPECT_EQ(check(bytes), fault(RowFaultKind::nestedLength, inner));
  // Honest about too short a row.
  bytes = good;
  slotOf<"inner">(bytes).valueIs(static_cast<len_t>(inner), 15, false);
  storeField<len_t>(bytes.data() + inner, 15);
  EXPECT_EQ(check(bytes), fault(RowFaultKind::shortFixedArea, inner + 15));
  // A fault inside is told by its place in the outermost row.
  bytes = good;
  VColType::at(bytes.data(), inner + InnerLayout::offset<"text">).valueIs(3, 4, false);
  EXPECT_EQ(check(bytes), fault(RowFaultKind::valueInHeader, inner + InnerLayout::offset<"text">));
}

// A layout that nests itself, made by hand, as a host may do.
extern const LayoutInfo endless;
const ColumnInfo endlessColumns[] = {{"next", structType_, 8, 4, false, &endless}};
const LayoutInfo endless = {1, 12, endlessColumns};

TEST(RowCheck, OneBudgetLimitsTheNesting) {
  std::vector<byte_t> row(12, 0);
  row[0] = 12;
  row[2] = 1;  // the layout's row type
  for (unsigned int depth = 0; depth <= maxRowNesting + 1; ++depth) {
    const RowFault found = checkRow(row.data(), row.size(), endless);
    if (depth <= maxRowNesting) {
      EXPECT_EQ(found, RowFault()) << depth;
    } else {
      EXPECT_EQ(found, fault(RowFaultKind::nestedTooDeep, 12 * (maxRowNesting + 1)));
    }
    std::vector<byte_t> outer(12, 0);
    outer.insert(outer.end(), row.begin(), row.end());
    storeField<len_t>(outer.data(), static_cast<len_t>(outer.size()));
    outer[2] = 1;
    VColType::at(outer.data(), 8).valueIs(12, static_cast<len_t>(row.size()), false);
    row = outer;
  }
}

template <unsigned int Levels>
struct Chain {
  using Layout = RowLayout<1, Column<"next", Nested<typename Chain<Levels - 1>::Layout>>>;
};
template <>
struct Chain<0> {
  using Layout = RowLayout<1, Column<"next", std::string>>;
};

TEST(RowCheck, DeclaredLayoutsHaveTheSameBudget) {
  using Deepest = Chain<maxRowNesting + 2>::Layout;
  std::vector<byte_t> row(12, 0);
  row[0] = 12;
  row[2] = 1;  // the layout's row type
  for (unsigned int depth = 0; depth <= maxRowNesting + 1; ++depth) {
    const RowFault found = checkRow<Deepest>(row.data(), row.size());
    EXPECT_EQ(found, checkRow(row.data(), row.size(), Deepest::info));
    EXPECT_EQ(found.kind, depth <= maxRowNesting ? RowFaultKind::none : RowFaultKind::nestedTooDeep)
        << depth;
    std::vector<byte_t> outer(12, 0);
    outer.insert(outer.end(), row.begin(), row.end());
    storeField<len_t>(outer.data(), static_cast<len_t>(outer.size()));
    outer[2] = 1;
    VColType::at(outer.data(), 8).valueIs(12, static_cast<len_t>(row.size()), false);
    row = outer;
  }
}

TEST(RowCheck, DeclaredLayoutsWithoutSlotsOrColumns) {
  using Numbers = RowLayout<1, Column<"a", std::uint32_t>, Column<"b", bool>>;
  using Nothing = RowLayout<1>;
  std::vector<byte_t> row(14, 0);
  for (std::size_t length = 0; length <= row.size(); ++length) {
    row[0] = static_cast<byte_t>(length);
    EXPECT_EQ(checkRow<Numbers>(row.data(), length), checkRow(row.data(), length, Numbers::info));
    EXPECT_EQ(!checkRow<Numbers>(row.data(), length), length >= Numbers::baseLength);
    EXPECT_EQ(checkRow<Nothing>(row.data(), length), checkRow(row.data(), length, Nothing::info));
    EXPECT_EQ(!checkRow<Nothing>(row.data(), length), length >= rowHeaderLength);
  }
}

TEST(RowCheck, MoreBytesThanARowMayHaveAreRefused) {
  using Numbers = RowLayout<1, Column<"a", std::uint32_t>>;
  // What the lengths would be if their high bits were lost; nothing behind the row is read.
  for (const unsigned int lostBits : {16U, 32U}) {
    if (lostBits >= std::numeric_limits<std::size_t>::digits) continue;
    const std::vector<byte_t> row = {12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::size_t length = row.size() + (std::size_t{1} << lostBits);
    const RowFault expected = fault(RowFaultKind::trailingBytes, row.size());
    EXPECT_EQ(checkRow<Numbers>(row.data(), length), expected);
    EXPECT_EQ(checkRow(row.data(), length, Numbers::info), expected);
  }
}

// No row class declares arrays of nested rows; a layout made by hand may, as the row format does.
const ColumnInfo rowsColumns[] = {{"rows", structType_, 8, 4, true, &InnerLayout::info}};
const LayoutInfo rowsLayout = {1, 12, rowsColumns};
constexpr std::size_t rowsArray = 12;
constexpr len_t firstOfRows = 2 + 2 * 4;  // in the array

std::vector<byte_t> nestedRow() {
  TableRow<InnerLayout> inner;
  inner.create();
  inner.set<"text">("deep");
  return bytesOf(inner);
}

/// A row with an array of `nested` and of its first `lastLength` bytes.
std::vector<byte_t> arrayOfNestedRows(const std::vector<byte_t>& nested, len_t lastLength) {
  const auto last = static_cast<len_t>(firstOfRows + nested.size());
  const auto length = static_cast<len_t>(last + lastLength);
  std::vector<byte_t> bytes(rowsArray + length);
  std::copy_n(nested.data(), nested.size(), bytes.data() + rowsArray + firstOfRows);
  std::copy_n(nested.data(), lastLength, bytes.data() + rowsArray + last);
  storeField<len_t>(bytes.data(), static_cast<len_t>(bytes.size()));
  VColType::at(bytes.data(), 8).valueIs(rowsArray, length, true);
  storeField<std::uint16_t>(bytes.data() + rowsArray, 0x1002);
  VColType::at(bytes.data(), rowsArray + 2)
      .valueIs(firstOfRows, static_cast<len_t>(nested.size()), false);
  VColType::at(bytes.data(), rowsArray + 6).valueIs(last, lastLength, false);
  return bytes;
}

TEST(RowCheck, ChecksTheElementsOfAnArrayOfNestedRows) {
  const std::vector<byte_t> nested = nestedRow();
  const auto size = static_cast<len_t>(nested.size());
  const std::vector<byte_t> good = arrayOfNestedRows(nested, size);
  EXPECT_EQ(checkRow(good.data(), good.size(), rowsLayout), RowFault());

  constexpr std::size_t first = rowsArray + firstOfRows;
  for (const std::size_t element : {first, first + size}) {
    std::vector<byte_t> bytes = good;
    bytes[element] = static_cast<byte_t>(bytes[element] + 1);
    EXPECT_EQ(checkRow(bytes.data(), bytes.size(), rowsLayout),
              fault(RowFaultKind::nestedLength, element));
    bytes = good;
    const std::size_t slot = element + InnerLayout::offset<"text">;
    VColType::at(bytes.data(), slot).valueIs(size, 1, false);
    EXPECT_EQ(checkRow(bytes.data(), bytes.size(), rowsLayout),
              fault(RowFaultKind::valueBeyondRow, slot));
  }
}

// Even an empty nested row has a header. An element that is only the place where one would begin
// reads as a row there, possibly at the row's very end.
TEST(RowCheck, RefusesAnArrayElementWithoutANestedRow) {
  const std::vector<byte_t> nested = nestedRow();
  for (len_t left = 0; left < nested.size(); ++left) {
    const std::vector<byte_t> bytes = arrayOfNestedRows(nested, left);
    EXPECT_EQ(checkRow(bytes.data(), bytes.size(), rowsLayout),
              fault(RowFaultKind::nestedLength, bytes.size() - left))
        << left;
  }
}

TEST(RowCheck, ArraysOfNestedRowsHaveJson) {
  const std::vector<byte_t> nested = nestedRow();
  const std::vector<byte_t> bytes = arrayOfNestedRows(nested, static_cast<len_t>(nested.size()));
  const std::unique_ptr<byte_t[]> block(new byte_t[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), block.get());
  ASSERT_EQ(checkRow(block.get(), bytes.size(), rowsLayout), RowFault());
  EXPECT_EQ(detail::rowAsJson(SubRowReference(block.get()), rowsLayout),
            R"({"rows":[{"text":"deep","net":null},{"text":"deep","net":null}]})");

  std::vector<byte_t> empty(12);
  storeField<len_t>(empty.data(), 12);
  EXPECT_EQ(detail::rowAsJson(SubRowReference(empty.data()), rowsLayout), R"({"rows":[]})");
}

extern const LayoutInfo endlessArrays;
const ColumnInfo endlessArrayColumns[] = {{"next", structType_, 8, 4, true, &endlessArrays}};
const LayoutInfo endlessArrays = {1, 12, endlessArrayColumns};

TEST(RowCheck, OneBudgetLimitsTheNestingInArraysToo) {
  std::vector<byte_t> row(12, 0);
  row[0] = 12;
  row[2] = 1;  // the layout's row type
  for (unsigned int depth = 0; depth <= maxRowNesting + 1; ++depth) {
    EXPECT_EQ(checkRow(row.data(), row.size(), endlessArrays),
              depth <= maxRowNesting ? RowFault()
                                     : fault(RowFaultKind::nestedTooDeep, 18 * (maxRowNesting + 1)))
        << depth;
    std::vector<byte_t> outer(18, 0);
    outer.insert(outer.end(), row.begin(), row.end());
    storeField<len_t>(outer.data(), static_cast<len_t>(outer.size()));
    outer[2] = 1;
    VColType::at(outer.data(), 8).valueIs(12, static_cast<len_t>(row.size() + 6), true);
    storeField<std::uint16_t>(outer.data() + 12, 0x1001);
    VColType::at(outer.data(), 14).valueIs(6, static_cast<len_t>(row.size()), false);
    row = outer;
  }
}
TEST(RowCheck, ReadsNothingOutsideWhileTheBytesChange) {
  // The row ends where a page ends, and the next page may not be touched.
  const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const pages =
      mmap(nullptr, 2 * pageSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  byte_t* const end = static_cast<byte_t*>(pages) + pageSize;
  ASSERT_EQ(mprotect(end, pageSize, PROT_NONE), 0);
  const std::vector<byte_t> good = bytesOf(fullRow());
  const std::size_t length = good.size();
  byte_t* const row = end - length;
  std::copy(good.begin(), good.end(), row);

  const pid_t parent = getpid();
  const pid_t writer = fork();
  ASSERT_NE(writer, -1);
  if (writer == 0) {  // changes slots and array headers to and fro until it is stopped
    std::mt19937 random(7);
    volatile byte_t* const shared = row;
    while (getppid() == parent) {
      for (int i = 0; i < 1000; ++i) {
        const std::size_t at = 8 + random() % (length - 8);
        shared[at] = static_cast<byte_t>(random());
        shared[at] = good[at];
      }
    }
    _exit(0);
  }
  int passed = 0;
  int refused = 0;
  const auto begin = std::chrono::steady_clock::now();
  const auto runsFor = [&](std::chrono::milliseconds time) {
    return std::chrono::steady_clock::now() - begin < time;
  };
  while (runsFor(std::chrono::milliseconds(300)) ||
         ((passed == 0 || refused == 0) && runsFor(std::chrono::seconds(30)))) {
    for (int i = 0; i < 100; ++i) {
      ++(checkRow(row, length, Layout::info, PrefixRule::noHostBits) ? refused : passed);
    }
  }
  kill(writer, SIGKILL);
  waitpid(writer, nullptr, 0);
  munmap(pages, 2 * pageSize);
  EXPECT_GT(passed, 0);
  EXPECT_GT(refused, 0);
}

TEST(RowCheck, PassesTheLargestRow) {
  Row row;
  row.create();
  row.set<"text">(std::string(32767, 'x'));
  row.set<"texts">({std::string(65535 - 32767 - base - 6, 'y')});
  ASSERT_EQ(row.rowLength(), 65535);
  EXPECT_EQ(check(bytesOf(row)), RowFault());
}

TEST(RowCheck, TellsEachFaultInOneLine) {
  EXPECT_EQ(RowFault().text(), "no fault");
  EXPECT_EQ(fault(RowFaultKind::overlap, 40).text(), "two values share a byte (at byte 40)");
  std::vector<std::string> texts;
  for (int kind = 0; kind <= static_cast<int>(RowFaultKind::nestedTooDeep); ++kind) {
    const std::string text = fault(static_cast<RowFaultKind>(kind), 7).text();
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.find("unknown"), std::string::npos);
    EXPECT_EQ(std::count(texts.begin(), texts.end(), text), 0) << text;
    texts.push_back(text);
  }
}

/// Calls every reader on a row that passed; a sanitizer watches.
void readEverything(const Row& row) {
  std::ostringstream out;
  out << row << row.toString() << row.toJson();
  const auto refs = [&](const auto& r) {
    out << r.template view<"text">() << FMT<StringValueReference>(r.template view<"text">());
    out << r.template view<"net">();
    out << r.template hash<"text">() << r.template hash<"net">();
    out << r.template equal<"text">(r) << r.template less<"text">(r);
    if (r.template view<"net">().af() != unknown_) out << r.template less<"net">(r);
  };
  refs(row);
  if (!row.view<"inner">().isNull()) refs(row.view<"inner">());
  out << row.view<"addr">() << row.hash<"addr">() << row.get<"addr">() << row.get<"text">();
  for (const auto& text : row.get<"texts">()) out << text;
  for (const auto& text : row.view<"texts">()) out << text;
  for (const auto& addr : row.get<"addrs">()) out << addr;
  for (const auto& addr : row.view<"addrs">()) out << addr;
  for (const auto& addr : row.arrayReference<IpGenAddr>(Layout::offset<"addrs">)) out << addr;
  for (const auto& net : row.view<"nets">()) out << net;
  for (const bool flag : row.get<"flags">()) out << flag;
  for (const std::function<void()>& mayThrow : std::vector<std::function<void()>>{
           [&] { out << row.get<"net">(); }, [&] { row.get<"nets">(); },
           [&] {
             for (const auto& net : row.arrayReference<IpGenPrefix>(Layout::offset<"nets">)) {
               out << net;
             }
           }}) {
    try {
      mayThrow();
    } catch (const KoOutOfRange&) {
    }
  }
}

/// Calls the writers on a row that passed; what they make passes again.
void writeEverything(Row row) {
  row.set<"text">("a longer text than before");
  row.set<"addrs">({v4(9)});
  row.copyVarColumn(Layout::offset<"texts">, row, Layout::offset<"texts">, base);
  row.compactVariableData(base);
  row.set<"inner">(TableRow<InnerLayout>([] {
    TableRow<InnerLayout> inner;
    inner.create();
    return inner;
  }()));
  EXPECT_EQ(check(bytesOf(row)), RowFault());
  readEverything(row);
}

TEST(RowCheck, EveryFlippedBitIsRefusedOrHarmless) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  int passed = 0;
  for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::vector<byte_t> bytes = good;
    bytes[bit / 8] ^= static_cast<byte_t>(1 << bit % 8);
    if (check(bytes)) continue;
    ++passed;
    Row row;
    try {
      row.adopt(bytes.data(), bytes.size());
    } catch (const KoInvalidArgument&) {  // another row type
      continue;
    }
    readEverything(row);
    writeEverything(row);
  }
  EXPECT_GT(passed, 100);  // the bytes of values
}

TEST(RowCheck, RandomDamageIsRefusedOrHarmless) {
  const std::vector<byte_t> good = bytesOf(fullRow());
  std::mt19937 random(20240117);
  const auto below = [&](std::size_t n) { return random() % n; };
  int passed = 0;
  for (int round = 0; round < 20000; ++round) {
    std::vector<byte_t> bytes = good;
    for (std::size_t changes = 1 + below(4); changes != 0; --changes) {
      // Mostly where the structure is: the slots and the arrays' headers.
      const std::size_t at = below(3) == 0 ? below(bytes.size()) : 12 + below(base - 12);
      bytes[at] = static_cast<byte_t>(below(2) == 0 ? random() : bytes[at] + below(5) - 2);
    }
    if (check(bytes)) continue;
    ++passed;
    Row row;
    try {
      row.adopt(bytes.data(), bytes.size());
    } catch (const KoInvalidArgument&) {
      continue;
    }
    readEverything(row);
    writeEverything(row);
  }
  EXPECT_GT(passed, 100);
}

}  // namespace
