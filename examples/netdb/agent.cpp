#include "agent.h"

#include <Korvo/KorvoApi.h>

#include <sstream>

#include "progress.h"

namespace netdb {
namespace {

/// The levels of the library's traces: invocations, readiness and runs, queueing and exits.
constexpr unsigned int allLevels = 1U << 6 | 1U << 8 | 1U << 9;

}  // namespace

void TraceChannel::trace(std::ostringstream& text, unsigned int, const char* file,
                         unsigned int line, const char* function) {
  complain(Korvo::sysname() + ' ' + agent_ + ": " + file + ':' + std::to_string(line) + ' ' +
           function + ": " + text.str());
}

Agent::Agent(const std::string& name, bool traced)
    : trace_(name), loop_(std::make_shared<Korvo::EventLoop>(name)) {
  trace_.levelMaskIs(traced ? allLevels : 0);
  loop_->debugChannelIs(&trace_, false);
}

void Agent::run(bool untilQuiet) {
  loop_->activeIs(true);
  loop_->run(0, 0.0, untilQuiet);
}

}  // namespace netdb
