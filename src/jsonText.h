#pragma once

// Pieces of JSON text. They depend on no locale, and a row's text is valid JSON whatever its bytes.

#include <Korvo/korvo_types.h>

#include <charconv>
#include <cmath>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

namespace Korvo::detail {

/// A string in quotes; bytes that are not UTF-8 become U+FFFD.
void appendJsonString(std::string& json, std::string_view text);
/// An address or a prefix as the string that its value prints as.
void appendJsonAddress(std::string& json, AddressFamily af, const byte_t* bytes);
void appendJsonPrefix(std::string& json, AddressFamily af, const byte_t* bytes, unsigned int mask);

/// A number in its shortest form that reads back the same; JSON has no NaN and no infinity, so
/// these become null.
template <typename Number>
void appendJsonNumber(std::string& json, Number number) {
  if constexpr (std::is_floating_point_v<Number>) {
    if (!std::isfinite(number)) {
      json += "null";
      return;
    }
  }
  char digits[32];
  json.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
}

}  // namespace Korvo::detail
