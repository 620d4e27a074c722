// What stands in the cluster while publishers come and go, and which states of it are shown.

#include "etcd_test_support.h"

namespace {

using namespace etcdtest;

bool says(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

bool isWritten(const Publisher& publisher) {
  return publisher.publisher.subscribers().at(0).lag == 0;
}

class EtcdStates : public testing::Test {
 protected:
  EtcdStates() { cluster.waitUntilReady(); }
  std::string mark() const { return cluster.tool("get --print-value-only korvo/test/agent/mark"); }
  /// A number of `get -w fields`, for each key that begins so.
  std::vector<std::string> fields(const std::string& name, const std::string& keys) const {
    std::vector<std::string> all;
    std::istringstream in(cluster.tool("get --prefix korvo/test/agent/" + keys + " -w fields"));
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with('"' + name + "\" : ")) all.push_back(line);
    }
    return all;
  }
  /// Until a batch of several transactions is under way, whose end nobody has seen.
  bool runIntoABatch(Publisher& publisher) const {
    const auto end = steady_clock::now() + std::chrono::seconds(10);
    while (says(mark(), " part 0 ")) {
      if (steady_clock::now() > end) return false;
      publisher.loop->run(0, 0.001, false);
    }
    return true;
  }
  Cluster cluster{1};
};

TEST_F(EtcdStates, ABatchThatFitsIsOneTransaction) {
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.isCurrent(); }, publisher, copy)) << copy.text();
  const auto before = engine()->counters();
  publisher.putGeneration(1, 100);
  ASSERT_TRUE(
      runUntil([&] { return copy.equals(publisher) && isWritten(publisher); }, publisher, copy))
      << copy.text();
  EXPECT_EQ(engine()->counters().transactions - before.transactions, 1U);
  EXPECT_EQ(engine()->counters().rows - before.rows, 100U);
  std::vector<std::string> revisions = fields("ModRevision", "net/port/row/");
  EXPECT_EQ(revisions.size(), 100U);
  revisions.push_back(fields("ModRevision", "mark").at(0));
  EXPECT_EQ(std::set(revisions.begin(), revisions.end()).size(), 1U) << "rows and mark are one";
}

TEST_F(EtcdStates, ALargeBatchIsShownWhenItsLastPartHasCome) {
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  publisher.putGeneration(1, 2000);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const auto former = contents(copy.ports);
  publisher.putGeneration(2, 2000);
  ASSERT_TRUE(runIntoABatch(publisher));

  // Who comes now is shown the last state, and who was there stays with it.
  Copy late(cluster.address());
  ASSERT_TRUE(runUntil([&] { return late.isCurrent(); }, late)) << late.text();
  EXPECT_EQ(contents(late.ports), former);
  runFor(milliseconds(100), copy);
  EXPECT_EQ(contents(copy.ports), former);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher) && late.equals(publisher); }, publisher,
                       copy, late))
      << copy.text() << late.text() << publisher.problem();
  EXPECT_TRUE(copy.isWhole && late.isWhole);
}

TEST_F(EtcdStates, HalfOfABatchIsNotShownIfTheStateBeforeIsCompacted) {
  Publisher publisher(cluster.address());
  publisher.putGeneration(1, 2000);
  ASSERT_TRUE(runUntil([&] { return isWritten(publisher); }, publisher)) << publisher.problem();
  publisher.putGeneration(2, 2000);
  ASSERT_TRUE(runIntoABatch(publisher));
  cluster.compact();
  Copy late(cluster.address());
  runFor(milliseconds(500), late);
  EXPECT_EQ(late.ports.state(), TableState::loading) << late.text();
  EXPECT_EQ(late.ports.size(), 0U);
  ASSERT_TRUE(runUntil([&] { return late.equals(publisher); }, publisher, late)) << late.text();
  EXPECT_TRUE(late.isWhole);
}

TEST_F(EtcdStates, ASnapshotIsOfOneStateWhateverIsWrittenMeanwhile) {
  Publisher publisher(cluster.address());
  publisher.putGeneration(1, 10000);
  ASSERT_TRUE(runUntil([&] { return isWritten(publisher); }, publisher)) << publisher.problem();
  for (int generation = 2; generation < 5; ++generation) {
    Copy copy(cluster.address());
    ASSERT_TRUE(runUntil(
        [&] {
          if (isWritten(publisher)) {
            publisher.putGeneration(++generation, 10000);
          }
          return copy.isCurrent() && copy.notices > 1;
        },
        publisher, copy))
        << copy.text();
    EXPECT_TRUE(copy.isWhole);
    EXPECT_EQ(copy.ports.size(), 10000U);
    EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
  }
}

TEST_F(EtcdStates, WhoLostTheNameWhileHeSleptWritesNothingMore) {
  auto first = std::make_unique<Publisher>(cluster.address());
  first->put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(*first); }, *first, copy)) << copy.text();
  // The first one is held up until its lease has ended.
  auto second = std::make_unique<Publisher>(cluster.address());
  second->put({port(1, "eins"), port(2, "zwei")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(*second); }, *second, copy))
      << copy.text() << second->problem();
  // It has waited with a lease, which is kept from now on.
  const std::vector<std::string> owner = fields("CreateRevision", "owner");
  runFor(milliseconds(1000), *second, copy);
  EXPECT_EQ(fields("CreateRevision", "owner"), owner);
  const std::size_t told = copy.changes;
  first->put({port(1, "uno")});
  runFor(milliseconds(1000), *first, *second, copy);
  EXPECT_TRUE(says(first->problem(), "another publisher")) << first->problem();
  EXPECT_TRUE(copy.equals(*second)) << "rows of the first";
  EXPECT_EQ(copy.changes, told);
  // It has its turn when the second one has gone.
  second.reset();
  ASSERT_TRUE(runUntil([&] { return copy.equals(*first); }, *first, copy))
      << copy.text() << first->problem();
}

TEST_F(EtcdStates, TablesThatAreNotPublishedAnyMoreGo) {
  {
    Table<Link> links("net/link");
    Publisher publisher(cluster.address());
    publisher.publisher.add(links);
    publisher.put({port(1, "one")});
    Batch batch(links);
    batch.put(link(1, true));
    batch.commit();
    ASSERT_TRUE(
        runUntil([&] { return says(mark(), "\n1 ") && says(mark(), "net/link"); }, publisher));
    EXPECT_EQ(fields("ModRevision", "net/link/").size(), 2U) << "a row and a layout";
  }
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  EXPECT_EQ(fields("ModRevision", "net/link/").size(), 0U);

  Table<Link> links("net/link");
  TableSubscriber late(cluster.address(), copy.loop, {.name = "late"});
  late.add(links);
  ASSERT_TRUE(runUntil([&] { return links.state() == TableState::refused; }, publisher, copy));
  EXPECT_EQ(links.stateText(), "agent has no table net/link");
}

TEST_F(EtcdStates, AnIdleLinkStays) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::uint64_t connections = copy.subscriber.status().connections;
  const auto before = engine()->counters();
  // Longer than three heartbeats, and than the lease.
  runFor(milliseconds(4000), publisher, copy);
  EXPECT_TRUE(copy.isCurrent()) << copy.text();
  EXPECT_EQ(copy.subscriber.status().connections, connections) << copy.text();
  EXPECT_EQ(engine()->counters().transactions, before.transactions) << "nothing has changed";
  EXPECT_EQ(publisher.problem(), "");
}

TEST_F(EtcdStates, AddressesMayNameMembersThatAreNotThere) {
  const std::string address =
      "etcd://127.0.0.1:1," + cluster.member(0) + ",nowhere.invalid:2379/test/agent";
  Publisher publisher(address);
  publisher.put({port(1, "one")});
  Copy copy(address);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

/// A cluster that was restored is of the past: who has a later state of a publisher is not told an
/// older one of it, but waits for what that one says to it.
TEST_F(EtcdStates, NobodyIsLedBackByARestoredCluster) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one"), port(2, "two")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::string saved = cluster.folder().file("saved");
  cluster.tool("snapshot save " + saved);
  publisher.remove({1});
  publisher.put({port(2, "zwei")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  runFor(milliseconds(100), publisher, copy);  // readers are told in their own turns
  const auto latest = contents(copy.ports);
  const std::size_t told = copy.changes;
  cluster.kill(0);
  cluster.restore(0, saved);
  cluster.start(0);
  cluster.waitUntilReady();
  runFor(milliseconds(1500), copy);
  EXPECT_FALSE(copy.isCurrent()) << copy.text();
  EXPECT_EQ(contents(copy.ports), latest) << copy.text();
  publisher.put({port(3, "three")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
  runFor(milliseconds(100), publisher, copy);
  EXPECT_EQ(copy.changes, told + 1) << "the difference only";
  EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
}

/// A cluster may be replaced while a subscriber is between two questions to it.
TEST_F(EtcdStates, AClusterThatIsReplacedAtAnyTimeIsNoticed) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  ASSERT_TRUE(runUntil([&] { return isWritten(publisher); }, publisher)) << publisher.problem();
  const std::string saved = cluster.folder().file("saved");
  cluster.tool("snapshot save " + saved);
  for (int i = 0; i < 20; ++i) {
    publisher.put({port(1, "one", i)});
    runFor(milliseconds(10), publisher);
  }
  for (int turns = 1; turns <= 6; turns += 2) {
    Copy copy(cluster.address());
    for (int i = 0; i < turns; ++i) {
      copy.loop->run(0, 0.001, false);
      std::this_thread::sleep_for(milliseconds(10));
    }
    cluster.kill(0);
    cluster.restore(0, saved);
    cluster.start(0);
    cluster.waitUntilReady();
    publisher.put({port(1, "one", 1000 + turns)});
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << turns << ' ' << copy.text() << publisher.problem();
    EXPECT_EQ(copy.subscriber.status().digestFaults, 0U) << turns;
    for (int i = 0; i < 20; ++i) {
      publisher.put({port(1, "one", i)});
      runFor(milliseconds(10), publisher);
    }
  }
}

/// Whatever comes in between before its first state is written.
TEST_F(EtcdStates, AHistoryThatACopyOfTheClusterEndedIsNotGoneOnWith) {
  const auto history = [&] {
    const std::string text = mark();
    return text.substr(0, text.find(" sequence"));
  };
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  publisher.putGeneration(1, 500);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::string saved = cluster.folder().file("saved");
  cluster.tool("snapshot save " + saved);
  const std::string savedMark = mark();
  const std::string first = history();
  for (int turns = 2; turns < 8; turns += 2) {
    for (int i = 0; i < 10; ++i) {
      publisher.put({port(1, "one", 1 + 10 * turns + i)});
      runFor(milliseconds(10), publisher, copy);
    }
    cluster.kill(0);
    cluster.restore(0, saved);
    cluster.start(0);
    cluster.waitUntilReady();
    // It comes to know of it, and is interrupted.
    ASSERT_TRUE(runUntil([&] { return !publisher.problem().empty(); }, publisher));
    ASSERT_TRUE(runUntil([&] { return publisher.problem().empty(); }, publisher));
    for (int i = 0; i < turns; ++i) publisher.loop->run(0, 0.001, false);
    cluster.kill(0);
    cluster.start(0);
    cluster.waitUntilReady();
    ASSERT_TRUE(runUntil([&] { return mark() != savedMark; }, publisher, copy));
    EXPECT_NE(history(), first) << turns;
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
        << turns << ' ' << copy.text() << publisher.problem();
  }
}

/// The publisher is gone for good, and the next one knows what the cluster knows.
TEST_F(EtcdStates, AnotherPublisherLeadsOnFromARestoredCluster) {
  const std::string saved = cluster.folder().file("saved");
  Copy copy(cluster.address());
  std::map<oid_t, std::string> latest;
  {
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one"), port(2, "two")});
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
    cluster.tool("snapshot save " + saved);
    for (int i = 1; i < 5; ++i) {
      publisher.put({port(1, "one", i)});
      ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
    }
    latest = contents(copy.ports);
    cluster.kill(0);
  }
  cluster.restore(0, saved);
  cluster.start(0);
  cluster.waitUntilReady();
  runFor(milliseconds(1000), copy);
  EXPECT_EQ(contents(copy.ports), latest) << copy.text();
  // The lease of the one that is gone is in the copy, too.
  Publisher publisher(cluster.address());
  publisher.put({port(1, "eins")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy))
      << copy.text() << publisher.problem();
}

}  // namespace
