// What the scheduler allocates: nothing while as many units come as go, and what fails leaves the
// queue as it was.

#include <cstdlib>
#include <new>

#include "scheduler_test_support.h"

namespace {
unsigned long allocations = 0;
unsigned long allocationsUntilFailure = 0;  // 0 for never
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (allocationsUntilFailure != 0 && --allocationsUntilFailure == 0) throw std::bad_alloc();
  if (void* block = std::malloc(size)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}

namespace schedtest {
namespace {

class SchedulerMemoryTest : public SchedulerTest {
 protected:
  /// Asks for another turn each time.
  struct Busy : Schedulable {
    using Schedulable::Schedulable;
    void run(bool) override { runnableIs(true); }
  };

  static void arm(Schedulable& unit) {
    unit.clientReadyIs(true);
    unit.runnableIs(true);
  }

  const std::shared_ptr<OpenScheduler> scheduler_ = std::make_shared<OpenScheduler>();
};

TEST_F(SchedulerMemoryTest, DispatchingAllocatesNothing) {
  for (const int count : {1, 100, 10'000}) {
    std::vector<std::unique_ptr<Busy>> units;
    for (int i = 0; i < count; ++i) {
      units.push_back(std::make_unique<Busy>("busy", scheduler_));
      arm(*units.back());
    }
    scheduler_->run(2 * count + 200, 0.0, true);
    const unsigned long before = allocations;
    scheduler_->run(10 * count + 1000, 0.0, true);
    EXPECT_EQ(allocations - before, 0U) << count;
  }
}

TEST_F(SchedulerMemoryTest, TidesAllocateNothingAfterTheFirst) {
  std::vector<std::unique_ptr<Unit>> units;
  for (int i = 0; i < 1000; ++i) units.push_back(std::make_unique<Unit>("a", scheduler_));
  const auto tide = [&] {
    for (const auto& unit : units) arm(*unit);
    scheduler_->run(0, 0.0, true);
    for (const auto& unit : units) unit->args.clear();
  };
  tide();
  tide();
  const unsigned long before = allocations;
  for (int i = 0; i < 10; ++i) tide();
  EXPECT_EQ(allocations - before, 0U);
  EXPECT_EQ(units.back()->invocations(), 12U);
}

TEST_F(SchedulerMemoryTest, WithdrawingAndQueueingAnewAllocatesNothing) {
  Busy unit("a", scheduler_);
  const auto turn = [&] {
    arm(unit);
    scheduler_->run(1, 0.0, true);
    unit.cleanup();
    scheduler_->run(0, 0.0, true);
    unit.runnableIs(false);
  };
  for (int i = 0; i < 100; ++i) turn();
  const unsigned long before = allocations;
  for (int i = 0; i < 1000; ++i) turn();
  EXPECT_EQ(allocations - before, 0U);
}

TEST_F(SchedulerMemoryTest, AFailedAllocationLeavesTheQueueAsItWas) {
  int failures = 0;
  std::vector<std::unique_ptr<Busy>> units;
  for (int i = 0; i < 300; ++i) {
    units.push_back(std::make_unique<Busy>("busy", scheduler_));
    Busy& unit = *units.back();
    unit.clientReadyIs(true);
    const std::size_t before = scheduler_->runQueue_.size();
    // Fails the first allocation, then the second, until the request gets through.
    for (unsigned long n = 1;; ++n) {
      allocationsUntilFailure = n;
      try {
        scheduler_->runnableIs(&unit, true);
        allocationsUntilFailure = 0;
        break;
      } catch (const std::bad_alloc&) {
      }
      ++failures;
      ASSERT_EQ(unit.entry(), nullptr);
      ASSERT_EQ(scheduler_->runQueue_.size(), before);
      ASSERT_EQ(scheduler_->entries_.size(), before);
      ASSERT_EQ(scheduler_->entries_.count(&unit), 0U);
    }
    ASSERT_EQ(scheduler_->runQueue_.size(), before + 1);
    ASSERT_EQ(scheduler_->runQueue_.back(), unit.entry());
    ASSERT_EQ(scheduler_->entries_.at(&unit), unit.entry());
  }
  EXPECT_GT(failures, 300);
}

TEST_F(SchedulerMemoryTest, TracesThatAreOffAllocateNothing) {
  Recorder recorder(0);
  Busy unit("a name that is too long to stand in the string itself", scheduler_);
  unit.debugChannelIs(&recorder, false);
  scheduler_->debugChannelIs(&recorder, false);
  arm(unit);
  scheduler_->run(200, 0.0, true);
  const unsigned long before = allocations;
  scheduler_->run(200, 0.0, true);
  unit.clientReadyIs(false);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(allocations - before, 0U);
  scheduler_->debugChannelIs(nullptr, false);
}

}  // namespace
}  // namespace schedtest
