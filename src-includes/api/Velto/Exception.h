#pragma once

// Stand-in for the host framework's base exception. A host that brings its own framework builds
// against that one instead (CMake setting KORVO_VELTO_INCLUDE_DIR).

#include <exception>
#include <string>

namespace Velto {

/// An exception with a message. The flag belongs to the host framework; it is kept and not
/// interpreted here.
class Exception : public std::exception {
 public:
  /// With the text of what() and the flag.
  Exception(const std::string& message, bool flag) : message_(message), flag_(flag) {}

  /// The message; valid as long as this object.
  const char* what() const noexcept override { return message_.c_str(); }

  /// The flag given at construction.
  bool flag() const noexcept { return flag_; }

 private:
  std::string message_;
  bool flag_;
};

}  // namespace Velto
