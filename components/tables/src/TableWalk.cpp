#include "TableWalk.h"

#include <Korvo/layoutText.h>

#include <algorithm>
#include <utility>

namespace Korvo::detail {

struct TableWalk::Feed final : TableStore::Cursor {
  Feed(TableWalk& ofWalk, TableStore& table, std::uint16_t ofNumber)
      : Cursor(table, false), walk(ofWalk), number(ofNumber), name(table.name()) {}

  void changeComes() override { walk.batchComes(); }
  void tableGoes() noexcept override { walk.user_.tableIsGone(); }

  TableWalk& walk;
  std::uint16_t number;
  std::string name;
  std::uint64_t wholesTold = 0;
};

TableWalk::TableWalk(const Publication& publication, User& user)
    : publication_(publication), user_(user) {}

TableWalk::~TableWalk() = default;

void TableWalk::add(TableStore& table, std::uint16_t number) {
  feeds_.push_back(std::make_unique<Feed>(*this, table, number));
}

bool TableWalk::resume(std::uint16_t number, const TablePosition& position) {
  return position.history != 0 && position.history == epoch() && position.sequence <= head() &&
         feedOf(number)->resumeBehind(position.sequence);
}

void TableWalk::drop(std::uint16_t number) {
  std::erase_if(feeds_, [&](const auto& feed) { return feed->number == number; });
}

void TableWalk::clear() noexcept {
  feeds_.clear();
}

TableWalk::Feed* TableWalk::feedOf(std::uint16_t number) const {
  const auto found =
      std::ranges::find(feeds_, number, [](const auto& feed) { return feed->number; });
  return found == feeds_.end() ? nullptr : found->get();
}

const TableStore* TableWalk::table(std::uint16_t number) const {
  const Feed* const feed = feedOf(number);
  return feed == nullptr ? nullptr : feed->store();
}

bool TableWalk::hasLostATable() const {
  return std::ranges::any_of(feeds_, [](const auto& feed) { return feed->store() == nullptr; });
}

std::uint64_t TableWalk::rows() const {
  std::uint64_t rows = 0;
  for (const auto& feed : feeds_) rows += feed->store() == nullptr ? 0 : feed->store()->size();
  return rows;
}

std::uint64_t TableWalk::changesBehind(std::uint64_t sequence) const {
  std::uint64_t count = 0;
  for (const auto& feed : feeds_) {
    if (feed->store() != nullptr) count += feed->store()->changesBehind(sequence);
  }
  return count;
}

std::vector<std::string> TableWalk::names() const {
  std::vector<std::string> names;
  for (const auto& feed : feeds_) {
    if (feed->store() != nullptr) names.push_back(feed->name);
  }
  return names;
}

std::vector<TableSender::Table> TableWalk::tables() const {
  std::vector<Table> all;
  for (const auto& feed : feeds_) {
    Table table{feed->name, {}, "", true};
    if (const TableStore* const store = feed->store()) {
      table = {feed->name, fingerprint(store->layout()), layoutText(store->layout()), false};
    }
    all.push_back(std::move(table));
  }
  return all;
}

bool TableWalk::resume(const TablePosition& position) {
  bool isResumed = true;
  for (const auto& feed : feeds_) isResumed = resume(feed->number, position) && isResumed;
  return isResumed;
}

void TableWalk::restart() {
  for (auto& feed : feeds_) {
    if (TableStore* const store = feed->store()) {
      feed = std::make_unique<Feed>(*this, *store, feed->number);
    }
  }
}

/// Told once for each table of a batch, and of batches that are not made in the end.
void TableWalk::batchComes() {
  const std::uint64_t batch = head() + 1;
  if (batch != lastBatch_) ++batches_;
  lastBatch_ = batch;
  user_.changesCome();
}

bool TableWalk::isBehind() const {
  return std::ranges::any_of(feeds_, [](const auto& feed) { return feed->isBehind(); });
}

bool TableWalk::next(Change& change) {
  TableStore::Cursor::Told told;
  for (std::size_t i = 0; i < feeds_.size(); ++i) {
    turn_ %= feeds_.size();
    Feed& feed = *feeds_[turn_];
    if (feed.isBehind()) {
      feed.begin();
      if (feed.wholes() != feed.wholesTold) {
        feed.wholesTold = feed.wholes();
        change = {Kind::whole, feed.number, 0, nullptr};
        return true;
      }
      if (feed.next(told)) {
        change.kind = told.after == nullptr ? Kind::removed : Kind::row;
        change.table = feed.number;
        change.oid = told.oid;
        change.row = std::move(told.after);
        return true;
      }
    }
    ++turn_;
  }
  return false;
}

TableMark TableWalk::mark() {
  TableMark mark{head(), merged(), {}};
  batches_ = 0;
  for (const auto& feed : feeds_) {
    if (const TableStore* const store = feed->store()) {
      mark.tables.push_back({feed->number, store->size(), store->digest()});
    }
  }
  return mark;
}

}  // namespace Korvo::detail
