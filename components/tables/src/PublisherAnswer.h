#pragma once

// What a publisher tells of itself to a connection that asks.
//
// An answer is made frame by frame, when there is room to send it, and nothing of it is kept: it
// costs a publisher no memory. Tables and subscribers are told as they stand when their turn comes.

#include <Korvo/TableBrowser.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "TableWire.h"

namespace Korvo::detail {

struct Publication;

/// The subscribers of a publisher, numbered in the order in which they came.
class SubscriberList {
 public:
  /// The first one behind `number`, which becomes its number; nothing at the end.
  virtual std::optional<TablePublisher::Subscriber> subscriberBehind(
      std::uint64_t& number) const = 0;
  virtual std::string lastReasonOfAll() const = 0;

 protected:
  ~SubscriberList() = default;
};

class PublisherAnswer {
 public:
  /// What the user may not have is left out.
  PublisherAnswer(const Publication& publication, std::optional<uid_t> user)
      : publication_(publication), user_(user) {}

  /// Questions that come while one is being answered are answered together, behind it.
  void ask();
  bool isDue() const { return isAsked_; }
  /// The next frame of the answer that is due.
  std::vector<byte_t> next();

 private:
  bool mayTell(const std::string& table) const;

  const Publication& publication_;
  const std::optional<uid_t> user_;
  bool isAsked_ = false;
  bool isAskedAgain_ = false;
  std::size_t table_ = 0;          ///< the next one
  std::uint64_t tables_ = 0;       ///< that were told
  std::uint64_t subscriber_ = 0;   ///< the number of the last one that was told
  std::uint64_t subscribers_ = 0;  ///< that were told
};

/// Puts the frames of an answer together again. Throws ProtocolError for what is none.
class AnswerReader {
 public:
  /// True: the answer is complete.
  bool take(const Frame& frame);
  PublisherInfo info;

 private:
  void weigh(std::size_t bytes);
  std::size_t weight_ = 0;
};

}  // namespace Korvo::detail
