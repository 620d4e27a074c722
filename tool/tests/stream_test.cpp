// Files of a million rows: memory does not grow with them, and reading takes no longer than twice a
// copy with a check.

#include "support.h"

#include <Korvo/AnyRow.h>
#include <Korvo/rowCheck.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstring>
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
  expectConstantMemory({"show", "--json", "-l", "rows.layout"});
#if !defined(__SANITIZE_ADDRESS__) && !defined(__clang__)
  // The address sanitizer keeps freed memory for a while, and these free a little for each row.
  expectConstantMemory({"show", "-l", "rows.layout"});
  expectConstantMemory({"convert", "--as", "csv", "-l", "rows.layout"});
  expectConstantMemory({"diff", "-l", "rows.layout"});
#endif
}

TEST_F(Stream, DamageIsConstantMemoryToo) {
  // Bytes that are no row, for a long way.
  std::string content = korvotest::contentOf("few.rows");
  write("damaged.rows", content + std::string(std::size_t{64} << 20, '\0') + content);
  const Usage few = usageOf({"check", "-l", "rows.layout", "few.rows"});
  const Usage many = usageOf({"check", "-l", "rows.layout", "damaged.rows"});
  EXPECT_EQ(many.status, 1);
  EXPECT_LT(many.memory, few.memory + 2048);
  korvotest::expectAll("check -l rows.layout damaged.rows", 1,
                       "damaged.rows: byte 62000: a row of 0 bytes has no room for its header; "
                       "67108864 bytes skipped, rows go on at byte 67170864\n"
                       "damaged.rows: 2000 good rows, 67108864 bytes skipped\n",
                       "");
  write("damaged.rows", "");
}

}  // namespace
