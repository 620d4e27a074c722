#pragma once

// Being told what changed in a table.
//
//   Korvo::TableReader<Port> reader(ports, loop, [](const Korvo::Changes<Port>& changes) {
//     for (const Korvo::Change<Port>& change : changes) std::cout << change.after() << '\n';
//   });
//
// A reader is a unit. It becomes runnable when the table is ahead of it, and in its turn gets what
// changed since it looked last: a row that changed twice is told once, as it stands. So fast and
// slow readers see the same, nothing is queued for them, and nothing of theirs runs inside a
// commit.
//
// The long form overrides changed() and may stop in the middle:
//
//   class Viewer : public Korvo::TableReader<Port> {
//     using TableReader::TableReader;
//     void changed(Korvo::Changes<Port>& changes) override {
//       while (const Korvo::Change<Port>* change = changes.next()) {
//         show(*change);
//         if (shouldYield()) return;  // the rest is told in the next turn
//       }
//     }
//   };
//
// Readers and tables may be destroyed in any order, also by what a reader calls.

#include <Korvo/Scheduler.h>
#include <Korvo/Table.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <iterator>
#include <memory>
#include <span>
#include <string>

namespace Korvo {

class AnyTableReader;

/// What became of a row since its reader looked last.
enum class ChangeKind : byte_t {
  added,    ///< it was not there
  changed,  ///< it was there with another value
  removed   ///< it is not there any more
};

/// "added", "changed" or "removed".
KORVO_API std::ostream& operator<<(std::ostream& os, ChangeKind kind);

namespace detail {

/// A change without the type of its row.
struct AnyChange {
  oid_t oid = 0;
  ChangeKind kind = ChangeKind::added;
};

/// Where changes come from while a reader has its turn.
class KORVO_API ChangeSource {
 public:
  struct Reading;
  explicit ChangeSource(std::shared_ptr<Reading> reading);
  bool next(AnyChange& change, BaseRow& after, BaseRow& before);
  std::uint64_t sequence() const;
  std::uint64_t merged() const;
  bool first() const;

 private:
  std::shared_ptr<Reading> reading_;
};

}  // namespace detail

/// What to tell a reader beyond the rows as they stand.
enum class Before : byte_t {
  unknown,  ///< nothing
  kept      ///< rows are told with what the reader saw last, for a shared pointer a changed row
};

/// What readers of all tables have in common.
class KORVO_API AnyTableReader : public Schedulable {
 public:
  /// Gets the state and its text for people.
  using StateCallback = std::function<void(TableState state, const std::string& text)>;

  ~AnyTableReader() override;

  /// Null once the table is gone.
  AnyTable* table() const;

  /// Tells when the state of the table changes; `current` is told after the rows. Told at once, in
  /// the next turn, what it is now.
  void onState(StateCallback told);

  // From now on only these rows are told, as if there were no others in the table: a row that
  // begins to match is told as added, one that ceases to as removed. Told anew, as first rows. They
  // throw std::bad_alloc.

  /// The rows of these oids.
  void only(std::span<const oid_t> oids);
  void only(std::initializer_list<oid_t> oids) { only(std::span(oids.begin(), oids.size())); }
  /// The rows that an index of this table found worth watching:
  /// `reader.only(byName.watch("eth0"))`. Throws KoInvalidArgument for an index of another table.
  void only(RowFilter filter);

 protected:
  /// For readers of rows of a declared class, see TableReader.
  AnyTableReader(AnyTable& table, const KoPtr<Scheduler>& scheduler, Before before);

  /// Tells the changes. What it leaves is told in the next turn.
  virtual void tell(detail::ChangeSource& source) = 0;

 private:
  void run(bool arg) final;
  std::shared_ptr<detail::ChangeSource::Reading> reading_;
};

/// A row that came, changed or went.
template <typename Row>
class Change {
 public:
  /// Which row it is.
  oid_t oid() const { return change_.oid; }
  /// What became of it.
  ChangeKind kind() const { return change_.kind; }
  /// The row as it stands; a null row if it was removed.
  const Row& after() const { return after_; }
  /// The row as this reader saw it last, if it asked for that; otherwise, and if it was added, a
  /// null row.
  const Row& before() const { return before_; }

 private:
  template <typename>
  friend class Changes;
  detail::AnyChange change_;
  Row after_;
  Row before_;
};

/// What changed in a table since its reader looked last: removals first, then the other rows by the
/// order of their last change. Do not rely on the order; look into the table.
template <typename Row>
class Changes {
 public:
  /// For readers, which get one ready made.
  explicit Changes(detail::ChangeSource& source) : source_(&source) {}

  /// The next change, valid until the next call; null when the reader knows the table as it stands.
  const Change<Row>* next() const {
    return source_->next(change_.change_, change_.after_, change_.before_) ? &change_ : nullptr;
  }

  /// Whether the table is told as a whole from here on: its first rows, of which there may be none,
  /// or all of them anew. What was told before counts no more. True in the turn in which that
  /// begins; the turns that go on with it are not.
  bool first() const { return source_->first(); }
  /// The table's sequence.
  std::uint64_t sequence() const { return source_->sequence(); }
  /// How many batches are told together with the last one.
  std::uint64_t merged() const { return source_->merged(); }

  /// Pulls change after change.
  class iterator {
   public:
    /// As iterators have it.
    using value_type = Change<Row>;
    /// As iterators have it.
    using difference_type = std::ptrdiff_t;
    /// As iterators have it.
    using iterator_category = std::input_iterator_tag;

    /// Pulls the first change.
    explicit iterator(const Changes* changes) : changes_(changes) { ++*this; }
    /// The change, valid until the next step.
    const Change<Row>& operator*() const { return *change_; }
    /// The change, valid until the next step.
    const Change<Row>* operator->() const { return change_; }
    /// Pulls the next change.
    iterator& operator++() {
      change_ = changes_->next();
      return *this;
    }
    void operator++(int) { ++*this; }
    /// Whether there is no further change.
    bool operator==(std::default_sentinel_t) const { return change_ == nullptr; }

   private:
    const Changes* changes_;
    const Change<Row>* change_ = nullptr;
  };
  /// Pulls the first change; what was pulled is not told again.
  iterator begin() const { return iterator(this); }
  /// Behind the last change.
  std::default_sentinel_t end() const { return {}; }

 private:
  detail::ChangeSource* source_;
  mutable Change<Row> change_;
};

/// A reader of a table of declared rows.
template <typename Row>
class TableReader : public AnyTableReader {
 public:
  /// Gets what changed.
  using Callback = std::function<void(const Changes<Row>& changes)>;

  /// The short form: `told` gets the changes in one call, and what it does not look at is passed
  /// over. Throws std::bad_alloc.
  TableReader(Table<Row>& table, const KoPtr<Scheduler>& scheduler, Callback told,
              Before before = Before::unknown)
      : AnyTableReader(table, scheduler, before),
        told_(std::make_shared<const Callback>(std::move(told))) {}
  /// The long form, for those who override changed().
  TableReader(Table<Row>& table, const KoPtr<Scheduler>& scheduler, Before before = Before::unknown)
      : AnyTableReader(table, scheduler, before) {}

 protected:
  /// Pulls changes. What it leaves is told in the next turn, and what changes meanwhile with it: a
  /// row may then be told again, as it was told the first time.
  virtual void changed(Changes<Row>& changes) {
    if (told_ == nullptr) return;
    const std::shared_ptr<const Callback> told = told_;  // it may destroy the reader
    (*told)(changes);
    while (changes.next() != nullptr) {
    }
  }

 private:
  void tell(detail::ChangeSource& source) final {
    Changes<Row> changes(source);
    changed(changes);
  }

  std::shared_ptr<const Callback> told_;
};

}  // namespace Korvo
