#include <Korvo/TableSubscriber.h>

#include <algorithm>
#include <random>
#include <system_error>
#include <utility>

#include "StreamLink.h"
#include "TableEngines.h"
#include "TableTrace.h"
#include "TableWire.h"
#include "UnixSocket.h"

namespace Korvo {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

constexpr milliseconds shortestHeartbeat{100};
constexpr milliseconds longestStep{1000};
constexpr milliseconds firstPause{50};
constexpr milliseconds longestPause{5000};
constexpr const char* thisFile = "components/tables/src/TableSubscriber.cpp";

}  // namespace

/// The subscription as a unit: connects, and works off what comes.
class TableSubscriber::Impl final : public Schedulable,
                                    public std::enable_shared_from_this<Impl>,
                                    private TableLink::User {
 public:
  Impl(const KoPtr<Scheduler>& loop, const Options& options);
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void connect(std::shared_ptr<TableSource> source);
  void connect(std::shared_ptr<ByteConnector> connector);
  void connect(const std::string& address);
  void end() noexcept;
  void add(AnyTable& table, const ConversionRules& rules);
  Status status() const;

  std::function<void(const Problem&)> problemTold;

 private:
  /// Tells a member of the time.
  class Timer final : private Velto::Platform::TimeoutHandler {
   public:
    Timer(Impl& impl, void (Impl::*told)())
        : impl_(impl), told_(told), control_(impl.scheduler()->getTimerControl(this)) {}
    void timeoutIs(nanoseconds delay) { control_->timeoutIs(delay); }
    void cancel() { control_->cancel(); }
    bool pending() const { return control_->pending(); }

   private:
    void onTimeout() override { (impl_.*told_)(); }
    Impl& impl_;
    void (Impl::*told_)();
    std::unique_ptr<Velto::Platform::TimerControl> control_;
  };

  void linkHasWork() override { runnableIs(true); }
  bool linkShouldYield() override { return shouldYield(); }
  void run(bool arg) override;
  void tryToConnect();
  void work();
  void lose(std::string reason) noexcept;
  void settleLoss() noexcept;
  void retryLater();
  void heartbeat();
  void retry();
  void removeStaleRows();

  const Options options_;
  detail::TableCopies copies_;
  std::shared_ptr<TableSource> source_;
  std::unique_ptr<TableLink> link_;
  bool wantsConnection_ = false;
  bool isLossDue_ = false;  ///< the link was lost, and not all has been done about it
  bool isGone_ = false;
  Status status_;
  milliseconds step_;
  milliseconds pause_ = firstPause;
  std::mt19937 random_{std::random_device()()};
  Timer heartbeatTimer_{*this, &Impl::heartbeat};
  Timer retryTimer_{*this, &Impl::retry};
  Timer staleTimer_{*this, &Impl::removeStaleRows};
};

TableSubscriber::Impl::Impl(const KoPtr<Scheduler>& loop, const Options& options)
    : Schedulable(options.name.empty() && loop != nullptr ? loop->name() : options.name, loop),
      options_(options),
      copies_(options.mostWaitingBytes, options.takesOtherLayouts),
      step_(std::min(longestStep, options.heartbeat / 5)) {
  if (name().size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + name() + ")");
  }
  if (options.heartbeat < shortestHeartbeat || options.heartbeat > std::chrono::minutes(1)) {
    throw KoInvalidArgument("Heartbeat out of range - (" +
                            std::to_string(options.heartbeat.count()) + ")");
  }
  clientReadyIs(true);
}

void TableSubscriber::Impl::connect(std::shared_ptr<TableSource> source) {
  if (link_ != nullptr) lose("another address");
  source_ = std::move(source);
  wantsConnection_ = true;
  runnableIs(true);
}

void TableSubscriber::Impl::connect(std::shared_ptr<ByteConnector> connector) {
  connect(detail::sourceOver(std::move(connector), copies_, name(), options_.heartbeat));
}

void TableSubscriber::Impl::connect(const std::string& address) {
  if (detail::isSocketAddress(address)) {
    connect(detail::connectorTo(address, scheduler()));
  } else {
    connect(detail::engineFor(address)->source(address, scheduler(), options_));
  }
}

void TableSubscriber::Impl::end() noexcept {
  isGone_ = true;
  if (link_ != nullptr) link_->sayGoodbye();
  lose("the subscription ended");
  copies_.release();
  heartbeatTimer_.cancel();
  retryTimer_.cancel();
  staleTimer_.cancel();
  runnableIs(false);
}

void TableSubscriber::Impl::add(AnyTable& table, const ConversionRules& rules) {
  copies_.add(detail::TableAccess::store(table), rules);
  if (link_ != nullptr) link_->tablesChange();
}

TableSubscriber::Status TableSubscriber::Impl::status() const {
  Status status = status_;
  const detail::TableCopies::Counts& counts = copies_.counts();
  status.isConnected = link_ != nullptr;
  status.publisher = copies_.publisher();
  status.marks = counts.marks;
  status.merged = counts.merged;
  status.refusedRows = counts.refusedRows;
  status.digestFaults = counts.digestFaults;
  return status;
}

void TableSubscriber::Impl::run(bool) {
  const std::shared_ptr<Impl> kept = shared_from_this();
  try {
    if (link_ == nullptr && wantsConnection_ && !isLossDue_) tryToConnect();
    if (link_ != nullptr) work();
  } catch (const std::bad_alloc&) {
    // What was under way comes again.
    lose("no memory");
  }
  const std::vector<detail::TableCopies::Problem> problems = copies_.takeProblems();
  for (const std::string& event : copies_.takeEvents()) {
    detail::trace(debug_, detail::linkLevel, thisFile, "run",
                  [&](std::ostream& out) { out << ": " << event; });
  }
  for (const detail::TableCopies::Problem& problem : problems) {
    detail::trace(debug_, detail::refusalLevel, thisFile, "run", [&](std::ostream& out) {
      out << ": " << (problem.table.empty() ? "all tables" : problem.table);
      if (problem.oid) out << ", row " << *problem.oid;
      out << ": " << problem.text;
    });
  }
  for (const detail::TableCopies::Problem& problem : problems) {
    if (isGone_ || !problemTold) return;
    const auto told = problemTold;
    told({problem.table, problem.oid, problem.text});
  }
}

void TableSubscriber::Impl::tryToConnect() {
  wantsConnection_ = false;
  heartbeatTimer_.timeoutIs(step_);
  try {
    link_ = source_->connect(copies_, *this);
  } catch (const std::system_error& error) {
    return lose(error.what());
  } catch (const KoBaseException& error) {
    return lose(error.what());
  }
  ++status_.connections;
}

void TableSubscriber::Impl::work() {
  std::optional<std::string> end = link_->work();
  if (copies_.hasMark()) {
    pause_ = firstPause;
    staleTimer_.cancel();
  }
  if (end) lose(std::move(*end));
}

/// What was under way is gone at once; what follows from that is made up for when memory is short.
void TableSubscriber::Impl::lose(std::string reason) noexcept {
  status_.lastReason = std::move(reason);
  link_.reset();
  isLossDue_ = true;
  settleLoss();
}

void TableSubscriber::Impl::settleLoss() noexcept {
  try {
    copies_.end(status_.lastReason);
    if (!isGone_) {
      if (options_.staleLimit && !staleTimer_.pending())
        staleTimer_.timeoutIs(*options_.staleLimit);
      retryLater();
    }
    isLossDue_ = false;
    heartbeatTimer_.cancel();
  } catch (const std::bad_alloc&) {
    // The next heartbeat tries again.
  }
}

/// Full jitter: subscribers that lost one publisher do not come back together.
void TableSubscriber::Impl::retryLater() {
  const nanoseconds longest = pause_;
  pause_ = std::min(2 * pause_, longestPause);
  retryTimer_.timeoutIs(
      nanoseconds(std::uniform_int_distribution<nanoseconds::rep>(0, longest.count())(random_)));
}

void TableSubscriber::Impl::retry() {
  wantsConnection_ = true;
  runnableIs(true);
}

void TableSubscriber::Impl::heartbeat() {
  const std::shared_ptr<Impl> kept = shared_from_this();
  try {
    heartbeatTimer_.timeoutIs(step_);
    if (isLossDue_) return settleLoss();
    if (link_ == nullptr) return;
    std::optional<std::string> end = link_->timePasses(step_);
    if (end) return lose(std::move(*end));
  } catch (const std::bad_alloc&) {
    return lose("no memory");
  }
  runnableIs(true);
}

void TableSubscriber::Impl::removeStaleRows() {
  try {
    copies_.removeStaleRows();
  } catch (const std::bad_alloc&) {
    staleTimer_.timeoutIs(*options_.staleLimit);
  }
}

// ---------------------------------------------------------------------------------------------

TableSubscriber::TableSubscriber(const std::string& address, const KoPtr<Scheduler>& scheduler,
                                 const Options& options)
    : TableSubscriber(scheduler, options) {
  impl_->connect(address);
}

TableSubscriber::TableSubscriber(const KoPtr<Scheduler>& scheduler, const Options& options)
    : impl_(std::make_shared<Impl>(scheduler, options)) {}

TableSubscriber::~TableSubscriber() {
  impl_->end();
}

void TableSubscriber::connect(std::shared_ptr<ByteConnector> connector) {
  impl_->connect(std::move(connector));
}

void TableSubscriber::add(AnyTable& table, const ConversionRules& rules) {
  impl_->add(table, rules);
}

TableSubscriber::Status TableSubscriber::status() const {
  return impl_->status();
}

void TableSubscriber::onProblem(std::function<void(const Problem& problem)> told) {
  impl_->problemTold = std::move(told);
}

void TableSubscriber::debugChannelIs(Velto::DebugChannel* channel, bool owned) {
  impl_->debugChannelIs(channel, owned);
}

}  // namespace Korvo
