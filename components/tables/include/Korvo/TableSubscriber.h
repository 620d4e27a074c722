#pragma once

// Copies of another process's tables.
//
//   const auto loop = std::make_shared<Korvo::EventLoop>("viewer");
//   Korvo::Table<Port> ports("net/port");
//   auto& byNet = ports.longestPrefix<"net">();
//   Korvo::TableSubscriber agent("unix:/run/korvo/portAgent", loop);
//   agent.add(ports);                        // from here on written by the subscription only
//   loop->run();
//
// A copy goes from one state of the publisher's tables to a later one, all tables at once. A lost
// link is made again, and only what changed meanwhile is sent; rows stay until then, and the state
// of the tables tells it (see TableState). Where the publisher's layout is another one, rows are
// converted by the names of their columns, see RowConverter.h.
//
// All of it is used from the thread of the tables and of the scheduler. Tables, readers, subscriber
// and scheduler's units may be destroyed in any order, also by what is called here.

#include <Korvo/ByteStream.h>
#include <Korvo/RowConverter.h>
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

namespace Korvo {

/// How a subscriber treats its publisher.
struct SubscriberOptions {
  /// What the publisher knows this subscriber by; the scheduler's name if it is empty.
  std::string name = {};
  /// As PublisherOptions::heartbeat; the longer one of both counts.
  std::chrono::milliseconds heartbeat{5000};
  /// How long rows of a lost link are kept, if not for ever. They are then removed in one batch.
  std::optional<std::chrono::milliseconds> staleLimit = std::nullopt;
  /// A table whose rows take more before they can appear is refused.
  std::size_t mostWaitingBytes = std::size_t{1} << 30;
  /// Without it a table is refused whose layout at the publisher is another one: rows are then the
  /// publisher's own bytes.
  bool takesOtherLayouts = true;
};

/// Keeps the tables that are added to it as their publisher has them.
class KORVO_API TableSubscriber {
 public:
  /// For short.
  using Options = SubscriberOptions;

  /// Something that was not as it should be: a row or a table that could not be taken, or rows that
  /// had to be asked for anew.
  struct Problem {
    std::string table;         ///< empty: all of them
    std::optional<oid_t> oid;  ///< of a row
    std::string text;          ///< for people
  };

  /// How the subscription goes; numbers count from its start.
  struct Status {
    bool isConnected = false;        ///< whether there is a link now
    std::string publisher;           ///< its name, once it was heard of
    std::uint64_t connections = 0;   ///< that were made
    std::uint64_t marks = 0;         ///< states of the publisher that were reached
    std::uint64_t merged = 0;        ///< batches of it that came together with later ones
    std::uint64_t refusedRows = 0;   ///< rows that could not be taken
    std::uint64_t digestFaults = 0;  ///< how often a copy was not as the publisher had it
    std::string lastReason;          ///< why the last connection ended or could not be made
  };

  /// Connects in its first turn, to a socket ("unix:/run/korvo/portAgent") or through an engine
  /// (see TableEngine.h); what fails is a state with a text. Throws KoInvalidArgument for an
  /// address that is none or whose engine the program has not registered, a name of more than 255
  /// bytes or a heartbeat below 100 milliseconds.
  TableSubscriber(const std::string& address, const KoPtr<Scheduler>& scheduler,
                  const Options& options = {});
  /// Connects when told with connect().
  explicit TableSubscriber(const KoPtr<Scheduler>& scheduler, const Options& options = {});
  TableSubscriber(const TableSubscriber&) = delete;
  TableSubscriber& operator=(const TableSubscriber&) = delete;
  /// Tables keep their rows, stale, and can be written again.
  ~TableSubscriber();

  /// Connects there, now and whenever the link was lost.
  void connect(std::shared_ptr<ByteConnector> connector);

  /// The table becomes a copy of the publisher's table of its name. Rows that it has are compared
  /// with the publisher's when these have come. Throws KoInvalidArgument if the table is published
  /// or subscribed, a table of its name is, there are 256 tables already or its name has more than
  /// 255 bytes; and what LayoutComparison throws for the rules.
  void add(AnyTable& table, const ConversionRules& rules = {});

  /// As of now.
  Status status() const;
  /// `told` is called for each problem as it comes up, and may do everything.
  void onProblem(std::function<void(const Problem& problem)> told);

  /// Sends traces to `channel`, which may be null; it is deleted with the subscription if `owned`.
  /// On level 4 links that are made and lost, and why, and how the publisher's layouts compare with
  /// those here; on level 5 problems.
  void debugChannelIs(Velto::DebugChannel* channel, bool owned);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Korvo
