#pragma once

// Rows of layouts that are known at run time, read and written by column name.
//
//   Korvo::AnyRow row{Korvo::DynamicLayout(text)};
//   row.fromJson(R"({"speed":10000,"name":"eth0","tags":["uplink"]})");
//   row.textIs("name", "eth1");
//   row.jsonIs("tags", R"(["core","uplink"])");
//   std::cout << row.text("speed") << ' ' << row.toJson() << '\n';
//
// In JSON, a column's value is what toJson() writes: numbers in full, true and false, text as
// strings, addresses and prefixes as the strings that they print as, arrays, nested rows as
// objects, and null. Text that toJson() wrote becomes a row that toJson() writes as the same text.
//
// As text, a string column is its bytes; an address or a prefix is what it prints as; a null value
// is the empty text; all others are as in JSON.

#include <Korvo/layoutText.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace Korvo {

/// A row of a layout that is known at run time. It begins as a null row; create(), adopt() and
/// fromJson() give it a buffer of its own. Copies share the layout, and the buffer until one of
/// them is written. Its exceptions leave the row as it was.
class KORVO_API AnyRow : public BaseRow {
 public:
  explicit AnyRow(const DynamicLayout& layout) : layout_(layout) {}

  const DynamicLayout& layout() const noexcept { return layout_; }

  // As TableRow's.
  void create(oid_t oid = 0) { create(oid, 0); }
  void create(oid_t oid, std::size_t valueBytes);
  void adopt(const void* bytes, std::size_t length);

  // These four throw KoInvalidArgument "Unknown column - (name)" for a name that the layout does
  // not have.

  /// The column's value as JSON; "null" for a null row. As with toJson(), bytes of a string that
  /// are not UTF-8 become U+FFFD, and NaN and the infinities null.
  std::string json(std::string_view column) const;
  /// The column's value as text; empty for a null row.
  std::string text(std::string_view column) const;

  /// Writes a column. Throws KoTextError for text that is not JSON, or a value that the column
  /// cannot hold: another type, a number out of its range, an array or a value that is too long, an
  /// unknown column of a nested row. Null is taken where toJson() writes it, and by text and
  /// arrays; a float takes it as NaN. KoNullRow for a null row; KoOutOfRange for a row of more than
  /// 65535 bytes.
  void jsonIs(std::string_view column, std::string_view json);
  /// The same with the value as text. A string column takes any bytes.
  void textIs(std::string_view column, std::string_view text);

  /// Makes this a new row with these columns, in any order; those that are not named are zero or
  /// null. The oid stays what it was, 0 after a null row, and nested rows have the oid 0. "null"
  /// makes the row null. Throws KoTextError as jsonIs() does, also for a column named twice.
  void fromJson(std::string_view json);

  std::string toJson() const override { return detail::rowAsJson(*this, layout_.info()); }
  vcdType& vcd() const override { return layout_.slots(); }
  len_t columnOffset(const std::string& name) const override {
    return detail::offsetOf(layout_.info(), name);
  }
  len_t baseRowLength() override { return layout_.info().baseLength; }
  bool isFullyDefined() const override { return true; }

 private:
  DynamicLayout layout_;
};

}  // namespace Korvo
