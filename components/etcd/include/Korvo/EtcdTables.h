#pragma once

// Tables across machines, on a cluster of etcd.
//
//   Korvo::EtcdEngine::add();                               // once, before an address is named
//   publisher.listen("etcd://a:2379,b:2379,c:2379/net/portAgent");
//   Korvo::TableSubscriber agent("etcd://a:2379,b:2379,c:2379/net/portAgent", loop);
//
// The rows stand in the cluster, each under its oid, and stay there when the publisher ends. One
// publisher at a time writes under a name: it holds a lease, and another one waits, with a text
// that tells who holds it, until that has ended. Subscribers see states of the publisher only, as
// they do on sockets; while no publisher holds the name their tables are stale.
//
// User, password and files for TLS are read when an address is used: from the file that
// KORVO_ETCD_SETTINGS names, with lines `user =`, `password =`, `ca =`, `certificate =` and `key
// =`, and from the variables KORVO_ETCD_USER, KORVO_ETCD_PASSWORD, KORVO_ETCD_CA,
// KORVO_ETCD_CERTIFICATE and KORVO_ETCD_KEY, which come first. With `ca` or `certificate` members
// are spoken to by TLS.

#include <Korvo/TableEngine.h>
#include <Korvo/export.h>

#include <chrono>
#include <cstdint>
#include <memory>

namespace Korvo {

namespace detail {
struct EtcdCounters;
}

/// How tables are carried over etcd.
struct EtcdOptions {
  /// How long the name of a publisher is held after it was last heard of; at least 2 seconds.
  std::chrono::seconds lease{10};
  /// Operations of a transaction, for a start: servers take 128 unless they are told otherwise
  /// (--max-txn-ops), and what they refuse is made smaller. At least 2.
  std::size_t mostOperations = 4096;
};

/// Carries tables over etcd. Its functions may be called from every thread.
class KORVO_API EtcdEngine final : public TableEngine {
 public:
  /// For short.
  using Options = EtcdOptions;

  /// Of all publishers of this engine.
  struct Counters {
    std::uint64_t transactions = 0;  ///< that were made
    std::uint64_t rows = 0;          ///< that they wrote
    std::uint64_t retried = 0;       ///< that were sent again, since no answer had come
    std::uint64_t recognised = 0;    ///< of which it was found out later that they had been made
  };

  /// Throws KoInvalidArgument for an option out of range.
  explicit EtcdEngine(const Options& options = {});
  ~EtcdEngine() override;

  std::shared_ptr<TableSource> source(const std::string& address, const KoPtr<Scheduler>& scheduler,
                                      const SubscriberOptions& options) override;
  std::unique_ptr<TableOutlet> outlet(const std::string& address, const KoPtr<Scheduler>& scheduler,
                                      const PublisherOptions& options, TableSender& sender,
                                      TableOutlet::User& user) override;
  /// Tells the last state that is there, also if nobody publishes it any more.
  std::unique_ptr<TableQuestion> ask(const std::string& address, const KoPtr<Scheduler>& scheduler,
                                     TableQuestion::User& user) override;
  /// Reads the settings, too.
  void check(const std::string& address) const override;
  /// What its publishers have done until now.
  Counters counters() const;

  using TableEngine::add;
  /// Addresses that begin with "etcd:" are carried by an engine with the default options. Calling
  /// it again does nothing.
  static void add();

 private:
  Options options_;
  std::shared_ptr<detail::EtcdCounters> counters_;
};

}  // namespace Korvo
