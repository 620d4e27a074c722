// Units and schedulers when memory runs out: every allocation of every operation fails in turn, and
// unit and queue are as before.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

using alloctest::failEachAllocation;
using alloctest::Snapshot;

const std::string longName = "a name that is longer than a short string";

struct Worker : Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override {}
  void onClientReady() override { hooked = clientReady(); }

  bool hooked = false;  ///< what the hook has seen last
};

/// Needs no memory of its own.
struct Comparing : Velto::DebugChannel {
  Comparing() { levelMaskIs(~0U); }
  void trace(std::ostringstream& text, unsigned int, const char*, unsigned int,
             const char*) override {
    ++traces;
    others += expected.empty() || text.view() == expected[0] || text.view() == expected[1] ? 0 : 1;
  }

  std::vector<std::string> expected;
  std::size_t traces = 0;
  int others = 0;
};

/// Units that wait for their turn, and one that is not queued yet.
struct Subject {
  std::shared_ptr<OpenScheduler> scheduler = std::make_shared<OpenScheduler>();
  std::vector<std::unique_ptr<Worker>> queued;
  std::unique_ptr<Worker> unit = std::make_unique<Worker>(longName, scheduler);
  std::unique_ptr<Comparing> channel;
  std::unique_ptr<Worker> made;
  std::unique_ptr<OpenScheduler> madeScheduler;

  Subject() = default;
  Subject(Subject&&) = default;
  Subject& operator=(Subject&&) = delete;
  ~Subject() {
    if (scheduler != nullptr) scheduler->debugChannelIs(nullptr, false);
  }
};

/// `count` units are queued. At some counts the queue and the map of its entries are full.
Subject make(std::size_t count, bool traced = false) {
  Subject subject;
  for (std::size_t i = 0; i < count; ++i) {
    subject.queued.push_back(std::make_unique<Worker>("queued", subject.scheduler));
    subject.queued.back()->clientReadyIs(true);
    subject.queued.back()->runnableIs(true);
  }
  if (traced) {
    subject.channel = std::make_unique<Comparing>();
    subject.scheduler->debugChannelIs(subject.channel.get(), false);
    subject.unit->debugChannelIs(subject.channel.get(), false);
  }
  return subject;
}

std::string lookAtUnit(const Worker& unit) {
  return unit.name() + (unit.runnable() ? " runnable" : "") + (unit.clientReady() ? " ready" : "") +
         (unit.hooked ? " known to be" : "") + (unit.running() ? " running" : "") +
         (unit.entry() != nullptr ? " queued" : "") +
         (unit.scheduler() != nullptr ? " scheduled " : " ") + std::to_string(unit.invocations()) +
         ';';
}

Snapshot look(const Subject& subject) {
  Snapshot all;
  all.contents = lookAtUnit(*subject.unit);
  for (const auto& unit : subject.queued) all.contents += lookAtUnit(*unit);
  all.contents += std::to_string(subject.scheduler->runQueue_.size()) + ' ' +
                  std::to_string(subject.scheduler->entries_.size()) + ' ' +
                  std::to_string(subject.scheduler->triggers);
  for (const RunnableEntry* entry : subject.scheduler->runQueue_) all.places.push_back(entry);
  return all;
}

constexpr std::size_t counts[] = {0, 1, 15, 16, 31, 32, 63, 64, 127, 128};

using AllocationFailures = SchedulerTest;

/// Runs the operation at every length of the queue; it has to allocate at one of them at least.
void atEveryLength(const std::string& what, const std::function<void(Subject&)>& operation) {
  unsigned failing = 0;
  for (const std::size_t count : counts) {
    failing += failEachAllocation(
        what + " behind " + std::to_string(count), [=] { return make(count); }, operation, look);
  }
  EXPECT_GT(failing, 0U) << what << " allocates nothing";
}

TEST_F(AllocationFailures, OfMaking) {
  atEveryLength("a unit", [](Subject& s) { s.made = std::make_unique<Worker>(longName); });
  atEveryLength("a unit of a scheduler",
                [](Subject& s) { s.made = std::make_unique<Worker>(longName, s.scheduler); });
  atEveryLength("a scheduler",
                [](Subject& s) { s.madeScheduler = std::make_unique<OpenScheduler>(longName); });
}

TEST_F(AllocationFailures, OfAssigning) {
  const Worker other(longName + longName);
  atEveryLength("assigning", [&](Subject& s) { static_cast<Schedulable&>(*s.unit) = other; });
}

// A unit with a place has to keep in mind where it leaves that.
TEST_F(AllocationFailures, OfAssigningToAQueuedUnit) {
  const Worker other(longName);
  const unsigned failing = failEachAllocation(
      "assigning", [] { return make(3); },
      [&](Subject& s) { static_cast<Schedulable&>(*s.queued[1]) = other; }, look);
  EXPECT_GT(failing, 2U);
}

TEST_F(AllocationFailures, OfQueueingAUnitThatWasForgotten) {
  const auto forgotten = [] {
    Subject subject = make(3);
    subject.scheduler->unschedule(&*subject.queued[1]);
    return subject;
  };
  const unsigned failing = failEachAllocation(
      "queueing again", forgotten, [](Subject& s) { s.scheduler->runnableIs(&*s.queued[1], true); },
      look);
  EXPECT_GT(failing, 3U);
}

// The hook sees each change of the flag, also the one back.
TEST_F(AllocationFailures, OfQueueingTellTheHook) {
  struct Watched : Worker {
    using Worker::Worker;
    void onClientReady() override { seen.push_back(clientReady()); }
    std::vector<bool> seen;
  };
  const auto scheduler = std::make_shared<OpenScheduler>();
  Watched unit("a", scheduler);
  unit.runnableIs(true);
  unit.seen.reserve(100);
  unsigned failures = 0;
  for (unsigned n = 0; unit.entry() == nullptr; ++n) {
    unit.seen.clear();
    {
      const alloctest::FailureScope scope(n, alloctest::Failing::once);
      try {
        unit.clientReadyIs(true);
        break;
      } catch (const std::bad_alloc&) {
      }
    }
    ++failures;
    EXPECT_EQ(unit.seen, (std::vector<bool>{true, false}));
    EXPECT_FALSE(unit.clientReady());
    EXPECT_TRUE(unit.runnable());
  }
  EXPECT_GT(failures, 1U);
  EXPECT_EQ(unit.seen, std::vector<bool>{true});
  EXPECT_TRUE(unit.clientReady());
  EXPECT_NE(unit.entry(), nullptr);
}

// A unit that asks for nothing new keeps its flags.
TEST_F(AllocationFailures, OfAskingAgainChangeNoFlag) {
  const auto armed = [] {
    Subject subject = make(2);
    subject.queued[1]->cleanup();
    return subject;
  };
  EXPECT_GT(
      failEachAllocation(
          "considering", armed, [](Subject& s) { s.queued[1]->_considerRunnability(); }, look),
      0U);
  EXPECT_GT(
      failEachAllocation(
          "asking", armed, [](Subject& s) { s.scheduler->runnableIs(&*s.queued[1], true); }, look),
      0U);
}

// A unit that could not be queued is not runnable or not ready either: asked again, it is queued.
TEST_F(AllocationFailures, OfQueueing) {
  atEveryLength("runnable once it is ready", [](Subject& s) {
    s.unit->clientReadyIs(true);
    try {
      s.unit->runnableIs(true);
    } catch (const std::bad_alloc&) {
      s.unit->clientReadyIs(false);
      throw;
    }
  });
  atEveryLength("ready once it is runnable", [](Subject& s) {
    s.unit->runnableIs(true);
    try {
      s.unit->clientReadyIs(true);
    } catch (const std::bad_alloc&) {
      s.unit->runnableIs(false);
      throw;
    }
  });
  atEveryLength("asking the scheduler",
                [](Subject& s) { s.scheduler->runnableIs(&*s.unit, true); });
}

// A trace for which there is no memory is left out, and nothing else changes.
TEST_F(AllocationFailures, OfTraces) {
  const std::function<void(Subject&)> operations[] = {
      [](Subject& s) { s.unit->clientReadyIs(true); },
      [](Subject& s) { s.scheduler->run(0, 0.0, true); },
      [](Subject& s) { s.scheduler->run(1, 1.0, false); },
      [](Subject& s) { s.unit->invoke(true); },
      [](Subject& s) {
        s.queued[0]->debugChannelIs(&*s.channel, false);
        s.scheduler->runnableIs(&*s.queued[0], true);
      },
  };
  for (const auto& operation : operations) {
    unsigned tracing = 0;
    const std::function<void(Subject&)> counted = [&](Subject& s) {
      operation(s);
      ++tracing;
    };
    EXPECT_EQ(failEachAllocation(
                  "traces", [] { return make(2, true); }, counted, look),
              0U);
    EXPECT_GT(tracing, 5U) << "no trace needs memory";
  }
  // Queueing fails for its own reasons only.
  for (const std::size_t count : {15U, 16U, 64U}) {
    const auto queue = [](Subject& s) { s.scheduler->runnableIs(&*s.unit, true); };
    const unsigned withTraces = failEachAllocation(
        "traced", [=] { return make(count, true); }, queue, look);
    const unsigned without = failEachAllocation(
        "untraced", [=] { return make(count); }, queue, look);
    EXPECT_GE(withTraces, without);
  }
}

TEST_F(AllocationFailures, ATraceIsWholeOrLeftOut) {
  Subject subject = make(0);
  Recorder recorder;
  subject.unit->debugChannelIs(&recorder, false);
  const auto turn = [&] {
    subject.unit->clientReadyIs(true);
    subject.unit->clientReadyIs(false);
  };
  turn();
  Comparing channel;
  channel.expected = recorder.texts();
  ASSERT_EQ(channel.expected.size(), 2U);
  subject.unit->debugChannelIs(&channel, false);
  for (unsigned n = 0; n < 30; ++n) {
    const alloctest::FailureScope scope(n, alloctest::Failing::once);
    turn();
  }
  EXPECT_LT(channel.traces, 60U);
  EXPECT_GT(channel.traces, 30U);
  EXPECT_EQ(channel.others, 0);
  subject.unit->debugChannelIs(nullptr, false);
}

// ---------------------------------------------------------------------------------------------
// What a channel throws itself is the channel's affair, and comes out. The unit and the queue are
// as before.

/// Throws at the trace that has this in its text.
template <typename Exception>
struct Throwing : Velto::DebugChannel {
  explicit Throwing(std::string part) : at(std::move(part)) { levelMaskIs(~0U); }
  void trace(std::ostringstream& text, unsigned int, const char*, unsigned int,
             const char*) override {
    if (text.str().find(at) != std::string::npos) throw Exception();
  }
  std::string at;
};

struct ChannelFailure {};

template <typename Exception>
void expectThrownOut() {
  for (const char* at : {"clientReadyIs", "marking", "adding"}) {
    SCOPED_TRACE(at);
    Throwing<Exception> channel(at);
    Subject subject = make(1);
    Worker& unit = *subject.unit;
    unit.runnableIs(true);
    const std::string before = look(subject).contents;
    unit.debugChannelIs(&channel, false);
    subject.scheduler->debugChannelIs(&channel, false);
    EXPECT_THROW(unit.clientReadyIs(true), Exception);
    EXPECT_EQ(look(subject).contents, before);
    EXPECT_FALSE(subject.scheduler->entries_.contains(&unit));

    unit.debugChannelIs(nullptr, false);
    subject.scheduler->debugChannelIs(nullptr, false);
    unit.clientReadyIs(true);
    EXPECT_NE(unit.entry(), nullptr);
    EXPECT_EQ(subject.scheduler->entries_.size(), 2U);
  }
  Subject subject = make(1);
  Worker& queued = *subject.queued[0];
  const std::string before = look(subject).contents;
  for (const char* at : {"not scheduled", "marking"}) {
    Throwing<Exception> channel(at);
    subject.scheduler->debugChannelIs(&channel, false);
    EXPECT_THROW(subject.scheduler->runnableIs(&queued, true), Exception);
    EXPECT_EQ(look(subject).contents, before);
  }
  for (const char* at : {"Scheduler::run(", "exited"}) {
    Throwing<Exception> channel(at);
    subject.scheduler->debugChannelIs(&channel, false);
    EXPECT_THROW(subject.scheduler->run(-5, 0.0, true), Exception);
    EXPECT_EQ(look(subject).contents, before);
  }
  Throwing<Exception> channel("invoking");
  queued.debugChannelIs(&channel, false);
  EXPECT_THROW(queued.invoke(false), Exception);
  EXPECT_EQ(look(subject).contents, before);
  queued.debugChannelIs(nullptr, false);
  subject.scheduler->debugChannelIs(nullptr, false);
}

TEST_F(AllocationFailures, WhatAChannelThrowsComesOut) {
  expectThrownOut<ChannelFailure>();
}

TEST_F(AllocationFailures, AChannelWithoutMemoryMayThrowThat) {
  expectThrownOut<std::bad_alloc>();
}

}  // namespace
}  // namespace schedtest

#endif  // KORVO_FAILING_ALLOCATOR
