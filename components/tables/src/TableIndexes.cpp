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

TableIndex::TableIndex(const TableStore& store, IndexKey key)
    : store_(store), function_(std::move(key.function)) {
  for (const std::size_t column : key.columns) columns_.push_back(&store.layout().columns[column]);
}

std::unique_ptr<TableIndex> TableIndex::make(IndexKind kind, const TableStore& store,
                                             IndexKey key) {
  if (key.function == nullptr && (key.columns.empty() || key.columns.size() > mostColumns)) {
    throw KoInvalidArgument("Cannot index " + std::to_string(key.columns.size()) + " columns");
  }
  for (const std::size_t column : key.columns) {
    const ColumnInfo& info = store.layout().columns[column];
    const bool fits =
        kind == IndexKind::longestPrefix
            ? info.type == ipGenPrefixType_ && !info.isArray && key.columns.size() == 1
            : KeyPart::canIndex(info);
    if (!fits) throw KoInvalidArgument("Cannot index - (" + std::string(info.name) + ")");
  }
  switch (kind) {
    case IndexKind::equal:
    case IndexKind::unique:
      return std::make_unique<EqualIndex>(store, std::move(key));
    case IndexKind::ordered:
      return std::make_unique<OrderedIndex>(store, std::move(key));
    case IndexKind::longestPrefix:
      break;
  }
  return std::make_unique<PrefixIndex>(store, std::move(key));
}

TableIndex::Key::Key(const TableIndex& index, const BaseRow& row, std::string_view computed)
    : count_(index.computes() ? 1 : index.columns_.size()) {
  if (index.computes()) {
    parts_[0] = KeyPart::ofText(computed);
    return;
  }
  for (std::size_t i = 0; i < count_; ++i) parts_[i] = KeyPart::ofColumn(row, *index.columns_[i]);
}

TableIndex::Key TableIndex::key(Slot slot) const {
  return {*this, store_.row(slot), computes() ? computed_[slot] : std::string_view()};
}

std::string TableIndex::compute(const BaseRow& row) const {
  return computes() ? function_(row) : std::string();
}

void TableIndex::reserve(std::size_t slots, std::size_t) {
  if (computes()) growTo(computed_, slots);
}

void TableIndex::put(Slot slot, std::string& computed) noexcept {
  if (computes()) computed_[slot].swap(computed);
  insert(slot);
}

void TableIndex::takeOut(Slot slot) noexcept {
  erase(slot);
  if (computes()) std::string().swap(computed_[slot]);
}

// ---------------------------------------------------------------------------------------------
// By equality

void EqualIndex::reserve(std::size_t slots, std::size_t count) {
  TableIndex::reserve(slots, count);
  growTo(links_, slots);
  const std::size_t wanted = std::bit_ceil(std::max<std::size_t>(keys_ + count, 16));
  if (wanted <= buckets_.size()) return;
  std::vector<Slot> buckets(wanted, noSlot);
  buckets_.swap(buckets);
  for (const Slot first : buckets) {
    for (Slot slot = first; slot != noSlot;) {
      Slot& bucket = buckets_[bucketOf(links_[slot].hash)];
      slot = std::exchange(links_[slot].chain, std::exchange(bucket, slot));
    }
  }
}

Slot EqualIndex::find(std::uint32_t hash, std::span<const KeyPart> wanted) const {
  Slot slot = buckets_[bucketOf(hash)];
  while (slot != noSlot &&
         (links_[slot].hash != hash || compareKeys(key(slot).parts(), wanted) != 0)) {
    slot = links_[slot].chain;
  }
  return slot;
}

Slot EqualIndex::find(std::span<const KeyPart> wanted) const {
  if (buckets_.empty()) return noSlot;
  return find(static_cast<std::uint32_t>(hashKey(wanted)), wanted);
}

void EqualIndex::insert(Slot slot) noexcept {
  const Key wanted = key(slot);
  const auto hash = static_cast<std::uint32_t>(hashKey(wanted.parts()));
  const Slot first = find(hash, wanted.parts());
  if (first == noSlot) {
    links_[slot] = {std::exchange(buckets_[bucketOf(hash)], slot), noSlot, noSlot, hash};
    ++keys_;
    return;
  }
  const Slot second = std::exchange(links_[first].next, slot);
  links_[slot] = {noSlot, second, first, hash};
  if (second != noSlot) links_[second].previous = slot;
  duplicates_ += second == noSlot ? 2U : 1U;
}

void EqualIndex::erase(Slot slot) noexcept {
  const Link gone = links_[slot];
  if (gone.next != noSlot) links_[gone.next].previous = gone.previous;
  if (gone.previous != noSlot) {
    links_[gone.previous].next = gone.next;
  } else {
    Slot* at = &buckets_[bucketOf(gone.hash)];
    while (*at != slot) at = &links_[*at].chain;
    if (gone.next == noSlot) {
      *at = gone.chain;
      --keys_;
      return;
    }
    *at = gone.next;
    links_[gone.next].chain = gone.chain;
  }
  const Slot other = gone.previous != noSlot ? gone.previous : gone.next;
  duplicates_ -= links_[other].previous == noSlot && links_[other].next == noSlot ? 2U : 1U;
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

void OrderedIndex::reserve(std::size_t slots, std::size_t count) {
  TableIndex::reserve(slots, count);
  growTo(nodes_, slots);
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

Slot OrderedIndex::lowerBound(std::span<const KeyPart> wanted) const {
  const std::uint64_t leading = leadingBytesOf(wanted.front());
  Slot found = noSlot;
  for (Slot at = root_; at != noSlot;) {
    int order = nodes_[at].key < leading ? -1 : nodes_[at].key > leading ? 1 : 0;
    if (order == 0) order = compareKeys(key(at).parts(), wanted);
    const bool isFound = order >= 0;
    if (isFound) found = at;
    at = nodes_[at].child[isFound ? 0 : 1];
  }
  return found;
}

// ---------------------------------------------------------------------------------------------
// By prefix

PrefixIndex::Place PrefixIndex::placeOf(std::span<const KeyPart> key) {
  const std::string_view bytes = key.front().bytes();
  if (bytes.empty()) return {nullptr, {}};
  const auto* const addr = reinterpret_cast<const byte_t*>(bytes.data());
  const auto af = static_cast<AddressFamily>(addr[0]);
  const unsigned int length = addr[bytes.size() - 1];
  return {&tries_[af == ipv6_ ? 1 : 0], {AddressBits::of(af, addr + 1).cutTo(length), length}};
}

void PrefixIndex::reserve(std::size_t slots, std::size_t count) {
  TableIndex::reserve(slots, count);
  if (!same_.empty()) growTo(same_, slots);
  slots_ = slots;
}

void PrefixIndex::prepare(std::span<const KeyPart> key) {
  const Place place = placeOf(key);
  if (place.trie == nullptr) return;
  if (same_.empty() && place.trie->place(place.prefix) != nullptr) same_.resize(slots_);
  place.trie->makePlace(place.prefix);
}

void PrefixIndex::release(std::span<const KeyPart> key) noexcept {
  const Place place = placeOf(key);
  if (place.trie == nullptr) return;
  const Slot* const first = place.trie->place(place.prefix);
  if (first != nullptr && *first == noSlot) place.trie->removePlace(place.prefix);
}

void PrefixIndex::insert(Slot slot) noexcept {
  const Place place = placeOf(key(slot).parts());
  if (place.trie == nullptr) return;
  const Slot second = std::exchange(*place.trie->place(place.prefix), slot);
  if (same_.empty()) return;
  same_[slot] = {second, noSlot};
  if (second != noSlot) same_[second].previous = slot;
}

void PrefixIndex::erase(Slot slot) noexcept {
  const Place place = placeOf(key(slot).parts());
  if (place.trie == nullptr) return;
  const Same gone = same_.empty() ? Same() : same_[slot];
  if (gone.next != noSlot) same_[gone.next].previous = gone.previous;
  if (gone.previous != noSlot) {
    same_[gone.previous].next = gone.next;
  } else {
    *place.trie->place(place.prefix) = gone.next;
  }
}

}  // namespace Korvo::detail
