// What published tables cost over sockets, between processes.
//
//   table_links latency [CHANGES]          one change at a time, beside write() and read(), and
//                                          what Redis publishes
//   table_links fanout [SUBSCRIBERS]       a tenth of which reads nothing, beside none that does so
//   table_links churn [SECONDS]            10,000 changes a second to 100 subscribers
//
// Prints what was measured, and what it is compared with in the same run; exits with 1 if a limit
// was passed, unless "unchecked" follows the number, for machines that are busy with other things.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "redis_peer.h"

namespace {

using Korvo::oid_t;
using std::chrono::milliseconds;

struct SampleLayout : Korvo::RowLayout<5, Korvo::Column<"time", std::uint64_t>,
                                       Korvo::Column<"name", std::string>> {};
using Sample = Korvo::TableRow<SampleLayout>;
using Samples = Korvo::Table<Sample>;

constexpr oid_t rowsOfTable = 100;
constexpr double microsecond = 1e-3;  // of a nanosecond's

std::uint64_t now() {
  return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

double median(std::vector<std::uint64_t> times) {
  if (times.empty()) return 0;
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return static_cast<double>(*middle) * microsecond;
}

/// Kibibytes of this process in memory.
long residentKiB() {
  long pages = 0;
  long resident = 0;
  if (FILE* const file = std::fopen("/proc/self/statm", "re")) {
    if (std::fscanf(file, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(file);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/// What the processes of a run have in common.
struct Shared {
  static constexpr std::size_t mostTimes = 1 << 22;
  std::atomic<std::uint64_t> current;  ///< subscribers that have the first rows
  std::atomic<std::uint64_t> told;     ///< changes that readers were told
  std::uint64_t times[mostTimes];      ///< that the last changes took, in a ring

  void add(std::uint64_t time) {
    times[told % mostTimes] = time;
    ++told;
  }
  std::vector<std::uint64_t> timesSince(std::uint64_t first) const {
    std::vector<std::uint64_t> all;
    const std::uint64_t end = told;
    for (std::uint64_t i = std::max(first, end - std::min<std::uint64_t>(end, mostTimes)); i < end;
         ++i) {
      all.push_back(times[i % mostTimes]);
    }
    return all;
  }
};

Shared* newShared() {
  void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
  return new (memory) Shared{};
}

class Process {
 public:
  explicit Process(const std::function<void()>& work) : pid_(fork()) {
    if (pid_ == -1) throw std::runtime_error("no more processes");
    if (pid_ != 0) return;
    work();
    _exit(0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  void stop() const { kill(pid_, SIGSTOP); }

 private:
  pid_t pid_;
};

Sample sample(oid_t oid, std::uint64_t time) {
  Sample row;
  row.create(oid);
  row.set<"time">(time);
  row.set<"name">("a name of some length");
  return row;
}

/// A process's publisher, with a table of a few rows.
struct Agent {
  Agent() : publisher("agent", loop, {.heartbeat = milliseconds(60000)}) {
    if (mkdtemp(folder) == nullptr) throw std::runtime_error("no folder");
    address = "unix:" + std::string(folder) + "/agent";
    Korvo::Batch batch(samples);
    for (oid_t oid = 1; oid <= rowsOfTable; ++oid) batch.put(sample(oid, 0));
    batch.commit();
    publisher.add(samples);
    publisher.listen(address);
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;
  ~Agent() { rmdir(folder); }

  void change(oid_t oid) {
    Korvo::Batch batch(samples);
    batch.put(sample(oid, now()));
    batch.commit();
  }
  /// Runs the loop until it is so, in steps of `step` seconds.
  void runUntil(double step, const std::function<bool()>& isSo) const {
    const std::uint64_t end = now() + 60'000'000'000;
    while (!isSo()) {
      if (now() > end) throw std::runtime_error("nothing happens");
      loop->run(0, step, false);
    }
  }

  char folder[32] = "/tmp/korvo_links_XXXXXX";
  std::string address;
  std::shared_ptr<Korvo::EventLoop> loop = std::make_shared<Korvo::EventLoop>("agent");
  Samples samples{"net/sample"};
  Korvo::TablePublisher publisher;
};

/// Some subscribers of one process, for ever.
void subscribe(const std::string& address, std::size_t count, Shared& shared) {
  struct Copy {
    Copy(const std::string& address, const std::shared_ptr<Korvo::EventLoop>& loop, Shared& shared)
        : subscriber(address, loop, {.name = "copy", .heartbeat = milliseconds(60000)}),
          reader(samples, loop, [&shared](const Korvo::Changes<Sample>& changes) {
            const std::uint64_t time = now();
            if (changes.first()) {
              ++shared.current;
              return;
            }
            for (const auto& change : changes) {
              shared.add(time - change.after().get<"time">());
            }
          }) {
      subscriber.add(samples);
    }
    Samples samples{"net/sample"};
    Korvo::TableSubscriber subscriber;
    Korvo::TableReader<Sample> reader;
  };
  const auto loop = std::make_shared<Korvo::EventLoop>("copies");
  std::vector<std::unique_ptr<Copy>> copies;
  for (std::size_t i = 0; i < count; ++i) {
    copies.push_back(std::make_unique<Copy>(address, loop, shared));
  }
  for (;;) loop->run(0, 1.0, false);
}

// ---------------------------------------------------------------------------------------------

/// As long as a change's frames; it begins with the time.
using Message = std::array<char, 130>;

Message messageOf(std::uint64_t time) {
  Message message{};
  std::copy_n(reinterpret_cast<const char*>(&time), sizeof time, message.data());
  return message;
}

void addTimeSince(const char* message, Shared& shared) {
  const std::uint64_t time = now();
  std::uint64_t sent = 0;
  std::copy_n(message, sizeof sent, reinterpret_cast<char*>(&sent));
  shared.add(time - sent);
}

/// The median time of messages, each of which is sent when the one before it has come.
double medianOf(std::size_t count, const Shared& shared,
                const std::function<void(const Message&)>& send) {
  for (std::size_t i = 1; i <= count; ++i) {
    usleep(1000);
    send(messageOf(now()));
    while (shared.told < i) usleep(100);
  }
  return median(shared.timesSince(0));
}

/// From write() to what read() gives.
double bareMedian(std::size_t count) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::runtime_error("no sockets");
  }
  Shared& shared = *newShared();
  const Process reader([&] {
    Message message;
    while (read(ends[1], message.data(), message.size()) > 0) addTimeSince(message.data(), shared);
  });
  const double found = medianOf(count, shared, [&](const Message& message) {
    if (write(ends[0], message.data(), message.size()) < 0) throw std::runtime_error("no reader");
  });
  close(ends[0]);
  close(ends[1]);
  return found;
}

/// From PUBLISH to what a subscriber of the channel is given.
double redisMedian(std::size_t count) {
  const peers::RedisServer server;
  Shared& shared = *newShared();
  const Process reader([&] {
    peers::Redis redis(server.socket());
    redis.append({"SUBSCRIBE", "changes"});
    redis.reply();
    for (++shared.current;;) addTimeSince(redis.reply()->element[2]->str, shared);
  });
  peers::Redis redis(server.socket());
  while (shared.current == 0) usleep(1000);
  return medianOf(count, shared, [&](const Message& message) {
    redis.append({"PUBLISH", "changes", {message.data(), message.size()}});
    redis.reply();
  });
}

int latency(std::size_t count) {
  const double bare = bareMedian(count);
  const double redis = redisMedian(count);
  Shared& shared = *newShared();
  Agent agent;
  const Process reader([&] { subscribe(agent.address, 1, shared); });
  agent.runUntil(0.001, [&] { return shared.current == 1; });
  for (std::size_t i = 1; i <= count; ++i) {
    agent.change(static_cast<oid_t>(i % rowsOfTable + 1));
    agent.runUntil(0.001, [&] { return shared.told >= i; });
  }
  const double ours = median(shared.timesSince(0));
  std::cout << "one change seen by a reader in another process, median of " << count << ": " << ours
            << " us\nwrite() to read() of as many bytes, median: " << bare
            << " us\nratio: " << ours / bare << "\nPUBLISH of Redis to its subscriber: " << redis
            << " us\nratio: " << ours / redis << "\nlimit: 50 us\n";
  return ours <= 50 ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------

struct Fanout {
  double median;
  long residentKiB;
  std::size_t unsent;
};

/// What a change takes to `count` subscribers, beside whom `mute` others read nothing.
Fanout fanout(std::size_t count, std::size_t mute) {
  constexpr std::size_t changes = 100;
  Shared& shared = *newShared();
  Shared& others = *newShared();
  Agent agent;
  const Process reading([&] { subscribe(agent.address, count, shared); });
  const Process stopped([&] { subscribe(agent.address, mute, others); });
  agent.runUntil(0.01, [&] { return shared.current == count && others.current == mute; });
  stopped.stop();
  // The stopped ones' sockets are filled first.
  const auto full = [&] {
    std::size_t fullOnes = 0;
    for (const auto& subscriber : agent.publisher.subscribers()) {
      fullOnes += subscriber.unsent > 60 * 1024;
    }
    return fullOnes;
  };
  for (std::size_t round = 0; round < 100 || (full() < mute && round < 1000); ++round) {
    Korvo::Batch batch(agent.samples);
    for (oid_t oid = 1; oid <= rowsOfTable; ++oid) batch.put(sample(oid, now()));
    batch.commit();
    agent.loop->run(0, 0.01, false);
  }
  if (full() < mute) throw std::runtime_error("the sockets do not become full");
  const auto isQuiet = [&] {
    std::size_t behind = 0;
    for (const auto& subscriber : agent.publisher.subscribers()) behind += subscriber.lag != 0;
    return behind <= mute;
  };
  agent.runUntil(0.01, isQuiet);
  const std::uint64_t before = shared.told;
  for (std::size_t i = 1; i <= changes; ++i) {
    agent.change(static_cast<oid_t>(i % rowsOfTable + 1));
    agent.runUntil(0.001, [&] { return shared.told >= before + i * count; });
  }
  std::size_t unsent = 0;
  for (const auto& subscriber : agent.publisher.subscribers()) {
    unsent = std::max(unsent, subscriber.unsent);
  }
  return {median(shared.timesSince(before)), residentKiB(), unsent};
}

int fanout(std::size_t subscribers) {
  const std::size_t mute = subscribers / 10;
  // Each in a process of its own, so that the memory of one is not that of both.
  Fanout& quiet = *static_cast<Fanout*>(
      mmap(nullptr, 2 * sizeof(Fanout), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  Fanout& withMute = *(&quiet + 1);
  const auto inProcess = [](const std::function<void()>& work) {
    const pid_t pid = fork();
    if (pid == 0) {
      work();
      _exit(0);
    }
    int status = 1;
    waitpid(pid, &status, 0);
    if (status != 0) throw std::runtime_error("a run failed");
  };
  inProcess([&] { quiet = fanout(subscribers - mute, 0); });
  inProcess([&] { withMute = fanout(subscribers - mute, mute); });
  const double ratio = withMute.median / quiet.median;
  const double each = mute == 0 ? 0
                                : static_cast<double>(withMute.residentKiB - quiet.residentKiB) /
                                      static_cast<double>(mute);
  std::cout << "a change to " << subscribers - mute << " subscribers, median: " << quiet.median
            << " us\nthe same beside " << mute << " that read nothing: " << withMute.median
            << " us\nratio: " << ratio << "\nlimit: 2\nmemory for each that reads nothing: " << each
            << " KiB, at most " << withMute.unsent / 1024 << " KiB unsent\nlimit: 256 KiB\n";
  return ratio <= 2 && each <= 256 && withMute.unsent <= 256 * 1024 ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------

int churn(std::size_t seconds) {
  constexpr std::size_t subscribers = 100;
  constexpr std::size_t rate = 10'000;
  Shared& shared = *newShared();
  Agent agent;
  const Process reading([&] { subscribe(agent.address, subscribers, shared); });
  agent.runUntil(0.01, [&] { return shared.current == subscribers; });
  const std::uint64_t begin = now();
  const std::uint64_t end = begin + std::uint64_t{seconds} * 1'000'000'000;
  std::size_t made = 0;
  while (now() < end) {
    const std::uint64_t due = (now() - begin) * rate / 1'000'000'000;
    // One batch each, as they come.
    while (made < due) agent.change(static_cast<oid_t>(++made % rowsOfTable + 1));
    agent.loop->run(0, 0.0005, false);
  }
  const double took = static_cast<double>(now() - begin) * 1e-9;
  const std::uint64_t last = now();
  agent.runUntil(0.0005, [&] {
    const auto all = agent.publisher.subscribers();
    return std::ranges::all_of(all, [](const auto& one) { return one.lag == 0; });
  });
  const double behind = static_cast<double>(now() - last) * 1e-6;
  const double achieved = static_cast<double>(made) / took;
  std::uint64_t merged = 0;
  for (const auto& subscriber : agent.publisher.subscribers()) merged += subscriber.merged;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const double worked = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
  std::cout << "changes a second to " << subscribers << " subscribers: " << achieved << " for "
            << took << " s, the publisher working for " << worked
            << " s\na change is seen after, median: " << median(shared.timesSince(0))
            << " us\nbatches that came together with later ones: "
            << static_cast<double>(merged) / static_cast<double>(subscribers * made)
            << " of all\nall are equal " << behind
            << " ms after the last change\nlimit: " << rate * 99 / 100 << " a second, 1000 ms\n";
  return achieved >= rate * 0.99 && behind <= 1000 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  const auto number = [&](std::size_t usual) {
    return argc > 2 ? std::strtoul(argv[2], nullptr, 10) : usual;
  };
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  try {
    const bool isChecked = argc < 4 || std::string(argv[3]) != "unchecked";
    if (what == "latency") return latency(number(5000)) * (isChecked ? 1 : 0);
    if (what == "fanout") return fanout(number(1000)) * (isChecked ? 1 : 0);
    if (what == "churn") return churn(number(5)) * (isChecked ? 1 : 0);
  } catch (const std::exception& error) {
    std::cerr << "table_links: " << error.what() << '\n';
    return 1;
  }
  std::cerr << "usage: table_links latency|fanout|churn [NUMBER [unchecked]]\n";
  return 2;
}
