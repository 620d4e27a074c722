#pragma once

// Failing calls of the system, for the tests of the file helpers: a test program defines a call of
// its own, INTERPOSED, which stands between the library and the system.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "file_test_support.h"

#define INTERPOSED extern "C" __attribute__((visibility("default")))

/// The call of that name that comes after the program's own.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// Counts calls of one kind and fails one of them.
struct Fault {
  int failing = 0;  // the call that fails, counted from 1; none if 0
  int calls = 0;

  bool due() { return ++calls == failing; }
};

/// Fails the first call, then the second, and so on, until `action` needs no further one. Before
/// each try comes `prepare`; after each that fails, `expect` is given the number of the failed call
/// and errno.
template <typename Prepare, typename Action, typename Expect>
void failEveryCall(Fault& fault, const Prepare& prepare, const Action& action,
                   const Expect& expect) {
  int failures = 0;
  for (;; ++failures) {
    prepare();
    const int before = openDescriptors();
    fault = {failures + 1, 0};
    const int result = action();
    const int error = errno;
    const bool failed = fault.calls >= fault.failing;
    fault = {};
    EXPECT_EQ(openDescriptors(), before) << failures;
    if (!failed) {
      EXPECT_EQ(result, 0) << std::strerror(error);
      break;
    }
    EXPECT_EQ(result, -1) << failures;
    expect(failures + 1, error);
  }
  EXPECT_GT(failures, 0) << "the call was never seen";
}
