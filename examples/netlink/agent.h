#pragma once

// Interfaces, addresses, routes and neighbours of this machine, as the kernel tells them.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>

#include <bitset>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "message.h"

struct mnl_socket;

namespace netlink {

/// A table whose rows the kernel knows by other keys than oids.
template <typename Row>
struct Kept {
  explicit Kept(const std::string& name) : table(name) {}

  Korvo::Table<Row> table;
  std::map<std::string, Korvo::oid_t> oids;  ///< by key
  std::set<std::string> seen;                ///< keys that were told since the last dump began
  Korvo::oid_t last = 0;
};

/// Publishes the tables. All of it runs on the loop.
class Agent : private Velto::Platform::FdEventHandler {
 public:
  /// Listens on `address`. `receiveBuffer` is that of the socket to the kernel, in bytes; 0 leaves
  /// it to the system. Throws std::system_error.
  Agent(const std::shared_ptr<Korvo::EventLoop>& loop, const std::string& address,
        int receiveBuffer = 0);

 private:
  /// What the kernel is asked for, and told apart by in `wanted_`.
  enum Dump : std::size_t { interfaces, addresses, routes, neighbours, dumpCount };

  void onReadable() override;
  void onWritable() override {}
  /// False if there is nothing more to read.
  bool readMore();
  void take(const nlmsghdr& message);
  template <typename Row>
  void take(Kept<Row>& kept, std::optional<Told<Row>> told, bool isNew);
  void dumpEnded();
  template <typename Row>
  void removeUnseen(Kept<Row>& kept);
  /// Calls `what` with each of the tables, in the order of the dumps.
  template <typename What>
  void forAll(const What& what) {
    what(interfaces_);
    what(addresses_);
    what(routes_);
    what(neighbours_);
  }
  void askNext();
  void overflowed();

  Kept<Interface> interfaces_{"net/interface"};
  Kept<Address> addresses_{"net/address"};
  Kept<Route> routes_{"net/route"};
  Kept<Neighbour> neighbours_{"net/neighbour"};
  Korvo::Batch<Korvo::Table<Interface>, Korvo::Table<Address>, Korvo::Table<Route>,
               Korvo::Table<Neighbour>>
      batch_{interfaces_.table, addresses_.table, routes_.table, neighbours_.table};
  Korvo::TablePublisher publisher_;

  struct Close {
    void operator()(mnl_socket* socket) const;
  };
  std::unique_ptr<mnl_socket, Close> socket_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
  std::vector<char> buffer_;

  // Events and the answers to what was asked come through one socket, in the kernel's order.
  std::bitset<dumpCount> wanted_;
  std::optional<Dump> dump_;  ///< under way
  bool isDumpSpoilt_ = false;
  std::uint32_t dumpNumber_ = 0;
};

}  // namespace netlink
