// What the program does on a terminal, and only there: colours, progress, and no bytes of rows.

#include "support.h"

#include <Korvo/AnyRow.h>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <vector>

namespace {

using korvotest::contentOf;
using korvotest::variable;
using korvotest::write;

constexpr const char* escape = "\x1b[";

bool has(const std::string& text, const char* piece) {
  return text.find(piece) != std::string::npos;
}

struct Ends {
  std::string terminal;  ///< what came out on it, of both streams
  std::string out;       ///< of the streams that went to files
  std::string err;
  int status = -1;
};

/// Runs a line of the shell on a terminal of its own; `files` names the streams that go elsewhere:
/// "out", "err".
Ends run(const std::string& line, const std::string& files = "") {
  write("terminal.sh", "export TERM=xterm\nunset NO_COLOR\n" + line + '\n');
  std::ofstream("out.txt").close();
  std::ofstream("err.txt").close();
  const std::string folder = variable("KORVO").substr(0, variable("KORVO").rfind('/'));
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    const auto redirect = [](const char* path, int fd) {
      dup2(open(path, O_WRONLY | O_TRUNC), fd);  // NOLINT: as open is
    };
    if (has(files, "out")) redirect("out.txt", STDOUT_FILENO);
    if (has(files, "err")) redirect("err.txt", STDERR_FILENO);
    setenv("PATH", (folder + ":/usr/bin:/bin").c_str(), 1);  // NOLINT: one thread
    execl("/bin/bash", "bash", "terminal.sh", nullptr);      // NOLINT
    _exit(127);
  }
  EXPECT_GT(child, 0);
  Ends ends;
  std::array<char, 4096> piece{};
  while (true) {  // until the other end is closed, which is EIO here
    const ssize_t count = read(terminal, piece.data(), piece.size());
    if (count <= 0) break;
    ends.terminal.append(piece.data(), static_cast<std::size_t>(count));
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  close(terminal);
  ends.out = contentOf("out.txt");
  ends.err = contentOf("err.txt");
  ends.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ends;
}

class Terminal : public korvotest::OnATerminal {
 protected:
  static void SetUpTestSuite() {
    write("port.korvo", "row Port 7 {\n  speed uint32_t\n}\n");
    write("other.korvo", "row Port 7 {\n  speed uint64_t\n}\n");
    write("one.json", R"({"oid":1,"row":{"speed":1}})");
    write("two.json", R"({"oid":1,"row":{"speed":2}})");
    for (const std::string name : {"one", "two"}) {
      std::string words = "convert -l port.korvo --from json ";
      words.append(name).append(".json -o ").append(name).append(".rows");
      ASSERT_EQ(korvotest::korvo(words).status, 0);
    }
  }
};

constexpr const char* colourful[] = {
    "check -l port.korvo one.rows",         "show -l port.korvo one.rows",
    "annotate -l port.korvo one.rows",      "stat -l port.korvo one.rows",
    "diff -l port.korvo one.rows two.rows", "layout diff port.korvo other.korvo"};

constexpr const char* plain[] = {"convert -l port.korvo --as json one.rows",
                                 "convert -l port.korvo --as csv one.rows",
                                 "layout print port.korvo",
                                 "generate port.korvo",
                                 "address ::1",
                                 "prefix parse ::/0",
                                 "prefix contains ::/0 ::1",
                                 "prefix order ::/0",
                                 "query 'a into b'",
                                 "--help",
                                 "--version",
                                 "check -l port.korvo /nowhere",
                                 "check -l port.korvo --json one.rows",
                                 "show -l port.korvo --json one.rows",
                                 "annotate -l port.korvo --json one.rows",
                                 "stat -l port.korvo --json one.rows",
                                 "diff -l port.korvo --json one.rows two.rows",
                                 "layout diff --json port.korvo other.korvo"};

TEST_F(Terminal, HasColours) {
  for (const std::string arguments : colourful) {
    const std::string line = "korvo " + arguments;
    const Ends terminal = run(line);
    EXPECT_TRUE(has(terminal.terminal, escape)) << arguments << terminal.terminal;
    // Where the errors go makes no difference, and where they alone go to a terminal there are
    // none.
    EXPECT_TRUE(has(run(line, "err").terminal, escape)) << arguments;
    const Ends file = run(line, "out");
    EXPECT_FALSE(file.out.empty()) << arguments;
    EXPECT_FALSE(has(file.out, escape)) << arguments << file.out;
    EXPECT_EQ(file.terminal, "") << arguments;
    EXPECT_EQ(file.status, terminal.status) << arguments;
    // In a pipe, and where they are not wanted.
    EXPECT_FALSE(has(run(line + " | cat").terminal, escape)) << arguments;
    EXPECT_FALSE(has(run(line + " --color never").terminal, escape)) << arguments;
    EXPECT_FALSE(has(run("NO_COLOR=1 " + line).terminal, escape)) << arguments;
    EXPECT_TRUE(has(run(line + " --color always", "out").out, escape)) << arguments;
    EXPECT_TRUE(has(run("NO_COLOR=1 " + line + " --color always", "out").out, escape)) << arguments;
  }
}

TEST_F(Terminal, OtherOutputHasNone) {
  for (const std::string arguments : plain) {
    const Ends terminal = run("korvo " + arguments);
    EXPECT_FALSE(has(terminal.terminal, escape)) << arguments << terminal.terminal;
    EXPECT_FALSE(terminal.terminal.empty()) << arguments;
  }
}

TEST_F(Terminal, IsNotGivenRows) {
  const Ends terminal = run("korvo convert -l port.korvo one.rows");
  EXPECT_EQ(terminal.status, 64);
  EXPECT_EQ(terminal.terminal,
            "korvo: rows are no text for a terminal: name a file with --output (see korvo convert "
            "--help)\r\n");
  EXPECT_EQ(run("korvo convert -l port.korvo one.rows", "out").out, contentOf("one.rows"));
}

TEST_F(Terminal, IsToldOfProgress) {
  // Long enough to be told of.
  std::string rows = contentOf("one.rows");
  while (rows.size() < std::size_t{40} << 20) rows += rows;
  write("many.rows", rows);
  const std::string line = "korvo check -l port.korvo many.rows";
  const std::string summary =
      "many.rows: " + std::to_string(rows.size() / contentOf("one.rows").size()) + " good rows\n";
  const Ends file = run(line, "out");
  EXPECT_EQ(file.out, summary);
  EXPECT_TRUE(has(file.terminal, "\rmany.rows: 32 MiB\x1b[K")) << file.terminal;
  // It is gone in the end.
  EXPECT_TRUE(file.terminal.ends_with("\r\x1b[K")) << file.terminal;
  EXPECT_FALSE(has(run(line).terminal, "MiB"));
  const Ends none = run(line, "out err");
  EXPECT_EQ(none.out, summary);
  EXPECT_EQ(none.err, "");
  EXPECT_EQ(none.terminal, "");
  EXPECT_FALSE(has(run(line, "err").terminal, "MiB"));
  write("many.rows", "");
}

}  // namespace
