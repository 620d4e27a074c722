#include <Korvo/Batch.h>
#include <Korvo/Table.h>
#include <Korvo/TableReader.h>

#include <algorithm>
#include <optional>
#include <ostream>
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

PrefixIndex::Prefix prefixOf(AddressFamily af, const byte_t* bytes, unsigned int length) {
  return {af, length, AddressBits::of(af, bytes).cutTo(length)};
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
  row.shareContents(HeldRow(store.buffer(slot)));
}

TableIndex& TableAccess::index(TableStore& store, IndexKind kind,
                               std::span<const std::size_t> columns) {
  return store.index(kind, columns);
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

Slot TableAccess::upperBound(const TableIndex& index, Key key) {
  return orderedIndex(index).upperBound(key);
}

Slot TableAccess::first(const TableIndex& index) {
  return orderedIndex(index).first();
}

Slot TableAccess::last(const TableIndex& index) {
  return orderedIndex(index).last();
}

Slot TableAccess::mostSpecific(const TableIndex& index, AddressFamily af, const byte_t* bytes,
                               unsigned int length) {
  return af == unknown_ ? noSlot : prefixIndex(index).mostSpecific(prefixOf(af, bytes, length));
}

Slot TableAccess::exact(const TableIndex& index, AddressFamily af, const byte_t* bytes,
                        unsigned int length) {
  return af == unknown_ ? noSlot : prefixIndex(index).exact(prefixOf(af, bytes, length));
}

std::vector<Slot> TableAccess::covering(const TableIndex& index, AddressFamily af,
                                        const byte_t* bytes, unsigned int length) {
  if (af == unknown_) return {};
  return prefixIndex(index).covering(prefixOf(af, bytes, length));
}

std::vector<Slot> TableAccess::inside(const TableIndex& index, AddressFamily af,
                                      const byte_t* bytes, unsigned int length) {
  if (af == unknown_) return {};
  return prefixIndex(index).inside(prefixOf(af, bytes, length));
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

Slot TableAccess::nextSamePrefix(const void* source, Slot slot) {
  return prefixIndex(*static_cast<const TableIndex*>(source)).nextSame(slot);
}

}  // namespace detail

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

  AnyTableReader* reader;  // null once it is gone
  bool isFirst = false;
  AnyTableReader::StateCallback stateTold;
  std::optional<TableState> state;
};

detail::ChangeSource::ChangeSource(std::shared_ptr<Reading> reading)
    : reading_(std::move(reading)) {}

bool detail::ChangeSource::next(AnyChange& change, BaseRow& after, BaseRow& before) {
  Reading& reading = *reading_;
  TableStore::Cursor::Told told;
  if (reading.reader == nullptr || !reading.next(told)) return false;
  const bool isGone = told.after == nullptr;
  change.oid = told.oid;
  change.kind = isGone          ? ChangeKind::removed
                : told.wasKnown ? ChangeKind::changed
                                : ChangeKind::added;
  after.shareContents(HeldRow(std::move(told.after)));
  before.shareContents(HeldRow(std::move(told.before)));
  return true;
}

std::uint64_t detail::ChangeSource::sequence() const {
  return reading_->store() == nullptr ? reading_->seen() : reading_->store()->sequence();
}

std::uint64_t detail::ChangeSource::merged() const {
  return reading_->merged();
}

bool detail::ChangeSource::first() const {
  return reading_->isFirst || reading_->isWhole();
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

void AnyTableReader::run(bool) {
  const std::shared_ptr<detail::ChangeSource::Reading> kept = reading_;
  detail::ChangeSource::Reading& reading = *kept;
  if (reading.store() == nullptr) return;
  if (reading.isBehind() && reading.store()->hasFirstRows) {
    reading.begin();
    reading.isFirst = reading.isWhole();
    detail::ChangeSource source(kept);
    tell(source);
    if (reading.reader == nullptr || reading.store() == nullptr) return;
    if (reading.isBehind()) {
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
