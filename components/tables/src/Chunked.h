#pragma once

// A vector that grows without moving what it holds, and takes little more memory than that.

#include <cstddef>
#include <vector>

namespace Korvo::detail {

template <typename Entry>
class Chunked {
 public:
  Entry& operator[](std::size_t index) { return chunks_[index / chunkSize][index % chunkSize]; }
  const Entry& operator[](std::size_t index) const {
    return chunks_[index / chunkSize][index % chunkSize];
  }
  std::size_t size() const {
    return chunks_.empty() ? 0 : (chunks_.size() - 1) * chunkSize + chunks_.back().size();
  }

  /// Throws std::bad_alloc with all as before.
  void grow() {
    if (chunks_.empty() || chunks_.back().size() == chunkSize) {
      std::vector<Entry> chunk;
      // Small tables stay small: only the first chunk grows by moving.
      if (!chunks_.empty()) chunk.reserve(chunkSize);
      chunk.emplace_back();
      chunks_.push_back(std::move(chunk));
    } else {
      chunks_.back().emplace_back();
    }
  }
  /// Takes the last one away, which there is.
  void shrink() noexcept {
    chunks_.back().pop_back();
    if (chunks_.back().empty()) chunks_.pop_back();
  }

 private:
  static constexpr std::size_t chunkSize = 1024;
  std::vector<std::vector<Entry>> chunks_;
};

}  // namespace Korvo::detail
