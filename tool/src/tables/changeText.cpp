#include "changeText.h"

#include <algorithm>
#include <utility>

namespace korvotool {

using Korvo::AnyRow;
using Korvo::ChangeKind;
using Korvo::ColumnInfo;

namespace {

bool isNumber(const ColumnInfo& column) {
  const std::string type = columnTypeText(column);
  return type.ends_with("int8_t") || type.ends_with("int16_t") || type.ends_with("int32_t") ||
         type.ends_with("int64_t") || type == "float" || type == "double";
}

const char* wordOf(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::added:
      return "added";
    case ChangeKind::changed:
      return "changed";
    default:
      return "removed";
  }
}

}  // namespace

std::string cellText(const AnyRow& row, std::string_view column) {
  std::string text = printable(row.json(column));
  // Quotes stay where they tell something.
  if (text.size() > 2 && text.front() == '"' && text.find_first_of("\\ =,") == text.npos) {
    text = text.substr(1, text.size() - 2);
  }
  return text;
}

std::size_t shownWidth(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

std::string changeLine(const Korvo::LearnedChanges& change) {
  std::string line = wordOf(change.kind());
  line += ' ' + std::to_string(change.oid());
  if (change.kind() == ChangeKind::removed) return line;
  const AnyRow& after = change.after();
  const AnyRow& before = change.before();
  for (const ColumnInfo& column : after.layout().info().columns) {
    const std::string now = cellText(after, column.name);
    std::string former;
    if (!before.isNull()) {
      former = cellText(before, column.name);
      if (former == now) continue;
      former += " -> ";
    }
    line += "  ";
    line += printable(column.name);
    line += '=';
    line += former;
    line += now;
  }
  return line;
}

void addChange(Json& json, const Korvo::LearnedChanges& change) {
  json.add("change", wordOf(change.kind())).add("oid", change.oid());
  if (change.kind() == ChangeKind::removed) return;
  const AnyRow& after = change.after();
  const AnyRow& before = change.before();
  json.addRaw("row", after.toJson());
  if (before.isNull()) return;
  Json former = Json::object();
  for (const ColumnInfo& column : after.layout().info().columns) {
    const std::string text = before.json(column.name);
    if (text != after.json(column.name)) former.addRaw(column.name, text);
  }
  json.add("before", former);
}

std::string rowLine(const AnyRow& row) {
  return "{\"type\":" + std::to_string(row.rowType()) + ",\"oid\":" + std::to_string(row.rowOid()) +
         ",\"row\":" + row.toJson() + '}';
}

void Grid::column(const std::string& title, bool isNumber) {
  lines_.front().push_back(title);
  isNumber_.push_back(isNumber);
}

void Grid::line(std::vector<std::string> cells) {
  lines_.push_back(std::move(cells));
}

std::vector<std::string> Grid::lines() const {
  std::vector<std::size_t> widths(isNumber_.size());
  for (const auto& line : lines_) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], shownWidth(line[i]));
    }
  }
  std::vector<std::string> all;
  all.reserve(lines_.size());
  for (const auto& line : lines_) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
      const std::string spaces(widths[i] - shownWidth(line[i]), ' ');
      if (i != 0) text += "  ";
      text += isNumber_[i] ? spaces + line[i] : line[i] + spaces;
    }
    text.resize(text.find_last_not_of(' ') + 1);
    all.push_back(std::move(text));
  }
  return all;
}

Grid gridFor(const Korvo::LayoutInfo& layout) {
  Grid grid;
  grid.column("oid", true);
  for (const ColumnInfo& column : layout.columns) {
    grid.column(printable(column.name), isNumber(column));
  }
  return grid;
}

std::vector<std::string> gridLine(const AnyRow& row) {
  std::vector<std::string> cells = {std::to_string(row.rowOid())};
  for (const ColumnInfo& column : row.layout().info().columns) {
    cells.push_back(cellText(row, column.name));
  }
  return cells;
}

}  // namespace korvotool
