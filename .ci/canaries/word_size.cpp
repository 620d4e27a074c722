// Holds on a 64-bit system only.

#include <gtest/gtest.h>

TEST(CanaryTest, WordSize) {
  EXPECT_EQ(sizeof(void*), 8U);
}
