// Who comes back, or comes in the middle: transactions whose answers are lost, subscribers that
// join while a batch is being written, publishers that come back with fewer tables.

#include <poll.h>

#include <atomic>
#include <mutex>

#include "etcd_test_support.h"

namespace {

using namespace etcdtest;

/// Stands between clients and one server, on this machine, and can lose answers, hold up requests
/// that write rows, and cut connections.
class Relay {
 public:
  enum class Rule {
    pass,
    loseAnswers,  ///< requests go on to the server, and what it says is lost
    holdRows      ///< of each connection, what comes from a request with rows on waits
  };

  explicit Relay(const std::string& server)
      : server_(std::stoi(server.substr(server.rfind(':') + 1))),
        listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::system_error(errno, std::generic_category(), "relay");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { work(); });
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;
  ~Relay() {
    isOver_ = true;
    thread_.join();
    for (const Pair& pair : pairs_) closeBoth(pair);
    close(listener_);
  }

  std::string address(const std::string& publisher = "agent") const {
    return "etcd://127.0.0.1:" + std::to_string(port_) + "/test/" + publisher;
  }
  void ruleIs(Rule rule) { rule_ = rule; }
  /// Clients lose their connections. The server hears nothing of it.
  void cut() {
    const std::lock_guard lock(mutex_);
    for (Pair& pair : pairs_) closeEnd(pair.client);
  }
  /// How often clients said anything.
  int requests() const { return requests_; }
  /// How many connections are held up.
  std::size_t held() const {
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(pairs_.begin(), pairs_.end(), [](const Pair& p) { return !p.held.empty(); }));
  }
  /// Lets go on what has been held up for longest; that connection passes from here on.
  void release() {
    const std::lock_guard lock(mutex_);
    for (Pair& pair : pairs_) {
      if (pair.held.empty()) continue;
      sendAll(pair.server, pair.held);
      pair.held.clear();
      pair.isReleased = true;
      return;
    }
  }

 private:
  struct Pair {
    int client = -1;
    int server = -1;
    std::string held;
    bool isReleased = false;
  };

  static sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static void closeEnd(int& end) {
    if (end != -1) close(std::exchange(end, -1));
  }
  static void closeBoth(Pair pair) {
    closeEnd(pair.client);
    closeEnd(pair.server);
  }
  static void sendAll(int to, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t more = send(to, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (more <= 0) return;
      sent += static_cast<std::size_t>(more);
    }
  }

  void work() {
    while (!isOver_) {
      std::vector<pollfd> ends = {{listener_, POLLIN, 0}};
      {
        const std::lock_guard lock(mutex_);
        for (const Pair& pair : pairs_) {
          ends.push_back({pair.client, POLLIN, 0});
          ends.push_back({pair.server, POLLIN, 0});
        }
      }
      poll(ends.data(), ends.size(), 10);
      const std::lock_guard lock(mutex_);
      for (std::size_t i = 1; i < ends.size(); ++i) {
        Pair& pair = pairs_[(i - 1) / 2];
        const bool isClient = i % 2 == 1;
        // It may have been cut meanwhile.
        if (ends[i].revents != 0 && ends[i].fd == (isClient ? pair.client : pair.server)) {
          passOn(pair, isClient);
        }
      }
      if (ends[0].revents != 0) accept();
    }
  }
  void accept() {
    Pair pair;
    pair.client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    pair.server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to = loopback(server_);
    if (connect(pair.server, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
      return closeBoth(pair);
    }
    pairs_.push_back(pair);
  }
  void passOn(Pair& pair, bool isClient) {
    std::string bytes(65536, '\0');
    int& from = isClient ? pair.client : pair.server;
    const ssize_t count = recv(from, bytes.data(), bytes.size(), 0);
    if (count <= 0) return closeEnd(from);
    bytes.resize(static_cast<std::size_t>(count));
    if (isClient) ++requests_;
    if (!isClient) {
      if (rule_ != Rule::loseAnswers && pair.client != -1) sendAll(pair.client, bytes);
      return;
    }
    const bool isHeld = !pair.held.empty() || (rule_ == Rule::holdRows && !pair.isReleased &&
                                               bytes.find("/row/") != std::string::npos);
    if (isHeld) {
      pair.held += bytes;
    } else {
      sendAll(pair.server, bytes);
    }
  }

  const int server_;
  const int listener_;
  int port_ = 0;
  std::atomic<bool> isOver_ = false;
  std::atomic<Rule> rule_ = Rule::pass;
  std::atomic<int> requests_ = 0;
  mutable std::mutex mutex_;
  std::vector<Pair> pairs_;
  std::thread thread_;
};

/// A publisher that writes through a relay, and a copy that reads past it.
class EtcdRelay : public testing::Test {
 protected:
  EtcdRelay() {
    cluster.waitUntilReady();
    relay.emplace(cluster.member(0));
    before = engine()->counters();
    publisher.emplace(relay->address());
    copy.emplace(cluster.address());
    publisher->put({port(1, "one")});
  }
  bool isSame() {
    return runUntil(
        [&] {
          return publisher->publisher.subscribers().at(0).lag == 0 && copy->equals(*publisher);
        },
        *publisher, *copy);
  }
  /// Each transaction writes the mark, once.
  int marks() const {
    const std::string fields = cluster.tool("get korvo/test/agent/mark -w fields");
    const std::string name = "\"Version\" : ";
    const std::size_t at = fields.find(name);
    return at == std::string::npos ? 0 : std::stoi(fields.substr(at + name.size()));
  }
  std::uint64_t transactions() const {
    return engine()->counters().transactions - before.transactions;
  }
  std::uint64_t retried() const { return engine()->counters().retried - before.retried; }
  std::uint64_t recognised() const { return engine()->counters().recognised - before.recognised; }
  std::uint64_t rows() const { return engine()->counters().rows - before.rows; }

  Cluster cluster{1};
  std::optional<Relay> relay;
  Korvo::EtcdEngine::Counters before;
  std::optional<Publisher> publisher;
  std::optional<Copy> copy;
};

TEST_F(EtcdRelay, ATransactionWhoseAnswerIsLostIsRecognisedByTheMark) {
  ASSERT_TRUE(isSame()) << copy->text() << publisher->problem();
  for (int round = 1; round <= 3; ++round) {
    runFor(milliseconds(50), *publisher, *copy);  // readers are told in their own turns
    const int written = marks();
    const std::size_t told = copy->changes;
    relay->ruleIs(Relay::Rule::loseAnswers);
    publisher->put({port(2, "two", round), port(3, "three", round)});
    ASSERT_TRUE(runUntil([&] { return marks() == written + 1; }, *publisher));
    relay->cut();
    relay->ruleIs(Relay::Rule::pass);
    ASSERT_TRUE(isSame()) << copy->text() << publisher->problem();
    runFor(milliseconds(50), *publisher, *copy);
    EXPECT_EQ(recognised(), static_cast<std::uint64_t>(round));
    EXPECT_EQ(marks(), written + 1) << "written again";
    EXPECT_EQ(copy->changes, told + 2) << "told again";
  }
  EXPECT_EQ(retried(), 0U) << "what was made is not sent again";
  EXPECT_EQ(transactions(), static_cast<std::uint64_t>(marks()));
  EXPECT_EQ(rows(), 1U + 3 * 2);
}

TEST_F(EtcdRelay, ATransactionThatArrivesTwiceIsMadeOnce) {
  ASSERT_TRUE(isSame()) << copy->text() << publisher->problem();
  runFor(milliseconds(50), *publisher, *copy);  // readers are told in their own turns
  const int written = marks();
  const std::size_t told = copy->changes;
  relay->ruleIs(Relay::Rule::holdRows);
  publisher->put({port(2, "two")});
  ASSERT_TRUE(runUntil([&] { return relay->held() == 1; }, *publisher));
  relay->cut();
  // It is not there, so it is sent again; and then the first one arrives before the second one.
  ASSERT_TRUE(runUntil([&] { return relay->held() == 2; }, *publisher)) << publisher->problem();
  EXPECT_EQ(marks(), written);
  EXPECT_EQ(retried(), 1U);
  relay->release();
  ASSERT_TRUE(runUntil([&] { return marks() == written + 1; }, *publisher));
  EXPECT_EQ(recognised(), 0U) << "no answer has come";
  relay->release();
  relay->ruleIs(Relay::Rule::pass);
  ASSERT_TRUE(isSame()) << copy->text() << publisher->problem();
  runFor(milliseconds(50), *publisher, *copy);
  EXPECT_EQ(recognised(), 1U);
  EXPECT_EQ(marks(), written + 1);
  EXPECT_EQ(copy->changes, told + 1);
  EXPECT_EQ(transactions(), static_cast<std::uint64_t>(marks()));

  // And all goes on from there.
  publisher->put({port(3, "three")});
  publisher->remove({1});
  ASSERT_TRUE(isSame()) << copy->text() << publisher->problem();
  EXPECT_EQ(copy->subscriber.status().digestFaults, 0U);
}

/// A publisher that has written a state and is in the middle of the next one.
class EtcdMiddle : public testing::Test {
 protected:
  EtcdMiddle() {
    cluster.waitUntilReady();
    publisher.emplace(cluster.address());
  }
  static constexpr oid_t rows = 4000;
  /// A batch of many transactions, some of which are written when it returns.
  void beginBatch(int generation) {
    publisher->putGeneration(generation, rows);
    const std::uint64_t before = engine()->counters().transactions;
    ASSERT_TRUE(
        runUntil([&] { return engine()->counters().transactions > before + 3; }, *publisher));
    ASSERT_EQ(cluster.tool("get korvo/test/agent/mark").find(" part 0 "), std::string::npos)
        << "the batch is too small";
  }
  void writeBatch(int generation) {
    publisher->putGeneration(generation, rows);
    ASSERT_TRUE(
        runUntil([&] { return publisher->publisher.subscribers().at(0).lag == 0; }, *publisher));
  }
  static int generation(const Copy& copy) {
    return copy.ports.empty() ? 0 : (*copy.ports.begin()).get<"speed">();
  }
  void expectTheEnd(Copy& copy) {
    ASSERT_TRUE(runUntil([&] { return copy.equals(*publisher); }, *publisher, copy))
        << copy.text() << publisher->problem();
    EXPECT_TRUE(copy.isWhole);
    EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
  }

  Cluster cluster{1};
  std::optional<Publisher> publisher;
};

TEST_F(EtcdMiddle, WhoJoinsGetsTheLastState) {
  writeBatch(1);
  beginBatch(2);
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.isCurrent(); }, copy)) << copy.text();
  EXPECT_EQ(copy.ports.size(), rows);
  EXPECT_EQ(generation(copy), 1);
  expectTheEnd(copy);
  EXPECT_EQ(generation(copy), 2);
}

TEST_F(EtcdMiddle, WhoJoinsBeforeTheFirstStateWaitsForIt) {
  beginBatch(1);
  Copy copy(cluster.address());
  runFor(milliseconds(300), copy);
  EXPECT_EQ(copy.ports.state(), TableState::loading) << copy.text();
  EXPECT_TRUE(copy.ports.empty());
  expectTheEnd(copy);
}

TEST_F(EtcdMiddle, WhoJoinsWhenTheLastStateIsForgottenWaitsForTheNext) {
  writeBatch(1);
  beginBatch(2);
  cluster.compact();
  Copy copy(cluster.address());
  runFor(milliseconds(300), copy);
  EXPECT_EQ(copy.ports.state(), TableState::loading) << copy.text();
  EXPECT_TRUE(copy.ports.empty());
  expectTheEnd(copy);
}

TEST_F(EtcdMiddle, WhoHasRowsKeepsThemUntilTheNextState) {
  writeBatch(1);
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(*publisher); }, *publisher, copy)) << copy.text();
  cluster.kill(0);
  ASSERT_TRUE(runUntil([&] { return copy.ports.state() == TableState::stale; }, copy))
      << copy.text();
  cluster.start(0);
  cluster.waitUntilReady();
  beginBatch(2);
  cluster.compact();
  runFor(milliseconds(1000), copy);
  EXPECT_EQ(copy.ports.state(), TableState::stale) << copy.text();
  EXPECT_EQ(copy.ports.size(), rows);
  EXPECT_EQ(generation(copy), 1);
  expectTheEnd(copy);
}

/// Who asks a server, and how often.
template <typename Side>
struct Asking {
  Asking(std::string ofWhat, const Cluster& cluster, const std::string& publisher)
      : what(std::move(ofWhat)), relay(cluster.member(0)), side(relay.address(publisher)) {}
  std::string what;
  Relay relay;
  Side side;
};

TEST(EtcdReturn, WhatDoesNotGoAwayIsNotAskedForInATightLoop) {
  Cluster cluster(1, {"--max-request-bytes", "20000"});
  cluster.waitUntilReady();
  Asking<Publisher> tooLarge("a row that no server takes", cluster, "large");
  tooLarge.side.put({port(1, std::string(30000, 'x'))});
  Asking<Publisher> first("a publisher", cluster, "agent");
  first.side.put({port(1, "one")});
  ASSERT_TRUE(
      runUntil([&] { return first.side.publisher.subscribers().at(0).lag == 0; }, first.side));
  Asking<Publisher> second("a second publisher", cluster, "agent");
  cluster.tool("put korvo/test/broken/mark nonsense");
  Asking<Copy> broken("a copy of what has another form", cluster, "broken");
  Asking<Copy> nothing("a copy of what is not there", cluster, "nothing");
  cluster.tool("put korvo/test/wrong/mark <" + [&] {
    std::ofstream(cluster.folder().file("mark"))
        << "korvo 1 history 0000000000000001 sequence 1 part 0 cut 0 batches 1\n"
           "1 0000000000000001 net/port\n";
    return cluster.folder().file("mark");
  }());
  Asking<Copy> wrong("a copy whose layout is missing", cluster, "wrong");

  const auto count = [&](milliseconds time) {
    const auto requests = [&] {
      return std::map<std::string, int>{{first.what, first.relay.requests()},
                                        {second.what, second.relay.requests()},
                                        {broken.what, broken.relay.requests()},
                                        {nothing.what, nothing.relay.requests()},
                                        {wrong.what, wrong.relay.requests()}};
    };
    const auto before = requests();
    runFor(time, tooLarge.side, first.side, second.side, broken.side, nothing.side, wrong.side);
    for (const auto& [what, number] : requests()) {
      EXPECT_LT(number - before.at(what), 60) << what;
    }
  };
  const auto says = [](const std::string& text, const std::string& words) {
    return text.find(words) != std::string::npos;
  };
  ASSERT_TRUE(runUntil([&] { return says(tooLarge.side.problem(), "too large"); }, tooLarge.side))
      << tooLarge.side.problem();
  const std::uint64_t retried = engine()->counters().retried;
  count(milliseconds(1200));
  EXPECT_LT(engine()->counters().retried - retried, 10U) << tooLarge.what;
  EXPECT_TRUE(says(tooLarge.side.problem(), "too large")) << tooLarge.side.problem();
  EXPECT_EQ(first.side.problem(), "");
  EXPECT_TRUE(says(second.side.problem(), "another publisher has the name"));
  EXPECT_TRUE(says(broken.side.subscriber.status().lastReason, "another form"));
  EXPECT_EQ(nothing.side.ports.state(), TableState::loading);
  EXPECT_EQ(wrong.side.ports.state(), TableState::refused) << wrong.side.text();

  // From now on nobody may do anything.
  for (const std::string words :
       {"user add root:top", "user grant-role root root", "auth enable"}) {
    cluster.tool(words);
  }
  first.side.put({port(1, "eins")});
  for (Relay* const relay : {&second.relay, &broken.relay, &nothing.relay, &wrong.relay}) {
    relay->cut();
  }
  count(milliseconds(1200));
  EXPECT_TRUE(says(first.side.problem(), "user name is empty")) << first.side.problem();
  EXPECT_TRUE(says(nothing.side.subscriber.status().lastReason, "user name is empty"))
      << nothing.side.text();
}

TEST(EtcdReturn, ARefusedTableIsTakenOnceItsLayoutIsAnother) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Copy copy(cluster.address());
  {
    Publisher publisher(cluster.address("none"));
    Table<Link> links("net/port");
    TablePublisher other("agent", publisher.loop, {.heartbeat = milliseconds(500)});
    other.add(links);
    other.listen(cluster.address());
    Batch batch(links);
    batch.put(link(7, true));
    batch.commit();
    ASSERT_TRUE(
        runUntil([&] { return copy.ports.state() == TableState::refused; }, publisher, copy))
        << copy.text();
  }
  runFor(milliseconds(300), copy);
  EXPECT_EQ(copy.ports.state(), TableState::refused) << copy.text();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

TEST(EtcdReturn, ARefusedTableIsTakenOnceTheSubscriberHasAnother) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  auto links = std::make_unique<Table<Link>>("net/port");
  struct {
    std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("copy");
  } side;
  TableSubscriber subscriber(cluster.address(), side.loop, {.heartbeat = milliseconds(500)});
  subscriber.add(*links);
  ASSERT_TRUE(runUntil([&] { return links->state() == TableState::refused; }, publisher, side));
  runFor(milliseconds(100), publisher, side);
  links.reset();
  Table<Port> ports("net/port");
  subscriber.add(ports);
  ASSERT_TRUE(runUntil([&] { return ports.state() == TableState::current; }, publisher, side))
      << ports.stateText() << subscriber.status().lastReason;
  EXPECT_EQ(contents(ports), contents(publisher.ports));
}

TEST(EtcdReturn, ATableThatThePublisherAddsLaterIsTaken) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Table<Link> copyOfLinks("net/link");
  Copy copy(cluster.address());
  copy.subscriber.add(copyOfLinks);
  Table<Link> links("net/link");
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  ASSERT_TRUE(
      runUntil([&] { return copy.equals(publisher) && copyOfLinks.state() == TableState::refused; },
               publisher, copy))
      << copy.text() << copyOfLinks.stateText();
  Batch batch(links);
  batch.put(link(7, true));
  batch.commit();
  publisher.publisher.add(links);
  ASSERT_TRUE(
      runUntil([&] { return copy.equals(publisher) && copyOfLinks.state() == TableState::current; },
               publisher, copy))
      << copy.text() << copyOfLinks.stateText();
  EXPECT_EQ(copyOfLinks.size(), 1U);
}

TEST(EtcdReturn, TransactionsGetAsSmallAsTheServerWantsThem) {
  Cluster cluster(1, {"--max-request-bytes", "8000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  publisher.putGeneration(1, 1000);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  EXPECT_TRUE(copy.isWhole);
}

TEST(EtcdReturn, AfterARowThatNoServerTakesAllGoesOn) {
  Cluster cluster(1, {"--max-request-bytes", "20000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  publisher.put({port(1, "one"), port(2, "two")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::uint64_t before = engine()->counters().retried;
  publisher.put({port(1, "eins"), port(2, std::string(30000, 'x')), port(3, "three")});
  ASSERT_TRUE(runUntil([&] { return publisher.problem().find("too large") != std::string::npos; },
                       publisher, copy))
      << publisher.problem();
  runFor(milliseconds(500), publisher, copy);
  EXPECT_EQ(copy.ports.find(1).get<"name">(), "one") << "half a batch is shown";
  EXPECT_LT(engine()->counters().retried - before, 10U) << "asked in a tight loop";

  publisher.put({port(2, "zwei")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  publisher.putGeneration(2, 300);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

TEST(EtcdReturn, KeptTablesStayAndAreToldToNobody) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Table<Link> copyOfLinks("net/link");
  Copy copy(cluster.address());
  copy.subscriber.add(copyOfLinks);
  struct {
    std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("agent");
  } side;
  Table<Port> ports("net/port");
  Table<Link> links("net/link");
  Batch batch(ports, links);
  batch.put(port(1, "one"));
  batch.put(link(7, true));
  batch.commit();
  const auto isEqual = [&] {
    return copy.isCurrent() && contents(copy.ports) == contents(ports) &&
           copyOfLinks.state() == TableState::current && copyOfLinks.size() == 1;
  };
  const auto row = [&] {
    return cluster.tool(
        "get -w fields korvo/test/agent/net/link/row/00000007 "
        "| grep ModRevision");
  };
  std::optional<TablePublisher> agent;
  const auto publish = [&](bool withLinks, const std::vector<std::string>& kept) {
    agent.reset();
    agent.emplace("agent", side.loop,
                  TablePublisher::Options{.heartbeat = milliseconds(500), .keptTables = kept});
    agent->add(ports);
    if (withLinks) agent->add(links);
    agent->listen(cluster.address());
  };
  publish(true, {});
  ASSERT_TRUE(runUntil(isEqual, side, copy)) << copy.text();
  const std::string written = row();

  publish(false, {"net/link", "net/none"});
  batch.put(port(2, "two"));
  batch.commit();
  ASSERT_TRUE(runUntil(
      [&] {
        return copy.isCurrent() && copy.ports.size() == 2 &&
               copyOfLinks.state() == TableState::refused;
      },
      side, copy))
      << copy.text();
  EXPECT_EQ(copyOfLinks.stateText(),
            "agent keeps what is there of table net/link, and does not tell it for now");
  EXPECT_EQ(copyOfLinks.size(), 1U) << "who has rows keeps them";
  EXPECT_EQ(row(), written);

  // What is published again is compared with what was kept.
  publish(true, {"net/link"});
  ASSERT_TRUE(runUntil(isEqual, side, copy)) << copy.text() << copyOfLinks.stateText();
  EXPECT_EQ(row(), written);

  publish(false, {"net/link"});
  ASSERT_TRUE(runUntil([&] { return copyOfLinks.state() == TableState::refused; }, side, copy));
  publish(false, {});
  ASSERT_TRUE(runUntil(
      [&] { return copyOfLinks.stateText() == "agent has no table net/link" && copy.isCurrent(); },
      side, copy))
      << copy.text() << copyOfLinks.stateText();
  EXPECT_EQ(cluster.tool("get --prefix --keys-only korvo/test/agent/net/link"), "");
}

TEST(EtcdReturn, APublisherWithFewerTablesRemovesTheOthers) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Table<Link> copyOfLinks("net/link");
  Copy copy(cluster.address());
  copy.subscriber.add(copyOfLinks);
  {
    Publisher publisher(cluster.address("none"));
    Table<Link> links("net/link");
    TablePublisher both("agent", publisher.loop, {.heartbeat = milliseconds(500)});
    Table<Port> ports("net/port");
    both.add(ports);
    both.add(links);
    both.listen(cluster.address());
    Batch batch(ports, links);
    batch.put(port(1, "one"));
    batch.put(link(7, true));
    batch.commit();
    ASSERT_TRUE(runUntil([&] { return copy.ports.size() == 1 && copyOfLinks.size() == 1; },
                         publisher, copy))
        << copy.text();
  }
  ASSERT_NE(cluster.tool("get --prefix --keys-only korvo/test/agent/net/link").find("00000007"),
            std::string::npos);
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one"), port(2, "two")});
  ASSERT_TRUE(
      runUntil([&] { return copy.equals(publisher) && copyOfLinks.state() == TableState::refused; },
               publisher, copy))
      << copy.text() << copyOfLinks.stateText();
  EXPECT_EQ(copyOfLinks.stateText(), "agent has no table net/link");
  EXPECT_EQ(cluster.tool("get --prefix --keys-only korvo/test/agent/net/link"), "")
      << "rows or layout are left";
  EXPECT_EQ(cluster.tool("get korvo/test/agent/mark").find("net/link"), std::string::npos);
}

TEST(EtcdReturn, ATableWhoseKeysWouldBeAnothersStopsItsPublisher) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  {
    Table<Link> among("net/port/row");
    publisher.publisher.add(among);
    ASSERT_TRUE(runUntil(
        [&] {
          return publisher.problem().ends_with("no name of a table on a cluster: net/port/row");
        },
        publisher, copy))
        << publisher.problem();
  }
  publisher.put({port(1, "two")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
}

}  // namespace
