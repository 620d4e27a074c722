// Packed rows: what comes out is what went in, byte for byte.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "packedRows.h"
#include "rowSource.h"

namespace {

using namespace netdb;
using Korvo::byte_t;

using Bytes = std::vector<byte_t>;

constexpr std::size_t blockLength = 32;

Bytes bytesOf(const Korvo::BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

/// A row of the table by its header; the rest is whatever is given.
PrefixRow rowOf(std::size_t length, const std::function<byte_t(std::size_t)>& byteAt) {
  Bytes bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = byteAt(i);
  Korvo::storeField(bytes.data() + Korvo::rowLengthOffset, static_cast<Korvo::len_t>(length));
  Korvo::storeField(bytes.data() + Korvo::rowTypeOffset, PrefixLayout::rowType);
  PrefixRow row;
  row.adopt(bytes.data(), bytes.size());
  return row;
}

PrefixRow rowOf(std::size_t length, byte_t byte) {
  return rowOf(length, [byte](std::size_t) { return byte; });
}

PrefixRow prefixRow(unsigned int number) {
  return makeRow(Korvo::IpGenPrefix("10.0.0.0/8"), "AU", "file", number, number);
}

/// Packs the rows, reads them in every way there is, and gives them back for more.
PackedRows expectSame(const std::vector<PrefixRow>& rows) {
  PackedRows packed;
  for (const PrefixRow& row : rows) packed.add(row);
  EXPECT_EQ(packed.size(), rows.size());
  EXPECT_EQ(packed.empty(), rows.empty());
  std::size_t number = 0;
  for (const PrefixView view : packed) {
    EXPECT_EQ(bytesOf(view), bytesOf(rows.at(number))) << number;
    ++number;
  }
  EXPECT_EQ(number, rows.size());
  for (PackedRows::RowNumber i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(bytesOf(packed[i]), bytesOf(rows[i])) << i;
    EXPECT_EQ(packed.from(i).number(), i);
  }
  EXPECT_TRUE(packed.from(static_cast<PackedRows::RowNumber>(rows.size())) == packed.end());
  EXPECT_TRUE(packed.from(0xFFFFFFFF) == packed.end());
  return packed;
}

TEST(PackedRows, OfNothingAreEmpty) {
  const PackedRows none = expectSame({});
  EXPECT_TRUE(none.begin() == none.end());
  EXPECT_TRUE(none.partitionPoint([](const PrefixView&) { return true; }) == none.end());
}

TEST(PackedRows, RefuseANullRow) {
  PackedRows packed = expectSame({rowOf(100, byte_t{1})});
  EXPECT_THROW(packed.add(PrefixRow()), Korvo::KoNullRow);
  EXPECT_EQ(packed.size(), 1U);
  packed.add(rowOf(100, byte_t{2}));
  EXPECT_EQ(bytesOf(packed[1]), bytesOf(rowOf(100, byte_t{2})));
}

TEST(PackedRows, AtTheEdgesOfBlocks) {
  for (const unsigned int count : {1U, 31U, 32U, 33U, 63U, 64U, 65U, 96U}) {
    std::vector<PrefixRow> rows;
    for (unsigned int i = 0; i < count; ++i) rows.push_back(prefixRow(i));
    expectSame(rows);
  }
}

TEST(PackedRows, ThatAreEqual) {
  for (const std::size_t length :
       {std::size_t{PrefixLayout::baseLength}, std::size_t{111}, Korvo::maxRowLength}) {
    expectSame(std::vector<PrefixRow>(blockLength + 2, rowOf(length, byte_t{7})));
  }
}

TEST(PackedRows, WithoutAnEqualByteBehindTheirHeaders) {
  for (const std::size_t length :
       {std::size_t{PrefixLayout::baseLength}, std::size_t{111}, Korvo::maxRowLength}) {
    std::vector<PrefixRow> rows;
    for (unsigned int i = 0; i < blockLength + 2; ++i) {
      rows.push_back(rowOf(length, static_cast<byte_t>(i)));
    }
    expectSame(rows);
  }
}

TEST(PackedRows, OfChangingLength) {
  std::mt19937 random(3);
  std::vector<PrefixRow> rows;
  for (unsigned int i = 0; i < 4 * blockLength; ++i) {
    rows.push_back(rowOf(PrefixLayout::baseLength + random() % 3, static_cast<byte_t>(random())));
  }
  expectSame(rows);
}

/// Runs of equal and of different bytes of every length up to 40, the first run of either kind.
TEST(PackedRows, WithRunsOfEveryLength) {
  std::vector<PrefixRow> rows;
  for (std::size_t run = 1; run <= 40; ++run) {
    rows.push_back(rowOf(200, byte_t{0}));
    for (const unsigned int start : {0U, 1U}) {
      rows.push_back(rowOf(200, [&](std::size_t i) { return byte_t{(i / run + start) % 2 != 0}; }));
    }
  }
  expectSame(rows);
}

TEST(PackedRows, OfRandomBytes) {
  std::mt19937 random(4);
  std::vector<PrefixRow> rows;
  Bytes bytes(150);
  for (int i = 0; i < 1000; ++i) {
    for (auto changes = random() % 60; changes != 0; --changes) {
      bytes[random() % bytes.size()] = static_cast<byte_t>(random());
    }
    const std::size_t length = random() % 8 == 0 ? 120 + random() % 30 : bytes.size();
    rows.push_back(rowOf(length, [&](std::size_t at) { return bytes[at]; }));
  }
  expectSame(rows);
}

TEST(PackedRows, GiveCopiesThatStayAsTheyAre) {
  PackedRows packed;
  packed.add(rowOf(100, byte_t{1}));
  packed.add(rowOf(100, byte_t{2}));
  PackedRows::Iterator at = packed.begin();
  const PrefixRow first = at.row();
  ++at;
  EXPECT_EQ(bytesOf(first), bytesOf(rowOf(100, byte_t{1})));
  EXPECT_EQ(bytesOf(*at), bytesOf(rowOf(100, byte_t{2})));
}

TEST(PackedRows, PartitionPointIsTheFirstRowThatIsNotBefore) {
  for (const unsigned int count : {1U, 31U, 32U, 33U, 64U, 100U}) {
    PackedRows packed;
    for (unsigned int i = 0; i < count; ++i) {
      packed.add(prefixRow(i));
    }
    for (unsigned int wanted = 0; wanted <= count; ++wanted) {
      const auto found =
          packed.partitionPoint([&](const PrefixView& row) { return row.view<"line">() < wanted; });
      ASSERT_EQ(found == packed.end(), wanted == count) << count;
      if (wanted == count) continue;
      ASSERT_EQ(found.number(), wanted) << count;
      ASSERT_EQ((*found).rowOid(), wanted) << count;
    }
  }
}

}  // namespace
