#pragma once

// The subscriber's side: what stands in the cluster at one revision, and then what changes.

#include <Korvo/TableEngine.h>

#include <set>

#include "EtcdClient.h"
#include "EtcdKeys.h"
#include "EtcdPage.h"

namespace Korvo::detail {

class EtcdSource final : public TableSource, public std::enable_shared_from_this<EtcdSource> {
 public:
  EtcdSource(const EtcdAddress& address, const EtcdSettings& settings,
             const KoPtr<Scheduler>& scheduler, milliseconds heartbeat);

  std::unique_ptr<TableLink> connect(TableReceiver& receiver, TableLink::User& user) override;

 private:
  friend class EtcdLink;

  /// The last mark that was taken, and where it stood.
  struct Position {
    std::uint64_t cluster = 0;
    std::int64_t revision = 0;
    std::string text;
    EtcdMark mark;
  };

  /// The last state that was shown, and who wrote it, as far as that is known. It outlives a
  /// position.
  struct Shown {
    std::uint64_t history = 0;
    std::uint64_t sequence = 0;
    std::string owner;
  };

  const EtcdAddress address_;
  const EtcdKeys keys_;
  const milliseconds heartbeat_;
  EtcdClient client_;
  std::optional<Position> position_;
  Shown shown_;
  bool isPastTold_ = false;  ///< that the cluster has older states than was shown
  /// Tables that could not be taken there: they have no position, and need none to go on.
  std::set<std::string, std::less<>> refused_;
};

}  // namespace Korvo::detail
