// korvo tables: what a publisher has, and how its subscribers are doing.

#include "../layouts.h"
#include "changeText.h"
#include "engines.h"
#include "follower.h"

#include <cstdio>

namespace korvotool {
namespace {

std::string hexadecimal(std::uint64_t number) {
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(number));
  return digits;
}

std::string listed(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ",") + printable(name);
  return text.empty() ? "-" : text;
}

std::string jsonOf(const Korvo::PublisherInfo& info) {
  Json tables = Json::array();
  for (const auto& table : info.tables) {
    Json json = Json::object();
    json.add("name", table.name).add("rows", table.rows);
    if (!info.store) json.add("sequence", table.sequence);
    json.add("fingerprint", table.fingerprint.digest()).add("layout", table.layoutText);
    tables.append(json);
  }
  Json subscribers = Json::array();
  for (const auto& subscriber : info.subscribers) {
    Json json = Json::object();
    Json names = Json::array();
    for (const std::string& name : subscriber.tables) names.append(name);
    json.add("name", subscriber.name).add("tables", names).add("lag", subscriber.lag);
    json.add("lagRows", subscriber.lagRows).add("merged", subscriber.merged);
    json.add("refused", subscriber.refused).add("unsent", subscriber.unsent);
    json.add("reconnects", subscriber.reconnects).add("lastReason", subscriber.lastReason);
    subscribers.append(json);
  }
  Json json = Json::object();
  json.add("publisher", info.name).add("epoch", hexadecimal(info.epoch));
  json.add("sequence", info.sequence).add("complete", info.isComplete);
  json.add("tables", tables);
  if (info.store) {
    // Who reads there is not known to anybody.
    json.add("owner", info.store->owner).add("revision", info.store->revision);
  } else {
    json.add("subscribers", subscribers).add("lastReason", info.lastReason);
  }
  return json.text();
}

/// The line above the tables.
std::string title(const Korvo::PublisherInfo& info, const Style& style) {
  std::string text =
      style.bold(printable(info.name)) + ": " + counted(info.tables.size(), "table") + ", ";
  if (!info.store) text += counted(info.subscribers.size(), "subscriber") + ", ";
  text += "batch " + std::to_string(info.sequence);
  if (!info.store) return text + (info.isComplete ? "" : ", not all rows are there yet");
  text += ", revision " + std::to_string(info.store->revision) + "\n";
  if (info.store->owner.empty()) return text + "Nobody publishes it: rows stay as they are.";
  text += "Published by " + printable(info.store->owner);
  return text + (info.isComplete ? "" : ", which has not loaded its rows yet");
}

void print(Output& out, const Style& style, const Grid& grid) {
  bool isTitle = true;
  for (const std::string& line : grid.lines()) {
    out << (isTitle ? style.faint(line) : line) << "\n";
    isTitle = false;
  }
}

std::string layoutSummary(const Korvo::PublisherInfo::Table& table) {
  try {
    const Korvo::DynamicLayout layout(table.layoutText);
    return "type " + std::to_string(layout.info().rowType) + ", " +
           counted(layout.info().columns.size(), "column");
  } catch (const Korvo::KoTextError&) {
    return "not understood";
  }
}

}  // namespace

int listTables(const TablesOptions& options) {
  makeKnown(options.address);
  Work work;
  const Korvo::PublisherInfo info = askPublisher(work, options);
  Output out;
  if (options.json) {
    out << jsonOf(info) << "\n";
    out.finish();
    return statusGood;
  }
  const Style style(options.colour, out.isTerminal());
  out << title(info, style) << "\n";
  if (!info.tables.empty()) {
    Grid grid;
    grid.column("table");
    grid.column("rows", true);
    if (!info.store) grid.column("changed", true);
    grid.column("fingerprint");
    grid.column("layout");
    for (const auto& table : info.tables) {
      std::vector<std::string> cells = {printable(table.name), std::to_string(table.rows)};
      if (!info.store) cells.push_back(std::to_string(table.sequence));
      cells.push_back(table.fingerprint.text());
      cells.push_back(layoutSummary(table));
      grid.line(std::move(cells));
    }
    out << "\n";
    print(out, style, grid);
  }
  if (!info.subscribers.empty()) {
    Grid grid;
    grid.column("subscriber");
    for (const char* const title :
         {"lag", "lag rows", "merged", "refused", "unsent", "reconnects"}) {
      grid.column(title, true);
    }
    grid.column("tables");
    grid.column("last reason");
    for (const auto& subscriber : info.subscribers) {
      grid.line({printable(subscriber.name), std::to_string(subscriber.lag),
                 std::to_string(subscriber.lagRows), std::to_string(subscriber.merged),
                 std::to_string(subscriber.refused), std::to_string(subscriber.unsent),
                 std::to_string(subscriber.reconnects), listed(subscriber.tables),
                 printable(subscriber.lastReason)});
    }
    out << "\n";
    print(out, style, grid);
  }
  if (!info.lastReason.empty()) {
    out << "\nThe last connection that ended: " << printable(info.lastReason) << "\n";
  }
  if (options.layouts) {
    for (const auto& table : info.tables) {
      // As a file that --layout takes, with the table's name as a note.
      out << "\n# " << printable(table.name) << "\n";
      const std::string_view text = table.layoutText;
      for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        out << printable(text.substr(at, end - at)) << "\n";
        at = end + 1;
      }
    }
  }
  out.finish();
  return statusGood;
}

}  // namespace korvotool
