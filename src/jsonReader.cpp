#include "jsonReader.h"

#include "jsonText.h"

namespace Korvo::detail {
namespace {

void appendUtf8(std::string& to, unsigned int code) {
  const auto put = [&to](unsigned int byte) { to += static_cast<char>(byte); };
  const auto putNext = [&](unsigned int shift) { put(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    putNext(0);
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    putNext(6);
    putNext(0);
  } else {
    put(0xF0 | code >> 18);
    putNext(12);
    putNext(6);
    putNext(0);
  }
}

constexpr bool isHighSurrogate(unsigned int code) {
  return code >= 0xD800 && code < 0xDC00;
}
constexpr bool isLowSurrogate(unsigned int code) {
  return code >= 0xDC00 && code < 0xE000;
}

}  // namespace

bool JsonReader::takeWord(std::string_view expected) {
  skipSpace();
  if (!rest().starts_with(expected)) return false;
  TextReader ahead = *this;
  if (ahead.word() != expected) return false;
  skip(expected.size());
  return true;
}

std::string JsonReader::string() {
  skipSpace();
  const std::size_t begin = position();
  expect('"', "a string");
  std::string text;
  while (true) {
    const std::size_t left = rest().size();
    if (left == 0) failAt(begin, "the string does not end");
    const char c = peek();
    if (c == '"') {
      skip(1);
      return text;
    }
    if (c == '\\') {
      readEscape(text, position());
    } else if (static_cast<byte_t>(c) < 0x20) {
      fail("a control character stands in a string as an escape only");
    } else {
      const std::size_t length = utf8SequenceLength(rest());
      if (length == 0) fail("the text is not UTF-8");
      text += rest().substr(0, length);
      skip(length);
    }
  }
}

void JsonReader::readEscape(std::string& to, std::size_t begin) {
  skip(1);
  constexpr std::string_view letters = "\"\\/bfnrt";
  constexpr std::string_view meant = "\"\\/\b\f\n\r\t";
  const char letter = next();
  if (letter != 'u') {
    const std::size_t which = letters.find(letter);
    if (which == letters.npos) failAt(begin, "unknown escape");
    to += meant[which];
    return;
  }
  unsigned int code = hexWord(begin);
  if (isHighSurrogate(code)) {
    const unsigned int low = rest().starts_with("\\u") ? (skip(2), hexWord(begin)) : 0;
    if (!isLowSurrogate(low)) failAt(begin, "half of a surrogate pair");
    code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
  } else if (isLowSurrogate(code)) {
    failAt(begin, "half of a surrogate pair");
  }
  appendUtf8(to, code);
}

unsigned int JsonReader::hexWord(std::size_t begin) {
  constexpr std::size_t digits = 4;
  const std::string_view text = rest().substr(0, digits);
  unsigned int code = 0;
  const char* const end = text.data() + text.size();
  const bool isHex = std::from_chars(text.data(), end, code, 16).ptr == end;
  if (text.size() != digits || !isHex) failAt(begin, "\\u takes four hexadecimal digits");
  skip(digits);
  return code;
}

bool JsonReader::takeDigits() {
  const std::size_t begin = position();
  while (peek() >= '0' && peek() <= '9') skip(1);
  return position() != begin;
}

std::string_view JsonReader::number() {
  skipSpace();
  const std::size_t begin = position();
  if (peek() == '-') skip(1);
  if (peek() == '0') {
    skip(1);
    if (peek() >= '0' && peek() <= '9') failAt(begin, "a number begins with no further zero");
  } else if (!takeDigits()) {
    if (position() != begin) failAt(begin, "a number has digits behind its sign");
    return {};
  }
  if (peek() == '.') {
    skip(1);
    if (!takeDigits()) failAt(begin, "a number has digits behind its point");
  }
  if (peek() == 'e' || peek() == 'E') {
    skip(1);
    if (peek() == '+' || peek() == '-') skip(1);
    if (!takeDigits()) failAt(begin, "a number has digits in its exponent");
  }
  return since(begin);
}

}  // namespace Korvo::detail
