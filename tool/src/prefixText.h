#pragma once

// Addresses and prefixes as people write them.

#include <Korvo/korvo_types.h>

#include <sstream>
#include <string>

namespace korvotool {

/// An address or a prefix, as streams get it.
template <typename T>
std::string inserted(const T& value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

/// An address is taken for the prefix of all its bits. Throws Failure.
Korvo::IpGenPrefix parsedPrefixOrAddress(const std::string& text);

/// Whether all addresses of `other` are in `prefix`.
bool containsAll(const Korvo::IpGenPrefix& prefix, const Korvo::IpGenPrefix& other);

}  // namespace korvotool
