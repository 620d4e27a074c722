#include "EtcdKeys.h"

#include <algorithm>
#include <charconv>
#include <sstream>

namespace Korvo::detail {

namespace {

constexpr std::string_view magic = "korvo";
constexpr unsigned int version = 1;
constexpr std::size_t digitsOfOid = 8;
constexpr std::string_view rowPart = "/row/";

std::string hex(std::uint64_t number, std::size_t digits) {
  std::string text(digits, '0');
  for (; digits > 0; number >>= 4) text[--digits] = "0123456789abcdef"[number & 15];
  return text;
}

}  // namespace

std::string oidDigits(oid_t oid) {
  return hex(oid, digitsOfOid);
}

std::optional<oid_t> oidOf(std::string_view digits) {
  oid_t oid = 0;
  const char* const end = digits.data() + digits.size();
  const auto [read, error] = std::from_chars(digits.data(), end, oid, 16);
  if (error != std::errc() || read != end || digits != oidDigits(oid)) return std::nullopt;
  return oid;
}

const EtcdMark::Table* EtcdMark::find(std::string_view table) const {
  const auto found = std::ranges::find(tables, table, &Table::name);
  return found == tables.end() || found->isKept ? nullptr : &*found;
}

std::string EtcdMark::absence(const std::string& publisher, const std::string& table) const {
  const bool isKept = std::ranges::find(tables, table, &Table::name) != tables.end();
  return publisher + (isKept ? " keeps what is there of table " : " has no table ") + table +
         (isKept ? ", and does not tell it for now" : "");
}

std::string EtcdMark::encode() const {
  std::ostringstream out;
  out << magic << ' ' << version << " history " << hex(history, 16) << " sequence " << sequence
      << " part " << part << " cut " << cut << " batches " << batches << '\n';
  for (const Table& table : tables) {
    if (table.isKept) {
      out << "kept";
    } else {
      out << table.rows << ' ' << hex(table.digest, 16);
    }
    out << ' ' << table.name << '\n';
  }
  return out.str();
}

std::optional<EtcdMark> EtcdMark::decode(const std::string& text) {
  std::istringstream in(text);
  EtcdMark mark;
  std::string word;
  unsigned int number = 0;
  const auto named = [&](const char* name) -> std::istream& {
    std::string found;
    if (in >> found && found != name) in.setstate(std::ios::failbit);
    return in;
  };
  in >> word >> number;
  if (!in || word != magic || number != version) return std::nullopt;
  named("history") >> std::hex >> mark.history >> std::dec;
  named("sequence") >> mark.sequence;
  named("part") >> mark.part;
  named("cut") >> mark.cut;
  named("batches") >> mark.batches;
  if (!in || in.get() != '\n' || mark.history == 0) return std::nullopt;
  while (in.peek() != std::istringstream::traits_type::eof()) {
    Table table;
    table.isKept = in.peek() == 'k';
    if (table.isKept) {
      named("kept");
    } else {
      in >> table.rows >> std::hex >> table.digest >> std::dec;
    }
    if (in.get() != ' ' || !std::getline(in, table.name) || in.eof()) return std::nullopt;
    mark.tables.push_back(std::move(table));
  }
  return mark;
}

std::string EtcdKeys::row(const std::string& table, oid_t oid) const {
  return rows(table) + oidDigits(oid);
}

std::optional<EtcdKeys::Row> EtcdKeys::rowOf(std::string_view key) const {
  if (!key.starts_with(prefix_)) return std::nullopt;
  key.remove_prefix(prefix_.size());
  if (key.size() < digitsOfOid + rowPart.size()) return std::nullopt;
  const std::string_view digits = key.substr(key.size() - digitsOfOid);
  key.remove_suffix(digitsOfOid);
  if (!key.ends_with(rowPart)) return std::nullopt;
  key.remove_suffix(rowPart.size());
  const std::optional<oid_t> oid = oidOf(digits);
  if (!oid) return std::nullopt;
  return Row{key, *oid};
}

bool EtcdKeys::mayName(std::string_view table) {
  const auto isControl = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7F;
  };
  const bool isLine = std::ranges::none_of(table, isControl);
  return isLine && !table.empty() && !table.ends_with("/row") &&
         table.find(rowPart) == std::string_view::npos;
}

std::string EtcdKeys::endOf(std::string begin) {
  ++begin.back();  // prefixes end with '/'
  return begin;
}

}  // namespace Korvo::detail
