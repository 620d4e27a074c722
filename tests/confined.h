#pragma once

// Tests of code that deletes files. A test that cannot be confined fails.
//
//   TEST(RemoveTree, RemovesAnEmptyFolder) {
//     confined([] {
//       ASSERT_EQ(mkdir("/d", 0700), 0);
//       EXPECT_EQ(Korvo::removeTree("/d"), 0);
//     });
//   }

#include <gtest/gtest.h>

#include <functional>

#include "confinement.h"

/// Runs `body` in a confined child process and fails unless it ran and all its expectations held.
inline void confined(const std::function<void()>& body,
                     const std::function<void()>& prepare = nullptr) {
  constexpr int skipped = 77;
  const auto test = [&body] {
    body();
    return testing::Test::HasFailure() ? 1 : testing::Test::IsSkipped() ? skipped : 0;
  };
  const int status = confinement::run(testing::TempDir(), test, prepare);
  ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  ASSERT_NE(WEXITSTATUS(status), confinement::notConfined) << "the test could not be confined";
  if (WEXITSTATUS(status) == skipped) GTEST_SKIP() << "skipped as said above";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "an expectation failed in the confined process";
}
