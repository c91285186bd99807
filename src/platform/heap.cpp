#include "platform/heap.h"

#include <malloc.h>

namespace platform {

namespace {

constexpr int kLargeBlockBytes = 64 * 1024;
// What a text of ordinary length takes stays until the heap is trimmed, ready for the next one.
constexpr int kSpareBytes = 8 * 1024 * 1024;

}  // namespace

void keepHeapSmall() {
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, kLargeBlockBytes);
  mallopt(M_TRIM_THRESHOLD, kSpareBytes);
}

void trimHeap() {
  // A sanitizer has a heap of its own, and the C library's does not bear to be trimmed beside it.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  malloc_trim(0);
#endif
}

}  // namespace platform
