// What the guide shows of units of work.

#include <Korvo/Scheduler.h>

#include <cstddef>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

// Prints the numbers that are left, as many in one turn as the time slice allows.
class Countdown : public Korvo::Schedulable {
 public:
  Countdown(const std::string& name, const Korvo::KoPtr<Korvo::Scheduler>& scheduler, int left)
      : Schedulable(name, scheduler), left_(left) {}

  void run(bool) override {
    do {
      std::cout << name() << ' ' << left_ << '\n';
      --left_;
    } while (left_ > 0 && !shouldYield());
    if (left_ > 0) runnableIs(true);  // queued again, behind the others
  }

 private:
  int left_;
};

// A unit whose work fails.
class Failing : public Korvo::Schedulable {
 public:
  using Schedulable::Schedulable;
  void run(bool) override { throw std::runtime_error("no connection"); }
};

// Urgent units go to the front.
class Priorities : public Korvo::Scheduler {
 public:
  using Scheduler::Scheduler;

  void runnableIs(Korvo::Schedulable* unit, bool runnable) override {
    const std::size_t before = runQueue_.size();
    Scheduler::runnableIs(unit, runnable);
    if (runQueue_.size() == before || !urgent.contains(unit)) return;
    runQueue_.push_front(runQueue_.back());
    runQueue_.pop_back();
  }

  std::set<const Korvo::Schedulable*> urgent;
};

class Log : public Velto::DebugChannel {
  void trace(std::ostringstream& text, unsigned int level, const char*, unsigned int,
             const char* function) override {
    std::cout << level << ' ' << function << ':' << text.str() << '\n';
  }
};

namespace {

void takeTurns() {
  const auto scheduler = std::make_shared<Korvo::Scheduler>("main");
  Countdown a("a", scheduler, 3);
  Countdown b("b", scheduler, 1);
  a.timeSliceIs({0, 0});  // one number in each turn
  for (Countdown* unit : {&a, &b}) {
    unit->clientReadyIs(true);
    unit->runnableIs(true);
  }
  scheduler->run(0, 0.0, true);
  std::cout << a.invocations() << " turns\n";
}

void failures() {
  const auto scheduler = std::make_shared<Korvo::Scheduler>("main");
  Failing unit("f", scheduler);
  unit.clientReadyIs(true);
  unit.runnableIs(true);
  try {
    scheduler->run(0, 0.0, true);
  } catch (const std::exception& e) {
    unit.disabledIs(true);  // never invoked again
    std::cout << unit.name() << ": " << e.what() << '\n';
  }
}

void priorities() {
  const auto scheduler = std::make_shared<Priorities>("main");
  Countdown a("a", scheduler, 1);
  Countdown b("b", scheduler, 1);
  scheduler->urgent.insert(&b);
  for (Countdown* unit : {&a, &b}) {
    unit->clientReadyIs(true);
    unit->runnableIs(true);
  }
  scheduler->run(0, 0.0, true);
}

void traces() {
  Log log;
  log.levelMaskIs(1U << 9);  // queueing and loop exits
  const auto scheduler = std::make_shared<Korvo::Scheduler>("main");
  scheduler->debugChannelIs(&log, false);
  scheduler->run(0, 0.0, true);
  scheduler->debugChannelIs(nullptr, false);
}

}  // namespace

int main() {
  takeTurns();
  failures();
  priorities();
  traces();
}
