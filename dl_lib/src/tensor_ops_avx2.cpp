// The tensor operators' kernels for processors with AVX2: 8 float lanes.
// Built with -mavx2 for this file alone (no -mfma: products and sums must
// round apart), and run only after the run-time check in kernels.cpp.
#if defined(__x86_64__)

#include <immintrin.h>

#include "tensor_ops_internal.h"

namespace dl::avx2 {
namespace {

constexpr int kLanes = 8;
constexpr int kGroup = 4;  // vectors of channels summed at once by the depthwise kernel

// Lanes 0 to n-1 selected, for the masked loads and stores.
__m256i first8(int n) { return _mm256_cmpgt_epi32(_mm256_set1_epi32(n), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7)); }

// NP neighbouring positions of one output row (the first's window at row
// y0, column x0) by NV vectors of channels from c0, bias (if any) added
// last; with Part, only `part` lanes of the last vector. Each channel's sum
// runs over the window's places in order from +0.0, one rounding per product
// and per sum, as the portable loop's: the lanes only take several channels
// at once. A padded place is 0.0 times the weight.
template <int NP, int NV, bool Part>
void positions(const float *in, int w, int h, int c, const Windows &g, const float *filter, const float *bias,
               float *out, int y0, int x0, int c0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p, int j) {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    };
    __m256 acc[NP][NV];
#pragma GCC unroll 8
    for (int i = 0; i < NP; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    for (int dy = 0; dy < g.kh; dy++) {
        const int y = y0 + dy;
        const bool row_inside = y >= 0 && y < h;
        for (int dx = 0; dx < g.kw; dx++) {
            const float *fw = filter + (dy * g.kw + dx) * c + c0;
            __m256 wv[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) wv[j] = load(fw, j);
#pragma GCC unroll 8
            for (int i = 0; i < NP; i++) {
                const int x = x0 + i * g.sx + dx;
                const bool inside = row_inside && x >= 0 && x < w;
                const float *v = in + (static_cast<size_t>(inside ? y : 0) * w + (inside ? x : 0)) * c + c0;
#pragma GCC unroll 8
                for (int j = 0; j < NV; j++)
                    acc[i][j] =
                        _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], inside ? load(v, j) : _mm256_setzero_ps()));
            }
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < NP; i++) {
        float *o = out + static_cast<size_t>(i) * c + c0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) {
            __m256 r = acc[i][j];
            if (bias) r = _mm256_add_ps(r, load(bias + c0, j));
            if (Part && j == NV - 1) _mm256_maskstore_ps(o + kLanes * j, mask, r);
            else _mm256_storeu_ps(o + kLanes * j, r);
        }
    }
}

// All channels of NP positions.
template <int NP>
void channels(const float *in, int w, int h, int c, const Windows &g, const float *filter, const float *bias,
              float *out, int y0, int x0)
{
    int c0 = 0;
    for (; c0 + kGroup * kLanes <= c; c0 += kGroup * kLanes)
        positions<NP, kGroup, false>(in, w, h, c, g, filter, bias, out, y0, x0, c0, 0);
    for (; c0 + kLanes <= c; c0 += kLanes) positions<NP, 1, false>(in, w, h, c, g, filter, bias, out, y0, x0, c0, 0);
    if (c0 < c) positions<NP, 1, true>(in, w, h, c, g, filter, bias, out, y0, x0, c0, c - c0);
}

// ---- Float convolution on few input channels --------------------------------
//
// Without gathering the windows: the kh input rows under one output row are
// first laid out as floats with their zero padding (a row outside the input
// is all zeros), so that every window row is a run of kw * c floats. Then
// kPositions neighbouring positions by two vectors of output channels at a
// time, each output's sum taken over the window's places in ascending order
// from +0.0, one rounding per product and per sum, as the gathered product
// computes it; a padded place adds 0.0 times the weight there too. The
// weights come transposed, places x channels (row k at wt + k * out_c).

constexpr int kPositions = 4;

inline float value_of(float v) { return v; }
inline float value_of(uc_t b) { return static_cast<float>(b) * 0.00390625f; }  // b * 2^-8, exactly

// The positions ox0 .. ox0+np-1 of one output row; rows[dy] is the padded
// input row under window row dy. Positions past np repeat the last one and
// are not stored.
template <int NV, bool Part>
void conv_tile(const float *const *rows, int c, const Windows &g, const float *wt, int out_c, const float *bias,
               float *out, int ox0, int np, int oc0, int part)
{
    const __m256i mask = first8(part);
    auto load = [&](const float *p, int j) {
        return Part && j == NV - 1 ? _mm256_maskload_ps(p + kLanes * j, mask) : _mm256_loadu_ps(p + kLanes * j);
    };
    __m256 acc[kPositions][NV];
#pragma GCC unroll 8
    for (int i = 0; i < kPositions; i++)
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) acc[i][j] = _mm256_setzero_ps();
    const int span = g.kw * c;
    for (int dy = 0; dy < g.kh; dy++) {
        const float *r[kPositions];
#pragma GCC unroll 8
        for (int i = 0; i < kPositions; i++)
            r[i] = rows[dy] + static_cast<size_t>(ox0 + (i < np ? i : np - 1)) * g.sx * c;
        const float *wrow = wt + static_cast<size_t>(dy * span) * out_c + oc0;
        for (int k = 0; k < span; k++) {
            const float *wk = wrow + static_cast<size_t>(k) * out_c;
            __m256 wv[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; j++) wv[j] = load(wk, j);
#pragma GCC unroll 8
            for (int i = 0; i < kPositions; i++) {
                const __m256 xv = _mm256_broadcast_ss(r[i] + k);
#pragma GCC unroll 8
                for (int j = 0; j < NV; j++) acc[i][j] = _mm256_add_ps(acc[i][j], _mm256_mul_ps(wv[j], xv));
            }
        }
    }
    // Every index of acc is known at compile time, so that it stays in
    // registers: the test against np is made inside the unrolled loop.
#pragma GCC unroll 8
    for (int i = 0; i < kPositions; i++) {
        if (i >= np) break;
        float *o = out + static_cast<size_t>(ox0 + i) * out_c + oc0;
#pragma GCC unroll 8
        for (int j = 0; j < NV; j++) {
            __m256 v = acc[i][j];
            if (bias) v = _mm256_add_ps(v, load(bias + oc0, j));
            if (Part && j == NV - 1) _mm256_maskstore_ps(o + kLanes * j, mask, v);
            else _mm256_storeu_ps(o + kLanes * j, v);
        }
    }
}

template <class T>
bool conv_few_channels(const T *in, int w, int h, int c, const Windows &g, const float *wt, int out_c,
                       const float *bias, float *out)
{
    // Columns of a padded row: enough for the last window, at least the input's.
    int pw = (g.wo - 1) * g.sx + g.kw;
    if (pw < g.left + w) pw = g.left + w;
    const size_t row_floats = static_cast<size_t>(pw) * c;
    // kh padded rows, reused as the windows move down: input row y sits in
    // slot y mod kh (kh neighbouring rows never share a slot), and is laid
    // out once however many output rows read it.
    float *buf = static_cast<float *>(malloc(sizeof(float) * row_floats * g.kh + 1));
    const float **row_ptrs = static_cast<const float **>(malloc(sizeof(float *) * g.kh));
    int *slot_row = static_cast<int *>(malloc(sizeof(int) * g.kh));
    if (!buf || !row_ptrs || !slot_row) {
        free(buf);
        free(row_ptrs);
        free(slot_row);
        return false;
    }
    for (int dy = 0; dy < g.kh; dy++) slot_row[dy] = INT32_MIN;
    const size_t before = static_cast<size_t>(g.left) * c;
    const size_t end = before + static_cast<size_t>(pw - g.left < w ? pw - g.left : w) * c;
    for (int oy = 0; oy < g.ho; oy++) {
        for (int dy = 0; dy < g.kh; dy++) {
            const int y = oy * g.sy - g.top + dy;
            const int slot = ((y % g.kh) + g.kh) % g.kh;
            float *r = buf + row_floats * slot;
            row_ptrs[dy] = r;
            if (slot_row[slot] == y) continue;
            slot_row[slot] = y;
            // Zeros before the input's columns, the row (or zeros for a row
            // outside the input), zeros after.
            const bool inside = y >= 0 && y < h;
            const T *src = in + static_cast<size_t>(inside ? y : 0) * w * c;
            for (size_t k = 0; k < before; k++) r[k] = 0.0f;
            for (size_t k = before; k < end; k++) r[k] = inside ? value_of(src[k - before]) : 0.0f;
            for (size_t k = end; k < row_floats; k++) r[k] = 0.0f;
        }
        float *o = out + static_cast<size_t>(oy) * g.wo * out_c;
        for (int ox0 = 0; ox0 < g.wo; ox0 += kPositions) {
            const int np = g.wo - ox0 < kPositions ? g.wo - ox0 : kPositions;
            int oc0 = 0;
            for (; oc0 + 2 * kLanes <= out_c; oc0 += 2 * kLanes)
                conv_tile<2, false>(row_ptrs, c, g, wt, out_c, bias, o, ox0, np, oc0, 0);
            if (out_c - oc0 > kLanes)
                conv_tile<2, true>(row_ptrs, c, g, wt, out_c, bias, o, ox0, np, oc0, out_c - oc0 - kLanes);
            else if (out_c - oc0 == kLanes) conv_tile<1, false>(row_ptrs, c, g, wt, out_c, bias, o, ox0, np, oc0, 0);
            else if (out_c > oc0) conv_tile<1, true>(row_ptrs, c, g, wt, out_c, bias, o, ox0, np, oc0, out_c - oc0);
        }
    }
    free(slot_row);
    free(row_ptrs);
    free(buf);
    return true;
}

}  // namespace

bool conv_float_few_channels(const dl_matrix3d_t *in, const Windows &g, const fptp_t *wt, int out_c, const fptp_t *bias,
                             fptp_t *out)
{
    return conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

bool conv_float_few_channels(const dl_matrix3du_t *in, const Windows &g, const fptp_t *wt, int out_c,
                             const fptp_t *bias, fptp_t *out)
{
    return conv_few_channels(in->item, in->w, in->h, in->c, g, wt, out_c, bias, out);
}

void depthwise_float(const dl_matrix3d_t *in, const Windows &g, const fptp_t *filter, const fptp_t *bias, fptp_t *out)
{
    // Two positions at a time share each load of the weights.
    const int c = in->c;
    for (int oy = 0; oy < g.ho; oy++) {
        const int y0 = oy * g.sy - g.top;
        float *o = out + static_cast<size_t>(oy) * g.wo * c;
        int ox = 0;
        for (; ox + 2 <= g.wo; ox += 2)
            channels<2>(in->item, in->w, in->h, c, g, filter, bias, o + static_cast<size_t>(ox) * c, y0,
                        ox * g.sx - g.left);
        if (ox < g.wo)
            channels<1>(in->item, in->w, in->h, c, g, filter, bias, o + static_cast<size_t>(ox) * c, y0,
                        ox * g.sx - g.left);
    }
}

}  // namespace dl::avx2

#endif
