// Rows over a socket, the table's indexes, and lookups against a scan of the ranges.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "agent.h"
#include "defaultInput.h"
#include "rowLink.h"
#include "rowSource.h"
#include "rowTable.h"
#include "transfer.h"

namespace {

using namespace netdb;
using Korvo::byte_t;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::len_t;

/// As the program does at its start.
[[maybe_unused]] const bool registered = (Korvo::rowOpsFactoryIs(makeRowOps), true);

std::vector<std::string> sampleFiles() {
  return {NETDB_SAMPLE "/geoip", NETDB_SAMPLE "/geoip6"};
}

RowSource sampleSource() {
  return RowSource(sampleFiles(),
                   [](const std::string& file, std::uint32_t line, const std::string& reason) {
                     ADD_FAILURE() << file << ":" << line << ": " << reason;
                   });
}

std::vector<byte_t> bytesOf(const Korvo::BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

PrefixRow row(const std::string& prefix, const std::string& country = "AU") {
  return makeRow(IpGenPrefix(prefix), country, "file", 1, 1);
}

TEST(MakeRow, FillsEveryColumn) {
  const PrefixRow made = makeRow(IpGenPrefix("10.1.0.0/16"), "??", "geoip", 42, 7);
  EXPECT_EQ(made.rowOid(), 7U);
  EXPECT_EQ(made.toJson(), R"({"prefix":"10.1.0.0/16","first":"10.1.0.0","last":"10.1.255.255",)"
                           R"("country":"??","line":42,"addresses":65536,"ipv6":false,)"
                           R"("tags":["geoip","private"],"origin":{"file":"geoip","line":42}})");
}

TEST(RowTable, FindsTheMostSpecificOfNestedPrefixes) {
  RowTable table;
  for (const char* prefix : {"10.0.0.0/8", "10.1.0.0/16", "10.1.2.0/24", "10.200.0.0/16",
                             "11.0.0.0/8", "10.1.2.3/32", "2001:db8::/32", "::/0"}) {
    table.add(row(prefix));
  }
  table.index();
  const auto found = [&](const char* addr) {
    return table.lookup(IpGenAddr(addr)).get<"prefix">();
  };
  EXPECT_EQ(found("10.1.2.3"), IpGenPrefix("10.1.2.3/32"));
  EXPECT_EQ(found("10.1.2.4"), IpGenPrefix("10.1.2.0/24"));
  EXPECT_EQ(found("10.1.3.0"), IpGenPrefix("10.1.0.0/16"));
  EXPECT_EQ(found("10.0.0.0"), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(found("10.2.0.0"), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(found("10.255.255.255"), IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(found("11.5.5.5"), IpGenPrefix("11.0.0.0/8"));
  EXPECT_EQ(found("9.255.255.255"), IpGenPrefix());
  EXPECT_EQ(found("12.0.0.0"), IpGenPrefix());
  EXPECT_EQ(found("2001:db8::1"), IpGenPrefix("2001:db8::/32"));
  EXPECT_EQ(found("::1"), IpGenPrefix("::/0"));
}

TEST(RowTable, RandomNestedPrefixesAgreeWithAScan) {
  std::mt19937 random(11);
  RowTable table;
  std::vector<IpGenPrefix> all;
  for (int i = 0; i < 3000; ++i) {
    const byte_t bytes[] = {static_cast<byte_t>(random() % 4), static_cast<byte_t>(random() % 4),
                            static_cast<byte_t>(random() % 8), static_cast<byte_t>(random() % 16)};
    IpGenPrefix prefix(IpGenAddr(Korvo::ipv4_, bytes), static_cast<unsigned int>(random() % 33));
    prefix.clearLowerAddrBits();
    all.push_back(prefix);
    table.add(makeRow(prefix, "AU", "f", 1, 1));
  }
  table.index();
  for (int i = 0; i < 5000; ++i) {
    const byte_t bytes[] = {static_cast<byte_t>(random() % 5), static_cast<byte_t>(random() % 5),
                            static_cast<byte_t>(random() % 9), static_cast<byte_t>(random() % 17)};
    const IpGenAddr addr(Korvo::ipv4_, bytes);
    int expected = -1;
    for (const IpGenPrefix& prefix : all) {
      if (prefix.contains(IpGenPrefix(addr, 32))) {
        expected = std::max(expected, static_cast<int>(prefix.mask()));
      }
    }
    const PrefixRow hit = table.lookup(addr);
    ASSERT_EQ(hit.isNull() ? -1 : static_cast<int>(hit.view<"prefix">().mask()), expected);
  }
}

TEST(RowTable, KeepsItsRowsInTheOrderOfTheirPrefixesWhenMoreAreAdded) {
  const auto made = [](const char* prefix, const char* country, Korvo::oid_t oid) {
    return makeRow(IpGenPrefix(prefix), country, "file", 1, oid);
  };
  RowTable table;
  table.index();
  EXPECT_TRUE(table.rows().empty());
  EXPECT_TRUE(table.lookup(IpGenAddr("10.0.0.0")).isNull());

  const PrefixRow second = made("2001:db8::/32", "JP", 1);
  const PrefixRow first = made("10.1.0.0/16", "AU", 2);
  const PrefixRow sameAsFirst = made("10.1.0.0/16", "JP", 3);
  for (const PrefixRow& each : {second, first, sameAsFirst}) table.add(each);
  table.index();
  const PrefixRow wider = made("10.0.0.0/8", "AU", 4);
  table.add(wider);
  table.index();

  const std::vector<PrefixRow> expected = {first, sameAsFirst, wider, second};
  ASSERT_EQ(table.rows().size(), expected.size());
  for (RowTable::RowNumber i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(bytesOf(table.rows()[i]), bytesOf(expected[i])) << i;
  }
  EXPECT_EQ(bytesOf(table.lookup(IpGenAddr("10.1.0.0"))), bytesOf(first));
  EXPECT_EQ(bytesOf(table.lookup(IpGenAddr("10.2.0.0"))), bytesOf(wider));
  EXPECT_EQ(table.ofCountry("AU"), (std::vector<RowTable::RowNumber>{0, 2}));
  EXPECT_EQ(table.ofCountry("JP"), (std::vector<RowTable::RowNumber>{1, 3}));
  EXPECT_TRUE(table.ofCountry("DE").empty());
}

/// Looks up thousands of addresses of both families and scans the ranges for each.
void compareWithScan(const std::vector<std::string>& files, const RowTable& table, int count) {
  std::vector<RangeLine> ranges;
  for (const std::string& path : files) {
    RangeFile file(path, [](std::uint32_t, const std::string&) {});
    for (RangeLine line; file.next(line);) ranges.push_back(line);
  }
  ASSERT_FALSE(ranges.empty());
  std::mt19937 random(5);
  int hits = 0;
  for (int i = 0; i < count; ++i) {
    // Anywhere, or near the ends of a range, where mistakes would be.
    byte_t bytes[16];
    for (byte_t& byte : bytes) byte = static_cast<byte_t>(random());
    Korvo::AddressFamily af = i % 2 == 0 ? Korvo::ipv4_ : Korvo::ipv6_;
    if (i % 4 >= 2) {
      const AddressRange& near = ranges[random() % ranges.size()].range;
      const IpGenAddr& end = random() % 2 == 0 ? near.first : near.last;
      af = end.af();
      const int last = end.addressLengthBytes() - 1;
      std::copy_n(end.bytes(), 16, bytes);
      bytes[last] = static_cast<byte_t>(bytes[last] + static_cast<int>(random() % 3) - 1);
    }
    const IpGenAddr addr(af, bytes);
    const RangeLine* expected = nullptr;
    for (const RangeLine& line : ranges) {
      if (!line.range.contains(addr)) continue;
      expected = &line;
      break;
    }
    const PrefixRow hit = table.lookup(addr);
    ASSERT_EQ(hit.isNull(), expected == nullptr);
    if (hit.isNull()) continue;
    ++hits;
    ASSERT_EQ(hit.get<"country">(), expected->country);
    ASSERT_EQ(hit.get<"line">(), expected->line);
    ASSERT_TRUE(hit.get<"prefix">().contains(IpGenPrefix(addr, hit.view<"prefix">().mask())));
  }
  EXPECT_GT(hits, count / 10);
}

TEST(Transfer, OfTheSampleAgreesWithAScanOfTheRanges) {
  Agent agent("subscriber", false);
  for (const bool blocking : {true, false}) {
    RowTable table;
    TransferOptions options;
    options.inputs = sampleFiles();
    options.quiet = true;
    const TransferResult result = transferRows(options, table, blocking ? nullptr : &agent);
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.refusedRows, 0U);
    EXPECT_EQ(result.malformedLines, 0U);
    table.index();
    compareWithScan(sampleFiles(), table, 20000);
  }
}

TEST(Transfer, OfTheFullDataAgreesWithAScanOfTheRanges) {
  const char* const folder = std::getenv("NETDB_FULL_DATA");
  if (folder == nullptr) {
    std::puts("NETDB_FULL_DATA names no folder with the full data: the sample alone is tested");
    return;
  }
  const std::vector<std::string> files = {std::string(folder) + "/geoip",
                                          std::string(folder) + "/geoip6"};
  RowTable table;
  TransferOptions options;
  options.inputs = files;
  options.quiet = true;
  Agent agent("subscriber", false);
  ASSERT_TRUE(transferRows(options, table, &agent).complete);
  table.index();
  EXPECT_GT(table.rows().size(), 500000U);
  compareWithScan(files, table, 4000);
}

TEST(Transfer, RowsArriveByteForByte) {
  Agent agent("subscriber", false);
  for (const bool blocking : {true, false}) {
    RowSource source = sampleSource();
    std::vector<std::vector<byte_t>> sent;
    for (PrefixRow made; source.next(made);) sent.push_back(bytesOf(made));
    ASSERT_GT(sent.size(), 300U);
    RowTable table;
    TransferOptions options;
    options.inputs = sampleFiles();
    options.quiet = true;
    ASSERT_TRUE(transferRows(options, table, blocking ? nullptr : &agent).complete);
    ASSERT_EQ(table.rows().size(), sent.size());
    auto expected = sent.begin();
    for (const PrefixView received : table.rows()) ASSERT_EQ(bytesOf(received), *expected++);
  }
}

/// What a subscriber makes of packets that a test sends.
struct Reception {
  RowTable table;
  std::vector<std::string> refusals;
  std::uint64_t received = 0;
  bool complete = false;

  explicit Reception(const std::vector<std::vector<byte_t>>& packets) {
    RowSockets sockets;
    Subscriber subscriber(table, [&](std::uint64_t number, const std::string& reason) {
      refusals.push_back(std::to_string(number) + ": " + reason);
    });
    RowReceiver receiver(sockets.subscriber.get());
    for (const std::vector<byte_t>& packet : packets) {
      EXPECT_EQ(::send(sockets.publisher.get(), packet.data(), packet.size(), 0),
                static_cast<ssize_t>(packet.size()));
      EXPECT_EQ(receiver.receive(true), RowReceiver::Result::received);
      for (const RowReceiver::Packet& got : receiver.packets()) {
        subscriber.take(got.bytes, got.length);
      }
    }
    sockets.publisher.close();
    EXPECT_EQ(receiver.receive(true), RowReceiver::Result::closed);
    received = subscriber.received();
    complete = subscriber.complete();
  }
};

const std::vector<byte_t> endMark = {8, 0, 0xFF, 0xFF, 0, 0, 0, 0};

TEST(Subscriber, RefusesBadRowsAndGoesOn) {
  const std::vector<byte_t> good = bytesOf(row("10.0.0.0/8"));
  std::vector<byte_t> torn(good.begin(), good.end() - 5);
  std::vector<byte_t> shortRow(good.begin(), good.begin() + 5);
  std::vector<byte_t> lying = good;
  Korvo::VColType::at(lying.data(), PrefixLayout::offset<"country">).valueIs(60000, 2, false);
  std::vector<byte_t> otherType = good;
  otherType[2] = 9;
  std::vector<byte_t> trailing = good;
  trailing.push_back(0);
  std::vector<byte_t> tooLong(65536, 0);
  const std::vector<byte_t> empty;
  PrefixRow noPrefix;
  noPrefix.create();
  PrefixRow hostBits = row("10.0.0.0/8");
  hostBits.set<"prefix">(IpGenPrefix(IpGenAddr("10.0.0.1"), 8));
  const Reception reception({good, torn, shortRow, lying, otherType, trailing, tooLong,
                             bytesOf(noPrefix), bytesOf(hostBits), empty, good, endMark});
  EXPECT_TRUE(reception.complete);
  EXPECT_EQ(reception.received, 11U);
  EXPECT_EQ(reception.table.rows().size(), 2U);
  ASSERT_EQ(reception.refusals.size(), 9U);
  EXPECT_EQ(reception.refusals[0], "2: the row is longer than what was received (at byte 0)");
  EXPECT_EQ(reception.refusals[1], "3: fewer bytes than a row header (at byte 5)");
  EXPECT_EQ(reception.refusals[2], "4: a value lies beyond the row's end (country, at byte " +
                                       std::to_string(PrefixLayout::offset<"country">) + ")");
  EXPECT_EQ(reception.refusals[3], "5: Invalid Row - (another row type)");
  EXPECT_EQ(reception.refusals[4],
            "6: bytes follow the row (at byte " + std::to_string(good.size()) + ")");
  EXPECT_EQ(reception.refusals[6], "8: a row without a prefix");
  EXPECT_EQ(reception.refusals[7].substr(0, 27), "9: a prefix has host bits s");
  EXPECT_EQ(reception.refusals[8], "10: fewer bytes than a row header (at byte 0)");
}

TEST(Subscriber, RefusesRowsAfterTheEnd) {
  const std::vector<byte_t> good = bytesOf(row("10.0.0.0/8"));
  const Reception reception({good, endMark, good});
  EXPECT_TRUE(reception.complete);
  EXPECT_EQ(reception.refusals, std::vector<std::string>{"2: a row after the end of the rows"});
}

TEST(Subscriber, KnowsThatTheStreamBroke) {
  const Reception reception({bytesOf(row("10.0.0.0/8")), bytesOf(row("11.0.0.0/8"))});
  EXPECT_FALSE(reception.complete);
  EXPECT_EQ(reception.table.rows().size(), 2U);
}

TEST(RowReceiver, TakesEmptyPacketsForRowsAndEndsWhenTheSocketIsClosed) {
  RowSockets sockets;
  RowReceiver receiver(sockets.subscriber.get());
  for (const std::size_t length : {0U, 3U, 0U}) {
    ASSERT_EQ(::send(sockets.publisher.get(), "abc", length, 0), static_cast<ssize_t>(length));
  }
  ASSERT_EQ(receiver.receive(false), RowReceiver::Result::received);
  ASSERT_EQ(receiver.packets().size(), 3U);
  EXPECT_EQ(receiver.packets()[0].length, 0U);
  EXPECT_EQ(receiver.packets()[1].length, 3U);
  EXPECT_EQ(receiver.packets()[2].length, 0U);
  EXPECT_EQ(receiver.receive(false), RowReceiver::Result::wouldBlock);

  ASSERT_EQ(::send(sockets.publisher.get(), "abc", 3, 0), 3);
  sockets.publisher.close();
  ASSERT_EQ(receiver.receive(true), RowReceiver::Result::received);
  EXPECT_EQ(receiver.packets().size(), 1U);
  EXPECT_EQ(receiver.receive(true), RowReceiver::Result::closed);
  EXPECT_EQ(receiver.receive(false), RowReceiver::Result::closed);
}

TEST(DefaultInput, PrefersTheDataOfTheDemo) {
  namespace fs = std::filesystem;
  const fs::path root = fs::path(testing::TempDir()) / ("netdb_input." + std::to_string(getpid()));
  const fs::path program = root / "build/release/examples/netdb";
  const fs::path demo = root / "build/demo-data/usr/share/tor";
  const auto fill = [](const fs::path& folder) {
    fs::create_directories(folder);
    const std::ofstream ipv4(folder / "geoip");
    const std::ofstream ipv6(folder / "geoip6");
  };
  const auto filesIn = [](const fs::path& folder) {
    return std::vector<std::string>{folder / "geoip", folder / "geoip6"};
  };
  fill(program / "sample");
  const bool installed = fs::exists("/usr/share/tor/geoip") && fs::exists("/usr/share/tor/geoip6");
  EXPECT_EQ(defaultInput(program),
            filesIn(installed ? fs::path("/usr/share/tor") : program / "sample"));
  fill(demo);
  EXPECT_EQ(defaultInput(program), filesIn(demo));
  std::vector<fs::path> made = {root};
  for (const auto& entry : fs::recursive_directory_iterator(root)) made.push_back(entry.path());
  for (auto path = made.rbegin(); path != made.rend(); ++path) fs::remove(*path);
}

TEST(RowSender, ThrowsWhenTheSubscriberIsGone) {
  RowSockets sockets;
  sockets.subscriber.close();
  RowSender sender(sockets.publisher.get());
  sender.add(row("10.0.0.0/8"));
  EXPECT_THROW(sender.send(true), std::system_error);
  EXPECT_THROW(sender.sendEnd(true), std::system_error);
}

TEST(RowSender, SendsAPartWhenItMustNotWait) {
  RowSockets sockets;
  RowSender sender(sockets.publisher.get());
  const PrefixRow one = row("10.0.0.0/8");
  for (int i = 0; i < 5000; ++i) sender.add(one);
  ASSERT_FALSE(sender.send(false));  // the socket is full
  RowReceiver receiver(sockets.subscriber.get());
  std::size_t received = 0;
  bool sent = false;
  while (received < 5000) {
    if (!sent) sent = sender.send(false);
    if (receiver.receive(false) != RowReceiver::Result::received) continue;
    received += receiver.packets().size();
  }
  EXPECT_EQ(received, 5000U);
  EXPECT_EQ(receiver.receive(false), RowReceiver::Result::wouldBlock);
}

}  // namespace
