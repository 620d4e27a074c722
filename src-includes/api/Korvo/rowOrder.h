#pragma once

// Orders, equality and hashes of column values, whatever their type: what row classes compare, hash
// and sort by. Values are given as views, that is as what a row's view() gives.
//
// Two prefixes without a family are equal here, and none is before the other; the operators of
// IpGenPrefixReference stop the process for them.

#include <Korvo/row.h>
#include <Korvo/rowNested.h>

#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <type_traits>

namespace Korvo::detail {

// ---------------------------------------------------------------------------------------------
// Sort keys
//
// sortKey(view, level) is step `level` of a value in its order: of two values whose keys are the
// same below some level, the one with the smaller key there is before the other. isLastKey() tells
// from a key whether the values that have it are equal, so that no further level is to be asked
// for.

template <typename T>
requires std::is_arithmetic_v<T>
inline std::uint64_t sortKey(T value, unsigned int /*level*/) noexcept {
  constexpr std::uint64_t signBit = std::uint64_t{1} << 63;
  if constexpr (std::is_floating_point_v<T>) {
    if (std::isnan(value)) return ~std::uint64_t{0};       // behind all others
    const double wide = value == 0 ? 0.0 : double{value};  // there is one zero
    const auto bits = std::bit_cast<std::uint64_t>(wide);
    return (bits & signBit) != 0 ? ~bits : bits | signBit;
  } else if constexpr (std::is_signed_v<T>) {
    return static_cast<std::uint64_t>(std::int64_t{value}) ^ signBit;
  } else {
    return value;
  }
}

inline std::uint64_t sortKey(const IpAddr& addr, unsigned int /*level*/) noexcept {
  return __builtin_bswap32(addr.addr());
}

inline std::uint64_t sortKey(const Ip6Addr& addr, unsigned int level) noexcept {
  return leadingBytes(addr.bytes() + 8 * level, 8);
}

/// Seven bytes, and how many of them the value has; 8 where it has more.
inline std::uint64_t sortKey(const StringValueReference& text, unsigned int level) noexcept {
  constexpr std::size_t step = 7;
  const std::string_view rest =
      text.view().substr(std::min<std::size_t>(text.size(), step * level));
  return leadingBytes(rest.data(), std::min(rest.size(), step)) | std::min(rest.size(), step + 1);
}

/// A family and 16 bytes, 62 bits at the first level; `tail` comes behind all of them.
inline std::uint64_t sortKeyOfV6(std::uint64_t high, std::uint64_t low, std::uint64_t tail,
                                 unsigned int level) noexcept {
  if (level == 0) return std::uint64_t{ipv6_} << 62 | high >> 2;
  return level == 1 ? high << 62 | low >> 2 : low << 62 | tail;
}

inline std::uint64_t sortKey(const IpGenAddrReference& addr, unsigned int level) noexcept {
  if (addr.af() != ipv6_) return addr.orderKey();
  return sortKeyOfV6(leadingBytes(addr.addr(), 8), leadingBytes(addr.addr() + 8, 8), 0, level);
}

/// As orderKey(): where the last address stands, longer prefixes first.
inline std::uint64_t sortKey(const IpGenPrefixReference& prefix, unsigned int level) noexcept {
  if (prefix.af() != ipv6_) return prefix.orderKey();
  constexpr std::uint64_t ones = ~std::uint64_t{0};
  constexpr unsigned int noLength = 8 * ipv6Length + 1;
  const unsigned int length = std::min<unsigned int>(prefix.mask(), noLength);
  const std::uint64_t highHostBits = length >= 64 ? 0 : ones >> length;
  const std::uint64_t lowHostBits = length >= 128 ? 0 : length <= 64 ? ones : ones >> (length - 64);
  return sortKeyOfV6(leadingBytes(prefix.addr(), 8) | highHostBits,
                     leadingBytes(prefix.addr() + 8, 8) | lowHostBits, noLength - length, level);
}

template <typename View>
bool isLastKey(std::type_identity<View>, std::uint64_t key, unsigned int level) noexcept {
  if constexpr (std::is_same_v<View, StringValueReference>) {
    return (key & 0xFF) != 8;
  } else if constexpr (isOneOf<View, IpGenAddrReference, IpGenPrefixReference>) {
    return level == 0 ? key >> 62 != ipv6_ : level == 2;
  } else {
    return !std::is_same_v<View, Ip6Addr> || level == 1;
  }
}

// ---------------------------------------------------------------------------------------------
// Order, equality, hash

template <typename View>
bool isBefore(const View& a, const View& b) {
  if constexpr (std::is_arithmetic_v<View>) {
    return sortKey(a, 0) < sortKey(b, 0);
  } else if constexpr (std::is_same_v<View, IpGenPrefixReference>) {
    return (a.af() != unknown_ || b.af() != unknown_) && a < b;
  } else {
    return a < b;
  }
}

template <typename View>
bool areEqual(const View& a, const View& b) {
  if constexpr (std::is_arithmetic_v<View>) {
    return sortKey(a, 0) == sortKey(b, 0);
  } else {
    return a == b;
  }
}

/// As orderKey() of the value references.
template <typename View>
std::uint64_t columnOrderKey(const View& view) {
  if constexpr (isReference<View>) {
    return view.orderKey();
  } else {
    return sortKey(view, 0);
  }
}

/// 32 bits that are the same on every host.
template <typename View>
std::uint32_t columnHash(const View& view) {
  if constexpr (isReference<View>) {
    return hashOf(view);
  } else {
    std::uint64_t mixed = hashMix(0, sortKey(view, 0));
    if constexpr (std::is_same_v<View, Ip6Addr>) mixed = hashMix(mixed, sortKey(view, 1));
    return static_cast<std::uint32_t>(mixed ^ mixed >> 32);
  }
}

/// The hash of several columns; of one it is the column's own.
inline std::uint32_t combinedHash(std::initializer_list<std::uint32_t> hashes) noexcept {
  std::uint32_t all = *hashes.begin();
  for (const std::uint32_t* next = hashes.begin() + 1; next != hashes.end(); ++next) {
    all ^= *next + goldenRatio + (all << 6) + (all >> 2);
  }
  return all;
}

}  // namespace Korvo::detail
