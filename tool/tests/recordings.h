#pragma once

// Recordings, written byte by byte as their format is described; and processes in the background.

#include "support.h"

#include <Korvo/AnyRow.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace korvotest {

inline constexpr const char* portLayout =
    "row 7 base 28 {\n  speed uint64_t @8\n  name string_t @16\n  tags string_t[] @20\n"
    "  net IpGenPrefix @24\n}\n";
inline constexpr const char* linkLayout = "row 2 base 13 {\n  up bool @8\n  peer IpGenAddr @9\n}\n";

class Recording {
 public:
  template <typename Number>
  static std::string bytesOf(Number number) {
    std::string bytes(sizeof number, '\0');
    Korvo::storeField(bytes.data(), number);
    return bytes;
  }
  static std::string text(const std::string& text) { return static_cast<char>(text.size()) + text; }

  Recording& record(int type, int table, const std::string& body) {
    bytes += bytesOf(static_cast<std::uint32_t>(4 + body.size())) + static_cast<char>(type) + '\0' +
             bytesOf(static_cast<std::uint16_t>(table)) + body;
    ++records_;
    return *this;
  }
  Recording& publisher(const std::string& name) { return record(1, 0, text(name)); }
  Recording& table(int number, const std::string& name, const std::string& layout) {
    layouts_.resize(std::max(layouts_.size(), static_cast<std::size_t>(number) + 1));
    layouts_[static_cast<std::size_t>(number)] = layout;
    return record(2, number,
                  text(name) + bytesOf(static_cast<std::uint32_t>(layout.size())) + layout);
  }
  Recording& whole(int table) { return record(3, table, ""); }
  Recording& row(int table, Korvo::oid_t oid, const std::string& json) {
    Korvo::AnyRow row{Korvo::DynamicLayout(layouts_.at(static_cast<std::size_t>(table)))};
    row.create(oid);
    row.fromJson(json);
    return record(4, table,
                  {reinterpret_cast<const char*>(row.rowBuf()), std::size_t{row.rowLength()}});
  }
  Recording& removed(int table, Korvo::oid_t oid) { return record(5, table, bytesOf(oid)); }
  Recording& mark(std::uint64_t milliseconds) {
    const std::uint64_t told = records_;
    record(6, 0, bytesOf(std::uint64_t{1700000000000000} + 1000 * milliseconds) + bytesOf(told));
    records_ = 0;
    return *this;
  }

  std::string bytes = "KORVOREC" + bytesOf(std::uint32_t{1}) + bytesOf(std::uint32_t{0});

 private:
  std::uint64_t records_ = 0;
  std::vector<std::string> layouts_;
};

/// Three batches of ports and a link.
inline Recording portRecording() {
  Recording recording;
  recording.publisher("portAgent")
      .table(0, "net/port", portLayout)
      .table(1, "net/link", linkLayout)
      .whole(0)
      .whole(1)
      .row(0, 1001, R"({"speed":1000,"name":"eth0","tags":["core"],"net":"10.1.0.0/16"})")
      .row(0, 1002, R"({"speed":1000,"name":"eth 1","net":"10.1.2.0/24"})")
      .mark(0)
      .row(0, 1001, R"({"speed":25000,"name":"eth0","tags":["core"],"net":"10.1.0.0/16"})")
      .mark(250)
      .removed(0, 1002)
      .row(1, 5, R"({"up":true,"peer":"10.1.0.9"})")
      .mark(500);
  return recording;
}

template <typename Condition>
bool waitFor(const Condition& condition) {
  constexpr int tries = 2000;  // 20 seconds
  for (int i = 0; i < tries; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

/// The program in the background, with its output in files.
class Background {
 public:
  explicit Background(const std::vector<std::string>& arguments, const std::string& name = "bg")
      : out_(name + ".out"), err_(name + ".err") {
    const std::string program = variable("KORVO");
    write(out_, "");
    write(err_, "");
    child_ = fork();
    if (child_ != 0) return;
    const int flags = O_WRONLY | O_APPEND;
    dup2(open(out_.c_str(), flags), STDOUT_FILENO);
    dup2(open(err_.c_str(), flags), STDERR_FILENO);
    std::vector<std::string> words = {program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;
  ~Background() {
    if (child_ > 0) end(SIGKILL);
  }

  /// What it has written until now.
  std::string out() const { return contentOf(out_); }
  std::string err() const { return contentOf(err_); }
  /// Sends it a signal, and waits for its end: its exit status, or less than 0.
  int end(int signal) {
    if (signal != 0) kill(child_, signal);
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  /// Waits for it to end by itself.
  int wait() { return end(0); }

 private:
  std::string out_;
  std::string err_;
  pid_t child_ = -1;
};

/// Publishes a recording at unix:agent.sock.
class Agent {
 public:
  explicit Agent(const Recording& recording, std::vector<std::string> options = {}) {
    write("agent.rec", recording.bytes);
    unlink("agent.sock");
    options.insert(options.begin(), {"replay", "agent.rec", "unix:agent.sock"});
    process = std::make_unique<Background>(options, "agent");
    EXPECT_TRUE(waitFor([] { return isThere(); })) << process->err();
  }
  /// Whether somebody listens, without being a connection that others are told of.
  static bool isThere() {
    std::istringstream sockets(contentOf("/proc/net/unix"));
    for (std::string line; std::getline(sockets, line);) {
      // A listening one, by its flag.
      const bool isOurs = line.ends_with(" agent.sock");
      if (isOurs && line.find(" 00010000 ") != std::string::npos) {
        return access("agent.sock", F_OK) == 0;
      }
    }
    return false;
  }
  /// Until all was replayed.
  void waitForEnd() const {
    EXPECT_TRUE(waitFor([this] { return process->err().find("replayed ") != std::string::npos; }));
  }

  std::unique_ptr<Background> process;
};

}  // namespace korvotest
