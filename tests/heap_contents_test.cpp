// Nothing of the heap's old contents gets into a row: the same operations give the same bytes,
// whatever the allocator hands out. A row is sent to other processes as it is, gaps included.

#include "failing_allocator.h"

#if KORVO_FAILING_ALLOCATOR

#include <Korvo/TableRow.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Korvo;
using Bytes = std::vector<byte_t>;

constexpr len_t base = 29;
constexpr len_t slots[] = {9, 17, 13, 25, 21};

/// A row with five variable columns, append-only or fully defined.
class TestRow : public BaseRow {
 public:
  explicit TestRow(bool fullyDefined) : fullyDefined_(fullyDefined) { installNew(base, 3, 4); }
  vcdType& vcd() const override {
    static vcdType all(std::begin(slots), std::end(slots));
    return all;
  }
  len_t baseRowLength() override { return base; }
  bool isFullyDefined() const override { return fullyDefined_; }
  void adopt(const Bytes& bytes) { installCopy(bytes.data(), bytes.size(), base, 3); }

 private:
  bool fullyDefined_;
};

Bytes bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

/// What `scenario` gives, the heap being filled with `fill` before and after each use.
template <typename Scenario>
auto underFill(int fill, const Scenario& scenario) {
  const alloctest::FillScope scope(fill);
  return scenario();
}

constexpr int fills[] = {0x00, 0xFF, 0xA5, 0x5A};

TEST(HeapContents, TheFillReachesTheLibrary) {
  // Without this, the tests below would hold for nothing: a block from the heap is filled, one that
  // is resized moves, and so does the row's.
  const alloctest::FillScope scope(0xA5);
  // Volatile, since a compiler may make up what nobody wrote.
  auto* const block = static_cast<volatile byte_t*>(std::malloc(100));
  EXPECT_EQ(block[0], 0xA5);
  EXPECT_EQ(block[99], 0xA5);
  block[0] = 1;
  auto* const moved = static_cast<volatile byte_t*>(std::realloc(const_cast<byte_t*>(block), 200));
  EXPECT_EQ(moved[0], 1);
  EXPECT_EQ(moved[199], 0xA5);
  std::free(const_cast<byte_t*>(moved));

  TestRow row(true);
  const byte_t* const before = row.rowBuf();
  row.makeFreeSpace(9, 10, base);
  EXPECT_NE(row.rowBuf(), before);
}

TEST(HeapContents, GrownBytesAreZero) {
  for (const int fill : fills) {
    for (const bool fullyDefined : {false, true}) {
      const alloctest::FillScope scope(fill);
      TestRow row(fullyDefined);
      for (const len_t needed : {len_t{1}, len_t{7}, len_t{100}, len_t{5000}, len_t{32767}}) {
        const len_t before = row.rowLength();
        const len_t offset = row.makeFreeSpace(9, needed, base);
        const Bytes bytes = bytesOf(row);
        EXPECT_GE(bytes.size(), offset + std::size_t{needed});
        for (std::size_t i = before; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0) << i;
      }
    }
  }
}

TEST(HeapContents, NewRowsAreZero) {
  for (const int fill : fills) {
    const alloctest::FillScope scope(fill);
    EXPECT_EQ(bytesOf(TestRow(true)), [] {
      Bytes bytes(base);
      bytes[0] = base;
      bytes[2] = 3;
      bytes[4] = 4;
      return bytes;
    }());
  }
}

TEST(HeapContents, TheFreeBitsOfAFreshArrayHeaderAreZero) {
  for (const int fill : fills) {
    const alloctest::FillScope scope(fill);
    TestRow row(false);
    row.setColumn(9, std::vector<std::string>{"a"}, base);
    EXPECT_EQ(row.rowBuf()[base], 1);
    EXPECT_EQ(row.rowBuf()[base + 1], 0x10);
    const len_t next = row.rowLength();
    row.updateFixElemArray(13, base, std::vector<bool>(300, true));
    EXPECT_EQ(row.rowBuf()[next], 300 % 256);
    EXPECT_EQ(row.rowBuf()[next + 1], 1);
  }
}

/// Random operations on a few rows that share buffers; the bytes of all rows after each of them.
class Scenario {
 public:
  explicit Scenario(unsigned seed, bool fullyDefined)
      : random_(seed), rows_(3, TestRow(fullyDefined)) {}

  std::vector<Bytes> run(int steps) {
    std::vector<Bytes> all;
    for (int i = 0; i < steps; ++i) {
      step();
      for (const TestRow& row : rows_) all.push_back(bytesOf(row));
    }
    return all;
  }

 private:
  std::size_t below(std::size_t bound) { return random_() % bound; }
  std::string text() {
    const std::size_t length = below(12) == 0 ? below(2000) : below(30);
    return std::string(length, static_cast<char>('a' + below(26)));
  }
  template <typename T>
  std::vector<T> array(const std::function<T()>& element) {
    std::vector<T> values;
    for (std::size_t i = below(6); i != 0; --i) values.push_back(element());
    return values;
  }

  void step() {
    TestRow& row = rows_[below(rows_.size())];
    TestRow& other = rows_[below(rows_.size())];
    const len_t at = slots[below(5)];
    switch (below(13)) {
      case 0:
        return row.shareContents(other);
      case 1:
        return row.copyVarColumn(slots[below(5)], other, at, base);
      case 2:
        return row.setColumn(at, array<std::string>([&] { return text(); }), base);
      case 3:
        return row.setColumn(
            at, array<IpGenAddr>([&] { return below(2) == 0 ? IpGenAddr() : IpGenAddr("::1"); }),
            base);
      case 4:
        return row.updateFixElemArray(at, base, std::vector<bool>(below(40), true));
      case 5:
        row.rowOidIs(static_cast<oid_t>(below(100)));
        row.makeFreeSpace(at, static_cast<len_t>(below(100)), base);
        return;
      case 6:
        row.compactVariableData(base);
        return;
      case 7:
        if (below(4) == 0) row.clearRow();
        return;
      case 8:
        return row.adopt(bytesOf(other));
      case 9: {
        RowWriter writer(row, base);
        for (std::size_t i = below(6); i != 0; --i) {
          const len_t slot = slots[below(5)];
          if (below(3) == 0) {
            writer.setColumn(slot, array<std::string>([&] { return text(); }));
          } else {
            writer.setColumn(slot, text());
          }
        }
        return;
      }
      default:
        return row.setColumn(at, text(), base);
    }
  }

  std::mt19937 random_;
  std::vector<TestRow> rows_;
};

TEST(HeapContents, TheSameOperationsGiveTheSameBytes) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    for (const bool fullyDefined : {false, true}) {
      const auto scenario = [&] { return Scenario(seed, fullyDefined).run(60); };
      const std::vector<Bytes> expected = underFill(fills[0], scenario);
      for (const int fill : fills) {
        ASSERT_TRUE(underFill(fill, scenario) == expected) << seed << " " << fill;
      }
    }
  }
}

// A row that was not checked may claim data beyond its end. One that grows over what it claimed has
// zeros there.
TEST(HeapContents, WhatARowOnlyClaimedIsZero) {
  using Layout = RowLayout<3, Column<"a", std::string, 9>, Column<"b", std::string, 13>,
                           Column<"c", std::string, 17>, Column<"d", std::string, 21>,
                           Column<"e", std::string, 25>>;
  static_assert(Layout::baseLength == base);
  // Two columns claim the same bytes, 30 of them behind the end.
  TestRow claiming(true);
  claiming.makeFreeSpace(9, 20, base);
  VColType::at(claiming.rwRowBuf(), 9).valueIs(base, 50, false);
  VColType::at(claiming.rwRowBuf(), 13).valueIs(base, 50, false);
  const Bytes image = bytesOf(claiming);
  ASSERT_EQ(image.size(), base + 20U);
  Bytes expected = image;
  expected.resize(base + 105U);
  storeField<len_t>(expected.data(), base + 105);
  std::fill_n(expected.begin() + base + 50, 5, 'x');
  VColType::at(expected.data(), 17).valueIs(base + 50, 5, false);

  for (const int fill : fills) {
    const alloctest::FillScope scope(fill);
    TestRow row(true);
    row.adopt(image);
    row.setColumn(17, std::string("xxxxx"), base);
    EXPECT_TRUE(bytesOf(row) == expected) << fill;
    TestRow written(true);
    written.adopt(image);
    RowWriter(written, base).setColumn(17, std::string("xxxxx"));
    EXPECT_TRUE(bytesOf(written) == expected) << fill;
    TableRow<Layout> declared;
    declared.adopt(image.data(), image.size());
    declared.set<"c">("xxxxx");
    EXPECT_TRUE(bytesOf(declared) == expected) << fill;
  }
}

// Where every block that is resized moves, the end of a writer moves none that others may be
// reading.
TEST(HeapContents, TheEndOfAWriterLeavesASharedBufferWhereItIs) {
  const alloctest::FillScope scope(0xA5);
  for (const bool shared : {false, true}) {
    TestRow row(true);
    TestRow sharer(true);
    const byte_t* before = nullptr;
    {
      RowWriter writer(row, base);
      writer.setColumn(9, std::string("a text"));
      if (shared) sharer = row;
      before = row.rowBuf();
    }
    EXPECT_NE(row.rowBuf(), before);
    EXPECT_EQ(bytesOf(row).size(), base + 6U);
    if (shared) {
      EXPECT_EQ(sharer.rowBuf(), before);
      EXPECT_EQ(bytesOf(sharer), bytesOf(row));
    }
  }
}

TEST(HeapContents, WhatIsReadIsTheSameToo) {
  using Layout =
      RowLayout<1, Column<"text", std::string>, Column<"addrs", std::vector<IpGenAddr>>,
                Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>>;
  const auto scenario = [] {
    TableRow<Layout> row;
    row.create(1);
    row.set<"flags">({true, false, true});
    row.set<"nets">({IpGenPrefix("10.0.0.0/8"), IpGenPrefix()});
    // An element of length 0 at the row's very end: the bytes behind it are not the row's.
    row.set<"addrs">({IpGenAddr("10.0.0.1"), IpGenAddr()});
    std::vector<IpGenAddr> addrs = row.get<"addrs">();
    addrs.push_back(row.arrayReference<IpGenAddr>(Layout::offset<"addrs">)[1]);
    std::string text = row.toString() + row.toJson();
    for (const IpGenAddr& addr : addrs) {
      text.append(reinterpret_cast<const char*>(addr.bytes()), 16);
    }
    return text;
  };
  const std::string expected = underFill(fills[0], scenario);
  for (const int fill : fills) EXPECT_EQ(underFill(fill, scenario), expected) << fill;
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
