#include <Korvo/TableSubscriber.h>

#include <algorithm>
#include <array>
#include <random>
#include <system_error>
#include <utility>

#include "SubscriberSession.h"
#include "UnixSocket.h"

namespace Korvo {

using detail::milliseconds;
using detail::SubscriberSession;
using detail::TableStore;
using std::chrono::nanoseconds;

namespace {

constexpr std::size_t turnBytes = 256 * 1024;
constexpr std::size_t readBytes = 64 * 1024;
constexpr milliseconds shortestHeartbeat{100};
constexpr milliseconds longestStep{1000};
constexpr milliseconds firstPause{50};
constexpr milliseconds longestPause{5000};

}  // namespace

/// The subscription as a unit: connects, and works off what comes.
class TableSubscriber::Impl final : public Schedulable,
                                    public std::enable_shared_from_this<Impl>,
                                    private ByteStream::User {
 public:
  Impl(const KoPtr<Scheduler>& loop, const Options& options);
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void connect(std::shared_ptr<ByteConnector> connector);
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

  void streamIsReady() override { runnableIs(true); }
  void run(bool arg) override;
  void tryToConnect();
  void read();
  void write();
  void lose(std::string reason) noexcept;
  void settleLoss() noexcept;
  void retryLater();
  void heartbeat();
  void retry();
  void removeStaleRows();

  const Options options_;
  detail::Subscription subscription_;
  std::shared_ptr<ByteConnector> connector_;
  std::unique_ptr<SubscriberSession> session_;
  std::unique_ptr<ByteStream> stream_;
  bool wantsConnection_ = false;
  bool wasOver_ = false;
  bool isLossDue_ = false;  ///< the link was lost, and not all has been done about it
  bool isGone_ = false;
  Status status_;
  milliseconds step_;
  milliseconds pause_ = firstPause;
  std::mt19937 random_{std::random_device()()};
  std::vector<byte_t> buffer_ = std::vector<byte_t>(readBytes);
  Timer heartbeatTimer_{*this, &Impl::heartbeat};
  Timer retryTimer_{*this, &Impl::retry};
  Timer staleTimer_{*this, &Impl::removeStaleRows};
};

TableSubscriber::Impl::Impl(const KoPtr<Scheduler>& loop, const Options& options)
    : Schedulable(options.name.empty() && loop != nullptr ? loop->name() : options.name, loop),
      options_(options),
      step_(std::min(longestStep, options.heartbeat / 5)) {
  if (name().size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + name() + ")");
  }
  if (options.heartbeat < shortestHeartbeat || options.heartbeat > std::chrono::minutes(1)) {
    throw KoInvalidArgument("Heartbeat out of range - (" +
                            std::to_string(options.heartbeat.count()) + ")");
  }
  subscription_.name = name();
  subscription_.heartbeat = options.heartbeat;
  subscription_.mostWaiting = options.mostWaitingBytes;
  subscription_.takesOtherLayouts = options.takesOtherLayouts;
  clientReadyIs(true);
}

void TableSubscriber::Impl::connect(std::shared_ptr<ByteConnector> connector) {
  if (session_ != nullptr) lose("another address");
  connector_ = std::move(connector);
  wantsConnection_ = true;
  runnableIs(true);
}

void TableSubscriber::Impl::end() noexcept {
  isGone_ = true;
  try {
    if (session_ != nullptr) {
      session_->end(detail::ByeReason::closing, "the subscriber ended");
      write();
    }
  } catch (const std::bad_alloc&) {
    // The end of the connection tells the publisher.
  }
  if (session_ != nullptr) session_->takeEndText();
  lose("the subscription ended");
  for (const auto& copy : subscription_.copies) {
    if (copy->store() != nullptr) copy->store()->isSubscribed = false;
  }
  heartbeatTimer_.cancel();
  retryTimer_.cancel();
  staleTimer_.cancel();
  runnableIs(false);
}

void TableSubscriber::Impl::add(AnyTable& table, const ConversionRules& rules) {
  TableStore& store = detail::TableAccess::store(table);
  store.checkThread();
  if (store.name().size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + store.name() + ")");
  }
  if (store.isPublished || store.isSubscribed) {
    throw KoInvalidArgument("Published or subscribed already - (" + store.name() + ")");
  }
  std::erase_if(subscription_.copies, [](const auto& copy) { return copy->store() == nullptr; });
  for (const auto& copy : subscription_.copies) {
    if (copy->store()->name() == store.name()) {
      throw KoInvalidArgument("Another table has the name - (" + store.name() + ")");
    }
  }
  if (subscription_.copies.size() >= detail::maxTables) {
    throw KoInvalidArgument("More than 256 tables - (" + store.name() + ")");
  }
  static_cast<void>(LayoutComparison(store.layout(), store.layout(), rules));
  auto copy = std::make_unique<detail::TableCopy>(store, rules);
  subscription_.copies.reserve(subscription_.copies.size() + 1);
  const bool hasRows = store.size() != 0;
  store.stateIs(hasRows ? TableState::stale : TableState::loading, "not connected");
  store.hasFirstRows = hasRows;
  store.sourceIs(subscription_.source);
  store.isSubscribed = true;
  subscription_.copies.push_back(std::move(copy));
  if (session_ != nullptr) {
    session_->end(detail::ByeReason::changed, "another table is subscribed");
    runnableIs(true);
  }
}

TableSubscriber::Status TableSubscriber::Impl::status() const {
  Status status = status_;
  status.isConnected = session_ != nullptr;
  if (session_ != nullptr && !session_->publisher().empty()) {
    status.publisher = session_->publisher();
  }
  status.marks = subscription_.marks;
  status.merged = subscription_.merged;
  status.refusedRows = subscription_.refused;
  status.digestFaults = subscription_.digestFaults;
  return status;
}

void TableSubscriber::Impl::run(bool) {
  const std::shared_ptr<Impl> kept = shared_from_this();
  try {
    if (session_ == nullptr && wantsConnection_ && !isLossDue_) tryToConnect();
    if (session_ != nullptr) read();
    if (session_ != nullptr) write();
  } catch (const std::bad_alloc&) {
    // What was under way comes again.
    lose("no memory");
  }
  const std::vector<detail::Subscription::Problem> problems =
      std::exchange(subscription_.problems, {});
  for (const detail::Subscription::Problem& problem : problems) {
    if (isGone_ || !problemTold) return;
    const auto told = problemTold;
    told({problem.table, problem.oid, problem.text});
  }
}

void TableSubscriber::Impl::tryToConnect() {
  wantsConnection_ = false;
  heartbeatTimer_.timeoutIs(step_);
  try {
    std::unique_ptr<ByteStream> stream = connector_->connect();
    session_ = std::make_unique<SubscriberSession>(subscription_);
    stream_ = std::move(stream);
  } catch (const std::system_error& error) {
    lose(error.what());
    return;
  }
  ++status_.connections;
  wasOver_ = false;
  stream_->userIs(this);
}

void TableSubscriber::Impl::read() {
  for (std::size_t count = 0; count < turnBytes;) {
    const ByteStream::Result result = stream_->read(buffer_.data(), buffer_.size());
    session_->receive({buffer_.data(), result.count});
    if (session_->hasMark()) {
      pause_ = firstPause;
      staleTimer_.cancel();
    }
    if (!result.isOpen) return lose(result.reason);
    count += result.count;
    if (result.count < buffer_.size() || shouldYield()) break;
  }
  session_->received();
}

void TableSubscriber::Impl::write() {
  std::array<iovec, detail::OutQueue::mostParts> parts;
  while (!session_->out().empty()) {
    const int count = session_->out().next(parts, turnBytes);
    std::size_t wanted = 0;
    for (int i = 0; i < count; ++i) wanted += parts[static_cast<std::size_t>(i)].iov_len;
    const ByteStream::Result result = stream_->write(parts.data(), count);
    session_->sent(result.count);
    if (!result.isOpen) return lose(result.reason);
    if (result.count < wanted) return;
  }
  if (session_->isOver()) lose(session_->endText());
}

/// What was under way is gone at once; what follows from that is made up for when memory is short.
void TableSubscriber::Impl::lose(std::string reason) noexcept {
  if (session_ != nullptr) {
    // What the other side said before it closed tells more.
    if (!session_->endText().empty()) reason = session_->takeEndText();
    if (!session_->publisher().empty()) status_.publisher.swap(session_->publisher());
  }
  status_.lastReason = std::move(reason);
  if (stream_ != nullptr) stream_->userIs(nullptr);
  session_.reset();
  stream_.reset();
  isLossDue_ = true;
  settleLoss();
}

void TableSubscriber::Impl::settleLoss() noexcept {
  try {
    subscription_.linkIsLost(status_.lastReason);
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
    // What came while this process was held up tells that the publisher is there.
    read();
    if (session_ == nullptr) return;
    session_->timePasses(step_);
    // An end that cannot be told is not waited for.
    if (session_->isOver() && std::exchange(wasOver_, true)) return lose(session_->endText());
  } catch (const std::bad_alloc&) {
    return lose("no memory");
  }
  runnableIs(true);
}

void TableSubscriber::Impl::removeStaleRows() {
  try {
    subscription_.removeStaleRows();
  } catch (const std::bad_alloc&) {
    staleTimer_.timeoutIs(*options_.staleLimit);
  }
}

// ---------------------------------------------------------------------------------------------

TableSubscriber::TableSubscriber(const std::string& address, const KoPtr<Scheduler>& scheduler,
                                 const Options& options)
    : TableSubscriber(scheduler, options) {
  connect(detail::connectorTo(address, scheduler));
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

}  // namespace Korvo
