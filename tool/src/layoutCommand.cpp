// korvo layout: layouts as text, and what becomes of rows from one to another.

#include "commands.h"
#include "failure.h"
#include "layouts.h"
#include "rules.h"

#include <Korvo/RowConverter.h>

#include <algorithm>

namespace korvotool {
namespace {

using Korvo::ColumnChange;
using Korvo::ColumnComparison;
using Korvo::Conversion;

const char* conversionText(Conversion conversion) {
  switch (conversion) {
    case Conversion::same:
      return "same";
    case Conversion::lossless:
      return "convertible without loss";
    case Conversion::lossy:
      return "convertible with loss";
    default:
      return "refused";
  }
}

std::string paint(const Style& style, ColumnChange change, const std::string& line) {
  if (change == ColumnChange::refused) return style.red(line);
  const bool isLoss = change == ColumnChange::dropped || change == ColumnChange::missing;
  return isLoss ? style.yellow(line) : line;
}

std::string described(const Korvo::DynamicLayout& layout) {
  return layout.fingerprint().text() + " (" + counted(layout.info().columns.size(), "column") +
         ", base " + std::to_string(layout.info().baseLength) + ')';
}

ColumnChange changeOfLine(std::string_view line) {
  const std::string_view word = line.substr(0, line.find(' '));
  for (const ColumnChange change :
       {ColumnChange::refused, ColumnChange::dropped, ColumnChange::missing}) {
    if (word == Korvo::columnChangeText(change)) return change;
  }
  return ColumnChange::same;
}

Json columnJson(const ColumnComparison& column) {
  Json json = Json::object();
  json.add("change", Korvo::columnChangeText(column.change)).add("name", column.name());
  if (column.sender != nullptr) json.add("old", columnTypeText(*column.sender));
  if (column.ours != nullptr) json.add("new", columnTypeText(*column.ours));
  if (column.sender != nullptr && column.ours != nullptr && column.sender->name != column.name()) {
    json.add("formerly", column.sender->name);
  }
  if (!column.reason.empty()) json.add("reason", column.reason);
  if (!column.nested.empty()) {
    Json nested = Json::array();
    for (const ColumnComparison& part : column.nested) nested.append(columnJson(part));
    json.add("nested", nested);
  }
  return json;
}

class LayoutDiff {
 public:
  explicit LayoutDiff(const LayoutOptions& options)
      : options_(options),
        style_(options.colour, out_.isTerminal()),
        rules_(rulesOf(options.aliases, options.required)) {}

  void compare(const std::string& name, const Korvo::DynamicLayout& older,
               const Korvo::DynamicLayout& newer) {
    const Korvo::LayoutComparison comparison(older.info(), newer.info(), rules_);
    worst_ = std::max(worst_, comparison.conversion());
    if (options_.json) {
      Json json = Json::object();
      if (!name.empty()) json.add("row", name);
      json.add("conversion", jsonText(comparison.conversion()));
      json.add("old", older.fingerprint().digest()).add("new", newer.fingerprint().digest());
      if (!comparison.refusal().empty()) json.add("reason", comparison.refusal());
      Json columns = Json::array();
      for (const ColumnComparison& column : comparison.columns()) {
        columns.append(columnJson(column));
      }
      out_ << json.add("columns", columns).text() << "\n";
      return;
    }
    out_ << (name.empty() ? "" : style_.bold(name) + ": ") << described(older) << " -> "
         << described(newer) << ": " << verdict(comparison.conversion()) << "\n";
    if (older.info().rowType != newer.info().rowType) {
      out_ << "  " << style_.red("refused  " + comparison.refusal()) << "\n";
    }
    const std::string lines = comparison.text();
    for (std::string_view text = lines; !text.empty(); text.remove_prefix(text.find('\n') + 1)) {
      const std::string line(text.substr(0, text.find('\n')));
      out_ << "  " << paint(style_, changeOfLine(line), printable(line)) << "\n";
    }
  }
  void tellGone(const std::string& name) {
    worst_ = std::max(worst_, Conversion::lossy);
    tell(name, "gone");
  }
  void tellNew(const std::string& name) { tell(name, "new"); }

  int finish() {
    out_.finish();
    return static_cast<int>(worst_);
  }

 private:
  static const char* jsonText(Conversion conversion) {
    constexpr const char* texts[] = {"same", "lossless", "lossy", "refused"};
    return texts[static_cast<std::size_t>(conversion)];
  }
  std::string verdict(Conversion conversion) const {
    const char* const text = conversionText(conversion);
    if (conversion == Conversion::refused) return style_.red(text);
    return conversion == Conversion::lossy ? style_.yellow(text) : style_.green(text);
  }
  void tell(const std::string& name, const char* what) {
    if (options_.json) {
      out_ << Json::object().add("row", name).add("conversion", what).text() << "\n";
    } else {
      out_ << style_.bold(name) << ": " << what << "\n";
    }
  }

  const LayoutOptions& options_;
  Output out_;
  Style style_;
  Korvo::ConversionRules rules_;
  Conversion worst_ = Conversion::same;
};

const NamedLayout* findName(const Layouts& layouts, const std::string& name) {
  for (const NamedLayout& named : layouts.all()) {
    if (named.name == name) return &named;
  }
  return nullptr;
}

}  // namespace

int printLayout(const LayoutOptions& options) {
  const Layouts layouts(options.layout, options.row);
  Output out;
  if (options.json) {
    for (const NamedLayout& named : layouts.all()) {
      Json json = Json::object();
      if (!named.name.empty()) json.add("row", named.name);
      json.add("type", named.layout.info().rowType).add("base", named.layout.info().baseLength);
      json.add("fingerprint", named.layout.fingerprint().digest());
      out << json.add("text", named.layout.text()).text() << "\n";
    }
  } else if (options.fingerprint) {
    for (const NamedLayout& named : layouts.all()) {
      out << named.layout.fingerprint().digest() << "  " << named.title() << "\n";
    }
  } else {
    // What has names is a definition; a layout's own text has none.
    const bool withNames = options.named || layouts.all().size() > 1;
    const char* separator = "";
    for (const NamedLayout& named : layouts.all()) {
      std::string text = named.layout.text();
      if (withNames && !named.name.empty()) text.insert(4, named.name + ' ');
      out << separator << text;
      separator = "\n";
    }
  }
  out.finish();
  return statusGood;
}

int diffLayouts(const LayoutOptions& options) {
  const Layouts older(options.layout, options.row);
  const Layouts newer(options.newLayout, options.row);
  LayoutDiff diff(options);
  try {
    // One with one, whatever their names; several by name.
    if (older.all().size() == 1 && newer.all().size() == 1) {
      diff.compare({}, older.all().front().layout, newer.all().front().layout);
      return diff.finish();
    }
    for (const NamedLayout& named : older.all()) {
      if (const NamedLayout* const other = findName(newer, named.name)) {
        diff.compare(named.title(), named.layout, other->layout);
      } else {
        diff.tellGone(named.title());
      }
    }
    for (const NamedLayout& named : newer.all()) {
      if (findName(older, named.name) == nullptr) diff.tellNew(named.title());
    }
    return diff.finish();
  } catch (const Korvo::KoInvalidArgument& e) {  // of the rules
    throw Failure(statusUsage, e.what());
  }
}

}  // namespace korvotool
