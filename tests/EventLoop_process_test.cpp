// An event loop and its process: children, signals and standard streams. Without threads, since the
// children do more than exec.

#include <Korvo/EventLoop.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "event_loop_test_support.h"

namespace Korvo {
namespace {

using namespace eventlooptest;

/// How a child ended that did this; 0 if it did all of it and nothing was wrong.
int statusOfChild(const std::function<bool()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    _exit(work() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

/// A loop with everything to watch and to wait for.
struct Watching {
  Watching() {
    handler.readable = [this] {
      text += sockets.receive();
      loop->activeIs(false);
    };
    late.told = [this] { loop->activeIs(false); };
    watch = watchOf(*loop, handler, sockets.ours);
    watch->readableWantedIs(true);
    timer = timerOf(*loop, late);
  }
  void run() {
    loop->activeIs(true);
    loop->run(0, std::chrono::duration<double>(kPlenty).count(), false);
  }
  /// Whether all that may end a wait still does.
  bool hears() {
    text.clear();
    sockets.send("hello");
    run();
    const bool heard = text == "hello";
    const int before = late.count;
    timer->timeoutIs(1ms);
    run();
    bool posted = false;
    loop->post([&] {
      posted = true;
      loop->activeIs(false);
    });
    run();
    return heard && late.count == before + 1 && posted && !loop->active();
  }

  Sockets sockets;
  OnFd handler;
  OnTimeout late;
  std::string text;
  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("main");
  std::unique_ptr<FdControl> watch;
  std::unique_ptr<TimerControl> timer;
};

// ---------------------------------------------------------------------------------------------
// Children

TEST(EventLoopProcessTest, AChildThatDestroysItsCopyDoesNotSilenceTheParent) {
  Watching parent;
  EXPECT_TRUE(parent.hears());
  EXPECT_EQ(statusOfChild([&] {
              parent.watch.reset();
              parent.timer.reset();
              parent.loop.reset();
              return true;
            }),
            0);
  EXPECT_TRUE(parent.hears());
  EXPECT_EQ(statusOfChild([&] {
              parent.loop.reset();  // before its controls
              parent.watch->readableWantedIs(false);
              parent.watch.reset();
              return true;
            }),
            0);
  EXPECT_TRUE(parent.hears());
}

TEST(EventLoopProcessTest, AChildThatRunsItsCopyIsNotFeltByTheParent) {
  Watching parent;
  const Sockets own;
  EXPECT_EQ(statusOfChild([&] {
              const bool heard = parent.hears();
              parent.watch->fdIs(own.ours);
              parent.watch->readableWantedIs(true);
              own.send("mine");
              parent.text.clear();
              parent.handler.readable = [&] {
                parent.text = own.receive();
                parent.loop->activeIs(false);
              };
              parent.run();
              return heard && parent.text == "mine";
            }),
            0);
  EXPECT_TRUE(parent.hears());
}

TEST(EventLoopProcessTest, AChildStopsItselfAlone) {
  Watching parent;
  EXPECT_EQ(statusOfChild([&] {
              parent.loop->wake();
              parent.loop->stop();
              parent.run();
              return !parent.loop->active();
            }),
            0);
  timespec pause{};
  parent.loop->activeIs(true);
  parent.timer->timeoutIs(10ms);
  parent.loop->pauseScheduler(&pause);
  EXPECT_EQ(parent.late.count, 1);  // nothing else ended the wait
  parent.loop->activeIs(true);
  parent.loop->run(0, 0.0, true);
  EXPECT_TRUE(parent.loop->active());
  EXPECT_TRUE(parent.hears());
}

TEST(EventLoopProcessTest, AUnitForksAndTheLoopGoesOnInBoth) {
  Watching both;
  pid_t child = -1;
  Unit unit("unit", both.loop, [&](Unit&) {
    child = fork();
    if (child == 0) alarm(20);
    both.timer->timeoutIs(1ms);
  });
  unit.runnableIs(true);
  both.run();
  const bool heard = both.late.count == 1;
  if (child == 0) _exit(heard ? 0 : 1);
  EXPECT_TRUE(heard);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(both.hears());
}

// ---------------------------------------------------------------------------------------------
// Signals

TEST(EventLoopProcessTest, ASignalStopsEachLoopThatAskedForIt) {
  EventLoop first("first"), second("second"), third("third");
  first.stopOnSignals({SIGUSR1, SIGUSR2});
  second.stopOnSignals({SIGUSR1});
  second.stopOnSignals({});
  third.stopOnSignals({SIGUSR2});
  raise(SIGUSR1);
  for (EventLoop* loop : {&first, &second, &third}) loop->run(0, 0.001, false);
  EXPECT_FALSE(first.active());
  EXPECT_FALSE(second.active());
  EXPECT_TRUE(third.active());

  first.activeIs(true);
  raise(SIGUSR2);
  first.run();
  EXPECT_FALSE(first.active());
}

TEST(EventLoopProcessTest, ASignalThatCameBeforeItWasAskedForStopsNothing) {
  EventLoop first("first"), second("second");
  first.stopOnSignals({SIGUSR1});
  raise(SIGUSR1);
  second.stopOnSignals({SIGUSR1});
  second.run(0, 0.001, false);
  EXPECT_TRUE(second.active());
}

TEST(EventLoopProcessTest, TheFormerActionComesBackWithTheEndOfTheLastLoop) {
  static int handled = 0;
  handled = 0;
  const auto former = signal(SIGUSR1, [](int) { ++handled; });
  auto first = std::make_unique<EventLoop>("first");
  auto second = std::make_unique<EventLoop>("second");
  first->stopOnSignals({SIGUSR1, SIGUSR1});
  second->stopOnSignals({SIGUSR1});
  first.reset();
  raise(SIGUSR1);
  EXPECT_EQ(handled, 0);
  second.reset();
  raise(SIGUSR1);
  EXPECT_EQ(handled, 1);

  // A handler that was installed since is left in place.
  first = std::make_unique<EventLoop>("first");
  first->stopOnSignals({SIGUSR1});
  signal(SIGUSR1, [](int) { handled += 10; });
  first.reset();
  raise(SIGUSR1);
  EXPECT_EQ(handled, 11);
  signal(SIGUSR1, former);
}

TEST(EventLoopProcessTest, WhatCannotBeHandledIsRefusedAndNothingChanges) {
  EventLoop loop("main");
  struct sigaction before {
  }, after{};
  sigaction(SIGUSR1, nullptr, &before);
  for (const int number : {0, -1, 1000, SIGKILL, SIGSTOP}) {
    try {
      loop.stopOnSignals({SIGUSR1, number});
      ADD_FAILURE() << number;
    } catch (const KoInvalidArgument& e) {
      EXPECT_EQ(e.what(), "Cannot handle signal - (" + std::to_string(number) + ")");
    }
    sigaction(SIGUSR1, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
  }
  loop.stopOnSignals({SIGUSR1});
  raise(SIGUSR1);
  loop.run();
  EXPECT_FALSE(loop.active());
}

TEST(EventLoopProcessTest, AChildHandlesTheSignalsAsBeforeUntilItAsksItself) {
  Watching parent;
  parent.loop->stopOnSignals({SIGTERM, SIGUSR1});
  const int status = statusOfChild([] {
    raise(SIGTERM);
    return true;
  });
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  EXPECT_EQ(statusOfChild([&] {
              EventLoop own("own");
              own.stopOnSignals({SIGTERM});
              raise(SIGTERM);
              own.run();
              return !own.active();
            }),
            0);
  parent.loop->run(0, 0.0, true);
  EXPECT_TRUE(parent.loop->active());
  EXPECT_TRUE(parent.hears());
  raise(SIGTERM);
  parent.run();
  EXPECT_FALSE(parent.loop->active());
}

// ---------------------------------------------------------------------------------------------
// Standard streams

TEST(EventLoopProcessTest, StandardStreamsMayBeClosedAndStayClosed) {
  EXPECT_EQ(statusOfChild([] {
              for (const int stream : {0, 1, 2}) close(stream);
              bool right = true;
              {
                EventLoop loop("main");
                loop.stopOnSignals({SIGUSR1});
                OnTimeout handler([&] { loop.activeIs(false); });
                const auto timer = timerOf(loop, handler);
                timer->timeoutIs(1ms);
                loop.run();
                for (const int stream : {0, 1, 2}) right &= fcntl(stream, F_GETFD) == -1;
              }
              for (const int stream : {0, 1, 2}) right &= fcntl(stream, F_GETFD) == -1;
              return right;
            }),
            0);
}

TEST(EventLoopProcessTest, AChildMayCloseItsStandardStreamsAndUseItsCopy) {
  Watching parent;
  EXPECT_EQ(statusOfChild([&] {
              for (const int stream : {0, 1, 2}) close(stream);
              bool right = parent.hears();
              for (const int stream : {0, 1, 2}) right &= fcntl(stream, F_GETFD) == -1;
              parent.watch.reset();
              parent.timer.reset();
              parent.loop.reset();
              return right;
            }),
            0);
  EXPECT_TRUE(parent.hears());
}

TEST(EventLoopProcessTest, SocketsMayHaveTheNumbersOfStandardStreams) {
  EXPECT_EQ(statusOfChild([] {
              for (const int stream : {0, 1, 2}) close(stream);
              Watching watching;
              return watching.sockets.ours == 0 && watching.hears();
            }),
            0);
}

TEST(EventLoopProcessTest, AStandardInputThatIsNullIsAtItsEnd) {
  EXPECT_EQ(statusOfChild([] {
              dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
              EventLoop loop("main");
              OnFd handler;
              ssize_t got = -1;
              handler.readable = [&] {
                char byte;
                got = read(STDIN_FILENO, &byte, 1);
                loop.activeIs(false);
              };
              const auto watch = watchOf(loop, handler, STDIN_FILENO);
              watch->readableWantedIs(true);
              loop.run();
              return got == 0;
            }),
            0);
}

}  // namespace
}  // namespace Korvo
