#pragma once

// Tables: rows by oid, with indexes, written in batches that appear whole or not at all.
//
//   Korvo::Table<Port> ports("net/port");
//   auto& byNet = ports.longestPrefix<"net">();
//   Korvo::Batch batch(ports);                        // or (ports, links): one batch over both
//   batch.put(port);                                  // by port.rowOid(); shares the row's buffer
//   batch.remove(1002);
//   batch.commit();                                   // without it nothing changes
//   std::cout << byNet.find(Korvo::IpGenAddr("10.1.0.9")) << '\n';
//
// A row that is put stays as it was: rows are values that share buffers, and whoever writes his
// copy of it later writes a buffer of his own. Rows that a table gives out are such values too.
// Every row of a table passed checkRow().
//
// A table, its batches, indexes and readers are used from the thread that made the table; writing
// it or adding to it from another one stops the process.

#include <Korvo/TableIndex.h>
#include <Korvo/TableRow.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Korvo {

/// How far a table can be trusted. One that this process owns is always current.
enum class TableState : byte_t {
  loading,  ///< the first rows have not all come
  current,  ///< the rows are the owner's
  stale,    ///< the rows are those of before the link was lost
  refused   ///< the owner's rows cannot be taken
};

/// A table of rows whose layout is known at run time.
class KORVO_API AnyTable {
 public:
  /// An empty table. `layout` outlives it.
  AnyTable(const std::string& name, const LayoutInfo& layout);
  AnyTable(const AnyTable&) = delete;
  AnyTable& operator=(const AnyTable&) = delete;
  /// Readers end with it; batches and indexes must not be used any more.
  ~AnyTable();

  /// As it was given to the constructor.
  const std::string& name() const;
  /// As it was given to the constructor.
  const LayoutInfo& layout() const;
  /// How many rows there are.
  std::size_t size() const;
  /// Whether there is no row.
  bool empty() const { return size() == 0; }
  /// Whether there is a row of this oid.
  bool contains(oid_t oid) const;

  /// Makes `row` share the buffer of the table's row, or null if there is none; tells which. Throws
  /// std::bad_alloc with the row as before.
  bool get(oid_t oid, BaseRow& row) const;

  // Indexes of columns that are named at run time. They throw KoInvalidArgument for a column that
  // there is not, or that cannot be indexed so, and std::bad_alloc, with the table as before.

  /// Rows by the values of one column or several.
  AnyEqualIndex equal(const std::vector<std::string>& columns);
  /// Rows by a column of prefixes.
  AnyPrefixIndex longestPrefix(const std::string& column);

  /// The number of the last batch that changed something here. Numbers grow, and tables that were
  /// written in one batch go on counting from the same one.
  std::uint64_t sequence() const;

  /// How far the rows can be trusted.
  TableState state() const;
  /// Why it is so, for people; empty for a current table.
  const std::string& stateText() const;

 private:
  friend struct detail::TableAccess;
  std::unique_ptr<detail::TableStore> store_;
};

/// A table of rows of a declared class.
template <typename RowType>
class Table : public AnyTable {
 public:
  /// The class of its rows.
  using Row = RowType;
  /// What it says of the columns.
  using Layout = typename Row::Layout;
  /// Goes through the rows.
  using const_iterator = RowIterator<Row>;
  /// The type of a column.
  template <ColumnName Name>
  using TypeOf = typename Layout::template Type<Name>;

  /// An empty table.
  explicit Table(const std::string& name) : AnyTable(name, Layout::info) {}

  /// The row, which shares the table's buffer, or a null row. As with all that gives rows: throws
  /// std::bad_alloc, since a row that only its table holds has no owner that could be shared.
  Row find(oid_t oid) const {
    Row row;
    get(oid, row);
    return row;
  }

  /// The rows, in no order. Putting and removing other rows does not invalidate an iterator.
  const_iterator begin() const {
    const detail::TableStore& store = detail::TableAccess::store(*this);
    return {store, &store, detail::TableAccess::nextSlot, detail::TableAccess::slotFrom(store, 0)};
  }
  /// Behind the last row.
  const_iterator end() const { return {}; }

  // Indexes are made when they are first asked for, are kept up to date from then on, and live as
  // long as the table. They throw std::bad_alloc with the table as before.

  /// Rows by the value of one column or several: `table.equal<"name">().find("eth0")`.
  template <ColumnName... Names>
  EqualIndex<Row, TypeOf<Names>...>& equal() {
    return indexOf<EqualIndex<Row, TypeOf<Names>...>, Names...>();
  }
  /// The same where no two rows may have one value: a batch that would make them so is refused.
  /// Throws KoInvalidArgument if two rows have it now.
  template <ColumnName... Names>
  UniqueIndex<Row, TypeOf<Names>...>& unique() {
    return indexOf<UniqueIndex<Row, TypeOf<Names>...>, Names...>();
  }
  /// Rows in the order of one column or several.
  template <ColumnName... Names>
  OrderedIndex<Row, TypeOf<Names>...>& ordered() {
    return indexOf<OrderedIndex<Row, TypeOf<Names>...>, Names...>();
  }
  /// Rows by a column of prefixes.
  template <ColumnName Name>
  PrefixIndex<Row>& longestPrefix() {
    return indexOf<PrefixIndex<Row>, Name>();
  }

  // Indexes of keys that are computed: `function` makes a number, a text, an address or a prefix of
  // a row, always the same of equal rows. It is called once for each row that is put; what it
  // throws ends the commit, with everything as before. Each call makes another index, so keep the
  // reference.
  //
  //   auto& byBegin = ports.equalBy([](const Port& port) { return port.get<"name">().substr(0, 3);
  //   });

  /// Rows by a computed key.
  template <typename Function>
  auto& equalBy(Function function) {
    return indexBy<EqualIndex>(std::move(function));
  }
  /// Rows by a computed key that no two of them may have.
  template <typename Function>
  auto& uniqueBy(Function function) {
    return indexBy<UniqueIndex>(std::move(function));
  }
  /// Rows in the order of a computed key.
  template <typename Function>
  auto& orderedBy(Function function) {
    return indexBy<OrderedIndex>(std::move(function));
  }

 private:
  template <typename Index, ColumnName... Names>
  Index& indexOf() {
    constexpr std::array columns = {Layout::template index<Names>...};
    detail::TableStore& store = detail::TableAccess::store(*this);
    return handleOf<Index>(detail::TableAccess::index(store, Index::kind, columns));
  }
  template <template <typename, typename...> typename Kind, typename Function>
  auto& indexBy(Function function) {
    using Key = detail::ComputedKey<Row, Function>;
    using Index = Kind<Row, typename Key::Type>;
    detail::TableStore& store = detail::TableAccess::store(*this);
    return handleOf<Index>(
        detail::TableAccess::index(store, Index::kind, Key::of(std::move(function))));
  }
  template <typename Index>
  Index& handleOf(detail::TableIndex& index) {
    detail::TableStore& store = detail::TableAccess::store(*this);
    std::shared_ptr<void>& handle = detail::TableAccess::handle(store, index);
    if (handle == nullptr) handle = std::make_shared<Index>(store, index);
    return *static_cast<Index*>(handle.get());
  }
};

}  // namespace Korvo
