#include "packedRows.h"

#include <span>

namespace netdb {
namespace {

using Korvo::byte_t;
using Bytes = std::vector<byte_t>;

// A packed row is a zero and the whole row, or steps through the row before it, which is as long.
// A step is a byte of two numbers: of how many bytes both rows have the same, and how many behind
// them differ, which follow. No step is zero.
constexpr byte_t wholeRow = 0;
constexpr unsigned int differentBits = 3;  // fewer than for equal bytes, which stand in longer runs
constexpr unsigned int mostDifferent = (1U << differentBits) - 1;
constexpr unsigned int mostEqual = 0xFF >> differentBits;

void pack(std::span<const byte_t> row, std::span<const byte_t> previous, Bytes& packed) {
  if (row.size() != previous.size()) {
    packed.push_back(wholeRow);
    packed.insert(packed.end(), row.begin(), row.end());
    return;
  }
  std::size_t at = 0;
  const auto passRun = [&](bool equal, unsigned int most) {
    unsigned int length = 0;
    for (; length != most && at != row.size() && (row[at] == previous[at]) == equal; ++at) ++length;
    return length;
  };
  while (at != row.size()) {
    const unsigned int equal = passRun(true, mostEqual);
    const unsigned int different = passRun(false, mostDifferent);
    packed.push_back(static_cast<byte_t>(equal << differentBits | different));
    packed.insert(packed.end(), row.data() + at - different, row.data() + at);
  }
}

/// Turns the row before the packed one into that one; returns the end of the packed row.
const byte_t* unpack(const byte_t* packed, Bytes& row) {
  if (*packed == wholeRow) {
    ++packed;
    const byte_t* const end =
        packed + Korvo::loadField<Korvo::len_t>(packed + Korvo::rowLengthOffset);
    row.assign(packed, end);
    return end;
  }
  byte_t* at = row.data();
  for (const byte_t* const end = at + row.size(); at != end;) {
    const unsigned int step = *packed++;
    at += step >> differentBits;
    for (unsigned int left = step & mostDifferent; left != 0; --left) *at++ = *packed++;
  }
  return packed;
}

}  // namespace

void PackedRows::add(const PrefixRow& row) {
  const std::span<const byte_t> bytes(row.rowBuf(), row.rowLength());
  if (size_ % rowsInBlock == 0) {
    blocks_.emplace_back();
    last_.clear();  // the row is packed whole
  }
  pack(bytes, last_, blocks_.back());
  last_.assign(bytes.begin(), bytes.end());
  if (++size_ % rowsInBlock == 0) blocks_.back().shrink_to_fit();
}

PackedRows::Iterator::Iterator(const PackedRows& rows, RowNumber number)
    : rows_(&rows), number_(number) {
  if (number >= rows.size_) return;
  packed_ = rows.blocks_[number / rowsInBlock].data();
  for (RowNumber rowsLeft = number % rowsInBlock + 1; rowsLeft != 0; --rowsLeft) {
    packed_ = unpack(packed_, row_);
  }
}

PackedRows::Iterator& PackedRows::Iterator::operator++() {
  if (++number_ >= rows_->size_) return *this;
  if (number_ % rowsInBlock == 0) packed_ = rows_->blocks_[number_ / rowsInBlock].data();
  packed_ = unpack(packed_, row_);
  return *this;
}

PrefixRow PackedRows::Iterator::row() const {
  PrefixRow copy;
  copy.adopt(row_.data(), row_.size());
  return copy;
}

}  // namespace netdb
