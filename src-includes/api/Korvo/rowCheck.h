#pragma once

// Checking received rows before they are used.
//
//   if (const Korvo::RowFault fault = Korvo::checkRow(bytes, length, PortLayout::info)) {
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
//    other, stops the process (operator<, contains() of IpGenPrefixReference and IpGenPrefix);
//  - a prefix may be stored with host bits set; getColumn<IpGenPrefix> then throws KoOutOfRange.
//    PrefixRule::noHostBits refuses such rows;
//  - an array may hold prefixes without a family; ArrayReference<IpGenPrefix> reads such an element
//    as IPv6 and may throw KoOutOfRange. Its reference form, ArrayReference<IpGenPrefixReference>,
//    never throws.
//
// Bytes that another process may still change (shared memory) are copied first, then checked.

#include <Korvo/TableRow.h>

#include <cstddef>
#include <string>

namespace Korvo {

/// What is wrong with a row.
enum class RowFaultKind : byte_t {
  none,
  shortHeader,     ///< fewer bytes than a header
  truncated,       ///< the row says that it is longer than what was received
  trailingBytes,   ///< more bytes were received than the row says that it has
  shortFixedArea,  ///< the row ends before its fixed area does
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
  nestedTooDeep    ///< more nesting than maxRowNesting
};

/// Levels of nested rows that a checked row may have.
inline constexpr unsigned int maxRowNesting = 16;

/// Whether prefixes may have bits set after their length.
enum class PrefixRule : byte_t { anyBits, noHostBits };

/// The first fault of a row, or none.
struct RowFault {
  RowFaultKind kind = RowFaultKind::none;
  std::size_t offset = 0;  ///< of the faulty field or value, from the row's first byte

  explicit operator bool() const { return kind != RowFaultKind::none; }
  /// One line: "two values share a byte (at byte 40)".
  KORVO_API std::string text() const;

  friend bool operator==(const RowFault&, const RowFault&) = default;
};

/// Checks `length` received bytes against the layout of the table's rows. Throws nothing, allocates
/// nothing, uses a fixed amount of stack, and takes time linear in `length` and in the layout's
/// columns. Its answer rests on one reading of each length field. Safe from any thread.
KORVO_API RowFault checkRow(const void* bytes, std::size_t length, const LayoutInfo& layout,
                            PrefixRule prefixes = PrefixRule::anyBits) noexcept;

}  // namespace Korvo
