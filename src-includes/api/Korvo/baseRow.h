#pragma once

// Rows: the encoded form of a table row that all processes exchange byte for byte.
//
//   row.setColumn<std::string>(nameSlot, "eth0", fdLen);  // fdLen: where the variable area begins
//   Korvo::StringValueReference name;
//   row.getColumn(nameSlot, name);                        // reads in place
//   std::cout << name << '\n';                            // eth0
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
//
// A row object belongs to one thread at a time. Its buffer may be shared with rows of other
// threads: a writer copies a shared buffer before it changes a byte.

#include <Korvo/assertion.h>
#include <Korvo/korvo_types.h>

#include <algorithm>
#include <atomic>
#include <compare>
#include <cstdlib>
#include <iterator>
#include <map>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define KORVO_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KORVO_THREAD_SANITIZER 1
#endif
#endif

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

// ---------------------------------------------------------------------------------------------
// Numbers of the row format

inline constexpr len_t rowLengthOffset = 0;
inline constexpr len_t rowTypeOffset = 2;
inline constexpr len_t rowOidOffset = 4;
inline constexpr len_t rowHeaderLength = 8;
inline constexpr std::size_t maxRowLength = 65535;
inline constexpr std::size_t maxValueLength = 32767;
inline constexpr len_t arrayHeaderLength = 2;
inline constexpr unsigned int arrayCountMask = 0x0FFF;
inline constexpr byte_t arrayCountHighMask = 0x0F;  // of the header's second byte
inline constexpr byte_t arrayVariableMark = 0x10;   // of the header's second byte
inline constexpr byte_t slotArrayMark = 0x80;       // of the slot's fourth byte
inline constexpr byte_t ipv4Length = 4;
inline constexpr byte_t ipv6Length = 16;

/// The slot of a variable-length column. It may stand at any address.
struct VColType {
  byte_t offsetBytes[2];
  byte_t lengthBytes[2];

  len_t offset() const noexcept { return loadField<len_t>(offsetBytes); }
  len_t length() const noexcept {
    return static_cast<len_t>(loadField<len_t>(lengthBytes) & maxValueLength);
  }
  bool isArray() const noexcept { return (lengthBytes[1] & slotArrayMark) != 0; }

  /// `length` is at most 32767.
  void valueIs(len_t offset, len_t length, bool isArray) noexcept {
    const std::uint32_t mark = isArray ? slotArrayMark : 0;
    storeField(this, std::uint32_t{offset} | std::uint32_t{length} << 16 | mark << 24);
  }
  /// Makes the column empty. The array mark stays, on purpose: a cleared array column is still
  /// marked as one.
  void clear() noexcept { valueIs(0, 0, isArray()); }

  static const VColType& at(const byte_t* buf, std::size_t slotOffset) noexcept {
    return *reinterpret_cast<const VColType*>(buf + slotOffset);
  }
  static VColType& at(byte_t* buf, std::size_t slotOffset) noexcept {
    return *reinterpret_cast<VColType*>(buf + slotOffset);
  }
};
static_assert(sizeof(VColType) == 4 && alignof(VColType) == 1 && std::is_trivial_v<VColType>);

/// Owner of one row buffer, a block of malloc, calloc or realloc that it frees.
class KORVO_API KoRowBuf {
 public:
  explicit KoRowBuf(byte_t* buf = nullptr) noexcept : buf_(buf) {}
  ~KoRowBuf() { std::free(buf_); }
  KoRowBuf(const KoRowBuf&) = delete;
  KoRowBuf& operator=(const KoRowBuf&) = delete;

  byte_t* buf_;
};

// ---------------------------------------------------------------------------------------------
// Value references: views of encoded values. They own nothing, and are valid until the row they
// point into is next written, adopted, or destroyed by its last holder.

/// The bytes of a string column; any byte value, not terminated. Null: no pointer, length 0.
class StringValueReference {
 public:
  constexpr StringValueReference() = default;
  constexpr StringValueReference(const char* data, len_t length) : data_(data), length_(length) {}

  constexpr const char* data() const { return data_; }
  constexpr len_t length() const { return length_; }
  constexpr len_t size() const { return length_; }
  constexpr bool empty() const { return length_ == 0; }
  constexpr std::string_view view() const { return {data_, length_}; }
  // Every reader of text takes a view.
  constexpr operator std::string_view() const { return view(); }  // NOLINT

  bool operator==(const StringValueReference& other) const {
    return length_ == other.length_ && compareCommon(other) == 0;
  }
  bool operator!=(const StringValueReference& other) const { return !(*this == other); }
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
  constexpr IpGenAddrReference(const byte_t* addr, AddressFamily af)
      : addr_(addr), af_(static_cast<byte_t>(af)) {}

  constexpr const byte_t* addr() const { return addr_; }
  constexpr AddressFamily af() const { return static_cast<AddressFamily>(af_); }

  /// By family first, then by address; all references of family unknown_ are equal, and no byte of
  /// theirs is read.
  bool operator==(const IpGenAddrReference& other) const {
    return af_ == other.af_ && compareBytes(other) == 0;
  }
  bool operator!=(const IpGenAddrReference& other) const { return !(*this == other); }
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
  int compareBytes(const IpGenAddrReference& other) const {
    if (af_ == unknown_) return 0;
    return af_ == ipv6_ ? std::memcmp(addr_, other.addr_, ipv6Length)
                        : std::memcmp(addr_, other.addr_, ipv4Length);
  }
  int compare(const IpGenAddrReference& other) const {
    return af_ != other.af_ ? (af_ < other.af_ ? -1 : 1) : compareBytes(other);
  }

  const byte_t* addr_ = nullptr;
  byte_t af_ = unknown_;
};

/// The bytes of a prefix column: the address behind the prefix-length byte. Null: no pointer,
/// family unknown_, length 0.
class IpGenPrefixReference {
 public:
  constexpr IpGenPrefixReference() = default;
  constexpr IpGenPrefixReference(const byte_t* addr, AddressFamily af, byte_t mask)
      : addr_(addr), af_(static_cast<byte_t>(af)), mask_(mask) {}

  constexpr const byte_t* addr() const { return addr_; }
  constexpr AddressFamily af() const { return static_cast<AddressFamily>(af_); }
  constexpr byte_t mask() const { return mask_; }

  /// Whether the other's address lies in this prefix; the other's length is not looked at, on
  /// purpose. Stops the process when both families are unknown_.
  bool contains(const IpGenPrefixReference& other) const;

  /// All address bytes count, host bits included.
  bool operator==(const IpGenPrefixReference& other) const {
    return af_ == other.af_ && mask_ == other.mask_ && compareBytes(other) == 0;
  }
  bool operator!=(const IpGenPrefixReference& other) const { return !(*this == other); }
  /// A more specific prefix comes before one that contains it, others by address. Prefixes of one
  /// length that differ only in host bits are neither < nor > nor ==. Ordering two references of
  /// family unknown_ stops the process: contains() comes before the family is looked at.
  bool operator<(const IpGenPrefixReference& other) const {
    if (af_ != other.af_) return af_ < other.af_;
    if (mask_ < other.mask_ ? contains(other) : other.contains(*this)) return mask_ > other.mask_;
    return compareBytes(other) < 0;
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
  int compareBytes(const IpGenPrefixReference& other) const {
    if (af_ == unknown_) return 0;
    return af_ == ipv6_ ? std::memcmp(addr_, other.addr_, ipv6Length)
                        : std::memcmp(addr_, other.addr_, ipv4Length);
  }

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
// Column types

namespace detail {

template <typename T, typename... Ts>
inline constexpr bool isOneOf = (std::is_same_v<T, Ts> || ...);

template <typename T>
inline constexpr bool isReference =
    isOneOf<T, StringValueReference, IpGenAddrReference, IpGenPrefixReference>;
template <typename T>
inline constexpr bool isArrayElement = isOneOf<T, std::string, IpGenAddr, IpGenPrefix>;
template <typename T>
inline constexpr bool isVariable =
    isReference<T> || isArrayElement<T> || std::is_same_v<T, SubRowReference>;
template <typename T>
inline constexpr bool isFixed =
    isOneOf<T, std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, std::int8_t, std::int16_t,
            std::int32_t, std::int64_t, float, double, bool, IpAddr, Ip6Addr>;
template <typename T>
inline constexpr bool isVector = false;
template <typename T>
inline constexpr bool isVector<std::vector<T>> = true;

/// The place that values take in a row.
struct Extent {
  unsigned int end;       ///< behind the last one, at least the base length
  unsigned int used = 0;  ///< bytes of all of them

  /// No branches: rows have many columns, and some are empty.
  void add(const VColType& slot) noexcept {
    const auto word = loadField<std::uint32_t>(&slot);
    const unsigned int length = word >> 16 & maxValueLength;
    const unsigned int ifPresent = 0U - static_cast<unsigned int>(length != 0);
    end = std::max(end, ((word & 0xFFFF) + length) & ifPresent);
    used += length;
  }
};

/// Two unsigned words: what one vector register holds.
struct WordPair {
  std::uint64_t low;
  std::uint64_t high;
};

/// Copies bytes that may overlap: all of one step are read before the first is written. Most values
/// are short, and a few moves in place cost less than a call.
inline void moveBytes(byte_t* to, const byte_t* from, std::size_t count) noexcept {
  // Where it sees short arrays, g++ warns of the steps for longer ones, which are not taken.
  asm("" : "+r"(to), "+r"(from));
  const auto bothEnds = [&]<typename Word>(std::type_identity<Word>) {
    const Word first = loadField<Word>(from);
    const Word last = loadField<Word>(from + count - sizeof(Word));
    storeField(to, first);
    storeField(to + count - sizeof(Word), last);
  };
  if (count > 32) {
    std::memmove(to, from, count);
  } else if (count >= 16) {
    bothEnds(std::type_identity<WordPair>());
  } else if (count >= 8) {
    bothEnds(std::type_identity<std::uint64_t>());
  } else if (count >= 4) {
    bothEnds(std::type_identity<std::uint32_t>());
  } else if (count != 0) {
    const byte_t middle = from[count / 2];
    bothEnds(std::type_identity<byte_t>());
    to[count / 2] = middle;
  }
}

/// An encoded value before it is written: for a prefix the byte of its length, then the bytes.
struct EncodedValue {
  const byte_t* bytes;
  std::size_t byteCount;
  bool hasPrefixLength = false;
  byte_t prefixLength = 0;

  std::size_t length() const { return byteCount + (hasPrefixLength ? 1 : 0); }
  /// The value may refer to bytes that it is written over.
  void store(byte_t* to) const {
    moveBytes(hasPrefixLength ? to + 1 : to, bytes, byteCount);
    if (hasPrefixLength) *to = prefixLength;
  }
};

constexpr std::size_t encodedAddressLength(AddressFamily af) {
  return af == ipv4_ ? ipv4Length : af == ipv6_ ? ipv6Length : 0;
}
inline EncodedValue encodedAddress(AddressFamily af, const byte_t* bytes) {
  return {bytes, encodedAddressLength(af)};
}
/// A prefix without a family encodes to nothing.
inline EncodedValue encodedPrefix(AddressFamily af, unsigned int mask, const byte_t* bytes) {
  const std::size_t count = encodedAddressLength(af);
  return {bytes, count, count != 0, static_cast<byte_t>(mask)};
}
inline EncodedValue encoded(std::string_view text) {
  return {reinterpret_cast<const byte_t*>(text.data()), text.size()};
}
inline EncodedValue encoded(const std::string& text) {
  return encoded(std::string_view(text));
}
inline EncodedValue encoded(const StringValueReference& text) {
  return encoded(text.view());
}
inline EncodedValue encoded(const IpGenAddr& addr) {
  return encodedAddress(addr.af(), addr.bytes());
}
inline EncodedValue encoded(const IpGenAddrReference& addr) {
  return encodedAddress(addr.af(), addr.addr());
}
inline EncodedValue encoded(const IpGenPrefix& prefix) {
  return encodedPrefix(prefix.addr().af(), prefix.mask(), prefix.addr().bytes());
}
inline EncodedValue encoded(const IpGenPrefixReference& prefix) {
  return encodedPrefix(prefix.af(), prefix.mask(), prefix.addr());
}
EncodedValue encoded(const SubRowReference& row);
/// A whole row, which begins at `row`.
inline EncodedValue encodedRow(const byte_t* row) {
  return {row, loadField<len_t>(row + rowLengthOffset)};
}

/// The encoded length of an array.
template <typename T>
std::size_t arrayLength(const std::vector<T>& values) {
  if constexpr (std::is_same_v<T, bool>) {
    return arrayHeaderLength + values.size();
  } else {
    std::size_t length = arrayHeaderLength + sizeof(VColType) * values.size();
    for (const T& value : values) length += encoded(value).length();
    return length;
  }
}

/// The family that an encoded address of `length` bytes has; the length alone tells it.
constexpr AddressFamily familyOfAddress(std::size_t length) {
  return length == ipv4Length ? ipv4_ : length == ipv6Length ? ipv6_ : unknown_;
}
/// The family that an encoded prefix of `length` bytes has.
constexpr AddressFamily familyOfPrefix(std::size_t length) {
  return length == ipv4Length + 1U ? ipv4_ : length == ipv6Length + 1U ? ipv6_ : unknown_;
}

/// The view that a reference type T gives of `length` encoded bytes.
template <typename T>
inline T referenceTo(const byte_t* bytes, len_t length) {
  if constexpr (std::is_same_v<T, StringValueReference>) {
    return {reinterpret_cast<const char*>(bytes), length};
  } else if constexpr (std::is_same_v<T, IpGenAddrReference>) {
    return {bytes, familyOfAddress(length)};
  } else {
    static_assert(std::is_same_v<T, IpGenPrefixReference>);
    if (length == 0 || bytes == nullptr) return {};
    return {bytes + 1, familyOfPrefix(length), bytes[0]};
  }
}

/// The fixed-width value at `at`. Another process's bool need not be 0 or 1.
template <typename T>
inline T fixedAt(const byte_t* at) {
  if constexpr (std::is_same_v<T, bool>) {
    return *at != 0;
  } else {
    return loadField<T>(at);
  }
}

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

}  // namespace detail

// ---------------------------------------------------------------------------------------------
// Array columns

/// An indexed view of an array column. It owns nothing, and is valid until the row it points into
/// is next written, adopted, or destroyed by its last holder.
///
/// T: std::string, IpGenAddr, IpGenPrefix, their three references, SubRowReference, or bool for
/// fixed-width arrays. Elements are given by value.
template <typename T>
class ArrayReference {
 public:
  class Iterator;

  /// Refers to nothing: no element.
  ArrayReference() = default;
  /// The array that begins at `array`.
  explicit ArrayReference(const byte_t* array) : array_(array) {}
  /// The same where the end of the row is known, one past its last byte.
  ArrayReference(const byte_t* array, const byte_t* rowEnd) : array_(array), rowEnd_(rowEnd) {}

  unsigned int size() const {
    return array_ == nullptr ? 0 : loadField<std::uint16_t>(array_) & arrayCountMask;
  }
  bool empty() const { return size() == 0; }

  /// Throws KoOutOfRange "Invalid index" at or beyond size().
  T operator[](unsigned int index) const;

  Iterator begin() const { return Iterator(*this, 0); }
  Iterator end() const { return Iterator(*this, size()); }

 private:
  /// Copies `count` bytes from `from`. A byte outside the row reads as zero: an address or prefix
  /// without a family is stored as an element of length 0, which may stand at the row's very end.
  void copyOwnBytes(byte_t* to, const byte_t* from, std::size_t count) const;

  const byte_t* array_ = nullptr;
  const byte_t* rowEnd_ = nullptr;
};

/// A random access iterator over the elements' values; valid as long as the array's view.
template <typename T>
class ArrayReference<T>::Iterator {
 public:
  using value_type = T;
  using difference_type = std::ptrdiff_t;
  using reference = T;
  using pointer = void;
  using iterator_category = std::input_iterator_tag;  // elements are values, not references
  using iterator_concept = std::random_access_iterator_tag;

  Iterator() = default;
  Iterator(const ArrayReference& array, unsigned int index)
      : array_(array), index_(static_cast<difference_type>(index)) {}

  T operator*() const { return array_[static_cast<unsigned int>(index_)]; }
  T operator[](difference_type n) const { return *(*this + n); }

  Iterator& operator+=(difference_type n) {
    index_ += n;
    return *this;
  }
  Iterator& operator-=(difference_type n) { return *this += -n; }
  Iterator& operator++() { return *this += 1; }
  Iterator& operator--() { return *this += -1; }
  Iterator operator++(int) {
    const Iterator before = *this;
    ++*this;
    return before;
  }
  Iterator operator--(int) {
    const Iterator before = *this;
    --*this;
    return before;
  }
  friend Iterator operator+(Iterator it, difference_type n) { return it += n; }
  friend Iterator operator+(difference_type n, Iterator it) { return it += n; }
  friend Iterator operator-(Iterator it, difference_type n) { return it -= n; }
  friend difference_type operator-(const Iterator& a, const Iterator& b) {
    return a.index_ - b.index_;
  }
  /// Only iterators over the same array compare.
  friend bool operator==(const Iterator& a, const Iterator& b) { return a.index_ == b.index_; }
  friend std::strong_ordering operator<=>(const Iterator& a, const Iterator& b) {
    return a.index_ <=> b.index_;
  }

 private:
  ArrayReference array_;
  difference_type index_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Rows

/// A row: null, or holder of a row buffer that other rows may share. The row class of each table
/// derives from it and knows the table's columns; TableRow.h makes such classes short.
///
/// Columns are named by the byte offset of their slot (variable-length) or value (fixed-width).
/// The writers take the row's base length as `fdLen` and give the strong guarantee: on a throw the
/// row, its buffer and the column are as before. They throw KoNullRow for a null row, KoOutOfRange
/// for a row that would exceed 65535 or a value that exceeds 32767 bytes, and std::bad_alloc. A
/// value may refer into the row that is written; it is written as if it had been copied first.
class KORVO_API BaseRow {
 public:
  /// The slot offsets of a table's variable-length columns, in column order.
  using vcdType = std::vector<len_t>;

  /// A null row.
  BaseRow() = default;
  /// Copies share the buffer.
  BaseRow(const BaseRow&) = default;
  BaseRow(BaseRow&&) noexcept = default;
  BaseRow& operator=(const BaseRow&) = default;
  BaseRow& operator=(BaseRow&&) noexcept = default;

  /// The buffer, for reading and for writing; neither copies. They throw KoNullRow for a null row.
  virtual byte_t* rowBuf() const;
  virtual byte_t* rwRowBuf();
  /// Installs `buf` without freeing the old block; every row that shares the owner sees it. Throws
  /// KoNullRow for a null row.
  virtual void replaceRow(byte_t* buf);
  /// Shares the other row's buffer; this row's own loses a holder.
  virtual void shareContents(const BaseRow& other);
  virtual ~BaseRow() = default;
  /// These three belong to the table's row class; here they stop the process.
  virtual vcdType& vcd() const;
  virtual len_t columnOffset(const std::string& name) const;
  /// Makes the row null.
  virtual void nullifyRow();
  virtual bool isNull() const;
  /// The header as text: "len = 64, type = 3, oid = 1001", or "len = 0, NULL".
  virtual std::string toString() const;
  /// Empty here; a table's row class may override it.
  virtual std::string toJson() const;
  virtual len_t baseRowLength();
  /// Whether vcd() lists every variable-length column. Only then are gaps reused and rows
  /// compacted; otherwise every new value is appended.
  virtual bool isFullyDefined() const;
  /// Zeroes all but the row length and the row type. Does nothing on a null row.
  virtual void clearRow();

  // The header's fields. They throw KoNullRow for a null row; the setters copy a shared buffer.
  len_t rowLength() const { return loadField<len_t>(rowBuf() + rowLengthOffset); }
  std::uint16_t rowType() const { return loadField<std::uint16_t>(rowBuf() + rowTypeOffset); }
  oid_t rowOid() const { return loadField<oid_t>(rowBuf() + rowOidOffset); }
  void rowTypeIs(std::uint16_t type) { setField(rowTypeOffset, type); }
  void rowOidIs(oid_t oid) { setField(rowOidOffset, oid); }

  // Fixed-width columns.

  /// The column's value; zero for a null row. T is a fixed-width type of the catalogue.
  template <typename T>
  T fixedColumn(len_t offset) const;
  template <typename T>
  void setFixedColumn(len_t offset, const T& value);

  // Variable-length columns.

  /// Reads a column; the null value for an empty column or a null row. A reference points into this
  /// row's buffer. Stops the process on an encoded address or prefix of a length that no family
  /// has; throws KoOutOfRange for a prefix with host bits set.
  template <typename T>
  void getColumn(len_t slotOffset, T& out) const;
  /// Appends the elements of an array column to `out`, whose entries stay in front.
  template <typename T>
  void getColumn(len_t slotOffset, std::vector<T>& out) const;
  /// Writes a column; an empty value makes it null. `fdLen` 0 stops the process.
  template <typename T>
  void setColumn(len_t slotOffset, const T& value, len_t fdLen);
  template <typename T>
  void setColumn(len_t slotOffset, const std::vector<T>& values, len_t fdLen);
  /// Copies a column's bytes from `src`, value or array, without decoding them; `src` may be this
  /// row or a sub-row of it.
  void copyVarColumn(len_t srcSlotOffset, const BaseRow& src, len_t dstSlotOffset, len_t fdLen);

  template <typename T>
  void getVarElemArray(len_t slotOffset, std::vector<T>& out) const;
  template <typename T>
  void updateVarElement(len_t slotOffset, len_t fdLen, const T& value);
  template <typename T>
  void updateVarElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values);
  /// Writes an array of bool, one byte each.
  template <typename T>
  void updateFixElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values);
  /// The view of an array column; one that refers to nothing for an empty column or a null row.
  template <typename T>
  ArrayReference<T> arrayReference(len_t slotOffset) const;

  // Comparison and hash in place, for the three reference types. They throw KoNullRow for a null
  // row. The column's type is the caller's word.

  template <typename T>
  bool columnEqual(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const;
  template <typename T>
  bool columnEqualConst(len_t slotOffset, const T& value) const;
  template <typename T>
  bool columnLess(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const;
  template <typename T>
  unsigned int columnHash(len_t slotOffset) const;
  /// The reference's orderKey().
  template <typename T>
  std::uint64_t columnOrderKey(len_t slotOffset) const;

  // Encoded values.

  template <typename T>
  static len_t encodeLength(const T& value);
  template <typename T>
  static len_t encodeLength(const std::vector<T>& values);
  /// Writes encodeLength(value) bytes to `dst` and returns their number.
  template <typename T>
  static len_t encode(void* dst, const T& value);
  template <typename T>
  static void decode(const void* src, len_t length, T& out);
  template <typename T>
  static void setToNull(T& out);

  // The variable area. The caller has made the buffer exclusive.

  /// Finds room for `needed` bytes and returns its offset. It may grow the buffer and move the data
  /// of other columns. The slot is left empty unless its old place is reused. Stops the process
  /// when `baseRowLength` is 0.
  len_t makeFreeSpace(len_t slotOffset, len_t needed, len_t baseRowLength);
  /// Packs all variable data and returns the first free offset after it; the row keeps its length.
  len_t compactVariableData(len_t baseRowLength);
  /// Moves a column's data to offset `to` and returns the offset after it. Copies a shared buffer;
  /// `slot` then still points into the old one.
  len_t moveVariableColumn(VColType* slot, len_t slotOffset, len_t to);

 protected:
  // For the row classes: how a row gets its first buffer. On a throw the row is as before.

  /// A new row of `length` bytes, zero but for its header.
  void installNew(len_t length, std::uint16_t rowType, oid_t oid);
  /// A copy of a row that came from elsewhere. Throws KoInvalidArgument unless `length` is what the
  /// header says, at least `baseLength`, and the row is of type `rowType`. The values in the
  /// variable area are not looked at.
  void installCopy(const void* bytes, std::size_t length, len_t baseLength, std::uint16_t rowType);

  [[noreturn]] static void throwNullRow();

  // The writers without a virtual call, for row classes whose rwRowBuf() is BaseRow's own. `Slots`
  // is what such a class knows of its columns while it is compiled: baseLength, and extent(buf),
  // the place that all values take in a buffer.

  template <typename T>
  void setOwnField(len_t offset, const T& value);
  template <typename Slots>
  void writeOwnValue(len_t slotOffset, const detail::EncodedValue& value);
  template <typename Slots, typename T>
  void writeOwnArray(len_t slotOffset, const std::vector<T>& values);

  KoPtr<KoRowBuf> rowBuf_;

 private:
  friend RowWriter;
  struct Room;
  class PackingOrder;
  using Slots = std::span<const len_t>;

  bool isSoleHolder() const noexcept;
  void copySharedRow();
  KoPtr<KoRowBuf> makeExclusive();
  Room findRoom(const byte_t* buf, len_t slotOffset, len_t needed, len_t baseRowLength) const;
  static Room roomBeside(const detail::Extent& others, unsigned int rowLength, std::size_t needed,
                         len_t baseRowLength);
  len_t takeRoom(const Room& room, len_t slotOffset, len_t baseRowLength);
  detail::Extent extentWithout(const byte_t* buf, len_t slotOffset, len_t baseRowLength) const;
  void grow(byte_t* buf, len_t newLength, unsigned int filledEnd = 0);
  static void lengthen(byte_t* buf, len_t newLength, unsigned int filledEnd);
  len_t compact(const PackingOrder& order, len_t baseRowLength);
  static len_t pack(byte_t* buf, const PackingOrder& order, len_t baseRowLength);
  len_t makeExclusiveRoom(len_t slotOffset, std::size_t needed, len_t fdLen,
                          KoPtr<KoRowBuf>& former);
  void clearColumn(len_t slotOffset);
  void writeValue(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value, bool isArray);
  void writeCopied(len_t slotOffset, len_t fdLen, detail::EncodedValue value, bool isArray);
  len_t growBehind(const detail::Extent& others, std::size_t length, len_t fdLen,
                   bool filled = false);
  void growForValue(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value,
                    const detail::Extent& others, Slots slots);
  void writeLonger(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value, Slots slots);
  /// Room for an array of `length` bytes, its slot written; returns its first byte.
  byte_t* arrayRoom(len_t slotOffset, std::size_t length, len_t fdLen);
  template <typename T>
  static void storeArray(byte_t* array, const std::vector<T>& values);
  template <typename T>
  void setField(len_t offset, const T& value);
  template <typename T>
  T columnReference(len_t slotOffset) const;

  static void decodeValue(const byte_t* src, len_t length, IpGenAddr& out);
  static void decodeValue(const byte_t* src, len_t length, IpGenPrefix& out);
  [[noreturn]] static void failSetColumn(const char* type, bool isArray);
};

/// Fills a row of many columns. A row says nowhere where its data ends, so each of its writers
/// looks at every slot first; a RowWriter looks once and keeps count, and the time to set all
/// columns grows with their number, not with its square. What it leaves in the row is byte for byte
/// what the row's own writers leave, with their exceptions and guarantees.
///
/// The row outlives its writer, and meanwhile is written by nothing else; it may be read and
/// shared. Its block may be larger than the row until the writer ends and gives the rest back,
/// which counts as one more write.
class KORVO_API RowWriter {
 public:
  /// `fdLen` is the row's base length; 0 stops the process. Changes nothing yet.
  RowWriter(BaseRow& row, len_t fdLen);
  ~RowWriter();
  RowWriter(const RowWriter&) = delete;
  RowWriter& operator=(const RowWriter&) = delete;

  // As BaseRow's.
  template <typename T>
  void setFixedColumn(len_t offset, const T& value);
  template <typename T>
  void setColumn(len_t slotOffset, const T& value);
  template <typename T>
  void setColumn(len_t slotOffset, const std::vector<T>& values);
  template <typename T>
  void updateFixElemArray(len_t slotOffset, const std::vector<T>& values);

 protected:
  // For the writers of row classes.

  void writeValue(len_t slotOffset, const detail::EncodedValue& value);
  template <typename T>
  void writeArray(len_t slotOffset, const std::vector<T>& values);

 private:
  len_t roomBehind(len_t slotOffset, std::size_t length, const byte_t* value);
  byte_t* arrayRoom(len_t slotOffset, std::size_t length);
  template <typename Write>
  byte_t* leaveToRow(len_t slotOffset, Write write);
  bool hasLargerBlock() const noexcept;
  void giveBack() noexcept;

  BaseRow& row_;
  const len_t baseLength_;
  const bool fullyDefined_;
  bool extentIsKnown_ = false;
  detail::Extent extent_{0};  ///< of all values

  // A block that this writer made larger than the row, and how it is known again: an address alone
  // may be that of a later block.
  byte_t* block_ = nullptr;
  std::size_t blockLength_ = 0;
  std::weak_ptr<KoRowBuf> owner_;
  len_t rowLength_ = 0;  ///< whoever else makes the row longer gives it another block
};

/// "len = 64, type = 3, oid = 1001", or "len = 0, NULL" for a null row. Numbers are decimal
/// whatever the stream's base.
KORVO_API std::ostream& operator<<(std::ostream& os, const BaseRow& row);

/// The variable columns of a row that have a data offset, by that offset: data offset to slot
/// offset. Of columns with one data offset, the last in vcd() order stays.
class KORVO_API varFieldMap : public std::map<len_t, len_t> {
 public:
  explicit varFieldMap(const BaseRow& row);
};

/// A row nested in a column of another row, read in place. It does not keep that row alive, and is
/// valid until that row is next written, adopted, or destroyed by its last holder. It is never
/// written where it lies: writing into it stops the process.
class KORVO_API SubRowReference : public BaseRow {
 public:
  /// Refers to nothing: a null row.
  SubRowReference() = default;
  /// The row that begins at `row`.
  explicit SubRowReference(const byte_t* row) : row_(const_cast<byte_t*>(row)) {}
  SubRowReference(const SubRowReference&) = default;
  SubRowReference(SubRowReference&&) noexcept = default;
  SubRowReference& operator=(const SubRowReference&) = default;
  SubRowReference& operator=(SubRowReference&&) noexcept = default;

  byte_t* rowBuf() const override;
  byte_t* rwRowBuf() override;
  ~SubRowReference() override = default;
  void nullifyRow() override;
  bool isNull() const override;

 private:
  byte_t* row_ = nullptr;
};

// ---------------------------------------------------------------------------------------------
// Inline bodies

inline bool IpGenPrefixReference::contains(const IpGenPrefixReference& other) const {
  if (af_ != other.af_) return false;
  KORVO_ASSERT(
      af_ == ipv4_ || af_ == ipv6_, "af_ == ipv4_ || af_ == ipv6_",
      "src-includes/api/Korvo/baseRow.h",
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

template <typename T>
void ArrayReference<T>::copyOwnBytes(byte_t* to, const byte_t* from, std::size_t count) const {
  const byte_t* end = rowEnd_;
  if (end == nullptr) {  // all that is known to be the row's own is the array
    const VColType& last =
        VColType::at(array_, arrayHeaderLength + sizeof(VColType) * (size() - 1U));
    end = array_ + last.offset() + last.length();
  }
  const std::size_t left = from < end ? static_cast<std::size_t>(end - from) : 0;
  std::memset(to, 0, count);
  if (left != 0) std::memcpy(to, from, std::min(left, count));
}

template <typename T>
T ArrayReference<T>::operator[](unsigned int index) const {
  static_assert(detail::isVariable<T> || std::is_same_v<T, bool>,
                "ArrayReference<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their "
                "references, SubRowReference or bool");
  if (index >= size()) throw KoOutOfRange("Invalid index");
  if constexpr (std::is_same_v<T, bool>) {
    return array_[arrayHeaderLength + index] != 0;
  } else {
    const VColType& slot = VColType::at(array_, arrayHeaderLength + sizeof(VColType) * index);
    const byte_t* const data = array_ + slot.offset();
    const len_t length = slot.length();
    if constexpr (detail::isReference<T>) {
      return detail::referenceTo<T>(data, length);
    } else if constexpr (std::is_same_v<T, std::string>) {
      return std::string(reinterpret_cast<const char*>(data), length);
    } else if constexpr (std::is_same_v<T, SubRowReference>) {
      return SubRowReference(data);
    } else if constexpr (std::is_same_v<T, IpGenAddr>) {
      // Every length but 4 reads as IPv6.
      if (length == ipv4Length) return IpGenAddr(ipv4_, data);
      byte_t bytes[ipv6Length];
      copyOwnBytes(bytes, data, sizeof bytes);
      return IpGenAddr(ipv6_, bytes);
    } else {
      // Every length but 5 reads as IPv6.
      if (length == ipv4Length + 1) return IpGenPrefix(ipv4_, data[0], data + 1);
      byte_t bytes[ipv6Length + 1];
      copyOwnBytes(bytes, data, sizeof bytes);
      return IpGenPrefix(ipv6_, bytes[0], bytes + 1);
    }
  }
}

inline byte_t* BaseRow::rowBuf() const {
  if (!rowBuf_) throwNullRow();
  return rowBuf_->buf_;
}

inline byte_t* BaseRow::rwRowBuf() {
  if (!rowBuf_) throwNullRow();
  return rowBuf_->buf_;
}

inline bool BaseRow::isNull() const {
  return !rowBuf_;
}

inline bool BaseRow::isSoleHolder() const noexcept {
  if (rowBuf_.use_count() != 1) return false;
    // The use count is read without ordering. Former holders may have read the buffer on other
    // threads until they let go of it, so their releases are made to happen before our writes.
#ifdef KORVO_THREAD_SANITIZER
  // ThreadSanitizer does not follow fences; a read-modify-write of the count makes the same edge.
  const KoPtr<KoRowBuf> edge = rowBuf_;
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
  return true;
}

inline BaseRow::vcdType& BaseRow::vcd() const {
  detail::assertionFailed("0", "src-includes/api/Korvo/baseRow.h", __LINE__,
                          "virtual Korvo::BaseRow::vcdType& Korvo::BaseRow::vcd() const");
}

inline len_t BaseRow::columnOffset(const std::string&) const {
  detail::assertionFailed("0", "src-includes/api/Korvo/baseRow.h", __LINE__,
                          "virtual Korvo::len_t Korvo::BaseRow::columnOffset(const string&) const");
}

inline len_t BaseRow::baseRowLength() {
  detail::assertionFailed("0", "src-includes/api/Korvo/baseRow.h", __LINE__,
                          "virtual Korvo::len_t Korvo::BaseRow::baseRowLength()");
}

inline byte_t* SubRowReference::rwRowBuf() {
  detail::assertionFailed("false", "src-includes/api/Korvo/baseRow.h", __LINE__,
                          "virtual Korvo::byte_t* Korvo::SubRowReference::rwRowBuf()");
}

inline void SubRowReference::nullifyRow() {
  detail::assertionFailed("false", "src-includes/api/Korvo/baseRow.h", __LINE__,
                          "virtual void Korvo::SubRowReference::nullifyRow()");
}

inline byte_t* SubRowReference::rowBuf() const {
  if (row_ == nullptr) throwNullRow();
  return row_;
}

inline bool SubRowReference::isNull() const {
  return row_ == nullptr;
}

inline detail::EncodedValue detail::encoded(const SubRowReference& row) {
  return encodedRow(row.rowBuf());
}

template <typename T>
T BaseRow::fixedColumn(len_t offset) const {
  static_assert(detail::isFixed<T>, "fixedColumn<T>: T is a fixed-width type of the catalogue");
  if (isNull()) return T();
  return detail::fixedAt<T>(rowBuf() + offset);
}

template <typename T>
void BaseRow::setFixedColumn(len_t offset, const T& value) {
  static_assert(detail::isFixed<T>, "setFixedColumn<T>: T is a fixed-width type of the catalogue");
  setField(offset, value);
}

template <typename T>
void BaseRow::setField(len_t offset, const T& value) {
  const T copy = value;  // it may stand in the buffer that is given up
  if (!isSoleHolder()) copySharedRow();
  storeField(rwRowBuf() + offset, copy);
}

template <typename T>
void BaseRow::setOwnField(len_t offset, const T& value) {
  static_assert(detail::isFixed<T>);
  const T copy = value;  // it may stand in the buffer that is given up
  if (!isSoleHolder()) copySharedRow();
  storeField(BaseRow::rwRowBuf() + offset, copy);
}

// Where a value goes is BaseRow::findRoom's decision; these two make it here where nothing but the
// column itself changes.

template <typename Slots>
[[gnu::always_inline]] inline void BaseRow::writeOwnValue(len_t slotOffset,
                                                          const detail::EncodedValue& value) {
  const std::size_t length = value.length();
  if (length != 0 && length <= maxValueLength && isSoleHolder()) {
    byte_t* const buf = BaseRow::rwRowBuf();
    VColType& slot = VColType::at(buf, slotOffset);
    unsigned int offset = 0;
    if (length <= slot.length()) {
      offset = slot.offset();
    } else if (slot.length() != 0) {
      return writeLonger(slotOffset, Slots::baseLength, value, Slots::slots);
    } else {
      const detail::Extent others = Slots::extent(buf);
      if (others.end + length > loadField<len_t>(buf + rowLengthOffset)) {
        return growForValue(slotOffset, Slots::baseLength, value, others, Slots::slots);
      }
      offset = others.end;
    }
    if (offset != 0) {
      value.store(buf + offset);
      slot.valueIs(static_cast<len_t>(offset), static_cast<len_t>(length), false);
      return;
    }
  }
  writeValue(slotOffset, Slots::baseLength, value, false);
}

template <typename T>
void BaseRow::getColumn(len_t slotOffset, T& out) const {
  static_assert(detail::isVariable<T>,
                "getColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their references, "
                "SubRowReference, or a vector of the first three");
  if (isNull()) return setToNull(out);
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  const len_t length = slot.length();
  if (length == 0) return setToNull(out);
  decode(buf + slot.offset(), length, out);
}

template <typename T>
void BaseRow::getColumn(len_t slotOffset, std::vector<T>& out) const {
  static_assert(detail::isArrayElement<T>,
                "getColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                "arrayReference<T> reads the others");
  if (isNull()) return;
  const byte_t* const buf = rowBuf();
  const VColType& column = VColType::at(buf, slotOffset);
  if (column.length() == 0) return;
  const byte_t* const array = buf + column.offset();
  const unsigned int count = loadField<std::uint16_t>(array) & arrayCountMask;
  const std::size_t before = out.size();
  out.reserve(before + count);
  try {
    for (unsigned int i = 0; i < count; ++i) {
      const VColType& slot = VColType::at(array, arrayHeaderLength + sizeof(VColType) * i);
      const byte_t* data = array + slot.offset();
      byte_t own[ipv4Length + 1] = {};
      if (slot.length() == 0) {
        // Decoding looks at bytes of an empty element too; those outside the row count as zero.
        const byte_t* const end = buf + loadField<len_t>(buf + rowLengthOffset);
        if (data < end) {
          std::memcpy(own, data, std::min(sizeof own, static_cast<std::size_t>(end - data)));
        }
        data = own;
      }
      out.emplace_back();
      decode(data, slot.length(), out.back());
    }
  } catch (...) {
    out.resize(before);
    throw;
  }
}

template <typename T>
void BaseRow::setColumn(len_t slotOffset, const T& value, len_t fdLen) {
  static_assert(detail::isVariable<T>,
                "setColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their references, "
                "SubRowReference, or a vector of the first three");
  if (fdLen == 0) [[unlikely]] {
    failSetColumn(detail::isOneOf<T, std::string>            ? "std::basic_string<char>"
                  : detail::isOneOf<T, IpGenAddr>            ? "Korvo::IpGenAddr"
                  : detail::isOneOf<T, IpGenPrefix>          ? "Korvo::IpGenPrefix"
                  : detail::isOneOf<T, StringValueReference> ? "Korvo::StringValueReference"
                  : detail::isOneOf<T, IpGenAddrReference>   ? "Korvo::IpGenAddrReference"
                  : detail::isOneOf<T, IpGenPrefixReference> ? "Korvo::IpGenPrefixReference"
                                                             : "Korvo::SubRowReference",
                  false);
  }
  updateVarElement(slotOffset, fdLen, value);
}

template <typename T>
void BaseRow::setColumn(len_t slotOffset, const std::vector<T>& values, len_t fdLen) {
  static_assert(detail::isArrayElement<T>,
                "setColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                "updateFixElemArray<bool> writes an array of bool");
  if (fdLen == 0) [[unlikely]] {
    failSetColumn(detail::isOneOf<T, std::string> ? "std::basic_string<char>"
                  : detail::isOneOf<T, IpGenAddr> ? "Korvo::IpGenAddr"
                                                  : "Korvo::IpGenPrefix",
                  true);
  }
  updateVarElemArray(slotOffset, fdLen, values);
}

template <typename T>
void BaseRow::getVarElemArray(len_t slotOffset, std::vector<T>& out) const {
  getColumn(slotOffset, out);
}

template <typename T>
void BaseRow::updateVarElement(len_t slotOffset, len_t fdLen, const T& value) {
  static_assert(detail::isVariable<T>,
                "updateVarElement<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their "
                "references or SubRowReference");
  writeValue(slotOffset, fdLen, detail::encoded(value), false);
}

template <typename T>
void BaseRow::updateVarElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values) {
  static_assert(detail::isArrayElement<T>,
                "updateVarElemArray<T>: T is std::string, IpGenAddr or IpGenPrefix");
  if (values.empty()) return clearColumn(slotOffset);
  storeArray(arrayRoom(slotOffset, detail::arrayLength(values), fdLen), values);
}

template <typename T>
void BaseRow::updateFixElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values) {
  static_assert(std::is_same_v<T, bool>, "updateFixElemArray<T>: T is bool");
  if (values.empty()) return clearColumn(slotOffset);
  storeArray(arrayRoom(slotOffset, detail::arrayLength(values), fdLen), values);
}

template <typename Slots, typename T>
void BaseRow::writeOwnArray(len_t slotOffset, const std::vector<T>& values) {
  if (values.empty()) return clearColumn(slotOffset);
  const std::size_t length = detail::arrayLength(values);
  if (length <= maxValueLength && isSoleHolder()) {
    byte_t* const buf = BaseRow::rwRowBuf();
    if (VColType::at(buf, slotOffset).length() == 0) {
      const detail::Extent others = Slots::extent(buf);
      const len_t offset = growBehind(others, length, Slots::baseLength);
      if (offset != 0) {
        byte_t* const own = BaseRow::rwRowBuf();
        VColType::at(own, slotOffset).valueIs(offset, static_cast<len_t>(length), true);
        return storeArray(own + offset, values);
      }
    }
  }
  storeArray(arrayRoom(slotOffset, length, Slots::baseLength), values);
}

template <typename T>
void BaseRow::storeArray(byte_t* array, const std::vector<T>& values) {
  constexpr bool variable = !std::is_same_v<T, bool>;
  // Bits 13 to 15 of the header stay as they are in the buffer; nobody interprets them.
  const std::size_t count = values.size();
  const int kept = array[1] & ~(arrayCountHighMask | arrayVariableMark);
  array[0] = static_cast<byte_t>(count);
  array[1] = static_cast<byte_t>(kept | (variable ? arrayVariableMark : 0) |
                                 (static_cast<int>(count >> 8) & arrayCountHighMask));
  byte_t* slot = array + arrayHeaderLength;
  if constexpr (variable) {
    byte_t* data = slot + sizeof(VColType) * count;
    for (const T& value : values) {
      const detail::EncodedValue encoded = detail::encoded(value);
      const std::size_t length = encoded.length();
      VColType::at(slot, 0).valueIs(static_cast<len_t>(data - array), static_cast<len_t>(length),
                                    false);
      encoded.store(data);
      slot += sizeof(VColType);
      data += length;
    }
  } else {
    for (const bool value : values) *slot++ = value ? 1 : 0;
  }
}

template <typename T>
void RowWriter::setFixedColumn(len_t offset, const T& value) {
  row_.setFixedColumn(offset, value);
}

template <typename T>
void RowWriter::setColumn(len_t slotOffset, const T& value) {
  static_assert(detail::isVariable<T>,
                "setColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their references, "
                "SubRowReference, or a vector of the first three");
  writeValue(slotOffset, detail::encoded(value));
}

template <typename T>
void RowWriter::setColumn(len_t slotOffset, const std::vector<T>& values) {
  static_assert(detail::isArrayElement<T>,
                "setColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                "updateFixElemArray<bool> writes an array of bool");
  writeArray(slotOffset, values);
}

template <typename T>
void RowWriter::updateFixElemArray(len_t slotOffset, const std::vector<T>& values) {
  static_assert(std::is_same_v<T, bool>, "updateFixElemArray<T>: T is bool");
  writeArray(slotOffset, values);
}

template <typename T>
void RowWriter::writeArray(len_t slotOffset, const std::vector<T>& values) {
  if (values.empty()) return writeValue(slotOffset, {nullptr, 0});
  BaseRow::storeArray(arrayRoom(slotOffset, detail::arrayLength(values)), values);
}

template <typename T>
ArrayReference<T> BaseRow::arrayReference(len_t slotOffset) const {
  if (isNull()) return {};
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  if (slot.length() == 0) return {};
  return ArrayReference<T>(buf + slot.offset(), buf + loadField<len_t>(buf + rowLengthOffset));
}

template <typename T>
T BaseRow::columnReference(len_t slotOffset) const {
  static_assert(detail::isReference<T>,
                "columns are compared and hashed as StringValueReference, IpGenAddrReference or "
                "IpGenPrefixReference");
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  return detail::referenceTo<T>(buf + slot.offset(), slot.length());
}

template <typename T>
bool BaseRow::columnEqual(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const {
  return columnReference<T>(slotOffset) == other.columnReference<T>(otherSlotOffset);
}

template <typename T>
bool BaseRow::columnEqualConst(len_t slotOffset, const T& value) const {
  return columnReference<T>(slotOffset) == value;
}

template <typename T>
bool BaseRow::columnLess(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const {
  return columnReference<T>(slotOffset) < other.columnReference<T>(otherSlotOffset);
}

template <typename T>
unsigned int BaseRow::columnHash(len_t slotOffset) const {
  const T value = columnReference<T>(slotOffset);
  if constexpr (std::is_same_v<T, StringValueReference>) {
    return detail::hashString(reinterpret_cast<const byte_t*>(value.data()), value.length());
  } else if constexpr (std::is_same_v<T, IpGenAddrReference>) {
    return detail::hashBytes(value.addr(), detail::encodedAddressLength(value.af()));
  } else {
    if (value.af() == unknown_) return 0;
    const std::uint32_t seed = value.mask() + detail::goldenRatio;
    const std::uint32_t address =
        detail::hashBytes(value.addr(), detail::encodedAddressLength(value.af()));
    return seed ^ (address + detail::goldenRatio + (seed << 6) + (seed >> 2));
  }
}

template <typename T>
std::uint64_t BaseRow::columnOrderKey(len_t slotOffset) const {
  return columnReference<T>(slotOffset).orderKey();
}

template <typename T>
len_t BaseRow::encodeLength(const T& value) {
  if constexpr (detail::isVector<T>) {
    return encodeLength<typename T::value_type>(value);
  } else {
    static_assert(detail::isVariable<T>, "encodeLength<T>: T is a variable-length type");
    return static_cast<len_t>(detail::encoded(value).length());
  }
}

template <typename T>
len_t BaseRow::encodeLength(const std::vector<T>& values) {
  static_assert(detail::isArrayElement<T>,
                "encodeLength of an array: the elements are std::string, IpGenAddr or IpGenPrefix");
  return static_cast<len_t>(detail::arrayLength(values));
}

template <typename T>
len_t BaseRow::encode(void* dst, const T& value) {
  static_assert(detail::isVariable<T>, "encode<T>: T is a variable-length type");
  const detail::EncodedValue encoded = detail::encoded(value);
  encoded.store(static_cast<byte_t*>(dst));
  return static_cast<len_t>(encoded.length());
}

template <typename T>
void BaseRow::decode(const void* src, len_t length, T& out) {
  static_assert(detail::isVariable<T>, "decode<T>: T is a variable-length type");
  const byte_t* const bytes = static_cast<const byte_t*>(src);
  if constexpr (detail::isReference<T>) {
    out = detail::referenceTo<T>(bytes, length);
  } else if constexpr (std::is_same_v<T, std::string>) {
    out.assign(reinterpret_cast<const char*>(bytes), length);
  } else if constexpr (std::is_same_v<T, SubRowReference>) {
    out = SubRowReference(bytes);
  } else {
    decodeValue(bytes, length, out);
  }
}

template <typename T>
void BaseRow::setToNull(T& out) {
  static_assert(detail::isVariable<T> || detail::isOneOf<T, IpAddr, Ip6Addr>,
                "setToNull<T>: T is a variable-length type or an address");
  if constexpr (std::is_same_v<T, std::string>) {
    out.clear();  // keeps its storage
  } else {
    out = T();
  }
}

}  // namespace Korvo

template <typename T>
inline constexpr bool std::ranges::enable_borrowed_range<Korvo::ArrayReference<T>> = true;
