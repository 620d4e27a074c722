// Loses a block.

#include <cstdlib>

int main() {
  void* volatile block = std::malloc(64);
  block = nullptr;
  return block == nullptr ? 0 : 1;
}
