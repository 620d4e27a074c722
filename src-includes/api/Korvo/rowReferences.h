#pragma once

// Value references: the values of a row in place, with the orders and hashes that tables sort and
// index by. They own nothing, and are valid until the row they point into is next written, adopted,
// or destroyed by its last holder.

#include <Korvo/assertion.h>
#include <Korvo/rowFormat.h>

#include <algorithm>
#include <cstring>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Korvo {
namespace detail {

/// The first `count` bytes, at most 8, as a number that orders as they do; bytes that are missing
/// count as zero.
inline std::uint64_t leadingBytes(const void* bytes, std::size_t count) noexcept {
  byte_t first[8] = {};
  if (count != 0) std::memcpy(first, bytes, std::min(count, sizeof first));
  std::uint64_t number = 0;
  for (const byte_t byte : first) number = number << 8 | byte;
  return number;
}

}  // namespace detail

/// The bytes of a string column; any byte value, not terminated. Null: no pointer, length 0.
class StringValueReference {
 public:
  constexpr StringValueReference() = default;
  /// Of `length` bytes from `data` on.
  constexpr StringValueReference(const char* data, len_t length) : data_(data), length_(length) {}

  /// The first byte.
  constexpr const char* data() const { return data_; }
  /// In bytes.
  constexpr len_t length() const { return length_; }
  /// The same as length().
  constexpr len_t size() const { return length_; }
  /// Whether there is no byte.
  constexpr bool empty() const { return length_ == 0; }
  /// The text as a view, valid as long as this reference.
  constexpr std::string_view view() const { return {data_, length_}; }
  /// Every reader of text takes a view.
  constexpr operator std::string_view() const { return view(); }  // NOLINT

  /// All bytes count.
  bool operator==(const StringValueReference& other) const {
    return length_ == other.length_ && compareCommon(other) == 0;
  }
  bool operator!=(const StringValueReference& other) const { return !(*this == other); }
  /// With any text: `row.view<"name">() == "eth0"`.
  friend bool operator==(const StringValueReference& text, std::string_view other) {
    return text.view() == other;
  }
  /// < and > are lexicographic: a proper prefix comes first.
  bool operator<(const StringValueReference& other) const {
    const int order = compareCommon(other);
    return order < 0 || (order == 0 && length_ < other.length_);
  }
  bool operator>(const StringValueReference& other) const { return other < *this; }
  /// <= and >= compare only the leading bytes that both have, on purpose: "abc" <= "ab" holds, and
  /// a <= b is not !(a > b). Tables are sorted and indexed by these rules.
  bool operator<=(const StringValueReference& other) const { return compareCommon(other) <= 0; }
  bool operator>=(const StringValueReference& other) const { return compareCommon(other) >= 0; }

  /// A number that sorts faster than the value: of two values the one with the smaller key is <
  /// the other. Equal keys say nothing. The same on every host.
  std::uint64_t orderKey() const noexcept { return detail::leadingBytes(data_, length_); }

 private:
  int compareCommon(const StringValueReference& other) const {
    const len_t common = std::min(length_, other.length_);
    return common == 0 ? 0 : std::memcmp(data_, other.data_, common);
  }

  const char* data_ = nullptr;
  len_t length_ = 0;
};

/// The bytes of an address column, 4 or 16 in network order. Null: no pointer, family unknown_.
class IpGenAddrReference {
 public:
  constexpr IpGenAddrReference() = default;
  /// Of the 4 or 16 bytes from `addr` on.
  constexpr IpGenAddrReference(const byte_t* addr, AddressFamily af)
      : addr_(addr), af_(static_cast<byte_t>(af)) {}

  /// The address's first byte; null for a null reference.
  constexpr const byte_t* addr() const { return addr_; }
  /// The family; unknown_ also for an encoded value of a wrong length.
  constexpr AddressFamily af() const { return static_cast<AddressFamily>(af_); }

  /// What the value would give; "<null>" without a family.
  std::string toString() const { return af_ == unknown_ ? "<null>" : IpGenAddr(*this).toString(); }
  /// The same with IPv6 in its short form (RFC 5952).
  std::string toShortString() const {
    return af_ == unknown_ ? "<null>" : IpGenAddr(*this).toShortString();
  }

  /// By family first, then by address; all references of family unknown_ are equal, and no byte of
  /// theirs is read.
  bool operator==(const IpGenAddrReference& other) const { return compare(other) == 0; }
  bool operator!=(const IpGenAddrReference& other) const { return compare(other) != 0; }
  /// With a value: `row.view<"peer">() == address`.
  friend bool operator==(const IpGenAddrReference& addr, const IpGenAddr& value) {
    return addr == IpGenAddrReference(value.bytes(), value.af());
  }
  /// By family first, then by address.
  bool operator<(const IpGenAddrReference& other) const { return compare(other) < 0; }
  bool operator>(const IpGenAddrReference& other) const { return compare(other) > 0; }
  bool operator<=(const IpGenAddrReference& other) const { return compare(other) <= 0; }
  bool operator>=(const IpGenAddrReference& other) const { return compare(other) >= 0; }

  /// As StringValueReference's. IPv4 addresses of one key are equal.
  std::uint64_t orderKey() const noexcept {
    if (af_ == ipv4_) return std::uint64_t{1} << 62 | detail::leadingBytes(addr_, ipv4Length) >> 32;
    return af_ == ipv6_ ? std::uint64_t{2} << 62 | detail::leadingBytes(addr_, ipv6Length) >> 2 : 0;
  }

 private:
  int compare(const IpGenAddrReference& other) const {
    if (af_ != other.af_) return af_ < other.af_ ? -1 : 1;
    if (af_ == unknown_) return 0;
    return af_ == ipv6_ ? std::memcmp(addr_, other.addr_, ipv6Length)
                        : std::memcmp(addr_, other.addr_, ipv4Length);
  }

  const byte_t* addr_ = nullptr;
  byte_t af_ = unknown_;
};

/// The bytes of a prefix column: the address behind the prefix-length byte. Null: no pointer,
/// family unknown_, length 0.
class IpGenPrefixReference {
 public:
  constexpr IpGenPrefixReference() = default;
  /// Of the 4 or 16 bytes from `addr` on.
  constexpr IpGenPrefixReference(const byte_t* addr, AddressFamily af, byte_t mask)
      : addr_(addr), af_(static_cast<byte_t>(af)), mask_(mask) {}

  /// The address's first byte; null for a null reference.
  constexpr const byte_t* addr() const { return addr_; }
  /// The family; unknown_ also for an encoded value of a wrong length.
  constexpr AddressFamily af() const { return static_cast<AddressFamily>(af_); }
  /// The prefix length as it is stored; nobody has checked it.
  constexpr byte_t mask() const { return mask_; }

  /// The value without its host bits, the reset value without a family. Throws KoOutOfRange for a
  /// length that the family does not have.
  IpGenPrefix network() const { return IpGenPrefix(*this).network(); }
  /// What the value would give; "<null>" without a family.
  std::string toString() const {
    return af_ == unknown_ ? "<null>" : IpGenPrefix(*this).toString();
  }
  /// The same with IPv6 in its short form (RFC 5952).
  std::string toShortString() const {
    return af_ == unknown_ ? "<null>" : IpGenPrefix(*this).toShortString();
  }

  /// Whether the other's address lies in this prefix; the other's length is not looked at, on
  /// purpose. Stops the process when both families are unknown_.
  bool contains(const IpGenPrefixReference& other) const;

  /// All address bytes count, host bits included.
  bool operator==(const IpGenPrefixReference& other) const {
    return mask_ == other.mask_ && address() == other.address();
  }
  bool operator!=(const IpGenPrefixReference& other) const { return !(*this == other); }
  /// With a value: `row.view<"net">() == prefix`.
  friend bool operator==(const IpGenPrefixReference& prefix, const IpGenPrefix& value) {
    return prefix.mask_ == value.mask() && prefix.address() == value.addr();
  }
  /// A more specific prefix comes before one that contains it, others by address. Prefixes of one
  /// length that differ only in host bits are neither < nor > nor ==. Ordering two references of
  /// family unknown_ stops the process: contains() comes before the family is looked at.
  bool operator<(const IpGenPrefixReference& other) const {
    if (mask_ < other.mask_ ? contains(other) : other.contains(*this)) return mask_ > other.mask_;
    return address() < other.address();
  }
  bool operator>(const IpGenPrefixReference& other) const { return other < *this; }
  bool operator<=(const IpGenPrefixReference& other) const {
    return *this < other || *this == other;
  }
  bool operator>=(const IpGenPrefixReference& other) const {
    return other < *this || other == *this;
  }

  /// As StringValueReference's. IPv4 prefixes of one key are neither < nor > each other.
  std::uint64_t orderKey() const noexcept;

 private:
  constexpr IpGenAddrReference address() const { return {addr_, af()}; }

  const byte_t* addr_ = nullptr;
  byte_t af_ = unknown_;
  byte_t mask_ = 0;
};

/// Writes the bytes as they are, exactly as many as there are.
KORVO_API std::ostream& operator<<(std::ostream& os, const StringValueReference& text);
/// Writes the text escaped and between double quotes.
KORVO_API std::ostream& operator<<(std::ostream& os, const FMT<StringValueReference>& text);
/// These two write "<null>" for a null reference, otherwise what the value would write.
KORVO_API std::ostream& operator<<(std::ostream& os, const IpGenAddrReference& addr);
/// Throws KoOutOfRange for a prefix length that the family does not have.
KORVO_API std::ostream& operator<<(std::ostream& os, const IpGenPrefixReference& prefix);

// ---------------------------------------------------------------------------------------------
// Inline bodies

inline bool IpGenPrefixReference::contains(const IpGenPrefixReference& other) const {
  if (af_ != other.af_) return false;
  KORVO_ASSERT(
      af_ == ipv4_ || af_ == ipv6_, "af_ == ipv4_ || af_ == ipv6_", detail::rowHeader,
      "bool Korvo::IpGenPrefixReference::contains(const Korvo::IpGenPrefixReference&) const");
  if (mask_ > 8 * (af_ == ipv4_ ? ipv4Length : ipv6Length)) return false;
  if (mask_ == 0) return true;
  const unsigned int wholeBytes = (mask_ - 1U) / 8;
  if (std::memcmp(addr_, other.addr_, wholeBytes) != 0) return false;
  return ((addr_[wholeBytes] ^ other.addr_[wholeBytes]) & byteMaskTbl[mask_ - 8 * wholeBytes]) == 0;
}

inline std::uint64_t IpGenPrefixReference::orderKey() const noexcept {
  // A prefix comes behind all that it contains: where its last address stands, and there behind the
  // longer ones. A length that the family does not have contains nothing, as one more bit would.
  const std::uint64_t family = std::uint64_t{af_} << 62;
  if (af_ == ipv4_) {
    const unsigned int length = std::min<unsigned int>(mask_, 8 * ipv4Length + 1);
    const std::uint64_t hostBits = length > 32 ? 0 : ~std::uint64_t{0} >> 32 >> length;
    const std::uint64_t last = detail::leadingBytes(addr_, ipv4Length) >> 32 | hostBits;
    return family | last << 8 | (8 * ipv4Length + 1 - length);
  }
  if (af_ != ipv6_) return 0;
  const std::uint64_t hostBits = mask_ >= 64 ? 0 : ~std::uint64_t{0} >> mask_;
  return family | (detail::leadingBytes(addr_, ipv6Length) | hostBits) >> 2;
}

namespace detail {

/// The 32-bit MurmurHash2: what the standard string hash of the system's 32-bit hosts gives. The
/// same on every word size, because hashes are compared between processes.
inline std::uint32_t hashString(const byte_t* bytes, std::size_t length) noexcept {
  constexpr std::uint32_t seed = 0xC70F6907U;
  constexpr std::uint32_t factor = 0x5BD1E995U;
  std::uint32_t h = seed ^ static_cast<std::uint32_t>(length);
  for (; length >= 4; bytes += 4, length -= 4) {
    std::uint32_t k = loadField<std::uint32_t>(bytes) * factor;
    k ^= k >> 24;
    h = h * factor ^ k * factor;
  }
  if (length != 0) {
    for (std::size_t i = 0; i < length; ++i) h ^= static_cast<std::uint32_t>(bytes[i]) << 8 * i;
    h *= factor;
  }
  h ^= h >> 13;
  h *= factor;
  return h ^ h >> 15;
}

inline constexpr std::uint32_t goldenRatio = 0x9E3779B9U;

/// Hash of the bytes of an address.
inline std::uint32_t hashBytes(const byte_t* bytes, std::size_t length) noexcept {
  std::uint32_t h = 0;
  for (std::size_t i = 0; i < length; ++i) h ^= (h << 6) + (h >> 2) + bytes[i] + goldenRatio;
  return h;
}

// The hashes of columns: part of the contract, as is their being 0 for what has no family.

inline std::uint32_t hashOf(const StringValueReference& text) noexcept {
  return hashString(reinterpret_cast<const byte_t*>(text.data()), text.length());
}
inline std::uint32_t hashOf(const IpGenAddrReference& addr) noexcept {
  return hashBytes(addr.addr(), encodedAddressLength(addr.af()));
}
inline std::uint32_t hashOf(const IpGenPrefixReference& prefix) noexcept {
  if (prefix.af() == unknown_) return 0;
  const std::uint32_t seed = prefix.mask() + goldenRatio;
  const std::uint32_t address = hashBytes(prefix.addr(), encodedAddressLength(prefix.af()));
  return seed ^ (address + goldenRatio + (seed << 6) + (seed >> 2));
}

}  // namespace detail
}  // namespace Korvo
