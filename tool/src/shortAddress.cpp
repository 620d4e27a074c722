#include "shortAddress.h"

#include <array>
#include <charconv>
#include <sstream>

namespace korvotool {

std::string shortText(const Korvo::IpGenAddr& addr) {
  if (addr.af() != Korvo::ipv6_) {
    std::ostringstream text;
    text << addr;
    return text.str();
  }
  std::array<unsigned int, 8> groups{};
  for (std::size_t i = 0; i < groups.size(); ++i) {
    groups[i] = static_cast<unsigned int>(addr.bytes()[2 * i] << 8 | addr.bytes()[2 * i + 1]);
  }
  std::size_t runBegin = 0;
  std::size_t runLength = 1;  // one group alone is written out
  for (std::size_t i = 0; i < groups.size(); ++i) {
    std::size_t length = 0;
    while (i + length < groups.size() && groups[i + length] == 0) ++length;
    if (length > runLength) {
      runBegin = i;
      runLength = length;
    }
  }
  std::string text;
  for (std::size_t i = 0; i < groups.size();) {
    if (runLength > 1 && i == runBegin) {
      text += "::";
      i += runLength;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    char digits[4];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, groups[i], 16);
    text.append(digits, end);
    ++i;
  }
  return text;
}

}  // namespace korvotool
