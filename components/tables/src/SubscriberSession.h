#pragma once

// The subscriber's side of one connection: bytes in, bytes out, time given. No socket, no clock.

#include <chrono>
#include <cstdint>
#include <string>

#include "TableCopies.h"
#include "TableWire.h"

namespace Korvo::detail {

using std::chrono::milliseconds;

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): nobody deletes it as its base
class SubscriberSession final : private TableReceiver::User {
 public:
  /// `copies` outlives it. Throws std::bad_alloc.
  SubscriberSession(TableCopies& copies, const std::string& name, milliseconds heartbeat);
  SubscriberSession(const SubscriberSession&) = delete;
  SubscriberSession& operator=(const SubscriberSession&) = delete;
  ~SubscriberSession() = default;

  /// Takes what the publisher sent. Throws std::bad_alloc; the round under way is then lost.
  void receive(std::span<const byte_t> bytes);
  /// Acknowledges what was received, unless something waits still. To be called when all that is
  /// there was received, and when what waited is sent.
  void received();
  /// So much time has passed, in which receive() was told of all that came.
  void timePasses(milliseconds time);
  OutQueue& out() { return out_; }
  void sent(std::size_t count);
  void end(ByeReason reason, const std::string& text);
  bool isOver() const { return isOver_; }
  const std::string& endText() const { return endText_; }

 private:
  void rowIsRefused(std::uint16_t table, oid_t oid, const std::string& reason) override;
  void tableIsRefused(std::uint16_t table, const std::string& reason) override;

  bool take(const Frame& frame);
  void takeWelcome(const Welcome& welcome);
  void takeMark(const Mark& mark);
  /// The number of the table that rows are told of.
  std::size_t tableOf(const Frame& frame);

  TableCopies& copies_;
  FrameReader reader_;
  OutQueue out_;

  bool isWelcome_ = false;
  bool isOver_ = false;
  std::string endText_;
  milliseconds heartbeat_;
  milliseconds silence_{0};
  milliseconds idle_{0};

  std::uint64_t frames_ = 0;  ///< of the round
  bool ackIsDue_ = false;
};

}  // namespace Korvo::detail
