// korvo convert: rows of another layout, and from and to JSON lines and CSV.

#include "failure.h"
#include "reading.h"
#include "rowText.h"
#include "rules.h"

#include <Korvo/RowConverter.h>

#include <map>

namespace korvotool {
namespace {

using Korvo::byte_t;

class Converter {
 public:
  explicit Converter(const ConvertOptions& options)
      : options_(options), layouts_(options.layout, options.row) {
    if (!options.to.empty()) {
      targets_ = Layouts(options.to, options.toRow);
      const Korvo::ConversionRules rules = rulesOf(options.aliases, options.required);
      for (const NamedLayout& named : layouts_.all()) plan(named, rules);
    } else if (!options.aliases.empty() || !options.required.empty()) {
      throw Failure(statusUsage, "--alias and --required belong to --to");
    }
    if (options.as == "csv") targetLayouts().single();
    if (options.from == "csv") layouts_.single();
  }

  int run() {
    if (options_.output.empty()) {
      Output out;
      if (options_.as == "rows" && out.isTerminal()) {
        throw Failure(statusUsage, "rows are no text for a terminal: name a file with --output");
      }
      return write(out);
    }
    Output out(options_.output);
    return write(out);
  }

 private:
  const Layouts& targetLayouts() const { return options_.to.empty() ? layouts_ : targets_; }

  /// What becomes of rows of a layout is the row of its type in the other file.
  void plan(const NamedLayout& named, const Korvo::ConversionRules& rules) {
    const bool isOnly = layouts_.all().size() == 1 && targets_.all().size() == 1;
    const NamedLayout* const target =
        isOnly ? &targets_.all().front() : targets_.find(named.layout.info().rowType);
    if (target == nullptr) return;
    try {
      plans_.try_emplace(named.layout.info().rowType,
                         Korvo::ConversionPlan(named.layout.info(), target->layout.info(), rules));
    } catch (const Korvo::KoInvalidArgument& e) {
      throw Failure(statusBadData, e.what());
    }
  }

  int write(Output& out) {
    if (options_.as == "csv") out << csvHeader(targetLayouts().single().layout.info());
    bool allGood = true;
    if (options_.from == "rows") {
      allGood = forEachGoodRow(options_, layouts_, [&](const Piece& piece) {
        convert(out, piece.layout->layout.info().rowType, piece.bytes, piece.size());
        return true;
      });
    } else {
      for (const std::string& path : options_.files) {
        const auto rows = open(path);
        while (const Korvo::AnyRow* const row = rows->next()) {
          convert(out, row->layout().info().rowType, row->rowBuf(), row->rowLength());
        }
      }
    }
    // A file takes the place of another only when all rows are in it, as they are.
    if (!(allGood && isExact_) && !options_.output.empty()) {
      complain(options_.output + ": not written, as " + (allGood ? "values" : "rows") +
               " would be missing");
      return statusFound;
    }
    out.finish();
    return allGood && isExact_ ? statusGood : statusFound;
  }

  std::unique_ptr<RowText> open(const std::string& path) const {
    const Compression compression = options_.plain ? Compression::none : Compression::detect;
    if (options_.from == "csv") {
      return std::make_unique<CsvRows>(path, layouts_.single(), compression);
    }
    return std::make_unique<JsonLines>(path, layouts_, compression);
  }

  void convert(Output& out, std::uint16_t rowType, const byte_t* row, std::size_t length) {
    if (options_.to.empty()) return put(out, *layouts_.find(rowType), row, length);
    const auto plan = plans_.find(rowType);
    if (plan == plans_.end()) {
      throw Failure(statusBadData, options_.to + ": no row of type " + std::to_string(rowType));
    }
    try {
      buffer_.resize(plan->second.convertedLength(row, length));
    } catch (const Korvo::KoOutOfRange& e) {
      throw Failure(statusBadData, "row of oid " + std::to_string(oidOf(row)) + ": " + e.what());
    }
    plan->second.write(row, buffer_.data());
    put(out, *targets_.find(plan->second.comparison().ours().info().rowType), buffer_.data(),
        buffer_.size());
  }

  static Korvo::oid_t oidOf(const byte_t* row) {
    return Korvo::loadField<Korvo::oid_t>(row + Korvo::rowOidOffset);
  }

  void put(Output& out, const NamedLayout& named, const byte_t* row, std::size_t length) {
    if (options_.as != "rows") tellInexact(named, row);
    if (options_.as == "rows") {
      out.write({reinterpret_cast<const char*>(row), length});
    } else if (options_.as == "json") {
      Piece piece;
      piece.bytes = row;
      piece.length = length;
      piece.layout = &named;
      out << rowJson(piece) << "\n";
    } else {
      Korvo::AnyRow& any = rows_.try_emplace(&named, named.layout).first->second;
      any.adopt(row, length);
      out << csvRecord(any);
    }
  }

  /// What the text leaves out is told, so that nothing is lost in silence.
  void tellInexact(const NamedLayout& named, const byte_t* row) {
    const TextForm form = options_.as == "csv" ? TextForm::csv : TextForm::json;
    const Korvo::ColumnInfo* const column = inexactColumn(row, named.layout.info(), form);
    if (column == nullptr) return;
    isExact_ = false;
    complain("row of oid " + std::to_string(oidOf(row)) + ": column \"" +
             std::string(column->name) +
             "\": an infinity or bytes that are not UTF-8, which the text does not tell");
  }

  const ConvertOptions& options_;
  bool isExact_ = true;
  Layouts layouts_;
  Layouts targets_;
  std::map<std::uint16_t, Korvo::ConversionPlan> plans_;
  std::map<const NamedLayout*, Korvo::AnyRow> rows_;
  std::vector<byte_t> buffer_;
};

}  // namespace

int convertRows(const ConvertOptions& options) {
  return Converter(options).run();
}

}  // namespace korvotool
