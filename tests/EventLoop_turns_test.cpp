// How units and handlers share the time, on a clock that stands still but for what they take of it;
// and what is left behind in memory.

#include <Korvo/EventLoop.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "event_loop_test_support.h"
#include "scheduler_test_support.h"

namespace {
std::atomic<long> blocks = 0;
}  // namespace

// What is allocated, counted.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  ++blocks;
  return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  if (block != nullptr) --blocks;
  std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}

namespace Korvo {
namespace {

using namespace eventlooptest;
using schedtest::fakeClock;

void takeMicroseconds(long microseconds) {
  fakeClock.advance(0, microseconds * 1'000);
}

double secondsNow() {
  return static_cast<double>(fakeClock.now.tv_sec) +
         static_cast<double>(fakeClock.now.tv_nsec) * 1e-9;
}

class EventLoopTurnsTest : public testing::Test {
 protected:
  EventLoopTurnsTest() { schedtest::resetFakes(); }

  /// A unit that always wants another turn.
  std::unique_ptr<Unit> busyUnit(long microseconds) {
    auto unit = std::make_unique<Unit>("busy", loop_, [=, this](Unit& self) {
      takeMicroseconds(microseconds);
      unitSeconds_ += static_cast<double>(microseconds) * 1e-6;
      self.runnableIs(true);
    });
    unit->runnableIs(true);
    return unit;
  }

  std::shared_ptr<EventLoop> loop_ = std::make_shared<EventLoop>("main");
  double unitSeconds_ = 0.0;
};

TEST_F(EventLoopTurnsTest, SocketsThatFloodLeaveTheUnitsTheirTime) {
  for (const std::size_t count : {1U, 2U, 20U, 300U}) {
    for (const long handlerTime : {1, 100, 400}) {
      std::vector<std::unique_ptr<Sockets>> sockets;
      std::vector<std::unique_ptr<FdControl>> watches;
      OnFd handler;
      handler.readable = [&] { takeMicroseconds(handlerTime); };  // never reads
      for (std::size_t i = 0; i < count; ++i) {
        sockets.push_back(std::make_unique<Sockets>());
        sockets.back()->send("x");
        watches.push_back(watchOf(*loop_, handler, sockets.back()->ours));
        watches.back()->readableWantedIs(true);
      }
      const auto unit = busyUnit(1);
      unitSeconds_ = 0.0;
      const double start = secondsNow();
      loop_->run(0, 0.5, false);
      EXPECT_GE(unitSeconds_, 0.4 * (secondsNow() - start)) << count << " " << handlerTime;
      EXPECT_GE(handler.reads, 100) << count << " " << handlerTime;
    }
  }
}

TEST_F(EventLoopTurnsTest, BusyUnitsLeaveNoSocketUnheardForLongerThanAMillisecondAndASlice) {
  for (const long unitTime : {1, 30, 999, 10'000}) {
    for (const long handlerTime : {0, 100, 5'000}) {
      const Sockets sockets;
      sockets.send("x");
      OnFd handler;
      double heard = secondsNow();
      double longest = 0.0;
      handler.readable = [&] {
        longest = std::max(longest, secondsNow() - heard);
        takeMicroseconds(handlerTime);
        heard = secondsNow();
      };
      const auto watch = watchOf(*loop_, handler, sockets.ours);
      watch->readableWantedIs(true);
      const auto first = busyUnit(unitTime);
      const auto second = busyUnit(unitTime);
      loop_->run(0, 0.5, false);
      EXPECT_LE(longest, 0.001 + static_cast<double>(unitTime) * 1e-6 + 1e-9)
          << unitTime << " " << handlerTime;
      EXPECT_GT(handler.reads, 10);
    }
  }
}

TEST_F(EventLoopTurnsTest, HandlersDoNotGiveWayWhereNoUnitWaits) {
  std::vector<std::unique_ptr<TimerControl>> timers;
  OnTimeout handler([] { takeMicroseconds(1'000); });
  for (int i = 0; i < 100; ++i) {
    timers.push_back(timerOf(*loop_, handler));
    timers.back()->timeoutIs(0ns);
  }
  int told = -1;
  Unit unit("unit", loop_, [&](Unit&) { told = handler.count; });
  unit.runnableIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(told, 1);  // while the unit waits, a handler at a time
  EXPECT_EQ(handler.count, 100);
}

TEST_F(EventLoopTurnsTest, ATimeLimitHoldsWhileTimersAreDue) {
  std::vector<std::unique_ptr<TimerControl>> timers;
  OnTimeout handler([] { takeMicroseconds(1'000); });
  for (int i = 0; i < 1'000; ++i) {
    timers.push_back(timerOf(*loop_, handler));
    timers.back()->timeoutIs(0ns);
  }
  for (const bool quiescence : {false, true}) {
    handler.count = 0;
    const double start = secondsNow();
    loop_->run(0, 0.02, quiescence);
    EXPECT_LE(secondsNow() - start, 0.0211);
    EXPECT_GE(handler.count, 19);
    EXPECT_LE(handler.count, 21);
  }
  const auto count = std::count_if(timers.begin(), timers.end(),
                                   [](const auto& timer) { return timer->pending(); });
  EXPECT_GE(count, 1'000 - 42);  // the others are told later
}

TEST_F(EventLoopTurnsTest, ATimeLimitHoldsWhileATimerIsSetAgainAndAgain) {
  OnTimeout handler;
  const auto timer = timerOf(*loop_, handler);
  handler.told = [&] {
    takeMicroseconds(100);
    timer->timeoutIs(0ns);
  };
  timer->timeoutIs(0ns);
  loop_->run(0, 0.01, false);
  EXPECT_GE(handler.count, 99);
  EXPECT_LE(handler.count, 101);
}

// ---------------------------------------------------------------------------------------------
// Memory

TEST_F(EventLoopTurnsTest, WhatIsMadeAndDeletedWithoutARunLeavesNoMemoryBehind) {
  const Sockets sockets;
  OnTimeout onTimeout;
  OnFd onFd;
  watchOf(*loop_, onFd, sockets.ours).reset();  // the table of descriptors has its size
  const long before = blocks;
  for (int i = 0; i < 1'000'000; ++i) {
    const auto timer = timerOf(*loop_, onTimeout);
    timer->timeoutIs(1h);
    if (i % 100 != 0) continue;
    const auto watch = watchOf(*loop_, onFd, sockets.ours);
    watch->writableWantedIs(true);
  }
  EXPECT_EQ(blocks, before);

  std::vector<std::unique_ptr<TimerControl>> timers(100'000);
  for (auto& timer : timers) {
    timer = timerOf(*loop_, onTimeout);
    timer->timeoutIs(1h);
  }
  std::vector<std::unique_ptr<TimerControl>>().swap(timers);
  EXPECT_EQ(blocks, before);
}

}  // namespace
}  // namespace Korvo
