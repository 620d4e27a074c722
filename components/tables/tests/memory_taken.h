#pragma once

// How much memory a test has taken from the heap.

#include <malloc.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KORVO_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORVO_SANITIZED_HEAP 1
#endif
#endif

#ifdef KORVO_SANITIZED_HEAP
#include <sanitizer/allocator_interface.h>
#endif

namespace tabletest {

inline std::size_t memoryTaken() {
#ifdef KORVO_SANITIZED_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace tabletest
