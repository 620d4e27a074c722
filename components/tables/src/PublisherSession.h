#pragma once

// The publisher's side of one connection: bytes in, bytes out, time given. No socket, no clock.
//
// A session keeps no rows for its subscriber. It has a cursor into each table, and takes rows from
// there when there is room to send them: a row that changes twice before that is sent once.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PublisherAnswer.h"
#include "TableWalk.h"
#include "TableWire.h"

namespace Korvo::detail {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): nobody deletes it as its base
class PublisherSession final : private TableWalk::User {
 public:
  /// Told when there may be something to send.
  class Owner {
   public:
    virtual void sessionHasNews() = 0;

   protected:
    ~Owner() = default;
  };

  struct RowNote {
    std::string table;
    oid_t oid;
    std::string text;
  };

  /// Both outlive the session. `user` is whose process is at the other end, if that is known.
  PublisherSession(const Publication& publication, Owner& owner, std::optional<uid_t> user);
  PublisherSession(const PublisherSession&) = delete;
  PublisherSession& operator=(const PublisherSession&) = delete;
  ~PublisherSession() = default;

  /// Takes what the subscriber sent. Throws std::bad_alloc.
  void receive(std::span<const byte_t> bytes);
  /// So much time has passed, in which receive() was told of all that came.
  void timePasses(milliseconds time);
  /// Puts what there is to tell into out(), until that holds `most` bytes or more.
  void fill(std::size_t most);
  OutQueue& out() { return out_; }
  const OutQueue& out() const { return out_; }
  void sent(std::size_t count);
  /// Says goodbye; nothing else is sent after it.
  void end(ByeReason reason, const std::string& text);
  /// Whether it ends once out() is sent.
  bool isOver() const { return isOver_; }
  const std::string& endText() const { return endText_; }

  // For people.
  const std::string& subscriber() const { return subscriber_; }
  std::vector<std::string> tables() const { return walk_.names(); }
  std::uint64_t acked() const { return acked_; }
  /// Rows of its tables that changed since then.
  std::uint64_t unackedRows() const { return walk_.changesBehind(acked_); }
  std::uint64_t merged() const { return merged_; }
  std::uint64_t refused() const { return refused_; }
  bool isWelcome() const { return isWelcome_; }
  /// Whether it came for rows, and not to ask alone.
  bool wantsTables() const { return wantsTables_; }
  /// What was strange about its HELLO, once.
  std::string takeWarning() { return std::exchange(warning_, {}); }
  /// What the subscriber refused since the last call.
  std::vector<RowNote> takeNotes() { return std::exchange(notes_, {}); }

 private:
  void changesCome() override { owner_.sessionHasNews(); }
  void tableIsGone() noexcept override;

  bool take(const Frame& frame);
  void takeHello(const Hello& hello);
  Welcome::Table admit(const Hello::Table& wanted, std::size_t& layoutBytes);
  void sendNext();
  void sendCaptured();
  void send(const TableSender::Change& change);
  void sendGone();
  bool isStarved() const;
  void capture();
  void sendMark(const TableMark& counted);

  const Publication& publication_;
  Owner& owner_;
  const std::optional<uid_t> user_;
  FrameReader reader_;
  OutQueue out_;
  TableWalk walk_;
  PublisherAnswer answer_{publication_, user_};
  bool mayAsk_ = false;
  bool wantsTables_ = false;

  bool isWelcome_ = false;
  bool isOver_ = false;
  std::string endText_;
  std::string subscriber_;
  std::string warning_;
  milliseconds heartbeat_;
  milliseconds age_{0};
  milliseconds silence_{0};  ///< since something was received
  milliseconds idle_{0};     ///< since something was sent
  milliseconds roundAge_{0};

  bool markIsDue_ = false;
  std::uint64_t frames_ = 0;     ///< of the round
  std::uint64_t rows_ = 0;       ///< of the round
  std::uint64_t roundHead_ = 0;  ///< the last batch when the round began
  std::uint16_t goneOf_ = 0;     ///< the table of `gone_`
  std::vector<oid_t> gone_;      ///< removals that go in one frame
  std::vector<TableSender::Change> captured_;
  std::size_t capturedSent_ = 0;
  std::optional<TableMark> capturedMark_;

  std::uint64_t unapplied_ = 0;       ///< rows of marks that were not acknowledged
  std::uint64_t unappliedUntil_ = 0;  ///< the sequence of the last of these marks
  std::uint64_t acked_ = 0;
  std::uint64_t merged_ = 0;
  std::uint64_t refused_ = 0;
  std::vector<RowNote> notes_;
};

}  // namespace Korvo::detail
