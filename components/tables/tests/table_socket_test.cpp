// Tables over Unix-domain sockets, with real processes that are stopped and killed.

#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <system_error>

#include "table_test_support.h"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::EventLoop;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TablePublisher;
using Korvo::TableReader;
using Korvo::TableState;
using Korvo::TableSubscriber;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A folder of its own; the sockets in it are removed with it.
class Folder {
 public:
  Folder() {
    if (mkdtemp(path_) == nullptr) throw std::system_error(errno, std::generic_category());
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    unlink(file("agent").c_str());
    rmdir(path_);
  }
  std::string file(const std::string& name) const { return std::string(path_) + '/' + name; }
  std::string address() const { return "unix:" + file("agent"); }

 private:
  char path_[32] = "/tmp/korvo_tables_XXXXXX";
};

/// Runs the loop until it is so, ten seconds at the most.
bool runUntil(EventLoop& loop, const std::function<bool()>& isSo) {
  const auto end = steady_clock::now() + std::chrono::seconds(10);
  while (!isSo()) {
    if (steady_clock::now() > end) return false;
    loop.run(0, 0.005, false);
  }
  return true;
}

/// All rows have the value of one batch.
void putGeneration(Table<Port>& ports, int generation) {
  Batch batch(ports);
  for (oid_t oid = 1; oid <= 200; ++oid) {
    batch.put(port(oid, "port" + std::to_string(oid), generation));
  }
  batch.commit();
}

bool isOneGeneration(const Table<Port>& ports) {
  std::set<int> generations;
  for (const Port& row : ports) generations.insert(row.get<"speed">());
  return generations.size() <= 1 && (ports.size() == 0 || ports.size() == 200);
}

/// Another process; killed at the end.
class Process {
 public:
  explicit Process(const std::function<void()>& work) : pid_(fork()) {
    if (pid_ != 0) return;
    alarm(60);
    work();
    _exit(0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  void signal(int number) const { kill(pid_, number); }

 private:
  pid_t pid_;
};

/// Publishes a generation a millisecond.
void publishForEver(const std::string& address) {
  const auto loop = std::make_shared<EventLoop>("agent");
  Table<Port> ports("net/port");
  TablePublisher publisher("agent", loop);
  publisher.add(ports);
  publisher.listen(address);
  for (int generation = 1;; ++generation) {
    putGeneration(ports, generation);
    loop->run(0, 0.001, false);
  }
}

struct Copy {
  explicit Copy(const std::string& address)
      : subscriber(address, loop, {.name = "copy"}),
        reader(ports, loop, [this](const Korvo::Changes<Port>&) {
          ++told;
          isWhole = isWhole && isOneGeneration(ports);
        }) {
    subscriber.add(ports);
  }
  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("copy");
  Table<Port> ports{"net/port"};
  int told = 0;
  bool isWhole = true;
  TableSubscriber subscriber;
  TableReader<Port> reader;
};

// ---------------------------------------------------------------------------------------------

TEST(TableSocketTest, RowsGoOverASocket) {
  const Folder folder;
  const auto loop = std::make_shared<EventLoop>("both");
  Table<Port> ports("net/port");
  Table<Port> copy("net/port");
  TablePublisher publisher("agent", loop);
  publisher.add(ports);
  publisher.listen(folder.address());
  TableSubscriber subscriber(folder.address(), loop);
  subscriber.add(copy);
  for (int generation = 1; generation < 5; ++generation) {
    putGeneration(ports, generation);
    ASSERT_TRUE(runUntil(*loop, [&] { return contents(copy) == contents(ports); }));
  }
  EXPECT_EQ(copy.state(), TableState::current);
  EXPECT_EQ(publisher.subscribers().at(0).name, "both");
}

TEST(TableSocketTest, SocketIsTheOwnersAloneAndGoesWithThePublisher) {
  const Folder folder;
  const auto loop = std::make_shared<EventLoop>("agent");
  const mode_t mask = umask(0);
  auto publisher = std::make_unique<TablePublisher>("agent", loop);
  publisher->listen(folder.address());
  umask(mask);
  struct stat file {};
  ASSERT_EQ(stat(folder.file("agent").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600U);
  TablePublisher second("second", loop);
  EXPECT_THROW(second.listen(folder.address()), std::system_error);
  publisher.reset();
  EXPECT_NE(stat(folder.file("agent").c_str(), &file), 0);
  second.listen(folder.address());
}

TEST(TableSocketTest, AbandonedSocketIsReplacedAndOtherFilesAreNot) {
  const Folder folder;
  const auto loop = std::make_shared<EventLoop>("agent");
  TablePublisher publisher("agent", loop);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  folder.file("agent").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(fd);
  publisher.listen(folder.address());

  std::ofstream(folder.file("file")) << "mine";
  EXPECT_THROW(publisher.listen("unix:" + folder.file("file")), std::system_error);
  std::string text;
  std::ifstream(folder.file("file")) >> text;
  EXPECT_EQ(text, "mine");
  unlink(folder.file("file").c_str());
}

TEST(TableSocketTest, AddressesThatAreNone) {
  const auto loop = std::make_shared<EventLoop>("agent");
  TablePublisher publisher("agent", loop);
  for (const std::string address : {"", "unix:", "tcp:1.2.3.4:5", "/run/agent"}) {
    EXPECT_THROW(publisher.listen(address), Korvo::KoInvalidArgument) << address;
    EXPECT_THROW(TableSubscriber(address, loop), Korvo::KoInvalidArgument) << address;
  }
  EXPECT_THROW(publisher.listen("unix:/" + std::string(108, 'x')), Korvo::KoInvalidArgument);
  EXPECT_THROW(publisher.listen("unix:/no/such/folder/agent"), std::system_error);
}

TEST(TableSocketTest, SubscriberWaitsForItsPublisher) {
  const Folder folder;
  Copy copy(folder.address());
  copy.loop->run(0, 0.05, false);
  EXPECT_EQ(copy.ports.state(), TableState::loading);
  EXPECT_NE(copy.ports.stateText(), "");
  TablePublisher publisher("agent", copy.loop);
  Table<Port> ports("net/port");
  putGeneration(ports, 1);
  publisher.add(ports);
  publisher.listen(folder.address());
  EXPECT_TRUE(runUntil(*copy.loop, [&] { return copy.ports.size() == 200; }));
}

// A process that was held up looks at what came meanwhile before it calls the other side silent.
TEST(TableSocketTest, OwnStallsDoNotCount) {
  const Folder folder;
  const auto loop = std::make_shared<EventLoop>("both");
  Table<Port> ports("net/port");
  Table<Port> copy("net/port");
  TablePublisher publisher("agent", loop, {.heartbeat = milliseconds(100)});
  publisher.add(ports);
  publisher.listen(folder.address());
  TableSubscriber subscriber(folder.address(), loop,
                             {.name = "both", .heartbeat = milliseconds(100)});
  subscriber.add(copy);
  putGeneration(ports, 1);
  ASSERT_TRUE(runUntil(*loop, [&] { return contents(copy) == contents(ports); }));
  usleep(1'500'000);
  loop->run(0, 0.5, false);
  EXPECT_EQ(subscriber.status().connections, 1U) << subscriber.status().lastReason;
  EXPECT_EQ(copy.state(), TableState::current);
}

// Without the right to become another user: table_syscall_test.
TEST(TableSocketTest, OtherUsersAreRefusedInWords) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const Folder folder;
  ASSERT_EQ(chmod(folder.file("").c_str(), 0755), 0);
  const auto loop = std::make_shared<EventLoop>("agent");
  TablePublisher publisher("agent", loop, {.socketMode = 0666});
  publisher.listen(folder.address());
  int answer[2];
  ASSERT_EQ(pipe(answer), 0);
  const Process other([&] {
    if (setuid(65534) != 0) return;
    Copy copy(folder.address());
    runUntil(*copy.loop, [&] { return !copy.subscriber.status().lastReason.empty(); });
    const std::string reason = copy.subscriber.status().lastReason;
    if (write(answer[1], reason.data(), reason.size()) < 0) _exit(1);
  });
  close(answer[1]);
  ASSERT_TRUE(runUntil(*loop, [&] { return !publisher.lastReason().empty(); }));
  EXPECT_EQ(publisher.lastReason(), "user 65534 may not subscribe");
  char reason[200];
  const ssize_t length = read(answer[0], reason, sizeof reason);
  close(answer[0]);
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(reason, static_cast<std::size_t>(length)),
            "the publisher ended: user 65534 may not subscribe");
}

TEST(TableSocketTest, PublisherKilledAtAnyTime) {
  const Folder folder;
  std::mt19937 random(1);
  std::unique_ptr<Process> agent;
  const auto start = [&] {
    agent = std::make_unique<Process>([&] { publishForEver(folder.address()); });
  };
  start();
  Copy copy(folder.address());
  for (int i = 0; i < 15; ++i) {
    const int before = copy.told;
    ASSERT_TRUE(runUntil(*copy.loop, [&] { return copy.told >= before + 3; }))
        << copy.subscriber.status().lastReason;
    copy.loop->run(0, static_cast<double>(random() % 20) / 1000, false);
    agent.reset();  // kill -9
    start();
  }
  EXPECT_TRUE(runUntil(*copy.loop, [&] { return copy.ports.state() == TableState::current; }));
  EXPECT_TRUE(copy.isWhole);
  EXPECT_EQ(copy.subscriber.status().digestFaults, 0U);
  EXPECT_GE(copy.subscriber.status().connections, 15U);
}

TEST(TableSocketTest, SubscriberKilledOrStoppedAtAnyTime) {
  const Folder folder;
  std::vector<std::unique_ptr<Process>> viewers;
  const auto view = [&folder] {
    Copy copy(folder.address());
    for (;;) copy.loop->run(0, 1.0, false);
  };
  for (int i = 0; i < 4; ++i) viewers.push_back(std::make_unique<Process>(view));

  const auto loop = std::make_shared<EventLoop>("agent");
  Table<Port> ports("net/port");
  // Who is stopped is not taken for dead, however slow this machine is.
  TablePublisher publisher("agent", loop, {.heartbeat = std::chrono::minutes(1)});
  publisher.add(ports);
  publisher.listen(folder.address());
  ASSERT_TRUE(runUntil(*loop, [&] { return publisher.subscribers().size() == 4; }));
  viewers[0]->signal(SIGSTOP);
  for (int generation = 1; generation <= 200; ++generation) {
    putGeneration(ports, generation);
    loop->run(0, 0.002, false);
    for (const auto& subscriber : publisher.subscribers()) {
      ASSERT_LE(subscriber.unsent, 256U * 1024);
    }
    if (generation == 100) viewers[3].reset();
  }
  EXPECT_TRUE(runUntil(*loop, [&] { return publisher.subscribers().size() == 3; }));
  std::size_t behind = 0;
  for (const auto& subscriber : publisher.subscribers()) behind += subscriber.lag != 0 ? 1U : 0U;
  EXPECT_GE(behind, 1U);
  viewers[0]->signal(SIGCONT);
  EXPECT_TRUE(runUntil(*loop, [&] {
    for (const auto& subscriber : publisher.subscribers()) {
      if (subscriber.lag != 0) return false;
    }
    return publisher.subscribers().size() == 3;
  }));
}

}  // namespace
