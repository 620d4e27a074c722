// korvo show: rows with their columns, as a table or as JSON.

#include "failure.h"
#include "reading.h"

#include <Korvo/AnyRow.h>

#include <algorithm>
#include <map>

namespace korvotool {
namespace {

/// Shows the rows of one layout.
class Table {
 public:
  Table(const NamedLayout& named, const std::vector<std::string>& wanted)
      : named_(named), row_(named.layout) {
    for (const Korvo::ColumnInfo& column : named.layout.info().columns) {
      const std::string name(column.name);
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), name) == wanted.end())
        continue;
      columns_.push_back({name, printable(name), columnTypeText(column)});
      nameWidth_ = std::max(nameWidth_, columns_.back().shown.size());
      typeWidth_ = std::max(typeWidth_, columns_.back().type.size());
    }
  }

  void show(Output& out, const Style& style, const Piece& piece) {
    row_.adopt(piece.bytes, piece.size());
    out << style.bold(named_.name.empty() ? "row" : printable(named_.name)) << " oid "
        << style.bold(std::to_string(piece.oid())) << ", type " << std::to_string(piece.rowType())
        << ", " << counted(piece.length, "byte") << " at byte " << std::to_string(piece.offset)
        << "\n";
    for (const Column& column : columns_) {
      out << "  " << column.shown << std::string(nameWidth_ - column.shown.size() + 2, ' ')
          << style.faint(column.type) << std::string(typeWidth_ - column.type.size() + 2, ' ')
          << printable(row_.json(column.name)) << "\n";
    }
  }

 private:
  struct Column {
    std::string name;
    std::string shown;
    std::string type;
  };

  const NamedLayout& named_;
  Korvo::AnyRow row_;
  std::vector<Column> columns_;
  std::size_t nameWidth_ = 0;
  std::size_t typeWidth_ = 0;
};

template <typename NamedLayouts>
void requireColumns(const NamedLayouts& layouts, const std::vector<std::string>& columns) {
  for (const std::string& column : columns) {
    const bool isKnown = std::any_of(layouts.begin(), layouts.end(), [&](const NamedLayout& named) {
      return named.layout.find(column) != nullptr;
    });
    if (!isKnown) throw Failure(statusUsage, "no row has a column " + column);
  }
}

/// The wanted columns alone, as JSON.
std::string partJson(Korvo::AnyRow& row, const Piece& piece,
                     const std::vector<std::string>& columns) {
  row.adopt(piece.bytes, piece.size());
  Json values = Json::object();
  for (const std::string& column : columns) {
    if (row.layout().find(column) != nullptr) values.addRaw(column, row.json(column));
  }
  Json json = Json::object();
  return json.add("type", piece.rowType()).add("oid", piece.oid()).add("row", values).text();
}

}  // namespace

std::string rowJson(const Piece& piece) {
  // In place: the row has passed the check.
  const Korvo::SubRowReference row(piece.bytes);
  return "{\"type\":" + std::to_string(piece.rowType()) +
         ",\"oid\":" + std::to_string(piece.oid()) +
         ",\"row\":" + Korvo::detail::rowAsJson(row, piece.layout->layout.info()) + "}";
}

int showRows(const ShowOptions& options) {
  Layouts layouts = layoutsOf(options);
  if (!layouts.empty()) requireColumns(layouts.all(), options.columns);
  Output out;
  const Style style(options.colour, out.isTerminal());
  std::map<const NamedLayout*, Table> tables;
  std::uint64_t count = 0;
  const bool allGood = forEachGoodRow(options, layouts, [&](const Piece& piece) {
    if (options.oid && piece.oid() != *options.oid) return true;
    if (!options.json) {
      const auto [table, isNew] = tables.try_emplace(piece.layout, *piece.layout, options.columns);
      if (count != 0) out << "\n";
      table->second.show(out, style, piece);
    } else if (options.columns.empty()) {
      out << rowJson(piece) << "\n";
    } else {
      Korvo::AnyRow row(piece.layout->layout);
      out << partJson(row, piece, options.columns) << "\n";
    }
    return ++count != options.limit;
  });
  out.finish();
  if (layouts.empty()) requireColumns(layouts.recorded(), options.columns);
  if (options.oid && count == 0) {
    complain("no row has the oid " + std::to_string(*options.oid));
    return statusFound;
  }
  return allGood ? statusGood : statusFound;
}

}  // namespace korvotool
