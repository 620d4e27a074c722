#pragma once

namespace Velto::Platform {

struct TimeoutHandler {
  virtual ~TimeoutHandler() = default;
  virtual bool expired(unsigned long tick) = 0;
};

struct TimerControl {
  virtual ~TimerControl() = default;
  virtual void arm(unsigned long ticks, bool again) = 0;
};

struct FdEventHandler {
  virtual ~FdEventHandler() = default;
  virtual void ready(int fd, short events) = 0;
};

struct FdControl {
  virtual ~FdControl() = default;
  virtual void watch(int fd, short events) = 0;
};

}  // namespace Velto::Platform
