#ifndef VELMOT_DEFS_FREE_MEMORY_H
#define VELMOT_DEFS_FREE_MEMORY_H

// return_free_memory: hands the pages of freed heap blocks back to the
// system. The C library keeps freed blocks of medium size (a tree's node
// arrays, tens to hundreds of kilobytes) for later allocations, so they
// stay resident; where large blocks are freed just before more large ones
// are made (joining a forest's trees), handing them back keeps the
// process's peak memory down. Costs a walk over the free blocks: call it
// after freeing megabytes, not per block. Does nothing where the C
// library offers no such call.

#include <algorithm>
#include <cstddef>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace Velmot {

inline void return_free_memory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

// map_large_blocks: blocks of `bytes` or more get pages of their own, handed
// back to the system as soon as they are freed. The C library otherwise
// raises that size to that of each such block freed (up to 32 MiB), after
// which buffers of a few megabytes made and freed per tree (a sample's
// positions, a partition's scratch) come from the heap, where they stay
// resident between trees, scattered among the trees' node arrays.
// Process-wide, so only for a program that owns its process; does nothing
// where the C library offers no such setting.
inline void map_large_blocks(size_t bytes) {
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, static_cast<int>(std::min<size_t>(bytes, 32u << 20)));
#else
  (void)bytes;
#endif
}

}  // namespace Velmot

#endif
