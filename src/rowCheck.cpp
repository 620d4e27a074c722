#include <Korvo/rowCheck.h>

#include <algorithm>
#include <array>

namespace Korvo {
namespace {

using detail::QuickLook;
using detail::readOnce;

/// Which bytes of the row belong to a value already: one bit for each byte.
class TakenBytes {
 public:
  /// Of `length` bytes, none is taken.
  explicit TakenBytes(std::size_t length) noexcept {
    std::fill_n(words_.begin(), length / wordBits + 1, std::uint64_t{0});
  }
  /// Forgets all about `length` bytes at `begin`.
  void release(std::size_t begin, std::size_t length) noexcept {
    forEachWord(begin, length, [](std::uint64_t& word, std::uint64_t mask) {
      word &= ~mask;
      return true;
    });
  }
  /// False if one of the bytes is taken.
  bool take(std::size_t begin, std::size_t length) noexcept {
    return forEachWord(begin, length, [](std::uint64_t& word, std::uint64_t mask) {
      if ((word & mask) != 0) return false;
      word |= mask;
      return true;
    });
  }

 private:
  static constexpr std::size_t wordBits = 64;

  template <typename Visit>
  bool forEachWord(std::size_t begin, std::size_t length, Visit visit) noexcept {
    while (length != 0) {
      const std::size_t bit = begin % wordBits;
      const std::size_t count = std::min(length, wordBits - bit);
      const std::uint64_t ones = ~std::uint64_t{0} >> (wordBits - count);
      if (!visit(words_[begin / wordBits], ones << bit)) return false;
      begin += count;
      length -= count;
    }
    return true;
  }

  std::array<std::uint64_t, maxRowLength / wordBits + 1> words_;  // only as many as were set to 0
};

/// A stretch of the outermost row: offsets in it are compared with what is left of it, never added
/// to first.
struct Stretch {
  const byte_t* bytes;
  std::size_t position;  ///< in the outermost row
  std::size_t length;

  bool has(std::size_t offset, std::size_t count) const {
    return offset <= length && count <= length - offset;
  }
  Stretch part(std::size_t offset, std::size_t count) const {
    return {bytes + offset, position + offset, count};
  }
};

/// One element slot or column slot, each field read once.
struct SlotValue {
  std::size_t offset;
  std::size_t length;
  bool isArray;

  explicit SlotValue(const byte_t* at) noexcept {
    const auto fields = readOnce<std::uint32_t>(at);
    offset = fields & 0xFFFF;
    length = fields >> 16 & 0x7FFF;
    isArray = fields >> 31 != 0;
  }
};

/// Whether the row of a layout known at run time passes the quick look.
bool passesQuickLook(QuickLook look, const LayoutInfo& layout, unsigned int depth) noexcept {
  const bool fixedAreaPasses = depth == 0
                                   ? look.fixedAreaPasses(layout.baseLength)
                                   : look.nestedFixedAreaPasses(layout.baseLength, layout.rowType);
  if (!fixedAreaPasses) return false;
  for (const ColumnInfo& column : layout.columns) {
    const bool passes = look.columnPasses(column, [&](const QuickLook& nested) {
      return depth != maxRowNesting && passesQuickLook(nested, *column.nested, depth + 1);
    });
    if (!passes) return false;
  }
  return look.endPasses();
}

/// Finds the first fault of any row.
class Checker {
 public:
  Checker(std::size_t length, RowRule rules) noexcept : rules_(rules), taken_(length) {}

  RowFault checkRow(const Stretch& row, const LayoutInfo& layout, unsigned int depth) noexcept {
    if (row.length < layout.baseLength) {
      return {RowFaultKind::shortFixedArea, row.position + row.length};
    }
    for (std::size_t i = 0; i < layout.columns.size(); ++i) {
      const ColumnInfo& column = layout.columns[i];
      if (!column.hasSlot()) continue;
      if (RowFault fault = checkColumn(row, layout, column, depth)) {
        // The innermost column is the first to be named here.
        if (fault.columnCount == 0) fault.columnCount = static_cast<std::uint16_t>(depth + 1);
        fault.columns[depth] = static_cast<std::uint16_t>(i);
        return fault;
      }
    }
    return {};
  }

 private:
  RowFault checkColumn(const Stretch& row, const LayoutInfo& layout, const ColumnInfo& column,
                       unsigned int depth) noexcept {
    const std::size_t slotPosition = row.position + column.offset;
    const SlotValue slot(row.bytes + column.offset);
    if (slot.length == 0) {  // an offset or a mark beside it says nothing
      const bool isPrefix = column.type == ipGenPrefixType_ && !column.isArray;
      if (!isPrefix || !hasRule(rules_, RowRule::withFamily)) return {};
      return {RowFaultKind::noFamily, slotPosition};
    }
    if (slot.offset < layout.baseLength) return {RowFaultKind::valueInHeader, slotPosition};
    if (!row.has(slot.offset, slot.length)) return {RowFaultKind::valueBeyondRow, slotPosition};
    const Stretch value = row.part(slot.offset, slot.length);
    if (!taken_.take(value.position, value.length)) return {RowFaultKind::overlap, slotPosition};
    if (slot.isArray != column.isArray) return {RowFaultKind::arrayMark, slotPosition};
    return column.isArray ? checkArray(value, column, depth) : checkValue(value, column, depth);
  }

  RowFault checkValue(const Stretch& value, const ColumnInfo& column, unsigned int depth) noexcept {
    switch (column.type) {
      case structType_:
        return checkNested(value, *column.nested, depth);
      case ipGenAddrType_:
        if (detail::familyOfAddress(value.length) != unknown_) return {};
        return {RowFaultKind::addressLength, value.position};
      case ipGenPrefixType_:
        return checkPrefix(value);
      default:
        return {};  // any bytes are a string
    }
  }

  RowFault checkPrefix(const Stretch& value) const noexcept {
    const AddressFamily af = detail::familyOfPrefix(value.length);
    if (af == unknown_) return {RowFaultKind::prefixLength, value.position};
    const std::size_t bits = 8 * (value.length - 1);
    const std::size_t mask = readOnce<byte_t>(value.bytes);
    if (mask > bits) return {RowFaultKind::prefixBits, value.position};
    if (hasRule(rules_, RowRule::noHostBits) &&
        !validPrefix(IpGenAddr(af, value.bytes + 1), static_cast<int>(mask))) {
      return {RowFaultKind::hostBits, value.position};
    }
    return {};
  }

  RowFault checkArray(const Stretch& array, const ColumnInfo& column, unsigned int depth) noexcept {
    if (array.length < arrayHeaderLength) return {RowFaultKind::arrayLength, array.position};
    const unsigned int header = readOnce<std::uint16_t>(array.bytes);
    const std::size_t count = header & arrayCountMask;
    const bool variable = (header >> 8 & arrayVariableMark) != 0;
    if (variable != (column.type != boolType_)) return {RowFaultKind::elementMark, array.position};
    const std::size_t left = array.length - arrayHeaderLength;
    const bool wholeArrays = hasRule(rules_, RowRule::wholeArrays);
    if (!variable) {
      // Arrays of more than 4095 elements keep only the low bits of their count.
      if ((left & arrayCountMask) != count) return {RowFaultKind::arrayLength, array.position};
      if (left != count && wholeArrays) return {RowFaultKind::arrayCount, array.position};
      return {};
    }
    if (left / sizeof(VColType) < count) return {RowFaultKind::arrayLength, array.position};
    std::size_t end = arrayHeaderLength + sizeof(VColType) * count;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t at = arrayHeaderLength + sizeof(VColType) * i;
      const SlotValue slot(array.bytes + at);
      // Elements stand in order, so one that begins before the last one's end overlaps it.
      if (slot.offset < end || !array.has(slot.offset, slot.length)) {
        return {RowFaultKind::elementOutside, array.position + at};
      }
      // What stands between counted elements, or behind them, are others that are not.
      if (slot.offset != end && wholeArrays) return {RowFaultKind::arrayCount, array.position};
      end = slot.offset + slot.length;
      if (slot.length == 0 && column.type != structType_) {  // a row is never empty
        if (column.type != ipGenPrefixType_ || !hasRule(rules_, RowRule::withFamily)) continue;
        return {RowFaultKind::noFamily, array.position + at};
      }
      const Stretch element = array.part(slot.offset, slot.length);
      if (const RowFault fault = checkValue(element, column, depth)) return fault;
    }
    if (end != array.length && wholeArrays) return {RowFaultKind::arrayCount, array.position};
    return {};
  }

  RowFault checkNested(const Stretch& value, const LayoutInfo& layout,
                       unsigned int depth) noexcept {
    if (value.length < rowHeaderLength) return {RowFaultKind::nestedLength, value.position};
    if (readOnce<len_t>(value.bytes + rowLengthOffset) != value.length) {
      return {RowFaultKind::nestedLength, value.position};
    }
    if (depth == maxRowNesting) return {RowFaultKind::nestedTooDeep, value.position};
    if (readOnce<std::uint16_t>(value.bytes + rowTypeOffset) != layout.rowType) {
      return {RowFaultKind::nestedType, value.position + rowTypeOffset};
    }
    // The nested row keeps account of its own values; to the row that holds it, all of it is taken.
    taken_.release(value.position, value.length);
    const RowFault fault = checkRow(value, layout, depth + 1);
    taken_.release(value.position, value.length);
    taken_.take(value.position, value.length);
    return fault;
  }

  RowRule rules_;
  TakenBytes taken_;
};

const char* describe(RowFaultKind kind) {
  switch (kind) {
    case RowFaultKind::none:
      return "no fault";
    case RowFaultKind::shortHeader:
      return "fewer bytes than a row header";
    case RowFaultKind::truncated:
      return "the row is longer than what was received";
    case RowFaultKind::trailingBytes:
      return "bytes follow the row";
    case RowFaultKind::shortFixedArea:
      return "shorter than the columns of this layout: an older or another layout?";
    case RowFaultKind::valueInHeader:
      return "a value lies in the header or the fixed area";
    case RowFaultKind::valueBeyondRow:
      return "a value lies beyond the row's end";
    case RowFaultKind::overlap:
      return "two values share a byte";
    case RowFaultKind::arrayMark:
      return "the array mark contradicts the column";
    case RowFaultKind::elementMark:
      return "the element mark contradicts the column";
    case RowFaultKind::arrayLength:
      return "an array's length does not fit its count";
    case RowFaultKind::elementOutside:
      return "an element lies outside its array or over another";
    case RowFaultKind::addressLength:
      return "no address has this length";
    case RowFaultKind::prefixLength:
      return "no prefix has this length";
    case RowFaultKind::prefixBits:
      return "a prefix length beyond its family's bits";
    case RowFaultKind::hostBits:
      return "a prefix has host bits set";
    case RowFaultKind::nestedLength:
      return "a nested row's length is not its value's";
    case RowFaultKind::nestedTooDeep:
      return "rows are nested too deep";
    case RowFaultKind::nestedType:
      return "a nested row of another type than its column's layout";
    case RowFaultKind::arrayCount:
      return "an array's count is not that of its elements";
    case RowFaultKind::noFamily:
      return "a prefix has no family";
  }
  return "unknown fault";
}

}  // namespace

std::string RowFault::column() const {
  std::string path;
  const LayoutInfo* row = layout;
  for (std::size_t i = 0; i < columnCount && row != nullptr; ++i) {
    const ColumnInfo& column = row->columns[columns[i]];
    if (i != 0) path += '.';
    path += column.name;
    row = column.nested;
  }
  return path;
}

std::string RowFault::text() const {
  std::string text = describe(kind);
  if (kind == RowFaultKind::none) return text;
  const std::string name = column();
  text += name.empty() ? " (at byte " : " (" + name + ", at byte ";
  return text + std::to_string(offset) + ")";
}

RowFault checkRow(const void* bytes, std::size_t length, const LayoutInfo& layout,
                  RowRule rules) noexcept {
  if (length < rowHeaderLength) return {RowFaultKind::shortHeader, length};
  const byte_t* const row = static_cast<const byte_t*>(bytes);
  const std::size_t said = readOnce<len_t>(row + rowLengthOffset);
  if (said > length) return {RowFaultKind::truncated, rowLengthOffset};
  if (said < length) return {RowFaultKind::trailingBytes, said};
  if (passesQuickLook(QuickLook(row, length, rules), layout, 0)) return {};
  RowFault fault = Checker(length, rules).checkRow({row, 0, length}, layout, 0);
  fault.layout = &layout;
  return fault;
}

}  // namespace Korvo
