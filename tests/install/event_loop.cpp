// A program of a user of the installed event loop.

#include <Korvo/EventLoop.h>

#include <chrono>
#include <iostream>
#include <memory>

namespace {

struct Stop : Velto::Platform::TimeoutHandler {
  explicit Stop(Korvo::EventLoop& stopped) : loop(stopped) {}
  void onTimeout() override { loop.activeIs(false); }
  Korvo::EventLoop& loop;
};

}  // namespace

int main() {
  const auto loop = std::make_shared<Korvo::EventLoop>("main");
  Stop stop(*loop);
  const std::unique_ptr<Velto::Platform::TimerControl> timer(loop->getTimerControl(&stop));
  timer->timeoutIs(std::chrono::milliseconds(1));
  loop->run();
  std::cout << "the timer ran out\n";
}
