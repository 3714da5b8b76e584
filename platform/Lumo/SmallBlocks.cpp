// Lumo small blocks: mimalloc when built with it, malloc otherwise.
#include "Lumo/SmallBlocks.h"

#include <cstdlib>
#include <new>

#ifdef LUMO_MIMALLOC
#include <mimalloc.h>
#endif

namespace Lumo {

#ifdef LUMO_MIMALLOC

void* smallBlockNew(std::size_t size) {
    void* block = size <= MI_SMALL_SIZE_MAX ? mi_malloc_small(size) : mi_malloc(size);
    if (!block) throw std::bad_alloc();
    return block;
}

void smallBlockDelete(void* block, std::size_t) noexcept { mi_free(block); }

std::size_t smallBlockBytesInUse() noexcept {
    std::size_t bytes = 0;
    mi_heap_visit_blocks(
        mi_heap_get_default(), false,
        [](mi_heap_t const*, mi_heap_area_t const* area, void*, std::size_t, void* sum) {
            if (area) *static_cast<std::size_t*>(sum) += area->used * area->full_block_size;
            return true;
        },
        &bytes);
    return bytes;
}

#else

void* smallBlockNew(std::size_t size) {
    void* block = std::malloc(size ? size : 1);
    if (!block) throw std::bad_alloc();
    return block;
}

void smallBlockDelete(void* block, std::size_t) noexcept { std::free(block); }

std::size_t smallBlockBytesInUse() noexcept { return 0; }

#endif

} // namespace Lumo
