#pragma once

// The commands, with what the command line can tell them. Each gives the program's exit status, or
// throws Failure.

#include "output.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvotool {

/// What all commands have.
struct CommonOptions {
  bool json = false;
  ColourChoice colour = ColourChoice::automatic;
};

/// Where rows come from.
struct RowOptions : CommonOptions {
  std::string layout;  ///< a layout's text or a definition; may be empty where that makes sense
  std::string row;     ///< which row of it; empty for all
  bool plain = false;  ///< gzip and zstd are not unpacked
  std::vector<std::string> files;
};

struct CheckOptions : RowOptions {
  bool noHostBits = false;
  bool quiet = false;
};
int checkRows(const CheckOptions& options);

struct ShowOptions : RowOptions {
  std::vector<std::string> columns;  ///< empty for all
  std::optional<std::uint32_t> oid;
  std::uint64_t limit = 0;  ///< 0 for all
};
int showRows(const ShowOptions& options);

struct AnnotateOptions : RowOptions {
  std::optional<std::uint32_t> oid;
  std::optional<std::uint64_t> at;  ///< the byte where the row begins
  std::uint64_t limit = 0;          ///< 0 for all
};
int annotateRows(const AnnotateOptions& options);

struct DiffOptions : RowOptions {
  std::string newLayout;  ///< of the second file; empty if it is that of the first
  bool inOrder = false;   ///< the first with the first, whatever their oids
  bool quiet = false;
};
int diffRows(const DiffOptions& options);

struct ConvertOptions : RowOptions {
  std::string from;  ///< rows, json, csv
  std::string as;
  std::string to;  ///< the layout of the result; empty if it is that of the input
  std::string toRow;
  std::string output;                 ///< empty for standard output
  std::vector<std::string> aliases;   ///< column=former
  std::vector<std::string> required;  ///< columns
};
int convertRows(const ConvertOptions& options);

int statRows(const RowOptions& options);

struct LayoutOptions : CommonOptions {
  std::string layout;
  std::string newLayout;
  std::string row;
  bool fingerprint = false;
  bool named = false;  ///< names also where there is one row only
  std::vector<std::string> aliases;
  std::vector<std::string> required;
};
int printLayout(const LayoutOptions& options);
int diffLayouts(const LayoutOptions& options);

struct GenerateOptions {
  std::string definition;
  std::string output;  ///< empty for standard output
  std::string space;   ///< namespace, in place of the definition's
};
int generateHeader(const GenerateOptions& options);

struct TextOptions : CommonOptions {
  std::vector<std::string> texts;
};
int parseAddresses(const TextOptions& options);
int parsePrefixes(const TextOptions& options);
/// The first is the prefix, the others are addresses or prefixes.
int containsPrefixes(const TextOptions& options);
int orderPrefixes(const TextOptions& options);
int describeQuery(const TextOptions& options);

// ---------------------------------------------------------------------------------------------
// Tables of other processes. A build without Korvo::Tables says so.

struct PublisherOptions : CommonOptions {
  std::string address;
  std::uint32_t patience = 10;  ///< seconds that an answer may take
};

struct TablesOptions : PublisherOptions {
  bool layouts = false;  ///< with their texts
};
int listTables(const TablesOptions& options);

struct GetOptions : PublisherOptions {
  std::string table;
  std::optional<std::uint32_t> oid;
  std::string where;   ///< column=value
  std::string covers;  ///< an address or a prefix
};
int getRows(const GetOptions& options);

struct WatchOptions : PublisherOptions {
  std::string table;
  bool changesOnly = false;  ///< not the rows that are there
  bool lines = false;        ///< on a terminal, too
  std::uint64_t limit = 0;   ///< 0 for all
};
int watchTable(const WatchOptions& options);

struct RecordOptions : PublisherOptions {
  std::vector<std::string> tables;  ///< empty for all
  std::string output;
  std::uint64_t limit = 0;  ///< batches; 0 for all
};
int recordTables(const RecordOptions& options);

struct ReplayOptions : CommonOptions {
  std::string file;
  std::string address;  ///< empty: its changes are printed
  double speed = 1;
  bool asFastAsPossible = false;
  std::uint32_t subscribers = 0;  ///< it begins when so many are there
  bool ends = false;              ///< and not on a signal alone
};
int replayTables(const ReplayOptions& options);

struct BridgeOptions : PublisherOptions {
  std::string target;               ///< where it is published, too
  std::vector<std::string> tables;  ///< empty for all
  bool quiet = false;
};
int bridgeTables(const BridgeOptions& options);

}  // namespace korvotool
