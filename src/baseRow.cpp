#include <Korvo/baseRow.h>

#include <Korvo/KoStrUtils.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <new>
#include <ostream>
#include <utility>

namespace Korvo {
namespace {

constexpr const char* thisFile = "src/baseRow.cpp";

void storeValue(byte_t* buf, len_t slotOffset, len_t offset, const detail::EncodedValue& value,
                bool isArray) {
  value.store(buf + offset);
  VColType::at(buf, slotOffset).valueIs(offset, static_cast<len_t>(value.length()), isArray);
}

/// The length and the array mark stay.
void storeOffset(byte_t* buf, len_t slotOffset, len_t dataOffset) {
  storeField(VColType::at(buf, slotOffset).offsetBytes, dataOffset);
}

bool liesIn(const byte_t* at, const byte_t* buf, std::size_t length) {
  const auto address = reinterpret_cast<std::uintptr_t>(at);
  const auto begin = reinterpret_cast<std::uintptr_t>(buf);
  return address >= begin && address - begin < length;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Ownership

void BaseRow::throwNullRow() {
  throw KoNullRow();
}

void BaseRow::replaceRow(byte_t* buf) {
  if (!rowBuf_) throwNullRow();
  rowBuf_->buf_ = buf;
}

void BaseRow::shareContents(const BaseRow& other) {
  rowBuf_ = other.rowBuf_;
}

void BaseRow::nullifyRow() {
  rowBuf_.reset();
}

/// Copy-on-write: afterwards this row is the only holder of its buffer. Returns the buffer that it
/// gave up, or null when there was nothing to do.
KoPtr<KoRowBuf> BaseRow::makeExclusive() {
  if (isSoleHolder()) return nullptr;
  const byte_t* const shared = rowBuf();
  const len_t length = loadField<len_t>(shared);
  KoPtr<KoRowBuf> own = std::make_shared<KoRowBuf>();
  own->buf_ = static_cast<byte_t*>(std::malloc(length));
  if (own->buf_ == nullptr) throw std::bad_alloc();
  std::memcpy(own->buf_, shared, length);
  rowBuf_.swap(own);
  return own;
}

void BaseRow::copySharedRow() {
  makeExclusive();
}

void BaseRow::installNew(len_t length, std::uint16_t rowType, oid_t oid) {
  KoPtr<KoRowBuf> own = std::make_shared<KoRowBuf>();
  byte_t* const buf = static_cast<byte_t*>(std::calloc(length, 1));
  if (buf == nullptr) throw std::bad_alloc();
  own->buf_ = buf;
  storeField<len_t>(buf + rowLengthOffset, length);
  storeField<std::uint16_t>(buf + rowTypeOffset, rowType);
  storeField<oid_t>(buf + rowOidOffset, oid);
  rowBuf_ = std::move(own);
}

void BaseRow::installCopy(const void* bytes, std::size_t length, len_t baseLength,
                          std::uint16_t rowType) {
  const auto refuse = [](const std::string& reason) {
    throw KoInvalidArgument("Invalid Row - (" + reason + ")");
  };
  if (length < rowHeaderLength) refuse("no room for a header");
  const len_t said = loadField<len_t>(static_cast<const byte_t*>(bytes) + rowLengthOffset);
  if (said != length) {
    refuse("header says " + std::to_string(said) + " bytes, received " + std::to_string(length));
  }
  if (length < baseLength) refuse("shorter than the table's columns");
  KoPtr<KoRowBuf> own = std::make_shared<KoRowBuf>();
  own->buf_ = static_cast<byte_t*>(std::malloc(length));
  if (own->buf_ == nullptr) throw std::bad_alloc();
  std::memcpy(own->buf_, bytes, length);
  // The bytes may stand in shared memory: the length that was checked is the one that counts.
  storeField<len_t>(own->buf_ + rowLengthOffset, said);
  if (loadField<std::uint16_t>(own->buf_ + rowTypeOffset) != rowType) refuse("another row type");
  rowBuf_ = std::move(own);
}

void BaseRow::clearRow() {
  if (isNull()) return;
  if (!isSoleHolder()) makeExclusive();
  byte_t* const buf = rwRowBuf();
  std::memset(buf + rowOidOffset, 0, loadField<len_t>(buf) - std::size_t{rowOidOffset});
}

// ---------------------------------------------------------------------------------------------
// What the table's row class tells

bool BaseRow::isFullyDefined() const {
  return false;
}

std::string BaseRow::toJson() const {
  return {};
}

// ---------------------------------------------------------------------------------------------
// The variable area

/// Where a value goes, decided before anything changes.
struct BaseRow::Room {
  enum class Place : byte_t {
    ofPresentValue,   ///< over the column's present value
    atOffset,         ///< at `offset`
    behindPackedData  ///< `offset` is known only after packing
  };
  Place place;
  unsigned int offset;
  unsigned int rowLength;  ///< of the row that has the room
};

/// The columns that hold data, by data offset. Columns without data have none to move, whatever
/// offset their slots still name.
class BaseRow::PackingOrder {
 public:
  /// Ordinary rows have fewer columns, and need no allocation.
  static constexpr std::size_t ordinaryCount = 64;

  /// `without` names a slot that is about to be cleared, or is 0.
  PackingOrder(const byte_t* buf, Slots slots, len_t without, len_t baseRowLength) {
    begin_ = few_.data();
    if (slots.size() >= ordinaryCount) {
      many_.resize(slots.size() + 1);
      begin_ = many_.data();
    }
    Entry* end = begin_;
    detail::Extent extent{baseRowLength};
    std::uint64_t place = 0;
    std::uint64_t last = 0;
    bool isSorted = true;
    for (const len_t slotOffset : slots) {
      ++place;
      if (slotOffset == without) continue;
      const VColType slot = VColType::at(buf, slotOffset);
      extent.add(slot);
      if (slot.length() == 0 || slot.offset() == 0) continue;
      end->bits = std::uint64_t{slot.offset()} << 48 | place << 32 |
                  std::uint64_t{slotOffset} << 16 | slot.length();
      isSorted = isSorted && end->bits > last;
      last = end++->bits;
    }
    end_ = end;
    extent_ = extent;
    // Mostly one value alone is out of order, which merging makes use of.
    if (!isSorted) {
      std::stable_sort(begin_, end_,
                       [](const Entry& a, const Entry& b) { return a.bits < b.bits; });
    }
    end_->bits = 0;
  }
  PackingOrder(const PackingOrder&) = delete;
  PackingOrder& operator=(const PackingOrder&) = delete;

  /// From its highest bits to its lowest: data offset, place in the list of slots (columns with one
  /// offset stay in column order), slot offset, length.
  struct Entry {
    std::uint64_t bits;

    len_t dataOffset() const { return static_cast<len_t>(bits >> 48); }
    len_t slotOffset() const { return static_cast<len_t>(bits >> 16); }
    len_t length() const { return static_cast<len_t>(bits); }
    /// Of columns that claim the same data, the last keeps it.
    bool keepsData() const { return dataOffset() != (this + 1)->dataOffset(); }
  };
  const Entry* begin() const { return begin_; }
  const Entry* end() const { return end_; }

  /// The place that the values take.
  const detail::Extent& extent() const { return extent_; }

  /// Whether packing moves nothing.
  bool isPacked(len_t baseRowLength) const {
    len_t position = baseRowLength;
    for (const Entry& column : *this) {
      if (!column.keepsData()) continue;
      if (column.dataOffset() > position) return false;
      position = static_cast<len_t>(position + column.length());
    }
    return true;
  }

 private:
  detail::Extent extent_{0};
  std::array<Entry, ordinaryCount> few_;  // one more than columns, of offset 0, stands at the end
  std::vector<Entry> many_;
  Entry* begin_;
  Entry* end_;
};

varFieldMap::varFieldMap(const BaseRow& row) {
  const byte_t* const buf = row.rowBuf();
  for (const len_t slotOffset : row.vcd()) {
    const len_t dataOffset = VColType::at(buf, slotOffset).offset();
    if (dataOffset != 0) (*this)[dataOffset] = slotOffset;
  }
}

namespace {

/// Adds a row's bytes and a value's; throws where no row is as long.
inline unsigned int checkedRowLength(unsigned int length) {
  if (length > maxRowLength) throw KoOutOfRange("Row length exceeds 65535 bytes");
  return length;
}

/// The length of a row that has room for a value behind `others`, or among them if they are
/// packed.
unsigned int lengthWithRoom(unsigned int rowLength, std::size_t valueLength,
                            unsigned int baseLength, const detail::Extent& others) {
  const unsigned int needed = static_cast<unsigned int>(valueLength);
  if (others.end + needed <= rowLength) return rowLength;
  const int free = static_cast<int>(rowLength - baseLength - others.used);
  const int shortfall = static_cast<int>(needed) - free;
  if (shortfall < 0) return rowLength;
  return checkedRowLength(rowLength + static_cast<unsigned int>(shortfall));
}

/// How far a row that grows need not be zeroed, because a value fills its place behind `others`.
/// Where these claim to end beyond the row, as they may in one that was not checked, it does not
/// fill what lies between.
unsigned int filledEnd(unsigned int rowLength, const detail::Extent& others, std::size_t length) {
  return others.end <= rowLength ? others.end + static_cast<unsigned int>(length) : 0;
}

}  // namespace

/// The place that the values of all columns but one take.
detail::Extent BaseRow::extentWithout(const byte_t* buf, len_t slotOffset,
                                      len_t baseRowLength) const {
  detail::Extent others{baseRowLength};
  for (const len_t slot : vcd()) {
    if (slot != slotOffset) others.add(VColType::at(buf, slot));
  }
  return others;
}

/// The order of the choices is part of the contract: reuse in place, append at the used end, grow
/// by only the shortfall, pack only when that is still not enough. Rows that are not fully defined
/// reuse in place or append at the row's end.
BaseRow::Room BaseRow::findRoom(const byte_t* buf, len_t slotOffset, len_t needed,
                                len_t baseRowLength) const {
  using Place = Room::Place;
  const VColType& own = VColType::at(buf, slotOffset);
  const unsigned int rowLength = loadField<len_t>(buf + rowLengthOffset);
  if (own.length() != 0 && needed <= own.length()) {
    return {Place::ofPresentValue, own.offset(), rowLength};
  }
  if (!isFullyDefined()) {
    return {Place::atOffset, rowLength, checkedRowLength(rowLength + needed)};
  }
  return roomBeside(extentWithout(buf, slotOffset, baseRowLength), rowLength, needed,
                    baseRowLength);
}

/// Room in a fully defined row for a value that does not fit its column's present place.
BaseRow::Room BaseRow::roomBeside(const detail::Extent& others, unsigned int rowLength,
                                  std::size_t needed, len_t baseRowLength) {
  const unsigned int newLength = lengthWithRoom(rowLength, needed, baseRowLength, others);
  const bool fitsBehind = others.end + needed <= newLength;
  return {fitsBehind ? Room::Place::atOffset : Room::Place::behindPackedData, others.end,
          newLength};
}

/// Every allocation comes before the first change, so a failed one leaves the row as it was.
len_t BaseRow::takeRoom(const Room& room, len_t slotOffset, len_t baseRowLength) {
  byte_t* const buf = rwRowBuf();
  const len_t offset = static_cast<len_t>(room.offset);
  const len_t newLength = static_cast<len_t>(room.rowLength);
  switch (room.place) {
    case Room::Place::ofPresentValue:
      return offset;
    case Room::Place::atOffset:
      grow(buf, newLength);
      VColType::at(rwRowBuf(), slotOffset).clear();
      return offset;
    case Room::Place::behindPackedData:
      break;
  }
  const PackingOrder order(buf, vcd(), slotOffset, baseRowLength);
  grow(buf, newLength);
  VColType::at(rwRowBuf(), slotOffset).clear();
  return compact(order, baseRowLength);
}

/// Makes the row at least `newLength` bytes long, which may give it another buffer; see lengthen().
void BaseRow::grow(byte_t* buf, len_t newLength, unsigned int filledEnd) {
  if (newLength <= loadField<len_t>(buf + rowLengthOffset)) return;
  byte_t* const grown = static_cast<byte_t*>(std::realloc(buf, newLength));
  if (grown == nullptr) throw std::bad_alloc();
  replaceRow(grown);
  lengthen(grown, newLength, filledEnd);
}

/// Makes the row `newLength` bytes long, for which its block has room. The caller fills the bytes
/// before `filledEnd`, and all behind them are zero: nothing of the heap's old contents may leave
/// the process with the row.
void BaseRow::lengthen(byte_t* buf, len_t newLength, unsigned int filledEnd) {
  const unsigned int begin =
      std::max<unsigned int>(loadField<len_t>(buf + rowLengthOffset), filledEnd);
  if (begin < newLength) std::memset(buf + begin, 0, newLength - begin);
  storeField<len_t>(buf + rowLengthOffset, newLength);
}

len_t BaseRow::makeFreeSpace(len_t slotOffset, len_t needed, len_t baseRowLength) {
  KORVO_ASSERT(baseRowLength != 0, "baseRowLength != 0", thisFile,
               "Korvo::len_t Korvo::BaseRow::makeFreeSpace(Korvo::len_t, Korvo::len_t, "
               "Korvo::len_t)");
  const byte_t* const buf = rwRowBuf();  // room is only ever made in a row that may be written
  return takeRoom(findRoom(buf, slotOffset, needed, baseRowLength), slotOffset, baseRowLength);
}

len_t BaseRow::compactVariableData(len_t baseRowLength) {
  return compact(PackingOrder(rowBuf(), vcd(), 0, baseRowLength), baseRowLength);
}

/// Copies a shared buffer only if anything has to be moved.
len_t BaseRow::compact(const PackingOrder& order, len_t baseRowLength) {
  if (!isSoleHolder()) {
    if (order.isPacked(baseRowLength)) return pack(rowBuf(), order, baseRowLength);
    makeExclusive();
  }
  return pack(rwRowBuf(), order, baseRowLength);
}

/// Packs a buffer that may be written. Values that stand one behind the other are moved at once.
len_t BaseRow::pack(byte_t* buf, const PackingOrder& order, len_t baseRowLength) {
  len_t position = baseRowLength;
  unsigned int runBegin = 0;
  unsigned int runEnd = 0;
  const auto moveRun = [&] {
    const unsigned int length = runEnd - runBegin;
    if (length != 0) std::memmove(buf + position - length, buf + runBegin, length);
  };
  for (const PackingOrder::Entry& column : order) {
    if (!column.keepsData()) continue;
    const unsigned int from = column.dataOffset();
    if (from != runEnd) {
      moveRun();
      runBegin = runEnd = from;
    }
    if (from > position) {
      storeOffset(buf, column.slotOffset(), position);
      runEnd += column.length();
    } else {
      runBegin = runEnd;
    }
    position = static_cast<len_t>(position + column.length());
  }
  moveRun();
  return position;
}

len_t BaseRow::moveVariableColumn(VColType* slot, len_t slotOffset, len_t to) {
  const len_t from = slot->offset();
  const len_t length = slot->length();
  if (length == 0) return to;
  if (!isSoleHolder()) makeExclusive();
  byte_t* const buf = rwRowBuf();
  detail::moveBytes(buf + to, buf + from, length);
  storeOffset(buf, slotOffset, to);
  return static_cast<len_t>(to + length);
}

// ---------------------------------------------------------------------------------------------
// Writers

void BaseRow::failSetColumn(const char* type, bool isArray) {
  const std::string value = isArray ? "const std::vector<T>&" : "const T&";
  const std::string signature = "void Korvo::BaseRow::setColumn(Korvo::len_t, " + value +
                                ", Korvo::len_t) [with T = " + type +
                                "; Korvo::len_t = short unsigned int]";
  detail::assertionFailed("fdLen != 0", thisFile, __LINE__, signature.c_str());
}

/// Room for `needed` bytes in a buffer that is this row's alone. All that can fail comes before the
/// first change, or is undone: on a throw the row is as before and still shares its buffer.
/// `former` is the buffer that was given up; while it is held, what refers into it stays readable.
len_t BaseRow::makeExclusiveRoom(len_t slotOffset, std::size_t needed, len_t fdLen,
                                 KoPtr<KoRowBuf>& former) {
  if (needed > maxValueLength) throw KoOutOfRange("Encoded value exceeds 32767 bytes");
  KORVO_ASSERT(fdLen != 0, "baseRowLength != 0", thisFile,
               "Korvo::len_t Korvo::BaseRow::makeFreeSpace(Korvo::len_t, Korvo::len_t, "
               "Korvo::len_t)");
  const Room room = findRoom(rowBuf(), slotOffset, static_cast<len_t>(needed), fdLen);
  if (isSoleHolder()) return takeRoom(room, slotOffset, fdLen);
  former = makeExclusive();
  try {
    return takeRoom(room, slotOffset, fdLen);
  } catch (...) {
    rowBuf_ = former;
    throw;
  }
}

void BaseRow::clearColumn(len_t slotOffset) {
  if (!isSoleHolder()) makeExclusive();
  VColType::at(rwRowBuf(), slotOffset).clear();
}

void BaseRow::writeValue(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value,
                         bool isArray) {
  const std::size_t length = value.length();
  if (length == 0) return clearColumn(slotOffset);
  const byte_t* const buf = rowBuf();
  if (liesIn(value.bytes, buf, loadField<len_t>(buf + rowLengthOffset))) [[unlikely]] {
    return writeCopied(slotOffset, fdLen, value, isArray);
  }
  const VColType& present = VColType::at(buf, slotOffset);
  if (length <= present.length() && fdLen != 0) {
    const len_t offset = present.offset();
    if (!isSoleHolder()) makeExclusive();
    return storeValue(rwRowBuf(), slotOffset, offset, value, isArray);
  }
  KoPtr<KoRowBuf> former;
  const len_t offset = makeExclusiveRoom(slotOffset, length, fdLen, former);
  storeValue(rwRowBuf(), slotOffset, offset, value, isArray);
}

/// Writes a value that stands in this very buffer, where it would move under the writer's hands.
void BaseRow::writeCopied(len_t slotOffset, len_t fdLen, detail::EncodedValue value, bool isArray) {
  const std::vector<byte_t> copy(value.bytes, value.bytes + value.byteCount);
  value.bytes = copy.data();
  writeValue(slotOffset, fdLen, value, isArray);
}

/// The offset behind `others`, in a row that was grown to have room for `length` bytes there if it
/// had none; 0 where others must be packed first. `filled` says that the value fills its place.
len_t BaseRow::growBehind(const detail::Extent& others, std::size_t length, len_t fdLen,
                          bool filled) {
  byte_t* const buf = BaseRow::rwRowBuf();
  const unsigned int rowLength = loadField<len_t>(buf + rowLengthOffset);
  const Room room = roomBeside(others, rowLength, length, fdLen);
  if (room.place != Room::Place::atOffset) return 0;
  grow(buf, static_cast<len_t>(room.rowLength), filled ? filledEnd(rowLength, others, length) : 0);
  return static_cast<len_t>(room.offset);
}

/// Writes a value to an empty column of a row that nobody shares and that has no room for it behind
/// its other values.
void BaseRow::growForValue(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value,
                           const detail::Extent& others, Slots slots) {
  const byte_t* const buf = BaseRow::rwRowBuf();
  if (!liesIn(value.bytes, buf, loadField<len_t>(buf + rowLengthOffset))) {
    const len_t offset = growBehind(others, value.length(), fdLen, true);
    if (offset != 0) return storeValue(BaseRow::rwRowBuf(), slotOffset, offset, value, false);
  }
  writeLonger(slotOffset, fdLen, value, slots);
}

/// Writes a value that is longer than the column's present one to a row that nobody shares, with
/// one look at the slots.
void BaseRow::writeLonger(len_t slotOffset, len_t fdLen, const detail::EncodedValue& value,
                          Slots slots) {
  byte_t* const buf = BaseRow::rwRowBuf();
  const unsigned int rowLength = loadField<len_t>(buf + rowLengthOffset);
  if (slots.size() >= PackingOrder::ordinaryCount || liesIn(value.bytes, buf, rowLength)) {
    return writeValue(slotOffset, fdLen, value, false);
  }
  const PackingOrder order(buf, slots, slotOffset, fdLen);
  const Room room = roomBeside(order.extent(), rowLength, value.length(), fdLen);
  grow(buf, static_cast<len_t>(room.rowLength));
  byte_t* const grown = BaseRow::rwRowBuf();
  const len_t offset = room.place == Room::Place::atOffset ? static_cast<len_t>(room.offset)
                                                           : pack(grown, order, fdLen);
  storeValue(grown, slotOffset, offset, value, false);
}

void BaseRow::copyVarColumn(len_t srcSlotOffset, const BaseRow& src, len_t dstSlotOffset,
                            len_t fdLen) {
  const byte_t* const from = src.rowBuf();
  const VColType slot = VColType::at(from, srcSlotOffset);
  if (slot.length() != 0) {
    writeValue(dstSlotOffset, fdLen, {from + slot.offset(), slot.length()}, slot.isArray());
  } else {
    makeExclusive();
    VColType::at(rwRowBuf(), dstSlotOffset).valueIs(0, 0, slot.isArray());
  }
}

byte_t* BaseRow::arrayRoom(len_t slotOffset, std::size_t length, len_t fdLen) {
  KoPtr<KoRowBuf> former;
  const len_t offset = makeExclusiveRoom(slotOffset, length, fdLen, former);
  byte_t* const buf = rwRowBuf();
  VColType::at(buf, slotOffset).valueIs(offset, static_cast<len_t>(length), true);
  return buf + offset;
}

// ---------------------------------------------------------------------------------------------
// Writing many columns

RowWriter::RowWriter(BaseRow& row, len_t fdLen)
    : row_(row), baseLength_(fdLen), fullyDefined_(row.isFullyDefined()) {
  KORVO_ASSERT(fdLen != 0, "fdLen != 0", thisFile,
               "Korvo::RowWriter::RowWriter(Korvo::BaseRow&, Korvo::len_t)");
}

RowWriter::~RowWriter() {
  giveBack();
}

/// Most rows are shorter: their blocks become larger only once.
constexpr std::size_t ordinaryRowLength = 512;

/// Room for `length` bytes behind all values, for a column that is empty: its offset, or 0 where
/// the row's own writer has to decide. Its decision is made here where nothing but the column
/// itself changes, with what this writer knows of the others. `value`, if it is not null, is what
/// will fill the room.
len_t RowWriter::roomBehind(len_t slotOffset, std::size_t length, const byte_t* value) {
  if (!fullyDefined_ || length == 0 || length > maxValueLength || !row_.isSoleHolder()) return 0;
  byte_t* const buf = row_.rwRowBuf();
  if (VColType::at(buf, slotOffset).length() != 0) return 0;
  if (!extentIsKnown_) extent_ = row_.extentWithout(buf, slotOffset, baseLength_);
  extentIsKnown_ = true;
  const unsigned int rowLength = loadField<len_t>(buf + rowLengthOffset);
  const unsigned int newLength = lengthWithRoom(rowLength, length, baseLength_, extent_);
  const unsigned int offset = extent_.end;
  if (offset + length > newLength) return 0;
  if (newLength > rowLength) {
    if (value != nullptr && liesIn(value, buf, rowLength)) return 0;
    if (newLength > blockLength_ || !hasLargerBlock()) {
      // Room for as much again, so that all growth together copies each byte a few times only.
      const std::size_t larger =
          std::min(std::max<std::size_t>(2 * newLength, ordinaryRowLength), maxRowLength);
      byte_t* const block = static_cast<byte_t*>(std::realloc(buf, larger));
      if (block == nullptr) return 0;
      row_.replaceRow(block);
      block_ = block;
      blockLength_ = larger;
      owner_ = row_.rowBuf_;
    }
    rowLength_ = static_cast<len_t>(newLength);
    BaseRow::lengthen(block_, rowLength_,
                      value != nullptr ? filledEnd(rowLength, extent_, length) : 0);
  }
  extent_.end = offset + static_cast<unsigned int>(length);
  extent_.used += static_cast<unsigned int>(length);
  return static_cast<len_t>(offset);
}

void RowWriter::writeValue(len_t slotOffset, const detail::EncodedValue& value) {
  const len_t offset = roomBehind(slotOffset, value.length(), value.bytes);
  if (offset != 0) return storeValue(row_.rwRowBuf(), slotOffset, offset, value, false);
  leaveToRow(slotOffset, [&] {
    row_.writeValue(slotOffset, baseLength_, value, false);
    return nullptr;
  });
}

byte_t* RowWriter::arrayRoom(len_t slotOffset, std::size_t length) {
  const len_t offset = roomBehind(slotOffset, length, nullptr);
  if (offset == 0) {
    return leaveToRow(slotOffset, [&] { return row_.arrayRoom(slotOffset, length, baseLength_); });
  }
  byte_t* const buf = row_.rwRowBuf();
  VColType::at(buf, slotOffset).valueIs(offset, static_cast<len_t>(length), true);
  return buf + offset;
}

/// Has the row's own writer set a column. What it does to a value of another length may change
/// where all values end.
template <typename Write>
byte_t* RowWriter::leaveToRow(len_t slotOffset, Write write) {
  const auto valueLength = [&] { return VColType::at(row_.rowBuf(), slotOffset).length(); };
  const len_t before = row_.isNull() ? len_t{0} : valueLength();
  byte_t* const room = write();
  if (valueLength() != before) extentIsKnown_ = false;
  return room;
}

bool RowWriter::hasLargerBlock() const noexcept {
  const KoPtr<KoRowBuf>& owner = row_.rowBuf_;
  const bool sameOwner = !owner.owner_before(owner_) && !owner_.owner_before(owner);
  return block_ != nullptr && sameOwner && owner->buf_ == block_ &&
         loadField<len_t>(block_ + rowLengthOffset) == rowLength_;
}

/// Makes the row's block as long as the row again. One that has come to be shared stays: others may
/// be reading it.
void RowWriter::giveBack() noexcept {
  if (!hasLargerBlock() || !row_.isSoleHolder()) return;
  void* const block = std::realloc(block_, rowLength_);
  if (block != nullptr) row_.replaceRow(static_cast<byte_t*>(block));
}

// ---------------------------------------------------------------------------------------------
// Decoding

void BaseRow::decodeValue(const byte_t* src, len_t length, IpGenAddr& out) {
  switch (length) {
    case ipv6Length:
      out = IpGenAddr(ipv6_, src);
      return;
    case ipv4Length:
    case 0:  // no family, but the first word is taken over all the same
      out = IpGenAddr(detail::familyOfAddress(length), src);
      return;
    default:
      detail::assertionFailed("0", thisFile, __LINE__,
                              "static void Korvo::BaseRow::decode(const void*, Korvo::len_t, T&) "
                              "[with T = Korvo::IpGenAddr; Korvo::len_t = short unsigned int]");
  }
}

void BaseRow::decodeValue(const byte_t* src, len_t length, IpGenPrefix& out) {
  const bool wellFormed = length == 0 || length == ipv4Length + 1 || length == ipv6Length + 1;
  KORVO_ASSERT(wellFormed, "0", thisFile,
               "static void Korvo::BaseRow::decode(const void*, Korvo::len_t, T&) "
               "[with T = Korvo::IpGenPrefix; Korvo::len_t = short unsigned int]");
  out.reset();
  out.addrIs(IpGenAddr(detail::familyOfPrefix(length), src + 1));
  out.maskIs(src[0]);  // refuses host bits
}

// ---------------------------------------------------------------------------------------------
// Text

namespace {

constexpr std::string_view nullRowText = "len = 0, NULL";

}  // namespace

std::string BaseRow::toString() const {
  if (isNull()) return std::string(nullRowText);
  char text[64];
  char* to = text;
  const auto append = [&](std::string_view label, std::uint32_t number) {
    to = std::copy(label.begin(), label.end(), to);
    to = std::to_chars(to, to + 10, number).ptr;
  };
  append("len = ", rowLength());
  append(", type = ", rowType());
  append(", oid = ", rowOid());
  return {text, to};
}

std::ostream& operator<<(std::ostream& os, const BaseRow& row) {
  if (row.isNull()) return os << nullRowText;
  const std::ios_base::fmtflags before = os.setf(std::ios_base::dec, std::ios_base::basefield);
  os << "len = " << row.rowLength() << ", type = " << row.rowType() << ", oid = " << row.rowOid();
  os.setf(before & std::ios_base::basefield, std::ios_base::basefield);
  return os;
}

std::ostream& operator<<(std::ostream& os, const StringValueReference& text) {
  return os.write(text.data(), text.length());
}

std::ostream& operator<<(std::ostream& os, const FMT<StringValueReference>& text) {
  return os << '"' << escapeString(std::string(text.value().view())) << '"';
}

std::ostream& operator<<(std::ostream& os, const IpGenAddrReference& addr) {
  if (addr.addr() == nullptr) return os << "<null>";
  // A reference without a family may stand before fewer than 4 bytes; none of them is printed.
  return os << (addr.af() == unknown_ ? IpGenAddr() : IpGenAddr(addr.af(), addr.addr()));
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefixReference& prefix) {
  if (prefix.addr() == nullptr) return os << "<null>";
  if (prefix.af() == unknown_) return os << IpGenPrefix(IpGenAddr(), prefix.mask());
  return os << IpGenPrefix(prefix.af(), prefix.mask(), prefix.addr());
}

}  // namespace Korvo
