// A server and those who subscribe it, as real processes: files that change in every way, a server
// that is killed and comes back, and none at all.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string program;  // the first argument of this test

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// A folder of its own with what the tests put there; removed at the end.
class Folder {
 public:
  Folder() {
    if (mkdtemp(path_) == nullptr) throw std::runtime_error("mkdtemp");
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    for (const char* name : {"geoip", "new", "netdb", "out0", "out1", "out2", "out3", "out4"}) {
      unlink(file(name).c_str());
    }
    rmdir(path_);
  }
  std::string file(const std::string& name) const { return std::string(path_) + '/' + name; }
  std::string address() const { return "unix:" + file("netdb"); }
  /// Where the next process writes.
  std::string nextOut() { return file("out" + std::to_string(outs_++)); }

 private:
  char path_[32] = "/tmp/netdb_server_XXXXXX";
  int outs_ = 0;
};

/// Another process of the program, which writes to a file; killed at the end.
class Process {
 public:
  Process(Folder& folder, const std::vector<std::string>& arguments) : out_(folder.nextOut()) {
    pid_ = fork();
    if (pid_ != 0) return;
    const int file = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, 1);
    dup2(file, 2);
    alarm(120);
    std::vector<char*> words = {program.data()};
    std::vector<std::string> own = arguments;
    for (std::string& word : own) words.push_back(word.data());
    words.push_back(nullptr);
    execv(program.c_str(), words.data());
    _exit(127);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }

  std::string out() const { return contentOf(out_); }
  /// Whether it writes, in 20 seconds, exactly this.
  testing::AssertionResult writes(const std::string& expected) const {
    for (int tries = 0; tries < 2000; ++tries) {
      if (out() == expected) return testing::AssertionSuccess();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return testing::AssertionFailure() << "not\n" << expected << "but\n" << out();
  }
  /// Ends it and gives its exit status, or the number of the signal below 0.
  int end(int signal = 0) {
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  std::string out_;
  pid_t pid_;
};

struct ServerTest : testing::Test {
  Folder folder;

  std::string input() const { return folder.file("geoip"); }
  std::string rows(const std::string& count) const {
    return "serving " + count + " rows of geoip at " + folder.address() + "\n";
  }
  std::string waiting() const { return "waiting for the server at " + folder.address() + "\n"; }
  std::vector<std::string> serve() const {
    return {"serve", "--server", folder.address(), "--input", input()};
  }
  std::vector<std::string> watch() const { return {"watch", "--server", folder.address()}; }

  void write(const std::string& name, const std::string& content) const {
    std::ofstream(folder.file(name)) << content;
  }
  void contentIs(const std::string& content) const { write("geoip", content); }
  void replaceBy(const std::string& content) const {
    write("new", content);
    ASSERT_EQ(rename(folder.file("new").c_str(), input().c_str()), 0);
  }
  /// Runs a command to its end.
  std::string outOf(const std::vector<std::string>& arguments, int status = 0) {
    Folder own;
    Process process(own, arguments);
    EXPECT_EQ(process.end(), status) << process.out();
    return process.out();
  }
};

constexpr const char* three = "1,1,AU\n2,2,AU\n3,3,JP\n";
constexpr const char* threeOthers = "1,1,AU\n2,2,NZ\n4,4,JP\n";
constexpr const char* toTheOthers =
    "changed 0.0.0.2/32: country AU -> NZ\nremoved 0.0.0.3/32: country JP\n"
    "added 0.0.0.4/32: country JP\n";
constexpr const char* othersTold = "geoip changed: 1 added, 1 changed, 1 removed, 1 as before\n";

TEST_F(ServerTest, AnswersAsTheFilesDo) {
  const std::vector<std::string> files = {"--quiet", "--input", NETDB_SAMPLE "/geoip",
                                          NETDB_SAMPLE "/geoip6"};
  std::vector<std::string> serveSample = {"serve", "--server", folder.address()};
  serveSample.insert(serveSample.end(), files.begin(), files.end());
  const Process server(folder, serveSample);
  while (!server.out().starts_with("serving ")) std::this_thread::yield();
  const std::vector<std::string> commands[] = {
      {"lookup", "8.8.8.8", "2606:4700:4700::1111"},
      {"lookup", "--json", "1.1.1.1", "9.9.9.9"},
      {"country", "AU"},
      {"country", "us", "--limit", "3"},
      {"stats"},
      {"stats", "--limit", "2"},
  };
  for (const std::vector<std::string>& command : commands) {
    std::vector<std::string> fromServer = command;
    fromServer.insert(fromServer.end(), {"--server", folder.address()});
    std::vector<std::string> fromFiles = command;
    fromFiles.insert(fromFiles.end(), files.begin(), files.end());
    EXPECT_EQ(outOf(fromServer), outOf(fromFiles)) << command[0];
  }
  // Files that are named are not the server's.
  EXPECT_EQ(outOf({"country", "XX", "--input", "/dev/null"}, 1), "0 rows of XX\n");
  const std::string loaded = outOf({"load", "--server", folder.file("netdb")});
  EXPECT_EQ(loaded.substr(0, 5), "rows ");
}

TEST_F(ServerTest, TellsEverySubscriberWhatChanges) {
  contentIs(three);
  const Process server(folder, serve());
  ASSERT_TRUE(server.writes(rows("3")));
  const Process first(folder, watch());
  const Process second(folder, watch());
  const std::string begin = waiting() + "current: 3 rows\n";
  ASSERT_TRUE(first.writes(begin));
  ASSERT_TRUE(second.writes(begin));
  contentIs(threeOthers);  // where it is
  EXPECT_TRUE(first.writes(begin + toTheOthers));
  EXPECT_TRUE(second.writes(begin + toTheOthers));
  EXPECT_TRUE(server.writes(rows("3") + othersTold));

  replaceBy("1,1,AU\n2,2,NZ\n4,4,JP\n5,5,JP\n");  // by another file
  EXPECT_TRUE(first.writes(begin + toTheOthers + "added 0.0.0.5/32: country JP\n"));
  EXPECT_TRUE(server.writes(rows("3") + othersTold +
                            "geoip changed: 1 added, 0 changed, 0 removed, 3 as before\n"));
  EXPECT_NE(outOf({"lookup", "0.0.0.5", "--server", folder.address()}).find("country     JP"),
            std::string::npos);
}

TEST_F(ServerTest, KeepsItsRowsWhileAFileIsFaulty) {
  contentIs(three);
  const Process server(folder, serve());
  ASSERT_TRUE(server.writes(rows("3")));
  std::string told = rows("3");
  const auto refused = [&](const std::string& reason) {
    told += "netdb: " + input() + reason + "; the rows stay as they are\n";
    return server.writes(told);
  };
  contentIs("1,1,AU\n2,2,NZ\n3,");  // torn
  EXPECT_TRUE(refused(":3: not three fields"));
  contentIs("");
  EXPECT_TRUE(refused(": is empty"));
  ASSERT_EQ(unlink(input().c_str()), 0);
  EXPECT_TRUE(refused(": No such file or directory"));
  EXPECT_EQ(outOf({"country", "AU", "--server", folder.address()}),
            "0.0.0.1/32\n0.0.0.2/32\n2 rows of AU\n");
  contentIs(three);
  told += "geoip changed: 0 added, 0 changed, 0 removed, 3 as before\n";
  EXPECT_TRUE(server.writes(told));
}

TEST_F(ServerTest, WaitsForTheEndOfAFileThatIsWritten) {
  contentIs(three);
  const Process server(folder, serve());
  ASSERT_TRUE(server.writes(rows("3")));
  {
    std::ofstream slow(input());
    slow << "1,1,AU\n" << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    slow << "2,2,NZ\n" << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    slow << "4,4,JP\n";
    EXPECT_EQ(server.out(), rows("3"));
  }
  EXPECT_TRUE(server.writes(rows("3") + othersTold));
}

TEST_F(ServerTest, ServesNothingBeforeItsFilesAreWhole) {
  const Process server(folder, serve());
  std::string told = "netdb: " + input() + ": No such file or directory; nothing is served until " +
                     "it is mended\n";
  ASSERT_TRUE(server.writes(told));
  const Process watcher(folder, watch());
  ASSERT_TRUE(watcher.writes(waiting()));
  contentIs(three);
  EXPECT_TRUE(server.writes(told + rows("3")));
  EXPECT_TRUE(watcher.writes(waiting() + "current: 3 rows\n"));
}

TEST_F(ServerTest, ThatIsKilledAndComesBackTellsWhatChangedMeanwhile) {
  contentIs(three);
  std::string told = waiting() + "current: 3 rows\n";
  const Process watcher(folder, watch());
  {
    const Process server(folder, serve());
    ASSERT_TRUE(watcher.writes(told));
  }  // kill -9
  told += "stale: the other end closed the connection; 3 rows are kept\n";
  ASSERT_TRUE(watcher.writes(told));
  {
    const Process server(folder, serve());
    told += "current: 3 rows\n";  // and no row
    ASSERT_TRUE(watcher.writes(told));
  }
  told += "stale: the other end closed the connection; 3 rows are kept\n";
  ASSERT_TRUE(watcher.writes(told));
  contentIs(threeOthers);
  const Process server(folder, serve());
  told += toTheOthers;
  told += "current: 3 rows\n";
  EXPECT_TRUE(watcher.writes(told));
}

TEST_F(ServerTest, ThatComesBackWithoutItsFilesTakesNothingAway) {
  contentIs(three);
  std::string told = waiting() + "current: 3 rows\n";
  const Process watcher(folder, watch());
  {
    const Process server(folder, serve());
    ASSERT_TRUE(watcher.writes(told));
  }
  told += "stale: the other end closed the connection; 3 rows are kept\n";
  ASSERT_TRUE(watcher.writes(told));
  ASSERT_EQ(unlink(input().c_str()), 0);
  const Process server(folder, serve());
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_TRUE(watcher.writes(told));
  contentIs(three);
  EXPECT_TRUE(watcher.writes(told + "current: 3 rows\n"));
}

TEST_F(ServerTest, EndsCleanlyWhenASignalSaysSo) {
  contentIs(three);
  for (const int signal : {SIGINT, SIGTERM}) {
    Folder own;
    Process server(own, serve());
    ASSERT_TRUE(server.writes(rows("3")));
    Process watcher(own, watch());
    ASSERT_TRUE(watcher.writes(waiting() + "current: 3 rows\n"));
    EXPECT_EQ(watcher.end(signal), 0);
    EXPECT_EQ(server.end(signal), 0);
    EXPECT_EQ(server.out(), rows("3") + "stopped\n");
    EXPECT_NE(access(folder.file("netdb").c_str(), F_OK), 0);  // nothing is left behind
  }
}

TEST_F(ServerTest, IsTheOnlyOneAtItsAddress) {
  contentIs(three);
  const Process server(folder, serve());
  ASSERT_TRUE(server.writes(rows("3")));
  const std::string refused = outOf(serve(), 1);
  EXPECT_NE(refused.find("Address already in use"), std::string::npos) << refused;
  EXPECT_EQ(outOf({"country", "JP", "--server", folder.address()}), "0.0.0.3/32\n1 rows of JP\n");
}

TEST_F(ServerTest, IsNotNeeded) {
  contentIs(three);
  const std::string answer = "0.0.0.3/32\n1 rows of JP\n";
  EXPECT_EQ(outOf({"--quiet", "country", "JP", "--server", folder.address(), "--input", input()}),
            "netdb: no server at " + folder.address() + "; the files are read\n" + answer);
  EXPECT_EQ(outOf({"--quiet", "country", "JP", "--input", input()}), answer);
}

TEST_F(ServerTest, IsFoundInTheUsersFolder) {
  contentIs(three);
  ASSERT_EQ(setenv("XDG_RUNTIME_DIR", folder.file("").c_str(), 1), 0);
  const Process server(folder, {"serve", "--input", input()});
  while (!server.out().starts_with("serving 3 rows")) std::this_thread::yield();
  EXPECT_EQ(outOf({"country", "JP"}), "0.0.0.3/32\n1 rows of JP\n");
  unsetenv("XDG_RUNTIME_DIR");
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc != 2) {
    std::fputs("usage: server_test NETDB\n", stderr);
    return 2;
  }
  program = argv[1];
  return RUN_ALL_TESTS();
}
