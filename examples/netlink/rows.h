#pragma once

// The tables that the agent publishes. Subscribers include this, or a part of it: their layouts may
// have fewer columns.

#include <Korvo/TableRow.h>

#include <cstdint>
#include <string>
#include <vector>

namespace netlink {

/// Table "net/interface". The oid is the kernel's number of the interface.
struct InterfaceLayout
    : Korvo::RowLayout<1, Korvo::Column<"name", std::string>, Korvo::Column<"mac", std::string>,
                       Korvo::Column<"mtu", std::uint32_t>, Korvo::Column<"up", bool>,
                       Korvo::Column<"carrier", bool>> {};
using Interface = Korvo::TableRow<InterfaceLayout>;

/// Table "net/address".
struct AddressLayout
    : Korvo::RowLayout<
          2, Korvo::Column<"interface", Korvo::oid_t>, Korvo::Column<"address", Korvo::IpGenAddr>,
          Korvo::Column<"net", Korvo::IpGenPrefix>, Korvo::Column<"scope", std::uint8_t>> {};
using Address = Korvo::TableRow<AddressLayout>;

/// Table "net/route". A route of several ways has several gateways, and the first way's interface.
struct RouteLayout
    : Korvo::RowLayout<
          3, Korvo::Column<"net", Korvo::IpGenPrefix>,
          Korvo::Column<"gateways", std::vector<Korvo::IpGenAddr>>,
          Korvo::Column<"interface", Korvo::oid_t>, Korvo::Column<"table", std::uint32_t>,
          Korvo::Column<"metric", std::uint32_t>, Korvo::Column<"protocol", std::uint8_t>,
          Korvo::Column<"type", std::uint8_t>> {};
using Route = Korvo::TableRow<RouteLayout>;

/// Table "net/neighbour".
struct NeighbourLayout
    : Korvo::RowLayout<4, Korvo::Column<"interface", Korvo::oid_t>,
                       Korvo::Column<"address", Korvo::IpGenAddr>,
                       Korvo::Column<"mac", std::string>, Korvo::Column<"state", std::string>> {};
using Neighbour = Korvo::TableRow<NeighbourLayout>;

}  // namespace netlink
