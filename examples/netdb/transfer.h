#pragma once

// A publisher process sends the rows of the input files to this process, which keeps them.

#include <cstdint>
#include <string>
#include <vector>

#include "rowTable.h"

namespace netdb {

class Agent;

struct TransferOptions {
  std::vector<std::string> inputs;
  bool quiet = false;  ///< no progress
};

struct TransferResult {
  std::uint64_t refusedRows = 0;
  std::uint64_t malformedLines = 0;
  std::uint64_t rowBytes = 0;
  double seconds = 0;     ///< from the first byte read to the last row kept
  bool complete = false;  ///< whether the publisher told that all rows had been sent
};

/// Starts a publisher, receives its rows into `table` and reports, on standard error, progress,
/// each malformed line, each refused row, and a stream that broke. Throws InputError if an input
/// file cannot be opened, std::system_error if the system refuses a process or a socket.
///
/// The rows are received by `agent` and sent by an agent of the publisher's own, traced like this
/// one. Without an agent, both processes work in plain loops: what the units are measured beside.
TransferResult transferRows(const TransferOptions& options, RowTable& table, Agent* agent);

}  // namespace netdb
