#pragma once

// Real servers for tests: one or several on this machine, on ports that were free, each with a data
// folder of its own below one temporary folder. They end with the test, whatever happens to it.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace etcdtest {

/// Runs a program whose output goes to a file; it is killed with this process.
class Program {
 public:
  Program(std::vector<std::string> words, const std::string& log) {
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == -1) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(out, 1);
    dup2(out, 2);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() { kill(SIGKILL); }

  void signal(int number) const {
    if (pid_ > 0) ::kill(pid_, number);
  }
  /// Ends it, and waits for that.
  void kill(int number) {
    if (pid_ <= 0) return;
    ::kill(pid_, number);
    wait();
  }
  /// Its exit status.
  int wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid_ = -1;
};

/// A folder below the system's for temporary files, removed at the end.
class Folder {
 public:
  Folder() {
    std::string path = "/tmp/korvo_etcd_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::system_error(errno, std::generic_category());
    path_ = path;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    // Nothing but what was made here begins so.
    if (path_.rfind("/tmp/korvo_etcd_", 0) == 0) {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
    }
  }
  std::string file(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

/// Below those that the system gives to whoever asks for any: a server that is down for a while
/// finds its own again.
inline int freePort() {
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const int port = std::uniform_int_distribution(16000, 31999)(random);
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool isFree = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    if (isFree) return port;
  }
  throw std::runtime_error("no port is free");
}

class Cluster {
 public:
  /// `more`: further words for each server.
  explicit Cluster(int members, std::vector<std::string> more = {}, const std::string& tls = "")
      : more_(std::move(more)), scheme_(tls.empty() ? "http" : "https") {
    for (int i = 0; i < members; ++i) {
      Member member;
      member.name = "m" + std::to_string(i + 1);
      member.port = freePort();
      member.peerPort = freePort();
      all_ += (i == 0 ? "" : ",") + member.name +
              "=http://127.0.0.1:" + std::to_string(member.peerPort);
      members_.push_back(std::move(member));
    }
    for (int i = 0; i < members; ++i) start(i);
  }

  void start(int number) {
    Member& member = members_.at(static_cast<std::size_t>(number));
    const std::string client = scheme_ + "://127.0.0.1:" + std::to_string(member.port);
    const std::string peer = "http://127.0.0.1:" + std::to_string(member.peerPort);
    std::vector<std::string> words = {KORVO_ETCD_PROGRAM,
                                      "--name",
                                      member.name,
                                      "--data-dir",
                                      folder_.file(member.name),
                                      "--listen-client-urls",
                                      client,
                                      "--advertise-client-urls",
                                      client,
                                      "--listen-peer-urls",
                                      peer,
                                      "--initial-advertise-peer-urls",
                                      peer,
                                      "--initial-cluster",
                                      all_,
                                      "--snapshot-count",
                                      "2000",
                                      "--logger",
                                      "zap"};
    words.insert(words.end(), more_.begin(), more_.end());
    member.program = std::make_unique<Program>(words, folder_.file(member.name + ".log"));
  }
  void kill(int number) { program(number).kill(SIGKILL); }
  /// Removes the data of a member that does not run.
  void forget(int number) const {
    std::filesystem::remove_all(folder_.file(members_.at(static_cast<std::size_t>(number)).name));
  }
  /// Gives a member that does not run, of a cluster of one, the data of a saved copy.
  void restore(int number, const std::string& saved) const {
    forget(number);
    const Member& member = members_.at(static_cast<std::size_t>(number));
    tool("snapshot restore " + saved + " --name " + member.name + " --data-dir " +
         folder_.file(member.name) + " --initial-cluster " + all_ +
         " --initial-advertise-peer-urls http://127.0.0.1:" + std::to_string(member.peerPort));
  }
  void stop(int number) { program(number).signal(SIGSTOP); }
  void resume(int number) { program(number).signal(SIGCONT); }

  int size() const { return static_cast<int>(members_.size()); }
  std::string member(int number) const {
    return "127.0.0.1:" + std::to_string(members_.at(static_cast<std::size_t>(number)).port);
  }
  std::string members() const {
    std::string list;
    for (int i = 0; i < size(); ++i) list += (i == 0 ? "" : ",") + member(i);
    return list;
  }
  std::string address(const std::string& publisher = "agent") const {
    return "etcd://" + members() + "/test/" + publisher;
  }
  const Folder& folder() const { return folder_; }

  /// What etcd's own tool says; throws if it fails.
  std::string tool(const std::string& words, const std::string& endpoints = "") const {
    const std::string out = folder_.file("tool.out");
    const std::string command =
        "ETCDCTL_API=3 etcdctl --endpoints=" + (endpoints.empty() ? members() : endpoints) + ' ' +
        words + " >" + out + " 2>&1";
    const int status = std::system(command.c_str());
    std::ostringstream said;
    said << std::ifstream(out).rdbuf();
    if (status != 0) throw std::runtime_error(command + ": " + said.str());
    return said.str();
  }

  /// Waits until all members take part.
  void waitUntilReady() const {
    for (int attempt = 0;; ++attempt) {
      try {
        tool("endpoint health");
        return;
      } catch (const std::runtime_error&) {
        if (attempt == 100) throw;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
      }
    }
  }

  /// Forgets all that came before the present revision.
  void compact() const {
    const std::string fields = tool("get / -w fields");
    const std::string name = "\"Revision\" : ";
    const std::size_t at = fields.find(name);
    if (at == std::string::npos) throw std::runtime_error(fields);
    tool("compact --physical " + std::to_string(std::stol(fields.substr(at + name.size()))));
  }

  /// The member that leads; -1 if nobody does.
  int leader() const {
    for (int i = 0; i < size(); ++i) {
      try {
        // endpoint, id, version, size, is leader ...
        if (tool("endpoint status", member(i)).find(", true,") != std::string::npos) return i;
      } catch (const std::runtime_error&) {
        // It is not there.
      }
    }
    return -1;
  }

 private:
  struct Member {
    std::string name;
    int port = 0;
    int peerPort = 0;
    std::unique_ptr<Program> program;
  };
  Program& program(int number) { return *members_.at(static_cast<std::size_t>(number)).program; }

  Folder folder_;
  std::vector<std::string> more_;
  std::string scheme_;
  std::string all_;
  std::vector<Member> members_;
};

/// Sets a variable of the environment as long as it lives.
class Variable {
 public:
  Variable(std::string name, const std::string& value) : name_(std::move(name)) {
    setenv(name_.c_str(), value.c_str(), 1);
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;
  ~Variable() { unsetenv(name_.c_str()); }

 private:
  std::string name_;
};

}  // namespace etcdtest
