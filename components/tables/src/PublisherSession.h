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
#include "TableStore.h"
#include "TableWire.h"

namespace Korvo::detail {

using std::chrono::milliseconds;

/// What the sessions of a publisher have in common.
struct Publication {
  std::string name;
  std::uint64_t epoch = 0;
  std::shared_ptr<SequenceSource> source = std::make_shared<SequenceSource>();
  bool isComplete = true;
  milliseconds heartbeat{5000};
  std::vector<TableStore*> tables;
  const SubscriberList* subscribers = nullptr;
};

class PublisherSession {
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

  /// Both outlive the session.
  PublisherSession(Publication& publication, Owner& owner);
  PublisherSession(const PublisherSession&) = delete;
  PublisherSession& operator=(const PublisherSession&) = delete;
  ~PublisherSession();

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
  std::vector<std::string> tables() const;
  std::uint64_t acked() const { return acked_; }
  std::uint64_t merged() const { return merged_; }
  std::uint64_t refused() const { return refused_; }
  bool isWelcome() const { return isWelcome_; }
  /// Whether it came for rows, and not to ask alone.
  bool wantsTables() const { return wantsTables_; }
  /// What the subscriber refused since the last call.
  std::vector<RowNote> takeNotes() { return std::exchange(notes_, {}); }

 private:
  struct Feed;
  struct Captured {
    std::uint16_t table;
    oid_t oid;
    KoPtr<KoRowBuf> row;  ///< null: it is gone
  };

  bool take(const Frame& frame);
  void takeHello(const Hello& hello);
  Welcome::Table admit(const Hello::Table& wanted, std::size_t& layoutBytes);
  Feed* feedOf(std::uint16_t number);
  bool isBehind() const;
  bool sendNext();
  bool sendChange(Feed& feed);
  void sendCaptured();
  void pushOids(std::uint16_t table, std::span<const oid_t> oids);
  bool isStarved() const;
  void capture();
  Mark makeMark();
  void sendMark(Mark mark);
  void batchComes();

  Publication& publication_;
  Owner& owner_;
  FrameReader reader_;
  OutQueue out_;
  std::vector<std::unique_ptr<Feed>> feeds_;
  std::size_t turn_ = 0;  ///< the feed that is being told
  PublisherAnswer answer_{publication_};
  bool mayAsk_ = false;
  bool wantsTables_ = false;

  bool isWelcome_ = false;
  bool isOver_ = false;
  std::string endText_;
  std::string subscriber_;
  milliseconds heartbeat_;
  milliseconds age_{0};
  milliseconds silence_{0};  ///< since something was received
  milliseconds idle_{0};     ///< since something was sent
  milliseconds roundAge_{0};

  bool markIsDue_ = false;
  std::uint64_t frames_ = 0;   ///< of the round
  std::uint64_t rows_ = 0;     ///< of the round
  std::uint64_t batches_ = 0;  ///< since the last mark
  std::uint64_t lastBatch_ = 0;
  std::vector<Captured> captured_;
  std::size_t capturedSent_ = 0;
  std::optional<Mark> capturedMark_;

  std::uint64_t acked_ = 0;
  std::uint64_t merged_ = 0;
  std::uint64_t refused_ = 0;
  std::vector<RowNote> notes_;
};

}  // namespace Korvo::detail
