#include <gtest/gtest.h>

TEST(CanaryTest, Fails) {
  EXPECT_EQ(1, 2);
}
