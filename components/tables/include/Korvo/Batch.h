#pragma once

// Changes of one table or several that appear together. See Table.h.

#include <Korvo/Table.h>
#include <Korvo/rowCheck.h>

#include <memory>
#include <tuple>
#include <type_traits>

namespace Korvo {

struct BatchParts;
class TableMailbox;

/// A batch over tables whose layouts are known at run time; Batch knows them when it is compiled.
class KORVO_API AnyBatch {
 public:
  /// An empty one.
  AnyBatch();
  AnyBatch(const AnyBatch&) = delete;
  AnyBatch& operator=(const AnyBatch&) = delete;
  /// Discards what was not committed.
  ~AnyBatch();

  /// Adds the row, or changes the one that has its oid; the last word on an oid counts. The batch
  /// shares the row's buffer. Throws KoNullRow for a null row, KoInvalidArgument for one of another
  /// type or with a fault (see checkRow()), std::bad_alloc; the batch is then as before.
  void put(AnyTable& table, const BaseRow& row);
  /// Removes the row, if there is one. Throws std::bad_alloc.
  void remove(AnyTable& table, oid_t oid);

  /// Makes all changes, and makes the readers of the tables runnable; they run later. A put of a
  /// row that is equal in every column changes nothing, and a batch that changes nothing is none.
  /// The batch is empty afterwards. On a throw every table and the batch are as before:
  /// KoInvalidArgument if a unique index would have two rows of one value or a table is written by
  /// a subscription, std::bad_alloc.
  void commit();

  /// Discards the changes.
  void clear() noexcept;

 protected:
  /// `row` has passed the check.
  void putChecked(AnyTable& table, const BaseRow& row);

 private:
  friend struct BatchParts;
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

/// A batch over these tables, which outlive it: `Korvo::Batch batch(ports, links);`.
template <typename... Tables>
class Batch : private AnyBatch {
  static_assert(sizeof...(Tables) > 0, "a batch is over one table at the least");

 public:
  /// An empty one.
  // NOLINTNEXTLINE(google-explicit-constructor): it is written with parentheses
  explicit Batch(Tables&... tables) : tables_(tables...) {}

  // As AnyBatch's; the table may be left out where only one takes such rows.

  template <typename Row>
  void put(Table<Row>& table, const Row& row) {
    static_assert((std::is_same_v<Table<Row>, Tables> || ...), "a table of the batch");
    using Layout = typename Row::Layout;
    const byte_t* const bytes = row.rowBuf();
    if (const RowFault fault = checkRow<Layout>(bytes, loadField<len_t>(bytes))) {
      throw KoInvalidArgument("Invalid Row - (" + fault.text() + ")");
    }
    putChecked(table, row);
  }
  template <typename Row>
  void put(const Row& row) {
    static_assert((0 + ... + (std::is_same_v<Table<Row>, Tables> ? 1 : 0)) == 1,
                  "one table of the batch takes such rows: name it, put(table, row)");
    put(std::get<Table<Row>&>(tables_), row);
  }
  template <typename Row>
  void remove(Table<Row>& table, oid_t oid) {
    static_assert((std::is_same_v<Table<Row>, Tables> || ...), "a table of the batch");
    AnyBatch::remove(table, oid);
  }
  void remove(oid_t oid) {
    static_assert(sizeof...(Tables) == 1, "the batch has several tables: remove(table, oid)");
    AnyBatch::remove(std::get<0>(tables_), oid);
  }
  using AnyBatch::clear;
  using AnyBatch::commit;

 private:
  friend class TableMailbox;
  std::tuple<Tables&...> tables_;
};

}  // namespace Korvo
