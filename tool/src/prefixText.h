#pragma once

// Prefixes as people write them.

#include <Korvo/korvo_types.h>

#include <string>

namespace korvotool {

/// An address is taken for the prefix of all its bits. Throws Failure.
Korvo::IpGenPrefix parsedPrefixOrAddress(const std::string& text);

/// Whether all addresses of `other` are in `prefix`.
bool containsAll(const Korvo::IpGenPrefix& prefix, const Korvo::IpGenPrefix& other);

}  // namespace korvotool
