// The scheduler's loop: what it invokes, what ends it, how it pauses, what it says.

#include <cmath>
#include <deque>
#include <functional>
#include <limits>
#include <locale>
#include <stdexcept>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

/// The default sleep, and a settable length of it.
class PausingScheduler : public OpenScheduler {
 public:
  explicit PausingScheduler(float pause) : pause_(pause) {}
  float pauseTime() override {
    ++asked;
    return pause_;
  }
  int asked = 0;

 private:
  float pause_;
};

class SchedulerLoopTest : public SchedulerTest {
 protected:
  using Texts = std::vector<std::string>;

  SchedulerLoopTest() { scheduler_->debugChannelIs(&recorder_, false); }
  ~SchedulerLoopTest() override { scheduler_->debugChannelIs(nullptr, false); }

  /// What the loop said since the last call, "runnableIs" left out.
  Texts taken() {
    Texts result;
    for (const Trace& trace : recorder_.traces) {
      if (trace.function == "runnableIs") continue;
      EXPECT_EQ(trace.function, "run");
      EXPECT_EQ(trace.level, result.empty() ? 8U : 9U);
      EXPECT_EQ(trace.file, "src/Scheduler.cpp");
      EXPECT_GT(trace.line, 1U);
      EXPECT_EQ(trace.precision, 12);
      result.push_back(trace.text);
    }
    recorder_.traces.clear();
    return result;
  }

  static std::string entered(const std::string& arguments) {
    return "virtual void Korvo::Scheduler::run(int, double, bool) main(" + arguments + ")";
  }

  const std::shared_ptr<OpenScheduler> scheduler_ = std::make_shared<OpenScheduler>();
  Recorder recorder_;
};
using SchedulerLoopDeathTest = SchedulerLoopTest;

const std::string kTimeLimit = " main exited due to time limit.";
const std::string kQuiescence = " main exited due to quiescence.";

std::string countReached(int counter, int limit) {
  return " main exited due to count:" + std::to_string(counter) +
         " >= expected: " + std::to_string(limit);
}

// ---------------------------------------------------------------------------------------------
// Turns

TEST_F(SchedulerLoopTest, AnEmptyQueueEndsItIfAsked) {
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(taken(), (Texts{entered("0,0, 1"), kQuiescence}));
  EXPECT_TRUE(fakeSleep.requests.empty());
  EXPECT_EQ(fakeClock.reads, 0);
}

TEST_F(SchedulerLoopTest, UnitsRunInTheOrderOfTheirArrivalAndRearmedOnesAtTheBack) {
  std::string order;
  const auto work = [&](Unit& unit) {
    order += unit.name();
    if (unit.invocations() < 3) unit.runnableIs(true);
  };
  Unit a("a", scheduler_, work);
  Unit b("b", scheduler_, work);
  Unit c("c", scheduler_, work);
  b.arm();
  a.arm();
  c.arm();
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(order, "bacbacbac");
  EXPECT_EQ(a.args, (std::vector<bool>{false, false, false}));
}

TEST_F(SchedulerLoopTest, TheEntryIsGoneBeforeTheUnitRuns) {
  Unit a("a", scheduler_, [&](Unit& unit) {
    EXPECT_EQ(unit.entry(), nullptr);
    EXPECT_TRUE(scheduler_->runQueue_.empty());
    EXPECT_TRUE(scheduler_->entries_.empty());
    unit.runnableIs(true);
    EXPECT_NE(unit.entry(), nullptr);
    EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
  });
  a.arm();
  scheduler_->run(1, 0.0, true);
  EXPECT_EQ(a.invocations(), 1U);
  EXPECT_NE(a.entry(), nullptr);
}

TEST_F(SchedulerLoopTest, IneligibleUnitsArePassedOverAndLeaveTheQueue) {
  Unit idle("idle", scheduler_);
  Unit unready("unready", scheduler_);
  Unit disabled("disabled", scheduler_);
  Unit withdrawn("withdrawn", scheduler_);
  Unit eligible("eligible", scheduler_);
  for (Unit* unit : {&idle, &unready, &disabled, &withdrawn, &eligible}) unit->arm();
  idle.runnableIs(false);
  unready.clientReadyIs(false);
  disabled.disabledIs(true);
  withdrawn.cleanup();
  EXPECT_EQ(unready.readyChanges, (std::vector<bool>{true, false}));
  EXPECT_EQ(scheduler_->runQueue_.size(), 5U);

  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(eligible.invocations(), 1U);
  for (Unit* unit : {&idle, &unready, &disabled, &withdrawn}) {
    EXPECT_EQ(unit->invocations(), 0U) << unit->name();
    EXPECT_EQ(unit->entry(), nullptr) << unit->name();
  }
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  EXPECT_TRUE(scheduler_->entries_.empty());

  // Each is queued anew by the change that makes it eligible.
  idle.runnableIs(true);
  unready.clientReadyIs(true);
  EXPECT_NE(idle.entry(), nullptr);
  EXPECT_NE(unready.entry(), nullptr);
}

TEST_F(SchedulerLoopTest, UnitsBecomeIneligibleWhileTheyWait) {
  Unit victim("victim", scheduler_);
  Unit first("first", scheduler_, [&](Unit&) { victim.disabledIs(true); });
  first.arm();
  victim.arm();
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(victim.invocations(), 0U);
}

TEST_F(SchedulerLoopTest, AUnitThatMovedStillGetsTheTurnItHad) {
  const auto other = std::make_shared<OpenScheduler>("other");
  Unit a("a", scheduler_);
  a.arm();
  const Unit moved("moved", other);
  static_cast<Schedulable&>(a) = moved;
  a.arm();  // queued there as well
  EXPECT_NE(a.entry(), nullptr);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(a.invocations(), 1U);
  other->run(0, 0.0, true);
  EXPECT_EQ(a.invocations(), 1U);  // no longer runnable
}

// ---------------------------------------------------------------------------------------------
// Activity

TEST_F(SchedulerLoopTest, AnInactiveSchedulerOnlyTracesItsEntry) {
  Unit a("a", scheduler_);
  a.arm();
  taken();
  scheduler_->activeIs(false);
  scheduler_->run(0, 0.0, true);
  scheduler_->run(-5, 0.0, true);
  EXPECT_EQ(recorder_.texts(), (Texts{entered("0,0, 1"), entered("-5,0, 1")}));
  EXPECT_EQ(a.invocations(), 0U);
  EXPECT_NE(a.entry(), nullptr);
}

TEST_F(SchedulerLoopTest, ActivityIsLookedAtBeforeTheClock) {
  scheduler_->activeIs(false);
  scheduler_->run(0, 1.0, false);
  EXPECT_EQ(fakeClock.reads, 1);  // the start
}

TEST_F(SchedulerLoopTest, DeactivatedByAUnitItStopsBeforeTheNext) {
  Unit a("a", scheduler_, [&](Unit& unit) {
    unit.runnableIs(true);
    scheduler_->activeIs(false);
  });
  Unit b("b", scheduler_);
  a.arm();
  b.arm();
  recorder_.traces.clear();
  scheduler_->run();
  EXPECT_EQ(taken(), Texts{entered("0,0, 0")});
  EXPECT_EQ(a.invocations(), 1U);
  EXPECT_EQ(b.invocations(), 0U);
  EXPECT_EQ(scheduler_->runQueue_.size(), 2U);

  scheduler_->activeIs(true);
  scheduler_->run(1, 0.0, true);
  EXPECT_EQ(b.invocations(), 1U);
}

TEST_F(SchedulerLoopTest, DeactivatedDuringAPauseItStops) {
  fakeSleep.onSleep = [&] {
    if (fakeSleep.requests.size() == 3) scheduler_->activeIs(false);
  };
  scheduler_->run();
  EXPECT_EQ(fakeSleep.requests.size(), 3U);
  EXPECT_EQ(taken(), Texts{entered("0,0, 0")});
}

TEST_F(SchedulerLoopTest, RunWithoutArgumentsGoesThroughTheOtherOne) {
  struct Noting : Scheduler {
    Noting() : Scheduler("noting") {}
    void run(int count, double timeLimit, bool exitOnQuiescence) override {
      EXPECT_EQ(count, 0);
      EXPECT_EQ(timeLimit, 0.0);
      EXPECT_FALSE(exitOnQuiescence);
      ++calls;
    }
    using Scheduler::run;
    int calls = 0;
  } scheduler;
  scheduler.run();
  EXPECT_EQ(scheduler.calls, 1);
}

// ---------------------------------------------------------------------------------------------
// Count

TEST_F(SchedulerLoopTest, CountsInvocationsOnly) {
  Unit dead("dead", scheduler_);
  Unit idle("idle", scheduler_);
  Unit a("a", scheduler_);
  Unit b("b", scheduler_);
  Unit c("c", scheduler_);
  for (Unit* unit : {&dead, &idle, &a, &b, &c}) unit->arm();
  dead.cleanup();
  idle.runnableIs(false);
  recorder_.traces.clear();
  scheduler_->run(2, 0.0, true);
  EXPECT_EQ(a.invocations() + b.invocations(), 2U);
  EXPECT_EQ(c.invocations(), 0U);
  EXPECT_EQ(taken(), (Texts{entered("2,0, 1"), countReached(2, 2)}));
}

TEST_F(SchedulerLoopTest, CountIsLookedAtBeforeTheQueue) {
  Unit a("a", scheduler_);
  a.arm();
  recorder_.traces.clear();
  scheduler_->run(1, 0.0, true);
  EXPECT_EQ(taken(), (Texts{entered("1,0, 1"), countReached(1, 1)}));
  scheduler_->run(1, 0.0, true);
  EXPECT_EQ(taken(), (Texts{entered("1,0, 1"), kQuiescence}));
}

TEST_F(SchedulerLoopTest, MinusOneCountsTheUnitsThatAreEligibleAtTheStart) {
  Unit dead("dead", scheduler_);
  Unit idle("idle", scheduler_);
  Unit unready("unready", scheduler_);
  Unit disabled("disabled", scheduler_);
  int invoked = 0;
  const auto rearm = [&](Unit& unit) {
    ++invoked;
    unit.runnableIs(true);
  };
  Unit a("a", scheduler_, rearm);
  Unit b("b", scheduler_, rearm);
  Unit c("c", scheduler_, rearm);
  for (Unit* unit : {&a, &dead, &b, &idle, &unready, &disabled, &c}) unit->arm();
  dead.cleanup();
  idle.runnableIs(false);
  unready.clientReadyIs(false);
  disabled.disabledIs(true);
  recorder_.traces.clear();
  scheduler_->run(-1, 0.0, false);
  EXPECT_EQ(invoked, 3);
  EXPECT_EQ(a.invocations(), 1U);
  EXPECT_EQ(taken(), (Texts{entered("-1,0, 0"), countReached(3, 3)}));
  EXPECT_EQ(scheduler_->runQueue_.size(), 3U);
}

TEST_F(SchedulerLoopTest, MinusOneWithoutEligibleUnitsEndsAtOnce) {
  Unit idle("idle", scheduler_);
  idle.arm();
  idle.runnableIs(false);
  recorder_.traces.clear();
  scheduler_->run(-1, 0.0, true);
  EXPECT_EQ(taken(), (Texts{entered("-1,0, 1"), countReached(0, 0)}));
  EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
}

TEST_F(SchedulerLoopTest, OtherNegativeCountsAreALimitOfZero) {
  Unit a("a", scheduler_);
  a.arm();
  recorder_.traces.clear();
  for (const int count : {-2, -5, std::numeric_limits<int>::min()}) {
    scheduler_->run(count, 0.0, true);
    EXPECT_EQ(taken(), (Texts{entered(std::to_string(count) + ",0, 1"), countReached(0, 0)}));
  }
  EXPECT_EQ(a.invocations(), 0U);
}

// ---------------------------------------------------------------------------------------------
// Time limit

TEST_F(SchedulerLoopTest, AnIdleLoopPausesUntilItsTimeIsUp) {
  scheduler_->run(0, 0.5, false);
  EXPECT_EQ(taken(), (Texts{entered("0,0.5, 0"), kTimeLimit}));
  EXPECT_EQ(fakeSleep.requests.size(), 100U);
  EXPECT_EQ(fakeClock.reads, 102);  // the start, and one per iteration
}

TEST_F(SchedulerLoopTest, TheLimitItselfIsReached) {
  Unit a("a", scheduler_, [](Unit& unit) {
    fakeClock.advance(0, 250'000'000);
    unit.runnableIs(true);
  });
  a.arm();
  fakeClock.now = {16, 0};
  scheduler_->run(0, 0.5, true);
  EXPECT_EQ(a.invocations(), 2U);
}

TEST_F(SchedulerLoopTest, TheTimeIsComparedInDoublePrecision) {
  struct {
    std::timespec start, end;
    double limit;
    bool reached;
  } const cases[] = {
      {{0, 0}, {0, 500'000'000}, 0.5, true},
      {{0, 0}, {0, 499'999'999}, 0.5, false},
      {{0, 100'000'000}, {0, 400'000'000}, 0.3, true},   // 0.4 - 0.1 is a bit more than 0.3
      {{0, 600'000'000}, {0, 900'000'000}, 0.3, false},  // 0.9 - 0.6 is a bit less
      // One nanosecond more or less does not show this far from zero.
      {{100'000'000, 0}, {100'000'000, 999'999'999}, 1.0, true},
      {{5, 0}, {4, 0}, 1e-300, false},
  };
  for (const auto& c : cases) {
    Unit a("a", scheduler_, [&](Unit&) { fakeClock.now = c.end; });
    a.arm();
    recorder_.traces.clear();
    fakeClock.now = c.start;
    scheduler_->run(0, c.limit, true);
    EXPECT_EQ(taken().back(), c.reached ? kTimeLimit : kQuiescence)
        << c.end.tv_sec << " " << c.end.tv_nsec;
  }
}

/// The reference: every product and sum rounded to a double, worked out in a wider type.
TEST_F(SchedulerLoopTest, TheTimeIsTheSameAsWithExactlyRoundedOperations) {
  const auto rounded = [](const std::timespec& time) {
    // A 30-bit integer times a 53-bit factor, rounded by hand to 53 bits, ties to even.
    constexpr unsigned long long kFactor = 4835703278458517ULL;  // 1e-9 * 2^82
    const auto nanoseconds = static_cast<unsigned long long>(time.tv_nsec);
    const unsigned long long low = (kFactor & 0xffffffff) * nanoseconds;
    const unsigned long long high = (kFactor >> 32) * nanoseconds + (low >> 32);
    // The product is high * 2^32 + (low mod 2^32), below 2^83.
    int exponent = 0;
    unsigned long long top = high;
    unsigned long long rest = low & 0xffffffff;
    while (top < (1ULL << 52)) {
      top = top << 1 | (rest >> 31 & 1);
      rest = rest << 1 & 0xffffffff;
      ++exponent;
    }
    if (rest > 0x80000000ULL || (rest == 0x80000000ULL && (top & 1) != 0)) ++top;
    return std::ldexp(static_cast<double>(top), 32 - exponent - 82);
  };
  unsigned long long state = 12345;
  for (int i = 0; i < 20000; ++i) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    const std::timespec end{0, static_cast<long>(100'000'000 + (state >> 33) % 900'000'000)};
    const double exact = rounded(end);
    for (const double limit : {exact, std::nextafter(exact, 2.0)}) {
      fakeClock.now = {0, 0};
      Unit a("a", scheduler_, [&](Unit&) { fakeClock.now = end; });
      a.arm();
      recorder_.traces.clear();
      scheduler_->run(0, limit, true);
      ASSERT_EQ(taken().back(), limit == exact ? kTimeLimit : kQuiescence) << end.tv_nsec;
    }
  }
}

TEST_F(SchedulerLoopTest, TimeIsLookedAtBeforeTheCountAndTheQueue) {
  Unit a("a", scheduler_, [](Unit&) { fakeClock.advance(1, 0); });
  a.arm();
  recorder_.traces.clear();
  scheduler_->run(1, 1.0, true);
  EXPECT_EQ(taken(), (Texts{entered("1,1, 1"), kTimeLimit}));
}

TEST_F(SchedulerLoopTest, ARunningUnitIsNotCutShort) {
  Unit a("a", scheduler_, [](Unit& unit) {
    fakeClock.advance(100, 0);
    unit.runnableIs(true);
  });
  a.arm();
  scheduler_->run(0, 0.5, false);
  EXPECT_EQ(a.invocations(), 1U);
}

TEST_F(SchedulerLoopTest, WithoutALimitTheLoopNeverReadsTheClock) {
  Unit a("a", scheduler_, [](Unit& unit) {
    if (unit.invocations() < 10) unit.runnableIs(true);
  });
  for (const double limit : {0.0, -1.0, -0.0, std::numeric_limits<double>::quiet_NaN()}) {
    a.arm();
    const int before = fakeClock.reads;
    const std::uint32_t invoked = a.invocations();
    scheduler_->run(0, limit, true);
    EXPECT_EQ(fakeClock.reads - before, 2 * static_cast<int>(a.invocations() - invoked)) << limit;
  }
}

TEST_F(SchedulerLoopTest, WithALimitTheLoopReadsTheClockOncePerIteration) {
  Unit a("a", scheduler_, [](Unit& unit) {
    if (unit.invocations() < 10) unit.runnableIs(true);
  });
  Unit dead("dead", scheduler_);
  a.arm();
  dead.arm();
  dead.cleanup();
  scheduler_->run(0, 1.0, true);
  // The start, eleven entries and the empty queue, and two for each of the ten invocations.
  EXPECT_EQ(fakeClock.reads, 1 + 12 + 20);
}

TEST_F(SchedulerLoopDeathTest, AnUnreadableClockAtTheStartEndsTheProcess) {
  fakeClock.failingRead = 1;
  EXPECT_EXIT(scheduler_->run(0, 1.0, false), testing::ExitedWithCode(255),
              testing::Eq("gettime failure in Schedulable::run()\n"));
}

TEST_F(SchedulerLoopDeathTest, AnUnreadableClockInAnIterationEndsTheProcess) {
  fakeClock.failingRead = 3;
  EXPECT_EXIT(scheduler_->run(0, 1.0, false), testing::ExitedWithCode(255),
              testing::Eq("gettime failure in Schedulable::run()\n"));
}

// ---------------------------------------------------------------------------------------------
// Pauses

TEST_F(SchedulerLoopTest, PausesForFiveMillisecondsByDefault) {
  EXPECT_EQ(scheduler_->pauseTime(), 0.005F);
  scheduler_->run(0, 0.001, false);
  ASSERT_EQ(fakeSleep.requests.size(), 1U);
  EXPECT_EQ(fakeSleep.requests[0].tv_sec, 0);
  EXPECT_EQ(fakeSleep.requests[0].tv_nsec, 5'000'000);
}

TEST_F(SchedulerLoopTest, TheDefaultPauseSleepsAndGivesTheResult) {
  std::timespec pause{0, 42};
  EXPECT_EQ(scheduler_->pauseScheduler(&pause), 0);
  ASSERT_EQ(fakeSleep.requests.size(), 1U);
  EXPECT_EQ(fakeSleep.requests[0].tv_nsec, 42);
  fakeSleep.failWith = EINTR;
  EXPECT_EQ(scheduler_->pauseScheduler(&pause), -1);
}

TEST_F(SchedulerLoopTest, PauseTimesAreMultipliedInDoublePrecisionAndCutOff) {
  const struct {
    float pause;
    long nanoseconds;
  } cases[] = {
      {0.005F, 5'000'000},  // the default, overridden or not
      {0.25F, 250'000'000},
      {0.1F, 100'000'001},          // the nearest float is 0.100000001490...
      {0.01F, 9'999'999},           // 0.00999999977648...
      {0.00500000035F, 5'000'000},  // 5000000.3...
      {0.999999940395F, 999'999'940},
      {1e-9F, 0},  // 0.99999997...
      {0.0F, 0},
      {-1e-10F, 0},
  };
  for (const auto& c : cases) {
    PausingScheduler scheduler(c.pause);
    fakeSleep.onSleep = [&] { scheduler.activeIs(false); };
    fakeSleep.requests.clear();
    scheduler.run();
    ASSERT_EQ(fakeSleep.requests.size(), 1U);
    EXPECT_EQ(fakeSleep.requests[0].tv_sec, 0);
    EXPECT_EQ(fakeSleep.requests[0].tv_nsec, c.nanoseconds) << c.pause;
  }
}

TEST_F(SchedulerLoopTest, TheLengthOfAPauseIsAskedOncePerRun) {
  PausingScheduler scheduler(0.01F);
  scheduler.run(0, 0.1, false);
  EXPECT_GT(fakeSleep.requests.size(), 5U);
  EXPECT_EQ(scheduler.asked, 1);
  scheduler.run(0, 0.0, true);
  EXPECT_EQ(scheduler.asked, 2);
}

TEST_F(SchedulerLoopTest, TheLoopNeverSleepsWhileThereAreEntries) {
  Unit a("a", scheduler_, [&](Unit& unit) {
    if (unit.invocations() < 100) {
      unit.runnableIs(true);
    } else {
      scheduler_->activeIs(false);
    }
  });
  a.arm();
  scheduler_->run();
  EXPECT_TRUE(fakeSleep.requests.empty());
}

TEST_F(SchedulerLoopTest, WorkQueuedDuringAPauseRunsAfterIt) {
  Unit a("a", scheduler_, [&](Unit&) { scheduler_->activeIs(false); });
  fakeSleep.onSleep = [&] { a.arm(); };
  scheduler_->run();
  EXPECT_EQ(fakeSleep.requests.size(), 1U);
  EXPECT_EQ(a.invocations(), 1U);
}

TEST_F(SchedulerLoopTest, ASubclassPausesItsOwnWay) {
  struct Waiting : OpenScheduler {
    int pauseScheduler(timespec* pause) override {
      EXPECT_EQ(pause->tv_nsec, 5'000'000);
      if (++waits == 4) activeIs(false);
      return 0;
    }
    int waits = 0;
  } scheduler;
  scheduler.run();
  EXPECT_EQ(scheduler.waits, 4);
  EXPECT_TRUE(fakeSleep.requests.empty());
}

void runWithPause(float pause) {
  PausingScheduler scheduler(pause);
  scheduler.run(0, 0.0, false);
}

TEST_F(SchedulerLoopDeathTest, PausesThatTheSystemRefusesEndTheProcess) {
  for (const float pause :
       {1.5F, 1.0F, 3.0F, 1e30F, -1.0F, -1e30F, std::numeric_limits<float>::infinity(),
        -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
    EXPECT_EXIT(runWithPause(pause), testing::ExitedWithCode(255),
                testing::Eq("pauseScheduler() returned -1 with errno: 22\n"))
        << pause;
  }
}

TEST_F(SchedulerLoopDeathTest, AnInterruptedSleepEndsTheProcess) {
  fakeSleep.failWith = EINTR;
  EXPECT_EXIT(scheduler_->run(), testing::ExitedWithCode(255),
              testing::Eq("pauseScheduler() returned -1 with errno: 4\n"));
}

TEST_F(SchedulerLoopDeathTest, AnyResultButZeroEndsTheProcess) {
  struct Failing : Scheduler {
    Failing() : Scheduler("failing") {}
    int pauseScheduler(timespec*) override {
      errno = 1234;
      return 17;
    }
  } scheduler;
  EXPECT_EXIT(scheduler.run(), testing::ExitedWithCode(255),
              testing::Eq("pauseScheduler() returned 17 with errno: 1234\n"));
}

// ---------------------------------------------------------------------------------------------
// A host with an event loop of its own

TEST_F(SchedulerLoopTest, AHostRunsItInSlicesWhenItIsTriggered) {
  std::deque<std::function<void()>> hostEvents;
  /// Has the host's loop call run() soon, and again for as long as there is something left.
  struct Hosted : OpenScheduler {
    explicit Hosted(std::deque<std::function<void()>>& queue) : events(queue) {}
    void triggerScheduler() override {
      if (std::exchange(scheduled, true)) return;
      events.push_back([this] {
        scheduled = false;
        ++slices;
        run(2, 0.0, true);
        if (!runQueue_.empty()) triggerScheduler();
      });
    }
    std::deque<std::function<void()>>& events;
    bool scheduled = false;
    int slices = 0;
  };
  const auto hosted = std::make_shared<Hosted>(hostEvents);
  std::string order;
  const auto work = [&](Unit& unit) {
    order += unit.name();
    if (unit.invocations() < 3) unit.runnableIs(true);
  };
  Unit a("a", hosted, work);
  Unit b("b", hosted, work);
  Unit c("c", hosted, work);
  for (Unit* unit : {&a, &b, &c}) {
    hostEvents.push_back([&order, unit] {
      order += '+';
      unit->arm();
    });
  }
  while (!hostEvents.empty()) {
    const std::function<void()> event = hostEvents.front();
    hostEvents.pop_front();
    event();
  }
  EXPECT_EQ(order, "+++abcabcabc");
  EXPECT_EQ(hosted->slices, 5);
  EXPECT_TRUE(fakeSleep.requests.empty());
}

// ---------------------------------------------------------------------------------------------
// Exceptions

TEST_F(SchedulerLoopTest, WhatAUnitThrowsLeavesTheLoop) {
  Unit bad("bad", scheduler_, [](Unit&) { throw std::runtime_error("no more"); });
  Unit good("good", scheduler_);
  bad.arm();
  good.arm();
  recorder_.traces.clear();
  EXPECT_THROW(scheduler_->run(0, 0.0, true), std::runtime_error);
  EXPECT_EQ(taken(), Texts{entered("0,0, 1")});
  EXPECT_TRUE(bad.running());
  EXPECT_FALSE(bad.runnable());
  EXPECT_EQ(bad.invocations(), 1U);
  EXPECT_EQ(bad.entry(), nullptr);
  EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
  EXPECT_EQ(scheduler_->entries_.size(), 1U);

  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(good.invocations(), 1U);
}

TEST_F(SchedulerLoopTest, AUnitThatRearmedBeforeItThrewStaysQueued) {
  Unit bad("bad", scheduler_, [](Unit& unit) {
    unit.runnableIs(true);
    throw std::runtime_error("again");
  });
  bad.arm();
  EXPECT_THROW(scheduler_->run(0, 0.0, true), std::runtime_error);
  EXPECT_NE(bad.entry(), nullptr);
  bad.disabledIs(true);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(bad.invocations(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Traces

TEST_F(SchedulerLoopTest, TheEntryTraceShowsTheArguments) {
  scheduler_->activeIs(false);
  const struct {
    int count;
    double limit;
    bool quiesce;
    std::string arguments;
  } cases[] = {
      {0, 0.0, false, "0,0, 0"},
      {17, 0.25, true, "17,0.25, 1"},
      {-1, 1.0 / 3, false, "-1,0.333333333333, 0"},
      {1, 1234567.890625, false, "1,1234567.89062, 0"},
      {1, 1e20, false, "1,1e+20, 0"},
      {1, -2.5, false, "1,-2.5, 0"},
  };
  for (const auto& c : cases) {
    scheduler_->run(c.count, c.limit, c.quiesce);
    EXPECT_EQ(taken(), Texts{entered(c.arguments)});
  }
}

TEST_F(SchedulerLoopTest, LevelsSwitchTheTraces) {
  recorder_.levelMaskIs(1U << 8);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(recorder_.texts(), Texts{entered("0,0, 1")});
  recorder_.traces.clear();
  recorder_.levelMaskIs(1U << 9);
  scheduler_->run(0, 0.0, true);
  scheduler_->run(-3, 0.0, true);
  scheduler_->run(0, 0.001, false);
  EXPECT_EQ(recorder_.texts(), (Texts{kQuiescence, countReached(0, 0), kTimeLimit}));
  recorder_.traces.clear();
  recorder_.levelMaskIs(~(1U << 8 | 1U << 9));
  scheduler_->run(0, 0.0, true);
  EXPECT_TRUE(recorder_.traces.empty());
}

struct Grouping : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(SchedulerLoopTest, TracesDoNotDependOnTheGlobalLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  scheduler_->activeIs(false);
  scheduler_->run(1000000, 1234.5, true);
  std::locale::global(before);
  EXPECT_EQ(taken(), Texts{entered("1000000,1234.5, 1")});
}

}  // namespace
}  // namespace schedtest
