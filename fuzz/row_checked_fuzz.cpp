// Rows that pass the check through every reader and every writer. Only what the check's header
// names may happen: KoOutOfRange from the value form of prefixes. No writer may change a twin that
// shares the buffer, and what a writer makes has to pass again.
//
// Input: layout and source; then either the row's bytes, or what a row is built from and changes to
// single bytes of it; then what to write.

#include <functional>
#include <span>
#include <sstream>
#include <tuple>

#include "json_oracle.h"
#include "row_fuzz_support.h"

namespace {

using namespace fuzz;

// ---------------------------------------------------------------------------------------------
// Readers

/// Reads what only the rules for null prefixes may refuse.
template <typename Read>
bool mayBeOutOfRange(const Read& read) {
  try {
    read();
    return true;
  } catch (const KoOutOfRange&) {
    return false;
  }
}

class Reader {
 public:
  explicit Reader(PrefixRule rule) : rule_(rule) {}

  /// Everything there is to read; columns are compared with themselves and with the other row's.
  void read(const BaseRow& row, const BaseRow& other, const LayoutInfo& layout) {
    FUZZ_REQUIRE(JsonOracle::isJson(Korvo::detail::rowAsJson(row, layout)));  // with nested rows
    readRow(row, other, layout);
  }

 private:
  void readRow(const BaseRow& row, const BaseRow& other, const LayoutInfo& layout) {
    out_ << row << row.toString() << row.rowLength() << row.rowType() << row.rowOid();
    std::size_t emptyColumns = 0;
    for (const ColumnInfo& column : layout.columns) {
      if (hasSlot(column) && VColType::at(row.rowBuf(), column.offset).length() == 0 &&
          ++emptyColumns > 12) {
        continue;  // the empty ones are all alike, and reading them takes its time
      }
      if (column.isArray) {
        readArray(row, column);
      } else if (hasSlot(column)) {
        readValue(row, other, column);
      } else {
        readFixed(row, column);
      }
    }
  }

  void readFixed(const BaseRow& row, const ColumnInfo& column) {
    FUZZ_REQUIRE(
        (readFirst<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, std::int8_t,
                   std::int16_t, std::int32_t, std::int64_t, float, double, bool, IpAddr, Ip6Addr>(
            row, column)));
  }

  /// Reads the column as the one of the types that it has.
  template <typename... Types>
  bool readFirst(const BaseRow& row, const ColumnInfo& column) {
    return (readIfOf<Types>(row, column) || ...);
  }
  /// False if the column has values of another type.
  template <typename T>
  bool readIfOf(const BaseRow& row, const ColumnInfo& column) {
    if (column.type != Korvo::detail::ColumnTraits<T>::type) return false;
    out_ << FMT<T>(row.fixedColumn<T>(column.offset));
    return true;
  }

  /// False for the two that have no order.
  template <typename Reference>
  bool compareTwo(const Reference& a, const Reference& b) {
    FUZZ_REQUIRE((a == b) == (b == a) && (a == b) != (a != b));
    if constexpr (std::is_same_v<Reference, IpGenPrefixReference>) {
      if (a.af() == unknown_ && b.af() == unknown_) return false;
      if (a == b) FUZZ_REQUIRE(a.contains(b) && b.contains(a));
      if (a.af() != b.af()) FUZZ_REQUIRE(!a.contains(b) && !b.contains(a));
    }
    FUZZ_REQUIRE((a < b) == (b > a) && (b < a) == (a > b) && (a < b) + (b < a) + (a == b) <= 1);
    if (a == b) FUZZ_REQUIRE(a <= b && b <= a && a >= b && b >= a);
    if (a < b) FUZZ_REQUIRE(a <= b && b >= a);
    FUZZ_REQUIRE(a < b || a.orderKey() >= b.orderKey());
    FUZZ_REQUIRE(b < a || b.orderKey() >= a.orderKey());
    return true;
  }

  /// With the values read last, also those of other columns and rows.
  template <typename Reference>
  void compareWithSeen(const Reference& mine) {
    auto& [values, count] = std::get<Seen<Reference>>(seen_);
    const std::size_t size = std::min(count, values.size());
    for (std::size_t i = 0; i < size; ++i) compareTwo(mine, values[i]);
    values[count++ % values.size()] = mine;
  }

  template <typename Reference>
  void compare(const BaseRow& row, const BaseRow& other, len_t at, const Reference& mine) {
    compareWithSeen(mine);
    FUZZ_REQUIRE(row.columnEqual<Reference>(at, row, at));
    FUZZ_REQUIRE(row.columnEqualConst<Reference>(at, mine));
    FUZZ_REQUIRE(row.columnOrderKey<Reference>(at) == mine.orderKey());
    out_ << row.columnHash<Reference>(at);
    Reference others;
    other.getColumn(at, others);
    FUZZ_REQUIRE(row.columnEqual<Reference>(at, other, at) == (mine == others));
    if (mine == others) {
      FUZZ_REQUIRE(row.columnHash<Reference>(at) == other.columnHash<Reference>(at));
    }
    if (!compareTwo(mine, others)) return;
    FUZZ_REQUIRE(row.columnLess<Reference>(at, other, at) == (mine < others));
    FUZZ_REQUIRE(other.columnLess<Reference>(at, row, at) == (others < mine));
  }

  void readValue(const BaseRow& row, const BaseRow& other, const ColumnInfo& column) {
    const len_t at = column.offset;
    switch (column.type) {
      case stringType_: {
        std::string text;
        StringValueReference view;
        row.getColumn(at, text);
        row.getColumn(at, view);
        FUZZ_REQUIRE(text == view.view());
        out_ << view << FMT<StringValueReference>(view) << FMT<std::string>(text);
        compare(row, other, at, view);
        break;
      }
      case ipGenAddrType_: {
        IpGenAddr addr;
        IpGenAddrReference view;
        row.getColumn(at, addr);
        row.getColumn(at, view);
        FUZZ_REQUIRE(addr.af() == view.af());
        out_ << addr << view << addr.addressLengthBytes();
        compare(row, other, at, view);
        break;
      }
      case ipGenPrefixType_: {
        IpGenPrefixReference view;
        row.getColumn(at, view);
        out_ << view;
        compare(row, other, at, view);
        IpGenPrefix prefix;
        const bool isValue = mayBeOutOfRange([&] { row.getColumn(at, prefix); });
        if (rule_ == PrefixRule::noHostBits) FUZZ_REQUIRE(isValue);
        if (isValue) out_ << prefix;
        break;
      }
      default: {
        SubRowReference nested;
        row.getColumn(at, nested);
        out_ << nested;
        SubRowReference others;
        other.getColumn(at, others);
        if (nested.isNull()) break;
        readRow(nested, others.isNull() ? nested : others, *column.nested);
        Bytes copy(BaseRow::encodeLength(nested));
        FUZZ_REQUIRE(BaseRow::encode(copy.data(), nested) == copy.size());
        out_.write(reinterpret_cast<const char*>(copy.data()),
                   static_cast<std::streamsize>(copy.size()));
      }
    }
  }

  /// The elements one by one, in every form, and none beyond the last.
  template <typename Element>
  void readElements(const BaseRow& row, len_t at) {
    const ArrayReference<Element> view = row.arrayReference<Element>(at);
    for (unsigned int i = 0; i < view.size(); ++i) {
      const auto print = [&] { out_ << view[i]; };
      if constexpr (std::is_same_v<Element, IpGenPrefix>) {
        out_ << mayBeOutOfRange(print);
      } else {
        print();
      }
      if constexpr (Korvo::detail::isReference<Element>) compareWithSeen(view[i]);
    }
    FUZZ_REQUIRE(!mayBeOutOfRange([&] { view[view.size()]; }));
  }

  template <typename T, typename Reference>
  void readVariableArray(const BaseRow& row, len_t at) {
    readElements<Reference>(row, at);
    readElements<T>(row, at);
    std::vector<T> values(2);
    const bool areValues = mayBeOutOfRange([&] { row.getColumn(at, values); });
    if (!std::is_same_v<T, IpGenPrefix> || rule_ == PrefixRule::noHostBits) {
      FUZZ_REQUIRE(areValues);
    }
    FUZZ_REQUIRE(values.size() == 2 + (areValues ? row.arrayReference<T>(at).size() : 0));
    for (const T& value : values) out_ << value;
    std::vector<T> again;
    mayBeOutOfRange([&] { row.getVarElemArray(at, again); });
    FUZZ_REQUIRE(std::equal(again.begin(), again.end(), values.begin() + 2, values.end()));
  }

  void readNestedArray(const BaseRow& row, const ColumnInfo& column) {
    readElements<SubRowReference>(row, column.offset);
    SubRowReference before;
    for (const SubRowReference& nested : row.arrayReference<SubRowReference>(column.offset)) {
      readRow(nested, before.isNull() ? nested : before, *column.nested);
      before = nested;
    }
  }

  void readArray(const BaseRow& row, const ColumnInfo& column) {
    switch (column.type) {
      case structType_:
        return readNestedArray(row, column);
      case stringType_:
        return readVariableArray<std::string, StringValueReference>(row, column.offset);
      case ipGenAddrType_:
        return readVariableArray<IpGenAddr, IpGenAddrReference>(row, column.offset);
      case ipGenPrefixType_:
        return readVariableArray<IpGenPrefix, IpGenPrefixReference>(row, column.offset);
      default:
        return readElements<bool>(row, column.offset);
    }
  }

  template <typename Reference>
  struct Seen {
    std::array<Reference, 4> values;
    std::size_t count = 0;
  };

  PrefixRule rule_;
  std::tuple<Seen<StringValueReference>, Seen<IpGenAddrReference>, Seen<IpGenPrefixReference>>
      seen_;
  std::ostringstream out_;
};

/// False if the bytes are those of a row of another type.
bool adopts(TableRow<Mixed>& row, const Bytes& bytes) {
  const ExactBlock block(bytes);
  try {
    row.adopt(block.data(), bytes.size());
  } catch (const KoInvalidArgument&) {
    return false;
  }
  return true;
}

/// The readers of the row classes, by name.
void readByName(const Bytes& bytes, PrefixRule rule) {
  TableRow<Mixed> row;
  if (!adopts(row, bytes)) return;
  std::ostringstream out;
  out << row.view<"u8">() << row.get<"i16">() << row.view<"u64">() << row.get<"real">()
      << row.view<"single">() << row.get<"flag">() << row.view<"v4">() << row.get<"v6">();
  out << row.get<"text">() << row.view<"text">() << row.hash<"text">() << row.equal<"text">(row)
      << row.less<"other">(row);
  FUZZ_REQUIRE(row.get<"text">() == row.view<"text">().view());
  out << row.get<"addr">() << row.view<"addr">() << row.hash<"addr">() << row.less<"addr">(row);
  out << row.view<"net">() << row.hash<"net">() << row.equal<"net">(row);
  FUZZ_REQUIRE(!row.less<"net">(row) && row == row);
  const auto netIsValue = mayBeOutOfRange([&] { out << row.get<"net">(); });
  const auto netsAreValues = mayBeOutOfRange([&] { out << row.get<"nets">().size(); });
  if (rule == PrefixRule::noHostBits) FUZZ_REQUIRE(netIsValue && netsAreValues);
  for (const auto& text : row.view<"texts">()) out << text;
  for (const auto& text : row.get<"texts">()) out << text;
  for (const auto& addr : row.view<"addrs">()) out << addr;
  for (const auto& addr : row.get<"addrs">()) out << addr;
  for (const auto& net : row.view<"nets">()) out << net;
  for (const bool flag : row.view<"flags">()) out << flag;
  FUZZ_REQUIRE(row.get<"flags">().size() == row.view<"flags">().size());
  const auto middle = row.view<"middle">();
  out << middle.get<"addr">() << middle.view<"nets">().size() << middle.toJson();
  const auto leaf = middle.view<"leaf">();
  out << leaf.get<"flag">() << leaf.get<"text">() << leaf.get<"flags">().size();
  if (!leaf.isNull()) out << leaf.hash<"text">() << leaf.equal<"text">(leaf);
  FUZZ_REQUIRE(row.toJson() == Korvo::detail::rowAsJson(row, Mixed::info));
  out << row.toString() << varFieldMap(row).size();
}

// ---------------------------------------------------------------------------------------------
// Writers

/// Applies one operation of the input to the row.
class Writer {
 public:
  Writer(Input& input, AnyRow& row) : input_(input), row_(row) {}

  void write() {
    const auto& columns = row_.layout().columns;
    const std::size_t operation = input_.below(16);
    if (operation == 0) {
      row_.clearRow();
    } else if (operation == 1) {
      row_.rowOidIs(input_.word());
    } else if (columns.empty()) {
      return;
    } else if (const ColumnInfo& column = columns[input_.below(columns.size())]; !hasSlot(column)) {
      writeFixed(column);
    } else if (operation == 2) {
      row_.rowOidIs(7);  // room is only made in a buffer that is the row's alone
      row_.makeFreeSpace(column.offset, input_.byte(), base());
    } else if (operation == 3) {
      if (row_.isFullyDefined()) row_.compactVariableData(base());
    } else if (operation < 7) {
      copyColumn(column);
    } else if (column.isArray) {
      writeArray(column);
    } else {
      writeValue(column);
    }
  }

 private:
  len_t base() const { return row_.layout().baseLength; }

  void writeFixed(const ColumnInfo& column) {
    if (column.width == 1) row_.setFixedColumn<std::uint8_t>(column.offset, input_.byte());
    if (column.width == 2) row_.setFixedColumn<std::int16_t>(column.offset, -1);
    if (column.width == 4) row_.setFixedColumn<IpAddr>(column.offset, IpAddr(input_.byte()));
    if (column.width == 8) row_.setFixedColumn<std::uint64_t>(column.offset, input_.word());
    if (column.width == 16) row_.setFixedColumn<Ip6Addr>(column.offset, Ip6Addr());
  }

  /// From any column of the same kind, this one included.
  void copyColumn(const ColumnInfo& column) {
    const auto& columns = row_.layout().columns;
    const std::size_t first = input_.below(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const ColumnInfo& source = columns[(first + i) % columns.size()];
      if (source.type != column.type || source.isArray != column.isArray ||
          source.nested != column.nested) {
        continue;
      }
      row_.copyVarColumn(source.offset, row_, column.offset, base());
      return;
    }
  }

  void writeArray(const ColumnInfo& column) {
    const len_t at = column.offset;
    switch (column.type) {
      case stringType_:
        return row_.setColumn(at, arrayFrom<std::string>(input_), base());
      case ipGenAddrType_:
        return row_.setColumn(at, arrayFrom<IpGenAddr>(input_), base());
      case ipGenPrefixType_:
        return row_.setColumn(at, arrayFrom<IpGenPrefix>(input_), base());
      case structType_:
        return;  // has no writer but copying
      default:
        return row_.updateFixElemArray(at, base(), arrayFrom<bool>(input_));
    }
  }

  /// A value of the input's, or a reference into this row.
  void writeValue(const ColumnInfo& column) {
    const len_t at = column.offset;
    const bool own = input_.below(3) == 0;
    switch (column.type) {
      case stringType_:
        if (own) return writeOwn<StringValueReference>(column);
        return row_.setColumn(
            at,
            input_.below(64) == 1 ? std::string(input_.word(), 'x') : input_.text(input_.below(60)),
            base());
      case ipGenAddrType_:
        if (own) return writeOwn<IpGenAddrReference>(column);
        return row_.setColumn(at, addrFrom(input_), base());
      case ipGenPrefixType_:
        if (own) return writeOwn<IpGenPrefixReference>(column);
        return row_.setColumn(at, prefixFrom(input_), base());
      default: {
        SubRowReference nested;
        row_.getColumn(at, nested);
        if (own && !nested.isNull()) return row_.setColumn(at, nested, base());
        Bytes built = builtRow(input_, *column.nested, 2);
        putWord(built, 2, column.nested->rowType);
        if (checkRow(built.data(), built.size(), *column.nested)) return;
        row_.setColumn(at, SubRowReference(built.data()), base());
      }
    }
  }

  template <typename Reference>
  void writeOwn(const ColumnInfo& column) {
    const auto& columns = row_.layout().columns;
    const ColumnInfo& source = columns[input_.below(columns.size())];
    if (source.type != column.type || source.isArray) return;
    Reference value;
    row_.getColumn(source.offset, value);
    row_.setColumn(column.offset, value, base());
  }

  Input& input_;
  AnyRow& row_;
};

/// The writers of the row classes, by name: values of the input's, and views of the row's own.
class NamedWriter {
 public:
  NamedWriter(Input& input, TableRow<Mixed>& row) : input_(input), row_(row) {}

  void write() {
    switch (input_.below(16)) {
      case 0:
        return row_.set<"text">(row_.view<"other">());
      case 1:
        return row_.set<"other">(input_.text(input_.below(60)));
      case 2:
        return row_.set<"addr">(row_.view<"addr">());
      case 3:
        return row_.set<"addr">(addrFrom(input_));
      case 4:
        return row_.set<"net">(row_.view<"net">());
      case 5:
        return row_.set<"net">(prefixFrom(input_));
      case 6:
        return row_.set<"texts">(input_.flag() ? row_.get<"texts">()
                                               : arrayFrom<std::string>(input_));
      case 7:
        return row_.set<"addrs">(arrayFrom<IpGenAddr>(input_));
      case 8:
        return row_.set<"nets">(input_.flag() ? row_.get<"nets">()
                                              : arrayFrom<IpGenPrefix>(input_));
      case 9:
        return row_.set<"flags">(input_.flag() ? row_.get<"flags">() : arrayFrom<bool>(input_));
      case 10:
        if (const auto own = row_.view<"middle">(); !own.isNull()) row_.set<"middle">(own);
        return;
      case 11:
        return setMiddle();
      case 12:
        // From a row that is nested in this one.
        return copyFrom<Leaf::offset<"text">>(row_.view<"middle">().view<"leaf">());
      case 13:
        return row_.set<"middle">(madeMiddle());
      case 14:
        return row_.set<"v6">(row_.get<"v6">());
      default:
        row_.set<"flag">(input_.flag());
        row_.set<"real">(row_.get<"real">());
        row_.set<"u64">(row_.get<"u64">());
    }
  }

 private:
  template <len_t From>
  void copyFrom(const BaseRow& source) {
    if (source.isNull()) return;
    row_.copyVarColumn(From, source, Mixed::offset<"text">, Mixed::baseLength);
  }

  TableRow<Middle> madeMiddle() {
    TableRow<Leaf> leaf;
    leaf.create(input_.byte());
    leaf.set<"text">(row_.view<"text">());
    TableRow<Middle> middle;
    middle.create();
    middle.set<"leaf">(leaf);
    middle.set<"addr">(row_.view<"addr">());
    return middle;
  }

  /// A nested row's copy, changed and put back.
  void setMiddle() {
    const auto own = row_.view<"middle">();
    if (own.isNull()) return;
    TableRow<Middle> copy;
    try {
      copy.adopt(own.rowBuf(), own.rowLength());
    } catch (const KoInvalidArgument&) {  // of another type
      return;
    }
    copy.set<"addr">(addrFrom(input_));
    row_.set<"middle">(copy);
  }

  Input& input_;
  TableRow<Mixed>& row_;
};

/// Several rows, the largest texts and addresses last.
void sortByName(const TableRow<Mixed>& one, const TableRow<Mixed>& other) {
  TableRow<Mixed> empty;
  empty.create();
  std::vector<TableRow<Mixed>> rows = {one, empty, other, one};
  sortRows<"text">(std::span(rows));
  for (std::size_t i = 1; i < rows.size(); ++i) FUZZ_REQUIRE(!rows[i].less<"text">(rows[i - 1]));
  sortRows<"addr">(std::span(rows));
  for (std::size_t i = 1; i < rows.size(); ++i) FUZZ_REQUIRE(!rows[i].less<"addr">(rows[i - 1]));
  sortRows<"net">(std::span(rows));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    FUZZ_REQUIRE(!rows[i].less<"net">(rows[i - 1]));
    FUZZ_REQUIRE(rows[i].view<"net">().af() >= rows[i - 1].view<"net">().af());
  }
  sortRows<"flag", "real", "addr", "net", "text">(rows);
  for (std::size_t i = 1; i < rows.size(); ++i) {
    FUZZ_REQUIRE(!(rows[i].less<"flag", "real", "addr", "net", "text">(rows[i - 1])));
  }
}

void writeByName(const Bytes& bytes, Input& input) {
  TableRow<Mixed> row;
  if (!adopts(row, bytes)) return;
  for (int step = 0; step < 6 && !input.empty(); ++step) {
    const Bytes before = bytesOf(row);
    try {
      NamedWriter(input, row).write();
    } catch (const KoOutOfRange&) {
      FUZZ_REQUIRE(bytesOf(row) == before);
    }
    const Bytes after = bytesOf(row);
    FUZZ_REQUIRE(!checkRow(after.data(), after.size(), Mixed::info));
  }
  TableRow<Mixed> former;
  former.adopt(bytes.data(), bytes.size());
  sortByName(row, former);
}

/// Checks the bytes; if they pass, reads, writes and reads again.
void use(const Bytes& bytes, const LayoutInfo& layout, Input& input) {
  const ExactBlock block(bytes);
  if (checkRow(block.data(), bytes.size(), layout)) return;
  const PrefixRule rule = checkRow(block.data(), bytes.size(), layout, PrefixRule::noHostBits)
                              ? PrefixRule::anyBits
                              : PrefixRule::noHostBits;
  AnyRow row(layout, input.flag(), bytes);
  AnyRow other(layout, true, [&] {
    Bytes header(layout.baseLength);
    putWord(header, 0, layout.baseLength);
    return header;
  }());
  Reader(rule).read(row, other, layout);
  FUZZ_REQUIRE(varFieldMap(row).size() <= row.vcd().size());
  if (&layout == &Mixed::info) readByName(bytes, rule);
  FUZZ_REQUIRE(bytesOf(row) == bytes);

  for (int step = 0; step < 8 && !input.empty(); ++step) {
    const Bytes before = bytesOf(row);
    const bool shared = input.flag();
    if (shared) other.shareContents(row);
    try {
      Writer(input, row).write();
    } catch (const KoOutOfRange&) {
      FUZZ_REQUIRE(bytesOf(row) == before);
    }
    if (shared) FUZZ_REQUIRE(bytesOf(other) == before);
    const Bytes after = bytesOf(row);
    FUZZ_REQUIRE(!checkRow(after.data(), after.size(), layout));
  }
  Reader(PrefixRule::anyBits).read(row, other, layout);
  if (&layout == &Mixed::info) writeByName(bytes, input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const unsigned int choice = input.byte();
  const LayoutInfo& layout = *rowLayouts[(choice >> 2) % std::size(rowLayouts)];
  if ((choice & 1) == 0) {
    Bytes bytes = input.bytes(input.word());
    if ((choice & 2) != 0 && bytes.size() >= 2) putWord(bytes, 0, bytes.size());
    use(bytes, layout, input);
    return 0;
  }
  Bytes bytes = builtRow(input, layout, 3);
  for (std::size_t changes = input.below(4); changes != 0; --changes) {
    bytes[input.below(bytes.size())] ^= input.byte();
  }
  use(bytes, layout, input);
  return 0;
}
