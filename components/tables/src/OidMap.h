#pragma once

// Numbers by oid, for what is gathered of many rows: four bytes a place, and no memory of its own
// for each oid. The oids are those of the user's numbered things: oidOf(number) tells them.

#include <Korvo/rowFormat.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Korvo::detail {

class OidMap {
 public:
  /// No oid has this number.
  static constexpr std::uint32_t none = 0xFFFFFFFF;

  std::size_t size() const { return size_; }

  /// The oid's number, or none.
  template <typename OidOf>
  std::uint32_t find(oid_t oid, const OidOf& oidOf) const {
    return size_ == 0 ? none : places_[placeOf(oid, oidOf)];
  }
  /// The oid's number, which is `number` if it had none. Throws std::bad_alloc with all as before.
  template <typename OidOf>
  std::uint32_t& insert(oid_t oid, std::uint32_t number, const OidOf& oidOf) {
    reserve(size_ + 1, oidOf);
    std::uint32_t& place = places_[placeOf(oid, oidOf)];
    if (place == none) {
      place = number;
      ++size_;
    }
    return place;
  }
  /// Makes room for `count` oids. Of eight places three stay free at the least: each one that is
  /// taken costs who comes by a look at a thing.
  template <typename OidOf>
  void reserve(std::size_t count, const OidOf& oidOf) {
    if (count * 8 <= places_.size() * 5) return;
    std::vector<std::uint32_t> former(std::bit_ceil(std::max<std::size_t>(count * 8 / 5 + 1, 16)),
                                      none);
    former.swap(places_);
    shift_ = std::countl_zero(static_cast<std::uint64_t>(places_.size())) + 1;
    for (const std::uint32_t number : former) {
      if (number != none) places_[placeOf(oidOf(number), oidOf)] = number;
    }
  }

 private:
  /// Where the oid stands, or would. Places are in the order of the mixed oids, so that a larger
  /// array is filled from one end to the other.
  template <typename OidOf>
  std::size_t placeOf(oid_t oid, const OidOf& oidOf) const {
    const std::uint64_t mixed = oid * 0x9E3779B97F4A7C15U;
    auto at = static_cast<std::size_t>(mixed >> shift_);
    while (places_[at] != none && oidOf(places_[at]) != oid) at = (at + 1) & (places_.size() - 1);
    return at;
  }

  std::vector<std::uint32_t> places_;
  std::size_t size_ = 0;
  int shift_ = 0;  ///< as many of the highest bits name a place
};

}  // namespace Korvo::detail
