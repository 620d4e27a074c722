#include "recordedRows.h"

#include "failure.h"
#include "output.h"
#include "reading.h"

#include <utility>

namespace korvotool {

RecordedRows::RecordedRows(const std::string& path, std::string table, Layouts& layouts,
                           const ReadRules& rules)
    : reader_(path), wanted_(std::move(table)), layouts_(layouts), prefixes_(rules.prefixes) {}

bool RecordedRows::next(Piece& piece) {
  while (!isAtEnd_) {
    while (part_ < batch_.parts.size()) {
      if (take(batch_.parts[part_++], piece)) return true;
    }
    part_ = 0;
    if (!reader_.next(batch_)) return end(piece);
  }
  return false;
}

bool RecordedRows::take(const RecordedBatch::Part& part, Piece& piece) {
  if (part.kind == RecordedBatch::Kind::table) tableIs(part);
  if (part.kind != RecordedBatch::Kind::row) return false;
  const auto found = tables_.find(part.number);
  if (found == tables_.end()) fail(part, "no table has the number " + std::to_string(part.number));
  const NamedLayout& table = *found->second;
  if (!wanted_.empty() && table.name != wanted_) return false;
  piece = {};
  piece.offset = part.offset + recordHeadLength;
  piece.length = part.bytes.size();
  piece.bytes = reinterpret_cast<const Korvo::byte_t*>(part.bytes.data());
  piece.layout = &table;
  piece.fault = checkRow(piece.bytes, piece.size(), table.layout.info(), prefixes_);
  if (piece.fault) {
    piece.kind = Piece::Kind::faulty;
    piece.reason = piece.fault.text();
  } else if (piece.rowType() != table.layout.info().rowType) {
    piece.kind = Piece::Kind::faulty;
    piece.reason = "another row type than that of " + printable(table.name);
  }
  return true;
}

void RecordedRows::tableIs(const RecordedBatch::Part& part) {
  try {
    tables_[part.number] =
        &layouts_.recordedIs({part.bytes, Korvo::DynamicLayout(part.layoutText)});
  } catch (const Korvo::KoTextError& e) {
    fail(part, std::string("the layout: ") + e.what());
  }
  isWantedThere_ = isWantedThere_ || part.bytes == wanted_;
}

bool RecordedRows::end(Piece& piece) {
  isAtEnd_ = true;
  if (!wanted_.empty() && !isWantedThere_) {
    throw Failure(statusBadData, path() + ": no table has the name " + wanted_);
  }
  if (reader_.torn() == 0) return false;
  piece = {};
  piece.kind = Piece::Kind::skipped;
  piece.offset = reader_.marked();
  piece.length = reader_.torn();
  piece.reason = "ends in the middle of a batch";
  piece.atEnd = true;
  return true;
}

void RecordedRows::fail(const RecordedBatch::Part& part, const std::string& what) const {
  throw Failure(statusBadData, path() + ": byte " + std::to_string(part.offset) + ": " + what);
}

std::unique_ptr<RowSource> openRows(const std::string& path, const RowOptions& options,
                                    Layouts& layouts, const ReadRules& rules) {
  if (!layouts.empty()) return std::make_unique<RowFile>(path, layouts, rules);
  try {
    return std::make_unique<RecordedRows>(path, options.row, layouts, rules);
  } catch (const NoRecording& e) {
    throw Failure(statusUsage, std::string(e.what()) + ": --layout is required");
  }
}

}  // namespace korvotool
