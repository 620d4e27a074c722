#pragma once

// Rows as lines of JSON and as CSV: reading and writing them.

#include "lineReader.h"
#include "output.h"

#include <Korvo/AnyRow.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvotool {

/// Rows that are read from a text, one after the other.
class RowText {
 public:
  RowText() = default;
  RowText(const RowText&) = delete;
  RowText& operator=(const RowText&) = delete;
  virtual ~RowText() = default;

  /// The next row, null at the end; valid until the next call. Throws Failure for a text that is
  /// none of a row, with its line.
  virtual const Korvo::AnyRow* next() = 0;
};

/// Lines like {"type":7,"oid":1001,"row":{...}}, with the members in any order. The type may be
/// missing where there is one layout only, the oid is 0 if it is. Empty lines do not count.
class JsonLines : public RowText {
 public:
  JsonLines(const std::string& path, const Layouts& layouts, Compression compression);
  const Korvo::AnyRow* next() override;

 private:
  Korvo::AnyRow& rowOf(std::optional<std::uint64_t> rowType);

  LineReader lines_;
  const Layouts& layouts_;
  std::map<std::uint16_t, Korvo::AnyRow> rows_;
  std::string line_;
};

/// CSV (RFC 4180). The first record names the columns, in any order; those that are not there stay
/// zero or null. If its first field is "oid", it is that of the rows. Values are texts as AnyRow's.
class CsvRows : public RowText {
 public:
  CsvRows(const std::string& path, const NamedLayout& layout, Compression compression);
  const Korvo::AnyRow* next() override;

 private:
  /// False at the end.
  bool nextRecord(std::vector<std::string>& fields);

  LineReader lines_;
  Korvo::AnyRow row_;
  std::vector<std::string> columns_;
  bool hasOid_ = false;
  std::vector<std::string> fields_;
  std::uint64_t line_ = 0;  // where the record begins
};

/// The first record of CSV, and one of a row.
/// The first column of a row that passed the check whose value the text does not tell exactly: an
/// infinity, or a string that is not UTF-8. Null if there is none. In CSV, strings are their bytes.
enum class TextForm : std::uint8_t { json, csv };
const Korvo::ColumnInfo* inexactColumn(const Korvo::byte_t* row, const Korvo::LayoutInfo& layout,
                                       TextForm form);

std::string csvHeader(const Korvo::LayoutInfo& layout);
std::string csvRecord(const Korvo::AnyRow& row);

}  // namespace korvotool
