// Units: flags, invocation, time, traces, assignment.

#include <cstddef>
#include <cstring>
#include <locale>
#include <stdexcept>
#include <type_traits>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

class SchedulableTest : public SchedulerTest {};
using SchedulableDeathTest = SchedulableTest;

void expectTime(const std::timespec& time, long seconds, long nanoseconds) {
  EXPECT_EQ(time.tv_sec, seconds);
  EXPECT_EQ(time.tv_nsec, nanoseconds);
}

/// Notes what it is asked, and does nothing else.
class AskedScheduler : public Scheduler {
 public:
  AskedScheduler() : Scheduler("asked") {}
  void runnableIs(Schedulable* unit, bool runnable) override { asked.push_back({unit, runnable}); }
  void unschedule(Schedulable* unit) override { unscheduled.push_back(unit); }

  std::vector<std::pair<Schedulable*, bool>> asked;
  std::vector<Schedulable*> unscheduled;
};

// ---------------------------------------------------------------------------------------------
// The class

struct PlainUnit : Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override {}
};

TEST_F(SchedulableTest, StartsIdleWithSchedulingEnabled) {
  const KoPtr<Scheduler> scheduler(new Scheduler("main"));
  const PlainUnit unit("feeder", scheduler, std::timespec{2, 500});
  EXPECT_EQ(unit.name(), "feeder");
  EXPECT_EQ(unit.scheduler(), scheduler);
  expectTime(unit.timeSlice(), 2, 500);
  EXPECT_TRUE(unit.schedulingEnabled());
  EXPECT_FALSE(unit.runnable());
  EXPECT_FALSE(unit.clientReady());
  EXPECT_FALSE(unit.running());
  EXPECT_FALSE(unit.disabled());
  EXPECT_EQ(unit.invocations(), 0U);
  EXPECT_EQ(unit.totalRunTime(), 0.0);
  expectTime(unit.startTime(), 0, 0);
  expectTime(unit.deadline(), 0, 0);
  EXPECT_EQ(unit.entry(), nullptr);
}

TEST_F(SchedulableTest, NeedsOnlyAName) {
  const PlainUnit unit("lone");
  EXPECT_EQ(unit.scheduler(), nullptr);
  expectTime(unit.timeSlice(), Schedulable::defaultTimeSlice.tv_sec,
             Schedulable::defaultTimeSlice.tv_nsec);
  const PlainUnit implicit = {"implicit", nullptr};
  EXPECT_EQ(implicit.name(), "implicit");
}

TEST_F(SchedulableTest, SettersSet) {
  PlainUnit unit("feeder");
  unit.timeSliceIs(std::timespec{7, 8});
  expectTime(unit.timeSlice(), 7, 8);
  unit.schedulingEnabledIs(false);
  EXPECT_FALSE(unit.schedulingEnabled());
  unit.disabledIs(true);
  EXPECT_TRUE(unit.disabled());
  unit.disabledIs(false);
  EXPECT_FALSE(unit.disabled());
}

/// The place of a virtual operation in the class's table of them; the two forms of the destructor
/// take the first two.
template <typename Function>
std::size_t slotOf(Function function) {
  std::size_t offset;
  std::memcpy(&offset, &function, sizeof(offset));
  return (offset - 1) / sizeof(void*);
}

TEST_F(SchedulableTest, VirtualOperationsHaveTheirSlots) {
  EXPECT_EQ(slotOf(&Schedulable::cleanup), 2U);
  EXPECT_EQ(slotOf(&Schedulable::clearScheduler), 3U);
  EXPECT_EQ(slotOf(&Schedulable::clientReadyIs), 4U);
  EXPECT_EQ(slotOf(&Schedulable::onClientReady), 5U);
  EXPECT_EQ(slotOf(&Schedulable::run), 6U);
  EXPECT_TRUE(std::is_abstract_v<Schedulable>);
  EXPECT_FALSE(std::is_copy_constructible_v<PlainUnit>);
}

TEST_F(SchedulableTest, FieldsAreInTheirOrder) {
  struct Fields : PlainUnit {
    using PlainUnit::PlainUnit;
    std::vector<const void*> addresses() const {
      return {&name_,      &timeSlice_, &schedulingEnabled_, &invocations_, &totalRunTime_,
              &scheduler_, &runnable_,  &clientReady_,       &running_,     &disabled_,
              &entry_,     &startTime_, &deadline_,          &debug_};
    }
  };
  const Fields unit("feeder");
  const auto addresses = unit.addresses();
  for (std::size_t i = 1; i < addresses.size(); ++i) {
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(addresses[i - 1]),
              reinterpret_cast<std::uintptr_t>(addresses[i]))
        << i;
  }
}

// ---------------------------------------------------------------------------------------------
// Flags

TEST_F(SchedulableTest, AsksTheSchedulerOnceBothFlagsAreSet) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit runnableFirst("a", scheduler);
  runnableFirst.runnableIs(true);
  EXPECT_TRUE(scheduler->asked.empty());
  runnableFirst.clientReadyIs(true);
  ASSERT_EQ(scheduler->asked.size(), 1U);
  EXPECT_EQ(scheduler->asked[0], std::make_pair(static_cast<Schedulable*>(&runnableFirst), true));

  Unit readyFirst("b", scheduler);
  readyFirst.clientReadyIs(true);
  EXPECT_EQ(scheduler->asked.size(), 1U);
  readyFirst.runnableIs(true);
  EXPECT_EQ(scheduler->asked.size(), 2U);
}

TEST_F(SchedulableTest, RepeatedFlagsAskNothing) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit unit("a", scheduler);
  unit.arm();
  ASSERT_EQ(scheduler->asked.size(), 1U);
  unit.runnableIs(true);
  unit.clientReadyIs(true);
  EXPECT_EQ(scheduler->asked.size(), 1U);
  EXPECT_EQ(unit.readyChanges.size(), 1U);
}

TEST_F(SchedulableTest, ClearingAFlagAsksNothing) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit unit("a", scheduler);
  unit.arm();
  unit.runnableIs(false);
  unit.runnableIs(true);
  unit.clientReadyIs(false);
  EXPECT_EQ(scheduler->asked.size(), 2U);
  EXPECT_TRUE(scheduler->unscheduled.empty());
}

TEST_F(SchedulableTest, ConsiderRunnabilityAsksWheneverBothFlagsAreSet) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit unit("a", scheduler);
  unit._considerRunnability();
  EXPECT_TRUE(scheduler->asked.empty());
  unit.arm();
  unit._considerRunnability();
  EXPECT_EQ(scheduler->asked.size(), 2U);
  // A disabled unit is queued as well; only the loop passes it over.
  unit.disabledIs(true);
  unit._considerRunnability();
  EXPECT_EQ(scheduler->asked.size(), 3U);
}

TEST_F(SchedulableTest, WithoutASchedulerOnlyTheFlagsAreSet) {
  Unit unit("a");
  unit.arm();
  EXPECT_TRUE(unit.runnable());
  EXPECT_TRUE(unit.clientReady());
  EXPECT_EQ(unit.entry(), nullptr);
}

TEST_F(SchedulableTest, OnClientReadyIsCalledOnEveryChangeAfterItIsStored) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit unit("a", scheduler);
  unit.clientReadyIs(false);
  EXPECT_TRUE(unit.readyChanges.empty());
  unit.clientReadyIs(true);
  unit.clientReadyIs(false);
  EXPECT_EQ(unit.readyChanges, (std::vector<bool>{true, false}));
}

TEST_F(SchedulableTest, OnClientReadyComesBeforeTheSchedulerIsAsked) {
  struct Early : PlainUnit {
    using PlainUnit::PlainUnit;
    void onClientReady() override { runnableIs(true); }  // asks by itself
  };
  const auto scheduler = std::make_shared<AskedScheduler>();
  Early unit("a", scheduler);
  unit.clientReadyIs(true);
  EXPECT_EQ(scheduler->asked.size(), 2U);

  struct Late : PlainUnit {
    using PlainUnit::PlainUnit;
    void onClientReady() override { runnableIs(false); }
  };
  Late late("b", scheduler);
  late.runnableIs(true);
  late.clientReadyIs(true);
  EXPECT_EQ(scheduler->asked.size(), 2U);
}

// ---------------------------------------------------------------------------------------------
// Invocation

TEST_F(SchedulableTest, InvokePassesItsArgumentOn) {
  Unit unit("a");
  unit.invoke(true);
  unit.invoke(false);
  EXPECT_EQ(unit.args, (std::vector<bool>{true, false}));
}

TEST_F(SchedulableTest, InvokeSetsTheStageForTheWork) {
  Unit unit("a", nullptr, [](Unit& self) {
    EXPECT_TRUE(self.running());
    EXPECT_FALSE(self.runnable());
    EXPECT_TRUE(self.clientReady());
    EXPECT_EQ(self.invocations(), 1U);
    EXPECT_EQ(fakeClock.reads, 1);
    expectTime(self.startTime(), 1000, 0);
  });
  unit.arm();
  unit.invoke(false);
  EXPECT_EQ(unit.args.size(), 1U);
  EXPECT_FALSE(unit.running());
  EXPECT_FALSE(unit.runnable());
  EXPECT_EQ(unit.invocations(), 1U);
  EXPECT_EQ(fakeClock.reads, 2);
}

TEST_F(SchedulableTest, RunningIsClearedBeforeTheSecondLookAtTheClock) {
  Unit unit("a");
  std::vector<bool> running;
  fakeClock.onRead = [&] { running.push_back(unit.running()); };
  unit.invoke(false);
  EXPECT_EQ(running, (std::vector<bool>{false, false}));
}

TEST_F(SchedulableTest, InvokingAnIdleUnitDirectlyRunsIt) {
  Unit unit("a");
  unit.invoke(false);
  EXPECT_EQ(unit.invocations(), 1U);
}

TEST_F(SchedulableTest, ADisabledUnitThrowsAndStaysAsItIs) {
  Unit unit("feeder");
  unit.arm();
  unit.disabledIs(true);
  try {
    unit.invoke(false);
    FAIL() << "no exception";
  } catch (const Korvo::KoSchedulableDisabled& e) {
    EXPECT_STREQ(e.what(),
                 "A schedulable unit (feeder) cannot be invoked after it is disabled (probably "
                 "threw an exception on its last invocation)");
  }
  EXPECT_TRUE(unit.args.empty());
  EXPECT_EQ(unit.invocations(), 0U);
  EXPECT_TRUE(unit.runnable());
  EXPECT_FALSE(unit.running());
  EXPECT_EQ(fakeClock.reads, 0);
}

TEST_F(SchedulableTest, AnExceptionLeavesTheUnitRunning) {
  Unit unit("a", nullptr, [](Unit&) {
    fakeClock.advance(1, 0);
    throw std::runtime_error("no more");
  });
  unit.arm();
  EXPECT_THROW(unit.invoke(false), std::runtime_error);
  EXPECT_TRUE(unit.running());
  EXPECT_FALSE(unit.runnable());
  EXPECT_FALSE(unit.disabled());
  EXPECT_EQ(unit.invocations(), 1U);
  EXPECT_EQ(unit.totalRunTime(), 0.0);
  EXPECT_EQ(fakeClock.reads, 1);

  // Nothing keeps it from being invoked again.
  unit.work_ = nullptr;
  unit.invoke(false);
  EXPECT_FALSE(unit.running());
  EXPECT_EQ(unit.invocations(), 2U);
}

TEST_F(SchedulableDeathTest, AnUnreadableClockStopsTheProcess) {
  Unit unit("a");
  fakeClock.failingRead = 1;
  EXPECT_EXIT(unit.invoke(false), testing::KilledBySignal(SIGABRT),
              testing::MatchesRegex("[^:]*: src/Scheduler\\.cpp:[0-9]+: void "
                                    "Korvo::Schedulable::invoke\\(bool\\): Assertion `!ret' "
                                    "failed\\.\n"));
}

// ---------------------------------------------------------------------------------------------
// Time

struct DeadlineCase {
  std::timespec start, slice, deadline;
};

TEST_F(SchedulableTest, Deadline) {
  const DeadlineCase cases[] = {
      {{10, 500'000'000}, {0, 600'000'000}, {11, 100'000'000}},
      {{10, 500'000'000}, {0, 499'999'999}, {10, 999'999'999}},
      {{10, 500'000'000}, {0, 500'000'000}, {10, 1'000'000'000}},  // as it is, on purpose
      {{10, 500'000'000}, {0, 500'000'001}, {11, 1}},
      {{10, 999'999'999}, {3, 999'999'999}, {14, 999'999'998}},
      {{10, 0}, {0, 0}, {10, 0}},
      {{10, 0}, {-3, -5}, {7, -5}},
      {{0x7fffffff, 5}, {-1, 999'999'999}, {0x7fffffff, 4}},
  };
  for (const DeadlineCase& c : cases) {
    Unit unit("a");
    unit.timeSliceIs(c.slice);
    fakeClock.now = c.start;
    unit.invoke(false);
    expectTime(unit.startTime(), c.start.tv_sec, c.start.tv_nsec);
    expectTime(unit.deadline(), c.deadline.tv_sec, c.deadline.tv_nsec);
  }
}

TEST_F(SchedulableTest, AnEndlessSliceWraps) {
  Unit unit("a");
  unit.timeSliceIs({std::numeric_limits<long>::max(), 999'999'999});
  fakeClock.now = {10, 999'999'999};
  unit.invoke(false);
  expectTime(unit.deadline(), std::numeric_limits<long>::min() + 10, 999'999'998);
}

TEST_F(SchedulableTest, YieldsStrictlyAfterTheDeadline) {
  Unit unit("a", nullptr, [](Unit& self) {
    const struct {
      std::timespec now;
      bool yield;
    } cases[] = {
        {{10, 0}, false},          {{11, 99'999'999}, false}, {{11, 100'000'000}, false},
        {{11, 100'000'001}, true}, {{12, 0}, true},           {{9, 999'999'999}, false},
        {{-1, 0}, false},
    };
    for (const auto& c : cases) {
      fakeClock.now = c.now;
      EXPECT_EQ(self.shouldYield(), c.yield) << c.now.tv_sec << " " << c.now.tv_nsec;
    }
  });
  unit.timeSliceIs({0, 600'000'000});
  fakeClock.now = {10, 500'000'000};
  unit.invoke(false);
  EXPECT_EQ(unit.args.size(), 1U);
}

TEST_F(SchedulableTest, AnUnnormalisedDeadlineIsComparedAsItStands) {
  Unit unit("a", nullptr, [](Unit& self) {
    fakeClock.now = {10, 999'999'999};
    EXPECT_FALSE(self.shouldYield());
    fakeClock.now = {11, 0};  // the very moment of the deadline, yet a later second
    EXPECT_TRUE(self.shouldYield());
  });
  unit.timeSliceIs({0, 500'000'000});
  fakeClock.now = {10, 500'000'000};
  unit.invoke(false);
  EXPECT_EQ(unit.args.size(), 1U);
}

TEST_F(SchedulableTest, SecondsOfADeadlineAreSigned) {
  Unit unit("a", nullptr, [](Unit& self) { EXPECT_TRUE(self.shouldYield()); });
  unit.timeSliceIs({-2000, 0});
  unit.invoke(false);
  expectTime(unit.deadline(), -1000, 0);
  EXPECT_EQ(unit.args.size(), 1U);
}

TEST_F(SchedulableTest, AnUnreadableClockIsNoReasonToYield) {
  Unit unit("a", nullptr, [](Unit& self) {
    fakeClock.advance(100, 0);
    fakeClock.failingRead = fakeClock.reads + 1;
    EXPECT_FALSE(self.shouldYield());
    EXPECT_TRUE(self.shouldYield());
  });
  unit.invoke(false);
  EXPECT_EQ(unit.args.size(), 1U);
}

struct ElapsedCase {
  std::timespec start, end;
  double seconds;
};

TEST_F(SchedulableTest, RunTimeIsCountedInWholeMicrosecondsOf32Bits) {
  const ElapsedCase cases[] = {
      {{10, 0}, {10, 0}, 0.0},
      {{10, 0}, {11, 500'000'000}, 1.5},
      {{10, 0}, {10, 999}, 0.0},
      {{10, 0}, {10, 1'000}, 0.000001},
      // The division cuts toward zero on both sides.
      {{10, 999}, {11, 0}, 1.0},
      {{10, 1'000}, {11, 0}, 0.999999},
      {{10, 1'999}, {11, 0}, 0.999999},
      {{10, 2'000}, {11, 0}, 0.999998},
      // Backwards.
      {{10, 0}, {9, 0}, -1.0},
      // 35 minutes, 47 seconds and a bit are the most; one microsecond more wraps.
      {{10, 0}, {2157, 483'647'000}, 2147.483647},
      {{10, 0}, {2157, 483'648'000}, -2147.483648},
      {{0, 0}, {3000, 0}, -1294.967296},
      {{0, 0}, {5000, 0}, 705.032704},
      {{-0x7fffffff - 1, 0}, {0x7fffffff, 0}, -1.0},  // 2^32 - 1 seconds
  };
  for (const ElapsedCase& c : cases) {
    Unit unit("a", nullptr, [&](Unit&) { fakeClock.now = c.end; });
    fakeClock.now = c.start;
    unit.invoke(false);
    EXPECT_EQ(unit.totalRunTime(), c.seconds) << c.end.tv_sec << " " << c.end.tv_nsec;
  }
}

#if __SIZEOF_LONG__ == 8
TEST_F(SchedulableTest, SecondsBeyond32BitsAreCutOffFirst) {
  Unit unit("a", nullptr, [&](Unit&) { fakeClock.now = {0x100000000 + 7, 0}; });
  fakeClock.now = {5, 0};
  unit.invoke(false);
  EXPECT_EQ(unit.totalRunTime(), 2.0);
}
#endif

TEST_F(SchedulableTest, RunTimeAddsUp) {
  Unit unit("a", nullptr, [](Unit&) { fakeClock.advance(0, 250'000'000); });
  unit.invoke(false);
  unit.invoke(false);
  unit.invoke(false);
  EXPECT_EQ(unit.totalRunTime(), 0.75);
  EXPECT_EQ(unit.invocations(), 3U);
}

TEST_F(SchedulableTest, AFailureOfTheSecondLookAtTheClockIsIgnored) {
  Unit unit("a", nullptr, [](Unit&) { fakeClock.advance(1, 0); });
  fakeClock.failingRead = 2;
  unit.invoke(false);
  EXPECT_EQ(unit.totalRunTime(), 0.0);
  EXPECT_FALSE(unit.running());
}

// ---------------------------------------------------------------------------------------------
// Cleanup, clearing, assignment

TEST_F(SchedulableTest, CleanupOfAQueuedUnitLeavesADeadEntry) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit unit("a", scheduler);
  unit.arm();
  RunnableEntry* const entry = unit.entry();
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->valid);
  EXPECT_EQ(entry->unit, &unit);

  unit.cleanup();
  EXPECT_FALSE(entry->valid);
  EXPECT_EQ(entry->unit, nullptr);
  EXPECT_EQ(unit.entry(), nullptr);
  EXPECT_TRUE(scheduler->entries_.empty());
  ASSERT_EQ(scheduler->runQueue_.size(), 1U);
  EXPECT_EQ(scheduler->runQueue_.front(), entry);
  EXPECT_TRUE(unit.runnable());
  EXPECT_EQ(unit.scheduler(), scheduler);
}

TEST_F(SchedulableTest, CleanupOfAUnitThatIsNotQueuedDoesNotUnschedule) {
  const auto scheduler = std::make_shared<AskedScheduler>();
  Unit unit("a", scheduler);
  unit.arm();
  unit.cleanup();
  EXPECT_TRUE(scheduler->unscheduled.empty());
}

TEST_F(SchedulableTest, CleanupUnschedulesThroughTheVirtualOperation) {
  struct Counting : OpenScheduler {
    void unschedule(Schedulable* unit) override {
      ++calls;
      EXPECT_EQ(unit->entry(), nullptr);
      EXPECT_FALSE(runQueue_.front()->valid);
      OpenScheduler::unschedule(unit);
    }
    int calls = 0;
  };
  const auto scheduler = std::make_shared<Counting>();
  Unit unit("a", scheduler);
  unit.arm();
  unit.cleanup();
  EXPECT_EQ(scheduler->calls, 1);
  unit.cleanup();
  EXPECT_EQ(scheduler->calls, 1);
}

TEST_F(SchedulableTest, ClearSchedulerDetaches) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  struct Watched : Unit {
    using Unit::Unit;
    void cleanup() override {
      ++cleanups;
      EXPECT_FALSE(runnable());
      EXPECT_NE(this->scheduler(), nullptr);
      Unit::cleanup();
    }
    int cleanups = 0;
  };
  Watched unit("a", scheduler);
  unit.arm();
  const long uses = scheduler.use_count();
  unit.clearScheduler();
  EXPECT_EQ(unit.cleanups, 1);
  EXPECT_EQ(unit.scheduler(), nullptr);
  EXPECT_EQ(scheduler.use_count(), uses - 1);
  EXPECT_FALSE(unit.runnable());
  EXPECT_TRUE(unit.clientReady());
  EXPECT_EQ(unit.entry(), nullptr);
  EXPECT_FALSE(scheduler->runQueue_.front()->valid);
}

TEST_F(SchedulableTest, ClearSchedulerWithoutASchedulerOnlyClearsTheFlag) {
  Unit unit("a");
  unit.arm();
  unit.clearScheduler();
  EXPECT_FALSE(unit.runnable());
  EXPECT_EQ(unit.scheduler(), nullptr);
}

TEST_F(SchedulableTest, AssignmentTakesOverNameSchedulerAndEnabling) {
  const auto scheduler = std::make_shared<OpenScheduler>("one");
  const auto other = std::make_shared<OpenScheduler>("two");
  Recorder recorder(1U << 6);
  Unit source("source", other);
  source.schedulingEnabledIs(false);
  source.timeSliceIs({9, 9});

  Unit target("target", scheduler, [](Unit&) { fakeClock.advance(1, 0); });
  target.timeSliceIs({1, 1});
  target.debugChannelIs(&recorder, false);
  target.invoke(false);
  target.arm();
  target.disabledIs(true);
  target.running_ = true;
  ASSERT_NE(target.entry(), nullptr);
  const long uses = scheduler.use_count();

  target = source;
  EXPECT_EQ(target.name(), "source");
  EXPECT_FALSE(target.schedulingEnabled());
  EXPECT_EQ(target.scheduler(), other);
  EXPECT_EQ(scheduler.use_count(), uses - 1);
  EXPECT_EQ(target.invocations(), 0U);
  EXPECT_EQ(target.totalRunTime(), 0.0);
  EXPECT_FALSE(target.runnable());
  EXPECT_FALSE(target.clientReady());
  EXPECT_FALSE(target.running());
  EXPECT_FALSE(target.disabled());
  EXPECT_EQ(target.entry(), nullptr);
  // Left as they were.
  expectTime(target.timeSlice(), 1, 1);
  expectTime(target.startTime(), 1000, 0);
  expectTime(target.deadline(), 1001, 1);
  recorder.traces.clear();
  target.invoke(false);
  EXPECT_EQ(recorder.texts(),
            std::vector<std::string>{" invoking source(unit: " + idOf(&target) + ")"});
  // Nothing was queued or unqueued.
  EXPECT_EQ(scheduler->runQueue_.size(), 1U);
  EXPECT_TRUE(scheduler->runQueue_.front()->valid);
  EXPECT_EQ(scheduler->entries_.size(), 1U);
  EXPECT_TRUE(other->runQueue_.empty());
}

TEST_F(SchedulableTest, AssignmentToItselfChangesNothing) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit unit("a", scheduler, [](Unit&) { fakeClock.advance(1, 0); });
  unit.invoke(false);
  unit.arm();
  RunnableEntry* const entry = unit.entry();
  Schedulable& self = unit;
  self = unit;
  EXPECT_EQ(unit.invocations(), 1U);
  EXPECT_EQ(unit.totalRunTime(), 1.0);
  EXPECT_TRUE(unit.runnable());
  EXPECT_TRUE(unit.clientReady());
  EXPECT_EQ(unit.entry(), entry);
  EXPECT_EQ(unit.scheduler(), scheduler);
}

TEST_F(SchedulableTest, AUnitAssignedInTheQueueKeepsItsPlace) {
  const auto scheduler = std::make_shared<OpenScheduler>();
  Unit unit("a", scheduler);
  const Unit source("b", scheduler);
  unit.arm();
  static_cast<Schedulable&>(unit) = source;
  unit.arm();  // still in the map, so not queued a second time
  EXPECT_EQ(scheduler->runQueue_.size(), 1U);
  EXPECT_EQ(unit.entry(), nullptr);
  scheduler->run(0, 0.0, true);
  EXPECT_EQ(unit.invocations(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Traces

void expectTrace(const Recorder& recorder, const std::string& text, unsigned int level,
                 const std::string& function) {
  ASSERT_EQ(recorder.traces.size(), 1U);
  const Trace& trace = recorder.traces[0];
  EXPECT_EQ(trace.text, text);
  EXPECT_EQ(trace.level, level);
  EXPECT_EQ(trace.function, function);
  EXPECT_EQ(trace.file, "src/Scheduler.cpp");
  EXPECT_GT(trace.line, 1U);
  EXPECT_EQ(trace.precision, 12);
}

TEST_F(SchedulableTest, InvokeIsTraced) {
  Recorder recorder;
  Unit unit("feeder");
  unit.debugChannelIs(&recorder, false);
  unit.invoke(false);
  expectTrace(recorder, " invoking feeder(unit: " + idOf(&unit) + ")", 6, "invoke");
}

TEST_F(SchedulableTest, InvokingADisabledUnitIsTracedBeforeItThrows) {
  Recorder recorder;
  Unit unit("feeder");
  unit.debugChannelIs(&recorder, false);
  unit.disabledIs(true);
  EXPECT_THROW(unit.invoke(false), Korvo::KoSchedulableDisabled);
  expectTrace(recorder, " invoking feeder(unit: " + idOf(&unit) + ")", 6, "invoke");
}

TEST_F(SchedulableTest, ClientReadinessIsTracedEvenWithoutAChange) {
  Recorder recorder;
  Unit unit("feeder");
  unit.debugChannelIs(&recorder, false);
  unit.clientReadyIs(true);
  expectTrace(recorder, "virtual void Korvo::Schedulable::clientReadyIs(bool) feeder ready: 1", 8,
              "clientReadyIs");
  recorder.traces.clear();
  unit.clientReadyIs(true);
  expectTrace(recorder, "virtual void Korvo::Schedulable::clientReadyIs(bool) feeder ready: 1", 8,
              "clientReadyIs");
  recorder.traces.clear();
  unit.clientReadyIs(false);
  expectTrace(recorder, "virtual void Korvo::Schedulable::clientReadyIs(bool) feeder ready: 0", 8,
              "clientReadyIs");
}

TEST_F(SchedulableTest, EachLevelIsSwitchedByItsOwnBit) {
  for (unsigned int level = 0; level < 32; ++level) {
    Recorder recorder(1U << level);
    Unit unit("feeder");
    unit.debugChannelIs(&recorder, false);
    unit.invoke(false);
    unit.clientReadyIs(true);
    EXPECT_EQ(recorder.traces.size(), level == 6 || level == 8 ? 1U : 0U) << level;
    Recorder others(~(1U << level));
    unit.debugChannelIs(&others, false);
    unit.invoke(false);
    unit.clientReadyIs(true);
    EXPECT_EQ(others.traces.size(), level == 6 || level == 8 ? 1U : 2U) << level;
  }
}

struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(SchedulableTest, TracesDoNotDependOnTheGlobalLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  Recorder recorder;
  Unit unit("feeder");
  unit.debugChannelIs(&recorder, false);
  unit.invoke(false);
  std::locale::global(before);
  expectTrace(recorder, " invoking feeder(unit: " + idOf(&unit) + ")", 6, "invoke");
}

TEST_F(SchedulableTest, AChannelIsDeletedOnlyIfItIsOwned) {
  struct Counted : Recorder {
    explicit Counted(int& count) : deleted(count) {}
    ~Counted() override { ++deleted; }
    int& deleted;
  };
  int deleted = 0;
  Counted lent(deleted);
  {
    Unit unit("a");
    unit.debugChannelIs(&lent, false);
  }
  EXPECT_EQ(deleted, 0);
  {
    Unit unit("a");
    unit.debugChannelIs(new Counted(deleted), true);
    unit.debugChannelIs(&lent, false);
    EXPECT_EQ(deleted, 1);
    unit.debugChannelIs(new Counted(deleted), true);
  }
  EXPECT_EQ(deleted, 2);
}

}  // namespace
}  // namespace schedtest
