#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace netdb {

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t i = text.size(); i > 3; i -= 3) text.insert(i - 3, 1, ',');
  return text;
}

void complain(const std::string& line) {
  std::fflush(stderr);
  const std::string text = (::isatty(2) != 0 ? "\r\033[K" : "") + line + '\n';
  [[maybe_unused]] const auto written = ::write(2, text.data(), text.size());  // nowhere to tell
}

ProgressDisplay::ProgressDisplay(bool quiet) : quiet_(quiet), terminal_(::isatty(2) != 0) {}

void ProgressDisplay::show(double progress, std::uint64_t rows) {
  if (quiet_) return;
  const auto permille = static_cast<unsigned int>(1000 * progress);
  if (!terminal_) {
    for (; nextTenth_ <= permille / 100; ++nextTenth_) {
      std::fprintf(stderr, "loading: %u %%, %s rows\n", 10 * nextTenth_, grouped(rows).c_str());
    }
    return;
  }
  const Clock::time_point now = Clock::now();
  if (drawn_ && now - lastDrawn_ < std::chrono::milliseconds(50)) return;
  constexpr unsigned int width = 40;
  const unsigned int done = width * permille / 1000;
  std::fprintf(stderr, "\r  [%s%s] %3u %%  %s rows\033[K", std::string(done, '#').c_str(),
               std::string(width - done, '.').c_str(), permille / 10, grouped(rows).c_str());
  std::fflush(stderr);
  lastDrawn_ = now;
  drawn_ = true;
}

void ProgressDisplay::clear() {
  if (drawn_) std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
  drawn_ = false;
}

}  // namespace netdb
