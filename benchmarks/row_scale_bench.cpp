// How the cost of rows grows with their size: rows of 2 to 1,000 variable columns, of 64 bytes to
// 64 KiB, arrays of 1 to 4,000 elements; and the memory that rows take.
//
// Each benchmark is named workload/contestant/size. Memory is what the heap says is in use, divided
// by the rows, as the counter bytes_per_row.

#include "row/contestants.h"
#include "row/measure.h"

#include <malloc.h>

#include <memory>
#include <string>
#include <vector>

namespace bench {
namespace {

using benchmark::DoNotOptimize;
using Korvo::len_t;

/// A row of `columns` text columns, known at run time.
class WideRow : public Korvo::BaseRow {
 public:
  explicit WideRow(std::size_t columns)
      : slots_(std::make_shared<vcdType>()), base_(slotOf(columns)) {
    for (std::size_t i = 0; i < columns; ++i) slots_->push_back(slotOf(i));
    create();
  }
  void create() { installNew(base_, 1, 0); }
  vcdType& vcd() const override { return *slots_; }
  bool isFullyDefined() const override { return true; }
  len_t baseLength() const { return base_; }

  static len_t slotOf(std::size_t column) {
    return static_cast<len_t>(Korvo::rowHeaderLength + sizeof(Korvo::VColType) * column);
  }
  void setText(std::size_t column, const Korvo::StringValueReference& text) {
    setColumn(slotOf(column), text, base_);
  }
  void setTexts(std::size_t columns, const Korvo::StringValueReference& text) {
    Korvo::RowWriter writer(*this, base_);
    for (std::size_t i = 0; i < columns; ++i) writer.setColumn(slotOf(i), text);
  }

 private:
  std::shared_ptr<vcdType> slots_;
  len_t base_;
};

constexpr char longText[65536] = {};
Korvo::StringValueReference textOf(std::size_t size) {
  return {longText, static_cast<len_t>(size)};
}

void columnCounts(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("columns")->Arg(2)->Arg(10)->Arg(50)->Arg(200)->Arg(1000);
}
void rowSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("bytes")->Arg(64)->Arg(512)->Arg(4096)->Arg(32768)->Arg(65535);
}
void elementCounts(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("elements")->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(4000);
}

template <typename Work>
void measure(benchmark::State& state, std::int64_t items, Work work) {
  for (auto _ : state) {
    work();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * items);
}

// ---------------------------------------------------------------------------------------------
// By columns

constexpr std::size_t columnText = 12;

void buildWide(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  measure(state, state.range(0), [&] {
    row.clearRow();
    for (std::size_t i = 0; i < columns; ++i) row.setText(i, textOf(columnText));
  });
}
void growWide(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  measure(state, state.range(0), [&] {
    row.create();
    for (std::size_t i = 0; i < columns; ++i) row.setText(i, textOf(columnText));
  });
}
void buildWideByWriter(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  measure(state, state.range(0), [&] {
    row.clearRow();
    row.setTexts(columns, textOf(columnText));
  });
}
void growWideByWriter(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  measure(state, state.range(0), [&] {
    row.create();
    row.setTexts(columns, textOf(columnText));
  });
}
void buildWideFlat(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  flatbuffers::FlatBufferBuilder builder;
  std::vector<flatbuffers::Offset<flatbuffers::String>> texts(columns);
  measure(state, state.range(0), [&] {
    builder.Clear();
    for (auto& text : texts) text = builder.CreateString(longText, columnText);
    const auto start = builder.StartTable();
    for (std::size_t i = 0; i < columns; ++i) {
      builder.AddOffset(static_cast<flatbuffers::voffset_t>(4 + 2 * i), texts[i]);
    }
    builder.Finish(flatbuffers::Offset<flat::Row>(builder.EndTable(start)));
    DoNotOptimize(builder.GetBufferPointer());
  });
}

/// Overwrites a text in place, and makes one column longer and others move.
void overwriteInWide(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  for (std::size_t i = 0; i < columns; ++i) row.setText(i, textOf(columnText));
  measure(state, 1, [&] { row.setText(0, textOf(columnText)); });
}
void packWide(benchmark::State& state) {
  const auto columns = static_cast<std::size_t>(state.range(0));
  WideRow row(columns);
  for (std::size_t i = 0; i < columns; ++i) row.setText(i, textOf(columnText));
  std::size_t column = 0;
  measure(state, 1, [&] {
    row.setText(column, textOf(columnText / 2));
    row.setText(column, textOf(columnText));
    column = (column + 1) % columns;
  });
}

// ---------------------------------------------------------------------------------------------
// By length

WideRow rowOfLength(std::size_t length) {
  WideRow row(4);
  const std::size_t room = length - row.baseLength();
  for (std::size_t i = 0; i < 4; ++i) row.setText(i, textOf(room / 4));
  return row;
}
void overwriteInLong(benchmark::State& state) {
  WideRow row = rowOfLength(static_cast<std::size_t>(state.range(0)));
  const Korvo::StringValueReference text = textOf(8);
  measure(state, 1, [&] { row.setText(3, text); });
}
void copyLong(benchmark::State& state) {
  const WideRow row = rowOfLength(static_cast<std::size_t>(state.range(0)));
  measure(state, 1, [&] {
    WideRow copy = row;
    copy.rowOidIs(1);
    DoNotOptimize(copy.rowBuf());
  });
}
void copyLongMemory(benchmark::State& state) {
  const WideRow row = rowOfLength(static_cast<std::size_t>(state.range(0)));
  measure(state, 1, [&] {
    const OwnBytes copy({row.rowBuf(), row.rowLength()});
    DoNotOptimize(copy.data.get());
  });
}

// ---------------------------------------------------------------------------------------------
// By elements

void writeArray(benchmark::State& state) {
  WideRow row(1);
  const std::vector<std::string> values(static_cast<std::size_t>(state.range(0)), "12");
  measure(state, state.range(0), [&] {
    row.clearRow();
    row.setColumn(WideRow::slotOf(0), values, row.baseLength());
  });
}
void readArray(benchmark::State& state) {
  WideRow row(1);
  const std::vector<std::string> values(static_cast<std::size_t>(state.range(0)), "12");
  row.setColumn(WideRow::slotOf(0), values, row.baseLength());
  measure(state, state.range(0), [&] {
    std::size_t sum = 0;
    for (const auto& text : row.arrayReference<Korvo::StringValueReference>(WideRow::slotOf(0))) {
      sum += static_cast<unsigned char>(text.data()[0]);
    }
    DoNotOptimize(sum);
  });
}

// ---------------------------------------------------------------------------------------------
// Memory

template <typename Make>
void addMemory(const std::string& name, Make make) {
  benchmark::RegisterBenchmark(name.c_str(), [make](benchmark::State& state) {
    constexpr std::size_t count = 4096;
    for (auto _ : state) {
      const std::size_t before = mallinfo2().uordblks;
      std::vector<decltype(make(someSamples()[0]))> rows;
      rows.reserve(count);
      for (std::size_t i = 0; i < count; ++i) rows.push_back(make(someSamples()[i % 16]));
      const std::size_t used = mallinfo2().uordblks - before;
      state.counters["bytes_per_row"] = static_cast<double>(used) / count;
    }
  })->Iterations(1);
}

void addAll() {
  const auto add = [](const char* name, void (*run)(benchmark::State&),
                      void (*sizes)(benchmark::internal::Benchmark*)) {
    benchmark::RegisterBenchmark(name, run)->Apply(sizes);
  };
  add("scale_build_reused/korvo", buildWide, columnCounts);
  add("scale_build_reused/korvo_writer", buildWideByWriter, columnCounts);
  add("scale_build_reused/flatbuffers", buildWideFlat, columnCounts);
  add("scale_build_grown/korvo", growWide, columnCounts);
  add("scale_build_grown/korvo_writer", growWideByWriter, columnCounts);
  add("scale_overwrite_in_wide/korvo", overwriteInWide, columnCounts);
  add("scale_pack/korvo", packWide, columnCounts);
  add("scale_overwrite_in_long/korvo", overwriteInLong, rowSizes);
  add("scale_copy_on_write/korvo", copyLong, rowSizes);
  add("scale_copy_on_write/memcpy", copyLongMemory, rowSizes);
  add("scale_write_array/korvo", writeArray, elementCounts);
  add("scale_read_array/korvo", readArray, elementCounts);

  auto korvo = std::make_shared<KorvoBuilder>();
  addMemory("row_memory/korvo", [korvo](const Sample& s) { return korvo->build(s); });
  auto flat = std::make_shared<FlatBuilder>();
  addMemory("row_memory/flatbuffers",
            [flat](const Sample& s) { return OwnBytes(flat->build(s)).data; });
  auto capn = std::make_shared<CapnBuilder>();
  addMemory("row_memory/capnp", [capn](const Sample& s) {
    std::unique_ptr<capnp::word[]> row;
    capn->build(s, [&](auto words) {
      row.reset(new capnp::word[words.size()]);
      std::memcpy(row.get(), words.begin(), words.size() * sizeof(capnp::word));
    });
    return row;
  });
  auto proto = std::make_shared<ProtoBuilder>();
  addMemory("row_memory/protobuf_bytes",
            [proto](const Sample& s) { return OwnBytes(proto->build(s)).data; });
  addMemory("row_memory/protobuf_message", [](const Sample& s) {
    auto row = std::make_unique<proto::Row>();
    ProtoBuilder::fill(*row, s);
    return row;
  });
  addMemory("row_memory/struct", [](const Sample& s) {
    auto row = std::make_unique<PlainRow>();
    row->fill(s);
    return row;
  });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::addAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
