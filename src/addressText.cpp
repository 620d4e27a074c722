#include "addressText.h"

#include <Korvo/bytes.h>

#include <charconv>

namespace Korvo::detail {

char* writeAddress(char* to, AddressFamily af, const byte_t* bytes) noexcept {
  if (af == ipv4_) {
    for (int i = 0; i < 4; ++i) {
      if (i != 0) *to++ = '.';
      to = std::to_chars(to, to + 3, bytes[i]).ptr;
    }
    return to;
  }
  for (int i = 0; i < 16; ++i) {
    if (i != 0 && i % 2 == 0) *to++ = ':';
    to = writeHex(to, bytes[i]);
  }
  return to;
}

char* writeShortAddress(char* to, AddressFamily af, const byte_t* bytes) noexcept {
  if (af == ipv4_) return writeAddress(to, af, bytes);
  constexpr int groupCount = 8;
  const auto group = [bytes](int i) { return bytes[2 * i] * 256U + bytes[2 * i + 1]; };
  int gap = groupCount;
  int gapLength = 1;  // a single zero group is written as it is
  for (int i = 0, zeros = 0; i < groupCount; ++i) {
    zeros = group(i) == 0 ? zeros + 1 : 0;
    if (zeros > gapLength) {
      gapLength = zeros;
      gap = i + 1 - zeros;
    }
  }
  for (int i = 0; i < groupCount;) {
    if (i == gap) {
      *to++ = ':';
      i += gapLength;
      if (i == groupCount) *to++ = ':';
      continue;
    }
    if (i != 0) *to++ = ':';
    to = std::to_chars(to, to + 4, group(i++), 16).ptr;
  }
  return to;
}

}  // namespace Korvo::detail
