#pragma once

// Row classes of tables, declared once.
//
//   struct PortLayout : Korvo::RowLayout<7,  // the table's row type
//       Korvo::Column<"speed", std::uint32_t>,
//       Korvo::Column<"name", std::string>> {};
//   Korvo::TableRow<PortLayout> port;
//   port.create(1001);
//   port.set<"name">("eth0");
//   std::cout << port.view<"name">() << ' ' << port.toJson() << '\n';
//
// From the layout follow the columns' offsets, the base length, vcd(), columnOffset() and
// isFullyDefined(). Overlapping columns, names used twice and types without a column form do not
// compile. Columns stand one behind the other unless an offset is given; there is no padding.
//
// A layout may as well be an alias of its RowLayout; as a struct it has a short name in symbols and
// in the compiler's messages.

#include <Korvo/baseRow.h>
#include <Korvo/rowOrder.h>

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <ranges>
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
/// Of a type that no column has. The layout says so; nothing else is to be wrong with it.
template <typename T>
struct ColumnTraits : FixedTraits<T, uint8Type_> {
  static constexpr bool known = false;
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

/// Whether there is a column of this number, with a type that columns have.
template <std::size_t I, typename... Columns>
inline constexpr bool isKnownColumn = std::array<bool, sizeof...(Columns) + 1>{
    ColumnTraits<typename Columns::Type>::known..., false}[I];

/// Whether a column is written from exactly its own type.
template <typename T>
inline constexpr bool takesItsType = !ColumnTraits<T>::isVariable || isVector<T>;

}  // namespace detail

template <typename Layout>
class SubRow;
template <typename RowLayoutType>
class TableRow;

template <typename Layout>
struct detail::ColumnTraits<Nested<Layout>> : detail::SlotTraits<SubRow<Layout>, structType_> {
  static constexpr bool known = requires { Layout::info; };
  static constexpr const LayoutInfo* nested = [] {
    if constexpr (known) {
      return &Layout::info;
    } else {
      return static_cast<const LayoutInfo*>(nullptr);
    }
  }();
};

/// The columns of a table's rows.
template <std::uint16_t RowType, typename... Columns>
class RowLayout {
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
  // In a function of its own: a class whose own assertion fails is left half made by clang, which
  // then goes on about that.
  static constexpr bool requireSound() {
    static_assert((detail::ColumnTraits<typename Columns::Type>::known && ...),
                  "a column is a fixed-width type of the catalogue, std::string, IpGenAddr, "
                  "IpGenPrefix, a vector of these three or of bool, or Nested of a layout");
    static_assert(insideTheRow(), "a column lies in the header or ends beyond 65535 bytes");
    static_assert(disjoint(), "two columns overlap");
    static_assert(namesDiffer(), "two columns have the same name");
    return true;
  }
  static_assert(requireSound());

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

  /// The column's place in `columns`; the number of columns where none has this name.
  template <ColumnName Name>
  static constexpr std::size_t indexOf() {
    std::size_t place = 0;
    const bool found = ((Columns::name == Name.view() || (++place, false)) || ...);
    return found ? place : count;
  }
  /// Whether there is a column of this name.
  template <ColumnName Name>
  static constexpr bool has = indexOf<Name>() < count;

  /// The column's place in `columns`.
  template <ColumnName Name>
  static constexpr std::size_t index = [] {
    static_assert(has<Name>, "the layout has no column of this name");
    return indexOf<Name>();
  }();
  /// The type of the named column, as declared.
  template <ColumnName Name>
  requires(detail::isKnownColumn<indexOf<Name>(), Columns...>) using Type =
      std::tuple_element_t<indexOf<Name>(), ColumnTypes>;
  template <ColumnName Name>
  static constexpr len_t offset = [] {
    static_assert(has<Name>, "the layout has no column of this name");
    if constexpr (has<Name>) {
      return columns[indexOf<Name>()].offset;
    } else {
      return len_t{0};
    }
  }();

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

// A mistake in a program is told once, by a static_assert: overloads that say what they want by
// constraints make compilers list all of them. What such a call gives is quiet in the rest of the
// program.

template <typename Layout, ColumnName Name>
inline constexpr bool layoutHasColumn = Layout::template has<Name>;
/// Not so where the layout has been refused for the column's type.
template <typename Layout, ColumnName Name>
inline constexpr bool columnIsUsable = requires {
  typename Layout::template Type<Name>;
};

/// Stands for any arguments of a call that does not compile.
struct Anything {
  template <typename... T>
  Anything(const T&...) {}  // NOLINT(google-explicit-constructor)
};
/// Stands for the value of a column that does not exist.
struct ThereIsNoColumnOfThisName {
  template <typename T>
  operator T() const;  // NOLINT(google-explicit-constructor)
  bool empty() const;
  std::size_t size() const;
  friend std::ostream& operator<<(std::ostream&, const ThereIsNoColumnOfThisName&);
  template <typename T>
  friend bool operator==(const ThereIsNoColumnOfThisName&, const T&);
};

/// What the column's type says of it; nothing where there is no such column.
template <typename Layout, ColumnName Name>
struct NamedColumn {
  static constexpr bool isFixed = false, isOrdered = false, isNested = false;
};
template <typename Layout, ColumnName Name>
requires(columnIsUsable<Layout, Name>) struct NamedColumn<Layout, Name> {
  using Traits = ColumnTraits<typename Layout::template Type<Name>>;
  static constexpr bool isNested = Traits::nested != nullptr;
  static constexpr bool isFixed = !Traits::isVariable;
  static constexpr bool isOrdered = !Traits::isArray && !isNested;
};

/// Whether order and hash can be made of the columns.
template <typename Layout, ColumnName... Names>
inline constexpr bool areOrdered = (NamedColumn<Layout, Names>::isOrdered && ...);

/// Stops the compiler where they cannot.
template <typename Layout, ColumnName... Names>
constexpr void requireOrder() {
  static_assert((layoutHasColumn<Layout, Names> && ...), "the layout has no column of this name");
  static_assert(areOrdered<Layout, Names...> || !(columnIsUsable<Layout, Names> && ...),
                "arrays and nested rows have no order and no hash");
}

/// What C++ would convert in silence to another value.
template <typename T, typename Value>
inline constexpr bool losesItsFraction = std::is_integral_v<T>&& std::is_floating_point_v<Value>;
template <typename T, typename Value>
inline constexpr bool isTakenForTrue =
    std::is_same_v<T, bool>&& std::is_pointer_v<std::decay_t<Value>>;

/// Whether a column of type T is written from a Value.
template <typename T, typename Value>
inline constexpr bool isWrittenFrom = std::is_convertible_v<const Value&, T> &&
                                      !losesItsFraction<T, Value> && !isTakenForTrue<T, Value>;
template <typename Value>
inline constexpr bool isWrittenFrom<std::string, Value> =
    std::is_convertible_v<const Value&, std::string_view> && !std::is_same_v<Value, std::nullptr_t>;
template <typename Value>
inline constexpr bool isWrittenFrom<IpGenAddr, Value> =
    std::is_convertible_v<const Value&, IpGenAddr> || std::is_same_v<Value, IpGenAddrReference>;
template <typename Value>
inline constexpr bool isWrittenFrom<IpGenPrefix, Value> =
    std::is_convertible_v<const Value&, IpGenPrefix> || std::is_same_v<Value, IpGenPrefixReference>;
template <typename Layout, typename Value>
inline constexpr bool isWrittenFrom<Nested<Layout>, Value> =
    std::is_convertible_v<const Value*, const TableRow<Layout>*> ||
    std::is_convertible_v<const Value*, const SubRow<Layout>*>;

/// Whether a column of type T is written from a list in braces of such elements.
template <typename T, typename Element>
inline constexpr bool isWrittenFromList =
    !ColumnTraits<T>::isVariable && std::is_convertible_v<const Element&, T>;
template <typename T, typename Element>
inline constexpr bool isWrittenFromList<std::vector<T>, Element> = [] {
  if constexpr (std::is_convertible_v<const Element&, T>) {
    return true;
  } else if constexpr (std::input_iterator<Element>) {  // the ends of a range
    return std::is_constructible_v<T, std::iter_reference_t<Element>>;
  } else {
    return false;
  }
}();

/// Says why a column of type T is not written from a Value.
template <typename T, typename Value>
constexpr void refuseValue() {
  constexpr bool fits = isWrittenFrom<T, Value>;
  if constexpr (losesItsFraction<T, Value>) {
    static_assert(fits, "a fraction is not written to a column of integers: round it first");
  } else if constexpr (isFixed<T>) {
    static_assert(fits,
                  "numbers are written to columns of numbers, bool to bool, IpAddr and "
                  "Ip6Addr to theirs");
  } else if constexpr (std::is_same_v<T, std::string>) {
    static_assert(fits, "a column of text is written from what converts to std::string_view");
  } else if constexpr (isArrayElement<T>) {
    static_assert(fits, "a column of addresses or prefixes is written from one or its reference");
  } else if constexpr (isVector<T>) {
    static_assert(fits, "an array column is written from a std::vector of its elements");
  } else {
    static_assert(fits, "a nested row is written from a TableRow or SubRow of the column's layout");
  }
}

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

/// Throws KoOutOfRange "Column (name): (reason)".
[[noreturn]] KORVO_API void throwForColumn(std::string_view column, std::string_view reason);

/// Names the column in what `access` throws.
template <typename Access>
decltype(auto) namingColumn(std::string_view column, const Access& access) {
  try {
    return access();
  } catch (const KoOutOfRange& e) {
    throwForColumn(column, e.what());
  }
}

/// Refuses arrays that a header cannot count.
template <typename T>
void checkArrayCount(const BaseRow& row, std::string_view column, const std::vector<T>& values) {
  if (values.size() > arrayCountMask) [[unlikely]] {
    (void)row.rowBuf();  // a null row is refused as such
    throwForColumn(column, "Array exceeds 4095 elements: " + std::to_string(values.size()));
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
  using RowsLayout = Layout;  ///< of the rows

  /// The column's value: numbers, addresses and prefixes as they are, text as std::string, arrays
  /// as vectors, nested rows as SubRow (which stays a view). The null value for a null row. Throws
  /// KoOutOfRange for a prefix with host bits set.
  template <ColumnName Name>
  auto get() const {
    static_assert(layoutHasColumn<Layout, Name>, "the layout has no column of this name");
    if constexpr (!columnIsUsable<Layout, Name>) {
      return ThereIsNoColumnOfThisName();
    } else {
      using T = Type<Name>;
      const auto copy = [this] { return copyColumn<T>(row(), at<Name>); };
      if constexpr (isOneOf<T, IpGenPrefix, std::vector<IpGenPrefix>>) {
        return namingColumn(Name.view(), copy);
      } else {
        return copy();
      }
    }
  }
  /// The column in place: a value reference, an ArrayReference, a SubRow, or the number itself.
  template <ColumnName Name>
  auto view() const {
    static_assert(layoutHasColumn<Layout, Name>, "the layout has no column of this name");
    if constexpr (columnIsUsable<Layout, Name>) {
      return viewColumn<Type<Name>>(row(), at<Name>);
    } else {
      return ThereIsNoColumnOfThisName();
    }
  }

  // Comparison and hash of one column, or of several, the first one first. Values are compared by
  // the rules of their value references, numbers as numbers (NaN behind all others and equal to
  // itself). Two prefixes without a family are equal, and come before all others. These throw
  // KoNullRow for a null row.

  /// Whether the named columns have equal values.
  template <ColumnName... Names>
  requires(sizeof...(Names) > 0) bool equal(const BaseRow& other) const {
    requireOrder<Layout, Names...>();
    if constexpr (areOrdered<Layout, Names...>) {
      return (areEqual(comparedView<Names>(row()), comparedView<Names>(other)) && ...);
    } else {
      return false;
    }
  }
  /// Whether this row's column < the other's.
  template <ColumnName Name, ColumnName... More>
  bool less(const BaseRow& other) const {
    requireOrder<Layout, Name, More...>();
    if constexpr (!areOrdered<Layout, Name, More...>) {
      return false;
    } else {
      const auto mine = comparedView<Name>(row());
      const auto others = comparedView<Name>(other);
      if constexpr (sizeof...(More) == 0) {
        return isBefore(mine, others);
      } else {
        return isBefore(mine, others) || (!isBefore(others, mine) && less<More...>(other));
      }
    }
  }
  /// The same on every host.
  template <ColumnName... Names>
  requires(sizeof...(Names) > 0) unsigned int hash() const {
    requireOrder<Layout, Names...>();
    if constexpr (areOrdered<Layout, Names...>) {
      return combinedHash({columnHash(comparedView<Names>(row()))...});
    } else {
      return 0;
    }
  }
  /// The orderKey() of a column's value reference, which see; of a number the like.
  template <ColumnName Name>
  std::uint64_t orderKey() const {
    requireOrder<Layout, Name>();
    if constexpr (areOrdered<Layout, Name>) {
      return columnOrderKey(comparedView<Name>(row()));
    } else {
      return 0;
    }
  }
  /// Step `level` of the column's value in its order, and whether there are more; for sortRows().
  template <ColumnName Name>
  std::uint64_t columnSortKey(unsigned int level) const {
    return sortKey(comparedView<Name>(row()), level);
  }
  /// Whether `key`, the one of this level, says all of the value's order.
  template <ColumnName Name>
  static bool isLastSortKey(std::uint64_t key, unsigned int level) {
    return isLastKey(std::type_identity<View<Name>>(), key, level);
  }

 private:
  template <ColumnName Name>
  using Type = typename Layout::template Type<Name>;
  template <ColumnName Name>
  using View = typename ColumnTraits<Type<Name>>::View;
  template <ColumnName Name>
  static constexpr len_t at = Layout::template offset<Name>;

  /// The column's value in place; throws for a null row.
  template <ColumnName Name, typename AnyRow>
  static View<Name> comparedView(const AnyRow& row) {
    const byte_t* const buf = row.rowBuf();
    if constexpr (ColumnTraits<Type<Name>>::isVariable) {
      const VColType& slot = VColType::at(buf, at<Name>);
      return referenceTo<View<Name>>(buf + slot.offset(), slot.length());
    } else {
      return fixedAt<View<Name>>(buf + at<Name>);
    }
  }

  const Row& row() const { return static_cast<const Row&>(*this); }
};

/// The writers that rows and their Writers have in common. Their guarantees and exceptions are
/// those of BaseRow's writers, and KoOutOfRange names the column. Arrays of more than 4,095
/// elements are refused, too: BaseRow's operations write them with a count that readers do not see.
template <typename Self, typename Layout>
class ColumnWriters {
  template <ColumnName Name>
  using Type = typename Layout::template Type<Name>;

 public:
  /// A number, a fixed-width address or an array.
  template <ColumnName Name>
  requires(takesItsType<Type<Name>>) void set(const Type<Name>& value) {
    if constexpr (isVector<Type<Name>>) {
      checkArrayCount(self().writtenRow(), Name.view(), value);
      write<Name>(EncodedArray(value));
    } else {
      self().writeField(Layout::template offset<Name>, value);
    }
  }
  /// Text: whatever converts to std::string_view. An address or a prefix: the value or its
  /// reference. A nested row: any row of its layout.
  template <ColumnName Name, typename Value>
  requires(!takesItsType<Type<Name>> &&
           isWrittenFrom<Type<Name>, Value>) void set(const Value& value) {
    using T = Type<Name>;
    if constexpr (std::is_same_v<T, std::string>) {
      write<Name>(encoded(std::string_view(value)));
    } else if constexpr (!isArrayElement<T>) {
      write<Name>(encodedRow(value.rowBuf()));
    } else if constexpr (std::is_same_v<Value, typename ColumnTraits<T>::View>) {
      write<Name>(encoded(value));
    } else {
      write<Name>(encoded(static_cast<const T&>(value)));
    }
  }
  template <ColumnName Name, typename Value>
  requires(!isWrittenFrom<Type<Name>, Value>) void set(const Value&) {
    refuseValue<Type<Name>, Value>();
  }
  template <ColumnName Name, typename Element>
  requires(!isWrittenFromList<Type<Name>, Element>) void set(std::initializer_list<Element>) {
    refuseValue<Type<Name>, std::initializer_list<Element>>();
  }
  template <ColumnName Name>
  requires(!columnIsUsable<Layout, Name>) void set(const Anything&) {
    static_assert(layoutHasColumn<Layout, Name>, "the layout has no column of this name");
  }

 private:
  template <ColumnName Name, typename Encoded>
  [[gnu::always_inline]] void write(const Encoded& value) {
    self().template writeColumn<Name>(value);
  }

  Self& self() { return static_cast<Self&>(*this); }
};

/// Whether two columns of type T have the same value.
template <typename T, typename View>
bool sameValues(const View& a, const View& b) {
  if constexpr (ColumnTraits<T>::isArray) {
    return std::ranges::equal(a, b);
  } else if constexpr (ColumnTraits<T>::nested != nullptr) {
    return a == b;
  } else {
    return areEqual(a, b);
  }
}

/// Whether two rows of a layout have the same values, or both are null.
template <typename Layout, typename Row, typename Other>
bool sameColumns(const Row& row, const Other& other) {
  if (row.isNull() || other.isNull()) return row.isNull() && other.isNull();
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return (sameValues<std::tuple_element_t<I, typename Layout::ColumnTypes>>(
                viewColumn<std::tuple_element_t<I, typename Layout::ColumnTypes>>(
                    row, Layout::columns[I].offset),
                viewColumn<std::tuple_element_t<I, typename Layout::ColumnTypes>>(
                    other, Layout::columns[I].offset)) &&
            ...);
  }
  (std::make_index_sequence<Layout::columns.size()>());
}

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

  /// By the values of the columns; the oid is none of them. Null rows are equal.
  friend bool operator==(const SubRow& a, const SubRow& b) {
    return detail::sameColumns<Layout>(a, b);
  }
};

/// A row of a table. It begins as a null row; create() and adopt() give it a buffer of its own.
template <typename RowLayoutType>
class TableRow : public BaseRow,
                 public detail::ColumnReaders<TableRow<RowLayoutType>, RowLayoutType>,
                 public detail::ColumnWriters<TableRow<RowLayoutType>, RowLayoutType> {
 public:
  using Layout = RowLayoutType;  ///< the columns
  template <ColumnName Name>
  using ColumnType = typename Layout::template Type<Name>;         ///< of the named column
  using Readers = detail::ColumnReaders<TableRow, RowLayoutType>;  ///< for rows and nested rows

  /// Makes this a new row, all columns zero or null. On a throw the row is as before.
  void create(oid_t oid = 0) { installNew(Layout::baseLength, Layout::rowType, oid); }
  /// The same with room for encoded values of `valueBytes` bytes, so that the row does not grow
  /// while they are set. Throws KoOutOfRange for a row of more than 65535 bytes.
  void create(oid_t oid, std::size_t valueBytes) {
    if (valueBytes > maxRowLength - Layout::baseLength) {
      throw KoOutOfRange("Row length exceeds 65535 bytes: " +
                         std::to_string(Layout::baseLength + valueBytes));
    }
    installNew(static_cast<len_t>(Layout::baseLength + valueBytes), Layout::rowType, oid);
  }

  /// Makes this a copy of a row that came from another process. Throws KoInvalidArgument unless
  /// `length` is what the header says, at least the base length, and the row type is the table's;
  /// the row is then as before.
  void adopt(const void* bytes, std::size_t length) {
    installCopy(bytes, length, Layout::baseLength, Layout::rowType);
  }

  // The readers once more, for clang to warn where a view is taken of a row that is a temporary.
  // Nested rows do without: their views refer to the outermost row.

  /// The column's value, a copy: see Readers::get().
  template <ColumnName Name>
  auto get() const {
    return Readers::template get<Name>();
  }
  template <ColumnName Name>
  requires(detail::NamedColumn<Layout, Name>::isNested) auto get() const KORVO_LIFETIMEBOUND {
    return Readers::template get<Name>();
  }
  /// The column in place: see Readers::view().
  template <ColumnName Name>
  auto view() const KORVO_LIFETIMEBOUND {
    return Readers::template view<Name>();
  }
  template <ColumnName Name>
  requires(detail::NamedColumn<Layout, Name>::isFixed) auto view() const {
    return Readers::template view<Name>();
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

  /// By the values of the columns; the oid is none of them. Null rows are equal. Also with a nested
  /// row of the layout.
  friend bool operator==(const TableRow& a, const TableRow& b) {
    return detail::sameColumns<Layout>(a, b);
  }
  friend bool operator==(const TableRow& a, const SubRow<Layout>& b) {
    return detail::sameColumns<Layout>(a, b);
  }

 private:
  friend detail::ColumnWriters<TableRow, Layout>;

  const BaseRow& writtenRow() const { return *this; }
  template <typename T>
  void writeField(len_t offset, const T& value) {
    setFixedColumn(offset, value);
  }
  template <ColumnName Name, typename Encoded>
  [[gnu::always_inline]] void writeColumn(const Encoded& encoded) {
    try {
      writeOwn<Layout>(Layout::template offset<Name>, encoded);
    } catch (const KoOutOfRange& e) {
      detail::throwForColumn(Name.view(), e.what());
    }
  }
};

/// A RowWriter that knows the columns by name.
template <typename RowLayoutType>
class TableRow<RowLayoutType>::Writer
    : public RowWriter,
      public detail::ColumnWriters<typename TableRow<RowLayoutType>::Writer, RowLayoutType> {
 public:
  /// Of a row that outlives it; changes nothing yet.
  explicit Writer(TableRow& row)
      : RowWriter(row, Layout::baseLength, Layout::slots), tableRow_(row) {}

 private:
  friend detail::ColumnWriters<Writer, Layout>;

  const BaseRow& writtenRow() const { return tableRow_; }
  template <typename T>
  void writeField(len_t offset, const T& value) {
    setFixedColumn(offset, value);
  }
  template <ColumnName Name, typename Encoded>
  void writeColumn(const Encoded& encoded) {
    detail::namingColumn(Name.view(), [&] { write(Layout::template offset<Name>, encoded); });
  }

  const TableRow& tableRow_;
};

// ---------------------------------------------------------------------------------------------
// Sorting

namespace detail {

/// Sorts rows by their columns' sort keys, one step at a time: only rows that are alike so far are
/// looked at again.
template <typename Row, ColumnName... Names>
class RowSorter {
 public:
  explicit RowSorter(std::span<Row> rows) : rows_(rows) {
    entries_.reserve(rows.size());
    for (Row& row : rows) entries_.push_back({0, &row});
  }

  void sort() {
    std::vector<Run> runs = {{0, entries_.size(), 0, 0}};
    while (!runs.empty()) {
      const Run run = runs.back();
      runs.pop_back();
      constexpr std::array<void (RowSorter::*)(const Run&, std::vector<Run>&), sizeof...(Names)>
          byColumn = {&RowSorter::sortByColumn<Names>...};
      (this->*byColumn[run.column])(run, runs);
    }
    std::vector<Row> sorted;
    sorted.reserve(rows_.size());
    for (const Entry& entry : entries_) sorted.push_back(std::move(*entry.row));
    std::move(sorted.begin(), sorted.end(), rows_.begin());
  }

 private:
  struct Entry {
    std::uint64_t key;
    Row* row;
  };
  /// Rows that are alike up to a step of a column.
  struct Run {
    std::size_t begin;
    std::size_t end;
    std::size_t column;
    unsigned int level;
  };
  /// Fewer rows are sorted by comparing them, which looks at each of them no more often.
  static constexpr std::size_t fewRows = 8;

  template <ColumnName Name>
  void sortByColumn(const Run& run, std::vector<Run>& runs) {
    const auto begin = entries_.begin() + static_cast<std::ptrdiff_t>(run.begin);
    const auto end = entries_.begin() + static_cast<std::ptrdiff_t>(run.end);
    for (auto at = begin; at != end; ++at) {
      at->key = at->row->template columnSortKey<Name>(run.level);
    }
    std::sort(begin, end, [](const Entry& a, const Entry& b) { return a.key < b.key; });
    for (auto first = begin; first != end;) {
      const std::uint64_t key = first->key;
      const auto last =
          std::find_if(first, end, [key](const Entry& entry) { return entry.key != key; });
      if (last - first > 1) sortAlike<Name>(run, first, last, runs);
      first = last;
    }
  }

  template <ColumnName Name, typename Iterator>
  void sortAlike(const Run& run, Iterator first, Iterator last, std::vector<Run>& runs) {
    Run alike = {static_cast<std::size_t>(first - entries_.begin()),
                 static_cast<std::size_t>(last - entries_.begin()), run.column, run.level + 1};
    if (Row::template isLastSortKey<Name>(first->key, run.level)) {
      alike.column = run.column + 1;
      alike.level = 0;
      if (alike.column == sizeof...(Names)) return;
    }
    if (last - first > static_cast<std::ptrdiff_t>(fewRows)) {
      runs.push_back(alike);
    } else {
      std::sort(first, last, [](const Entry& a, const Entry& b) {
        return a.row->template less<Names...>(*b.row);
      });
    }
  }

  std::span<Row> rows_;
  std::vector<Entry> entries_;
};

}  // namespace detail

/// Sorts rows as std::sort with less<Names...>() does, by one column or by several, the first one
/// first: `sortRows<"vrf", "net">(rows)`. Several times faster, for about 48 bytes of memory for
/// each row while it runs. On a throw (KoNullRow for a null row, std::bad_alloc) the rows are as
/// before.
template <ColumnName... Names, std::ranges::contiguous_range Rows>
requires(sizeof...(Names) > 0 && std::ranges::sized_range<Rows>) void sortRows(Rows&& rows) {
  using Row = std::ranges::range_value_t<Rows>;
  detail::requireOrder<typename Row::RowsLayout, Names...>();
  if constexpr (detail::areOrdered<typename Row::RowsLayout, Names...>) {
    detail::RowSorter<Row, Names...>(std::span<Row>(rows)).sort();
  }
}

}  // namespace Korvo
