// Prefixes: construction, text, setters, containment, ordering.

#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "address_test_support.h"

namespace {

using namespace Korvo;

IpGenPrefix prefix(const char* text) {
  return IpGenPrefix(std::string(text));
}

/// A prefix of a given family, with every bit of the first bytes as given.
IpGenPrefix prefixOf(AddressFamily af, const StorageBytes& storage, unsigned int len) {
  return IpGenPrefix(af, len, storage.data());
}

/// A prefix whose length its family does not have: set before there is a family.
IpGenPrefix overlong(const IpGenAddr& addr, unsigned int len) {
  IpGenPrefix result;
  result.maskIs(len);
  result.addrIs(addr);
  return result;
}

StorageBytes onesUpTo(unsigned int bits) {
  StorageBytes bytes{};
  for (unsigned int i = 0; i < bits; ++i) {
    bytes[i / 8] |= static_cast<unsigned char>(0x80U >> (i % 8));
  }
  return bytes;
}

/// Exactly this value, field by field.
void expectPrefix(const IpGenPrefix& actual, AddressFamily af, const StorageBytes& storage,
                  unsigned int len) {
  EXPECT_EQ(actual.addr().af(), af);
  EXPECT_EQ(storageOf(actual.addr()), storage);
  EXPECT_EQ(actual.mask(), len);
}

const Failure v4LengthFailure = outOfRange("Invalid IPv4 Prefix Length");
const Failure v6LengthFailure = outOfRange("Invalid IPv6 Prefix Length");

// ---------------------------------------------------------------------------------------------
// Construction

TEST(PrefixConstructorTest, Shape) {
  static_assert(sizeof(IpGenPrefix) == 24 && std::is_trivially_copyable_v<IpGenPrefix>);
  static_assert(std::is_same_v<decltype(IpGenPrefix().mask()), unsigned int>);
  static_assert(!std::is_convertible_v<std::string, IpGenPrefix>);
  expectPrefix(IpGenPrefix(), unknown_, {}, 0);
}

TEST(PrefixConstructorTest, KeepsHostBits) {
  StorageBytes bytes;
  for (unsigned char i = 0; i < 16; ++i) bytes[i] = static_cast<unsigned char>(0xF0 + i);
  const StorageBytes firstFour = v4Storage(0xF0, 0xF1, 0xF2, 0xF3);
  const IpAddr four = v4(0xF0, 0xF1, 0xF2, 0xF3);

  expectPrefix(IpGenPrefix(four, 8), ipv4_, firstFour, 8);
  expectPrefix(IpGenPrefix(v6(bytes), 8), ipv6_, bytes, 8);
  expectPrefix(IpGenPrefix(IpGenAddr(four), 0), ipv4_, firstFour, 0);
  expectPrefix(IpGenPrefix(IpGenAddr(v6(bytes)), 0), ipv6_, bytes, 0);
  expectPrefix(prefixOf(ipv4_, bytes, 31), ipv4_, firstFour, 31);
  expectPrefix(prefixOf(ipv6_, bytes, 127), ipv6_, bytes, 127);
  // Every family but IPv6 takes four bytes.
  expectPrefix(prefixOf(unknown_, bytes, 5), unknown_, firstFour, 5);
  const auto unheardOf = static_cast<AddressFamily>(9);
  expectPrefix(prefixOf(unheardOf, bytes, 5), unheardOf, firstFour, 5);
}

TEST(PrefixConstructorTest, ReadsNoMoreThanTheFamilysBytes) {
  // Blocks of exactly the size that is read; a sanitizer sees a byte more.
  const auto four = std::make_unique<unsigned char[]>(4);
  const auto sixteen = std::make_unique<unsigned char[]>(16);
  EXPECT_EQ(IpGenPrefix(ipv4_, 32, four.get()), IpGenPrefix(IpAddr(), 32));
  EXPECT_EQ(IpGenPrefix(unknown_, 0, four.get()), IpGenPrefix());
  EXPECT_EQ(IpGenPrefix(ipv6_, 128, sixteen.get()), IpGenPrefix(Ip6Addr(), 128));
  EXPECT_EQ(IpGenAddr(ipv4_, four.get()), IpGenAddr(IpAddr()));
}

TEST(PrefixConstructorTest, LengthsOfEveryFamily) {
  const StorageBytes bytes{};
  const unsigned int lengths[] = {0,   1,   31,    32,    33,         64,         127,
                                  128, 129, 65535, 65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  for (const unsigned int len : lengths) {
    SCOPED_TRACE(len);
    const auto v4Expected = len > 32 ? std::optional(v4LengthFailure) : std::nullopt;
    const auto v6Expected = len > 128 ? std::optional(v6LengthFailure) : std::nullopt;
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(IpAddr(), len); }), v4Expected);
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(IpGenAddr(IpAddr()), len); }), v4Expected);
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(ipv4_, len, bytes.data()); }), v4Expected);
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(Ip6Addr(), len); }), v6Expected);
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(IpGenAddr(Ip6Addr()), len); }), v6Expected);
    EXPECT_EQ(failureOf([&] { IpGenPrefix p(ipv6_, len, bytes.data()); }), v6Expected);
    expectPrefix(IpGenPrefix(IpGenAddr(), len), unknown_, {}, len);
    expectPrefix(prefixOf(unknown_, bytes, len), unknown_, {}, len);
  }
}

TEST(PrefixConstructorTest, Reset) {
  IpGenPrefix p = prefix("2001:db8::/32");
  p.reset();
  EXPECT_EQ(p, IpGenPrefix());
}

TEST(PrefixConstructorTest, Equality) {
  const IpGenPrefix p = prefix("10.0.0.0/8");
  EXPECT_EQ(p, IpGenPrefix(v4(10, 0, 0, 0), 8));
  EXPECT_NE(p, prefix("10.0.0.0/9"));
  EXPECT_NE(p, IpGenPrefix(v4(10, 0, 0, 1), 8)) << "host bits count";
  EXPECT_NE(p, prefixOf(ipv6_, v4Storage(10, 0, 0, 0), 8)) << "the family counts";
}

TEST(PrefixConstructorTest, ClearsHostBitsOnRequest) {
  IpGenPrefix p(v4(10, 0, 0, 1), 8);
  p.clearLowerAddrBits();
  EXPECT_EQ(p, prefix("10.0.0.0/8"));

  p = IpGenPrefix(v4(10, 255, 255, 255), 30);
  p.clearLowerAddrBits(20);
  EXPECT_EQ(p, IpGenPrefix(v4(10, 255, 240, 0), 30)) << "the length stays";

  p = IpGenPrefix(Ip6Addr(std::string("2001:db8:ffff::1")), 36);
  p.clearLowerAddrBits();
  EXPECT_EQ(p, prefix("2001:db8:f000::/36"));

  IpGenPrefix none = prefixOf(unknown_, v4Storage(1, 2, 3, 4), 0);
  none.clearLowerAddrBits();
  expectPrefix(none, unknown_, v4Storage(1, 2, 3, 4), 0);
}

TEST(PrefixConstructorTest, ClearsForTheLengthAsA16BitNumber) {
  IpGenPrefix p = overlong(v4(10, 1, 2, 3), 65536 + 8);
  p.clearLowerAddrBits();
  expectPrefix(p, ipv4_, v4Storage(10, 0, 0, 0), 65536 + 8);
  p = overlong(v4(10, 1, 2, 3), 40);
  p.clearLowerAddrBits();
  expectPrefix(p, ipv4_, v4Storage(10, 1, 2, 3), 40);
}

// ---------------------------------------------------------------------------------------------
// Text

struct GoodText {
  const char* text;
  const char* printed;
};

constexpr GoodText goodTexts[] = {
    {"10.0.0.0/8", "10.0.0.0/8"},
    {"10.0.0.0//8", "10.0.0.0/8"},   // empty pieces do not count
    {"/10.0.0.0/8/", "10.0.0.0/8"},  //
    {"///10.0.0.0///8///", "10.0.0.0/8"},
    {"0.0.0.0/0", "0.0.0.0/0"},
    {"255.255.255.255/32", "255.255.255.255/32"},
    {"10.1.2.3/0", "10.1.2.3/0"},     // the first word is not examined
    {"010.0.0.0/08", "10.0.0.0/8"},   // decimal
    {"10.0.0.0/8abc", "10.0.0.0/8"},  // anything may follow the digits
    {"10.0.0.0/8.5", "10.0.0.0/8"},
    {"10.0.0.0/8 9", "10.0.0.0/8"},
    {"10.0.0.0/ \t\n\v\f\r+8", "10.0.0.0/8"},
    {"10.0.0.0/abc", "10.0.0.0/0"},  // no digits
    {"10.0.0.0/0x10", "10.0.0.0/0"},
    {"10.0.0.0/ ", "10.0.0.0/0"},
    {"10.0.0.0/+-8", "10.0.0.0/0"},
    {"10.0.0.0/-0", "10.0.0.0/0"},
    {"10.0.0.0/-4294967288", "10.0.0.0/8"},  // modulo 2^32
    {"10.0.0.0/00000000000000000000008", "10.0.0.0/8"},
    {"::/0", "0000:0000:0000:0000:0000:0000:0000:0000/0"},
    {"2001:db8::/32", "2001:0db8:0000:0000:0000:0000:0000:0000/32"},
    {"2001:db8:1::/32", "2001:0db8:0001:0000:0000:0000:0000:0000/32"},  // nor is the second here
    {"::1/128", "0000:0000:0000:0000:0000:0000:0000:0001/128"},
    {"g::/16", "0000:0000:0000:0000:0000:0000:0000:0000/16"},
};

TEST(PrefixTextTest, Accepted) {
  for (const GoodText& c : goodTexts) {
    SCOPED_TRACE(c.text);
    std::ostringstream os;
    ASSERT_EQ(failureOf([&] { os << prefix(c.text); }), std::nullopt);
    EXPECT_EQ(os.str(), c.printed);
  }
}

TEST(PrefixTextTest, Refused) {
  const Failure missing = invalidArgument("Prefix missing subnet");
  const auto several = [](const std::string& text) {
    return invalidArgument("Invalid Prefix - (" + text + ")");
  };
  const std::pair<const char*, Failure> cases[] = {
      {"", missing},
      {"/", missing},
      {"///", missing},
      {"10.0.0.0", missing},
      {"10.0.0.0/", missing},
      {"/8", missing},
      {"no address/", missing},
      {"10.0.0.0/8/8", several("10.0.0.0/8/8")},
      {"//10.0.0.0/8//8//", several("//10.0.0.0/8//8//")},
      {"a/b/c/d", several("a/b/c/d")},
      {"10.0.0/8", invalidAddress("10.0.0")},
      {"10.0.0/99", invalidAddress("10.0.0")},  // the address comes first
      {"//10.0.0 //8/", invalidAddress("10.0.0 ")},
      {" 10.0.0.0/8", invalidAddress(" 10.0.0.0")},
      {"8/10.0.0.0", invalidAddress("8")},
      {"1::2::3/8", invalidAddress("1::2::3")},
      {"::ffff:1.2.3.4/96", invalidAddress("::ffff:1.2.3.4")},
      {"10.0.0.0/33", v4LengthFailure},
      {"10.0.0.1/33", v4LengthFailure},  // the length comes before the host bits
      {"10.0.0.0/-1", v4LengthFailure},
      {"10.0.0.0/ -1", v4LengthFailure},
      {"10.0.0.0/4294967295", v4LengthFailure},
      {"10.0.0.0/4294967296", v4LengthFailure},  // saturates, whatever the word size
      {"10.0.0.0/4294967304", v4LengthFailure},  // 8 modulo 2^32
      {"10.0.0.0/-4294967296", v4LengthFailure},
      {"10.0.0.0/-18446744073709551608", v4LengthFailure},
      {"10.0.0.0/99999999999999999999999999", v4LengthFailure},
      {"::/129", v6LengthFailure},
      {"::/4294967424", v6LengthFailure},
      {"10.0.0.1/8", hostBitsFailure},
      {"10.0.0.1/31", hostBitsFailure},
      {"2001:db8:1::/33", hostBitsFailure},
      {"2001:db8:0:0:1::/32", hostBitsFailure},
      {"::1/0", hostBitsFailure},  // the words after the first are examined
      {"::1/127", hostBitsFailure},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(parsedPrefix(text), Outcome<oracle::Prefix>(expected)) << shown(text);
  }
}

void expectAsOracle(const std::string& text) {
  const Outcome<oracle::Prefix> parsed = parsedPrefix(text);
  const Outcome<oracle::Prefix> expected = oracle::prefix(text);
  ASSERT_EQ(parsed.index(), expected.index()) << shown(text);
  if (const auto* failure = std::get_if<Failure>(&expected)) {
    ASSERT_EQ(std::get<Failure>(parsed), *failure) << shown(text);
  } else {
    ASSERT_TRUE(std::get<0>(parsed) == std::get<0>(expected)) << shown(text);
  }
}

TEST(PrefixTextTest, EveryShortLength) {
  constexpr std::string_view alphabet("0138-+ \tx\0.", 11);
  forEachText(alphabet, 4, [](const std::string& length) {
    expectAsOracle("0.0.0.0/" + length);
    expectAsOracle("128.0.0.0/" + length);
    expectAsOracle("::/" + length);
  });
}

TEST(PrefixTextTest, EveryArrangementOfSlashes) {
  forEachText("/1", 10, [](std::string text) {
    expectAsOracle(text);
    for (std::size_t at = 0; (at = text.find('1', at)) != text.npos; at += 3) {
      text.replace(at, 1, "1::");
    }
    expectAsOracle(text);
  });
}

TEST(PrefixTextTest, EveryLengthOfEveryAddress) {
  for (unsigned int bits = 0; bits <= 128; ++bits) {
    std::ostringstream six;
    six << v6(onesUpTo(bits));
    for (unsigned int len = 0; len <= 130; ++len) {
      expectAsOracle(six.str() + "/" + std::to_string(len));
    }
  }
  for (unsigned int bits = 0; bits <= 32; ++bits) {
    const StorageBytes ones = onesUpTo(bits);
    std::ostringstream four;
    four << v4(ones[0], ones[1], ones[2], ones[3]);
    for (unsigned int len = 0; len <= 40; ++len) {
      expectAsOracle(four.str() + "/" + std::to_string(len));
    }
  }
}

TEST(PrefixTextTest, LengthsAround32Bits) {
  for (const char* sign : {"", "-", "+", " -", "\n+"}) {
    for (const std::uint64_t edge : {std::uint64_t{1} << 31, std::uint64_t{1} << 32,
                                     std::uint64_t{1} << 33, std::uint64_t{1} << 63}) {
      for (std::uint64_t number = edge - 40; number <= edge + 40; ++number) {
        expectAsOracle("0.0.0.0/" + (sign + std::to_string(number)));
        expectAsOracle("0.0.0.0/" + (sign + ("00" + std::to_string(number))));
      }
    }
  }
}

TEST(PrefixTextTest, RandomTexts) {
  forRandomTexts("12...//", 14, 60000, expectAsOracle);
  forRandomTexts("12::///-", 14, 60000, expectAsOracle);
  forRandomTexts("", 10, 5000, expectAsOracle);
  std::mt19937 random(11);
  const std::string alphabet = "0123456789/.:-+ ax";
  for (int i = 0; i < 60000; ++i) {
    std::string text = random() % 2 == 0 ? "10.32.0.0/12" : "2001:db8:4000::/34";
    for (auto edits = 1 + random() % 2; edits != 0; --edits) {
      const std::size_t at = random() % text.size();
      const char c = alphabet[random() % alphabet.size()];
      if (random() % 2 == 0) {
        text[at] = c;
      } else {
        text.insert(at, 1, c);
      }
    }
    expectAsOracle(text);
  }
}

// ---------------------------------------------------------------------------------------------
// validPrefix

TEST(ValidPrefixTest, EveryLengthAndEveryBit) {
  // No bit, one bit, and all bits set, for every length and every place of the bit.
  std::vector<StorageBytes> storages = {StorageBytes{}, onesUpTo(128)};
  for (unsigned int bit = 0; bit < 128; ++bit) {
    StorageBytes one{};
    one[bit / 8] = static_cast<unsigned char>(0x80U >> (bit % 8));
    storages.push_back(one);
    storages.push_back(onesUpTo(bit));
  }
  for (const StorageBytes& storage : storages) {
    const IpGenAddr six(ipv6_, storage.data());
    const IpGenAddr four(ipv4_, storage.data());
    for (int len = -200; len <= 400; ++len) {
      ASSERT_EQ(validPrefix(six, len), oracle::validPrefix(ipv6_, storageOf(six), len)) << len;
      ASSERT_EQ(validPrefix(four, len), oracle::validPrefix(ipv4_, storageOf(four), len)) << len;
    }
  }
}

TEST(ValidPrefixTest, WordEdgesAreNotExamined) {
  StorageBytes bytes{};
  for (const std::size_t word : {0U, 1U, 2U, 3U}) {
    bytes = {};
    std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(4 * word), 4,
                static_cast<unsigned char>(0xFF));
    const int edge = 32 * static_cast<int>(word);
    EXPECT_TRUE(validPrefix(v6(bytes), edge)) << edge;
    EXPECT_FALSE(validPrefix(v6(bytes), edge + 1)) << edge;
    EXPECT_EQ(validPrefix(v6(bytes), edge - 1), false) << edge;
  }
  EXPECT_TRUE(validPrefix(v4(255, 255, 255, 255), 0));
  EXPECT_TRUE(validPrefix(Ip6Addr(std::string("2001:db8:1::")), 32));
  EXPECT_FALSE(validPrefix(Ip6Addr(std::string("2001:db8:1::")), 33));
}

TEST(ValidPrefixTest, Families) {
  for (const int len :
       {std::numeric_limits<int>::min(), -1, 0, 1, 32, 128, std::numeric_limits<int>::max()}) {
    EXPECT_FALSE(validPrefix(IpGenAddr(), len)) << len;
  }
  // A family that is none counts as IPv6.
  const unsigned char bytes[4] = {10, 0, 0, 0};
  const IpGenAddr odd(static_cast<AddressFamily>(7), bytes);
  EXPECT_TRUE(validPrefix(odd, 7));
  EXPECT_FALSE(validPrefix(odd, 6));
  EXPECT_TRUE(validPrefix(odd, 128));
  EXPECT_FALSE(validPrefix(odd, 129));
}

TEST(ValidPrefixTest, NoLengthBelowZero) {
  EXPECT_FALSE(validPrefix(IpAddr(), -1));
  EXPECT_FALSE(validPrefix(IpAddr(), -32));
  EXPECT_FALSE(validPrefix(Ip6Addr(), -1));
  EXPECT_FALSE(validPrefix(Ip6Addr(), -64));
  EXPECT_FALSE(validPrefix(Ip6Addr(), std::numeric_limits<int>::min()));
}

// ---------------------------------------------------------------------------------------------
// Setters

/// What the setter does to the prefix: the failure, after which the prefix must be as before.
template <typename Setter>
std::optional<Failure> set(IpGenPrefix& p, const Setter& setter) {
  const IpGenPrefix before = p;
  const std::optional<Failure> failure = failureOf([&] { setter(p); });
  if (failure) {
    EXPECT_EQ(p, before) << "changed by a setter that threw";
  }
  return failure;
}

auto maskIs(unsigned int len) {
  return [=](IpGenPrefix& p) { p.maskIs(len); };
}
auto addrIs(const IpGenAddr& addr) {
  return [=](IpGenPrefix& p) { p.addrIs(addr); };
}
auto afIs(AddressFamily af) {
  return [=](IpGenPrefix& p) { p.afIs(af); };
}

TEST(PrefixSetterTest, Mask) {
  IpGenPrefix p = prefix("10.0.0.0/8");
  EXPECT_EQ(set(p, maskIs(16)), std::nullopt);
  expectPrefix(p, ipv4_, v4Storage(10, 0, 0, 0), 16);
  EXPECT_EQ(set(p, maskIs(4)), hostBitsFailure);
  EXPECT_EQ(set(p, maskIs(7)), std::nullopt);
  EXPECT_EQ(set(p, maskIs(6)), hostBitsFailure);
  EXPECT_EQ(set(p, maskIs(32)), std::nullopt);
  EXPECT_EQ(set(p, maskIs(0)), std::nullopt) << "the word is not examined";
  for (const unsigned int len : {33U, 64U, 128U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(set(p, maskIs(len)), hostBitsFailure) << len;
  }

  p = prefix("2001:db8::/32");
  EXPECT_EQ(set(p, maskIs(128)), std::nullopt);
  EXPECT_EQ(set(p, maskIs(29)), std::nullopt);
  EXPECT_EQ(set(p, maskIs(28)), hostBitsFailure);
  for (const unsigned int len : {129U, 160U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFE0U, 0xFFFFFFFFU}) {
    EXPECT_EQ(set(p, maskIs(len)), hostBitsFailure) << len;
  }
}

TEST(PrefixSetterTest, MaskWithoutFamily) {
  IpGenPrefix p;
  for (const unsigned int len : {1U, 33U, 129U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(set(p, maskIs(len)), std::nullopt);
    expectPrefix(p, unknown_, {}, len);
  }
}

TEST(PrefixSetterTest, Addr) {
  IpGenPrefix p = prefix("10.0.0.0/8");
  EXPECT_EQ(set(p, addrIs(v4(11, 0, 0, 0))), std::nullopt);
  expectPrefix(p, ipv4_, v4Storage(11, 0, 0, 0), 8);
  EXPECT_EQ(set(p, addrIs(v4(11, 0, 0, 1))), hostBitsFailure);
  EXPECT_EQ(set(p, addrIs(Ip6Addr())), familyFailure);
  EXPECT_EQ(set(p, addrIs(IpGenAddr())), familyFailure);

  p = prefix("2001:db8::/33");
  EXPECT_EQ(set(p, addrIs(Ip6Addr(std::string("2001:db9:8000::")))), std::nullopt);
  EXPECT_EQ(set(p, addrIs(Ip6Addr(std::string("2001:db9:4000::")))), hostBitsFailure);
  EXPECT_EQ(set(p, addrIs(IpAddr())), familyFailure);
}

TEST(PrefixSetterTest, AddrWithoutFamily) {
  IpGenPrefix p;
  EXPECT_EQ(set(p, addrIs(v4(10, 1, 2, 3))), std::nullopt);
  expectPrefix(p, ipv4_, v4Storage(10, 1, 2, 3), 0);
  p.reset();
  EXPECT_EQ(set(p, addrIs(Ip6Addr(std::string("::1")))), std::nullopt) << "no check of host bits";
  EXPECT_EQ(p.addr(), IpGenAddr(std::string("::1")));
  expectPrefix(overlong(v4(10, 1, 2, 3), 77), ipv4_, v4Storage(10, 1, 2, 3), 77);
  p.reset();
  EXPECT_EQ(set(p, addrIs(IpGenAddr())), std::nullopt);
  EXPECT_EQ(p, IpGenPrefix());
}

TEST(PrefixSetterTest, AddrOfItself) {
  IpGenPrefix p = prefix("10.0.0.0/8");
  p.addrIs(p.addr());
  EXPECT_EQ(p, prefix("10.0.0.0/8"));
}

TEST(PrefixSetterTest, Af) {
  IpGenPrefix p = prefix("10.0.0.0/8");
  EXPECT_EQ(set(p, afIs(ipv4_)), std::nullopt);
  EXPECT_EQ(set(p, afIs(ipv6_)), familyFailure);
  EXPECT_EQ(set(p, afIs(unknown_)), familyFailure);
  EXPECT_EQ(p, prefix("10.0.0.0/8"));

  // The present value is validated again.
  p = IpGenPrefix(v4(10, 0, 0, 1), 8);
  EXPECT_EQ(set(p, afIs(ipv4_)), hostBitsFailure);
  p = IpGenPrefix(Ip6Addr(std::string("::1")), 8);
  EXPECT_EQ(set(p, afIs(ipv6_)), hostBitsFailure);
  EXPECT_EQ(set(p, afIs(ipv4_)), familyFailure);
  p = overlong(v4(10, 0, 0, 0), 40);
  EXPECT_EQ(set(p, afIs(ipv4_)), hostBitsFailure);
}

TEST(PrefixSetterTest, AfGivesNoFamilyToAPrefixWithoutOne) {
  for (const unsigned int len : {0U, 8U, 200U}) {
    IpGenPrefix p;
    p.maskIs(len);
    EXPECT_EQ(set(p, afIs(ipv4_)), hostBitsFailure);
    EXPECT_EQ(set(p, afIs(ipv6_)), hostBitsFailure);
    EXPECT_EQ(set(p, afIs(static_cast<AddressFamily>(7))), hostBitsFailure);
    EXPECT_EQ(set(p, afIs(unknown_)), std::nullopt);
    expectPrefix(p, unknown_, {}, len);
  }
}

TEST(PrefixSetterTest, AfOfAnImpossibleFamily) {
  const auto odd = static_cast<AddressFamily>(7);
  IpGenPrefix p = prefixOf(odd, v4Storage(10, 0, 0, 0), 8);
  EXPECT_EQ(set(p, afIs(odd)), std::nullopt) << "validated as IPv6";
  EXPECT_EQ(set(p, maskIs(6)), hostBitsFailure);
  EXPECT_EQ(set(p, afIs(ipv6_)), familyFailure);
}

// ---------------------------------------------------------------------------------------------
// Containment

TEST(PrefixContainsTest, Examples) {
  const IpGenPrefix ten = prefix("10.0.0.0/8");
  EXPECT_TRUE(ten.contains(ten));
  EXPECT_TRUE(ten.contains(prefix("10.1.0.0/16")));
  EXPECT_TRUE(ten.contains(IpGenPrefix(v4(10, 0, 0, 0), 4))) << "the other's length is ignored";
  EXPECT_FALSE(ten.contains(prefix("11.0.0.0/8")));
  EXPECT_FALSE(ten.contains(prefixOf(ipv6_, v4Storage(10, 0, 0, 0), 8))) << "another family";
  EXPECT_FALSE(ten.contains(IpGenPrefix()));
  EXPECT_FALSE(IpGenPrefix().contains(ten));
  EXPECT_TRUE(prefix("0.0.0.0/0").contains(prefix("255.0.0.0/8")));
  EXPECT_TRUE(IpGenPrefix(v4(10, 9, 9, 9), 8).contains(prefix("10.0.0.0/8"))) << "host bits";
  EXPECT_TRUE(prefix("2001:db8::/32").contains(prefix("2001:db8:ffff::/48")));
  EXPECT_FALSE(prefix("2001:db8::/33").contains(prefix("2001:db8:ffff::/48")));
}

TEST(PrefixContainsTest, EveryLengthAndEveryDifferingBit) {
  StorageBytes pattern = {0xA5, 0x5A, 0x81, 0x18, 0x33, 0xCC, 0x0F, 0xF0,
                          0x99, 0x66, 0xC3, 0x3C, 0x12, 0x48, 0x21, 0x84};
  for (const AddressFamily af : {ipv4_, ipv6_}) {
    const unsigned int width = af == ipv4_ ? 32 : 128;
    for (unsigned int bit = 0; bit <= width; ++bit) {
      StorageBytes other = pattern;
      if (bit < width) other[bit / 8] ^= static_cast<unsigned char>(0x80U >> (bit % 8));
      for (unsigned int len = 0; len <= width; ++len) {
        const IpGenPrefix a = prefixOf(af, pattern, len);
        const IpGenPrefix b = prefixOf(af, other, width);
        ASSERT_EQ(a.contains(b), bit >= len) << "bit " << bit << ", length " << len;
        ASSERT_EQ(a.contains(b), oracle::contains(a, b));
        ASSERT_TRUE(a.contains(prefixOf(af, pattern, 0)));
      }
    }
  }
}

TEST(PrefixContainsTest, SeveralDifferingBits) {
  std::mt19937 random(3);
  for (int i = 0; i < 50000; ++i) {
    StorageBytes a{};
    for (unsigned char& byte : a) byte = static_cast<unsigned char>(random());
    StorageBytes b = a;
    for (auto flips = random() % 4; flips != 0; --flips) {
      const auto bit = random() % 128;
      b[bit / 8] ^= static_cast<unsigned char>(0x80U >> (bit % 8));
    }
    const bool isSix = random() % 2 == 0;
    const auto lengthOf = [&] { return static_cast<unsigned int>(random() % (isSix ? 129 : 33)); };
    const IpGenPrefix p = prefixOf(isSix ? ipv6_ : ipv4_, a, lengthOf());
    const IpGenPrefix q = prefixOf(isSix ? ipv6_ : ipv4_, b, lengthOf());
    ASSERT_EQ(p.contains(q), oracle::contains(p, q));
    ASSERT_EQ(p < q, oracle::less(p, q));
    ASSERT_EQ(q < p, oracle::less(q, p));
  }
}

TEST(PrefixContainsTest, LengthsBeyondTheFamilys) {
  const IpGenAddr four = v4(10, 1, 2, 3);
  const IpGenAddr six = Ip6Addr(std::string("2001:db8::1"));
  for (const unsigned int len : {33U, 64U, 128U, 129U, 256U, 65536U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(overlong(four, len).contains(overlong(four, len))) << len;
    EXPECT_TRUE(IpGenPrefix(four, 32).contains(overlong(four, len))) << len;
  }
  EXPECT_TRUE(overlong(six, 128).contains(overlong(six, 500)));
  EXPECT_FALSE(overlong(six, 129).contains(overlong(six, 129)));
  EXPECT_FALSE(overlong(six, 0x80000000).contains(overlong(six, 0)));
}

/// The last bits are compared under the exported masks.
TEST(PrefixContainsTest, ComparesUnderTheMaskTable) {
  const IpGenPrefix a = prefix("10.0.0.0/7");
  const IpGenPrefix b = prefix("8.0.0.0/7");
  ASSERT_FALSE(a.contains(b));
  byteMaskTbl[7] = 0xF0;
  EXPECT_TRUE(a.contains(b));
  byteMaskTbl[7] = 0xFE;
  EXPECT_FALSE(a.contains(b));
}

/// Containment, byte by byte under the masks as they are at the moment.
bool containsUnderTheMasks(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return false;
  unsigned int remaining = a.mask();
  if (remaining > (a.addr().af() == ipv4_ ? 32U : 128U)) return false;
  if (remaining == 0) return true;
  const unsigned char* x = a.addr().bytes();
  const unsigned char* y = b.addr().bytes();
  for (; remaining > 8; remaining -= 8) {
    if (*x++ != *y++) return false;
  }
  return ((*x ^ *y) & byteMaskTbl[remaining]) == 0;
}

bool lessUnderTheMasks(const IpGenPrefix& a, const IpGenPrefix& b) {
  if (a.addr().af() != b.addr().af()) return a.addr().af() < b.addr().af();
  if (a.mask() < b.mask() ? containsUnderTheMasks(a, b) : containsUnderTheMasks(b, a)) {
    return a.mask() > b.mask();
  }
  return storageOf(a.addr()) < storageOf(b.addr());
}

/// Puts the masks back as they were.
class MasksKept {
 public:
  MasksKept() { std::copy(std::begin(byteMaskTbl), std::end(byteMaskTbl), kept_); }
  MasksKept(const MasksKept&) = delete;
  MasksKept& operator=(const MasksKept&) = delete;
  ~MasksKept() { std::copy(std::begin(kept_), std::end(kept_), byteMaskTbl); }

 private:
  unsigned char kept_[9];
};

/// Every length, with the first differing bit wherever a mask matters, and some bits after it.
void expectTheMasksFollowed() {
  const StorageBytes pattern = {0xA5, 0x5A, 0x81, 0x18, 0x33, 0xCC, 0x0F, 0xF0,
                                0x99, 0x66, 0xC3, 0x3C, 0x12, 0x48, 0x21, 0x84};
  std::mt19937 random(5);
  for (const AddressFamily af : {ipv4_, ipv6_}) {
    const unsigned int width = af == ipv4_ ? 32 : 128;
    for (unsigned int len = 0; len <= width; ++len) {
      for (unsigned int bit = len - std::min(len, 9U); bit < std::min(len + 9, width); ++bit) {
        StorageBytes other = pattern;
        other[bit / 8] ^= static_cast<unsigned char>(0x80U >> (bit % 8));
        const unsigned int later = bit + static_cast<unsigned int>(random() % (width - bit));
        if (later != bit) other[later / 8] ^= static_cast<unsigned char>(0x80U >> (later % 8));
        const IpGenPrefix a = prefixOf(af, pattern, len);
        for (const unsigned int otherLen : {len, width - len, width}) {
          const IpGenPrefix b = prefixOf(af, other, otherLen);
          ASSERT_EQ(a.contains(b), containsUnderTheMasks(a, b)) << a << ' ' << b;
          ASSERT_EQ(b.contains(a), containsUnderTheMasks(b, a)) << a << ' ' << b;
          ASSERT_EQ(a < b, lessUnderTheMasks(a, b)) << a << ' ' << b;
          ASSERT_EQ(b < a, lessUnderTheMasks(b, a)) << a << ' ' << b;
        }
      }
    }
  }
}

TEST(PrefixContainsTest, FollowsEveryChangeOfTheMaskTable) {
  expectTheMasksFollowed();
  for (std::size_t entry = 0; entry < 9; ++entry) {
    for (const unsigned int changed : {0x00U, 0x0FU, 0x10U, 0xFFU}) {
      const MasksKept kept;
      byteMaskTbl[entry] = static_cast<unsigned char>(changed);
      expectTheMasksFollowed();
    }
  }
  for (const unsigned int all : {0x00U, 0x55U, 0xFFU}) {
    const MasksKept kept;
    std::fill(std::begin(byteMaskTbl), std::end(byteMaskTbl), static_cast<unsigned char>(all));
    expectTheMasksFollowed();
  }
  const unsigned char expected[9] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE, 0xFF};
  ASSERT_TRUE(std::equal(std::begin(expected), std::end(expected), byteMaskTbl)) << "put back";
  expectTheMasksFollowed();
}

// ---------------------------------------------------------------------------------------------
// Ordering

TEST(PrefixOrderTest, Examples) {
  EXPECT_TRUE(prefix("10.1.0.0/16") < prefix("10.0.0.0/8")) << "the more specific one first";
  EXPECT_FALSE(prefix("10.0.0.0/8") < prefix("10.1.0.0/16"));
  EXPECT_TRUE(prefix("10.0.0.0/8") < prefix("11.0.0.0/8"));
  EXPECT_FALSE(prefix("11.0.0.0/8") < prefix("10.0.0.0/8"));
  EXPECT_TRUE(prefix("10.255.0.0/16") < prefix("11.0.0.0/8"));
  EXPECT_TRUE(prefix("127.0.0.0/8") < prefix("128.0.0.0/8")) << "bytes compare without a sign";
  EXPECT_TRUE(prefix("255.0.0.0/8") < prefix("::/0")) << "IPv4 before IPv6";
  EXPECT_FALSE(prefix("::/0") < prefix("255.0.0.0/8"));
  EXPECT_TRUE(IpGenPrefix() < prefix("0.0.0.0/0"));
  EXPECT_FALSE(prefix("0.0.0.0/0") < IpGenPrefix());
  EXPECT_TRUE(prefix("1.0.0.0/8") < prefix("0.0.0.0/0"));
  EXPECT_TRUE(prefix("2001:db8::/48") < prefix("2001:db8::/32"));
}

TEST(PrefixOrderTest, EquivalentPrefixes) {
  const IpGenPrefix a(v4(10, 1, 0, 0), 8);
  const IpGenPrefix b(v4(10, 2, 0, 0), 8);
  EXPECT_FALSE(a < b) << "equal length and leading bits";
  EXPECT_FALSE(b < a);
  EXPECT_NE(a, b);
}

TEST(PrefixOrderTest, BytesBeyondTheLengthDecideOtherwise) {
  // Two lengths that no IPv4 prefix has contain nothing, so that all bytes count.
  const IpGenPrefix a = overlong(v4(10, 0, 0, 1), 40);
  const IpGenPrefix b = overlong(v4(10, 0, 0, 2), 40);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a < a);
}

TEST(PrefixOrderTest, EveryPairOfIpv4LengthsAndEveryFirstDifferingBit) {
  std::mt19937 random(6);
  for (unsigned int len = 0; len <= 33; ++len) {
    for (unsigned int otherLen = 0; otherLen <= 33; ++otherLen) {
      for (unsigned int bit = 0; bit <= 32; ++bit) {
        const auto address = static_cast<std::uint32_t>(random());
        std::uint32_t other = address;
        if (bit < 32) {
          other ^= 0x80000000U >> bit;
          other ^= static_cast<std::uint32_t>(random()) & 0x7FFFFFFFU >> bit;  // host bits, too
        }
        const auto make = [](std::uint32_t value, unsigned int length) {
          return overlong(IpAddr(__builtin_bswap32(value)), length);
        };
        const IpGenPrefix a = make(address, len);
        const IpGenPrefix b = make(other, otherLen);
        ASSERT_EQ(a < b, oracle::less(a, b)) << a << ' ' << b;
        ASSERT_EQ(b < a, oracle::less(b, a)) << a << ' ' << b;
      }
    }
  }
}

std::vector<IpGenPrefix> manyPrefixes() {
  std::vector<IpGenPrefix> prefixes;
  for (const unsigned int len : {0U, 1U, 7U, 8U, 9U, 24U, 31U, 32U}) {
    for (const IpAddr addr : {v4(0, 0, 0, 0), v4(10, 0, 0, 0), v4(10, 0, 0, 1), v4(10, 128, 0, 0),
                              v4(11, 0, 0, 0), v4(255, 255, 255, 255)}) {
      prefixes.emplace_back(addr, len);
    }
  }
  for (const unsigned int len : {0U, 32U, 33U, 64U, 65U, 127U, 128U}) {
    for (const char* text : {"::", "::1", "2001:db8::", "2001:db8:8000::1", "ffff::"}) {
      prefixes.emplace_back(Ip6Addr(std::string(text)), len);
    }
  }
  prefixes.push_back(overlong(v4(10, 0, 0, 0), 33));
  prefixes.push_back(overlong(v4(10, 0, 0, 1), 40));
  prefixes.push_back(overlong(Ip6Addr(), 129));
  return prefixes;
}

TEST(PrefixOrderTest, AsOracle) {
  const std::vector<IpGenPrefix> all = manyPrefixes();
  for (const IpGenPrefix& a : all) {
    for (const IpGenPrefix& b : all) {
      ASSERT_EQ(a < b, oracle::less(a, b)) << a << ' ' << b;
      ASSERT_EQ(a.contains(b), oracle::contains(a, b)) << a << ' ' << b;
    }
  }
}

TEST(PrefixOrderTest, IsAStrictWeakOrder) {
  const std::vector<IpGenPrefix> all = manyPrefixes();
  const auto areEquivalent = [](const IpGenPrefix& a, const IpGenPrefix& b) {
    return !(a < b) && !(b < a);
  };
  for (const IpGenPrefix& a : all) {
    ASSERT_FALSE(a < a) << a;
    for (const IpGenPrefix& b : all) {
      ASSERT_FALSE(a < b && b < a) << a << ' ' << b;
      if (a == b) {
        ASSERT_TRUE(areEquivalent(a, b)) << a;
      }
      for (const IpGenPrefix& c : all) {
        if (a < b && b < c) {
          ASSERT_TRUE(a < c) << a << ' ' << b << ' ' << c;
        }
        if (areEquivalent(a, b) && areEquivalent(b, c)) {
          ASSERT_TRUE(areEquivalent(a, c)) << a << ' ' << b << ' ' << c;
        }
      }
    }
  }
}

TEST(PrefixOrderTest, LongestMatchFirstInAMap) {
  std::map<IpGenPrefix, int> routes = {{prefix("0.0.0.0/0"), 0},
                                       {prefix("10.0.0.0/8"), 8},
                                       {prefix("10.1.0.0/16"), 16},
                                       {prefix("10.1.2.0/24"), 24},
                                       {prefix("11.0.0.0/8"), -8}};
  std::vector<int> order;
  for (const auto& [route, value] : routes) order.push_back(value);
  EXPECT_EQ(order, (std::vector<int>{24, 16, 8, -8, 0}));
}

// ---------------------------------------------------------------------------------------------
// Impossible families

TEST(PrefixDeathTest, ContainmentWithoutFamily) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const std::string line =
      assertionLine("src/korvo_types.cpp",
                    "bool Korvo::IpGenPrefix::contains(const Korvo::IpGenPrefix&) const",
                    "addr().af() == ipv4_ || addr_.af() == ipv6_") +
      "$";
  const auto died = testing::KilledBySignal(SIGABRT);
  const IpGenPrefix none;
  const IpGenPrefix odd = prefixOf(static_cast<AddressFamily>(7), {}, 0);
  EXPECT_EXIT(none.contains(none), died, line);
  EXPECT_EXIT(odd.contains(odd), died, line);
  EXPECT_EXIT(static_cast<void>(none < none), died, line);
  EXPECT_EXIT(static_cast<void>(odd < odd), died, line);
  EXPECT_FALSE(none.contains(odd)) << "families that differ come first";
  EXPECT_TRUE(none < odd);
}

TEST(PrefixDeathTest, ClearingAnImpossibleFamily) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  IpGenPrefix odd = prefixOf(static_cast<AddressFamily>(7), {}, 0);
  EXPECT_EXIT(odd.clearLowerAddrBits(), testing::KilledBySignal(SIGABRT),
              assertionLine("src/korvo_types.cpp",
                            "int Korvo::IpGenAddr::addressLengthBytes() const", "0") +
                  "$");
}

}  // namespace
