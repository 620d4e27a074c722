#pragma once

// What a message of the kernel's says, as rows.

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <string>

#include "rows.h"

namespace netlink {

/// A row of one of the tables, without an oid yet.
template <typename Row>
struct Told {
  Row row;
  /// Tells the row from all others of its table, and stays as it is while others columns change.
  std::string key;
};

// Each gives nothing for a message that is none of its table's.
std::optional<Told<Interface>> interfaceOf(const nlmsghdr& message);
std::optional<Told<Address>> addressOf(const nlmsghdr& message);
std::optional<Told<Route>> routeOf(const nlmsghdr& message);
std::optional<Told<Neighbour>> neighbourOf(const nlmsghdr& message);

}  // namespace netlink
