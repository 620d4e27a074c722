#pragma once

// A scheduler that waits for sockets and timers instead of sleeping. Its own library, on libuv.
//
//   const auto loop = std::make_shared<Korvo::EventLoop>("main");
//   loop->stopOnSignals({SIGINT, SIGTERM});
//   Reader reader("reader", loop);  // a unit, and an FdEventHandler: makes itself runnable
//   const std::unique_ptr<Velto::Platform::FdControl> watch(loop->getFdControl(&reader));
//   watch->fdIs(socket);
//   watch->readableWantedIs(true);
//   loop->run();
//
// Handlers and posted work are told between units, on the scheduler's thread: at the start of a
// run, and as soon as something happens while the queue is empty. While it is not, units and
// handlers take turns: units for twice the time that the handlers took, but no less than
// 100 microseconds and no more than a millisecond; handlers for about 250 microseconds. A turn ends
// with the unit or the handler that is under way. What was readable when a handler's turn came near
// may have been read by somebody else since: reads and writes do not block, and may find nothing.
//
// Like a unit, a handler may destroy controls, units and the loop itself, run the loop, and throw;
// what it throws leaves run(), and the handlers behind it are told in the next one. The same after
// a handler that calls activeIs(false) or lasts beyond the time limit of the run.
//
// After a fork the child has a copy of its own, with the same controls, timers and posted work.
// Whether it destroys or runs it, the parent's does not feel it. It may do so if the parent has no
// other thread that uses the loop, and if it was not forked in a callback of libuv. All descriptors
// of the loop's own are closed by exec.

#include <Korvo/Scheduler.h>
#include <Korvo/export.h>

#include <functional>
#include <initializer_list>
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

  /// Waits, however long `pause` is, until a handler is told, a unit is queued, wake() is called,
  /// the scheduler is deactivated or the time limit of the run is over. With nothing to wait for,
  /// that is forever.
  int pauseScheduler(timespec* pause) override;

  /// A timer, not yet set, that tells `handler`. It belongs to the caller. One that outlives the
  /// event loop does nothing. Its resolution is a millisecond. Its timeoutIs() throws
  /// std::bad_alloc, with the timer as before, if there is no memory for it.
  Velto::Platform::TimerControl* getTimerControl(Velto::Platform::TimeoutHandler* handler) override;

  /// A watch of a file descriptor, not yet given, that tells `handler`. It belongs to the caller.
  /// One that outlives the event loop does nothing. Its fdIs() makes the descriptor non-blocking,
  /// and throws KoInvalidArgument, with nothing watched, if it is a file or closed, or if another
  /// control of this event loop watches it. A device such as /dev/null is always ready. What is
  /// wanted stays as it is, and std::system_error is thrown, if the system refuses the change.
  Velto::Platform::FdControl* getFdControl(Velto::Platform::FdEventHandler* handler) override;

  /// Runs `work` once on the scheduler's thread, as handlers are told, in the order of the calls;
  /// what is posted by such work comes after another look at the events. Work that is left when the
  /// event loop is destroyed is destroyed with it. May be called from every thread, as long as the
  /// event loop exists, but not from signal handlers. Throws KoInvalidArgument if `work` is empty,
  /// and std::bad_alloc.
  void post(std::function<void()> work);

  /// activeIs(false) for other threads and for signal handlers, as long as the event loop exists:
  /// ends the run under way, busy or not, or else the next one. Does not wait for posted work,
  /// which stays for a later run; work that calls activeIs(false) stops after what was posted
  /// before.
  void stop();

  /// Has each of these signals stop() the event loop as long as it exists; the process then handles
  /// them as it did before. Several event loops may ask for the same signal. A child of a fork
  /// handles them as before, too, until it asks itself. Throws KoInvalidArgument, with nothing
  /// changed, for what is not a signal or cannot be handled, and std::system_error.
  void stopOnSignals(std::initializer_list<int> signals);

  /// Ends the wait under way, or else the next one. May be called from other threads, as long as
  /// the event loop exists, and from signal handlers.
  void wake();

  /// For handles of the host's own. Their callbacks must neither throw nor run or destroy this
  /// event loop, and the host closes them before it destroys this. Valid as long as this.
  uv_loop_s* loop();

 private:
  friend class detail::Events;

  std::shared_ptr<detail::Events> events_;
};

}  // namespace Korvo
