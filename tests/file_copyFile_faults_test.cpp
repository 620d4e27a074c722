// Copying when the system does it in pieces, interrupts it, or cannot do it by itself: this
// program's own versions of the calls stand between the library and the system.

#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <functional>
#include <string>

#include "confined.h"
#include "file_fault_support.h"

namespace {

using CopyRange = ssize_t(int, off64_t*, int, off64_t*, std::size_t, unsigned int);

bool armed = false;
std::function<CopyRange> onCopyRange;
std::function<ssize_t(int, void*, std::size_t)> onRead;
std::function<ssize_t(int, const void*, std::size_t)> onWrite;

Fault opening, examining, emptying;

bool failNow(Fault& fault) {
  if (!armed || !fault.due()) return false;
  errno = EIO;
  return true;
}

ssize_t systemRead(int fd, void* data, std::size_t size) {
  return next<ssize_t(int, void*, std::size_t)>("read")(fd, data, size);
}

ssize_t systemWrite(int fd, const void* data, std::size_t size) {
  return next<ssize_t(int, const void*, std::size_t)>("write")(fd, data, size);
}

ssize_t failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

INTERPOSED ssize_t copy_file_range(int from, off64_t* fromAt, int to, off64_t* toAt,
                                   std::size_t size, unsigned int flags) {
  if (armed && onCopyRange) return onCopyRange(from, fromAt, to, toAt, size, flags);
  return next<CopyRange>("copy_file_range")(from, fromAt, to, toAt, size, flags);
}

INTERPOSED ssize_t read(int fd, void* data, std::size_t size) {
  return armed && onRead ? onRead(fd, data, size) : systemRead(fd, data, size);
}

INTERPOSED ssize_t write(int fd, const void* data, std::size_t size) {
  return armed && onWrite ? onWrite(fd, data, size) : systemWrite(fd, data, size);
}

// The library is built with 64-bit offsets on either word size.
INTERPOSED int open64(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (failNow(opening)) return -1;
  return next<int(const char*, int, ...)>("open64")(path, flags, mode);
}
INTERPOSED int fstat64(int fd, struct stat64* info) noexcept {
  if (failNow(examining)) return -1;
  return next<int(int, struct stat64*)>("fstat64")(fd, info);
}
INTERPOSED int stat64(const char* path, struct stat64* info) noexcept {
  if (failNow(examining)) return -1;
  return next<int(const char*, struct stat64*)>("stat64")(path, info);
}
INTERPOSED int ftruncate64(int fd, off64_t size) noexcept {
  if (failNow(emptying)) return -1;
  return next<int(int, off64_t)>("ftruncate64")(fd, size);
}

namespace {

int copyWithFaults() {
  errno = 0;
  armed = true;
  const int result = Korvo::copyFile("/from", "/to");
  armed = false;
  return result;
}

const std::string content(200000, 'x');

TEST(CopyFileFaults, CopiesItselfWhereTheSystemCannot) {
  for (const int error : {ENOSYS, EXDEV, EINVAL, EOPNOTSUPP, EPERM, EBADF, ENOSPC, EIO, 0}) {
    SCOPED_TRACE(error);
    confined([error] {
      makeFile("/from", content);
      int calls = 0;
      onCopyRange = [&](auto...) {
        ++calls;
        return error == 0 ? 0 : failWith(error);
      };
      EXPECT_EQ(copyWithFaults(), 0) << std::strerror(errno);
      EXPECT_EQ(calls, 1);
      EXPECT_EQ(contentOf("/to"), content);
    });
  }
}

TEST(CopyFileFaults, GoesOnWhereTheSystemStops) {
  confined([] {
    makeFile("/from", content);
    int calls = 0;
    onCopyRange = [&](int from, off64_t* fromAt, int to, off64_t* toAt, std::size_t,
                      unsigned int flags) {
      if (++calls == 4) return failWith(EIO);
      return next<CopyRange>("copy_file_range")(from, fromAt, to, toAt, 1000, flags);
    };
    EXPECT_EQ(copyWithFaults(), 0) << std::strerror(errno);
    EXPECT_EQ(calls, 4);
    EXPECT_EQ(contentOf("/to"), content);
  });
}

TEST(CopyFileFaults, TakesShortReadsAndWritesAndInterruptions) {
  confined([] {
    makeFile("/from", content);
    int calls = 0;
    onCopyRange = [](auto...) { return failWith(ENOSYS); };
    onRead = [&](int fd, void* data, std::size_t size) {
      if (++calls % 2 == 1) return failWith(EINTR);
      return systemRead(fd, data, std::min(size, std::size_t{7001}));
    };
    onWrite = [&](int fd, const void* data, std::size_t size) {
      if (++calls % 3 == 1) return failWith(EINTR);
      return systemWrite(fd, data, std::min(size, std::size_t{999}));
    };
    EXPECT_EQ(copyWithFaults(), 0) << std::strerror(errno);
    EXPECT_EQ(contentOf("/to"), content);
  });
}

TEST(CopyFileFaults, FailsWhenReadingFailsOnTheWay) {
  confined([] {
    makeFile("/from", content);
    int calls = 0;
    onCopyRange = [](auto...) { return failWith(ENOSYS); };
    onRead = [&](int fd, void* data, std::size_t size) {
      return ++calls == 2 ? failWith(EIO) : systemRead(fd, data, size);
    };
    const int before = openDescriptors();
    EXPECT_EQ(copyWithFaults(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(openDescriptors(), before);
    const std::string copied = contentOf("/to");
    EXPECT_GT(copied.size(), 0u);
    EXPECT_LT(copied.size(), content.size());
  });
}

TEST(CopyFileFaults, FailsWhenWritingFailsOnTheWay) {
  confined([] {
    makeFile("/from", content);
    int calls = 0;
    onCopyRange = [](auto...) { return failWith(ENOSYS); };
    onWrite = [&](int fd, const void* data, std::size_t size) {
      return ++calls == 2 ? failWith(ENOSPC) : systemWrite(fd, data, size);
    };
    const int before = openDescriptors();
    EXPECT_EQ(copyWithFaults(), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(openDescriptors(), before);
  });
}

/// Fails every call of a copy; `expect` is given the number of the failed one.
void failEveryCall(Fault& fault, const std::function<void(int)>& expect) {
  const auto prepare = [] {
    makeFile("/from", content);
    makeFile("/to", "old");
  };
  failEveryCall(fault, prepare, copyWithFaults, [&](int call, int error) {
    EXPECT_EQ(error, EIO) << call;
    expect(call);
    EXPECT_EQ(contentOf("/from"), content);
    EXPECT_EQ(copyWithFaults(), 0);
    EXPECT_EQ(contentOf("/to"), content);
  });
}

TEST(CopyFileFaults, FailsWhenOpeningFails) {
  confined([] {
    failEveryCall(opening, [](int call) {
      // The destination is emptied even if the source cannot be opened.
      EXPECT_EQ(contentOf("/to"), call == 1 ? "" : "old") << call;
    });
  });
}
// Source and destination may be one file as long as not both have been examined.
TEST(CopyFileFaults, LeavesTheDestinationWhenEitherCannotBeExamined) {
  confined([] { failEveryCall(examining, [](int) { EXPECT_EQ(contentOf("/to"), "old"); }); });
}
TEST(CopyFileFaults, LeavesTheDestinationThatCannotBeEmptied) {
  confined([] { failEveryCall(emptying, [](int) { EXPECT_EQ(contentOf("/to"), "old"); }); });
}

}  // namespace
