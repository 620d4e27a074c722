// Ordered indexes of thousands of rows, against a plain sorted list: rows that come in order, in
// reverse and at random, go again, and come when memory fails.

#include "allocation_failures.h"
#include "table_test_support.h"

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <utility>

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::oid_t;
using Korvo::Table;

class Ordered {
 public:
  explicit Ordered(unsigned int seed) : random_(seed) {}
  virtual ~Ordered() = default;

  void put(oid_t oid, int speed) {
    batch_.put(port(oid, "eth", speed));
    changes_[oid] = speed;
  }
  void remove(oid_t oid) {
    batch_.remove(table_, oid);
    changes_[oid] = std::nullopt;
  }
  void commitAll() {
    commit();
    for (const auto& [oid, speed] : changes_) {
      if (const auto known = speeds_.find(oid); known != speeds_.end()) {
        order_.erase({known->second, oid});
        speeds_.erase(known);
      }
      if (!speed) continue;
      speeds_[oid] = *speed;
      order_.insert({*speed, oid});
    }
    changes_.clear();
  }
  void check() {
    std::vector<oid_t> expected;
    for (const auto& [speed, oid] : order_) expected.push_back(oid);
    ASSERT_EQ(oids(bySpeed_), expected);
    ASSERT_EQ(bySpeed_.first().isNull(), order_.empty());
    if (order_.empty()) return;
    ASSERT_EQ(bySpeed_.first().rowOid(), expected.front());
    ASSERT_EQ(bySpeed_.last().rowOid(), expected.back());
    for (int i = 0; i < 20; ++i) {
      const int speed = static_cast<int>(random() % 2000) - 500;
      const auto at = order_.lower_bound({speed, 0});
      const auto found = bySpeed_.from(speed);
      ASSERT_EQ(found.empty(), at == order_.end());
      if (at != order_.end()) {
        ASSERT_EQ(found.front().rowOid(), at->second);
      }
    }
  }
  /// Some rows come, change and go, more of them go where `goes` is large.
  void step(unsigned int count, unsigned int goes) {
    for (unsigned int i = 0; i < count; ++i) {
      const oid_t oid = 1 + random() % 4000;
      if (random() % 10 < goes) {
        remove(oid);
      } else {
        put(oid, static_cast<int>(random() % 1000));
      }
    }
    commitAll();
  }
  std::size_t size() const { return speeds_.size(); }

 protected:
  virtual void commit() { batch_.commit(); }
  unsigned int random() { return static_cast<unsigned int>(random_()); }

  std::mt19937 random_;
  Table<Port> table_{"net/port"};
  Korvo::OrderedIndex<Port, std::int32_t>& bySpeed_ = table_.ordered<"speed">();
  Batch<Table<Port>> batch_{table_};

 private:
  std::map<oid_t, std::optional<int>> changes_;
  std::map<oid_t, int> speeds_;
  std::set<std::pair<int, oid_t>> order_;
};

TEST(TableOrderTest, RowsComeAndGoAtRandom) {
  for (unsigned int seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Ordered model(seed);
    for (const unsigned int goes : {2U, 5U, 9U, 1U, 10U}) {
      for (int step = 0; step < 12; ++step) {
        model.step(step % 4 == 0 ? 1500 : 30, goes);
        model.check();
        if (HasFailure()) return;
      }
    }
  }
}

TEST(TableOrderTest, RowsComeInOrderAndInReverseAndGoFromEitherEnd) {
  for (const int direction : {1, -1}) {
    for (const oid_t batchSize : {1U, 7U, 3000U}) {
      Ordered model(1);
      for (oid_t oid = 1; oid <= 3000; ++oid) {
        model.put(oid, direction * static_cast<int>(oid / 3));
        if (oid % batchSize == 0) model.commitAll();
      }
      model.commitAll();
      model.check();
      for (oid_t oid = 1; oid <= 2900; ++oid) {
        model.remove(oid);
        if (oid % batchSize == 0) model.commitAll();
      }
      model.commitAll();
      model.check();
      EXPECT_EQ(model.size(), 100U);
      if (HasFailure()) return;
    }
  }
}

TEST(TableOrderTest, AllRowsChangeTheirPlacesInOneBatch) {
  Ordered model(1);
  for (oid_t oid = 1; oid <= 4000; ++oid) model.put(oid, static_cast<int>(oid % 50));
  model.commitAll();
  // All into one place, in the middle of the others, and out of it again.
  for (const int place : {25, -3, 70}) {
    for (oid_t oid = 1; oid <= 4000; oid += 2) model.put(oid, place);
    model.commitAll();
    model.check();
  }
  for (oid_t oid = 1; oid <= 4000; ++oid) model.put(oid, static_cast<int>(oid * 7919 % 1000));
  model.commitAll();
  model.check();
}

TEST(TableOrderTest, IndexOfRowsThatAreThereHasThemAll) {
  Table<Port> ports("net/port");
  Batch batch(ports);
  std::vector<std::pair<std::string, oid_t>> expected;
  for (oid_t oid = 1; oid <= 2000; ++oid) {
    // Texts whose first eight bytes do not decide.
    expected.emplace_back("interface" + std::to_string(oid * 7919 % 500), oid);
    batch.put(port(oid, expected.back().first));
  }
  batch.commit();
  std::ranges::sort(expected);
  std::vector<oid_t> found;
  for (const Port& row : ports.ordered<"name">()) found.push_back(row.rowOid());
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i) ASSERT_EQ(found[i], expected[i].second);
}

#if KORVO_FAILING_ALLOCATOR

/// Fails one allocation of each batch, and then commits the batch after all.
class FailingOrdered : public Ordered {
 public:
  using Ordered::Ordered;
  unsigned int failed = 0;

 protected:
  void commit() override {
    for (unsigned int n = random() % 20;; n += 1 + random() % 8) {
      bool isDone = false;
      {
        const alloctest::FailureScope scope(n, alloctest::Failing::once);
        try {
          batch_.commit();
          isDone = true;
        } catch (const std::bad_alloc&) {
          EXPECT_GT(scope.failures(), 0U);
        }
      }
      if (isDone) return;
      ++failed;
      check();  // as before
    }
  }
};

TEST(TableOrderTest, StaysAsItWasWhenAllocationsFail) {
  FailingOrdered model(1);
  for (const unsigned int goes : {2U, 9U, 3U}) {
    for (int step = 0; step < 10; ++step) {
      model.step(step % 5 == 0 ? 900 : 25, goes);
      model.check();
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(model.failed, 30U);
}

#endif  // KORVO_FAILING_ALLOCATOR

}  // namespace
