// Addresses and prefixes beside the C library, Boost.Asio and plain structs, in one run.
//
// The addresses are real ones. Times are those of one address, except for sorting. A contestant
// that does not give the same results as the others is not measured: the program stops.

#include <Korvo/korvo_types.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v4.hpp>
#include <boost/asio/ip/network_v6.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <ostream>
#include <random>
#include <streambuf>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "addressRange.h"
#include "rangeFile.h"

namespace {

namespace ip = boost::asio::ip;
using Korvo::Ip6Addr;
using Korvo::IpAddr;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

// ---------------------------------------------------------------------------------------------
// Contests

/// One workload: every contestant turns the same inputs into results, which have to be the same.
template <typename Input, typename Result>
class Contest {
 public:
  Contest(std::string name, std::vector<Input> inputs)
      : name_(std::move(name)),
        inputs_(std::make_shared<const std::vector<Input>>(std::move(inputs))) {}

  template <typename Work>
  void add(const std::string& contestant, Work work) {
    std::vector<Result> results;
    for (const Input& input : *inputs_) results.emplace_back(work(input));
    if (results_.empty()) results_ = results;
    if (results != results_) {
      std::fprintf(stderr, "%s: %s differs\n", name_.c_str(), contestant.c_str());
      std::exit(1);
    }
    benchmark::RegisterBenchmark(
        (name_ + '/' + contestant).c_str(),
        [inputs = inputs_, work](benchmark::State& state) mutable { run(state, *inputs, work); });
  }

 private:
  template <typename Work>
  static void run(benchmark::State& state, const std::vector<Input>& inputs, Work& work) {
    while (state.KeepRunningBatch(static_cast<std::int64_t>(inputs.size()))) {
      for (const Input& input : inputs) benchmark::DoNotOptimize(work(input));
    }
    state.SetItemsProcessed(state.iterations());
  }

  std::string name_;
  std::shared_ptr<const std::vector<Input>> inputs_;
  std::vector<Result> results_;
};

// ---------------------------------------------------------------------------------------------
// Inputs

constexpr std::size_t inCache = 1024;

/// All prefixes of the demonstration's data, or of the sample in the repository.
const std::vector<IpGenPrefix>& realPrefixes() {
  static const std::vector<IpGenPrefix> prefixes = [] {
    const bool fetched = std::filesystem::exists(KORVO_BENCH_DEMO_DATA "/geoip6");
    const std::string folder = fetched ? KORVO_BENCH_DEMO_DATA : KORVO_BENCH_SAMPLE_DATA;
    std::vector<IpGenPrefix> result;
    for (const char* name : {"/geoip", "/geoip6"}) {
      netdb::RangeFile file(folder + name, [](std::uint32_t, const std::string&) {});
      for (netdb::RangeLine line; file.next(line);) {
        const auto covering = netdb::coveringPrefixes(line.range);
        result.insert(result.end(), covering.begin(), covering.end());
      }
    }
    return result;
  }();
  return prefixes;
}

/// `count` of the prefixes that satisfy the predicate, in random order; fewer if there are not as
/// many.
template <typename Predicate>
std::vector<IpGenPrefix> prefixesWith(std::size_t count, Predicate predicate) {
  std::vector<IpGenPrefix> result;
  for (const IpGenPrefix& prefix : realPrefixes()) {
    if (predicate(prefix)) result.push_back(prefix);
  }
  std::shuffle(result.begin(), result.end(), std::mt19937(1));
  if (result.size() > count) result.resize(count);
  return result;
}

std::vector<IpGenPrefix> prefixesOf(Korvo::AddressFamily af, std::size_t count) {
  return prefixesWith(count, [af](const IpGenPrefix& prefix) { return prefix.addr().af() == af; });
}

std::vector<IpGenPrefix> prefixesOfBoth(std::size_t count) {
  return prefixesWith(count, [](const IpGenPrefix&) { return true; });
}

/// A random address in each prefix.
std::vector<IpGenAddr> addressesIn(const std::vector<IpGenPrefix>& prefixes) {
  std::mt19937 random(2);
  std::vector<IpGenAddr> result;
  for (const IpGenPrefix& prefix : prefixes) {
    std::array<unsigned char, 16> host{};
    std::generate(host.begin(), host.end(),
                  [&] { return static_cast<unsigned char>(random() & 0xFF); });
    for (unsigned int i = 0; i < host.size(); ++i) {
      const unsigned int networkBits = std::clamp(prefix.mask(), 8 * i, 8 * i + 8) - 8 * i;
      const unsigned int hostBits = 0xFFU >> networkBits;
      host[i] = static_cast<unsigned char>((host[i] & hostBits) | prefix.addr().bytes()[i]);
    }
    result.emplace_back(prefix.addr().af(), host.data());
  }
  return result;
}

std::uint32_t wordOf(const IpGenAddr& addr) {
  return Korvo::loadField<std::uint32_t>(addr.bytes());
}

std::vector<IpAddr> someV4() {
  std::vector<IpAddr> result;
  for (const IpGenAddr& addr : addressesIn(prefixesOf(Korvo::ipv4_, inCache))) {
    result.emplace_back(wordOf(addr));
  }
  return result;
}

/// Every other one is a network's own address, whose text is short.
std::vector<Ip6Addr> someV6() {
  const std::vector<IpGenPrefix> prefixes = prefixesOf(Korvo::ipv6_, inCache);
  const std::vector<IpGenAddr> hosts = addressesIn(prefixes);
  std::vector<Ip6Addr> result;
  for (std::size_t i = 0; i < prefixes.size(); ++i) {
    result.emplace_back((i % 2 == 0 ? prefixes[i].addr() : hosts[i]).bytes());
  }
  return result;
}

// ---------------------------------------------------------------------------------------------
// Parsing

using Bytes16 = std::array<unsigned char, 16>;

Bytes16 bytesOf(const Ip6Addr& addr) {
  return Korvo::loadField<Bytes16>(addr.bytes());
}

/// Nothing but four decimal numbers of three digits at most.
std::uint32_t dottedOnly(const std::string& text) {
  const char* in = text.data();
  std::uint32_t word = 0;
  for (int i = 0; i < 4; ++i) {
    std::uint32_t number = static_cast<unsigned char>(*in++) - std::uint32_t{'0'};
    while (*in >= '0') number = number * 10 + static_cast<unsigned char>(*in++) - '0';
    ++in;
    word = word << 8 | number;
  }
  return htonl(word);
}

void addParsing() {
  std::vector<std::string> texts;
  for (const IpAddr& addr : someV4()) {
    char text[INET_ADDRSTRLEN];
    const std::uint32_t word = addr.addr();
    texts.emplace_back(inet_ntop(AF_INET, &word, text, sizeof text));
  }
  Contest<std::string, std::uint32_t> v4("address_parse_v4", texts);
  v4.add("korvo", [](const std::string& text) { return IpAddr(text).addr(); });
  v4.add("inet_pton", [](const std::string& text) {
    std::uint32_t word = 0;
    inet_pton(AF_INET, text.c_str(), &word);
    return word;
  });
  v4.add("asio", [](const std::string& text) {
    return htonl(ip::make_address_v4(text.c_str()).to_uint());
  });
  v4.add("limit", dottedOnly);

  texts.clear();
  for (const Ip6Addr& addr : someV6()) {
    char text[INET6_ADDRSTRLEN];
    texts.emplace_back(inet_ntop(AF_INET6, addr.bytes(), text, sizeof text));
  }
  Contest<std::string, Bytes16> v6("address_parse_v6", texts);
  v6.add("korvo", [](const std::string& text) { return bytesOf(Ip6Addr(text)); });
  v6.add("inet_pton", [](const std::string& text) {
    Bytes16 bytes;
    inet_pton(AF_INET6, text.c_str(), bytes.data());
    return bytes;
  });
  v6.add("asio", [](const std::string& text) {
    return std::bit_cast<Bytes16>(ip::make_address_v6(text.c_str()).to_bytes());
  });
}

// ---------------------------------------------------------------------------------------------
// Printing

/// A stream that is kept, with a buffer that is used again.
class KeptStream {
 public:
  template <typename Value>
  std::string_view print(const Value& value) {
    buffer_.rewind();
    stream_ << value;
    return buffer_.written();
  }

 private:
  class Buffer : public std::streambuf {
   public:
    void rewind() { setp(room_, room_ + sizeof room_); }
    std::string_view written() const {
      return {pbase(), static_cast<std::size_t>(pptr() - pbase())};
    }

   private:
    char room_[64];
  };

  Buffer buffer_;
  std::ostream stream_{&buffer_};
};

/// Prints to the one stream or buffer that is kept for the contestant.
template <typename Kept, typename Print>
auto printer(Print print) {
  return [kept = std::make_shared<Kept>(), print](const auto& value) -> std::string_view {
    return print(*kept, value);
  };
}

std::string_view viewOf(const char* text, int length) {
  return {text, static_cast<std::size_t>(length)};
}

void addPrinting() {
  using Buffer = std::array<char, 64>;

  const auto toStream = [](KeptStream& stream, const auto& value) { return stream.print(value); };

  const std::vector<IpAddr> v4Values = someV4();
  Contest<IpAddr, std::string> v4("address_print_v4", v4Values);
  v4.add("korvo", printer<KeptStream>(toStream));
  v4.add("inet_ntop", printer<Buffer>([](Buffer& buffer, const IpAddr& addr) {
           const std::uint32_t word = addr.addr();
           return std::string_view(inet_ntop(AF_INET, &word, buffer.data(), INET_ADDRSTRLEN));
         }));
  v4.add("snprintf", printer<Buffer>([](Buffer& buffer, const IpAddr& addr) {
           const auto bytes = std::bit_cast<std::array<unsigned char, 4>>(addr.addr());
           return viewOf(buffer.data(), std::snprintf(buffer.data(), buffer.size(), "%d.%d.%d.%d",
                                                      bytes[0], bytes[1], bytes[2], bytes[3]));
         }));
  v4.add("asio", printer<KeptStream>([](KeptStream& stream, const IpAddr& addr) {
           return stream.print(ip::address_v4(ntohl(addr.addr())));
         }));
  // Without a stream, into one buffer.
  v4.add(
      "limit", printer<Buffer>([](Buffer& buffer, const IpAddr& addr) {
        char* out = buffer.data();
        for (const unsigned char byte : std::bit_cast<std::array<unsigned char, 4>>(addr.addr())) {
          if (byte >= 100) *out++ = static_cast<char>('0' + byte / 100);
          if (byte >= 10) *out++ = static_cast<char>('0' + byte / 10 % 10);
          *out++ = static_cast<char>('0' + byte % 10);
          *out++ = '.';
        }
        return std::string_view(buffer.data(), out - 1);
      }));

  Contest<Ip6Addr, std::string> v6("address_print_v6_full", someV6());
  v6.add("korvo", printer<KeptStream>(toStream));
  v6.add("snprintf", printer<Buffer>([](Buffer& buffer, const Ip6Addr& addr) {
           const unsigned char* const b = addr.bytes();
           const auto group = [b](int i) { return b[2 * i] * 256U + b[2 * i + 1]; };
           return viewOf(buffer.data(), std::snprintf(buffer.data(), buffer.size(),
                                                      "%04x:%04x:%04x:%04x:%04x:%04x:%04x:%04x",
                                                      group(0), group(1), group(2), group(3),
                                                      group(4), group(5), group(6), group(7)));
         }));
  v6.add("limit", printer<Buffer>([](Buffer& buffer, const Ip6Addr& addr) {
           char* out = buffer.data();
           for (int i = 0; i < 16; ++i) {
             *out++ = "0123456789abcdef"[addr.bytes()[i] >> 4];
             *out++ = "0123456789abcdef"[addr.bytes()[i] & 15];
             if (i % 2 == 1) *out++ = ':';
           }
           return std::string_view(buffer.data(), out - 1);
         }));

  Contest<IpGenPrefix, std::string> prefix("prefix_print_v4", prefixesOf(Korvo::ipv4_, inCache));
  prefix.add("korvo", printer<KeptStream>(toStream));
  prefix.add("snprintf", printer<Buffer>([](Buffer& buffer, const IpGenPrefix& value) {
               const unsigned char* const b = value.addr().bytes();
               return viewOf(buffer.data(),
                             std::snprintf(buffer.data(), buffer.size(), "%d.%d.%d.%d/%u", b[0],
                                           b[1], b[2], b[3], value.mask()));
             }));
  prefix.add("asio", printer<Buffer>([](Buffer& buffer, const IpGenPrefix& value) {
               const std::string text = ip::network_v4(ip::address_v4(ntohl(wordOf(value.addr()))),
                                                       static_cast<unsigned short>(value.mask()))
                                            .to_string();
               return std::string_view(buffer.data(), text.copy(buffer.data(), buffer.size()));
             }));
}

// ---------------------------------------------------------------------------------------------
// Plain structs

/// An IPv4 prefix as a program that has no other would hold it, in host order.
struct PlainV4 {
  std::uint32_t address;
  std::uint32_t length;

  explicit PlainV4(const IpGenPrefix& prefix)
      : address(ntohl(wordOf(prefix.addr()))), length(prefix.mask()) {}
  PlainV4(std::uint32_t addressValue, std::uint32_t lengthValue)
      : address(addressValue), length(lengthValue) {}

  bool contains(const PlainV4& other) const {
    return length == 0 || (address ^ other.address) >> (32 - length) == 0;
  }
  bool operator<(const PlainV4& other) const {
    const bool nested = length < other.length ? contains(other) : other.contains(*this);
    return nested ? length > other.length : address < other.address;
  }
};

/// A prefix of either family.
struct PlainPrefix {
  std::uint64_t high;
  std::uint64_t low;
  std::uint32_t family;
  std::uint32_t length;

  explicit PlainPrefix(const IpGenPrefix& prefix) : PlainPrefix(prefix.addr(), prefix.mask()) {}
  PlainPrefix(const IpGenAddr& addr, std::uint32_t lengthValue)
      : high(__builtin_bswap64(Korvo::loadField<std::uint64_t>(addr.bytes()))),
        low(__builtin_bswap64(Korvo::loadField<std::uint64_t>(addr.bytes() + 8))),
        family(addr.af()),
        length(lengthValue) {}

  bool contains(const PlainPrefix& other) const {
    if (family != other.family) return false;
    if (length == 0) return true;
    if (length <= 64) return (high ^ other.high) >> (64 - length) == 0;
    return high == other.high && (low ^ other.low) >> (128 - length) == 0;
  }
  bool operator<(const PlainPrefix& other) const {
    if (family != other.family) return family < other.family;
    const bool nested = length < other.length ? contains(other) : other.contains(*this);
    if (nested) return length > other.length;
    return high != other.high ? high < other.high : low < other.low;
  }
};

// ---------------------------------------------------------------------------------------------
// Containment

/// Two prefixes as each contestant holds them; the second one is a host's.
template <typename Network>
struct Held {
  IpGenPrefix outer;
  IpGenPrefix inner;
  Network outerNetwork;
  Network innerNetwork;
  PlainPrefix outerPlain;
  PlainPrefix innerPlain;
};

/// Every other host lies in the network, in random order.
template <typename MakeNetwork>
auto pairs(Korvo::AddressFamily af, MakeNetwork makeNetwork) {
  const unsigned int bits = af == Korvo::ipv4_ ? 32 : 128;
  const std::vector<IpGenPrefix> networks = prefixesWith(inCache, [=](const IpGenPrefix& prefix) {
    return prefix.addr().af() == af && prefix.mask() < bits;
  });
  const std::vector<IpGenAddr> hosts = addressesIn(networks);
  std::vector<Held<decltype(makeNetwork(networks[0]))>> result;
  std::mt19937 random(3);
  for (std::size_t i = 0; i < networks.size(); ++i) {
    const std::size_t other = random() % 2 == 0 ? i : (i + 1) % networks.size();
    const IpGenPrefix host(hosts[other], bits);
    result.push_back({networks[i], host, makeNetwork(networks[i]), makeNetwork(host),
                      PlainPrefix(networks[i]), PlainPrefix(host)});
  }
  return result;
}

void addContainment() {
  const auto byKorvo = [](const auto& pair) { return pair.outer.contains(pair.inner); };
  const auto byAsio = [](const auto& pair) {
    return pair.innerNetwork.is_subnet_of(pair.outerNetwork);
  };
  const auto byPlainStruct = [](const auto& pair) {
    return pair.outerPlain.contains(pair.innerPlain);
  };

  const auto v4Pairs = pairs(Korvo::ipv4_, [](const IpGenPrefix& prefix) {
    return ip::network_v4(ip::address_v4(ntohl(wordOf(prefix.addr()))),
                          static_cast<unsigned short>(prefix.mask()));
  });
  Contest<decltype(v4Pairs)::value_type, bool> v4("prefix_contains_v4", v4Pairs);
  v4.add("korvo", byKorvo);
  v4.add("asio", byAsio);
  v4.add("limit", byPlainStruct);

  const auto v6Pairs = pairs(Korvo::ipv6_, [](const IpGenPrefix& prefix) {
    ip::address_v6::bytes_type bytes;
    std::copy_n(prefix.addr().bytes(), bytes.size(), bytes.begin());
    return ip::network_v6(ip::address_v6(bytes), static_cast<unsigned short>(prefix.mask()));
  });
  Contest<decltype(v6Pairs)::value_type, bool> v6("prefix_contains_v6", v6Pairs);
  v6.add("korvo", byKorvo);
  v6.add("asio", byAsio);
  v6.add("limit", byPlainStruct);
}

// ---------------------------------------------------------------------------------------------
// Order

constexpr std::size_t sortedCount = 100'000;

/// A sample of the prefixes, and wider ones around each of a few: no two are the same.
std::vector<IpGenPrefix> nestedPrefixes(std::vector<IpGenPrefix> prefixes) {
  const std::size_t count = prefixes.size();
  for (std::size_t i = 0; i < count; i += 10) {
    IpGenPrefix wider = prefixes[i];
    const unsigned int length = wider.mask() - std::min(wider.mask(), 8U);
    wider.clearLowerAddrBits(static_cast<unsigned short>(length));
    prefixes.emplace_back(wider.addr(), length);
  }
  std::sort(prefixes.begin(), prefixes.end());
  prefixes.erase(std::unique(prefixes.begin(), prefixes.end()), prefixes.end());
  std::shuffle(prefixes.begin(), prefixes.end(), std::mt19937(4));
  return prefixes;
}

template <typename Prefix>
using Vector = std::shared_ptr<const std::vector<Prefix>>;

template <typename Prefix>
Vector<Prefix> asVectorOf(const std::vector<IpGenPrefix>& prefixes) {
  return std::make_shared<const std::vector<Prefix>>(prefixes.begin(), prefixes.end());
}

template <typename Prefix, typename Less = std::less<>>
void addSort(const std::string& name, Vector<Prefix> prefixes, Less less = {}) {
  benchmark::RegisterBenchmark(name.c_str(), [prefixes, less](benchmark::State& state) {
    std::vector<Prefix> sorted;
    for (auto _ : state) {
      sorted = *prefixes;
      std::sort(sorted.begin(), sorted.end(), less);
      benchmark::DoNotOptimize(sorted.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(prefixes->size()));
  })->Unit(benchmark::kMillisecond);
}

/// The order of the plain structs has to be that of the library's.
template <typename Prefix>
void requireSameOrder(const std::vector<IpGenPrefix>& prefixes) {
  std::vector<IpGenPrefix> sorted = prefixes;
  std::sort(sorted.begin(), sorted.end());
  const std::vector<Prefix> plain(sorted.begin(), sorted.end());
  if (std::is_sorted(plain.begin(), plain.end())) return;
  std::fprintf(stderr, "the plain structs have another order\n");
  std::exit(1);
}

void addSorting() {
  const std::vector<IpGenPrefix> both = nestedPrefixes(prefixesOfBoth(sortedCount));
  requireSameOrder<PlainPrefix>(both);
  addSort("prefix_sort/korvo", asVectorOf<IpGenPrefix>(both));
  addSort("prefix_sort/plain_struct", asVectorOf<PlainPrefix>(both));

  const std::vector<IpGenPrefix> v4 = nestedPrefixes(prefixesOf(Korvo::ipv4_, sortedCount));
  requireSameOrder<PlainV4>(v4);
  addSort("prefix_sort_v4/korvo", asVectorOf<IpGenPrefix>(v4));
  addSort("prefix_sort_v4/plain_struct", asVectorOf<PlainV4>(v4));
}

/// Prefixes in their order, and for each the next wider one that contains it.
template <typename Prefix>
class SortedPrefixes {
 public:
  static constexpr std::uint32_t none = 0xFFFFFFFF;

  explicit SortedPrefixes(const std::vector<IpGenPrefix>& sorted)
      : prefixes_(sorted.begin(), sorted.end()), enclosing_(sorted.size(), none) {
    // A prefix stands behind all that it contains.
    std::vector<std::uint32_t> open;
    for (auto i = static_cast<std::uint32_t>(prefixes_.size()); i-- != 0;) {
      while (!open.empty() && !prefixes_[open.back()].contains(prefixes_[i])) open.pop_back();
      if (!open.empty()) enclosing_[i] = open.back();
      open.push_back(i);
    }
  }

  /// Which of them is the most specific one that contains the address.
  std::uint32_t longestMatch(const Prefix& address) const {
    const auto found = std::lower_bound(prefixes_.begin(), prefixes_.end(), address);
    if (found == prefixes_.end()) return none;
    auto i = static_cast<std::uint32_t>(found - prefixes_.begin());
    while (i != none && !prefixes_[i].contains(address)) i = enclosing_[i];
    return i;
  }

 private:
  std::vector<Prefix> prefixes_;
  std::vector<std::uint32_t> enclosing_;
};

unsigned int bitsOf(const IpGenAddr& addr) {
  return 8 * static_cast<unsigned int>(addr.addressLengthBytes());
}

void addLongestMatch() {
  for (const bool onlyV4 : {false, true}) {
    std::vector<IpGenPrefix> sorted = nestedPrefixes(onlyV4 ? prefixesOf(Korvo::ipv4_, sortedCount)
                                                            : prefixesOfBoth(sortedCount));
    const std::vector<IpGenAddr> wanted = addressesIn(std::vector<IpGenPrefix>(
        sorted.begin(),
        sorted.begin() + static_cast<std::ptrdiff_t>(std::min(sorted.size(), 16 * inCache))));
    std::sort(sorted.begin(), sorted.end());

    Contest<IpGenAddr, std::uint32_t> match(
        onlyV4 ? "prefix_longest_match_v4" : "prefix_longest_match", wanted);
    match.add("korvo", [table = std::make_shared<SortedPrefixes<IpGenPrefix>>(sorted)](
                           const IpGenAddr& addr) {
      return table->longestMatch(IpGenPrefix(addr, bitsOf(addr)));
    });
    if (onlyV4) {
      match.add("plain_struct",
                [table = std::make_shared<SortedPrefixes<PlainV4>>(sorted)](const IpGenAddr& addr) {
                  return table->longestMatch(PlainV4(ntohl(wordOf(addr)), 32));
                });
    } else {
      match.add("plain_struct", [table = std::make_shared<SortedPrefixes<PlainPrefix>>(sorted)](
                                    const IpGenAddr& addr) {
        return table->longestMatch(PlainPrefix(addr, bitsOf(addr)));
      });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  addParsing();
  addPrinting();
  addContainment();
  addSorting();
  addLongestMatch();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
