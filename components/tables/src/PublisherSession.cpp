#include "PublisherSession.h"

#include <algorithm>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr milliseconds helloLimit{5000};
constexpr milliseconds roundLimit{2000};
constexpr milliseconds longestWanted = std::chrono::minutes(1);  ///< heartbeat of a subscriber
constexpr int heartbeatsOfSilence = 3;
constexpr std::size_t mostNotes = 1000;  ///< that wait for being told
/// What a WELCOME holds beside layouts.
constexpr std::size_t welcomeReserve = 1024 + maxTables * (2 * maxText + 64);

}  // namespace

/// A subscribed table.
struct PublisherSession::Feed final : TableStore::Cursor {
  Feed(PublisherSession& ofSession, TableStore& table, std::uint16_t ofNumber)
      : Cursor(table, false), session(ofSession), number(ofNumber) {}

  void changeComes() override { session.batchComes(); }
  void tableGoes() noexcept override {
    try {
      session.owner_.sessionHasNews();
    } catch (const std::bad_alloc&) {
      // Found at the next heartbeat.
    }
  }

  PublisherSession& session;
  std::uint16_t number;
  std::uint64_t wholesTold = 0;
};

PublisherSession::PublisherSession(Publication& publication, Owner& owner)
    : publication_(publication), owner_(owner), heartbeat_(publication.heartbeat) {}

PublisherSession::~PublisherSession() = default;

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
      refused_ = ack.refused;
      return true;
    }
    case FrameType::note: {
      Note note = Note::decode(frame);
      const Feed* const feed = feedOf(note.table);
      if (feed != nullptr && feed->store() != nullptr && notes_.size() < mostNotes) {
        notes_.push_back({feed->store()->name(), note.oid, std::move(note.text)});
      }
      return true;
    }
    case FrameType::refuse:
      std::erase_if(feeds_, [&](const auto& feed) { return feed->number == frame.table; });
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
  TableStore& table = **found;
  answer.layoutText = Korvo::layoutText(table.layout());
  if (welcomeReserve + layoutBytes + answer.layoutText.size() > maxLongFrame) {
    answer.layoutText.clear();
    return refuse("the layouts of all tables are too long");
  }
  layoutBytes += answer.layoutText.size();
  answer.layout = fingerprint(table.layout());
  answer.isAccepted = true;

  auto feed = std::make_unique<Feed>(*this, table, wanted.number);
  const bool isOurs = wanted.epoch == publication_.epoch && wanted.epoch != 0;
  if (isOurs && wanted.sequence <= publication_.source->last) feed->resumeBehind(wanted.sequence);
  feeds_.push_back(std::move(feed));
  return answer;
}

// ---------------------------------------------------------------------------------------------
// What goes

void PublisherSession::batchComes() {
  // Told once for each table of a batch, and of batches that are not made in the end.
  const std::uint64_t batch = publication_.source->last + 1;
  if (batch != lastBatch_) ++batches_;
  lastBatch_ = batch;
  owner_.sessionHasNews();
}

PublisherSession::Feed* PublisherSession::feedOf(std::uint16_t number) {
  for (const auto& feed : feeds_) {
    if (feed->number == number) return feed.get();
  }
  return nullptr;
}

bool PublisherSession::isBehind() const {
  return std::ranges::any_of(feeds_, [](const auto& feed) { return feed->isBehind(); });
}

void PublisherSession::fill(std::size_t most) {
  if (!isWelcome_) return;
  while (!isOver_ && out_.size() < most) {
    if (std::ranges::any_of(feeds_, [](const auto& feed) { return feed->store() == nullptr; })) {
      return end(ByeReason::changed, "a table is gone");
    }
    if (answer_.isDue()) {
      out_.push(answer_.next());
    } else if (capturedMark_) {
      sendCaptured();
    } else if (isBehind()) {
      if (isStarved()) {
        capture();
      } else {
        sendNext();
      }
    } else if ((markIsDue_ || frames_ != 0) && publication_.isComplete) {
      sendMark(makeMark());
    } else {
      return;
    }
  }
}

/// Tells of one table after the other, until none has anything new.
bool PublisherSession::sendNext() {
  for (std::size_t i = 0; i < feeds_.size(); ++i) {
    turn_ %= feeds_.size();
    Feed& feed = *feeds_[turn_];
    if (feed.isBehind() && sendChange(feed)) return true;
    ++turn_;
  }
  return false;
}

bool PublisherSession::sendChange(Feed& feed) {
  feed.begin();
  if (feed.wholes() != feed.wholesTold) {
    feed.wholesTold = feed.wholes();
    out_.push(FrameWriter(FrameType::whole, feed.number).take());
    ++frames_;
    return true;
  }
  std::vector<oid_t> gone;
  TableStore::Cursor::Told told;
  bool isTold = false;
  while (gone.size() < maxOidsOfDel && (isTold = feed.next(told)) && told.after == nullptr) {
    gone.push_back(told.oid);
  }
  if (!gone.empty()) pushOids(feed.number, gone);
  if (isTold && told.after != nullptr) {
    out_.pushRow(feed.number, std::move(told.after));
    ++frames_;
    ++rows_;
  }
  return isTold || !gone.empty();
}

void PublisherSession::pushOids(std::uint16_t table, std::span<const oid_t> oids) {
  FrameWriter frame(FrameType::del, table);
  for (const oid_t oid : oids) frame.number(oid);
  out_.push(frame.take());
  ++frames_;
}

/// A table that changes faster than it is sent would never come to a mark.
bool PublisherSession::isStarved() const {
  if (!publication_.isComplete) return false;
  std::uint64_t rows = 0;
  for (const auto& feed : feeds_) rows += feed->store()->size();
  return rows_ > 2 * rows || (roundAge_ >= roundLimit && frames_ != 0);
}

/// Keeps what is left to tell as it stands now: no more than all rows, and their bytes are shared.
void PublisherSession::capture() {
  TableStore::Cursor::Told told;
  for (const auto& feed : feeds_) {
    feed->begin();
    if (feed->wholes() != feed->wholesTold) {
      feed->wholesTold = feed->wholes();
      out_.push(FrameWriter(FrameType::whole, feed->number).take());
      ++frames_;
    }
    while (feed->next(told)) {
      captured_.push_back({feed->number, told.oid, std::move(told.after)});
    }
  }
  capturedMark_ = makeMark();
}

void PublisherSession::sendCaptured() {
  if (capturedSent_ < captured_.size()) {
    Captured& row = captured_[capturedSent_++];
    if (feedOf(row.table) == nullptr) return;  // refused meanwhile
    if (row.row == nullptr) {
      pushOids(row.table, {&row.oid, 1});
    } else {
      out_.pushRow(row.table, std::move(row.row));
      ++frames_;
    }
    return;
  }
  captured_ = {};
  capturedSent_ = 0;
  sendMark(*std::exchange(capturedMark_, std::nullopt));
}

Mark PublisherSession::makeMark() {
  Mark mark;
  mark.sequence = publication_.source->last;
  mark.merged = batches_ > 1 ? batches_ - 1 : 0;
  batches_ = 0;
  for (const auto& feed : feeds_) {
    mark.tables.push_back({feed->number, feed->store()->size(), feed->store()->digest()});
  }
  return mark;
}

void PublisherSession::sendMark(Mark mark) {
  std::erase_if(mark.tables,
                [this](const Mark::Table& table) { return feedOf(table.number) == nullptr; });
  mark.frames = frames_;
  out_.push(mark.encode());
  merged_ += mark.merged;
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
  if (frames_ != 0 || isBehind()) roundAge_ += time;
  if (silence_ >= heartbeatsOfSilence * heartbeat_) {
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
  feeds_.clear();
  captured_.clear();
  capturedMark_.reset();
  out_.dropUnbegun();
  out_.push(Bye{reason, text}.encode());
}

std::vector<std::string> PublisherSession::tables() const {
  std::vector<std::string> names;
  for (const auto& feed : feeds_) {
    if (feed->store() != nullptr) names.push_back(feed->store()->name());
  }
  return names;
}

}  // namespace Korvo::detail
