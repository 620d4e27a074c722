// Overflows a signed number.

#include <climits>

int main() {
  const volatile int largest = INT_MAX;
  return largest + 1 == 42 ? 1 : 0;
}
