// Tables on one server of etcd, from end to end.

#include <Korvo/EtcdTables.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>

#include <chrono>
#include <functional>

#include "etcd_test_support.h"

namespace {

using namespace etcdtest;
using namespace tabletest;

class EtcdOne : public testing::Test {
 protected:
  EtcdOne() { cluster.waitUntilReady(); }
  Cluster cluster{1};
};

TEST_F(EtcdOne, SubscribersGetRowsChangesAndRemovals) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one", 10), port(2, "two", 20)});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  EXPECT_EQ(copy.ports.state(), TableState::current);

  publisher.put({port(2, "zwei", 21), port(3, "three", 30)});
  publisher.remove({1});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
}

TEST_F(EtcdOne, AnEmptyTableIsCurrent) {
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.isCurrent(); }, publisher, copy)) << copy.text();
  EXPECT_EQ(copy.ports.size(), 0U);
}

TEST_F(EtcdOne, ASubscriberMayComeFirst) {
  Copy copy(cluster.address());
  runFor(milliseconds(500), copy);
  EXPECT_EQ(copy.ports.state(), TableState::loading);
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
}

TEST_F(EtcdOne, LargeBatchesAppearAsAWhole) {
  Publisher publisher(cluster.address());
  Copy copy(cluster.address());
  for (int generation = 1; generation <= 3; ++generation) {
    publisher.putGeneration(generation, 5000);
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  }
  EXPECT_TRUE(copy.isWhole);
  EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
}

TEST_F(EtcdOne, ARestartedPublisherWithEqualRowsTellsNothing) {
  Copy copy(cluster.address());
  std::string rows;
  {
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one"), port(2, "two"), port(3, "three")});
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  }
  const std::string before = cluster.tool("get --prefix korvo/test/agent/net/port/row -w fields");
  ASSERT_TRUE(runUntil([&] { return copy.ports.state() == TableState::stale; }, copy))
      << copy.text();
  const std::size_t told = copy.changes;
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one"), port(2, "two"), port(3, "three")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  runFor(milliseconds(100), publisher, copy);  // readers are told in their own turns
  EXPECT_EQ(copy.changes, told);
  const auto revisions = [](const std::string& fields) {
    std::string all;
    std::istringstream in(fields);
    for (std::string line; std::getline(in, line);) {
      if (line.find("ModRevision") != std::string::npos) all += line;
    }
    return all;
  };
  EXPECT_EQ(revisions(before),
            revisions(cluster.tool("get --prefix korvo/test/agent/net/port/row -w fields")));

  // And one whose rows differ tells the differences.
  publisher.put({port(2, "zwei")});
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  runFor(milliseconds(100), publisher, copy);  // readers are told in their own turns
  EXPECT_EQ(copy.changes, told + 1);
}

TEST_F(EtcdOne, ARestartedPublisherDeletesWhatIsGone) {
  Copy copy(cluster.address());
  {
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one"), port(2, "two"), port(3, "three")});
    ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  }
  Publisher publisher(cluster.address());
  publisher.publisher.completeIs(false);
  publisher.put({port(3, "three")});
  runFor(milliseconds(500), publisher, copy);
  EXPECT_EQ(copy.ports.size(), 3U) << "nothing is deleted before all is loaded";
  publisher.put({port(1, "eins")});
  publisher.publisher.completeIs(true);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  EXPECT_EQ(copy.ports.size(), 2U);
}

TEST_F(EtcdOne, ASecondPublisherOfTheNameIsRefusedInWords) {
  Publisher first(cluster.address());
  first.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(first); }, first, copy)) << copy.text();
  auto second = std::make_unique<Publisher>(cluster.address());
  second->put({port(1, "other")});
  ASSERT_TRUE(runUntil(
      [&] {
        return second->problem().find("another publisher has the name agent") != std::string::npos;
      },
      first, *second, copy))
      << second->problem();
  runFor(milliseconds(300), first, *second, copy);
  EXPECT_TRUE(copy.equals(first)) << "rows of the second";
}

TEST_F(EtcdOne, CompactionWhileDisconnectedTellsDifferencesOnly) {
  Publisher publisher(cluster.address());
  publisher.putGeneration(1, 100);
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  // It loses its link, and is held up while the server forgets what it has not seen.
  cluster.kill(0);
  ASSERT_TRUE(runUntil([&] { return copy.ports.state() == TableState::stale; }, copy))
      << copy.text();
  cluster.start(0);
  cluster.waitUntilReady();
  ASSERT_TRUE(runUntil([&] { return publisher.problem().empty(); }, publisher));
  for (int i = 0; i < 20; ++i) {
    publisher.put({port(1, "changed" + std::to_string(i))});
    runFor(milliseconds(30), publisher);
  }
  publisher.remove({2});
  ASSERT_TRUE(runUntil([&] { return publisher.publisher.subscribers().at(0).lag == 0; }, publisher))
      << publisher.problem();
  cluster.compact();
  const std::size_t told = copy.changes;
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  runFor(milliseconds(100), publisher, copy);  // readers are told in their own turns
  EXPECT_EQ(copy.changes, told + 2);
}

TEST_F(EtcdOne, AKilledServerIsComeBackTo) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  cluster.kill(0);
  publisher.put({port(2, "two")});
  ASSERT_TRUE(runUntil([&] { return copy.ports.state() == TableState::stale; }, publisher, copy))
      << copy.text();
  EXPECT_EQ(copy.ports.size(), 1U);
  runFor(milliseconds(1000), publisher, copy);
  cluster.start(0);
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
}

TEST_F(EtcdOne, ASlowSubscriberGetsMergedBatches) {
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one")});
  Copy copy(cluster.address());
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const std::uint64_t marks = copy.subscriber.status().marks;
  for (int i = 0; i < 200; ++i) {
    publisher.put({port(1, "one", i + 1)});
    runFor(milliseconds(2), publisher);
  }
  ASSERT_TRUE(runUntil([&] { return copy.equals(publisher); }, publisher, copy)) << copy.text();
  const auto status = copy.subscriber.status();
  EXPECT_EQ(status.marks - marks + status.merged, 200U);
}

}  // namespace
