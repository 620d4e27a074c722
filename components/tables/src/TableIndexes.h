#pragma once

// Indexes keep slots, and look at the rows themselves for their keys.

#include <Korvo/TableIndex.h>

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Korvo::detail {

/// An index over some columns. After reserve(), insert() and erase() cannot fail.
class TableIndex {
 public:
  TableIndex(const TableStore& store, std::span<const std::size_t> columns);
  TableIndex(const TableIndex&) = delete;
  TableIndex& operator=(const TableIndex&) = delete;
  virtual ~TableIndex() = default;

  static std::unique_ptr<TableIndex> make(IndexKind kind, const TableStore& store,
                                          std::span<const std::size_t> columns);

  /// Makes room for `count` more rows in slots below `slots`.
  virtual void reserve(std::size_t slots, std::size_t count) = 0;
  virtual void insert(Slot slot) noexcept = 0;
  virtual void erase(Slot slot) noexcept = 0;

  bool sameKey(const BaseRow& a, const BaseRow& b) const;

 protected:
  static constexpr std::size_t mostColumns = 8;

  /// A row's key. Its text lies in the row.
  class Key {
   public:
    Key(const TableIndex& index, const BaseRow& row);
    std::span<const KeyPart> parts() const { return {parts_.data(), count_}; }

   private:
    std::array<KeyPart, mostColumns> parts_;
    std::size_t count_;
  };
  Key key(Slot slot) const;

  const TableStore& store_;

 private:
  std::vector<const ColumnInfo*> columns_;
};

/// Rows by hash: a chain of slots for each bucket.
class EqualIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;

  void reserve(std::size_t slots, std::size_t count) override;
  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;

  /// The first row of the key, and the next one of the same key; noSlot when there is none.
  Slot find(std::span<const KeyPart> wanted) const;
  Slot findNext(Slot slot) const;
  Slot find(const BaseRow& row) const;
  std::uint64_t hash(const BaseRow& row) const { return hashKey(Key(*this, row).parts()); }

 private:
  Slot matchFrom(Slot slot, std::uint32_t hash, std::span<const KeyPart> wanted) const;
  std::size_t bucketOf(std::uint32_t hash) const { return hash & (buckets_.size() - 1); }

  struct Link {
    Slot next;
    std::uint32_t hash;
  };
  std::vector<Slot> buckets_;
  std::vector<Link> links_;
  std::size_t size_ = 0;
};

/// Rows by key, and rows of one key by oid: a treap, whose priorities are made of the slots.
class OrderedIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;

  void reserve(std::size_t slots, std::size_t count) override;
  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;

  Slot first() const;
  Slot last() const;
  Slot next(Slot slot) const { return neighbour(slot, 1); }
  Slot previous(Slot slot) const { return neighbour(slot, 0); }
  /// The first row that is not before the key; `key` may have fewer parts than the index.
  Slot lowerBound(std::span<const KeyPart> key) const { return bound(key, false); }
  /// The first row that is behind the key.
  Slot upperBound(std::span<const KeyPart> key) const { return bound(key, true); }

 private:
  struct Node {
    std::uint64_t key;  ///< the first bytes of the key: mostly they decide
    Slot child[2];
    Slot parent;
  };
  static std::uint64_t leadingBytesOf(const KeyPart& part);
  bool isBefore(Slot a, Slot b) const;
  Slot bound(std::span<const KeyPart> wanted, bool behind) const;
  Slot neighbour(Slot slot, int side) const;
  Slot outermost(Slot slot, int side) const;
  void rotateUp(Slot slot) noexcept;
  void replaceChild(Slot parent, Slot child, Slot by) noexcept;

  std::vector<Node> nodes_;
  Slot root_ = noSlot;
};

/// The bits of an address, from the highest. IPv4 addresses have the first 32.
struct AddressBits {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  static AddressBits of(AddressFamily af, const byte_t* bytes);
  unsigned int bit(unsigned int index) const {
    return static_cast<unsigned int>((index < 64 ? high >> (63 - index) : low >> (127 - index)) &
                                     1);
  }
  AddressBits cutTo(unsigned int length) const;
  unsigned int commonBits(const AddressBits& other) const;
  friend bool operator==(const AddressBits&, const AddressBits&) = default;
};

/// Rows by prefix: for each family a binary trie without one-way branches. Rows without a prefix
/// are not in it; host bits do not count.
class PrefixIndex final : public TableIndex {
 public:
  using TableIndex::TableIndex;

  struct Prefix {
    AddressFamily af = unknown_;
    unsigned int length = 0;
    AddressBits bits;
  };

  void reserve(std::size_t slots, std::size_t count) override;
  void insert(Slot slot) noexcept override;
  void erase(Slot slot) noexcept override;

  /// A row of the most specific prefix that contains all of `prefix`.
  Slot mostSpecific(const Prefix& prefix) const;
  /// A row of exactly this prefix.
  Slot exact(const Prefix& prefix) const;
  /// The next row of the same prefix.
  Slot nextSame(Slot slot) const { return same_[slot]; }
  /// The rows of all prefixes that contain all of `prefix`, the widest first.
  std::vector<Slot> covering(const Prefix& prefix) const;
  /// The rows of all prefixes inside `prefix`, in their order.
  std::vector<Slot> inside(const Prefix& prefix) const;

 private:
  using NodeIndex = std::uint32_t;
  static constexpr NodeIndex noNode = 0xFFFFFFFF;
  struct Node {
    AddressBits bits;
    std::uint32_t length;
    Slot rows;
    NodeIndex child[2];
  };

  Prefix prefixOf(Slot slot) const;
  NodeIndex& rootOf(AddressFamily af) { return roots_[af == ipv6_ ? 1 : 0]; }
  NodeIndex rootOf(AddressFamily af) const { return roots_[af == ipv6_ ? 1 : 0]; }
  NodeIndex takeNode(const AddressBits& bits, unsigned int length) noexcept;
  void giveNode(NodeIndex node) noexcept;
  bool isOn(const Node& node, const Prefix& prefix) const;
  void collect(NodeIndex node, std::vector<Slot>& rows) const;

  std::vector<Node> nodes_;
  std::vector<Slot> same_;
  NodeIndex free_ = noNode;
  std::size_t freeCount_ = 0;
  NodeIndex roots_[2] = {noNode, noNode};
};

}  // namespace Korvo::detail
