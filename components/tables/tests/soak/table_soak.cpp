// A publisher and subscribers as processes of their own, under load, while they are killed, stopped
// and continued at random times.
//
//   table_soak drive SECONDS SEED PROGRAM...      the whole; the programs are this one, of any
//                                                 word size
//   table_soak publish ADDRESS LAYOUT GENERATION
//   table_soak subscribe ADDRESS LAYOUT
//   table_soak stranger ADDRESS                   as another user, who must be refused

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <span>
#include <string_view>
#include <vector>

#include "soak_roles.h"

namespace {

using namespace soak;
using std::chrono::steady_clock;

constexpr milliseconds heartbeat{200};
constexpr uid_t nobody = 65534;

Korvo::PublisherOptions publisherOptions() {
  Korvo::PublisherOptions options;
  options.heartbeat = heartbeat;
  options.socketMode = 0666;
  return options;
}

Korvo::SubscriberOptions subscriberOptions() {
  Korvo::SubscriberOptions options;
  options.heartbeat = heartbeat;
  return options;
}

/// Ends well once it was refused, with nothing taken.
void beStranger(const std::string& address) {
  require(setgid(nobody) == 0 && setuid(nobody) == 0, "only root can become another user");
  const auto loop = std::make_shared<Korvo::EventLoop>("stranger");
  Korvo::Table<NewPort> ports("net/port");
  Korvo::TableSubscriber subscriber(address, loop, subscriberOptions());
  subscriber.add(ports);
  while (subscriber.status().lastReason.find("may not subscribe") == std::string::npos) {
    loop->run(0, 0.1, false);
  }
  require(ports.empty() && ports.state() == Korvo::TableState::loading, "a stranger has rows");
}

// --- The driver

class Driver {
 public:
  Driver(unsigned int seed, std::vector<std::string> programs)
      : random_(seed), programs_(std::move(programs)) {
    std::string folder = "/tmp/table-soak-XXXXXX";
    require(mkdtemp(folder.data()) != nullptr, "no temporary folder");
    folder_ = folder;
    require(chmod(folder.c_str(), 0755) == 0, "chmod");
  }
  ~Driver() {
    for (const pid_t pid : processes_) {
      if (pid == 0) continue;
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove(folder_ / "socket", ignored);
    std::filesystem::remove(folder_, ignored);
  }

  void run(std::chrono::seconds time) {
    // Inherited by all: the first may reach a publisher that is not listening yet, the second comes
    // where the shell that started this ends while a process is stopped.
    std::signal(SIGUSR1, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    startPublisher();
    for (std::size_t i = 1; i <= subscribers; ++i) startSubscriber(i);
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end) {
      pause(random_() % 300);
      lookForFailures();
      disturb();
    }
    settle();
    std::cout << counts_["killed publishers"] << " publishers killed, "
              << counts_["killed subscribers"] << " subscribers killed, " << counts_["stopped"]
              << " stopped and continued, " << counts_["strangers"] << " strangers refused\n";
  }

 private:
  static constexpr std::size_t subscribers = 6;

  static void pause(unsigned int most) { usleep(most * 1000); }

  pid_t start(std::vector<std::string> arguments) {
    // Any program for any part: so word sizes meet.
    arguments.insert(arguments.begin(), programs_[random_() % programs_.size()]);
    std::vector<char*> words;
    for (std::string& each : arguments) words.push_back(each.data());
    words.push_back(nullptr);
    const pid_t pid = fork();
    require(pid != -1, "fork");
    if (pid == 0) {
      execv(words[0], words.data());
      _exit(3);
    }
    return pid;
  }
  std::string address() const { return "unix:" + (folder_ / "socket").string(); }
  std::string layout() { return random_() % 2 == 0 ? "old" : "new"; }
  void startPublisher() {
    processes_[0] = start({"publish", address(), layout(), std::to_string(++generation_)});
  }
  void startSubscriber(std::size_t which) {
    processes_[which] = start({"subscribe", address(), layout()});
  }

  void end(std::size_t which, int signal) {
    kill(processes_[which], signal);
    waitpid(std::exchange(processes_[which], 0), nullptr, 0);
  }

  /// Nobody ends by himself while the load lasts.
  void lookForFailures() {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    require(pid <= 0,
            "process " + std::to_string(pid) + " ended with status " + std::to_string(status));
  }

  void disturb() {
    const std::size_t victim = 1 + random_() % subscribers;
    switch (random_() % 8) {
      case 0:
      case 1:
        end(0, SIGKILL);
        pause(random_() % 100);
        startPublisher();
        ++counts_["killed publishers"];
        break;
      case 2:
      case 3:
        end(victim, SIGKILL);
        startSubscriber(victim);
        ++counts_["killed subscribers"];
        break;
      case 4:
        if (geteuid() == 0) sendStranger();
        break;
      case 5:
        stop(0, random_() % 1500);
        break;
      default:
        stop(victim, random_() % 1500);
    }
  }
  void stop(std::size_t which, unsigned int time) {
    kill(processes_[which], SIGSTOP);
    pause(time);
    kill(processes_[which], SIGCONT);
    ++counts_["stopped"];
  }
  void sendStranger() {
    const pid_t pid = start({"stranger", address()});
    int status = 0;
    require(waitpid(pid, &status, 0) == pid && status == 0, "a stranger was not refused");
    ++counts_["strangers"];
  }

  /// The publisher makes a last batch; everybody gets there and ends by himself.
  void settle() {
    const auto limit = steady_clock::now() + std::chrono::seconds(60);
    std::size_t left = subscribers;
    while (left > 0) {
      kill(processes_[0], SIGUSR1);  // until one is listened to
      int status = 0;
      const pid_t pid = waitpid(-1, &status, WNOHANG);
      if (pid > 0) {
        for (std::size_t i = 1; i <= subscribers; ++i) {
          if (processes_[i] == pid) processes_[i] = 0;
        }
        require(status == 0, "a process ended with status " + std::to_string(status));
        --left;
      }
      require(steady_clock::now() < limit, std::to_string(left) + " subscribers did not converge");
      pause(pid > 0 ? 0 : 20);
    }
    end(0, SIGTERM);
  }

  Random random_;
  std::vector<std::string> programs_;
  std::filesystem::path folder_;
  std::array<pid_t, 1 + subscribers> processes_{};  ///< the publisher first
  std::uint32_t generation_ = 0;
  std::map<std::string_view, int> counts_;
};

int run(std::span<char*> arguments) {
  const std::string_view role = arguments.size() > 1 ? arguments[1] : "";
  if (role == "drive" && arguments.size() > 4) {
    Driver driver(static_cast<unsigned int>(std::atoi(arguments[3])),
                  {arguments.begin() + 4, arguments.end()});
    driver.run(std::chrono::seconds(std::atoi(arguments[2])));
  } else if (role == "stranger" && arguments.size() == 3) {
    beStranger(arguments[2]);
  } else if (!play(arguments, publisherOptions(), subscriberOptions())) {
    std::cerr << "table_soak drive SECONDS SEED PROGRAM...\n";
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run({argv, static_cast<std::size_t>(argc)});
  } catch (const std::exception& error) {
    std::cerr << "table_soak " << (argc > 1 ? argv[1] : "") << ": " << error.what() << '\n';
    return 1;
  }
}
