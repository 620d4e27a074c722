#include "rowTable.h"

#include <algorithm>

namespace netdb {

void RowTable::index() {
  std::stable_sort(rows_.begin(), rows_.end(),
                   [](const PrefixRow& a, const PrefixRow& b) { return a.less<"prefix">(b); });

  // The order puts a prefix behind all that it contains. Read backwards, the prefixes that may
  // contain a row are therefore the ones already passed whose end has not been reached: a stack.
  enclosing_.assign(rows_.size(), none);
  std::vector<RowNumber> open;
  for (auto row = static_cast<RowNumber>(rows_.size()); row-- != 0;) {
    const Korvo::IpGenPrefixReference prefix = rows_[row].view<"prefix">();
    while (!open.empty() && !rows_[open.back()].view<"prefix">().contains(prefix)) open.pop_back();
    if (!open.empty()) enclosing_[row] = open.back();
    open.push_back(row);
  }

  byCountry_.clear();
  for (RowNumber row = 0; row < rows_.size(); ++row) byCountry_[rows_[row]].push_back(row);
}

const PrefixRow* RowTable::lookup(const Korvo::IpGenAddr& addr) const {
  // The address as the most specific prefix there is: all prefixes that contain it come behind it.
  const auto bits = static_cast<Korvo::byte_t>(8 * addr.addressLengthBytes());
  const Korvo::IpGenPrefixReference wanted(addr.bytes(), addr.af(), bits);
  const auto found = std::partition_point(rows_.begin(), rows_.end(), [&](const PrefixRow& row) {
    return row.view<"prefix">() < wanted;
  });
  if (found == rows_.end()) return nullptr;
  // The row found may be a neighbour; the prefixes around it are the only other candidates.
  for (auto row = static_cast<RowNumber>(found - rows_.begin()); row != none;
       row = enclosing_[row]) {
    if (rows_[row].view<"prefix">().contains(wanted)) return &rows_[row];
  }
  return nullptr;
}

const std::vector<RowTable::RowNumber>& RowTable::ofCountry(const std::string& country) const {
  static const std::vector<RowNumber> nothing;
  PrefixRow wanted;
  wanted.create();
  wanted.set<"country">(country);
  const auto found = byCountry_.find(wanted);
  return found == byCountry_.end() ? nothing : found->second;
}

std::optional<std::string> Subscriber::fault(const Korvo::byte_t* bytes, std::size_t length) const {
  if (const Korvo::RowFault fault = rowOps_->check(bytes, length)) return fault.text();
  if (complete_) return "a row after the end of the rows";
  return std::nullopt;
}

void Subscriber::take(const Korvo::byte_t* bytes, std::size_t length) {
  if (length == Korvo::rowHeaderLength &&
      Korvo::loadField<Korvo::len_t>(bytes + Korvo::rowLengthOffset) == length &&
      Korvo::loadField<std::uint16_t>(bytes + Korvo::rowTypeOffset) == endOfRowsType) {
    complete_ = true;
    return;
  }
  ++received_;
  std::optional<std::string> reason = fault(bytes, length);
  if (!reason) {
    try {
      PrefixRow row;
      row.adopt(bytes, length);
      if (row.view<"prefix">().af() == Korvo::unknown_) {
        reason = "a row without a prefix";
      } else {
        table_.add(std::move(row));
        bytes_ += length;
        return;
      }
    } catch (const Korvo::KoInvalidArgument& e) {
      reason = e.what();
    }
  }
  ++refused_;
  refusal_(received_, *reason);
}

}  // namespace netdb
