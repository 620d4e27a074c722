// Refused: no matching

// A prefix is never made from a bare number by accident.

#include <Korvo/korvo_types.h>

int main() {
  const Korvo::IpGenPrefix good(Korvo::IpAddr(0x0000000aU), 8);
#ifdef BAD_LINE
  const Korvo::IpGenPrefix bad(0x0000000aU);
#endif
  return good.mask() == 8 ? 0 : 1;
}
