#pragma once

// A scheduler that waits for sockets and timers instead of sleeping. Its own library, on libuv.
//
//   const auto loop = std::make_shared<Korvo::EventLoop>("main");
//   Reader reader("reader", loop);  // a unit, and an FdEventHandler: makes itself runnable
//   const std::unique_ptr<Velto::Platform::FdControl> watch(loop->getFdControl(&reader));
//   watch->fdIs(socket);
//   watch->readableWantedIs(true);
//   loop->run();
//
// Handlers are told between units, on the scheduler's thread: at the start of a run, when the queue
// is empty as soon as something happens, and while it is not about every 100 microseconds. Like a
// unit, a handler may destroy controls, units and the loop itself, run the loop, and throw; what it
// throws leaves run().

#include <Korvo/Scheduler.h>
#include <Korvo/export.h>

#include <memory>
#include <string>

struct uv_loop_s;

namespace Korvo {

namespace detail {
class Events;
}

/// A scheduler on an event loop of its own.
class KORVO_API EventLoop : public Scheduler {
 public:
  /// Throws std::system_error if the system has no more resources for it.
  explicit EventLoop(const std::string& name);
  ~EventLoop() override;

  using Scheduler::run;

  /// As Scheduler::run(), and looks at the events as told above. A time limit ends a wait, too.
  void run(int count, double timeLimit, bool exitOnQuiescence) override;

  /// Waits, however long `pause` is, until a handler is told, a unit is queued, wake() is called or
  /// the time limit of the run is over. With nothing to wait for, that is forever.
  int pauseScheduler(timespec* pause) override;

  /// Ends the wait that a callback of the host's own libuv handles runs in.
  void triggerScheduler() override;

  /// A timer, not yet set, that tells `handler`. It belongs to the caller. One that outlives the
  /// event loop does nothing. Its resolution is a millisecond.
  Velto::Platform::TimerControl* getTimerControl(Velto::Platform::TimeoutHandler* handler) override;

  /// A watch of a file descriptor, not yet given, that tells `handler`. It belongs to the caller.
  /// One that outlives the event loop does nothing. Its fdIs() makes the descriptor non-blocking,
  /// and throws KoInvalidArgument, with nothing watched, if it is a file or closed, or if another
  /// control of this event loop watches it.
  Velto::Platform::FdControl* getFdControl(Velto::Platform::FdEventHandler* handler) override;

  /// Ends the wait under way, or else the next one. May be called from other threads, as long as
  /// the event loop exists, and from signal handlers.
  void wake();

  /// For handles of the host's own. Their callbacks must neither throw nor run or destroy this
  /// event loop, and the host closes them before it destroys this. Valid as long as this.
  uv_loop_s* loop();

 private:
  std::shared_ptr<detail::Events> events_;
};

}  // namespace Korvo
