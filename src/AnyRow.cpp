#include <Korvo/AnyRow.h>

#include "jsonReader.h"

#include <cstring>
#include <limits>
#include <optional>
#include <type_traits>
#include <vector>

namespace Korvo {
namespace {

using Bytes = std::vector<byte_t>;

constexpr std::size_t maxArrayCount = arrayCountMask;

/// The address, where the text is one; only characters of addresses make one here, as it comes from
/// anybody.
std::optional<IpGenAddr> addressOf(std::string_view text) {
  constexpr std::string_view allowed = "0123456789abcdefABCDEF:.";
  if (text.find_first_not_of(allowed) != text.npos) return std::nullopt;
  try {
    return IpGenAddr(std::string(text));
  } catch (const KoInvalidArgument&) {
    return std::nullopt;
  }
}

/// Appends the bytes of an address or a prefix, unless the text is none of the column's type.
bool appendAddress(Bytes& to, KorvoTypes type, std::string_view text) {
  std::size_t mask = 0;
  if (type == ipGenPrefixType_) {
    const std::size_t slash = text.rfind('/');
    if (slash == text.npos) return false;
    const std::string_view digits = text.substr(slash + 1);
    const auto number = detail::numberOf<byte_t>(digits);
    if (!number) return false;
    mask = *number;
    text = text.substr(0, slash);
  }
  const std::optional<IpGenAddr> addr = addressOf(text);
  if (!addr) return false;
  const std::size_t length = addr->af() == ipv6_ ? ipv6Length : ipv4Length;
  if (type == ipAddrType_ && length != ipv4Length) return false;
  if (type == ip6AddrType_ && length != ipv6Length) return false;
  if (type == ipGenPrefixType_) {
    if (mask > 8 * length) return false;
    to.push_back(static_cast<byte_t>(mask));
  }
  to.insert(to.end(), addr->bytes(), addr->bytes() + length);
  return true;
}

constexpr bool isAddress(KorvoTypes type) {
  return type == ipAddrType_ || type == ip6AddrType_ || type == ipGenAddrType_ ||
         type == ipGenPrefixType_;
}

std::string typeName(KorvoTypes type) {
  return std::string(detail::layoutTypeNames[type]);
}

/// Reads values and gives the bytes that a row holds for them.
class Encoder {
 public:
  explicit Encoder(std::string_view json) : in_(json) {}

  /// The whole text is the value of `column`.
  Bytes column(const ColumnInfo& column) {
    Bytes value = encoded(column);
    in_.expectEnd();
    return value;
  }
  /// The whole text is a row, none for null.
  std::optional<Bytes> wholeRow(const LayoutInfo& layout, oid_t oid) {
    if (in_.takeWord("null")) {
      in_.expectEnd();
      return std::nullopt;
    }
    Bytes bytes = row(layout, oid);
    in_.expectEnd();
    return bytes;
  }

 private:
  /// The value's bytes; of an address or the like that is null, none.
  Bytes encoded(const ColumnInfo& column) {
    const auto pathLength = path_.size();
    if (!path_.empty()) path_ += '.';
    path_ += column.name;
    in_.skipSpace();
    const std::size_t begin = in_.position();
    Bytes bytes = column.isArray ? array(column) : value(column);
    if (column.hasSlot() && bytes.size() > maxValueLength) {
      failAt(begin, "the value exceeds 32767 bytes");
    }
    path_.resize(pathLength);
    return bytes;
  }

  Bytes row(const LayoutInfo& layout, oid_t oid) {
    in_.skipSpace();
    const std::size_t begin = in_.position();
    Bytes bytes(layout.baseLength);
    storeField(bytes.data() + rowTypeOffset, layout.rowType);
    storeField(bytes.data() + rowOidOffset, oid);
    if (!in_.take('{')) fail("expected a row as an object");
    std::vector<bool> known(layout.columns.size());
    std::size_t expected = 0;
    if (!in_.take('}')) {
      do {
        in_.skipSpace();
        const std::size_t keyBegin = in_.position();
        const std::string key = in_.string();
        const std::size_t index = indexOf(layout, key, expected);
        if (index == layout.columns.size()) {
          failAt(keyBegin, "unknown column - (" + detail::shown(key) + ")");
        }
        if (known[index]) failAt(keyBegin, "column named twice - (" + detail::shown(key) + ")");
        known[index] = true;
        expected = index + 1;
        in_.expect(':', "':'");
        const ColumnInfo& column = layout.columns[index];
        place(bytes, column, encoded(column));
        if (bytes.size() > maxRowLength) failAt(begin, "the row exceeds 65535 bytes");
      } while (in_.take(','));
      in_.expect('}', "',' or '}'");
    }
    storeField(bytes.data() + rowLengthOffset, static_cast<len_t>(bytes.size()));
    return bytes;
  }

  /// Most texts name the columns in their order.
  static std::size_t indexOf(const LayoutInfo& layout, std::string_view name,
                             std::size_t expected) {
    const std::size_t count = layout.columns.size();
    if (expected < count && layout.columns[expected].name == name) return expected;
    std::size_t index = 0;
    while (index < count && layout.columns[index].name != name) ++index;
    return index;
  }

  static void place(Bytes& row, const ColumnInfo& column, const Bytes& value) {
    if (!column.hasSlot()) {
      std::copy(value.begin(), value.end(), row.begin() + column.offset);
    } else if (!value.empty()) {
      VColType::at(row.data(), column.offset)
          .valueIs(static_cast<len_t>(row.size()), static_cast<len_t>(value.size()),
                   column.isArray);
      row.insert(row.end(), value.begin(), value.end());
    }
  }

  Bytes array(const ColumnInfo& column) {
    if (in_.takeWord("null")) return {};
    if (!in_.take('[')) fail("expected an array");
    if (in_.take(']')) return {};
    const auto pathLength = path_.size();
    std::vector<Bytes> elements;
    do {
      path_ += '[' + std::to_string(elements.size()) + ']';
      if (elements.size() == maxArrayCount) fail("an array has at most 4095 elements");
      elements.push_back(value(column));
      if (elements.back().empty() && column.type == structType_) fail("null is no element");
      if (elements.back().size() > maxValueLength) fail("the value exceeds 32767 bytes");
      path_.resize(pathLength);
    } while (in_.take(','));
    in_.expect(']', "',' or ']'");
    return arrayBytes(elements, column.type != boolType_);
  }

  /// May be longer than a value can be; then its offsets say nothing.
  static Bytes arrayBytes(const std::vector<Bytes>& elements, bool variable) {
    std::size_t end = arrayHeaderLength + (variable ? sizeof(VColType) * elements.size() : 0);
    std::size_t length = end;
    for (const Bytes& element : elements) length += element.size();
    Bytes bytes(length);
    storeField(bytes.data(), static_cast<std::uint16_t>(elements.size()));
    if (variable) bytes[1] |= arrayVariableMark;
    for (std::size_t i = 0; i < elements.size(); ++i) {
      const Bytes& element = elements[i];
      if (variable) {
        VColType::at(bytes.data(), arrayHeaderLength + sizeof(VColType) * i)
            .valueIs(static_cast<len_t>(end), static_cast<len_t>(element.size()), false);
      }
      if (!element.empty()) std::memcpy(bytes.data() + end, element.data(), element.size());
      end += element.size();
    }
    return bytes;
  }

  Bytes value(const ColumnInfo& column) {
    Bytes bytes;
    const KorvoTypes type = column.type;
    const bool isVariable = korvoTypeIsVariableLength(type);
    if (isVariable && in_.takeWord("null")) return bytes;
    if (type == structType_) return row(*column.nested, 0);
    if (type == stringType_ || isAddress(type)) {
      in_.skipSpace();
      const std::size_t begin = in_.position();
      if (in_.peek() != '"') fail("expected a string for " + typeName(type));
      const std::string text = in_.string();
      if (type == stringType_) {
        bytes.assign(text.begin(), text.end());
      } else if (!appendAddress(bytes, type, text)) {
        failAt(begin, '"' + detail::shown(text) + "\" is no " + typeName(type));
      }
      return bytes;
    }
    if (type == boolType_) {
      const bool isTrue = in_.takeWord("true");
      if (!isTrue && !in_.takeWord("false")) fail("expected true or false");
      bytes.push_back(isTrue ? 1 : 0);
      return bytes;
    }
    return number(type);
  }

  Bytes number(KorvoTypes type) {
    switch (type) {
      case uint8Type_:
        return numberAs<std::uint8_t>(type);
      case uint16Type_:
      case lenType_:
        return numberAs<std::uint16_t>(type);
      case uint32Type_:
      case oidType_:
        return numberAs<std::uint32_t>(type);
      case uint64Type_:
        return numberAs<std::uint64_t>(type);
      case int8Type_:
        return numberAs<std::int8_t>(type);
      case int16Type_:
        return numberAs<std::int16_t>(type);
      case int32Type_:
        return numberAs<std::int32_t>(type);
      case int64Type_:
        return numberAs<std::int64_t>(type);
      case floatType_:
        return numberAs<float>(type);
      default:
        return numberAs<double>(type);
    }
  }

  template <typename Number>
  Bytes numberAs(KorvoTypes type) {
    in_.skipSpace();
    const std::size_t begin = in_.position();
    if constexpr (std::is_floating_point_v<Number>) {
      if (in_.takeWord("null")) return bytesOf(std::numeric_limits<Number>::quiet_NaN());
    }
    const std::string_view text = in_.number();
    if (text.empty()) fail("expected a number");
    if constexpr (std::is_integral_v<Number>) {
      if (text.find_first_of(".eE") != text.npos) {
        failAt(begin, detail::shown(text) + " is no " + typeName(type));
      }
    }
    // "-0" is 0, also where numbers have no sign.
    const auto number = detail::numberOf<Number>(
        std::is_unsigned_v<Number> && text == "-0" ? text.substr(1) : text);
    if (!number) failAt(begin, detail::shown(text) + " does not fit " + typeName(type));
    return bytesOf(*number);
  }

  template <typename Number>
  static Bytes bytesOf(Number number) {
    Bytes bytes(sizeof number);
    storeField(bytes.data(), number);
    return bytes;
  }

  [[noreturn]] void fail(const std::string& message) {
    in_.skipSpace();
    failAt(in_.position(), message);
  }
  [[noreturn]] void failAt(std::size_t position, const std::string& message) {
    in_.failAt(position,
               path_.empty() ? message : "column \"" + detail::shown(path_) + "\": " + message);
  }

  detail::JsonReader in_;
  std::string path_;  // "link.peers[2]": the column that is read
};

/// A row of one column, from which a value is copied into another row as it is.
class ValueRow : public BaseRow {
 public:
  static constexpr len_t slotOffset = rowHeaderLength;

  ValueRow(const Bytes& value, bool isArray) {
    constexpr std::size_t baseLength = rowHeaderLength + sizeof(VColType);
    installNew(static_cast<len_t>(baseLength + value.size()), 0, 0);
    byte_t* const buf = rowBuf();
    if (value.empty()) return;
    VColType::at(buf, slotOffset).valueIs(baseLength, static_cast<len_t>(value.size()), isArray);
    std::copy(value.begin(), value.end(), buf + baseLength);
  }
};

const ColumnInfo& columnOf(const DynamicLayout& layout, std::string_view name) {
  if (const ColumnInfo* const column = layout.find(name)) return *column;
  throw KoInvalidArgument("Unknown column - (" + std::string(name) + ")");
}

void write(AnyRow& row, const ColumnInfo& column, const Bytes& value) {
  const len_t at = column.offset;
  if (column.hasSlot()) {
    return row.copyVarColumn(ValueRow::slotOffset, ValueRow(value, column.isArray), at,
                             row.layout().info().baseLength);
  }
  // Only the width decides; the bytes are the value's already.
  switch (column.width) {
    case 1:
      return row.setFixedColumn(at, value[0]);
    case 2:
      return row.setFixedColumn(at, loadField<std::uint16_t>(value.data()));
    case 4:
      return row.setFixedColumn(at, loadField<std::uint32_t>(value.data()));
    case 8:
      return row.setFixedColumn(at, loadField<std::uint64_t>(value.data()));
    default:
      return row.setFixedColumn(at, Ip6Addr(value.data()));
  }
}

}  // namespace

void AnyRow::create(oid_t oid, std::size_t valueBytes) {
  const LayoutInfo& layout = layout_.info();
  if (valueBytes > maxRowLength - layout.baseLength) {
    throw KoOutOfRange("Row length exceeds 65535 bytes");
  }
  installNew(static_cast<len_t>(layout.baseLength + valueBytes), layout.rowType, oid);
}

void AnyRow::adopt(const void* bytes, std::size_t length) {
  installCopy(bytes, length, layout_.info().baseLength, layout_.info().rowType);
}

std::string AnyRow::json(std::string_view column) const {
  // A layout of this column alone, without a name: {"":value}.
  ColumnInfo alone = columnOf(layout_, column);
  alone.name = {};
  if (isNull()) return "null";
  const LayoutInfo& layout = layout_.info();
  std::string text = detail::rowAsJson(*this, {layout.rowType, layout.baseLength, {&alone, 1}});
  constexpr std::size_t before = std::string_view("{\"\":").size();
  return text.substr(before, text.size() - before - 1);
}

std::string AnyRow::text(std::string_view column) const {
  const ColumnInfo& info = columnOf(layout_, column);
  if (isNull()) return {};
  if (info.type == stringType_ && !info.isArray) {
    std::string text;
    getColumn(info.offset, text);
    return text;
  }
  std::string text = json(column);
  if (info.hasSlot() && text == "null") return {};
  // Addresses and prefixes have no character that JSON escapes.
  return text.front() == '"' ? text.substr(1, text.size() - 2) : text;
}

void AnyRow::jsonIs(std::string_view column, std::string_view json) {
  const ColumnInfo& info = columnOf(layout_, column);
  if (isNull()) throwNullRow();
  write(*this, info, Encoder(json).column(info));
}

void AnyRow::textIs(std::string_view column, std::string_view text) {
  const ColumnInfo& info = columnOf(layout_, column);
  if (isNull()) throwNullRow();
  const auto refuse = [&](const std::string& reason) {
    throw KoTextError("column \"" + detail::shown(column) + "\": " + reason, 1, 1);
  };
  if (info.hasSlot() && text.empty()) return write(*this, info, {});
  if (info.isArray || (info.type != stringType_ && !isAddress(info.type))) {
    return jsonIs(column, text);
  }
  Bytes value;
  if (info.type == stringType_) {
    if (text.size() > maxValueLength) refuse("the value exceeds 32767 bytes");
    value.assign(text.begin(), text.end());
  } else if (!appendAddress(value, info.type, text)) {
    refuse('"' + detail::shown(text) + "\" is no " + typeName(info.type));
  }
  write(*this, info, value);
}

void AnyRow::fromJson(std::string_view json) {
  const oid_t oid = isNull() ? 0 : rowOid();
  const std::optional<Bytes> bytes = Encoder(json).wholeRow(layout_.info(), oid);
  if (bytes) {
    adopt(bytes->data(), bytes->size());
  } else {
    nullifyRow();
  }
}

}  // namespace Korvo
