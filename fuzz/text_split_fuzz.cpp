// Splitting at the input's first byte, against reading lines. The text starts in the vector that
// the pieces are appended to, where growth moves it.

#include <Korvo/KoStrUtils.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../tests/text_oracles.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const char delim = static_cast<char>(data[0]);
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  std::vector<std::string> expected = {text};
  std::vector<std::string> expectedFull = {text};
  for (const std::string& piece : oracle::piecesBySteps(text, delim)) {
    expected.push_back(piece);
    if (!piece.empty()) expectedFull.push_back(piece);
  }
  std::vector<std::string> out = {text};
  FUZZ_REQUIRE(&Korvo::KoStrUtils::split(out[0], delim, out) == &out);
  FUZZ_REQUIRE(out == expected);

  out = {text};
  FUZZ_REQUIRE(Korvo::splitString(out[0], delim, out) == static_cast<int>(expectedFull.size()));
  FUZZ_REQUIRE(out == expectedFull);

  FUZZ_REQUIRE(Korvo::processArrayString(text) == oracle::itemsBySteps(text));
  return 0;
}
