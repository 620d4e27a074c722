#include "UnixSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

namespace Korvo {

ByteStream::~ByteStream() = default;
ByteListener::~ByteListener() = default;
ByteConnector::~ByteConnector() = default;

namespace detail {

namespace {

constexpr std::string_view scheme = "unix:";
constexpr int backlog = 128;
/// After a failure of accept() for want of resources, which would be told for ever.
constexpr std::chrono::milliseconds acceptPause{200};

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ != -1) close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

Descriptor newSocket() {
  Descriptor descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (descriptor.get() == -1) fail("socket");
  return descriptor;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

bool connectTo(int fd, const std::string& path) {
  const sockaddr_un address = addressOf(path);
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool isRetried(int error) {
  return error == EAGAIN || error == EINTR;
}

/// A connected socket.
class SocketStream final : public ByteStream, private Velto::Platform::FdEventHandler {
 public:
  /// Throws std::system_error if the system has no resources to watch it.
  SocketStream(Descriptor descriptor, Scheduler& loop)
      : descriptor_(std::move(descriptor)), watch_(loop.getFdControl(this)) {
    watch_->fdIs(descriptor_.get());
    watch_->readableWantedIs(true);
  }

  void userIs(User* user) override { user_ = user; }

  Result read(void* to, std::size_t most) override {
    const ssize_t count = recv(descriptor_.get(), to, most, 0);
    if (count > 0) return {static_cast<std::size_t>(count), true, ""};
    return count < 0 && isRetried(errno) ? Result() : closed(count == 0 ? 0 : errno);
  }

  Result write(const iovec* parts, int count) override {
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts);  // sendmsg() does not write there
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(count);
    std::size_t wanted = 0;
    for (int i = 0; i < count; ++i) wanted += parts[i].iov_len;
    const ssize_t sent = sendmsg(descriptor_.get(), &message, MSG_NOSIGNAL);
    if (sent < 0 && !isRetried(errno)) return closed(errno);
    const std::size_t written = sent < 0 ? 0 : static_cast<std::size_t>(sent);
    if (written < wanted) watch_->writableWantedIs(true);
    return {written, true, ""};
  }

  std::optional<uid_t> peerUser() const override {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(descriptor_.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
      fail("getsockopt");
    }
    return peer.uid;
  }

 private:
  void onReadable() override {
    if (user_ != nullptr) user_->streamIsReady();
  }
  void onWritable() override {
    watch_->writableWantedIs(false);
    if (user_ != nullptr) user_->streamIsReady();
  }
  /// An end that is closed is readable for ever. Who ends with unread bytes, as by a signal, resets
  /// the connection.
  Result closed(int error) {
    watch_->fdIs(-1);
    const bool isEnd = error == 0 || error == ECONNRESET || error == EPIPE;
    return {0, false, isEnd ? "the other end closed the connection" : std::strerror(error)};
  }

  Descriptor descriptor_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;  // ends before the descriptor is closed
  User* user_ = nullptr;
};

class SocketListener final : public ByteListener,
                             private Velto::Platform::FdEventHandler,
                             private Velto::Platform::TimeoutHandler {
 public:
  SocketListener(const std::string& address, mode_t mode, const KoPtr<Scheduler>& loop)
      : path_(socketPath(address)), loop_(loop), descriptor_(newSocket()) {
    // The socket's file gets these rights, less the process's mask, when it is made.
    if (fchmod(descriptor_.get(), mode & 0777) != 0) fail("fchmod " + path_);
    if (!bindToPath() && !(errno == EADDRINUSE && removeAbandoned() && bindToPath())) {
      fail("bind " + path_);
    }
    struct stat file {};
    if (lstat(path_.c_str(), &file) == 0) inode_ = file.st_ino;
    try {
      if (chmod(path_.c_str(), mode & 0777) != 0) fail("chmod " + path_);
      if (listen(descriptor_.get(), backlog) != 0) fail("listen " + path_);
      pause_.reset(loop->getTimerControl(this));
      watch_.reset(loop->getFdControl(this));
      watch_->fdIs(descriptor_.get());
    } catch (...) {
      removeOwnFile();
      throw;
    }
  }
  SocketListener(const SocketListener&) = delete;
  SocketListener& operator=(const SocketListener&) = delete;
  ~SocketListener() override { removeOwnFile(); }

  void takerIs(Taker taker) override {
    taker_ = std::make_shared<Taker>(std::move(taker));
    watch_->readableWantedIs(static_cast<bool>(*taker_));
  }

 private:
  bool bindToPath() const {
    const sockaddr_un address = addressOf(path_);
    return bind(descriptor_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           0;
  }

  /// Whether the path held a socket that nobody listens to. Anything else stays.
  bool removeAbandoned() const {
    struct stat file {};
    if (lstat(path_.c_str(), &file) != 0) return errno == ENOENT;
    if (S_ISSOCK(file.st_mode)) {
      const Descriptor probe = newSocket();
      if (!connectTo(probe.get(), path_) && errno == ECONNREFUSED) {
        return unlink(path_.c_str()) == 0;
      }
    }
    errno = EADDRINUSE;
    return false;
  }

  void removeOwnFile() const {
    struct stat file {};
    const bool isOurs =
        lstat(path_.c_str(), &file) == 0 && S_ISSOCK(file.st_mode) && file.st_ino == inode_;
    if (isOurs) unlink(path_.c_str());
  }

  void onReadable() override {
    const int fd = accept4(descriptor_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd == -1) {
      if (isRetried(errno) || errno == ECONNABORTED) return;
      watch_->readableWantedIs(false);
      pause_->timeoutIs(acceptPause);
      return;
    }
    Descriptor descriptor(fd);
    const std::shared_ptr<Taker> taker = taker_;  // it may end this
    try {
      (*taker)(std::make_unique<SocketStream>(std::move(descriptor), *loop_));
    } catch (const std::system_error&) {
      // No resources to watch it: the subscriber finds the connection closed, and comes again.
    }
  }
  void onWritable() override {}
  void onTimeout() override { watch_->readableWantedIs(taker_ != nullptr && *taker_); }

  std::string path_;
  KoPtr<Scheduler> loop_;
  Descriptor descriptor_;
  ino_t inode_ = 0;
  std::shared_ptr<Taker> taker_;
  std::unique_ptr<Velto::Platform::TimerControl> pause_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
};

class SocketConnector final : public ByteConnector {
 public:
  SocketConnector(const std::string& address, const KoPtr<Scheduler>& loop)
      : path_(socketPath(address)), loop_(loop) {}

  std::unique_ptr<ByteStream> connect() override {
    Descriptor descriptor = newSocket();
    if (!connectTo(descriptor.get(), path_)) fail("connect " + path_);
    return std::make_unique<SocketStream>(std::move(descriptor), *loop_);
  }

 private:
  std::string path_;
  KoPtr<Scheduler> loop_;
};

}  // namespace

std::string socketPath(const std::string& address) {
  if (!address.starts_with(scheme)) throw KoInvalidArgument("Unknown address - (" + address + ")");
  std::string path = address.substr(scheme.size());
  if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path) ||
      path.find('\0') != std::string::npos) {
    throw KoInvalidArgument("Not the path of a socket - (" + address + ")");
  }
  return path;
}

std::shared_ptr<ByteListener> listenTo(const std::string& address, mode_t mode,
                                       const KoPtr<Scheduler>& loop) {
  return std::make_shared<SocketListener>(address, mode, loop);
}

std::shared_ptr<ByteConnector> connectorTo(const std::string& address,
                                           const KoPtr<Scheduler>& loop) {
  return std::make_shared<SocketConnector>(address, loop);
}

}  // namespace detail

}  // namespace Korvo
