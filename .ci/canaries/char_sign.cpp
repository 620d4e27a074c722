// Holds only where char is signed.

#include <gtest/gtest.h>

TEST(CanaryTest, CharSign) {
  EXPECT_LT(static_cast<int>('\xFF'), 0);
}
