// What a digest looks like when the cryptographic library refuses to compute it, as one with a
// policy against SHA-1 does: this program's own SHA1 takes the library's place.

#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace {
int calls = 0;
}

extern "C" __attribute__((visibility("default"))) unsigned char* SHA1(const unsigned char*,
                                                                      std::size_t, unsigned char*) {
  ++calls;
  return nullptr;
}

namespace {

TEST(Sha1Refused, ThrowsInsteadOfGivingStrayBytes) {
  try {
    Korvo::KoStrUtils::sha1("abc");
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& thrown) {
    EXPECT_STREQ(thrown.what(), "SHA-1 is not available from the cryptographic library");
  }
  EXPECT_EQ(calls, 1);
}

}  // namespace
