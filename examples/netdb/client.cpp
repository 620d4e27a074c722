#include "client.h"

#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <vector>

#include "progress.h"

namespace netdb {
namespace {

using Korvo::TableState;

constexpr double secondsBetweenLooks = 0.1;  // whether the server is still there
constexpr std::chrono::seconds patience{2};

[[noreturn]] void fail(const std::string& address, const std::string& reason) {
  throw std::runtime_error("the server at " + address + ": " + reason);
}

std::string originOf(const PrefixRow& row) {
  const auto origin = row.view<"origin">();
  return origin.get<"file">() + ':' + std::to_string(origin.get<"line">());
}

/// "country AU -> NZ, origin geoip:7 -> geoip:9": what differs of two rows of one prefix.
std::string difference(const PrefixRow& before, const PrefixRow& after) {
  std::string text;
  const auto add = [&](const char* column, const std::string& from, const std::string& to) {
    if (from != to)
      text += std::string(text.empty() ? "" : ", ") + column + ' ' + from + " -> " + to;
  };
  add("prefix", before.get<"prefix">().toString(), after.get<"prefix">().toString());
  add("country", before.get<"country">(), after.get<"country">());
  add("origin", originOf(before), originOf(after));
  return text;
}

const PrefixRow& rowOf(const Korvo::Change<PrefixRow>& change) {
  return change.after().isNull() ? change.before() : change.after();
}

void print(std::ostream& out, const Korvo::Change<PrefixRow>& change) {
  const PrefixRow& row = rowOf(change);
  out << change.kind() << ' ' << row.view<"prefix">() << ": ";
  if (change.kind() == Korvo::ChangeKind::changed) {
    out << difference(change.before(), change.after()) << '\n';
  } else {
    out << "country " << row.view<"country">().view() << '\n';
  }
}

}  // namespace

bool takeRows(Agent& agent, PrefixTable& table, const std::string& address) {
  Korvo::TableSubscriber subscriber(address, agent.loop());
  subscriber.add(table);
  Korvo::TableReader<PrefixRow> reader(table, agent.loop(),
                                       [](const Korvo::Changes<PrefixRow>&) {});
  reader.onState([&](TableState state, const std::string&) {
    if (state != TableState::loading) agent.stop();
  });

  agent.run(true);  // the subscriber connects in its first turn
  if (subscriber.status().connections == 0) return false;
  const auto begin = std::chrono::steady_clock::now();
  bool isTold = false;
  while (table.state() == TableState::loading) {
    if (!subscriber.status().isConnected) fail(address, subscriber.status().lastReason);
    if (!isTold && std::chrono::steady_clock::now() - begin > patience) {
      complain("netdb: waiting for the rows of the server at " + address);
      isTold = true;
    }
    agent.loop()->activeIs(true);
    agent.loop()->run(0, secondsBetweenLooks, false);
  }
  if (table.state() != TableState::current) fail(address, table.stateText());
  return true;
}

void watchRows(Agent& agent, const std::string& address, std::ostream& out) {
  agent.loop()->stopOnSignals({SIGINT, SIGTERM});
  PrefixTable table(prefixTable);
  Korvo::TableSubscriber subscriber(address, agent.loop());
  subscriber.add(table);
  Korvo::TableReader<PrefixRow> reader(
      table, agent.loop(),
      [&](const Korvo::Changes<PrefixRow>& changes) {
        if (changes.first()) return;
        std::vector<Korvo::Change<PrefixRow>> all;
        for (const Korvo::Change<PrefixRow>& change : changes) all.push_back(change);
        std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
          return rowOf(a).template view<"prefix">() < rowOf(b).template view<"prefix">();
        });
        for (const Korvo::Change<PrefixRow>& change : all) print(out, change);
        out.flush();
      },
      Korvo::Before::kept);
  reader.onState([&](TableState state, const std::string& text) {
    switch (state) {
      case TableState::loading:
        out << "waiting for the server at " << address << std::endl;
        break;
      case TableState::current:
        out << "current: " << grouped(table.size()) << " rows" << std::endl;
        break;
      case TableState::stale:
        out << "stale: " << text << "; " << grouped(table.size()) << " rows are kept" << std::endl;
        break;
      case TableState::refused:
        agent.stop();
    }
    if (!out) agent.stop();
  });
  agent.run();
  if (table.state() == TableState::refused) fail(address, table.stateText());
}

}  // namespace netdb
