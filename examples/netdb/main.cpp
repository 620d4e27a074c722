// netdb: the world's network prefixes in rows, and which of them an address lies in.

#include <Korvo/KorvoApi.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "agent.h"
#include "defaultInput.h"
#include "progress.h"
#include "report.h"
#include "rowOps.h"
#include "transfer.h"

namespace {

using Korvo::IpGenAddr;
using netdb::Agent;
using netdb::grouped;
using netdb::PrefixRow;
using netdb::RowTable;

/// A user's mistake: one line on standard error and exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Bytes of memory that the process occupies now.
std::uint64_t residentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t all = 0;
  std::uint64_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

/// The library reads any text as an address in its own lenient way; a person's typing error is
/// better told than looked up.
IpGenAddr parseAddress(const std::string& text) {
  if (text.find_first_not_of("0123456789abcdefABCDEF:.") == text.npos) {
    try {
      return IpGenAddr(text);
    } catch (const Korvo::KoInvalidArgument&) {  // told below
    }
  }
  throw UsageError("not an address: " + text);
}

struct Options {
  netdb::TransferOptions transfer;
  std::string system = "netdb";
  bool blocking = false;
  bool trace = false;
  std::vector<std::string> addresses;
  std::string country;
  std::size_t limit = 0;
  bool json = false;
};

/// The table with all rows of the input, indexed; those that came before if the stream broke.
netdb::TransferResult loadTable(const Options& options, RowTable& table, Agent* agent) {
  const netdb::TransferResult result = netdb::transferRows(options.transfer, table, agent);
  table.index();
  return result;
}

void printFigure(const char* name, const std::string& value) {
  std::cout << std::left << std::setw(17) << name << value << '\n';
}

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", value);
  return text;
}

int load(const Options& options, Agent* agent) {
  const std::uint64_t before = residentBytes();
  const auto begin = std::chrono::steady_clock::now();
  RowTable table;
  const netdb::TransferResult result = loadTable(options, table, agent);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - begin;
  const std::uint64_t memory = residentBytes() - before;
  const std::uint64_t rows = table.rows().size();
  const auto withShare = [&](std::uint64_t n) {
    return grouped(n) + (rows == 0 ? "" : " (" + grouped(n / rows) + " per row)");
  };
  printFigure("rows", grouped(rows));
  printFigure("bytes", withShare(result.rowBytes));
  printFigure("memory", withShare(memory));
  printFigure("rows per second",
              grouped(static_cast<std::uint64_t>(static_cast<double>(rows) / result.seconds)));
  printFigure("load time", seconds(result.seconds));
  printFigure("index time", seconds(whole.count() - result.seconds));
  if (result.malformedLines != 0) printFigure("malformed lines", grouped(result.malformedLines));
  if (result.refusedRows != 0) printFigure("refused rows", grouped(result.refusedRows));
  return result.complete ? 0 : 1;
}

int lookup(const Options& options, Agent* agent) {
  std::vector<IpGenAddr> addrs;
  for (const std::string& text : options.addresses) addrs.push_back(parseAddress(text));
  RowTable table;
  const netdb::TransferResult result = loadTable(options, table, agent);
  bool allFound = true;
  const auto found = [&](std::size_t i, const PrefixRow& row) {
    if (row.isNull()) {
      std::fprintf(stderr, "netdb: no prefix contains %s\n", options.addresses[i].c_str());
      allFound = false;
    } else if (options.json) {
      std::cout << row.toJson() << '\n';
    } else {
      if (i != 0) std::cout << '\n';
      netdb::printRow(std::cout, row);
    }
  };
  if (agent == nullptr) {
    for (std::size_t i = 0; i < addrs.size(); ++i) found(i, table.lookup(addrs[i]));
  } else {
    agent->lookUp(table, addrs, found);
  }
  return result.complete && allFound ? 0 : 1;
}

int country(const Options& options, Agent* agent) {
  RowTable table;
  const netdb::TransferResult result = loadTable(options, table, agent);
  std::string code = options.country;
  std::transform(code.begin(), code.end(), code.begin(), [](char c) {
    return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  netdb::printCountry(std::cout, table, code, options.limit);
  return result.complete && !table.ofCountry(code).empty() ? 0 : 1;
}

int stats(const Options& options, Agent* agent) {
  RowTable table;
  const netdb::TransferResult result = loadTable(options, table, agent);
  netdb::printStats(std::cout, table, options.limit);
  return result.complete ? 0 : 1;
}

/// What the command line asks for, as far as the parser cannot tell by itself.
void checkCommandLine(const CLI::App& app, Options& options) {
  const std::vector<std::string> left = app.remaining(true);
  if (app.get_subcommands().empty()) {
    throw UsageError(left.empty() ? "no command" : "unknown command: " + left.front());
  }
  if (!left.empty()) throw UsageError("unexpected argument: " + left.front());
  if (options.system.empty()) throw UsageError("the system has no name");
  const std::string& country = options.country;
  if (app.got_subcommand("country") && country.size() != 2) {
    throw UsageError("not a country of two letters: " + country);
  }
  if (options.transfer.inputs.empty())
    options.transfer.inputs = netdb::defaultInput(netdb::programFolder());
  if (options.transfer.inputs.empty()) throw UsageError("no data: name files with --input");
}

int runCommand(const CLI::App& app, const Options& options) {
  Korvo::sysnameIs(options.system);
  Korvo::rowOpsFactoryIs(netdb::makeRowOps);
  std::optional<Agent> units;
  if (!options.blocking) units.emplace("subscriber", options.trace);
  Agent* const agent = units ? &*units : nullptr;
  if (app.got_subcommand("load")) return load(options, agent);
  if (app.got_subcommand("lookup")) return lookup(options, agent);
  if (app.got_subcommand("country")) return country(options, agent);
  return stats(options, agent);
}

/// Without it, the parser takes -1 for a very large number.
std::string naturalNumber(const std::string& text) {
  const bool natural = text.find_first_not_of("0123456789") == text.npos;
  return natural ? "" : "not a number from 0: " + text;
}

int mistake(const std::string& what) {
  std::fprintf(stderr, "netdb: %s (see netdb --help)\n", what.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Holds the world's network prefixes in rows, and tells which one an address is in.\n"
      "A publisher process reads the input and sends its rows to this one.",
      "netdb");
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.allow_extras();
  app.get_formatter()->column_width(34);
  app.add_option("--input", options.transfer.inputs,
                 "Files of lines first,last,country. If none is named: those of the\n"
                 "demo, of the package tor-geoipdb, or a small sample")
      ->type_name("FILE");
  app.add_flag("--quiet", options.transfer.quiet, "Show no progress");
  app.add_option("--system", options.system, "Name of the system that the processes belong to")
      ->type_name("NAME")
      ->capture_default_str();
  CLI::Option* const trace =
      app.add_flag("--trace", options.trace, "Write the schedulers' traces to standard error");
  app.add_flag("--blocking", options.blocking, "Work in plain loops, not in units")
      ->excludes(trace);
  app.add_subcommand("load", "Load the rows and tell how many, how fast, in how much memory");
  CLI::App* const lookupCommand =
      app.add_subcommand("lookup", "Show the row of the most specific prefix of each address");
  lookupCommand->add_option("ADDRESS", options.addresses, "IPv4 or IPv6 addresses")
      ->required()
      ->type_name("");
  lookupCommand->add_flag("--json", options.json, "Print each row as one line of JSON");
  CLI::App* const countryCommand = app.add_subcommand("country", "List the prefixes of a country");
  countryCommand->add_option("CC", options.country, "The country's two letters")
      ->required()
      ->type_name("");
  countryCommand->add_option("--limit", options.limit, "How many prefixes to list; 0 for all")
      ->check(naturalNumber)
      ->type_name("N");
  CLI::App* const statsCommand =
      app.add_subcommand("stats", "Count rows by country and by prefix length");
  statsCommand->add_option("--limit", options.limit, "How many countries to show; 0 for all")
      ->check(naturalNumber)
      ->type_name("N");

  try {
    app.parse(argc, argv);
    checkCommandLine(app, options);
    const int status = runCommand(app, options);
    if (!std::cout.flush()) throw std::runtime_error("the output cannot be written");
    return status;
  } catch (const CLI::ParseError& e) {
    return e.get_exit_code() == 0 ? app.exit(e) : mistake(e.what());  // --help is no mistake
  } catch (const UsageError& e) {
    return mistake(e.what());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "netdb: %s\n", e.what());
    return 1;
  }
}
