#pragma once

// A process of the system: its work is cut into units, which take turns in time slices on one
// scheduler. The scheduler waits for sockets, files and timers, and never polls.

#include <Korvo/EventLoop.h>

#include <string>

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

class Agent {
 public:
  /// With `traced`, the traces of the scheduler and of its units are written.
  Agent(const std::string& name, bool traced);

  const Korvo::KoPtr<Korvo::EventLoop>& loop() const { return loop_; }
  TraceChannel& trace() { return trace_; }

  /// Runs the units until one of them calls stop(), or nobody has work.
  void run(bool untilQuiet = false);
  void stop() { loop_->activeIs(false); }

 private:
  TraceChannel trace_;  // outlives the scheduler, which traces to its end
  Korvo::KoPtr<Korvo::EventLoop> loop_;
};

/// A unit of an agent.
class Unit : public Korvo::Schedulable {
 public:
  Unit(const char* name, Agent& agent) : Schedulable(name, agent.loop()) {
    debugChannelIs(&agent.trace(), false);
    clientReadyIs(true);
  }
};

}  // namespace netdb
