// Any bytes through checkRow alone, against a slow check written another way: it copies every value
// and looks at every byte of it.
//
// Input: layout, then the row's bytes. With the second bit of the first byte set, the row's length
// is put right, so that more than one input in thousands gets past it.

#include "row_fuzz_support.h"

namespace {

using namespace fuzz;

std::size_t wordAt(const Bytes& bytes, std::size_t at) {
  return bytes.at(at) + 256U * bytes.at(at + 1);
}

Bytes cut(const Bytes& bytes, std::size_t begin, std::size_t length) {
  FUZZ_REQUIRE(begin + length <= bytes.size());
  const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(begin);
  return {first, first + static_cast<std::ptrdiff_t>(length)};
}

class SlowCheck {
 public:
  explicit SlowCheck(RowRule rules) : rules_(rules) {}

  bool isGood(const Bytes& row, const LayoutInfo& layout, unsigned int depth) const {
    if (row.size() < 8 || wordAt(row, 0) != row.size()) return false;
    if (row.size() < layout.baseLength || depth > 16) return false;
    if (depth > 0 && wordAt(row, 2) != layout.rowType) return false;
    std::vector<bool> owned(row.size());
    std::fill_n(owned.begin(), layout.baseLength, true);
    for (const ColumnInfo& column : layout.columns) {
      if (!hasSlot(column)) continue;
      const std::size_t length = wordAt(row, column.offset + 2U) % 0x8000;
      const std::size_t offset = wordAt(row, column.offset);
      if (length == 0) {
        if (!column.isArray && !mayBeEmpty(column)) return false;
        continue;
      }
      for (std::size_t i = offset; i < offset + length; ++i) {
        if (i >= row.size() || owned[i]) return false;
        owned[i] = true;
      }
      if ((row.at(column.offset + 3U) >= 0x80) != column.isArray) return false;
      const Bytes value = cut(row, offset, length);
      if (!(column.isArray ? isGoodArray(value, column, depth)
                           : isGoodValue(value, column, depth))) {
        return false;
      }
    }
    return true;
  }

 private:
  bool asks(RowRule rule) const { return hasRule(rules_, rule); }
  /// Whether values, or elements, of no bytes are good.
  bool mayBeEmpty(const ColumnInfo& column) const {
    return column.type != ipGenPrefixType_ || !asks(RowRule::withFamily);
  }

  bool isGoodValue(const Bytes& value, const ColumnInfo& column, unsigned int depth) const {
    const std::size_t size = value.size();
    if (column.type == structType_) return isGood(value, *column.nested, depth + 1);
    if (column.type == ipGenAddrType_) return size == 4 || size == 16;
    if (column.type != ipGenPrefixType_) return true;
    if (size != 5 && size != 17) return false;
    if (value[0] > 8 * (size - 1)) return false;
    if (!asks(RowRule::noHostBits)) return true;
    // The word that begins right behind the prefix is not looked at.
    const unsigned int mask = value[0];
    for (unsigned int bit = mask % 32 == 0 ? mask + 32 : mask; bit < 8 * (size - 1); ++bit) {
      if ((value[1 + bit / 8] << bit % 8 & 0x80) != 0) return false;
    }
    return true;
  }

  bool isGoodArray(const Bytes& array, const ColumnInfo& column, unsigned int depth) const {
    if (array.size() < 2) return false;
    const std::size_t count = wordAt(array, 0) % 4096;
    const bool variable = (array[1] & 0x10) != 0;
    if (variable != (column.type != boolType_)) return false;
    if (!variable) {
      return (array.size() - 2) % (asks(RowRule::wholeArrays) ? 100'000 : 4096) == count;
    }
    std::size_t end = 2 + 4 * count;
    std::size_t bytes = end;
    if (array.size() < end) return false;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t offset = wordAt(array, 2 + 4 * i);
      const std::size_t length = wordAt(array, 4 + 4 * i) % 0x8000;
      if (offset < end || offset + length > array.size()) return false;
      end = offset + length;
      bytes += length;
      if (length == 0 && column.type != structType_) {
        if (!mayBeEmpty(column)) return false;
        continue;
      }
      if (!isGoodValue(cut(array, offset, length), column, depth)) return false;
    }
    return bytes == array.size() || !asks(RowRule::wholeArrays);
  }

  RowRule rules_;
};

/// checkRow for the declared layouts, in the order of rowLayouts.
using DeclaredCheck = RowFault (*)(const void*, std::size_t, RowRule) noexcept;
constexpr DeclaredCheck declaredChecks[] = {checkRow<Mixed>, checkRow<Middle>,
                                            checkRow<Leaf>,  checkRow<NoColumns>,
                                            checkRow<Wide>,  checkRow<Numbers>};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const unsigned int choice = data[0];
  Bytes row(data + 1, data + size);
  const std::size_t number = (choice >> 2) % std::size(rowLayouts);
  const LayoutInfo& layout = *rowLayouts[number];
  if ((choice & 2) != 0 && row.size() >= 2 && row.size() <= maxRowLength) {
    putWord(row, 0, row.size());
  }

  const ExactBlock block(row);
  for (int rules = 0; rules <= static_cast<int>(RowRule::forIndex); ++rules) {
    const auto rule = static_cast<RowRule>(rules);
    const RowFault fault = checkRow(block.data(), row.size(), layout, rule);
    FUZZ_REQUIRE(fault == checkRow(block.data(), row.size(), layout, rule));
    if (number < std::size(declaredChecks)) {
      FUZZ_REQUIRE(fault == declaredChecks[number](block.data(), row.size(), rule));
    }
    FUZZ_REQUIRE(fault.offset <= row.size());
    FUZZ_REQUIRE(fault.kind <= RowFaultKind::noFamily);
    FUZZ_REQUIRE(fault.text().find('\n') == std::string::npos);
    FUZZ_REQUIRE(!fault == SlowCheck(rule).isGood(row, layout, 0));
    if (!hasRule(rule, RowRule::noHostBits)) FUZZ_REQUIRE(fault.kind != RowFaultKind::hostBits);
    if (!hasRule(rule, RowRule::withFamily)) FUZZ_REQUIRE(fault.kind != RowFaultKind::noFamily);
    if (!hasRule(rule, RowRule::wholeArrays)) FUZZ_REQUIRE(fault.kind != RowFaultKind::arrayCount);
    FUZZ_REQUIRE(fault.column().empty() == (fault.columnCount == 0));
  }
  FUZZ_REQUIRE(std::equal(row.begin(), row.end(), block.data()));
  return 0;
}
