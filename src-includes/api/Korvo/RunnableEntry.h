#pragma once

// The entries of a scheduler's run queue, and the map that finds them. Included by Scheduler.h.

#include <Korvo/fwd.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Korvo {

namespace detail {
class KORVO_API EntryMap;
}

/// One place in a scheduler's run queue. Belongs to the scheduler.
struct RunnableEntry {
  bool valid = false;           ///< false once the unit withdrew
  Schedulable* unit = nullptr;  ///< the queued unit; null once it withdrew

 private:
  friend class Schedulable;
  friend class Scheduler;
  friend class detail::EntryMap;

  Scheduler* scheduler_ = nullptr;       ///< whose queue this is in
  RunnableEntry* nextOfUnit_ = nullptr;  ///< the unit's other places, or the next spare entry

  // The map's links, as long as the map holds the entry.
  Schedulable* key_ = nullptr;
  RunnableEntry* nextInBucket_ = nullptr;
  RunnableEntry** linkInBucket_ = nullptr;  ///< what points to this; null if not in the map
};

namespace detail {

/// Thrown when there is no memory for a unit's place in the queue, before anything changed there.
class KORVO_API NotQueued : public std::bad_alloc {
 public:
  explicit NotQueued(const Schedulable* unit) noexcept : unit_(unit) {}

  /// Clears the flag whose change asked for the place, if it is this unit's and not cleared yet. An
  /// exception from anywhere else leaves the unit alone: it may come from work that has destroyed
  /// the unit.
  void takeBack(const Schedulable* unit, bool& flag) noexcept {
    if (unit != unit_) return;
    flag = false;
    unit_ = nullptr;
  }

 private:
  const Schedulable* unit_;
};

/// A hash map from units to entries, hashed on the pointer value. Entries are its nodes, so that
/// inserting allocates only when the number of buckets grows, and taking an entry out needs no
/// look-up. The scheduler itself looks for next to none: entries are put into their buckets when
/// something is looked for, and wait in a list until then. The entries stay the scheduler's.
class KORVO_API EntryMap {
 public:
  using value_type = std::pair<Schedulable*, RunnableEntry*>;
  class const_iterator;

  EntryMap() : buckets_(std::size_t{1} << kInitialBits, &end_) {}
  EntryMap(const EntryMap&) = delete;
  EntryMap& operator=(const EntryMap&) = delete;

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(const Schedulable* unit) const { return entryOf(unit) != &end_; }
  std::size_t count(const Schedulable* unit) const { return contains(unit) ? 1 : 0; }
  RunnableEntry* at(const Schedulable* unit) const;
  /// The unit's entry, null if there is none; never inserts one.
  RunnableEntry* operator[](const Schedulable* unit) const {
    RunnableEntry* entry = entryOf(unit);
    return entry != &end_ ? entry : nullptr;
  }
  const_iterator find(const Schedulable* unit) const;
  const_iterator begin() const;
  const_iterator end() const;

  /// Makes sure that the next insert() needs no memory. May throw std::bad_alloc.
  void makeRoom() {
    if (size_ == buckets_.size()) grow();
  }

  /// Maps the unit, which has no entry in the map, to the entry. Needs room for it.
  void insert(Schedulable* unit, RunnableEntry* entry) noexcept {
    ++size_;
    entry->key_ = unit;
    link(entry, waiting_);
  }

  /// Takes out the entry, which is in the map.
  void erase(RunnableEntry* entry) noexcept {
    --size_;
    *entry->linkInBucket_ = entry->nextInBucket_;
    entry->nextInBucket_->linkInBucket_ = entry->linkInBucket_;
    entry->linkInBucket_ = nullptr;
  }

  /// Takes out the unit's entry, if there is one.
  void erase(const Schedulable* unit) noexcept {
    RunnableEntry* entry = entryOf(unit);
    if (entry != &end_) erase(entry);
  }

  /// Takes out all entries.
  void clear() noexcept;

  /// Whether the entry is in the map.
  static bool holds(const RunnableEntry* entry) { return entry->linkInBucket_ != nullptr; }
  /// Whether the entry is in the map as the unit's.
  static bool holds(const RunnableEntry* entry, const Schedulable* unit) {
    return holds(entry) && entry->key_ == unit;
  }

 private:
  static constexpr unsigned int kInitialBits = 4;
  static constexpr unsigned int kPointerBits = sizeof(std::uintptr_t) * 8;

  std::size_t bucketOf(const Schedulable* unit) const noexcept {
    // The upper bits of a product with the golden ratio are well spread.
    constexpr auto kFactor =
        static_cast<std::uintptr_t>(0x9E3779B97F4A7C15U >> (64 - kPointerBits));
    return reinterpret_cast<std::uintptr_t>(unit) * kFactor >> shift_;
  }

  RunnableEntry* entryOf(const Schedulable* unit) const noexcept {
    if (waiting_ != &end_) distribute();
    RunnableEntry* entry = buckets_[bucketOf(unit)];
    while (entry != &end_ && entry->key_ != unit) entry = entry->nextInBucket_;
    return entry;
  }

  static void link(RunnableEntry* entry, RunnableEntry*& list) noexcept {
    entry->nextInBucket_ = list;
    entry->linkInBucket_ = &list;
    list->linkInBucket_ = &entry->nextInBucket_;
    list = entry;
  }

  /// Puts the list's entries into their buckets.
  void distribute(RunnableEntry* list) const noexcept;
  /// The same with those that wait. Nothing that a caller can see changes.
  void distribute() const noexcept { distribute(std::exchange(waiting_, &end_)); }

  void grow();

  /// Ends every bucket's list. Its own link is written to and never followed, which saves a branch
  /// that no processor foresees.
  mutable RunnableEntry end_;
  mutable RunnableEntry* waiting_ = &end_;  ///< entries that are not in their buckets yet
  mutable std::vector<RunnableEntry*> buckets_;
  std::size_t size_ = 0;
  unsigned int shift_ = kPointerBits - kInitialBits;
};

/// Goes through the elements in no particular order; invalid once the map changes.
class EntryMap::const_iterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = EntryMap::value_type;
  using difference_type = std::ptrdiff_t;
  using reference = value_type;
  struct pointer {
    value_type element;
    const value_type* operator->() const { return &element; }
  };

  reference operator*() const { return {entry_->key_, entry_}; }
  pointer operator->() const { return {**this}; }
  const_iterator& operator++() {
    entry_ = entry_->nextInBucket_;
    skipEnds();
    return *this;
  }
  const_iterator operator++(int) {
    const_iterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const const_iterator& a, const const_iterator& b) {
    return a.entry_ == b.entry_;
  }

 private:
  friend class EntryMap;

  const_iterator(const EntryMap* map, std::size_t bucket, RunnableEntry* entry)
      : map_(map), bucket_(bucket), entry_(entry) {}

  /// Goes on to the next bucket that is not empty, or stays at the end.
  void skipEnds() {
    while (entry_ == &map_->end_ && ++bucket_ < map_->buckets_.size()) {
      entry_ = map_->buckets_[bucket_];
    }
  }

  const EntryMap* map_;
  std::size_t bucket_;
  RunnableEntry* entry_;
};

inline EntryMap::const_iterator EntryMap::begin() const {
  if (waiting_ != &end_) distribute();  // no look-up moves entries while somebody goes through them
  const_iterator first(this, 0, buckets_.front());
  first.skipEnds();
  return first;
}

inline EntryMap::const_iterator EntryMap::end() const {
  return const_iterator(this, buckets_.size(), &end_);
}

inline EntryMap::const_iterator EntryMap::find(const Schedulable* unit) const {
  return const_iterator(this, bucketOf(unit), entryOf(unit));
}

inline RunnableEntry* EntryMap::at(const Schedulable* unit) const {
  RunnableEntry* entry = entryOf(unit);
  if (entry == &end_) throw std::out_of_range("EntryMap::at");
  return entry;
}

}  // namespace detail
}  // namespace Korvo
