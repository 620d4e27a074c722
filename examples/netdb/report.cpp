#include "report.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <map>
#include <vector>

#include "progress.h"

namespace netdb {
namespace {

template <typename Value>
void printField(std::ostream& out, const char* name, const Value& value) {
  out << std::left << std::setfill(' ') << std::setw(10) << name << "  " << value << '\n';
}

struct Counts {
  std::string name;
  std::uint64_t ipv4 = 0;
  std::uint64_t ipv6 = 0;
  std::uint64_t total() const { return ipv4 + ipv6; }
};

void printLine(std::ostream& out, const std::string& name, const std::string& ipv4,
               const std::string& ipv6, const std::string& total) {
  out << "  " << std::left << std::setw(8) << name << std::right << std::setw(12) << ipv4
      << std::setw(12) << ipv6 << std::setw(12) << total << '\n';
}

void printTable(std::ostream& out, const char* heading, const std::vector<Counts>& lines) {
  printLine(out, heading, "IPv4", "IPv6", "rows");
  for (const Counts& line : lines) {
    printLine(out, line.name, grouped(line.ipv4), grouped(line.ipv6), grouped(line.total()));
  }
}

}  // namespace

void printRow(std::ostream& out, const PrefixRow& row) {
  printField(out, "prefix", row.view<"prefix">());
  printField(out, "first", row.view<"first">());
  printField(out, "last", row.view<"last">());
  printField(out, "country", row.view<"country">().view());
  printField(out, "addresses", grouped(row.get<"addresses">()));
  std::string tags;
  for (const Korvo::StringValueReference& tag : row.view<"tags">()) {
    if (!tags.empty()) tags += ", ";
    tags += tag.view();
  }
  printField(out, "tags", tags);
  const auto origin = row.view<"origin">();
  printField(out, "origin", origin.get<"file">() + ":" + std::to_string(origin.get<"line">()));
}

std::size_t printCountry(std::ostream& out, PrefixTable& table, const std::string& country,
                         std::size_t limit) {
  std::vector<Korvo::IpGenPrefix> prefixes;
  for (const PrefixRow& row : table.equal<"country">().find(country)) {
    prefixes.push_back(row.get<"prefix">());
  }
  std::sort(prefixes.begin(), prefixes.end());
  const std::size_t shown = limit == 0 ? prefixes.size() : std::min(limit, prefixes.size());
  for (std::size_t i = 0; i < shown; ++i) out << prefixes[i] << '\n';
  if (shown < prefixes.size()) out << "... and " << grouped(prefixes.size() - shown) << " more\n";
  out << grouped(prefixes.size()) << " rows of " << country << '\n';
  return prefixes.size();
}

void printStats(std::ostream& out, const PrefixTable& table, std::size_t limit) {
  std::map<std::string, Counts> byCountry;
  std::array<Counts, 129> lengths;
  for (const PrefixRow& row : table) {
    for (Counts* const counts :
         {&byCountry[row.get<"country">()], &lengths.at(row.view<"prefix">().mask())}) {
      ++(row.view<"ipv6">() ? counts->ipv6 : counts->ipv4);
    }
  }

  std::vector<Counts> countries;
  for (auto& [name, counts] : byCountry) {
    counts.name = name;
    countries.push_back(counts);
  }
  std::sort(countries.begin(), countries.end(), [](const Counts& a, const Counts& b) {
    return a.total() != b.total() ? a.total() > b.total() : a.name < b.name;
  });
  const std::size_t known = countries.size();
  if (limit != 0 && limit < known) countries.resize(limit);

  for (std::size_t i = 0; i < lengths.size(); ++i) lengths[i].name = "/" + std::to_string(i);
  std::vector<Counts> used;
  std::copy_if(lengths.begin(), lengths.end(), std::back_inserter(used),
               [](const Counts& counts) { return counts.total() != 0; });

  printTable(out, "country", countries);
  if (countries.size() < known) out << "  ... and " << known - countries.size() << " more\n";
  out << '\n';
  printTable(out, "length", used);
}

}  // namespace netdb
