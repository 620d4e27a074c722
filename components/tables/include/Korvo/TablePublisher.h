#pragma once

// Tables of this process for others.
//
//   const auto loop = std::make_shared<Korvo::EventLoop>("portAgent");
//   Korvo::Table<Port> ports("net/port");
//   Korvo::TablePublisher publisher("portAgent", loop);
//   publisher.add(ports);
//   publisher.listen("unix:/run/korvo/portAgent");
//   loop->run();
//
// Subscribers get the rows, and then what changes, in rounds: each takes them from one state of all
// tables to a later one. There is no queue for a subscriber: a slow one gets the rows as they stand
// when there is room, and at most 256 KiB wait for it.
//
// All of it is used from the thread of the tables and of the scheduler. Tables, publisher and
// scheduler's units may be destroyed in any order, also by what is called here.

#include <Korvo/ByteStream.h>
#include <Korvo/Scheduler.h>
#include <Korvo/Table.h>
#include <Korvo/export.h>
#include <Velto/DebugSupport.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Korvo {

/// How a publisher treats its subscribers.
struct PublisherOptions {
  /// How often a subscriber hears something, at the least; at least 100 milliseconds. A connection
  /// on which nothing comes for three of it is closed.
  std::chrono::milliseconds heartbeat{5000};
  /// The rights of sockets.
  mode_t socketMode = 0600;
  /// Users that may subscribe, beside the process's own.
  std::vector<uid_t> users = {};
  /// Connections beyond these are refused.
  std::size_t mostSubscribers = 1024;
  /// Whether a user, if it is known which, may have a table; without it all that may subscribe may.
  /// A table is refused in words, and the others are not. Must not throw.
  std::function<bool(const std::string& table, std::optional<uid_t> user)> mayHave = nullptr;
  /// Tables that an earlier publisher of the name left where an engine keeps rows, and that this
  /// one does not have for now. They stay there, as they are and told to nobody, where others that
  /// are not added go.
  std::vector<std::string> keptTables = {};
};

/// Tells the tables that are added to it to subscribers.
class KORVO_API TablePublisher {
 public:
  /// For short.
  using Options = PublisherOptions;

  /// A subscriber that is connected.
  struct Subscriber {
    std::string name;                 ///< as it calls itself
    std::vector<std::string> tables;  ///< the names of those that it gets
    std::uint64_t lag = 0;            ///< batches that it has not acknowledged
    std::uint64_t merged = 0;         ///< batches that it got together with later ones
    std::uint64_t refused = 0;        ///< rows that it could not take, since it began
    std::size_t unsent = 0;           ///< bytes
    std::uint64_t lagRows = 0;        ///< rows that changed since what it has acknowledged
    std::uint64_t reconnects = 0;     ///< connections that one of its name had before
    /// Why the last one of these ended; of a cluster, why nothing is written there, if so.
    std::string lastReason;
  };

  /// A row that a subscriber could not take.
  struct RefusedRow {
    std::string subscriber;  ///< its name
    std::string table;       ///< its name
    oid_t oid = 0;           ///< of the row
    std::string reason;      ///< for people
  };

  /// `name` is told to subscribers. The scheduler has timers, and descriptors for listen(). Throws
  /// KoInvalidArgument for a name of more than 255 bytes or a heartbeat out of range.
  TablePublisher(const std::string& name, const KoPtr<Scheduler>& scheduler,
                 const Options& options = {});
  TablePublisher(const TablePublisher&) = delete;
  TablePublisher& operator=(const TablePublisher&) = delete;
  /// Says goodbye to the subscribers, who keep their rows, stale.
  ~TablePublisher();

  /// From here on the table's batches have numbers of all tables of this publisher. Subscribers
  /// that are connected come back for it. Throws KoInvalidArgument if another table has its name,
  /// the name has more than 255 bytes, or the table is published or subscribed already.
  void add(AnyTable& table);

  /// Listens on a Unix-domain socket: "unix:/run/korvo/portAgent". Only this process's user may
  /// connect, unless told otherwise. An address of an engine (see TableEngine.h) passes the tables
  /// on there. Throws KoInvalidArgument for another address or one whose engine the program has not
  /// registered, and std::system_error if somebody listens there or the path cannot be used.
  void listen(const std::string& address);
  /// Takes what connects there.
  void accept(const std::shared_ptr<ByteListener>& listener);

  /// Whether the tables hold all that they should; they do at first. While they do not, subscribers
  /// keep what they have: a publisher that was restarted says false until it has loaded its rows,
  /// and nobody deletes anything meanwhile.
  void completeIs(bool isComplete);
  /// What completeIs() was told last.
  bool complete() const;

  /// The name of this history. Chosen by chance at the start, so that nobody mistakes a position in
  /// another history for one in this.
  std::uint64_t epoch() const;
  /// The number of the last batch.
  std::uint64_t sequence() const;
  /// For a publisher that has restored what it held before a restart: its tables are exactly as
  /// they were after the last batch of that history. Subscribers then go on where they were. To be
  /// called once all tables are added and filled, before anybody connects. Throws KoInvalidArgument
  /// for an epoch of 0, a sequence below the present one, or when it is too late.
  void historyIs(std::uint64_t epoch, std::uint64_t sequence);

  /// Those that are connected, in no order.
  std::vector<Subscriber> subscribers() const;
  /// Why the last connection that ended did so; empty before.
  std::string lastReason() const;
  /// Is told of rows that subscribers could not take.
  void onRefusedRow(std::function<void(const RefusedRow& row)> told);

  /// Sends traces to `channel`, which may be null; it is deleted with the publisher if `owned`. On
  /// level 4 subscribers that come and go, and why; on level 5 rows that they could not take.
  void debugChannelIs(Velto::DebugChannel* channel, bool owned);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Korvo
