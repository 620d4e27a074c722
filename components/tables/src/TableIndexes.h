#pragma once

// Indexes keep slots, and look at the rows themselves for their keys.

#include <Korvo/TableIndex.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "PrefixTrie.h"

namespace Korvo::detail {

/// What an index is of: columns, or what a function makes of a row.
struct IndexKey {
  std::vector<std::size_t> columns;
  KeyFunction function;
};

/// An index over some columns. After reserve(), and prepare() of its key, putting a row in cannot
/// fail, nor can taking one out.
class TableIndex {
 public:
  static constexpr std::size_t mostColumns = 8;

  /// A row's key. What it is made of lies in the row, or with whoever computed it.
  class Key {
   public:
    Key(const TableIndex& index, const BaseRow& row, std::string_view computed);
    std::span<const KeyPart> parts() const { return {parts_.data(), count_}; }

   private:
    std::array<KeyPart, mostColumns> parts_;
    std::size_t count_;
  };

  TableIndex(const TableStore& store, IndexKey key);
  TableIndex(const TableIndex&) = delete;
  TableIndex& operator=(const TableIndex&) = delete;
  virtual ~TableIndex() = default;

  /// Throws KoInvalidArgument for columns that such an index cannot have.
  static std::unique_ptr<TableIndex> make(IndexKind kind, const TableStore& store, IndexKey key);

  /// Whether keys are computed. They are then kept, so that the function is called once for a row.
  bool computes() const { return function_ != nullptr; }
  /// The key that is computed of a row; throws what the function throws. Empty for columns.
  std::string compute(const BaseRow& row) const;
  Key key(const BaseRow& row, std::string_view computed) const { return {*this, row, computed}; }
  Key key(Slot slot) const;

  /// Makes room for `count` more rows in slots below `slots`.
  virtual void reserve(std::size_t slots, std::size_t count);
  /// Makes a place for a row of this key.
  virtual void prepare(std::span<const KeyPart>) {}
  /// Gives back what was reserved and not needed.
  virtual void settle() noexcept {}
  /// Gives the place of this key back if no row is there.
  virtual void release(std::span<const KeyPart>) noexcept {}
  /// `computed` is the row's key, if keys are computed, and empty afterwards.
  void put(Slot slot, std::string& computed) noexcept;
  void takeOut(Slot slot) noexcept;

 protected:
  virtual void insert(Slot slot) noexcept = 0;
  virtual void erase(Slot slot) noexcept = 0;
  /// Gives `entries` a place for each slot.
  template <typename Entry>
  static void growTo(std::vector<Entry>& entries, std::size_t slots) {
    if (entries.size() >= slots) return;
    entries.reserve(std::max(slots, entries.size() + entries.size() / 2));
    entries.resize(slots);
  }

  const TableStore& store_;

 private:
  std::vector<const ColumnInfo*> columns_;
  KeyFunction function_;
  std::vector<std::string> computed_;
};

/// Rows by hash. Each bucket is a chain of the first rows of their keys, from each of which a list
/// leads through the rows of its key: however many there are, none is in another key's way.
class EqualIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;

  void reserve(std::size_t slots, std::size_t count) override;

  /// The first row of the key, and the next one of the same key; noSlot when there is none.
  Slot find(std::span<const KeyPart> wanted) const;
  Slot findNext(Slot slot) const { return links_[slot].next; }
  /// How many rows have a key that another row has, too.
  std::size_t duplicates() const { return duplicates_; }

 private:
  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;
  Slot find(std::uint32_t hash, std::span<const KeyPart> wanted) const;
  std::size_t bucketOf(std::uint32_t hash) const { return hash & (buckets_.size() - 1); }

  struct Link {
    Slot chain;     ///< of a first row: the first row of the bucket's next key
    Slot next;      ///< of the same key
    Slot previous;  ///< noSlot: this is the first row of its key
    std::uint32_t hash;
  };
  std::vector<Slot> buckets_;
  std::vector<Link> links_;
  std::size_t keys_ = 0;
  std::size_t duplicates_ = 0;
};

/// Rows by key, and rows of one key by oid: in leaves of many rows, which a list has in order.
class OrderedIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;

  void reserve(std::size_t slots, std::size_t count) override;
  void settle() noexcept override;

  Slot first() const;
  Slot last() const;
  Slot next(Slot slot) const;
  /// The first row that is not before `wanted`, which may have fewer parts than the index.
  Slot lowerBound(std::span<const KeyPart> wanted) const;

 private:
  static constexpr std::size_t leafSize = 128;
  using LeafNumber = std::uint32_t;
  struct Leaf {
    std::uint32_t count = 0;
    LeafNumber next = noSlot;
    Slot slots[leafSize];
    std::uint64_t keys[leafSize];  ///< the first bytes of each key: mostly they decide
  };
  /// Before which entry of which leaf.
  struct Place {
    std::size_t ordinal;
    std::size_t at;
  };

  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;
  static std::uint64_t leadingBytesOf(const KeyPart& part);
  /// Where what is not `before(leading bytes, slot)` begins.
  template <typename Before>
  Place placeBehind(const Before& before) const;
  Place placeOf(Slot slot) const;
  Leaf& leafAt(std::size_t ordinal) { return *leaves_[order_[ordinal]]; }
  const Leaf& leafAt(std::size_t ordinal) const { return *leaves_[order_[ordinal]]; }
  std::size_t entryOf(const Leaf& leaf, Slot slot) const;
  void addLeaf(std::size_t ordinal) noexcept;
  void removeLeaf(std::size_t ordinal) noexcept;
  void moveEntries(Leaf& from, std::size_t begin, std::size_t ordinalOfTarget) noexcept;
  bool joinNext(std::size_t ordinal) noexcept;

  std::vector<std::unique_ptr<Leaf>> leaves_;  ///< null: the number is free
  std::vector<LeafNumber> order_;
  std::vector<std::unique_ptr<Leaf>> spare_;
  std::vector<LeafNumber> freeNumbers_;
  std::vector<LeafNumber> leafOf_;    ///< by slot
  mutable std::size_t lookedAt_ = 0;  ///< the entry that was asked for last: its neighbour is next
};

/// Rows by prefix. Rows without a prefix are not in it; host bits do not count.
class PrefixIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;
  using Prefix = PrefixTrie::Prefix;

  void reserve(std::size_t slots, std::size_t count) override;
  void prepare(std::span<const KeyPart> key) override;
  void release(std::span<const KeyPart> key) noexcept override;

  // Rows of one prefix hang together: what is found is the first one.

  const PrefixTrie& trie(AddressFamily af) const { return tries_[af == ipv6_ ? 1 : 0]; }
  /// The next row of the same prefix.
  Slot nextSame(Slot slot) const { return same_.empty() ? noSlot : same_[slot].next; }
  /// Adds the row and all others of its prefix.
  void collect(Slot first, std::vector<Slot>& rows) const {
    for (Slot slot = first; slot != noSlot; slot = nextSame(slot)) rows.push_back(slot);
  }

 private:
  struct Place {
    PrefixTrie* trie;  ///< null: there is no prefix
    Prefix prefix;
  };
  struct Same {
    Slot next = noSlot;
    Slot previous = noSlot;
  };
  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;
  Place placeOf(std::span<const KeyPart> key);

  std::array<PrefixTrie, 2> tries_;
  std::vector<Same> same_;  ///< empty until two rows have one prefix
  std::size_t slots_ = 0;
};

}  // namespace Korvo::detail
