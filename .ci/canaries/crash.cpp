// A fuzz target that writes past its block when it is given one certain text.

#include <cstddef>
#include <cstdint>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> block(new char[4]);
  if (size >= 2 && data[0] == 'H' && data[1] == 'i') {
    const volatile std::size_t past = size + 4;
    block[past] = 1;
  }
  return 0;
}
