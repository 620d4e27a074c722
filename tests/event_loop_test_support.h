#pragma once

// Handlers and units that call functions, and connected sockets.

#include <Korvo/EventLoop.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace eventlooptest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Korvo::EventLoop;
using Korvo::KoPtr;
using Korvo::Schedulable;
using Korvo::Scheduler;
using Velto::Platform::FdControl;
using Velto::Platform::TimerControl;

/// No test takes that long.
inline constexpr auto kPlenty = std::chrono::seconds(20);

struct Thrown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A handler that calls functions.
struct OnTimeout : Velto::Platform::TimeoutHandler {
  explicit OnTimeout(std::function<void()> function = nullptr) : told(std::move(function)) {}
  void onTimeout() override {
    ++count;
    if (const auto function = told) function();  // a copy, which stays while this is destroyed
  }
  std::function<void()> told;
  int count = 0;
};

struct OnFd : Velto::Platform::FdEventHandler {
  void onReadable() override {
    ++reads;
    if (const auto function = readable) function();
  }
  void onWritable() override {
    ++writes;
    if (const auto function = writable) function();
  }
  std::function<void()> readable, writable;
  int reads = 0;
  int writes = 0;
};

class Unit : public Schedulable {
 public:
  using Work = std::function<void(Unit&)>;
  Unit(const std::string& name, const KoPtr<Scheduler>& scheduler, Work work)
      : Schedulable(name, scheduler), work_(std::move(work)) {
    clientReadyIs(true);
  }
  void run(bool) override {
    if (const Work work = work_) work(*this);
  }

 private:
  Work work_;
};

/// A pair of connected sockets.
struct Sockets {
  Sockets() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw Thrown("socketpair");
    ours = fds[0];
    theirs = fds[1];
  }
  ~Sockets() {
    close(ours);
    if (theirs != -1) close(theirs);
  }
  void send(const std::string& text) const {
    ASSERT_EQ(write(theirs, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string receive(std::size_t most = 1000) const {
    std::string text(most, '\0');
    const ssize_t length = read(ours, text.data(), most);
    text.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    return text;
  }
  int ours, theirs;
};

inline std::unique_ptr<TimerControl> timerOf(EventLoop& loop, OnTimeout& handler) {
  return std::unique_ptr<TimerControl>(loop.getTimerControl(&handler));
}
inline std::unique_ptr<FdControl> watchOf(EventLoop& loop, OnFd& handler, int fd = -1) {
  std::unique_ptr<FdControl> control(loop.getFdControl(&handler));
  if (fd != -1) control->fdIs(fd);
  return control;
}

}  // namespace eventlooptest
