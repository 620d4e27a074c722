#pragma once

// A walk over what changed in the tables of a publisher. Who passes rows on has one, and no queue.

#include <Korvo/TableEngine.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TableStore.h"

namespace Korvo::detail {

using std::chrono::milliseconds;

class SubscriberList;

/// What the walks of a publisher have in common.
struct Publication {
  std::string name;
  std::uint64_t epoch = 0;
  std::shared_ptr<SequenceSource> source = std::make_shared<SequenceSource>();
  bool isComplete = true;
  milliseconds heartbeat{5000};
  std::vector<TableStore*> tables;
  const SubscriberList* subscribers = nullptr;
  /// Whether a user may have a table; none: every user may.
  std::function<bool(const std::string& table, std::optional<uid_t> user)> mayHave = nullptr;
};

class TableWalk final : public TableSender {
 public:
  /// Told of changes, before they are made, and of tables that are destroyed.
  class User {
   public:
    /// What it throws ends the commit.
    virtual void changesCome() = 0;
    virtual void tableIsGone() noexcept = 0;

   protected:
    ~User() = default;
  };

  /// Both outlive the walk.
  TableWalk(const Publication& publication, User& user);
  TableWalk(const TableWalk&) = delete;
  TableWalk& operator=(const TableWalk&) = delete;
  ~TableWalk() override;

  /// Walks through this table, too, which is `number` from now on.
  void add(TableStore& table, std::uint16_t number);
  /// What happened in it up to `position` counts as told, if that can be.
  bool resume(std::uint16_t number, const TablePosition& position);
  void drop(std::uint16_t number);
  void clear() noexcept;
  /// Null if the number is no table's, or the table is gone.
  const TableStore* table(std::uint16_t number) const;
  bool hasLostATable() const;
  /// Rows of all tables.
  std::uint64_t rows() const;
  /// Rows of all tables that were put or removed last behind `sequence`.
  std::uint64_t changesBehind(std::uint64_t sequence) const;
  /// Batches, without the last one, since the last mark.
  std::uint64_t merged() const { return batches_ > 1 ? batches_ - 1 : 0; }
  /// Of the tables that are not gone.
  std::vector<std::string> names() const;

  const std::string& name() const override { return publication_.name; }
  std::uint64_t epoch() const override { return publication_.epoch; }
  std::uint64_t head() const override { return publication_.source->last; }
  bool isComplete() const override { return publication_.isComplete; }
  std::vector<Table> tables() const override;
  bool resume(const TablePosition& position) override;
  void restart() override;
  bool isBehind() const override;
  bool next(Change& change) override;
  TableMark mark() override;

 private:
  struct Feed;

  Feed* feedOf(std::uint16_t number) const;
  void batchComes();

  const Publication& publication_;
  User& user_;
  std::vector<std::unique_ptr<Feed>> feeds_;
  std::size_t turn_ = 0;  ///< the feed that is being told
  std::uint64_t batches_ = 0;
  std::uint64_t lastBatch_ = 0;
};

}  // namespace Korvo::detail
