#pragma once

// A scheduler for tests, whose clock moves when told.
//
//   const auto loop = std::make_shared<Korvo::TestLoop>();
//   ...                                         // units and timers on it
//   loop->runUntilQuiet();
//   loop->advance(std::chrono::seconds(20));    // no sleep: timers run out, one after the other

#include <Korvo/Scheduler.h>
#include <Korvo/export.h>

#include <chrono>
#include <memory>
#include <string>

namespace Korvo {

/// Has timers and no descriptors.
class KORVO_API TestLoop : public Scheduler {
 public:
  /// Its clock begins at 0.
  explicit TestLoop(const std::string& name = "test");
  ~TestLoop() override;

  /// Runs units until none has work. Timers of no delay have run out by then, too.
  void runUntilQuiet();
  /// Moves the clock on to each timer that runs out within `time` in turn, tells its handler and
  /// runs until quiet.
  void advance(std::chrono::nanoseconds time);
  /// Since the loop was made.
  std::chrono::nanoseconds now() const;

  /// As Scheduler's. One that outlives the loop does nothing.
  Velto::Platform::TimerControl* getTimerControl(Velto::Platform::TimeoutHandler* handler) override;

 private:
  struct Clock;
  std::shared_ptr<Clock> clock_;
};

}  // namespace Korvo
