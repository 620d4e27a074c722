#include "definition.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

namespace korvotool {
namespace {

using Korvo::ColumnInfo;
using Korvo::len_t;

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// The words of a definition, with the notes between them.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {
    if (text.size() > Korvo::maxLayoutText) failAt(0, "the text exceeds 1 MiB");
  }

  std::size_t position() const { return at_; }
  bool atEnd() {
    skipSpace();
    return at_ == text_.size();
  }
  char peek() {
    skipSpace();
    return at_ < text_.size() ? text_[at_] : '\0';
  }
  bool take(std::string_view piece) {
    skipSpace();
    if (!text_.substr(at_).starts_with(piece)) return false;
    at_ += piece.size();
    return true;
  }
  void expect(std::string_view piece, const std::string& what) {
    if (!take(piece)) failAt(at_, "expected " + what);
  }
  std::string_view word() {
    skipSpace();
    const std::size_t begin = at_;
    while (at_ < text_.size() && (isLetter(text_[at_]) || isDigit(text_[at_]))) ++at_;
    return text_.substr(begin, at_ - begin);
  }
  /// The character right here, whatever it is.
  char next(const char* unended, std::size_t begin) {
    if (at_ == text_.size()) failAt(begin, unended);
    return text_[at_++];
  }

  /// What comes now is noted in `note`: by the lines above, and by what follows on its own lines.
  void beginNoted(std::string& note) {
    skipSpace();
    note = std::exchange(above_, {});
    noted_ = &note;
  }
  void resumeNoted(std::string& note) { noted_ = &note; }
  void endNoted() { noted_ = nullptr; }

  [[noreturn]] void failAt(std::size_t position, const std::string& message) const {
    const std::string_view before = text_.substr(0, position);
    const auto line = std::count(before.begin(), before.end(), '\n');
    const std::size_t lineBegin = before.rfind('\n') + 1;  // 0 behind npos
    throw Korvo::KoTextError(message, static_cast<std::size_t>(line) + 1, position - lineBegin + 1);
  }

 private:
  void skipSpace() {
    bool sameLine = at_ != 0;
    unsigned int lineFeeds = 0;
    for (; at_ < text_.size(); ++at_) {
      const char c = text_[at_];
      if (c == '\n') {
        sameLine = false;
        if (++lineFeeds > 1) above_.clear();  // it was a note about nothing that follows
      } else if (c == '#') {
        takeNote(sameLine);
        lineFeeds = 0;
        --at_;  // the line feed is next
      } else if (c != ' ' && c != '\t' && c != '\r') {
        return;
      }
    }
  }

  void takeNote(bool sameLine) {
    const std::size_t end = std::min(text_.find('\n', at_), text_.size());
    std::string_view line = text_.substr(at_ + 1, end - at_ - 1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    while (!line.empty() && static_cast<unsigned char>(line.back()) <= ' ') line.remove_suffix(1);
    for (const char c : line) {
      const bool isControl = static_cast<unsigned char>(c) < 0x20 && c != '\t';
      if (isControl) failAt(at_, "control byte in a note");
    }
    at_ = end;
    if (sameLine && noted_ == nullptr) return;
    std::string& note = sameLine ? *noted_ : above_;
    if (!note.empty()) note += '\n';
    note += line;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::string above_;
  std::string* noted_ = nullptr;
};

class Parser {
 public:
  Parser(std::string_view text, Definition& definition) : in_(text), definition_(definition) {}

  void parse() {
    while (!in_.atEnd()) {
      std::string note;
      in_.beginNoted(note);
      const std::size_t begin = in_.position();
      const std::string_view word = in_.word();
      if (word == "namespace") {
        parseNamespace(begin);
      } else if (word == "row") {
        definition_.rows[parseRow(0, &note)].isInside = false;
      } else {
        in_.failAt(begin, "expected \"row\"");
      }
    }
    if (definition_.rows.empty()) in_.failAt(in_.position(), "expected \"row\"");
  }

 private:
  void parseNamespace(std::size_t begin) {
    if (!definition_.space.empty()) in_.failAt(begin, "a second namespace");
    if (!definition_.rows.empty()) in_.failAt(begin, "the namespace stands before the rows");
    do {
      const std::string_view name = in_.word();
      if (name.empty() || isDigit(name.front())) {
        in_.failAt(in_.position(), "expected the namespace's name");
      }
      if (!definition_.space.empty()) definition_.space += "::";
      definition_.space += name;
    } while (in_.take("::"));
    in_.endNoted();
  }

  /// What follows "row"; gives its place among the definition's rows.
  std::size_t parseRow(unsigned int depth, std::string* note) {
    if (depth > Korvo::maxRowNesting) in_.failAt(in_.position(), "rows are nested too deep");
    if (definition_.rows.size() == Korvo::maxLayoutColumns) {
      in_.failAt(in_.position(), "too many rows");
    }
    DefinedRow row;
    row.isInside = true;
    parseRowName(row);
    row.info.rowType = number("a row type");
    std::size_t basePosition = 0;
    if (isLetter(in_.peek())) {
      basePosition = in_.position();
      if (in_.word() != "base") in_.failAt(basePosition, "expected \"base\" or '{'");
      in_.peek();
      basePosition = in_.position();
      row.info.baseLength = number("a base length");
    }
    in_.expect("{", "'{'");
    in_.peek();  // a note behind the brace is the row's
    if (note != nullptr) row.note = *note;
    in_.endNoted();
    std::vector<std::size_t> positions;
    while (!in_.take("}")) positions.push_back(parseColumn(row, depth));
    finish(row, positions, basePosition);
    definition_.rows.push_back(std::move(row));
    return definition_.rows.size() - 1;
  }

  void parseRowName(DefinedRow& row) {
    if (!isLetter(in_.peek())) return;
    const std::size_t begin = in_.position();
    row.name = in_.word();
    if (row.name == "row" || isCatalogueType(row.name)) {
      in_.failAt(begin, "\"" + row.name + "\" is a type's name");
    }
    for (const DefinedRow& other : definition_.rows) {
      if (other.name == row.name) in_.failAt(begin, "two rows have the name " + row.name);
    }
  }

  /// Gives the position of its name.
  std::size_t parseColumn(DefinedRow& row, unsigned int depth) {
    if (++columns_ > Korvo::maxLayoutColumns) in_.failAt(in_.position(), "too many columns");
    DefinedColumn& column = row.columns.emplace_back();
    in_.beginNoted(column.note);
    const std::size_t begin = in_.position();
    column.name = parseName(begin);
    for (const ColumnInfo& other : row.infos) {
      if (other.name == column.name) {
        in_.failAt(begin, "two columns have the name \"" + column.name + '"');
      }
    }
    ColumnInfo info{column.name, Korvo::uint8Type_, 0, 0, false, nullptr};
    parseType(column, info, depth);
    in_.peek();
    const std::size_t mark = in_.position();
    if (in_.take("[")) {
      in_.expect("]", "']'");
      if (info.type != Korvo::boolType_ && !Korvo::korvoTypeIsVariableLength(info.type)) {
        in_.failAt(mark, "there are no arrays of " + column.typeName);
      }
      info.isArray = true;
    }
    info.width = info.isArray ? len_t{sizeof(Korvo::VColType)}
                              : Korvo::getKorvoTypeLength(static_cast<unsigned short>(info.type));
    std::size_t offset = row.end;
    if (in_.take("@")) {
      offset = number("the column's offset");
      column.hasOwnOffset = offset != row.end;
    }
    if (offset < Korvo::rowHeaderLength) {
      in_.failAt(begin, "column \"" + column.name + "\" lies in the header");
    }
    if (offset + info.width > Korvo::maxRowLength) {
      in_.failAt(begin, "column \"" + column.name + "\" ends behind 65535 bytes");
    }
    info.offset = static_cast<len_t>(offset);
    row.end = static_cast<len_t>(offset + info.width);
    row.infos.push_back(info);
    in_.peek();  // a note on the column's line is the column's
    in_.endNoted();
    return begin;
  }

  std::string parseName(std::size_t begin) {
    std::string name;
    if (in_.take("\"")) {
      constexpr const char* unended = "the name's quote does not end";
      for (char c = in_.next(unended, begin); c != '"'; c = in_.next(unended, begin)) {
        if (c == '\\') {
          c = in_.next(unended, begin);
          if (c == 'x') {
            const char digits[] = {in_.next(unended, begin), in_.next(unended, begin)};
            unsigned char byte = 0;
            const auto [end, error] = std::from_chars(digits, digits + 2, byte, 16);
            if (error != std::errc() || end != digits + 2) {
              in_.failAt(begin, "\\x takes two hexadecimal digits");
            }
            c = static_cast<char>(byte);
          } else if (c != '"' && c != '\\') {
            in_.failAt(begin, "names have the escapes \\\", \\\\ and \\x only");
          }
        } else if (static_cast<unsigned char>(c) < 0x20) {
          in_.failAt(begin, "a control byte is written as \\x and two digits");
        }
        name += c;
      }
    } else {
      name = in_.word();
      if (name.empty()) in_.failAt(begin, "expected a column's name or '}'");
      if (isDigit(name.front())) {
        in_.failAt(begin, "a name that begins with a digit stands in quotes");
      }
    }
    if (name.size() > Korvo::maxColumnName) in_.failAt(begin, "the name exceeds 255 bytes");
    return name;
  }

  static bool isCatalogueType(std::string_view word) {
    const auto* const end = std::end(Korvo::detail::layoutTypeNames);
    return word == "oid_t" || word == "len_t" ||
           std::find(std::begin(Korvo::detail::layoutTypeNames), end, word) != end;
  }

  void parseType(DefinedColumn& column, ColumnInfo& info, unsigned int depth) {
    in_.peek();
    const std::size_t begin = in_.position();
    const std::string_view word = in_.word();
    if (word.empty()) in_.failAt(begin, "expected the column's type");
    if (word == "row") {
      column.row = parseRow(depth + 1, nullptr);
      in_.resumeNoted(column.note);
      return nestedType(column, info);
    }
    if (isCatalogueType(word)) {
      column.typeName = word;
      info.type = Korvo::korvoCppTypeNameToType(column.typeName);
      return;
    }
    for (std::size_t i = 0; i < definition_.rows.size(); ++i) {
      if (definition_.rows[i].name != word) continue;
      column.row = i;
      return nestedType(column, info);
    }
    in_.failAt(begin, "unknown type - (" + std::string(word.substr(0, 40)) + ")");
  }

  void nestedType(const DefinedColumn& column, ColumnInfo& info) {
    info.type = Korvo::structType_;
    info.nested = &definition_.rows[column.row].info;
  }

  /// All that is left to check, and what follows from all columns.
  void finish(DefinedRow& row, const std::vector<std::size_t>& positions,
              std::size_t basePosition) {
    std::size_t end = Korvo::rowHeaderLength;
    for (std::size_t i = 0; i < row.infos.size(); ++i) {
      const ColumnInfo& column = row.infos[i];
      end = std::max<std::size_t>(end, column.offset + column.width);
      for (std::size_t j = 0; j < i; ++j) {
        const ColumnInfo& other = row.infos[j];
        if (column.offset < other.offset + other.width &&
            other.offset < column.offset + column.width) {
          in_.failAt(positions[i], "columns \"" + std::string(other.name) + "\" and \"" +
                                       std::string(column.name) + "\" overlap");
        }
      }
    }
    row.end = static_cast<len_t>(end);
    countColumns(row);
    if (basePosition == 0) {
      row.info.baseLength = row.end;
    } else if (row.info.baseLength < end) {
      in_.failAt(basePosition,
                 "the base length is less than " + std::to_string(end) + ", where the columns end");
    }
    row.info.columns = row.infos;
    try {
      const Korvo::DynamicLayout layout(row.info);
    } catch (const Korvo::KoTextError& e) {  // a name that is not UTF-8
      std::string what = e.what();
      in_.failAt(positions.empty() ? in_.position() : positions.front(),
                 what.substr(what.find(": ") + 2));
    } catch (const Korvo::KoOutOfRange& e) {
      in_.failAt(in_.position(), e.what());
    }
  }

  /// Rows that many rows hold count in each: so much there is to look at.
  void countColumns(const DefinedRow& row) {
    constexpr std::size_t mostColumns = std::size_t{1} << 18;
    std::size_t count = row.columns.size();
    for (std::size_t i = 0; i < row.columns.size(); ++i) {
      if (row.infos[i].nested != nullptr) count += columnsOfRows_[row.columns[i].row];
    }
    columnsOfRows_.push_back(count);
    allColumns_ += count;
    if (allColumns_ > mostColumns) in_.failAt(in_.position(), "too many columns in all rows");
  }

  std::uint16_t number(const char* what) {
    in_.peek();
    const std::size_t begin = in_.position();
    const std::string_view digits = in_.word();
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc() || end != digits.data() + digits.size()) {
      in_.failAt(begin, std::string("expected ") + what + " from 0 to 65535");
    }
    return number;
  }

  Reader in_;
  Definition& definition_;
  std::size_t columns_ = 0;                 // that are written
  std::vector<std::size_t> columnsOfRows_;  // of each of the rows, with those of nested ones
  std::size_t allColumns_ = 0;
};

}  // namespace

Definition::Definition(std::string_view text) {
  Parser(text, *this).parse();
}

}  // namespace korvotool
