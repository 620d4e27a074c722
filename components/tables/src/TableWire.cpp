#include "TableWire.h"

#include <Korvo/rowCheck.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Korvo::detail {

// ---------------------------------------------------------------------------------------------
// Frames

std::size_t FrameReader::frameLength(const byte_t* head) {
  const auto length = loadField<std::uint32_t>(head);
  const byte_t type = head[lengthFieldLength];
  const bool isLong = type == static_cast<byte_t>(FrameType::hello) ||
                      type == static_cast<byte_t>(FrameType::welcome) ||
                      type == static_cast<byte_t>(FrameType::tableInfo);
  if (length < frameHeadLength - lengthFieldLength || length > (isLong ? maxLongFrame : maxFrame)) {
    throw ProtocolError("frame of " + std::to_string(length) + " bytes");
  }
  return lengthFieldLength + length;
}

Frame FrameReader::frame(std::span<const byte_t> bytes) {
  return {bytes[lengthFieldLength], loadField<std::uint16_t>(bytes.data() + 6),
          bytes.subspan(frameHeadLength)};
}

bool FrameReader::complete(std::span<const byte_t>& bytes) {
  const auto take = [&](std::size_t length) {
    const std::size_t count = std::min(bytes.size(), length - begun_.size());
    begun_.insert(begun_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
    bytes = bytes.subspan(count);
    return begun_.size() == length;
  };
  if (begun_.size() < frameHeadLength) {
    if (!take(frameHeadLength)) return false;
    begun_.reserve(frameLength(begun_.data()));
  }
  return take(frameLength(begun_.data()));
}

FrameWriter::FrameWriter(FrameType type, std::uint16_t table) {
  number(std::uint32_t{0});
  number(static_cast<byte_t>(type));
  number(byte_t{0});
  number(table);
}

void FrameWriter::text(std::string_view text) {
  text = text.substr(0, maxText);
  number(static_cast<byte_t>(text.size()));
  bytes_.insert(bytes_.end(), text.begin(), text.end());
}

void FrameWriter::longText(std::string_view text) {
  number(static_cast<std::uint32_t>(text.size()));
  bytes_.insert(bytes_.end(), text.begin(), text.end());
}

void FrameWriter::bytes(std::span<const byte_t> bytes) {
  bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::vector<byte_t> FrameWriter::take() {
  storeField(bytes_.data(), static_cast<std::uint32_t>(bytes_.size() - lengthFieldLength));
  return std::move(bytes_);
}

std::span<const byte_t> BodyReader::bytes(std::size_t count) {
  if (count > rest_.size()) throw ProtocolError("frame too short");
  const std::span<const byte_t> taken = rest_.first(count);
  rest_ = rest_.subspan(count);
  return taken;
}

void BodyReader::end() const {
  if (!rest_.empty()) throw ProtocolError("frame too long");
}

// ---------------------------------------------------------------------------------------------
// Messages

namespace {

LayoutFingerprint readFingerprint(BodyReader& body) {
  LayoutFingerprint fingerprint;
  const std::span<const byte_t> bytes = body.bytes(fingerprint.bytes.size());
  std::copy(bytes.begin(), bytes.end(), fingerprint.bytes.begin());
  return fingerprint;
}

std::uint16_t readTableCount(BodyReader& body) {
  const auto count = body.number<std::uint16_t>();
  if (count > maxTables) throw ProtocolError(std::to_string(count) + " tables");
  return count;
}

}  // namespace

std::vector<byte_t> Hello::encode() const {
  FrameWriter frame(FrameType::hello);
  frame.bytes({reinterpret_cast<const byte_t*>(wireMagic.data()), wireMagic.size()});
  frame.number(protocolMin);
  frame.number(protocolMax);
  frame.number(features);
  frame.number(heartbeat);
  frame.text(name);
  frame.number(static_cast<std::uint16_t>(tables.size()));
  for (const Table& table : tables) {
    frame.number(table.number);
    frame.text(table.name);
    frame.number(table.rowType);
    frame.bytes(table.layout.bytes);
    frame.number(table.epoch);
    frame.number(table.sequence);
  }
  return frame.take();
}

Hello Hello::decode(std::span<const byte_t> body) {
  BodyReader reader(body);
  const std::span<const byte_t> magic = reader.bytes(wireMagic.size());
  if (!std::equal(magic.begin(), magic.end(), wireMagic.begin(), wireMagic.end())) {
    throw ProtocolError("not a subscriber");
  }
  Hello hello;
  hello.protocolMin = reader.number<std::uint16_t>();
  hello.protocolMax = reader.number<std::uint16_t>();
  // What follows may look otherwise in a protocol that is not known.
  if (hello.protocolMin > detail::protocolMax || hello.protocolMax < detail::protocolMin) {
    return hello;
  }
  hello.features = reader.number<std::uint32_t>();
  hello.heartbeat = reader.number<std::uint32_t>();
  hello.name = reader.text();
  const std::uint16_t count = readTableCount(reader);
  for (std::uint16_t i = 0; i < count; ++i) {
    Table table;
    table.number = reader.number<std::uint16_t>();
    table.name = reader.text();
    table.rowType = reader.number<std::uint16_t>();
    table.layout = readFingerprint(reader);
    table.epoch = reader.number<std::uint64_t>();
    table.sequence = reader.number<std::uint64_t>();
    if (std::ranges::find(hello.tables, table.number, &Table::number) != hello.tables.end()) {
      throw ProtocolError("a table number twice");
    }
    if (std::ranges::find(hello.tables, table.name, &Table::name) != hello.tables.end()) {
      throw ProtocolError("a table twice");
    }
    hello.tables.push_back(std::move(table));
  }
  reader.end();
  return hello;
}

std::vector<byte_t> Welcome::encode() const {
  FrameWriter frame(FrameType::welcome);
  frame.number(protocol);
  frame.number(features);
  frame.number(heartbeat);
  frame.text(name);
  frame.number(epoch);
  frame.number(head);
  frame.number(static_cast<std::uint16_t>(tables.size()));
  for (const Table& table : tables) {
    frame.number(table.number);
    frame.number(static_cast<byte_t>(table.isAccepted));
    frame.text(table.refusal);
    frame.bytes(table.layout.bytes);
    frame.longText(table.layoutText);
  }
  return frame.take();
}

Welcome Welcome::decode(std::span<const byte_t> body) {
  BodyReader reader(body);
  Welcome welcome;
  welcome.protocol = reader.number<std::uint16_t>();
  welcome.features = reader.number<std::uint32_t>();
  welcome.heartbeat = reader.number<std::uint32_t>();
  welcome.name = reader.text();
  welcome.epoch = reader.number<std::uint64_t>();
  welcome.head = reader.number<std::uint64_t>();
  const std::uint16_t count = readTableCount(reader);
  for (std::uint16_t i = 0; i < count; ++i) {
    Table table;
    table.number = reader.number<std::uint16_t>();
    table.isAccepted = reader.number<byte_t>() != 0;
    table.refusal = reader.text();
    table.layout = readFingerprint(reader);
    table.layoutText = reader.longText();
    welcome.tables.push_back(std::move(table));
  }
  reader.end();
  return welcome;
}

std::vector<byte_t> Mark::encode() const {
  FrameWriter frame(FrameType::mark);
  frame.number(sequence);
  frame.number(frames);
  frame.number(merged);
  frame.number(static_cast<std::uint16_t>(tables.size()));
  for (const Table& table : tables) {
    frame.number(table.number);
    frame.number(table.rows);
    frame.number(table.digest);
  }
  return frame.take();
}

Mark Mark::decode(std::span<const byte_t> body) {
  BodyReader reader(body);
  Mark mark;
  mark.sequence = reader.number<std::uint64_t>();
  mark.frames = reader.number<std::uint64_t>();
  mark.merged = reader.number<std::uint64_t>();
  const std::uint16_t count = readTableCount(reader);
  for (std::uint16_t i = 0; i < count; ++i) {
    Table table;
    table.number = reader.number<std::uint16_t>();
    table.rows = reader.number<std::uint64_t>();
    table.digest = reader.number<std::uint64_t>();
    mark.tables.push_back(table);
  }
  reader.end();
  return mark;
}

std::vector<byte_t> Ack::encode() const {
  FrameWriter frame(FrameType::ack);
  frame.number(sequence);
  frame.number(refused);
  return frame.take();
}

Ack Ack::decode(std::span<const byte_t> body) {
  BodyReader reader(body);
  Ack ack;
  ack.sequence = reader.number<std::uint64_t>();
  ack.refused = reader.number<std::uint64_t>();
  reader.end();
  return ack;
}

std::vector<byte_t> Note::encode() const {
  FrameWriter frame(FrameType::note, table);
  frame.number(oid);
  frame.text(text);
  return frame.take();
}

Note Note::decode(const Frame& frame) {
  BodyReader reader(frame.body);
  Note note;
  note.table = frame.table;
  note.oid = reader.number<oid_t>();
  note.text = reader.text();
  reader.end();
  return note;
}

std::vector<byte_t> Bye::encode() const {
  FrameWriter frame(FrameType::bye);
  frame.number(static_cast<byte_t>(reason));
  frame.text(text);
  return frame.take();
}

Bye Bye::decode(std::span<const byte_t> body) {
  BodyReader reader(body);
  Bye bye;
  bye.reason = static_cast<ByeReason>(reader.number<byte_t>());
  bye.text = reader.text();
  reader.end();
  return bye;
}

std::vector<byte_t> encodeRefuse(std::uint16_t table, std::string_view text) {
  FrameWriter frame(FrameType::refuse, table);
  frame.text(text);
  return frame.take();
}

// ---------------------------------------------------------------------------------------------
// What waits for being sent

void OutQueue::push(std::span<const byte_t> frame) {
  bytes_.insert(bytes_.end(), frame.begin(), frame.end());
}

void OutQueue::pushRow(std::uint16_t table, const byte_t* row) {
  const std::size_t length = loadField<len_t>(row + rowLengthOffset);
  const std::size_t end = bytes_.size();
  bytes_.resize(end + frameHeadLength + length);
  byte_t* const head = bytes_.data() + end;
  storeField(head, static_cast<std::uint32_t>(frameHeadLength - lengthFieldLength + length));
  head[lengthFieldLength] = static_cast<byte_t>(FrameType::row);
  storeField(head + 6, table);
  std::memcpy(head + frameHeadLength, row, length);
}

std::size_t OutQueue::frameAt(std::size_t place) const {
  return lengthFieldLength + loadField<std::uint32_t>(bytes_.data() + place);
}

std::size_t OutQueue::wholeFrames() const {
  if (begun_ == bytes_.size()) return begun_;
  std::size_t end = 0;
  while (end + frameAt(end) <= begun_) end += frameAt(end);
  return end;
}

void OutQueue::sent(std::size_t count) {
  begun_ += count;
  const std::size_t whole = wholeFrames();
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(whole));
  begun_ -= whole;
}

void OutQueue::dropUnbegun() {
  if (begun_ == 0) return bytes_.clear();
  bytes_.resize(frameAt(0));
}

ByteStream::Result writeTo(ByteStream& stream, std::span<const byte_t> bytes) {
  // Nothing is written there.
  const iovec part{const_cast<byte_t*>(bytes.data()), bytes.size()};
  return stream.write(&part, 1);
}

}  // namespace Korvo::detail
