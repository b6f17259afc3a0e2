#include "core/heap.h"

#include <stdlib.h>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

void heap_open() {
#if defined(__GLIBC__)
  // By default each thread that allocates gets an arena of its own, up to eight per core.
  mallopt(M_ARENA_MAX, 1);
#endif
  // With another allocator in front (a maker's, a sanitizer's) this is the C library's heap's first
  // use, which sets it up and must not be made by two threads at once.
  heap_trim();
}

void heap_trim() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}
