// Reading rows from the cluster itself.

#include <Korvo/EtcdReader.h>

#include <fstream>

#include "etcd_test_support.h"

namespace {

using namespace etcdtest;
using Korvo::EtcdAnswer;
using Korvo::EtcdReader;

/// Speed in a wider type, one column less, and one more.
struct OtherPortLayout
    : Korvo::RowLayout<7, Korvo::Column<"speed", std::int64_t>, Korvo::Column<"name", std::string>,
                       Korvo::Column<"mtu", std::uint32_t>> {};
using OtherPort = Korvo::TableRow<OtherPortLayout>;

struct Reader {
  explicit Reader(const std::string& address, milliseconds limit = milliseconds(10000))
      : reader(address, loop, limit) {}

  template <typename Row = Port>
  EtcdAnswer<Row> row(oid_t oid, const std::string& table = "net/port") {
    return wait<Row>([&](auto told) { reader.row<Row>(table, oid, told); });
  }
  template <typename Row = Port>
  EtcdAnswer<std::vector<Row>> rows(const std::string& table = "net/port") {
    return wait<std::vector<Row>>([&](auto told) { reader.rows<Row>(table, told); });
  }

  /// Asks until it is told this, for which a short time limit may be too short; empty if it was.
  std::string problemOtherThan(const std::string& words) {
    std::string problem;
    for (int i = 0; i < 20; ++i) {
      problem = row(1).problem;
      if (problem.find(words) != std::string::npos) return "";
    }
    return problem;
  }

  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("reader");
  EtcdReader reader;

 private:
  template <typename Value>
  EtcdAnswer<Value> wait(const std::function<void(EtcdReader::Told<Value>)>& ask) {
    std::optional<EtcdAnswer<Value>> got;
    ask([&](const EtcdAnswer<Value>& answer) {
      EXPECT_FALSE(got) << "told twice";
      got = answer;
    });
    EXPECT_FALSE(got) << "told at once";
    if (!runUntil([&] { return got.has_value(); }, *this)) return {{}, "nothing was told", false};
    return *got;
  }
};

bool says(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

bool isWritten(Publisher& publisher) {
  return runUntil([&] { return publisher.publisher.subscribers().at(0).lag == 0; }, publisher);
}

TEST(EtcdReader, ReadsARowThatIsThereAndOneThatIsNot) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Reader reader(cluster.address());
  EXPECT_EQ(reader.row(1).problem, "agent has published nothing");

  Publisher publisher(cluster.address());
  publisher.put({port(1, "one", 10), port(2, "two", 20)});
  ASSERT_TRUE(isWritten(publisher)) << publisher.problem();
  const auto one = reader.row(1);
  ASSERT_TRUE(one) << one.problem;
  EXPECT_EQ(one.value.toJson(), port(1, "one", 10).toJson());
  EXPECT_EQ(one.value.rowOid(), 1U);
  EXPECT_TRUE(one.isKept);
  const auto none = reader.row(3);
  EXPECT_TRUE(none) << none.problem;
  EXPECT_TRUE(none.value.isNull());
  EXPECT_TRUE(none.isKept);

  publisher.remove({1});
  publisher.put({port(2, "zwei", 21)});
  ASSERT_TRUE(isWritten(publisher)) << publisher.problem();
  EXPECT_TRUE(reader.row(1).value.isNull());
  EXPECT_EQ(reader.row(2).value.get<"name">(), "zwei");
}

TEST(EtcdReader, ReadsATable) {
  Cluster cluster(1, {"--max-txn-ops", "5000"});
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  ASSERT_TRUE(
      runUntil([&] { return !cluster.tool("get korvo/test/agent/mark").empty(); }, publisher));
  Reader reader(cluster.address());
  const auto nothing = reader.rows();
  EXPECT_TRUE(nothing) << nothing.problem;
  EXPECT_TRUE(nothing.value.empty());

  publisher.putGeneration(1, 3000);
  publisher.put({port(0x80000000, "far"), port(0xffffffff, "last")});
  ASSERT_TRUE(isWritten(publisher));
  const auto all = reader.rows();
  ASSERT_TRUE(all) << all.problem;
  std::map<oid_t, std::string> found;
  for (const Port& row : all.value) found[row.rowOid()] = row.toJson();
  EXPECT_EQ(found, contents(publisher.ports));
  EXPECT_TRUE(std::ranges::is_sorted(all.value, {}, [](const Port& row) { return row.rowOid(); }));
}

TEST(EtcdReader, RowsOfAnotherLayoutAreConverted) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one", -10), port(2, "two", 20)});
  ASSERT_TRUE(isWritten(publisher));
  Reader reader(cluster.address());
  const auto one = reader.row<OtherPort>(1);
  ASSERT_TRUE(one) << one.problem;
  EXPECT_EQ(one.value.get<"speed">(), -10);
  EXPECT_EQ(one.value.get<"name">(), "one");
  EXPECT_EQ(one.value.get<"mtu">(), 0U);
  EXPECT_EQ(reader.rows<OtherPort>().value.size(), 2U);

  EXPECT_EQ(reader.row<tabletest::Link>(1).problem,
            "net/port: Layout refused - (row type 7, here 8)");
  EXPECT_EQ(reader.row(1, "net/none").problem, "agent has no table net/none");
  EXPECT_EQ(reader.rows(std::string("net")).problem, "agent has no table net");
}

TEST(EtcdReader, ManyQuestionsAtOnceAreAllAnswered) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.putGeneration(1, 100);
  ASSERT_TRUE(isWritten(publisher));
  Reader reader(cluster.address());
  std::vector<int> told(101);
  for (oid_t oid = 1; oid <= 100; ++oid) {
    reader.reader.row<Port>("net/port", oid, [&told, oid](const EtcdAnswer<Port>& answer) {
      if (answer && answer.value.rowOid() == oid) ++told[oid];
    });
  }
  EXPECT_TRUE(runUntil([&] { return std::ranges::count(told, 1) == 100; }, reader));

  // What is told may ask on, and may be the end of the reader and of all that is open.
  auto another = std::make_unique<EtcdReader>(cluster.address(), reader.loop);
  int answers = 0;
  another->row<Port>("net/port", 1, [&](const EtcdAnswer<Port>& first) {
    EXPECT_TRUE(first) << first.problem;
    another->row<Port>("net/port", 2, [&](const EtcdAnswer<Port>& second) {
      EXPECT_TRUE(second) << second.problem;
      another.reset();
      ++answers;
    });
    another->rows<Port>("net/port", [&](const EtcdAnswer<std::vector<Port>>&) { answers += 10; });
    ++answers;
  });
  EXPECT_TRUE(runUntil([&] { return another == nullptr; }, reader));
  runFor(milliseconds(100), reader);
  EXPECT_LE(answers, 12);
  EXPECT_GE(answers, 2);
}

TEST(EtcdReader, WithoutAPublisherRowsAreAsItLeftThem) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  {
    Publisher publisher(cluster.address());
    publisher.put({port(1, "one")});
    ASSERT_TRUE(isWritten(publisher));
  }
  Reader reader(cluster.address());
  const auto left = reader.row(1);
  ASSERT_TRUE(left) << left.problem;
  EXPECT_EQ(left.value.get<"name">(), "one");
  EXPECT_FALSE(left.isKept);

  // One that has come back and not loaded its rows keeps nothing up to date yet.
  Publisher publisher(cluster.address());
  publisher.publisher.completeIs(false);
  ASSERT_TRUE(
      runUntil([&] { return !cluster.tool("get korvo/test/agent/owner").empty(); }, publisher));
  EXPECT_FALSE(reader.row(1).isKept);
  publisher.publisher.completeIs(true);
  ASSERT_TRUE(runUntil([&] { return reader.row(1).isKept; }, publisher));
  const auto gone = reader.row(1);
  EXPECT_TRUE(gone.value.isNull());
  EXPECT_TRUE(gone.isKept);
}

TEST(EtcdReader, WhatCannotBeTakenIsToldInWords) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  publisher.put({port(1, "one"), port(2, "two")});
  ASSERT_TRUE(isWritten(publisher));
  Reader reader(cluster.address());
  const std::string keys = "korvo/test/agent/";
  const std::string row = keys + "net/port/row/0000000";
  cluster.tool("put " + row + "1 nonsense");
  EXPECT_TRUE(says(reader.row(1).problem, row + "1: ")) << reader.row(1).problem;
  EXPECT_TRUE(says(reader.rows().problem, row + "1: ")) << reader.rows().problem;
  cluster.tool("get --print-value-only " + row + "2");
  std::filesystem::copy_file(cluster.folder().file("tool.out"), cluster.folder().file("row"));
  std::filesystem::resize_file(cluster.folder().file("row"),
                               std::filesystem::file_size(cluster.folder().file("row")) - 1);
  cluster.tool("put " + row + "1 <" + cluster.folder().file("row"));
  EXPECT_EQ(reader.row(1).problem, row + "1: another one's oid");
  cluster.tool("del " + row + "1");
  EXPECT_EQ(reader.rows().problem, "the rows of net/port are not the publisher's");
  cluster.tool("put " + keys + "net/port/row/x 1");
  EXPECT_EQ(reader.rows().problem, keys + "net/port/row/x: no row's key");
  cluster.tool("del " + keys + "net/port/layout");
  EXPECT_EQ(reader.row(2).problem, "net/port: its layout is missing");
  cluster.tool("put " + keys + "net/port/layout nonsense");
  EXPECT_TRUE(says(reader.row(2).problem, "net/port: ")) << reader.row(2).problem;
  cluster.tool("put " + keys + "mark nonsense");
  EXPECT_EQ(reader.row(2).problem, "the mark of agent has another form");
}

TEST(EtcdReader, OfABatchThatIsBeingWrittenNothingIsRead) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  constexpr oid_t rows = 4000;
  Publisher publisher(cluster.address());
  const auto beginBatch = [&](int generation) {
    publisher.putGeneration(generation, rows);
    const std::uint64_t before = engine()->counters().transactions;
    return runUntil([&] { return engine()->counters().transactions > before + 3; }, publisher) &&
           !says(cluster.tool("get korvo/test/agent/mark"), " part 0 ");
  };
  ASSERT_TRUE(beginBatch(1));
  Reader hasty(cluster.address(), milliseconds(300));
  EXPECT_EQ(hasty.problemOtherThan("the first state is still being written"), "");
  ASSERT_TRUE(isWritten(publisher));

  ASSERT_TRUE(beginBatch(2));
  Reader reader(cluster.address());
  const auto one = reader.row(1);
  ASSERT_TRUE(one) << one.problem;
  EXPECT_EQ(one.value.get<"speed">(), 1);
  EXPECT_TRUE(one.isKept);
  const auto all = reader.rows();
  ASSERT_TRUE(all) << all.problem;
  EXPECT_EQ(all.value.size(), rows);
  EXPECT_TRUE(std::ranges::all_of(all.value, [](const Port& r) { return r.get<"speed">() == 1; }));

  // The state before it is forgotten: there is nothing to tell until the batch is written.
  cluster.compact();
  EXPECT_EQ(hasty.problemOtherThan("compacted"), "");
  std::optional<EtcdAnswer<Port>> answer;
  reader.reader.row<Port>("net/port", 1, [&](const EtcdAnswer<Port>& got) { answer = got; });
  ASSERT_TRUE(runUntil([&] { return answer.has_value(); }, publisher, reader));
  ASSERT_TRUE(*answer) << answer->problem;
  EXPECT_EQ(answer->value.get<"speed">(), 2);
}

TEST(EtcdReader, WantOfRightsIsToldAtOnce) {
  Cluster cluster(1);
  cluster.waitUntilReady();
  for (const std::string words :
       {"user add root:top", "user grant-role root root", "user add agent:secret", "auth enable"}) {
    cluster.tool(words);
  }
  const Variable user("KORVO_ETCD_USER", "agent");
  const auto start = steady_clock::now();
  {
    const Variable password("KORVO_ETCD_PASSWORD", "secret");
    Reader reader(cluster.address());
    EXPECT_TRUE(says(reader.row(1).problem, "permission denied")) << reader.row(1).problem;
    EXPECT_TRUE(says(reader.rows().problem, "permission denied")) << reader.rows().problem;
  }
  const Variable password("KORVO_ETCD_PASSWORD", "wrong");
  Reader reader(cluster.address());
  EXPECT_TRUE(says(reader.row(1).problem, "authentication failed")) << reader.row(1).problem;
  // All that is open is told, unless the reader ends with the first.
  auto ended = std::make_unique<Reader>(cluster.address());
  const auto loop = ended->loop;
  int told = 0;
  for (oid_t oid = 1; oid <= 3; ++oid) {
    ended->reader.row<Port>("net/port", oid, [&](const EtcdAnswer<Port>& answer) {
      EXPECT_TRUE(says(answer.problem, "authentication failed")) << answer.problem;
      ++told;
      if (told == 2) ended.reset();
    });
  }
  const auto end = steady_clock::now() + std::chrono::seconds(5);
  while (ended != nullptr && steady_clock::now() < end) loop->run(0, 0.001, false);
  loop->run(0, 0.05, false);
  EXPECT_EQ(told, 2);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(9)) << "waited for the limit";
}

TEST(EtcdReader, EveryMemberTellsWhatWasWrittenBefore) {
  Cluster cluster(3);
  cluster.waitUntilReady();
  Publisher publisher(cluster.address());
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < cluster.size(); ++i) {
    readers.push_back(std::make_unique<Reader>("etcd://" + cluster.member(i) + "/test/agent"));
  }
  for (int i = 1; i <= 30; ++i) {
    publisher.put({port(1, "one", i)});
    ASSERT_TRUE(isWritten(publisher)) << publisher.problem();
    for (const auto& reader : readers) {
      const auto answer = reader->row(1);
      ASSERT_TRUE(answer) << answer.problem;
      ASSERT_EQ(answer.value.get<"speed">(), i) << "older than the question";
    }
  }

  // A member that is cut off from the leader does not answer with what it knows.
  const int leader = cluster.leader();
  ASSERT_NE(leader, -1);
  cluster.stop(leader);
  Reader reader(cluster.address());
  auto start = steady_clock::now();
  const auto answer = reader.row(1);
  EXPECT_TRUE(answer) << answer.problem;
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(answer.value.isNull() ? 0 : answer.value.get<"speed">(), 30);

  // Without a majority there is no answer, and that is told in time.
  cluster.kill((leader + 1) % 3);
  Reader hasty(cluster.address(), milliseconds(1500));
  start = steady_clock::now();
  const auto none = hasty.row(1);
  EXPECT_TRUE(says(none.problem, "no answer within 1500 milliseconds: ")) << none.problem;
  EXPECT_LT(steady_clock::now() - start, milliseconds(3000));
  cluster.resume(leader);
}

TEST(EtcdReader, WrongAddressesAndLimitsAreRefused) {
  const auto loop = std::make_shared<EventLoop>("reader");
  EXPECT_THROW(EtcdReader("etcd://one:2379/net", loop), Korvo::KoInvalidArgument);
  EXPECT_THROW(EtcdReader("etcd://one:2379/net/agent", loop, milliseconds(0)),
               Korvo::KoInvalidArgument);
}

}  // namespace
