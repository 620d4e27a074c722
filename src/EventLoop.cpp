#include <Korvo/EventLoop.h>
#include <Korvo/assertion.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "ownDescriptor.h"
#include "stopSignals.h"

namespace Korvo {

namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using Velto::Platform::FdEventHandler;
using Work = std::function<void()>;

constexpr const char* kSourceFile = "src/EventLoop.cpp";

/// How long handlers are told while units wait, and how long units then run before the next look at
/// the events: twice as long as the last one took, within these limits. A look takes a microsecond
/// or two where nothing has happened.
constexpr nanoseconds kHandlersTurn = 250us;
constexpr nanoseconds kUnitsShortestTurn = 100us;
constexpr nanoseconds kUnitsLongestTurn = 1ms;

constexpr nanoseconds kNever = nanoseconds::max();

/// The clock of the scheduler, for turns and limits.
nanoseconds now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &time);
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

/// The clock of the system's waits, for timers: the two may drift apart.
nanoseconds timerNow() {
  return nanoseconds(static_cast<std::int64_t>(uv_hrtime()));
}

/// When a time that begins now is over.
nanoseconds endOf(double timeLimit) {
  constexpr double kMost = 1e9;
  if (!(timeLimit > 0.0)) return kNever;
  return now() + nanoseconds(static_cast<std::int64_t>(std::min(timeLimit, kMost) * 1e9));
}

void check(int result, const char* call) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), call);
}

// ---------------------------------------------------------------------------------------------
// What is told

/// Something to tell a handler, in a list of such things. Handlers are told when libuv has
/// finished its round: they may throw, run the loop and destroy everything, of which libuv's own
/// callbacks may do nothing.
class Event {
 public:
  Event() = default;
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  virtual ~Event() { withdraw(); }

  virtual void tell() = 0;

  bool listed() const { return next_ != this; }
  /// Appends to the list of which this is the head. What is in a list keeps its place.
  void append(Event& event) noexcept {
    if (event.listed()) return;
    event.previous_ = previous_;
    event.next_ = this;
    previous_->next_ = &event;
    previous_ = &event;
  }
  void withdraw() noexcept {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    previous_ = next_ = this;
  }
  /// The next one of the list; the head of an empty list is its own.
  Event* next() const { return next_; }

 private:
  Event* previous_ = this;
  Event* next_ = this;
};

/// The head of a list, which is never told.
class EventList : public Event {
 public:
  bool empty() const { return !listed(); }

 private:
  void tell() override {}
};

class Timer;
/// Timers that have not run out, in the order of their times.
using Timers = std::multimap<nanoseconds, Timer*>;

class Timer : public Event {
 public:
  Timer(Timers& timers, Velto::Platform::TimeoutHandler* handler)
      : timers_(timers), handler_(handler) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() override { cancel(); }

  void set(nanoseconds delay) {
    const nanoseconds time = timerNow();
    const nanoseconds due = time + std::clamp(delay, nanoseconds(0), kNever - time);
    const Timers::iterator place = timers_.emplace(due, this);
    cancel();
    place_ = place;
  }

  void cancel() {
    withdraw();
    if (place_ != timers_.end()) timers_.erase(place_);
    place_ = timers_.end();
  }

  bool pending() const { return place_ != timers_.end() || listed(); }

  /// Moves the timers that have run out to the list of what is to be told.
  static void collect(Timers& timers, EventList& ready) {
    const nanoseconds time = timerNow();
    while (!timers.empty() && timers.begin()->first <= time) {
      Timer& timer = *timers.begin()->second;
      timers.erase(std::exchange(timer.place_, timers.end()));
      ready.append(timer);
    }
  }

 private:
  void tell() override { handler_->onTimeout(); }

  Timers& timers_;
  Velto::Platform::TimeoutHandler* handler_;
  Timers::iterator place_ = timers_.end();
};

/// One of the two things that a descriptor can be ready for.
class Readiness : public Event {
 public:
  Readiness(FdEventHandler* handler, void (FdEventHandler::*told)())
      : handler_(handler), told_(told) {}

 private:
  void tell() override { (handler_->*told_)(); }

  FdEventHandler* handler_;
  void (FdEventHandler::*told_)();
};

/// A descriptor that is watched, or none.
struct Watch {
  explicit Watch(FdEventHandler* handler)
      : readable(handler, &FdEventHandler::onReadable),
        writable(handler, &FdEventHandler::onWritable) {}

  int polled() const { return standIn.get() == -1 ? fd : standIn.get(); }

  int fd = -1;
  /// What the system polls in place of a device that is always ready.
  detail::OwnDescriptor standIn;
  /// Tells the watch from those that its number had before.
  std::uint32_t serial = 0;
  /// EPOLLIN, EPOLLOUT, both or neither.
  std::uint32_t wanted = 0;
  Readiness readable;
  Readiness writable;
};

/// Work that other threads have posted: some that they still add to, and some that is being told.
class PostedWork : public Event {
 public:
  explicit PostedWork(EventList& ready) : ready_(ready) {}

  /// Calls `wake` if there was none, while the loop's thread cannot get at the work, which might
  /// destroy the loop.
  template <typename Wake>
  void add(Work work, Wake wake) {
    std::list<Work> one;
    one.push_back(std::move(work));
    const std::lock_guard lock(mutex_);
    added_.splice(added_.end(), one);
    if (added_.size() == 1) wake();
  }

  void collect() {
    {
      const std::lock_guard lock(mutex_);
      told_.splice(told_.end(), added_);
    }
    if (!told_.empty()) ready_.append(*this);
  }

  void clear() {
    collect();
    withdraw();
    told_.clear();
  }

 private:
  void tell() override {
    std::list<Work> work;
    work.splice(work.begin(), told_, told_.begin());
    if (!told_.empty()) ready_.append(*this);  // handlers have their turn in between
    work.front()();
  }

  EventList& ready_;
  std::list<Work> told_;
  std::mutex mutex_;
  std::list<Work> added_;
};

template <typename Handle>
uv_handle_t* base(Handle* handle) {
  return reinterpret_cast<uv_handle_t*>(handle);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Looking and waiting

/// libuv's loop, and what is to be told. Shared by the event loop and its controls, so that these
/// may be destroyed in any order, and by every function that tells handlers.
///
/// Descriptors are polled here, libuv waits for the poll as a whole: libuv would call back for
/// everything that is ready some fifty times over before a handler could do something about it.
class detail::Events {
 public:
  explicit Events(EventLoop& owner) : owner_(&owner) {
    const StandardNumbersTaken taken;
    epoll_ = newEpoll();
    wake_ = newEventDescriptor(0);
    pollCounter(kWakeKey, wake_.get());
    check(uv_loop_init(&loop_), "uv_loop_init");
    const int result = uv_poll_init(&loop_, &poll_, epoll_.get());
    if (result < 0) uv_loop_close(&loop_);
    check(result, "uv_poll_init");
    uv_timer_init(&loop_, &alarm_);
    uv_prepare_init(&loop_, &beforeWait_);
    poll_.data = beforeWait_.data = this;
    uv_prepare_start(&beforeWait_, [](uv_prepare_t* handle) {
      // The host's timers, which libuv calls back before it waits, may have queued a unit.
      if (!static_cast<Events*>(handle->data)->idle()) uv_stop(handle->loop);
    });
    startPoll();
  }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  ~Events() {
    if (inherited()) forkLoop();
    uv_close(base(&poll_), nullptr);
    uv_close(base(&alarm_), nullptr);
    uv_close(base(&beforeWait_), nullptr);
    uv_run(&loop_, UV_RUN_NOWAIT);
    KORVO_ASSERT(uv_loop_close(&loop_) == 0, "uv_loop_close(&loop_) == 0", kSourceFile,
                 "Korvo::detail::Events::~Events()");
  }

  uv_loop_t* loop() { return &loop_; }

  void lookIsDue() { nextLook_ = nanoseconds::min(); }

  /// Called before the first unit and after each.
  void lookIfDue() {
    const nanoseconds begin = now();
    const bool unitsWait = !owner_->runQueue_.empty();
    if (begin < nextLook_ && (unitsWait || ready_.empty())) return;
    round(UV_RUN_NOWAIT);
    tell(begin);
  }

  /// Waits for something to tell, and tells it.
  void wait() {
    do {
      const bool waits = idle();
      if (waits) setAlarm();
      round(waits ? UV_RUN_ONCE : UV_RUN_NOWAIT);
    } while (idle());
    woken_ = false;
    tell(now());
  }

  /// Ends the wait under way, or else the next one. In a child of a fork nobody waits.
  void wake() {
    if (inherited()) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof(one));
  }

  void stop() {
    stopped_ = true;
    wake();
  }

  void post(Work work) {
    posted_.add(std::move(work), [this] { wake(); });
  }

  void stopOnSignals(std::initializer_list<int> signals) {
    own();
    std::list<SignalWatch> watches;
    for (const int signal : signals) watches.emplace_back(signal);
    if (signals_.empty() && !watches.empty()) pollCounter(kSignalKey, SignalWatch::descriptor());
    signals_.splice(signals_.end(), watches);
  }

  /// The event loop is gone: there is nobody to tell any more.
  void abandon() {
    KORVO_ASSERT(!inRound_, "!inRound_", kSourceFile, "virtual Korvo::EventLoop::~EventLoop()");
    owner_ = nullptr;
    signals_.clear();
    posted_.clear();
  }

  bool abandoned() const { return owner_ == nullptr; }

  /// Bounds the waits of one run, and restores the bound of the run around it, which has no say in
  /// a run inside.
  class Limit {
   public:
    Limit(Events& events, double timeLimit)
        : events_(events), outer_(std::exchange(events.end_, endOf(timeLimit))) {}
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
    ~Limit() { events_.end_ = outer_; }

   private:
    Events& events_;
    nanoseconds outer_;
  };

  Timers& timers() { return timers_; }

  /// Begins to watch `fd`, of which nothing is wanted yet.
  void begin(Watch& watch, int fd);
  void end(Watch& watch) noexcept;
  /// What is wanted of the watched descriptor.
  void wantedIs(Watch& watch, std::uint32_t wanted);

 private:
  // Keys of polled descriptors: a watch has its serial and its number, which these have not.
  static constexpr std::uint64_t kWakeKey = ~std::uint64_t{0};
  static constexpr std::uint64_t kSignalKey = kWakeKey - 1;
  static std::uint64_t keyOf(const Watch& watch) {
    return std::uint64_t{watch.serial} << 32 | static_cast<std::uint32_t>(watch.fd);
  }

  /// Whether there is nothing but to wait.
  bool idle() const {
    return ready_.empty() && !woken_ && !abandoned() && owner_->active_ &&
           owner_->runQueue_.empty() && (end_ == kNever || now() < end_);
  }

  /// Lets a wait end when a timer runs out or the limit is reached.
  void setAlarm() {
    nanoseconds time = timers_.empty() ? kNever : timers_.begin()->first;
    const nanoseconds start = timerNow();
    if (end_ != kNever) time = std::min(time, start + (end_ - now()));
    uv_timer_stop(&alarm_);
    if (time == kNever) return;
    // libuv counts whole milliseconds: the first one at which the time is over.
    uv_update_time(&loop_);
    const auto due = static_cast<std::uint64_t>(time / 1ms + 1);
    const std::uint64_t delay = time <= start ? 0 : due - std::min(due, uv_now(&loop_));
    uv_timer_start(
        &alarm_, [](uv_timer_t* timer) { uv_stop(timer->loop); }, delay, 0);
  }

  /// One round of libuv. What has happened is ready to be told afterwards.
  void round(uv_run_mode mode) {
    KORVO_ASSERT(!inRound_, "!inRound_", kSourceFile,
                 "void Korvo::detail::Events::round(uv_run_mode)");
    own();
    inRound_ = true;
    uv_run(&loop_, mode);
    inRound_ = false;

    Timer::collect(timers_, ready_);
    if (std::exchange(polledReady_, false)) poll();
    // After the poll, since what comes from other threads comes before its wake().
    posted_.collect();
    if (stopped_.exchange(false)) owner_->active_ = false;
  }

  void poll();
  Watch* watchOf(std::uint64_t key) const {
    const auto fd = static_cast<std::uint32_t>(key);
    Watch* watch = fd < watches_.size() ? watches_[fd] : nullptr;
    return watch != nullptr && keyOf(*watch) == key ? watch : nullptr;
  }

  /// Tells what is ready. Units that wait have their turn after a while.
  void tell(nanoseconds begin) {
    while (!abandoned() && owner_->active_ && !ready_.empty()) {
      Event& event = *ready_.next();
      event.withdraw();
      event.tell();
      const nanoseconds time = now();
      if (time >= end_) break;
      if (!abandoned() && !owner_->runQueue_.empty() && time - begin >= kHandlersTurn) break;
    }
    const nanoseconds end = now();
    nextLook_ = end + std::clamp(2 * (end - begin), kUnitsShortestTurn, kUnitsLongestTurn);
  }

  // --- After a fork

  /// Whether what is polled is the parent's.
  bool inherited() const { return process_ != getpid(); }

  /// Makes what is polled this process's own.
  void own() {
    if (!inherited()) return;
    forkLoop();
    repoll();
    process_ = getpid();
  }
  void forkLoop() {
    const StandardNumbersTaken taken;
    check(uv_loop_fork(&loop_), "uv_loop_fork");
  }

  /// Polls what is watched with a descriptor that was made anew, under the number of the old one.
  void repoll();

  static OwnDescriptor newEpoll() { return {epoll_create1(EPOLL_CLOEXEC), "epoll_create1"}; }
  /// Polls one of the two descriptors that become ready once more without having been read from.
  void pollCounter(std::uint64_t key, int fd) {
    epoll_event event{EPOLLIN | EPOLLET, {.u64 = key}};
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) check(-errno, "epoll_ctl");
  }
  /// Has libuv wait for what is polled.
  void startPoll() {
    uv_poll_start(&poll_, UV_READABLE, [](uv_poll_t* handle, int, int) {
      static_cast<Events*>(handle->data)->polledReady_ = true;
    });
  }

  EventLoop* owner_;
  std::atomic<pid_t> process_ = getpid();
  OwnDescriptor epoll_;
  OwnDescriptor wake_;
  uv_loop_t loop_;
  uv_poll_t poll_;
  uv_timer_t alarm_;
  uv_prepare_t beforeWait_;

  EventList ready_;
  PostedWork posted_{ready_};
  Timers timers_;
  std::vector<Watch*> watches_;  // under the numbers of their descriptors
  std::uint32_t lastSerial_ = 0;
  std::list<SignalWatch> signals_;

  nanoseconds end_ = kNever;
  nanoseconds nextLook_{};
  std::atomic<bool> stopped_ = false;
  bool inRound_ = false;
  bool polledReady_ = false;
  bool woken_ = false;
};

// ---------------------------------------------------------------------------------------------
// Descriptors

void detail::Events::begin(Watch& watch, int fd) {
  const auto refuse = [fd](const char* reason) {
    throw KoInvalidArgument("Cannot watch file descriptor - (" + std::to_string(fd) +
                            "): " + reason);
  };
  own();
  const auto place = static_cast<std::size_t>(fd);
  if (fd >= 0 && place < watches_.size() && watches_[place] != nullptr) refuse("watched already");

  // Only what is wanted is polled, since failures are always told.
  epoll_event event{};
  OwnDescriptor standIn;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) == 0) {
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, &event);
  } else {
    const int error = errno;
    struct stat status {};
    const bool device = error == EPERM && fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
    if (!device) refuse(uv_strerror(-error));
    const StandardNumbersTaken taken;
    standIn = newEventDescriptor(1);
  }
  if (watches_.size() <= place) watches_.resize(place + 1);
  const int flags = fcntl(fd, F_GETFL);
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) refuse(uv_strerror(-errno));

  watch.fd = fd;
  watch.standIn = std::move(standIn);
  watch.serial = ++lastSerial_;
  watches_[place] = &watch;
}

void detail::Events::end(Watch& watch) noexcept {
  watch.readable.withdraw();
  watch.writable.withdraw();
  if (watch.fd == -1) return;
  if (watch.wanted != 0 && !inherited()) {
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, watch.polled(), nullptr);
  }
  watches_[static_cast<std::size_t>(watch.fd)] = nullptr;
  watch.fd = -1;
  watch.wanted = 0;
  watch.standIn = OwnDescriptor();
}

void detail::Events::wantedIs(Watch& watch, std::uint32_t wanted) {
  if (watch.fd == -1 || wanted == watch.wanted) return;
  own();
  const int change = watch.wanted == 0 ? EPOLL_CTL_ADD
                     : wanted == 0     ? EPOLL_CTL_DEL
                                       : EPOLL_CTL_MOD;
  epoll_event event{wanted, {.u64 = keyOf(watch)}};
  if (epoll_ctl(epoll_.get(), change, watch.polled(), &event) != 0 && wanted != 0) {
    check(-errno, "epoll_ctl");
  }
  watch.wanted = wanted;
  if ((wanted & EPOLLIN) == 0) watch.readable.withdraw();
  if ((wanted & EPOLLOUT) == 0) watch.writable.withdraw();
}

void detail::Events::poll() {
  // Descriptors that are ready take turns: the next poll begins behind those that this one found.
  std::array<epoll_event, 256> found;
  const int count = epoll_wait(epoll_.get(), found.data(), static_cast<int>(found.size()), 0);
  bool stray = false;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = found[static_cast<std::size_t>(i)];
    if (event.data.u64 == kWakeKey) {
      woken_ = true;
    } else if (event.data.u64 == kSignalKey) {
      for (SignalWatch& signal : signals_) {
        if (signal.came()) owner_->active_ = false;
      }
    } else if (Watch* watch = watchOf(event.data.u64); watch != nullptr) {
      // After a failure neither direction blocks.
      const bool failed = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
      const std::uint32_t ready = failed ? watch->wanted : event.events & watch->wanted;
      if ((ready & EPOLLIN) != 0) ready_.append(watch->readable);
      if ((ready & EPOLLOUT) != 0) ready_.append(watch->writable);
    } else {
      stray = true;
    }
  }
  // A descriptor that was closed under its watch, and has a duplicate, can be got rid of only thus.
  if (stray) repoll();
}

void detail::Events::repoll() {
  const StandardNumbersTaken taken;
  const OwnDescriptor epoll = newEpoll();
  const OwnDescriptor wake = newEventDescriptor(0);
  uv_poll_stop(&poll_);
  if (dup3(epoll.get(), epoll_.get(), O_CLOEXEC) < 0) check(-errno, "dup3");
  if (dup3(wake.get(), wake_.get(), O_CLOEXEC) < 0) check(-errno, "dup3");
  pollCounter(kWakeKey, wake_.get());
  if (!signals_.empty()) pollCounter(kSignalKey, SignalWatch::descriptor());
  for (const Watch* watch : watches_) {
    if (watch == nullptr || watch->wanted == 0) continue;
    epoll_event event{watch->wanted, {.u64 = keyOf(*watch)}};
    epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, watch->polled(), &event);  // fails for what was closed
  }
  startPoll();
  woken_ = true;  // by what was written to the old one
}

namespace {

using detail::Events;

class UvTimerControl : public Velto::Platform::TimerControl {
 public:
  UvTimerControl(const std::shared_ptr<Events>& events, Velto::Platform::TimeoutHandler* handler)
      : events_(events), timer_(events->timers(), handler) {}

  void timeoutIs(nanoseconds delay) override { timer_.set(delay); }
  void cancel() override { timer_.cancel(); }
  bool pending() const override { return timer_.pending(); }

 private:
  std::shared_ptr<Events> events_;
  Timer timer_;
};

class UvFdControl : public Velto::Platform::FdControl {
 public:
  UvFdControl(std::shared_ptr<Events> events, FdEventHandler* handler)
      : events_(std::move(events)), watch_(handler) {}
  UvFdControl(const UvFdControl&) = delete;
  UvFdControl& operator=(const UvFdControl&) = delete;
  ~UvFdControl() override { events_->end(watch_); }

  void fdIs(int fd) override {
    events_->end(watch_);
    if (fd != -1) events_->begin(watch_, fd);
  }
  int fd() const override { return watch_.fd; }

  void readableWantedIs(bool wanted) override { wantedIs(EPOLLIN, wanted); }
  bool readableWanted() const override { return (watch_.wanted & EPOLLIN) != 0; }
  void writableWantedIs(bool wanted) override { wantedIs(EPOLLOUT, wanted); }
  bool writableWanted() const override { return (watch_.wanted & EPOLLOUT) != 0; }

 private:
  void wantedIs(std::uint32_t direction, bool wanted) {
    events_->wantedIs(watch_, wanted ? watch_.wanted | direction : watch_.wanted & ~direction);
  }

  std::shared_ptr<Events> events_;
  Watch watch_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// The scheduler. Handlers may destroy it: after they were told, only the shared events are touched.

EventLoop::EventLoop(const std::string& name)
    : Scheduler(name), events_(std::make_shared<Events>(*this)) {}

EventLoop::~EventLoop() {
  events_->abandon();
}

void EventLoop::run(int count, double timeLimit, bool exitOnQuiescence) {
  const std::shared_ptr<Events> events = events_;
  const Events::Limit limit(*events, timeLimit);
  events->lookIsDue();  // a host that runs it in slices waits for events, too
  runLoop(count, timeLimit, exitOnQuiescence,
          [](Scheduler& scheduler) { static_cast<EventLoop&>(scheduler).events_->lookIfDue(); });
}

int EventLoop::pauseScheduler(timespec*) {
  const std::shared_ptr<Events> events = events_;
  events->wait();
  return 0;
}

Velto::Platform::TimerControl* EventLoop::getTimerControl(
    Velto::Platform::TimeoutHandler* handler) {
  return new UvTimerControl(events_, handler);
}

Velto::Platform::FdControl* EventLoop::getFdControl(Velto::Platform::FdEventHandler* handler) {
  return new UvFdControl(events_, handler);
}

void EventLoop::post(std::function<void()> work) {
  if (!work) throw KoInvalidArgument("Cannot post work - (none)");
  events_->post(std::move(work));
}

void EventLoop::stop() {
  events_->stop();
}

void EventLoop::stopOnSignals(std::initializer_list<int> signals) {
  events_->stopOnSignals(signals);
}

void EventLoop::wake() {
  events_->wake();
}

uv_loop_s* EventLoop::loop() {
  return events_->loop();
}

}  // namespace Korvo
