// korvo annotate: what each byte of a row is, also of one that does not pass the check.

#include "failure.h"
#include "prefixText.h"
#include "reading.h"

#include <Korvo/AnyRow.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <span>

namespace korvotool {
namespace {

using Korvo::byte_t;
using Korvo::ColumnInfo;
using Korvo::len_t;
using Korvo::loadField;
using Korvo::VColType;

constexpr std::size_t none = static_cast<std::size_t>(-1);

/// Bytes of a row that have one meaning. What is part of a value lies in the region of the whole.
struct Region {
  enum class Kind : std::uint8_t { header, column, slot, value, whole };
  Kind kind;
  std::size_t begin;
  std::size_t end;
  std::size_t whole;  ///< the region that it is part of, or none
  std::string name;   ///< of the column: "link.peers[2]"
  std::string text;
};

/// A stretch of bytes as it is shown.
struct Segment {
  std::size_t begin;
  std::size_t end;
  std::string kind;
  std::string text;
};

std::string quotedShort(std::string_view text) {
  constexpr std::size_t longest = 60;
  Json json = Json::array();
  json.append(text.substr(0, longest));
  const std::string all = json.text();
  return printable(all.substr(1, all.size() - 2)) + (text.size() > longest ? "..." : "");
}

/// Finds the regions of a row, of which `length` bytes are there. It believes nothing that the row
/// says before it has looked whether the bytes are there.
class Annotator {
 public:
  Annotator(const byte_t* row, std::size_t length) : row_(row), length_(length) {}

  void annotate(const Korvo::LayoutInfo* layout) { annotateRow(layout, 0, length_, {}, none, 0); }

  std::vector<Segment> segments() const {
    std::vector<std::size_t> borders = {0, length_};
    for (const Region& region : regions_) {
      borders.push_back(region.begin);
      borders.push_back(region.end);
    }
    std::sort(borders.begin(), borders.end());
    borders.erase(std::unique(borders.begin(), borders.end()), borders.end());
    std::vector<std::size_t> byBegin(regions_.size());
    for (std::size_t i = 0; i < byBegin.size(); ++i) byBegin[i] = i;
    std::stable_sort(byBegin.begin(), byBegin.end(), [this](std::size_t a, std::size_t b) {
      return regions_[a].begin < regions_[b].begin;
    });
    std::vector<Segment> all;
    std::vector<std::size_t> covering;
    auto next = byBegin.begin();
    for (std::size_t i = 0; i + 1 < borders.size(); ++i) {
      std::erase_if(covering, [&](std::size_t r) { return regions_[r].end <= borders[i]; });
      for (; next != byBegin.end() && regions_[*next].begin == borders[i]; ++next) {
        if (regions_[*next].end != borders[i]) covering.push_back(*next);
      }
      // Of a great many on one place, some will do.
      const std::span<const std::size_t> some(covering.data(),
                                              std::min(covering.size(), mostOnOnePlace));
      Segment segment = segmentOf(some, borders[i], borders[i + 1]);
      if (!all.empty() && all.back().kind == segment.kind && all.back().text == segment.text) {
        all.back().end = segment.end;
      } else {
        all.push_back(std::move(segment));
      }
    }
    return all;
  }

 private:
  static constexpr std::size_t mostRegions = Korvo::maxRowLength;
  static constexpr std::size_t mostOnOnePlace = 64;

  Segment segmentOf(std::span<const std::size_t> covering, std::size_t begin,
                    std::size_t end) const {
    if (covering.empty()) {
      const bool inFixedArea = begin < fixedEnd_;
      if (noLayout_) return {begin, end, "unknown", "no layout tells what this is"};
      return {begin, end, inFixedArea ? "unused" : "gap",
              inFixedArea ? "no column's, in the fixed area" : "gap"};
    }
    std::set<std::size_t> wholes;
    for (const std::size_t region : covering) {
      for (std::size_t at = regions_[region].whole; at != none; at = regions_[at].whole) {
        wholes.insert(at);
      }
    }
    std::vector<std::size_t> innermost;
    for (const std::size_t region : covering) {
      if (!wholes.contains(region)) innermost.push_back(region);
    }
    const Region& first = regions_[innermost.front()];
    if (innermost.size() > 1) {
      std::string text = "overlap of " + first.name;
      for (std::size_t i = 1; i < innermost.size(); ++i) {
        text += (i + 1 == innermost.size() ? " and " : ", ") + regions_[innermost[i]].name;
      }
      return {begin, end, "overlap", text};
    }
    switch (first.kind) {
      case Region::Kind::header:
        return {begin, end, "header", first.text};
      case Region::Kind::column:
        return {begin, end, "column", first.text};
      case Region::Kind::slot:
        return {begin, end, "slot", first.text};
      case Region::Kind::value:
        return {begin, end, "value", first.text};
      default:
        return {begin, end, "gap", "gap in " + first.name};
    }
  }

  /// Adds a region, as far as it is there; gives its place.
  std::size_t add(Region::Kind kind, std::size_t begin, std::size_t end, std::size_t whole,
                  const std::string& name, const std::string& text) {
    const std::size_t limit = whole == none ? length_ : regions_[whole].end;
    regions_.push_back(
        {kind, std::min(begin, limit), std::min(end, limit), whole, printable(name), text});
    return regions_.size() - 1;
  }

  void annotateRow(const Korvo::LayoutInfo* layout, std::size_t begin, std::size_t length,
                   const std::string& path, std::size_t whole, unsigned int depth) {
    const byte_t* const row = row_ + begin;
    const std::string of = path.empty() ? "" : " of " + printable(path);
    const auto header = [&](std::size_t offset, std::size_t width, const std::string& name,
                            const std::string& value) {
      const bool isThere = offset + width <= length;
      add(Region::Kind::header, begin + offset, begin + offset + width, whole, name + of,
          name + of + (isThere ? ": " + value : ", cut off"));
    };
    const auto field = [&]<typename T>(std::size_t offset, T) {
      return offset + sizeof(T) <= length ? loadField<T>(row + offset) : T{};
    };
    const std::size_t said = field(Korvo::rowLengthOffset, len_t{});
    std::string saidText = std::to_string(said);
    if (said > length) saidText += ", of which " + std::to_string(length) + " are there";
    if (said < length) saidText += ", of " + std::to_string(length);
    header(Korvo::rowLengthOffset, sizeof(len_t), "row length", saidText);
    header(Korvo::rowTypeOffset, sizeof(std::uint16_t), "row type",
           std::to_string(field(Korvo::rowTypeOffset, std::uint16_t{})));
    header(Korvo::rowOidOffset, sizeof(Korvo::oid_t), "oid",
           std::to_string(field(Korvo::rowOidOffset, Korvo::oid_t{})));
    if (layout == nullptr) {
      noLayout_ = true;
      return;
    }
    if (whole == none) fixedEnd_ = layout->baseLength;
    for (const ColumnInfo& column : layout->columns) {
      const std::string name =
          path.empty() ? std::string(column.name) : path + '.' + std::string(column.name);
      if (column.hasSlot()) {
        annotateSlot(*layout, column, begin, length, name, whole, depth);
      } else {
        annotateFixed(column, begin, length, name, whole);
      }
    }
  }

  void annotateFixed(const ColumnInfo& column, std::size_t begin, std::size_t length,
                     const std::string& name, std::size_t whole) {
    std::string text = printable(name) + ' ' + columnTypeText(column);
    if (column.offset + column.width <= length) {
      // A layout of this column alone, without a name: {"":value}.
      ColumnInfo alone = column;
      alone.name = {};
      const Korvo::SubRowReference row(row_ + begin);
      const std::string json = Korvo::detail::rowAsJson(row, {0, 0, {&alone, 1}});
      text += " = " + json.substr(4, json.size() - 5);
    } else {
      text += ", cut off";
    }
    add(Region::Kind::column, begin + column.offset, begin + column.offset + column.width, whole,
        name, text);
  }

  void annotateSlot(const Korvo::LayoutInfo& layout, const ColumnInfo& column, std::size_t begin,
                    std::size_t length, const std::string& name, std::size_t whole,
                    unsigned int depth) {
    const std::size_t slotAt = begin + column.offset;
    std::string text = "slot of " + printable(name) + ' ' + columnTypeText(column);
    if (column.offset + sizeof(VColType) > length) {
      add(Region::Kind::slot, slotAt, slotAt + sizeof(VColType), whole, "slot of " + name,
          text + ", cut off");
      return;
    }
    const VColType& slot = VColType::at(row_ + begin, column.offset);
    const std::size_t offset = slot.offset();
    const std::size_t valueLength = slot.length();
    text += placeText(valueLength, offset);
    if (valueLength != 0) {
      if (slot.isArray() && !column.isArray) text += ", marked as an array";
      if (!slot.isArray() && column.isArray) text += ", not marked as an array";
      if (offset < layout.baseLength) text += ", in the header or the fixed area";
      if (offset + valueLength > length) text += ", beyond the row's end";
    }
    add(Region::Kind::slot, slotAt, slotAt + sizeof(VColType), whole, "slot of " + name, text);
    if (valueLength == 0 || offset >= length) return;
    const std::size_t there = std::min(valueLength, length - offset);
    if (slot.isArray()) {
      annotateArray(column, begin + offset, there, name, whole, depth);
    } else {
      annotateValue(column, begin + offset, there, there == valueLength, name, whole, depth);
    }
  }

  static std::string placeText(std::size_t length, std::size_t offset) {
    if (length == 0) return ": null";
    return ": " + counted(length, "byte") + " at " + std::to_string(offset);
  }

  void annotateValue(const ColumnInfo& column, std::size_t begin, std::size_t length, bool isAll,
                     const std::string& name, std::size_t whole, unsigned int depth) {
    if (column.type == Korvo::structType_ && regions_.size() < mostRegions) {
      const std::size_t row = add(Region::Kind::whole, begin, begin + length, whole, name, {});
      if (depth < Korvo::maxRowNesting) {
        annotateRow(column.nested, begin, length, name, row, depth + 1);
      }
      return;
    }
    std::string text = printable(name) + valueText(column.type, row_ + begin, length);
    if (!isAll) text += ", cut off";
    add(Region::Kind::value, begin, begin + length, whole, name, text);
  }

  static std::string valueText(Korvo::KorvoTypes type, const byte_t* value, std::size_t length) {
    const auto familyOf = [](std::size_t bytes) {
      if (bytes == Korvo::ipv4Length) return Korvo::ipv4_;
      return bytes == Korvo::ipv6Length ? Korvo::ipv6_ : Korvo::unknown_;
    };
    if (type == Korvo::ipGenAddrType_) {
      const Korvo::AddressFamily af = familyOf(length);
      if (af == Korvo::unknown_) return ": no address has this length";
      return " = " + inserted(Korvo::IpGenAddr(af, value));
    }
    if (type == Korvo::ipGenPrefixType_) {
      const Korvo::AddressFamily af = familyOf(length - 1);
      if (af == Korvo::unknown_) return ": no prefix has this length";
      const unsigned int mask = value[0];
      return " = " + inserted(Korvo::IpGenAddr(af, value + 1)) + '/' + std::to_string(mask) +
             (mask > 8 * (length - 1) ? ", beyond the family's bits" : "");
    }
    return " = " + quotedShort({reinterpret_cast<const char*>(value), length});
  }

  void annotateArray(const ColumnInfo& column, std::size_t begin, std::size_t length,
                     const std::string& name, std::size_t whole, unsigned int depth) {
    const std::size_t array = add(Region::Kind::whole, begin, begin + length, whole, name, {});
    if (length < Korvo::arrayHeaderLength) return;
    const unsigned int header = loadField<std::uint16_t>(row_ + begin);
    const std::size_t count = header & Korvo::arrayCountMask;
    const bool variable = (header >> 8 & Korvo::arrayVariableMark) != 0;
    add(Region::Kind::value, begin, begin + Korvo::arrayHeaderLength, array, name,
        printable(name) + ": array of " + counted(count, "element"));
    std::size_t at = begin + Korvo::arrayHeaderLength;
    if (!variable) {
      const std::size_t left = begin + length - at;
      add(Region::Kind::value, at, at + left, array, name,
          printable(name) + ": elements of fixed width");
      return;
    }
    for (std::size_t i = 0; i < count && regions_.size() < mostRegions;
         ++i, at += sizeof(VColType)) {
      const std::string element = name + '[' + std::to_string(i) + ']';
      if (at + sizeof(VColType) > begin + length) return;
      const VColType& slot = VColType::at(row_, at);
      const std::size_t offset = slot.offset();
      const bool isOutside = offset + slot.length() > length;
      add(Region::Kind::slot, at, at + sizeof(VColType), array, "slot of " + element,
          "slot of " + printable(element) + placeText(slot.length(), offset) +
              (slot.length() != 0 ? " of the array" : "") +
              (isOutside ? ", beyond the array's end" : ""));
      if (slot.length() == 0 || offset >= length) continue;
      const std::size_t there = std::min<std::size_t>(slot.length(), length - offset);
      annotateValue(column, begin + offset, there, !isOutside, element, array, depth);
    }
  }

  const byte_t* row_;
  std::size_t length_;
  std::size_t fixedEnd_ = Korvo::rowHeaderLength;
  bool noLayout_ = false;
  std::vector<Region> regions_;
};

/// Rows of a file, from wherever they come, annotated.
class Command {
 public:
  explicit Command(const AnnotateOptions& options)
      : options_(options), style_(options.colour, out_.isTerminal()) {
    if (!options.layout.empty()) layouts_ = Layouts(options.layout, options.row);
  }

  int run() {
    if (options_.at) {
      annotateAt(options_.files.front(), *options_.at);
    } else {
      for (const std::string& path : options_.files) annotateFile(path);
    }
    out_.finish();
    if (options_.oid && count_ == 0) {
      complain("no row has the oid " + std::to_string(*options_.oid));
      return statusFound;
    }
    return allGood_ ? statusGood : statusFound;
  }

 private:
  void annotateFile(const std::string& path) {
    RowFile file(path, layouts_, rules());
    Piece piece;
    while (file.next(piece)) {
      if (options_.limit != 0 && count_ == options_.limit) return;
      if (piece.kind == Piece::Kind::skipped) {
        allGood_ = false;
        complain(file.path() + ": " + piece.text());
        continue;
      }
      if (options_.oid && piece.oid() != *options_.oid) continue;
      if (piece.kind == Piece::Kind::faulty) allGood_ = false;
      print(piece.bytes, piece.size(), piece.offset,
            piece.kind == Piece::Kind::faulty ? piece.reason : std::string());
    }
  }

  /// The bytes there are taken for a row, whatever stands before.
  void annotateAt(const std::string& path, std::uint64_t offset) {
    const auto source = openBytes(path, rules().compression);
    std::vector<byte_t> bytes(Korvo::maxRowLength);
    std::size_t length = 0;
    std::uint64_t left = offset;
    while (true) {
      const std::size_t wanted = static_cast<std::size_t>(
          left != 0 ? std::min<std::uint64_t>(left, bytes.size()) : bytes.size() - length);
      const std::size_t count = source->read(bytes.data() + (left != 0 ? 0 : length), wanted);
      if (count == 0) break;
      if (left != 0) {
        left -= count;
      } else {
        length += count;
      }
    }
    if (length == 0) {
      throw Failure(statusBadData, path + ": no byte " + std::to_string(offset));
    }
    const std::size_t said = length < sizeof(len_t) ? length : loadField<len_t>(bytes.data());
    std::string reason;
    length = std::min<std::size_t>(length, std::max<std::size_t>(said, Korvo::rowHeaderLength));
    const NamedLayout* const named = layoutOf(bytes.data(), length);
    if (named != nullptr) {
      if (const auto fault = Korvo::checkRow(bytes.data(), length, named->layout.info())) {
        reason = fault.text();
        allGood_ = false;
      }
    }
    print(bytes.data(), length, offset, reason);
  }

  ReadRules rules() const {
    ReadRules rules;
    if (options_.plain) rules.compression = Compression::none;
    return rules;
  }

  const NamedLayout* layoutOf(const byte_t* row, std::size_t length) const {
    if (length < Korvo::rowHeaderLength) return nullptr;
    return layouts_.find(loadField<std::uint16_t>(row + Korvo::rowTypeOffset));
  }

  void print(const byte_t* row, std::size_t length, std::uint64_t offset,
             const std::string& reason) {
    const NamedLayout* const named = layoutOf(row, length);
    Annotator annotator(row, length);
    annotator.annotate(named != nullptr ? &named->layout.info() : nullptr);
    const std::vector<Segment> segments = annotator.segments();
    if (options_.json) {
      printJson(segments, length, offset, reason);
    } else {
      printText(segments, row, length, offset, named, reason);
    }
    ++count_;
  }

  void printJson(const std::vector<Segment>& segments, std::size_t length, std::uint64_t offset,
                 const std::string& reason) {
    Json json = Json::object();
    json.add("offset", offset).add("length", length);
    if (!reason.empty()) json.add("fault", reason);
    Json parts = Json::array();
    for (const Segment& segment : segments) {
      Json part = Json::object();
      part.add("at", segment.begin).add("length", segment.end - segment.begin);
      parts.append(part.add("kind", segment.kind).add("text", segment.text));
    }
    out_ << json.add("bytes", parts).text() << "\n";
  }

  void printText(const std::vector<Segment>& segments, const byte_t* row, std::size_t length,
                 std::uint64_t offset, const NamedLayout* named, const std::string& reason) {
    if (count_ != 0) out_ << "\n";
    const std::string title = named == nullptr || named->name.empty() ? "row" : named->name;
    out_ << style_.bold(title) << " at byte " << std::to_string(offset) << ", "
         << counted(length, "byte") << "\n";
    if (!reason.empty()) out_ << "  " << style_.red("fault: " + printable(reason)) << "\n";
    for (const Segment& segment : segments) {
      for (std::size_t at = segment.begin; at < segment.end; at += bytesInALine) {
        std::string line = "  ";
        const std::string number = std::to_string(at);
        line += std::string(5 - std::min<std::size_t>(number.size(), 5), ' ') + number + "  ";
        const std::size_t end = std::min(at + bytesInALine, segment.end);
        for (std::size_t i = at; i < end; ++i) {
          char digits[4];
          std::snprintf(digits, sizeof digits, "%02x ", row[i]);
          line += digits;
        }
        if (at == segment.begin) {
          line += std::string(3 * (bytesInALine - (end - at)) + 1, ' ');
          out_ << line << painted(segment) << "\n";
        } else {
          line.pop_back();
          out_ << line << "\n";
        }
      }
    }
  }

  std::string painted(const Segment& segment) const {
    if (segment.kind == "overlap") return style_.red(segment.text);
    if (segment.kind == "gap" || segment.kind == "unused") return style_.yellow(segment.text);
    if (segment.kind == "value" || segment.kind == "column") return segment.text;
    return style_.faint(segment.text);
  }

  static constexpr std::size_t bytesInALine = 8;

  const AnnotateOptions& options_;
  Output out_;
  Style style_;
  Layouts layouts_;
  std::uint64_t count_ = 0;
  bool allGood_ = true;
};

}  // namespace

int annotateRows(const AnnotateOptions& options) {
  return Command(options).run();
}

}  // namespace korvotool
