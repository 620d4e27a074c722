#include "jsonText.h"

#include "addressText.h"

#include <Korvo/bytes.h>

#include <cstddef>
#include <cstdint>

namespace Korvo::detail {
namespace {

bool isPlain(char c) {
  return c >= 0x20 && c != '"' && c != '\\' && c < 0x7F;
}

/// How many characters at the front of `text` stand for themselves.
std::size_t plainLength(std::string_view text) {
  constexpr std::uint64_t ones = 0x0101010101010101;
  constexpr std::uint64_t highBits = 0x80 * ones;
  // The high bit of every byte that is zero, and perhaps of bytes behind it.
  const auto zeroBytes = [](std::uint64_t word) { return (word - ones) & ~word; };
  std::size_t length = 0;
  for (; text.size() - length >= 8; length += 8) {
    const auto word = loadField<std::uint64_t>(text.data() + length);
    const std::uint64_t control = (word - ' ' * ones) & ~word;
    if (((control | zeroBytes(word ^ '"' * ones) | zeroBytes(word ^ '\\' * ones) | word) &
         highBits) != 0) {
      break;
    }
  }
  while (length < text.size() && isPlain(text[length])) ++length;
  return length;
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) -> unsigned int {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const auto continues = [&](std::size_t i) { return (byte(i) & 0xC0U) == 0x80U; };
  const unsigned int lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return continues(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    const bool overlong = lead == 0xE0 && byte(1) < 0xA0;
    const bool surrogate = lead == 0xED && byte(1) > 0x9F;
    return continues(1) && continues(2) && !overlong && !surrogate ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    const bool overlong = lead == 0xF0 && byte(1) < 0x90;
    const bool tooLarge = lead == 0xF4 && byte(1) > 0x8F;
    return continues(1) && continues(2) && continues(3) && !overlong && !tooLarge ? 4 : 0;
  }
  return 0;
}

void JsonText::putEscaped(char c) {
  switch (c) {
    case '"':
      return put("\\\"");
    case '\\':
      return put("\\\\");
    case '\n':
      return put("\\n");
    case '\t':
      return put("\\t");
    case '\r':
      return put("\\r");
    default:
      put("\\u00");
      writeHex(room(2), static_cast<unsigned char>(c));
      length_ += 2;
  }
}

void JsonText::putString(std::string_view text) {
  put('"');
  while (true) {
    const std::size_t plain = plainLength(text);
    put(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    const char c = text.front();
    std::size_t length = 1;
    if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\') {
      putEscaped(c);
    } else if ((length = utf8SequenceLength(text)) != 0) {
      put(text.substr(0, length));
    } else {
      put("\xEF\xBF\xBD");
      length = 1;
    }
    text.remove_prefix(length);
  }
  put('"');
}

void JsonText::putAddress(AddressFamily af, const byte_t* bytes) {
  put('"');
  char* const to = room(addressTextLength);
  length_ += static_cast<std::size_t>(writeAddress(to, af, bytes) - to);
  put('"');
}

void JsonText::putPrefix(AddressFamily af, const byte_t* bytes, unsigned int mask) {
  putAddress(af, bytes);
  text_[length_ - 1] = '/';  // the quote moves behind the length
  putNumber(mask);
  put('"');
}

}  // namespace Korvo::detail
