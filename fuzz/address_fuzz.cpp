// Addresses and prefixes against slow oracles that follow the rules step by step: parsing with what
// it throws, expansion, host bits, containment, order, setters, printing, hashing.
//
// Input: a first byte; with its low bit set, text for every parser, otherwise two prefixes and
// numbers.

#include <Korvo/korvo_types.h>

#include <array>
#include <optional>
#include <sstream>

#include "fuzz_support.h"

namespace {

using namespace fuzz;
using namespace Korvo;

using Storage = std::array<std::uint8_t, 16>;

Storage storageOf(const IpGenAddr& addr) {
  Storage storage;
  std::copy(addr.bytes(), addr.bytes() + 16, storage.begin());
  return storage;
}

// ---------------------------------------------------------------------------------------------
// What a call throws

struct Thrown {
  std::string name;
  std::string message;
  friend bool operator==(const Thrown&, const Thrown&) = default;
};

/// what() ends at the first NUL of the message.
Thrown invalidArgument(const std::string& message) {
  return {"Korvo::KoInvalidArgument", message.c_str()};
}
Thrown invalidAddress(const std::string& text) {
  return invalidArgument("Invalid Address - (" + text + ")");
}
Thrown outOfRange(const std::string& message) {
  return {"Korvo::OutOfRange", message};
}
const Thrown hostBits = outOfRange("Invalid Prefix - non-zero after prefixlen");
const Thrown familyChange =
    invalidArgument("Cannot change between ipv4 and ipv6 address family types");

template <typename Call>
std::optional<Thrown> thrownBy(const Call& call) {
  try {
    call();
  } catch (const KoInvalidArgument& e) {
    return Thrown{e.name(), e.what()};
  } catch (const KoOutOfRange& e) {
    return Thrown{e.name(), e.what()};
  }
  return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// The rules for text. Each gives a value or throws a Thrown.

/// Pieces between delimiters; the empty ones only if asked for.
std::vector<std::string> split(const std::string& text, char delimiter, bool keepEmpty) {
  std::vector<std::string> pieces(1);
  for (const char c : text) {
    if (c == delimiter) {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  if (!keepEmpty) std::erase(pieces, "");
  return pieces;
}

std::optional<Storage> slowV4(const std::string& text) {
  const std::vector<std::string> numbers = split(text, '.', true);
  if (numbers.size() != 4) return std::nullopt;
  Storage storage{};
  for (std::size_t i = 0; i < 4; ++i) {
    unsigned int value = 0;
    if (numbers[i].empty()) return std::nullopt;
    for (const char c : numbers[i]) {
      if (c < '0' || c > '9') return std::nullopt;
      value = std::min(value * 10 + static_cast<unsigned int>(c - '0'), 256U);
    }
    if (value > 255) return std::nullopt;
    storage[i] = static_cast<std::uint8_t>(value);
  }
  return storage;
}

std::string slowExpanded(const std::string& text) {
  const std::size_t gap = text.find("::");
  if (gap == std::string::npos) return text;
  if (text.find("::", gap + 2) != std::string::npos) throw invalidAddress(text);
  auto n = std::count(text.begin(), text.end(), ':') - 2;
  std::string result = gap == 0 ? "0" : text.substr(0, gap);
  while (n < 6) {
    result += ":0";
    ++n;
  }
  result += ":";
  const std::string tail = text.substr(gap + 2);
  return result + (tail.empty() ? "0" : tail);
}

bool slowValidV6(const std::string& text) {
  const std::vector<std::string> fields = split(text, ':', false);
  if (fields.size() != 8) return false;
  return std::all_of(fields.begin(), fields.end(),
                     [](const std::string& field) { return field.size() <= 4; });
}

/// A group has at most four characters, so the system's wider conversion only has to be cut.
std::uint32_t slowGroup(const std::string& field) {
  return static_cast<std::uint32_t>(std::strtoull(field.c_str(), nullptr, 16));
}

Storage slowV6(const std::string& text) {
  const std::string expanded = slowExpanded(text);
  if (!slowValidV6(expanded)) throw invalidAddress(text);
  const std::vector<std::string> fields = split(expanded, ':', false);
  Storage storage{};
  for (std::size_t k = 0; k < 4; ++k) {
    const std::uint32_t word = (slowGroup(fields[2 * k]) << 16) + slowGroup(fields[2 * k + 1]);
    for (std::size_t i = 0; i < 4; ++i) {
      storage[4 * k + i] = static_cast<std::uint8_t>(word >> (24 - 8 * i));
    }
  }
  return storage;
}

IpGenAddr slowAddr(const std::string& text) {
  if (text.find('.') == std::string::npos) return {ipv6_, slowV6(text).data()};
  const std::optional<Storage> v4 = slowV4(text);
  if (!v4) throw invalidAddress(text);
  return {ipv4_, v4->data()};
}

/// A 32-bit unsigned decimal conversion.
std::uint32_t slowLength(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size() && std::strchr(" \t\n\v\f\r", text[at]) != nullptr && text[at] != '\0') {
    ++at;
  }
  const bool minus = at < text.size() && text[at] == '-';
  if (minus || (at < text.size() && text[at] == '+')) ++at;
  std::uint64_t value = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = std::min<std::uint64_t>(value * 10 + static_cast<std::uint64_t>(text[at] - '0'),
                                    0x100000000U);
  }
  if (value > 0xFFFFFFFFU) return 0xFFFFFFFFU;
  return static_cast<std::uint32_t>(minus ? 0 - value : value);
}

// ---------------------------------------------------------------------------------------------
// The rules for bits

bool bitAt(const Storage& storage, unsigned int bit) {
  return (storage[bit / 8] << bit % 8 & 0x80) != 0;
}

std::uint32_t wordAt(const Storage& storage, std::size_t word) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = value << 8 | storage[4 * word + i];
  return value;
}

bool slowValidPrefix(const IpGenAddr& addr, int length) {
  if (addr.af() == unknown_) return false;
  const Storage s = storageOf(addr);
  const std::uint32_t w[4] = {wordAt(s, 0), wordAt(s, 1), wordAt(s, 2), wordAt(s, 3)};
  if (length < 0) return false;
  const std::uint32_t m = length % 32 == 0 ? 0 : 0xFFFFFFFFU >> length % 32;
  if (addr.af() == ipv4_) return length == 32 || (length < 32 && (w[0] & m) == 0);
  switch (length / 32) {
    case 0:
      return (w[0] & m) == 0 && w[1] == 0 && w[2] == 0 && w[3] == 0;
    case 1:
      return (w[1] & m) == 0 && w[2] == 0 && w[3] == 0;
    case 2:
      return (w[2] & m) == 0 && w[3] == 0;
    case 3:
      return (w[3] & m) == 0;
    default:
      return length == 128;
  }
}

IpGenPrefix slowPrefix(const std::string& text) {
  const std::vector<std::string> fields = split(text, '/', false);
  if (fields.size() < 2) throw invalidArgument("Prefix missing subnet");
  if (fields.size() > 2) throw invalidArgument("Invalid Prefix - (" + text + ")");
  const std::uint32_t length = slowLength(fields[1]);
  const IpGenAddr addr = slowAddr(fields[0]);
  if (addr.af() == ipv4_ && length > 32) throw outOfRange("Invalid IPv4 Prefix Length");
  if (addr.af() == ipv6_ && length > 128) throw outOfRange("Invalid IPv6 Prefix Length");
  if (!slowValidPrefix(addr, static_cast<int>(length))) throw hostBits;
  return {addr, length};
}

bool slowContains(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return false;
  if (a.mask() > (a.addr().af() == ipv4_ ? 32U : 128U)) return false;
  const Storage as = storageOf(a.addr());
  const Storage bs = storageOf(b.addr());
  for (unsigned int bit = 0; bit < a.mask(); ++bit) {
    if (bitAt(as, bit) != bitAt(bs, bit)) return false;
  }
  return true;
}

bool slowLess(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return a.addr().af() < b.addr().af();
  const bool c = a.mask() < b.mask() ? slowContains(a, b) : slowContains(b, a);
  if (c) return a.mask() > b.mask();
  return storageOf(a.addr()) < storageOf(b.addr());
}

Storage slowCleared(Storage storage, unsigned int length, unsigned int bytes) {
  for (unsigned int bit = length; bit < 8 * bytes; ++bit) {
    storage[bit / 8] &= static_cast<std::uint8_t>(~(0x80U >> bit % 8));
  }
  return storage;
}

// ---------------------------------------------------------------------------------------------
// Printing, insertion by insertion

void slowPrint(std::ostream& os, const IpGenAddr& addr) {
  const Storage s = storageOf(addr);
  if (addr.af() == ipv4_) {
    os << std::to_string(s[0]) + '.' + std::to_string(s[1]) + '.' + std::to_string(s[2]) + '.' +
              std::to_string(s[3]);
  } else if (addr.af() == ipv6_) {
    os.fill('0');
    os.setf(std::ios_base::hex, std::ios_base::basefield);
    for (std::size_t i = 0; i < 16; i += 2) {
      if (i != 0) os << ':';
      os.width(4);
      os << s[i] * 256U + s[i + 1];
    }
    os.setf(std::ios_base::dec, std::ios_base::basefield);
  } else {
    os << "<unsupported address family>";
  }
}

void slowPrint(std::ostream& os, const IpGenPrefix& prefix) {
  slowPrint(os, prefix.addr());
  os << '/';
  os.setf(std::ios_base::dec, std::ios_base::basefield);
  os << prefix.mask();
}

template <typename Value>
void comparePrinting(const Value& value, Input input) {
  std::ostringstream real;
  std::ostringstream slow;
  const unsigned int choice = input.byte();
  for (std::ostringstream* os : {&real, &slow}) {
    if ((choice & 1) != 0) os->setf(std::ios_base::hex, std::ios_base::basefield);
    if ((choice & 2) != 0) os->setf(std::ios_base::left, std::ios_base::adjustfield);
    if ((choice & 4) != 0) os->setf(std::ios_base::uppercase);
    if ((choice & 8) != 0) os->setf(std::ios_base::showbase);
    if ((choice & 16) != 0) os->setf(std::ios_base::internal, std::ios_base::adjustfield);
    if ((choice & 32) != 0) os->fill('*');
    if ((choice & 64) != 0) os->width(45);
    if ((choice & 128) != 0) os->setf(std::ios_base::showpos);
  }
  real << value;
  slowPrint(slow, value);
  FUZZ_REQUIRE(real.str() == slow.str());
  FUZZ_REQUIRE(real.flags() == slow.flags() && real.fill() == slow.fill() &&
               real.width() == slow.width());
}

template <typename Value>
std::string textOf(const Value& value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

// ---------------------------------------------------------------------------------------------

/// The value that `parse` gives, or what it throws, has to be what `rules` give or throw.
template <typename Value, typename Parse, typename Rules>
void compare(const Parse& parse, const Rules& rules) {
  std::optional<Value> expected;
  std::optional<Thrown> expectedThrown;
  try {
    expected = rules();
  } catch (const Thrown& thrown) {
    expectedThrown = thrown;
  }
  std::optional<Value> value;
  FUZZ_REQUIRE(thrownBy([&] { value = parse(); }) == expectedThrown);
  FUZZ_REQUIRE(value == expected);
}

void parseText(const std::string& text) {
  const std::optional<Storage> v4 = slowV4(text);
  unsigned int word = 0xDEADBEEF;
  FUZZ_REQUIRE((strToV4Addr(text, &word) != 0) == v4.has_value());
  FUZZ_REQUIRE(validV4Addr(text) == v4.has_value());
  FUZZ_REQUIRE(word == (v4 ? loadField<std::uint32_t>(v4->data()) : 0xDEADBEEF));
  FUZZ_REQUIRE(validV6Addr(text) == slowValidV6(text));

  compare<IpAddr>([&] { return IpAddr(text); },
                  [&] {
                    if (!v4) throw invalidAddress(text);
                    return IpAddr(loadField<std::uint32_t>(v4->data()));
                  });
  compare<std::string>([&] { return expandV6Addr(text); }, [&] { return slowExpanded(text); });
  compare<Ip6Addr>([&] { return Ip6Addr(text); }, [&] { return Ip6Addr(slowV6(text).data()); });
  compare<IpGenAddr>([&] { return IpGenAddr(text); }, [&] { return slowAddr(text); });
  compare<IpGenPrefix>([&] { return IpGenPrefix(text); }, [&] { return slowPrefix(text); });
}

IpGenPrefix prefixFrom(Input& input) {
  const unsigned int choice = input.byte();
  Bytes bytes = input.bytes((choice & 3) == 2 ? 16 : 4);
  bytes.resize(16);
  const auto af = static_cast<AddressFamily>(choice % 4 % 3);
  if (af == unknown_) std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  const unsigned int length = input.byte();
  IpGenPrefix prefix(IpGenAddr(af, bytes.data()), af == unknown_ ? length
                                                  : af == ipv4_  ? length % 33
                                                                 : length % 129);
  if ((choice & 4) != 0 && af != unknown_) prefix.clearLowerAddrBits();
  return prefix;
}

/// A setter leaves the value alone when it throws.
template <typename Set>
void compareSetter(const IpGenPrefix& before, const Set& set, std::optional<Thrown> expected,
                   const IpGenPrefix& after) {
  IpGenPrefix prefix = before;
  FUZZ_REQUIRE(thrownBy([&] { set(prefix); }) == expected);
  FUZZ_REQUIRE(prefix == (expected ? before : after));
}

void useSetters(const IpGenPrefix& a, const IpGenPrefix& b, unsigned int length) {
  const bool known = a.addr().af() != unknown_;
  const auto set = [&](const IpGenAddr& addr, unsigned int mask) {
    IpGenPrefix prefix;  // without a family, so that nothing is checked
    prefix.maskIs(mask);
    prefix.addrIs(addr);
    return prefix;
  };

  std::optional<Thrown> thrown;
  if (known && b.addr().af() != a.addr().af()) {
    thrown = familyChange;
  } else if (known && !slowValidPrefix(b.addr(), static_cast<int>(a.mask()))) {
    thrown = hostBits;
  }
  compareSetter(
      a, [&](IpGenPrefix& prefix) { prefix.addrIs(b.addr()); }, thrown, set(b.addr(), a.mask()));

  thrown.reset();
  if (known && !slowValidPrefix(a.addr(), static_cast<int>(length))) thrown = hostBits;
  compareSetter(
      a, [&](IpGenPrefix& prefix) { prefix.maskIs(length); }, thrown, set(a.addr(), length));

  for (const AddressFamily af : {unknown_, ipv4_, ipv6_}) {
    thrown.reset();
    if (known && af != a.addr().af()) {
      thrown = familyChange;
    } else if (af != unknown_ && !slowValidPrefix(a.addr(), static_cast<int>(a.mask()))) {
      thrown = hostBits;
    }
    compareSetter(
        a, [&](IpGenPrefix& prefix) { prefix.afIs(af); }, thrown, a);
  }
}

void useValues(Input& input) {
  const IpGenPrefix a = prefixFrom(input);
  IpGenPrefix b = prefixFrom(input);
  if (input.flag()) b = IpGenPrefix(a.addr(), b.mask() % (a.addr().af() == ipv4_ ? 33 : 129));
  const std::size_t lengthChoice = input.word();
  const unsigned int length = static_cast<unsigned int>(lengthChoice % 140);

  const bool haveNoOrder = a.addr().af() == unknown_ && b.addr().af() == unknown_;
  if (!haveNoOrder) {
    FUZZ_REQUIRE(a.contains(b) == slowContains(a, b));
    FUZZ_REQUIRE(b.contains(a) == slowContains(b, a));
    FUZZ_REQUIRE((a < b) == slowLess(a, b));
    FUZZ_REQUIRE((b < a) == slowLess(b, a));
    FUZZ_REQUIRE(!((a < b) && (b < a)));
  }
  const bool equal = a.addr().af() == b.addr().af() && a.mask() == b.mask() &&
                     storageOf(a.addr()) == storageOf(b.addr());
  FUZZ_REQUIRE((a == b) == equal && (a != b) == !equal);
  if (equal) FUZZ_REQUIRE(std::hash<IpGenPrefix>()(a) == std::hash<IpGenPrefix>()(b));
  if (a.addr() == b.addr()) {
    FUZZ_REQUIRE(std::hash<IpGenAddr>()(a.addr()) == std::hash<IpGenAddr>()(b.addr()));
  }
  FUZZ_REQUIRE((a.addr() < b.addr()) == (std::pair(a.addr().af(), storageOf(a.addr())) <
                                         std::pair(b.addr().af(), storageOf(b.addr()))));

  for (const int examined : {static_cast<int>(length), static_cast<int>(a.mask()), -1}) {
    FUZZ_REQUIRE(validPrefix(a.addr(), examined) == slowValidPrefix(a.addr(), examined));
  }
  IpGenPrefix cleared = a;
  cleared.clearLowerAddrBits(static_cast<unsigned short>(length));
  FUZZ_REQUIRE(storageOf(cleared.addr()) ==
               slowCleared(storageOf(a.addr()), length,
                           static_cast<unsigned int>(a.addr().addressLengthBytes())));
  FUZZ_REQUIRE(cleared.mask() == a.mask());
  useSetters(a, b, length);

  comparePrinting(a.addr(), input);
  comparePrinting(a, input);
  if (a.addr().af() != unknown_) {
    FUZZ_REQUIRE(IpGenAddr(textOf(a.addr())) == a.addr());
    compare<IpGenPrefix>([&] { return IpGenPrefix(textOf(a)); },
                         [&] {
                           if (!slowValidPrefix(a.addr(), static_cast<int>(a.mask()))) {
                             throw hostBits;
                           }
                           return a;
                         });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  if (input.flag()) {
    parseText(input.text(input.left()));
  } else {
    useValues(input);
  }
  return 0;
}
