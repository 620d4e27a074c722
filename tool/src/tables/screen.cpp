#include "screen.h"

#include "../failure.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace korvotool {
namespace {

// A screen of its own, no cursor, and long lines end at the margin.
constexpr std::string_view begin = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[H\x1b[2J";
constexpr std::string_view end = "\x1b[?7h\x1b[?25h\x1b[?1049l";

}  // namespace

Screen::Screen(Output& out) : out_(out) {
  out_ << begin;
  out_.flush();
}

Screen::~Screen() {
  try {
    out_ << end;
    out_.flush();
  } catch (const Failure&) {  // NOLINT(bugprone-empty-catch): the terminal is gone
  }
}

Screen::Size Screen::size() {
  winsize window{};
  Size size;
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0) {
    if (window.ws_row != 0) size.lines = window.ws_row;
    if (window.ws_col != 0) size.columns = window.ws_col;
  }
  return size;
}

void Screen::draw(const std::vector<std::string>& lines) {
  const std::size_t count = std::min(lines.size(), size().lines);
  out_ << "\x1b[H";
  for (std::size_t i = 0; i < count; ++i) {
    if (i != 0) out_ << "\r\n";
    out_ << lines[i] << "\x1b[K";
  }
  out_ << "\x1b[J";
  out_.flush();
}

std::string_view cut(std::string_view text, std::size_t width) {
  std::size_t at = 0;
  for (; at < text.size(); ++at) {
    const bool begins = (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80;
    if (begins && width-- == 0) break;
  }
  return text.substr(0, at);
}

}  // namespace korvotool
