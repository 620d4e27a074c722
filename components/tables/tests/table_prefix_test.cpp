// The index of prefixes against a plain scan of all rows: random histories over prefixes that lie
// densely, sparsely and in chains, of both families, with host bits, without a prefix, of every
// length, and many rows of one prefix; with allocations that fail.

#include "allocation_failures.h"

#include "table_test_support.h"

#include <algorithm>
#include <array>
#include <random>

namespace {

using namespace tabletest;
using Korvo::AddressFamily;
using Korvo::Batch;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;
using Korvo::Table;

class Random {
 public:
  explicit Random(unsigned int seed) : engine_(seed) {}
  unsigned int operator()() { return static_cast<unsigned int>(engine_()); }

 private:
  std::mt19937 engine_;
};

/// A prefix as the plain model has it.
struct Plain {
  AddressFamily af = Korvo::unknown_;
  unsigned int length = 0;
  std::array<std::uint8_t, 16> bytes{};

  bool bit(unsigned int index) const { return (bytes[index / 8] >> (7 - index % 8) & 1) != 0; }
  void flip(unsigned int index) {
    bytes[index / 8] = static_cast<std::uint8_t>(bytes[index / 8] ^ 1U << (7 - index % 8));
  }
  unsigned int mostBits() const { return af == Korvo::ipv4_ ? 32 : 128; }
  IpGenAddr addr() const { return IpGenAddr(af, bytes.data()); }
  IpGenPrefix prefix() const { return IpGenPrefix(addr(), static_cast<Korvo::byte_t>(length)); }
};

/// Whether all of b lies in a, by each of their bits.
bool contains(const Plain& a, const Plain& b) {
  if (a.af == Korvo::unknown_ || a.af != b.af || a.length > b.length) return false;
  for (unsigned int i = 0; i < a.length; ++i) {
    if (a.bit(i) != b.bit(i)) return false;
  }
  return true;
}

/// How prefixes lie to each other.
enum class Lie { dense, sparse, chains, alike };

class Model {
 public:
  Model(unsigned int seed, Lie lie) : random_(seed), lie_(lie) {}
  virtual ~Model() = default;

  void step(unsigned int most) {
    Batch batch(table_);
    std::map<oid_t, Plain> after = rows_;
    for (unsigned int left = 1 + random_() % most; left > 0; --left) {
      const oid_t oid = random_() % 300;
      if (random_() % 5 < 2) {
        batch.remove(oid);
        after.erase(oid);
        continue;
      }
      const Plain net = randomPrefix();
      Port row = port(oid, "eth");
      row.set<"speed">(static_cast<std::int32_t>(random_() % 1000));
      if (net.af != Korvo::unknown_) row.set<"net">(net.prefix());
      batch.put(row);
      after[oid] = net;
    }
    commit(batch);
    rows_ = std::move(after);
  }

  void removeAll() {
    Batch batch(table_);
    for (const auto& [oid, net] : rows_) batch.remove(oid);
    batch.commit();
    rows_.clear();
  }

  void check() {
    for (int i = 0; i < 30; ++i) {
      Plain wanted = randomPrefix();
      if (i % 3 == 0 && !rows_.empty()) {
        wanted =
            std::next(rows_.begin(), static_cast<std::ptrdiff_t>(random_() % rows_.size()))->second;
        if (wanted.af != Korvo::unknown_ && random_() % 2 == 0) {
          wanted.length = random_() % (wanted.mostBits() + 1);
        }
      }
      if (wanted.af == Korvo::unknown_) {
        EXPECT_TRUE(index_.find(IpGenAddr()).isNull());
        EXPECT_TRUE(index_.covering(IpGenPrefix()).empty());
        EXPECT_TRUE(index_.inside(IpGenPrefix()).empty());
        EXPECT_TRUE(index_.exact(IpGenPrefix()).empty());
        continue;
      }
      check(wanted, wanted.prefix());
      Plain whole = wanted;
      whole.length = wanted.mostBits();
      check(whole, wanted.addr());
      if (testing::Test::HasFailure()) return;
    }
  }

 protected:
  virtual void commit(Batch<Table<Port>>& batch) { batch.commit(); }

  Random random_;

 private:
  Plain randomPrefix() {
    Plain net;
    const unsigned int kind = random_() % 12;
    if (kind == 0) return net;
    net.af = kind < 7 ? Korvo::ipv4_ : Korvo::ipv6_;
    const unsigned int most = net.mostBits();
    net.length = random_() % 6 == 0 ? (random_() % 2 == 0 ? 0 : most) : random_() % (most + 1);
    switch (lie_) {
      case Lie::dense:  // many that contain each other, side by side
        net.bytes = {10, 0, 1};
        for (int i = 0; i < 3; ++i) net.flip(most - 1 - random_() % 16);
        if (random_() % 3 != 0) net.length = most - random_() % 20;
        break;
      case Lie::sparse:  // anything, host bits included
        for (std::uint8_t& byte : net.bytes) byte = static_cast<std::uint8_t>(random_());
        break;
      case Lie::chains:  // all on the way to few addresses
        net.bytes.fill(0x55);
        if (random_() % 4 == 0) net.flip(random_() % most);
        break;
      case Lie::alike:  // few prefixes of many rows
        net.bytes = {192, 168};
        net.length = net.length % 3 * (most / 2);
        break;
    }
    if (random_() % 2 == 0) {
      for (unsigned int i = net.length; i < most; ++i) {
        if (net.bit(i)) net.flip(i);
      }
    }
    if (net.af == Korvo::ipv4_) std::fill(net.bytes.begin() + 4, net.bytes.end(), 0);
    return net;
  }

  template <typename Keep>
  std::vector<oid_t> scan(const Keep& keep) const {
    std::vector<oid_t> found;
    for (const auto& [oid, net] : rows_) {
      if (keep(net)) found.push_back(oid);
    }
    return found;
  }
  template <typename Rows>
  static std::vector<oid_t> sorted(const Rows& rows) {
    std::vector<oid_t> all = oids(rows);
    std::ranges::sort(all);
    return all;
  }

  template <typename Wanted>
  void check(const Plain& plain, const Wanted& wanted) {
    SCOPED_TRACE(testing::Message() << plain.prefix());
    const std::vector<oid_t> covering =
        scan([&](const Plain& net) { return contains(net, plain); });
    const auto found = index_.covering(wanted);
    EXPECT_EQ(sorted(found), covering);
    for (std::size_t i = 1; i < found.size(); ++i) {
      EXPECT_LE(lengthOf(found[i - 1]), lengthOf(found[i])) << "the widest first";
    }
    const Port best = index_.find(wanted);
    ASSERT_EQ(best.isNull(), covering.empty());
    if (!best.isNull()) {
      EXPECT_TRUE(contains(rows_.at(best.rowOid()), plain));
      for (const oid_t oid : covering) EXPECT_LE(rows_.at(oid).length, lengthOf(best));
    }
    if constexpr (std::is_same_v<Wanted, IpGenPrefix>) {
      const auto inside = index_.inside(wanted);
      EXPECT_EQ(sorted(inside), scan([&](const Plain& net) { return contains(plain, net); }));
      for (std::size_t i = 1; i < inside.size(); ++i) {
        EXPECT_LE(placeOf(inside[i - 1]), placeOf(inside[i])) << "by address and then by length";
      }
      EXPECT_EQ(sorted(index_.exact(wanted)), scan([&](const Plain& net) {
                  return contains(net, plain) && contains(plain, net);
                }));
    }
  }
  unsigned int lengthOf(const Port& row) const { return rows_.at(row.rowOid()).length; }
  std::pair<std::string, unsigned int> placeOf(const Port& row) const {
    Plain net = rows_.at(row.rowOid());
    for (unsigned int i = net.length; i < net.mostBits(); ++i) {
      if (net.bit(i)) net.flip(i);
    }
    return {{net.bytes.begin(), net.bytes.end()}, net.length};
  }

  Lie lie_;
  Table<Port> table_{"net/port"};
  Korvo::PrefixIndex<Port>& index_ = table_.longestPrefix<"net">();
  std::map<oid_t, Plain> rows_;
};

class TablePrefixTest : public testing::TestWithParam<Lie> {};

TEST_P(TablePrefixTest, AnswersAsAScanDoes) {
  for (unsigned int seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Model model(seed, GetParam());
    for (int step = 0; step < 120; ++step) {
      model.step(step % 20 == 0 ? 400 : 6);
      if (step % 3 == 0) model.check();
      if (step == 100) model.removeAll();
      if (HasFailure()) return;
    }
    model.check();
  }
}

#if KORVO_FAILING_ALLOCATOR

/// Fails one allocation of each batch, and then commits the batch after all.
class FailingModel : public Model {
 public:
  using Model::Model;
  unsigned int failed = 0;

 protected:
  void commit(Batch<Table<Port>>& batch) override {
    for (unsigned int n = random_() % 20;; n += 1 + random_() % 10) {
      bool isDone = false;
      unsigned int failures = 0;
      {
        const alloctest::FailureScope scope(n, alloctest::Failing::once);
        try {
          batch.commit();
          isDone = true;
        } catch (const std::bad_alloc&) {
        }
        failures = scope.failures();
      }
      if (isDone) return;
      ASSERT_GT(failures, 0U);
      ++failed;
      check();  // as before
    }
  }
};

TEST_P(TablePrefixTest, StaysAsItWasWhenAllocationsFail) {
  unsigned int failed = 0;
  for (unsigned int seed = 1; seed <= 2; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    FailingModel model(seed, GetParam());
    for (int step = 0; step < 60; ++step) {
      model.step(20);
      model.check();
      if (HasFailure()) return;
    }
    failed += model.failed;
  }
  EXPECT_GT(failed, 30U);
}

#endif  // KORVO_FAILING_ALLOCATOR

INSTANTIATE_TEST_SUITE_P(Prefixes, TablePrefixTest,
                         testing::Values(Lie::dense, Lie::sparse, Lie::chains, Lie::alike),
                         [](const auto& lie) {
                           switch (lie.param) {
                             case Lie::dense:
                               return "Dense";
                             case Lie::sparse:
                               return "Sparse";
                             case Lie::chains:
                               return "Chains";
                             case Lie::alike:
                               break;
                           }
                           return "Alike";
                         });

TEST(TablePrefixManyTest, ManyRowsOfOnePrefixComeAndGoQuickly) {
  // A walk over all of them for each that goes would take minutes.
  Table<Port> ports("net/port");
  auto& byNet = ports.longestPrefix<"net">();
  auto& byVrf = ports.equal<"vrf">();
  constexpr oid_t count = 200'000;
  Batch batch(ports);
  for (oid_t oid = 1; oid <= count; ++oid) batch.put(port(oid, "eth", 0, "10.0.0.0/8", 1));
  batch.commit();
  EXPECT_EQ(byNet.covering(IpGenAddr("10.1.2.3")).size(), count);
  EXPECT_EQ(byVrf.duplicates(), count);
  for (oid_t oid = 1; oid < count; ++oid) batch.remove(oid);
  batch.commit();
  EXPECT_EQ(byNet.find(IpGenAddr("10.1.2.3")).rowOid(), count);
  EXPECT_EQ(byVrf.find(1).front().rowOid(), count);
  EXPECT_EQ(byVrf.duplicates(), 0U);
}

}  // namespace
