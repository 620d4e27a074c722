#include "SubscriberSession.h"

#include <algorithm>
#include <utility>

namespace Korvo::detail {

namespace {

constexpr int heartbeatsOfSilence = 3;
/// Notes beyond it are not sent; the publisher learns their number.
constexpr std::size_t mostUnsent = 256 * 1024;
constexpr milliseconds longestHeartbeat = std::chrono::minutes(10);

}  // namespace

SubscriberSession::SubscriberSession(TableCopies& copies, const std::string& name,
                                     milliseconds heartbeat)
    : copies_(copies), heartbeat_(heartbeat) {
  copies_.begin(*this);
  Hello hello;
  hello.heartbeat = static_cast<std::uint32_t>(heartbeat.count());
  hello.name = name;
  for (std::size_t i = 0; i < copies_.size(); ++i) {
    const TableStore& table = *copies_.store(i);
    const TablePosition position = copies_.position(i);
    hello.tables.push_back({static_cast<std::uint16_t>(i), table.name(), table.layout().rowType,
                            fingerprint(table.layout()), position.history, position.sequence});
  }
  out_.push(hello.encode());
}

// ---------------------------------------------------------------------------------------------
// What comes

void SubscriberSession::receive(std::span<const byte_t> bytes) {
  if (!bytes.empty()) silence_ = milliseconds(0);
  if (isOver_) return;
  try {
    reader_.feed(bytes, [this](const Frame& frame) { return take(frame); });
  } catch (const TableFault& fault) {
    copies_.fault(fault.what());
    end(ByeReason::protocol, fault.what());
  }
}

std::size_t SubscriberSession::tableOf(const Frame& frame) {
  if (frame.table >= copies_.size()) {
    throw ProtocolError("table number " + std::to_string(frame.table));
  }
  ++frames_;
  return frame.table;
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
    return true;
  }
  switch (static_cast<FrameType>(frame.type)) {
    case FrameType::whole:
      copies_.whole(tableOf(frame));
      return true;
    case FrameType::row:
      copies_.row(tableOf(frame), frame.body);
      return true;
    case FrameType::del: {
      const std::size_t table = tableOf(frame);
      if (frame.body.size() % sizeof(oid_t) != 0) throw ProtocolError("half an oid");
      for (std::size_t at = 0; at < frame.body.size(); at += sizeof(oid_t)) {
        copies_.remove(table, loadField<oid_t>(frame.body.data() + at));
      }
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
  copies_.publisherIs(welcome.name, welcome.epoch);
  heartbeat_ = std::max(heartbeat_, std::min(milliseconds(welcome.heartbeat), longestHeartbeat));
  for (std::size_t i = 0; i < copies_.size(); ++i) {
    const TablePosition position = copies_.position(i);
    if (position.history != welcome.epoch || position.sequence <= welcome.head) continue;
    copies_.tell({"", std::nullopt,
                  "the history of " + welcome.name + " ends at " + std::to_string(welcome.head) +
                      ", before " + std::to_string(position.sequence) + ": all rows are told"});
    break;
  }
  std::vector<bool> isAnswered(copies_.size());
  for (const Welcome::Table& table : welcome.tables) {
    if (table.number >= copies_.size() || isAnswered[table.number]) {
      throw ProtocolError("table number " + std::to_string(table.number));
    }
    isAnswered[table.number] = true;
    if (table.isAccepted) {
      copies_.accept(table.number, table.layout, table.layoutText);
    } else {
      copies_.refuse(table.number, table.refusal);
    }
  }
  if (!std::ranges::all_of(isAnswered, std::identity())) {
    throw ProtocolError("a table is left out");
  }
}

void SubscriberSession::takeMark(const Mark& mark) {
  if (mark.frames != frames_) {
    throw ProtocolError("a mark of " + std::to_string(mark.frames) + " frames behind " +
                        std::to_string(frames_));
  }
  const std::string difference = copies_.mark(mark);
  if (!difference.empty()) return end(ByeReason::digest, difference);
  frames_ = 0;
  ackIsDue_ = true;
}

// ---------------------------------------------------------------------------------------------
// What goes

void SubscriberSession::rowIsRefused(std::uint16_t table, oid_t oid, const std::string& reason) {
  ackIsDue_ = true;
  if (out_.size() < mostUnsent) out_.push(Note{table, oid, reason}.encode());
}

void SubscriberSession::tableIsRefused(std::uint16_t table, const std::string& reason) {
  out_.push(encodeRefuse(table, reason));
}

void SubscriberSession::received() {
  // Behind what waits still, the last one will do: a publisher that reads nothing makes none wait.
  if (isOver_ || !out_.empty() || !std::exchange(ackIsDue_, false)) return;
  out_.push(Ack{copies_.marked(), copies_.counts().refusedRows}.encode());
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
