// Uses everything that the library takes from the host's framework. Exits with 0 if all of it came
// from the other framework, and says what did not.

#include <Korvo/Scheduler.h>
#include <Korvo/korvo_types.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

int failures = 0;

void expect(bool condition, const char* what) {
  if (condition) return;
  std::cerr << "not so: " << what << '\n';
  ++failures;
}

struct Unit : Korvo::Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override {}
};

/// Hands out a control of the other framework's kind.
struct Timers : Korvo::Scheduler {
  using Scheduler::Scheduler;

  struct Control : Velto::Platform::TimerControl {
    explicit Control(Velto::Platform::TimeoutHandler* told) : handler(told) {}
    void arm(unsigned long ticks, bool) override { handler->expired(ticks); }
    Velto::Platform::TimeoutHandler* handler;
  };
  Velto::Platform::TimerControl* getTimerControl(
      Velto::Platform::TimeoutHandler* handler) override {
    return new Control(handler);
  }
};

struct Alarm : Velto::Platform::TimeoutHandler {
  bool expired(unsigned long tick) override {
    ticks += tick;
    return true;
  }
  unsigned long ticks = 0;
};

}  // namespace

int main() {
  try {
    const Korvo::IpAddr address = Korvo::IpAddr(std::string("no address"));
    expect(false, "the text is refused");
  } catch (const Velto::Exception& e) {
    expect(std::string(e.what()).starts_with("[other] Invalid Address"), "the message is its own");
    expect(e.reportable(), "the flag is true");
  }

  std::vector<std::string> traces;
  bool deleted = false;
  struct Channel : Velto::DebugChannel {
    Channel(std::vector<std::string>& out, bool& gone)
        : DebugChannel([&out](const std::string& text) { out.push_back(text); },
                       [] { return 1U << 6 | 1U << 9; }),
          flag(gone) {}
    ~Channel() override { flag = true; }
    bool& flag;
  };
  {
    const auto scheduler = std::make_shared<Timers>("main");
    Unit unit("feeder", scheduler);
    unit.debugChannelIs(new Channel(traces, deleted), true);
    unit.clientReadyIs(true);
    unit.runnableIs(true);
    scheduler->run(0, 0.0, true);
    expect(unit.invocations() == 1, "the unit ran");
    expect(traces.size() == 1, "one trace was sent");
    expect(!traces.empty() &&
               traces[0].starts_with("6 src/Scheduler.cpp invoke: invoking feeder(unit: "),
           "it is the unit's");

    Alarm alarm;
    const std::unique_ptr<Velto::Platform::TimerControl> control(
        scheduler->getTimerControl(&alarm));
    control->arm(3, false);
    expect(alarm.ticks == 3, "the timer is told");
    expect(!deleted, "the channel is there");
  }
  expect(deleted, "the channel went with its owner");
  return failures == 0 ? 0 : 1;
}
