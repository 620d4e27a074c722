// Refused: temporary

// The bytes of an address that dies with its expression.

#include <Korvo/korvo_types.h>

int main() {
  const Korvo::IpGenAddr addr("10.0.0.1");
  const unsigned char* const good = addr.bytes();
#ifdef BAD_LINE
  const unsigned char* const bad = Korvo::IpGenAddr("10.0.0.1").bytes();
  if (*bad == 0) return 1;
#endif
  return *good == 10 ? 0 : 1;
}
