// Sequences of row operations against a model that follows the rules step by step on plain vectors
// of bytes. Every byte of every row has to be the model's, gaps included, and every buffer has to
// have as many holders; so a twin that shares a buffer is seen to be unchanged, and a write that is
// refused to change nothing. The writers of BaseRow, those of the row classes, which know their
// slots when they are compiled, and RowWriter have to leave the same bytes.
//
// Input: whether values may be long, then operations, each with its row, its column and its values.

#include <map>
#include <optional>

#include "row_fuzz_support.h"

namespace {

using namespace fuzz;

// Slots at odd offsets, and listed in another order than they stand in.
const ColumnInfo columns[] = {
    {"e", stringType_, 25, 4, false, nullptr},  {"a", stringType_, 9, 4, false, nullptr},
    {"flag", uint8Type_, 8, 1, false, nullptr}, {"c", stringType_, 17, 4, false, nullptr},
    {"b", stringType_, 13, 4, false, nullptr},  {"number", uint32Type_, 29, 4, false, nullptr},
    {"d", stringType_, 21, 4, false, nullptr}};
const LayoutInfo layout = {9, 33, columns};
constexpr len_t base = 33;
constexpr len_t slotOffsets[] = {25, 9, 17, 13, 21};

// ---------------------------------------------------------------------------------------------
// The model

std::size_t wordAt(const Bytes& bytes, std::size_t at) {
  return bytes.at(at) + 256U * bytes.at(at + 1);
}

/// A row or a value would be too long.
struct Refused {};

struct Slot {
  std::size_t offset;
  std::size_t length;
  bool array;
};

Slot slotAt(const Bytes& row, std::size_t at) {
  const std::size_t word = wordAt(row, at + 2);
  return {wordAt(row, at), word % 0x8000, word >= 0x8000};
}

void putSlot(Bytes& row, std::size_t at, const Slot& slot) {
  putWord(row, at, slot.offset);
  putWord(row, at + 2, slot.length + (slot.array ? 0x8000 : 0));
}

void overwrite(Bytes& row, std::size_t at, const Bytes& bytes) {
  FUZZ_REQUIRE(at + bytes.size() <= row.size());
  std::copy(bytes.begin(), bytes.end(), row.begin() + static_cast<std::ptrdiff_t>(at));
}

void move(Bytes& row, std::size_t slotOffset, std::size_t to) {
  Slot slot = slotAt(row, slotOffset);
  const Bytes value(row.begin() + static_cast<std::ptrdiff_t>(slot.offset),
                    row.begin() + static_cast<std::ptrdiff_t>(slot.offset + slot.length));
  overwrite(row, to, value);
  slot.offset = to;
  putSlot(row, slotOffset, slot);
}

std::size_t compact(Bytes& row) {
  std::map<std::size_t, std::size_t> slotByData;
  for (const std::size_t at : slotOffsets) {
    if (slotAt(row, at).offset != 0) slotByData[slotAt(row, at).offset] = at;
  }
  std::size_t position = base;
  for (const auto& [offset, at] : slotByData) {
    const std::size_t length = slotAt(row, at).length;
    if (offset > position) move(row, at, position);
    position += length;
  }
  return position;
}

void grow(Bytes& row, std::size_t length) {
  if (length > 65535) throw Refused();
  row.resize(length);  // with zeros
  putWord(row, 0, length);
}

std::size_t makeRoom(Bytes& row, bool fullyDefined, std::size_t slotOffset, std::size_t needed) {
  Slot own = slotAt(row, slotOffset);
  if (own.length != 0 && needed <= own.length) return own.offset;
  putSlot(row, slotOffset, {0, 0, own.array});
  if (!fullyDefined) {
    const std::size_t offset = row.size();
    grow(row, row.size() + needed);
    return offset;
  }
  std::size_t free = row.size() - base;
  std::size_t end = base;
  for (const std::size_t at : slotOffsets) {
    const Slot slot = slotAt(row, at);
    if (slot.length == 0) continue;
    free -= slot.length;
    end = std::max(end, slot.offset + slot.length);
  }
  if (needed <= row.size() - end) return end;
  if (needed >= free) {
    grow(row, row.size() + (needed - free));
    if (needed <= row.size() - end) return end;
  }
  return compact(row);
}

void write(Bytes& row, bool fullyDefined, std::size_t slotOffset, const Bytes& value, bool array) {
  if (value.empty()) {
    putSlot(row, slotOffset, {0, 0, slotAt(row, slotOffset).array});
    return;
  }
  if (value.size() > 32767) throw Refused();
  const std::size_t offset = makeRoom(row, fullyDefined, slotOffset, value.size());
  overwrite(row, offset, value);
  putSlot(row, slotOffset, {offset, value.size(), array});
}

Bytes encoded(const IpGenAddr& addr) {
  const int length = addr.af() == ipv4_ ? 4 : addr.af() == ipv6_ ? 16 : 0;
  return {addr.bytes(), addr.bytes() + length};
}
Bytes encoded(const IpGenPrefix& prefix) {
  Bytes bytes = encoded(prefix.addr());
  if (!bytes.empty()) bytes.insert(bytes.begin(), static_cast<std::uint8_t>(prefix.mask()));
  return bytes;
}
Bytes encoded(const std::string& text) {
  Bytes bytes(text.size());
  if (!text.empty()) std::memcpy(bytes.data(), text.data(), text.size());
  return bytes;
}

template <typename T>
Bytes encodedArray(const std::vector<T>& values) {
  if (values.empty()) return {};
  Bytes array(2 + 4 * values.size());
  putWord(array, 0, values.size() % 4096 + 0x1000);
  for (std::size_t i = 0; i < values.size(); ++i) {
    const Bytes element = encoded(values[i]);
    putWord(array, 2 + 4 * i, array.size());
    putWord(array, 4 + 4 * i, element.size());
    append(array, element);
  }
  return array;
}
Bytes encodedArray(const std::vector<bool>& values) {
  if (values.empty()) return {};
  Bytes array(2);
  putWord(array, 0, values.size() % 4096);
  for (const bool value : values) array.push_back(value ? 1 : 0);
  return array;
}

// ---------------------------------------------------------------------------------------------
// The row classes, with the same slots in the same order; each has columns of one type.

template <typename T>
using Typed =
    TableRow<RowLayout<9, Column<"e", T, 25>, Column<"a", T, 9>, Column<"flag", std::uint8_t, 8>,
                       Column<"c", T, 17>, Column<"b", T, 13>, Column<"number", std::uint32_t, 29>,
                       Column<"d", T, 21>>>;

/// Lends a row's buffer to a row of another class: moved, so that it has as many holders as before.
class Loan {
 public:
  Loan(BaseRow& owner, BaseRow& user) : owner_(owner), user_(user) { user_ = std::move(owner_); }
  ~Loan() { owner_ = std::move(user_); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

 private:
  BaseRow& owner_;
  BaseRow& user_;
};

template <typename T, typename Value>
void setTyped(AnyRow& row, len_t at, const Value& value) {
  Typed<T> typed;
  const Loan loan(row, typed);
  switch (at) {
    case 25:
      return typed.template set<"e">(value);
    case 9:
      return typed.template set<"a">(value);
    case 17:
      return typed.template set<"c">(value);
    case 13:
      return typed.template set<"b">(value);
    default:
      return typed.template set<"d">(value);
  }
}

void setTyped(AnyRow& row, len_t at, const std::string& value) {
  setTyped<std::string>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const StringValueReference& value) {
  setTyped<std::string>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const IpGenAddr& value) {
  setTyped<IpGenAddr>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const IpGenAddrReference& value) {
  setTyped<IpGenAddr>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const IpGenPrefix& value) {
  setTyped<IpGenPrefix>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const IpGenPrefixReference& value) {
  setTyped<IpGenPrefix>(row, at, value);
}
void setTyped(AnyRow& row, len_t at, const SubRowReference& value) {
  setTyped<Nested<Leaf>>(row, at, SubRow<Leaf>(value));
}
template <typename T>
void setTyped(AnyRow& row, len_t at, const std::vector<T>& values) {
  setTyped<std::vector<T>>(row, at, values);
}

// ---------------------------------------------------------------------------------------------

struct TwoRows {
  AnyRow real;
  std::shared_ptr<Bytes> model;

  explicit TwoRows(bool fullyDefined) : real(layout, fullyDefined) {}
  bool fullyDefined() const { return real.isFullyDefined(); }
};

class Machine {
 public:
  explicit Machine(Input& input) : input_(input), longValues_(input.below(8) == 1) {
    for (TwoRows& row : rows_) create(row);
  }

  void run() {
    // Long values are slow, and few are needed to fill a row.
    const int most = longValues_ ? 12 : 40;
    for (int steps = 0; steps < most && !input_.empty(); ++steps) {
      step();
      for (const TwoRows& row : rows_) verify(row);
    }
  }

 private:
  void verify(const TwoRows& row) {
    FUZZ_REQUIRE(row.real.isNull() == !row.model);
    FUZZ_REQUIRE(row.real.useCount() == row.model.use_count());
    if (!row.model) return;
    const Bytes& model = *row.model;
    FUZZ_REQUIRE(row.real.rowLength() == model.size());
    FUZZ_REQUIRE(std::memcmp(row.real.rowBuf(), model.data(), model.size()) == 0);
  }

  /// Applies `change` to the model's bytes and `write` to the row; if the model refuses, the row
  /// has to refuse as well.
  template <typename Change, typename Write>
  void apply(TwoRows& row, bool always, const Change& change, const Write& write) {
    Bytes changed = *row.model;
    bool refused = false;
    try {
      change(changed);
    } catch (const Refused&) {
      refused = true;
    }
    try {
      write();
      FUZZ_REQUIRE(!refused);
    } catch (const KoOutOfRange&) {
      FUZZ_REQUIRE(refused);
    }
    if (refused || (!always && changed == *row.model)) return;
    if (row.model.use_count() != 1) row.model = std::make_shared<Bytes>();
    *row.model = std::move(changed);
  }

  template <typename Change, typename Write>
  void applyWrite(TwoRows& row, const Change& change, const Write& write) {
    apply(row, true, change, write);
  }

  template <typename T>
  void writeValue(TwoRows& row, len_t at, const Bytes& bytes, const T& value) {
    applyWrite(
        row, [&](Bytes& model) { write(model, row.fullyDefined(), at, bytes, false); },
        [&] {
          if (byWriter(row)) return writer_->setColumn(at, value);
          const std::size_t way = input_.below(4);
          if (way >= 2 && row.fullyDefined()) {
            setTyped(row.real, at, value);
          } else if (way == 1) {
            row.real.updateVarElement(at, base, value);
          } else {
            row.real.setColumn(at, value, base);
          }
        });
  }

  template <typename T>
  void writeArray(TwoRows& row, len_t at, const std::vector<T>& values) {
    const Bytes bytes = encodedArray(values);
    const bool isTyped = !byWriter(row) && row.fullyDefined() && input_.flag();
    applyWrite(
        row,
        [&](Bytes& model) {
          // Row classes take no array with a count that readers would not see.
          if (isTyped && values.size() > arrayCountMask) throw Refused();
          if (bytes.empty() || bytes.size() > 32767) {
            return write(model, row.fullyDefined(), at, bytes, true);
          }
          // Three bits of the header stay as the buffer holds them.
          const std::size_t offset = makeRoom(model, row.fullyDefined(), at, bytes.size());
          const std::uint8_t kept = model.at(offset + 1) & 0xE0;
          overwrite(model, offset, bytes);
          model.at(offset + 1) |= kept;
          putSlot(model, at, {offset, bytes.size(), true});
        },
        [&] {
          if (isTyped) return setTyped(row.real, at, values);
          if constexpr (std::is_same_v<T, bool>) {
            byWriter(row) ? writer_->updateFixElemArray(at, values)
                          : row.real.updateFixElemArray(at, base, values);
          } else if (byWriter(row)) {
            writer_->setColumn(at, values);
          } else if (input_.flag()) {
            row.real.setColumn(at, values, base);
          } else {
            row.real.updateVarElemArray(at, base, values);
          }
        });
  }

  void create(TwoRows& row) {
    Bytes bytes(base);
    putWord(bytes, 0, base);
    putWord(bytes, 2, layout.rowType);
    row.model = std::make_shared<Bytes>(bytes);
    // shareContents() takes the buffer alone; each row keeps its own mode.
    row.real.shareContents(AnyRow(layout, false, bytes));
  }

  /// With room for values, which is zero.
  void createWithRoom(TwoRows& row) {
    const std::size_t valueBytes = textLength();
    const unsigned int oid = input_.byte();
    Bytes bytes(base + valueBytes);
    putWord(bytes, 0, bytes.size());
    putWord(bytes, 2, layout.rowType);
    putWord(bytes, 4, oid);
    row.model = std::make_shared<Bytes>(bytes);
    Typed<std::string> typed;
    typed.create(oid, valueBytes);
    row.real.shareContents(typed);
  }

  void share(TwoRows& row, TwoRows& other) {
    switch (input_.below(3)) {
      case 0:
        row.real.shareContents(other.real);
        break;
      case 1:
        static_cast<BaseRow&>(row.real) = other.real;
        break;
      default: {
        BaseRow copy(other.real);
        static_cast<BaseRow&>(row.real) = std::move(copy);
      }
    }
    row.model = other.model;
  }

  std::size_t textLength() {
    const std::size_t length = input_.byte();
    return longValues_ && length >= 200 ? input_.word() % 33000 : length % 50;
  }
  std::string text() {
    const std::size_t length = textLength();
    std::string value = input_.text(std::min<std::size_t>(length, 8));
    value.resize(length, static_cast<char>('a' + length % 26));
    return value;
  }
  template <typename T>
  std::vector<T> array() {
    if constexpr (std::is_same_v<T, bool>) {
      return std::vector<bool>(textLength(), input_.flag());
    } else if constexpr (std::is_same_v<T, std::string>) {
      std::vector<std::string> values = arrayFrom<std::string>(input_);
      if (input_.below(8) == 0) values.push_back(text());
      if (longValues_ && input_.flag()) values.resize(input_.word() % 9000);
      return values;
    } else {
      return arrayFrom<T>(input_);
    }
  }

  /// A stretch of the row's own bytes, header and slots included.
  void writeOwnBytes(TwoRows& row, len_t at) {
    const Bytes& model = *row.model;
    const std::size_t begin = input_.word() % model.size();
    const std::size_t left = model.size() - begin;
    const byte_t* const bytes = row.real.rowBuf() + begin;
    const auto copy = [&](std::size_t count) {
      return Bytes(model.begin() + static_cast<std::ptrdiff_t>(begin),
                   model.begin() + static_cast<std::ptrdiff_t>(begin + count));
    };
    switch (input_.below(4)) {
      case 0:
        if (left < 16) return;
        return writeValue(row, at, copy(16), IpGenAddrReference(bytes, ipv6_));
      case 1: {
        if (left < 4) return;
        Bytes prefix = {77};
        append(prefix, copy(4));
        return writeValue(row, at, prefix, IpGenPrefixReference(bytes, ipv4_, 77));
      }
      case 2: {
        if (left < 2) return;
        const std::size_t said = wordAt(model, begin);
        if (said > left) return;
        return writeValue(row, at, copy(said), SubRowReference(bytes));
      }
      default: {
        const std::size_t count = 1 + input_.word() % left;
        return writeValue(
            row, at, copy(count),
            StringValueReference(reinterpret_cast<const char*>(bytes), static_cast<len_t>(count)));
      }
    }
  }

  void copyColumn(TwoRows& row, len_t at, const TwoRows& source) {
    if (!source.model) return;
    const len_t from = slotOffsets[input_.below(5)];
    const Bytes bytes = *source.model;
    const Slot slot = slotAt(bytes, from);
    applyWrite(
        row,
        [&](Bytes& model) {
          const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(slot.offset);
          write(model, row.fullyDefined(), at,
                Bytes(begin, begin + static_cast<std::ptrdiff_t>(slot.length)), slot.array);
          Slot copied = slotAt(model, at);
          copied.array = slot.array;
          putSlot(model, at, copied);
        },
        [&] { row.real.copyVarColumn(from, source.real, at, base); });
  }

  void writeText(TwoRows& row, len_t at) {
    const std::string value = text();
    if (value.size() <= 65535 && input_.flag()) {
      return writeValue(row, at, encoded(value),
                        StringValueReference(value.data(), static_cast<len_t>(value.size())));
    }
    writeValue(row, at, encoded(value), value);
  }

  template <typename T>
  void setFixed(TwoRows& row, len_t offset, T value) {
    byWriter(row) ? writer_->setFixedColumn(offset, value) : row.real.setFixedColumn(offset, value);
  }

  void writeFixed(TwoRows& row) {
    const std::uint8_t value = input_.byte();
    const std::size_t field = input_.below(5);
    const bool ofHeader = field == 2 || field == 3;
    if (ofHeader && byWriter(row)) endWriter();
    switch (field) {
      case 0:
        return applyWrite(
            row, [&](Bytes& model) { model[8] = value; },
            [&] { setFixed<std::uint8_t>(row, 8, value); });
      case 4:
        return applyWrite(
            row, [&](Bytes& model) { model[8] = value; },
            [&] {
              if (byWriter(row)) return writer_->setFixedColumn(8, value);
              Typed<std::string> typed;
              const Loan loan(row.real, typed);
              typed.set<"flag">(value);
            });
      case 1:
        return applyWrite(
            row,
            [&](Bytes& model) {
              putWord(model, 29, value);
              putWord(model, 31, 0x1200);
            },
            [&] { setFixed<std::uint32_t>(row, 29, 0x12000000U + value); });
      case 2:
        return applyWrite(
            row, [&](Bytes& model) { putWord(model, 2, value); },
            [&] { row.real.rowTypeIs(value); });
      default:
        return applyWrite(
            row,
            [&](Bytes& model) {
              putWord(model, 4, value);
              putWord(model, 6, 0x3400);
            },
            [&] { row.real.rowOidIs(0x34000000U + value); });
    }
  }

  /// Into a place that no other column uses.
  void moveColumn(TwoRows& row, len_t at) {
    const Slot slot = slotAt(*row.model, at);
    const std::size_t to = base + input_.word() % (row.model->size() - slot.length - base + 1);
    for (const len_t other : slotOffsets) {
      const Slot taken = slotAt(*row.model, other);
      const bool apart =
          to + slot.length <= taken.offset || taken.offset + taken.length <= to || other == at;
      if (taken.length != 0 && !apart) return;
    }
    apply(
        row, slot.length != 0,
        [&](Bytes& model) {
          if (slot.length != 0) move(model, at, to);
        },
        [&] {
          FUZZ_REQUIRE(row.real.moveVariableColumn(&VColType::at(row.real.rwRowBuf(), at), at,
                                                   static_cast<len_t>(to)) == to + slot.length);
        });
  }

  /// Every holder of the buffer sees the new block.
  void replaceBlock(TwoRows& row) {
    Bytes& model = *row.model;
    model[4] = input_.byte();
    auto* const block = static_cast<byte_t*>(std::malloc(model.size()));
    FUZZ_REQUIRE(block != nullptr);
    std::copy(model.begin(), model.end(), block);
    byte_t* const former = row.real.rowBuf();
    row.real.replaceRow(block);
    std::free(former);
  }

  bool byWriter(const TwoRows& row) const { return &row == written_; }
  void endWriter() {
    writer_.reset();
    // A row that is shared and has a larger block has got one of its own, as by a write.
    if (written_ != nullptr && written_->real.useCount() != written_->model.use_count()) {
      FUZZ_REQUIRE(written_->real.useCount() == 1);
      written_->model = std::make_shared<Bytes>(*written_->model);
    }
    written_ = nullptr;
  }

  void step() {
    const unsigned int choice = input_.byte();
    TwoRows& row = rows_[choice & 3];
    const std::size_t operation = choice >> 2 & 31;
    // A writer's row is written through it alone, and it sets columns. A new block for another row
    // may be one for this row too.
    const bool setsColumn =
        operation == 7 || (operation >= 12 && operation <= 23) || operation > 26;
    if ((&row == written_ && !setsColumn) || operation == 25) endWriter();
    TwoRows& other = rows_[input_.below(4)];
    const len_t at = slotOffsets[input_.below(5)];
    if (operation == 0) return input_.flag() ? createWithRoom(row) : create(row);
    if (operation <= 2) return share(row, other);
    if (!row.model) return create(row);
    switch (operation) {
      case 3:
        row.real.nullifyRow();
        row.model.reset();
        return;
      case 4:
        return applyWrite(
            row, [](Bytes& model) { std::fill(model.begin() + 4, model.end(), std::uint8_t{0}); },
            [&] { row.real.clearRow(); });
      case 5:
        // Only what moves something copies a shared buffer.
        return apply(
            row, false, [](Bytes& model) { compact(model); },
            [&] { row.real.compactVariableData(base); });
      case 6: {
        const std::size_t needed = textLength();
        row.real.rowOidIs(row.real.rowOid());  // the caller of makeFreeSpace makes it exclusive
        if (row.model.use_count() != 1) row.model = std::make_shared<Bytes>(*row.model);
        std::size_t expected = 0;
        return applyWrite(
            row, [&](Bytes& model) { expected = makeRoom(model, row.fullyDefined(), at, needed); },
            [&] {
              FUZZ_REQUIRE(row.real.makeFreeSpace(at, static_cast<len_t>(needed), base) ==
                           expected);
            });
      }
      case 7:
        return writeFixed(row);
      case 8:
      case 9:
        return copyColumn(row, at, other);
      case 10:
      case 11:
        return copyColumn(row, at, row);
      case 12:
      case 13:
      case 14:
        return writeOwnBytes(row, at);
      case 15:
      case 16:
        return writeArray(row, at, array<std::string>());
      case 17:
        return writeArray(row, at, array<IpGenAddr>());
      case 18:
        return writeArray(row, at, array<IpGenPrefix>());
      case 19:
      case 20:
        return writeArray(row, at, array<bool>());
      case 21: {
        const IpGenAddr addr = addrFrom(input_);
        if (input_.flag()) return writeValue(row, at, encoded(addr), addr);
        return writeValue(row, at, encoded(addr), IpGenAddrReference(addr.bytes(), addr.af()));
      }
      case 22: {
        const IpGenPrefix prefix = prefixFrom(input_);
        if (input_.flag()) return writeValue(row, at, encoded(prefix), prefix);
        return writeValue(row, at, encoded(prefix),
                          IpGenPrefixReference(prefix.addr().bytes(), prefix.addr().af(),
                                               static_cast<byte_t>(prefix.mask())));
      }
      case 23: {
        Bytes nested = input_.bytes(input_.below(40));
        nested.resize(std::max<std::size_t>(nested.size(), 8));
        putWord(nested, 0, nested.size());
        return writeValue(row, at, nested, SubRowReference(nested.data()));
      }
      case 24:
        return moveColumn(row, at);
      case 25:
        return replaceBlock(row);
      case 26:
        endWriter();
        written_ = &row;
        writer_.emplace(row.real, base);
        return;
      default:
        return writeText(row, at);
    }
  }

  Input& input_;
  const bool longValues_;
  TwoRows rows_[4] = {TwoRows(true), TwoRows(true), TwoRows(false), TwoRows(false)};
  std::optional<RowWriter> writer_;
  TwoRows* written_ = nullptr;  ///< the row of `writer_`
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Machine(input).run();
  return 0;
}
