#pragma once

// Rows of another process's layout, made into rows of ours by column name.
//
//   const Korvo::DynamicLayout sender(text);                      // what the sender told
//   const Korvo::RowConverter<Port> converter(sender.info());     // throws if it cannot be
//   if (!Korvo::checkRow(bytes, length, sender.info())) {
//     converter.convert(bytes, length, port);
//   }
//
// How a column becomes ours is planned once:
//
//   same      the same type: the value is copied, whatever its offset
//   widened   a number in a wider type of its kind: unsigned, signed, floating point
//   nested    rows of another layout, converted by these rules
//   dropped   ours do not have it
//   missing   theirs do not have it: zero or null, which cannot be told from a zero or null of
//   theirs refused   anything else, with the reason in words
//
// The converted row holds values of ours and nothing else: no gaps, none of the sender's bytes that
// are no column's value. Only a sender of the very same layout has its rows copied as they are.

#include <Korvo/AnyRow.h>
#include <Korvo/TableRow.h>
#include <Korvo/layoutText.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Korvo {

/// What becomes of a column.
enum class ColumnChange : byte_t {
  same,     ///< the same type
  widened,  ///< ours holds every value of theirs
  nested,   ///< nested rows that are converted themselves
  dropped,  ///< we do not have it
  missing,  ///< they do not have it: zero or null
  refused   ///< ours does not hold it
};
/// "same" and so on.
KORVO_API std::string_view columnChangeText(ColumnChange change);

/// What becomes of rows, from the best to the worst.
enum class Conversion : byte_t {
  same,      ///< one layout: the bytes mean the same
  lossless,  ///< both have the same columns; ours hold every value of theirs
  lossy,     ///< columns are dropped or missing
  refused    ///< no row is converted
};

/// What a comparison cannot know from the layouts. Columns are named as ours are; one of a nested
/// row with the names of those that it is in: "link.peer".
struct ConversionRules {
  /// A column's former name. Looked up, in this order, where the sender has no column of our name.
  struct Alias {
    std::string column;  ///< as ours is named
    std::string former;  ///< without the names of those that it is in
  };
  std::vector<Alias> aliases;  ///< former names
  /// Columns that must not be missing.
  std::vector<std::string> required;
};

/// One column of theirs, of ours, or of both. The pointers are valid as long as the comparison or a
/// copy of it.
struct ColumnComparison {
  ColumnChange change = ColumnChange::same;  ///< what becomes of it
  const ColumnInfo* sender = nullptr;        ///< null if it is missing
  const ColumnInfo* ours = nullptr;          ///< null if it is dropped
  std::string reason;                        ///< why it is refused
  std::vector<ColumnComparison> nested;      ///< the columns of nested rows

  /// Our name, or the sender's if we do not have the column.
  std::string_view name() const { return (ours != nullptr ? ours : sender)->name; }
};

/// What becomes of rows of one layout in another, column by column: ours by offset, then those that
/// are dropped.
class KORVO_API LayoutComparison {
 public:
  /// Throws as DynamicLayout does, and KoInvalidArgument for rules that name no column of ours or
  /// give a column of ours as the former name of another.
  LayoutComparison(const LayoutInfo& sender, const LayoutInfo& ours,
                   const ConversionRules& rules = {});

  /// What becomes of the rows.
  Conversion conversion() const noexcept { return conversion_; }
  /// Column by column; valid as long as this object.
  const std::vector<ColumnComparison>& columns() const noexcept { return columns_; }
  /// Their layout.
  const DynamicLayout& sender() const noexcept { return sender_; }
  /// Our layout.
  const DynamicLayout& ours() const noexcept { return ours_; }

  /// Why the layouts are refused, in one line: `row type 7, here 8`, or
  /// `column "up": string_t, here bool`; several reasons with "; " between them. Empty if they are
  /// not.
  std::string refusal() const;
  /// One line for each column: "widened  mtu uint16_t -> uint32_t".
  std::string text() const;

 private:
  DynamicLayout sender_;
  DynamicLayout ours_;
  std::vector<ColumnComparison> columns_;
  Conversion conversion_ = Conversion::same;
};

namespace detail {
struct ConversionSteps;
}

/// The conversion of rows, planned; what RowConverter uses, and those who have no row to convert
/// into. Safe from any thread.
class KORVO_API ConversionPlan {
 public:
  /// Throws KoInvalidArgument "Layout refused - (refusal)", and as LayoutComparison does.
  ConversionPlan(const LayoutInfo& sender, const LayoutInfo& ours,
                 const ConversionRules& rules = {});

  /// What was compared; valid as long as this object.
  const LayoutComparison& comparison() const noexcept { return comparison_; }

  /// How long the converted row is. `bytes` have passed checkRow() with the sender's layout. Throws
  /// KoInvalidArgument for a row of another type, of another length than its header says or too
  /// short for the sender's columns; KoOutOfRange if the converted row would exceed 65535 bytes or
  /// one of its nested values 32767.
  std::size_t convertedLength(const void* bytes, std::size_t length) const;
  /// Writes the converted row to `to`, which has room for that many bytes.
  void write(const void* bytes, byte_t* to) const noexcept;

 protected:
  /// Gives `row` a buffer of its own with the converted row. Throws as convertedLength() does, and
  /// std::bad_alloc, with `row` as before.
  void convertInto(const void* bytes, std::size_t length, BaseRow& row) const;

 private:
  void requireRow(const void* bytes, std::size_t length) const;

  LayoutComparison comparison_;
  KoPtr<const detail::ConversionSteps> steps_;
};

/// Converts rows of a sender into those of a table's row class, or AnyRow. Safe from any thread.
template <typename Row>
class RowConverter : public ConversionPlan {
 public:
  /// Throws as ConversionPlan's does.
  explicit RowConverter(const LayoutInfo& sender, const ConversionRules& rules = {})
      : ConversionPlan(sender, Row::Layout::info, rules) {}

  /// Makes `row` a new row with what the sender's row tells, its oid too. `bytes` have passed
  /// checkRow() with the sender's layout. Throws as convertedLength() does, and std::bad_alloc,
  /// with `row` as before.
  void convert(const void* bytes, std::size_t length, Row& row) const {
    convertInto(bytes, length, row);
  }
};

template <>
class RowConverter<AnyRow> : public ConversionPlan {
 public:
  RowConverter(const LayoutInfo& sender, const DynamicLayout& ours,
               const ConversionRules& rules = {})
      : ConversionPlan(sender, ours.info(), rules) {}

  /// As above; the row has our layout then, whatever it had before.
  void convert(const void* bytes, std::size_t length, AnyRow& row) const {
    AnyRow converted(comparison().ours());
    convertInto(bytes, length, converted);
    row = converted;
  }
};

}  // namespace Korvo
