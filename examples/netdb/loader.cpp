#include "loader.h"

#include <utility>

namespace netdb {

namespace {
constexpr int rowsBetweenLooks = 16;  // at the clock, which costs as much as part of a row
}

Loader::Loader(Agent& agent, PrefixTable& table, std::vector<std::string> paths, Told told)
    : Unit("loader", agent),
      table_(table),
      paths_(std::move(paths)),
      told_(std::move(told)),
      batch_(table) {
  runnableIs(true);
}

void Loader::run(bool) {
  try {
    if (!source_) source_.emplace(paths_, told_.malformed);
    while (takeRows(rowsBetweenLooks)) {
      if (!shouldYield()) continue;
      told_.read(source_->progress(), result_.rows);
      return runnableIs(true);
    }
    commit();
    told_.read(source_->progress(), result_.rows);
  } catch (const InputError& e) {
    result_.fault = e.what();
  }
  const auto ended = std::move(told_.ended);
  ended(Result(result_));
}

/// False when there are no more rows. Only rows that differ from the table's wait in the batch.
bool Loader::takeRows(int count) {
  for (PrefixRow row; count != 0; --count) {
    if (!source_->next(row)) return false;
    ++result_.rows;
    const PrefixRow before = table_.find(row.rowOid());
    if (before.isNull()) {
      ++result_.added;
    } else if (before == row) {
      continue;
    } else {
      ++result_.changed;
    }
    batch_.put(row);
  }
  return true;
}

void Loader::commit() {
  for (const PrefixRow& row : table_) {
    if (source_->made(row.rowOid())) continue;
    batch_.remove(row.rowOid());
    ++result_.removed;
  }
  batch_.commit();
}

}  // namespace netdb
