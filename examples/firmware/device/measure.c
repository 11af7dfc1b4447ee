/*
 * Heap and stack accounting on the device.
 *
 * Heap: the firmware links with --wrap for malloc, calloc, realloc and free,
 * so every call the library makes lands here. Each block carries its size
 * in an 8-byte header (8 keeps the C library's alignment), which lets free
 * subtract what it returns.
 *
 * Stack: measure_begin paints the free part of the stack region with a
 * pattern; measure_end finds the lowest word that no longer holds it.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "measure.h"

void *__real_malloc(size_t size);
void __real_free(void *p);

#define HEADER 8u
#define PAINT 0x5afec0deu

static size_t heap_now, heap_peak, heap_base;
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
static uintptr_t stack_ref;

static inline uintptr_t stack_pointer(void)
{
    uintptr_t sp;
    __asm volatile("mov %0, sp" : "=r"(sp));
    return sp;
}

void measure_begin(void)
{
    heap_base = heap_peak = heap_now;
    allocations = 0;
    /* Everything below the stack pointer is free: paint it, keeping clear
     * of the words this function itself may still push. */
    stack_ref = stack_pointer();
    for (volatile uint32_t *w = __stack_limit; (uintptr_t)w < stack_ref - 64; w++) *w = PAINT;
}

void measure_end(const char *label)
{
    const uint32_t *w = __stack_limit;
    while ((uintptr_t)w < stack_ref && *w == PAINT) w++;
    fprintf(stderr, "cost %s heap %lu allocations %lu stack %lu\n", label, (unsigned long)(heap_peak - heap_base),
            allocations, (unsigned long)(stack_ref - (uintptr_t)w));
}
