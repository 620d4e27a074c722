#pragma once

// A publisher and a subscriber on one loop whose clock moves when told, with a link between them.

#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>
#include <Korvo/TestLink.h>
#include <Korvo/TestLoop.h>

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "table_test_support.h"

namespace tabletest {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// A process that subscribes.
struct Viewer {
  explicit Viewer(const std::shared_ptr<Korvo::TestLoop>& loop,
                  const Korvo::SubscriberOptions& options = {})
      : ports("net/port"), links("net/link"), subscriber(loop, options) {
    subscriber.add(ports);
    subscriber.add(links);
    subscriber.onProblem([this](const Korvo::TableSubscriber::Problem& problem) {
      problems.push_back(problem.table + (problem.oid ? " " + std::to_string(*problem.oid) : "") +
                         ": " + problem.text);
    });
  }

  Korvo::Table<Port> ports;
  Korvo::Table<Link> links;
  std::vector<std::string> problems;
  Korvo::TableSubscriber subscriber;
};

/// A process that publishes.
struct Agent {
  explicit Agent(const std::shared_ptr<Korvo::TestLoop>& loop,
                 const Korvo::PublisherOptions& options = {})
      : ports("net/port"), links("net/link"), publisher("portAgent", loop, options) {
    publisher.add(ports);
    publisher.add(links);
  }

  template <typename... Rows>
  void put(const Rows&... rows) {
    Korvo::Batch batch(ports, links);
    (batch.put(rows), ...);
    batch.commit();
  }
  void remove(Korvo::oid_t oid) {
    Korvo::Batch batch(ports);
    batch.remove(oid);
    batch.commit();
  }
  void putMany(Korvo::oid_t from, Korvo::oid_t to, const std::string& name = "eth") {
    Korvo::Batch batch(ports);
    for (Korvo::oid_t oid = from; oid < to; ++oid) batch.put(port(oid, name + std::to_string(oid)));
    batch.commit();
  }

  Korvo::Table<Port> ports;
  Korvo::Table<Link> links;
  Korvo::TablePublisher publisher;
};

class LinkTest : public testing::Test {
 protected:
  void connect() {
    agent->publisher.accept(link.publisherEnd());
    viewer->subscriber.connect(link.subscriberEnd());
  }
  /// The publisher's process ends, and another one takes its place.
  void restart() {
    agent.reset();
    loop->runUntilQuiet();
    agent.emplace(loop);
    agent->publisher.accept(link.publisherEnd());
  }
  void expectSame() {
    EXPECT_EQ(contents(viewer->ports), contents(agent->ports));
    EXPECT_EQ(contents(viewer->links), contents(agent->links));
    EXPECT_EQ(viewer->ports.state(), Korvo::TableState::current) << viewer->ports.stateText();
    EXPECT_EQ(viewer->links.state(), Korvo::TableState::current) << viewer->links.stateText();
    EXPECT_EQ(viewer->subscriber.status().digestFaults, 0U);
  }
  std::string told() {
    std::string text = told_.str();
    told_.str("");
    return text;
  }
  /// Writes down what a reader of the viewer's ports is told.
  auto writeDown() {
    return [this](const Korvo::Changes<Port>& changes) {
      if (changes.first()) told_ << "first ";
      std::map<Korvo::oid_t, Korvo::ChangeKind> all;
      for (const Korvo::Change<Port>& change : changes) all[change.oid()] = change.kind();
      std::size_t count = 0;
      for (const auto& [oid, kind] : all) {
        if (++count <= 5) told_ << kind << ' ' << oid << ", ";
      }
      told_ << all.size() << "; ";
    };
  }

  std::shared_ptr<Korvo::TestLoop> loop = std::make_shared<Korvo::TestLoop>();
  Korvo::TestLink link;
  std::optional<Agent> agent{std::in_place, loop};
  std::optional<Viewer> viewer{std::in_place, loop};
  std::ostringstream told_;
};

}  // namespace tabletest
