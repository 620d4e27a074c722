#include <Korvo/TablePublisher.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>
#include <random>
#include <system_error>
#include <utility>

#include "PublisherSession.h"
#include "TableEngines.h"
#include "TableTrace.h"
#include "TableWalk.h"
#include "UnixSocket.h"

namespace Korvo {

using detail::milliseconds;
using detail::PublisherSession;
using detail::TableStore;
using detail::TableWalk;

namespace {

/// What one connection may read and send in its turn.
constexpr std::size_t turnBytes = 64 * 1024;
constexpr std::size_t readBytes = 16 * 1024;
constexpr milliseconds shortestHeartbeat{100};
constexpr milliseconds longestStep{1000};
/// Names of former subscribers that are remembered.
constexpr std::size_t mostNames = 4096;
constexpr const char* thisFile = "components/tables/src/TablePublisher.cpp";

std::uint64_t randomEpoch() {
  std::random_device random;
  std::uint64_t epoch = 0;
  while (epoch == 0) epoch = std::uint64_t{random()} << 32 | random();
  return epoch;
}

}  // namespace

class TablePublisher::Impl final : public std::enable_shared_from_this<Impl>,
                                   private Velto::Platform::TimeoutHandler,
                                   private detail::SubscriberList {
 public:
  class Connection;
  class Outlet;
  class Published;

  Impl(const std::string& name, const KoPtr<Scheduler>& scheduler, const Options& options);

  void start();
  void end() noexcept;
  void add(AnyTable& table);
  void listen(const std::string& address);
  void accept(const std::shared_ptr<ByteListener>& listener);
  void take(std::unique_ptr<ByteStream> stream);
  void drop(Connection& connection, const std::string& reason);
  void subscriberComes(PublisherSession& session);
  void wakeAll();
  /// Sets the timer, if it is not. Without memory that is tried again in the next turn of anybody.
  void keepTime() noexcept;
  void onTimeout() override;
  /// Nothing: it is about to end, or has not begun.
  std::optional<Subscriber> statusOf(const PublisherSession& session) const;
  std::optional<Subscriber> subscriberBehind(std::uint64_t& number) const override;
  std::string lastReasonOfAll() const override { return lastReason; }

  const KoPtr<Scheduler> scheduler;
  const Options options;
  detail::Publication publication;
  std::list<std::unique_ptr<Connection>> connections;
  std::vector<std::unique_ptr<Outlet>> outlets;
  std::vector<std::unique_ptr<Published>> published;
  std::vector<std::shared_ptr<ByteListener>> listeners;
  std::unique_ptr<Velto::Platform::TimerControl> timer;
  milliseconds step;
  /// What is known of a subscriber's name.
  struct Former {
    std::uint64_t connections = 0;
    std::uint64_t last = 0;  ///< the number of the latest of them
    std::string reason;      ///< why the latest that ended did
  };
  std::map<std::string, Former> formers;
  std::uint64_t welcomes = 0;
  std::string lastReason;
  std::function<void(const RefusedRow&)> refusedRowTold;
  std::uint64_t lastNumber = 0;  ///< of a connection
  Velto::DebugSupport debug;
  bool isGone = false;
};

/// Knows when a published table is destroyed.
class TablePublisher::Impl::Published final : public TableStore::Cursor {
 public:
  Published(Impl& impl, TableStore& table) : Cursor(table, false), impl_(impl), table_(&table) {}
  void changeComes() override {}
  void tableGoes() noexcept override { std::erase(impl_.publication.tables, table_); }

 private:
  Impl& impl_;
  TableStore* table_;
};

/// A subscriber's connection, as a unit.
class TablePublisher::Impl::Connection final : public Schedulable,
                                               private ByteStream::User,
                                               private PublisherSession::Owner {
 public:
  Connection(Impl& impl, std::unique_ptr<ByteStream> stream, std::optional<uid_t> user)
      : Schedulable(impl.publication.name, impl.scheduler),
        number(++impl.lastNumber),
        session(impl.publication, *this, user),
        impl_(impl),
        stream_(std::move(stream)) {
    clientReadyIs(true);
    stream_->userIs(this);
    runnableIs(true);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() override { stream_->userIs(nullptr); }

  void timePasses(milliseconds time) {
    // What came while this process was held up tells that the subscriber is there.
    guarded([&] {
      read();
      session.timePasses(time);
    });
    if (session.isOver() && wasOver_) isLost_ = true;
    wasOver_ = session.isOver();
    runnableIs(true);
  }

  /// Writes what can be written at once.
  void flush() noexcept {
    guarded([&] { write(); });
  }

  const std::uint64_t number;
  PublisherSession session;

 private:
  void streamIsReady() override { runnableIs(true); }
  void sessionHasNews() override { runnableIs(true); }

  void run(bool) override {
    const std::shared_ptr<Impl> impl = impl_.shared_from_this();
    impl->keepTime();
    guarded([&] {
      read();
      if (session.isWelcome() && !std::exchange(isKnown_, true)) impl->subscriberComes(session);
      write();
    });
    const std::vector<PublisherSession::RowNote> notes = session.takeNotes();
    const std::string subscriber = session.subscriber();
    if (isLost_ || (session.isOver() && session.out().empty())) {
      impl->drop(*this, reason_.empty() ? session.endText() : reason_);
    }
    // This may be gone from here on, and the publisher with each call.
    for (const PublisherSession::RowNote& note : notes) {
      detail::trace(impl->debug, detail::refusalLevel, thisFile, "run", [&](std::ostream& out) {
        out << ": " << subscriber << " cannot take row " << note.oid << " of " << note.table << ": "
            << note.text;
      });
    }
    for (const PublisherSession::RowNote& note : notes) {
      if (impl->isGone || !impl->refusedRowTold) return;
      const auto told = impl->refusedRowTold;
      told({subscriber, note.table, note.oid, note.text});
    }
  }

  /// A subscriber for which there is no memory is let go: it comes back, and has lost nothing.
  template <typename Work>
  void guarded(const Work& work) noexcept {
    try {
      work();
    } catch (const std::bad_alloc&) {
      isLost_ = true;
    }
  }

  void lose(const std::string& reason) {
    isLost_ = true;
    reason_ = session.endText().empty() ? reason : session.endText();
  }

  void read() {
    byte_t bytes[readBytes];
    for (std::size_t count = 0; count < turnBytes && !isLost_;) {
      const ByteStream::Result result = stream_->read(bytes, sizeof bytes);
      session.receive({bytes, result.count});
      if (!result.isOpen) lose(result.reason);
      count += result.count;
      if (result.count < sizeof bytes) return;
    }
  }

  void write() {
    std::size_t budget = turnBytes;
    while (!isLost_ && budget != 0) {
      if (session.out().size() < turnBytes) session.fill(turnBytes);
      if (session.out().empty()) return session.out().clear();
      const std::span<const byte_t> bytes = session.out().next(budget);
      const ByteStream::Result result = detail::writeTo(*stream_, bytes);
      session.sent(result.count);
      budget -= result.count;
      if (!result.isOpen) return lose(result.reason);
      if (result.count < bytes.size()) return;
    }
    if (!isLost_) runnableIs(true);
  }

  Impl& impl_;
  std::unique_ptr<ByteStream> stream_;
  bool isLost_ = false;
  bool wasOver_ = false;
  bool isKnown_ = false;
  std::string reason_;
};

/// What passes changes on through an engine, as a unit.
class TablePublisher::Impl::Outlet final : public Schedulable,
                                           private TableWalk::User,
                                           private TableOutlet::User {
 public:
  Outlet(Impl& impl, const std::string& address)
      : Schedulable(impl.publication.name, impl.scheduler),
        impl_(impl),
        walk_(impl.publication, *this) {
    for (TableStore* table : impl.publication.tables) add(*table);
    outlet_ =
        detail::engineFor(address)->outlet(address, impl.scheduler, impl.options, walk_, *this);
    clientReadyIs(true);
    runnableIs(true);
  }

  void add(TableStore& table) { walk_.add(table, tables_++); }
  bool isFull() const { return tables_ == detail::maxTables; }

  void timePasses(milliseconds time) {
    guarded([&] { outlet_->timePasses(time); });
    runnableIs(true);
  }

  Subscriber status() const {
    const TableOutlet::Status status = outlet_->status();
    return {status.name,
            walk_.names(),
            walk_.head() - status.acked,
            status.merged,
            0,
            status.unsent,
            walk_.changesBehind(status.acked),
            0,
            status.problem};
  }

 private:
  void changesCome() override { runnableIs(true); }
  void tableIsGone() noexcept override {
    guarded([&] { runnableIs(true); });
  }
  void outletHasWork() override { runnableIs(true); }
  bool outletShouldYield() override { return shouldYield(); }

  void run(bool) override {
    const std::shared_ptr<Impl> impl = impl_.shared_from_this();
    impl->keepTime();
    guarded([&] { outlet_->work(); });
  }

  /// Without memory it is tried again at the next heartbeat.
  template <typename Work>
  void guarded(const Work& work) noexcept {
    try {
      work();
    } catch (const std::bad_alloc&) {
      // See above.
    }
  }

  Impl& impl_;
  TableWalk walk_;
  std::uint16_t tables_ = 0;
  std::unique_ptr<TableOutlet> outlet_;
};

TablePublisher::Impl::Impl(const std::string& name, const KoPtr<Scheduler>& schedulerOfAll,
                           const Options& optionsGiven)
    : scheduler(schedulerOfAll),
      options(optionsGiven),
      step(std::min(longestStep, optionsGiven.heartbeat / 5)) {
  if (name.size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + name + ")");
  }
  if (options.heartbeat < shortestHeartbeat || options.heartbeat > std::chrono::minutes(1)) {
    throw KoInvalidArgument("Heartbeat out of range - (" +
                            std::to_string(options.heartbeat.count()) + ")");
  }
  publication.name = name;
  publication.epoch = randomEpoch();
  publication.heartbeat = options.heartbeat;
  publication.subscribers = this;
  publication.mayHave = options.mayHave;
}

void TablePublisher::Impl::start() {
  timer.reset(scheduler->getTimerControl(this));
  timer->timeoutIs(step);
}

void TablePublisher::Impl::end() noexcept {
  isGone = true;
  timer.reset();
  for (const auto& listener : listeners) {
    try {
      listener->takerIs(nullptr);
    } catch (const std::exception&) {
      // It finds nobody to take its connections.
    }
  }
  listeners.clear();
  for (const auto& connection : connections) {
    try {
      connection->session.end(detail::ByeReason::closing, "the publisher ended");
    } catch (const std::bad_alloc&) {
      // The end of the connection tells it, too.
    }
    connection->flush();
  }
  connections.clear();
  outlets.clear();
  for (TableStore* table : publication.tables) table->isPublished = false;
  published.clear();
}

void TablePublisher::Impl::add(AnyTable& table) {
  TableStore& store = detail::TableAccess::store(table);
  store.checkThread();
  if (store.name().size() > detail::maxText) {
    throw KoInvalidArgument("Name exceeds 255 bytes - (" + store.name() + ")");
  }
  if (store.isPublished || store.isSubscribed) {
    throw KoInvalidArgument("Published or subscribed already - (" + store.name() + ")");
  }
  for (const TableStore* other : publication.tables) {
    if (other->name() == store.name()) {
      throw KoInvalidArgument("Another table has the name - (" + store.name() + ")");
    }
  }
  static_cast<void>(fingerprint(store.layout()));  // a layout that can be told
  for (const auto& outlet : outlets) {
    if (outlet->isFull()) throw KoInvalidArgument("More than 256 tables - (" + store.name() + ")");
  }
  publication.tables.reserve(publication.tables.size() + 1);
  published.push_back(std::make_unique<Published>(*this, store));
  publication.tables.push_back(&store);
  store.sourceIs(publication.source);
  store.keepDigest();
  store.isPublished = true;
  for (const auto& connection : connections) {
    connection->session.end(detail::ByeReason::changed, "there is another table");
    connection->runnableIs(true);
  }
  for (const auto& outlet : outlets) {
    outlet->add(store);
    outlet->runnableIs(true);
  }
}

void TablePublisher::Impl::listen(const std::string& address) {
  if (detail::isSocketAddress(address)) {
    accept(detail::listenTo(address, options.socketMode, scheduler));
  } else {
    outlets.push_back(std::make_unique<Outlet>(*this, address));
  }
}

void TablePublisher::Impl::accept(const std::shared_ptr<ByteListener>& listener) {
  listeners.push_back(listener);
  listener->takerIs([weak = weak_from_this()](std::unique_ptr<ByteStream> stream) {
    const std::shared_ptr<Impl> impl = weak.lock();
    if (impl != nullptr && !impl->isGone) impl->take(std::move(stream));
  });
}

void TablePublisher::Impl::take(std::unique_ptr<ByteStream> stream) {
  std::optional<uid_t> user;
  bool isAsked = true;
  try {
    user = stream->peerUser();
  } catch (const std::system_error&) {
    isAsked = false;
  }
  const bool isFull = connections.size() >= options.mostSubscribers;
  connections.push_back(std::make_unique<Connection>(*this, std::move(stream), user));
  PublisherSession& session = connections.back()->session;
  if (!isAsked) {
    session.end(detail::ByeReason::notAllowed, "the user is not known");
  } else if (user && *user != geteuid() &&
             std::ranges::find(options.users, *user) == options.users.end()) {
    session.end(detail::ByeReason::notAllowed,
                "user " + std::to_string(*user) + " may not subscribe");
  } else if (isFull) {
    session.end(detail::ByeReason::tooMany, "too many subscribers");
  }
}

/// Names are the subscribers' own choice: of too many, the ones seen longest ago are forgotten.
void TablePublisher::Impl::subscriberComes(PublisherSession& session) {
  if (!session.wantsTables()) return;
  Former& former = formers[session.subscriber()];
  ++former.connections;
  former.last = ++welcomes;
  if (formers.size() > mostNames) {
    formers.erase(
        std::ranges::min_element(formers, {}, [](const auto& known) { return known.second.last; }));
  }
  const std::string warning = session.takeWarning();
  detail::trace(debug, detail::linkLevel, thisFile, "subscriberComes", [&](std::ostream& out) {
    out << ": " << session.subscriber() << " subscribes";
    for (const std::string& table : session.tables()) out << ' ' << table;
    if (!warning.empty()) out << "; " << warning << ": all rows are told";
  });
}

void TablePublisher::Impl::drop(Connection& connection, const std::string& reason) {
  const std::string& name = connection.session.subscriber();
  const bool isQuestion = connection.session.isWelcome() && !connection.session.wantsTables();
  if (!isQuestion) lastReason = reason;
  if (const auto former = formers.find(name); !isQuestion && former != formers.end()) {
    former->second.reason = reason;
  }
  detail::trace(debug, detail::linkLevel, thisFile, "drop", [&](std::ostream& out) {
    out << ": " << (name.empty() ? "a connection" : name) << " is gone: " << reason;
  });
  std::erase_if(connections, [&](const auto& known) { return known.get() == &connection; });
}

void TablePublisher::Impl::wakeAll() {
  for (const auto& connection : connections) connection->runnableIs(true);
  for (const auto& outlet : outlets) outlet->runnableIs(true);
}

void TablePublisher::Impl::keepTime() noexcept {
  try {
    if (!timer->pending()) timer->timeoutIs(step);
  } catch (const std::bad_alloc&) {
    // Subscribers that are left without heartbeats come again.
  }
}

void TablePublisher::Impl::onTimeout() {
  keepTime();
  for (const auto& connection : connections) connection->timePasses(step);
  for (const auto& outlet : outlets) outlet->timePasses(step);
}

std::optional<TablePublisher::Subscriber> TablePublisher::Impl::statusOf(
    const PublisherSession& session) const {
  if (!session.isWelcome() || session.isOver() || !session.wantsTables()) return std::nullopt;
  Subscriber status{session.subscriber(),
                    session.tables(),
                    publication.source->last - session.acked(),
                    session.merged(),
                    session.refused(),
                    session.out().size(),
                    session.unackedRows(),
                    0,
                    ""};
  const auto former = formers.find(session.subscriber());
  if (former != formers.end()) {
    status.reconnects = former->second.connections - 1;
    status.lastReason = former->second.reason;
  }
  return status;
}

std::optional<TablePublisher::Subscriber> TablePublisher::Impl::subscriberBehind(
    std::uint64_t& number) const {
  for (const auto& connection : connections) {
    if (connection->number <= number) continue;
    number = connection->number;
    if (auto status = statusOf(connection->session)) return status;
  }
  return std::nullopt;
}

// ---------------------------------------------------------------------------------------------

TablePublisher::TablePublisher(const std::string& name, const KoPtr<Scheduler>& scheduler,
                               const Options& options)
    : impl_(std::make_shared<Impl>(name, scheduler, options)) {
  impl_->start();
}

TablePublisher::~TablePublisher() {
  impl_->end();
}

void TablePublisher::add(AnyTable& table) {
  impl_->add(table);
}

void TablePublisher::listen(const std::string& address) {
  impl_->listen(address);
}

void TablePublisher::accept(const std::shared_ptr<ByteListener>& listener) {
  impl_->accept(listener);
}

void TablePublisher::completeIs(bool isComplete) {
  impl_->publication.isComplete = isComplete;
  impl_->wakeAll();
}

bool TablePublisher::complete() const {
  return impl_->publication.isComplete;
}

std::uint64_t TablePublisher::epoch() const {
  return impl_->publication.epoch;
}

std::uint64_t TablePublisher::sequence() const {
  return impl_->publication.source->last;
}

void TablePublisher::historyIs(std::uint64_t epoch, std::uint64_t sequence) {
  detail::Publication& publication = impl_->publication;
  if (epoch == 0 || sequence < publication.source->last) {
    throw KoInvalidArgument("Not a later position - (" + std::to_string(sequence) + ")");
  }
  if (!impl_->connections.empty() || !impl_->outlets.empty()) {
    throw KoInvalidArgument("Subscribers are connected");
  }
  publication.epoch = epoch;
  publication.source->last = sequence;
  for (TableStore* table : publication.tables) table->historyIs(sequence);
}

std::vector<TablePublisher::Subscriber> TablePublisher::subscribers() const {
  std::vector<Subscriber> all;
  for (const auto& connection : impl_->connections) {
    if (auto status = impl_->statusOf(connection->session)) all.push_back(std::move(*status));
  }
  for (const auto& outlet : impl_->outlets) all.push_back(outlet->status());
  return all;
}

std::string TablePublisher::lastReason() const {
  return impl_->lastReason;
}

void TablePublisher::onRefusedRow(std::function<void(const RefusedRow& row)> told) {
  impl_->refusedRowTold = std::move(told);
}

void TablePublisher::debugChannelIs(Velto::DebugChannel* channel, bool owned) {
  impl_->debug.channelIs(channel, owned);
}

}  // namespace Korvo
