#pragma once

// What indexes compare: a column's value as bytes that order as the values do.

#include <Korvo/TableRow.h>

#include <cstring>
#include <span>
#include <string_view>

namespace Korvo::detail {

/// One column of a key. Text stays where it lies, in the row or with the caller, and must live as
/// long as the part; everything else is held in the part.
///
/// Numbers order by value, text and addresses byte by byte (IPv4 before IPv6, null first), prefixes
/// by family, address and then length, so that a prefix stands before those that it contains.
class KeyPart {
 public:
  KeyPart() = default;

  static KeyPart ofUnsigned(std::uint64_t number) {
    KeyPart part;
    part.putBigEndian(number);
    return part;
  }
  static KeyPart ofSigned(std::int64_t number) {
    return ofUnsigned(static_cast<std::uint64_t>(number) ^ signBit);
  }
  /// -0 stands right before 0 and is another key; NaNs stand outside the infinities.
  static KeyPart ofDouble(double number) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    return ofUnsigned((bits & signBit) != 0 ? ~bits : bits ^ signBit);
  }
  static KeyPart ofText(std::string_view text) {
    KeyPart part;
    part.text_ = text.data();
    part.length_ = static_cast<std::uint32_t>(text.size());
    return part;
  }
  static KeyPart ofAddress(AddressFamily af, const byte_t* bytes) {
    KeyPart part;
    part.putAddress(af, bytes);
    return part;
  }
  static KeyPart ofPrefix(AddressFamily af, const byte_t* bytes, unsigned int mask) {
    KeyPart part;
    part.putAddress(af, bytes);
    if (af != unknown_) part.own_[part.length_++] = static_cast<byte_t>(mask);
    return part;
  }

  /// The column of a row. A column that no index takes (an array or a nested row) has none.
  static KeyPart ofColumn(const BaseRow& row, const ColumnInfo& column);
  static bool canIndex(const ColumnInfo& column) {
    return !column.isArray && column.type != structType_;
  }

  std::string_view bytes() const {
    return {text_ != nullptr ? text_ : reinterpret_cast<const char*>(own_), length_};
  }
  int compare(const KeyPart& other) const { return bytes().compare(other.bytes()); }

 private:
  static constexpr std::uint64_t signBit = std::uint64_t{1} << 63;

  void putBigEndian(std::uint64_t number) {
    for (int shift = 56; shift >= 0; shift -= 8) {
      own_[length_++] = static_cast<byte_t>(number >> shift & 0xFF);
    }
  }
  void putAddress(AddressFamily af, const byte_t* bytes) {
    const std::size_t count = encodedAddressLength(af);
    if (count == 0) return;
    own_[0] = static_cast<byte_t>(af);
    std::memcpy(own_ + 1, bytes, count);
    length_ = static_cast<std::uint32_t>(1 + count);
  }

  const char* text_ = nullptr;
  std::uint32_t length_ = 0;
  byte_t own_[2 + ipv6Length];  ///< as far as `length_`
};

/// Compares keys of as many parts, the first part first.
int compareKeys(std::span<const KeyPart> a, std::span<const KeyPart> b);
std::uint64_t hashKey(std::span<const KeyPart> key);

}  // namespace Korvo::detail
