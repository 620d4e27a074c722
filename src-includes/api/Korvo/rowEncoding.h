#pragma once

// Encodings: which types columns have, and the bytes of their values. A value carries no tag and no
// length of its own; the length stands in the column's slot, and tells an address's family.

#include <Korvo/fwd.h>
#include <Korvo/rowReferences.h>

#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Korvo {

namespace detail {

// ---------------------------------------------------------------------------------------------
// Column types

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
/// A variable-length type in the texts of assertions.
template <typename T>
inline constexpr const char* nameInSignatures =
    isOneOf<T, std::string>            ? "std::basic_string<char>"
    : isOneOf<T, IpGenAddr>            ? "Korvo::IpGenAddr"
    : isOneOf<T, IpGenPrefix>          ? "Korvo::IpGenPrefix"
    : isOneOf<T, StringValueReference> ? "Korvo::StringValueReference"
    : isOneOf<T, IpGenAddrReference>   ? "Korvo::IpGenAddrReference"
    : isOneOf<T, IpGenPrefixReference> ? "Korvo::IpGenPrefixReference"
                                       : "Korvo::SubRowReference";
template <typename T>
inline constexpr bool isVector = false;
template <typename T>
inline constexpr bool isVector<std::vector<T>> = true;

// ---------------------------------------------------------------------------------------------
// Values before they are written

/// Two unsigned words: what one vector register holds.
struct WordPair {
  std::uint64_t low;
  std::uint64_t high;
};

/// Copies bytes that may overlap: all of one step are read before the first is written. Most values
/// are short, and a few moves in place cost less than a call.
[[gnu::always_inline]] inline void moveBytes(byte_t* to, const byte_t* from,
                                             std::size_t count) noexcept {
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

/// A single value before it is written: for a prefix the byte of its length, then the bytes. Also a
/// column's bytes that are copied as they are, which may be an array's.
struct EncodedValue {
  const byte_t* bytes;
  std::size_t byteCount;
  bool hasPrefixLength = false;
  byte_t prefixLength = 0;
  bool isArray = false;

  bool isEmpty() const { return byteCount == 0; }
  std::size_t length() const { return byteCount + (hasPrefixLength ? 1 : 0); }
  /// The bytes that have to stay as they are until the value is stored.
  std::span<const byte_t> source() const { return {bytes, byteCount}; }
  /// The value may refer to bytes that it is written over.
  [[gnu::always_inline]] void store(byte_t* to) const {
    moveBytes(hasPrefixLength ? to + 1 : to, bytes, byteCount);
    if (hasPrefixLength) *to = prefixLength;
  }
};

inline EncodedValue encoded(std::string_view text) {
  return {reinterpret_cast<const byte_t*>(text.data()), text.size()};
}
inline EncodedValue encoded(const IpGenAddrReference& addr) {
  return {addr.addr(), encodedAddressLength(addr.af())};
}
inline EncodedValue encoded(const IpGenAddr& addr) {
  return encoded(IpGenAddrReference(addr.bytes(), addr.af()));
}
/// A prefix without a family encodes to nothing.
inline EncodedValue encoded(const IpGenPrefixReference& prefix) {
  const std::size_t count = encodedAddressLength(prefix.af());
  return {prefix.addr(), count, count != 0, prefix.mask()};
}
inline EncodedValue encoded(const IpGenPrefix& prefix) {
  const IpGenAddr& addr = prefix.addr();
  const auto mask = static_cast<byte_t>(prefix.mask());
  return encoded(IpGenPrefixReference(addr.bytes(), addr.af(), mask));
}
/// Throws KoNullRow for a reference to nothing.
EncodedValue encoded(const SubRowReference& row);
/// A whole row, which begins at `row`.
inline EncodedValue encodedRow(const byte_t* row) {
  return {row, loadField<len_t>(row + rowLengthOffset)};
}

/// An array before it is written.
template <typename T>
class EncodedArray {
 public:
  static constexpr bool isArray = true;

  /// Refers to `values`.
  explicit EncodedArray(const std::vector<T>& values)
      : values_(values), length_(slotsEnd(values.size())) {
    if constexpr (isVariableLength) {
      for (const T& value : values) length_ += encoded(value).length();
    } else {
      length_ += values.size();
    }
  }

  /// An empty array is not stored.
  bool isEmpty() const { return values_.empty(); }
  std::size_t length() const { return length_; }
  /// No element stands in a row.
  static std::span<const byte_t> source() { return {}; }
  [[gnu::always_inline]] void store(byte_t* array) const { storeElements(values_, array); }

 private:
  static constexpr bool isVariableLength = !std::is_same_v<T, bool>;

  static std::size_t slotsEnd(std::size_t count) {
    return arrayHeaderLength + (isVariableLength ? sizeof(VColType) * count : 0);
  }

  /// Of the values alone, so that this object need not stand in memory.
  static void storeElements(const std::vector<T>& values, byte_t* array) {
    // Bits 13 to 15 of the header stay as they are in the buffer; nobody interprets them.
    const std::size_t count = values.size();
    const int kept = array[1] & ~(arrayCountHighMask | arrayVariableMark);
    array[0] = static_cast<byte_t>(count);
    array[1] = static_cast<byte_t>(kept | (isVariableLength ? arrayVariableMark : 0) |
                                   (static_cast<int>(count >> 8) & arrayCountHighMask));
    byte_t* slot = array + arrayHeaderLength;
    byte_t* data = array + slotsEnd(count);
    for (const auto& value : values) {
      if constexpr (isVariableLength) {
        const EncodedValue element = encoded(value);
        const std::size_t length = element.length();
        VColType::at(slot, 0).valueIs(static_cast<len_t>(data - array), static_cast<len_t>(length),
                                      false);
        element.store(data);
        slot += sizeof(VColType);
        data += length;
      } else {
        *data++ = value ? 1 : 0;
      }
    }
  }

  const std::vector<T>& values_;
  std::size_t length_;
};

// ---------------------------------------------------------------------------------------------
// Values as they are read

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

}  // namespace detail
}  // namespace Korvo
