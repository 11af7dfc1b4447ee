/*
 * dl_lib_memory.h - where the library's memory comes from.
 *
 * Every allocation of the library (records, the temporaries of the layers,
 * the loaders' buffers, the kernels' scratch) goes through one allocator:
 * calloc and free unless the program says otherwise. A firmware without a
 * heap hands the library an arena instead, a buffer of its own from which
 * blocks are taken and given back last in, first out; the arena records its
 * peak, so the memory a network needs is known before the device runs.
 *
 * The allocator is the library's one setting: choose it at start-up, before
 * any record exists, and keep it while records made with it live (a record
 * must go back to the allocator it came from). Not for use from several
 * threads at once.
 */
#ifndef DL_LIB_MEMORY_H
#define DL_LIB_MEMORY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
    /* count * size bytes, all zero, aligned for any element type; NULL when
     * they cannot be had (an overflowing product included). */
    void *(*alloc)(size_t count, size_t size, void *ctx);
    /* Gives back a block from alloc; NULL is accepted and ignored. */
    void (*release)(void *block, void *ctx);
    void *ctx;
} dl_allocator_t;

/* The allocator of every later allocation, copied; NULL restores calloc and
 * free. */
void dl_set_allocator(const dl_allocator_t *allocator);

/* An arena over a caller's buffer. Blocks are taken from the bottom up, each
 * behind a small header and rounded to 8 bytes; a released block is given
 * back when every block taken after it has been released too, so a layer's
 * temporaries return as the layer ends, while records that live on stay at
 * the bottom. A request that does not fit gets NULL and is counted. */
typedef struct {
    unsigned char *base; /* the buffer, from its first 8-byte boundary */
    size_t size;         /* usable bytes from base */
    size_t top;          /* bytes in use: the end of the newest live block */
    size_t last;         /* offset of the newest block's header; size when none */
    size_t peak;         /* the highest top since dl_arena_init or dl_arena_reset_peak */
    size_t refused;      /* requests that did not fit */
} dl_arena_t;

/* An empty arena over size bytes at buffer (a static array, say). */
void dl_arena_init(dl_arena_t *arena, void *buffer, size_t size);

/* The library allocates from arena from now on (dl_set_allocator with the
 * two functions below); NULL restores calloc and free. */
void dl_use_arena(dl_arena_t *arena);

/* The arena's peak in bytes (headers and rounding included): the smallest
 * buffer that would have served every request so far. reset_peak lowers the
 * peak to what is in use now, to measure the next piece of work alone. */
size_t dl_arena_peak(const dl_arena_t *arena);
void dl_arena_reset_peak(dl_arena_t *arena);

/* The arena as an allocator's two functions, ctx being the dl_arena_t. */
void *dl_arena_alloc(size_t count, size_t size, void *ctx);
void dl_arena_release(void *block, void *ctx);

#ifdef __cplusplus
}
#endif

#endif /* DL_LIB_MEMORY_H */
