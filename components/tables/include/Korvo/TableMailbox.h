#pragma once

// Batches from other threads.
//
//   Korvo::TableMailbox mailbox(loop);                  // on the thread of the tables
//
//   Korvo::Batch batch(ports);                          // on any thread, a batch of its own
//   batch.put(port);
//   if (!mailbox.post(batch)) {}                        // full: the batch is as before
//
// What waits is kept by table and oid: of two rows of one oid the later one stays, so that a
// mailbox never holds more than the tables have rows, nor more than its limit. What waits when the
// loop's turn comes appears as one batch.

#include <Korvo/Batch.h>
#include <Korvo/export.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Korvo {

/// Takes batches from any thread to the tables' own.
class KORVO_API TableMailbox {
 public:
  /// Runs work on the loop's thread, from whatever thread it is called on.
  using Post = std::function<void(std::function<void()> work)>;
  /// Oids.
  static constexpr std::size_t defaultLimit = 65536;

  /// A mailbox for tables of the loop's thread, which all outlive it. `loop` has post(), as
  /// EventLoop does. `limit` is how many oids wait at the most. Throws KoInvalidArgument for a
  /// limit of 0.
  template <typename Loop>
  explicit TableMailbox(const std::shared_ptr<Loop>& loop, std::size_t limit = defaultLimit)
      : TableMailbox(Post([loop](std::function<void()> work) { loop->post(std::move(work)); }),
                     limit) {}
  TableMailbox(const TableMailbox&) = delete;
  TableMailbox& operator=(const TableMailbox&) = delete;
  /// On the loop's thread, once nobody posts any more. What waits is discarded.
  ~TableMailbox();

  /// Hands the batch's changes over; it is empty then. False, with the batch and the mailbox as
  /// before, if more oids would wait than the limit. May be called from every thread. Throws
  /// std::bad_alloc and what the loop's post() throws, with the batch and the mailbox as before.
  bool post(AnyBatch& batch);
  template <typename... Tables>
  bool post(Batch<Tables...>& batch) {
    return post(static_cast<AnyBatch&>(batch));
  }

  /// Is told, on the loop's thread, why changes that were handed over could not be made (see
  /// AnyBatch::commit()); they are discarded.
  void onFailure(std::function<void(const std::string& reason)> told);

  /// Oids that wait. From every thread.
  std::size_t waiting() const;

 private:
  TableMailbox(Post post, std::size_t limit);
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace Korvo
