#pragma once

// What a load shows while it runs, and the numbers that it shows afterwards.

#include <chrono>
#include <cstdint>
#include <string>

namespace netdb {

/// 1234567 as "1,234,567".
std::string grouped(std::uint64_t number);

/// Writes a line to standard error in one piece, so that lines of several processes stay whole, and
/// over the progress bar if there may be one.
void complain(const std::string& line);

/// Lines on standard error while a load runs: a bar on a terminal, otherwise a line for each tenth.
class ProgressDisplay {
 public:
  explicit ProgressDisplay(bool quiet);
  ~ProgressDisplay() { clear(); }
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  /// `progress` is from 0 to 1. May be called as often as there is news; it draws at most 20 times
  /// a second.
  void show(double progress, std::uint64_t rows);
  /// Removes the bar, so that another line can be written.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  bool quiet_;
  bool terminal_;
  bool drawn_ = false;
  std::uint32_t nextTenth_ = 1;
  Clock::time_point lastDrawn_{};
};

}  // namespace netdb
