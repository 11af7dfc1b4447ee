// The fixed-point tensor convolutions on 32-bit ARM cores with the DSP
// extension (Cortex-M4 and M7, ARMv7-A). Their sums are exact, so any exact
// way of forming them gives the same bits as the plain loops:
//  - a convolution's window row is a run of neighbouring items in the input
//    and in each filter alike, so SMLALD takes two items of the run a step
//    (two exact products added to a 64-bit sum), and two filters share each
//    pair of the input. Windows whose rows are short (few channels) are
//    first copied with their zero padding to a buffer on the stack, so that
//    the whole window is one run.
//  - a depthwise convolution's neighbouring items are neighbouring channels,
//    each with a sum of its own: one word load reads two channels of the
//    input and of the filter, and SMLALBB and SMLALTT add the bottom and the
//    top halves' products to the two channels' 64-bit sums.
// Padded places add nothing to an exact sum and are skipped. Nothing here
// allocates.
#include "tensor_ops_internal.h"

#if DL_DSP_KERNELS
#include <arm_acle.h>
#include <stddef.h>

namespace dl::dsp {
namespace {

// Small helpers are forced inline: at -Os, as firmware is built, GCC would
// otherwise call them and keep the 64-bit sums in memory.
#define DL_DSP_INLINE inline __attribute__((always_inline))

// A word that may sit at any even address; the core allows such loads.
typedef uint32_t unaligned_word __attribute__((aligned(2), may_alias));

// One word from two neighbouring items, the first in the low half.
DL_DSP_INLINE uint32_t load_pair(const qtp_t *p) { return *reinterpret_cast<const unaligned_word *>(p); }

// Each written as one instruction with the sum tied to its two registers, so
// that no move of the 64-bit accumulator surrounds it.
// sum + lo(x) * lo(y) + hi(x) * hi(y), exactly.
DL_DSP_INLINE int64_t smlald(uint32_t x, uint32_t y, int64_t sum)
{
    __asm__("smlald %Q0, %R0, %1, %2" : "+r"(sum) : "r"(x), "r"(y));
    return sum;
}
// sum + lo(x) * lo(y), exactly.
DL_DSP_INLINE int64_t smlalbb(uint32_t x, uint32_t y, int64_t sum)
{
    __asm__("smlalbb %Q0, %R0, %1, %2" : "+r"(sum) : "r"(x), "r"(y));
    return sum;
}
// sum + hi(x) * hi(y), exactly.
DL_DSP_INLINE int64_t smlaltt(uint32_t x, uint32_t y, int64_t sum)
{
    __asm__("smlaltt %Q0, %R0, %1, %2" : "+r"(sum) : "r"(x), "r"(y));
    return sum;
}

// s0 += x . f0 and s1 += x . f1 over n neighbouring items.
DL_DSP_INLINE void dot2(const qtp_t *x, const qtp_t *f0, const qtp_t *f1, int n, int64_t &s0, int64_t &s1)
{
    int64_t a0 = s0, a1 = s1;
    // A step takes one pair of x and of each filter; four steps a turn.
    auto step = [&]() {
        const uint32_t p = load_pair(x);
        x += 2;
        a0 = smlald(p, load_pair(f0), a0);
        f0 += 2;
        a1 = smlald(p, load_pair(f1), a1);
        f1 += 2;
    };
    for (const qtp_t *end = x + (n & ~7); x != end;) {
        step();
        step();
        step();
        step();
    }
    if (n & 4) {
        step();
        step();
    }
    if (n & 2) step();
    if (n & 1) {
        a0 += static_cast<int64_t>(*x) * *f0;
        a1 += static_cast<int64_t>(*x) * *f1;
    }
    s0 = a0;
    s1 = a1;
}

// The same as a call of its own, for loops that keep too much else in
// registers to leave them to dot2's.
__attribute__((noinline)) void dot2_call(const qtp_t *x, const qtp_t *f0, const qtp_t *f1, int n, int64_t &s0,
                                         int64_t &s1)
{
    dot2(x, f0, f1, n, s0, s1);
}

// Where the sums go: both the item and the float results of the tensor
// operators put channel ch of position p at [ch + stride * p]. Each sum is
// stored as qdot_store stores it, here without a call per item.
struct Out {
    qtp_t *items;
    fptp_t *floats;
    size_t stride;
    int shift;
    fptp_t factor;

    explicit Out(const QDotOut &s)
        : items(s.items ? s.items->itemq : nullptr),
          floats(s.items ? nullptr : s.floats->item),
          stride(static_cast<size_t>(s.items ? s.items->stride : s.floats->stride)),
          shift(s.shift),
          factor(s.factor)
    {
    }

    DL_DSP_INLINE void put(int p, int ch, int64_t sum) const
    {
        const size_t at = ch + stride * p;
        if (items) {
            // Shifted right arithmetically (rounding down); a value beyond
            // 32 bits saturates there first, then SSAT to 16 bits, and
            // -32768 goes up to -32767.
            const int64_t v = sum >> shift;
            int32_t r = static_cast<int32_t>(v);
            if (v != r) r = v < 0 ? INT32_MIN : INT32_MAX;
            r = __ssat(r, 16);
            items[at] = static_cast<qtp_t>(r < -32767 ? -32767 : r);
        } else {
            put_float(at, sum);
        }
    }

    // Kept out of line: the float results are the quantised-weight forms',
    // whose cost lies in quantising the input.
    __attribute__((noinline)) void put_float(size_t at, int64_t sum) const
    {
        // A sum within 32 bits converts as a 32-bit integer: the same
        // rounding of the same value, in one instruction.
        const fptp_t f = sum >= INT32_MIN && sum <= INT32_MAX ? static_cast<fptp_t>(static_cast<int32_t>(sum))
                                                              : static_cast<fptp_t>(sum);
        floats[at] = f * factor;
    }
};

// The window places d0 .. d1-1 (none when d1 <= d0) along one axis that
// fall inside the input's n items, for the window starting at `start`.
struct Span {
    int d0, d1;
};
inline Span inside(int start, int k, int n) { return {start < 0 ? -start : 0, start + k > n ? n - start : k}; }

inline int32_t item_of(qtp_t v) { return v; }
inline int32_t item_of(uc_t b) { return static_cast<int32_t>(b) << 7; }

// Windows of up to this many items (512 bytes of stack, as the product
// kernel allows itself) are copied when their rows are short.
constexpr int kWindowItems = 256;
// Window rows of at least this many items are summed where they stand.
constexpr int kLongRun = 16;

// Every filter against one window of K neighbouring items, two filters at a
// time.
void window_by_filters(const qtp_t *win, int K, const qtp_t *filter, int out_c, int p, const Out &out)
{
    for (int oc = 0; oc < out_c; oc += 2) {
        const int oc1 = oc + 1 < out_c ? oc + 1 : oc;
        int64_t s0 = 0, s1 = 0;
        dot2(win, filter + static_cast<size_t>(oc) * K, filter + static_cast<size_t>(oc1) * K, K, s0, s1);
        out.put(p, oc, s0);
        if (oc1 != oc) out.put(p, oc1, s1);
    }
}

template <class T>
void gathered(const T *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c, const Out &out)
{
    const int span = g.kw * c, K = g.kh * span;
    qtp_t win[kWindowItems];
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        const Span sx = inside(x0, g.kw, w);
        for (int dy = 0; dy < g.kh; dy++) {
            qtp_t *d = win + dy * span;
            const int y = y0 + dy;
            const bool row_inside = y >= 0 && y < h && sx.d0 < sx.d1;
            const int a = row_inside ? sx.d0 * c : span, b = row_inside ? sx.d1 * c : span;
            for (int j = 0; j < a; j++) d[j] = 0;
            if (row_inside) {
                const T *v = in + (static_cast<size_t>(y) * w + x0 + sx.d0) * c;
                for (int j = a; j < b; j++) d[j] = static_cast<qtp_t>(item_of(v[j - a]));
            }
            for (int j = b; j < span; j++) d[j] = 0;
        }
        window_by_filters(win, K, filter, out_c, p, out);
    }
}

// Each window row's inside part summed where it stands, in input and filter.
void in_place(const qtp_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c, const Out &out)
{
    const int K = g.kh * g.kw * c;
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        const Span sy = inside(y0, g.kh, h), sx = inside(x0, g.kw, w);
        const int run = sx.d1 > sx.d0 ? (sx.d1 - sx.d0) * c : 0, rows = run && sy.d1 > sy.d0 ? sy.d1 - sy.d0 : 0;
        // A window with no place inside has the sum 0 (and reads nothing).
        const qtp_t *x = rows ? in + (static_cast<size_t>(y0 + sy.d0) * w + x0 + sx.d0) * c : in;
        const size_t first = static_cast<size_t>(sy.d0 * g.kw + sx.d0) * c, in_row = static_cast<size_t>(w) * c;
        for (int oc = 0; oc < out_c; oc += 2) {
            const int oc1 = oc + 1 < out_c ? oc + 1 : oc;
            const qtp_t *f0 = filter + static_cast<size_t>(oc) * K + first;
            const qtp_t *f1 = filter + static_cast<size_t>(oc1) * K + first;
            int64_t s0 = 0, s1 = 0;
            for (int r = 0; r < rows; r++) {
                const size_t fr = static_cast<size_t>(r) * g.kw * c;
                dot2_call(x + in_row * r, f0 + fr, f1 + fr, run, s0, s1);
            }
            out.put(p, oc, s0);
            if (oc1 != oc) out.put(p, oc1, s1);
        }
    }
}

}  // namespace

bool conv_sums(const qtp_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c,
               const QDotOut &sums)
{
    if (g.kw * c >= kLongRun || g.kh * g.kw * c > kWindowItems) in_place(in, w, h, c, g, filter, out_c, Out(sums));
    else gathered(in, w, h, c, g, filter, out_c, Out(sums));
    return true;
}

bool conv_sums(const uc_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, int out_c,
               const QDotOut &sums)
{
    if (g.kh * g.kw * c > kWindowItems) return false;
    gathered(in, w, h, c, g, filter, out_c, Out(sums));
    return true;
}

namespace {

// Window rows of a depthwise convolution: n places (N when N > 0, written
// out then) of two neighbouring channels, c items apart.
template <int N>
DL_DSP_INLINE void channel_pair_row(const qtp_t *x, const qtp_t *f, int n, int c, int64_t &s0, int64_t &s1)
{
    const int places = N > 0 ? N : n;
#pragma GCC unroll 4
    for (int i = 0; i < places; i++) {
        const uint32_t xw = load_pair(x + i * c), fw = load_pair(f + i * c);
        s0 = smlalbb(xw, fw, s0);
        s1 = smlaltt(xw, fw, s1);
    }
}

// All channels of one position whose window has `rows` rows of `cols`
// places inside the input, starting at x and at the filter's f. Two
// channels a step; an odd last channel one item at a time.
template <int N>
void depthwise_position(const qtp_t *x, const qtp_t *f, int rows, int cols, int c, size_t in_row, size_t filter_row,
                        const Out &out, int p)
{
    int ch = 0;
    for (; ch + 2 <= c; ch += 2) {
        int64_t s0 = 0, s1 = 0;
        const qtp_t *xr = x + ch, *fr = f + ch;
        for (int r = 0; r < rows; r++, xr += in_row, fr += filter_row) channel_pair_row<N>(xr, fr, cols, c, s0, s1);
        out.put(p, ch, s0);
        out.put(p, ch + 1, s1);
    }
    if (ch < c) {
        int64_t s = 0;
        for (int r = 0; r < rows; r++)
            for (int i = 0; i < cols; i++)
                s += static_cast<int64_t>(x[in_row * r + i * c + ch]) * f[filter_row * r + i * c + ch];
        out.put(p, ch, s);
    }
}

}  // namespace

bool depthwise_sums(const qtp_t *in, int w, int h, int c, const Windows &g, const qtp_t *filter, const QDotOut &sums)
{
    const Out out(sums);
    const size_t in_row = static_cast<size_t>(w) * c, filter_row = static_cast<size_t>(g.kw) * c;
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        const Span sy = inside(y0, g.kh, h), sx = inside(x0, g.kw, w);
        const int cols = sx.d1 - sx.d0, rows = cols > 0 && sy.d1 > sy.d0 ? sy.d1 - sy.d0 : 0;
        // A window with no place inside has the sum 0 (and reads nothing).
        const qtp_t *x = rows ? in + (static_cast<size_t>(y0 + sy.d0) * w + x0 + sx.d0) * c : in;
        const qtp_t *f = filter + static_cast<size_t>(sy.d0 * g.kw + sx.d0) * c;
        // The rows of 3 x 3 windows, inside and at a side, written out.
        if (cols == 3) depthwise_position<3>(x, f, rows, cols, c, in_row, filter_row, out, p);
        else if (cols == 2) depthwise_position<2>(x, f, rows, cols, c, in_row, filter_row, out, p);
        else depthwise_position<0>(x, f, rows, cols, c, in_row, filter_row, out, p);
    }
    return true;
}

}  // namespace dl::dsp
#endif
