#pragma once

// The rows of a table, by oid and in the order of their last change.
//
// The order is what everything else rests on: who wants to know what changed walks it from where he
// stood. First rows, changes, catching up and resuming are the same walk, and a row that changes
// twice before the walk comes by is met once.
//
//   oldest change                                             latest change
//   [ oid 7, #3 ] <-> [ oid 2, #3 ] <-> [ oid 9, #8 ] <-> [ oid 4, #11 ]      #: the batch
//                           ^ a cursor: all before it was told
//
// Removed rows stand in a list of their own, ordered likewise, of which the oldest are dropped when
// it grows too long. Who stood before a dropped one is told all rows anew.

#include <Korvo/Table.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Chunked.h"
#include "StoredRows.h"
#include "TableIndexes.h"

namespace Korvo::detail {

/// A row that can be given a buffer and asked for it.
class HeldRow final : public BaseRow {
 public:
  HeldRow() = default;
  explicit HeldRow(KoPtr<KoRowBuf> buffer) { rowBuf_ = std::move(buffer); }
  const KoPtr<KoRowBuf>& buffer() const { return rowBuf_; }
  /// Where any row has its buffer.
  static KoPtr<KoRowBuf>& bufferOf(BaseRow& row) { return row.*(&HeldRow::rowBuf_); }
  /// Gets a buffer of its own with the row's bytes.
  void copyOf(const BaseRow& row) {
    const len_t length = row.rowLength();
    installCopy(row.rowBuf(), length, rowHeaderLength, row.rowType());
  }
};

/// Whether two checked rows of a layout have the same type, oid and columns.
bool rowsEqual(const byte_t* a, const byte_t* b, const LayoutInfo& layout);

/// A number of a row's bytes, the same on every host. Copies of a table are compared by it.
std::uint64_t rowHash(const byte_t* row) noexcept;

/// One put or removal of a batch.
struct RowOperation {
  oid_t oid;
  KoPtr<KoRowBuf> buffer;  ///< null: the row is removed
};

/// A word on a row of who made its bytes and gives them away. Without bytes, and not gone, the
/// row stays as it is.
struct OwnOperation {
  StoredRows::Bytes bytes;
  oid_t oid = 0;
  bool isGone = false;     ///< the row is removed, if there is one
  bool isRefused = false;  ///< the row that was told cannot be taken
};

/// Numbers the batches of all tables that have one owner.
struct SequenceSource {
  std::uint64_t last = 0;
};

class TableStore {
 public:
  class Cursor;
  class Commit;

  TableStore(std::string name, const LayoutInfo& layout);
  TableStore(const TableStore&) = delete;
  TableStore& operator=(const TableStore&) = delete;
  ~TableStore();

  const std::string& name() const { return name_; }
  const LayoutInfo& layout() const { return layout_; }
  std::size_t size() const { return size_; }
  /// Of the last batch that changed something here.
  std::uint64_t sequence() const { return sequence_; }
  const std::shared_ptr<SequenceSource>& source() const { return source_; }
  /// From now on batches are numbered by `source`, behind all that were.
  void sourceIs(std::shared_ptr<SequenceSource> source) noexcept;
  /// All rows count as last changed at `sequence`, the last of their history, whose removals are
  /// not known.
  void historyIs(std::uint64_t sequence) noexcept;

  /// The hashes of all rows, in one number that does not depend on their order. Kept from
  /// keepDigest() on.
  std::uint64_t digest() const { return digest_; }
  void keepDigest() noexcept;

  Slot find(oid_t oid) const;
  /// The row's owner, which it shares with whoever holds it. Throws std::bad_alloc.
  KoPtr<KoRowBuf> buffer(Slot slot) const { return rows_.share(slot); }
  /// The row where it lies, for as long as it is in the table.
  const byte_t* bytes(Slot slot) const { return rows_.bytes(slot); }
  SubRowReference row(Slot slot) const { return SubRowReference(bytes(slot)); }
  oid_t oid(Slot slot) const { return entries_[slot].oid; }
  /// The rows, in no order: the first slot in use at or behind `slot`, or noSlot.
  Slot slotFrom(Slot slot) const;
  /// How many rows are kept as if others held them.
  std::size_t sharedCount() const { return rows_.sharedCount(); }

  /// An index of these columns; the same one when asked for again. Throws with the table as before.
  TableIndex& index(IndexKind kind, std::span<const std::size_t> columns);
  /// A new index of what `function` makes of the rows. Throws with the table as before.
  TableIndex& index(IndexKind kind, KeyFunction function);
  /// What the index's user keeps with it.
  std::shared_ptr<void>& handle(const TableIndex& index);

  AnyTable* table = nullptr;
  TableState state() const { return state_; }
  const std::string& stateText() const { return stateText_; }
  /// Readers are told of it in their turns. Throws std::bad_alloc with the state as before.
  void stateIs(TableState state, std::string text);
  bool hasFirstRows = true;  ///< until then readers are told nothing
  bool isPublished = false;
  bool isSubscribed = false;  ///< written by a subscription only

  /// Removed rows that are remembered at the most, if these are more than the rows.
  std::size_t deletionLimit = 65536;
  /// The sequence of the latest removal that was forgotten.
  std::uint64_t floor() const { return floor_; }

  /// Rows that were put or removed last behind `sequence`. Takes as long as there are such rows, if
  /// these are not all.
  std::uint64_t changesBehind(std::uint64_t sequence) const;

  /// Stops the process when a thread other than the table's calls.
  void checkThread() const;

 private:
  // A million rows stand in a table: each byte of these counts. Sequences are counted from `base_`.
  struct Entry {
    oid_t oid = 0;
    Slot previous = noSlot;
    Slot next = noSlot;
    std::uint32_t sequence = 0;
    std::uint32_t added : 31 = 0;     ///< when the oid came
    std::uint32_t isWatched : 1 = 0;  ///< a cursor may stand here
  };
  struct Deletion {
    std::uint32_t sequence;
    std::uint32_t added;
    oid_t oid;
  };
  struct KnownIndex {
    IndexKind kind;
    std::vector<std::size_t> columns;  ///< empty: keys are computed
    std::unique_ptr<TableIndex> index;
    std::shared_ptr<void> handle;
  };

  TableIndex& addIndex(IndexKind kind, IndexKey key);
  [[noreturn]] void refuse(oid_t a, oid_t b) const;
  std::size_t bucketOf(oid_t oid) const;
  void link(Slot slot) noexcept;
  void unlink(Slot slot) noexcept;
  void moveCursors(Slot slot) noexcept;
  void mapOid(Slot slot) noexcept;
  void unmapOid(Slot slot) noexcept;
  void reserveOids(std::size_t count);
  void addSlot();
  Slot takeSlot() noexcept;
  std::uint32_t relative(std::uint64_t sequence) const {
    return sequence <= base_ ? 0 : static_cast<std::uint32_t>(sequence - base_);
  }
  void countFrom(std::uint64_t base) noexcept;
  void forgetDeletions() noexcept;
  std::span<const Deletion> deletions() const {
    return std::span(deletions_).subspan(deletionsBegin_);
  }
  /// Places in the list of removals are counted from the first removal ever.
  std::uint64_t firstDeletion() const { return deletionsDropped_ + deletionsBegin_; }
  std::uint64_t deletionsEnd() const { return deletionsDropped_ + deletions_.size(); }

  std::string name_;
  const LayoutInfo& layout_;
  std::shared_ptr<SequenceSource> source_ = std::make_shared<SequenceSource>();
  std::thread::id thread_ = std::this_thread::get_id();
  std::uint64_t sequence_ = 0;
  std::uint64_t batches_ = 0;  ///< that changed something here
  std::size_t size_ = 0;

  static constexpr std::uint64_t mostRelative = (std::uint64_t{1} << 31) - 1;
  std::uint64_t base_ = 0;
  mutable StoredRows rows_;  ///< sharing a row changes how it is kept, not what it is
  Chunked<Entry> entries_;
  std::vector<Slot> buckets_;  ///< by oid, linear probing; a power of two
  Slot free_ = noSlot;
  std::size_t freeCount_ = 0;
  Slot oldest_ = noSlot;
  Slot latest_ = noSlot;

  std::vector<Deletion> deletions_;  ///< those before `deletionsBegin_` are forgotten
  std::size_t deletionsBegin_ = 0;
  std::uint64_t deletionsDropped_ = 0;  ///< before the first of the vector
  std::uint64_t floor_ = 0;
  std::uint64_t joined_ = 0;  ///< the source's number when it became this table's

  bool keepsDigest_ = false;
  std::uint64_t digest_ = 0;
  TableState state_ = TableState::current;
  std::string stateText_;

  std::vector<KnownIndex> indexes_;
  std::vector<Cursor*> cursors_;
};

/// Somebody who is told what changed, and stands somewhere in the order of changes.
class TableStore::Cursor {
 public:
  /// What is told.
  struct Told {
    oid_t oid = 0;
    KoPtr<KoRowBuf> after;   ///< null: the row is gone
    KoPtr<KoRowBuf> before;  ///< if it is kept: null when the row was not known
    bool wasKnown = false;
  };

  /// Stands before everything. Throws std::bad_alloc.
  Cursor(TableStore& store, bool keepsBefore);
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
  virtual ~Cursor();

  /// Stands before everything again.
  void restart();

  /// Called before a batch that changes something is applied. What it throws ends the commit.
  virtual void changeComes() = 0;
  /// Called when the table is destroyed; store() is null already.
  virtual void tableGoes() noexcept {}

  /// What happened up to `sequence` counts as told, if that can be: false if removals behind it
  /// have been forgotten. To be called before anything was told.
  bool resumeBehind(std::uint64_t sequence);
  /// Null once the table is gone.
  TableStore* store() const { return store_; }
  /// Whether there is anything to tell.
  bool isBehind() const;
  /// To be called before next(), when something may have come since all was told.
  void begin();
  /// Tells the next change: removals first, then rows by the order of their last change. False: all
  /// has been told, and what was told is the table as it stands.
  bool next(Told& told);
  /// Whether the table is told as a whole: what was told before counts no more.
  bool isWhole() const { return isWhole_; }
  /// How often telling the table as a whole was begun.
  std::uint64_t wholes() const { return wholes_; }
  /// The sequence up to which all was told.
  std::uint64_t seen() const { return seen_; }
  /// The batches that are told together with the last one.
  std::uint64_t merged() const { return merged_; }

 private:
  friend class TableStore;
  friend class Commit;

  bool nextDeletion(Told& told);
  bool nextRow(Told& told);

  TableStore* store_;
  bool keepsBefore_;
  bool isWhole_ = true;
  bool inRound_ = false;
  std::uint64_t wholes_ = 0;
  std::uint64_t seen_ = 0;
  std::uint64_t seenBatches_ = 0;
  std::uint64_t merged_ = 0;
  std::uint64_t roundHead_ = 0;         ///< the table's sequence when the round began
  std::uint64_t told_ = 0;              ///< the sequence of the last row told
  Slot position_ = noSlot;              ///< the next row to tell
  std::uint64_t deletion_ = 0;          ///< the next deletion to tell, counted from the first ever
  std::unordered_set<oid_t> returned_;  ///< removed and put again since `seen_`
  std::unordered_map<oid_t, KoPtr<KoRowBuf>> before_;
};

/// The changes of one table that a batch makes. Everything that can fail does so in the
/// constructor, which leaves the table as it was.
class TableStore::Commit {
 public:
  // Both throw KoInvalidArgument if a unique index would have two rows of one key, std::bad_alloc,
  // and what changeComes() throws.

  /// The last word on each oid counts.
  Commit(TableStore& store, const std::vector<RowOperation>& operations);
  /// Each oid is there once. What was taken of the operations makes room for what is taken next.
  Commit(TableStore& store, Chunked<OwnOperation> operations);
  Commit(const Commit&) = delete;
  Commit& operator=(const Commit&) = delete;

  bool changesNothing() const { return touches_.size() == 0; }
  std::size_t size() const { return touches_.size(); }
  void apply(std::uint64_t sequence) noexcept;
  /// One that was not applied leaves the table as it was.
  ~Commit();

 private:
  // A million rows may change at once: each byte of these counts.
  struct Touch {
    std::uint32_t place;  ///< the slot; of a new row the oid, until apply()
    bool isNew;
    bool isRemoval;
    bool isHeld;          ///< by others than the batch
    StoredRows::Row row;  ///< after apply(): the former one
  };

  oid_t oidOf(const Touch& touch) const {
    return touch.isNew ? touch.place : store_.oid(touch.place);
  }
  void select(oid_t oid, StoredRows::Row row, bool isHeld);
  void prepare();
  void checkUnique() const;
  void reserve();
  void prepareIndexes();
  void releaseIndexes() noexcept;
  /// Calls use(touch, index, the touch's computed key in it, whether its key changes).
  template <typename Use>
  void forEachKey(const Use& use);

  TableStore& store_;
  std::size_t asked_;  ///< how many operations there were
  Chunked<Touch> touches_;
  std::vector<bool> moves_;            ///< for each touch and index: whether the row's key changes
  std::vector<std::string> computed_;  ///< for each touch and index that computes its keys
  std::vector<std::unordered_map<oid_t, KoPtr<KoRowBuf>>> before_;  ///< for each cursor
};

}  // namespace Korvo::detail
