#pragma once

#include <Korvo/korvo_types.h>

#include <string>

namespace korvotool {

/// The address in the form of RFC 5952: groups without leading zeros, the longest run of two or
/// more zero groups (the first of several) as "::". IPv4 has one form only.
std::string shortText(const Korvo::IpGenAddr& addr);

}  // namespace korvotool
