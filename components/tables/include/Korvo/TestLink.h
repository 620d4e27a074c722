#pragma once

// A connection for tests, without sockets: a pipe of bytes below the real protocol.
//
//   const auto loop = std::make_shared<Korvo::TestLoop>();
//   Korvo::TestLink link;
//   publisher.accept(link.publisherEnd());
//   subscriber.connect(link.subscriberEnd());
//   loop->runUntilQuiet();
//   link.roomIs(0);                            // a subscriber that reads nothing
//   link.roomIs(100);
//   link.cutAfter(57);                         // so many bytes, then broken
//   loop->advance(std::chrono::seconds(20));   // the subscriber connects again, as it would

#include <Korvo/ByteStream.h>
#include <Korvo/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace Korvo {

/// Makes connections from its subscriber's end to its publisher's end, as often as they are asked
/// for. The last connection is the one that is cut and looked at. The ends may outlive the link.
class KORVO_API TestLink {
 public:
  /// Nothing is connected.
  TestLink();
  TestLink(const TestLink&) = delete;
  TestLink& operator=(const TestLink&) = delete;
  ~TestLink();

  /// For TablePublisher::accept().
  const std::shared_ptr<ByteListener>& publisherEnd() const;
  /// For TableSubscriber::connect().
  const std::shared_ptr<ByteConnector>& subscriberEnd() const;

  /// At most so many bytes towards the subscriber are under way; 65536 at first.
  void roomIs(std::size_t bytes);
  /// A read gives at most so many bytes, in both directions; all that there are at first.
  void pieceIs(std::size_t bytes);
  /// Breaks the connection once so many more bytes have reached the subscriber, also one that is
  /// made later. Once: a connection after it is whole.
  void cutAfter(std::uint64_t bytes);
  /// The same for bytes that reach the publisher.
  void cutAfterToPublisher(std::uint64_t bytes);
  /// Breaks the connection; bytes under way are lost.
  void cut();
  /// Whose process connects, as the publisher sees it; not known at first.
  void peerUserIs(std::optional<uid_t> user);
  /// Whether attempts to connect fail.
  void isDownIs(bool isDown);

  /// Whether the last connection stands.
  bool isConnected() const;
  /// Connections that were made.
  std::uint64_t connections() const;
  /// Bytes that reached each end, over all connections.
  std::uint64_t bytesToSubscriber() const;
  /// As bytesToSubscriber().
  std::uint64_t bytesToPublisher() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace Korvo
