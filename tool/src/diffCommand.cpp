// korvo diff: what differs between the rows of two files, by oid and column.

#include "failure.h"
#include "reading.h"

#include <Korvo/AnyRow.h>

#include <algorithm>
#include <deque>
#include <map>
#include <unordered_map>

namespace korvotool {
namespace {

using Korvo::byte_t;
using Korvo::ColumnInfo;
using Korvo::LayoutInfo;
using Korvo::VColType;

struct Value {
  const byte_t* bytes;
  std::size_t length;

  bool sameBytes(const Value& other) const {
    return std::equal(bytes, bytes + length, other.bytes, other.bytes + other.length);
  }
};

Value slotValue(const byte_t* base, const byte_t* slot) {
  const VColType& place = VColType::at(slot, 0);
  return {base + place.offset(), place.length()};
}

bool sameRows(const byte_t* a, const LayoutInfo& layoutA, const byte_t* b,
              const LayoutInfo& layoutB);

bool sameValue(const ColumnInfo& a, const Value& valueA, const ColumnInfo& b, const Value& valueB) {
  if (valueA.length == 0 || valueB.length == 0) return valueA.length == valueB.length;
  if (a.type != Korvo::structType_) return valueA.sameBytes(valueB);
  return sameRows(valueA.bytes, *a.nested, valueB.bytes, *b.nested);
}

bool sameArray(const ColumnInfo& a, const Value& arrayA, const ColumnInfo& b, const Value& arrayB) {
  const auto countOf = [](const Value& array) -> std::size_t {
    if (array.length == 0) return 0;
    return Korvo::loadField<std::uint16_t>(array.bytes) & Korvo::arrayCountMask;
  };
  if (countOf(arrayA) != countOf(arrayB)) return false;
  if (arrayA.length == 0 || arrayB.length == 0) return true;  // null and empty are one
  if (a.type == Korvo::boolType_) return arrayA.sameBytes(arrayB);
  for (std::size_t i = 0; i < countOf(arrayA); ++i) {
    const std::size_t at = Korvo::arrayHeaderLength + sizeof(VColType) * i;
    if (!sameValue(a, slotValue(arrayA.bytes, arrayA.bytes + at), b,
                   slotValue(arrayB.bytes, arrayB.bytes + at))) {
      return false;
    }
  }
  return true;
}

/// Whether two columns of one type hold the same, wherever it stands. Both rows passed the check.
bool sameColumn(const byte_t* a, const ColumnInfo& columnA, const byte_t* b,
                const ColumnInfo& columnB) {
  if (!columnA.hasSlot()) {
    const Value valueA{a + columnA.offset, columnA.width};
    return valueA.sameBytes({b + columnB.offset, columnB.width});
  }
  const Value valueA = slotValue(a, a + columnA.offset);
  const Value valueB = slotValue(b, b + columnB.offset);
  return columnA.isArray ? sameArray(columnA, valueA, columnB, valueB)
                         : sameValue(columnA, valueA, columnB, valueB);
}

const ColumnInfo* findColumn(const LayoutInfo& layout, std::string_view name) {
  const auto found = std::find_if(layout.columns.begin(), layout.columns.end(),
                                  [&](const ColumnInfo& column) { return column.name == name; });
  return found == layout.columns.end() ? nullptr : &*found;
}

bool sameRows(const byte_t* a, const LayoutInfo& layoutA, const byte_t* b,
              const LayoutInfo& layoutB) {
  if (layoutA.columns.size() != layoutB.columns.size()) return false;
  return std::all_of(layoutA.columns.begin(), layoutA.columns.end(), [&](const ColumnInfo& column) {
    const ColumnInfo* const other = findColumn(layoutB, column.name);
    return other != nullptr && other->type == column.type && other->isArray == column.isArray &&
           sameColumn(a, column, b, *other);
  });
}

/// A row's bytes, kept, with its layout.
struct KeptRow {
  std::vector<byte_t> bytes;
  const NamedLayout* layout = nullptr;

  KeptRow() = default;
  explicit KeptRow(const Piece& piece)
      : bytes(piece.bytes, piece.bytes + piece.size()), layout(piece.layout) {}

  Korvo::oid_t oid() const {
    return Korvo::loadField<Korvo::oid_t>(bytes.data() + Korvo::rowOidOffset);
  }
  std::uint16_t rowType() const {
    return Korvo::loadField<std::uint16_t>(bytes.data() + Korvo::rowTypeOffset);
  }
};

/// Rows that wait for the one of the other file that has their oid and type, in the file's order
/// where there are several.
class Waiting {
 public:
  using Key = std::uint64_t;

  static Key keyOf(const KeptRow& row) { return std::uint64_t{row.rowType()} << 32 | row.oid(); }

  bool take(Key key, KeptRow& row) {
    const auto found = rows_.find(key);
    if (found == rows_.end()) return false;
    row = std::move(found->second.front());
    found->second.pop_front();
    if (found->second.empty()) rows_.erase(found);
    return true;
  }
  void put(KeptRow row) { rows_[keyOf(row)].push_back(std::move(row)); }
  /// By type and oid.
  std::vector<KeptRow> rest() {
    std::map<Key, std::deque<KeptRow>> sorted(std::make_move_iterator(rows_.begin()),
                                              std::make_move_iterator(rows_.end()));
    std::vector<KeptRow> all;
    for (auto& [key, rows] : sorted) {
      std::move(rows.begin(), rows.end(), std::back_inserter(all));
    }
    return all;
  }

 private:
  std::unordered_map<Key, std::deque<KeptRow>> rows_;
};

class Differ {
 public:
  explicit Differ(const DiffOptions& options)
      : options_(options),
        style_(options.colour, out_.isTerminal()),
        oldLayouts_(options.layout, options.row),
        newLayouts_(options.newLayout.empty() ? oldLayouts_
                                              : Layouts(options.newLayout, options.row)) {}

  int run() {
    if (options_.files[0] == "-" && options_.files[1] == "-") {
      throw Failure(statusUsage, "standard input can be one of the files only");
    }
    ReadRules rules;
    if (options_.plain) rules.compression = Compression::none;
    RowFile older(options_.files[0], oldLayouts_, rules);
    RowFile newer(options_.files[1], newLayouts_, rules);
    Waiting olders;
    Waiting newers;
    KeptRow a;
    KeptRow b;
    KeptRow partner;
    while (true) {
      const bool hasA = next(older, a);
      const bool hasB = next(newer, b);
      if (!hasA && !hasB) break;
      if (options_.inOrder) {
        if (hasA && hasB) {
          compare(a, b);
        } else {
          tellOnly(hasA ? a : b, hasA ? "old" : "new");
        }
        continue;
      }
      if (hasA) {
        if (newers.take(Waiting::keyOf(a), partner)) {
          compare(a, partner);
        } else {
          olders.put(std::move(a));
        }
      }
      if (hasB) {
        if (olders.take(Waiting::keyOf(b), partner)) {
          compare(partner, b);
        } else {
          newers.put(std::move(b));
        }
      }
    }
    for (const KeptRow& row : olders.rest()) tellOnly(row, "old");
    for (const KeptRow& row : newers.rest()) tellOnly(row, "new");
    finish();
    if (!allGood_ || changed_ + onlyOld_ + onlyNew_ != 0) return statusFound;
    return statusGood;
  }

 private:
  bool next(RowFile& file, KeptRow& row) {
    Piece piece;
    while (file.next(piece)) {
      if (piece.kind == Piece::Kind::good) {
        row = KeptRow(piece);
        return true;
      }
      allGood_ = false;
      complain(file.path() + ": " + piece.text());
    }
    return false;
  }

  struct Change {
    std::string column;
    std::string before;  ///< JSON; empty if there is no such column
    std::string after;
  };

  void compare(const KeptRow& a, const KeptRow& b) {
    const LayoutInfo& layoutA = a.layout->layout.info();
    const LayoutInfo& layoutB = b.layout->layout.info();
    if (a.layout == b.layout && a.bytes == b.bytes) {
      ++same_;
      return;
    }
    std::vector<Change> changes;
    if (options_.inOrder && a.oid() != b.oid()) {
      changes.push_back({"(oid)", std::to_string(a.oid()), std::to_string(b.oid())});
    }
    for (const ColumnInfo& column : layoutA.columns) {
      const ColumnInfo* const other = findColumn(layoutB, column.name);
      if (other != nullptr && other->type == column.type && other->isArray == column.isArray &&
          sameColumn(a.bytes.data(), column, b.bytes.data(), *other)) {
        continue;
      }
      const std::string before = json(a, column.name);
      const std::string after = other == nullptr ? "" : json(b, column.name);
      const bool isOtherType = other != nullptr && other->type != column.type;
      if (!isOtherType || before != after) {
        changes.push_back({std::string(column.name), before, after});
      }
    }
    for (const ColumnInfo& column : layoutB.columns) {
      if (findColumn(layoutA, column.name) != nullptr) continue;
      changes.push_back({std::string(column.name), "", json(b, column.name)});
    }
    if (changes.empty()) {
      ++same_;
    } else {
      ++changed_;
      tellChanged(a, changes);
    }
  }

  std::string json(const KeptRow& row, std::string_view column) {
    Korvo::AnyRow& any = rows_.try_emplace(row.layout, row.layout->layout).first->second;
    any.adopt(row.bytes.data(), row.bytes.size());
    return any.json(column);
  }

  static Json keyJson(const KeptRow& row, const char* change) {
    Json json = Json::object();
    json.add("change", change).add("type", row.rowType()).add("oid", row.oid());
    return json;
  }

  void tellChanged(const KeptRow& row, const std::vector<Change>& changes) {
    if (options_.quiet) return;
    if (options_.json) {
      Json columns = Json::array();
      for (const Change& change : changes) {
        Json column = Json::object();
        column.add("name", change.column);
        if (!change.before.empty()) column.addRaw("old", change.before);
        if (!change.after.empty()) column.addRaw("new", change.after);
        columns.append(column);
      }
      Json json = keyJson(row, "changed");
      out_ << json.add("columns", columns).text() << "\n";
      return;
    }
    out_ << style_.yellow("~ " + titleOf(row)) << "\n";
    for (const Change& change : changes) {
      const auto shown = [](const std::string& value) {
        return value.empty() ? "(no column)" : printable(value);
      };
      out_ << "    " << printable(change.column) << ": " << style_.red(shown(change.before))
           << " -> " << style_.green(shown(change.after)) << "\n";
    }
  }

  void tellOnly(const KeptRow& row, const char* where) {
    const bool isOld = where[0] == 'o';
    ++(isOld ? onlyOld_ : onlyNew_);
    if (options_.quiet) return;
    if (options_.json) {
      out_ << keyJson(row, isOld ? "removed" : "added").text() << "\n";
    } else if (isOld) {
      out_ << style_.red("- " + titleOf(row)) << "\n";
    } else {
      out_ << style_.green("+ " + titleOf(row)) << "\n";
    }
  }

  std::string titleOf(const KeptRow& row) const {
    const std::string name = row.layout->name.empty() ? "" : row.layout->name + ' ';
    return name + "oid " + std::to_string(row.oid());
  }

  void finish() {
    if (options_.json) {
      Json json = Json::object();
      json.add("same", same_).add("changed", changed_).add("removed", onlyOld_);
      out_ << json.add("added", onlyNew_).text() << "\n";
    } else if (!options_.quiet) {
      out_ << std::to_string(same_) << " same, " << std::to_string(changed_) << " changed, "
           << std::to_string(onlyOld_) << " removed, " << std::to_string(onlyNew_) << " added\n";
    }
    out_.finish();
  }

  const DiffOptions& options_;
  Output out_;
  Style style_;
  Layouts oldLayouts_;
  Layouts newLayouts_;
  std::map<const NamedLayout*, Korvo::AnyRow> rows_;
  std::uint64_t same_ = 0;
  std::uint64_t changed_ = 0;
  std::uint64_t onlyOld_ = 0;
  std::uint64_t onlyNew_ = 0;
  bool allGood_ = true;
};

}  // namespace

int diffRows(const DiffOptions& options) {
  return Differ(options).run();
}

}  // namespace korvotool
