#pragma once

// The row classes of the tables' tests, and what tests ask of tables.

#include <Korvo/Batch.h>
#include <Korvo/Table.h>
#include <Korvo/TableReader.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace tabletest {

struct PortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::int32_t>, Korvo::Column<"vrf", std::uint16_t>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"net", Korvo::IpGenPrefix>,
                       Korvo::Column<"peer", Korvo::IpGenAddr>> {};
using Port = Korvo::TableRow<PortLayout>;

struct LinkLayout : Korvo::RowLayout<8, Korvo::Column<"up", bool>> {};
using Link = Korvo::TableRow<LinkLayout>;

inline Port port(Korvo::oid_t oid, const std::string& name, int speed = 0,
                 const std::string& net = "", unsigned int vrf = 0) {
  Port row;
  row.create(oid);
  row.set<"name">(name);
  row.set<"speed">(speed);
  row.set<"vrf">(static_cast<std::uint16_t>(vrf));
  if (!net.empty()) row.set<"net">(Korvo::IpGenPrefix(net));
  return row;
}

inline Link link(Korvo::oid_t oid, bool up) {
  Link row;
  row.create(oid);
  row.set<"up">(up);
  return row;
}

/// All rows by oid, as text.
template <typename Row>
std::map<Korvo::oid_t, std::string> contents(const Korvo::Table<Row>& table) {
  std::map<Korvo::oid_t, std::string> all;
  for (const Row& row : table) all[row.rowOid()] = row.toJson();
  return all;
}

template <typename Rows>
std::vector<Korvo::oid_t> oids(const Rows& rows) {
  std::vector<Korvo::oid_t> all;
  for (const auto& row : rows) all.push_back(row.rowOid());
  return all;
}

inline Korvo::KoPtr<Korvo::Scheduler> scheduler() {
  return std::make_shared<Korvo::Scheduler>("test");
}

inline void runAll(const Korvo::KoPtr<Korvo::Scheduler>& scheduler) {
  scheduler->run(0, 0.0, true);
}

}  // namespace tabletest
