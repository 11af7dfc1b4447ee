/*
 * dl_lib_internal.h - helpers shared by the library's modules; not installed.
 *
 * The number helpers spell out conversions that plain C++ casts leave
 * undefined (NaN or out-of-range float to int), so that a microcontroller
 * computes bit for bit what the PC computed.
 */
#ifndef DL_LIB_INTERNAL_H
#define DL_LIB_INTERNAL_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dl_lib_types.h"

namespace dl {

/* Every allocation of the library goes through these two (dl_lib_memory.h):
 * count * size zero bytes or NULL, and back. */
void *mem_calloc(size_t count, size_t size);
void mem_free(void *block);

/* Contract assertions stay on in every build type. The message names the
 * source file, the line, the function and the condition as written. */
[[noreturn]] inline void assert_fail(const char *cond, const char *file, int line, const char *func)
{
    const char *base = strrchr(file, '/');
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", base ? base + 1 : file, line, func, cond);
    fflush(stderr);
    abort();
}

constexpr int32_t kItemMax = 32767;  // saturation is symmetric: -32767..32767

/* Truncation toward zero to a signed 32-bit integer. A NaN, or a value whose
 * truncation does not fit, gives the lowest 32-bit integer. */
inline int32_t trunc_i32(float v)
{
    if (v >= -2147483648.0f && v < 2147483648.0f) return static_cast<int32_t>(v);
    return INT32_MIN;
}

inline int32_t trunc_i32(double v)
{
    if (v > -2147483649.0 && v < 2147483648.0) return static_cast<int32_t>(v);
    return INT32_MIN;
}

/* The low 16 bits of a 32-bit integer, as a signed item (two's complement). */
inline qtp_t low16(int32_t v) { return static_cast<qtp_t>(static_cast<uint16_t>(static_cast<uint32_t>(v))); }

inline int32_t saturate(int64_t v)
{
    if (v > kItemMax) return kItemMax;
    if (v < -kItemMax) return -kItemMax;
    return static_cast<int32_t>(v);
}

/* A fixed-point record whose items lie back to back in their column-major
 * order: one column, or a stride equal to the height. */
inline bool is_flat(const dl_matrix2dq_t *m) { return m->w <= 1 || m->stride == m->h; }

/* r(x, y) = op(a(x, y)) for records of one shape, column by column; records
 * that are all flat take one run of w * h items, which the compiler can
 * unroll and vectorise. One loop body either way, so that a build for size
 * still inlines op. r may be a. */
template <class Op>
inline void map_items(const dl_matrix2dq_t *a, dl_matrix2dq_t *r, Op op)
{
    const bool flat = is_flat(a) && is_flat(r);
    const int runs = flat ? 1 : a->w, len = flat ? a->w * a->h : a->h;
    for (int x = 0; x < runs; x++) {
        const qtp_t *pa = a->itemq + a->stride * x;
        qtp_t *pr = r->itemq + r->stride * x;
        for (int i = 0; i < len; i++) pr[i] = op(pa[i]);
    }
}

/* r(x, y) = op(a(x, y), b(x, y)), walked as map_items walks. r may be a or b. */
template <class Op>
inline void map_items(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, dl_matrix2dq_t *r, Op op)
{
    const bool flat = is_flat(a) && is_flat(b) && is_flat(r);
    const int runs = flat ? 1 : a->w, len = flat ? a->w * a->h : a->h;
    for (int x = 0; x < runs; x++) {
        const qtp_t *pa = a->itemq + a->stride * x, *pb = b->itemq + b->stride * x;
        qtp_t *pr = r->itemq + r->stride * x;
        for (int i = 0; i < len; i++) pr[i] = op(pa[i], pb[i]);
    }
}

/* v held to the saturation range, as saturate() does, in 32 bits. */
inline int32_t saturate32(int32_t v) { return v > kItemMax ? kItemMax : v < -kItemMax ? -kItemMax : v; }

/* v * 2^n in 32-bit two's complement, for negative v too (n from 0 to 31). */
inline int32_t shl(int32_t v, int n) { return static_cast<int32_t>(static_cast<uint32_t>(v) << n); }

/* 2^e as a 32-bit float, exact wherever it is representable (subnormals
 * included); 0 below and infinity above that range. No libm call. */
inline float pow2f(int e)
{
    uint32_t bits;
    if (e > 127) bits = 0x7f800000u;
    else if (e >= -126) bits = static_cast<uint32_t>(e + 127) << 23;
    else if (e >= -149) bits = 1u << (e + 149);
    else bits = 0;
    float f;
    memcpy(&f, &bits, sizeof f);
    return f;
}

/* The block exponent e that puts a largest magnitude `peak` between 16383
 * and 32767 items: halved while above 32767 (at most 128 times, which no
 * finite float needs; an infinite peak stops there), then doubled while
 * below 16383. 0 for a peak of 0 or NaN. Shared by the matrix and tensor
 * quantisers, so both choose the same exponent for the same values. */
inline int block_exponent(float peak)
{
    int e = 0;
    if (peak == 0.0f) return 0;
    while (peak > 32767.0f && e < 128) {
        e += 1;
        peak /= 2.0f;
    }
    while (peak < 16383.0f) {
        e -= 1;
        peak *= 2.0f;
    }
    return e;
}

/* Elements of a tensor n x h x w x c, or -1 when a dimension is negative, or
 * the count or the row stride w*c does not fit a signed 32-bit integer (with
 * n or h 0 the count is 0 whatever the stride): such a tensor cannot be held.
 * The factors are taken one at a time, stopping beyond INT32_MAX: four
 * dimensions near 2^31 would overflow even 64 bits. */
inline int64_t tensor_element_count(int n, int w, int h, int c)
{
    if (n < 0 || w < 0 || h < 0 || c < 0) return -1;
    const int dims[] = {n, w, h, c};
    int64_t count = 1;
    for (int d : dims)
        if (count <= INT32_MAX) count *= d;
    if (n == 0 || w == 0 || h == 0 || c == 0) count = 0;
    return count > INT32_MAX || static_cast<int64_t>(w) * c > INT32_MAX ? -1 : count;
}

}  // namespace dl

#define DL_ASSERT(cond) ((cond) ? static_cast<void>(0) : ::dl::assert_fail(#cond, __FILE__, __LINE__, __func__))

/* A temporary that a layer or conversion cannot do without: when memory ran
 * out, stops with "Assertion `out of memory: <name>' failed." */
#define DL_ASSERT_ALLOCATED(p) \
    ((p) ? static_cast<void>(0) : ::dl::assert_fail("out of memory: " #p, __FILE__, __LINE__, __func__))

#endif /* DL_LIB_INTERNAL_H */
