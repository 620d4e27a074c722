// Decides by a byte that nobody wrote.

#include <cstdlib>

int main() {
  const volatile char* const block = static_cast<const volatile char*>(std::malloc(64));
  const int result = block[5] == 42 ? 1 : 0;
  std::free(const_cast<char*>(block));
  return result;
}
