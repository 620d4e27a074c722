#include "TableIndexes.h"

#include <Korvo/assertion.h>

#include <algorithm>
#include <bit>

#include "TableStore.h"

namespace Korvo::detail {

// ---------------------------------------------------------------------------------------------
// Keys

KeyPart KeyPart::ofColumn(const BaseRow& row, const ColumnInfo& column) {
  const len_t at = column.offset;
  switch (column.type) {
    case uint8Type_:
      return ofUnsigned(row.fixedColumn<std::uint8_t>(at));
    case uint16Type_:
    case lenType_:
      return ofUnsigned(row.fixedColumn<std::uint16_t>(at));
    case uint32Type_:
    case oidType_:
      return ofUnsigned(row.fixedColumn<std::uint32_t>(at));
    case uint64Type_:
      return ofUnsigned(row.fixedColumn<std::uint64_t>(at));
    case int8Type_:
      return ofSigned(row.fixedColumn<std::int8_t>(at));
    case int16Type_:
      return ofSigned(row.fixedColumn<std::int16_t>(at));
    case int32Type_:
      return ofSigned(row.fixedColumn<std::int32_t>(at));
    case int64Type_:
      return ofSigned(row.fixedColumn<std::int64_t>(at));
    case floatType_:
      return ofDouble(double{row.fixedColumn<float>(at)});
    case doubleType_:
      return ofDouble(row.fixedColumn<double>(at));
    case boolType_:
      return ofUnsigned(row.fixedColumn<bool>(at) ? 1 : 0);
    case ipAddrType_: {
      const unsigned int word = row.fixedColumn<IpAddr>(at).addr();
      return ofAddress(ipv4_, reinterpret_cast<const byte_t*>(&word));
    }
    case ip6AddrType_: {
      const Ip6Addr addr = row.fixedColumn<Ip6Addr>(at);
      return ofAddress(ipv6_, addr.bytes());
    }
    case stringType_: {
      StringValueReference text;
      row.getColumn(at, text);
      return ofText(text.view());
    }
    case ipGenAddrType_: {
      IpGenAddrReference addr;
      row.getColumn(at, addr);
      return ofAddress(addr.af(), addr.addr());
    }
    case ipGenPrefixType_: {
      IpGenPrefixReference prefix;
      row.getColumn(at, prefix);
      return ofPrefix(prefix.af(), prefix.addr(), prefix.mask());
    }
    case structType_:
      break;
  }
  return {};
}

int compareKeys(std::span<const KeyPart> a, std::span<const KeyPart> b) {
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < common; ++i) {
    if (const int order = a[i].compare(b[i]); order != 0) return order;
  }
  return 0;
}

std::uint64_t hashKey(std::span<const KeyPart> key) {
  std::uint64_t hash = 0;
  for (const KeyPart& part : key) {
    hash = (hash + std::hash<std::string_view>()(part.bytes())) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32;
  }
  return hash;
}

// ---------------------------------------------------------------------------------------------
// What all indexes have in common

TableIndex::TableIndex(const TableStore& store, std::span<const std::size_t> columns)
    : store_(store) {
  for (const std::size_t column : columns) columns_.push_back(&store.layout().columns[column]);
}

std::unique_ptr<TableIndex> TableIndex::make(IndexKind kind, const TableStore& store,
                                             std::span<const std::size_t> columns) {
  if (columns.empty() || columns.size() > mostColumns) {
    throw KoInvalidArgument("Cannot index " + std::to_string(columns.size()) + " columns");
  }
  for (const std::size_t column : columns) {
    const ColumnInfo& info = store.layout().columns[column];
    const bool fits = kind == IndexKind::longestPrefix
                          ? info.type == ipGenPrefixType_ && !info.isArray && columns.size() == 1
                          : KeyPart::canIndex(info);
    if (!fits) throw KoInvalidArgument("Cannot index - (" + std::string(info.name) + ")");
  }
  switch (kind) {
    case IndexKind::equal:
    case IndexKind::unique:
      return std::make_unique<EqualIndex>(store, columns);
    case IndexKind::ordered:
      return std::make_unique<OrderedIndex>(store, columns);
    case IndexKind::longestPrefix:
      break;
  }
  return std::make_unique<PrefixIndex>(store, columns);
}

TableIndex::Key::Key(const TableIndex& index, const BaseRow& row) : count_(index.columns_.size()) {
  for (std::size_t i = 0; i < count_; ++i) parts_[i] = KeyPart::ofColumn(row, *index.columns_[i]);
}

TableIndex::Key TableIndex::key(Slot slot) const {
  return Key(*this, store_.row(slot));
}

bool TableIndex::sameKey(const BaseRow& a, const BaseRow& b) const {
  return compareKeys(Key(*this, a).parts(), Key(*this, b).parts()) == 0;
}

// ---------------------------------------------------------------------------------------------
// By equality

void EqualIndex::reserve(std::size_t slots, std::size_t count) {
  if (links_.size() < slots) {
    links_.reserve(std::max(slots, links_.size() + links_.size() / 2));
    links_.resize(slots);
  }
  const std::size_t wanted = std::bit_ceil(std::max<std::size_t>(size_ + count, 16));
  if (wanted <= buckets_.size()) return;
  std::vector<Slot> buckets(wanted, noSlot);
  buckets_.swap(buckets);
  for (const Slot first : buckets) {
    for (Slot slot = first; slot != noSlot;) {
      Slot& bucket = buckets_[bucketOf(links_[slot].hash)];
      slot = std::exchange(links_[slot].next, std::exchange(bucket, slot));
    }
  }
}

void EqualIndex::insert(Slot slot) noexcept {
  const auto hash = static_cast<std::uint32_t>(hashKey(key(slot).parts()));
  Slot& bucket = buckets_[bucketOf(hash)];
  links_[slot] = {std::exchange(bucket, slot), hash};
  ++size_;
}

void EqualIndex::erase(Slot slot) noexcept {
  Slot* at = &buckets_[bucketOf(links_[slot].hash)];
  while (*at != slot) at = &links_[*at].next;
  *at = links_[slot].next;
  --size_;
}

Slot EqualIndex::matchFrom(Slot slot, std::uint32_t hash, std::span<const KeyPart> wanted) const {
  while (slot != noSlot &&
         (links_[slot].hash != hash || compareKeys(key(slot).parts(), wanted) != 0)) {
    slot = links_[slot].next;
  }
  return slot;
}

Slot EqualIndex::find(std::span<const KeyPart> wanted) const {
  if (buckets_.empty()) return noSlot;
  const auto hash = static_cast<std::uint32_t>(hashKey(wanted));
  return matchFrom(buckets_[bucketOf(hash)], hash, wanted);
}

Slot EqualIndex::findNext(Slot slot) const {
  return matchFrom(links_[slot].next, links_[slot].hash, key(slot).parts());
}

Slot EqualIndex::find(const BaseRow& row) const {
  return find(Key(*this, row).parts());
}

// ---------------------------------------------------------------------------------------------
// By order

namespace {

/// As good as random, and not stored.
std::uint32_t priorityOf(Slot slot) {
  std::uint32_t mixed = slot + 0x9E3779B9U;
  mixed = (mixed ^ mixed >> 16) * 0x85EBCA6BU;
  mixed = (mixed ^ mixed >> 13) * 0xC2B2AE35U;
  return mixed ^ mixed >> 16;
}

}  // namespace

std::uint64_t OrderedIndex::leadingBytesOf(const KeyPart& part) {
  return leadingBytes(part.bytes().data(), part.bytes().size());
}

void OrderedIndex::reserve(std::size_t slots, std::size_t) {
  if (nodes_.size() >= slots) return;
  nodes_.reserve(std::max(slots, nodes_.size() + nodes_.size() / 2));
  nodes_.resize(slots);
}

bool OrderedIndex::isBefore(Slot a, Slot b) const {
  if (nodes_[a].key != nodes_[b].key) return nodes_[a].key < nodes_[b].key;
  const int order = compareKeys(key(a).parts(), key(b).parts());
  return order != 0 ? order < 0 : store_.oid(a) < store_.oid(b);
}

void OrderedIndex::insert(Slot slot) noexcept {
  nodes_[slot] = {leadingBytesOf(key(slot).parts().front()), {noSlot, noSlot}, noSlot};
  Slot parent = noSlot;
  int side = 0;
  for (Slot at = root_; at != noSlot; at = nodes_[at].child[side]) {
    parent = at;
    side = isBefore(slot, at) ? 0 : 1;
  }
  if (parent == noSlot) {
    root_ = slot;
    return;
  }
  nodes_[slot].parent = parent;
  nodes_[parent].child[side] = slot;
  while (nodes_[slot].parent != noSlot && priorityOf(slot) > priorityOf(nodes_[slot].parent)) {
    rotateUp(slot);
  }
}

void OrderedIndex::erase(Slot slot) noexcept {
  for (;;) {
    const Slot left = nodes_[slot].child[0];
    const Slot right = nodes_[slot].child[1];
    if (left == noSlot || right == noSlot) {
      replaceChild(nodes_[slot].parent, slot, left != noSlot ? left : right);
      return;
    }
    rotateUp(priorityOf(left) > priorityOf(right) ? left : right);
  }
}

/// `by`, which may be none, takes the place of `child`.
void OrderedIndex::replaceChild(Slot parent, Slot child, Slot by) noexcept {
  if (parent == noSlot) {
    root_ = by;
  } else {
    nodes_[parent].child[nodes_[parent].child[1] == child ? 1 : 0] = by;
  }
  if (by != noSlot) nodes_[by].parent = parent;
}

/// The slot and its parent change places; the order stays.
void OrderedIndex::rotateUp(Slot slot) noexcept {
  const Slot parent = nodes_[slot].parent;
  const int side = nodes_[parent].child[1] == slot ? 1 : 0;
  const Slot inner = nodes_[slot].child[1 - side];
  replaceChild(nodes_[parent].parent, parent, slot);
  nodes_[parent].child[side] = inner;
  if (inner != noSlot) nodes_[inner].parent = parent;
  nodes_[slot].child[1 - side] = parent;
  nodes_[parent].parent = slot;
}

Slot OrderedIndex::outermost(Slot slot, int side) const {
  while (slot != noSlot && nodes_[slot].child[side] != noSlot) slot = nodes_[slot].child[side];
  return slot;
}

Slot OrderedIndex::first() const {
  return outermost(root_, 0);
}

Slot OrderedIndex::last() const {
  return outermost(root_, 1);
}

Slot OrderedIndex::neighbour(Slot slot, int side) const {
  if (nodes_[slot].child[side] != noSlot) return outermost(nodes_[slot].child[side], 1 - side);
  Slot parent = nodes_[slot].parent;
  while (parent != noSlot && nodes_[parent].child[side] == slot) {
    slot = parent;
    parent = nodes_[slot].parent;
  }
  return parent;
}

Slot OrderedIndex::bound(std::span<const KeyPart> wanted, bool behind) const {
  const std::uint64_t leading = leadingBytesOf(wanted.front());
  Slot found = noSlot;
  for (Slot at = root_; at != noSlot;) {
    int order = nodes_[at].key < leading ? -1 : nodes_[at].key > leading ? 1 : 0;
    if (order == 0) order = compareKeys(key(at).parts(), wanted);
    const bool isFound = behind ? order > 0 : order >= 0;
    if (isFound) found = at;
    at = nodes_[at].child[isFound ? 0 : 1];
  }
  return found;
}

// ---------------------------------------------------------------------------------------------
// By prefix

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

unsigned int AddressBits::commonBits(const AddressBits& other) const {
  if (high != other.high) return static_cast<unsigned int>(std::countl_zero(high ^ other.high));
  return 64 + static_cast<unsigned int>(std::countl_zero(low ^ other.low));
}

PrefixIndex::Prefix PrefixIndex::prefixOf(Slot slot) const {
  const Key rowKey = key(slot);
  const std::string_view bytes = rowKey.parts().front().bytes();
  if (bytes.empty()) return {};
  const auto at = [&](std::size_t i) { return static_cast<byte_t>(bytes[i]); };
  byte_t address[ipv6Length] = {};
  for (std::size_t i = 1; i + 1 < bytes.size(); ++i) address[i - 1] = at(i);
  Prefix prefix{static_cast<AddressFamily>(at(0)), at(bytes.size() - 1), {}};
  // A row that was not checked may claim more bits than its address has.
  prefix.length = std::min<unsigned int>(
      prefix.length, 8 * static_cast<unsigned int>(encodedAddressLength(prefix.af)));
  prefix.bits = AddressBits::of(prefix.af, address).cutTo(prefix.length);
  return prefix;
}

void PrefixIndex::reserve(std::size_t slots, std::size_t count) {
  if (same_.size() < slots) {
    same_.reserve(std::max(slots, same_.size() + same_.size() / 2));
    same_.resize(slots, noSlot);
  }
  // A row takes its own node at the most, and one where two ways part.
  const std::size_t wanted = nodes_.size() + 2 * count - std::min(2 * count, freeCount_);
  if (wanted > nodes_.capacity()) {
    nodes_.reserve(std::max(wanted, nodes_.size() + nodes_.size() / 2));
  }
}

PrefixIndex::NodeIndex PrefixIndex::takeNode(const AddressBits& bits,
                                             unsigned int length) noexcept {
  const Node node{bits, length, noSlot, {noNode, noNode}};
  if (free_ == noNode) {
    nodes_.push_back(node);
    return static_cast<NodeIndex>(nodes_.size() - 1);
  }
  const NodeIndex taken = free_;
  free_ = nodes_[taken].child[0];
  --freeCount_;
  nodes_[taken] = node;
  return taken;
}

void PrefixIndex::giveNode(NodeIndex node) noexcept {
  nodes_[node].child[0] = free_;
  free_ = node;
  ++freeCount_;
}

/// Whether the node's prefix contains all of `prefix`.
bool PrefixIndex::isOn(const Node& node, const Prefix& prefix) const {
  return node.length <= prefix.length && node.bits.commonBits(prefix.bits) >= node.length;
}

void PrefixIndex::insert(Slot slot) noexcept {
  const Prefix prefix = prefixOf(slot);
  if (prefix.af == unknown_) return;
  NodeIndex above = noNode;
  NodeIndex at = rootOf(prefix.af);
  const auto hang = [&](NodeIndex node) {
    if (above == noNode) {
      rootOf(prefix.af) = node;
    } else {
      nodes_[above].child[prefix.bits.bit(nodes_[above].length)] = node;
    }
  };
  while (at != noNode && isOn(nodes_[at], prefix) && nodes_[at].length < prefix.length) {
    above = at;
    at = nodes_[at].child[prefix.bits.bit(nodes_[at].length)];
  }
  if (at == noNode) {
    at = takeNode(prefix.bits, prefix.length);
    hang(at);
  } else if (!isOn(nodes_[at], prefix)) {
    const AddressBits below = nodes_[at].bits;
    const unsigned int common =
        std::min({below.commonBits(prefix.bits), nodes_[at].length, prefix.length});
    const NodeIndex fork = takeNode(prefix.bits.cutTo(common), common);
    nodes_[fork].child[below.bit(common)] = at;
    hang(fork);
    if (common == prefix.length) {
      at = fork;
    } else {
      at = takeNode(prefix.bits, prefix.length);
      nodes_[fork].child[prefix.bits.bit(common)] = at;
    }
  }
  same_[slot] = std::exchange(nodes_[at].rows, slot);
}

void PrefixIndex::erase(Slot slot) noexcept {
  const Prefix prefix = prefixOf(slot);
  if (prefix.af == unknown_) return;
  NodeIndex* aboveLink = nullptr;
  NodeIndex* link = &rootOf(prefix.af);
  while (nodes_[*link].length < prefix.length) {
    aboveLink = link;
    link = &nodes_[*link].child[prefix.bits.bit(nodes_[*link].length)];
  }
  const NodeIndex node = *link;
  Slot* at = &nodes_[node].rows;
  while (*at != slot) at = &same_[*at];
  *at = same_[slot];

  // A node without rows that does not part two ways goes, and the one above it may now be such.
  const auto isIdle = [&](NodeIndex which) {
    return nodes_[which].rows == noSlot &&
           (nodes_[which].child[0] == noNode || nodes_[which].child[1] == noNode);
  };
  const auto takeOut = [&](NodeIndex& linkOfIt) {
    const NodeIndex gone = linkOfIt;
    linkOfIt = nodes_[gone].child[nodes_[gone].child[0] == noNode ? 1 : 0];
    giveNode(gone);
  };
  if (!isIdle(node)) return;
  takeOut(*link);
  if (aboveLink != nullptr && isIdle(*aboveLink)) takeOut(*aboveLink);
}

Slot PrefixIndex::mostSpecific(const Prefix& prefix) const {
  Slot found = noSlot;
  for (NodeIndex at = rootOf(prefix.af); at != noNode && isOn(nodes_[at], prefix);) {
    const Node& node = nodes_[at];
    if (node.rows != noSlot) found = node.rows;
    if (node.length >= prefix.length) break;
    at = node.child[prefix.bits.bit(node.length)];
  }
  return found;
}

Slot PrefixIndex::exact(const Prefix& prefix) const {
  const Slot found = mostSpecific(prefix);
  return found != noSlot && prefixOf(found).length == prefix.length ? found : noSlot;
}

std::vector<Slot> PrefixIndex::covering(const Prefix& prefix) const {
  std::vector<Slot> found;
  for (NodeIndex at = rootOf(prefix.af); at != noNode && isOn(nodes_[at], prefix);) {
    const Node& node = nodes_[at];
    for (Slot row = node.rows; row != noSlot; row = same_[row]) found.push_back(row);
    if (node.length >= prefix.length) break;
    at = node.child[prefix.bits.bit(node.length)];
  }
  return found;
}

std::vector<Slot> PrefixIndex::inside(const Prefix& prefix) const {
  std::vector<Slot> found;
  NodeIndex at = rootOf(prefix.af);
  while (at != noNode && isOn(nodes_[at], prefix) && nodes_[at].length < prefix.length) {
    at = nodes_[at].child[prefix.bits.bit(nodes_[at].length)];
  }
  if (at != noNode && nodes_[at].bits.commonBits(prefix.bits) >= prefix.length &&
      nodes_[at].length >= prefix.length) {
    collect(at, found);
  }
  return found;
}

/// At most 128 levels deep: each is longer than the one above it.
void PrefixIndex::collect(NodeIndex node, std::vector<Slot>& rows) const {
  for (Slot row = nodes_[node].rows; row != noSlot; row = same_[row]) rows.push_back(row);
  for (const NodeIndex child : nodes_[node].child) {
    if (child != noNode) collect(child, rows);
  }
}

}  // namespace Korvo::detail
