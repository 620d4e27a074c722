// Tables, batches and indexes of one process.

#include "table_test_support.h"

#include <thread>

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;
using Korvo::Table;

template <typename... Rows>
void putAll(Table<Port>& table, const Rows&... rows) {
  Batch batch(table);
  (batch.put(rows), ...);
  batch.commit();
}

TEST(TableTest, IsEmptyAtFirst) {
  const Table<Port> ports("net/port");
  EXPECT_EQ(ports.name(), "net/port");
  EXPECT_EQ(ports.layout().rowType, 7);
  EXPECT_TRUE(ports.empty());
  EXPECT_FALSE(ports.contains(1));
  EXPECT_TRUE(ports.find(1).isNull());
  EXPECT_EQ(ports.begin(), ports.end());
  EXPECT_EQ(ports.sequence(), 0U);
  EXPECT_EQ(ports.state(), Korvo::TableState::current);
  EXPECT_EQ(ports.stateText(), "");
}

TEST(TableTest, BatchAppearsWhole) {
  Table<Port> ports("net/port");
  Batch batch(ports);
  batch.put(port(1, "eth0"));
  batch.put(port(2, "eth1"));
  EXPECT_TRUE(ports.empty());
  batch.commit();
  EXPECT_EQ(ports.size(), 2U);
  EXPECT_EQ(ports.find(2).view<"name">().view(), "eth1");
  EXPECT_EQ(ports.sequence(), 1U);
}

TEST(TableTest, BatchThatIsNotCommittedIsDiscarded) {
  Table<Port> ports("net/port");
  { Batch(ports).put(port(1, "eth0")); }
  EXPECT_TRUE(ports.empty());
  Batch batch(ports);
  batch.put(port(1, "eth0"));
  batch.clear();
  batch.commit();
  EXPECT_TRUE(ports.empty());
  EXPECT_EQ(ports.sequence(), 0U);
}

TEST(TableTest, BatchIsEmptyAfterItsCommit) {
  Table<Port> ports("net/port");
  Batch batch(ports);
  batch.put(port(1, "eth0"));
  batch.commit();
  batch.remove(1);
  batch.commit();
  EXPECT_TRUE(ports.empty());
  batch.commit();
  EXPECT_TRUE(ports.empty());
  EXPECT_EQ(ports.sequence(), 2U);
}

TEST(TableTest, LastWordOnAnOidCounts) {
  Table<Port> ports("net/port");
  Batch batch(ports);
  batch.put(port(1, "eth0"));
  batch.put(port(1, "eth1"));
  batch.put(port(2, "eth2"));
  batch.remove(2);
  batch.remove(3);
  batch.put(port(3, "eth3"));
  batch.commit();
  EXPECT_EQ(contents(ports), (std::map<oid_t, std::string>{{1, port(1, "eth1").toJson()},
                                                           {3, port(3, "eth3").toJson()}}));
}

TEST(TableTest, EqualRowsAndAbsentRemovalsChangeNothing) {
  Table<Port> ports("net/port");
  putAll(ports, port(1, "eth0", 10));
  Batch batch(ports);
  batch.put(port(1, "eth0", 10));
  batch.remove(2);
  batch.commit();
  EXPECT_EQ(ports.sequence(), 1U);
}

TEST(TableTest, RowsThatDifferInGapsAreEqual) {
  Table<Port> ports("net/port");
  putAll(ports, port(1, "eth0", 10, "10.0.0.0/8"));
  Port other = port(1, "a-longer-name", 10);
  other.set<"name">("eth0");  // leaves a gap
  other.set<"net">(IpGenPrefix("10.0.0.0/8"));
  ASSERT_NE(other.rowLength(), ports.find(1).rowLength());
  putAll(ports, other);
  EXPECT_EQ(ports.sequence(), 1U);
  other.set<"name">("eth1");
  putAll(ports, other);
  EXPECT_EQ(ports.sequence(), 2U);
}

TEST(TableTest, SharesBuffersWithWhoeverHoldsThem) {
  Table<Port> ports("net/port");
  Port row = port(1, "eth0");
  putAll(ports, row);
  EXPECT_EQ(static_cast<const Port&>(row).rowBuf(), ports.find(1).rowBuf());
  const Port kept = ports.find(1);
  row.set<"name">("changed");
  EXPECT_EQ(ports.find(1).view<"name">().view(), "eth0");
  putAll(ports, row);
  EXPECT_EQ(kept.view<"name">().view(), "eth0");
  EXPECT_EQ(ports.find(1).view<"name">().view(), "changed");
}

TEST(TableTest, RefusesWhatIsNoRowOfTheTable) {
  Table<Port> ports("net/port");
  Batch batch(ports);
  EXPECT_THROW(batch.put(Port()), Korvo::KoNullRow);
  Port torn = port(1, "eth0");
  Korvo::VColType::at(torn.rwRowBuf(), PortLayout::offset<"name">).valueIs(60000, 5, false);
  EXPECT_THROW(batch.put(torn), Korvo::KoInvalidArgument);
  Port otherType = port(1, "eth0");
  otherType.rowTypeIs(9);
  EXPECT_THROW(batch.put(otherType), Korvo::KoInvalidArgument);
  Korvo::AnyBatch any;
  EXPECT_THROW(any.put(ports, torn), Korvo::KoInvalidArgument);
  EXPECT_THROW(any.put(ports, link(1, true)), Korvo::KoInvalidArgument);
  batch.commit();
  any.commit();
  EXPECT_TRUE(ports.empty());
}

TEST(TableTest, TakesANestedRowByACopy) {
  struct BoxLayout : Korvo::RowLayout<9, Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
  Korvo::TableRow<BoxLayout> box;
  box.create();
  box.set<"link">(link(5, true));
  Korvo::AnyTable links("net/link", LinkLayout::info);
  Korvo::AnyBatch batch;
  batch.put(links, box.view<"link">());
  box.nullifyRow();
  batch.commit();
  Link found;
  EXPECT_TRUE(links.get(5, found));
  EXPECT_TRUE(found.get<"up">());
  EXPECT_FALSE(links.get(6, found));
  EXPECT_TRUE(found.isNull());
}

TEST(TableTest, BatchOverSeveralTablesHasOneSequence) {
  Table<Port> ports("net/port");
  Table<Link> links("net/link");
  putAll(ports, port(1, "eth0"));
  putAll(ports, port(2, "eth1"));
  Batch batch(ports, links);
  batch.put(port(3, "eth2"));
  batch.put(links, link(3, true));
  batch.remove(ports, 1);
  batch.commit();
  EXPECT_EQ(ports.sequence(), 3U);
  EXPECT_EQ(links.sequence(), 3U);
  Batch alone(links);
  alone.put(link(4, true));
  alone.commit();
  EXPECT_EQ(links.sequence(), 4U);
  EXPECT_EQ(ports.sequence(), 3U);
}

TEST(TableTest, RefusedTableKeepsTheOthersOfTheBatch) {
  Table<Port> ports("net/port");
  Table<Link> links("net/link");
  ports.unique<"name">();
  Batch batch(links, ports);
  batch.put(link(1, true));
  batch.put(port(1, "eth0"));
  batch.put(port(2, "eth0"));
  EXPECT_THROW(batch.commit(), Korvo::KoInvalidArgument);
  EXPECT_TRUE(links.empty());
  EXPECT_TRUE(ports.empty());
  batch.remove(ports, 2);
  batch.commit();
  EXPECT_EQ(links.size(), 1U);
  EXPECT_EQ(ports.size(), 1U);
}

TEST(TableTest, GoingThroughRowsStandsChangesOfOtherRows) {
  Table<Port> ports("net/port");
  for (oid_t oid = 1; oid <= 100; ++oid) putAll(ports, port(oid, "eth" + std::to_string(oid)));
  std::vector<oid_t> met;
  for (const Port& row : ports) {
    met.push_back(row.rowOid());
    Batch batch(ports);
    batch.put(port(row.rowOid() + 1000, "new"));
    if (row.rowOid() < 100 && row.rowOid() % 2 == 0) batch.remove(row.rowOid() - 1);
    batch.commit();
    if (met.size() == 100) break;
  }
  EXPECT_EQ(met.size(), 100U);
}

using TableDeathTest = testing::Test;

TEST(TableDeathTest, BelongsToOneThread) {
  EXPECT_DEATH(
      {
        Table<Port> ports("net/port");
        std::thread([&] { putAll(ports, port(1, "eth0")); }).join();
      },
      "std::this_thread::get_id\\(\\) == thread_");
}

// ---------------------------------------------------------------------------------------------
// Indexes

TEST(TableIndexTest, FindsRowsByValue) {
  Table<Port> ports("net/port");
  putAll(ports, port(1, "eth0", 10), port(2, "eth1", 10), port(3, "eth2", 40));
  auto& bySpeed = ports.equal<"speed">();
  auto& byName = ports.equal<"name">();
  EXPECT_EQ(oids(byName.find("eth1")), std::vector<oid_t>{2});
  EXPECT_TRUE(byName.find("eth9").empty());
  EXPECT_TRUE(byName.find("eth9").front().isNull());
  std::vector<oid_t> fast = oids(bySpeed.find(10));
  std::ranges::sort(fast);
  EXPECT_EQ(fast, (std::vector<oid_t>{1, 2}));
  EXPECT_EQ(&ports.equal<"speed">(), &bySpeed);
}

TEST(TableIndexTest, FollowsChanges) {
  Table<Port> ports("net/port");
  auto& byName = ports.equal<"name">();
  putAll(ports, port(1, "eth0"), port(2, "eth1"));
  Batch batch(ports);
  batch.put(port(1, "eth7"));
  batch.remove(2);
  batch.commit();
  EXPECT_TRUE(byName.find("eth0").empty());
  EXPECT_TRUE(byName.find("eth1").empty());
  EXPECT_EQ(oids(byName.find("eth7")), std::vector<oid_t>{1});
}

TEST(TableIndexTest, FindsRowsBySeveralColumns) {
  Table<Port> ports("net/port");
  auto& index = ports.equal<"vrf", "name">();
  putAll(ports, port(1, "eth0", 0, "", 1), port(2, "eth0", 0, "", 2), port(3, "eth1", 0, "", 1));
  EXPECT_EQ(oids(index.find(2, "eth0")), std::vector<oid_t>{2});
  EXPECT_TRUE(index.find(2, "eth1").empty());
}

TEST(TableIndexTest, UniqueRefusesASecondRowOfAValue) {
  Table<Port> ports("net/port");
  auto& byName = ports.unique<"name">();
  putAll(ports, port(1, "eth0"), port(2, "eth1"));
  EXPECT_EQ(byName.find("eth1").rowOid(), 2U);
  EXPECT_TRUE(byName.find("eth2").isNull());
  try {
    putAll(ports, port(3, "eth1"));
    FAIL();
  } catch (const Korvo::KoInvalidArgument& e) {
    EXPECT_STREQ(e.what(), "Not unique - (net/port: rows 2 and 3)");
  }
  EXPECT_EQ(ports.size(), 2U);
  EXPECT_EQ(ports.sequence(), 1U);
}

TEST(TableIndexTest, RowsMaySwapUniqueValuesInABatch) {
  Table<Port> ports("net/port");
  auto& byName = ports.unique<"name">();
  putAll(ports, port(1, "eth0"), port(2, "eth1"), port(3, "eth2"));
  putAll(ports, port(1, "eth1"), port(2, "eth2"), port(3, "eth0"));
  EXPECT_EQ(byName.find("eth0").rowOid(), 3U);
  EXPECT_EQ(byName.find("eth1").rowOid(), 1U);
  EXPECT_EQ(byName.find("eth2").rowOid(), 2U);
  Batch batch(ports);  // a removed row's value is free at once
  batch.remove(1);
  batch.put(port(4, "eth1"));
  batch.commit();
  EXPECT_EQ(byName.find("eth1").rowOid(), 4U);
}

TEST(TableIndexTest, UniqueIndexOfRowsThatAreNotIsRefused) {
  Table<Port> ports("net/port");
  putAll(ports, port(1, "eth0"), port(2, "eth0"));
  EXPECT_THROW(ports.unique<"name">(), Korvo::KoInvalidArgument);
  putAll(ports, port(3, "eth0"));
  EXPECT_EQ(ports.size(), 3U);
}

TEST(TableIndexTest, OrdersRows) {
  Table<Port> ports("net/port");
  auto& bySpeed = ports.ordered<"speed">();
  EXPECT_TRUE(bySpeed.first().isNull());
  EXPECT_TRUE(bySpeed.last().isNull());
  putAll(ports, port(1, "a", 40), port(2, "b", -10), port(3, "c", 10), port(4, "d", 10),
         port(5, "e", 100));
  EXPECT_EQ(oids(bySpeed), (std::vector<oid_t>{2, 3, 4, 1, 5}));
  EXPECT_EQ(oids(bySpeed.from(10)), (std::vector<oid_t>{3, 4, 1, 5}));
  EXPECT_EQ(oids(bySpeed.from(11)), (std::vector<oid_t>{1, 5}));
  EXPECT_EQ(oids(bySpeed.before(10)), (std::vector<oid_t>{2}));
  EXPECT_EQ(oids(bySpeed.before(-10)), (std::vector<oid_t>{}));
  EXPECT_EQ(oids(bySpeed.find(10)), (std::vector<oid_t>{3, 4}));
  EXPECT_EQ(bySpeed.first().rowOid(), 2U);
  EXPECT_EQ(bySpeed.last().rowOid(), 5U);
}

TEST(TableIndexTest, OrdersTextAndSeveralColumns) {
  Table<Port> ports("net/port");
  auto& index = ports.ordered<"vrf", "name">();
  putAll(ports, port(1, "eth10", 0, "", 2), port(2, "eth1", 0, "", 2), port(3, "a", 0, "", 3),
         port(4, "eth", 0, "", 2), port(5, "z", 0, "", 1));
  EXPECT_EQ(oids(index), (std::vector<oid_t>{5, 4, 2, 1, 3}));
  EXPECT_EQ(oids(index.find(2)), (std::vector<oid_t>{4, 2, 1}));
  EXPECT_EQ(oids(index.from(2, "eth1")), (std::vector<oid_t>{2, 1, 3}));
}

TEST(TableIndexTest, FindsTheMostSpecificPrefix) {
  Table<Port> ports("net/port");
  auto& byNet = ports.longestPrefix<"net">();
  putAll(ports, port(1, "all", 0, "0.0.0.0/0"), port(2, "ten", 0, "10.0.0.0/8"),
         port(3, "site", 0, "10.1.0.0/16"), port(4, "host", 0, "10.1.2.3/32"), port(5, "none"),
         port(6, "six", 0, "2001:db8::/32"), port(7, "site", 0, "10.1.0.0/16"));
  EXPECT_EQ(byNet.find(IpGenAddr("10.1.2.3")).rowOid(), 4U);
  EXPECT_EQ(byNet.find(IpGenAddr("10.1.2.4")).view<"name">().view(), "site");
  EXPECT_EQ(byNet.find(IpGenAddr("10.2.0.0")).rowOid(), 2U);
  EXPECT_EQ(byNet.find(IpGenAddr("11.0.0.0")).rowOid(), 1U);
  EXPECT_EQ(byNet.find(IpGenAddr("2001:db8::1")).rowOid(), 6U);
  EXPECT_TRUE(byNet.find(IpGenAddr("2001:db9::1")).isNull());
  EXPECT_TRUE(byNet.find(IpGenAddr()).isNull());
  EXPECT_EQ(byNet.find(IpGenPrefix("10.0.0.0/15")).rowOid(), 2U);

  std::vector<oid_t> covering = oids(byNet.covering(IpGenAddr("10.1.2.3")));
  ASSERT_EQ(covering.size(), 5U);
  EXPECT_EQ(covering.front(), 1U);
  EXPECT_EQ(covering.back(), 4U);
  std::vector<oid_t> inside = oids(byNet.inside(IpGenPrefix("10.0.0.0/9")));
  std::ranges::sort(inside);
  EXPECT_EQ(inside, (std::vector<oid_t>{3, 4, 7}));
  std::vector<oid_t> exact = oids(byNet.exact(IpGenPrefix("10.1.0.0/16")));
  std::ranges::sort(exact);
  EXPECT_EQ(exact, (std::vector<oid_t>{3, 7}));
  EXPECT_TRUE(byNet.exact(IpGenPrefix("10.1.0.0/17")).empty());
}

TEST(TableIndexTest, RefusesColumnsThatItCannotIndex) {
  struct TagsLayout : Korvo::RowLayout<9, Korvo::Column<"tags", std::vector<std::string>>> {};
  Korvo::AnyTable tags("tags", TagsLayout::info);
  auto& store = Korvo::detail::TableAccess::store(tags);
  const std::size_t column = 0;
  for (const auto kind : {Korvo::detail::IndexKind::equal, Korvo::detail::IndexKind::ordered,
                          Korvo::detail::IndexKind::longestPrefix}) {
    EXPECT_THROW(Korvo::detail::TableAccess::index(store, kind, {&column, 1}),
                 Korvo::KoInvalidArgument);
  }
}

}  // namespace
