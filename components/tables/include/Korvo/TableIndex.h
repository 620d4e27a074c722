#pragma once

// Finding rows of a table by their columns. Indexes come from a table and live as long as it:
//
//   auto& byName = ports.equal<"name">();
//   for (const Port& port : byName.find("eth0")) std::cout << port << '\n';
//   auto& byNet = ports.longestPrefix<"net">();
//   std::cout << byNet.find(Korvo::IpGenAddr("10.1.0.9")).view<"name">() << '\n';
//
// What they give are rows that share the table's buffers. Going through rows stays valid while
// other rows are put and removed.

#include <Korvo/TableKey.h>
#include <Korvo/TableRow.h>
#include <Korvo/export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Korvo {

class AnyTable;
class RowFilter;

namespace detail {

class TableStore;
class TableIndex;

/// Where a row stands in its table.
using Slot = std::uint32_t;
inline constexpr Slot noSlot = 0xFFFFFFFF;

enum class IndexKind : byte_t { equal, unique, ordered, longestPrefix };

/// Makes the bytes of a row's key. The row owns its buffer.
using KeyFunction = std::function<std::string(const BaseRow& row)>;

/// What is looked for in an index of prefixes: an address counts as the prefix of all its bits.
struct WantedPrefix {
  // NOLINTNEXTLINE(google-explicit-constructor)
  WantedPrefix(const IpGenAddr& addr)
      : af(addr.af()),
        bytes(addr.bytes()),
        length(8 * static_cast<unsigned int>(encodedAddressLength(addr.af()))) {}
  // NOLINTNEXTLINE(google-explicit-constructor)
  WantedPrefix(const IpGenPrefix& prefix)
      : af(prefix.addr().af()),
        bytes(prefix.addr().bytes()),
        length(static_cast<unsigned int>(prefix.mask())) {}
  AddressFamily af;
  const byte_t* bytes;  ///< of the address or the prefix, which must outlive this
  unsigned int length;
};

/// What the templates are made of.
struct KORVO_API TableAccess {
  static TableStore& store(const AnyTable& table);
  static Slot slotFrom(const TableStore& store, Slot slot);
  static void share(const TableStore& store, Slot slot, BaseRow& row);

  static TableIndex& index(TableStore& store, IndexKind kind, std::span<const std::size_t> columns);
  static TableIndex& index(TableStore& store, IndexKind kind, KeyFunction function);
  /// What the index's user keeps with it.
  static std::shared_ptr<void>& handle(TableStore& store, const TableIndex& index);

  using Key = std::span<const KeyPart>;
  static Slot equalFind(const TableIndex& index, Key key);
  static std::size_t duplicates(const TableIndex& index);
  /// Rows of this key; it may have fewer parts than the index.
  static RowFilter ofKey(const TableStore& store, const TableIndex& index, Key key);
  /// Rows of the prefixes inside this one.
  static RowFilter ofPrefix(const TableStore& store, const TableIndex& index,
                            const WantedPrefix& wanted);
  static Slot lowerBound(const TableIndex& index, Key key);
  static Slot upperBound(const TableIndex& index, Key key);
  static Slot first(const TableIndex& index);
  static Slot last(const TableIndex& index);
  static Slot mostSpecific(const TableIndex& index, const WantedPrefix& wanted);
  static Slot exact(const TableIndex& index, const WantedPrefix& wanted);
  static std::vector<Slot> covering(const TableIndex& index, const WantedPrefix& wanted);
  static std::vector<Slot> inside(const TableIndex& index, const WantedPrefix& wanted);

  // Steps from a row to the next one; `source` is the store or the index.
  static Slot nextSlot(const void* source, Slot slot);
  static Slot nextEqual(const void* source, Slot slot);
  static Slot nextOrdered(const void* source, Slot slot);
  static Slot nextSamePrefix(const void* source, Slot slot);
};

/// What a column of type T is looked for by.
template <typename T>
struct Lookup {
  using Type = T;
  static KeyPart part(T value) {
    if constexpr (std::is_same_v<T, IpAddr>) {
      const unsigned int word = value.addr();
      return KeyPart::ofAddress(ipv4_, reinterpret_cast<const byte_t*>(&word));
    } else if constexpr (std::is_same_v<T, Ip6Addr>) {
      return KeyPart::ofAddress(ipv6_, value.bytes());
    } else if constexpr (std::is_floating_point_v<T>) {
      return KeyPart::ofDouble(double{value});
    } else if constexpr (std::is_signed_v<T>) {
      return KeyPart::ofSigned(value);
    } else {
      return KeyPart::ofUnsigned(value);
    }
  }
};
template <>
struct Lookup<std::string> {
  using Type = std::string_view;
  static KeyPart part(std::string_view value) { return KeyPart::ofText(value); }
};
template <>
struct Lookup<IpGenAddr> {
  using Type = const IpGenAddr&;
  static KeyPart part(const IpGenAddr& value) {
    return KeyPart::ofAddress(value.af(), value.bytes());
  }
};
template <>
struct Lookup<IpGenPrefix> {
  using Type = const IpGenPrefix&;
  static KeyPart part(const IpGenPrefix& value) {
    return KeyPart::ofPrefix(value.addr().af(), value.addr().bytes(), value.mask());
  }
};
/// Integers may come as any type; throws KoOutOfRange for one that the column cannot hold.
template <typename T, typename Value>
KeyPart partFor(const Value& value) {
  if constexpr (std::is_integral_v<T> && std::is_integral_v<Value> && !std::is_same_v<T, bool> &&
                !std::is_same_v<Value, bool>) {
    if (!std::in_range<T>(value)) throw KoOutOfRange("Value out of the column's range");
    return Lookup<T>::part(static_cast<T>(value));
  } else {
    return Lookup<T>::part(value);
  }
}
/// What a function that computes a key of a row gives.
template <typename Row, typename Function>
struct ComputedKey {
  using Result = std::remove_cvref_t<std::invoke_result_t<const Function&, const Row&>>;
  using Type =
      std::conditional_t<std::is_convertible_v<Result, std::string_view>, std::string, Result>;

  static KeyFunction of(Function function) {
    return [function = std::move(function)](const BaseRow& held) {
      Row row;
      row.shareContents(held);
      const auto& value = function(std::as_const(row));
      const KeyPart part = Lookup<Type>::part(value);
      return std::string(part.bytes());
    };
  }
};

}  // namespace detail

/// Which rows of a table a reader is told of; see AnyTableReader::only(). Indexes make them.
class RowFilter {
 public:
  /// Tells whether a row is one of them.
  using Matches = std::function<bool(const BaseRow& row)>;

 private:
  friend class AnyTableReader;
  friend struct detail::TableAccess;
  RowFilter(const detail::TableStore* store, Matches matches)
      : store_(store), matches_(std::move(matches)) {}

  const detail::TableStore* store_;  ///< null: of any table
  Matches matches_;
};

/// Goes through rows of a table; each is a value that shares the table's buffer.
template <typename Row>
class RowIterator {
 public:
  /// As iterators have it.
  using value_type = Row;
  /// As iterators have it.
  using difference_type = std::ptrdiff_t;
  /// As iterators have it.
  using iterator_category = std::input_iterator_tag;
  /// Steps from a row to the next one.
  using Next = detail::Slot (*)(const void* source, detail::Slot slot);

  RowIterator() = default;
  /// Behind the last row.
  RowIterator(const detail::TableStore& store, const void* source, Next next, detail::Slot slot)
      : store_(&store), source_(source), next_(next), slot_(slot) {}

  /// The row, which shares the table's buffer.
  Row operator*() const {
    Row row;
    detail::TableAccess::share(*store_, slot_, row);
    return row;
  }
  /// To the next row.
  RowIterator& operator++() {
    slot_ = next_(source_, slot_);
    return *this;
  }
  RowIterator operator++(int) {
    RowIterator before = *this;
    ++*this;
    return before;
  }
  /// Whether both stand on one row, or behind the last one.
  friend bool operator==(const RowIterator& a, const RowIterator& b) { return a.slot_ == b.slot_; }

 private:
  const detail::TableStore* store_ = nullptr;
  const void* source_ = nullptr;
  Next next_ = nullptr;
  detail::Slot slot_ = detail::noSlot;
};

/// Rows from one up to another.
template <typename Row>
class RowRange {
 public:
  /// From one row up to another.
  RowRange(RowIterator<Row> begin, RowIterator<Row> end) : begin_(begin), end_(end) {}
  /// Its first row.
  RowIterator<Row> begin() const { return begin_; }
  /// Behind its last row.
  RowIterator<Row> end() const { return end_; }
  /// Whether there is no row.
  bool empty() const { return begin_ == end_; }
  /// The first row, or a null row.
  Row front() const { return empty() ? Row() : *begin_; }

 private:
  RowIterator<Row> begin_;
  RowIterator<Row> end_;
};

namespace detail {

/// What indexes of a row class have in common.
template <typename Row>
class IndexHandle {
 public:
  /// For the table, which makes it.
  IndexHandle(const TableStore& store, const TableIndex& index) : store_(store), index_(index) {}
  IndexHandle(const IndexHandle&) = delete;
  IndexHandle& operator=(const IndexHandle&) = delete;

 protected:
  ~IndexHandle() = default;

  /// The row of a place, or a null row.
  Row rowAt(Slot slot) const {
    Row row;
    if (slot != noSlot) TableAccess::share(store_, slot, row);
    return row;
  }
  /// The rows of these places.
  std::vector<Row> rowsAt(const std::vector<Slot>& slots) const {
    std::vector<Row> rows;
    rows.reserve(slots.size());
    for (const Slot slot : slots) rows.push_back(rowAt(slot));
    return rows;
  }
  /// Rows from one place up to another.
  RowRange<Row> range(typename RowIterator<Row>::Next next, Slot begin, Slot end) const {
    return {{store_, &index_, next, begin}, {store_, &index_, next, end}};
  }

  const TableStore& store_;  ///< where the rows are
  const TableIndex& index_;  ///< what the rows are found by
};

}  // namespace detail

/// Rows by keys of these types: the values of their columns, or what a function computes of them.
template <typename Row, typename... Keys>
class EqualIndex : public detail::IndexHandle<Row> {
 public:
  /// For the table, which makes it.
  static constexpr detail::IndexKind kind = detail::IndexKind::equal;
  using detail::IndexHandle<Row>::IndexHandle;

  /// The rows that have these values, in no order.
  RowRange<Row> find(typename detail::Lookup<Keys>::Type... values) const {
    const std::array key = {detail::Lookup<Keys>::part(values)...};
    return this->range(detail::TableAccess::nextEqual,
                       detail::TableAccess::equalFind(this->index_, key), detail::noSlot);
  }
  /// How many rows have values that another row has, too.
  std::size_t duplicates() const { return detail::TableAccess::duplicates(this->index_); }
  /// For readers: the rows that have these values.
  RowFilter watch(typename detail::Lookup<Keys>::Type... values) const {
    const std::array key = {detail::Lookup<Keys>::part(values)...};
    return detail::TableAccess::ofKey(this->store_, this->index_, key);
  }
};

/// Rows by values that no two of them have. A copy of another process' table is as its owner has
/// it, so there may be such rows after all.
template <typename Row, typename... Keys>
class UniqueIndex : public detail::IndexHandle<Row> {
 public:
  /// For the table, which makes it.
  static constexpr detail::IndexKind kind = detail::IndexKind::unique;
  using detail::IndexHandle<Row>::IndexHandle;

  /// The row that has these values, or a null row. Of several rows it is any one.
  Row find(typename detail::Lookup<Keys>::Type... values) const {
    const std::array key = {detail::Lookup<Keys>::part(values)...};
    return this->rowAt(detail::TableAccess::equalFind(this->index_, key));
  }
  /// How many rows have values that another row has, too: none in a table of this process.
  std::size_t duplicates() const { return detail::TableAccess::duplicates(this->index_); }
  /// For readers: the rows that have these values.
  RowFilter watch(typename detail::Lookup<Keys>::Type... values) const {
    const std::array key = {detail::Lookup<Keys>::part(values)...};
    return detail::TableAccess::ofKey(this->store_, this->index_, key);
  }
};

/// Rows in the order of their columns, and rows of the same values in the order of their oids.
/// Numbers are ordered by value, text byte by byte, addresses by family and bytes, prefixes by
/// family, address and length.
template <typename Row, typename... Keys>
class OrderedIndex : public detail::IndexHandle<Row> {
 public:
  /// For the table, which makes it.
  static constexpr detail::IndexKind kind = detail::IndexKind::ordered;
  using detail::IndexHandle<Row>::IndexHandle;

  /// The first row of all.
  RowIterator<Row> begin() const { return all().begin(); }
  /// Behind the last row.
  RowIterator<Row> end() const { return all().end(); }
  /// All rows.
  RowRange<Row> all() const {
    return range(detail::TableAccess::first(this->index_), detail::noSlot);
  }
  /// The first row and the last one, or null rows.
  Row first() const { return this->rowAt(detail::TableAccess::first(this->index_)); }
  /// The last row, or a null row.
  Row last() const { return this->rowAt(detail::TableAccess::last(this->index_)); }

  // Bounds may be values of the first columns alone.

  /// The rows of these values.
  template <typename... Values>
  RowRange<Row> find(const Values&... values) const {
    return withKey(
        [this](auto key) {
          return range(detail::TableAccess::lowerBound(this->index_, key),
                       detail::TableAccess::upperBound(this->index_, key));
        },
        values...);
  }
  /// The rows that are not before these values.
  template <typename... Values>
  RowRange<Row> from(const Values&... values) const {
    return withKey(
        [this](auto key) {
          return range(detail::TableAccess::lowerBound(this->index_, key), detail::noSlot);
        },
        values...);
  }
  /// The rows that are before these values.
  template <typename... Values>
  RowRange<Row> before(const Values&... values) const {
    return withKey(
        [this](auto key) {
          const detail::Slot end = detail::TableAccess::lowerBound(this->index_, key);
          const detail::Slot first = detail::TableAccess::first(this->index_);
          return range(first, end);
        },
        values...);
  }
  /// For readers: the rows of these values.
  template <typename... Values>
  RowFilter watch(const Values&... values) const {
    return withKey(
        [this](auto key) { return detail::TableAccess::ofKey(this->store_, this->index_, key); },
        values...);
  }

 private:
  RowRange<Row> range(detail::Slot begin, detail::Slot end) const {
    return detail::IndexHandle<Row>::range(detail::TableAccess::nextOrdered, begin, end);
  }
  template <typename Use, typename... Values>
  static auto withKey(const Use& use, const Values&... values) {
    static_assert(sizeof...(Values) > 0 && sizeof...(Values) <= sizeof...(Keys),
                  "a value for each of the first columns");
    return withParts(use, std::index_sequence_for<Values...>(), values...);
  }
  template <typename Use, std::size_t... I, typename... Values>
  static auto withParts(const Use& use, std::index_sequence<I...>, const Values&... values) {
    using Types = std::tuple<Keys...>;
    const std::array key = {detail::partFor<std::tuple_element_t<I, Types>>(values)...};
    return use(std::span<const detail::KeyPart>(key));
  }
};

/// Rows by a column of prefixes; host bits do not count, and rows without a prefix are not found.
template <typename Row>
class PrefixIndex : public detail::IndexHandle<Row> {
 public:
  /// For the table, which makes it.
  static constexpr detail::IndexKind kind = detail::IndexKind::longestPrefix;
  using detail::IndexHandle<Row>::IndexHandle;

  /// The row of the most specific prefix that contains the address or the whole of the prefix, or a
  /// null row. Of several rows of that prefix it is any one.
  Row find(const IpGenAddr& addr) const { return mostSpecific(addr); }
  Row find(const IpGenPrefix& prefix) const { return mostSpecific(prefix); }
  /// The rows of exactly this prefix.
  RowRange<Row> exact(const IpGenPrefix& prefix) const {
    return this->range(detail::TableAccess::nextSamePrefix,
                       detail::TableAccess::exact(this->index_, prefix), detail::noSlot);
  }
  /// The rows of all prefixes that contain the address or the whole of the prefix, the widest
  /// first.
  std::vector<Row> covering(const IpGenAddr& addr) const {
    return this->rowsAt(detail::TableAccess::covering(this->index_, addr));
  }
  std::vector<Row> covering(const IpGenPrefix& prefix) const {
    return this->rowsAt(detail::TableAccess::covering(this->index_, prefix));
  }
  /// The rows of all prefixes that lie in this one, itself included, by address and then by length.
  std::vector<Row> inside(const IpGenPrefix& prefix) const {
    return this->rowsAt(detail::TableAccess::inside(this->index_, prefix));
  }
  /// For readers: the rows of all prefixes that lie in this one, itself included.
  RowFilter watch(const IpGenPrefix& prefix) const {
    return detail::TableAccess::ofPrefix(this->store_, this->index_, prefix);
  }

 private:
  Row mostSpecific(const detail::WantedPrefix& wanted) const {
    return this->rowAt(detail::TableAccess::mostSpecific(this->index_, wanted));
  }
};

/// An index of columns that are named at run time. It lives as long as its table; copies are the
/// same index.
class KORVO_API AnyEqualIndex {
 public:
  /// The oids of the rows that have the values of `like` in the index's columns, in no order.
  /// `like` is a row of the table's layout. Throws KoNullRow for a null row.
  std::vector<oid_t> find(const BaseRow& like) const;

 private:
  friend class AnyTable;
  AnyEqualIndex(const detail::TableStore& store, const detail::TableIndex& index)
      : store_(&store), index_(&index) {}
  const detail::TableStore* store_;
  const detail::TableIndex* index_;
};

/// As PrefixIndex, of a column that is named at run time.
class KORVO_API AnyPrefixIndex {
 public:
  /// The oid of a row of the most specific prefix that contains the address or the whole of the
  /// prefix.
  std::optional<oid_t> find(const IpGenAddr& addr) const;
  std::optional<oid_t> find(const IpGenPrefix& prefix) const;
  /// The rows of exactly this prefix.
  std::vector<oid_t> exact(const IpGenPrefix& prefix) const;
  /// The widest first.
  std::vector<oid_t> covering(const IpGenAddr& addr) const;
  std::vector<oid_t> covering(const IpGenPrefix& prefix) const;
  /// The rows of all prefixes that lie in this one, itself included.
  std::vector<oid_t> inside(const IpGenPrefix& prefix) const;

 private:
  friend class AnyTable;
  AnyPrefixIndex(const detail::TableStore& store, const detail::TableIndex& index)
      : store_(&store), index_(&index) {}
  const detail::TableStore* store_;
  const detail::TableIndex* index_;
};

}  // namespace Korvo
