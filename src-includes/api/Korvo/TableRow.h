#pragma once

// Row classes of tables, declared once.
//
//   using PortLayout = Korvo::RowLayout<7,  // the table's row type
//       Korvo::Column<"speed", std::uint32_t>,
//       Korvo::Column<"name", std::string>>;
//   Korvo::TableRow<PortLayout> port;
//   port.create(1001);
//   port.set<"name">("eth0");
//   std::cout << port.view<"name">() << ' ' << port.toJson() << '\n';
//
// From the layout follow the columns' offsets, the base length, vcd(), columnOffset() and
// isFullyDefined(). Overlapping columns, names used twice and types without a column form do not
// compile. Columns stand one behind the other unless an offset is given; there is no padding.

#include <Korvo/baseRow.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Korvo {

// ---------------------------------------------------------------------------------------------
// Declaring a layout

/// A column's name as a template argument.
template <std::size_t N>
struct ColumnName {
  char text[N];  ///< the name, terminated
  /// Made from a string literal.
  constexpr ColumnName(const char (&name)[N]) {  // NOLINT: a string literal names a column
    for (std::size_t i = 0; i < N; ++i) text[i] = name[i];
  }
  /// The text as a view, valid as long as this reference.
  constexpr std::string_view view() const { return {text, N - 1}; }
};

/// The offset of a column that stands right behind the one declared before it.
inline constexpr std::size_t behindThePrevious = 0;

/// One column. T: a fixed-width type, std::string, IpGenAddr, IpGenPrefix, a vector of these three
/// or of bool, or Nested<Layout>.
template <ColumnName Name, typename T, std::size_t Offset = behindThePrevious>
struct Column {
  using Type = T;                                        ///< the column's type as declared
  static constexpr std::string_view name = Name.view();  ///< static data
  static constexpr std::size_t offset = Offset;          ///< as declared, in bytes
};

/// The type of a column that holds a row of another layout.
template <typename Layout>
struct Nested {};

struct LayoutInfo;

/// What is known of a column at run time.
struct ColumnInfo {
  std::string_view name;     ///< static data
  KorvoTypes type;           ///< of the value, or of an array's elements
  len_t offset;              ///< of the value or the slot
  len_t width;               ///< in the fixed area
  bool isArray;              ///< whether it is an array column
  const LayoutInfo* nested;  ///< of a nested row, otherwise null

  /// Whether the value stands in the variable area.
  constexpr bool hasSlot() const {
    constexpr unsigned int variableLength =
        1U << stringType_ | 1U << structType_ | 1U << ipGenAddrType_ | 1U << ipGenPrefixType_;
    return isArray || (variableLength >> type & 1U) != 0;
  }
};

/// What is known of a table's rows at run time; static data.
struct LayoutInfo {
  std::uint16_t rowType;                ///< of the table's rows
  len_t baseLength;                     ///< header and fixed area: where the variable area begins
  std::span<const ColumnInfo> columns;  ///< in the order of their declaration
};

namespace detail {

template <typename T>
struct ColumnTraits {
  static constexpr bool known = false;
};
template <typename T, KorvoTypes Type>
struct FixedTraits {
  static constexpr bool known = true;
  static constexpr KorvoTypes type = Type;
  static constexpr len_t width = sizeof(T);
  static constexpr bool isVariable = false;
  static constexpr bool isArray = false;
  static constexpr const LayoutInfo* nested = nullptr;
  using View = T;
};
template <typename ViewType, KorvoTypes Type, bool IsArray = false>
struct SlotTraits {
  static constexpr bool known = true;
  static constexpr KorvoTypes type = Type;
  static constexpr len_t width = sizeof(VColType);
  static constexpr bool isVariable = true;
  static constexpr bool isArray = IsArray;
  static constexpr const LayoutInfo* nested = nullptr;
  using View = ViewType;
};
// clang-format off
template <> struct ColumnTraits<std::uint8_t> : FixedTraits<std::uint8_t, uint8Type_> {};
template <> struct ColumnTraits<std::uint16_t> : FixedTraits<std::uint16_t, uint16Type_> {};
template <> struct ColumnTraits<std::uint32_t> : FixedTraits<std::uint32_t, uint32Type_> {};
template <> struct ColumnTraits<std::uint64_t> : FixedTraits<std::uint64_t, uint64Type_> {};
template <> struct ColumnTraits<std::int8_t> : FixedTraits<std::int8_t, int8Type_> {};
template <> struct ColumnTraits<std::int16_t> : FixedTraits<std::int16_t, int16Type_> {};
template <> struct ColumnTraits<std::int32_t> : FixedTraits<std::int32_t, int32Type_> {};
template <> struct ColumnTraits<std::int64_t> : FixedTraits<std::int64_t, int64Type_> {};
template <> struct ColumnTraits<float> : FixedTraits<float, floatType_> {};
template <> struct ColumnTraits<double> : FixedTraits<double, doubleType_> {};
template <> struct ColumnTraits<bool> : FixedTraits<bool, boolType_> {};
template <> struct ColumnTraits<IpAddr> : FixedTraits<IpAddr, ipAddrType_> {};
template <> struct ColumnTraits<Ip6Addr> : FixedTraits<Ip6Addr, ip6AddrType_> {};
template <> struct ColumnTraits<std::string> : SlotTraits<StringValueReference, stringType_> {};
template <> struct ColumnTraits<IpGenAddr> : SlotTraits<IpGenAddrReference, ipGenAddrType_> {};
template <> struct ColumnTraits<IpGenPrefix>
    : SlotTraits<IpGenPrefixReference, ipGenPrefixType_> {};
// clang-format on
template <typename T>
struct ColumnTraits<std::vector<T>>
    : SlotTraits<ArrayReference<typename ColumnTraits<T>::View>, ColumnTraits<T>::type, true> {
  static constexpr bool known = isArrayElement<T> || std::is_same_v<T, bool>;
};

/// Whether a column is written from exactly its own type.
template <typename T>
inline constexpr bool takesItsType = !ColumnTraits<T>::isVariable || isVector<T>;

}  // namespace detail

template <typename Layout>
class SubRow;

template <typename Layout>
struct detail::ColumnTraits<Nested<Layout>> : detail::SlotTraits<SubRow<Layout>, structType_> {
  static constexpr const LayoutInfo* nested = &Layout::info;
};

/// The columns of a table's rows.
template <std::uint16_t RowType, typename... Columns>
class RowLayout {
  static_assert((detail::ColumnTraits<typename Columns::Type>::known && ...),
                "a column is a fixed-width type of the catalogue, std::string, IpGenAddr, "
                "IpGenPrefix, a vector of these three or of bool, or Nested<Layout>");

  static constexpr std::size_t count = sizeof...(Columns);

  struct Place {
    std::size_t begin;
    std::size_t end;
  };
  static constexpr std::array<Place, count> places = [] {
    std::array<Place, count> all{};
    std::size_t next = rowHeaderLength;
    std::size_t i = 0;
    [[maybe_unused]] const auto place = [&](std::size_t offset, std::size_t width) {
      const std::size_t begin = offset == behindThePrevious ? next : offset;
      next = begin + width;
      all[i++] = {begin, next};
    };
    (place(Columns::offset, detail::ColumnTraits<typename Columns::Type>::width), ...);
    return all;
  }();
  static constexpr std::size_t fixedEnd = [] {
    std::size_t end = rowHeaderLength;
    for (const Place& place : places) end = std::max(end, place.end);
    return end;
  }();

  static constexpr bool insideTheRow() {
    for (const Place& place : places) {
      if (place.begin < rowHeaderLength || place.end > maxRowLength) return false;
    }
    return true;
  }
  static constexpr bool disjoint() {
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t j = 0; j < i; ++j) {
        if (places[i].begin < places[j].end && places[j].begin < places[i].end) return false;
      }
    }
    return true;
  }
  static constexpr bool namesDiffer() {
    constexpr std::array<std::string_view, count> names = {Columns::name...};
    for (std::size_t i = 0; i < count; ++i) {
      for (std::size_t j = 0; j < i; ++j) {
        if (names[i] == names[j]) return false;
      }
    }
    return true;
  }
  static_assert(insideTheRow(), "a column lies in the header or ends beyond 65535 bytes");
  static_assert(disjoint(), "two columns overlap");
  static_assert(namesDiffer(), "two columns have the same name");

  template <ColumnName Name>
  static constexpr std::size_t indexOf() {
    std::size_t index = 0;
    const bool found = ((Columns::name == Name.view() || (++index, false)) || ...);
    return found ? index : count;
  }

 public:
  static constexpr std::uint16_t rowType = RowType;  ///< of the table's rows
  /// Header and fixed area: where the variable area begins.
  static constexpr len_t baseLength = static_cast<len_t>(fixedEnd);
  using ColumnTypes = std::tuple<typename Columns::Type...>;  ///< as declared

  /// The columns in the order of their declaration.
  static constexpr std::array<ColumnInfo, count> columns = [] {
    std::size_t i = 0;
    [[maybe_unused]] const auto describe = [&]<typename C>(std::type_identity<C>) {
      using Traits = detail::ColumnTraits<typename C::Type>;
      return ColumnInfo{C::name,       Traits::type,    static_cast<len_t>(places[i++].begin),
                        Traits::width, Traits::isArray, Traits::nested};
    };
    return std::array<ColumnInfo, count>{describe(std::type_identity<Columns>())...};
  }();
  static constexpr LayoutInfo info = {rowType, baseLength, columns};  ///< the same at run time

  /// The column's place in `columns`.
  template <ColumnName Name>
  static constexpr std::size_t index = [] {
    static_assert(indexOf<Name>() < count, "the layout has no column of this name");
    return indexOf<Name>();
  }();

  template <ColumnName Name>
  using Type = std::tuple_element_t<index<Name>, ColumnTypes>;  ///< of the named column
  template <ColumnName Name>
  static constexpr len_t offset = columns[index<Name>].offset;

  /// The slot offsets of the variable-length columns, in column order.
  static constexpr auto slots = [] {
    constexpr std::array<bool, count> isVariable = {
        detail::ColumnTraits<typename Columns::Type>::isVariable...};
    std::array<len_t, std::count(isVariable.begin(), isVariable.end(), true)> all{};
    std::size_t slot = 0;
    for (std::size_t i = 0; i < count; ++i) {
      if (isVariable[i]) all[slot++] = columns[i].offset;
    }
    return all;
  }();

  /// The place that the values in a row's buffer take.
  [[gnu::noinline]] static detail::Extent extent(const byte_t* buf) noexcept {
    detail::Extent values{baseLength};
#pragma GCC unroll 16
    for (const len_t slot : slots) values.add(VColType::at(buf, slot));
    return values;
  }
};

// ---------------------------------------------------------------------------------------------
// Typed access

namespace detail {

/// The column of `row` that stands at `offset`, in place. Row's own rowBuf() and isNull() are
/// final, so that a read comes down to its loads.
template <typename T, typename Row>
typename ColumnTraits<T>::View viewColumn(const Row& row, len_t offset) {
  using View = typename ColumnTraits<T>::View;
  if (row.isNull()) return View();
  const byte_t* const buf = row.rowBuf();
  if constexpr (!ColumnTraits<T>::isVariable) {
    return fixedAt<T>(buf + offset);
  } else {
    const VColType& slot = VColType::at(buf, offset);
    const len_t length = slot.length();
    if (length == 0) return View();
    const byte_t* const value = buf + slot.offset();
    if constexpr (isVector<T>) {
      return View(value, buf + loadField<len_t>(buf + rowLengthOffset));
    } else if constexpr (isReference<View>) {
      return referenceTo<View>(value, length);
    } else {
      return View(value);
    }
  }
}

/// The column's value, a copy that owes nothing to the row.
template <typename T, typename Row>
auto copyColumn(const Row& row, len_t offset) {
  if constexpr (std::is_same_v<T, std::vector<bool>>) {
    const auto view = viewColumn<T>(row, offset);
    return std::vector<bool>(view.begin(), view.end());
  } else if constexpr (isVector<T> || isArrayElement<T>) {
    T value;
    row.getColumn(offset, value);
    return value;
  } else {
    return viewColumn<T>(row, offset);
  }
}

/// The columns of `row` as a JSON object, or null for a null row.
KORVO_API std::string rowAsJson(const BaseRow& row, const LayoutInfo& layout);

/// Throws KoInvalidArgument "Unknown column - (name)" for a name that the layout does not have.
KORVO_API len_t offsetOf(const LayoutInfo& layout, std::string_view name);

/// The readers that rows and nested rows of a layout have in common.
template <typename Row, typename Layout>
class ColumnReaders {
 public:
  /// The column's value: numbers, addresses and prefixes as they are, text as std::string, arrays
  /// as vectors, nested rows as SubRow (which stays a view). The null value for a null row.
  template <ColumnName Name>
  auto get() const {
    return copyColumn<typename Layout::template Type<Name>>(row(), Layout::template offset<Name>);
  }
  /// The column in place: a value reference, an ArrayReference, a SubRow, or the number itself.
  template <ColumnName Name>
  auto view() const {
    return viewColumn<typename Layout::template Type<Name>>(row(), Layout::template offset<Name>);
  }
  /// Comparison and hash of a column by the rules of its value reference. They throw KoNullRow for
  /// a null row.
  template <ColumnName Name>
  bool equal(const BaseRow& other) const {
    return row().template columnEqual<Reference<Name>>(at<Name>, other, at<Name>);
  }
  /// Whether this row's column < the other's.
  template <ColumnName Name>
  bool less(const BaseRow& other) const {
    return row().template columnLess<Reference<Name>>(at<Name>, other, at<Name>);
  }
  /// A hash of the column's bytes, 32 bits wide and the same on every host.
  template <ColumnName Name>
  unsigned int hash() const {
    return row().template columnHash<Reference<Name>>(at<Name>);
  }
  /// The orderKey() of a column's value reference, which see.
  template <ColumnName Name>
  std::uint64_t orderKey() const {
    return row().template columnOrderKey<Reference<Name>>(at<Name>);
  }

 private:
  template <ColumnName Name>
  using Reference = typename ColumnTraits<typename Layout::template Type<Name>>::View;
  template <ColumnName Name>
  static constexpr len_t at = Layout::template offset<Name>;

  const Row& row() const { return static_cast<const Row&>(*this); }
};

}  // namespace detail

/// A nested row of a known layout, read in place; see SubRowReference for how long it is valid.
template <typename Layout>
class SubRow final : public SubRowReference, public detail::ColumnReaders<SubRow<Layout>, Layout> {
 public:
  SubRow() = default;
  /// The row that begins at `row`.
  explicit SubRow(const byte_t* row) : SubRowReference(row) {}
  explicit SubRow(const SubRowReference& row) : SubRowReference(row) {}

  /// The layout's slots; the same vector for all rows of the class.
  BaseRow::vcdType& vcd() const override {
    static vcdType slots(Layout::slots.begin(), Layout::slots.end());
    return slots;
  }
  /// Throws KoInvalidArgument for a name that the layout does not have.
  len_t columnOffset(const std::string& name) const override {
    return detail::offsetOf(Layout::info, name);
  }
  /// The layout's base length.
  len_t baseRowLength() override { return Layout::baseLength; }
  /// All columns as a JSON object, in the order of the layout; "null" for a null row.
  std::string toJson() const override { return detail::rowAsJson(*this, Layout::info); }
};

/// A row of a table. It begins as a null row; create() and adopt() give it a buffer of its own.
template <typename RowLayoutType>
class TableRow : public BaseRow,
                 public detail::ColumnReaders<TableRow<RowLayoutType>, RowLayoutType> {
 public:
  using Layout = RowLayoutType;  ///< the columns
  template <ColumnName Name>
  using ColumnType = typename Layout::template Type<Name>;  ///< of the named column

  /// Makes this a new row, all columns zero or null. On a throw the row is as before.
  void create(oid_t oid = 0) { installNew(Layout::baseLength, Layout::rowType, oid); }
  /// The same with room for encoded values of `valueBytes` bytes, so that the row does not grow
  /// while they are set. Throws KoOutOfRange for a row of more than 65535 bytes.
  void create(oid_t oid, std::size_t valueBytes) {
    if (valueBytes > maxRowLength - Layout::baseLength) {
      throw KoOutOfRange("Row length exceeds 65535 bytes");
    }
    installNew(static_cast<len_t>(Layout::baseLength + valueBytes), Layout::rowType, oid);
  }

  /// Makes this a copy of a row that came from another process. Throws KoInvalidArgument unless
  /// `length` is what the header says, at least the base length, and the row type is the table's;
  /// the row is then as before.
  void adopt(const void* bytes, std::size_t length) {
    installCopy(bytes, length, Layout::baseLength, Layout::rowType);
  }

  // Writers of one column; their guarantees and exceptions are those of BaseRow's writers.

  /// A number, a fixed-width address or an array.
  template <ColumnName Name>
  requires(detail::takesItsType<ColumnType<Name>>) void set(const ColumnType<Name>& value) {
    using T = ColumnType<Name>;
    if constexpr (detail::isVector<T>) {
      writeOwn<Layout>(slot<Name>, detail::EncodedArray(value));
    } else {
      setOwnField(slot<Name>, value);
    }
  }
  /// Text: whatever converts to std::string_view. An address or a prefix: the value or its
  /// reference. A nested row: any row of its layout.
  template <ColumnName Name, typename Value>
  requires(!detail::takesItsType<ColumnType<Name>>) void set(const Value& value) {
    writeEncoded<ColumnType<Name>>(value, [this](const detail::EncodedValue& encoded) {
      writeOwn<Layout>(slot<Name>, encoded);
    });
  }

  class Writer;
  /// Fills rows of many columns: `auto writer = row.writer(); writer.set<"name">("eth0");`. See
  /// RowWriter.
  Writer writer() { return Writer(*this); }

  /// The buffer for reading. Throws KoNullRow for a null row.
  byte_t* rowBuf() const final { return BaseRow::rowBuf(); }
  /// The buffer for writing; it does not copy a shared one. Throws KoNullRow for a null row.
  byte_t* rwRowBuf() final { return BaseRow::rwRowBuf(); }
  /// Whether the row has no buffer.
  bool isNull() const final { return BaseRow::isNull(); }
  /// The layout's slots; the same vector for all rows of the class.
  vcdType& vcd() const final {
    static vcdType slots(Layout::slots.begin(), Layout::slots.end());
    return slots;
  }
  /// Throws KoInvalidArgument for a name that the layout does not have.
  len_t columnOffset(const std::string& name) const override {
    return detail::offsetOf(Layout::info, name);
  }
  /// The layout's base length.
  len_t baseRowLength() override { return Layout::baseLength; }
  /// True: gaps are reused, and the row is compacted.
  bool isFullyDefined() const final { return true; }
  /// All columns as a JSON object, in the order of the layout; "null" for a null row.
  std::string toJson() const override { return detail::rowAsJson(*this, Layout::info); }

 private:
  template <ColumnName Name>
  static constexpr len_t slot = Layout::template offset<Name>;

  /// Gives `write` what a column of type T takes from `value`, while it lives.
  template <typename T, typename Value, typename Write>
  static void writeEncoded(const Value& value, Write write) {
    if constexpr (std::is_same_v<T, std::string>) {
      write(detail::encoded(std::string_view(value)));
    } else if constexpr (!detail::isArrayElement<T>) {
      write(encodedNested(value, std::type_identity<T>()));
    } else if constexpr (std::is_same_v<Value, typename detail::ColumnTraits<T>::View>) {
      write(detail::encoded(value));
    } else {
      write(detail::encoded(static_cast<const T&>(value)));
    }
  }

  /// The rows whose bytes a column of nested rows takes.
  template <typename NestedLayout>
  static detail::EncodedValue encodedNested(const TableRow<NestedLayout>& row,
                                            std::type_identity<Nested<NestedLayout>>) {
    return detail::encodedRow(row.rowBuf());
  }
  template <typename NestedLayout>
  static detail::EncodedValue encodedNested(const SubRow<NestedLayout>& row,
                                            std::type_identity<Nested<NestedLayout>>) {
    return detail::encodedRow(row.rowBuf());
  }
};

/// A RowWriter that knows the columns by name.
template <typename RowLayoutType>
class TableRow<RowLayoutType>::Writer : public RowWriter {
 public:
  /// Of a row that outlives it; changes nothing yet.
  explicit Writer(TableRow& row) : RowWriter(row, Layout::baseLength, Layout::slots) {}

  /// As the row's.
  template <ColumnName Name>
  requires(detail::takesItsType<ColumnType<Name>>) void set(const ColumnType<Name>& value) {
    if constexpr (detail::isVector<ColumnType<Name>>) {
      write(slot<Name>, detail::EncodedArray(value));
    } else {
      setFixedColumn(slot<Name>, value);
    }
  }
  /// As the row's.
  template <ColumnName Name, typename Value>
  requires(!detail::takesItsType<ColumnType<Name>>) void set(const Value& value) {
    writeEncoded<ColumnType<Name>>(
        value, [this](const detail::EncodedValue& encoded) { write(slot<Name>, encoded); });
  }
};

// ---------------------------------------------------------------------------------------------
// Sorting

/// Sorts rows as std::sort with less<Name>() does, mostly by comparing order keys: several times
/// faster, for about 40 bytes of memory for each row while it runs. On a throw (KoNullRow for a
/// null row, std::bad_alloc) the rows are as before.
template <ColumnName Name, typename Row>
void sortRows(std::span<Row> rows) {
  struct Entry {
    std::uint64_t key;
    Row* row;
  };
  std::vector<Entry> order;
  order.reserve(rows.size());
  for (Row& row : rows) order.push_back({row.template orderKey<Name>(), &row});
  std::sort(order.begin(), order.end(), [](const Entry& a, const Entry& b) {
    return a.key != b.key ? a.key < b.key : a.row->template less<Name>(*b.row);
  });
  std::vector<Row> sorted;
  sorted.reserve(rows.size());
  for (const Entry& entry : order) sorted.push_back(std::move(*entry.row));
  std::move(sorted.begin(), sorted.end(), rows.begin());
}

}  // namespace Korvo
