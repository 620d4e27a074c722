// Refused: KorvoAPI is built with a time_t as wide as long: compile without _TIME_BITS=64

// Times stand in the scheduler's objects: a program with a wider time_t than the library's would
// read them wrong.

#ifdef BAD_LINE
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64
#endif

#include <Korvo/Scheduler.h>

int main() {
  return 0;
}
