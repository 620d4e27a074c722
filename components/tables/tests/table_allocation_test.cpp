// Every allocation of a commit failed in turn: the tables, their indexes and readers are as before,
// and the same commit then does what it does.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

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

class Subject {
 public:
  Subject() {
    ports_.equal<"vrf">();
    ports_.unique<"name">();
    ports_.ordered<"speed">();
    ports_.longestPrefix<"net">();
    for (oid_t oid = 1; oid <= 12; ++oid) {
      batch_.put(port(oid, "eth" + std::to_string(oid), 10, "10.0.0.0/8", oid % 3));
    }
    batch_.commit();
    runAll(loop_);
    told_.str("");
    for (oid_t oid = 1; oid <= 4; ++oid) batch_.remove(ports_, oid);
    for (oid_t oid = 5; oid <= 8; ++oid) {
      batch_.put(port(oid, "new" + std::to_string(oid), 20, "10.128.0.0/9", 1));
    }
    for (oid_t oid = 100; oid <= 140; ++oid) {
      batch_.put(
          port(oid, "eth" + std::to_string(oid), -5, "10.0." + std::to_string(oid) + ".0/24", 2));
    }
    batch_.put(links_, link(7, true));
  }

  void commit() { batch_.commit(); }

  /// The reader is run too: what it is told must come whole, or later.
  std::string look() {
    std::ostringstream text;
    for (const auto& [oid, row] : contents(ports_)) text << row << '\n';
    for (const Port& row : ports_.ordered<"speed">()) text << row.rowOid() << ' ';
    for (std::uint16_t vrf = 0; vrf < 3; ++vrf) {
      auto found = oids(ports_.equal<"vrf">().find(vrf));
      std::ranges::sort(found);
      for (const oid_t oid : found) text << oid << ' ';
    }
    for (int i = 1; i <= 12; ++i) {
      text << !ports_.unique<"name">().find("eth" + std::to_string(i)).isNull();
    }
    auto inside = oids(ports_.longestPrefix<"net">().inside(Korvo::IpGenPrefix("10.0.0.0/8")));
    std::ranges::sort(inside);
    for (const oid_t oid : inside) text << oid << ' ';
    for (const char* const begin : {"e", "n"}) {
      auto found = oids(byBegin_.find(begin + std::string(30, '.')));
      std::ranges::sort(found);
      for (const oid_t oid : found) text << oid << ' ';
    }
    text << links_.size() << ' ' << ports_.sequence() << ' ' << links_.sequence() << '\n';
    runAll(loop_);
    return text.str() + told_.str();
  }

 private:
  Korvo::KoPtr<Korvo::Scheduler> loop_ = scheduler();
  Table<Port> ports_{"net/port"};
  Table<Link> links_{"net/link"};
  static std::string beginOf(const Port& row) {
    return row.get<"name">().substr(0, 1) + std::string(30, '.');
  }
  decltype(ports_.equalBy(beginOf)) byBegin_ = ports_.equalBy(beginOf);
  Batch<Table<Port>, Table<Link>> batch_{ports_, links_};
  std::ostringstream told_;
  TableReader<Port> reader_{ports_, loop_,
                            [this](const Changes<Port>& changes) {
                              for (const Change<Port>& change : changes) {
                                told_ << change.kind() << ' ' << change.oid() << ' '
                                      << !change.before().isNull() << '\n';
                              }
                            },
                            Before::kept};
};

TEST(TableAllocationTest, FailedCommitChangesNothing) {
  const unsigned int failing = alloctest::failEachAllocation(
      "commit", [] { return std::make_unique<Subject>(); },
      [](const std::unique_ptr<Subject>& subject) { subject->commit(); },
      [](const std::unique_ptr<Subject>& subject) {
        return alloctest::Snapshot{subject->look(), {}};
      });
  EXPECT_GT(failing, 20U);
}

TEST(TableAllocationTest, FailedIndexLeavesTheTable) {
  struct Indexed {
    Indexed() {
      Batch batch(table);
      for (oid_t oid = 1; oid <= 50; ++oid) {
        batch.put(port(oid, "eth" + std::to_string(oid), 0, "10.0.0.0/8"));
      }
      batch.commit();
    }
    Table<Port> table{"net/port"};
  };
  const unsigned int failing = alloctest::failEachAllocation(
      "index", [] { return std::make_unique<Indexed>(); },
      [](const std::unique_ptr<Indexed>& subject) {
        subject->table.unique<"name">();
        subject->table.longestPrefix<"net">();
        subject->table.ordered<"name">();
        subject->table.orderedBy([](const Port& row) { return "long enough " + row.toJson(); });
      },
      [](const std::unique_ptr<Indexed>& subject) {
        std::string text;
        for (const auto& [oid, row] : contents(subject->table)) text += row;
        return alloctest::Snapshot{text, {}};
      });
  EXPECT_GT(failing, 5U);
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
