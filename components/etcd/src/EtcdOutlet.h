#pragma once

// The publisher's side: brings the rows in the cluster from one state of the tables to a later one.
//
//   begin -> claim the name -> read what is there -> write what differs -> write what changes
//              ^  again after every fault; what is there is read again only if somebody wrote it
//
// One transaction is under way at a time. It is kept until its answer has come, or until the mark
// in the cluster tells that it was made.

#include <Korvo/EtcdTables.h>

#include <atomic>
#include <deque>
#include <optional>
#include <unordered_map>

#include "EtcdClient.h"
#include "EtcdKeys.h"
#include "EtcdPage.h"

namespace Korvo::detail {

struct EtcdCounters {
  std::atomic<std::uint64_t> transactions = 0;
  std::atomic<std::uint64_t> rows = 0;
  std::atomic<std::uint64_t> retried = 0;
  std::atomic<std::uint64_t> recognised = 0;
};

class EtcdOutlet final : public TableOutlet, private Velto::Platform::TimeoutHandler {
 public:
  EtcdOutlet(const EtcdAddress& address, const EtcdSettings& settings,
             const KoPtr<Scheduler>& scheduler, const EtcdOptions& options,
             std::vector<std::string> keptTables, TableSender& sender, User& user,
             std::shared_ptr<EtcdCounters> counters);
  EtcdOutlet(const EtcdOutlet&) = delete;
  EtcdOutlet& operator=(const EtcdOutlet&) = delete;
  /// Lets go of the name, if a server answers soon.
  ~EtcdOutlet() override;

  void work() override;
  void timePasses(milliseconds time) override;
  Status status() const override;

 private:
  using Fault = EtcdFault;

  enum class Stage {
    paused,  ///< until the timer tells
    asking,  ///< for the name
    ready,   ///< to read what is there, when the tables are complete
    reading,
    writing
  };

  /// A change that is not written yet.
  struct Change {
    std::uint16_t table = 0;
    oid_t oid = 0;
    KoPtr<KoRowBuf> row;                     ///< null: it is removed
    std::optional<etcd::RequestOp> request;  ///< if it is no row's
  };

  /// A table as it stands in the cluster, while what differs is looked for.
  struct There {
    struct Row {
      oid_t oid;
      std::uint32_t length;
      const char* bytes;  ///< in a page; null: it was compared with the table's row
    };
    std::vector<Row> rows;  ///< by oid, as they come
    std::vector<std::unique_ptr<char[]>> pages;
    std::string layout;

    void add(const etcd::RangeResponse& page, const EtcdKeys& keys);
    Row* find(oid_t oid);
  };

  void onTimeout() override;
  void lose(const Fault& fault);
  void pauseFor(std::chrono::nanoseconds time);
  void begin();
  void claim();
  void askForName();
  void haveName(const etcd::TxnResponse& response);
  void judgeMark(const etcd::RangeResponse& response);
  void keepLease();
  void askForLease();
  void startOver();

  void readTable();
  void readPage();
  void haveRead();

  void write();
  bool pull();
  void keep(TableSender::Change& change);
  void add(Change change);
  std::size_t bytesOf(const Change& change) const;
  void addRemovals();
  bool isStarved() const;
  void sendTransaction();
  void transact();
  void written(const Fault& fault, const etcd::TxnResponse& response);
  void waitWith(const Fault& fault);
  void refused(const etcd::TxnResponse& response);
  void takeBack();
  void adoptMark(std::int64_t revision);
  bool isPublished(const std::string& table) const;
  bool isKept(const std::string& table) const;
  std::vector<EtcdMark::Table> markTables(const TableMark* state) const;

  const EtcdAddress address_;
  const EtcdKeys keys_;
  const EtcdOptions options_;
  const std::vector<std::string> keptTables_;
  TableSender& sender_;
  User& user_;
  const std::shared_ptr<EtcdCounters> counters_;
  const std::string ownerText_;

  Stage stage_ = Stage::paused;
  std::string problem_ = "not connected";
  std::int64_t lease_ = 0;
  std::int64_t owner_ = 0;  ///< the create revision of our name
  milliseconds leaseSilence_{0};
  milliseconds leaseIdle_{0};

  bool isKnown_ = false;        ///< what is in the cluster is what was written from here
  bool hasWritten_ = false;     ///< the last mark that is known is ours
  bool beginsHistory_ = false;  ///< with the next mark
  EtcdMark mark_;               ///< in the cluster
  std::string markText_;        ///< empty: there is none
  std::int64_t cut_ = 0;        ///< the revision of the last state
  std::vector<TableSender::Table> tables_;
  std::vector<There> there_;
  std::size_t paged_ = 0;
  std::optional<EtcdPage> page_;
  std::int64_t readRevision_ = 0;

  // The round under way.
  std::deque<Change> changes_;
  std::unordered_map<std::uint64_t, std::size_t> places_;  ///< of rows in changes_
  std::size_t taken_ = 0;  ///< changes that left changes_: places are counted from the first ever
  std::size_t bytes_ = 0;
  milliseconds roundAge_{0};
  bool isCompared_ = true;          ///< there_ is empty
  bool isMarkDue_ = false;          ///< even if nothing changed
  std::optional<TableMark> state_;  ///< what the changes lead to, once all are there

  // The transaction under way.
  std::vector<Change> sent_;
  bool isSending_ = false;
  std::optional<TableMark> sentState_;
  EtcdMark sentMark_;
  std::string sentText_;    ///< empty: there is none
  bool wasSent_ = false;    ///< an attempt may have been made
  bool isTooMuch_ = false;  ///< it cannot be made smaller, and is too large

  std::size_t mostOperations_;
  std::size_t mostBytes_;
  std::uint64_t acked_ = 0;
  std::uint64_t merged_ = 0;
  EtcdBackoff backoff_;

  std::unique_ptr<Velto::Platform::TimerControl> timer_;
  EtcdClient client_;
  std::unique_ptr<EtcdClient::KeepAliveStream> keepAlive_;
};

}  // namespace Korvo::detail
