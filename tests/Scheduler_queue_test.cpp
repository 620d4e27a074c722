// The scheduler's run queue: who is queued, in which order, and what is told about it.

#include <cstddef>
#include <cstring>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

class SchedulerQueueTest : public SchedulerTest {
 protected:
  const std::shared_ptr<OpenScheduler> scheduler_ = std::make_shared<OpenScheduler>();
};
using SchedulerQueueDeathTest = SchedulerQueueTest;

// ---------------------------------------------------------------------------------------------
// The class

TEST_F(SchedulerQueueTest, StartsActiveWithAnEmptyQueue) {
  EXPECT_EQ(scheduler_->name(), "main");
  EXPECT_TRUE(scheduler_->active());
  EXPECT_FALSE(scheduler_->triggerSuppressed());
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  EXPECT_TRUE(scheduler_->entries_.empty());
  scheduler_->activeIs(false);
  EXPECT_FALSE(scheduler_->active());
  scheduler_->triggerSuppressedIs(true);
  EXPECT_TRUE(scheduler_->triggerSuppressed());
}

template <typename Function>
std::size_t slotOf(Function function) {
  std::size_t offset;
  std::memcpy(&offset, &function, sizeof(offset));
  return (offset - 1) / sizeof(void*);
}

TEST_F(SchedulerQueueTest, VirtualOperationsHaveTheirSlots) {
  EXPECT_EQ(slotOf(&Scheduler::pauseTime), 2U);
  EXPECT_EQ(slotOf(&Scheduler::pauseScheduler), 3U);
  EXPECT_EQ(slotOf(&Scheduler::triggerScheduler), 4U);
  EXPECT_EQ(slotOf(&Scheduler::runnableIs), 5U);
  EXPECT_EQ(slotOf(&Scheduler::unschedule), 6U);
  EXPECT_EQ(slotOf(static_cast<void (Scheduler::*)()>(&Scheduler::run)), 7U);
  EXPECT_EQ(slotOf(static_cast<void (Scheduler::*)(int, double, bool)>(&Scheduler::run)), 8U);
  EXPECT_EQ(slotOf(&Scheduler::getTimerControl), 9U);
  EXPECT_EQ(slotOf(&Scheduler::getFdControl), 10U);
}

TEST_F(SchedulerQueueTest, FieldsAreInTheirOrder) {
  struct Fields : Scheduler {
    using Scheduler::Scheduler;
    std::vector<const void*> addresses() const {
      return {&name_, &runQueue_, &entries_, &active_, &triggerSuppressed_, &debug_};
    }
  };
  const Fields scheduler("main");
  const auto addresses = scheduler.addresses();
  for (std::size_t i = 1; i < addresses.size(); ++i) {
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(addresses[i - 1]),
              reinterpret_cast<std::uintptr_t>(addresses[i]))
        << i;
  }
}

// ---------------------------------------------------------------------------------------------
// Queueing

TEST_F(SchedulerQueueTest, QueuesAtTheBack) {
  Unit a("a", scheduler_);
  Unit b("b", scheduler_);
  a.arm();
  b.arm();
  ASSERT_EQ(scheduler_->runQueue_.size(), 2U);
  EXPECT_EQ(scheduler_->runQueue_[0]->unit, &a);
  EXPECT_EQ(scheduler_->runQueue_[1]->unit, &b);
  for (Unit* unit : {&a, &b}) {
    EXPECT_TRUE(unit->entry()->valid);
    EXPECT_EQ(unit->entry()->unit, unit);
    EXPECT_EQ(scheduler_->entries_.at(unit), unit->entry());
  }
  EXPECT_EQ(scheduler_->runQueue_[0], a.entry());
  EXPECT_EQ(scheduler_->runQueue_[1], b.entry());
}

TEST_F(SchedulerQueueTest, QueuesAUnitOnce) {
  Unit a("a", scheduler_);
  a.arm();
  RunnableEntry* const entry = a.entry();
  scheduler_->runnableIs(&a, true);
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
  EXPECT_EQ(a.entry(), entry);
}

TEST_F(SchedulerQueueTest, AskedDirectlyQueuesIdleAndDisabledUnitsToo) {
  Unit idle("idle", scheduler_);
  Unit disabled("disabled", scheduler_);
  disabled.disabledIs(true);
  scheduler_->runnableIs(&idle, true);
  scheduler_->runnableIs(&disabled, true);
  EXPECT_EQ(scheduler_->runQueue_.size(), 2U);
  scheduler_->run(0, 0.0, true);
  EXPECT_EQ(idle.invocations() + disabled.invocations(), 0U);
}

TEST_F(SchedulerQueueTest, NotRunnableChangesNothing) {
  Unit a("a", scheduler_);
  scheduler_->runnableIs(&a, false);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  a.arm();
  RunnableEntry* const entry = a.entry();
  scheduler_->runnableIs(&a, false);
  EXPECT_EQ(a.entry(), entry);
  EXPECT_TRUE(entry->valid);
  EXPECT_TRUE(a.runnable());
  EXPECT_EQ(scheduler_->entries_.size(), 1U);
}

TEST_F(SchedulerQueueTest, AUnitWithSchedulingDisabledIsNotQueued) {
  Unit a("a", scheduler_);
  a.schedulingEnabledIs(false);
  a.arm();
  EXPECT_EQ(a.entry(), nullptr);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  // Enabling queues nothing by itself.
  a.schedulingEnabledIs(true);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  a._considerRunnability();
  EXPECT_NE(a.entry(), nullptr);
}

TEST_F(SchedulerQueueTest, AUnitOfAnotherSchedulerIsNotQueued) {
  const auto other = std::make_shared<OpenScheduler>("other");
  Unit a("a", other);
  Unit lone("lone");
  scheduler_->runnableIs(&a, true);
  scheduler_->runnableIs(&lone, true);
  EXPECT_TRUE(scheduler_->runQueue_.empty());
  EXPECT_TRUE(scheduler_->entries_.empty());
  EXPECT_EQ(a.entry(), nullptr);
}

TEST_F(SchedulerQueueTest, AWithdrawnUnitIsQueuedAnewAtTheBack) {
  Unit a("a", scheduler_);
  Unit b("b", scheduler_);
  a.arm();
  b.arm();
  a.cleanup();
  scheduler_->runnableIs(&a, true);
  ASSERT_EQ(scheduler_->runQueue_.size(), 3U);
  EXPECT_FALSE(scheduler_->runQueue_[0]->valid);
  EXPECT_EQ(scheduler_->runQueue_[0]->unit, nullptr);
  EXPECT_EQ(scheduler_->runQueue_[1], b.entry());
  EXPECT_EQ(scheduler_->runQueue_[2], a.entry());
  EXPECT_EQ(scheduler_->entries_.size(), 2U);
}

TEST_F(SchedulerQueueTest, UnscheduleForgetsOnlyTheUnit) {
  Unit a("a", scheduler_);
  a.arm();
  RunnableEntry* const entry = a.entry();
  scheduler_->unschedule(&a);
  EXPECT_TRUE(scheduler_->entries_.empty());
  EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
  EXPECT_TRUE(entry->valid);
  EXPECT_EQ(a.entry(), entry);
  scheduler_->unschedule(&a);
  EXPECT_EQ(scheduler_->runQueue_.size(), 1U);
}

// ---------------------------------------------------------------------------------------------
// Wake-up

TEST_F(SchedulerQueueTest, TriggersWhenTheQueueTurnsNonEmpty) {
  Unit a("a", scheduler_);
  Unit b("b", scheduler_);
  a.arm();
  EXPECT_EQ(scheduler_->triggers, 1);
  EXPECT_EQ(scheduler_->entriesAtTrigger, 1U);  // the entry is in place by then
  b.arm();
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(scheduler_->triggers, 1);
  scheduler_->run(0, 0.0, true);
  a.runnableIs(true);
  EXPECT_EQ(scheduler_->triggers, 2);
}

TEST_F(SchedulerQueueTest, ADeadEntryKeepsTheQueueFromBeingEmpty) {
  Unit a("a", scheduler_);
  a.arm();
  a.cleanup();
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(scheduler_->triggers, 1);
}

TEST_F(SchedulerQueueTest, NothingIsTriggeredWhileInactiveOrSuppressed) {
  Unit a("a", scheduler_);
  scheduler_->activeIs(false);
  a.arm();
  EXPECT_NE(a.entry(), nullptr);
  EXPECT_EQ(scheduler_->triggers, 0);

  const auto suppressed = std::make_shared<OpenScheduler>();
  suppressed->triggerSuppressedIs(true);
  Unit b("b", suppressed);
  b.arm();
  EXPECT_NE(b.entry(), nullptr);
  EXPECT_EQ(suppressed->triggers, 0);
}

TEST_F(SchedulerQueueTest, RefusedRequestsTriggerNothing) {
  Unit disabled("a", scheduler_);
  disabled.schedulingEnabledIs(false);
  disabled.arm();
  Unit lone("lone");
  scheduler_->runnableIs(&lone, true);
  scheduler_->runnableIs(&disabled, false);
  EXPECT_EQ(scheduler_->triggers, 0);
}

TEST_F(SchedulerQueueTest, ByDefaultTriggeringDoesNothing) {
  const auto plain = std::make_shared<Scheduler>("plain");
  Unit a("a", plain);
  plain->triggerScheduler();
  a.arm();
  EXPECT_NE(a.entry(), nullptr);
  EXPECT_EQ(a.invocations(), 0U);
}

// ---------------------------------------------------------------------------------------------
// Traces

std::string marking(const Unit& unit, const std::string& flag) {
  return " " + unit.name() +
         " virtual void Korvo::Scheduler::runnableIs(Korvo::Schedulable*, bool) marking " +
         idOf(static_cast<const Schedulable*>(&unit)) + " " + flag;
}

class SchedulerQueueTraceTest : public SchedulerQueueTest {
 protected:
  SchedulerQueueTraceTest() { scheduler_->debugChannelIs(&recorder_, false); }
  ~SchedulerQueueTraceTest() override { scheduler_->debugChannelIs(nullptr, false); }

  /// What was traced since the last call.
  std::vector<std::string> taken() {
    for (const Trace& trace : recorder_.traces) {
      EXPECT_EQ(trace.level, 9U);
      EXPECT_EQ(trace.function, "runnableIs");
      EXPECT_EQ(trace.file, "src/Scheduler.cpp");
      EXPECT_GT(trace.line, 1U);
      EXPECT_EQ(trace.precision, 12);
    }
    const std::vector<std::string> result = recorder_.texts();
    recorder_.traces.clear();
    return result;
  }

  std::string refusal(const void* schedulerOfUnit, const std::string& count) const {
    return "  not scheduled by " + idOf(static_cast<const Scheduler*>(scheduler_.get())) +
           " on scheduler " + idOf(schedulerOfUnit) + " count: " + count;
  }

  using Texts = std::vector<std::string>;
  Recorder recorder_;
};

TEST_F(SchedulerQueueTraceTest, AddingCountsDeadEntriesToo) {
  Unit a("a", scheduler_);
  Unit b("b", scheduler_);
  a.arm();
  EXPECT_EQ(taken(), (Texts{marking(a, "1"), "  adding to runqueue (0 elts)"}));
  b.arm();
  EXPECT_EQ(taken(), (Texts{marking(b, "1"), "  adding to runqueue (1 elts)"}));
  a.cleanup();
  EXPECT_EQ(taken(), Texts{});
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(taken(), (Texts{marking(a, "1"), "  adding to runqueue (2 elts)"}));
}

TEST_F(SchedulerQueueTraceTest, ASecondRequestIsRefused) {
  Unit a("a", scheduler_);
  a.arm();
  taken();
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(taken(), (Texts{marking(a, "1"), refusal(scheduler_.get(), "1")}));
}

TEST_F(SchedulerQueueTraceTest, AUnitOfAnotherSchedulerIsRefused) {
  const KoPtr<Scheduler> other = std::make_shared<OpenScheduler>("other");
  Unit a("a", other);
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(taken(), (Texts{marking(a, "1"), refusal(other.get(), "0")}));
  Unit lone("lone");
  scheduler_->runnableIs(&lone, true);
  EXPECT_EQ(taken(), (Texts{marking(lone, "1"), refusal(nullptr, "0")}));
}

TEST_F(SchedulerQueueTraceTest, AQueuedUnitThatMovedIsRefusedWithItsCount) {
  const KoPtr<Scheduler> other = std::make_shared<OpenScheduler>("other");
  Unit a("a", scheduler_);
  a.arm();
  taken();
  const Unit moved("moved", other);
  static_cast<Schedulable&>(a) = moved;
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(taken(), (Texts{marking(a, "1"), refusal(other.get(), "1")}));
}

TEST_F(SchedulerQueueTraceTest, NotRunnableAndDisabledSayNoMore) {
  Unit a("a", scheduler_);
  scheduler_->runnableIs(&a, false);
  EXPECT_EQ(taken(), Texts{marking(a, "0")});
  a.schedulingEnabledIs(false);
  a.arm();
  EXPECT_EQ(taken(), Texts{marking(a, "1")});
}

TEST_F(SchedulerQueueTraceTest, LevelNineSwitchesThem) {
  Unit a("a", scheduler_);
  recorder_.levelMaskIs(~(1U << 9));
  a.arm();
  scheduler_->runnableIs(&a, true);
  EXPECT_TRUE(recorder_.traces.empty());
  recorder_.levelMaskIs(1U << 9);
  scheduler_->runnableIs(&a, true);
  EXPECT_EQ(recorder_.traces.size(), 2U);
}

TEST_F(SchedulerQueueTraceTest, EachTracePointHasItsOwnLine) {
  Unit a("a", scheduler_);
  a.arm();
  scheduler_->runnableIs(&a, true);
  ASSERT_EQ(recorder_.traces.size(), 4U);
  EXPECT_LT(recorder_.traces[0].line, recorder_.traces[3].line);
  EXPECT_LT(recorder_.traces[3].line, recorder_.traces[1].line);
  EXPECT_EQ(recorder_.traces[0].line, recorder_.traces[2].line);
}

// ---------------------------------------------------------------------------------------------
// Destruction

TEST_F(SchedulerQueueTest, DestructionLeavesQueuedUnitsWithoutAnEntry) {
  auto owned = std::make_unique<OpenScheduler>();
  const KoPtr<Scheduler> borrowed(owned.get(), [](Scheduler*) {});
  Unit a("a", borrowed);
  Unit b("b", borrowed);
  Unit withdrawn("c", borrowed);
  for (Unit* unit : {&a, &b, &withdrawn}) unit->arm();
  withdrawn.cleanup();
  owned.reset();
  EXPECT_EQ(a.entry(), nullptr);
  EXPECT_EQ(b.entry(), nullptr);
  EXPECT_EQ(withdrawn.entry(), nullptr);
  EXPECT_EQ(a.scheduler(), borrowed);  // not touched
  EXPECT_TRUE(a.runnable());
}

TEST_F(SchedulerQueueTest, AnOwnedChannelGoesWithTheScheduler) {
  struct Counted : Recorder {
    explicit Counted(int& count) : deleted(count) {}
    ~Counted() override { ++deleted; }
    int& deleted;
  };
  int deleted = 0;
  Counted lent(deleted);
  {
    Scheduler scheduler("a");
    scheduler.debugChannelIs(&lent, false);
  }
  EXPECT_EQ(deleted, 0);
  {
    Scheduler scheduler("a");
    scheduler.debugChannelIs(new Counted(deleted), true);
  }
  EXPECT_EQ(deleted, 1);
}

// ---------------------------------------------------------------------------------------------
// What the scheduler does not offer

testing::Matcher<const std::string&> assertionLine(const std::string& signature) {
  return testing::MatchesRegex("[^:]*: src/Scheduler\\.cpp:[0-9]+: " + signature +
                               ": Assertion `0' failed\\.\n");
}

TEST_F(SchedulerQueueDeathTest, HasNoTimers) {
  EXPECT_EXIT(scheduler_->getTimerControl(nullptr), testing::KilledBySignal(SIGABRT),
              assertionLine("virtual Velto::Platform::TimerControl\\* "
                            "Korvo::Scheduler::getTimerControl\\("
                            "Velto::Platform::TimeoutHandler\\*\\)"));
}

TEST_F(SchedulerQueueDeathTest, HasNoFileDescriptors) {
  EXPECT_EXIT(scheduler_->getFdControl(nullptr), testing::KilledBySignal(SIGABRT),
              assertionLine("virtual Velto::Platform::FdControl\\* "
                            "Korvo::Scheduler::getFdControl\\("
                            "Velto::Platform::FdEventHandler\\*\\)"));
}

}  // namespace
}  // namespace schedtest
