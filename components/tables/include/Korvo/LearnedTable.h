#pragma once

// Tables whose layouts were learned from their publisher.
//
//   Korvo::LearnedTable ports(info.tables.front());     // see TableBrowser.h
//   Korvo::TableSubscriber agent("unix:/run/korvo/portAgent", loop, {.takesOtherLayouts = false});
//   agent.add(ports);
//   Korvo::LearnedReader reader(ports, loop, [](Korvo::LearnedChanges& changes) {
//     while (changes.next()) std::cout << changes.oid() << ' ' << changes.after().toJson() << '\n';
//   });
//
// Without `takesOtherLayouts` rows are the publisher's own bytes, and can be passed on as such:
// once its layout is another one, the table is refused, and is to be learned anew.

#include <Korvo/AnyRow.h>
#include <Korvo/TableBrowser.h>
#include <Korvo/TableReader.h>
#include <Korvo/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace Korvo {

namespace detail {

/// Is there before the table that uses it.
struct LearnedLayout {
  DynamicLayout learned;
};

}  // namespace detail

/// A table with its layout.
class KORVO_API LearnedTable : private detail::LearnedLayout, public AnyTable {
 public:
  LearnedTable(const std::string& name, const DynamicLayout& layout)
      : LearnedLayout{layout}, AnyTable(name, learned.info()) {}
  /// Throws KoTextError if the layout that was told is none.
  explicit LearnedTable(const PublisherInfo::Table& told)
      : LearnedTable(told.name, DynamicLayout(told.layoutText)) {}

  /// The layout with what it was made of; lives as long as the table.
  const DynamicLayout& rowLayout() const { return learned; }

  /// The row, which shares the table's buffer, or a null row.
  AnyRow find(oid_t oid) const {
    AnyRow row(rowLayout());
    get(oid, row);
    return row;
  }
  /// The oids of all rows, in order; of `most` of them at the most, the first ones.
  std::vector<oid_t> oids(std::size_t most = std::numeric_limits<std::size_t>::max()) const;
};

/// What changed in a table since its reader looked last; see Changes.
class KORVO_API LearnedChanges {
 public:
  /// Made by the reader for its call.
  LearnedChanges(detail::ChangeSource& source, const DynamicLayout& layout)
      : source_(source), after_(layout), before_(layout) {}

  /// Goes on to the next change; false when the reader knows the table as it stands.
  bool next() { return source_.next(change_, after_, before_); }
  // As Change's; rows are valid until the next call of next().

  /// Of the row.
  oid_t oid() const { return change_.oid; }
  /// Whether it came, changed or went.
  ChangeKind kind() const { return change_.kind; }
  /// The row as it stands; a null row if it was removed.
  const AnyRow& after() const { return after_; }
  /// The row as this reader saw it last, if it asked for that; otherwise a null row.
  const AnyRow& before() const { return before_; }

  // As Changes'.

  /// Whether the table is told as a whole.
  bool first() const { return source_.first(); }
  /// The table's sequence.
  std::uint64_t sequence() const { return source_.sequence(); }
  /// How many batches are told together with the last one.
  std::uint64_t merged() const { return source_.merged(); }

 private:
  detail::ChangeSource& source_;
  detail::AnyChange change_;
  AnyRow after_;
  AnyRow before_;
};

/// Is told the changes in one call; what it does not look at is told again in the next one.
class KORVO_API LearnedReader : public AnyTableReader {
 public:
  /// What is told the changes.
  using Callback = std::function<void(LearnedChanges& changes)>;

  /// As TableReader's short form. Throws std::bad_alloc.
  LearnedReader(LearnedTable& table, const KoPtr<Scheduler>& scheduler, Callback told,
                Before before = Before::unknown);

 private:
  void tell(detail::ChangeSource& source) final;

  DynamicLayout layout_;
  std::shared_ptr<const Callback> told_;
};

}  // namespace Korvo
