// Any JSON into rows of several layouts, and any sound row to JSON and back. What is refused leaves
// the row as it was; what is taken passes the check, and its JSON becomes the same row's JSON
// again.
//
// Input: layout, then for an odd first byte a sound row, and the text otherwise.

#include <Korvo/AnyRow.h>

#include <string>

#include "json_oracle.h"
#include "row_fuzz_support.h"

namespace {

using namespace Korvo;  // NOLINT

const DynamicLayout& layoutOf(std::size_t number) {
  // The last of the shared layouts nests itself, which no text can say.
  static const DynamicLayout layouts[] = {
      DynamicLayout(fuzz::Mixed::info), DynamicLayout(fuzz::Middle::info),
      DynamicLayout(fuzz::Leaf::info), DynamicLayout(fuzz::Numbers::info),
      DynamicLayout(
          "row 8 base 17 { a row 2 base 13 { b bool @8 c string_t @9 }[] @9 t string_t[] @13 }")};
  return layouts[number % std::size(layouts)];
}

void requireSound(const Korvo::AnyRow& row) {
  if (row.isNull()) return;
  FUZZ_REQUIRE(!checkRow(row.rowBuf(), row.rowLength(), row.layout().info()));
}

void readText(Korvo::AnyRow& row, const std::string& text) {
  const fuzz::Bytes before = fuzz::bytesOf(row);
  try {
    row.fromJson(text);
  } catch (const KoTextError& e) {
    FUZZ_REQUIRE(fuzz::bytesOf(row) == before);
    FUZZ_REQUIRE(e.column() <= text.size() + 1);
    return;
  }
  requireSound(row);
  const std::string json = row.toJson();
  FUZZ_REQUIRE(fuzz::JsonOracle::isJson(json));
  Korvo::AnyRow again(row.layout());
  again.fromJson(json);
  FUZZ_REQUIRE(again.toJson() == json);
}

/// Each column from any text.
void writeColumns(Korvo::AnyRow& row, const std::string& text) {
  for (const ColumnInfo& column : row.layout().info().columns) {
    const fuzz::Bytes before = fuzz::bytesOf(row);
    for (const bool isJson : {true, false}) {
      try {
        if (isJson) {
          row.jsonIs(column.name, text);
        } else {
          row.textIs(column.name, text);
        }
        requireSound(row);
      } catch (const KoTextError&) {
        if (isJson) FUZZ_REQUIRE(fuzz::bytesOf(row) == before);
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t choice = input.byte();
  Korvo::AnyRow row(layoutOf(choice / 2));
  row.create(7);
  if (choice % 2 == 0) {
    const fuzz::Bytes rest = input.rest();
    const std::string text(rest.begin(), rest.end());
    readText(row, text);
    row.create(7);
    writeColumns(row, text);
    return 0;
  }
  fuzz::Bytes bytes = fuzz::builtRow(input, row.layout().info(), 3);
  fuzz::putWord(bytes, rowTypeOffset, row.layout().info().rowType);
  if (bytes.size() > maxRowLength || checkRow(bytes.data(), bytes.size(), row.layout().info())) {
    return 0;
  }
  row.adopt(bytes.data(), bytes.size());
  const std::string json = row.toJson();
  Korvo::AnyRow again(row.layout());
  again.fromJson(json);
  FUZZ_REQUIRE(again.toJson() == json);
  requireSound(again);
  for (const ColumnInfo& column : row.layout().info().columns) {
    Korvo::AnyRow one(row.layout());
    one.create();
    one.textIs(column.name, row.text(column.name));
    FUZZ_REQUIRE(one.text(column.name) == row.text(column.name));
    FUZZ_REQUIRE(one.json(column.name) == row.json(column.name));
    requireSound(one);
  }
  return 0;
}
