#include "agent.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <iostream>
#include <system_error>
#include <utility>

namespace netlink {

namespace {

/// As much as the kernel puts into one message of a dump.
constexpr std::size_t bufferSize = 65536;
/// Others on the loop have their turn after so many reads.
constexpr int readsATurn = 16;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

void Agent::Close::operator()(mnl_socket* socket) const {
  mnl_socket_close(socket);
}

Agent::Agent(const std::shared_ptr<Korvo::EventLoop>& loop, const std::string& address,
             int receiveBuffer)
    : publisher_("netlink", loop),
      socket_(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK)),
      watch_(loop->getFdControl(this)),
      buffer_(bufferSize) {
  if (socket_ == nullptr) fail("netlink socket");
  const int fd = mnl_socket_get_fd(socket_.get());
  if (receiveBuffer > 0 &&
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer) != 0) {
    fail("receive buffer");
  }
  // What happens from here on is told, then what there is: nothing falls between the two.
  constexpr unsigned int groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                                  RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_NEIGH;
  if (mnl_socket_bind(socket_.get(), groups, MNL_SOCKET_AUTOPID) < 0) fail("bind netlink socket");
  watch_->fdIs(fd);
  watch_->readableWantedIs(true);

  publisher_.completeIs(false);
  forAll([this](auto& kept) { publisher_.add(kept.table); });
  publisher_.listen(address);
  wanted_.set();
  askNext();
}

void Agent::onReadable() {
  for (int i = 0; i < readsATurn && readMore(); ++i) {
  }
  batch_.commit();
  if (!dump_ && wanted_.none()) publisher_.completeIs(true);
}

bool Agent::readMore() {
  const ssize_t count = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
  if (count < 0) {
    if (errno == EAGAIN || errno == EINTR) return false;
    if (errno != ENOBUFS) fail("read from the kernel");
    overflowed();
    return true;
  }
  int left = static_cast<int>(count);
  const auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data());
  for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) take(*message);
  return true;
}

void Agent::take(const nlmsghdr& message) {
  const bool isOfDump = dump_ && message.nlmsg_seq == dumpNumber_;
  if (isOfDump && (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0) isDumpSpoilt_ = true;
  switch (message.nlmsg_type) {
    case NLMSG_DONE:
      if (isOfDump) dumpEnded();
      return;
    case NLMSG_ERROR: {
      const auto* const error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
      errno = -error->error;
      if (errno != 0) fail("the kernel's answer");
      return;
    }
    case RTM_NEWLINK:
    case RTM_DELLINK:
      take(interfaces_, interfaceOf(message), message.nlmsg_type == RTM_NEWLINK);
      break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      take(addresses_, addressOf(message), message.nlmsg_type == RTM_NEWADDR);
      break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      take(routes_, routeOf(message), message.nlmsg_type == RTM_NEWROUTE);
      break;
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      take(neighbours_, neighbourOf(message), message.nlmsg_type == RTM_NEWNEIGH);
      break;
    default:
      return;
  }
  // The kernel does not tell which IPv4 routes go with an interface or an address, nor which route
  // another one takes the place of.
  const bool mayTakeRoutes =
      message.nlmsg_type == RTM_NEWLINK || message.nlmsg_type == RTM_DELLINK ||
      message.nlmsg_type == RTM_DELADDR ||
      (message.nlmsg_type == RTM_NEWROUTE && (message.nlmsg_flags & NLM_F_REPLACE) != 0);
  if (!isOfDump && mayTakeRoutes) {
    wanted_.set(routes);
    askNext();
  }
}

template <typename Row>
void Agent::take(Kept<Row>& kept, std::optional<Told<Row>> told, bool isNew) {
  if (!told) return;
  if (!isNew) {
    const auto found = kept.oids.find(told->key);
    if (found == kept.oids.end()) return;
    batch_.remove(kept.table, found->second);
    kept.oids.erase(found);
    return;
  }
  kept.seen.insert(told->key);
  Korvo::oid_t& oid = kept.oids.try_emplace(told->key, told->row.rowOid()).first->second;
  while (oid == 0) {
    if (!kept.table.contains(++kept.last)) oid = kept.last;
  }
  told->row.rowOidIs(oid);
  batch_.put(kept.table, told->row);
}

void Agent::dumpEnded() {
  const Dump ended = *std::exchange(dump_, std::nullopt);
  if (isDumpSpoilt_) {
    wanted_.set(ended);
  } else {
    std::size_t number = 0;
    forAll([&](auto& kept) {
      if (number++ == ended) removeUnseen(kept);
    });
  }
  askNext();
}

template <typename Row>
void Agent::removeUnseen(Kept<Row>& kept) {
  std::erase_if(kept.oids, [&](const auto& each) {
    if (kept.seen.contains(each.first)) return false;
    batch_.remove(kept.table, each.second);
    return true;
  });
}

void Agent::askNext() {
  if (dump_ || wanted_.none()) return;  // the kernel answers one after the other
  std::size_t next = 0;
  while (!wanted_.test(next)) ++next;
  wanted_.reset(next);
  dump_ = static_cast<Dump>(next);
  isDumpSpoilt_ = false;
  forAll([](auto& kept) { kept.seen.clear(); });

  alignas(nlmsghdr) char request[NLMSG_SPACE(sizeof(rtmsg))] = {};
  nlmsghdr* const header = mnl_nlmsg_put_header(request);
  constexpr std::uint16_t types[dumpCount] = {RTM_GETLINK, RTM_GETADDR, RTM_GETROUTE, RTM_GETNEIGH};
  header->nlmsg_type = types[next];
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = ++dumpNumber_;
  mnl_nlmsg_put_extra_header(header, sizeof(rtgenmsg));
  if (mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) fail("ask the kernel");
}

/// Events were lost: everything is asked for anew, and only what is different changes the tables.
void Agent::overflowed() {
  std::cerr << "netlink: events were lost, asking for everything\n";
  wanted_.set();
  isDumpSpoilt_ = true;  // if there is one; its end comes all the same
  askNext();
}

}  // namespace netlink
