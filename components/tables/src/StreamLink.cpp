#include "StreamLink.h"

#include <utility>
#include <vector>

#include "SubscriberSession.h"

namespace Korvo::detail {

namespace {

constexpr std::size_t turnBytes = 256 * 1024;
constexpr std::size_t readBytes = 64 * 1024;

class StreamLink final : public TableLink, private ByteStream::User {
 public:
  using End = std::optional<std::string>;

  StreamLink(TableCopies& copies, const std::string& name, milliseconds heartbeat,
             std::unique_ptr<ByteStream> stream, TableLink::User& user)
      : session_(copies, name, heartbeat), stream_(std::move(stream)), user_(user) {
    stream_->userIs(this);
  }
  StreamLink(const StreamLink&) = delete;
  StreamLink& operator=(const StreamLink&) = delete;
  ~StreamLink() override { stream_->userIs(nullptr); }

  End work() override {
    if (End end = read()) return end;
    return write();
  }

  End timePasses(milliseconds time) override {
    // What came while this process was held up tells that the publisher is there.
    if (End end = read()) return end;
    session_.timePasses(time);
    // An end that cannot be told is not waited for.
    if (session_.isOver() && std::exchange(wasOver_, true)) return session_.endText();
    return std::nullopt;
  }

  void tablesChange() override {
    session_.end(ByeReason::changed, "another table is subscribed");
    user_.linkHasWork();
  }

  void sayGoodbye() noexcept override {
    try {
      session_.end(ByeReason::closing, "the subscriber ended");
      write();
    } catch (const std::bad_alloc&) {
      // The end of the connection tells the publisher.
    }
  }

 private:
  void streamIsReady() override { user_.linkHasWork(); }

  /// What the other side said before it closed tells more.
  End lost(const std::string& reason) const {
    return session_.endText().empty() ? reason : session_.endText();
  }

  End read() {
    for (std::size_t count = 0; count < turnBytes;) {
      const ByteStream::Result result = stream_->read(buffer_.data(), buffer_.size());
      session_.receive({buffer_.data(), result.count});
      if (!result.isOpen) return lost(result.reason);
      count += result.count;
      if (result.count < buffer_.size() || user_.linkShouldYield()) break;
    }
    return std::nullopt;
  }

  End write() {
    for (session_.received(); !session_.out().empty(); session_.received()) {
      const std::span<const byte_t> bytes = session_.out().next(turnBytes);
      const ByteStream::Result result = writeTo(*stream_, bytes);
      session_.sent(result.count);
      if (!result.isOpen) {
        End end = read();
        return end ? end : lost(result.reason);
      }
      if (result.count < bytes.size()) return std::nullopt;
    }
    if (session_.isOver()) return session_.endText();
    return std::nullopt;
  }

  SubscriberSession session_;
  std::unique_ptr<ByteStream> stream_;
  TableLink::User& user_;
  std::vector<byte_t> buffer_ = std::vector<byte_t>(readBytes);
  bool wasOver_ = false;
};

class StreamSource final : public TableSource {
 public:
  StreamSource(std::shared_ptr<ByteConnector> connector, TableCopies& copies, std::string name,
               milliseconds heartbeat)
      : connector_(std::move(connector)),
        copies_(copies),
        name_(std::move(name)),
        heartbeat_(heartbeat) {}

  std::unique_ptr<TableLink> connect(TableReceiver&, TableLink::User& user) override {
    std::unique_ptr<ByteStream> stream = connector_->connect();
    return std::make_unique<StreamLink>(copies_, name_, heartbeat_, std::move(stream), user);
  }

 private:
  std::shared_ptr<ByteConnector> connector_;
  TableCopies& copies_;
  std::string name_;
  milliseconds heartbeat_;
};

}  // namespace

std::shared_ptr<TableSource> sourceOver(std::shared_ptr<ByteConnector> connector,
                                        TableCopies& copies, const std::string& name,
                                        milliseconds heartbeat) {
  return std::make_shared<StreamSource>(std::move(connector), copies, name, heartbeat);
}

}  // namespace Korvo::detail
