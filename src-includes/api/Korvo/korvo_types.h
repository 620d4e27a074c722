#pragma once

// Column value types, exceptions and network address values.
//
//   Korvo::IpGenPrefix net("10.0.0.0/8");
//   if (net.contains(Korvo::IpGenPrefix("10.1.0.0/16"))) {
//     std::cout << net << '\n';  // 10.0.0.0/8
//   }
//
// Everything here is a plain value or a pure function: safe to use from any thread, as long as no
// other thread changes the same object or writes to the same stream.

#include <Korvo/bytes.h>
#include <Korvo/export.h>

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>

#pragma GCC visibility push(default)
#include <Velto/Exception.h>
#pragma GCC visibility pop

namespace Korvo {

/// Shared ownership with atomic use counts.
template <typename T>
using KoPtr = std::shared_ptr<T>;

// ---------------------------------------------------------------------------------------------
// Exceptions

/// Root of every exception that a caller can provoke. Thrown by value.
class KORVO_API KoBaseException : public Velto::Exception {
 public:
  KoBaseException(const std::string& message, const std::string& className);
  KoBaseException(const KoBaseException&) = default;
  KoBaseException& operator=(const KoBaseException&) = default;
  ~KoBaseException() override;

  /// The fixed class name, for logs; valid as long as this object. Not every text is the class's
  /// C++ name: catchers depend on the texts as they are.
  virtual const char* name() const;

 private:
  std::string name_;
};

/// A text or setting that is no address or prefix.
class KORVO_API KoInvalidArgument : public KoBaseException {
 public:
  explicit KoInvalidArgument(const std::string& message);
};

/// A type name that the catalogue does not know; the message is the name.
class KORVO_API KoInvalidTypeName : public KoBaseException {
 public:
  explicit KoInvalidTypeName(const std::string& message);
};

/// A prefix length, an array index or a row length out of its range.
class KORVO_API KoOutOfRange : public KoBaseException {
 public:
  explicit KoOutOfRange(const std::string& message);
};

/// Use of a row that has no buffer; the message is "null row".
class KORVO_API KoNullRow : public KoBaseException {
 public:
  KoNullRow();
};

/// Invoking a scheduler unit that is disabled.
class KORVO_API KoSchedulableDisabled : public KoBaseException {
 public:
  explicit KoSchedulableDisabled(const std::string& message);
};

// ---------------------------------------------------------------------------------------------
// Value types

/// The column value types. The numbers are part of the row format.
enum KorvoTypes : std::uint32_t {
  uint8Type_ = 0,
  uint16Type_ = 1,
  uint32Type_ = 2,
  uint64Type_ = 3,
  int8Type_ = 4,
  int16Type_ = 5,
  int32Type_ = 6,
  int64Type_ = 7,
  floatType_ = 8,
  doubleType_ = 9,
  boolType_ = 10,
  stringType_ = 11,
  structType_ = 12,
  oidType_ = 13,
  lenType_ = 14,
  ipAddrType_ = 15,
  ip6AddrType_ = 16,
  ipGenAddrType_ = 17,
  ipGenPrefixType_ = 18
};

/// Hashes a type to its own number.
struct hash {
  std::size_t operator()(KorvoTypes type) const noexcept { return type; }
};

/// Bytes that a column of the type takes in the fixed part of a row; 0 for an unknown type.
KORVO_API unsigned short getKorvoTypeLength(unsigned short type);

/// Whether the type keeps its data in the row's variable area; false for an unknown type.
KORVO_API bool korvoTypeIsVariableLength(KorvoTypes type);

/// The type's printable name, valid until the process ends. Throws std::out_of_range with the text
/// "_Map_base::at" for an unknown type.
KORVO_API const std::string& getKorvoTypeName(KorvoTypes type);

/// The type of a name used in table definitions; every qualified name ("ns::Row") is a nested row.
/// Throws KoInvalidTypeName for any other name.
KORVO_API KorvoTypes korvoCppTypeNameToType(const std::string& name);

/// Prints a value whose default stream form is not what a reader wants: bytes as numbers, booleans
/// as words, strings in quotes and escaped.
template <typename T>
class FMT {
 public:
  explicit FMT(T value) : value_(std::move(value)) {}
  const T& value() const { return value_; }

 private:
  T value_;
};

/// Any value without a form of its own below prints as it does without FMT.
template <typename T>
std::ostream& operator<<(std::ostream& os, const FMT<T>& value) {
  return os << value.value();
}
KORVO_API std::ostream& operator<<(std::ostream& os, const FMT<unsigned char>& byte);
KORVO_API std::ostream& operator<<(std::ostream& os, const FMT<signed char>& byte);
/// Leaves std::ios_base::boolalpha set on the stream, on purpose.
KORVO_API std::ostream& operator<<(std::ostream& os, const FMT<bool>& value);
/// The stream's width and fill apply to the opening quote.
KORVO_API std::ostream& operator<<(std::ostream& os, const FMT<std::string>& text);

/// Entry n is a byte with its top n bits set. Prefix comparison reads it: do not change it.
extern KORVO_API unsigned char byteMaskTbl[9];

// ---------------------------------------------------------------------------------------------
// Addresses

enum AddressFamily : std::uint32_t { unknown_ = 0, ipv4_ = 1, ipv6_ = 2 };

/// An IPv4 address: a 32-bit word in network byte order.
class KORVO_API IpAddr {
 public:
  constexpr IpAddr() = default;
  constexpr explicit IpAddr(unsigned int word) : addr_(word) {}
  /// Parses dotted text; throws KoInvalidArgument "Invalid Address - (text)".
  explicit IpAddr(const std::string& text);

  constexpr unsigned int addr() const { return addr_; }

  friend constexpr bool operator==(const IpAddr&, const IpAddr&) = default;
  /// Numeric order of the addresses.
  friend constexpr std::strong_ordering operator<=>(const IpAddr& a, const IpAddr& b) {
    return __builtin_bswap32(a.addr_) <=> __builtin_bswap32(b.addr_);
  }

 private:
  unsigned int addr_ = 0;
};

/// An IPv6 address: 16 bytes in network byte order.
class KORVO_API Ip6Addr {
 public:
  constexpr Ip6Addr() = default;
  /// Takes 16 bytes.
  explicit Ip6Addr(const unsigned char* bytes) { std::memcpy(bytes_, bytes, sizeof bytes_); }
  /// Parses text; throws KoInvalidArgument "Invalid Address - (text)".
  explicit Ip6Addr(const std::string& text);

  /// The 16 bytes; valid as long as this object.
  const unsigned char* bytes() const { return bytes_; }

  /// Zeroes every bit after the first `prefixLen` bits of the first `addrLenBytes` (4 or 16) bytes;
  /// nothing if there is no such bit.
  void clearLowerAddrBits(unsigned short prefixLen, unsigned short addrLenBytes);

  friend bool operator==(const Ip6Addr& a, const Ip6Addr& b) {
    return std::memcmp(a.bytes_, b.bytes_, sizeof a.bytes_) == 0;
  }
  /// Numeric order of the addresses.
  friend std::strong_ordering operator<=>(const Ip6Addr& a, const Ip6Addr& b) {
    const auto first = a.half(0) <=> b.half(0);
    return std::is_neq(first) ? first : a.half(8) <=> b.half(8);
  }

 private:
  /// Eight bytes as a number whose order is theirs.
  std::uint64_t half(unsigned int at) const {
    return __builtin_bswap64(loadField<std::uint64_t>(bytes_ + at));
  }

  unsigned char bytes_[16] = {};
};

/// An address of either family. The zero value (family unknown_) stands for no address.
class KORVO_API IpGenAddr {
 public:
  IpGenAddr() = default;
  IpGenAddr(IpAddr addr);          // NOLINT(google-explicit-constructor): keeps the value
  IpGenAddr(const Ip6Addr& addr);  // NOLINT(google-explicit-constructor): keeps the value
  /// Takes 16 bytes for ipv6_, otherwise 4; the rest of the storage is zero. Checks nothing.
  IpGenAddr(AddressFamily af, const unsigned char* bytes);
  /// Parses an address: text with a dot anywhere is IPv4, all other text IPv6. Throws
  /// KoInvalidArgument "Invalid Address - (text)".
  explicit IpGenAddr(const std::string& text);

  AddressFamily af() const { return af_; }
  /// The 16 bytes of storage; valid as long as this object. An IPv4 address is in the first 4.
  const unsigned char* bytes() const { return storage_.bytes(); }
  /// 0, 4 or 16. Stops the process if the family is none of the three.
  int addressLengthBytes() const;
  /// Zeroes every bit after the first `prefixLen`; does nothing for family unknown_. Stops the
  /// process if the family is none of the three.
  void clearLowerAddrBits(unsigned short prefixLen);

  friend bool operator==(const IpGenAddr&, const IpGenAddr&) = default;
  /// By family first, then by address.
  // NOLINTNEXTLINE(modernize-use-nullptr): the tool sees a zero that is not there
  friend std::strong_ordering operator<=>(const IpGenAddr&, const IpGenAddr&) = default;

 private:
  AddressFamily af_ = unknown_;
  Ip6Addr storage_;
};

/// An address and a prefix length. Host bits (after the length) are zero when the value was parsed
/// or set; the constructors from an address keep them as given.
class KORVO_API IpGenPrefix {
 public:
  /// The reset value: family unknown_, all zero.
  IpGenPrefix() = default;
  /// These four throw KoOutOfRange "Invalid IPv4 Prefix Length" or "Invalid IPv6 Prefix Length" for
  /// a length above 32 or 128; family unknown_ takes any length. They keep host bits as given.
  IpGenPrefix(IpAddr addr, unsigned int len);
  IpGenPrefix(const Ip6Addr& addr, unsigned int len);
  IpGenPrefix(const IpGenAddr& addr, unsigned int len);
  /// Takes 16 bytes for ipv6_, otherwise 4.
  IpGenPrefix(AddressFamily af, unsigned int len, const unsigned char* bytes);
  /// Parses "address/length"; empty pieces beside a slash do not count. The length may have white
  /// space and a sign before it and anything after it, and without digits it is 0. Throws
  /// KoInvalidArgument "Prefix missing subnet", "Invalid Prefix - (text)" for a second length or
  /// "Invalid Address - (address)"; KoOutOfRange for a length beyond the family's, as above, or
  /// "Invalid Prefix - non-zero after prefixlen" for host bits that validPrefix finds.
  explicit IpGenPrefix(const std::string& text);

  const IpGenAddr& addr() const { return addr_; }
  unsigned int mask() const { return mask_; }

  void reset() { *this = IpGenPrefix(); }

  /// Whether the other's address lies in this prefix; the other's length is not looked at. Stops
  /// the process when both families are unknown_.
  bool contains(const IpGenPrefix& other) const;
  /// A more specific prefix comes before one that contains it; others by address. Stops the process
  /// when both families are unknown_.
  bool operator<(const IpGenPrefix& other) const;
  /// Family, all 16 bytes of storage (host bits included) and length.
  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;

  /// Zeroes the host bits, for the prefix's own length (modulo 65536) or a given one; the length
  /// stays.
  void clearLowerAddrBits() { clearLowerAddrBits(static_cast<unsigned short>(mask_)); }
  void clearLowerAddrBits(unsigned short len) { addr_.clearLowerAddrBits(len); }

  // Setters. On a throw the prefix is as before. On family unknown_, addrIs and maskIs take
  // anything. "Host bits" are those that validPrefix examines.

  /// Throws KoInvalidArgument on a change of family, KoOutOfRange if host bits are set.
  void addrIs(const IpGenAddr& addr);
  /// Throws KoOutOfRange if host bits are set or the length is beyond the family's.
  void maskIs(unsigned int len);
  /// Re-validates the present value; it gives no family to a prefix that has none (that throws
  /// KoOutOfRange). Throws KoInvalidArgument on a change of family.
  void afIs(AddressFamily af);

 private:
  IpGenAddr addr_;
  unsigned int mask_ = 0;
};

/// Parses dotted IPv4 text (four decimal numbers, leading zeros allowed) into a word in network
/// byte order and returns nonzero; on failure returns 0 and leaves `*out` as it was.
KORVO_API int strToV4Addr(const std::string& text, unsigned int* out);
/// Whether strToV4Addr takes the text.
KORVO_API bool validV4Addr(const std::string& text);
/// Writes out the "::" of an IPv6 text; throws KoInvalidArgument "Invalid Address - (text)" on a
/// second "::".
KORVO_API std::string expandV6Addr(const std::string& text);
/// Whether expanded text has eight groups of one to four characters; which characters is not
/// looked at, on purpose, and empty groups do not count.
KORVO_API bool validV6Addr(const std::string& text);
/// Whether `len` fits the address's family and no host bit is set. The word in which the host part
/// begins is not examined when `len` is 0, 32, 64 or 96, on purpose.
KORVO_API bool validPrefix(IpGenAddr addr, int len);

/// "10.1.0.9"; the stream's width and fill apply to the whole text.
KORVO_API std::ostream& operator<<(std::ostream& os, const IpAddr& addr);
/// Eight groups of four hexadecimal digits. Leaves the stream's fill at '0' and its base at
/// decimal, on purpose.
KORVO_API std::ostream& operator<<(std::ostream& os, const Ip6Addr& addr);
/// As the two above; "<unsupported address family>" for any other family.
KORVO_API std::ostream& operator<<(std::ostream& os, const IpGenAddr& addr);
/// "address/length". Leaves the stream's base at decimal, on purpose.
KORVO_API std::ostream& operator<<(std::ostream& os, const IpGenPrefix& prefix);

// ---------------------------------------------------------------------------------------------
// Inline bodies

static_assert(sizeof(IpAddr) == 4 && sizeof(Ip6Addr) == 16, "stored in rows as they are");
static_assert(sizeof(IpGenAddr) == 20 && sizeof(IpGenPrefix) == 24, "no padding to compare");

inline IpGenAddr::IpGenAddr(IpAddr addr) : af_(ipv4_) {
  unsigned char bytes[16] = {};
  storeField(bytes, addr.addr());
  storage_ = Ip6Addr(bytes);
}

inline IpGenAddr::IpGenAddr(const Ip6Addr& addr) : af_(ipv6_), storage_(addr) {}

inline IpGenAddr::IpGenAddr(AddressFamily af, const unsigned char* bytes) : af_(af) {
  if (af == ipv6_) {
    storage_ = Ip6Addr(bytes);
  } else {
    unsigned char padded[16] = {};
    std::memcpy(padded, bytes, 4);
    storage_ = Ip6Addr(padded);
  }
}

namespace detail {

/// The first `count` (1 to 64) bits of eight bytes, as loadField gives them. The byte in which they
/// end is masked by the exported table, the ones before it are whole.
inline std::uint64_t leadingBits(unsigned int count) noexcept {
  const unsigned int whole = (count - 1) & ~7U;
  return std::uint64_t{byteMaskTbl[count - whole]} << whole | ((std::uint64_t{1} << whole) - 1);
}

[[noreturn]] KORVO_API void containsWithoutFamily();

/// Every bit of the result depends on every bit of both arguments.
constexpr std::uint64_t hashMix(std::uint64_t seed, std::uint64_t value) noexcept {
  std::uint64_t x = seed * 0x9E3779B97F4A7C15 ^ value;
  x = (x ^ x >> 33) * 0xFF51AFD7ED558CCD;
  x = (x ^ x >> 33) * 0xC4CEB9FE1A85EC53;
  return x ^ x >> 33;
}

/// The 16 bytes of an address.
inline std::uint64_t hashStorage(std::uint64_t seed, const unsigned char* bytes) noexcept {
  return hashMix(hashMix(seed, loadField<std::uint64_t>(bytes)),
                 loadField<std::uint64_t>(bytes + 8));
}

}  // namespace detail

inline bool IpGenPrefix::contains(const IpGenPrefix& other) const {
  const AddressFamily af = addr_.af();
  if (af != other.addr_.af()) return false;
  if (af != ipv4_ && af != ipv6_) detail::containsWithoutFamily();
  if (mask_ > (af == ipv4_ ? 32U : 128U)) return false;
  if (mask_ == 0) return true;
  const unsigned char* a = addr_.bytes();
  const unsigned char* b = other.addr_.bytes();
  unsigned int bits = mask_;
  for (; bits > 64; bits -= 64, a += 8, b += 8) {
    if (loadField<std::uint64_t>(a) != loadField<std::uint64_t>(b)) return false;
  }
  const std::uint64_t differing = loadField<std::uint64_t>(a) ^ loadField<std::uint64_t>(b);
  return (differing & detail::leadingBits(bits)) == 0;
}

inline bool IpGenPrefix::operator<(const IpGenPrefix& other) const {
  if (addr_.af() != other.addr_.af()) return addr_.af() < other.addr_.af();
  const bool isNested = mask_ < other.mask_ ? contains(other) : other.contains(*this);
  return isNested ? mask_ > other.mask_ : addr_ < other.addr_;
}

}  // namespace Korvo

// Hashes that go with ==, for unordered containers. The values may change with the library's
// version: do not store them.

template <>
struct std::hash<Korvo::IpAddr> {
  std::size_t operator()(const Korvo::IpAddr& addr) const noexcept {
    return static_cast<std::size_t>(Korvo::detail::hashMix(1, addr.addr()));
  }
};

template <>
struct std::hash<Korvo::Ip6Addr> {
  std::size_t operator()(const Korvo::Ip6Addr& addr) const noexcept {
    return static_cast<std::size_t>(Korvo::detail::hashStorage(1, addr.bytes()));
  }
};

template <>
struct std::hash<Korvo::IpGenAddr> {
  std::size_t operator()(const Korvo::IpGenAddr& addr) const noexcept {
    return static_cast<std::size_t>(Korvo::detail::hashStorage(addr.af() + 1ULL, addr.bytes()));
  }
};

template <>
struct std::hash<Korvo::IpGenPrefix> {
  std::size_t operator()(const Korvo::IpGenPrefix& prefix) const noexcept {
    const std::uint64_t seed = prefix.addr().af() + 1ULL + (std::uint64_t{prefix.mask()} << 32);
    return static_cast<std::size_t>(Korvo::detail::hashStorage(seed, prefix.addr().bytes()));
  }
};
