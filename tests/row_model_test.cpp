// Random operations on rows against a model that knows nothing of the code: it keeps each column's
// bytes and place, and predicts every byte of the buffer but those of the gaps. Rows share buffers
// at random, so each operation must leave all other rows as they are.

#include "row_test_support.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <random>

namespace rowtest {
namespace {

constexpr len_t kBase = PlainRow::kBase;
constexpr std::size_t kColumns = std::size(kVariableSlots);

struct ModelColumn {
  std::size_t offset = 0;
  Bytes bytes;
  bool array = false;
  /// Bits of the array header's second byte that are predicted: three are left as the buffer held
  /// them before.
  byte_t headerMask = 0xFF;
};

class ModelRow {
 public:
  explicit ModelRow(bool fullyDefined) : fullyDefined_(fullyDefined) {}

  bool isNull() const { return isNull_; }
  std::size_t length() const { return length_; }
  const ModelColumn& column(std::size_t c) const { return columns_[c]; }

  void create(std::uint16_t type, oid_t oid) {
    *this = ModelRow(fullyDefined_);
    isNull_ = false;
    length_ = kBase;
    storeField<std::uint16_t>(fixed_.data() + 2, type);
    storeField<oid_t>(fixed_.data() + 4, oid);
  }
  void nullify() { *this = ModelRow(fullyDefined_); }

  void clear() {
    if (isNull_) return;
    columns_ = {};
    std::fill(fixed_.begin() + 4, fixed_.end(), byte_t{0});
  }

  void setFixed(std::size_t offset, byte_t value) { fixed_[offset] = value; }

  /// False if the value or the row would be too long: then nothing changes.
  bool write(std::size_t c, const Bytes& bytes, bool array, byte_t headerMask = 0xFF) {
    ModelColumn& column = columns_[c];
    if (bytes.empty()) {
      column.offset = 0;
      column.bytes.clear();
      return true;
    }
    if (bytes.size() > kMaxValueLen) return false;
    if (column.bytes.empty() || bytes.size() > column.bytes.size()) {
      if (!place(c, bytes.size())) return false;
    }
    column.bytes = bytes;
    column.array = array;
    column.headerMask = headerMask;
    return true;
  }

  bool copy(std::size_t c, const ModelColumn& source) {
    const ModelColumn from = source;
    if (!write(c, from.bytes, from.array, from.headerMask)) return false;
    columns_[c].array = from.array;
    return true;
  }

  /// The buffer, and for each byte the bits that are predicted.
  void predict(Bytes& image, Bytes& mask) const {
    image.assign(length_, 0);
    mask.assign(length_, 0);
    std::copy(fixed_.begin(), fixed_.end(), image.begin());
    std::fill(mask.begin(), mask.begin() + kBase, byte_t{0xFF});
    storeField<len_t>(image.data(), static_cast<len_t>(length_));
    for (std::size_t c = 0; c < kColumns; ++c) {
      const ModelColumn& column = columns_[c];
      writeSlot(image.data() + kVariableSlots[c],
                {static_cast<unsigned>(column.offset), static_cast<unsigned>(column.bytes.size()),
                 column.array});
      const auto at = static_cast<std::ptrdiff_t>(column.offset);
      std::copy(column.bytes.begin(), column.bytes.end(), image.begin() + at);
      std::fill_n(mask.begin() + at, column.bytes.size(), byte_t{0xFF});
      if (column.bytes.size() > 1) mask[column.offset + 1] = column.headerMask;
    }
  }

 private:
  /// Finds a new place for a column, as if it were empty.
  bool place(std::size_t c, std::size_t needed) {
    if (!fullyDefined_) {
      if (length_ + needed > kMaxRowLen) return false;
      columns_[c].offset = length_;
      length_ += needed;
      return true;
    }
    std::size_t used = 0;
    std::size_t end = kBase;
    for (std::size_t other = 0; other < kColumns; ++other) {
      if (other == c || columns_[other].bytes.empty()) continue;
      used += columns_[other].bytes.size();
      end = std::max(end, columns_[other].offset + columns_[other].bytes.size());
    }
    const std::size_t free = length_ - kBase - used;
    if (needed > length_ - end) {
      if (needed >= free) {
        if (length_ + needed - free > kMaxRowLen) return false;
        length_ += needed - free;
      }
      if (needed > length_ - end) end = pack(c);
    }
    columns_[c].offset = end;
    return true;
  }

  /// Packs all columns but one in the order of the buffer; returns the first free offset.
  std::size_t pack(std::size_t except) {
    std::vector<ModelColumn*> order;
    for (std::size_t c = 0; c < kColumns; ++c) {
      if (c != except && !columns_[c].bytes.empty()) order.push_back(&columns_[c]);
    }
    std::sort(order.begin(), order.end(),
              [](const ModelColumn* a, const ModelColumn* b) { return a->offset < b->offset; });
    std::size_t at = kBase;
    for (ModelColumn* column : order) {
      column->offset = at;
      at += column->bytes.size();
    }
    return at;
  }

  bool fullyDefined_;
  bool isNull_ = true;
  std::size_t length_ = 0;
  std::array<byte_t, kBase> fixed_{};
  std::array<ModelColumn, kColumns> columns_{};
};

// ---------------------------------------------------------------------------------------------
// Encodings, written out by hand

Bytes encodedAddr(const IpGenAddr& addr) {
  const std::size_t size = addr.af() == Korvo::ipv4_ ? 4 : addr.af() == Korvo::ipv6_ ? 16 : 0;
  return Bytes(addr.bytes(), addr.bytes() + size);
}

Bytes encodedPrefix(const IpGenPrefix& prefix) {
  Bytes bytes = encodedAddr(prefix.addr());
  if (!bytes.empty()) bytes.insert(bytes.begin(), static_cast<byte_t>(prefix.mask()));
  return bytes;
}

Bytes encodedArray(const std::vector<Bytes>& elements) {
  if (elements.empty()) return {};
  Bytes bytes(2 + 4 * elements.size());
  bytes[0] = static_cast<byte_t>(elements.size());
  bytes[1] = static_cast<byte_t>(0x10 | ((elements.size() >> 8) & 0x0F));
  for (std::size_t i = 0; i < elements.size(); ++i) {
    storeField<len_t>(&bytes[2 + 4 * i], static_cast<len_t>(bytes.size()));
    storeField<len_t>(&bytes[4 + 4 * i], static_cast<len_t>(elements[i].size()));
    bytes.insert(bytes.end(), elements[i].begin(), elements[i].end());
  }
  return bytes;
}

constexpr byte_t kArrayHeaderMask = 0x1F;

// ---------------------------------------------------------------------------------------------

template <typename Row>
class Machine {
 public:
  Machine(std::uint32_t seed, bool fullyDefined)
      : random_(seed), models_(kRows, ModelRow(fullyDefined)) {
    for (std::size_t r = 0; r < kRows; ++r) create(r);
  }

  void run(unsigned steps) {
    for (unsigned step = 0; step < steps; ++step) {
      lastStep_.clear();
      this->step();
      for (std::size_t r = 0; r < kRows; ++r) {
        ASSERT_NO_FATAL_FAILURE(verify(r)) << "step " << step << ": " << lastStep_;
      }
    }
    EXPECT_GT(refusals_, 0u) << "the limits were never met";
    EXPECT_GT(sharedWrites_, 0u) << "no shared buffer was written to";
  }

 private:
  static constexpr std::size_t kRows = 4;

  std::size_t below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
  }
  bool oneIn(std::size_t n) { return below(n) == 0; }

  // --- values

  std::size_t randomLength() {
    switch (below(40)) {
      case 0:
        return 0;
      case 1:
        return below(300);
      case 2:
        return below(3000);
      case 3:
        return oneIn(3) ? kMaxValueLen - 2 + below(5) : 10000 + below(30000);
      default:
        return below(24);
    }
  }
  Bytes randomBytes(std::size_t length) {
    Bytes bytes(length);
    for (byte_t& byte : bytes) byte = static_cast<byte_t>(random_());
    return bytes;
  }
  IpGenAddr randomAddr() {
    const Bytes bytes = randomBytes(16);
    switch (below(5)) {
      case 0:
        return IpGenAddr();
      case 1:
      case 2:
        return IpGenAddr(Korvo::ipv6_, bytes.data());
      default:
        return IpGenAddr(Korvo::ipv4_, bytes.data());
    }
  }
  IpGenPrefix randomPrefix() {
    const IpGenAddr addr = randomAddr();
    const unsigned bits = addr.af() == Korvo::ipv4_ ? 32 : 128;
    return IpGenPrefix(addr, static_cast<unsigned>(below(bits + 1)));
  }

  // --- rows

  void create(std::size_t r) {
    const auto type = static_cast<std::uint16_t>(random_());
    const auto oid = static_cast<oid_t>(random_());
    rows_[r] = Row(type, oid);
    models_[r].create(type, oid);
  }

  /// Runs a write of a column; it must throw exactly when the model says so.
  template <typename Write>
  void expectWrite(std::size_t r, bool fits, Write write) {
    if (rows_[r].useCount() > 1) ++sharedWrites_;
    const byte_t* const buffer = rows_[r].rowBuf();
    const long useCount = rows_[r].useCount();
    bool thrown = false;
    try {
      write(rows_[r]);
    } catch (const KoOutOfRange&) {
      thrown = true;
    }
    EXPECT_EQ(thrown, !fits) << lastStep_;
    if (thrown) {
      ++refusals_;
      EXPECT_EQ(rows_[r].rowBuf(), buffer) << lastStep_;
      EXPECT_EQ(rows_[r].useCount(), useCount) << lastStep_;
    } else {
      EXPECT_EQ(rows_[r].useCount(), 1) << lastStep_;
    }
  }

  template <typename T>
  void writeValue(std::size_t r, std::size_t c, const T& value, const Bytes& bytes,
                  const char* name) {
    lastStep_ = std::string(name) + " of " + std::to_string(bytes.size()) + " bytes to row " +
                std::to_string(r) + ", column " + std::to_string(c);
    const bool direct = oneIn(4);
    expectWrite(r, models_[r].write(c, bytes, false), [&](Row& row) {
      if (direct) {
        row.template updateVarElement<T>(kVariableSlots[c], kBase, value);
      } else {
        row.template setColumn<T>(kVariableSlots[c], value, kBase);
      }
    });
  }

  template <typename T>
  void writeArray(std::size_t r, std::size_t c, const std::vector<T>& values,
                  const std::vector<Bytes>& elements, const char* name) {
    const Bytes bytes = encodedArray(elements);
    lastStep_ = std::string(name) + " array of " + std::to_string(values.size()) + " to row " +
                std::to_string(r) + ", column " + std::to_string(c);
    const bool direct = oneIn(4);
    expectWrite(r, models_[r].write(c, bytes, true, kArrayHeaderMask), [&](Row& row) {
      if (direct) {
        row.template updateVarElemArray<T>(kVariableSlots[c], kBase, values);
      } else {
        row.template setColumn<T>(kVariableSlots[c], values, kBase);
      }
    });
  }

  void step() {
    const std::size_t r = below(kRows);
    const std::size_t c = below(kColumns);
    if (models_[r].isNull() || (models_[r].length() > 20000 && oneIn(8))) {
      create(r);
      return;
    }
    switch (below(20)) {
      case 0:
        shareStep(r);
        break;
      case 1:
        shareStep(r);
        break;
      case 2:
        lastStep_ = "clear row " + std::to_string(r);
        if (oneIn(3)) {
          models_[r].clear();
          rows_[r].clearRow();
        } else if (oneIn(4)) {
          models_[r].nullify();
          rows_[r].nullifyRow();
        }
        break;
      case 3:
        fixedStep(r);
        break;
      case 4:
      case 5:
        copyStep(r, c);
        break;
      case 6:
      case 7:
        aliasStep(r, c);
        break;
      case 8:
        boolStep(r, c);
        break;
      case 9:
      case 10:
        arrayStep(r, c);
        break;
      case 11: {
        const IpGenAddr addr = randomAddr();
        if (oneIn(2)) {
          writeValue(r, c, addr, encodedAddr(addr), "IpGenAddr");
        } else {
          writeValue(r, c, IpGenAddrReference(addr.bytes(), addr.af()), encodedAddr(addr),
                     "IpGenAddrReference");
        }
        break;
      }
      case 12: {
        const IpGenPrefix prefix = randomPrefix();
        if (oneIn(2)) {
          writeValue(r, c, prefix, encodedPrefix(prefix), "IpGenPrefix");
        } else {
          writeValue(r, c,
                     IpGenPrefixReference(prefix.addr().bytes(), prefix.addr().af(),
                                          static_cast<byte_t>(prefix.mask())),
                     encodedPrefix(prefix), "IpGenPrefixReference");
        }
        break;
      }
      case 13:
        subRowStep(r, c);
        break;
      default: {
        const Bytes bytes = randomBytes(randomLength());
        const std::string text(bytes.begin(), bytes.end());
        if (oneIn(2)) {
          writeValue(r, c, text, bytes, "string");
        } else {
          writeValue(r, c, stringRef(text), bytes, "StringValueReference");
        }
      }
    }
  }

  void shareStep(std::size_t r) {
    const std::size_t other = below(kRows);
    lastStep_ = "share row " + std::to_string(r) + " with " + std::to_string(other);
    if (oneIn(2)) {
      rows_[r].shareContents(rows_[other]);
    } else {
      const Row copy(rows_[other]);
      rows_[r] = copy;
    }
    const ModelRow model = models_[other];
    models_[r] = model;
  }

  void fixedStep(std::size_t r) {
    // The row class writes fixed columns; it may only do so in a buffer of its own.
    if (rows_[r].useCount() != 1) return;
    lastStep_ = "fixed column of row " + std::to_string(r);
    const std::size_t offset = oneIn(2) ? PlainRow::kFlag : PlainRow::kCount + below(4);
    const auto value = static_cast<byte_t>(random_());
    rows_[r].rwRowBuf()[offset] = value;
    models_[r].setFixed(offset, value);
  }

  void copyStep(std::size_t r, std::size_t c) {
    const std::size_t source = oneIn(2) ? r : below(kRows);
    const std::size_t sourceColumn = below(kColumns);
    if (models_[source].isNull()) return;
    lastStep_ = "copy row " + std::to_string(source) + ", column " + std::to_string(sourceColumn) +
                " to row " + std::to_string(r) + ", column " + std::to_string(c);
    const ModelColumn column = models_[source].column(sourceColumn);
    expectWrite(r, models_[r].copy(c, column), [&](Row& row) {
      row.copyVarColumn(kVariableSlots[sourceColumn], rows_[source], kVariableSlots[c], kBase);
    });
  }

  /// Writes bytes of the row itself: any stretch of the predicted buffer's variable area.
  void aliasStep(std::size_t r, std::size_t c) {
    const std::size_t sourceColumn = below(kColumns);
    const ModelColumn column = models_[r].column(sourceColumn);
    if (column.bytes.empty()) return;
    const std::size_t first = below(column.bytes.size());
    const std::size_t count = 1 + below(column.bytes.size() - first);
    const byte_t* const at = rows_[r].rowBuf() + column.offset + first;
    Bytes bytes(at, at + count);
    if (oneIn(2)) {
      writeValue(r, c,
                 StringValueReference(reinterpret_cast<const char*>(at), static_cast<len_t>(count)),
                 bytes, "bytes of itself");
    } else if (count >= 4) {
      bytes.resize(4);
      if (oneIn(2)) {
        writeValue(r, c, IpGenAddrReference(at, Korvo::ipv4_), bytes, "address of itself");
      } else {
        bytes.insert(bytes.begin(), byte_t{0x99});
        writeValue(r, c, IpGenPrefixReference(at, Korvo::ipv4_, 0x99), bytes, "prefix of itself");
      }
    }
  }

  void boolStep(std::size_t r, std::size_t c) {
    const std::size_t count = oneIn(20) ? 32760 + below(10) : below(12);
    std::vector<bool> values(count);
    for (std::size_t i = 0; i < count; ++i) values[i] = oneIn(2);
    Bytes bytes;
    if (count != 0) {
      bytes = {static_cast<byte_t>(count), static_cast<byte_t>((count >> 8) & 0x0F)};
      for (const bool value : values) bytes.push_back(value ? 1 : 0);
    }
    lastStep_ = std::to_string(count) + " booleans to row " + std::to_string(r) + ", column " +
                std::to_string(c);
    expectWrite(r, models_[r].write(c, bytes, true, kArrayHeaderMask), [&](Row& row) {
      row.template updateFixElemArray<bool>(kVariableSlots[c], kBase, values);
    });
  }

  void arrayStep(std::size_t r, std::size_t c) {
    const std::size_t count = oneIn(30) ? 8000 + below(400) : below(6);
    std::vector<Bytes> elements;
    if (oneIn(3)) {
      std::vector<std::string> values;
      for (std::size_t i = 0; i < count; ++i) {
        elements.push_back(randomBytes(count > 10 ? 0 : below(12)));
        values.emplace_back(elements.back().begin(), elements.back().end());
      }
      writeArray(r, c, values, elements, "string");
    } else if (oneIn(2)) {
      std::vector<IpGenAddr> values;
      for (std::size_t i = 0; i < count; ++i) {
        values.push_back(randomAddr());
        elements.push_back(encodedAddr(values.back()));
      }
      writeArray(r, c, values, elements, "IpGenAddr");
    } else {
      std::vector<IpGenPrefix> values;
      for (std::size_t i = 0; i < count; ++i) {
        values.push_back(randomPrefix());
        elements.push_back(encodedPrefix(values.back()));
      }
      writeArray(r, c, values, elements, "IpGenPrefix");
    }
  }

  /// Stores another row, or the row itself, as a column.
  void subRowStep(std::size_t r, std::size_t c) {
    const std::size_t source = below(kRows);
    if (models_[source].isNull() || models_[source].length() > 200) return;
    const Bytes bytes = imageOf(rows_[source]);
    writeValue(r, c, SubRowReference(rows_[source].rowBuf()), bytes, "row");
  }

  // --- what must hold after each step

  void verify(std::size_t r) {
    const Row& row = rows_[r];
    ASSERT_EQ(row.isNull(), models_[r].isNull());
    if (row.isNull()) return;
    ASSERT_EQ(rowLength(row), models_[r].length());
    models_[r].predict(image_, mask_);
    const byte_t* const actual = row.rowBuf();
    for (std::size_t i = 0; i < image_.size(); ++i) {
      if (((actual[i] ^ image_[i]) & mask_[i]) != 0) {
        FAIL() << "row " << r << ", byte " << i << ": " << int{actual[i]} << ", not "
               << int{image_[i]};
      }
    }
  }

  std::mt19937 random_;
  std::array<Row, kRows> rows_;
  std::vector<ModelRow> models_;
  std::string lastStep_;
  unsigned refusals_ = 0;
  unsigned sharedWrites_ = 0;
  Bytes image_;
  Bytes mask_;
};

// Fixed seeds, so that a failure can be repeated; one of each run's own besides.
const std::uint32_t kSeeds[] = {1, 20240229, std::random_device()()};
constexpr unsigned kSteps = 6000;

TEST(RowModel, RowsThatOnlyAppend) {
  for (const std::uint32_t seed : kSeeds) {
    std::cout << "seed " << seed << '\n';
    Machine<PlainRow>(seed, false).run(kSteps);
    if (HasFailure()) return;
  }
}

TEST(RowModel, FullyDefinedRows) {
  for (const std::uint32_t seed : kSeeds) {
    std::cout << "seed " << seed << '\n';
    Machine<FullRow>(seed, true).run(kSteps);
    if (HasFailure()) return;
  }
}

}  // namespace
}  // namespace rowtest
