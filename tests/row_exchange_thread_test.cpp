// Many threads that read and write rows of their own and pass them on, so that buffers have holders
// on several threads at any time. Meant to be run under a thread checker too.

#include <Korvo/TableRow.h>
#include <Korvo/rowCheck.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace Korvo;

using Inner = RowLayout<2, Column<"text", std::string>>;
using Layout = RowLayout<1, Column<"number", std::uint32_t>, Column<"text", std::string>,
                         Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
                         Column<"texts", std::vector<std::string>>,
                         Column<"flags", std::vector<bool>>, Column<"inner", Nested<Inner>>>;
using Row = TableRow<Layout>;

/// Every column of a row is written from one number, so that a reader can tell whether what it sees
/// belongs together.
std::string textOf(std::uint32_t number) {
  return std::string(number % 40, 'x') + std::to_string(number);
}

void write(Row& row, std::uint32_t number) {
  TableRow<Inner> inner;
  inner.create();
  inner.set<"text">(textOf(number));
  row.set<"number">(number);
  row.set<"text">(textOf(number));
  row.set<"addr">(IpGenAddr(IpAddr(number)));
  row.set<"net">(IpGenPrefix(IpAddr(number), 32));
  row.set<"texts">({textOf(number), "", textOf(number + 1)});
  row.set<"flags">(std::vector<bool>(number % 7 + 1, true));
  row.set<"inner">(inner);
}

bool belongsTogether(const Row& row) {
  const std::uint32_t number = row.get<"number">();
  const IpGenAddr addr{IpAddr(number)};
  return !checkRow(row.rowBuf(), row.rowLength(), Layout::info, PrefixRule::noHostBits) &&
         row.view<"text">().view() == textOf(number) && row.get<"addr">() == addr &&
         row.get<"net">().addr() == addr &&
         row.get<"texts">() == std::vector<std::string>{textOf(number), "", textOf(number + 1)} &&
         row.view<"flags">().size() == number % 7 + 1 &&
         row.view<"inner">().view<"text">().view() == textOf(number);
}

/// Reads that go through other code than the values do.
std::size_t readAll(const Row& row, const Row& other) {
  std::ostringstream out;
  out << row << row.view<"text">() << row.view<"addr">() << row.view<"net">();
  return out.str().size() + row.toJson().size() + row.hash<"text">() + row.hash<"net">() +
         (row.less<"text">(other) ? 1 : 0) + (row.equal<"addr">(other) ? 1 : 0);
}

/// Where threads leave rows for each other.
class Exchange {
 public:
  /// Gives a copy, which shares its buffer with the row that stays, or swaps the two.
  Row copy(std::size_t place) {
    const std::lock_guard lock(mutex_);
    return rows_[place % rows_.size()];
  }
  void swap(std::size_t place, Row& row) {
    const std::lock_guard lock(mutex_);
    std::swap(rows_[place % rows_.size()], row);
  }
  std::array<Row, 4> take() { return std::exchange(rows_, {}); }

 private:
  std::mutex mutex_;
  std::array<Row, 4> rows_;
};

TEST(RowExchange, ReadersAndWritersOfTheirOwnRows) {
  constexpr int threads = 8;
  constexpr int rounds = 500;
  Exchange exchange;
  for (std::uint32_t place = 0; place < 4; ++place) {
    Row row;
    row.create(place);
    write(row, place);
    exchange.swap(place, row);
  }

  std::atomic<int> failures{0};
  std::atomic<int> shared{0};
  std::vector<std::thread> all;
  for (int t = 0; t < threads; ++t) {
    all.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      Row own = exchange.copy(random());
      for (int round = 0; round < rounds; ++round) {
        const Row before = own;
        const Row other = exchange.copy(random());
        if (!belongsTogether(own) || !belongsTogether(other)) ++failures;
        if (own.rowBuf() == other.rowBuf()) ++shared;
        if (t % 2 == 0 && readAll(own, other) == 0) ++failures;
        switch (random() % 4) {
          case 0:
            own = other;
            break;
          case 1:
            exchange.swap(random(), own);
            break;
          case 2:
            if (t % 2 == 1) own.clearRow();
            [[fallthrough]];
          default:
            if (t % 2 == 1) write(own, static_cast<std::uint32_t>(random() % 1000));
        }
        if (!belongsTogether(before)) ++failures;
      }
    });
  }
  for (std::thread& thread : all) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_GT(shared, 0);
  for (const Row& row : exchange.take()) EXPECT_TRUE(belongsTogether(row));
}

/// What a row class makes at its first use is made once, whichever thread comes first.
TEST(RowExchange, FirstUseOnManyThreads) {
  using FirstUse = RowLayout<4, Column<"a", std::string>, Column<"b", std::vector<bool>>>;
  std::atomic<int> failures{0};
  std::vector<std::thread> all;
  for (int t = 0; t < 8; ++t) {
    all.emplace_back([&] {
      TableRow<FirstUse> row;
      row.create();
      if (row.vcd() != BaseRow::vcdType{8, 12}) ++failures;
      row.set<"a">("text");
      if (row.get<"a">() != "text") ++failures;
    });
  }
  for (std::thread& thread : all) thread.join();
  EXPECT_EQ(failures, 0);
}

}  // namespace
