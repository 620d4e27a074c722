#include <Korvo/TableRow.h>

#include "jsonText.h"

namespace Korvo::detail {

len_t offsetOf(const LayoutInfo& layout, std::string_view name) {
  for (const ColumnInfo& column : layout.columns) {
    if (column.name == name) return column.offset;
  }
  throw KoInvalidArgument("Unknown column - (" + std::string(name) + ")");
}

void throwForColumn(std::string_view column, std::string_view reason) {
  throw KoOutOfRange("Column " + std::string(column) + ": " + std::string(reason));
}

namespace {

void appendRow(JsonText& json, const BaseRow& row, const LayoutInfo& layout);

void appendValue(JsonText& json, const SubRowReference& row, const LayoutInfo& layout) {
  appendRow(json, row, layout);
}

template <typename T>
T valueOf(const BaseRow& row, len_t slotOffset) {
  T value;
  row.getColumn(slotOffset, value);
  return value;
}

void appendValue(JsonText& json, const StringValueReference& text) {
  json.putString(text.view());
}
void appendValue(JsonText& json, const IpGenAddrReference& addr) {
  if (addr.af() == unknown_) {
    json.put("null");
  } else {
    json.putAddress(addr.af(), addr.addr());
  }
}
void appendValue(JsonText& json, const IpGenPrefixReference& prefix) {
  if (prefix.af() == unknown_) {
    json.put("null");
  } else {
    json.putPrefix(prefix.af(), prefix.addr(), prefix.mask());
  }
}
void appendValue(JsonText& json, bool value) {
  json.put(value ? "true" : "false");
}

/// `layout` is that of nested rows.
template <typename T, typename... Layout>
void appendArray(JsonText& json, const BaseRow& row, len_t slotOffset, const Layout&... layout) {
  json.put('[');
  const char* separator = "";
  for (const T& element : row.arrayReference<T>(slotOffset)) {
    json.put(separator);
    appendValue(json, element, layout...);
    separator = ",";
  }
  json.put(']');
}

void appendColumn(JsonText& json, const BaseRow& row, const ColumnInfo& column) {
  const len_t at = column.offset;
  switch (column.type) {
    case uint8Type_:
      return json.putNumber(std::uint64_t{row.fixedColumn<std::uint8_t>(at)});
    case uint16Type_:
    case lenType_:
      return json.putNumber(std::uint64_t{row.fixedColumn<std::uint16_t>(at)});
    case uint32Type_:
    case oidType_:
      return json.putNumber(std::uint64_t{row.fixedColumn<std::uint32_t>(at)});
    case uint64Type_:
      return json.putNumber(row.fixedColumn<std::uint64_t>(at));
    case int8Type_:
      return json.putNumber(std::int64_t{row.fixedColumn<std::int8_t>(at)});
    case int16Type_:
      return json.putNumber(std::int64_t{row.fixedColumn<std::int16_t>(at)});
    case int32Type_:
      return json.putNumber(std::int64_t{row.fixedColumn<std::int32_t>(at)});
    case int64Type_:
      return json.putNumber(row.fixedColumn<std::int64_t>(at));
    case floatType_:
      return json.putNumber(row.fixedColumn<float>(at));
    case doubleType_:
      return json.putNumber(row.fixedColumn<double>(at));
    case boolType_:
      if (column.isArray) return appendArray<bool>(json, row, at);
      return appendValue(json, row.fixedColumn<bool>(at));
    case ipAddrType_: {
      const unsigned int word = row.fixedColumn<IpAddr>(at).addr();
      return json.putAddress(ipv4_, reinterpret_cast<const byte_t*>(&word));
    }
    case ip6AddrType_: {
      const Ip6Addr addr = row.fixedColumn<Ip6Addr>(at);
      return json.putAddress(ipv6_, addr.bytes());
    }
    case stringType_:
      if (column.isArray) return appendArray<StringValueReference>(json, row, at);
      return appendValue(json, valueOf<StringValueReference>(row, at));
    case ipGenAddrType_:
      if (column.isArray) return appendArray<IpGenAddrReference>(json, row, at);
      return appendValue(json, valueOf<IpGenAddrReference>(row, at));
    case ipGenPrefixType_:
      if (column.isArray) return appendArray<IpGenPrefixReference>(json, row, at);
      return appendValue(json, valueOf<IpGenPrefixReference>(row, at));
    case structType_:
      if (column.isArray) return appendArray<SubRowReference>(json, row, at, *column.nested);
      return appendValue(json, valueOf<SubRowReference>(row, at), *column.nested);
  }
}

void appendRow(JsonText& json, const BaseRow& row, const LayoutInfo& layout) {
  if (row.isNull()) {
    json.put("null");
    return;
  }
  char separator = '{';
  for (const ColumnInfo& column : layout.columns) {
    json.put(separator);
    json.putString(column.name);
    json.put(':');
    appendColumn(json, row, column);
    separator = ',';
  }
  if (layout.columns.empty()) json.put('{');
  json.put('}');
}

}  // namespace

std::string rowAsJson(const BaseRow& row, const LayoutInfo& layout) {
  constexpr std::size_t besidesAName = 16;  // quotes, colon, comma, digits
  std::size_t expectedLength = row.isNull() ? 0 : row.rowLength();
  for (const ColumnInfo& column : layout.columns)
    expectedLength += column.name.size() + besidesAName;
  JsonText json(expectedLength);
  appendRow(json, row, layout);
  return json.take();
}

}  // namespace Korvo::detail
