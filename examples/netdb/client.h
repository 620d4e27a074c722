#pragma once

// A server's rows, in a process of one's own.

#include <ostream>
#include <string>

#include "agent.h"
#include "prefixRow.h"

namespace netdb {

/// Fills the table with the rows of the server at the address, once it has all of them. False if
/// there is no server; throws std::runtime_error if it does not give its rows, or ends before.
bool takeRows(Agent& agent, PrefixTable& table, const std::string& address);

/// Writes a line for each row that changes at the server, and for each change of what is known of
/// it, until a signal ends the agent. Waits for a server that is not there, also for one that
/// comes back. Throws std::runtime_error if the server's rows cannot be taken.
void watchRows(Agent& agent, const std::string& address, std::ostream& out);

}  // namespace netdb
