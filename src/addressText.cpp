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

}  // namespace Korvo::detail
