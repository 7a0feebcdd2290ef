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

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace Velmot {

inline void return_free_memory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace Velmot

#endif
