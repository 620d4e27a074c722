#include <Korvo/Scheduler.h>
#include <Korvo/assertion.h>

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cfloat>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <utility>

#include "DestructionWatch.h"

// Time limits and run times are the same on every word size only if no operation keeps more
// precision than a double.
static_assert(FLT_EVAL_METHOD == 0, "compile this file with -msse2 -mfpmath=sse");

namespace Korvo {

namespace {

constexpr const char* kSourceFile = "src/Scheduler.cpp";

// ---------------------------------------------------------------------------------------------
// Traces

constexpr unsigned int kInvokeLevel = 6;
constexpr unsigned int kRequestLevel = 8;
constexpr unsigned int kQueueLevel = 9;

/// A trace for which there is no memory is left out: tracing changes nothing of what is traced.
/// What the channel throws is its own affair, and comes out.
template <typename Print>
[[gnu::noinline, gnu::cold]] void sendTrace(Velto::DebugChannel& channel, unsigned int level,
                                            unsigned int line, const char* function, Print print) {
  std::optional<std::ostringstream> text;
  try {
    text.emplace();
    text->imbue(std::locale::classic());
    text->precision(12);
    print(*text);
  } catch (const std::bad_alloc&) {
    return;
  }
  if (text->good()) channel.trace(*text, level, kSourceFile, line, function);
}

/// Sends what `print` writes if the level is on; nothing is built otherwise.
template <typename Print>
void trace(const Velto::DebugSupport& debug, unsigned int level, const char* function, Print print,
           unsigned int line = __builtin_LINE()) {
  Velto::DebugChannel* channel = debug.channel();
  if (channel == nullptr || (channel->levelMask() >> level & 1U) == 0) return;
  sendTrace(*channel, level, line, function, print);
}

/// How traces tell units and schedulers apart: the low 28 bits of the address.
int id(const void* object) {
  return static_cast<int>(reinterpret_cast<std::uintptr_t>(object) & 0x0FFFFFFF);
}

// ---------------------------------------------------------------------------------------------
// Time

constexpr long kNanosecondsPerSecond = 1'000'000'000;

/// Sum and difference that wrap where the system's counters do.
long wrappingSum(long a, long b) {
  return static_cast<long>(static_cast<unsigned long>(a) + static_cast<unsigned long>(b));
}
std::int32_t wrappingDifference(long a, long b) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

/// Field by field. A sum of exactly 1,000,000,000 nanoseconds is kept as it is, on purpose: only
/// more than that carries a second.
std::timespec sliceEnd(const std::timespec& start, const std::timespec& slice) {
  std::timespec end{};
  end.tv_sec = wrappingSum(start.tv_sec, slice.tv_sec);
  end.tv_nsec = wrappingSum(start.tv_nsec, slice.tv_nsec);
  if (end.tv_nsec > kNanosecondsPerSecond) {
    end.tv_sec = wrappingSum(end.tv_sec, 1);
    end.tv_nsec -= kNanosecondsPerSecond;
  }
  return end;
}

/// In 32-bit arithmetic, on purpose: what lasts longer than 35 minutes wraps.
std::int32_t elapsedMicroseconds(const std::timespec& start, const std::timespec& end) {
  const std::int32_t seconds = wrappingDifference(end.tv_sec, start.tv_sec);
  const std::int32_t nanoseconds = wrappingDifference(end.tv_nsec, start.tv_nsec);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds) * 1'000'000U +
                                   static_cast<std::uint32_t>(nanoseconds / 1'000));
}

/// Whether elapsedMicroseconds() gives 0: true of most turns, and found out in fewer steps. Times
/// that lie the other way round are left to it.
bool withinAMicrosecond(const std::timespec& start, const std::timespec& end) {
  return end.tv_sec == start.tv_sec &&
         static_cast<unsigned long>(end.tv_nsec) - static_cast<unsigned long>(start.tv_nsec) <
             1'000;
}

double seconds(const std::timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::timespec readClockOrExit() {
  std::timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC_RAW, &now) != 0) {
    std::fputs("gettime failure in Schedulable::run()\n", stderr);
    std::fflush(stderr);
    std::exit(-1);
  }
  return now;
}

/// What an override of pauseTime() may return: anything. The fraction of a nanosecond is cut off,
/// and what a timespec cannot hold becomes a request that the system refuses.
long pauseNanoseconds(float pauseTime) {
  if (pauseTime == 0.005F) return 5'000'000;
  constexpr double kLowest = static_cast<double>(std::numeric_limits<long>::min());
  const double nanoseconds = static_cast<double>(pauseTime) * 1e9;
  if (nanoseconds >= kLowest && nanoseconds < -kLowest) return static_cast<long>(nanoseconds);
  return nanoseconds > 0.0 ? std::numeric_limits<long>::max() : std::numeric_limits<long>::min();
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Schedulable

Schedulable::Schedulable(const std::string& name, const KoPtr<Scheduler>& scheduler,
                         const std::timespec& timeSlice)
    : name_(name), timeSlice_(timeSlice), scheduler_(scheduler) {}

Schedulable& Schedulable::operator=(const Schedulable& other) {
  if (&other == this) return *this;
  if (entry_ != nullptr && scheduler_ != nullptr) mayLeavePlaceIn(*scheduler_);
  name_ = other.name_;
  schedulingEnabled_ = other.schedulingEnabled_;
  scheduler_ = other.scheduler_;
  invocations_ = 0;
  totalRunTime_ = 0.0;
  runnable_ = false;
  clientReady_ = false;
  running_ = false;
  disabled_ = false;
  entry_ = nullptr;
  return *this;
}

Schedulable::~Schedulable() {
  detail::DestructionWatch::notify(watches_);
  const bool queued = entry_ != nullptr && scheduler_ != nullptr;
  Schedulable::cleanup();
  if (queued) scheduler_->entries_.erase(this);  // an overridden unschedule() may keep it
  for (const std::shared_ptr<Scheduler*>& scheduler : leftBehindIn_) {
    if (*scheduler != nullptr) (*scheduler)->withdraw(this);
  }
}

void Schedulable::cleanup() {
  if (entry_ == nullptr) return;
  entry_->unit = nullptr;
  entry_->valid = false;
  entry_ = nullptr;
  if (scheduler_ != nullptr) scheduler_->unschedule(this);
}

void Schedulable::mayLeavePlaceIn(Scheduler& scheduler) {
  if (scheduler.self_ == nullptr) scheduler.self_ = std::make_shared<Scheduler*>(&scheduler);
  std::erase_if(leftBehindIn_, [](const auto& left) { return *left == nullptr; });
  if (std::find(leftBehindIn_.begin(), leftBehindIn_.end(), scheduler.self_) ==
      leftBehindIn_.end()) {
    leftBehindIn_.push_back(scheduler.self_);
  }
}

void Schedulable::clearScheduler() {
  runnableIs(false);
  cleanup();
  scheduler_.reset();
}

void Schedulable::clientReadyIs(bool ready) {
  trace(debug_, kRequestLevel, "clientReadyIs", [this, ready](std::ostream& out) {
    out << "virtual void Korvo::Schedulable::clientReadyIs(bool) " << name_ << " ready: " << ready;
  });
  if (ready == clientReady_) return;
  clientReady_ = ready;
  onClientReady();
  if (ready) askForPlace(&clientReady_);
}

/// Undoes the change that asked for a place which could not be made.
void Schedulable::takeBack(bool& changedFlag) {
  changedFlag = false;
  if (&changedFlag == &clientReady_) onClientReady();
}

void Schedulable::onClientReady() {}

void Schedulable::invoke(bool arg) {
  trace(debug_, kInvokeLevel, "invoke",
        [&](std::ostream& out) { out << " invoking " << name_ << "(unit: " << id(this) << ")"; });
  if (disabled_) {
    throw KoSchedulableDisabled("A schedulable unit (" + name_ +
                                ") cannot be invoked after it is disabled"
                                " (probably threw an exception on its last invocation)");
  }
  ++invocations_;
  const int ret = clock_gettime(CLOCK_MONOTONIC_RAW, &startTime_);
  KORVO_ASSERT(!ret, "!ret", kSourceFile, "void Korvo::Schedulable::invoke(bool)");
  deadline_ = sliceEnd(startTime_, timeSlice_);
  running_ = true;
  runnableIs(false);
  {
    const detail::DestructionWatch watch(watches_);
    run(arg);
    if (watch.destroyed()) return;
  }
  running_ = false;
  std::timespec end;
  if (clock_gettime(CLOCK_MONOTONIC_RAW, &end) != 0) return;  // no time that could be counted
  if (withinAMicrosecond(startTime_, end)) return;
  totalRunTime_ += elapsedMicroseconds(startTime_, end) / 1e6;
}

bool Schedulable::shouldYield() const {
  std::timespec now = startTime_;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);  // on failure no time has passed
  if (now.tv_sec != deadline_.tv_sec) return now.tv_sec > deadline_.tv_sec;
  return now.tv_nsec > deadline_.tv_nsec;
}

// ---------------------------------------------------------------------------------------------
// Scheduler: the queue

namespace {

/// A queue that was longer than kShortQueue and has become kMuchLonger times as short gives memory
/// back. Each time costs about as much as its entries have cost already.
constexpr std::size_t kShortQueue = 32;
constexpr std::size_t kMuchLonger = 8;

}  // namespace

Scheduler::Scheduler(const std::string& name) : name_(name) {
  entries_.max_load_factor(0.5F);  // most buckets then have one unit or none, which is foreseen
}

Scheduler::~Scheduler() {
  detail::DestructionWatch::notify(watches_);
  if (self_ != nullptr) *self_ = nullptr;
  active_ = false;
  triggerSuppressed_ = false;
  entries_.clear();
  while (!runQueue_.empty()) popUnit();
}

void Scheduler::triggerScheduler() {}

void Scheduler::runnableIs(Schedulable* unit, bool runnable) {
  bool* const changedFlag = std::exchange(unit->changedFlag_, nullptr);
  bool wake = false;
  try {
    trace(debug_, kQueueLevel, "runnableIs", [unit, runnable](std::ostream& out) {
      out << " " << unit->name_
          << " virtual void Korvo::Scheduler::runnableIs(Korvo::Schedulable*, bool) marking "
          << id(unit) << " " << runnable;
    });
    if (!runnable) return;
    if (!unit->schedulingEnabled_) return;
    wake = active_ && runQueue_.empty();
    if (unit->scheduler_.get() != this || !enqueue(unit)) {
      trace(debug_, kQueueLevel, "runnableIs", [this, unit](std::ostream& out) {
        out << "  not scheduled by " << id(this) << " on scheduler " << id(unit->scheduler_.get())
            << " count: " << entries_.count(unit);
      });
      return;
    }
  } catch (...) {
    if (changedFlag != nullptr) unit->takeBack(*changedFlag);
    throw;
  }
  if (wake && !triggerSuppressed_) triggerScheduler();
}

/// Gives the unit a place at the back, unless it has one.
bool Scheduler::enqueue(Schedulable* unit) {
  const auto [place, isNew] = entries_.try_emplace(unit, nullptr);
  if (!isNew) return false;
  try {
    trace(debug_, kQueueLevel, "runnableIs", [this](std::ostream& out) {
      out << "  adding to runqueue (" << runQueue_.size() << " elts)";
    });
    if (unit->entry_ != nullptr || !unit->leftBehindIn_.empty()) unit->mayLeavePlaceIn(*this);
    auto entry = std::make_unique<RunnableEntry>();
    entry->valid = true;
    entry->unit = unit;
    runQueue_.push_back(entry.get());
    unit->entry_ = place->second = entry.release();
  } catch (...) {
    entries_.erase(unit);
    throw;
  }
  return true;
}

void Scheduler::unschedule(Schedulable* unit) {
  entries_.erase(unit);
}

/// Marks dead every place that the unit has in the queue, and forgets the unit.
void Scheduler::withdraw(Schedulable* unit) {
  bool found = false;
  for (RunnableEntry* entry : runQueue_) {
    if (entry->unit != unit) continue;
    entry->unit = nullptr;
    entry->valid = false;
    found = true;
  }
  if (found) unschedule(unit);
  entries_.erase(unit);
}

/// Takes out the front entry; gives its unit, null if that withdrew.
Schedulable* Scheduler::popUnit() {
  const std::unique_ptr<const RunnableEntry> entry(runQueue_.front());
  Schedulable* const unit = entry->unit;
  if (unit != nullptr) entries_.erase(unit);
  runQueue_.pop_front();
  if (unit == nullptr || !entry->valid) return nullptr;
  unit->entry_ = nullptr;
  return unit;
}

/// Makes the containers as small as what they hold, after they held much more.
void Scheduler::giveBackMemory() {
  const std::size_t longest = std::exchange(longestQueue_, runQueue_.size());
  try {
    // As shrink_to_fit() does it, which g++ 12 does not compile with _GLIBCXX_DEBUG.
    std::deque<RunnableEntry*>(runQueue_.begin(), runQueue_.end()).swap(runQueue_);
    // Buckets beyond what the map grew to were reserved.
    if (entries_.bucket_count() <= 8 * longest) entries_.rehash(0);
  } catch (const std::bad_alloc&) {
    return;  // the rest stays as it is
  }
}

// ---------------------------------------------------------------------------------------------
// Scheduler: the loop

float Scheduler::pauseTime() {
  return 0.005F;
}

int Scheduler::pauseScheduler(timespec* pause) {
  return nanosleep(pause, nullptr);
}

void Scheduler::run() {
  run(0, 0.0, false);
}

void Scheduler::run(int count, double timeLimit, bool exitOnQuiescence) {
  runLoop(count, timeLimit, exitOnQuiescence, nullptr);
}

void Scheduler::runLoop(int count, double timeLimit, bool exitOnQuiescence,
                        void (*betweenUnits)(Scheduler&)) {
  trace(debug_, kRequestLevel, "run", [=, this](std::ostream& out) {
    out << "virtual void Korvo::Scheduler::run(int, double, bool) " << name_ << "(" << count << ","
        << timeLimit << ", " << exitOnQuiescence << ")";
  });
  // The seconds stay 0, on purpose: pauses of a second or more are refused by the system.
  std::timespec pause{0, pauseNanoseconds(pauseTime())};
  const std::timespec start = timeLimit > 0.0 ? readClockOrExit() : std::timespec{};
  const detail::DestructionWatch watch(watches_);
  if (betweenUnits != nullptr && active_) betweenUnits(*this);
  if (watch.destroyed()) return;
  const int limit = count == -1 ? eligibleUnits() : std::max(count, 0);
  int counter = 0;

  while (!watch.destroyed() && active_) {
    if (timeLimit > 0.0 && seconds(readClockOrExit()) - seconds(start) >= timeLimit) {
      trace(debug_, kQueueLevel, "run",
            [this](std::ostream& out) { out << " " << name_ << " exited due to time limit."; });
      return;
    }
    if (count != 0 && counter >= limit) {
      trace(debug_, kQueueLevel, "run", [=, this](std::ostream& out) {
        out << " " << name_ << " exited due to count:" << counter << " >= expected: " << limit;
      });
      return;
    }
    if (runQueue_.empty()) {
      if (exitOnQuiescence) {
        trace(debug_, kQueueLevel, "run",
              [this](std::ostream& out) { out << " " << name_ << " exited due to quiescence."; });
        return;
      }
      pauseOrExit(pause);
      continue;
    }
    const std::size_t length = runQueue_.size();
    longestQueue_ = std::max(longestQueue_, length);
    Schedulable* unit = popUnit();
    if (length < longestQueue_ / kMuchLonger && longestQueue_ > kShortQueue) giveBackMemory();
    if (unit == nullptr || !eligible(*unit)) continue;
    unit->invoke(false);
    if (count != 0) ++counter;
    if (betweenUnits != nullptr && !watch.destroyed()) betweenUnits(*this);
  }
}

void Scheduler::pauseOrExit(std::timespec& pause) {
  const int result = pauseScheduler(&pause);
  if (result == 0) return;
  const int error = errno;
  std::fprintf(stderr, "pauseScheduler() returned %d with errno: %d\n", result, error);
  std::exit(-1);
}

bool Scheduler::eligible(const Schedulable& unit) {
  return unit.runnable_ && unit.clientReady_ && !unit.disabled_;
}

/// Goes through the queue: an overridden unschedule() may keep units in the map that are gone.
int Scheduler::eligibleUnits() const {
  return static_cast<int>(
      std::count_if(runQueue_.begin(), runQueue_.end(), [this](const RunnableEntry* entry) {
        if (!entry->valid || !eligible(*entry->unit)) return false;
        const auto place = entries_.find(entry->unit);
        return place != entries_.end() && place->second == entry;
      }));
}

// ---------------------------------------------------------------------------------------------
// Scheduler: what it does not offer

Velto::Platform::TimerControl* Scheduler::getTimerControl(Velto::Platform::TimeoutHandler*) {
  KORVO_ASSERT(false, "0", kSourceFile,
               "virtual Velto::Platform::TimerControl* "
               "Korvo::Scheduler::getTimerControl(Velto::Platform::TimeoutHandler*)");
  return nullptr;
}

Velto::Platform::FdControl* Scheduler::getFdControl(Velto::Platform::FdEventHandler*) {
  KORVO_ASSERT(false, "0", kSourceFile,
               "virtual Velto::Platform::FdControl* "
               "Korvo::Scheduler::getFdControl(Velto::Platform::FdEventHandler*)");
  return nullptr;
}

}  // namespace Korvo
