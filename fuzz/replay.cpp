// Runs a fuzz target on every file of the folders and files given, without a fuzzer. An input that
// takes longer than the fuzzer would let it ends the process.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr unsigned int secondsForEach = 10;

void replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", file.c_str());
    std::exit(1);
  }
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
  // A block of exactly the input's size, so that a sanitizer sees the first byte read past it.
  const std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[bytes.size()]);
  if (!bytes.empty()) {
    std::memcpy(block.get(), bytes.data(), bytes.size());
  }
  alarm(secondsForEach);
  LLVMFuzzerTestOneInput(block.get(), bytes.size());
  alarm(0);
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replay(argv[i]);
      ++count;
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) {
        replay(entry.path());
        ++count;
      }
    }
  }
  std::printf("%zu inputs replayed\n", count);
  return count == 0 ? 1 : 0;
}
