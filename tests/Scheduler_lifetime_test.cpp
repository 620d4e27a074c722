// Units and schedulers that are destroyed, moved or out of memory at awkward moments. Most of what
// could go wrong here is a touch of freed memory, which the run under AddressSanitizer finds.

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

struct Thrown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What destroys a unit, and how its work ends after that.
enum class End { returns, throws };

class SchedulerLifetimeTest : public SchedulerTest {
 protected:
  /// Runs until the queue is empty, however often a unit throws.
  static void drain(Scheduler& scheduler) {
    for (;;) {
      try {
        scheduler.run(0, 0.0, true);
        return;
      } catch (const Thrown&) {
      }
    }
  }

  const std::shared_ptr<OpenScheduler> scheduler_ = std::make_shared<OpenScheduler>();
};

// ---------------------------------------------------------------------------------------------
// Units destroyed while they are queued

TEST_F(SchedulerLifetimeTest, DestroyingAQueuedUnitWithdrawsIt) {
  Unit other("other", scheduler_);
  auto unit = std::make_unique<Unit>("a", scheduler_);
  unit->arm();
  other.arm();
  unit.reset();
  EXPECT_EQ(scheduler_->entries_.size(), 1U);
  ASSERT_EQ(scheduler_->runQueue_.size(), 2U);
  EXPECT_FALSE(scheduler_->runQueue_.front()->valid);
  EXPECT_EQ(scheduler_->runQueue_.front()->unit, nullptr);
  scheduler_->run(-1, 0.0, true);
  EXPECT_EQ(other.invocations(), 1U);
}

TEST_F(SchedulerLifetimeTest, DestructionWithdrawsWhateverCleanupDoes) {
  struct Careless : Unit {
    using Unit::Unit;
    void cleanup() override {}
  };
  auto unit = std::make_unique<Careless>("a", scheduler_);
  unit->arm();
  unit.reset();
  EXPECT_TRUE(scheduler_->entries_.empty());
  EXPECT_FALSE(scheduler_->runQueue_.front()->valid);
}

TEST_F(SchedulerLifetimeTest, AUnitDestroysAnotherQueuedOne) {
  auto victim = std::make_unique<Unit>("victim", scheduler_);
  Unit killer("killer", scheduler_, [&](Unit&) { victim.reset(); });
  Unit last("last", scheduler_);
  killer.arm();
  victim->arm();
  last.arm();
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(victim, nullptr);
  EXPECT_EQ(last.invocations(), 1U);
}

TEST_F(SchedulerLifetimeTest, AUnitAtTheSameAddressIsQueuedAnew) {
  alignas(Unit) unsigned char storage[sizeof(Unit)];
  Unit* unit = new (storage) Unit("first", scheduler_);
  unit->arm();
  unit->~Unit();
  unit = new (storage) Unit("second", scheduler_);
  unit->arm();
  EXPECT_NE(unit->entry(), nullptr);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(unit->invocations(), 1U);
  unit->~Unit();
}

// ---------------------------------------------------------------------------------------------
// Units that destroy themselves in their work

class SelfDestruction : public SchedulerLifetimeTest, public testing::WithParamInterface<End> {
 protected:
  static void end() {
    if (GetParam() == End::throws) throw Thrown("after the end");
  }
};

TEST_P(SelfDestruction, NotQueued) {
  bool ran = false;
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) {
    ran = true;
    delete &self;
    end();
  });
  unit->arm();
  drain(*scheduler_);
  EXPECT_TRUE(ran);
  EXPECT_TRUE(scheduler_->entries_.empty());
}

TEST_P(SelfDestruction, QueuedAgain) {
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) {
    self.runnableIs(true);
    EXPECT_NE(self.entry(), nullptr);
    delete &self;
    end();
  });
  Unit other("other", scheduler_);
  unit->arm();
  other.arm();
  drain(*scheduler_);
  EXPECT_EQ(other.invocations(), 1U);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
}

TEST_P(SelfDestruction, CountsAsAnInvocation) {
  Recorder recorder(1U << 9);
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) { delete &self; });
  unit->arm();
  scheduler_->debugChannelIs(&recorder, false);
  scheduler_->run(1, 0.0, true);
  EXPECT_EQ(recorder.texts().back(), " main exited due to count:1 >= expected: 1");
  scheduler_->debugChannelIs(nullptr, false);
}

TEST_P(SelfDestruction, InvokedDirectly) {
  auto* unit = new Unit("a", nullptr, [&](Unit& self) {
    delete &self;
    end();
  });
  const int reads = fakeClock.reads;
  try {
    unit->invoke(false);
    EXPECT_EQ(GetParam(), End::returns);
  } catch (const Thrown&) {
    EXPECT_EQ(GetParam(), End::throws);
  }
  EXPECT_EQ(fakeClock.reads - reads, 1);
}

TEST_P(SelfDestruction, InAnInvocationWithinItsOwn) {
  int depth = 0;
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) {
    if (++depth < 3) {
      self.invoke(true);
    } else {
      delete &self;
    }
    end();
  });
  unit->arm();
  drain(*scheduler_);
  EXPECT_EQ(depth, 3);
}

TEST_P(SelfDestruction, AfterAnInvocationWithinItsOwnEnded) {
  int depth = 0;
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) {
    if (++depth > 1) {
      end();
      return;
    }
    try {
      self.invoke(true);
    } catch (const Thrown&) {
    }
    delete &self;
    end();
  });
  unit->arm();
  drain(*scheduler_);
  EXPECT_EQ(depth, 2);
}

TEST_P(SelfDestruction, ByAUnitThatItInvokes) {
  std::unique_ptr<Unit> outer;
  Unit killer("killer", nullptr, [&](Unit&) {
    outer.reset();
    end();
  });
  outer = std::make_unique<Unit>("outer", scheduler_, [&](Unit&) { killer.invoke(false); });
  outer->arm();
  drain(*scheduler_);
  EXPECT_EQ(outer, nullptr);
}

TEST_P(SelfDestruction, ByALoopWithinItsOwn) {
  std::unique_ptr<Unit> outer;
  Unit killer("killer", scheduler_, [&](Unit&) {
    outer.reset();
    end();
  });
  outer = std::make_unique<Unit>("outer", scheduler_, [&](Unit&) {
    killer.arm();
    scheduler_->run(0, 0.0, true);
  });
  outer->arm();
  drain(*scheduler_);
  EXPECT_EQ(outer, nullptr);
  EXPECT_EQ(killer.invocations(), 1U);
}

// ---------------------------------------------------------------------------------------------
// The last unit takes the scheduler with it

/// A scheduler that tells when it is gone.
struct Mortal : OpenScheduler {
  explicit Mortal(bool& flag) : gone(flag) {}
  ~Mortal() override { gone = true; }
  bool& gone;
};

TEST_P(SelfDestruction, WithTheLastLinkToTheScheduler) {
  bool gone = false;
  KoPtr<Scheduler> scheduler = std::make_shared<Mortal>(gone);
  Scheduler& loop = *scheduler;
  auto* unit = new Unit("a", scheduler, [&](Unit& self) {
    delete &self;
    EXPECT_TRUE(gone);
    end();
  });
  unit->arm();
  scheduler.reset();
  try {
    loop.run(0, 10.0, false);
    EXPECT_EQ(GetParam(), End::returns);
  } catch (const Thrown&) {
    EXPECT_EQ(GetParam(), End::throws);
  }
  EXPECT_TRUE(gone);
}

TEST_P(SelfDestruction, WithTheSchedulerOfLoopsWithinLoops) {
  bool gone = false;
  KoPtr<Scheduler> scheduler = std::make_shared<Mortal>(gone);
  Scheduler& loop = *scheduler;
  Unit* inner = new Unit("inner", scheduler, [&](Unit& self) {
    delete &self;
    end();
  });
  Unit* outer = new Unit("outer", scheduler, [&](Unit& self) {
    inner->arm();
    try {
      loop.run(1, 0.0, true);
    } catch (const Thrown&) {
    }
    EXPECT_FALSE(gone);
    delete &self;
    EXPECT_TRUE(gone);
    end();
  });
  outer->arm();
  scheduler.reset();
  try {
    loop.run(0, 0.0, false);
  } catch (const Thrown&) {
  }
  EXPECT_TRUE(gone);
}

TEST_P(SelfDestruction, OfAllUnitsAndTheSchedulerFromTheInnermostLoop) {
  bool gone = false;
  KoPtr<Scheduler> scheduler = std::make_shared<Mortal>(gone);
  Scheduler& loop = *scheduler;
  Unit* outer = nullptr;
  Unit* inner = new Unit("inner", scheduler, [&](Unit& self) {
    delete outer;
    delete &self;
    EXPECT_TRUE(gone);
    end();
  });
  outer = new Unit("outer", scheduler, [&](Unit&) {
    inner->arm();
    loop.run(0, 10.0, false);
    end();
  });
  outer->arm();
  scheduler.reset();
  try {
    loop.run(0, 10.0, false);
  } catch (const Thrown&) {
  }
  EXPECT_TRUE(gone);
}

INSTANTIATE_TEST_SUITE_P(Ends, SelfDestruction, testing::Values(End::returns, End::throws),
                         [](const testing::TestParamInfo<End>& end) {
                           return end.param == End::returns ? "Returns" : "Throws";
                         });

TEST_F(SchedulerLifetimeTest, LettingGoOfTheLastSchedulerFromItsOwnLoop) {
  bool gone = false;
  KoPtr<Scheduler> scheduler = std::make_shared<Mortal>(gone);
  Scheduler& loop = *scheduler;
  Unit unit("a", scheduler, [&](Unit& self) {
    self.clearScheduler();
    EXPECT_TRUE(gone);
  });
  unit.arm();
  scheduler.reset();
  loop.run();
  EXPECT_TRUE(gone);
  EXPECT_FALSE(unit.running());
  EXPECT_EQ(unit.invocations(), 1U);
}

TEST_F(SchedulerLifetimeTest, APauseThatDestroysTheScheduler) {
  struct Suicidal : OpenScheduler {
    int pauseScheduler(timespec*) override {
      delete this;
      return 0;
    }
  };
  auto* scheduler = new Suicidal;
  scheduler->run();
}

// ---------------------------------------------------------------------------------------------
// Schedulers destroyed with units in their queues

TEST_F(SchedulerLifetimeTest, ADestroyedSchedulerIsNotTouchedByItsUnits) {
  auto scheduler = std::make_unique<OpenScheduler>();
  const KoPtr<Scheduler> borrowed(scheduler.get(), [](Scheduler*) {});
  auto queued = std::make_unique<Unit>("a", borrowed);
  auto assigned = std::make_unique<Unit>("b", borrowed);
  queued->arm();
  assigned->arm();
  const Unit lone("lone");
  static_cast<Schedulable&>(*assigned) = lone;
  scheduler.reset();
  EXPECT_EQ(queued->entry(), nullptr);
  queued.reset();
  assigned.reset();
}

TEST_F(SchedulerLifetimeTest, AssignmentMayLetGoOfTheLastScheduler) {
  bool gone = false;
  Unit unit("a", std::make_shared<Mortal>(gone));
  unit.arm();
  const Unit lone("lone");
  static_cast<Schedulable&>(unit) = lone;
  EXPECT_TRUE(gone);
  EXPECT_EQ(unit.entry(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Units that an assignment detached from their entry

TEST_F(SchedulerLifetimeTest, DetachedWithinItsSchedulerAndDestroyed) {
  auto unit = std::make_unique<Unit>("a", scheduler_);
  const Unit source("source", scheduler_);
  unit->arm();
  static_cast<Schedulable&>(*unit) = source;
  unit.reset();
  EXPECT_TRUE(scheduler_->entries_.empty());
  EXPECT_FALSE(scheduler_->runQueue_.front()->valid);
  scheduler_->run(0, 0.0, true);
}

TEST_F(SchedulerLifetimeTest, DetachedFromItsSchedulerAndDestroyed) {
  auto unit = std::make_unique<Unit>("a", scheduler_);
  const Unit lone("lone");
  unit->arm();
  static_cast<Schedulable&>(*unit) = lone;
  unit.reset();
  EXPECT_TRUE(scheduler_->entries_.empty());
  scheduler_->run(0, 0.0, true);
}

TEST_F(SchedulerLifetimeTest, DetachedAndQueuedElsewhereAndDestroyed) {
  const auto second = std::make_shared<OpenScheduler>("second");
  const auto third = std::make_shared<OpenScheduler>("third");
  auto unit = std::make_unique<Unit>("a", scheduler_);
  unit->arm();
  for (const auto& next : {second, third}) {
    const Unit source("source", next);
    static_cast<Schedulable&>(*unit) = source;
    unit->arm();
    EXPECT_EQ(next->runQueue_.size(), 1U);
  }
  unit.reset();
  for (const auto& scheduler : {scheduler_, second, third}) {
    EXPECT_TRUE(scheduler->entries_.empty());
    EXPECT_FALSE(scheduler->runQueue_.front()->valid);
    scheduler->run(0, 0.0, true);
  }
}

TEST_F(SchedulerLifetimeTest, DetachedAndDestroyedInItsOwnWork) {
  const auto second = std::make_shared<OpenScheduler>("second");
  const Unit source("source", second);
  auto* unit = new Unit("a", scheduler_, [&](Unit& self) {
    self.runnableIs(true);
    static_cast<Schedulable&>(self) = source;
    self.arm();
    delete &self;
  });
  unit->arm();
  scheduler_->run(0, 0.0, true);
  second->run(0, 0.0, true);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  EXPECT_TRUE(second->runQueue_.empty());
}

TEST_F(SchedulerLifetimeTest, ForgottenByUnscheduleQueuedTwiceAndDestroyed) {
  auto unit = std::make_unique<Unit>("a", scheduler_);
  unit->arm();
  scheduler_->unschedule(unit.get());
  scheduler_->runnableIs(unit.get(), true);
  EXPECT_EQ(scheduler_->runQueue_.size(), 2U);
  unit.reset();
  EXPECT_FALSE(scheduler_->runQueue_[0]->valid);
  EXPECT_FALSE(scheduler_->runQueue_[1]->valid);
  scheduler_->run(0, 0.0, true);
}

TEST_F(SchedulerLifetimeTest, DetachedQueuedElsewhereServedHereAndDestroyed) {
  const auto second = std::make_shared<OpenScheduler>("second");
  const Unit source("source", second);
  auto unit = std::make_unique<Unit>("a", scheduler_);
  unit->arm();
  static_cast<Schedulable&>(*unit) = source;
  unit->arm();
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(unit->invocations(), 1U);
  EXPECT_EQ(unit->entry(), nullptr);  // of any queue
  ASSERT_TRUE(second->runQueue_.front()->valid);
  unit.reset();
  EXPECT_FALSE(second->runQueue_.front()->valid);
  EXPECT_TRUE(second->entries_.empty());
  second->run(0, 0.0, true);
}

TEST_F(SchedulerLifetimeTest, DetachedFromSchedulersThatAreGone) {
  auto unit = std::make_unique<Unit>("a");
  for (int i = 0; i < 100; ++i) {
    const auto scheduler = std::make_shared<OpenScheduler>();
    const Unit source("source", scheduler), lone("lone");
    static_cast<Schedulable&>(*unit) = source;
    unit->arm();
    EXPECT_NE(unit->entry(), nullptr);
    static_cast<Schedulable&>(*unit) = lone;
    if (i % 2 == 0) scheduler->run(0, 0.0, true);
  }
  unit.reset();
}

TEST_F(SchedulerLifetimeTest, DestroyingADetachedUnitLeavesTheOthersAlone) {
  std::vector<std::unique_ptr<Unit>> units;
  const Unit source("source", scheduler_);
  for (int i = 0; i < 20; ++i) {
    units.push_back(std::make_unique<Unit>("a", scheduler_));
    units.back()->arm();
    if (i % 2 == 0) {
      static_cast<Schedulable&>(*units.back()) = source;
      units.back()->arm();  // refused: the key is there
      EXPECT_EQ(units.back()->entry(), nullptr);
    }
  }
  for (std::size_t i = 0; i < units.size(); i += 4) units[i].reset();
  EXPECT_EQ(scheduler_->entries_.size(), 15U);
  scheduler_->run(0, 0.0, true);
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (units[i] != nullptr) {
      EXPECT_EQ(units[i]->invocations(), 1U) << i;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Random histories against a plain model

struct ModelUnit {
  bool runnable = false;
  bool ready = false;
  bool disabled = false;
  bool enabled = true;
};

TEST_F(SchedulerLifetimeTest, RandomHistoriesFollowThePlainModel) {
  for (unsigned int seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    const auto scheduler = std::make_shared<OpenScheduler>();
    std::vector<int> invoked, expected;

    std::map<int, std::unique_ptr<Unit>> units;
    std::map<int, ModelUnit> model;
    std::deque<std::pair<int, bool>> queue;  // who, and whether the entry is live
    int next = 0;

    const auto queued = [&](int key) {
      return std::any_of(queue.begin(), queue.end(),
                         [&](const auto& e) { return e.first == key && e.second; });
    };
    const auto consider = [&](int key) {
      const ModelUnit& m = model[key];
      if (m.runnable && m.ready && m.enabled && !queued(key)) queue.emplace_back(key, true);
    };
    const auto withdraw = [&](int key) {
      for (auto& e : queue) {
        if (e.first == key) e.second = false;
      }
    };

    for (int step = 0; step < 400; ++step) {
      if (units.size() < 3 || (units.size() < 12 && below(8) == 0)) {
        const int key = next++;
        units[key] = std::make_unique<Unit>(std::to_string(key), scheduler, [&, key](Unit& self) {
          invoked.push_back(key);
          if (key % 3 == 0) self.runnableIs(true);
        });
        model[key] = ModelUnit();
      }
      const int key = std::next(units.begin(), static_cast<long>(below(units.size())))->first;
      Unit& unit = *units[key];
      ModelUnit& m = model[key];
      switch (below(9)) {
        case 0:
        case 1: {
          const bool on = below(3) != 0;
          unit.runnableIs(on);
          if (std::exchange(m.runnable, on) != on) consider(key);
          break;
        }
        case 2:
        case 3: {
          const bool on = below(3) != 0;
          unit.clientReadyIs(on);
          if (std::exchange(m.ready, on) != on && on) consider(key);
          break;
        }
        case 4:
          m.disabled = below(4) == 0;
          unit.disabledIs(m.disabled);
          break;
        case 5:
          m.enabled = below(4) != 0;
          unit.schedulingEnabledIs(m.enabled);
          break;
        case 6:
          unit.cleanup();
          withdraw(key);
          break;
        case 7:
          units.erase(key);
          withdraw(key);
          model.erase(key);
          break;
        default: {
          const int count = static_cast<int>(below(4)) + 1;
          scheduler->run(count, 0.0, true);
          for (int counter = 0; counter < count && !queue.empty();) {
            const auto [front, live] = queue.front();
            queue.pop_front();
            if (!live) continue;
            ModelUnit& f = model[front];
            if (!f.runnable || !f.ready || f.disabled) continue;
            ++counter;
            expected.push_back(front);
            f.runnable = front % 3 == 0;
            if (f.runnable) consider(front);
          }
          break;
        }
      }
      ASSERT_EQ(invoked, expected) << "step " << step;
      ASSERT_EQ(scheduler->runQueue_.size(), queue.size()) << "step " << step;
      std::size_t live = 0;
      for (std::size_t i = 0; i < queue.size(); ++i) {
        const RunnableEntry& entry = *scheduler->runQueue_[i];
        ASSERT_EQ(entry.valid, queue[i].second);
        if (!entry.valid) {
          ASSERT_EQ(entry.unit, nullptr);
          continue;
        }
        ++live;
        ASSERT_EQ(entry.unit, units[queue[i].first].get());
        ASSERT_EQ(entry.unit->entry(), &entry);
        ASSERT_EQ(scheduler->entries_.at(entry.unit), &entry);
      }
      ASSERT_EQ(scheduler->entries_.size(), live);
    }
  }
}

}  // namespace
}  // namespace schedtest
