// Batches from other threads.

#include <Korvo/EventLoop.h>
#include <Korvo/TableEngine.h>
#include <Korvo/TableMailbox.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "table_test_support.h"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::EventLoop;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TableMailbox;

class TableMailboxTest : public testing::Test {
 protected:
  /// What is posted before has been delivered then.
  void runPosted() { loop->run(0, 0.01, false); }

  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("owner");
  Table<Port> ports{"net/port"};
  Table<Link> links{"net/link"};
};

TEST_F(TableMailboxTest, BatchesAppearInTheLoopsTurnAsOne) {
  TableMailbox mailbox(loop);
  Batch batch(ports, links);
  batch.put(port(1, "a"));
  batch.put(tabletest::link(1, true));
  EXPECT_TRUE(mailbox.post(batch));
  batch.put(port(1, "b"));
  batch.put(port(2, "c"));
  EXPECT_TRUE(mailbox.post(batch));
  EXPECT_EQ(mailbox.waiting(), 3U);
  EXPECT_EQ(ports.size(), 0U);
  runPosted();
  EXPECT_EQ(ports.find(1).get<"name">(), "b");
  EXPECT_EQ(ports.size(), 2U);
  EXPECT_EQ(links.size(), 1U);
  EXPECT_EQ(ports.sequence(), 1U);
  EXPECT_EQ(mailbox.waiting(), 0U);
  batch.commit();  // it was emptied
  EXPECT_EQ(ports.sequence(), 1U);
}

TEST_F(TableMailboxTest, LastWordOnAnOidCounts) {
  TableMailbox mailbox(loop);
  Batch batch(ports);
  batch.put(port(1, "a"));
  mailbox.post(batch);
  batch.remove(1);
  mailbox.post(batch);
  batch.remove(2);
  mailbox.post(batch);
  batch.put(port(2, "b"));
  mailbox.post(batch);
  runPosted();
  EXPECT_EQ(oids(ports), std::vector<oid_t>{2});
}

TEST_F(TableMailboxTest, FullMailboxChangesNothing) {
  TableMailbox mailbox(loop, 2);
  Batch batch(ports);
  batch.put(port(1, "a"));
  batch.put(port(2, "b"));
  EXPECT_TRUE(mailbox.post(batch));
  batch.put(port(2, "c"));
  batch.put(port(3, "c"));
  EXPECT_FALSE(mailbox.post(batch));
  EXPECT_EQ(mailbox.waiting(), 2U);
  runPosted();
  EXPECT_EQ(ports.find(2).get<"name">(), "b");
  EXPECT_TRUE(mailbox.post(batch));
  runPosted();
  EXPECT_EQ(ports.find(2).get<"name">(), "c");
  EXPECT_EQ(ports.size(), 3U);
  EXPECT_THROW(TableMailbox(loop, 0), Korvo::KoInvalidArgument);
}

TEST_F(TableMailboxTest, ChangesThatCannotBeMadeAreTold) {
  ports.unique<"name">();
  std::string told;
  TableMailbox mailbox(loop);
  mailbox.onFailure([&](const std::string& reason) { told = reason; });
  Batch batch(ports);
  batch.put(port(1, "a"));
  batch.put(port(2, "a"));
  mailbox.post(batch);
  runPosted();
  EXPECT_EQ(told.substr(0, 10), "Not unique");
  EXPECT_EQ(ports.size(), 0U);
}

TEST_F(TableMailboxTest, WhatWaitsGoesWithTheMailbox) {
  {
    TableMailbox mailbox(loop);
    Batch batch(ports);
    batch.put(port(1, "a"));
    mailbox.post(batch);
  }
  runPosted();
  EXPECT_EQ(ports.size(), 0U);
}

TEST_F(TableMailboxTest, ManyThreadsPost) {
  TableMailbox mailbox(loop, 40);
  constexpr unsigned int threads = 4;
  constexpr int batches = 500;
  std::atomic<unsigned int> running = threads;
  std::vector<std::jthread> workers;
  for (unsigned int thread = 0; thread < threads; ++thread) {
    workers.emplace_back([&, thread] {
      for (int i = 1; i <= batches; ++i) {
        Batch batch(ports);
        for (oid_t oid = 0; oid < 10; ++oid) batch.put(port(100 * thread + oid, "x", i));
        while (!mailbox.post(batch)) std::this_thread::yield();
      }
      --running;
    });
  }
  bool isWhole = true;
  while (running != 0 || mailbox.waiting() != 0) {
    loop->run(0, 0.001, false);
    for (unsigned int thread = 0; thread < threads; ++thread) {
      for (oid_t oid = 1; oid < 10; ++oid) {
        if (!ports.contains(100 * thread)) continue;
        isWhole = isWhole && ports.find(100 * thread + oid).get<"speed">() ==
                                 ports.find(100 * thread).get<"speed">();
      }
    }
  }
  EXPECT_TRUE(isWhole);
  ASSERT_EQ(ports.size(), 10U * threads);
  for (const Port& row : ports) EXPECT_EQ(row.get<"speed">(), batches);
}

TEST_F(TableMailboxTest, SignalsOfThreadsAreToldOnTheLoopsThread) {
  std::atomic<int> given = 0;
  int told = 0;
  const auto owner = std::this_thread::get_id();
  Korvo::ThreadSignal signal(loop, [&] {
    EXPECT_EQ(std::this_thread::get_id(), owner);
    told = given;
  });
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int k = 0; k < 1000; ++k) {
        ++given;
        signal.give();
      }
    });
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (told != 4000 && std::chrono::steady_clock::now() < end) loop->run(0, 0.001, false);
  EXPECT_EQ(told, 4000);
}

TEST_F(TableMailboxTest, SignalMayEndInWhatItTells) {
  int told = 0;
  std::unique_ptr<Korvo::ThreadSignal> signal;
  signal = std::make_unique<Korvo::ThreadSignal>(loop, [&] {
    ++told;
    signal.reset();
  });
  signal->give();
  loop->run(0, 0.01, false);
  EXPECT_EQ(told, 1);
}

}  // namespace
