#include "rowText.h"

#include "failure.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace korvotool {
namespace {

constexpr std::string_view oidField = "oid";

template <typename Number>
std::optional<Number> numberOf(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// Finds the members of an object, whose values are looked at by others.
class Members {
 public:
  explicit Members(std::string_view text) : text_(text) {}

  struct Member {
    std::string_view key;  ///< between its quotes, as it is written
    std::string_view value;
    std::size_t position = 0;  ///< of the value
  };

  /// False for text that is no object.
  bool read(std::vector<Member>& members) {
    if (!take('{')) return false;
    if (!take('}')) {
      do {
        Member member;
        skipSpace();
        const std::size_t keyBegin = at_ + 1;
        if (!skipString()) return false;
        member.key = text_.substr(keyBegin, at_ - keyBegin - 1);
        if (!take(':')) return false;
        skipSpace();
        member.position = at_;
        if (!skipValue()) return false;
        member.value = text_.substr(member.position, at_ - member.position);
        members.push_back(member);
      } while (take(','));
      if (!take('}')) return false;
    }
    skipSpace();
    return at_ == text_.size();
  }

 private:
  void skipSpace() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r')) {
      ++at_;
    }
  }
  bool take(char c) {
    skipSpace();
    if (at_ == text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool skipString() {
    if (!take('"')) return false;
    for (; at_ < text_.size(); ++at_) {
      if (text_[at_] == '\\') {
        ++at_;
      } else if (text_[at_] == '"') {
        ++at_;
        return true;
      }
    }
    return false;
  }
  /// Up to the comma or brace behind it.
  bool skipValue() {
    std::size_t depth = 0;
    const std::size_t begin = at_;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (c == '"') {
        if (!skipString()) return false;
        continue;
      }
      if (depth == 0 && (c == ',' || c == '}')) break;
      if (c == '{' || c == '[') ++depth;
      if (c == '}' || c == ']') {
        if (depth == 0) return false;
        --depth;
      }
      ++at_;
    }
    return depth == 0 && at_ != begin;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

/// Without "line 1, ", as the line is another.
std::string withoutLine(const Korvo::KoTextError& error) {
  const std::string_view what = error.what();
  return std::string(what.substr(what.find(", ") + 2));
}

}  // namespace

JsonLines::JsonLines(const std::string& path, const Layouts& layouts, Compression compression)
    : lines_(path, compression), layouts_(layouts) {}

Korvo::AnyRow& JsonLines::rowOf(std::optional<std::uint64_t> rowType) {
  const NamedLayout* named = nullptr;
  if (!rowType) {
    if (layouts_.all().size() != 1)
      lines_.fail(lines_.lastLine(), "no \"type\", and several layouts");
    named = &layouts_.all().front();
  } else if (*rowType <= std::numeric_limits<std::uint16_t>::max()) {
    named = layouts_.find(static_cast<std::uint16_t>(*rowType));
  }
  if (named == nullptr) {
    lines_.fail(lines_.lastLine(), "no layout is known for row type " + std::to_string(*rowType));
  }
  return rows_.try_emplace(named->layout.info().rowType, named->layout).first->second;
}

const Korvo::AnyRow* JsonLines::next() {
  do {
    if (!lines_.nextLine(line_)) return nullptr;
  } while (trimmed(line_).empty());
  std::vector<Members::Member> members;
  const auto fail = [this](const std::string& what) { lines_.fail(lines_.lastLine(), what); };
  if (!Members(line_).read(members)) fail("no object of JSON");
  std::optional<std::uint64_t> rowType;
  std::optional<Korvo::oid_t> oid;
  const Members::Member* row = nullptr;
  for (const Members::Member& member : members) {
    const std::string_view value = trimmed(member.value);
    if (member.key == "type" && !rowType) {
      rowType = numberOf<std::uint64_t>(value);
      if (!rowType) fail("\"type\" is no number from 0 to 65535");
    } else if (member.key == "oid" && !oid) {
      oid = numberOf<Korvo::oid_t>(value);
      if (!oid) fail("\"oid\" is no number from 0 to 4294967295");
    } else if (member.key == "row" && row == nullptr) {
      row = &member;
    } else {
      fail("a row has \"type\", \"oid\" and \"row\", once each: \"" +
           printable(member.key.substr(0, 40)) + '"');
    }
  }
  if (row == nullptr) fail("no \"row\"");
  Korvo::AnyRow& result = rowOf(rowType);
  result.create(oid.value_or(0));
  try {
    // In its place in the line, so that errors tell the right one.
    result.fromJson(std::string(row->position, ' ') + std::string(row->value));
  } catch (const Korvo::KoTextError& e) {
    fail(withoutLine(e));
  }
  if (result.isNull()) fail("the row is null");
  return &result;
}

CsvRows::CsvRows(const std::string& path, const NamedLayout& layout, Compression compression)
    : lines_(path, compression), row_(layout.layout) {
  if (!nextRecord(columns_)) lines_.fail(1, "no record that names the columns");
  hasOid_ = columns_.front() == oidField;
  for (std::size_t i = hasOid_ ? 1 : 0; i < columns_.size(); ++i) {
    if (layout.layout.find(columns_[i]) == nullptr) {
      lines_.fail(1, "no column has the name " + printable(columns_[i].substr(0, 40)));
    }
    for (std::size_t j = hasOid_ ? 1 : 0; j < i; ++j) {
      if (columns_[i] == columns_[j]) lines_.fail(1, "a column named twice: " + columns_[i]);
    }
  }
}

bool CsvRows::nextRecord(std::vector<std::string>& fields) {
  fields.clear();
  line_ = lines_.line();
  std::string field;
  std::size_t length = 0;
  enum class State : std::uint8_t { begin, plain, quoted, behindQuote } state = State::begin;
  bool any = false;
  for (char c = 0; lines_.next(c);) {
    any = true;
    if (++length > LineReader::longestLine) lines_.fail(line_, "the record exceeds 4 MiB");
    if (state == State::quoted) {
      if (c == '"') {
        state = State::behindQuote;
      } else {
        field += c;
      }
    } else if (c == '"' && state == State::begin) {
      state = State::quoted;
    } else if (c == '"' && state == State::behindQuote) {
      field += c;
      state = State::quoted;
    } else if (c == ',' || c == '\n') {
      if (state == State::plain && c == '\n' && field.back() == '\r') field.pop_back();
      fields.push_back(std::move(field));
      field.clear();
      state = State::begin;
      if (c == '\n') return true;
    } else if (c == '"') {
      lines_.fail(line_, "a quote inside a field without quotes");
    } else if (state == State::behindQuote) {
      if (c != '\r') lines_.fail(line_, "text behind a field's closing quote");
    } else {
      field += c;
      state = State::plain;
    }
  }
  if (state == State::quoted) lines_.fail(line_, "a quote does not end");
  if (any) fields.push_back(std::move(field));
  return any;
}

const Korvo::AnyRow* CsvRows::next() {
  if (!nextRecord(fields_)) return nullptr;
  if (fields_.size() != columns_.size()) {
    lines_.fail(line_,
                counted(fields_.size(), "field") + ", and " + counted(columns_.size(), "column"));
  }
  std::size_t i = 0;
  std::optional<Korvo::oid_t> oid = 0;
  if (hasOid_) oid = numberOf<Korvo::oid_t>(fields_[i++]);
  if (!oid) lines_.fail(line_, "\"oid\" is no number from 0 to 4294967295");
  row_.create(*oid);
  for (; i < fields_.size(); ++i) {
    // A number that is not there is zero, as in a new row.
    if (fields_[i].empty()) continue;
    try {
      row_.textIs(columns_[i], fields_[i]);
    } catch (const Korvo::KoTextError& e) {
      const std::string what = withoutLine(e);
      lines_.fail(line_, what.substr(what.find(": ") + 2));
    } catch (const Korvo::KoOutOfRange& e) {
      lines_.fail(line_, e.what());
    }
  }
  return &row_;
}

namespace {

void appendField(std::string& to, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == text.npos) {
    to += text;
    return;
  }
  to += '"';
  for (const char c : text) {
    if (c == '"') to += '"';
    to += c;
  }
  to += '"';
}

}  // namespace

namespace {

using Korvo::byte_t;
using Korvo::ColumnInfo;
using Korvo::VColType;

/// A value of a column with a slot, or an element of it.
bool isExact(const byte_t* value, std::size_t length, const ColumnInfo& column) {
  if (length == 0) return true;
  if (column.type == Korvo::structType_) {
    return inexactColumn(value, *column.nested, TextForm::json) == nullptr;
  }
  return column.type != Korvo::stringType_ ||
         isUtf8({reinterpret_cast<const char*>(value), length});
}

bool isExactIn(const byte_t* row, const ColumnInfo& column, TextForm form) {
  const byte_t* const place = row + column.offset;
  if (column.type == Korvo::floatType_) return !std::isinf(Korvo::loadField<float>(place));
  if (column.type == Korvo::doubleType_) return !std::isinf(Korvo::loadField<double>(place));
  if (column.type != Korvo::stringType_ && column.type != Korvo::structType_) return true;
  const VColType& slot = VColType::at(row, column.offset);
  const byte_t* const value = row + slot.offset();
  if (!column.isArray) {
    const bool isAsItIs = form == TextForm::csv && column.type == Korvo::stringType_;
    return isAsItIs || isExact(value, slot.length(), column);
  }
  if (slot.length() == 0) return true;
  const unsigned int count = Korvo::loadField<std::uint16_t>(value) & Korvo::arrayCountMask;
  for (unsigned int i = 0; i < count; ++i) {
    const VColType& element = VColType::at(value, Korvo::arrayHeaderLength + sizeof(VColType) * i);
    if (!isExact(value + element.offset(), element.length(), column)) return false;
  }
  return true;
}

}  // namespace

const ColumnInfo* inexactColumn(const byte_t* row, const Korvo::LayoutInfo& layout, TextForm form) {
  for (const ColumnInfo& column : layout.columns) {
    if (!isExactIn(row, column, form)) return &column;
  }
  return nullptr;
}

std::string csvHeader(const Korvo::LayoutInfo& layout) {
  std::string line(oidField);
  for (const Korvo::ColumnInfo& column : layout.columns) {
    line += ',';
    appendField(line, column.name);
  }
  return line + '\n';
}

std::string csvRecord(const Korvo::AnyRow& row) {
  std::string line = std::to_string(row.rowOid());
  for (const Korvo::ColumnInfo& column : row.layout().info().columns) {
    line += ',';
    appendField(line, row.text(column.name));
  }
  return line + '\n';
}

}  // namespace korvotool
