#pragma once

// What the row tests share: two row classes over one column layout, raw access to slots and bytes,
// sample values of every type, and the exact text of a failed assertion.

#include <Korvo/baseRow.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rowtest {

using Korvo::AddressFamily;
using Korvo::ArrayReference;
using Korvo::BaseRow;
using Korvo::byte_t;
using Korvo::Ip6Addr;
using Korvo::IpAddr;
using Korvo::IpGenAddr;
using Korvo::IpGenAddrReference;
using Korvo::IpGenPrefix;
using Korvo::IpGenPrefixReference;
using Korvo::KoNullRow;
using Korvo::KoOutOfRange;
using Korvo::KoRowBuf;
using Korvo::len_t;
using Korvo::loadField;
using Korvo::oid_t;
using Korvo::storeField;
using Korvo::StringValueReference;
using Korvo::SubRowReference;
using Korvo::varFieldMap;
using Korvo::VColType;

using Bytes = std::vector<byte_t>;

inline constexpr std::size_t kMaxRowLen = 65535;
inline constexpr std::size_t kMaxValueLen = 32767;

// ---------------------------------------------------------------------------------------------
// Bytes as text

/// "0A 01 02"
inline std::string hex(const void* data, std::size_t length) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    const byte_t byte = static_cast<const byte_t*>(data)[i];
    if (i != 0) text += ' ';
    text += digits[byte >> 4];
    text += digits[byte & 0x0F];
  }
  return text;
}

inline std::string hex(const Bytes& bytes) {
  return hex(bytes.data(), bytes.size());
}

/// The bytes of "0A 01 02"; blanks anywhere.
inline Bytes bytesOf(std::string_view text) {
  Bytes bytes;
  int high = -1;
  for (const char c : text) {
    if (c == ' ') continue;
    const int digit = c <= '9' ? c - '0' : c - 'A' + 10;
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<byte_t>(high * 16 + digit));
      high = -1;
    }
  }
  return bytes;
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes bytesOfString(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

/// A heap block of exactly these bytes, so that a memory checker sees every access beyond them.
class ExactBlock {
 public:
  explicit ExactBlock(const Bytes& bytes) : data_(new byte_t[bytes.size()]), size_(bytes.size()) {
    if (!bytes.empty()) std::memcpy(data_.get(), bytes.data(), bytes.size());
  }
  byte_t* data() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  std::unique_ptr<byte_t[]> data_;
  std::size_t size_;
};

// ---------------------------------------------------------------------------------------------
// Rows

/// A row that does not report itself fully defined: it only ever appends. All slots stand at odd
/// offsets, and the list of slots is in column order, which is not the order of the offsets.
///
///   0 header | 8 flag, one byte | 9 name | 13 addr | 17 prefix | 21 count, four bytes | 25 list |
///   29 child | 33 variable area
class PlainRow : public BaseRow {
 public:
  static constexpr len_t kFlag = 8;
  static constexpr len_t kName = 9;
  static constexpr len_t kAddr = 13;
  static constexpr len_t kPrefix = 17;
  static constexpr len_t kCount = 21;
  static constexpr len_t kList = 25;
  static constexpr len_t kChild = 29;
  static constexpr len_t kBase = 33;

  PlainRow() = default;
  PlainRow(std::uint16_t type, oid_t oid) {
    install(Bytes(kBase));
    storeField<std::uint16_t>(rowBuf_->buf_ + 2, type);
    storeField<oid_t>(rowBuf_->buf_ + 4, oid);
  }
  /// Takes the bytes as they are.
  explicit PlainRow(const Bytes& image) { install(image); }

  vcdType& vcd() const override {
    static vcdType slots{kList, kName, kAddr, kChild, kPrefix};
    return slots;
  }
  len_t columnOffset(const std::string& name) const override {
    if (name == "flag") return kFlag;
    if (name == "name") return kName;
    if (name == "addr") return kAddr;
    if (name == "prefix") return kPrefix;
    if (name == "count") return kCount;
    if (name == "list") return kList;
    return kChild;
  }
  len_t baseRowLength() override { return kBase; }

  long useCount() const { return rowBuf_.use_count(); }
  const KoRowBuf* owner() const { return rowBuf_.get(); }
  std::weak_ptr<KoRowBuf> watch() const { return rowBuf_; }

 private:
  void install(const Bytes& image) {
    auto owner = std::make_shared<KoRowBuf>();  // first, so that a block is never without one
    owner->buf_ = static_cast<byte_t*>(std::malloc(image.size()));
    if (owner->buf_ == nullptr) throw std::bad_alloc();
    std::memcpy(owner->buf_, image.data(), image.size());
    storeField<len_t>(owner->buf_, static_cast<len_t>(image.size()));
    rowBuf_ = std::move(owner);
  }
};

/// The same layout; the row knows all its variable columns, so gaps are reused and closed.
class FullRow : public PlainRow {
 public:
  using PlainRow::PlainRow;
  bool isFullyDefined() const override { return true; }
};

/// A fully defined row of 150 variable columns: more than a table ordinarily has.
class WideRow : public PlainRow {
 public:
  static constexpr unsigned kColumns = 150;
  static constexpr len_t kWideBase = 8 + 4 * kColumns;

  WideRow() : PlainRow(Bytes(kWideBase)) {}
  explicit WideRow(const Bytes& image) : PlainRow(image) {}

  static constexpr len_t slot(unsigned column) { return static_cast<len_t>(8 + 4 * column); }

  vcdType& vcd() const override {
    static vcdType slots = [] {
      vcdType all;
      for (unsigned column = 0; column < kColumns; ++column) all.push_back(slot(column));
      return all;
    }();
    return slots;
  }
  len_t baseRowLength() override { return kWideBase; }
  bool isFullyDefined() const override { return true; }
};

inline constexpr len_t kVariableSlots[] = {PlainRow::kName, PlainRow::kAddr, PlainRow::kPrefix,
                                           PlainRow::kList, PlainRow::kChild};

inline len_t rowLength(const BaseRow& row) {
  return loadField<len_t>(row.rowBuf());
}

inline Bytes imageOf(const BaseRow& row) {
  return Bytes(row.rowBuf(), row.rowBuf() + rowLength(row));
}

inline std::string hex(const BaseRow& row) {
  return hex(imageOf(row));
}

struct Slot {
  unsigned offset = 0;
  unsigned length = 0;
  bool array = false;

  friend bool operator==(const Slot&, const Slot&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Slot& slot) {
    return os << "{at " << slot.offset << ", " << slot.length << " bytes"
              << (slot.array ? ", array}" : "}");
  }
};

inline Slot slotOf(const BaseRow& row, len_t slotOffset) {
  const byte_t* slot = row.rowBuf() + slotOffset;
  return {loadField<std::uint16_t>(slot), slot[2] + ((slot[3] & 0x7Fu) << 8),
          (slot[3] & 0x80) != 0};
}

inline void writeSlot(byte_t* slot, const Slot& value) {
  storeField<std::uint16_t>(slot, static_cast<std::uint16_t>(value.offset));
  storeField<std::uint16_t>(slot + 2,
                            static_cast<std::uint16_t>(value.length | (value.array ? 0x8000u : 0)));
}

inline void setSlot(BaseRow& row, len_t slotOffset, const Slot& value) {
  writeSlot(row.rowBuf() + slotOffset, value);
}

/// The encoded bytes of a column.
inline Bytes valueOf(const BaseRow& row, len_t slotOffset) {
  const Slot slot = slotOf(row, slotOffset);
  return Bytes(row.rowBuf() + slot.offset, row.rowBuf() + slot.offset + slot.length);
}

inline std::string stringOf(const BaseRow& row, len_t slotOffset) {
  std::string text(1, '?');
  row.getColumn<std::string>(slotOffset, text);
  return text;
}

inline void setString(BaseRow& row, len_t slotOffset, const std::string& text) {
  row.setColumn<std::string>(slotOffset, text, PlainRow::kBase);
}

/// A row buffer in which one column alone holds `value`, right behind the fixed area.
inline Bytes imageWith(len_t slotOffset, const Bytes& value, bool array = false) {
  Bytes image = Bytes(PlainRow::kBase) + value;
  storeField<len_t>(image.data(), static_cast<len_t>(image.size()));
  writeSlot(image.data() + slotOffset,
            {PlainRow::kBase, static_cast<unsigned>(value.size()), array});
  return image;
}

// ---------------------------------------------------------------------------------------------
// Sample values

inline StringValueReference stringRef(std::string_view text) {
  return StringValueReference(text.data(), static_cast<len_t>(text.size()));
}

/// A nested row of 40 bytes: header (length 40, type 5, oid 77), then 0x20 .. 0x3F.
inline const Bytes& nestedImage() {
  static const Bytes image = [] {
    Bytes bytes = bytesOf("28 00 05 00 4D 00 00 00");
    for (byte_t byte = 0x20; byte < 0x40; ++byte) bytes.push_back(byte);
    return bytes;
  }();
  return image;
}

template <typename T>
T sample();
template <>
inline std::string sample<std::string>() {
  return "value";
}
template <>
inline StringValueReference sample<StringValueReference>() {
  return stringRef("value");
}
template <>
inline IpGenAddr sample<IpGenAddr>() {
  return IpGenAddr("10.1.2.3");
}
template <>
inline IpGenAddrReference sample<IpGenAddrReference>() {
  static const byte_t bytes[16] = {10, 1, 2, 3};
  return IpGenAddrReference(bytes, Korvo::ipv4_);
}
template <>
inline IpGenPrefix sample<IpGenPrefix>() {
  return IpGenPrefix("10.1.0.0/16");
}
template <>
inline IpGenPrefixReference sample<IpGenPrefixReference>() {
  static const byte_t bytes[16] = {10, 1, 0, 0};
  return IpGenPrefixReference(bytes, Korvo::ipv4_, 16);
}
template <>
inline SubRowReference sample<SubRowReference>() {
  return SubRowReference(nestedImage().data());
}

/// The encoding of sample<T>().
template <typename T>
Bytes sampleBytes() {
  if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, StringValueReference>) {
    return bytesOf("76 61 6C 75 65");
  } else if constexpr (std::is_same_v<T, IpGenAddr> || std::is_same_v<T, IpGenAddrReference>) {
    return bytesOf("0A 01 02 03");
  } else if constexpr (std::is_same_v<T, IpGenPrefix> || std::is_same_v<T, IpGenPrefixReference>) {
    return bytesOf("10 0A 01 00 00");
  } else {
    return nestedImage();
  }
}

/// Every operation that writes a column, each writing a value that is not empty to the column
/// `name`.
struct Writer {
  std::string name;
  std::function<void(BaseRow& row, len_t fdLen)> write;
  Bytes written;
  bool array = false;

  friend std::ostream& operator<<(std::ostream& os, const Writer& writer) {
    return os << writer.name;
  }
};

template <typename T>
void addScalarWriters(std::vector<Writer>& writers, const std::string& type) {
  writers.push_back(
      {"setColumn<" + type + ">",
       [](BaseRow& row, len_t fdLen) { row.setColumn<T>(PlainRow::kName, sample<T>(), fdLen); },
       sampleBytes<T>()});
  writers.push_back({"updateVarElement<" + type + ">",
                     [](BaseRow& row, len_t fdLen) {
                       row.updateVarElement<T>(PlainRow::kName, fdLen, sample<T>());
                     },
                     sampleBytes<T>()});
}

template <typename T>
void addArrayWriters(std::vector<Writer>& writers, const std::string& type) {
  // One element: count 1 and the mark of variable-length elements, its slot, its bytes.
  Bytes written = bytesOf("01 10 06 00");
  written.push_back(static_cast<byte_t>(sampleBytes<T>().size()));
  written.push_back(0);
  written = written + sampleBytes<T>();
  writers.push_back({"setColumn<" + type + "> array",
                     [](BaseRow& row, len_t fdLen) {
                       row.setColumn<T>(PlainRow::kName, std::vector<T>{sample<T>()}, fdLen);
                     },
                     written, true});
  writers.push_back({"updateVarElemArray<" + type + ">",
                     [](BaseRow& row, len_t fdLen) {
                       row.updateVarElemArray<T>(PlainRow::kName, fdLen,
                                                 std::vector<T>{sample<T>()});
                     },
                     written, true});
}

inline std::vector<Writer> everyWriter() {
  std::vector<Writer> writers;
  addScalarWriters<std::string>(writers, "string");
  addScalarWriters<IpGenAddr>(writers, "IpGenAddr");
  addScalarWriters<IpGenPrefix>(writers, "IpGenPrefix");
  addScalarWriters<StringValueReference>(writers, "StringValueReference");
  addScalarWriters<IpGenAddrReference>(writers, "IpGenAddrReference");
  addScalarWriters<IpGenPrefixReference>(writers, "IpGenPrefixReference");
  addScalarWriters<SubRowReference>(writers, "SubRowReference");
  addArrayWriters<std::string>(writers, "string");
  addArrayWriters<IpGenAddr>(writers, "IpGenAddr");
  addArrayWriters<IpGenPrefix>(writers, "IpGenPrefix");
  writers.push_back({"updateFixElemArray<bool>",
                     [](BaseRow& row, len_t fdLen) {
                       row.updateFixElemArray<bool>(PlainRow::kName, fdLen, {true, false, true});
                     },
                     bytesOf("03 00 01 00 01"), true});
  static const PlainRow source(imageWith(PlainRow::kAddr, bytesOf("0A 01 02 03")));
  writers.push_back({"copyVarColumn",
                     [](BaseRow& row, len_t fdLen) {
                       row.copyVarColumn(PlainRow::kAddr, source, PlainRow::kName, fdLen);
                     },
                     bytesOf("0A 01 02 03")});
  return writers;
}

// ---------------------------------------------------------------------------------------------
// Failures

/// The message of the `Exception` that `action` throws; other exceptions pass through.
template <typename Exception, typename Action>
std::string thrownMessage(Action action) {
  try {
    action();
  } catch (const Exception& thrown) {
    return thrown.what();
  }
  return "(nothing thrown)";
}

inline std::string escapedForRegex(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (std::strchr(".[]()*+?{}|^$\\", c) != nullptr) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

/// A pattern for the one line that a failed assertion writes, from the line's first character to
/// the end of all output.
inline std::string assertionLine(std::string_view file, std::string_view signature,
                                 std::string_view condition) {
  return "^" + escapedForRegex(program_invocation_short_name) + ": " + escapedForRegex(file) +
         ":[0-9]+: " + escapedForRegex(signature) + ": Assertion `" + escapedForRegex(condition) +
         "' failed\\.\n$";
}

inline constexpr std::string_view kHeaderFile = "src-includes/api/Korvo/baseRow.h";
inline constexpr std::string_view kSourceFile = "src/baseRow.cpp";

}  // namespace rowtest

/// Runs a statement in a child process that must end in exactly this failed assertion.
#define EXPECT_ASSERTION(statement, file, signature, condition) \
  EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT),      \
              rowtest::assertionLine(file, signature, condition))
