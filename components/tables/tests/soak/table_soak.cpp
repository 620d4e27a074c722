// A publisher and subscribers as processes of their own, under load, while they are killed, stopped
// and continued at random times.
//
//   table_soak drive SECONDS SEED PROGRAM...   the whole; the PROGRAMs are this one, of any word
//   size table_soak publish ADDRESS LAYOUT GENERATION table_soak subscribe ADDRESS LAYOUT
//   table_soak stranger ADDRESS                as another user, who must be refused
//
// Each batch changes ports and, in a table of its own, tells the number and the sum of all ports. A
// subscriber stops with a text when it sees what no batch left behind: half of one, an older one
// than before, or changes that do not lead to the rows that the table has.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Korvo::oid_t;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Two versions of one layout: a column more, and other places.
using OldPort = Korvo::TableRow<
    Korvo::RowLayout<7, Korvo::Column<"value", std::uint32_t>, Korvo::Column<"name", std::string>>>;
using NewPort = Korvo::TableRow<
    Korvo::RowLayout<7, Korvo::Column<"name", std::string>, Korvo::Column<"vlan", std::uint16_t>,
                     Korvo::Column<"value", std::uint32_t>>>;
/// What the publisher's last batch left; one row.
using Head = Korvo::TableRow<
    Korvo::RowLayout<8, Korvo::Column<"generation", std::uint32_t>,
                     Korvo::Column<"batch", std::uint64_t>, Korvo::Column<"ports", std::uint64_t>,
                     Korvo::Column<"sum", std::uint64_t>, Korvo::Column<"last", bool>>>;

constexpr oid_t mostPorts = 4000;
constexpr milliseconds heartbeat{200};
constexpr uid_t nobody = 65534;

std::atomic<bool> isEnding = false;

struct Random {
  explicit Random(unsigned int seed) : engine(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(engine()); }
  std::mt19937 engine;
};

/// Of one port; their sum does not depend on their order.
template <typename Port>
std::uint64_t weightOf(const Port& port) {
  std::uint64_t hash = 0xcbf29ce484222325;
  const auto mix = [&hash](std::uint64_t value) { hash = (hash ^ value) * 0x100000001b3; };
  mix(port.rowOid());
  mix(port.template get<"value">());
  for (const char each : port.template get<"name">()) mix(static_cast<unsigned char>(each));
  return hash;
}

class Timer : Velto::Platform::TimeoutHandler {
 public:
  Timer(Korvo::EventLoop& loop, milliseconds period, std::function<void()> told)
      : told_(std::move(told)), period_(period), control_(loop.getTimerControl(this)) {
    control_->timeoutIs(period_);
  }

 private:
  void onTimeout() override {
    control_->timeoutIs(period_);
    told_();
  }
  std::function<void()> told_;
  milliseconds period_;
  std::unique_ptr<Velto::Platform::TimerControl> control_;
};

template <typename Port>
class Publisher {
 public:
  Publisher(const std::string& address, std::uint32_t generation)
      : generation_(generation), random_(generation), publisher_("soak", loop_, options()) {
    publisher_.completeIs(false);
    publisher_.add(ports_);
    publisher_.add(heads_);
    publisher_.listen(address);
  }

  void run() {
    loop_->stopOnSignals({SIGTERM});
    std::signal(SIGUSR1, [](int) { isEnding = true; });
    const Timer timer(*loop_, milliseconds(2), [this] { turn(); });
    loop_->run();
  }

 private:
  static Korvo::PublisherOptions options() {
    Korvo::PublisherOptions options;
    options.heartbeat = heartbeat;
    options.socketMode = 0666;
    return options;
  }

  void turn() {
    if (!publisher_.complete()) return load();
    if (isLast_) return;
    isLast_ = isEnding;
    // Now and then more than a socket takes at once.
    const std::uint32_t most = random_() % 50 == 0 ? 1500 : 20;
    for (std::uint32_t i = 0, count = 1 + random_() % most; i < count; ++i) changeOne();
    putHead();
    batch_.commit();
  }

  /// Many rows are as the publisher before had them. Nobody may see this half done: the head is not
  /// that of these ports.
  void load() {
    for (oid_t i = 0; i < mostPorts / 8; ++i) put(++loaded_, 1);
    if (loaded_ == mostPorts) putHead();
    batch_.commit();
    if (loaded_ == mostPorts) publisher_.completeIs(true);
  }

  void changeOne() {
    const oid_t oid = 1 + random_() % mostPorts;
    if (random_() % 4 == 0) {
      forget(oid);
      batch_.remove(ports_, oid);
    } else {
      put(oid, random_());
    }
  }
  void put(oid_t oid, std::uint32_t value) {
    Port port;
    port.create(oid);
    port.template set<"value">(value);
    port.template set<"name">("port" + std::to_string(oid) + std::string(value % 200, 'x'));
    forget(oid);
    sum_ += weights_[oid] = weightOf(port);
    batch_.put(ports_, port);
  }
  void forget(oid_t oid) {
    const auto found = weights_.find(oid);
    if (found == weights_.end()) return;
    sum_ -= found->second;
    weights_.erase(found);
  }
  void putHead() {
    Head head;
    head.create(1);
    head.set<"generation">(generation_);
    head.set<"batch">(++number_);
    head.set<"ports">(weights_.size());
    head.set<"sum">(sum_);
    head.set<"last">(isLast_);
    batch_.put(heads_, head);
  }

  std::uint32_t generation_;
  Random random_;
  oid_t loaded_ = 0;
  std::uint64_t number_ = 0;
  std::map<oid_t, std::uint64_t> weights_;
  std::uint64_t sum_ = 0;
  bool isLast_ = false;
  std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("publisher");
  Korvo::Table<Port> ports_{"net/port"};
  Korvo::Table<Head> heads_{"net/head"};
  Korvo::Batch<Korvo::Table<Port>, Korvo::Table<Head>> batch_{ports_, heads_};
  Korvo::TablePublisher publisher_;
};

Korvo::SubscriberOptions subscriberOptions() {
  Korvo::SubscriberOptions options;
  options.heartbeat = heartbeat;
  return options;
}

void require(bool isSo, const std::string& text) {
  if (!isSo) throw std::runtime_error(text);
}

template <typename Port>
class Subscriber {
 public:
  explicit Subscriber(const std::string& address)
      : subscriber_(address, loop_, subscriberOptions()) {
    subscriber_.add(ports_);
    subscriber_.add(heads_);
    subscriber_.onProblem([](const Korvo::TableSubscriber::Problem& problem) {
      throw std::runtime_error("problem: " + problem.table + ": " + problem.text);
    });
  }

  void run() {
    const Korvo::TableReader<Port> ports(
        ports_, loop_, [this](const Korvo::Changes<Port>& changes) { follow(changes); });
    const Korvo::TableReader<Head> heads(heads_, loop_,
                                         [this](const Korvo::Changes<Head>&) { check(); });
    // The end is looked for when both readers had their turn.
    const Timer timer(*loop_, milliseconds(20), [this] {
      const Head head = heads_.find(1);
      if (heads_.state() != Korvo::TableState::current || head.isNull()) return;
      if (head.template get<"last">() && told_.size() == ports_.size()) loop_->activeIs(false);
    });
    loop_->run();
    const Korvo::TableSubscriber::Status status = subscriber_.status();
    require(status.digestFaults == 0, "a digest was another one");
    require(status.refusedRows == 0, "a row was refused");
    std::cout << checks_ << " states seen, " << status.marks << " marks, " << status.merged
              << " batches merged, " << status.connections << " connections\n";
  }

 private:
  void follow(const Korvo::Changes<Port>& changes) {
    if (changes.first()) told_.clear();
    for (const Korvo::Change<Port>& change : changes) {
      const auto found = told_.find(change.oid());
      require((change.kind() == Korvo::ChangeKind::added) == (found == told_.end()),
              "a change that does not fit what was told");
      if (change.kind() == Korvo::ChangeKind::removed) {
        told_.erase(found);
      } else {
        told_[change.oid()] = weightOf(change.after());
      }
    }
    std::uint64_t sum = 0;
    for (const auto& [oid, weight] : told_) sum += weight;
    require(told_.size() == ports_.size() && sum == sumOfPorts(), "changes lead to other rows");
    check();
  }

  /// The tables are as a batch left them.
  void check() {
    ++checks_;
    const Head head = heads_.find(1);
    if (head.isNull()) return require(ports_.empty(), "ports without a head");
    const std::pair now(head.template get<"generation">(), head.template get<"batch">());
    require(now >= last_, "an older state than before");
    last_ = now;
    require(head.template get<"ports">() == ports_.size(), "another number of ports");
    require(head.template get<"sum">() == sumOfPorts(), "half of a batch");
  }
  std::uint64_t sumOfPorts() const {
    std::uint64_t sum = 0;
    for (const Port& port : ports_) sum += weightOf(port);
    return sum;
  }

  std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("subscriber");
  Korvo::Table<Port> ports_{"net/port"};
  Korvo::Table<Head> heads_{"net/head"};
  Korvo::TableSubscriber subscriber_;
  std::map<oid_t, std::uint64_t> told_;  ///< weights of what the reader was told
  std::pair<std::uint32_t, std::uint64_t> last_;
  std::uint64_t checks_ = 0;
};

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
  } else if (role == "publish" && arguments.size() == 5) {
    const auto generation = static_cast<std::uint32_t>(std::atoi(arguments[4]));
    if (std::string_view(arguments[3]) == "old") {
      Publisher<OldPort>(arguments[2], generation).run();
    } else {
      Publisher<NewPort>(arguments[2], generation).run();
    }
  } else if (role == "subscribe" && arguments.size() == 4) {
    if (std::string_view(arguments[3]) == "old") {
      Subscriber<OldPort>(arguments[2]).run();
    } else {
      Subscriber<NewPort>(arguments[2]).run();
    }
  } else if (role == "stranger" && arguments.size() == 3) {
    beStranger(arguments[2]);
  } else {
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
