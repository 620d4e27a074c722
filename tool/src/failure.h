#pragma once

// How commands end.

#include <stdexcept>
#include <string>

namespace korvotool {

/// Exit statuses, the same for all commands; `layout diff` has 2 and 3 besides. From 64 on they are
/// those that BSD's sysexits.h gave to these mistakes.
enum ExitStatus : int {
  statusGood = 0,
  statusFound = 1,  ///< faults in rows, differences, an answer that is no
  statusUsage = 64,
  statusBadData = 65,
  statusNoInput = 66,
  statusUnavailable = 69,  ///< a publisher is not there, or does not give a table
  statusNoOutput = 74
};

/// What ends a command, with the line that people read.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& what) : std::runtime_error(what), status_(status) {}

  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace korvotool
