#include "PrefixTrie.h"

#include <Korvo/rowOrder.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace Korvo::detail {

AddressBits AddressBits::of(AddressFamily af, const byte_t* bytes) {
  if (af != ipv6_) {
    return {std::uint64_t{__builtin_bswap32(loadField<std::uint32_t>(bytes))} << 32, 0};
  }
  return {__builtin_bswap64(loadField<std::uint64_t>(bytes)),
          __builtin_bswap64(loadField<std::uint64_t>(bytes + 8))};
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

const bool hasPopcnt = __builtin_cpu_supports("popcnt") != 0;

std::size_t unitsFor(std::size_t bytes) {
  return (bytes + BlockPool::unit - 1) / BlockPool::unit;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Nodes

/// Gives the node's block back.
void PrefixTrie::giveBack(Node& node) noexcept {
  if (node.room != 0) blocks_.giveBack(node.block, node.room);
  node.block = nullptr;
  node.room = 0;
}

/// Gives the node a block of so many units.
void PrefixTrie::moveTo(Node& node, std::size_t units) {
  void* const fresh = blocks_.allocate(units);
  if (node.taken() != 0) std::memcpy(fresh, node.block, node.taken());
  giveBack(node);
  node.block = fresh;
  node.room = static_cast<std::uint8_t>(units);
}

/// Sees to it that there is room for so many nodes and slots. Throws std::bad_alloc.
void PrefixTrie::makeRoom(Node& node, unsigned int nodes, unsigned int slots) {
  const std::size_t units = unitsFor(Node::lengthOf(nodes, slots));
  if (units > node.room) moveTo(node, units + units / 4);
}

void PrefixTrie::shrink(Node& node) noexcept {
  const std::size_t units = unitsFor(node.taken());
  if (units == 0) return giveBack(node);
  if (units + 1 > node.room / 2U) return;
  try {
    moveTo(node, units);
  } catch (const std::bad_alloc&) {
    // It stays as large as it is.
  }
}

bool PrefixTrie::Node::covers(unsigned int six) const {
  return (sixth >> six & 1) != 0 || (upper & upperPrefixes[six]) != 0;
}

unsigned int PrefixTrie::Node::longest(unsigned int most, unsigned int six) const {
  if (most == stride && (sixth >> six & 1) != 0) return stride;
  std::uint64_t found = upper & upperPrefixes[six];
  if (most < stride) found &= (std::uint64_t{1} << ((2U << most) - 2)) - 1;
  // The prefixes of n bits begin at bit 2^n - 2.
  return found == 0 ? 0 : static_cast<unsigned int>(std::bit_width(std::bit_width(found) + 1U)) - 1;
}

void PrefixTrie::addSlot(Node& node, unsigned int more, unsigned int six) noexcept {
  const unsigned int index = node.slotIndex(more, six);
  if (node.slotCount == fewSlots) std::memcpy(node.farSlots(), node.few, sizeof node.few);
  Slot* const at = (node.slotCount < fewSlots ? node.few : node.farSlots()) + index;
  std::memmove(at + 1, at, (node.slotCount - index) * sizeof(Slot));
  ++node.slotCount;
  (more == stride ? node.sixth : node.upper) |= std::uint64_t{1} << bitOf(more, six);
  *at = noSlot;
}

void PrefixTrie::removeSlot(Node& node, unsigned int more, unsigned int six) noexcept {
  const unsigned int index = node.slotIndex(more, six);
  Slot* const at = node.slots() + index;
  std::memmove(at, at + 1, (node.slotCount - index - 1) * sizeof(Slot));
  --node.slotCount;
  if (node.slotCount == fewSlots) std::memcpy(node.few, node.farSlots(), sizeof node.few);
  (more == stride ? node.sixth : node.upper) &= ~(std::uint64_t{1} << bitOf(more, six));
}

PrefixTrie::Node& PrefixTrie::addNode(Node& node, const Node& added) noexcept {
  const unsigned int six = added.bits.sixBits(node.depth);
  const unsigned int index = node.nodeIndex(six);
  Node* const at = node.nodes() + index;
  std::memmove(static_cast<void*>(at + 1), at, node.taken() - index * sizeof(Node));
  ++node.nodeCount;
  node.below |= std::uint64_t{1} << six;
  return *new (at) Node(added);
}

/// Of a node below that is empty and has given its block back.
void PrefixTrie::removeNode(Node& node, unsigned int six) noexcept {
  const unsigned int index = node.nodeIndex(six);
  Node* const at = node.nodes() + index;
  std::memmove(static_cast<void*>(at), at + 1, node.taken() - (index + 1) * sizeof(Node));
  --node.nodeCount;
  node.below &= ~(std::uint64_t{1} << six);
}

/// A node without slots that leads to one node only is left out.
bool PrefixTrie::skipIfIdle(Node& node) noexcept {
  if (node.slotCount != 0 || node.nodeCount != 1) return false;
  const Node only = node.nodes()[0];
  giveBack(node);
  node = only;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Places

bool PrefixTrie::makePlace(const Prefix& prefix) {
  if (prefix.length == 0) {
    return !std::exchange(hasAll_, true);
  }
  const unsigned int depth = depthFor(prefix.length);
  const unsigned int more = prefix.length - depth;
  const unsigned int lastSix = prefix.bits.sixBits(depth);
  const auto newNode = [&prefix](unsigned int ofDepth) {
    Node node;
    node.bits = prefix.bits.cutTo(ofDepth);
    node.depth = static_cast<std::uint8_t>(ofDepth);
    return node;
  };
  if (root_.isEmpty()) root_ = newNode(depth);
  for (Node* at = &root_;;) {
    const unsigned int common = at->bits.commonBits(prefix.bits);
    if (common < at->depth || depth < at->depth) {
      // It parts from what is here above this node.
      const unsigned int parting = std::min(depth, common / stride * stride);
      Node fork = newNode(parting);
      makeRoom(fork, 2, 0);
      addNode(fork, *at);
      *at = fork;
      addSlot(parting == depth ? *at : addNode(*at, newNode(depth)), more, lastSix);
      return true;
    }
    if (at->depth == depth) {
      if (at->hasSlot(more, lastSix)) return false;
      makeRoom(*at, at->nodeCount, at->slotCount + 1U);
      addSlot(*at, more, lastSix);
      return true;
    }
    const unsigned int six = prefix.bits.sixBits(at->depth);
    if (!at->hasNode(six)) {
      makeRoom(*at, at->nodeCount + 1U, at->slotCount);
      addSlot(addNode(*at, newNode(depth)), more, lastSix);
      return true;
    }
    at = at->nodes() + at->nodeIndex(six);
  }
}

const Slot* PrefixTrie::place(const Prefix& prefix) const {
  if (prefix.length == 0) return hasAll_ ? &all_ : nullptr;
  const unsigned int depth = depthFor(prefix.length);
  for (const Node* at = &root_; isOn(*at, prefix);) {
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
  Node* above = nullptr;
  Node* at = &root_;
  while (at->depth != depth) {
    above = at;
    at = at->nodes() + at->nodeIndex(prefix.bits.sixBits(at->depth));
  }
  removeSlot(*at, prefix.length - depth, prefix.bits.sixBits(depth));
  if (!at->isEmpty()) {
    if (!skipIfIdle(*at)) shrink(*at);
    return;
  }
  giveBack(*at);
  if (above == nullptr) {
    root_ = {};
    blocks_.clear();
    return;
  }
  removeNode(*above, prefix.bits.sixBits(above->depth));
  if (!skipIfIdle(*above)) shrink(*above);
}

Slot PrefixTrie::search(const Prefix& prefix) const {
  const Node* found = nullptr;
  unsigned int depth = 0;          // bits that the way here has compared
  AddressBits rest = prefix.bits;  // behind those
  for (const Node* at = &root_;; depth += stride, rest = rest.behind(stride)) {
    if (at->depth != depth) {
      if (!isOn(*at, prefix)) break;
      rest = rest.behind(at->depth - depth);
      depth = at->depth;
    }
    const unsigned int six = rest.firstSix();
    if (depth + stride > prefix.length) {
      // What is here may be longer than what is asked for.
      if (depth < prefix.length && at->longest(prefix.length - depth, six) != 0) found = at;
      break;
    }
    if (at->covers(six)) found = at;
    if (!at->hasNode(six)) break;
    at = &at->node(six);
  }
  if (found == nullptr) return all_;
  const unsigned int six = prefix.bits.sixBits(found->depth);
  const unsigned int more = found->longest(moreThan(found->depth, prefix.length), six);
  const Slot slot = found->slots()[found->slotIndex(more, six)];
  if (slot != noSlot) return slot;
  // Its row has not come yet.
  Slot last = noSlot;
  covering(prefix, [&last](Slot wider) { last = wider; });
  return last;
}

/// search() for processors that count bits in one instruction. Compilers may not use it for all,
/// and call a function instead; that makes up a third of a look-up.
[[gnu::target("popcnt"), gnu::flatten]] Slot PrefixTrie::searchByPopcnt(
    const Prefix& prefix) const {
  return search(prefix);
}

Slot PrefixTrie::mostSpecific(const Prefix& prefix) const {
  return hasPopcnt ? searchByPopcnt(prefix) : search(prefix);
}

}  // namespace Korvo::detail
