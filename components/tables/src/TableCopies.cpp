#include "TableCopies.h"

#include <Korvo/rowCheck.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "TableWire.h"

namespace Korvo::detail {

namespace {

/// About what is kept of a row that was told, beside its bytes.
constexpr std::size_t keptOfRow = 64;
constexpr std::size_t mostProblems = 1000;  ///< that wait for being told

StoredRows::Bytes newBytes(std::size_t length) {
  StoredRows::Bytes bytes(static_cast<byte_t*>(std::malloc(length)));
  if (bytes == nullptr) throw std::bad_alloc();
  return bytes;
}

StoredRows::Bytes copyOf(const byte_t* row) {
  const auto length = loadField<len_t>(row + rowLengthOffset);
  StoredRows::Bytes bytes = newBytes(length);
  std::memcpy(bytes.get(), row, length);
  return bytes;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// A table

TableCopy::TableCopy(TableStore& table, ConversionRules rules)
    : Cursor(table, false), rules_(std::move(rules)) {}

void TableCopy::Round::put(OwnOperation& row, StoredRows::Bytes bytes) {
  changedBytes += loadField<len_t>(bytes.get());
  row.bytes = std::move(bytes);
}

std::size_t TableCopy::Round::memory() const {
  return changedBytes + keptOfRow * rows.size();
}

void TableCopy::newRound(bool isWhole) noexcept {
  round_ = {};
  round_.isWhole = isWhole;
  if (isWhole) return;
  round_.count = count_;
  round_.digest = digest_;
}

OwnOperation& TableCopy::tell(oid_t oid, Slot present) {
  const auto forget = [this](std::uint64_t hash) {
    --round_.count;
    round_.digest ^= hash;
  };
  const std::size_t number =
      round_.numbers.insert(oid, round_.rows.size() & OidMap::none, round_.oidOf());
  if (number == round_.rows.size()) {
    round_.rows.push_back({nullptr, oid});
    if (round_.isWhole) return round_.rows.back();
    const auto other = otherwise_.find(oid);
    if (other != otherwise_.end()) {
      round_.formerly.push_back(oid);
      forget(other->second);
    } else if (present != noSlot) {
      forget(rowHash(store()->bytes(present)));
    }
    return round_.rows.back();
  }
  OwnOperation& row = round_.rows[number];
  if (const auto other = round_.otherwise.extract(oid)) {
    forget(other.mapped());
  } else if (!row.isGone) {
    forget(rowHash(row.bytes != nullptr ? row.bytes.get() : store()->bytes(present)));
  }
  if (row.bytes != nullptr) round_.changedBytes -= loadField<len_t>(row.bytes.get());
  row = {nullptr, oid};
  return row;
}

/// What was told to be as it is in the table no longer needs the table for that.
void TableCopy::keepPresent() {
  for (OwnOperation& row : round_.rows) {
    if (row.bytes != nullptr || row.isGone || row.isRefused) continue;
    const Slot present = store()->find(row.oid);
    if (present != noSlot) round_.put(row, copyOf(store()->bytes(present)));
  }
}

void TableCopy::removeUntold() {
  if (!round_.isWhole) return;
  const TableStore& table = *store();
  for (Slot slot = table.slotFrom(0); slot != noSlot; slot = table.slotFrom(slot + 1)) {
    if (round_.numbers.find(table.oid(slot), round_.oidOf()) != OidMap::none) continue;
    round_.rows.push_back({nullptr, table.oid(slot), true});
  }
}

std::unique_ptr<TableStore::Commit> TableCopy::prepare() {
  removeUntold();
  if (!round_.isWhole) otherwise_.reserve(otherwise_.size() + round_.otherwise.size());
  round_.numbers = {};  // the commit needs room
  return std::make_unique<TableStore::Commit>(*store(), std::move(round_.rows));
}

void TableCopy::adopt(const TablePosition& position) noexcept {
  count_ = round_.count;
  digest_ = round_.digest;
  position_ = position;
  if (round_.isWhole) {
    otherwise_ = std::move(round_.otherwise);
  } else {
    for (const oid_t oid : round_.formerly) otherwise_.erase(oid);
    otherwise_.merge(round_.otherwise);
  }
  newRound(false);
}

// ---------------------------------------------------------------------------------------------
// What is kept over links

void TableCopies::add(TableStore& store, const ConversionRules& rules) {
  store.checkThread();
  if (store.name().size() > maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + store.name() + ")");
  }
  if (store.isPublished || store.isSubscribed) {
    throw KoInvalidArgument("Published or subscribed already - (" + store.name() + ")");
  }
  std::size_t count = 0;
  for (const auto& copy : copies_) {
    if (copy->store() == nullptr) continue;
    ++count;
    if (copy->store()->name() == store.name()) {
      throw KoInvalidArgument("Another table has the name - (" + store.name() + ")");
    }
  }
  if (count >= maxTables) throw KoInvalidArgument("More than 256 tables - (" + store.name() + ")");
  static_cast<void>(LayoutComparison(store.layout(), store.layout(), rules));
  auto copy = std::make_unique<TableCopy>(store, rules);
  copies_.reserve(copies_.size() + 1);
  const bool hasRows = store.size() != 0;
  store.stateIs(hasRows ? TableState::stale : TableState::loading,
                "nothing has come from the publisher yet");
  store.hasFirstRows = hasRows;
  store.sourceIs(source_);
  store.isSubscribed = true;
  copies_.push_back(std::move(copy));
}

void TableCopies::release() noexcept {
  for (const auto& copy : copies_) {
    if (copy->store() != nullptr) copy->store()->isSubscribed = false;
  }
}

void TableCopies::removeStaleRows() {
  std::vector<std::unique_ptr<TableStore::Commit>> commits;
  for (const auto& copy : copies_) {
    TableStore* const table = copy->store();
    if (table == nullptr || table->state() == TableState::current) continue;
    copy->keepPresent();
    Chunked<OwnOperation> removals;
    for (Slot slot = table->slotFrom(0); slot != noSlot; slot = table->slotFrom(slot + 1)) {
      removals.push_back({nullptr, table->oid(slot), true});
    }
    auto commit = std::make_unique<TableStore::Commit>(*table, std::move(removals));
    if (!commit->changesNothing()) commits.push_back(std::move(commit));
  }
  const std::uint64_t sequence = source_->last + 1;
  for (const auto& commit : commits) commit->apply(sequence);
  for (const auto& copy : copies_) {
    if (copy->store() != nullptr && copy->store()->state() != TableState::current) {
      copy->forgetPosition();
    }
  }
}

void TableCopies::tell(Problem problem) {
  if (problems_.size() < mostProblems) problems_.push_back(std::move(problem));
}

void TableCopies::note(std::string event) {
  if (events_.size() < mostProblems) events_.push_back(std::move(event));
}

const AnyTable* TableCopies::table(std::size_t number) const {
  const TableStore* const known = store(number);
  return known == nullptr ? nullptr : known->table;
}

// ---------------------------------------------------------------------------------------------
// A link

void TableCopies::begin(User& user) {
  std::erase_if(copies_, [](const auto& copy) { return copy->store() == nullptr; });
  for (const auto& copy : copies_) {
    copy->plan_.reset();
    copy->wasWhole_ = false;
    copy->newRound(false);
  }
  user_ = &user;
  history_ = 0;
  waiting_ = 0;
  marked_ = 0;
  hasMark_ = false;
}

void TableCopies::end(const std::string& reason) {
  if (std::exchange(user_, nullptr) != nullptr) note("the link is lost: " + reason);
  waiting_ = 0;
  for (const auto& copy : copies_) {
    copy->plan_.reset();
    copy->newRound(false);
  }
  for (const auto& copy : copies_) {
    TableStore* const table = copy->store();
    if (table == nullptr || table->state() == TableState::refused) continue;
    const bool isLoading = table->state() == TableState::loading;
    table->stateIs(isLoading ? TableState::loading : TableState::stale, reason);
  }
}

void TableCopies::publisherIs(const std::string& name, std::uint64_t history) {
  publisher_ = name;
  history_ = history;
}

bool TableCopies::accept(std::size_t number, const LayoutFingerprint& layout,
                         const std::string& layoutText) {
  TableCopy& copy = *copies_[number];
  TableStore* const table = copy.store();
  if (table == nullptr) return false;
  try {
    const DynamicLayout theirs(layoutText);
    if (theirs.fingerprint() != layout) {
      refuseTable(number, "the layout is not that of its fingerprint");
      return false;
    }
    copy.plan_.emplace(theirs.info(), table->layout(), copy.rules_);
  } catch (const KoBaseException& error) {
    refuseTable(number, table->name() + ": " + error.what());
    return false;
  }
  copy.isSame_ = copy.plan_->comparison().conversion() == Conversion::same;
  if (!copy.isSame_ && !takesOtherLayouts_) {
    refuseTable(number, table->name() + " has another layout at " + publisher_);
    return false;
  }
  note(table->name() + " comes from " + publisher_ +
       (copy.isSame_ ? "" : ", another layout: " + copy.plan_->comparison().text()));
  table->stateIs(table->hasFirstRows ? TableState::stale : TableState::loading,
                 "rows come from " + publisher_);
  return true;
}

void TableCopies::refuse(std::size_t number, const std::string& reason) {
  TableCopy& copy = *copies_[number];
  copy.plan_.reset();
  newRound(copy, false);
  if (copy.store() != nullptr) copy.store()->stateIs(TableState::refused, reason);
}

void TableCopies::refuseTable(std::size_t number, const std::string& text) {
  TableCopy& copy = *copies_[number];
  copy.forgetPosition();
  refuse(number, text);
  if (user_ != nullptr) user_->tableIsRefused(static_cast<std::uint16_t>(number), text);
  tell({copy.store()->name(), std::nullopt, text});
}

void TableCopies::refuseRow(std::size_t number, oid_t oid, const std::string& text) {
  ++counts_.refusedRows;
  if (user_ != nullptr) user_->rowIsRefused(static_cast<std::uint16_t>(number), oid, text);
  tell({copies_[number]->store()->name(), oid, text});
}

void TableCopies::newRound(TableCopy& copy, bool isWhole) noexcept {
  waiting_ -= copy.round_.weight;
  copy.newRound(isWhole);
}

void TableCopies::weigh(std::size_t number) {
  TableCopy::Round& round = copies_[number]->round_;
  const std::size_t memory = round.memory();
  waiting_ += memory - std::exchange(round.weight, memory);
  if (waiting_ <= mostWaiting_) return;
  refuseTable(number, "more than " + std::to_string(mostWaiting_) + " bytes wait for a mark");
}

// ---------------------------------------------------------------------------------------------
// A round

void TableCopies::whole(std::size_t number) {
  TableCopy& copy = *copies_[number];
  newRound(copy, true);
  copy.wasWhole_ = true;
}

void TableCopies::row(std::size_t number, std::span<const byte_t> bytes) {
  if (!copies_[number]->isTaken()) return;
  if (bytes.size() < rowHeaderLength ||
      loadField<len_t>(bytes.data() + rowLengthOffset) != bytes.size()) {
    throw TableFault("a row of another length than its frame");
  }
  takeRow(number, bytes);
  weigh(number);
}

void TableCopies::takeRow(std::size_t number, std::span<const byte_t> row) {
  TableCopy& copy = *copies_[number];
  const TableStore& table = *copy.store();
  const byte_t* const bytes = row.data();
  const auto oid = loadField<oid_t>(bytes + rowOidOffset);
  const Slot present = table.find(oid);
  OwnOperation& told = copy.tell(oid, present);
  const std::uint64_t hash = rowHash(bytes);
  ++copy.round_.count;
  copy.round_.digest ^= hash;
  const auto refuse = [&](const std::string& text) {
    told.isRefused = true;
    copy.round_.otherwise.emplace(oid, hash);
    refuseRow(number, oid, text);
  };

  const LayoutInfo& theirs = copy.plan_->comparison().sender().info();
  if (const RowFault bad = checkRow(bytes, row.size(), theirs)) return refuse(bad.text());
  if (loadField<std::uint16_t>(bytes + rowTypeOffset) != theirs.rowType) {
    return refuse("another row type");
  }
  std::size_t length = row.size();
  if (!copy.isSame_) {
    try {
      length = copy.plan_->convertedLength(bytes, row.size());
    } catch (const KoBaseException& error) {
      return refuse(error.what());
    }
  }
  const auto equalsPresent = [&](const byte_t* other) {
    return present != noSlot && rowsEqual(other, table.bytes(present), table.layout());
  };
  if (copy.isSame_ && equalsPresent(bytes)) {
    const byte_t* const own = table.bytes(present);
    const bool isKept = loadField<len_t>(own) == length && std::memcmp(bytes, own, length) == 0;
    if (!isKept) copy.round_.otherwise.emplace(oid, hash);
    return;
  }
  if (copy.isSame_) return copy.round_.put(told, copyOf(bytes));
  StoredRows::Bytes taken = newBytes(length);
  copy.plan_->write(bytes, taken.get());
  copy.round_.otherwise.emplace(oid, hash);
  if (!equalsPresent(taken.get())) copy.round_.put(told, std::move(taken));
}

void TableCopies::remove(std::size_t number, oid_t oid) {
  TableCopy& copy = *copies_[number];
  if (!copy.isTaken()) return;
  const Slot present = copy.store()->find(oid);
  copy.tell(oid, present).isGone = true;
  weigh(number);
}

std::string TableCopies::mark(const TableMark& mark) {
  if (hasMark_ && mark.sequence < marked_) throw TableFault("the sequence went back");
  std::vector<TableCopy*> parts;
  std::vector<bool> isMarked(copies_.size());
  for (const TableMark::Table& told : mark.tables) {
    if (told.number >= copies_.size() || isMarked[told.number]) {
      throw TableFault("table number " + std::to_string(told.number));
    }
    isMarked[told.number] = true;
    TableCopy& copy = *copies_[told.number];
    if (!copy.isTaken()) continue;
    // A position of another history means nothing in this one.
    const TablePosition& from = copy.position();
    if (!copy.wasWhole_ && (from.history != history_ || mark.sequence < from.sequence)) {
      throw TableFault("a table was not told as a whole");
    }
    parts.push_back(&copy);
    if (copy.round_.count == told.rows && copy.round_.digest == told.digest) continue;
    ++counts_.digestFaults;
    copy.forgetPosition();
    std::string text = "the rows of " + copy.store()->name() + " are not the publisher's";
    tell({copy.store()->name(), std::nullopt, text});
    return text;
  }
  for (std::size_t i = 0; i < copies_.size(); ++i) {
    if (copies_[i]->isTaken() && !isMarked[i]) throw TableFault("a mark without a table");
  }

  // From here on nothing may be half done: all that can fail comes first.
  std::vector<std::unique_ptr<TableStore::Commit>> commits;
  commits.reserve(parts.size());
  for (TableCopy* copy : parts) commits.push_back(copy->prepare());
  const std::uint64_t sequence = source_->last + 1;
  for (const auto& commit : commits) commit->apply(sequence);
  for (TableCopy* copy : parts) copy->adopt({history_, mark.sequence});

  waiting_ = 0;
  marked_ = mark.sequence;
  hasMark_ = true;
  ++counts_.marks;
  counts_.merged += mark.merged;
  faultAt_.reset();
  for (TableCopy* copy : parts) {
    TableStore& table = *copy->store();
    table.hasFirstRows = true;
    if (table.state() != TableState::current) table.stateIs(TableState::current, "");
  }
  return "";
}

void TableCopies::fault(const std::string& text) {
  std::uint64_t position = 0;
  for (const auto& copy : copies_) {
    if (copy->position().history != 0) position = std::max(position, copy->position().sequence);
  }
  const bool isSecond = faultAt_ == position;
  faultAt_ = position;
  if (!isSecond) return;
  for (const auto& copy : copies_) copy->forgetPosition();
  tell({"", std::nullopt, "all rows are asked for: " + text});
}

}  // namespace Korvo::detail
