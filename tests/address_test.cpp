// Address values: parsing, validation, clearing of host bits, ordering, hashing.

#include <Korvo/korvo_types.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "address_test_support.h"

namespace {

using namespace Korvo;

// ---------------------------------------------------------------------------------------------
// IPv4 text

struct V4Case {
  const char* text;
  std::array<unsigned char, 4> bytes;
};

constexpr V4Case goodV4[] = {
    {"0.0.0.0", {0, 0, 0, 0}},
    {"255.255.255.255", {255, 255, 255, 255}},
    {"1.2.3.4", {1, 2, 3, 4}},
    {"010.001.0.0000009", {10, 1, 0, 9}},  // leading zeros are decimal
    {"00000000000000000000255.0.0.000", {255, 0, 0, 0}},
    {"08.09.019.099", {8, 9, 19, 99}},
    {"249.250.200.199", {249, 250, 200, 199}},
};

constexpr const char* badV4[] = {
    "",  // empty
    ".",
    "...",
    "....",  // no digits
    "1",
    "1.2",
    "1.2.3",  // too few
    "1.2.3.",
    "1.2.3.4.",
    "1.2.3.4.5",  // a dot too many
    ".1.2.3.4",
    "1..2.3",
    "1.2..3.4",  // an empty number
    "256.0.0.1",
    "0.0.0.256",
    "1.2.3.300",
    "1.2.3.1000",
    "1.2.3.99999999999999999999",
    "4294967297.0.0.1",  // 1 modulo 2^32
    " 1.2.3.4",
    "1.2.3.4 ",
    "1. 2.3.4",
    "1.2.3.4\n",
    "1.2.3.-4",
    "+1.2.3.4",
    "0x1.2.3.4",
    "1.2.3.a",
    "1,2,3,4",
    "::1",
    "1.2.3./",
    "1.2.3.:",  // the neighbours of the digits
};

TEST(V4TextTest, Accepted) {
  for (const V4Case& c : goodV4) {
    SCOPED_TRACE(c.text);
    unsigned int word = 0;
    EXPECT_NE(strToV4Addr(c.text, &word), 0);
    EXPECT_EQ(bytesOf(word), c.bytes);
    EXPECT_TRUE(validV4Addr(c.text));
    EXPECT_EQ(IpAddr(std::string(c.text)).addr(), word);
  }
}

TEST(V4TextTest, RefusedAndNothingStored) {
  for (const char* text : badV4) {
    SCOPED_TRACE(shown(text));
    unsigned int word = 0xDEADBEEF;
    EXPECT_EQ(strToV4Addr(text, &word), 0);
    EXPECT_EQ(word, 0xDEADBEEF);
    EXPECT_FALSE(validV4Addr(text));
    EXPECT_EQ(failureOf([&] { IpAddr addr{std::string(text)}; }), invalidAddress(text));
  }
}

void expectV4AsOracle(const std::string& text) {
  const auto expected = oracle::v4(text);
  unsigned int word = 0xDEADBEEF;
  ASSERT_EQ(strToV4Addr(text, &word) != 0, expected.has_value()) << shown(text);
  ASSERT_EQ(bytesOf(word), expected ? *expected : bytesOf(0xDEADBEEF)) << shown(text);
  ASSERT_EQ(validV4Addr(text), expected.has_value()) << shown(text);
}

TEST(V4TextTest, EveryNumberInEveryPlace) {
  for (int number = 0; number < 1100; ++number) {
    for (int place = 0; place < 4; ++place) {
      std::string text;
      for (int i = 0; i < 4; ++i) {
        if (i != 0) text += '.';
        text += std::to_string(i == place ? number : i);
      }
      expectV4AsOracle(text);
    }
  }
}

TEST(V4TextTest, EveryByteInEveryPlace) {
  for (int byte = 0; byte < 256; ++byte) {
    for (std::size_t place = 0; place <= 7; ++place) {
      std::string text = "1.2.3.4";
      text.insert(place, 1, static_cast<char>(byte));
      expectV4AsOracle(text);
      text.erase((place + 1) % text.size(), 1);
      expectV4AsOracle(text);
    }
  }
}

TEST(V4TextTest, EveryShortText) {
  forEachText("2.", 13, expectV4AsOracle);  // dots and digits in every arrangement
  forEachText("059. ", 7, expectV4AsOracle);
}

TEST(V4TextTest, RandomTexts) {
  forRandomTexts("0125.", 16, 200000, expectV4AsOracle);
  forRandomTexts("00000012.....", 40, 50000, expectV4AsOracle);
  forRandomTexts("", 12, 20000, expectV4AsOracle);
}

// ---------------------------------------------------------------------------------------------
// Expansion and validation of IPv6 text

TEST(V6ExpansionTest, Table) {
  const std::pair<const char*, const char*> cases[] = {
      {"::", "0:0:0:0:0:0:0:0"},
      {"1::2", "1:0:0:0:0:0:0:2"},
      {"1:2::3:4", "1:2:0:0:0:0:3:4"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
      {"::1", "0:0:0:0:0:0:0:1"},
      {"1::", "1:0:0:0:0:0:0:0"},
      {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
      {"1:2:3:4::5:6:7:8", "1:2:3:4:5:6:7:8"},  // no zero group is left to write
      {"1:2:3:4::5:6:7:8:9", "1:2:3:4:5:6:7:8:9"},
      {"1:2:3:4:5:6:7:8::", "1:2:3:4:5:6:7:8:0"},  // a group too many
      {":::", "0:0:0:0:0:0::"},                    // three colons are one "::"
      {"1:::2", "1:0:0:0:0:0::2"},
      {":1::", ":1:0:0:0:0:0:0"},  // the leading colon counts
      {"", ""},
      {":", ":"},
      {"1:2", "1:2"},
      {"no colon at all", "no colon at all"},
      {"x::y", "x:0:0:0:0:0:0:y"},
      {"::ffff:1.2.3.4", "0:0:0:0:0:0:ffff:1.2.3.4"},
  };
  for (const auto& [text, expanded] : cases) EXPECT_EQ(expandV6Addr(text), expanded) << text;
}

TEST(V6ExpansionTest, SecondAbbreviation) {
  for (const char* text :
       {"1::2::3", "::::", "::1::", "1::::2", "::::::::", "a::b:::c", "::x::", "1::2::"}) {
    EXPECT_EQ(failureOf([&] { expandV6Addr(text); }), invalidAddress(text)) << text;
    EXPECT_EQ(failureOf([&] { Ip6Addr addr{std::string(text)}; }), invalidAddress(text)) << text;
  }
}

TEST(V6ValidationTest, Table) {
  for (const char* text :
       {"1:2:3:4:5:6:7:8", "0:0:0:0:0:0:0:0", "ffff:FFFF:ffff:ffff:ffff:ffff:ffff:ffff",
        "zzzz:0:0:0:0:0:0:1",  // characters are not looked at
        "    :-1:+1:0x1:1.2:....:/:8", ":1:2:3:4:5:6:7:8",
        "1:2:3:4:5:6:7:8:",  // empty groups do not count
        "1::2:3:4:5:6:7:8", "1:2:3:4::::::5:6:7:8"}) {
    EXPECT_TRUE(validV6Addr(text)) << text;
  }
  for (const char* text : {"", ":", "::", "1", "1::2", "1:2:3:4:5:6:7",
                           "1:2:3:4:5:6:7:", "1:2:3:4:5:6:7:8:9", "12345:2:3:4:5:6:7:8",
                           "1:2:3:4:5:6:7:00008", "1:2:3:4:5:6:7:8 9 0", "1:2:3:4:5:6:7:1.2.3.4"}) {
    EXPECT_FALSE(validV6Addr(text)) << text;
  }
  EXPECT_TRUE(validV6Addr(std::string("1:2:3:4:5:6:7:\0\0\0\0", 18))) << "NUL bytes are characters";
  EXPECT_FALSE(validV6Addr(std::string("1:2:3:4:5:6:7:\0\0\0\0\0", 19)));
}

// ---------------------------------------------------------------------------------------------
// IPv6 text

struct V6Case {
  const char* text;
  StorageBytes bytes;
};

constexpr V6Case goodV6[] = {
    {"::", {}},
    {"::1", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"2001:db8::1", {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"2001:DB8::", {0x20, 0x01, 0x0d, 0xb8}},
    {"0123:4567:89ab:cdef:fedc:ba98:7654:3210",
     {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32,
      0x10}},
    {"1:2:3:4:5:6:7:8", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8}},
    {"1:2:3:4::5:6:7:8", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8}},
    {"1:2:3:4:5:6:7::", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 0}},
    {"::2:3:4:5:6:7:8", {0, 0, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8}},
    {":1:2:3:4:5:6:7:8", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8}},
    {"1:2:3:4:5:6:7:8:", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 8}},
    {":1:2:3:4:5:6:7::", {0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 0}},
    {"1::2:3:4:5:6:7", {0, 1, 0, 0, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7}},
    {"g::1", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"zz::", {}},
    {"[::1]", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"::1%e", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}},
    {"12g4::", {0x00, 0x12}},
    {"0x1:0XaB:0x:0xg::", {0, 1, 0, 0xab}},
    {" 1: \t2:\n3:+4::", {0, 1, 0, 2, 0, 3, 0, 4}},
    {"1 2:3::", {0, 1, 0, 3}},
    // A negative group is wider than 16 bits, within its word.
    {"0:-1::", {0xff, 0xff, 0xff, 0xff}},
    {"1:-1::", {0x00, 0x00, 0xff, 0xff}},
    {"-1:0::", {0xff, 0xff, 0x00, 0x00}},
    {"-1:-1::", {0xff, 0xfe, 0xff, 0xff}},
    {"0:-fff::", {0xff, 0xff, 0xf0, 0x01}},
    {"--1::", {}},
    {"+-1::", {}},
    {"- 1::", {}},
};

constexpr const char* badV6[] = {
    "",
    ":",
    ":::",
    "1",
    "1:2",
    "1:2:3:4:5:6:7",
    "1:2:3:4:5:6:7:",
    "1:2:3:4:5:6:7:8:9",
    "12345::1",
    "::12345",
    "::00001",
    "1:2:3:4:5:6:7:8::",
    "::1:2:3:4:5:6:7:8",
    "1:2:3:4:5::6:7:8:9",
    "1::2::3",
    "1:::2",
    "::::",
    ":1::",
    "1:2:::3",
    "1::2:",
    "::ffff:1.2.3.4",
    "10.0.0.1",
    "::1 2 3",
    "fe80::1%eth0",
    "no address",
};

TEST(V6TextTest, Accepted) {
  for (const V6Case& c : goodV6) {
    EXPECT_EQ(parsedV6(c.text), Outcome<StorageBytes>(c.bytes)) << c.text;
  }
}

TEST(V6TextTest, RefusedWithTheTextAsGiven) {
  for (const char* text : badV6) {
    EXPECT_EQ(parsedV6(text), Outcome<StorageBytes>(invalidAddress(text))) << text;
  }
}

/// The numbers of the steps: the same value, or the same message.
void expectV6AsOracle(const std::string& text) {
  ASSERT_EQ(parsedV6(text), oracle::v6(text)) << shown(text);
}

void expectExpansionAsOracle(const std::string& text) {
  Outcome<std::string> expanded;
  if (const auto failure = failureOf([&] { expanded = expandV6Addr(text); })) expanded = *failure;
  ASSERT_EQ(expanded, oracle::expandedV6(text)) << shown(text);
  ASSERT_EQ(validV6Addr(text), oracle::validV6(text)) << shown(text);
}

TEST(V6TextTest, EveryArrangementOfColons) {
  // Long enough for eight groups, both ends with a colon too many and a "::" between.
  forEachText(":1", 18, [](const std::string& text) {
    expectV6AsOracle(text);
    if (text.size() <= 12) expectExpansionAsOracle(text);
  });
}

TEST(V6TextTest, EveryArrangementOfGroups) {
  // Up to ten groups, each parted from the next by one, two or three colons.
  for (int groupCount = 0; groupCount <= 10; ++groupCount) {
    for (int gap = -1; gap <= groupCount; ++gap) {
      for (int extra = 0; extra < 8; ++extra) {
        std::string text = (extra & 1) != 0 ? ":" : "";
        for (int group = 0; group < groupCount; ++group) {
          if (group == gap) text += group == 0 ? "::" : ":";
          text += 'a';
          text += std::to_string(group);
          if (group + 1 < groupCount || gap == groupCount) text += ':';
        }
        if (gap == groupCount) text += groupCount == 0 ? "::" : ":";
        if ((extra & 2) != 0) text += ':';
        if ((extra & 4) != 0) text += "::b";
        expectV6AsOracle(text);
        expectExpansionAsOracle(text);
      }
    }
  }
}

/// Every character that a conversion in base 16 treats in its own way, its neighbours, and some
/// that it does not.
constexpr std::string_view groupAlphabet("019afAFgGxX-+ \t\n\v\f\r\0/@`\x80\xff", 24);

std::uint32_t groupOf(const Ip6Addr& addr, int group) {
  return static_cast<std::uint32_t>(addr.bytes()[2 * group] << 8 | addr.bytes()[2 * group + 1]);
}

TEST(V6TextTest, EveryGroupAsTheSystemConvertsIt) {
  std::size_t count = 0;
  forEachText(groupAlphabet, 4, [&](const std::string& group) {
    if (group.empty()) return;
    ++count;
    // On a wider unsigned long, the lower 32 bits are the same as long as nothing saturates.
    const auto value = static_cast<std::uint32_t>(std::strtoul(group.c_str(), nullptr, 16));
    ASSERT_EQ(value, oracle::toUnsigned(group, 16)) << shown(group);
    const Ip6Addr odd("0:0:0:0:0:0:0:" + group);
    ASSERT_EQ(groupOf(odd, 6) << 16 | groupOf(odd, 7), value) << shown(group);
    const Ip6Addr even(group + "::");
    ASSERT_EQ(groupOf(even, 0) << 16 | groupOf(even, 1), value << 16) << shown(group);
  });
  EXPECT_EQ(count, 24U + 24 * 24 + 24 * 24 * 24 + 24 * 24 * 24 * 24);
}

TEST(V6TextTest, EveryPlainGroup) {
  static constexpr char lower[] = "0123456789abcdef";
  static constexpr char upper[] = "0123456789ABCDEF";
  for (unsigned int value = 0; value < 0x10000; ++value) {
    std::string full;
    for (int shift = 12; shift >= 0; shift -= 4) {
      full += (value % 3 == 0 ? upper : lower)[value >> shift & 0x0F];
    }
    const std::string text =
        value % 2 == 0 ? full : full.substr(std::min<std::size_t>(full.find_first_not_of('0'), 3));
    for (const int place : {0, 3, 7}) {
      std::string address;
      for (int i = 0; i < 8; ++i) {
        if (i != 0) address += ':';
        address += i == place ? text : "f0f";
      }
      const Ip6Addr addr(address);
      for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(groupOf(addr, i), i == place ? value : 0xf0fU) << address;
      }
    }
  }
}

TEST(V6TextTest, EveryByteInEveryPlace) {
  for (const std::string good : {"1:2:3:4:5:6:7:8", "12ab::cd34", "::1", "1::"}) {
    for (int byte = 0; byte < 256; ++byte) {
      for (std::size_t place = 0; place <= good.size(); ++place) {
        std::string text = good;
        text.insert(place, 1, static_cast<char>(byte));
        expectV6AsOracle(text);
        text.erase((place + 1) % text.size(), 1);
        expectV6AsOracle(text);
      }
    }
  }
}

TEST(V6TextTest, RandomTexts) {
  forRandomTexts("0af::::", 24, 50000, expectV6AsOracle);
  forRandomTexts("1:::g-x ", 20, 50000, expectV6AsOracle);
  forRandomTexts("", 12, 5000, expectV6AsOracle);
  forRandomTexts(":1z.", 16, 20000, expectExpansionAsOracle);
}

TEST(V6TextTest, MutatedAddresses) {
  std::mt19937 random(7);
  const std::string seeds[] = {"2001:db8:85a3:8d3:1319:8a2e:370:7348",
                               "fe80::1:2:3",
                               "::",
                               "1:2:3:4::5:6:7:8",
                               ":1:2:3:4:5:6:7:8:",
                               "::ffff:10.0.0.1"};
  const std::string alphabet = "0123456789abcdefABCDEFgxX:::::-+ ./";
  for (int i = 0; i < 60000; ++i) {
    std::string text = seeds[random() % std::size(seeds)];
    for (auto edits = 1 + random() % 3; edits != 0; --edits) {
      const std::size_t at = random() % (text.size() + 1);
      const char c = alphabet[random() % alphabet.size()];
      switch (random() % 3) {
        case 0:
          text.insert(at, 1, c);
          break;
        case 1:
          if (at < text.size()) text[at] = c;
          break;
        default:
          if (at < text.size()) text.erase(at, 1);
      }
    }
    expectV6AsOracle(text);
  }
}

/// The parsers look at no byte behind the text: a view into a longer text is all they get from the
/// prefix parser, and a string of its own ends with its NUL byte. A sanitizer sees the rest.
TEST(V6TextTest, TextsThatFillTheirStorage) {
  for (std::size_t length = 1; length < 40; ++length) {
    const std::string text =
        std::string("2001:0db8:0001:0002:0003:0004:0005:0006").substr(0, length);
    const auto copy = std::make_unique<std::string>(text);
    copy->shrink_to_fit();
    ASSERT_EQ(parsedV6(*copy), oracle::v6(text)) << text;
  }
}

// ---------------------------------------------------------------------------------------------
// Generic text

TEST(GenTextTest, ADotTellsTheFamily) {
  EXPECT_EQ(IpGenAddr(std::string("10.0.0.1")).af(), ipv4_);
  EXPECT_EQ(storageOf(IpGenAddr(std::string("10.0.0.1"))), v4Storage(10, 0, 0, 1));
  EXPECT_EQ(IpGenAddr(std::string("::")).af(), ipv6_);
  EXPECT_EQ(storageOf(IpGenAddr(std::string("::"))), StorageBytes{});
  EXPECT_EQ(IpGenAddr(std::string("1::2")), IpGenAddr(Ip6Addr(std::string("1::2"))));
}

TEST(GenTextTest, Refused) {
  for (const char* text :
       {"", "::ffff:1.2.3.4", "1.2.3", ".", "::.", "1::2::3", "1", "256.1.1.1", "12345::"}) {
    EXPECT_EQ(failureOf([&] { IpGenAddr addr{std::string(text)}; }), invalidAddress(text)) << text;
  }
}

TEST(GenTextTest, RandomTexts) {
  const auto check = [](const std::string& text) {
    Outcome<std::pair<AddressFamily, StorageBytes>> parsed;
    const auto parse = [&] {
      const IpGenAddr addr(text);
      parsed = std::pair(addr.af(), storageOf(addr));
    };
    if (const auto failure = failureOf(parse)) parsed = *failure;
    ASSERT_EQ(parsed, oracle::genAddr(text)) << shown(text);
  };
  forRandomTexts("1:::::.", 20, 30000, check);
  forRandomTexts("12....", 9, 30000, check);
}

// ---------------------------------------------------------------------------------------------
// Values

TEST(AddressValueTest, IpAddr) {
  EXPECT_EQ(IpAddr().addr(), 0U);
  const IpAddr addr = v4(10, 1, 0, 9);
  EXPECT_EQ(IpAddr(addr.addr()), addr);
  EXPECT_EQ(addr, IpAddr(std::string("10.1.0.9")));
  EXPECT_NE(addr, IpAddr(std::string("10.1.0.8")));
  EXPECT_TRUE(v4(1, 0, 0, 255) < v4(1, 0, 1, 0)) << "numeric order";
  EXPECT_TRUE(v4(255, 0, 0, 0) > v4(1, 2, 3, 4));
  static_assert(sizeof(IpAddr) == 4 && std::is_trivially_copyable_v<IpAddr>);
  static_assert(!std::is_convertible_v<unsigned int, IpAddr>);
  static_assert(!std::is_convertible_v<std::string, IpAddr>);
  static_assert(IpAddr(5).addr() == 5, "usable in constant expressions");
}

TEST(AddressValueTest, Ip6Addr) {
  EXPECT_EQ(storageOf(Ip6Addr()), StorageBytes{});
  const StorageBytes bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(storageOf(v6(bytes)), bytes);
  EXPECT_EQ(v6(bytes), Ip6Addr(std::string("102:304:506:708:90a:b0c:d0e:f10")));
  for (std::size_t i = 0; i < 16; ++i) {
    StorageBytes other = bytes;
    other[i] ^= 0x80;
    EXPECT_NE(v6(bytes), v6(other)) << i;
    EXPECT_TRUE(v6(bytes) < v6(other)) << "bytes compare without a sign: " << i;
  }
  static_assert(sizeof(Ip6Addr) == 16 && alignof(Ip6Addr) == 1);
  static_assert(std::is_trivially_copyable_v<Ip6Addr>);
}

TEST(AddressValueTest, TheFirstByteThatDiffersOrdersAddresses) {
  std::mt19937 random(17);
  for (int i = 0; i < 20000; ++i) {
    StorageBytes a{};
    for (unsigned char& byte : a) byte = static_cast<unsigned char>(random());
    StorageBytes b = a;
    for (auto changes = random() % 4; changes != 0; --changes) {
      b[random() % 16] = static_cast<unsigned char>(random());
    }
    ASSERT_EQ(v6(a) <=> v6(b), a <=> b);
    ASSERT_EQ(IpGenAddr(v6(a)) <=> IpGenAddr(v6(b)), a <=> b);
  }
}

TEST(AddressValueTest, IpGenAddr) {
  EXPECT_EQ(IpGenAddr().af(), unknown_);
  EXPECT_EQ(storageOf(IpGenAddr()), StorageBytes{});

  const IpGenAddr four = v4(10, 1, 0, 9);
  EXPECT_EQ(four.af(), ipv4_);
  EXPECT_EQ(storageOf(four), v4Storage(10, 1, 0, 9));

  const StorageBytes bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  const IpGenAddr six = v6(bytes);
  EXPECT_EQ(six.af(), ipv6_);
  EXPECT_EQ(storageOf(six), bytes);

  EXPECT_EQ(IpGenAddr(ipv6_, bytes.data()), six);
  EXPECT_EQ(storageOf(IpGenAddr(ipv4_, bytes.data())), v4Storage(1, 2, 3, 4));
  EXPECT_EQ(IpGenAddr(unknown_, bytes.data()).af(), unknown_);
  EXPECT_EQ(storageOf(IpGenAddr(unknown_, bytes.data())), v4Storage(1, 2, 3, 4));
  const auto unheardOf = static_cast<AddressFamily>(7);
  EXPECT_EQ(storageOf(IpGenAddr(unheardOf, bytes.data())), v4Storage(1, 2, 3, 4));

  const StorageBytes sameBytes = v4Storage(10, 1, 0, 9);
  EXPECT_NE(IpGenAddr(ipv6_, sameBytes.data()), four) << "the family counts";
  EXPECT_TRUE(four < six) << "by family first";
  EXPECT_TRUE(IpGenAddr() < four);
  EXPECT_TRUE(IpGenAddr(v4(1, 0, 0, 0)) < IpGenAddr(v4(1, 0, 0, 1)));

  static_assert(sizeof(IpGenAddr) == 20 && std::is_trivially_copyable_v<IpGenAddr>);
  static_assert(std::is_convertible_v<IpAddr, IpGenAddr>);
  static_assert(std::is_convertible_v<Ip6Addr, IpGenAddr>);
  static_assert(!std::is_convertible_v<std::string, IpGenAddr>);
}

TEST(AddressValueTest, Families) {
  static_assert(sizeof(AddressFamily) == 4 && std::is_convertible_v<AddressFamily, int>);
  EXPECT_EQ(unknown_, 0);
  EXPECT_EQ(ipv4_, 1);
  EXPECT_EQ(ipv6_, 2);
  EXPECT_EQ(IpGenAddr().addressLengthBytes(), 0);
  EXPECT_EQ(IpGenAddr(IpAddr()).addressLengthBytes(), 4);
  EXPECT_EQ(IpGenAddr(Ip6Addr()).addressLengthBytes(), 16);
  static_assert(std::is_same_v<decltype(IpGenAddr().addressLengthBytes()), int>);
}

/// Every value differs from the others and hashes alike only with itself.
template <typename T>
void expectDistinct(const std::vector<T>& values) {
  std::unordered_set<T> set(values.begin(), values.end());
  EXPECT_EQ(set.size(), values.size());
  std::set<std::uint32_t> hashes;
  for (const T& value : values) {
    const T copy = value;
    EXPECT_EQ(std::hash<T>()(copy), std::hash<T>()(value));
    hashes.insert(static_cast<std::uint32_t>(std::hash<T>()(value)));
  }
  // Of this many random 32-bit numbers hardly two are the same.
  EXPECT_GE(hashes.size() + 2, values.size());
}

TEST(AddressHashTest, NeighboursHashApart) {
  std::vector<IpAddr> fours;
  std::vector<Ip6Addr> sixes;
  std::vector<IpGenAddr> gens = {IpGenAddr()};
  std::vector<IpGenPrefix> prefixes = {IpGenPrefix()};
  for (unsigned int i = 0; i < 20000; ++i) {
    fours.emplace_back(i << 12);
    StorageBytes bytes{};
    storeField(&bytes[i % 4 * 4], i + 1);
    sixes.push_back(v6(bytes));
    if (i < 5000) {
      gens.emplace_back(fours.back());
      gens.emplace_back(sixes.back());
      prefixes.emplace_back(fours.back(), i % 33);
      prefixes.emplace_back(sixes.back(), i % 129);
    }
  }
  expectDistinct(fours);
  expectDistinct(sixes);
  expectDistinct(gens);
  expectDistinct(prefixes);
}

TEST(AddressHashTest, EveryFieldCounts) {
  const StorageBytes bytes = v4Storage(10, 0, 0, 0);
  const auto hashOf = [&](AddressFamily af, unsigned int len) {
    return std::hash<IpGenPrefix>()(IpGenPrefix(af, len, bytes.data()));
  };
  EXPECT_NE(hashOf(ipv4_, 8), hashOf(ipv4_, 9));
  EXPECT_NE(hashOf(ipv4_, 8), hashOf(ipv6_, 8));
  EXPECT_NE(hashOf(unknown_, 1), hashOf(unknown_, 0x80000001));
  EXPECT_NE(std::hash<IpGenAddr>()(IpGenAddr(ipv4_, bytes.data())),
            std::hash<IpGenAddr>()(IpGenAddr(ipv6_, bytes.data())));
}

// ---------------------------------------------------------------------------------------------
// Clearing host bits

TEST(ClearBitsTest, EveryLength) {
  StorageBytes ones;
  ones.fill(0xFF);
  StorageBytes pattern = {0xA5, 0x5A, 0x81, 0x18, 0x33, 0xCC, 0x0F, 0xF0,
                          0x99, 0x66, 0xC3, 0x3C, 0x12, 0x48, 0x21, 0x84};
  for (const StorageBytes& bytes : {ones, pattern}) {
    for (unsigned int lengthBytes : {4U, 16U}) {
      for (unsigned int len = 0; len <= 8 * lengthBytes; ++len) {
        Ip6Addr addr = v6(bytes);
        addr.clearLowerAddrBits(static_cast<unsigned short>(len),
                                static_cast<unsigned short>(lengthBytes));
        ASSERT_EQ(storageOf(addr), oracle::cleared(bytes, len, lengthBytes))
            << len << " of " << lengthBytes;
      }
    }
  }
}

TEST(ClearBitsTest, Examples) {
  StorageBytes ones;
  ones.fill(0xFF);
  Ip6Addr addr = v6(ones);
  addr.clearLowerAddrBits(128, 16);
  EXPECT_EQ(storageOf(addr), ones);
  addr.clearLowerAddrBits(0, 16);
  EXPECT_EQ(addr, Ip6Addr());

  IpGenAddr four = v4(10, 255, 255, 255);
  four.clearLowerAddrBits(20);
  EXPECT_EQ(four, IpGenAddr(v4(10, 255, 240, 0)));
  four = IpGenAddr(std::string("192.168.77.5"));
  four.clearLowerAddrBits(24);
  EXPECT_EQ(four, IpGenAddr(std::string("192.168.77.0")));
  IpGenAddr six(std::string("2001:db8:ffff::1"));
  six.clearLowerAddrBits(36);
  EXPECT_EQ(six, IpGenAddr(std::string("2001:db8:f000::")));
}

TEST(ClearBitsTest, TheFirstFourBytesOnly) {
  StorageBytes bytes;
  bytes.fill(0xFF);
  Ip6Addr addr = v6(bytes);
  addr.clearLowerAddrBits(0, 4);
  std::fill(bytes.begin(), bytes.begin() + 4, static_cast<unsigned char>(0));
  EXPECT_EQ(storageOf(addr), bytes);
}

/// Nothing outside the storage is touched, and nothing is cleared where no bit is asked for. A
/// sanitizer sees an access outside; here the neighbours show it.
TEST(ClearBitsTest, LengthsOutsideTheRange) {
  struct {
    unsigned char before[16];
    Ip6Addr addr;
    unsigned char after[16];
  } frame;
  StorageBytes ones;
  ones.fill(0xFF);
  std::fill(std::begin(frame.before), std::end(frame.before), static_cast<unsigned char>(0xEE));
  std::fill(std::begin(frame.after), std::end(frame.after), static_cast<unsigned char>(0xEE));
  for (unsigned int lengthBytes :
       {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 12U, 15U, 16U, 17U, 20U, 32U, 8191U, 8192U, 65535U}) {
    for (unsigned int len = 0; len <= 65535; len += len < 300 ? 1U : 997U) {
      frame.addr = v6(ones);
      frame.addr.clearLowerAddrBits(static_cast<unsigned short>(len),
                                    static_cast<unsigned short>(lengthBytes));
      ASSERT_EQ(storageOf(frame.addr), oracle::cleared(ones, len, std::min(lengthBytes, 16U)))
          << len << " of " << lengthBytes;
    }
  }
  for (const unsigned char byte : frame.before) EXPECT_EQ(byte, 0xEE);
  for (const unsigned char byte : frame.after) EXPECT_EQ(byte, 0xEE);
}

TEST(ClearBitsTest, NoFamilyHasNoBits) {
  const StorageBytes bytes = v4Storage(1, 2, 3, 4);
  IpGenAddr addr(unknown_, bytes.data());
  for (const unsigned int len : {0U, 1U, 8U, 65535U}) {
    addr.clearLowerAddrBits(static_cast<unsigned short>(len));
  }
  EXPECT_EQ(addr, IpGenAddr(unknown_, bytes.data()));
}

// ---------------------------------------------------------------------------------------------
// Impossible families

TEST(AddressDeathTest, LengthOfAnImpossibleFamily) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const StorageBytes bytes{};
  const std::string line = assertionLine("src/korvo_types.cpp",
                                         "int Korvo::IpGenAddr::addressLengthBytes() const", "0") +
                           "$";
  for (const unsigned int family : {3U, 0x80000000U, 0xFFFFFFFFU}) {
    IpGenAddr addr(static_cast<AddressFamily>(family), bytes.data());
    EXPECT_EXIT(addr.addressLengthBytes(), testing::KilledBySignal(SIGABRT), line);
    EXPECT_EXIT(addr.clearLowerAddrBits(0), testing::KilledBySignal(SIGABRT), line);
  }
}

}  // namespace
