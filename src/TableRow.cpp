#include <Korvo/TableRow.h>

#include "jsonText.h"

namespace Korvo::detail {

BaseRow::vcdType slotOffsets(const LayoutInfo& layout) {
  BaseRow::vcdType offsets;
  for (const ColumnInfo& column : layout.columns) {
    if (column.isArray || korvoTypeIsVariableLength(column.type)) offsets.push_back(column.offset);
  }
  return offsets;
}

len_t offsetOf(const LayoutInfo& layout, std::string_view name) {
  for (const ColumnInfo& column : layout.columns) {
    if (column.name == name) return column.offset;
  }
  throw KoInvalidArgument("Unknown column - (" + std::string(name) + ")");
}

namespace {

void appendRow(std::string& json, const BaseRow& row, const LayoutInfo& layout);

template <typename T>
T valueOf(const BaseRow& row, len_t slotOffset) {
  T value;
  row.getColumn(slotOffset, value);
  return value;
}

void appendValue(std::string& json, const StringValueReference& text) {
  appendJsonString(json, text.view());
}
void appendValue(std::string& json, const IpGenAddrReference& addr) {
  if (addr.af() == unknown_) {
    json += "null";
  } else {
    appendJsonAddress(json, addr.af(), addr.addr());
  }
}
void appendValue(std::string& json, const IpGenPrefixReference& prefix) {
  if (prefix.af() == unknown_) {
    json += "null";
  } else {
    appendJsonPrefix(json, prefix.af(), prefix.addr(), prefix.mask());
  }
}
void appendValue(std::string& json, bool value) {
  json += value ? "true" : "false";
}

template <typename T>
void appendArray(std::string& json, const BaseRow& row, len_t slotOffset) {
  json += '[';
  const char* separator = "";
  for (const T& element : row.arrayReference<T>(slotOffset)) {
    json += separator;
    appendValue(json, element);
    separator = ",";
  }
  json += ']';
}

void appendColumn(std::string& json, const BaseRow& row, const ColumnInfo& column) {
  const len_t at = column.offset;
  switch (column.type) {
    case uint8Type_:
      return appendJsonNumber(json, std::uint64_t{row.fixedColumn<std::uint8_t>(at)});
    case uint16Type_:
    case lenType_:
      return appendJsonNumber(json, std::uint64_t{row.fixedColumn<std::uint16_t>(at)});
    case uint32Type_:
    case oidType_:
      return appendJsonNumber(json, std::uint64_t{row.fixedColumn<std::uint32_t>(at)});
    case uint64Type_:
      return appendJsonNumber(json, row.fixedColumn<std::uint64_t>(at));
    case int8Type_:
      return appendJsonNumber(json, std::int64_t{row.fixedColumn<std::int8_t>(at)});
    case int16Type_:
      return appendJsonNumber(json, std::int64_t{row.fixedColumn<std::int16_t>(at)});
    case int32Type_:
      return appendJsonNumber(json, std::int64_t{row.fixedColumn<std::int32_t>(at)});
    case int64Type_:
      return appendJsonNumber(json, row.fixedColumn<std::int64_t>(at));
    case floatType_:
      return appendJsonNumber(json, row.fixedColumn<float>(at));
    case doubleType_:
      return appendJsonNumber(json, row.fixedColumn<double>(at));
    case boolType_:
      if (column.isArray) return appendArray<bool>(json, row, at);
      return appendValue(json, row.fixedColumn<bool>(at));
    case ipAddrType_: {
      const unsigned int word = row.fixedColumn<IpAddr>(at).addr();
      return appendJsonAddress(json, ipv4_, reinterpret_cast<const byte_t*>(&word));
    }
    case ip6AddrType_: {
      const Ip6Addr addr = row.fixedColumn<Ip6Addr>(at);
      return appendJsonAddress(json, ipv6_, addr.bytes());
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
      return appendRow(json, valueOf<SubRowReference>(row, at), *column.nested);
  }
}

void appendRow(std::string& json, const BaseRow& row, const LayoutInfo& layout) {
  if (row.isNull()) {
    json += "null";
    return;
  }
  char separator = '{';
  for (const ColumnInfo& column : layout.columns) {
    json += separator;
    appendJsonString(json, column.name);
    json += ':';
    appendColumn(json, row, column);
    separator = ',';
  }
  if (layout.columns.empty()) json += '{';
  json += '}';
}

}  // namespace

std::string rowAsJson(const BaseRow& row, const LayoutInfo& layout) {
  std::string json;
  appendRow(json, row, layout);
  return json;
}

}  // namespace Korvo::detail
