#pragma once

// Reading text that somebody wrote, with errors that tell where.

#include <Korvo/layoutText.h>

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace Korvo::detail {

/// A text, read from its front.
class TextReader {
 public:
  explicit TextReader(std::string_view text) : text_(text) {}

  std::size_t position() const { return at_; }
  bool atEnd() const { return at_ == text_.size(); }
  /// The next character; a zero byte at the end.
  char peek() const { return atEnd() ? '\0' : text_[at_]; }
  char next() {
    const char c = peek();
    if (!atEnd()) ++at_;
    return c;
  }
  void skip(std::size_t count) { at_ += count; }
  std::string_view rest() const { return text_.substr(at_); }
  std::string_view since(std::size_t begin) const { return text_.substr(begin, at_ - begin); }

  void skipSpace() {
    while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++at_;
  }
  /// Takes the character if it comes next, behind any space.
  bool take(char c) {
    skipSpace();
    if (atEnd() || peek() != c) return false;
    ++at_;
    return true;
  }
  void expect(char c, const char* what) {
    if (!take(c)) fail(std::string("expected ") + what);
  }
  void expectEnd() {
    skipSpace();
    if (!atEnd()) fail("more text than expected");
  }

  /// The characters that come next and belong to a word: letters, digits, underscores.
  std::string_view word() {
    const std::size_t begin = at_;
    while (!atEnd() && isWordCharacter(peek())) ++at_;
    return since(begin);
  }

  [[noreturn]] void fail(const std::string& message) const { failAt(at_, message); }
  [[noreturn]] void failAt(std::size_t position, const std::string& message) const {
    std::size_t line = 1;
    std::size_t lineBegin = 0;
    for (std::size_t i = 0; i < position; ++i) {
      if (text_[i] != '\n') continue;
      ++line;
      lineBegin = i + 1;
    }
    throw KoTextError(message, line, position - lineBegin + 1);
  }

 private:
  static bool isWordCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

/// The number that all of the text is in decimal digits, if it is one and fits.
template <typename Number>
std::optional<Number> numberOf(std::string_view text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end) return std::nullopt;
  return number;
}

/// How a piece of bad text is shown in a message: not all of a long one, and on one line.
std::string shown(std::string_view text);

}  // namespace Korvo::detail
