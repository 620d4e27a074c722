#pragma once

// What the fuzz targets share: an input taken apart piece by piece, exact heap blocks, and the
// requirement whose failure ends the process.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

/// Ends the process unless `condition` holds: to the fuzzer, a find.
#define FUZZ_REQUIRE(condition) \
  ((condition) ? static_cast<void>(0) : ::fuzz::fail(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void fail(const char* condition, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: required: %s\n", file, line, condition);
  std::abort();
}

using Bytes = std::vector<std::uint8_t>;

/// An input, read from its front. At its end it gives zeros and empty texts.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), left_(size) {}

  bool empty() const { return left_ == 0; }
  std::size_t left() const { return left_; }

  std::uint8_t byte() {
    if (left_ == 0) return 0;
    --left_;
    return *at_++;
  }
  std::uint16_t word() {
    const unsigned low = byte();
    return static_cast<std::uint16_t>(low | static_cast<unsigned>(byte()) << 8);
  }
  /// A number below `bound`, which is 1 to 65536.
  std::size_t below(std::size_t bound) { return (bound <= 256 ? byte() : word()) % bound; }
  bool flag() { return (byte() & 1) != 0; }

  /// Up to `count` bytes.
  Bytes bytes(std::size_t count) {
    count = std::min(count, left_);
    Bytes taken(at_, at_ + count);
    at_ += count;
    left_ -= count;
    return taken;
  }
  Bytes rest() { return bytes(left_); }
  std::string text(std::size_t count) {
    const Bytes taken = bytes(count);
    return {taken.begin(), taken.end()};
  }
  /// Text up to the next zero byte, or all that is left.
  std::string line() {
    const auto* const zero =
        left_ == 0 ? nullptr : static_cast<const std::uint8_t*>(std::memchr(at_, 0, left_));
    std::string taken = text(zero == nullptr ? left_ : static_cast<std::size_t>(zero - at_));
    byte();
    return taken;
  }

 private:
  const std::uint8_t* at_;
  std::size_t left_;
};

/// A heap block of exactly these bytes, so that a sanitizer sees every access beyond them.
class ExactBlock {
 public:
  explicit ExactBlock(const Bytes& bytes) : data_(new std::uint8_t[bytes.size()]) {
    std::copy(bytes.begin(), bytes.end(), data_.get());
  }
  std::uint8_t* data() const { return data_.get(); }

 private:
  std::unique_ptr<std::uint8_t[]> data_;
};

}  // namespace fuzz
