#include <Korvo/layoutText.h>

#include "jsonText.h"
#include "textReader.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace Korvo {
namespace {

std::string hexText(const LayoutFingerprint& fingerprint, std::size_t count) {
  std::string text(2 * count, '\0');
  char* end = text.data();
  for (std::size_t i = 0; i < count; ++i) end = detail::writeHex(end, fingerprint.bytes[i]);
  return text;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = detail::utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

std::string detail::shown(std::string_view text) {
  constexpr std::size_t longest = 40;
  std::string piece;
  for (const char c : text.substr(0, longest)) piece += c >= 0x20 && c < 0x7F ? c : '?';
  return text.size() > longest ? piece + "..." : piece;
}

KoTextError::KoTextError(const std::string& message, std::size_t line, std::size_t column)
    : KoInvalidArgument("line " + std::to_string(line) + ", column " + std::to_string(column) +
                        ": " + message),
      line_(line),
      column_(column) {}

std::string LayoutFingerprint::text() const {
  return hexText(*this, 4);
}
std::string LayoutFingerprint::digest() const {
  return hexText(*this, bytes.size());
}

std::string layoutText(const LayoutInfo& layout) {
  struct {
    std::string text;
    void put(char c) { text += c; }
  } sink;
  detail::LayoutWriter(sink).write(layout);
  return std::move(sink.text);
}

std::string columnTypeText(const ColumnInfo& column) {
  return std::string(detail::layoutTypeNames[column.type]) + (column.isArray ? "[]" : "");
}

LayoutFingerprint fingerprint(const LayoutInfo& layout) {
  detail::Sha1 sha1;
  detail::LayoutWriter(sha1).write(layout);
  return {sha1.digest()};
}

// ---------------------------------------------------------------------------------------------

struct detail::LayoutData {
  LayoutInfo info{};
  std::vector<ColumnInfo> columns;
  std::deque<std::string> names;  // stay where they are
  std::vector<std::unique_ptr<LayoutData>> nested;
  BaseRow::vcdType slots;
};

namespace {

using detail::LayoutData;

class Parser {
 public:
  explicit Parser(std::string_view text) : in_(text) {
    if (text.size() > maxLayoutText) in_.fail("the text exceeds 1 MiB");
  }

  void parse(LayoutData& layout) {
    expectWord("row");
    parseRow(layout, 0);
    in_.expectEnd();
  }

 private:
  struct Place {
    ColumnInfo column;
    std::size_t position;  // of the name in the text
  };

  /// What follows "row".
  void parseRow(LayoutData& layout, unsigned int depth) {
    if (depth > maxRowNesting) in_.fail("rows are nested too deep");
    layout.info.rowType = number("a row type");
    expectWord("base");
    in_.skipSpace();
    const std::size_t basePosition = in_.position();
    layout.info.baseLength = number("a base length");
    if (layout.info.baseLength < rowHeaderLength) {
      in_.failAt(basePosition, "the base length is less than the header's 8 bytes");
    }
    in_.expect('{', "'{'");
    std::vector<Place> places;
    std::set<std::string_view> names;
    while (!in_.take('}')) {
      places.push_back(parseColumn(layout, depth));
      const Place& place = places.back();
      if (!names.insert(place.column.name).second) {
        in_.failAt(place.position, "two columns have the name " + quoted(place.column));
      }
    }
    takeColumns(layout, places);
  }

  Place parseColumn(LayoutData& layout, unsigned int depth) {
    in_.skipSpace();
    Place place{{}, in_.position()};
    if (++columns_ > maxLayoutColumns) in_.fail("too many columns");
    ColumnInfo& column = place.column;
    layout.names.push_back(parseName());
    column.name = layout.names.back();
    parseType(layout, column, depth);
    in_.skipSpace();
    const std::size_t mark = in_.position();
    if (in_.take('[')) {
      in_.expect(']', "']'");
      if (!hasArrays(column.type)) in_.failAt(mark, "there are no arrays of " + typeName(column));
      column.isArray = true;
    }
    column.width = column.isArray ? len_t{sizeof(VColType)}
                                  : getKorvoTypeLength(static_cast<unsigned short>(column.type));
    in_.expect('@', "'@' and the column's offset");
    column.offset = number("the column's offset");
    return place;
  }

  std::string parseName() {
    const std::size_t begin = in_.position();
    std::string name;
    if (in_.take('"')) {
      name = restOfQuotedName(begin);
    } else {
      name = in_.word();
      if (name.empty()) in_.fail("expected a column's name or '}'");
      if (name.front() >= '0' && name.front() <= '9') {
        in_.failAt(begin, "a name that begins with a digit stands in quotes");
      }
    }
    if (name.size() > maxColumnName) in_.failAt(begin, "the name exceeds 255 bytes");
    if (!isUtf8(name)) in_.failAt(begin, "the name is not UTF-8");
    return name;
  }

  std::string restOfQuotedName(std::size_t begin) {
    std::string name;
    while (true) {
      if (in_.atEnd()) in_.failAt(begin, "the name's quote does not end");
      const std::size_t position = in_.position();
      char c = in_.next();
      if (c == '"') return name;
      if (c == '\\') {
        c = in_.next();
        if (c == 'x') {
          const int high = hexDigit(in_.next());
          const int low = hexDigit(in_.next());
          if (high < 0 || low < 0) in_.failAt(position, "\\x takes two hexadecimal digits");
          c = static_cast<char>(high * 16 + low);
        } else if (c != '"' && c != '\\') {
          in_.failAt(position, "names have the escapes \\\", \\\\ and \\x only");
        }
      } else if (static_cast<byte_t>(c) < 0x20) {
        in_.failAt(position, "a control byte is written as \\x and two digits");
      }
      name += c;
    }
  }

  static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
  }

  void parseType(LayoutData& layout, ColumnInfo& column, unsigned int depth) {
    in_.skipSpace();
    const std::size_t begin = in_.position();
    const std::string_view word = in_.word();
    if (word.empty()) in_.fail("expected the column's type");
    if (word == "row") {
      column.type = structType_;
      layout.nested.push_back(std::make_unique<LayoutData>());
      LayoutData& nested = *layout.nested.back();
      parseRow(nested, depth + 1);
      column.nested = &nested.info;
      return;
    }
    // Columns of these two are the plain numbers that C++ has for them.
    if (word == "oid_t") {
      column.type = uint32Type_;
    } else if (word == "len_t") {
      column.type = uint16Type_;
    } else {
      const auto* const found =
          std::find(std::begin(detail::layoutTypeNames), std::end(detail::layoutTypeNames), word);
      if (found == std::end(detail::layoutTypeNames)) {
        in_.failAt(begin, "unknown type - (" + detail::shown(word) + ")");
      }
      column.type = static_cast<KorvoTypes>(found - std::begin(detail::layoutTypeNames));
    }
  }

  static bool hasArrays(KorvoTypes type) {
    return type == boolType_ || korvoTypeIsVariableLength(type);
  }

  /// Puts the columns into the order of their offsets, in which they have to be apart.
  void takeColumns(LayoutData& layout, std::vector<Place>& places) {
    std::stable_sort(places.begin(), places.end(), [](const Place& a, const Place& b) {
      return a.column.offset < b.column.offset;
    });
    std::size_t end = rowHeaderLength;
    for (const Place& place : places) {
      const ColumnInfo& column = place.column;
      if (column.offset < rowHeaderLength) {
        in_.failAt(place.position, "column " + quoted(column) + " lies in the header");
      }
      if (column.offset < end) {
        in_.failAt(place.position, "columns " + quoted(layout.columns.back()) + " and " +
                                       quoted(column) + " overlap");
      }
      end = std::size_t{column.offset} + column.width;
      if (end > layout.info.baseLength) {
        in_.failAt(place.position, "column " + quoted(column) + " ends behind the base length " +
                                       std::to_string(layout.info.baseLength));
      }
      layout.columns.push_back(column);
      if (column.hasSlot()) layout.slots.push_back(column.offset);
    }
    layout.info.columns = layout.columns;
  }

  static std::string quoted(const ColumnInfo& column) {
    return '"' + detail::shown(column.name) + '"';
  }
  static std::string typeName(const ColumnInfo& column) {
    return std::string(detail::layoutTypeNames[column.type]);
  }

  void expectWord(std::string_view expected) {
    in_.skipSpace();
    const std::size_t begin = in_.position();
    if (in_.word() != expected) in_.failAt(begin, "expected \"" + std::string(expected) + '"');
  }

  std::uint16_t number(const char* what) {
    in_.skipSpace();
    const std::size_t begin = in_.position();
    const auto number = detail::numberOf<std::uint16_t>(in_.word());
    if (!number) in_.failAt(begin, std::string("expected ") + what + " from 0 to 65535");
    return *number;
  }

  detail::TextReader in_;
  std::size_t columns_ = 0;
};

}  // namespace

DynamicLayout::DynamicLayout(std::string_view text) : data_(std::make_shared<LayoutData>()) {
  Parser(text).parse(*data_);
}

DynamicLayout::DynamicLayout(const LayoutInfo& layout) : DynamicLayout(layoutText(layout)) {}

const LayoutInfo& DynamicLayout::info() const noexcept {
  return data_->info;
}

BaseRow::vcdType& DynamicLayout::slots() const noexcept {
  return data_->slots;
}

const ColumnInfo* DynamicLayout::find(std::string_view name) const noexcept {
  for (const ColumnInfo& column : data_->columns) {
    if (column.name == name) return &column;
  }
  return nullptr;
}

}  // namespace Korvo
