#include "dl_lib_tensor_ops.h"

#include "dl_lib.h"
#include "dl_lib_internal.h"
#include "matrix_internal.h"
#include "tensor_ops_internal.h"

#include <cmath>
#include <type_traits>

// The instruction-set kernels are built on x86-64 only, each in its own file
// with its own target flags; every other target runs the portable loops.
#if defined(DL_LIB_X86_KERNELS) && defined(__x86_64__)
#define DL_X86_KERNELS 1
namespace dl::avx2 {
// The depthwise convolution, bias (NULL for none) included. False, with
// nothing written, when a weight is infinite or NaN (the direct loop then
// adds its products with the padding).
bool depthwise_float(const dl_matrix3d_t *in, const Windows &g, const fptp_t *filter, const fptp_t *bias, fptp_t *out);
// The convolution of an input of few channels from a padded copy of it,
// bias (NULL for none) included; wt is the filter bank transposed, places x
// channels. False, with nothing written, without memory for the copy.
bool conv_float_few_channels(const dl_matrix3d_t *in, const Windows &g, const fptp_t *wt, int out_c, const fptp_t *bias,
                             fptp_t *out);
bool conv_float_few_channels(const dl_matrix3du_t *in, const Windows &g, const fptp_t *wt, int out_c,
                             const fptp_t *bias, fptp_t *out);
}  // namespace dl::avx2
#else
#define DL_X86_KERNELS 0
#endif

namespace {

using dl::Isa;

// ---- Geometry ------------------------------------------------------------

using Geo = dl::Windows;

Geo window_geometry(int in_w, int in_h, int kw, int kh, int stride_x, int stride_y, const dl_padding_t *padding)
{
    DL_ASSERT(stride_x>=1);
    DL_ASSERT(stride_y>=1);
    DL_ASSERT(kw>=1 && kh>=1);
    const dl_padding_t none = {0, 0, 0, 0};
    const dl_padding_t &p = padding ? *padding : none;
    DL_ASSERT(p.top>=0 && p.bottom>=0 && p.left>=0 && p.right>=0);
    const int64_t padded_w = static_cast<int64_t>(p.left) + in_w + p.right;
    const int64_t padded_h = static_cast<int64_t>(p.top) + in_h + p.bottom;
    DL_ASSERT(kw<=padded_w);
    DL_ASSERT(kh<=padded_h);
    return {static_cast<int>((padded_w - kw) / stride_x + 1),
            static_cast<int>((padded_h - kh) / stride_y + 1),
            stride_x,
            stride_y,
            p.left,
            p.top,
            kw,
            kh};
}

// An activation's items and shape, whatever their element type.
template <class T>
struct Plane {
    const T *item;
    int w, h, c;
};

template <class T, class Tensor>
Plane<T> make_plane(const Tensor *t)
{
    DL_ASSERT(t->n==1);
    return {t->item, t->w, t->h, t->c};
}
Plane<fptp_t> plane_of(const dl_matrix3d_t *t) { return make_plane<fptp_t>(t); }
Plane<qtp_t> plane_of(const dl_matrix3dq_t *t) { return make_plane<qtp_t>(t); }
Plane<uc_t> plane_of(const dl_matrix3du_t *t) { return make_plane<uc_t>(t); }

// The items of an input whose 1 x 1 windows at stride 1 are its positions
// themselves, as the rows (float) or columns (fixed point) of a product;
// NULL for an image, whose bytes must be converted first.
fptp_t *positions_as_is(const Plane<fptp_t> &in) { return const_cast<fptp_t *>(in.item); }
qtp_t *positions_as_is(const Plane<qtp_t> &in) { return const_cast<qtp_t *>(in.item); }
decltype(nullptr) positions_as_is(const Plane<uc_t> &) { return nullptr; }

// An image byte b stands for b * 2^-8: exactly that float, or the item
// b * 128 at exponent -15. Other elements are themselves.
constexpr int kImageExponent = -15;
inline fptp_t value(fptp_t v) { return v; }
inline fptp_t value(uc_t b) { return static_cast<fptp_t>(b) * 0.00390625f; }
inline int32_t item(qtp_t v) { return v; }
inline int32_t item(uc_t b) { return static_cast<int32_t>(b) << 7; }

// 15 + floor(log2(k)), as the matrix product shifts a sum of k products.
int product_shift(int k)
{
    int s = 15;
    for (int n = k; n > 1; n /= 2) s++;
    return s;
}

// A new output tensor, or the caller's after checking its shape. NULL only
// when a new one cannot be had.
template <class Tensor>
Tensor *output(Tensor *out, int w, int h, int c, Tensor *(*alloc)(int, int, int, int))
{
    if (!out) return alloc(1, w, h, c);
    DL_ASSERT(out->n==1);
    DL_ASSERT(out->w==w);
    DL_ASSERT(out->h==h);
    DL_ASSERT(out->c==c);
    return out;
}

dl_matrix3dq_t *alloc_q(int n, int w, int h, int c) { return dl_matrix3dq_alloc(n, w, h, c, 0); }

// Records over items that someone else owns, made on the stack.
dl_matrix2d_t fview(fptp_t *items, int w, int h, int stride) { return {w, h, stride, DL_MF_FOREIGNDATA, items}; }
dl_matrix2dq_t qview(qtp_t *items, int w, int h, int stride, int exponent)
{
    return {w, h, stride, DL_MF_FOREIGNDATA, exponent, items};
}

// ---- Bias ------------------------------------------------------------------

void add_bias(fptp_t *items, int positions, const dl_matrix3d_t *bias)
{
    if (!bias) return;
    const int c = bias->c;
    for (int p = 0; p < positions; p++)
        for (int ch = 0; ch < c; ch++)
            items[static_cast<size_t>(p) * c + ch] = items[static_cast<size_t>(p) * c + ch] + bias->item[ch];
}

// The bias is added as dl_matrixq_add(out, bias, out, 1) adds it: the
// operand with the lower exponent (the bias on a tie) is shifted right to the
// other's, rounding down, and the sum saturates. Returns the exponent.
int add_bias_q(qtp_t *items, int positions, int exponent, const dl_matrix3dq_t *bias)
{
    if (!bias) return exponent;
    const bool sums_high = exponent >= bias->exponent;
    const int d = sums_high ? exponent - bias->exponent : bias->exponent - exponent;
    const int shift = d < 31 ? d : 31;
    const int c = bias->c;
    for (int p = 0; p < positions; p++)
        for (int ch = 0; ch < c; ch++) {
            qtp_t &o = items[static_cast<size_t>(p) * c + ch];
            int32_t s = o, b = bias->item[ch];
            if (sums_high) b >>= shift;
            else s >>= shift;
            o = static_cast<qtp_t>(dl::saturate(static_cast<int64_t>(s) + b));
        }
    return sums_high ? exponent : bias->exponent;
}

// ---- Convolution: the direct loops -------------------------------------------

// Filter oc's weights lie at filter[oc * K + (dy * kw + dx) * c + ic]: one
// filter per item of the bank, K = kh * kw * c places.

template <class T>
void conv_direct_float(const Plane<T> &in, const Geo &g, const fptp_t *filter, int out_c, fptp_t *out, int p0, int p1)
{
    const int c = in.c, K = g.kh * g.kw * c;
    for (int p = p0; p < p1; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        for (int oc = 0; oc < out_c; oc++) {
            const fptp_t *f = filter + static_cast<size_t>(oc) * K;
            fptp_t acc = 0.0f;
            for (int dy = 0; dy < g.kh; dy++) {
                const int y = y0 + dy;
                for (int dx = 0; dx < g.kw; dx++) {
                    const int x = x0 + dx;
                    const fptp_t *fw = f + (dy * g.kw + dx) * c;
                    // A padded place is 0.0 and is multiplied like any
                    // other: a NaN or infinite weight shows there too.
                    if (y >= 0 && y < in.h && x >= 0 && x < in.w) {
                        const T *v = in.item + (static_cast<size_t>(y) * in.w + x) * c;
                        for (int ic = 0; ic < c; ic++) acc = acc + fw[ic] * value(v[ic]);
                    } else {
                        for (int ic = 0; ic < c; ic++) acc = acc + fw[ic] * 0.0f;
                    }
                }
            }
            out[static_cast<size_t>(p) * out_c + oc] = acc;
        }
    }
}

// The exact sums of the fixed-point forms go where `sums` sends them: as
// floats, x the channel and y the position; as items, x the position and y
// the channel. Both views address out[p * out_c + oc].
template <class T>
void conv_direct_sums(const Plane<T> &in, const Geo &g, const qtp_t *filter, int out_c, const dl::QDotOut &sums, int p0,
                      int p1)
{
    const int c = in.c, K = g.kh * g.kw * c;
    for (int p = p0; p < p1; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        for (int oc = 0; oc < out_c; oc++) {
            const qtp_t *f = filter + static_cast<size_t>(oc) * K;
            int64_t acc = 0;
            for (int dy = 0; dy < g.kh; dy++) {
                const int y = y0 + dy;
                if (y < 0 || y >= in.h) continue;  // padding adds nothing to an exact sum
                for (int dx = 0; dx < g.kw; dx++) {
                    const int x = x0 + dx;
                    if (x < 0 || x >= in.w) continue;
                    const qtp_t *fw = f + (dy * g.kw + dx) * c;
                    const T *v = in.item + (static_cast<size_t>(y) * in.w + x) * c;
                    for (int ic = 0; ic < c; ic++) acc += static_cast<int64_t>(fw[ic]) * item(v[ic]);
                }
            }
            if (sums.items) dl::qdot_store(sums, p, oc, acc);
            else dl::qdot_store(sums, oc, p, acc);
        }
    }
}

// ---- Float convolutions: the sums of a tile in registers ---------------------
//
// The direct loops keep one sum at a time, so every multiply-accumulate loads
// a weight and an input item. The loops below keep the sums of a tile in
// registers, two positions times four output channels (eight channels of a
// depthwise layer), so that each input item loaded serves several sums and
// each weight two. Every sum still runs over its window's places in
// ascending order with one rounding per product and per sum, then gets its
// bias.
//
// They visit only the places inside the input. That gives the direct loops'
// bits when every weight is finite: a padded place adds w * 0.0 = +-0.0 to a
// sum that starts at +0.0 and so is never -0.0, which leaves it as it was.
// With an infinite or NaN weight the direct loop runs instead.
//
// The two positions of a tile have the same window places inside the input:
// the same column of two rows whose windows cover the same input rows (every
// row pair away from the padding), else neighbours in a row. A position
// without such a partner makes a tile with itself: its sums are formed and
// stored twice, with the same bits, which costs less code than tiles of one.

// The window places d0 .. d1-1 (none when d1 == d0) along one axis of window
// o, which starts at o * s - before, that fall inside the input's n items.
struct Span {
    int d0, d1;
    bool operator==(const Span &) const = default;
};

Span inside_span(int o, int s, int before, int k, int n)
{
    const int start = o * s - before;
    const int d0 = start < 0 ? -start : 0;
    const int d1 = n - start < k ? n - start : k;
    return {d0, d1 > d0 ? d1 : d0};
}

bool all_finite(const fptp_t *v, size_t n)
{
    for (size_t i = 0; i < n; i++)
        if (!std::isfinite(v[i])) return false;
    return true;
}

// A tile's two positions and the rectangle of window places inside the input
// that they share: `rows` runs of `run` neighbouring items (`cols` places of
// c channels), in the input and in each filter.
template <class T>
struct Tile {
    const T *first[2];  // each position's input item at the first place
    fptp_t *out[2];     // each position's output channels
    int rows, cols, run;
    size_t in_skip, filter_skip;  // items from the end of a run to the next one
};

// A tile's sums (p, j) as output channels first + j of its two positions,
// each with its bias added.
template <int NC, class T>
inline void store_tile(const Tile<T> &t, const fptp_t (&acc)[2][NC], const fptp_t *bias, int first)
{
#pragma GCC unroll 2
    for (int p = 0; p < 2; p++)
#pragma GCC unroll 8
        for (int j = 0; j < NC; j++) t.out[p][first + j] = bias ? acc[p][j] + bias[first + j] : acc[p][j];
}

// Convolution: sums (p, j) of the positions p and filters oc + j, j < NC,
// filter oc + j's first place at f + j * K. Kept out of line (as is the
// depthwise tile): inlined into the layer, its pointers went to the stack.
template <int NC, class T>
[[gnu::noinline]] void conv_tile(const Tile<T> &t, const fptp_t *f, size_t K, const fptp_t *bias, int oc)
{
    fptp_t acc[2][NC] = {};
    const T *x[2] = {t.first[0], t.first[1]};
    const fptp_t *w[NC];
#pragma GCC unroll 4
    for (int j = 0; j < NC; j++) w[j] = f + j * K;
    // One loop over the tile's places, a row ending every `run` of them:
    // GCC at -Os keeps every pointer in a register in this form, where two
    // nested loops made it keep copies of them and spill.
    if (t.run > 0 && t.rows > 0) {
        int i = t.run, r = t.rows;
        do {
            const fptp_t v[2] = {value(*x[0]++), value(*x[1]++)};
            fptp_t wv[NC];
#pragma GCC unroll 4
            for (int j = 0; j < NC; j++) wv[j] = *w[j]++;
#pragma GCC unroll 2
            for (int p = 0; p < 2; p++)
#pragma GCC unroll 4
                for (int j = 0; j < NC; j++) acc[p][j] = acc[p][j] + wv[j] * v[p];
            if (--i == 0) {
                i = t.run;
                r--;
                x[0] += t.in_skip;
                x[1] += t.in_skip;
#pragma GCC unroll 4
                for (int j = 0; j < NC; j++) w[j] += t.filter_skip;
            }
        } while (r > 0);
    }
    store_tile(t, acc, bias, oc);
}

// Depthwise: sums (p, j) of the positions p and channels ch + j, j < NC.
template <int NC>
[[gnu::noinline]] void depthwise_tile(const Tile<fptp_t> &t, const fptp_t *f, int c, const fptp_t *bias, int ch)
{
    fptp_t acc[2][NC] = {};
    const fptp_t *x[2] = {t.first[0] + ch, t.first[1] + ch};
    const fptp_t *w = f + ch;
    // One loop over the places, as in the convolution's tile.
    if (t.cols > 0 && t.rows > 0) {
        int k = t.cols, r = t.rows;
        do {
#pragma GCC unroll 2
            for (int p = 0; p < 2; p++)
#pragma GCC unroll 8
                for (int j = 0; j < NC; j++) acc[p][j] = acc[p][j] + w[j] * x[p][j];
            w += c;
            x[0] += c;
            x[1] += c;
            if (--k == 0) {
                k = t.cols;
                r--;
                w += t.filter_skip;
                x[0] += t.in_skip;
                x[1] += t.in_skip;
            }
        } while (r > 0);
    }
    store_tile(t, acc, bias, ch);
}

// The convolution with finite weights, bias (NULL for none) included, or the
// depthwise one (one filter, place k of channel ch at filter[k * c + ch];
// out_c == c).
template <class T>
void conv_tiled_float(const Plane<T> &in, const Geo &g, const fptp_t *filter, int out_c, bool depthwise,
                      const fptp_t *bias, fptp_t *out)
{
    const int c = in.c;
    const size_t K = static_cast<size_t>(g.kh) * g.kw * c;
    auto x_span = [&](int ox) { return inside_span(ox, g.sx, g.left, g.kw, in.w); };
    for (int oy = 0; oy < g.ho;) {
        const Span ys = inside_span(oy, g.sy, g.top, g.kh, in.h);
        const bool two_rows = oy + 1 < g.ho && inside_span(oy + 1, g.sy, g.top, g.kh, in.h) == ys;
        for (int ox = 0; ox < g.wo;) {
            const Span xs = x_span(ox);
            const bool pair = two_rows || (ox + 1 < g.wo && x_span(ox + 1) == xs);
            Tile<T> t;
            t.rows = ys.d1 - ys.d0;
            t.cols = xs.d1 - xs.d0;
            t.run = t.cols * c;
            t.in_skip = static_cast<size_t>(in.w) * c - t.run;
            t.filter_skip = static_cast<size_t>(g.kw) * c - t.run;
            for (int q = 0; q < 2; q++) {
                const int n = pair ? q : 0;
                const int qy = two_rows ? oy + n : oy, qx = two_rows ? ox : ox + n;
                const int y = qy * g.sy - g.top + ys.d0, x = qx * g.sx - g.left + xs.d0;
                // A window wholly in the padding reads nothing.
                t.first[q] = t.rows && t.cols ? in.item + (static_cast<size_t>(y) * in.w + x) * c : in.item;
                t.out[q] = out + (static_cast<size_t>(qy) * g.wo + qx) * out_c;
            }
            const fptp_t *f = filter + (static_cast<size_t>(ys.d0) * g.kw + xs.d0) * c;
            if constexpr (std::is_same_v<T, fptp_t>) {
                if (depthwise && c < 8) {
                    for (int ch = 0; ch < c; ch++) depthwise_tile<1>(t, f, c, bias, ch);
                } else if (depthwise) {
                    // The last eight channels may overlap the eight before:
                    // their sums are formed again, to the same bits.
                    for (int ch = 0; ch < c; ch += 8) depthwise_tile<8>(t, f, c, bias, ch + 8 <= c ? ch : c - 8);
                }
            }
            if (!depthwise) {
                int oc = 0;
                for (; oc + 4 <= out_c; oc += 4) conv_tile<4>(t, f + oc * K, K, bias, oc);
                for (; oc < out_c; oc++) conv_tile<1>(t, f + oc * K, K, bias, oc);
            }
            ox += pair && !two_rows ? 2 : 1;
        }
        oy += two_rows ? 2 : 1;
    }
}

// ---- Convolution: windows gathered for the product kernels -------------------

// The windows of positions p0 .. p1-1, place k of position p at
// dst[(p - p0) * pstep + k * kstep]; padded places get zero.
template <class T, class D, class Conv>
void gather(const Plane<T> &in, const Geo &g, int p0, int p1, D *dst, size_t pstep, size_t kstep, Conv conv)
{
    const int c = in.c, span = g.kw * c;
    for (int p = p0; p < p1; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        // The window's columns inside the input: lo .. hi-1. Each window row
        // is zeros, one run of neighbouring input items, zeros.
        const int lo = x0 < 0 ? -x0 : 0;
        const int hi = x0 + g.kw > in.w ? in.w - x0 : g.kw;
        D *row = dst + static_cast<size_t>(p - p0) * pstep;
        for (int dy = 0; dy < g.kh; dy++) {
            const int y = y0 + dy;
            D *d = row + static_cast<size_t>(dy * span) * kstep;
            const bool row_inside = y >= 0 && y < in.h && lo < hi;
            const int a = row_inside ? lo * c : span, b = row_inside ? hi * c : span;
            for (int j = 0; j < a; j++) d[j * kstep] = D(0);
            if (row_inside) {
                const T *v = in.item + (static_cast<size_t>(y) * in.w + x0) * c;
                if (kstep == 1)
                    for (int j = a; j < b; j++) d[j] = conv(v[j]);
                else
                    for (int j = a; j < b; j++) d[j * kstep] = conv(v[j]);
            }
            for (int j = b; j < span; j++) d[j * kstep] = D(0);
        }
    }
}

// Positions per gathered block: about `places` places, at least 16
// positions.
int block_positions(int K, int positions, int places = 65536)
{
    int b = places / (K > 0 ? K : 1);
    if (b < 16) b = 16;
    return b < positions ? b : positions;
}

bool one_by_one(const Geo &g, const dl_padding_t *padding)
{
    const bool unpadded =
        !padding || (padding->top == 0 && padding->bottom == 0 && padding->left == 0 && padding->right == 0);
    return g.kw == 1 && g.kh == 1 && g.sx == 1 && g.sy == 1 && unpadded;
}

// Below this many input channels a window row is too short for gathering
// to pay: the AVX2 kernel works on padded input rows instead.
constexpr int kFewChannels = 8;

// The float convolution by a kernel, bias included. With many input
// channels, the windows gathered as rows make the float product kernel's
// left-hand side, the filter bank transposed to places x channels its
// right-hand side, and the result rows are out's positions. False (nothing
// useful written) when no kernel can run; the caller then runs the portable
// loops.
template <class T, class Tensor>
bool conv_float_kernel(Isa isa, const Tensor *input, const Plane<T> &in, const Geo &g, const dl_matrix3d_t *filter,
                       const dl_matrix3d_t *bias, const dl_padding_t *padding, fptp_t *out)
{
    if (isa == Isa::none || isa == Isa::dsp) return false;  // no float product kernel
    const int out_c = filter->n, K = g.kh * g.kw * in.c, P = g.wo * g.ho;
    fptp_t *wt = static_cast<fptp_t *>(dl::mem_calloc(1, sizeof(fptp_t) * static_cast<size_t>(K) * out_c + 1));
    if (!wt) return false;
    for (int oc = 0; oc < out_c; oc++)
        for (int k = 0; k < K; k++)
            wt[static_cast<size_t>(k) * out_c + oc] = filter->item[static_cast<size_t>(oc) * K + k];
#if DL_X86_KERNELS
    if (in.c < kFewChannels && (isa == Isa::avx2 || isa == Isa::avx512)) {
        const bool done = dl::avx2::conv_float_few_channels(input, g, wt, out_c, bias ? bias->item : nullptr, out);
        dl::mem_free(wt);
        return done;
    }
#else
    (void)input;
#endif
    const dl_matrix2d_t weights = fview(wt, out_c, K, out_c);
    bool ok = true;
    fptp_t *rows = positions_as_is(in);
    if (rows && one_by_one(g, padding)) {
        const dl_matrix2d_t a = fview(rows, K, P, K);
        dl_matrix2d_t r = fview(out, out_c, P, out_c);
        ok = dl::matrix_dot_kernel(isa, &a, &weights, &r);
    } else {
        const int B = block_positions(K, P);
        fptp_t *win = static_cast<fptp_t *>(dl::mem_calloc(1, sizeof(fptp_t) * static_cast<size_t>(K) * B + 1));
        for (int p0 = 0; ok && win && p0 < P; p0 += B) {
            const int n = B < P - p0 ? B : P - p0;
            gather(in, g, p0, p0 + n, win, K, 1, [](T v) { return value(v); });
            const dl_matrix2d_t a = fview(win, K, n, K);
            dl_matrix2d_t r = fview(out + static_cast<size_t>(p0) * out_c, out_c, n, out_c);
            ok = dl::matrix_dot_kernel(isa, &a, &weights, &r);
        }
        ok = ok && win;
        dl::mem_free(win);
    }
    dl::mem_free(wt);
    if (ok) add_bias(out, P, bias);
    return ok;
}

// The exact sums by the fixed-point product kernel. Float results (sums
// .floats): windows are the rows of a, the filter bank as it stands is b
// (column oc is filter oc). Item results: the filter bank, transposed to
// channels x places, is a, and the windows are b's columns, so that the
// result's columns are out's positions.
template <class T>
bool conv_sums_kernel(Isa isa, const Plane<T> &in, const Geo &g, const dl_matrix3dq_t *filter, int in_exponent,
                      const dl_padding_t *padding, const dl::QDotOut &sums)
{
    if (isa == Isa::none) return false;
#if DL_DSP_KERNELS
    // A pointwise layer over items as they stand is one product, which the
    // product kernel does in fewer instructions than the window kernel.
    const bool one_product = sums.items && positions_as_is(in) && one_by_one(g, padding);
    if (isa == Isa::dsp && !one_product)
        return dl::dsp::conv_sums(in.item, in.w, in.h, in.c, g, filter->item, filter->n, sums);
#endif
    const int out_c = filter->n, K = g.kh * g.kw * in.c, P = g.wo * g.ho;
    auto conv = [](T v) { return static_cast<qtp_t>(item(v)); };
    bool ok = true;
    if (!sums.items) {
        // A window's places go to a's rows, one column apart: blocks of
        // 8K places keep those scattered writes within the first-level
        // cache.
        const int B = block_positions(K, P, 8192);
        const dl_matrix2dq_t b = qview(filter->item, out_c, K, K, filter->exponent);
        qtp_t *win = static_cast<qtp_t *>(dl::mem_calloc(1, sizeof(qtp_t) * static_cast<size_t>(K) * B + 1));
        if (!win) return false;
        for (int p0 = 0; ok && p0 < P; p0 += B) {
            const int n = B < P - p0 ? B : P - p0;
            gather(in, g, p0, p0 + n, win, 1, n, conv);
            const dl_matrix2dq_t a = qview(win, K, n, n, in_exponent);
            dl_matrix2d_t r = fview(sums.floats->item + static_cast<size_t>(p0) * out_c, out_c, n, out_c);
            ok = dl::matrixq_dot_kernel(isa, &a, &b, dl::qdot_to_floats(&r, sums.factor));
        }
        dl::mem_free(win);
        return ok;
    }
    const int B = block_positions(K, P);
    qtp_t *ft = static_cast<qtp_t *>(dl::mem_calloc(1, sizeof(qtp_t) * static_cast<size_t>(K) * out_c + 1));
    if (!ft) return false;
    for (int oc = 0; oc < out_c; oc++)
        for (int k = 0; k < K; k++)
            ft[oc + static_cast<size_t>(out_c) * k] = filter->item[static_cast<size_t>(oc) * K + k];
    const dl_matrix2dq_t a = qview(ft, K, out_c, out_c, filter->exponent);
    {
        qtp_t *columns = positions_as_is(in);
        if (columns && one_by_one(g, padding)) {
            const dl_matrix2dq_t b = qview(columns, P, K, K, in_exponent);
            ok = dl::matrixq_dot_kernel(isa, &a, &b, sums);
            dl::mem_free(ft);
            return ok;
        }
    }
    qtp_t *win = static_cast<qtp_t *>(dl::mem_calloc(1, sizeof(qtp_t) * static_cast<size_t>(K) * B + 1));
    for (int p0 = 0; ok && win && p0 < P; p0 += B) {
        const int n = B < P - p0 ? B : P - p0;
        gather(in, g, p0, p0 + n, win, K, 1, conv);
        const dl_matrix2dq_t b = qview(win, n, K, K, in_exponent);
        dl_matrix2dq_t r = qview(sums.items->itemq + static_cast<size_t>(p0) * out_c, n, out_c, out_c, 0);
        ok = dl::matrixq_dot_kernel(isa, &a, &b, dl::qdot_to_items(&r, sums.shift));
    }
    ok = ok && win;
    dl::mem_free(win);
    dl::mem_free(ft);
    return ok;
}

// ---- Convolution: the three forms --------------------------------------------

template <class Filter, class In>
Geo conv_geometry(const Plane<In> &in, const Filter *filter, int stride_x, int stride_y, const dl_padding_t *padding)
{
    DL_ASSERT(filter->c==in.c);
    return window_geometry(in.w, in.h, filter->w, filter->h, stride_x, stride_y, padding);
}

template <class Bias>
void check_bias(const Bias *bias, int channels)
{
    if (!bias) return;
    DL_ASSERT(bias->c==channels);
    DL_ASSERT(bias->n==1 && bias->w==1 && bias->h==1);
}

template <class T, class Tensor>
dl_matrix3d_t *conv_float(Isa isa, const Tensor *input, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                          int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out)
{
    const Plane<T> in = plane_of(input);
    const Geo g = conv_geometry(in, filter, stride_x, stride_y, padding);
    check_bias(bias, filter->n);
    out = output(out, g.wo, g.ho, filter->n, dl_matrix3d_alloc);
    if (!out) return nullptr;
    if (conv_float_kernel(isa, input, in, g, filter, bias, padding, out->item)) return out;
    if (all_finite(filter->item, static_cast<size_t>(filter->n) * g.kh * g.kw * in.c)) {
        conv_tiled_float(in, g, filter->item, filter->n, false, bias ? bias->item : nullptr, out->item);
        return out;
    }
    const int P = g.wo * g.ho;
    conv_direct_float(in, g, filter->item, filter->n, out->item, 0, P);
    add_bias(out->item, P, bias);
    return out;
}

// Exact sums of items (in at in_exponent) into float out.
template <class T>
dl_matrix3d_t *conv_sums_float(Isa isa, const Plane<T> &in, int in_exponent, const dl_matrix3dq_t *filter,
                               const dl_matrix3d_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                               dl_matrix3d_t *out)
{
    const Geo g = conv_geometry(in, filter, stride_x, stride_y, padding);
    check_bias(bias, filter->n);
    out = output(out, g.wo, g.ho, filter->n, dl_matrix3d_alloc);
    if (!out) return nullptr;
    const int P = g.wo * g.ho;
    dl_matrix2d_t all = fview(out->item, filter->n, P, filter->n);
    const dl::QDotOut sums = dl::qdot_to_floats(&all, dl::pow2f(in_exponent + filter->exponent));
    if (!conv_sums_kernel(isa, in, g, filter, in_exponent, padding, sums))
        conv_direct_sums(in, g, filter->item, filter->n, sums, 0, P);
    add_bias(out->item, P, bias);
    return out;
}

template <class T>
dl_matrix3dq_t *conv_sums_q(Isa isa, const Plane<T> &in, int in_exponent, const dl_matrix3dq_t *filter,
                            const dl_matrix3dq_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                            dl_matrix3dq_t *out, int shift)
{
    const Geo g = conv_geometry(in, filter, stride_x, stride_y, padding);
    check_bias(bias, filter->n);
    const int places = g.kh * g.kw * in.c;
    DL_ASSERT(shift>=0);
    DL_ASSERT(shift<=product_shift(places));
    out = output(out, g.wo, g.ho, filter->n, alloc_q);
    if (!out) return nullptr;
    const int s = product_shift(places) - shift;
    const int P = g.wo * g.ho;
    dl_matrix2dq_t all = qview(out->item, P, filter->n, filter->n, 0);
    const dl::QDotOut sums = dl::qdot_to_items(&all, s);
    if (!conv_sums_kernel(isa, in, g, filter, in_exponent, padding, sums))
        conv_direct_sums(in, g, filter->item, filter->n, sums, 0, P);
    out->exponent = add_bias_q(out->item, P, in_exponent + filter->exponent + s, bias);
    return out;
}

// ---- Depthwise convolution ---------------------------------------------------
//
// The float form's direct loop, which runs when a weight is infinite or NaN
// (the tiles above and the AVX2 kernel give its bits otherwise): the
// channels run innermost, each keeping its own sum in the order of the
// window's places.

template <class T>
void depthwise_float(const Plane<T> &in, const Geo &g, const fptp_t *filter, fptp_t *out)
{
    const int c = in.c;
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        fptp_t *o = out + static_cast<size_t>(p) * c;
        for (int ch = 0; ch < c; ch++) o[ch] = 0.0f;
        for (int dy = 0; dy < g.kh; dy++) {
            const int y = y0 + dy;
            for (int dx = 0; dx < g.kw; dx++) {
                const int x = x0 + dx;
                const fptp_t *fw = filter + (dy * g.kw + dx) * c;
                if (y >= 0 && y < in.h && x >= 0 && x < in.w) {
                    const T *v = in.item + (static_cast<size_t>(y) * in.w + x) * c;
                    for (int ch = 0; ch < c; ch++) o[ch] = o[ch] + fw[ch] * value(v[ch]);
                } else {
                    for (int ch = 0; ch < c; ch++) o[ch] = o[ch] + fw[ch] * 0.0f;
                }
            }
        }
    }
}

// Exact sums, a bounded group of channels at a time on the stack.
template <class T>
void depthwise_sums(const Plane<T> &in, const Geo &g, const qtp_t *filter, const dl::QDotOut &sums)
{
    constexpr int kGroup = 64;
    const int c = in.c;
    for (int p = 0; p < g.wo * g.ho; p++) {
        const int y0 = p / g.wo * g.sy - g.top, x0 = p % g.wo * g.sx - g.left;
        for (int c0 = 0; c0 < c; c0 += kGroup) {
            const int nc = c - c0 < kGroup ? c - c0 : kGroup;
            int64_t acc[kGroup] = {};
            for (int dy = 0; dy < g.kh; dy++) {
                const int y = y0 + dy;
                if (y < 0 || y >= in.h) continue;
                for (int dx = 0; dx < g.kw; dx++) {
                    const int x = x0 + dx;
                    if (x < 0 || x >= in.w) continue;
                    const qtp_t *fw = filter + (dy * g.kw + dx) * c + c0;
                    const T *v = in.item + (static_cast<size_t>(y) * in.w + x) * c + c0;
                    for (int ch = 0; ch < nc; ch++) acc[ch] += static_cast<int64_t>(fw[ch]) * item(v[ch]);
                }
            }
            for (int ch = 0; ch < nc; ch++) {
                if (sums.items) dl::qdot_store(sums, p, c0 + ch, acc[ch]);
                else dl::qdot_store(sums, c0 + ch, p, acc[ch]);
            }
        }
    }
}

// The exact sums by isa's kernel where there is one, else by the loop above.
void depthwise_sums_by(Isa isa, const Plane<qtp_t> &in, const Geo &g, const qtp_t *filter, const dl::QDotOut &sums)
{
#if DL_DSP_KERNELS
    if (isa == Isa::dsp && dl::dsp::depthwise_sums(in.item, in.w, in.h, in.c, g, filter, sums)) return;
#else
    (void)isa;
#endif
    depthwise_sums(in, g, filter, sums);
}

template <class Filter, class In>
Geo depthwise_geometry(const Plane<In> &in, const Filter *filter, int stride_x, int stride_y,
                       const dl_padding_t *padding)
{
    DL_ASSERT(filter->n==1);
    DL_ASSERT(filter->c==in.c);
    return window_geometry(in.w, in.h, filter->w, filter->h, stride_x, stride_y, padding);
}

// ---- Pooling -------------------------------------------------------------------

template <class Tensor, class Alloc>
Tensor *pool(const Tensor *in, int filter_w, int filter_h, int stride_x, int stride_y, Tensor *out, Alloc alloc,
             Geo *geo)
{
    DL_ASSERT(in->n==1);
    DL_ASSERT(filter_w<=in->w);
    DL_ASSERT(filter_h<=in->h);
    *geo = window_geometry(in->w, in->h, filter_w, filter_h, stride_x, stride_y, nullptr);
    return output(out, geo->wo, geo->ho, in->c, alloc);
}

// Calls f(o, v) for every place of every window, in the order rows, columns,
// with o the output item and v the input item of that channel.
template <class T, class Start, class Step, class Finish>
void each_window(const T *in, int in_w, int c, const Geo &g, T *out, Start start, Step step, Finish finish)
{
    for (int oy = 0; oy < g.ho; oy++)
        for (int ox = 0; ox < g.wo; ox++)
            for (int ch = 0; ch < c; ch++) {
                auto acc = start(in[(static_cast<size_t>(oy) * g.sy * in_w + static_cast<size_t>(ox) * g.sx) * c + ch]);
                for (int dy = 0; dy < g.kh; dy++)
                    for (int dx = 0; dx < g.kw; dx++) {
                        if (dy == 0 && dx == 0) continue;
                        const size_t at = (static_cast<size_t>(oy * g.sy + dy) * in_w + (ox * g.sx + dx)) * c + ch;
                        acc = step(acc, in[at]);
                    }
                out[(static_cast<size_t>(oy) * g.wo + ox) * c + ch] = finish(acc);
            }
}

// The exact sum over count items divided by count, rounded down, saturated.
qtp_t floor_average(int64_t sum, int64_t count)
{
    int64_t q = sum / count;
    if (sum % count != 0 && sum < 0) q -= 1;
    return static_cast<qtp_t>(dl::saturate(q));
}

template <class Tensor>
bool same_tensor_shape(const Tensor *a, const Tensor *b)
{
    return a->n == b->n && a->w == b->w && a->h == b->h && a->c == b->c;
}

template <class Tensor>
int64_t items_of_tensor(const Tensor *t)
{
    return static_cast<int64_t>(t->n) * t->h * t->w * t->c;
}

}  // namespace

// ---- Public functions ----------------------------------------------------------

dl_padding_t dl_padding_same(int in_w, int in_h, int filter_w, int filter_h, int stride_x, int stride_y, int odd_after)
{
    DL_ASSERT(stride_x>=1);
    DL_ASSERT(stride_y>=1);
    auto total = [](int size, int f, int s) {
        const int n = (size + s - 1) / s;
        const int t = (n - 1) * s + f - size;
        return t > 0 ? t : 0;
    };
    const int tw = total(in_w, filter_w, stride_x), th = total(in_h, filter_h, stride_y);
    dl_padding_t p;
    const int small_w = tw / 2, small_h = th / 2;
    p.left = odd_after ? small_w : tw - small_w;
    p.right = tw - p.left;
    p.top = odd_after ? small_h : th - small_h;
    p.bottom = th - p.top;
    return p;
}

namespace dl {

dl_matrix3d_t *conv_layer(Isa isa, const dl_matrix3d_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                          int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    return conv_float<fptp_t>(isa, in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3d_t *conv_layer(Isa isa, const dl_matrix3du_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                          int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return conv_float<uc_t>(isa, in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3d_t *conv_layer_quantised_weight(Isa isa, const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                           const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                           const dl_padding_t *padding, dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    DL_ASSERT(in->n==1);
    // One exponent for the whole input, from its own range, once per call.
    dl_matrix3dq_t *q = dl_matrixq_from_matrix3d(in);
    DL_ASSERT_ALLOCATED(q);
    out = conv_sums_float(isa, plane_of(q), q->exponent, filter, bias, stride_x, stride_y, padding, out);
    dl_matrix3dq_free(q);
    return out;
}

dl_matrix3d_t *conv_layer_quantised_weight(Isa isa, const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                           const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                           const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return conv_sums_float(isa, plane_of(in), kImageExponent, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3dq_t *conv_layer_q(Isa isa, const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                             const dl_matrix3dq_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                             dl_matrix3dq_t *out, int shift)
{
    DL_ASSERT(out!=in);
    return conv_sums_q(isa, plane_of(in), in->exponent, filter, bias, stride_x, stride_y, padding, out, shift);
}

dl_matrix3dq_t *conv_layer_q(Isa isa, const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                             const dl_matrix3dq_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                             dl_matrix3dq_t *out, int shift)
{
    return conv_sums_q(isa, plane_of(in), kImageExponent, filter, bias, stride_x, stride_y, padding, out, shift);
}

}  // namespace dl

dl_matrix3d_t *dl_matrix3d_conv_layer(const dl_matrix3d_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                                      int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::conv_layer(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3d_t *dl_matrix3d_conv_layer_quantised_weight(const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                       const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                       const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::conv_layer_quantised_weight(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3dq_t *dl_matrix3dq_conv_layer_q(const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                          const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                          const dl_padding_t *padding, dl_matrix3dq_t *out, int shift)
{
    return dl::conv_layer_q(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out, shift);
}

dl_matrix3d_t *dl_matrix3du_conv_layer(const dl_matrix3du_t *in, const dl_matrix3d_t *filter, const dl_matrix3d_t *bias,
                                       int stride_x, int stride_y, const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::conv_layer(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3d_t *dl_matrix3du_conv_layer_quantised_weight(const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                                        const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                        const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::conv_layer_quantised_weight(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out);
}

dl_matrix3dq_t *dl_matrix3du_conv_layer_q(const dl_matrix3du_t *in, const dl_matrix3dq_t *filter,
                                          const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                          const dl_padding_t *padding, dl_matrix3dq_t *out, int shift)
{
    return dl::conv_layer_q(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out, shift);
}

namespace dl {

dl_matrix3d_t *depthwise_conv_layer(Isa isa, const dl_matrix3d_t *in, const dl_matrix3d_t *filter,
                                    const dl_matrix3d_t *bias, int stride_x, int stride_y, const dl_padding_t *padding,
                                    dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    const Plane<fptp_t> p = plane_of(in);
    const Geo g = depthwise_geometry(p, filter, stride_x, stride_y, padding);
    check_bias(bias, in->c);
    out = output(out, g.wo, g.ho, in->c, dl_matrix3d_alloc);
    if (!out) return nullptr;
#if DL_X86_KERNELS
    if ((isa == Isa::avx2 || isa == Isa::avx512) &&
        avx2::depthwise_float(in, g, filter->item, bias ? bias->item : nullptr, out->item))
        return out;
#else
    (void)isa;
#endif
    if (all_finite(filter->item, static_cast<size_t>(g.kh) * g.kw * in->c)) {
        conv_tiled_float(p, g, filter->item, in->c, true, bias ? bias->item : nullptr, out->item);
        return out;
    }
    depthwise_float(p, g, filter->item, out->item);
    add_bias(out->item, g.wo * g.ho, bias);
    return out;
}

}  // namespace dl

dl_matrix3d_t *dl_matrix3d_depthwise_conv_layer(const dl_matrix3d_t *in, const dl_matrix3d_t *filter,
                                                const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::depthwise_conv_layer(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out);
}

namespace dl {

dl_matrix3d_t *depthwise_conv_layer_quantised_weight(Isa isa, const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                     const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                     const dl_padding_t *padding, dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    const Geo g = depthwise_geometry(plane_of(in), filter, stride_x, stride_y, padding);
    check_bias(bias, in->c);
    out = output(out, g.wo, g.ho, in->c, dl_matrix3d_alloc);
    if (!out) return nullptr;
    dl_matrix3dq_t *q = dl_matrixq_from_matrix3d(in);
    DL_ASSERT_ALLOCATED(q);
    const int P = g.wo * g.ho;
    dl_matrix2d_t all = fview(out->item, in->c, P, in->c);
    depthwise_sums_by(isa, plane_of(q), g, filter->item,
                      dl::qdot_to_floats(&all, dl::pow2f(q->exponent + filter->exponent)));
    dl_matrix3dq_free(q);
    add_bias(out->item, P, bias);
    return out;
}

dl_matrix3dq_t *depthwise_conv_layer_q(Isa isa, const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                       const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                       const dl_padding_t *padding, dl_matrix3dq_t *out, int shift)
{
    DL_ASSERT(out!=in);
    const Plane<qtp_t> p = plane_of(in);
    const Geo g = depthwise_geometry(p, filter, stride_x, stride_y, padding);
    check_bias(bias, in->c);
    const int places = g.kh * g.kw;
    DL_ASSERT(shift>=0);
    DL_ASSERT(shift<=product_shift(places));
    out = output(out, g.wo, g.ho, in->c, alloc_q);
    if (!out) return nullptr;
    const int s = product_shift(places) - shift;
    const int P = g.wo * g.ho;
    dl_matrix2dq_t all = qview(out->item, P, in->c, in->c, 0);
    depthwise_sums_by(isa, p, g, filter->item, dl::qdot_to_items(&all, s));
    out->exponent = add_bias_q(out->item, P, in->exponent + filter->exponent + s, bias);
    return out;
}

}  // namespace dl

dl_matrix3d_t *dl_matrix3d_depthwise_conv_layer_quantised_weight(const dl_matrix3d_t *in, const dl_matrix3dq_t *filter,
                                                                 const dl_matrix3d_t *bias, int stride_x, int stride_y,
                                                                 const dl_padding_t *padding, dl_matrix3d_t *out)
{
    return dl::depthwise_conv_layer_quantised_weight(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding,
                                                     out);
}

dl_matrix3dq_t *dl_matrix3dq_depthwise_conv_layer_q(const dl_matrix3dq_t *in, const dl_matrix3dq_t *filter,
                                                    const dl_matrix3dq_t *bias, int stride_x, int stride_y,
                                                    const dl_padding_t *padding, dl_matrix3dq_t *out, int shift)
{
    return dl::depthwise_conv_layer_q(dl::detected_isa(), in, filter, bias, stride_x, stride_y, padding, out, shift);
}

dl_matrix3d_t *dl_matrix3d_max_pool(const dl_matrix3d_t *in, int filter_w, int filter_h, int stride_x, int stride_y,
                                    dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    Geo g;
    out = pool(in, filter_w, filter_h, stride_x, stride_y, out, dl_matrix3d_alloc, &g);
    if (!out) return nullptr;
    each_window(
        in->item, in->w, in->c, g, out->item, [](fptp_t v) { return v; },
        [](fptp_t m, fptp_t v) { return v > m ? v : m; }, [](fptp_t m) { return m; });
    return out;
}

dl_matrix3dq_t *dl_matrix3dq_max_pool_q(const dl_matrix3dq_t *in, int filter_w, int filter_h, int stride_x,
                                        int stride_y, dl_matrix3dq_t *out)
{
    DL_ASSERT(out!=in);
    Geo g;
    out = pool(in, filter_w, filter_h, stride_x, stride_y, out, alloc_q, &g);
    if (!out) return nullptr;
    each_window(
        in->item, in->w, in->c, g, out->item, [](qtp_t v) { return v; }, [](qtp_t m, qtp_t v) { return v > m ? v : m; },
        [](qtp_t m) { return m; });
    out->exponent = in->exponent;
    return out;
}

dl_matrix3d_t *dl_matrix3d_avg_pool(const dl_matrix3d_t *in, int filter_w, int filter_h, int stride_x, int stride_y,
                                    dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    Geo g;
    out = pool(in, filter_w, filter_h, stride_x, stride_y, out, dl_matrix3d_alloc, &g);
    if (!out) return nullptr;
    const fptp_t count = static_cast<fptp_t>(filter_w * filter_h);
    // The sum starts at 0.0 like every float sum here, so the first place is
    // added to it too (-0.0 alone averages to +0.0).
    each_window(
        in->item, in->w, in->c, g, out->item, [](fptp_t v) { return 0.0f + v; },
        [](fptp_t s, fptp_t v) { return s + v; }, [count](fptp_t s) { return s / count; });
    return out;
}

dl_matrix3dq_t *dl_matrix3dq_avg_pool_q(const dl_matrix3dq_t *in, int filter_w, int filter_h, int stride_x,
                                        int stride_y, dl_matrix3dq_t *out)
{
    DL_ASSERT(out!=in);
    Geo g;
    out = pool(in, filter_w, filter_h, stride_x, stride_y, out, alloc_q, &g);
    if (!out) return nullptr;
    const int64_t count = static_cast<int64_t>(filter_w) * filter_h;
    each_window(
        in->item, in->w, in->c, g, out->item, [](qtp_t v) { return static_cast<int64_t>(v); },
        [](int64_t s, qtp_t v) { return s + v; }, [count](int64_t s) { return floor_average(s, count); });
    out->exponent = in->exponent;
    return out;
}

dl_matrix3d_t *dl_matrix3d_global_avg_pool(const dl_matrix3d_t *in, dl_matrix3d_t *out)
{
    DL_ASSERT(out!=in);
    return dl_matrix3d_avg_pool(in, in->w, in->h, 1, 1, out);
}

dl_matrix3dq_t *dl_matrix3dq_global_avg_pool_q(const dl_matrix3dq_t *in, dl_matrix3dq_t *out)
{
    DL_ASSERT(out!=in);
    return dl_matrix3dq_avg_pool_q(in, in->w, in->h, 1, 1, out);
}

// The element-wise operators run the matrix ones over one-row views: a
// tensor's items lie back to back, so a view covers them all.

dl_matrix3d_t *dl_matrix3d_relu(const dl_matrix3d_t *in, fptp_t clip, dl_matrix3d_t *out)
{
    out = out ? out : dl_matrix3d_alloc(in->n, in->w, in->h, in->c);
    if (!out) return nullptr;
    DL_ASSERT(same_tensor_shape(in, out));
    const int count = static_cast<int>(items_of_tensor(in));
    const dl_matrix2d_t a = fview(in->item, count, 1, count);
    dl_matrix2d_t r = fview(out->item, count, 1, count);
    dl_relu(&a, clip, &r);
    return out;
}

dl_matrix3dq_t *dl_matrix3dq_relu_q(const dl_matrix3dq_t *in, fptp_t clip, dl_matrix3dq_t *out)
{
    out = out ? out : dl_matrix3dq_alloc(in->n, in->w, in->h, in->c, in->exponent);
    if (!out) return nullptr;
    DL_ASSERT(same_tensor_shape(in, out));
    const int count = static_cast<int>(items_of_tensor(in));
    const dl_matrix2dq_t a = qview(in->item, count, 1, 1, in->exponent);
    dl_matrix2dq_t r = qview(out->item, count, 1, 1, in->exponent);
    dl_relu_q(&a, clip, &r);
    out->exponent = in->exponent;
    return out;
}

dl_matrix3d_t *dl_matrix3d_add(const dl_matrix3d_t *a, const dl_matrix3d_t *b, dl_matrix3d_t *out)
{
    DL_ASSERT(same_tensor_shape(a, b));
    out = out ? out : dl_matrix3d_alloc(a->n, a->w, a->h, a->c);
    if (!out) return nullptr;
    DL_ASSERT(same_tensor_shape(a, out));
    const int count = static_cast<int>(items_of_tensor(a));
    const dl_matrix2d_t va = fview(a->item, count, 1, count), vb = fview(b->item, count, 1, count);
    dl_matrix2d_t r = fview(out->item, count, 1, count);
    dl_matrix_add(&va, &vb, &r);
    return out;
}

dl_matrix3dq_t *dl_matrix3dq_add_q(const dl_matrix3dq_t *a, const dl_matrix3dq_t *b, dl_matrix3dq_t *out, int shift)
{
    DL_ASSERT(same_tensor_shape(a, b));
    DL_ASSERT(shift==0 || shift==1);
    out = out ? out : dl_matrix3dq_alloc(a->n, a->w, a->h, a->c, 0);
    if (!out) return nullptr;
    DL_ASSERT(same_tensor_shape(a, out));
    const int count = static_cast<int>(items_of_tensor(a));
    const dl_matrix2dq_t va = qview(a->item, count, 1, 1, a->exponent), vb = qview(b->item, count, 1, 1, b->exponent);
    dl_matrix2dq_t r = qview(out->item, count, 1, 1, 0);
    dl_matrixq_add(&va, &vb, &r, shift);
    out->exponent = r.exponent;
    return out;
}

dl_matrix2d_t *dl_matrix2d_view_from_matrix3d(const dl_matrix3d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(in->n==1);
    out = dl::view_record(out);
    if (!out) return nullptr;
    DL_ASSERT(out->flags&DL_MF_FOREIGNDATA);
    const int count = in->h * in->w * in->c;
    out->w = count;
    out->h = 1;
    out->stride = count;
    out->item = in->item;
    return out;
}

dl_matrix2dq_t *dl_matrix2dq_view_from_matrix3dq(const dl_matrix3dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(in->n==1);
    out = dl::view_record(out);
    if (!out) return nullptr;
    DL_ASSERT(out->flags&DL_MF_FOREIGNDATA);
    // Column-major with one row: the items of consecutive columns are
    // neighbours, so stride 1 covers the tensor's order.
    out->w = in->h * in->w * in->c;
    out->h = 1;
    out->stride = 1;
    out->exponent = in->exponent;
    out->itemq = in->item;
    return out;
}

dl_matrix2dq_t *dl_matrix2dq_weight_view_from_matrix3dq(const dl_matrix3dq_t *in, dl_matrix2dq_t *out)
{
    DL_ASSERT(in->c==1);
    DL_ASSERT(in->n==1);
    out = dl::view_record(out);
    if (!out) return nullptr;
    DL_ASSERT(out->flags&DL_MF_FOREIGNDATA);
    // Weight (i, o) of the file stands at item[i + w * o]: column o of the
    // inputs x outputs matrix, with stride w.
    out->w = in->h;
    out->h = in->w;
    out->stride = in->w;
    out->exponent = in->exponent;
    out->itemq = in->item;
    return out;
}

dl_matrix2d_t *dl_matrix2d_weight_from_matrix3d(const dl_matrix3d_t *in, dl_matrix2d_t *out)
{
    DL_ASSERT(in->c==1);
    DL_ASSERT(in->n==1);
    const int inputs = in->w, outputs = in->h;
    out = out ? out : dl_matrix_alloc(outputs, inputs);
    if (!out) return nullptr;
    DL_ASSERT(out->w==outputs);
    DL_ASSERT(out->h==inputs);
    for (int i = 0; i < inputs; i++)
        for (int o = 0; o < outputs; o++)
            out->item[o + static_cast<size_t>(out->stride) * i] = in->item[i + static_cast<size_t>(inputs) * o];
    return out;
}
