#include "TableStore.h"

#include <Korvo/assertion.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "OidMap.h"

namespace Korvo::detail {

namespace {

constexpr const char* thisFile = "components/tables/src/TableStore.cpp";

std::string_view valueAt(const byte_t* buf, const VColType& slot) {
  return {reinterpret_cast<const char*>(buf) + slot.offset(), slot.length()};
}

bool valuesEqual(std::string_view a, std::string_view b, const ColumnInfo& column);

bool arraysEqual(std::string_view a, std::string_view b, const ColumnInfo& column) {
  if (a == b) return true;
  const auto* left = reinterpret_cast<const byte_t*>(a.data());
  const auto* right = reinterpret_cast<const byte_t*>(b.data());
  if (a.empty() || b.empty() || column.type == boolType_) return false;
  const unsigned int count = loadField<std::uint16_t>(left) & arrayCountMask;
  if ((loadField<std::uint16_t>(right) & arrayCountMask) != count) return false;
  for (unsigned int i = 0; i < count; ++i) {
    const std::size_t slot = arrayHeaderLength + sizeof(VColType) * i;
    if (!valuesEqual(valueAt(left, VColType::at(left, slot)),
                     valueAt(right, VColType::at(right, slot)), column)) {
      return false;
    }
  }
  return true;
}

bool valuesEqual(std::string_view a, std::string_view b, const ColumnInfo& column) {
  if (column.type != structType_ || a.empty() || b.empty()) return a == b;
  return rowsEqual(reinterpret_cast<const byte_t*>(a.data()),
                   reinterpret_cast<const byte_t*>(b.data()), *column.nested);
}

}  // namespace

bool rowsEqual(const byte_t* a, const byte_t* b, const LayoutInfo& layout) {
  const len_t length = loadField<len_t>(a + rowLengthOffset);
  if (length == loadField<len_t>(b + rowLengthOffset) && std::memcmp(a, b, length) == 0)
    return true;
  // Gaps hold anything, and values may stand in any order.
  if (std::memcmp(a + rowTypeOffset, b + rowTypeOffset, rowHeaderLength - rowTypeOffset) != 0) {
    return false;
  }
  for (const ColumnInfo& column : layout.columns) {
    if (!column.hasSlot()) {
      if (std::memcmp(a + column.offset, b + column.offset, column.width) != 0) return false;
      continue;
    }
    const std::string_view left = valueAt(a, VColType::at(a, column.offset));
    const std::string_view right = valueAt(b, VColType::at(b, column.offset));
    if (!(column.isArray ? arraysEqual(left, right, column) : valuesEqual(left, right, column))) {
      return false;
    }
  }
  return true;
}

std::uint64_t rowHash(const byte_t* row) noexcept {
  constexpr std::uint64_t multiplier = 0x9FB21C651E98DF25U;
  const std::size_t length = loadField<len_t>(row + rowLengthOffset);
  std::uint64_t hash = length * multiplier;
  const auto take = [&hash](std::uint64_t word) {
    hash = (hash ^ word) * multiplier;
    hash ^= hash >> 32;
  };
  std::size_t at = 0;
  for (; at + sizeof(std::uint64_t) <= length; at += sizeof(std::uint64_t)) {
    take(loadField<std::uint64_t>(row + at));
  }
  std::uint64_t rest = 0;
  std::memcpy(&rest, row + at, length - at);
  take(rest);
  hash *= multiplier;
  return hash ^ hash >> 29;
}

TableStore::TableStore(std::string name, const LayoutInfo& layout)
    : name_(std::move(name)), layout_(layout) {}

TableStore::~TableStore() {
  for (Cursor* cursor : cursors_) cursor->store_ = nullptr;
  for (Cursor* cursor : cursors_) cursor->tableGoes();
}

void TableStore::sourceIs(std::shared_ptr<SequenceSource> source) noexcept {
  source->last = std::max(source->last, source_->last);
  // Positions up to here are those of another table that had the name.
  if (source->last != 0) ++source->last;
  joined_ = source->last;
  source_ = std::move(source);
}

void TableStore::historyIs(std::uint64_t sequence) noexcept {
  for (Slot slot = slotFrom(0); slot != noSlot; slot = slotFrom(slot + 1)) {
    entries_[slot].sequence = 0;
    entries_[slot].added = 0;
  }
  base_ = sequence;
  deletionsDropped_ = deletionsEnd();
  deletions_.clear();
  deletionsBegin_ = 0;
  sequence_ = sequence;
  floor_ = sequence;
  joined_ = sequence;
}

void TableStore::keepDigest() noexcept {
  if (keepsDigest_) return;
  keepsDigest_ = true;
  for (Slot slot = slotFrom(0); slot != noSlot; slot = slotFrom(slot + 1)) {
    digest_ ^= rowHash(bytes(slot));
  }
}

void TableStore::stateIs(TableState state, std::string text) {
  for (std::size_t i = 0; i < cursors_.size(); ++i) cursors_[i]->changeComes();
  state_ = state;
  stateText_ = std::move(text);
}

std::uint64_t TableStore::changesBehind(std::uint64_t sequence) const {
  const auto absolute = [this](const auto& of) { return base_ + of.sequence; };
  std::uint64_t count = 0;
  if (oldest_ != noSlot && absolute(entries_[oldest_]) > sequence) {
    count = size_;  // without a walk: whoever reads nothing is behind by all rows after a while
  } else {
    for (Slot slot = latest_; slot != noSlot && absolute(entries_[slot]) > sequence;
         slot = entries_[slot].previous) {
      ++count;
    }
  }
  const std::span<const Deletion> all = deletions();
  const auto first = std::ranges::upper_bound(all, sequence, {}, absolute);
  return count + static_cast<std::uint64_t>(all.end() - first);
}

void TableStore::checkThread() const {
  KORVO_ASSERT(std::this_thread::get_id() == thread_, "std::this_thread::get_id() == thread_",
               thisFile, "void Korvo::detail::TableStore::checkThread() const");
}

// ---------------------------------------------------------------------------------------------
// Slots by oid

std::size_t TableStore::bucketOf(oid_t oid) const {
  const std::uint64_t mixed = oid * 0x9E3779B97F4A7C15U;
  return static_cast<std::size_t>(mixed >> 32) & (buckets_.size() - 1);
}

Slot TableStore::find(oid_t oid) const {
  if (size_ == 0) return noSlot;
  for (std::size_t at = bucketOf(oid);; at = (at + 1) & (buckets_.size() - 1)) {
    const Slot slot = buckets_[at];
    if (slot == noSlot || entries_[slot].oid == oid) return slot;
  }
}

/// Makes room for `count` more oids, so that a quarter of the buckets stays free at the least.
void TableStore::reserveOids(std::size_t count) {
  const std::size_t wanted = std::bit_ceil(std::max<std::size_t>((size_ + count) * 4 / 3 + 1, 16));
  if (wanted <= buckets_.size()) return;
  std::vector<Slot> buckets(wanted, noSlot);
  buckets_.swap(buckets);
  for (const Slot slot : buckets) {
    if (slot != noSlot) mapOid(slot);
  }
}

void TableStore::mapOid(Slot slot) noexcept {
  std::size_t at = bucketOf(entries_[slot].oid);
  while (buckets_[at] != noSlot) at = (at + 1) & (buckets_.size() - 1);
  buckets_[at] = slot;
}

/// Closes the gap, so that no mark of a former oid is needed.
void TableStore::unmapOid(Slot slot) noexcept {
  const std::size_t mask = buckets_.size() - 1;
  std::size_t gap = bucketOf(entries_[slot].oid);
  while (buckets_[gap] != slot) gap = (gap + 1) & mask;
  for (std::size_t at = (gap + 1) & mask; buckets_[at] != noSlot; at = (at + 1) & mask) {
    const std::size_t home = bucketOf(entries_[buckets_[at]].oid);
    if (((at - home) & mask) >= ((at - gap) & mask)) {
      buckets_[gap] = buckets_[at];
      gap = at;
    }
  }
  buckets_[gap] = noSlot;
}

Slot TableStore::slotFrom(Slot slot) const {
  const std::size_t end = rows_.size();
  while (slot < end && rows_.isFree(slot)) ++slot;
  return slot < end ? slot : noSlot;
}

void TableStore::addSlot() {
  const std::size_t slot = entries_.size();
  if (slot >= noSlot) throw std::bad_alloc();
  entries_.push_back({});
  try {
    rows_.grow();
  } catch (...) {
    entries_.shrink();
    throw;
  }
  entries_[slot].next = std::exchange(free_, static_cast<Slot>(slot));
  ++freeCount_;
}

Slot TableStore::takeSlot() noexcept {
  const Slot slot = free_;
  free_ = entries_[slot].next;
  --freeCount_;
  return slot;
}

// ---------------------------------------------------------------------------------------------
// The order of changes

void TableStore::link(Slot slot) noexcept {
  entries_[slot].previous = latest_;
  entries_[slot].next = noSlot;
  if (latest_ == noSlot) {
    oldest_ = slot;
  } else {
    entries_[latest_].next = slot;
  }
  latest_ = slot;
}

void TableStore::unlink(Slot slot) noexcept {
  Entry& entry = entries_[slot];
  if (entry.isWatched) moveCursors(slot);
  (entry.previous == noSlot ? oldest_ : entries_[entry.previous].next) = entry.next;
  (entry.next == noSlot ? latest_ : entries_[entry.next].previous) = entry.previous;
}

/// Who stands here goes on to the next row.
void TableStore::moveCursors(Slot slot) noexcept {
  Entry& entry = entries_[slot];
  entry.isWatched = false;
  for (Cursor* cursor : cursors_) {
    if (cursor->position_ != slot) continue;
    cursor->position_ = entry.next;
    if (entry.next != noSlot) entries_[entry.next].isWatched = true;
  }
}

/// What happened up to `base` counts as having happened then: who stood before it is told all anew.
void TableStore::countFrom(std::uint64_t base) noexcept {
  const auto moved = [&](std::uint64_t relativeToFormer) {
    const std::uint64_t sequence = base_ + relativeToFormer;
    return static_cast<std::uint32_t>(sequence <= base ? 0 : sequence - base);
  };
  while (!deletions().empty() && base_ + deletions().front().sequence <= base) ++deletionsBegin_;
  for (std::size_t i = deletionsBegin_; i < deletions_.size(); ++i) {
    deletions_[i] = {moved(deletions_[i].sequence), moved(deletions_[i].added), deletions_[i].oid};
  }
  for (Slot slot = slotFrom(0); slot != noSlot; slot = slotFrom(slot + 1)) {
    Entry& entry = entries_[slot];
    entry.sequence = moved(entry.sequence);
    entry.added = moved(entry.added) & mostRelative;
  }
  base_ = base;
  floor_ = std::max(floor_, base);
}

void TableStore::forgetDeletions() noexcept {
  const std::size_t most = std::max(deletionLimit, size_);
  while (deletions().size() > most) floor_ = base_ + deletions_[deletionsBegin_++].sequence;
  if (deletionsBegin_ * 2 < deletions_.size()) return;
  deletions_.erase(deletions_.begin(),
                   deletions_.begin() + static_cast<std::ptrdiff_t>(deletionsBegin_));
  deletionsDropped_ += std::exchange(deletionsBegin_, 0);
}

// ---------------------------------------------------------------------------------------------
// Indexes

TableIndex& TableStore::index(IndexKind kind, std::span<const std::size_t> columns) {
  checkThread();
  for (const KnownIndex& known : indexes_) {
    if (known.kind == kind && std::ranges::equal(known.columns, columns)) return *known.index;
  }
  return addIndex(kind, {{columns.begin(), columns.end()}, nullptr});
}

TableIndex& TableStore::index(IndexKind kind, KeyFunction function) {
  checkThread();
  return addIndex(kind, {{}, std::move(function)});
}

TableIndex& TableStore::addIndex(IndexKind kind, IndexKey key) {
  KnownIndex added{kind, key.columns, TableIndex::make(kind, *this, std::move(key)), nullptr};
  TableIndex& index = *added.index;
  index.reserve(entries_.size(), size_);
  for (Slot slot = slotFrom(0); slot != noSlot; slot = slotFrom(slot + 1)) {
    std::string computed = index.computes() ? index.compute(HeldRow(buffer(slot))) : std::string();
    const TableIndex::Key of = index.key(row(slot), computed);
    if (kind == IndexKind::unique && !isSubscribed) {
      const Slot other = static_cast<EqualIndex&>(index).find(of.parts());
      if (other != noSlot) refuse(oid(other), oid(slot));
    }
    index.prepare(of.parts());
    index.put(slot, computed);
  }
  index.settle();
  indexes_.push_back(std::move(added));
  return index;
}

void TableStore::refuse(oid_t a, oid_t b) const {
  throw KoInvalidArgument("Not unique - (" + name_ + ": rows " + std::to_string(a) + " and " +
                          std::to_string(b) + ")");
}

std::shared_ptr<void>& TableStore::handle(const TableIndex& index) {
  return std::ranges::find(indexes_, &index,
                           [](const KnownIndex& known) { return known.index.get(); })
      ->handle;
}

// ---------------------------------------------------------------------------------------------
// Cursors

TableStore::Cursor::Cursor(TableStore& store, bool keepsBefore)
    : store_(&store), keepsBefore_(keepsBefore) {
  store.checkThread();
  store.cursors_.push_back(this);
}

TableStore::Cursor::~Cursor() {
  if (store_ != nullptr) std::erase(store_->cursors_, this);
}

void TableStore::Cursor::restart() {
  isWhole_ = true;
  inRound_ = false;
}

bool TableStore::Cursor::resumeBehind(std::uint64_t sequence) {
  if (store_ == nullptr || sequence < std::max(store_->floor_, store_->joined_)) return false;
  seen_ = sequence;
  seenBatches_ = store_->batches_;
  isWhole_ = false;
  return true;
}

bool TableStore::Cursor::isBehind() const {
  return store_ != nullptr && (isWhole_ || inRound_ || store_->sequence_ > seen_);
}

void TableStore::Cursor::begin() {
  if (store_ == nullptr) return;
  // Removals that were not told have been forgotten.
  if (inRound_ && deletion_ < store_->firstDeletion()) {
    isWhole_ = true;
    inRound_ = false;
  }
  if (inRound_ || !isBehind()) return;
  if (seen_ < store_->floor_) isWhole_ = true;
  merged_ = isWhole_ ? 0 : store_->batches_ - seenBatches_ - 1;
  if (isWhole_) {
    ++wholes_;
    position_ = store_->oldest_;
    deletion_ = store_->deletionsEnd();
    told_ = 0;
    before_.clear();
  } else {
    position_ = noSlot;
    told_ = seen_;
    const std::span<const Deletion> deletions = store_->deletions();
    const auto first =
        std::ranges::upper_bound(deletions, store_->relative(seen_), {}, &Deletion::sequence);
    deletion_ = store_->firstDeletion() + static_cast<std::uint64_t>(first - deletions.begin());
  }
  returned_.clear();
  roundHead_ = store_->sequence_;
  inRound_ = true;
}

bool TableStore::Cursor::next(Told& told) {
  begin();
  if (store_ == nullptr || !inRound_) return false;
  if (nextDeletion(told) || nextRow(told)) return true;
  seen_ = store_->sequence_;
  seenBatches_ = store_->batches_;
  isWhole_ = false;
  inRound_ = false;
  returned_.clear();
  return false;
}

bool TableStore::Cursor::nextDeletion(Told& told) {
  while (deletion_ < store_->deletionsEnd()) {
    const Deletion& deletion =
        store_->deletions_[static_cast<std::size_t>(deletion_ - store_->deletionsDropped_)];
    const bool wasKnown = !isWhole_ && store_->base_ + deletion.added <= seen_;
    if (store_->find(deletion.oid) != noSlot) {
      if (wasKnown) returned_.insert(deletion.oid);
      ++deletion_;
      continue;
    }
    ++deletion_;
    // A row that came during the round may have been told in it.
    bool isNews = wasKnown || store_->base_ + deletion.sequence > roundHead_;
    told = {deletion.oid, nullptr, nullptr, wasKnown};
    if (keepsBefore_ && !isWhole_) {
      const auto before = before_.extract(deletion.oid);
      isNews = !before.empty() && before.mapped() != nullptr;
      if (isNews) told.before = before.mapped();
    }
    if (isNews) return true;
  }
  return false;
}

bool TableStore::Cursor::nextRow(Told& told) {
  if (position_ == noSlot) {
    // All was told up to here: what came since stands at the end.
    for (Slot slot = store_->latest_; slot != noSlot; slot = store_->entries_[slot].previous) {
      if (store_->base_ + store_->entries_[slot].sequence <= told_) break;
      position_ = slot;
    }
    if (position_ == noSlot) return false;
  }
  const Entry& entry = store_->entries_[position_];
  const bool wasKnown =
      !isWhole_ && (store_->base_ + entry.added <= seen_ || returned_.contains(entry.oid));
  told = {entry.oid, store_->buffer(position_), nullptr, wasKnown};
  if (keepsBefore_) {
    if (const auto before = before_.extract(entry.oid); !before.empty()) {
      told.before = before.mapped();
      told.wasKnown = told.before != nullptr;
    }
  }
  told_ = store_->base_ + entry.sequence;
  position_ = entry.next;
  if (position_ != noSlot) store_->entries_[position_].isWatched = true;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Commits

TableStore::Commit::Commit(TableStore& store, const std::vector<RowOperation>& operations)
    : store_(store), asked_(operations.size()) {
  const auto oidOf = [&](std::uint32_t number) { return operations[number].oid; };
  OidMap last;  // a single word is the last one
  const bool areSeveral = operations.size() > 1;
  if (areSeveral) last.reserve(operations.size(), oidOf);
  for (std::uint32_t number = 0; areSeveral && number < operations.size(); ++number) {
    last.insert(operations[number].oid, number, oidOf) = number;
  }
  for (std::uint32_t number = 0; number < operations.size(); ++number) {
    const RowOperation& operation = operations[number];
    if (areSeveral && last.find(operation.oid, oidOf) != number) continue;
    select(operation.oid, {operation.buffer, nullptr}, operation.buffer.use_count() > 1);
  }
  prepare();
}

TableStore::Commit::Commit(TableStore& store, Chunked<OwnOperation> operations)
    : store_(store), asked_(operations.size()) {
  operations.drain([this](OwnOperation& operation) {
    if (operation.bytes == nullptr && !operation.isGone) return;
    select(operation.oid, {nullptr, std::move(operation.bytes)}, false);
  });
  prepare();
}

void TableStore::Commit::prepare() {
  store_.checkThread();
  if (changesNothing()) return;
  for (Touch& touch : touches_) {
    for (const KnownIndex& known : store_.indexes_) {
      if (!known.index->computes()) continue;
      if (touch.row.own != nullptr) {
        touch.row.owner = std::make_shared<KoRowBuf>();
        touch.row.owner->buf_ = touch.row.own.release();
      }
      computed_.push_back(touch.isRemoval ? std::string()
                                          : known.index->compute(HeldRow(touch.row.owner)));
      touch.isHeld = touch.isHeld || touch.row.owner.use_count() > 1;  // the function may keep it
    }
  }
  // A copy is as its owner has it.
  if (!store_.isSubscribed) checkUnique();
  reserve();
  // A reader that is told in vain finds that nothing changed.
  for (std::size_t i = 0; i < store_.cursors_.size(); ++i) store_.cursors_[i]->changeComes();
  prepareIndexes();
}

TableStore::Commit::~Commit() {
  releaseIndexes();
  for (const KnownIndex& known : store_.indexes_) known.index->settle();
  store_.rows_.settle(2 * asked_);
}

template <typename Use>
void TableStore::Commit::forEachKey(const Use& use) {
  std::string none;
  std::string* computed = computed_.data();
  std::size_t move = 0;
  for (Touch& touch : touches_) {
    for (const KnownIndex& known : store_.indexes_) {
      use(touch, known, known.index->computes() ? *computed++ : none, moves_[move++]);
    }
  }
}

void TableStore::Commit::prepareIndexes() {
  try {
    forEachKey([](const Touch& touch, const KnownIndex& known, std::string& computed, bool moves) {
      if (!moves || touch.isRemoval) return;
      const SubRowReference row(touch.row.bytes());
      known.index->prepare(known.index->key(row, computed).parts());
    });
  } catch (...) {
    releaseIndexes();
    throw;
  }
}

/// Gives back the places that were made for the rows, or that the former ones have left.
void TableStore::Commit::releaseIndexes() noexcept {
  if (moves_.empty()) return;
  forEachKey(
      [](const Touch& touch, const KnownIndex& known, const std::string& computed, bool moves) {
        const byte_t* const bytes = touch.row.bytes();
        if (!moves || bytes == nullptr || known.kind != IndexKind::longestPrefix) return;
        const SubRowReference row(bytes);
        known.index->release(known.index->key(row, computed).parts());
      });
}

/// Takes what changes anything.
void TableStore::Commit::select(oid_t oid, StoredRows::Row row, bool isHeld) {
  const Slot slot = store_.find(oid);
  const byte_t* const bytes = row.bytes();
  if (bytes == nullptr && slot == noSlot) return;
  if (bytes != nullptr && slot != noSlot && rowsEqual(bytes, store_.bytes(slot), store_.layout_)) {
    return;
  }
  const bool isNew = slot == noSlot;
  touches_.push_back({isNew ? oid : slot, isNew, bytes == nullptr, isHeld, std::move(row)});
}

void TableStore::Commit::checkUnique() const {
  std::unordered_set<Slot> touched;
  const std::size_t computing = computed_.size() / touches_.size();
  std::size_t computingBefore = 0;
  for (const KnownIndex& known : store_.indexes_) {
    const std::size_t ordinal = computingBefore;
    if (known.index->computes()) ++computingBefore;
    if (known.kind != IndexKind::unique) continue;
    const auto& index = static_cast<const EqualIndex&>(*known.index);
    if (touched.empty()) {
      for (std::size_t i = 0; i < touches_.size(); ++i) {
        if (!touches_[i].isNew) touched.insert(touches_[i].place);
      }
    }
    const auto keyOf = [&](std::size_t i) {
      return index.key(SubRowReference(touches_[i].row.bytes()),
                       index.computes() ? computed_[i * computing + ordinal] : std::string_view());
    };
    std::unordered_multimap<std::uint64_t, std::size_t> fresh;
    for (std::size_t i = 0; i < touches_.size(); ++i) {
      const Touch& touch = touches_[i];
      if (touch.isRemoval) continue;
      const TableIndex::Key key = keyOf(i);
      for (Slot holder = index.find(key.parts()); holder != noSlot;
           holder = index.findNext(holder)) {
        if (!touched.contains(holder)) store_.refuse(store_.oid(holder), oidOf(touch));
      }
      const std::uint64_t hash = hashKey(key.parts());
      const auto [begin, end] = fresh.equal_range(hash);
      for (auto at = begin; at != end; ++at) {
        if (compareKeys(keyOf(at->second).parts(), key.parts()) == 0) {
          store_.refuse(oidOf(touches_[at->second]), oidOf(touch));
        }
      }
      fresh.emplace(hash, i);
    }
  }
}

void TableStore::Commit::reserve() {
  std::size_t added = 0;
  std::size_t removed = 0;
  std::size_t held = 0;
  const std::string* computed = computed_.data();
  moves_.reserve(touches_.size() * store_.indexes_.size());
  for (const Touch& touch : touches_) {
    if (touch.isNew) ++added;
    if (touch.isRemoval) ++removed;
    if (touch.isHeld) ++held;
    for (const KnownIndex& known : store_.indexes_) {
      const TableIndex& index = *known.index;
      const std::string_view key = index.computes() ? *computed++ : std::string_view();
      moves_.push_back(touch.isNew || touch.isRemoval ||
                       compareKeys(index.key(touch.place).parts(),
                                   index.key(SubRowReference(touch.row.bytes()), key).parts()) !=
                           0);
    }
  }
  store_.reserveOids(added);
  while (store_.freeCount_ < added) store_.addSlot();
  store_.rows_.reserveShared(held);
  for (const KnownIndex& known : store_.indexes_) {
    known.index->reserve(store_.entries_.size(), touches_.size());
  }
  const std::size_t deletions = store_.deletions_.size() + removed;
  if (deletions > store_.deletions_.capacity()) {
    store_.deletions_.reserve(std::max(deletions, store_.deletions_.size() * 2));
  }
  before_.resize(store_.cursors_.size());
  for (std::size_t i = 0; i < before_.size(); ++i) {
    Cursor& cursor = *store_.cursors_[i];
    if (!cursor.keepsBefore_ || cursor.isWhole_) continue;
    for (const Touch& touch : touches_) {
      const oid_t oid = oidOf(touch);
      if (cursor.before_.contains(oid)) continue;
      before_[i].emplace(oid, touch.isNew ? nullptr : store_.buffer(touch.place));
    }
    cursor.before_.reserve(cursor.before_.size() + before_[i].size());
  }
}

/// In two passes over the indexes, so that rows may swap their keys.
void TableStore::Commit::apply(std::uint64_t sequence) noexcept {
  if (changesNothing()) return;
  if (sequence - store_.base_ > mostRelative) store_.countFrom(sequence - mostRelative / 2);
  const std::uint32_t now = store_.relative(sequence);
  forEachKey([](const Touch& touch, const KnownIndex& known, std::string&, bool moves) {
    if (moves && !touch.isNew) known.index->takeOut(touch.place);
  });
  for (Touch& touch : touches_) {
    if (touch.isNew) {
      const Slot slot = store_.takeSlot();
      store_.entries_[slot].oid = std::exchange(touch.place, slot);
      store_.entries_[slot].added = now & mostRelative;
      store_.mapOid(slot);
      ++store_.size_;
    } else {
      store_.unlink(touch.place);
    }
    const Slot slot = touch.place;
    Entry& entry = store_.entries_[slot];
    if (touch.isRemoval) {
      store_.deletions_.push_back({now, entry.added, entry.oid});
      store_.unmapOid(slot);
      --store_.size_;
      entry.next = std::exchange(store_.free_, slot);
      ++store_.freeCount_;
    } else {
      entry.sequence = now;
      store_.link(slot);
    }
    if (store_.keepsDigest_) {
      if (!touch.isNew) store_.digest_ ^= rowHash(store_.bytes(slot));
      if (!touch.isRemoval) store_.digest_ ^= rowHash(touch.row.bytes());
    }
    store_.rows_.exchange(slot, touch.row, touch.isHeld);
  }
  forEachKey([](const Touch& touch, const KnownIndex& known, std::string& computed, bool moves) {
    if (moves && !touch.isRemoval) known.index->put(touch.place, computed);
  });
  for (std::size_t i = 0; i < before_.size(); ++i) store_.cursors_[i]->before_.merge(before_[i]);
  store_.sequence_ = sequence;
  store_.source_->last = sequence;
  ++store_.batches_;
  store_.forgetDeletions();
}

}  // namespace Korvo::detail
