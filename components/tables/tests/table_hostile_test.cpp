// Peers that mean harm, over real sockets: what they send is wrong, endless, slow or nothing at
// all. They stop nobody, nothing grows with what they send, and others are served meanwhile.

#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <system_error>

#include "table_test_support.h"
#include "wire_frames.h"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::EventLoop;
using Korvo::oid_t;
using Korvo::Table;
using Korvo::TablePublisher;
using Korvo::TableState;
using Korvo::TableSubscriber;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// A descriptor that is closed with this.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Socket() {
    if (fd_ != -1) close(fd_);
  }
  int get() const { return fd_; }

  /// What of it can be sent at once.
  std::size_t send(std::string_view bytes) const {
    const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
  }
  /// Whether the other side has closed it; what it sent is read.
  bool isClosed() const {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT)) > 0) {
    }
    return count == 0 || errno != EAGAIN;
  }

 private:
  int fd_;
};

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

double processorTime(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Memory of this process, in bytes.
std::size_t memory() {
  std::size_t size = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

/// What the sanitizers keep of freed memory is no measure.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isMeasured = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool isMeasured = false;
#else
constexpr bool isMeasured = true;
#endif
#else
constexpr bool isMeasured = true;
#endif

class TableHostileTest : public testing::Test {
 protected:
  TableHostileTest() {
    if (mkdtemp(folder_) == nullptr) throw std::system_error(errno, std::generic_category());
    path_ = std::string(folder_) + "/agent";
    address_ = "unix:" + path_;
  }
  ~TableHostileTest() override {
    unlink(path_.c_str());
    rmdir(folder_);
  }

  Socket connected() const {
    Socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(path_);
    if (connect(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      return Socket();
    }
    return made;
  }
  Socket listening() const {
    Socket made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(path_);
    EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(made.get(), 100), 0);
    return made;
  }
  static Socket accepted(const Socket& listener) {
    return Socket(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  }

  void turn(milliseconds time = milliseconds(2)) const {
    loop->run(0, std::chrono::duration<double>(time).count(), false);
  }
  bool runUntil(const std::function<bool()>& isSo) const {
    const auto end = steady_clock::now() + std::chrono::seconds(20);
    while (!isSo()) {
      if (steady_clock::now() > end) return false;
      turn();
    }
    return true;
  }

  char folder_[32] = "/tmp/korvo_hostile_XXXXXX";
  std::string path_;
  std::string address_;
  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("here");
};

// ---------------------------------------------------------------------------------------------
// Subscribers

class HostileSubscriberTest : public TableHostileTest {
 protected:
  HostileSubscriberTest() {
    publisher.add(ports);
    publisher.listen(address_);
    good.add(copy);
    put();
    EXPECT_TRUE(isServed());
  }
  void put() {
    Batch batch(ports);
    ++generation_;
    for (oid_t oid = 1; oid <= 100; ++oid) batch.put(port(oid, "eth", generation_));
    batch.commit();
  }
  /// Whether the good subscriber gets what is new.
  bool isServed() {
    put();
    return runUntil([&] { return copy.find(100).get<"speed">() == generation_; });
  }
  bool isEmpty() {
    return runUntil([&] { return publisher.subscribers().size() <= 1; });
  }

  Table<Port> ports{"net/port"};
  Table<Port> copy{"net/port"};
  TablePublisher publisher{"agent", loop};
  TableSubscriber good{address_, loop, {.name = "good"}};

 private:
  int generation_ = 0;
};

TEST_F(HostileSubscriberTest, FramesInTheWrongOrderEndTheirConnectionAlone) {
  using wire::frame;
  const std::string hello = wire::helloFrame<PortLayout>();
  const std::string ackOfNothing = frame(wire::ack, 0, wire::Bytes().u64(0).u64(0).get());
  for (const std::string& bytes :
       {ackOfNothing, hello + hello, hello + frame(wire::welcome, 0, ""),
        hello + frame(wire::mark, 0, ""), hello + frame(wire::row, 3, "x"),
        hello + frame(wire::ack, 0, "short"), hello + frame(wire::bye, 0, ""),
        hello + frame(wire::note, 3, ""), frame(wire::bye, 0, wire::Bytes().u8(1).text("").get()),
        std::string("\0\0\0\0\0\0\0\0", 8), std::string(8, '\xFF'),
        std::string("GET / HTTP/1.0")}) {
    const Socket bad = connected();
    ASSERT_EQ(bad.send(bytes), bytes.size());
    EXPECT_TRUE(runUntil([&] { return bad.isClosed(); })) << testing::PrintToString(bytes);
    EXPECT_TRUE(isServed());
  }
  EXPECT_EQ(good.status().connections, 1U);
}

TEST_F(HostileSubscriberTest, HugeCountsTakeNoMemory) {
  const std::size_t before = memory();
  std::vector<Socket> all;
  for (int i = 0; i < 100; ++i) {
    wire::Bytes body;
    body.raw("KORVOTAB").u16(1).u16(1).u32(0).u32(5000).text("bad").u16(0xFFFF);
    all.push_back(connected());
    all.back().send(wire::frame(wire::hello, 0, body.get()));
    // One that announces the longest frame there is, and never sends it.
    all.push_back(connected());
    all.back().send(wire::Bytes().u32(1U << 20).u8(wire::hello).u8(0).u16(0).get());
  }
  EXPECT_TRUE(isServed());
  for (std::size_t i = 0; i < all.size(); i += 2) {
    EXPECT_TRUE(runUntil([&] { return all[i].isClosed(); }));
  }
  if (isMeasured) {
    EXPECT_LT(memory(), before + (std::size_t{16} << 20));
  }
}

// Acknowledgements, notes, questions and what may be skipped, as fast as they are taken.
TEST_F(HostileSubscriberTest, FloodsHoldUpNobodyAndMakeNothingGrow) {
  std::string flood;
  for (int i = 0; i < 50; ++i) {
    flood += wire::frame(wire::ack, 0, wire::Bytes().u64(0).u64(~std::uint64_t{0}).get());
    flood += wire::frame(wire::note, 3, wire::Bytes().u32(1).text(std::string(255, 'x')).get());
    flood += wire::frame(0x81, 0, "");  // a question
    flood += wire::frame(0xFF, 9, std::string(1000, 'x'));
    flood += wire::frame(wire::refuse, 77, wire::Bytes().text("no").get());
  }
  std::vector<Socket> all;
  std::vector<std::size_t> at(4);
  for (std::size_t i = 0; i < at.size(); ++i) {
    all.push_back(connected());
    ASSERT_NE(all[i].send(wire::helloFrame<PortLayout>(1, 1, 1)), 0U);
  }
  ASSERT_TRUE(isServed());
  const std::size_t before = memory();
  std::size_t sent = 0;
  const auto end = steady_clock::now() + milliseconds(600);
  for (int turns = 0; steady_clock::now() < end; ++turns) {
    for (std::size_t i = 0; i < at.size(); ++i) {  // and they read nothing
      const std::size_t count = all[i].send(std::string_view(flood).substr(at[i]));
      at[i] = (at[i] + count) % flood.size();
      sent += count;
    }
    turn(milliseconds(1));
    if (turns % 20 == 0) {
      ASSERT_TRUE(isServed());
    }
    for (const auto& subscriber : publisher.subscribers()) {
      ASSERT_LE(subscriber.unsent, 256U * 1024);
    }
  }
  EXPECT_GT(sent, 1'000'000U);
  if (isMeasured) {
    EXPECT_LT(memory(), before + (std::size_t{16} << 20));
  }
  EXPECT_EQ(good.status().connections, 1U);
}

TEST_F(HostileSubscriberTest, ThousandsWhoComeAndGoLeaveNothingBehind) {
  const auto descriptors = [] {
    using Entries = std::filesystem::directory_iterator;
    return std::distance(Entries("/proc/self/fd"), Entries());
  };
  const auto before = descriptors();
  const std::string hello = wire::helloFrame<PortLayout>();
  int made = 0;
  for (int i = 0; i < 3000; ++i) {
    const Socket peer = connected();
    if (peer.get() == -1) {  // the queue of the listener is full
      turn(milliseconds(1));
      continue;
    }
    ++made;
    if (i % 3 != 0) peer.send(std::string_view(hello).substr(0, i % 3 == 1 ? hello.size() : 20));
    if (i % 50 == 0) turn(milliseconds(1));
  }
  EXPECT_GT(made, 1000);
  EXPECT_TRUE(isServed());
  EXPECT_TRUE(isEmpty());
  EXPECT_TRUE(runUntil([&] { return descriptors() == before; }));
  EXPECT_EQ(good.status().connections, 1U);
}

// What comes as a descriptor with the bytes is not kept.
TEST_F(HostileSubscriberTest, DescriptorsThatAreSentAreNotTaken) {
  const Socket bad = connected();
  std::string hello = wire::helloFrame<PortLayout>();
  iovec part{hello.data(), hello.size()};
  int pipes[2];
  ASSERT_EQ(pipe2(pipes, O_CLOEXEC), 0);
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &pipes[1], sizeof(int));
  ASSERT_EQ(sendmsg(bad.get(), &message, MSG_NOSIGNAL), static_cast<ssize_t>(hello.size()));
  close(pipes[1]);
  ASSERT_TRUE(runUntil([&] { return publisher.subscribers().size() == 2; }));
  pollfd ended{pipes[0], POLLIN, 0};
  EXPECT_EQ(poll(&ended, 1, 5000), 1);  // the last writer is gone
  EXPECT_NE(ended.revents & POLLHUP, 0);
  close(pipes[0]);
}

// A publisher without a descriptor left neither spins nor stops, and serves again when there is
// one.
TEST_F(TableHostileTest, PublisherOutOfDescriptorsWaits) {
  if (!isMeasured) GTEST_SKIP() << "the sanitizers need descriptors for their own checks";
  const pid_t agent = fork();
  if (agent == 0) {
    alarm(60);
    const rlimit few{40, 40};
    if (setrlimit(RLIMIT_NOFILE, &few) != 0) _exit(1);
    const auto itsLoop = std::make_shared<EventLoop>("agent");
    Table<Port> ports("net/port");
    TablePublisher publisher("agent", itsLoop);
    Batch batch(ports);
    batch.put(port(1, "eth"));
    batch.commit();
    publisher.add(ports);
    publisher.listen(address_);
    itsLoop->run();
    _exit(0);
  }
  Table<Port> copy("net/port");
  TableSubscriber good(address_, loop, {.name = "good"});
  std::vector<Socket> all;
  while (all.size() < 60) {
    Socket peer = connected();
    if (peer.get() != -1) {
      all.push_back(std::move(peer));
    } else {
      usleep(1000);
    }
  }
  good.add(copy);
  turn(milliseconds(1000));
  EXPECT_EQ(copy.state(), TableState::loading);
  all.clear();
  EXPECT_TRUE(runUntil([&] { return copy.state() == TableState::current; }));
  kill(agent, SIGKILL);
  int status = 0;
  rusage usage{};
  ASSERT_EQ(wait4(agent, &status, 0, &usage), agent);
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_LT(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec, 1);
}

// ---------------------------------------------------------------------------------------------
// Publishers

class HostilePublisherTest : public TableHostileTest {
 protected:
  HostilePublisherTest() { subscriber.add(copy); }

  /// Takes the subscriber's connection, and gives it a good welcome.
  void begin() {
    ASSERT_TRUE(runUntil([&] {
      peer = accepted(listener);
      return peer.get() != -1;
    }));
    peer.send(wire::welcomeFrame<PortLayout>() + wire::frame(wire::whole, 0, ""));
  }
  /// As much of it, again and again, as is taken in that time.
  std::size_t flood(std::string_view bytes, milliseconds time) {
    std::size_t sent = 0;
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end) {
      sent += peer.send(bytes.substr(sent % bytes.size()));
      turn(milliseconds(1));
    }
    return sent;
  }

  Socket listener = listening();
  Socket peer;
  Table<Port> copy{"net/port"};
  TableSubscriber subscriber{
      address_, loop, {.name = "viewer", .mostWaitingBytes = std::size_t{1} << 20}};
};

TEST_F(HostilePublisherTest, RowsWithoutAMarkAreRefusedAtTheLimit) {
  begin();
  std::string rows;
  const std::size_t before = memory();
  for (oid_t oid = 1; oid < 100000; ++oid) rows += wire::rowFrame(port(oid, "eth"));
  flood(rows, milliseconds(500));
  EXPECT_TRUE(runUntil([&] { return copy.state() == TableState::refused; }));
  EXPECT_EQ(copy.stateText(), "more than 1048576 bytes wait for a mark");
  EXPECT_TRUE(copy.empty());
  if (isMeasured) {
    EXPECT_LT(memory(), before + rows.size() + (std::size_t{16} << 20));
  }
}

// Of a row that is told again and again only the last word waits.
TEST_F(HostilePublisherTest, ARowThatIsToldAgainCountsOnce) {
  begin();
  const Port row = port(1, std::string(1000, 'x'));
  std::string bytes;
  for (int i = 0; i < 2000; ++i) bytes += wire::rowFrame(row);
  bytes += wire::markFrame(1, 2001, 1, wire::digestOf(row));
  std::size_t sent = 0;
  ASSERT_TRUE(runUntil([&] {
    sent += peer.send(std::string_view(bytes).substr(sent));
    return sent == bytes.size();
  }));
  EXPECT_TRUE(runUntil([&] { return copy.state() == TableState::current; })) << copy.stateText();
  EXPECT_EQ(copy.size(), 1U);
}

// Removals of rows that are not there count as well.
TEST_F(HostilePublisherTest, RemovalsWithoutAMarkAreRefusedAtTheLimit) {
  begin();
  for (std::uint32_t from = 0; copy.state() != TableState::refused; from += 4096) {
    ASSERT_LT(from, 1U << 20);
    wire::Bytes oids;
    for (std::uint32_t i = 0; i < 4096; ++i) oids.u32(from + i);
    ASSERT_NE(peer.send(wire::frame(wire::del, 0, oids.get())), 0U);
    turn();
  }
  EXPECT_EQ(copy.stateText(), "more than 1048576 bytes wait for a mark");
}

// Endless marks of nothing: work, and no memory, and the loop's others have their turns.
TEST_F(HostilePublisherTest, EndlessMarksMakeNothingGrow) {
  begin();
  peer.send(wire::markFrame(1, 1, 0, 0));
  ASSERT_TRUE(runUntil([&] { return copy.state() == TableState::current; }));
  std::string marks;
  for (int i = 0; i < 1000; ++i) marks += wire::markFrame(1, 0, 0, 0);
  const std::size_t before = memory();
  EXPECT_GT(flood(marks, milliseconds(500)), 200'000U);  // and it reads nothing
  EXPECT_EQ(copy.state(), TableState::current);
  EXPECT_EQ(subscriber.status().connections, 1U);
  if (isMeasured) {
    EXPECT_LT(memory(), before + (std::size_t{8} << 20));
  }
}

TEST_F(HostilePublisherTest, PulsesAndWhatMayBeSkippedAreNoMark) {
  begin();
  flood(wire::frame(wire::pulse, 0, "") + wire::frame(0x90, 1, std::string(60000, 'x')),
        milliseconds(300));
  EXPECT_EQ(copy.state(), TableState::loading);
  EXPECT_EQ(subscriber.status().connections, 1U);
}

// Ends that come at once: the attempts become rare, and no processor time is lost on them.
TEST_F(HostilePublisherTest, PublisherThatClosesAtOnceIsNotStormed) {
  const double before = processorTime(RUSAGE_SELF);
  int connections = 0;
  const auto end = steady_clock::now() + milliseconds(1500);
  while (steady_clock::now() < end) {
    if (accepted(listener).get() != -1) ++connections;
    turn(milliseconds(5));
  }
  EXPECT_GE(connections, 2);
  EXPECT_LT(connections, 30);
  if (isMeasured) {
    EXPECT_LT(processorTime(RUSAGE_SELF) - before, 0.75);
  }
}

// A frame that never ends, byte for byte, is waited for, and costs nothing.
TEST_F(HostilePublisherTest, HalfFramesKeepWhatThereWas) {
  begin();
  const Port row = port(1, "eth");
  peer.send(wire::rowFrame(row) + wire::markFrame(1, 2, 1, wire::digestOf(row)));
  ASSERT_TRUE(runUntil([&] { return copy.size() == 1; }));
  const std::string next = wire::rowFrame(port(2, "new")) + wire::frame(wire::del, 0, "\1\0\0\0");
  for (const char each : next.substr(0, next.size() - 1)) {
    peer.send({&each, 1});
    turn(milliseconds(1));
  }
  EXPECT_EQ(contents(copy).size(), 1U);
  EXPECT_EQ(copy.state(), TableState::current);
  peer = Socket();  // without having read what it was sent
  EXPECT_TRUE(runUntil([&] { return copy.state() == TableState::stale; }));
  EXPECT_EQ(copy.stateText(), "the other end closed the connection");
  EXPECT_EQ(copy.find(1).get<"name">(), "eth");
}

TEST_F(HostilePublisherTest, LayoutsThatAreNoneRefuseTheTableAlone) {
  std::string columns;
  for (int i = 0; i < 60000; ++i) columns += "c" + std::to_string(i) + " bool @8\n";
  std::string nested;
  for (int i = 0; i < 40000; ++i) nested += "row 7 base 9 { a ";
  for (const std::string& layout :
       {std::string(), std::string(1000000, '{'), "row 7 base 65535 {" + columns + "}", nested}) {
    ASSERT_TRUE(runUntil([&] {
      peer = accepted(listener);
      return peer.get() != -1;
    }));
    const double before = processorTime(RUSAGE_SELF);
    const std::string bytes = wire::welcomeFrame<PortLayout>(layout);
    std::size_t sent = 0;
    ASSERT_TRUE(runUntil([&] {
      sent += peer.send(std::string_view(bytes).substr(sent));
      return sent == bytes.size();
    })) << layout.size();
    EXPECT_TRUE(runUntil([&] { return copy.state() == TableState::refused; })) << layout.size();
    if (isMeasured) {
      EXPECT_LT(processorTime(RUSAGE_SELF) - before, 2.0) << layout.size();
    }
    // The next connection may be made in the turn in which this one is lost.
    const std::uint64_t connections = subscriber.status().connections;
    peer = Socket();
    ASSERT_TRUE(runUntil([&] {
      return !subscriber.status().isConnected || subscriber.status().connections > connections;
    }));
  }
}

}  // namespace
