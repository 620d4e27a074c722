// Ranges, the prefixes that cover them, and the lines they are read from.

#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <random>

#include "addressRange.h"
#include "rangeFile.h"

namespace {

using namespace netdb;
using Korvo::byte_t;
using Korvo::IpAddr;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

AddressRange range(const std::string& first, const std::string& last) {
  return {IpGenAddr(first), IpGenAddr(last)};
}

std::vector<IpGenPrefix> prefixes(std::initializer_list<const char*> texts) {
  return {texts.begin(), texts.end()};
}

IpGenAddr v4(std::uint32_t number) {
  return IpAddr(__builtin_bswap32(number));
}
std::uint32_t number(const IpGenAddr& addr) {
  return __builtin_bswap32(Korvo::loadField<std::uint32_t>(addr.bytes()));
}

TEST(CoveringPrefixes, AreTheFewest) {
  EXPECT_EQ(coveringPrefixes(range("10.0.0.0", "10.255.255.255")), prefixes({"10.0.0.0/8"}));
  EXPECT_EQ(coveringPrefixes(range("1.2.3.4", "1.2.3.4")), prefixes({"1.2.3.4/32"}));
  EXPECT_EQ(coveringPrefixes(range("0.0.0.0", "255.255.255.255")), prefixes({"0.0.0.0/0"}));
  EXPECT_EQ(coveringPrefixes(range("10.0.0.1", "10.0.0.6")),
            prefixes({"10.0.0.1/32", "10.0.0.2/31", "10.0.0.4/31", "10.0.0.6/32"}));
  EXPECT_EQ(coveringPrefixes(range("255.255.255.254", "255.255.255.255")),
            prefixes({"255.255.255.254/31"}));
  EXPECT_EQ(coveringPrefixes(range("::", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff")),
            prefixes({"::/0"}));
  EXPECT_EQ(coveringPrefixes(range("2001:db8::", "2001:db9::")),
            prefixes({"2001:db8::/32", "2001:db9::/128"}));
}

TEST(CoveringPrefixes, OfRandomRangesFollowOneAnotherAndCannotBeMerged) {
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::uint32_t first = static_cast<std::uint32_t>(random()) >> random() % 32;
    std::uint32_t last = static_cast<std::uint32_t>(random()) >> random() % 32;
    if (last < first) std::swap(first, last);
    const std::vector<IpGenPrefix> found = coveringPrefixes({v4(first), v4(last)});
    std::uint64_t next = first;
    for (std::size_t i = 0; i < found.size(); ++i) {
      ASSERT_TRUE(Korvo::validPrefix(found[i].addr(), static_cast<int>(found[i].mask())));
      ASSERT_EQ(number(found[i].addr()), next);
      next += addressCount(found[i]);
      ASSERT_EQ(number(lastAddress(found[i])), next - 1);
      if (i == 0) continue;
      // Two neighbours of one length that share their parent would have been one prefix.
      IpGenPrefix parent = found[i];
      if (found[i].mask() != found[i - 1].mask() || found[i].mask() == 0) continue;
      parent = IpGenPrefix(found[i].addr(), found[i].mask() - 1);
      ASSERT_FALSE(parent.contains(found[i - 1]));
    }
    ASSERT_EQ(next, std::uint64_t{last} + 1);
  }
}

/// How many blocks of a tree of `size` leaves cover [first, last] and nothing else.
int fewestBlocks(int first, int last, int begin, int size) {
  if (last < begin || first > begin + size - 1) return 0;
  if (first <= begin && begin + size - 1 <= last) return 1;
  return fewestBlocks(first, last, begin, size / 2) +
         fewestBlocks(first, last, begin + size / 2, size / 2);
}

TEST(CoveringPrefixes, OfAllRangesInASmallBlockAreTheFewest) {
  const auto leaf = [](bool ipv6, int number) {
    byte_t bytes[16] = {0x20, 0x01};
    bytes[ipv6 ? 15 : 3] = static_cast<byte_t>(number);
    return IpGenAddr(ipv6 ? Korvo::ipv6_ : Korvo::ipv4_, bytes);
  };
  for (const bool ipv6 : {false, true}) {
    for (int first = 0; first < 64; ++first) {
      for (int last = first; last < 64; ++last) {
        const AddressRange range{leaf(ipv6, first), leaf(ipv6, last)};
        const std::vector<IpGenPrefix> found = coveringPrefixes(range);
        ASSERT_EQ(static_cast<int>(found.size()), fewestBlocks(first, last, 0, 64));
        for (int number = 0; number < 64; ++number) {
          int holders = 0;
          for (const IpGenPrefix& prefix : found) {
            const IpGenAddr addr = leaf(ipv6, number);
            holders += prefix.addr() <= addr && addr <= lastAddress(prefix);
          }
          ASSERT_EQ(holders, first <= number && number <= last ? 1 : 0);
        }
      }
    }
  }
}

TEST(AddressCount, Saturates) {
  EXPECT_EQ(addressCount(IpGenPrefix("0.0.0.0/0")), std::uint64_t{1} << 32);
  EXPECT_EQ(addressCount(IpGenPrefix("1.2.3.4/32")), 1U);
  EXPECT_EQ(addressCount(IpGenPrefix("2001:db8::/65")), std::uint64_t{1} << 63);
  EXPECT_EQ(addressCount(IpGenPrefix("2001:db8::/64")), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(addressCount(IpGenPrefix("::/0")), std::numeric_limits<std::uint64_t>::max());
}

TEST(SpecialPurpose, IsToldForPrefixesInsideTheBlocks) {
  EXPECT_EQ(specialPurpose(IpGenPrefix("10.1.0.0/16")), "private");
  EXPECT_EQ(specialPurpose(IpGenPrefix("192.168.0.0/16")), "private");
  EXPECT_EQ(specialPurpose(IpGenPrefix("192.168.0.0/15")), "");
  EXPECT_EQ(specialPurpose(IpGenPrefix("8.0.0.0/8")), "");
  EXPECT_EQ(specialPurpose(IpGenPrefix("2001:db8:1::/48")), "documentation");
}

TEST(RangeLine, IsReadInBothForms) {
  const RangeLine four = parseRangeLine("16777216,16777471,AU");
  EXPECT_EQ(four.range.first, IpGenAddr("1.0.0.0"));
  EXPECT_EQ(four.range.last, IpGenAddr("1.0.0.255"));
  EXPECT_EQ(four.country, "AU");
  const RangeLine six = parseRangeLine("2001:2::,2001:2:0:ffff:ffff:ffff:ffff:ffff,JP");
  EXPECT_EQ(six.range.first, IpGenAddr("2001:2::"));
  EXPECT_EQ(six.range.last, IpGenAddr("2001:2:0:ffff:ffff:ffff:ffff:ffff"));
  EXPECT_EQ(parseRangeLine("0,4294967295,??").country, "??");
}

TEST(RangeLine, TellsWhyItIsMalformed) {
  struct Case {
    const char* text;
    const char* reason;
  };
  const Case cases[] = {
      {"1,2", "not three fields"},
      {"1,2,AU,", "not three fields"},
      {"", "not three fields"},
      {",2,AU", "an address is missing"},
      {"1,,AU", "an address is missing"},
      {"4294967296,4294967297,AU", "no IPv4 address: 4294967296"},
      {"1.2.3.4,1.2.3.5,AU", "no IPv6 address: 1.2.3.4"},
      {"-1,2,AU", "no IPv6 address: -1"},
      {"g::,g::1,AU", "no IPv6 address: g::"},
      {"1::2::3,1::,AU", "no IPv6 address: 1::2::3"},
      {"12345::,::,AU", "no IPv6 address: 12345::"},
      {"1,::1,AU", "addresses of two families"},
      {"2,1,AU", "the last address is before the first"},
      {"::2,::1,AU", "the last address is before the first"},
      {"1,2,", "no country code: "},
      {"1,2,au", "no country code: au"},
      {"1,2,AUS", "no country code: AUS"},
      {"1,2,A?", "no country code: A?"},
      {"1,2,A\x1b[2J\xff", "no country code: A\\x1b[2J\\xff"},
      {"1,2,AU ", "no country code: AU "},
      {" 1,2,AU", "no IPv6 address:  1"},
      {"::g,::,AU", "no IPv6 address: ::g"},
  };
  for (const Case& c : cases) {
    try {
      parseRangeLine(c.text);
      ADD_FAILURE() << c.text;
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), c.reason) << c.text;
    }
  }
}

TEST(RangeLine, CutsWhatIsVeryLong) {
  try {
    parseRangeLine("1,2," + std::string(100000, 'x'));
    ADD_FAILURE();
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(e.what(), "no country code: " + std::string(60, 'x') + "...");
  }
}

TEST(RangeFile, SkipsCommentsAndReportsBadLines) {
  const std::string path = testing::TempDir() + "netdb_ranges";
  std::ofstream(path) << "# a comment\n1,2,AU\r\n\nnonsense\n3,4,DE";
  std::vector<std::string> complaints;
  RangeFile file(path, [&](std::uint32_t line, const std::string& reason) {
    complaints.push_back(std::to_string(line) + ": " + reason);
  });
  EXPECT_EQ(file.name(), "netdb_ranges");
  RangeLine line;
  ASSERT_TRUE(file.next(line));
  EXPECT_EQ(line.line, 2U);
  EXPECT_EQ(line.country, "AU");
  ASSERT_TRUE(file.next(line));
  EXPECT_EQ(line.line, 5U);
  EXPECT_FALSE(file.next(line));
  EXPECT_EQ(complaints, std::vector<std::string>{"4: not three fields"});
  std::remove(path.c_str());
}

TEST(RangeFile, RefusesWhatIsNoFile) {
  const auto ignore = [](std::uint32_t, const std::string&) {};
  EXPECT_THROW(RangeFile("/nowhere/at/all", ignore), InputError);
  EXPECT_THROW(RangeFile("/", ignore), InputError);
}

}  // namespace
