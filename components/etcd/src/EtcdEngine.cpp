#include <Korvo/EtcdTables.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>

#include "EtcdOutlet.h"
#include "EtcdQuestion.h"
#include "EtcdSource.h"

namespace Korvo {

namespace {
constexpr std::chrono::seconds shortestLease{2};
constexpr std::chrono::seconds longestLease{3600};
}  // namespace

EtcdEngine::EtcdEngine(const Options& options)
    : options_(options), counters_(std::make_shared<detail::EtcdCounters>()) {
  if (options.lease < shortestLease || options.lease > longestLease) {
    throw KoInvalidArgument("Lease out of range - (" + std::to_string(options.lease.count()) + ")");
  }
  if (options.mostOperations < 2) {
    throw KoInvalidArgument("Operations out of range - (" + std::to_string(options.mostOperations) +
                            ")");
  }
}

EtcdEngine::~EtcdEngine() = default;

std::shared_ptr<TableSource> EtcdEngine::source(const std::string& address,
                                                const KoPtr<Scheduler>& scheduler,
                                                const SubscriberOptions& options) {
  return std::make_shared<detail::EtcdSource>(detail::EtcdAddress(address),
                                              detail::EtcdSettings::fromEnvironment(), scheduler,
                                              options.heartbeat);
}

std::unique_ptr<TableOutlet> EtcdEngine::outlet(const std::string& address,
                                                const KoPtr<Scheduler>& scheduler,
                                                const PublisherOptions& options,
                                                TableSender& sender, TableOutlet::User& user) {
  return std::make_unique<detail::EtcdOutlet>(
      detail::EtcdAddress(address), detail::EtcdSettings::fromEnvironment(), scheduler, options_,
      options.keptTables, sender, user, counters_);
}

std::unique_ptr<TableQuestion> EtcdEngine::ask(const std::string& address,
                                               const KoPtr<Scheduler>& scheduler,
                                               TableQuestion::User& user) {
  return std::make_unique<detail::EtcdQuestion>(
      detail::EtcdAddress(address), detail::EtcdSettings::fromEnvironment(), scheduler, user);
}

void EtcdEngine::check(const std::string& address) const {
  static_cast<void>(detail::EtcdAddress(address));
  const auto settings = detail::EtcdSettings::fromEnvironment();
  if (settings.wantsTls()) static_cast<void>(settings.texts());
}

EtcdEngine::Counters EtcdEngine::counters() const {
  return {counters_->transactions, counters_->rows, counters_->retried, counters_->recognised};
}

void EtcdEngine::add() {
  static const std::shared_ptr<EtcdEngine> engine = std::make_shared<EtcdEngine>();
  TableEngine::add("etcd", engine);
}

}  // namespace Korvo
