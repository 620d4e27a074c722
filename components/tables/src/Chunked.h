#pragma once

// A vector that grows without moving what it holds, and takes little more memory than that.

#include <bit>
#include <cstddef>
#include <utility>
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

  class Iterator {
   public:
    Iterator(Chunked& chunked, std::size_t index) : chunked_(chunked), index_(index) {}
    Entry& operator*() const { return chunked_[index_]; }
    Iterator& operator++() {
      ++index_;
      return *this;
    }
    bool operator==(const Iterator& other) const { return index_ == other.index_; }

   private:
    Chunked& chunked_;
    std::size_t index_;
  };
  Iterator begin() { return {*this, 0}; }
  Iterator end() { return {*this, size()}; }
  Entry& back() { return chunks_.back().back(); }

  /// Throws std::bad_alloc with all as before.
  void push_back(Entry entry) {
    if (chunks_.empty() || chunks_.back().size() == chunkSize) {
      std::vector<Entry> chunk;
      // Small tables stay small: only the first chunk grows by moving.
      if (!chunks_.empty()) chunk.reserve(chunkSize);
      chunk.push_back(std::move(entry));
      chunks_.push_back(std::move(chunk));
    } else {
      chunks_.back().push_back(std::move(entry));
    }
  }
  /// Takes the last one away, which there is.
  void shrink() noexcept {
    chunks_.back().pop_back();
    if (chunks_.back().empty()) chunks_.pop_back();
  }
  /// Calls use(entry) for each, in order, and lets go of them on the way. What is filled meanwhile
  /// gets their room: chunks are of one size, whatever they hold.
  template <typename Use>
  void drain(const Use& use) {
    for (std::vector<Entry>& chunk : chunks_) {
      for (Entry& entry : chunk) use(entry);
      std::vector<Entry>().swap(chunk);
    }
    chunks_.clear();
  }

 private:
  static constexpr std::size_t chunkSize = std::bit_floor(32768 / sizeof(Entry));
  std::vector<std::vector<Entry>> chunks_;
};

}  // namespace Korvo::detail
