#include "layouts.h"

#include "failure.h"
#include "rowFile.h"

#include <algorithm>

namespace korvotool {

std::string NamedLayout::title() const {
  return name.empty() ? "row type " + std::to_string(layout.info().rowType) : name;
}

std::string textOfFile(const std::string& path) {
  const auto source = openBytes(path, Compression::detect);
  std::string text;
  char piece[4096];
  while (const std::size_t length = source->read(piece, sizeof piece)) {
    text.append(piece, length);
    if (text.size() > Korvo::maxLayoutText) {
      throw Failure(statusBadData, path + ": the text exceeds 1 MiB");
    }
  }
  return text;
}

Definition readDefinition(const std::string& path) {
  const std::string text = textOfFile(path);
  try {
    return Definition(text);
  } catch (const Korvo::KoTextError& e) {
    throw Failure(statusBadData, path + ": " + e.what());
  }
}

namespace {

void addNestedTypes(const Korvo::LayoutInfo& layout, std::set<std::uint16_t>& types) {
  for (const Korvo::ColumnInfo& column : layout.columns) {
    if (column.nested == nullptr) continue;
    types.insert(column.nested->rowType);
    addNestedTypes(*column.nested, types);
  }
}

}  // namespace

Layouts::Layouts(const std::string& path, const std::string& row) : path_(path) {
  const Definition definition = readDefinition(path);
  const auto top = std::count_if(definition.rows.begin(), definition.rows.end(),
                                 [](const DefinedRow& defined) { return !defined.isInside; });
  for (const DefinedRow& defined : definition.rows) {
    if (defined.isInside) continue;
    const bool isNameless = top == 1 && defined.name.empty();
    if (!row.empty() && defined.name != row && !isNameless) {
      others_.push_back({defined.name, Korvo::DynamicLayout(defined.info)});
      continue;
    }
    const NamedLayout named{defined.name, Korvo::DynamicLayout(defined.info)};
    if (const NamedLayout* const other = find(defined.info.rowType)) {
      throw Failure(statusBadData, path + ": rows " + other->title() + " and " + named.title() +
                                       " have the same type; name one with --row");
    }
    all_.push_back(named);
  }
  for (const NamedLayout& named : all_) addNestedTypes(named.layout.info(), nestedTypes_);
  if (all_.empty()) throw Failure(statusBadData, path + ": no row has the name " + row);
}

const NamedLayout& Layouts::single() const {
  if (all_.size() == 1) return all_.front();
  throw Failure(statusUsage, path_ + " has several rows: name one with --row");
}

}  // namespace korvotool
