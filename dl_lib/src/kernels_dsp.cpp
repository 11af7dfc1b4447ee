// The fixed-point products on 32-bit ARM cores with the DSP extension
// (Cortex-M4 and M7, ARMv7-A): SMLALD multiplies two pairs of signed 16-bit
// items packed in two words and adds both products to a 64-bit sum, exactly.
// So each instruction does two of the exact multiply-accumulates that the
// plain loop does one at a time, and the sums, being exact, are the same.
//
// The kernel needs no heap: the items of b's columns lie next to each other,
// so a word load reads a pair; a row of a does too when a has one row of its
// own (the layers' case), and is otherwise copied to the stack once per row
// (or, when too long for that, packed pair by pair). Two columns of b share
// each pair of a, and the loop takes four pairs a step.
#include "kernels_internal.h"

#if defined(__ARM_FEATURE_DSP) && defined(__arm__)
#include <string.h>

namespace dl::dsp {
namespace {

// One word from two neighbouring items; the core allows unaligned word loads.
inline uint32_t load_pair(const qtp_t *p)
{
    uint32_t w;
    memcpy(&w, p, sizeof w);
    return w;
}

// Two items of a row of a, standing `step` items apart, as one word (the
// first in the low half, as a word load of neighbours would give them).
inline uint32_t pack_pair(const qtp_t *p, int step)
{
    return static_cast<uint16_t>(p[0]) | static_cast<uint32_t>(static_cast<uint16_t>(p[step])) << 16;
}

// sum + lo(x) * lo(y) + hi(x) * hi(y), all products exact. Written as one
// instruction with the sum tied to its two registers, so that no move of the
// 64-bit accumulator surrounds it.
inline int64_t smlald(uint32_t x, uint32_t y, int64_t sum)
{
    __asm__("smlald %Q0, %R0, %1, %2" : "+r"(sum) : "r"(x), "r"(y));
    return sum;
}

// The sums of one row of a (K items, `step` apart) with columns x0 and x1 of
// b (x1 may equal x0, when one column is left: its second sum is then
// dropped), stored as item (x, y).
template <bool kRowContiguous>
void two_columns(const qtp_t *ar, int step, int K, const dl_matrix2dq_t *b, int y, int x0, int x1, const QDotOut &out)
{
    const qtp_t *b0 = b->itemq + b->stride * x0, *b1 = b->itemq + b->stride * x1;
    int64_t s0 = 0, s1 = 0;
    auto pair_a = [&](int k) { return kRowContiguous ? load_pair(ar + k) : pack_pair(ar + step * k, step); };
    int k = 0;
    for (; k + 8 <= K; k += 8) {
        const uint32_t p0 = pair_a(k), p1 = pair_a(k + 2), p2 = pair_a(k + 4), p3 = pair_a(k + 6);
        s0 = smlald(p0, load_pair(b0 + k), s0);
        s1 = smlald(p0, load_pair(b1 + k), s1);
        s0 = smlald(p1, load_pair(b0 + k + 2), s0);
        s1 = smlald(p1, load_pair(b1 + k + 2), s1);
        s0 = smlald(p2, load_pair(b0 + k + 4), s0);
        s1 = smlald(p2, load_pair(b1 + k + 4), s1);
        s0 = smlald(p3, load_pair(b0 + k + 6), s0);
        s1 = smlald(p3, load_pair(b1 + k + 6), s1);
    }
    for (; k + 2 <= K; k += 2) {
        const uint32_t p = pair_a(k);
        s0 = smlald(p, load_pair(b0 + k), s0);
        s1 = smlald(p, load_pair(b1 + k), s1);
    }
    if (k < K) {
        const int64_t v = ar[step * k];
        s0 += v * b0[k];
        s1 += v * b1[k];
    }
    qdot_store(out, x0, y, s0);
    if (x1 != x0) qdot_store(out, x1, y, s1);
}

template <bool kRowContiguous>
void row_by_columns(const qtp_t *ar, int step, const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, int y,
                    const QDotOut &out)
{
    for (int x = 0; x < b->w; x += 2)
        two_columns<kRowContiguous>(ar, step, a->w, b, y, x, x + 1 < b->w ? x + 1 : x, out);
}

// A row of a whose items stand apart (a record of several rows, or a view)
// is laid out once in this many items of stack, when it fits, rather than
// packed anew for every pair of columns.
constexpr int kRowBuffer = 256;

}  // namespace

bool matrixq_dot(const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, const QDotOut &out)
{
    qtp_t row[kRowBuffer];
    for (int y = 0; y < a->h; y++) {
        const qtp_t *ar = a->itemq + y;
        if (a->stride == 1) {
            row_by_columns<true>(ar, 1, a, b, y, out);
        } else if (a->w <= kRowBuffer) {
            for (int k = 0; k < a->w; k++) row[k] = ar[a->stride * k];
            row_by_columns<true>(row, 1, a, b, y, out);
        } else {
            row_by_columns<false>(ar, a->stride, a, b, y, out);
        }
    }
    return true;
}

}  // namespace dl::dsp
#endif
