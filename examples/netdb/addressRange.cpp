#include "addressRange.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <limits>

namespace netdb {
namespace {

using Korvo::AddressFamily;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

/// An address as a number of `width` bytes, the most significant first.
class BigNumber {
 public:
  explicit BigNumber(const IpGenAddr& addr)
      : af_(addr.af()), width_(static_cast<unsigned int>(addr.addressLengthBytes())) {
    std::copy_n(addr.bytes(), width_, bytes_.begin());
  }

  IpGenAddr address() const { return IpGenAddr(af_, bytes_.data()); }
  unsigned int bits() const { return 8 * width_; }

  unsigned int trailingZeros() const {
    unsigned int zeros = 0;
    for (unsigned int i = width_; i-- != 0; zeros += 8) {
      if (bytes_[i] != 0) return zeros + static_cast<unsigned int>(std::countr_zero(bytes_[i]));
    }
    return zeros;
  }

  void setLowBits(unsigned int count) {
    for (unsigned int i = width_; count != 0; count -= std::min(count, 8U)) {
      --i;
      bytes_[i] = static_cast<unsigned char>(bytes_[i] | 0xFF >> (8 - std::min(count, 8U)));
    }
  }

  /// False if there is no next number of this width.
  bool increment() {
    for (unsigned int i = width_; i-- != 0;) {
      if (++bytes_[i] != 0) return true;
    }
    return false;
  }

  bool operator<=(const BigNumber& other) const { return bytes_ <= other.bytes_; }

 private:
  std::array<unsigned char, 16> bytes_{};
  AddressFamily af_;
  unsigned int width_;
};

struct Block {
  IpGenPrefix prefix;
  std::string_view purpose;
};

/// Blocks that no ordinary network uses.
const Block specialBlocks[] = {
    {IpGenPrefix("0.0.0.0/8"), "this-network"},
    {IpGenPrefix("10.0.0.0/8"), "private"},
    {IpGenPrefix("100.64.0.0/10"), "shared"},
    {IpGenPrefix("127.0.0.0/8"), "loopback"},
    {IpGenPrefix("169.254.0.0/16"), "link-local"},
    {IpGenPrefix("172.16.0.0/12"), "private"},
    {IpGenPrefix("192.0.2.0/24"), "documentation"},
    {IpGenPrefix("192.88.99.0/24"), "6to4-relay"},
    {IpGenPrefix("192.168.0.0/16"), "private"},
    {IpGenPrefix("198.18.0.0/15"), "benchmarking"},
    {IpGenPrefix("198.51.100.0/24"), "documentation"},
    {IpGenPrefix("203.0.113.0/24"), "documentation"},
    {IpGenPrefix("224.0.0.0/4"), "multicast"},
    {IpGenPrefix("240.0.0.0/4"), "reserved"},
    {IpGenPrefix("::1/128"), "loopback"},
    {IpGenPrefix("64:ff9b::/96"), "translation"},
    {IpGenPrefix("2001::/32"), "teredo"},
    {IpGenPrefix("2001:2::/48"), "benchmarking"},
    {IpGenPrefix("2001:db8::/32"), "documentation"},
    {IpGenPrefix("2002::/16"), "6to4"},
    {IpGenPrefix("fc00::/7"), "private"},
    {IpGenPrefix("fe80::/10"), "link-local"},
    {IpGenPrefix("ff00::/8"), "multicast"},
};

}  // namespace

std::vector<IpGenPrefix> coveringPrefixes(const AddressRange& range) {
  std::vector<IpGenPrefix> prefixes;
  BigNumber first(range.first);
  const BigNumber last(range.last);
  do {
    // The largest block that begins here and does not reach beyond the range.
    unsigned int hostBits = first.trailingZeros();
    BigNumber end = first;
    for (;; --hostBits) {
      end = first;
      end.setLowBits(hostBits);
      if (end <= last) break;
    }
    prefixes.emplace_back(first.address(), first.bits() - hostBits);
    first = end;
  } while (first.increment() && first <= last);
  return prefixes;
}

IpGenAddr lastAddress(const IpGenPrefix& prefix) {
  BigNumber last(prefix.addr());
  last.setLowBits(last.bits() - prefix.mask());
  return last.address();
}

std::uint64_t addressCount(const IpGenPrefix& prefix) {
  const unsigned int hostBits = BigNumber(prefix.addr()).bits() - prefix.mask();
  return hostBits < 64 ? std::uint64_t{1} << hostBits : std::numeric_limits<std::uint64_t>::max();
}

std::string_view specialPurpose(const IpGenPrefix& prefix) {
  const auto* const block =
      std::find_if(std::begin(specialBlocks), std::end(specialBlocks), [&](const Block& candidate) {
        return candidate.prefix.mask() <= prefix.mask() && candidate.prefix.contains(prefix);
      });
  return block == std::end(specialBlocks) ? std::string_view() : block->purpose;
}

}  // namespace netdb
