#pragma once

// What carries tables from publishers to subscribers, for those who write another carrier.
//
// Publishers and subscribers take an address; its scheme names the engine. Unix-domain sockets
// ("unix:/run/korvo/portAgent") are built in. Another engine comes with a component of its own,
// which a program links and registers before it names an address of it:
//
//   Korvo::TableEngine::add("etcd", std::make_shared<EtcdEngine>());
//   publisher.listen("etcd://host:2379/net");                          // a TableOutlet
//   Korvo::TableSubscriber agent("etcd://host:2379/net", loop);        // a TableLink
//
// An engine moves rows and says where a state is complete. All the rest is done here, once for all
// engines: what changed is told by a TableSender, which has no queue; what comes goes into a
// TableReceiver, which checks and converts rows, collects them until a mark, and then changes all
// tables in one batch.
//
//   tables -> TableSender -> TableOutlet ~~~~~ TableLink -> TableReceiver -> tables
//             (publisher)    (the engine's own)             (subscriber)
//
// Threads: everything here belongs to the thread of the tables and of the scheduler, but for
// TableEngine::add() and ThreadSignal::give(). An engine with threads of its own keeps what they
// got in a mailbox of bounded size, by table and oid, gives a signal, and lets the link or the
// outlet take it in its turn. Nothing waits for an answer on the scheduler's thread.

#include <Korvo/Scheduler.h>
#include <Korvo/Table.h>
#include <Korvo/export.h>
#include <Korvo/layoutText.h>
#include <Korvo/rowFormat.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Korvo {

struct PublisherInfo;
struct PublisherOptions;
struct SubscriberOptions;

/// Where a state of the tables stands in a history.
struct TablePosition {
  std::uint64_t history = 0;   ///< its name; 0: no position
  std::uint64_t sequence = 0;  ///< of the last batch
};

/// A state of all tables: what a round leads to.
struct TableMark {
  /// One of the tables. Of no two tables that differ the digest is expected to be the same.
  struct Table {
    std::uint16_t number = 0;  ///< of the table
    std::uint64_t rows = 0;    ///< how many there are
    std::uint64_t digest = 0;  ///< of the rows' bytes
  };
  std::uint64_t sequence = 0;  ///< of the last batch
  std::uint64_t merged = 0;    ///< batches that were told together with the last one
  std::vector<Table> tables;   ///< all that are taken
};

/// What came is not what may come; the text tells what.
class KORVO_API TableFault : public KoInvalidArgument {
 public:
  using KoInvalidArgument::KoInvalidArgument;
};

/// The tables of a subscriber, for a link that brings their rows:
///
///   begin, publisherIs, accept or refuse for each table,
///   then rounds: { whole, row, remove ... mark }
///
/// Tables have numbers from 0 to size(). What comes of a table that was not accepted, was refused
/// or is destroyed is ignored. Everything throws std::bad_alloc, after which the link ends; tables
/// are then as the last mark left them.
class KORVO_API TableReceiver {
 public:
  /// Is told what cannot be taken, so that the publisher may hear of it. From here nothing of the
  /// receiver is called.
  class KORVO_API User {
   public:
    /// The row's former value stays.
    virtual void rowIsRefused(std::uint16_t table, oid_t oid, const std::string& reason) = 0;
    /// No more of the table is taken from this link.
    virtual void tableIsRefused(std::uint16_t table, const std::string& reason) = 0;

   protected:
    ~User() = default;
  };

  TableReceiver() = default;
  TableReceiver(const TableReceiver&) = delete;
  TableReceiver& operator=(const TableReceiver&) = delete;
  virtual ~TableReceiver();

  /// A link begins, which has not told anything. Before anything else of it. `user` lives until
  /// the next call or end().
  virtual void begin(User& user) = 0;
  /// The link is gone; what no mark followed is forgotten. Tables become stale, with the reason.
  virtual void end(const std::string& reason) = 0;

  /// How many tables there are.
  virtual std::size_t size() const = 0;
  /// Null once the table is destroyed.
  virtual const AnyTable* table(std::size_t number) const = 0;
  /// The last mark of the table, from which a link may go on.
  virtual TablePosition position(std::size_t number) const = 0;

  /// Who publishes, and the name of the history that the marks of this link are of. It is not 0.
  virtual void publisherIs(const std::string& name, std::uint64_t history) = 0;
  /// The publisher's layout of the table. False: the table is refused, since it cannot be taken.
  virtual bool accept(std::size_t number, const LayoutFingerprint& layout,
                      const std::string& layoutText) = 0;
  /// The publisher does not have the table, or does not give it.
  virtual void refuse(std::size_t number, const std::string& reason) = 0;
  /// Whether rows of the table are taken.
  virtual bool isTaken(std::size_t number) const = 0;

  /// All rows of the table follow: what this round told of it is forgotten, and rows that are not
  /// told until the mark are gone.
  virtual void whole(std::size_t number) = 0;
  /// A row as the publisher has it; the last word on an oid counts. Throws TableFault if the bytes
  /// are not as many as they say. A row that cannot be taken is refused, and counts in the digest.
  virtual void row(std::size_t number, std::span<const byte_t> bytes) = 0;
  /// The publisher has no row of this oid any more.
  virtual void remove(std::size_t number, oid_t oid) = 0;
  /// Takes all that was told since the last mark, in one batch over all tables. Empty: done.
  /// Otherwise nothing changed but that the position of a table is forgotten, and the text tells
  /// which one differs from the publisher's: the link ends, and the next one tells it as a whole.
  /// Throws TableFault for a mark that leaves out a table that is taken, goes back, or is of
  /// another history than the rows that it does not tell.
  virtual std::string mark(const TableMark& mark) = 0;

  /// To be told of a TableFault, also of the link's own, before the link ends. The second at one
  /// position forgets it, so that all rows are told.
  virtual void fault(const std::string& text) = 0;
};

/// A subscriber's connection. What it needs outlives it.
class KORVO_API TableLink {
 public:
  /// The subscriber; outlives the link.
  class KORVO_API User {
   public:
    /// There is work: work() is called in the subscriber's turn, later. On the scheduler's thread.
    virtual void linkHasWork() = 0;
    /// Whether the turn has lasted long enough: work() then returns, after linkHasWork().
    virtual bool linkShouldYield() = 0;

   protected:
    ~User() = default;
  };

  TableLink() = default;
  TableLink(const TableLink&) = delete;
  TableLink& operator=(const TableLink&) = delete;
  /// Ends the connection.
  virtual ~TableLink();

  /// Gives the receiver what came, and sends what there is to send. Returns why the link is over,
  /// if it is; it is then destroyed, and another one is made after a pause.
  virtual std::optional<std::string> work() = 0;
  /// So much time has passed; called a few times each heartbeat. Returns as work(), which follows.
  virtual std::optional<std::string> timePasses(std::chrono::milliseconds time) = 0;
  /// The receiver will have another table in the next link: this one ends in its next work().
  virtual void tablesChange() = 0;
  /// The subscriber ends; says so, as far as that goes at once.
  virtual void sayGoodbye() noexcept {}
};

/// Where a subscriber's links lead to.
class KORVO_API TableSource {
 public:
  TableSource() = default;
  TableSource(const TableSource&) = delete;
  TableSource& operator=(const TableSource&) = delete;
  virtual ~TableSource();

  /// A link that begins to connect; linkHasWork() need not be called for its first work(). The
  /// receiver and the user outlive it. Throws std::system_error or KoBaseException with the reason
  /// if that cannot be; it is tried again after a pause.
  virtual std::unique_ptr<TableLink> connect(TableReceiver& receiver, TableLink::User& user) = 0;
};

/// The tables of a publisher, for an outlet that passes their rows on. It has a place in the order
/// of changes and no queue: what changes twice before the outlet asks is told once.
class KORVO_API TableSender {
 public:
  /// A table of the publisher's.
  struct Table {
    std::string name;          ///< its name
    LayoutFingerprint layout;  ///< its fingerprint
    std::string layoutText;    ///< see layoutText()
    bool isGone = false;       ///< it was destroyed; its number stays
  };
  /// What a change is of.
  enum class Kind : byte_t {
    whole,   ///< all rows of the table follow; what was told of it counts no more
    row,     ///< it is new or changed
    removed  ///< it is gone
  };
  /// What happened to a table.
  struct Change {
    Kind kind = Kind::whole;        ///< what happened
    std::uint16_t table = 0;        ///< its number
    oid_t oid = 0;                  ///< of the row
    KoPtr<KoRowBuf> row = nullptr;  ///< of Kind::row; its bytes do not change while it is held
  };

  TableSender() = default;
  TableSender(const TableSender&) = delete;
  TableSender& operator=(const TableSender&) = delete;
  virtual ~TableSender();

  /// The publisher's name.
  virtual const std::string& name() const = 0;
  /// The name of the publisher's history.
  virtual std::uint64_t epoch() const = 0;
  /// The number of the last batch.
  virtual std::uint64_t head() const = 0;
  /// Whether the tables hold all that they should. While they do not, nothing is marked.
  virtual bool isComplete() const = 0;
  /// By their numbers. More may come, behind these.
  virtual std::vector<Table> tables() const = 0;

  /// What happened up to `position` counts as told. False: of some tables that cannot be, and these
  /// are told as a whole. To be called before next().
  virtual bool resume(const TablePosition& position) = 0;
  /// From here on each table is told as a whole, whatever was told before. Throws std::bad_alloc.
  virtual void restart() = 0;
  /// Whether there is anything to tell.
  virtual bool isBehind() const = 0;
  /// The next change, of one table after the other. False: all was told up to head(), and what was
  /// told is the tables as they stand, now and until the next batch. Changes in between stand for
  /// no state. Throws std::bad_alloc; what was told until then stays told.
  virtual bool next(Change& change) = 0;
  /// The tables as they stand, to be taken when next() said false. Counts what was merged anew.
  virtual TableMark mark() = 0;
};

/// Where a publisher's changes go, beside the subscribers that connect to it.
class KORVO_API TableOutlet {
 public:
  /// The publisher; outlives the outlet.
  class KORVO_API User {
   public:
    /// There is work: work() is called in the publisher's turn, later. On the scheduler's thread.
    virtual void outletHasWork() = 0;
    /// Whether the turn has lasted long enough: work() then returns, after outletHasWork().
    virtual bool outletShouldYield() = 0;

   protected:
    ~User() = default;
  };
  /// For people.
  struct Status {
    std::string name;          ///< what TablePublisher::subscribers() calls it
    std::uint64_t acked = 0;   ///< the sequence that the outlet has passed on for good
    std::uint64_t merged = 0;  ///< batches that were passed on together with later ones
    std::size_t unsent = 0;    ///< bytes that it holds
    std::string problem;       ///< why nothing is passed on; empty: it is
  };

  TableOutlet() = default;
  TableOutlet(const TableOutlet&) = delete;
  TableOutlet& operator=(const TableOutlet&) = delete;
  /// Ends it; the publisher is about to go, too.
  virtual ~TableOutlet();

  /// Called when there may be changes, tables, or work of the outlet's own. What it throws but for
  /// std::bad_alloc stops the process; after std::bad_alloc it is called again, later.
  virtual void work() = 0;
  /// So much time has passed; called a few times each heartbeat. work() follows.
  virtual void timePasses(std::chrono::milliseconds time) = 0;
  /// How it goes.
  virtual Status status() const = 0;
};

/// A question that waits for its answer, see TableEngine::ask(). Its end takes it back.
class KORVO_API TableQuestion {
 public:
  /// Who asks.
  class KORVO_API User {
   public:
    // One of them is called, once, on the scheduler's thread, and may destroy the question.

    /// What the publisher told.
    virtual void answerComes(const PublisherInfo& info) = 0;
    /// Why there is no answer.
    virtual void questionFails(const std::string& reason) = 0;

   protected:
    ~User() = default;
  };

  TableQuestion() = default;
  TableQuestion(const TableQuestion&) = delete;
  TableQuestion& operator=(const TableQuestion&) = delete;
  virtual ~TableQuestion();
};

/// One kind of carrier.
class KORVO_API TableEngine {
 public:
  TableEngine() = default;
  TableEngine(const TableEngine&) = delete;
  TableEngine& operator=(const TableEngine&) = delete;
  virtual ~TableEngine();

  // Both throw KoInvalidArgument for an address that is none, and std::system_error for want of
  // resources. The scheduler has timers and descriptors. Nothing blocks: whether there is anybody
  // turns out later. Sender and user outlive the outlet.

  /// Where subscribers' links lead for this address.
  virtual std::shared_ptr<TableSource> source(const std::string& address,
                                              const KoPtr<Scheduler>& scheduler,
                                              const SubscriberOptions& options) = 0;
  /// What passes a publisher's rows on.
  virtual std::unique_ptr<TableOutlet> outlet(const std::string& address,
                                              const KoPtr<Scheduler>& scheduler,
                                              const PublisherOptions& options, TableSender& sender,
                                              TableOutlet::User& user) = 0;
  /// Asks what is published there, for TableBrowser, which waits no longer than it wants. The user
  /// outlives the question, and is told later, not from here. An engine that does not override it
  /// cannot tell.
  virtual std::unique_ptr<TableQuestion> ask(const std::string& address,
                                             const KoPtr<Scheduler>& scheduler,
                                             TableQuestion::User& user);
  /// Throws KoInvalidArgument for an address that the others refuse so; nothing is connected. An
  /// engine that does not override it takes all.
  virtual void check(const std::string& address) const;

  /// Addresses that begin with `scheme` and a colon are this engine's from now on. From every
  /// thread. Throws KoInvalidArgument for a scheme that is no word of small letters and digits, is
  /// built in, or another engine's; adding one engine twice does nothing.
  static void add(const std::string& scheme, std::shared_ptr<TableEngine> engine);
  /// Throws KoInvalidArgument for what is neither a socket's address nor one of an engine that the
  /// program has registered. Whether there is anybody is not looked at. From every thread.
  static void checkAddress(const std::string& address);
};

/// Tells the scheduler's thread that another thread has something for it.
class KORVO_API ThreadSignal {
 public:
  /// `told` is called on the scheduler's thread after each give(), once for several that come close
  /// together. The scheduler has descriptors. Throws std::system_error for want of resources.
  ThreadSignal(const KoPtr<Scheduler>& scheduler, std::function<void()> told);
  ThreadSignal(const ThreadSignal&) = delete;
  ThreadSignal& operator=(const ThreadSignal&) = delete;
  /// On the scheduler's thread, once no thread gives it any more; also in what it tells.
  ~ThreadSignal();

  /// From every thread.
  void give() noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Korvo
