// Rows of a declared layout take shorter ways than other rows: they write without virtual calls,
// sort by order keys, and are checked by a quick look first. Each is compared here with the long
// way.

#include <Korvo/TableRow.h>
#include <Korvo/rowCheck.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace {

using namespace Korvo;

using InnerLayout = RowLayout<2, Column<"number", std::uint32_t>, Column<"name", std::string>>;
using Inner = TableRow<InnerLayout>;
using Layout =
    RowLayout<1, Column<"flag", bool>, Column<"a", std::string>, Column<"addr", IpGenAddr>,
              Column<"count", std::uint16_t>, Column<"net", IpGenPrefix>,
              Column<"names", std::vector<std::string>>, Column<"flags", std::vector<bool>>,
              Column<"inner", Nested<InnerLayout>>, Column<"b", std::string>>;
using Row = TableRow<Layout>;

/// The same columns, known at run time only.
class HandRow : public BaseRow {
 public:
  void create(oid_t oid) { installNew(Layout::baseLength, Layout::rowType, oid); }
  vcdType& vcd() const override {
    static vcdType slots(Layout::slots.begin(), Layout::slots.end());
    return slots;
  }
  bool isFullyDefined() const override { return true; }
};

std::vector<byte_t> bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

TEST(TableRowPaths, WritesLeaveTheBytesThatAnyRowsWritesLeave) {
  constexpr len_t base = Layout::baseLength;
  for (unsigned int seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned int limit) {
      return static_cast<unsigned int>(random() % limit);
    };
    const auto text = [&] { return std::string(below(4) == 0 ? 0 : below(70), 'x'); };
    Row row, rowTwin;
    HandRow hand, handTwin;
    row.create(7);
    hand.create(7);
    for (int step = 0; step < 150; ++step) {
      switch (below(12)) {
        case 0:
          row.set<"flag">(step % 2 == 0);
          hand.setFixedColumn(Layout::offset<"flag">, step % 2 == 0);
          break;
        case 1:
        case 2: {
          const std::string value = text();
          row.set<"a">(value);
          hand.setColumn(Layout::offset<"a">, value, base);
          break;
        }
        case 3:
        case 4: {
          const std::string value = text();
          row.set<"b">(value);
          hand.setColumn(Layout::offset<"b">, value, base);
          break;
        }
        case 5: {
          const IpGenAddr value = below(3) == 0   ? IpGenAddr()
                                  : below(2) == 0 ? IpGenAddr("10.1.2.3")
                                                  : IpGenAddr("2001:db8::1");
          row.set<"addr">(value);
          hand.setColumn(Layout::offset<"addr">, value, base);
          break;
        }
        case 6: {
          const IpGenPrefix value =
              below(2) == 0 ? IpGenPrefix("10.1.0.0/16") : IpGenPrefix("2001:db8::/32");
          row.set<"net">(value);
          hand.setColumn(Layout::offset<"net">, value, base);
          break;
        }
        case 7: {
          std::vector<std::string> value;
          for (unsigned int i = below(4); i != 0; --i) value.push_back(text());
          row.set<"names">(value);
          hand.setColumn(Layout::offset<"names">, value, base);
          break;
        }
        case 8: {
          const std::vector<bool> value(below(20), true);
          row.set<"flags">(value);
          hand.updateFixElemArray(Layout::offset<"flags">, base, value);
          break;
        }
        case 9: {
          Inner inner;
          inner.create();
          inner.set<"name">(text());
          row.set<"inner">(inner);
          hand.setColumn(Layout::offset<"inner">, SubRowReference(inner.rowBuf()), base);
          break;
        }
        case 10:  // a value that refers into the row, in place and where it has to move
          row.set<"b">(row.view<"a">());
          {
            StringValueReference own;
            hand.getColumn(Layout::offset<"a">, own);
            hand.setColumn(Layout::offset<"b">, own, base);
          }
          break;
        default:
          if (below(8) == 0) {
            row.clearRow();
            hand.clearRow();
          }
          rowTwin = row;
          handTwin = hand;
      }
      ASSERT_EQ(bytesOf(row), bytesOf(hand)) << "step " << step;
      ASSERT_EQ(rowTwin.isNull(), handTwin.isNull());
      if (rowTwin.isNull()) continue;
      ASSERT_EQ(bytesOf(rowTwin), bytesOf(handTwin)) << "step " << step;
    }
  }
}

TEST(TableRowPaths, LongestValueAndRow) {
  Row row;
  row.create();
  row.set<"a">(std::string(32767, 'a'));
  const std::vector<byte_t> before = bytesOf(row);
  EXPECT_THROW(row.set<"b">(std::string(32768, 'b')), KoOutOfRange);
  EXPECT_THROW(row.set<"names">(std::vector<std::string>(2, std::string(16384, 'b'))),
               KoOutOfRange);
  EXPECT_EQ(bytesOf(row), before);
  const std::size_t left = 65535 - before.size();
  EXPECT_LT(left, 32768U);
  EXPECT_THROW(row.set<"b">(std::string(left + 1, 'b')), KoOutOfRange);
  EXPECT_EQ(bytesOf(row), before);
  row.set<"b">(std::string(left, 'b'));
  EXPECT_EQ(row.rowLength(), 65535);
}

TEST(TableRowPaths, RoomFromTheStart) {
  Row grown;
  grown.create(9);
  Row sized;
  sized.create(9, 3 + 5);
  EXPECT_EQ(sized.rowLength(), Layout::baseLength + 8);
  const byte_t* const buffer = sized.rowBuf();
  for (Row* row : {&grown, &sized}) {
    row->set<"a">("abc");
    row->set<"net">(IpGenPrefix("10.0.0.0/8"));
  }
  EXPECT_EQ(bytesOf(sized), bytesOf(grown));
  EXPECT_EQ(sized.rowBuf(), buffer);

  EXPECT_THROW(sized.create(1, 65536 - Layout::baseLength), KoOutOfRange);
  EXPECT_EQ(bytesOf(sized), bytesOf(grown)) << "as before";
  sized.create(1, 65535 - Layout::baseLength);
  EXPECT_EQ(sized.rowLength(), 65535);
  EXPECT_EQ(sized.get<"a">(), "");
}

// ---------------------------------------------------------------------------------------------
// Order keys

/// The key decides where it differs; where it does not, `exact` values are of one rank.
template <typename Reference>
void expectKeysOrder(const std::vector<Reference>& values, bool exact) {
  for (const Reference& a : values) {
    for (const Reference& b : values) {
      if (a.orderKey() < b.orderKey()) {
        ASSERT_TRUE(a < b);
        ASSERT_FALSE(b < a);
      } else if (exact && a.orderKey() == b.orderKey()) {
        ASSERT_FALSE(a < b);
      }
    }
  }
}

TEST(OrderKey, Strings) {
  std::vector<std::string> texts = {"", "aaaaaaa", "aaaaaaaa", "aaaaaaaaa", "aaaaaaab", "\xff\xff"};
  std::string all;
  for (const char first : {'\0', '\1', 'a', '\x7f', '\x80', '\xff'}) {
    for (const char second : {'\0', '\1', 'a', '\x7f', '\x80', '\xff'}) {
      texts.push_back({first});
      texts.push_back({first, second});
      texts.push_back({'s', 'e', 'v', 'e', 'n', ' ', first, second, second});
    }
  }
  std::vector<StringValueReference> values;
  for (const std::string& text : texts) {
    values.emplace_back(text.data(), static_cast<len_t>(text.size()));
  }
  expectKeysOrder(values, false);
  EXPECT_EQ(StringValueReference().orderKey(), 0U);
  EXPECT_EQ(StringValueReference("abcdefghi", 9).orderKey(), 0x6162636465666768U);
}

TEST(OrderKey, Addresses) {
  const byte_t bytes[][16] = {{0},
                              {0, 0, 0, 1},
                              {10, 1, 2, 3},
                              {10, 1, 2, 4, 9},
                              {0x7f, 0xff, 0xff, 0xff},
                              {0x80},
                              {0xff, 0xff, 0xff, 0xff},
                              {0x20, 1, 0xd, 0xb8, 0, 0, 0, 4},
                              {0x20, 1, 0xd, 0xb8, 0, 0, 0, 3}};
  std::vector<IpGenAddrReference> v4, all = {IpGenAddrReference()};
  for (const auto& address : bytes) {
    v4.emplace_back(address, ipv4_);
    all.emplace_back(address, ipv4_);
    all.emplace_back(address, ipv6_);
    all.emplace_back(address, unknown_);
  }
  expectKeysOrder(v4, true);
  expectKeysOrder(all, false);
}

TEST(OrderKey, PrefixesOfEveryLengthWithHostBits) {
  const byte_t bytes[][16] = {{0},
                              {0, 0, 0, 1},
                              {10, 1, 2, 3},
                              {10, 1, 2, 2},
                              {10, 1, 0x82, 3},
                              {0x7f, 0xff, 0xff, 0xff},
                              {0x80},
                              {0xff, 0xff, 0xff, 0xff}};
  std::vector<IpGenPrefixReference> prefixes;
  for (const auto& address : bytes) {
    for (unsigned int length = 0; length < 256; length += length < 40 ? 1 : 43) {
      prefixes.emplace_back(address, ipv4_, static_cast<byte_t>(length));
    }
  }
  expectKeysOrder(prefixes, true);

  std::mt19937 random(1);
  byte_t long6[12][16] = {};
  for (auto& address : long6) {
    for (std::size_t i = 0; i < 16; i += 1 + random() % 4) {
      address[i] = static_cast<byte_t>(random());
    }
    if (random() % 2 == 0) std::copy_n(long6[0], 6 + random() % 4, address);
  }
  prefixes.resize(20);
  for (const auto& address : long6) {
    for (unsigned int length = 0; length < 256; length += length < 130 ? 1 : 25) {
      prefixes.emplace_back(address, ipv6_, static_cast<byte_t>(length));
    }
  }
  expectKeysOrder(prefixes, false);
}

TEST(SortRows, GivesTheOrderOfLess) {
  std::mt19937 random(3);
  std::vector<Row> rows;
  for (unsigned int i = 0; i < 500; ++i) {
    Row& row = rows.emplace_back();
    row.create(i);
    row.set<"a">(std::string(random() % 3 == 0 ? 4 : 9, static_cast<char>('a' + random() % 4)) +
                 std::to_string(random() % 10));
    IpGenPrefix net(IpAddr(static_cast<std::uint32_t>(random())),
                    static_cast<unsigned int>(random() % 33));
    net.clearLowerAddrBits();
    row.set<"net">(net);
  }
  const auto oids = [&] {
    std::vector<oid_t> all;
    for (const Row& row : rows) all.push_back(row.rowOid());
    std::sort(all.begin(), all.end());
    return all;
  };
  const std::vector<oid_t> before = oids();
  sortRows<"a">(std::span(rows));
  EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(),
                             [](const Row& a, const Row& b) { return a.less<"a">(b); }));
  EXPECT_EQ(rows[0].orderKey<"a">(),
            rows[0].columnOrderKey<StringValueReference>(Layout::offset<"a">));
  sortRows<"net">(std::span(rows));
  EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(),
                             [](const Row& a, const Row& b) { return a.less<"net">(b); }));
  EXPECT_EQ(oids(), before);
  sortRows<"a">(std::span<Row>());

  const oid_t first = rows[0].rowOid();
  rows.emplace_back();
  EXPECT_THROW(sortRows<"a">(std::span(rows)), KoNullRow);
  EXPECT_EQ(rows[0].rowOid(), first);
  EXPECT_TRUE(rows.back().isNull());
}

// ---------------------------------------------------------------------------------------------
// Checking

/// With its columns backwards no row of several values is as writers leave it, so that such a
/// layout always takes the full check.
TEST(CheckRow, QuickLookPassesWhatTheFullCheckPasses) {
  Inner inner;
  inner.create();
  inner.set<"name">("nested");
  Row row;
  row.create(3);
  row.set<"net">(IpGenPrefix("10.0.0.0/8"));
  row.set<"a">("first");
  row.set<"addr">(IpGenAddr("10.1.2.3"));
  row.set<"names">(std::vector<std::string>{"one", "", "three"});
  row.set<"flags">(std::vector<bool>{true});
  row.set<"inner">(inner);
  row.set<"b">("last");
  const std::vector<byte_t> outOfOrder = bytesOf(row);

  Row inOrder;
  inOrder.create(3);
  inOrder.set<"a">("first");
  inOrder.set<"addr">(IpGenAddr("10.1.2.3"));
  inOrder.set<"net">(IpGenPrefix("10.0.0.0/8"));
  inOrder.set<"names">(std::vector<std::string>{"one", "", "three"});
  inOrder.set<"flags">(std::vector<bool>{true});
  inOrder.set<"inner">(inner);
  inOrder.set<"b">("last");

  auto columns = Layout::columns;
  std::reverse(columns.begin(), columns.end());
  const LayoutInfo backwards = {Layout::rowType, Layout::baseLength, columns};

  for (const std::vector<byte_t>& sound : {outOfOrder, bytesOf(inOrder)}) {
    ASSERT_FALSE(checkRow<Layout>(sound.data(), sound.size(), PrefixRule::noHostBits));
    unsigned int refused = 0;
    unsigned int hostBits = 0;
    const auto expectSame = [&](const std::vector<byte_t>& bytes) {
      for (const RowRule rule : {RowRule::anyBits, RowRule::noHostBits, RowRule::withFamily,
                                 RowRule::wholeArrays, RowRule::forIndex}) {
        const RowFault quick = checkRow(bytes.data(), bytes.size(), Layout::info, rule);
        const RowFault declared = checkRow<Layout>(bytes.data(), bytes.size(), rule);
        const RowFault full = checkRow(bytes.data(), bytes.size(), backwards, rule);
        ASSERT_EQ(quick, declared) << quick.text() << " / " << declared.text();
        ASSERT_EQ(!quick, !full) << quick.text() << " / " << full.text();
        refused += quick ? 1U : 0U;
        hostBits += quick.kind == RowFaultKind::hostBits ? 1U : 0U;
      }
    };
    for (std::size_t at = 0; at < sound.size(); ++at) {
      for (int bit = 0; bit < 8; ++bit) {
        std::vector<byte_t> bytes = sound;
        bytes[at] = static_cast<byte_t>(bytes[at] ^ 1 << bit);
        expectSame(bytes);
      }
    }
    std::mt19937 random(5);
    for (int i = 0; i < 20000; ++i) {
      std::vector<byte_t> bytes = sound;
      for (std::size_t n = 1 + random() % 3; n != 0; --n) {
        const std::size_t at = random() % sound.size();
        bytes[at] = static_cast<byte_t>(random() % 2 == 0 ? random() : bytes[at] + 1);
      }
      expectSame(bytes);
    }
    EXPECT_GT(refused, 100U);
    EXPECT_GT(hostBits, 10U);
  }
}

}  // namespace
