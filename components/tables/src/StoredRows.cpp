#include "StoredRows.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace Korvo::detail {

StoredRows::~StoredRows() {
  for (std::size_t slot = 0; slot < words_.size(); ++slot) {
    if (!isShared(words_[slot])) std::free(bytesOf(words_[slot]));
  }
}

/// Whether nobody else holds the owner. Who held it on another thread is done with it.
bool StoredRows::isSole(const KoPtr<KoRowBuf>& owner) noexcept {
  if (owner.use_count() != 1) return false;
#ifdef KORVO_THREAD_SANITIZER
  // ThreadSanitizer does not follow fences; a read-modify-write of the count makes the same edge.
  const KoPtr<KoRowBuf> edge = owner;
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
  return true;
}

KoPtr<KoRowBuf> StoredRows::share(Slot slot) {
  Word& word = words_[slot];
  if (isShared(word)) return shared_[placeOf(word)].owner;
  byte_t* const bytes = bytesOf(word);
  __builtin_prefetch(bytes);  // whoever asks for a row will look at it
  // Who looks up row after row, and lets go of each, has one owner for all of them.
  if (hand_ < shared_.size() && shared_[hand_].isOurs && isSole(shared_[hand_].owner)) {
    Shared& free = shared_[hand_];
    words_[free.slot] = wordOf(std::exchange(free.owner->buf_, bytes));
    free.slot = slot;
    word = wordOf(hand_);
    return free.owner;
  }
  // Two looks for one owner more: rows that were let go of do not pile up.
  settle(2);
  shared_.push_back({std::make_shared<KoRowBuf>(), slot, true});
  shared_.back().owner->buf_ = bytes;
  word = wordOf(shared_.size() - 1);
  return shared_.back().owner;
}

void StoredRows::reserveShared(std::size_t count) {
  const std::size_t wanted = shared_.size() + count;
  if (wanted > shared_.capacity()) shared_.reserve(std::max(wanted, shared_.size() * 2));
}

StoredRows::Row StoredRows::takeOut(Slot slot) noexcept {
  Row gone;
  const Word word = std::exchange(words_[slot], 0);
  if (!isShared(word)) {
    gone.own.reset(bytesOf(word));
  } else {
    gone.owner = std::move(shared_[placeOf(word)].owner);
    dropPlace(placeOf(word));
  }
  return gone;
}

/// The last of the shared rows gets the place.
void StoredRows::dropPlace(std::size_t place) noexcept {
  if (place != shared_.size() - 1) {
    shared_[place] = std::move(shared_.back());
    words_[shared_[place].slot] = wordOf(place);
  }
  shared_.pop_back();
}

void StoredRows::exchange(Slot slot, Row& row, bool isHeld) noexcept {
  Row gone = takeOut(slot);
  if (isHeld) {
    shared_.push_back({std::move(row.owner), slot, false});
    words_[slot] = wordOf(shared_.size() - 1);
  } else if (row.owner != nullptr) {
    words_[slot] = wordOf(std::exchange(row.owner->buf_, nullptr));
  } else {
    words_[slot] = wordOf(row.own.release());
  }
  row = std::move(gone);
}

void StoredRows::settle(std::size_t most) noexcept {
  for (; most != 0 && !shared_.empty(); --most) {
    if (hand_ >= shared_.size()) hand_ = 0;
    Shared& shared = shared_[hand_];
    if (!isSole(shared.owner)) {
      ++hand_;
      continue;
    }
    words_[shared.slot] = wordOf(std::exchange(shared.owner->buf_, nullptr));
    dropPlace(hand_);
  }
}

}  // namespace Korvo::detail
