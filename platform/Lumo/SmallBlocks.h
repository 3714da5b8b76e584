// Lumo small blocks: the memory of counted objects and string buffers.
#pragma once

#include <cstddef>

namespace Lumo {

// A subscription makes and frees about a dozen small blocks, and a general-purpose malloc
// costs more per block than the bookkeeping the block holds. Builds with LUMO_MIMALLOC take
// them from mimalloc: per-thread pages of one size class, so that a block costs a few
// instructions and the blocks made together lie together even after frees in random order.
// Other builds (those with a sanitizer among them, which must see every free) use malloc.
void* smallBlockNew(std::size_t size);
void smallBlockDelete(void* block, std::size_t size) noexcept;

// Bytes of the calling thread's small blocks in use, each counted at the size of its class:
// the figure malloc's statistics give for its own blocks. 0 when blocks come from malloc
// (its statistics count them then). Walks the thread's pages: for measurements, not hot paths.
std::size_t smallBlockBytesInUse() noexcept;

} // namespace Lumo
