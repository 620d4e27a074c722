#include "rowTable.h"

#include <algorithm>

namespace netdb {

void RowTable::index() {
  // Packed rows are slow to visit in any order but their own: what is compared is taken out.
  struct Place {
    Korvo::IpGenPrefix prefix;
    RowNumber row;
  };
  std::vector<Place> order;
  order.reserve(rows_.size());
  for (auto row = rows_.begin(); row != rows_.end(); ++row) {
    order.push_back({(*row).get<"prefix">(), row.number()});
  }
  const auto before = [](const Place& a, const Place& b) { return a.prefix < b.prefix; };
  if (!std::is_sorted(order.begin(), order.end(), before)) {
    std::stable_sort(order.begin(), order.end(), before);
    PackedRows ordered;
    for (const Place& place : order) ordered.add(rows_[place.row]);
    rows_ = std::move(ordered);
  }

  // The order puts a prefix behind all that it contains. Read backwards, the prefixes that may
  // contain a row are therefore the ones already passed whose end has not been reached: a stack.
  enclosing_.assign(rows_.size(), none);
  std::vector<RowNumber> open;
  for (auto row = static_cast<RowNumber>(rows_.size()); row-- != 0;) {
    const Korvo::IpGenPrefix& prefix = order[row].prefix;
    while (!open.empty() && !order[open.back()].prefix.contains(prefix)) open.pop_back();
    if (!open.empty()) enclosing_[row] = open.back();
    open.push_back(row);
  }

  byCountry_.clear();
  for (auto row = rows_.begin(); row != rows_.end(); ++row) {
    auto country = byCountry_.find(*row);
    if (country == byCountry_.end()) country = byCountry_.try_emplace(row.row()).first;
    country->second.push_back(row.number());
  }
  for (auto& [row, numbers] : byCountry_) numbers.shrink_to_fit();
}

PrefixRow RowTable::lookup(const Korvo::IpGenAddr& addr) const {
  // The address as the most specific prefix there is: all prefixes that contain it come behind it.
  const auto bits = static_cast<Korvo::byte_t>(8 * addr.addressLengthBytes());
  const Korvo::IpGenPrefixReference wanted(addr.bytes(), addr.af(), bits);
  auto row = rows_.partitionPoint(
      [&](const PrefixView& other) { return other.view<"prefix">() < wanted; });
  // The row found may be a neighbour; the prefixes around it are the only other candidates.
  for (; row != rows_.end(); row = rows_.from(enclosing_[row.number()])) {
    if ((*row).view<"prefix">().contains(wanted)) return row.row();
  }
  return {};
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
        table_.add(row);
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
