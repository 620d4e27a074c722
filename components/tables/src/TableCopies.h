#pragma once

// The tables of a subscriber, and what is under way to them.
//
// Between two marks, rows are only collected: those that differ from the table's wait, of the
// others it is kept that they were told. At the mark all tables change in one batch, or none does.
// Each row that is told is looked up once among those that were told, and once in the table.

#include <Korvo/RowConverter.h>
#include <Korvo/TableEngine.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "OidMap.h"
#include "TableStore.h"

namespace Korvo::detail {

/// A subscribed table, and where it stands in the publisher's history.
class TableCopy final : public TableStore::Cursor {
 public:
  TableCopy(TableStore& table, ConversionRules rules);

  void changeComes() override {}

  void forgetPosition() { position_ = {}; }
  const TablePosition& position() const { return position_; }

 private:
  friend class TableCopies;

  /// What was told since the last mark.
  struct Round {
    bool isWhole = false;
    std::uint64_t count = 0;   ///< of the publisher's rows after it
    std::uint64_t digest = 0;  ///< of all of them
    /// The last words on oids. A million of them wait beside the table: each byte of these counts.
    Chunked<OwnOperation> rows;
    OidMap numbers;                ///< of `rows`
    std::size_t changedBytes = 0;  ///< of `rows`
    std::size_t weight = 0;        ///< as it was counted last
    /// The hashes of those, as they were sent, whose bytes the table will not have.
    std::unordered_map<oid_t, std::uint64_t> otherwise;
    std::vector<oid_t> formerly;  ///< of `rows`: those that were told otherwise before

    auto oidOf() const {
      return [this](std::uint32_t number) { return rows[number].oid; };
    }
    void put(OwnOperation& row, StoredRows::Bytes bytes);
    std::size_t memory() const;
  };

  bool isTaken() const { return plan_.has_value() && store() != nullptr; }
  void newRound(bool isWhole) noexcept;
  /// The row, of which nothing has been told yet.
  OwnOperation& tell(oid_t oid, Slot present);
  void keepPresent();
  void removeUntold();
  /// What the round changes. Makes room, so that adopt() cannot fail, and gives up what only the
  /// round's rows need.
  std::unique_ptr<TableStore::Commit> prepare();
  void adopt(const TablePosition& position) noexcept;

  const ConversionRules rules_;
  TablePosition position_;
  std::uint64_t count_ = 0;   ///< of the publisher's rows
  std::uint64_t digest_ = 0;  ///< of all of them
  /// The hashes of those whose bytes are not in the table: refused, converted, or equal to the
  /// table's in all columns but not in all bytes. Of the others the table's own rows tell.
  std::unordered_map<oid_t, std::uint64_t> otherwise_;

  // Of the link.
  std::optional<ConversionPlan> plan_;  ///< none: the table is not taken
  bool isSame_ = false;                 ///< rows are taken as they are
  bool wasWhole_ = false;               ///< since the link began
  Round round_;
};

/// What a subscriber keeps over its links.
class TableCopies final : public TableReceiver {
 public:
  struct Problem {
    std::string table;
    std::optional<oid_t> oid;
    std::string text;
  };
  struct Counts {
    std::uint64_t marks = 0;
    std::uint64_t merged = 0;
    std::uint64_t refusedRows = 0;
    std::uint64_t digestFaults = 0;
  };

  TableCopies(std::size_t mostWaiting, bool takesOtherLayouts)
      : mostWaiting_(mostWaiting), takesOtherLayouts_(takesOtherLayouts) {}

  /// The table becomes a copy, in the next link. Throws KoInvalidArgument, and what
  /// LayoutComparison throws for the rules.
  void add(TableStore& store, const ConversionRules& rules);
  /// The tables stay as they are, and can be written again.
  void release() noexcept;
  /// Removes the rows of all tables that are not current, in one batch. Throws std::bad_alloc with
  /// the tables as before.
  void removeStaleRows();

  const Counts& counts() const { return counts_; }
  /// Whether a mark came since the link began.
  bool hasMark() const { return hasMark_; }
  /// The sequence of the link's last mark.
  std::uint64_t marked() const { return marked_; }
  const std::string& publisher() const { return publisher_; }
  void tell(Problem problem);
  /// What people may want to know of links, for traces.
  std::vector<std::string> takeEvents() { return std::exchange(events_, {}); }
  std::vector<Problem> takeProblems() { return std::exchange(problems_, {}); }

  void begin(User& user) override;
  void end(const std::string& reason) override;
  std::size_t size() const override { return copies_.size(); }
  const AnyTable* table(std::size_t number) const override;
  /// Null once the table is destroyed.
  const TableStore* store(std::size_t number) const { return copies_[number]->store(); }
  TablePosition position(std::size_t number) const override { return copies_[number]->position(); }
  void publisherIs(const std::string& name, std::uint64_t history) override;
  bool accept(std::size_t number, const LayoutFingerprint& layout,
              const std::string& layoutText) override;
  void refuse(std::size_t number, const std::string& reason) override;
  bool isTaken(std::size_t number) const override { return copies_[number]->isTaken(); }
  void whole(std::size_t number) override;
  void row(std::size_t number, std::span<const byte_t> bytes) override;
  void remove(std::size_t number, oid_t oid) override;
  std::string mark(const TableMark& mark) override;
  void fault(const std::string& text) override;

 private:
  void note(std::string event);
  void refuseTable(std::size_t number, const std::string& text);
  void refuseRow(std::size_t number, oid_t oid, const std::string& text);
  void takeRow(std::size_t number, std::span<const byte_t> row);
  void newRound(TableCopy& copy, bool isWhole) noexcept;
  /// Refuses the table if too much waits.
  void weigh(std::size_t number);

  const std::size_t mostWaiting_;
  const bool takesOtherLayouts_;
  std::shared_ptr<SequenceSource> source_ = std::make_shared<SequenceSource>();
  std::vector<std::unique_ptr<TableCopy>> copies_;  ///< by their numbers
  Counts counts_;
  std::vector<Problem> problems_;         ///< that wait for being told
  std::vector<std::string> events_;       ///< likewise
  std::optional<std::uint64_t> faultAt_;  ///< the position at which the last fault came

  User* user_ = nullptr;
  std::string publisher_;
  std::uint64_t history_ = 0;
  std::size_t waiting_ = 0;   ///< bytes that the round takes
  std::uint64_t marked_ = 0;  ///< the last mark's sequence
  bool hasMark_ = false;
};

}  // namespace Korvo::detail
