#pragma once

// The rows of a table by pages, all as of one revision.

#include <cstdint>
#include <string>

#include "etcd.pb.h"

namespace Korvo::detail {

/// Pages are bounded by a span of oids: of a page that is bounded by a number of rows alone, a
/// server counts all rows behind it. The span follows the bytes that come.
class EtcdPage {
 public:
  /// `rows`: what the keys begin with.
  EtcdPage(std::string rows, std::int64_t revision) : rows_(std::move(rows)), revision_(revision) {}

  /// For the next rows.
  etcd::RangeRequest request();
  /// Goes on behind the rows that came; false: they were the last.
  bool goOn(const etcd::RangeResponse& page);

 private:
  std::string rows_;
  std::int64_t revision_;
  std::uint64_t next_ = 0;  ///< an oid
  std::uint64_t end_ = 0;   ///< behind the last one that was asked for
  std::uint64_t span_ = 1024;
};

}  // namespace Korvo::detail
