#pragma once

// The signals that event loops stop on, for all of the process's event loops.

namespace Korvo::detail {

/// Has a signal counted as long as it exists. Watches are made and destroyed by every thread.
class SignalWatch {
 public:
  /// Throws KoInvalidArgument if the signal cannot be handled.
  explicit SignalWatch(int signal);
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;
  /// Gives the signal its former action back if this was its last watch.
  ~SignalWatch();

  /// Whether the signal came since the last call, or the first time since the watch began.
  bool came();

  /// A descriptor that becomes readable once more with every counted signal; it is never read from.
  /// One for the process and for all of its time. Throws std::system_error.
  static int descriptor();

 private:
  int signal_;
  unsigned seen_;
};

}  // namespace Korvo::detail
