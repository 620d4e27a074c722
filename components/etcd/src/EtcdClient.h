#pragma once

// Conversations with one member of a cluster at a time.
//
// Everything here is used from the scheduler's thread, and nothing on it waits: calls are begun
// there, a thread of the client's own takes what has come, and what was asked for is told in a turn
// of the client's unit. So the state of publishers and subscribers belongs to one thread.
//
// A conversation begins with begin(), which chooses a member and shows it who we are. What fails
// later is told to who asked; he ends the conversation and begins another, with the next member,
// when it is time.

#include <Korvo/Scheduler.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>

#include "EtcdAddress.h"
#include "etcd.pb.h"

namespace Korvo::detail {

using std::chrono::milliseconds;

/// What went wrong, and what it means to those who asked.
struct EtcdFault {
  enum class Kind {
    none,
    unavailable,  ///< no answer: whether it was done is not known
    tooMany,      ///< the request has more operations than the server takes
    tooLarge,     ///< or more bytes
    noSpace,
    denied,  ///< user, password or rights
    compacted,
    noLease,
    other
  };
  Kind kind = Kind::none;
  std::string text;

  explicit operator bool() const { return kind != Kind::none; }
};

/// Times between attempts: full jitter, so that clients that lost one server do not come back
/// together; 50 milliseconds doubling to five seconds.
class EtcdBackoff {
 public:
  void reset() { longest_ = first; }
  /// Faults that do not go away by themselves are not asked about often.
  void slowDown() { longest_ = last; }
  /// What may come to an end at any time is asked about every second, or oftener.
  void keepUp() { longest_ = std::min(longest_, waiting); }
  std::chrono::nanoseconds next();

 private:
  static constexpr milliseconds first{50};
  static constexpr milliseconds waiting{1000};
  static constexpr milliseconds last{5000};
  milliseconds longest_ = first;
  std::mt19937 random_{std::random_device()()};
};

class EtcdClient {
 public:
  template <typename Response>
  using Done = std::function<void(const EtcdFault& fault, Response& response)>;

  /// A stream of messages in both directions; destroying it ends it.
  template <typename Request>
  class Stream {
   public:
    virtual ~Stream() = default;
    virtual void send(const Request& request) = 0;
    /// Asks for the next message, which is not read before: who is slow is not flooded.
    virtual void next() = 0;
  };
  using WatchStream = Stream<etcd::WatchRequest>;
  using KeepAliveStream = Stream<etcd::LeaseKeepAliveRequest>;

  /// Throws KoInvalidArgument for files that cannot be read, std::system_error.
  EtcdClient(const EtcdAddress& address, const EtcdSettings& settings,
             const KoPtr<Scheduler>& scheduler);
  EtcdClient(const EtcdClient&) = delete;
  EtcdClient& operator=(const EtcdClient&) = delete;
  /// Nobody is told anything any more. Waits for the thread, which has nothing to wait for.
  ~EtcdClient();

  /// Goes on to the next member, and shows it user and password if there are any. Calls under way
  /// are cancelled, and those who asked are not told. Streams are ended by their users before.
  void begin(std::function<void(const EtcdFault& fault)> done);
  /// Ends the conversation: calls under way are cancelled, and those who asked are not told.
  void cancel();
  /// The member that is asked.
  const std::string& member() const;

  void range(const etcd::RangeRequest& request, Done<etcd::RangeResponse> done);
  void transact(const etcd::TxnRequest& request, Done<etcd::TxnResponse> done);
  void compact(const etcd::CompactionRequest& request, Done<etcd::CompactionResponse> done);
  void grant(const etcd::LeaseGrantRequest& request, Done<etcd::LeaseGrantResponse> done);
  void revoke(const etcd::LeaseRevokeRequest& request, Done<etcd::LeaseRevokeResponse> done);
  void status(Done<etcd::StatusResponse> done);

  /// `told` gets the first message, the others as they are asked for, and a fault as the last
  /// thing.
  std::unique_ptr<WatchStream> watch(Done<etcd::WatchResponse> told);
  std::unique_ptr<KeepAliveStream> keepAlive(Done<etcd::LeaseKeepAliveResponse> told);

  /// Runs what is under way to its end, for no longer than that: for a goodbye.
  void finish(milliseconds most);

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace Korvo::detail
