#include "addressText.h"

#include <charconv>

namespace Korvo::detail {
namespace {

constexpr char hexDigits[] = "0123456789abcdef";

}  // namespace

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
    *to++ = hexDigits[bytes[i] >> 4];
    *to++ = hexDigits[bytes[i] & 0xF];
  }
  return to;
}

}  // namespace Korvo::detail
