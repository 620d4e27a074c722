#pragma once

// The rules by which values find their place in a row, written down as plainly as can be: one
// vector of bytes, every rule a few lines, no attempt at speed. What the library leaves in a buffer
// is compared with this, byte by byte, gaps included.

#include "row_test_support.h"

#include <map>

namespace rowtest {

class SpaceModel {
 public:
  /// What a row or a value beyond the limits is refused with; the model is then as before.
  struct TooLong {};

  /// `slots` are those that the row's class lists.
  SpaceModel(Bytes image, len_t baseLength, bool isFullyDefined, std::vector<len_t> slots)
      : fullyDefined(isFullyDefined),
        row_(std::move(image)),
        base_(baseLength),
        slots_(std::move(slots)) {
    storeField<len_t>(row_.data(), static_cast<len_t>(row_.size()));
  }

  bool fullyDefined;

  const Bytes& bytes() const { return row_; }
  Slot slot(len_t at) const {
    const byte_t* const bytes = row_.data() + at;
    return {loadField<std::uint16_t>(bytes), bytes[2] + (bytes[3] & 0x7Fu) * 256u,
            (bytes[3] & 0x80u) != 0};
  }
  Bytes value(len_t at) const {
    const Slot s = slot(at);
    const byte_t* const begin = row_.data() + s.offset;
    return Bytes(begin, begin + s.length);
  }

  // The operations. Each does all of its work on a copy, which it keeps only at its end.

  void write(len_t at, const Bytes& value) {
    change([&](SpaceModel& m) { m.put(at, value, false); });
  }

  void copy(len_t at, const Bytes& value, bool array) {
    change([&](SpaceModel& m) {
      if (value.empty()) {
        m.setSlot(at, {0, 0, array});
      } else {
        m.put(at, value, array);
      }
    });
  }

  /// The elements' encodings.
  void writeArray(len_t at, const std::vector<Bytes>& elements) {
    Bytes value(2 + 4 * elements.size());
    for (std::size_t i = 0; i < elements.size(); ++i) {
      writeSlot(&value[2 + 4 * i], {static_cast<unsigned>(value.size()),
                                    static_cast<unsigned>(elements[i].size()), false});
      value = value + elements[i];
    }
    change([&](SpaceModel& m) { m.putArray(at, value, elements.size(), true); });
  }
  void writeArray(len_t at, const std::vector<bool>& flags) {
    Bytes value(2);
    for (const bool flag : flags) value.push_back(flag ? 1 : 0);
    change([&](SpaceModel& m) { m.putArray(at, value, flags.size(), false); });
  }

  std::size_t makeFreeSpace(len_t at, std::size_t needed) {
    std::size_t offset = 0;
    change([&](SpaceModel& m) { offset = m.room(at, needed); });
    return offset;
  }

  /// Fills the room that was made.
  void fill(len_t at, std::size_t offset, const Bytes& value, bool array) {
    change([&](SpaceModel& m) { m.store(at, offset, value, array); });
  }

  void clearSlot(len_t at) {
    change([&](SpaceModel& m) { m.setSlot(at, {0, 0, m.slot(at).array}); });
  }

  std::size_t compact() {
    std::size_t end = 0;
    change([&](SpaceModel& m) { end = m.pack(); });
    return end;
  }

  std::size_t move(len_t at, std::size_t to) {
    std::size_t end = 0;
    change([&](SpaceModel& m) { end = m.moveColumn(at, to); });
    return end;
  }

  void clearRow() { std::fill(row_.begin() + 4, row_.end(), byte_t{0}); }
  void setByte(std::size_t at, byte_t value) { row_[at] = value; }

 private:
  template <typename Change>
  void change(Change make) {
    SpaceModel changed = *this;
    make(changed);
    *this = std::move(changed);
  }

  void setSlot(len_t at, const Slot& value) { writeSlot(row_.data() + at, value); }

  void grow(std::size_t length) {
    if (length > kMaxRowLen) throw TooLong();
    row_.resize(length, 0);  // what growth gains is zero until it is written
    storeField<len_t>(row_.data(), static_cast<len_t>(length));
  }

  void store(len_t at, std::size_t offset, const Bytes& value, bool array) {
    std::copy(value.begin(), value.end(), row_.begin() + static_cast<std::ptrdiff_t>(offset));
    setSlot(at, {static_cast<unsigned>(offset), static_cast<unsigned>(value.size()), array});
  }

  void put(len_t at, const Bytes& value, bool array) {
    if (value.empty()) return setSlot(at, {0, 0, slot(at).array});
    if (value.size() > kMaxValueLen) throw TooLong();
    store(at, room(at, value.size()), value, array);
  }

  /// The header's three highest bits stay as they are in the buffer.
  void putArray(len_t at, Bytes value, std::size_t count, bool variable) {
    if (count == 0) return setSlot(at, {0, 0, slot(at).array});
    if (value.size() > kMaxValueLen) throw TooLong();
    const std::size_t offset = room(at, value.size());
    value[0] = static_cast<byte_t>(count);
    value[1] = static_cast<byte_t>((row_[offset + 1] & 0xE0u) | (variable ? 0x10u : 0u) |
                                   ((count / 256) & 0x0Fu));
    store(at, offset, value, true);
  }

  std::size_t room(len_t at, std::size_t needed) {
    // Over the present value, where the new one is not longer.
    const Slot own = slot(at);
    if (own.length != 0 && needed <= own.length) return own.offset;
    setSlot(at, {0, 0, own.array});

    // A row that does not know all its columns only appends.
    if (!fullyDefined) {
      const std::size_t end = row_.size();
      grow(end + needed);
      return end;
    }

    const auto length = static_cast<long>(needed);
    long free = size() - base_;
    long end = base_;
    for (const len_t listed : slots_) {
      const Slot s = slot(listed);
      if (s.length == 0) continue;
      free -= static_cast<long>(s.length);
      end = std::max(end, static_cast<long>(s.offset + s.length));
    }
    if (length <= size() - end) return static_cast<std::size_t>(end);
    if (length >= free) {
      grow(static_cast<std::size_t>(size() + length - free));
      if (length <= size() - end) return static_cast<std::size_t>(end);
    }
    return pack();
  }

  /// Closes the gaps, in the order of the values. Of columns with one place, the last listed keeps
  /// it; columns without a value have none.
  std::size_t pack() {
    std::map<std::size_t, len_t> columns;
    for (const len_t listed : slots_) {
      const Slot s = slot(listed);
      if (s.offset != 0 && s.length != 0) columns[s.offset] = listed;
    }
    std::size_t end = base_;
    for (const auto& [offset, listed] : columns) {
      end = offset <= end ? end + slot(listed).length : moveColumn(listed, end);
    }
    return end;
  }

  std::size_t moveColumn(len_t at, std::size_t to) {
    const Slot s = slot(at);
    if (s.length == 0) return to;
    const Bytes moved = value(at);
    std::copy(moved.begin(), moved.end(), row_.begin() + static_cast<std::ptrdiff_t>(to));
    setSlot(at, {static_cast<unsigned>(to), s.length, s.array});
    return to + s.length;
  }

  long size() const { return static_cast<long>(row_.size()); }

  Bytes row_;
  len_t base_;
  std::vector<len_t> slots_;
};

}  // namespace rowtest
