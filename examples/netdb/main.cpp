// netdb: the world's network prefixes in rows, and which of them an address lies in.

#include <Korvo/KorvoApi.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "agent.h"
#include "client.h"
#include "defaultInput.h"
#include "loader.h"
#include "lookups.h"
#include "progress.h"
#include "report.h"
#include "server.h"

namespace {

using Korvo::IpGenAddr;
using netdb::Agent;
using netdb::grouped;
using netdb::PrefixRow;
using netdb::PrefixTable;

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
  std::vector<std::string> inputs;
  std::string server;
  bool quiet = false;  // no progress
  std::string system = "netdb";
  bool trace = false;
  std::vector<std::string> addresses;
  std::string country;
  std::size_t limit = 0;
  bool json = false;
};

/// The files that are named, or those that can be found.
std::vector<std::string> inputsOf(const Options& options) {
  std::vector<std::string> inputs = options.inputs;
  if (inputs.empty()) inputs = netdb::defaultInput(netdb::programFolder());
  if (inputs.empty()) throw UsageError("no data: name files with --input");
  return inputs;
}

std::uint64_t readFiles(const std::vector<std::string>& inputs, bool quiet, Agent& agent,
                        PrefixTable& table) {
  netdb::ProgressDisplay display(quiet);
  std::uint64_t malformedLines = 0;
  std::string fault;
  const netdb::Loader loader(
      agent, table, inputs,
      {.malformed =
           [&](const std::string& file, std::uint32_t line, const std::string& reason) {
             ++malformedLines;
             netdb::complain(file + ':' + std::to_string(line) + ": " + reason + "; line skipped");
           },
       .read = [&](double progress, std::uint64_t rows) { display.show(progress, rows); },
       .ended = [&](const netdb::Loader::Result& result) { fault = result.fault; }});
  agent.run(true);
  if (!fault.empty()) throw netdb::InputError(fault);
  return malformedLines;
}

/// The rows of the server, if there is one, or of the files; returns how many lines of them are
/// malformed. Files that are named come before a server that is not.
std::uint64_t fillTable(const Options& options, Agent& agent, PrefixTable& table) {
  const bool isServerNamed = !options.server.empty();
  const std::string server =
      isServerNamed || !options.inputs.empty() ? options.server : netdb::defaultServer();
  if (!server.empty() && netdb::takeRows(agent, table, server)) return 0;
  if (isServerNamed) netdb::complain("netdb: no server at " + server + "; the files are read");
  return readFiles(inputsOf(options), options.quiet, agent, table);
}

void printFigure(const char* name, const std::string& value) {
  std::cout << std::left << std::setw(17) << name << value << '\n';
}

std::string seconds(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", value);
  return text;
}

int load(const Options& options, Agent& agent) {
  const std::uint64_t before = residentBytes();
  const auto begin = std::chrono::steady_clock::now();
  PrefixTable table(netdb::prefixTable);
  const std::uint64_t malformedLines = fillTable(options, agent, table);
  const auto loaded = std::chrono::steady_clock::now();
  table.longestPrefix<"prefix">();
  table.equal<"country">();
  const auto indexed = std::chrono::steady_clock::now();
  const std::uint64_t memory = residentBytes() - before;
  const std::uint64_t rows = table.size();
  std::uint64_t bytes = 0;
  for (const PrefixRow& row : table) bytes += row.rowLength();
  const auto withShare = [&](std::uint64_t n) {
    return grouped(n) + (rows == 0 ? "" : " (" + grouped(n / rows) + " per row)");
  };
  const double loadSeconds = std::chrono::duration<double>(loaded - begin).count();
  printFigure("rows", grouped(rows));
  printFigure("bytes", withShare(bytes));
  printFigure("memory", withShare(memory));
  printFigure("rows per second",
              grouped(static_cast<std::uint64_t>(static_cast<double>(rows) / loadSeconds)));
  printFigure("load time", seconds(loadSeconds));
  printFigure("index time", seconds(std::chrono::duration<double>(indexed - loaded).count()));
  if (malformedLines != 0) printFigure("malformed lines", grouped(malformedLines));
  return 0;
}

int lookup(const Options& options, Agent& agent) {
  std::vector<IpGenAddr> addrs;
  for (const std::string& text : options.addresses) addrs.push_back(parseAddress(text));
  PrefixTable table(netdb::prefixTable);
  fillTable(options, agent, table);
  bool allFound = true;
  netdb::lookUp(agent, table, addrs, [&](std::size_t i, const PrefixRow& row) {
    if (row.isNull()) {
      std::fprintf(stderr, "netdb: no prefix contains %s\n", options.addresses[i].c_str());
      allFound = false;
    } else if (options.json) {
      std::cout << row.toJson() << '\n';
    } else {
      if (i != 0) std::cout << '\n';
      netdb::printRow(std::cout, row);
    }
  });
  return allFound ? 0 : 1;
}

int country(const Options& options, Agent& agent) {
  PrefixTable table(netdb::prefixTable);
  fillTable(options, agent, table);
  std::string code = options.country;
  std::transform(code.begin(), code.end(), code.begin(), [](char c) {
    return 'a' <= c && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return netdb::printCountry(std::cout, table, code, options.limit) != 0 ? 0 : 1;
}

int stats(const Options& options, Agent& agent) {
  PrefixTable table(netdb::prefixTable);
  fillTable(options, agent, table);
  netdb::printStats(std::cout, table, options.limit);
  return 0;
}

/// Where the server of this command listens.
std::string serverOf(const Options& options) {
  std::string server = options.server.empty() ? netdb::defaultServer() : options.server;
  if (server.empty()) throw UsageError("no place for the server's socket: name it with --server");
  return server;
}

int serve(const Options& options, Agent& agent) {
  agent.loop()->stopOnSignals({SIGINT, SIGTERM});
  const netdb::Server server(agent, inputsOf(options), serverOf(options), std::cout);
  agent.run();
  std::cout << "stopped" << std::endl;
  return 0;
}

int watch(const Options& options, Agent& agent) {
  netdb::watchRows(agent, serverOf(options), std::cout);
  return 0;
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
  if (!options.server.empty() && !options.server.starts_with("unix:")) {
    options.server.insert(0, "unix:");
  }
}

int runCommand(const CLI::App& app, const Options& options) {
  constexpr std::pair<const char*, int (*)(const Options&, Agent&)> commands[] = {
      {"serve", serve},   {"watch", watch},     {"load", load},
      {"lookup", lookup}, {"country", country}, {"stats", stats},
  };
  Korvo::sysnameIs(options.system);
  for (const auto& [name, run] : commands) {
    if (!app.got_subcommand(name)) continue;
    Agent agent(name, options.trace);
    return run(options, agent);
  }
  return 2;  // the command line was checked
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
      "netdb serve keeps them up to date for all others, which read the files where it does not "
      "run.",
      "netdb");
  app.require_subcommand(0, 1);
  app.fallthrough();
  app.allow_extras();
  app.get_formatter()->column_width(34);
  app.add_option("--input", options.inputs,
                 "Files of lines first,last,country. If none is named: those of the\n"
                 "demo, of the package tor-geoipdb, or a small sample")
      ->type_name("FILE");
  app.add_option("--server", options.server,
                 "The server's socket, like unix:/run/netdb. If none is named: in the\n"
                 "user's folder for such, where no files are named")
      ->type_name("ADDRESS");
  app.add_flag("--quiet", options.quiet, "Show no progress");
  app.add_option("--system", options.system, "Name of the system that the process belongs to")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_flag("--trace", options.trace, "Write the scheduler's traces to standard error");
  app.add_subcommand("serve", "Publish the rows of the files, and what changes in them");
  app.add_subcommand("watch", "Tell what changes at the server");
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
