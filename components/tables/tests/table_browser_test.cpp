// Asking a publisher what it has, and subscribing to what it told without its layouts at hand.

#include <Korvo/LearnedTable.h>
#include <Korvo/TableBrowser.h>
#include <Korvo/TableEngine.h>

#include "table_link_support.h"
#include "wire_frames.h"

namespace {

using namespace tabletest;
using Korvo::LearnedTable;
using Korvo::PublisherInfo;
using Korvo::TableState;

struct Asker {
  explicit Asker(const std::shared_ptr<Korvo::TestLoop>& loop) : browser(loop, {.name = "asker"}) {
    browser.onAnswer([this](const PublisherInfo& info) {
      ++answers;
      told = info;
    });
    browser.onFailure([this](const std::string& text) { failures.push_back(text); });
  }
  Korvo::TableBrowser browser;
  PublisherInfo told;
  int answers = 0;
  std::vector<std::string> failures;
};

class TableBrowserTest : public LinkTest {
 protected:
  TableBrowserTest() {
    agent->publisher.accept(asking.publisherEnd());
    asker.browser.connect(asking.subscriberEnd());
  }
  void ask() {
    asker.browser.ask();
    loop->runUntilQuiet();
  }
  Korvo::TestLink asking;
  Asker asker{loop};
};

TEST_F(TableBrowserTest, IsToldTablesAndSubscribers) {
  connect();
  agent->put(port(1, "eth1"), port(2, "eth2"));
  agent->put(port(3, "eth3"));
  loop->runUntilQuiet();
  ask();
  ASSERT_EQ(asker.answers, 1);
  const PublisherInfo& told = asker.told;
  EXPECT_EQ(told.name, "portAgent");
  EXPECT_EQ(told.epoch, agent->publisher.epoch());
  EXPECT_EQ(told.sequence, 2U);
  EXPECT_TRUE(told.isComplete);
  ASSERT_EQ(told.tables.size(), 2U);
  EXPECT_EQ(told.tables[0].name, "net/port");
  EXPECT_EQ(told.tables[0].rows, 3U);
  EXPECT_EQ(told.tables[0].sequence, 2U);
  EXPECT_EQ(told.tables[0].layoutText, Korvo::layoutText(PortLayout::info));
  EXPECT_EQ(told.tables[0].fingerprint, Korvo::fingerprint<PortLayout>());
  EXPECT_EQ(told.tables[1].name, "net/link");
  EXPECT_EQ(told.tables[1].rows, 0U);
  // Whoever only asks is no subscriber.
  ASSERT_EQ(told.subscribers.size(), 1U);
  EXPECT_EQ(told.subscribers[0].name, "test");
  EXPECT_EQ(told.subscribers[0].tables, (std::vector<std::string>{"net/port", "net/link"}));
  EXPECT_EQ(told.subscribers[0].lag, 0U);
  EXPECT_EQ(agent->publisher.subscribers().size(), 1U);
  EXPECT_TRUE(asker.failures.empty());
}

TEST_F(TableBrowserTest, MayAskAgain) {
  ask();
  agent->put(port(1, "eth1"));
  agent->publisher.completeIs(false);
  ask();
  EXPECT_EQ(asker.answers, 2);
  EXPECT_EQ(asker.told.tables.at(0).rows, 1U);
  EXPECT_FALSE(asker.told.isComplete);
  EXPECT_EQ(asker.told.lastReason, "");  // nobody is lost by the end of a question
}

TEST_F(TableBrowserTest, WhatAUserMayNotHaveIsNotTold) {
  agent.emplace(
      loop, Korvo::PublisherOptions{.mayHave = [](const std::string& table, std::optional<uid_t>) {
        return table != "net/port";
      }});
  agent->publisher.accept(asking.publisherEnd());
  connect();
  loop->runUntilQuiet();
  ask();
  ASSERT_EQ(asker.answers, 1);
  ASSERT_EQ(asker.told.tables.size(), 1U);
  EXPECT_EQ(asker.told.tables[0].name, "net/link");
  ASSERT_EQ(asker.told.subscribers.size(), 1U);
  EXPECT_EQ(asker.told.subscribers[0].tables, std::vector<std::string>{"net/link"});
}

/// An engine that knows an answer, or none.
struct KnowingEngine : Korvo::TableEngine {
  struct Question : Korvo::TableQuestion {};
  std::shared_ptr<Korvo::TableSource> source(const std::string&,
                                             const Korvo::KoPtr<Korvo::Scheduler>&,
                                             const Korvo::SubscriberOptions&) override {
    return nullptr;
  }
  std::unique_ptr<Korvo::TableOutlet> outlet(const std::string&,
                                             const Korvo::KoPtr<Korvo::Scheduler>&,
                                             const Korvo::PublisherOptions&, Korvo::TableSender&,
                                             Korvo::TableOutlet::User&) override {
    return nullptr;
  }
  std::unique_ptr<Korvo::TableQuestion> ask(const std::string& address,
                                            const Korvo::KoPtr<Korvo::Scheduler>& scheduler,
                                            Korvo::TableQuestion::User& asking) override {
    if (address == "knowing:nobody") return TableEngine::ask(address, scheduler, asking);
    user = &asking;
    return std::make_unique<Question>();
  }
  Korvo::TableQuestion::User* user = nullptr;
};

TEST_F(TableBrowserTest, EnginesAreAskedToo) {
  const auto engine = std::make_shared<KnowingEngine>();
  Korvo::TableEngine::add("knowing", engine);
  Korvo::TableBrowser browser("knowing:all", loop);
  std::string told;
  browser.onAnswer([&](const PublisherInfo& info) { told += info.name + ";"; });
  browser.onFailure([&](const std::string& text) { told += text + ";"; });
  browser.ask();
  loop->runUntilQuiet();
  ASSERT_NE(engine->user, nullptr);
  PublisherInfo info;
  info.name = "far";
  engine->user->answerComes(info);
  loop->runUntilQuiet();
  browser.ask();
  loop->runUntilQuiet();
  engine->user->questionFails("gone");
  loop->runUntilQuiet();
  browser.ask();
  loop->advance(seconds(10));
  EXPECT_EQ(told, "far;gone;no answer for 10 seconds;");
  Korvo::TableBrowser cannot("knowing:nobody", loop);
  cannot.onFailure([&](const std::string& text) { told = text; });
  cannot.ask();
  loop->runUntilQuiet();
  EXPECT_EQ(told, "Not told what is published there - (knowing:nobody)");
  EXPECT_THROW(Korvo::TableBrowser("unknown:there", loop), Korvo::KoInvalidArgument);
}

TEST_F(TableBrowserTest, AnswersTakeTheirTurnsOverNarrowLinks) {
  std::vector<std::unique_ptr<Korvo::TestLink>> links;
  std::vector<std::unique_ptr<Viewer>> viewers;
  for (int i = 0; i < 100; ++i) {
    links.push_back(std::make_unique<Korvo::TestLink>());
    agent->publisher.accept(links.back()->publisherEnd());
    viewers.push_back(std::make_unique<Viewer>(
        loop, Korvo::SubscriberOptions{.name = "viewer" + std::to_string(i)}));
    viewers.back()->subscriber.connect(links.back()->subscriberEnd());
  }
  loop->runUntilQuiet();
  asking.roomIs(10);
  asking.pieceIs(3);
  ask();
  ASSERT_EQ(asker.answers, 1);
  ASSERT_EQ(asker.told.subscribers.size(), 100U);
  EXPECT_EQ(asker.told.subscribers[99].name, "viewer99");
}

TEST_F(TableBrowserTest, ACutAnywhereIsOneFailure) {
  ask();
  const std::uint64_t all = asking.bytesToSubscriber();
  ASSERT_EQ(asker.answers, 1);
  for (std::uint64_t cut = 1; cut < all; ++cut) {
    asking.cutAfter(cut);
    asker.failures.clear();
    ask();
    EXPECT_EQ(asker.answers, 1) << cut;
    EXPECT_EQ(asker.failures, std::vector<std::string>{"the link was cut"}) << cut;
  }
  ask();
  EXPECT_EQ(asker.answers, 2);
}

TEST_F(TableBrowserTest, TellsThatNobodyIsThere) {
  asking.isDownIs(true);
  ask();
  ASSERT_EQ(asker.failures.size(), 1U);
  EXPECT_EQ(asker.failures[0].substr(0, 9), "TestLink:");
  EXPECT_EQ(asker.answers, 0);
}

TEST_F(TableBrowserTest, TellsThatThePublisherEnded) {
  asking.roomIs(20);
  asker.browser.ask();
  agent.reset();
  loop->runUntilQuiet();
  EXPECT_EQ(asker.failures.size(), 1U);
}

TEST_F(TableBrowserTest, WaitsNoLongerThanItsPatience) {
  asking.roomIs(0);
  ask();
  loop->advance(milliseconds(9999));
  EXPECT_TRUE(asker.failures.empty());
  loop->advance(milliseconds(1));
  EXPECT_EQ(asker.failures, std::vector<std::string>{"no answer for 10 seconds"});
  loop->advance(seconds(30));
  EXPECT_EQ(asker.failures.size(), 1U);
}

TEST_F(TableBrowserTest, MayEndInItsOwnCallbacks) {
  std::optional<Korvo::TableBrowser> browser(std::in_place, loop);
  browser->connect(asking.subscriberEnd());
  int answers = 0;
  browser->onAnswer([&](const PublisherInfo&) {
    ++answers;
    browser.reset();
  });
  browser->ask();
  loop->runUntilQuiet();
  EXPECT_EQ(answers, 1);
  browser.emplace(loop);
  EXPECT_THROW(browser->ask(), Korvo::KoInvalidArgument);
  browser->connect(asking.subscriberEnd());
  asking.isDownIs(true);
  browser->onFailure([&](const std::string&) {
    ++answers;
    browser.reset();
  });
  browser->ask();
  loop->runUntilQuiet();
  EXPECT_EQ(answers, 2);
}

TEST_F(TableBrowserTest, AQuestionCanBeAskedInTheAnswer) {
  asker.browser.onAnswer([&](const PublisherInfo&) {
    if (++asker.answers < 3) asker.browser.ask();
  });
  ask();
  EXPECT_EQ(asker.answers, 3);
}

// ---------------------------------------------------------------------------------------------
// Byte for byte

using wire::Bytes;
using wire::frame;
enum : unsigned { askType = 0x81, tableInfo, subscriberInfo, publisherInfo };

/// A publisher that is driven by hand.
class FakePublisherTest : public testing::Test {
 protected:
  FakePublisherTest() {
    link.publisherEnd()->takerIs(
        [this](std::unique_ptr<Korvo::ByteStream> given) { stream = std::move(given); });
    asker.browser.connect(link.subscriberEnd());
    asker.browser.ask();
    loop->runUntilQuiet();
  }
  std::string receive() {
    char bytes[1000];
    return {bytes, stream->read(bytes, sizeof bytes).count};
  }
  void send(const std::string& bytes) {
    const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    stream->write(&part, 1);
    loop->runUntilQuiet();
  }
  static std::string welcome(unsigned features) {
    return frame(
        wire::welcome, 0,
        Bytes().u16(1).u32(features).u32(5000).text("fake").u64(wire::epoch).u64(0).u16(0).get());
  }
  static std::string end(std::uint64_t tables, std::uint64_t subscribers) {
    return frame(publisherInfo, 0,
                 Bytes().u64(4).u64(5).u8(1).u64(tables).u64(subscribers).text("why").get());
  }
  void expectFailure(const std::string& text) {
    EXPECT_EQ(asker.answers, 0);
    EXPECT_EQ(asker.failures, std::vector<std::string>{text});
  }

  std::shared_ptr<Korvo::TestLoop> loop = std::make_shared<Korvo::TestLoop>();
  Korvo::TestLink link;
  Asker asker{loop};
  std::unique_ptr<Korvo::ByteStream> stream;
};

TEST_F(FakePublisherTest, AsksBehindItsHello) {
  EXPECT_EQ(
      receive(),
      frame(wire::hello, 0,
            Bytes().raw("KORVOTAB").u16(1).u16(1).u32(1).u32(60000).text("asker").u16(0).get()));
  send(welcome(1));
  EXPECT_EQ(receive(), frame(askType, 0, ""));
  send(frame(tableInfo, 0,
             Bytes()
                 .text("net/port")
                 .u64(7)
                 .u64(3)
                 .raw(std::string(20, 'f'))
                 .u32(2)
                 .raw("..")
                 .raw("what later versions add")
                 .get()) +
       frame(wire::mark, 0, "whatever") + frame(0x99, 0, "unknown") +
       frame(subscriberInfo, 0,
             Bytes()
                 .text("viewer")
                 .u64(1)
                 .u64(2)
                 .u64(3)
                 .u64(4)
                 .u64(5)
                 .u64(6)
                 .text("old")
                 .u16(1)
                 .text("net/port")
                 .get()) +
       end(1, 1));
  ASSERT_EQ(asker.answers, 1);
  EXPECT_EQ(asker.told.name, "fake");
  EXPECT_EQ(asker.told.epoch, 4U);
  EXPECT_EQ(asker.told.sequence, 5U);
  EXPECT_EQ(asker.told.lastReason, "why");
  EXPECT_EQ(asker.told.tables.at(0).rows, 7U);
  EXPECT_EQ(asker.told.tables.at(0).layoutText, "..");
  const auto& viewer = asker.told.subscribers.at(0);
  EXPECT_EQ(viewer.name, "viewer");
  EXPECT_EQ(viewer.lag, 1U);
  EXPECT_EQ(viewer.merged, 2U);
  EXPECT_EQ(viewer.refused, 3U);
  EXPECT_EQ(viewer.unsent, 4U);
  EXPECT_EQ(viewer.lagRows, 5U);
  EXPECT_EQ(viewer.reconnects, 6U);
  EXPECT_EQ(viewer.lastReason, "old");
  EXPECT_EQ(viewer.tables, std::vector<std::string>{"net/port"});
  EXPECT_THROW(LearnedTable{asker.told.tables.at(0)}, Korvo::KoTextError);
}

TEST_F(FakePublisherTest, SaysThatAPublisherIsTooOld) {
  send(welcome(0));
  expectFailure("fake is of a version that does not tell what it has");
}

TEST_F(FakePublisherTest, SaysWhatAPublisherSaid) {
  send(frame(wire::bye, 0, Bytes().u8(6).text("user 7 may not subscribe").get()));
  expectFailure("the publisher ended: user 7 may not subscribe");
}

TEST_F(FakePublisherTest, TakesNoAnswerOfWhichAPartIsMissing) {
  send(welcome(1) + end(1, 0));
  expectFailure("not understood: a part of the answer is missing");
}

TEST_F(FakePublisherTest, TakesNothingElseForAnAnswer) {
  send("HTTP/1.1 400 Bad Request");
  expectFailure("not understood: frame of 1347703880 bytes");
}

TEST_F(FakePublisherTest, TakesNoTruncatedFrame) {
  send(welcome(1) + frame(tableInfo, 0, Bytes().text("net/port").u64(7).get()));
  expectFailure("not understood: frame too short");
}

TEST_F(FakePublisherTest, TakesNoEndlessAnswer) {
  send(welcome(1));
  const std::string subscriber =
      frame(subscriberInfo, 0,
            Bytes().text("").u64(0).u64(0).u64(0).u64(0).u64(0).u64(0).text("").u16(0).get());
  std::string many;
  while (many.size() < 60000) many += subscriber;
  for (int i = 0; i < 5000 && asker.failures.empty(); ++i) send(many);
  expectFailure("not understood: an answer of more than 64 MiB");
}

// ---------------------------------------------------------------------------------------------

class PublisherAnswerTest : public LinkTest {
 protected:
  /// The types of the frames that come.
  std::vector<unsigned> answer(const std::string& bytes) {
    const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    stream->write(&part, 1);
    loop->runUntilQuiet();
    char buffer[30000];
    const std::string all(buffer, stream->read(buffer, sizeof buffer).count);
    std::vector<unsigned> types;
    for (std::size_t at = 0; at + 8 <= all.size();
         at += 4 + Korvo::loadField<std::uint32_t>(all.data() + at)) {
      types.push_back(static_cast<unsigned char>(all[at + 4]));
    }
    return types;
  }
  static std::string hello(unsigned features) {
    return frame(
        wire::hello, 0,
        Bytes().raw("KORVOTAB").u16(1).u16(1).u32(features).u32(5000).text("raw").u16(0).get());
  }
  void begin() {
    agent->publisher.accept(link.publisherEnd());
    stream = link.subscriberEnd()->connect();
  }
  std::unique_ptr<Korvo::ByteStream> stream;
};

using Types = std::vector<unsigned>;

TEST_F(PublisherAnswerTest, TellsTablesAndAnEnd) {
  begin();
  EXPECT_EQ(answer(hello(1)), (Types{wire::welcome, wire::mark}));
  EXPECT_EQ(answer(frame(askType, 0, "")), (Types{tableInfo, tableInfo, publisherInfo}));
  EXPECT_EQ(answer(frame(askType, 9, "later versions")),
            (Types{tableInfo, tableInfo, publisherInfo}));
}

TEST_F(PublisherAnswerTest, QuestionsAtOnceAreAnsweredTogether) {
  begin();
  answer(hello(1));
  std::string many;
  for (int i = 0; i < 1000; ++i) many += frame(askType, 0, "");
  EXPECT_EQ(answer(many).size(), 6U);
}

TEST_F(PublisherAnswerTest, WhoDidNotSayThatHeAsksIsNotAnswered) {
  begin();
  EXPECT_EQ(answer(hello(0)), (Types{wire::welcome, wire::mark}));
  EXPECT_EQ(answer(frame(askType, 0, "")), Types{});
}

TEST_F(PublisherAnswerTest, NobodyIsAnsweredBeforeHisHello) {
  begin();
  EXPECT_EQ(answer(frame(askType, 0, "")), Types{wire::bye});
}

// ---------------------------------------------------------------------------------------------
// Tables that were learned

class LearnedTableTest : public TableBrowserTest {
 protected:
  void learn() {
    ask();
    ASSERT_EQ(asker.answers, 1);
    table.emplace(asker.told.tables.at(0));
    subscriber.emplace(loop, Korvo::SubscriberOptions{.takesOtherLayouts = false});
    subscriber->add(*table);
    agent->publisher.accept(link.publisherEnd());
    subscriber->connect(link.subscriberEnd());
  }
  std::optional<LearnedTable> table;
  std::optional<Korvo::TableSubscriber> subscriber;
};

TEST_F(LearnedTableTest, HasThePublishersBytes) {
  agent->put(port(2, "eth2", 10), port(1, "eth1", 20));
  learn();
  loop->runUntilQuiet();
  ASSERT_EQ(table->state(), TableState::current) << table->stateText();
  EXPECT_EQ(table->oids(), (std::vector<Korvo::oid_t>{1, 2}));
  const Korvo::AnyRow row = table->find(1);
  const Port sent = agent->ports.find(1);
  ASSERT_EQ(row.rowLength(), sent.rowLength());
  EXPECT_EQ(std::memcmp(row.rowBuf(), sent.rowBuf(), row.rowLength()), 0);
  EXPECT_EQ(row.toJson(), sent.toJson());
  EXPECT_TRUE(table->find(9).isNull());
}

TEST_F(LearnedTableTest, TellsChangesWithWhatWasBefore) {
  agent->put(port(1, "eth1"));
  learn();
  std::ostringstream told;
  Korvo::LearnedReader reader(
      *table, loop,
      [&](Korvo::LearnedChanges& changes) {
        if (changes.first()) told << "first: ";
        while (changes.next()) {
          told << changes.kind() << ' ' << changes.oid() << ' '
               << (changes.before().isNull() ? "-" : changes.before().text("name")) << ' '
               << (changes.after().isNull() ? "-" : changes.after().text("name")) << "; ";
        }
      },
      Korvo::Before::kept);
  loop->runUntilQuiet();
  agent->put(port(1, "other"));
  loop->runUntilQuiet();
  agent->put(port(2, "new"));
  loop->runUntilQuiet();
  agent->remove(1);
  loop->runUntilQuiet();
  EXPECT_EQ(told.str(),
            "first: added 1 - eth1; changed 1 eth1 other; added 2 - new; removed 1 other -; ");
}

/// Rows that could be converted.
struct OtherPortLayout : Korvo::RowLayout<7, Korvo::Column<"name", std::string>,
                                          Korvo::Column<"speed", std::int32_t>> {};
using OtherPort = Korvo::TableRow<OtherPortLayout>;

TEST_F(LearnedTableTest, IsRefusedOnceThePublisherHasAnotherLayout) {
  agent->put(port(1, "eth1"));
  learn();
  loop->runUntilQuiet();
  agent.reset();
  loop->runUntilQuiet();
  EXPECT_EQ(table->state(), TableState::stale);
  Korvo::Table<OtherPort> other("net/port");
  Korvo::TablePublisher publisher("portAgent", loop);
  publisher.add(other);
  publisher.accept(link.publisherEnd());
  loop->advance(seconds(6));
  EXPECT_EQ(table->state(), TableState::refused);
  EXPECT_EQ(table->stateText(), "net/port has another layout at portAgent");
  EXPECT_EQ(table->size(), 1U);
}

}  // namespace
