#pragma once

// What commands that read rows have in common.

#include "commands.h"
#include "rowFile.h"

namespace korvotool {

/// Calls visit(piece) for each good row of each of the files, and tells of the others on standard
/// error. False if there were others. `visit` gives false to end it.
template <typename Visit>
bool forEachGoodRow(const RowOptions& options, const Layouts& layouts, Visit visit) {
  ReadRules rules;
  if (options.plain) rules.compression = Compression::none;
  bool allGood = true;
  for (const std::string& path : options.files) {
    RowFile file(path, layouts, rules);
    Piece piece;
    while (file.next(piece)) {
      if (piece.kind != Piece::Kind::good) {
        allGood = false;
        complain(file.path() + ": " + piece.text());
      } else if (!visit(piece)) {
        return allGood;
      }
    }
  }
  return allGood;
}

/// {"type":7,"oid":1001,"row":{...}}: a row as one line of JSON, as `korvo convert` reads it.
std::string rowJson(const Piece& piece);

}  // namespace korvotool
