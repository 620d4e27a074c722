#pragma once

// The layouts that the row targets work on, rows over a layout that is known at run time only, and
// rows built from an input.

#include <Korvo/TableRow.h>
#include <Korvo/rowCheck.h>

#include <iterator>

#include "fuzz_support.h"

namespace fuzz {

using namespace Korvo;

// ---------------------------------------------------------------------------------------------
// Layouts

using Leaf = RowLayout<3, Column<"flag", bool>, Column<"text", std::string>,
                       Column<"flags", std::vector<bool>>>;
using Middle = RowLayout<2, Column<"nets", std::vector<IpGenPrefix>>, Column<"leaf", Nested<Leaf>>,
                         Column<"addr", IpGenAddr>>;
using Mixed =
    RowLayout<1, Column<"u8", std::uint8_t>, Column<"text", std::string>, Column<"i16", short>,
              Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>, Column<"u64", std::uint64_t>,
              Column<"texts", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"real", double>, Column<"nets", std::vector<IpGenPrefix>>,
              Column<"flags", std::vector<bool>>, Column<"middle", Nested<Middle>>,
              Column<"single", float>, Column<"flag", bool>, Column<"v4", IpAddr>,
              Column<"v6", Ip6Addr>, Column<"other", std::string>>;
using NoColumns = RowLayout<4>;
using Numbers = RowLayout<7, Column<"u16", std::uint16_t>, Column<"u32", std::uint32_t>,
                          Column<"i8", std::int8_t>, Column<"i32", std::int32_t>,
                          Column<"i64", std::int64_t>, Column<"late", double, 40>>;

namespace detail {

template <std::size_t I>
constexpr ColumnName<3> columnName = {
    {static_cast<char>('a' + I / 10), static_cast<char>('0' + I % 10), '\0'}};
template <std::size_t... I>
auto wideLayout(std::index_sequence<I...>) -> RowLayout<5, Column<columnName<I>, std::string>...>;

extern const LayoutInfo endless;
inline const ColumnInfo endlessColumns[] = {{"text", stringType_, 8, 4, false, nullptr},
                                            {"next", structType_, 12, 4, false, &endless},
                                            {"list", structType_, 16, 4, true, &endless}};
inline const LayoutInfo endless = {6, 20, endlessColumns};

}  // namespace detail

/// More columns than a row compacts without allocating.
using Wide = decltype(detail::wideLayout(std::make_index_sequence<70>()));

/// The last one nests itself and has arrays of nested rows, which only a layout made by hand can.
inline const LayoutInfo* const rowLayouts[] = {&Mixed::info,     &Middle::info, &Leaf::info,
                                               &NoColumns::info, &Wide::info,   &Numbers::info,
                                               &detail::endless};

inline bool hasSlot(const ColumnInfo& column) {
  return column.isArray || korvoTypeIsVariableLength(column.type);
}

// ---------------------------------------------------------------------------------------------
// Rows

/// A row of any layout, fully defined or append-only.
class AnyRow : public BaseRow {
 public:
  AnyRow(const LayoutInfo& layout, bool fullyDefined)
      : layout_(&layout), fullyDefined_(fullyDefined) {
    for (const ColumnInfo& column : layout.columns) {
      if (hasSlot(column)) slots_.push_back(column.offset);
    }
  }
  /// Takes the bytes as they are, into a block of exactly their size.
  AnyRow(const LayoutInfo& layout, bool fullyDefined, const Bytes& bytes)
      : AnyRow(layout, fullyDefined) {
    auto* const block = static_cast<byte_t*>(std::malloc(bytes.size()));
    FUZZ_REQUIRE(block != nullptr);
    std::copy(bytes.begin(), bytes.end(), block);
    rowBuf_ = KoPtr<KoRowBuf>(new KoRowBuf(block));
  }

  const LayoutInfo& layout() const { return *layout_; }
  vcdType& vcd() const override { return slots_; }
  len_t columnOffset(const std::string& name) const override {
    return Korvo::detail::offsetOf(*layout_, name);
  }
  len_t baseRowLength() override { return layout_->baseLength; }
  bool isFullyDefined() const override { return fullyDefined_; }
  std::string toJson() const override { return Korvo::detail::rowAsJson(*this, *layout_); }

  long useCount() const { return rowBuf_.use_count(); }

 private:
  const LayoutInfo* layout_;
  bool fullyDefined_;
  mutable vcdType slots_;
};

inline Bytes bytesOf(const BaseRow& row) {
  return {row.rowBuf(), row.rowBuf() + row.rowLength()};
}

// ---------------------------------------------------------------------------------------------
// Values

inline IpGenAddr addrFrom(Input& input) {
  const std::size_t kind = input.below(4);
  if (kind == 0) return {};
  Bytes bytes = input.bytes(kind == 1 ? 16 : 4);
  bytes.resize(16);
  return {kind == 1 ? ipv6_ : ipv4_, bytes.data()};
}

/// Host bits are set or cleared.
inline IpGenPrefix prefixFrom(Input& input) {
  const IpGenAddr addr = addrFrom(input);
  const std::size_t mask = input.byte();
  IpGenPrefix prefix(addr, static_cast<unsigned int>(addr.af() == unknown_
                                                         ? mask
                                                         : mask % (addr.af() == ipv4_ ? 33 : 129)));
  if (input.flag()) prefix.clearLowerAddrBits();
  return prefix;
}

template <typename T>
T valueFrom(Input& input) {
  if constexpr (std::is_same_v<T, bool>) {
    return input.flag();
  } else if constexpr (std::is_same_v<T, std::string>) {
    return input.text(input.below(12));
  } else if constexpr (std::is_same_v<T, IpGenAddr>) {
    return addrFrom(input);
  } else {
    return prefixFrom(input);
  }
}

template <typename T>
std::vector<T> arrayFrom(Input& input) {
  std::vector<T> values(input.below(6));
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = valueFrom<T>(input);
  return values;
}

// ---------------------------------------------------------------------------------------------
// Rows built without the library: gaps, order and values are the input's

inline void putWord(Bytes& bytes, std::size_t at, std::size_t value) {
  bytes.at(at) = static_cast<std::uint8_t>(value);
  bytes.at(at + 1) = static_cast<std::uint8_t>(value >> 8);
}

inline void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes builtRow(Input& input, const LayoutInfo& layout, unsigned int depth);

inline Bytes builtValue(Input& input, const ColumnInfo& column, unsigned int depth) {
  switch (column.type) {
    case boolType_:
      return {input.byte()};
    case structType_: {
      if (depth == 0) return {};
      Bytes row = builtRow(input, *column.nested, depth - 1);
      putWord(row, 2, column.nested->rowType);
      return row;
    }
    case ipGenAddrType_:
    case ipGenPrefixType_: {
      const std::size_t kind = input.below(8);
      std::size_t size = kind == 0 ? 0 : kind < 4 ? 16 : 4;
      Bytes value;
      if (column.type == ipGenPrefixType_ && size != 0) {
        value.push_back(static_cast<std::uint8_t>(input.byte() % (8 * size + 1)));
        ++size;
      }
      append(value, input.bytes(size - value.size()));
      value.resize(size);
      return value;
    }
    default:
      return input.bytes(input.below(20));
  }
}

inline Bytes builtArray(Input& input, const ColumnInfo& column, unsigned int depth) {
  // An element cannot be an empty row.
  const std::size_t count = column.type == structType_ && depth == 0 ? 0 : input.below(6);
  const std::size_t kept = input.byte() & 0xE0U;  // bits that nobody interprets
  if (column.type == boolType_) {
    Bytes array = {static_cast<std::uint8_t>(count), static_cast<std::uint8_t>(kept)};
    append(array, input.bytes(count));
    array.resize(2 + count);
    return array;
  }
  Bytes array(2 + 4 * count);
  putWord(array, 0, count | (kept | 0x10) << 8);
  for (std::size_t i = 0; i < count; ++i) {
    const Bytes value = builtValue(input, column, depth);
    putWord(array, 2 + 4 * i, array.size());
    putWord(array, 4 + 4 * i, value.size());
    append(array, value);
  }
  return array;
}

/// A row that passes the check, unless its values exceed what a row or a slot can hold.
inline Bytes builtRow(Input& input, const LayoutInfo& layout, unsigned int depth) {
  Bytes row = input.bytes(layout.baseLength);
  row.resize(layout.baseLength);
  std::vector<const ColumnInfo*> order;
  for (const ColumnInfo& column : layout.columns) {
    if (!hasSlot(column)) continue;
    putWord(row, column.offset + 2U, 0);  // empty, with any offset
    order.push_back(&column);
  }
  for (std::size_t left = input.below(order.size() + 1); left != 0; --left) {
    // Values come in any order.
    const std::size_t pick = input.below(order.size());
    const ColumnInfo& column = *order[pick];
    order.erase(order.begin() + static_cast<std::ptrdiff_t>(pick));
    const Bytes value =
        column.isArray ? builtArray(input, column, depth) : builtValue(input, column, depth);
    append(row, Bytes(input.below(16) % 8 == 7 ? input.below(40) : 0));  // a gap
    putWord(row, column.offset, row.size());
    putWord(row, column.offset + 2U, (value.size() & 0x7FFF) | (column.isArray ? 0x8000U : 0U));
    append(row, value);
  }
  putWord(row, 0, row.size());
  return row;
}

}  // namespace fuzz
