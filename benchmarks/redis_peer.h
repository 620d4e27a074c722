// A Redis server of one's own, over a Unix-domain socket.

#pragma once

#include <hiredis/hiredis.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace peers {

/// A folder for sockets, removed with them.
class Folder {
 public:
  Folder() {
    if (::mkdtemp(path_) == nullptr) throw std::runtime_error("mkdtemp");
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    ::unlink(socket().c_str());
    ::rmdir(path_);
  }
  std::string path() const { return path_; }
  std::string socket() const { return path() + "/socket"; }

 private:
  char path_[32] = "/tmp/korvo_peer_XXXXXX";
};

class RedisServer {
 public:
  RedisServer() {
    const std::string socket = folder_.socket();
    const std::string path = folder_.path();
    process_ = ::fork();
    if (process_ < 0) throw std::runtime_error("fork");
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // nobody else ends it if this process is killed
      ::execlp("redis-server", "redis-server", "--port", "0", "--unixsocket", socket.c_str(),
               "--save", "", "--appendonly", "no", "--dir", path.c_str(), "--logfile", "/dev/null",
               nullptr);
      ::_exit(127);
    }
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;
  ~RedisServer() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  std::string socket() const { return folder_.socket(); }

 private:
  Folder folder_;
  pid_t process_;
};

struct FreeRedis {
  void operator()(redisContext* context) const { redisFree(context); }
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeRedis>;

class Redis {
 public:
  /// Waits for the server, which may have been started just now.
  explicit Redis(const std::string& socket) {
    for (int tries = 0; tries < 500; ++tries) {
      context_.reset(redisConnectUnix(socket.c_str()));
      if (context_ != nullptr && context_->err == 0) return;
      ::usleep(10000);
    }
    throw std::runtime_error("redis-server does not answer; is it installed?");
  }

  void append(std::initializer_list<std::string_view> words) {
    std::array<const char*, 6> texts;
    std::array<std::size_t, 6> lengths;
    int count = 0;
    for (const std::string_view word : words) {
      texts.at(static_cast<std::size_t>(count)) = word.data();
      lengths.at(static_cast<std::size_t>(count++)) = word.size();
    }
    if (redisAppendCommandArgv(context_.get(), count, texts.data(), lengths.data()) != REDIS_OK) {
      throw std::runtime_error(context_->errstr);
    }
  }
  Reply reply() {
    void* reply = nullptr;
    if (redisGetReply(context_.get(), &reply) != REDIS_OK) {
      throw std::runtime_error(context_->errstr);
    }
    return Reply(static_cast<redisReply*>(reply));
  }

 private:
  std::unique_ptr<redisContext, FreeRedis> context_;
};

}  // namespace peers
