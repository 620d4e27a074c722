// The commands for tables of other processes, in a build that has no tables.

#include "commands.h"
#include "failure.h"

namespace korvotool {
namespace {

[[noreturn]] void fail() {
  throw Failure(statusUnavailable,
                "this build of korvo knows no tables of other processes: it was made without "
                "Korvo::Tables, which needs libuv (package libuv1-dev)");
}

}  // namespace

int listTables(const TablesOptions& /*options*/) {
  fail();
}

int getRows(const GetOptions& /*options*/) {
  fail();
}

int watchTable(const WatchOptions& /*options*/) {
  fail();
}

int recordTables(const RecordOptions& /*options*/) {
  fail();
}

int replayTables(const ReplayOptions& /*options*/) {
  fail();
}

int bridgeTables(const BridgeOptions& /*options*/) {
  fail();
}

}  // namespace korvotool
