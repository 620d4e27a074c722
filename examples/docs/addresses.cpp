// What the guide shows of addresses and prefixes.

#include <Korvo/korvo_types.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <vector>

using Korvo::IpAddr;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

namespace {

void parse() {
  const IpGenAddr v4("10.1.2.3");
  const IpGenAddr v6("2001:db8::1");
  std::cout << v4 << ' ' << v6 << '\n';
  try {
    const IpGenAddr mixed("::ffff:1.2.3.4");  // a dot anywhere: read as IPv4
  } catch (const Korvo::KoInvalidArgument& e) {
    std::cout << e.what() << '\n';
  }
  std::cout << v6.toShortString() << ' ' << IpGenPrefix("10.1.0.0/16").netmask() << ' '
            << Korvo::netmaskToLength(IpAddr("255.255.240.0")) << '\n';
}

void prefixes() {
  const IpGenPrefix net("10.0.0.0/8");
  std::cout << net.contains(IpGenPrefix("10.1.0.0/16")) << '\n';

  IpGenPrefix host(IpAddr("10.1.2.3"), 16);  // keeps the host bits
  std::cout << host << ' ';
  host.clearLowerAddrBits();
  std::cout << host << '\n';

  try {
    const IpGenPrefix refused("10.1.2.3/16");  // the text form does not
  } catch (const Korvo::KoOutOfRange& e) {
    std::cout << e.what() << '\n';
  }
}

void prefixOrder() {
  std::vector<IpGenPrefix> nets = {IpGenPrefix("0.0.0.0/0"), IpGenPrefix("10.1.0.0/16"),
                                   IpGenPrefix("10.0.0.0/8")};
  std::sort(nets.begin(), nets.end());
  for (const IpGenPrefix& net : nets) std::cout << net << '\n';
}

void streams() {
  std::ostringstream out;
  out << Korvo::Ip6Addr("::1") << ' ' << std::setw(4) << 7;
  std::cout << out.str() << '\n';
}

}  // namespace

int main() {
  parse();
  prefixes();
  prefixOrder();
  streams();
}
