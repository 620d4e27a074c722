#pragma once

// The form of rows: the encoded table rows that all processes exchange byte for byte.
//
// A row buffer, from its first byte; all fields are little-endian and may stand at odd offsets:
//
//    0        2        4                 8                     base length           row length
//   +--------+--------+-----------------+---------------------+---------------------+
//   | row    | row    | row oid         | fixed area: columns | variable area:      |--> grows
//   | length | type   |                 | of fixed width and  | encoded values in   |
//   | 2      | 2      | 4               | 4-byte slots        | any order, and gaps |
//   +--------+--------+-----------------+---------------------+---------------------+
//
// A slot, one for each variable-length column:
//
//    0             2                  bit 15 of the second word
//   +-------------+----------------+-+
//   | data offset | data length    |a|   offset counted from the row's first byte, 0 when empty;
//   | 2           | 15 bits        | |   a: the column holds an array
//   +-------------+----------------+-+
//
// An array of n variable-length elements, the value of one column:
//
//    0             2                         2+4n
//   +-------------+-------------------------+-----------------------------+
//   | count, mark | n slots (offset from    | elements in order, no gaps  |
//   | 12 bits + 4 | here, length)           |                             |
//   +-------------+-------------------------+-----------------------------+
//
// An array of fixed-width elements has no slots: element i is byte 2+i.

#include <Korvo/export.h>
#include <Korvo/korvo_types.h>

#include <algorithm>
#include <cstdlib>
#include <type_traits>

namespace Korvo {

inline constexpr len_t rowLengthOffset = 0;             ///< of the row length in a row's header
inline constexpr len_t rowTypeOffset = 2;               ///< of the row type in the header
inline constexpr len_t rowOidOffset = 4;                ///< of the oid in the header
inline constexpr len_t rowHeaderLength = 8;             ///< bytes of the header
inline constexpr std::size_t maxRowLength = 65535;      ///< bytes of the longest row
inline constexpr std::size_t maxValueLength = 32767;    ///< bytes of the longest encoded value
inline constexpr len_t arrayHeaderLength = 2;           ///< bytes of an array's header
inline constexpr unsigned int arrayCountMask = 0x0FFF;  ///< the count's bits in an array's header
/// Of the header's second byte: the count's upper bits.
inline constexpr byte_t arrayCountHighMask = 0x0F;
/// Of the header's second byte: elements of variable length.
inline constexpr byte_t arrayVariableMark = 0x10;
/// Of a slot's fourth byte: the column holds an array.
inline constexpr byte_t slotArrayMark = 0x80;
inline constexpr byte_t ipv4Length = 4;   ///< bytes of an IPv4 address
inline constexpr byte_t ipv6Length = 16;  ///< bytes of an IPv6 address

/// The slot of a variable-length column. It may stand at any address.
struct VColType {
  byte_t offsetBytes[2];  ///< the data offset
  byte_t lengthBytes[2];  ///< the data length, and the array mark as the highest bit

  /// Of the value, from the row's first byte; 0 when there is none.
  len_t offset() const noexcept { return loadField<len_t>(offsetBytes); }
  /// Of the encoded value, in bytes; 0 when the column is empty.
  len_t length() const noexcept {
    return static_cast<len_t>(loadField<len_t>(lengthBytes) & maxValueLength);
  }
  /// Whether the column holds an array, or did when it was cleared.
  bool isArray() const noexcept { return (lengthBytes[1] & slotArrayMark) != 0; }

  /// `length` is at most 32767.
  void valueIs(len_t offset, len_t length, bool isArray) noexcept {
    const std::uint32_t mark = isArray ? slotArrayMark : 0;
    storeField(this, std::uint32_t{offset} | std::uint32_t{length} << 16 | mark << 24);
  }
  /// The same for a value that stands where the column's present one does.
  void lengthIs(len_t length, bool isArray) noexcept {
    storeField(lengthBytes, static_cast<len_t>(length | (isArray ? slotArrayMark << 8 : 0)));
  }
  /// Makes the column empty. The array mark stays, on purpose: a cleared array column is still
  /// marked as one.
  void clear() noexcept { valueIs(0, 0, isArray()); }

  /// The slot that stands at `slotOffset` in a row or an array; valid as long as the buffer.
  static const VColType& at(const byte_t* buf, std::size_t slotOffset) noexcept {
    return *reinterpret_cast<const VColType*>(buf + slotOffset);
  }
  /// The same for writing.
  static VColType& at(byte_t* buf, std::size_t slotOffset) noexcept {
    return *reinterpret_cast<VColType*>(buf + slotOffset);
  }
};
static_assert(sizeof(VColType) == 4 && alignof(VColType) == 1 && std::is_trivial_v<VColType>);

/// Owner of one row buffer, a block of malloc, calloc or realloc that it frees.
class KORVO_API KoRowBuf {
 public:
  /// Takes over `buf`, which may be null.
  explicit KoRowBuf(byte_t* buf = nullptr) noexcept : buf_(buf) {}
  ~KoRowBuf() { std::free(buf_); }
  KoRowBuf(const KoRowBuf&) = delete;
  KoRowBuf& operator=(const KoRowBuf&) = delete;

  byte_t* buf_;  ///< the block; null for none
};

namespace detail {

/// The file that assertions of this module's headers name.
inline constexpr const char* rowHeader = "src-includes/api/Korvo/baseRow.h";

constexpr std::size_t encodedAddressLength(AddressFamily af) {
  return af == ipv4_ ? ipv4Length : af == ipv6_ ? ipv6Length : 0;
}
/// The family that an encoded address of `length` bytes has; the length alone tells it.
constexpr AddressFamily familyOfAddress(std::size_t length) {
  return length == ipv4Length ? ipv4_ : length == ipv6Length ? ipv6_ : unknown_;
}
/// The family that an encoded prefix of `length` bytes has.
constexpr AddressFamily familyOfPrefix(std::size_t length) {
  return length == ipv4Length + 1U ? ipv4_ : length == ipv6Length + 1U ? ipv6_ : unknown_;
}

/// The place that values take in a row.
struct Extent {
  unsigned int end;       ///< behind the last one, at least the base length
  unsigned int used = 0;  ///< bytes of all of them

  void add(unsigned int offset, unsigned int length) noexcept {
    if (length == 0) return;  // whatever offset the slot still names
    end = std::max(end, offset + length);
    used += length;
  }
  void add(const VColType& slot) noexcept { add(slot.offset(), slot.length()); }
};

}  // namespace detail
}  // namespace Korvo
