// What the scheduler holds and allocates: as much as its queued units need and no more, also after
// a burst; and what fails leaves the queue as it was.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <new>

#include "scheduler_test_support.h"

namespace {
unsigned long allocations = 0;
unsigned long allocationsUntilFailure = 0;  // 0 for never
std::size_t heap = 0;                       // bytes in use

// Not inlined: g++ would take free() for the wrong one of a pair.
[[gnu::noinline]] void release(void* block) {
  heap -= malloc_usable_size(block);
  std::free(block);
}
}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
  if (allocationsUntilFailure != 0 && --allocationsUntilFailure == 0) throw std::bad_alloc();
  if (void* block = std::malloc(size)) {
    heap += malloc_usable_size(block);
    return block;
  }
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t) noexcept {
  release(block);
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

  /// Asks for no other.
  struct Single : Schedulable {
    using Schedulable::Schedulable;
    void run(bool) override {}
  };

  static void arm(Schedulable& unit) {
    unit.clientReadyIs(true);
    unit.runnableIs(true);
  }

  /// The shortest of several, in seconds of processor time.
  template <typename Action>
  static double timeOf(Action action) {
    const auto now = [] {
      timespec time{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    double shortest = 1e9;
    for (int i = 0; i < 7; ++i) {
      const double start = now();
      action();
      shortest = std::min(shortest, now() - start);
    }
    return shortest;
  }

  const std::shared_ptr<OpenScheduler> scheduler_ = std::make_shared<OpenScheduler>();
};

// ---------------------------------------------------------------------------------------------
// As many units come as go

TEST_F(SchedulerMemoryTest, BusyUnitsHoldNoMoreFromTurnToTurn) {
  for (const int count : {1, 100, 10'000}) {
    std::vector<std::unique_ptr<Busy>> units;
    for (int i = 0; i < count; ++i) {
      units.push_back(std::make_unique<Busy>("busy", scheduler_));
      arm(*units.back());
    }
    scheduler_->run(2 * count + 200, 0.0, true);
    const std::size_t heapBefore = heap;
    const unsigned long before = allocations;
    const int turns = 10 * count + 1000;
    scheduler_->run(turns, 0.0, true);
    EXPECT_LE(heap, heapBefore + 1024) << count;
    // An entry, its key in the map, and now and then a block of the queue.
    EXPECT_LE(allocations - before, 2.1 * turns) << count;
  }
}

TEST_F(SchedulerMemoryTest, TidesHoldNoMoreThanTheFirst) {
  std::vector<std::unique_ptr<Single>> units;
  for (int i = 0; i < 1000; ++i) units.push_back(std::make_unique<Single>("a", scheduler_));
  const auto tide = [&] {
    for (const auto& unit : units) arm(*unit);
    const std::size_t high = heap;
    scheduler_->run(0, 0.0, true);
    return high;
  };
  const std::size_t high = tide();
  const std::size_t low = heap;
  for (int i = 0; i < 10; ++i) {
    EXPECT_LE(tide(), high + 1024);
    EXPECT_LE(heap, low + 1024);
  }
  EXPECT_EQ(units.back()->invocations(), 11U);
}

TEST_F(SchedulerMemoryTest, SchedulersThatAreGoneLeaveNothingBehind) {
  Single unit("unit"), lone("lone");
  std::size_t before = 0;
  for (int i = 0; i < 1000; ++i) {
    {
      const Single source("source", std::make_shared<OpenScheduler>());
      unit = source;
      arm(unit);
      ASSERT_NE(unit.entry(), nullptr);
      unit = lone;  // detached from its place
    }
    if (i == 9) before = heap;
  }
  EXPECT_LE(heap, before + 1024);
}

TEST_F(SchedulerMemoryTest, TracesThatAreOffAllocateNothing) {
  Recorder recorder(0);
  Busy unit("a name that is too long to stand in the string itself", scheduler_);
  arm(unit);
  const auto allocationsOfTurns = [&] {
    scheduler_->run(200, 0.0, true);
    const unsigned long before = allocations;
    scheduler_->run(256, 0.0, true);  // as many blocks of the queue each time
    unit.clientReadyIs(false);
    unit.clientReadyIs(true);
    return allocations - before;
  };
  scheduler_->run(56, 0.0, true);
  const unsigned long without = allocationsOfTurns();
  scheduler_->run(56, 0.0, true);
  unit.debugChannelIs(&recorder, false);
  scheduler_->debugChannelIs(&recorder, false);
  EXPECT_EQ(allocationsOfTurns(), without);
  scheduler_->debugChannelIs(nullptr, false);
}

// ---------------------------------------------------------------------------------------------
// A burst

/// How the units of a burst go.
enum class Going { served, destroyed, servedBesideABusyOne };

class SchedulerBurstTest : public SchedulerMemoryTest, public testing::WithParamInterface<Going> {
 protected:
  static constexpr int kUnits = 1'000'000;

  void burst() {
    std::deque<Single> units;
    for (int i = 0; i < kUnits; ++i) arm(units.emplace_back("a", scheduler_));
    if (GetParam() == Going::destroyed) units.clear();
    scheduler_->run(GetParam() == Going::servedBesideABusyOne ? kUnits + 2 : 0, 0.0, true);
    for (const Single& unit : units) ASSERT_EQ(unit.invocations(), 1U);
  }
};

TEST_P(SchedulerBurstTest, IsGivenBack) {
  Busy busy("busy", scheduler_);
  if (GetParam() == Going::servedBesideABusyOne) arm(busy);
  scheduler_->run(10, 0.0, true);
  const std::size_t before = heap;
  burst();
  EXPECT_LE(heap, 2 * before);
  EXPECT_LE(scheduler_->runQueue_.size(), 1U);
}

TEST_P(SchedulerBurstTest, LeavesALoopThatCostsWhatItCostAtFirst) {
  Single unit("a", scheduler_);
  const auto turns = [&] {
    for (int i = 0; i < 1000; ++i) {
      arm(unit);
      scheduler_->run(-1, 0.0, true);
    }
  };
  const double before = timeOf(turns);
  {
    Busy busy("busy", scheduler_);
    if (GetParam() == Going::servedBesideABusyOne) arm(busy);
    burst();
  }
  // Going through what is left of a burst would take a thousand times as long.
  EXPECT_LE(timeOf(turns), 5 * before);
}

INSTANTIATE_TEST_SUITE_P(Goings, SchedulerBurstTest,
                         testing::Values(Going::served, Going::destroyed,
                                         Going::servedBesideABusyOne),
                         [](const testing::TestParamInfo<Going>& going) {
                           switch (going.param) {
                             case Going::served:
                               return "Served";
                             case Going::destroyed:
                               return "Destroyed";
                             default:
                               return "ServedBesideABusyOne";
                           }
                         });

// Ten times as often takes ten times as long, not a hundred times.
TEST_F(SchedulerMemoryTest, ForgettingAndQueueingAgainIsLinear) {
  const auto timeOfTimes = [](int times) {
    return timeOf([times] {
      const auto scheduler = std::make_shared<OpenScheduler>();
      Busy unit("a", scheduler);
      arm(unit);
      for (int i = 0; i < times; ++i) {
        scheduler->unschedule(&unit);
        scheduler->runnableIs(&unit, true);
      }
      ASSERT_EQ(scheduler->runQueue_.size(), static_cast<std::size_t>(times) + 1);
      scheduler->run(times, 0.0, true);
    });
  };
  EXPECT_LE(timeOfTimes(40'000), 40 * timeOfTimes(4'000));
}

TEST_F(SchedulerMemoryTest, WithdrawingAndQueueingAgainIsLinear) {
  const auto timeOfTimes = [](int times) {
    return timeOf([times] {
      const auto scheduler = std::make_shared<OpenScheduler>();
      Single unit("a", scheduler);
      arm(unit);
      for (int i = 0; i < times; ++i) {
        unit.cleanup();
        unit._considerRunnability();
      }
      scheduler->run(0, 0.0, true);
      ASSERT_EQ(unit.invocations(), 1U);
    });
  };
  EXPECT_LE(timeOfTimes(40'000), 40 * timeOfTimes(4'000));
}

// ---------------------------------------------------------------------------------------------
// No memory

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
  EXPECT_GT(failures, 600);
}

TEST_F(SchedulerMemoryTest, TheLoopNeedsNoMemory) {
  std::vector<std::unique_ptr<Single>> units;
  for (int i = 0; i < 1000; ++i) units.push_back(std::make_unique<Single>("a", scheduler_));
  for (unsigned long n = 1; n < 20; ++n) {
    for (const auto& unit : units) arm(*unit);
    allocationsUntilFailure = n;
    EXPECT_NO_THROW(scheduler_->run(0, 0.0, true));
    allocationsUntilFailure = 0;
    EXPECT_EQ(units.back()->invocations(), n);
    EXPECT_EQ(units.front()->invocations(), n);
  }
}

}  // namespace
}  // namespace schedtest
