#pragma once

// Stand-in for the host framework's timers and file-descriptor events.
//
//   struct Alarm : Velto::Platform::TimeoutHandler {
//     void onTimeout() override { std::puts("time is up"); }
//   };
//   Alarm alarm;
//   std::unique_ptr<Velto::Platform::TimerControl> timer(scheduler.getTimerControl(&alarm));
//   timer->timeoutIs(std::chrono::milliseconds(20));
//
// The host implements the handlers; a scheduler on an event loop hands out the controls, which
// belong to the caller. Everything is used on the scheduler's thread. A host that brings its own
// framework builds against that one instead (CMake setting KORVO_VELTO_INCLUDE_DIR); the library
// uses only the names of these four classes. Korvo::EventLoop implements the controls as they are
// here, and is built with this header only.

#include <chrono>

namespace Velto::Platform {

/// Told when a timer runs out. Has to outlive the control that it was given to.
class TimeoutHandler {
 public:
  virtual ~TimeoutHandler() = default;

  /// The timer ran out and is no longer set. It may be set again, and its control deleted, from
  /// here.
  virtual void onTimeout() = 0;
};

/// A timer. Deleting it stops it.
class TimerControl {
 public:
  virtual ~TimerControl() = default;

  /// Sets the timer, anew if it is set already, to run out once after `delay`, never earlier. A
  /// delay of zero or less runs out as soon as the scheduler looks at its events.
  virtual void timeoutIs(std::chrono::nanoseconds delay) = 0;

  /// Stops the timer; its handler is not told any more.
  virtual void cancel() = 0;

  /// Whether the timer is set and has not run out.
  virtual bool pending() const = 0;
};

/// Told when a file descriptor is ready. Has to outlive the control that it was given to.
class FdEventHandler {
 public:
  virtual ~FdEventHandler() = default;

  /// Reading gives data, the end of the data or an error without blocking. Told again, for as long
  /// as that is so, whenever the scheduler looks at its events. The control may be deleted from
  /// here.
  virtual void onReadable() = 0;

  /// The same for writing.
  virtual void onWritable() = 0;
};

/// Watches one file descriptor. Deleting it ends the watch and leaves the descriptor open.
class FdControl {
 public:
  virtual ~FdControl() = default;

  /// Watches `fd`, which stays the caller's, in place of the descriptor before; -1 for none. What
  /// is wanted of it starts as nothing. To be called with -1, or the control deleted, before the
  /// descriptor is closed.
  virtual void fdIs(int fd) = 0;
  /// The descriptor that is watched; -1 for none.
  virtual int fd() const = 0;

  /// Whether onReadable() is called.
  virtual void readableWantedIs(bool wanted) = 0;
  /// See readableWantedIs().
  virtual bool readableWanted() const = 0;

  /// Whether onWritable() is called.
  virtual void writableWantedIs(bool wanted) = 0;
  /// See writableWantedIs().
  virtual bool writableWanted() const = 0;
};

}  // namespace Velto::Platform
