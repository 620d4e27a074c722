// Uses a function of the library that is not exported.

#include "src/addressText.h"

int main() {
  char text[Korvo::detail::addressTextLength];
  const Korvo::byte_t address[4] = {};
  return Korvo::detail::writeAddress(text, Korvo::ipv4_, address) == text ? 1 : 0;
}
