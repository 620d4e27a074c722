#pragma once

// Slots by prefix, found with few looks at memory that no cache holds.
//
// A node decides six bits of the address at once. It is for all prefixes of one to six bits more
// than its depth, a multiple of six: those of 19 to 24 bits for example, so that the lengths that
// networks mostly have, 24 and 48, are the last ones of their nodes. Three bit maps tell which
// prefixes and which nodes below there are. A node is one cache line, and the nodes below it stand
// side by side, without gaps, in a block of memory, so that a step down is one look. Few slots
// stand in the node, more of them in the block, behind the nodes. A node with nothing but one node
// below it is left out, so there are fewer nodes than prefixes.

#include <Korvo/TableIndex.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "BlockPool.h"

namespace Korvo::detail {

/// The bits of an address, from the highest. IPv4 addresses have the first 32.
struct AddressBits {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  static AddressBits of(AddressFamily af, const byte_t* bytes);
  AddressBits cutTo(unsigned int length) const;
  unsigned int commonBits(const AddressBits& other) const {
    if (high != other.high) return static_cast<unsigned int>(std::countl_zero(high ^ other.high));
    return 64 + static_cast<unsigned int>(std::countl_zero(low ^ other.low));
  }
  /// The six bits from `depth` on, a multiple of six below 128; bits behind the last one are zero.
  unsigned int sixBits(unsigned int depth) const {
    if (depth < 60) return static_cast<unsigned int>(high >> (58 - depth) & 63);
    if (depth == 60) return static_cast<unsigned int>((high << 2 | low >> 62) & 63);
    return static_cast<unsigned int>((depth == 126 ? low << 4 : low >> (122 - depth)) & 63);
  }
  unsigned int firstSix() const { return static_cast<unsigned int>(high >> 58); }
  /// Without the first `count` bits, of which there is one at least.
  AddressBits behind(unsigned int count) const {
    if (count >= 64) return {low << (count - 64), 0};
    return {high << count | low >> (64 - count), low << count};
  }
  friend bool operator==(const AddressBits&, const AddressBits&) = default;
};

/// Prefixes of one family, each with the slot of a row. A place may be empty for a while: it is
/// made before its row comes, so that the row's coming cannot fail.
class PrefixTrie {
 public:
  struct Prefix {
    AddressBits bits;  ///< behind `length` zero
    unsigned int length = 0;
  };

  PrefixTrie() = default;
  PrefixTrie(const PrefixTrie&) = delete;
  PrefixTrie& operator=(const PrefixTrie&) = delete;

  /// Makes an empty place for the prefix; false if it has one. Other places may move. Throws
  /// std::bad_alloc with the trie as before.
  bool makePlace(const Prefix& prefix);
  /// Null if the prefix has none.
  Slot* place(const Prefix& prefix) {
    return const_cast<Slot*>(std::as_const(*this).place(prefix));
  }
  const Slot* place(const Prefix& prefix) const;
  /// Gives the place back. There is one.
  void removePlace(const Prefix& prefix) noexcept;

  /// What stands at the most specific prefix that contains all of `prefix`, or noSlot.
  Slot mostSpecific(const Prefix& prefix) const;
  /// Calls use(slot) for all prefixes that contain all of `prefix`, the widest first.
  template <typename Use>
  void covering(const Prefix& prefix, const Use& use) const;
  /// Calls use(slot) for all prefixes inside `prefix`, by address and then by length.
  template <typename Use>
  void inside(const Prefix& prefix, const Use& use) const;

 private:
  static constexpr unsigned int stride = 6;
  static constexpr unsigned int fewSlots = 3;  ///< that stand in a node

  struct Node {
    std::uint64_t below = 0;  ///< which of the 64 nodes below there are
    std::uint64_t sixth = 0;  ///< which prefixes of six bits more than the depth
    std::uint64_t upper = 0;  ///< and which of one to five bits more
    AddressBits bits;         ///< of all that is here, as far as the depth
    void* block = nullptr;    ///< the nodes below, then the slots if they are more than few
    Slot few[fewSlots] = {};
    std::uint8_t depth = 0;
    std::uint8_t nodeCount = 0;
    std::uint8_t slotCount = 0;
    std::uint8_t room = 0;  ///< of the block, in units

    bool isEmpty() const { return nodeCount == 0 && slotCount == 0; }
    Node* nodes() { return static_cast<Node*>(block); }
    const Node* nodes() const { return static_cast<const Node*>(block); }
    Slot* farSlots() { return reinterpret_cast<Slot*>(nodes() + nodeCount); }
    Slot* slots() { return slotCount <= fewSlots ? few : farSlots(); }
    const Slot* slots() const {
      return slotCount <= fewSlots ? few : reinterpret_cast<const Slot*>(nodes() + nodeCount);
    }
    /// The bytes of the block that so many nodes and slots take.
    static std::size_t lengthOf(unsigned int nodes, unsigned int slots) {
      return nodes * sizeof(Node) + (slots > fewSlots ? slots * sizeof(Slot) : 0);
    }
    std::size_t taken() const { return lengthOf(nodeCount, slotCount); }

    bool hasNode(unsigned int six) const { return (below >> six & 1) != 0; }
    unsigned int nodeIndex(unsigned int six) const { return countBelow(below, six); }
    const Node& node(unsigned int six) const { return nodes()[nodeIndex(six)]; }
    /// The place of the prefix of `more` bits than the depth, whose bits are the first of `six`.
    bool hasSlot(unsigned int more, unsigned int six) const {
      return ((more == stride ? sixth : upper) >> bitOf(more, six) & 1) != 0;
    }
    unsigned int slotIndex(unsigned int more, unsigned int six) const {
      if (more != stride) return countBelow(upper, bitOf(more, six));
      return static_cast<unsigned int>(std::popcount(upper)) + countBelow(sixth, six);
    }
    /// Whether there is a prefix here that contains all of the six bits.
    bool covers(unsigned int six) const;
    /// Of the prefixes here that contain all of the first `most` bits of `six`, the number of bits
    /// of the most specific one; 0 if there is none.
    unsigned int longest(unsigned int most, unsigned int six) const;
  };
  static_assert(sizeof(Node) <= BlockPool::unit);

  static unsigned int countBelow(std::uint64_t map, unsigned int bit) {
    return static_cast<unsigned int>(std::popcount(map & ((std::uint64_t{1} << bit) - 1)));
  }
  /// Prefixes of one to five bits have the bits 0 to 61 of one map, the shorter ones first.
  static unsigned int bitOf(unsigned int more, unsigned int six) {
    return more == stride ? six : (1U << more) - 2 + (six >> (stride - more));
  }
  /// The depth of the node that has the prefixes of this length, which is not zero.
  static unsigned int depthFor(unsigned int length) { return (length - 1) / stride * stride; }
  static unsigned int moreThan(unsigned int depth, unsigned int length) {
    return length - depth < stride ? length - depth : stride;
  }
  /// Whether all in the node lies where `prefix` does, as far as the depth.
  static bool isOn(const Node& node, const Prefix& prefix) {
    return node.depth < prefix.length && node.bits.commonBits(prefix.bits) >= node.depth;
  }

  Slot search(const Prefix& prefix) const;
  Slot searchByPopcnt(const Prefix& prefix) const;
  void giveBack(Node& node) noexcept;
  void moveTo(Node& node, std::size_t units);
  void makeRoom(Node& node, unsigned int nodes, unsigned int slots);
  void shrink(Node& node) noexcept;
  static void addSlot(Node& node, unsigned int more, unsigned int six) noexcept;
  static void removeSlot(Node& node, unsigned int more, unsigned int six) noexcept;
  static Node& addNode(Node& node, const Node& added) noexcept;
  static void removeNode(Node& node, unsigned int six) noexcept;
  bool skipIfIdle(Node& node) noexcept;
  template <typename Use>
  static void visit(const Node& node, unsigned int more, unsigned int first, const Use& use);

  BlockPool blocks_;
  Node root_;          ///< empty if there are no prefixes but that of no bits
  Slot all_ = noSlot;  ///< of the prefix of no bits
  bool hasAll_ = false;
};

template <typename Use>
void PrefixTrie::covering(const Prefix& prefix, const Use& use) const {
  if (all_ != noSlot) use(all_);
  for (const Node* at = &root_; isOn(*at, prefix);) {
    const unsigned int six = prefix.bits.sixBits(at->depth);
    const unsigned int most = moreThan(at->depth, prefix.length);
    for (unsigned int more = 1; more <= most; ++more) {
      if (!at->hasSlot(more, six)) continue;
      if (const Slot slot = at->slots()[at->slotIndex(more, six)]; slot != noSlot) use(slot);
    }
    if (most < stride || !at->hasNode(six)) return;
    at = &at->node(six);
  }
}

template <typename Use>
void PrefixTrie::inside(const Prefix& prefix, const Use& use) const {
  if (prefix.length == 0 && all_ != noSlot) use(all_);
  const Node* at = &root_;
  while (at != nullptr && isOn(*at, prefix)) {
    const unsigned int six = prefix.bits.sixBits(at->depth);
    if (prefix.length <= at->depth + stride) {
      return visit(*at, prefix.length - at->depth, six >> (at->depth + stride - prefix.length),
                   use);
    }
    at = at->hasNode(six) ? &at->node(six) : nullptr;
  }
  if (at == nullptr || at->bits.commonBits(prefix.bits) < prefix.length) return;
  visit(*at, 0, 0, use);
}

/// All of a node at and below the prefix of `more` bits than the depth, which are those of `first`.
/// At most 150 calls deep.
template <typename Use>
void PrefixTrie::visit(const Node& node, unsigned int more, unsigned int first, const Use& use) {
  const unsigned int six = first << (stride - more);
  if (more != 0 && node.hasSlot(more, six)) {
    if (const Slot slot = node.slots()[node.slotIndex(more, six)]; slot != noSlot) use(slot);
  }
  if (more == stride) {
    if (node.hasNode(six)) visit(node.node(six), 0, 0, use);
    return;
  }
  visit(node, more + 1, 2 * first, use);
  visit(node, more + 1, 2 * first + 1, use);
}

}  // namespace Korvo::detail
