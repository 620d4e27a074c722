#include "PublisherSession.h"

#include <algorithm>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr milliseconds helloLimit{5000};
constexpr milliseconds roundLimit{2000};
constexpr milliseconds longestWanted = std::chrono::minutes(1);  ///< heartbeat of a subscriber
constexpr int heartbeatsOfSilence = 3;
/// A subscriber says nothing while it applies a round: for each row it may be silent longer.
constexpr std::chrono::microseconds applyingRow{50};
constexpr std::size_t mostNotes = 1000;  ///< that wait for being told
/// What a WELCOME holds beside layouts.
constexpr std::size_t welcomeReserve = 1024 + maxTables * (2 * maxText + 64);

}  // namespace

PublisherSession::PublisherSession(const Publication& publication, Owner& owner,
                                   std::optional<uid_t> user)
    : publication_(publication),
      owner_(owner),
      user_(user),
      walk_(publication, *this),
      heartbeat_(publication.heartbeat) {}

void PublisherSession::tableIsGone() noexcept {
  try {
    owner_.sessionHasNews();
  } catch (const std::bad_alloc&) {
    // Found at the next heartbeat.
  }
}

// ---------------------------------------------------------------------------------------------
// What comes

void PublisherSession::receive(std::span<const byte_t> bytes) {
  if (!bytes.empty()) silence_ = milliseconds(0);
  if (isOver_) return;
  try {
    reader_.feed(bytes, [this](const Frame& frame) { return take(frame); });
  } catch (const ProtocolError& error) {
    end(ByeReason::protocol, error.what());
  }
}

bool PublisherSession::take(const Frame& frame) {
  if (!isWelcome_) {
    if (!frame.is(FrameType::hello)) throw ProtocolError("no HELLO");
    takeHello(Hello::decode(frame.body));
    return !isOver_;
  }
  switch (static_cast<FrameType>(frame.type)) {
    case FrameType::ack: {
      const Ack ack = Ack::decode(frame.body);
      if (ack.sequence > publication_.source->last) throw ProtocolError("ACK of what was not sent");
      acked_ = ack.sequence;
      if (acked_ >= unappliedUntil_) unapplied_ = 0;
      refused_ = ack.refused;
      return true;
    }
    case FrameType::note: {
      Note note = Note::decode(frame);
      const TableStore* const table = walk_.table(note.table);
      if (table != nullptr && notes_.size() < mostNotes) {
        notes_.push_back({table->name(), note.oid, std::move(note.text)});
      }
      return true;
    }
    case FrameType::refuse:
      walk_.drop(frame.table);
      return true;
    case FrameType::ask:
      if (mayAsk_) answer_.ask();
      return true;
    case FrameType::bye: {
      const Bye bye = Bye::decode(frame.body);
      isOver_ = true;
      endText_ = "the subscriber ended: " + bye.text;
      out_.dropUnbegun();
      return false;
    }
    default:
      if ((frame.type & mayBeSkipped) != 0) return true;
      throw ProtocolError("frame of type " + std::to_string(frame.type));
  }
}

void PublisherSession::takeHello(const Hello& hello) {
  if (hello.protocolMin > protocolMax || hello.protocolMax < protocolMin) {
    const auto versions = [](unsigned int from, unsigned int to) {
      return from == to ? std::to_string(from) : std::to_string(from) + " to " + std::to_string(to);
    };
    throw ProtocolError("protocol " + versions(protocolMin, protocolMax) + " here, " +
                        versions(hello.protocolMin, hello.protocolMax) + " there");
  }
  subscriber_ = hello.name;
  heartbeat_ = std::max(heartbeat_, std::min(milliseconds(hello.heartbeat), longestWanted));

  Welcome welcome;
  welcome.protocol = std::min(protocolMax, hello.protocolMax);
  welcome.features = hello.features & featureAsk;
  mayAsk_ = welcome.features != 0;
  wantsTables_ = !hello.tables.empty();
  welcome.heartbeat = static_cast<std::uint32_t>(heartbeat_.count());
  welcome.name = publication_.name;
  welcome.epoch = publication_.epoch;
  welcome.head = publication_.source->last;
  std::size_t layoutBytes = 0;
  acked_ = publication_.source->last;
  for (const Hello::Table& table : hello.tables) {
    welcome.tables.push_back(admit(table, layoutBytes));
  }
  out_.push(welcome.encode());
  isWelcome_ = true;
  markIsDue_ = true;
}

Welcome::Table PublisherSession::admit(const Hello::Table& wanted, std::size_t& layoutBytes) {
  Welcome::Table answer;
  answer.number = wanted.number;
  const auto refuse = [&](const std::string& text) {
    answer.refusal = text;
    return answer;
  };
  const auto found = std::ranges::find(publication_.tables, wanted.name, &TableStore::name);
  if (found == publication_.tables.end()) {
    return refuse(publication_.name + " has no table " + wanted.name);
  }
  if (publication_.mayHave && !publication_.mayHave(wanted.name, user_)) {
    const std::string user = user_ ? "user " + std::to_string(*user_) : "an unknown user";
    return refuse(publication_.name + " does not give " + wanted.name + " to " + user);
  }
  TableStore& table = **found;
  answer.layoutText = Korvo::layoutText(table.layout());
  if (welcomeReserve + layoutBytes + answer.layoutText.size() > maxLongFrame) {
    answer.layoutText.clear();
    return refuse("the layouts of all tables are too long");
  }
  layoutBytes += answer.layoutText.size();
  answer.layout = fingerprint(table.layout());
  answer.isAccepted = true;

  walk_.add(table, wanted.number);
  const bool isResumed = walk_.resume(wanted.number, {wanted.epoch, wanted.sequence});
  acked_ = std::min(acked_, isResumed ? wanted.sequence : 0);
  if (wanted.epoch == publication_.epoch && wanted.sequence > publication_.source->last) {
    warning_ = "it had come to " + std::to_string(wanted.sequence) + ", the history ends at " +
               std::to_string(publication_.source->last);
  }
  return answer;
}

// ---------------------------------------------------------------------------------------------
// What goes

void PublisherSession::fill(std::size_t most) {
  if (!isWelcome_) return;
  while (!isOver_ && out_.size() < most) {
    if (walk_.hasLostATable()) return end(ByeReason::changed, "a table is gone");
    if (answer_.isDue()) {
      out_.push(answer_.next());
    } else if (capturedMark_) {
      sendCaptured();
    } else if (walk_.isBehind() || !gone_.empty()) {
      if (isStarved())
        capture();
      else
        sendNext();
    } else if ((markIsDue_ || frames_ != 0) && publication_.isComplete) {
      sendMark(walk_.mark());
    } else {
      return;
    }
  }
}

void PublisherSession::sendNext() {
  if (frames_ == 0) roundHead_ = walk_.head();
  TableSender::Change change;
  if (walk_.next(change)) {
    send(change);
  } else {
    sendGone();
  }
}

void PublisherSession::send(const TableSender::Change& change) {
  const bool isRemoval = change.kind == TableSender::Kind::removed;
  if (!isRemoval || change.table != goneOf_ || gone_.size() >= maxOidsOfDel) sendGone();
  if (isRemoval) {
    goneOf_ = change.table;
    gone_.push_back(change.oid);
    return;
  }
  if (change.kind == TableSender::Kind::row) {
    out_.pushRow(change.table, change.row->buf_);
    ++rows_;
  } else {
    out_.push(FrameWriter(FrameType::whole, change.table).take());
  }
  ++frames_;
}

void PublisherSession::sendGone() {
  if (gone_.empty()) return;
  FrameWriter frame(FrameType::del, goneOf_);
  for (const oid_t oid : gone_) frame.number(oid);
  gone_.clear();
  out_.push(frame.take());
  ++frames_;
}

/// A table that changes faster than it is sent would never come to a mark. One that does not change
/// comes to it by itself.
bool PublisherSession::isStarved() const {
  if (!publication_.isComplete || frames_ == 0 || walk_.head() == roundHead_) return false;
  return rows_ > 2 * walk_.rows() || roundAge_ >= roundLimit;
}

/// Keeps what is left to tell as it stands now: no more than all rows, and their bytes are shared.
void PublisherSession::capture() {
  TableSender::Change change;
  while (walk_.next(change)) captured_.push_back(std::move(change));
  capturedMark_ = walk_.mark();
}

void PublisherSession::sendCaptured() {
  if (capturedSent_ < captured_.size()) {
    const TableSender::Change change = std::move(captured_[capturedSent_++]);
    if (walk_.table(change.table) != nullptr) send(change);  // not refused meanwhile
    return;
  }
  captured_ = {};
  capturedSent_ = 0;
  sendMark(*std::exchange(capturedMark_, std::nullopt));
}

void PublisherSession::sendMark(const TableMark& counted) {
  sendGone();
  Mark mark;
  static_cast<TableMark&>(mark) = counted;
  std::erase_if(mark.tables, [this](const TableMark::Table& table) {
    return walk_.table(table.number) == nullptr;
  });
  mark.frames = frames_;
  out_.push(mark.encode());
  merged_ += mark.merged;
  if (rows_ != 0) unappliedUntil_ = mark.sequence;
  unapplied_ += rows_;
  frames_ = 0;
  rows_ = 0;
  roundAge_ = milliseconds(0);
  markIsDue_ = false;
}

void PublisherSession::sent(std::size_t count) {
  out_.sent(count);
  idle_ = milliseconds(0);
}

void PublisherSession::timePasses(milliseconds time) {
  if (isOver_) return;
  age_ += time;
  silence_ += time;
  idle_ += time;
  if (!isWelcome_) {
    if (age_ >= helloLimit) end(ByeReason::protocol, "no HELLO");
    return;
  }
  if (frames_ != 0 || walk_.isBehind()) roundAge_ += time;
  if (silence_ >= heartbeatsOfSilence * heartbeat_ + unapplied_ * applyingRow) {
    return end(ByeReason::silence,
               "nothing was received for " + std::to_string(silence_.count() / 1000) + " seconds");
  }
  if (idle_ >= heartbeat_ && out_.empty()) {
    markIsDue_ = true;
    if (!publication_.isComplete) out_.push(FrameWriter(FrameType::pulse).take());
  }
}

void PublisherSession::end(ByeReason reason, const std::string& text) {
  if (isOver_) return;
  isOver_ = true;
  endText_ = text;
  walk_.clear();
  gone_.clear();
  captured_.clear();
  capturedMark_.reset();
  out_.dropUnbegun();
  out_.push(Bye{reason, text}.encode());
}

}  // namespace Korvo::detail
