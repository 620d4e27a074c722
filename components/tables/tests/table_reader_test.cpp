// Being told what changed.

#include "table_test_support.h"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::Before;
using Korvo::Change;
using Korvo::Changes;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;

class TableReaderTest : public testing::Test {
 protected:
  template <typename... Rows>
  void put(const Rows&... rows) {
    Batch batch(ports);
    (batch.put(rows), ...);
    batch.commit();
  }
  void remove(oid_t oid) {
    Batch batch(ports);
    batch.remove(oid);
    batch.commit();
  }
  /// Writes down what it is told: "first added 1 eth0, changed 2 eth1 (eth0); ".
  auto writeDown() {
    return [this](const Changes<Port>& changes) {
      if (changes.first()) told << "first ";
      if (changes.merged() != 0) told << changes.merged() << " merged ";
      for (const Change<Port>& change : changes) {
        told << change.kind() << ' ' << change.oid();
        if (!change.after().isNull()) told << ' ' << change.after().view<"name">();
        if (!change.before().isNull()) told << " (" << change.before().view<"name">() << ')';
        told << ", ";
      }
      told << "; ";
    };
  }
  /// What was told since the last call.
  std::string run() {
    runAll(loop);
    std::string text = told.str();
    told.str("");
    return text;
  }

  Korvo::KoPtr<Korvo::Scheduler> loop = scheduler();
  Table<Port> ports{"net/port"};
  std::ostringstream told;
};

TEST_F(TableReaderTest, TellsTheFirstRowsInOneCall) {
  put(port(1, "eth0"), port(2, "eth1"));
  put(port(1, "eth7"));
  const TableReader<Port> reader(ports, loop, writeDown());
  EXPECT_EQ(told.str(), "");  // never in the constructor
  EXPECT_EQ(run(), "first added 2 eth1, added 1 eth7, ; ");
  EXPECT_EQ(run(), "");
}

TEST_F(TableReaderTest, TellsThatThereAreNoFirstRows) {
  const TableReader<Port> reader(ports, loop, writeDown());
  EXPECT_EQ(run(), "first ; ");
}

TEST_F(TableReaderTest, IsToldInItsTurnAndNeverInsideACommit) {
  const TableReader<Port> reader(ports, loop, writeDown());
  run();
  put(port(1, "eth0"));
  EXPECT_EQ(told.str(), "");
  EXPECT_EQ(run(), "added 1 eth0, ; ");
  put(port(1, "eth1"));
  EXPECT_EQ(run(), "changed 1 eth1, ; ");
  remove(1);
  EXPECT_EQ(run(), "removed 1, ; ");
}

TEST_F(TableReaderTest, NothingChangedNothingTold) {
  put(port(1, "eth0"));
  const TableReader<Port> reader(ports, loop, writeDown());
  run();
  put(port(1, "eth0"));
  remove(2);
  EXPECT_EQ(run(), "");
}

TEST_F(TableReaderTest, MergesWhatChangedTwice) {
  put(port(1, "eth0"), port(2, "eth1"), port(3, "eth2"));
  const TableReader<Port> reader(ports, loop, writeDown());
  run();
  put(port(1, "a"));
  put(port(1, "b"));  // changed twice
  put(port(4, "c"));
  put(port(4, "d"));  // added, then changed
  remove(2);
  put(port(2, "e"));  // removed and back
  put(port(5, "f"));
  remove(5);  // came and went
  remove(3);
  EXPECT_EQ(run(), "8 merged removed 3, changed 1 b, added 4 d, changed 2 e, ; ");
}

TEST_F(TableReaderTest, TellsARowThatWentAndCameByHowTheReaderKnewIt) {
  put(port(1, "a"));
  const TableReader<Port> first(ports, loop, writeDown());
  run();
  remove(1);
  put(port(1, "b"));
  remove(1);
  put(port(1, "c"));
  EXPECT_EQ(run(), "3 merged changed 1 c, ; ");
  remove(1);
  EXPECT_EQ(run(), "removed 1, ; ");
  put(port(1, "d"));
  EXPECT_EQ(run(), "added 1 d, ; ");
}

TEST_F(TableReaderTest, KeepsWhatTheReaderSawLast) {
  put(port(1, "a"), port(2, "b"));
  const TableReader<Port> reader(ports, loop, writeDown(), Before::kept);
  EXPECT_EQ(run(), "first added 1 a, added 2 b, ; ");
  put(port(1, "c"));
  put(port(1, "d"));
  put(port(3, "e"));
  EXPECT_EQ(run(), "2 merged changed 1 d (a), added 3 e, ; ");
  remove(1);
  put(port(4, "f"));
  remove(4);
  remove(2);
  put(port(2, "g"));
  EXPECT_EQ(run(), "4 merged removed 1 (d), changed 2 g (b), ; ");
}

TEST_F(TableReaderTest, BatchOverTwoTablesReachesBothReaders) {
  Table<Link> links("net/link");
  std::uint64_t sequence = 0;
  const TableReader<Port> reader(ports, loop, writeDown());
  const TableReader<Link> other(
      links, loop, [&](const Changes<Link>& changes) { sequence = changes.sequence(); });
  run();
  Batch batch(ports, links);
  batch.put(port(1, "eth0"));
  batch.put(link(1, true));
  batch.commit();
  EXPECT_EQ(run(), "added 1 eth0, ; ");
  EXPECT_EQ(sequence, 1U);
}

/// Takes a few changes in each turn.
class SlowReader : public TableReader<Port> {
 public:
  SlowReader(Table<Port>& table, const Korvo::KoPtr<Korvo::Scheduler>& loop)
      : TableReader(table, loop) {}

  std::map<oid_t, std::string> copy;
  std::size_t mostInATurn = 3;
  unsigned int rounds = 0;

 protected:
  void changed(Changes<Port>& changes) override {
    if (changes.first()) copy.clear();
    for (std::size_t i = 0; i < mostInATurn; ++i) {
      const Change<Port>* const change = changes.next();
      if (change == nullptr) {
        ++rounds;
        return;
      }
      if (change->kind() == Korvo::ChangeKind::removed) {
        copy.erase(change->oid());
      } else {
        copy[change->oid()] = change->after().toJson();
      }
    }
  }
};

TEST_F(TableReaderTest, WhatATurnLeavesIsToldInTheNext) {
  for (oid_t oid = 1; oid <= 10; ++oid) put(port(oid, "eth"));
  SlowReader reader(ports, loop);
  loop->run(1, 0.0, true);
  EXPECT_EQ(reader.copy.size(), 3U);
  put(port(9, "changed"));  // before the reader
  put(port(1, "changed"));  // behind it
  remove(2);
  remove(8);
  put(port(11, "new"));
  runAll(loop);
  EXPECT_EQ(reader.copy, contents(ports));
  EXPECT_EQ(reader.rounds, 1U);
}

TEST_F(TableReaderTest, MayDestroyItselfItsTableAndOthers) {
  put(port(1, "eth0"));
  auto table = std::make_unique<Table<Port>>("other");
  std::unique_ptr<TableReader<Port>> destroyed;
  std::unique_ptr<TableReader<Port>> itself;
  const TableReader<Port> destroysTable(*table, loop, [&](const Changes<Port>& changes) {
    table.reset();
    destroyed.reset();
    EXPECT_EQ(changes.next(), nullptr);
  });
  destroyed = std::make_unique<TableReader<Port>>(*table, loop,
                                                  [&](const Changes<Port>&) { told << "dead"; });
  itself = std::make_unique<TableReader<Port>>(ports, loop, [&](const Changes<Port>& changes) {
    itself.reset();
    EXPECT_EQ(changes.next(), nullptr);
    told << "gone";
  });
  EXPECT_EQ(run(), "gone");
  EXPECT_EQ(destroysTable.table(), nullptr);
  put(port(2, "eth1"));
  EXPECT_EQ(run(), "");
}

TEST_F(TableReaderTest, WritesTheOwnTableFromItsCallback) {
  const TableReader<Port> reader(ports, loop, [&](const Changes<Port>& changes) {
    for (const Change<Port>& change : changes) {
      told << change.oid() << ' ';
      if (change.oid() < 5) put(port(change.oid() + 1, "next"));
    }
    told << "; ";
  });
  put(port(1, "eth0"));
  EXPECT_EQ(run(), "1 2 3 4 5 ; ");
}

TEST_F(TableReaderTest, TellsTheStateAfterTheRows) {
  put(port(1, "eth0"));
  TableReader<Port> reader(ports, loop, writeDown());
  reader.onState([&](Korvo::TableState state, const std::string& text) {
    told << "state " << static_cast<int>(state) << text;
  });
  EXPECT_EQ(run(), "first added 1 eth0, ; state 1");
  put(port(2, "eth1"));
  EXPECT_EQ(run(), "added 2 eth1, ; ");
}

TEST_F(TableReaderTest, TableThatForgotRemovalsIsToldAnew) {
  SlowReader reader(ports, loop);
  reader.mostInATurn = 1000;
  std::size_t firsts = 0;
  const TableReader<Port> other(ports, loop,
                                [&](const Changes<Port>& changes) { firsts += changes.first(); });
  for (oid_t oid = 0; oid < 70000; oid += 1000) put(port(oid, "eth"));
  runAll(loop);
  EXPECT_EQ(firsts, 1U);
  // More removals than are remembered.
  for (int round = 0; round < 70; ++round) {
    Batch batch(ports);
    for (oid_t oid = 100000; oid < 101000; ++oid) batch.put(port(oid, "x"));
    batch.commit();
    for (oid_t oid = 100000; oid < 101000; ++oid) batch.remove(oid);
    batch.remove(static_cast<oid_t>(round) * 1000);
    batch.commit();
  }
  put(port(7, "last"));
  runAll(loop);
  EXPECT_EQ(firsts, 2U);
  EXPECT_EQ(reader.copy, contents(ports));
}

}  // namespace
