#include "dl_lib_memory.h"

#include "dl_lib_internal.h"

namespace {

void *system_alloc(size_t count, size_t size, void *) { return calloc(count, size); }
void system_release(void *block, void *) { free(block); }

// The one allocator of the library: constant data until a program sets
// another, so that it needs no constructor.
dl_allocator_t current = {system_alloc, system_release, nullptr};

// Each arena block starts with the offset of the block taken before it, and
// whether it is still in use.
struct BlockHeader {
    size_t prev;
    size_t live;
};
constexpr size_t kAlign = 8;
constexpr size_t kHeader = (sizeof(BlockHeader) + kAlign - 1) / kAlign * kAlign;

BlockHeader *header_at(const dl_arena_t *arena, size_t offset)
{
    return reinterpret_cast<BlockHeader *>(arena->base + offset);
}

}  // namespace

namespace dl {

void *mem_calloc(size_t count, size_t size) { return current.alloc(count, size, current.ctx); }

void mem_free(void *block)
{
    if (block) current.release(block, current.ctx);
}

}  // namespace dl

void dl_set_allocator(const dl_allocator_t *allocator)
{
    current = allocator ? *allocator : dl_allocator_t{system_alloc, system_release, nullptr};
}

void dl_arena_init(dl_arena_t *arena, void *buffer, size_t size)
{
    const uintptr_t start = reinterpret_cast<uintptr_t>(buffer);
    const size_t skip = (kAlign - start % kAlign) % kAlign;
    arena->base = static_cast<unsigned char *>(buffer) + (skip < size ? skip : size);
    arena->size = skip < size ? (size - skip) / kAlign * kAlign : 0;
    arena->top = 0;
    arena->last = arena->size;
    arena->peak = 0;
    arena->refused = 0;
}

void dl_use_arena(dl_arena_t *arena)
{
    if (!arena) {
        dl_set_allocator(nullptr);
        return;
    }
    const dl_allocator_t a = {dl_arena_alloc, dl_arena_release, arena};
    dl_set_allocator(&a);
}

size_t dl_arena_peak(const dl_arena_t *arena) { return arena->peak; }

void dl_arena_reset_peak(dl_arena_t *arena) { arena->peak = arena->top; }

void *dl_arena_alloc(size_t count, size_t size, void *ctx)
{
    auto *arena = static_cast<dl_arena_t *>(ctx);
    // Room left after the header, and the request rounded up to whole
    // 8-byte units, both without overflow.
    const size_t room = arena->size - arena->top;
    if (room < kHeader || (size != 0 && count > (room - kHeader) / size) ||
        (count * size + kAlign - 1) / kAlign * kAlign > room - kHeader) {
        arena->refused++;
        return nullptr;
    }
    const size_t bytes = (count * size + kAlign - 1) / kAlign * kAlign;
    const size_t offset = arena->top;
    *header_at(arena, offset) = BlockHeader{arena->last, 1};
    arena->last = offset;
    arena->top = offset + kHeader + bytes;
    if (arena->top > arena->peak) arena->peak = arena->top;
    unsigned char *block = arena->base + offset + kHeader;
    memset(block, 0, bytes);
    return block;
}

void dl_arena_release(void *block, void *ctx)
{
    if (!block) return;
    auto *arena = static_cast<dl_arena_t *>(ctx);
    auto *p = static_cast<unsigned char *>(block);
    DL_ASSERT(p>=arena->base+kHeader && p<=arena->base+arena->top);
    reinterpret_cast<BlockHeader *>(p - kHeader)->live = 0;
    // Give back the newest blocks for as long as they are released.
    while (arena->last != arena->size && !header_at(arena, arena->last)->live) {
        arena->top = arena->last;
        arena->last = header_at(arena, arena->last)->prev;
    }
}
