// A publisher that answers a question with anything, behind a good welcome or not. Each question
// gets one answer or one failure, an answer is what its frames say, and a layout that was told is
// one or is refused.

#include <Korvo/LearnedTable.h>
#include <Korvo/TableBrowser.h>
#include <Korvo/TestLink.h>
#include <Korvo/TestLoop.h>

#include <chrono>
#include <optional>

#include "fuzz_support.h"
#include "wire_frames.h"

namespace {

constexpr unsigned tableInfo = 0x82;
constexpr unsigned subscriberInfo = 0x83;
constexpr unsigned publisherInfo = 0x84;

void send(Korvo::ByteStream& stream, const std::string& bytes) {
  const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  stream.write(&part, 1);
}

std::string fuzzedFrame(fuzz::Input& input, std::uint64_t& tables, std::uint64_t& subscribers) {
  switch (input.below(6)) {
    case 0: {
      static const char* const layouts[] = {"row 7 base 12 { speed uint32_t @8 }", "row 7", "",
                                            "}"};
      const std::string layout = layouts[input.below(4)] + input.text(input.below(8));
      ++tables;
      return wire::frame(tableInfo, 0,
                         wire::Bytes()
                             .text(input.text(input.below(8)))
                             .u64(input.word())
                             .u64(input.word())
                             .raw(std::string(20, 'f'))
                             .u32(static_cast<std::uint32_t>(layout.size() + input.below(2)))
                             .raw(layout)
                             .get());
    }
    case 1: {
      wire::Bytes body;
      body.text(input.text(input.below(8)));
      for (int i = 0; i < 6; ++i) body.u64(input.word());
      body.text(input.text(input.below(8)));
      const std::size_t count = input.below(4);
      body.u16(static_cast<unsigned>(count + input.below(2)));
      for (std::size_t i = 0; i < count; ++i) body.text(input.text(input.below(8)));
      ++subscribers;
      return wire::frame(subscriberInfo, 0, body.get());
    }
    case 2:
      return wire::frame(publisherInfo, 0,
                         wire::Bytes()
                             .u64(1)
                             .u64(input.word())
                             .u8(input.byte())
                             .u64(tables + input.below(2))
                             .u64(subscribers + input.below(2))
                             .text(input.text(input.below(8)))
                             .get());
    case 3: {
      const std::string body = input.text(input.below(64));
      return wire::frame(input.byte(), input.word(), body);
    }
    default:
      return input.text(input.below(32));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto loop = std::make_shared<Korvo::TestLoop>();
  Korvo::TestLink link;
  std::unique_ptr<Korvo::ByteStream> stream;
  link.publisherEnd()->takerIs(
      [&](std::unique_ptr<Korvo::ByteStream> given) { stream = std::move(given); });
  Korvo::TableBrowser browser(loop);
  browser.connect(link.subscriberEnd());
  int ends = 0;
  std::optional<Korvo::PublisherInfo> info;
  browser.onAnswer([&](const Korvo::PublisherInfo& told) {
    ++ends;
    info = told;
  });
  browser.onFailure([&](const std::string& text) {
    ++ends;
    FUZZ_REQUIRE(!text.empty());
  });
  browser.ask();
  loop->runUntilQuiet();
  FUZZ_REQUIRE(stream != nullptr);
  if (!input.flag()) {
    send(*stream, wire::frame(wire::welcome, 0,
                              wire::Bytes()
                                  .u16(1)
                                  .u32(input.flag() ? 0 : 1)
                                  .u32(5000)
                                  .text("fake")
                                  .u64(wire::epoch)
                                  .u64(0)
                                  .u16(0)
                                  .get()));
  }
  link.pieceIs(1 + input.below(100));
  std::uint64_t tables = 0;
  std::uint64_t subscribers = 0;
  while (!input.empty() && ends == 0) {
    send(*stream, fuzzedFrame(input, tables, subscribers));
    loop->runUntilQuiet();
  }
  loop->advance(std::chrono::seconds(20));
  FUZZ_REQUIRE(ends == 1);
  if (!info) return 0;
  FUZZ_REQUIRE(info->name == "fake");
  for (const Korvo::PublisherInfo::Table& told : info->tables) {
    try {
      const Korvo::LearnedTable table(told);
      FUZZ_REQUIRE(table.name() == told.name);
      FUZZ_REQUIRE(table.empty());
    } catch (const Korvo::KoTextError&) {
      // It was no layout.
    }
  }
  return 0;
}
