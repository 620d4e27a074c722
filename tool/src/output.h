#pragma once

// Writing: standard output or a file that is there whole or not at all, colours, JSON.

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace korvotool {

/// Where a command's results go. Throws Failure where they cannot be written.
class Output {
 public:
  /// Standard output.
  Output();
  /// A file. It takes the place of one that is there when all is written, by finish().
  explicit Output(const std::string& path);
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output();

  void write(std::string_view text) {
    buffer_ += text;
    if (buffer_.size() >= bufferSize) flush();
  }
  Output& operator<<(std::string_view text) {
    write(text);
    return *this;
  }
  /// Has all that was written reach standard output now.
  void flush();
  /// To be called at the end; without it, what was written to a file is discarded.
  void finish();
  bool isTerminal() const;

 private:
  static constexpr std::size_t bufferSize = std::size_t{1} << 16;

  int fd_;
  std::string path_;       // as people know it
  std::string temporary_;  // empty for standard output, and for what is no plain file
  std::string buffer_;
};

/// One line on standard error, for people. What is no character of a line is made one.
void complain(std::string_view text);

/// When to use colours, as --color says.
enum class ColourChoice { automatic, always, never };

/// Colours, or nothing in their place.
class Style {
 public:
  Style(ColourChoice choice, bool isTerminal);

  std::string bold(std::string_view text) const { return paint("1", text); }
  std::string faint(std::string_view text) const { return paint("2", text); }
  std::string red(std::string_view text) const { return paint("31", text); }
  std::string green(std::string_view text) const { return paint("32", text); }
  std::string yellow(std::string_view text) const { return paint("33", text); }

 private:
  std::string paint(std::string_view code, std::string_view text) const;

  bool colours_;
};

/// One object or array of JSON under construction. Text that is not UTF-8 has U+FFFD in place of
/// its bad bytes.
class Json {
 public:
  static Json object() { return Json('{', '}'); }
  static Json array() { return Json('[', ']'); }

  Json& add(std::string_view key, std::string_view text) { return name(key).addText(text); }
  Json& add(std::string_view key, const char* text) { return add(key, std::string_view(text)); }
  template <typename T>
  requires std::is_arithmetic_v<T> Json& add(std::string_view key, T value) {
    return name(key).addValue(value);
  }
  Json& add(std::string_view key, const Json& value) { return addRaw(key, value.text()); }
  /// `json` is JSON already.
  Json& addRaw(std::string_view key, std::string_view json) {
    name(key).text_ += json;
    return *this;
  }
  Json& append(std::string_view text) { return separate().addText(text); }
  Json& append(const Json& value) {
    separate().text_ += value.text();
    return *this;
  }

  std::string text() const { return text_ + close_; }

 private:
  Json(char open, char close) : text_(1, open), close_(close) {}

  Json& separate() {
    if (text_.size() > 1) text_ += ',';
    return *this;
  }
  Json& name(std::string_view key) {
    separate().addText(key);
    text_ += ':';
    return *this;
  }
  Json& addText(std::string_view text);
  template <typename T>
  Json& addValue(T value) {
    if constexpr (std::is_same_v<T, bool>) {
      text_ += value ? "true" : "false";
    } else {
      char digits[32];
      text_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    }
    return *this;
  }

  std::string text_;
  char close_;
};

/// The text with every byte that might command a terminal written as \u00xx.
std::string printable(std::string_view text);

/// "1 row", "2 rows".
std::string counted(std::uint64_t count, const char* what);

}  // namespace korvotool
