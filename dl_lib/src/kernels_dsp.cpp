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
// each pair of a.
//
// The convolution's window sums (conv_internal.h) are the same kind of
// product, its weights packed in even runs so that every run is whole pairs.
#include "conv_internal.h"
#include "kernels_internal.h"

#if DL_DSP_KERNELS
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

// s0 and s1 plus the products of the pairs of n words of a with those of b0
// and b1, the plain way (a's pairs packed when its items stand apart).
template <bool kRowContiguous>
inline void pair_sums(const qtp_t *a, int step, const qtp_t *b0, const qtp_t *b1, int n, int64_t &s0, int64_t &s1)
{
    for (int k = 0; k < n; k++) {
        const uint32_t p = kRowContiguous ? load_pair(a + 2 * k) : pack_pair(a + 2 * step * k, step);
        s0 = smlald(p, load_pair(b0 + 2 * k), s0);
        s1 = smlald(p, load_pair(b1 + 2 * k), s1);
    }
}

// The same for a contiguous row, two pairs a turn, written out: left to
// the compiler, a build for size spills the sums and pointers to the stack
// in this loop, tripling its cost. Six loads, four SMLALD and the count:
// 12 instructions for 8 multiply-accumulates.
template <>
inline void pair_sums<true>(const qtp_t *a, int, const qtp_t *b0, const qtp_t *b1, int n, int64_t &s0, int64_t &s1)
{
    if (n & 1) {
        const uint32_t p = load_pair(a);
        s0 = smlald(p, load_pair(b0), s0);
        s1 = smlald(p, load_pair(b1), s1);
        a += 2;
        b0 += 2;
        b1 += 2;
    }
    int turns = n / 2;
    if (turns == 0) return;
    uint32_t x, y0, y1;
    __asm__(
        "1:\n\t"
        "ldr %[x], [%[a]], #4\n\t"
        "ldr %[y0], [%[b0]], #4\n\t"
        "ldr %[y1], [%[b1]], #4\n\t"
        "smlald %Q[s0], %R[s0], %[x], %[y0]\n\t"
        "smlald %Q[s1], %R[s1], %[x], %[y1]\n\t"
        "ldr %[x], [%[a]], #4\n\t"
        "ldr %[y0], [%[b0]], #4\n\t"
        "ldr %[y1], [%[b1]], #4\n\t"
        "smlald %Q[s0], %R[s0], %[x], %[y0]\n\t"
        "smlald %Q[s1], %R[s1], %[x], %[y1]\n\t"
        "subs %[n], %[n], #1\n\t"
        "bne 1b"
        : [a] "+r"(a), [b0] "+r"(b0), [b1] "+r"(b1), [n] "+r"(turns), [s0] "+r"(s0), [s1] "+r"(s1), [x] "=&r"(x),
          [y0] "=&r"(y0), [y1] "=&r"(y1)
        :
        : "cc", "memory");
}

// A sum shifted right by s (rounding down) and saturated at +-32767, as
// qdot_store does. A sum within 32 bits takes 32-bit steps, and its shift
// stops at 31, which leaves every such sum at its sign (0 or -1) as any
// larger shift would.
[[gnu::always_inline]] inline qtp_t shifted_item(int64_t sum, int s)
{
    int32_t v;
    if (sum == static_cast<int32_t>(sum)) {
        v = static_cast<int32_t>(sum) >> (s < 31 ? s : 31);
    } else {
        const int64_t w = sum >> s;
        v = w > 32767 ? 32767 : w < -32767 ? -32767 : static_cast<int32_t>(w);
    }
    return static_cast<qtp_t>(v > 32767 ? 32767 : v < -32767 ? -32767 : v);
}

[[gnu::always_inline]] inline void store(const QDotOut &out, int x, int y, int64_t sum)
{
    if (out.items) out.items->itemq[y + out.items->stride * x] = shifted_item(sum, out.shift);
    else qdot_store(out, x, y, sum);
}

// The sums of one row of a (K items, `step` apart) with columns x0 and x1 of
// b (x1 may equal x0, when one column is left: its second sum is then
// dropped), stored as item (x, y).
template <bool kRowContiguous>
void two_columns(const qtp_t *ar, int step, int K, const dl_matrix2dq_t *b, int y, int x0, int x1, const QDotOut &out)
{
    const qtp_t *b0 = b->itemq + b->stride * x0, *b1 = b->itemq + b->stride * x1;
    int64_t s0 = 0, s1 = 0;
    pair_sums<kRowContiguous>(ar, step, b0, b1, K / 2, s0, s1);
    if (K & 1) {
        const int k = K - 1;
        const int64_t v = ar[step * k];
        s0 += v * b0[k];
        s1 += v * b1[k];
    }
    store(out, x0, y, s0);
    if (x1 != x0) store(out, x1, y, s1);
}

template <bool kRowContiguous>
void row_by_columns(const qtp_t *ar, int step, const dl_matrix2dq_t *a, const dl_matrix2dq_t *b, int y,
                    const QDotOut &out)
{
    for (int x = 0; x < b->w; x += 2)
        two_columns<kRowContiguous>(ar, step, a->w, b, y, x, x + 1 < b->w ? x + 1 : x, out);
}

// A contiguous row of a against every column of b, the sums becoming items
// of row y of res: the layers' case, with the records' fields read once.
void row_to_items(const qtp_t *ar, int K, const dl_matrix2dq_t *b, dl_matrix2dq_t *res, int y, int shift)
{
    const size_t b_step = static_cast<size_t>(b->stride), r_step = static_cast<size_t>(res->stride);
    const int N = b->w, pairs = K / 2;
    const qtp_t *b0 = b->itemq;
    qtp_t *r = res->itemq + y;
    for (int x = 0; x < N; x += 2, b0 += 2 * b_step, r += 2 * r_step) {
        const bool two = x + 1 < N;
        const qtp_t *b1 = two ? b0 + b_step : b0;
        int64_t s0 = 0, s1 = 0;
        pair_sums<true>(ar, 1, b0, b1, pairs, s0, s1);
        if (K & 1) {
            const int64_t v = ar[K - 1];
            s0 += v * b0[K - 1];
            s1 += v * b1[K - 1];
        }
        r[0] = shifted_item(s0, shift);
        if (two) r[r_step] = shifted_item(s1, shift);
    }
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
        if (a->stride == 1 || a->w <= kRowBuffer) {
            if (a->stride != 1) {
                for (int k = 0; k < a->w; k++) row[k] = ar[a->stride * k];
                ar = row;
            }
            if (out.items) row_to_items(ar, a->w, b, out.items, y, out.shift);
            else row_by_columns<true>(ar, 1, a, b, y, out);
        } else {
            row_by_columns<false>(ar, a->stride, a, b, y, out);
        }
    }
    return true;
}

namespace {

// s0 and s1 plus the products of a window's runs with two channels'
// weights: `columns` runs of `pairs` words, the next run `skip` bytes after
// the end of one; each channel's weights follow one another. Written out,
// as the product's pair loop is: seven instructions a pair, five a run
// (three for runs of two pairs).
inline void window_pairs(const qtp_t *window, const qtp_t *w0, const qtp_t *w1, int columns, int pairs, int skip,
                         int64_t &s0, int64_t &s1)
{
    uint32_t x, y, n;
    if (pairs == 2) {
        // Runs of four items (filters three or four high), the common case:
        // the two pairs of a run written out, no inner count.
        __asm__(
            "1:\n\t"
            "ldr %[x], [%[win]], #4\n\t"
            "ldr %[y], [%[w0]], #4\n\t"
            "smlald %Q[s0], %R[s0], %[x], %[y]\n\t"
            "ldr %[y], [%[w1]], #4\n\t"
            "smlald %Q[s1], %R[s1], %[x], %[y]\n\t"
            "ldr %[x], [%[win]], #4\n\t"
            "ldr %[y], [%[w0]], #4\n\t"
            "smlald %Q[s0], %R[s0], %[x], %[y]\n\t"
            "ldr %[y], [%[w1]], #4\n\t"
            "smlald %Q[s1], %R[s1], %[x], %[y]\n\t"
            "add %[win], %[win], %[skip]\n\t"
            "subs %[cols], %[cols], #1\n\t"
            "bne 1b"
            : [win] "+r"(window), [w0] "+r"(w0), [w1] "+r"(w1), [cols] "+r"(columns), [s0] "+r"(s0), [s1] "+r"(s1),
              [x] "=&r"(x), [y] "=&r"(y)
            : [skip] "r"(skip)
            : "cc", "memory");
        return;
    }
    __asm__(
        "1:\n\t"
        "ldr %[n], %[pairs]\n\t"
        "2:\n\t"
        "ldr %[x], [%[win]], #4\n\t"
        "ldr %[y], [%[w0]], #4\n\t"
        "smlald %Q[s0], %R[s0], %[x], %[y]\n\t"
        "ldr %[y], [%[w1]], #4\n\t"
        "smlald %Q[s1], %R[s1], %[x], %[y]\n\t"
        "subs %[n], %[n], #1\n\t"
        "bne 2b\n\t"
        "ldr %[x], %[skip]\n\t"
        "add %[win], %[win], %[x]\n\t"
        "subs %[cols], %[cols], #1\n\t"
        "bne 1b"
        : [win] "+r"(window), [w0] "+r"(w0), [w1] "+r"(w1), [cols] "+r"(columns), [s0] "+r"(s0), [s1] "+r"(s1),
          [x] "=&r"(x), [y] "=&r"(y), [n] "=&r"(n)
        : [pairs] "m"(pairs), [skip] "m"(skip)
        : "cc", "memory");
}

// Every window of a row against two channels whose runs are two pairs (the
// filters three or four high), in one loop written out: each window's two
// sums start at 0 and go to out (channels' sums `out_step` bytes apart).
// Channel oc + 1's weights are read `d` bytes after channel oc's. After a
// window, `next` bytes lead to the next one and the weights go back by
// `rewind` bytes. About 55 instructions a window for a 3 x 3 filter.
struct WindowRow {
    int columns, skip, next, rewind, out_step;
};

inline void windows_two_pairs(const qtp_t *window, const qtp_t *w0, int d, int count, const WindowRow &r, int64_t *out)
{
    uint32_t x, y, cols, s0lo, s0hi, s1lo, s1hi;
    // Volatile: its results go to memory only, which the compiler cannot
    // see as outputs.
    __asm__ volatile(
        "1:\n\t"
        "mov %[s0lo], #0\n\t"
        "mov %[s0hi], #0\n\t"
        "mov %[s1lo], #0\n\t"
        "mov %[s1hi], #0\n\t"
        "ldr %[cols], %[columns]\n\t"
        "2:\n\t"
        "ldr %[x], [%[win]], #4\n\t"
        "ldr %[y], [%[w0], %[d]]\n\t"
        "smlald %[s1lo], %[s1hi], %[x], %[y]\n\t"
        "ldr %[y], [%[w0]], #4\n\t"
        "smlald %[s0lo], %[s0hi], %[x], %[y]\n\t"
        "ldr %[x], [%[win]], #4\n\t"
        "ldr %[y], [%[w0], %[d]]\n\t"
        "smlald %[s1lo], %[s1hi], %[x], %[y]\n\t"
        "ldr %[y], [%[w0]], #4\n\t"
        "smlald %[s0lo], %[s0hi], %[x], %[y]\n\t"
        "ldr %[x], %[skip]\n\t"
        "add %[win], %[win], %[x]\n\t"
        "subs %[cols], %[cols], #1\n\t"
        "bne 2b\n\t"
        "str %[s0lo], [%[out]]\n\t"
        "str %[s0hi], [%[out], #4]\n\t"
        "str %[s1lo], [%[out], #8]\n\t"
        "str %[s1hi], [%[out], #12]\n\t"
        "ldr %[x], %[out_step]\n\t"
        "add %[out], %[out], %[x]\n\t"
        "ldr %[x], %[next]\n\t"
        "add %[win], %[win], %[x]\n\t"
        "ldr %[x], %[rewind]\n\t"
        "sub %[w0], %[w0], %[x]\n\t"
        "subs %[count], %[count], #1\n\t"
        "bne 1b"
        : [win] "+r"(window), [w0] "+r"(w0), [out] "+r"(out), [count] "+r"(count), [cols] "=&r"(cols),
          [s0lo] "=&r"(s0lo), [s0hi] "=&r"(s0hi), [s1lo] "=&r"(s1lo), [s1hi] "=&r"(s1hi), [x] "=&r"(x), [y] "=&r"(y)
        : [d] "r"(d), [columns] "m"(r.columns), [skip] "m"(r.skip), [next] "m"(r.next), [rewind] "m"(r.rewind),
          [out_step] "m"(r.out_step)
        : "cc", "memory");
}

}  // namespace

// A convolution window's runs have an even count of items, so each run is
// whole pairs. Two channels a step share each pair of a window; each pair
// of channels runs over all the windows, so its weights' addresses are set
// once.
void window_sums(const WindowLayout &l, const qtp_t *first, int count, int step, int64_t *sums)
{
    const int pairs = l.run / 2, skip = static_cast<int>(sizeof(qtp_t)) * (l.stride - l.run);
    const size_t per_channel = static_cast<size_t>(l.run) * l.columns;
    const bool empty = l.columns <= 0 || pairs <= 0;
    for (int oc = 0; oc < l.channels; oc += 2) {
        // A last channel alone takes its own weights twice; the second sum
        // is dropped.
        const qtp_t *w0 = l.weights + per_channel * oc;
        const qtp_t *w1 = oc + 1 < l.channels ? w0 + per_channel : w0;
        int64_t *s = sums + oc;
        if (pairs == 2 && w1 != w0 && count > 0 && !empty) {
            const int bytes = static_cast<int>(sizeof(qtp_t));
            const WindowRow r = {l.columns, skip, bytes * (step - l.stride * l.columns), bytes * l.run * l.columns,
                                 static_cast<int>(sizeof(int64_t)) * l.channels};
            windows_two_pairs(first, w0, bytes * static_cast<int>(per_channel), count, r, s);
            continue;
        }
        for (int p = 0; p < count; p++, s += l.channels) {
            int64_t s0 = 0, s1 = 0;
            if (!empty) window_pairs(first + static_cast<size_t>(step) * p, w0, w1, l.columns, pairs, skip, s0, s1);
            s[0] = s0;
            if (oc + 1 < l.channels) s[1] = s1;
        }
    }
}

}  // namespace dl::dsp
#endif
