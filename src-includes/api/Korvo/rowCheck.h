#pragma once

// Checking received rows before they are used.
//
//   if (const Korvo::RowFault fault = Korvo::checkRow<PortLayout>(bytes, length)) {
//     std::cerr << "row refused: " << fault.text() << '\n';
//   } else {
//     port.adopt(bytes, length);
//   }
//
// Of a row that passed, no reader of the library (values, references, arrays, nested rows,
// comparisons, ordering, hashes, printing, JSON) reads outside the row or stops the process, and no
// writer touches memory outside it. What remains, because the rules of the values ask for it:
//
//  - asking two prefixes that both have no family for their order, or whether one contains the
//    other, stops the process (operator<, contains() of IpGenPrefixReference and IpGenPrefix; not
//    less() and sortRows() of TableRow.h). RowRule::withFamily refuses such rows;
//  - a prefix may be stored with host bits set; getColumn<IpGenPrefix> then throws KoOutOfRange.
//    RowRule::noHostBits refuses such rows;
//  - an array may hold prefixes without a family; ArrayReference<IpGenPrefix> reads such an element
//    as IPv6 and may throw KoOutOfRange. Its reference form, ArrayReference<IpGenPrefixReference>,
//    never throws. RowRule::withFamily refuses these rows, too;
//  - of an array of 4,096 elements and more, readers see the number modulo 4,096.
//    RowRule::wholeArrays refuses such rows.
//
// What becomes a key of an index is checked by RowRule::forIndex, which is all of these rules.
//
// Bytes that another process may still change (shared memory) are copied first, then checked.

#include <Korvo/TableRow.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Korvo {

/// What is wrong with a row.
enum class RowFaultKind : byte_t {
  none,            ///< the row is good
  shortHeader,     ///< fewer bytes than a header
  truncated,       ///< the row says that it is longer than what was received
  trailingBytes,   ///< more bytes were received than the row says that it has
  shortFixedArea,  ///< shorter than the layout's columns: perhaps a row of another layout
  valueInHeader,   ///< a slot points into the header or the fixed area
  valueBeyondRow,  ///< a value begins or ends behind the row's end
  overlap,         ///< two values share a byte
  arrayMark,       ///< an array where the column holds a value, or the other way round
  elementMark,     ///< elements of fixed width where they vary, or the other way round
  arrayLength,     ///< an array's length does not fit its element count
  elementOutside,  ///< an element lies outside its array, in its header, or over another
  addressLength,   ///< an encoded address has a length that no family has
  prefixLength,    ///< an encoded prefix has a length that no family has
  prefixBits,      ///< a prefix length beyond its family's bits
  hostBits,        ///< a prefix with host bits set, where these are refused
  nestedLength,    ///< a nested row's length is not its value's
  nestedTooDeep,   ///< more nesting than maxRowNesting
  nestedType,      ///< a nested row of another type than its layout's
  arrayCount,      ///< an array's count is not that of its elements, where this is refused
  noFamily         ///< a prefix without a family, where these are refused
};

/// Levels of nested rows that a checked row may have.
inline constexpr unsigned int maxRowNesting = 16;

/// What is refused beside what readers could not stand. Rules are combined with |.
enum class RowRule : byte_t {
  anyBits = 0,      ///< nothing more
  noHostBits = 1,   ///< prefixes have no bits set after their length, as far as validPrefix looks
  withFamily = 2,   ///< prefix columns and elements of prefix arrays have a family: none is null
  wholeArrays = 4,  ///< the count in an array's header is the number of its elements
  /// What an index wants: keys that are ordered, found again, and read as values.
  forIndex = noHostBits | withFamily | wholeArrays
};
/// Both rules.
constexpr RowRule operator|(RowRule a, RowRule b) {
  return static_cast<RowRule>(static_cast<byte_t>(a) | static_cast<byte_t>(b));
}
/// Whether `rules` have the rule.
constexpr bool hasRule(RowRule rules, RowRule rule) {
  return (static_cast<byte_t>(rules) & static_cast<byte_t>(rule)) != 0;
}
/// The rules by the name that they had while all of them were about prefixes.
using PrefixRule = RowRule;

/// The first fault of a row, or none.
struct RowFault {
  RowFaultKind kind = RowFaultKind::none;  ///< what is wrong
  std::size_t offset = 0;  ///< of the faulty field or value, from the row's first byte

  // The columns that lead to it, by their places in their layouts; outermost first.
  const LayoutInfo* layout = nullptr;  ///< of the outermost row; has to outlive the fault
  std::uint16_t columnCount = 0;       ///< 0 where the row as a whole is at fault
  std::array<std::uint16_t, maxRowNesting + 1> columns = {};  ///< the first columnCount count

  /// Whether there is a fault.
  explicit operator bool() const { return kind != RowFaultKind::none; }
  /// The faulty column's name, "file"; in a nested row the names of all columns that lead to it,
  /// "origin.file". Empty where the row as a whole is at fault.
  KORVO_API std::string column() const;
  /// One line: "two values share a byte (origin.file, at byte 40)".
  KORVO_API std::string text() const;

  /// The same fault at the same place.
  friend bool operator==(const RowFault& a, const RowFault& b) {
    return a.kind == b.kind && a.offset == b.offset;
  }
};

/// Checks `length` received bytes against the layout of the table's rows. Throws nothing, allocates
/// nothing, uses a fixed amount of stack, and takes time linear in `length` and in the layout's
/// columns. Its answer rests on one reading of each length field. Safe from any thread.
KORVO_API RowFault checkRow(const void* bytes, std::size_t length, const LayoutInfo& layout,
                            RowRule rules = RowRule::anyBits) noexcept;

/// The same for a layout that is declared (a RowLayout): `checkRow<PortLayout>(bytes, length)`.
/// Faster, as most rows are looked at with code that is made for their columns.
template <typename Layout>
RowFault checkRow(const void* bytes, std::size_t length, RowRule rules = RowRule::anyBits) noexcept;

// ---------------------------------------------------------------------------------------------

namespace detail {

/// Reads a field, and reads it once: what was checked is what is used, also while another process
/// changes the bytes. Without the barrier the compiler might read them again.
template <typename T>
inline T readOnce(const byte_t* at) noexcept {
  T value = loadField<T>(at);
  asm volatile("" : "+r"(value));
  return value;
}

/// The quick look at a row that is as writers leave it: values in column order, elements one behind
/// the other. Of such rows the slots alone tell that no byte belongs to two values. Any other row,
/// sound or not, fails and is left to the full check.
///
/// All of it is inline, so that little remains where the columns are known at compile time.
class QuickLook {
 public:
  /// `row` has `length` bytes, at most 65535.
  QuickLook(const byte_t* row, std::size_t length, RowRule rules) noexcept
      : row_(row), length_(static_cast<std::uint32_t>(length)), rules_(rules) {}

  /// To be asked first: whether the row has a fixed area and says its own length.
  [[gnu::always_inline]] bool fixedAreaPasses(len_t baseLength) noexcept {
    end_ = baseLength;
    return length_ >= std::max(baseLength, rowHeaderLength) &&
           readOnce<len_t>(row_ + rowLengthOffset) == length_;
  }
  /// The same of a nested row, which also is of its layout's type.
  [[gnu::always_inline]] bool nestedFixedAreaPasses(len_t baseLength, std::uint16_t type) noexcept {
    static_assert(rowTypeOffset == rowLengthOffset + 2);
    end_ = baseLength;
    return length_ >= std::max(baseLength, rowHeaderLength) &&
           readOnce<std::uint32_t>(row_ + rowLengthOffset) == (length_ | std::uint32_t{type} << 16);
  }

  /// To be asked of each column in turn. `nestedPasses` is asked about a QuickLook at a nested row.
  template <typename NestedPasses>
  [[gnu::always_inline]] bool columnPasses(const ColumnInfo& column,
                                           const NestedPasses& nestedPasses) noexcept {
    if (!column.hasSlot()) return true;
    // With the column's own mark taken away, the highest bit is set where the mark is wrong.
    constexpr std::uint32_t mark = std::uint32_t{slotArrayMark} << 24;
    constexpr std::uint32_t lengthOne = 1U << 16;
    const auto slot = readOnce<std::uint32_t>(row_ + column.offset) ^ (column.isArray ? mark : 0);
    const bool isEmptyOrMarkedWrong = slot - lengthOne >= mark - lengthOne;
    if (isEmptyOrMarkedWrong) return (slot & ~mark) < lengthOne && mayBeEmpty(column);
    const std::uint32_t offset = slot & 0xFFFF;
    const std::uint32_t length = slot >> 16;
    if (offset < end_) return false;
    end_ = offset + length;
    return column.isArray ? arrayPasses(offset, length, column, nestedPasses)
                          : valuePasses(offset, length, column, nestedPasses);
  }

  /// To be asked last: whether all values end within the row. As no value begins before the end of
  /// the last, this one comparison does for all whose bytes were not read.
  bool endPasses() const noexcept { return end_ <= length_; }

 private:
  bool mayBeEmpty(const ColumnInfo& column) const noexcept {
    return column.type != ipGenPrefixType_ || column.isArray ||
           !hasRule(rules_, RowRule::withFamily);
  }
  /// Whether an array of `length` bytes may have its last element end at `end`.
  bool arrayEndPasses(std::uint32_t end, std::uint32_t length) const noexcept {
    return end == length || (end < length && !hasRule(rules_, RowRule::wholeArrays));
  }

  template <typename NestedPasses>
  bool valuePasses(std::uint32_t offset, std::uint32_t length, const ColumnInfo& column,
                   const NestedPasses& nestedPasses) const noexcept {
    switch (column.type) {
      case stringType_:
        return true;
      case ipGenAddrType_:
        return familyOfAddress(length) != unknown_;
      case ipGenPrefixType_:
        return offset + length <= length_ && prefixPasses(row_ + offset, length);
      default:
        return offset + length <= length_ && nestedPasses(QuickLook(row_ + offset, length, rules_));
    }
  }

  bool prefixPasses(const byte_t* value, std::uint32_t length) const noexcept {
    const AddressFamily af = familyOfPrefix(length);
    if (af == unknown_) return false;
    const unsigned int mask = readOnce<byte_t>(value);
    if (mask > 8 * (length - 1)) return false;
    return !hasRule(rules_, RowRule::noHostBits) ||
           validPrefix(IpGenAddr(af, value + 1), static_cast<int>(mask));
  }

  template <typename NestedPasses>
  bool arrayPasses(std::uint32_t offset, std::uint32_t length, const ColumnInfo& column,
                   const NestedPasses& nestedPasses) const noexcept {
    if (length < arrayHeaderLength || end_ > length_) return false;
    const byte_t* const array = row_ + offset;
    const std::uint32_t header = readOnce<std::uint16_t>(array);
    const std::uint32_t count = header & arrayCountMask;
    const bool variable = (header >> 8 & arrayVariableMark) != 0;
    if (column.type == boolType_) {
      const std::uint32_t elements = length - arrayHeaderLength;
      return !variable && (elements & arrayCountMask) == count &&
             (elements == count || !hasRule(rules_, RowRule::wholeArrays));
    }
    std::uint32_t end = arrayHeaderLength + std::uint32_t{sizeof(VColType)} * count;
    if (!variable || end > length) return false;
    const byte_t* const slots = array + arrayHeaderLength;
    const byte_t* const slotsEnd = array + end;
    // Elements stand one behind the other. A slot's highest bit, which says nothing in an element,
    // makes the element end too late.
    if (column.type == stringType_) {
      std::uint32_t gaps = 0;
      for (const byte_t* at = slots; at != slotsEnd; at += sizeof(VColType)) {
        const auto slot = readOnce<std::uint32_t>(at);
        gaps |= (slot & 0xFFFF) ^ end;
        end += slot >> 16;
      }
      return gaps == 0 && arrayEndPasses(end, length);
    }
    // A row is never empty.
    const bool elementMayBeEmpty =
        column.type != structType_ &&
        (column.type != ipGenPrefixType_ || !hasRule(rules_, RowRule::withFamily));
    for (const byte_t* at = slots; at != slotsEnd; at += sizeof(VColType)) {
      const auto slot = readOnce<std::uint32_t>(at);
      const std::uint32_t begin = end;
      end += slot >> 16;
      if ((slot & 0xFFFF) != begin || end > length) return false;
      if (end == begin && elementMayBeEmpty) continue;
      if (!valuePasses(offset + begin, end - begin, column, nestedPasses)) return false;
    }
    return arrayEndPasses(end, length);
  }

  const byte_t* row_;
  std::uint32_t length_;
  std::uint32_t end_ = 0;  // of the last value
  RowRule rules_;
};

/// The layout of a column's nested rows; void for any other column.
template <typename T>
struct NestedLayout {
  using Type = void;
};
template <typename Layout>
struct NestedLayout<Nested<Layout>> {
  using Type = Layout;
};

/// Whether the row of a declared layout passes the quick look.
template <typename Layout, unsigned int Depth = 0>
[[gnu::always_inline]] inline bool passesQuickLook(QuickLook look) noexcept {
  const auto columnPasses = [&look]<std::size_t I>(std::integral_constant<std::size_t, I>) {
    return look.columnPasses(Layout::columns[I], [](const QuickLook& nested) {
      using T = typename NestedLayout<std::tuple_element_t<I, typename Layout::ColumnTypes>>::Type;
      if constexpr (!std::is_void_v<T> && Depth < maxRowNesting) {
        return passesQuickLook<T, Depth + 1>(nested);
      } else {
        return false;
      }
    });
  };
  const auto columnsPass = [&]<std::size_t... I>(std::index_sequence<I...>) {
    return (columnPasses(std::integral_constant<std::size_t, I>()) && ...);
  };
  const bool fixedAreaPasses =
      Depth == 0 ? look.fixedAreaPasses(Layout::baseLength)
                 : look.nestedFixedAreaPasses(Layout::baseLength, Layout::rowType);
  return fixedAreaPasses && columnsPass(std::make_index_sequence<Layout::columns.size()>()) &&
         look.endPasses();
}

}  // namespace detail

template <typename Layout>
RowFault checkRow(const void* bytes, std::size_t length, RowRule rules) noexcept {
  constexpr bool isLayout = requires {
    Layout::info;
  };
  static_assert(isLayout, "rows are checked by their layout: checkRow<Port::Layout>");
  if constexpr (isLayout) {
    const detail::QuickLook look(static_cast<const byte_t*>(bytes), length, rules);
    if (length <= maxRowLength && detail::passesQuickLook<Layout>(look)) return {};
    return checkRow(bytes, length, Layout::info, rules);
  } else {
    return {};
  }
}

}  // namespace Korvo
