#pragma once

// An allocator that counts, and can be told to fail and to fill what it hands out, in place of the
// executable's: malloc, calloc, realloc, free, operator new and operator delete. The library uses
// it too, linked either way. Included by one source per executable.
//
// Where there is an address sanitizer, its own allocator stands behind this one. The thread
// sanitizer allows no other allocator: KORVO_FAILING_ALLOCATOR is 0 there, and the tests that need
// one are left out.

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVO_ADDRESS_SANITIZER 1
#endif
#if __has_feature(thread_sanitizer)
#define KORVO_THREAD_SANITIZER 1
#endif
#endif
#ifdef __SANITIZE_ADDRESS__
#define KORVO_ADDRESS_SANITIZER 1
#endif
#ifdef __SANITIZE_THREAD__
#define KORVO_THREAD_SANITIZER 1
#endif

#ifdef KORVO_THREAD_SANITIZER
#define KORVO_FAILING_ALLOCATOR 0
#else
#define KORVO_FAILING_ALLOCATOR 1

#ifdef KORVO_ADDRESS_SANITIZER
#define KORVO_UNDERLYING(function) __interceptor_##function
#else
#define KORVO_UNDERLYING(function) __libc_##function
#endif

extern "C" {
void* KORVO_UNDERLYING(malloc)(std::size_t size);
void* KORVO_UNDERLYING(realloc)(void* block, std::size_t size);
void KORVO_UNDERLYING(free)(void* block);
std::size_t malloc_usable_size(void* block);
}

namespace alloctest {

enum class Failing { never, once, fromThenOn };

struct Allocator {
  Failing failing = Failing::never;
  unsigned untilFailure = 0;
  unsigned allocations = 0;
  unsigned failures = 0;
  long liveBlocks = 0;
  bool countsBytes = false;
  long liveBytes = 0;  ///< beyond those when counting began
  long mostBytes = 0;  ///< the most of them
  int fill = -1;       ///< what new blocks and freed ones are filled with; none if negative
};
inline constinit Allocator allocator{};

inline bool nextFails() {
  ++allocator.allocations;
  if (allocator.failing == Failing::never) return false;
  if (allocator.untilFailure != 0) {
    --allocator.untilFailure;
    return false;
  }
  if (allocator.failing == Failing::once && allocator.failures != 0) return false;
  ++allocator.failures;
  return true;
}

inline void fillBlock(void* block, std::size_t from) {
  if (allocator.fill < 0) return;
  const std::size_t size = malloc_usable_size(block);
  if (from < size) std::memset(static_cast<char*>(block) + from, allocator.fill, size - from);
}

inline long sizeOf(void* block) {
  return static_cast<long>(malloc_usable_size(block));
}

/// Only while bytes are counted: the sanitizer cannot be asked before it has begun.
inline void countBytes(long more) {
  allocator.liveBytes += more;
  if (allocator.mostBytes < allocator.liveBytes) allocator.mostBytes = allocator.liveBytes;
}

inline void* allocate(std::size_t size) {
  if (nextFails()) return nullptr;
  void* const block = KORVO_UNDERLYING(malloc)(size);
  if (block == nullptr) return nullptr;
  ++allocator.liveBlocks;
  if (allocator.countsBytes) countBytes(sizeOf(block));
  fillBlock(block, 0);
  return block;
}

inline void release(void* block) {
  if (block == nullptr) return;
  --allocator.liveBlocks;
  if (allocator.countsBytes) countBytes(-sizeOf(block));
  fillBlock(block, 0);
  KORVO_UNDERLYING(free)(block);
}

/// Blocks that were handed out and not given back.
inline long liveBlocks() {
  return allocator.liveBlocks;
}

/// What `action` takes, in bytes.
struct Taken {
  long most;  ///< at once, while it runs
  long left;  ///< that it has not given back
};
template <typename Action>
Taken bytesOf(Action action) {
  allocator.liveBytes = allocator.mostBytes = 0;
  allocator.countsBytes = true;
  action();
  allocator.countsBytes = false;
  return {allocator.mostBytes, allocator.liveBytes};
}

/// Lets allocation number `first` fail, counted from 0, and none or all after it.
class FailureScope {
 public:
  FailureScope(unsigned first, Failing failing) {
    allocator.untilFailure = first;
    allocator.failures = 0;
    allocator.failing = failing;
  }
  ~FailureScope() { allocator.failing = Failing::never; }
  FailureScope(const FailureScope&) = delete;
  FailureScope& operator=(const FailureScope&) = delete;

  unsigned failures() const { return allocator.failures; }
};

/// Fills new and freed blocks with a byte. A block that is resized moves.
class FillScope {
 public:
  explicit FillScope(int byte) { allocator.fill = byte; }
  ~FillScope() { allocator.fill = -1; }
  FillScope(const FillScope&) = delete;
  FillScope& operator=(const FillScope&) = delete;
};

/// The number of allocations that `action` makes.
template <typename Action>
unsigned allocationsOf(Action action) {
  const unsigned before = allocator.allocations;
  action();
  return allocator.allocations - before;
}

}  // namespace alloctest

// Used by what is outside this source.
#define KORVO_REPLACES __attribute__((visibility("default"), used, noinline))

extern "C" {

KORVO_REPLACES void* malloc(std::size_t size) {
  return alloctest::allocate(size);
}
KORVO_REPLACES void* calloc(std::size_t count, std::size_t size) {
  std::size_t total = 0;
  if (__builtin_mul_overflow(count, size, &total)) return nullptr;
  void* const block = alloctest::allocate(total);
  if (block != nullptr) std::memset(block, 0, total);
  return block;
}
KORVO_REPLACES void* realloc(void* block, std::size_t size) {
  if (block == nullptr) return alloctest::allocate(size);
  if (alloctest::allocator.fill < 0) {
    if (alloctest::nextFails()) return nullptr;
    const bool counts = alloctest::allocator.countsBytes;
    const long before = counts ? alloctest::sizeOf(block) : 0;
    void* const resized = KORVO_UNDERLYING(realloc)(block, size);
    if (counts && resized != nullptr) alloctest::countBytes(alloctest::sizeOf(resized) - before);
    return resized;
  }
  void* const moved = alloctest::allocate(size);
  if (moved == nullptr) return nullptr;
  const std::size_t before = malloc_usable_size(block);
  std::memcpy(moved, block, before < size ? before : size);
  alloctest::release(block);
  return moved;
}
KORVO_REPLACES void free(void* block) {
  alloctest::release(block);
}

}  // extern "C"

KORVO_REPLACES void* operator new(std::size_t size) {
  void* const block = alloctest::allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
KORVO_REPLACES void* operator new[](std::size_t size) {
  return operator new(size);
}
KORVO_REPLACES void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return alloctest::allocate(size);
}
KORVO_REPLACES void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return alloctest::allocate(size);
}
KORVO_REPLACES void operator delete(void* block) noexcept {
  alloctest::release(block);
}
KORVO_REPLACES void operator delete[](void* block) noexcept {
  alloctest::release(block);
}
KORVO_REPLACES void operator delete(void* block, std::size_t) noexcept {
  alloctest::release(block);
}
KORVO_REPLACES void operator delete[](void* block, std::size_t) noexcept {
  alloctest::release(block);
}
KORVO_REPLACES void operator delete(void* block, const std::nothrow_t&) noexcept {
  alloctest::release(block);
}
KORVO_REPLACES void operator delete[](void* block, const std::nothrow_t&) noexcept {
  alloctest::release(block);
}

#endif  // KORVO_THREAD_SANITIZER
