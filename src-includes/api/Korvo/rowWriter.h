#pragma once

// Writing many columns of a row.

#include <Korvo/row.h>

#include <optional>
#include <span>
#include <vector>

namespace Korvo {

/// Fills a row of many columns. A row says nowhere where its data ends, so each of its writers
/// looks at every slot first; a RowWriter looks once and keeps count, and the time to set all
/// columns grows with their number, not with its square. What it leaves in the row is byte for byte
/// what the row's own writers leave, with their exceptions and guarantees.
///
/// The row outlives its writer, and meanwhile is written by nothing else; it may be read and
/// shared. The slots that its class lists stay the same.
///
/// Until the writer ends, the row's block may be larger than the row. The end counts as one more
/// write and leaves the row with a block of its length: the larger one made shorter, or a copy
/// where another row shares it. That row keeps the values and the larger block, as long as it holds
/// them: making a block shorter may move it, and another thread may be reading it. Where memory is
/// short at the end, the written row keeps the larger block, too.
class KORVO_API RowWriter {
 public:
  /// `fdLen` is the row's base length; 0 stops the process. Changes nothing yet.
  RowWriter(BaseRow& row, len_t fdLen) : RowWriter(row, fdLen, {}) {}
  ~RowWriter();
  RowWriter(const RowWriter&) = delete;
  RowWriter& operator=(const RowWriter&) = delete;

  /// As BaseRow's.
  template <typename T>
  void setFixedColumn(len_t offset, const T& value) {
    row_.setFixedColumn(offset, value);
    forgetFormerBlock();
  }
  /// As BaseRow's.
  template <typename T>
  void setColumn(len_t slotOffset, const T& value) {
    static_assert(detail::isVariable<T>,
                  "setColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their "
                  "references, SubRowReference, or a vector of the first three");
    write(slotOffset, detail::encoded(value));
  }
  template <typename T>
  void setColumn(len_t slotOffset, const std::vector<T>& values) {
    static_assert(detail::isArrayElement<T>,
                  "setColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                  "updateFixElemArray<bool> writes an array of bool");
    write(slotOffset, detail::EncodedArray(values));
  }
  /// As BaseRow's.
  template <typename T>
  void updateFixElemArray(len_t slotOffset, const std::vector<T>& values) {
    static_assert(std::is_same_v<T, bool>, "updateFixElemArray<T>: T is bool");
    write(slotOffset, detail::EncodedArray(values));
  }

 protected:
  // For the writers of row classes.

  /// `slots` names each column of the row's class, once; they outlive the writer.
  RowWriter(BaseRow& row, len_t fdLen, std::span<const len_t> slots);
  /// Writes a column of the row's class, a value or an array.
  template <typename Value>
  void write(len_t slotOffset, const Value& value) {
    if (value.isEmpty()) return clearColumn(slotOffset);
    const BaseRow::Place place = makePlace(slotOffset, value.length(), value.source());
    BaseRow::put(place.buf, slotOffset, place.offset, value);
  }
  void write(len_t slotOffset, const detail::EncodedValue& value);

 private:
  BaseRow::Place makePlace(len_t slotOffset, std::size_t length, std::span<const byte_t> source);
  void clearColumn(len_t slotOffset);

  std::span<const len_t> slots() const {
    return declaredSlots_.empty() ? listedSlots_ : declaredSlots_;
  }
  std::size_t endOfValues(const byte_t* buf, std::size_t length);
  void count(len_t slotOffset, len_t offset, len_t length);

  bool isOwnBlock(const byte_t* buf) const noexcept;
  byte_t* lengthenRow(byte_t* buf, std::size_t newLength);
  void forgetFormerBlock() noexcept;

  BaseRow& row_;
  const len_t baseLength_;
  const std::span<const len_t> declaredSlots_;
  std::vector<len_t> listedSlots_;        ///< where none are declared: what the row lists, sorted
  std::optional<detail::Extent> extent_;  ///< the place that all values take, where it is known

  /// A block that this writer made larger than the row.
  struct Block {
    byte_t* begin = nullptr;
    std::size_t length = 0;
    len_t rowLength = 0;  ///< whoever else makes the row longer gives it another block
  };
  Block block_;
};

}  // namespace Korvo
