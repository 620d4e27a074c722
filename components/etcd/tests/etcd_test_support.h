#pragma once

// Publishers and subscribers of tests on etcd.

#include <Korvo/EtcdTables.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "etcd_server.h"
#include "table_test_support.h"

namespace etcdtest {

using namespace tabletest;
using Korvo::Batch;
using Korvo::EventLoop;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TablePublisher;
using Korvo::TableReader;
using Korvo::TableState;
using Korvo::TableSubscriber;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The engine of all tests of a program, whose counters can be asked.
inline const std::shared_ptr<Korvo::EtcdEngine>& engine() {
  static const std::shared_ptr<Korvo::EtcdEngine> one = [] {
    Korvo::EtcdOptions options;
    options.lease = std::chrono::seconds(3);
    auto made = std::make_shared<Korvo::EtcdEngine>(options);
    Korvo::TableEngine::add("etcd", made);
    return made;
  }();
  return one;
}

struct Publisher {
  explicit Publisher(const std::string& address) {
    engine();
    publisher.add(ports);
    publisher.listen(address);
  }
  void put(const std::vector<Port>& rows) {
    Batch batch(ports);
    for (const Port& row : rows) batch.put(row);
    batch.commit();
  }
  void remove(const std::vector<oid_t>& rows) {
    Batch batch(ports);
    for (const oid_t oid : rows) batch.remove(oid);
    batch.commit();
  }
  /// All rows have the number of one batch.
  void putGeneration(int generation, oid_t count) {
    Batch batch(ports);
    for (oid_t oid = 1; oid <= count; ++oid) {
      batch.put(port(oid, "port" + std::to_string(oid), generation));
    }
    batch.commit();
  }
  std::string problem() const { return publisher.subscribers().at(0).lastReason; }

  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("agent");
  Table<Port> ports{"net/port"};
  TablePublisher publisher{"agent", loop, {.heartbeat = milliseconds(500)}};
};

struct Copy {
  explicit Copy(const std::string& address)
      : subscriber((engine(), address), loop, {.name = "copy", .heartbeat = milliseconds(500)}),
        reader(ports, loop, [this](const Korvo::Changes<Port>& told) {
          ++notices;
          for ([[maybe_unused]] const auto& change : told) ++changes;
          std::set<int> generations;
          for (const Port& row : ports) generations.insert(row.get<"speed">());
          isWhole = isWhole && generations.size() <= 1;
        }) {
    subscriber.add(ports);
    subscriber.onProblem(
        [this](const TableSubscriber::Problem& problem) { problems += problem.text + '\n'; });
  }
  bool isCurrent() const { return ports.state() == TableState::current; }
  bool equals(const Publisher& publisher) const {
    return isCurrent() && contents(ports) == contents(publisher.ports);
  }
  std::string text() const {
    return std::to_string(ports.size()) + " rows, state " +
           std::to_string(static_cast<int>(ports.state())) + ' ' + ports.stateText() + "; " +
           subscriber.status().lastReason + "; " + problems;
  }

  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("copy");
  Table<Port> ports{"net/port"};
  TableSubscriber subscriber;
  std::size_t notices = 0;
  std::size_t changes = 0;
  bool isWhole = true;  ///< all rows were always of one generation
  std::string problems;
  TableReader<Port> reader;
};

/// Runs all loops until it is so, twenty seconds at the most.
template <typename... Sides>
bool runUntil(const std::function<bool()>& isSo, Sides&... sides) {
  const auto end = steady_clock::now() + std::chrono::seconds(20);
  while (!isSo()) {
    if (steady_clock::now() > end) return false;
    (sides.loop->run(0, 0.001, false), ...);
  }
  return true;
}

template <typename... Sides>
void runFor(milliseconds time, Sides&... sides) {
  const auto end = steady_clock::now() + time;
  while (steady_clock::now() < end) (sides.loop->run(0, 0.001, false), ...);
}

}  // namespace etcdtest
