#pragma once

// Definitions of tables, as people write them:
//
//   # Ports of a switch, and where they lead.
//
//   namespace net
//
//   # A link to another port.
//   row Link 2 {
//     up bool
//     peer IpGenAddr
//   }
//
//   # A port.
//   row Port 7 {
//     speed uint64_t   # in bits per second
//     name string_t
//     mtu uint32_t @24
//     tags string_t[]
//     link Link
//   }
//
// It is the text of a layout, with what makes it easier to write: rows have names, and later rows
// take them for types; base length and offsets may be left out, as in declared layouts (columns
// stand one behind the other). A note begins with '#'. Notes right above a row or a column, and on
// its line, belong to it and become comments of the generated header. So every layout's text is a
// definition of one row without a name.

#include <Korvo/layoutText.h>

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace korvotool {

struct DefinedColumn {
  std::string name;
  std::string note;           ///< lines, without '#'; empty if there is none
  std::string typeName;       ///< as it was written; empty for nested rows
  std::size_t row = 0;        ///< of nested rows: which of the definition's rows
  bool hasOwnOffset = false;  ///< not behind the column before it
};

struct DefinedRow {
  std::string name;  ///< empty for one without
  std::string note;
  bool isInside = false;  ///< written where a column's type stands
  std::deque<DefinedColumn> columns;
  std::vector<Korvo::ColumnInfo> infos;       ///< in the order of the columns
  Korvo::LayoutInfo info{};                   ///< of these infos
  Korvo::len_t end = Korvo::rowHeaderLength;  ///< of the last column
};

/// What a definition file says. Rows stand before those that hold them.
struct Definition {
  std::string space;  ///< the C++ namespace, "net" or "net::agents"; may be empty
  std::deque<DefinedRow> rows;

  /// Throws Korvo::KoTextError for text that is none. Every row is a layout within the limits.
  explicit Definition(std::string_view text);
  // The infos point into it.
  Definition(const Definition&) = delete;
  Definition& operator=(const Definition&) = delete;
};

}  // namespace korvotool
