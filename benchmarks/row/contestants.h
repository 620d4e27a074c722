#pragma once

// The benchmarks' row as each contestant holds it. Every builder keeps its memory from row to row;
// every read() takes finished rows and sums up the same values in place.

#include "sample.h"

#include <Korvo/TableRow.h>

#include <capnp/message.h>
#include <capnp/serialize.h>

#include <cstring>
#include <memory>
#include <span>

#include "row.capnp.h"
#include "row.pb.h"
#include "row_generated.h"

namespace bench {

/// Bytes in an allocation of their own, of exactly their size.
struct OwnBytes {
  std::unique_ptr<std::uint8_t[]> data;
  std::size_t size = 0;

  OwnBytes() = default;
  explicit OwnBytes(std::span<const std::uint8_t> bytes)
      : data(new std::uint8_t[bytes.size()]), size(bytes.size()) {
    std::memcpy(data.get(), bytes.data(), size);
  }
};

// ---------------------------------------------------------------------------------------------
// This library

struct LinkLayout
    : Korvo::RowLayout<2,  //
                       Korvo::Column<"number", std::uint32_t>, Korvo::Column<"name", std::string>> {
};
using KorvoLink = Korvo::TableRow<LinkLayout>;

struct RowLayout : Korvo::RowLayout<1,                                           //
                                    Korvo::Column<"id", std::uint32_t>,          //
                                    Korvo::Column<"counter", std::uint64_t>,     //
                                    Korvo::Column<"up", bool>,                   //
                                    Korvo::Column<"name8", std::string>,         //
                                    Korvo::Column<"name24", std::string>,        //
                                    Korvo::Column<"name60", std::string>,        //
                                    Korvo::Column<"address", Korvo::IpGenAddr>,  //
                                    Korvo::Column<"prefix", Korvo::IpGenPrefix>,
                                    Korvo::Column<"tags", std::vector<std::string>>,
                                    Korvo::Column<"link", Korvo::Nested<LinkLayout>>> {};
using KorvoRow = Korvo::TableRow<RowLayout>;

class KorvoBuilder {
 public:
  KorvoBuilder() { link_.create(); }

  /// Sets every column of a row that is new or cleared, by itself or by its writer.
  template <typename RowOrWriter>
  void fill(RowOrWriter& row, const Sample& sample) {
    link_.clearRow();
    link_.set<"number">(sample.linkNumber);
    link_.set<"name">(sample.linkName);
    row.template set<"id">(sample.id);
    row.template set<"counter">(sample.counter);
    row.template set<"up">(sample.up);
    row.template set<"name8">(sample.name8);
    row.template set<"name24">(sample.name24);
    row.template set<"name60">(sample.name60);
    row.template set<"address">(sample.address);
    row.template set<"prefix">(sample.prefix);
    row.template set<"tags">(sample.tags);
    row.template set<"link">(link_);
  }
  /// A row that grows with each column, or has room for them all from the start.
  KorvoRow build(const Sample& sample, std::size_t valueBytes = 0) {
    KorvoRow row;
    row.create(0, valueBytes);
    fill(row, sample);
    return row;
  }
  KorvoRow buildWithWriter(const Sample& sample) {
    KorvoRow row;
    row.create();
    {
      auto writer = row.writer();
      fill(writer, sample);
    }
    return row;
  }
  /// What the values of every sample take.
  static std::size_t valueBytes() {
    return KorvoBuilder().build(someSamples()[0]).rowLength() - std::size_t{RowLayout::baseLength};
  }

 private:
  KorvoLink link_;
};

inline std::uint64_t read(const KorvoRow& row) {
  Sum sum;
  sum.number(row.get<"id">());
  sum.number(row.get<"counter">());
  sum.number(row.get<"up">() ? 1 : 0);
  const auto text = [&](const Korvo::StringValueReference& value) {
    sum.text(value.data(), value.size());
  };
  text(row.view<"name8">());
  text(row.view<"name24">());
  text(row.view<"name60">());
  sum.number(Korvo::loadField<std::uint32_t>(row.view<"address">().addr()));
  const auto prefix = row.view<"prefix">();
  sum.number(Korvo::loadField<std::uint32_t>(prefix.addr()));
  sum.number(prefix.mask());
  for (const auto& tag : row.view<"tags">()) text(tag);
  const auto link = row.view<"link">();
  sum.number(link.get<"number">());
  text(link.view<"name">());
  return sum.value();
}

// ---------------------------------------------------------------------------------------------
// FlatBuffers

class FlatBuilder {
 public:
  std::span<const std::uint8_t> build(const Sample& sample) { return build(sample, sample.name24); }
  std::span<const std::uint8_t> build(const Sample& sample, const std::string& name24) {
    builder_.Clear();
    const auto name8Offset = text(sample.name8);
    const auto name24Offset = text(name24);
    const auto name60Offset = text(sample.name60);
    flatbuffers::Offset<flatbuffers::String> tags[4];
    for (std::size_t i = 0; i < 4; ++i) tags[i] = text(sample.tags[i]);
    const auto tagsOffset = builder_.CreateVector(tags, 4);
    const auto linkOffset = flat::CreateLink(builder_, sample.linkNumber, text(sample.linkName));
    const flat::Prefix prefix(sample.prefixWord, sample.prefixLength);
    return finish(flat::CreateRow(builder_, sample.id, sample.counter, sample.up, name8Offset,
                                  name24Offset, name60Offset, sample.addressWord, &prefix,
                                  tagsOffset, linkOffset));
  }
  /// The same row with another text: what a longer text takes, as a finished row does not grow.
  std::span<const std::uint8_t> rebuild(const std::uint8_t* bytes, const std::string& name24) {
    const flat::Row& row = *flat::GetRow(bytes);
    builder_.Clear();
    const auto name8Offset = copy(row.name8());
    const auto name24Offset = text(name24);
    const auto name60Offset = copy(row.name60());
    flatbuffers::Offset<flatbuffers::String> tags[4];
    for (unsigned int i = 0; i < 4; ++i) tags[i] = copy(row.tags()->Get(i));
    const auto tagsOffset = builder_.CreateVector(tags, 4);
    const auto linkOffset =
        flat::CreateLink(builder_, row.link()->number(), copy(row.link()->name()));
    return finish(flat::CreateRow(builder_, row.id(), row.counter(), row.up(), name8Offset,
                                  name24Offset, name60Offset, row.address(), row.prefix(),
                                  tagsOffset, linkOffset));
  }

 private:
  flatbuffers::Offset<flatbuffers::String> text(const std::string& value) {
    return builder_.CreateString(value.data(), value.size());
  }
  flatbuffers::Offset<flatbuffers::String> copy(const flatbuffers::String* value) {
    return builder_.CreateString(value->c_str(), value->size());
  }
  std::span<const std::uint8_t> finish(flatbuffers::Offset<flat::Row> row) {
    builder_.Finish(row);
    return {builder_.GetBufferPointer(), builder_.GetSize()};
  }

  flatbuffers::FlatBufferBuilder builder_;
};

inline std::uint64_t readFlat(const std::uint8_t* bytes) {
  const flat::Row& row = *flat::GetRow(bytes);
  Sum sum;
  sum.number(row.id());
  sum.number(row.counter());
  sum.number(row.up() ? 1 : 0);
  const auto text = [&](const flatbuffers::String* value) {
    sum.text(value->c_str(), value->size());
  };
  text(row.name8());
  text(row.name24());
  text(row.name60());
  sum.number(row.address());
  sum.number(row.prefix()->address());
  sum.number(row.prefix()->length());
  for (const flatbuffers::String* tag : *row.tags()) text(tag);
  sum.number(row.link()->number());
  text(row.link()->name());
  return sum.value();
}

// ---------------------------------------------------------------------------------------------
// Cap'n Proto

class CapnBuilder {
 public:
  /// Calls `use` with the row's words, which are gone afterwards.
  template <typename Use>
  void build(const Sample& sample, const Use& use) {
    // Building asks for zeroed memory; the message clears behind itself what it has used.
    capnp::MallocMessageBuilder message(kj::arrayPtr(words_, std::size(words_)));
    fill(message.initRoot<capnproto::Row>(), sample);
    const auto segments = message.getSegmentsForOutput();
    if (segments.size() != 1) throw std::length_error("more than one segment");
    use(segments[0]);
  }
  static void fill(capnproto::Row::Builder row, const Sample& sample) {
    row.setId(sample.id);
    row.setCounter(sample.counter);
    row.setUp(sample.up);
    row.setName8(text(sample.name8));
    row.setName24(text(sample.name24));
    row.setName60(text(sample.name60));
    row.setAddress(sample.addressWord);
    row.setPrefixAddress(sample.prefixWord);
    row.setPrefixLength(sample.prefixLength);
    auto tags = row.initTags(4);
    for (unsigned int i = 0; i < 4; ++i) tags.set(i, text(sample.tags[i]));
    auto link = row.initLink();
    link.setNumber(sample.linkNumber);
    link.setName(text(sample.linkName));
  }
  static capnp::Text::Reader text(const std::string& value) {
    return {value.c_str(), value.size()};
  }

 private:
  capnp::word words_[128] = {};
};

inline std::uint64_t read(const capnproto::Row::Reader& row) {
  Sum sum;
  sum.number(row.getId());
  sum.number(row.getCounter());
  sum.number(row.getUp() ? 1 : 0);
  const auto text = [&](const capnp::Text::Reader& value) {
    sum.text(value.begin(), value.size());
  };
  text(row.getName8());
  text(row.getName24());
  text(row.getName60());
  sum.number(row.getAddress());
  sum.number(row.getPrefixAddress());
  sum.number(row.getPrefixLength());
  for (const auto tag : row.getTags()) text(tag);
  const auto link = row.getLink();
  sum.number(link.getNumber());
  text(link.getName());
  return sum.value();
}
/// Opens the message and reads it.
inline std::uint64_t readCapn(kj::ArrayPtr<const capnp::word> words) {
  const kj::ArrayPtr<const capnp::word> segments[] = {words};
  capnp::SegmentArrayMessageReader message(kj::arrayPtr(segments, 1));
  return read(message.getRoot<capnproto::Row>());
}

// ---------------------------------------------------------------------------------------------
// Protocol Buffers

class ProtoBuilder {
 public:
  std::span<const std::uint8_t> build(const Sample& sample) {
    row_.Clear();
    fill(row_, sample);
    return serialize(row_);
  }
  std::span<const std::uint8_t> serialize(const proto::Row& row) {
    const std::size_t size = row.ByteSizeLong();
    if (size > sizeof bytes_) throw std::length_error("row too long");
    row.SerializeWithCachedSizesToArray(bytes_);
    return {bytes_, size};
  }
  static void fill(proto::Row& row, const Sample& sample) {
    row.set_id(sample.id);
    row.set_counter(sample.counter);
    row.set_up(sample.up);
    row.set_name8(sample.name8);
    row.set_name24(sample.name24);
    row.set_name60(sample.name60);
    row.set_address(sample.addressWord);
    row.set_prefix_address(sample.prefixWord);
    row.set_prefix_length(sample.prefixLength);
    for (const std::string& tag : sample.tags) row.add_tags(tag);
    row.mutable_link()->set_number(sample.linkNumber);
    row.mutable_link()->set_name(sample.linkName);
  }

 private:
  proto::Row row_;
  std::uint8_t bytes_[1024];
};

/// Protocol Buffers are not read in place: the bytes are parsed into a message that is kept.
class ProtoReader {
 public:
  std::uint64_t read(std::span<const std::uint8_t> bytes) {
    if (!row_.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
      throw std::invalid_argument("not a row");
    }
    Sum sum;
    sum.number(row_.id());
    sum.number(row_.counter());
    sum.number(row_.up() ? 1 : 0);
    const auto text = [&](const std::string& value) { sum.text(value.data(), value.size()); };
    text(row_.name8());
    text(row_.name24());
    text(row_.name60());
    sum.number(row_.address());
    sum.number(row_.prefix_address());
    sum.number(row_.prefix_length());
    for (const std::string& tag : row_.tags()) text(tag);
    sum.number(row_.link().number());
    text(row_.link().name());
    return sum.value();
  }

 private:
  proto::Row row_;
};

// ---------------------------------------------------------------------------------------------
// A plain struct, serialised by hand: numbers as they are, texts behind 16 bits of their length

struct PlainLink {
  std::uint32_t number = 0;
  std::string name;
};
struct PlainRow {
  std::uint32_t id = 0;
  std::uint64_t counter = 0;
  bool up = false;
  std::string name8;
  std::string name24;
  std::string name60;
  std::uint32_t address = 0;
  std::uint32_t prefixAddress = 0;
  std::uint8_t prefixLength = 0;
  std::vector<std::string> tags;
  PlainLink link;

  void fill(const Sample& sample) {
    id = sample.id;
    counter = sample.counter;
    up = sample.up;
    name8 = sample.name8;
    name24 = sample.name24;
    name60 = sample.name60;
    address = sample.addressWord;
    prefixAddress = sample.prefixWord;
    prefixLength = sample.prefixLength;
    tags = sample.tags;
    link.number = sample.linkNumber;
    link.name = sample.linkName;
  }
};

class PlainWriter {
 public:
  std::span<const std::uint8_t> write(const PlainRow& row) {
    to_ = bytes_;
    number(row.id);
    number(row.counter);
    number(row.up);
    text(row.name8);
    text(row.name24);
    text(row.name60);
    number(row.address);
    number(row.prefixAddress);
    number(row.prefixLength);
    number(static_cast<std::uint16_t>(row.tags.size()));
    for (const std::string& tag : row.tags) text(tag);
    number(row.link.number);
    text(row.link.name);
    return {bytes_, static_cast<std::size_t>(to_ - bytes_)};
  }

 private:
  template <typename Number>
  void number(Number value) {
    std::memcpy(to_, &value, sizeof value);
    to_ += sizeof value;
  }
  void text(const std::string& value) {
    number(static_cast<std::uint16_t>(value.size()));
    std::memcpy(to_, value.data(), value.size());
    to_ += value.size();
  }

  std::uint8_t bytes_[1024];
  std::uint8_t* to_ = nullptr;
};

/// Walks over the serialised bytes.
class PlainReader {
 public:
  static std::uint64_t read(const std::uint8_t* bytes) {
    PlainReader reader;
    reader.at_ = bytes;
    reader.number<std::uint32_t>();
    reader.number<std::uint64_t>();
    reader.number<bool>();
    for (int i = 0; i < 3; ++i) reader.text();
    reader.number<std::uint32_t>();
    reader.number<std::uint32_t>();
    reader.number<std::uint8_t>();
    for (auto count = reader.load<std::uint16_t>(); count != 0; --count) reader.text();
    reader.number<std::uint32_t>();
    reader.text();
    return reader.sum_.value();
  }

 private:
  template <typename Number>
  Number load() {
    const auto value = Korvo::loadField<Number>(at_);
    at_ += sizeof value;
    return value;
  }
  template <typename Number>
  void number() {
    sum_.number(load<Number>());
  }
  void text() {
    const auto size = load<std::uint16_t>();
    sum_.text(reinterpret_cast<const char*>(at_), size);
    at_ += size;
  }

  const std::uint8_t* at_ = nullptr;
  Sum sum_;
};

// ---------------------------------------------------------------------------------------------
// The limit: a struct of which every field has its place, for rows of exactly these lengths

struct FixedRow {
  std::uint32_t id;
  std::uint64_t counter;
  bool up;
  char name8[8];
  char name24[24];
  char name60[60];
  std::uint32_t address;
  std::uint32_t prefixAddress;
  std::uint8_t prefixLength;
  char tags[4][12];
  std::uint32_t linkNumber;
  char linkName[10];

  void fill(const Sample& sample) {
    id = sample.id;
    counter = sample.counter;
    up = sample.up;
    std::memcpy(name8, sample.name8.data(), sizeof name8);
    std::memcpy(name24, sample.name24.data(), sizeof name24);
    std::memcpy(name60, sample.name60.data(), sizeof name60);
    address = sample.addressWord;
    prefixAddress = sample.prefixWord;
    prefixLength = sample.prefixLength;
    for (std::size_t i = 0; i < 4; ++i) std::memcpy(tags[i], sample.tags[i].data(), 12);
    linkNumber = sample.linkNumber;
    std::memcpy(linkName, sample.linkName.data(), sizeof linkName);
  }
};

inline std::uint64_t read(const FixedRow& row) {
  Sum sum;
  sum.number(row.id);
  sum.number(row.counter);
  sum.number(row.up ? 1 : 0);
  sum.text(row.name8, sizeof row.name8);
  sum.text(row.name24, sizeof row.name24);
  sum.text(row.name60, sizeof row.name60);
  sum.number(row.address);
  sum.number(row.prefixAddress);
  sum.number(row.prefixLength);
  for (const auto& tag : row.tags) sum.text(tag, sizeof tag);
  sum.number(row.linkNumber);
  sum.text(row.linkName, sizeof row.linkName);
  return sum.value();
}

}  // namespace bench
