#pragma once

// Random values for the property tests: addresses, prefixes and texts that are often equal, nested
// in one another, or alike up to their last bits.

#include <Korvo/baseRow.h>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace proptest {

/// The same inputs in every run, unless RC_PARAMS says otherwise.
[[maybe_unused]] inline const int fixedSeed =
    setenv("RC_PARAMS", "seed=20240117 max_success=1000", 0);

/// Few different bytes, so that values coincide.
inline rc::Gen<unsigned char> someByte() {
  return rc::gen::weightedOneOf<unsigned char>(
      {{6, rc::gen::element<unsigned char>(0x00, 0x01, 0x0A, 0x80, 0xFF)},
       {1, rc::gen::arbitrary<unsigned char>()}});
}

inline rc::Gen<Korvo::IpGenAddr> addrOf(Korvo::AddressFamily af) {
  return rc::gen::map(rc::gen::container<std::vector<unsigned char>>(16, someByte()),
                      [af](const std::vector<unsigned char>& bytes) {
                        if (af == Korvo::unknown_) return Korvo::IpGenAddr();
                        return Korvo::IpGenAddr(af, bytes.data());
                      });
}

inline rc::Gen<Korvo::IpGenAddr> addrOfSomeFamily() {
  return rc::gen::weightedOneOf<Korvo::IpGenAddr>(
      {{4, addrOf(Korvo::ipv4_)}, {3, addrOf(Korvo::ipv6_)}, {1, addrOf(Korvo::unknown_)}});
}

/// With host bits, and without.
inline rc::Gen<Korvo::IpGenPrefix> prefixOf(Korvo::AddressFamily af) {
  const int bits = af == Korvo::ipv4_ ? 32 : 128;
  return rc::gen::map(
      rc::gen::tuple(addrOf(af),
                     rc::gen::oneOf(rc::gen::inRange(0, bits + 1), rc::gen::element(0, 8, 16, 32)),
                     rc::gen::arbitrary<bool>()),
      [](const std::tuple<Korvo::IpGenAddr, int, bool>& parts) {
        Korvo::IpGenPrefix prefix(std::get<0>(parts),
                                  static_cast<unsigned int>(std::get<1>(parts)));
        if (std::get<2>(parts)) prefix.clearLowerAddrBits();
        return prefix;
      });
}

/// Of family ipv4_ or ipv6_: two prefixes without a family have no order.
inline rc::Gen<Korvo::IpGenPrefix> prefixOfAFamily() {
  return rc::gen::weightedOneOf<Korvo::IpGenPrefix>(
      {{3, prefixOf(Korvo::ipv4_)}, {2, prefixOf(Korvo::ipv6_)}});
}

/// Any bytes, but mostly few different ones.
inline rc::Gen<std::string> someText() {
  return rc::gen::container<std::string>(
      rc::gen::weightedOneOf<char>({{6, rc::gen::element('a', 'b', '\0', '\x7F', '\x80', '\xFF')},
                                    {1, rc::gen::arbitrary<char>()}}));
}

/// Requires the laws of a strict weak order for three values.
template <typename T, typename Less>
void requireStrictWeakOrder(const T& a, const T& b, const T& c, const Less& less) {
  RC_ASSERT(!less(a, a));
  RC_ASSERT(!(less(a, b) && less(b, a)));
  if (less(a, b) && less(b, c)) RC_ASSERT(less(a, c));
  const auto equivalent = [&](const T& x, const T& y) { return !less(x, y) && !less(y, x); };
  if (equivalent(a, b) && equivalent(b, c)) RC_ASSERT(equivalent(a, c));
}

/// A value's reference into bytes of its own, as into a row.
template <typename Reference>
class Encoded {
 public:
  template <typename Value>
  explicit Encoded(const Value& value) : bytes_(Korvo::BaseRow::encodeLength(value)) {
    Korvo::BaseRow::encode(bytes_.data(), value);
    Korvo::BaseRow::decode(bytes_.data(), static_cast<Korvo::len_t>(bytes_.size()), reference_);
  }
  const Reference& operator*() const { return reference_; }

 private:
  std::vector<Korvo::byte_t> bytes_;
  Reference reference_;
};

}  // namespace proptest

namespace rc {

template <>
struct Arbitrary<Korvo::IpGenAddr> {
  static Gen<Korvo::IpGenAddr> arbitrary() { return proptest::addrOfSomeFamily(); }
};

template <>
struct Arbitrary<Korvo::IpGenPrefix> {
  static Gen<Korvo::IpGenPrefix> arbitrary() { return proptest::prefixOfAFamily(); }
};

}  // namespace rc
