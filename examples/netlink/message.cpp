#include "message.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <iomanip>
#include <sstream>
#include <vector>

namespace netlink {

namespace {

using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

/// The attributes behind a message's own header, by their types.
class Attributes {
 public:
  Attributes(const nlmsghdr& message, std::size_t headerSize)
      : Attributes(static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, headerSize)),
                   static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message))) {}
  Attributes(const nlattr* first, const void* end) {
    for (const nlattr* each = first;
         mnl_attr_ok(each, static_cast<int>(static_cast<const char*>(end) -
                                            reinterpret_cast<const char*>(each)));
         each = mnl_attr_next(each)) {
      const std::size_t type = mnl_attr_get_type(each);
      if (type < found_.size()) found_[type] = each;
    }
  }

  std::uint32_t number(std::size_t type) const {
    const nlattr* const attribute = found_[type];
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) != 4) return 0;
    return mnl_attr_get_u32(attribute);
  }
  std::string text(std::size_t type) const {
    const std::string bytes = payload(type);
    return bytes.substr(0, bytes.find('\0'));
  }
  /// "02:00:00:00:00:01"
  std::string mac(std::size_t type) const {
    std::ostringstream os;
    os << std::hex << std::setfill('0');
    for (const char each : payload(type)) {
      if (os.tellp() > 0) os << ':';
      os << std::setw(2) << static_cast<unsigned int>(static_cast<unsigned char>(each));
    }
    return os.str();
  }
  /// A null address where there is none.
  IpGenAddr address(int family, std::size_t type) const {
    const std::string bytes = payload(type);
    const bool isIpv4 = family == AF_INET;
    if ((!isIpv4 && family != AF_INET6) || bytes.size() != (isIpv4 ? 4 : 16)) return {};
    return {isIpv4 ? Korvo::ipv4_ : Korvo::ipv6_,
            reinterpret_cast<const unsigned char*>(bytes.data())};
  }
  const nlattr* operator[](std::size_t type) const { return found_[type]; }

 private:
  std::string payload(std::size_t type) const {
    const nlattr* const attribute = found_[type];
    if (attribute == nullptr) return {};
    return {static_cast<const char*>(mnl_attr_get_payload(attribute)),
            mnl_attr_get_payload_len(attribute)};
  }

  std::array<const nlattr*, 64> found_{};
};

/// The message's own header, if the message is long enough and of one of these types.
template <typename Header>
const Header* headerOf(const nlmsghdr& message, int newType, int delType) {
  if (message.nlmsg_type != newType && message.nlmsg_type != delType) return nullptr;
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(Header)) return nullptr;
  return static_cast<const Header*>(mnl_nlmsg_get_payload(&message));
}

/// The values, one behind the other.
template <typename... Values>
std::string keyOf(const Values&... values) {
  std::ostringstream os;
  ((os << values << ' '), ...);
  return os.str();
}

std::string stateName(unsigned int state) {
  const std::pair<unsigned int, const char*> names[] = {
      {NUD_INCOMPLETE, "incomplete"}, {NUD_REACHABLE, "reachable"}, {NUD_STALE, "stale"},
      {NUD_DELAY, "delay"},           {NUD_PROBE, "probe"},         {NUD_FAILED, "failed"},
      {NUD_NOARP, "noarp"},           {NUD_PERMANENT, "permanent"}};
  for (const auto& [bit, name] : names) {
    if ((state & bit) != 0) return name;
  }
  return "none";
}

}  // namespace

std::optional<Told<Interface>> interfaceOf(const nlmsghdr& message) {
  const auto* const header = headerOf<ifinfomsg>(message, RTM_NEWLINK, RTM_DELLINK);
  // A bridge tells its ports once more, as its own family.
  if (header == nullptr || header->ifi_family != AF_UNSPEC) return std::nullopt;
  const Attributes attributes(message, sizeof *header);
  Told<Interface> told;
  told.key = keyOf(header->ifi_index);
  told.row.create(static_cast<Korvo::oid_t>(header->ifi_index));
  told.row.set<"name">(attributes.text(IFLA_IFNAME));
  told.row.set<"mac">(attributes.mac(IFLA_ADDRESS));
  told.row.set<"mtu">(attributes.number(IFLA_MTU));
  told.row.set<"up">((header->ifi_flags & IFF_UP) != 0);
  told.row.set<"carrier">((header->ifi_flags & IFF_LOWER_UP) != 0);
  return told;
}

std::optional<Told<Address>> addressOf(const nlmsghdr& message) {
  const auto* const header = headerOf<ifaddrmsg>(message, RTM_NEWADDR, RTM_DELADDR);
  if (header == nullptr) return std::nullopt;
  const Attributes attributes(message, sizeof *header);
  // Of a link between two hosts the one is the other end's, of all others both are ours.
  const IpGenAddr peer = attributes.address(header->ifa_family, IFA_ADDRESS);
  const IpGenAddr local = attributes.address(header->ifa_family, IFA_LOCAL);
  if (peer.af() == Korvo::unknown_) return std::nullopt;
  const IpGenAddr& address = local.af() != Korvo::unknown_ ? local : peer;
  Told<Address> told;
  told.key = keyOf(header->ifa_index, address, peer, int{header->ifa_prefixlen});
  told.row.create(0);
  told.row.set<"interface">(header->ifa_index);
  told.row.set<"address">(address);
  told.row.set<"net">(IpGenPrefix(peer, header->ifa_prefixlen).network());
  told.row.set<"scope">(header->ifa_scope);
  return told;
}

std::optional<Told<Route>> routeOf(const nlmsghdr& message) {
  const auto* const header = headerOf<rtmsg>(message, RTM_NEWROUTE, RTM_DELROUTE);
  if (header == nullptr || (header->rtm_flags & RTM_F_CLONED) != 0) return std::nullopt;
  const int family = header->rtm_family;
  if (family != AF_INET && family != AF_INET6) return std::nullopt;
  const Attributes attributes(message, sizeof *header);
  IpGenAddr net = attributes.address(family, RTA_DST);  // none for the default route
  if (net.af() == Korvo::unknown_) net = IpGenAddr(family == AF_INET ? "0.0.0.0" : "::");
  const std::uint32_t table =
      attributes[RTA_TABLE] != nullptr ? attributes.number(RTA_TABLE) : header->rtm_table;

  std::vector<IpGenAddr> gateways;
  Korvo::oid_t interface = attributes.number(RTA_OIF);
  const IpGenAddr gateway = attributes.address(family, RTA_GATEWAY);
  if (gateway.af() != Korvo::unknown_) gateways.push_back(gateway);
  if (const nlattr* const ways = attributes[RTA_MULTIPATH]) {
    const auto* at = static_cast<const char*>(mnl_attr_get_payload(ways));
    std::size_t left = mnl_attr_get_payload_len(ways);
    while (left >= sizeof(rtnexthop)) {
      const auto* const way = reinterpret_cast<const rtnexthop*>(at);
      if (way->rtnh_len < sizeof *way || way->rtnh_len > left) break;
      const Attributes inner(reinterpret_cast<const nlattr*>(at + sizeof *way), at + way->rtnh_len);
      const IpGenAddr one = inner.address(family, RTA_GATEWAY);
      if (one.af() != Korvo::unknown_) gateways.push_back(one);
      if (interface == 0) interface = static_cast<Korvo::oid_t>(way->rtnh_ifindex);
      const std::size_t step = MNL_ALIGN(way->rtnh_len);
      if (step >= left) break;
      at += step;
      left -= step;
    }
  }

  Told<Route> told;
  // IPv6 has several routes of one metric as routes of their own.
  const std::uint32_t metric = attributes.number(RTA_PRIORITY);
  told.key = keyOf(net, int{header->rtm_dst_len}, table, metric, int{header->rtm_tos},
                   int{header->rtm_type});
  for (const IpGenAddr& each : gateways) told.key += keyOf(each);
  told.key += keyOf(interface);
  told.row.create(0);
  told.row.set<"net">(IpGenPrefix(net, header->rtm_dst_len));
  told.row.set<"gateways">(gateways);
  told.row.set<"interface">(interface);
  told.row.set<"table">(table);
  told.row.set<"metric">(metric);
  told.row.set<"protocol">(header->rtm_protocol);
  told.row.set<"type">(header->rtm_type);
  return told;
}

std::optional<Told<Neighbour>> neighbourOf(const nlmsghdr& message) {
  const auto* const header = headerOf<ndmsg>(message, RTM_NEWNEIGH, RTM_DELNEIGH);
  if (header == nullptr) return std::nullopt;
  const Attributes attributes(message, sizeof *header);
  const IpGenAddr address = attributes.address(header->ndm_family, NDA_DST);
  if (address.af() == Korvo::unknown_) return std::nullopt;
  Told<Neighbour> told;
  told.key = keyOf(header->ndm_ifindex, address);
  told.row.create(0);
  told.row.set<"interface">(static_cast<Korvo::oid_t>(header->ndm_ifindex));
  told.row.set<"address">(address);
  told.row.set<"mac">(attributes.mac(NDA_LLADDR));
  told.row.set<"state">(stateName(header->ndm_state));
  return told;
}

}  // namespace netlink
