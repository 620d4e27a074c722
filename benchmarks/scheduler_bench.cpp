// What one turn of a unit costs: it is taken from the queue, invoked, and asks for another turn.
//
// Each benchmark keeps 1, 100 or 10,000 units going for 20,000 turns. A turn of ours reads the
// clock twice; the workload "dispatch" adds the same two reads to every contestant,
// "dispatch_untimed" shows them as they are. The limit is the two reads and nothing else.

#include <Korvo/EventLoop.h>
#include <Korvo/Scheduler.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <time.h>
#include <uv.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <memory>
#include <vector>

namespace {

constexpr int kTurnsPerRun = 20'000;

void units(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("units")->Arg(1)->Arg(100)->Arg(10'000);
}

/// What the unit does: nearly nothing.
struct Work {
  unsigned long turns = 0;
  void operator()() {
    ++turns;
    benchmark::DoNotOptimize(turns);
  }
};

/// The two looks at the clock around the work.
template <bool timed>
class Timed {
 public:
  void operator()() {
    timespec start{}, end{};
    if constexpr (timed) clock_gettime(CLOCK_MONOTONIC_RAW, &start);
    work_();
    if constexpr (timed) {
      clock_gettime(CLOCK_MONOTONIC_RAW, &end);
      seconds_ += static_cast<double>(end.tv_sec - start.tv_sec) +
                  static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
      benchmark::DoNotOptimize(seconds_);
    }
  }

 private:
  Work work_;
  double seconds_ = 0.0;
};

void TwoClockReads(benchmark::State& state) {
  Timed<true> work;
  for (auto _ : state) {
    for (int turn = 0; turn < kTurnsPerRun; ++turn) work();
  }
  state.SetItemsProcessed(state.iterations() * kTurnsPerRun);
}
BENCHMARK(TwoClockReads)->Name("dispatch/limit")->Apply(units);

// ---------------------------------------------------------------------------------------------
// Ours

class Unit : public Korvo::Schedulable {
 public:
  explicit Unit(const Korvo::KoPtr<Korvo::Scheduler>& scheduler) : Schedulable("unit", scheduler) {
    clientReadyIs(true);
    runnableIs(true);
  }
  void run(bool) override {
    work_();
    runnableIs(true);
  }

 private:
  Work work_;
};

template <typename Scheduler>
void Run(benchmark::State& state) {
  const auto scheduler = std::make_shared<Scheduler>("bench");
  std::vector<std::unique_ptr<Unit>> all;
  for (int i = 0; i < state.range(0); ++i) all.push_back(std::make_unique<Unit>(scheduler));
  for (auto _ : state) scheduler->run(kTurnsPerRun, 0.0, true);
  state.SetItemsProcessed(state.iterations() * kTurnsPerRun);
}
BENCHMARK_TEMPLATE(Run, Korvo::Scheduler)->Name("dispatch/korvo")->Apply(units);
// The event loop looks at its sockets and timers, too, as libuv's does.
BENCHMARK_TEMPLATE(Run, Korvo::EventLoop)->Name("dispatch_event_loop/korvo")->Apply(units);

// ---------------------------------------------------------------------------------------------
// Boost.Asio, without its locks

template <bool timed>
struct AsioUnit {
  boost::asio::io_context& context;
  int& remaining;
  Timed<timed> work;

  void turn() {
    work();
    if (--remaining == 0) context.stop();
    post();
  }
  void post() {
    boost::asio::post(context, [this] { turn(); });
  }
};

template <bool timed>
void AsioPost(benchmark::State& state) {
  boost::asio::io_context context(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE);
  int remaining = 0;
  std::vector<std::unique_ptr<AsioUnit<timed>>> all;
  for (int i = 0; i < state.range(0); ++i) {
    all.emplace_back(new AsioUnit<timed>{context, remaining, {}});
    all.back()->post();
  }
  for (auto _ : state) {
    remaining = kTurnsPerRun;
    context.restart();
    context.run();
  }
  state.SetItemsProcessed(state.iterations() * kTurnsPerRun);
}
BENCHMARK_TEMPLATE(AsioPost, false)->Name("dispatch_untimed/asio")->Apply(units);
BENCHMARK_TEMPLATE(AsioPost, true)->Name("dispatch/asio")->Apply(units);

// ---------------------------------------------------------------------------------------------
// libuv: a unit wakes itself

template <bool timed>
struct UvUnit {
  uv_async_t async;
  int* remaining;
  Timed<timed> work;

  static void turn(uv_async_t* async) {
    auto* self = static_cast<UvUnit*>(async->data);
    self->work();
    if (--*self->remaining == 0) uv_stop(async->loop);
    uv_async_send(async);
  }
};

template <bool timed>
void LibuvAsync(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  int remaining = 0;
  std::vector<std::unique_ptr<UvUnit<timed>>> all;
  for (int i = 0; i < state.range(0); ++i) {
    all.emplace_back(new UvUnit<timed>{{}, &remaining, {}});
    uv_async_init(&loop, &all.back()->async, &UvUnit<timed>::turn);
    all.back()->async.data = all.back().get();
    uv_async_send(&all.back()->async);
  }
  for (auto _ : state) {
    remaining = kTurnsPerRun;
    uv_run(&loop, UV_RUN_DEFAULT);
  }
  state.SetItemsProcessed(state.iterations() * kTurnsPerRun);
  for (const auto& unit : all) uv_close(reinterpret_cast<uv_handle_t*>(&unit->async), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK_TEMPLATE(LibuvAsync, false)->Name("dispatch_untimed/libuv")->Apply(units);
BENCHMARK_TEMPLATE(LibuvAsync, true)->Name("dispatch/libuv")->Apply(units);
BENCHMARK_TEMPLATE(LibuvAsync, true)->Name("dispatch_event_loop/libuv")->Apply(units);

// ---------------------------------------------------------------------------------------------
// libevent: a unit activates its own event

template <bool timed>
struct EventUnit {
  event_base* base;
  event* own;
  int* remaining;
  Timed<timed> work;

  static void turn(evutil_socket_t, short, void* unit) {
    auto* self = static_cast<EventUnit*>(unit);
    self->work();
    if (--*self->remaining == 0) event_base_loopbreak(self->base);
    event_active(self->own, EV_TIMEOUT, 1);
  }
};

template <bool timed>
void LibeventActive(benchmark::State& state) {
  event_config* config = event_config_new();
  event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
  event_base* base = event_base_new_with_config(config);
  event_config_free(config);
  int remaining = 0;
  std::vector<std::unique_ptr<EventUnit<timed>>> all;
  for (int i = 0; i < state.range(0); ++i) {
    all.emplace_back(new EventUnit<timed>{base, nullptr, &remaining, {}});
    all.back()->own = event_new(base, -1, 0, &EventUnit<timed>::turn, all.back().get());
    event_active(all.back()->own, EV_TIMEOUT, 1);
  }
  for (auto _ : state) {
    remaining = kTurnsPerRun;
    event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY);
  }
  state.SetItemsProcessed(state.iterations() * kTurnsPerRun);
  for (const auto& unit : all) event_free(unit->own);
  event_base_free(base);
}
BENCHMARK_TEMPLATE(LibeventActive, false)->Name("dispatch_untimed/libevent")->Apply(units);
BENCHMARK_TEMPLATE(LibeventActive, true)->Name("dispatch/libevent")->Apply(units);

}  // namespace

BENCHMARK_MAIN();
