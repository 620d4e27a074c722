// What other threads may ask of an event loop: work, and an end.

#include <Korvo/EventLoop.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "event_loop_test_support.h"

namespace {
std::function<void()> beforePoll;
}  // namespace

// What another thread might do just before a poll.
extern "C" int epoll_pwait(int epoll, struct epoll_event* events, int most, int timeout,
                           const sigset_t* mask) {
  if (beforePoll) beforePoll();
  return static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, most, timeout, mask, 8));
}
extern "C" int epoll_wait(int epoll, struct epoll_event* events, int most, int timeout) {
  return epoll_pwait(epoll, events, most, timeout, nullptr);
}

namespace Korvo {
namespace {

using namespace eventlooptest;

class EventLoopThreadTest : public testing::Test {
 protected:
  /// Runs until something stops it, which does not take for ever.
  void run() {
    const auto start = Clock::now();
    loop_->run(0, std::chrono::duration<double>(kPlenty).count(), false);
    EXPECT_LT(Clock::now() - start, kPlenty) << "nothing stopped the loop";
    loop_->activeIs(true);
  }

  std::shared_ptr<EventLoop> loop_ = std::make_shared<EventLoop>("main");
};

// ---------------------------------------------------------------------------------------------
// Posted work

TEST_F(EventLoopThreadTest, WorkOfManyThreadsRunsOnTheLoopsThreadInTheOrderOfEach) {
  constexpr int kThreads = 4;
  constexpr int kWorks = 2'000;
  for (const bool busy : {false, true}) {
    const std::thread::id own = std::this_thread::get_id();
    std::vector<std::vector<int>> done(kThreads);
    int all = 0;
    Unit unit("unit", loop_, [](Unit& self) { self.runnableIs(true); });
    unit.runnableIs(busy);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < kWorks; ++i) {
          loop_->post([&, t, i] {
            EXPECT_EQ(std::this_thread::get_id(), own);
            done[t].push_back(i);
            if (++all == kThreads * kWorks) loop_->activeIs(false);
          });
        }
      });
    }
    run();
    for (std::thread& thread : threads) thread.join();
    for (const std::vector<int>& works : done) {
      EXPECT_EQ(works.size(), static_cast<std::size_t>(kWorks));
      EXPECT_TRUE(std::is_sorted(works.begin(), works.end()));
    }
  }
}

TEST_F(EventLoopThreadTest, WorkThatComesBeforeAnyPollOfAWaitEndsItOrTheNext) {
  OnTimeout late([] { ADD_FAILURE() << "waited although there was work"; });
  const auto end = timerOf(*loop_, late);
  end->timeoutIs(kPlenty);
  for (int poll = 1; poll <= 3; ++poll) {
    int told = 0;
    loop_->post([&] { ++told; });
    beforePoll = [&, left = poll]() mutable {
      if (--left == 0) loop_->post([&] { ++told; });
    };
    timespec pause{};
    while (told < 2 && late.count == 0) loop_->pauseScheduler(&pause);
    beforePoll = nullptr;
    EXPECT_EQ(told, 2);
  }
}

TEST_F(EventLoopThreadTest, WorkEndsAWait) {
  std::thread other([&] {
    std::this_thread::sleep_for(20ms);
    loop_->post([&] { loop_->activeIs(false); });
  });
  run();
  other.join();
}

TEST_F(EventLoopThreadTest, PostedWorkRunsInOrderAndWhatItPostsComesLater) {
  std::string done;
  OnTimeout handler([&] { done += 't'; });
  const auto timer = timerOf(*loop_, handler);
  loop_->post([&] {
    done += 'a';
    timer->timeoutIs(0ns);
    loop_->post([&] { done += 'c'; });
  });
  loop_->post([&] { done += 'b'; });
  EXPECT_EQ(done, "");
  loop_->run(0, 0.0, true);
  EXPECT_EQ(done, "ab");
  loop_->run(0, 0.0, true);
  EXPECT_TRUE(done == "abct" || done == "abtc") << done;
}

TEST_F(EventLoopThreadTest, WhatWorkThrowsLeavesTheRunAndTheRestIsDoneInTheNext) {
  std::string done;
  loop_->post([] { throw Thrown("no more"); });
  loop_->post([&] { done += 'b'; });
  EXPECT_THROW(loop_->run(0, 0.0, true), Thrown);
  EXPECT_EQ(done, "");
  loop_->run(0, 0.0, true);
  EXPECT_EQ(done, "b");
}

TEST_F(EventLoopThreadTest, WorkStopsTheLoopBeforeTheNextWork) {
  std::string done;
  loop_->post([&] {
    done += 'a';
    loop_->activeIs(false);
  });
  loop_->post([&] { done += 'b'; });
  loop_->run(0, 0.0, true);
  EXPECT_EQ(done, "a");
  loop_->activeIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(done, "ab");
}

TEST_F(EventLoopThreadTest, WorkRunsTheLoop) {
  std::string done;
  loop_->post([&] {
    loop_->run(0, 0.0, true);
    done += 'a';
  });
  loop_->post([&] { done += 'b'; });
  loop_->run(0, 0.0, true);
  EXPECT_EQ(done, "ba");
}

TEST_F(EventLoopThreadTest, WorkLeftInTheEndIsDestroyed) {
  const auto shared = std::make_shared<int>();
  OnTimeout handler;
  auto timer = timerOf(*loop_, handler);  // outlives the loop
  loop_->post([] { throw Thrown("the rest has been collected"); });
  loop_->post([shared] { ADD_FAILURE(); });
  EXPECT_THROW(loop_->run(0, 0.0, true), Thrown);
  loop_->post([shared] { ADD_FAILURE(); });
  EXPECT_EQ(shared.use_count(), 3);
  loop_.reset();
  EXPECT_EQ(shared.use_count(), 1);
}

TEST_F(EventLoopThreadTest, WorkDestroysTheLoop) {
  bool rest = true;
  EventLoop& running = *loop_;
  loop_->post([&] { loop_.reset(); });
  loop_->post([&] { rest = false; });
  running.run(0, 0.0, true);
  EXPECT_EQ(loop_, nullptr);
  EXPECT_TRUE(rest);
}

TEST_F(EventLoopThreadTest, NoWorkIsRefused) {
  try {
    loop_->post(nullptr);
    FAIL();
  } catch (const KoInvalidArgument& e) {
    EXPECT_STREQ(e.what(), "Cannot post work - (none)");
  }
}

// ---------------------------------------------------------------------------------------------
// An end

TEST_F(EventLoopThreadTest, AnotherThreadStopsTheLoop) {
  for (const bool busy : {false, true}) {
    Unit unit("unit", loop_, [](Unit& self) { self.runnableIs(true); });
    unit.runnableIs(busy);
    std::thread other([&] {
      std::this_thread::sleep_for(20ms);
      loop_->stop();
    });
    loop_->run(0, std::chrono::duration<double>(kPlenty).count(), false);
    EXPECT_FALSE(loop_->active());
    loop_->activeIs(true);
    other.join();
  }
}

TEST_F(EventLoopThreadTest, AStopBeforeTheRunIsRemembered) {
  Unit unit("unit", loop_, [](Unit&) { ADD_FAILURE(); });
  unit.runnableIs(true);
  loop_->stop();
  loop_->stop();
  EXPECT_TRUE(loop_->active());
  loop_->run();
  EXPECT_FALSE(loop_->active());
  EXPECT_EQ(unit.invocations(), 0U);
  loop_->activeIs(true);
  unit.clearScheduler();
  loop_->run(0, 0.0, true);
  EXPECT_TRUE(loop_->active());
}

TEST_F(EventLoopThreadTest, ASignalToTheProcessStopsTheLoop) {
  loop_->stopOnSignals({SIGTERM, SIGUSR1});
  for (const bool busy : {false, true}) {
    for (const int number : {SIGTERM, SIGUSR1, SIGTERM}) {
      Unit unit("unit", loop_, [](Unit& self) { self.runnableIs(true); });
      unit.runnableIs(busy);
      std::thread other([&] {
        std::this_thread::sleep_for(5ms);
        kill(getpid(), number);
      });
      run();
      other.join();
    }
  }
}

}  // namespace
}  // namespace Korvo
