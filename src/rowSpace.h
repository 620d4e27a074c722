#pragma once

// What the writers of rows share.

#include <Korvo/bytes.h>

#include <cstdint>
#include <span>

namespace Korvo {

/// Whether a value refers into a row, from wherever it begins.
inline bool shareAByte(std::span<const byte_t> value, std::span<const byte_t> row) {
  const auto valueBegin = reinterpret_cast<std::uintptr_t>(value.data());
  const auto rowBegin = reinterpret_cast<std::uintptr_t>(row.data());
  return valueBegin < rowBegin + row.size() && rowBegin < valueBegin + value.size();
}

}  // namespace Korvo
