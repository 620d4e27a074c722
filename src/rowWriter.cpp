#include <Korvo/rowWriter.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace Korvo {

RowWriter::RowWriter(BaseRow& row, len_t fdLen, std::span<const len_t> slots)
    : row_(row), baseLength_(fdLen), declaredSlots_(slots) {
  if (fdLen == 0 && row.isNull()) BaseRow::throwNullRow();
  KORVO_ASSERT(fdLen != 0, "fdLen != 0", "src/rowWriter.cpp",
               "Korvo::RowWriter::RowWriter(Korvo::BaseRow&, Korvo::len_t)");
}

/// Makes the row's block as long as the row again. One that has come to be shared stays where it
/// is, as others may be reading it: the row gets a copy.
RowWriter::~RowWriter() {
  if (block_.length == block_.rowLength || row_.isNull() || !isOwnBlock(row_.rowBuf())) return;
  try {
    if (row_.isSoleHolder()) {
      row_.resize(block_.begin, block_.rowLength);
    } else {
      row_.copyBuffer();
    }
  } catch (const std::bad_alloc&) {
    // The row keeps the larger block.
  }
}

// ---------------------------------------------------------------------------------------------
// Writing

void RowWriter::write(len_t slotOffset, const detail::EncodedValue& value) {
  write<detail::EncodedValue>(slotOffset, value);
}

BaseRow::Place RowWriter::makePlace(len_t slotOffset, std::size_t length,
                                    std::span<const byte_t> source) {
  byte_t* buf = row_.rowBuf();
  const len_t rowLength = loadField<len_t>(buf + rowLengthOffset);
  const len_t before = VColType::at(buf, slotOffset).length();
  if (before == 0 && length <= maxValueLength && row_.isSoleHolder() &&
      !BaseRow::refersInto(buf, source)) {
    const std::size_t begin = endOfValues(buf, length);
    const std::size_t end = begin + length;
    if (begin != 0 && end <= maxRowLength) {
      buf = end > rowLength ? lengthenRow(buf, end) : row_.rwRowBuf();
      count(slotOffset, static_cast<len_t>(begin), static_cast<len_t>(length));
      return {buf, static_cast<len_t>(begin)};
    }
  }
  BaseRow::Place place =
      row_.makePlace({slotOffset, length, source, baseLength_}, {declaredSlots_});
  if (before != length) extent_.reset();
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

/// Where the row itself would put the value of an empty column, if that is behind the last value;
/// otherwise 0. What the row reuses and what it packs, it decides alone.
std::size_t RowWriter::endOfValues(const byte_t* buf, std::size_t length) {
  const len_t rowLength = loadField<len_t>(buf + rowLengthOffset);
  if (!row_.isFullyDefined()) return rowLength;
  if (!extent_) {
    if (declaredSlots_.empty()) {
      listedSlots_ = row_.vcd();
      std::sort(listedSlots_.begin(), listedSlots_.end());
    }
    extent_ = BaseRow::extentWithout(buf, slots(), 0, baseLength_);
  }
  const bool leavesNoGap = extent_->end == baseLength_ + extent_->used;
  return leavesNoGap || extent_->end + length <= rowLength ? extent_->end : 0;
}

/// A value was written. Those of columns that are not listed do not count, and those of columns
/// listed twice count twice.
void RowWriter::count(len_t slotOffset, len_t offset, len_t length) {
  if (!extent_) return;
  std::ptrdiff_t times = 1;
  if (declaredSlots_.empty()) {
    const auto [begin, end] =
        std::equal_range(listedSlots_.begin(), listedSlots_.end(), slotOffset);
    times = end - begin;
  }
  for (; times != 0; --times) extent_->add(offset, length);
}

// ---------------------------------------------------------------------------------------------
// The larger block

/// Most rows are shorter: their blocks become larger only once.
constexpr std::size_t ordinaryRowLength = 512;

bool RowWriter::isOwnBlock(const byte_t* buf) const noexcept {
  return buf == block_.begin && loadField<len_t>(buf + rowLengthOffset) == block_.rowLength;
}

/// Makes the row longer, in a block that may be longer still and is zero behind the row. Returns
/// its buffer.
byte_t* RowWriter::lengthenRow(byte_t* buf, std::size_t newLength) {
  if (!isOwnBlock(buf) || newLength > block_.length) {
    // Room for as much again, so that all growth together copies each byte a few times only.
    const std::size_t rowLength = loadField<len_t>(buf + rowLengthOffset);
    const std::size_t length =
        std::clamp<std::size_t>(2 * newLength, ordinaryRowLength, maxRowLength);
    buf = row_.resize(buf, length);
    std::memset(buf + rowLength, 0, length - rowLength);
    block_ = {buf, length, 0};
  }
  block_.rowLength = static_cast<len_t>(newLength);
  storeField(buf + rowLengthOffset, block_.rowLength);
  return buf;
}

/// The row may have been given another block, and its former one may be freed.
void RowWriter::forgetFormerBlock() noexcept {
  if (block_.begin != nullptr && !isOwnBlock(row_.rowBuf())) block_ = {};
}

}  // namespace Korvo
