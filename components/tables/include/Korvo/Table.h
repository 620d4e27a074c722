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

namespace Korvo {

/// How far a table can be trusted. One that this process owns is always current.
enum class TableState : byte_t {
  loading,  ///< the first rows have not all come
  current,
  stale,   ///< the rows are those of before the link was lost
  refused  ///< the owner's rows cannot be taken
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

  const std::string& name() const;
  const LayoutInfo& layout() const;
  std::size_t size() const;
  bool empty() const { return size() == 0; }
  bool contains(oid_t oid) const;

  /// Makes `row` share the buffer of the table's row, or null if there is none; tells which.
  bool get(oid_t oid, BaseRow& row) const;

  /// The number of the last batch that changed something here. Numbers grow, and tables that were
  /// written in one batch go on counting from the same one.
  std::uint64_t sequence() const;

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
  using Row = RowType;
  using Layout = typename Row::Layout;
  using const_iterator = RowIterator<Row>;

  explicit Table(const std::string& name) : AnyTable(name, Layout::info) {}

  /// The row, which shares the table's buffer, or a null row.
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
  const_iterator end() const { return {}; }

  // Indexes are made when they are first asked for, are kept up to date from then on, and live as
  // long as the table. They throw std::bad_alloc with the table as before.

  /// Rows by the value of one column or several: `table.equal<"name">().find("eth0")`.
  template <ColumnName... Names>
  EqualIndex<Row, Names...>& equal() {
    return indexOf<EqualIndex<Row, Names...>, Names...>();
  }
  /// The same where no two rows may have one value: a batch that would make them so is refused.
  /// Throws KoInvalidArgument if two rows have it now.
  template <ColumnName... Names>
  UniqueIndex<Row, Names...>& unique() {
    return indexOf<UniqueIndex<Row, Names...>, Names...>();
  }
  /// Rows in the order of one column or several.
  template <ColumnName... Names>
  OrderedIndex<Row, Names...>& ordered() {
    return indexOf<OrderedIndex<Row, Names...>, Names...>();
  }
  /// Rows by a column of prefixes.
  template <ColumnName Name>
  PrefixIndex<Row, Name>& longestPrefix() {
    return indexOf<PrefixIndex<Row, Name>, Name>();
  }

 private:
  template <typename Index, ColumnName... Names>
  Index& indexOf() {
    constexpr std::array columns = {Layout::template index<Names>...};
    detail::TableStore& store = detail::TableAccess::store(*this);
    detail::TableIndex& index = detail::TableAccess::index(store, Index::kind, columns);
    std::shared_ptr<void>& handle = detail::TableAccess::handle(store, index);
    if (handle == nullptr) handle = std::make_shared<Index>(store, index);
    return *static_cast<Index*>(handle.get());
  }
};

}  // namespace Korvo
