#include "EtcdPage.h"

#include <algorithm>

#include "EtcdKeys.h"

namespace Korvo::detail {

namespace {
constexpr std::uint64_t endOfOids = std::uint64_t{1} << 32;
constexpr std::uint64_t leastSpan = 16;
constexpr std::int64_t mostRows = 8192;
constexpr std::size_t wantedBytes = std::size_t{1} << 20;
}  // namespace

etcd::RangeRequest EtcdPage::request() {
  end_ = std::min(next_ + span_, endOfOids);
  etcd::RangeRequest request;
  request.set_key(rows_ + oidDigits(static_cast<oid_t>(next_)));
  request.set_range_end(end_ == endOfOids ? EtcdKeys::endOf(rows_)
                                          : rows_ + oidDigits(static_cast<oid_t>(end_)));
  request.set_limit(mostRows);
  request.set_revision(revision_);
  return request;
}

bool EtcdPage::goOn(const etcd::RangeResponse& page) {
  if (!page.more() && end_ == endOfOids) return false;
  std::size_t bytes = 0;
  for (const etcd::KeyValue& kv : page.kvs()) bytes += kv.key().size() + kv.value().size();
  std::uint64_t next = end_;
  // Keys of another form, which nobody should have written, do not count.
  for (int i = page.kvs_size(); page.more() && i-- > 0;) {
    const std::optional<oid_t> oid =
        oidOf(std::string_view(page.kvs(i).key()).substr(rows_.size()));
    if (!oid) continue;
    next = std::uint64_t{*oid} + 1;
    break;
  }
  next_ = next;
  if (page.more() || bytes > 2 * wantedBytes) {
    span_ = std::max(span_ / 4, leastSpan);
  } else if (bytes < wantedBytes / 2) {
    span_ = std::min(2 * span_, endOfOids);
  }
  return true;
}

}  // namespace Korvo::detail
