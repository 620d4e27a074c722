// Schedulers that use the run queue and the map of entries by themselves: as plain containers of
// the standard library, with entries that have two fields and are made and freed with new and
// delete.

#include <algorithm>
#include <type_traits>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

/// Gives access to the types of the protected containers.
struct Types : Scheduler {
  using Queue = decltype(Types::runQueue_);
  using Map = decltype(Types::entries_);
};

static_assert(std::is_same_v<Types::Queue, std::deque<RunnableEntry*>>);
static_assert(std::is_same_v<Types::Map, std::unordered_map<Schedulable*, RunnableEntry*>>);

static_assert(std::is_aggregate_v<RunnableEntry>);
static_assert(std::is_standard_layout_v<RunnableEntry>);
static_assert(std::is_trivially_copyable_v<RunnableEntry>);
static_assert(sizeof(RunnableEntry) == 2 * sizeof(void*));
static_assert(std::is_same_v<decltype(RunnableEntry::valid), bool>);
static_assert(std::is_same_v<decltype(RunnableEntry::unit), Schedulable*>);

class SchedulerSubclassTest : public SchedulerTest {
 protected:
  using Names = std::vector<std::string>;

  Unit::Work note(int turns = 1) {
    return [this, turns](Unit& unit) {
      ran.push_back(unit.name());
      if (static_cast<int>(unit.invocations()) < turns) unit.runnableIs(true);
    };
  }

  Names ran;
};

// ---------------------------------------------------------------------------------------------
// The containers

TEST_F(SchedulerSubclassTest, TheMapIsUsedAsSuch) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  auto& entries = scheduler->entries_;
  Unit a("a", scheduler), b("b", scheduler), c("c", scheduler);

  entries.reserve(1000);
  EXPECT_GE(entries.bucket_count(), 1000U);
  RunnableEntry entry{true, &a};
  entries[&a] = &entry;
  EXPECT_FALSE(entries.insert({&a, nullptr}).second);
  EXPECT_TRUE(entries.insert({&b, &entry}).second);
  EXPECT_TRUE(entries.emplace(&c, &entry).second);
  for (auto& [unit, place] : entries) place = nullptr;
  EXPECT_EQ(entries.at(&b), nullptr);
  const auto next = entries.erase(entries.find(&a));
  EXPECT_EQ(std::distance(next, entries.end()) + std::distance(entries.begin(), next), 2);
  EXPECT_EQ(entries.erase(&b), 1U);
  EXPECT_EQ(std::as_const(entries).begin()->first, &c);

  // A key alone makes a unit count as queued.
  c.arm();
  EXPECT_TRUE(scheduler->runQueue_.empty());
  EXPECT_EQ(c.entry(), nullptr);
  entries.clear();
  c._considerRunnability();
  EXPECT_NE(c.entry(), nullptr);
}

TEST_F(SchedulerSubclassTest, WhatASubclassReservesStays) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  scheduler->entries_.reserve(100'000);
  const std::size_t buckets = scheduler->entries_.bucket_count();
  std::vector<std::unique_ptr<Unit>> units;
  for (int i = 0; i < 1000; ++i) {
    units.push_back(std::make_unique<Unit>("a", scheduler));
    units.back()->arm();
  }
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(scheduler->entries_.bucket_count(), buckets);
}

TEST_F(SchedulerSubclassTest, TheQueueIsUsedAsSuch) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit a("a", scheduler, note()), b("b", scheduler, note()), c("c", scheduler, note());
  for (Unit* unit : {&a, &b, &c}) unit->arm();
  auto& queue = scheduler->runQueue_;
  std::reverse(queue.begin(), queue.end());
  std::swap(queue.front(), queue[1]);
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, (Names{"b", "c", "a"}));
}

// ---------------------------------------------------------------------------------------------
// A loop of its own

/// Takes units out step by step.
struct OwnLoop : OpenScheduler {
  using OpenScheduler::OpenScheduler;
  using Scheduler::run;

  void run(int, double, bool) override {
    while (active_ && !runQueue_.empty()) {
      RunnableEntry* const entry = runQueue_.front();
      auto* const unit = static_cast<Unit*>(entry->unit);
      const bool valid = entry->valid;
      entries_.erase(unit);
      runQueue_.pop_front();
      if (!valid) {
        delete entry;
        continue;
      }
      unit->entry_ = nullptr;
      delete entry;
      if (unit->runnable() && unit->clientReady() && !unit->disabled()) unit->invoke(false);
    }
  }
};

TEST_F(SchedulerSubclassTest, ItsOwnLoopFollowsTheSteps) {
  const auto scheduler = std::make_shared<OwnLoop>();
  Unit a("a", scheduler, note(3)), b("b", scheduler, note()), c("c", scheduler, note(2));
  Unit withdrawn("withdrawn", scheduler, note());
  for (Unit* unit : {&a, &withdrawn, &b, &c}) unit->arm();
  withdrawn.cleanup();
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, (Names{"a", "b", "c", "a", "c", "a"}));
  EXPECT_TRUE(scheduler->entries_.empty());
  for (const Unit* unit : {&a, &b, &c, &withdrawn}) EXPECT_EQ(unit->entry(), nullptr);
}

TEST_F(SchedulerSubclassTest, UnitsDestroyThemselvesAndOthersInItsOwnLoop) {
  const auto scheduler = std::make_shared<OwnLoop>();
  auto victim = std::make_unique<Unit>("victim", scheduler, note());
  auto* suicidal = new Unit("suicidal", scheduler, [&](Unit& self) {
    ran.push_back(self.name());
    victim.reset();
    self.runnableIs(true);
    delete &self;
  });
  Unit last("last", scheduler, note());
  suicidal->arm();
  victim->arm();
  last.arm();
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, (Names{"suicidal", "last"}));
  EXPECT_TRUE(scheduler->entries_.empty());
}

/// The library learns nothing of places that another loop takes out.
TEST_F(SchedulerSubclassTest, DetachedUnitsMayBeDestroyedAfterItsOwnLoopHasRun) {
  const auto scheduler = std::make_shared<OwnLoop>();
  const auto other = std::make_shared<OwnLoop>("other");
  const Unit source("source", other);
  auto unit = std::make_unique<Unit>("a", scheduler, note(2));
  unit->arm();
  static_cast<Schedulable&>(*unit) = source;  // leaves its place behind
  unit->arm();
  scheduler->run(0, 0.0, true);  // takes its turn, and asks for the next in the other queue
  EXPECT_EQ(ran, Names{"source"});
  EXPECT_EQ(unit->entry(), nullptr);
  ASSERT_EQ(other->runQueue_.size(), 1U);
  unit.reset();
  EXPECT_FALSE(other->runQueue_.front()->valid);
  EXPECT_TRUE(other->entries_.empty());
  scheduler->run(0, 0.0, true);
  other->run(0, 0.0, true);
  EXPECT_EQ(ran, Names{"source"});
}

// ---------------------------------------------------------------------------------------------
// Entries of its own making

/// Units whose name begins with "!" go to the front.
struct Urgent : OpenScheduler {
  using OpenScheduler::OpenScheduler;

  void runnableIs(Schedulable* unit, bool runnable) override {
    if (!runnable || entries_.count(unit) != 0) return;
    auto* const entry = new RunnableEntry;
    entry->valid = true;
    entry->unit = unit;
    static_cast<Unit*>(unit)->entry_ = entries_[unit] = entry;
    if (unit->name()[0] == '!') {
      runQueue_.push_front(entry);
    } else {
      runQueue_.push_back(entry);
    }
  }
};

TEST_F(SchedulerSubclassTest, TheLoopRunsAndFreesEntriesThatItMade) {
  const auto scheduler = std::make_shared<Urgent>();
  Unit a("a", scheduler, note(2)), b("b", scheduler, note()), c("!c", scheduler, note(2));
  for (Unit* unit : {&a, &b, &c}) unit->arm();
  EXPECT_EQ(scheduler->runQueue_.front(), c.entry());
  scheduler->run(-1, 0.0, true);
  EXPECT_EQ(ran, (Names{"!c", "!c", "a"}));
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, (Names{"!c", "!c", "a", "b", "a"}));
  EXPECT_TRUE(scheduler->entries_.empty());
}

TEST_F(SchedulerSubclassTest, UnitsLeaveEntriesThatItMade) {
  const auto scheduler = std::make_shared<Urgent>();
  auto destroyed = std::make_unique<Unit>("a", scheduler, note());
  Unit withdrawn("b", scheduler, note()), last("c", scheduler, note());
  for (Unit* unit : {destroyed.get(), &withdrawn, &last}) unit->arm();
  destroyed.reset();
  withdrawn.cleanup();
  EXPECT_FALSE(scheduler->runQueue_[0]->valid);
  EXPECT_FALSE(scheduler->runQueue_[1]->valid);
  EXPECT_EQ(scheduler->entries_.size(), 1U);
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, Names{"c"});
}

TEST_F(SchedulerSubclassTest, ADestroyedSchedulerFreesEntriesThatItMade) {
  auto owned = std::make_unique<Urgent>();
  Unit a("a", KoPtr<Scheduler>(owned.get(), [](Scheduler*) {}), note());
  a.arm();
  EXPECT_NE(a.entry(), nullptr);
  owned.reset();
  EXPECT_EQ(a.entry(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// An unschedule() of its own

/// Keeps the keys of withdrawn units, until told to forget them.
struct Keeping : OpenScheduler {
  using OpenScheduler::OpenScheduler;

  void unschedule(Schedulable* unit) override { kept.push_back(unit); }
  void forget() {
    for (Schedulable* unit : kept) Scheduler::unschedule(unit);
    kept.clear();
  }

  std::vector<Schedulable*> kept;
};

std::string refusal(const KoPtr<Keeping>& scheduler) {
  const std::string id = idOf(static_cast<const Scheduler*>(scheduler.get()));
  return "  not scheduled by " + id + " on scheduler " + id + " count: 1";
}

TEST_F(SchedulerSubclassTest, AUnitWhoseKeyUnscheduleKeepsIsRefused) {
  Recorder recorder(1U << 9);
  const auto scheduler = std::make_shared<Keeping>();
  Unit a("a", scheduler, note());
  a.arm();
  RunnableEntry* const entry = a.entry();
  a.cleanup();
  EXPECT_FALSE(entry->valid);
  EXPECT_EQ(scheduler->entries_.at(&a), entry);

  scheduler->debugChannelIs(&recorder, false);
  scheduler->runnableIs(&a, true);
  EXPECT_EQ(recorder.texts().back(), refusal(scheduler));
  EXPECT_EQ(a.entry(), nullptr);
  EXPECT_EQ(scheduler->runQueue_.size(), 1U);

  // Also when the place is gone.
  scheduler->run(0, 0.0, true);
  EXPECT_TRUE(scheduler->runQueue_.empty());
  EXPECT_EQ(scheduler->entries_.count(&a), 1U);
  scheduler->runnableIs(&a, true);
  EXPECT_EQ(recorder.texts().back(), refusal(scheduler));
  EXPECT_TRUE(scheduler->runQueue_.empty());
  scheduler->debugChannelIs(nullptr, false);

  scheduler->forget();
  EXPECT_TRUE(scheduler->entries_.empty());
  scheduler->runnableIs(&a, true);
  EXPECT_EQ(scheduler->entries_.at(&a), a.entry());
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, Names{"a"});
}

TEST_F(SchedulerSubclassTest, KeysWhosePlaceIsGoneAreNotCounted) {
  Recorder recorder(1U << 9);
  const auto scheduler = std::make_shared<Keeping>();
  Unit kept("kept", scheduler, note());
  auto destroyed = std::make_unique<Unit>("destroyed", scheduler, note());
  for (Unit* unit : {&kept, destroyed.get()}) {
    unit->arm();
    unit->cleanup();
  }
  scheduler->run(0, 0.0, true);
  destroyed.reset();
  EXPECT_EQ(scheduler->entries_.size(), 2U);

  std::vector<std::unique_ptr<Unit>> others;  // some may take the memory that was freed
  for (int i = 0; i < 10; ++i) {
    others.push_back(std::make_unique<Unit>("other", scheduler, note()));
    others.back()->arm();
  }
  const auto queued = static_cast<int>(scheduler->runQueue_.size());
  EXPECT_GE(queued, 9);
  scheduler->debugChannelIs(&recorder, false);
  scheduler->run(-1, 0.0, false);
  const std::string count = std::to_string(queued);
  EXPECT_EQ(recorder.texts().back(),
            " main exited due to count:" + count + " >= expected: " + count);
  scheduler->debugChannelIs(nullptr, false);
}

TEST_F(SchedulerSubclassTest, AUnitDestroyedWhileQueuedIsForgottenWhateverUnscheduleDoes) {
  const auto scheduler = std::make_shared<Keeping>();
  alignas(Unit) unsigned char storage[sizeof(Unit)];
  for (const std::string name : {"first", "second", "third"}) {
    Unit* const unit = new (storage) Unit(name, scheduler, note());
    unit->arm();
    EXPECT_NE(unit->entry(), nullptr) << name;
    if (name == "third") scheduler->run(0, 0.0, true);
    unit->~Unit();
    EXPECT_TRUE(scheduler->entries_.empty());
  }
  EXPECT_EQ(ran, Names{"third"});
  EXPECT_EQ(scheduler->kept.size(), 2U);
}

// ---------------------------------------------------------------------------------------------
// Units with two places: unschedule() forgot them, and they were queued again

TEST_F(SchedulerSubclassTest, TakingOutAnOldPlaceLeavesNoKey) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit a("a", scheduler, note());
  a.arm();
  scheduler->unschedule(&a);
  scheduler->runnableIs(&a, true);
  ASSERT_EQ(scheduler->runQueue_.size(), 2U);
  EXPECT_EQ(scheduler->entries_.at(&a), scheduler->runQueue_[1]);
  EXPECT_EQ(a.entry(), scheduler->runQueue_[1]);

  scheduler->run(1, 0.0, true);
  EXPECT_EQ(ran, Names{"a"});
  EXPECT_TRUE(scheduler->entries_.empty());
  EXPECT_EQ(a.entry(), nullptr);
  ASSERT_EQ(scheduler->runQueue_.size(), 1U);

  // The place that is left still gets it a turn, and is no reason to refuse another one.
  a.runnableIs(true);
  EXPECT_EQ(scheduler->runQueue_.size(), 2U);
  EXPECT_EQ(scheduler->entries_.at(&a), scheduler->runQueue_[1]);
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(ran, (Names{"a", "a"}));
  EXPECT_TRUE(scheduler->entries_.empty());
}

TEST_F(SchedulerSubclassTest, OnlyThePlaceOfTheKeyCountsAsEligible) {
  Recorder recorder(1U << 9);
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit forgotten("a", scheduler, note()), twice("b", scheduler, note(9));
  for (Unit* unit : {&forgotten, &twice}) {
    unit->arm();
    scheduler->unschedule(unit);
  }
  scheduler->runnableIs(&twice, true);
  scheduler->debugChannelIs(&recorder, false);
  scheduler->run(-1, 0.0, false);
  EXPECT_EQ(recorder.texts().back(), " main exited due to count:1 >= expected: 1");
  EXPECT_EQ(ran, Names{"a"});
  scheduler->debugChannelIs(nullptr, false);
}

TEST_F(SchedulerSubclassTest, AUnitWithAPlaceThatItDoesNotKnowMayBeDestroyed) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  auto unit = std::make_unique<Unit>("a", scheduler, note());
  unit->arm();
  scheduler->unschedule(unit.get());
  scheduler->runnableIs(unit.get(), true);
  scheduler->run(1, 0.0, true);
  ASSERT_EQ(scheduler->runQueue_.size(), 1U);
  ASSERT_TRUE(scheduler->runQueue_.front()->valid);
  EXPECT_EQ(unit->entry(), nullptr);
  unit.reset();
  EXPECT_FALSE(scheduler->runQueue_.front()->valid);
  EXPECT_EQ(scheduler->runQueue_.front()->unit, nullptr);
  scheduler->run(0, 0.0, true);
}

}  // namespace
}  // namespace schedtest
