#pragma once

// An allocator for a container whose elements come and go all the time: what the container gives
// back is kept for its next request, so that a steady flow allocates nothing.

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>

namespace Korvo::detail {

/// Keeps blocks of one size, that of the first block given back, until it is destroyed. Each
/// container's allocator keeps its own; a copy starts with none.
template <typename T>
class RecyclingAllocator {
 public:
  using value_type = T;
  using is_always_equal = std::true_type;

  RecyclingAllocator() = default;
  RecyclingAllocator(const RecyclingAllocator&) noexcept {}
  template <typename U>
  RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}  // NOLINT: containers convert it
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned
  RecyclingAllocator& operator=(const RecyclingAllocator&) noexcept { return *this; }
  ~RecyclingAllocator() {
    while (kept_ != nullptr) std::allocator<T>().deallocate(takeKept(), keptLength_);
  }

  T* allocate(std::size_t length) {
    if (kept_ != nullptr && length == keptLength_) return takeKept();
    return std::allocator<T>().allocate(length);
  }

  void deallocate(T* block, std::size_t length) noexcept {
    // NOLINTNEXTLINE(bugprone-sizeof-expression,misc-redundant-expression): true of some T only
    static_assert(sizeof(T) >= sizeof(Kept) && alignof(T) >= alignof(Kept));
    if (keptLength_ == 0) keptLength_ = length;
    if (length == keptLength_) {
      kept_ = new (static_cast<void*>(block)) Kept{kept_};
    } else {
      std::allocator<T>().deallocate(block, length);
    }
  }

  friend bool operator==(const RecyclingAllocator&, const RecyclingAllocator&) { return true; }

 private:
  struct Kept {
    Kept* next;
  };

  T* takeKept() noexcept {
    void* block = kept_;
    kept_ = kept_->next;
    return static_cast<T*>(block);
  }

  Kept* kept_ = nullptr;
  std::size_t keptLength_ = 0;
};

}  // namespace Korvo::detail
