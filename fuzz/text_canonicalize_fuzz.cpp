// Canonicalising against its steps, and the extraction of names from what comes out.

#include <Korvo/KoStrUtils.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "../tests/text_oracles.h"
#include "fuzz_support.h"

namespace {

template <typename Call>
std::optional<std::string> resultOf(const Call& call) {
  try {
    return call();
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Korvo::KoStrUtils;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto canonical = resultOf([&] { return KoStrUtils::canonicalize(text); });
  FUZZ_REQUIRE(canonical == resultOf([&] { return oracle::canonicalBySteps(text); }));
  FUZZ_REQUIRE(KoStrUtils::trim(text) == oracle::trimmedBySteps(text));
  FUZZ_REQUIRE(KoStrUtils::replaceMultiBlanks(text) == oracle::singleBlanksBySteps(text));
  if (!canonical) return 0;

  const auto words = oracle::piecesBySteps(*canonical, ' ');
  const bool named = words.size() >= 2 && KoStrUtils::iequals(words[words.size() - 2], "named");
  const std::string name = KoStrUtils::extractQueryName(*canonical);
  FUZZ_REQUIRE(name == (named ? words.back().substr(0, words.back().rfind(';')) : ""));
  return 0;
}
