#pragma once

// What a publisher has, for those who do not know it: its tables with their layouts, and how its
// subscribers are doing.
//
//   const auto loop = std::make_shared<Korvo::EventLoop>("viewer");
//   Korvo::TableBrowser browser("unix:/run/korvo/portAgent", loop);
//   browser.onAnswer([](const Korvo::PublisherInfo& agent) {
//     for (const auto& table : agent.tables) std::cout << table.name << ' ' << table.rows << '\n';
//   });
//   browser.onFailure([](const std::string& text) { std::cerr << text << '\n'; });
//   browser.ask();
//   loop->run();
//
// A table whose layout was told so can be subscribed as any other, see LearnedTable.h.

#include <Korvo/ByteStream.h>
#include <Korvo/Scheduler.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/export.h>
#include <Korvo/layoutText.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Korvo {

/// What a publisher told.
struct PublisherInfo {
  /// One of its tables.
  struct Table {
    std::string name;               ///< as it is subscribed by
    LayoutFingerprint fingerprint;  ///< of its layout
    /// As layoutText() writes it, not yet read by anybody; empty if it is too long to be told.
    std::string layoutText;
    std::uint64_t rows = 0;  ///< that it has
    /// Of the last batch that changed something in it; 0 where that is not known.
    std::uint64_t sequence = 0;
  };
  /// Where tables stand that stay when their publisher ends.
  struct Store {
    std::string owner;           ///< who publishes them now; empty: nobody
    std::uint64_t revision = 0;  ///< the store's own, of the state that is told
  };

  std::string name;                                     ///< the publisher's
  std::uint64_t epoch = 0;                              ///< see TablePublisher::epoch()
  std::uint64_t sequence = 0;                           ///< of the last batch
  bool isComplete = false;                              ///< see TablePublisher::completeIs()
  std::vector<Table> tables;                            ///< those that may be subscribed
  std::vector<TablePublisher::Subscriber> subscribers;  ///< that are connected
  /// Why the last connection that ended did so.
  std::string lastReason;
  /// Nothing if the publisher itself told, which has the tables.
  std::optional<Store> store;
};

/// How a publisher is asked.
struct BrowserOptions {
  /// What the publisher knows this one by; the scheduler's name if it is empty.
  std::string name = {};
  /// How long an answer may take.
  std::chrono::milliseconds patience{10000};
};

/// Asks publishers. Used from the scheduler's thread. The browser, the scheduler's units and its
/// callbacks may end each other in any order.
class KORVO_API TableBrowser {
 public:
  /// For short.
  using Options = BrowserOptions;

  /// Throws KoInvalidArgument for an address that is none, or a name of more than 255 bytes.
  TableBrowser(const std::string& address, const KoPtr<Scheduler>& scheduler,
               const Options& options = {});
  /// Asks where it is told to with connect().
  explicit TableBrowser(const KoPtr<Scheduler>& scheduler, const Options& options = {});
  TableBrowser(const TableBrowser&) = delete;
  TableBrowser& operator=(const TableBrowser&) = delete;
  /// Nothing is told any more.
  ~TableBrowser();

  /// Where to ask from now on.
  void connect(std::shared_ptr<ByteConnector> connector);

  /// Asks, on a connection of its own. A question that is under way is given up.
  void ask();

  /// Is told the answer.
  void onAnswer(std::function<void(const PublisherInfo& info)> told);
  /// Is told, instead of an answer, why there is none: nobody listens, the publisher refuses or
  /// does not know how to answer, or the link was lost.
  void onFailure(std::function<void(const std::string& text)> told);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Korvo
