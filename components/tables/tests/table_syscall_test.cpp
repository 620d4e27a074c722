// Each system call of the sockets failed in turn, with each error that it may have. The calls of
// the C library are replaced in this program.

#include <Korvo/EventLoop.h>
#include <Korvo/TableBrowser.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "table_test_support.h"

namespace {

enum class Call {
  none,
  socket,
  bind,
  listen,
  accept4,
  connect,
  sendmsg,
  recv,
  getsockopt,
  fchmod,
  chmod,
  unlink
};

/// Which call fails, how often, and what it says then.
struct Failing {
  Call call = Call::none;
  int error = 0;
  int skip = 0;   ///< calls that succeed before
  int times = 1;  ///< calls that fail then; -1: all
  int seen = 0;
  int failed = 0;
  bool isShort = false;  ///< writes and reads one byte at a time
};
Failing failing;

/// Who connects, in place of the user that the kernel tells.
std::optional<uid_t> peer;

/// What happens just before the next write.
std::function<void()> beforeSending;

bool fails(Call call) {
  if (failing.call != call) return false;
  if (failing.seen++ < failing.skip || failing.times == 0) return false;
  if (failing.times > 0) --failing.times;
  ++failing.failed;
  errno = failing.error;
  return true;
}

}  // namespace

// With the declarations of the C library.
extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  if (fails(Call::socket)) return -1;
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}
int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  if (fails(Call::bind)) return -1;
  return static_cast<int>(syscall(SYS_bind, fd, address, length));
}
int listen(int fd, int backlog) noexcept {
  if (fails(Call::listen)) return -1;
  return static_cast<int>(syscall(SYS_listen, fd, backlog));
}
int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
  if (fails(Call::accept4)) return -1;
  return static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
}
int connect(int fd, const sockaddr* address, socklen_t length) {
  if (fails(Call::connect)) return -1;
  return static_cast<int>(syscall(SYS_connect, fd, address, length));
}
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  if (const auto now = std::exchange(beforeSending, nullptr)) now();
  if (fails(Call::sendmsg)) return -1;
  if (!failing.isShort) return syscall(SYS_sendmsg, fd, message, flags);
  iovec part = message->msg_iov[0];
  part.iov_len = 1;
  msghdr first = *message;
  first.msg_iov = &part;
  first.msg_iovlen = 1;
  return syscall(SYS_sendmsg, fd, &first, flags);
}
ssize_t recv(int fd, void* to, size_t most, int flags) {
  if (fails(Call::recv)) return -1;
  return syscall(SYS_recvfrom, fd, to, failing.isShort ? 1 : most, flags, nullptr, nullptr);
}
int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
  if (fails(Call::getsockopt)) return -1;
  const auto result = static_cast<int>(syscall(SYS_getsockopt, fd, level, option, value, length));
  if (peer && result == 0 && option == SO_PEERCRED) static_cast<ucred*>(value)->uid = *peer;
  return result;
}
int fchmod(int fd, mode_t mode) noexcept {
  if (fails(Call::fchmod)) return -1;
  return static_cast<int>(syscall(SYS_fchmod, fd, mode));
}
int chmod(const char* path, mode_t mode) noexcept {
  if (fails(Call::chmod)) return -1;
  return static_cast<int>(syscall(SYS_chmod, path, mode));
}
int unlink(const char* path) noexcept {
  if (fails(Call::unlink)) return -1;
  return static_cast<int>(syscall(SYS_unlink, path));
}

}  // extern "C"

namespace {

using namespace tabletest;
using Korvo::Batch;
using Korvo::EventLoop;
using Korvo::Table;
using Korvo::TablePublisher;
using Korvo::TableState;
using Korvo::TableSubscriber;
using std::chrono::steady_clock;

class TableSyscallTest : public testing::Test {
 protected:
  TableSyscallTest() {
    failing = {};
    if (mkdtemp(folder_) == nullptr) throw std::system_error(errno, std::generic_category());
    file_ = std::string(folder_) + "/agent";
    address_ = "unix:" + file_;
    put("first");
  }
  ~TableSyscallTest() override {
    failing = {};
    peer.reset();
    subscriber_.reset();
    publisher_.reset();
    unlink(file_.c_str());
    rmdir(folder_);
  }

  void put(const std::string& name) {
    Batch batch(ports);
    for (Korvo::oid_t oid = 1; oid < 30; ++oid) batch.put(port(oid, name + std::to_string(oid)));
    batch.commit();
  }
  void publish() {
    publisher_ = std::make_unique<TablePublisher>("agent", loop);
    publisher_->add(ports);
    publisher_->listen(address_);
  }
  void subscribe() {
    subscriber_ = std::make_unique<TableSubscriber>(address_, loop);
    subscriber_->add(copy);
  }
  bool runUntil(const std::function<bool()>& isSo) const {
    const auto end = steady_clock::now() + std::chrono::seconds(20);
    while (!isSo()) {
      if (steady_clock::now() > end) return false;
      loop->run(0, 0.005, false);
    }
    return true;
  }
  bool comesTogether() const {
    return runUntil(
        [&] { return copy.state() == TableState::current && contents(copy) == contents(ports); });
  }
  bool hasFile() const {
    struct stat file {};
    return stat(file_.c_str(), &file) == 0;
  }

  char folder_[32] = "/tmp/korvo_syscall_XXXXXX";
  std::string file_;
  std::string address_;
  std::shared_ptr<EventLoop> loop = std::make_shared<EventLoop>("both");
  Table<Port> ports{"net/port"};
  Table<Port> copy{"net/port"};
  std::unique_ptr<TablePublisher> publisher_;
  std::unique_ptr<TableSubscriber> subscriber_;
};

// listen() throws, leaves no file behind, and works when it is called again.
TEST_F(TableSyscallTest, ListenThrowsAndLeavesNothingBehind) {
  publisher_ = std::make_unique<TablePublisher>("agent", loop);
  publisher_->add(ports);
  for (const auto& [call, error] :
       std::initializer_list<std::pair<Call, int>>{{Call::socket, EMFILE},
                                                   {Call::socket, ENOBUFS},
                                                   {Call::fchmod, EINVAL},
                                                   {Call::bind, EACCES},
                                                   {Call::bind, ENOSPC},
                                                   {Call::chmod, EPERM},
                                                   {Call::listen, EADDRINUSE}}) {
    failing = {.call = call, .error = error};
    try {
      publisher_->listen(address_);
      ADD_FAILURE() << "listens in spite of " << strerror(error);
    } catch (const std::system_error& thrown) {
      EXPECT_EQ(thrown.code().value(), error);
    }
    EXPECT_EQ(failing.failed, 1);
    EXPECT_FALSE(hasFile()) << strerror(error);
  }
  failing = {};
  publisher_->listen(address_);
  subscribe();
  EXPECT_TRUE(comesTogether());
}

// A socket that cannot be looked at is not taken for an abandoned one.
TEST_F(TableSyscallTest, SocketOfAnotherStaysWhereItCannotBeAsked) {
  publish();
  TablePublisher second("second", loop);
  for (const auto& [call, error, skip] : std::initializer_list<std::tuple<Call, int, int>>{
           {Call::connect, EAGAIN, 0},  // its queue is full
           {Call::connect, EACCES, 0},
           {Call::connect, EINTR, 0},
           {Call::socket, EMFILE, 1}}) {  // the second one, which asks
    failing = {.call = call, .error = error, .skip = skip};
    EXPECT_THROW(second.listen(address_), std::system_error);
    EXPECT_EQ(failing.failed, 1);
    EXPECT_TRUE(hasFile());
  }
  failing = {};
  subscribe();
  EXPECT_TRUE(comesTogether());
}

TEST_F(TableSyscallTest, AbandonedSocketThatCannotBeRemovedIsToldAndStays) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file_.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  close(fd);
  publisher_ = std::make_unique<TablePublisher>("agent", loop);
  failing = {.call = Call::unlink, .error = EPERM};
  EXPECT_THROW(publisher_->listen(address_), std::system_error);
  EXPECT_EQ(failing.failed, 1);
  EXPECT_TRUE(hasFile());
  failing = {};
  publisher_->listen(address_);
}

TEST_F(TableSyscallTest, SubscriberConnectsAgainAfterEachFailure) {
  publish();
  for (const auto& [call, error] :
       std::initializer_list<std::pair<Call, int>>{{Call::socket, EMFILE},
                                                   {Call::connect, ECONNREFUSED},
                                                   {Call::connect, EAGAIN},
                                                   {Call::connect, EINTR},
                                                   {Call::connect, ENOENT}}) {
    subscriber_.reset();
    failing = {.call = call, .error = error};
    subscribe();
    EXPECT_TRUE(runUntil([&] { return failing.failed == 1; }));
    // It may have connected by now: the pause before the next attempt is any, from none on.
    EXPECT_NE(subscriber_->status().lastReason.find(strerror(error)), std::string::npos)
        << subscriber_->status().lastReason;
    EXPECT_TRUE(comesTogether());
  }
}

TEST_F(TableSyscallTest, AcceptIsTriedAgain) {
  publish();
  for (const int error : {EMFILE, ENFILE, ENOMEM, EINTR, EAGAIN, ECONNABORTED, EPERM}) {
    subscriber_.reset();
    failing = {.call = Call::accept4, .error = error};
    subscribe();
    EXPECT_TRUE(comesTogether()) << strerror(error);
    EXPECT_EQ(failing.failed, 1) << strerror(error);
  }
}

// The socket's file may let others in: a user who is not known is taken for one of them.
TEST_F(TableSyscallTest, PeerThatCannotBeAskedForIsRefused) {
  publish();
  failing = {.call = Call::getsockopt, .error = ENOBUFS};
  subscribe();
  EXPECT_TRUE(runUntil([&] { return failing.failed == 1 && !publisher_->lastReason().empty(); }));
  EXPECT_EQ(publisher_->lastReason(), "the user is not known");
  EXPECT_TRUE(comesTogether());
}

// With another user's process: table_socket_test, if it may become one.
TEST_F(TableSyscallTest, OtherUsersAreRefusedInWords) {
  publish();
  peer = geteuid() + 1;
  subscribe();
  const std::string text = "user " + std::to_string(*peer) + " may not subscribe";
  EXPECT_TRUE(runUntil([&] { return subscriber_->status().lastReason.ends_with(text); }));
  EXPECT_EQ(publisher_->lastReason(), text);
  EXPECT_EQ(copy.state(), TableState::loading);
  EXPECT_TRUE(copy.empty());
  subscriber_.reset();
  publisher_.reset();
  publisher_ = std::make_unique<TablePublisher>(
      "agent", loop, TablePublisher::Options{.users = {geteuid() + 7, *peer}});
  publisher_->add(ports);
  publisher_->listen(address_);
  subscribe();
  EXPECT_TRUE(comesTogether());
}

// Interrupted and blocked calls are made again; others end the connection, and the next one brings
// what is missing.
TEST_F(TableSyscallTest, ReadsAndWritesThatFailAreGotOver) {
  publish();
  subscribe();
  ASSERT_TRUE(comesTogether());
  int round = 0;
  for (const Call call : {Call::recv, Call::sendmsg}) {
    for (const int error : {EAGAIN, EINTR, EPIPE, ECONNRESET, ENOBUFS, ENOMEM, EBADF}) {
      for (int skip = 0; skip < 4; ++skip) {
        SCOPED_TRACE(std::string(strerror(error)) + " " + std::to_string(skip));
        const std::uint64_t connections = subscriber_->status().connections;
        failing = {.call = call, .error = error, .skip = skip};
        put("round" + std::to_string(++round));
        EXPECT_TRUE(comesTogether());
        const bool isHarmless = error == EAGAIN || error == EINTR;
        if (isHarmless) {
          EXPECT_EQ(subscriber_->status().connections, connections);
        }
        EXPECT_EQ(subscriber_->status().digestFaults, 0U);
      }
    }
  }
}

TEST_F(TableSyscallTest, ShortReadsAndWritesAreGoneOnWith) {
  failing.isShort = true;
  publish();
  subscribe();
  EXPECT_TRUE(comesTogether());
  for (int round = 0; round < 3; ++round) {
    put("short" + std::to_string(round));
    EXPECT_TRUE(comesTogether());
  }
  EXPECT_EQ(subscriber_->status().connections, 1U);
}

// A question ends once, whatever fails, and is answered when it is asked again.
TEST_F(TableSyscallTest, QuestionsEndOnce) {
  publish();
  Korvo::TableBrowser browser(address_, loop,
                              {.name = "asker", .patience = std::chrono::seconds(2)});
  int answers = 0;
  std::string failure;
  int ends = 0;
  browser.onAnswer([&](const Korvo::PublisherInfo& info) {
    ++ends;
    answers += info.tables.size() == 1 ? 1 : 0;
  });
  browser.onFailure([&](const std::string& text) {
    ++ends;
    failure = text;
  });
  const auto ask = [&] {
    ends = 0;
    browser.ask();
    return runUntil([&] { return ends != 0; });
  };
  for (const auto& [call, error, skip] :
       std::initializer_list<std::tuple<Call, int, int>>{{Call::socket, EMFILE, 0},
                                                         {Call::connect, ECONNREFUSED, 0},
                                                         {Call::connect, EAGAIN, 0},
                                                         {Call::accept4, EMFILE, 0},
                                                         {Call::accept4, ECONNABORTED, 0},
                                                         {Call::getsockopt, ENOBUFS, 0},
                                                         {Call::recv, EINTR, 0},
                                                         {Call::recv, ECONNRESET, 0},
                                                         {Call::recv, ECONNRESET, 1},
                                                         {Call::recv, EBADF, 2},
                                                         {Call::recv, ENOMEM, 3},
                                                         {Call::sendmsg, EINTR, 0},
                                                         {Call::sendmsg, EPIPE, 0},
                                                         {Call::sendmsg, EPIPE, 1},
                                                         {Call::sendmsg, ECONNRESET, 2},
                                                         {Call::sendmsg, ENOBUFS, 3}}) {
    SCOPED_TRACE(std::string(strerror(error)) + " " + std::to_string(skip));
    failing = {.call = call, .error = error, .skip = skip};
    failure.clear();
    answers = 0;
    EXPECT_TRUE(ask());
    loop->run(0, 0.02, false);
    EXPECT_EQ(ends, 1);
    EXPECT_TRUE(answers == 1 || !failure.empty());
    failing = {};
    answers = 0;
    EXPECT_TRUE(ask());
    EXPECT_EQ(answers, 1) << failure;
  }
}

// What the publisher said before it closed is read, though nothing can be written any more.
TEST_F(TableSyscallTest, LastWordsAreReadWhereAWriteFails) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  file_.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);
  beforeSending = [listener] {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    constexpr std::string_view bye("\x0e\0\0\0\x0b\0\0\0\x07\x08too many", 18);
    ASSERT_EQ(write(fd, bye.data(), bye.size()), static_cast<ssize_t>(bye.size()));
    close(fd);
  };
  subscribe();
  EXPECT_TRUE(runUntil([&] { return !subscriber_->status().lastReason.empty(); }));
  EXPECT_EQ(subscriber_->status().lastReason, "the publisher ended: too many");
  close(listener);
}

// Random failures of every call, for a while; then all is well.
TEST_F(TableSyscallTest, AnythingFailsAndAllIsWellAfterwards) {
  publish();
  subscribe();
  std::mt19937 random(7);
  constexpr std::array calls = {Call::socket,  Call::accept4, Call::connect,
                                Call::sendmsg, Call::recv,    Call::getsockopt};
  constexpr std::array errors = {EAGAIN, EINTR, EMFILE, ENOMEM, EPIPE, ECONNRESET};
  for (int round = 0; round < 200; ++round) {
    failing = {.call = calls[random() % calls.size()],
               .error = errors[random() % errors.size()],
               .skip = static_cast<int>(random() % 5),
               .times = 1 + static_cast<int>(random() % 3)};
    put("random" + std::to_string(round));
    loop->run(0, 0.002, false);
  }
  failing = {};
  EXPECT_TRUE(comesTogether());
  EXPECT_EQ(subscriber_->status().digestFaults, 0U);
}

}  // namespace
