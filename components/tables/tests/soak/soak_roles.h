#pragma once

// Publishers and subscribers for tests that run them as processes under load.
//
// Each batch changes ports and, in a table of its own, tells the number and the sum of all ports. A
// subscriber stops with a text when it sees what no batch left behind: half of one, an older one
// than before, or changes that do not lead to the rows that the table has.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace soak {

using Korvo::oid_t;
using std::chrono::milliseconds;

// Two versions of one layout: a column more, and other places.
using OldPort = Korvo::TableRow<
    Korvo::RowLayout<7, Korvo::Column<"value", std::uint32_t>, Korvo::Column<"name", std::string>>>;
using NewPort = Korvo::TableRow<
    Korvo::RowLayout<7, Korvo::Column<"name", std::string>, Korvo::Column<"vlan", std::uint16_t>,
                     Korvo::Column<"value", std::uint32_t>>>;
/// What the publisher's last batch left; one row.
using Head = Korvo::TableRow<
    Korvo::RowLayout<8, Korvo::Column<"generation", std::uint32_t>,
                     Korvo::Column<"batch", std::uint64_t>, Korvo::Column<"ports", std::uint64_t>,
                     Korvo::Column<"sum", std::uint64_t>, Korvo::Column<"last", bool>>>;

constexpr oid_t mostPorts = 4000;

inline std::atomic<bool> isEnding = false;
inline std::atomic<bool> isAsked = false;  ///< how it goes

inline void require(bool isSo, const std::string& text) {
  if (!isSo) throw std::runtime_error(text);
}

struct Random {
  explicit Random(unsigned int seed) : engine(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(engine()); }
  std::mt19937 engine;
};

/// Of one port; their sum does not depend on their order.
template <typename Port>
std::uint64_t weightOf(const Port& port) {
  std::uint64_t hash = 0xcbf29ce484222325;
  const auto mix = [&hash](std::uint64_t value) { hash = (hash ^ value) * 0x100000001b3; };
  mix(port.rowOid());
  mix(port.template get<"value">());
  for (const char each : port.template get<"name">()) mix(static_cast<unsigned char>(each));
  return hash;
}

/// Writes the ports' bytes to a file, if it has a name: a line for each, by oid. Ports of the old
/// layout are written as if they had come with the new one.
template <typename Port>
void dumpTo(const std::string& path, const Korvo::Table<Port>& ports) {
  if (path.empty()) return;
  std::map<oid_t, NewPort> rows;
  for (const Port& port : ports) {
    if constexpr (std::is_same_v<Port, NewPort>) {
      rows[port.rowOid()] = port;
    } else {
      NewPort& row = rows[port.rowOid()];
      row.create(port.rowOid());
      row.set<"value">(port.template get<"value">());
      row.set<"name">(port.template get<"name">());
    }
  }
  std::ofstream out(path);
  for (const auto& [oid, row] : rows) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string line = std::to_string(oid) + ' ';
    for (std::size_t i = 0; i < row.rowLength(); ++i) {
      line += digits[row.rowBuf()[i] >> 4];
      line += digits[row.rowBuf()[i] & 15];
    }
    out << line << '\n';
  }
  require(static_cast<bool>(out.flush()), path + " cannot be written");
}

class Timer : Velto::Platform::TimeoutHandler {
 public:
  Timer(Korvo::EventLoop& loop, milliseconds period, std::function<void()> told)
      : told_(std::move(told)), period_(period), control_(loop.getTimerControl(this)) {
    control_->timeoutIs(period_);
  }

 private:
  void onTimeout() override {
    control_->timeoutIs(period_);
    told_();
  }
  std::function<void()> told_;
  milliseconds period_;
  std::unique_ptr<Velto::Platform::TimerControl> control_;
};

template <typename Port>
class Publisher {
 public:
  /// `dump`: see dumpTo().
  Publisher(const std::string& address, std::uint32_t generation,
            const Korvo::PublisherOptions& options, std::string dump = "")
      : generation_(generation),
        random_(generation),
        dump_(std::move(dump)),
        publisher_("soak", loop_, options) {
    publisher_.completeIs(false);
    publisher_.add(ports_);
    publisher_.add(heads_);
    publisher_.listen(address);
  }

  void run() {
    loop_->stopOnSignals({SIGTERM});
    std::signal(SIGUSR1, [](int) { isEnding = true; });
    const Timer timer(*loop_, milliseconds(2), [this] { turn(); });
    loop_->run();
  }

 private:
  void turn() {
    if (!publisher_.complete()) return load();
    if (isLast_) return;
    isLast_ = isEnding;
    // Now and then more than a socket takes at once.
    const std::uint32_t most = random_() % 50 == 0 ? 1500 : 20;
    for (std::uint32_t i = 0, count = 1 + random_() % most; i < count; ++i) changeOne();
    putHead();
    batch_.commit();
    if (isLast_) dumpTo(dump_, ports_);
  }

  /// Many rows are as the publisher before had them. Nobody may see this half done: the head is not
  /// that of these ports.
  void load() {
    for (oid_t i = 0; i < mostPorts / 8; ++i) put(++loaded_, 1);
    if (loaded_ == mostPorts) putHead();
    batch_.commit();
    if (loaded_ == mostPorts) publisher_.completeIs(true);
  }

  void changeOne() {
    const oid_t oid = 1 + random_() % mostPorts;
    if (random_() % 4 == 0) {
      forget(oid);
      batch_.remove(ports_, oid);
    } else {
      put(oid, random_());
    }
  }
  void put(oid_t oid, std::uint32_t value) {
    Port port;
    port.create(oid);
    port.template set<"value">(value);
    port.template set<"name">("port" + std::to_string(oid) + std::string(value % 200, 'x'));
    forget(oid);
    sum_ += weights_[oid] = weightOf(port);
    batch_.put(ports_, port);
  }
  void forget(oid_t oid) {
    const auto found = weights_.find(oid);
    if (found == weights_.end()) return;
    sum_ -= found->second;
    weights_.erase(found);
  }
  void putHead() {
    Head head;
    head.create(1);
    head.set<"generation">(generation_);
    head.set<"batch">(++number_);
    head.set<"ports">(weights_.size());
    head.set<"sum">(sum_);
    head.set<"last">(isLast_);
    batch_.put(heads_, head);
  }

  std::uint32_t generation_;
  Random random_;
  std::string dump_;
  oid_t loaded_ = 0;
  std::uint64_t number_ = 0;
  std::map<oid_t, std::uint64_t> weights_;
  std::uint64_t sum_ = 0;
  bool isLast_ = false;
  std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("publisher");
  Korvo::Table<Port> ports_{"net/port"};
  Korvo::Table<Head> heads_{"net/head"};
  Korvo::Batch<Korvo::Table<Port>, Korvo::Table<Head>> batch_{ports_, heads_};
  Korvo::TablePublisher publisher_;
};

template <typename Port>
class Subscriber {
 public:
  explicit Subscriber(const std::string& address, const Korvo::SubscriberOptions& options,
                      std::string dump = "")
      : dump_(std::move(dump)), subscriber_(address, loop_, options) {
    subscriber_.add(ports_);
    subscriber_.add(heads_);
    subscriber_.onProblem([](const Korvo::TableSubscriber::Problem& problem) {
      throw std::runtime_error("problem: " + problem.table + ": " + problem.text);
    });
  }

  /// Tells how it goes when it gets SIGUSR2.
  void run() {
    std::signal(SIGUSR2, [](int) { isAsked = true; });
    const Korvo::TableReader<Port> ports(
        ports_, loop_, [this](const Korvo::Changes<Port>& changes) { follow(changes); });
    const Korvo::TableReader<Head> heads(heads_, loop_,
                                         [this](const Korvo::Changes<Head>&) { check(); });
    // The end is looked for when both readers had their turn.
    const Timer timer(*loop_, milliseconds(20), [this] {
      if (isAsked.exchange(false)) tell();
      const Head head = heads_.find(1);
      if (heads_.state() != Korvo::TableState::current || head.isNull()) return;
      if (head.template get<"last">() && told_.size() == ports_.size()) loop_->activeIs(false);
    });
    loop_->run();
    const Korvo::TableSubscriber::Status status = subscriber_.status();
    require(status.digestFaults == 0, "a digest was another one");
    require(status.refusedRows == 0, "a row was refused");
    tell();
    dumpTo(dump_, ports_);
  }

 private:
  void tell() const {
    const Korvo::TableSubscriber::Status status = subscriber_.status();
    if (heads_.state() != Korvo::TableState::current) {
      std::cout << "heads: " << heads_.stateText() << "; ports: " << ports_.stateText()
                << (status.isConnected ? "; connected" : "") << ", before: " << status.lastReason
                << "; at batch " << last_.second << " of " << last_.first << "; ";
    }
    std::cout << checks_ << " states seen, " << status.marks << " marks, " << status.merged
              << " batches merged, " << status.connections << " connections" << std::endl;
  }

  void follow(const Korvo::Changes<Port>& changes) {
    if (changes.first()) told_.clear();
    for (const Korvo::Change<Port>& change : changes) {
      const auto found = told_.find(change.oid());
      require((change.kind() == Korvo::ChangeKind::added) == (found == told_.end()),
              "a change that does not fit what was told");
      if (change.kind() == Korvo::ChangeKind::removed) {
        told_.erase(found);
      } else {
        told_[change.oid()] = weightOf(change.after());
      }
    }
    std::uint64_t sum = 0;
    for (const auto& [oid, weight] : told_) sum += weight;
    require(told_.size() == ports_.size() && sum == sumOfPorts(), "changes lead to other rows");
    check();
  }

  /// The tables are as a batch left them.
  void check() {
    ++checks_;
    const Head head = heads_.find(1);
    if (head.isNull()) return require(ports_.empty(), "ports without a head");
    const std::pair now(head.template get<"generation">(), head.template get<"batch">());
    require(now >= last_, "an older state than before");
    last_ = now;
    require(head.template get<"ports">() == ports_.size(), "another number of ports");
    require(head.template get<"sum">() == sumOfPorts(), "half of a batch");
  }
  std::uint64_t sumOfPorts() const {
    std::uint64_t sum = 0;
    for (const Port& port : ports_) sum += weightOf(port);
    return sum;
  }

  std::string dump_;
  std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("subscriber");
  Korvo::Table<Port> ports_{"net/port"};
  Korvo::Table<Head> heads_{"net/head"};
  Korvo::TableSubscriber subscriber_;
  std::map<oid_t, std::uint64_t> told_;  ///< weights of what the reader was told
  std::pair<std::uint32_t, std::uint64_t> last_;
  std::uint64_t checks_ = 0;
};

/// Does what the words of a command say, behind the program: publish ADDRESS LAYOUT GENERATION
/// [FILE], or subscribe ADDRESS LAYOUT [FILE]; LAYOUT is "old" or "new", FILE is for dumpTo().
/// False: it is neither.
inline bool play(std::span<char*> words, const Korvo::PublisherOptions& publisher,
                 const Korvo::SubscriberOptions& subscriber) {
  const std::string_view role = words.size() > 1 ? words[1] : "";
  const std::size_t least = role == "publish" ? 5 : 4;
  if ((role != "publish" && role != "subscribe") || words.size() < least ||
      words.size() > least + 1) {
    return false;
  }
  const std::string dump = words.size() > least ? words[least] : "";
  const auto as = [&]<typename Port>(Port /*layout*/) {
    if (role == "subscribe") return Subscriber<Port>(words[2], subscriber, dump).run();
    const auto generation = static_cast<std::uint32_t>(std::atoi(words[4]));
    Publisher<Port>(words[2], generation, publisher, dump).run();
  };
  if (std::string_view(words[3]) == "old") {
    as(OldPort());
  } else {
    as(NewPort());
  }
  return true;
}

}  // namespace soak
