#include "agent.h"

#include <memory>
#include <sstream>

#include "progress.h"
#include "rowLink.h"

namespace netdb {
namespace {

using Korvo::EventLoop;
using Korvo::KoPtr;

/// The levels of the library's traces: invocations, readiness and runs, queueing and exits.
constexpr unsigned int allLevels = 1U << 6 | 1U << 8 | 1U << 9;

/// A unit of an agent.
class Unit : public Korvo::Schedulable {
 public:
  Unit(const char* name, const KoPtr<EventLoop>& loop, TraceChannel& trace)
      : Schedulable(name, loop) {
    debugChannelIs(&trace, false);
  }

 protected:
  /// Ends the run of the scheduler.
  void stop() { scheduler_->activeIs(false); }
};

// ---------------------------------------------------------------------------------------------
// Publishing: the loader makes rows while the sender has room, the writer sends them

/// Sends what the loader has made. Its client is the socket, which is ready while it takes rows.
class Writer : public Unit, private Velto::Platform::FdEventHandler {
 public:
  Writer(const KoPtr<EventLoop>& loop, TraceChannel& trace, int socket,
         const std::function<void()>& report)
      : Unit("writer", loop, trace),
        sender_(socket),
        report_(report),
        watch_(loop->getFdControl(this)) {
    watch_->fdIs(socket);
    clientReadyIs(true);
  }

  RowSender& sender() { return sender_; }
  /// The unit that waits until everything has been sent.
  void loaderIs(Schedulable& loader) { loader_ = &loader; }
  /// No more rows will be added.
  void endIs(bool end) { end_ = end; }

 private:
  void run(bool) override {
    if (!sender_.send(false) || (end_ && !sender_.sendEnd(false))) return awaitSocket();
    report_();
    if (end_) return stop();
    loader_->clientReadyIs(true);
  }

  void awaitSocket() {
    clientReadyIs(false);
    runnableIs(true);
    watch_->writableWantedIs(true);
  }
  void onWritable() override {
    watch_->writableWantedIs(false);  // it is nearly always
    clientReadyIs(true);
  }
  void onReadable() override {}

  RowSender sender_;
  const std::function<void()>& report_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
  Schedulable* loader_ = nullptr;
  bool end_ = false;
};

/// Makes rows, a batch in each turn, or what there is of one when the time slice is over: the rows
/// of a slow input do not wait for a whole batch.
class Loader : public Unit {
 public:
  Loader(const KoPtr<EventLoop>& loop, TraceChannel& trace, RowSource& source, Writer& writer)
      : Unit("loader", loop, trace), source_(source), writer_(writer) {
    writer.loaderIs(*this);
    clientReadyIs(true);
    runnableIs(true);
  }

 private:
  static constexpr int rowsBetweenLooks = 16;  // at the clock, which costs as much as part of a row

  void run(bool) override {
    bool more = true;
    do {
      more = addRows(rowsBetweenLooks);
    } while (more && !writer_.sender().full() && !shouldYield());
    clientReadyIs(false);
    runnableIs(more);
    writer_.endIs(!more);
    writer_.runnableIs(true);
  }

  /// False when there are no more rows.
  bool addRows(int count) {
    for (PrefixRow row; count != 0; --count) {
      if (!source_.next(row)) return false;
      writer_.sender().add(row);
    }
    return true;
  }

  RowSource& source_;
  Writer& writer_;
};

// ---------------------------------------------------------------------------------------------
// Receiving

/// Takes what has arrived. Its client is the socket, which is ready while there is something.
class Reader : public Unit, private Velto::Platform::FdEventHandler {
 public:
  Reader(const KoPtr<EventLoop>& loop, TraceChannel& trace, int socket, Subscriber& subscriber,
         const std::function<void()>& report)
      : Unit("reader", loop, trace),
        receiver_(socket),
        subscriber_(subscriber),
        report_(report),
        watch_(loop->getFdControl(this)) {
    watch_->fdIs(socket);
    watch_->readableWantedIs(true);
    runnableIs(true);
  }

 private:
  void run(bool) override {
    do {
      const RowReceiver::Result result = receiver_.receive(false);
      if (result == RowReceiver::Result::closed) return stop();
      for (const RowReceiver::Packet& packet : receiver_.packets()) {
        subscriber_.take(packet.bytes, packet.length);
      }
      report_();
      clientReadyIs(receiver_.full());
    } while (clientReady() && !shouldYield());
    runnableIs(true);
  }

  void onReadable() override { clientReadyIs(true); }
  void onWritable() override {}

  RowReceiver receiver_;
  Subscriber& subscriber_;
  const std::function<void()>& report_;
  std::unique_ptr<Velto::Platform::FdControl> watch_;
};

// ---------------------------------------------------------------------------------------------
// Lookups

class Lookups : public Unit {
 public:
  using Found = std::function<void(std::size_t, const PrefixRow&)>;

  Lookups(const KoPtr<EventLoop>& loop, TraceChannel& trace, const RowTable& table,
          const std::vector<Korvo::IpGenAddr>& addrs, const Found& found)
      : Unit("lookups", loop, trace), table_(table), addrs_(addrs), found_(found) {
    clientReadyIs(true);
    runnableIs(!addrs.empty());
  }

 private:
  void run(bool) override {
    do {
      found_(next_, table_.lookup(addrs_[next_]));
      ++next_;
    } while (next_ != addrs_.size() && !shouldYield());
    runnableIs(next_ != addrs_.size());
  }

  const RowTable& table_;
  const std::vector<Korvo::IpGenAddr>& addrs_;
  const Found& found_;
  std::size_t next_ = 0;
};

}  // namespace

void TraceChannel::trace(std::ostringstream& text, unsigned int, const char* file,
                         unsigned int line, const char* function) {
  complain(Korvo::sysname() + ' ' + agent_ + ": " + file + ':' + std::to_string(line) + ' ' +
           function + ": " + text.str());
}

Agent::Agent(const std::string& name, bool traced)
    : trace_(name), loop_(std::make_shared<EventLoop>(name)) {
  trace_.levelMaskIs(traced ? allLevels : 0);
  loop_->debugChannelIs(&trace_, false);
}

void Agent::runUntilStopped() {
  loop_->activeIs(true);
  loop_->run();
}

void Agent::publish(RowSource& source, int socket, const std::function<void()>& report) {
  Writer writer(loop_, trace_, socket, report);
  const Loader loader(loop_, trace_, source, writer);
  runUntilStopped();
}

void Agent::receive(int socket, Subscriber& subscriber, const std::function<void()>& report) {
  const Reader reader(loop_, trace_, socket, subscriber, report);
  runUntilStopped();
}

void Agent::lookUp(const RowTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
                   const std::function<void(std::size_t, const PrefixRow&)>& found) {
  const Lookups lookups(loop_, trace_, table, addrs, found);
  loop_->activeIs(true);
  loop_->run(0, 0.0, true);
}

}  // namespace netdb
