// A subscriber whose publisher sends anything behind a good welcome. What the table holds are rows
// of the last good mark, whatever came since, and each of them is sound.

#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <Korvo/TestLink.h>
#include <Korvo/TestLoop.h>

#include <chrono>
#include <map>

#include "fuzz_support.h"
#include "wire_frames.h"

namespace {

struct PortLayout : Korvo::RowLayout<7, Korvo::Column<"speed", std::int32_t>,
                                     Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;
/// The publisher's, if it is not the same.
struct WideLayout
    : Korvo::RowLayout<7, Korvo::Column<"tags", std::vector<std::string>>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"speed", std::int16_t>> {};
using Wide = Korvo::TableRow<WideLayout>;

/// A publisher that keeps to the protocol until its input says otherwise.
template <typename Row>
class Publisher {
 public:
  explicit Publisher(fuzz::Input& input) : input_(input) {}

  /// What a new connection gets.
  std::string begin() {
    told_.clear();
    frames_ = 1;
    return wire::welcomeFrame<typename Row::Layout>() + wire::frame(wire::whole, 0, "");
  }

  std::string frame() {
    switch (input_.below(8)) {
      case 0:
      case 1:
      case 2: {
        Row row;
        row.create(static_cast<Korvo::oid_t>(input_.below(20)));
        row.template set<"speed">(input_.byte());
        row.template set<"name">(input_.text(input_.below(10)));
        if (input_.below(4) == 0) {
          const std::size_t at = 8 + input_.below(row.rowLength() - 8U);
          row.rwRowBuf()[at] = input_.byte();
        }
        told_[row.rowOid()] = wire::digestOf(row);
        ++frames_;
        return wire::rowFrame(row);
      }
      case 3: {
        const auto oid = static_cast<Korvo::oid_t>(input_.below(20));
        told_.erase(oid);
        ++frames_;
        return wire::frame(wire::del, 0, wire::Bytes().u32(oid).get());
      }
      case 4: {
        std::uint64_t digest = 0;
        for (const auto& [oid, hash] : told_) digest ^= hash;
        return wire::markFrame(++sequence_, std::exchange(frames_, 0), told_.size(), digest);
      }
      case 5: {
        const std::string body = input_.text(input_.below(64));
        return wire::frame(input_.byte(), input_.byte() & 1U, body);
      }
      case 6:
        return wire::markFrame(input_.byte(), input_.byte(), input_.byte(), 0);
      default:
        return input_.text(input_.below(32));
    }
  }

 private:
  fuzz::Input& input_;
  std::map<Korvo::oid_t, std::uint64_t> told_;
  std::uint64_t frames_ = 0;
  std::uint64_t sequence_ = 0;
};

template <typename Row>
void run(fuzz::Input& input) {
  const auto loop = std::make_shared<Korvo::TestLoop>();
  Korvo::TestLink link;
  std::unique_ptr<Korvo::ByteStream> stream;
  Publisher<Row> publisher(input);
  const auto send = [&](const std::string& bytes) {
    if (stream == nullptr) return;
    const iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    stream->write(&part, 1);
  };
  link.publisherEnd()->takerIs([&](std::unique_ptr<Korvo::ByteStream> taken) {
    stream = std::move(taken);
    send(publisher.begin());
  });
  Korvo::Table<Port> copy("net/port");
  Korvo::TableSubscriber subscriber(loop, {.name = "copy", .mostWaitingBytes = 4000});
  subscriber.add(copy);
  const Korvo::TableReader<Port> reader(copy, loop, [&](const Korvo::Changes<Port>& changes) {
    for (const auto& change : changes)
      FUZZ_REQUIRE(change.after().isNull() == (change.kind() == Korvo::ChangeKind::removed));
  });
  subscriber.connect(link.subscriberEnd());
  link.pieceIs(1 + input.below(100));
  loop->runUntilQuiet();
  while (!input.empty()) {
    const std::uint64_t marks = subscriber.status().marks;
    const std::uint64_t sequence = copy.sequence();
    send(publisher.frame());
    loop->runUntilQuiet();
    // Nothing changes without a mark.
    FUZZ_REQUIRE(copy.sequence() == sequence || subscriber.status().marks != marks);
    for (const Port& row : copy) {
      FUZZ_REQUIRE(!Korvo::checkRow<PortLayout>(row.rowBuf(), row.rowLength()));
    }
    if (!subscriber.status().isConnected) loop->advance(std::chrono::seconds(6));
    char bytes[500];
    if (stream != nullptr) stream->read(bytes, sizeof bytes);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  if (input.flag()) {
    run<Wide>(input);
  } else {
    run<Port>(input);
  }
  return 0;
}
