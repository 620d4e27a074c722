#pragma once

// What is published under a name: asked once, and told as of one revision.

#include <Korvo/TableBrowser.h>
#include <Korvo/TableEngine.h>

#include "EtcdClient.h"
#include "EtcdKeys.h"

namespace Korvo::detail {

class EtcdQuestion final : public TableQuestion {
 public:
  EtcdQuestion(const EtcdAddress& address, const EtcdSettings& settings,
               const KoPtr<Scheduler>& scheduler, TableQuestion::User& user);

 private:
  using Fault = EtcdFault;

  void begin();
  void lose(const Fault& fault);
  void fail(const std::string& reason);
  void look();
  void looked(const etcd::TxnResponse& response);
  void readState(std::int64_t revision);
  void stateIs(const EtcdMark& mark, std::int64_t revision, std::int64_t readAt);
  void readLayout();

  const EtcdAddress address_;
  const EtcdKeys keys_;
  TableQuestion::User& user_;
  std::size_t untried_;  ///< members
  std::int64_t owner_ = 0;
  std::string ownerText_;
  PublisherInfo info_;
  std::int64_t revision_ = 0;  ///< at which layouts are read
  std::size_t next_ = 0;       ///< table without a layout
  EtcdClient client_;          // the last one: what it tells uses the others
};

}  // namespace Korvo::detail
