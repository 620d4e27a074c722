// A cluster of three under load, whose members are killed and stopped. The checker is that of the
// sockets' tests: each state that a subscriber is told was a state of the publisher, they come in
// its order, and in the end all are the same, byte for byte.

#include <random>

#include "etcd_test_support.h"
#include "table_states.h"

namespace {

using namespace etcdtest;

int seconds() {
  const char* const wanted = std::getenv("KORVO_ETCD_SECONDS");
  return wanted == nullptr ? 10 : std::stoi(wanted);
}

std::string base64(const std::string& bytes) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text += i + k <= bytes.size() ? digits[group >> (18 - 6 * k) & 63] : '=';
    }
  }
  return text;
}

/// The rows' bytes by oid.
template <typename Row>
std::map<oid_t, std::string> bytesOf(const Table<Row>& table) {
  std::map<oid_t, std::string> all;
  for (const Row& row : table) {
    all[row.rowOid()] = {reinterpret_cast<const char*>(row.rowBuf()), row.rowLength()};
  }
  return all;
}

template <typename Row>
std::string stateOf(const Table<Row>& table) {
  std::string text;
  for (const auto& [oid, bytes] : bytesOf(table)) text += bytes;
  return text;
}

/// A subscriber whose every state is looked up in those that were.
class Witness {
 public:
  Witness(const std::string& address, const tabletest::States& states)
      : subscriber((engine(), address), loop, {.name = "witness", .heartbeat = milliseconds(500)}),
        states_(states),
        reader(ports, loop, [this](const Korvo::Changes<Port>&) {
          ++notices;
          if (!states_.isNext(stateOf(ports), seen_)) {
            ADD_FAILURE() << "a state that never was, or an older one";
          }
        }) {
    subscriber.add(ports);
  }

  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("witness");
  Table<Port> ports{"net/port"};
  TableSubscriber subscriber;
  std::size_t notices = 0;

 private:
  const tabletest::States& states_;
  std::size_t seen_ = 0;

 public:
  TableReader<Port> reader;
};

TEST(EtcdThree, LeadersThatAreKilledLoseNothing) {
  Cluster cluster(3);
  cluster.waitUntilReady();
  std::mt19937 random(7);
  const auto between = [&](int from, int to) {
    return std::uniform_int_distribution(from, to)(random);
  };

  tabletest::States states;
  const auto before = engine()->counters();
  auto publisher = std::make_unique<Publisher>(cluster.address());
  Witness one(cluster.address(), states);
  Witness two(cluster.address(), states);
  states.remember(stateOf(publisher->ports));

  const auto run = [&] {
    publisher->loop->run(0, 0.001, false);
    one.loop->run(0, 0.001, false);
    two.loop->run(0, 0.001, false);
  };
  const auto end = steady_clock::now() + std::chrono::seconds(seconds());
  auto nextFault = steady_clock::now() + std::chrono::seconds(2);
  int down = -1;
  int stopped = -1;
  int kills = 0;
  int batches = 0;
  while (steady_clock::now() < end && !HasFailure()) {
    Batch batch(publisher->ports);
    // Some do not fit into one transaction.
    const int changes = between(0, 20) == 0 ? 400 : between(1, 20);
    for (int i = 0; i < changes; ++i) {
      const auto oid = static_cast<oid_t>(between(1, 600));
      if (between(0, 4) == 0) {
        batch.remove(oid);
      } else {
        batch.put(port(oid, "name" + std::to_string(between(0, 1000)), ++batches));
      }
    }
    batch.commit();
    states.remember(stateOf(publisher->ports));
    run();
    if (steady_clock::now() < nextFault) continue;
    nextFault = steady_clock::now() + milliseconds(between(1500, 3000));
    if (down != -1) {
      cluster.start(std::exchange(down, -1));
    } else if (stopped != -1) {
      cluster.resume(std::exchange(stopped, -1));
    } else {
      // A leader is killed in any case, however few faults there is time for.
      switch (kills == 0 ? 4 : between(0, 4)) {
        case 0:
          stopped = between(0, 2);
          cluster.stop(stopped);
          break;
        case 1:
          cluster.compact();
          break;
        case 2: {
          // The publisher ends without a word and comes back with the same rows.
          std::vector<Port> rows(publisher->ports.begin(), publisher->ports.end());
          publisher.reset();
          publisher = std::make_unique<Publisher>(cluster.address());
          publisher->put(rows);
          break;
        }
        default:
          down = std::max(cluster.leader(), 0);
          cluster.kill(down);
          ++kills;
      }
    }
  }
  if (down != -1) cluster.start(down);
  if (stopped != -1) cluster.resume(stopped);
  EXPECT_GT(kills, 0);

  const auto isSame = [&](const Witness& witness) {
    return witness.ports.state() == TableState::current &&
           bytesOf(witness.ports) == bytesOf(publisher->ports);
  };
  const auto latest = steady_clock::now() + std::chrono::seconds(30);
  while (steady_clock::now() < latest && !(isSame(one) && isSame(two))) run();
  for (const Witness* witness : {&one, &two}) {
    EXPECT_TRUE(isSame(*witness)) << witness->ports.stateText() << "; "
                                  << witness->subscriber.status().lastReason << "; "
                                  << publisher->problem();
    EXPECT_EQ(witness->subscriber.status().digestFaults, 0U);
    EXPECT_EQ(witness->subscriber.status().refusedRows, 0U);
    EXPECT_GT(witness->notices, 10U);
  }

  // Each member has the same, asked for what it has itself.
  cluster.waitUntilReady();
  std::string expected;
  for (const auto& [oid, bytes] : bytesOf(publisher->ports)) expected += base64(bytes) + '\n';
  for (int i = 0; i < cluster.size(); ++i) {
    std::istringstream said(cluster.tool(
        "get --prefix --consistency=s korvo/test/agent/net/port/row/ -w json", cluster.member(i)));
    std::string values;
    const std::string json = said.str();
    const std::string name = "\"value\":\"";
    for (std::size_t at = json.find(name); at != std::string::npos; at = json.find(name, at)) {
      at += name.size();
      values += json.substr(at, json.find('"', at) - at) + '\n';
    }
    EXPECT_TRUE(values == expected) << "member " << i;
  }

  const auto after = engine()->counters();
  std::cout << batches << " rows put, " << states.size() << " states, " << kills
            << " leaders killed; " << after.transactions - before.transactions << " transactions, "
            << after.retried - before.retried << " sent again, "
            << after.recognised - before.recognised << " found to be made; witnesses told "
            << one.notices << " and " << two.notices << " times\n";
}

}  // namespace
