#include <Korvo/rowWriter.h>

#include "rowSpace.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Korvo {

RowWriter::RowWriter(BaseRow& row, len_t fdLen, std::span<const len_t> slots)
    : row_(row), baseLength_(fdLen), declaredSlots_(slots) {
  if (fdLen == 0 && row.isNull()) BaseRow::throwNullRow();
  KORVO_ASSERT(fdLen != 0, "fdLen != 0", "src/rowWriter.cpp",
               "Korvo::RowWriter::RowWriter(Korvo::BaseRow&, Korvo::len_t)");
}

RowWriter::~RowWriter() {
  try {
    giveBack();
  } catch (const std::bad_alloc&) {
    // The row keeps a block that is larger than itself.
  }
}

// ---------------------------------------------------------------------------------------------
// Writing

void RowWriter::write(len_t slotOffset, const detail::EncodedValue& value) {
  write<detail::EncodedValue>(slotOffset, value);
}

BaseRow::Place RowWriter::makePlace(len_t slotOffset, std::size_t length,
                                    std::span<const byte_t> source) {
  if (extent_ && row_.isSoleHolder()) {
    // The row's own decision, made here where all values stand without a gap up to the row's end
    // and the block has room: it fits behind the last one.
    byte_t* const buf = row_.rwRowBuf();
    const unsigned int begin = extent_->end;
    const std::size_t end = begin + length;
    if (isOwnBlock(buf) && begin == block_.rowLength && begin == baseLength_ + extent_->used &&
        length <= maxValueLength && end <= block_.length &&
        VColType::at(buf, slotOffset).length() == 0 && isListedOnce(slotOffset) &&
        !shareAByte(source, {buf, begin}) && row_.isFullyDefined()) {
      if (length > 1) buf[begin + 1] = 0;  // an array keeps bits of it
      block_.rowLength = static_cast<len_t>(end);
      storeField(buf + rowLengthOffset, block_.rowLength);
      extent_->end += static_cast<unsigned int>(length);
      extent_->used += static_cast<unsigned int>(length);
      return {buf, slotOffset, static_cast<len_t>(begin)};
    }
  }
  const len_t before = VColType::at(row_.rowBuf(), slotOffset).length();
  BaseRow::Place place =
      row_.makePlace({slotOffset, length, source, baseLength_}, {declaredSlots_, nullptr, this});
  if (extent_ && before != length) {
    // What was longer or shorter may have stood last.
    if (before != 0 || !isListedOnce(slotOffset)) {
      extent_.reset();
    } else {
      VColType slot;
      slot.valueIs(place.offset, static_cast<len_t>(length), false);
      extent_->add(slot);
    }
  }
  forgetFormerBlock();
  return place;
}

void RowWriter::clearColumn(len_t slotOffset) {
  if (VColType::at(row_.rowBuf(), slotOffset).length() != 0) extent_.reset();
  row_.clearColumn(slotOffset);
  forgetFormerBlock();
}

// ---------------------------------------------------------------------------------------------
// What is known of the columns

/// The place that the values of all columns but one take; valid until the next call.
const detail::Extent& RowWriter::extentBeside(const byte_t* buf, len_t slotOffset) {
  const bool isEmpty = VColType::at(buf, slotOffset).length() == 0;
  if (isEmpty && extent_) return *extent_;
  std::span<const len_t> slots = declaredSlots_;
  if (slots.empty()) {
    slots = row_.vcd();
    listedSlots_.assign(slots.begin(), slots.end());
    std::sort(listedSlots_.begin(), listedSlots_.end());
  }
  extentBeside_ = BaseRow::extentWithout(buf, slots, slotOffset, baseLength_);
  if (isEmpty) extent_ = extentBeside_;
  return extentBeside_;
}

/// Values of columns that are not listed do not count, and those of columns listed twice count
/// twice.
bool RowWriter::isListedOnce(len_t slotOffset) const {
  if (!declaredSlots_.empty()) return true;
  const auto [begin, end] = std::equal_range(listedSlots_.begin(), listedSlots_.end(), slotOffset);
  return end - begin == 1;
}

// ---------------------------------------------------------------------------------------------
// The larger block

/// Most rows are shorter: their blocks become larger only once.
constexpr std::size_t ordinaryRowLength = 512;

bool RowWriter::isOwnBlock(const byte_t* buf) const noexcept {
  return buf == block_.begin && loadField<len_t>(buf + rowLengthOffset) == block_.rowLength;
}

/// Makes the row's block long enough for a row of `newLength` bytes, and returns it.
byte_t* RowWriter::enlargeBlock(byte_t* buf, len_t newLength) {
  if (!isOwnBlock(buf) || newLength > block_.length) {
    // Room for as much again, so that all growth together copies each byte a few times only.
    const std::size_t length = std::min(
        std::max<std::size_t>(2 * std::size_t{newLength}, ordinaryRowLength), maxRowLength);
    byte_t* const block = BaseRow::resized(buf, length);
    block_ = {block, length, 0};
    buf = row_.install(block);
  }
  block_.rowLength = newLength;
  return buf;
}

/// A row that was shared has been given a block of its own, and what it gave up may be freed.
void RowWriter::forgetFormerBlock() noexcept {
  if (block_.begin != nullptr && row_.rowBuf() != block_.begin) block_ = {};
}

/// Makes the row's block as long as the row again. One that has come to be shared stays where it
/// is, as others may be reading it: the row gets a copy.
void RowWriter::giveBack() {
  if (block_.begin == nullptr || row_.isNull() || !isOwnBlock(row_.rowBuf())) return;
  if (block_.rowLength == block_.length) return;
  if (row_.isSoleHolder()) {
    row_.install(BaseRow::resized(block_.begin, block_.rowLength));
  } else {
    row_.copyBuffer();
  }
}

}  // namespace Korvo
