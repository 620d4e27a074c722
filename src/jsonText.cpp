#include "jsonText.h"

#include "addressText.h"

#include <cstddef>

namespace Korvo::detail {
namespace {

constexpr char hexDigits[] = "0123456789abcdef";

/// Bytes of the UTF-8 sequence at the front of `text`, or 0 if there is none. Overlong forms,
/// surrogates and values above U+10FFFF are none.
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

bool isPlain(char c) {
  return c >= 0x20 && c != '"' && c != '\\' && c < 0x7F;
}

void appendEscaped(std::string& json, char c) {
  switch (c) {
    case '"':
      json += "\\\"";
      break;
    case '\\':
      json += "\\\\";
      break;
    case '\n':
      json += "\\n";
      break;
    case '\t':
      json += "\\t";
      break;
    case '\r':
      json += "\\r";
      break;
    default:
      json += "\\u00";
      json += hexDigits[c >> 4];
      json += hexDigits[c & 0xF];
  }
}

void appendAddress(std::string& json, AddressFamily af, const byte_t* bytes) {
  char text[addressTextLength];
  json.append(text, writeAddress(text, af, bytes));
}

}  // namespace

void appendJsonString(std::string& json, std::string_view text) {
  json += '"';
  while (!text.empty()) {
    std::size_t plain = 0;
    while (plain < text.size() && isPlain(text[plain])) ++plain;
    json += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const char c = text.front();
    std::size_t length = 1;
    if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\') {
      appendEscaped(json, c);
    } else if ((length = utf8SequenceLength(text)) != 0) {
      json += text.substr(0, length);
    } else {
      json += "\xEF\xBF\xBD";
      length = 1;
    }
    text.remove_prefix(length);
  }
  json += '"';
}

void appendJsonAddress(std::string& json, AddressFamily af, const byte_t* bytes) {
  json += '"';
  appendAddress(json, af, bytes);
  json += '"';
}

void appendJsonPrefix(std::string& json, AddressFamily af, const byte_t* bytes, unsigned int mask) {
  json += '"';
  appendAddress(json, af, bytes);
  json += '/';
  appendJsonNumber(json, mask);
  json += '"';
}

}  // namespace Korvo::detail
