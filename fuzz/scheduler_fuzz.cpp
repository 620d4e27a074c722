// Sequences of scheduler commands against a model queue. The same commands go to units and
// schedulers of the library and to those of the model, which follows the rules and frees nothing
// early; what happened, in which order, and every flag and queue have to be the same after each.
// Units execute commands while they work: they queue, destroy, throw, and run schedulers
// themselves.
//
// Input: whether traces are on, then commands. A unit that is invoked takes its own from the same
// input.

#include <Korvo/Scheduler.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <map>
#include <set>

#include "fuzz_support.h"

namespace {

/// The clock as the library sees it.
std::timespec fakeNow{};

}  // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC_RAW) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  *time = fakeNow;
  return 0;
}

namespace {

using namespace fuzz;
using Korvo::KoPtr;

constexpr std::size_t unitSlots = 5;
constexpr std::size_t schedulerSlots = 2;
constexpr int deepest = 6;  // of runs and invocations within one another

/// What a unit throws.
struct Boom {};

/// What was seen, and what it left behind.
using Log = std::vector<std::string>;
using State = std::vector<long long>;

/// Everything that can be seen of a world's units, and of the schedulers that are known.
template <typename World>
State stateOf(const World& world) {
  State state;
  std::map<int, const typename World::Scheduler*> reachable;
  for (const auto& scheduler : world.schedulers) {
    state.push_back(scheduler ? scheduler->serial : -1);
    if (scheduler) reachable[scheduler->serial] = scheduler.get();
  }
  for (const auto& unit : world.units) {
    if (!unit) {
      state.push_back(-1);
      continue;
    }
    const typename World::Scheduler* const scheduler = World::schedulerOf(*unit);
    if (scheduler != nullptr) reachable[scheduler->serial] = scheduler;
    state.push_back(unit->serial);
    state.push_back(scheduler == nullptr ? -1 : scheduler->serial);
    World::addUnit(state, *unit);
  }
  for (const auto& [serial, scheduler] : reachable) {
    state.push_back(serial);
    World::addScheduler(state, *scheduler);
  }
  return state;
}

void add(State& state, std::initializer_list<long long> numbers,
         std::initializer_list<bool> flags) {
  state.insert(state.end(), numbers);
  state.insert(state.end(), flags.begin(), flags.end());
}

void advance(std::timespec& time, unsigned int milliseconds) {
  time.tv_sec += static_cast<std::time_t>(milliseconds / 1000);
  time.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (time.tv_nsec >= 1'000'000'000) {
    time.tv_nsec -= 1'000'000'000;
    ++time.tv_sec;
  }
}

// ---------------------------------------------------------------------------------------------
// The library's side

class RealWorld {
 public:
  class Unit;
  class Scheduler;
  using UnitPtr = std::unique_ptr<Unit>;
  using SchedulerPtr = KoPtr<Scheduler>;

  explicit RealWorld(Input bytes) : input(bytes), traces(input.flag()) {
    fakeNow = {1000, 999'000'000};
  }

  Input input;
  const bool traces;
  Log log;
  std::array<UnitPtr, unitSlots> units;
  std::array<SchedulerPtr, schedulerSlots> schedulers;
  int serials = 0;
  int depth = 0;
  int pauses = 0;

  UnitPtr makeUnit(const SchedulerPtr& scheduler);
  SchedulerPtr makeScheduler();
  static void assign(Unit& to, const Unit& from);
  void advanceClock(unsigned int milliseconds) { advance(fakeNow, milliseconds); }
  static const Scheduler* schedulerOf(const Unit& unit);
  static void addUnit(State& state, const Unit& unit);
  static void addScheduler(State& state, const Scheduler& scheduler);
};

/// Lets the units of a world execute commands; defined below, for both worlds.
template <typename World>
void work(World& world);

class RealWorld::Scheduler : public Korvo::Scheduler, public Velto::DebugChannel {
 public:
  Scheduler(RealWorld& world, int number)
      : Korvo::Scheduler("s" + std::to_string(number)), serial(number), world_(world) {
    if (world.traces) levelMaskIs(1U << 9);
    debugChannelIs(this, false);
  }
  ~Scheduler() override { debugChannelIs(nullptr, false); }

  void triggerScheduler() override { world_.log.push_back("trigger " + name_); }
  int pauseScheduler(timespec* pause) override {
    FUZZ_REQUIRE(pause->tv_sec == 0 && pause->tv_nsec == 5'000'000);
    world_.log.push_back("pause " + name_);
    if (++world_.pauses % 3 == 0) active_ = false;
    return 0;
  }
  /// Keeps what traces say, but for the addresses in them.
  void trace(std::ostringstream& stream, unsigned int, const char*, unsigned int,
             const char*) override {
    const std::string text = stream.str();
    if (text.find("marking") != std::string::npos) return;
    if (text.starts_with("  not scheduled by")) {
      world_.log.push_back("not scheduled" + text.substr(text.rfind(' ')));
    } else {
      world_.log.push_back(text);
    }
  }

  const int serial;
  using Korvo::Scheduler::entries_;
  using Korvo::Scheduler::runQueue_;

 private:
  RealWorld& world_;
};

class RealWorld::Unit : public Korvo::Schedulable {
 public:
  Unit(RealWorld& world, int number, const SchedulerPtr& owner)
      : Schedulable("u" + std::to_string(number), owner, {1, 500'000'000}),
        serial(number),
        world_(world) {}

  void run(bool arg) override {
    world_.log.push_back("invoked " + std::to_string(serial) + (arg ? " directly" : ""));
    work(world_);  // this unit may be gone afterwards
  }
  void onClientReady() override { world_.log.push_back("ready " + std::to_string(serial)); }

  const int serial;

 private:
  RealWorld& world_;
};

RealWorld::UnitPtr RealWorld::makeUnit(const SchedulerPtr& scheduler) {
  return std::make_unique<Unit>(*this, serials++, scheduler);
}
RealWorld::SchedulerPtr RealWorld::makeScheduler() {
  return std::make_shared<Scheduler>(*this, serials++);
}
void RealWorld::assign(Unit& to, const Unit& from) {
  static_cast<Korvo::Schedulable&>(to) = from;
}

const RealWorld::Scheduler* RealWorld::schedulerOf(const Unit& unit) {
  return static_cast<const Scheduler*>(unit.scheduler().get());
}
void RealWorld::addUnit(State& state, const Unit& unit) {
  add(state,
      {static_cast<long long>(unit.invocations()),
       static_cast<long long>(unit.totalRunTime() * 1e6 + 0.5)},
      {unit.schedulingEnabled(), unit.runnable(), unit.clientReady(), unit.running(),
       unit.disabled(), unit.entry() != nullptr, unit.shouldYield()});
}
void RealWorld::addScheduler(State& state, const Scheduler& scheduler) {
  state.push_back(scheduler.active() ? 1 : 0);
  for (const Korvo::RunnableEntry* entry : scheduler.runQueue_) {
    FUZZ_REQUIRE(entry->valid == (entry->unit != nullptr));
    state.push_back(entry->valid ? static_cast<const Unit*>(entry->unit)->serial : -1);
  }
  std::set<int> queued;
  for (const auto& [unit, entry] : scheduler.entries_) {
    queued.insert(static_cast<const Unit*>(unit)->serial);
  }
  state.push_back(-2);
  state.insert(state.end(), queued.begin(), queued.end());
}

// ---------------------------------------------------------------------------------------------
// The model

class ModelWorld {
 public:
  class Unit;
  class Scheduler;
  /// Destroys a unit by the rules; the object stays until nobody can look at it any more.
  struct Destroy {
    void operator()(Unit* unit) const;
  };
  using UnitPtr = std::unique_ptr<Unit, Destroy>;
  using SchedulerPtr = std::shared_ptr<Scheduler>;

  explicit ModelWorld(Input bytes) : input(bytes), traces(input.flag()) {}
  ~ModelWorld() {
    for (UnitPtr& unit : units) unit.reset();
  }

  Input input;
  const bool traces;
  Log log;
  std::deque<std::unique_ptr<Unit>> graveyard;
  std::array<UnitPtr, unitSlots> units;
  std::array<SchedulerPtr, schedulerSlots> schedulers;
  int serials = 0;
  int depth = 0;
  int pauses = 0;
  std::timespec now{1000, 999'000'000};

  UnitPtr makeUnit(const SchedulerPtr& scheduler);
  SchedulerPtr makeScheduler();
  static void assign(Unit& to, const Unit& from);
  void advanceClock(unsigned int milliseconds) { advance(now, milliseconds); }
  void trace(const std::string& text) {
    if (traces) log.push_back(text);
  }
  double nowInSeconds() const {
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
  static const Scheduler* schedulerOf(const Unit& unit);
  static void addUnit(State& state, const Unit& unit);
  static void addScheduler(State& state, const Scheduler& scheduler);
};

/// One place in a queue; without a unit once that withdrew.
struct Place {
  ModelWorld::Unit* unit;
};

class ModelWorld::Scheduler {
 public:
  Scheduler(ModelWorld& world, int number) : serial(number), world_(world) {}
  ~Scheduler();

  void activeIs(bool value) { active = value; }
  void triggerSuppressedIs(bool value) { suppressed = value; }
  void runnableIs(Unit* unit, bool runnable);
  void unschedule(Unit* unit) { entries.erase(unit); }
  void run(int count, double timeLimit, bool exitOnQuiescence);

  const int serial;
  bool active = true;
  bool suppressed = false;
  std::deque<std::shared_ptr<Place>> queue;
  std::map<Unit*, std::shared_ptr<Place>> entries;

 private:
  std::string name() const { return "s" + std::to_string(serial); }

  ModelWorld& world_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

class ModelWorld::Unit {
 public:
  Unit(ModelWorld& owner, int number, const SchedulerPtr& itsScheduler)
      : serial(number), scheduler(itsScheduler), world(owner) {}

  void runnableIs(bool value) {
    if (value == runnable) return;
    runnable = value;
    consider();
  }
  void clientReadyIs(bool value) {
    if (value == clientReady) return;
    clientReady = value;
    world.log.push_back("ready " + std::to_string(serial));
    if (value) consider();
  }
  void _considerRunnability() { consider(); }
  void schedulingEnabledIs(bool value) { schedulingEnabled = value; }
  void disabledIs(bool value) { disabled = value; }
  void cleanup() {
    if (!entry) return;
    entry->unit = nullptr;
    entry.reset();
    if (scheduler) scheduler->unschedule(this);
  }
  void clearScheduler() {
    runnableIs(false);
    cleanup();
    scheduler.reset();
  }
  void invoke(bool arg) {
    if (disabled) throw Korvo::KoSchedulableDisabled("");
    ++invocations;
    startTime = world.now;  // an invocation of its own within this one sets it anew
    deadline = startTime;
    advance(deadline, 1500);
    if (deadline.tv_nsec == 0) {  // a sum of exactly a second's nanoseconds is not carried
      --deadline.tv_sec;
      deadline.tv_nsec = 1'000'000'000;
    }
    running = true;
    runnableIs(false);
    world.log.push_back("invoked " + std::to_string(serial) + (arg ? " directly" : ""));
    work(world);
    if (destroyed) return;
    running = false;
    microseconds += (world.now.tv_sec - startTime.tv_sec) * 1'000'000LL +
                    (world.now.tv_nsec - startTime.tv_nsec) / 1000;
  }
  bool shouldYield() const {
    return std::pair(world.now.tv_sec, world.now.tv_nsec) >
           std::pair(deadline.tv_sec, deadline.tv_nsec);
  }
  bool eligible() const { return runnable && clientReady && !disabled; }

  const int serial;
  SchedulerPtr scheduler;
  bool schedulingEnabled = true;
  bool runnable = false;
  bool clientReady = false;
  bool running = false;
  bool disabled = false;
  bool destroyed = false;
  unsigned int invocations = 0;
  long long microseconds = 0;
  std::timespec startTime{};
  std::timespec deadline{};
  std::shared_ptr<Place> entry;
  ModelWorld& world;

 private:
  void consider() {
    if (scheduler && runnable && clientReady) scheduler->runnableIs(this, true);
  }
};

ModelWorld::Scheduler::~Scheduler() {
  *alive_ = false;
  for (const auto& place : queue) {
    if (place->unit != nullptr) place->unit->entry.reset();
  }
}

void ModelWorld::Scheduler::runnableIs(Unit* unit, bool runnable) {
  if (!runnable || !unit->schedulingEnabled) return;
  if (unit->scheduler.get() != this || entries.count(unit) != 0) {
    world_.trace("not scheduled " + std::to_string(entries.count(unit)));
    return;
  }
  world_.trace("  adding to runqueue (" + std::to_string(queue.size()) + " elts)");
  const bool wake = active && queue.empty();
  unit->entry = std::make_shared<Place>(Place{unit});
  entries[unit] = unit->entry;
  queue.push_back(unit->entry);
  if (wake && !suppressed) world_.log.push_back("trigger " + name());
}

void ModelWorld::Scheduler::run(int count, double timeLimit, bool exitOnQuiescence) {
  const std::shared_ptr<bool> alive = alive_;
  ModelWorld& world = world_;
  const double start = world.nowInSeconds();
  int limit = std::max(count, 0);
  if (count == -1) {
    limit = 0;
    for (const auto& [unit, place] : entries) {
      if (place->unit != nullptr && unit->eligible()) ++limit;
    }
  }
  int counter = 0;
  while (*alive && active) {
    if (timeLimit > 0 && world.nowInSeconds() - start >= timeLimit) {
      world.trace(" " + name() + " exited due to time limit.");
      return;
    }
    if (count != 0 && counter >= limit) {
      world.trace(" " + name() + " exited due to count:" + std::to_string(counter) +
                  " >= expected: " + std::to_string(limit));
      return;
    }
    if (queue.empty()) {
      if (exitOnQuiescence) {
        world.trace(" " + name() + " exited due to quiescence.");
        return;
      }
      world.log.push_back("pause " + name());
      if (++world.pauses % 3 == 0) active = false;
      continue;
    }
    Unit* const unit = queue.front()->unit;
    queue.pop_front();
    if (unit == nullptr) continue;
    entries.erase(unit);
    unit->entry.reset();
    if (!unit->eligible()) continue;
    unit->invoke(false);
    if (count != 0) ++counter;
  }
}

/// Withdraws the unit from every queue, also from those that it knows nothing of any more.
void ModelWorld::Destroy::operator()(Unit* unit) const {
  unit->destroyed = true;
  unit->cleanup();
  std::set<Scheduler*> reachable = {unit->scheduler.get()};
  for (const SchedulerPtr& scheduler : unit->world.schedulers) reachable.insert(scheduler.get());
  for (const UnitPtr& other : unit->world.units) {
    if (other) reachable.insert(other->scheduler.get());
  }
  for (Scheduler* scheduler : reachable) {
    if (scheduler == nullptr) continue;
    for (const auto& place : scheduler->queue) {
      if (place->unit != unit) continue;
      place->unit = nullptr;
      scheduler->unschedule(unit);
    }
  }
  unit->world.graveyard.emplace_back(unit);
  unit->scheduler.reset();
}

ModelWorld::UnitPtr ModelWorld::makeUnit(const SchedulerPtr& scheduler) {
  return UnitPtr(new Unit(*this, serials++, scheduler));
}
ModelWorld::SchedulerPtr ModelWorld::makeScheduler() {
  return std::make_shared<Scheduler>(*this, serials++);
}
void ModelWorld::assign(Unit& to, const Unit& from) {
  if (&to == &from) return;
  to.schedulingEnabled = from.schedulingEnabled;
  to.scheduler = from.scheduler;
  to.runnable = to.clientReady = to.running = to.disabled = false;
  to.invocations = 0;
  to.microseconds = 0;
  to.entry.reset();
}

const ModelWorld::Scheduler* ModelWorld::schedulerOf(const Unit& unit) {
  return unit.scheduler.get();
}
void ModelWorld::addUnit(State& state, const Unit& unit) {
  add(state, {static_cast<long long>(unit.invocations), unit.microseconds},
      {unit.schedulingEnabled, unit.runnable, unit.clientReady, unit.running, unit.disabled,
       unit.entry != nullptr, unit.shouldYield()});
}
void ModelWorld::addScheduler(State& state, const Scheduler& scheduler) {
  state.push_back(scheduler.active ? 1 : 0);
  for (const auto& place : scheduler.queue) {
    state.push_back(place->unit != nullptr ? place->unit->serial : -1);
  }
  std::set<int> queued;
  for (const auto& [unit, place] : scheduler.entries) queued.insert(unit->serial);
  state.push_back(-2);
  state.insert(state.end(), queued.begin(), queued.end());
}

// ---------------------------------------------------------------------------------------------
// Commands, the same for both

template <typename World>
void command(World& world) {
  Input& input = world.input;
  const std::size_t what = input.below(32);
  const unsigned int choice = input.byte();
  auto& unit = world.units[choice % unitSlots];
  auto& scheduler = world.schedulers[choice / 8 % schedulerSlots];
  const bool value = (choice & 0x80) != 0;

  if (!scheduler) scheduler = world.makeScheduler();
  if (!unit) {
    unit = world.makeUnit((choice & 0x40) != 0 ? nullptr : scheduler);
    return;
  }
  switch (what) {
    case 0:
      unit.reset();
      return;
    case 1: {
      // The new unit first: both are there while the old one goes.
      auto other = world.makeUnit(scheduler);
      unit.swap(other);
      return;
    }
    case 2:
      unit->clearScheduler();
      return;
    case 3:
      unit->cleanup();
      return;
    case 4: {
      const auto& from = world.units[input.below(unitSlots)];
      if (from) World::assign(*unit, *from);
      return;
    }
    case 5:
      unit->disabledIs(value);
      return;
    case 6:
      unit->schedulingEnabledIs(value);
      return;
    case 7:
      scheduler->activeIs(!value || world.depth == 0);
      return;
    case 8:
      scheduler->triggerSuppressedIs(value);
      return;
    case 9:
      scheduler->runnableIs(unit.get(), value);
      return;
    case 10:
      scheduler->unschedule(unit.get());
      return;
    case 11: {
      // The last link to it may be this one, also while it runs.
      auto dropped = std::move(scheduler);
      scheduler = nullptr;
      return;
    }
    case 12:
      world.advanceClock(input.byte() * 10U);
      return;
    case 13:
      unit->_considerRunnability();
      return;
    case 14:
    case 15:
      unit->clientReadyIs(value);
      return;
    case 16:
    case 17:
      unit->runnableIs(value);
      return;
    case 18:
      if (world.depth > 0) throw Boom();
      return;
    case 19:
    case 20:
      if (world.depth == deepest) return;
      unit->invoke(true);
      return;
    case 21:
    case 22:
    case 23:
    case 24: {
      if (world.depth == deepest) return;
      const int count = static_cast<int>(input.below(8)) - 3;
      const double limit = static_cast<double>(input.below(4)) * 0.25;
      scheduler->run(count, limit, !value);
      return;
    }
    default:
      unit->clientReadyIs(true);
      unit->runnableIs(true);
  }
}

template <typename World>
void work(World& world) {
  ++world.depth;
  try {
    for (std::size_t commands = world.input.below(4); commands != 0; --commands) command(world);
  } catch (...) {
    --world.depth;
    throw;
  }
  --world.depth;
}

/// A command from outside, which sees what comes out.
template <typename World>
void commandFromOutside(World& world) {
  world.log.clear();
  try {
    command(world);
  } catch (const Boom&) {
    world.log.push_back("boom");
  } catch (const Korvo::KoSchedulableDisabled&) {
    world.log.push_back("disabled");
  }
}

/// For whoever looks into a find.
template <typename World>
void show(const World& world) {
  for (const std::string& line : world.log) std::fprintf(stderr, "[%s] ", line.c_str());
  for (const long long value : stateOf(world)) std::fprintf(stderr, "%lld ", value);
  std::fputc('\n', stderr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  RealWorld real(Input(data, size));
  ModelWorld model(Input(data, size));
  for (int commands = 0; commands < 60 && !real.input.empty(); ++commands) {
    commandFromOutside(real);
    commandFromOutside(model);
    FUZZ_REQUIRE(real.input.left() == model.input.left());
    if (real.log != model.log || stateOf(real) != stateOf(model)) {
      show(real);
      show(model);
    }
    FUZZ_REQUIRE(real.log == model.log);
    FUZZ_REQUIRE(stateOf(real) == stateOf(model));
  }
  return 0;
}
