#include <Korvo/TableMailbox.h>

#include <mutex>
#include <unordered_map>
#include <utility>

#include "BatchParts.h"

namespace Korvo {

struct TableMailbox::State : std::enable_shared_from_this<State> {
  using Rows = std::unordered_map<oid_t, KoPtr<KoRowBuf>>;
  using Tables = std::unordered_map<AnyTable*, Rows>;

  void deliver();

  Post post;
  std::size_t limit = 0;
  std::function<void(const std::string&)> failureTold;  // the loop's thread alone

  mutable std::mutex mutex;
  Tables waiting;
  std::size_t count = 0;
  bool isPosted = false;
};

void TableMailbox::State::deliver() {
  Tables taken;
  {
    const std::lock_guard lock(mutex);
    isPosted = false;
    count = 0;
    taken.swap(waiting);
  }
  std::string failure;
  try {
    AnyBatch batch;
    for (const auto& [table, rows] : taken) {
      std::vector<detail::RowOperation>& operations = BatchParts::of(batch, *table);
      for (const auto& [oid, buffer] : rows) operations.push_back({oid, buffer});
    }
    batch.commit();
    return;
  } catch (const KoBaseException& error) {
    failure = error.what();
  } catch (const std::bad_alloc&) {
    failure = "no memory";
  }
  if (const auto told = failureTold) told(failure);
}

TableMailbox::TableMailbox(Post post, std::size_t limit) : state_(std::make_shared<State>()) {
  if (limit == 0) throw KoInvalidArgument("A mailbox for nothing");
  state_->post = std::move(post);
  state_->limit = limit;
}

TableMailbox::~TableMailbox() = default;

bool TableMailbox::post(AnyBatch& batch) {
  // Nodes are made before anything is changed, and only moved then.
  State::Tables fresh;
  for (const auto& part : BatchParts::all(batch)) {
    State::Rows& rows = fresh[part.table];
    for (const detail::RowOperation& operation : part.operations) {
      rows[operation.oid] = operation.buffer;
    }
  }
  {
    const std::lock_guard lock(state_->mutex);
    std::size_t added = 0;
    for (const auto& [table, rows] : fresh) {
      const auto known = state_->waiting.find(table);
      for (const auto& [oid, buffer] : rows) {
        if (known == state_->waiting.end() || !known->second.contains(oid)) ++added;
      }
    }
    if (added > state_->limit - state_->count) return false;
    state_->waiting.reserve(state_->waiting.size() + fresh.size());
    for (const auto& [table, rows] : fresh) {
      if (const auto known = state_->waiting.find(table); known != state_->waiting.end()) {
        known->second.reserve(known->second.size() + rows.size());
      }
    }
    if (!state_->isPosted) {
      state_->post([weak = state_->weak_from_this()] {
        if (const std::shared_ptr<State> state = weak.lock()) state->deliver();
      });
      state_->isPosted = true;
    }
    for (auto& [table, rows] : fresh) {
      const auto known = state_->waiting.find(table);
      if (known == state_->waiting.end()) continue;
      for (auto& [oid, buffer] : rows) {
        if (const auto former = known->second.find(oid); former != known->second.end()) {
          former->second.swap(buffer);
        }
      }
      known->second.merge(rows);
    }
    state_->waiting.merge(fresh);
    state_->count += added;
  }
  batch.clear();
  return true;
}

void TableMailbox::onFailure(std::function<void(const std::string& reason)> told) {
  state_->failureTold = std::move(told);
}

std::size_t TableMailbox::waiting() const {
  const std::lock_guard lock(state_->mutex);
  return state_->count;
}

}  // namespace Korvo
