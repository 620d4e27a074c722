#pragma once

// What a batch holds.

#include <Korvo/Batch.h>

#include <vector>

#include "TableStore.h"

namespace Korvo {

struct AnyBatch::Parts {
  struct Part {
    AnyTable* table;
    std::vector<detail::RowOperation> operations;
  };
  std::vector<Part> parts;

  std::vector<detail::RowOperation>& of(AnyTable& table) {
    for (Part& part : parts) {
      if (part.table == &table) return part.operations;
    }
    parts.push_back({&table, {}});
    return parts.back().operations;
  }
};

/// For those who make batches of batches.
struct BatchParts {
  static std::vector<AnyBatch::Parts::Part>& all(AnyBatch& batch) { return batch.parts_->parts; }
  static std::vector<detail::RowOperation>& of(AnyBatch& batch, AnyTable& table) {
    return batch.parts_->of(table);
  }
};

}  // namespace Korvo
