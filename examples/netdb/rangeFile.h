#pragma once

// Files of address ranges: "first,last,country" in each line, IPv4 addresses as decimal numbers or
// IPv6 addresses as text, and comments after '#'.

#include <cstdint>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "addressRange.h"

namespace netdb {

/// A file that cannot be read.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One line that holds a range.
struct RangeLine {
  AddressRange range;
  std::string country;
  std::uint32_t line = 0;
};

/// Reads a line; throws std::invalid_argument with the reason if it is malformed.
RangeLine parseRangeLine(std::string_view text);

/// A file that is read range by range.
class RangeFile {
 public:
  /// Told of each malformed line: its number and the reason. The line is skipped.
  using Complaint = std::function<void(std::uint32_t line, const std::string& reason)>;

  /// Throws InputError if the file cannot be opened.
  RangeFile(const std::string& path, Complaint complaint);

  /// Reads the next range; false at the end of the file. Throws InputError if reading fails.
  bool next(RangeLine& out);

  /// The file's name without its folders.
  const std::string& name() const { return name_; }
  std::uint64_t bytesRead() const { return bytesRead_; }
  std::uint64_t size() const { return size_; }

 private:
  std::string path_;
  std::string name_;
  Complaint complaint_;
  std::ifstream file_;
  std::string text_;
  std::uint32_t line_ = 0;
  std::uint64_t bytesRead_ = 0;
  std::uint64_t size_ = 0;
};

}  // namespace netdb
