#include "stopSignals.h"

#include <Korvo/korvo_types.h>

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <string>
#include <utility>

#include "ownDescriptor.h"

namespace Korvo::detail {

namespace {

struct Signal {
  std::atomic<unsigned> count = 0;
  int watches = 0;
  struct sigaction before {};
};

// What the handler uses lives as long as the process.
std::array<Signal, NSIG> signals;
std::atomic<int> eventDescriptor = -1;
std::atomic<pid_t> process = 0;
std::mutex mutex;  // of all but the handler

static_assert(std::atomic<unsigned>::is_always_lock_free &&
              std::atomic<pid_t>::is_always_lock_free);

void onSignal(int number) {
  const int error = errno;
  Signal& signal = signals[static_cast<std::size_t>(number)];
  if (process == getpid()) {
    ++signal.count;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(eventDescriptor, &one, sizeof(one));
  } else {
    // A child that was forked with this handler, and has not asked for it.
    sigaction(number, &signal.before, nullptr);
    raise(number);
  }
  errno = error;
}

[[noreturn]] void refuse(int number) {
  throw KoInvalidArgument("Cannot handle signal - (" + std::to_string(number) + ")");
}

}  // namespace

int SignalWatch::descriptor() {
  const std::lock_guard lock(mutex);
  if (eventDescriptor == -1) {
    const StandardNumbersTaken taken;
    eventDescriptor = newEventDescriptor(0).release();
  }
  return eventDescriptor;
}

SignalWatch::SignalWatch(int signal) : signal_(signal) {
  if (signal <= 0 || signal >= NSIG) refuse(signal);
  descriptor();
  const std::lock_guard lock(mutex);
  Signal& watched = signals[static_cast<std::size_t>(signal)];
  seen_ = watched.count;

  struct sigaction ours {};
  ours.sa_handler = onSignal;
  ours.sa_flags = SA_RESTART;
  sigfillset(&ours.sa_mask);
  // Also where there is a watch: in a child that may be the parent's.
  struct sigaction before {};
  if (sigaction(signal, nullptr, &before) != 0) refuse(signal);
  if (watched.watches == 0) watched.before = before;
  process = getpid();
  if (sigaction(signal, &ours, nullptr) != 0) refuse(signal);
  ++watched.watches;
}

SignalWatch::~SignalWatch() {
  const std::lock_guard lock(mutex);
  Signal& watched = signals[static_cast<std::size_t>(signal_)];
  if (--watched.watches != 0) return;
  struct sigaction current {};
  sigaction(signal_, nullptr, &current);
  if (current.sa_handler == onSignal) sigaction(signal_, &watched.before, nullptr);
}

bool SignalWatch::came() {
  const unsigned count = signals[static_cast<std::size_t>(signal_)].count;
  return std::exchange(seen_, count) != count;
}

}  // namespace Korvo::detail
