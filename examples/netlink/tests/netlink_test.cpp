// The agent in a network namespace of its own, whose interfaces, addresses, routes and neighbours
// are changed while a subscriber looks on. Needs the right to make such a namespace, and `ip`.

#include <Korvo/EventLoop.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rows.h"

namespace {

using namespace netlink;

/// A namespace in which this process may do everything, whoever it is.
bool enterNamespace() {
  const uid_t user = getuid();
  if (user == 0) return unshare(CLONE_NEWNET) == 0;
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  std::ofstream("/proc/self/uid_map") << "0 " << user << " 1\n";
  return true;
}

/// `ip` with this command for each line.
void ip(const std::string& commands) {
  FILE* const pipe = popen("ip -batch -", "w");
  ASSERT_NE(pipe, nullptr);
  fputs(commands.c_str(), pipe);
  ASSERT_EQ(pclose(pipe), 0) << commands;
}

class NetlinkTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(enterNamespace()) << std::strerror(errno);
    char name[] = "/tmp/netlink-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
    subscriber_.emplace("unix:" + folder_ + "/socket", loop_, options());
    subscriber_->add(interfaces);
    subscriber_->add(addresses);
    subscriber_->add(routes);
    subscriber_->add(neighbours);
  }
  void TearDown() override {
    end(SIGTERM);
    std::filesystem::remove(folder_ + "/errors");
    std::filesystem::remove(folder_ + "/socket");
    std::filesystem::remove(folder_);
  }

  void start(const std::string& receiveBuffer = "0") {
    agent_ = fork();
    ASSERT_NE(agent_, -1);
    if (agent_ == 0) {
      if (freopen((folder_ + "/errors").c_str(), "w", stderr) == nullptr) _exit(3);
      execl(NETLINK_PROGRAM, "netlink", ("unix:" + folder_ + "/socket").c_str(),
            receiveBuffer.c_str(), nullptr);
      _exit(3);
    }
  }
  void end(int signal) {
    if (agent_ <= 0) return;
    kill(agent_, signal);
    int status = 0;
    ASSERT_EQ(waitpid(agent_, &status, 0), agent_);
    agent_ = 0;
    if (signal == SIGTERM) {
      EXPECT_EQ(status, 0);
    }
  }
  std::string errors() const {
    std::ifstream file(folder_ + "/errors");
    return {std::istreambuf_iterator<char>(file), {}};
  }
  bool comesTrue(const std::function<bool()>& isSo) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isSo()) {
      if (std::chrono::steady_clock::now() > limit) return false;
      loop_->run(0, 0.02, false);
    }
    return true;
  }
  Interface interfaceNamed(const std::string& name) { return byName.find(name).front(); }
  bool has(const std::string& name) { return !byName.find(name).empty(); }
  std::size_t routesTo(const std::string& net) {
    const auto range = byNet.exact(Korvo::IpGenPrefix(net));
    return static_cast<std::size_t>(
        std::count_if(range.begin(), range.end(),
                      [](const Route& route) { return route.get<"table">() == RT_TABLE_MAIN; }));
  }

  Korvo::Table<Interface> interfaces{"net/interface"};
  Korvo::Table<Address> addresses{"net/address"};
  Korvo::Table<Route> routes{"net/route"};
  Korvo::Table<Neighbour> neighbours{"net/neighbour"};
  decltype(interfaces.equal<"name">()) byName = interfaces.equal<"name">();
  decltype(addresses.equal<"address">()) byAddress = addresses.equal<"address">();
  decltype(routes.longestPrefix<"net">()) byNet = routes.longestPrefix<"net">();
  decltype(neighbours.equal<"address">()) byNeighbour = neighbours.equal<"address">();
  std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("viewer");
  pid_t agent_ = 0;
  std::string folder_;

 private:
  static Korvo::SubscriberOptions options() {
    Korvo::SubscriberOptions options;
    options.heartbeat = std::chrono::milliseconds(200);
    return options;
  }
  std::optional<Korvo::TableSubscriber> subscriber_;
};

TEST_F(NetlinkTest, ChangesOfTheKernelComeAsChangesOfRows) {
  start();
  ASSERT_TRUE(comesTrue([&] { return interfaces.state() == Korvo::TableState::current; }))
      << interfaces.stateText() << errors();
  ASSERT_EQ(interfaces.size(), 1U);
  EXPECT_EQ(interfaceNamed("lo").rowOid(), 1U);
  EXPECT_FALSE(interfaceNamed("lo").get<"up">());

  ip("link add veth0 type veth peer name veth1\n"
     "link set veth0 address 02:00:00:00:00:01\n"
     "link set veth0 mtu 1400\n"
     "link set veth0 up\n"
     "link set veth1 up\n"
     "addr add 10.1.2.3/24 dev veth0\n"
     "addr add 2001:db8::1/64 dev veth0 nodad\n"
     "route add 192.0.2.0/24 via 10.1.2.1\n"
     "route add default via 10.1.2.2\n"
     "route add 198.51.100.0/24 nexthop via 10.1.2.1 nexthop via 10.1.2.2\n"
     "route add 2001:db8:1::/48 via 2001:db8::2\n"
     "neigh add 10.1.2.9 lladdr 02:00:00:00:00:09 dev veth0 nud permanent\n");
  ASSERT_TRUE(comesTrue([&] {
    return has("veth0") && interfaceNamed("veth0").get<"carrier">() &&
           routesTo("192.0.2.0/24") == 1 && routesTo("2001:db8:1::/48") == 1 &&
           !byNeighbour.find(Korvo::IpGenAddr("10.1.2.9")).empty();
  })) << errors();

  const Interface veth0 = interfaceNamed("veth0");
  EXPECT_EQ(veth0.get<"mac">(), "02:00:00:00:00:01");
  EXPECT_EQ(veth0.get<"mtu">(), 1400U);
  EXPECT_TRUE(veth0.get<"up">());
  const Address address = byAddress.find(Korvo::IpGenAddr("10.1.2.3")).front();
  ASSERT_FALSE(address.isNull());
  EXPECT_EQ(address.get<"interface">(), veth0.rowOid());
  EXPECT_EQ(address.get<"net">(), Korvo::IpGenPrefix("10.1.2.0/24"));
  EXPECT_FALSE(byAddress.find(Korvo::IpGenAddr("2001:db8::1")).empty());
  const Route route = byNet.find(Korvo::IpGenAddr("192.0.2.77"));
  EXPECT_EQ(route.get<"net">(), Korvo::IpGenPrefix("192.0.2.0/24"));
  EXPECT_EQ(route.get<"gateways">(), std::vector{Korvo::IpGenAddr("10.1.2.1")});
  EXPECT_EQ(route.get<"interface">(), veth0.rowOid());
  EXPECT_EQ(byNet.find(Korvo::IpGenAddr("203.0.113.1")).get<"gateways">(),
            std::vector{Korvo::IpGenAddr("10.1.2.2")});
  EXPECT_EQ(byNet.find(Korvo::IpGenAddr("198.51.100.1")).get<"gateways">().size(), 2U);
  const Neighbour neighbour = byNeighbour.find(Korvo::IpGenAddr("10.1.2.9")).front();
  EXPECT_EQ(neighbour.get<"mac">(), "02:00:00:00:00:09");
  EXPECT_EQ(neighbour.get<"state">(), "permanent");

  // In place of another one, which the kernel does not tell.
  ip("route replace 192.0.2.0/24 via 10.1.2.4\n");
  EXPECT_TRUE(comesTrue([&] {
    const Route now = byNet.find(Korvo::IpGenAddr("192.0.2.77"));
    return routesTo("192.0.2.0/24") == 1 &&
           now.get<"gateways">() == std::vector{Korvo::IpGenAddr("10.1.2.4")};
  }));
  ip("neigh del 10.1.2.9 dev veth0\nroute del default\nlink set veth0 name uplink\n");
  EXPECT_TRUE(comesTrue([&] {
    return byNeighbour.find(Korvo::IpGenAddr("10.1.2.9")).empty() && routesTo("0.0.0.0/0") == 0 &&
           has("uplink") && interfaceNamed("uplink").rowOid() == veth0.rowOid() && !has("veth0");
  }));
  // All that hangs on it goes with an interface.
  ip("link del uplink\n");
  EXPECT_TRUE(comesTrue([&] {
    return interfaces.size() == 1 && addresses.empty() && routes.empty() && neighbours.empty();
  })) << interfaces.size()
      << ' ' << addresses.size() << ' ' << routes.size() << ' ' << neighbours.size();
  EXPECT_EQ(errors(), "");
}

TEST_F(NetlinkTest, LostEventsAreMadeUpForByAComparison) {
  ip("link add veth0 type veth peer name veth1\nlink set veth0 up\nlink set veth1 up\n"
     "addr add 10.1.2.3/24 dev veth0\nroute add 192.0.2.0/24 via 10.1.2.1\n");
  start("4096");
  ASSERT_TRUE(comesTrue([&] { return routesTo("192.0.2.0/24") == 1; })) << errors();
  std::string told;
  const Korvo::TableReader<Route> reader(routes, loop_, [&](const Korvo::Changes<Route>& changes) {
    if (changes.first()) return;
    for (const Korvo::Change<Route>& change : changes) {
      if (change.oid() == byNet.find(Korvo::IpGenAddr("192.0.2.1")).rowOid()) told += "again ";
    }
  });

  ASSERT_EQ(kill(agent_, SIGSTOP), 0);
  std::string commands = "link set veth0 mtu 1300\n";
  for (int i = 0; i < 200; ++i) {
    const std::string net = "198.51." + std::to_string(i) + ".0/24";
    commands += "route add " + net + " via 10.1.2.1\n";
    if (i % 2 == 0) commands += "route del " + net + "\n";
  }
  ip(commands);
  ASSERT_EQ(kill(agent_, SIGCONT), 0);
  EXPECT_TRUE(comesTrue([&] {
    return byNet.inside(Korvo::IpGenPrefix("198.51.0.0/16")).size() == 100 &&
           interfaceNamed("veth0").get<"mtu">() == 1300;
  })) << byNet.inside(Korvo::IpGenPrefix("198.51.0.0/16")).size();
  EXPECT_NE(errors().find("events were lost"), std::string::npos);
  EXPECT_EQ(told, "");  // what is as it was is not told
}

TEST_F(NetlinkTest, RestartedAgentTellsTheDifferenceOnly) {
  start();
  ASSERT_TRUE(comesTrue([&] { return interfaces.state() == Korvo::TableState::current; }));
  std::string told;
  const Korvo::TableReader<Interface> reader(
      interfaces, loop_, [&](const Korvo::Changes<Interface>& changes) {
        for (const Korvo::Change<Interface>& change : changes) {
          told += change.after().get<"name">() + ' ';
        }
      });
  end(SIGKILL);
  ASSERT_TRUE(comesTrue([&] { return interfaces.state() == Korvo::TableState::stale; }));
  EXPECT_EQ(interfaces.size(), 1U);
  ip("link add dummy0 type veth peer name dummy1\n");
  start();
  ASSERT_TRUE(comesTrue([&] { return interfaces.state() == Korvo::TableState::current; }))
      << interfaces.stateText() << errors();
  const std::string expected = "lo dummy0 dummy1 ";
  ASSERT_TRUE(comesTrue([&] { return told.size() >= expected.size(); })) << told;
  EXPECT_TRUE(told == expected || told == "lo dummy1 dummy0 ") << told;
}

}  // namespace
