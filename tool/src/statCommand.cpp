// korvo stat: how long rows are, what lies unused in them, and what their columns hold.

#include "failure.h"
#include "reading.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace korvotool {
namespace {

using Korvo::ColumnInfo;

struct ColumnCounts {
  std::uint64_t filled = 0;  ///< rows where it is neither null nor zero
  std::uint64_t bytes = 0;   ///< of values in the variable area
  std::size_t longest = 0;
};

struct RowCounts {
  std::uint64_t rows = 0;
  std::uint64_t bytes = 0;
  std::uint64_t gapBytes = 0;
  std::uint64_t gapRows = 0;
  std::size_t shortest = Korvo::maxRowLength;
  std::size_t longest = 0;
  std::vector<ColumnCounts> columns;

  void add(const Korvo::LayoutInfo& layout, const Korvo::byte_t* row, std::size_t length) {
    ++rows;
    bytes += length;
    shortest = std::min(shortest, length);
    longest = std::max(longest, length);
    std::size_t gap = length - layout.baseLength;
    columns.resize(layout.columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const ColumnInfo& column = layout.columns[i];
      const Korvo::byte_t* const at = row + column.offset;
      if (!column.hasSlot()) {
        const bool isZero =
            std::all_of(at, at + column.width, [](Korvo::byte_t byte) { return byte == 0; });
        if (!isZero) ++columns[i].filled;
        continue;
      }
      const std::size_t value = Korvo::VColType::at(row, column.offset).length();
      if (value != 0) ++columns[i].filled;
      columns[i].bytes += value;
      columns[i].longest = std::max(columns[i].longest, value);
      gap -= value;
    }
    gapBytes += gap;
    if (gap != 0) ++gapRows;
  }
};

double mean(std::uint64_t sum, std::uint64_t count) {
  return count == 0 ? 0.0 : static_cast<double>(sum) / static_cast<double>(count);
}

std::string rounded(double number) {
  char text[40];
  std::snprintf(text, sizeof text, "%.1f", number);
  return text;
}

std::string percent(std::uint64_t part, std::uint64_t whole) {
  return rounded(100 * mean(part, whole)) + " %";
}

/// Lines of words, each as wide as the widest of its place; numbers to the right.
class AlignedLines {
 public:
  void add(std::vector<std::string> line) { lines_.push_back(std::move(line)); }
  std::string text() const {
    std::vector<std::size_t> widths;
    for (const auto& line : lines_) {
      widths.resize(std::max(widths.size(), line.size()));
      for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    }
    std::string text;
    for (const auto& line : lines_) {
      std::string all;
      for (std::size_t i = 0; i < line.size(); ++i) {
        const std::string space(widths[i] - line[i].size(), ' ');
        all += "  " + (i < leftAligned ? line[i] + space : space + line[i]);
      }
      all.erase(all.find_last_not_of(' ') + 1);
      text += all + '\n';
    }
    return text;
  }

 private:
  static constexpr std::size_t leftAligned = 2;

  std::vector<std::vector<std::string>> lines_;
};

void print(Output& out, const Style& style, const NamedLayout& named, const RowCounts& counts) {
  out << style.bold(printable(named.title())) << ": " << counted(counts.rows, "row") << ", "
      << counted(counts.bytes, "byte") << "\n";
  out << "  length  " << std::to_string(counts.shortest) << " to " << std::to_string(counts.longest)
      << ", mean " << rounded(mean(counts.bytes, counts.rows)) << "\n";
  out << "  gaps    " << counted(counts.gapBytes, "byte") << " in "
      << counted(counts.gapRows, "row") << ", " << percent(counts.gapBytes, counts.bytes)
      << " of all bytes\n\n";
  AlignedLines lines;
  lines.add({"column", "type", "filled", "share", "mean", "longest", "bytes"});
  const auto& infos = named.layout.info().columns;
  for (std::size_t i = 0; i < infos.size(); ++i) {
    const ColumnCounts& column = counts.columns[i];
    std::vector<std::string> line = {printable(infos[i].name), columnTypeText(infos[i]),
                                     std::to_string(column.filled),
                                     percent(column.filled, counts.rows)};
    if (infos[i].hasSlot()) {
      line.push_back(rounded(mean(column.bytes, column.filled)));
      line.push_back(std::to_string(column.longest));
      line.push_back(std::to_string(column.bytes));
    }
    lines.add(std::move(line));
  }
  out << lines.text();
}

std::string countsJson(const NamedLayout& named, const RowCounts& counts) {
  Json json = Json::object();
  if (!named.name.empty()) json.add("name", named.name);
  json.add("type", named.layout.info().rowType).add("rows", counts.rows);
  json.add("bytes", counts.bytes).add("shortest", counts.shortest).add("longest", counts.longest);
  json.add("gapBytes", counts.gapBytes).add("gapRows", counts.gapRows);
  Json columns = Json::array();
  const auto& infos = named.layout.info().columns;
  for (std::size_t i = 0; i < infos.size(); ++i) {
    Json column = Json::object();
    column.add("name", infos[i].name).add("type", columnTypeText(infos[i]));
    column.add("filled", counts.columns[i].filled);
    if (infos[i].hasSlot()) {
      column.add("bytes", counts.columns[i].bytes).add("longest", counts.columns[i].longest);
    }
    columns.append(column);
  }
  return json.add("columns", columns).text();
}

}  // namespace

int statRows(const RowOptions& options) {
  Layouts layouts(options.layout, options.row);
  std::map<std::uint16_t, RowCounts> all;
  const NamedLayout* last = nullptr;
  RowCounts* counts = nullptr;
  const bool allGood = forEachGoodRow(options, layouts, [&](const Piece& piece) {
    if (counts == nullptr || piece.layout != last) {
      last = piece.layout;
      counts = &all[piece.rowType()];
    }
    counts->add(piece.layout->layout.info(), piece.bytes, piece.size());
    return true;
  });
  Output out;
  const Style style(options.colour, out.isTerminal());
  const char* separator = "";
  for (const auto& [rowType, found] : all) {
    const NamedLayout& named = *layouts.find(rowType);
    if (options.json) {
      out << countsJson(named, found) << "\n";
    } else {
      out << separator;
      print(out, style, named, found);
      separator = "\n";
    }
  }
  if (all.empty() && !options.json) out << "no rows\n";
  out.finish();
  return allGood ? statusGood : statusFound;
}

}  // namespace korvotool
