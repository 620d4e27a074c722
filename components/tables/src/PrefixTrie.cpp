#include "PrefixTrie.h"

#include <Korvo/rowOrder.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

namespace Korvo::detail {

AddressBits AddressBits::of(AddressFamily af, const byte_t* bytes) {
  if (af == ipv6_) return {leadingBytes(bytes, 8), leadingBytes(bytes + 8, 8)};
  return {leadingBytes(bytes, ipv4Length), 0};
}

AddressBits AddressBits::cutTo(unsigned int length) const {
  constexpr std::uint64_t all = ~std::uint64_t{0};
  if (length >= 128) return *this;
  if (length > 64) return {high, low & all << (128 - length)};
  return {length == 0 ? 0 : high & all << (64 - length), 0};
}

namespace {

constexpr unsigned int sixBitValues = 64;

/// For six bits, the map of their own prefixes of one to five bits.
constexpr std::array<std::uint64_t, sixBitValues> upperPrefixes = [] {
  std::array<std::uint64_t, sixBitValues> maps{};
  for (unsigned int six = 0; six < sixBitValues; ++six) {
    for (unsigned int more = 1; more < 6; ++more) {
      maps[six] |= std::uint64_t{1} << ((1U << more) - 2 + (six >> (6 - more)));
    }
  }
  return maps;
}();

}  // namespace

// ---------------------------------------------------------------------------------------------
// Nodes

/// A node that is not in the trie yet.
class PrefixTrie::NewNode {
 public:
  NewNode(PrefixTrie& trie, std::size_t room) : trie_(trie), node_(trie.newNode(room)) {}
  NewNode(const NewNode&) = delete;
  NewNode& operator=(const NewNode&) = delete;
  ~NewNode() {
    if (node_ != nullptr) trie_.giveBack(node_);
  }
  Node* operator->() const { return node_; }
  Node& operator*() const { return *node_; }
  Node* release() noexcept { return std::exchange(node_, nullptr); }

 private:
  PrefixTrie& trie_;
  Node* node_;
};

PrefixTrie::~PrefixTrie() {
  const auto destroy = [](const auto& self, Node* node) -> void {
    for (unsigned int i = 0; i < node->nodeCount; ++i) self(self, node->nodes()[i]);
    ::operator delete(node);
  };
  if (root_ != nullptr) destroy(destroy, root_);
}

PrefixTrie::Node* PrefixTrie::newNode(std::size_t room) {
  // What else would be lost to the allocator's rounding.
  room = (room + 15) / 16 * 16;
  Node* const node = new (::operator new(sizeof(Node) + room)) Node();
  node->room = static_cast<std::uint16_t>(room);
  return node;
}

void PrefixTrie::giveBack(Node* node) noexcept {
  ::operator delete(node);
}

/// `fresh` takes over all of the node that `link` leads to, and its place.
void PrefixTrie::moveTo(Node*& link, Node* fresh) noexcept {
  Node* const former = std::exchange(link, fresh);
  const std::uint16_t room = fresh->room;
  *fresh = *former;
  fresh->room = room;
  std::memcpy(fresh->nodes(), former->nodes(), former->taken());
  giveBack(former);
}

/// Sees to it that the node has `room` more bytes behind it.
void PrefixTrie::makeRoom(Node*& link, std::size_t room) {
  const std::size_t wanted = link->taken() + room;
  if (wanted > link->room) moveTo(link, newNode(wanted + wanted / 4));
}

void PrefixTrie::shrink(Node*& link) noexcept {
  if (link->taken() + 64 > link->room / 2) return;
  try {
    moveTo(link, newNode(link->taken()));
  } catch (const std::bad_alloc&) {
    // It stays as large as it is.
  }
}

unsigned int PrefixTrie::Node::longest(unsigned int most, unsigned int six) const {
  if (most == stride && (sixth >> six & 1) != 0) return stride;
  std::uint64_t found = upper & upperPrefixes[six];
  if (most < stride) found &= (std::uint64_t{1} << ((2U << most) - 2)) - 1;
  // The prefixes of n bits begin at bit 2^n - 2.
  return found == 0 ? 0 : static_cast<unsigned int>(std::bit_width(std::bit_width(found) + 1U)) - 1;
}

Slot& PrefixTrie::addSlot(Node& node, unsigned int more, unsigned int six) noexcept {
  const unsigned int index = node.slotIndex(more, six);
  Slot* const at = node.slots() + index;
  std::memmove(at + 1, at, (node.slotCount - index) * sizeof(Slot));
  ++node.slotCount;
  (more == stride ? node.sixth : node.upper) |= std::uint64_t{1} << bitOf(more, six);
  return *at = noSlot;
}

void PrefixTrie::addNode(Node& node, Node* added) noexcept {
  const unsigned int six = added->bits.sixBits(node.depth);
  const unsigned int index = node.nodeIndex(six);
  Node** const at = node.nodes() + index;
  std::memmove(at + 1, at, node.taken() - index * linkLength);
  ++node.nodeCount;
  node.below |= std::uint64_t{1} << six;
  *at = added;
}

void PrefixTrie::removeNode(Node*& link, unsigned int six) noexcept {
  Node& node = *link;
  const unsigned int index = node.nodeIndex(six);
  Node** const at = node.nodes() + index;
  giveBack(*at);
  std::memmove(at, at + 1, node.taken() - (index + 1) * linkLength);
  --node.nodeCount;
  node.below &= ~(std::uint64_t{1} << six);
}

/// A node without slots that leads to one node only is left out.
bool PrefixTrie::skipIfIdle(Node*& link) noexcept {
  if (link->slotCount != 0 || link->nodeCount != 1) return false;
  Node* const only = link->nodes()[0];
  giveBack(link);
  link = only;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Places

Slot& PrefixTrie::makePlace(const Prefix& prefix) {
  if (prefix.length == 0) {
    hasAll_ = true;
    return all_;
  }
  const unsigned int depth = depthFor(prefix.length);
  const unsigned int more = prefix.length - depth;
  const auto makeLeaf = [&] {
    NewNode leaf(*this, sizeof(Slot));
    leaf->depth = static_cast<std::uint8_t>(depth);
    leaf->bits = prefix.bits.cutTo(depth);
    return leaf.release();
  };
  const auto slotIn = [&](Node& node) -> Slot& {
    const unsigned int six = prefix.bits.sixBits(depth);
    if (node.hasSlot(more, six)) return node.slots()[node.slotIndex(more, six)];
    return addSlot(node, more, six);
  };
  if (root_ == nullptr) {
    root_ = makeLeaf();
    return slotIn(*root_);
  }
  for (Node** link = &root_;;) {
    Node& at = **link;
    const unsigned int common = at.bits.commonBits(prefix.bits);
    if (common < at.depth || depth < at.depth) {
      // It parts from what is here above this node.
      const unsigned int parting = std::min(depth, common / stride * stride);
      NewNode fork(*this, 2 * linkLength);
      fork->depth = static_cast<std::uint8_t>(parting);
      fork->bits = prefix.bits.cutTo(parting);
      Node* const leaf = parting == depth ? nullptr : makeLeaf();
      addNode(*fork, &at);
      if (leaf != nullptr) addNode(*fork, leaf);
      *link = fork.release();
      return slotIn(leaf != nullptr ? *leaf : **link);
    }
    if (at.depth == depth) {
      if (!at.hasSlot(more, prefix.bits.sixBits(depth))) makeRoom(*link, sizeof(Slot));
      return slotIn(**link);
    }
    const unsigned int six = prefix.bits.sixBits(at.depth);
    if (!at.hasNode(six)) {
      makeRoom(*link, linkLength);
      Node* const leaf = makeLeaf();
      addNode(**link, leaf);
      return slotIn(*leaf);
    }
    link = at.nodes() + at.nodeIndex(six);
  }
}

const Slot* PrefixTrie::place(const Prefix& prefix) const {
  if (prefix.length == 0) return hasAll_ ? &all_ : nullptr;
  const unsigned int depth = depthFor(prefix.length);
  for (const Node* at = root_; at != nullptr && isOn(*at, prefix);) {
    const unsigned int six = prefix.bits.sixBits(at->depth);
    if (at->depth == depth) {
      const unsigned int more = prefix.length - depth;
      return at->hasSlot(more, six) ? at->slots() + at->slotIndex(more, six) : nullptr;
    }
    if (!at->hasNode(six)) break;
    at = &at->node(six);
  }
  return nullptr;
}

void PrefixTrie::removePlace(const Prefix& prefix) noexcept {
  if (prefix.length == 0) {
    hasAll_ = false;
    all_ = noSlot;
    return;
  }
  const unsigned int depth = depthFor(prefix.length);
  Node** above = nullptr;
  Node** link = &root_;
  while ((*link)->depth != depth) {
    above = link;
    link = (*link)->nodes() + (*link)->nodeIndex(prefix.bits.sixBits((*link)->depth));
  }
  Node& node = **link;
  const unsigned int more = prefix.length - depth;
  const unsigned int six = prefix.bits.sixBits(depth);
  const unsigned int index = node.slotIndex(more, six);
  Slot* const at = node.slots() + index;
  std::memmove(at, at + 1, (node.slotCount - index - 1) * sizeof(Slot));
  --node.slotCount;
  (more == stride ? node.sixth : node.upper) &= ~(std::uint64_t{1} << bitOf(more, six));
  if (node.slotCount != 0 || node.nodeCount > 1) return shrink(*link);
  if (skipIfIdle(*link)) return;
  if (above == nullptr) {
    giveBack(std::exchange(root_, nullptr));
    return;
  }
  removeNode(*above, prefix.bits.sixBits((*above)->depth));
  if (!skipIfIdle(*above)) shrink(*above);
}

Slot PrefixTrie::mostSpecific(const Prefix& prefix) const {
  const Node* found = nullptr;
  unsigned int foundMore = 0;
  unsigned int decided = 0;  // bits that the way here has compared
  for (const Node* at = root_; at != nullptr; decided += stride) {
    if (at->depth != decided) {
      if (!isOn(*at, prefix)) break;
      decided = at->depth;
    }
    if (decided >= prefix.length) break;
    const unsigned int six = prefix.bits.sixBits(decided);
    const unsigned int most = moreThan(decided, prefix.length);
    if (const unsigned int more = at->longest(most, six); more != 0) {
      found = at;
      foundMore = more;
    }
    if (most < stride || !at->hasNode(six)) break;
    at = &at->node(six);
  }
  if (found == nullptr) return all_;
  const unsigned int six = prefix.bits.sixBits(found->depth);
  const Slot slot = found->slots()[found->slotIndex(foundMore, six)];
  if (slot != noSlot) return slot;
  // Its row has not come yet.
  Slot last = noSlot;
  covering(prefix, [&last](Slot wider) { last = wider; });
  return last;
}

}  // namespace Korvo::detail
