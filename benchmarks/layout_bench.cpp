// Rows of another layout made into rows of ours, beside a plain copy of the row: memory of its own
// and memcpy. The copy is the measure, and conversion is to take at most twice its time.

#include <Korvo/RowConverter.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "row/measure.h"

namespace bench {
namespace {

using benchmark::DoNotOptimize;
using namespace Korvo;  // NOLINT

using OldLink = RowLayout<2, Column<"number", std::uint32_t>, Column<"name", std::string>>;
using NewLink = RowLayout<2, Column<"number", std::uint32_t>, Column<"name", std::string>,
                          Column<"load", float>>;

using Old = RowLayout<1, Column<"id", std::uint32_t>, Column<"counter", std::uint64_t>,
                      Column<"up", bool>, Column<"name8", std::string>,
                      Column<"name24", std::string>, Column<"name60", std::string>,
                      Column<"address", IpGenAddr>, Column<"prefix", IpGenPrefix>,
                      Column<"tags", std::vector<std::string>>, Column<"link", Nested<OldLink>>>;

/// A column that the sender does not have, in front of all others.
using Added =
    RowLayout<1, Column<"vlan", std::uint16_t>, Column<"id", std::uint32_t>,
              Column<"counter", std::uint64_t>, Column<"up", bool>, Column<"name8", std::string>,
              Column<"name24", std::string>, Column<"name60", std::string>,
              Column<"address", IpGenAddr>, Column<"prefix", IpGenPrefix>,
              Column<"tags", std::vector<std::string>>, Column<"link", Nested<OldLink>>>;
/// Without a text in the middle.
using Dropped =
    RowLayout<1, Column<"id", std::uint32_t>, Column<"counter", std::uint64_t>, Column<"up", bool>,
              Column<"name8", std::string>, Column<"name60", std::string>,
              Column<"address", IpGenAddr>, Column<"prefix", IpGenPrefix>,
              Column<"tags", std::vector<std::string>>, Column<"link", Nested<OldLink>>>;
/// A wider number, and the columns in another order.
using Reordered =
    RowLayout<1, Column<"link", Nested<OldLink>>, Column<"tags", std::vector<std::string>>,
              Column<"prefix", IpGenPrefix>, Column<"address", IpGenAddr>,
              Column<"name60", std::string>, Column<"name24", std::string>,
              Column<"name8", std::string>, Column<"up", bool>, Column<"counter", std::uint64_t>,
              Column<"id", std::uint64_t>>;
/// Another layout of the nested rows.
using Inner = RowLayout<1, Column<"id", std::uint32_t>, Column<"counter", std::uint64_t>,
                        Column<"up", bool>, Column<"name8", std::string>,
                        Column<"name24", std::string>, Column<"name60", std::string>,
                        Column<"address", IpGenAddr>, Column<"prefix", IpGenPrefix>,
                        Column<"tags", std::vector<std::string>>, Column<"link", Nested<NewLink>>>;

/// The sender's rows, each in memory of its own.
const std::vector<TableRow<Old>>& rows() {
  static const std::vector<TableRow<Old>> all = [] {
    std::vector<TableRow<Old>> made(1024);
    oid_t oid = 0;
    for (TableRow<Old>& row : made) {
      const std::string number = std::to_string(oid);
      TableRow<OldLink> link;
      link.create();
      link.set<"number">(oid);
      link.set<"name">("link" + number);
      row.create(oid++);
      row.set<"id">(oid);
      row.set<"up">(true);
      row.set<"name8">("eth0/" + number);
      row.set<"name24">("a name of middle length " + number);
      row.set<"name60">("a text that tells what a port is for, in about sixty bytes " + number);
      row.set<"address">(IpGenAddr("10.1.2.3"));
      row.set<"prefix">(IpGenPrefix("10.1.0.0/16"));
      row.set<"tags">({"uplink", "core", number});
      row.set<"link">(link);
    }
    return made;
  }();
  return all;
}

void addCopy() {
  add("one row/copy/memcpy", [] {
    return [&from = rows(), round = Round<1024>()]() mutable {
      const TableRow<Old>& row = from[round.next()];
      const std::size_t length = row.rowLength();
      const auto copy = std::make_shared<KoRowBuf>(static_cast<byte_t*>(std::malloc(length)));
      std::memcpy(copy->buf_, row.rowBuf(), length);
      DoNotOptimize(copy->buf_);
      benchmark::ClobberMemory();
    };
  });
  add("one row/copy/adopt", [] {
    return [&from = rows(), round = Round<1024>()]() mutable {
      const TableRow<Old>& row = from[round.next()];
      TableRow<Old> copy;
      copy.adopt(row.rowBuf(), row.rowLength());
      DoNotOptimize(copy.rowBuf());
      benchmark::ClobberMemory();
    };
  });
}

template <typename Layout>
void addConversion(const std::string& name) {
  add("one row/convert/" + name, [] {
    return
        [&from = rows(), round = Round<1024>(),
         converter = std::make_shared<const RowConverter<TableRow<Layout>>>(Old::info)]() mutable {
          const TableRow<Old>& row = from[round.next()];
          TableRow<Layout> ours;
          converter->convert(row.rowBuf(), row.rowLength(), ours);
          DoNotOptimize(ours.rowBuf());
          benchmark::ClobberMemory();
        };
  });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  bench::addCopy();
  bench::addConversion<bench::Old>("same");
  bench::addConversion<bench::Added>("added");
  bench::addConversion<bench::Dropped>("dropped");
  bench::addConversion<bench::Reordered>("reordered");
  bench::addConversion<bench::Inner>("nested");
  benchmark::RunSpecifiedBenchmarks();
}
