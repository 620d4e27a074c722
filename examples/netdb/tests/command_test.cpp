// The program as a person meets it: what it prints, where, and its exit status.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string program;  // the first argument of this test

struct Outcome {
  std::string out;
  std::string err;
  int status = -1;
};

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

Outcome run(const std::string& arguments) {
  const std::string out = testing::TempDir() + "netdb_out." + std::to_string(getpid());
  const std::string err = testing::TempDir() + "netdb_err." + std::to_string(getpid());
  const int status =
      std::system((program + " " + arguments + " >" + out + " 2>" + err).c_str());  // NOLINT
  Outcome result{contentOf(out), contentOf(err), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
  std::remove(out.c_str());
  std::remove(err.c_str());
  return result;
}

const std::string sample = "--quiet --input " NETDB_SAMPLE "/geoip " NETDB_SAMPLE "/geoip6 ";

TEST(Netdb, Loads) {
  const Outcome result = run("--input " NETDB_SAMPLE "/geoip " NETDB_SAMPLE "/geoip6 load");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.substr(0, 5), "rows ");
  EXPECT_NE(result.out.find("\nrows per second "), std::string::npos);
  EXPECT_NE(result.out.find("\nmemory "), std::string::npos);
  EXPECT_NE(result.err.find("loading: 100 %"), std::string::npos) << result.err;
}

TEST(Netdb, LooksUpBothFamilies) {
  const Outcome result = run(sample + "lookup 8.8.8.8 2606:4700:4700::1111");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.substr(0, 11), "prefix     ");
  EXPECT_NE(result.out.find("\ncountry     US\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("\n\nprefix      2606:4700:0000:"), std::string::npos) << result.out;
}

TEST(Netdb, PrintsJson) {
  const Outcome result = run(sample + "lookup --json 1.1.1.1");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out.substr(0, 33), R"({"prefix":"1.1.1.0/24","first":"1)");
}

TEST(Netdb, TellsWhenNoPrefixContainsAnAddress) {
  const Outcome result = run(sample + "lookup 127.0.0.1");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "netdb: no prefix contains 127.0.0.1\n");
}

TEST(Netdb, ListsACountry) {
  const Outcome result = run(sample + "country AU --limit 2");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.substr(0, 11), "1.0.0.0/24\n");
  EXPECT_NE(result.out.find(" rows of AU\n"), std::string::npos);
  EXPECT_EQ(run(sample + "country au --limit 2").out, result.out);
  const Outcome unknown = run(sample + "country XX");
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.out, "0 rows of XX\n");
}

TEST(Netdb, CountsRows) {
  const Outcome result = run(sample + "stats");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.substr(0, 46), "  country         IPv4        IPv6        rows");
  EXPECT_NE(result.out.find("\n  length          IPv4        IPv6        rows\n"),
            std::string::npos);
}

TEST(Netdb, AnswersMistakesWithOneLine) {
  struct Case {
    std::string arguments;
    int status;
    std::string err;
  };
  const Case cases[] = {
      {"", 2, "netdb: no command (see netdb --help)\n"},
      {sample, 2, "netdb: no command (see netdb --help)\n"},
      {"frobnicate", 2, "netdb: unknown command: frobnicate (see netdb --help)\n"},
      {"frobnicate " + sample, 2, "netdb: unknown command: frobnicate (see netdb --help)\n"},
      {sample + "load twice", 2, "netdb: unexpected argument: twice (see netdb --help)\n"},
      {sample + "load --fast", 2, "netdb: unexpected argument: --fast (see netdb --help)\n"},
      {sample + "lookup", 2, "netdb: ADDRESS is required (see netdb --help)\n"},
      {sample + "lookup 1.2.3", 2, "netdb: not an address: 1.2.3 (see netdb --help)\n"},
      {sample + "lookup example", 2, "netdb: not an address: example (see netdb --help)\n"},
      {sample + "lookup 1.2.3.256", 2, "netdb: not an address: 1.2.3.256 (see netdb --help)\n"},
      {sample + "lookup 8.8.8.8/8", 2, "netdb: not an address: 8.8.8.8/8 (see netdb --help)\n"},
      {sample + "lookup ''", 2, "netdb: not an address:  (see netdb --help)\n"},
      {sample + "country", 2, "netdb: CC is required (see netdb --help)\n"},
      {sample + "country USA", 2, "netdb: not a country of two letters: USA (see netdb --help)\n"},
      {sample + "country US --limit=-1", 2,
       "netdb: --limit: not a number from 0: -1 (see netdb --help)\n"},
      {sample + "stats --limit x", 2,
       "netdb: --limit: not a number from 0: x (see netdb --help)\n"},
      {"load --server", 2, "netdb: --server: 1 required ADDRESS missing (see netdb --help)\n"},
      {sample + "serve --server /nowhere/netdb", 1,
       "netdb: bind /nowhere/netdb: No such file or directory\n"},
      {"serve --server /tmp/netdb --input /nowhere/geoip", 1,
       "netdb: /nowhere: No such file or directory\n"},
      {sample + "--system '' load", 2, "netdb: the system has no name (see netdb --help)\n"},
      {"load --input", 2, "netdb: --input: 1 required FILE missing (see netdb --help)\n"},
      {"--input /nowhere/geoip load", 1, "netdb: /nowhere/geoip: No such file or directory\n"},
      {"--input / load", 1, "netdb: /: is a directory\n"},
  };
  for (const Case& c : cases) {
    const Outcome result = run(c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments;
    EXPECT_EQ(result.err, c.err) << c.arguments;
    EXPECT_EQ(result.out, "") << c.arguments;
  }
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::size_t countOf(const std::vector<std::string>& lines, const std::string& begin,
                    const std::string& part) {
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.starts_with(begin) && line.find(part) != line.npos;
      }));
}

TEST(Netdb, TracesItsUnits) {
  const Outcome result = run(sample + "--trace lookup 8.8.8.8 1.1.1.1");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, run(sample + "lookup 8.8.8.8 1.1.1.1").out);
  const std::vector<std::string> lines = linesOf(result.err);
  const std::string agent = "netdb lookup: src/Scheduler.cpp:";
  EXPECT_EQ(countOf(lines, agent, ""), lines.size());
  const std::string invoked = " invoke:  invoking ";
  EXPECT_GE(countOf(lines, agent, invoked + "loader(unit: "), 1U);
  EXPECT_GE(countOf(lines, agent, invoked + "lookups(unit: "), 1U);
  EXPECT_EQ(countOf(lines, agent, invoked), countOf(lines, agent, invoked + "loader(") +
                                                countOf(lines, agent, invoked + "lookups("));
  // One scheduler reads the files and looks the addresses up.
  EXPECT_EQ(countOf(lines, agent,
                    " run: virtual void Korvo::Scheduler::run(int, double, bool) lookup(0,0, 1)"),
            2U);
  EXPECT_EQ(countOf(lines, agent, " run:  lookup exited due to quiescence."), 2U);
  EXPECT_GE(countOf(lines, agent, " runnableIs:   adding to runqueue ("), 2U);
}

TEST(Netdb, BelongsToASystem) {
  const Outcome result = run(sample + "--system alpha --trace stats");
  EXPECT_EQ(result.status, 0);
  const std::vector<std::string> lines = linesOf(result.err);
  EXPECT_GT(lines.size(), 3U);
  EXPECT_EQ(countOf(lines, "alpha stats: ", ""), lines.size());
}

TEST(Netdb, TellsWhenItsOutputIsLost) {
  const Outcome result = run(sample + "stats >/dev/full; test $? = 1 && echo failed");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "failed\n");
}

TEST(Netdb, HelpsWithoutData) {
  const Outcome result = run("--help");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  for (const char* command : {"serve", "watch", "load", "lookup", "country", "stats"}) {
    EXPECT_NE(result.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
  }
}

TEST(Netdb, SkipsMalformedLinesAndTellsThem) {
  const std::string path = testing::TempDir() + "netdb_bad." + std::to_string(getpid());
  std::ofstream(path) << "1,2,AU\n1,2\n5,4,AU\n7,7,DE\n";
  const Outcome result = run("--quiet --input " + path + " load");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, path + ":2: not three fields; line skipped\n" + path +
                            ":3: the last address is before the first; line skipped\n");
  EXPECT_NE(result.out.find("malformed lines  2\n"), std::string::npos) << result.out;
  std::remove(path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc != 2) {
    std::fputs("usage: command_test NETDB\n", stderr);
    return 2;
  }
  program = argv[1];
  return RUN_ALL_TESTS();
}
