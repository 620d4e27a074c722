// Computed keys, columns that are named at run time, values that only a copy may have twice, and
// readers of some rows only.

#include "table_link_support.h"
#include "table_test_support.h"

#include <Korvo/AnyRow.h>

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::Before;
using Korvo::Change;
using Korvo::Changes;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;

template <typename... Rows>
void putAll(Table<Port>& table, const Rows&... rows) {
  Batch batch(table);
  (batch.put(rows), ...);
  batch.commit();
}

void removeOne(Table<Port>& table, oid_t oid) {
  Batch batch(table);
  batch.remove(oid);
  batch.commit();
}

template <typename Rows>
std::vector<oid_t> sorted(const Rows& rows) {
  std::vector<oid_t> all = oids(rows);
  std::ranges::sort(all);
  return all;
}

using Oids = std::vector<oid_t>;

// ---------------------------------------------------------------------------------------------
// Computed keys

TEST(TableComputedKeyTest, FindsRowsByText) {
  Table<Port> ports("net/port");
  putAll(ports, port(1, "ETH0"));
  auto& byLowered = ports.equalBy([](const Port& row) {
    std::string name = row.get<"name">();
    for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return name;
  });
  putAll(ports, port(2, "Eth0"), port(3, "eth1"));
  EXPECT_EQ(sorted(byLowered.find("eth0")), (Oids{1, 2}));
  EXPECT_TRUE(byLowered.find("ETH0").empty());
  putAll(ports, port(1, "Eth1", 100));
  EXPECT_EQ(sorted(byLowered.find("eth0")), Oids{2});
  EXPECT_EQ(sorted(byLowered.find("eth1")), (Oids{1, 3}));
  removeOne(ports, 3);
  EXPECT_EQ(sorted(byLowered.find("eth1")), Oids{1});
}

TEST(TableComputedKeyTest, TakesTextThatLiesInTheRow) {
  Table<Port> ports("net/port");
  auto& byBegin =
      ports.equalBy([](const Port& row) { return row.view<"name">().view().substr(0, 3); });
  putAll(ports, port(1, "eth0"), port(2, "lo"), port(3, "eth1"));
  EXPECT_EQ(sorted(byBegin.find("eth")), (Oids{1, 3}));
  EXPECT_EQ(sorted(byBegin.find("lo")), Oids{2});
}

TEST(TableComputedKeyTest, OrdersRowsByNumbers) {
  Table<Port> ports("net/port");
  auto& byTotal = ports.orderedBy(
      [](const Port& row) { return std::int64_t{row.get<"speed">()} * row.get<"vrf">(); });
  putAll(ports, port(1, "a", 10, "", 3), port(2, "b", -5, "", 7), port(3, "c", 2, "", 2));
  EXPECT_EQ(oids(byTotal), (Oids{2, 3, 1}));
  EXPECT_EQ(oids(byTotal.from(4)), (Oids{3, 1}));
  EXPECT_EQ(oids(byTotal.before(4)), Oids{2});
  EXPECT_EQ(oids(byTotal.find(30)), Oids{1});
  putAll(ports, port(1, "a", -10, "", 4));
  EXPECT_EQ(oids(byTotal), (Oids{1, 2, 3}));
}

TEST(TableComputedKeyTest, FindsRowsByAddresses) {
  Table<Port> ports("net/port");
  auto& byGateway = ports.equalBy([](const Port& row) { return row.get<"net">().addr(); });
  auto& bySite = ports.equalBy([](const Port& row) {
    return IpGenPrefix(row.get<"net">().addr(), Korvo::byte_t{16}).network();
  });
  putAll(ports, port(1, "a", 0, "10.1.2.0/24"), port(2, "b", 0, "10.1.3.0/24"));
  EXPECT_EQ(sorted(byGateway.find(IpGenAddr("10.1.3.0"))), Oids{2});
  EXPECT_EQ(sorted(bySite.find(IpGenPrefix("10.1.0.0/16"))), (Oids{1, 2}));
}

TEST(TableComputedKeyTest, RefusesRowsThatAreNotUnique) {
  Table<Port> ports("net/port");
  auto& byLength = ports.uniqueBy([](const Port& row) { return row.view<"name">().view().size(); });
  putAll(ports, port(1, "a"), port(2, "bb"));
  EXPECT_THROW(putAll(ports, port(3, "cc")), Korvo::KoInvalidArgument);
  EXPECT_THROW(putAll(ports, port(3, "ccc"), port(4, "ddd")), Korvo::KoInvalidArgument);
  EXPECT_EQ(byLength.find(2).rowOid(), 2U);
  putAll(ports, port(1, "cc"), port(2, "d"));  // they swap
  EXPECT_EQ(byLength.find(2).rowOid(), 1U);
  EXPECT_EQ(ports.size(), 2U);
}

TEST(TableComputedKeyTest, FunctionMayKeepTheRow) {
  Table<Port> ports("net/port");
  std::vector<Port> kept;
  ports.equalBy([&](const Port& row) {
    kept.push_back(row);
    return row.get<"name">();
  });
  putAll(ports, port(1, "a"));
  ASSERT_EQ(kept.size(), 1U);
  EXPECT_EQ(kept.front().get<"name">(), "a");
  kept.front().set<"name">("mine");
  EXPECT_EQ(ports.find(1).get<"name">(), "a");
}

TEST(TableComputedKeyTest, IsComputedOnceARowAndAThrowEndsTheCommit) {
  Table<Port> ports("net/port");
  int calls = 0;
  auto& index = ports.equalBy([&](const Port& row) {
    ++calls;
    if (row.view<"name">().view() == "bad") throw std::runtime_error("bad name");
    return row.get<"name">();
  });
  putAll(ports, port(1, "a"), port(2, "b"));
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(sorted(index.find("a")), Oids{1});
  removeOne(ports, 1);
  EXPECT_EQ(calls, 2);
  EXPECT_THROW(putAll(ports, port(3, "c"), port(2, "bad")), std::runtime_error);
  EXPECT_EQ(sorted(index.find("b")), Oids{2});
  EXPECT_TRUE(index.find("c").empty());
  EXPECT_EQ(ports.size(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Going through rows while others change

class TableRangeTest : public testing::Test {
 protected:
  TableRangeTest() {
    for (oid_t oid = 1; oid <= 9; ++oid) {
      putAll(ports, port(oid, "eth", static_cast<int>(oid / 4), "10.0.0.0/8"));
    }
  }
  /// Goes through the rows; at the first one all others go that `leaves` names, and one comes.
  template <typename Rows>
  Oids metIn(const Rows& rows, const Oids& leaves) {
    Oids met;
    for (const Port& row : rows) {
      met.push_back(row.rowOid());
      for (const oid_t oid : leaves) {
        if (oid != row.rowOid()) removeOne(ports, oid);
      }
      putAll(ports, port(100, "new", 9, "11.0.0.0/8"));
    }
    return met;
  }

  Table<Port> ports{"net/port"};
};

TEST_F(TableRangeTest, OrderedRowsStandThatTheOneAtTheEndGoes) {
  auto& bySpeed = ports.ordered<"speed">();
  EXPECT_EQ(metIn(bySpeed.find(1), {1, 2, 3, 8, 9}), (Oids{4, 5, 6, 7}));
}

TEST_F(TableRangeTest, OrderedRowsBeforeAValueStandThatItsRowsGo) {
  auto& bySpeed = ports.ordered<"speed">();
  EXPECT_EQ(metIn(bySpeed.before(1), {4, 5, 6, 7}), (Oids{1, 2, 3}));
}

TEST_F(TableRangeTest, EqualRowsAndRowsOfAPrefixStandThatOthersGo) {
  auto& bySpeed = ports.equal<"speed">();
  auto& byNet = ports.longestPrefix<"net">();
  EXPECT_EQ(metIn(bySpeed.find(1), {5, 6, 8}).size(), 2U);
  EXPECT_EQ(metIn(byNet.exact(IpGenPrefix("10.0.0.0/8")), {2, 3, 9}).size(), 4U);
}

TEST(TableEntriesTest, EntriesMoveOnlyIfTheirKeysChange) {
  Table<Port> ports("net/port");
  auto& bySpeed = ports.equal<"speed">();
  putAll(ports, port(1, "a", 10), port(2, "b", 10), port(3, "c", 10));
  const Oids before = oids(bySpeed.find(10));
  for (const oid_t oid : before) putAll(ports, port(oid, "other", 10));
  EXPECT_EQ(oids(bySpeed.find(10)), before);
}

// ---------------------------------------------------------------------------------------------
// Columns that are named at run time

TEST(TableNamedColumnsTest, FindRows) {
  Table<Port> typed("net/port");
  Korvo::AnyTable& ports = typed;
  putAll(typed, port(1, "eth0", 10, "10.0.0.0/8"), port(2, "eth1", 10, "10.1.0.0/16"),
         port(3, "eth0", 40, "10.1.0.0/16"));
  const auto bySpeed = ports.equal({"speed"});
  const auto byBoth = ports.equal({"name", "speed"});
  const auto byNet = ports.longestPrefix("net");
  Korvo::AnyRow like(Korvo::DynamicLayout(Korvo::layoutText(ports.layout())));
  like.create();
  like.textIs("speed", "10");
  like.textIs("name", "eth0");
  Oids found = bySpeed.find(like);
  std::ranges::sort(found);
  EXPECT_EQ(found, (Oids{1, 2}));
  EXPECT_EQ(byBoth.find(like), Oids{1});
  EXPECT_THROW(bySpeed.find(Port()), Korvo::KoNullRow);

  EXPECT_EQ(byNet.find(IpGenAddr("10.2.0.1")), std::optional<oid_t>(1));
  EXPECT_EQ(byNet.find(IpGenPrefix("10.1.0.0/17")).has_value(), true);
  EXPECT_EQ(byNet.find(IpGenAddr("11.0.0.1")), std::nullopt);
  EXPECT_EQ(byNet.covering(IpGenAddr("10.1.0.1")).size(), 3U);
  EXPECT_EQ(byNet.covering(IpGenPrefix("10.0.0.0/8")), Oids{1});
  EXPECT_EQ(byNet.exact(IpGenPrefix("10.1.0.0/16")).size(), 2U);
  EXPECT_EQ(byNet.inside(IpGenPrefix("0.0.0.0/0")).size(), 3U);
  removeOne(typed, 1);
  EXPECT_TRUE(byBoth.find(like).empty());
}

TEST(TableNamedColumnsTest, RefuseWhatCannotBeIndexed) {
  Korvo::AnyTable ports("net/port", PortLayout::info);
  EXPECT_THROW(ports.equal({"sped"}), Korvo::KoInvalidArgument);
  EXPECT_THROW(ports.equal({}), Korvo::KoInvalidArgument);
  EXPECT_THROW(ports.longestPrefix("name"), Korvo::KoInvalidArgument);
  EXPECT_THROW(ports.longestPrefix("nets"), Korvo::KoInvalidArgument);
}

// ---------------------------------------------------------------------------------------------
// Readers of some rows only

class TableWatchTest : public testing::Test {
 protected:
  auto writeDown() {
    return [this](const Changes<Port>& changes) {
      if (changes.first()) told << "first ";
      for (const Change<Port>& change : changes) {
        told << change.kind() << ' ' << change.oid();
        if (!change.after().isNull()) told << ' ' << change.after().view<"name">();
        if (!change.before().isNull()) told << " (" << change.before().view<"name">() << ')';
        told << ", ";
      }
      told << "; ";
    };
  }
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

TEST_F(TableWatchTest, OidsOnly) {
  putAll(ports, port(1, "a"), port(2, "b"), port(3, "c"));
  TableReader<Port> reader(ports, loop, writeDown());
  reader.only({2, 7});
  EXPECT_EQ(run(), "first added 2 b, ; ");
  putAll(ports, port(1, "x"), port(3, "y"));
  EXPECT_EQ(run(), "");  // not even called
  putAll(ports, port(7, "g"), port(2, "h"), port(8, "i"));
  EXPECT_EQ(run(), "added 7 g, changed 2 h, ; ");
  removeOne(ports, 1);
  removeOne(ports, 2);
  EXPECT_EQ(run(), "removed 2, ; ");
}

TEST_F(TableWatchTest, NoRowOfTheWantedIsToldToo) {
  putAll(ports, port(1, "a"));
  TableReader<Port> reader(ports, loop, writeDown());
  reader.only({2});
  EXPECT_EQ(run(), "first ; ");
}

TEST_F(TableWatchTest, RowsOfAKeyComeAndGo) {
  auto& bySpeed = ports.equal<"speed">();
  putAll(ports, port(1, "a", 10), port(2, "b", 40));
  TableReader<Port> reader(ports, loop, writeDown(), Before::kept);
  reader.only(bySpeed.watch(10));
  EXPECT_EQ(run(), "first added 1 a, ; ");
  putAll(ports, port(1, "c", 10));
  EXPECT_EQ(run(), "changed 1 c (a), ; ");
  putAll(ports, port(2, "b", 10));  // begins to match
  EXPECT_EQ(run(), "added 2 b, ; ");
  putAll(ports, port(1, "c", 40));  // ceases to
  EXPECT_EQ(run(), "removed 1 (c), ; ");
  putAll(ports, port(1, "d", 40));
  removeOne(ports, 1);
  EXPECT_EQ(run(), "");
  removeOne(ports, 2);
  putAll(ports, port(2, "e", 10));
  EXPECT_EQ(run(), "changed 2 e (b), ; ");
}

TEST_F(TableWatchTest, EveryIndexHasWatches) {
  putAll(ports, port(1, "eth0", 10, "10.1.0.0/16"), port(2, "eth1", 20, "10.0.0.0/8"),
         port(3, "lo", 20, "2001:db8::/32"), port(4, "none", 20));
  TableReader<Port> reader(ports, loop, writeDown());
  reader.only(ports.unique<"name">().watch("lo"));
  EXPECT_EQ(run(), "first added 3 lo, ; ");
  reader.only(ports.ordered<"speed", "name">().watch(20));
  EXPECT_EQ(run(), "first added 2 eth1, added 3 lo, added 4 none, ; ");
  reader.only(ports.longestPrefix<"net">().watch(IpGenPrefix("10.0.0.0/9")));
  EXPECT_EQ(run(), "first added 1 eth0, ; ");
  reader.only(
      ports.equalBy([](const Port& row) { return row.view<"name">().view().size(); }).watch(4));
  EXPECT_EQ(run(), "first added 1 eth0, added 2 eth1, added 4 none, ; ");
}

TEST_F(TableWatchTest, IndexOfAnotherTableIsRefused) {
  Table<Port> others("others");
  TableReader<Port> reader(ports, loop, writeDown());
  EXPECT_THROW(reader.only(others.equal<"name">().watch("a")), Korvo::KoInvalidArgument);
  EXPECT_EQ(run(), "first ; ");
}

/// Takes one change in each turn.
class OneByOne : public TableReader<Port> {
 public:
  using TableReader::TableReader;
  std::map<oid_t, std::string> copy;

 protected:
  void changed(Changes<Port>& changes) override {
    const Change<Port>* const change = changes.next();
    if (change == nullptr) return;
    if (change->kind() == Korvo::ChangeKind::removed) {
      EXPECT_EQ(copy.erase(change->oid()), 1U);
    } else {
      EXPECT_EQ(change->after().get<"speed">(), 10);
      copy[change->oid()] = change->after().toJson();
    }
  }
};

TEST_F(TableWatchTest, SlowReaderHasTheWantedRowsInTheEnd) {
  OneByOne reader(ports, loop);
  reader.only(ports.equal<"speed">().watch(10));
  std::uint32_t random = 1;
  for (int step = 0; step < 3000; ++step) {
    random = random * 1664525U + 1013904223U;
    const oid_t oid = random >> 8 & 31;
    if ((random >> 16 & 3) == 0) {
      removeOne(ports, oid);
    } else {
      putAll(ports, port(oid, std::to_string(step), (random >> 20 & 1) != 0 ? 10 : 20));
    }
    if ((random >> 24 & 1) != 0) loop->run(1, 0.0, true);
    if (step % 100 != 0) continue;
    runAll(loop);
    std::map<oid_t, std::string> expected;
    for (const Port& row : ports.equal<"speed">().find(10)) expected[row.rowOid()] = row.toJson();
    ASSERT_EQ(reader.copy, expected);
  }
}

// ---------------------------------------------------------------------------------------------
// Values that are not unique in a copy

using TableCopyIndexTest = LinkTest;

TEST_F(TableCopyIndexTest, DuplicatesAreCounted) {
  auto& byName = viewer->ports.unique<"name">();
  agent->put(port(1, "eth0"), port(2, "eth0"), port(3, "eth1"), port(4, "eth0"));
  connect();
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(byName.duplicates(), 3U);
  EXPECT_EQ(byName.find("eth0").view<"name">().view(), "eth0");
  EXPECT_EQ(byName.find("eth1").rowOid(), 3U);
  // One that is asked for behind the rows is as good.
  EXPECT_EQ((viewer->ports.unique<"speed", "name">().duplicates()), 3U);
  agent->remove(1);
  loop->runUntilQuiet();
  EXPECT_EQ(byName.duplicates(), 2U);
  EXPECT_EQ(byName.find("eth0").view<"name">().view(), "eth0");
  agent->put(port(4, "eth4"));
  loop->runUntilQuiet();
  EXPECT_EQ(byName.duplicates(), 0U);
  EXPECT_EQ(byName.find("eth0").rowOid(), 2U);
  EXPECT_EQ(byName.find("eth4").rowOid(), 4U);
}

TEST_F(TableCopyIndexTest, RowsMaySwapTheirValuesInARound) {
  agent->ports.unique<"name">();
  auto& byName = viewer->ports.unique<"name">();
  agent->put(port(1, "a"), port(2, "b"), port(3, "c"));
  connect();
  loop->runUntilQuiet();
  agent->put(port(1, "b"), port(2, "c"), port(3, "a"));
  loop->runUntilQuiet();
  expectSame();
  EXPECT_EQ(byName.find("a").rowOid(), 3U);
  EXPECT_EQ(byName.find("b").rowOid(), 1U);
  EXPECT_EQ(byName.find("c").rowOid(), 2U);
  EXPECT_EQ(byName.duplicates(), 0U);
}

}  // namespace
