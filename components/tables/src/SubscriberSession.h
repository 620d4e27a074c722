#pragma once

// The subscriber's side of one connection: bytes in, bytes out, time given; and what it keeps over
// connections. No socket, no clock.
//
// Between two marks, rows are only collected: those that differ from the table's wait, of the
// others a hash is kept. At the mark all tables change in one batch, or none does.

#include <Korvo/RowConverter.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "TableStore.h"
#include "TableWire.h"

namespace Korvo::detail {

using std::chrono::milliseconds;

/// A subscribed table, and where it stands in the publisher's history.
class TableCopy final : public TableStore::Cursor {
 public:
  TableCopy(TableStore& table, ConversionRules rules);

  void changeComes() override {}

  /// Whether rows of that history were taken up to a mark.
  bool hasPosition() const { return epoch != 0; }
  void forgetPosition() { epoch = 0; }

  const ConversionRules rules;
  std::uint64_t epoch = 0;
  std::uint64_t sequence = 0;
  /// The hashes of the publisher's rows as they were sent, also of those that were refused.
  std::unordered_map<oid_t, std::uint64_t> sent;
  std::uint64_t digest = 0;  ///< all of them
};

/// What a subscriber keeps over its connections.
struct Subscription {
  struct Problem {
    std::string table;
    std::optional<oid_t> oid;
    std::string text;
  };

  std::string name;
  milliseconds heartbeat{5000};
  std::size_t mostWaiting = std::size_t{1} << 30;  ///< bytes that wait for a mark
  bool takesOtherLayouts = true;
  std::shared_ptr<SequenceSource> source = std::make_shared<SequenceSource>();
  std::vector<std::unique_ptr<TableCopy>> copies;  ///< by their numbers

  std::uint64_t marks = 0;
  std::uint64_t merged = 0;
  std::uint64_t refused = 0;  ///< rows
  std::uint64_t digestFaults = 0;
  std::optional<std::uint64_t> faultAt;  ///< the position at which the last bad frame came
  std::vector<Problem> problems;         ///< that wait for being told

  static constexpr std::size_t mostProblems = 1000;
  void tell(Problem problem) {
    if (problems.size() < mostProblems) problems.push_back(std::move(problem));
  }
  /// Of all tables that are not refused, those that were current become stale.
  void linkIsLost(const std::string& text);
  void forgetPositions();
  /// Removes the rows of all tables that are not current, in one batch. Throws std::bad_alloc with
  /// the tables as before.
  void removeStaleRows();
};

class SubscriberSession {
 public:
  /// `subscription` outlives it. Throws std::bad_alloc.
  explicit SubscriberSession(Subscription& subscription);
  SubscriberSession(const SubscriberSession&) = delete;
  SubscriberSession& operator=(const SubscriberSession&) = delete;
  ~SubscriberSession();

  /// Takes what the publisher sent. Throws std::bad_alloc; the round under way is then lost.
  void receive(std::span<const byte_t> bytes);
  /// To be called when all that is there was received: acknowledges it.
  void received();
  /// So much time has passed, in which receive() was told of all that came.
  void timePasses(milliseconds time);
  OutQueue& out() { return out_; }
  void sent(std::size_t count);
  void end(ByeReason reason, const std::string& text);
  bool isOver() const { return isOver_; }
  const std::string& endText() const { return endText_; }
  std::string takeEndText() { return std::exchange(endText_, {}); }

  std::string& publisher() { return publisher_; }
  /// Whether a mark came.
  bool hasMark() const { return hasMark_; }

 private:
  struct Round;
  class Feed;

  bool take(const Frame& frame);
  void takeWelcome(const Welcome& welcome);
  void accept(Feed& feed, const Welcome::Table& table);
  void takeRow(Feed& feed, std::span<const byte_t> body);
  void refuseRow(Feed& feed, oid_t oid, const std::string& text);
  void refuseTable(Feed& feed, const std::string& text);
  /// Refuses the table if too much waits.
  void weigh(Feed& feed);
  void takeMark(const Mark& mark);
  Feed* feedOf(std::uint16_t number);
  void fault(const std::string& text);

  Subscription& subscription_;
  FrameReader reader_;
  OutQueue out_;
  std::vector<std::unique_ptr<Feed>> feeds_;  ///< by their numbers

  bool isWelcome_ = false;
  bool isOver_ = false;
  bool hasMark_ = false;
  std::string endText_;
  std::string publisher_;
  std::uint64_t epoch_ = 0;
  milliseconds heartbeat_;
  milliseconds silence_{0};
  milliseconds idle_{0};

  std::uint64_t frames_ = 0;  ///< of the round
  std::size_t waiting_ = 0;   ///< bytes that it takes
  std::uint64_t marked_ = 0;  ///< the last mark's sequence
  bool ackIsDue_ = false;
};

}  // namespace Korvo::detail
