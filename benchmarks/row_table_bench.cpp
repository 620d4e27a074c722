// A table of a million rows, more than any cache holds: reading a text of a random row, and sorting
// the rows in place. Every row has allocations of its own.
//
// KORVO_BENCH_ROWS is the number of rows in place of the million.

#include "row/contestants.h"
#include "row/measure.h"

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace bench {
namespace {

using benchmark::DoNotOptimize;
using FlatBytes = std::unique_ptr<std::uint8_t[]>;

std::size_t rowCount() {
  const char* const count = std::getenv("KORVO_BENCH_ROWS");
  return count == nullptr ? 1'000'000 : std::strtoul(count, nullptr, 10);
}

/// How the values are spread over a table's rows.
enum class Spread {
  real,  ///< random names, prefixes of real ranges
  alike  ///< names that share their first 5 to 12 bytes, prefixes of random lengths
};

class SpreadSamples {
 public:
  explicit SpreadSamples(Spread spread) : spread_(spread) {}

  Sample next() {
    Sample sample = samples_.next();
    if (spread_ == Spread::real) return sample;
    constexpr std::string_view shared = "ethernet-1/0";
    sample.name24.replace(0, shared.size(), shared);
    for (std::size_t i = 5 + random_() % 8; i < shared.size(); ++i) {
      sample.name24[i] = static_cast<char>('a' + random_() % 26);
    }
    sample.prefixLength = static_cast<std::uint8_t>(random_() % 33);
    sample.prefix = Korvo::IpGenPrefix(Korvo::IpAddr(static_cast<std::uint32_t>(random_())),
                                       sample.prefixLength)
                        .network();
    sample.prefixWord = Korvo::loadField<std::uint32_t>(sample.prefix.addr().bytes());
    return sample;
  }

 private:
  Spread spread_;
  Samples samples_;
  std::mt19937 random_{2};
};

/// The rows of one contestant, made when they are first asked for.
template <typename Row, Spread spread, typename Make>
std::vector<Row>& table(Make make) {
  static std::vector<Row> rows = [&] {
    std::vector<Row> all;
    all.reserve(rowCount());
    SpreadSamples samples(spread);
    for (std::size_t i = 0; i < rowCount(); ++i) all.push_back(make(samples.next()));
    return all;
  }();
  return rows;
}

template <Spread spread>
std::vector<KorvoRow>& korvoTable() {
  return table<KorvoRow, spread>(
      [builder = KorvoBuilder()](const Sample& s) mutable { return builder.build(s); });
}
template <Spread spread>
std::vector<FlatBytes>& flatTable() {
  return table<FlatBytes, spread>([builder = std::make_shared<FlatBuilder>()](const Sample& s) {
    return OwnBytes(builder->build(s)).data;
  });
}
template <Spread spread>
std::vector<std::unique_ptr<PlainRow>>& plainTable() {
  return table<std::unique_ptr<PlainRow>, spread>([](const Sample& s) {
    auto row = std::make_unique<PlainRow>();
    row->fill(s);
    return row;
  });
}

// ---------------------------------------------------------------------------------------------
// One text of a random row

template <typename Table, typename Text>
void addRandom(const std::string& name, Table table, Text text) {
  add(name, [table, text] {
    return [&rows = table(), text, random = std::minstd_rand()]() mutable {
      const std::string_view value = text(rows[random() % rows.size()]);
      Sum sum;
      sum.text(value.data(), value.size());
      DoNotOptimize(sum.value());
    };
  });
}

std::string_view nameOf(const KorvoRow& row) {
  return row.view<"name24">();
}
std::string_view nameOf(const FlatBytes& row) {
  const flatbuffers::String& name = *flat::GetRow(row.get())->name24();
  return {name.c_str(), name.size()};
}
std::string_view nameOf(const std::unique_ptr<PlainRow>& row) {
  return row->name24;
}

void addRandomReading() {
  const auto text = [](const auto& row) { return nameOf(row); };
  addRandom("table_random_text/korvo", korvoTable<Spread::real>, text);
  addRandom("table_random_text/flatbuffers", flatTable<Spread::real>, text);
  addRandom("table_random_text/struct", plainTable<Spread::real>, text);
}

// ---------------------------------------------------------------------------------------------
// Sorting

/// Sorts the rows, which are in random order before.
template <typename Table, typename Sort>
void addSort(const std::string& name, Table table, Sort sort) {
  benchmark::RegisterBenchmark(
      name.c_str(),
      [table, sort](benchmark::State& state) {
        auto& rows = table();
        for (auto _ : state) {
          std::shuffle(rows.begin(), rows.end(), std::minstd_rand());
          const double start = threadSeconds();
          sort(rows);
          state.SetIterationTime(threadSeconds() - start);
        }
        state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rows.size()));
      })
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

/// The library's order of prefixes, for two numbers in host order: the more specific one first
/// where one contains the other, others by address.
bool prefixLess(std::uint32_t a, unsigned int aLength, std::uint32_t b, unsigned int bLength) {
  const unsigned int shorter = std::min(aLength, bLength);
  const bool nested = shorter == 0 || ((a ^ b) >> (32 - shorter)) == 0;
  return nested ? aLength > bLength : a < b;
}

bool textLess(const KorvoRow& a, const KorvoRow& b) {
  return a.less<"name24">(b);
}
bool textLess(const FlatBytes& a, const FlatBytes& b) {
  return *flat::GetRow(a.get())->name24() < *flat::GetRow(b.get())->name24();
}
bool textLess(const std::unique_ptr<PlainRow>& a, const std::unique_ptr<PlainRow>& b) {
  return a->name24 < b->name24;
}

bool prefixLess(const KorvoRow& a, const KorvoRow& b) {
  return a.less<"prefix">(b);
}
bool prefixLess(const FlatBytes& a, const FlatBytes& b) {
  const flat::Prefix& left = *flat::GetRow(a.get())->prefix();
  const flat::Prefix& right = *flat::GetRow(b.get())->prefix();
  return prefixLess(ntohl(left.address()), left.length(), ntohl(right.address()), right.length());
}
bool prefixLess(const std::unique_ptr<PlainRow>& a, const std::unique_ptr<PlainRow>& b) {
  return prefixLess(ntohl(a->prefixAddress), a->prefixLength, ntohl(b->prefixAddress),
                    b->prefixLength);
}

/// Sorts with std::sort and the contestant's own comparison.
template <typename Rows>
void sortByText(Rows& rows) {
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return textLess(a, b); });
}
template <typename Rows>
void sortByPrefix(Rows& rows) {
  std::sort(rows.begin(), rows.end(),
            [](const auto& a, const auto& b) { return prefixLess(a, b); });
}

template <Spread spread>
void addSorting(const std::string& by) {
  const auto byText = [](auto& rows) { sortByText(rows); };
  const std::string text = "table_sort_by_" + by + "text/";
  addSort(text + "korvo", korvoTable<spread>, byText);
  addSort(text + "korvo_key", korvoTable<spread>,
          [](auto& rows) { Korvo::sortRows<"name24">(rows); });
  addSort(text + "flatbuffers", flatTable<spread>, byText);
  addSort(text + "struct", plainTable<spread>, byText);
  const auto byPrefix = [](auto& rows) { sortByPrefix(rows); };
  const std::string prefix = "table_sort_by_" + by + "prefix/";
  addSort(prefix + "korvo", korvoTable<spread>, byPrefix);
  addSort(prefix + "korvo_key", korvoTable<spread>,
          [](auto& rows) { Korvo::sortRows<"prefix">(rows); });
  addSort(prefix + "flatbuffers", flatTable<spread>, byPrefix);
  addSort(prefix + "struct", plainTable<spread>, byPrefix);
}

// ---------------------------------------------------------------------------------------------

std::uint64_t prefixOf(const KorvoRow& row) {
  const auto prefix = row.view<"prefix">();
  return std::uint64_t{Korvo::loadField<std::uint32_t>(prefix.addr())} << 8 | prefix.mask();
}
std::uint64_t prefixOf(const FlatBytes& row) {
  const flat::Prefix& prefix = *flat::GetRow(row.get())->prefix();
  return std::uint64_t{prefix.address()} << 8 | prefix.length();
}
std::uint64_t prefixOf(const std::unique_ptr<PlainRow>& row) {
  return std::uint64_t{row->prefixAddress} << 8 | row->prefixLength;
}

/// A few thousand rows, sorted by each contestant, stand in the same order.
void checkContestants(Spread spread) {
  constexpr std::size_t count = 5000;
  std::vector<KorvoRow> korvo;
  std::vector<FlatBytes> flat;
  std::vector<std::unique_ptr<PlainRow>> plain;
  SpreadSamples samples(spread);
  KorvoBuilder korvoBuilder;
  FlatBuilder flatBuilder;
  for (std::size_t i = 0; i < count; ++i) {
    const Sample sample = samples.next();
    korvo.push_back(korvoBuilder.build(sample));
    flat.push_back(OwnBytes(flatBuilder.build(sample)).data);
    plain.push_back(std::make_unique<PlainRow>());
    plain.back()->fill(sample);
  }
  sortByText(korvo);
  sortByText(flat);
  sortByText(plain);
  for (std::size_t i = 0; i < count; ++i) {
    require(nameOf(korvo[i]) == nameOf(flat[i]) && nameOf(korvo[i]) == nameOf(plain[i]),
            "order of texts");
  }
  std::shuffle(korvo.begin(), korvo.end(), std::minstd_rand());
  Korvo::sortRows<"name24">(korvo);
  for (std::size_t i = 0; i < count; ++i) {
    require(nameOf(korvo[i]) == nameOf(flat[i]), "order of texts by key");
  }
  Korvo::sortRows<"prefix">(korvo);
  for (std::size_t i = 0; i < count; ++i) {
    require(i == 0 || !prefixLess(korvo[i], korvo[i - 1]), "order of prefixes by key");
  }
  sortByPrefix(korvo);
  sortByPrefix(flat);
  sortByPrefix(plain);
  for (std::size_t i = 0; i < count; ++i) {
    require(prefixOf(korvo[i]) == prefixOf(flat[i]) && prefixOf(korvo[i]) == prefixOf(plain[i]),
            "order of prefixes");
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::checkContestants(bench::Spread::real);
  bench::checkContestants(bench::Spread::alike);
  bench::addRandomReading();
  bench::addSorting<bench::Spread::real>("");
  bench::addSorting<bench::Spread::alike>("alike_");
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
