#include <Korvo/TestLoop.h>

#include <algorithm>
#include <map>
#include <utility>

namespace Korvo {

using std::chrono::nanoseconds;

struct TestLoop::Clock {
  class Timer;
  using Timers = std::multimap<nanoseconds, Timer*>;
  Timers timers;
  nanoseconds now{0};

  bool tellOne(nanoseconds until);
};

class TestLoop::Clock::Timer final : public Velto::Platform::TimerControl {
 public:
  Timer(std::shared_ptr<Clock> clock, Velto::Platform::TimeoutHandler* handler)
      : clock_(std::move(clock)), handler_(handler), place_(clock_->timers.end()) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() override { Timer::cancel(); }

  void timeoutIs(nanoseconds delay) override {
    const auto place = clock_->timers.emplace(clock_->now + std::max(delay, nanoseconds(0)), this);
    cancel();
    place_ = place;
  }
  void cancel() override {
    if (pending()) clock_->timers.erase(std::exchange(place_, clock_->timers.end()));
  }
  bool pending() const override { return place_ != clock_->timers.end(); }

  void tell() {
    cancel();
    handler_->onTimeout();
  }

 private:
  std::shared_ptr<Clock> clock_;
  Velto::Platform::TimeoutHandler* handler_;
  Timers::iterator place_;
};

bool TestLoop::Clock::tellOne(nanoseconds until) {
  if (timers.empty() || timers.begin()->first > until) return false;
  now = std::max(now, timers.begin()->first);
  timers.begin()->second->tell();
  return true;
}

TestLoop::TestLoop(const std::string& name) : Scheduler(name), clock_(std::make_shared<Clock>()) {}

TestLoop::~TestLoop() = default;

void TestLoop::runUntilQuiet() {
  const std::shared_ptr<Clock> clock = clock_;
  do {
    run(0, 0.0, true);
  } while (clock->tellOne(clock->now));
}

void TestLoop::advance(nanoseconds time) {
  const std::shared_ptr<Clock> clock = clock_;
  const nanoseconds end = clock->now + time;
  do {
    run(0, 0.0, true);
  } while (clock->tellOne(end));
  clock->now = end;
}

nanoseconds TestLoop::now() const {
  return clock_->now;
}

Velto::Platform::TimerControl* TestLoop::getTimerControl(Velto::Platform::TimeoutHandler* handler) {
  return new Clock::Timer(clock_, handler);
}

}  // namespace Korvo
