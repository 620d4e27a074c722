#pragma once

// The rows of the files for everybody on this machine who subscribes them.

#include <Korvo/TablePublisher.h>

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent.h"
#include "inputWatch.h"
#include "loader.h"
#include "prefixRow.h"

namespace netdb {

/// Publishes what the files hold, and whenever they change, what that changes. A file with a fault
/// changes nothing: half of a file is no better than none.
class Server {
 public:
  /// Begins to read when the agent runs. Writes a line to `out` for each change. Throws
  /// std::system_error if another server listens at the address, which is like "unix:/run/netdb",
  /// or one of the paths cannot be watched.
  Server(Agent& agent, std::vector<std::string> paths, std::string address, std::ostream& out);

 private:
  void load(const std::vector<std::string>& changed);
  void loaded(const std::vector<std::string>& changed, const Loader::Result& result);
  void refuse(const std::string& reason);

  Agent& agent_;
  std::vector<std::string> paths_;
  std::string address_;
  std::ostream& out_;
  PrefixTable table_{prefixTable};
  Korvo::TablePublisher publisher_;
  InputWatch watch_;
  std::optional<Loader> loader_;
};

}  // namespace netdb
