// korvo check: which rows of a file are faulty, and where.

#include "failure.h"
#include "reading.h"

#include <unistd.h>

namespace korvotool {
namespace {

struct Counts {
  std::uint64_t good = 0;
  std::uint64_t faulty = 0;
  std::uint64_t stretches = 0;
  std::uint64_t skippedBytes = 0;

  bool allGood() const { return faulty == 0 && stretches == 0; }
};

std::string summary(const Counts& counts) {
  std::string text = counted(counts.good, "good row");
  if (counts.faulty != 0) text += ", " + counted(counts.faulty, "faulty row");
  if (counts.stretches != 0) text += ", " + counted(counts.skippedBytes, "byte") + " skipped";
  return text;
}

Json findingJson(const std::string& file, const Piece& piece) {
  const bool isRow = piece.kind == Piece::Kind::faulty;
  Json json = Json::object();
  json.add("file", file).add("kind", isRow ? "faulty" : "skipped");
  json.add("offset", piece.offset).add("length", piece.length);
  if (isRow) json.add("type", piece.rowType()).add("oid", piece.oid());
  if (piece.fault) json.add("at", piece.offset + piece.fault.offset);
  return json.add("reason", piece.reason);
}

}  // namespace

int checkRows(const CheckOptions& options) {
  Layouts layouts = layoutsOf(options);
  ReadRules rules;
  if (options.plain) rules.compression = Compression::none;
  if (options.noHostBits) rules.prefixes = Korvo::PrefixRule::noHostBits;
  rules.showsProgress = isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) == 0;
  Output out;
  const Style style(options.colour, out.isTerminal());
  bool allGood = true;
  for (const std::string& path : options.files) {
    const std::unique_ptr<RowSource> file = openRows(path, options, layouts, rules);
    const std::string name = printable(file->path());
    Counts counts;
    Piece piece;
    while (file->next(piece)) {
      if (piece.kind == Piece::Kind::good) {
        ++counts.good;
        continue;
      }
      if (piece.kind == Piece::Kind::faulty) {
        ++counts.faulty;
      } else {
        ++counts.stretches;
        counts.skippedBytes += piece.length;
      }
      if (options.json) {
        out << findingJson(file->path(), piece).text() << "\n";
      } else if (!options.quiet) {
        out << style.bold(name) << ": " << printable(piece.text()) << "\n";
      }
    }
    allGood = allGood && counts.allGood();
    if (options.json) {
      Json json = Json::object();
      json.add("file", file->path()).add("kind", "summary").add("good", counts.good);
      json.add("faulty", counts.faulty).add("skipped", counts.skippedBytes);
      out << json.text() << "\n";
    } else if (!options.quiet) {
      const std::string text = summary(counts);
      out << style.bold(name) << ": " << (counts.allGood() ? style.green(text) : style.red(text))
          << "\n";
    }
  }
  out.finish();
  return allGood ? statusGood : statusFound;
}

}  // namespace korvotool
