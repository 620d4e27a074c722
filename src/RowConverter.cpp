#include <Korvo/RowConverter.h>

#include "textReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <utility>

namespace Korvo {
namespace {

// ---------------------------------------------------------------------------------------------
// Comparing

enum class NumberKind : byte_t { none, isUnsigned, isSigned, real };

NumberKind kindOf(KorvoTypes type) {
  if (type <= uint64Type_) return NumberKind::isUnsigned;
  if (type <= int64Type_) return NumberKind::isSigned;
  return type <= doubleType_ ? NumberKind::real : NumberKind::none;
}

bool isWidening(const ColumnInfo& from, const ColumnInfo& to) {
  return !from.isArray && !to.isArray && kindOf(from.type) != NumberKind::none &&
         kindOf(from.type) == kindOf(to.type) && from.width < to.width;
}

Conversion worse(Conversion a, Conversion b) {
  return std::max(a, b);
}

Conversion conversionOf(const ColumnComparison& column) {
  switch (column.change) {
    case ColumnChange::refused:
      return Conversion::refused;
    case ColumnChange::dropped:
    case ColumnChange::missing:
      return Conversion::lossy;
    default: {
      Conversion all = Conversion::lossless;
      for (const ColumnComparison& nested : column.nested) {
        all = worse(all, conversionOf(nested));
      }
      return all;
    }
  }
}

std::string quoted(std::string_view name) {
  return '"' + detail::shown(name) + '"';
}

class Comparer {
 public:
  explicit Comparer(const ConversionRules& rules) : rules_(rules) {}

  std::vector<ColumnComparison> compare(const LayoutInfo& sender, const LayoutInfo& ours) {
    std::vector<ColumnComparison> columns;
    std::vector<const ColumnInfo*> taken;
    for (const ColumnInfo& our : ours.columns) {
      ColumnComparison column = compareColumn(sender, our);
      if (column.sender != nullptr) taken.push_back(column.sender);
      columns.push_back(std::move(column));
    }
    for (const ColumnInfo& their : sender.columns) {
      if (std::find(taken.begin(), taken.end(), &their) != taken.end()) continue;
      columns.push_back({ColumnChange::dropped, &their, nullptr, {}, {}});
    }
    return columns;
  }

 private:
  static const ColumnInfo* find(const LayoutInfo& layout, std::string_view name) {
    const auto found =
        std::find_if(layout.columns.begin(), layout.columns.end(),
                     [name](const ColumnInfo& column) { return column.name == name; });
    return found == layout.columns.end() ? nullptr : &*found;
  }

  ColumnComparison compareColumn(const LayoutInfo& sender, const ColumnInfo& our) {
    const std::string path =
        path_.empty() ? std::string(our.name) : path_ + '.' + std::string(our.name);
    ColumnComparison column;
    column.ours = &our;
    column.sender = senderColumn(sender, our, path);
    if (column.sender == nullptr) {
      const bool isRequired =
          std::find(rules_.required.begin(), rules_.required.end(), path) != rules_.required.end();
      column.change = isRequired ? ColumnChange::refused : ColumnChange::missing;
      if (isRequired) column.reason = "missing, and required here";
      return column;
    }
    const ColumnInfo& their = *column.sender;
    if (their.type == our.type && their.isArray == our.isArray) {
      if (our.type == structType_) compareNested(column, path);
    } else if (isWidening(their, our)) {
      column.change = ColumnChange::widened;
    } else {
      column.change = ColumnChange::refused;
      column.reason = columnTypeText(their) + ", here " + columnTypeText(our);
    }
    return column;
  }

  const ColumnInfo* senderColumn(const LayoutInfo& sender, const ColumnInfo& our,
                                 const std::string& path) const {
    if (const ColumnInfo* const same = find(sender, our.name)) return same;
    for (const ConversionRules::Alias& alias : rules_.aliases) {
      if (alias.column != path) continue;
      if (const ColumnInfo* const former = find(sender, alias.former)) return former;
    }
    return nullptr;
  }

  void compareNested(ColumnComparison& column, const std::string& path) {
    const LayoutInfo& theirs = *column.sender->nested;
    const LayoutInfo& ours = *column.ours->nested;
    if (theirs.rowType != ours.rowType) {
      column.change = ColumnChange::refused;
      column.reason =
          "row type " + std::to_string(theirs.rowType) + ", here " + std::to_string(ours.rowType);
      return;
    }
    const std::string before = std::exchange(path_, path);
    column.nested = compare(theirs, ours);
    path_ = before;
    if (fingerprint(theirs) == fingerprint(ours)) {
      column.nested.clear();
      return;
    }
    column.change = ColumnChange::nested;
  }

  const ConversionRules& rules_;
  std::string path_;  // of the column whose rows are compared
};

/// Whether the layout has a column of this path; `siblings` becomes the layout that it is in.
bool hasColumn(const LayoutInfo& layout, std::string_view path, const LayoutInfo*& siblings) {
  for (const ColumnInfo& column : layout.columns) {
    if (!path.starts_with(column.name)) continue;
    const std::string_view rest = path.substr(column.name.size());
    if (rest.empty()) {
      siblings = &layout;
      return true;
    }
    if (rest.front() == '.' && column.nested != nullptr &&
        hasColumn(*column.nested, rest.substr(1), siblings)) {
      return true;
    }
  }
  return false;
}

void checkRules(const LayoutInfo& ours, const ConversionRules& rules) {
  const LayoutInfo* siblings = nullptr;
  const auto requireColumn = [&](const std::string& path) {
    if (!hasColumn(ours, path, siblings))
      throw KoInvalidArgument("Unknown column - (" + path + ")");
  };
  for (const std::string& path : rules.required) requireColumn(path);
  for (const ConversionRules::Alias& alias : rules.aliases) {
    requireColumn(alias.column);
    for (const ColumnInfo& column : siblings->columns) {
      if (column.name != alias.former) continue;
      throw KoInvalidArgument("Former name is a column's name - (" + alias.former + ")");
    }
  }
}

void addRefusals(std::string& to, const std::vector<ColumnComparison>& columns,
                 const std::string& path) {
  for (const ColumnComparison& column : columns) {
    const std::string name = path + std::string(column.name());
    if (column.change == ColumnChange::refused) {
      if (!to.empty()) to += "; ";
      to += "column " + quoted(name) + ": " + column.reason;
    }
    addRefusals(to, column.nested, name + '.');
  }
}

void addLines(std::string& to, const std::vector<ColumnComparison>& columns,
              const std::string& path) {
  for (const ColumnComparison& column : columns) {
    const std::string name = path + std::string(column.name());
    std::string word(columnChangeText(column.change));
    constexpr std::size_t width = 9;
    word.resize(width, ' ');
    to += word + name;
    if (column.change == ColumnChange::refused) {
      to += ": " + column.reason + '\n';
      continue;
    }
    to += ' ' + columnTypeText(column.sender != nullptr ? *column.sender : *column.ours);
    if (column.change == ColumnChange::widened) to += " -> " + columnTypeText(*column.ours);
    if (column.sender != nullptr && column.sender->name != column.name()) {
      to += ", formerly " + std::string(column.sender->name);
    }
    to += '\n';
    addLines(to, column.nested, name + '.');
  }
}

}  // namespace

std::string_view columnChangeText(ColumnChange change) {
  constexpr std::string_view texts[] = {"same",    "widened", "nested",
                                        "dropped", "missing", "refused"};
  return texts[static_cast<std::size_t>(change)];
}

LayoutComparison::LayoutComparison(const LayoutInfo& sender, const LayoutInfo& ours,
                                   const ConversionRules& rules)
    : sender_(sender), ours_(ours) {
  checkRules(ours_.info(), rules);
  columns_ = Comparer(rules).compare(sender_.info(), ours_.info());
  if (sender_.fingerprint() == ours_.fingerprint()) return;
  conversion_ =
      sender_.info().rowType == ours_.info().rowType ? Conversion::lossless : Conversion::refused;
  for (const ColumnComparison& column : columns_) {
    conversion_ = worse(conversion_, conversionOf(column));
  }
}

std::string LayoutComparison::refusal() const {
  std::string text;
  const std::uint16_t theirType = sender_.info().rowType;
  const std::uint16_t ourType = ours_.info().rowType;
  if (theirType != ourType) {
    text = "row type " + std::to_string(theirType) + ", here " + std::to_string(ourType);
  }
  addRefusals(text, columns_, {});
  return text;
}

std::string LayoutComparison::text() const {
  std::string text;
  addLines(text, columns_, {});
  return text;
}

// ---------------------------------------------------------------------------------------------
// Converting

namespace detail {

struct ConversionSteps {
  /// Fixed columns of one type, side by side in both layouts.
  struct Run {
    len_t from;
    len_t to;
    len_t length;
  };
  struct Widening {
    len_t from;
    len_t to;
    KorvoTypes type;
    len_t width;  ///< in the converted row
  };
  /// A value whose bytes stay as they are.
  struct Slot {
    len_t from;
    len_t to;
  };
  struct NestedSlot {
    len_t from;
    len_t to;
    bool isArray;
    std::unique_ptr<const ConversionSteps> steps;
  };

  ConversionSteps(const LayoutInfo& sender, const LayoutInfo& ours,
                  const std::vector<ColumnComparison>& columns);

  /// By how much a converted row may be longer than the sender's.
  std::size_t growth(const std::vector<ColumnComparison>& columns) const;
  std::size_t lengthOf(const byte_t* row) const;
  std::size_t lengthOfRows(const byte_t* value, bool isArray) const;
  std::size_t write(const byte_t* row, byte_t* to) const noexcept;
  std::size_t writeRows(const byte_t* value, bool isArray, byte_t* to) const noexcept;

  bool isSame = false;  ///< one layout
  std::uint16_t senderType;
  std::uint16_t rowType;
  len_t senderBase;
  len_t base;
  std::vector<Run> runs;
  std::vector<Widening> widenings;
  std::vector<Slot> slots;  ///< by the sender's offset
  std::vector<NestedSlot> nestedSlots;
  std::size_t mostGrowth = 0;
};

ConversionSteps::ConversionSteps(const LayoutInfo& sender, const LayoutInfo& ours,
                                 const std::vector<ColumnComparison>& columns)
    : senderType(sender.rowType),
      rowType(ours.rowType),
      senderBase(sender.baseLength),
      base(ours.baseLength) {
  for (const ColumnComparison& column : columns) {
    if (column.sender == nullptr || column.ours == nullptr) continue;
    const ColumnInfo& their = *column.sender;
    const ColumnInfo& our = *column.ours;
    if (column.change == ColumnChange::widened) {
      widenings.push_back({their.offset, our.offset, their.type, our.width});
    } else if (column.change == ColumnChange::nested) {
      nestedSlots.push_back(
          {their.offset, our.offset, our.isArray,
           std::make_unique<const ConversionSteps>(*their.nested, *our.nested, column.nested)});
    } else if (our.hasSlot()) {
      slots.push_back({their.offset, our.offset});
    } else if (!runs.empty() && runs.back().from + runs.back().length == their.offset &&
               runs.back().to + runs.back().length == our.offset) {
      runs.back().length = static_cast<len_t>(runs.back().length + our.width);
    } else {
      runs.push_back({their.offset, our.offset, our.width});
    }
  }
  // Senders mostly leave values in the order of their columns; taken in it, values that stand side
  // by side are copied in one go.
  std::sort(slots.begin(), slots.end(),
            [](const Slot& a, const Slot& b) { return a.from < b.from; });
  mostGrowth = growth(columns);
}

std::size_t ConversionSteps::growth(const std::vector<ColumnComparison>& columns) const {
  constexpr std::size_t unknown = maxRowLength;
  std::size_t all = base > senderBase ? base - senderBase : 0;
  for (const NestedSlot& slot : nestedSlots) {
    all += slot.isArray ? unknown : slot.steps->mostGrowth;  // an array may have many rows
  }
  std::set<const ColumnInfo*> taken;
  for (const ColumnComparison& column : columns) {
    // Two columns of ours may have the same former name.
    if (column.sender != nullptr && !taken.insert(column.sender).second) all += unknown;
  }
  return all;
}

/// The bytes that the converted row needs.
std::size_t ConversionSteps::lengthOf(const byte_t* row) const {
  std::size_t length = base;
  for (const Slot& slot : slots) length += VColType::at(row, slot.from).length();
  for (const NestedSlot& slot : nestedSlots) {
    const VColType& value = VColType::at(row, slot.from);
    if (value.length() == 0) continue;
    const std::size_t rows = slot.steps->lengthOfRows(row + value.offset(), slot.isArray);
    if (rows > maxValueLength) throw KoOutOfRange("Value length exceeds 32767 bytes");
    length += rows;
  }
  if (length > maxRowLength) throw KoOutOfRange("Row length exceeds 65535 bytes");
  return length;
}

std::size_t ConversionSteps::lengthOfRows(const byte_t* value, bool isArray) const {
  if (!isArray) return lengthOf(value);
  std::size_t length = arrayHeaderLength;
  const unsigned int count = loadField<std::uint16_t>(value) & arrayCountMask;
  for (unsigned int i = 0; i < count; ++i) {
    const VColType& element = VColType::at(value, arrayHeaderLength + sizeof(VColType) * i);
    const std::size_t row = lengthOf(value + element.offset());
    if (row > maxValueLength) throw KoOutOfRange("Value length exceeds 32767 bytes");
    length += sizeof(VColType) + row;
  }
  return length;
}

namespace {

template <typename From>
void widen(const byte_t* from, byte_t* to, len_t width) noexcept {
  const From value = loadField<From>(from);
  if constexpr (std::is_floating_point_v<From>) {
    storeField(to, static_cast<double>(value));
  } else {
    using Wide = std::conditional_t<std::is_signed_v<From>, std::int64_t, std::uint64_t>;
    const Wide wide = value;        // NOLINT(bugprone-signed-char-misuse): the sign is to stay
    std::memcpy(to, &wide, width);  // numbers are little-endian
  }
}

void widen(KorvoTypes type, const byte_t* from, byte_t* to, len_t width) noexcept {
  switch (type) {
    case uint8Type_:
      return widen<std::uint8_t>(from, to, width);
    case uint16Type_:
      return widen<std::uint16_t>(from, to, width);
    case uint32Type_:
      return widen<std::uint32_t>(from, to, width);
    case int8Type_:
      return widen<std::int8_t>(from, to, width);
    case int16Type_:
      return widen<std::int16_t>(from, to, width);
    case int32Type_:
      return widen<std::int32_t>(from, to, width);
    default:
      return widen<float>(from, to, width);
  }
}

}  // namespace

/// Writes the converted row, whatever the bytes were before, and returns its length.
std::size_t ConversionSteps::write(const byte_t* row, byte_t* to) const noexcept {
  storeField(to + rowTypeOffset, rowType);
  storeField(to + rowOidOffset, loadField<oid_t>(row + rowOidOffset));
  std::memset(to + rowHeaderLength, 0, std::size_t{base} - rowHeaderLength);
  for (const Run& run : runs) std::memcpy(to + run.to, row + run.from, run.length);
  for (const Widening& column : widenings) {
    widen(column.type, row + column.from, to + column.to, column.width);
  }

  // Values that stand side by side in the sender's row, from `begin` to `stop`, are copied in one
  // go; their place in ours is `shift` further on.
  std::uint32_t begin = 0;
  std::uint32_t stop = 0;
  std::uint32_t shift = base;
  const auto copyValues = [&] {
    if (stop != begin) std::memcpy(to + (begin + shift), row + begin, stop - begin);
  };
  for (const Slot& slot : slots) {
    // Offset, length and array mark in one word; only the offset changes.
    const auto word = loadField<std::uint32_t>(row + slot.from);
    const std::uint32_t length = word >> 16 & maxValueLength;
    if (length == 0) continue;
    const std::uint32_t offset = word & 0xFFFF;
    if (offset != stop) {
      copyValues();
      shift += stop - offset;
      begin = stop = offset;
    }
    stop += length;
    storeField(to + slot.to, word + shift);
  }
  copyValues();

  std::size_t end = stop + shift;
  for (const NestedSlot& slot : nestedSlots) {
    const VColType& from = VColType::at(row, slot.from);
    if (from.length() == 0) continue;
    const std::size_t length = slot.steps->writeRows(row + from.offset(), slot.isArray, to + end);
    VColType::at(to, slot.to)
        .valueIs(static_cast<len_t>(end), static_cast<len_t>(length), slot.isArray);
    end += length;
  }
  storeField(to + rowLengthOffset, static_cast<len_t>(end));
  return end;
}

std::size_t ConversionSteps::writeRows(const byte_t* value, bool isArray,
                                       byte_t* to) const noexcept {
  if (!isArray) return write(value, to);
  const unsigned int count = loadField<std::uint16_t>(value) & arrayCountMask;
  storeField(to, static_cast<std::uint16_t>(count | unsigned{arrayVariableMark} << 8));
  std::size_t end = arrayHeaderLength + sizeof(VColType) * count;
  for (unsigned int i = 0; i < count; ++i) {
    const std::size_t at = arrayHeaderLength + sizeof(VColType) * i;
    const std::size_t length = write(value + VColType::at(value, at).offset(), to + end);
    VColType::at(to, at).valueIs(static_cast<len_t>(end), static_cast<len_t>(length), false);
    end += length;
  }
  return end;
}

}  // namespace detail

ConversionPlan::ConversionPlan(const LayoutInfo& sender, const LayoutInfo& ours,
                               const ConversionRules& rules)
    : comparison_(sender, ours, rules) {
  if (comparison_.conversion() == Conversion::refused) {
    throw KoInvalidArgument("Layout refused - (" + comparison_.refusal() + ")");
  }
  auto steps = std::make_shared<detail::ConversionSteps>(
      comparison_.sender().info(), comparison_.ours().info(), comparison_.columns());
  steps->isSame = comparison_.conversion() == Conversion::same;
  steps_ = std::move(steps);
}

void ConversionPlan::requireRow(const void* bytes, std::size_t length) const {
  const byte_t* const row = static_cast<const byte_t*>(bytes);
  const auto refuse = [](const char* reason) {
    throw KoInvalidArgument("Invalid Row - (" + std::string(reason) + ")");
  };
  if (length < rowHeaderLength) refuse("no room for a header");
  if (loadField<len_t>(row + rowLengthOffset) != length) refuse("not of the length that it says");
  if (length < steps_->senderBase) refuse("shorter than the sender's columns");
  if (loadField<std::uint16_t>(row + rowTypeOffset) != steps_->senderType) {
    refuse("another row type");
  }
}

std::size_t ConversionPlan::convertedLength(const void* bytes, std::size_t length) const {
  requireRow(bytes, length);
  return steps_->isSame ? length : steps_->lengthOf(static_cast<const byte_t*>(bytes));
}

void ConversionPlan::write(const void* bytes, byte_t* to) const noexcept {
  const byte_t* const row = static_cast<const byte_t*>(bytes);
  if (steps_->isSame) {
    std::memcpy(to, row, loadField<len_t>(row + rowLengthOffset));
  } else {
    steps_->write(row, to);
  }
}

namespace {

/// As a row class, this may give a row its buffer.
class Installer : public BaseRow {
 public:
  static void install(BaseRow& row, KoPtr<KoRowBuf> own) noexcept {
    row.*(&Installer::rowBuf_) = std::move(own);
  }
};

}  // namespace

void ConversionPlan::convertInto(const void* bytes, std::size_t length, BaseRow& row) const {
  requireRow(bytes, length);
  // Where it cannot become too long, the exact length need not be known before.
  std::size_t room = length + steps_->mostGrowth;
  if (room > maxValueLength) room = convertedLength(bytes, length);
  KoPtr<KoRowBuf> own = std::make_shared<KoRowBuf>();
  own->buf_ = static_cast<byte_t*>(std::malloc(room));
  if (own->buf_ == nullptr) throw std::bad_alloc();
  write(bytes, own->buf_);
  // A row that has lost much keeps no memory for it.
  const std::size_t converted = loadField<len_t>(own->buf_ + rowLengthOffset);
  if (converted < room / 2) {
    if (void* const fitting = std::realloc(own->buf_, converted)) {
      own->buf_ = static_cast<byte_t*>(fitting);
    }
  }
  Installer::install(row, std::move(own));
}

}  // namespace Korvo
