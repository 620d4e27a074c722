// Ten things that distributing tables taught others the hard way, each a property of this system.

#include "table_link_support.h"

#include <set>

namespace {

using namespace tabletest;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;
using Korvo::TableState;

class TenLessons : public LinkTest {
 protected:
  void runTurns(int count) {
    for (int i = 0; i < count; ++i) loop->run(1, 0.0, true);
  }
};

// Whoever guesses the end of the first rows, from nothing pending or from a position, ends too
// early, never, or not at all where there are no rows.
TEST_F(TenLessons, EndOfFirstRowsIsAMessage) {
  agent->publisher.completeIs(false);  // so that the message does not come
  agent->putMany(1, 100);
  connect();
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  const TableReader<Link> links(viewer->links, loop,
                                [&](const auto& changes) { told_ << "links " << changes.first(); });
  loop->advance(seconds(60));  // every row has come, and nothing else does
  EXPECT_GT(link.bytesToSubscriber(), 2000U);
  EXPECT_EQ(viewer->ports.state(), TableState::loading);
  EXPECT_TRUE(viewer->ports.empty());
  EXPECT_EQ(told(), "");
  agent->publisher.completeIs(true);
  loop->runUntilQuiet();
  expectSame();
  EXPECT_NE(told().find("links 1"), std::string::npos);  // the empty table ended, too
}

// First rows over one way and changes over another overtake each other.
TEST_F(TenLessons, RowsAndChangesGoThroughOnePipe) {
  agent->putMany(1, 300);
  link.roomIs(100);
  link.pieceIs(33);
  connect();
  bool isState = true;
  std::set<std::map<oid_t, std::string>> states = {contents(agent->ports)};
  const TableReader<Port> reader(viewer->ports, loop, [&](const auto&) {
    isState = isState && states.contains(contents(viewer->ports));
  });
  for (oid_t i = 1; i < 200; ++i) {
    agent->put(port(i, "later"));
    agent->remove(i + 100);
    agent->put(port(i + 1000, "new"));
    states.insert(contents(agent->ports));
    runTurns(5);
  }
  loop->runUntilQuiet();
  EXPECT_TRUE(isState);
  expectSame();
}

// A number that counts another history leads anywhere.
TEST_F(TenLessons, PositionCarriesTheNameOfItsHistory) {
  agent->putMany(1, 50);
  for (int i = 0; i < 20; ++i) agent->put(port(1, "old" + std::to_string(i)));
  connect();
  loop->runUntilQuiet();
  const std::uint64_t epoch = agent->publisher.epoch();
  restart();
  EXPECT_NE(agent->publisher.epoch(), epoch);
  // The new history has come as far as the old one had, with other rows.
  agent->putMany(10, 20);
  while (agent->publisher.sequence() < 21) {
    agent->put(port(10, std::to_string(agent->publisher.sequence())));
  }
  loop->advance(seconds(20));
  expectSame();
  // Nobody had to find out by what he got.
  EXPECT_EQ(viewer->problems, std::vector<std::string>{});
  EXPECT_EQ(link.connections(), 2U);
}

// "I cannot continue from there" is no error: one walk from the beginning, and only differences are
// told.
TEST_F(TenLessons, PositionThatIsGoneIsANormalAnswer) {
  agent->putMany(1, 1000);
  connect();
  loop->runUntilQuiet();
  link.isDownIs(true);
  link.cut();
  loop->runUntilQuiet();
  agent->remove(8);
  agent->putMany(2000, 72000, "");
  {
    Korvo::Batch batch(agent->ports);
    for (oid_t oid = 2000; oid < 72000; ++oid) batch.remove(oid);
    batch.commit();  // more removals than are remembered: that of row 8 is not
  }
  agent->put(port(7, "changed"));
  const TableReader<Port> reader(viewer->ports, loop, writeDown());
  loop->runUntilQuiet();
  told();
  link.isDownIs(false);
  loop->advance(seconds(20));
  EXPECT_EQ(told(), "changed 7, removed 8, 2; ");
  EXPECT_EQ(viewer->problems, std::vector<std::string>{});
  EXPECT_EQ(viewer->subscriber.status().connections, 2U);
  expectSame();
}

// A removal leaves nothing behind that could be met later: it has to be told, or found missing.
TEST_F(TenLessons, DeletionsAreNotLost) {
  agent->putMany(1, 100);
  connect();
  loop->runUntilQuiet();
  for (oid_t oid = 1; oid < 100; ++oid) {
    switch (oid % 4) {
      case 0:  // during the walk
        link.roomIs(50);
        agent->putMany(200, 210, std::to_string(oid));
        runTurns(3);
        agent->remove(oid);
        runTurns(3);
        link.roomIs(65536);
        break;
      case 1:  // while the link is lost
        link.cut();
        agent->remove(oid);
        break;
      case 2:  // by a publisher that starts without the row
        if (oid % 20 == 2) {
          const auto rows = contents(agent->ports);
          restart();
          for (const auto& [known, text] : rows) {
            if (known != oid) agent->put(port(known, "eth" + std::to_string(known)));
          }
        } else {
          agent->remove(oid);
        }
        break;
      default:  // and back
        agent->remove(oid);
        agent->put(port(oid, "back"));
        agent->remove(oid);
    }
    loop->advance(seconds(20));
    ASSERT_FALSE(viewer->ports.contains(oid)) << oid;
  }
  expectSame();
}

// What a slow subscriber has not read is no queue: nothing grows, nobody is cut off, and a gap
// costs the last values only.
TEST_F(TenLessons, SlowSubscriberHasNoQueue) {
  connect();
  loop->runUntilQuiet();
  link.roomIs(0);
  std::size_t unsent = 0;
  for (oid_t i = 1; i <= 20000; ++i) {
    agent->put(port(i % 10 + 1, std::string(200, 'x') + std::to_string(i)));
    loop->runUntilQuiet();
    unsent = std::max(unsent, agent->publisher.subscribers().at(0).unsent);
  }
  EXPECT_LE(unsent, 256U * 1024);  // of four million bytes
  const std::uint64_t before = link.bytesToSubscriber();
  link.roomIs(65536);
  loop->runUntilQuiet();
  EXPECT_LE(link.bytesToSubscriber() - before, 256U * 1024);
  EXPECT_EQ(link.connections(), 1U);
  expectSame();
}

// A link that died without a word looks like one on which nothing happens.
TEST_F(TenLessons, SilenceIsNotPeace) {
  agent->putMany(1, 10);
  connect();
  loop->advance(seconds(60));  // nothing happens, and both sides know that the other one is there
  EXPECT_EQ(viewer->ports.state(), TableState::current);
  EXPECT_EQ(link.connections(), 1U);
  link.roomIs(0);  // dead without a word
  agent->put(port(1, "news"));
  loop->advance(seconds(16));
  EXPECT_EQ(viewer->ports.state(), TableState::stale);
  EXPECT_NE(viewer->ports.stateText(), "");
}

// A thousand subscribers that come back at once, and every second, are an attack.
TEST_F(TenLessons, ReconnectsAreNoStorm) {
  struct Counter final : Korvo::ByteConnector {
    std::unique_ptr<Korvo::ByteStream> connect() override {
      ++attempts;
      throw std::system_error(ECONNREFUSED, std::generic_category(), "nobody");
    }
    int attempts = 0;
  };
  constexpr int subscribers = 200;
  const auto counter = std::make_shared<Counter>();
  std::vector<std::unique_ptr<Korvo::TableSubscriber>> all;
  for (int i = 0; i < subscribers; ++i) {
    all.push_back(std::make_unique<Korvo::TableSubscriber>(loop));
    all.back()->connect(counter);
  }
  loop->advance(seconds(60));
  int most = 0;
  const int before = counter->attempts;
  for (int i = 0; i < 600; ++i) {
    const int attempts = counter->attempts;
    loop->advance(milliseconds(100));
    most = std::max(most, counter->attempts - attempts);
  }
  EXPECT_LT(counter->attempts - before, subscribers * 60);  // less than one a second each
  EXPECT_GT(counter->attempts - before, subscribers * 60 / 5);
  EXPECT_LT(most, subscribers / 5);  // not together
}

// Whatever is called may end its caller, and any other part.
TEST_F(TenLessons, CallbacksMayFreeTheirCaller) {
  for (int what = 0; what < 6; ++what) {
    SCOPED_TRACE(what);
    agent.emplace(loop);
    viewer.emplace(loop);
    agent->putMany(1, 20);
    bool isCalled = false;
    std::unique_ptr<TableReader<Port>> reader;
    const auto end = [&] {
      isCalled = true;
      switch (what) {
        case 0:
          reader.reset();
          break;
        case 1:
        case 4:
          viewer.reset();
          break;
        case 2:
        case 5:
          agent.reset();
          break;
        default:
          reader.reset();
          viewer.reset();
          agent.reset();
      }
    };
    reader = std::make_unique<TableReader<Port>>(viewer->ports, loop, [&](const auto&) {
      if (what < 4) end();
    });
    reader->onState([&](TableState, const std::string&) {
      if (what >= 4) end();
    });
    connect();
    loop->advance(seconds(30));
    EXPECT_TRUE(isCalled);
    reader.reset();
  }
}

struct NarrowLayout
    : Korvo::RowLayout<7, Korvo::Column<"name", std::string>, Korvo::Column<"speed", std::int16_t>,
                       Korvo::Column<"extra", std::uint64_t>> {};
struct WrongLayout : Korvo::RowLayout<7, Korvo::Column<"name", std::uint64_t>> {};
struct OtherTypeLayout : Korvo::RowLayout<9, Korvo::Column<"name", std::string>> {};

// Two layouts must not meet as bytes: they are converted by name, or refused in words.
TEST_F(TenLessons, LayoutMismatchIsConvertedOrRefusedInWords) {
  using Narrow = Korvo::TableRow<NarrowLayout>;
  Table<Narrow> narrow("net/narrow");
  Table<Korvo::TableRow<WrongLayout>> wrong("net/wrong");
  Table<Korvo::TableRow<OtherTypeLayout>> otherType("net/type");
  Table<Port> narrowCopy("net/narrow");
  Table<Port> wrongCopy("net/wrong");
  Table<Port> otherTypeCopy("net/type");
  Korvo::Batch batch(narrow);
  Narrow row;
  row.create(1);
  row.set<"name">("eth0");
  row.set<"speed">(-7);
  row.set<"extra">(0x6574680000000000);
  batch.put(row);
  batch.commit();
  agent->publisher.add(narrow);
  agent->publisher.add(wrong);
  agent->publisher.add(otherType);
  viewer->subscriber.add(narrowCopy);
  viewer->subscriber.add(wrongCopy);
  viewer->subscriber.add(otherTypeCopy);
  connect();
  loop->runUntilQuiet();
  EXPECT_EQ(narrowCopy.find(1).get<"name">(), "eth0");
  EXPECT_EQ(narrowCopy.find(1).get<"speed">(), -7);
  EXPECT_EQ(wrongCopy.state(), TableState::refused);
  EXPECT_EQ(wrongCopy.stateText(),
            "net/wrong: Layout refused - (column \"name\": uint64_t, here string_t)");
  EXPECT_EQ(otherTypeCopy.state(), TableState::refused);
  EXPECT_EQ(otherTypeCopy.stateText(), "net/type: Layout refused - (row type 9, here 7)");
  EXPECT_EQ(viewer->problems.size(), 2U);
  expectSame();  // the others go on
}

}  // namespace
