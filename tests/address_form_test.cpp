// Addresses and prefixes in the forms of others: text, the short form of IPv6, netmasks, sockets.

#include <Korvo/socketAddress.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>

namespace {

using namespace Korvo;

template <typename T>
std::string printed(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

template <typename Function>
std::string messageOf(Function function) {
  try {
    function();
  } catch (const KoBaseException& e) {
    return std::string(e.name()) + ": " + e.what();
  }
  return "no exception";
}

TEST(AddressText, IsWhatIsPrinted) {
  EXPECT_EQ(IpAddr("10.1.0.9").toString(), "10.1.0.9");
  EXPECT_EQ(Ip6Addr("2001:DB8::1").toString(), "2001:0db8:0000:0000:0000:0000:0000:0001");
  for (const char* text : {"10.1.2.3", "::", "fe80::1:2"}) {
    EXPECT_EQ(IpGenAddr(text).toString(), printed(IpGenAddr(text)));
  }
  EXPECT_EQ(IpGenAddr().toString(), printed(IpGenAddr()));
  EXPECT_EQ(IpGenPrefix("10.0.0.0/8").toString(), "10.0.0.0/8");
  EXPECT_EQ(IpGenPrefix("2001:db8::/32").toString(), printed(IpGenPrefix("2001:db8::/32")));
  EXPECT_EQ(IpGenPrefix().toString(), printed(IpGenPrefix()));
}

// The examples and rules of RFC 5952, sections 4 and 2.
TEST(ShortAddressText, FollowsTheRfc) {
  const char* const cases[][2] = {
      {"2001:0db8::0001", "2001:db8::1"},
      {"2001:db8:0:0:0:0:2:1", "2001:db8::2:1"},
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // a single zero group stays
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longest run
      {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // the first of the longest
      {"2001:DB8::AABB", "2001:db8::aabb"},              // lower case
      {"0:0:0:0:0:0:0:0", "::"},
      {"0:0:0:0:0:0:0:1", "::1"},
      {"1:0:0:0:0:0:0:0", "1::"},
      {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
      {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
      {"0:2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6:7:0", "1:2:3:4:5:6:7:0"},
      {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(Ip6Addr(text).toShortString(), expected);
    EXPECT_EQ(IpGenAddr(text).toShortString(), expected);
  }
  EXPECT_EQ(Ip6Addr("::ffff:102:304").toShortString(), "::ffff:102:304");  // reads back
  EXPECT_EQ(IpGenAddr("10.1.2.3").toShortString(), "10.1.2.3");
  EXPECT_EQ(IpGenAddr().toShortString(), "<unsupported address family>");
  EXPECT_EQ(IpGenPrefix("2001:db8::/32").toShortString(), "2001:db8::/32");
  EXPECT_EQ(IpGenPrefix("10.0.0.0/8").toShortString(), "10.0.0.0/8");
}

// As the C library has it where no part is in IPv4 form, and back to the same address.
TEST(ShortAddressText, IsThatOfTheSystemAndReadsBack) {
  std::mt19937 random(3);
  for (int i = 0; i < 20000; ++i) {
    unsigned char bytes[16] = {};
    for (unsigned int group = 0; group < 8; ++group) {
      if (random() % 2 == 0) continue;
      bytes[2 * group] = static_cast<unsigned char>(random() % 2 == 0 ? 0 : random());
      bytes[2 * group + 1] = static_cast<unsigned char>(random());
    }
    const std::string text = Ip6Addr(bytes).toShortString();
    EXPECT_EQ(Ip6Addr(text), Ip6Addr(bytes)) << text;
    char system[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, bytes, system, sizeof system), nullptr);
    if (std::strchr(system, '.') == nullptr) {
      EXPECT_EQ(text, system);
    }
  }
}

TEST(Network, IsThePrefixWithoutHostBits) {
  const IpGenPrefix prefix(IpAddr("10.1.2.3"), 16);
  EXPECT_EQ(prefix.network(), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(prefix.addr(), IpGenAddr("10.1.2.3"));  // stays
  EXPECT_EQ(IpGenPrefix(IpAddr("10.1.2.3"), 0).network(), IpGenPrefix("0.0.0.0/0"));
  EXPECT_EQ(IpGenPrefix(Ip6Addr("2001:db8:1::9"), 32).network(), IpGenPrefix("2001:db8::/32"));
  EXPECT_EQ(IpGenPrefix().network(), IpGenPrefix());
}

TEST(Netmask, OfEveryLengthGivesTheLengthBack) {
  for (unsigned int len = 0; len <= 32; ++len) {
    EXPECT_EQ(netmaskToLength(lengthToNetmask(ipv4_, len)), len);
    EXPECT_EQ(IpGenPrefix(IpAddr("10.0.0.0"), len).netmask(), lengthToNetmask(ipv4_, len));
  }
  for (unsigned int len = 0; len <= 128; ++len) {
    EXPECT_EQ(netmaskToLength(lengthToNetmask(ipv6_, len)), len);
  }
  EXPECT_EQ(lengthToNetmask(ipv4_, 16), IpGenAddr("255.255.0.0"));
  EXPECT_EQ(lengthToNetmask(ipv4_, 0), IpGenAddr("0.0.0.0"));
  EXPECT_EQ(lengthToNetmask(ipv4_, 20), IpGenAddr("255.255.240.0"));
  EXPECT_EQ(lengthToNetmask(ipv6_, 33), IpGenAddr("ffff:ffff:8000::"));
  EXPECT_EQ(lengthToNetmask(unknown_, 8), IpGenAddr());
  EXPECT_EQ(IpGenPrefix().netmask(), IpGenAddr());
  EXPECT_EQ(netmaskToLength(IpAddr("255.255.255.255")), 32U);
}

TEST(Netmask, RefusesWhatIsNone) {
  EXPECT_EQ(messageOf([] { netmaskToLength(IpAddr("255.0.255.0")); }),
            "Korvo::KoInvalidArgument: Invalid Netmask - (255.0.255.0)");
  EXPECT_EQ(messageOf([] { netmaskToLength(IpAddr("0.0.0.255")); }),
            "Korvo::KoInvalidArgument: Invalid Netmask - (0.0.0.255)");
  EXPECT_EQ(messageOf([] { netmaskToLength(IpGenAddr()); }),
            "Korvo::KoInvalidArgument: Invalid Netmask - (<unsupported address family>)");
  EXPECT_EQ(messageOf([] { lengthToNetmask(ipv4_, 33); }),
            "Korvo::OutOfRange: Invalid IPv4 Prefix Length");
  EXPECT_EQ(messageOf([] { lengthToNetmask(ipv6_, 129); }),
            "Korvo::OutOfRange: Invalid IPv6 Prefix Length");
}

TEST(SocketAddress, GoesThereAndBack) {
  for (const char* text : {"10.1.2.3", "0.0.0.0", "2001:db8::1", "::"}) {
    const IpGenAddr addr(text);
    sockaddr_storage storage;
    std::memset(&storage, 0xFF, sizeof storage);
    const socklen_t length = addressToSockaddr(addr, 8080, storage);
    EXPECT_EQ(length, addr.af() == ipv4_ ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    EXPECT_EQ(addressFromSockaddr(&storage, length), addr);
    EXPECT_EQ(portFromSockaddr(&storage, length), 8080);
  }
}

TEST(SocketAddress, IsTheSystems) {
  sockaddr_in v4 = {};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(443);
  ASSERT_EQ(inet_pton(AF_INET, "10.1.2.3", &v4.sin_addr), 1);
  EXPECT_EQ(addressFromSockaddr(&v4, sizeof v4), IpGenAddr("10.1.2.3"));
  EXPECT_EQ(portFromSockaddr(&v4, sizeof v4), 443);
  sockaddr_storage storage;
  addressToSockaddr(IpGenAddr("10.1.2.3"), 443, storage);
  EXPECT_EQ(std::memcmp(&storage, &v4, sizeof v4), 0);

  sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(443);
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::1", &v6.sin6_addr), 1);
  EXPECT_EQ(addressFromSockaddr(&v6, sizeof v6), IpGenAddr("2001:db8::1"));
  addressToSockaddr(IpGenAddr("2001:db8::1"), 443, storage);
  EXPECT_EQ(std::memcmp(&storage, &v6, sizeof v6), 0);
  v6.sin6_scope_id = 3;
  EXPECT_EQ(addressFromSockaddr(&v6, sizeof v6), IpGenAddr("2001:db8::1"));
}

TEST(SocketAddress, RefusesWhatIsNoAddress) {
  sockaddr_storage storage = {};
  storage.ss_family = AF_UNIX;
  EXPECT_EQ(messageOf([&] { addressFromSockaddr(&storage, sizeof storage); }),
            "Korvo::KoInvalidArgument: Invalid Socket Address - (family 1)");
  storage.ss_family = AF_INET;
  EXPECT_EQ(messageOf([&] { portFromSockaddr(&storage, 15); }),
            "Korvo::KoInvalidArgument: Invalid Socket Address - (15 bytes, its family has 16)");
  storage.ss_family = AF_INET6;
  EXPECT_EQ(messageOf([&] { addressFromSockaddr(&storage, 27); }),
            "Korvo::KoInvalidArgument: Invalid Socket Address - (27 bytes, its family has 28)");
  EXPECT_EQ(messageOf([&] { addressFromSockaddr(nullptr, 0); }),
            "Korvo::KoInvalidArgument: Invalid Socket Address - (family 0)");
  const sockaddr_storage before = storage;
  EXPECT_EQ(messageOf([&] { addressToSockaddr(IpGenAddr(), 1, storage); }),
            "Korvo::KoInvalidArgument: Invalid Socket Address - (no family)");
  EXPECT_EQ(std::memcmp(&before, &storage, sizeof storage), 0);
}

}  // namespace
