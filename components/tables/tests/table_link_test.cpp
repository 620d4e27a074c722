// Publishers and subscribers over a link: states, resuming, slow subscribers, refusals.

#include <Korvo/LearnedTable.h>

#include "memory_taken.h"
#include "table_link_support.h"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;
using Korvo::TableState;

TEST(TablePublisherTest, RefusesWhatCannotBePublished) {
  const auto loop = std::make_shared<Korvo::TestLoop>();
  const std::string longName(256, 'n');
  EXPECT_THROW(Korvo::TablePublisher(longName, loop), Korvo::KoInvalidArgument);
  EXPECT_NO_THROW(Korvo::TablePublisher(longName.substr(1), loop));
  for (const milliseconds heartbeat : {milliseconds(99), milliseconds(60001)}) {
    EXPECT_THROW(Korvo::TablePublisher("agent", loop, {.heartbeat = heartbeat}),
                 Korvo::KoInvalidArgument);
  }

  Korvo::Table<Port> ports("net/port");
  Korvo::Table<Port> others("net/port");
  Korvo::Table<Port> longNamed(longName);
  Korvo::TablePublisher publisher("agent", loop);
  publisher.add(ports);
  EXPECT_THROW(publisher.add(ports), Korvo::KoInvalidArgument);
  EXPECT_THROW(publisher.add(others), Korvo::KoInvalidArgument);
  EXPECT_THROW(publisher.add(longNamed), Korvo::KoInvalidArgument);
  Korvo::TablePublisher another("another", loop);
  EXPECT_THROW(another.add(ports), Korvo::KoInvalidArgument) << "it is published already";
  EXPECT_NO_THROW(another.add(others));

  Korvo::Batch batch(ports);
  batch.put(port(1, "one"));
  batch.commit();
  EXPECT_THROW(publisher.historyIs(0, 5), Korvo::KoInvalidArgument);
  EXPECT_THROW(publisher.historyIs(1, 0), Korvo::KoInvalidArgument);
  publisher.historyIs(1, 5);
  EXPECT_EQ(publisher.epoch(), 1U);
  EXPECT_EQ(publisher.sequence(), 5U);
}

TEST_F(LinkTest, RowsComeAndChangesFollow) {
  agent->put(port(1, "eth0", 10, "10.0.0.0/8"), port(2, "eth1"), tabletest::link(7, true));
  connect();
  EXPECT_EQ(viewer->ports.state(), TableState::loading);
  loop->runUntilQuiet();
  expectSame();
  agent->put(port(1, "eth7"), port(3, "eth3"));
  agent->remove(2);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(viewer->ports.size(), 2U);
}

TEST_F(LinkTest, KeysAreComputedOfTheRowsThatCome) {
  std::vector<Port> kept;  // which the function may do
  auto& byLength = viewer->ports.equalBy([&](const Port& row) {
    kept.push_back(row);
    return row.view<"name">().view().size();
  });
  const auto isOnly = [&](std::size_t length, oid_t oid) {
    const auto found = byLength.find(length);
    return std::ranges::distance(found) == 1 && (*found.begin()).rowOid() == oid;
  };
  agent->put(port(1, "eth0"), port(2, "longer"));
  connect();
  loop->runUntilQuiet();
  expectSame();
  EXPECT_TRUE(isOnly(4, 1));
  EXPECT_TRUE(isOnly(6, 2));
  agent->put(port(1, "longer"), port(3, "eth3"));
  agent->remove(2);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_TRUE(isOnly(4, 3));
  EXPECT_TRUE(isOnly(6, 1));
  ASSERT_EQ(kept.size(), 4U);
  EXPECT_EQ(kept.front().get<"name">(), "eth0");
  EXPECT_EQ(kept.back().get<"name">(), "eth3");
}

// Lesson: the end of the first rows is a message, for an empty table too.
TEST_F(LinkTest, EmptyTableBecomesCurrentAndIsToldOnce) {
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  EXPECT_EQ(told(), "");  // the first rows have not come
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(told(), "first 0; ");
  expectSame();
}

TEST_F(LinkTest, FirstRowsAreToldInOneCallThoughTheyChangeMeanwhile) {
  agent->putMany(1, 2000);
  link.roomIs(1000);
  link.pieceIs(700);
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  connect();
  for (oid_t i = 0; i < 40; ++i) {
    loop->run(6, 0.0, true);
    agent->put(port(5 * i + 1, "changed"));
    agent->remove(5 * i + 2);
    agent->put(port(5000 + i, "new"));
    EXPECT_EQ(told(), "");
  }
  loop->runUntilQuiet();
  EXPECT_EQ(told().substr(0, 6), "first ");
  expectSame();
}

// Lesson: rows and changes go through one ordered pipe; a batch over two tables appears whole.
TEST_F(LinkTest, BatchOverTwoTablesAppearsAtOnce) {
  connect();
  loop->runUntilQuiet();
  bool isWhole = true;
  const TableReader<Port> ports(viewer->ports, loop, [&](const Korvo::Changes<Port>&) {
    isWhole = isWhole && viewer->ports.size() == viewer->links.size();
  });
  const TableReader<Link> links(viewer->links, loop, [&](const Korvo::Changes<Link>&) {
    isWhole = isWhole && viewer->ports.size() == viewer->links.size();
  });
  link.roomIs(30);
  link.pieceIs(7);
  for (oid_t oid = 1; oid < 40; ++oid) {
    agent->put(port(oid, "eth"), tabletest::link(oid, true));
    loop->run(3, 0.0, true);
  }
  loop->runUntilQuiet();
  EXPECT_TRUE(isWhole);
  expectSame();
  EXPECT_EQ(viewer->links.size(), 39U);
}

// Lesson: silence is not peace.
TEST_F(LinkTest, LostLinkMakesTheCopyStaleAndKeepsItsRows) {
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  link.isDownIs(true);
  link.cut();
  std::string states;
  TableReader<Port> reader(viewer->ports, loop, writeDown());
  reader.onState([&](TableState state, const std::string& text) {
    states += std::to_string(static_cast<int>(state)) + " " + text + "; ";
  });
  loop->advance(seconds(20));
  EXPECT_EQ(viewer->ports.state(), TableState::stale);
  EXPECT_EQ(viewer->ports.size(), 9U);
  EXPECT_NE(viewer->ports.stateText(), "");
  link.isDownIs(false);
  loop->advance(seconds(20));
  expectSame();
  EXPECT_EQ(states.substr(0, 1), "2");
  EXPECT_EQ(states.substr(states.size() - 4), "1 ; ") << states;
}

TEST_F(LinkTest, SilentPublisherIsLeft) {
  connect();
  loop->runUntilQuiet();
  link.roomIs(0);  // its bytes do not come any more
  loop->advance(seconds(10));
  EXPECT_EQ(viewer->ports.state(), TableState::current);
  loop->advance(seconds(10));
  EXPECT_NE(viewer->ports.state(), TableState::current);
  EXPECT_EQ(viewer->subscriber.status().lastReason, "nothing was received for 15 seconds");
  link.roomIs(65536);
  loop->advance(seconds(20));
  expectSame();
}

TEST_F(LinkTest, HeartbeatsKeepAnIdleConnection) {
  connect();
  loop->advance(std::chrono::hours(1));
  EXPECT_EQ(link.connections(), 1U);
  EXPECT_GE(viewer->subscriber.status().marks, 3600U / 6);
  EXPECT_LE(viewer->subscriber.status().marks, 3600U / 4);
  expectSame();
}

TEST_F(LinkTest, SubscriberThatGoesSilentIsClosedByThePublisher) {
  agent->publisher.accept(link.publisherEnd());
  const std::unique_ptr<Korvo::ByteStream> mute = link.subscriberEnd()->connect();
  loop->advance(seconds(7));
  EXPECT_EQ(agent->publisher.lastReason(), "no HELLO");
}

// Lesson: a position means nothing without the name of its history.
TEST_F(LinkTest, RestartedPublisherWithEqualRowsTellsNothing) {
  agent->putMany(1, 500);
  connect();
  loop->runUntilQuiet();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  restart();
  agent->putMany(1, 500);
  loop->advance(seconds(20));
  expectSame();
  EXPECT_EQ(told(), "");
}

// Lesson: deletions are what gets lost.
TEST_F(LinkTest, RestartedPublisherTellsOnlyTheDifferences) {
  agent->putMany(1, 500);
  connect();
  loop->runUntilQuiet();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  restart();
  agent->putMany(1, 499);
  agent->put(port(3, "other"), port(600, "new"));
  loop->advance(seconds(20));
  expectSame();
  EXPECT_EQ(told(), "changed 3, removed 499, added 600, 3; ");
}

TEST_F(LinkTest, ResumesWithWhatChangedMeanwhile) {
  agent->putMany(1, 5000);
  connect();
  loop->runUntilQuiet();
  const std::uint64_t before = link.bytesToSubscriber();
  link.isDownIs(true);
  link.cut();
  loop->runUntilQuiet();
  agent->put(port(7, "x"), port(9000, "y"));
  agent->remove(8);
  link.isDownIs(false);
  loop->advance(seconds(20));
  expectSame();
  EXPECT_LT(link.bytesToSubscriber() - before, 1500U);
}

TEST_F(LinkTest, ResumingAfterManyChangesSendsEachRowOnce) {
  agent->putMany(1, 20001);
  connect();
  loop->runUntilQuiet();
  for (const auto& [changed, most] : {std::pair{10000U, 10000U}, std::pair{300U, 300U}}) {
    link.isDownIs(true);
    link.cut();
    loop->runUntilQuiet();
    for (oid_t i = 0; i < 10000; ++i) {
      agent->put(port(i % changed + 1, std::to_string(100000 + i + changed)));
    }
    const std::uint64_t before = link.bytesToSubscriber();
    link.isDownIs(false);
    loop->advance(seconds(20));
    expectSame();
    const std::size_t frame = 8 + port(1, "100000").rowLength();
    EXPECT_LE(link.bytesToSubscriber() - before, most * frame + 2000);
  }
}

// Lesson: "I cannot continue from there" is a normal answer.
TEST_F(LinkTest, ForgottenDeletionsMeanAllRowsAndNoEnd) {
  agent->putMany(1, 70000, "");
  connect();
  loop->runUntilQuiet();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  link.isDownIs(true);
  link.cut();
  loop->runUntilQuiet();
  for (const oid_t end : {35000U, 69999U}) {
    Batch batch(agent->ports);
    for (oid_t oid = end - 34999; oid < end; ++oid) batch.remove(oid);
    batch.commit();
  }
  link.isDownIs(false);
  loop->advance(seconds(20));
  expectSame();
  EXPECT_EQ(viewer->ports.size(), 1U);
  EXPECT_EQ(told(), "first added 69999, 1; ");  // too many removals for the copy to remember, too
}

TEST_F(LinkTest, SlowSubscriberOvertakenByDeletionsIsNotDisconnected) {
  agent->putMany(1, 3);
  connect();
  loop->runUntilQuiet();
  link.roomIs(0);
  for (int round = 0; round < 3; ++round) {
    agent->putMany(10, 30000, "");
    loop->runUntilQuiet();
    Batch batch(agent->ports);
    for (oid_t oid = 10; oid < 30000; ++oid) batch.remove(oid);
    batch.commit();
    loop->runUntilQuiet();
  }
  agent->put(port(1, "last"));
  link.roomIs(65536);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(link.connections(), 1U);
}

TEST_F(LinkTest, KeptHistoryGoesOnAfterARestart) {
  agent->putMany(1, 1000);
  connect();
  loop->runUntilQuiet();
  const std::uint64_t epoch = agent->publisher.epoch();
  const std::uint64_t sequence = agent->publisher.sequence();
  agent.reset();
  loop->runUntilQuiet();
  const std::uint64_t before = link.bytesToSubscriber();
  agent.emplace(loop);
  agent->putMany(1, 1000);
  agent->publisher.historyIs(epoch, sequence);
  agent->put(port(5, "later"));
  agent->publisher.accept(link.publisherEnd());
  loop->advance(seconds(20));
  expectSame();
  EXPECT_LT(link.bytesToSubscriber() - before, 1500U);
}

TEST_F(LinkTest, PositionAboveTheHeadOfTheHistoryGetsAllRows) {
  agent->putMany(1, 10);
  for (oid_t i = 0; i < 10; ++i) agent->put(port(1, "v" + std::to_string(i)));
  connect();
  loop->runUntilQuiet();
  const std::uint64_t epoch = agent->publisher.epoch();
  restart();
  agent->putMany(1, 5);
  agent.reset();
  agent.emplace(loop);
  agent->putMany(1, 5);
  agent->publisher.historyIs(epoch, 3);  // of a backup
  agent->publisher.accept(link.publisherEnd());
  loop->advance(seconds(20));
  expectSame();
  EXPECT_EQ(viewer->problems,
            std::vector<std::string>{
                ": the history of portAgent ends at 3, before 11: all rows are told"});
}

TEST_F(LinkTest, DivergedHistoryIsFoundByTheDigest) {
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  const std::uint64_t epoch = agent->publisher.epoch();
  agent.reset();
  agent.emplace(loop);
  agent->putMany(1, 5);
  agent->publisher.historyIs(epoch, 1);  // which is not what it was
  agent->publisher.accept(link.publisherEnd());
  loop->advance(seconds(20));
  EXPECT_EQ(contents(viewer->ports), contents(agent->ports));
  EXPECT_EQ(viewer->ports.state(), TableState::current);
  EXPECT_EQ(viewer->subscriber.status().digestFaults, 1U);
  ASSERT_EQ(viewer->problems.size(), 1U);
  EXPECT_EQ(viewer->problems[0], "net/port: the rows of net/port are not the publisher's");
}

TEST_F(LinkTest, IncompletePublisherDeletesNothing) {
  agent->putMany(1, 100);
  connect();
  loop->runUntilQuiet();
  agent.reset();
  agent.emplace(loop);
  agent->publisher.completeIs(false);
  agent->publisher.accept(link.publisherEnd());
  agent->putMany(1, 50);
  loop->advance(seconds(60));
  EXPECT_EQ(viewer->ports.size(), 99U);
  EXPECT_EQ(viewer->ports.state(), TableState::stale);
  EXPECT_EQ(link.connections(), 2U);  // it says that it is there
  agent->putMany(50, 90);
  agent->publisher.completeIs(true);
  loop->advance(seconds(1));
  expectSame();
  EXPECT_EQ(viewer->ports.size(), 89U);
}

// Lesson: no queue for a subscriber, so that none grows and none is cut off for being slow.
// What is told of a table that waits for its first rows stays true when the publisher is found.
TEST_F(LinkTest, TableOfAnIncompletePublisherIsNotSaidToBeUnconnected) {
  agent->publisher.completeIs(false);
  std::string states;
  const auto write = [&](TableState state, const std::string& text) {
    states += std::to_string(static_cast<int>(state)) + " " + text + "; ";
  };
  TableReader<Port> early(viewer->ports, loop, writeDown());
  early.onState(write);
  connect();
  loop->advance(seconds(20));
  EXPECT_TRUE(viewer->subscriber.status().isConnected);
  EXPECT_EQ(states, "0 nothing has come from the publisher yet; ");
  states.clear();
  TableReader<Port> late(viewer->ports, loop, writeDown());
  late.onState(write);
  loop->runUntilQuiet();
  EXPECT_EQ(states, "0 rows come from portAgent; ");
  states.clear();
  agent->publisher.completeIs(true);
  loop->runUntilQuiet();
  EXPECT_EQ(states, "1 ; 1 ; ");
}

TEST_F(LinkTest, SlowSubscriberIsToldTheLastValuesAndHowManyWereMerged) {
  connect();
  loop->runUntilQuiet();
  link.roomIs(0);
  for (oid_t i = 1; i <= 5000; ++i) {
    agent->put(port(i % 10 + 1, "value" + std::to_string(i)));
    loop->runUntilQuiet();
    ASSERT_LE(agent->publisher.subscribers().at(0).unsent, 256U * 1024);
  }
  const std::uint64_t before = link.bytesToSubscriber();
  link.roomIs(65536);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_LT(link.bytesToSubscriber() - before, 200000U);
  EXPECT_GT(viewer->subscriber.status().merged, 0U);
  EXPECT_EQ(link.connections(), 1U);
}

TEST_F(LinkTest, SlowSubscriberHoldsUpNobody) {
  Korvo::TestLink other;
  Viewer fast(loop);
  agent->publisher.accept(other.publisherEnd());
  fast.subscriber.connect(other.subscriberEnd());
  connect();
  link.roomIs(0);
  agent->putMany(1, 3000);
  loop->runUntilQuiet();
  EXPECT_EQ(contents(fast.ports), contents(agent->ports));
  EXPECT_EQ(fast.ports.state(), TableState::current);
}

// Whoever does not read costs the rows that it is to be told once, and what waits to be sent.
TEST_F(LinkTest, MuteSubscriberCostsOneTableAtTheMost) {
  constexpr oid_t count = 1000;
  constexpr std::size_t besideARow = 128;  // whoever shares it, and the word on it
  constexpr std::size_t sending = std::size_t{256} * 1024;
  const auto name = [](int round) { return std::string(200, static_cast<char>('a' + round % 26)); };
  agent->putMany(1, count + 1, name(0));
  connect();
  loop->runUntilQuiet();
  const std::uint64_t acknowledged = agent->publisher.sequence();
  const std::size_t tableBytes = count * std::size_t{port(1, name(0) + "1000").rowLength()};
  const std::size_t before = memoryTaken();
  const std::uint64_t bytesBefore = link.bytesToSubscriber();
  int round = 0;
  const auto change = [&] {
    agent->putMany(1, count + 1, name(++round));
    loop->advance(milliseconds(100));
    return memoryTaken();
  };
  link.roomIs(0);
  std::size_t most = 0;
  for (int i = 0; i < 30; ++i) most = std::max(most, change());
  EXPECT_LE(most, before + sending);

  // After so long the publisher keeps the rest of the round, of which only a part is taken.
  link.roomIs(30'000);
  loop->run(4, 0.0, true);
  link.roomIs(0);
  const std::uint64_t received = link.bytesToSubscriber() - bytesBefore;
  EXPECT_LT(received, tableBytes / 2);
  for (int i = 0; i < 60; ++i) most = std::max(most, change());
  if (before != 0) {  // valgrind's heap counts nothing
    EXPECT_GE(most, before + tableBytes / 2);
  }
  EXPECT_LE(most, before + tableBytes + count * besideARow + sending + received);

  const auto status = agent->publisher.subscribers().at(0);
  EXPECT_EQ(status.lag, agent->publisher.sequence() - acknowledged);
  EXPECT_EQ(status.lagRows, count);
  EXPECT_LE(status.unsent, sending);
  link.roomIs(65536);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(link.connections(), 1U);
}

TEST_F(LinkTest, RowsBehindAreCountedInAHistoryThatGoesOn) {
  agent->putMany(1, 10);
  agent->publisher.historyIs(1, 100);
  const auto lagRows = [this] { return agent->publisher.subscribers().at(0).lagRows; };
  link.roomIs(1000);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(lagRows(), 0U);
  link.roomIs(0);
  agent->put(port(3, "new"), port(20, "new"));
  agent->remove(4);
  loop->runUntilQuiet();
  EXPECT_EQ(agent->publisher.subscribers().at(0).lag, 2U);
  EXPECT_EQ(lagRows(), 3U);
  agent->putMany(1, 4, "all");
  agent->putMany(5, 21, "all");
  EXPECT_EQ(lagRows(), 20U);
}

TEST_F(LinkTest, TableThatChangesFasterThanItIsSentComesToAMark) {
  agent->putMany(1, 200);
  link.roomIs(300);
  connect();
  std::uint64_t marks = 0;
  for (int i = 0; i < 20000 && marks < 3; ++i) {
    agent->put(port(static_cast<oid_t>(i) % 199 + 1, "v" + std::to_string(i)));
    loop->run(3, 0.0, true);
    marks = viewer->subscriber.status().marks;
  }
  EXPECT_GE(marks, 3U);
  EXPECT_EQ(link.connections(), 1U);
  loop->runUntilQuiet();
  expectSame();
}

TEST_F(LinkTest, StaleRowsAreRemovedAtTheLimit) {
  viewer.emplace(loop,
                 Korvo::SubscriberOptions{.name = "viewer", .staleLimit = milliseconds(30000)});
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  link.isDownIs(true);
  link.cut();
  loop->advance(seconds(29));
  EXPECT_EQ(viewer->ports.size(), 9U);
  loop->advance(seconds(2));
  EXPECT_EQ(viewer->ports.size(), 0U);
  EXPECT_EQ(told(), "removed 1, removed 2, removed 3, removed 4, removed 5, 9; ");
  EXPECT_EQ(viewer->ports.state(), TableState::stale);
  link.isDownIs(false);
  loop->advance(seconds(20));
  expectSame();
}

// What was told to be as it was counts as told, also when the old rows go before the mark.
TEST_F(LinkTest, StaleRowsThatAreRemovedDuringARoundComeWithItsMark) {
  viewer.emplace(loop,
                 Korvo::SubscriberOptions{.name = "viewer", .staleLimit = milliseconds(30000)});
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  agent.reset();
  agent.emplace(loop);
  agent->publisher.completeIs(false);
  agent->publisher.accept(link.publisherEnd());
  agent->putMany(1, 8);
  agent->put(port(8, "another"));
  loop->advance(seconds(40));
  EXPECT_EQ(viewer->ports.size(), 0U);
  agent->publisher.completeIs(true);
  loop->advance(seconds(1));
  EXPECT_EQ(viewer->ports.size(), 8U);
  expectSame();
  agent->put(port(3, "changed"));
  agent->remove(5);
  loop->advance(seconds(1));
  expectSame();
  EXPECT_EQ(link.connections(), 2U);
}

/// A host's channel, which writes traces down.
class Channel final : public Velto::DebugChannel {
 public:
  explicit Channel(std::ostringstream& to) : to_(to) { levelMaskIs(1U << 4 | 1U << 5); }
  void trace(std::ostringstream& text, unsigned int level, const char*, unsigned int,
             const char*) override {
    to_ << level << text.str() << '\n';
  }

 private:
  std::ostringstream& to_;
};

TEST_F(LinkTest, LinksAreTraced) {
  std::ostringstream published;
  std::ostringstream subscribed;
  agent->publisher.debugChannelIs(new Channel(published), true);
  viewer.emplace(loop, Korvo::SubscriberOptions{.name = "viewer"});
  viewer->subscriber.debugChannelIs(new Channel(subscribed), true);
  connect();
  loop->runUntilQuiet();
  link.cut();
  loop->runUntilQuiet();
  EXPECT_EQ(published.str(),
            "4: viewer subscribes net/port net/link\n4: viewer is gone: the link was cut\n");
  EXPECT_EQ(subscribed.str(),
            "4: net/port comes from portAgent\n4: net/link comes from portAgent\n"
            "4: the link is lost: the link was cut\n");
}

TEST_F(LinkTest, WhatCannotBeTakenIsTraced) {
  std::ostringstream subscribed;
  Table<Link> notPorts("net/port");
  Korvo::TableSubscriber other(loop, {.name = "other"});
  other.debugChannelIs(new Channel(subscribed), true);
  other.add(notPorts);
  agent->publisher.accept(link.publisherEnd());
  other.connect(link.subscriberEnd());
  loop->runUntilQuiet();
  EXPECT_EQ(subscribed.str(), "5: net/port: net/port: Layout refused - (row type 7, here 8)\n");
}

TEST_F(LinkTest, RefusesWhatCannotBeSubscribed) {
  using Korvo::KoInvalidArgument;
  using Options = Korvo::SubscriberOptions;
  EXPECT_THROW(Korvo::TableSubscriber(loop, Options{.name = std::string(256, 'x')}),
               KoInvalidArgument);
  EXPECT_THROW(Korvo::TableSubscriber(loop, Options{.heartbeat = milliseconds(99)}),
               KoInvalidArgument);
  EXPECT_THROW(Korvo::TableSubscriber(loop, Options{.heartbeat = milliseconds(60001)}),
               KoInvalidArgument);
  Korvo::TableSubscriber subscriber(loop);
  Table<Port> longName(std::string(256, 'x'));
  EXPECT_THROW(subscriber.add(longName), KoInvalidArgument);
  EXPECT_THROW(subscriber.add(agent->ports), KoInvalidArgument);   // published
  EXPECT_THROW(subscriber.add(viewer->ports), KoInvalidArgument);  // subscribed
  Table<Port> ports("net/port");
  Table<Port> again("net/port");
  subscriber.add(ports);
  EXPECT_THROW(subscriber.add(again), KoInvalidArgument);
  agent->publisher.accept(link.publisherEnd());
  subscriber.connect(link.subscriberEnd());
  loop->runUntilQuiet();
  EXPECT_EQ(ports.state(), TableState::current);
}

TEST_F(LinkTest, HistoryIsNotChangedUnderSubscribers) {
  connect();
  loop->runUntilQuiet();
  EXPECT_THROW(agent->publisher.historyIs(7, 100), Korvo::KoInvalidArgument);
  agent->put(port(1, "eth1"));
  loop->runUntilQuiet();
  expectSame();
}

// A history may be as long as its number allows; whoever stands far behind is told all rows.
TEST_F(LinkTest, HistoriesAreOfAnyLength) {
  agent->putMany(1, 20);
  agent->remove(3);
  agent->publisher.historyIs(77, 5'000'000'000);
  agent->put(port(4, "far"));
  connect();
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(agent->publisher.sequence(), 5'000'000'001U);
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  link.isDownIs(true);
  link.cut();
  loop->runUntilQuiet();
  agent->remove(5);
  agent->publisher.historyIs(77, 1'000'000'000'000);
  agent->put(port(6, "farther"));
  agent->remove(7);
  link.isDownIs(false);
  loop->advance(seconds(20));
  EXPECT_EQ(told(), "removed 5, changed 6, removed 7, 3; ");
  expectSame();
}

// More layouts than a WELCOME holds: the tables for which there is no room are refused, in words.
TEST_F(LinkTest, LayoutsThatAreTooLongTogetherAreRefusedInWords) {
  constexpr int tables = 6;
  std::string columns;
  for (int i = 0; i < 4000; ++i) {
    const std::string number = std::to_string(i);
    columns += "c" + number + std::string(40, 'x') + " uint8_t @" + std::to_string(8 + i) + '\n';
  }
  const Korvo::DynamicLayout layout("row 9 base 4008 {\n" + columns + "}\n");
  std::vector<std::unique_ptr<Korvo::LearnedTable>> sent;
  std::vector<std::unique_ptr<Korvo::LearnedTable>> copies;
  for (int i = 0; i < tables; ++i) {
    const std::string name = "wide" + std::to_string(i);
    sent.push_back(std::make_unique<Korvo::LearnedTable>(name, layout));
    agent->publisher.add(*sent.back());
    copies.push_back(std::make_unique<Korvo::LearnedTable>(name, layout));
    viewer->subscriber.add(*copies.back());
  }
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(copies.front()->state(), TableState::current);
  EXPECT_EQ(copies.back()->state(), TableState::refused);
  EXPECT_EQ(copies.back()->stateText(), "the layouts of all tables are too long");
  expectSame();
}

TEST_F(LinkTest, LinksAreCutAtOnceWithoutAByteMore) {
  EXPECT_FALSE(link.isConnected());
  connect();
  loop->runUntilQuiet();
  EXPECT_TRUE(link.isConnected());
  const auto before = loop->now();
  link.cutAfter(0);
  EXPECT_FALSE(link.isConnected());
  loop->advance(seconds(1));
  EXPECT_TRUE(link.isConnected());
  link.cutAfterToPublisher(0);
  EXPECT_FALSE(link.isConnected());
  loop->advance(seconds(1));
  EXPECT_EQ(link.connections(), 3U);
  EXPECT_EQ(loop->now() - before, seconds(2));
  expectSame();
}

TEST_F(LinkTest, TableThatAUserMayNotHaveIsRefusedInWords) {
  agent.emplace(loop, Korvo::PublisherOptions{
                          .mayHave = [](const std::string& table, std::optional<uid_t> user) {
                            return table != "net/port" || user == uid_t{7};
                          }});
  agent->putMany(1, 10);
  agent->put(tabletest::link(1, true));
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(viewer->ports.state(), TableState::refused);
  EXPECT_EQ(viewer->ports.stateText(), "portAgent does not give net/port to an unknown user");
  EXPECT_EQ(viewer->ports.size(), 0U);
  EXPECT_EQ(viewer->links.state(), TableState::current);
  EXPECT_EQ(viewer->links.size(), 1U);
  link.peerUserIs(7);  // who may not subscribe at all
  link.cut();
  loop->advance(seconds(20));
  EXPECT_EQ(viewer->subscriber.status().lastReason,
            "the publisher ended: user 7 may not subscribe");
  agent.emplace(
      loop, Korvo::PublisherOptions{
                .users = {7}, .mayHave = [](const std::string& table, std::optional<uid_t> user) {
                  return table != "net/link" && user == uid_t{7};
                }});
  agent->publisher.accept(link.publisherEnd());
  loop->advance(seconds(20));
  EXPECT_EQ(viewer->ports.state(), TableState::current);
  EXPECT_EQ(viewer->links.stateText(), "portAgent does not give net/link to user 7");
}

TEST_F(LinkTest, ConnectionsWithoutAMarkDoNotMakeAttemptsFrequent) {
  struct Closing final : Korvo::ByteConnector {
    std::unique_ptr<Korvo::ByteStream> connect() override {
      ++attempts;
      auto end = link.subscriberEnd()->connect();
      link.cut();
      return end;
    }
    Korvo::TestLink link;
    int attempts = 0;
  };
  const auto closing = std::make_shared<Closing>();
  agent->publisher.accept(closing->link.publisherEnd());
  viewer->subscriber.connect(closing);
  loop->advance(std::chrono::minutes(10));
  EXPECT_GT(closing->attempts, 100);
  EXPECT_LT(closing->attempts, 500);
}

TEST_F(LinkTest, MarkMakesTheNextAttemptsFrequent) {
  connect();
  loop->advance(seconds(1));
  link.isDownIs(true);
  link.cut();
  loop->advance(std::chrono::minutes(10));  // the pauses have become long
  link.isDownIs(false);
  loop->advance(seconds(6));
  ASSERT_EQ(viewer->ports.state(), TableState::current);
  for (int i = 0; i < 50; ++i) {
    link.cut();
    loop->advance(milliseconds(51));
    EXPECT_EQ(viewer->ports.state(), TableState::current) << i;
  }
}

TEST_F(LinkTest, RowsThatDifferInGapsAreNotTold) {
  agent->putMany(1, 3);
  connect();
  loop->runUntilQuiet();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  restart();
  Port longer = port(1, "a longer name");
  longer.set<"name">("eth1");  // where the longer one stood
  agent->put(longer, port(2, "eth2"));
  loop->advance(seconds(20));
  EXPECT_EQ(told(), "");
  expectSame();
}

// Lesson: no reconnect storms.
TEST_F(LinkTest, AttemptsToConnectBecomeRare) {
  link.isDownIs(true);
  connect();
  struct Counter final : Korvo::ByteConnector {
    std::unique_ptr<Korvo::ByteStream> connect() override {
      ++attempts;
      throw std::system_error(ECONNREFUSED, std::generic_category(), "nobody");
    }
    int attempts = 0;
  };
  const auto counter = std::make_shared<Counter>();
  viewer->subscriber.connect(counter);
  loop->advance(std::chrono::minutes(10));
  EXPECT_GT(counter->attempts, 100);  // 2.5 seconds apart on the average
  EXPECT_LT(counter->attempts, 500);
}

TEST_F(LinkTest, UnknownTableIsRefusedInWordsAndOthersAreNot) {
  Table<Port> others("net/other");
  viewer->subscriber.add(others);
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(others.state(), TableState::refused);
  EXPECT_EQ(others.stateText(), "portAgent has no table net/other");
  Table<Port> published("net/other");
  agent->publisher.add(published);
  loop->advance(seconds(20));
  EXPECT_EQ(others.state(), TableState::current);
  expectSame();
}

TEST_F(LinkTest, PublisherThatGoesIsToldInWords) {
  connect();
  loop->runUntilQuiet();
  agent.reset();
  loop->runUntilQuiet();
  EXPECT_EQ(viewer->ports.state(), TableState::stale);
  EXPECT_EQ(viewer->ports.stateText().find("the publisher ended"), 0U);
}

TEST_F(LinkTest, SubscribedTableIsWrittenByTheSubscriptionOnly) {
  Batch batch(viewer->ports);
  batch.put(port(1, "mine"));
  EXPECT_THROW(batch.commit(), Korvo::KoInvalidArgument);
  EXPECT_THROW(agent->publisher.add(viewer->ports), Korvo::KoInvalidArgument);
  EXPECT_THROW(viewer->subscriber.add(agent->ports), Korvo::KoInvalidArgument);
  EXPECT_THROW(agent->publisher.add(agent->ports), Korvo::KoInvalidArgument);
}

TEST_F(LinkTest, RowsMaySwapUniqueNamesInACopy) {
  viewer->ports.unique<"name">();
  agent->put(port(1, "a"), port(2, "b"));
  connect();
  loop->runUntilQuiet();
  agent->put(port(1, "b"), port(2, "a"));
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(viewer->ports.unique<"name">().find("a").rowOid(), 2U);
}

// Lesson: what is called may free its caller.
TEST_F(LinkTest, AnythingMayGoInACallback) {
  agent->putMany(1, 100);
  connect();
  const TableReader<Port> reader(viewer->ports, loop, [&](const Korvo::Changes<Port>&) {
    agent.reset();
    viewer.reset();
  });
  loop->advance(seconds(20));
  EXPECT_FALSE(agent.has_value());
}

TEST_F(LinkTest, DestroyedTablesEndWhatHungOnThem) {
  auto extra = std::make_unique<Table<Port>>("net/extra");
  auto copy = std::make_unique<Table<Port>>("net/extra");
  agent->publisher.add(*extra);
  viewer->subscriber.add(*copy);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(copy->state(), TableState::current);
  extra.reset();
  loop->advance(seconds(20));
  EXPECT_EQ(copy->state(), TableState::refused);
  copy.reset();
  agent->putMany(1, 10);
  loop->advance(seconds(20));
  expectSame();
}

TEST_F(LinkTest, TableThatTookAnothersPlaceIsToldAsAWhole) {
  auto extra = std::make_unique<Table<Port>>("net/extra");
  Table<Port> copy("net/extra");
  agent->publisher.add(*extra);
  viewer->subscriber.add(copy);
  Batch batch(*extra);
  batch.put(port(1, "old"));
  batch.put(port(2, "old"));
  batch.commit();
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(copy.size(), 2U);
  extra = std::make_unique<Table<Port>>("net/extra");
  agent->publisher.add(*extra);
  loop->advance(seconds(20));
  EXPECT_EQ(copy.size(), 0U);
  EXPECT_EQ(copy.state(), TableState::current);
  expectSame();
}

// Lesson: a layout mismatch must not look like a connection.
struct OldPortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::int16_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"gone", std::uint32_t>> {};
using OldPort = Korvo::TableRow<OldPortLayout>;
struct OtherLayout : Korvo::RowLayout<7, Korvo::Column<"name", bool>> {};

TEST_F(LinkTest, AnotherLayoutIsConvertedByName) {
  Table<OldPort> old("net/old");
  Table<Port> copy("net/old");
  OldPort row;
  row.create(5);
  row.set<"name">("eth5");
  row.set<"speed">(-100);
  Batch batch(old);
  batch.put(row);
  batch.commit();
  agent->publisher.add(old);
  viewer->subscriber.add(copy);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(copy.state(), TableState::current) << copy.stateText();
  EXPECT_EQ(copy.find(5).get<"name">(), "eth5");
  EXPECT_EQ(copy.find(5).get<"speed">(), -100);
  expectSame();
}

TEST_F(LinkTest, LayoutThatCannotBeTakenIsRefusedInWords) {
  Table<Korvo::TableRow<OtherLayout>> other("net/other");
  Table<Port> copy("net/other");
  agent->publisher.add(other);
  viewer->subscriber.add(copy);
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(copy.state(), TableState::refused);
  EXPECT_EQ(copy.stateText(), "net/other: Layout refused - (column \"name\": bool, here string_t)");
  expectSame();
  agent->put(port(3, "later"));
  loop->runUntilQuiet();
  expectSame();
}

TEST_F(LinkTest, TooManyWaitingBytesRefuseTheTableAlone) {
  viewer.emplace(loop, Korvo::SubscriberOptions{.name = "viewer", .mostWaitingBytes = 20000});
  agent->putMany(1, 1000);
  agent->put(tabletest::link(1, true));
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(viewer->ports.state(), TableState::refused);
  EXPECT_EQ(viewer->ports.stateText(), "more than 20000 bytes wait for a mark");
  EXPECT_EQ(viewer->links.state(), TableState::current);
  EXPECT_EQ(viewer->links.size(), 1U);
}

TEST_F(LinkTest, RowOfFullSizeGoesThrough) {
  std::string name(32767, 'x');
  agent->put(port(1, name), port(2, "b"));
  connect();
  loop->runUntilQuiet();
  expectSame();
}

struct LongLayout : Korvo::RowLayout<9, Korvo::Column<"first", std::string>,
                                     Korvo::Column<"second", std::string>> {};

// Each limit holds a row of the greatest length.
TEST_F(LinkTest, RowOfTheGreatestLengthGoesThrough) {
  using Long = Korvo::TableRow<LongLayout>;
  Table<Long> rows("net/long");
  Table<Long> copy("net/long");
  Long row;
  row.create(1);
  row.set<"first">(std::string(32767, 'a'));
  row.set<"second">(std::string(Korvo::maxRowLength - row.rowLength(), 'b'));
  ASSERT_EQ(row.rowLength(), Korvo::maxRowLength);
  Batch batch(rows);
  batch.put(row);
  batch.commit();
  agent->publisher.add(rows);
  viewer->subscriber.add(copy);
  link.roomIs(1000);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(contents(copy), contents(rows));
  EXPECT_EQ(copy.state(), TableState::current);
}

TEST_F(LinkTest, SubscriptionHas256TablesAtTheMost) {
  std::vector<std::unique_ptr<Table<Link>>> tables;
  for (int i = 2; i < 257; ++i) {
    tables.push_back(std::make_unique<Table<Link>>("net/" + std::to_string(i)));
    if (i < 256) viewer->subscriber.add(*tables.back());
  }
  EXPECT_THROW(viewer->subscriber.add(*tables.back()), Korvo::KoInvalidArgument);
  connect();
  loop->runUntilQuiet();
  expectSame();
  tables.front().reset();  // makes room
  viewer->subscriber.add(*tables.back());
  loop->advance(seconds(20));
  EXPECT_EQ(tables.back()->state(), TableState::refused);  // as the publisher has no such table
  expectSame();
}

TEST_F(LinkTest, PeopleAreToldOfSubscribers) {
  viewer.emplace(loop, Korvo::SubscriberOptions{.name = "viewer"});
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  const auto subscribers = agent->publisher.subscribers();
  ASSERT_EQ(subscribers.size(), 1U);
  EXPECT_EQ(subscribers[0].name, "viewer");
  EXPECT_EQ(subscribers[0].tables, (std::vector<std::string>{"net/port", "net/link"}));
  EXPECT_EQ(subscribers[0].lag, 0U);
  EXPECT_EQ(subscribers[0].lagRows, 0U);
  EXPECT_EQ(subscribers[0].reconnects, 0U);
  EXPECT_EQ(subscribers[0].lastReason, "");
  EXPECT_EQ(viewer->subscriber.status().publisher, "portAgent");
}

TEST_F(LinkTest, PeopleAreToldHowFarASubscriberIsBehindAndHowOftenItCame) {
  viewer.emplace(loop, Korvo::SubscriberOptions{.name = "viewer"});
  agent->putMany(1, 10);
  connect();
  loop->runUntilQuiet();
  for (int i = 0; i < 2; ++i) {
    link.cut();
    loop->advance(seconds(1));
  }
  link.roomIs(0);
  for (int i = 0; i < 100; ++i) agent->put(port(1, std::to_string(i)), port(2, "b"));
  agent->remove(3);
  loop->runUntilQuiet();
  const auto subscribers = agent->publisher.subscribers();
  ASSERT_EQ(subscribers.size(), 1U);
  EXPECT_EQ(subscribers[0].lag, 101U);
  EXPECT_EQ(subscribers[0].lagRows, 3U);  // 1, 2 and the removal
  EXPECT_EQ(subscribers[0].reconnects, 2U);
  EXPECT_EQ(subscribers[0].lastReason, "the link was cut");
  link.roomIs(65536);
  loop->runUntilQuiet();
  EXPECT_EQ(agent->publisher.subscribers().at(0).lagRows, 0U);
}

}  // namespace
