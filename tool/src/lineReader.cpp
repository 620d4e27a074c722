#include "lineReader.h"

#include "failure.h"

namespace korvotool {

bool LineReader::fill() {
  constexpr std::size_t pieceSize = std::size_t{1} << 16;
  piece_.resize(pieceSize);
  piece_.resize(source_->read(piece_.data(), pieceSize));
  at_ = 0;
  return !piece_.empty();
}

bool LineReader::nextLine(std::string& line) {
  line.clear();
  lastLine_ = line_ + 1;
  bool any = false;
  for (char c = 0; next(c);) {
    if (c == '\n') return true;
    any = true;
    line += c;
    if (line.size() > longestLine) fail(lastLine_, "the line exceeds 4 MiB");
  }
  return any;
}

void LineReader::fail(std::uint64_t line, const std::string& what) const {
  throw Failure(statusBadData, path_ + ": line " + std::to_string(line) + ": " + what);
}

}  // namespace korvotool
