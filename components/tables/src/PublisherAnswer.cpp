#include "PublisherAnswer.h"

#include <utility>

#include "TableWalk.h"

namespace Korvo::detail {

namespace {

/// Beyond it an answer is not believed.
constexpr std::size_t mostBytes = std::size_t{64} << 20;
/// What a SUBSCRIBER_INFO holds beside the names of tables.
constexpr std::size_t subscriberReserve = 1024;

std::vector<byte_t> tableFrame(const TableStore& table) {
  FrameWriter frame(FrameType::tableInfo);
  frame.text(table.name());
  frame.number(std::uint64_t{table.size()});
  frame.number(table.sequence());
  frame.bytes(fingerprint(table.layout()).bytes);
  const std::string text = layoutText(table.layout());
  const bool fits = frame.size() + sizeof(std::uint32_t) + text.size() <= maxLongFrame;
  frame.longText(fits ? text : "");
  return frame.take();
}

std::vector<byte_t> subscriberFrame(const TablePublisher::Subscriber& subscriber) {
  FrameWriter frame(FrameType::subscriberInfo);
  frame.text(subscriber.name);
  frame.number(subscriber.lag);
  frame.number(subscriber.merged);
  frame.number(subscriber.refused);
  frame.number(std::uint64_t{subscriber.unsent});
  frame.number(subscriber.lagRows);
  frame.number(subscriber.reconnects);
  frame.text(subscriber.lastReason);
  std::size_t bytes = subscriberReserve;
  std::uint16_t count = 0;
  for (const std::string& table : subscriber.tables) {
    bytes += 1 + table.size();
    if (bytes <= maxFrame) ++count;
  }
  frame.number(count);
  for (std::uint16_t i = 0; i < count; ++i) frame.text(subscriber.tables[i]);
  return frame.take();
}

}  // namespace

void PublisherAnswer::ask() {
  (isAsked_ ? isAskedAgain_ : isAsked_) = true;
}

bool PublisherAnswer::mayTell(const std::string& table) const {
  return !publication_.mayHave || publication_.mayHave(table, user_);
}

std::vector<byte_t> PublisherAnswer::next() {
  for (; table_ < publication_.tables.size(); ++table_) {
    const TableStore& table = *publication_.tables[table_];
    if (!mayTell(table.name())) continue;
    std::vector<byte_t> frame = tableFrame(table);
    ++table_;
    ++tables_;
    return frame;
  }
  const SubscriberList* const list = publication_.subscribers;
  if (auto subscriber = list->subscriberBehind(subscriber_)) {
    std::erase_if(subscriber->tables, [this](const std::string& name) { return !mayTell(name); });
    ++subscribers_;
    return subscriberFrame(*subscriber);
  }
  FrameWriter frame(FrameType::publisherInfo);
  frame.number(publication_.epoch);
  frame.number(publication_.source->last);
  frame.number(static_cast<byte_t>(publication_.isComplete));
  frame.number(tables_);
  frame.number(subscribers_);
  frame.text(list->lastReasonOfAll());
  std::vector<byte_t> bytes = frame.take();
  isAsked_ = std::exchange(isAskedAgain_, false);
  table_ = 0;
  tables_ = 0;
  subscriber_ = 0;
  subscribers_ = 0;
  return bytes;
}

void AnswerReader::weigh(std::size_t bytes) {
  weight_ += bytes + sizeof(TablePublisher::Subscriber);
  if (weight_ > mostBytes) throw ProtocolError("an answer of more than 64 MiB");
}

bool AnswerReader::take(const Frame& frame) {
  BodyReader body(frame.body);
  switch (static_cast<FrameType>(frame.type)) {
    case FrameType::tableInfo: {
      weigh(frame.body.size());
      PublisherInfo::Table table;
      table.name = body.text();
      table.rows = body.number<std::uint64_t>();
      table.sequence = body.number<std::uint64_t>();
      const auto print = body.bytes(table.fingerprint.bytes.size());
      std::copy(print.begin(), print.end(), table.fingerprint.bytes.begin());
      table.layoutText = body.longText();
      info.tables.push_back(std::move(table));
      return false;
    }
    case FrameType::subscriberInfo: {
      weigh(frame.body.size());
      TablePublisher::Subscriber subscriber;
      subscriber.name = body.text();
      subscriber.lag = body.number<std::uint64_t>();
      subscriber.merged = body.number<std::uint64_t>();
      subscriber.refused = body.number<std::uint64_t>();
      subscriber.unsent = static_cast<std::size_t>(body.number<std::uint64_t>());
      subscriber.lagRows = body.number<std::uint64_t>();
      subscriber.reconnects = body.number<std::uint64_t>();
      subscriber.lastReason = body.text();
      const auto count = body.number<std::uint16_t>();
      if (count > maxTables) throw ProtocolError(std::to_string(count) + " tables");
      for (std::uint16_t i = 0; i < count; ++i) {
        weigh(0);
        subscriber.tables.push_back(body.text());
      }
      info.subscribers.push_back(std::move(subscriber));
      return false;
    }
    case FrameType::publisherInfo:
      info.epoch = body.number<std::uint64_t>();
      info.sequence = body.number<std::uint64_t>();
      info.isComplete = body.number<byte_t>() != 0;
      if (body.number<std::uint64_t>() != info.tables.size() ||
          body.number<std::uint64_t>() != info.subscribers.size()) {
        throw ProtocolError("a part of the answer is missing");
      }
      info.lastReason = body.text();
      return true;
    default:
      return false;
  }
}

}  // namespace Korvo::detail
