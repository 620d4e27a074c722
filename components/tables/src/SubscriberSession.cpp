#include "SubscriberSession.h"

#include <Korvo/rowCheck.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr int heartbeatsOfSilence = 3;
/// Notes beyond it are not sent; the publisher learns their number.
constexpr std::size_t mostUnsent = 256 * 1024;
/// About what is kept of a row that was told, beside its bytes.
constexpr std::size_t keptOfRow = 64;
constexpr milliseconds longestHeartbeat = std::chrono::minutes(10);

KoPtr<KoRowBuf> newBuffer(std::size_t length) {
  auto buffer = std::make_shared<KoRowBuf>();
  buffer->buf_ = static_cast<byte_t*>(std::malloc(length));
  if (buffer->buf_ == nullptr) throw std::bad_alloc();
  return buffer;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// What is kept over connections

TableCopy::TableCopy(TableStore& table, ConversionRules rulesOfTable)
    : Cursor(table, false), rules(std::move(rulesOfTable)) {}

void Subscription::linkIsLost(const std::string& text) {
  for (const auto& copy : copies) {
    TableStore* const table = copy->store();
    if (table == nullptr || table->state() == TableState::refused) continue;
    const bool isLoading = table->state() == TableState::loading;
    table->stateIs(isLoading ? TableState::loading : TableState::stale, text);
  }
}

void Subscription::forgetPositions() {
  for (const auto& copy : copies) copy->forgetPosition();
}

void Subscription::removeStaleRows() {
  std::vector<std::unique_ptr<TableStore::Commit>> commits;
  for (const auto& copy : copies) {
    TableStore* const table = copy->store();
    if (table == nullptr || table->state() == TableState::current) continue;
    std::vector<RowOperation> removals;
    for (Slot slot = table->slotFrom(0); slot != noSlot; slot = table->slotFrom(slot + 1)) {
      removals.push_back({table->oid(slot), nullptr});
    }
    auto commit = std::make_unique<TableStore::Commit>(*table, removals);
    if (!commit->changesNothing()) commits.push_back(std::move(commit));
  }
  const std::uint64_t sequence = source->last + 1;
  for (const auto& commit : commits) commit->apply(sequence);
  for (const auto& copy : copies) {
    if (copy->store() != nullptr && copy->store()->state() != TableState::current) {
      copy->forgetPosition();
    }
  }
}

// ---------------------------------------------------------------------------------------------
// A table of the connection

/// What was told of a table since the last mark.
struct SubscriberSession::Round {
  bool isWhole = false;
  std::unordered_map<oid_t, std::uint64_t> rows;  ///< with their hashes
  std::unordered_set<oid_t> gone;
  std::unordered_map<oid_t, KoPtr<KoRowBuf>> changed;  ///< rows that differ from the table's
  std::size_t changedBytes = 0;
  std::size_t weight = 0;  ///< as it was counted last

  void dropChanged(oid_t oid) {
    if (const auto former = changed.extract(oid)) {
      changedBytes -= loadField<len_t>(former.mapped()->buf_);
    }
  }
  std::size_t memory() const {
    return changedBytes + keptOfRow * (rows.size() + gone.size() + changed.size());
  }
};

class SubscriberSession::Feed {
 public:
  Feed(TableCopy& ofCopy, std::uint16_t ofNumber) : copy(ofCopy), number(ofNumber) {}

  TableStore* table() const { return copy.store(); }
  bool isTaken() const { return plan.has_value() && table() != nullptr; }

  /// What the rows and their hashes will be, and what changes in the table.
  struct Outcome {
    std::uint64_t rows;
    std::uint64_t digest;
    std::vector<RowOperation> operations;
  };
  Outcome outcome() const;
  /// Makes room, so that adopt() cannot fail.
  void prepare() {
    if (!round.isWhole) copy.sent.reserve(copy.sent.size() + round.rows.size());
  }
  void adopt(const Outcome& result, std::uint64_t epoch, std::uint64_t sequence) noexcept;

  TableCopy& copy;
  std::uint16_t number;
  std::optional<ConversionPlan> plan;  ///< none: the table is not taken
  bool isSame = false;                 ///< rows are taken as they are
  bool wasWhole = false;               ///< since the connection began
  Round round;
};

SubscriberSession::Feed::Outcome SubscriberSession::Feed::outcome() const {
  Outcome result{copy.sent.size(), copy.digest, {}};
  const TableStore& store = *table();
  const auto remove = [&](oid_t oid) {
    if (store.find(oid) != noSlot) result.operations.push_back({oid, nullptr});
  };
  if (round.isWhole) {
    result.rows = round.rows.size();
    result.digest = 0;
    for (const auto& [oid, hash] : round.rows) result.digest ^= hash;
    for (Slot slot = store.slotFrom(0); slot != noSlot; slot = store.slotFrom(slot + 1)) {
      if (!round.rows.contains(store.oid(slot))) remove(store.oid(slot));
    }
  } else {
    for (const auto& [oid, hash] : round.rows) {
      const auto known = copy.sent.find(oid);
      if (known == copy.sent.end()) {
        ++result.rows;
      } else {
        result.digest ^= known->second;
      }
      result.digest ^= hash;
    }
    for (const oid_t oid : round.gone) {
      const auto known = copy.sent.find(oid);
      if (known == copy.sent.end()) continue;
      result.digest ^= known->second;
      --result.rows;
      remove(oid);
    }
  }
  for (const auto& [oid, buffer] : round.changed) result.operations.push_back({oid, buffer});
  return result;
}

void SubscriberSession::Feed::adopt(const Outcome& result, std::uint64_t epoch,
                                    std::uint64_t sequence) noexcept {
  if (round.isWhole) {
    copy.sent = std::move(round.rows);
  } else {
    for (const oid_t oid : round.gone) copy.sent.erase(oid);
    for (const auto& [oid, hash] : round.rows) copy.sent.erase(oid);
    copy.sent.merge(round.rows);
  }
  copy.digest = result.digest;
  copy.epoch = epoch;
  copy.sequence = sequence;
  round = {};
}

// ---------------------------------------------------------------------------------------------
// What comes

SubscriberSession::SubscriberSession(Subscription& subscription)
    : subscription_(subscription), heartbeat_(subscription.heartbeat) {
  Hello hello;
  hello.heartbeat = static_cast<std::uint32_t>(heartbeat_.count());
  hello.name = subscription.name;
  for (std::size_t i = 0; i < subscription.copies.size(); ++i) {
    TableCopy& copy = *subscription.copies[i];
    const auto number = static_cast<std::uint16_t>(i);
    feeds_.push_back(std::make_unique<Feed>(copy, number));
    const TableStore* const table = copy.store();
    if (table == nullptr) continue;
    hello.tables.push_back({number, table->name(), table->layout().rowType,
                            fingerprint(table->layout()), copy.epoch, copy.sequence});
  }
  out_.push(hello.encode());
}

SubscriberSession::~SubscriberSession() = default;

void SubscriberSession::receive(std::span<const byte_t> bytes) {
  if (!bytes.empty()) silence_ = milliseconds(0);
  if (isOver_) return;
  try {
    reader_.feed(bytes, [this](const Frame& frame) { return take(frame); });
  } catch (const ProtocolError& error) {
    fault(error.what());
  }
}

/// The same bad bytes may come again from there: the second time all rows are asked for.
void SubscriberSession::fault(const std::string& text) {
  std::uint64_t position = 0;
  for (const auto& copy : subscription_.copies) {
    if (copy->hasPosition()) position = std::max(position, copy->sequence);
  }
  const bool isSecond = subscription_.faultAt == position;
  subscription_.faultAt = position;
  if (isSecond) {
    subscription_.forgetPositions();
    subscription_.tell({"", std::nullopt, "all rows are asked for: " + text});
  }
  end(ByeReason::protocol, text);
}

SubscriberSession::Feed* SubscriberSession::feedOf(std::uint16_t number) {
  return number < feeds_.size() ? feeds_[number].get() : nullptr;
}

bool SubscriberSession::take(const Frame& frame) {
  if (frame.is(FrameType::bye)) {
    const Bye bye = Bye::decode(frame.body);
    isOver_ = true;
    endText_ = "the publisher ended: " + bye.text;
    out_.dropUnbegun();
    return false;
  }
  if (!isWelcome_) {
    if (!frame.is(FrameType::welcome)) throw ProtocolError("no WELCOME");
    takeWelcome(Welcome::decode(frame.body));
    return !isOver_;
  }
  Feed* const feed = feedOf(frame.table);
  const auto feedOfRows = [&]() -> Feed& {
    if (feed == nullptr) throw ProtocolError("table number " + std::to_string(frame.table));
    ++frames_;
    return *feed;
  };
  switch (static_cast<FrameType>(frame.type)) {
    case FrameType::whole: {
      Feed& told = feedOfRows();
      waiting_ -= told.round.weight;
      told.round = {};
      told.round.isWhole = true;
      told.wasWhole = true;
      return true;
    }
    case FrameType::row: {
      Feed& told = feedOfRows();
      if (told.isTaken()) {
        takeRow(told, frame.body);
        weigh(told);
      }
      return true;
    }
    case FrameType::del: {
      Feed& told = feedOfRows();
      if (frame.body.size() % sizeof(oid_t) != 0) throw ProtocolError("half an oid");
      if (!told.isTaken()) return true;
      for (std::size_t at = 0; at < frame.body.size(); at += sizeof(oid_t)) {
        const auto oid = loadField<oid_t>(frame.body.data() + at);
        told.round.gone.insert(oid);
        told.round.rows.erase(oid);
        told.round.dropChanged(oid);
      }
      weigh(told);
      return true;
    }
    case FrameType::mark:
      takeMark(Mark::decode(frame.body));
      return !isOver_;
    case FrameType::pulse:
      return true;
    default:
      if ((frame.type & mayBeSkipped) != 0) return true;
      throw ProtocolError("frame of type " + std::to_string(frame.type));
  }
}

void SubscriberSession::takeWelcome(const Welcome& welcome) {
  if (welcome.protocol < protocolMin || welcome.protocol > protocolMax) {
    throw ProtocolError("protocol " + std::to_string(welcome.protocol));
  }
  if (welcome.epoch == 0) throw ProtocolError("no epoch");
  isWelcome_ = true;
  publisher_ = welcome.name;
  epoch_ = welcome.epoch;
  heartbeat_ = std::max(heartbeat_, std::min(milliseconds(welcome.heartbeat), longestHeartbeat));
  std::vector<bool> isAnswered(feeds_.size());
  for (const Welcome::Table& table : welcome.tables) {
    Feed* const feed = feedOf(table.number);
    if (feed == nullptr || isAnswered[table.number]) {
      throw ProtocolError("table number " + std::to_string(table.number));
    }
    isAnswered[table.number] = true;
    if (feed->table() != nullptr) accept(*feed, table);
  }
  for (std::size_t i = 0; i < feeds_.size(); ++i) {
    if (!isAnswered[i] && feeds_[i]->table() != nullptr) throw ProtocolError("a table is left out");
  }
}

void SubscriberSession::accept(Feed& feed, const Welcome::Table& table) {
  TableStore& store = *feed.table();
  if (!table.isAccepted) {
    store.stateIs(TableState::refused, table.refusal);
    return;
  }
  try {
    const DynamicLayout layout(table.layoutText);
    if (layout.fingerprint() != table.layout) {
      return refuseTable(feed, "the layout is not that of its fingerprint");
    }
    feed.plan.emplace(layout.info(), store.layout(), feed.copy.rules);
  } catch (const KoBaseException& error) {
    return refuseTable(feed, store.name() + ": " + error.what());
  }
  feed.isSame = feed.plan->comparison().conversion() == Conversion::same;
  if (!feed.isSame && !subscription_.takesOtherLayouts) {
    return refuseTable(feed, store.name() + " has another layout at " + publisher_);
  }
  const std::string text = "rows come from " + publisher_;
  store.stateIs(store.hasFirstRows ? TableState::stale : TableState::loading, text);
}

void SubscriberSession::refuseTable(Feed& feed, const std::string& text) {
  feed.plan.reset();
  waiting_ -= feed.round.weight;
  feed.round = {};
  feed.copy.forgetPosition();
  feed.table()->stateIs(TableState::refused, text);
  out_.push(encodeRefuse(feed.number, text));
  subscription_.tell({feed.table()->name(), std::nullopt, text});
}

void SubscriberSession::refuseRow(Feed& feed, oid_t oid, const std::string& text) {
  ++subscription_.refused;
  ackIsDue_ = true;
  if (out_.size() < mostUnsent) {
    out_.push(Note{feed.number, oid, text}.encode());
  }
  subscription_.tell({feed.table()->name(), oid, text});
}

void SubscriberSession::takeRow(Feed& feed, std::span<const byte_t> body) {
  const byte_t* const bytes = body.data();
  if (body.size() < rowHeaderLength || loadField<len_t>(bytes + rowLengthOffset) != body.size()) {
    throw ProtocolError("a row of another length than its frame");
  }
  TableStore& store = *feed.table();
  Round& round = feed.round;
  const auto oid = loadField<oid_t>(bytes + rowOidOffset);
  round.rows[oid] = rowHash(bytes);
  round.gone.erase(oid);
  round.dropChanged(oid);

  const LayoutInfo& theirs = feed.plan->comparison().sender().info();
  if (const RowFault bad = checkRow(bytes, body.size(), theirs)) {
    return refuseRow(feed, oid, bad.text());
  }
  if (loadField<std::uint16_t>(bytes + rowTypeOffset) != theirs.rowType) {
    return refuseRow(feed, oid, "another row type");
  }
  std::size_t length = body.size();
  if (!feed.isSame) {
    try {
      length = feed.plan->convertedLength(bytes, body.size());
    } catch (const KoBaseException& error) {
      return refuseRow(feed, oid, error.what());
    }
  }
  const Slot present = store.find(oid);
  const auto equalsPresent = [&](const byte_t* row) {
    return present != noSlot && rowsEqual(row, store.buffer(present)->buf_, store.layout());
  };
  if (feed.isSame && equalsPresent(bytes)) return;
  KoPtr<KoRowBuf> buffer = newBuffer(length);
  if (feed.isSame) {
    std::memcpy(buffer->buf_, bytes, length);
  } else {
    feed.plan->write(bytes, buffer->buf_);
    if (equalsPresent(buffer->buf_)) return;
  }
  round.changed.emplace(oid, std::move(buffer));
  round.changedBytes += length;
}

void SubscriberSession::weigh(Feed& feed) {
  const std::size_t memory = feed.round.memory();
  waiting_ += memory - std::exchange(feed.round.weight, memory);
  if (waiting_ <= subscription_.mostWaiting) return;
  refuseTable(feed,
              "more than " + std::to_string(subscription_.mostWaiting) + " bytes wait for a mark");
}

void SubscriberSession::takeMark(const Mark& mark) {
  if (mark.frames != frames_) {
    throw ProtocolError("a mark of " + std::to_string(mark.frames) + " frames behind " +
                        std::to_string(frames_));
  }
  if (mark.sequence < marked_) throw ProtocolError("the sequence went back");
  struct Part {
    Feed* feed;
    Feed::Outcome outcome;
  };
  std::vector<Part> parts;
  std::vector<bool> isMarked(feeds_.size());
  for (const Mark::Table& table : mark.tables) {
    Feed* const feed = feedOf(table.number);
    if (feed == nullptr || isMarked[table.number]) {
      throw ProtocolError("table number " + std::to_string(table.number));
    }
    isMarked[table.number] = true;
    if (!feed->isTaken()) continue;
    const TableCopy& copy = feed->copy;
    // A position of another history means nothing in this one.
    if (!feed->wasWhole && (copy.epoch != epoch_ || mark.sequence < copy.sequence)) {
      throw ProtocolError("a table was not told as a whole");
    }
    parts.push_back({feed, feed->outcome()});
    if (parts.back().outcome.rows == table.rows && parts.back().outcome.digest == table.digest) {
      continue;
    }
    ++subscription_.digestFaults;
    feed->copy.forgetPosition();
    const std::string text = "the rows of " + feed->table()->name() + " are not the publisher's";
    subscription_.tell({feed->table()->name(), std::nullopt, text});
    return end(ByeReason::digest, text);
  }
  for (std::size_t i = 0; i < feeds_.size(); ++i) {
    if (feeds_[i]->isTaken() && !isMarked[i]) throw ProtocolError("a mark without a table");
  }

  // From here on nothing may be half done: all that can fail comes first.
  std::vector<std::unique_ptr<TableStore::Commit>> commits;
  for (Part& part : parts) {
    part.feed->prepare();
    commits.push_back(
        std::make_unique<TableStore::Commit>(*part.feed->table(), part.outcome.operations));
  }
  const std::uint64_t sequence = subscription_.source->last + 1;
  for (const auto& commit : commits) commit->apply(sequence);
  for (const Part& part : parts) part.feed->adopt(part.outcome, epoch_, mark.sequence);

  frames_ = 0;
  waiting_ = 0;
  marked_ = mark.sequence;
  hasMark_ = true;
  ackIsDue_ = true;
  ++subscription_.marks;
  subscription_.merged += mark.merged;
  subscription_.faultAt.reset();
  for (const Part& part : parts) {
    TableStore& store = *part.feed->table();
    store.hasFirstRows = true;
    if (store.state() != TableState::current) store.stateIs(TableState::current, "");
  }
}

// ---------------------------------------------------------------------------------------------
// What goes

void SubscriberSession::received() {
  if (isOver_ || !std::exchange(ackIsDue_, false)) return;
  out_.push(Ack{marked_, subscription_.refused}.encode());
}

void SubscriberSession::sent(std::size_t count) {
  out_.sent(count);
  idle_ = milliseconds(0);
}

void SubscriberSession::timePasses(milliseconds time) {
  if (isOver_) return;
  silence_ += time;
  idle_ += time;
  if (silence_ >= heartbeatsOfSilence * heartbeat_) {
    return end(ByeReason::silence,
               "nothing was received for " + std::to_string(silence_.count() / 1000) + " seconds");
  }
  if (isWelcome_ && idle_ >= heartbeat_ && out_.empty()) {
    ackIsDue_ = true;
    received();
  }
}

void SubscriberSession::end(ByeReason reason, const std::string& text) {
  if (isOver_) return;
  isOver_ = true;
  endText_ = text;
  out_.dropUnbegun();
  out_.push(Bye{reason, text}.encode());
}

}  // namespace Korvo::detail
