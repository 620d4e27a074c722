#pragma once

// Lines of a text that may be larger than memory.

#include "rowFile.h"

#include <string>

namespace korvotool {

class LineReader {
 public:
  /// Throws Failure.
  LineReader(const std::string& path, Compression compression)
      : path_(path == "-" ? "standard input" : path), source_(openBytes(path, compression)) {}

  /// The next character; false at the end.
  bool next(char& c) {
    if (at_ == piece_.size() && !fill()) return false;
    c = piece_[at_++];
    if (c == '\n') ++line_;
    return true;
  }
  /// The next line without its end; false if there is none. Throws Failure for one that is longer
  /// than any row is.
  bool nextLine(std::string& line);

  /// The number of the line that next() is in, and of the one that nextLine() gave last.
  std::uint64_t line() const { return line_ + 1; }
  std::uint64_t lastLine() const { return lastLine_; }
  /// Throws Failure that names the file and a line.
  [[noreturn]] void fail(std::uint64_t line, const std::string& what) const;

  static constexpr std::size_t longestLine = std::size_t{1} << 22;

 private:
  bool fill();

  std::string path_;
  std::unique_ptr<Bytes> source_;
  std::string piece_;
  std::size_t at_ = 0;
  std::uint64_t line_ = 0;  // lines that have ended
  std::uint64_t lastLine_ = 0;
};

}  // namespace korvotool
