// Reads a byte past a block.

#include <memory>

int main() {
  const volatile int size = 8;
  const std::unique_ptr<char[]> block(new char[static_cast<unsigned>(size)]());
  return block[static_cast<unsigned>(size)] == 42 ? 1 : 0;
}
