// What the guide shows of the event loop. Needs Korvo::EventLoop, which is optional.

#include <Korvo/EventLoop.h>

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

// Reads a socket or a pipe in its turns, and never waits for it.
class Reader : public Korvo::Schedulable, public Velto::Platform::FdEventHandler {
 public:
  Reader(const std::string& name, const Korvo::KoPtr<Korvo::EventLoop>& loop, int fd)
      : Schedulable(name, loop), fd_(fd), watch_(loop->getFdControl(this)) {
    watch_->fdIs(fd);
    watch_->readableWantedIs(true);
    clientReadyIs(true);
  }

  void onReadable() override { runnableIs(true); }
  void onWritable() override {}

  void run(bool) override {
    char bytes[4096];
    const auto count = read(fd_, bytes, sizeof bytes);
    if (count > 0) std::cout.write(bytes, count);
    if (count == 0) watch_->readableWantedIs(false);  // the end of the data
  }

 private:
  int fd_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
};

class Stop : public Velto::Platform::TimeoutHandler {
 public:
  explicit Stop(Korvo::Scheduler& scheduler) : scheduler_(scheduler) {}
  void onTimeout() override { scheduler_.activeIs(false); }

 private:
  Korvo::Scheduler& scheduler_;
};

namespace {

void listen(int fd) {
  const auto loop = std::make_shared<Korvo::EventLoop>("main");
  const Reader reader("reader", loop, fd);
  Stop stop(*loop);
  const std::unique_ptr<Velto::Platform::TimerControl> timer(loop->getTimerControl(&stop));
  timer->timeoutIs(std::chrono::milliseconds(50));
  loop->run();  // until the time is over
}

int answer() {
  return 42;  // after a long time
}

void wait() {
  Korvo::EventLoop loop("main");
  loop.stopOnSignals({SIGINT, SIGTERM});
  std::thread worker([&loop] {
    const int found = answer();
    loop.post([&loop, found] {  // runs on the loop's thread
      std::cout << "found " << found << '\n';
      loop.activeIs(false);
    });
  });
  loop.run();  // until the answer is there, or the process is asked to end
  worker.join();
}

}  // namespace

int main() {
  int ends[2];
  if (pipe(ends) != 0 || write(ends[1], "hello\n", 6) != 6) return 1;
  close(ends[1]);
  listen(ends[0]);
  close(ends[0]);
  wait();
}
