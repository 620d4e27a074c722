// Units and schedulers when memory runs out: every allocation of every operation fails in turn, and
// unit and queue are as before.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <functional>
#include <memory>
#include <stdexcept>
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
};

/// Units that wait for their turn, and one that is not queued yet.
struct Subject {
  std::shared_ptr<OpenScheduler> scheduler = std::make_shared<OpenScheduler>();
  std::vector<std::unique_ptr<Worker>> queued;
  std::unique_ptr<Worker> unit = std::make_unique<Worker>(longName, scheduler);
  std::unique_ptr<Recorder> channel;
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
    subject.channel = std::make_unique<Recorder>();
    subject.scheduler->debugChannelIs(subject.channel.get(), false);
    subject.unit->debugChannelIs(subject.channel.get(), false);
  }
  return subject;
}

std::string lookAtUnit(const Worker& unit) {
  return unit.name() + (unit.runnable() ? " runnable" : "") + (unit.clientReady() ? " ready" : "") +
         (unit.running() ? " running" : "") + (unit.entry() != nullptr ? " queued" : "") +
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
  Subject subject = make(0, true);
  const auto turn = [&] {
    subject.channel->traces.clear();
    subject.unit->clientReadyIs(true);
    subject.unit->clientReadyIs(false);
    return subject.channel->texts();
  };
  const std::vector<std::string> whole = turn();
  std::size_t leftOut = 0;
  for (unsigned n = 0; n < 30; ++n) {
    {
      const alloctest::FailureScope scope(n, alloctest::Failing::once);
      subject.channel->traces.clear();
      subject.unit->clientReadyIs(true);
      subject.unit->clientReadyIs(false);
    }
    leftOut += whole.size() - subject.channel->traces.size();
    for (const std::string& text : subject.channel->texts()) {
      EXPECT_TRUE(text == whole[0] || text == whole[1]) << text;
    }
  }
  EXPECT_GT(leftOut, 0U);
}

// What a channel throws itself is the channel's affair, and comes out.
TEST_F(AllocationFailures, WhatAChannelThrowsComesOut) {
  struct Throwing : Recorder {
    void trace(std::ostringstream&, unsigned int, const char*, unsigned int, const char*) override {
      throw std::runtime_error("channel");
    }
  } channel;
  Worker unit("a");
  unit.debugChannelIs(&channel, false);
  EXPECT_THROW(unit.clientReadyIs(true), std::runtime_error);
  unit.debugChannelIs(nullptr, false);
}

}  // namespace
}  // namespace schedtest

#endif  // KORVO_FAILING_ALLOCATOR
