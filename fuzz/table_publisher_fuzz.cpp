// A publisher whose subscriber sends anything behind a good hello, questions too. It must keep its
// tables, bound what waits for that subscriber, and go on serving another one.

#include <Korvo/Batch.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableSubscriber.h>
#include <Korvo/TestLink.h>
#include <Korvo/TestLoop.h>

#include <chrono>

#include "fuzz_support.h"
#include "wire_frames.h"

namespace {

struct PortLayout : Korvo::RowLayout<7, Korvo::Column<"speed", std::int32_t>,
                                     Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

void send(Korvo::ByteStream& stream, const std::string& bytes) {
  const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  stream.write(&part, 1);
}

std::string fuzzedFrame(fuzz::Input& input) {
  switch (input.below(6)) {
    case 0:
      return wire::frame(wire::ack, 0, wire::Bytes().u64(input.byte()).u64(input.byte()).get());
    case 1:
      return wire::frame(wire::note, input.byte(),
                         wire::Bytes().u32(input.word()).text(input.text(5)).get());
    case 2:
      return wire::frame(wire::refuse, input.byte(), wire::Bytes().text(input.text(5)).get());
    case 3: {
      const std::string body = input.text(input.below(64));
      return wire::frame(input.byte(), input.word(), body);
    }
    case 5:
      return wire::frame(0x81, input.byte(), input.text(input.below(4)));  // a question
    default:
      return input.text(input.below(32));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto loop = std::make_shared<Korvo::TestLoop>();
  Korvo::Table<Port> ports("net/port");
  Korvo::TablePublisher publisher("agent", loop);
  publisher.add(ports);
  Korvo::TestLink bad;
  Korvo::TestLink good;
  publisher.accept(bad.publisherEnd());
  publisher.accept(good.publisherEnd());
  Korvo::Table<Port> copy("net/port");
  Korvo::TableSubscriber subscriber(loop, {.name = "good"});
  subscriber.add(copy);
  subscriber.connect(good.subscriberEnd());

  const std::unique_ptr<Korvo::ByteStream> stream = bad.subscriberEnd()->connect();
  if (!input.flag()) send(*stream, wire::helloFrame<PortLayout>(1, 1, 1));
  bad.pieceIs(1 + input.below(100));
  while (!input.empty()) {
    send(*stream, fuzzedFrame(input));
    if (input.flag()) {
      Port row;
      row.create(input.byte());
      row.set<"speed">(input.byte());
      Korvo::Batch batch(ports);
      batch.put(row);
      batch.commit();
    }
    loop->runUntilQuiet();
    char bytes[500];
    if (input.flag()) stream->read(bytes, sizeof bytes);
    for (const auto& known : publisher.subscribers()) FUZZ_REQUIRE(known.unsent <= 256 * 1024);
  }
  loop->advance(std::chrono::seconds(20));
  FUZZ_REQUIRE(copy.state() == Korvo::TableState::current);
  FUZZ_REQUIRE(copy.size() == ports.size());
  FUZZ_REQUIRE(publisher.subscribers().size() == 1);
  return 0;
}
