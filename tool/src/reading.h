#pragma once

// What commands that read rows have in common.

#include "commands.h"
#include "rowFile.h"

#include <memory>

namespace korvotool {

/// The layouts of a command; none if it names no file with them.
inline Layouts layoutsOf(const RowOptions& options) {
  return options.layout.empty() ? Layouts() : Layouts(options.layout, options.row);
}

/// Opens a file of rows of these layouts, or without layouts a recording, which tells its own.
/// Throws Failure.
std::unique_ptr<RowSource> openRows(const std::string& path, const RowOptions& options,
                                    Layouts& layouts, const ReadRules& rules);

/// Calls visit(piece) for each good row of each of the files, and tells of the others on standard
/// error. False if there were others. `visit` gives false to end it.
template <typename Visit>
bool forEachGoodRow(const RowOptions& options, Layouts& layouts, Visit visit) {
  ReadRules rules;
  if (options.plain) rules.compression = Compression::none;
  bool allGood = true;
  for (const std::string& path : options.files) {
    const std::unique_ptr<RowSource> file = openRows(path, options, layouts, rules);
    Piece piece;
    while (file->next(piece)) {
      if (piece.kind != Piece::Kind::good) {
        allGood = false;
        complain(file->path() + ": " + piece.text());
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
