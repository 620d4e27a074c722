#include <Korvo/LearnedTable.h>

#include <algorithm>
#include <utility>

#include "TableStore.h"

namespace Korvo {

std::vector<oid_t> LearnedTable::oids(std::size_t most) const {
  const detail::TableStore& store = detail::TableAccess::store(*this);
  std::vector<oid_t> oids;
  oids.reserve(store.size());
  for (detail::Slot slot = store.slotFrom(0); slot != detail::noSlot;
       slot = store.slotFrom(slot + 1)) {
    oids.push_back(store.oid(slot));
  }
  most = std::min(most, oids.size());
  std::partial_sort(oids.begin(), oids.begin() + static_cast<std::ptrdiff_t>(most), oids.end());
  oids.resize(most);
  return oids;
}

LearnedReader::LearnedReader(LearnedTable& table, const KoPtr<Scheduler>& scheduler, Callback told,
                             Before before)
    : AnyTableReader(table, scheduler, before),
      layout_(table.rowLayout()),
      told_(std::make_shared<const Callback>(std::move(told))) {}

void LearnedReader::tell(detail::ChangeSource& source) {
  const std::shared_ptr<const Callback> told = told_;  // it may destroy the reader
  LearnedChanges changes(source, layout_);
  (*told)(changes);
}

}  // namespace Korvo
