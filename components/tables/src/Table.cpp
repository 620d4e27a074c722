#include <Korvo/Batch.h>
#include <Korvo/Table.h>
#include <Korvo/TableReader.h>

#include <algorithm>
#include <optional>
#include <ostream>
#include <unordered_set>
#include <utility>

#include "BatchParts.h"
#include "TableStore.h"

namespace Korvo {

using detail::TableStore;

// ---------------------------------------------------------------------------------------------
// Tables

AnyTable::AnyTable(const std::string& name, const LayoutInfo& layout)
    : store_(std::make_unique<TableStore>(name, layout)) {
  store_->table = this;
}

AnyTable::~AnyTable() = default;

const std::string& AnyTable::name() const {
  return store_->name();
}

const LayoutInfo& AnyTable::layout() const {
  return store_->layout();
}

std::size_t AnyTable::size() const {
  return store_->size();
}

bool AnyTable::contains(oid_t oid) const {
  return store_->find(oid) != detail::noSlot;
}

bool AnyTable::get(oid_t oid, BaseRow& row) const {
  const detail::Slot slot = store_->find(oid);
  if (slot == detail::noSlot) {
    row.nullifyRow();
  } else {
    detail::TableAccess::share(*store_, slot, row);
  }
  return slot != detail::noSlot;
}

std::uint64_t AnyTable::sequence() const {
  return store_->sequence();
}

TableState AnyTable::state() const {
  return store_->state();
}

const std::string& AnyTable::stateText() const {
  return store_->stateText();
}

// ---------------------------------------------------------------------------------------------
// What the templates are made of

namespace detail {

namespace {

PrefixTrie::Prefix prefixOf(const WantedPrefix& wanted) {
  return {AddressBits::of(wanted.af, wanted.bytes).cutTo(wanted.length), wanted.length};
}

const EqualIndex& equalIndex(const TableIndex& index) {
  return static_cast<const EqualIndex&>(index);
}
const OrderedIndex& orderedIndex(const TableIndex& index) {
  return static_cast<const OrderedIndex&>(index);
}
const PrefixIndex& prefixIndex(const TableIndex& index) {
  return static_cast<const PrefixIndex&>(index);
}

}  // namespace

TableStore& TableAccess::store(const AnyTable& table) {
  return *table.store_;
}

Slot TableAccess::slotFrom(const TableStore& store, Slot slot) {
  return store.slotFrom(slot);
}

void TableAccess::share(const TableStore& store, Slot slot, BaseRow& row) {
  HeldRow::bufferOf(row) = store.buffer(slot);
}

TableIndex& TableAccess::index(TableStore& store, IndexKind kind,
                               std::span<const std::size_t> columns) {
  return store.index(kind, columns);
}

TableIndex& TableAccess::index(TableStore& store, IndexKind kind, KeyFunction function) {
  return store.index(kind, std::move(function));
}

std::shared_ptr<void>& TableAccess::handle(TableStore& store, const TableIndex& index) {
  return store.handle(index);
}

Slot TableAccess::equalFind(const TableIndex& index, Key key) {
  return equalIndex(index).find(key);
}

Slot TableAccess::lowerBound(const TableIndex& index, Key key) {
  return orderedIndex(index).lowerBound(key);
}

namespace {

struct OrderBound {
  const OrderedIndex* index;
  std::vector<std::string> bytes;
  std::vector<KeyPart> key;  // refers to the bytes
  bool isBehind;
};

}  // namespace

std::shared_ptr<const void> TableAccess::orderBound(const TableIndex& index, Key key,
                                                    bool isBehind) {
  const auto bound = std::make_shared<OrderBound>();
  bound->index = &orderedIndex(index);
  bound->isBehind = isBehind;
  for (const KeyPart& part : key) bound->bytes.emplace_back(part.bytes());
  for (const std::string& bytes : bound->bytes) bound->key.push_back(KeyPart::ofText(bytes));
  return bound;
}

Slot TableAccess::within(const void* orderBound, Slot slot) {
  if (slot == noSlot) return noSlot;
  const auto& bound = *static_cast<const OrderBound*>(orderBound);
  const int order = compareKeys(bound.index->key(slot).parts(), bound.key);
  return order < 0 || (bound.isBehind && order == 0) ? slot : noSlot;
}

Slot TableAccess::first(const TableIndex& index) {
  return orderedIndex(index).first();
}

Slot TableAccess::last(const TableIndex& index) {
  return orderedIndex(index).last();
}

std::size_t TableAccess::duplicates(const TableIndex& index) {
  return equalIndex(index).duplicates();
}

RowFilter TableAccess::ofKey(const TableStore& store, const TableIndex& index, Key key) {
  std::vector<std::string> wanted;
  for (const KeyPart& part : key) wanted.emplace_back(part.bytes());
  return {&store, [&index, wanted = std::move(wanted)](const BaseRow& row) {
            const std::string computed = index.compute(row);
            const TableIndex::Key ofRow = index.key(row, computed);
            return std::ranges::equal(wanted, ofRow.parts().first(wanted.size()), {}, {},
                                      &KeyPart::bytes);
          }};
}

RowFilter TableAccess::ofPrefix(const TableStore& store, const TableIndex& index,
                                const WantedPrefix& wanted) {
  return {&store, [&index, af = wanted.af, prefix = prefixOf(wanted)](const BaseRow& row) {
            const TableIndex::Key ofRow = index.key(row, {});
            const std::string_view bytes = ofRow.parts().front().bytes();
            if (bytes.empty() || static_cast<AddressFamily>(bytes.front()) != af) return false;
            const auto length = static_cast<byte_t>(bytes.back());
            const auto* const addr = reinterpret_cast<const byte_t*>(bytes.data()) + 1;
            return length >= prefix.length &&
                   AddressBits::of(af, addr).cutTo(prefix.length) == prefix.bits;
          }};
}

Slot TableAccess::mostSpecific(const TableIndex& index, const WantedPrefix& wanted) {
  if (wanted.af == unknown_) return noSlot;
  return prefixIndex(index).trie(wanted.af).mostSpecific(prefixOf(wanted));
}

Slot TableAccess::exact(const TableIndex& index, const WantedPrefix& wanted) {
  if (wanted.af == unknown_) return noSlot;
  const Slot* const slot = prefixIndex(index).trie(wanted.af).place(prefixOf(wanted));
  return slot == nullptr ? noSlot : *slot;
}

std::vector<Slot> TableAccess::covering(const TableIndex& index, const WantedPrefix& wanted) {
  std::vector<Slot> slots;
  if (wanted.af == unknown_) return slots;
  const PrefixIndex& prefixes = prefixIndex(index);
  prefixes.trie(wanted.af).covering(prefixOf(wanted),
                                    [&](Slot slot) { prefixes.collect(slot, slots); });
  return slots;
}

std::vector<Slot> TableAccess::inside(const TableIndex& index, const WantedPrefix& wanted) {
  std::vector<Slot> slots;
  if (wanted.af == unknown_) return slots;
  const PrefixIndex& prefixes = prefixIndex(index);
  prefixes.trie(wanted.af).inside(prefixOf(wanted),
                                  [&](Slot slot) { prefixes.collect(slot, slots); });
  return slots;
}

Slot TableAccess::nextSlot(const void* source, Slot slot) {
  return static_cast<const TableStore*>(source)->slotFrom(slot + 1);
}

Slot TableAccess::nextEqual(const void* source, Slot slot) {
  return equalIndex(*static_cast<const TableIndex*>(source)).findNext(slot);
}

Slot TableAccess::nextOrdered(const void* source, Slot slot) {
  return orderedIndex(*static_cast<const TableIndex*>(source)).next(slot);
}

Slot TableAccess::nextWithin(const void* orderBound, Slot slot) {
  return within(orderBound, static_cast<const OrderBound*>(orderBound)->index->next(slot));
}

Slot TableAccess::nextSamePrefix(const void* source, Slot slot) {
  return prefixIndex(*static_cast<const TableIndex*>(source)).nextSame(slot);
}

}  // namespace detail

// ---------------------------------------------------------------------------------------------
// Indexes of columns that are named at run time

namespace {

std::size_t columnOf(const LayoutInfo& layout, const std::string& name) {
  const auto found = std::ranges::find(layout.columns, name, &ColumnInfo::name);
  if (found == layout.columns.end()) throw KoInvalidArgument("Unknown column - (" + name + ")");
  return static_cast<std::size_t>(found - layout.columns.begin());
}

std::vector<oid_t> oidsAt(const TableStore& store, const std::vector<detail::Slot>& slots) {
  std::vector<oid_t> oids;
  oids.reserve(slots.size());
  for (const detail::Slot slot : slots) oids.push_back(store.oid(slot));
  return oids;
}

}  // namespace

AnyEqualIndex AnyTable::equal(const std::vector<std::string>& columns) {
  std::vector<std::size_t> numbers;
  numbers.reserve(columns.size());
  for (const std::string& name : columns) numbers.push_back(columnOf(layout(), name));
  return {*store_, store_->index(detail::IndexKind::equal, numbers)};
}

AnyPrefixIndex AnyTable::longestPrefix(const std::string& column) {
  const std::size_t number = columnOf(layout(), column);
  return {*store_, store_->index(detail::IndexKind::longestPrefix, {&number, 1})};
}

std::vector<oid_t> AnyEqualIndex::find(const BaseRow& like) const {
  if (like.isNull()) throw KoNullRow();
  std::vector<oid_t> oids;
  const auto& index = static_cast<const detail::EqualIndex&>(*index_);
  detail::Slot slot = index.find(index.key(like, {}).parts());
  for (; slot != detail::noSlot; slot = index.findNext(slot)) oids.push_back(store_->oid(slot));
  return oids;
}

namespace {

std::optional<oid_t> oidAt(const TableStore& store, detail::Slot slot) {
  if (slot == detail::noSlot) return std::nullopt;
  return store.oid(slot);
}

}  // namespace

std::optional<oid_t> AnyPrefixIndex::find(const IpGenAddr& addr) const {
  return oidAt(*store_, detail::TableAccess::mostSpecific(*index_, addr));
}

std::optional<oid_t> AnyPrefixIndex::find(const IpGenPrefix& prefix) const {
  return oidAt(*store_, detail::TableAccess::mostSpecific(*index_, prefix));
}

std::vector<oid_t> AnyPrefixIndex::exact(const IpGenPrefix& prefix) const {
  std::vector<oid_t> oids;
  detail::Slot slot = detail::TableAccess::exact(*index_, prefix);
  for (; slot != detail::noSlot; slot = detail::TableAccess::nextSamePrefix(index_, slot)) {
    oids.push_back(store_->oid(slot));
  }
  return oids;
}

std::vector<oid_t> AnyPrefixIndex::covering(const IpGenAddr& addr) const {
  return oidsAt(*store_, detail::TableAccess::covering(*index_, addr));
}

std::vector<oid_t> AnyPrefixIndex::covering(const IpGenPrefix& prefix) const {
  return oidsAt(*store_, detail::TableAccess::covering(*index_, prefix));
}

std::vector<oid_t> AnyPrefixIndex::inside(const IpGenPrefix& prefix) const {
  return oidsAt(*store_, detail::TableAccess::inside(*index_, prefix));
}

// ---------------------------------------------------------------------------------------------
// Batches

AnyBatch::AnyBatch() : parts_(std::make_unique<Parts>()) {}

AnyBatch::~AnyBatch() = default;

void AnyBatch::put(AnyTable& table, const BaseRow& row) {
  const byte_t* const bytes = row.rowBuf();
  if (const RowFault fault = checkRow(bytes, loadField<len_t>(bytes), table.layout())) {
    throw KoInvalidArgument("Invalid Row - (" + fault.text() + ")");
  }
  putChecked(table, row);
}

void AnyBatch::putChecked(AnyTable& table, const BaseRow& row) {
  if (row.rowType() != table.layout().rowType) {
    throw KoInvalidArgument("Invalid Row - (another row type)");
  }
  detail::HeldRow held;
  held.shareContents(row);
  // A nested row is a part of another one's buffer.
  if (held.isNull()) held.copyOf(row);
  parts_->of(table).push_back({row.rowOid(), held.buffer()});
}

void AnyBatch::remove(AnyTable& table, oid_t oid) {
  parts_->of(table).push_back({oid, nullptr});
}

void AnyBatch::commit() {
  std::vector<std::unique_ptr<TableStore::Commit>> commits;
  commits.reserve(parts_->parts.size());
  std::uint64_t last = 0;
  for (Parts::Part& part : parts_->parts) {
    TableStore& store = detail::TableAccess::store(*part.table);
    if (store.isSubscribed) {
      throw KoInvalidArgument("Written by a subscription - (" + store.name() + ")");
    }
    auto commit = std::make_unique<TableStore::Commit>(store, part.operations);
    if (commit->changesNothing()) continue;
    last = std::max(last, store.source()->last);
    commits.push_back(std::move(commit));
  }
  for (const auto& commit : commits) commit->apply(last + 1);
  clear();
}

void AnyBatch::clear() noexcept {
  parts_->parts.clear();
}

// ---------------------------------------------------------------------------------------------
// Readers

std::ostream& operator<<(std::ostream& os, ChangeKind kind) {
  switch (kind) {
    case ChangeKind::added:
      return os << "added";
    case ChangeKind::changed:
      return os << "changed";
    case ChangeKind::removed:
      break;
  }
  return os << "removed";
}

/// A reader's place in its table. Kept by whoever is in the middle of telling, so that the reader
/// may be destroyed by what it calls.
struct detail::ChangeSource::Reading : TableStore::Cursor {
  Reading(TableStore& table, bool keepsBefore, AnyTableReader& owner)
      : Cursor(table, keepsBefore), reader(&owner) {}

  void changeComes() override {
    if (reader != nullptr) reader->runnableIs(true);
  }

  void onlyIs(RowFilter::Matches wanted) {
    matches = std::move(wanted);
    restart();
  }
  /// Whether something is to be told. Looks for it where not every change is.
  bool hasNews() {
    if (pending || isBehind()) begin();
    if (!matches || isWhole()) return pending || isBehind();
    if (!pending) pending = nextMatching();
    return pending.has_value();
  }
  /// Nothing when telling the table as a whole begins: that is for another turn.
  std::optional<Told> nextTold() {
    begin();
    if (wholes() != wholesTold) return std::nullopt;
    if (pending) return std::exchange(pending, std::nullopt);
    return nextMatching();
  }
  /// Begins a turn; tells whether the table is told as a whole from here on.
  bool beginsWhole() {
    begin();
    if (std::exchange(wholesTold, wholes()) == wholes()) return false;
    known.clear();
    pending.reset();
    return true;
  }

  AnyTableReader* reader;  // null once it is gone
  bool isFirst = false;
  AnyTableReader::StateCallback stateTold;
  std::optional<TableState> state;
  std::optional<Told> pending;  ///< found, and not told yet

 private:
  std::optional<Told> nextMatching() {
    Told told;
    while (next(told)) {
      if (!matches || isNews(told)) return told;
    }
    return std::nullopt;
  }
  /// Makes of a change of the table what it is to one who knows the rows that match only.
  bool isNews(Told& told) {
    const bool isIn = told.after != nullptr && matches(HeldRow(told.after));
    const bool wasIn = isIn ? !known.insert(told.oid).second : known.erase(told.oid) != 0;
    told.wasKnown = wasIn;
    if (!isIn) told.after = nullptr;
    if (!wasIn) told.before = nullptr;
    return isIn || wasIn;
  }

  RowFilter::Matches matches;       ///< empty: all rows
  std::unordered_set<oid_t> known;  ///< which matched when they were told
  std::uint64_t wholesTold = 0;     ///< how often telling the table as a whole was begun
};

detail::ChangeSource::ChangeSource(std::shared_ptr<Reading> reading)
    : reading_(std::move(reading)) {}

bool detail::ChangeSource::next(AnyChange& change, BaseRow& after, BaseRow& before) {
  if (reading_->reader == nullptr) return false;
  std::optional<TableStore::Cursor::Told> told = reading_->nextTold();
  if (!told) return false;
  const bool isGone = told->after == nullptr;
  change.oid = told->oid;
  change.kind = isGone           ? ChangeKind::removed
                : told->wasKnown ? ChangeKind::changed
                                 : ChangeKind::added;
  HeldRow::bufferOf(after) = std::move(told->after);
  HeldRow::bufferOf(before) = std::move(told->before);
  return true;
}

std::uint64_t detail::ChangeSource::sequence() const {
  return reading_->store() == nullptr ? reading_->seen() : reading_->store()->sequence();
}

std::uint64_t detail::ChangeSource::merged() const {
  return reading_->merged();
}

bool detail::ChangeSource::first() const {
  return reading_->isFirst;
}

AnyTableReader::AnyTableReader(AnyTable& table, const KoPtr<Scheduler>& scheduler, Before before)
    : Schedulable(table.name(), scheduler),
      reading_(std::make_shared<detail::ChangeSource::Reading>(detail::TableAccess::store(table),
                                                               before == Before::kept, *this)) {
  clientReadyIs(true);
  runnableIs(true);
}

AnyTableReader::~AnyTableReader() {
  reading_->reader = nullptr;
}

AnyTable* AnyTableReader::table() const {
  const TableStore* const store = reading_->store();
  return store == nullptr ? nullptr : store->table;
}

void AnyTableReader::onState(StateCallback told) {
  reading_->stateTold = std::move(told);
  reading_->state.reset();
  runnableIs(true);
}

void AnyTableReader::only(std::span<const oid_t> oids) {
  only(RowFilter(nullptr, [wanted = std::unordered_set<oid_t>(oids.begin(), oids.end())](
                              const BaseRow& row) { return wanted.contains(row.rowOid()); }));
}

void AnyTableReader::only(RowFilter filter) {
  if (filter.store_ != nullptr && filter.store_ != reading_->store()) {
    throw KoInvalidArgument("An index of another table");
  }
  reading_->onlyIs(std::move(filter.matches_));
  runnableIs(true);
}

void AnyTableReader::run(bool) {
  const std::shared_ptr<detail::ChangeSource::Reading> kept = reading_;
  detail::ChangeSource::Reading& reading = *kept;
  if (reading.store() == nullptr) return;
  if (reading.store()->hasFirstRows && reading.hasNews()) {
    reading.isFirst = reading.beginsWhole();
    detail::ChangeSource source(kept);
    try {
      tell(source);
    } catch (...) {
      // What was not told, as a row that could not be shared, is told in another turn.
      if (reading.reader != nullptr) runnableIs(true);
      throw;
    }
    if (reading.reader == nullptr || reading.store() == nullptr) return;
    if (reading.isBehind() || reading.pending) {
      runnableIs(true);
      return;
    }
  }
  if (reading.stateTold && reading.state != reading.store()->state()) {
    reading.state = reading.store()->state();
    const StateCallback told = reading.stateTold;  // it may set another one
    told(reading.store()->state(), std::string(reading.store()->stateText()));
  }
}

}  // namespace Korvo
