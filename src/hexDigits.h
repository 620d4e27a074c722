#pragma once

// The library's one table of hexadecimal digits.

namespace Korvo::detail {

inline constexpr char hexDigits[] = "0123456789abcdef";

/// Writes the two digits of a byte to `to`, and returns the end of the text.
inline char* writeHex(char* to, unsigned char byte) noexcept {
  *to++ = hexDigits[byte >> 4];
  *to++ = hexDigits[byte & 0xF];
  return to;
}

}  // namespace Korvo::detail
