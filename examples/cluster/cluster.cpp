// A publisher and its copies on a cluster, which is shown by scripts/cluster-demo.sh:
//
//   cluster publish ADDRESS FILE SECONDS   the ranges of a file, changed for so long
//   cluster copy ADDRESS                   a copy; told to end, it tells what it holds
//
// FILE has lines FIRST,LAST,COUNTRY with addresses as numbers, as examples/netdb/sample/geoip.

#include <Korvo/Batch.h>
#include <Korvo/EtcdTables.h>
#include <Korvo/EventLoop.h>
#include <Korvo/KoStrUtils.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <arpa/inet.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct RangeLayout
    : Korvo::RowLayout<
          31, Korvo::Column<"hits", std::uint32_t>, Korvo::Column<"first", Korvo::IpGenAddr>,
          Korvo::Column<"last", Korvo::IpGenAddr>, Korvo::Column<"country", std::string>> {};
using Range = Korvo::TableRow<RangeLayout>;
constexpr const char* tableName = "net/range";

Korvo::IpGenAddr address(const std::string& number) {
  return Korvo::IpGenAddr(Korvo::IpAddr(htonl(static_cast<std::uint32_t>(std::stoul(number)))));
}

void load(const std::string& path, Korvo::Table<Range>& ranges) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path + " cannot be read");
  Korvo::Batch batch(ranges);
  Korvo::oid_t oid = 0;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line.front() == '#') continue;
    const std::size_t first = line.find(',');
    const std::size_t second = line.find(',', first + 1);
    Range range;
    range.create(++oid);
    range.set<"first">(address(line.substr(0, first)));
    range.set<"last">(address(line.substr(first + 1, second - first - 1)));
    range.set<"country">(line.substr(second + 1));
    batch.put(range);
  }
  batch.commit();
}

/// What a table holds: the rows' bytes, in the order of their oids.
std::string summary(const Korvo::Table<Range>& ranges) {
  std::map<Korvo::oid_t, std::string> rows;
  for (const Range& row : ranges) {
    rows[row.rowOid()] = {reinterpret_cast<const char*>(row.rowBuf()), row.rowLength()};
  }
  std::string bytes;
  for (const auto& [oid, row] : rows) bytes += row;
  return std::to_string(ranges.size()) + " rows, sha1 " + Korvo::KoStrUtils::sha1(bytes);
}

int publish(const std::string& address, const std::string& path, int seconds) {
  const auto loop = std::make_shared<Korvo::EventLoop>("publisher");
  loop->stopOnSignals({SIGINT, SIGTERM});
  Korvo::Table<Range> ranges(tableName);
  load(path, ranges);
  Korvo::TablePublisher publisher("publisher", loop);
  publisher.add(ranges);
  publisher.listen(address);

  const auto end = Clock::now() + std::chrono::seconds(seconds);
  const auto rows = static_cast<Korvo::oid_t>(ranges.size());
  std::uint32_t changes = 0;
  std::string problem;
  while (Clock::now() < end) {
    Korvo::Batch batch(ranges);
    for (int i = 0; i < 3; ++i) {
      Range range = ranges.find(1 + ++changes * 7919 % rows);
      range.set<"hits">(range.get<"hits">() + 1);
      batch.put(range);
    }
    batch.commit();
    loop->run(0, 0.005, false);
    const std::string now = publisher.subscribers().front().lastReason;
    if (now != problem) std::cout << "publisher: " << (now.empty() ? "writing" : now) << std::endl;
    problem = now;
  }
  while (publisher.subscribers().front().lag != 0) loop->run(0, 0.01, false);
  std::cout << "publisher: " << changes << " changes; " << summary(ranges) << std::endl;
  loop->activeIs(true);
  loop->run();
  return 0;
}

int copy(const std::string& address) {
  const auto loop = std::make_shared<Korvo::EventLoop>("copy");
  loop->stopOnSignals({SIGINT, SIGTERM});
  Korvo::Table<Range> ranges(tableName);
  Korvo::TableSubscriber subscriber(address, loop);
  subscriber.add(ranges);
  Korvo::TableReader<Range> reader(ranges, loop, [](const Korvo::Changes<Range>&) {});
  reader.onState([](Korvo::TableState state, const std::string& text) {
    std::cout << "copy: " << (state == Korvo::TableState::current ? "current" : "not current")
              << (text.empty() ? "" : ", ") << text << std::endl;
  });
  loop->run();
  const auto status = subscriber.status();
  std::cout << "copy: " << status.marks << " states, " << status.merged << " merged; "
            << summary(ranges) << std::endl;
  return 0;
}

}  // namespace

int main(int count, char** arguments) try {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  Korvo::EtcdEngine::add();
  if (words.size() == 4 && words[0] == "publish") {
    return publish(words[1], words[2], std::stoi(words[3]));
  }
  if (words.size() == 2 && words[0] == "copy") return copy(words[1]);
  std::cerr << "cluster publish ADDRESS FILE SECONDS | cluster copy ADDRESS\n";
  return 2;
} catch (const std::exception& error) {
  std::cerr << "cluster: " << error.what() << '\n';
  return 1;
}
