#pragma once

// The bytes of a table's rows, by slot.
//
// Most rows are held by nobody but their table. Of such a row only the bytes are kept; an owner
// that rows can share is made when somebody asks for it, and given up when all others have let go
// of it:
//
//   slot 0   | bytes ---------------------> [ row ]
//   slot 1   | shared, place 0 --> owner -> [ row ] <- whoever holds it
//   slot 2   | free
//
// The bytes of a row stay where they are for as long as the row is in the table or held.

#include <Korvo/TableIndex.h>
#include <Korvo/baseRow.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Chunked.h"

namespace Korvo::detail {

class StoredRows {
 public:
  struct Free {
    void operator()(byte_t* block) const noexcept { std::free(block); }
  };
  /// A row's bytes, of malloc().
  using Bytes = std::unique_ptr<byte_t, Free>;

  /// A row on its way into a slot or out of one: in an owner, its bytes alone, or no row.
  struct Row {
    KoPtr<KoRowBuf> owner;
    Bytes own;

    const byte_t* bytes() const { return owner != nullptr ? owner->buf_ : own.get(); }
  };

  StoredRows() = default;
  StoredRows(const StoredRows&) = delete;
  StoredRows& operator=(const StoredRows&) = delete;
  ~StoredRows();

  std::size_t size() const { return words_.size(); }
  bool isFree(Slot slot) const { return words_[slot] == 0; }
  /// Of a row that there is.
  const byte_t* bytes(Slot slot) const {
    const Word word = words_[slot];
    return isShared(word) ? shared_[placeOf(word)].owner->buf_ : bytesOf(word);
  }
  /// The owner of a row that there is. Throws std::bad_alloc.
  KoPtr<KoRowBuf> share(Slot slot);

  /// One more slot, which is free. Throws std::bad_alloc with all as before.
  void grow() { words_.push_back(0); }
  /// From now on `count` rows that are held elsewhere can be put without failing.
  void reserveShared(std::size_t count);
  /// What is in the slot, and `row`, change places. Unless a row that comes in an owner `isHeld`
  /// elsewhere, the owner's other holders lose the bytes.
  void exchange(Slot slot, Row& row, bool isHeld) noexcept;
  /// Looks at `most` rows that were shared, in turn, for such as nobody else holds any more.
  void settle(std::size_t most) noexcept;
  /// How many rows are kept with owners.
  std::size_t sharedCount() const { return shared_.size(); }

 private:
  /// The address of the bytes, which is even; twice the place among the shared rows and one; or 0.
  using Word = std::uintptr_t;
  struct Shared {
    KoPtr<KoRowBuf> owner;
    Slot slot;
    bool isOurs;  ///< made here, so that it may serve another row
  };

  static bool isShared(Word word) { return (word & 1) != 0; }
  static std::size_t placeOf(Word word) { return word >> 1; }
  static byte_t* bytesOf(Word word) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): it comes from wordOf()
    return reinterpret_cast<byte_t*>(word);
  }
  static Word wordOf(std::size_t place) { return place << 1 | 1; }
  static Word wordOf(const byte_t* bytes) { return reinterpret_cast<Word>(bytes); }
  static bool isSole(const KoPtr<KoRowBuf>& owner) noexcept;
  Row takeOut(Slot slot) noexcept;
  void dropPlace(std::size_t place) noexcept;

  Chunked<Word> words_;
  std::vector<Shared> shared_;
  std::size_t hand_ = 0;  ///< the place that is looked at next
};

}  // namespace Korvo::detail
