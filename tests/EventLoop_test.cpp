// The event loop, with real sockets, real timers and real time. What must not take long is given
// plenty of it, since the machine may be busy; what must not come early is held to it.

#include <Korvo/EventLoop.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "event_loop_test_support.h"

namespace {
int sleeps = 0;
int polls = 0;
}  // namespace

// What waits, counted.
extern "C" int nanosleep(const struct timespec* request, struct timespec* rest) {
  ++sleeps;
  return static_cast<int>(syscall(SYS_nanosleep, request, rest));
}
extern "C" int epoll_pwait(int epoll, struct epoll_event* events, int most, int timeout,
                           const sigset_t* mask) {
  ++polls;
  return static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, most, timeout, mask, 8));
}
extern "C" int epoll_wait(int epoll, struct epoll_event* events, int most, int timeout) {
  return epoll_pwait(epoll, events, most, timeout, nullptr);
}

namespace Korvo {
namespace {

using namespace eventlooptest;

/// Counts its waits.
class CountingLoop : public EventLoop {
 public:
  CountingLoop() : EventLoop("main") {}
  int pauseScheduler(timespec* pause) override {
    ++waits;
    return EventLoop::pauseScheduler(pause);
  }
  int waits = 0;

  using Scheduler::runQueue_;
};

class EventLoopTest : public testing::Test {
 protected:
  EventLoopTest() {
    sleeps = 0;
    polls = 0;
  }
  ~EventLoopTest() override { EXPECT_EQ(sleeps, 0); }

  std::unique_ptr<TimerControl> timer(OnTimeout& handler) { return timerOf(*loop_, handler); }
  std::unique_ptr<FdControl> watch(OnFd& handler, int fd = -1) {
    return watchOf(*loop_, handler, fd);
  }
  /// Runs until something stops it, which does not take for ever.
  void run() {
    const auto start = Clock::now();
    loop_->run(0, std::chrono::duration<double>(kPlenty).count(), false);
    EXPECT_LT(Clock::now() - start, kPlenty) << "nothing stopped the loop";
    loop_->activeIs(true);
  }
  void stop() { loop_->activeIs(false); }
  /// A timer's handler is not told of what `prevent` starts and prevents.
  void expectNotTold(const std::function<void(std::unique_ptr<TimerControl>&)>& prevent) {
    OnTimeout handler;
    OnTimeout stopper([&] { stop(); });
    auto control = timer(handler);
    const auto end = timer(stopper);
    prevent(control);
    end->timeoutIs(10ms);
    run();
    EXPECT_EQ(handler.count, 0);
  }
  /// Gives all that has happened by now, or within a moment, the time to be told.
  void settle() {
    for (int i = 0; i < 5; ++i) loop_->run(0, 0.0, true);
  }

  std::shared_ptr<CountingLoop> loop_ = std::make_shared<CountingLoop>();
};
using EventLoopDeathTest = EventLoopTest;

// ---------------------------------------------------------------------------------------------
// Timers

TEST_F(EventLoopTest, ATimerRunsOutOnceAndNeverEarly) {
  OnTimeout stopper([&] { stop(); });
  const auto end = timer(stopper);
  for (const auto delay : {1ns, 999999ns, 1000000ns, 1000001ns, 2700000ns, 12345678ns}) {
    OnTimeout handler;
    Clock::time_point told;
    handler.told = [&] {
      told = Clock::now();
      end->timeoutIs(3ms);
    };
    const auto control = timer(handler);
    EXPECT_FALSE(control->pending());
    const auto start = Clock::now();
    control->timeoutIs(delay);
    EXPECT_TRUE(control->pending());
    run();
    EXPECT_GE(told - start, delay);
    EXPECT_EQ(handler.count, 1);
    EXPECT_FALSE(control->pending());
  }
}

TEST_F(EventLoopTest, ATimerIsNotEarlyAfterALongTurn) {
  OnTimeout handler([&] { stop(); });
  const auto control = timer(handler);
  Clock::time_point start;
  Unit slow("slow", loop_, [&](Unit&) {
    const auto end = Clock::now() + 30ms;  // libuv's own time stands still here
    while (Clock::now() < end) {
    }
    start = Clock::now();
    control->timeoutIs(20ms);
  });
  slow.runnableIs(true);
  run();
  EXPECT_GE(Clock::now() - start, 20ms);
}

TEST_F(EventLoopTest, TimersWithNoDelayAreToldAtTheNextLook) {
  OnTimeout handler;
  const auto control = timer(handler);
  for (const auto delay : {0ns, -1ns, -1000000000ns}) {
    control->timeoutIs(delay);
    const int before = handler.count;
    loop_->run(0, 0.0, true);
    EXPECT_EQ(handler.count, before + 1);
  }
}

TEST_F(EventLoopTest, TimersRunOutInTheirOrder) {
  std::string order;
  OnTimeout a([&] { order += 'a'; });
  OnTimeout b([&] { order += 'b'; });
  OnTimeout c([&] {
    order += 'c';
    stop();
  });
  const auto third = timer(c);
  const auto first = timer(a);
  const auto second = timer(b);
  third->timeoutIs(30ms);
  second->timeoutIs(20ms);
  first->timeoutIs(10ms);
  run();
  EXPECT_EQ(order, "abc");
}

TEST_F(EventLoopTest, ATimerSetAgainStartsAnew) {
  OnTimeout handler([&] { stop(); });
  const auto control = timer(handler);
  control->timeoutIs(1ms);
  const auto start = Clock::now();
  control->timeoutIs(25ms);
  run();
  EXPECT_EQ(handler.count, 1);
  EXPECT_GE(Clock::now() - start, 25ms);
}

TEST_F(EventLoopTest, ATimerIsSetAgainByItsHandler) {
  OnTimeout handler;
  const auto control = timer(handler);
  handler.told = [&] {
    EXPECT_FALSE(control->pending());
    if (handler.count < 5) {
      control->timeoutIs(1ms);
    } else {
      stop();
    }
  };
  control->timeoutIs(1ms);
  run();
  EXPECT_EQ(handler.count, 5);
}

TEST_F(EventLoopTest, ACancelledTimerIsNotTold) {
  expectNotTold([](std::unique_ptr<TimerControl>& control) {
    control->cancel();
    control->timeoutIs(1ms);
    control->cancel();
    EXPECT_FALSE(control->pending());
  });
}

TEST_F(EventLoopTest, ADeletedTimerIsNotTold) {
  expectNotTold([](std::unique_ptr<TimerControl>& control) {
    control->timeoutIs(1ms);
    control.reset();
  });
}

TEST_F(EventLoopTest, ATimerWithTheLongestDelayIsNotTold) {
  expectNotTold([](auto& control) {
    control->timeoutIs(std::chrono::nanoseconds::max());
    EXPECT_TRUE(control->pending());
  });
}

TEST_F(EventLoopTest, OneTimerPreventsAnotherThatRanOutWithIt) {
  for (const bool cancel : {false, true}) {
    std::unique_ptr<TimerControl> controls[2];
    OnTimeout handlers[2];
    for (int i = 0; i < 2; ++i) {
      controls[i] = timer(handlers[i]);
      handlers[i].told = [&, i] {
        if (cancel) {
          controls[1 - i]->cancel();
        } else {
          controls[1 - i].reset();
        }
      };
      controls[i]->timeoutIs(0ns);
    }
    settle();
    EXPECT_EQ(handlers[0].count + handlers[1].count, 1);
  }
}

TEST_F(EventLoopTest, ATimerMakesAUnitRunnable) {
  Unit unit("unit", loop_, [&](Unit&) { stop(); });
  OnTimeout handler([&] { unit.runnableIs(true); });
  const auto control = timer(handler);
  control->timeoutIs(5ms);
  run();
  EXPECT_EQ(unit.invocations(), 1U);
}

// ---------------------------------------------------------------------------------------------
// File descriptors

TEST_F(EventLoopTest, ASocketMakesAUnitRunnable) {
  const Sockets sockets;
  std::string text;
  Unit reader("reader", loop_, [&](Unit&) {
    text += sockets.receive();
    if (text == "hello") stop();
  });
  OnFd handler;
  handler.readable = [&] { reader.runnableIs(true); };
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);

  OnTimeout sender;
  const auto clock = timer(sender);
  sender.told = [&] {
    sockets.send(sender.count == 1 ? "hel" : "lo");
    if (sender.count == 1) clock->timeoutIs(5ms);
  };
  clock->timeoutIs(5ms);
  run();
  EXPECT_EQ(text, "hello");
  EXPECT_EQ(reader.invocations(), 2U);
  EXPECT_EQ(handler.writes, 0);
}

TEST_F(EventLoopTest, OnlyWhatIsWantedIsTold) {
  const Sockets sockets;
  sockets.send("x");
  OnFd handler;
  const auto control = watch(handler, sockets.ours);
  EXPECT_EQ(control->fd(), sockets.ours);
  EXPECT_FALSE(control->readableWanted());
  EXPECT_FALSE(control->writableWanted());
  settle();
  EXPECT_EQ(handler.reads + handler.writes, 0);

  control->writableWantedIs(true);
  EXPECT_TRUE(control->writableWanted());
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads, 0);
  EXPECT_EQ(handler.writes, 1);

  control->writableWantedIs(false);
  control->readableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads, 1);
  EXPECT_EQ(handler.writes, 1);

  control->writableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads, 2);
  EXPECT_EQ(handler.writes, 2);
}

TEST_F(EventLoopTest, AReadableDescriptorIsToldUntilItIsRead) {
  const Sockets sockets;
  std::string text;
  OnFd handler;
  handler.readable = [&] {
    text += sockets.receive(2);
    if (text.size() == 5) stop();
  };
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  sockets.send("abcde");
  run();
  EXPECT_EQ(text, "abcde");
  EXPECT_EQ(handler.reads, 3);
  settle();
  EXPECT_EQ(handler.reads, 3);
}

TEST_F(EventLoopTest, AHandlerThatWantsNoMoreIsNotTold) {
  const Sockets sockets;
  sockets.send("x");
  OnFd handler;
  const auto control = watch(handler, sockets.ours);
  // Both are ready in one round, and the first to be told takes the other back.
  handler.readable = [&] { control->writableWantedIs(false); };
  handler.writable = [&] { control->readableWantedIs(false); };
  control->readableWantedIs(true);
  control->writableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads + handler.writes, 1);
}

TEST_F(EventLoopTest, OnlyTheDirectionThatIsReadyIsToldOfBothThatAreWanted) {
  const Sockets sockets;
  OnFd handler;
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  control->writableWantedIs(true);
  settle();  // the input is empty
  EXPECT_EQ(handler.reads, 0);
  EXPECT_GT(handler.writes, 0);

  const std::string block(10'000, 'x');
  while (write(sockets.ours, block.data(), block.size()) > 0) {
  }
  sockets.send("y");
  handler.reads = handler.writes = 0;
  settle();  // the output is full
  EXPECT_GT(handler.reads, 0);
  EXPECT_EQ(handler.writes, 0);
  EXPECT_EQ(sockets.receive(), "y");
  handler.reads = 0;
  settle();
  EXPECT_EQ(handler.reads + handler.writes, 0);
}

TEST_F(EventLoopTest, TheEndOfTheDataIsReadable) {
  Sockets sockets;
  OnFd handler;
  handler.readable = [&] { stop(); };
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  close(std::exchange(sockets.theirs, -1));
  run();
  EXPECT_EQ(sockets.receive(), "");
  EXPECT_EQ(handler.reads, 1);
}

TEST_F(EventLoopTest, TheOtherEndOfAPipeIsClosed) {
  int ends[2];
  OnFd handler;
  handler.readable = handler.writable = [&] { stop(); };
  ASSERT_EQ(pipe(ends), 0);
  close(ends[1]);
  auto control = watch(handler, ends[0]);
  control->readableWantedIs(true);
  run();
  EXPECT_EQ(handler.reads, 1);
  control.reset();
  close(ends[0]);

  ASSERT_EQ(pipe(ends), 0);
  control = watch(handler, ends[1]);
  const std::string text(4096, 'x');
  while (write(ends[1], text.data(), text.size()) > 0) {
  }
  close(ends[0]);
  control->writableWantedIs(true);
  run();
  EXPECT_EQ(handler.writes, 1);
  control.reset();
  close(ends[1]);
}

TEST_F(EventLoopTest, AHandlerEndsTheWatchBeforeItsOtherDirection) {
  const Sockets sockets;
  OnFd handler;
  const auto control = watch(handler, sockets.ours);
  handler.readable = handler.writable = [&] { control->fdIs(-1); };
  sockets.send("x");
  control->readableWantedIs(true);
  control->writableWantedIs(true);
  settle();
  EXPECT_EQ(handler.reads + handler.writes, 1);
}

TEST_F(EventLoopTest, AnErrorIsToldForAsLongAsItIsWanted) {
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
  OnFd handler;
  const auto control = watch(handler, fds[1]);
  control->writableWantedIs(true);
  close(fds[0]);  // writing fails from now on
  for (int i = 1; i <= 3; ++i) {
    loop_->run(0, 0.0, true);
    EXPECT_EQ(handler.writes, i);
  }
  EXPECT_EQ(handler.reads, 0);
  control->fdIs(-1);
  close(fds[1]);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.writes, 3);
}

TEST_F(EventLoopTest, ARefusedConnectionIsWritable) {
  // A port that was free a moment ago, and still is, since its socket stays bound but not
  // listening.
  const int port = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(port, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(getsockname(port, reinterpret_cast<sockaddr*>(&address), &length), 0);

  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  OnFd handler;
  const auto control = watch(handler, client);
  int error = 0;
  handler.writable = [&] {
    socklen_t size = sizeof(error);
    getsockopt(client, SOL_SOCKET, SO_ERROR, &error, &size);
    stop();
  };
  ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&address), length), -1);
  if (errno == EINPROGRESS) {
    control->writableWantedIs(true);
    run();
    EXPECT_EQ(error, ECONNREFUSED);
    EXPECT_EQ(handler.writes, 1);
  } else {
    EXPECT_EQ(errno, ECONNREFUSED);
  }
  control->fdIs(-1);
  close(client);
  close(port);
}

TEST_F(EventLoopTest, AControlCanChangeItsDescriptor) {
  const Sockets first, second;
  OnFd handler;
  const auto control = watch(handler);
  EXPECT_EQ(control->fd(), -1);
  control->readableWantedIs(true);  // of nothing
  EXPECT_FALSE(control->readableWanted());

  first.send("x");
  second.send("x");
  control->fdIs(first.ours);
  control->readableWantedIs(true);
  control->fdIs(second.ours);
  EXPECT_EQ(control->fd(), second.ours);
  EXPECT_FALSE(control->readableWanted());
  settle();
  EXPECT_EQ(handler.reads, 0);
  control->readableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads, 1);

  control->fdIs(-1);
  EXPECT_EQ(control->fd(), -1);
  EXPECT_FALSE(control->readableWanted());
  settle();
  EXPECT_EQ(handler.reads, 1);
}

TEST_F(EventLoopTest, DescriptorsThatCannotBeWatchedAreRefused) {
  const Sockets sockets;
  std::FILE* file = std::tmpfile();
  const int closed = dup(sockets.ours);
  close(closed);
  OnFd handler, other;
  const auto control = watch(handler);
  const auto rival = watch(other, sockets.ours);

  const auto refusal = [&](int fd) -> std::string {
    try {
      control->fdIs(fd);
    } catch (const KoInvalidArgument& e) {
      EXPECT_EQ(control->fd(), -1);
      control->readableWantedIs(true);
      EXPECT_FALSE(control->readableWanted());
      return e.what();
    }
    return "";
  };
  const auto text = [](int fd, const std::string& reason) {
    return "Cannot watch file descriptor - (" + std::to_string(fd) + "): " + reason;
  };
  EXPECT_EQ(refusal(fileno(file)), text(fileno(file), "operation not permitted"));
  EXPECT_EQ(refusal(closed), text(closed, "bad file descriptor"));
  EXPECT_EQ(refusal(-7), text(-7, "bad file descriptor"));
  EXPECT_EQ(refusal(sockets.ours), text(sockets.ours, "watched already"));
  std::fclose(file);

  // What the rival lets go of can be watched.
  rival->fdIs(-1);
  EXPECT_EQ(refusal(sockets.ours), "");
  sockets.send("x");
  control->readableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.reads, 1);
  // The same control may be given the same descriptor once more.
  EXPECT_EQ(refusal(sockets.ours), "");
  EXPECT_FALSE(control->readableWanted());
}

TEST_F(EventLoopTest, ADeviceThatCannotBePolledIsAlwaysReady) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  OnFd handler;
  const auto control = watch(handler, null);
  control->readableWantedIs(true);
  handler.readable = [&] {
    char byte;
    EXPECT_EQ(read(null, &byte, 1), 0);  // the end of the data
    if (handler.reads == 3) stop();
  };
  run();
  control->readableWantedIs(false);
  control->writableWantedIs(true);
  settle();
  EXPECT_EQ(handler.reads, 3);
  EXPECT_GT(handler.writes, 0);
  control->fdIs(-1);
  EXPECT_EQ(control->fd(), -1);
  handler.writes = 0;
  settle();
  EXPECT_EQ(handler.writes, 0);
  close(null);
}

TEST_F(EventLoopTest, ADescriptorClosedUnderItsWatchDoesNotKeepTheLoopBusy) {
  for (const bool reused : {false, true}) {
    const Sockets sockets, others;
    const int closed = dup(sockets.ours);  // the same socket twice
    OnFd handler, other;
    auto control = watch(handler, closed);
    const auto witness = watch(other, others.ours);
    control->readableWantedIs(true);
    witness->readableWantedIs(true);
    close(closed);
    control.reset();
    sockets.send("x");
    std::unique_ptr<FdControl> next;
    if (reused) {
      ASSERT_EQ(dup(others.ours), closed);
      next = watch(handler, closed);
      next->readableWantedIs(true);
    }
    OnTimeout stopper([&] { stop(); });
    const auto end = timer(stopper);
    end->timeoutIs(50ms);
    polls = 0;
    run();
    EXPECT_LE(polls, 20);
    EXPECT_EQ(handler.reads, 0);
    others.send("x");
    loop_->run(0, 0.0, true);
    EXPECT_EQ(other.reads, 1);
    EXPECT_EQ(handler.reads, reused ? 1 : 0);
    next.reset();
    if (reused) close(closed);
  }
}

TEST_F(EventLoopTest, ADescriptorClosedUnderItsWatchAndRestoredIsWatchedAnew) {
  const Sockets sockets;
  const int number = dup(sockets.ours);
  OnFd handler;
  handler.readable = [&] { stop(); };
  auto control = watch(handler, number);
  control->readableWantedIs(true);
  close(number);
  control->fdIs(-1);
  ASSERT_EQ(dup(sockets.ours), number);  // the same socket under the same number
  control->fdIs(number);
  settle();
  EXPECT_EQ(handler.reads, 0);
  control->readableWantedIs(true);
  sockets.send("x");
  run();
  EXPECT_EQ(handler.reads, 1);
  control.reset();
  close(number);
}

TEST_F(EventLoopTest, TheWorkForManySocketsIsProportionalToTheirNumber) {
  constexpr int kCount = 10'000;
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, kCount + 100);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << "the system allows too few descriptors";

  int told = 0;
  int remaining = kCount;
  /// Reads the message that its socket has already, and lets go.
  struct Reader : OnFd {
    explicit Reader(const std::shared_ptr<CountingLoop>& loop)
        : unit("reader", loop, [this](Unit&) { read(); }),
          control(watchOf(*loop, *this, sockets.ours)) {
      control->readableWantedIs(true);
      sockets.send("x");
      close(std::exchange(sockets.theirs, -1));
    }
    void read() {
      EXPECT_EQ(sockets.receive(), "x");
      control->fdIs(-1);
      done();
    }
    std::function<void()> done;
    Sockets sockets;
    Unit unit;
    std::unique_ptr<FdControl> control;
  };
  std::vector<std::unique_ptr<Reader>> readers;
  for (int i = 0; i < kCount; ++i) {
    readers.push_back(std::make_unique<Reader>(loop_));
    readers.back()->readable = [&told, reader = readers.back().get()] {
      ++told;
      reader->unit.runnableIs(true);
    };
    readers.back()->done = [&] {
      if (--remaining == 0) stop();
    };
  }
  run();
  EXPECT_EQ(remaining, 0);
  EXPECT_LE(told, 3 * kCount);
  EXPECT_LE(polls, kCount);  // few of a slice each; more where others take the processor
}

TEST_F(EventLoopTest, AControlIsDeletedByItsHandler) {
  const Sockets sockets;
  sockets.send("x");
  OnFd handler;
  auto control = watch(handler, sockets.ours);
  handler.readable = handler.writable = [&] { control.reset(); };
  control->readableWantedIs(true);
  control->writableWantedIs(true);
  OnTimeout ticker;
  auto clock = timer(ticker);
  ticker.told = [&] { clock.reset(); };
  clock->timeoutIs(0ns);
  settle();
  EXPECT_EQ(handler.reads + handler.writes, 1);
  EXPECT_EQ(ticker.count, 1);
}

// ---------------------------------------------------------------------------------------------
// Waiting

TEST_F(EventLoopTest, AnIdleLoopDoesNotPoll) {
  const Sockets sockets;
  OnFd handler;
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  OnTimeout stopper([&] { stop(); });
  const auto end = timer(stopper);
  end->timeoutIs(120ms);
  run();
  EXPECT_LE(loop_->waits, 2);
  EXPECT_GT(polls, 0);
  EXPECT_LE(polls, 10);  // 24 pauses of 5 milliseconds otherwise
  EXPECT_EQ(sleeps, 0);
}

TEST_F(EventLoopTest, ATimeLimitEndsAWait) {
  const auto start = Clock::now();
  loop_->run(0, 0.05, false);
  EXPECT_GE(Clock::now() - start, 49ms);  // the two clocks need not agree
  EXPECT_LT(Clock::now() - start, kPlenty);
  EXPECT_LE(loop_->waits, 5);
}

TEST_F(EventLoopTest, ARunInsideWaitsBeyondTheLimitOfTheOuterOne) {
  for (const double limit : {0.0, 3600.0}) {
    loop_->waits = 0;
    loop_->activeIs(true);
    OnTimeout handler([&] { loop_->run(0, limit, false); });
    const auto control = timer(handler);
    control->timeoutIs(0ns);
    OnTimeout stopper([&] { stop(); });
    const auto end = timer(stopper);
    end->timeoutIs(80ms);
    loop_->run(0, 0.01, false);
    EXPECT_EQ(handler.count, 1);
    EXPECT_EQ(stopper.count, 1);
    EXPECT_LE(loop_->waits, 5);
  }
}

TEST_F(EventLoopTest, AShortRunInsideALongOneEndsInTime) {
  OnTimeout handler([&] {
    const auto start = Clock::now();
    loop_->run(0, 0.03, false);
    EXPECT_GE(Clock::now() - start, 29ms);
    stop();
  });
  const auto control = timer(handler);
  control->timeoutIs(0ns);
  run();
  EXPECT_EQ(handler.count, 1);
}

TEST_F(EventLoopTest, TheLimitEndsWithItsRun) {
  loop_->run(0, 0.001, false);
  OnTimeout late;
  const auto end = timer(late);
  end->timeoutIs(20ms);
  timespec pause{};
  loop_->pauseScheduler(&pause);
  EXPECT_EQ(late.count, 1);
}

TEST_F(EventLoopTest, EventsAreToldWhileUnitsAreBusy) {
  const Sockets sockets;
  Unit busy("busy", loop_, [](Unit& unit) { unit.runnableIs(true); });
  busy.runnableIs(true);
  std::string text;
  OnFd handler;
  handler.readable = [&] {
    text += sockets.receive();
    stop();
  };
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  OnTimeout sender([&] { sockets.send("through"); });
  const auto clock = timer(sender);
  clock->timeoutIs(5ms);
  run();
  EXPECT_EQ(text, "through");
  EXPECT_EQ(loop_->waits, 0);
  EXPECT_GT(busy.invocations(), 10U);
}

TEST_F(EventLoopTest, OnlyUnitsCount) {
  Unit busy("busy", loop_, [](Unit& unit) { unit.runnableIs(true); });
  busy.runnableIs(true);
  OnTimeout ticker;
  const auto clock = timer(ticker);
  ticker.told = [&] { clock->timeoutIs(0ns); };
  clock->timeoutIs(0ns);
  loop_->run(100'000, 0.0, true);
  EXPECT_EQ(busy.invocations(), 100'000U);
  EXPECT_GT(ticker.count, 1);
}

TEST_F(EventLoopTest, SlicesLookAtTheEventsToo) {
  const Sockets sockets;
  Unit reader("reader", loop_, [&](Unit&) { sockets.receive(); });
  OnFd handler;
  handler.readable = [&] { reader.runnableIs(true); };
  const auto control = watch(handler, sockets.ours);
  control->readableWantedIs(true);
  sockets.send("x");
  loop_->run(0, 0.0, true);
  EXPECT_EQ(reader.invocations(), 1U);
  EXPECT_EQ(loop_->waits, 0);
}

TEST_F(EventLoopTest, AnInactiveLoopTellsNothing) {
  OnTimeout handler;
  const auto control = timer(handler);
  control->timeoutIs(0ns);
  loop_->activeIs(false);
  loop_->run(0, 0.0, false);
  EXPECT_EQ(handler.count, 0);
  loop_->activeIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(handler.count, 1);
}

TEST_F(EventLoopTest, WakeEndsTheNextWait) {
  loop_->wake();
  loop_->wake();
  timespec pause{};
  EXPECT_EQ(loop_->pauseScheduler(&pause), 0);
}

TEST_F(EventLoopTest, WakeIsRememberedByALook) {
  loop_->wake();
  loop_->run(0, 0.0, true);
  timespec pause{};
  EXPECT_EQ(loop_->pauseScheduler(&pause), 0);
}

TEST_F(EventLoopTest, AWakeIsForgottenAfterTheWaitThatItEnds) {
  timespec pause{};
  loop_->wake();
  loop_->pauseScheduler(&pause);
  OnTimeout stopper([&] { stop(); });
  const auto end = timer(stopper);
  end->timeoutIs(50ms);
  polls = 0;
  run();
  EXPECT_LE(polls, 20);
}

TEST_F(EventLoopTest, WakeIsRememberedByALookWithinAHandler) {
  OnTimeout handler([&] {
    loop_->wake();
    loop_->run(0, 0.0, true);
  });
  const auto control = timer(handler);
  control->timeoutIs(0ns);
  timespec pause{};
  loop_->pauseScheduler(&pause);
  ASSERT_EQ(handler.count, 1);
  OnTimeout late;
  const auto end = timer(late);
  end->timeoutIs(1s);
  loop_->pauseScheduler(&pause);
  EXPECT_EQ(late.count, 0);
}

TEST_F(EventLoopTest, AnotherThreadEndsAWait) {
  struct Stoppable : EventLoop {
    Stoppable() : EventLoop("stoppable") {}
    int pauseScheduler(timespec* pause) override {
      const int result = EventLoop::pauseScheduler(pause);
      ++waits;
      if (stopped) activeIs(false);
      return result;
    }
    std::atomic<bool> stopped = false;
    int waits = 0;
  } loop;
  std::thread other([&] {
    std::this_thread::sleep_for(20ms);
    loop.stopped = true;
    loop.wake();
  });
  loop.run();
  other.join();
  EXPECT_EQ(loop.waits, 1);
  sleeps = 0;  // the other thread's
}

// ---------------------------------------------------------------------------------------------
// The host's own handles

TEST_F(EventLoopTest, ACallbackOfTheHostsOwnHandleEndsTheWaitByQueueingAUnit) {
  Unit unit("unit", loop_, [&](Unit&) { stop(); });
  uv_timer_t handle;
  uv_timer_init(loop_->loop(), &handle);
  handle.data = &unit;
  uv_timer_start(
      &handle,
      [](uv_timer_t* timer) {
        auto* waiting = static_cast<Unit*>(timer->data);
        static int rounds = 0;
        if (++rounds == 3) waiting->runnableIs(true);  // the first two queue nothing
      },
      5, 5);
  run();
  EXPECT_EQ(unit.invocations(), 1U);
  EXPECT_EQ(loop_->waits, 1);
  uv_close(reinterpret_cast<uv_handle_t*>(&handle), nullptr);
  settle();
}

TEST_F(EventLoopTest, ACallbackOfTheHostsOwnHandleEndsTheWaitThoughTriggersAreSuppressed) {
  loop_->triggerSuppressedIs(true);
  // libuv calls timers back before it waits, and the others after it.
  for (const bool byTimer : {true, false}) {
    for (const bool stops : {false, true}) {
      Unit unit("unit", loop_, [&](Unit&) { stop(); });
      std::function<void()> call = [&] {
        if (stops) {
          stop();
        } else {
          unit.runnableIs(true);
        }
      };
      uv_timer_t timer;
      uv_async_t async;
      uv_timer_init(loop_->loop(), &timer);
      uv_async_init(loop_->loop(), &async, [](uv_async_t* handle) {
        (*static_cast<std::function<void()>*>(handle->data))();
      });
      timer.data = async.data = &call;
      if (byTimer) {
        uv_timer_start(
            &timer,
            [](uv_timer_t* handle) { (*static_cast<std::function<void()>*>(handle->data))(); }, 5,
            0);
      } else {
        uv_async_send(&async);
      }
      run();
      EXPECT_EQ(unit.invocations(), stops ? 0U : 1U);
      uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
      uv_close(reinterpret_cast<uv_handle_t*>(&async), nullptr);
      settle();
    }
  }
}

TEST_F(EventLoopTest, ATimerOfTheHostsThatIsDueBeforeAWaitPreventsIt) {
  loop_->triggerSuppressedIs(true);
  Unit unit("unit", loop_, [&](Unit&) { stop(); });
  uv_timer_t timer;
  uv_timer_init(loop_->loop(), &timer);
  timer.data = &unit;
  timespec pause{};
  OnTimeout late([] { ADD_FAILURE() << "waited although a unit was queued"; });
  const auto end = this->timer(late);
  end->timeoutIs(kPlenty);
  uv_timer_start(
      &timer, [](uv_timer_t* handle) { static_cast<Unit*>(handle->data)->runnableIs(true); }, 0, 0);
  loop_->pauseScheduler(&pause);
  EXPECT_NE(unit.entry(), nullptr);
  uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
  settle();
}

TEST_F(EventLoopTest, ATimerSetByATimerOfTheHostsRunsOutInTime) {
  OnTimeout soon([&] { stop(); });
  const auto control = this->timer(soon);
  uv_timer_t timer;
  uv_timer_init(loop_->loop(), &timer);
  timer.data = control.get();
  OnTimeout starter([&] {  // is due when the wait begins
    uv_timer_start(
        &timer,
        [](uv_timer_t* handle) { static_cast<TimerControl*>(handle->data)->timeoutIs(1ms); }, 0, 0);
  });
  const auto start = this->timer(starter);
  start->timeoutIs(1ms);
  const auto begin = Clock::now();
  loop_->run(0, 3.0, false);
  EXPECT_LT(Clock::now() - begin, 2s) << "nothing but the limit ended the wait";
  EXPECT_EQ(soon.count, 1);
  loop_->activeIs(true);
  uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
  settle();
}

TEST_F(EventLoopDeathTest, TheHostsHandlesAreClosedBeforeTheLoop) {
  const auto careless = [] {
    auto loop = std::make_unique<EventLoop>("careless");
    uv_timer_t handle;
    uv_timer_init(loop->loop(), &handle);
    loop.reset();
  };
  EXPECT_EXIT(careless(), testing::KilledBySignal(SIGABRT),
              testing::MatchesRegex("[^:]*: src/EventLoop\\.cpp:[0-9]+: "
                                    "Korvo::detail::Events::~Events\\(\\): Assertion "
                                    "`uv_loop_close\\(&loop_\\) == 0' failed\\.\n"));
}

TEST_F(EventLoopDeathTest, ACallbackOfTheHostsMustNotRunTheLoop) {
  const auto careless = [] {
    EventLoop loop("careless");
    uv_timer_t handle;
    uv_timer_init(loop.loop(), &handle);
    handle.data = &loop;
    uv_timer_start(
        &handle, [](uv_timer_t* timer) { static_cast<EventLoop*>(timer->data)->run(0, 0.0, true); },
        0, 0);
    loop.run(0, 1.0, false);
  };
  EXPECT_EXIT(careless(), testing::KilledBySignal(SIGABRT),
              testing::MatchesRegex("[^:]*: src/EventLoop\\.cpp:[0-9]+: void "
                                    "Korvo::detail::Events::round\\(uv_run_mode\\): Assertion "
                                    "`!inRound_' failed\\.\n"));
}

// ---------------------------------------------------------------------------------------------
// Handlers that throw, run the loop and destroy things

TEST_F(EventLoopTest, WhatAHandlerThrowsLeavesTheRunAndNothingIsLost) {
  OnTimeout bad([] { throw Thrown("no more"); });
  OnTimeout good;
  const auto first = timer(bad);
  const auto second = timer(good);
  first->timeoutIs(0ns);
  second->timeoutIs(0ns);
  EXPECT_THROW(loop_->run(0, 1.0, false), Thrown);
  EXPECT_FALSE(first->pending());
  EXPECT_TRUE(second->pending());
  timespec pause{};
  EXPECT_EQ(loop_->pauseScheduler(&pause), 0);  // does not wait
  EXPECT_EQ(bad.count, 1);
  EXPECT_EQ(good.count, 1);
}

TEST_F(EventLoopTest, WhatAHandlerThrowsBetweenUnitsLeavesTheRun) {
  Unit busy("busy", loop_, [](Unit& unit) { unit.runnableIs(true); });
  busy.runnableIs(true);
  OnTimeout bad([] { throw Thrown("no more"); });
  const auto control = timer(bad);
  control->timeoutIs(3ms);
  EXPECT_THROW(run(), Thrown);
  EXPECT_NE(busy.entry(), nullptr);
}

TEST_F(EventLoopTest, AHandlerStopsTheLoopBeforeTheNextHandler) {
  const Sockets sockets;
  sockets.send("x");
  std::string told;
  OnTimeout first([&] {
    told += 'a';
    stop();
  });
  OnTimeout second([&] {
    told += 'b';
    stop();
  });
  OnFd third;
  third.readable = [&] {
    told += 'c';
    sockets.receive();
  };
  const auto a = timer(first);
  const auto b = timer(second);
  const auto c = watch(third, sockets.ours);
  a->timeoutIs(0ns);
  b->timeoutIs(0ns);
  c->readableWantedIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(told, "a");
  EXPECT_TRUE(b->pending());
  loop_->run(0, 0.0, true);  // inactive
  EXPECT_EQ(told, "a");
  loop_->activeIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(told, "ab");
  loop_->activeIs(true);
  loop_->run(0, 0.0, true);
  EXPECT_EQ(told, "abc");
}

TEST_F(EventLoopTest, ARunInsideAHandlerTellsWhatTheOuterOneFound) {
  int waited = 0;
  OnTimeout handlers[2];
  std::unique_ptr<TimerControl> controls[2];
  for (int i = 0; i < 2; ++i) {
    controls[i] = timer(handlers[i]);
    handlers[i].told = [&, i] {
      // Both ran out together. Whichever is told first waits for the other.
      if (handlers[1 - i].count > 0) {
        stop();
        return;
      }
      ++waited;
      loop_->run(0, std::chrono::duration<double>(kPlenty).count(), false);
      EXPECT_EQ(handlers[1 - i].count, 1);
    };
    controls[i]->timeoutIs(0ns);
  }
  run();
  EXPECT_EQ(waited, 1);
}

TEST_F(EventLoopTest, AHandlerDestroysTheLoop) {
  for (const bool throws : {false, true}) {
    for (const bool busy : {false, true}) {
      auto loop = std::make_shared<EventLoop>("mortal");
      EventLoop& running = *loop;
      const std::weak_ptr<EventLoop> alive = loop;
      OnTimeout handler, never;
      std::unique_ptr<TimerControl> control(loop->getTimerControl(&handler));
      std::unique_ptr<TimerControl> other(loop->getTimerControl(&never));
      std::unique_ptr<Unit> unit =
          std::make_unique<Unit>("unit", loop, [](Unit& self) { self.runnableIs(true); });
      handler.told = [&] {
        unit.reset();
        loop.reset();
        EXPECT_TRUE(alive.expired());
        if (throws) throw Thrown("after the end");
      };
      never.told = [&] { ADD_FAILURE() << "told by a loop that is gone"; };
      if (busy) unit->runnableIs(true);
      control->timeoutIs(1ms);
      try {
        running.run(0, 30.0, false);
        EXPECT_FALSE(throws);
      } catch (const Thrown&) {
        EXPECT_TRUE(throws);
      }
      EXPECT_TRUE(alive.expired());
      EXPECT_EQ(handler.count, 1);
    }
  }
}

TEST_F(EventLoopTest, AHandlerDestroysTheLoopAtTheStartOfARun) {
  for (const int count : {0, 1, -1}) {
    auto loop = std::make_shared<EventLoop>("mortal");
    EventLoop& running = *loop;
    OnTimeout handler([&] { loop.reset(); });
    const std::unique_ptr<TimerControl> control(loop->getTimerControl(&handler));
    control->timeoutIs(0ns);
    running.run(count, 0.0, true);
    EXPECT_EQ(loop, nullptr);
  }
}

TEST_F(EventLoopTest, AUnitDestroysTheLoop) {
  auto loop = std::make_shared<EventLoop>("mortal");
  EventLoop& running = *loop;
  const std::weak_ptr<EventLoop> alive = loop;
  auto* unit = new Unit("unit", loop, [](Unit& self) { delete &self; });
  unit->runnableIs(true);
  loop.reset();
  running.run();
  EXPECT_TRUE(alive.expired());
}

TEST_F(EventLoopTest, ControlsOutliveTheLoop) {
  const Sockets sockets;
  OnFd fdHandler;
  OnTimeout timeHandler;
  auto control = watch(fdHandler, sockets.ours);
  auto clock = timer(timeHandler);
  control->readableWantedIs(true);
  clock->timeoutIs(0ns);
  loop_.reset();
  clock->timeoutIs(1ms);
  clock->cancel();
  control->writableWantedIs(true);
  control->fdIs(-1);
  control->fdIs(sockets.ours);
  control.reset();
  clock.reset();
  EXPECT_EQ(fdHandler.reads + timeHandler.count, 0);
}

// ---------------------------------------------------------------------------------------------
// Traces

TEST_F(EventLoopTest, TracesAreThoseOfTheScheduler) {
  struct Recorder : Velto::DebugChannel {
    void trace(std::ostringstream& text, unsigned int, const char*, unsigned int,
               const char* function) override {
      if (std::string(function) == "run") texts.push_back(text.str());
    }
    std::vector<std::string> texts;
  } recorder;
  recorder.levelMaskIs(1U << 8 | 1U << 9);
  loop_->debugChannelIs(&recorder, false);
  OnTimeout stopper([&] { stop(); });
  const auto control = timer(stopper);
  control->timeoutIs(5ms);
  loop_->run();
  loop_->activeIs(true);
  loop_->run(0, 0.25, true);
  loop_->debugChannelIs(nullptr, false);
  const std::string entry = "virtual void Korvo::Scheduler::run(int, double, bool) main";
  EXPECT_EQ(recorder.texts, (std::vector<std::string>{entry + "(0,0, 0)", entry + "(0,0.25, 1)",
                                                      " main exited due to quiescence."}));
}

// ---------------------------------------------------------------------------------------------
// All of it: a server that echoes, its clients, and a unit that is always busy

TEST_F(EventLoopTest, AServerEchoesWhileAUnitIsBusy) {
  constexpr int kClients = 20;
  constexpr int kMessages = 10;

  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  ASSERT_EQ(listen(listener, kClients), 0);

  /// Reads and writes as units, which share one watch of the socket.
  struct Connection : OnFd {
    Connection(int socket, const std::shared_ptr<CountingLoop>& loop)
        : fd(socket),
          reader("reader", loop, [this](Unit&) { readSome(); }),
          writer("writer", loop, [this](Unit&) { writeSome(); }),
          control(loop->getFdControl(this)) {
      readable = [this] { reader.runnableIs(true); };
      writable = [this] { writer.runnableIs(true); };
      control->fdIs(fd);
      control->readableWantedIs(true);
    }
    ~Connection() override {
      control.reset();
      close(fd);
    }
    void readSome() {
      char bytes[7];
      const ssize_t got = read(fd, bytes, sizeof(bytes));
      if (got == 0) control->readableWantedIs(false);
      if (got <= 0) return;
      received(std::string(bytes, static_cast<std::size_t>(got)));
    }
    void writeSome() {
      const ssize_t put = write(fd, out.data(), out.size());
      if (put > 0) out.erase(0, static_cast<std::size_t>(put));
      control->writableWantedIs(!out.empty());
    }
    void send(const std::string& text) {
      out += text;
      control->writableWantedIs(true);
    }
    int fd;
    std::string out;
    std::function<void(const std::string&)> received;
    Unit reader, writer;
    std::unique_ptr<FdControl> control;
  };

  std::vector<std::unique_ptr<Connection>> served;
  OnFd acceptor;
  const auto accepting = watch(acceptor, listener);
  acceptor.readable = [&] {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client == -1) return;
    served.push_back(std::make_unique<Connection>(client, loop_));
    Connection* connection = served.back().get();
    connection->received = [connection](const std::string& text) { connection->send(text); };
  };
  accepting->readableWantedIs(true);

  Unit busy("busy", loop_, [](Unit& unit) { unit.runnableIs(true); });
  busy.runnableIs(true);

  int finished = 0;
  std::vector<std::unique_ptr<Connection>> clients;
  std::vector<std::string> echoes(kClients);
  std::vector<std::string> expected(kClients);
  for (std::size_t i = 0; i < kClients; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), length), 0);
    clients.push_back(std::make_unique<Connection>(fd, loop_));
    Connection& client = *clients.back();
    for (int m = 0; m < kMessages; ++m) {
      expected[i] += "message " + std::to_string(m) + " of client " + std::to_string(i) + "\n";
    }
    client.received = [&, i](const std::string& text) {
      echoes[i] += text;
      if (echoes[i].size() == expected[i].size() && ++finished == kClients) stop();
    };
    client.send(expected[i]);
  }
  run();
  EXPECT_EQ(finished, kClients);
  EXPECT_EQ(echoes, expected);
  EXPECT_EQ(served.size(), static_cast<std::size_t>(kClients));
  EXPECT_EQ(loop_->waits, 0);
  close(listener);
}

}  // namespace
}  // namespace Korvo
