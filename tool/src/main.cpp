// The command line of korvo.

#include "commands.h"
#include "failure.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>
#include <new>
#include <string>
#include <vector>

namespace {

using namespace korvotool;  // NOLINT(google-build-using-namespace): its own program

/// Refuses all other words, in words of people.
CLI::Validator oneOf(const std::vector<std::string>& words) {
  return {[words](const std::string& text) -> std::string {
            std::string expected;
            for (std::size_t i = 0; i < words.size(); ++i) {
              if (words[i] == text) return {};
              if (i != 0) expected += i + 1 == words.size() ? " or " : ", ";
              expected += words[i];
            }
            return expected + ", not " + text;
          },
          ""};
}

void addJson(CLI::App& command, CommonOptions& options) {
  command.add_flag("--json", options.json, "Print one line of JSON for each result");
}

void addColour(CLI::App& command, CommonOptions& options) {
  command
      .add_option_function<std::string>(
          "--color",
          [&options](const std::string& word) {
            if (word == "always") options.colour = ColourChoice::always;
            if (word == "never") options.colour = ColourChoice::never;
          },
          "auto (on a terminal), always or never")
      ->check(oneOf({"auto", "always", "never"}))
      ->type_name("WHEN");
}

CLI::Option* addLayout(CLI::App& command, RowOptions& options) {
  CLI::Option* const layout =
      command
          .add_option("-l,--layout", options.layout,
                      "File with the layout's text, or a definition of rows")
          ->type_name("FILE");
  command.add_option("--row", options.row, "Which row of that file; else all of them")
      ->type_name("NAME");
  return layout;
}

/// For commands that read recordings, too.
void addLayoutUnlessRecorded(CLI::App& command, RowOptions& options) {
  CLI::Option* const layout = addLayout(command, options);
  layout->description(layout->get_description() + "; recordings have their own");
}

CLI::Option* addFiles(CLI::App& command, RowOptions& options) {
  command.add_flag("--plain", options.plain, "Do not unpack what looks like gzip or zstd");
  return command
      .add_option("FILE", options.files, "Files of rows, one behind the other; - is standard input")
      ->required()
      ->type_name("");
}

/// The commands, each with its options and what runs it.
class CommandLine {
 public:
  CommandLine()
      : app_(
            "Shows, checks, compares and converts rows, generates row classes, and looks into "
            "tables of other processes.",
            "korvo") {
    app_.require_subcommand(0, 1);
    app_.get_formatter()->column_width(30);
    app_.set_version_flag("--version", "korvo " KORVO_TOOL_VERSION);
    addRowCommands();
    addLayoutCommands();
    addTextCommands();
    addTableCommands();
  }

  int run(int argc, char** argv) {
    app_.parse(argc, argv);
    if (!chosen_) throw Failure(statusUsage, "no command");
    return chosen_();
  }
  int exit(const CLI::ParseError& e) { return app_.exit(e); }
  /// The command as it was typed, as far as it was known: "korvo layout diff".
  std::string name() const {
    std::string name = "korvo";
    for (const CLI::App* at = &app_; !at->get_subcommands().empty();) {
      at = at->get_subcommands().front();
      name += ' ' + at->get_name();
    }
    return name;
  }

 private:
  template <typename Options>
  void runs(CLI::App& command, int (*function)(const Options&), const Options& options) {
    command.final_callback([this, function, &options] {
      if (!chosen_) chosen_ = [function, &options] { return function(options); };
    });
  }

  void addRowCommands() {
    CLI::App& check = *app_.add_subcommand("check", "Tell which rows are faulty, and where");
    addLayoutUnlessRecorded(check, check_);
    check.add_flag("--no-host-bits", check_.noHostBits, "Refuse prefixes with host bits too");
    check.add_flag("-q,--quiet", check_.quiet, "Print nothing: the exit status tells");
    addJson(check, check_);
    addColour(check, check_);
    addFiles(check, check_);
    runs(check, checkRows, check_);

    CLI::App& show = *app_.add_subcommand("show", "Show the columns of rows");
    addLayoutUnlessRecorded(show, show_);
    show.add_option("--columns", show_.columns, "These columns only, with commas between them")
        ->delimiter(',')
        ->allow_extra_args(false)  // files follow
        ->type_name("NAME,...");
    show.add_option("--oid", show_.oid, "The rows of this oid only")->type_name("OID");
    show.add_option("--first", show_.limit, "That many rows at most")->type_name("N");
    addJson(show, show_);
    addColour(show, show_);
    addFiles(show, show_);
    runs(show, showRows, show_);

    CLI::App& annotate = *app_.add_subcommand("annotate", "Tell what each byte of a row is");
    addLayout(annotate, annotate_);
    CLI::Option* const oid =
        annotate.add_option("--oid", annotate_.oid, "The rows of this oid only")->type_name("OID");
    annotate
        .add_option("--at", annotate_.at, "Take the bytes from there for a row, whatever they are")
        ->type_name("BYTE")
        ->excludes(oid);
    annotate.add_option("--first", annotate_.limit, "That many rows at most")->type_name("N");
    addJson(annotate, annotate_);
    addColour(annotate, annotate_);
    addFiles(annotate, annotate_);
    runs(annotate, annotateRows, annotate_);

    CLI::App& diff = *app_.add_subcommand("diff", "Compare two files of rows, by oid and column");
    addLayout(diff, diff_)->required();
    diff.add_option("--new-layout", diff_.newLayout, "The layout of the second file, if another")
        ->type_name("FILE");
    diff.add_flag("--in-order", diff_.inOrder,
                  "Compare the first rows, the second ones and so on, whatever their oids");
    diff.add_flag("-q,--quiet", diff_.quiet, "Print nothing: the exit status tells");
    addJson(diff, diff_);
    addColour(diff, diff_);
    addFiles(diff, diff_)->expected(2);
    runs(diff, diffRows, diff_);

    CLI::App& convert =
        *app_.add_subcommand("convert", "Convert rows: to another layout, JSON lines, CSV");
    addLayout(convert, convert_)->required();
    const CLI::Validator form = oneOf({"rows", "json", "csv"});
    convert_.from = convert_.as = "rows";
    convert.add_option("--from", convert_.from, "What the input is: rows, json or csv")
        ->check(form)
        ->type_name("FORM");
    convert.add_option("--as", convert_.as, "What to write: rows, json or csv")
        ->check(form)
        ->type_name("FORM");
    convert.add_option("--to", convert_.to, "File with the layout of the result, if another")
        ->type_name("FILE");
    convert.add_option("--to-row", convert_.toRow, "Which row of that file")->type_name("NAME");
    addRules(convert, convert_.aliases, convert_.required);
    convert.add_option("-o,--output", convert_.output, "Write to this file, whole or not at all")
        ->type_name("FILE");
    addFiles(convert, convert_);
    runs(convert, convertRows, convert_);

    CLI::App& stat =
        *app_.add_subcommand("stat", "Count lengths, gaps, and how columns are filled");
    addLayout(stat, stat_)->required();
    addJson(stat, stat_);
    addColour(stat, stat_);
    addFiles(stat, stat_);
    runs(stat, statRows, stat_);
  }

  static void addRules(CLI::App& command, std::vector<std::string>& aliases,
                       std::vector<std::string>& required) {
    command.add_option("--alias", aliases, "A column that had another name")
        ->type_name("COLUMN=FORMER")
        ->allow_extra_args(false);
    command.add_option("--required", required, "A column that must not be missing")
        ->type_name("COLUMN")
        ->allow_extra_args(false);
  }

  void addLayoutCommands() {
    CLI::App& layout = *app_.add_subcommand("layout", "Print and compare layouts");
    layout.require_subcommand(1);
    CLI::App& print = *layout.add_subcommand("print", "Print the canonical text of layouts");
    print.add_option("FILE", print_.layout, "A layout's text, or a definition")
        ->required()
        ->type_name("");
    print.add_option("--row", print_.row, "Which row of the file; else all")->type_name("NAME");
    print.add_flag("--fingerprint", print_.fingerprint, "Print the fingerprints instead");
    print.add_flag("--named", print_.named, "Print the row's name also where it is the only one");
    addJson(print, print_);
    runs(print, printLayout, print_);

    CLI::App& diff = *layout.add_subcommand(
        "diff",
        "Tell what becomes of rows of OLD in NEW. Exits with 0 for the same, 1 for convertible\n"
        "without loss, 2 with loss, 3 for refused");
    diff.add_option("OLD", layoutDiff_.layout, "The layout that rows have")
        ->required()
        ->type_name("");
    diff.add_option("NEW", layoutDiff_.newLayout, "The layout that they are to have")
        ->required()
        ->type_name("");
    diff.add_option("--row", layoutDiff_.row, "Which row of the files; else all, by name")
        ->type_name("NAME");
    addRules(diff, layoutDiff_.aliases, layoutDiff_.required);
    addJson(diff, layoutDiff_);
    addColour(diff, layoutDiff_);
    runs(diff, diffLayouts, layoutDiff_);

    CLI::App& generate =
        *app_.add_subcommand("generate", "Make a C++ header of declared layouts from a definition");
    generate.add_option("DEFINITION", generate_.definition, "The definition's file")
        ->required()
        ->type_name("");
    generate.add_option("-o,--output", generate_.output, "Write to this file, whole or not at all")
        ->type_name("FILE");
    generate.add_option("--namespace", generate_.space, "The C++ namespace, if another")
        ->type_name("NAME");
    runs(generate, generateHeader, generate_);
  }

  CLI::App& addText(CLI::App& to, const char* name, const char* what, const char* argument,
                    int (*function)(const TextOptions&), TextOptions& options, int least) {
    CLI::App& command = *to.add_subcommand(name, what);
    command.add_option(argument, options.texts)
        ->required()
        ->expected(least, 1 << 20)
        ->type_name("");
    addJson(command, options);
    runs(command, function, options);
    return command;
  }

  void addTextCommands() {
    addText(app_, "address", "Show addresses in both text forms", "ADDRESS", parseAddresses,
            addresses_, 1);
    CLI::App& prefix = *app_.add_subcommand("prefix", "Show, order and test prefixes");
    prefix.require_subcommand(1);
    addText(prefix, "parse", "Show prefixes in both text forms", "PREFIX", parsePrefixes, parse_,
            1);
    addText(prefix, "contains",
            "Tell whether the first contains the others, which may be addresses too", "PREFIX",
            containsPrefixes, contains_, 2);
    addText(prefix, "order", "Print prefixes in order, the more specific one first", "PREFIX",
            orderPrefixes, order_, 1);
    CLI::App& query = *app_.add_subcommand(
        "query", "Show the canonical text of a query, its name and its output type");
    query.add_option("QUERY", query_.texts, "The query's text; - reads it from standard input")
        ->required()
        ->expected(1)
        ->type_name("");
    addJson(query, query_);
    runs(query, describeQuery, query_);
  }

  /// A publisher's address, and how long to wait for it.
  static void addPublisher(CLI::App& command, PublisherOptions& options) {
    command
        .add_option("ADDRESS", options.address,
                    "Where the publisher is: unix:/run/korvo/agent, or on a cluster of etcd\n"
                    "etcd://HOST:PORT,.../SYSTEM/PUBLISHER")
        ->required()
        ->type_name("");
    addPatience(command, options);
  }
  static void addPatience(CLI::App& command, PublisherOptions& options) {
    command
        .add_option("--timeout", options.patience, "How long an answer may take; 10 if not said")
        ->check(CLI::Range(1U, 86400U))
        ->type_name("SECONDS");
  }
  static void addTable(CLI::App& command, std::string& table) {
    command.add_option("TABLE", table, "The table's name")->required()->type_name("");
  }

  void addTableCommands() {
    CLI::App& list =
        *app_.add_subcommand("tables", "Tell what tables a process publishes, and to whom");
    addPublisher(list, tables_);
    list.add_flag("--layouts", tables_.layouts, "Print the texts of the layouts, too");
    addJson(list, tables_);
    addColour(list, tables_);
    runs(list, listTables, tables_);

    CLI::App& get = *app_.add_subcommand("get", "Show rows of a published table as they are now");
    addPublisher(get, get_);
    addTable(get, get_.table);
    get.add_option("OID", get_.oid, "The row of this oid only")->type_name("");
    get.add_option("--where", get_.where, "Rows with this value only")->type_name("COLUMN=VALUE");
    get.add_option("--covers", get_.covers,
                   "Rows whose prefix covers this address or prefix, the widest first")
        ->type_name("ADDRESS");
    addJson(get, get_);
    addColour(get, get_);
    runs(get, getRows, get_);

    CLI::App& watch = *app_.add_subcommand(
        "watch", "Show the changes of a published table as they come, on a terminal the table");
    addPublisher(watch, watch_);
    addTable(watch, watch_.table);
    watch.add_flag("--changes", watch_.changesOnly, "Leave out the rows that are there at first");
    watch.add_flag("--lines", watch_.lines, "Print lines on a terminal, too");
    watch.add_option("--first", watch_.limit, "End after that many lines")->type_name("N");
    addJson(watch, watch_);
    addColour(watch, watch_);
    runs(watch, watchTable, watch_);

    CLI::App& record = *app_.add_subcommand(
        "record", "Write what a process publishes to a file, with the times, until a signal comes");
    addPublisher(record, record_);
    record.add_option("TABLE", record_.tables, "These tables; else all")->type_name("");
    record
        .add_option("-o,--output", record_.output,
                    "The file, which must not be there yet; - is standard output")
        ->required()
        ->type_name("FILE");
    record.add_option("--first", record_.limit, "End after that many batches")->type_name("N");
    runs(record, recordTables, record_);

    CLI::App& replay =
        *app_.add_subcommand("replay", "Publish what was recorded, or print it with its times");
    replay.add_option("FILE", replay_.file, "The recording; - is standard input")
        ->required()
        ->type_name("");
    replay
        .add_option("ADDRESS", replay_.address,
                    "Where to publish: unix:/run/korvo/agent. Without it changes are printed")
        ->type_name("");
    CLI::Option* const speed =
        replay.add_option("--speed", replay_.speed, "So many times as fast as it was recorded")
            ->type_name("N");
    replay.add_flag("--as-fast-as-possible", replay_.asFastAsPossible, "Without pauses")
        ->excludes(speed);
    replay
        .add_option("--subscribers", replay_.subscribers,
                    "Publish the first batch, and go on once there are that many")
        ->type_name("N");
    replay.add_flag("--end", replay_.ends, "End when all subscribers have all");
    addJson(replay, replay_);
    runs(replay, replayTables, replay_);

    CLI::App& bridge = *app_.add_subcommand(
        "bridge",
        "Publish at TO what is published at FROM, as it is, until a signal comes. One of them is\n"
        "a socket and the other a cluster, or both are either");
    bridge.add_option("FROM", bridge_.address, "Where the publisher is")->required()->type_name("");
    bridge.add_option("TO", bridge_.target, "Where to publish")->required()->type_name("");
    bridge.add_option("TABLE", bridge_.tables, "These tables; else all")->type_name("");
    addPatience(bridge, bridge_);
    bridge.add_flag("-q,--quiet", bridge_.quiet, "Say nothing while it goes");
    addJson(bridge, bridge_);
    runs(bridge, bridgeTables, bridge_);
  }

  CLI::App app_;
  std::function<int()> chosen_;
  CheckOptions check_;
  ShowOptions show_;
  AnnotateOptions annotate_;
  DiffOptions diff_;
  ConvertOptions convert_;
  RowOptions stat_;
  LayoutOptions print_;
  LayoutOptions layoutDiff_;
  GenerateOptions generate_;
  TextOptions addresses_;
  TextOptions parse_;
  TextOptions contains_;
  TextOptions order_;
  TextOptions query_;
  TablesOptions tables_;
  GetOptions get_;
  WatchOptions watch_;
  RecordOptions record_;
  ReplayOptions replay_;
  BridgeOptions bridge_;
};

/// Otherwise the first file that is opened would take a closed stream's place.
void openMissingStreams(int, char**, char**) {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
      // Reading where one writes, and the other way round: every use of it fails.
      open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // NOLINT: kept open
    }
  }
}

/// Before libraries are initialized, some of which open files then.
[[gnu::section(".preinit_array"), gnu::used]] void (*const atStart)(int, char**,
                                                                    char**) = openMissingStreams;

int mistake(const CommandLine& commandLine, const std::string& what) {
  complain(what + " (see " + commandLine.name() + " --help)");
  return statusUsage;
}

}  // namespace

int main(int argc, char** argv) {
  CommandLine commandLine;
  try {
    return commandLine.run(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() != 0) return mistake(commandLine, e.what());
    const int status = commandLine.exit(e);  // --help is no mistake
    if (std::fflush(nullptr) == 0 && std::cout.flush()) return status;
    complain("the output cannot be written");
    return statusNoOutput;
  } catch (const Failure& e) {
    if (e.status() == statusUsage) return mistake(commandLine, e.what());
    complain(e.what());
    return e.status();
  } catch (const std::bad_alloc&) {
    std::fputs("korvo: out of memory\n", stderr);
    return statusNoOutput;
  } catch (const std::exception& e) {
    complain(e.what());
    return statusBadData;
  }
}
