#pragma once

// Rows at rest. A row differs in few bytes from the one before it, above all where rows are in
// order: only these bytes are kept, and a whole row now and then, from which the others follow.
//
//   PackedRows rows;
//   rows.add(row);
//   for (const PrefixView each : rows) std::cout << each.view<"prefix">() << '\n';
//   const PrefixRow first = rows[0];

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "prefixRow.h"

namespace netdb {

/// The rows in the order in which they were added, byte for byte.
class PackedRows {
 public:
  using RowNumber = std::uint32_t;
  class Iterator;

  /// Throws KoNullRow for a null row.
  void add(const PrefixRow& row);

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  Iterator begin() const;
  /// An iterator to the row of this number, or the end if there is none.
  Iterator from(RowNumber number) const;
  std::default_sentinel_t end() const { return {}; }
  /// A copy of the row of this number, which is less than size().
  PrefixRow operator[](RowNumber number) const;

  /// An iterator to the first row for which `before` is false: the rows for which it is true stand
  /// in front of all others.
  template <typename Before>
  Iterator partitionPoint(Before before) const;

 private:
  using Bytes = std::vector<Korvo::byte_t>;

  /// A block begins with a whole row. Longer blocks would take a little less memory, and more time
  /// to find a row.
  static constexpr RowNumber rowsInBlock = 32;

  /// The whole row, where it lies: behind a mark.
  static PrefixView firstRow(const Bytes& block) { return PrefixView(block.data() + 1); }

  std::vector<Bytes> blocks_;
  RowNumber size_ = 0;
  Bytes last_;  // the row that was added last
};

/// Unpacks one row after the other into one buffer. Valid until a row is added.
class PackedRows::Iterator {
 public:
  Iterator(const PackedRows& rows, RowNumber number);

  /// The row, valid until the iterator moves on or ends.
  PrefixView operator*() const { return PrefixView(row_.data()); }
  /// A copy of the row.
  PrefixRow row() const;
  RowNumber number() const { return number_; }

  Iterator& operator++();
  bool operator==(std::default_sentinel_t) const { return number_ >= rows_->size_; }

 private:
  const PackedRows* rows_;
  RowNumber number_;
  const Korvo::byte_t* packed_ = nullptr;  // what follows the row in its block
  Bytes row_;
};

inline PackedRows::Iterator PackedRows::begin() const {
  return from(0);
}

inline PackedRows::Iterator PackedRows::from(RowNumber number) const {
  return {*this, number};
}

inline PrefixRow PackedRows::operator[](RowNumber number) const {
  return from(number).row();
}

template <typename Before>
PackedRows::Iterator PackedRows::partitionPoint(Before before) const {
  const auto behind = std::partition_point(
      blocks_.begin(), blocks_.end(), [&](const Bytes& block) { return before(firstRow(block)); });
  const auto blocksBefore = static_cast<RowNumber>(behind - blocks_.begin());
  // All rows of the last of these blocks may come before, but its first one does.
  Iterator row = from(blocksBefore == 0 ? 0 : (blocksBefore - 1) * rowsInBlock);
  while (row != end() && before(*row)) ++row;
  return row;
}

}  // namespace netdb
