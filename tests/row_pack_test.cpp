// Growing and packing a row for a longer value, byte for byte: random rows, their values in any
// order, with gaps, overlapping and shared ones among them, against the rules followed one step and
// one column after another. All ways to write a value have to leave the same.

#include "allocation_failures.h"

#include <Korvo/TableRow.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Korvo;
using Bytes = std::vector<byte_t>;

template <std::size_t place>
constexpr ColumnName<3> nameOf = [] {
  const char text[3] = {static_cast<char>('A' + place / 26), static_cast<char>('a' + place % 26),
                        '\0'};
  return ColumnName<3>(text);
}();

template <typename Indices>
struct TextLayout;
template <std::size_t... place>
struct TextLayout<std::index_sequence<place...>> {
  using Type = RowLayout<4, Column<"flag", bool>, Column<nameOf<place>, std::string>...>;
};
/// `count` columns of text, the slots at odd offsets.
template <std::size_t count>
using TextsOf = typename TextLayout<std::make_index_sequence<count>>::Type;

/// Rows of a declared class.
template <std::size_t count>
class Declared : public TableRow<TextsOf<count>> {
 public:
  using Layout = TextsOf<count>;

  void setAt(std::size_t column, std::string_view text) {
    setOneOf(column, text, std::make_index_sequence<count>());
  }

 private:
  template <std::size_t... place>
  void setOneOf(std::size_t column, std::string_view text, std::index_sequence<place...>) {
    static_cast<void>(
        ((place == column && (this->template set<nameOf<place>>(text), true)) || ...));
  }
};

/// Rows of the same columns whose class is known at run time only.
template <std::size_t count>
class AtRunTime : public BaseRow {
 public:
  using Layout = TextsOf<count>;

  void adopt(const Bytes& image) {
    installCopy(image.data(), image.size(), Layout::baseLength, Layout::rowType);
  }
  vcdType& vcd() const override {
    static vcdType slots(Layout::slots.begin(), Layout::slots.end());
    return slots;
  }
  bool isFullyDefined() const override { return true; }
};

Bytes bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

// ---------------------------------------------------------------------------------------------
// The rules, on plain bytes

template <std::size_t count>
class Model {
 public:
  using Layout = TextsOf<count>;
  static constexpr std::size_t base = Layout::baseLength;

  explicit Model(Bytes bytes) : bytes_(std::move(bytes)) {}

  const Bytes& bytes() const { return bytes_; }

  void write(std::size_t column, std::string_view text) {
    const std::size_t offset = makeRoom(Layout::slots[column], text.size());
    std::copy(text.begin(), text.end(), at(offset));
    slot(Layout::slots[column])
        .valueIs(static_cast<len_t>(offset), static_cast<len_t>(text.size()), false);
  }
  std::size_t makeRoom(len_t slotOffset, std::size_t needed) {
    if (slot(slotOffset).length() != 0 && needed <= slot(slotOffset).length()) {
      return slot(slotOffset).offset();
    }
    slot(slotOffset).clear();
    std::size_t end = base;
    std::size_t used = 0;
    for (const len_t each : Layout::slots) {
      const std::size_t length = slot(each).length();
      if (length != 0) end = std::max(end, slot(each).offset() + length);
      used += length;
    }
    if (end + needed <= bytes_.size()) return end;
    if (base + used + needed >= bytes_.size()) {
      bytes_.resize(base + used + needed);
      storeField(bytes_.data(), static_cast<len_t>(bytes_.size()));
    }
    if (end + needed <= bytes_.size()) return end;
    return pack();
  }
  std::size_t pack() {
    std::map<std::size_t, len_t> slotByData;
    for (const len_t each : Layout::slots) {
      if (slot(each).offset() != 0 && slot(each).length() != 0) {
        slotByData[slot(each).offset()] = each;
      }
    }
    std::size_t position = base;
    for (const auto& [offset, each] : slotByData) {
      const len_t length = slot(each).length();
      if (offset > position) {
        const Bytes value(at(offset), at(offset + length));
        std::copy(value.begin(), value.end(), at(position));
        slot(each).valueIs(static_cast<len_t>(position), length, slot(each).isArray());
      }
      position += length;
    }
    return position;
  }

 private:
  Bytes::iterator at(std::size_t offset) {
    EXPECT_LE(offset, bytes_.size());
    return bytes_.begin() + static_cast<std::ptrdiff_t>(offset);
  }
  VColType& slot(std::size_t slotOffset) { return VColType::at(bytes_.data(), slotOffset); }

  Bytes bytes_;
};

// ---------------------------------------------------------------------------------------------
// Random rows

enum class Shape { tight, gaps, overlaps };

/// A row whose values stand in any order; no byte is like its neighbours.
template <std::size_t count>
Bytes randomRow(std::mt19937& random, Shape shape) {
  using Layout = TextsOf<count>;
  const auto below = [&](std::size_t bound) { return random() % bound; };
  std::vector<len_t> slots(Layout::slots.begin(), Layout::slots.end());
  if (below(3) != 0) std::shuffle(slots.begin(), slots.end(), random);

  Bytes bytes(Layout::baseLength);
  std::size_t end = bytes.size();
  for (const len_t slot : slots) {
    VColType& place = VColType::at(bytes.data(), slot);
    const std::size_t length = below(5) == 0 ? 0 : below(3) == 0 ? 1 + below(80) : 1 + below(12);
    if (length == 0) {
      // An empty column may name an offset, and keeps its array mark.
      place.valueIs(static_cast<len_t>(below(4) == 0 ? end : 0), 0, below(2) == 0);
      continue;
    }
    if (shape != Shape::tight && below(2) == 0) end += below(20);
    std::size_t offset = end;
    if (shape == Shape::overlaps && below(3) == 0) {
      offset -= below(std::min<std::size_t>(end - Layout::baseLength + 1, 15));
    }
    place.valueIs(static_cast<len_t>(offset), static_cast<len_t>(length), below(4) == 0);
    end = std::max(end, offset + length);
  }
  if (shape == Shape::overlaps) {  // two columns with the same data
    const len_t slot = slots[below(count)];
    const VColType& one = VColType::at(bytes.data(), slots[below(count)]);
    if (one.length() != 0) VColType::at(bytes.data(), slot) = one;
  }
  if (shape != Shape::tight && below(2) == 0) end += below(30);

  const std::size_t fixed = bytes.size();
  bytes.resize(end);
  for (std::size_t i = fixed; i < end; ++i) bytes[i] = static_cast<byte_t>(random());
  storeField(bytes.data() + rowLengthOffset, static_cast<len_t>(end));
  storeField(bytes.data() + rowTypeOffset, Layout::rowType);
  return bytes;
}

template <typename Columns>
class RowPack : public testing::Test {};

template <std::size_t number>
struct Count {
  static constexpr std::size_t value = number;
};
// Rows of fewer than 64 columns are packed without an allocation of their own.
using Counts = testing::Types<Count<1>, Count<2>, Count<7>, Count<63>, Count<64>, Count<65>>;
TYPED_TEST_SUITE(RowPack, Counts, );

constexpr Shape shapes[] = {Shape::tight, Shape::gaps, Shape::overlaps};

TYPED_TEST(RowPack, EveryWayToWriteFollowsTheRules) {
  constexpr std::size_t count = TypeParam::value;
  using Layout = TextsOf<count>;
  std::mt19937 random(count);
  unsigned grown = 0;
  unsigned packed = 0;
  for (int round = 0; round < (count > 10 ? 250 : 1500); ++round) {
    const Bytes image = randomRow<count>(random, shapes[round % 3]);
    Declared<count> declared;
    declared.adopt(image.data(), image.size());
    AtRunTime<count> atRunTime, byWriter, byHand;
    for (auto* row : {&atRunTime, &byWriter, &byHand}) row->adopt(image);
    Model<count> model(image);
    for (int write = 0; write < 6; ++write) {
      const std::size_t column = random() % count;
      const len_t slot = Layout::slots[column];
      const std::size_t present = VColType::at(model.bytes().data(), slot).length();
      const std::string text(1 + present * (random() % 4 != 0) + random() % 40,
                             static_cast<char>('a' + write));
      const std::size_t before = model.bytes().size();
      model.write(column, text);
      grown += model.bytes().size() > before;

      declared.setAt(column, text);
      ASSERT_EQ(bytesOf(declared), model.bytes()) << "round " << round << ", write " << write;
      atRunTime.setColumn(slot, text, Layout::baseLength);
      ASSERT_EQ(bytesOf(atRunTime), model.bytes()) << "round " << round << ", write " << write;
      RowWriter(byWriter, Layout::baseLength).setColumn(slot, text);
      ASSERT_EQ(bytesOf(byWriter), model.bytes()) << "round " << round << ", write " << write;
      const len_t offset =
          byHand.makeFreeSpace(slot, static_cast<len_t>(text.size()), Layout::baseLength);
      std::copy(text.begin(), text.end(), byHand.rwRowBuf() + offset);
      VColType::at(byHand.rwRowBuf(), slot).valueIs(offset, static_cast<len_t>(text.size()), false);
      ASSERT_EQ(bytesOf(byHand), model.bytes()) << "round " << round << ", write " << write;
    }
    Model<count> whole(model.bytes());
    const std::size_t end = whole.pack();
    packed += whole.bytes() != model.bytes();
    ASSERT_EQ(atRunTime.compactVariableData(Layout::baseLength), end);
    ASSERT_EQ(bytesOf(atRunTime), whole.bytes());
  }
  EXPECT_GT(grown, 100U);
  EXPECT_TRUE(packed > 20 || count == 1);
}

TYPED_TEST(RowPack, ALongerValueOfTheRowItself) {
  // It is written as if it had been copied first, wherever in the row it stands.
  constexpr std::size_t count = TypeParam::value;
  std::mt19937 random(count + 100);
  for (int round = 0; round < (count > 10 ? 100 : 500); ++round) {
    const Bytes image = randomRow<count>(random, shapes[round % 3]);
    const std::size_t begin = random() % image.size();
    const std::size_t length = 1 + random() % std::min<std::size_t>(image.size() - begin, 120);
    const std::string copy(image.begin() + static_cast<std::ptrdiff_t>(begin),
                           image.begin() + static_cast<std::ptrdiff_t>(begin + length));
    const std::size_t column = random() % count;
    Declared<count> declared;
    declared.adopt(image.data(), image.size());
    declared.setAt(column, {reinterpret_cast<const char*>(declared.rowBuf()) + begin, length});
    Model<count> model(image);
    model.write(column, copy);
    ASSERT_EQ(bytesOf(declared), model.bytes()) << "round " << round;
  }
}

TYPED_TEST(RowPack, ASharedRowIsCopiedFirst) {
  constexpr std::size_t count = TypeParam::value;
  std::mt19937 random(count + 200);
  for (int round = 0; round < 100; ++round) {
    const Bytes image = randomRow<count>(random, shapes[round % 3]);
    const std::size_t column = random() % count;
    const std::string text(1 + random() % 100, 'x');
    Declared<count> row;
    row.adopt(image.data(), image.size());
    const Declared<count> sharer = row;
    const byte_t* const shared = sharer.rowBuf();
    row.setAt(column, text);
    Model<count> model(image);
    model.write(column, text);
    ASSERT_EQ(bytesOf(row), model.bytes());
    ASSERT_EQ(bytesOf(sharer), image);
    ASSERT_EQ(sharer.rowBuf(), shared);
    ASSERT_NE(row.rowBuf(), shared);
  }
}

/// Its list names the slots in another order than they stand in.
class Reversed : public AtRunTime<7> {
 public:
  vcdType& vcd() const override {
    static vcdType slots(Layout::slots.rbegin(), Layout::slots.rend());
    return slots;
  }
};

TEST(RowPackOrder, OfColumnsWithTheSameDataTheLastInTheListKeepsIt) {
  using Layout = Reversed::Layout;
  Declared<7> image;
  image.create(1);
  image.setAt(0, "gap");
  image.setAt(3, "data");
  VColType& first = VColType::at(image.rwRowBuf(), Layout::slots[2]);
  VColType& last = VColType::at(image.rwRowBuf(), Layout::slots[3]);
  first = last;
  image.setAt(0, "");
  Reversed row;
  row.adopt(bytesOf(image));
  EXPECT_EQ(row.compactVariableData(Layout::baseLength), Layout::baseLength + 4);
  const auto offsetOf = [&](std::size_t column) {
    return VColType::at(row.rowBuf(), Layout::slots[column]).offset();
  };
  EXPECT_EQ(offsetOf(2), Layout::baseLength);
  EXPECT_EQ(offsetOf(3), Layout::baseLength + 3);
}

TEST(RowPackLimits, ALongerValueThatTheRowHasNoRoomForChangesNothing) {
  Declared<7> row;
  row.create(1);
  row.setAt(0, "short");
  row.setAt(1, std::string(32767, 'b'));
  row.setAt(2, std::string(32000, 'c'));
  const Bytes before = bytesOf(row);
  const byte_t* const buffer = row.rowBuf();
  const std::size_t room = maxRowLength - before.size() + 5;
  EXPECT_THROW(row.setAt(0, std::string(room + 1, 'a')), KoOutOfRange);
  EXPECT_EQ(bytesOf(row), before);
  EXPECT_EQ(row.rowBuf(), buffer);
  row.setAt(0, std::string(room, 'a'));
  EXPECT_EQ(row.rowLength(), maxRowLength);
  EXPECT_EQ(VColType::at(row.rowBuf(), Declared<7>::Layout::slots[1]).offset(),
            Declared<7>::Layout::baseLength);
}

/// Sees each new block, as a row class may.
class Counting : public TableRow<TextsOf<7>> {
 public:
  void replaceRow(byte_t* buf) override {
    ++blocks;
    TableRow::replaceRow(buf);
  }
  int blocks = 0;
};

TEST(RowPackOverrides, GrowingInstallsEachBlockByReplaceRow) {
  Counting row;
  row.create(1);
  row.set<"Aa">("one");
  row.set<"Ab">("two");
  EXPECT_EQ(row.blocks, 2);
  row.set<"Aa">("longer");
  EXPECT_EQ(row.blocks, 3);
  row.set<"Ab">("2");
  row.set<"Ab">("two");
  EXPECT_EQ(row.blocks, 3) << "packing alone needs none";
  EXPECT_EQ(row.get<"Aa">(), "longer");
}

#if KORVO_FAILING_ALLOCATOR

TYPED_TEST(RowPack, OutOfMemoryChangesNothing) {
  constexpr std::size_t count = TypeParam::value;
  std::mt19937 random(count + 300);
  for (int round = 0; round < 6; ++round) {
    const Bytes image = randomRow<count>(random, shapes[round % 2]);
    for (const bool shared : {false, true}) {
      using Rows = std::pair<Declared<count>, Declared<count>>;
      const unsigned failing = alloctest::failEachAllocation(
          shared ? "shared" : "sole",
          [&] {
            Rows rows;
            rows.first.adopt(image.data(), image.size());
            if (shared) rows.second = rows.first;
            return rows;
          },
          [text = std::string(9000, 'x'), column = random() % count](Rows& rows) {
            rows.first.setAt(column, text);
          },
          [](const Rows& rows) {
            alloctest::Snapshot seen;
            for (const auto* row : {&rows.first, &rows.second}) {
              if (row->isNull()) continue;
              seen.contents.append(reinterpret_cast<const char*>(row->rowBuf()), row->rowLength());
              seen.places.push_back(row->rowBuf());
            }
            return seen;
          });
      EXPECT_GT(failing, 0U);
    }
  }
}

TEST(RowPackHeap, BytesGainedByPackingAreZero) {
  // Columns of the same data count twice while the row grows, and once where it is packed: behind
  // the value some of the bytes gained are left.
  for (const int fill : {0x00, 0xFF, 0xA5}) {
    const alloctest::FillScope scope(fill);
    Declared<7> row;
    using Layout = Declared<7>::Layout;
    row.create(1);
    row.setAt(0, std::string(10, 'a'));
    row.setAt(1, std::string(20, 'b'));
    VColType::at(row.rwRowBuf(), Layout::slots[2]) = VColType::at(row.rwRowBuf(), Layout::slots[1]);
    Model<7> model(bytesOf(row));
    const std::string text(45, 'c');
    model.write(0, text);
    row.setAt(0, text);
    ASSERT_EQ(bytesOf(row), model.bytes());
    EXPECT_EQ(row.rowLength(), Layout::baseLength + 20 + 20 + 45);
  }
}

#endif  // KORVO_FAILING_ALLOCATOR

}  // namespace
