// korvo generate: a C++ header of declared layouts, as a person would write it.

#include "commands.h"
#include "failure.h"
#include "layouts.h"

#include <algorithm>
#include <set>

namespace korvotool {
namespace {

constexpr std::size_t columnLimit = 100;

const char* cppType(Korvo::KorvoTypes type) {
  constexpr const char* types[] = {"std::uint8_t",
                                   "std::uint16_t",
                                   "std::uint32_t",
                                   "std::uint64_t",
                                   "std::int8_t",
                                   "std::int16_t",
                                   "std::int32_t",
                                   "std::int64_t",
                                   "float",
                                   "double",
                                   "bool",
                                   "std::string",
                                   "",
                                   "Korvo::oid_t",
                                   "Korvo::len_t",
                                   "Korvo::IpAddr",
                                   "Korvo::Ip6Addr",
                                   "Korvo::IpGenAddr",
                                   "Korvo::IpGenPrefix"};
  return types[type];
}

std::string literal(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\' || c == '?') {  // no trigraphs
      result += '\\';
      result += c;
    } else if (byte < 0x20 || byte == 0x7F) {
      result += '\\';  // in octal: at most three digits belong to it
      result += static_cast<char>('0' + (byte >> 6));
      result += static_cast<char>('0' + (byte >> 3 & 7));
      result += static_cast<char>('0' + (byte & 7));
    } else {
      result += c;
    }
  }
  return result + '"';
}

/// The note's lines behind `mark`, parted at blanks where they are too long.
std::string comment(std::string_view note, const std::string& mark) {
  std::string text;
  while (true) {
    const std::size_t lineEnd = std::min(note.find('\n'), note.size());
    std::string_view line = note.substr(0, lineEnd);
    while (mark.size() + 1 + line.size() > columnLimit) {
      std::size_t end = line.rfind(' ', columnLimit - mark.size() - 1);
      if (end == line.npos || end == 0) end = line.find(' ');
      if (end == line.npos) break;
      text += mark + ' ' + std::string(line.substr(0, end)) + '\n';
      line.remove_prefix(end + 1);
    }
    // A backslash at the end would take the next line for comment too.
    const bool continues = !line.empty() && line.back() == '\\';
    text += mark + (line.empty() ? "" : " ") + std::string(line) + (continues ? "." : "") + '\n';
    if (lineEnd == note.size()) return text;
    note.remove_prefix(lineEnd + 1);
  }
}

class Generator {
 public:
  Generator(const std::string& path, const Definition& definition, std::string space)
      : path_(path), definition_(definition), space_(std::move(space)) {
    nameRows();
  }

  std::string header() const {
    std::string text = "#pragma once\n\n";
    const std::string file = path_.substr(path_.rfind('/') + 1);
    text += "// Made from " + (path_ == "-" ? "a definition" : file) +
            " by korvo generate: change that, not this.\n\n#include <Korvo/TableRow.h>\n\n";
    for (const char* const include : {"cstdint", "string", "vector"}) {
      if (needs(include)) text += std::string("#include <") + include + ">\n";
    }
    if (text.ends_with(">\n") && !text.ends_with("TableRow.h>\n")) text += '\n';
    if (!space_.empty()) text += "namespace " + space_ + " {\n\n";
    for (std::size_t i = 0; i < definition_.rows.size(); ++i) {
      text += row(definition_.rows[i], names_[i]) + '\n';
    }
    if (!space_.empty()) {
      text += "}  // namespace " + space_ + '\n';
    } else {
      text.pop_back();
    }
    return text;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw Failure(statusBadData, path_ + ": " + what);
  }

  static std::string capitalised(std::string_view name) {
    std::string result;
    for (const char c : name) {
      const bool isWordCharacter =
          (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
      if (isWordCharacter) result += c;
    }
    if (!result.empty() && result.front() >= 'a' && result.front() <= 'z') {
      result.front() = static_cast<char>(result.front() - 'a' + 'A');
    }
    return result;
  }

  /// A row that stands where a column's type does has the names of the row and the column.
  void nameRows() {
    names_.resize(definition_.rows.size());
    for (std::size_t i = definition_.rows.size(); i-- > 0;) {
      const DefinedRow& row = definition_.rows[i];
      if (!row.name.empty()) names_[i] = row.name;
      if (names_[i].empty())
        fail("a row without a name: write \"row NAME " + std::to_string(row.info.rowType) + "\"");
      if (row.info.baseLength != row.end) {
        fail("row " + names_[i] + ": base " + std::to_string(row.info.baseLength) +
             " lies behind its last column, which declared layouts end with (" +
             std::to_string(row.end) + ')');
      }
      for (const Korvo::ColumnInfo& column : row.infos) {
        if (column.nested == nullptr || !column.isArray) continue;
        fail("column " + std::string(column.name) + " of row " + names_[i] +
             ": declared layouts have no arrays of rows");
      }
      for (const DefinedColumn& column : row.columns) {
        const bool isInside = column.typeName.empty() && definition_.rows[column.row].isInside;
        if (isInside) names_[column.row] = names_[i] + capitalised(column.name);
      }
    }
    std::set<std::string> known;
    for (const std::string& name : names_) {
      for (const std::string& one : {name, name + "Layout"}) {
        if (!known.insert(one).second) fail("two types would have the name " + one);
      }
    }
  }

  bool needs(std::string_view include) const {
    for (const DefinedRow& row : definition_.rows) {
      for (const Korvo::ColumnInfo& column : row.infos) {
        const std::string_view type = cppType(column.type);
        if (include == "cstdint" && type.find("int") != type.npos) return true;
        if (include == "string" && type == "std::string") return true;
        if (include == "vector" && column.isArray) return true;
      }
    }
    return false;
  }

  std::string columnType(const DefinedColumn& column, const Korvo::ColumnInfo& info) const {
    std::string type = info.nested == nullptr ? cppType(info.type)
                                              : "Korvo::Nested<" + names_[column.row] + "Layout>";
    return info.isArray ? "std::vector<" + type + '>' : type;
  }

  std::string row(const DefinedRow& row, const std::string& name) const {
    std::string text = comment(
        row.note.empty() ? "Rows of type " + std::to_string(row.info.rowType) + '.' : row.note,
        "///");
    const std::string begin = "struct " + name + "Layout";
    const std::string layout = "Korvo::RowLayout<" + std::to_string(row.info.rowType);
    if (row.infos.empty()) {
      text += begin + " : " + layout + "> {};\n";
    } else {
      text += columns(row, begin, layout);
    }
    return text + "using " + name + " = Korvo::TableRow<" + name + "Layout>;\n";
  }

  /// The layout with its columns, one on each line below its offset and its note, as the formatter
  /// leaves it. Where a name is too long for that, it is told to leave it.
  std::string columns(const DefinedRow& row, const std::string& begin,
                      const std::string& layout) const {
    std::string first = begin + " : ";
    std::string text;
    const auto body = [&](std::size_t indent) {
      const std::string space(indent + std::string_view("Korvo::RowLayout<").size(), ' ');
      std::string lines = layout + ",\n";
      for (std::size_t i = 0; i < row.infos.size(); ++i) {
        const Korvo::ColumnInfo& info = row.infos[i];
        std::string note = "At byte " + std::to_string(info.offset);
        if (!row.columns[i].note.empty()) note += ": " + row.columns[i].note;
        lines += comment(note, space + "//");
        lines +=
            space + "Korvo::Column<" + literal(info.name) + ", " + columnType(row.columns[i], info);
        if (row.columns[i].hasOwnOffset) lines += ", " + std::to_string(info.offset);
        lines += i + 1 == row.infos.size() ? ">> {};\n" : ">,\n";
      }
      return lines;
    };
    text = first + body(first.size());
    if (fits(text)) return text;
    return "// clang-format off\n" + begin + "\n    : " + body(6) + "// clang-format on\n";
  }

  static bool fits(std::string_view text) {
    while (!text.empty()) {
      const std::size_t end = text.find('\n');
      if (end > columnLimit) return false;
      text.remove_prefix(end + 1);
    }
    return true;
  }

  std::string path_;
  const Definition& definition_;
  std::string space_;
  std::vector<std::string> names_;  // of the rows
};

}  // namespace

int generateHeader(const GenerateOptions& options) {
  const Definition definition = readDefinition(options.definition);
  const std::string& space = options.space.empty() ? definition.space : options.space;
  const std::string text = Generator(options.definition, definition, space).header();
  if (options.output.empty()) {
    Output out;
    out << text;
    out.finish();
  } else {
    Output out(options.output);
    out << text;
    out.finish();
  }
  return statusGood;
}

}  // namespace korvotool
