// Extracting a quoted text from every position of an input, against its steps.

#include <Korvo/KoStrUtils.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "../tests/text_oracles.h"
#include "fuzz_support.h"

namespace {

/// The end of the quoted text; 0 if there is none.
template <typename Extract>
std::size_t endOf(const Extract& extract) {
  try {
    return extract();
  } catch (const std::exception&) {
    return 0;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Korvo::KoStrUtils;
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (unsigned int pos = 0; pos <= text.size() && pos < 200; ++pos) {
    std::vector<std::string> expected;
    std::vector<std::string> out;
    const std::size_t expectedEnd =
        endOf([&] { return oracle::quotedBySteps(expected, text, pos); });
    const std::size_t end =
        endOf([&] { return KoStrUtils::extractEnquotedString(out, text, pos); });
    FUZZ_REQUIRE(end == expectedEnd);
    FUZZ_REQUIRE(out == expected);
  }
  return 0;
}
