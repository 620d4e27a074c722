// A publisher and subscribers on a cluster, as processes for scripts/soak-cluster.py, which starts
// and disturbs them. They check what they see as those of the sockets' load test do.
//
//   etcd_soak publish ADDRESS LAYOUT GENERATION FILE
//   etcd_soak subscribe ADDRESS LAYOUT FILE
//   etcd_soak rival ADDRESS                            who must be refused the name
//
// At the end publishers and subscribers write the bytes of their rows to FILE.

#include <Korvo/EtcdTables.h>

#include <exception>
#include <span>
#include <string_view>
#include <thread>

#include "soak_roles.h"

namespace {

using namespace soak;

constexpr std::uint32_t generationOfRivals = 0;

std::shared_ptr<Korvo::EtcdEngine> addEngine() {
  Korvo::EtcdOptions options;
  options.lease = std::chrono::seconds(5);
  auto engine = std::make_shared<Korvo::EtcdEngine>(options);
  Korvo::TableEngine::add("etcd", engine);
  return engine;
}

Korvo::PublisherOptions publisherOptions() {
  Korvo::PublisherOptions options;
  options.heartbeat = milliseconds(500);
  return options;
}

Korvo::SubscriberOptions subscriberOptions() {
  Korvo::SubscriberOptions options;
  options.heartbeat = milliseconds(500);
  return options;
}

/// Tells twice a second what was written until then, since nobody who is killed tells it at his
/// end.
void tellCounters(const Korvo::EtcdEngine& engine) {
  for (;;) {
    std::this_thread::sleep_for(milliseconds(500));
    const Korvo::EtcdEngine::Counters all = engine.counters();
    std::cout << all.transactions << " transactions, " << all.rows << " rows, " << all.retried
              << " sent again, " << all.recognised << " found to be made" << std::endl;
  }
}

/// Ends well once it was refused. What it publishes is of an older generation than any: who sees
/// it complains.
void beRival(const std::string& address) {
  const auto loop = std::make_shared<Korvo::EventLoop>("rival");
  Korvo::Table<NewPort> ports("net/port");
  Korvo::Table<Head> heads("net/head");
  Korvo::Batch batch(heads);
  Head head;
  head.create(1);
  head.set<"generation">(generationOfRivals);
  batch.put(head);
  batch.commit();
  Korvo::TablePublisher publisher("soak", loop, publisherOptions());
  publisher.add(ports);
  publisher.add(heads);
  publisher.listen(address);
  const auto says = [&](const char* words) {
    return publisher.subscribers().at(0).lastReason.find(words) != std::string::npos;
  };
  while (!says("another publisher has the name")) loop->run(0, 0.01, false);
}

int run(std::span<char*> arguments) {
  const std::shared_ptr<Korvo::EtcdEngine> engine = addEngine();
  const std::string_view role = arguments.size() > 1 ? arguments[1] : "";
  if (role == "publish") std::thread([engine] { tellCounters(*engine); }).detach();
  if (role == "rival" && arguments.size() == 3) {
    beRival(arguments[2]);
  } else if (!play(arguments, publisherOptions(), subscriberOptions())) {
    std::cerr << "etcd_soak publish|subscribe|rival ADDRESS ...\n";
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv, static_cast<std::size_t>(argc)});
  } catch (const std::exception& error) {
    std::cerr << "etcd_soak " << (argc > 1 ? argv[1] : "") << ": " << error.what() << std::endl;
    return 1;
  }
}
