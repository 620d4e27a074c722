// korvo get: rows of a table as they are now.

#include "../prefixText.h"
#include "../reading.h"
#include "changeText.h"
#include "engines.h"
#include "follower.h"

#include <algorithm>
#include <optional>

namespace korvotool {
namespace {

using Korvo::AnyRow;
using Korvo::ColumnInfo;
using Korvo::TableState;

/// Waits for the first rows.
class FirstRows final : public Follower::User {
 public:
  FirstRows(Work& work, std::string table) : work_(work), table_(std::move(table)) {}

  void begins() override {}
  void changes(std::size_t, Korvo::LearnedChanges& changes) override {
    while (changes.next()) {  // the state is told behind the rows
    }
  }
  void state(std::size_t, TableState state, const std::string& text) override {
    text_ = text;
    // Rows of a cluster are there without their publisher.
    isStale_ = state == TableState::stale;
    if (state == TableState::current || isStale_) work_.done();
    if (state == TableState::refused) {
      work_.failIs(Failure(statusUnavailable, printable(table_ + " is refused: " + text)));
    }
  }
  const std::string& text() const { return text_; }
  bool isStale() const { return isStale_; }

 private:
  Work& work_;
  std::string table_;
  std::string text_;
  bool isStale_ = false;
};

/// Which rows are wanted.
class Condition {
 public:
  Condition(const GetOptions& options, const Korvo::DynamicLayout& layout) : oid_(options.oid) {
    if (!options.where.empty()) whereIs(options.where, layout);
    if (!options.covers.empty()) coversIs(options.covers, layout.info());
  }

  bool holds(const AnyRow& row) const {
    if (oid_ && row.rowOid() != *oid_) return false;
    if (!column_.empty() && row.text(column_) != value_) return false;
    return !covered_ || prefixThatCovers(row).has_value();
  }
  bool isCovering() const { return covered_.has_value(); }
  /// The length of the row's prefix that covers what is asked for.
  std::optional<unsigned int> prefixThatCovers(const AnyRow& row) const {
    std::optional<unsigned int> longest;
    for (const std::string& column : prefixes_) {
      const std::string text = row.text(column);
      if (text.empty()) continue;
      const Korvo::IpGenPrefix prefix(text);
      if (prefix.addr().af() != covered_->addr().af() || !containsAll(prefix, *covered_)) continue;
      longest = std::max(longest.value_or(0), static_cast<unsigned int>(prefix.mask()));
    }
    return longest;
  }
  std::string text() const {
    std::string text;
    const auto add = [&](const std::string& part) { text += (text.empty() ? "" : " and ") + part; };
    if (oid_) add("the oid " + std::to_string(*oid_));
    if (!column_.empty()) add(column_ + " " + printable(value_));
    if (covered_) add("a prefix that covers " + covered_->toShortString());
    return text;
  }

 private:
  void whereIs(const std::string& where, const Korvo::DynamicLayout& layout) {
    const std::size_t end = where.find('=');
    if (end == where.npos) throw Failure(statusUsage, "--where: COLUMN=VALUE, not " + where);
    column_ = where.substr(0, end);
    if (layout.find(column_) == nullptr) {
      std::string has;
      for (const ColumnInfo& column : layout.info().columns) {
        has += (has.empty() ? "" : ", ") + printable(column.name);
      }
      throw Failure(statusUsage, "no column has the name " + column_ + "; there are " + has);
    }
    // As the column would print it: 10.1.2.3/16 may be written in several ways.
    AnyRow row(layout);
    row.create();
    const std::string value = where.substr(end + 1);
    try {
      row.textIs(column_, value);
    } catch (const Korvo::KoTextError& e) {
      throw Failure(statusUsage, "--where " + column_ + ": " + e.what());
    }
    value_ = row.text(column_);
  }

  void coversIs(const std::string& text, const Korvo::LayoutInfo& layout) {
    covered_ = parsedPrefixOrAddress(text);
    for (const ColumnInfo& column : layout.columns) {
      if (columnTypeText(column) == "IpGenPrefix") prefixes_.emplace_back(column.name);
    }
    if (prefixes_.empty()) throw Failure(statusUsage, "--covers: no column has prefixes");
  }

  std::optional<std::uint32_t> oid_;
  std::string column_;  ///< empty: any
  std::string value_;
  std::optional<Korvo::IpGenPrefix> covered_;
  std::vector<std::string> prefixes_;
};

}  // namespace

int getRows(const GetOptions& options) {
  makeKnown(options.address);
  Work work;
  const Korvo::PublisherInfo info = askPublisher(work, options);
  const auto tables = tablesOf(info, {options.table});
  FirstRows user(work, options.table);
  Follower follower(work, options.address, user);
  follower.follow(tables);
  const Korvo::LearnedTable& table = follower.table(0);
  const Condition condition(options, table.rowLayout());
  Alarm patience(work, [&] {
    throw Failure(statusUnavailable, printable(options.table) + ": no complete state for " +
                                         counted(options.patience, "second") + ": " +
                                         printable(user.text()));
  });
  patience.after(std::chrono::seconds(options.patience));
  if (!work.run()) throw Failure(statusUnavailable, "interrupted");

  if (user.isStale()) complain(printable(options.table + " is stale: " + user.text()));

  std::vector<AnyRow> rows;
  const std::vector<Korvo::oid_t> oids =
      options.oid ? std::vector<Korvo::oid_t>{*options.oid} : table.oids();
  for (const Korvo::oid_t oid : oids) {
    AnyRow row = table.find(oid);
    if (!row.isNull() && condition.holds(row)) rows.push_back(std::move(row));
  }
  if (condition.isCovering()) {  // the widest first
    std::ranges::stable_sort(
        rows, {}, [&](const AnyRow& row) { return condition.prefixThatCovers(row).value_or(0); });
  }
  Output out;
  if (options.json) {
    for (const AnyRow& row : rows) out << rowLine(row) << "\n";
  } else if (!rows.empty()) {
    const Style style(options.colour, out.isTerminal());
    Grid grid = gridFor(table.layout());
    for (const AnyRow& row : rows) grid.line(gridLine(row));
    bool isTitle = true;
    for (const std::string& line : grid.lines()) {
      out << (isTitle ? style.faint(line) : line) << "\n";
      isTitle = false;
    }
  }
  out.finish();
  if (!rows.empty() || condition.text().empty()) return statusGood;
  complain("no row of " + printable(options.table) + " has " + condition.text());
  return statusFound;
}

}  // namespace korvotool
