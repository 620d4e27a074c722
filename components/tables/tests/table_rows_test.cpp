// How rows are kept: who shares them, for how long, and what they take.

#include "../src/TableStore.h"
#include "memory_taken.h"
#include "table_test_support.h"

#include <algorithm>
#include <random>
#include <thread>

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::oid_t;
using Korvo::Table;

std::size_t shared(const Table<Port>& table) {
  return Korvo::detail::TableAccess::store(table).sharedCount();
}

const Korvo::byte_t* bytesOf(const Port& row) {
  return row.rowBuf();
}

class TableRowsTest : public testing::Test {
 protected:
  void fill(oid_t count) {
    Batch batch(ports_);
    for (oid_t oid = 1; oid <= count; ++oid) batch.put(port(oid, "eth" + std::to_string(oid)));
    batch.commit();
  }
  void putOne(oid_t oid, const std::string& name) {
    Batch batch(ports_);
    batch.put(port(oid, name));
    batch.commit();
  }

  Table<Port> ports_{"net/port"};
};

TEST_F(TableRowsTest, RowsThatNobodyElseHoldsHaveNoOwner) {
  fill(1000);
  EXPECT_EQ(shared(ports_), 0U);
  // Each is let go of before the next one is asked for.
  for (const Port& row : ports_) EXPECT_EQ(row.get<"name">(), "eth" + std::to_string(row.rowOid()));
  for (oid_t oid = 1; oid <= 1000; ++oid) EXPECT_FALSE(ports_.find(oid).isNull());
  EXPECT_LE(shared(ports_), 2U);
}

TEST_F(TableRowsTest, RowsThatAreHeldAreSharedByAllWhoAskForThem) {
  fill(100);
  std::vector<Port> kept;
  for (oid_t oid = 1; oid <= 100; ++oid) kept.push_back(ports_.find(oid));
  for (oid_t oid = 1; oid <= 100; ++oid) {
    EXPECT_EQ(bytesOf(ports_.find(oid)), bytesOf(kept[oid - 1]));
    EXPECT_EQ(kept[oid - 1].get<"name">(), "eth" + std::to_string(oid));
  }
  EXPECT_EQ(shared(ports_), 100U);
  // Let go of, in any order, and found again by the commits that follow.
  std::shuffle(kept.begin(), kept.end(), std::mt19937(1));
  kept.resize(10);
  for (int i = 0; i < 200; ++i) putOne(1000, "eth" + std::to_string(i));
  EXPECT_LE(shared(ports_), 12U);
  for (const Port& row : kept) EXPECT_EQ(bytesOf(ports_.find(row.rowOid())), bytesOf(row));
}

TEST_F(TableRowsTest, BytesStayWhereTheyAreWhileTheRowIsInTheTable) {
  fill(50);
  const Korvo::byte_t* place = nullptr;
  std::string_view name;
  {
    const Port row = ports_.find(7);
    place = bytesOf(row);
    name = row.view<"name">().view();
  }
  for (const Port& row : ports_) EXPECT_FALSE(row.isNull());
  for (int i = 0; i < 20; ++i) putOne(8, "eth" + std::to_string(i));
  EXPECT_EQ(bytesOf(ports_.find(7)), place);
  EXPECT_EQ(name, "eth7");
}

TEST_F(TableRowsTest, RowsThatAreHeldStayAsTheyWere) {
  fill(3);
  const Port changed = ports_.find(1);
  const Port removed = ports_.find(2);
  Port mine = ports_.find(3);
  mine.set<"name">("a name that is longer than the one before");
  EXPECT_EQ(ports_.find(3).get<"name">(), "eth3");
  Batch batch(ports_);
  batch.put(port(1, "new"));
  batch.remove(2);
  batch.commit();
  EXPECT_EQ(changed.get<"name">(), "eth1");
  EXPECT_EQ(removed.get<"name">(), "eth2");
  EXPECT_EQ(ports_.find(1).get<"name">(), "new");
  EXPECT_TRUE(ports_.find(2).isNull());
  // What the table has let go of is the holder's own, to write and to grow.
  Port own = removed;
  own.set<"name">("a name that is longer than the one before");
  EXPECT_EQ(removed.get<"name">(), "eth2");
}

TEST_F(TableRowsTest, RowThatIsPutAndHeldIsWrittenAsACopy) {
  Port row = port(1, "eth1");
  Batch batch(ports_);
  batch.put(row);
  batch.commit();
  EXPECT_EQ(shared(ports_), 1U);
  row.set<"speed">(7);
  row.set<"name">("a name that is longer than the one before");
  EXPECT_EQ(ports_.find(1).get<"speed">(), 0);
  EXPECT_EQ(ports_.find(1).get<"name">(), "eth1");
}

TEST_F(TableRowsTest, OneRowMayBePutTwiceAndIntoTwoTables) {
  Table<Port> others("net/other");
  Batch batch(ports_, others);
  {
    const Port row = port(1, "eth1");
    batch.put(ports_, row);
    batch.put(ports_, row);
    batch.put(others, row);
  }
  batch.commit();
  EXPECT_EQ(ports_.find(1).get<"name">(), "eth1");
  EXPECT_EQ(bytesOf(ports_.find(1)), bytesOf(others.find(1)));
  putOne(1, "other");
  EXPECT_EQ(others.find(1).get<"name">(), "eth1");
}

TEST_F(TableRowsTest, RowsOutliveTheirTable) {
  Port kept;
  {
    Table<Port> others("net/other");
    Batch batch(others);
    batch.put(port(1, "eth1"));
    batch.put(port(2, "eth2"));
    batch.commit();
    kept = others.find(2);
  }
  EXPECT_EQ(kept.get<"name">(), "eth2");
  kept.set<"name">("a name that is longer than the one before");
  EXPECT_EQ(kept.get<"name">(), "a name that is longer than the one before");
}

TEST_F(TableRowsTest, AnotherThreadMayLetGoOfARow) {
  fill(100);
  for (oid_t oid = 1; oid <= 100; ++oid) {
    std::thread([row = ports_.find(oid), oid] {
      EXPECT_EQ(row.get<"name">(), "eth" + std::to_string(oid));
    }).join();
    putOne(oid, "new");
  }
  EXPECT_LE(shared(ports_), 2U);
}

TEST_F(TableRowsTest, RandomHoldersSeeWhatTheyTook) {
  std::mt19937 engine(1);
  const auto random = [&engine] { return static_cast<unsigned int>(engine()); };
  std::map<oid_t, std::string> model;
  std::vector<std::pair<Port, std::string>> held;
  for (int step = 0; step < 4000; ++step) {
    const oid_t oid = 1 + random() % 60;
    switch (random() % 5) {
      case 0:
        putOne(oid, model[oid] = "eth" + std::to_string(step));
        break;
      case 1: {
        Batch batch(ports_);
        batch.remove(oid);
        batch.commit();
        model.erase(oid);
        break;
      }
      case 2: {  // put and held
        const Port row = port(oid, model[oid] = "held" + std::to_string(step));
        Batch batch(ports_);
        batch.put(row);
        batch.commit();
        held.emplace_back(row, model[oid]);
        break;
      }
      case 3:
        if (const Port row = ports_.find(oid); !row.isNull()) held.emplace_back(row, model.at(oid));
        break;
      default:
        if (held.empty()) break;
        std::swap(held[random() % held.size()], held.back());
        held.pop_back();
    }
    if (step % 50 != 0) continue;
    ASSERT_EQ(ports_.size(), model.size());
    for (const auto& [known, name] : model) ASSERT_EQ(ports_.find(known).get<"name">(), name);
    for (const auto& [row, name] : held) ASSERT_EQ(row.get<"name">(), name);
  }
}

#ifndef KORVO_SANITIZED_HEAP  // whose rows take what they need for themselves

TEST_F(TableRowsTest, ARowTakesItsLengthAnd64BytesAtTheMost) {
  constexpr oid_t count = 100'000;
  for (const std::size_t longest : {1U, 40U, 400U}) {
    std::size_t lengths = 0;
    const std::size_t before = memoryTaken();
    Table<Port> ports("net/port");
    Batch batch(ports);
    for (oid_t oid = 1; oid <= count; ++oid) {
      const Port row = port(oid, std::string(oid % longest, 'x'));
      lengths += row.rowLength();
      batch.put(row);
      if (oid % 1000 == 0) batch.commit();
    }
    batch.commit();
    const std::size_t taken = memoryTaken() - before;
    EXPECT_LE(taken, lengths + std::size_t{64} * count);
  }
}

#endif

}  // namespace
