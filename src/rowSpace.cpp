// The variable area of rows: where values find room, and how it is packed. Every value that is
// written comes through makePlace().

#include <Korvo/baseRow.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace Korvo {
namespace {

using Slots = std::span<const len_t>;

// ---------------------------------------------------------------------------------------------
// Packing

/// The length and the array mark stay.
void storeOffset(byte_t* buf, len_t slotOffset, len_t dataOffset) {
  storeField(VColType::at(buf, slotOffset).offsetBytes, dataOffset);
}

/// The columns that hold data, by data offset. Columns without data have none to move, whatever
/// offset their slots still name.
class PackingOrder {
 public:
  /// Ordinary rows have fewer columns, and need no allocation.
  static constexpr std::size_t ordinaryCount = 64;

  /// `without` names a slot that is about to be cleared, or is 0.
  PackingOrder(const byte_t* buf, Slots slots, len_t without) {
    begin_ = few_.data();
    if (slots.size() >= ordinaryCount) {
      many_.resize(slots.size() + 1);
      begin_ = many_.data();
    }
    end_ = begin_;
    for (const len_t slotOffset : slots) {
      const VColType slot = VColType::at(buf, slotOffset);
      if (slotOffset == without || slot.length() == 0 || slot.offset() == 0) continue;
      *end_++ = {slot.offset(), slotOffset, slot.length()};
    }
    const auto isBefore = [](const Entry& a, const Entry& b) {
      return a.dataOffset < b.dataOffset;
    };
    // Mostly one value alone is out of order, which merging makes use of.
    if (!std::is_sorted(begin_, end_, isBefore)) std::stable_sort(begin_, end_, isBefore);
    *end_ = {};
  }
  PackingOrder(const PackingOrder&) = delete;
  PackingOrder& operator=(const PackingOrder&) = delete;

  struct Entry {
    len_t dataOffset;
    len_t slotOffset;
    len_t length;

    /// Of columns that claim the same data, the last keeps it.
    bool keepsData() const { return dataOffset != (this + 1)->dataOffset; }
  };
  const Entry* begin() const { return begin_; }
  const Entry* end() const { return end_; }

  /// Whether packing moves nothing.
  bool isPacked(len_t baseRowLength) const {
    len_t position = baseRowLength;
    for (const Entry& column : *this) {
      if (!column.keepsData()) continue;
      if (column.dataOffset > position) return false;
      position = static_cast<len_t>(position + column.length);
    }
    return true;
  }

 private:
  std::array<Entry, ordinaryCount> few_;  // one more than columns, of offset 0, stands at the end
  std::vector<Entry> many_;
  Entry* begin_;
  Entry* end_;
};

/// Packs a buffer that may be written.
len_t pack(byte_t* buf, const PackingOrder& order, len_t baseRowLength) {
  len_t position = baseRowLength;
  for (const PackingOrder::Entry& column : order) {
    if (!column.keepsData()) continue;
    if (column.dataOffset > position) {
      detail::moveBytes(buf + position, buf + column.dataOffset, column.length);
      storeOffset(buf, column.slotOffset, position);
    }
    position = static_cast<len_t>(position + column.length);
  }
  return position;
}

// ---------------------------------------------------------------------------------------------

void requireBaseLength(len_t baseRowLength) {
  KORVO_ASSERT(baseRowLength != 0, "baseRowLength != 0", "src/baseRow.cpp",
               "Korvo::len_t Korvo::BaseRow::makeFreeSpace(Korvo::len_t, Korvo::len_t, "
               "Korvo::len_t)");
}

/// Out of the way of the writes that succeed.
[[noreturn, gnu::noinline]] void refuse(const char* reason, std::size_t length) {
  throw KoOutOfRange(reason + std::to_string(length));
}

/// A length that a row can have.
len_t checkedRowLength(std::size_t length) {
  if (length > maxRowLength) refuse("Row length exceeds 65535 bytes: ", length);
  return static_cast<len_t>(length);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Finding room

/// The place that the values of all columns but one take.
detail::Extent BaseRow::extentWithout(const byte_t* buf, Slots slots, len_t slotOffset,
                                      len_t baseRowLength) {
  detail::Extent others{baseRowLength};
  for (const len_t slot : slots) {
    if (slot != slotOffset) others.add(VColType::at(buf, slot));
  }
  return others;
}

Slots BaseRow::slotsOf(const Known& known) const {
  return known.slots.empty() ? Slots(vcd()) : known.slots;
}

/// Where a value goes.
struct BaseRow::Room {
  enum class Kind : byte_t {
    ofPresentValue,   ///< over the column's present value
    behindAll,        ///< behind the other values, in a row that may have to grow
    behindPackedData  ///< as before, and the others have to be packed; `offset` is not known yet
  };
  Kind kind;
  len_t offset;
  len_t rowLength;  ///< of the row that has the room
  bool movesRow;    ///< whether the row's bytes may come to stand elsewhere
};

/// Decides before anything changes, and alone. The order of the choices is part of the contract:
/// reuse in place, append at the used end, grow by only the shortfall, pack only when that is still
/// not enough. Rows that are not fully defined reuse in place or append at the row's end.
BaseRow::Room BaseRow::findRoom(const byte_t* buf, const Demand& demand, const Known& known) const {
  using Kind = Room::Kind;
  const std::size_t needed = demand.length;
  const VColType& own = VColType::at(buf, demand.slotOffset);
  const len_t rowLength = loadField<len_t>(buf + rowLengthOffset);
  if (own.length() != 0 && needed <= own.length()) {
    return {Kind::ofPresentValue, own.offset(), rowLength, false};
  }
  if (!isFullyDefined()) {
    return {Kind::behindAll, rowLength, checkedRowLength(rowLength + needed), true};
  }
  const detail::Extent others =
      known.others != nullptr
          ? *known.others
          : extentWithout(buf, slotsOf(known), demand.slotOffset, demand.baseLength);
  const std::size_t end = others.end + needed;
  if (end <= rowLength) return {Kind::behindAll, static_cast<len_t>(others.end), rowLength, false};
  // What the row is to have room for when it is packed. Columns that share their data count twice.
  const std::size_t packedLength = demand.baseLength + others.used + needed;
  const len_t newLength = checkedRowLength(std::max<std::size_t>(rowLength, packedLength));
  const Kind kind = end <= newLength ? Kind::behindAll : Kind::behindPackedData;
  return {kind, static_cast<len_t>(others.end), newLength, true};
}

/// Every allocation comes before the first change, so a failed one leaves the row as it was.
/// Afterwards `buf` is the row's buffer.
len_t BaseRow::takeRoom(byte_t*& buf, const Room& room, const Demand& demand, const Known& known) {
  if (room.kind != Room::Kind::behindPackedData) {
    buf = grow(buf, room.rowLength);
    return room.offset;
  }
  const PackingOrder order(buf, slotsOf(known), demand.slotOffset);
  buf = grow(buf, room.rowLength);
  return pack(buf, order, demand.baseLength);
}

/// Makes the row at least `newLength` bytes long, and returns its buffer, which may be another. The
/// bytes gained are zero: nothing of the heap's old contents may leave the process with the row.
byte_t* BaseRow::grow(byte_t* buf, len_t newLength) {
  const len_t length = loadField<len_t>(buf + rowLengthOffset);
  if (newLength <= length) return buf;
  buf = resize(buf, newLength);
  std::memset(buf + length, 0, newLength - std::size_t{length});
  storeField(buf + rowLengthOffset, newLength);
  return buf;
}

/// Gives the row's block another size. Returns its buffer, which is what its class makes of it.
byte_t* BaseRow::resize(byte_t* buf, std::size_t size) {
  auto* const block = static_cast<byte_t*>(std::realloc(buf, size));
  if (block == nullptr) throw std::bad_alloc();
  replaceRow(block);
  return rwRowBuf();
}

// ---------------------------------------------------------------------------------------------
// Taking it

/// Makes a row the sole holder of its buffer while room is taken in it: one look at the use count
/// decides. What a shared row gives up is given back on a throw.
class BaseRow::SoleBuffer {
 public:
  SoleBuffer(BaseRow& row, bool isCopied) : row_(row), isCopied_(isCopied) {
    if (isCopied) former_ = row.copyBuffer();
  }
  ~SoleBuffer() {
    if (isCopied_) row_.rowBuf_ = std::move(former_);
  }
  SoleBuffer(const SoleBuffer&) = delete;
  SoleBuffer& operator=(const SoleBuffer&) = delete;

  /// Ends the guard; returns what was given up.
  KoPtr<KoRowBuf> keep() {
    isCopied_ = false;
    return std::move(former_);
  }

 private:
  BaseRow& row_;
  KoPtr<KoRowBuf> former_;
  bool isCopied_;
};

[[gnu::flatten]] BaseRow::Place BaseRow::makePlace(const Demand& demand, const Known& known) {
  const byte_t* const present = rowBuf();
  requireBaseLength(demand.baseLength);
  if (demand.length > maxValueLength) {
    refuse("Encoded value exceeds 32767 bytes: ", demand.length);
  }
  const Room room = findRoom(present, demand, known);
  // A value that refers into a row that may move stays readable in the former buffer.
  const bool isCopied = !isSoleHolder() || (room.movesRow && refersInto(present, demand.source));
  SoleBuffer own(*this, isCopied);
  byte_t* buf = rwRowBuf();
  const len_t offset = takeRoom(buf, room, demand, known);
  return {buf, offset, own.keep()};
}

void BaseRow::write(len_t slotOffset, const detail::EncodedValue& value, len_t fdLen,
                    const Known& known) {
  write<detail::EncodedValue>(slotOffset, value, fdLen, known);
}

// ---------------------------------------------------------------------------------------------
// Room by hand

len_t BaseRow::makeFreeSpace(len_t slotOffset, len_t needed, len_t baseRowLength) {
  requireBaseLength(baseRowLength);
  const Demand demand{slotOffset, needed, {}, baseRowLength};
  byte_t* buf = rwRowBuf();
  const Room room = findRoom(buf, demand, {});
  if (room.kind == Room::Kind::behindPackedData) {
    buf = exclusiveBuf();  // as moving a column does
  }
  const len_t offset = takeRoom(buf, room, demand, {});
  if (room.kind != Room::Kind::ofPresentValue) VColType::at(buf, slotOffset).clear();
  return offset;
}

/// Copies a shared buffer only if anything has to be moved.
len_t BaseRow::compactVariableData(len_t baseRowLength) {
  byte_t* buf = rowBuf();
  const PackingOrder order(buf, vcd(), 0);
  if (!order.isPacked(baseRowLength)) buf = exclusiveBuf();
  return pack(buf, order, baseRowLength);
}

len_t BaseRow::moveVariableColumn(VColType* slot, len_t slotOffset, len_t to) {
  const len_t from = slot->offset();
  const len_t length = slot->length();
  if (length == 0) return to;
  byte_t* const buf = exclusiveBuf();
  detail::moveBytes(buf + to, buf + from, length);
  storeOffset(buf, slotOffset, to);
  return static_cast<len_t>(to + length);
}

varFieldMap::varFieldMap(const BaseRow& row) {
  const byte_t* const buf = row.rowBuf();
  for (const len_t slotOffset : row.vcd()) {
    const len_t dataOffset = VColType::at(buf, slotOffset).offset();
    if (dataOffset != 0) (*this)[dataOffset] = slotOffset;
  }
}

}  // namespace Korvo
