// Random batches, against a plain model: the rows, every index, and readers of every kind.

#include "../src/TableStore.h"
#include "table_test_support.h"

#include <algorithm>
#include <random>

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::Before;
using Korvo::Change;
using Korvo::ChangeKind;
using Korvo::Changes;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableReader;

class Random {
 public:
  explicit Random(unsigned int seed) : engine_(seed) {}
  unsigned int operator()() { return static_cast<unsigned int>(engine_()); }

 private:
  std::mt19937 engine_;
};

std::string randomPrefix(Random& random) {
  const unsigned int kind = random() % 10;
  if (kind == 0) return "";
  const unsigned int length = random() % (kind < 6 ? 33 : 129);
  std::string text;
  if (kind < 6) {
    text = "10." + std::to_string(random() % 3) + "." + std::to_string(random() % 3 * 64) + "." +
           std::to_string(random() % 256);
  } else {
    text = "2001:db8:" + std::to_string(random() % 3) + "::" + std::to_string(random() % 100);
  }
  IpGenAddr addr(text);
  addr.clearLowerAddrBits(static_cast<Korvo::byte_t>(length));
  std::ostringstream prefix;
  prefix << addr << '/' << length;
  return prefix.str();
}

std::string differences(const std::map<oid_t, std::string>& a,
                        const std::map<oid_t, std::string>& b) {
  std::string text;
  for (const auto& [oid, row] : a) {
    if (!b.contains(oid) || b.at(oid) != row) text += "first has " + row + '\n';
  }
  for (const auto& [oid, row] : b) {
    if (!a.contains(oid) || a.at(oid) != row) text += "second has " + row + '\n';
  }
  return text;
}

/// Keeps a copy by what it is told, and checks that what it is told fits what it knew.
class Copy : public TableReader<Port> {
 public:
  Copy(Table<Port>& table, const Korvo::KoPtr<Korvo::Scheduler>& loop, Before before,
       std::size_t mostInATurn)
      : TableReader(table, loop, before), before_(before), mostInATurn_(mostInATurn) {}

  std::map<oid_t, std::string> rows;

 protected:
  void changed(Changes<Port>& changes) override {
    if (changes.first()) rows.clear();
    const bool whole = mostInATurn_ == 0;
    for (std::size_t i = 0; whole || i < mostInATurn_; ++i) {
      const Change<Port>* const change = changes.next();
      if (change == nullptr) return;
      const auto known = rows.find(change->oid());
      // A round in one turn is exact; one of several turns may tell a row again.
      if (whole) {
        EXPECT_EQ(change->kind() == ChangeKind::added, known == rows.end());
      }
      if (whole && before_ == Before::kept && known != rows.end()) {
        EXPECT_EQ(change->before().toJson(), known->second);
      }
      if (change->kind() == ChangeKind::removed) {
        EXPECT_TRUE(change->after().isNull());
        rows.erase(change->oid());
      } else {
        EXPECT_EQ(change->after().rowOid(), change->oid());
        rows[change->oid()] = change->after().toJson();
      }
    }
  }

 private:
  Before before_;
  std::size_t mostInATurn_;
};

class Model {
 public:
  explicit Model(unsigned int seed) : random_(seed) {
    copies_.push_back(std::make_unique<Copy>(table_, loop_, Before::unknown, 0));
    copies_.push_back(std::make_unique<Copy>(table_, loop_, Before::kept, 0));
    copies_.push_back(std::make_unique<Copy>(table_, loop_, Before::unknown, 1));
    copies_.push_back(std::make_unique<Copy>(table_, loop_, Before::kept, 3));
  }

  void step() {
    const unsigned int choice = random_() % 20;
    if (choice == 0) {
      runAll(loop_);
      for (const auto& copy : copies_) EXPECT_EQ(differences(copy->rows, contents(table_)), "");
    } else if (choice < 4) {
      loop_->run(1, 0.0, true);
    } else if (choice == 4 && copies_.size() < 8) {
      copies_.push_back(std::make_unique<Copy>(table_, loop_, Before::kept, random_() % 3));
    } else if (choice == 5 && copies_.size() > 3) {
      copies_.erase(copies_.begin() + static_cast<std::ptrdiff_t>(random_() % copies_.size()));
    } else {
      commit();
      if (random_() % 8 == 0) check();
    }
  }

  void check() {
    std::map<oid_t, std::string> expected;
    for (const auto& [oid, row] : rows_) expected[oid] = row.toJson();
    ASSERT_EQ(differences(contents(table_), expected), "");
    ASSERT_EQ(table_.size(), rows_.size());
    checkEqual();
    checkOrdered();
    checkPrefixes();
  }

 private:
  void commit() {
    Batch batch(table_);
    std::map<oid_t, Port> after = rows_;
    // As many batches of the owner's other tables.
    if (random_() % 30 == 0) {
      const std::uint64_t jump = std::uint64_t{random_()} << random_() % 8;
      Korvo::detail::TableAccess::store(table_).source()->last += jump;
    }
    const unsigned int operations = 1 + random_() % (random_() % 10 == 0 ? 200 : 5);
    for (unsigned int i = 0; i < operations; ++i) {
      const oid_t oid = random_() % 150;
      if (random_() % 3 == 0) {
        batch.remove(oid);
        after.erase(oid);
      } else {
        const Port row =
            port(oid, "eth" + std::to_string(random_() % 40), static_cast<int>(random_() % 20) - 10,
                 randomPrefix(random_), random_() % 3);
        batch.put(row);
        after[oid] = row;
      }
    }
    batch.commit();
    rows_ = std::move(after);
  }

  template <typename Keep>
  std::vector<oid_t> scan(const Keep& keep) const {
    std::vector<oid_t> found;
    for (const auto& [oid, row] : rows_) {
      if (keep(row)) found.push_back(oid);
    }
    return found;
  }
  template <typename Rows>
  static std::vector<oid_t> sorted(const Rows& rows) {
    std::vector<oid_t> all = oids(rows);
    std::ranges::sort(all);
    return all;
  }

  void checkEqual() {
    for (int i = 0; i < 40; ++i) {
      const std::string name = "eth" + std::to_string(i);
      ASSERT_EQ(sorted(byName_.find(name)),
                scan([&](const Port& row) { return row.get<"name">() == name; }));
    }
    for (std::uint16_t vrf = 0; vrf < 3; ++vrf) {
      ASSERT_EQ(sorted(byBoth_.find(vrf, 5)), scan([&](const Port& row) {
                  return row.get<"vrf">() == vrf && row.get<"speed">() == 5;
                }));
    }
  }

  void checkOrdered() {
    std::vector<oid_t> expected = scan([](const Port&) { return true; });
    const auto key = [&](oid_t oid) {
      const Port& row = rows_.at(oid);
      return std::make_tuple(row.get<"speed">(), row.get<"name">(), oid);
    };
    std::ranges::sort(expected, {}, key);
    ASSERT_EQ(oids(bySpeed_), expected);
    for (int speed = -11; speed <= 11; ++speed) {
      const auto split = std::ranges::find_if(
          expected, [&](oid_t oid) { return rows_.at(oid).get<"speed">() >= speed; });
      ASSERT_EQ(oids(bySpeed_.before(speed)), std::vector<oid_t>(expected.begin(), split));
      ASSERT_EQ(oids(bySpeed_.from(speed)), std::vector<oid_t>(split, expected.end()));
    }
  }

  void checkPrefixes() {
    for (int i = 0; i < 20; ++i) {
      const std::string text = randomPrefix(random_);
      if (text.empty()) continue;
      const IpGenPrefix wanted(text);
      const auto net = [](const Port& row) { return row.get<"net">(); };
      const auto covers = [&](const Port& row) {
        const IpGenPrefix prefix = net(row);
        return prefix.addr().af() == wanted.addr().af() && prefix.mask() <= wanted.mask() &&
               prefix.contains(wanted);
      };
      const auto isInside = [&](const Port& row) {
        const IpGenPrefix prefix = net(row);
        return prefix.addr().af() == wanted.addr().af() && prefix.mask() >= wanted.mask() &&
               wanted.contains(prefix);
      };
      const std::vector<oid_t> expected = scan(covers);
      ASSERT_EQ(sorted(byNet_.covering(wanted)), expected) << text;
      ASSERT_EQ(sorted(byNet_.inside(wanted)), scan(isInside)) << text;
      ASSERT_EQ(sorted(byNet_.exact(wanted)),
                scan([&](const Port& row) { return net(row) == wanted; }));
      const Port found = byNet_.find(wanted);
      ASSERT_EQ(found.isNull(), expected.empty());
      for (const oid_t oid : expected) {
        ASSERT_LE(net(rows_.at(oid)).mask(), found.get<"net">().mask());
      }
      ASSERT_TRUE(found.isNull() || covers(found));
    }
  }

  Random random_;
  Korvo::KoPtr<Korvo::Scheduler> loop_ = scheduler();
  Table<Port> table_{"net/port"};
  decltype(table_.equal<"name">()) byName_ = table_.equal<"name">();
  decltype(table_.equal<"vrf", "speed">()) byBoth_ = table_.equal<"vrf", "speed">();
  decltype(table_.ordered<"speed", "name">()) bySpeed_ = table_.ordered<"speed", "name">();
  decltype(table_.longestPrefix<"net">()) byNet_ = table_.longestPrefix<"net">();
  std::map<oid_t, Port> rows_;
  std::vector<std::unique_ptr<Copy>> copies_;
};

TEST(TableModelTest, RandomBatches) {
  for (unsigned int seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed);
    for (int step = 0; step < 400; ++step) model.step();
    model.check();
    if (HasFailure()) return;
  }
}

}  // namespace
