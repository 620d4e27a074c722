#pragma once

// A clock and a sleep that the tests drive, a channel that keeps what it is sent, and units and
// schedulers that show what they hold. Included by one source per executable: it defines
// clock_gettime and nanosleep, which the library calls by name.

#include <Korvo/Scheduler.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace schedtest {

using Korvo::KoPtr;
using Korvo::RunnableEntry;
using Korvo::Schedulable;
using Korvo::Scheduler;

// ---------------------------------------------------------------------------------------------
// Clock and sleep

/// The clock CLOCK_MONOTONIC_RAW as the library sees it. Stands still unless told otherwise.
struct FakeClock {
  std::timespec now{1000, 0};
  int reads = 0;
  int failingRead = 0;           ///< the number of the read that fails; 0 for none
  std::function<void()> onRead;  ///< called before each read

  void advance(long seconds, long nanoseconds) {
    now.tv_sec += seconds;
    now.tv_nsec += nanoseconds;
    while (now.tv_nsec >= 1'000'000'000) {
      now.tv_nsec -= 1'000'000'000;
      ++now.tv_sec;
    }
  }
};

/// The sleep as the library sees it: refuses what the system refuses, and takes no time but on the
/// fake clock.
struct FakeSleep {
  std::vector<std::timespec> requests;
  int failWith = 0;               ///< errno of the next sleeps; 0 for success
  std::function<void()> onSleep;  ///< called during each sleep
};

inline FakeClock fakeClock;
inline FakeSleep fakeSleep;

inline void resetFakes() {
  fakeClock = FakeClock();
  fakeSleep = FakeSleep();
}

}  // namespace schedtest

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  using schedtest::fakeClock;
  if (clock != CLOCK_MONOTONIC_RAW) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  ++fakeClock.reads;
  if (fakeClock.onRead) fakeClock.onRead();
  if (fakeClock.reads == fakeClock.failingRead) {
    errno = EINVAL;
    return -1;
  }
  *time = fakeClock.now;
  return 0;
}

extern "C" int nanosleep(const struct timespec* request, struct timespec*) {
  using schedtest::fakeClock;
  using schedtest::fakeSleep;
  fakeSleep.requests.push_back(*request);
  if (fakeSleep.onSleep) fakeSleep.onSleep();
  if (request->tv_sec < 0 || request->tv_nsec < 0 || request->tv_nsec > 999'999'999) {
    errno = EINVAL;
    return -1;
  }
  if (fakeSleep.failWith != 0) {
    errno = fakeSleep.failWith;
    return -1;
  }
  fakeClock.advance(request->tv_sec, request->tv_nsec);
  return 0;
}

namespace schedtest {

// ---------------------------------------------------------------------------------------------
// Traces

struct Trace {
  std::string text;
  unsigned int level;
  std::string file;
  unsigned int line;
  std::string function;
  std::streamsize precision;
};

class Recorder : public Velto::DebugChannel {
 public:
  explicit Recorder(unsigned int levelMask = ~0U) { levelMaskIs(levelMask); }

  void trace(std::ostringstream& text, unsigned int level, const char* file, unsigned int line,
             const char* function) override {
    traces.push_back({text.str(), level, file, line, function, text.precision()});
  }

  std::vector<std::string> texts() const {
    std::vector<std::string> result;
    for (const Trace& trace : traces) result.push_back(trace.text);
    return result;
  }

  std::vector<Trace> traces;
};

inline std::string idOf(const void* object) {
  return std::to_string(reinterpret_cast<std::uintptr_t>(object) & 0x0FFFFFFF);
}

// ---------------------------------------------------------------------------------------------
// Units and schedulers

/// A unit whose work is a function, and which shows its fields.
class Unit : public Schedulable {
 public:
  using Work = std::function<void(Unit&)>;

  explicit Unit(const std::string& name, const KoPtr<Scheduler>& scheduler = nullptr,
                Work work = nullptr)
      : Schedulable(name, scheduler), work_(std::move(work)) {}

  void run(bool arg) override {
    args.push_back(arg);
    if (work_) {
      const Work work = work_;  // stays while the unit destroys itself
      work(*this);
    }
  }
  void onClientReady() override { readyChanges.push_back(clientReady_); }

  /// Both flags, so that the scheduler is asked once.
  void arm() {
    clientReadyIs(true);
    runnableIs(true);
  }

  std::vector<bool> args;
  std::vector<bool> readyChanges;
  Work work_;

  using Schedulable::disabled_;
  using Schedulable::entry_;
  using Schedulable::running_;
  using Schedulable::scheduler_;
};

/// A scheduler that counts its wake-ups and shows its fields.
class OpenScheduler : public Scheduler {
 public:
  explicit OpenScheduler(const std::string& name = "main") : Scheduler(name) {}

  void triggerScheduler() override {
    ++triggers;
    entriesAtTrigger = runQueue_.size();
  }

  int triggers = 0;
  std::size_t entriesAtTrigger = 0;

  using Scheduler::entries_;
  using Scheduler::runQueue_;
};

/// Starts every test with fresh fakes.
class SchedulerTest : public testing::Test {
 protected:
  SchedulerTest() { resetFakes(); }
};

}  // namespace schedtest
