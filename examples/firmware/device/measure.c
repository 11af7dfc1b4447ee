/*
 * Heap and stack accounting on the device.
 *
 * Heap: the firmware links with --wrap for malloc, calloc, realloc and free,
 * so every call the library makes lands here. Each block carries its size
 * in an 8-byte header (8 keeps the C library's alignment), which lets free
 * subtract what it returns. Figures are the bytes asked for; the allocator
 * adds its own few bytes per block.
 *
 * Stack: measure_begin paints the free part of the stack region with a
 * pattern; measure_end finds the lowest word that no longer holds it. The
 * depth counts from measure_begin's own stack pointer, a few bytes below its
 * caller's. A nested measurement repaints, so it hands what it saw on to the
 * enclosing one when it ends.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "measure.h"

void *__real_malloc(size_t size);
void __real_free(void *p);

#define HEADER      8u
#define PAINT       0x5afec0deu
#define MAX_NESTING 4
#define MAX_RECORDS 64

static size_t heap_now, heap_peak;
static unsigned long allocations;

void *__wrap_malloc(size_t size)
{
    if (size > SIZE_MAX - HEADER) return NULL;
    unsigned char *block = __real_malloc(size + HEADER);
    if (!block) return NULL;
    memcpy(block, &size, sizeof size);
    heap_now += size;
    if (heap_now > heap_peak) heap_peak = heap_now;
    allocations++;
    return block + HEADER;
}

void __wrap_free(void *p)
{
    if (!p) return;
    unsigned char *block = (unsigned char *)p - HEADER;
    size_t size;
    memcpy(&size, block, sizeof size);
    heap_now -= size;
    __real_free(block);
}

void *__wrap_calloc(size_t n, size_t size)
{
    if (size && n > SIZE_MAX / size) return NULL;
    void *p = __wrap_malloc(n * size);
    if (p) memset(p, 0, n * size);
    return p;
}

void *__wrap_realloc(void *p, size_t size)
{
    if (!p) return __wrap_malloc(size);
    size_t old;
    memcpy(&old, (unsigned char *)p - HEADER, sizeof old);
    void *q = __wrap_malloc(size);
    if (!q) return NULL;
    memcpy(q, p, old < size ? old : size);
    __wrap_free(p);
    return q;
}

extern uint32_t __stack_limit[];

static inline uintptr_t stack_pointer(void)
{
    uintptr_t sp;
    __asm volatile("mov %0, sp" : "=r"(sp));
    return sp;
}

/* The lowest stack word written since the region was last painted. */
static uintptr_t lowest_touched(void)
{
    const volatile uint32_t *w = __stack_limit;
    while (*w == PAINT) w++;
    return (uintptr_t)w;
}

static struct {
    uintptr_t sp;      /* the stack pointer at measure_begin */
    uintptr_t lowest;  /* lowest word seen by nested measurements */
    size_t heap_base;  /* heap held at measure_begin */
    size_t outer_peak; /* the enclosing measurement's figures */
    unsigned long outer_allocations;
} open[MAX_NESTING];
static int depth;

static struct {
    const char *label;
    size_t heap;
    unsigned long allocations;
    uintptr_t stack;
} records[MAX_RECORDS];
static int n_records;

void measure_begin(void)
{
    if (depth == MAX_NESTING) return;
    uintptr_t sp = stack_pointer();
    if (depth > 0 && open[depth - 1].lowest > lowest_touched()) open[depth - 1].lowest = lowest_touched();
    open[depth].sp = sp;
    open[depth].lowest = sp;
    open[depth].heap_base = heap_now;
    open[depth].outer_peak = heap_peak;
    open[depth].outer_allocations = allocations;
    depth++;
    heap_peak = heap_now;
    allocations = 0;
    /* Everything below the stack pointer is free, and nothing is pushed
     * until this function returns: paint it all. */
    for (volatile uint32_t *w = __stack_limit; (uintptr_t)w < sp; w++) *w = PAINT;
}

void measure_end(const char *label)
{
    if (depth == 0) return;
    depth--;
    uintptr_t lowest = lowest_touched();
    if (open[depth].lowest < lowest) lowest = open[depth].lowest;
    if (n_records < MAX_RECORDS) {
        records[n_records].label = label;
        records[n_records].heap = heap_peak - open[depth].heap_base;
        records[n_records].allocations = allocations;
        records[n_records].stack = open[depth].sp - lowest;
        n_records++;
    }
    if (depth > 0 && open[depth - 1].lowest > lowest) open[depth - 1].lowest = lowest;
    if (open[depth].outer_peak > heap_peak) heap_peak = open[depth].outer_peak;
    allocations += open[depth].outer_allocations;
}

void measure_report(void)
{
    for (int i = 0; i < n_records; i++)
        fprintf(stderr, "cost %s heap %lu allocations %lu stack %lu\n", records[i].label,
                (unsigned long)records[i].heap, records[i].allocations, (unsigned long)records[i].stack);
    n_records = 0;
}
