#pragma once

// The one pair of helpers that reads and writes raw fields of a row buffer, and the digits that
// bytes are written with. Fields stand at any byte offset, so they are never accessed through a
// wider pointer.

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Korvo {

using byte_t = std::uint8_t;
/// Byte offsets, byte lengths and row lengths: a row is at most 65535 bytes.
using len_t = std::uint16_t;
/// A row's object id.
using oid_t = std::uint32_t;

static_assert(std::endian::native == std::endian::little,
              "rows are exchanged byte for byte between little-endian hosts");

/// Reads a T from `from`, which may stand at any address.
template <typename T>
inline T loadField(const void* from) noexcept {
  static_assert(std::is_trivially_copyable_v<T>);
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

/// Writes a T to `to`, which may stand at any address.
template <typename T>
inline void storeField(void* to, T value) noexcept {
  static_assert(std::is_trivially_copyable_v<T>);
  std::memcpy(to, &value, sizeof value);
}

namespace detail {

/// The library's one table of hexadecimal digits.
inline constexpr char hexDigits[] = "0123456789abcdef";

/// Writes the two digits of a byte to `to`, and returns the end of the text.
constexpr char* writeHex(char* to, unsigned char byte) noexcept {
  *to++ = hexDigits[byte >> 4];
  *to++ = hexDigits[byte & 0xF];
  return to;
}

}  // namespace detail

}  // namespace Korvo
