#pragma once

// The text of addresses, composed without a stream.

#include <Korvo/korvo_types.h>

namespace Korvo::detail {

/// Room that every address's text has: eight groups of four digits and seven colons.
inline constexpr std::size_t addressTextLength = 39;

/// Writes the text of an address of family ipv4_ (dotted) or ipv6_ (eight groups of four lower-case
/// hexadecimal digits) to `to`, without a terminator, and returns the end of the text.
char* writeAddress(char* to, AddressFamily af, const byte_t* bytes) noexcept;
/// The same in the form of RFC 5952: no leading zeros, and "::" for the first of the longest runs
/// of two zero groups or more.
char* writeShortAddress(char* to, AddressFamily af, const byte_t* bytes) noexcept;

}  // namespace Korvo::detail
