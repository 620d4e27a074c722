#pragma once

// Descriptors of the library's own.

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace Korvo::detail {

/// Closes its descriptor in the end.
class OwnDescriptor {
 public:
  OwnDescriptor() = default;
  /// Takes what a system call gave; throws std::system_error if that is a failure.
  OwnDescriptor(int fd, const char* call) : fd_(fd) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), call);
  }
  OwnDescriptor(OwnDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnDescriptor& operator=(OwnDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~OwnDescriptor() {
    if (fd_ != -1) close(fd_);
  }

  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

inline OwnDescriptor newEventDescriptor(unsigned count) {
  return {eventfd(count, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"};
}

/// Takes the numbers of standard streams that are closed, so that nothing made meanwhile gets one:
/// what the process prints would go there, and libuv stops the process where it closes one.
class StandardNumbersTaken {
 public:
  StandardNumbersTaken() {
    for (OwnDescriptor& taken : taken_) {
      OwnDescriptor next = newEventDescriptor(0);
      if (next.get() > STDERR_FILENO) break;
      taken = std::move(next);
    }
  }

 private:
  OwnDescriptor taken_[STDERR_FILENO + 1];
};

}  // namespace Korvo::detail
