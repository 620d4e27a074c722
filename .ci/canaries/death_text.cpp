// Dies with another text than the test expects.

#include <Korvo/assertion.h>
#include <gtest/gtest.h>

TEST(CanaryDeathTest, OtherText) {
  EXPECT_DEATH(KORVO_ASSERT(false, "a < b", "src/canary.cpp", "void f()"), "Assertion `a <= b'");
}
