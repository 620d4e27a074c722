#pragma once

// Ranges of addresses, and the prefixes that cover them.

#include <Korvo/korvo_types.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace netdb {

/// All addresses from `first` to `last`, both of one family, `first` not after `last`.
struct AddressRange {
  Korvo::IpGenAddr first;
  Korvo::IpGenAddr last;

  bool contains(const Korvo::IpGenAddr& addr) const {
    return addr.af() == first.af() && first <= addr && addr <= last;
  }
};

/// The fewest prefixes that cover the range and nothing else, by ascending address.
std::vector<Korvo::IpGenPrefix> coveringPrefixes(const AddressRange& range);

/// The last address that the prefix contains.
Korvo::IpGenAddr lastAddress(const Korvo::IpGenPrefix& prefix);

/// How many addresses the prefix contains; the largest number of the type if that is too small.
std::uint64_t addressCount(const Korvo::IpGenPrefix& prefix);

/// The special-purpose block that the prefix lies in ("private", "loopback", ...), or nothing.
std::string_view specialPurpose(const Korvo::IpGenPrefix& prefix);

}  // namespace netdb
