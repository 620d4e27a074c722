#pragma once

// Running the program as a person does: what it prints, where, and its exit status. Tests run in a
// folder of their own, and may write into it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace korvotest {

struct Outcome {
  std::string out;
  std::string err;
  int status = -1;
};

inline std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write(const std::string& path, std::string_view content) {
  std::ofstream file(path, std::ios::binary);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  ASSERT_TRUE(file.flush()) << path;
}

inline std::string variable(const char* name) {
  const char* const value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  EXPECT_NE(value, nullptr) << name << " is not set";
  return value == nullptr ? "" : value;
}

/// Runs a line of the shell, where `korvo` is the program.
inline Outcome shell(const std::string& line) {
  static const std::string program = variable("KORVO");
  const std::string folder = program.substr(0, program.rfind('/'));
  write("line.sh", "PATH='" + folder + "':$PATH\n" + line + '\n');
  const int status = std::system("bash line.sh >out.txt 2>err.txt");  // NOLINT
  return {contentOf("out.txt"), contentOf("err.txt"), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

inline Outcome korvo(const std::string& arguments) {
  return shell("korvo " + arguments);
}

/// Tests on a terminal, which a root folder without the devpts file system does not have.
class OnATerminal : public testing::Test {
 protected:
  void SetUp() override {
    int ours = -1;
    int theirs = -1;
    if (openpty(&ours, &theirs, nullptr, nullptr, nullptr) != 0) {
      GTEST_SKIP() << "there are no pseudo terminals here";
    }
    close(ours);
    close(theirs);
  }
};

/// The command succeeds with this output and no word on standard error.
inline void expectOut(const std::string& arguments, const std::string& out) {
  const Outcome result = korvo(arguments);
  EXPECT_EQ(result.status, 0) << arguments;
  EXPECT_EQ(result.err, "") << arguments;
  EXPECT_EQ(result.out, out) << arguments;
}

/// The command ends with this status, this output and these words on standard error.
inline void expectAll(const std::string& arguments, int status, const std::string& out,
                      const std::string& err) {
  const Outcome result = korvo(arguments);
  EXPECT_EQ(result.status, status) << arguments;
  EXPECT_EQ(result.out, out) << arguments;
  EXPECT_EQ(result.err, err) << arguments;
}

}  // namespace korvotest
