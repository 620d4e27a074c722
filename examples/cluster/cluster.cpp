// The rows of netdb on a cluster: a publisher and its copies, which scripts/cluster-demo.sh shows.
//
//   cluster publish ADDRESS SECONDS FILE...   the prefixes of the files, changed for so long
//   cluster copy ADDRESS                      a copy; told to end, it tells what it holds
//
// The files are those of netdb, with lines FIRST,LAST,COUNTRY.

#include <Korvo/Batch.h>
#include <Korvo/EtcdTables.h>
#include <Korvo/KoStrUtils.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent.h"
#include "loader.h"
#include "prefixRow.h"

namespace {

using netdb::PrefixRow;
using netdb::PrefixTable;
using Clock = std::chrono::steady_clock;

void load(const std::vector<std::string>& files, netdb::Agent& agent, PrefixTable& prefixes) {
  std::string fault;
  const netdb::Loader loader(
      agent, prefixes, files,
      {.malformed =
           [](const std::string& file, std::uint32_t line, const std::string& reason) {
             throw netdb::InputError(file + ':' + std::to_string(line) + ": " + reason);
           },
       .read = [](double, std::uint64_t) {},
       .ended = [&](const netdb::Loader::Result& result) { fault = result.fault; }});
  agent.run(true);
  if (!fault.empty()) throw std::runtime_error(fault);
}

/// What a table holds: the rows' bytes, in the order of their oids.
std::string summary(const PrefixTable& prefixes) {
  std::map<Korvo::oid_t, PrefixRow> rows;
  for (const PrefixRow& row : prefixes) rows[row.rowOid()] = row;
  std::string bytes;
  for (const auto& [oid, row] : rows) {
    bytes.append(reinterpret_cast<const char*>(row.rowBuf()), row.rowLength());
  }
  return std::to_string(prefixes.size()) + " rows, sha1 " + Korvo::KoStrUtils::sha1(bytes);
}

int publish(const std::string& address, int seconds, const std::vector<std::string>& files) {
  netdb::Agent agent("publisher", false);
  const Korvo::KoPtr<Korvo::EventLoop>& loop = agent.loop();
  PrefixTable prefixes(netdb::prefixTable);
  load(files, agent, prefixes);
  loop->stopOnSignals({SIGINT, SIGTERM});
  Korvo::TablePublisher publisher("publisher", loop);
  publisher.add(prefixes);
  publisher.listen(address);

  std::string problem;
  const auto run = [&](double time) {
    loop->run(0, time, false);
    const std::string now = publisher.subscribers().front().lastReason;
    if (now != problem) std::cout << "publisher: " << (now.empty() ? "writing" : now) << std::endl;
    problem = now;
  };
  // Until it is told to end.
  const auto isBehind = [&] { return loop->active() && publisher.subscribers().front().lag != 0; };
  while (isBehind()) run(0.01);
  std::cout << "publisher: " << prefixes.size() << " rows are written" << std::endl;

  std::vector<Korvo::oid_t> oids;
  for (const PrefixRow& row : prefixes) oids.push_back(row.rowOid());
  const auto end = Clock::now() + std::chrono::seconds(seconds);
  std::uint32_t changes = 0;
  while (loop->active() && Clock::now() < end) {
    Korvo::Batch batch(prefixes);
    for (int i = 0; i < 3; ++i) {
      PrefixRow row = prefixes.find(oids[++changes * std::size_t{7919} % oids.size()]);
      row.set<"tags">({"changed", std::to_string(changes)});
      batch.put(row);
    }
    batch.commit();
    run(0.005);
  }
  while (isBehind()) run(0.01);
  std::cout << "publisher: " << changes << " changes; " << summary(prefixes) << std::endl;
  if (loop->active()) loop->run();
  return 0;
}

int copy(const std::string& address) {
  netdb::Agent agent("copy", false);
  agent.loop()->stopOnSignals({SIGINT, SIGTERM});
  PrefixTable prefixes(netdb::prefixTable);
  Korvo::TableSubscriber subscriber(address, agent.loop());
  subscriber.add(prefixes);
  Korvo::TableReader<PrefixRow> reader(prefixes, agent.loop(), [](const auto&) {});
  reader.onState([&](Korvo::TableState state, const std::string& text) {
    if (state == Korvo::TableState::current) {
      std::cout << "copy: current, " << prefixes.size() << " rows" << std::endl;
    } else {
      std::cout << "copy: not current, " << text << std::endl;
    }
  });
  agent.run();
  const auto status = subscriber.status();
  std::cout << "copy: " << status.marks << " states, " << status.merged << " merged; "
            << summary(prefixes) << std::endl;
  return 0;
}

}  // namespace

int main(int count, char** arguments) try {
  const std::vector<std::string> words(arguments + 1, arguments + count);
  Korvo::EtcdEngine::add();
  if (words.size() >= 4 && words[0] == "publish") {
    return publish(words[1], std::stoi(words[2]), {words.begin() + 3, words.end()});
  }
  if (words.size() == 2 && words[0] == "copy") return copy(words[1]);
  std::cerr << "cluster publish ADDRESS SECONDS FILE... | cluster copy ADDRESS\n";
  return 2;
} catch (const std::exception& error) {
  std::cerr << "cluster: " << error.what() << '\n';
  return 1;
}
