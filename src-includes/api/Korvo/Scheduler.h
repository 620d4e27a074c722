#pragma once

// Cooperative scheduling: units of work that take turns on one thread.
//
//   struct Feeder : Korvo::Schedulable {
//     using Schedulable::Schedulable;
//     void run(bool) override {
//       while (feedOne() && !shouldYield()) {}
//       if (moreToFeed()) runnableIs(true);  // queued again, behind the others
//     }
//   };
//   const Korvo::KoPtr<Korvo::Scheduler> scheduler(new Korvo::Scheduler("main"));
//   Feeder feeder("feeder", scheduler);
//   feeder.clientReadyIs(true);
//   feeder.runnableIs(true);
//   scheduler->run(0, 0.0, true);  // until there is nothing left to do
//
// A scheduler, its units and all their operations are used from the one thread that runs the
// scheduler. Nothing is pre-empted: a unit gets a time slice per invocation and asks shouldYield()
// whether it is used up.
//
// What a unit may destroy while it works: itself, other units, and with them the last link to its
// scheduler. Nothing of what is destroyed is touched afterwards, and a loop whose scheduler is gone
// returns.

#include <Korvo/export.h>
#include <Korvo/korvo_types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#pragma GCC visibility push(default)
#include <Velto/DebugSupport.h>
#include <Velto/Platform.h>
#pragma GCC visibility pop

namespace Korvo {

static_assert(sizeof(std::time_t) == sizeof(long),
              "KorvoAPI is built with a time_t as wide as long: compile without _TIME_BITS=64");

class Schedulable;
class Scheduler;

namespace detail {
class DestructionWatch;
}

/// One place in a scheduler's run queue. Belongs to the scheduler, which makes it with new and
/// deletes it when it leaves the queue.
struct RunnableEntry {
  bool valid = false;           ///< false once the unit withdrew
  Schedulable* unit = nullptr;  ///< the queued unit; null once it withdrew
};

/// A unit of cooperative work. It is queued while it is runnable (it has work) and client-ready
/// (whatever it serves is ready for it), and it is never invoked while it is disabled.
///
/// Destroying a queued unit withdraws it.
class KORVO_API Schedulable {
 public:
  static constexpr std::timespec defaultTimeSlice{0, 10'000'000};

  /// A unit that may be scheduled, is neither runnable nor client-ready, and has no debug channel.
  /// `scheduler` may be null; the unit shares it.
  // NOLINTNEXTLINE(google-explicit-constructor): a name alone makes a unit
  Schedulable(const std::string& name, const KoPtr<Scheduler>& scheduler = nullptr,
              const std::timespec& timeSlice = defaultTimeSlice);
  Schedulable(const Schedulable&) = delete;

  /// Takes over name, scheduler and whether scheduling is enabled; the counters and the other flags
  /// start anew. Time slice, start time, deadline and debug channel stay as they are. Nothing is
  /// queued or unqueued: a place in a queue stays there and still gets the unit its turn.
  Schedulable& operator=(const Schedulable& other);

  virtual ~Schedulable();

  /// Withdraws the unit from its scheduler's run queue; its place is dropped when its turn comes.
  virtual void cleanup();

  /// Makes the unit not runnable, withdraws it and lets go of the scheduler.
  virtual void clearScheduler();

  /// Sets whether the unit's client is ready. A unit that is not ready keeps its place in the queue
  /// and is passed over when its turn comes. Throws std::bad_alloc, with the unit not ready again
  /// and onClientReady() told of both changes, if there is no memory for its place.
  virtual void clientReadyIs(bool ready);

  /// Called on every change of clientReady(); does nothing by default.
  virtual void onClientReady();

  /// The work: returns once shouldYield() is true or nothing is left to do. `arg` comes from
  /// invoke(). An exception goes through the scheduler's loop to its caller, and the unit keeps
  /// running() set.
  virtual void run(bool arg) = 0;

  /// Runs the unit once, on the spot; the scheduler's loop passes false. Throws
  /// KoSchedulableDisabled, with the unit as before, if it is disabled. Stops the process if the
  /// clock cannot be read.
  void invoke(bool arg);

  /// Sets whether the unit has work. It has no more as soon as it is invoked, and asks for another
  /// turn by setting this again. Throws std::bad_alloc, with the unit not runnable, if there is no
  /// memory for its place in the queue.
  void runnableIs(bool runnable);

  /// Asks the scheduler to queue the unit if it is runnable and client-ready.
  void _considerRunnability();

  /// Whether the time slice of the current invocation is over; not yet at the deadline itself.
  bool shouldYield() const;

  const std::string& name() const { return name_; }
  const KoPtr<Scheduler>& scheduler() const { return scheduler_; }
  bool runnable() const { return runnable_; }
  bool clientReady() const { return clientReady_; }
  /// Whether the work is under way, or ended with an exception the last time.
  bool running() const { return running_; }

  /// How long one invocation may run before shouldYield() turns true.
  const std::timespec& timeSlice() const { return timeSlice_; }
  void timeSliceIs(const std::timespec& timeSlice) { timeSlice_ = timeSlice; }

  /// Whether the scheduler accepts the unit into its queue.
  bool schedulingEnabled() const { return schedulingEnabled_; }
  void schedulingEnabledIs(bool enabled) { schedulingEnabled_ = enabled; }

  /// Whether the unit must not be invoked any more. Set by whoever catches what a unit throws.
  bool disabled() const { return disabled_; }
  void disabledIs(bool disabled) { disabled_ = disabled; }

  /// Number of invocations that reached the work.
  std::uint32_t invocations() const { return invocations_; }
  /// Seconds spent in invocations that returned.
  double totalRunTime() const { return totalRunTime_; }

  /// When the current or last invocation started and when its time slice ends, on the clock
  /// CLOCK_MONOTONIC_RAW. The deadline may hold 1,000,000,000 nanoseconds.
  const std::timespec& startTime() const { return startTime_; }
  const std::timespec& deadline() const { return deadline_; }

  /// The place in the run queue, null while there is none; valid until the unit's turn.
  RunnableEntry* entry() const { return entry_; }

  /// Sends the unit's traces to `channel`, which may be null; the unit deletes it if `owned`.
  void debugChannelIs(Velto::DebugChannel* channel, bool owned) {
    debug_.channelIs(channel, owned);
  }

 protected:
  std::string name_;
  std::timespec timeSlice_;
  bool schedulingEnabled_ = true;
  std::uint32_t invocations_ = 0;
  double totalRunTime_ = 0.0;
  KoPtr<Scheduler> scheduler_;
  bool runnable_ = false;
  bool clientReady_ = false;
  bool running_ = false;
  bool disabled_ = false;
  RunnableEntry* entry_ = nullptr;
  std::timespec startTime_{};
  std::timespec deadline_{};
  Velto::DebugSupport debug_;

 private:
  friend class Scheduler;

  void askForPlace(bool* changedFlag);
  void takeBack(bool& changedFlag);
  void mayLeavePlaceIn(Scheduler& scheduler);

  /// The flag whose change asks the scheduler for a place, until that has seen the request.
  bool* changedFlag_ = nullptr;
  /// The schedulers whose queues may hold places of the unit that it knows nothing of: assignment
  /// and unschedule() leave them behind. A scheduler that is gone has set the pointer to null.
  std::vector<std::shared_ptr<Scheduler*>> leftBehindIn_;
  detail::DestructionWatch* watches_ = nullptr;
};

/// A first-in, first-out queue of units, and the loop that invokes them. Units share their
/// scheduler; one that is destroyed while units are queued leaves them without a place.
///
/// A subclass may queue and run units by itself. Each entry in the queue is its unit's entry() and
/// the value of the unit's key in the map, until it leaves the queue or is marked dead; a key alone
/// makes a unit count as queued.
class KORVO_API Scheduler {
 public:
  /// An active scheduler without a debug channel.
  explicit Scheduler(const std::string& name);
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  virtual ~Scheduler();

  /// Length of one idle pause in seconds, asked for once per run. One second or more, or less than
  /// zero, makes the default pauseScheduler() fail.
  virtual float pauseTime();

  /// Waits once while there is nothing to do: sleeps for `pause`. Any result but 0 ends the
  /// process.
  virtual int pauseScheduler(timespec* pause);

  /// Called when a unit is queued into the empty queue of an active scheduler; does nothing by
  /// default. An event loop that drives the scheduler sees to it here that run() is called soon.
  virtual void triggerScheduler();

  /// Queues the unit, unless it is queued already, belongs to another scheduler or has its
  /// scheduling disabled. Does nothing if `runnable` is false. Throws std::bad_alloc with the queue
  /// as before.
  virtual void runnableIs(Schedulable* unit, bool runnable);

  /// Forgets that the unit is queued; its place has been marked dead before, by its cleanup(). What
  /// an override keeps in the map stays there: the unit cannot be queued until it is forgotten.
  virtual void unschedule(Schedulable* unit);

  /// Runs until the scheduler is deactivated.
  virtual void run();

  /// Invokes queued units in the order of their arrival, until one of these ends it:
  /// - `count` invocations; 0 for no limit, -1 for as many as there are eligible units in the queue
  ///   at the start, any other negative value for none;
  /// - `timeLimit` seconds, 0 or less for no limit;
  /// - an empty queue, if `exitOnQuiescence`; the loop pauses otherwise;
  /// - activeIs(false).
  /// All are looked at between invocations only. What a unit throws leaves the loop at once; the
  /// unit has left the queue by then. Ends the process if the clock or the pause fails.
  virtual void run(int count, double timeLimit, bool exitOnQuiescence);

  /// Controls for timers and file descriptors: this scheduler has none and stops the process.
  virtual Velto::Platform::TimerControl* getTimerControl(Velto::Platform::TimeoutHandler* handler);
  virtual Velto::Platform::FdControl* getFdControl(Velto::Platform::FdEventHandler* handler);

  const std::string& name() const { return name_; }

  /// Whether the loop runs; cleared from a unit's work, it stops before the next unit.
  bool active() const { return active_; }
  void activeIs(bool active) { active_ = active; }

  /// Whether queueing never calls triggerScheduler().
  bool triggerSuppressed() const { return triggerSuppressed_; }
  void triggerSuppressedIs(bool suppressed) { triggerSuppressed_ = suppressed; }

  /// Sends the scheduler's traces to `channel`, which may be null; the scheduler deletes it if
  /// `owned`.
  void debugChannelIs(Velto::DebugChannel* channel, bool owned) {
    debug_.channelIs(channel, owned);
  }

 protected:
  // NOLINTNEXTLINE(bugprone-reserved-identifier): the host's tools know it by this name
  class __veltoDebug : public Velto::DebugSupport {};

  std::string name_;
  std::deque<RunnableEntry*> runQueue_;
  std::unordered_map<Schedulable*, RunnableEntry*> entries_;
  bool active_ = true;
  bool triggerSuppressed_ = false;
  __veltoDebug debug_;

  /// run(), with a call of `betweenUnits`, unless it is null, before the first and after each
  /// invocation: for a scheduler that has more to look after than its units.
  void runLoop(int count, double timeLimit, bool exitOnQuiescence,
               void (*betweenUnits)(Scheduler& scheduler));

 private:
  friend class Schedulable;

  bool enqueue(Schedulable* unit);
  void withdraw(Schedulable* unit);
  Schedulable* popUnit();
  void giveBackMemory();
  void pauseOrExit(std::timespec& pause);
  static bool eligible(const Schedulable& unit);
  int eligibleUnits() const;

  /// The longest that the queue was since memory was last given back.
  std::size_t longestQueue_ = 0;
  /// Points to this scheduler, for units that outlive it.
  std::shared_ptr<Scheduler*> self_;
  detail::DestructionWatch* watches_ = nullptr;
};

// ---------------------------------------------------------------------------------------------
// Inline members

inline void Schedulable::runnableIs(bool runnable) {
  if (runnable == runnable_) return;
  runnable_ = runnable;
  askForPlace(&runnable_);
}

inline void Schedulable::_considerRunnability() {
  askForPlace(nullptr);
}

inline void Schedulable::askForPlace(bool* changedFlag) {
  if (!runnable_ || !clientReady_ || scheduler_ == nullptr) return;
  changedFlag_ = changedFlag;
  scheduler_->runnableIs(this, true);
}

}  // namespace Korvo
