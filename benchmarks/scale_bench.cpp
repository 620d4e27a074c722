// What one operation costs as tables and queues grow, and what a queued unit takes of the heap.
//
// Times are those of one row or one turn. The largest sizes take minutes and gigabytes: they are
// measured if KORVO_BENCH_LARGEST tells the largest size wanted.

#include <Korvo/Scheduler.h>
#include <Korvo/TableRow.h>

#include <benchmark/benchmark.h>
#include <event2/event.h>
#include <malloc.h>
#include <uv.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

std::int64_t largestWanted() {
  const char* const text = std::getenv("KORVO_BENCH_LARGEST");
  return text == nullptr ? 10'000 : std::strtoll(text, nullptr, 10);
}

/// Ten times as many each time, as far as wanted.
void sizes(benchmark::internal::Benchmark* benchmark, std::int64_t first, std::int64_t last) {
  last = std::min(last, largestWanted());
  for (std::int64_t size = first; size <= last; size *= 10) benchmark->Arg(size);
}

std::size_t heapInUse() {
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Tells how much the heap has grown for each of `count` since it was made.
class HeapGrowth {
 public:
  void report(benchmark::State& state, const char* name, std::int64_t count) const {
    state.counters[name] = static_cast<double>(heapInUse() - before_) / static_cast<double>(count);
  }

 private:
  std::size_t before_ = heapInUse();
};

// ---------------------------------------------------------------------------------------------
// Rows

using Layout = Korvo::RowLayout<1,                                   //
                                Korvo::Column<"id", std::uint32_t>,  //
                                Korvo::Column<"name", std::string>,
                                Korvo::Column<"prefix", Korvo::IpGenPrefix>>;
using Row = Korvo::TableRow<Layout>;

std::vector<Row> makeRows(std::int64_t count) {
  std::mt19937 random(1);
  std::vector<Row> rows(static_cast<std::size_t>(count));
  for (Row& row : rows) {
    row.create();
    row.set<"id">(static_cast<std::uint32_t>(random()));
    row.set<"name">("name " + std::to_string(random()));
    row.set<"prefix">(Korvo::IpGenPrefix(Korvo::IpAddr(static_cast<unsigned>(random())), 32));
  }
  return rows;
}

void rowSizes(benchmark::internal::Benchmark* benchmark) {
  sizes(benchmark, 1'000, 10'000'000);
}

void BuildRows(benchmark::State& state) {
  const HeapGrowth growth;
  std::vector<Row> rows;
  while (state.KeepRunningBatch(state.range(0))) rows = makeRows(state.range(0));
  growth.report(state, "bytes_per_row", state.range(0));
}
BENCHMARK(BuildRows)->Name("scale_row_build/korvo")->Apply(rowSizes);

void ReadRows(benchmark::State& state) {
  const std::vector<Row> rows = makeRows(state.range(0));
  std::mt19937 random(2);
  for (auto _ : state) {
    benchmark::DoNotOptimize(rows[random() % rows.size()].view<"name">().size());
  }
}
BENCHMARK(ReadRows)->Name("scale_row_read_random/korvo")->Apply(rowSizes);

void SortRows(benchmark::State& state) {
  const std::vector<Row> rows = makeRows(state.range(0));
  while (state.KeepRunningBatch(state.range(0))) {
    std::vector<Row> sorted = rows;
    std::sort(sorted.begin(), sorted.end(),
              [](const Row& a, const Row& b) { return a.less<"name">(b); });
    benchmark::DoNotOptimize(sorted.data());
  }
}
BENCHMARK(SortRows)->Name("scale_row_sort/korvo")->Apply(rowSizes);

// ---------------------------------------------------------------------------------------------
// Units, each of which asks for its next turn

void unitCounts(benchmark::internal::Benchmark* benchmark) {
  sizes(benchmark, 1, 1'000'000);
}

constexpr int turnsPerRun = 20'000;
constexpr const char* bytesPerUnit = "bytes_per_unit";

class Unit : public Korvo::Schedulable {
 public:
  explicit Unit(const Korvo::KoPtr<Korvo::Scheduler>& scheduler) : Schedulable("unit", scheduler) {
    clientReadyIs(true);
    runnableIs(true);
  }
  void run(bool) override { runnableIs(true); }
};

void KorvoUnits(benchmark::State& state) {
  const auto scheduler = std::make_shared<Korvo::Scheduler>("bench");
  const HeapGrowth growth;
  std::vector<std::unique_ptr<Unit>> all;
  for (std::int64_t i = 0; i < state.range(0); ++i)
    all.push_back(std::make_unique<Unit>(scheduler));
  growth.report(state, bytesPerUnit, state.range(0));
  while (state.KeepRunningBatch(turnsPerRun)) scheduler->run(turnsPerRun, 0.0, true);
}
BENCHMARK(KorvoUnits)->Name("scale_dispatch/korvo")->Apply(unitCounts);

struct AsioUnit {
  boost::asio::io_context& context;
  int& remaining;

  void post() {
    boost::asio::post(context, [this] {
      if (--remaining == 0) context.stop();
      post();
    });
  }
};

void AsioUnits(benchmark::State& state) {
  boost::asio::io_context context(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE);
  int remaining = 0;
  const HeapGrowth growth;
  std::vector<std::unique_ptr<AsioUnit>> all;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    all.emplace_back(new AsioUnit{context, remaining});
    all.back()->post();
  }
  growth.report(state, bytesPerUnit, state.range(0));
  while (state.KeepRunningBatch(turnsPerRun)) {
    remaining = turnsPerRun;
    context.restart();
    context.run();
  }
}
BENCHMARK(AsioUnits)->Name("scale_dispatch/asio_without_clock_reads")->Apply(unitCounts);

struct UvUnit {
  uv_async_t async;
  int* remaining;

  static void turn(uv_async_t* async) {
    auto* const self = static_cast<UvUnit*>(async->data);
    if (--*self->remaining == 0) uv_stop(async->loop);
    uv_async_send(async);
  }
};

void UvUnits(benchmark::State& state) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  int remaining = 0;
  const HeapGrowth growth;
  std::vector<std::unique_ptr<UvUnit>> all;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    all.emplace_back(new UvUnit{{}, &remaining});
    uv_async_init(&loop, &all.back()->async, &UvUnit::turn);
    all.back()->async.data = all.back().get();
    uv_async_send(&all.back()->async);
  }
  growth.report(state, bytesPerUnit, state.range(0));
  while (state.KeepRunningBatch(turnsPerRun)) {
    remaining = turnsPerRun;
    uv_run(&loop, UV_RUN_DEFAULT);
  }
  for (const auto& unit : all) uv_close(reinterpret_cast<uv_handle_t*>(&unit->async), nullptr);
  uv_run(&loop, UV_RUN_DEFAULT);
  uv_loop_close(&loop);
}
BENCHMARK(UvUnits)->Name("scale_dispatch/libuv_without_clock_reads")->Apply(unitCounts);

struct EventUnit {
  event_base* base;
  event* own;
  int* remaining;

  static void turn(evutil_socket_t, short, void* unit) {
    auto* const self = static_cast<EventUnit*>(unit);
    if (--*self->remaining == 0) event_base_loopbreak(self->base);
    event_active(self->own, EV_TIMEOUT, 1);
  }
};

void EventUnits(benchmark::State& state) {
  event_base* const base = event_base_new();
  int remaining = 0;
  const HeapGrowth growth;
  std::vector<std::unique_ptr<EventUnit>> all;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    all.emplace_back(new EventUnit{base, nullptr, &remaining});
    all.back()->own = event_new(base, -1, 0, &EventUnit::turn, all.back().get());
    event_active(all.back()->own, EV_TIMEOUT, 1);
  }
  growth.report(state, bytesPerUnit, state.range(0));
  while (state.KeepRunningBatch(turnsPerRun)) {
    remaining = turnsPerRun;
    event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY);
  }
  for (const auto& unit : all) event_free(unit->own);
  event_base_free(base);
}
BENCHMARK(EventUnits)->Name("scale_dispatch/libevent_without_clock_reads")->Apply(unitCounts);

}  // namespace

BENCHMARK_MAIN();
