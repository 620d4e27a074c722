#pragma once

// Reading rows from the cluster itself.
//
//   Korvo::EtcdReader cluster("etcd://a:2379,b:2379,c:2379/net/portAgent", loop);
//   cluster.row<Port>("net/port", 1001, [](const Korvo::EtcdAnswer<Port>& answer) {
//     if (!answer) {
//       std::cerr << answer.problem << '\n';
//     } else if (answer.value.isNull()) {
//       std::cout << "there is none\n";
//     } else {
//       std::cout << answer.value << '\n';
//     }
//   });
//
// Which to use: a subscriber's table answers at once, from memory, with the publisher's state of a
// few milliseconds ago, or of longer ago where it is stale. What is read here costs a conversation,
// and is never older than the question: whatever the publisher was told to be written before the
// question was asked is in the answer, whichever member gives it, since a majority of the members
// stands behind it. As with subscribers, an answer is of one state of the publisher: of a batch
// that is being written it has nothing.

#include <Korvo/RowConverter.h>
#include <Korvo/Scheduler.h>
#include <Korvo/export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Korvo {

/// What a question to the cluster led to.
template <typename Value>
struct EtcdAnswer {
  Value value;          ///< what was asked for; as it was made by default if there is a problem
  std::string problem;  ///< why it could not be read, for people; empty: it was
  bool isKept = false;  ///< a publisher keeps it up to date; false: as the last one left it

  /// Whether it was read.
  explicit operator bool() const { return problem.empty(); }
};

namespace detail {

/// An answer before its rows have a class.
struct EtcdRows {
  std::vector<std::string> rows;  ///< bytes of our layout
  std::string problem;
  bool isKept = false;
};

}  // namespace detail

/// Asks a cluster for rows of one publisher. Everything belongs to the scheduler's thread, and
/// nothing waits there. Questions may be asked while others are open, also in what they tell.
class KORVO_API EtcdReader {
 public:
  /// Gets the answer.
  template <typename Value>
  using Told = std::function<void(const EtcdAnswer<Value>& answer)>;

  /// A question fails when nothing has come for it for so long; meanwhile it is asked again, of one
  /// member after the other. User, password and files for TLS are those of subscribers. Throws
  /// KoInvalidArgument for an address or settings that are none, and a limit that is not positive;
  /// std::system_error for want of resources. The scheduler has timers and descriptors.
  EtcdReader(const std::string& address, const KoPtr<Scheduler>& scheduler,
             std::chrono::milliseconds limit = std::chrono::seconds(10));
  EtcdReader(const EtcdReader&) = delete;
  EtcdReader& operator=(const EtcdReader&) = delete;
  /// Whose questions are open is not told any more. Also in what it tells.
  ~EtcdReader();

  // What is asked for is told once, in a later turn, and may throw what the scheduler's users may.
  // Rows of another layout are converted as subscribers do. A problem is told for a table that is
  // not published, a layout or row that cannot be taken, want of rights, and when the limit is
  // reached.

  /// The row of this oid; a null row if there is none.
  template <typename Row>
  void row(const std::string& table, oid_t oid, Told<Row> told) {
    ask(table, oid, Row::Layout::info, [told = std::move(told)](const detail::EtcdRows& found) {
      EtcdAnswer<Row> answer{{}, found.problem, found.isKept};
      if (!found.rows.empty()) answer.value.adopt(found.rows[0].data(), found.rows[0].size());
      told(answer);
    });
  }
  /// All rows, by their oids.
  template <typename Row>
  void rows(const std::string& table, Told<std::vector<Row>> told) {
    ask(table, std::nullopt, Row::Layout::info,
        [told = std::move(told)](const detail::EtcdRows& found) {
          EtcdAnswer<std::vector<Row>> answer{{}, found.problem, found.isKept};
          answer.value.resize(found.rows.size());
          for (std::size_t i = 0; i < found.rows.size(); ++i) {
            answer.value[i].adopt(found.rows[i].data(), found.rows[i].size());
          }
          told(answer);
        });
  }

 private:
  class Impl;
  void ask(const std::string& table, std::optional<oid_t> oid, const LayoutInfo& ours,
           std::function<void(const detail::EtcdRows&)> told);

  std::shared_ptr<Impl> impl_;
};

}  // namespace Korvo
