// The units of an agent: whom they wait for, what they trace, what a throw leaves behind.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "agent.h"
#include "rowLink.h"
#include "rowOps.h"

namespace {

using namespace netdb;
using Korvo::byte_t;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;

[[maybe_unused]] const bool registered =
    (Korvo::sysnameIs("test"), Korvo::rowOpsFactoryIs(makeRowOps), true);

void ignore() {}

RowSource sourceOf(const std::string& path) {
  return RowSource({path},
                   [](const std::string& file, std::uint32_t line, const std::string& reason) {
                     ADD_FAILURE() << file << ":" << line << ": " << reason;
                   });
}

RowSource sampleSource() {
  return sourceOf(NETDB_SAMPLE "/geoip");
}

std::size_t sampleRows() {
  RowSource source = sampleSource();
  std::size_t rows = 0;
  for (PrefixRow row; source.next(row);) ++rows;
  return rows;
}

PrefixRow row(const std::string& prefix) {
  return makeRow(IpGenPrefix(prefix), "AU", "file", 1, 1);
}

void sendRow(int socket, const PrefixRow& sent) {
  RowSender sender(socket);
  sender.add(sent);
  EXPECT_TRUE(sender.send(true));
}

/// Receives what a publisher sends until it closes its end, starting at `begin`.
struct Received {
  RowTable table;
  bool complete = false;

  explicit Received(int socket) {
    Subscriber subscriber(table, [](std::uint64_t number, const std::string& reason) {
      ADD_FAILURE() << "row " << number << " refused: " << reason;
    });
    RowReceiver receiver(socket);
    while (receiver.receive(true) == RowReceiver::Result::received) {
      for (const RowReceiver::Packet& packet : receiver.packets()) {
        subscriber.take(packet.bytes, packet.length);
      }
    }
    complete = subscriber.complete();
  }
};

/// What `work` writes to standard error, line by line.
template <typename Work>
std::vector<std::string> errorLines(Work work) {
  testing::internal::CaptureStderr();
  work();
  std::istringstream text(testing::internal::GetCapturedStderr());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

std::ptrdiff_t turnsOf(const std::string& unit, const std::vector<std::string>& traces) {
  return std::count_if(traces.begin(), traces.end(), [&](const std::string& line) {
    return line.find(" invoking " + unit + "(unit: ") != line.npos;
  });
}

// ---------------------------------------------------------------------------------------------
// Publishing

TEST(Publisher, SendsAllRowsAndTheEnd) {
  RowSockets sockets;
  std::thread publisher([&] {
    RowSource source = sampleSource();
    int reports = 0;
    Agent("publisher", false).publish(source, sockets.publisher.get(), [&] { ++reports; });
    EXPECT_GT(reports, 0);
    sockets.publisher.close();
  });
  const Received received(sockets.subscriber.get());
  publisher.join();
  EXPECT_TRUE(received.complete);
  EXPECT_EQ(received.table.rows().size(), sampleRows());
}

TEST(Publisher, WaitsForASubscriberThatTakesNothing) {
  RowSockets sockets;
  // So little room that rows wait for it, and the end mark as well.
  const int room = 1;
  ASSERT_EQ(setsockopt(sockets.publisher.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
  std::vector<std::string> traces = errorLines([&] {
    std::thread publisher([&] {
      RowSource source = sampleSource();
      Agent("publisher", true).publish(source, sockets.publisher.get(), ignore);
      sockets.publisher.close();
    });
    const Received received(sockets.subscriber.get());
    publisher.join();
    EXPECT_TRUE(received.complete);
    EXPECT_EQ(received.table.rows().size(), sampleRows());
  });
  const auto waits = std::count_if(traces.begin(), traces.end(), [](const std::string& line) {
    return line.ends_with(" writer ready: 0");
  });
  EXPECT_GT(waits, 0);
  // The writer has a turn after each wait, and one for each time that the loader has made rows.
  EXPECT_EQ(turnsOf("writer", traces), waits + turnsOf("loader", traces));
}

TEST(Publisher, SendsTheEndOfAnEmptyFile) {
  RowSockets sockets;
  RowSource source = sourceOf("/dev/null");
  Agent("publisher", false).publish(source, sockets.publisher.get(), ignore);
  sockets.publisher.close();
  const Received received(sockets.subscriber.get());
  EXPECT_TRUE(received.complete);
  EXPECT_TRUE(received.table.rows().empty());
}

TEST(Publisher, SendsTheRowsOfASlowInputBeforeItEnds) {
  int input[2];
  ASSERT_EQ(::pipe(input), 0);
  RowSockets sockets;
  std::thread publisher([&] {
    RowSource source = sourceOf("/dev/fd/" + std::to_string(input[0]));
    Agent("publisher", false).publish(source, sockets.publisher.get(), ignore);
    sockets.publisher.close();
  });
  // Fewer lines than a batch has rows.
  pollfd arrival{sockets.subscriber.get(), POLLIN, 0};
  std::size_t lines = 0;
  do {
    ASSERT_LT(++lines, 128U);
    const std::string number = std::to_string(16777216 + 512 * lines);
    const std::string line = number + "," + number + ",AU\n";
    ASSERT_EQ(::write(input[1], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  } while (::poll(&arrival, 1, 50) == 0);
  ::close(input[1]);
  const Received received(sockets.subscriber.get());
  publisher.join();
  ::close(input[0]);
  EXPECT_TRUE(received.complete);
  EXPECT_EQ(received.table.rows().size(), lines);
}

TEST(Publisher, ThrowsWhenTheSubscriberIsGoneAndCanPublishAgain) {
  Agent agent("publisher", false);
  {
    RowSockets sockets;
    sockets.subscriber.close();
    RowSource source = sampleSource();
    EXPECT_THROW(agent.publish(source, sockets.publisher.get(), ignore), std::system_error);
  }
  RowSockets sockets;
  RowSource source = sourceOf("/dev/null");
  agent.publish(source, sockets.publisher.get(), ignore);
  sockets.publisher.close();
  EXPECT_TRUE(Received(sockets.subscriber.get()).complete);
}

// ---------------------------------------------------------------------------------------------
// Receiving

TEST(Reader, HasTurnsOnlyWhenSomethingHasArrived) {
  constexpr int rows = 3;
  RowSockets sockets;
  RowTable table;
  const std::vector<std::string> traces = errorLines([&] {
    Subscriber subscriber(table, [](std::uint64_t, const std::string&) { FAIL(); });
    std::thread publisher([&] {
      for (int i = 0; i < rows; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        sendRow(sockets.publisher.get(), row("10.0.0.0/8"));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      sockets.publisher.close();
    });
    Agent("subscriber", true).receive(sockets.subscriber.get(), subscriber, ignore);
    publisher.join();
    EXPECT_FALSE(subscriber.complete());
  });
  EXPECT_EQ(table.rows().size(), 3U);
  EXPECT_GE(turnsOf("reader", traces), 1);
  EXPECT_LE(turnsOf("reader", traces), 2 * (rows + 1));  // four arrivals, the end being one
}

TEST(Reader, ReportsAndGoesOnAfterATimeSlice) {
  RowSockets sockets;
  RowTable table;
  Subscriber subscriber(table, [](std::uint64_t, const std::string&) { FAIL(); });
  constexpr int batch = 64;
  std::size_t rows = 0;
  for (int i = 0; i < 2 * batch; ++i) {
    const PrefixRow sent = row("10.0.0.0/8");
    ASSERT_EQ(::send(sockets.publisher.get(), sent.rowBuf(), sent.rowLength(), MSG_DONTWAIT),
              static_cast<ssize_t>(sent.rowLength()));
    ++rows;
  }
  sockets.publisher.close();
  int reports = 0;
  const std::vector<std::string> traces = errorLines([&] {
    Agent("subscriber", true).receive(sockets.subscriber.get(), subscriber, [&] {
      ++reports;
      std::this_thread::sleep_for(std::chrono::milliseconds(11));  // longer than a time slice
    });
  });
  EXPECT_EQ(table.rows().size(), rows);
  EXPECT_EQ(reports, 2);
  EXPECT_EQ(turnsOf("reader", traces), 3);  // a batch in each, and the end
}

TEST(Reader, WhatAReportThrowsLeavesAnAgentThatReceivesAgain) {
  Agent agent("subscriber", false);
  RowTable table;
  for (const bool throws : {true, false}) {
    RowSockets sockets;
    Subscriber subscriber(table, [](std::uint64_t, const std::string&) { FAIL(); });
    sendRow(sockets.publisher.get(), row("10.0.0.0/8"));
    ASSERT_TRUE(RowSender(sockets.publisher.get()).sendEnd(true));
    sockets.publisher.close();
    const auto report = [&] {
      if (throws) throw std::runtime_error("enough");
    };
    if (throws) {
      EXPECT_THROW(agent.receive(sockets.subscriber.get(), subscriber, report), std::runtime_error);
    } else {
      agent.receive(sockets.subscriber.get(), subscriber, report);
    }
    EXPECT_TRUE(subscriber.complete());
  }
  EXPECT_EQ(table.rows().size(), 2U);
}

// ---------------------------------------------------------------------------------------------
// Lookups

TEST(Lookups, YieldWhenTheirTimeSliceIsOverAndKeepTheirOrder) {
  RowTable table;
  table.add(row("10.0.0.0/8"));
  table.add(row("10.1.0.0/16"));
  table.index();
  const std::vector<IpGenAddr> addrs = {IpGenAddr("10.1.2.3"), IpGenAddr("9.9.9.9"),
                                        IpGenAddr("10.2.2.2")};
  std::vector<IpGenPrefix> found;
  const std::vector<std::string> traces = errorLines([&] {
    Agent("subscriber", true).lookUp(table, addrs, [&](std::size_t number, const PrefixRow& hit) {
      EXPECT_EQ(number, found.size());
      found.push_back(hit.get<"prefix">());
      std::this_thread::sleep_for(std::chrono::milliseconds(11));  // longer than a time slice
    });
  });
  EXPECT_EQ(found, (std::vector<IpGenPrefix>{IpGenPrefix("10.1.0.0/16"), IpGenPrefix(),
                                             IpGenPrefix("10.0.0.0/8")}));
  EXPECT_EQ(turnsOf("lookups", traces), 3);
}

TEST(Lookups, OfNothingEndAtOnce) {
  Agent("subscriber", false).lookUp(RowTable(), {}, [](std::size_t, const PrefixRow&) { FAIL(); });
}

// ---------------------------------------------------------------------------------------------
// Registry and traces

TEST(RowOps, AreThoseOfThePrefixTable) {
  const Korvo::RowOps_p_t rowOps = Korvo::getRowOps(prefixTable, prefixVersion);
  ASSERT_NE(rowOps, nullptr);
  const PrefixRow good = row("10.0.0.0/8");
  EXPECT_FALSE(rowOps->check(good.rowBuf(), good.rowLength()));
  EXPECT_EQ(rowOps->check(good.rowBuf(), good.rowLength() - 1U).kind,
            Korvo::RowFaultKind::truncated);
  EXPECT_EQ(Korvo::getRowOps(prefixTable, prefixVersion + 1), nullptr);
  EXPECT_EQ(Korvo::getRowOps("netdb/suffix", prefixVersion), nullptr);
  EXPECT_FALSE(Korvo::isInfrastructureTable(prefixTable));
}

TEST(TraceChannel, WritesALineWithSystemAgentSourceAndFunction) {
  TraceChannel channel("feeder");
  std::ostringstream text;
  text << " marking 5";
  EXPECT_EQ(errorLines([&] { channel.trace(text, 9, "src/x.cpp", 12, "runnableIs"); }),
            std::vector<std::string>{"test feeder: src/x.cpp:12 runnableIs:  marking 5"});
}

TEST(Agent, WithoutTracesIsSilent) {
  EXPECT_FALSE(Agent("quiet", false).traced());
  EXPECT_TRUE(Agent("loud", true).traced());
  RowSockets sockets;
  RowSource source = sampleSource();
  EXPECT_TRUE(errorLines([&] {
                std::thread publisher([&] {
                  Agent("quiet", false).publish(source, sockets.publisher.get(), ignore);
                  sockets.publisher.close();
                });
                EXPECT_TRUE(Received(sockets.subscriber.get()).complete);
                publisher.join();
              }).empty());
}

}  // namespace
