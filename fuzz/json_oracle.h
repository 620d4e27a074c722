#pragma once

// Whether a text is JSON, in UTF-8, by the grammar. Rows give objects, arrays, strings, numbers,
// true, false and null, and put no space between them.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

class JsonOracle {
 public:
  static bool isJson(std::string_view text) {
    JsonOracle oracle(text);
    return oracle.value() && oracle.left_.empty();
  }

 private:
  explicit JsonOracle(std::string_view text) : left_(text) {}

  bool value() {
    if (take('{')) return list('}', [this] { return string() && take(':') && value(); });
    if (take('[')) return list(']', [this] { return value(); });
    if (!left_.empty() && left_.front() == '"') return string();
    return take("true") || take("false") || take("null") || number();
  }

  template <typename Item>
  bool list(char end, const Item& item) {
    if (take(end)) return true;
    do {
      if (!item()) return false;
    } while (take(','));
    return take(end);
  }

  bool number() {
    take('-');
    if (!take('0') && !digits()) return false;
    if (take('.') && !digits()) return false;
    if (!take('e') && !take('E')) return true;
    if (!take('+')) take('-');
    return digits();
  }

  bool digits() {
    const std::size_t before = left_.size();
    while (!left_.empty() && left_.front() >= '0' && left_.front() <= '9') left_.remove_prefix(1);
    return left_.size() != before;
  }

  bool string() {
    if (!take('"')) return false;
    while (!take('"')) {
      if (!(take('\\') ? escape() : character())) return false;
    }
    return true;
  }

  bool escape() {
    if (!take('u')) return oneOf("\"\\/bfnrt");
    for (int i = 0; i < 4; ++i) {
      if (!oneOf("0123456789abcdefABCDEF")) return false;
    }
    return true;
  }

  bool oneOf(std::string_view allowed) {
    if (left_.empty() || allowed.find(left_.front()) == std::string_view::npos) return false;
    left_.remove_prefix(1);
    return true;
  }

  /// One character of UTF-8: its value, put together, has to need as many bytes as it has.
  bool character() {
    if (left_.empty()) return false;
    const auto byte = [this](std::size_t i) {
      return static_cast<std::uint32_t>(static_cast<unsigned char>(left_[i]));
    };
    const std::uint32_t lead = byte(0);
    const std::size_t size = lead < 0x80   ? 1
                             : lead < 0xC0 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                                           : 4;
    if (size == 0 || left_.size() < size || lead >= 0xF8 || lead < 0x20) return false;
    std::uint32_t point = size == 1 ? lead : lead & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
      if (byte(i) >> 6 != 2) return false;
      point = point << 6 | (byte(i) & 0x3F);
    }
    left_.remove_prefix(size);
    const std::size_t needed = point < 0x80 ? 1 : point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
    return size == needed && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
  }

  bool take(char c) {
    if (left_.empty() || left_.front() != c) return false;
    left_.remove_prefix(1);
    return true;
  }
  bool take(std::string_view text) {
    if (!left_.starts_with(text)) return false;
    left_.remove_prefix(text.size());
    return true;
  }

  std::string_view left_;
};

}  // namespace fuzz
