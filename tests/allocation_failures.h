#pragma once

// Lets every allocation of an operation fail in turn. Included by one source per executable, as
// failing_allocator.h is.

#include "failing_allocator.h"

#if KORVO_FAILING_ALLOCATOR

#include <gtest/gtest.h>

#include <exception>
#include <new>
#include <string>
#include <vector>

namespace alloctest {

/// What there is to see of an operation's subject.
struct Snapshot {
  std::string contents;
  /// What a failure must leave where it is, like the buffer of a row.
  std::vector<const void*> places;
};

inline constexpr const char* outOfMemory = "std::bad_alloc";

/// How an operation ends: with nothing, or with what it throws.
template <typename Action>
std::string outcomeOf(const Action& action) {
  try {
    action();
  } catch (const std::bad_alloc&) {
    return outOfMemory;
  } catch (const std::exception& e) {
    return e.what();
  }
  return "returned";
}

/// Fails allocation 1, 2, ... of `operation(subject)`, once and from then on, each time on a
/// subject that `make()` gives, until it needs no further one. After a failure the subject is as
/// before, the same operation then does what it does undisturbed, and no block outlives the
/// subject. An operation may instead do without the memory, as long as it comes to the same.
///
/// Returns how many of its allocations can fail. `snapshot(subject)` gives a Snapshot.
template <typename Make, typename Operation, typename Look>
unsigned failEachAllocation(const std::string& what, const Make& make, const Operation& operation,
                            const Look& snapshot) {
  // The first time also makes what stays for good: tables, the library's and the system's.
  for (int i = 0; i < 2; ++i) {
    auto subject = make();
    outcomeOf([&] { operation(subject); });
  }
  std::string expectedOutcome;
  std::string expected;
  {
    auto undisturbed = make();
    expectedOutcome = outcomeOf([&] { operation(undisturbed); });
    expected = snapshot(undisturbed).contents;
  }

  unsigned failing = 0;
  for (const Failing mode : {Failing::once, Failing::fromThenOn}) {
    for (unsigned n = 0, failures = 1; failures != 0; ++n) {
      SCOPED_TRACE(what + (mode == Failing::once ? ", once: " : ", from then on: ") +
                   std::to_string(n));
      const long blocksAtStart = liveBlocks();
      {
        auto subject = make();
        const Snapshot before = snapshot(subject);
        std::exception_ptr thrown;
        {
          const FailureScope scope(n, mode);
          try {
            operation(subject);
          } catch (...) {
            thrown = std::current_exception();
          }
          failures = scope.failures();
        }
        std::string outcome = outcomeOf([&] {
          if (thrown) std::rethrow_exception(thrown);
        });
        if (outcome == outOfMemory) {
          EXPECT_GT(failures, 0U);
          const Snapshot after = snapshot(subject);
          EXPECT_EQ(after.contents, before.contents);
          EXPECT_EQ(after.places, before.places);
          ++failing;
          outcome = outcomeOf([&] { operation(subject); });
        }
        EXPECT_EQ(outcome, expectedOutcome);
        EXPECT_EQ(snapshot(subject).contents, expected);
      }
      EXPECT_EQ(liveBlocks(), blocksAtStart);
      if (testing::Test::HasFailure()) return failing;
    }
  }
  return failing;
}

}  // namespace alloctest

#endif  // KORVO_FAILING_ALLOCATOR
