#pragma once

// A process of the system: its work is cut into units, which take turns in time slices on one
// scheduler. The scheduler waits for the socket and never polls.
//
//   Agent agent("subscriber", false);
//   agent.receive(socket, subscriber, report);
//   agent.lookUp(table, addrs, found);

#include <Korvo/EventLoop.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "rowSource.h"
#include "rowTable.h"

namespace netdb {

/// Writes traces to standard error, a line for each: system, agent, source, function and text.
class TraceChannel : public Velto::DebugChannel {
 public:
  explicit TraceChannel(std::string agent) : agent_(std::move(agent)) {}

  void trace(std::ostringstream& text, unsigned int level, const char* file, unsigned int line,
             const char* function) override;

 private:
  std::string agent_;
};

/// What a throw leaves behind is an agent without units, which can be used again.
class Agent {
 public:
  /// With `traced`, the traces of the scheduler and of its units are written.
  Agent(const std::string& name, bool traced);

  bool traced() const { return trace_.levelMask() != 0; }

  /// Sends all rows of `source` and the end mark. `report` is called whenever some were sent.
  /// Throws what `source` throws, and std::system_error when the subscriber is gone.
  void publish(RowSource& source, int socket, const std::function<void()>& report);

  /// Receives rows until the publisher closes its end. `report` is called whenever some came.
  void receive(int socket, Subscriber& subscriber, const std::function<void()>& report);

  /// Looks up the addresses in their order and tells the number of each with its row, or a null
  /// row.
  void lookUp(const RowTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
              const std::function<void(std::size_t number, const PrefixRow& row)>& found);

 private:
  void runUntilStopped();

  TraceChannel trace_;  // outlives the scheduler, which traces to its end
  Korvo::KoPtr<Korvo::EventLoop> loop_;
};

}  // namespace netdb
