#include <Korvo/socketAddress.h>

#include <netinet/in.h>

#include <cstring>
#include <string>

namespace Korvo {
namespace {

[[noreturn]] void throwInvalid(const std::string& reason) {
  throw KoInvalidArgument("Invalid Socket Address - (" + reason + ")");
}

template <typename Address>
Address addressAt(const void* from, socklen_t length) {
  if (length < sizeof(Address)) {
    throwInvalid(std::to_string(length) + " bytes, its family has " +
                 std::to_string(sizeof(Address)));
  }
  return loadField<Address>(from);
}

struct Endpoint {
  IpGenAddr addr;
  std::uint16_t port;
};

Endpoint endpointAt(const void* from, socklen_t length) {
  sa_family_t family = AF_UNSPEC;
  static_assert(offsetof(sockaddr, sa_family) == 0);
  if (length >= sizeof family) family = loadField<sa_family_t>(from);
  if (family == AF_INET) {
    const auto v4 = addressAt<sockaddr_in>(from, length);
    return {IpAddr(v4.sin_addr.s_addr), ntohs(v4.sin_port)};
  }
  if (family == AF_INET6) {
    const auto v6 = addressAt<sockaddr_in6>(from, length);
    return {Ip6Addr(v6.sin6_addr.s6_addr), ntohs(v6.sin6_port)};
  }
  throwInvalid("family " + std::to_string(family));
}

template <typename Address>
socklen_t store(const Address& address, sockaddr_storage& to) {
  to = {};
  std::memcpy(&to, &address, sizeof address);
  return sizeof address;
}

}  // namespace

IpGenAddr addressFromSockaddr(const void* from, socklen_t length) {
  return endpointAt(from, length).addr;
}

std::uint16_t portFromSockaddr(const void* from, socklen_t length) {
  return endpointAt(from, length).port;
}

socklen_t addressToSockaddr(const IpGenAddr& addr, std::uint16_t port, sockaddr_storage& to) {
  switch (addr.af()) {
    case ipv4_: {
      sockaddr_in v4 = {};
      v4.sin_family = AF_INET;
      v4.sin_port = htons(port);
      std::memcpy(&v4.sin_addr, addr.bytes(), sizeof v4.sin_addr);
      return store(v4, to);
    }
    case ipv6_: {
      sockaddr_in6 v6 = {};
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons(port);
      std::memcpy(&v6.sin6_addr, addr.bytes(), sizeof v6.sin6_addr);
      return store(v6, to);
    }
    default:
      throwInvalid("no family");
  }
}

}  // namespace Korvo
