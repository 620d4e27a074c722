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

std::uint64_t OrderedIndex::leadingBytesOf(const KeyPart& part) {
  return leadingBytes(part.bytes().data(), part.bytes().size());
}

/// A leaf is added where a full one gets another row. It then takes as many rows as a half holds to
/// fill either, so that few leaves are added for many rows; but each leaf may be full now.
void OrderedIndex::reserve(std::size_t slots, std::size_t count) {
  TableIndex::reserve(slots, count);
  growTo(leafOf_, slots);
  const std::size_t most = std::min(count, order_.size() + count / (leafSize / 8)) + 2;
  const auto makeRoomFor = [](auto& some, std::size_t wanted) {
    if (some.capacity() < wanted) some.reserve(wanted + wanted / 2);
  };
  makeRoomFor(order_, order_.size() + most);
  makeRoomFor(leaves_, leaves_.size() + most);
  makeRoomFor(freeNumbers_, leaves_.size() + most);
  makeRoomFor(spare_, most);
  while (spare_.size() < most) spare_.push_back(std::make_unique<Leaf>());
}

void OrderedIndex::settle() noexcept {
  const std::size_t most = std::max<std::size_t>(order_.size() / 16, 2);
  if (spare_.size() > most) spare_.resize(most);
}

template <typename Before>
OrderedIndex::Place OrderedIndex::placeBehind(const Before& before) const {
  const auto behind = std::ranges::partition_point(order_, [&](LeafNumber number) {
    return before(leaves_[number]->keys[0], leaves_[number]->slots[0]);
  });
  if (behind == order_.begin()) return {0, 0};
  const auto ordinal = static_cast<std::size_t>(behind - order_.begin()) - 1;
  const Leaf& leaf = leafAt(ordinal);
  std::size_t at = 0;
  for (std::size_t end = leaf.count; at != end;) {
    const std::size_t middle = at + (end - at) / 2;
    if (before(leaf.keys[middle], leaf.slots[middle])) {
      at = middle + 1;
    } else {
      end = middle;
    }
  }
  return {ordinal, at};
}

/// The place of a row that is here, or would be.
OrderedIndex::Place OrderedIndex::placeOf(Slot slot) const {
  const Key wanted = key(slot);
  const std::uint64_t leading = leadingBytesOf(wanted.parts().front());
  return placeBehind([&](std::uint64_t other, Slot of) {
    if (other != leading) return other < leading;
    if (of == slot) return false;
    const int order = compareKeys(key(of).parts(), wanted.parts());
    return order != 0 ? order < 0 : store_.oid(of) < store_.oid(slot);
  });
}

/// Which entry of its leaf is the slot's.
std::size_t OrderedIndex::entryOf(const Leaf& leaf, Slot slot) const {
  if (lookedAt_ >= leaf.count || leaf.slots[lookedAt_] != slot) {
    lookedAt_ =
        static_cast<std::size_t>(std::find(leaf.slots, leaf.slots + leaf.count, slot) - leaf.slots);
  }
  return lookedAt_;
}

void OrderedIndex::addLeaf(std::size_t ordinal) noexcept {
  LeafNumber number = static_cast<LeafNumber>(leaves_.size());
  if (freeNumbers_.empty()) {
    leaves_.push_back(std::move(spare_.back()));
  } else {
    number = freeNumbers_.back();
    freeNumbers_.pop_back();
    leaves_[number] = std::move(spare_.back());
  }
  spare_.pop_back();
  Leaf& leaf = *leaves_[number];
  leaf.count = 0;
  leaf.next = ordinal < order_.size() ? order_[ordinal] : noSlot;
  if (ordinal != 0) leafAt(ordinal - 1).next = number;
  order_.insert(order_.begin() + static_cast<std::ptrdiff_t>(ordinal), number);
}

void OrderedIndex::removeLeaf(std::size_t ordinal) noexcept {
  const LeafNumber number = order_[ordinal];
  if (ordinal != 0) leafAt(ordinal - 1).next = leaves_[number]->next;
  order_.erase(order_.begin() + static_cast<std::ptrdiff_t>(ordinal));
  leaves_[number].reset();
  freeNumbers_.push_back(number);
}

/// From `begin` on, to the end of another leaf.
void OrderedIndex::moveEntries(Leaf& from, std::size_t begin,
                               std::size_t ordinalOfTarget) noexcept {
  const LeafNumber number = order_[ordinalOfTarget];
  Leaf& to = *leaves_[number];
  for (std::size_t i = begin; i < from.count; ++i, ++to.count) {
    to.keys[to.count] = from.keys[i];
    to.slots[to.count] = from.slots[i];
    leafOf_[from.slots[i]] = number;
  }
  from.count = static_cast<std::uint32_t>(begin);
}

void OrderedIndex::insert(Slot slot) noexcept {
  if (order_.empty()) addLeaf(0);
  auto [ordinal, at] = placeOf(slot);
  if (leafAt(ordinal).count == leafSize) {
    // Rows that come in order fill one leaf after the other.
    const bool isLast = ordinal + 1 == order_.size() && at == leafSize;
    const std::size_t kept = isLast ? leafSize : leafSize / 2;
    addLeaf(ordinal + 1);
    moveEntries(leafAt(ordinal), kept, ordinal + 1);
    if (at > kept || isLast) {
      ++ordinal;
      at -= kept;
    }
  }
  Leaf& leaf = leafAt(ordinal);
  std::copy_backward(leaf.keys + at, leaf.keys + leaf.count, leaf.keys + leaf.count + 1);
  std::copy_backward(leaf.slots + at, leaf.slots + leaf.count, leaf.slots + leaf.count + 1);
  ++leaf.count;
  leaf.keys[at] = leadingBytesOf(key(slot).parts().front());
  leaf.slots[at] = slot;
  leafOf_[slot] = order_[ordinal];
}

void OrderedIndex::erase(Slot slot) noexcept {
  Leaf& leaf = *leaves_[leafOf_[slot]];
  const bool isSmall = leaf.count <= leafSize / 4;
  std::size_t ordinal = isSmall ? placeOf(slot).ordinal : 0;
  // The place behind the last entry of a leaf is the first one's of the next.
  if (isSmall && order_[ordinal] != leafOf_[slot]) ++ordinal;
  const std::size_t at = entryOf(leaf, slot);
  std::copy(leaf.keys + at + 1, leaf.keys + leaf.count, leaf.keys + at);
  std::copy(leaf.slots + at + 1, leaf.slots + leaf.count, leaf.slots + at);
  --leaf.count;
  if (!isSmall) return;
  if (leaf.count == 0) {
    removeLeaf(ordinal);
  } else if (!joinNext(ordinal) && ordinal != 0) {
    joinNext(ordinal - 1);
  }
}

/// Makes one leaf of two that leave room for half as much again.
bool OrderedIndex::joinNext(std::size_t ordinal) noexcept {
  if (ordinal + 1 >= order_.size()) return false;
  Leaf& next = leafAt(ordinal + 1);
  if (leafAt(ordinal).count + next.count > leafSize / 2) return false;
  moveEntries(next, 0, ordinal);
  removeLeaf(ordinal + 1);
  return true;
}

Slot OrderedIndex::first() const {
  return order_.empty() ? noSlot : leafAt(0).slots[0];
}

Slot OrderedIndex::last() const {
  if (order_.empty()) return noSlot;
  const Leaf& leaf = leafAt(order_.size() - 1);
  return leaf.slots[leaf.count - 1];
}

Slot OrderedIndex::next(Slot slot) const {
  const Leaf& leaf = *leaves_[leafOf_[slot]];
  lookedAt_ = entryOf(leaf, slot) + 1;
  if (lookedAt_ < leaf.count) return leaf.slots[lookedAt_];
  lookedAt_ = 0;
  return leaf.next == noSlot ? noSlot : leaves_[leaf.next]->slots[0];
}

Slot OrderedIndex::lowerBound(std::span<const KeyPart> wanted) const {
  if (order_.empty()) return noSlot;
  const std::uint64_t leading = leadingBytesOf(wanted.front());
  const auto [ordinal, at] = placeBehind([&](std::uint64_t other, Slot of) {
    return other != leading ? other < leading : compareKeys(key(of).parts(), wanted) < 0;
  });
  if (at < leafAt(ordinal).count) return leafAt(ordinal).slots[at];
  return ordinal + 1 < order_.size() ? leafAt(ordinal + 1).slots[0] : noSlot;
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
  if (!place.trie->makePlace(place.prefix) && same_.empty()) same_.resize(slots_);
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
