#pragma once

// Rows of tables and their changes, for people and as JSON.

#include "../output.h"

#include <Korvo/LearnedTable.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace korvotool {

/// A column's value in one word or between quotes; nothing in it commands a terminal.
std::string cellText(const Korvo::AnyRow& row, std::string_view column);

/// How wide the text is on a terminal, where each character has the same width.
std::size_t shownWidth(std::string_view text);

/// "added 1001  name=eth0  speed=1000": a change with the columns that are not as before, or all of
/// a row that came.
std::string changeLine(const Korvo::LearnedChanges& change);

/// The same as members of an object: "change", "oid", "row", and "before" with the former values of
/// the columns that changed.
void addChange(Json& json, const Korvo::LearnedChanges& change);

/// {"type":7,"oid":1001,"row":{...}}: a row as `korvo convert` reads it.
std::string rowLine(const Korvo::AnyRow& row);

/// Lines of cells below each other.
class Grid {
 public:
  /// Numbers are moved to the right.
  void column(const std::string& title, bool isNumber = false);
  void line(std::vector<std::string> cells);

  /// All lines, without spaces at their ends. The first is that of the titles.
  std::vector<std::string> lines() const;

 private:
  std::vector<bool> isNumber_;
  std::vector<std::vector<std::string>> lines_ = {{}};
};

/// A grid for rows of a layout: their oids and columns.
Grid gridFor(const Korvo::LayoutInfo& layout);
std::vector<std::string> gridLine(const Korvo::AnyRow& row);

}  // namespace korvotool
