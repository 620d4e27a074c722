// Decides by a byte that nobody wrote.

#include <cstdlib>

int main() {
  char* volatile block = static_cast<char*>(std::malloc(64));
  const int result = block[5] == 42 ? 1 : 0;
  std::free(block);
  return result;
}
