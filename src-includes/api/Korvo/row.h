#pragma once

// The row itself: BaseRow, which holds a row buffer or shares it, reads and writes its columns.
//
// A row object belongs to one thread at a time. Its buffer may be shared with rows of other
// threads: a writer copies a shared buffer before it changes a byte. How room for values is found
// is src/rowSpace.cpp's.

#include <Korvo/assertion.h>
#include <Korvo/fwd.h>
#include <Korvo/rowArray.h>
#include <Korvo/rowEncoding.h>
#include <Korvo/rowFormat.h>
#include <Korvo/rowReferences.h>

#include <array>
#include <atomic>
#include <iosfwd>
#include <map>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define KORVO_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KORVO_THREAD_SANITIZER 1
#endif
#endif

namespace Korvo {

/// A row: null, or holder of a row buffer that other rows may share. The row class of each table
/// derives from it and knows the table's columns; TableRow.h makes such classes short.
///
/// Columns are named by the byte offset of their slot (variable-length) or value (fixed-width).
/// The writers take the row's base length as `fdLen` and give the strong guarantee: on a throw the
/// row, its buffer and the column are as before. They throw KoNullRow for a null row, KoOutOfRange
/// for a row that would exceed 65535 or a value that exceeds 32767 bytes, and std::bad_alloc. A
/// value may refer into the row that is written; it is written as if it had been copied first.
class KORVO_API BaseRow {
 public:
  /// The slot offsets of a table's variable-length columns, in column order.
  using vcdType = std::vector<len_t>;

  /// A null row.
  BaseRow() = default;
  /// Copies share the buffer.
  BaseRow(const BaseRow&) = default;
  BaseRow(BaseRow&&) noexcept = default;
  BaseRow& operator=(const BaseRow&) = default;
  BaseRow& operator=(BaseRow&&) noexcept = default;
  /// A nested row's view has no buffer that could be shared: a copy of it would be a null row. Its
  /// bytes are copied by adopt() of the nested row's own class.
  BaseRow(const SubRowReference&) = delete;
  BaseRow& operator=(const SubRowReference&) = delete;

  /// The buffer, for reading and for writing; neither copies. They throw KoNullRow for a null row.
  virtual byte_t* rowBuf() const;
  /// The buffer for writing; it does not copy a shared one. Throws KoNullRow for a null row.
  virtual byte_t* rwRowBuf();
  /// Installs `buf` without freeing the old block; every row that shares the owner sees it. Throws
  /// KoNullRow for a null row.
  virtual void replaceRow(byte_t* buf);
  /// Shares the other row's buffer; this row's own loses a holder.
  virtual void shareContents(const BaseRow& other);
  virtual ~BaseRow() = default;
  /// These three belong to the table's row class; here they stop the process.
  virtual vcdType& vcd() const;
  /// The place of the named column. Belongs to the table's row class; here it stops the process.
  virtual len_t columnOffset(const std::string& name) const;
  /// Makes the row null.
  virtual void nullifyRow();
  /// Whether the row has no buffer.
  virtual bool isNull() const;
  /// The header as text: "len = 64, type = 3, oid = 1001", or "len = 0, NULL".
  virtual std::string toString() const;
  /// Empty here; a table's row class may override it.
  virtual std::string toJson() const;
  /// Where the variable area begins. Belongs to the table's row class; here it stops the process.
  virtual len_t baseRowLength();
  /// Whether vcd() lists every variable-length column. Only then are gaps reused and rows
  /// compacted; otherwise every new value is appended.
  virtual bool isFullyDefined() const;
  /// Zeroes all but the row length and the row type. Does nothing on a null row.
  virtual void clearRow();

  // The header's fields. They throw KoNullRow for a null row; the setters copy a shared buffer.
  /// The whole row's length in bytes. Throws KoNullRow for a null row, as the next two.
  len_t rowLength() const { return loadField<len_t>(rowBuf() + rowLengthOffset); }
  /// The table's number for its rows.
  std::uint16_t rowType() const { return loadField<std::uint16_t>(rowBuf() + rowTypeOffset); }
  /// The row's object id.
  oid_t rowOid() const { return loadField<oid_t>(rowBuf() + rowOidOffset); }
  void rowTypeIs(std::uint16_t type) { setFixedColumn(rowTypeOffset, type); }
  void rowOidIs(oid_t oid) { setFixedColumn(rowOidOffset, oid); }

  // Fixed-width columns.

  /// The column's value; zero for a null row. T is a fixed-width type of the catalogue.
  template <typename T>
  T fixedColumn(len_t offset) const {
    static_assert(detail::isFixed<T>, "fixedColumn<T>: T is a fixed-width type of the catalogue");
    if (isNull()) return T();
    return detail::fixedAt<T>(rowBuf() + offset);
  }
  /// Writes a fixed-width column.
  template <typename T>
  void setFixedColumn(len_t offset, const T& value) {
    static_assert(detail::isFixed<T>,
                  "setFixedColumn<T>: T is a fixed-width type of the catalogue");
    const T copy = value;  // it may stand in the buffer that is given up
    storeField(exclusiveBuf() + offset, copy);
  }

  // Variable-length columns.

  /// Reads a column; the null value for an empty column or a null row. A reference points into this
  /// row's buffer. Stops the process on an encoded address or prefix of a length that no family
  /// has; throws KoOutOfRange for a prefix with host bits set.
  template <typename T>
  void getColumn(len_t slotOffset, T& out) const;
  /// Appends the elements of an array column to `out`, whose entries stay in front.
  template <typename T>
  void getColumn(len_t slotOffset, std::vector<T>& out) const;
  /// Writes a column; an empty value makes it null. `fdLen` 0 stops the process.
  template <typename T>
  void setColumn(len_t slotOffset, const T& value, len_t fdLen);
  template <typename T>
  void setColumn(len_t slotOffset, const std::vector<T>& values, len_t fdLen);
  /// Copies a column's bytes from `src`, value or array, without decoding them; `src` may be this
  /// row or a sub-row of it.
  void copyVarColumn(len_t srcSlotOffset, const BaseRow& src, len_t dstSlotOffset, len_t fdLen);

  /// As getColumn() of an array.
  template <typename T>
  void getVarElemArray(len_t slotOffset, std::vector<T>& out) const {
    getColumn(slotOffset, out);
  }
  /// As setColumn(), but for its assertion.
  template <typename T>
  void updateVarElement(len_t slotOffset, len_t fdLen, const T& value) {
    static_assert(detail::isVariable<T>,
                  "updateVarElement<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their "
                  "references or SubRowReference");
    write(slotOffset, detail::encoded(value), fdLen, {});
  }
  /// As setColumn() of an array, but for its assertion.
  template <typename T>
  void updateVarElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values) {
    static_assert(detail::isArrayElement<T>,
                  "updateVarElemArray<T>: T is std::string, IpGenAddr or IpGenPrefix");
    write(slotOffset, detail::EncodedArray(values), fdLen, {});
  }
  /// Writes an array of bool, one byte each.
  template <typename T>
  void updateFixElemArray(len_t slotOffset, len_t fdLen, const std::vector<T>& values) {
    static_assert(std::is_same_v<T, bool>, "updateFixElemArray<T>: T is bool");
    write(slotOffset, detail::EncodedArray(values), fdLen, {});
  }
  /// The view of an array column; one that refers to nothing for an empty column or a null row.
  template <typename T>
  ArrayReference<T> arrayReference(len_t slotOffset) const;

  // Comparison and hash in place, for the three reference types. They throw KoNullRow for a null
  // row. The column's type is the caller's word.

  /// Whether this row's column == the other's.
  template <typename T>
  bool columnEqual(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const {
    return columnReference<T>(slotOffset) == other.columnReference<T>(otherSlotOffset);
  }
  /// Whether this row's column == the value.
  template <typename T>
  bool columnEqualConst(len_t slotOffset, const T& value) const {
    return columnReference<T>(slotOffset) == value;
  }
  /// Whether this row's column < the other's.
  template <typename T>
  bool columnLess(len_t slotOffset, const BaseRow& other, len_t otherSlotOffset) const {
    return columnReference<T>(slotOffset) < other.columnReference<T>(otherSlotOffset);
  }
  /// A hash of the column's bytes, 32 bits wide and the same on every host.
  template <typename T>
  unsigned int columnHash(len_t slotOffset) const {
    return detail::hashOf(columnReference<T>(slotOffset));
  }
  /// The reference's orderKey().
  template <typename T>
  std::uint64_t columnOrderKey(len_t slotOffset) const {
    return columnReference<T>(slotOffset).orderKey();
  }

  // Encoded values.

  /// The bytes that the value takes when it is encoded, of 16 bits as the length fields.
  template <typename T>
  static len_t encodeLength(const T& value);
  template <typename T>
  static len_t encodeLength(const std::vector<T>& values);
  /// Writes encodeLength(value) bytes to `dst` and returns their number.
  template <typename T>
  static len_t encode(void* dst, const T& value);
  /// Reads a value from `length` encoded bytes; as getColumn().
  template <typename T>
  static void decode(const void* src, len_t length, T& out);
  /// Gives `out` the null value of its type.
  template <typename T>
  static void setToNull(T& out);

  // The variable area. The caller has made the buffer exclusive.

  /// Finds room for `needed` bytes and returns its offset. It may grow the buffer and move the data
  /// of other columns. The slot is left empty unless its old place is reused. Stops the process
  /// when `baseRowLength` is 0.
  len_t makeFreeSpace(len_t slotOffset, len_t needed, len_t baseRowLength);
  /// Packs all variable data and returns the first free offset after it; the row keeps its length.
  len_t compactVariableData(len_t baseRowLength);
  /// Moves a column's data to offset `to` and returns the offset after it. Copies a shared buffer;
  /// `slot` then still points into the old one.
  len_t moveVariableColumn(VColType* slot, len_t slotOffset, len_t to);

 protected:
  // For the row classes: how a row gets its first buffer. On a throw the row is as before.

  /// A new row of `length` bytes, zero but for its header.
  void installNew(len_t length, std::uint16_t rowType, oid_t oid);
  /// A copy of a row that came from elsewhere. Throws KoInvalidArgument unless `length` is what the
  /// header says, at least `baseLength`, and the row is of type `rowType`. The values in the
  /// variable area are not looked at.
  void installCopy(const void* bytes, std::size_t length, len_t baseLength, std::uint16_t rowType);

  /// Throws KoNullRow.
  [[noreturn]] static void throwNullRow();

  // The writer of row classes whose rwRowBuf() is BaseRow's own and which are fully defined.
  // `Layout` is what such a class knows of its columns while it is compiled: baseLength, slots, and
  // extent(buf), the place that all values take in a buffer.

  template <typename Layout, typename Value>
  void writeOwn(len_t slotOffset, const Value& value);

  /// The owner of the buffer, shared with other rows; empty for a null row.
  KoPtr<KoRowBuf> rowBuf_;

 private:
  friend RowWriter;
  class SoleBuffer;
  struct Room;

  /// What is asked for: room for the value of a column.
  struct Demand {
    len_t slotOffset;
    std::size_t length;
    std::span<const byte_t> source;  ///< where the value is copied from
    len_t baseLength;
  };
  /// What the writer knows of the columns, so that less has to be looked at.
  struct Known {
    std::span<const len_t> slots = {};       ///< all of them; where empty, vcd() has them
    const detail::Extent* others = nullptr;  ///< the place that the other columns' values take
  };
  /// Where a value goes. While it lives, the value's source stays as it is.
  struct Place {
    byte_t* buf;
    len_t offset;
    KoPtr<KoRowBuf> former = nullptr;  ///< what the row has given up
  };

  // Ownership.
  bool isSoleHolder() const noexcept;
  byte_t* exclusiveBuf();
  KoPtr<KoRowBuf> copyBuffer();

  // Room; see src/rowSpace.cpp. Every value that is not empty comes through makePlace().
  Place makePlace(const Demand& demand, const Known& known);
  Room findRoom(const byte_t* buf, const Demand& demand, const Known& known) const;
  len_t takeRoom(byte_t*& buf, const Room& room, const Demand& demand, const Known& known);
  byte_t* grow(byte_t* buf, len_t newLength);
  byte_t* resize(byte_t* buf, std::size_t size);
  std::span<const len_t> slotsOf(const Known& known) const;
  static detail::Extent extentWithout(const byte_t* buf, std::span<const len_t> slots,
                                      len_t slotOffset, len_t baseRowLength);
  static bool refersInto(const byte_t* buf, std::span<const byte_t> value);

  // Writing.
  template <typename Value>
  static void put(byte_t* buf, len_t slotOffset, len_t offset, const Value& value);
  template <typename Value>
  void write(len_t slotOffset, const Value& value, len_t fdLen, const Known& known);
  template <typename Layout, typename Value>
  void writeBehind(byte_t* buf, len_t slotOffset, const Value& value);
  void write(len_t slotOffset, const detail::EncodedValue& value, len_t fdLen, const Known& known);
  void clearColumn(len_t slotOffset);
  [[noreturn]] void failSetColumn(const char* type, bool isArray) const;

  template <typename T>
  T columnReference(len_t slotOffset) const;
  static void decodeValue(const byte_t* src, len_t length, IpGenAddr& out);
  static void decodeValue(const byte_t* src, len_t length, IpGenPrefix& out);
};

/// "len = 64, type = 3, oid = 1001", or "len = 0, NULL" for a null row. Numbers are decimal
/// whatever the stream's base.
KORVO_API std::ostream& operator<<(std::ostream& os, const BaseRow& row);

/// The variable columns of a row that have a data offset, by that offset: data offset to slot
/// offset. Of columns with one data offset, the last in vcd() order stays.
class KORVO_API varFieldMap : public std::map<len_t, len_t> {
 public:
  /// The row's columns as they are now. Throws KoNullRow for a null row.
  explicit varFieldMap(const BaseRow& row);
};

// ---------------------------------------------------------------------------------------------
// Inline bodies

inline byte_t* BaseRow::rowBuf() const {
  if (!rowBuf_) throwNullRow();
  return rowBuf_->buf_;
}

inline byte_t* BaseRow::rwRowBuf() {
  return BaseRow::rowBuf();
}

inline bool BaseRow::isNull() const {
  return !rowBuf_;
}

[[gnu::always_inline]] inline bool BaseRow::isSoleHolder() const noexcept {
  if (rowBuf_.use_count() != 1) return false;
    // The use count is read without ordering. Former holders may have read the buffer on other
    // threads until they let go of it, so their releases are made to happen before our writes.
#ifdef KORVO_THREAD_SANITIZER
  // ThreadSanitizer does not follow fences; a read-modify-write of the count makes the same edge.
  const KoPtr<KoRowBuf> edge = rowBuf_;
#else
  std::atomic_thread_fence(std::memory_order_acquire);
#endif
  return true;
}

inline BaseRow::vcdType& BaseRow::vcd() const {
  detail::assertionFailed("0", detail::rowHeader, __LINE__,
                          "virtual Korvo::BaseRow::vcdType& Korvo::BaseRow::vcd() const");
}

inline len_t BaseRow::columnOffset(const std::string&) const {
  detail::assertionFailed("0", detail::rowHeader, __LINE__,
                          "virtual Korvo::len_t Korvo::BaseRow::columnOffset(const string&) const");
}

inline len_t BaseRow::baseRowLength() {
  detail::assertionFailed("0", detail::rowHeader, __LINE__,
                          "virtual Korvo::len_t Korvo::BaseRow::baseRowLength()");
}

// ---------------------------------------------------------------------------------------------
// Reading

template <typename T>
void BaseRow::getColumn(len_t slotOffset, T& out) const {
  static_assert(detail::isVariable<T>,
                "getColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their references, "
                "SubRowReference, or a vector of the first three");
  if (isNull()) return setToNull(out);
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  const len_t length = slot.length();
  if (length == 0) return setToNull(out);
  decode(buf + slot.offset(), length, out);
}

template <typename T>
void BaseRow::getColumn(len_t slotOffset, std::vector<T>& out) const {
  static_assert(detail::isArrayElement<T>,
                "getColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                "arrayReference<T> reads the others");
  const ArrayReference<T> array = arrayReference<T>(slotOffset);
  const unsigned int count = array.size();
  const std::size_t before = out.size();
  out.reserve(count);  // not behind what is there: gathering many columns would copy it each time
  try {
    for (unsigned int i = 0; i < count; ++i) {
      const VColType& slot = array.slotAt(i);
      const byte_t* data = array.dataOf(slot);
      std::array<byte_t, ipv4Length + 1> own;
      if (slot.length() == 0) {  // decoding looks at bytes of an empty element too
        own = array.template elementBytes<ipv4Length + 1>(slot);
        data = own.data();
      }
      out.emplace_back();
      decode(data, slot.length(), out.back());
    }
  } catch (...) {
    out.resize(before);
    throw;
  }
}

template <typename T>
ArrayReference<T> BaseRow::arrayReference(len_t slotOffset) const {
  if (isNull()) return {};
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  if (slot.length() == 0) return {};
  return ArrayReference<T>(buf + slot.offset(), buf + loadField<len_t>(buf + rowLengthOffset));
}

template <typename T>
T BaseRow::columnReference(len_t slotOffset) const {
  static_assert(detail::isReference<T>,
                "columns are compared and hashed as StringValueReference, IpGenAddrReference or "
                "IpGenPrefixReference");
  const byte_t* const buf = rowBuf();
  const VColType& slot = VColType::at(buf, slotOffset);
  return detail::referenceTo<T>(buf + slot.offset(), slot.length());
}

template <typename T>
len_t BaseRow::encodeLength(const T& value) {
  if constexpr (detail::isVector<T>) {
    return encodeLength<typename T::value_type>(value);
  } else {
    static_assert(detail::isVariable<T>, "encodeLength<T>: T is a variable-length type");
    return static_cast<len_t>(detail::encoded(value).length());
  }
}

template <typename T>
len_t BaseRow::encodeLength(const std::vector<T>& values) {
  static_assert(detail::isArrayElement<T>,
                "encodeLength of an array: the elements are std::string, IpGenAddr or IpGenPrefix");
  return static_cast<len_t>(detail::EncodedArray(values).length());
}

template <typename T>
len_t BaseRow::encode(void* dst, const T& value) {
  static_assert(detail::isVariable<T>, "encode<T>: T is a variable-length type");
  const detail::EncodedValue encoded = detail::encoded(value);
  encoded.store(static_cast<byte_t*>(dst));
  return static_cast<len_t>(encoded.length());
}

template <typename T>
void BaseRow::decode(const void* src, len_t length, T& out) {
  static_assert(detail::isVariable<T>, "decode<T>: T is a variable-length type");
  const byte_t* const bytes = static_cast<const byte_t*>(src);
  if constexpr (detail::isReference<T>) {
    out = detail::referenceTo<T>(bytes, length);
  } else if constexpr (std::is_same_v<T, std::string>) {
    out.assign(reinterpret_cast<const char*>(bytes), length);
  } else if constexpr (std::is_same_v<T, SubRowReference>) {
    out = T(bytes);
  } else {
    decodeValue(bytes, length, out);
  }
}

template <typename T>
void BaseRow::setToNull(T& out) {
  static_assert(detail::isVariable<T> || detail::isOneOf<T, IpAddr, Ip6Addr>,
                "setToNull<T>: T is a variable-length type or an address");
  if constexpr (std::is_same_v<T, std::string>) {
    out.clear();  // keeps its storage
  } else {
    out = T();
  }
}

// ---------------------------------------------------------------------------------------------
// Writing

/// Copy on write: the row's buffer, of which it is the only holder afterwards.
inline byte_t* BaseRow::exclusiveBuf() {
  if (!isSoleHolder()) copyBuffer();
  return rwRowBuf();
}

/// Whether a value has a byte in a row, from wherever it begins.
inline bool BaseRow::refersInto(const byte_t* buf, std::span<const byte_t> value) {
  const auto rowBegin = reinterpret_cast<std::uintptr_t>(buf);
  const auto valueBegin = reinterpret_cast<std::uintptr_t>(value.data());
  return valueBegin < rowBegin + loadField<len_t>(buf + rowLengthOffset) &&
         rowBegin < valueBegin + value.size();
}

/// The value first: it may refer to the slot.
template <typename Value>
void BaseRow::put(byte_t* buf, len_t slotOffset, len_t offset, const Value& value) {
  value.store(buf + offset);
  VColType::at(buf, slotOffset).valueIs(offset, static_cast<len_t>(value.length()), value.isArray);
}

template <typename Value>
void BaseRow::write(len_t slotOffset, const Value& value, len_t fdLen, const Known& known) {
  if (value.isEmpty()) return clearColumn(slotOffset);
  const Place place = makePlace({slotOffset, value.length(), value.source(), fdLen}, known);
  put(place.buf, slotOffset, place.offset, value);
}

template <typename Layout, typename Value>
void BaseRow::writeBehind(byte_t* buf, len_t slotOffset, const Value& value) {
  constexpr std::span<const len_t> slots(Layout::slots);
  const detail::Extent others = Layout::extent(buf);
  if (others.end + value.length() > loadField<len_t>(buf + rowLengthOffset)) {
    return write(slotOffset, value, Layout::baseLength, {slots, &others});
  }
  put(buf, slotOffset, static_cast<len_t>(others.end), value);
}

/// Decides by itself where nothing but the column changes: where the value fits in place, and where
/// an empty column's fits behind the last value. Only copies of `value` leave this function, so
/// that it need not stand in memory.
template <typename Layout, typename Value>
[[gnu::always_inline]] inline void BaseRow::writeOwn(len_t slotOffset, const Value& value) {
  constexpr std::span<const len_t> slots(Layout::slots);
  const std::size_t length = value.length();
  if (!value.isEmpty() && length <= maxValueLength && isSoleHolder()) {
    byte_t* const buf = BaseRow::rwRowBuf();
    VColType& slot = VColType::at(buf, slotOffset);
    const len_t present = slot.length();
    if (length <= present) {
      value.store(buf + slot.offset());
      // The offset stays: writes in a row need not wait for each other's.
      return slot.lengthIs(static_cast<len_t>(length), value.isArray);
    }
    if (present == 0) return writeBehind<Layout>(buf, slotOffset, Value(value));
  }
  write(slotOffset, Value(value), Layout::baseLength, {slots});
}

template <typename T>
void BaseRow::setColumn(len_t slotOffset, const T& value, len_t fdLen) {
  static_assert(detail::isVariable<T>,
                "setColumn<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their references, "
                "SubRowReference, or a vector of the first three");
  if (fdLen == 0) [[unlikely]] {
    failSetColumn(detail::nameInSignatures<T>, false);
  }
  updateVarElement(slotOffset, fdLen, value);
}

template <typename T>
void BaseRow::setColumn(len_t slotOffset, const std::vector<T>& values, len_t fdLen) {
  static_assert(detail::isArrayElement<T>,
                "setColumn of an array: the elements are std::string, IpGenAddr or IpGenPrefix; "
                "updateFixElemArray<bool> writes an array of bool");
  if (fdLen == 0) [[unlikely]] {
    failSetColumn(detail::nameInSignatures<T>, true);
  }
  updateVarElemArray(slotOffset, fdLen, values);
}

}  // namespace Korvo
