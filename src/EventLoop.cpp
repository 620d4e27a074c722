#include <Korvo/EventLoop.h>
#include <Korvo/assertion.h>

#include <time.h>
#include <uv.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <system_error>
#include <utility>

namespace Korvo {

namespace {

constexpr const char* kSourceFile = "src/EventLoop.cpp";

/// How often events are looked at while units are busy: rarely enough that a look, about a
/// microsecond, does not count.
constexpr std::uint64_t kLookInterval = 100'000;

using Seconds = std::chrono::duration<double>;

Seconds now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// Rounded up, and within what libuv takes.
std::uint64_t wholeMilliseconds(Seconds time) {
  constexpr double kMost = 1e15;
  return static_cast<std::uint64_t>(std::clamp(std::ceil(time.count() * 1e3), 0.0, kMost));
}

void check(int result, const char* call) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), call);
}

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

  void append(Event& event) noexcept {
    event.withdraw();
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
  void tell() override {}
};

template <typename Handle>
uv_handle_t* base(Handle* handle) {
  return reinterpret_cast<uv_handle_t*>(handle);
}

}  // namespace

/// libuv's loop, and what is to be told. Shared by the event loop and its controls, so that these
/// may be destroyed in any order, and by every function that tells handlers.
class detail::Events {
 public:
  Events() {
    check(uv_loop_init(&loop_), "uv_loop_init");
    const int result = uv_async_init(&loop_, &wake_, [](uv_async_t* handle) {
      auto* events = static_cast<Events*>(handle->data);
      events->woken_ = true;
      uv_stop(handle->loop);
    });
    if (result < 0) uv_loop_close(&loop_);
    check(result, "uv_async_init");
    wake_.data = this;
    uv_timer_init(&loop_, &limitTimer_);
  }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  ~Events() {
    uv_close(base(&wake_), nullptr);
    uv_close(base(&limitTimer_), nullptr);
    uv_run(&loop_, UV_RUN_NOWAIT);
    KORVO_ASSERT(uv_loop_close(&loop_) == 0, "uv_loop_close(&loop_) == 0", kSourceFile,
                 "Korvo::detail::Events::~Events()");
  }

  uv_loop_t* loop() { return &loop_; }
  void wake() { uv_async_send(&wake_); }

  /// Ends the wait when its callbacks are done.
  void stop() {
    if (inRound_) uv_stop(&loop_);
  }

  /// Puts the event at the end of those that are to be told. Called by libuv's callbacks.
  void add(Event& event) noexcept {
    ready_.append(event);
    uv_stop(&loop_);
  }

  /// Tells what has happened by now.
  void look() {
    lastLook_ = uv_hrtime();
    round(UV_RUN_NOWAIT);
    tellAll();
  }

  void lookIfDue() {
    if (uv_hrtime() - lastLook_ >= kLookInterval) look();
  }

  /// Waits for something to tell, and tells it.
  void wait() {
    if (ready_.next() == &ready_ && !woken_ && !limitReached()) round(UV_RUN_DEFAULT);
    woken_ = false;
    lastLook_ = uv_hrtime();
    tellAll();
  }

  /// The event loop is gone: there is nobody to tell any more.
  void abandon() {
    KORVO_ASSERT(!inRound_, "!inRound_", kSourceFile, "virtual Korvo::EventLoop::~EventLoop()");
    abandoned_ = true;
  }

  bool abandoned() const { return abandoned_; }

  /// Bounds the waits of one run, and restores the bound of the run around it, which has no say in
  /// a run inside.
  class Limit {
   public:
    Limit(Events& events, double timeLimit) : events_(events), outer_(events.end_) {
      events_.end_ = timeLimit > 0.0 ? now() + Seconds(timeLimit) : kNever;
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
    ~Limit() { events_.end_ = outer_; }

   private:
    Events& events_;
    Seconds outer_;
  };

  /// The descriptors that are watched: libuv takes each only once.
  std::set<int> watched;

 private:
  void round(uv_run_mode mode) {
    KORVO_ASSERT(!inRound_, "!inRound_", kSourceFile,
                 "void Korvo::detail::Events::round(uv_run_mode)");
    inRound_ = true;
    uv_run(&loop_, mode);
    inRound_ = false;
  }

  /// Sets the timer that ends a wait at the limit; tells whether that is past.
  bool limitReached() {
    if (end_ == kNever) {
      uv_timer_stop(&limitTimer_);
      return false;
    }
    const Seconds left = end_ - now();
    uv_update_time(&loop_);
    uv_timer_start(
        &limitTimer_, [](uv_timer_t* timer) { uv_stop(timer->loop); }, wholeMilliseconds(left), 0);
    return left <= Seconds(0);
  }

  void tellAll() {
    while (!abandoned_ && ready_.next() != &ready_) {
      Event& event = *ready_.next();
      event.withdraw();
      event.tell();
    }
  }

  static constexpr Seconds kNever{std::numeric_limits<double>::infinity()};

  uv_loop_t loop_;
  uv_async_t wake_;
  uv_timer_t limitTimer_;
  EventList ready_;
  Seconds end_ = kNever;
  std::uint64_t lastLook_ = 0;
  bool inRound_ = false;
  bool woken_ = false;
  bool abandoned_ = false;
};

namespace {

using detail::Events;

// ---------------------------------------------------------------------------------------------
// Timers

/// libuv's part of a timer, which lives until libuv has let go of it.
class Timer : public Event {
 public:
  Timer(Events& events, Velto::Platform::TimeoutHandler* handler)
      : events_(events), handler_(handler) {
    uv_timer_init(events.loop(), &handle_);
    handle_.data = this;
  }

  void close() {
    withdraw();
    uv_close(base(&handle_), [](uv_handle_t* handle) { delete static_cast<Timer*>(handle->data); });
  }

  void set(std::chrono::nanoseconds delay) {
    cancel();
    set_ = true;
    uv_timer_start(
        &handle_,
        [](uv_timer_t* handle) {
          auto* timer = static_cast<Timer*>(handle->data);
          timer->events_.add(*timer);
        },
        timeoutFor(delay), 0);
  }

  void cancel() {
    uv_timer_stop(&handle_);
    withdraw();
    set_ = false;
  }

  bool pending() const { return set_; }

 private:
  void tell() override {
    set_ = false;
    handler_->onTimeout();
  }

  /// Milliseconds from libuv's time, which stands still while units run, to the first whole
  /// millisecond at which the delay is over.
  std::uint64_t timeoutFor(std::chrono::nanoseconds delay) {
    if (delay.count() <= 0) return 0;
    const std::uint64_t due = uv_hrtime() + static_cast<std::uint64_t>(delay.count());
    return due / 1'000'000 + 1 - uv_now(events_.loop());
  }

  Events& events_;
  Velto::Platform::TimeoutHandler* handler_;
  uv_timer_t handle_;
  bool set_ = false;
};

class UvTimerControl : public Velto::Platform::TimerControl {
 public:
  UvTimerControl(const std::shared_ptr<Events>& events, Velto::Platform::TimeoutHandler* handler)
      : events_(events), timer_(new Timer(*events, handler)) {}
  UvTimerControl(const UvTimerControl&) = delete;
  UvTimerControl& operator=(const UvTimerControl&) = delete;
  ~UvTimerControl() override { timer_->close(); }

  void timeoutIs(std::chrono::nanoseconds delay) override { timer_->set(delay); }
  void cancel() override { timer_->cancel(); }
  bool pending() const override { return timer_->pending(); }

 private:
  std::shared_ptr<Events> events_;
  Timer* timer_;
};

// ---------------------------------------------------------------------------------------------
// File descriptors

using Velto::Platform::FdEventHandler;

/// One of the two things that a descriptor can be ready for.
class Readiness : public Event {
 public:
  Readiness(FdEventHandler* handler, void (FdEventHandler::*told)())
      : handler_(handler), told_(told) {}

  bool wanted() const { return wanted_; }
  void wantedIs(bool wanted) {
    wanted_ = wanted;
    if (!wanted) withdraw();
  }

 private:
  void tell() override { (handler_->*told_)(); }

  FdEventHandler* handler_;
  void (FdEventHandler::*told_)();
  bool wanted_ = false;
};

/// libuv's part of a watch, which lives until libuv has let go of it.
class Watch {
 public:
  Watch(Events& events, FdEventHandler* handler, int fd)
      : fd_(fd),
        events_(events),
        readable_(handler, &FdEventHandler::onReadable),
        writable_(handler, &FdEventHandler::onWritable) {
    if (events_.watched.contains(fd)) refuse("watched already");
    const int result = uv_poll_init(events.loop(), &handle_, fd);
    if (result < 0) refuse(uv_strerror(result));
    handle_.data = this;
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void close() {
    readable_.withdraw();
    writable_.withdraw();
    events_.watched.erase(fd_);
    uv_close(base(&handle_), [](uv_handle_t* handle) { delete static_cast<Watch*>(handle->data); });
  }

  int fd() const { return fd_; }
  const Readiness& readable() const { return readable_; }
  const Readiness& writable() const { return writable_; }
  void readableWantedIs(bool wanted) {
    readable_.wantedIs(wanted);
    start();
  }
  void writableWantedIs(bool wanted) {
    writable_.wantedIs(wanted);
    start();
  }

 private:
  [[noreturn]] void refuse(const std::string& reason) const {
    throw KoInvalidArgument("Cannot watch file descriptor - (" + std::to_string(fd_) +
                            "): " + reason);
  }

  void start() {
    const int wanted =
        (readable_.wanted() ? UV_READABLE : 0) | (writable_.wanted() ? UV_WRITABLE : 0);
    if (wanted == 0) {
      uv_poll_stop(&handle_);
    } else {
      uv_poll_start(&handle_, wanted, [](uv_poll_t* handle, int status, int events) {
        static_cast<Watch*>(handle->data)->ready(status, events);
      });
    }
  }

  void ready(int status, int ready) {
    if (status < 0) {
      // libuv has stopped the watch. Reading and writing give the error, so that both are ready.
      ready = UV_READABLE | UV_WRITABLE;
      start();
    }
    if ((ready & UV_READABLE) != 0 && readable_.wanted()) events_.add(readable_);
    if ((ready & UV_WRITABLE) != 0 && writable_.wanted()) events_.add(writable_);
  }

  int fd_;
  Events& events_;
  Readiness readable_;
  Readiness writable_;
  uv_poll_t handle_;
};

class UvFdControl : public Velto::Platform::FdControl {
 public:
  UvFdControl(std::shared_ptr<Events> events, FdEventHandler* handler)
      : events_(std::move(events)), handler_(handler) {}
  UvFdControl(const UvFdControl&) = delete;
  UvFdControl& operator=(const UvFdControl&) = delete;
  ~UvFdControl() override { close(); }

  void fdIs(int fd) override {
    close();
    if (fd == -1) return;
    auto watch = std::make_unique<Watch>(*events_, handler_, fd);
    events_->watched.insert(fd);
    watch_ = watch.release();
  }
  int fd() const override { return watch_ == nullptr ? -1 : watch_->fd(); }

  void readableWantedIs(bool wanted) override {
    if (watch_ != nullptr) watch_->readableWantedIs(wanted);
  }
  bool readableWanted() const override { return watch_ != nullptr && watch_->readable().wanted(); }
  void writableWantedIs(bool wanted) override {
    if (watch_ != nullptr) watch_->writableWantedIs(wanted);
  }
  bool writableWanted() const override { return watch_ != nullptr && watch_->writable().wanted(); }

 private:
  void close() {
    if (watch_ != nullptr) std::exchange(watch_, nullptr)->close();
  }

  std::shared_ptr<Events> events_;
  FdEventHandler* handler_;
  Watch* watch_ = nullptr;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// The scheduler. Handlers may destroy it: after they were told, only the shared events are touched.

EventLoop::EventLoop(const std::string& name)
    : Scheduler(name), events_(std::make_shared<Events>()) {}

EventLoop::~EventLoop() {
  events_->abandon();
}

void EventLoop::run(int count, double timeLimit, bool exitOnQuiescence) {
  const std::shared_ptr<Events> events = events_;
  const Events::Limit limit(*events, timeLimit);
  if (active_) events->look();  // a host that runs it in slices waits for events, too
  if (events->abandoned()) return;
  runLoop(count, timeLimit, exitOnQuiescence, [](Scheduler& scheduler) {
    std::shared_ptr<Events>(static_cast<EventLoop&>(scheduler).events_)->lookIfDue();
  });
}

int EventLoop::pauseScheduler(timespec*) {
  const std::shared_ptr<Events> events = events_;
  events->wait();
  return 0;
}

void EventLoop::triggerScheduler() {
  events_->stop();
}

Velto::Platform::TimerControl* EventLoop::getTimerControl(
    Velto::Platform::TimeoutHandler* handler) {
  return new UvTimerControl(events_, handler);
}

Velto::Platform::FdControl* EventLoop::getFdControl(Velto::Platform::FdEventHandler* handler) {
  return new UvFdControl(events_, handler);
}

void EventLoop::wake() {
  events_->wake();
}

uv_loop_s* EventLoop::loop() {
  return events_->loop();
}

}  // namespace Korvo
