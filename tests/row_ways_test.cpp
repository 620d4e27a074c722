// The same random operations through every way of writing a row, each compared, whole buffer by
// whole buffer, with a plain model of the space rules: layouts of 1 to 80 columns at any offset,
// values that overlap or share their place, values that refer into the row that is written, shared
// and exclusive buffers, and allocations that fail.

#include "failing_allocator.h"

#if KORVO_FAILING_ALLOCATOR

#include "row_space_model.h"

#include <Korvo/TableRow.h>

#include <array>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <tuple>
#include <utility>

namespace {

using namespace rowtest;
using alloctest::Failing;
using alloctest::FailureScope;
using Korvo::Column;
using Korvo::ColumnName;
using Korvo::Nested;
using Korvo::RowLayout;
using Korvo::RowWriter;
using Korvo::SubRow;
using Korvo::TableRow;

constexpr std::uint16_t rowType = 7;

// ---------------------------------------------------------------------------------------------
// Values

enum class Type { text, addr, prefix, nested, texts, addrs, prefixes, flags };
constexpr unsigned typeCount = 8;

/// A value to be written; which fields count depends on its type. One that is `own` is a reference
/// to bytes of the row itself.
struct Value {
  Type type = Type::text;
  std::string text;
  IpGenAddr addr;
  IpGenPrefix prefix;
  Bytes nested;
  std::vector<std::string> texts;
  std::vector<IpGenAddr> addrs;
  std::vector<IpGenPrefix> prefixes;
  std::vector<bool> flags;

  bool own = false;
  std::size_t begin = 0;  ///< of the bytes in the row
  std::size_t length = 0;
  byte_t mask = 0;
};

Bytes encodedAddr(const IpGenAddr& addr) {
  const std::size_t size = addr.af() == Korvo::ipv4_ ? 4 : addr.af() == Korvo::ipv6_ ? 16 : 0;
  return Bytes(addr.bytes(), addr.bytes() + size);
}

Bytes encodedPrefix(const IpGenPrefix& prefix) {
  const Bytes address = encodedAddr(prefix.addr());
  if (address.empty()) return {};
  return Bytes{static_cast<byte_t>(prefix.mask())} + address;
}

bool isArray(Type type) {
  return type >= Type::texts;
}

/// A scalar's encoding, and of an array the elements'.
Bytes encodedScalar(const Value& value, const Bytes& row) {
  if (value.own) {
    const Bytes bytes(row.begin() + static_cast<std::ptrdiff_t>(value.begin),
                      row.begin() + static_cast<std::ptrdiff_t>(value.begin + value.length));
    return value.type == Type::prefix ? Bytes{value.mask} + bytes : bytes;
  }
  switch (value.type) {
    case Type::text:
      return bytesOfString(value.text);
    case Type::addr:
      return encodedAddr(value.addr);
    case Type::prefix:
      return encodedPrefix(value.prefix);
    default:
      return value.nested;
  }
}

std::vector<Bytes> encodedElements(const Value& value) {
  std::vector<Bytes> elements;
  for (const std::string& text : value.texts) elements.push_back(bytesOfString(text));
  for (const IpGenAddr& addr : value.addrs) elements.push_back(encodedAddr(addr));
  for (const IpGenPrefix& prefix : value.prefixes) elements.push_back(encodedPrefix(prefix));
  return elements;
}

/// The whole encoding, for the ways that copy bytes.
Bytes encodedWhole(const Value& value, const Bytes& row) {
  if (!isArray(value.type)) return encodedScalar(value, row);
  Bytes bytes(2);
  std::size_t count = 0;
  if (value.type == Type::flags) {
    count = value.flags.size();
    for (const bool flag : value.flags) bytes.push_back(flag ? 1 : 0);
  } else {
    const std::vector<Bytes> elements = encodedElements(value);
    count = elements.size();
    bytes.resize(2 + 4 * count);
    for (std::size_t i = 0; i < count; ++i) {
      writeSlot(&bytes[2 + 4 * i], {static_cast<unsigned>(bytes.size()),
                                    static_cast<unsigned>(elements[i].size()), false});
      bytes = bytes + elements[i];
    }
  }
  if (count == 0) return {};
  bytes[0] = static_cast<byte_t>(count);
  bytes[1] =
      static_cast<byte_t>((value.type == Type::flags ? 0u : 0x10u) | ((count / 256) & 0x0Fu));
  return bytes;
}

AddressFamily familyOf(std::size_t length) {
  return length == 4 ? Korvo::ipv4_ : Korvo::ipv6_;
}

// What refers into the row, as the writers take it.
StringValueReference ownText(const Value& v, const byte_t* row) {
  return StringValueReference(reinterpret_cast<const char*>(row + v.begin),
                              static_cast<len_t>(v.length));
}
IpGenAddrReference ownAddr(const Value& v, const byte_t* row) {
  return IpGenAddrReference(row + v.begin, familyOf(v.length));
}
IpGenPrefixReference ownPrefix(const Value& v, const byte_t* row) {
  return IpGenPrefixReference(row + v.begin, familyOf(v.length), v.mask);
}
const byte_t* nestedBytes(const Value& v, const byte_t* row) {
  return v.own ? row + v.begin : v.nested.data();
}

// ---------------------------------------------------------------------------------------------
// Layouts

/// What is known of a layout: all slots, those that the row's class lists, and of a declared layout
/// what each column takes.
struct LooseLayout {
  len_t base = 0;
  std::vector<len_t> slots;
  std::vector<len_t> listed;
  std::vector<Type> types;  ///< none where every column takes anything
};

/// A row of any layout, whose class says what the test wants it to say.
class LooseRow : public BaseRow {
 public:
  LooseRow(const LooseLayout& layout, const Bytes& image, const bool& isFull)
      : listed_(layout.listed), base_(layout.base), isFull_(isFull) {
    auto* const block = static_cast<byte_t*>(std::malloc(image.size()));
    if (block == nullptr) throw std::bad_alloc();
    std::memcpy(block, image.data(), image.size());
    rowBuf_ = Korvo::KoPtr<KoRowBuf>(new KoRowBuf(block));
  }
  vcdType& vcd() const override { return listed_; }
  len_t baseRowLength() override { return base_; }
  bool isFullyDefined() const override { return isFull_; }

 private:
  mutable vcdType listed_;
  len_t base_;
  const bool& isFull_;
};

using Inner = RowLayout<3, Column<"text", std::string, 9>>;

template <std::size_t I>
consteval ColumnName<4> nameOfColumn() {
  const char name[4] = {'c', static_cast<char>('0' + I / 10), static_cast<char>('0' + I % 10), 0};
  return ColumnName<4>(name);
}

using ColumnTypes =
    std::tuple<std::string, IpGenAddr, IpGenPrefix, Nested<Inner>, std::vector<std::string>,
               std::vector<IpGenAddr>, std::vector<IpGenPrefix>, std::vector<bool>>;

constexpr std::size_t typeAt(std::size_t i, std::size_t count) {
  return (i * 5 + count) % typeCount;
}
/// Odd and even offsets, in the order of the columns or against it.
constexpr std::size_t offsetAt(std::size_t i, std::size_t count) {
  return 9 + 7 * (count % 2 == 0 ? count - 1 - i : i);
}

template <std::size_t Count, typename Indices = std::make_index_sequence<Count>>
struct Declared;
template <std::size_t Count, std::size_t... I>
struct Declared<Count, std::index_sequence<I...>> {
  static std::string name() { return "Of" + std::to_string(Count) + "Columns"; }

  using Layout =
      RowLayout<rowType,
                Column<nameOfColumn<I>(), std::tuple_element_t<typeAt(I, Count), ColumnTypes>,
                       offsetAt(I, Count)>...>;

  static LooseLayout loose() {
    LooseLayout layout;
    layout.base = Layout::baseLength;
    layout.slots = {static_cast<len_t>(offsetAt(I, Count))...};
    layout.listed = layout.slots;
    layout.types = {static_cast<Type>(typeAt(I, Count))...};
    return layout;
  }

  /// Writes column C of a row or of its writer.
  template <std::size_t C, typename To>
  static void set(To& to, const Value& value, const byte_t* row) {
    constexpr Type type = static_cast<Type>(typeAt(C, Count));
    constexpr auto name = nameOfColumn<C>();
    if constexpr (type == Type::text) {
      if (value.own) return to.template set<name>(ownText(value, row));
      to.template set<name>(value.text);
    } else if constexpr (type == Type::addr) {
      if (value.own) return to.template set<name>(ownAddr(value, row));
      to.template set<name>(value.addr);
    } else if constexpr (type == Type::prefix) {
      if (value.own) return to.template set<name>(ownPrefix(value, row));
      to.template set<name>(value.prefix);
    } else if constexpr (type == Type::nested) {
      to.template set<name>(SubRow<Inner>(nestedBytes(value, row)));
    } else if constexpr (type == Type::texts) {
      to.template set<name>(value.texts);
    } else if constexpr (type == Type::addrs) {
      to.template set<name>(value.addrs);
    } else if constexpr (type == Type::prefixes) {
      to.template set<name>(value.prefixes);
    } else {
      to.template set<name>(value.flags);
    }
  }

  template <typename To>
  using Setter = void (*)(To& to, const Value& value, const byte_t* row);
  template <typename To>
  static constexpr std::array<Setter<To>, Count> setters = {&set<I, To>...};
};

// ---------------------------------------------------------------------------------------------
// Ways of writing

/// A row, its model, and one way of writing it. Columns are numbered.
class Way {
 public:
  Way(std::string wayName, const LooseLayout& layout, SpaceModel start)
      : name(std::move(wayName)), model(std::move(start)), layout_(layout) {}
  virtual ~Way() = default;
  Way(const Way&) = delete;
  Way& operator=(const Way&) = delete;

  virtual BaseRow& row() = 0;
  virtual void write(std::size_t column, const Value& value) = 0;
  /// Whether it copies the bytes of arrays as they are.
  virtual bool writesBytes() const { return false; }
  /// Whether the mark of an empty value is the source's.
  virtual bool copiesMark() const { return false; }
  /// Called before the row is written by anything else.
  virtual void end() {}
  /// Whether a failed allocation may leave the row with a copy of its buffer.
  virtual bool mayCopy() const { return false; }
  /// Whether the block may be larger than the row just now.
  virtual bool mayHaveLargerBlock() const { return false; }

  const std::string name;
  SpaceModel model;
  BaseRow sharer;
  Bytes shared;  ///< what the sharer's buffer holds

 protected:
  len_t slot(std::size_t column) const { return layout_.slots[column]; }
  len_t base() const { return layout_.base; }

 private:
  const LooseLayout& layout_;
};

class LooseWay : public Way {
 public:
  LooseWay(const char* wayName, const LooseLayout& layout, const SpaceModel& start,
           const bool& isFull)
      : Way(wayName, layout, start), row_(layout, start.bytes(), isFull) {}
  BaseRow& row() override { return row_; }

 private:
  LooseRow row_;
};

class BySetColumn : public LooseWay {
 public:
  using LooseWay::LooseWay;
  void write(std::size_t c, const Value& v) override {
    BaseRow& r = row();
    const byte_t* const own = r.rowBuf();
    switch (v.type) {
      case Type::text:
        if (v.own) return r.setColumn<StringValueReference>(slot(c), ownText(v, own), base());
        return r.setColumn<std::string>(slot(c), v.text, base());
      case Type::addr:
        if (v.own) return r.setColumn<IpGenAddrReference>(slot(c), ownAddr(v, own), base());
        return r.setColumn<IpGenAddr>(slot(c), v.addr, base());
      case Type::prefix:
        if (v.own) return r.setColumn<IpGenPrefixReference>(slot(c), ownPrefix(v, own), base());
        return r.setColumn<IpGenPrefix>(slot(c), v.prefix, base());
      case Type::nested:
        return r.setColumn<SubRowReference>(slot(c), SubRowReference(nestedBytes(v, own)), base());
      case Type::texts:
        return r.setColumn<std::string>(slot(c), v.texts, base());
      case Type::addrs:
        return r.setColumn<IpGenAddr>(slot(c), v.addrs, base());
      case Type::prefixes:
        return r.setColumn<IpGenPrefix>(slot(c), v.prefixes, base());
      case Type::flags:
        return r.updateFixElemArray<bool>(slot(c), base(), v.flags);
    }
  }
};

class ByUpdate : public LooseWay {
 public:
  using LooseWay::LooseWay;
  void write(std::size_t c, const Value& v) override {
    BaseRow& r = row();
    const byte_t* const own = r.rowBuf();
    switch (v.type) {
      case Type::text:
        if (v.own) return r.updateVarElement(slot(c), base(), ownText(v, own));
        return r.updateVarElement(slot(c), base(), v.text);
      case Type::addr:
        if (v.own) return r.updateVarElement(slot(c), base(), ownAddr(v, own));
        return r.updateVarElement(slot(c), base(), v.addr);
      case Type::prefix:
        if (v.own) return r.updateVarElement(slot(c), base(), ownPrefix(v, own));
        return r.updateVarElement(slot(c), base(), v.prefix);
      case Type::nested:
        return r.updateVarElement(slot(c), base(), SubRowReference(nestedBytes(v, own)));
      case Type::texts:
        return r.updateVarElemArray(slot(c), base(), v.texts);
      case Type::addrs:
        return r.updateVarElemArray(slot(c), base(), v.addrs);
      case Type::prefixes:
        return r.updateVarElemArray(slot(c), base(), v.prefixes);
      case Type::flags:
        return r.updateFixElemArray(slot(c), base(), v.flags);
    }
  }
};

class ByCopying : public LooseWay {
 public:
  using LooseWay::LooseWay;
  bool writesBytes() const override { return true; }
  bool copiesMark() const override { return true; }
  void write(std::size_t c, const Value& v) override {
    // From another row, which holds just this value.
    const Bytes bytes = encodedWhole(v, model.bytes());
    if (bytes.size() > kMaxValueLen) throw KoOutOfRange("no row holds it");
    const PlainRow source(imageWith(PlainRow::kName, bytes, isArray(v.type)));
    row().copyVarColumn(PlainRow::kName, source, slot(c), base());
  }
};

class ByHand : public LooseWay {
 public:
  using LooseWay::LooseWay;
  bool writesBytes() const override { return true; }
  bool mayCopy() const override { return true; }
  void write(std::size_t c, const Value& v) override {
    const Bytes bytes = encodedWhole(v, model.bytes());
    BaseRow& r = row();
    if (bytes.size() > kMaxValueLen) throw KoOutOfRange("no slot tells of it");
    r.rowTypeIs(r.rowType());  // makes the buffer exclusive
    if (bytes.empty()) return Korvo::VColType::at(r.rwRowBuf(), slot(c)).clear();
    const len_t offset = r.makeFreeSpace(slot(c), static_cast<len_t>(bytes.size()), base());
    byte_t* const buf = r.rwRowBuf();
    BaseRow::encode(buf + offset, StringValueReference(reinterpret_cast<const char*>(bytes.data()),
                                                       static_cast<len_t>(bytes.size())));
    Korvo::VColType::at(buf, slot(c))
        .valueIs(offset, static_cast<len_t>(bytes.size()), isArray(v.type));
  }
};

class ByWriter : public LooseWay {
 public:
  using LooseWay::LooseWay;
  ~ByWriter() override { end(); }
  void end() override { writer_.reset(); }
  bool mayHaveLargerBlock() const override { return writer_.has_value(); }
  void write(std::size_t c, const Value& v) override {
    if (!writer_) writer_.emplace(row(), base());
    RowWriter& w = *writer_;
    const byte_t* const own = row().rowBuf();
    switch (v.type) {
      case Type::text:
        return v.own ? w.setColumn(slot(c), ownText(v, own)) : w.setColumn(slot(c), v.text);
      case Type::addr:
        return v.own ? w.setColumn(slot(c), ownAddr(v, own)) : w.setColumn(slot(c), v.addr);
      case Type::prefix:
        return v.own ? w.setColumn(slot(c), ownPrefix(v, own)) : w.setColumn(slot(c), v.prefix);
      case Type::nested:
        return w.setColumn(slot(c), SubRowReference(nestedBytes(v, own)));
      case Type::texts:
        return w.setColumn(slot(c), v.texts);
      case Type::addrs:
        return w.setColumn(slot(c), v.addrs);
      case Type::prefixes:
        return w.setColumn(slot(c), v.prefixes);
      case Type::flags:
        return w.updateFixElemArray(slot(c), v.flags);
    }
  }

 private:
  std::optional<RowWriter> writer_;
};

template <typename D>
class ByName : public Way {
 public:
  using Row = TableRow<typename D::Layout>;
  ByName(const LooseLayout& layout, const SpaceModel& start) : Way("set<>", layout, start) {
    row_.adopt(start.bytes().data(), start.bytes().size());
  }
  BaseRow& row() override { return row_; }
  void write(std::size_t c, const Value& v) override {
    D::template setters<Row>[c](row_, v, row_.rowBuf());
  }

 private:
  Row row_;
};

template <typename D>
class ByNamedWriter : public Way {
 public:
  using Row = TableRow<typename D::Layout>;
  using Writer = typename Row::Writer;
  ByNamedWriter(const LooseLayout& layout, const SpaceModel& start)
      : Way("writer().set<>", layout, start) {
    row_.adopt(start.bytes().data(), start.bytes().size());
  }
  ~ByNamedWriter() override { end(); }
  BaseRow& row() override { return row_; }
  void end() override { writer_.reset(); }
  bool mayHaveLargerBlock() const override { return writer_.has_value(); }
  void write(std::size_t c, const Value& v) override {
    if (!writer_) writer_.emplace(row_);
    D::template setters<Writer>[c](*writer_, v, row_.rowBuf());
  }

 private:
  Row row_;
  std::optional<Writer> writer_;
};

// ---------------------------------------------------------------------------------------------
// Random operations

class Play {
 public:
  Play(std::uint32_t seed, LooseLayout layout) : random_(seed), layout_(std::move(layout)) {
    isFull_ = !layout_.types.empty() || pick(3) != 0;
    longest_ = std::array{24u, 60u, 400u, 8000u}[pick(4)];
    const SpaceModel start(startImage(), layout_.base, isFull_, layout_.listed);
    ways_.push_back(std::make_unique<BySetColumn>("setColumn", layout_, start, isFull_));
    ways_.push_back(std::make_unique<ByUpdate>("updateVarElement", layout_, start, isFull_));
    ways_.push_back(std::make_unique<ByCopying>("copyVarColumn", layout_, start, isFull_));
    ways_.push_back(std::make_unique<ByHand>("makeFreeSpace", layout_, start, isFull_));
    ways_.push_back(std::make_unique<ByWriter>("RowWriter", layout_, start, isFull_));
  }

  template <typename D>
  void addDeclaredWays() {
    const SpaceModel& start = ways_.front()->model;
    ways_.push_back(std::make_unique<ByName<D>>(layout_, start));
    ways_.push_back(std::make_unique<ByNamedWriter<D>>(layout_, start));
  }

  void steps(unsigned count) {
    for (unsigned step = 0; step < count && !testing::Test::HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << "step " << step);
      this->step();
    }
    for (const auto& way : ways_) {
      way->end();
      SCOPED_TRACE(way->name + ", at its end");
      verify(*way);
    }
  }

  struct Counts {
    unsigned writes = 0;
    unsigned ownValues = 0;
    unsigned refused = 0;
    unsigned outOfMemory = 0;
    unsigned shared = 0;
  };
  Counts counts;

 private:
  unsigned pick(std::size_t count) {
    return static_cast<unsigned>(random_() % static_cast<std::uint32_t>(count));
  }
  bool chance(unsigned percent) { return pick(100) < percent; }
  byte_t anyByte() { return static_cast<byte_t>(random_()); }

  /// Values anywhere in the variable area: beside, over and in one another.
  Bytes startImage() {
    Bytes image(layout_.base);
    for (byte_t& byte : image) byte = anyByte();
    storeField<std::uint16_t>(image.data() + 2, rowType);
    for (const len_t at : layout_.slots) writeSlot(image.data() + at, {0, 0, chance(20)});
    if (chance(60)) {
      const std::size_t length = 1 + pick(300);
      for (std::size_t i = 0; i < length; ++i) image.push_back(anyByte());
      unsigned lastOffset = layout_.base;
      for (const len_t at : layout_.slots) {
        if (chance(40)) continue;
        unsigned offset = layout_.base + pick(length);
        if (chance(25)) offset = lastOffset;  // shares its place with another value
        const unsigned space = static_cast<unsigned>(image.size()) - offset;
        const unsigned valueLength = chance(15) ? 0 : std::min(space, 1 + pick(30));
        writeSlot(image.data() + at, {offset, valueLength, chance(20)});
        lastOffset = offset;
      }
    }
    storeField<len_t>(image.data(), static_cast<len_t>(image.size()));
    return image;
  }

  std::size_t anyLength() {
    if (chance(1)) return 30'000 + pick(4'000);
    if (chance(15)) return 0;
    return pick(chance(70) ? 24 : longest_);
  }
  std::string anyText(std::size_t length) {
    std::string text(length, '\0');
    for (char& c : text) c = static_cast<char>(anyByte());
    return text;
  }
  IpGenAddr anyAddr() {
    byte_t bytes[16];
    for (byte_t& byte : bytes) byte = anyByte();
    const AddressFamily families[] = {Korvo::unknown_, Korvo::ipv4_, Korvo::ipv4_, Korvo::ipv6_};
    return IpGenAddr(families[pick(4)], bytes);
  }
  IpGenPrefix anyPrefix() {
    const IpGenAddr addr = anyAddr();
    if (addr.af() == Korvo::unknown_) return IpGenPrefix();
    const unsigned mask = addr.af() == Korvo::ipv4_ ? 32 : 128;
    return IpGenPrefix(addr.af(), mask, addr.bytes());
  }
  template <typename Make>
  auto some(Make make) {
    std::vector<decltype(make())> values(pick(chance(90) ? 5 : 40));
    for (auto&& value : values) value = make();
    return values;
  }

  Value anyValue(std::size_t column) {
    Value value;
    value.type = layout_.types.empty() ? static_cast<Type>(pick(typeCount)) : layout_.types[column];
    if (!isArray(value.type) && chance(25) && ownValue(value)) return value;
    switch (value.type) {
      case Type::text:
        value.text = anyText(anyLength());
        break;
      case Type::addr:
        value.addr = anyAddr();
        break;
      case Type::prefix:
        value.prefix = anyPrefix();
        break;
      case Type::nested: {
        const std::size_t length = 13 + anyLength();
        value.nested.resize(length);
        for (byte_t& byte : value.nested) byte = anyByte();
        storeField<len_t>(value.nested.data(), static_cast<len_t>(length));
        writeSlot(
            value.nested.data() + 9,
            {13, static_cast<unsigned>(std::min<std::size_t>(length - 13, 32767)), chance(9)});
        break;
      }
      case Type::texts:
        value.texts = some([&] { return anyText(anyLength()); });
        break;
      case Type::addrs:
        value.addrs = some([&] { return anyAddr(); });
        break;
      case Type::prefixes:
        value.prefixes = some([&] { return anyPrefix(); });
        break;
      case Type::flags:
        // Declared classes refuse more than a header counts.
        value.flags.resize(chance(3) ? 4000 + pick(layout_.types.empty() ? 200 : 96)
                                     : pick(chance(90) ? 20 : 300));
        for (std::size_t i = 0; i < value.flags.size(); ++i) value.flags[i] = chance(50);
        break;
    }
    return value;
  }

  /// Makes the value one that refers into the row. The ways' rows may differ in bits of array
  /// headers, which is as good a value as any; only a nested row's length must be the same in all.
  bool ownValue(Value& value) {
    const Bytes& row = ways_.front()->model.bytes();
    value.mask = anyByte();
    switch (value.type) {
      case Type::text:
        value.length = 1 + pick(std::min<std::size_t>(row.size(), chance(80) ? 60 : kMaxValueLen));
        break;
      case Type::nested: {
        std::vector<len_t> candidates;
        for (const len_t at : layout_.slots) {
          const Slot s = ways_.front()->model.slot(at);
          if (s.length >= 13 && loadField<len_t>(row.data() + s.offset) == s.length) {
            candidates.push_back(at);
          }
        }
        if (candidates.empty()) return false;
        const Slot s = ways_.front()->model.slot(candidates[pick(candidates.size())]);
        value.begin = s.offset;
        value.length = s.length;
        value.own = true;
        for (const auto& way : ways_) {
          if (loadField<len_t>(way->model.bytes().data() + s.offset) != s.length) return false;
        }
        return true;
      }
      default:
        value.length = chance(50) ? 4 : 16;
    }
    if (value.length > row.size()) return false;
    value.begin = pick(row.size() - value.length + 1);
    value.own = true;
    return true;
  }

  void step() {
    const std::size_t column = pick(layout_.slots.size());
    const len_t at = layout_.slots[column];
    const unsigned what = pick(100);
    if (what < 70) {
      const Value value = anyValue(column);
      ++counts.writes;
      if (value.own) ++counts.ownValues;
      eachWay(
          "write of type " + std::to_string(static_cast<int>(value.type)) +
              (value.own ? ", own" : "") + ", slot " + std::to_string(at),
          [&](Way& way) { way.write(column, value); },
          [&](Way& way) { writeModel(way, at, value); });
    } else if (what < 78) {
      const len_t from = layout_.slots[pick(layout_.slots.size())];
      eachRow(
          "copy within the row, from slot " + std::to_string(from) + " to " + std::to_string(at),
          [&](BaseRow& row) { row.copyVarColumn(from, row, at, layout_.base); },
          [&](SpaceModel& m) { m.copy(at, m.value(from), m.slot(from).array); });
    } else if (what < 82) {
      copyFromNested(at);
    } else if (what < 86) {
      const std::string nothing;
      eachRow(
          "clearing", [&](BaseRow& row) { row.setColumn<std::string>(at, nothing, layout_.base); },
          [&](SpaceModel& m) { m.clearSlot(at); });
    } else if (what < 89) {
      const len_t needed = static_cast<len_t>(pick(50));
      eachRow(
          "makeFreeSpace alone",
          [&](BaseRow& row) {
            row.rowTypeIs(rowType);
            row.makeFreeSpace(at, needed, layout_.base);
          },
          [&](SpaceModel& m) { m.makeFreeSpace(at, needed); }, true);
    } else if (what < 92) {
      eachRow(
          "compactVariableData", [&](BaseRow& row) { row.compactVariableData(layout_.base); },
          [&](SpaceModel& m) { m.compact(); });
    } else if (what < 94) {
      const unsigned down = pick(20);
      eachRow(
          "moveVariableColumn",
          [&](BaseRow& row) {
            Korvo::VColType& slot = Korvo::VColType::at(row.rowBuf(), at);
            row.moveVariableColumn(&slot, at, lower(slot.offset(), down));
          },
          [&](SpaceModel& m) { m.move(at, lower(static_cast<len_t>(m.slot(at).offset), down)); });
    } else if (what < 95) {
      eachRow(
          "clearRow", [&](BaseRow& row) { row.clearRow(); }, [&](SpaceModel& m) { m.clearRow(); });
    } else if (what < 97) {
      const byte_t value = anyByte();
      eachRow(
          "oid", [&](BaseRow& row) { row.setFixedColumn<std::uint8_t>(5, value); },
          [&](SpaceModel& m) { m.setByte(5, value); });
    } else if (what < 99) {
      for (const auto& way : ways_) way->end();
    } else if (layout_.types.empty()) {
      isFull_ = !isFull_;
      for (const auto& way : ways_) way->model.fullyDefined = isFull_;
    }
    shareOrLetGo();
  }

  len_t lower(len_t offset, unsigned down) const {
    return static_cast<len_t>(
        std::max<unsigned>(layout_.base, offset - std::min<unsigned>(down, offset)));
  }

  void writeModel(Way& way, len_t at, const Value& value) {
    SpaceModel& m = way.model;
    if (way.copiesMark()) {
      m.copy(at, encodedWhole(value, m.bytes()), isArray(value.type));
    } else if (!isArray(value.type)) {
      m.write(at, encodedScalar(value, m.bytes()));
    } else if (way.writesBytes()) {
      const Bytes bytes = encodedWhole(value, m.bytes());
      bytes.empty() ? m.clearSlot(at) : m.copy(at, bytes, true);
    } else if (value.type == Type::flags) {
      m.writeArray(at, value.flags);
    } else {
      m.writeArray(at, encodedElements(value));
    }
  }

  /// A column of a nested row in a column of this row.
  void copyFromNested(len_t at) {
    Value value;
    value.type = Type::nested;
    if (!ownValue(value)) return;
    for (const auto& way : ways_) {  // the nested row must be sound in all of them
      const byte_t* const nested = way->model.bytes().data() + value.begin;
      const Korvo::VColType& slot = Korvo::VColType::at(nested, 9);
      if (slot.offset() + std::size_t{slot.length()} > value.length) return;
    }
    const std::size_t begin = value.begin;
    eachRow(
        "copy from a nested row",
        [&](BaseRow& row) {
          row.copyVarColumn(9, SubRowReference(row.rowBuf() + begin), at, layout_.base);
        },
        [&](SpaceModel& m) {
          const byte_t* const nested = m.bytes().data() + begin;
          const Korvo::VColType slot = Korvo::VColType::at(nested, 9);
          const byte_t* const from = nested + slot.offset();
          m.copy(at, Bytes(from, from + slot.length()), slot.isArray());
        });
  }

  /// What no writer of many columns does.
  template <typename OnRow, typename OnModel>
  void eachRow(const std::string& what, const OnRow& onRow, const OnModel& onModel,
               bool mayCopy = false) {
    for (const auto& way : ways_) way->end();  // while there is memory to give some back
    eachWay(
        what, [&](Way& way) { onRow(way.row()); }, [&](Way& way) { onModel(way.model); }, mayCopy);
  }

  template <typename OnRow, typename OnModel>
  void eachWay(const std::string& what, const OnRow& onRow, const OnModel& onModel,
               bool mayCopy = false) {
    const bool fails = chance(25);
    const unsigned failing = pick(4);
    const Failing mode = chance(50) ? Failing::once : Failing::fromThenOn;
    for (const auto& way : ways_) {
      SCOPED_TRACE(way->name + ", " + what);
      if (fails) {
        if (attemptWithoutMemory(*way, onRow, failing, mode, mayCopy || way->mayCopy())) {
          onModel(*way);
          ASSERT_NO_FATAL_FAILURE(verify(*way));
          continue;
        }
      }
      bool refused = false;
      bool expected = false;
      try {
        onRow(*way);
      } catch (const KoOutOfRange&) {
        refused = true;
        ++counts.refused;
      }
      try {
        onModel(*way);
      } catch (const SpaceModel::TooLong&) {
        expected = true;
      }
      ASSERT_EQ(refused, expected);
      ASSERT_NO_FATAL_FAILURE(verify(*way));
    }
  }

  /// False if the row is as before, for want of memory or because the value is refused.
  template <typename OnRow>
  bool attemptWithoutMemory(Way& way, const OnRow& onRow, unsigned failing, Failing mode,
                            bool mayCopy) {
    if (way.mayHaveLargerBlock()) mayCopy = true;  // its end may give a part of it back
    const byte_t* const before = way.row().rowBuf();
    const FailureScope scope(failing, mode);
    try {
      onRow(way);
      return true;
    } catch (const std::bad_alloc&) {
      ++counts.outOfMemory;
    } catch (const KoOutOfRange&) {
    }
    alloctest::allocator.failing = Failing::never;
    EXPECT_TRUE(mayCopy || way.row().rowBuf() == before);
    verify(way);
    return false;
  }

  void shareOrLetGo() {
    const bool share = chance(10);
    const bool letGo = chance(15);
    for (const auto& way : ways_) {
      if (letGo) way->sharer.nullifyRow();
      if (!share) continue;
      ++counts.shared;
      way->sharer.shareContents(way->row());
      way->shared = way->model.bytes();
    }
  }

  void verify(Way& way) {
    const BaseRow& row = way.row();
    const Bytes& expected = way.model.bytes();
    ASSERT_EQ(rowLength(row), expected.size());
    if (std::memcmp(row.rowBuf(), expected.data(), expected.size()) != 0) {
      std::size_t at = 0;
      while (row.rowBuf()[at] == expected[at]) ++at;
      const std::size_t from = at - std::min<std::size_t>(at, 8);
      const std::size_t count = std::min<std::size_t>(expected.size() - from, 32);
      FAIL() << "differs at byte " << at << " of " << expected.size() << ", from " << from
             << ":\n  " << hex(row.rowBuf() + from, count) << "\nand not\n  "
             << hex(expected.data() + from, count);
    }
    if (!way.sharer.isNull()) {
      ASSERT_EQ(rowLength(way.sharer), way.shared.size());
      ASSERT_EQ(std::memcmp(way.sharer.rowBuf(), way.shared.data(), way.shared.size()), 0)
          << "another holder's buffer has changed";
    }
    const std::size_t block = malloc_usable_size(row.rowBuf());
    ASSERT_GE(block, expected.size());
    if (!way.mayHaveLargerBlock()) {
      ASSERT_LT(block, expected.size() + 64) << "the block is longer than the row";
    }
  }

  std::mt19937 random_;
  const LooseLayout layout_;
  bool isFull_ = true;
  unsigned longest_ = 0;
  std::vector<std::unique_ptr<Way>> ways_;
};

LooseLayout anyLayout(std::mt19937& random) {
  const auto pick = [&](unsigned count) { return static_cast<unsigned>(random() % count); };
  LooseLayout layout;
  const unsigned counts[] = {1, 2, 1 + pick(8), 1 + pick(20), 1 + pick(80), 60 + pick(21)};
  const unsigned count = counts[pick(6)];
  unsigned at = 8;
  for (unsigned i = 0; i < count; ++i) {
    at += pick(3) == 0 ? pick(7) : 0;
    layout.slots.push_back(static_cast<len_t>(at));
    at += 4;
  }
  layout.base = static_cast<len_t>(at + pick(6));
  std::shuffle(layout.slots.begin(), layout.slots.end(), random);
  layout.listed = layout.slots;
  if (pick(5) == 0) layout.listed.resize(layout.listed.size() - pick(count));
  if (pick(6) == 0) layout.listed.push_back(layout.listed[pick(1)]);
  return layout;
}

// Fixed seeds, so that a failure can be repeated; one of each run's own besides.
const std::uint32_t kSeeds[] = {1, 20240229, std::random_device()()};

Play::Counts total;

void play(Play& plays) {
  plays.steps(150);
  total.writes += plays.counts.writes;
  total.ownValues += plays.counts.ownValues;
  total.refused += plays.counts.refused;
  total.outOfMemory += plays.counts.outOfMemory;
  total.shared += plays.counts.shared;
}

void expectAllMet() {
  EXPECT_GT(total.writes, 1000u);
  EXPECT_GT(total.ownValues, 100u);
  EXPECT_GT(total.refused, 10u);
  EXPECT_GT(total.outOfMemory, 100u);
  EXPECT_GT(total.shared, 100u);
}

TEST(EveryWayOfWriting, LeavesWhatTheRulesSay) {
  total = {};
  for (const std::uint32_t seed : kSeeds) {
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    for (int layout = 0; layout < 150; ++layout) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", layout " << layout);
      LooseLayout loose = anyLayout(random);
      Play plays(static_cast<std::uint32_t>(random()), std::move(loose));
      play(plays);
      if (HasFailure()) return;
    }
  }
  expectAllMet();
}

template <typename D>
class EveryWayOfWritingADeclaredRow : public testing::Test {};
using DeclaredLayouts = testing::Types<Declared<1>, Declared<8>, Declared<33>, Declared<80>>;
struct LayoutName {
  template <typename D>
  static std::string GetName(int) {
    return D::name();
  }
};
TYPED_TEST_SUITE(EveryWayOfWritingADeclaredRow, DeclaredLayouts, LayoutName);

TYPED_TEST(EveryWayOfWritingADeclaredRow, LeavesWhatTheRulesSay) {
  total = {};
  for (const std::uint32_t seed : kSeeds) {
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    for (int round = 0; round < 30; ++round) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", round " << round);
      Play plays(static_cast<std::uint32_t>(random()), TypeParam::loose());
      plays.addDeclaredWays<TypeParam>();
      play(plays);
      if (this->HasFailure()) return;
    }
  }
  EXPECT_GT(total.writes, 1000u);
  EXPECT_GT(total.outOfMemory, 100u);
  EXPECT_GT(total.shared, 100u);
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
