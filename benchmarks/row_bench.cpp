// What one row costs that stays in the processor's cache: building, reading in place, overwriting,
// sharing, hashing, checking, printing. Beside it the same row as other libraries hold it.
//
// Each benchmark is named workload/contestant; "korvo" is this library, "limit" a struct in which
// every field has its place. Before anything is measured, all contestants build the same rows and
// are read back.

#include "row/contestants.h"
#include "row/measure.h"

#include <Korvo/rowCheck.h>

#include <flatbuffers/flatbuffers.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <functional>
#include <sstream>
#include <vector>

namespace bench {
namespace {

using benchmark::DoNotOptimize;

using SampleRound = Round<16>;

const Sample& sampleAt(std::size_t index) {
  return someSamples()[index];
}

void checkContestants() {
  KorvoBuilder korvo;
  FlatBuilder flat;
  CapnBuilder capn;
  ProtoBuilder proto;
  ProtoReader protoReader;
  PlainWriter plain;
  for (const Sample& sample : someSamples()) {
    const std::uint64_t sum = sumOf(sample);
    const KorvoRow row = korvo.build(sample);
    require(read(row) == sum, "korvo");
    require(!Korvo::checkRow(row.rowBuf(), row.rowLength(), RowLayout::info), "korvo, checked");
    require(readFlat(flat.build(sample).data()) == sum, "flatbuffers");
    capn.build(sample, [&](auto words) { require(readCapn(words) == sum, "capnp"); });
    require(protoReader.read(proto.build(sample)) == sum, "protobuf");
    PlainRow plainRow;
    plainRow.fill(sample);
    require(PlainReader::read(plain.write(plainRow).data()) == sum, "struct");
    FixedRow fixed;
    fixed.fill(sample);
    require(read(fixed) == sum, "limit");
  }
}

// ---------------------------------------------------------------------------------------------
// Building

void addBuildReused() {
  const std::string workload = "row_build_reused/";
  add(workload + "korvo", [] {
    KorvoRow row;
    row.create();
    return [row, builder = KorvoBuilder(), round = SampleRound()]() mutable {
      row.clearRow();
      builder.fill(row, sampleAt(round.next()));
      DoNotOptimize(row.rowBuf());
      benchmark::ClobberMemory();
    };
  });
  add(workload + "flatbuffers", [] {
    return [builder = std::make_shared<FlatBuilder>(), round = SampleRound()]() mutable {
      DoNotOptimize(builder->build(sampleAt(round.next())).data());
      benchmark::ClobberMemory();
    };
  });
  add(workload + "capnp", [] {
    return [builder = CapnBuilder(), round = SampleRound()]() mutable {
      builder.build(sampleAt(round.next()), [](auto words) {
        DoNotOptimize(words.begin());
        benchmark::ClobberMemory();
      });
    };
  });
  add(workload + "protobuf", [] {
    return [builder = std::make_shared<ProtoBuilder>(), round = SampleRound()]() mutable {
      DoNotOptimize(builder->build(sampleAt(round.next())).data());
      benchmark::ClobberMemory();
    };
  });
  add(workload + "struct", [] {
    return [row = PlainRow(), writer = PlainWriter(), round = SampleRound()]() mutable {
      row.fill(sampleAt(round.next()));
      DoNotOptimize(writer.write(row).data());
      benchmark::ClobberMemory();
    };
  });
  add(workload + "limit", [] {
    return [row = FixedRow(), round = SampleRound()]() mutable {
      row.fill(sampleAt(round.next()));
      DoNotOptimize(&row);
      benchmark::ClobberMemory();
    };
  });
}

template <typename Build>
void addOwned(const std::string& name, Build build) {
  add(name, [build] {
    return [build, round = SampleRound()]() mutable {
      const auto row = build(sampleAt(round.next()));
      DoNotOptimize(&row);
      benchmark::ClobberMemory();
    };
  });
}

void addBuildOwnedPeers(const std::string& workload) {
  addOwned(workload + "flatbuffers", [builder = std::make_shared<FlatBuilder>()](const Sample& s) {
    return OwnBytes(builder->build(s));
  });
  addOwned(workload + "capnp", [builder = std::make_shared<CapnBuilder>()](const Sample& s) {
    OwnBytes row;
    builder->build(s, [&](auto words) {
      const auto bytes = words.asBytes();
      row = OwnBytes({bytes.begin(), bytes.size()});
    });
    return row;
  });
  addOwned(workload + "protobuf", [builder = std::make_shared<ProtoBuilder>()](const Sample& s) {
    return OwnBytes(builder->build(s));
  });
  addOwned(workload + "struct", [row = std::make_shared<PlainRow>(),
                                 writer = std::make_shared<PlainWriter>()](const Sample& s) {
    row->fill(s);
    return OwnBytes(writer->write(*row));
  });
  addOwned(workload + "limit", [](const Sample& s) {
    auto row = std::make_unique<FixedRow>();
    row->fill(s);
    return row;
  });
}

void addBuildOwned() {
  addOwned("row_build_grown/korvo", [builder = std::make_shared<KorvoBuilder>()](const Sample& s) {
    return builder->build(s);
  });
  addOwned("row_build_grown/korvo_writer",
           [builder = std::make_shared<KorvoBuilder>()](const Sample& s) {
             return builder->buildWithWriter(s);
           });
  addBuildOwnedPeers("row_build_grown/");
  addOwned("row_build_sized/korvo",
           [builder = std::make_shared<KorvoBuilder>(), valueBytes = KorvoBuilder::valueBytes()](
               const Sample& s) { return builder->build(s, valueBytes); });
  addBuildOwnedPeers("row_build_sized/");
}

// ---------------------------------------------------------------------------------------------
// Reading

/// Reads rows that `build` made.
template <typename Build, typename Read>
void addReading(const std::string& name, Build build, Read read) {
  add(name, [build, read] {
    std::vector<decltype(build(sampleAt(0)))> rows;
    for (const Sample& sample : someSamples()) rows.push_back(build(sample));
    return [rows = std::move(rows), read, round = SampleRound()]() mutable {
      const auto& row = rows[round.next()];
      DoNotOptimize(&row);
      benchmark::ClobberMemory();
      DoNotOptimize(read(row));
    };
  });
}

KorvoRow korvoRow(const Sample& sample) {
  return KorvoBuilder().build(sample);
}
OwnBytes flatRow(const Sample& sample) {
  return OwnBytes(FlatBuilder().build(sample));
}
std::shared_ptr<std::vector<capnp::word>> capnRow(const Sample& sample) {
  std::shared_ptr<std::vector<capnp::word>> row;
  CapnBuilder().build(sample, [&](auto words) {
    row = std::make_shared<std::vector<capnp::word>>(words.size());
    std::memcpy(row->data(), words.begin(), words.size() * sizeof(capnp::word));
  });
  return row;
}
OwnBytes protoRow(const Sample& sample) {
  return OwnBytes(ProtoBuilder().build(sample));
}
PlainRow plainRow(const Sample& sample) {
  PlainRow row;
  row.fill(sample);
  return row;
}
OwnBytes plainBytes(const Sample& sample) {
  return OwnBytes(PlainWriter().write(plainRow(sample)));
}
FixedRow fixedRow(const Sample& sample) {
  FixedRow row;
  row.fill(sample);
  return row;
}

void addRead() {
  const std::string workload = "row_read/";
  addReading(workload + "korvo", korvoRow, [](const auto& row) { return read(row); });
  addReading(workload + "flatbuffers", flatRow,
             [](const auto& row) { return readFlat(row.data.get()); });
  addReading(workload + "capnp", capnRow,
             [](const auto& row) { return readCapn(kj::arrayPtr(row->data(), row->size())); });
  addReading(workload + "protobuf", protoRow,
             [reader = std::make_shared<ProtoReader>()](const auto& row) {
               return reader->read({row.data.get(), row.size});
             });
  addReading(workload + "struct", plainBytes,
             [](const auto& row) { return PlainReader::read(row.data.get()); });
  addReading(workload + "limit", fixedRow, [](const auto& row) { return read(row); });
}

void addHash() {
  const std::string workload = "row_hash_string/";
  addReading(workload + "korvo", korvoRow,
             [](const auto& row) { return row.template hash<"name24">(); });
  addReading(workload + "std_hash", flatRow, [](const auto& row) {
    const auto* text = flat::GetRow(row.data.get())->name24();
    return std::hash<std::string_view>()({text->c_str(), text->size()});
  });
}

void addCheck() {
  const std::string workload = "row_check/";
  addReading(workload + "korvo", korvoRow, [](const auto& row) {
    return Korvo::checkRow<RowLayout>(row.rowBuf(), row.rowLength());
  });
  addReading(workload + "korvo_at_run_time", korvoRow, [](const auto& row) {
    return Korvo::checkRow(row.rowBuf(), row.rowLength(), RowLayout::info);
  });
  addReading(workload + "flatbuffers", flatRow, [](const auto& row) {
    flatbuffers::Verifier verifier(row.data.get(), row.size);
    return flat::VerifyRowBuffer(verifier);
  });
}

// ---------------------------------------------------------------------------------------------
// Texts

void addHeaderText() {
  const std::string workload = "row_header_text/";
  addReading(workload + "korvo", korvoRow, [](const auto& row) { return row.toString(); });
  addReading(workload + "stringstream", korvoRow, [](const auto& row) {
    std::ostringstream text;
    text << "len = " << row.rowLength() << ", type = " << row.rowType()
         << ", oid = " << row.rowOid();
    return text.str();
  });
}

/// Writes in the library's form into `to`, which may be kept from row to row.
void writeRapidJson(rapidjson::StringBuffer& to, const PlainRow& row) {
  rapidjson::Writer<rapidjson::StringBuffer> json(to);
  const auto text = [&](const std::string& value) {
    json.String(value.data(), static_cast<unsigned int>(value.size()));
  };
  json.StartObject();
  json.Key("id");
  json.Uint(row.id);
  json.Key("counter");
  json.Uint64(row.counter);
  json.Key("up");
  json.Bool(row.up);
  json.Key("name8");
  text(row.name8);
  json.Key("name24");
  text(row.name24);
  json.Key("name60");
  text(row.name60);
  json.Key("address");
  char address[INET_ADDRSTRLEN + 3];
  const in_addr word{row.address};
  inet_ntop(AF_INET, &word, address, sizeof address);
  json.String(address);
  json.Key("prefix");
  const in_addr prefixWord{row.prefixAddress};
  inet_ntop(AF_INET, &prefixWord, address, sizeof address);
  char* end = address + std::strlen(address);
  *end++ = '/';
  end = std::to_chars(end, address + sizeof address, row.prefixLength).ptr;
  json.String(address, static_cast<unsigned int>(end - address));
  json.Key("tags");
  json.StartArray();
  for (const std::string& tag : row.tags) text(tag);
  json.EndArray();
  json.Key("link");
  json.StartObject();
  json.Key("number");
  json.Uint(row.link.number);
  json.Key("name");
  text(row.link.name);
  json.EndObject();
  json.EndObject();
}

void checkJson() {
  for (const Sample& sample : someSamples()) {
    rapidjson::StringBuffer json;
    writeRapidJson(json, plainRow(sample));
    require(korvoRow(sample).toJson() == json.GetString(), "JSON");
  }
}

void addJson() {
  const std::string workload = "row_json/";
  addReading(workload + "korvo", korvoRow, [](const auto& row) { return row.toJson(); });
  addReading(workload + "rapidjson", plainRow, [](const auto& row) {
    rapidjson::StringBuffer json;
    writeRapidJson(json, row);
    return std::string(json.GetString(), json.GetSize());
  });
  addReading(workload + "rapidjson_kept", plainRow,
             [json = std::make_shared<rapidjson::StringBuffer>()](const auto& row) {
               json->Clear();
               writeRapidJson(*json, row);
               return json->GetString();
             });
}

// ---------------------------------------------------------------------------------------------
// Overwriting

constexpr std::size_t sameLength = 24;
constexpr std::size_t longerLength = 40;

/// Texts to write, all of one length.
std::vector<std::string> textsOf(std::size_t size) {
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < 16; ++i) texts.emplace_back(size, static_cast<char>('a' + i));
  return texts;
}

/// Overwrites a text of 24 bytes with another. `write` takes the row and the text.
template <typename Build, typename Write>
void addOverwriting(const std::string& name, const Build& build, const Write& write) {
  add(name, [build, write] {
    return [row = build(sampleAt(0)), texts = textsOf(sameLength), write,
            round = SampleRound()]() mutable {
      write(row, texts[round.next()]);
      DoNotOptimize(&row);
      benchmark::ClobberMemory();
    };
  });
}

void overwriteFlat(std::uint8_t* bytes, const std::string& text) {
  flatbuffers::String* const name = flat::GetMutableRow(bytes)->mutable_name24();
  std::memcpy(name->data(), text.data(), text.size());
}

void addOverwriteSame() {
  const std::string workload = "row_overwrite_same/";
  addOverwriting(workload + "korvo", korvoRow,
                 [](auto& row, const std::string& text) { row.template set<"name24">(text); });
  addOverwriting(workload + "flatbuffers", flatRow,
                 [](auto& row, const std::string& text) { overwriteFlat(row.data.get(), text); });
  addOverwriting(
      workload + "capnp",
      [](const Sample& sample) {
        auto message = std::make_unique<capnp::MallocMessageBuilder>();
        CapnBuilder::fill(message->initRoot<capnproto::Row>(), sample);
        return message;
      },
      [](auto& message, const std::string& text) {
        const capnp::Text::Builder name = message->template getRoot<capnproto::Row>().getName24();
        std::memcpy(const_cast<char*>(name.asReader().begin()), text.data(), text.size());
      });
  addOverwriting(
      workload + "protobuf",
      [](const Sample& sample) {
        auto row = std::make_unique<proto::Row>();
        ProtoBuilder::fill(*row, sample);
        return row;
      },
      [](auto& row, const std::string& text) { row->set_name24(text); });
  addOverwriting(workload + "struct", plainRow,
                 [](auto& row, const std::string& text) { row.name24 = text; });
  addOverwriting(workload + "limit", fixedRow, [](auto& row, const std::string& text) {
    std::memcpy(row.name24, text.data(), sizeof row.name24);
  });
}

/// Overwrites a text of 24 bytes with one of 40, and has finished bytes afterwards, in rows that
/// have not been changed before.
template <typename Build, typename Write>
void addLengthening(const std::string& name, const Build& build, const Write& write) {
  benchmark::RegisterBenchmark(name.c_str(), [build, write](benchmark::State& state) {
    constexpr std::size_t count = 256;
    const std::vector<std::string> texts = textsOf(longerLength);
    std::vector<decltype(build(sampleAt(0)))> rows;
    for (auto _ : state) {
      rows.clear();
      for (std::size_t i = 0; i < count; ++i) rows.push_back(build(sampleAt(i % 16)));
      const double start = threadSeconds();
      for (std::size_t i = 0; i < count; ++i) {
        write(rows[i], texts[i % 16]);
        DoNotOptimize(&rows[i]);
        benchmark::ClobberMemory();
      }
      state.SetIterationTime(threadSeconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
  })->UseManualTime();
}

void addOverwriteLonger() {
  const std::string workload = "row_overwrite_longer_256/";
  addLengthening(workload + "korvo", korvoRow,
                 [](auto& row, const std::string& text) { row.template set<"name24">(text); });
  addLengthening(workload + "flatbuffers", flatRow,
                 [builder = std::make_shared<FlatBuilder>()](auto& row, const std::string& text) {
                   DoNotOptimize(builder->rebuild(row.data.get(), text).data());
                 });
  addLengthening(workload + "flatbuffers_stored", flatRow,
                 [builder = std::make_shared<FlatBuilder>()](auto& row, const std::string& text) {
                   row = OwnBytes(builder->rebuild(row.data.get(), text));
                 });
  addLengthening(workload + "struct", plainRow,
                 [writer = std::make_shared<PlainWriter>()](auto& row, const std::string& text) {
                   row.name24 = text;
                   DoNotOptimize(writer->write(row).data());
                 });
}

// ---------------------------------------------------------------------------------------------
// Sharing

void addShare() {
  addReading("row_share/korvo", korvoRow, [](const auto& row) {
    const KorvoRow shared = row;
    DoNotOptimize(&shared);
    return shared.isNull();
  });
  addReading(
      "row_share/shared_ptr",
      [](const Sample& sample) { return std::make_shared<OwnBytes>(flatRow(sample)); },
      [](const auto& row) {
        const std::shared_ptr<OwnBytes> shared = row;
        DoNotOptimize(&shared);
        return shared == nullptr;
      });

  addReading("row_copy_on_write/korvo", korvoRow,
             [texts = textsOf(sameLength), round = SampleRound()](const auto& row) mutable {
               KorvoRow copy = row;
               copy.set<"name24">(texts[round.next()]);
               DoNotOptimize(copy.rowBuf());
               return copy.isNull();
             });
  addReading("row_copy_on_write/flatbuffers", flatRow,
             [texts = textsOf(sameLength), round = SampleRound()](const auto& row) mutable {
               const OwnBytes copy({row.data.get(), row.size});
               overwriteFlat(copy.data.get(), texts[round.next()]);
               DoNotOptimize(copy.data.get());
               return copy.size;
             });
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::checkContestants();
  bench::checkJson();
  bench::addBuildReused();
  bench::addBuildOwned();
  bench::addRead();
  bench::addOverwriteSame();
  bench::addOverwriteLonger();
  bench::addShare();
  bench::addHash();
  bench::addCheck();
  bench::addHeaderText();
  bench::addJson();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
