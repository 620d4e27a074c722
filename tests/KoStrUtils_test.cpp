// Names every function of the header with its exact type: with the shared library, one that is not
// exported does not link.

#include <Korvo/KoStrUtils.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Korvo::KoStrUtils;
using Text = std::string;
using Texts = std::vector<std::string>;

/// Takes the address as `Function`, and as nothing else.
template <typename Function>
bool has(std::type_identity_t<Function>* function) {
  return function != nullptr;
}

TEST(KoStrUtils, OffersItsFunctions) {
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::canonicalize));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::extractQueryName));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::extractOutputType));
  EXPECT_TRUE(
      (has<unsigned int(Texts&, const Text&, unsigned int)>(KoStrUtils::extractEnquotedString)));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::replaceMultiBlanks));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::trim));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::escapeString));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::replaceCtrl));
  EXPECT_TRUE((has<Texts&(const Text&, char, Texts&)>(KoStrUtils::split)));
  EXPECT_TRUE(has<Text(Text&)>(KoStrUtils::baseName));
  EXPECT_TRUE(has<void(Text&)>(KoStrUtils::addTrailingSlash));
  EXPECT_TRUE((has<Text(const Text&, const Text&)>(KoStrUtils::dropTail)));
  EXPECT_TRUE((has<Text(const Text&, const Text&)>(KoStrUtils::keepTail)));
  EXPECT_TRUE(has<std::uint64_t(const Text&)>(KoStrUtils::stoUint64_t));
  EXPECT_TRUE(has<double(const Text&)>(KoStrUtils::stoDouble));
  EXPECT_TRUE((has<bool(const Text&, const Text&)>(KoStrUtils::iequals)));
  EXPECT_TRUE(has<Text(const Text&)>(KoStrUtils::sha1));
}

TEST(KoStrUtils, HasFreeFunctionsBesideIt) {
  EXPECT_TRUE(has<Text(const Text&)>(Korvo::escapeString));
  EXPECT_TRUE(has<Text(const Text&)>(Korvo::deescapeString));
  EXPECT_TRUE((has<int(const Text&, char, Texts&)>(Korvo::splitString)));
  EXPECT_TRUE(has<Texts(const Text&)>(Korvo::processArrayString));
  EXPECT_TRUE(has<int(Text)>(Korvo::removeTree));
  EXPECT_TRUE((has<int(const Text&, const Text&)>(Korvo::copyFile)));
}

}  // namespace
