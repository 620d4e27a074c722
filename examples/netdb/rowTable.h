#pragma once

// The subscriber's side: rows are checked, kept, and indexed with the library's own operations.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "packedRows.h"
#include "rowOps.h"

namespace netdb {

/// The rows of the table, in the order of their prefixes once indexed.
class RowTable {
 public:
  using RowNumber = PackedRows::RowNumber;

  void add(const PrefixRow& row) { rows_.add(row); }
  const PackedRows& rows() const { return rows_; }

  /// Orders the rows by prefix and builds the indexes; to be called once all rows are in.
  void index();

  /// A copy of the row of the most specific prefix that contains the address, or a null row.
  PrefixRow lookup(const Korvo::IpGenAddr& addr) const;

  /// The rows of a country, in the order of their prefixes.
  const std::vector<RowNumber>& ofCountry(const std::string& country) const;

 private:
  // The library compares and hashes columns in place; a row stands for its country.
  struct CountryHash {
    using is_transparent = void;
    std::size_t operator()(const auto& row) const { return row.template hash<"country">(); }
  };
  struct CountryEqual {
    using is_transparent = void;
    bool operator()(const auto& a, const auto& b) const { return a.template equal<"country">(b); }
  };
  static constexpr RowNumber none = 0xFFFFFFFF;

  PackedRows rows_;
  std::vector<RowNumber> enclosing_;  // of each row, the next wider prefix that contains it
  std::unordered_map<PrefixRow, std::vector<RowNumber>, CountryHash, CountryEqual> byCountry_;
};

/// Takes what arrives from a publisher and refuses what is no row of the table, of which it asks
/// the registry's row operations.
class Subscriber {
 public:
  /// Told of each row that is refused: its number in the stream, from 1, and the reason.
  using Refusal = std::function<void(std::uint64_t number, const std::string& reason)>;

  Subscriber(RowTable& table, Refusal refusal)
      : table_(table),
        rowOps_(Korvo::getRowOps(prefixTable, prefixVersion)),
        refusal_(std::move(refusal)) {}

  /// Takes one packet. After the end mark, further rows are refused.
  void take(const Korvo::byte_t* bytes, std::size_t length);

  std::uint64_t received() const { return received_; }
  std::uint64_t refused() const { return refused_; }
  std::uint64_t bytes() const { return bytes_; }
  /// Whether the publisher has told that all rows have been sent.
  bool complete() const { return complete_; }

 private:
  std::optional<std::string> fault(const Korvo::byte_t* bytes, std::size_t length) const;

  RowTable& table_;
  Korvo::RowOps_p_t rowOps_;
  Refusal refusal_;
  std::uint64_t received_ = 0;
  std::uint64_t refused_ = 0;
  std::uint64_t bytes_ = 0;
  bool complete_ = false;
};

}  // namespace netdb
