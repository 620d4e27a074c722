#pragma once

// Writing JSON text. It depends on no locale, and a row's text is valid JSON whatever its bytes.

#include <Korvo/korvo_types.h>

#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Korvo::detail {

/// Bytes of the UTF-8 sequence at the front of `text`, or 0 if there is none. Overlong forms,
/// surrogates and values above U+10FFFF are none.
std::size_t utf8SequenceLength(std::string_view text);

/// A text under construction. Room is made once for each piece, not for each character.
class JsonText {
 public:
  explicit JsonText(std::size_t expectedLength) : text_(expectedLength, '\0') {}

  void put(char c) {
    *room(1) = c;
    ++length_;
  }
  /// As it stands, unescaped.
  void put(std::string_view piece) { length_ += piece.copy(room(piece.size()), piece.size()); }
  /// In quotes; bytes that are not UTF-8 become U+FFFD.
  void putString(std::string_view text);
  /// As the string that the value prints as.
  void putAddress(AddressFamily af, const byte_t* bytes);
  void putPrefix(AddressFamily af, const byte_t* bytes, unsigned int mask);
  /// In the shortest form that reads back the same; JSON has no NaN and no infinity, so these
  /// become null.
  template <typename Number>
  void putNumber(Number number) {
    if constexpr (std::is_floating_point_v<Number>) {
      if (!std::isfinite(number)) return put("null");
    }
    char* const to = room(longestNumber);
    length_ += static_cast<std::size_t>(std::to_chars(to, to + longestNumber, number).ptr - to);
  }

  std::string take() {
    text_.resize(length_);
    return std::move(text_);
  }

 private:
  static constexpr std::size_t longestNumber = 32;

  /// Where the next `count` characters go.
  char* room(std::size_t count) {
    if (text_.size() - length_ < count) text_.resize(2 * text_.size() + count);
    return text_.data() + length_;
  }
  void putEscaped(char c);

  std::string text_;
  std::size_t length_ = 0;
};

}  // namespace Korvo::detail
