// Escaping against its steps and back, and the replacement of control bytes.

#include <Korvo/KoStrUtils.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "../tests/text_oracles.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using Korvo::KoStrUtils;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string escaped = Korvo::escapeString(text);
  FUZZ_REQUIRE(escaped == oracle::escapedBySteps(text));
  FUZZ_REQUIRE(Korvo::deescapeString(escaped) == text);
  FUZZ_REQUIRE(KoStrUtils::escapeString(text) == oracle::quotesEscapedBySteps(text));

  const std::string replaced = KoStrUtils::replaceCtrl(text);
  FUZZ_REQUIRE(replaced.size() == text.size());
  for (std::size_t i = 0; i < size; ++i) {
    FUZZ_REQUIRE(replaced[i] == (data[i] < 0x20 || data[i] > 0x7f ? ' ' : text[i]));
  }
  return 0;
}
