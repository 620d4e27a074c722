// The scheduler's map of entries and its allocator, against the standard library's.

#include <deque>
#include <map>
#include <random>
#include <set>

#include "scheduler_test_support.h"

namespace schedtest {
namespace {

using Korvo::detail::EntryMap;
using Korvo::detail::RecyclingAllocator;

/// The map looks at the address only.
Schedulable* unitAt(std::uintptr_t address) {
  return reinterpret_cast<Schedulable*>(address);
}

TEST(EntryMap, StartsEmpty) {
  const EntryMap map;
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(map.size(), 0U);
  EXPECT_EQ(map.begin(), map.end());
  EXPECT_EQ(map.find(unitAt(16)), map.end());
  EXPECT_EQ(map.count(unitAt(16)), 0U);
  EXPECT_FALSE(map.contains(nullptr));
  EXPECT_THROW(map.at(unitAt(16)), std::out_of_range);
  EXPECT_EQ(map[unitAt(16)], nullptr);
  EXPECT_EQ(map.count(unitAt(16)), 0U);
}

TEST(EntryMap, FindsWhatWasInserted) {
  EntryMap map;
  RunnableEntry a, b;
  map.makeRoom();
  map.insert(unitAt(16), &a);
  map.makeRoom();
  map.insert(unitAt(32), &b);
  EXPECT_EQ(map.size(), 2U);
  EXPECT_EQ(map.at(unitAt(16)), &a);
  EXPECT_EQ(map[unitAt(16)], &a);
  EXPECT_EQ(map.find(unitAt(32))->second, &b);
  EXPECT_EQ((*map.find(unitAt(32))).first, unitAt(32));
  EXPECT_EQ(map.count(unitAt(16)), 1U);
  EXPECT_FALSE(map.contains(unitAt(48)));
  EXPECT_TRUE(EntryMap::holds(&a));

  map.erase(&a);
  EXPECT_FALSE(EntryMap::holds(&a));
  EXPECT_FALSE(map.contains(unitAt(16)));
  map.erase(unitAt(16));  // not there
  map.erase(unitAt(32));
  EXPECT_TRUE(map.empty());
  EXPECT_FALSE(EntryMap::holds(&b));
}

/// Units stand in memory at regular distances, all of which have to spread.
TEST(EntryMap, FollowsTheModel) {
  for (const std::uintptr_t distance : {8U, 192U, 256U, 4096U, 65536U}) {
    std::mt19937 random(static_cast<unsigned int>(distance));
    EntryMap map;
    std::map<Schedulable*, RunnableEntry*> model;
    std::deque<RunnableEntry> entries(1500);
    for (int step = 0; step < 20'000; ++step) {
      const std::size_t i = random() % entries.size();
      Schedulable* unit = unitAt(0x10000 + i * distance);
      if (!model.contains(unit)) {
        map.makeRoom();
        map.insert(unit, &entries[i]);
        model[unit] = &entries[i];
      } else if (random() % 2 == 0) {
        map.erase(unit);
        model.erase(unit);
      } else {
        map.erase(&entries[i]);
        model.erase(unit);
      }
      ASSERT_EQ(map.size(), model.size());
      ASSERT_EQ(map.contains(unit), model.contains(unit));
    }
    std::map<Schedulable*, RunnableEntry*> seen;
    for (const auto& [unit, entry] : map) seen[unit] = entry;
    EXPECT_EQ(seen, model);
    EXPECT_EQ(static_cast<std::size_t>(std::distance(map.begin(), map.end())), model.size());
    for (const auto& [unit, entry] : model) ASSERT_EQ(map.at(unit), entry);
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.begin(), map.end());
    for (const RunnableEntry& entry : entries) ASSERT_FALSE(EntryMap::holds(&entry));
  }
}

/// The ways to look for a unit's entry; each gives null if there is none.
using LookUp = RunnableEntry* (*)(const EntryMap& map, const Schedulable* unit);
constexpr LookUp kLookUps[] = {
    [](const EntryMap& map, const Schedulable* unit) { return map[unit]; },
    [](const EntryMap& map, const Schedulable* unit) {
      const auto found = map.find(unit);
      return found != map.end() ? found->second : nullptr;
    },
    [](const EntryMap& map, const Schedulable* unit) -> RunnableEntry* {
      try {
        return map.at(unit);
      } catch (const std::out_of_range&) {
        return nullptr;
      }
    },
    [](const EntryMap& map, const Schedulable* unit) {
      return map.contains(unit) ? map[unit] : nullptr;
    },
    [](const EntryMap& map, const Schedulable* unit) {
      return map.count(unit) == 1 ? map[unit] : nullptr;
    },
    [](const EntryMap& map, const Schedulable* unit) {
      RunnableEntry* result = nullptr;
      for (const auto& [key, entry] : map) {
        if (key == unit) result = entry;
      }
      return result;
    }};

/// Entries come and go unseen most of the time, as they do while units take turns; whatever is then
/// asked first is answered as by a map that is asked all the time.
TEST(EntryMap, AnswersAtAnyMoment) {
  std::deque<RunnableEntry> entries(600);
  const auto unitOf = [](std::size_t i) { return unitAt(0x10000 + i * 192); };
  for (const LookUp lookUp : kLookUps) {
    for (const unsigned int stepsBetween : {20U, 700U, 6'000U}) {
      std::mt19937 random(stepsBetween);
      EntryMap map;
      std::map<const Schedulable*, RunnableEntry*> model;
      for (unsigned int step = 1; step <= 6'000; ++step) {
        const std::size_t i = random() % entries.size();
        ASSERT_EQ(EntryMap::holds(&entries[i]), model.contains(unitOf(i)));
        if (model.emplace(unitOf(i), &entries[i]).second) {
          map.makeRoom();
          map.insert(unitOf(i), &entries[i]);
        } else {
          map.erase(&entries[i]);
          model.erase(unitOf(i));
        }
        if (step % stepsBetween == 0) {
          const Schedulable* const unit = unitOf(random() % entries.size());
          ASSERT_EQ(lookUp(map, unit), model.contains(unit) ? model[unit] : nullptr);
        } else if (random() % 300 == 0) {
          const Schedulable* const unit = unitOf(random() % entries.size());
          map.erase(unit);
          model.erase(unit);
        } else if (random() % 3'000 == 0) {
          map.clear();
          model.clear();
        }
        ASSERT_EQ(map.size(), model.size());
      }
      for (std::size_t i = 0; i < entries.size(); ++i) {
        ASSERT_EQ(lookUp(map, unitOf(i)), model.contains(unitOf(i)) ? &entries[i] : nullptr);
      }
      map.clear();
      ASSERT_TRUE(map.empty());
      ASSERT_EQ(map.begin(), map.end());
      for (const RunnableEntry& entry : entries) ASSERT_FALSE(EntryMap::holds(&entry));
    }
  }
}

TEST(EntryMap, CanBeAskedWhileSomebodyGoesThroughIt) {
  EntryMap map;
  std::deque<RunnableEntry> entries(100);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    map.makeRoom();
    map.insert(unitAt(16 * i + 16), &entries[i]);
  }
  std::set<Schedulable*> seen;
  for (const auto& [unit, entry] : map) {
    EXPECT_TRUE(seen.insert(unit).second);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      ASSERT_EQ(map.find(unitAt(16 * i + 16))->second, &entries[i]);
    }
  }
  EXPECT_EQ(seen.size(), entries.size());
}

TEST(RecyclingAllocator, GivesBackWhatItWasGiven) {
  RecyclingAllocator<std::uint64_t> allocator;
  std::uint64_t* a = allocator.allocate(8);
  std::uint64_t* b = allocator.allocate(8);
  allocator.deallocate(a, 8);
  allocator.deallocate(b, 8);
  EXPECT_EQ(allocator.allocate(8), b);
  EXPECT_EQ(allocator.allocate(8), a);
  // Blocks of another length are not kept.
  std::uint64_t* other = allocator.allocate(3);
  allocator.deallocate(other, 3);
  allocator.deallocate(a, 8);
  allocator.deallocate(b, 8);
  const RecyclingAllocator<std::uint64_t> copy(allocator);
  EXPECT_EQ(copy, allocator);
}

TEST(RecyclingAllocator, ContainersWorkWithIt) {
  using Deque = std::deque<std::uint64_t, RecyclingAllocator<std::uint64_t>>;
  std::mt19937 random(1);
  Deque deque;
  std::deque<std::uint64_t> model;
  for (std::uint64_t step = 0; step < 50'000; ++step) {
    if (model.empty() || random() % 512 < (step / 5'000 % 2 == 0 ? 296U : 216U)) {
      deque.push_back(step);
      model.push_back(step);
    } else {
      ASSERT_EQ(deque.front(), model.front());
      deque.pop_front();
      model.pop_front();
    }
    if (step % 10'000 == 9'999) {
      Deque copy(deque);
      Deque moved(std::move(copy));
      Deque swapped;
      swapped.swap(moved);
      deque = swapped;
      ASSERT_EQ(std::vector(deque.begin(), deque.end()), std::vector(model.begin(), model.end()));
    }
  }
}

}  // namespace
}  // namespace schedtest
