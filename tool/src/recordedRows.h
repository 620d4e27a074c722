#pragma once

// The rows of a recording, as they came one after the other.

#include "rowFile.h"
#include "tables/recording.h"

#include <map>
#include <string>

namespace korvotool {

/// Reads a recording's rows, each with the layout that its table had then, named as the table. What
/// no mark follows is told as skipped.
class RecordedRows final : public RowSource {
 public:
  /// Rows of the table of this name; of all tables if it is empty. The layouts are told to
  /// `layouts`, which stays with the caller. Throws Failure.
  RecordedRows(const std::string& path, std::string table, Layouts& layouts,
               const ReadRules& rules);

  /// Throws Failure also where the recording is damaged.
  bool next(Piece& piece) override;
  const std::string& path() const override { return reader_.path(); }

 private:
  void tableIs(const RecordedBatch::Part& part);
  bool take(const RecordedBatch::Part& part, Piece& piece);
  bool end(Piece& piece);
  [[noreturn]] void fail(const RecordedBatch::Part& part, const std::string& what) const;

  RecordingReader reader_;
  std::string wanted_;
  Layouts& layouts_;
  Korvo::PrefixRule prefixes_;
  RecordedBatch batch_;
  std::size_t part_ = 0;  // the next one of the batch
  std::map<std::uint16_t, const NamedLayout*> tables_;
  bool isWantedThere_ = false;
  bool isAtEnd_ = false;
};

}  // namespace korvotool
