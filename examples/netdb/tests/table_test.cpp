// Files become a table: its rows and their object ids, what a second reading changes, and lookups
// against a scan of the ranges.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "defaultInput.h"
#include "loader.h"
#include "lookups.h"

namespace {

using namespace netdb;
using Korvo::byte_t;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;

std::vector<std::string> sampleFiles() {
  return {NETDB_SAMPLE "/geoip", NETDB_SAMPLE "/geoip6"};
}

void expectWellFormed(const std::string& file, std::uint32_t line, const std::string& reason) {
  ADD_FAILURE() << file << ":" << line << ": " << reason;
}

Loader::Result load(Agent& agent, PrefixTable& table, const std::vector<std::string>& paths,
                    const RowSource::Complaint& malformed = expectWellFormed) {
  Loader::Result told;
  const Loader loader(agent, table, paths,
                      {.malformed = malformed,
                       .read = [](double, std::uint64_t) {},
                       .ended = [&](const Loader::Result& result) { told = result; }});
  agent.run(true);
  return told;
}

/// A file of ranges, removed at the end.
class RangesFile {
 public:
  explicit RangesFile(const std::string& content) { contentIs(content); }
  RangesFile(const RangesFile&) = delete;
  RangesFile& operator=(const RangesFile&) = delete;
  ~RangesFile() { std::remove(path_.c_str()); }

  void contentIs(const std::string& content) const { std::ofstream(path_) << content; }
  std::vector<std::string> paths() const { return {path_}; }

 private:
  std::string path_ = testing::TempDir() + "netdb_ranges." + std::to_string(getpid());
};

/// The object ids of the file's prefixes; of a prefix that stands there several times, in order.
std::map<std::string, std::vector<oid_t>> oidsOf(const std::string& content) {
  const RangesFile file(content);
  RowSource source(file.paths(), expectWellFormed);
  std::map<std::string, std::vector<oid_t>> result;
  for (PrefixRow row; source.next(row);) {
    result[row.get<"prefix">().toString()].push_back(row.rowOid());
    EXPECT_TRUE(source.made(row.rowOid()));
  }
  return result;
}

TEST(MakeRow, FillsEveryColumn) {
  const PrefixRow made = makeRow(IpGenPrefix("10.1.0.0/16"), "??", "geoip", 42, 7);
  EXPECT_EQ(made.rowOid(), 7U);
  EXPECT_EQ(made.toJson(), R"({"prefix":"10.1.0.0/16","first":"10.1.0.0","last":"10.1.255.255",)"
                           R"("country":"??","line":42,"addresses":65536,"ipv6":false,)"
                           R"("tags":["geoip","private"],"origin":{"file":"geoip","line":42}})");
}

// ---------------------------------------------------------------------------------------------
// Object ids

TEST(RowSource, GivesAPrefixTheSameObjectIdWhereverItStands) {
  const auto once = oidsOf("16777216,16777471,AU\n2001:db8::,2001:db8::ffff,JP\n");
  const auto moved =
      oidsOf("# later\n1,1,US\n2001:db8::,2001:db8::ffff,DE\n16777216,16777471,AU\n");
  ASSERT_EQ(once.size(), 2U);
  for (const auto& [prefix, oids] : once) EXPECT_EQ(moved.at(prefix), oids) << prefix;
}

TEST(RowSource, GivesObjectIdsThatAreTheSameOnEveryHost) {
  const auto oids = oidsOf("16777216,16777471,AU\n2001:db8::,2001:db8::ffff,JP\n");
  // FNV-1a of the length and the address.
  EXPECT_EQ(oids.at("1.0.0.0/24"), std::vector<oid_t>{1637043014});
  EXPECT_EQ(oids.at("2001:0db8:0000:0000:0000:0000:0000:0000/112"), std::vector<oid_t>{1069057353});
}

TEST(RowSource, NeverGivesAnObjectIdTwice) {
  const auto oids = oidsOf("1,1,AU\n1,1,DE\n2,2,AU\n1,1,AU\n");
  const oid_t first = oids.at("0.0.0.1/32").front();
  EXPECT_EQ(oids.at("0.0.0.1/32"), (std::vector<oid_t>{first, first + 1, first + 2}));

  RowSource source(sampleFiles(), expectWellFormed);
  std::set<oid_t> all;
  std::size_t rows = 0;
  for (PrefixRow row; source.next(row); ++rows) all.insert(row.rowOid());
  EXPECT_GT(rows, 300U);
  EXPECT_EQ(all.size(), rows);
  EXPECT_FALSE(all.contains(0));
}

// ---------------------------------------------------------------------------------------------
// Loading

TEST(Loader, ChangesWhatDiffers) {
  Agent agent("loader", false);
  PrefixTable table(prefixTable);
  const RangesFile file("1,1,AU\n2,2,AU\n3,3,AU\n");
  const Loader::Result first = load(agent, table, file.paths());
  EXPECT_EQ(first.fault, "");
  EXPECT_EQ(first.added, 3U);
  EXPECT_EQ(table.size(), 3U);
  const std::uint64_t sequence = table.sequence();

  const Loader::Result same = load(agent, table, file.paths());
  EXPECT_EQ(same.rows, 3U);
  EXPECT_EQ(same.added + same.changed + same.removed, 0U);
  EXPECT_EQ(table.sequence(), sequence);

  file.contentIs("1,1,AU\n2,2,DE\n4,4,AU\n");
  const Loader::Result second = load(agent, table, file.paths());
  EXPECT_EQ(second.added, 1U);
  EXPECT_EQ(second.changed, 1U);
  EXPECT_EQ(second.removed, 1U);
  EXPECT_EQ(table.sequence(), sequence + 1);  // one batch
  EXPECT_EQ(table.size(), 3U);
  const auto& byPrefix = table.longestPrefix<"prefix">();
  EXPECT_EQ(byPrefix.find(IpGenAddr("0.0.0.2")).get<"country">(), "DE");
  EXPECT_TRUE(byPrefix.find(IpGenAddr("0.0.0.3")).isNull());
}

TEST(Loader, ChangesNothingIfAFileHasAFault) {
  Agent agent("loader", false);
  PrefixTable table(prefixTable);
  const RangesFile file("1,1,AU\n2,2,AU\n");
  load(agent, table, file.paths());
  const std::uint64_t sequence = table.sequence();
  EXPECT_EQ(load(agent, table, {"/nowhere/geoip"}).fault,
            "/nowhere/geoip: No such file or directory");
  file.contentIs("5,5,AU\n6,6\n");
  const auto refuse = [](const std::string&, std::uint32_t line, const std::string& reason) {
    throw InputError(std::to_string(line) + " " + reason);
  };
  EXPECT_EQ(load(agent, table, file.paths(), refuse).fault, "2 not three fields");
  EXPECT_EQ(table.sequence(), sequence);
  EXPECT_EQ(table.size(), 2U);
}

TEST(Loader, ThatIsDestroyedChangesNothing) {
  Agent agent("loader", false);
  PrefixTable table(prefixTable);
  {
    const Loader loader(agent, table, sampleFiles(),
                        {.malformed = expectWellFormed,
                         .read = [](double, std::uint64_t) {},
                         .ended = [](const Loader::Result&) { FAIL(); }});
    agent.loop()->activeIs(true);
    agent.loop()->run(0, 1e-9, false);
  }
  agent.run(true);
  EXPECT_TRUE(table.empty());
}

// ---------------------------------------------------------------------------------------------
// Lookups

/// Looks up thousands of addresses of both families and scans the ranges for each.
void compareWithScan(const std::vector<std::string>& files, PrefixTable& table, int count) {
  std::vector<RangeLine> ranges;
  for (const std::string& path : files) {
    RangeFile file(path, [](std::uint32_t, const std::string&) {});
    for (RangeLine line; file.next(line);) ranges.push_back(line);
  }
  ASSERT_FALSE(ranges.empty());
  const auto& byPrefix = table.longestPrefix<"prefix">();
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
    const PrefixRow hit = byPrefix.find(addr);
    ASSERT_EQ(hit.isNull(), expected == nullptr);
    if (hit.isNull()) continue;
    ++hits;
    ASSERT_EQ(hit.get<"country">(), expected->country);
    ASSERT_EQ(hit.get<"line">(), expected->line);
    ASSERT_TRUE(hit.get<"prefix">().contains(IpGenPrefix(addr, hit.view<"prefix">().mask())));
  }
  EXPECT_GT(hits, count / 10);
}

TEST(Lookups, InTheSampleAgreeWithAScanOfTheRanges) {
  Agent agent("loader", false);
  PrefixTable table(prefixTable);
  load(agent, table, sampleFiles());
  compareWithScan(sampleFiles(), table, 20000);
}

TEST(Lookups, InTheFullDataAgreeWithAScanOfTheRanges) {
  const char* const folder = std::getenv("NETDB_FULL_DATA");
  if (folder == nullptr) {
    std::puts("NETDB_FULL_DATA names no folder with the full data: the sample alone is tested");
    return;
  }
  const std::vector<std::string> files = {std::string(folder) + "/geoip",
                                          std::string(folder) + "/geoip6"};
  Agent agent("loader", false);
  PrefixTable table(prefixTable);
  load(agent, table, files);
  EXPECT_GT(table.size(), 500000U);
  compareWithScan(files, table, 4000);
}

// ---------------------------------------------------------------------------------------------

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

TEST(DefaultServer, LiesInTheUsersFolder) {
  ASSERT_EQ(setenv("XDG_RUNTIME_DIR", "/tmp", 1), 0);
  EXPECT_EQ(defaultServer(), "unix:/tmp/netdb");
  ASSERT_EQ(setenv("XDG_RUNTIME_DIR", "/nowhere", 1), 0);
  EXPECT_EQ(defaultServer(), "");
  unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace
