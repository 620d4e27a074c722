#pragma once

// Numbers by oid, for what is gathered of many rows: eight bytes a place, and no memory of its own
// for each oid.

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
  std::uint32_t find(oid_t oid) const { return size_ == 0 ? none : places_[placeOf(oid)].number; }
  /// The oid's number, which is `number` if it had none. Throws std::bad_alloc with all as before.
  std::uint32_t& insert(oid_t oid, std::uint32_t number) {
    reserve(size_ + 1);
    Place& place = places_[placeOf(oid)];
    if (place.number == none) {
      place = {oid, number};
      ++size_;
    }
    return place.number;
  }
  /// Makes room for `count` oids. A quarter of the places stays free at the least.
  void reserve(std::size_t count) {
    if (count * 4 <= places_.size() * 3) return;
    std::vector<Place> former(std::bit_ceil(std::max<std::size_t>(count * 4 / 3 + 1, 16)));
    former.swap(places_);
    shift_ = std::countl_zero(static_cast<std::uint64_t>(places_.size())) + 1;
    for (const Place& place : former) {
      if (place.number != none) places_[placeOf(place.oid)] = place;
    }
  }

 private:
  struct Place {
    oid_t oid = 0;
    std::uint32_t number = none;
  };

  /// Where the oid stands, or would. Places are in the order of the mixed oids, so that a larger
  /// array is filled from one end to the other.
  std::size_t placeOf(oid_t oid) const {
    const std::uint64_t mixed = oid * 0x9E3779B97F4A7C15U;
    auto at = static_cast<std::size_t>(mixed >> shift_);
    while (places_[at].number != none && places_[at].oid != oid) {
      at = (at + 1) & (places_.size() - 1);
    }
    return at;
  }

  std::vector<Place> places_;
  std::size_t size_ = 0;
  int shift_ = 0;  ///< as many of the highest bits name a place
};

}  // namespace Korvo::detail
