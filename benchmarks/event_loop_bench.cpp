// What many sockets cost at once: each has a message of one byte, and all are read.
//
// The messages are sent before the clock starts, which is that of the thread: what other
// processes take does not count. Ours makes a unit runnable, which reads in its turn;
// "korvo_handler" reads in the handler, as the callbacks of libuv and Asio do.

#include <Korvo/EventLoop.h>

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>
#include <uv.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

namespace {

constexpr int kMostSockets = 10'000;

void counts(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("sockets")->RangeMultiplier(10)->Range(10, kMostSockets)->UseManualTime();
}

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Sockets, and a few that send to them: a pair for each would take too many descriptors.
class Sockets {
 public:
  explicit Sockets(std::size_t count) : addresses_(count) {
    for (std::size_t i = 0; i < count; i += kSocketsPerSender) senders_.push_back(newSocket());
    for (Address& address : addresses_) {
      all.push_back(newSocket());
      // The system chooses a name, and tells it.
      sockaddr_un unnamed{AF_UNIX, {}};
      address.length = sizeof(address.name);
      if (bind(all.back(), general(unnamed), sizeof(sa_family_t)) != 0 ||
          getsockname(all.back(), general(address.name), &address.length) != 0) {
        throw std::runtime_error("no more names");
      }
    }
  }
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
  ~Sockets() {
    for (const int fd : all) close(fd);
    for (const int fd : senders_) close(fd);
  }

  void send() {
    for (std::size_t i = 0; i < addresses_.size(); ++i) {
      const int sender = senders_[i / kSocketsPerSender];
      Address& address = addresses_[i];
      if (sendto(sender, "x", 1, 0, general(address.name), address.length) != 1) {
        throw std::runtime_error("cannot send");
      }
    }
  }

  std::vector<int> all;

 private:
  struct Address {
    sockaddr_un name;
    socklen_t length;
  };
  static sockaddr* general(sockaddr_un& name) { return reinterpret_cast<sockaddr*>(&name); }
  static int newSocket() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) throw std::runtime_error("no more sockets");
    return fd;
  }

  /// The buffer of a sender holds what was not yet read.
  static constexpr std::size_t kSocketsPerSender = 100;

  std::vector<int> senders_;
  std::vector<Address> addresses_;
};

/// Counts down what is to be read.
struct Reading {
  int remaining = 0;

  /// True once it was the last.
  bool take(int fd) {
    char byte = 0;
    if (read(fd, &byte, 1) == 1) --remaining;
    benchmark::DoNotOptimize(byte);
    return remaining == 0;
  }
};

template <typename Run>
void measure(benchmark::State& state, Sockets& sockets, Reading& reading, Run run) {
  for (auto _ : state) {
    sockets.send();
    reading.remaining = static_cast<int>(sockets.all.size());
    const double start = threadSeconds();
    run();
    state.SetIterationTime(threadSeconds() - start);
    if (reading.remaining != 0) state.SkipWithError("not all was read");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

std::size_t countOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

// ---------------------------------------------------------------------------------------------
// Ours

class Reader : public Korvo::Schedulable, public Velto::Platform::FdEventHandler {
 public:
  Reader(const Korvo::KoPtr<Korvo::EventLoop>& loop, int fd, Reading& reading, bool asUnit)
      : Schedulable("reader", loop),
        fd_(fd),
        reading_(reading),
        asUnit_(asUnit),
        watch_(loop->getFdControl(this)) {
    watch_->fdIs(fd);
    watch_->readableWantedIs(true);
    clientReadyIs(true);
  }

  void onReadable() override {
    if (asUnit_) {
      runnableIs(true);
    } else {
      take();
    }
  }
  void onWritable() override {}
  void run(bool) override { take(); }

 private:
  void take() {
    if (reading_.take(fd_)) scheduler_->activeIs(false);
  }

  int fd_;
  Reading& reading_;
  bool asUnit_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
};

template <bool asUnit>
void Ours(benchmark::State& state) {
  Sockets sockets(countOf(state));
  Reading reading;
  const auto loop = std::make_shared<Korvo::EventLoop>("bench");
  std::vector<std::unique_ptr<Reader>> readers;
  for (const int fd : sockets.all) {
    readers.push_back(std::make_unique<Reader>(loop, fd, reading, asUnit));
  }
  measure(state, sockets, reading, [&] {
    loop->activeIs(true);
    loop->run();
  });
}
BENCHMARK_TEMPLATE(Ours, true)->Name("readable_sockets/korvo")->Apply(counts);
BENCHMARK_TEMPLATE(Ours, false)->Name("readable_sockets/korvo_handler")->Apply(counts);

// ---------------------------------------------------------------------------------------------
// libuv: callbacks that read

struct UvReader {
  uv_poll_t poll;
  int fd;
  Reading* reading;

  static void readable(uv_poll_t* poll, int, int) {
    const auto* self = static_cast<UvReader*>(poll->data);
    if (self->reading->take(self->fd)) uv_stop(poll->loop);
  }
};

void Libuv(benchmark::State& state) {
  Sockets sockets(countOf(state));
  Reading reading;
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<std::unique_ptr<UvReader>> readers;
  for (const int fd : sockets.all) {
    readers.emplace_back(new UvReader{{}, fd, &reading});
    uv_poll_init(&loop, &readers.back()->poll, fd);
    readers.back()->poll.data = readers.back().get();
    uv_poll_start(&readers.back()->poll, UV_READABLE, &UvReader::readable);
  }
  measure(state, sockets, reading, [&] { uv_run(&loop, UV_RUN_DEFAULT); });
  for (const auto& reader : readers) {
    uv_close(reinterpret_cast<uv_handle_t*>(&reader->poll), nullptr);
  }
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(Libuv)->Name("readable_sockets/libuv")->Apply(counts);

// ---------------------------------------------------------------------------------------------
// Boost.Asio, without its locks: a wait that is asked for anew after each message

class AsioReader {
 public:
  AsioReader(boost::asio::io_context& context, int fd, Reading& reading)
      : context_(context), socket_(context, fd), reading_(reading) {
    wait();
  }
  AsioReader(const AsioReader&) = delete;
  AsioReader& operator=(const AsioReader&) = delete;
  ~AsioReader() { socket_.release(); }

 private:
  void wait() {
    socket_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                       [this](const boost::system::error_code& error) {
                         if (error) return;
                         if (reading_.take(socket_.native_handle())) context_.stop();
                         wait();
                       });
  }

  boost::asio::io_context& context_;
  boost::asio::posix::stream_descriptor socket_;
  Reading& reading_;
};

void Asio(benchmark::State& state) {
  Sockets sockets(countOf(state));
  Reading reading;
  boost::asio::io_context context(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE);
  std::vector<std::unique_ptr<AsioReader>> readers;
  for (const int fd : sockets.all) {
    readers.push_back(std::make_unique<AsioReader>(context, fd, reading));
  }
  measure(state, sockets, reading, [&] {
    context.restart();
    context.run();
  });
}
BENCHMARK(Asio)->Name("readable_sockets/asio")->Apply(counts);

/// One descriptor for each socket, and some for the rest.
void allowDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, kMostSockets + 200);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    std::perror("The system does not allow as many descriptors as this benchmark needs");
    std::exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  allowDescriptors();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
