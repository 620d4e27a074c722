// Any text as a definition of tables: it is refused with a place inside the text, or read; then
// each row is a layout, and the layouts' texts are definitions of the same rows.

#include <definition.h>

#include <string>

#include "fuzz_support.h"

namespace {

using namespace Korvo;  // NOLINT
using korvotool::DefinedColumn;
using korvotool::DefinedRow;
using korvotool::Definition;

void requireNote(const std::string& note) {
  for (const char c : note) {
    FUZZ_REQUIRE(static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t');
  }
}

void requireSound(const Definition& definition, std::size_t index) {
  const DefinedRow& row = definition.rows[index];
  requireNote(row.note);
  FUZZ_REQUIRE(row.columns.size() == row.infos.size());
  FUZZ_REQUIRE(row.info.columns.data() == row.infos.data());
  FUZZ_REQUIRE(row.info.columns.size() == row.infos.size());
  FUZZ_REQUIRE(row.end <= row.info.baseLength);
  for (std::size_t i = 0; i < row.infos.size(); ++i) {
    const DefinedColumn& column = row.columns[i];
    const ColumnInfo& info = row.infos[i];
    requireNote(column.note);
    FUZZ_REQUIRE(info.name == column.name && info.name.data() == column.name.data());
    FUZZ_REQUIRE(column.typeName.empty() == (info.nested != nullptr));
    if (info.nested == nullptr) continue;
    FUZZ_REQUIRE(column.row < index);
    FUZZ_REQUIRE(info.nested == &definition.rows[column.row].info);
  }
  // Columns apart and within the row, names once, limits: whatever is asked of a layout's text.
  const DynamicLayout layout(row.info);
  const std::string text = layout.text();
  constexpr std::size_t longText = 1 << 14;
  if (text.size() > longText) return;  // of rows that hold one another, again and again
  const Definition again(text);
  FUZZ_REQUIRE(DynamicLayout(again.rows.back().info).text() == text);
  FUZZ_REQUIRE(DynamicLayout(text).fingerprint() == layout.fingerprint());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  try {
    const Definition definition(text);
    FUZZ_REQUIRE(!definition.rows.empty() && !definition.rows.back().isInside);
    for (std::size_t i = 0; i < definition.rows.size(); ++i) requireSound(definition, i);
  } catch (const KoTextError& e) {
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    FUZZ_REQUIRE(e.line() >= 1 && e.line() <= lines);
    FUZZ_REQUIRE(e.column() >= 1 && e.column() <= size + 1);
  }
  return 0;
}
