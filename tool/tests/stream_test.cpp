// Files of a million rows: memory does not grow with them, and reading takes no longer than twice a
// copy with a check.

#include "support.h"

#include <Korvo/AnyRow.h>
#include <Korvo/rowCheck.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iostream>
#include <vector>

namespace {

using korvotest::variable;
using korvotest::write;

constexpr const char* layoutText =
    "row 7 base 28 { speed uint64_t @8 name string_t @16 tags string_t[] @20 net IpGenPrefix @24 }";

/// A file of this many rows.
void writeRows(const std::string& path, std::size_t count) {
  Korvo::AnyRow row{Korvo::DynamicLayout(layoutText)};
  row.fromJson(R"({"speed":10000,"name":"eth0","tags":["core","uplink"],"net":"10.1.0.0/16"})");
  std::string bytes(reinterpret_cast<const char*>(row.rowBuf()), row.rowLength());
  std::string all;
  for (std::size_t oid = 0; oid < count; ++oid) {
    const auto number = static_cast<Korvo::oid_t>(oid);
    std::memcpy(bytes.data() + Korvo::rowOidOffset, &number, sizeof number);
    all += bytes;
  }
  write(path, all);
  write("rows.layout", layoutText);
}

struct Usage {
  long memory = 0;  // KiB at most
  double seconds = 0;
  int status = -1;
};

/// Runs the program, with its output into a file that nobody reads.
Usage usageOf(const std::vector<std::string>& arguments) {
  const std::string program = variable("KORVO");
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_WRONLY);  // NOLINT: kept open
    dup2(null, STDOUT_FILENO);
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  Usage usage;
  int status = 0;
  rusage used{};
  if (wait4(child, &status, 0, &used) != child) return usage;
  usage.memory = used.ru_maxrss;
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  usage.seconds = seconds(used.ru_utime) + seconds(used.ru_stime);
  usage.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return usage;
}

constexpr std::size_t fewRows = 1000;
constexpr std::size_t manyRows = 1000000;

class Stream : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    writeRows("few.rows", fewRows);
    writeRows("many.rows", manyRows);
  }
  static void TearDownTestSuite() { write("many.rows", ""); }

  static void expectConstantMemory(std::vector<std::string> arguments) {
    const std::size_t file = arguments.size();
    arguments.emplace_back("few.rows");
    if (arguments.front() == "diff") arguments.emplace_back("few.rows");
    const Usage few = usageOf(arguments);
    for (std::size_t i = file; i < arguments.size(); ++i) arguments[i] = "many.rows";
    const Usage many = usageOf(arguments);
    EXPECT_EQ(few.status, 0) << arguments.front();
    EXPECT_EQ(many.status, 0) << arguments.front();
    constexpr long mebibyte = 1024;
    EXPECT_LT(many.memory, few.memory + 2 * mebibyte) << arguments.front();
  }
};

TEST_F(Stream, TakesConstantMemory) {
  expectConstantMemory({"check", "-l", "rows.layout"});
  expectConstantMemory({"stat", "-l", "rows.layout"});
#ifdef NDEBUG
  // The address sanitizer, in builds for debugging, keeps for a while what these free for each row.
  expectConstantMemory({"show", "--json", "-l", "rows.layout"});
  expectConstantMemory({"show", "-l", "rows.layout"});
  expectConstantMemory({"convert", "--as", "csv", "-l", "rows.layout"});
  expectConstantMemory({"diff", "-l", "rows.layout"});
  write("wide.layout", "row 7 base 16 { name string_t @8 mtu uint32_t @12 }");
  expectConstantMemory({"convert", "--to", "wide.layout", "-l", "rows.layout"});
#endif
}

#ifdef NDEBUG  // as above
TEST_F(Stream, RowsWithoutAPartnerTakeConstantMemoryInOrder) {
  const auto diff = [](const char* a, const char* b) {
    return usageOf({"diff", "-l", "rows.layout", "--in-order", "--quiet", a, b});
  };
  const Usage few = diff("few.rows", "few.rows");
  for (const Usage& many : {diff("many.rows", "few.rows"), diff("few.rows", "many.rows")}) {
    EXPECT_EQ(many.status, 1);
    EXPECT_LT(many.memory, few.memory + 2048);
  }
}

#endif

TEST_F(Stream, TellsTheByteOfDamageInTheMiddle) {
  std::string content = korvotest::contentOf("many.rows");
  const std::size_t length = content.size() / manyRows;
  constexpr std::size_t damagedRow = 500000;
  const std::size_t offset = damagedRow * length;
  content[offset] = 3;  // its length
  write("damaged.rows", content);
  const std::string place = std::to_string(offset);
  korvotest::expectAll("check -l rows.layout damaged.rows", 1,
                       "damaged.rows: byte " + place +
                           ": a row of 3 bytes has no room for its header; " +
                           std::to_string(length) + " bytes skipped, rows go on at byte " +
                           std::to_string(offset + length) + "\ndamaged.rows: 999999 good rows, " +
                           std::to_string(length) + " bytes skipped\n",
                       "");
  write("damaged.rows", "");
}

#ifdef KORVO_WITH_ARCHIVE

TEST_F(Stream, PackedFilesTakeConstantMemoryToo) {
  for (const std::string packer : {"gzip -1", "zstd -q -1"}) {
    ASSERT_EQ(korvotest::shell(packer + " -c <few.rows >few.packed").status, 0);
    ASSERT_EQ(korvotest::shell(packer + " -c <many.rows >many.packed").status, 0);
    ASSERT_LT(korvotest::contentOf("many.packed").size(),
              korvotest::contentOf("many.rows").size() / 2);
    for (const std::string command : {"check", "stat"}) {
      const Usage few = usageOf({command, "-l", "rows.layout", "few.packed"});
      const Usage many = usageOf({command, "-l", "rows.layout", "many.packed"});
      EXPECT_EQ(few.status, 0) << packer;
      EXPECT_EQ(many.status, 0) << packer;
      // What unpacks it looks back as far as the file is long, up to its window.
      constexpr long window = 10 * 1024;
      EXPECT_LT(many.memory, few.memory + window) << packer << ' ' << command;
      RecordProperty(packer + command, std::to_string(many.memory - few.memory));
      std::cout << packer << ' ' << command << ": " << few.memory << " KiB, " << many.memory
                << " KiB\n";
    }
  }
  write("many.packed", "");
}

#endif

TEST_F(Stream, DamageIsConstantMemoryToo) {
  // Bytes that are no row, for a long way.
  std::string content = korvotest::contentOf("few.rows");
  write("damaged.rows", content + std::string(std::size_t{64} << 20, '\0') + content);
  const Usage few = usageOf({"check", "-l", "rows.layout", "few.rows"});
  const Usage many = usageOf({"check", "-l", "rows.layout", "damaged.rows"});
  EXPECT_EQ(many.status, 1);
  EXPECT_LT(many.memory, few.memory + 2048);
  korvotest::expectAll("check -l rows.layout damaged.rows", 1,
                       "damaged.rows: byte 57000: a row of 0 bytes has no room for its header; "
                       "67108864 bytes skipped, rows go on at byte 67165864\n"
                       "damaged.rows: 2000 good rows, 67108864 bytes skipped\n",
                       "");
  write("damaged.rows", "");
}

#ifdef NDEBUG

double secondsNow() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

TEST_F(Stream, TakesAtMostTwiceACopyWithACheck) {
  const std::string all = korvotest::contentOf("many.rows");
  const Korvo::DynamicLayout layout(layoutText);
  std::vector<Korvo::byte_t> row(Korvo::maxRowLength);
  constexpr int tries = 5;
  double ours = 1e9;
  double copy = 1e9;
  for (int i = 0; i < tries; ++i) {
    // What rows cost: loading the program and its libraries takes as long for any file.
    const Usage start = usageOf({"check", "-l", "rows.layout", "few.rows"});
    const Usage usage = usageOf({"check", "-l", "rows.layout", "many.rows"});
    ASSERT_EQ(usage.status, 0);
    ours = std::min(ours, usage.seconds - start.seconds);
    const double begin = secondsNow();
    std::size_t good = 0;
    for (std::size_t at = 0; at < all.size();) {
      const auto length = Korvo::loadField<Korvo::len_t>(all.data() + at);
      std::memcpy(row.data(), all.data() + at, length);
      if (!Korvo::checkRow(row.data(), length, layout.info())) ++good;
      at += length;
    }
    copy = std::min(copy, secondsNow() - begin);
    ASSERT_EQ(good, manyRows);
  }
  RecordProperty("ratio", std::to_string(ours / copy));
  std::cout << "check of a million rows: " << ours << " s, copy and check: " << copy << " s\n";
  EXPECT_LT(ours, 2 * copy);
}

#endif

}  // namespace
